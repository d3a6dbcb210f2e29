// All that there is to know about each fault, in one row: its name, when it strikes, what it takes,
// what it does, and the sentence that tells so in help and documents.
//
// Thread: any; nothing here ever changes.
#ifndef STANDIN_FAULT_TABLE_H
#define STANDIN_FAULT_TABLE_H

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <variant>

#include "faults/answer.h"
#include "standin/messages.h"
#include "standin/misbehaviour.h"

namespace standin {

// The moments at which a misbehaviour can strike; every fault belongs to exactly one. Flow is a
// handshake, a request or a close flow, whichever comes, and Always no moment at all.
enum class Moment { Connect, Handshake, CloseFlow, Sending, Always, Flow, Request };

// What stands behind the "=" of a name, and the word for it.
struct Argument {
    enum class Kind { None, Number, Count, Jitter, Text, Hex };

    Kind kind = Kind::None;
    std::string_view word;
    bool optional = false;
};

// ----------------------------------------------------------------------------------------- effects

// This is done instead of what a good Gateway does. The header is that of the request, and empty at
// other moments.
struct Instead {
    Answer (*answer)(const Misbehaviour& misbehaviour, const FlowHeader& request);
};

// This flow goes out in front of the answer.
struct Before {
    Flow (*flow)(const Misbehaviour& misbehaviour);
};

// The header of the answer is changed.
struct InHeader {
    void (*change)(const Misbehaviour& misbehaviour, FlowHeader& header);
};

// The answer as bytes is changed. Of several misbehaviours of one fault the first one is taken.
struct AnswerBytes {
    Bytes bytes;
    int copies = 1;
    Answer::Then then = Answer::Then::GoOn;
};
struct InBytes {
    void (*change)(const Misbehaviour& misbehaviour, AnswerBytes& answer);
};

// The answer is sent another way; the server looks for these itself.
struct InDelivery {};

using Effect = std::variant<Instead, Before, InHeader, InBytes, InDelivery>;

// -------------------------------------------------------------------------------------------- rows

struct FaultRow {
    Fault fault;
    std::string_view name;
    Moment moment;
    Argument argument;
    Effect effect;
    std::string_view sentence; // what it does, the Gateway being the subject
};

// The rows in the order of the faults.
const std::array<FaultRow, kFaultCount>& faultRows();
const FaultRow& rowOf(Fault fault);

// The name and what it takes: "pieces=N", "unknown-flow[=TYPE]".
std::string formOf(const FaultRow& row);

// When it strikes, in words; the rows of one such heading stand together.
std::string_view headingOf(const FaultRow& row);

} // namespace standin

#endif
