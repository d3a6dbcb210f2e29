// The connection calls of a library whose initialisation has failed.
#include "unit/connect_fixture.h"

using namespace fixture;
using script::localHost;
using support::Call;
using support::Fault;
using support::TraceFile;

namespace {

class ConnectUninitialised : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, clapiState) << "each case needs a process of its own"; }

    Fault noInitialisation = support::failEveryCall(Call::Once, EAGAIN);
    QPX_ConnToken_t token = nullptr;
    char* applid = nullptr;
};

TEST_F(ConnectUninitialised, OpensNothingAndChecksNothing)
{
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, QPX_openRemoteGatewayConnection(localHost(), 2006, &token, 5));
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, QPX_openRemoteGatewayConnection(nullptr, 0, nullptr, -1));

    EXPECT_EQ(nullptr, token);
}

TEST_F(ConnectUninitialised, ClosesNothingAndChecksNothing)
{
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, QPX_closeGatewayConnection(nullptr));
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, QPX_closeGatewayConnection(&token));
}

TEST_F(ConnectUninitialised, PurgesNothingAndChecksNothing)
{
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, QPX_purgeGatewayConnection(nullptr, -1));
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, QPX_purgeGatewayConnection(&token, 3601));
}

TEST_F(ConnectUninitialised, ClosesNoConnections)
{
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, QPX_closeAllGatewayConnections());
}

TEST_F(ConnectUninitialised, ReadsNoApplidAndChecksNothing)
{
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, QPX_getApplid(nullptr, nullptr));
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, QPX_getApplid(nullptr, &applid));
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, QPX_getApplidQualifier(nullptr, nullptr));
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, QPX_getApplidQualifier(nullptr, &applid));

    EXPECT_EQ(nullptr, applid);
}

TEST_F(ConnectUninitialised, TracesNoClosedConnections)
{
    EXPECT_EQ(0, noInitialisation.hits());
    noInitialisation.end();
    TraceFile trace(3);
    Fault fails = support::failEveryCall(Call::Once, EAGAIN);

    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, QPX_closeAllGatewayConnections());

    EXPECT_EQ(1, trace.timesWrote(1014));
    EXPECT_EQ(0, trace.timesWrote(1015));
    EXPECT_EQ(0, trace.timesWrote(2034));
    EXPECT_TRUE(trace.wrote(1016, "EXIT",
                            "API.QPX_closeAllGatewayConnections() rc=-9 (QPX_ERR_SYSTEM_ERROR)"));
    fails.end();
}

} // namespace
