// Opening a connection: the checks of the arguments, in their order, and what they trace.
#include "support/connection_script.h"
#include "support/trace_file.h"

using namespace script;
using support::TraceFile;

namespace {

class OpenChecks : public ::testing::Test {
protected:
    int open(char* hostname, int port, QPX_ConnToken_t* gwTokPtr, int connTimeout, char* applid,
             char* qualifier)
    {
        return QPX_openRemoteGatewayConnectionApplid(hostname, port, gwTokPtr, connTimeout, applid,
                                                     qualifier);
    }

    // No line but the ENTRY and EXIT of the call, and the one that is looked for.
    void expectOnlyFailure(int point, const std::string& message)
    {
        EXPECT_TRUE(trace.wrote(point, "*EXC*", message)) << trace.text();
        EXPECT_EQ(1, trace.timesWroteText("*EXC*"));
        EXPECT_EQ(1, trace.timesWrote(1000));
        EXPECT_EQ(1, trace.timesWrote(1008));
        EXPECT_EQ(3U, trace.records().size()) << trace.text();
    }

    TraceFile trace{3};
    support::RefusingPort refusing;
    QPX_ConnToken_t token = nullptr;
    char nothing[1] = "";
};

TEST_F(OpenChecks, RefusesPortZero)
{
    EXPECT_RC(QPX_ERR_BADPORT, open(localHost(), 0, &token, 5, nothing, nothing));

    expectOnlyFailure(1001, "API.QPX_openRemoteGatewayConnectionApplid() Port value out of range, "
                            "port=0");
    EXPECT_TRUE(trace.wrote(1008, "EXIT",
                            "API.QPX_openRemoteGatewayConnectionApplid() rc=-107 "
                            "(QPX_ERR_BADPORT)"));
}

TEST_F(OpenChecks, RefusesANegativePort)
{
    EXPECT_RC(QPX_ERR_BADPORT, open(localHost(), -1, &token, 5, nothing, nothing));

    expectOnlyFailure(1001, "API.QPX_openRemoteGatewayConnectionApplid() Port value out of range, "
                            "port=-1");
}

TEST_F(OpenChecks, RefusesAPortAbove65535)
{
    EXPECT_RC(QPX_ERR_BADPORT, open(localHost(), 65536, &token, 5, nothing, nothing));

    expectOnlyFailure(1001, "API.QPX_openRemoteGatewayConnectionApplid() Port value out of range, "
                            "port=65536");
}

TEST_F(OpenChecks, AcceptsPort65535)
{
    EXPECT_NE(QPX_ERR_BADPORT, open(localHost(), 65535, &token, 5, nothing, nothing));

    EXPECT_EQ(0, trace.timesWrote(1001));
    EXPECT_TRUE(trace.wroteText("clapi_gwycon.clapiConnectToGateway(port=65535,"));
}

TEST_F(OpenChecks, RefusesANullTokenPointer)
{
    EXPECT_RC(QPX_ERR_NULLGWTOKPTR, open(localHost(), 5770, nullptr, 5, nothing, nothing));

    expectOnlyFailure(1002, "API.QPX_openRemoteGatewayConnectionApplid() NULL gateway token "
                            "pointer, gwTokPtr=(nil)");
}

TEST_F(OpenChecks, RefusesANegativeTimeOut)
{
    EXPECT_RC(QPX_ERR_INVALIDTIMEOUTPARM, open(localHost(), 5770, &token, -1, nothing, nothing));

    expectOnlyFailure(1003, "API.QPX_openRemoteGatewayConnectionApplid() Timeout value out of "
                            "range, connTimeout=-1");
}

TEST_F(OpenChecks, RefusesATimeOutAboveAnHour)
{
    EXPECT_RC(QPX_ERR_INVALIDTIMEOUTPARM, open(localHost(), 5770, &token, 3601, nothing, nothing));

    expectOnlyFailure(1003, "API.QPX_openRemoteGatewayConnectionApplid() Timeout value out of "
                            "range, connTimeout=3601");
}

TEST_F(OpenChecks, AcceptsATimeOutOfZero)
{
    EXPECT_RC(QPX_ERR_CONNECTFAILED,
              open(localHost(), refusing.port(), &token, 0, nothing, nothing));
}

TEST_F(OpenChecks, AcceptsATimeOutOfAnHour)
{
    EXPECT_RC(QPX_ERR_CONNECTFAILED,
              open(localHost(), refusing.port(), &token, 3600, nothing, nothing));
}

TEST_F(OpenChecks, RefusesANullHostName)
{
    EXPECT_RC(QPX_ERR_NULLADDRESS, open(nullptr, 5770, &token, 5, nothing, nothing));

    expectOnlyFailure(1004, "API.QPX_openRemoteGatewayConnectionApplid() NULL host name, "
                            "hostname=(nil)");
}

TEST_F(OpenChecks, RefusesANullApplid)
{
    EXPECT_RC(QPX_ERR_NULLPARM, open(localHost(), 5770, &token, 5, nullptr, nothing));

    expectOnlyFailure(1005, "API.QPX_openRemoteGatewayConnectionApplid() NULL applid, "
                            "applid=(nil)");
}

TEST_F(OpenChecks, RefusesANullQualifier)
{
    EXPECT_RC(QPX_ERR_NULLPARM, open(localHost(), 5770, &token, 5, nothing, nullptr));

    expectOnlyFailure(1006, "API.QPX_openRemoteGatewayConnectionApplid() NULL applid qualifier, "
                            "applidQualifier=(nil)");
}

TEST_F(OpenChecks, LooksAtThePortFirst)
{
    EXPECT_RC(QPX_ERR_BADPORT, open(nullptr, 0, nullptr, -1, nullptr, nullptr));
}

TEST_F(OpenChecks, LooksAtTheTokenPointerSecond)
{
    EXPECT_RC(QPX_ERR_NULLGWTOKPTR, open(nullptr, 5770, nullptr, -1, nullptr, nullptr));
}

TEST_F(OpenChecks, LooksAtTheTimeOutThird)
{
    EXPECT_RC(QPX_ERR_INVALIDTIMEOUTPARM, open(nullptr, 5770, &token, -1, nullptr, nullptr));
}

TEST_F(OpenChecks, LooksAtTheHostNameFourth)
{
    EXPECT_RC(QPX_ERR_NULLADDRESS, open(nullptr, 5770, &token, 5, nullptr, nullptr));
}

TEST_F(OpenChecks, LooksAtTheApplidFifth)
{
    EXPECT_RC(QPX_ERR_NULLPARM, open(localHost(), 5770, &token, 5, nullptr, nullptr));

    EXPECT_EQ(1, trace.timesWrote(1005));
    EXPECT_EQ(0, trace.timesWrote(1006));
}

TEST_F(OpenChecks, LeaveTheCallersVariableAlone)
{
    auto before = reinterpret_cast<QPX_ConnToken_t>(&refusing);
    token = before;

    open(localHost(), 0, &token, 5, nothing, nothing);
    open(localHost(), 5770, &token, -1, nothing, nothing);
    open(nullptr, 5770, &token, 5, nothing, nothing);
    open(localHost(), 5770, &token, 5, nullptr, nothing);
    open(localHost(), 5770, &token, 5, nothing, nullptr);

    EXPECT_EQ(before, token);
}

TEST_F(OpenChecks, TraceTheArgumentsWithoutAClosingParenthesis)
{
    char host[] = "some.host";
    char applid[] = "MYAPPLID";
    char qualifier[] = "MYQUALIF";

    open(host, 0, &token, 17, applid, qualifier);

    EXPECT_TRUE(trace.wroteText("[1000] ENTRY  API.QPX_openRemoteGatewayConnectionApplid("
                                "hostname=some.host, port=0, &gwTokPtr=<ptr>, connTimeout=17, "
                                "applid=MYAPPLID, applidQualifier=MYQUALIF\n"));
}

TEST_F(OpenChecks, TraceNullTextsByTheirName)
{
    open(nullptr, 0, nullptr, 5, nullptr, nullptr);

    EXPECT_TRUE(trace.wroteText("API.QPX_openRemoteGatewayConnectionApplid(hostname=NULL, port=0, "
                                "&gwTokPtr=(nil), connTimeout=5, applid=NULL, "
                                "applidQualifier=NULL\n"));
}

TEST_F(OpenChecks, OfTheShortFormAreTheSame)
{
    EXPECT_RC(QPX_ERR_BADPORT, QPX_openRemoteGatewayConnection(nullptr, 0, nullptr, -1));
    EXPECT_RC(QPX_ERR_NULLGWTOKPTR, QPX_openRemoteGatewayConnection(nullptr, 5770, nullptr, -1));
    EXPECT_RC(QPX_ERR_INVALIDTIMEOUTPARM,
              QPX_openRemoteGatewayConnection(nullptr, 5770, &token, -1));
    EXPECT_RC(QPX_ERR_NULLADDRESS, QPX_openRemoteGatewayConnection(nullptr, 5770, &token, 5));
}

TEST_F(OpenChecks, OfTheShortFormTraceAsTheLongForm)
{
    QPX_openRemoteGatewayConnection(localHost(), 0, &token, 5);

    expectOnlyFailure(1001, "API.QPX_openRemoteGatewayConnectionApplid() Port value out of range, "
                            "port=0");
    EXPECT_TRUE(trace.wroteText("API.QPX_openRemoteGatewayConnectionApplid(hostname=127.0.0.1, "
                                "port=0, &gwTokPtr=<ptr>, connTimeout=5, applid=, "
                                "applidQualifier=\n"));
    EXPECT_FALSE(trace.wroteText("API.QPX_openRemoteGatewayConnection("));
}

} // namespace
