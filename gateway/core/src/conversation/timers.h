// Things that are to be done later on the Gateway's thread.
//
// Thread: the Gateway's thread only.
#ifndef STANDIN_TIMERS_H
#define STANDIN_TIMERS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>

#include <asio/steady_timer.hpp>

#include "conversation/event_loop.h"
#include "standin/clock.h"

namespace standin {

class Timers {
public:
    using Duration = std::chrono::microseconds;

    // By the clock, or without one by the system's. The loop must outlive this.
    Timers(const std::shared_ptr<EventLoop>& loop, std::shared_ptr<Clock> clock)
        : loop_(loop), clock_(std::move(clock))
    {
    }

    // Since some moment, always the same one.
    Duration now() const;

    void after(Duration delay, std::function<void()> task);

    // Drops all that has not been done; nothing more is taken.
    void end();

private:
    void run(std::uint64_t number);

    const std::shared_ptr<EventLoop>& loop_;
    const std::shared_ptr<Clock> clock_;
    std::list<asio::steady_timer> waiting_;
    std::map<std::uint64_t, std::function<void()>> tasks_; // with a clock, by their numbers
    std::uint64_t lastNumber_ = 0;
    bool ended_ = false;
};

} // namespace standin

#endif
