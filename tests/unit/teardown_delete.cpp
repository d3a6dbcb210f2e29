// Deleting a token: quiescing the connection, waiting for what is in progress, freeing.
#include <functional>
#include <memory>
#include <vector>

#include "support/descriptors.h"
#include "unit/receiver_fixture.h"

using namespace fixture;
using namespace script;
using support::asyncCall;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::EciParms;
using support::failCall;
using support::failCallOn;
using support::failCallWith;
using support::Fault;
using support::Gate;
using support::getReply;
using support::getReplyWait;
using support::syncCall;
using support::Threads;
using support::TraceFile;

namespace {

// Marks the thread that a fault is for.
thread_local bool marked = false;

bool isMarked()
{
    return marked;
}

class TeardownDelete : public ReceiverTest {
protected:
    // The receiver has ended, and the peer with it.
    void loseConnection()
    {
        connection.peer.close();
        ASSERT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
    }

    // A delete that failed leaves the token listed and closing; this one frees it.
    void expectListedAndClosing()
    {
        EXPECT_EQ(1, connection.token->closedown.load());
        EXPECT_NE(std::string::npos,
                  dumpedTokens().find("GatwayToken(" + shown(connection.token) + ")"));
    }

    void freeByClosingAll()
    {
        EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());
        connection.forget();
        EXPECT_EQ(emptyList(), dumpedTokens());
    }

    int closeNow() { return QPX_closeGatewayConnection(&connection.token); }
    int purgeNow(int closeTimeout)
    {
        return QPX_purgeGatewayConnection(&connection.token, closeTimeout);
    }

    // A synchronous call of a marked thread.
    support::RunningCall<int> startMarked(EciParms& parms)
    {
        return callInThread([this, &parms] {
            marked = true;
            return QPX_ECI_Execute(connection.token, &parms.record);
        });
    }

    // Before this thread takes the list for the nth time from now.
    static Fault beforeListLock(int nth, const std::function<void()>& function)
    {
        return beforeCall(
            Call::MutexLock, 0,
            [locks = 0, nth, function](const CallInfo& info) mutable {
                if (info.first != asNumber(&gtlLock.lock)) return;
                locks += 1;
                if (locks == nth) function();
            },
            Threads::Calling);
    }

    // A call that asks nothing of the connection, and stops before it leaves the token.
    support::RunningCall<int> startInside(Gate gate)
    {
        return callInThread([gwTok = connection.token, gate]() mutable {
            Fault stop = beforeListLock(2, [&] { gate.pass(); });
            char* applid = nullptr;
            return QPX_getApplid(gwTok, &applid);
        });
    }
};

// ---- Arguments

TEST_F(TeardownDelete, RefusesANullPointer)
{
    EXPECT_RC(QPX_ERR_NULLGWTOKPTR, clapiDeleteGatewayToken(nullptr, 0, 1));
}

TEST_F(TeardownDelete, RefusesANullToken)
{
    QPX_ConnToken_t none = nullptr;

    EXPECT_RC(QPX_ERR_NULLGWTOK, clapiDeleteGatewayToken(&none, 0, 1));
}

TEST_F(TeardownDelete, RefusesATokenThatIsNotListed)
{
    std::unique_ptr<char[]> zeros(new char[sizeof(_QPX_ConnToken_t)]());
    auto foreign = reinterpret_cast<QPX_ConnToken_t>(zeros.get());

    EXPECT_RC(QPX_ERR_BADGWTOK, clapiDeleteGatewayToken(&foreign, 0, 1));
}

TEST_F(TeardownDelete, FailsWhenTheListCannotBeLocked)
{
    TraceFile trace(1);
    {
        BrokenLock noList(gtlLock);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, clapiDeleteGatewayToken(&connection.token, 0, 1));
    }

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.clapiDeleteGatewayToken() Failed to lock "
                                "Gateway token list\n"));
    expectAlive();
}

TEST_F(TeardownDelete, TracesItsArguments)
{
    TraceFile trace(3);
    QPX_ConnToken_t none = nullptr;

    clapiDeleteGatewayToken(&none, -1, 1);
    EXPECT_TRUE(trace.wrote(2029, "ENTRY",
                            "clapi_gwytok.clapiDeleteGatewayToken(gwTokPtr=" + shown(&none) +
                                ", closeTimeout=-1, lockRequired=TRUE)"));
    EXPECT_EQ(1, trace.timesWrote(2033));
    trace.forget();
    clapiDeleteGatewayToken(nullptr, 3600, 1);
    EXPECT_TRUE(trace.wrote(2029, "ENTRY",
                            "clapi_gwytok.clapiDeleteGatewayToken(gwTokPtr=(nil), "
                            "closeTimeout=3600, lockRequired=TRUE)"));
}

// ---- A connection without work

TEST_F(TeardownDelete, SendsTheCloseFlowAtOnceWithoutWorkInProgress)
{
    TraceFile trace(2);

    connection.closeInOrder();

    EXPECT_FALSE(trace.wroteText("clapi_gwytok.quiesceConnection() Waiting"));
}

TEST_F(TeardownDelete, LeavesTheCallersVariableAsItWas)
{
    QPX_ConnToken_t before = connection.token;
    auto closing = connection.startClose();
    connection.answerClose();

    EXPECT_RC(QPX_OK, closing.get());

    EXPECT_EQ(before, connection.token);
    connection.forget();
}

TEST_F(TeardownDelete, WaitsForTheGatewaysAnswer)
{
    auto closing = connection.startClose();
    EXPECT_EQ(closeFlow(), connection.peer.read(33));
    _QPX_ConnToken_t* record = connection.token;
    EXPECT_EQ(0, record->recvThreadEndedEvent.eflag);
    EXPECT_FALSE(closing.hasEnded());

    connection.peer.send(closeFlow());

    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
    EXPECT_TRUE(connection.peer.awaitEof());
}

TEST_F(TeardownDelete, TakesTheEndOfTheConnectionForTheGatewaysAnswer)
{
    auto closing = connection.startClose();
    EXPECT_EQ(closeFlow(), connection.peer.read(33));

    connection.peer.close();

    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
    EXPECT_EQ(emptyList(), dumpedTokens());
}

TEST_F(TeardownDelete, PassesOverOtherFlowsBeforeTheGatewaysAnswer)
{
    auto closing = connection.startClose();
    EXPECT_EQ(closeFlow(), connection.peer.read(33));

    connection.peer.send(pingFlow() + errorFlow(5, 61445) + closeFlow());

    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
}

TEST_F(TeardownDelete, DeletesTheEventsButThatOfTheReceiver)
{
    std::string asyncReply = shown(&connection.token->asyncReplyEvent);
    std::string requestsEnded = shown(&connection.token->requestsEnded);
    std::string connEvent = shown(&connection.token->connEvent);
    TraceFile trace(4);

    connection.closeInOrder();

    std::vector<std::string> expected{
        "clapi_lock.clapiDeleteEvent() Deleting event, eventPtr=" + asyncReply,
        "clapi_lock.clapiDeleteEvent() Deleting event, eventPtr=" + requestsEnded,
        "clapi_lock.clapiDeleteEvent() Deleting event, eventPtr=" + connEvent,
    };
    EXPECT_EQ(expected, trace.messages(3118));
}

TEST_F(TeardownDelete, DestroysTheSendLockAndThenTheTableLock)
{
    std::vector<std::uintptr_t> destroyed;
    std::uintptr_t sendLock = asNumber(&connection.token->sendLock.lock);
    std::uintptr_t tableLock = asNumber(&connection.token->tableLock.lock);
    Fault hook = beforeCall(Call::MutexDestroy, 0, [&](const CallInfo& info) {
        if (info.first == sendLock || info.first == tableLock) destroyed.push_back(info.first);
    });

    connection.closeInOrder();

    EXPECT_EQ((std::vector<std::uintptr_t>{sendLock, tableLock}), destroyed);
}

TEST_F(TeardownDelete, ClosesALostConnectionWithoutACloseFlow)
{
    loseConnection();
    Fault sends = watch(Call::Send);

    EXPECT_RC(QPX_OK, closeNow());

    connection.forget();
    EXPECT_EQ(0, sends.hits());
    EXPECT_EQ(emptyList(), dumpedTokens());
}

TEST_F(TeardownDelete, ClosesAConnectionThatTheGatewayClosedWithoutACloseFlow)
{
    connection.peer.send(closeFlow());
    expectEnded(4);
    Fault sends = watch(Call::Send);

    EXPECT_RC(QPX_OK, closeNow());

    connection.forget();
    EXPECT_EQ(0, sends.hits());
}

// ---- Slots that are in use

TEST_F(TeardownDelete, FreesEverySlotInUse)
{
    for (int at = 0; at < 18; ++at) startAsync();
    loseConnection();
    RequestSlot* added = connection.token->table.slot[15].nextSlot;
    std::string event17 = shown(&added[0].requestEvent);
    std::string event1 = shown(&connection.token->table.slot[0].requestEvent);
    TraceFile trace(4);

    EXPECT_RC(QPX_OK, purgeNow(0));

    connection.forget();
    EXPECT_EQ(18 + 3, trace.timesWrote(3118));
    EXPECT_TRUE(trace.wroteText("Deleting event, eventPtr=" + event1 + "\n"));
    EXPECT_TRUE(trace.wroteText("Deleting event, eventPtr=" + event17 + "\n"));
    EXPECT_TRUE(trace.wroteText("clapi_gwytok.slotFree() Freeing slot table at slotP=" +
                                shown(added) + ", first=17, last=32\n"));
}

TEST_F(TeardownDelete, FreesTheSlotOfAnIdleUnitOfWork)
{
    ReplyBody body;
    body.luwToken = 12;
    body.commarea = text("answered");
    asked = syncCall("PROG", text("question"));
    asked.withExtendMode(ECI_EXTENDED);
    auto call = connection.start(asked);
    connection.awaitRequest();
    connection.peer.send(eciReply(1, body));
    ASSERT_RC(QPX_OK, call.get());
    TraceFile trace(4);

    connection.closeInOrder();

    EXPECT_EQ(1 + 3, trace.timesWrote(3118));
}

// ---- Waiting for work in progress

TEST_F(TeardownDelete, WaitsForACallInProgress)
{
    TraceFile trace(2);
    asked = syncCall("PROG", text("question"));
    auto call = connection.start(asked);
    connection.awaitRequest();
    auto closing = connection.startClose();

    ASSERT_TRUE(trace.awaitText("EVENT  clapi_gwytok.quiesceConnection() Waiting for 1 API calls "
                                "and 0 async requests to complete\n"));
    EXPECT_TRUE(connection.peer.isQuiet());
    EXPECT_FALSE(closing.hasEnded());

    connection.peer.send(eciReply(1, text("answered")));
    EXPECT_RC(QPX_OK, call.get());
    connection.answerClose();
    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
}

TEST_F(TeardownDelete, WaitsForAnAsynchronousRequestToBeCollected)
{
    int messageId = startAsync();
    TraceFile trace(2);
    auto closing = connection.startClose();
    ASSERT_TRUE(trace.awaitText("clapi_gwytok.quiesceConnection() Waiting for 0 API calls and 1 "
                                "async requests to complete\n"));

    connection.peer.send(eciReply(messageId, text("answered")));
    ASSERT_EQ(0, clapiWaitEvent(&connection.token->table.slot[0].requestEvent));
    EXPECT_TRUE(connection.peer.isQuiet());
    EXPECT_FALSE(closing.hasEnded());
    EciParms collected = getReply(8);
    EXPECT_RC(QPX_OK, collect(collected));

    connection.answerClose();
    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
}

TEST_F(TeardownDelete, ReleasesACallThatWaitsForAReplyThatCannotCome)
{
    EciParms parms = getReplyWait(8);
    Fault sleeps = beforeCall(
        Call::CondWait, 0, [](const CallInfo&) {}, Threads::Others);
    auto waiting = connection.start(parms);
    ASSERT_TRUE(sleeps.awaitHits(1));

    auto closing = connection.startClose();

    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, waiting.get());
    connection.answerClose();
    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
}

TEST_F(TeardownDelete, WaitsNoLongerThanTheWorkInProgressTakes)
{
    TraceFile trace(2);
    asked = syncCall("PROG", text("question"));
    auto call = connection.start(asked);
    connection.awaitRequest();
    auto purging = connection.startPurge(3600);
    ASSERT_TRUE(trace.awaitText("EVENT  clapi_gwytok.quiesceConnection() Waiting 3600 seconds for "
                                "1 API calls and 0 async requests to complete\n"));

    connection.peer.send(eciReply(1, text("answered")));

    EXPECT_RC(QPX_OK, call.get());
    connection.answerClose();
    EXPECT_RC(QPX_OK, purging.get());
    connection.forget();
}

TEST_F(TeardownDelete, GivesWorkUpWhenItsTimeIsOver)
{
    TraceFile trace(2);
    asked = syncCall("PROG", text("question"));
    auto call = connection.start(asked);
    connection.awaitRequest();
    startAsync();
    auto purging = connection.startPurge(1);
    ASSERT_TRUE(trace.awaitText("EVENT  clapi_gwytok.quiesceConnection() Waiting 1 seconds for 1 "
                                "API calls and 1 async requests to complete\n"));

    connection.answerClose();

    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, call.get());
    EXPECT_RC(QPX_OK, purging.get());
    connection.forget();
    EXPECT_EQ(emptyList(), dumpedTokens());
}

TEST_F(TeardownDelete, SendsTheCloseFlowAtOnceWithATimeOutOfZero)
{
    TraceFile trace(2);
    asked = syncCall("PROG", text("question"));
    auto call = connection.start(asked);
    connection.awaitRequest();

    auto purging = connection.startPurge(0);
    connection.answerClose();

    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, call.get());
    EXPECT_RC(QPX_OK, purging.get());
    connection.forget();
    EXPECT_FALSE(trace.wroteText("quiesceConnection() Waiting for 1 API calls and"));
}

TEST_F(TeardownDelete, DoesNotWaitWithATimeOutBelowMinusOne)
{
    startAsync();
    ASSERT_RC(QPX_OK, clapiCloseGatewayToken(connection.token, 1));
    TraceFile trace(2);
    auto deleting = callInThread(
        [this] { return clapiDeleteClosingToken(&connection.token, connection.token, -2); });

    connection.answerClose();

    EXPECT_RC(QPX_OK, deleting.get());
    connection.forget();
    EXPECT_EQ(emptyList(), dumpedTokens());
    EXPECT_FALSE(trace.wroteText("quiesceConnection() Waiting"));
}

TEST_F(TeardownDelete, WaitsForACallThatIsStillInsideBeforeItFrees)
{
    Gate inside;
    TraceFile trace(2);
    asked = syncCall("PROG", text("question"));
    auto call = startMarked(asked);
    connection.awaitRequest();
    Fault stop = stopAtLock(Call::MutexLock, gtlLock.lock, inside, isMarked);
    auto purging = connection.startPurge(0);
    connection.answerClose();
    ASSERT_TRUE(inside.awaitArrival());

    ASSERT_TRUE(trace.awaitText("EVENT  clapi_gwytok.quiesceConnection() Waiting for 1 API calls "
                                "to complete\n"));
    EXPECT_FALSE(purging.hasEnded());
    EXPECT_EQ(1, connection.token->requestCount.load());
    EXPECT_EQ(0, connection.token->asyncCount.load());

    inside.open();
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, call.get());
    EXPECT_RC(QPX_OK, purging.get());
    connection.forget();
}

TEST_F(TeardownDelete, GivesUncollectedRepliesUp)
{
    int messageId = startAsync();
    connection.peer.send(eciReply(messageId, text("answered")));
    ASSERT_EQ(0, clapiWaitEvent(&connection.token->table.slot[0].requestEvent));

    auto purging = connection.startPurge(0);
    connection.answerClose();

    EXPECT_RC(QPX_OK, purging.get());
    connection.forget();
}

// ---- Failures

TEST_F(TeardownDelete, FailsWhenTheSlotTableCannotBeLocked)
{
    loseConnection();
    {
        BrokenLock noTable(connection.token->tableLock);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, closeNow());
    }

    expectListedAndClosing();
    freeByClosingAll();
}

TEST_F(TeardownDelete, WaitsForTheReceiverAfterAFailureToo)
{
    BrokenLock noTable(connection.token->tableLock);
    Fault sleeps = beforeCall(
        Call::CondWait, 1, [](const CallInfo&) {}, Threads::Others);
    auto closing = connection.startClose();
    ASSERT_TRUE(sleeps.awaitHits(1));
    EXPECT_FALSE(closing.hasEnded());
    noTable.mend();

    connection.peer.close();

    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, closing.get());
    expectListedAndClosing();
    freeByClosingAll();
}

TEST_F(TeardownDelete, TracesAFailedWaitForTheReceiverAndKeepsTheEarlierFailure)
{
    loseConnection();
    ASSERT_EQ(0, clapiSetEvent(&connection.token->recvThreadEndedEvent));
    TraceFile trace(1);
    {
        BrokenLock noTable(connection.token->tableLock);
        Fault fault = failCall(Call::CondWait, 1, EINVAL, Threads::Calling);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, closeNow());
    }

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.quiesceConnection() Failed to wait on "
                                "recvThreadEndedEvent\n"));
    clapiClearEvent(&connection.token->recvThreadEndedEvent);
    freeByClosingAll();
}

TEST_F(TeardownDelete, TakesAFailedWaitForTheReceiverForNoFailureOfItsOwn)
{
    loseConnection();
    ASSERT_EQ(0, clapiSetEvent(&connection.token->recvThreadEndedEvent));
    Fault fault = failCall(Call::CondWait, 1, EINVAL, Threads::Calling);

    EXPECT_RC(QPX_OK, closeNow());

    EXPECT_EQ(1, fault.hits());
    connection.forget();
    EXPECT_EQ(emptyList(), dumpedTokens());
}

TEST_F(TeardownDelete, FailsWhenWaitingCallsCannotBeReleased)
{
    loseConnection();
    TraceFile trace(1);
    {
        Fault fault = failCallWith(Call::CondBroadcast, 1, EINVAL, -1, Threads::Calling);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, closeNow());
        EXPECT_EQ(1, fault.hits());
    }

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.quiesceConnection() Failed to clear event to "
                                "release waiting get reply calls\n"));
    trace.forget();
    expectListedAndClosing();
    freeByClosingAll();
}

TEST_F(TeardownDelete, FailsWhenTheWaitWithoutLimitFails)
{
    startAsync();
    loseConnection();
    TraceFile trace(1);
    {
        Fault fault = failCall(Call::CondWait, 1, EINVAL, Threads::Calling);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, closeNow());
        EXPECT_EQ(1, fault.hits());
    }

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.quiesceConnection() Failed to wait "
                                "(indefinitely) for work to complete\n"));
    trace.forget();
    expectListedAndClosing();
    freeByClosingAll();
}

TEST_F(TeardownDelete, FailsWhenTheWaitWithALimitFails)
{
    startAsync();
    loseConnection();
    TraceFile trace(1);
    {
        Fault fault = failCall(Call::Clock, 1, EFAULT, Threads::Calling);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, purgeNow(7));
        EXPECT_EQ(1, fault.hits());
    }

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.quiesceConnection() Failed to wait (for 7 "
                                "seconds) for work to complete\n"));
    trace.forget();
    expectListedAndClosing();
    freeByClosingAll();
}

TEST_F(TeardownDelete, FailsWhenTheCloseFlowCannotBeSent)
{
    Fault fault = failCall(Call::Send, 1, EPIPE);
    auto closing = connection.startClose();

    EXPECT_RC(QPX_ERR_LOSTGWCON, closing.get());

    EXPECT_EQ(1, fault.hits());
    EXPECT_TRUE(connection.peer.awaitEof());
    expectListedAndClosing();
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, closeNow());
    freeByClosingAll();
}

TEST_F(TeardownDelete, GivesAChannelBackThoughTheCloseFlowCannotBeSent)
{
    ECI_ChannelToken_t channel = nullptr;
    ASSERT_RC(0, ECI_createChannel("CHANNEL", &channel));
    EciParms request = asyncCall("PROG");
    request.record.channel = channel;
    ASSERT_RC(0, QPX_ECI_Execute_Channel(connection.token, &request.record));
    Fault fault = failCall(Call::Send, 1, EPIPE);
    auto purging = connection.startPurge(0);
    ASSERT_TRUE(fault.awaitHits());
    connection.peer.close();
    EXPECT_RC(QPX_ERR_LOSTGWCON, purging.get());

    EXPECT_RC(0, ECI_deleteChannel(&channel));

    freeByClosingAll();
}

TEST_F(TeardownDelete, FailsWhenTheSlotTableCannotBeLockedAfterTheClose)
{
    loseConnection();
    TraceFile trace(1);
    int before = connection.token->tableLock.initialized;
    {
        Fault firstRelease = beforeCall(
            Call::MutexUnlock, 0,
            [this](const CallInfo& info) {
                if (info.first == asNumber(&connection.token->tableLock.lock))
                    connection.token->tableLock.initialized = 0;
            },
            Threads::Calling);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, closeNow());
    }
    connection.token->tableLock.initialized = before;

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.quiesceConnection() Failed to lock slot "
                                "table after close\n"));
    trace.forget();
    expectListedAndClosing();
    freeByClosingAll();
}

TEST_F(TeardownDelete, FailsWhenTheSlotTableCannotBeLockedAfterTheLastCall)
{
    Gate inside;
    TraceFile trace(2);
    asked = syncCall("PROG", text("question"));
    auto call = startMarked(asked);
    connection.awaitRequest();
    Fault stop = stopAtLock(Call::MutexLock, gtlLock.lock, inside, isMarked);
    auto purging = connection.startPurge(0);
    connection.answerClose();
    ASSERT_TRUE(inside.awaitArrival());
    ASSERT_TRUE(trace.awaitText("quiesceConnection() Waiting for 1 API calls to complete\n"));
    BrokenLock noTable(connection.token->tableLock);
    inside.open();

    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, call.get());
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, purging.get());

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.quiesceConnection() Failed to lock slot "
                                "table after waiting\n"));
    noTable.mend();
    freeByClosingAll();
}

TEST_F(TeardownDelete, FailsWhenTheWaitForTheLastCallFails)
{
    Gate inside;
    Gate waiting;
    TraceFile trace(2);
    asked = syncCall("PROG", text("question"));
    auto call = startMarked(asked);
    connection.awaitRequest();
    Fault stop = stopAtLock(Call::MutexLock, gtlLock.lock, inside, isMarked);
    auto purging = connection.startPurge(0);
    EXPECT_EQ(closeFlow(), connection.peer.read(33));
    Fault stopPurge = stopAtLock(Call::MutexLock, connection.token->requestsEnded.mutex, waiting,
                                 [] { return !marked; });
    connection.peer.send(closeFlow());
    ASSERT_TRUE(inside.awaitArrival());
    ASSERT_TRUE(waiting.awaitArrival());
    Fault fault = failCall(Call::CondWait, 1, EINVAL);
    waiting.open();

    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, purging.get());

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.quiesceConnection() Failed to wait for API "
                                "calls to complete\n"));
    inside.open();
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, call.get());
    freeByClosingAll();
}

TEST_F(TeardownDelete, FailsWhenTheListCannotBeLockedAfterTheQuiesce)
{
    TraceFile trace(1);
    auto closing = connection.startClose();
    EXPECT_EQ(closeFlow(), connection.peer.read(33));
    {
        BrokenLock noList(gtlLock);
        connection.peer.send(closeFlow());
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, closing.get());
    }

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.clapiDeleteGatewayToken() Failed to lock "
                                "Gateway token list after quiesce\n"));
    trace.forget();
    expectListedAndClosing();
}

// The record then stays for good: without the lock nobody can tell whether the call is through.
TEST_F(TeardownDelete, LeavesTheRecordToACallInsideIfTheListCannotBeLockedBehindTheWait)
{
    loseConnection();
    ASSERT_RC(QPX_OK, clapiCloseGatewayToken(connection.token, 1));
    _QPX_ConnToken_t* record = connection.token;
    Gate inside;
    std::unique_ptr<support::RunningCall<int>> call;
    // The delete takes the list at its begin, behind the quiesce, and behind the wait for the call,
    // which comes when the quiesce has ended.
    Fault coming = beforeListLock(2, [&] {
        call = std::make_unique<support::RunningCall<int>>(startInside(inside));
        EXPECT_TRUE(inside.awaitArrival());
    });
    Fault leaving = beforeCall(
        Call::CondWait, 0,
        [&](const CallInfo& info) {
            if (info.first == asNumber(&record->requestsEnded.cond)) inside.open();
        },
        Threads::Calling);
    Fault noList = failCallOn(Call::MutexLock, &gtlLock.lock, 3, EINVAL, Threads::Calling);

    EXPECT_RC(QPX_OK, clapiDeleteClosingToken(&connection.token, record, 0));

    EXPECT_EQ(1, noList.hits());
    ASSERT_TRUE(call != nullptr);
    EXPECT_RC(QPX_OK, call->get());
    EXPECT_EQ(1, record->quiesced); // nothing of it has been overwritten
    EXPECT_TRUE(support::isFree(gtlLock.lock));
    connection.forget();
    EXPECT_EQ(emptyList(), dumpedTokens());
}

TEST_F(TeardownDelete, TellsThatTheListCannotBeReleasedBeforeTheQuiesce)
{
    loseConnection();
    ASSERT_RC(QPX_OK, clapiCloseGatewayToken(connection.token, 1));
    TraceFile trace(1);
    {
        Fault fault = failCall(Call::MutexUnlock, 1, EPERM, Threads::Calling);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR,
                  clapiDeleteClosingToken(&connection.token, connection.token, 0));
    }

    EXPECT_TRUE(trace.wrote(2050, "*EXC*",
                            "clapi_gwytok.clapiDeleteGatewayToken() Failed to unlock Gateway "
                            "token list"));
    freeByClosingAll();
}

TEST_F(TeardownDelete, FailsWhenTheListCannotBeReleasedBeforeTheQuiesce)
{
    loseConnection();
    ASSERT_RC(QPX_OK, clapiCloseGatewayToken(connection.token, 1));
    {
        Fault fault = failCall(Call::MutexUnlock, 1, EPERM, Threads::Calling);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR,
                  clapiDeleteClosingToken(&connection.token, connection.token, 0));
        EXPECT_EQ(1, fault.hits());
    }

    EXPECT_TRUE(support::isFree(gtlLock.lock)); // given up at the end, then
    expectListedAndClosing();
    freeByClosingAll();
}

} // namespace
