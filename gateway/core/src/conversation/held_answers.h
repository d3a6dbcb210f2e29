// Answers that are kept back until somebody asks for them.
//
// Thread: the Gateway's thread only.
#ifndef STANDIN_HELD_ANSWERS_H
#define STANDIN_HELD_ANSWERS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "faults/fault_plan.h"

namespace standin {

struct HeldAnswer {
    int connection;
    std::int32_t messageId;
    Answer answer;
};

class HeldAnswers {
public:
    // Keeps an answer; the oldest ones are in front.
    void hold(HeldAnswer answer) { held_.push_back(std::move(answer)); }

    // Keeps an answer for one entry of the fault plan. When that has `wanted` of them, they are
    // returned, the newest first.
    std::vector<HeldAnswer> collect(std::uint64_t entry, std::size_t wanted, HeldAnswer answer);

    // Each takes answers out: the oldest ones; all, the newest first; those to one message id; and
    // all, the collected ones included.
    std::vector<HeldAnswer> takeOldest(std::size_t count);
    std::vector<HeldAnswer> takeReversed();
    std::vector<HeldAnswer> takeMessage(std::int32_t messageId);
    std::vector<HeldAnswer> takeAll();

    // Throws away what was meant for a connection.
    void forgetConnection(int connection);

    // How many answers are held, without those that are being collected.
    std::size_t size() const { return held_.size(); }
    const std::vector<HeldAnswer>& all() const { return held_; }

private:
    std::vector<HeldAnswer> takeIf(const std::function<bool(const HeldAnswer&)>& wanted);

    std::vector<HeldAnswer> held_;
    std::map<std::uint64_t, std::vector<HeldAnswer>> collected_; // by entry of the fault plan
};

} // namespace standin

#endif
