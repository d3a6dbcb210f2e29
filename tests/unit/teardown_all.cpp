// Closing every connection at once, alone and while other threads open, close and call.
#include <memory>
#include <vector>

#include "unit/connect_fixture.h"

using namespace fixture;
using namespace script;
using support::afterCall;
using support::asyncCall;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::EciParms;
using support::Fault;
using support::Gate;
using support::getReplyWait;
using support::syncCall;
using support::Threads;
using support::TraceFile;

namespace {

thread_local bool closesAll = false;

class TeardownAll : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_RC(QPX_OK, clapiInit()); }

    support::RunningCall<int> startClosingAll()
    {
        return callInThread([] {
            closesAll = true;
            return QPX_closeAllGatewayConnections();
        });
    }

    // Answers the close flows of these, in this order, and forgets them.
    static void answerAll(const std::vector<ScriptedConnection*>& connections)
    {
        for (ScriptedConnection* connection : connections) {
            connection->answerClose();
            connection->forget();
        }
    }

    // The lock of the list is free, and has been given up exactly as often as it was taken.
    static void expectListLockIntact()
    {
        EXPECT_EQ(0, clapiDestroyLock(&gtlLock));
        EXPECT_EQ(0, clapiInitializeLock(&gtlLock));
    }
};

std::string entryLine(const std::string& number, const void* token)
{
    return "clapi_gwytok.clapiDeleteGatewayTokens(indexToken=" + shown(token) + ") GTL entry " +
           number + ": GatwayToken(" + shown(token) +
           ") eyecatcher(QPXGWTOK) port(<int>) connStatus(1) socket(<int>) applid() applidQual() "
           "nextGwyTokPtr(<any>)";
}

TEST_F(TeardownAll, DoesNothingWithAnEmptyList)
{
    TraceFile trace(3);

    EXPECT_RC(QPX_OK, clapiDeleteGatewayTokens());
    clapiDeleteGatewayTokens();

    EXPECT_EQ(2, trace.timesWrote(2034));
    EXPECT_TRUE(trace.wrote(2036, "EVENT", "clapi_gwytok.clapiDeleteGatewayTokens() GTL is EMPTY"));
    EXPECT_FALSE(trace.wroteText("GTL is EMPTY\n"));
    EXPECT_TRUE(trace.wrote(2037, "EXIT",
                            "clapi_gwytok.clapiDeleteGatewayTokens() Entries deleted=0, rc=0"));
    expectListLockIntact();
}

TEST_F(TeardownAll, ClosesNothingWhenTheListCannotBeLocked)
{
    ScriptedConnection only;
    BrokenLock noList(gtlLock);
    TraceFile trace(3);

    EXPECT_RC(QPX_OK, clapiDeleteGatewayTokens());

    EXPECT_TRUE(trace.wrote(2037, "EXIT",
                            "clapi_gwytok.clapiDeleteGatewayTokens() Entries deleted=0, rc=0"));
    EXPECT_EQ(0, only.token->closedown.load());
}

TEST_F(TeardownAll, ClosesTheOnlyConnection)
{
    ScriptedConnection only;
    std::string line = entryLine("0001", only.token);
    TraceFile trace(3);
    auto closing = startClosingAll();

    answerAll({&only});

    EXPECT_RC(QPX_OK, closing.get());
    EXPECT_TRUE(trace.wrote(2035, "EVENT", line)) << trace.text();
    EXPECT_TRUE(trace.wrote(2037, "EXIT",
                            "clapi_gwytok.clapiDeleteGatewayTokens() Entries deleted=1, rc=0"));
    EXPECT_TRUE(trace.wroteText("clapi_gwytok.clapiCloseGatewayToken(gwTokPtr=<ptr>, "
                                "lockRequired=FALSE)\n"));
    EXPECT_TRUE(trace.wroteText("clapi_gwytok.clapiDeleteGatewayToken(gwTokPtr=<ptr>, "
                                "closeTimeout=0, lockRequired=FALSE)\n"));
    EXPECT_EQ(0, trace.timesWrote(2036));
}

TEST_F(TeardownAll, ClosesSeveralConnectionsInTheOrderOfTheList)
{
    ScriptedConnection first;
    ScriptedConnection second;
    ScriptedConnection third;
    std::vector<std::string> lines{entryLine("0001", first.token), entryLine("0002", second.token),
                                   entryLine("0003", third.token)};
    TraceFile trace(3);
    auto closing = startClosingAll();

    answerAll({&first, &second, &third});

    EXPECT_RC(QPX_OK, closing.get());
    for (const std::string& line : lines) EXPECT_TRUE(trace.wrote(2035, "EVENT", line)) << line;
    EXPECT_TRUE(trace.wrote(2037, "EXIT",
                            "clapi_gwytok.clapiDeleteGatewayTokens() Entries deleted=3, rc=0"));
    EXPECT_EQ(emptyList(), dumpedTokens());
}

TEST_F(TeardownAll, ClosesOneConnectionAfterTheOther)
{
    ScriptedConnection first;
    ScriptedConnection second;
    auto closing = startClosingAll();
    EXPECT_EQ(closeFlow(), first.peer.read(33));

    EXPECT_TRUE(second.peer.isQuiet());

    first.peer.send(closeFlow());
    first.forget();
    answerAll({&second});
    EXPECT_RC(QPX_OK, closing.get());
}

TEST_F(TeardownAll, ClosesLostConnectionsToo)
{
    ScriptedConnection lost;
    ScriptedConnection open;
    lost.peer.close();
    ASSERT_EQ(0, clapiWaitEvent(&lost.token->recvThreadEndedEvent));
    auto closing = startClosingAll();

    lost.forget();
    answerAll({&open});

    EXPECT_RC(QPX_OK, closing.get());
    EXPECT_EQ(emptyList(), dumpedTokens());
}

TEST_F(TeardownAll, EndsCallsThatAreInProgress)
{
    ScriptedConnection first;
    ScriptedConnection second;
    EciParms one = syncCall("ONE", text("question"));
    EciParms two = syncCall("TWO", text("question"));
    EciParms three = asyncCall("THREE", text("question"));
    auto callOnFirst = first.start(one);
    first.awaitRequest();
    auto callOnSecond = second.start(two);
    second.awaitRequest();
    EXPECT_RC(QPX_OK, QPX_ECI_Execute(second.token, &three.record));
    second.awaitRequest();
    auto closing = startClosingAll();

    answerAll({&first, &second});

    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, callOnFirst.get());
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, callOnSecond.get());
    EXPECT_RC(QPX_OK, closing.get());
    EXPECT_EQ(emptyList(), dumpedTokens());
}

TEST_F(TeardownAll, EndsCallsThatWaitForAReply)
{
    ScriptedConnection connection;
    EciParms parms = getReplyWait(8);
    Fault sleeps = beforeCall(
        Call::CondWait, 0, [](const CallInfo&) {}, Threads::Others);
    auto waiting = connection.start(parms);
    ASSERT_TRUE(sleeps.awaitHits(1));
    auto closing = startClosingAll();

    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, waiting.get());

    answerAll({&connection});
    EXPECT_RC(QPX_OK, closing.get());
}

TEST_F(TeardownAll, WaitsForACallThatIsStillInside)
{
    static thread_local bool calls = false;
    ScriptedConnection connection;
    Gate inside;
    TraceFile trace(2);
    EciParms parms = syncCall("PROG", text("question"));
    auto call = callInThread([&] {
        calls = true;
        return QPX_ECI_Execute(connection.token, &parms.record);
    });
    connection.awaitRequest();
    Fault stop = stopAtLock(Call::MutexLock, gtlLock.lock, inside, [] { return calls; });
    auto closing = startClosingAll();
    connection.answerClose();
    ASSERT_TRUE(inside.awaitArrival());
    ASSERT_TRUE(trace.awaitText("quiesceConnection() Waiting for 1 API calls to complete\n"));

    EXPECT_FALSE(closing.hasEnded());
    inside.open();

    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, call.get());
    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
}

TEST_F(TeardownAll, FreesATokenWhoseCloseFailed)
{
    ScriptedConnection connection;
    {
        Fault fault = support::failCall(Call::Send, 1, EPIPE);
        auto closing = connection.startClose();
        ASSERT_TRUE(fault.awaitHits());
        connection.peer.close();
        ASSERT_RC(QPX_ERR_LOSTGWCON, closing.get());
    }

    EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());

    connection.forget();
    EXPECT_EQ(emptyList(), dumpedTokens());
}

// ---- The lock of the list

TEST_F(TeardownAll, GivesTheLockOfTheListUpOnlyWhileItHoldsIt)
{
    static thread_local int held = 0; // how often this thread has the lock
    std::atomic<int> releases{0};
    std::atomic<int> foreignReleases{0};
    ScriptedConnection first;
    ScriptedConnection second;
    ScriptedConnection third;
    Fault taking = afterCall(Call::MutexLock, 0, [](const CallInfo& info) {
        if (info.first == asNumber(&gtlLock.lock) && info.result == 0) held += 1;
    });
    Fault giving = beforeCall(Call::MutexUnlock, 0, [&](const CallInfo& info) {
        if (info.first != asNumber(&gtlLock.lock)) return;
        releases += 1;
        if (held != 1) foreignReleases += 1;
        held = 0;
    });
    auto closing = startClosingAll();

    answerAll({&first, &second, &third});

    EXPECT_RC(QPX_OK, closing.get());
    EXPECT_LE(3, releases.load());
    EXPECT_EQ(0, foreignReleases.load());
    expectListLockIntact();
}

// Another thread takes the lock right after the first delete has given it up, and keeps it.
TEST_F(TeardownAll, LooksAtTheNextTokenOnlyUnderTheLockOfTheList)
{
    ScriptedConnection first;
    ScriptedConnection second;
    TraceFile trace(3);
    Gate between;
    Fault stop = stopAtLock(Call::MutexLock, gtlLock.lock, between,
                            [&trace] { return closesAll && trace.timesWrote(2033) == 1; });
    auto closing = startClosingAll();
    first.answerClose();
    first.forget();
    ASSERT_TRUE(between.awaitArrival());
    ASSERT_EQ(0, clapiRequestLock(&gtlLock));
    between.open();

    EXPECT_EQ(1, trace.timesWrote(2035));
    EXPECT_EQ(0, second.token->closedown.load());

    ASSERT_EQ(0, clapiReleaseLock(&gtlLock));
    answerAll({&second});
    EXPECT_RC(QPX_OK, closing.get());
    expectListLockIntact();
}

TEST_F(TeardownAll, LetsOthersUseTheListWhileItWaits)
{
    ScriptedConnection first;
    auto closing = startClosingAll();
    EXPECT_EQ(closeFlow(), first.peer.read(33));

    ScriptedConnection opened;
    char* applid = nullptr;
    EXPECT_RC(QPX_OK, QPX_getApplid(opened.token, &applid));
    opened.closeInOrder();

    first.peer.send(closeFlow());
    EXPECT_RC(QPX_OK, closing.get());
    first.forget();
}

// ---- Other threads close meanwhile

TEST_F(TeardownAll, EndsWhenItsSuccessorHasBeenClosedMeanwhile)
{
    ScriptedConnection first;
    ScriptedConnection second;
    auto closing = startClosingAll();
    EXPECT_EQ(closeFlow(), first.peer.read(33));
    second.closeInOrder();

    first.peer.send(closeFlow());

    EXPECT_RC(QPX_OK, closing.get());
    first.forget();
    EXPECT_EQ(emptyList(), dumpedTokens());
    expectListLockIntact();
}

TEST_F(TeardownAll, GoesOnWithTheOthersWhenItsSuccessorHasBeenClosedMeanwhile)
{
    ScriptedConnection first;
    ScriptedConnection second;
    ScriptedConnection third;
    ScriptedConnection fourth;
    auto closing = startClosingAll();
    EXPECT_EQ(closeFlow(), first.peer.read(33));
    second.closeInOrder();

    first.peer.send(closeFlow());
    first.forget();
    answerAll({&third, &fourth});

    EXPECT_RC(QPX_OK, closing.get());
    EXPECT_EQ(emptyList(), dumpedTokens());
}

TEST_F(TeardownAll, FreesATokenOnceThatAnotherThreadIsClosing)
{
    ScriptedConnection connection;
    auto own = connection.startClose();
    EXPECT_EQ(closeFlow(), connection.peer.read(33));

    auto closing = startClosingAll();
    EXPECT_EQ(closeFlow(), connection.peer.read(33));
    connection.peer.send(closeFlow());

    EXPECT_RC(QPX_OK, own.get());
    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
    EXPECT_EQ(emptyList(), dumpedTokens());
    expectListLockIntact();
}

TEST_F(TeardownAll, ReleasesACloseThatWaitsForWorkInProgress)
{
    ScriptedConnection connection;
    TraceFile trace(2);
    EciParms parms = asyncCall("PROG", text("question"));
    EXPECT_RC(QPX_OK, QPX_ECI_Execute(connection.token, &parms.record));
    connection.awaitRequest();
    auto own = connection.startClose();
    ASSERT_TRUE(trace.awaitText("quiesceConnection() Waiting for 0 API calls and 1 async "
                                "requests to complete\n"));

    auto closing = startClosingAll();
    connection.answerClose();

    EXPECT_RC(QPX_OK, closing.get());
    EXPECT_RC(QPX_OK, own.get());
    connection.forget();
    EXPECT_EQ(emptyList(), dumpedTokens());
}

TEST_F(TeardownAll, RunsTwiceAtTheSameTime)
{
    ScriptedConnection first;
    ScriptedConnection second;
    auto one = startClosingAll();
    EXPECT_EQ(closeFlow(), first.peer.read(33));
    auto two = startClosingAll();
    EXPECT_EQ(closeFlow(), first.peer.read(33));

    first.peer.send(closeFlow());
    second.peer.read(33);
    second.peer.send(closeFlow());

    EXPECT_RC(QPX_OK, one.get());
    EXPECT_RC(QPX_OK, two.get());
    first.forget();
    second.forget();
    EXPECT_EQ(emptyList(), dumpedTokens());
    expectListLockIntact();
}

// ---- Opens in progress

TEST_F(TeardownAll, PassesOverAConnectionThatIsBeingOpened)
{
    ScriptedGateway gateway;
    QPX_ConnToken_t token = nullptr;
    auto opening = callInThread(
        [&] { return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 0); });
    Peer peer = gateway.accept();
    peer.read(handshakeSize);
    TraceFile trace(3);

    EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());

    EXPECT_EQ(0, trace.timesWrote(2035));
    EXPECT_TRUE(trace.wroteText("Entries deleted=0, rc=0"));
    peer.send(handshakeAnswer());
    ASSERT_RC(QPX_OK, opening.get());
    EXPECT_EQ(0, token->closedown.load());
    auto closing = callInThread([&] { return QPX_closeGatewayConnection(&token); });
    EXPECT_EQ(closeFlow(), peer.read(33));
    peer.send(closeFlow());
    EXPECT_RC(QPX_OK, closing.get());
}

TEST_F(TeardownAll, PassesOverAConnectionThatIsBeingOpenedAmongOthers)
{
    ScriptedConnection before;
    ScriptedGateway gateway;
    QPX_ConnToken_t token = nullptr;
    auto opening = callInThread(
        [&] { return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 0); });
    Peer peer = gateway.accept();
    peer.read(handshakeSize);
    ScriptedConnection behind;

    auto closing = startClosingAll();
    answerAll({&before, &behind});
    EXPECT_RC(QPX_OK, closing.get());

    peer.close();
    EXPECT_RC(QPX_ERR_LOSTGWCON, opening.get());
    EXPECT_EQ(emptyList(), dumpedTokens());
}

// The connecting thread stands still between the answer to its handshake and its return.
TEST_F(TeardownAll, PassesOverAConnectionWhoseHandshakeHasJustBeenAnswered)
{
    static thread_local bool opens = false;
    ScriptedGateway gateway;
    QPX_ConnToken_t token = nullptr;
    TraceFile trace(3);
    Gate almostOpen;
    Fault stop = stopAtLock(Call::MutexLock, gtlLock.lock, almostOpen,
                            [&trace] { return opens && trace.wroteText("receiverThread(conn="); });
    auto opening = callInThread([&] {
        opens = true;
        return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 0);
    });
    Peer peer = gateway.accept();
    peer.read(handshakeSize);
    peer.send(handshakeAnswer());
    ASSERT_TRUE(almostOpen.awaitArrival());

    EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());

    EXPECT_TRUE(peer.isQuiet());
    almostOpen.open();
    ASSERT_RC(QPX_OK, opening.get());
    EXPECT_EQ(0, token->closedown.load());
    peer.close();
    QPX_closeGatewayConnection(&token);
}

} // namespace
