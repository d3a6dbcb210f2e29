// A token means one connection: what becomes of a variable whose connection has been closed, and of
// closes that meet while other connections are opened at the addresses of closed ones.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "support/descriptors.h"
#include "support/forked.h"
#include "unit/connect_fixture.h"

using namespace fixture;
using namespace script;
using support::Call;
using support::EciParms;
using support::failCall;
using support::failCallOn;
using support::fakeCall;
using support::Fault;
using support::Gate;
using support::inChild;
using support::syncCall;
using support::Threads;
using support::TraceFile;

namespace {

enum class Role { None, Closer };
thread_local Role role = Role::None;
thread_local int listCalls = 0; // how often the closer has come to lock the list, or unlock it

// Keeps the memory of a token when the library gives it back, so that the next token can be made in
// the same place, whatever the heap would do.
class KeptRecord {
public:
    explicit KeptRecord(QPX_ConnToken_t token)
        : token_(token), kept_(failCallOn(Call::Free, token, 1, 0))
    {
    }

    bool isFreed() const { return kept_.hits() == 1; }

    // The next block that another thread asks for. The record has been freed.
    Fault giveOut() const
    {
        return fakeCall(Call::Malloc, 1, static_cast<long>(asNumber(token_)), Threads::Others);
    }

    // Unless the record has been used again.
    void freeForReal() { std::free(token_); }

private:
    QPX_ConnToken_t token_;
    Fault kept_;
};

// Closes others until the record, whose connection has been closed, has rested and is freed.
void restOut(const KeptRecord& record)
{
    for (int others = 0; others < 100 && !record.isFreed(); ++others) {
        ScriptedConnection other;
        other.closeInOrder();
    }
    ASSERT_TRUE(record.isFreed());
}

void expectServing(ScriptedConnection& connection)
{
    EciParms parms = syncCall("PROG", text("question"));
    auto call = connection.start(parms);
    connection.peer.send(eciReply(connection.awaitRequest().messageId(), text("answered")));
    EXPECT_RC(QPX_OK, call.get());
    EXPECT_EQ(text("answered"), parms.commarea());
}

bool isListed(const void* token)
{
    return support::contains(dumpedTokens(), "GatwayToken(" + shown(token) + ") ");
}

int close(QPX_ConnToken_t token)
{
    return QPX_closeGatewayConnection(&token);
}

int purge(QPX_ConnToken_t token)
{
    return QPX_purgeGatewayConnection(&token, 0);
}

// ---- A token whose open has not ended ----

class TokenBeingOpened : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_RC(QPX_OK, clapiInit()); }

    // The Gateway has the handshake, and answers it when the test says so.
    void beginOpen()
    {
        opening = std::make_unique<support::RunningCall<int>>(callInThread([this] {
            return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &opened, 0);
        }));
        peer = gateway.accept();
        peer.read(handshakeSize);
    }

    void endOpen()
    {
        peer.send(handshakeAnswer());
        EXPECT_RC(QPX_OK, opening->get());
    }

    void closeOpened()
    {
        auto closing = callInThread([this] { return QPX_closeGatewayConnection(&opened); });
        EXPECT_EQ(closeFlow(), peer.read(33));
        peer.send(closeFlow());
        EXPECT_RC(QPX_OK, closing.get());
        EXPECT_EQ(emptyList(), dumpedTokens());
    }

    void expectUnknown(_QPX_ConnToken_t* token)
    {
        std::string notFound = "Gateway token=" + shown(token) + " not found, findRc=1003\n";
        TraceFile trace(1);
        ASSERT_RC(QPX_ERR_BADGWTOK, clapiRegisterRequest(token));
        EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.clapiRegisterRequest() " + notFound));
        char* applid = nullptr;
        EXPECT_RC(QPX_ERR_BADGWTOK, QPX_getApplid(token, &applid));
        EXPECT_RC(QPX_ERR_BADGWTOK, QPX_getApplidQualifier(token, &applid));
        EciParms parms = syncCall("PROG", text("question"));
        EXPECT_RC(QPX_ERR_BADGWTOK, QPX_ECI_Execute(token, &parms.record));
        unsigned short systems = 0;
        EXPECT_RC(QPX_ERR_BADGWTOK, QPX_listSystems(token, &systems, nullptr));
        trace.forget();
        EXPECT_RC(QPX_ERR_BADGWTOK, callInThread([token] { return close(token); }).get());
        EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.clapiCloseGatewayToken() " + notFound));
        EXPECT_RC(QPX_ERR_BADGWTOK, callInThread([token] { return purge(token); }).get());
        trace.forget();
        EXPECT_RC(QPX_ERR_BADGWTOK, clapiDeleteGatewayToken(&token, 0, 1));
        EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.clapiDeleteGatewayToken() " + notFound));
        EXPECT_TRUE(peer.isQuiet());
    }

    ScriptedGateway gateway;
    Peer peer;
    QPX_ConnToken_t opened = nullptr;
    std::unique_ptr<support::RunningCall<int>> opening;
};

TEST_F(TokenBeingOpened, IsUnknownToWhoeverNamesIt)
{
    TraceFile trace(3);
    beginOpen();
    _QPX_ConnToken_t* token = tokenInTrace(trace);

    expectUnknown(token);

    endOpen();
    EXPECT_EQ(token, opened);
    char* applid = nullptr;
    EXPECT_RC(QPX_OK, QPX_getApplid(opened, &applid));
    closeOpened();
}

TEST_F(TokenBeingOpened, IsOnTheListForDumpsAndPositions)
{
    TraceFile trace(3);
    beginOpen();
    _QPX_ConnToken_t* token = tokenInTrace(trace);
    EXPECT_TRUE(isListed(token));
    ScriptedConnection behind;
    char* applid = nullptr;
    TraceFile positions(4);

    EXPECT_RC(QPX_OK, QPX_getApplid(behind.token, &applid));
    EXPECT_RC(QPX_ERR_BADGWTOK, QPX_getApplid(token, &applid));

    EXPECT_TRUE(positions.wroteText("findGatewayToken() Token found at GTL Entry(1)"));
    EXPECT_TRUE(positions.wroteText("findGatewayToken() Token not found. GTL entries(1) head(" +
                                    shown(token) + ") last(" + shown(behind.token) + ")\n"));
    behind.closeInOrder();
    endOpen();
    closeOpened();
}

TEST_F(TokenBeingOpened, IsNotClosedByAStaleVariableWithItsAddress)
{
    auto first = std::make_unique<ScriptedConnection>();
    QPX_ConnToken_t stale = first->token;
    KeptRecord record(stale);
    first->closeInOrder();
    restOut(record);
    TraceFile trace(3);
    Fault reuse = record.giveOut();
    beginOpen();
    ASSERT_EQ(stale, tokenInTrace(trace));

    expectUnknown(stale);

    endOpen();
    EXPECT_EQ(stale, opened);
    closeOpened();
}

TEST_F(TokenBeingOpened, IsFreedByItsOpenThatFails)
{
    TraceFile trace(3);
    beginOpen();
    _QPX_ConnToken_t* token = tokenInTrace(trace);
    KeptRecord record(token);

    peer.close();

    EXPECT_RC(QPX_ERR_LOSTGWCON, opening->get());
    EXPECT_EQ(emptyList(), dumpedTokens());
    EXPECT_TRUE(record.isFreed()); // nobody has ever known it
    EXPECT_RC(QPX_ERR_BADGWTOK, close(token));
    record.freeForReal();
}

// ---- A variable whose connection has been closed ----

TEST(StaleToken, IsTellingOfAClosedConnectionForAWhile)
{
    ScriptedConnection connection;
    QPX_ConnToken_t stale = connection.token;
    KeptRecord record(stale);
    connection.closeInOrder();
    // What is freed may be overwritten.
    if (record.isFreed()) std::memset(static_cast<void*>(stale), 0, sizeof *stale);
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, close(stale));
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, purge(stale));

    EXPECT_EQ("", trace.text());
    char* applid = nullptr;
    EXPECT_RC(QPX_ERR_BADGWTOK, QPX_getApplid(stale, &applid));
}

TEST(StaleToken, IsUnknownOnceSixtyFourOthersHaveBeenClosedBehindIt)
{
    std::vector<QPX_ConnToken_t> closed;
    auto closeOne = [&closed] {
        ScriptedConnection connection;
        closed.push_back(connection.token);
        connection.closeInOrder();
    };
    closeOne();
    KeptRecord first(closed[0]);
    closeOne();
    KeptRecord second(closed[1]);
    while (closed.size() < 64) closeOne();
    EXPECT_FALSE(first.isFreed());
    for (QPX_ConnToken_t stale : closed) EXPECT_RC(QPX_ERR_GWTOK_CLOSED, close(stale));

    closeOne();

    EXPECT_TRUE(first.isFreed());
    EXPECT_FALSE(second.isFreed());
    EXPECT_RC(QPX_ERR_BADGWTOK, close(closed[0]));
    for (std::size_t at = 1; at < closed.size(); ++at)
        EXPECT_RC(QPX_ERR_GWTOK_CLOSED, close(closed[at])) << at;
    first.freeForReal();
}

// The receiver may still be leaving its event when the record is erased.
bool isErasedButForTheReceiversEvent(const _QPX_ConnToken_t* record)
{
    const auto* bytes = reinterpret_cast<const char*>(record);
    const auto* event = reinterpret_cast<const char*>(&record->recvThreadEndedEvent);
    const char* behind = event + sizeof record->recvThreadEndedEvent;
    auto isZero = [](char byte) { return byte == 0; };
    return std::all_of(bytes, event, isZero) && std::all_of(behind, bytes + sizeof *record, isZero);
}

TEST(StaleToken, HasNothingOfTheConnectionLeftInItsMemory)
{
    QPX_ConnToken_t token = nullptr;
    ScriptedGateway gateway;
    char applid[] = "SECRETID";
    char none[] = "";
    auto opening = callInThread([&] {
        return QPX_openRemoteGatewayConnectionApplid(localHost(), gateway.port(), &token, 0, applid,
                                                     none);
    });
    Peer peer = gateway.accept();
    peer.read(handshakeSize + 8);
    peer.send(handshakeAnswer());
    ASSERT_RC(QPX_OK, opening.get());
    auto closing = callInThread([&token] { return QPX_closeGatewayConnection(&token); });
    EXPECT_EQ(closeFlow(), peer.read(33));
    peer.send(closeFlow());
    EXPECT_RC(QPX_OK, closing.get());

    bool wiped = false;
    Fault freeing = support::beforeCall(Call::Free, 0, [&](const support::CallInfo& info) {
        if (info.first != asNumber(token)) return;
        wiped = isErasedButForTheReceiversEvent(token);
    });
    for (int others = 0; others < 64; ++others) {
        ScriptedConnection other;
        other.closeInOrder();
    }

    EXPECT_TRUE(wiped);
}

// ---- Between the mark of a close and its delete ----

class MarkedToken : public ::testing::Test {
protected:
    // The closer has marked the token, and gives the list up, or comes to lock it once more.
    void markOnly(Call where, QPX_ConnToken_t* variable, bool purges)
    {
        int nth = where == Call::MutexUnlock ? 1 : 2;
        stop = std::make_unique<Fault>(stopAtLock(where, gtlLock.lock, marked, [nth] {
            return role == Role::Closer && ++listCalls == nth;
        }));
        closing = std::make_unique<support::RunningCall<int>>(callInThread([variable, purges] {
            role = Role::Closer;
            return purges ? QPX_purgeGatewayConnection(variable, 0)
                          : QPX_closeGatewayConnection(variable);
        }));
        ASSERT_TRUE(marked.awaitArrival());
    }

    // Another thread closes all connections meanwhile, and one is opened where the token was, if
    // that is free for it. The close goes on.
    void expectOnlyItsOwnDeleted(bool purges)
    {
        ScriptedConnection connection;
        KeptRecord record(connection.token);
        QPX_ConnToken_t variable = connection.token;
        markOnly(Call::MutexLock, &variable, purges);
        auto closingAll = callInThread([] { return QPX_closeAllGatewayConnections(); });
        connection.answerClose();
        EXPECT_RC(QPX_OK, closingAll.get());
        connection.forget();
        std::unique_ptr<Fault> reuse;
        if (record.isFreed()) reuse = std::make_unique<Fault>(record.giveOut());
        ScriptedConnection other;
        reuse.reset();

        marked.open();

        int rc = awaitClosing(other);
        EXPECT_RC(QPX_OK, rc);
        ASSERT_TRUE(isListed(other.token));
        EXPECT_FALSE(isListed(variable));
        expectServing(other);
        other.closeInOrder();
        EXPECT_EQ(emptyList(), dumpedTokens());
    }

    // Lets a close of a stranger's connection end, too.
    int awaitClosing(ScriptedConnection& stranger)
    {
        for (int tries = 0; !closing->hasEnded() && tries < 100; ++tries)
            if (!stranger.peer.isQuiet()) stranger.peer.send(closeFlow());
        return closing->get();
    }

    Gate marked;
    std::unique_ptr<Fault> stop;
    std::unique_ptr<support::RunningCall<int>> closing;
};

TEST_F(MarkedToken, IsTheOneThatItsCloseDeletes)
{
    expectOnlyItsOwnDeleted(false);
}

TEST_F(MarkedToken, IsTheOneThatItsPurgeDeletes)
{
    expectOnlyItsOwnDeleted(true);
}

TEST_F(MarkedToken, IsTheOneDeletedThoughTheVariableNamesAnotherByThen)
{
    ScriptedConnection connection;
    ScriptedConnection other;
    QPX_ConnToken_t variable = connection.token;
    TraceFile trace(3);
    markOnly(Call::MutexUnlock, &variable, false);
    variable = other.token;
    std::string place = shown(&variable);

    marked.open();

    ASSERT_TRUE(trace.awaitText("clapi_gwytok.quiesceConnection(gwToken=<ptr>, closeTimeout=-1)"));
    ASSERT_TRUE(trace.wroteText("clapi_gwytok.quiesceConnection(gwToken=" +
                                shown(connection.token) + ", closeTimeout=-1)"));
    connection.answerClose();
    EXPECT_RC(QPX_OK, closing->get());
    EXPECT_TRUE(trace.wroteText("clapi_gwytok.clapiDeleteGatewayToken(gwTokPtr=" + place +
                                ", closeTimeout=-1, lockRequired=TRUE)\n"));
    EXPECT_TRUE(trace.wroteText("Closed Gateway connection for token " + place + "\n"));
    EXPECT_EQ(other.token, variable);
    connection.forget();
    expectServing(other);
    other.closeInOrder();
}

TEST_F(MarkedToken, IsTheOneDeletedThoughTheVariableIsClearedByThen)
{
    ScriptedConnection connection;
    QPX_ConnToken_t variable = connection.token;
    markOnly(Call::MutexUnlock, &variable, false);
    variable = nullptr;

    marked.open();

    connection.answerClose();
    EXPECT_RC(QPX_OK, closing->get());
    connection.forget();
    EXPECT_EQ(emptyList(), dumpedTokens());
}

// ---- A close that cannot go on ----

class CloseThatCannotGoOn : public MarkedToken {
protected:
    // No count of it is left, for which the token would stay for ever.
    void expectFreedByAnother()
    {
        EXPECT_EQ(1, connection.token->closedown.load());
        EXPECT_EQ(0, connection.token->deleters.load());
        auto closingAll = callInThread([] { return QPX_closeAllGatewayConnections(); });
        connection.answerClose();
        EXPECT_RC(QPX_OK, closingAll.get());
        connection.forget();
        EXPECT_EQ(emptyList(), dumpedTokens());
    }

    ScriptedConnection connection;
};

TEST_F(CloseThatCannotGoOn, LeavesTheTokenToACloseOfAllWhenTheListCannotBeLocked)
{
    {
        Fault failing = failCallOn(Call::MutexLock, &gtlLock.lock, 2, EINVAL, Threads::Others);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, connection.startClose().get());
        EXPECT_EQ(1, failing.hits());
    }

    expectFreedByAnother();
}

TEST_F(CloseThatCannotGoOn, LeavesTheTokenToACloseOfAllWhenTheListCannotBeReleased)
{
    ASSERT_RC(QPX_OK, clapiCloseGatewayToken(connection.token, 1));
    {
        Fault fault = failCall(Call::MutexUnlock, 1, EPERM, Threads::Calling);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR,
                  clapiDeleteClosingToken(&connection.token, connection.token, 0));
        EXPECT_EQ(1, fault.hits());
    }

    expectFreedByAnother();
}

TEST_F(CloseThatCannotGoOn, LeavesTheTokenToACloseOfAllWhenTheListCannotBeLockedAfterTheQuiesce)
{
    auto failing = connection.startClose();
    EXPECT_EQ(closeFlow(), connection.peer.read(33));
    {
        BrokenLock noList(gtlLock);
        connection.peer.send(closeFlow());
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, failing.get());
    }

    EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());

    connection.forget();
    EXPECT_EQ(emptyList(), dumpedTokens());
}

TEST_F(CloseThatCannotGoOn, IsNotCountedWhenTheTokenIsClosingAlready)
{
    auto first = connection.startClose();
    EXPECT_EQ(closeFlow(), connection.peer.read(33));

    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, close(connection.token));

    EXPECT_EQ(1, connection.token->deleters.load());
    connection.peer.send(closeFlow());
    EXPECT_RC(QPX_OK, first.get());
    connection.forget();
    EXPECT_EQ(emptyList(), dumpedTokens());
}

// ---- The walk of a close of all connections ----

class WalkOfCloseAll : public ::testing::Test {
protected:
    // The close flow of the first connection is written and not answered.
    void beginWalk()
    {
        closingAll = std::make_unique<support::RunningCall<int>>(
            callInThread([] { return QPX_closeAllGatewayConnections(); }));
        EXPECT_EQ(closeFlow(), a.peer.read(33));
    }

    void answerFirst()
    {
        a.peer.send(closeFlow());
        a.forget();
    }

    static void answer(ScriptedConnection& connection)
    {
        connection.answerClose();
        connection.forget();
    }

    // The connection is lost as its close flow is written: the token stays, closing.
    static void closeInVain(ScriptedConnection& connection)
    {
        Fault fault = failCall(Call::Send, 1, EPIPE);
        auto closing = connection.startClose();
        ASSERT_TRUE(fault.awaitHits());
        connection.peer.close();
        ASSERT_RC(QPX_ERR_LOSTGWCON, closing.get());
    }

    void expectEnd()
    {
        EXPECT_RC(QPX_OK, closingAll->get());
        EXPECT_EQ(emptyList(), dumpedTokens());
    }

    ScriptedConnection a;
    ScriptedConnection b;
    std::unique_ptr<support::RunningCall<int>> closingAll;
};

TEST_F(WalkOfCloseAll, ComesToEveryTokenThoughOneIsOpenedWhereItsSuccessorWas)
{
    ScriptedConnection c;
    ScriptedConnection d;
    QPX_ConnToken_t successor = b.token;
    KeptRecord record(successor);
    beginWalk();
    b.closeInOrder();
    restOut(record);
    Fault reuse = record.giveOut();
    ScriptedConnection e;
    ASSERT_EQ(successor, e.token);

    answerFirst();

    answer(c);
    answer(d);
    answer(e);
    expectEnd();
}

TEST_F(WalkOfCloseAll, FreesATokenOfAFailedCloseAlthoughItsNeighbourHasGone)
{
    ScriptedConnection c;
    closeInVain(c);
    beginWalk();
    b.closeInOrder();

    answerFirst();

    expectEnd();
    c.forget();
}

TEST_F(WalkOfCloseAll, FreesATokenOfACloseThatFailsMeanwhile)
{
    ScriptedConnection c;
    beginWalk();
    closeInVain(c);
    b.closeInOrder();

    answerFirst();

    expectEnd();
    c.forget();
}

TEST_F(WalkOfCloseAll, ComesToAConnectionOpenedBeforeItHasReachedTheEndOfTheList)
{
    beginWalk();
    ScriptedConnection opened;

    answerFirst();
    answer(b);
    answer(opened);

    expectEnd();
}

TEST_F(WalkOfCloseAll, EndsAlthoughOthersGoOnOpening)
{
    beginWalk();
    ScriptedConnection opened;
    answerFirst();
    // The last of those that were there at the beginning.
    EXPECT_EQ(closeFlow(), b.peer.read(33));
    ScriptedConnection another;

    b.peer.send(closeFlow());
    b.forget();
    answer(opened);

    EXPECT_RC(QPX_OK, closingAll->get());
    EXPECT_TRUE(another.peer.isQuiet());
    ASSERT_NE(nullptr, another.token);
    expectServing(another);
    another.closeInOrder();
}

// ---- The child of a fork ----

class ForkedTokens : public ::testing::Test {
protected:
    ScriptedConnection first;
    ScriptedConnection second;
};

TEST_F(ForkedTokens, AreNotOnTheListOfTheChild)
{
    int found = inChild([this] {
        char* applid = nullptr;
        if (QPX_getApplid(first.token, &applid) != QPX_ERR_BADGWTOK) return 1;
        if (close(second.token) != QPX_ERR_BADGWTOK) return 2;
        return QPX_closeAllGatewayConnections() == QPX_OK ? 0 : 3;
    });

    EXPECT_EQ(0, found);
    EXPECT_TRUE(first.peer.isQuiet());
    expectServing(first);
    expectServing(second);
    first.closeInOrder();
    second.closeInOrder();
}

TEST_F(ForkedTokens, HaveTheirSocketsClosedInTheChildOnly)
{
    int number = first.token->socketDescriptor;
    int other = second.token->socketDescriptor;

    int found = inChild([=] {
        if (support::descriptorIsOpen(number)) return 1;
        return support::descriptorIsOpen(other) ? 2 : 0;
    });

    EXPECT_EQ(0, found);
    EXPECT_TRUE(support::descriptorIsOpen(number));
    expectServing(first);
    first.closeInOrder();
    second.closeInOrder();
}

TEST_F(ForkedTokens, LeaveADescriptorAloneThatHasTheNumberOfAClosedSocket)
{
    int number = first.token->socketDescriptor;
    first.peer.close();
    ASSERT_EQ(0, clapiWaitEvent(&first.token->recvThreadEndedEvent));
    auto ends = support::socketPair();
    ASSERT_EQ(number, dup2(ends.first.fd(), number));

    int found = inChild([=] { return support::descriptorIsOpen(number) ? 0 : 1; });

    EXPECT_EQ(0, found);
    ::close(number);
    second.closeInOrder();
}

TEST_F(ForkedTokens, LeaveTheChildAListOfItsOwn)
{
    int found = inChild([] {
        clapiRequestLock(&gtlLock);
        clapiForgetTokens(); // a child of the child's, as it were
        clapiReleaseLock(&gtlLock);
        return QPX_closeAllGatewayConnections() == QPX_OK ? 0 : 1;
    });

    EXPECT_EQ(0, found);
    first.closeInOrder();
    second.closeInOrder();
}

} // namespace
