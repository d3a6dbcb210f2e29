// ClapiEvent: a gate that "set" closes and "clear" opens.

#include <gtest/gtest.h>
#include <sys/time.h>
#include <time.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <vector>

#include "clapi_diag.h"
#include "clapi_lock.h"
#include "support/call_in_thread.h"
#include "support/faults.h"
#include "support/trace_file.h"

using namespace support;

namespace {

class Event : public ::testing::Test {
protected:
    Event() { EXPECT_EQ(0, clapiCreateEvent(&event)); }
    ~Event() override { clapiDeleteEvent(&event); }

    // A thread in clapiWaitEvent, asleep: it is counted with the event's mutex held, which it gives
    // up by going to sleep only.
    RunningCall<int> waiter()
    {
        int before = callCount(Call::CondWait);
        auto call = callInThread([this] { return clapiWaitEvent(&event); });
        EXPECT_TRUE(awaitCallCount(Call::CondWait, before + 1));
        pthread_mutex_lock(&event.mutex);
        pthread_mutex_unlock(&event.mutex);
        return call;
    }

    RunningCall<int> timedWaiter(int seconds, int* expired)
    {
        int before = callCount(Call::CondTimedWait);
        auto call = callInThread(
            [this, seconds, expired] { return clapiTimedWaitEvent(&event, seconds, expired); });
        EXPECT_TRUE(awaitCallCount(Call::CondTimedWait, before + 1));
        pthread_mutex_lock(&event.mutex);
        pthread_mutex_unlock(&event.mutex);
        return call;
    }

    bool mutexIsFree()
    {
        if (pthread_mutex_trylock(&event.mutex) != 0) return false;
        pthread_mutex_unlock(&event.mutex);
        return true;
    }

    ClapiEvent event;
};

class EventRecord : public ::testing::Test {
protected:
    EventRecord() { std::memset(&event, 0x5A, sizeof event); }

    ClapiEvent event;
};

using EventTrace = Event;

} // namespace

TEST_F(EventRecord, HasItsFieldsInOrder)
{
    EXPECT_EQ(0u, offsetof(ClapiEvent, eflag));
    EXPECT_LT(offsetof(ClapiEvent, eflag), offsetof(ClapiEvent, mutex));
    EXPECT_LT(offsetof(ClapiEvent, mutex), offsetof(ClapiEvent, cond));
    EXPECT_LT(offsetof(ClapiEvent, cond), offsetof(ClapiEvent, postCount));
}

// ---- clapiCreateEvent --------------------------------------------------------------------------

TEST_F(EventRecord, StartsClosedWhateverTheMemoryHeld)
{
    EXPECT_EQ(0, clapiCreateEvent(&event));
    EXPECT_EQ(0, event.eflag);
    EXPECT_EQ(0, event.postCount);
    EXPECT_EQ(0, clapiDeleteEvent(&event));
}

TEST_F(EventRecord, IsNotCreatedWithoutItsMutex)
{
    Fault fault = failCall(Call::MutexInit, 1, ENOMEM);
    EXPECT_EQ(-1, clapiCreateEvent(&event));
    EXPECT_EQ(0, event.eflag);
    EXPECT_EQ(0, event.postCount);
}

TEST_F(EventRecord, IsNotCreatedWithoutItsCondition)
{
    Fault fault = failCall(Call::CondInit, 1, EAGAIN);
    EXPECT_EQ(-1, clapiCreateEvent(&event));
    EXPECT_EQ(0, event.eflag);
    EXPECT_EQ(0, event.postCount);
}

TEST_F(EventRecord, TellsOfItsCreationAtLevel4)
{
    TraceFile trace(4);
    char message[100];
    std::snprintf(message, sizeof message,
                  "clapi_lock.clapiCreateEvent() Creating event, eventPtr=%p",
                  static_cast<void*>(&event));
    clapiCreateEvent(&event);
    EXPECT_TRUE(trace.wrote(3115, "DEBUG", message));
    EXPECT_EQ(1u, trace.records().size());
    clapiDeleteEvent(&event);
}

TEST_F(EventRecord, TellsThatItsMutexCouldNotBeMade)
{
    TraceFile trace(1);
    Fault fault = failCallWith(Call::MutexInit, 1, EAGAIN, ENOMEM); // errno 11, result 12
    clapiCreateEvent(&event);
    EXPECT_TRUE(trace.wrote(3116, "*EXC*",
                            "clapi_lock.clapiCreateEvent() pthread_mutex_init failed, rc=12"));
}

TEST_F(EventRecord, TellsThatItsConditionCouldNotBeMade)
{
    TraceFile trace(1);
    Fault fault = failCallWith(Call::CondInit, 1, EAGAIN, ENOMEM); // errno 11, result 12
    clapiCreateEvent(&event);
    EXPECT_TRUE(trace.wrote(3117, "*EXC*",
                            "clapi_lock.clapiCreateEvent() pthread_cond_init failed, rc=12"));
}

// ---- clapiDeleteEvent --------------------------------------------------------------------------

TEST_F(EventRecord, IsResetWhenDeleted)
{
    ASSERT_EQ(0, clapiCreateEvent(&event));
    ASSERT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(0, clapiDeleteEvent(&event));
    EXPECT_EQ(0, event.eflag);
    EXPECT_EQ(0, event.postCount);
}

TEST_F(EventRecord, DestroysItsMutexBeforeItsCondition)
{
    ASSERT_EQ(0, clapiCreateEvent(&event));
    std::vector<Call> order;
    Fault mutex = beforeCall(Call::MutexDestroy, 0,
                             [&](const CallInfo& info) { order.push_back(info.call); });
    Fault condition = beforeCall(Call::CondDestroy, 0,
                                 [&](const CallInfo& info) { order.push_back(info.call); });
    EXPECT_EQ(0, clapiDeleteEvent(&event));
    EXPECT_EQ((std::vector<Call>{Call::MutexDestroy, Call::CondDestroy}), order);
}

TEST_F(EventRecord, DestroysItsConditionEvenIfItsMutexIsStuck)
{
    ASSERT_EQ(0, clapiCreateEvent(&event));
    ASSERT_EQ(0, clapiClearEvent(&event));
    int before = callCount(Call::CondDestroy);
    Fault fault = failCall(Call::MutexDestroy, 1, EBUSY);
    EXPECT_EQ(-1, clapiDeleteEvent(&event));
    EXPECT_EQ(before + 1, callCount(Call::CondDestroy));
    EXPECT_EQ(0, event.eflag);
    EXPECT_EQ(0, event.postCount);
}

TEST_F(EventRecord, IsResetEvenIfItsConditionIsStuck)
{
    ASSERT_EQ(0, clapiCreateEvent(&event));
    ASSERT_EQ(0, clapiClearEvent(&event));
    Fault fault = failCall(Call::CondDestroy, 1, EBUSY);
    EXPECT_EQ(-1, clapiDeleteEvent(&event));
    EXPECT_EQ(0, event.eflag);
    EXPECT_EQ(0, event.postCount);
}

TEST_F(EventRecord, TellsOfItsDeletionAtLevel4)
{
    ASSERT_EQ(0, clapiCreateEvent(&event));
    TraceFile trace(4);
    clapiDeleteEvent(&event);
    EXPECT_TRUE(
        trace.wrote(3118, "DEBUG", "clapi_lock.clapiDeleteEvent() Deleting event, eventPtr=<ptr>"));
    EXPECT_EQ(1u, trace.records().size());
}

TEST_F(EventRecord, TellsThatItsMutexIsStuck)
{
    ASSERT_EQ(0, clapiCreateEvent(&event));
    TraceFile trace(1);
    Fault fault = failCallWith(Call::MutexDestroy, 1, EINVAL, EBUSY); // errno 22, result 16
    clapiDeleteEvent(&event);
    EXPECT_TRUE(trace.wrote(3125, "*EXC*",
                            "clapi_lock.clapiDeleteEvent() pthread_mutex_destroy failed, rc=16"));
    EXPECT_EQ(1u, trace.records().size());
}

TEST_F(EventRecord, TellsThatItsConditionIsStuck)
{
    ASSERT_EQ(0, clapiCreateEvent(&event));
    TraceFile trace(1);
    Fault fault = failCallWith(Call::CondDestroy, 1, EINVAL, EBUSY); // errno 22, result 16
    clapiDeleteEvent(&event);
    EXPECT_TRUE(trace.wrote(3126, "*EXC*",
                            "clapi_lock.clapiDeleteEvent() pthread_cond_destroy failed, rc=16"));
    EXPECT_EQ(1u, trace.records().size());
}

// ---- clapiSetEvent, clapiClearEvent ------------------------------------------------------------

TEST_F(Event, IsOpenedByClear)
{
    EXPECT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(1, event.eflag);
    EXPECT_EQ(1, event.postCount);
}

TEST_F(Event, IsClosedBySet)
{
    ASSERT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(0, clapiSetEvent(&event));
    EXPECT_EQ(0, event.eflag);
    EXPECT_EQ(1, event.postCount);
}

TEST_F(Event, CountsEveryClear)
{
    EXPECT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(2, event.postCount);
    EXPECT_EQ(1, event.eflag);
}

TEST_F(Event, IsOpenThoughTheBroadcastFailed)
{
    Fault fault = failCallWith(Call::CondBroadcast, 1, EINVAL, -1);
    EXPECT_EQ(-1, clapiClearEvent(&event));
    EXPECT_EQ(1, event.eflag);
    EXPECT_EQ(1, event.postCount);
    EXPECT_TRUE(mutexIsFree());
}

// Deliberate: only a result of -1 counts as a failed broadcast.
TEST_F(Event, IgnoresABroadcastThatReturnsAnErrorNumber)
{
    TraceFile trace(4);
    Fault fault = failCall(Call::CondBroadcast, 1, EINVAL);
    EXPECT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(1, fault.hits());
    EXPECT_EQ(0, trace.timesWrote(3133));
}

TEST_F(Event, IsSetThoughItsMutexCannotBeLocked)
{
    ASSERT_EQ(0, clapiClearEvent(&event));
    Fault lock = failCall(Call::MutexLock, 1, EINVAL);
    Fault unlock = fakeCall(Call::MutexUnlock, 1, 0);
    EXPECT_EQ(0, clapiSetEvent(&event));
    EXPECT_EQ(0, event.eflag);
}

TEST_F(Event, IsClearedThoughItsMutexCannotBeLocked)
{
    Fault lock = failCall(Call::MutexLock, 1, EINVAL);
    Fault unlock = fakeCall(Call::MutexUnlock, 1, 0);
    EXPECT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(1, event.eflag);
    EXPECT_EQ(1, event.postCount);
}

TEST_F(Event, IsClearedThoughItsMutexCannotBeUnlocked)
{
    Fault unlock = failCall(Call::MutexUnlock, 1, EPERM);
    EXPECT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(1, event.eflag);
    pthread_mutex_unlock(&event.mutex);
}

// ---- clapiWaitEvent ----------------------------------------------------------------------------

TEST_F(Event, HoldsNobodyWhenOpen)
{
    ASSERT_EQ(0, clapiClearEvent(&event));
    int before = callCount(Call::CondWait);
    EXPECT_EQ(0, clapiWaitEvent(&event));
    EXPECT_EQ(before, callCount(Call::CondWait));
    EXPECT_TRUE(mutexIsFree());
}

TEST_F(Event, StaysOpenForEveryLaterWait)
{
    ASSERT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(0, clapiWaitEvent(&event));
    EXPECT_EQ(0, clapiWaitEvent(&event));
    EXPECT_EQ(0, clapiWaitEvent(&event));
    EXPECT_EQ(1, event.eflag);
}

TEST_F(Event, HoldsAWaiterFromItsCreationUntilTheFirstClear)
{
    auto call = waiter();
    EXPECT_FALSE(call.hasEnded());
    EXPECT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(0, call.get());
}

TEST_F(Event, HoldsAWaiterAgainAfterSet)
{
    ASSERT_EQ(0, clapiClearEvent(&event));
    ASSERT_EQ(0, clapiWaitEvent(&event));
    ASSERT_EQ(0, clapiSetEvent(&event));
    auto call = waiter();
    EXPECT_FALSE(call.hasEnded());
    EXPECT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(0, call.get());
}

TEST_F(Event, ReleasesEveryWaiterByOneClear)
{
    auto first = waiter();
    auto second = waiter();
    auto third = waiter();
    EXPECT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(0, first.get());
    EXPECT_EQ(0, second.get());
    EXPECT_EQ(0, third.get());
}

TEST_F(Event, ReleasesAWaiterByTwoClearsInARow)
{
    auto call = waiter();
    EXPECT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(0, call.get());
    EXPECT_EQ(2, event.postCount);
}

// The gate is closed again before the waiter has run: the hook works while the clear still holds
// the event's mutex.
TEST_F(Event, ReleasesAWaiterThoughItIsSetBeforeTheWaiterRuns)
{
    auto call = waiter();
    Fault close = afterCall(Call::CondBroadcast, 1, [this](const CallInfo&) { event.eflag = 0; });
    EXPECT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(0, call.get());
    EXPECT_EQ(0, event.eflag);
}

TEST_F(Event, LetsAWaiterSleepOnAfterASpuriousWakeUp)
{
    Fault spurious = fakeCall(Call::CondWait, 1, 0);
    int before = callCount(Call::CondWait);
    auto call = callInThread([this] { return clapiWaitEvent(&event); });
    ASSERT_TRUE(awaitCallCount(Call::CondWait, before + 2)); // asleep for the second time
    EXPECT_FALSE(call.hasEnded());
    EXPECT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(0, call.get());
}

TEST_F(Event, EndsAWaitThatFails)
{
    TraceFile trace(1);
    Fault fault = failCallWith(Call::CondWait, 1, EAGAIN, EINVAL); // errno 11, result 22
    EXPECT_EQ(-1, clapiWaitEvent(&event));
    EXPECT_TRUE(
        trace.wrote(3128, "*EXC*", "clapi_lock.clapiWaitEvent() pthread_cond_wait failed, rc=22"));
    EXPECT_TRUE(mutexIsFree());
}

TEST_F(Event, LetsAWaiterPassThoughItsMutexCannotBeLocked)
{
    ASSERT_EQ(0, clapiClearEvent(&event));
    Fault lock = failCall(Call::MutexLock, 1, EINVAL);
    Fault unlock = fakeCall(Call::MutexUnlock, 1, 0);
    EXPECT_EQ(0, clapiWaitEvent(&event));
}

// ---- clapiTimedWaitEvent -----------------------------------------------------------------------

TEST_F(Event, EndsATimedWaitAtOnceWhenOpenWithoutReadingTheClock)
{
    ASSERT_EQ(0, clapiClearEvent(&event));
    int clock = callCount(Call::Clock);
    int waits = callCount(Call::CondTimedWait);
    int expired = 7;
    EXPECT_EQ(0, clapiTimedWaitEvent(&event, 60, &expired));
    EXPECT_EQ(0, expired);
    EXPECT_EQ(clock, callCount(Call::Clock));
    EXPECT_EQ(waits, callCount(Call::CondTimedWait));
    EXPECT_TRUE(mutexIsFree());
}

TEST_F(Event, ExpiresAfterTheTimeOut)
{
    int expired = 7;
    EXPECT_EQ(0, clapiTimedWaitEvent(&event, 1, &expired));
    EXPECT_EQ(1, expired);
    EXPECT_TRUE(mutexIsFree());
}

TEST_F(Event, ExpiresAtOnceWithATimeOutOfZero)
{
    int expired = 7;
    EXPECT_EQ(0, clapiTimedWaitEvent(&event, 0, &expired));
    EXPECT_EQ(1, expired);
}

TEST_F(Event, EndsATimedWaitByClear)
{
    int expired = 7;
    auto call = timedWaiter(3600, &expired);
    EXPECT_FALSE(call.hasEnded());
    EXPECT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(0, call.get());
    EXPECT_EQ(0, expired);
}

TEST_F(Event, SaysNotExpiredFromTheBeginningOfATimedWait)
{
    int expired = 7;
    int seen = 7;
    Fault look = beforeCall(Call::CondTimedWait, 1, [&](const CallInfo&) { seen = expired; });
    EXPECT_EQ(0, clapiTimedWaitEvent(&event, 0, &expired));
    EXPECT_EQ(0, seen);
}

TEST_F(Event, EndsATimedWaitThoughItIsSetBeforeTheWaiterRuns)
{
    int expired = 7;
    auto call = timedWaiter(3600, &expired);
    Fault close = afterCall(Call::CondBroadcast, 1, [this](const CallInfo&) { event.eflag = 0; });
    EXPECT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(0, call.get());
    EXPECT_EQ(0, expired);
}

TEST_F(Event, LetsATimedWaiterSleepOnAfterASpuriousWakeUp)
{
    Fault spurious = fakeCall(Call::CondTimedWait, 1, 0);
    int before = callCount(Call::CondTimedWait);
    int expired = 7;
    auto call = callInThread([&] { return clapiTimedWaitEvent(&event, 3600, &expired); });
    ASSERT_TRUE(awaitCallCount(Call::CondTimedWait, before + 2));
    EXPECT_FALSE(call.hasEnded());
    EXPECT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(0, call.get());
    EXPECT_EQ(0, expired);
}

TEST_F(Event, EndsATimedWaitSilentlyOnAnyOtherError)
{
    TraceFile trace(1);
    Fault fault = failCall(Call::CondTimedWait, 1, EINVAL);
    int expired = 7;
    EXPECT_EQ(0, clapiTimedWaitEvent(&event, 3600, &expired));
    EXPECT_EQ(0, expired);
    EXPECT_EQ("", trace.text());
    EXPECT_TRUE(mutexIsFree());
}

// The clock is made to read 1000000 seconds and 250000 microseconds, long ago.
TEST_F(Event, WaitsUntilTheTimeNowPlusTheTimeOut)
{
    Fault clock = afterCall(Call::Clock, 1, [](const CallInfo& info) {
        auto* now = reinterpret_cast<timeval*>(info.first);
        now->tv_sec = 1000000;
        now->tv_usec = 250000;
    });
    timespec deadline{};
    Fault wait = beforeCall(Call::CondTimedWait, 1, [&](const CallInfo& info) {
        deadline = *reinterpret_cast<const timespec*>(info.second);
    });
    int expired = 7;
    EXPECT_EQ(0, clapiTimedWaitEvent(&event, 7, &expired));
    EXPECT_EQ(1, expired);
    EXPECT_EQ(1000007, deadline.tv_sec);
    EXPECT_EQ(250000000, deadline.tv_nsec);
}

TEST_F(Event, WaitsThoughTheClockCannotBeReadAndReportsThat)
{
    TraceFile trace(1);
    Fault clock = failCall(Call::Clock, 1, EFAULT);
    Fault wait = fakeCall(Call::CondTimedWait, 1, ETIMEDOUT);
    int expired = 7;
    EXPECT_EQ(-1, clapiTimedWaitEvent(&event, 1, &expired));
    EXPECT_EQ(1, wait.hits());
    EXPECT_EQ(1, expired);
    EXPECT_TRUE(
        trace.wrote(3130, "*EXC*", "clapi_lock.clapiTimedWaitEvent() gettimeofday failed, rc=0"));
    EXPECT_TRUE(mutexIsFree());
}

TEST_F(Event, EndsATimedWaitWithoutAClock)
{
    Fault clock = failCall(Call::Clock, 1, EFAULT);
    int expired = 7;
    EXPECT_EQ(-1, clapiTimedWaitEvent(&event, 3600, &expired));
}

// ---- Waiting since a generation ----------------------------------------------------------------

TEST_F(Event, HasAGenerationForEachClear)
{
    EXPECT_EQ(0, clapiEventGeneration(&event));
    clapiClearEvent(&event);
    EXPECT_EQ(1, clapiEventGeneration(&event));
    clapiSetEvent(&event);
    EXPECT_EQ(1, clapiEventGeneration(&event));
    clapiClearEvent(&event);
    EXPECT_EQ(2, clapiEventGeneration(&event));
}

TEST_F(Event, HoldsNobodyWhoKnowsAnEarlierGeneration)
{
    int generation = clapiEventGeneration(&event);
    ASSERT_EQ(0, clapiClearEvent(&event));
    ASSERT_EQ(0, clapiSetEvent(&event)); // closed again before the wait
    EXPECT_EQ(0, clapiWaitEventSince(&event, generation));
    EXPECT_TRUE(mutexIsFree());
}

TEST_F(Event, HoldsWhoKnowsTheLatestGenerationUntilTheNextClear)
{
    ASSERT_EQ(0, clapiClearEvent(&event));
    ASSERT_EQ(0, clapiSetEvent(&event));
    int generation = clapiEventGeneration(&event);
    int before = callCount(Call::CondWait);
    auto call = callInThread([&] { return clapiWaitEventSince(&event, generation); });
    ASSERT_TRUE(awaitCallCount(Call::CondWait, before + 1));
    EXPECT_FALSE(call.hasEnded());
    EXPECT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(0, call.get());
}

TEST_F(Event, HoldsNobodyWhoWaitsSinceAGenerationWhenOpen)
{
    ASSERT_EQ(0, clapiClearEvent(&event));
    int before = callCount(Call::CondWait);
    EXPECT_EQ(0, clapiWaitEventSince(&event, clapiEventGeneration(&event)));
    EXPECT_EQ(before, callCount(Call::CondWait));
}

TEST_F(Event, EndsAWaitSinceAGenerationThatFails)
{
    TraceFile trace(1);
    Fault fault = failCallWith(Call::CondWait, 1, EAGAIN, EINVAL);
    EXPECT_EQ(-1, clapiWaitEventSince(&event, clapiEventGeneration(&event)));
    EXPECT_TRUE(
        trace.wrote(3128, "*EXC*", "clapi_lock.clapiWaitEvent() pthread_cond_wait failed, rc=22"));
    EXPECT_TRUE(mutexIsFree());
}

TEST_F(EventTrace, TellsOfAWaitSinceAGenerationAsOfAnyWait)
{
    ASSERT_EQ(0, clapiClearEvent(&event));
    TraceFile trace(4);
    clapiWaitEventSince(&event, clapiEventGeneration(&event));
    EXPECT_TRUE(
        trace.wrote(3119, "DEBUG", "clapi_lock.clapiWaitEvent() Waiting on event, eventPtr=<ptr>"));
}

// ---- Trace -------------------------------------------------------------------------------------

TEST_F(EventTrace, TellsOfAWait)
{
    ASSERT_EQ(0, clapiClearEvent(&event));
    TraceFile trace(4);
    clapiWaitEvent(&event);
    EXPECT_TRUE(
        trace.wrote(3119, "DEBUG", "clapi_lock.clapiWaitEvent() Waiting on event, eventPtr=<ptr>"));
    EXPECT_EQ(1u, trace.records().size());
}

TEST_F(EventTrace, TellsOfATimedWait)
{
    ASSERT_EQ(0, clapiClearEvent(&event));
    TraceFile trace(4);
    int expired = 0;
    char message[140];
    std::snprintf(message, sizeof message,
                  "clapi_lock.clapiTimedWaitEvent() Waiting on event, eventPtr=%p, timeout=17, "
                  "expired=%p",
                  static_cast<void*>(&event), static_cast<void*>(&expired));
    clapiTimedWaitEvent(&event, 17, &expired);
    EXPECT_TRUE(trace.wrote(3120, "DEBUG", message));
    EXPECT_EQ(1u, trace.records().size());
}

TEST_F(EventTrace, TellsOfASet)
{
    TraceFile trace(4);
    clapiSetEvent(&event);
    EXPECT_TRUE(
        trace.wrote(3121, "DEBUG", "clapi_lock.clapiSetEvent() Setting event, eventPtr=<ptr>"));
    EXPECT_EQ(1u, trace.records().size());
}

TEST_F(EventTrace, TellsOfAClear)
{
    TraceFile trace(4);
    clapiClearEvent(&event);
    EXPECT_TRUE(
        trace.wrote(3122, "DEBUG", "clapi_lock.clapiClearEvent() Clearing event, eventPtr=<ptr>"));
    EXPECT_EQ(1u, trace.records().size());
}

TEST_F(EventTrace, TellsOfAFailedBroadcastWithErrno)
{
    TraceFile trace(1);
    Fault fault = failCallWith(Call::CondBroadcast, 1, EINVAL, -1);
    clapiClearEvent(&event);
    EXPECT_TRUE(trace.wrote(3133, "*EXC*",
                            "clapi_lock.clapiClearEvent() pthread_cond_broadcast failed, rc=22"));
    EXPECT_EQ(1u, trace.records().size());
}

TEST_F(EventTrace, TellsNothingOfWhatGoesWellBelowLevel4)
{
    TraceFile trace(3);
    int expired = 0;
    clapiClearEvent(&event);
    clapiWaitEvent(&event);
    clapiTimedWaitEvent(&event, 1, &expired);
    clapiSetEvent(&event);
    ClapiEvent other;
    clapiCreateEvent(&other);
    clapiDeleteEvent(&other);
    EXPECT_EQ("", trace.text());
}

TEST_F(EventTrace, TellsNothingOfFailuresAtLevelZero)
{
    TraceFile trace(0);
    Fault broadcast = failCallWith(Call::CondBroadcast, 1, EINVAL, -1);
    EXPECT_EQ(-1, clapiClearEvent(&event));
    clapiSetEvent(&event);
    Fault wait = failCall(Call::CondWait, 1, EINVAL);
    EXPECT_EQ(-1, clapiWaitEvent(&event));
    EXPECT_EQ("", trace.text());
}

// Unlike a lock's, an event's lines are written under the trace lock.
TEST_F(EventTrace, TakesTheTraceLockForALine)
{
    TraceFile trace(4);
    ASSERT_EQ(0, clapiRequestLock(&traceLock));
    std::uintptr_t requested = 0;
    Fault look = beforeCall(
        Call::MutexLock, 1, [&](const CallInfo& info) { requested = info.first; }, Threads::Others);
    auto call = callInThread([this] { return clapiSetEvent(&event); });
    ASSERT_TRUE(look.awaitHits());
    EXPECT_EQ("", trace.text());
    EXPECT_EQ(0, clapiReleaseLock(&traceLock));
    EXPECT_EQ(0, call.get());
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(&traceLock.lock), requested);
    EXPECT_EQ(1, trace.timesWrote(3121));
}

// ---- An event that stays, and is opened before its waiters are woken

std::vector<int> pointsOf(const TraceFile& trace)
{
    std::vector<int> points;
    for (const TraceRecord& record : trace.records()) points.push_back(record.point);
    return points;
}

TEST_F(Event, LetsThoseThroughWhoComeBetweenItsOpeningAndTheWaking)
{
    clapiOpenEvent(&event);

    EXPECT_EQ(0, clapiWaitEvent(&event));
}

TEST_F(Event, WakesThoseWhoHaveBeenAsleepSinceBeforeItsOpening)
{
    auto asleep = waiter();
    clapiOpenEvent(&event);

    clapiWakeWaiters(&event);

    EXPECT_EQ(0, asleep.get());
}

TEST_F(Event, WakesNobodyForGoodUnlessItHasBeenOpened)
{
    auto asleep = waiter();
    int sleeps = callCount(Call::CondWait);

    clapiWakeWaiters(&event);

    EXPECT_TRUE(awaitCallCount(Call::CondWait, sleeps + 1)); // it has looked, and sleeps again
    EXPECT_FALSE(asleep.hasEnded());
    EXPECT_EQ(0, clapiClearEvent(&event));
    EXPECT_EQ(0, asleep.get());
}

TEST_F(EventTrace, TellsOfAnOpeningAsOfAClearing)
{
    TraceFile trace(4);
    clapiOpenEvent(&event);
    clapiWakeWaiters(&event);
    EXPECT_EQ(std::vector<int>{3122}, pointsOf(trace));
}

TEST_F(EventTrace, TellsOfAWakingThatFails)
{
    TraceFile trace(1);
    Fault fault = failCallWith(Call::CondBroadcast, 1, EINVAL, -1);
    clapiWakeWaiters(&event);
    EXPECT_EQ(1, fault.hits());
    EXPECT_NE("", trace.text());
}

TEST_F(EventTrace, TellsOfAnEventThatStaysAsOfOneThatIsMadeAndDeleted)
{
    TraceFile trace(4);
    clapiOpenEvent(&event);
    clapiRenewEvent(&event);
    clapiRestEvent(&event);
    EXPECT_EQ(0, event.eflag);
    EXPECT_EQ((std::vector<int>{3122, 3115, 3118}), pointsOf(trace));
}
