// Runs the calls of a row and measures them: in threads that begin together, or as a window of
// requests of which so many are on their way at once.
#pragma once

#include "figures.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <thread>
#include <vector>

namespace bench {

// What several threads measure together: the first to go takes the stand of the process, the last
// to be done takes it again, so that no other thread has to be woken for it.
class Course {
public:
    explicit Course(int threads) : running_(threads)
    {
        pthread_barrier_init(&ready_, nullptr, static_cast<unsigned>(threads));
        pthread_barrier_init(&go_, nullptr, static_cast<unsigned>(threads));
    }
    ~Course()
    {
        pthread_barrier_destroy(&ready_);
        pthread_barrier_destroy(&go_);
    }
    Course(const Course&) = delete;
    Course& operator=(const Course&) = delete;

    void begin()
    {
        if (pthread_barrier_wait(&ready_) == PTHREAD_BARRIER_SERIAL_THREAD) {
            before_ = usageNow();
            begun_ = now();
        }
        pthread_barrier_wait(&go_);
    }
    void end()
    {
        if (running_.fetch_sub(1) > 1) return;
        ended_ = now();
        after_ = usageNow();
    }
    void read(Figures* figures) const
    {
        figures->seconds = static_cast<double>(ended_ - begun_) / 1e9;
        figures->used.cpuMicroseconds = after_.cpuMicroseconds - before_.cpuMicroseconds;
        figures->used.switches = after_.switches - before_.switches;
    }

private:
    pthread_barrier_t ready_;
    pthread_barrier_t go_;
    std::atomic<int> running_;
    Usage before_;
    Usage after_;
    std::int64_t begun_ = 0;
    std::int64_t ended_ = 0;
};

// The calls of one thread. The end of one is the beginning of the next. Each stands for `batch` of
// what is measured, where one alone is shorter than a look at the clock.
template <typename Call>
void timeCalls(Call& call, std::vector<std::uint32_t>* nanoseconds, int batch)
{
    std::int64_t before = now();
    for (std::uint32_t& taken : *nanoseconds) {
        for (int turn = 0; turn < batch; ++turn) call();
        const std::int64_t after = now();
        taken = static_cast<std::uint32_t>((after - before) / batch);
        before = after;
    }
}

// Measures calls; makeCall(thread) gives each thread what it calls in a row.
template <typename MakeCall>
Figures measureCalls(const Options& options, const MakeCall& makeCall, int batch = 1)
{
    const std::size_t each = static_cast<std::size_t>(options.calls) /
                             static_cast<std::size_t>(options.threads * batch);
    std::vector<std::vector<std::uint32_t>> taken(static_cast<std::size_t>(options.threads),
                                                  std::vector<std::uint32_t>(each));
    Course course(options.threads);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < options.threads; ++thread)
        threads.emplace_back([&, thread] {
            auto call = makeCall(thread);
            for (int turn = 0; turn < options.warmUp; ++turn) call();
            course.begin();
            timeCalls(call, &taken[static_cast<std::size_t>(thread)], batch);
            course.end();
        });
    for (std::thread& thread : threads) thread.join();

    Figures figures;
    for (const auto& ofThread : taken)
        figures.nanoseconds.insert(figures.nanoseconds.end(), ofThread.begin(), ofThread.end());
    figures.calls = static_cast<double>(figures.nanoseconds.size()) * batch;
    course.read(&figures);
    return figures;
}

// Sends and collects that many requests, never more than a window of them on their way.
template <typename Send, typename Collect>
void passWindow(std::size_t window, std::size_t calls, const Send& send, const Collect& collect,
                std::vector<std::uint32_t>* taken)
{
    std::deque<std::int64_t> begun;
    for (std::size_t call = 0; call < calls + window; ++call) {
        if (call >= window && !begun.empty()) {
            collect();
            taken->push_back(static_cast<std::uint32_t>(now() - begun.front()));
            begun.pop_front();
        }
        if (call < calls) {
            begun.push_back(now());
            send();
        }
    }
}

// Measures requests that are sent and collected by one thread. A call takes from its sending until
// a reply has been collected for it.
template <typename Send, typename Collect>
Figures measureWindow(const Options& options, const Send& send, const Collect& collect)
{
    const std::size_t window = static_cast<std::size_t>(options.window);
    const std::size_t calls = static_cast<std::size_t>(options.calls);
    std::vector<std::uint32_t> warmUp;
    Figures figures;
    figures.nanoseconds.reserve(calls);
    passWindow(window, std::max(2 * window, static_cast<std::size_t>(options.warmUp)), send,
               collect, &warmUp);

    Course course(1);
    course.begin();
    passWindow(window, calls, send, collect, &figures.nanoseconds);
    course.end();
    figures.calls = static_cast<double>(calls);
    course.read(&figures);
    return figures;
}

} // namespace bench
