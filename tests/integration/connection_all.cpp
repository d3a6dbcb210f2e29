// Closing all connections of the process.
#include <atomic>
#include <memory>
#include <vector>

#include "standin/gateway.h"
#include "support/connection_script.h"
#include "support/trace_file.h"

using namespace script;
using support::EciParms;
using support::syncCall;
using support::TraceFile;

namespace {

class ConnectionAll : public ::testing::Test {
protected:
    void open(std::size_t count)
    {
        tokens.resize(count, nullptr);
        for (QPX_ConnToken_t& token : tokens)
            ASSERT_RC(QPX_OK,
                      QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 30));
    }

    standin::Gateway gateway;
    std::vector<QPX_ConnToken_t> tokens;
};

TEST_F(ConnectionAll, IsNothingInAFreshProcess)
{
    EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());
}

TEST_F(ConnectionAll, IsTraced)
{
    TraceFile trace(3);

    EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());

    EXPECT_TRUE(trace.wrote(1014, "ENTRY", "API.QPX_closeAllGatewayConnections()"));
    EXPECT_TRUE(trace.wrote(1015, "EVENT",
                            "API.QPX_closeAllGatewayConnections() Closed all Gateway "
                            "connections"));
    EXPECT_TRUE(trace.wrote(1016, "EXIT", "API.QPX_closeAllGatewayConnections() rc=0 (QPX_OK)"));
}

TEST_F(ConnectionAll, IsEveryConnection)
{
    open(5);

    EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());

    EXPECT_TRUE(gateway.awaitClosed(5));
    EXPECT_EQ(5U, gateway.closeFlowCount());
    char* applid = nullptr;
    for (QPX_ConnToken_t token : tokens) EXPECT_RC(QPX_ERR_BADGWTOK, QPX_getApplid(token, &applid));
}

TEST_F(ConnectionAll, MayBeClosedAgain)
{
    open(2);

    EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());
    EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());

    EXPECT_EQ(2U, gateway.closeFlowCount());
}

TEST_F(ConnectionAll, MayBeFollowedByAnOpen)
{
    open(3);
    EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());

    open(2);

    EciParms parms = syncCall("ECHO", text("hello"));
    EXPECT_RC(QPX_OK, QPX_ECI_Execute(tokens[1], &parms.record));
    EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());
}

TEST_F(ConnectionAll, EndsTheirCallsInProgress)
{
    open(4);
    gateway.hold();
    std::vector<std::unique_ptr<EciParms>> records;
    std::vector<support::RunningCall<int>> calls;
    for (QPX_ConnToken_t token : tokens) {
        records.push_back(std::make_unique<EciParms>(syncCall("ECHO", text("hello"))));
        calls.push_back(callInThread(
            [token, record = &records.back()->record] { return QPX_ECI_Execute(token, record); }));
    }
    ASSERT_TRUE(gateway.awaitHeld(4));

    EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());

    for (auto& call : calls) EXPECT_RC(QPX_ERR_GWTOK_CLOSED, call.get());
}

// A thread that opens and closes until it is told to end, and how often it has done so.
struct OpensAndCloses {
    int port = 0;
    std::atomic<bool> finished{false};
    std::atomic<int> rounds{0};

    int run()
    {
        while (!finished) {
            QPX_ConnToken_t token = nullptr;
            int rc = QPX_openRemoteGatewayConnection(localHost(), port, &token, 30);
            if (rc != QPX_OK) return -1;
            rc = QPX_closeGatewayConnection(&token);
            if (rc != QPX_OK && rc != QPX_ERR_GWTOK_CLOSED && rc != QPX_ERR_BADGWTOK &&
                rc != QPX_ERR_LOSTGWCON)
                return rc;
            rounds += 1;
        }
        return rounds > 0 ? QPX_OK : -1;
    }
};

TEST_F(ConnectionAll, IsClosedWhileOthersOpenAndClose)
{
    OpensAndCloses first;
    OpensAndCloses second;
    first.port = second.port = gateway.port();
    auto one = callInThread([&first] { return first.run(); });
    auto two = callInThread([&second] { return second.run(); });
    ASSERT_TRUE(gateway.awaitConnections(4));

    // Each of them has done so while all were closed.
    auto goesOn = [](const auto& call, const OpensAndCloses& thread) {
        return thread.rounds == 0 && !call.hasEnded();
    };
    for (int time = 0; time < 50 || goesOn(one, first) || goesOn(two, second); ++time)
        EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());

    first.finished = second.finished = true;
    EXPECT_RC(QPX_OK, one.get());
    EXPECT_RC(QPX_OK, two.get());
    EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());
    TraceFile trace(0);
    QPX_dumpState();
    EXPECT_TRUE(trace.wroteText("The Gateway Token List is EMPTY\n"));
}

} // namespace
