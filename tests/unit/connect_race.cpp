// Connecting while the receiver thread is late, or has ended already; descriptors with high
// numbers.
#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include "support/descriptors.h"
#include "unit/connect_fixture.h"

using namespace fixture;
using namespace script;
using support::afterCall;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::failCall;
using support::Fault;
using support::Gate;
using support::Threads;
using support::TraceFile;

namespace {

class ConnectRace : public ::testing::Test {
protected:
    int open(int connTimeout = 0)
    {
        return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, connTimeout);
    }

    ScriptedGateway gateway;
    QPX_ConnToken_t token = nullptr;
};

// The receiver thread is stopped at its very first step until the open, whose handshake could not
// be sent, waits for it.
TEST_F(ConnectRace, WaitsForAReceiverThatHasNotStartedYetWhenTheHandshakeFails)
{
    ASSERT_RC(QPX_OK, clapiInit());
    Gate late;
    std::vector<Fault> firstSteps;
    for (Call call : {Call::MutexLock, Call::Malloc, Call::ThreadDetach, Call::Recv})
        firstSteps.push_back(beforeCall(
            call, 1, [late](const CallInfo&) mutable { late.pass(); }, Threads::Others));
    Fault noHandshake = failCall(Call::Send, 1, ECONNRESET, Threads::Calling);
    bool receiverIsWaitedFor = false;
    Fault waiting = beforeCall(
        Call::CondWait, 1,
        [&](const CallInfo&) {
            receiverIsWaitedFor = true;
            EXPECT_TRUE(late.awaitArrival());
            late.open();
        },
        Threads::Calling);

    EXPECT_RC(QPX_ERR_CONNECTFAILED, open());

    EXPECT_TRUE(receiverIsWaitedFor);
    late.open();
    firstSteps.clear();
    EXPECT_EQ(emptyList(), dumpedTokens());
}

TEST_F(ConnectRace, ReturnsWithoutATimeOutWhenTheHandshakeCannotBeSent)
{
    auto opening = callInThread([this] {
        Fault noHandshake = failCall(Call::Send, 1, ECONNRESET, Threads::Calling);
        return open(0);
    });
    Peer peer = gateway.accept();

    EXPECT_RC(QPX_ERR_CONNECTFAILED, opening.get());

    EXPECT_TRUE(peer.awaitEof());
}

TEST_F(ConnectRace, EndsTheReceiverThatIsReadingWhenTheHandshakeCannotBeSent)
{
    Fault receiverReads = support::beforeCall(
        Call::Select, 0, [](const CallInfo&) {}, Threads::Any);
    auto opening = callInThread([&] {
        Fault stop = beforeCall(
            Call::Send, 1, [&](const CallInfo&) { EXPECT_TRUE(receiverReads.awaitHits(1)); },
            Threads::Calling);
        Fault noHandshake = failCall(Call::Send, 1, ECONNRESET, Threads::Calling);
        return open(3600);
    });
    Peer peer = gateway.accept();

    EXPECT_RC(QPX_ERR_CONNECTFAILED, opening.get());

    EXPECT_TRUE(peer.awaitEof());
}

// The first descriptor that is opened after the close takes the number of the socket.
TEST_F(ConnectRace, ClosesTheSocketOnceWhenTheHandshakeCannotBeSent)
{
    std::atomic<int> reused{-1};
    std::vector<std::uintptr_t> closed;
    Fault afterClose = afterCall(Call::Close, 0, [&](const CallInfo& info) {
        closed.push_back(info.first);
        if (reused < 0) reused = ::open("/dev/null", O_RDONLY);
    });
    Fault noHandshake = failCall(Call::Send, 1, ECONNRESET, Threads::Calling);

    EXPECT_RC(QPX_ERR_CONNECTFAILED, open());

    ASSERT_EQ(1U, closed.size());
    EXPECT_EQ(closed[0], static_cast<std::uintptr_t>(reused.load()));
    EXPECT_TRUE(support::descriptorIsOpen(reused));
    ::close(reused);
}

// The connecting thread is about to write the handshake when the Gateway's garbage ends the
// receiver.
TEST_F(ConnectRace, KeepsTheSocketOpenWhileTheHandshakeIsBeingSent)
{
    TraceFile trace(3);
    Gate sending;
    Gate ending;
    ending.open();
    std::atomic<int> descriptor{-1};
    Fault stop = beforeCall(Call::Send, 1, [&](const CallInfo& info) {
        descriptor = static_cast<int>(info.first);
        sending.pass();
    });
    auto opening = callInThread([this] { return open(); });
    ASSERT_TRUE(sending.awaitArrival());
    _QPX_ConnToken_t* record = tokenInTrace(trace);
    Fault closing = beforeCall(Call::Close, 0,
                               [ending](const CallInfo&) mutable { ending.pass(); });
    Fault sleeping = beforeCall(Call::CondWait, 0, [=](const CallInfo& info) mutable {
        if (info.second == asNumber(&record->tableLock.lock)) ending.pass();
    });
    Peer peer = gateway.accept();

    peer.send(filled(64));

    ASSERT_TRUE(ending.awaitArrival());
    EXPECT_EQ(0, closing.hits());
    EXPECT_TRUE(support::descriptorIsOpen(descriptor));
    sending.open();
    EXPECT_NE(QPX_OK, opening.get());
    EXPECT_EQ(1, closing.hits());
    EXPECT_EQ(nullptr, token);
}

TEST_F(ConnectRace, WorksWithADescriptorBeyondAThousand)
{
    support::DescriptorsFrom high(1100);
    ScriptedConnection connection(30);
    EXPECT_LE(1100, connection.token->socketDescriptor);
    support::EciParms parms = support::syncCall("PROG", text("question"));
    auto call = connection.start(parms);
    connection.awaitRequest();

    connection.peer.send(eciReply(1, text("answered")));

    EXPECT_RC(QPX_OK, call.get());
    EXPECT_EQ(text("answered"), parms.commarea());
    connection.closeInOrder();
}

TEST_F(ConnectRace, WaitsForAConnectWithADescriptorBeyondAThousand)
{
    support::DescriptorsFrom high(1100);
    Fault real = beforeCall(Call::Connect, 1, connectForReal);
    Fault said = failCall(Call::Connect, 1, EINPROGRESS);
    TraceFile trace(4);

    ScriptedConnection connection(30);

    std::string descriptor = std::to_string(connection.token->socketDescriptor);
    EXPECT_LE(1100, connection.token->socketDescriptor);
    EXPECT_TRUE(trace.wroteText("clapi_gwycon.waitForConnection() Calling select() on "
                                "socketdescriptor " +
                                descriptor + "\n"));
    connection.closeInOrder();
}

TEST_F(ConnectRace, TimesOutAConnectWithADescriptorBeyondAThousand)
{
    support::DescriptorsFrom high(1100);
    ScriptedGateway deaf(ScriptedGateway::Backlog::Full);

    EXPECT_RC(QPX_ERR_CONNECTTIMEOUT,
              QPX_openRemoteGatewayConnection(localHost(), deaf.port(), &token, 1));
}

TEST_F(ConnectRace, TimesOutAHandshakeWithADescriptorBeyondAThousand)
{
    support::DescriptorsFrom high(1100);

    EXPECT_RC(QPX_ERR_CONNECTTIMEOUT, open(1));
}

} // namespace
