// Sending the close flow, and closing the socket.
#include "support/descriptors.h"
#include "unit/connect_fixture.h"

using namespace fixture;
using namespace script;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::failCall;
using support::Fault;
using support::Threads;
using support::TraceFile;

namespace {

class ConnectCloseFlow : public ::testing::Test {
protected:
    // Which of the calling thread's releases during a close flow is that of the send lock.
    int numberOfTheSendLocksRelease()
    {
        int number = 0;
        Fault hook = beforeCall(
            Call::MutexUnlock, 0,
            [&](const CallInfo& info) {
                if (info.first == asNumber(&connection.token->sendLock.lock)) number = info.number;
            },
            Threads::Calling);
        EXPECT_RC(QPX_OK, clapiCloseConnection(connection.token));
        EXPECT_EQ(closeFlow(), connection.peer.read(33));
        return number;
    }

    void expectSendLockIsFree() { EXPECT_TRUE(support::isFree(connection.token->sendLock.lock)); }

    ScriptedConnection connection;
};

TEST_F(ConnectCloseFlow, IsThirtyThreeBytes)
{
    EXPECT_RC(QPX_OK, clapiCloseConnection(connection.token));

    EXPECT_EQ(hex("47617465 10A01000 0000000A FFFFFFFF 00000000 00000004 42415345 00 00000000"),
              connection.peer.read(33));
    EXPECT_TRUE(connection.peer.isQuiet());
}

TEST_F(ConnectCloseFlow, LeavesTheSocketOpen)
{
    EXPECT_RC(QPX_OK, clapiCloseConnection(connection.token));

    EXPECT_TRUE(support::descriptorIsOpen(connection.token->socketDescriptor));
    EXPECT_EQ(1, connection.token->connStatus.load());
}

TEST_F(ConnectCloseFlow, IsWrittenUnderTheSendLock)
{
    bool held = false;
    Fault hook = beforeCall(Call::Send, 1, [&](const CallInfo&) {
        held = !support::isFree(connection.token->sendLock.lock);
    });

    EXPECT_RC(QPX_OK, clapiCloseConnection(connection.token));

    EXPECT_TRUE(held);
}

TEST_F(ConnectCloseFlow, FailsWithoutTheSendLock)
{
    TraceFile trace(1);
    BrokenLock noSendLock(connection.token->sendLock);

    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, clapiCloseConnection(connection.token));

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.clapiCloseConnection() Failed to acquire "
                                "send lock\n"));
    EXPECT_TRUE(connection.peer.awaitEof());
}

TEST_F(ConnectCloseFlow, FailsWhenTheSendLockCannotBeReleased)
{
    int number = numberOfTheSendLocksRelease();
    TraceFile trace(1);
    Fault fault = failCall(Call::MutexUnlock, number, EPERM, Threads::Calling);

    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, clapiCloseConnection(connection.token));

    EXPECT_EQ(1, fault.hits());
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.clapiCloseConnection() Failed to release "
                                "send lock\n"));
    EXPECT_EQ(closeFlow(), connection.peer.read(33));
    expectSendLockIsFree();
}

TEST_F(ConnectCloseFlow, FailsWhenItCannotBeSent)
{
    Fault fault = failCall(Call::Send, 1, EPIPE);

    EXPECT_RC(QPX_ERR_LOSTGWCON, clapiCloseConnection(connection.token));

    expectSendLockIsFree();
}

TEST_F(ConnectCloseFlow, FailsWithTheCodeOfTheFlowWhenTheReleaseFailsToo)
{
    int number = numberOfTheSendLocksRelease();
    Fault fault = failCall(Call::MutexUnlock, number, EPERM, Threads::Calling);
    Fault noSend = failCall(Call::Send, 1, EPIPE);

    EXPECT_RC(QPX_ERR_LOSTGWCON, clapiCloseConnection(connection.token));

    EXPECT_EQ(1, fault.hits());
    expectSendLockIsFree();
}

// The Gateway will not answer what it has not got.
TEST_F(ConnectCloseFlow, ThatFailsEndsTheStreamAndLeavesTheClosingOfTheSocketToTheReceiver)
{
    int closedBy = 0;
    pthread_t self = pthread_self();
    Fault closes = beforeCall(Call::Close, 0, [&](const CallInfo&) {
        closedBy = pthread_equal(self, pthread_self()) != 0 ? 1 : 2;
    });
    int descriptor = connection.token->socketDescriptor;
    Fault fault = failCall(Call::Send, 1, EPIPE);

    EXPECT_RC(QPX_ERR_LOSTGWCON, clapiCloseConnection(connection.token));

    EXPECT_TRUE(connection.peer.awaitEof());
    EXPECT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
    EXPECT_EQ(2, closedBy);
    EXPECT_FALSE(support::descriptorIsOpen(descriptor));
}

TEST_F(ConnectCloseFlow, FailsWithoutMemory)
{
    Fault fault = failCall(Call::Malloc, 1, ENOMEM, Threads::Calling);

    EXPECT_RC(QPX_ERR_MALLOCFAIL, clapiCloseConnection(connection.token));

    EXPECT_TRUE(connection.peer.awaitEof());
}

TEST_F(ConnectCloseFlow, IsFollowedByTheReceiverClosingTheSocket)
{
    int descriptor = connection.token->socketDescriptor;
    TraceFile trace(3);

    connection.closeInOrder();

    std::string number = std::to_string(descriptor);
    EXPECT_TRUE(trace.wroteText("ENTRY  clapi_gwycon.closeSocket(socket=" + number + ")"));
    EXPECT_TRUE(trace.wroteText("EXIT   clapi_gwycon.closeSocket() rc=0"));
    EXPECT_FALSE(trace.wroteText("closeSocket(socket=" + number + ")\n"));
    EXPECT_FALSE(trace.wroteText("closeSocket() rc=0\n"));
    EXPECT_FALSE(support::descriptorIsOpen(descriptor));
}

} // namespace
