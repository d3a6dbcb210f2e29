// Closing connections while calls are in progress.
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
using support::syncCall;
using support::TraceFile;

namespace {

class CloseWork : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_RC(QPX_OK, QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 30));
    }

    support::RunningCall<int> start(EciParms& parms)
    {
        return callInThread(
            [gwTok = token, record = &parms.record] { return QPX_ECI_Execute(gwTok, record); });
    }

    standin::Gateway gateway;
    QPX_ConnToken_t token = nullptr;
};

TEST_F(CloseWork, ClosesAConnectionThatWasNeverUsed)
{
    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token));

    ASSERT_TRUE(gateway.awaitClosed(1));
    EXPECT_EQ(1U, gateway.closeFlowCount());
    EXPECT_EQ(0U, gateway.findingCount());
}

TEST_F(CloseWork, ClosesAConnectionAfterACall)
{
    EciParms parms = syncCall("ECHO", text("hello"));
    EXPECT_RC(QPX_OK, QPX_ECI_Execute(token, &parms.record));
    EXPECT_EQ(text("hello"), parms.commarea());

    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token));

    EXPECT_EQ(0U, gateway.findingCount());
}

TEST_F(CloseWork, LetsACallInProgressEndFirst)
{
    gateway.hold();
    TraceFile trace(2);
    EciParms parms = syncCall("ECHO", text("hello"));
    auto call = start(parms);
    ASSERT_TRUE(gateway.awaitHeld(1));
    auto closing = callInThread([this] { return QPX_closeGatewayConnection(&token); });
    ASSERT_TRUE(trace.awaitText("quiesceConnection() Waiting for 1 API calls and 0 async requests "
                                "to complete\n"));
    EXPECT_EQ(0U, gateway.closeFlowCount());

    gateway.release();

    EXPECT_RC(QPX_OK, call.get());
    EXPECT_EQ(text("hello"), parms.commarea());
    EXPECT_RC(QPX_OK, closing.get());
}

TEST_F(CloseWork, LetsManyCallsInProgressEndFirst)
{
    constexpr std::size_t count = 20;
    gateway.hold();
    TraceFile trace(2);
    std::vector<std::unique_ptr<EciParms>> records;
    std::vector<support::RunningCall<int>> calls;
    for (std::size_t at = 0; at < count; ++at) {
        records.push_back(std::make_unique<EciParms>(
            syncCall("ECHO", filled(40, static_cast<unsigned char>(at)))));
        calls.push_back(start(*records.back()));
    }
    ASSERT_TRUE(gateway.awaitHeld(count));
    auto closing = callInThread([this] { return QPX_closeGatewayConnection(&token); });
    ASSERT_TRUE(trace.awaitText("quiesceConnection() Waiting for 20 API calls and 0 async requests "
                                "to complete\n"));

    gateway.releaseReversed();

    for (std::size_t at = 0; at < count; ++at) {
        EXPECT_RC(QPX_OK, calls[at].get());
        EXPECT_EQ(filled(40, static_cast<unsigned char>(at)), records[at]->commarea());
    }
    EXPECT_RC(QPX_OK, closing.get());
}

TEST_F(CloseWork, RefusesNewCallsMeanwhile)
{
    gateway.hold();
    TraceFile trace(2);
    EciParms parms = syncCall("ECHO", text("hello"));
    auto call = start(parms);
    ASSERT_TRUE(gateway.awaitHeld(1));
    auto closing = callInThread([this] { return QPX_closeGatewayConnection(&token); });
    ASSERT_TRUE(trace.awaitText("quiesceConnection() Waiting for 1 API calls"));

    EciParms late = syncCall("ECHO", text("late"));
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, QPX_ECI_Execute(token, &late.record));
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, QPX_closeGatewayConnection(&token));
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, QPX_purgeGatewayConnection(&token, 0));

    EXPECT_EQ(1U, gateway.requestCount());
    gateway.release();
    EXPECT_RC(QPX_OK, call.get());
    EXPECT_RC(QPX_OK, closing.get());
}

TEST_F(CloseWork, WaitsForRepliesToBeCollected)
{
    TraceFile trace(2);
    EciParms parms = asyncCall("ECHO", text("hello"));
    EXPECT_RC(QPX_OK, QPX_ECI_Execute(token, &parms.record));
    auto closing = callInThread([this] { return QPX_closeGatewayConnection(&token); });
    ASSERT_TRUE(trace.awaitText("quiesceConnection() Waiting for 0 API calls and 1 async requests "
                                "to complete\n"));
    EXPECT_EQ(0U, gateway.closeFlowCount());

    EciParms collected = getReplyWait(5);
    EXPECT_RC(QPX_OK, QPX_ECI_Execute(token, &collected.record));

    EXPECT_EQ(text("hello"), collected.commarea());
    EXPECT_RC(QPX_OK, closing.get());
}

TEST_F(CloseWork, EndsWhenTheGatewayGoesAwayInsteadOfAnswering)
{
    gateway.misbehave({Fault::NoCloseAnswer});
    auto closing = callInThread([this] { return QPX_closeGatewayConnection(&token); });
    ASSERT_TRUE(gateway.awaitCloseFlows(1));
    EXPECT_FALSE(closing.hasEnded());

    gateway.dropConnection();

    EXPECT_RC(QPX_OK, closing.get());
}

TEST_F(CloseWork, OfOneConnectionLeavesTheOthersAlone)
{
    QPX_ConnToken_t other = nullptr;
    EXPECT_RC(QPX_OK, QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &other, 30));
    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token));

    EciParms parms = syncCall("ECHO", text("hello"));
    EXPECT_RC(QPX_OK, QPX_ECI_Execute(other, &parms.record));

    EXPECT_EQ(text("hello"), parms.commarea());
    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&other));
}

TEST_F(CloseWork, CanBeFollowedByAnotherOpen)
{
    for (int time = 0; time < 20; ++time) {
        EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token));
        EXPECT_RC(QPX_OK, QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 30));
    }
    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token));
    EXPECT_EQ(21U, gateway.closeFlowCount());
}

} // namespace
