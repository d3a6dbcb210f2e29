#include "standin/clock.h"

#include <algorithm>
#include <utility>

namespace standin {

namespace {

constexpr std::chrono::seconds kLimit{30};

}

Clock::Duration ManualClock::now() const
{
    const std::lock_guard<std::mutex> guard(lock_);
    return now_;
}

void ManualClock::after(Duration delay, std::function<void()> task)
{
    const std::lock_guard<std::mutex> guard(lock_);
    tasks_.emplace(now_ + std::max(delay, Duration(0)), std::move(task));
    changed_.notify_all();
}

void ManualClock::advance(Duration time)
{
    std::unique_lock<std::mutex> guard(lock_);
    const Duration end = now_ + time;
    while (!tasks_.empty() && tasks_.begin()->first <= end) {
        now_ = tasks_.begin()->first;
        const std::function<void()> task = std::move(tasks_.begin()->second);
        tasks_.erase(tasks_.begin());
        guard.unlock();
        task();
        guard.lock();
    }
    now_ = end;
}

bool ManualClock::awaitTasks(std::size_t count) const
{
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, kLimit, [&] { return tasks_.size() >= count; });
}

bool ManualClock::advanceToNext()
{
    Duration step{0};
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (tasks_.empty()) return false;
        step = tasks_.begin()->first - now_;
    }
    advance(step);
    return true;
}

std::size_t ManualClock::tasks() const
{
    const std::lock_guard<std::mutex> guard(lock_);
    return tasks_.size();
}

} // namespace standin
