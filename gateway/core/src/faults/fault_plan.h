// The misbehaviours that are in force, and what each means for an answer.
//
// Thread: the Gateway's thread only.
#ifndef STANDIN_FAULT_PLAN_H
#define STANDIN_FAULT_PLAN_H

#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "faults/answer.h"
#include "faults/fault_table.h"
#include "standin/gateway.h"
#include "standin/misbehaviour.h"

namespace standin {

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
    // Chance is the same for a seed.
    explicit FaultPlan(std::uint64_t seed = 1) : chance_(seed) {}

    // Returns the number of the entry.
    std::uint64_t add(Misbehaviour misbehaviour, Selector selector);
    void clear() { entries_.clear(); }
    void clear(Fault fault);
    bool remove(std::uint64_t number);

    std::vector<MisbehaviourInForce> inForce() const;

    // What strikes this event, in the order of adding. Every matching entry counts the event.
    std::vector<Strike> strike(const Event& event);

    // The number of the first misbehaviour with this fault, which strikes always, that is in force
    // for the connection; 0: there is none. Every matching entry counts the connection, once.
    std::int32_t standing(Fault fault, int connection);

    // The connection has ended, and is asked for no more.
    void forget(int connection);

    // How something that is struck is sent; the latency by chance.
    Manner mannerFor(const std::vector<Strike>& strikes);

private:
    struct Entry {
        std::uint64_t number;
        Misbehaviour misbehaviour;
        Selector selector;
        int seen;                  // matching events so far
        std::map<int, int> places; // of connections that were asked for, each with its count then
    };

    std::vector<Entry> entries_;
    std::uint64_t lastNumber_ = 0;
    std::mt19937_64 chance_;
};

// The first strike with this fault, or null.
const Strike* findStrike(const std::vector<Strike>& strikes, Fault fault);

// What the first strike that asks for it puts in the place of the good answer.
std::optional<Answer> replacedAnswer(const std::vector<Strike>& strikes, const FlowHeader& request);

// Whether an error takes the place of the good answer, and whether the good answer gets a code of
// the Gateway: either way the call has failed for its client.
bool isReplacedByAnError(const std::vector<Strike>& strikes);
bool hasGatewayRc(const std::vector<Strike>& strikes);

// What becomes of a connection that is struck as it is accepted: a reset goes before a drop.
Answer::Then endingAtConnect(const std::vector<Strike>& strikes);

// A program's answer with everything that the strikes do to it.
Answer spoiledAnswer(const std::vector<Strike>& strikes, Flow answer);

// The same for an answer that is no flow but just bytes, whose header cannot be changed.
Answer spoiledAnswer(const std::vector<Strike>& strikes, Bytes answer);

// The same for bytes that are a flow, if they are one.
Answer spoiledFlow(const std::vector<Strike>& strikes, Bytes answer);

} // namespace standin

#endif
