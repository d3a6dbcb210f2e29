// Outcomes that come while the data that a reply changes is still being sent: they wait in the
// slot, for nobody else, and the sender delivers them.
#include <sys/socket.h>

#include <algorithm>
#include <string>

#include "schedule/race_fixture.h"
#include "support/channel_bytes.h"

using namespace race;

namespace {

// An asynchronous channel call, held when its slot waits and nothing has been written yet.
class OvertakenSender : public RaceTest {
protected:
    void holdSender() { beforeWrite.awaitArrival(); }

    // Sends something for the held call, and returns when it has been put aside.
    void putAside(const Bytes& outcome)
    {
        int before = aside.times();
        connection.peer.send(outcome);
        aside.await(before + 1);
        passTable();
    }

    // The call's request has no outcome for anybody.
    void expectNoOutcomeYet()
    {
        EXPECT_EQ(SLOT_WAITING, slot(1).state);
        EXPECT_TRUE(token()->firstReply == nullptr);
        EXPECT_EQ(0, slot(1).requestEvent.eflag);
        EXPECT_EQ(1, work.channel->isLocked.load());
        expectNothingToCollect();
        EciParms specific = getSpecificReply(1, 8);
        EXPECT_RC(ECI_ERR_NO_REPLY, execute(specific));
    }

    void expectCollected(int expectedRc)
    {
        EciParms parms = getReply(8);
        EXPECT_RC(expectedRc, QPX_ECI_Execute_Channel(token(), &parms.record));
        EXPECT_EQ(0, work.channel->isLocked.load());
    }

    // A write on the socket that fails.
    void failWrites() { EXPECT_EQ(0, shutdown(token()->socketDescriptor, SHUT_WR)); }

    Counter aside{SchedulePoint::outcomePutAside};
    Call work{Kind::AsyncChannel};
    Hold beforeWrite{SchedulePoint::beforeRequestWrite};
    RunningCall<int> call = start(work);
};

TEST_F(OvertakenSender, DeliversTheReplyThatCameAndChangesItsChannelThen)
{
    holdSender();
    putAside(channelReply(1, "answered"));
    expectNoOutcomeYet();
    EXPECT_EQ(0, work.channel->numContainers.load());

    beforeWrite.release();

    EXPECT_RC(0, call.get());
    connection.awaitRequest();
    expectCollected(0);
    work.expectAnswered();
    expectClosable();
}

TEST_F(OvertakenSender, DoesNotKeepTheReceiverFromTheRepliesOfOthers)
{
    holdSender();
    putAside(channelReply(1, "answered"));

    EciParms other = syncCall("OTHER", filled(8, 'o'));
    auto running = start(other);
    EXPECT_EQ(2, connection.awaitRequest().messageId());
    connection.peer.send(ProgramReply().commarea(text("in time!")).to(2));
    EXPECT_RC(0, running.get());

    expectNoOutcomeYet();
    beforeWrite.release();
    EXPECT_RC(0, call.get());
    connection.awaitRequest();
    expectCollected(0);
    expectClosable();
}

TEST_F(OvertakenSender, LetsACollectorHaveTheReplyOfAnother)
{
    holdSender();
    putAside(channelReply(1, "answered"));

    EciParms other = asyncCall("OTHER", filled(8, 'o'));
    EXPECT_RC(0, execute(other));
    EXPECT_EQ(2, connection.awaitRequest().messageId());
    EciParms collecting = getReplyWait(8);
    auto collector = start(collecting);
    queueAwaited.await(1);
    connection.peer.send(ProgramReply().commarea(text("in time!")).to(2));
    EXPECT_RC(0, collector.get());
    EXPECT_EQ(2, int(collecting.record.eci_message_qualifier));

    beforeWrite.release();
    EXPECT_RC(0, call.get());
    connection.awaitRequest();
    expectCollected(0);
    expectClosable();
}

TEST_F(OvertakenSender, TakesTheFirstOfTwoOutcomes)
{
    holdSender();
    putAside(errorFlow(1, 61445));
    connection.peer.send(channelReply(1, "too late"));
    connection.peer.send(errorFlow(1, 61446));
    awaitReceiver();
    EXPECT_EQ(1, aside.times());

    beforeWrite.release();

    EXPECT_RC(0, call.get());
    connection.awaitRequest();
    expectCollected(61445);
    EXPECT_EQ(0, work.channel->numContainers.load());
    expectClosable();
}

TEST_F(OvertakenSender, LeavesReplyAndChannelAloneWhenItsWriteFails)
{
    holdSender();
    putAside(channelReply(1, "answered"));
    failWrites();

    beforeWrite.release();

    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    EXPECT_EQ(0, work.channel->numContainers.load());
    EXPECT_EQ(0, work.channel->isLocked.load());
    expectNothingToCollect();
    lose();
    expectClosable();
}

TEST_F(OvertakenSender, IsToldOfALossThatComesBehindTheReplyButBeforeItsWrite)
{
    holdSender();
    putAside(channelReply(1, "answered"));
    lose();
    EXPECT_EQ(1, aside.times());
    EXPECT_EQ(SLOT_WAITING, slot(1).state);
    sendersAwaited.await(1); // the connection is shut down: nothing can be written any more

    beforeWrite.release();

    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    EXPECT_EQ(0, work.channel->numContainers.load());
    expectClosable();
}

TEST_F(OvertakenSender, IsWaitedForByACollectorOnceTheConnectionIsLost)
{
    holdSender();
    lose();
    sendersAwaited.await(1);
    EXPECT_EQ(1, aside.times());
    EciParms collecting = getReplyWait(8);
    auto collector = start(collecting);
    EciParms asking = getSpecificReplyWait(1, 8);
    auto specific = start(asking);
    queueAwaited.await(2);
    EXPECT_FALSE(collector.hasEnded());
    EXPECT_FALSE(specific.hasEnded());

    beforeWrite.release();

    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    EXPECT_RC(QPX_ERR_LOSTGWCON, collector.get());
    EXPECT_RC(QPX_ERR_LOSTGWCON, specific.get());
    EXPECT_EQ(0, work.channel->isLocked.load());
    expectClosable();
}

// A reply that deletes a container which is not there.
Bytes unfitReply()
{
    return flow(replyType, 1, 0, "ECI",
                be32(1) + be32(0) + be32(0) + be32(0) + text("    ") + be32(0) + hex("00") +
                    hex("FF") + text("CHANNEL         ") + be32(819) + be32(1) +
                    text("UNKNOWN         ") + hex("02 0000 01") + be32(0) + be32(0));
}

TEST_F(OvertakenSender, EndsTheConnectionWhenTheReplyCannotBeApplied)
{
    holdSender();
    putAside(unfitReply());

    beforeWrite.release();

    EXPECT_RC(0, call.get());
    awaitSweep();
    expectCollected(QPX_ERR_LOSTGWCON);
    expectClosable();
}

// The receiver has not noticed yet that the connection has been ended.
TEST_F(OvertakenSender, LeavesAConnectionThatClosesWhenTheReplyCannotBeApplied)
{
    Hold ending(SchedulePoint::connectionEnding, token());
    holdSender();
    putAside(unfitReply());
    beforeWrite.release();
    EXPECT_RC(0, call.get());
    ending.awaitArrival();
    expectCollected(QPX_ERR_LOSTGWCON);
    EciParms next = syncCall("NEXT", filled(8, 'n'));
    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(next));

    auto close = startClose(Close::InOrder, &connection.token);
    receiverAwaited.await(1);
    ending.release();

    EXPECT_RC(0, close.get());
    expectClosed();
}

TEST_F(OvertakenSender, DeliversACodeOfTheGatewayWhoseBodyIsCut)
{
    holdSender();
    Bytes cut = flow(replyType, 1, 61447, "ECI",
                     be32(1) + be32(0) + be32(0) + be32(0) + text("    ") + be32(0) + hex("00") +
                         hex("FF") + text("CHANNEL         ") + be32(819) + be32(1) +
                         text("ADDED           ") + hex("01 0000 01") + be32(0) + be32(100) +
                         text("three"));
    putAside(cut);

    beforeWrite.release();

    EXPECT_RC(0, call.get());
    connection.awaitRequest();
    expectCollected(61447);
    EXPECT_EQ(0, work.channel->numContainers.load());
    expectClosable();
}

// Two collectors and a close wait for the outcome of a request that is still being sent.
TEST_F(OvertakenSender, ReleasesCollectorsAndACloseWithARefusalThatCameBefore)
{
    holdSender();
    putAside(errorFlow(1, 61445));
    EciParms first = getReplyWait(8);
    EciParms second = getReplyWait(8);
    auto one = start(first);
    auto other = start(second);
    queueAwaited.await(2);
    auto close = startClose(Close::InOrder, &connection.token);
    workAwaited.await(1);

    beforeWrite.release();

    EXPECT_RC(0, call.get());
    EXPECT_EQ(1, connection.awaitRequest().messageId());
    int sum = one.get() + other.get(); // one of them has the refusal, to the other nothing can come
    EXPECT_EQ(61445 + QPX_ERR_GWTOK_CLOSED, sum);
    connection.answerClose();
    EXPECT_RC(0, close.get());
    expectClosed();
}

// The receiver has begun to read a reply as one that overtakes, and finds the sender through.
TEST_F(OvertakenSender, LeavesAReplyToTheReceiverThatIsReadWhenItIsThrough)
{
    Hold read(SchedulePoint::replyRead);
    holdSender();
    connection.peer.send(channelReply(1, "answered"));
    read.awaitArrival();
    beforeWrite.release();
    EXPECT_RC(0, call.get());
    connection.awaitRequest();
    EXPECT_EQ(0, work.channel->numContainers.load());

    read.release();

    delivered.await(1);
    passTable();
    EXPECT_EQ(0, aside.times());
    expectCollected(0);
    work.expectAnswered();
    expectClosable();
}

// While the sender changes the channel, its request still has no outcome.
TEST_F(OvertakenSender, HasNoOutcomeWhileItChangesItsChannel)
{
    Hold applied(SchedulePoint::asideApplied);
    holdSender();
    putAside(channelReply(1, "answered"));
    beforeWrite.release();
    applied.awaitArrival();
    expectNoOutcomeYet();
    EXPECT_EQ(1, slot(1).outcomePending);
    lose(); // the end leaves it alone, too
    EXPECT_EQ(SLOT_WAITING, slot(1).state);

    applied.release();

    EXPECT_RC(0, call.get());
    delivered.await(1);
    expectCollected(0);
    work.expectAnswered();
    expectClosable();
}

// The lock is given up for the changes of the channel, and taken again.
TEST_F(OvertakenSender, HasTheTableWhenItDeliversTheReply)
{
    Hold delivers(SchedulePoint::slotDelivered);
    holdSender();
    putAside(channelReply(1, "answered"));

    beforeWrite.release();

    delivers.awaitArrival();
    EXPECT_FALSE(support::isFree(token()->tableLock.lock));
    EXPECT_EQ(0, slot(1).outcomePending); // it is there for whoever collects it
    delivers.release();
    EXPECT_RC(0, call.get());
    connection.awaitRequest();
    expectCollected(0);
    expectClosable();
}

// ---- Synchronous calls ----

class OvertakenCaller : public RaceTest {
protected:
    Counter aside{SchedulePoint::outcomePutAside};
    Call work{Kind::SyncChannel};
};

TEST_F(OvertakenCaller, ReturnsWithTheReplyOnceItsRequestIsWritten)
{
    Hold beforeWrite(SchedulePoint::beforeRequestWrite);
    auto call = start(work);
    beforeWrite.awaitArrival();
    connection.peer.send(channelReply(1, "answered"));
    aside.await(1);
    passTable();
    EXPECT_EQ(SLOT_WAITING, slot(1).state);
    EXPECT_EQ(0, work.channel->numContainers.load());

    beforeWrite.release();

    EXPECT_RC(0, call.get());
    connection.awaitRequest();
    work.expectAnswered();
    EXPECT_EQ(0, work.channel->isLocked.load());
    expectClosable();
}

TEST_F(OvertakenCaller, ReturnsWithTheRefusalOnceItsRequestIsWritten)
{
    Hold beforeWrite(SchedulePoint::beforeRequestWrite);
    auto call = start(work);
    beforeWrite.awaitArrival();
    connection.peer.send(errorFlow(1, 61445));
    aside.await(1);

    beforeWrite.release();

    EXPECT_RC(61445, call.get());
    connection.awaitRequest();
    expectClosable();
}

TEST_F(OvertakenCaller, LosesTheConnectionToASectionOfWhichNothingHasCome)
{
    Hold beforeWrite(SchedulePoint::beforeRequestWrite);
    auto call = start(work);
    beforeWrite.awaitArrival();
    Bytes body = support::replyBody(Bytes()); // a channel follows, and nothing does
    connection.peer.send(flow(replyType, 1, 0, "ECI", body));
    awaitSweep();
    EXPECT_EQ(CONN_LOST, token()->connStatus.load());

    beforeWrite.release();

    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    work.expectUnchanged();
    expectClosable();
}

// ---- The COMMAREA of a synchronous call ----

// The call sends eight bytes, and is held when its slot waits and nothing has been written yet.
class OvertakenCommarea : public RaceTest {
protected:
    // So many bytes of the COMMAREA, of which only these travel.
    static Bytes reply(int length, const std::string& contents)
    {
        int inbound = static_cast<int>(contents.size());
        return ProgramReply().commarea(length, text(contents)).inbound(inbound).to(1);
    }

    void putAside(const Bytes& outcome)
    {
        beforeWrite.awaitArrival();
        connection.peer.send(outcome);
        aside.await(1);
        passTable();
    }

    void expectNoOutcomeYet()
    {
        EXPECT_EQ(SLOT_WAITING, slot(1).state);
        EXPECT_EQ(0, slot(1).requestEvent.eflag);
        EXPECT_EQ(filled(8, 'q'), parms.commarea());
    }

    // The request carries what the application has put there, whatever has come meanwhile.
    void expectSent()
    {
        Bytes data = filled(8, 'q');
        Bytes body = connection.awaitRequest().body;
        EXPECT_NE(body.end(), std::search(body.begin(), body.end(), data.begin(), data.end()));
    }

    Counter aside{SchedulePoint::outcomePutAside};
    EciParms parms = syncCall("PROG", filled(8, 'q'));
    Hold beforeWrite{SchedulePoint::beforeRequestWrite};
    RunningCall<int> call = start(parms);
};

TEST_F(OvertakenCommarea, IsChangedOnceItsRequestIsWritten)
{
    putAside(reply(8, "answered"));
    expectNoOutcomeYet();

    beforeWrite.release();

    EXPECT_RC(0, call.get());
    expectSent();
    EXPECT_EQ(text("answered"), parms.commarea());
    expectClosable();
}

TEST_F(OvertakenCommarea, IsFilledWithZeroesAsFarAsTheReplySays)
{
    putAside(reply(6, "abc"));
    expectNoOutcomeYet();

    beforeWrite.release();

    EXPECT_RC(0, call.get());
    expectSent();
    EXPECT_EQ(text("abc") + hex("000000") + text("qq"), parms.commarea());
    expectClosable();
}

TEST_F(OvertakenCommarea, KeepsWhatAShorterReplyLeavesAlone)
{
    putAside(reply(3, "abc"));

    beforeWrite.release();

    EXPECT_RC(0, call.get());
    expectSent();
    EXPECT_EQ(text("abcqqqqq"), parms.commarea());
    expectClosable();
}

TEST_F(OvertakenCommarea, IsChangedNoFurtherThanItReaches)
{
    putAside(reply(17, "answered and more"));

    beforeWrite.release();

    EXPECT_RC(0, call.get());
    expectSent();
    EXPECT_EQ(text("answered"), parms.commarea());
    expectClosable();
}

TEST_F(OvertakenCommarea, IsLeftAloneWhenItsWriteFails)
{
    putAside(reply(8, "answered"));
    EXPECT_EQ(0, shutdown(token()->socketDescriptor, SHUT_WR));

    beforeWrite.release();

    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    EXPECT_EQ(filled(8, 'q'), parms.commarea());
    lose();
    expectClosable();
}

TEST_F(OvertakenCommarea, IsLeftAloneByARefusal)
{
    putAside(errorFlow(1, 61445));
    expectNoOutcomeYet();

    beforeWrite.release();

    EXPECT_RC(61445, call.get());
    expectSent();
    EXPECT_EQ(filled(8, 'q'), parms.commarea());
    expectClosable();
}

TEST_F(OvertakenCommarea, GetsNoChannelSection)
{
    putAside(channelReply(1, "dropped"));

    beforeWrite.release();

    EXPECT_RC(0, call.get());
    expectSent();
    EXPECT_EQ(filled(8, 'q'), parms.commarea());
    expectClosable();
}

// What ends before its data does leaves alone what it does not reach, as it does at any other time.
TEST_F(OvertakenCommarea, KeepsWhatACutReplyOfARefusedCallDoesNotReach)
{
    Bytes body = ProgramReply().commarea(text("answered")).body();
    body.resize(body.size() - 6);
    putAside(flow(replyType, 1, 61445, "ECI", body));
    expectNoOutcomeYet();

    beforeWrite.release();

    EXPECT_RC(61445, call.get());
    expectSent();
    EXPECT_EQ(text("ansqqqqq"), parms.commarea());
    expectClosable();
}

TEST_F(OvertakenCommarea, IsLeftAloneByACutReplyOfARefusedCallWithoutData)
{
    Bytes body = ProgramReply().commarea(text("answered")).body();
    body.resize(body.size() - 9);
    putAside(flow(replyType, 1, 61445, "ECI", body));

    beforeWrite.release();

    EXPECT_RC(61445, call.get());
    expectSent();
    EXPECT_EQ(filled(8, 'q'), parms.commarea());
    expectClosable();
}

// The receiver has begun to read the reply as one that overtakes, and finds the sender through.
TEST_F(OvertakenCommarea, IsChangedByTheReceiverOnceItsSenderIsThrough)
{
    Hold read(SchedulePoint::replyRead);
    beforeWrite.awaitArrival();
    connection.peer.send(reply(8, "answered"));
    read.awaitArrival();
    beforeWrite.release();
    replyAwaited.await(1);
    expectNoOutcomeYet();

    read.release();

    EXPECT_RC(0, call.get());
    EXPECT_EQ(0, aside.times());
    expectSent();
    EXPECT_EQ(text("answered"), parms.commarea());
    expectClosable();
}

// The lock is given up for the change of the COMMAREA, and taken again.
TEST_F(OvertakenCommarea, IsChangedByAReceiverThatDeliversWithTheTableLocked)
{
    Hold read(SchedulePoint::replyRead);
    Hold delivers(SchedulePoint::slotDelivered);
    beforeWrite.awaitArrival();
    connection.peer.send(reply(8, "answered"));
    read.awaitArrival();
    beforeWrite.release();
    replyAwaited.await(1);

    read.release();

    delivers.awaitArrival();
    EXPECT_FALSE(support::isFree(token()->tableLock.lock));
    EXPECT_EQ(text("answered"), parms.commarea());
    delivers.release();
    EXPECT_RC(0, call.get());
    expectSent();
    expectClosable();
}

// The end of the connection comes within the reply, so that there is none.
TEST_F(OvertakenCommarea, IsLeftAloneByAReplyThatBreaksOff)
{
    beforeWrite.awaitArrival();
    Bytes cut = reply(8, "answered");
    cut.resize(cut.size() - 4);
    connection.peer.send(cut);
    lose();
    EXPECT_EQ(1, aside.times());

    beforeWrite.release();

    EXPECT_NE(0, call.get());
    EXPECT_EQ(filled(8, 'q'), parms.commarea());
    expectClosable();
}

// ---- Calls without data ----

class OvertakenWithoutData : public RaceTest {};

TEST_F(OvertakenWithoutData, ReturnsWithTheReplyOnceItsRequestIsWritten)
{
    Counter aside(SchedulePoint::outcomePutAside);
    Hold beforeWrite(SchedulePoint::beforeRequestWrite);
    EciParms parms = syncCall("PROG");
    auto call = start(parms);
    beforeWrite.awaitArrival();
    connection.peer.send(ProgramReply().to(1));
    aside.await(1);

    beforeWrite.release();

    EXPECT_RC(0, call.get());
    connection.awaitRequest();
    expectClosable();
}

} // namespace
