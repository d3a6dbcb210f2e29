// ECI_deleteAllChannels while calls have channels, and while others create, delete and dump them.
#include <string>
#include <vector>

#include "schedule/race_fixture.h"

using namespace race;

namespace {

class DeletedChannel : public RaceTest {
protected:
    DeletedChannel()
    {
        EXPECT_RC(0, ECI_createChannel("CHANNEL", &channel));
        EXPECT_RC(0, ECI_createContainer(channel, "ONE", ECI_BIT, 0, "data", 4));
    }
    ~DeletedChannel() override { ECI_deleteAllChannels(); }

    static std::string dump()
    {
        TraceFile trace(0);
        EXPECT_RC(0, QPX_ECI_dumpChannels());
        return trace.text();
    }

    // Deletes all channels, and creates as many as it takes to use the memory once more. The
    // allocator keeps some blocks for itself: the younger channels give it theirs.
    void replaceAll()
    {
        ECI_ChannelToken_t younger = nullptr;
        for (int number = 0; number < 16; ++number)
            EXPECT_RC(0, ECI_createChannel("YOUNGER", &younger));
        EXPECT_RC(0, ECI_deleteAllChannels());
        fresh.resize(32, nullptr);
        for (ECI_ChannelToken_t& each : fresh) {
            EXPECT_RC(0, ECI_createChannel("FRESH", &each));
            EXPECT_NE(channel, each);
            EXPECT_RC(0, lockChannel(each));
        }
    }

    // Nobody but this test has done anything with the new channels.
    void expectFreshUntouched()
    {
        for (ECI_ChannelToken_t each : fresh) {
            EXPECT_EQ(0, each->numContainers.load());
            EXPECT_EQ(1, each->isLocked.load());
            EXPECT_EQ(0, unlockChannel(each));
        }
    }

    EciParms withChannel(EciParms parms) const
    {
        parms.record.channel = channel;
        return parms;
    }

    ECI_ChannelToken_t channel = nullptr;
    std::vector<ECI_ChannelToken_t> fresh;
};

// ---- A call has the channel ----

TEST_F(DeletedChannel, OfASynchronousCallTakesItsReplyAndNoOtherChannelDoes)
{
    EciParms parms = withChannel(syncCall("PROG"));
    Hold asleep(SchedulePoint::beforeReplyWait);
    auto call = callInThread([&] { return QPX_ECI_Execute_Channel(token(), &parms.record); });
    connection.awaitRequest();
    asleep.awaitArrival();
    replaceAll();
    deliver(channelReply(1, "answered"));

    asleep.release();

    EXPECT_RC(ECI_ERR_SYSTEM_ERROR, call.get());
    expectFreshUntouched();
    expectClosable();
}

TEST_F(DeletedChannel, IsSentWholeByACallThatIsAboutToWriteIt)
{
    EciParms parms = withChannel(syncCall("PROG"));
    Hold armed(SchedulePoint::requestArmed);
    auto call = callInThread([&] { return QPX_ECI_Execute_Channel(token(), &parms.record); });
    armed.awaitArrival();
    replaceAll();

    armed.release();

    EXPECT_EQ(1, connection.awaitRequest().messageId());
    deliver(channelReply(1, "answered"));
    EXPECT_RC(ECI_ERR_SYSTEM_ERROR, call.get());
    expectFreshUntouched();
    expectClosable();
}

TEST_F(DeletedChannel, OfAnAsynchronousCallIsLetGoByItsCollectionAlone)
{
    EciParms parms = withChannel(asyncCall("PROG"));
    EXPECT_RC(0, QPX_ECI_Execute_Channel(token(), &parms.record));
    connection.awaitRequest();
    replaceAll();
    deliver(channelReply(1, "answered"));

    EciParms wanted = getReply(8);
    EXPECT_RC(ECI_ERR_SYSTEM_ERROR, QPX_ECI_Execute_Channel(token(), &wanted.record));

    expectFreshUntouched();
    expectClosable();
}

TEST_F(DeletedChannel, OfAnAsynchronousCallIsLetGoByAPurge)
{
    EciParms parms = withChannel(asyncCall("PROG"));
    EXPECT_RC(0, QPX_ECI_Execute_Channel(token(), &parms.record));
    connection.awaitRequest();
    replaceAll();

    auto purging = startClose(Close::Purge, &connection.token);
    connection.answerClose();
    EXPECT_RC(0, purging.get());

    expectFreshUntouched();
    expectClosed();
}

TEST_F(DeletedChannel, IsChangedByNobodyWhenTheReceiverAddsToIt)
{
    EciParms parms = withChannel(asyncCall("PROG"));
    EXPECT_RC(0, QPX_ECI_Execute_Channel(token(), &parms.record));
    connection.awaitRequest();
    Hold linked(SchedulePoint::containerLinked, channel);
    connection.peer.send(channelReply(1, "answered"));
    linked.awaitArrival();
    replaceAll();

    linked.release();

    delivered.await(1);
    passTable();
    EciParms wanted = getReply(8);
    EXPECT_RC(ECI_ERR_SYSTEM_ERROR, QPX_ECI_Execute_Channel(token(), &wanted.record));
    expectFreshUntouched();
    expectClosable();
}

TEST_F(DeletedChannel, IsLetGoByTheCallThatIsCreatingAContainerInIt)
{
    Hold linked(SchedulePoint::containerLinked, channel);
    auto creating = callInThread(
        [this] { return ECI_createContainer(channel, "TWO", ECI_BIT, 0, "data", 4); });
    linked.awaitArrival();
    replaceAll();

    linked.release();

    EXPECT_RC(ECI_ERR_SYSTEM_ERROR, creating.get());
    expectFreshUntouched();
}

// ---- Others delete, create and dump ----

TEST_F(DeletedChannel, IsNotDeletedOnceMoreByADeletionThatHasItAlready)
{
    ECI_ChannelToken_t mine = channel;
    Hold taken(SchedulePoint::lockReleased, &channel->serLock);
    auto deleting = callInThread([&mine] { return ECI_deleteChannel(&mine); });
    taken.awaitArrival();
    EXPECT_RC(0, ECI_deleteAllChannels());

    taken.release();

    EXPECT_RC(ECI_ERR_INVALID_CHANNEL, deleting.get());
    EXPECT_EQ(channel, mine);
    EXPECT_TRUE(support::contains(dump(), "The channel list is EMPTY\n"));
}

TEST_F(DeletedChannel, IsLeftToADeletionThatHasTakenItOffTheList)
{
    ECI_ChannelToken_t mine = channel;
    ASSERT_EQ(0, lockChannel(channel));
    Hold waits(SchedulePoint::beforeChannelWait, channel);
    auto waiting = callInThread([this] { return lockChannel(channel); });
    waits.awaitArrival();
    EXPECT_EQ(0, unlockChannel(channel));
    Hold seeingOut(SchedulePoint::beforeWaitersWait, channel);
    auto deleting = callInThread([&mine] { return ECI_deleteChannel(&mine); });
    seeingOut.awaitArrival();

    EXPECT_RC(0, ECI_deleteAllChannels());

    seeingOut.release();
    waits.release();
    EXPECT_EQ(ECI_ERR_INVALID_CHANNEL, waiting.get());
    EXPECT_RC(0, deleting.get());
    EXPECT_TRUE(mine == nullptr);
}

TEST_F(DeletedChannel, IsGoneForEveryoneBeforeItIsDestroyed)
{
    Hold unlisted(SchedulePoint::channelsUnlisted, channel);
    auto deleting = callInThread([] { return ECI_deleteAllChannels(); });
    unlisted.awaitArrival();

    char name[ECI_NAME_SIZE];
    ECI_ChannelToken_t mine = channel;
    EXPECT_RC(ECI_ERR_INVALID_CHANNEL, ECI_getChannelName(channel, name));
    EXPECT_RC(ECI_ERR_INVALID_CHANNEL, ECI_deleteChannel(&mine));
    EXPECT_RC(0, ECI_deleteAllChannels());
    EXPECT_TRUE(support::contains(dump(), "The channel list is EMPTY\n"));
    ECI_ChannelToken_t created = nullptr;
    EXPECT_RC(0, ECI_createChannel("FRESH", &created));

    unlisted.release();

    EXPECT_RC(0, deleting.get());
    EXPECT_RC(0, ECI_getChannelName(created, name));
    EXPECT_TRUE(support::contains(dump(), "Total number of channels=1\n"));
}

TEST_F(DeletedChannel, IsFreedByTheDeletionWhenItsCallEndsBeforeItIsDestroyed)
{
    ASSERT_EQ(0, lockChannel(channel));
    Hold unlisted(SchedulePoint::channelsUnlisted, channel);
    auto deleting = callInThread([] { return ECI_deleteAllChannels(); });
    unlisted.awaitArrival();
    EXPECT_EQ(ECI_ERR_INVALID_CHANNEL, unlockChannel(channel));

    unlisted.release();

    EXPECT_RC(0, deleting.get());
    EXPECT_EQ(ECI_ERR_INVALID_CHANNEL, unlockChannel(channel));
}

} // namespace
