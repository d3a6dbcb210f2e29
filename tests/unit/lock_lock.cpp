// Clapilock: a mutex that knows whether it has been initialised.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "clapi_diag.h"
#include "clapi_lock.h"
#include "support/call_in_thread.h"
#include "support/faults.h"
#include "support/trace_file.h"

using namespace support;

namespace {

constexpr int initializedWord = static_cast<int>(0xFFEEDDCC);
constexpr int destroyedWord = static_cast<int>(0xCCDDEEFF);

class Lock : public ::testing::Test {
protected:
    Lock() { std::memset(&lock, 0, sizeof lock); }

    Clapilock lock;
};

using LockTrace = Lock;

} // namespace

TEST(LockRecord, HasTheMutexBeforeTheStateWord)
{
    EXPECT_EQ(0u, offsetof(Clapilock, lock));
    EXPECT_EQ(sizeof(pthread_mutex_t), offsetof(Clapilock, initialized));
}

// ---- clapiInitializeLock -----------------------------------------------------------------------

TEST_F(Lock, BecomesInitializedFromZeroFilledMemory)
{
    EXPECT_EQ(0, clapiInitializeLock(&lock));
    EXPECT_EQ(initializedWord, lock.initialized);
    EXPECT_EQ(0, clapiDestroyLock(&lock));
}

TEST_F(Lock, BecomesInitializedFromAnyOtherStateWord)
{
    lock.initialized = 1;
    EXPECT_EQ(0, clapiInitializeLock(&lock));
    EXPECT_EQ(initializedWord, lock.initialized);
    EXPECT_EQ(0, clapiDestroyLock(&lock));
}

TEST_F(Lock, GivesOneWhenItIsInitializedAlready)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    EXPECT_EQ(1, clapiInitializeLock(&lock));
    EXPECT_EQ(initializedWord, lock.initialized);
    EXPECT_EQ(0, clapiDestroyLock(&lock));
}

TEST_F(Lock, LeavesTheMutexAloneWhenItIsInitializedAlready)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    ASSERT_EQ(0, clapiRequestLock(&lock));
    int before = callCount(Call::MutexInit);
    clapiInitializeLock(&lock);
    EXPECT_EQ(before, callCount(Call::MutexInit));
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(&lock.lock)); // still held
    EXPECT_EQ(0, clapiReleaseLock(&lock));
    EXPECT_EQ(0, clapiDestroyLock(&lock));
}

TEST_F(Lock, IsInitializedAfreshOnceDestroyed)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    ASSERT_EQ(0, clapiDestroyLock(&lock));
    EXPECT_EQ(0, clapiInitializeLock(&lock));
    EXPECT_EQ(0, clapiRequestLock(&lock));
    EXPECT_EQ(0, clapiReleaseLock(&lock));
    EXPECT_EQ(0, clapiDestroyLock(&lock));
}

TEST_F(Lock, StaysUninitializedWhenTheMutexCannotBeMade)
{
    Fault fault = failCall(Call::MutexInit, 1, ENOMEM);
    EXPECT_EQ(-1, clapiInitializeLock(&lock));
    EXPECT_EQ(0, lock.initialized);
}

TEST_F(Lock, StaysDestroyedWhenTheMutexCannotBeMade)
{
    lock.initialized = destroyedWord;
    Fault fault = failCall(Call::MutexInit, 1, ENOMEM);
    EXPECT_EQ(-1, clapiInitializeLock(&lock));
    EXPECT_EQ(destroyedWord, lock.initialized);
}

// ---- clapiRequestLock, clapiReleaseLock --------------------------------------------------------

TEST_F(Lock, IsHeldByWhoeverRequestedIt)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    EXPECT_EQ(0, clapiRequestLock(&lock));
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(&lock.lock));
    EXPECT_EQ(0, clapiReleaseLock(&lock));
    EXPECT_EQ(0, pthread_mutex_trylock(&lock.lock));
    pthread_mutex_unlock(&lock.lock);
    EXPECT_EQ(0, clapiDestroyLock(&lock));
}

TEST_F(Lock, MakesASecondThreadWaitForItsRelease)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    ASSERT_EQ(0, clapiRequestLock(&lock));
    int before = callCount(Call::MutexLock);
    auto second = callInThread([this] {
        int rc = clapiRequestLock(&lock);
        clapiReleaseLock(&lock);
        return rc;
    });
    ASSERT_TRUE(awaitCallCount(Call::MutexLock, before + 1));
    EXPECT_FALSE(second.hasEnded());
    EXPECT_EQ(0, clapiReleaseLock(&lock));
    EXPECT_EQ(0, second.get());
    EXPECT_EQ(0, clapiDestroyLock(&lock));
}

TEST_F(Lock, CannotBeRequestedWhenNeverInitialized)
{
    int before = callCount(Call::MutexLock);
    EXPECT_EQ(-1, clapiRequestLock(&lock));
    EXPECT_EQ(before, callCount(Call::MutexLock));
}

TEST_F(Lock, CannotBeRequestedWithAStateWordThatIsOneOff)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    lock.initialized = initializedWord + 1;
    EXPECT_EQ(-1, clapiRequestLock(&lock));
    lock.initialized = initializedWord - 1;
    EXPECT_EQ(-1, clapiRequestLock(&lock));
    lock.initialized = initializedWord;
    EXPECT_EQ(0, clapiDestroyLock(&lock));
}

TEST_F(Lock, CannotBeRequestedOnceDestroyed)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    ASSERT_EQ(0, clapiDestroyLock(&lock));
    int before = callCount(Call::MutexLock);
    EXPECT_EQ(-1, clapiRequestLock(&lock));
    EXPECT_EQ(before, callCount(Call::MutexLock));
}

TEST_F(Lock, CannotBeReleasedWhenNeverInitialized)
{
    int before = callCount(Call::MutexUnlock);
    EXPECT_EQ(-1, clapiReleaseLock(&lock));
    EXPECT_EQ(before, callCount(Call::MutexUnlock));
}

TEST_F(Lock, CannotBeReleasedOnceDestroyed)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    ASSERT_EQ(0, clapiDestroyLock(&lock));
    int before = callCount(Call::MutexUnlock);
    EXPECT_EQ(-1, clapiReleaseLock(&lock));
    EXPECT_EQ(before, callCount(Call::MutexUnlock));
}

TEST_F(Lock, TellsThatTheMutexCouldNotBeLocked)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    {
        Fault fault = failCall(Call::MutexLock, 1, EDEADLK);
        EXPECT_EQ(-1, clapiRequestLock(&lock));
    }
    EXPECT_EQ(initializedWord, lock.initialized);
    EXPECT_EQ(0, clapiDestroyLock(&lock));
}

TEST_F(Lock, TellsThatTheMutexCouldNotBeUnlocked)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    ASSERT_EQ(0, clapiRequestLock(&lock));
    {
        Fault fault = failCall(Call::MutexUnlock, 1, EPERM);
        EXPECT_EQ(-1, clapiReleaseLock(&lock));
    }
    EXPECT_EQ(0, clapiReleaseLock(&lock));
    EXPECT_EQ(0, clapiDestroyLock(&lock));
}

// ---- clapiIsLockInitialized --------------------------------------------------------------------

TEST_F(Lock, ShowsItsStateWordAsItIs)
{
    EXPECT_EQ(0, clapiIsLockInitialized(&lock));
    lock.initialized = 12345;
    EXPECT_EQ(12345, clapiIsLockInitialized(&lock));
    lock.initialized = 0;
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    EXPECT_EQ(initializedWord, clapiIsLockInitialized(&lock));
    ASSERT_EQ(0, clapiDestroyLock(&lock));
    EXPECT_EQ(destroyedWord, clapiIsLockInitialized(&lock));
}

TEST_F(LockTrace, SaysNothingOfALookAtTheStateWord)
{
    TraceFile trace(5);
    clapiIsLockInitialized(&lock);
    EXPECT_EQ("", trace.text());
}

// ---- clapiDestroyLock --------------------------------------------------------------------------

TEST_F(Lock, IsMarkedAsDestroyed)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    EXPECT_EQ(0, clapiDestroyLock(&lock));
    EXPECT_EQ(destroyedWord, lock.initialized);
}

TEST_F(Lock, CannotBeDestroyedWhenNeverInitialized)
{
    int before = callCount(Call::MutexDestroy);
    EXPECT_EQ(-1, clapiDestroyLock(&lock));
    EXPECT_EQ(before, callCount(Call::MutexDestroy));
    EXPECT_EQ(0, lock.initialized);
}

TEST_F(Lock, CannotBeDestroyedTwice)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    ASSERT_EQ(0, clapiDestroyLock(&lock));
    int before = callCount(Call::MutexDestroy);
    EXPECT_EQ(-1, clapiDestroyLock(&lock));
    EXPECT_EQ(before, callCount(Call::MutexDestroy));
    EXPECT_EQ(destroyedWord, lock.initialized);
}

TEST_F(Lock, StaysInitializedWhenTheMutexCannotBeDestroyed)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    {
        Fault fault = failCall(Call::MutexDestroy, 1, EBUSY);
        EXPECT_EQ(-1, clapiDestroyLock(&lock));
    }
    EXPECT_EQ(initializedWord, lock.initialized);
    EXPECT_EQ(0, clapiDestroyLock(&lock));
}

// ---- Trace -------------------------------------------------------------------------------------

TEST_F(LockTrace, TellsOfAFailedInitialization)
{
    TraceFile trace(1);
    Fault fault = failCallWith(Call::MutexInit, 1, EAGAIN, ENOMEM); // errno 11, result 12
    clapiInitializeLock(&lock);
    EXPECT_TRUE(trace.wrote(3101, "*EXC*",
                            "clapi_lock.clapiInitializeLockLock initialization failed "
                            "&(lockPtr->lock)=<ptr> mutexRc=12 errno=11"));
    EXPECT_EQ(1u, trace.records().size());
}

TEST_F(LockTrace, ShowsTheAddressOfTheMutexInAFailedInitialization)
{
    TraceFile trace(1);
    char address[40];
    std::snprintf(address, sizeof address, "&(lockPtr->lock)=%p ", static_cast<void*>(&lock.lock));
    Fault fault = failCall(Call::MutexInit, 1, ENOMEM);
    clapiInitializeLock(&lock);
    EXPECT_TRUE(trace.wroteText(address));
}

TEST_F(LockTrace, TellsOfARequestOfAnUninitializedLock)
{
    TraceFile trace(1);
    char message[100];
    std::snprintf(message, sizeof message,
                  "clapi_lock.clapiRequestLock(lockPtr=%p) Lock not initialized",
                  static_cast<void*>(&lock));
    clapiRequestLock(&lock);
    EXPECT_TRUE(trace.wrote(3104, "*EXC*", message));
    EXPECT_EQ(1u, trace.records().size());
}

TEST_F(LockTrace, TellsOfAReleaseOfAnUninitializedLock)
{
    TraceFile trace(1);
    clapiReleaseLock(&lock);
    EXPECT_TRUE(trace.wrote(3108, "*EXC*",
                            "clapi_lock.clapiReleaseLock(lockPtr=<ptr>) Lock not initialized"));
    EXPECT_EQ(1u, trace.records().size());
}

TEST_F(LockTrace, TellsOfADestructionOfAnUninitializedLock)
{
    TraceFile trace(1);
    clapiDestroyLock(&lock);
    EXPECT_TRUE(trace.wrote(3112, "*EXC*",
                            "clapi_lock.clapiDestroyLock(lockPtr=<ptr>) Lock not initialized"));
    EXPECT_EQ(1u, trace.records().size());
}

TEST_F(LockTrace, TellsOfUsesOfADestroyedLock)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    ASSERT_EQ(0, clapiDestroyLock(&lock));
    TraceFile trace(1);
    clapiRequestLock(&lock);
    clapiReleaseLock(&lock);
    clapiDestroyLock(&lock);
    EXPECT_EQ(1, trace.timesWrote(3104));
    EXPECT_EQ(1, trace.timesWrote(3108));
    EXPECT_EQ(1, trace.timesWrote(3112));
}

// The number shown is errno, not what the mutex call returned.
TEST_F(LockTrace, TellsOfAFailedRequestWithErrno)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    TraceFile trace(1);
    Fault fault = failCallWith(Call::MutexLock, 1, EINVAL, EDEADLK); // errno 22, result 35
    clapiRequestLock(&lock);
    EXPECT_TRUE(trace.wrote(
        3105, "*EXC*", "clapi_lock.clapiRequestLock(lockPtr=<ptr>) Lock request failed errno=22"));
    fault.end();
    clapiDestroyLock(&lock);
}

TEST_F(LockTrace, TellsOfAFailedReleaseWithErrno)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    TraceFile trace(1);
    Fault fault = failCallWith(Call::MutexUnlock, 1, EINVAL, EPERM); // errno 22, result 1
    clapiReleaseLock(&lock);
    EXPECT_TRUE(trace.wrote(
        3109, "*EXC*", "clapi_lock.clapiReleaseLock(lockPtr=<ptr>) Lock release failed errno=22"));
    fault.end();
    clapiDestroyLock(&lock);
}

TEST_F(LockTrace, TellsOfAFailedDestructionWithErrno)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    TraceFile trace(1);
    Fault fault = failCallWith(Call::MutexDestroy, 1, EINVAL, EBUSY); // errno 22, result 16
    clapiDestroyLock(&lock);
    EXPECT_TRUE(trace.wrote(
        3113, "*EXC*", "clapi_lock.clapiDestroyLock(lockPtr=<ptr>) Lock destroy failed errno=22"));
    fault.end();
    clapiDestroyLock(&lock);
}

TEST_F(LockTrace, SaysNothingAtLevelZero)
{
    TraceFile trace(0);
    clapiRequestLock(&lock);
    clapiReleaseLock(&lock);
    clapiDestroyLock(&lock);
    Fault fault = failCall(Call::MutexInit, 1, ENOMEM);
    clapiInitializeLock(&lock);
    EXPECT_EQ("", trace.text());
}

TEST_F(LockTrace, SaysNothingOfWhatGoesWell)
{
    TraceFile trace(5);
    clapiInitializeLock(&lock);
    clapiInitializeLock(&lock);
    clapiRequestLock(&lock);
    clapiReleaseLock(&lock);
    clapiDestroyLock(&lock);
    EXPECT_EQ("", trace.text());
}

// The trace lock is such a lock itself, so its own failures could not be told under it.
TEST_F(LockTrace, TellsOfFailuresWhileTheTraceLockIsHeld)
{
    TraceFile trace(1);
    ASSERT_EQ(0, clapiRequestLock(&traceLock));
    auto call = callInThread([this] {
        clapiRequestLock(&lock);
        clapiReleaseLock(&lock);
        clapiDestroyLock(&lock);
        Fault fault = failCall(Call::MutexInit, 1, ENOMEM, Threads::Calling);
        clapiInitializeLock(&lock);
    });
    EXPECT_TRUE(trace.awaitText("Lock initialization failed"));
    EXPECT_EQ(1, trace.timesWrote(3104));
    EXPECT_EQ(1, trace.timesWrote(3108));
    EXPECT_EQ(1, trace.timesWrote(3112));
    EXPECT_EQ(1, trace.timesWrote(3101));
    call.get();
    EXPECT_EQ(0, clapiReleaseLock(&traceLock));
}

TEST_F(LockTrace, ShowsTheThreadThatFailed)
{
    TraceFile trace(1);
    clapiRequestLock(&lock);
    char thread[16];
    std::snprintf(thread, sizeof thread, "0x%8.8X", (unsigned int)(pthread_self() & 0xFFFFFFFFU));
    ASSERT_EQ(1u, trace.records().size());
    EXPECT_EQ(thread, trace.records()[0].thread);
}

// ---- LockGuard ---------------------------------------------------------------------------------

TEST_F(Lock, IsHeldForTheScopeOfAGuard)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    {
        LockGuard guard(lock);
        EXPECT_TRUE(guard.held());
        EXPECT_EQ(EBUSY, pthread_mutex_trylock(&lock.lock));
    }
    EXPECT_EQ(0, pthread_mutex_trylock(&lock.lock));
    pthread_mutex_unlock(&lock.lock);
    clapiDestroyLock(&lock);
}

TEST_F(Lock, IsReleasedOnceByAGuardThatWasToldTo)
{
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    int before = callCount(Call::MutexUnlock);
    {
        LockGuard guard(lock);
        EXPECT_EQ(0, guard.release());
    }
    EXPECT_EQ(before + 1, callCount(Call::MutexUnlock));
    clapiDestroyLock(&lock);
}

TEST_F(Lock, IsNotReleasedByAGuardThatNeverGotIt)
{
    int before = callCount(Call::MutexUnlock);
    {
        LockGuard guard(lock);
        EXPECT_FALSE(guard.held());
    }
    EXPECT_EQ(before, callCount(Call::MutexUnlock));
}
