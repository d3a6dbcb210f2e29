// What the test, which is the Gateway, has in hand when a fault is to happen.
#ifndef BOUNDS_SITUATION_H
#define BOUNDS_SITUATION_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bounds/calls.h"
#include "bounds/matrix.h"
#include "bounds/network.h"
#include "support/bytes.h"
#include "support/scripted_gateway.h"

namespace bounds {

using support::Bytes;
using support::Peer;

struct Situation {
    explicit Situation(const Cell& which) : cell(which) {}

    Cell cell;
    Application application;
    std::optional<FarHost> far;
    int listener = -1;
    Peer peer;
    pid_t holder = 0;          // the process that has the peer's socket, if that is not this one
    std::pair<int, int> ports; // of the connection: the library's, the peer's
    Running other;       // a call besides that of the cell: it works, has the channel, or purges
    int id = 1;          // of the request that is unanswered
    Bytes answer;        // to it, or to the handshake or the goodbye
    Bytes unread;        // nothing, or how the request begins that the peer has begun to read
    bool isGone = false; // the host, and with it what has not arrived

    // Another process has the peer from now on, and this one has not.
    void giveToProcess();

    // The library's side knows what the peer's has done.
    void awaitEndOfStream() const;

    // Waits until every thread sleeps and all that has been sent is read, or the call has ended.
    bool settle(const Running& call) const;

    // Ends the connection as far as the peer can.
    void endConnection();
};

// Between two looks at what is waited for, which is never that time passes: on a busy machine who
// yields gets the processor back much later than who sleeps for a moment.
void letOthersRun();

// A listening socket of 127.0.0.1.
int listenHere(int backlog, int* port);
Peer acceptFrom(int listener);

} // namespace bounds

#endif
