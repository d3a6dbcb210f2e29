// What the tests of tokens, slots, connecting, receiving and teardown share: a look at the records
// of the library, and ways to stop its threads at a chosen place.
#ifndef UNIT_CONNECT_FIXTURE_H
#define UNIT_CONNECT_FIXTURE_H

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>

#include "clapi_diag.h"
#include "clapi_gwycon.h"
#include "clapi_gwytok.h"
#include "clapi_impl.h"
#include "support/connection_script.h"
#include "support/faults.h"
#include "support/mutex.h"
#include "support/token_list.h"
#include "support/trace_file.h"

namespace fixture {

using support::dumpedTokens;
using support::shown;

inline std::uintptr_t asNumber(const volatile void* address)
{
    return reinterpret_cast<std::uintptr_t>(address);
}

// The token that a receiver thread has been started with. The trace has level 3 or more.
inline _QPX_ConnToken_t* tokenInTrace(const support::TraceFile& trace)
{
    void* address = nullptr;
    if (trace.awaitText("clapi_gwycon.receiverThread(conn=<ptr>)"))
        for (const std::string& message : trace.messages(3031))
            std::sscanf(message.c_str(), "clapi_gwycon.receiverThread(conn=%p)", &address);
    if (address == nullptr) throw std::runtime_error("no receiver thread in the trace");
    return static_cast<_QPX_ConnToken_t*>(address);
}

inline const std::string rule = std::string(80, '-') + "\n";

inline std::string emptyList()
{
    return "Gateway Token List dump\n" + rule + "The Gateway Token List is EMPTY\n" + rule;
}

// Counts calls without touching them.
inline support::Fault watch(support::Call call, support::Threads threads = support::Threads::Any)
{
    return support::beforeCall(
        call, 0, [](const support::CallInfo&) {}, threads);
}

// Makes the connect that a hook has been called for, and waits until it is done.
inline void connectForReal(const support::CallInfo& info)
{
    int descriptor = static_cast<int>(info.first);
    auto* address = reinterpret_cast<sockaddr*>(info.second);
    if (connect(descriptor, address, sizeof(sockaddr_in)) == 0) return;
    EXPECT_EQ(EINPROGRESS, errno);
    pollfd done{descriptor, POLLOUT, 0};
    EXPECT_EQ(1, poll(&done, 1, -1));
}

// Stops the first thread that is about to take, or give up, the given lock while the condition
// holds; the others pass by.
template <typename Condition>
support::Fault stopAtLock(support::Call call, pthread_mutex_t& mutex, support::Gate gate,
                          Condition condition, support::Threads threads = support::Threads::Others)
{
    auto stopped = std::make_shared<std::atomic<bool>>(false);
    std::uintptr_t wanted = asNumber(&mutex);
    return support::beforeCall(
        call, 0,
        [=](const support::CallInfo& info) mutable {
            if (info.first != wanted || !condition()) return;
            if (!stopped->exchange(true)) gate.pass();
        },
        threads);
}

inline bool always()
{
    return true;
}

// A lock that reads as never initialised while this lives, so that every request for it fails.
class BrokenLock {
public:
    __attribute__((no_sanitize("thread"))) explicit BrokenLock(Clapilock& lock)
        : lock_(&lock), before_(lock.initialized)
    {
        lock_->initialized = 0;
    }
    ~BrokenLock() { mend(); }
    BrokenLock(const BrokenLock&) = delete;
    BrokenLock& operator=(const BrokenLock&) = delete;

    // Once: the lock's owner may be gone afterwards. On purpose under the eyes of threads that use
    // the lock, which the thread sanitizer need not tell.
    __attribute__((no_sanitize("thread"))) void mend()
    {
        if (lock_ != nullptr) lock_->initialized = before_;
        lock_ = nullptr;
    }

private:
    Clapilock* lock_;
    int before_;
};

} // namespace fixture

#endif
