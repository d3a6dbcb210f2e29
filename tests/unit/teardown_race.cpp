// Calls that enter a token while it is being closed, and several threads that close it.
#include <vector>

#include "unit/connect_fixture.h"

using namespace fixture;
using namespace script;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::Fault;
using support::Gate;
using support::Threads;
using support::TraceFile;

namespace {

enum class Role { None, Closer, Caller };
thread_local Role role = Role::None;

class TeardownRace : public ::testing::Test {
protected:
    support::RunningCall<int> startClosing()
    {
        return callInThread([this] {
            role = Role::Closer;
            return QPX_closeGatewayConnection(&connection.token);
        });
    }

    // Reads the applid: a call that is inside the library from its first lock of the list to the
    // second.
    support::RunningCall<int> startCall()
    {
        return callInThread([gwTok = connection.token] {
            role = Role::Caller;
            char* applid = nullptr;
            return QPX_getApplid(gwTok, &applid);
        });
    }

    // Stops the close when the quiesce is over, before the token is taken off the list.
    Fault stopQuiescedCloser(Gate gate)
    {
        return stopAtLock(Call::MutexLock, gtlLock.lock, gate, [this] {
            return role == Role::Closer && connection.token->connStatus == 4;
        });
    }

    // Stops the caller before it leaves.
    Fault stopCallerInside(Gate inside)
    {
        return stopAtLock(Call::MutexLock, gtlLock.lock, inside, [this] {
            return role == Role::Caller && connection.token->requestCount == 1;
        });
    }

    // Tells when the closer sleeps until the last call has left.
    Fault watchCloserSleep()
    {
        return beforeCall(
            Call::CondWait, 0,
            [this, wanted = asNumber(&connection.token->requestsEnded.cond)](const CallInfo& info) {
                if (role == Role::Closer && info.first == wanted) closerSleeps.pass();
            });
    }

    // Leaves the event of the last call open, as it is after any call.
    void makeACall()
    {
        char* applid = nullptr;
        EXPECT_RC(QPX_OK, QPX_getApplid(connection.token, &applid));
        EXPECT_EQ(1, connection.token->requestsEnded.eflag);
    }

    void SetUp() override { closerSleeps.open(); }

    ScriptedConnection connection;
    Gate closerSleeps;
};

// Nothing was outstanding when the token was marked; a call enters before the quiesce begins.
TEST_F(TeardownRace, WaitsForACallThatEntersAfterTheTokenWasMarked)
{
    makeACall();
    Gate marked;
    Gate inside;
    Fault stopCloser = stopAtLock(Call::MutexLock, connection.token->tableLock.lock, marked,
                                  [] { return role == Role::Closer; });
    Fault stopCaller = stopCallerInside(inside);
    Fault sleep = watchCloserSleep();
    auto closing = startClosing();
    ASSERT_TRUE(marked.awaitArrival());
    EXPECT_EQ(1, connection.token->closedown.load());
    auto call = startCall();
    ASSERT_TRUE(inside.awaitArrival());

    marked.open();
    connection.answerClose();

    ASSERT_TRUE(closerSleeps.awaitArrival());
    EXPECT_FALSE(closing.hasEnded());
    EXPECT_EQ(1, connection.token->requestCount.load());
    inside.open();
    EXPECT_RC(QPX_OK, call.get());
    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
    EXPECT_EQ(emptyList(), dumpedTokens());
}

// The quiesce is over; a call enters before the token is taken off the list.
TEST_F(TeardownRace, WaitsForACallThatEntersAfterTheQuiesce)
{
    makeACall();
    Gate quiesced;
    Gate inside;
    Fault stopCloser = stopQuiescedCloser(quiesced);
    Fault stopCaller = stopCallerInside(inside);
    Fault sleep = watchCloserSleep();
    auto closing = startClosing();
    connection.answerClose();
    ASSERT_TRUE(quiesced.awaitArrival());
    auto call = startCall();
    ASSERT_TRUE(inside.awaitArrival());

    quiesced.open();

    ASSERT_TRUE(closerSleeps.awaitArrival());
    EXPECT_FALSE(closing.hasEnded());
    inside.open();
    EXPECT_RC(QPX_OK, call.get());
    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
}

// While the close waits for the last call, no further one may enter.
TEST_F(TeardownRace, LetsNoCallEnterOnceTheTokenIsOffTheList)
{
    makeACall();
    Gate quiesced;
    Gate inside;
    Fault stopCloser = stopQuiescedCloser(quiesced);
    Fault stopCaller = stopCallerInside(inside);
    Fault sleep = watchCloserSleep();
    auto closing = startClosing();
    connection.answerClose();
    ASSERT_TRUE(quiesced.awaitArrival());
    auto call = startCall();
    ASSERT_TRUE(inside.awaitArrival());
    quiesced.open();
    ASSERT_TRUE(closerSleeps.awaitArrival());

    char* applid = nullptr;
    EXPECT_RC(QPX_ERR_BADGWTOK, QPX_getApplid(connection.token, &applid));

    inside.open();
    EXPECT_RC(QPX_OK, call.get());
    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
}

TEST_F(TeardownRace, FreesATokenOnceThatTwoThreadsDelete)
{
    ScriptedConnection head;
    ScriptedConnection tail;
    auto closing = startClosing();
    EXPECT_EQ(closeFlow(), connection.peer.read(33));
    auto deleting = callInThread(
        [this] { return clapiDeleteGatewayToken(&connection.token, 0, 1); });
    EXPECT_EQ(closeFlow(), connection.peer.read(33));

    connection.peer.send(closeFlow());

    EXPECT_RC(QPX_OK, closing.get());
    EXPECT_RC(QPX_OK, deleting.get());
    connection.forget();
    EXPECT_TRUE(support::contains(dumpedTokens(), "GatwayToken(" + shown(head.token) + ")"));
    EXPECT_TRUE(support::contains(dumpedTokens(), "GatwayToken(" + shown(tail.token) + ")"));
    EXPECT_TRUE(support::contains(dumpedTokens(), "Token List entries=2\n"));
    char* applid = nullptr;
    EXPECT_RC(QPX_OK, QPX_getApplid(head.token, &applid));
}

// The second delete comes to the list when the first one has quiesced, too.
TEST_F(TeardownRace, LeavesTheTokenToTheLastOfTwoDeletes)
{
    Gate quiesced;
    Fault stopCloser = stopQuiescedCloser(quiesced);
    auto closing = startClosing();
    EXPECT_EQ(closeFlow(), connection.peer.read(33));
    auto deleting = callInThread(
        [this] { return clapiDeleteGatewayToken(&connection.token, 0, 1); });
    EXPECT_EQ(closeFlow(), connection.peer.read(33));
    connection.peer.send(closeFlow());
    ASSERT_TRUE(quiesced.awaitArrival());
    EXPECT_RC(QPX_OK, deleting.get());

    EXPECT_EQ(1, connection.token->closedown.load());
    quiesced.open();

    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
    EXPECT_EQ(emptyList(), dumpedTokens());
}

TEST_F(TeardownRace, RefusesASecondCloseWhileTheFirstOneWaits)
{
    auto closing = startClosing();
    EXPECT_EQ(closeFlow(), connection.peer.read(33));

    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, QPX_closeGatewayConnection(&connection.token));
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, QPX_purgeGatewayConnection(&connection.token, 0));

    connection.peer.send(closeFlow());
    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
}

} // namespace
