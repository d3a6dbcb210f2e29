// How an open ends with Gateways that answer, refuse, stay silent or go away.
#include "standin/gateway.h"
#include "support/connection_script.h"
#include "support/trace_file.h"

using namespace script;
using standin::Fault;
using support::TraceFile;

namespace {

class OpenOutcome : public ::testing::Test {
protected:
    int open(int connTimeout = 30)
    {
        return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, connTimeout);
    }

    standin::Gateway gateway;
    QPX_ConnToken_t token = nullptr;
};

TEST_F(OpenOutcome, IsAConnectionThatTheGatewayKnows)
{
    char applid[] = "MYAPPL";
    char qualifier[] = "MYQUAL";

    EXPECT_RC(QPX_OK, QPX_openRemoteGatewayConnectionApplid(localHost(), gateway.port(), &token, 30,
                                                            applid, qualifier));

    ASSERT_NE(nullptr, token);
    ASSERT_EQ(1U, gateway.connections().size());
    standin::ConnectionRecord record = gateway.connections()[0];
    EXPECT_TRUE(record.handshakeAccepted);
    EXPECT_EQ("MYAPPL", record.handshake->applid);
    EXPECT_EQ("MYQUAL", record.handshake->applidQualifier);
    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token));
    EXPECT_EQ(0U, gateway.findingCount());
}

TEST_F(OpenOutcome, IsAnotherConnectionEachTime)
{
    QPX_ConnToken_t other = nullptr;
    EXPECT_RC(QPX_OK, open());
    EXPECT_RC(QPX_OK, QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &other, 0));

    EXPECT_NE(token, other);

    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&other));
    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token));
    EXPECT_EQ(2U, gateway.connectionCount());
    EXPECT_EQ(2U, gateway.closeFlowCount());
}

TEST_F(OpenOutcome, IsTheCodeOfAGatewayThatRefuses)
{
    gateway.misbehave({Fault::RefuseHandshake, 61445});

    EXPECT_RC(QPX_ERR_WORK_WAS_REFUSED, open());

    EXPECT_EQ(nullptr, token);
    EXPECT_TRUE(gateway.awaitClosed(1));
    EXPECT_EQ(0U, gateway.closeFlowCount());
}

TEST_F(OpenOutcome, IsATimeOutWhenTheGatewayStaysSilent)
{
    gateway.misbehave({Fault::NoHandshakeAnswer});

    EXPECT_RC(QPX_ERR_CONNECTTIMEOUT, open(1));

    EXPECT_EQ(nullptr, token);
    EXPECT_TRUE(gateway.awaitClosed(1));
}

TEST_F(OpenOutcome, IsALostConnectionWhenTheGatewayHangsUp)
{
    gateway.misbehave({Fault::DropAtHandshake});

    EXPECT_RC(QPX_ERR_LOSTGWCON, open());

    EXPECT_EQ(nullptr, token);
}

TEST_F(OpenOutcome, IsALostConnectionWhenTheGatewayResets)
{
    gateway.misbehave({Fault::ResetAtHandshake});

    EXPECT_RC(QPX_ERR_LOSTGWCON, open());
}

TEST_F(OpenOutcome, IsAFailureWhenTheGatewayHangsUpAtOnce)
{
    gateway.misbehave({Fault::DropAtConnect});

    int rc = open();

    EXPECT_TRUE(rc == QPX_ERR_LOSTGWCON || rc == QPX_ERR_CONNECTFAILED) << support::rcName(rc);
    EXPECT_EQ(nullptr, token);
}

TEST_F(OpenOutcome, IsAFailureWhenTheGatewayResetsAtOnce)
{
    gateway.misbehave({Fault::ResetAtConnect});

    int rc = open();

    EXPECT_TRUE(rc == QPX_ERR_LOSTGWCON || rc == QPX_ERR_CONNECTFAILED) << support::rcName(rc);
    EXPECT_EQ(nullptr, token);
}

TEST_F(OpenOutcome, IsGoodWhenTheAnswerComesInPieces)
{
    gateway.misbehave({Fault::Pieces, 1});

    EXPECT_RC(QPX_OK, open());

    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token));
}

TEST_F(OpenOutcome, IsARefusedConnectWithoutAGateway)
{
    support::RefusingPort refusing;
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_CONNECTFAILED,
              QPX_openRemoteGatewayConnection(localHost(), refusing.port(), &token, 5));

    EXPECT_TRUE(trace.wroteText("Unable to connect to Gateway: Connection refused (111)\n"));
    EXPECT_EQ(nullptr, token);
}

TEST_F(OpenOutcome, IsATimeOutWhenNobodyAnswersTheConnect)
{
    ScriptedGateway deaf(ScriptedGateway::Backlog::Full);

    EXPECT_RC(QPX_ERR_CONNECTTIMEOUT,
              QPX_openRemoteGatewayConnection(localHost(), deaf.port(), &token, 1));

    EXPECT_EQ(nullptr, token);
}

TEST_F(OpenOutcome, IsABadHostWhenTheNameIsNone)
{
    char host[] = "no host has this name";
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_BADHOST, QPX_openRemoteGatewayConnection(host, 5770, &token, 5));

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.getHostInfo() Unable to resolve host (no "
                                "host has this name:5770): <any> (<int>)\n"))
        << trace.text();
    EXPECT_EQ(nullptr, token);
}

TEST_F(OpenOutcome, LeavesNoDescriptorBehindAfterManyFailures)
{
    gateway.misbehave({Fault::RefuseHandshake, 61445});
    for (int time = 0; time < 50; ++time) EXPECT_RC(QPX_ERR_WORK_WAS_REFUSED, open());
    EXPECT_TRUE(gateway.awaitClosed(50));
}

} // namespace
