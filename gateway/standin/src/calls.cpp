#include "calls.h"

#include <utility>

namespace standin {

void Calls::came(const CallRecord& call)
{
    auto kept = std::make_shared<const KeptCall>(KeptCall{call, false});
    {
        const std::lock_guard<std::mutex> guard(lock_);
        calls_.push_back(kept);
        last_ = std::move(kept);
        came_ = calls_.size();
    }
    changed_.notify_all();
}

void Calls::ended(const CallRecord& call)
{
    auto kept = std::make_shared<const KeptCall>(KeptCall{call, true});
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (call.number <= forgotten_) return;
        calls_.at(static_cast<std::size_t>(call.number - forgotten_ - 1)) = std::move(kept);
        ++ended_;
    }
    changed_.notify_all();
}

std::size_t Calls::cameCount() const
{
    const std::lock_guard<std::mutex> guard(lock_);
    return came_;
}

std::size_t Calls::endedCount() const
{
    const std::lock_guard<std::mutex> guard(lock_);
    return ended_;
}

bool Calls::await(const std::size_t& total, std::size_t count,
                  std::chrono::milliseconds limit) const
{
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, limit, [&] { return total >= count; });
}

bool Calls::awaitCame(std::size_t count, std::chrono::milliseconds limit) const
{
    return await(came_, count, limit);
}

bool Calls::awaitEnded(std::size_t count, std::chrono::milliseconds limit) const
{
    return await(ended_, count, limit);
}

KeptCallPtr Calls::read(std::size_t number) const
{
    const std::lock_guard<std::mutex> guard(lock_);
    return number < 1 || number > calls_.size() ? nullptr : calls_[number - 1];
}

KeptCallPtr Calls::last() const
{
    const std::lock_guard<std::mutex> guard(lock_);
    return last_;
}

void Calls::forget()
{
    const std::lock_guard<std::mutex> guard(lock_);
    forgotten_ += calls_.size();
    calls_.clear();
    came_ = 0;
    ended_ = 0;
}

} // namespace standin
