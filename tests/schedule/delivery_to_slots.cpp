// The receiver and the slots: replies that come early, twice, or for nobody, and requests whose
// write fails while their outcome is on its way.
#include <sys/socket.h>

#include <memory>
#include <string>
#include <vector>

#include "schedule/race_fixture.h"

using namespace race;

namespace {

class SlotDelivery : public RaceTest {
protected:
    // From here on nothing can be written to the connection; it can still be read.
    void failWrites() { EXPECT_EQ(0, shutdown(token()->socketDescriptor, SHUT_WR)); }

    // The outcome of a slot that the end of the connection has delivered.
    void expectLossCollected(int messageId)
    {
        EciParms parms = getReply(8);
        EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
        EXPECT_EQ(messageId, int(parms.record.eci_message_qualifier));
    }
};

// ---- The state of a slot and its queue ----

TEST_F(SlotDelivery, QueuesAReplyOnceThatComesBeforeTheSenderGoesOn)
{
    Call work(Kind::Async);
    Hold written(SchedulePoint::requestWritten);
    auto call = start(work);
    connection.awaitRequest();
    written.awaitArrival();
    deliver(1, "answered");
    written.release();
    EXPECT_RC(0, call.get());

    lose();

    EXPECT_EQ(SLOT_DELIVERED, slot(1).state);
    EXPECT_EQ(&slot(1), token()->firstReply);
    EXPECT_TRUE(slot(1).nextReply == nullptr);
    expectCollected(1, "answered");
    expectNothingToCollect();
    expectClosable();
}

TEST_F(SlotDelivery, DoesNotWaitForAReplyThatComesBeforeTheRequestIsWritten)
{
    Call work(Kind::Password);
    Hold waiting(SchedulePoint::beforeRequestWrite);
    auto call = start(work);
    waiting.awaitArrival();
    EXPECT_EQ(SLOT_WAITING, slot(1).state);
    EXPECT_EQ(0, slot(1).requestEvent.eflag); // armed

    deliver(work.answer(1));

    EXPECT_EQ(1, slot(1).requestEvent.eflag);
    waiting.release();
    EXPECT_RC(0, call.get());
    work.expectAnswered();
    connection.awaitRequest();
    expectClosable();
}

TEST_F(SlotDelivery, LetsTheCallerHaveTheSlotOnlyOnceTheReceiverHasGivenTheTableUp)
{
    Call work(Kind::Sync);
    Hold atDelivery(SchedulePoint::slotDelivered);
    auto call = start(work);
    connection.awaitRequest();
    replyAwaited.await(1);
    connection.peer.send(work.answer(1));
    atDelivery.awaitArrival();
    EXPECT_EQ(1, slot(1).requestEvent.eflag); // the caller is awake by now
    EXPECT_FALSE(call.hasEnded());
    EXPECT_EQ(SLOT_DELIVERED, slot(1).state);
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(&token()->tableLock.lock));

    // The receiver has nothing to do with the slot any more: it is freed behind its back.
    Hold handled(SchedulePoint::flowHandled);
    atDelivery.release();
    handled.awaitArrival();
    EXPECT_RC(0, call.get());
    EXPECT_EQ(SLOT_FREE, slot(1).state);
    handled.release();
    work.expectAnswered();
    expectClosable();
}

TEST_F(SlotDelivery, LetsACollectorHaveTheSlotOnlyOnceTheReceiverHasGivenTheTableUp)
{
    ASSERT_EQ(1, send());
    EciParms collecting = getReplyWait(8);
    Hold atDelivery(SchedulePoint::slotDelivered);
    auto call = start(collecting);
    queueAwaited.await(1);
    connection.peer.send(ProgramReply().commarea(text("answered")).to(1));
    atDelivery.awaitArrival();
    EXPECT_FALSE(call.hasEnded());
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(&token()->tableLock.lock));

    Hold handled(SchedulePoint::flowHandled);
    atDelivery.release();
    handled.awaitArrival();
    EXPECT_RC(0, call.get());
    EXPECT_EQ(SLOT_FREE, slot(1).state);
    handled.release();
    expectClosable();
}

// ---- Flows for a slot that does not wait ----

enum class State { Free, Allocated, DeliveredSync, DeliveredAsync, IdleInUnitOfWork };
enum class Flow { Reply, Error, Exception };

struct Stray {
    State state;
    Flow flow;
};

std::string nameOf(const Stray& stray)
{
    static const char* const states[] = {"Free", "Allocated", "DeliveredSync", "DeliveredAsync",
                                         "IdleInUnitOfWork"};
    static const char* const flows[] = {"Reply", "Error", "Exception"};
    return std::string(states[static_cast<int>(stray.state)]) + "_" +
           flows[static_cast<int>(stray.flow)];
}

std::vector<Stray> allStrays()
{
    std::vector<Stray> strays;
    for (int state = 0; state <= static_cast<int>(State::IdleInUnitOfWork); ++state)
        for (int flow = 0; flow <= static_cast<int>(Flow::Exception); ++flow)
            strays.push_back(Stray{static_cast<State>(state), static_cast<Flow>(flow)});
    return strays;
}

class StrayFlow : public RaceTest, public ::testing::WithParamInterface<Stray> {
protected:
    static constexpr int luwToken = 77;

    Flow strayFlow() const { return GetParam().flow; }

    // A flow for slot 1 that nobody waits for, and its end.
    void stray()
    {
        if (strayFlow() == Flow::Reply)
            connection.peer.send(ProgramReply().commarea(text("stray...")).to(1));
        else if (strayFlow() == Flow::Error)
            connection.peer.send(errorFlow(1, 61448));
        else
            connection.peer.send(exceptionFlow(1, "stray"));
        awaitReceiver();
    }

    void expectSlotAsBefore(int state)
    {
        passTable();
        EXPECT_EQ(state, slot(1).state);
        EXPECT_EQ(0, slot(1).gatewayRc);
        EXPECT_TRUE(slot(1).nextReply == nullptr);
    }

    void meetFree()
    {
        stray();
        expectSlotAsBefore(SLOT_FREE);
        EXPECT_TRUE(token()->firstReply == nullptr);
    }

    void meetAllocated()
    {
        Call work(Kind::Sync);
        Hold armed(SchedulePoint::requestArmed);
        auto call = start(work);
        armed.awaitArrival();
        stray();
        expectSlotAsBefore(SLOT_ALLOCATED);
        EXPECT_EQ(text("qqqqqqqq"), work.parms.commarea());
        armed.release();
        connection.awaitRequest();
        deliver(work.answer(1));
        EXPECT_RC(0, call.get());
        work.expectAnswered();
    }

    void meetDeliveredSync()
    {
        Call work(Kind::Sync);
        Hold woken(SchedulePoint::beforeReplyWait);
        auto call = start(work);
        connection.awaitRequest();
        woken.awaitArrival();
        deliver(work.answer(1));
        stray();
        expectSlotAsBefore(SLOT_DELIVERED);
        woken.release();
        EXPECT_RC(0, call.get());
        work.expectAnswered();
    }

    void meetDeliveredAsync()
    {
        ASSERT_EQ(1, send());
        deliver(1, "answered");
        stray();
        expectSlotAsBefore(SLOT_DELIVERED);
        EXPECT_EQ(&slot(1), token()->firstReply);
        EXPECT_EQ(&slot(1), token()->lastReply);
        EXPECT_EQ(1, token()->asyncCount.load());
        expectCollected(1, "answered");
        expectNothingToCollect();
    }

    void meetIdle()
    {
        EciParms opening = syncCall("PROG", filled(8, 'q'));
        opening.withExtendMode(ECI_EXTENDED);
        auto opened = start(opening);
        connection.awaitRequest();
        deliver(ProgramReply().luwToken(luwToken).commarea(text("opened..")).to(1));
        EXPECT_RC(0, opened.get());
        EXPECT_EQ(luwToken, int(opening.record.eci_luw_token));

        stray();

        expectSlotAsBefore(SLOT_LUW_IDLE);
        EXPECT_EQ(text("opened.."), opening.commarea());
        EciParms ending = syncCall("PROG");
        ending.withExtendMode(ECI_COMMIT, luwToken);
        auto ended = start(ending);
        EXPECT_EQ(1, connection.awaitRequest().messageId());
        deliver(ProgramReply().to(1));
        EXPECT_RC(0, ended.get());
    }
};

TEST_P(StrayFlow, IsDropped)
{
    switch (GetParam().state) {
    case State::Free: meetFree(); break;
    case State::Allocated: meetAllocated(); break;
    case State::DeliveredSync: meetDeliveredSync(); break;
    case State::DeliveredAsync: meetDeliveredAsync(); break;
    case State::IdleInUnitOfWork: meetIdle(); break;
    }
    expectClosable();
}

INSTANTIATE_TEST_SUITE_P(Every, StrayFlow, ::testing::ValuesIn(allStrays()),
                         [](const auto& about) { return nameOf(about.param); });

TEST_F(SlotDelivery, DeliversTheFirstOfTwoRepliesThatComeAtOnce)
{
    Call work(Kind::Sync);
    auto call = start(work);
    connection.awaitRequest();
    connection.peer.send(work.answer(1) + ProgramReply().commarea(text("too late")).to(1));
    EXPECT_RC(0, call.get());
    awaitReceiver();
    work.expectAnswered();
    expectClosable();
}

// A reply is read while its request is given up, and the slot is another request's by the time
// the reply could be delivered.
TEST_F(SlotDelivery, DoesNotDeliverToTheNextUseOfTheSlot)
{
    Call work(Kind::Async);
    Hold written(SchedulePoint::requestWritten);
    auto first = start(work);
    connection.awaitRequest();
    written.awaitArrival();
    Hold error(SchedulePoint::failureFound);
    connection.peer.send(ProgramReply().commarea(text("answered")).to(1) + errorFlow(1, 61448));
    error.awaitArrival(); // found in the first use of the slot, which ends here
    expectCollected(1, "answered");
    EciParms next = asyncCall("NEXT", filled(8, 'n'));
    Hold armed(SchedulePoint::requestArmed);
    auto second = start(next);
    armed.awaitArrival();
    EXPECT_EQ(SLOT_ALLOCATED, slot(1).state);

    error.release();
    awaitReceiver();

    EXPECT_EQ(SLOT_ALLOCATED, slot(1).state);
    armed.release();
    written.release();
    EXPECT_RC(0, first.get());
    EXPECT_RC(0, second.get());
    connection.awaitRequest();
    deliver(1, "in order");
    expectCollected(1, "in order");
    expectClosable();
}

// ---- Look-ups without the table ----

// Seventeen requests: the last one has a table of its own.
class SecondTable : public SlotDelivery {
protected:
    void fillFirstTable()
    {
        for (int messageId = 1; messageId <= 16; ++messageId) ASSERT_EQ(messageId, send());
    }
    void expectCollected17()
    {
        EciParms parms = getSpecificReply(17, 8);
        EXPECT_RC(0, execute(parms));
        EXPECT_EQ(text("answered"), parms.commarea());
    }
    void emptyFirstTable()
    {
        for (int messageId = 1; messageId <= 16; ++messageId) {
            deliver(messageId, "answered");
            expectCollected(messageId, "answered");
        }
    }
};

TEST_F(SecondTable, MayBeGivenBackUnderALookUpThatStandsInIt)
{
    fillFirstTable();
    ASSERT_EQ(17, send());
    RequestSlot* seventeenth = slot(16).nextSlot;
    deliver(17, "answered");
    Hold standing(SchedulePoint::tableFound, seventeenth);
    connection.peer.send(errorFlow(30, 61448)); // in the table of slot 17
    standing.awaitArrival();

    expectCollected17();
    EXPECT_TRUE(slot(16).nextSlot == nullptr);
    standing.release();

    awaitReceiver();
    EXPECT_EQ(1, token()->connStatus.load());
    emptyFirstTable();
    expectClosable();
}

TEST_F(SecondTable, MayBeGivenBackUnderAFailureThatIsAboutToBeDelivered)
{
    fillFirstTable();
    ASSERT_EQ(17, send());
    deliver(17, "answered");
    Hold found(SchedulePoint::failureFound, slot(16).nextSlot);
    connection.peer.send(errorFlow(17, 61448));
    found.awaitArrival();

    expectCollected17();
    found.release();

    awaitReceiver();
    EXPECT_TRUE(token()->firstReply == nullptr);
    EXPECT_EQ(16, token()->asyncCount.load());
    emptyFirstTable();
    expectClosable();
}

// ---- Wakes that come late ----

// The caller has come through the open gate without being woken, and the slot is another's.
TEST_F(SlotDelivery, WakesNobodyElseWhoWaitsInTheSlotByThen)
{
    Hold asleep(SchedulePoint::beforeReplyWait);
    Call first(Kind::Sync);
    auto call = start(first);
    asleep.awaitArrival();
    connection.awaitRequest();
    Hold wake(SchedulePoint::beforeWake, &slot(1).requestEvent);
    connection.peer.send(first.answer(1));
    wake.awaitArrival();
    asleep.release();
    EXPECT_RC(0, call.get());
    first.expectAnswered();

    Call second(Kind::Sync);
    auto other = start(second);
    EXPECT_EQ(1, connection.awaitRequest().messageId());
    replyAwaited.await(2);
    wake.release();
    awaitReceiver();

    EXPECT_FALSE(other.hasEnded());
    deliver(second.answer(1));
    EXPECT_RC(0, other.get());
    second.expectAnswered();
    expectClosable();
}

TEST_F(SlotDelivery, WakesTheCallerWhenItHasGivenTheTableUp)
{
    Call work(Kind::Sync);
    auto call = start(work);
    connection.awaitRequest();
    replyAwaited.await(1);
    Hold wake(SchedulePoint::beforeWake, &slot(1).requestEvent);
    connection.peer.send(work.answer(1));
    wake.awaitArrival();

    passTable(); // which nobody holds
    EXPECT_EQ(1, slot(1).requestEvent.eflag);
    wake.release();

    EXPECT_RC(0, call.get());
    work.expectAnswered();
    expectClosable();
}

// ---- Writes that fail ----

TEST_F(SlotDelivery, TakesBackAnAsynchronousRequestThatWaitsWhenItsWriteFails)
{
    Call work(Kind::Async);
    work.parms.record.eci_message_qualifier = 99;
    Hold waiting(SchedulePoint::beforeRequestWrite);
    auto call = start(work);
    waiting.awaitArrival();
    EXPECT_EQ(1, token()->asyncCount.load());
    failWrites();

    waiting.release();

    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    EXPECT_EQ(99, int(work.parms.record.eci_message_qualifier));
    expectAtRest();
    expectNothingToCollect();
}

TEST_F(SlotDelivery, TakesBackAnAsynchronousRequestThatTheEndHasDeliveredWhenItsWriteFails)
{
    ASSERT_EQ(1, send());
    Call work(Kind::Async);
    Hold waiting(SchedulePoint::beforeRequestWrite);
    auto call = start(work);
    waiting.awaitArrival();
    lose();
    sendersAwaited.await(1);
    EXPECT_EQ(SLOT_DELIVERED, slot(2).state);
    EXPECT_EQ(&slot(2), token()->lastReply);

    waiting.release();

    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    EXPECT_EQ(SLOT_FREE, slot(2).state);
    EXPECT_EQ(&slot(1), token()->lastReply);
    EXPECT_EQ(1, token()->asyncCount.load());
    expectLossCollected(1);
    expectNothingToCollect();
    expectClosable();
}

TEST_F(SlotDelivery, CountsARequestAsSentWhoseOutcomeIsCollectedBeforeItsWriteFails)
{
    Call work(Kind::Async);
    Hold waiting(SchedulePoint::beforeRequestWrite);
    auto call = start(work);
    waiting.awaitArrival();
    lose();
    sendersAwaited.await(1);
    expectLossCollected(1);

    waiting.release();

    EXPECT_RC(0, call.get());
    EXPECT_EQ(1, int(work.parms.record.eci_message_qualifier));
    expectClosable();
}

TEST_F(SlotDelivery, KeepsTheChannelUnlockedOnceThatACollectorHasUnlockedBeforeTheCallEnds)
{
    Call work(Kind::AsyncChannel);
    Hold written(SchedulePoint::requestWritten);
    auto call = start(work);
    written.awaitArrival();
    lose();
    sendersAwaited.await(1);
    EciParms collecting = getReply(8);
    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(collecting));
    EXPECT_EQ(0, work.channel->isLocked.load());
    ASSERT_EQ(0, lockChannel(work.channel)); // another call's

    written.release();

    EXPECT_RC(0, call.get());
    EXPECT_EQ(1, work.channel->isLocked.load());
    EXPECT_EQ(0, unlockChannel(work.channel));
    expectClosable();
}

// The slot has been collected, and serves another request by the time the first write fails.
TEST_F(SlotDelivery, LeavesASlotAloneThatServesAnotherRequestWhenTheWriteFails)
{
    Call work(Kind::Async);
    Hold waiting(SchedulePoint::beforeRequestWrite);
    auto first = start(work);
    waiting.awaitArrival();
    deliver(1, "answered");
    expectCollected(1, "answered");
    EciParms next = asyncCall("NEXT", filled(8, 'n'));
    Hold nextWaiting(SchedulePoint::beforeRequestWrite);
    auto second = start(next);
    nextWaiting.awaitArrival();
    EXPECT_EQ(SLOT_WAITING, slot(1).state);
    failWrites();

    waiting.release();
    EXPECT_RC(0, first.get());

    EXPECT_EQ(SLOT_WAITING, slot(1).state);
    EXPECT_EQ(1, token()->asyncCount.load());
    nextWaiting.release();
    EXPECT_RC(QPX_ERR_LOSTGWCON, second.get());
    expectAtRest();
}

TEST_F(SlotDelivery, ReleasesACollectorAndACloseWhenTheLastRequestCannotBeWritten)
{
    EciParms collecting = getReplyWait(8);
    Call work(Kind::Async);
    Hold waiting(SchedulePoint::beforeRequestWrite);
    auto call = start(work);
    waiting.awaitArrival();
    auto collector = start(collecting);
    queueAwaited.await(1);
    auto closing = startClose(Close::InOrder, &connection.token);
    workAwaited.await(1);
    // The close's own flow cannot be written either, and it tells so.
    failWrites();

    waiting.release();

    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, collector.get());
    receiverAwaited.await(1);
    connection.peer.close();
    EXPECT_RC(QPX_ERR_LOSTGWCON, closing.get());
    EXPECT_RC(0, QPX_closeAllGatewayConnections());
    expectClosed();
}

// ---- A request is given up while its reply is being read ----

class ReplyBeingRead : public SlotDelivery, public ::testing::WithParamInterface<Kind> {};

TEST_P(ReplyBeingRead, KeepsTheCallFromReturning)
{
    Counter readingAwaited(SchedulePoint::beforeReadingWait);
    Call work(GetParam());
    Hold waiting(SchedulePoint::beforeRequestWrite);
    auto call = start(work);
    waiting.awaitArrival();
    Hold found(SchedulePoint::replyFound);
    connection.peer.send(work.answer(1));
    found.awaitArrival();
    EXPECT_EQ(&slot(1), token()->slotBeingRead);
    failWrites();

    waiting.release();

    readingAwaited.await(1);
    passTable(); // the sender sleeps
    EXPECT_FALSE(call.hasEnded());
    EXPECT_NE(SLOT_FREE, slot(1).state);
    // An asynchronous one counts as a sender until it has given its slot back.
    EXPECT_EQ(isAsync(GetParam()) ? 1 : 0, token()->senders);
    found.release();
    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    awaitSweep(); // the failed sender has ended the connection
    expectClosable();
    if (work.channel != nullptr) {
        EXPECT_EQ(0, work.channel->isLocked.load());
    }
}

INSTANTIATE_TEST_SUITE_P(Every, ReplyBeingRead,
                         ::testing::Values(Kind::Sync, Kind::Extended, Kind::Async,
                                           Kind::SyncChannel, Kind::AsyncChannel, Kind::Password,
                                           Kind::Systems),
                         [](const auto& about) { return nameOf(about.param); });

// ---- Qualifiers ----

TEST_F(SlotDelivery, GivesTheQualifierOfARequestWhoseSlotHasBeenCollectedMeanwhile)
{
    Call work(Kind::Async);
    Hold written(SchedulePoint::requestWritten);
    auto call = start(work);
    connection.awaitRequest();
    written.awaitArrival();
    deliver(1, "answered");
    expectCollected(1, "answered"); // by a record that had the qualifier while it was sent
    ASSERT_EQ(1, send());           // and the slot is another request's

    written.release();

    EXPECT_RC(0, call.get());
    EXPECT_EQ(1, int(work.parms.record.eci_message_qualifier));
    EXPECT_EQ(SLOT_WAITING, slot(1).state);
    deliver(1, "the last");
    expectCollected(1, "the last");
    expectClosable();
}

} // namespace
