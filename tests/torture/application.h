// The application whose system fails: it makes the library's calls, holds each result against those
// that the headers document for the call, and keeps what it has seen.
//
//     if (CALL(QPX_OK, QPX_openRemoteGatewayConnection, host, port, &token, 0) != QPX_OK) return;
//
// The first argument is the result that the call has where nothing fails. Once something has
// failed, it may have any that the headers give for a failure of the system or the connection.
#ifndef TORTURE_APPLICATION_H
#define TORTURE_APPLICATION_H

#include <cstddef>
#include <initializer_list>
#include <string>
#include <vector>

#include "qpxclient_eci.h"
#include "qpxclient_esi.h"
#include "shim.h"

namespace torture {

// Ports of 127.0.0.1 that the scenarios meet.
struct Ports {
    int gateway = 0;  // answers
    int refusing = 0; // refuses the handshake with 61445
    int dropping = 0; // ends the connection at the handshake
    int silent = 0;   // refuses to be connected to
};
extern Ports ports;

extern const Shim* shim;

// What a scenario does. One that is cold makes the first call of the process, with which the
// library initialises itself: where that fails, so does every call behind it.
struct Scenario {
    const char* name;
    void (*run)();
    bool cold;
};
extern const Scenario scenarios[];
extern const std::size_t scenarioCount;

// Says that something is wrong. The run goes on, and fails.
void complain(const std::string& problem);
bool hasComplained();

// Before and behind each call of the library; see CALL.
void enter(const char* call);
int leave(const char* call, int rc, std::initializer_list<int> expected);

// What the call is that a thread is in, for whoever tells of a hang.
void tellWhere();

// Whether some thread is opening a connection while this one makes no call: it is a receiver then,
// or nobody's.
bool isReceiverOfAnOpen();

// Where the first call of the process may fail, every other fails with what it has failed with.
void expectColdStart();

// What the calls of each thread have returned, as one text for each thread, in no order; a result
// that the order of threads decides on is left open.
std::vector<std::string> toldResults();

// Whether a call has had the result that is its work.
bool hasWorked(const char* call);

template <class Function>
int made(const char* call, std::initializer_list<int> expected, Function function)
{
    enter(call);
    return leave(call, function(), expected);
}

// A result that has to be right once its call has said that it is.
void expect(bool right, const char* what);

} // namespace torture

#define CALL(expected, function, ...) \
    torture::made(#function, {expected}, [&] { return function(__VA_ARGS__); })

// The same where the order of threads decides on the result.
#define CALL_ANY(expected, function, ...) \
    torture::made(#function, expected, [&] { return function(__VA_ARGS__); })

// The same for a call without a result, or with a pointer.
#define CALL_PLAIN(function, ...)                 \
    torture::made(#function, {0}, [&] {           \
        static_cast<void>(function(__VA_ARGS__)); \
        return 0;                                 \
    })

#endif
