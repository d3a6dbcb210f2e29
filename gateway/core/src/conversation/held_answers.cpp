#include "conversation/held_answers.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace standin {

std::vector<HeldAnswer> HeldAnswers::collect(std::uint64_t entry, std::size_t wanted,
                                             HeldAnswer answer)
{
    std::vector<HeldAnswer>& collected = collected_[entry];
    collected.push_back(std::move(answer));
    if (collected.size() < wanted) return {};
    std::vector<HeldAnswer> full = std::exchange(collected, {});
    std::reverse(full.begin(), full.end());
    return full;
}

std::vector<HeldAnswer> HeldAnswers::takeIf(const std::function<bool(const HeldAnswer&)>& wanted)
{
    std::vector<HeldAnswer> taken;
    std::vector<HeldAnswer> kept;
    for (HeldAnswer& answer : held_) (wanted(answer) ? taken : kept).push_back(std::move(answer));
    held_ = std::move(kept);
    return taken;
}

std::vector<HeldAnswer> HeldAnswers::takeOldest(std::size_t count)
{
    return takeIf([left = count](const HeldAnswer&) mutable { return left != 0 && left-- != 0; });
}

std::vector<HeldAnswer> HeldAnswers::takeReversed()
{
    std::vector<HeldAnswer> taken = std::exchange(held_, {});
    std::reverse(taken.begin(), taken.end());
    return taken;
}

std::vector<HeldAnswer> HeldAnswers::takeMessage(std::int32_t messageId)
{
    return takeIf([messageId](const HeldAnswer& answer) { return answer.messageId == messageId; });
}

std::vector<HeldAnswer> HeldAnswers::takeAll()
{
    std::vector<HeldAnswer> taken = std::exchange(held_, {});
    for (auto& [entry, collected] : collected_) {
        std::move(collected.begin(), collected.end(), std::back_inserter(taken));
    }
    collected_.clear();
    return taken;
}

void HeldAnswers::forgetConnection(int connection)
{
    takeIf([connection](const HeldAnswer& answer) { return answer.connection == connection; });
    for (auto& [entry, collected] : collected_) {
        const auto isLost = [connection](const HeldAnswer& answer) {
            return answer.connection == connection;
        };
        collected.erase(std::remove_if(collected.begin(), collected.end(), isLost),
                        collected.end());
    }
}

} // namespace standin
