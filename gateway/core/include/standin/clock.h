// Time, for what a Gateway does later: answers that are delayed, limits of bandwidth, scenarios.
// Without a clock of its own a Gateway has the system's; a test that does not want to wait gives it
// one whose time passes when the test says so:
//
//     const auto clock = std::make_shared<standin::ManualClock>();
//     standin::GatewayOptions options;
//     options.clock = clock;
//     standin::Gateway gateway(options);
//     gateway.misbehave(parseMisbehaviour("latency=50").misbehaviour);
//     ... a call is made ...
//     ASSERT_TRUE(clock->awaitTasks(1)); // its answer waits
//     clock->advance(std::chrono::milliseconds(50));
#ifndef STANDIN_CLOCK_H
#define STANDIN_CLOCK_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>

namespace standin {

// Thread: every function may be called from any thread.
class Clock {
public:
    using Duration = std::chrono::microseconds;

    Clock() = default;
    virtual ~Clock() = default;

    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;

    // Since some moment, always the same one.
    virtual Duration now() const = 0;

    // Runs the task, which is over at once, when so much time has passed.
    virtual void after(Duration delay, std::function<void()> task) = 0;
};

class ManualClock final : public Clock {
public:
    Duration now() const override;
    void after(Duration delay, std::function<void()> task) override;

    // So much time passes; what is to be done by then is done, in its order.
    void advance(Duration time);

    // So many tasks wait for their time; advanceToNext() makes it the first one's. False: there is
    // none, or there were not so many within half a minute.
    bool awaitTasks(std::size_t count) const;
    bool advanceToNext();
    std::size_t tasks() const;

private:
    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    Duration now_{0};
    std::multimap<Duration, std::function<void()>> tasks_; // guarded by lock_, as is now_
};

} // namespace standin

#endif
