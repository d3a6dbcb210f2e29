// Connections that end while calls wait.
#include <memory>
#include <vector>

#include "standin/gateway.h"
#include "support/connection_script.h"
#include "support/trace_file.h"

using namespace script;
using standin::Fault;
using support::asyncCall;
using support::EciParms;
using support::getReply;
using support::getReplyWait;
using support::getSpecificReplyWait;
using support::syncCall;
using support::TraceFile;

namespace {

class LostConnection : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_RC(QPX_OK, QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 30));
    }
    void TearDown() override { EXPECT_RC(QPX_OK, QPX_purgeGatewayConnection(&token, 0)); }

    void startCalls(std::size_t count)
    {
        gateway.hold();
        for (std::size_t at = 0; at < count; ++at) {
            records.push_back(std::make_unique<EciParms>(syncCall("ECHO", text("question"))));
            calls.push_back(callInThread([gwTok = token, record = &records.back()->record] {
                return QPX_ECI_Execute(gwTok, record);
            }));
        }
        ASSERT_TRUE(gateway.awaitHeld(count));
    }

    void expectAll(int expectedRc)
    {
        for (auto& call : calls) EXPECT_RC(expectedRc, call.get());
        for (auto& record : records) EXPECT_EQ(text("question"), record->commarea());
    }

    int execute(EciParms& parms) { return QPX_ECI_Execute(token, &parms.record); }

    standin::Gateway gateway;
    QPX_ConnToken_t token = nullptr;
    std::vector<std::unique_ptr<EciParms>> records;
    std::vector<support::RunningCall<int>> calls;
};

TEST_F(LostConnection, CompletesAWaitingCall)
{
    startCalls(1);
    TraceFile trace(3);

    gateway.dropConnection();

    expectAll(QPX_ERR_LOSTGWCON);
    EXPECT_TRUE(trace.wrote(1506, "EXIT", "API.QPX_ECI_Execute() rc=-102 (QPX_ERR_LOSTGWCON)"));
}

TEST_F(LostConnection, CompletesEveryWaitingCall)
{
    startCalls(20);

    gateway.dropConnection();

    expectAll(QPX_ERR_LOSTGWCON);
}

TEST_F(LostConnection, CompletesEveryWaitingCallAfterAReset)
{
    startCalls(5);

    gateway.resetConnection();

    expectAll(QPX_ERR_LOSTGWCON);
}

TEST_F(LostConnection, CompletesEveryWaitingCallAfterAnErrorOfTheConnection)
{
    startCalls(5);

    gateway.sendConnectionError(61445);

    expectAll(QPX_ERR_LOSTGWCON);
}

TEST_F(LostConnection, CompletesEveryWaitingCallAfterGarbage)
{
    startCalls(5);

    gateway.sendRaw(text("this is not a flow of any kind at all."));

    expectAll(QPX_ERR_LOSTGWCON);
}

TEST_F(LostConnection, IsAClosedGatewayAfterACloseFlow)
{
    startCalls(5);

    gateway.sendClose();

    expectAll(QPX_ERR_GATEWAY_CLOSED);
}

TEST_F(LostConnection, CompletesThreadsThatWaitForReplies)
{
    gateway.hold();
    EciParms one = asyncCall("ECHO", text("one"));
    EciParms two = asyncCall("ECHO", text("two"));
    EXPECT_RC(QPX_OK, execute(one));
    EXPECT_RC(QPX_OK, execute(two));
    ASSERT_TRUE(gateway.awaitHeld(2));
    EciParms first = getSpecificReplyWait(one.record.eci_message_qualifier, 8);
    EciParms second = getSpecificReplyWait(two.record.eci_message_qualifier, 8);
    auto waitingForFirst = callInThread([&] { return execute(first); });
    auto waitingForSecond = callInThread([&] { return execute(second); });

    gateway.dropConnection();

    EXPECT_RC(QPX_ERR_LOSTGWCON, waitingForFirst.get());
    EXPECT_RC(QPX_ERR_LOSTGWCON, waitingForSecond.get());
}

TEST_F(LostConnection, LeavesTheReplyOfAnAsynchronousRequestToBeCollected)
{
    gateway.hold();
    EciParms request = asyncCall("ECHO", text("question"));
    EXPECT_RC(QPX_OK, execute(request));
    ASSERT_TRUE(gateway.awaitHeld(1));
    gateway.sendClose();

    EciParms collected = getReplyWait(8);

    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, execute(collected));
    collected = getReply(8);
    EXPECT_RC(ECI_ERR_NO_REPLY, execute(collected));
    collected = getReplyWait(8);
    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, execute(collected));
}

TEST_F(LostConnection, RefusesFurtherCalls)
{
    startCalls(1);
    gateway.dropConnection();
    expectAll(QPX_ERR_LOSTGWCON);

    EciParms parms = syncCall("ECHO", text("question"));
    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
    parms = asyncCall("ECHO", text("question"));
    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
}

TEST_F(LostConnection, DoesNotTouchOtherConnections)
{
    QPX_ConnToken_t other = nullptr;
    ASSERT_RC(QPX_OK, QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &other, 30));
    startCalls(2);

    gateway.dropConnection(1);

    expectAll(QPX_ERR_LOSTGWCON);
    gateway.release();
    EciParms parms = syncCall("ECHO", text("hello"));
    EXPECT_RC(QPX_OK, QPX_ECI_Execute(other, &parms.record));
    EXPECT_EQ(text("hello"), parms.commarea());
    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&other));
}

TEST_F(LostConnection, IsNotWhatAPingAnErrorOrAnExceptionMakes)
{
    gateway.misbehave({Fault::Ping}, standin::nth(1));
    gateway.misbehave({Fault::UnknownFlow, 99}, standin::nth(2));
    gateway.misbehave({Fault::FlowError, 61445}, standin::nth(3));
    gateway.misbehave({Fault::FlowException, "out of order"}, standin::nth(4));
    gateway.misbehave({Fault::EsiType}, standin::nth(5));
    gateway.misbehave({Fault::RequestType, "XYZ"}, standin::nth(6));
    gateway.misbehave({Fault::GatewayRc, 61450}, standin::nth(7));
    gateway.misbehave({Fault::Duplicate}, standin::nth(8));

    int expected[] = {QPX_OK,
                      QPX_OK,
                      QPX_ERR_WORK_WAS_REFUSED,
                      QPX_ERR_GATEWAY_EXCEPTION,
                      1, // the call type, where the server's code is expected
                      QPX_ERR_SYSTEM_ERROR,
                      QPX_ERR_GATEWAY_BACK_LEVEL,
                      QPX_OK};
    for (int rc : expected) {
        EciParms parms = syncCall("ECHO", text("question"));
        EXPECT_RC(rc, execute(parms));
    }

    EciParms parms = syncCall("ECHO", text("question"));
    EXPECT_RC(QPX_OK, execute(parms));
    EXPECT_EQ(text("question"), parms.commarea());
}

TEST_F(LostConnection, IsWhatAnUnknownMessageIdMakes)
{
    gateway.misbehave({Fault::UnknownMessageId});
    EciParms parms = syncCall("ECHO", text("question"));

    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
}

TEST_F(LostConnection, IsWhatABadEyecatcherMakes)
{
    gateway.misbehave({Fault::BadEyecatcher});
    EciParms parms = syncCall("ECHO", text("question"));

    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
}

TEST_F(LostConnection, IsWhatAnAnswerThatBreaksOffMakes)
{
    gateway.misbehave({Fault::Truncate, 40});
    EciParms parms = syncCall("ECHO", text("question"));

    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
}

} // namespace
