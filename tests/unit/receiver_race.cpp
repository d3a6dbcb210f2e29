// Requests and the receiver thread getting into each other's way: replies before the request's
// thread goes on, connections that end between two steps of a request, descriptors used again.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <type_traits>
#include <vector>

#include "support/descriptors.h"
#include "unit/receiver_fixture.h"

using namespace fixture;
using namespace script;
using support::afterCall;
using support::asyncCall;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::EciParms;
using support::failCall;
using support::Fault;
using support::Gate;
using support::getReply;
using support::getReplyWait;
using support::syncCall;
using support::Threads;
using support::TraceFile;

namespace {

class ReceiverRace : public ReceiverTest {
protected:
    RequestSlot& firstSlot() { return connection.token->table.slot[0]; }

    // Tells when the event of the first slot is posted.
    Fault watchPost(Gate posted)
    {
        posted.open();
        return beforeCall(
            Call::CondBroadcast, 0,
            [=, wanted = asNumber(&firstSlot().requestEvent.cond)](const CallInfo& info) mutable {
                if (info.first == wanted) posted.pass();
            });
    }

    // Tells when the receiver is about to close the socket, or waits until it may.
    struct Ending {
        explicit Ending(_QPX_ConnToken_t* token)
        {
            gate.open();
            closing = beforeCall(Call::Close, 0,
                                 [gate = gate](const CallInfo&) mutable { gate.pass(); });
            waiting = beforeCall(Call::CondWait, 0,
                                 [gate = gate, wanted = asNumber(&token->tableLock.lock)](
                                     const CallInfo& info) mutable {
                                     if (info.second == wanted) gate.pass();
                                 });
        }

        Gate gate;
        Fault closing = watch(Call::Close);
        Fault waiting = watch(Call::CondWait);
    };

    // Stops the request of the calling thread before it can know that it is the last moment: it
    // has a slot, and has not yet said that it sends.
    template <typename End>
    int callWhileTheConnectionEnds(EciParms& parms, End end)
    {
        TraceFile trace(3);
        EXPECT_EQ(0, pthread_mutex_lock(&correlatorLock.lock));
        auto call = connection.start(parms);
        EXPECT_TRUE(trace.awaitText("clapi_impl.getNextCorrelator()"));
        end();
        EXPECT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
        EXPECT_EQ(1, firstSlot().state);
        occupySocketNumber();
        EXPECT_EQ(0, pthread_mutex_unlock(&correlatorLock.lock));
        return call.get();
    }

    // The number of the closed socket now belongs to another stream.
    void occupySocketNumber()
    {
        int number = connection.token->socketDescriptor;
        ASSERT_FALSE(support::descriptorIsOpen(number));
        ASSERT_EQ(number, dup2(STDERR_FILENO, number)); // lest one of the next two has it
        auto ends = support::socketPair();
        ASSERT_EQ(number, dup2(ends.first.fd(), number));
        foreign = Peer(number);
        otherEnd = std::move(ends.second);
    }

    Peer foreign;
    Peer otherEnd;
};

// ---- The connection ends while a request is being built

TEST_F(ReceiverRace, FailsACallThatIsBeingBuiltWhileTheConnectionIsLost)
{
    asked = syncCall("PROG", text("question"));

    EXPECT_RC(QPX_ERR_LOSTGWCON,
              callWhileTheConnectionEnds(asked, [this] { connection.peer.close(); }));

    EXPECT_TRUE(otherEnd.isQuiet());
    EXPECT_EQ(0, firstSlot().state);
    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&connection.token));
    connection.forget();
}

TEST_F(ReceiverRace, FailsACallThatIsBeingBuiltWhileTheGatewayCloses)
{
    asked = syncCall("PROG", text("question"));

    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED,
              callWhileTheConnectionEnds(asked, [this] { connection.peer.send(closeFlow()); }));

    EXPECT_TRUE(otherEnd.isQuiet());
    EXPECT_EQ(0, firstSlot().state);
}

TEST_F(ReceiverRace, FailsAnAsynchronousCallThatIsBeingBuiltWhileTheConnectionIsLost)
{
    asked = asyncCall("PROG", text("question"));

    EXPECT_RC(QPX_ERR_LOSTGWCON,
              callWhileTheConnectionEnds(asked, [this] { connection.peer.close(); }));

    EXPECT_TRUE(otherEnd.isQuiet());
    EXPECT_EQ(0, connection.token->asyncCount.load());
    EXPECT_EQ(nullptr, connection.token->firstReply);
    EXPECT_EQ(0, firstSlot().state);
    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&connection.token));
    connection.forget();
}

// ---- The reply is there before the request's thread goes on

TEST_F(ReceiverRace, TakesAReplyThatComesBeforeTheSendReturns)
{
    Gate sent;
    Gate posted;
    Fault stop = afterCall(Call::Send, 1, [sent](const CallInfo&) mutable { sent.pass(); });
    Fault post = watchPost(posted);
    asked = syncCall("PROG", text("question"));
    auto call = connection.start(asked);
    ASSERT_TRUE(sent.awaitArrival());
    connection.awaitRequest();

    connection.peer.send(eciReply(1, text("answered")));

    ASSERT_TRUE(posted.awaitArrival());
    sent.open();
    EXPECT_RC(QPX_OK, call.get());
    EXPECT_EQ(text("answered"), asked.commarea());
}

TEST_F(ReceiverRace, QueuesAReplyOnceThatComesBeforeTheSendReturns)
{
    Gate sent;
    Gate posted;
    Fault stop = afterCall(Call::Send, 1, [sent](const CallInfo&) mutable { sent.pass(); });
    Fault post = watchPost(posted);
    asked = asyncCall("PROG", text("question"));
    auto call = connection.start(asked);
    ASSERT_TRUE(sent.awaitArrival());
    connection.awaitRequest();
    connection.peer.send(eciReply(1, text("answered")));
    ASSERT_TRUE(posted.awaitArrival());
    sent.open();
    ASSERT_RC(QPX_OK, call.get());

    connection.peer.close();
    ASSERT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));

    EXPECT_EQ(3, firstSlot().state);
    EXPECT_EQ(&firstSlot(), connection.token->firstReply);
    EXPECT_EQ(nullptr, firstSlot().nextReply);
    EciParms collected = getReply(8);
    EXPECT_RC(QPX_OK, collect(collected));
    EXPECT_EQ(text("answered"), collected.commarea());
    EXPECT_EQ(1, int(collected.record.eci_message_qualifier));
    collected = getReply(8);
    EXPECT_RC(ECI_ERR_NO_REPLY, collect(collected));
}

TEST_F(ReceiverRace, GivesTheQualifierOfARequestWhoseReplyIsCollectedBeforeTheSendReturns)
{
    Gate sent;
    Fault stop = afterCall(Call::Send, 1, [sent](const CallInfo&) mutable { sent.pass(); });
    asked = asyncCall("PROG", text("question"));
    auto call = connection.start(asked);
    ASSERT_TRUE(sent.awaitArrival());
    connection.awaitRequest();
    connection.peer.send(eciReply(1, text("answered")));

    EciParms collected = getReplyWait(8);
    EXPECT_RC(QPX_OK, collect(collected));
    EXPECT_EQ(1, int(collected.record.eci_message_qualifier));
    EXPECT_EQ(0, firstSlot().state);

    sent.open();
    EXPECT_RC(QPX_OK, call.get());
    EXPECT_EQ(1, int(asked.record.eci_message_qualifier));
    EXPECT_EQ(0, firstSlot().state);
}

// ---- The connection ends between the last look at it and the send

TEST_F(ReceiverRace, WakesACallWhoseConnectionEndsJustBeforeItSends)
{
    Gate sending;
    Gate posted;
    Fault stop = beforeCall(Call::Send, 1, [sending](const CallInfo&) mutable { sending.pass(); });
    Fault post = watchPost(posted);
    asked = syncCall("PROG", text("question"));
    auto call = connection.start(asked);
    ASSERT_TRUE(sending.awaitArrival());
    EXPECT_EQ(2, firstSlot().state);

    connection.peer.send(filled(64));

    ASSERT_TRUE(posted.awaitArrival());
    sending.open();
    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    // Whether the request still went out depends on who was faster.
    EXPECT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
    EXPECT_EQ(3, connection.token->connStatus);
}

TEST_F(ReceiverRace, WakesACallWhoseGatewayClosesJustBeforeItSends)
{
    Gate sending;
    Gate posted;
    Fault stop = beforeCall(Call::Send, 1, [sending](const CallInfo&) mutable { sending.pass(); });
    Fault post = watchPost(posted);
    asked = syncCall("PROG", text("question"));
    auto call = connection.start(asked);
    ASSERT_TRUE(sending.awaitArrival());

    connection.peer.send(closeFlow());

    ASSERT_TRUE(posted.awaitArrival());
    sending.open();
    int rc = call.get();
    EXPECT_TRUE(rc == QPX_ERR_LOSTGWCON || rc == QPX_ERR_GATEWAY_CLOSED) << support::rcName(rc);
    EXPECT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
}

TEST_F(ReceiverRace, KeepsTheSocketOpenForARequestThatIsBeingSent)
{
    Gate sending;
    int descriptor = connection.token->socketDescriptor;
    Fault stop = beforeCall(Call::Send, 1, [sending](const CallInfo&) mutable { sending.pass(); });
    Ending ending(connection.token);
    asked = syncCall("PROG", text("question"));
    auto call = connection.start(asked);
    ASSERT_TRUE(sending.awaitArrival());

    connection.peer.send(filled(64));

    ASSERT_TRUE(ending.gate.awaitArrival());
    EXPECT_EQ(0, ending.closing.hits());
    EXPECT_TRUE(support::descriptorIsOpen(descriptor));
    sending.open();
    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    expectEnded(3);
    EXPECT_EQ(1, ending.closing.hits());
    EXPECT_FALSE(support::descriptorIsOpen(descriptor));
}

// The second request has passed its last look at the connection and waits for the send lock.
TEST_F(ReceiverRace, KeepsTheSocketOpenForARequestThatWaitsForAnother)
{
    Gate sending;
    Gate sendingNext;
    int descriptor = connection.token->socketDescriptor;
    Fault stop = beforeCall(Call::Send, 1, [sending](const CallInfo&) mutable { sending.pass(); });
    Fault stopNext = beforeCall(Call::Send, 2,
                                [sendingNext](const CallInfo&) mutable { sendingNext.pass(); });
    Ending ending(connection.token);
    EciParms one = syncCall("ONE", text("question"));
    EciParms two = syncCall("TWO", text("question"));
    auto first = connection.start(one);
    ASSERT_TRUE(sending.awaitArrival());
    Gate wantsToSend;
    wantsToSend.open();
    Fault wanting = beforeCall(
        Call::MutexLock, 0,
        [=, wanted = asNumber(&connection.token->sendLock.lock)](const CallInfo& info) mutable {
            if (info.first == wanted) wantsToSend.pass();
        });
    auto second = connection.start(two);
    ASSERT_TRUE(wantsToSend.awaitArrival());

    connection.peer.send(filled(64));

    ASSERT_TRUE(ending.gate.awaitArrival());
    sending.open();
    EXPECT_RC(QPX_ERR_LOSTGWCON, first.get());
    ASSERT_TRUE(sendingNext.awaitArrival());
    EXPECT_EQ(0, ending.closing.hits());
    EXPECT_TRUE(support::descriptorIsOpen(descriptor));
    sendingNext.open();
    EXPECT_RC(QPX_ERR_LOSTGWCON, second.get());
    expectEnded(3);
    EXPECT_EQ(1, ending.closing.hits());
}

TEST_F(ReceiverRace, KeepsTheSocketOpenForACloseFlowThatIsBeingSent)
{
    Gate sending;
    int descriptor = connection.token->socketDescriptor;
    Fault stop = beforeCall(Call::Send, 1, [sending](const CallInfo&) mutable { sending.pass(); });
    Ending ending(connection.token);
    auto closing = connection.startClose();
    ASSERT_TRUE(sending.awaitArrival());

    connection.peer.send(filled(64));

    ASSERT_TRUE(ending.gate.awaitArrival());
    EXPECT_EQ(0, ending.closing.hits());
    EXPECT_TRUE(support::descriptorIsOpen(descriptor));
    sending.open();
    EXPECT_RC(QPX_ERR_LOSTGWCON, closing.get());
    expectEnded(3);
    EXPECT_EQ(1, ending.closing.hits());
    QPX_closeAllGatewayConnections();
    connection.forget();
    EXPECT_EQ(emptyList(), dumpedTokens());
}

// A sender whose peer does not read is stuck in the system until the receiver ends.
TEST_F(ReceiverRace, ReleasesASenderThatIsStuckWhenTheConnectionEnds)
{
    int descriptor = connection.token->socketDescriptor;
    int small = 4096;
    setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    const Bytes block(16384, 0);
    while (send(descriptor, block.data(), block.size(), MSG_DONTWAIT) > 0) {}
    Fault sends = watch(Call::Send, Threads::Others);
    asked = syncCall("PROG", filled(32767, 'q'));
    auto call = connection.start(asked);
    ASSERT_TRUE(sends.awaitHits(1));

    connection.peer.send(filled(64));

    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    EXPECT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
    EXPECT_EQ(3, connection.token->connStatus.load());
}

// ---- Calls on a connection that has ended

TEST_F(ReceiverRace, SendsNothingToTheNumberOfALostSocket)
{
    connection.peer.close();
    expectEnded(3);
    occupySocketNumber();
    EciParms parms = syncCall("PROG", text("question"));

    EXPECT_RC(QPX_ERR_LOSTGWCON, QPX_ECI_Execute(connection.token, &parms.record));
    parms = asyncCall("PROG", text("question"));
    EXPECT_RC(QPX_ERR_LOSTGWCON, QPX_ECI_Execute(connection.token, &parms.record));

    EXPECT_TRUE(otherEnd.isQuiet());
}

TEST_F(ReceiverRace, SendsNothingToTheNumberOfASocketThatTheGatewayClosed)
{
    connection.peer.send(closeFlow());
    expectEnded(4);
    occupySocketNumber();
    EciParms parms = syncCall("PROG", text("question"));

    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, QPX_ECI_Execute(connection.token, &parms.record));
    parms = asyncCall("PROG", text("question"));
    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, QPX_ECI_Execute(connection.token, &parms.record));

    EXPECT_TRUE(otherEnd.isQuiet());
}

TEST_F(ReceiverRace, SendsNoCloseFlowToTheNumberOfALostSocket)
{
    connection.peer.close();
    expectEnded(3);
    occupySocketNumber();

    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&connection.token));
    connection.forget();

    EXPECT_TRUE(otherEnd.isQuiet());
    EXPECT_TRUE(support::descriptorIsOpen(foreign.fd()));
}

// ---- Locks that the receiver does not take

TEST_F(ReceiverRace, LooksUpTheSlotOfAnErrorWithoutTheTableLock)
{
    TraceFile trace(1);
    ASSERT_EQ(0, pthread_mutex_lock(&connection.token->tableLock.lock));

    connection.peer.send(errorFlow(17, 61445) + exceptionFlow(17, "nobody's"));

    EXPECT_TRUE(trace.awaitText("Gateway returned a flow type of FLOW_ERROR, rc=61445"));
    EXPECT_TRUE(trace.awaitText("Exception message: nobody's\n"));
    EXPECT_EQ(0, pthread_mutex_unlock(&connection.token->tableLock.lock));
    expectAlive();
}

TEST_F(ReceiverRace, DeliversAReplyWhileOthersHoldTheListAndTheSendLock)
{
    int messageId = startAsync();
    ASSERT_EQ(0, pthread_mutex_lock(&gtlLock.lock));
    ASSERT_EQ(0, pthread_mutex_lock(&connection.token->sendLock.lock));

    connection.peer.send(eciReply(messageId, text("answered")));

    EXPECT_EQ(0, clapiWaitEvent(&firstSlot().requestEvent));
    EXPECT_EQ(3, firstSlot().state);
    pthread_mutex_unlock(&connection.token->sendLock.lock);
    pthread_mutex_unlock(&gtlLock.lock);
    EciParms collected = getReply(8);
    EXPECT_RC(QPX_OK, collect(collected));
}

TEST_F(ReceiverRace, EndsWhileOthersHoldTheListAndTheSendLock)
{
    ASSERT_EQ(0, pthread_mutex_lock(&gtlLock.lock));
    ASSERT_EQ(0, pthread_mutex_lock(&connection.token->sendLock.lock));

    connection.peer.close();

    expectEnded(3);
    pthread_mutex_unlock(&connection.token->sendLock.lock);
    pthread_mutex_unlock(&gtlLock.lock);
}

// ---- What is read without a lock

TEST_F(ReceiverRace, ReadsStateAndMarksWithoutALockAsAtomics)
{
    using Token = _QPX_ConnToken_t;
    EXPECT_TRUE((std::is_same<decltype(Token::connStatus), std::atomic<int32_t>>::value));
    EXPECT_TRUE((std::is_same<decltype(Token::closedown), std::atomic<int32_t>>::value));
    EXPECT_TRUE((std::is_same<decltype(Token::asyncCount), std::atomic<int32_t>>::value));
    EXPECT_TRUE((std::is_same<decltype(Token::requestCount), std::atomic<int32_t>>::value));
    EXPECT_TRUE((std::is_same<decltype(clientAPITrace), std::atomic<int>>::value));
    EXPECT_TRUE(connection.token->connStatus.is_lock_free());
}

// Threads call, look at the connection and change the trace level while it closes.
TEST_F(ReceiverRace, LetsManyThreadsUseAConnectionWhileItCloses)
{
    constexpr int threads = 4;
    std::atomic<int> started{0};
    auto use = [this, &started] {
        started += 1;
        for (;;) {
            EciParms parms = syncCall("PROG", text("question"));
            int rc = QPX_ECI_Execute(connection.token, &parms.record);
            QPX_setAPITraceLevel(0);
            if (rc != QPX_OK) return rc;
        }
    };
    std::vector<support::RunningCall<int>> users;
    for (int at = 0; at < threads; ++at) users.push_back(callInThread(use));
    for (int answered = 0; answered < 50; ++answered) {
        int messageId = connection.awaitRequest().messageId();
        connection.peer.send(eciReply(messageId, text("answered")));
    }

    connection.peer.send(closeFlow());

    for (auto& user : users) {
        int rc = user.get();
        EXPECT_TRUE(rc == QPX_ERR_GATEWAY_CLOSED || rc == QPX_ERR_LOSTGWCON) << support::rcName(rc);
    }
    EXPECT_EQ(threads, started.load());
}

} // namespace
