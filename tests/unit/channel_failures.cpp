// Channels when memory, locks or events fail: what is returned and told, and that nothing stays
// held.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/live_blocks.h"
#include "support/refusals.h"
#include "unit/channel_fixture.h"

using namespace fixture;
using namespace support;

namespace {

class ChannelFailure : public ::testing::Test {
protected:
    ChannelFailure() { settleCodePage(); }

    ECI_ChannelToken_t token() const { return channel.token; }

    // The next post of the channel's event fails.
    Fault failUnlock() const
    {
        return failCallOnWith(Call::CondBroadcast, &token()->unlockEvent.cond, 1, EINVAL, -1);
    }

    CustomerChannel channel;
};

class ChannelCallFailure : public ChannelFailure,
                           public ::testing::WithParamInterface<ChannelCall> {};
class ChannelUnlockFailure : public ChannelFailure,
                             public ::testing::WithParamInterface<ChannelCall> {};

class ChannelDeleteLockFailure : public ChannelFailure,
                                 public ::testing::WithParamInterface<int> {};

using ChannelCreateFailure = ChannelFailure;
using ChannelDeleteFailure = ChannelFailure;
using ChannelListFailure = ChannelFailure;
using ChannelMemoryShortage = ChannelFailure;
using ChannelLockFailure = ChannelFailure;
using ChannelCodePageFailure = ChannelFailure;

std::string inParentheses(const volatile void* address)
{
    return "(" + shown(address) + ")";
}

const std::string anyLine = "<int> *EXC* <any>";

} // namespace

// ---- ECI_createChannel -------------------------------------------------------------------------

TEST_F(ChannelCreateFailure, IsAMemoryShortageWithoutARecord)
{
    ECI_ChannelToken_t other = nullptr;
    TraceFile trace(1);
    Fault fault = failCall(Call::Malloc, 1, ENOMEM);
    EXPECT_RC(-111, ECI_createChannel("OTHER", &other));
    EXPECT_EQ(nullptr, other);
    EXPECT_TRUE(traceReads(trace, {"1302 *EXC* API.ECI_createChannel() Failed to allocate <int> "
                                   "bytes for channel"}));
    EXPECT_EQ(1, channelCount());
}

TEST_F(ChannelCreateFailure, IsALockFailureWithoutTheLock)
{
    ECI_ChannelToken_t other = nullptr;
    TraceFile trace(1);
    Fault fault = failCall(Call::MutexInit, 1, ENOMEM);
    EXPECT_RC(-53, ECI_createChannel("OTHER", &other));
    EXPECT_EQ(nullptr, other);
    EXPECT_TRUE(
        traceReads(trace, {"3101 *EXC* clapi_lock.clapiInitializeLockLock initialization failed "
                           "&(lockPtr->lock)=<ptr> mutexRc=12 errno=12",
                           "1303 *EXC* API.ECI_createChannel() Failed to initialize serial lock"}));
    EXPECT_EQ(1, channelCount());
}

TEST_F(ChannelCreateFailure, IsALockFailureWithoutTheEventsMutex)
{
    ECI_ChannelToken_t other = nullptr;
    TraceFile trace(1);
    int destroyed = callCount(Call::MutexDestroy);
    Fault fault = failCall(Call::MutexInit, 2, ENOMEM);
    EXPECT_RC(-53, ECI_createChannel("OTHER", &other));
    EXPECT_EQ(nullptr, other);
    EXPECT_TRUE(traceReads(
        trace, {"3116 *EXC* clapi_lock.clapiCreateEvent() pthread_mutex_init failed, rc=12",
                "1304 *EXC* API.ECI_createChannel() Failed to create channel unlocked event"}));
    EXPECT_LT(destroyed, callCount(Call::MutexDestroy));
    EXPECT_EQ(1, channelCount());
}

TEST_F(ChannelCreateFailure, IsALockFailureWithoutTheEventsCondition)
{
    ECI_ChannelToken_t other = nullptr;
    TraceFile trace(1);
    Fault fault = failCall(Call::CondInit, 1, ENOMEM);
    EXPECT_RC(-53, ECI_createChannel("OTHER", &other));
    EXPECT_EQ(nullptr, other);
    EXPECT_TRUE(traceReads(
        trace, {"3117 *EXC* clapi_lock.clapiCreateEvent() pthread_cond_init failed, rc=12",
                "1304 *EXC* API.ECI_createChannel() Failed to create channel unlocked event"}));
    EXPECT_EQ(1, channelCount());
}

TEST_F(ChannelCreateFailure, IsFollowedByASuccess)
{
    ECI_ChannelToken_t other = nullptr;
    {
        Fault fault = failCall(Call::CondInit, 1, ENOMEM);
        ASSERT_RC(-53, ECI_createChannel("OTHER", &other));
    }
    EXPECT_RC(0, ECI_createChannel("OTHER", &other));
    EXPECT_TRUE(isUsable(other));
    EXPECT_RC(0, ECI_deleteChannel(&other));
}

// ---- The lock of the list ----------------------------------------------------------------------

TEST_F(ChannelListFailure, KeepsANewChannelOffTheList)
{
    ECI_ChannelToken_t other = nullptr;
    {
        TraceFile trace(1);
        Fault fault = failCallOn(Call::MutexLock, &chanListLock.lock, 1, EINVAL);
        EXPECT_RC(-9, ECI_createChannel("OTHER", &other));
        EXPECT_TRUE(traceReads(trace, {"3105 *EXC* clapi_lock.clapiRequestLock(lockPtr=" +
                                           shown(&chanListLock) + ") Lock request failed errno=22",
                                       anyLine}));
    }
    EXPECT_EQ(nullptr, other);
    EXPECT_EQ(1, channelCount());
    EXPECT_TRUE(isFree(chanListLock.lock));
}

TEST_F(ChannelListFailure, OfItsReleaseIsASystemErrorForANewChannel)
{
    ECI_ChannelToken_t other = nullptr;
    {
        Fault fault = failCallOn(Call::MutexUnlock, &chanListLock.lock, 1, EPERM);
        EXPECT_RC(-9, ECI_createChannel("OTHER", &other));
    }
    EXPECT_EQ(nullptr, other);
    EXPECT_TRUE(isFree(chanListLock.lock));
    EXPECT_EQ(1, channelCount());
}

TEST_F(ChannelListFailure, KeepsAChannelFromBeingDeleted)
{
    {
        TraceFile trace(1);
        Fault fault = failCallOn(Call::MutexLock, &chanListLock.lock, 2, EINVAL);
        EXPECT_RC(-9, ECI_deleteChannel(&channel.token));
        EXPECT_LE(2u, trace.records().size());
    }
    ASSERT_NE(nullptr, token());
    EXPECT_TRUE(isUsable(token()));
    EXPECT_EQ("4711", channel.data("CUSTOMER"));
    EXPECT_EQ(1, channelCount());
    EXPECT_RC(0, ECI_deleteChannel(&channel.token));
    EXPECT_EQ(0, channelCount());
}

TEST_F(ChannelListFailure, OfItsReleaseIsASystemErrorForADeletion)
{
    {
        Fault fault = failCallOn(Call::MutexUnlock, &chanListLock.lock, 2, EPERM);
        EXPECT_RC(-9, ECI_deleteChannel(&channel.token));
    }
    EXPECT_TRUE(isFree(chanListLock.lock));
}

// A channel whose handle the application still has can be found and deleted with all.
TEST_F(ChannelListFailure, OfItsReleaseLeavesAChannelOnTheListUnlessItIsDeleted)
{
    {
        Fault fault = failCallOn(Call::MutexUnlock, &chanListLock.lock, 2, EPERM);
        EXPECT_RC(-9, ECI_deleteChannel(&channel.token));
    }
    EXPECT_EQ(channel.token == nullptr ? 0 : 1, channelCount());
}

TEST_F(ChannelListFailure, KeepsAllChannelsFromBeingDeleted)
{
    {
        TraceFile trace(1);
        Fault fault = failCallOn(Call::MutexLock, &chanListLock.lock, 1, EINVAL);
        EXPECT_RC(-9, ECI_deleteAllChannels());
        EXPECT_LE(2u, trace.records().size());
    }
    EXPECT_EQ(1, channelCount());
    EXPECT_EQ("4711", channel.data("CUSTOMER"));
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelListFailure, OfItsReleaseIsASystemErrorForADeletionOfAll)
{
    {
        Fault fault = failCallOn(Call::MutexUnlock, &chanListLock.lock, 1, EPERM);
        EXPECT_RC(-9, ECI_deleteAllChannels());
    }
    channel.token = nullptr;
    EXPECT_TRUE(isFree(chanListLock.lock));
    EXPECT_EQ(0, channelCount());
}

TEST_F(ChannelListFailure, KeepsADumpFromReadingIt)
{
    TraceFile trace(0);
    {
        Fault fault = failCallOn(Call::MutexLock, &chanListLock.lock, 1, EINVAL);
        EXPECT_RC(-9, QPX_ECI_dumpChannels());
    }
    EXPECT_FALSE(trace.wroteText("Channel list entry"));
    EXPECT_TRUE(isFree(chanListLock.lock));
    EXPECT_TRUE(isFree(traceLock.lock));
}

TEST_F(ChannelListFailure, OfItsReleaseIsASystemErrorForADump)
{
    TraceFile trace(0);
    {
        Fault fault = failCallOn(Call::MutexUnlock, &chanListLock.lock, 1, EPERM);
        EXPECT_RC(-9, QPX_ECI_dumpChannels());
    }
    EXPECT_TRUE(isFree(chanListLock.lock));
    EXPECT_TRUE(isFree(traceLock.lock));
}

TEST_F(ChannelListFailure, OfItsReleaseIsToldOfANewChannel)
{
    ECI_ChannelToken_t other = nullptr;
    TraceFile trace(1);
    Fault fault = failCallOn(Call::MutexUnlock, &chanListLock.lock, 1, EPERM);
    EXPECT_RC(-9, ECI_createChannel("OTHER", &other));
    EXPECT_TRUE(
        trace.wrote(1307, "*EXC*", "API.ECI_createChannel() Failed to release channel list lock"));
}

TEST_F(ChannelListFailure, OfItsReleaseIsToldOfADeletion)
{
    TraceFile trace(1);
    Fault fault = failCallOn(Call::MutexUnlock, &chanListLock.lock, 2, EPERM);
    EXPECT_RC(-9, ECI_deleteChannel(&channel.token));
    EXPECT_TRUE(
        trace.wrote(1424, "*EXC*", "API.ECI_deleteChannel() Failed to release channel list lock"));
    EXPECT_EQ(0, trace.timesWrote(1308));
}

TEST_F(ChannelListFailure, OfADeletionThatCannotUnlockTheChannelEitherIsToldTwice)
{
    {
        TraceFile trace(1);
        Fault list = failCallOn(Call::MutexLock, &chanListLock.lock, 2, EINVAL);
        Fault post = failUnlock();
        EXPECT_RC(-9, ECI_deleteChannel(&channel.token));
        EXPECT_TRUE(
            trace.wrote(1313, "*EXC*", "API.ECI_deleteChannel() Failed to lock channel list"));
        EXPECT_TRUE(trace.wrote(1308, "*EXC*", "API.ECI_deleteChannel() Failed to unlock channel"));
    }
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelListFailure, OfItsReleaseIsToldOfADeletionOfAll)
{
    TraceFile trace(1);
    Fault fault = failCallOn(Call::MutexUnlock, &chanListLock.lock, 1, EPERM);
    EXPECT_RC(-9, ECI_deleteAllChannels());
    channel.token = nullptr;
    EXPECT_TRUE(trace.wrote(1432, "*EXC*",
                            "API.ECI_deleteAllChannels() Failed to release channel list lock"));
}

TEST_F(ChannelListFailure, IsToldOfADump)
{
    TraceFile trace(1);
    Fault fault = failCallOn(Call::MutexLock, &chanListLock.lock, 1, EINVAL);
    EXPECT_RC(-9, QPX_ECI_dumpChannels());
    EXPECT_TRUE(
        trace.wrote(1411, "*EXC*", "API.QPX_ECI_dumpChannels() Failed to lock channel list"));
}

TEST_F(ChannelListFailure, OfItsReleaseIsToldOfADump)
{
    TraceFile trace(1);
    Fault fault = failCallOn(Call::MutexUnlock, &chanListLock.lock, 1, EPERM);
    EXPECT_RC(-9, QPX_ECI_dumpChannels());
    EXPECT_TRUE(trace.wrote(1412, "*EXC*",
                            "API.QPX_ECI_dumpChannels() Failed to release channel list lock"));
    EXPECT_TRUE(trace.wroteText("Total number of channels=1\n"));
}

TEST_F(ChannelListFailure, EndsTheCreationOfAContainerFirstOfAll)
{
    TraceFile trace(1);
    Fault fault = failCallOn(Call::MutexLock, &chanListLock.lock, 1, EINVAL);
    EXPECT_RC(-9, createOfType(9, nullptr, nullptr, nullptr, 4));
    EXPECT_TRUE(traceReads(
        trace, {"3105 *EXC* clapi_lock.clapiRequestLock(lockPtr=" + shown(&chanListLock) +
                    ") Lock request failed errno=22",
                "1356 *EXC* clapi_channel.getCurrentCcsid() Failed to lock channel list for CCSID "
                "check"}));
}

// ---- getCurrentCcsid ---------------------------------------------------------------------------

TEST(ChannelCodePageOfAProcess, IsNotWorkedOutWithoutTheLock)
{
    ASSERT_RC(0, clapiInit());
    ASSERT_EQ(0, defaultLocalCcsidSet);
    TraceFile trace(4);
    Fault fault = failCallOn(Call::MutexLock, &chanListLock.lock, 1, EINVAL);
    EXPECT_RC(-9, getCurrentCcsid());
    EXPECT_EQ(0, defaultLocalCcsidSet);
    EXPECT_TRUE(traceReads(
        trace, {"1435 ENTRY clapi_channel.getCurrentCcsid",
                "3105 *EXC* clapi_lock.clapiRequestLock(lockPtr=" + shown(&chanListLock) +
                    ") Lock request failed errno=22",
                "1356 *EXC* clapi_channel.getCurrentCcsid() Failed to lock channel list for CCSID "
                "check",
                "1441 EXIT clapi_channel.getCurrentCcsid() rc=-9"}));
}

TEST(ChannelCodePageOfAProcess, IsKnownThoughTheLockIsNotReleased)
{
    setenv("LANG", "tr_TR", 1);
    ASSERT_RC(0, clapiInit());
    {
        TraceFile trace(1);
        Fault fault = failCallOn(Call::MutexUnlock, &chanListLock.lock, 1, EPERM);
        EXPECT_RC(-9, getCurrentCcsid());
        EXPECT_TRUE(trace.wrote(1357, "*EXC*",
                                "clapi_channel.getCurrentCcsid() Failed to release lock for "
                                "channel " +
                                    inParentheses(&chanListLock)));
    }
    EXPECT_EQ(1, defaultLocalCcsidSet);
    EXPECT_EQ(920, defaultLocalCcsid);
    EXPECT_TRUE(isFree(chanListLock.lock));
    EXPECT_RC(0, getCurrentCcsid());
}

TEST(ChannelCodePageOfAProcess, IsWorkedOutAfterAFailure)
{
    setenv("LANG", "ko_KR", 1);
    ASSERT_RC(0, clapiInit());
    {
        Fault fault = failCallOn(Call::MutexLock, &chanListLock.lock, 1, EINVAL);
        ASSERT_RC(-9, getCurrentCcsid());
    }
    EXPECT_RC(0, getCurrentCcsid());
    EXPECT_EQ(1, defaultLocalCcsidSet);
    EXPECT_EQ(970, defaultLocalCcsid);
}

TEST_F(ChannelCodePageFailure, LeavesTheChannelFree)
{
    Fault fault = failCallOn(Call::MutexUnlock, &chanListLock.lock, 1, EPERM);
    EXPECT_RC(-9, ECI_createContainer(token(), "NEW", ECI_BIT, 0, nullptr, 0));
    EXPECT_EQ(1, token()->numContainers);
    EXPECT_TRUE(isUsable(token()));
}

// ---- lockChannel, unlockChannel ----------------------------------------------------------------

TEST_F(ChannelLockFailure, WithoutTheLockIsNoChannel)
{
    TraceFile trace(1);
    Fault fault = failCallOn(Call::MutexLock, &token()->serLock.lock, 1, EINVAL);
    EXPECT_RC(-50, lockChannel(token()));
    EXPECT_TRUE(traceReads(trace, {"3105 *EXC* clapi_lock.clapiRequestLock(lockPtr=" +
                                       shown(&token()->serLock) + ") Lock request failed errno=22",
                                   "1462 *EXC* clapi_channel.lockChannel() chanTok " +
                                       inParentheses(token()) + " is not a channel"}));
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelLockFailure, OfTheListIsNoChannelEither)
{
    TraceFile trace(1);
    Fault fault = failCallOn(Call::MutexLock, &chanListLock.lock, 1, EINVAL);
    EXPECT_RC(-50, lockChannel(token()));
    EXPECT_TRUE(trace.wrote(1462, "*EXC*",
                            "clapi_channel.lockChannel() chanTok " + inParentheses(token()) +
                                " is not a channel"));
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelLockFailure, OfTheListIsNoChannelToUnlockEither)
{
    ASSERT_RC(0, lockChannel(token()));
    {
        TraceFile trace(1);
        Fault fault = failCallOn(Call::MutexLock, &chanListLock.lock, 1, EINVAL);
        EXPECT_RC(-50, unlockChannel(token()));
        EXPECT_TRUE(trace.wrote(1473, "*EXC*",
                                "clapi_channel.unlockChannel() chanTok " + inParentheses(token()) +
                                    " is not a channel"));
    }
    EXPECT_EQ(1, token()->isLocked);
    EXPECT_RC(0, unlockChannel(token()));
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelLockFailure, ToArmTheEventLeavesTheChannelFree)
{
    {
        TraceFile trace(1);
        Refusal refusal(Refused::EventArmed);
        EXPECT_RC(-9, lockChannel(token()));
        EXPECT_TRUE(refusal.hasHappened());
        EXPECT_TRUE(traceReads(trace, {"1467 *EXC* clapi_channel.lockChannel() Failed to set "
                                       "unlockEvent for channel " +
                                       inParentheses(token())}));
    }
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelLockFailure, OfTheReleaseLeavesTheChannelFree)
{
    TraceFile trace(1);
    {
        Fault fault = failCallOn(Call::MutexUnlock, &token()->serLock.lock, 1, EPERM);
        EXPECT_RC(-9, lockChannel(token()));
    }
    EXPECT_LE(2u, trace.records().size());
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelLockFailure, OfTheReleaseBeforeAWaitEndsIt)
{
    ASSERT_RC(0, lockChannel(token()));
    int waits = callCount(Call::CondWait);
    {
        TraceFile trace(1);
        Fault fault = failCallOn(Call::MutexUnlock, &token()->serLock.lock, 1, EPERM);
        EXPECT_RC(-9, lockChannel(token()));
        EXPECT_TRUE(trace.wroteText("*EXC*  clapi_channel.lockChannel() Failed to release lock for "
                                    "channel " +
                                    inParentheses(token()) + "\n"));
    }
    EXPECT_EQ(waits, callCount(Call::CondWait));
    EXPECT_EQ(1, token()->isLocked);
    EXPECT_TRUE(isFree(token()->serLock.lock));
    EXPECT_RC(0, unlockChannel(token()));
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelLockFailure, OfTheWaitEndsIt)
{
    ASSERT_RC(0, lockChannel(token()));
    {
        TraceFile trace(1);
        Fault fault = failCall(Call::CondWait, 1, EINVAL);
        EXPECT_RC(-9, lockChannel(token()));
        EXPECT_TRUE(traceReads(
            trace, {"3128 *EXC* clapi_lock.clapiWaitEvent() pthread_cond_wait failed, rc=22",
                    "<int> *EXC* clapi_channel.lockChannel() Failed to wait on unlockEvent for "
                    "channel " +
                        inParentheses(token())}));
    }
    EXPECT_EQ(1, token()->isLocked);
    EXPECT_EQ(0, token()->waiters);
    EXPECT_RC(0, unlockChannel(token()));
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelLockFailure, OfTheWaitDoesNotKeepADeletionFromEnding)
{
    ASSERT_RC(0, lockChannel(token()));
    {
        Fault fault = failCall(Call::CondWait, 1, EINVAL);
        ASSERT_RC(-9, lockChannel(token()));
    }
    ASSERT_RC(0, unlockChannel(token()));
    auto deletion = callInThread([this] { return ECI_deleteChannel(&channel.token); });
    EXPECT_RC(0, deletion.get());
}

TEST_F(ChannelLockFailure, AfterAWaitEndsIt)
{
    TraceFile trace(4);
    ASSERT_RC(0, lockChannel(token()));
    Fault fault = failCallOn(Call::MutexLock, &token()->serLock.lock, 2, EINVAL, Threads::Others);
    auto second = waiterFor(trace, token(), [this] { return lockChannel(token()); });
    EXPECT_RC(0, unlockChannel(token()));
    EXPECT_RC(-9, second.get());
    fault.end();
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_channel.lockChannel() Failed to acquire lock for "
                                "channel " +
                                inParentheses(token()) + "\n"));
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelLockFailure, WithoutTheLockIsNoChannelToUnlock)
{
    ASSERT_RC(0, lockChannel(token()));
    {
        TraceFile trace(1);
        Fault fault = failCallOn(Call::MutexLock, &token()->serLock.lock, 1, EINVAL);
        EXPECT_RC(-50, unlockChannel(token()));
        EXPECT_TRUE(trace.wrote(1473, "*EXC*",
                                "clapi_channel.unlockChannel() chanTok " + inParentheses(token()) +
                                    " is not a channel"));
    }
    EXPECT_RC(0, unlockChannel(token()));
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelLockFailure, OfThePostIsASystemErrorAndUnlocks)
{
    ASSERT_RC(0, lockChannel(token()));
    {
        TraceFile trace(1);
        Fault fault = failUnlock();
        EXPECT_RC(-9, unlockChannel(token()));
        EXPECT_TRUE(traceReads(
            trace, {"3133 *EXC* clapi_lock.clapiClearEvent() pthread_cond_broadcast failed, rc=22",
                    "<int> *EXC* clapi_channel.unlockChannel() Failed to clear unlockEvent for "
                    "channel " +
                        inParentheses(token())}));
    }
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelLockFailure, OfTheReleaseIsASystemErrorAndUnlocks)
{
    ASSERT_RC(0, lockChannel(token()));
    {
        TraceFile trace(1);
        Fault fault = failCallOn(Call::MutexUnlock, &token()->serLock.lock, 1, EPERM);
        EXPECT_RC(-9, unlockChannel(token()));
        EXPECT_TRUE(trace.wroteText("*EXC*  clapi_channel.unlockChannel() Failed to release "
                                    "channel lock " +
                                    inParentheses(token()) + "\n"));
    }
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelLockFailure, OfPostAndReleaseIsToldTwiceAndUnlocks)
{
    ASSERT_RC(0, lockChannel(token()));
    {
        TraceFile trace(1);
        Fault post = failUnlock();
        Fault release = failCallOn(Call::MutexUnlock, &token()->serLock.lock, 1, EPERM);
        EXPECT_RC(-9, unlockChannel(token()));
        EXPECT_TRUE(trace.wroteText("Failed to clear unlockEvent"));
        EXPECT_TRUE(trace.wroteText("Failed to release channel lock"));
    }
    EXPECT_TRUE(isUsable(token()));
}

// ---- Every call --------------------------------------------------------------------------------

TEST_P(ChannelCallFailure, WithoutTheLockIsNoChannel)
{
    TraceFile trace(1);
    {
        Fault fault = failCallOn(Call::MutexLock, &token()->serLock.lock, 1, EINVAL);
        EXPECT_RC(-50, GetParam().make(token()));
    }
    EXPECT_TRUE(trace.wrote(1462, "*EXC*",
                            "clapi_channel.lockChannel() chanTok " + inParentheses(token()) +
                                " is not a channel"));
    EXPECT_EQ(1, token()->numContainers);
    EXPECT_EQ("4711", channel.data("CUSTOMER"));
    EXPECT_TRUE(isUsable(token()));
}

TEST_P(ChannelCallFailure, OfTheLocksReleaseIsASystemErrorAndChangesNothing)
{
    {
        Fault fault = failCallOn(Call::MutexUnlock, &token()->serLock.lock, 1, EPERM);
        EXPECT_RC(-9, GetParam().make(token()));
    }
    EXPECT_EQ(1, token()->numContainers);
    EXPECT_EQ(token()->firstCont, token()->currentCont);
    EXPECT_EQ("4711", channel.data("CUSTOMER"));
    EXPECT_TRUE(isUsable(token()));
}

INSTANTIATE_TEST_SUITE_P(OfEachCall, ChannelCallFailure, ::testing::ValuesIn(everyCall()));

TEST_P(ChannelUnlockFailure, IsToldAndASystemErrorUnlessThereWasAnother)
{
    bool failedBefore = std::strcmp(GetParam().name, "getNextContainer") == 0; // at the end
    bool creates = std::strcmp(GetParam().name, "createContainer") == 0;
    {
        TraceFile trace(1);
        Fault fault = failUnlock();
        EXPECT_RC(failedBefore ? -54 : -9, GetParam().make(token()));
        EXPECT_TRUE(trace.wroteText(std::string("*EXC*  API.ECI_") + GetParam().name +
                                    "() Failed to unlock " + (creates ? "channnel" : "channel") +
                                    "\n"));
    }
    EXPECT_TRUE(isUsable(token()));
}

TEST_P(ChannelUnlockFailure, WithoutTheLockIsASystemErrorToo)
{
    channel.addBit("SECOND");
    ASSERT_EQ("SECOND", channel.first());
    {
        Fault fault = failCallOn(Call::MutexLock, &token()->serLock.lock, 2, EINVAL);
        EXPECT_RC(-9, GetParam().make(token()));
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_RC(0, unlockChannel(token()));
    EXPECT_TRUE(isUsable(token()));
}

INSTANTIATE_TEST_SUITE_P(OfEachCall, ChannelUnlockFailure, ::testing::ValuesIn(containerCalls));

TEST_F(ChannelFailure, ToUnlockDoesNotHideThatAContainerIsMissing)
{
    {
        TraceFile trace(1);
        Fault fault = failUnlock();
        EXPECT_RC(-58, ECI_deleteContainer(token(), "OTHER"));
        EXPECT_TRUE(trace.wroteText("Container \"OTHER\" does not exist"));
        EXPECT_TRUE(trace.wroteText("API.ECI_deleteContainer() Failed to unlock channel\n"));
    }
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelFailure, ToUnlockDoesNotHideThatAContainerExists)
{
    {
        TraceFile trace(1);
        Fault fault = failUnlock();
        EXPECT_RC(-59, ECI_createContainer(token(), "CUSTOMER", ECI_BIT, 0, nullptr, 0));
        EXPECT_TRUE(trace.wroteText("API.ECI_createContainer() Failed to unlock channnel\n"));
    }
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelFailure, ToUnlockIsASystemErrorForAChannelsName)
{
    char name[ECI_NAME_SIZE];
    {
        Fault fault = failUnlock();
        EXPECT_RC(-9, ECI_getChannelName(token(), name));
    }
    EXPECT_TRUE(isUsable(token()));
}

// ---- ECI_deleteChannel -------------------------------------------------------------------------

TEST_F(ChannelDeleteFailure, ToUnlockIsASystemError)
{
    {
        TraceFile trace(1);
        Fault fault = failUnlock();
        EXPECT_RC(-9, ECI_deleteChannel(&channel.token));
        EXPECT_TRUE(trace.wrote(1308, "*EXC*", "API.ECI_deleteChannel() Failed to unlock channel"));
    }
    EXPECT_EQ(nullptr, channel.token);
    EXPECT_EQ(0, channelCount());
}

TEST_F(ChannelDeleteFailure, ToDestroyTheEventDoesNotKeepTheChannel)
{
    {
        Fault fault = failCallOn(Call::CondDestroy, &token()->unlockEvent.cond, 1, EBUSY);
        ECI_deleteChannel(&channel.token);
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_EQ(nullptr, channel.token);
    EXPECT_EQ(0, channelCount());
}

TEST_F(ChannelDeleteFailure, ToDestroyTheLockDoesNotKeepTheChannel)
{
    {
        Fault fault = failCallOn(Call::MutexDestroy, &token()->serLock.lock, 1, EBUSY);
        ECI_deleteChannel(&channel.token);
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_EQ(nullptr, channel.token);
    EXPECT_EQ(0, channelCount());
}

// The deletion holds the channel and another call waits for it, when one request for the channel's
// lock fails: both end all the same.
TEST_P(ChannelDeleteLockFailure, LetsTheDeletionAndWhoWaitsForItEnd)
{
    TraceFile trace(4);
    Gate freeing;
    void* data = token()->firstCont->dataPtr;
    Fault stop = beforeCall(Call::Free, 0, [&](const CallInfo& info) {
        if (info.first == reinterpret_cast<std::uintptr_t>(data)) freeing.pass();
    });
    ECI_ChannelToken_t stale = token();
    auto deletion = callInThread([this] { return ECI_deleteChannel(&channel.token); });
    ASSERT_TRUE(freeing.awaitArrival());
    auto waiting = waiterFor(trace, stale, [stale] { return lockChannel(stale); });
    Fault fault = failCallOn(Call::MutexLock, &stale->serLock.lock, GetParam(), EINVAL);
    freeing.open();
    int rc = waiting.get();
    EXPECT_TRUE(rc == -50 || rc == -9) << rcName(rc);
    rc = deletion.get();
    EXPECT_TRUE(rc == 0 || rc == -9) << rcName(rc);
    EXPECT_EQ(nullptr, channel.token);
}

INSTANTIATE_TEST_SUITE_P(OfEachRequest, ChannelDeleteLockFailure, ::testing::Range(1, 5));

// ---- Memory ------------------------------------------------------------------------------------

TEST_F(ChannelMemoryShortage, LeavesTheChannelWithoutTheContainer)
{
    TraceFile trace(1);
    {
        Fault fault = failCall(Call::Malloc, 1, ENOMEM);
        EXPECT_RC(-111, ECI_createContainer(token(), "NEW", ECI_BIT, 0, "data", 4));
    }
    EXPECT_TRUE(traceReads(trace, {"<int> *EXC* API.ECI_createContainer() Failed to allocate <int> "
                                   "bytes for container"}));
    EXPECT_EQ(1, token()->numContainers);
    EXPECT_EQ(token()->firstCont, token()->currentCont);
    EXPECT_TRUE(isUsable(token()));
    EXPECT_EQ(std::vector<std::string>{"CUSTOMER"}, channel.names());
}

TEST_F(ChannelMemoryShortage, ForDataLeavesTheChannelWithoutTheContainer)
{
    TraceFile trace(1);
    {
        Fault fault = failCall(Call::Malloc, 2, ENOMEM);
        EXPECT_RC(-111, ECI_createContainer(token(), "NEW", ECI_BIT, 0, "data", 4));
    }
    EXPECT_TRUE(traceReads(trace, {"<int> *EXC* API.ECI_createContainer() Failed to allocate 4 "
                                   "bytes for container data"}));
    EXPECT_EQ(1, token()->numContainers);
    EXPECT_EQ(token()->firstCont, token()->currentCont);
    EXPECT_TRUE(isUsable(token()));
    EXPECT_EQ(std::vector<std::string>{"CUSTOMER"}, channel.names());
}

TEST_F(ChannelMemoryShortage, ForCharactersLeavesTheCodePageOfTheChannelOpen)
{
    {
        Fault fault = failCall(Call::Malloc, 1, ENOMEM);
        EXPECT_RC(-111, ECI_createContainer(token(), "NEW", ECI_CHAR, 1208, "data", 4));
    }
    EXPECT_EQ(-1, token()->ccsid);
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelMemoryShortage, NeedsNoDataForAnEmptyContainer)
{
    Fault fault = failCall(Call::Malloc, 2, ENOMEM);
    EXPECT_RC(0, ECI_createContainer(token(), "NEW", ECI_BIT, 0, nullptr, 0));
    EXPECT_EQ(0, fault.hits());
    EXPECT_EQ(nullptr, token()->firstCont->dataPtr);
}

TEST_F(ChannelMemoryShortage, EmptiesAContainerThatShouldHaveOtherData)
{
    TraceFile trace(1);
    {
        Fault fault = failCall(Call::Malloc, 1, ENOMEM);
        EXPECT_RC(-111, ECI_setContainerData(token(), "CUSTOMER", "other", 5));
    }
    EXPECT_TRUE(traceReads(trace, {"<int> *EXC* API.ECI_setContainerData() Failed to allocate 5 "
                                   "bytes for container data"}));
    EXPECT_EQ("", channel.data("CUSTOMER"));
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelMemoryShortage, LeavesNothingOfADump)
{
    TraceFile trace(1);
    Fault fault = failCall(Call::Malloc, 1, ENOMEM);
    EXPECT_RC(-111, QPX_ECI_dumpChannels());
    EXPECT_TRUE(traceReads(
        trace, {"1413 *EXC* API.QPX_ECI_dumpChannels() Failed to allocate memory for the dump"}));
    EXPECT_TRUE(isFree(chanListLock.lock));
}

TEST_F(ChannelMemoryShortage, LeavesNothingOfTheBeginningOfALongDump)
{
    for (int i = 0; i < 40; ++i) channel.addBit(("MORE" + std::to_string(i)).c_str(), "data");
    TraceFile trace(1);
    LiveBlocks blocks;
    Fault fault = failCall(Call::Malloc, 2, ENOMEM);
    EXPECT_RC(-111, QPX_ECI_dumpChannels());
    EXPECT_TRUE(traceReads(
        trace, {"1413 *EXC* API.QPX_ECI_dumpChannels() Failed to allocate memory for the dump"}));
    EXPECT_TRUE(isFree(chanListLock.lock));
    EXPECT_EQ(0, blocks.count());
}

TEST_F(ChannelMemoryShortage, IsOverWithTheNextCall)
{
    {
        Fault fault = failCall(Call::Malloc, 1, ENOMEM);
        ASSERT_RC(-111, ECI_setContainerData(token(), "CUSTOMER", "1234", 4));
    }
    EXPECT_RC(0, ECI_setContainerData(token(), "CUSTOMER", "1234", 4));
    EXPECT_EQ("1234", channel.data("CUSTOMER"));
}

// The greatest length there is goes to the system as it is: nothing is added to it.
TEST_F(ChannelMemoryShortage, AsksForTheGreatestLengthAsItIs)
{
    EXPECT_RC(-111, ECI_createContainer(token(), "NEW", ECI_BIT, 0, "data", SIZE_MAX));
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelMemoryShortage, AsksForTheGreatestLengthAsItIsForOtherData)
{
    EXPECT_RC(-111, ECI_setContainerData(token(), "CUSTOMER", "data", SIZE_MAX));
    EXPECT_TRUE(isUsable(token()));
}
