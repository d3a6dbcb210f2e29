// Deletions that meet threads which have a channel or wait for it.

#include <pthread.h>

#include <set>

#include "unit/channel_fixture.h"

using namespace fixture;
using namespace support;

namespace {

class ChannelInUse : public ::testing::Test {
protected:
    ChannelInUse()
    {
        settleCodePage();
        EXPECT_RC(0, lockChannel(token()));
    }

    // The handle, after a deletion of all channels has made it stale.
    ECI_ChannelToken_t takeStale()
    {
        ECI_ChannelToken_t stale = token();
        channel.token = nullptr;
        return stale;
    }

    ECI_ChannelToken_t token() const { return channel.token; }

    CustomerChannel channel;
};

// Another thread waits for the channel, asleep. Once it is woken it stops before it looks at the
// channel again.
class ChannelWithAWaiter : public ChannelInUse {
protected:
    ChannelWithAWaiter()
        : waiter(waiterFor(trace, token(),
                           [this, wanted = token()] {
                               thread = pthread_self();
                               return lockChannel(wanted);
                           })),
          stop(beforeCall(Call::MutexLock, 0,
                          [this, lock = &token()->serLock.lock](const CallInfo& info) {
                              bool isWaiter = pthread_equal(pthread_self(), thread) != 0;
                              if (isWaiter && info.first == reinterpret_cast<std::uintptr_t>(lock))
                                  woken.pass();
                          }))
    {
    }

    // A thread that deletes is asleep until the waiter has left.
    void awaitSleepingDeletion(int sleepersBefore)
    {
        EXPECT_TRUE(awaitCallCount(Call::CondWait, sleepersBefore + 1));
    }

    TraceFile trace{4};
    Gate woken;
    pthread_t thread{};
    RunningCall<int> waiter;
    Fault stop;
};

// The blocks that the library gives back.
class BlocksGivenBack {
public:
    bool contains(const void* block) const
    {
        return given_.count(reinterpret_cast<std::uintptr_t>(block)) != 0;
    }

private:
    std::set<std::uintptr_t> given_;
    Fault freeing_ = beforeCall(Call::Free, 0,
                                [this](const CallInfo& info) { given_.insert(info.first); });
};

} // namespace

TEST_F(ChannelWithAWaiter, IsRefusedToItByADeletionOfAllChannels)
{
    auto deletion = callInThread([] { return ECI_deleteAllChannels(); });
    woken.open();
    EXPECT_RC(-50, waiter.get());
    EXPECT_RC(0, deletion.get());
    EXPECT_RC(-50, unlockChannel(takeStale()));
}

TEST_F(ChannelWithAWaiter, DoesNotKeepOthersFromCreatingChannelsWhileAllAreDeleted)
{
    int sleepers = callCount(Call::CondWait);
    auto deletion = callInThread([] { return ECI_deleteAllChannels(); });
    ASSERT_TRUE(woken.awaitArrival());
    awaitSleepingDeletion(sleepers);
    Channel fresh;
    EXPECT_TRUE(isUsable(fresh.token));
    EXPECT_EQ(1, channelCount());
    EXPECT_FALSE(deletion.hasEnded());
    woken.open();
    EXPECT_RC(-50, waiter.get());
    EXPECT_RC(0, deletion.get());
    EXPECT_EQ(1, channelCount());
    EXPECT_RC(-50, unlockChannel(takeStale()));
}

TEST_F(ChannelWithAWaiter, IsAwaitedAsleepByADeletion)
{
    int sleepers = callCount(Call::CondWait);
    EXPECT_RC(0, unlockChannel(token()));
    ASSERT_TRUE(woken.awaitArrival());
    ECI_ChannelToken_t mine = takeStale();
    auto deletion = callInThread([&mine] { return ECI_deleteChannel(&mine); });
    awaitSleepingDeletion(sleepers);
    EXPECT_FALSE(deletion.hasEnded());
    woken.open();
    EXPECT_RC(-50, waiter.get());
    EXPECT_RC(0, deletion.get());
    EXPECT_EQ(nullptr, mine);
}

TEST_F(ChannelInUse, StaysInMemoryUntilItIsLetGoThoughAllAreDeleted)
{
    BlocksGivenBack freed;
    const ECI_Channel_t* record = token();
    const ECI_Container_t* container = record->firstCont;
    const char* data = container->dataPtr;
    EXPECT_RC(0, ECI_deleteAllChannels());
    EXPECT_FALSE(freed.contains(record));
    EXPECT_FALSE(freed.contains(container));
    EXPECT_FALSE(freed.contains(data));
    EXPECT_RC(-50, unlockChannel(takeStale()));
    EXPECT_TRUE(freed.contains(record));
    EXPECT_TRUE(freed.contains(container));
    EXPECT_TRUE(freed.contains(data));
}

TEST_F(ChannelInUse, IsUnknownToEveryOtherCallOnceAllAreDeleted)
{
    EXPECT_RC(0, ECI_deleteAllChannels());
    ECI_ChannelToken_t stale = takeStale();
    EXPECT_EQ(0, channelCount());
    for (const ChannelCall& call : everyCall()) EXPECT_RC(-50, call.make(stale)) << call.name;
    EXPECT_RC(-50, unlockChannel(stale));
    for (const ChannelCall& call : everyCall()) EXPECT_RC(-50, call.make(stale)) << call.name;
}

TEST_F(ChannelInUse, DoesNotUnlockANewChannelWhenItIsLetGoAfterADeletionOfAll)
{
    ECI_ChannelToken_t others[32];
    for (ECI_ChannelToken_t& other : others) ASSERT_RC(0, ECI_createChannel("OTHER", &other));
    EXPECT_RC(0, ECI_deleteAllChannels());
    ECI_ChannelToken_t stale = takeStale();
    ECI_ChannelToken_t fresh[64];
    for (ECI_ChannelToken_t& each : fresh) {
        ASSERT_RC(0, ECI_createChannel("FRESH", &each));
        ASSERT_RC(0, lockChannel(each));
    }
    EXPECT_RC(-50, unlockChannel(stale));
    for (ECI_ChannelToken_t each : fresh) {
        EXPECT_NE(stale, each);
        EXPECT_EQ(1, each->isLocked);
        EXPECT_RC(0, unlockChannel(each));
    }
    EXPECT_RC(0, ECI_deleteAllChannels());
}

TEST_F(ChannelInUse, IsToldOfByADeletionOfAllAsAnyOther)
{
    TraceFile trace(4);
    std::string name = "channel \"ORDER\" (" + shown(token()) + ")";
    EXPECT_RC(0, ECI_deleteAllChannels());
    EXPECT_TRUE(trace.wrote(1426, "DEBUG",
                            "API.ECI_deleteAllChannels() Destroying event and lock for " + name));
    EXPECT_TRUE(trace.wroteText("API.ECI_deleteAllChannels() Freeing 4 bytes of container data ("));
    EXPECT_TRUE(trace.wroteText("API.ECI_deleteAllChannels() Deleted container \"CUSTOMER\" ("));
    EXPECT_TRUE(trace.wrote(1429, "DEBUG", "API.ECI_deleteAllChannels() Deleted " + name));
    EXPECT_TRUE(trace.wrote(1430, "EXIT", "API.ECI_deleteAllChannels() rc=0 (QPX_OK)"));
    EXPECT_RC(-50, unlockChannel(takeStale()));
    EXPECT_EQ(1, trace.timesWroteText("Deleted container \"CUSTOMER\""));
}

TEST_F(ChannelInUse, IsToldOfAsDeletedWithItsEmptyContainersToo)
{
    ASSERT_RC(0, unlockChannel(token()));
    channel.addBit("EMPTY");
    ASSERT_RC(0, lockChannel(token()));
    TraceFile trace(4);
    EXPECT_RC(0, ECI_deleteAllChannels());
    EXPECT_EQ(1, trace.timesWrote(1427)); // there is data in the other alone
    EXPECT_EQ(2, trace.timesWrote(1428));
    EXPECT_TRUE(
        trace.wroteText("API.ECI_deleteAllChannels() Deleted container \"EMPTY\" (<ptr>)\n"));
    EXPECT_RC(-50, unlockChannel(takeStale()));
}
