#include "conversation/timers.h"

#include <utility>

namespace standin {

void Timers::after(std::chrono::microseconds delay, std::function<void()> task)
{
    if (ended_) return;
    const auto timer = waiting_.emplace(waiting_.end(), context_, delay);
    timer->async_wait([this, timer, task = std::move(task)](const asio::error_code& stopped) {
        if (ended_) return;
        waiting_.erase(timer);
        if (!stopped) task();
    });
}

// A timer that has run out already still calls its handler, which finds that it is over.
void Timers::end()
{
    ended_ = true;
    waiting_.clear();
}

} // namespace standin
