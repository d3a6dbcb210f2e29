// Signals that arrive while the threads of a connection wait.
#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <atomic>

#include "unit/receiver_fixture.h"

using namespace fixture;
using namespace script;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::failCall;
using support::Fault;
using support::syncCall;
using support::Threads;

namespace {

void doNothing(int) {}

class ReceiverSignal : public ReceiverTest {
protected:
    ReceiverSignal()
    {
        struct sigaction action = {};
        action.sa_handler = doNothing; // and no restart of what it interrupts
        sigaction(SIGUSR1, &action, nullptr);
    }

    // The calling thread, a receiver, which takes signals from now on.
    static pthread_t interruptible()
    {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGUSR1);
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
        return pthread_self();
    }

    // Interrupts the thread until its call has been made again.
    static void interrupt(const std::atomic<pthread_t>& thread, const Fault& repeated, int before)
    {
        while (thread == pthread_t{}) sched_yield(); // a call counts before its hook has run
        while (repeated.hits() == before) {
            pthread_kill(thread, SIGUSR1);
            sched_yield();
        }
    }
};

TEST_F(ReceiverSignal, DoesNotEndTheWaitForAFlow)
{
    static std::atomic<pthread_t> receiver; // a hook may still run when the test has ended
    Fault waits = beforeCall(Call::Recv, 0, [&](const CallInfo&) { receiver = interruptible(); });
    asked = syncCall("PROG", text("question"));
    auto call = connection.start(asked);
    connection.awaitRequest();
    connection.peer.send(pingFlow());
    ASSERT_TRUE(waits.awaitHits(1));

    interrupt(receiver, waits, waits.hits());

    connection.peer.send(eciReply(1, text("answered")));
    EXPECT_RC(QPX_OK, call.get());
    EXPECT_EQ(text("answered"), asked.commarea());
}

TEST_F(ReceiverSignal, DoesNotEndTheReadingOfAFlow)
{
    static std::atomic<pthread_t> receiver; // a hook may still run when the test has ended
    Fault reads = beforeCall(Call::Recv, 0, [&](const CallInfo&) { receiver = interruptible(); });
    asked = syncCall("PROG", text("question"));
    auto call = connection.start(asked);
    connection.awaitRequest();
    Bytes answer = eciReply(1, text("answered"));
    connection.peer.send(support::slice(answer, 0, 20));
    ASSERT_TRUE(reads.awaitHits(1)); // the rest of the header is asked for

    interrupt(receiver, reads, 1);

    connection.peer.send(support::slice(answer, 20, answer.size() - 20));
    EXPECT_RC(QPX_OK, call.get());
    EXPECT_EQ(text("answered"), asked.commarea());
}

TEST_F(ReceiverSignal, DoesNotEndTheWaitOfACaller)
{
    std::atomic<pthread_t> caller{};
    Fault sleeps = beforeCall(
        Call::CondWait, 1, [](const CallInfo&) {}, Threads::Others);
    asked = syncCall("PROG", text("question"));
    auto call = callInThread([&] {
        caller = pthread_self();
        return QPX_ECI_Execute(connection.token, &asked.record);
    });
    connection.awaitRequest();
    ASSERT_TRUE(sleeps.awaitHits(1));

    for (int time = 0; time < 100; ++time) pthread_kill(caller, SIGUSR1);

    EXPECT_FALSE(call.hasEnded());
    connection.peer.send(eciReply(1, text("answered")));
    EXPECT_RC(QPX_OK, call.get());
}

TEST_F(ReceiverSignal, DoesNotEndTheWaitForTheHandshakeAnswer)
{
    static std::atomic<pthread_t> receiver; // a hook may still run when the test has ended
    Fault waits = beforeCall(
        Call::Select, 0, [&](const CallInfo&) { receiver = interruptible(); }, Threads::Others);
    ScriptedGateway gateway;
    QPX_ConnToken_t token = nullptr;
    auto opening = callInThread(
        [&] { return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 3600); });
    Peer peer = gateway.accept();
    peer.read(handshakeSize);
    ASSERT_TRUE(waits.awaitHits(1));

    interrupt(receiver, waits, waits.hits());

    EXPECT_FALSE(opening.hasEnded());
    peer.send(handshakeAnswer());
    EXPECT_RC(QPX_OK, opening.get());
    peer.close();
    QPX_closeGatewayConnection(&token);
}

TEST_F(ReceiverSignal, DoesNotEndAReadThatReportsIt)
{
    Fault read = failCall(Call::Recv, 1, EINTR, Threads::Others);
    Fault secondRead = failCall(Call::Recv, 2, EINTR, Threads::Others);

    expectIgnored(pingFlow());
    expectAlive();

    EXPECT_EQ(1, read.hits());
    EXPECT_EQ(1, secondRead.hits());
}

TEST_F(ReceiverSignal, DoesNotEndTheSendingOfARequest)
{
    Fault signal = failCall(Call::Send, 1, EINTR);

    expectAlive();

    EXPECT_EQ(1, signal.hits());
}

} // namespace
