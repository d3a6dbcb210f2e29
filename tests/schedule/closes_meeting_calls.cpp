// The end of a token while calls come to it, and several closes of the same one.
#include <atomic>
#include <memory>
#include <string>

#include "schedule/race_fixture.h"

using namespace race;

namespace {

class TokensEnd : public RaceTest {
protected:
    // Reads the applid: a call that asks nothing of the connection.
    RunningCall<int> startQuickCall()
    {
        return callInThread([gwTok = token()] {
            char* applid = nullptr;
            return QPX_getApplid(gwTok, &applid);
        });
    }

    // Leaves the event of the last call open, as it is after any call.
    void makeQuickCall()
    {
        EXPECT_RC(0, startQuickCall().get());
        EXPECT_EQ(1, token()->requestsEnded.eflag);
    }

    // The token's end has come to the look for calls that are still inside, and waits for one.
    void awaitWaitForTheCallInside()
    {
        unlisted.await(1);
        pthread_mutex_lock(&gtlLock.lock); // the close has given the list up to wait
        EXPECT_EQ(1, token()->requestCount.load());
        EXPECT_EQ(0, token()->requestsEnded.eflag);
        pthread_mutex_unlock(&gtlLock.lock);
    }

    Counter unlisted{SchedulePoint::tokenUnlisted};
};

// A close that has been answered, and is held with the token quiesced.
class QuiescedClose {
public:
    QuiescedClose(Close close, ScriptedConnection& connection)
        : quiesced(SchedulePoint::tokenQuiesced, connection.token),
          running(startClose(close, &connection.token))
    {
        connection.answerClose();
        quiesced.awaitArrival();
    }

    void release() { quiesced.release(); }
    bool hasEnded() const { return running.hasEnded(); }
    int get() { return running.get(); }

private:
    Hold quiesced;
    RunningCall<int> running;
};

// ---- Calls that come late ----

TEST_F(TokensEnd, WaitsForACallThatCameWhenNothingWasOutstanding)
{
    makeQuickCall();
    // Nothing is in progress as the token is marked; then the call comes.
    Hold marked(SchedulePoint::beforeCloseFlow);
    auto closing = startClose(Close::InOrder, &connection.token);
    marked.awaitArrival();
    EXPECT_EQ(1, token()->closedown.load());
    Hold inside(SchedulePoint::callRegistered);
    auto call = startQuickCall();
    inside.awaitArrival();

    marked.release();
    connection.answerClose();

    awaitWaitForTheCallInside();
    EXPECT_FALSE(closing.hasEnded());
    inside.release();
    EXPECT_RC(0, call.get());
    EXPECT_RC(0, closing.get());
    expectClosed();
}

TEST_F(TokensEnd, WaitsForACallThatCameBehindTheQuiesce)
{
    makeQuickCall();
    QuiescedClose closing(Close::InOrder, connection);
    Hold inside(SchedulePoint::callRegistered);
    auto call = startQuickCall();
    inside.awaitArrival();

    closing.release();

    awaitWaitForTheCallInside();
    EXPECT_FALSE(closing.hasEnded());
    inside.release();
    EXPECT_RC(0, call.get());
    EXPECT_RC(0, closing.get());
    expectClosed();
}

// The list is given up for the wait, and taken again.
TEST_F(TokensEnd, ComesWithTheListLockedBehindTheLastCall)
{
    TraceFile trace(4);
    _QPX_ConnToken_t* record = token();
    QuiescedClose closing(Close::InOrder, connection);
    Hold inside(SchedulePoint::callRegistered);
    auto call = startQuickCall();
    inside.awaitArrival();
    Hold freeing(SchedulePoint::lockReleased, &record->tableLock);
    closing.release();
    awaitWaitForTheCallInside();

    inside.release();

    EXPECT_RC(0, call.get());
    freeing.awaitArrival();
    EXPECT_FALSE(support::isFree(gtlLock.lock));
    freeing.release();
    EXPECT_RC(0, closing.get());
    EXPECT_TRUE(trace.wrote(2032, "clapi_gwytok.clapiDeleteGatewayToken() Freeing gateway token "
                                  "at gwTokPtr=" +
                                      support::shown(record)));
    expectClosed();
}

TEST_F(TokensEnd, LetsNobodyInWhileItWaitsForTheLastCalls)
{
    QuiescedClose closing(Close::InOrder, connection);
    Hold inside(SchedulePoint::callRegistered);
    auto first = startQuickCall();
    inside.awaitArrival();
    closing.release();
    unlisted.await(1);

    EXPECT_RC(QPX_ERR_BADGWTOK, startQuickCall().get());
    QPX_ConnToken_t same = token();
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, QPX_closeGatewayConnection(&same));
    EXPECT_RC(0, QPX_closeAllGatewayConnections());

    EXPECT_FALSE(closing.hasEnded());
    inside.release();
    EXPECT_RC(0, first.get());
    EXPECT_RC(0, closing.get());
    expectClosed();
}

TEST_F(TokensEnd, WaitsForEveryCallThatIsStillInside)
{
    QuiescedClose closing(Close::InOrder, connection);
    Hold firstInside(SchedulePoint::callRegistered);
    auto first = startQuickCall();
    firstInside.awaitArrival();
    Hold secondInside(SchedulePoint::callRegistered);
    auto second = startQuickCall();
    secondInside.awaitArrival();
    closing.release();
    unlisted.await(1);

    firstInside.release();
    EXPECT_RC(0, first.get());

    EXPECT_FALSE(closing.hasEnded());
    EXPECT_EQ(1, token()->requestCount.load());
    secondInside.release();
    EXPECT_RC(0, second.get());
    EXPECT_RC(0, closing.get());
    expectClosed();
}

// ---- The last touch of a call that leaves ----

TEST_F(TokensEnd, FindsNothingOfTheTokenTouchedByACallThatHasLeft)
{
    TraceFile events(2);
    Call work(Kind::Sync);
    Hold asleep(SchedulePoint::beforeReplyWait);
    auto call = start(work);
    connection.awaitRequest();
    asleep.awaitArrival();
    deliver(work.answer(1));
    Hold left(SchedulePoint::lockReleased, &gtlLock);
    asleep.release();
    left.awaitArrival();
    // What the line tells is read under the lock: behind it, the token may go.
    EXPECT_TRUE(events.wroteText(
        "clapi_gwytok.clapiUnregisterRequest() Outstanding API calls=0 on gwTokPtr=" +
        shown(token())));

    connection.closeInOrder();

    left.release();
    EXPECT_RC(0, call.get());
    work.expectAnswered();
    expectNoTokenLeft();
}

// ---- Given up replies ----

// The close waits for a reply that a close of all connections gives up meanwhile.
TEST_F(TokensEnd, IsNotMissedByACloseWhoseRepliesAnotherGivesUp)
{
    ASSERT_EQ(1, send());
    Hold beforeWait(SchedulePoint::beforeWorkWait);
    auto closing = startClose(Close::InOrder, &connection.token);
    beforeWait.awaitArrival();
    QuiescedClose closingAll(Close::All, connection);
    EXPECT_EQ(0, token()->asyncCount.load());

    beforeWait.release();

    EXPECT_RC(0, closing.get());
    closingAll.release();
    EXPECT_RC(0, closingAll.get());
    expectClosed();
}

TEST_F(TokensEnd, IsNotMissedByACloseThatSleepsWhenAnotherGivesItsRepliesUp)
{
    ASSERT_EQ(1, send());
    TraceFile events(4);
    auto closing = startClose(Close::InOrder, &connection.token);
    workAwaited.await(1);
    ASSERT_TRUE(events.awaitText("Waiting for 0 API calls and 1 async requests to complete"));

    auto closingAll = startClose(Close::All, &connection.token);
    connection.answerClose();

    EXPECT_RC(0, closing.get());
    EXPECT_RC(0, closingAll.get());
    expectClosed();
}

// A purge gives up the replies while the call that has asked for one is still inside.
TEST_F(TokensEnd, IsNotMissedByAPurgeWhileAnAsynchronousCallIsStillInside)
{
    Call work(Kind::Async);
    Hold written(SchedulePoint::requestWritten);
    auto call = start(work);
    connection.awaitRequest();
    written.awaitArrival();
    Hold last(SchedulePoint::receiverEnding);
    auto closing = startClose(Close::Purge, &connection.token);
    EXPECT_EQ(closeFlow(), connection.peer.read(33));
    connection.peer.send(closeFlow());
    awaitSweep();
    written.release();
    EXPECT_RC(0, call.get());
    EXPECT_EQ(1, token()->asyncCount.load());

    last.awaitArrival();
    last.release();

    EXPECT_RC(0, closing.get());
    expectClosed();
}

// ---- Two closes of one token ----

TEST_F(TokensEnd, ComesOnceWhenItsOwnCloseIsTheLastOfTwo)
{
    Counter released(SchedulePoint::tokenUnlisted);
    QuiescedClose closing(Close::InOrder, connection);

    EXPECT_RC(0, QPX_closeAllGatewayConnections());

    EXPECT_EQ(0, released.times()); // it is the other's to free
    EXPECT_EQ(1, token()->deleters);
    closing.release();
    EXPECT_RC(0, closing.get());
    EXPECT_EQ(1, released.times());
    expectClosed();
}

TEST_F(TokensEnd, ComesOnceWhenTheCloseOfAllIsTheLastOfTwo)
{
    QuiescedClose closingAll(Close::All, connection);
    Counter beforeWait(SchedulePoint::beforeReceiverWait);
    auto closingAllToo = startClose(Close::All, &connection.token);
    EXPECT_RC(0, closingAllToo.get());
    EXPECT_EQ(1, beforeWait.times());
    EXPECT_EQ(0, unlisted.times());

    closingAll.release();

    EXPECT_RC(0, closingAll.get());
    EXPECT_EQ(1, unlisted.times());
    expectClosed();
}

TEST_F(TokensEnd, ComesWithASecondCloseThatWaitsForACallInside)
{
    Counter connectionsEnded(SchedulePoint::connectionEnded);
    Hold inside(SchedulePoint::callRegistered);
    auto call = startQuickCall();
    inside.awaitArrival();
    auto closing = startClose(Close::InOrder, &connection.token);
    workAwaited.await(1);
    auto closingAll = startClose(Close::All, &connection.token);
    connection.answerClose();
    receiverAwaited.await(1);
    connectionsEnded.await(1); // so that the first close finds nothing to say goodbye to

    inside.release();

    EXPECT_RC(0, call.get());
    EXPECT_RC(0, closing.get());
    EXPECT_RC(0, closingAll.get());
    EXPECT_EQ(1, unlisted.times());
    expectClosed();
}

// ---- Closing all ----

class CloseOfAll : public TokensEnd {
protected:
    ScriptedConnection second;
};

TEST_F(CloseOfAll, LooksAtEachTokenUnderTheLockOfTheList)
{
    Hold firstMarked(SchedulePoint::tokenMarked, connection.token);
    Hold secondMarked(SchedulePoint::tokenMarked, second.token);
    auto closing = startClose(Close::All, &connection.token);
    firstMarked.awaitArrival();
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(&gtlLock.lock));
    firstMarked.release();
    connection.answerClose();

    secondMarked.awaitArrival();
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(&gtlLock.lock));

    secondMarked.release();
    second.answerClose();
    EXPECT_RC(0, closing.get());
    second.forget();
    expectClosed();
}

TEST_F(CloseOfAll, GivesUpTheLockOfTheListOnlyWhileItHoldsIt)
{
    Hold firstQuiesced(SchedulePoint::tokenQuiesced, connection.token);
    Hold secondQuiesced(SchedulePoint::tokenQuiesced, second.token);
    auto closing = startClose(Close::All, &connection.token);
    connection.answerClose();
    firstQuiesced.awaitArrival();
    expectListLockIntact();
    firstQuiesced.release();
    second.answerClose();
    secondQuiesced.awaitArrival();
    expectListLockIntact(); // taken and given up for the first token, and for the second

    secondQuiesced.release();

    EXPECT_RC(0, closing.get());
    second.forget();
    expectClosed();
}

TEST_F(CloseOfAll, DoesNotFollowASuccessorThatHasBeenFreedMeanwhile)
{
    ScriptedConnection third;
    TraceFile lines(3);
    QuiescedClose closing(Close::All, connection);
    second.closeInOrder(); // the successor

    closing.release();

    third.answerClose();
    EXPECT_RC(0, closing.get());
    EXPECT_TRUE(lines.wroteText("clapiDeleteGatewayTokens() Entries deleted=2, rc=0"));
    third.forget();
    expectClosed();
}

TEST_F(CloseOfAll, FindsTheSuccessorThatAnotherIsClosing)
{
    QuiescedClose closing(Close::All, connection);
    Hold secondQuiesced(SchedulePoint::tokenQuiesced, second.token);
    auto own = startClose(Close::InOrder, &second.token);
    second.answerClose();
    secondQuiesced.awaitArrival();

    closing.release();

    EXPECT_RC(0, closing.get());
    EXPECT_EQ(1, unlisted.times()); // the second token is the other close's to free
    secondQuiesced.release();
    EXPECT_RC(0, own.get());
    EXPECT_EQ(2, unlisted.times());
    second.forget();
    expectClosed();
}

TEST_F(CloseOfAll, WaitsForCallsThatAreInside)
{
    Hold inside(SchedulePoint::callRegistered);
    auto call = startQuickCall();
    inside.awaitArrival();
    Hold quiesced(SchedulePoint::tokenQuiesced, connection.token);
    TraceFile events(2);
    auto closing = startClose(Close::All, &connection.token);
    connection.answerClose();
    ASSERT_TRUE(events.awaitText("Waiting for 1 API calls to complete"));
    EXPECT_FALSE(quiesced.hasArrived());

    inside.release();

    EXPECT_RC(0, call.get());
    quiesced.awaitArrival();
    quiesced.release();
    second.answerClose();
    EXPECT_RC(0, closing.get());
    second.forget();
    expectClosed();
}

TEST_F(CloseOfAll, PassesOverAConnectionThatIsBeingOpened)
{
    ScriptedGateway gateway;
    QPX_ConnToken_t opened = nullptr;
    TraceFile events(2);
    auto opening = callInThread(
        [&] { return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &opened, 0); });
    Peer peer = gateway.accept();
    peer.read(handshakeSize);
    // The open gives the list up once more to tell of the token, and once at its end.
    Hold almostOpen(SchedulePoint::lockReleased, &gtlLock);
    peer.send(handshakeAnswer());
    almostOpen.awaitArrival();

    auto closing = startClose(Close::All, &connection.token);
    connection.answerClose();
    second.answerClose();
    EXPECT_RC(0, closing.get());

    EXPECT_TRUE(peer.isQuiet());
    almostOpen.release();
    EXPECT_RC(0, opening.get());
    EXPECT_EQ(0, opened->closedown.load());
    EXPECT_EQ(1, opened->connStatus.load());
    auto last = startClose(Close::InOrder, &opened);
    EXPECT_EQ(closeFlow(), peer.read(33));
    peer.send(closeFlow());
    EXPECT_RC(0, last.get());
    second.forget();
    expectClosed();
}

TEST_F(CloseOfAll, MayRunTwiceAtTheSameTime)
{
    QuiescedClose first(Close::All, connection);
    auto other = startClose(Close::All, &connection.token);
    second.answerClose();
    EXPECT_RC(0, other.get());
    EXPECT_EQ(1, unlisted.times());

    first.release();

    EXPECT_RC(0, first.get());
    EXPECT_EQ(2, unlisted.times());
    second.forget();
    expectClosed();
}

// ---- A limit that passes ----

// The only tests that time passes in: a purge's second.
TEST_F(TokensEnd, ComesBehindACallThatIsStillInsideWhenTheLimitOfAPurgePasses)
{
    Call work(Kind::Sync);
    Hold asleep(SchedulePoint::beforeReplyWait);
    auto call = start(work);
    connection.awaitRequest();
    asleep.awaitArrival();
    TraceFile events(2);
    auto purging = callInThread(
        [this] { return QPX_purgeGatewayConnection(&connection.token, 1); });
    connection.answerClose(); // it comes when the limit has passed
    ASSERT_TRUE(events.awaitText("Waiting for 1 API calls to complete"));
    EXPECT_FALSE(purging.hasEnded());

    asleep.release();

    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, call.get());
    EXPECT_RC(0, purging.get());
    expectClosed();
}

} // namespace
