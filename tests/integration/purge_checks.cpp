// Purging a connection: the checks of the arguments and what the call traces.
#include <memory>

#include "support/connection_script.h"
#include "support/trace_file.h"

using namespace script;
using support::shown;
using support::TraceFile;

namespace {

TEST(PurgeChecks, RefusesANullPointer)
{
    TraceFile trace(3);

    EXPECT_RC(QPX_ERR_NULLGWTOKPTR, QPX_purgeGatewayConnection(nullptr, 5));

    EXPECT_TRUE(trace.wrote(1080, "ENTRY",
                            "API.QPX_purgeGatewayConnection(gwTokPtr=(nil), closeTimeout=5)"));
    EXPECT_TRUE(trace.wrote(1081, "*EXC*",
                            "API.QPX_purgeGatewayConnection() NULL gateway token pointer, "
                            "gwTokPtr=(nil)"));
    EXPECT_TRUE(trace.wrote(1085, "EXIT",
                            "API.QPX_purgeGatewayConnection(gwTokPtr=(nil)) rc=-108 "
                            "(QPX_ERR_NULLGWTOKPTR)"));
    EXPECT_EQ(3U, trace.records().size());
}

TEST(PurgeChecks, RefusesANullToken)
{
    QPX_ConnToken_t token = nullptr;
    TraceFile trace(3);

    EXPECT_RC(QPX_ERR_NULLGWTOK, QPX_purgeGatewayConnection(&token, 5));

    EXPECT_TRUE(trace.wrote(1082, "*EXC*",
                            "API.QPX_purgeGatewayConnection() NULL gateway token, "
                            "*gwTokPtr=(nil)"));
    EXPECT_EQ(3U, trace.records().size());
}

TEST(PurgeChecks, LooksAtThePointerFirst)
{
    EXPECT_RC(QPX_ERR_NULLGWTOKPTR, QPX_purgeGatewayConnection(nullptr, -1));
}

TEST(PurgeChecks, LooksAtTheTokenBeforeTheTimeOut)
{
    QPX_ConnToken_t token = nullptr;

    EXPECT_RC(QPX_ERR_NULLGWTOK, QPX_purgeGatewayConnection(&token, -1));
}

TEST(PurgeChecks, LooksAtTheTimeOutBeforeTheList)
{
    std::unique_ptr<char[]> zeros(new char[8192]());
    auto token = reinterpret_cast<QPX_ConnToken_t>(zeros.get());

    EXPECT_RC(QPX_ERR_INVALIDTIMEOUTPARM, QPX_purgeGatewayConnection(&token, -1));
    EXPECT_RC(QPX_ERR_BADGWTOK, QPX_purgeGatewayConnection(&token, 0));
}

TEST(PurgeChecks, RefusesANegativeTimeOutAndLeavesTheConnectionOpen)
{
    ScriptedConnection connection;
    TraceFile trace(3);

    EXPECT_RC(QPX_ERR_INVALIDTIMEOUTPARM, QPX_purgeGatewayConnection(&connection.token, -1));

    EXPECT_TRUE(trace.wrote(1083, "*EXC*",
                            "API.QPX_purgeGatewayConnection() Timeout value out of range, "
                            "closeTimeout=-1"));
    EXPECT_EQ(3U, trace.ownRecords().size());
    EXPECT_TRUE(connection.peer.isQuiet());
    connection.closeInOrder();
}

TEST(PurgeChecks, RefusesATimeOutAboveAnHourAndLeavesTheConnectionOpen)
{
    ScriptedConnection connection;
    TraceFile trace(3);

    EXPECT_RC(QPX_ERR_INVALIDTIMEOUTPARM, QPX_purgeGatewayConnection(&connection.token, 3601));

    EXPECT_TRUE(trace.wrote(1083, "*EXC*",
                            "API.QPX_purgeGatewayConnection() Timeout value out of range, "
                            "closeTimeout=3601"));
    EXPECT_TRUE(connection.peer.isQuiet());
    connection.closeInOrder();
}

TEST(PurgeChecks, AcceptsATimeOutOfZero)
{
    ScriptedConnection connection;
    auto purging = connection.startPurge(0);

    connection.answerClose();

    EXPECT_RC(QPX_OK, purging.get());
    connection.forget();
}

TEST(PurgeChecks, AcceptsATimeOutOfAnHour)
{
    ScriptedConnection connection;
    auto purging = connection.startPurge(3600);

    connection.answerClose();

    EXPECT_RC(QPX_OK, purging.get());
    connection.forget();
}

TEST(PurgeChecks, TracesAPurgedConnection)
{
    ScriptedConnection connection;
    std::string variable = shown(&connection.token);
    QPX_ConnToken_t before = connection.token;
    TraceFile trace(3);
    auto purging = connection.startPurge(9);
    connection.answerClose();

    EXPECT_RC(QPX_OK, purging.get());

    EXPECT_TRUE(
        trace.wrote(1080, "ENTRY",
                    "API.QPX_purgeGatewayConnection(gwTokPtr=" + variable + ", closeTimeout=9)"));
    EXPECT_TRUE(trace.wrote(
        1084, "EVENT",
        "API.QPX_purgeGatewayConnection() Closed Gateway connection for token " + variable));
    EXPECT_TRUE(trace.wrote(
        1085, "EXIT", "API.QPX_purgeGatewayConnection(gwTokPtr=" + variable + ") rc=0 (QPX_OK)"));
    EXPECT_EQ(before, connection.token);
    connection.forget();
}

} // namespace
