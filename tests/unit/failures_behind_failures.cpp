// Locks that fail where something else has failed before, or nothing can be done about it any more:
// the line, the code, and that nobody is left waiting.
#include "support/eci_script.h"
#include "unit/receiver_fixture.h"

using namespace fixture;
using namespace script;
using support::asyncCall;
using support::Call;
using support::EciParms;
using support::failCall;
using support::failCallOn;
using support::Fault;
using support::Threads;
using support::TraceFile;

namespace {

// The lockings of the table by an asynchronous call: for its slot, for its beginning, and when it
// could not be sent.
constexpr int lockBehindTheSending = 3;

class FailureBehindAFailure : public ReceiverTest {
protected:
    // An asynchronous call of which nothing can be sent.
    int callThatCannotBeSent()
    {
        EciParms parms = asyncCall("PROG", text("data"));
        Fault unsent = failCall(Call::Send, 1, EPIPE, Threads::Calling);
        int rc = QPX_ECI_Execute(connection.token, &parms.record);
        EXPECT_EQ(1, unsent.hits());
        return rc;
    }

    // The number of lines of a point.
    static int linesOf(const TraceFile& trace, const std::string& message)
    {
        return trace.timesWroteText("*EXC*  " + message + "\n");
    }
};

const char* const noLock =
    "clapi_eci.performEciExecute() Failed to lock slot table to update async "
    "count";
const char* const notUnlocked = "clapi_eci.performEciExecute() Failed to unlock slot table after "
                                "updating async count";

} // namespace

TEST_F(FailureBehindAFailure, ToLockTheTableLeavesNoSenderBehind)
{
    TraceFile trace(3);
    {
        Fault fault = failCallOn(Call::MutexLock, &connection.token->tableLock.lock,
                                 lockBehindTheSending, EINVAL, Threads::Calling);
        EXPECT_RC(QPX_ERR_LOSTGWCON, callThatCannotBeSent());
        EXPECT_EQ(1, fault.hits());
    }

    EXPECT_EQ(1, linesOf(trace, noLock));
    EXPECT_EQ(0, connection.token->senders);
    lose(connection, trace); // the receiver waits for nobody
}

TEST_F(FailureBehindAFailure, ToUnlockTheTableIsTold)
{
    TraceFile trace(1);
    {
        Fault fault = failCallOn(Call::MutexUnlock, &connection.token->tableLock.lock,
                                 lockBehindTheSending, EPERM, Threads::Calling);
        EXPECT_RC(QPX_ERR_LOSTGWCON, callThatCannotBeSent());
        EXPECT_EQ(1, fault.hits());
    }

    EXPECT_EQ(1, linesOf(trace, notUnlocked));
}

TEST_F(FailureBehindAFailure, IsNotToldWhereThereIsNone)
{
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_LOSTGWCON, callThatCannotBeSent());

    EXPECT_EQ(0, linesOf(trace, noLock));
    EXPECT_EQ(0, linesOf(trace, notUnlocked));
}

TEST_F(FailureBehindAFailure, OfTheTableAtACloseIsTold)
{
    TraceFile trace(1);
    connection.peer.close();
    ASSERT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
    {
        Fault fault = failCallOn(Call::MutexLock, &connection.token->tableLock.lock, 1, EINVAL,
                                 Threads::Calling);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, QPX_closeGatewayConnection(&connection.token));
    }

    EXPECT_EQ(1, linesOf(trace, "clapi_gwytok.quiesceConnection() Failed to lock slot table"));
    EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());
    connection.forget();
}

TEST_F(FailureBehindAFailure, ToGiveTheListUpBeforeTheQuiesceIsTold)
{
    TraceFile trace(1);
    connection.peer.close();
    ASSERT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
    ASSERT_RC(QPX_OK, clapiCloseGatewayToken(connection.token, 1));
    {
        Fault fault = failCallOn(Call::MutexUnlock, &gtlLock.lock, 1, EPERM, Threads::Calling);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR,
                  clapiDeleteClosingToken(&connection.token, connection.token, 0));
    }

    EXPECT_EQ(1, linesOf(trace, "clapi_gwytok.clapiDeleteGatewayToken() Failed to unlock Gateway "
                                "token list"));
    EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());
    connection.forget();
}

TEST_F(FailureBehindAFailure, ToLockTheListLeavesACloseOfAllWithNoneDeleted)
{
    TraceFile trace(3);
    {
        Fault fault = failCallOn(Call::MutexLock, &gtlLock.lock, 1, EINVAL, Threads::Calling);
        EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());
        EXPECT_EQ(1, fault.hits());
    }

    EXPECT_TRUE(
        trace.wrote(2037, "clapi_gwytok.clapiDeleteGatewayTokens() Entries deleted=0, rc=0"));
    expectStillServing(connection);
}
