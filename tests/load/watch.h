// What the threads of the load are doing, and what has gone wrong.
//
//     Watch watch(seed, threads);
//     Doing doing(watch, thread, "QPX_closeGatewayConnection", connection);
//     watch.problem(thread, "returned 0 on a connection that is gone");
//
// A problem is printed at once, with its thread, its operation and the seed. So is what each thread
// does when the process crashes, or when a call does not return: that ends the process.
#ifndef LOAD_WATCH_H
#define LOAD_WATCH_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace load {

class Watch {
public:
    Watch(unsigned seed, int threads);
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    void problem(int thread, const std::string& text);
    void problem(const std::string& text); // of no thread's

    // After so many the load has shown enough.
    bool hasSeenEnough() const { return problemCount_ >= 20; }
    std::vector<std::string> problems() const;

private:
    friend class Doing;
    using Clock = std::chrono::steady_clock;

    // What a thread does; read by others at any time.
    struct Doings {
        std::atomic<const char*> operation{nullptr};
        std::atomic<const char*> last{nullptr};
        std::atomic<int> connection{0};
        std::atomic<Clock::rep> since{0};
    };

    std::string nameOf(int thread) const;
    void look();
    void tellOfHang(int thread) const;
    static void tellOfCrash(int signal);

    const unsigned seed_;
    std::vector<Doings> doings_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool over_ = false;                 // guarded by mutex_
    std::vector<std::string> problems_; // guarded by mutex_
    std::atomic<int> problemCount_{0};
    std::thread looking_;
};

// A call of the library, as long as it lives. The name must outlive the process' threads.
class Doing {
public:
    Doing(Watch& watch, int thread, const char* operation, int connection);
    ~Doing();
    Doing(const Doing&) = delete;
    Doing& operator=(const Doing&) = delete;

private:
    Watch::Doings& doings_;
    const char* before_;
};

} // namespace load

#endif
