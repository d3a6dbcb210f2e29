// Purging connections while calls are in progress.
#include <chrono>

#include "standin/gateway.h"
#include "support/connection_script.h"
#include "support/trace_file.h"

using namespace script;
using support::asyncCall;
using support::EciParms;
using support::getReplyWait;
using support::syncCall;
using support::TraceFile;

namespace {

class PurgeWork : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_RC(QPX_OK, QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 30));
        gateway.hold();
    }

    support::RunningCall<int> start(EciParms& parms)
    {
        return callInThread(
            [gwTok = token, record = &parms.record] { return QPX_ECI_Execute(gwTok, record); });
    }

    // A purge that nothing ends but its limit of a second. The limit is kept by the clock of the
    // system, to the microsecond.
    void expectPurgeTakesASecond()
    {
        auto start = std::chrono::system_clock::now();
        EXPECT_RC(QPX_OK, QPX_purgeGatewayConnection(&token, 1));
        EXPECT_LE(std::chrono::microseconds(999999), std::chrono::system_clock::now() - start);
    }

    standin::Gateway gateway;
    QPX_ConnToken_t token = nullptr;
};

TEST_F(PurgeWork, EndsACallInProgressAtOnce)
{
    EciParms parms = syncCall("ECHO", text("hello"));
    auto call = start(parms);
    ASSERT_TRUE(gateway.awaitHeld(1));

    EXPECT_RC(QPX_OK, QPX_purgeGatewayConnection(&token, 0));

    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, call.get());
    EXPECT_EQ(text("hello"), parms.commarea());
    EXPECT_EQ(1U, gateway.closeFlowCount());
}

TEST_F(PurgeWork, EndsACallInProgressWhenItsTimeIsOver)
{
    TraceFile trace(2);
    EciParms parms = syncCall("ECHO", text("hello"));
    auto call = start(parms);
    ASSERT_TRUE(gateway.awaitHeld(1));

    expectPurgeTakesASecond();

    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, call.get());
    EXPECT_TRUE(trace.wroteText("clapi_gwytok.quiesceConnection() Waiting 1 seconds for 1 API "
                                "calls and 0 async requests to complete\n"));
}

TEST_F(PurgeWork, LetsACallInProgressEndInItsTime)
{
    TraceFile trace(2);
    EciParms parms = syncCall("ECHO", text("hello"));
    auto call = start(parms);
    ASSERT_TRUE(gateway.awaitHeld(1));
    auto purging = callInThread([this] { return QPX_purgeGatewayConnection(&token, 3600); });
    ASSERT_TRUE(trace.awaitText("quiesceConnection() Waiting 3600 seconds for 1 API calls"));

    gateway.release();

    EXPECT_RC(QPX_OK, call.get());
    EXPECT_RC(QPX_OK, purging.get());
}

TEST_F(PurgeWork, GivesUpAsynchronousRequestsThatAreNeverAnswered)
{
    EciParms parms = asyncCall("ECHO", text("hello"));
    EXPECT_RC(QPX_OK, QPX_ECI_Execute(token, &parms.record));
    ASSERT_TRUE(gateway.awaitHeld(1));

    expectPurgeTakesASecond();
}

TEST_F(PurgeWork, EndsACallThatWaitsForAReply)
{
    EciParms request = asyncCall("ECHO", text("hello"));
    EXPECT_RC(QPX_OK, QPX_ECI_Execute(token, &request.record));
    ASSERT_TRUE(gateway.awaitHeld(1));
    TraceFile trace(4);
    EciParms collected = getReplyWait(5);
    auto waiting = start(collected);
    ASSERT_TRUE(trace.awaitText("clapi_lock.clapiWaitEvent() Waiting on event"));

    EXPECT_RC(QPX_OK, QPX_purgeGatewayConnection(&token, 0));

    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, waiting.get());
}

} // namespace
