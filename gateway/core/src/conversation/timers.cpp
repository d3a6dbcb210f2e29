#include "conversation/timers.h"

#include <utility>

namespace standin {

Timers::Duration Timers::now() const
{
    if (clock_ != nullptr) return clock_->now();
    return std::chrono::duration_cast<Duration>(
        std::chrono::steady_clock::now().time_since_epoch());
}

void Timers::after(Duration delay, std::function<void()> task)
{
    if (ended_) return;
    if (clock_ != nullptr) {
        const std::uint64_t number = ++lastNumber_;
        tasks_[number] = std::move(task);
        // When the loop has gone, so has this.
        return clock_->after(
            delay, [way = wayOnto(loop_), this, number] { way([this, number] { run(number); }); });
    }
    const auto timer = waiting_.emplace(waiting_.end(), loop_->context(), delay);
    timer->async_wait([this, timer, task = std::move(task)](const asio::error_code& stopped) {
        if (ended_) return;
        waiting_.erase(timer);
        if (!stopped) task();
    });
}

void Timers::run(std::uint64_t number)
{
    const auto found = tasks_.find(number);
    if (found == tasks_.end()) return;
    const std::function<void()> task = std::move(found->second);
    tasks_.erase(found);
    task();
}

// A timer that has run out already still calls its handler, which finds that it is over.
void Timers::end()
{
    ended_ = true;
    waiting_.clear();
    tasks_.clear();
}

} // namespace standin
