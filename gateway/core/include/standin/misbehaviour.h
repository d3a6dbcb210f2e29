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

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "standin/messages.h"

namespace standin {

enum class Fault {
    // While a connection opens; these match by connection.
    DropAtConnect,     // "drop-at-connect": the connection is closed as soon as it is accepted
    ResetAtConnect,    // "reset-at-connect": the same with a reset
    NoHandshakeAnswer, // "no-handshake-answer": the handshake is read and never answered
    RefuseHandshake,   // "refuse-handshake=CODE": FLOW_ERROR with message id -2 and the code
    CloseAtHandshake,  // "close-at-handshake": a close flow instead of the handshake answer
    DropAtHandshake,   // "drop-at-handshake": the connection is closed instead of the answer
    ResetAtHandshake,  // "reset-at-handshake": the same with a reset

    // While a connection ends; matches by connection.
    NoCloseAnswer, // "no-close-answer": the client's close flow is read and never answered

    // How everything is sent on a connection; matches by connection.
    Pieces, // "pieces=N": every flow is sent in pieces of N bytes

    // Instead of the answer to a request.
    Hold,            // "hold": the answer is kept until it is released
    NoAnswer,        // "no-answer": the request is dropped without an answer
    Reverse,         // "reverse=N": N answers are collected, then sent last one first
    FlowError,       // "flow-error=CODE": FLOW_ERROR for the request
    FlowException,   // "flow-exception=TEXT": FLOW_EXCEPTION for the request
    ConnectionError, // "connection-error=CODE": FLOW_ERROR with message id -2
    Close,           // "close": a close flow (message id -1), nothing else
    Drop,            // "drop": the connection is closed
    Reset,           // "reset": the connection is reset
    Raw,             // "raw=HEX": these bytes as they are

    // Before the answer.
    Ping,        // "ping": a FLOW_PING first
    UnknownFlow, // "unknown-flow=TYPE": an empty flow of that type first, 99 when none is given

    // In the answer itself.
    BadEyecatcher,    // "bad-eyecatcher": its first four bytes are "Etag"
    UnknownMessageId, // "unknown-message-id=ID": another message id, 999999 when none is given
    Duplicate,        // "duplicate": it is sent twice
    EsiType,          // "esi-type": its request type is "ESI"
    RequestType,      // "request-type=NAME": its request type is NAME, "XYZ" when none is given
    GatewayRc,        // "gateway-rc=CODE": its header carries the code
    Truncate,         // "truncate=N": only its first N bytes, then the connection is closed
};

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

// One row for every name, for help texts.
struct MisbehaviourInfo {
    Fault fault;
    std::string_view name;
    std::string_view argument; // "", "CODE", "[TYPE]" ...
    std::string_view effect;
};
const std::vector<MisbehaviourInfo>& misbehaviours();
std::string_view nameOf(Fault fault);

} // namespace standin

#endif
