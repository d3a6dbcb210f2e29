// Marking a token as closing.
#include <sys/mman.h>

#include <memory>

#include "support/refusals.h"
#include "unit/connect_fixture.h"

using namespace fixture;
using namespace script;
using support::Refusal;
using support::Refused;
using support::TraceFile;

namespace {

class TeardownClose : public ::testing::Test {
protected:
    TeardownClose() { asOpen(); }
    ~TeardownClose() override { asOpen(); }

    // Takes the mark off again, so that the connection can be closed in order.
    void asOpen()
    {
        connection.token->closedown = 0;
        connection.token->deleters = 0;
        connection.token->requestCount = 0;
        connection.token->asyncCount = 0;
    }

    // Leaves the event of the last call open, as it is after any call.
    void makeACall()
    {
        char* applid = nullptr;
        EXPECT_RC(QPX_OK, QPX_getApplid(connection.token, &applid));
        EXPECT_EQ(1, connection.token->requestsEnded.eflag);
    }

    ScriptedConnection connection;
};

TEST_F(TeardownClose, MarksTheToken)
{
    EXPECT_RC(QPX_OK, clapiCloseGatewayToken(connection.token, 1));

    EXPECT_EQ(1, connection.token->closedown.load());
}

TEST_F(TeardownClose, RefusesATokenThatIsClosingAlready)
{
    EXPECT_RC(QPX_OK, clapiCloseGatewayToken(connection.token, 1));
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, clapiCloseGatewayToken(connection.token, 1));
}

TEST_F(TeardownClose, RefusesMemoryThatIsNoToken)
{
    std::unique_ptr<char[]> zeros(new char[sizeof(_QPX_ConnToken_t)]());
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_BADGWTOK,
              clapiCloseGatewayToken(reinterpret_cast<QPX_ConnToken_t>(zeros.get()), 1));

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.clapiCloseGatewayToken() Gateway token=" +
                                shown(zeros.get()) + " not found, findRc=1003\n"));
}

TEST_F(TeardownClose, ReadsNoMarkInMemoryThatIsNoToken)
{
    std::unique_ptr<char[]> storage(new char[sizeof(_QPX_ConnToken_t)]());
    auto* unlisted = reinterpret_cast<_QPX_ConnToken_t*>(storage.get());
    unlisted->closedown = 1;

    EXPECT_RC(QPX_ERR_BADGWTOK, clapiCloseGatewayToken(unlisted, 1));
}

TEST_F(TeardownClose, RefusesAnAddressThatCannotBeRead)
{
    void* page = mmap(nullptr, 8192, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, page);

    EXPECT_RC(QPX_ERR_BADGWTOK, clapiCloseGatewayToken(static_cast<QPX_ConnToken_t>(page), 1));

    munmap(page, 8192);
}

TEST_F(TeardownClose, RefusesTheNullToken)
{
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_BADGWTOK, clapiCloseGatewayToken(nullptr, 1));

    EXPECT_TRUE(trace.wroteText("clapiCloseGatewayToken() Gateway token=(nil) not found, "
                                "findRc=1002\n"));
}

TEST_F(TeardownClose, RefusesATokenThatHasBeenFreed)
{
    ScriptedConnection other;
    QPX_ConnToken_t stale = other.token;
    other.closeInOrder();

    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, clapiCloseGatewayToken(stale, 1));
}

TEST_F(TeardownClose, FailsWhenTheListCannotBeLocked)
{
    TraceFile trace(1);
    {
        BrokenLock noList(gtlLock);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, clapiCloseGatewayToken(connection.token, 1));
    }

    EXPECT_EQ(0, connection.token->closedown.load());
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.clapiCloseGatewayToken() Failed to lock "
                                "Gateway token list\n"));
}

TEST_F(TeardownClose, NeedsNoLockOfItsOwnWhenTheCallerHoldsIt)
{
    ASSERT_EQ(0, clapiRequestLock(&gtlLock));

    EXPECT_RC(QPX_OK, clapiCloseGatewayToken(connection.token, 0));

    EXPECT_EQ(0, clapiReleaseLock(&gtlLock));
    EXPECT_EQ(1, connection.token->closedown.load());
}

TEST_F(TeardownClose, TracesWhetherItTakesTheLock)
{
    std::string at = shown(connection.token);
    TraceFile trace(3);
    clapiCloseGatewayToken(connection.token, 1);
    EXPECT_TRUE(
        trace.wrote(2015, "ENTRY",
                    "clapi_gwytok.clapiCloseGatewayToken(gwTokPtr=" + at + ", lockRequired=TRUE)"));
    EXPECT_EQ(1, trace.timesWrote(2019));
    asOpen();
    trace.forget();
    clapiRequestLock(&gtlLock);
    clapiCloseGatewayToken(connection.token, 0);
    clapiReleaseLock(&gtlLock);
    EXPECT_TRUE(trace.wrote(2015, "ENTRY",
                            "clapi_gwytok.clapiCloseGatewayToken(gwTokPtr=" + at +
                                ", lockRequired=FALSE)"));
}

TEST_F(TeardownClose, TracesWhatIsOutstanding)
{
    connection.token->requestCount = 3;
    connection.token->asyncCount = 2;
    TraceFile trace(4);

    clapiCloseGatewayToken(connection.token, 1);

    EXPECT_TRUE(trace.wroteText("DEBUG  clapi_gwytok.clapiCloseGatewayToken() There are 3 API "
                                "calls and 2 async requests outstanding\n"));
}

TEST_F(TeardownClose, ArmsTheEventOfTheLastCallWhileACallIsInside)
{
    makeACall();
    connection.token->requestCount = 1;

    EXPECT_RC(QPX_OK, clapiCloseGatewayToken(connection.token, 1));

    EXPECT_EQ(0, connection.token->requestsEnded.eflag);
}

TEST_F(TeardownClose, ArmsTheEventOfTheLastCallWhileAnAsynchronousRequestIsOut)
{
    makeACall();
    connection.token->asyncCount = 1;

    EXPECT_RC(QPX_OK, clapiCloseGatewayToken(connection.token, 1));

    EXPECT_EQ(0, connection.token->requestsEnded.eflag);
}

TEST_F(TeardownClose, TakesTheMarkOffWhenTheEventOfTheLastCallCannotBeArmed)
{
    makeACall();
    connection.token->requestCount = 1;
    TraceFile trace(1);
    {
        Refusal refusal(Refused::EventArmed);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, clapiCloseGatewayToken(connection.token, 1));
        EXPECT_TRUE(refusal.hasHappened());
    }

    EXPECT_TRUE(trace.wrote(2065, "*EXC*",
                            "clapi_gwytok.clapiCloseGatewayToken() Failed to set requestsEnded "
                            "event"));
    EXPECT_EQ(0, connection.token->closedown.load());
    EXPECT_EQ(0, connection.token->deleters);
    EXPECT_TRUE(support::isFree(gtlLock.lock));
}

TEST_F(TeardownClose, LeavesTheEventOfTheLastCallAloneWhenNothingIsOutstanding)
{
    makeACall();

    EXPECT_RC(QPX_OK, clapiCloseGatewayToken(connection.token, 1));

    EXPECT_EQ(1, connection.token->requestsEnded.eflag);
}

TEST_F(TeardownClose, RefusesSynchronousAndAsynchronousCallsFromThenOn)
{
    EXPECT_RC(QPX_OK, clapiCloseGatewayToken(connection.token, 1));
    support::EciParms parms = support::syncCall("PROG", text("question"));
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, QPX_ECI_Execute(connection.token, &parms.record));
    parms = support::asyncCall("PROG", text("question"));
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, QPX_ECI_Execute(connection.token, &parms.record));
    EXPECT_TRUE(connection.peer.isQuiet());
}

TEST_F(TeardownClose, LetsTheApplidBeReadFromThenOn)
{
    EXPECT_RC(QPX_OK, clapiCloseGatewayToken(connection.token, 1));
    char* applid = nullptr;

    EXPECT_RC(QPX_OK, QPX_getApplid(connection.token, &applid));

    EXPECT_STREQ("", applid);
}

} // namespace
