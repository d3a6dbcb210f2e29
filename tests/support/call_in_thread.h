// A call that runs in a thread of its own while the test goes on.
//
//     auto call = callInThread([&] { return QPX_ECI_Execute(token, &parms.record); });
//     ... make it end ...
//     EXPECT_RC(0, call.get());
//
// A call that does not end within a generous limit ends the process with a message: what it works
// on cannot be taken away from it, and the suite must not hang.
#ifndef SUPPORT_CALL_IN_THREAD_H
#define SUPPORT_CALL_IN_THREAD_H

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>
#include <utility>

namespace support {

// The limit of everything that waits in tests.
constexpr std::chrono::seconds generousLimit{60};

template <typename Result>
class RunningCall {
public:
    RunningCall(std::future<Result> future, std::thread thread)
        : future_(std::move(future)), thread_(std::move(thread))
    {
    }
    RunningCall(RunningCall&&) noexcept = default;
    RunningCall& operator=(RunningCall&&) = delete;
    ~RunningCall()
    {
        if (thread_.joinable()) awaitEnd();
    }

    // The call's result, once. An exception of the call leaves here.
    Result get()
    {
        awaitEnd();
        return future_.get();
    }

    // True when it has ended already; waits for nothing.
    bool hasEnded() const
    {
        return future_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }

private:
    void awaitEnd()
    {
        if (!thread_.joinable()) return;
        if (future_.wait_for(generousLimit) != std::future_status::ready) {
            std::fprintf(stderr, "A call in a thread of its own has not ended. The test fails.\n");
            std::fflush(nullptr);
            std::_Exit(1);
        }
        thread_.join();
    }

    std::future<Result> future_;
    std::thread thread_;
};

template <typename Function>
auto callInThread(Function function) -> RunningCall<decltype(function())>
{
    using Result = decltype(function());
    std::packaged_task<Result()> task(std::move(function));
    std::future<Result> future = task.get_future();
    std::thread thread(std::move(task));
    return RunningCall<Result>(std::move(future), std::move(thread));
}

// The same with a function and its arguments, which are copied.
template <typename Function, typename First, typename... Rest>
auto callInThread(Function function, First first, Rest... rest)
{
    return callInThread([=]() mutable { return function(first, rest...); });
}

} // namespace support

#endif
