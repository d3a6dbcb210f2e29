// Closing and purging a connection: the checks of the arguments and what the calls trace.
#include <memory>

#include "support/connection_script.h"
#include "support/trace_file.h"

using namespace script;
using support::shown;
using support::TraceFile;

namespace {

TEST(CloseChecks, RefusesANullPointer)
{
    TraceFile trace(3);

    EXPECT_RC(QPX_ERR_NULLGWTOKPTR, QPX_closeGatewayConnection(nullptr));

    EXPECT_TRUE(trace.wrote(1009, "ENTRY", "API.QPX_closeGatewayConnection(gwTokPtr=(nil))"));
    EXPECT_TRUE(trace.wrote(1010, "*EXC*",
                            "API.QPX_closeGatewayConnection() NULL gateway token pointer, "
                            "gwTokPtr=(nil)"));
    EXPECT_TRUE(trace.wrote(1013, "EXIT",
                            "API.QPX_closeGatewayConnection(gwTokPtr=(nil)) rc=-108 "
                            "(QPX_ERR_NULLGWTOKPTR)"));
    EXPECT_EQ(3U, trace.records().size());
}

TEST(CloseChecks, RefusesANullToken)
{
    QPX_ConnToken_t token = nullptr;
    TraceFile trace(3);

    EXPECT_RC(QPX_ERR_NULLGWTOK, QPX_closeGatewayConnection(&token));

    EXPECT_TRUE(trace.wrote(1011, "*EXC*",
                            "API.QPX_closeGatewayConnection() NULL gateway token, "
                            "*gwTokPtr=(nil)"));
    EXPECT_TRUE(trace.wrote(1013, "EXIT",
                            "API.QPX_closeGatewayConnection(gwTokPtr=" + shown(&token) +
                                ") rc=-100 (QPX_ERR_NULLGWTOK)"));
    EXPECT_EQ(3U, trace.records().size());
}

TEST(CloseChecks, RefusesAPointerThatIsNoToken)
{
    std::unique_ptr<char[]> zeros(new char[8192]());
    auto token = reinterpret_cast<QPX_ConnToken_t>(zeros.get());
    TraceFile trace(2);

    EXPECT_RC(QPX_ERR_BADGWTOK, QPX_closeGatewayConnection(&token));

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.clapiCloseGatewayToken() Gateway token=" +
                                shown(zeros.get()) + " not found, findRc=1003\n"));
    EXPECT_EQ(0, trace.timesWrote(1012));
}

TEST(CloseChecks, RefusesATokenThatIsClosedAlready)
{
    ScriptedConnection connection;
    QPX_ConnToken_t stale = connection.token;
    connection.closeInOrder();

    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, QPX_closeGatewayConnection(&stale));
}

TEST(CloseChecks, TracesAClosedConnection)
{
    ScriptedConnection connection;
    std::string variable = shown(&connection.token);
    TraceFile trace(3);

    connection.closeInOrder();

    EXPECT_TRUE(
        trace.wrote(1009, "ENTRY", "API.QPX_closeGatewayConnection(gwTokPtr=" + variable + ")"));
    EXPECT_TRUE(trace.wrote(
        1012, "EVENT",
        "API.QPX_closeGatewayConnection() Closed Gateway connection for token " + variable));
    EXPECT_TRUE(trace.wrote(
        1013, "EXIT", "API.QPX_closeGatewayConnection(gwTokPtr=" + variable + ") rc=0 (QPX_OK)"));
}

TEST(CloseChecks, DoesNotChangeTheCallersVariable)
{
    ScriptedConnection connection;
    QPX_ConnToken_t before = connection.token;
    auto closing = connection.startClose();
    connection.answerClose();

    EXPECT_RC(QPX_OK, closing.get());

    EXPECT_EQ(before, connection.token);
    connection.forget();
}

TEST(CloseChecks, TracesNoClosedConnectionWhenTheTokenIsClosing)
{
    ScriptedConnection connection;
    auto closing = connection.startClose();
    EXPECT_EQ(closeFlow(), connection.peer.read(33));
    TraceFile trace(2);

    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, QPX_closeGatewayConnection(&connection.token));

    EXPECT_EQ(0, trace.timesWrote(1012));
    connection.peer.send(closeFlow());
    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
}

} // namespace
