// A pool of programs of one kind that answer calls: each has a process of its own, started when it
// is first needed, and a thread that talks with it, so that nobody else waits.
//
// Thread: any.
#ifndef EXEC_POOL_H
#define EXEC_POOL_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "exec/process.h"
#include "standin/log.h"
#include "standin/messages.h"

namespace exec {

// Abend codes of calls that get no answer of their program.
constexpr const char* kCannotStart = "AEXS";
constexpr const char* kEnded = "AEXC";
constexpr const char* kTooLate = "AEXT";
constexpr const char* kBadAnswer = "AEXJ";

struct Command {
    std::vector<std::string> words; // the program and its arguments
    std::string folder;             // where it runs
    std::size_t workers = 2;
    std::chrono::microseconds limit = std::chrono::seconds(10); // for one call
};

// "" for a command that may be started, as far as that can be told now; else what is wrong.
std::string complaintAbout(const Command& command);

struct Options {
    standin::LogSink log;

    // Becomes true when the daemon ends: then nothing is waited for any more.
    std::shared_ptr<const std::atomic<bool>> abandoned = std::make_shared<const std::atomic<bool>>(
        false);
};

struct Call {
    standin::EciRequest request; // without its password
    int connection = 0;
    std::int32_t message = 0;
    std::int32_t unit = 0; // token; 0: none
};

class Pool {
public:
    using Done = std::function<void(standin::EciReply reply)>;

    Pool(Command command, Options options);

    // Waits until all calls that were given have been answered, each in its time.
    ~Pool();

    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;

    // Has the call answered, and `done` called on a thread of the pool. False, and it is not, when
    // 1,000 calls wait already, or when there can be no thread.
    bool give(Call call, Done done);

private:
    struct Job {
        Call call;
        Done done;
    };

    bool startThread();
    void work(std::size_t number);
    standin::EciReply answer(Process& process, const Call& call) const;
    standin::EciReply fail(const Call& call, const char* abend, const std::string& why) const;
    void log(standin::LogLevel level, const std::string& text) const;

    const Command command_;
    const Options options_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<Job> waiting_;          // guarded by lock_, as are the next three
    std::vector<std::thread> threads_; // one for each worker that was ever needed
    std::size_t idle_ = 0;
    bool ending_ = false;
};

} // namespace exec

#endif
