// Counting API calls on a token in and out.
#include "unit/connect_fixture.h"

using namespace fixture;
using namespace script;
using support::TraceFile;

namespace {

class SlotRegister : public ::testing::Test {
protected:
    ScriptedConnection connection;
    _QPX_ConnToken_t& record = *connection.token;
};

TEST_F(SlotRegister, CountsACallInAndOut)
{
    EXPECT_RC(QPX_OK, clapiRegisterRequest(connection.token));
    EXPECT_EQ(1, record.requestCount.load());
    EXPECT_RC(QPX_OK, clapiRegisterRequest(connection.token));
    EXPECT_EQ(2, record.requestCount.load());
    EXPECT_RC(QPX_OK, clapiUnregisterRequest(connection.token));
    EXPECT_EQ(1, record.requestCount.load());
    EXPECT_RC(QPX_OK, clapiUnregisterRequest(connection.token));
    EXPECT_EQ(0, record.requestCount.load());
}

TEST_F(SlotRegister, TracesTheCountAsEvents)
{
    std::string at = shown(connection.token);
    TraceFile trace(2);

    clapiRegisterRequest(connection.token);
    EXPECT_TRUE(trace.wroteText("EVENT  clapi_gwytok.clapiRegisterRequest() Outstanding API "
                                "calls=1 on gwTokPtr=" +
                                at + "\n"));
    trace.forget();
    clapiUnregisterRequest(connection.token);
    EXPECT_TRUE(trace.wroteText("EVENT  clapi_gwytok.clapiUnregisterRequest() Outstanding API "
                                "calls=0 on gwTokPtr=" +
                                at + "\n"));
}

TEST_F(SlotRegister, TracesNothingBelowTheEventLevel)
{
    TraceFile trace(1);

    clapiRegisterRequest(connection.token);
    clapiUnregisterRequest(connection.token);

    EXPECT_EQ("", trace.text());
}

TEST_F(SlotRegister, PostsRequestsEndedWhenTheLastCallLeaves)
{
    clapiRegisterRequest(connection.token);
    EXPECT_EQ(0, record.requestsEnded.eflag);

    clapiUnregisterRequest(connection.token);

    EXPECT_EQ(0, record.closedown.load());
    EXPECT_EQ(1, record.requestsEnded.eflag);
}

TEST_F(SlotRegister, DoesNotPostRequestsEndedWhileAnotherCallIsInside)
{
    clapiRegisterRequest(connection.token);
    clapiRegisterRequest(connection.token);

    clapiUnregisterRequest(connection.token);

    EXPECT_EQ(0, record.requestsEnded.eflag);
    clapiUnregisterRequest(connection.token);
}

TEST_F(SlotRegister, DoesNotPostRequestsEndedWhileAnAsynchronousRequestIsOutstanding)
{
    record.asyncCount = 1;
    clapiRegisterRequest(connection.token);

    clapiUnregisterRequest(connection.token);

    EXPECT_EQ(0, record.requestsEnded.eflag);
    record.asyncCount = 0;
}

TEST_F(SlotRegister, CountsACallOnAClosingToken)
{
    record.closedown = 1;

    EXPECT_RC(QPX_OK, clapiRegisterRequest(connection.token));
    EXPECT_EQ(1, record.requestCount.load());

    EXPECT_RC(QPX_OK, clapiUnregisterRequest(connection.token));
    record.closedown = 0;
}

TEST_F(SlotRegister, FailsWhenTheListCannotBeLocked)
{
    TraceFile trace(1);
    BrokenLock noList(gtlLock);

    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, clapiRegisterRequest(connection.token));

    EXPECT_EQ(0, record.requestCount.load());
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.clapiRegisterRequest() Failed to lock "
                                "Gateway token list\n"));
}

TEST_F(SlotRegister, KeepsTheCountWhenTheListCannotBeLockedToUnregister)
{
    TraceFile trace(1);
    clapiRegisterRequest(connection.token);
    {
        BrokenLock noList(gtlLock);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, clapiUnregisterRequest(connection.token));
    }

    EXPECT_EQ(1, record.requestCount.load());
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.clapiUnregisterRequest() Failed to lock "
                                "Gateway token list\n"));
    clapiUnregisterRequest(connection.token);
}

TEST_F(SlotRegister, TracesEntryAndExit)
{
    TraceFile trace(3);

    clapiRegisterRequest(connection.token);
    clapiUnregisterRequest(connection.token);

    EXPECT_EQ(1, trace.timesWrote(2020));
    EXPECT_EQ(1, trace.timesWrote(2024));
    EXPECT_EQ(1, trace.timesWrote(2025));
    EXPECT_EQ(1, trace.timesWrote(2028));
}

} // namespace
