// The misbehaviours that are in force, and what each means for an answer.
//
// Thread: the Gateway's thread only.
#ifndef STANDIN_FAULT_PLAN_H
#define STANDIN_FAULT_PLAN_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "standin/misbehaviour.h"

namespace standin {

// The moments at which a misbehaviour can strike; every fault belongs to exactly one.
enum class Moment { Connect, Handshake, CloseFlow, Sending, Request };

struct Event {
    Moment moment = Moment::Request;
    int connection = 0;
    std::int32_t messageId = 0; // requests only, as is the program
    std::string program;
};

// A misbehaviour that strikes an event. `entry` stays the same for one call of FaultPlan::add.
struct Strike {
    Misbehaviour misbehaviour;
    std::uint64_t entry;
};

class FaultPlan {
public:
    void add(Misbehaviour misbehaviour, Selector selector);
    void clear() { entries_.clear(); }
    void clear(Fault fault);

    // What strikes this event, in the order of adding. Every matching entry counts the event.
    std::vector<Strike> strike(const Event& event);

private:
    struct Entry {
        std::uint64_t number;
        Misbehaviour misbehaviour;
        Selector selector;
        int seen; // matching events so far
    };

    std::vector<Entry> entries_;
    std::uint64_t lastNumber_ = 0;
};

// What goes out for one request.
struct Answer {
    enum class Then { GoOn, Drop, Reset };

    std::vector<Bytes> flows; // sent one behind the other
    Then then = Then::GoOn;   // what happens to the connection afterwards
};

// The first strike with this fault, or null.
const Strike* findStrike(const std::vector<Strike>& strikes, Fault fault);

// The answer that takes the place of a program's answer, when one of the strikes asks for that.
std::optional<Answer> replacedAnswer(const std::vector<Strike>& strikes, const FlowHeader& request);

// A program's answer with everything that the strikes do to it.
Answer spoiledAnswer(const std::vector<Strike>& strikes, Flow answer);

// The same for an answer that is no flow but just bytes, whose header cannot be changed.
Answer spoiledAnswer(const std::vector<Strike>& strikes, Bytes answer);

} // namespace standin

#endif
