// ECI calls that meet the receiver thread, a close or one another at the worst moment, each forced
// into that order.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "clapi_types.h"
#include "support/eci_script.h"
#include "support/faults.h"
#include "support/other_thread.h"

using namespace script;
using support::afterCall;
using support::asyncCall;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::EciParms;
using support::failCall;
using support::failCallOn;
using support::Fault;
using support::Gate;
using support::getReply;
using support::getReplyWait;
using support::getSpecificReplyWait;
using support::RunningCall;
using support::syncCall;
using support::Threads;
using support::TraceFile;

namespace {

class EciRace : public ::testing::Test {
protected:
    int execute(EciParms& parms) { return QPX_ECI_Execute(connection.token, &parms.record); }

    int send()
    {
        EciParms parms = asyncCall("LATER", filled(8, 'a'));
        EXPECT_RC(0, execute(parms));
        return connection.awaitRequest().messageId();
    }

    void answer(int qualifier, const std::string& contents)
    {
        connection.peer.send(ProgramReply().commarea(text(contents)).to(qualifier));
    }

    // Waits until the receiver has delivered everything sent so far.
    void awaitDelivery()
    {
        EciParms parms = syncCall("AFTER");
        auto call = connection.start(parms);
        connection.peer.send(ProgramReply().to(connection.awaitRequest().messageId()));
        EXPECT_RC(0, call.get());
    }

    // Ends the connection, and waits until every waiting slot has been told.
    void loseAndAwaitSweep()
    {
        connection.peer.close();
        awaitSweep();
    }
    void awaitSweep()
    {
        support::OtherThread acting;
        EXPECT_EQ(0, clapiWaitEvent(&connection.token->asyncReplyEvent));
        EXPECT_EQ(0, clapiRequestLock(&connection.token->tableLock));
        EXPECT_EQ(0, clapiReleaseLock(&connection.token->tableLock));
    }

    // Runs something on the calling thread, before it takes the table's lock for the nth time.
    Fault beforeTableLock(int nth, std::function<void()> work)
    {
        auto seen = std::make_shared<std::atomic<int>>(0);
        auto mutex = reinterpret_cast<std::uintptr_t>(&connection.token->tableLock.lock);
        return beforeCall(
            Call::MutexLock, 0,
            [seen, mutex, nth, work](const CallInfo& info) {
                if (info.first == mutex && ++*seen == nth) work();
            },
            Threads::Calling);
    }

    // The same after it has given the lock up for the nth time.
    Fault afterTableUnlock(int nth, std::function<void()> work)
    {
        auto seen = std::make_shared<std::atomic<int>>(0);
        auto mutex = reinterpret_cast<std::uintptr_t>(&connection.token->tableLock.lock);
        return afterCall(
            Call::MutexUnlock, 0,
            [seen, mutex, nth, work](const CallInfo& info) {
                if (info.first == mutex && ++*seen == nth) work();
            },
            Threads::Calling);
    }

    // A collecting call that stops at the gate between giving the table up and going to sleep.
    RunningCall<int> startStoppingBeforeSleep(EciParms& parms, Gate& gate)
    {
        return callInThread([this, &parms, &gate] {
            Fault stop = afterTableUnlock(1, [&gate] { gate.pass(); });
            return execute(parms);
        });
    }

    // A collecting call that sleeps by the time this returns.
    RunningCall<int> startSleeping(EciParms& parms)
    {
        int sleepers = support::callCount(Call::CondWait);
        auto call = connection.start(parms);
        EXPECT_TRUE(support::awaitCallCount(Call::CondWait, sleepers + 1));
        return call;
    }

    // The same; once woken it stops at the gate before it looks at the queue again.
    RunningCall<int> startSleepingThenStopping(EciParms& parms, Gate& gate)
    {
        int sleepers = support::callCount(Call::CondWait);
        auto call = callInThread([this, &parms, &gate] {
            Fault stop = beforeTableLock(2, [&gate] { gate.pass(); });
            return execute(parms);
        });
        EXPECT_TRUE(support::awaitCallCount(Call::CondWait, sleepers + 1));
        return call;
    }

    int slotState(int messageId) { return connection.token->table.slot[messageId - 1].state; }
    int outstanding() { return connection.token->asyncCount.load(); }

    void expectNoReply()
    {
        EciParms parms = getReply(8);
        EXPECT_RC(ECI_ERR_NO_REPLY, execute(parms));
    }

    ScriptedConnection connection;
};

} // namespace

// ---- The connection ends on the way to the send ----

TEST_F(EciRace, LossBeforeTheSendEndsASynchronousCall)
{
    EciParms parms = syncCall("PROG");
    Fault lost = beforeTableLock(2, [this] {
        connection.peer.close();
        support::OtherThread acting;
        EXPECT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
    });
    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
    EXPECT_EQ(0, slotState(1));
}

TEST_F(EciRace, LossBeforeTheSendEndsAnAsynchronousCall)
{
    EciParms parms = asyncCall("PROG");
    parms.record.eci_message_qualifier = 99;
    Fault lost = beforeTableLock(2, [this] {
        connection.peer.close();
        support::OtherThread acting;
        EXPECT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
    });
    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
    EXPECT_EQ(99, int(parms.record.eci_message_qualifier));
    EXPECT_EQ(0, slotState(1));
    EXPECT_EQ(0, outstanding());
    expectNoReply();
}

TEST_F(EciRace, GatewaysCloseBeforeTheSendEndsTheCall)
{
    EciParms parms = syncCall("PROG");
    Fault closed = beforeTableLock(2, [this] {
        connection.peer.send(closeFlow());
        support::OtherThread acting;
        EXPECT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
    });
    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, execute(parms));
    EXPECT_TRUE(connection.peer.awaitEof()); // and nothing was sent
}

TEST_F(EciRace, LossDuringTheSendEndsASynchronousCall)
{
    EciParms parms = syncCall("PROG");
    Fault lost = beforeCall(
        Call::Send, 1, [this](const CallInfo&) { loseAndAwaitSweep(); }, Threads::Calling);
    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
    EXPECT_EQ(0, slotState(1));
}

TEST_F(EciRace, GatewaysCloseDuringTheSendEndsASynchronousCall)
{
    EciParms parms = syncCall("PROG");
    Fault closed = beforeCall(
        Call::Send, 1,
        [this](const CallInfo&) {
            connection.peer.send(closeFlow());
            awaitSweep();
        },
        Threads::Calling);
    EXPECT_NE(0, execute(parms)); // by the failed send, or by the close, whichever is seen first
    EXPECT_EQ(0, slotState(1));
}

// ---- The reply comes at once ----

TEST_F(EciRace, ReplyBeforeTheCallerWaitsEndsTheCall)
{
    EciParms parms = syncCall("PROG", filled(4, 'x'));
    Fault early = afterCall(
        Call::Send, 1,
        [this](const CallInfo&) {
            answer(connection.awaitRequest().messageId(), "fast");
            support::OtherThread acting;
            EXPECT_EQ(0, clapiWaitEvent(&connection.token->table.slot[0].requestEvent));
        },
        Threads::Calling);
    EXPECT_RC(0, execute(parms));
    EXPECT_EQ(text("fast"), parms.commarea());
    EXPECT_EQ(0, slotState(1));
}

TEST_F(EciRace, AsyncReplyMayBeCollectedBeforeTheCallReturns)
{
    EciParms parms = asyncCall("PROG", filled(4, 'x'));
    EciParms collecting = getReplyWait(4);
    Fault early = afterCall(
        Call::Send, 1,
        [this, &collecting](const CallInfo&) {
            answer(connection.awaitRequest().messageId(), "fast");
            EXPECT_RC(0, connection.start(collecting).get());
        },
        Threads::Calling);
    EXPECT_RC(0, execute(parms));
    EXPECT_EQ(1, int(parms.record.eci_message_qualifier));
    EXPECT_EQ(1, int(collecting.record.eci_message_qualifier));
    EXPECT_EQ(text("fast"), collecting.commarea());
    EXPECT_EQ(0, slotState(1));
    EXPECT_EQ(0, outstanding());
    expectNoReply();
}

// ---- A send that fails when its outcome is known already ----

TEST_F(EciRace, SweptAsyncRequestIsTakenBackByItsFailedSend)
{
    EciParms parms = asyncCall("PROG");
    Fault lost = beforeCall(
        Call::Send, 1, [this](const CallInfo&) { loseAndAwaitSweep(); }, Threads::Calling);
    Fault failed = failCall(Call::Send, 1, EPIPE, Threads::Calling);
    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
    EXPECT_EQ(0, slotState(1));
    EXPECT_EQ(0, outstanding());
    EXPECT_TRUE(connection.token->firstReply == nullptr);
    EXPECT_TRUE(connection.token->lastReply == nullptr);
    expectNoReply();
}

TEST_F(EciRace, SweptAsyncRequestIsTakenBackFromBetweenTheOthers)
{
    int first = send();
    EciParms parms = asyncCall("PROG");
    Fault lost = beforeCall(
        Call::Send, 1, [this](const CallInfo&) { loseAndAwaitSweep(); }, Threads::Calling);
    Fault failed = failCall(Call::Send, 1, EPIPE, Threads::Calling);
    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
    EXPECT_EQ(1, outstanding());
    EciParms collecting = getReply(8);
    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(collecting));
    EXPECT_EQ(first, int(collecting.record.eci_message_qualifier));
    expectNoReply();
}

TEST_F(EciRace, CollectedAsyncRequestCountsAsSent)
{
    EciParms parms = asyncCall("PROG");
    EciParms collecting = getReply(8);
    Fault lost = beforeCall(
        Call::Send, 1,
        [this, &collecting](const CallInfo&) {
            loseAndAwaitSweep();
            EXPECT_RC(QPX_ERR_LOSTGWCON, connection.start(collecting).get());
        },
        Threads::Calling);
    Fault failed = failCall(Call::Send, 1, EPIPE, Threads::Calling);
    EXPECT_RC(0, execute(parms));
    EXPECT_EQ(1, int(parms.record.eci_message_qualifier));
    EXPECT_EQ(1, int(collecting.record.eci_message_qualifier));
    EXPECT_EQ(0, slotState(1));
    EXPECT_EQ(0, outstanding());
}

TEST_F(EciRace, FailedSendOnAClosingConnectionReleasesTheWaiters)
{
    TraceFile trace(2);
    EciParms waiting = getReplyWait(8);
    auto waits = startSleeping(waiting);
    EciParms parms = asyncCall("PROG");
    std::unique_ptr<RunningCall<int>> closing;
    Fault closed = beforeCall(
        Call::Send, 1,
        [this, &closing, &trace](const CallInfo&) {
            closing = std::make_unique<RunningCall<int>>(connection.startClose());
            EXPECT_TRUE(
                trace.awaitText("Waiting for 2 API calls and 1 async requests to complete\n"));
        },
        Threads::Calling);
    Fault failed = failCall(Call::Send, 1, EPIPE, Threads::Calling);
    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, waits.get());
    failed.end();
    connection.answerClose();
    EXPECT_RC(QPX_OK, closing->get());
    connection.forget();
}

// ---- A write that fails with nothing sent, on a connection that stands ----

namespace {

struct Refusal {
    const char* name;
    Call call;
    int error;
    int rc;
};

const Refusal refusals[] = {
    {"WithoutRoomInTheSystem", Call::Send, ENOBUFS, QPX_ERR_LOSTGWCON},
    {"ByAFilter", Call::Send, EPERM, QPX_ERR_LOSTGWCON},
    {"WithoutMemory", Call::Malloc, ENOMEM, QPX_ERR_MALLOCFAIL},
    {"WithoutTheSendLock", Call::MutexLock, EINVAL, ECI_ERR_SYSTEM_ERROR},
};

class EciWriteRefused : public EciRace, public ::testing::WithParamInterface<Refusal> {
protected:
    // What the write needs: the lock, the buffer of a request with a COMMAREA of 100 bytes, or any
    // socket.
    Fault refuse()
    {
        const Refusal& refusal = GetParam();
        if (refusal.call == Call::Send)
            return failCall(Call::Send, 1, refusal.error, Threads::Calling);
        const void* subject = &connection.token->sendLock.lock;
        if (refusal.call == Call::Malloc)
            subject = reinterpret_cast<const void*>(32 + 15 + 68 + 100);
        return failCallOn(refusal.call, subject, 1, refusal.error, Threads::Calling);
    }
};

} // namespace

TEST_P(EciWriteRefused, WakesTheCollectorOfItsReply)
{
    EciParms waiting = getSpecificReplyWait(1, 8);
    std::unique_ptr<RunningCall<int>> waits;
    // Behind the hold of the table in which the request has begun to wait.
    Fault guessed = afterTableUnlock(2, [this, &waiting, &waits] {
        waits = std::make_unique<RunningCall<int>>(startSleeping(waiting));
    });
    EciParms parms = asyncCall("PROG", filled(100, 'a'));
    {
        Fault refused = refuse();
        EXPECT_RC(GetParam().rc, execute(parms));
        EXPECT_EQ(1, refused.hits());
    }
    ASSERT_TRUE(waits != nullptr);

    EXPECT_RC(ECI_ERR_INVALID_MSG_QUAL, waits->get());

    EXPECT_EQ(0, outstanding());
    expectStillServing(connection);
}

INSTANTIATE_TEST_SUITE_P(, EciWriteRefused, ::testing::ValuesIn(refusals),
                         [](const auto& tested) { return std::string(tested.param.name); });

// ---- Waiters ----

TEST_F(EciRace, ReplyIsNotMissedBetweenUnlockingAndSleeping)
{
    int qualifier = send();
    EciParms parms = getReplyWait(8);
    Gate gate;
    auto waiting = startStoppingBeforeSleep(parms, gate);
    ASSERT_TRUE(gate.awaitArrival());
    answer(qualifier, "answered");
    awaitDelivery();
    gate.open();
    EXPECT_RC(0, waiting.get());
    EXPECT_EQ(text("answered"), parms.commarea());
}

TEST_F(EciRace, ReplyIsNotMissedWhenAnotherWaiterArmsTheEventAgain)
{
    int first = send();
    int second = send();
    EciParms firstParms = getSpecificReplyWait(first, 8);
    Gate gate;
    auto firstWaits = startStoppingBeforeSleep(firstParms, gate);
    ASSERT_TRUE(gate.awaitArrival());
    answer(first, "reply 1.");
    awaitDelivery();
    EciParms secondParms = getSpecificReplyWait(second, 8);
    auto secondWaits = startSleeping(secondParms); // has closed the gate that the reply opened
    gate.open();
    EXPECT_RC(0, firstWaits.get());
    EXPECT_EQ(text("reply 1."), firstParms.commarea());
    answer(second, "reply 2.");
    EXPECT_RC(0, secondWaits.get());
    EXPECT_EQ(text("reply 2."), secondParms.commarea());
}

TEST_F(EciRace, AnyReplyIsNotMissedWhenASpecificWaiterArmsTheEventAgain)
{
    int first = send();
    int second = send();
    EciParms any = getReplyWait(8);
    Gate gate;
    auto anyWaits = startStoppingBeforeSleep(any, gate);
    ASSERT_TRUE(gate.awaitArrival());
    answer(first, "reply 1.");
    awaitDelivery();
    EciParms specific = getSpecificReplyWait(second, 8);
    auto specificWaits = startSleeping(specific);
    gate.open();
    EXPECT_RC(0, anyWaits.get());
    EXPECT_EQ(text("reply 1."), any.commarea());
    answer(second, "reply 2.");
    EXPECT_RC(0, specificWaits.get());
}

TEST_F(EciRace, LossIsNotMissedBetweenUnlockingAndSleeping)
{
    EciParms parms = getReplyWait(8);
    Gate gate;
    auto waiting = startStoppingBeforeSleep(parms, gate);
    ASSERT_TRUE(gate.awaitArrival());
    connection.peer.close();
    EXPECT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
    gate.open();
    EXPECT_RC(QPX_ERR_LOSTGWCON, waiting.get());
}

TEST_F(EciRace, CloseIsNotMissedBetweenUnlockingAndSleeping)
{
    TraceFile trace(2);
    EciParms parms = getReplyWait(8);
    Gate gate;
    auto waiting = startStoppingBeforeSleep(parms, gate);
    ASSERT_TRUE(gate.awaitArrival());
    auto closing = connection.startClose();
    ASSERT_TRUE(trace.awaitText("Waiting for 1 API calls and 0 async requests to complete\n"));
    gate.open();
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, waiting.get());
    connection.answerClose();
    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
}

TEST_F(EciRace, SpecificWaiterLearnsThatAnotherTookItsReply)
{
    int qualifier = send();
    EciParms parms = getSpecificReplyWait(qualifier, 8);
    Gate gate;
    auto waiting = startSleepingThenStopping(parms, gate);
    answer(qualifier, "answered");
    ASSERT_TRUE(gate.awaitArrival());
    EciParms thief = getReply(8);
    EXPECT_RC(0, execute(thief));
    EXPECT_EQ(text("answered"), thief.commarea());
    gate.open();
    EXPECT_RC(ECI_ERR_INVALID_MSG_QUAL, waiting.get());
}

TEST_F(EciRace, WaiterGoesOnWaitingWhenAnotherTookTheReply)
{
    int first = send();
    int second = send();
    EciParms parms = getReplyWait(8);
    Gate gate;
    auto waiting = startSleepingThenStopping(parms, gate);
    answer(first, "reply 1.");
    ASSERT_TRUE(gate.awaitArrival());
    EciParms thief = getReply(8);
    EXPECT_RC(0, execute(thief));
    int sleepers = support::callCount(Call::CondWait);
    gate.open();
    EXPECT_TRUE(support::awaitCallCount(Call::CondWait, sleepers + 1)); // asleep again
    answer(second, "reply 2.");
    EXPECT_RC(0, waiting.get());
    EXPECT_EQ(text("reply 2."), parms.commarea());
}

TEST_F(EciRace, SpecificWaiterOnALostConnectionIsToldOfTheLoss)
{
    int qualifier = send();
    EciParms parms = getSpecificReplyWait(qualifier, 8);
    Gate gate;
    auto waiting = startSleepingThenStopping(parms, gate);
    connection.peer.close();
    ASSERT_TRUE(gate.awaitArrival());
    EXPECT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
    EciParms thief = getReply(8);
    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(thief));
    gate.open();
    EXPECT_RC(QPX_ERR_LOSTGWCON, waiting.get());
}
