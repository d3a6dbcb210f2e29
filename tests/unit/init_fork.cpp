// Forks while other threads are inside the library, each stopped at its worst moment. The fork
// waits for them; its child finds every lock free.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "clapi_channel.h"
#include "clapi_diag.h"
#include "clapi_gwytok.h"
#include "clapi_impl.h"
#include "support/call_in_thread.h"
#include "support/expect_rc.h"
#include "support/faults.h"
#include "support/forked.h"
#include "support/trace_file.h"

using namespace support;

#if defined(__SANITIZE_THREAD__)
// The children of processes with threads use what the sanitizer wraps, threads among them.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options()
{
    return "die_after_fork=0";
}
#endif

namespace {

// Everything that takes one of the process's locks; 0 if all of it succeeds.
int useEveryLock()
{
    char* version = nullptr;
    ECI_ChannelToken_t channel = nullptr;
    if (QPX_getAPIVersion(&version) != 0) return 1;
    if (ECI_createChannel("CHANNEL", &channel) != 0) return 2;
    if (ECI_deleteChannel(&channel) != 0) return 3;
    if (getNextCorrelator() == 0) return 4;
    QPX_setAPITraceDataLength(128);
    if (QPX_dumpState() != 0) return 5;
    return QPX_closeAllGatewayConnections() == 0 ? 0 : 6;
}

// ---- During the first call ----

class ForkedInTheFirstCall : public ::testing::TestWithParam<int> {};

// The first call is stopped at one of the locks that it makes, and goes on once the fork waits for
// it, or has not waited.
TEST_P(ForkedInTheFirstCall, GivesAChildThatCanMakeItsOwn)
{
    Gate gate;
    Fault stop = beforeCall(Call::MutexInit, GetParam(),
                            [gate](const CallInfo&) mutable { gate.pass(); });
    auto first = callInThread([] { return clapiInit(); });
    ASSERT_TRUE(gate.awaitArrival());
    Fault forkWaits = beforeCall(
        Call::MutexLock, 1, [gate](const CallInfo&) mutable { gate.open(); }, Threads::Calling);

    EXPECT_EQ(0, inChild([] {
                  char* version = nullptr;
                  return QPX_getAPIVersion(&version) == 0 ? 0 : 1;
              }));

    gate.open();
    EXPECT_RC(0, first.get());
    EXPECT_EQ(0, inChild([] { return QPX_closeAllGatewayConnections(); }));
}

INSTANTIATE_TEST_SUITE_P(AtEachLock, ForkedInTheFirstCall, ::testing::Values(1, 2, 3, 4));

TEST(ForkedBeforeTheFirstCall, GivesAChildThatCanMakeItsOwn)
{
    EXPECT_EQ(0, inChild([] {
                  char* version = nullptr;
                  return QPX_getAPIVersion(&version) == 0 ? 0 : 1;
              }));
    EXPECT_EQ(0, clapiState);
    EXPECT_RC(0, clapiInit());
}

TEST(ForkedAfterAFailedFirstCall, GivesAChildWithTheSameFailure)
{
    CapturedStderr output;
    {
        Fault fault = failCall(Call::MutexInit, 3, ENOMEM);
        EXPECT_EQ(-1, clapiInit());
    }
    EXPECT_EQ(0, inChild([] { return clapiInit() == -1 ? 0 : 1; }));
    EXPECT_EQ(-1, clapiInit());
}

// ---- While a lock is held ----

struct HeldLock {
    const char* name;
    Clapilock* lock;
    void (*use)(); // takes it
};

class ForkedWhileALockIsHeld : public ::testing::TestWithParam<HeldLock> {};

TEST_P(ForkedWhileALockIsHeld, GivesAChildThatFindsItFree)
{
    TraceFile trace(0);
    auto lock = reinterpret_cast<std::uintptr_t>(&GetParam().lock->lock);
    Gate gate;
    auto stopped = std::make_shared<std::atomic<bool>>(false);
    Fault stop = beforeCall(
        Call::MutexUnlock, 0,
        [=](const CallInfo& info) mutable {
            if (info.first == lock && !stopped->exchange(true)) gate.pass();
        },
        Threads::Others);
    auto holder = callInThread([] {
        GetParam().use();
        return 0;
    });
    ASSERT_TRUE(gate.awaitArrival());
    Fault forkWaits = beforeCall(
        Call::MutexLock, 0,
        [=](const CallInfo& info) mutable {
            if (info.first == lock) gate.open();
        },
        Threads::Calling);

    EXPECT_EQ(0, inChild(useEveryLock));

    gate.open();
    EXPECT_EQ(0, holder.get());
    EXPECT_EQ(0, useEveryLock());
}

const HeldLock everyLock[] = {
    {"gtlLock", &gtlLock, [] { clapiDumpGatewayTokens(); }},
    {"chanListLock", &chanListLock, [] { QPX_ECI_dumpChannels(); }},
    {"correlatorLock", &correlatorLock, [] { getNextCorrelator(); }},
    {"traceLock", &traceLock, [] { QPX_setAPITraceDataLength(128); }},
};

INSTANTIATE_TEST_SUITE_P(OfTheProcess, ForkedWhileALockIsHeld, ::testing::ValuesIn(everyLock),
                         [](const ::testing::TestParamInfo<HeldLock>& made) {
                             return std::string(made.param.name);
                         });

} // namespace
