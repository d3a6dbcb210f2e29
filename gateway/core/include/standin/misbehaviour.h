// What a Gateway can do wrong on purpose, by name.
//
// A misbehaviour is a name, an argument where the name takes one, and a selector that says which
// connections and requests it applies to. Tests build it in code,
//
//     gateway.misbehave({Fault::FlowError, 61445}, onMessage(3));
//     gateway.misbehave({Fault::Pieces, 7});
//
// and a command line or a file gives the same as text: "flow-error=61445@message:3", "pieces=7".
#ifndef STANDIN_MISBEHAVIOUR_H
#define STANDIN_MISBEHAVIOUR_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "standin/messages.h"

namespace standin {

// What each does, stands in its row of src/faults/fault_table.cpp, from which --list-misbehaviours
// and docs/gateway.md have it too. A fault without a row does not compile.
enum class Fault {
    // While a connection opens; these match by connection.
    DropAtConnect,
    ResetAtConnect,
    Silence,
    NoHandshakeAnswer,
    RefuseHandshake,
    CloseAtHandshake,
    DropAtHandshake,
    ResetAtHandshake,

    // While a connection ends; matches by connection.
    NoCloseAnswer,

    // How everything is sent on a connection; matches by connection.
    Pieces,

    // How fast a connection is; these match by connection, and count connections.
    SendRate,
    ReceiveRate,

    // On the way of any answer: to a handshake, a request or a close flow. With a program or a
    // message id only of those to requests.
    Latency,
    Stall,
    Partition,

    // Instead of the answer to a request.
    Hold,
    NoAnswer,
    Reverse,
    FlowError,
    FlowException,
    ConnectionError,
    Close,
    Drop,
    Reset,
    HalfClose,
    Raw,

    // Before the answer.
    Ping,
    UnknownFlow,

    // In the answer itself.
    BadEyecatcher,
    UnknownMessageId,
    Duplicate,
    EsiType,
    RequestType,
    GatewayRc,
    Truncate,

    End // no fault: stays behind all of them
};
constexpr std::size_t kFaultCount = static_cast<std::size_t>(Fault::End);

// Which connections and requests a misbehaviour applies to; the members narrow it down together.
struct Selector {
    int connection = 0;         // number of the connection, the first one is 1; 0: every one
    std::int32_t messageId = 0; // message id of the request; 0: every one
    std::string program;        // name of the program; empty: every one
    int skip = 0;               // so many matching events pass unharmed first
    int times = 0;              // so many are struck after that; 0: all
};

Selector everything();
Selector onConnection(int number);
Selector onMessage(std::int32_t messageId);
Selector onProgram(std::string program);
Selector once();          // the next matching event only
Selector nth(int number); // the number-th matching event only, counted from 1

struct Misbehaviour {
    Fault fault = Fault::Hold;
    std::int32_t number = 0; // CODE, N, TYPE or ID; 0 takes the default where the table names one
    std::int32_t spread = 0; // JITTER
    std::string text;        // TEXT or NAME
    Bytes bytes;             // HEX

    Misbehaviour(Fault theFault, std::int32_t theNumber = 0) : fault(theFault), number(theNumber) {}
    Misbehaviour(Fault theFault, std::string theText) : fault(theFault), text(std::move(theText)) {}
    Misbehaviour(Fault theFault, Bytes theBytes) : fault(theFault), bytes(std::move(theBytes)) {}
};

struct SelectedMisbehaviour {
    Misbehaviour misbehaviour;
    Selector selector;
};

// Reads "name", "name=argument" and either with "@selector,selector..." behind it. Selectors:
// "connection:N", "message:ID", "program:NAME", "skip:N", "times:N", "once", "nth:N". Throws
// std::invalid_argument with a text that says what is wrong and what is possible.
SelectedMisbehaviour parseMisbehaviour(std::string_view text);

// Each fault for help texts and documents.
struct MisbehaviourInfo {
    Fault fault;
    std::string_view name;
    std::string form;          // the name with what it takes: "pieces=N", "unknown-flow[=TYPE]"
    std::string_view heading;  // when it strikes
    std::string_view sentence; // what it does
};

// In an order in which those of one heading stand together.
const std::vector<MisbehaviourInfo>& misbehaviours();
std::string_view nameOf(Fault fault);

// Whether it strikes at the answer to a request, and so can be named for a single one.
bool strikesAtAnswers(Fault fault);

// Whether it is one of the connection rather than of what is said: how fast it is, what arrives
// late or never, and who is silent.
bool isOfTheConnection(Fault fault);

} // namespace standin

#endif
