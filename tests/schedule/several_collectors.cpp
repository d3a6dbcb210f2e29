// Several threads that collect replies of one connection, each at the worst moment for another.
#include "schedule/race_fixture.h"

using namespace race;

namespace {

class SeveralCollectors : public RaceTest {
protected:
    // A collector that finds nothing, arms the event and stands before its sleep. Released at once,
    // it sleeps, or has been woken already.
    struct Collector {
        Collector(SeveralCollectors& test, EciParms&& wanted)
            : parms(std::move(wanted)), beforeSleep(SchedulePoint::beforeQueueWait),
              call(test.start(parms))
        {
            beforeSleep.awaitArrival();
        }
        EciParms parms;
        Hold beforeSleep;
        RunningCall<int> call;
    };

    void expectReply(Collector& collector, const std::string& contents)
    {
        EXPECT_RC(0, collector.call.get());
        EXPECT_EQ(text(contents), collector.parms.commarea());
    }
};

TEST_F(SeveralCollectors, FindTheirReplyAlthoughAnotherArmsTheEventAgain)
{
    ASSERT_EQ(1, send());
    ASSERT_EQ(2, send());
    Collector first(*this, getSpecificReplyWait(1, 8));
    deliver(1, "reply 1.");
    Collector second(*this, getSpecificReplyWait(2, 8)); // has closed the gate again
    EXPECT_EQ(0, token()->asyncReplyEvent.eflag);

    first.beforeSleep.release();

    expectReply(first, "reply 1.");
    second.beforeSleep.release();
    deliver(2, "reply 2.");
    expectReply(second, "reply 2.");
    expectClosable();
}

TEST_F(SeveralCollectors, FindAnyReplyAlthoughASpecificOneArmsTheEventAgain)
{
    ASSERT_EQ(1, send());
    ASSERT_EQ(2, send());
    Collector any(*this, getReplyWait(8));
    deliver(1, "reply 1.");
    Collector specific(*this, getSpecificReplyWait(2, 8));
    EXPECT_EQ(0, token()->asyncReplyEvent.eflag);

    any.beforeSleep.release();

    expectReply(any, "reply 1.");
    specific.beforeSleep.release();
    deliver(2, "reply 2.");
    expectReply(specific, "reply 2.");
    expectClosable();
}

// The one who takes the reply leaves the queue empty and arms the event for those to come.
TEST_F(SeveralCollectors, GoOnWaitingWhenAnotherHasTakenTheReply)
{
    ASSERT_EQ(1, send());
    ASSERT_EQ(2, send());
    Collector loser(*this, getReplyWait(8));
    Collector other(*this, getReplyWait(8));
    deliver(1, "reply 1.");
    expectCollected(1, "reply 1.");
    int waits = queueAwaited.times();

    loser.beforeSleep.release();
    other.beforeSleep.release();

    queueAwaited.await(waits + 2); // both have looked, and wait again
    deliver(2, "reply 2.");
    // Whoever of the two is first takes it. The other one sleeps again, until the end.
    queueAwaited.await(waits + 3);
    lose();
    int codes[] = {loser.call.get(), other.call.get()};
    EXPECT_EQ(1, (codes[0] == 0) + (codes[1] == 0));
    EXPECT_EQ(1, (codes[0] == QPX_ERR_LOSTGWCON) + (codes[1] == QPX_ERR_LOSTGWCON));
    expectClosable();
}

TEST_F(SeveralCollectors, AreToldThatTheReplyTheyWaitForIsGone)
{
    ASSERT_EQ(1, send());
    Collector first(*this, getSpecificReplyWait(1, 8));
    Collector second(*this, getSpecificReplyWait(1, 8));
    deliver(1, "reply 1.");
    first.beforeSleep.release();
    expectReply(first, "reply 1.");

    second.beforeSleep.release();

    EXPECT_RC(ECI_ERR_INVALID_MSG_QUAL, second.call.get());
    expectClosable();
}

TEST_F(SeveralCollectors, LeaveTheReplyOfASynchronousCallThatHasTheSlotTheyWaitFor)
{
    ASSERT_EQ(1, send());
    Collector loser(*this, getSpecificReplyWait(1, 8));
    deliver(1, "reply 1.");
    expectCollected(1, "reply 1.");
    EciParms parms = syncCall("AGAIN", filled(8, '?'));
    Hold beforeOutcome(SchedulePoint::beforeReplyWait);
    auto call = start(parms);
    EXPECT_EQ(1, connection.awaitRequest().messageId());
    beforeOutcome.awaitArrival();
    deliver(1, "in order");

    loser.beforeSleep.release();
    int loserRc = loser.call.get();
    beforeOutcome.release();

    EXPECT_RC(ECI_ERR_INVALID_MSG_QUAL, loserRc);
    EXPECT_RC(0, call.get());
    EXPECT_EQ(text("in order"), parms.commarea());
    expectClosable();
}

TEST_F(SeveralCollectors, AreToldThatTheSlotTheyWaitForIsKeptForAUnitOfWork)
{
    EciParms parms = asyncCall("LATER", filled(8, 'a'));
    parms.withExtendMode(ECI_EXTENDED);
    EXPECT_RC(0, execute(parms));
    connection.awaitRequest();
    Collector loser(*this, getSpecificReplyWait(1, 8));
    deliver(ProgramReply().luwToken(77).commarea(text("answered")).to(1));
    expectCollected(1, "answered");
    EXPECT_EQ(SLOT_LUW_IDLE, slot(1).state);

    loser.beforeSleep.release();

    EXPECT_RC(ECI_ERR_NO_REPLY, loser.call.get());
}

TEST_F(SeveralCollectors, GetOneReplyEachOfTwoThatComeWhileBothFallAsleep)
{
    ASSERT_EQ(1, send());
    ASSERT_EQ(2, send());
    Collector first(*this, getReplyWait(8));
    Collector second(*this, getReplyWait(8));
    deliver(1, "reply 1.");
    deliver(2, "reply 2.");

    second.beforeSleep.release();
    expectReply(second, "reply 1.");
    first.beforeSleep.release();
    expectReply(first, "reply 2.");
    expectClosable();
}

TEST_F(SeveralCollectors, AllLeaveWhenTheConnectionIsLostWithNothingOutstanding)
{
    Collector first(*this, getReplyWait(8));
    Collector second(*this, getReplyWait(8));
    second.beforeSleep.release();

    lose();

    first.beforeSleep.release();
    EXPECT_RC(QPX_ERR_LOSTGWCON, first.call.get());
    EXPECT_RC(QPX_ERR_LOSTGWCON, second.call.get());
    expectClosable();
}

TEST_F(SeveralCollectors, AllLeaveWhenTheLastReplyOfAClosingConnectionIsTaken)
{
    ASSERT_EQ(1, send());
    Collector first(*this, getReplyWait(8));
    Collector second(*this, getReplyWait(8));
    auto closing = startClose(Close::InOrder, &connection.token);
    workAwaited.await(1);
    deliver(1, "reply 1.");
    first.beforeSleep.release();
    expectReply(first, "reply 1.");

    second.beforeSleep.release();

    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, second.call.get());
    connection.answerClose();
    EXPECT_RC(0, closing.get());
    expectClosed();
}

TEST_F(SeveralCollectors, LearnOfTheLossBeforeTheyLearnThatTheirReplyIsGone)
{
    ASSERT_EQ(1, send());
    Collector loser(*this, getSpecificReplyWait(1, 8));
    lose();
    EciParms collecting = getReply(8);
    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(collecting));

    loser.beforeSleep.release();

    EXPECT_RC(QPX_ERR_LOSTGWCON, loser.call.get());
    expectClosable();
}

// The reply stays queued when a collector has too little room, and with it the open gate.
TEST_F(SeveralCollectors, FindTheReplyThatAnotherHasHadNoRoomFor)
{
    ASSERT_EQ(1, send());
    Collector second(*this, getReplyWait(8));
    deliver(1, "reply 1.");
    EciParms small = getReply(4);
    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, execute(small));
    EXPECT_EQ(8, int(small.record.eci_commarea_length));

    second.beforeSleep.release();

    expectReply(second, "reply 1.");
    expectClosable();
}

// Such a close gives the channel back, but the reply stays to be collected.
TEST_F(SeveralCollectors, BringTheChannelOfTheCallThoughAFailedCloseHasGivenItBack)
{
    Call sent(Kind::AsyncChannel);
    ASSERT_RC(0, sent.run(token()));
    connection.awaitRequest();
    Collector collector(*this, getReplyWait(8));
    Hold beforeWrite(SchedulePoint::beforeCloseWrite);
    auto purging = startClose(Close::Purge, &connection.token);
    beforeWrite.awaitArrival();
    connection.peer.shutdownWriting();
    sendersAwaited.await(1);
    beforeWrite.release();
    EXPECT_RC(QPX_ERR_LOSTGWCON, purging.get());

    collector.beforeSleep.release();

    EXPECT_RC(QPX_ERR_LOSTGWCON, collector.call.get());
    EXPECT_EQ(sent.channel, ECI_ChannelToken_t(collector.parms.record.channel));
    EXPECT_RC(0, QPX_closeAllGatewayConnections());
    expectClosed();
}

// ---- Requests that are withdrawn while the connection stands ----

class CollectorOfTheWithdrawn : public SeveralCollectors {
protected:
    // An asynchronous request that waits, and is held before it is written. Nothing of it leaves
    // when it is refused: the socket is missing for its write alone.
    struct HeldRequest {
        HeldRequest(CollectorOfTheWithdrawn& test, EciParms&& request)
            : gwTok(test.token()), parms(std::move(request)),
              beforeWrite(SchedulePoint::beforeRequestWrite), call(test.start(parms))
        {
            beforeWrite.awaitArrival();
        }

        void refuse()
        {
            Socket socket = gwTok->socketDescriptor.exchange(NO_SOCKET);
            beforeWrite.release();
            EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
            gwTok->socketDescriptor = socket;
        }

        _QPX_ConnToken_t* gwTok;
        EciParms parms;
        Hold beforeWrite;
        RunningCall<int> call;
    };

    static EciParms request() { return asyncCall("LATER", filled(8, 'a')); }
};

TEST_F(CollectorOfTheWithdrawn, IsToldThatTheReplyItSleepsForDoesNotCome)
{
    HeldRequest held(*this, request());
    EciParms parms = getSpecificReplyWait(1, 8);
    auto collector = start(parms);
    queueAwaited.await(1);

    held.refuse();

    EXPECT_RC(ECI_ERR_INVALID_MSG_QUAL, collector.get());
    expectClosable(); // which serves
}

TEST_F(CollectorOfTheWithdrawn, IsToldOfTheNextCallOfItsUnitOfWork)
{
    EciParms opening = request();
    opening.withExtendMode(ECI_EXTENDED);
    EXPECT_RC(0, execute(opening));
    connection.awaitRequest();
    deliver(ProgramReply().luwToken(77).commarea(text("answered")).to(1));
    expectCollected(1, "answered");
    EciParms next = request();
    next.withExtendMode(ECI_EXTENDED, 77);
    HeldRequest held(*this, std::move(next));
    EciParms parms = getSpecificReplyWait(1, 8);
    auto collector = start(parms);
    queueAwaited.await(1);

    held.refuse();

    EXPECT_RC(ECI_ERR_INVALID_MSG_QUAL, collector.get());
    expectClosable();
}

TEST_F(CollectorOfTheWithdrawn, IsToldThoughAnotherArmsTheEventAgainBeforeItSleeps)
{
    HeldRequest held(*this, request());
    Collector specific(*this, getSpecificReplyWait(1, 8));
    held.refuse();
    Collector any(*this, getReplyWait(8)); // has closed the gate again
    EXPECT_EQ(0, token()->asyncReplyEvent.eflag);

    specific.beforeSleep.release();

    EXPECT_RC(ECI_ERR_INVALID_MSG_QUAL, specific.call.get());
    any.beforeSleep.release();
    ASSERT_EQ(1, send());
    deliver(1, "reply 1.");
    expectReply(any, "reply 1.");
    expectClosable();
}

TEST_F(CollectorOfTheWithdrawn, SleepsOnForTheNextReplyIfItTakesAny)
{
    HeldRequest held(*this, request());
    EciParms parms = getReplyWait(8);
    auto collector = start(parms);
    queueAwaited.await(1);

    held.refuse();

    queueAwaited.await(2); // it has looked again
    ASSERT_EQ(1, send());
    deliver(1, "reply 1.");
    EXPECT_RC(0, collector.get());
    EXPECT_EQ(text("reply 1."), parms.commarea());
    expectClosable();
}

TEST_F(CollectorOfTheWithdrawn, SleepsOnIfItsOwnReplyIsAnother)
{
    ASSERT_EQ(1, send());
    HeldRequest held(*this, request());
    EciParms parms = getSpecificReplyWait(1, 8);
    auto collector = start(parms);
    queueAwaited.await(1);

    held.refuse();

    queueAwaited.await(2);
    deliver(1, "reply 1.");
    EXPECT_RC(0, collector.get());
    EXPECT_EQ(text("reply 1."), parms.commarea());
    expectClosable();
}

} // namespace
