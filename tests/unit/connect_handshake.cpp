// The handshake: what is sent, and every way in which the Gateway may answer it or not.
#include <thread>

#include "unit/connect_fixture.h"

using namespace fixture;
using namespace script;
using support::Call;
using support::failCall;
using support::Fault;
using support::Threads;
using support::TraceFile;

namespace {

class ConnectHandshake : public ::testing::Test {
protected:
    support::RunningCall<int> startOpen(int connTimeout = 0)
    {
        return callInThread([this, connTimeout] {
            return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token,
                                                   connTimeout);
        });
    }

    // An open whose handshake is answered with these bytes.
    int openAnswered(const Bytes& answer)
    {
        auto opening = startOpen();
        peer = gateway.accept();
        peer.read(handshakeSize);
        peer.send(answer);
        return opening.get();
    }

    void closeAfterwards()
    {
        auto closing = callInThread([this] { return QPX_closeGatewayConnection(&token); });
        EXPECT_EQ(closeFlow(), peer.read(33));
        peer.send(closeFlow());
        EXPECT_RC(QPX_OK, closing.get());
    }

    ScriptedGateway gateway;
    Peer peer;
    QPX_ConnToken_t token = nullptr;
};

TEST_F(ConnectHandshake, SendsApplidAndQualifierBehindTheFixedBlock)
{
    char applid[] = "APPL1";
    char qualifier[] = "QUAL";
    auto opening = callInThread([&] {
        return QPX_openRemoteGatewayConnectionApplid(localHost(), gateway.port(), &token, 0, applid,
                                                     qualifier);
    });
    peer = gateway.accept();

    EXPECT_EQ(hex("47617465 10A01000 00000005 FFFFFFFE 00000000 00000004 42415345 00 0000001F"
                  "0002656E 00024742 00000000 00000000 0000"
                  "0005 4150504C 31 0004 5155414C"),
              peer.read(64));

    peer.send(handshakeAnswer());
    EXPECT_RC(QPX_OK, opening.get());
    closeAfterwards();
}

TEST_F(ConnectHandshake, SendsEmptyTextsForAConnectionWithoutApplid)
{
    auto opening = startOpen();
    peer = gateway.accept();

    EXPECT_EQ(hex("47617465 10A01000 00000005 FFFFFFFE 00000000 00000004 42415345 00 00000016"
                  "0002656E 00024742 00000000 00000000 0000"
                  "0000 0000"),
              peer.read(55));

    peer.send(handshakeAnswer());
    EXPECT_RC(QPX_OK, opening.get());
    closeAfterwards();
}

TEST_F(ConnectHandshake, IsAcceptedByAnAnswerWithABody)
{
    EXPECT_RC(QPX_OK, openAnswered(flow(handshakeType, -2, 0, "BASE", text("nobody reads this"))));
    closeAfterwards();
}

TEST_F(ConnectHandshake, IsAcceptedByAnAnswerWithALargeBody)
{
    EXPECT_RC(QPX_OK, openAnswered(flow(handshakeType, -2, 0, "BASE", filled(70000, 0x47))));
    closeAfterwards();
}

TEST_F(ConnectHandshake, IsAcceptedByAnAnswerInPieces)
{
    auto opening = startOpen();
    peer = gateway.accept();
    peer.read(handshakeSize);

    peer.sendInPieces(handshakeAnswer(), 1);

    EXPECT_RC(QPX_OK, opening.get());
    closeAfterwards();
}

TEST_F(ConnectHandshake, IsAcceptedWhateverTheVersionOfTheAnswer)
{
    EXPECT_RC(QPX_OK, openAnswered(hex("47617465 7FFFFFFF 00000005 FFFFFFFE 00000000 00000004 "
                                       "42415345 00 00000000")));
    closeAfterwards();
}

TEST_F(ConnectHandshake, IsAcceptedByAnAnswerThatComesBeforeIt)
{
    auto opening = startOpen();
    peer = gateway.accept();
    peer.send(handshakeAnswer());

    EXPECT_RC(QPX_OK, opening.get());

    peer.read(handshakeSize);
    closeAfterwards();
}

TEST_F(ConnectHandshake, IsTracedWhenAccepted)
{
    TraceFile trace(4);

    EXPECT_RC(QPX_OK, openAnswered(handshakeAnswer()));

    EXPECT_TRUE(trace.wroteText("DEBUG  clapi_gwycon.receiverThread() Flow type is "
                                "FLOW_HANDSHAKE\n"));
    closeAfterwards();
}

TEST_F(ConnectHandshake, IgnoresOtherFlowsBeforeTheAnswer)
{
    EXPECT_RC(QPX_OK, openAnswered(pingFlow() + flow(99, 0, 0, "BASE", text("unknown")) +
                                   errorFlow(3000, 61445) + exceptionFlow(3000, "nobody's") +
                                   handshakeAnswer()));
    closeAfterwards();
}

TEST_F(ConnectHandshake, FailsWithTheCodeOfARefusal)
{
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_WORK_WAS_REFUSED, openAnswered(handshakeRefusal(61445)));

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.clapiConnectToGateway() Handshake flow "
                                "returned an error: <int>\n"));
    EXPECT_EQ(nullptr, token);
    EXPECT_TRUE(peer.awaitEof());
}

TEST_F(ConnectHandshake, FailsWithTheCodeOfABackLevelGateway)
{
    EXPECT_RC(QPX_ERR_GATEWAY_BACK_LEVEL, openAnswered(handshakeRefusal(61450)));
}

TEST_F(ConnectHandshake, FailsWithANegativeCodeOfARefusal)
{
    EXPECT_RC(-22, openAnswered(handshakeRefusal(-22)));
}

TEST_F(ConnectHandshake, FailsWhenARefusalHasNoCode)
{
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, openAnswered(handshakeRefusal(0)));
    EXPECT_EQ(nullptr, token);
}

TEST_F(ConnectHandshake, FailsWhenTheGatewayEndsTheConnection)
{
    auto opening = startOpen();
    peer = gateway.accept();
    peer.read(handshakeSize);
    peer.close();

    EXPECT_RC(QPX_ERR_LOSTGWCON, opening.get());
    EXPECT_EQ(nullptr, token);
}

TEST_F(ConnectHandshake, FailsWhenTheGatewayResetsTheConnection)
{
    auto opening = startOpen();
    peer = gateway.accept();
    peer.read(handshakeSize);
    peer.reset();

    EXPECT_RC(QPX_ERR_LOSTGWCON, opening.get());
}

TEST_F(ConnectHandshake, FailsWhenTheAnswerBreaksOff)
{
    auto opening = startOpen();
    peer = gateway.accept();
    peer.read(handshakeSize);
    peer.send(support::slice(handshakeAnswer(), 0, 32));
    peer.close();

    EXPECT_RC(QPX_ERR_LOSTGWCON, opening.get());
}

TEST_F(ConnectHandshake, FailsWhenTheAnswerIsNoFlow)
{
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, openAnswered(text("HTTP/1.1 400 Bad Request\r\n\r\n......")));
    EXPECT_EQ(nullptr, token);
}

TEST_F(ConnectHandshake, FailsWhenTheAnswerIsAReplyThatNobodyWaitsFor)
{
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, openAnswered(eciReply(17, text("x"))));
}

TEST_F(ConnectHandshake, TimesOutWhenTheGatewayDoesNotAnswer)
{
    TraceFile trace(4);
    auto opening = startOpen(1);
    peer = gateway.accept();
    peer.read(handshakeSize);

    EXPECT_RC(QPX_ERR_CONNECTTIMEOUT, opening.get());

    EXPECT_TRUE(trace.wrote(2504, "*EXC*",
                            "clapi_socketbuffer.waitForResponse() Timed out waiting for handshake "
                            "response"));
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.clapiConnectToGateway() Handshake flow "
                                "returned an error: <int>\n"));
    EXPECT_EQ(nullptr, token);
    EXPECT_TRUE(peer.awaitEof());
}

// The other open, which does time out, tells that a second has passed.
TEST_F(ConnectHandshake, HasNoTimeLimitWithoutATimeOut)
{
    auto opening = startOpen(0);
    peer = gateway.accept();
    peer.read(handshakeSize);
    QPX_ConnToken_t other = nullptr;
    EXPECT_RC(QPX_ERR_CONNECTTIMEOUT,
              QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &other, 1));

    EXPECT_FALSE(opening.hasEnded());

    peer.send(handshakeAnswer());
    EXPECT_RC(QPX_OK, opening.get());
    closeAfterwards();
}

TEST_F(ConnectHandshake, HasNoTimeLimitAfterTheFirstFlow)
{
    TraceFile trace(4);
    auto opening = startOpen(1);
    peer = gateway.accept();
    peer.read(handshakeSize);
    peer.send(pingFlow());
    ASSERT_TRUE(trace.awaitText("Flow type is FLOW_PING"));
    QPX_ConnToken_t other = nullptr;
    EXPECT_RC(QPX_ERR_CONNECTTIMEOUT,
              QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &other, 1));

    EXPECT_FALSE(opening.hasEnded());

    peer.send(handshakeAnswer());
    EXPECT_RC(QPX_OK, opening.get());
    closeAfterwards();
}

// An open that the Gateway answers with a close flow hangs for good; these processes end with a
// thread in it.
class HangingOpen : public ::testing::Test {
protected:
    void startForGood()
    {
        int port = gateway.port();
        std::thread([port] {
            QPX_ConnToken_t token = nullptr;
            QPX_openRemoteGatewayConnection(localHost(), port, &token, 0);
        }).detach();
    }

    ScriptedGateway gateway;
};

TEST_F(HangingOpen, IsNotReleasedByACloseFlowBeforeTheHandshakeAnswer)
{
    TraceFile trace(3);
    startForGood();
    Peer peer = gateway.accept();
    _QPX_ConnToken_t* record = tokenInTrace(trace);
    peer.read(handshakeSize);

    peer.send(closeFlow());

    ASSERT_TRUE(peer.awaitEof());
    ASSERT_EQ(0, clapiWaitEvent(&record->recvThreadEndedEvent));
    EXPECT_EQ(4, record->connStatus.load());
    EXPECT_EQ(0, record->handshakeRc);
    EXPECT_EQ(0, record->connEvent.eflag);
}

TEST_F(HangingOpen, IsNotReleasedWhenThereIsNoMemoryToRead)
{
    TraceFile trace(3);
    support::Gate handshakeSent;
    std::thread([handshakeSent, port = gateway.port()] {
        Fault receiverStops = support::beforeCall(
            Call::Malloc, 1,
            [handshakeSent](const support::CallInfo&) mutable { handshakeSent.pass(); },
            Threads::Others);
        Fault receiverWithoutMemory = failCall(Call::Malloc, 1, ENOMEM, Threads::Others);
        QPX_ConnToken_t token = nullptr;
        QPX_openRemoteGatewayConnection(localHost(), port, &token, 0);
    }).detach();
    Peer peer = gateway.accept();
    peer.read(handshakeSize);
    _QPX_ConnToken_t* record = tokenInTrace(trace);

    handshakeSent.open();

    ASSERT_TRUE(peer.awaitEof());
    ASSERT_EQ(0, clapiWaitEvent(&record->recvThreadEndedEvent));
    EXPECT_EQ(2, record->connStatus.load());
    EXPECT_EQ(0, record->handshakeRc);
    EXPECT_EQ(0, record->connEvent.eflag);
}

} // namespace
