// Opens at their edges: what breaks off behind the first fill of the buffer, lengths that cannot
// be, a socket whose error cannot be asked for, one that would be a standard stream.
#include <fcntl.h>
#include <unistd.h>

#include "unit/connect_fixture.h"

using namespace fixture;
using namespace script;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::failCall;
using support::Fault;
using support::TraceFile;

namespace {

// More than the receiver's buffer holds, and less than the flow says.
constexpr std::size_t thatArrives = 40000;

class ConnectEdge : public ::testing::Test {
protected:
    support::RunningCall<int> startOpen(int connTimeout = 0)
    {
        return callInThread([this, connTimeout] {
            return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token,
                                                   connTimeout);
        });
    }

    // What an open gets whose handshake is answered with these bytes and then the end.
    int openBrokenOffAfter(const Bytes& answer)
    {
        auto opening = startOpen();
        peer = gateway.accept();
        peer.read(handshakeSize);
        peer.send(answer);
        peer.close();
        return opening.get();
    }

    ScriptedGateway gateway;
    Peer peer;
    QPX_ConnToken_t token = nullptr;
};

} // namespace

TEST_F(ConnectEdge, FailsWhenTheAnswerHasANegativeLength)
{
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR,
              openBrokenOffAfter(hex("47617465 10A01000 00000005 FFFFFFFE 00000000 00000004 "
                                     "42415345 00 FFFFFFFF")));
}

TEST_F(ConnectEdge, FailsWhenTheTextOfAnExceptionBreaksOff)
{
    EXPECT_RC(QPX_ERR_LOSTGWCON,
              openBrokenOffAfter(hex("47617465 10A01000 00000006 00000001 00000000 00000003 "
                                     "454349 00 0000EA63 00 EA60") +
                                 Bytes(thatArrives, 'x')));
}

TEST_F(ConnectEdge, FailsWhenTheBodyOfAFlowThatNobodyReadsBreaksOff)
{
    EXPECT_RC(QPX_ERR_LOSTGWCON,
              openBrokenOffAfter(hex("47617465 10A01000 00000007 00000001 00000000 00000003 "
                                     "454349 00 0000EA60") +
                                 Bytes(thatArrives, 'x')));
}

TEST_F(ConnectEdge, TakesASocketForConnectedWhoseErrorCannotBeAskedFor)
{
    Fault unknown = failCall(Call::GetSockOpt, 1, ENOTSOCK);

    ScriptedConnection connection(30);

    EXPECT_EQ(1, unknown.hits());
    EXPECT_NE(nullptr, connection.token);
}

TEST_F(ConnectEdge, TakesNoSocketThatWouldBeTheStandardErrorStream)
{
    int kept = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 200);
    int descriptor = -1;
    Fault made = beforeCall(Call::Connect, 1, [&](const CallInfo& info) {
        descriptor = static_cast<int>(info.first);
        dup2(kept, STDERR_FILENO);
        close(kept);
    });
    close(STDERR_FILENO);

    auto opening = startOpen();
    ASSERT_TRUE(made.awaitHits());
    peer = gateway.accept();
    peer.read(handshakeSize);
    peer.send(handshakeAnswer());
    EXPECT_RC(QPX_OK, opening.get());
    EXPECT_LT(STDERR_FILENO, descriptor);
    peer.close();
    ASSERT_EQ(0, clapiWaitEvent(&token->recvThreadEndedEvent)); // or the purge may meet the end
    EXPECT_RC(QPX_OK, QPX_purgeGatewayConnection(&token, 0));
}

TEST(ReplyOfAnUnknownType, IsTracedByItsSixLettersAlone)
{
    TraceFile trace(4);
    ScriptedConnection connection;

    // The byte behind the type is the one for security.
    connection.peer.send(hex("47617465 10A01000 00000003 00000001 00000000 00000006 "
                             "414243444546 58 00000000"));
    connection.peer.close();
    ASSERT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));

    EXPECT_TRUE(trace.wrote(3033, "clapi_gwycon.receiverThread() Flow type is FLOW_REPLY, request "
                                  "type ABCDEF"));
}
