// The order of locks, where the build looks at it: what is out of order ends the process.

#ifdef QPX_CHECK_LOCKS

#include <gtest/gtest.h>
#include <unistd.h>

#include <initializer_list>
#include <map>
#include <set>
#include <string>

#include "clapi_channel.h"
#include "clapi_diag.h"
#include "clapi_gwytok.h"
#include "clapi_impl.h"
#include "clapi_lock.h"
#include "support/call_in_thread.h"
#include "support/connection_script.h"
#include "support/faults.h"

using namespace support;

namespace {

const std::map<LockRank, std::string> names = {{RANK_INIT, "initGuard"},
                                               {RANK_TOKEN_LIST, "gtlLock"},
                                               {RANK_TABLE, "a tableLock"},
                                               {RANK_CHANNEL_LIST, "chanListLock"},
                                               {RANK_CHANNEL, "a serLock"},
                                               {RANK_SEND, "a sendLock"},
                                               {RANK_CONTAINERS, "containerListGuard"},
                                               {RANK_WAITERS, "waitersGuard"},
                                               {RANK_SOCKETS, "openSocketsGuard"},
                                               {RANK_CORRELATOR, "correlatorLock"},
                                               {RANK_EVENT, "the mutex of an event"},
                                               {RANK_TRACE, "traceLock"},
                                               {RANK_DESTINATION, "destinationLock"}};

// What a thread that holds the one may ask for.
const std::map<LockRank, std::set<LockRank>> mayFollow = {
    {RANK_INIT, {RANK_EVENT, RANK_TRACE, RANK_DESTINATION}},
    {RANK_TOKEN_LIST,
     {RANK_TABLE, RANK_CHANNEL_LIST, RANK_CHANNEL, RANK_CONTAINERS, RANK_WAITERS, RANK_EVENT,
      RANK_TRACE, RANK_DESTINATION}},
    {RANK_TABLE,
     {RANK_CHANNEL_LIST, RANK_CHANNEL, RANK_CONTAINERS, RANK_WAITERS, RANK_EVENT, RANK_TRACE,
      RANK_DESTINATION}},
    {RANK_CHANNEL_LIST,
     {RANK_CHANNEL, RANK_CONTAINERS, RANK_WAITERS, RANK_EVENT, RANK_TRACE, RANK_DESTINATION}},
    {RANK_CHANNEL, {RANK_CONTAINERS, RANK_WAITERS, RANK_EVENT, RANK_TRACE, RANK_DESTINATION}},
    {RANK_SEND, {RANK_EVENT, RANK_TRACE, RANK_DESTINATION}},
    {RANK_CONTAINERS, {}},
    {RANK_WAITERS, {}},
    {RANK_SOCKETS, {}},
    {RANK_CORRELATOR, {RANK_EVENT, RANK_TRACE, RANK_DESTINATION}},
    {RANK_EVENT, {RANK_TRACE, RANK_DESTINATION}},
    {RANK_TRACE, {RANK_DESTINATION}},
    {RANK_DESTINATION, {}}};

std::string refusal(const std::string& what, LockRank holding)
{
    return "lock order: " + what + " with " + names.at(holding) + " held";
}

// A lock as the library has them, but none of its own.
class RankedLock {
public:
    explicit RankedLock(LockRank rank)
    {
        EXPECT_EQ(0, clapiInitializeLock(&lock));
        clapiRankLock(&lock, rank);
    }
    ~RankedLock() { EXPECT_EQ(0, clapiDestroyLock(&lock)); }
    RankedLock(const RankedLock&) = delete;
    RankedLock& operator=(const RankedLock&) = delete;

    Clapilock lock{};
};

class OpenGate {
public:
    OpenGate()
    {
        EXPECT_EQ(0, clapiCreateEvent(&event));
        EXPECT_EQ(0, clapiClearEvent(&event));
    }
    ~OpenGate() { EXPECT_EQ(0, clapiDeleteEvent(&event)); }
    OpenGate(const OpenGate&) = delete;
    OpenGate& operator=(const OpenGate&) = delete;

    ClapiEvent event{};
};

class LockOrder : public ::testing::Test {
protected:
    LockOrder() { EXPECT_EQ(QPX_OK, clapiInit()); }
};

void takeBoth(Clapilock& first, Clapilock& second)
{
    LockGuard holdFirst(first);
    LockGuard holdSecond(second);
    EXPECT_TRUE(holdFirst.held() && holdSecond.held());
}

void takeBothForFork(Clapilock& first, Clapilock& second)
{
    EXPECT_EQ(0, clapiTakeForFork(&first));
    EXPECT_EQ(0, clapiTakeForFork(&second));
    clapiGiveUpAfterFork(&second);
    clapiGiveUpAfterFork(&first);
}

void waitAt(ClapiEvent& event, Clapilock& held)
{
    LockGuard hold(held);
    EXPECT_EQ(0, clapiWaitEvent(&event));
}

void waitForPeer(Clapilock& held)
{
    LockGuard hold(held);
    clapiCheckPeerWait();
}

// A condition that is there for whoever sleeps in vain.
pthread_cond_t condition = PTHREAD_COND_INITIALIZER;

} // namespace

TEST_F(LockOrder, LetsLocksBeTakenInTheirOrder)
{
    for (const auto& [holding, followers] : mayFollow) {
        for (LockRank wanted : followers) {
            RankedLock first(holding);
            RankedLock second(wanted);
            takeBoth(first.lock, second.lock);
        }
    }
}

// Of each lock another of its kind, a tableLock, the one that follows and the last of all, as far
// as they are refused.
TEST_F(LockOrder, EndsAProcessThatTakesTwoLocksOtherwise)
{
    for (const auto& [holding, followers] : mayFollow) {
        for (const auto& [wanted, nameOfWanted] : names) {
            SCOPED_TRACE(nameOfWanted + " behind " + names.at(holding));
            bool isNear = wanted == holding || wanted == holding + 1 || wanted == RANK_TABLE ||
                          wanted == RANK_DESTINATION;
            if (followers.count(wanted) != 0 || !isNear) continue;
            RankedLock first(holding);
            RankedLock second(wanted);
            EXPECT_DEATH(takeBoth(first.lock, second.lock),
                         refusal("asked for " + nameOfWanted, holding));
        }
    }
}

TEST_F(LockOrder, EndsAProcessThatTakesLocksForAForkOtherThanByTheirRanks)
{
    for (const auto& [holding, nameOfHolding] : names) {
        for (const auto& [wanted, nameOfWanted] : names) {
            SCOPED_TRACE(nameOfWanted + " behind " + nameOfHolding);
            RankedLock first(holding);
            RankedLock second(wanted);
            if (wanted > holding) {
                takeBothForFork(first.lock, second.lock);
            } else if (wanted == holding || wanted == holding - 1) {
                EXPECT_DEATH(takeBothForFork(first.lock, second.lock),
                             refusal("a fork asked for " + nameOfWanted, holding));
            }
        }
    }
}

TEST_F(LockOrder, EndsAProcessThatWaitsAtAnEventWithAnyLockHeld)
{
    OpenGate gate;
    for (const auto& [holding, name] : names) {
        RankedLock first(holding);
        EXPECT_DEATH(waitAt(gate.event, first.lock), refusal("waited", holding));
    }
}

TEST_F(LockOrder, EndsAProcessThatWaitsWithALimitOrSinceAGenerationWithALockHeld)
{
    OpenGate gate;
    RankedLock table(RANK_TABLE);
    int expired = 0;
    auto withLimit = [&] {
        LockGuard hold(table.lock);
        clapiTimedWaitEvent(&gate.event, 1, &expired);
    };
    auto since = [&] {
        LockGuard hold(table.lock);
        clapiWaitEventSince(&gate.event, 0);
    };
    EXPECT_DEATH(withLimit(), refusal("waited", RANK_TABLE));
    EXPECT_DEATH(since(), refusal("waited", RANK_TABLE));
}

TEST_F(LockOrder, EndsAProcessThatSleepsWithALockHeldBesidesTheOneThatItGivesUp)
{
    RankedLock tokens(RANK_TOKEN_LIST);
    RankedLock table(RANK_TABLE);
    ProcessLock waiters(RANK_WAITERS);
    auto underTheTable = [&] {
        LockGuard holdTokens(tokens.lock);
        LockGuard holdTable(table.lock);
        clapiSleep(&condition, &table.lock);
    };
    auto asAWaiter = [&] {
        LockGuard holdTokens(tokens.lock);
        clapiTake(&waiters);
        clapiSleep(&condition, &waiters);
    };
    EXPECT_DEATH(underTheTable(), refusal("waited", RANK_TOKEN_LIST));
    EXPECT_DEATH(asAWaiter(), refusal("waited", RANK_TOKEN_LIST));
}

TEST_F(LockOrder, EndsAProcessThatWaitsForAPeerWithAnyLockHeldButASendLock)
{
    for (const auto& [holding, name] : names) {
        RankedLock first(holding);
        if (holding == RANK_SEND)
            waitForPeer(first.lock);
        else
            EXPECT_DEATH(waitForPeer(first.lock), refusal("waited for a peer", holding));
    }
}

TEST_F(LockOrder, LetsALockWithoutARankBeTakenAndHeldAtAnyTime)
{
    OpenGate gate;
    RankedLock unranked(RANK_NONE);
    for (const auto& [rank, name] : names) {
        RankedLock ranked(rank);
        takeBoth(ranked.lock, unranked.lock);
        takeBoth(unranked.lock, ranked.lock);
    }
    waitAt(gate.event, unranked.lock);
}

TEST_F(LockOrder, ForgetsLocksThatHaveBeenGivenUpInAnyOrder)
{
    RankedLock tokens(RANK_TOKEN_LIST);
    RankedLock table(RANK_TABLE);
    RankedLock channel(RANK_CHANNEL);
    // Takes all three, gives those up that are named, and asks for the first again.
    auto askAgain = [&](std::initializer_list<Clapilock*> givenUp) {
        for (Clapilock* lock : {&tokens.lock, &table.lock, &channel.lock}) clapiRequestLock(lock);
        for (Clapilock* lock : givenUp) clapiReleaseLock(lock);
        return clapiRequestLock(&tokens.lock);
    };
    EXPECT_DEATH(askAgain({&tokens.lock}), refusal("asked for gtlLock", RANK_TABLE));
    EXPECT_DEATH(askAgain({&tokens.lock, &table.lock}), refusal("asked for gtlLock", RANK_CHANNEL));
    EXPECT_DEATH(askAgain({&tokens.lock, &channel.lock}), refusal("asked for gtlLock", RANK_TABLE));
    EXPECT_EQ(0, askAgain({&table.lock, &tokens.lock, &channel.lock}));
    EXPECT_EQ(0, clapiReleaseLock(&tokens.lock));
}

TEST_F(LockOrder, LooksAtTheLocksOfOneThreadOnly)
{
    RankedLock table(RANK_TABLE);
    RankedLock tokens(RANK_TOKEN_LIST);
    LockGuard hold(table.lock);
    auto other = callInThread([&] { return LockGuard(tokens.lock).held(); });
    EXPECT_TRUE(other.get());
}

TEST_F(LockOrder, TakesALockThatCouldNotBeHadAsNotHeld)
{
    RankedLock table(RANK_TABLE);
    RankedLock tokens(RANK_TOKEN_LIST);
    Fault fault = failCallOn(Call::MutexLock, &table.lock.lock);
    EXPECT_EQ(-1, clapiRequestLock(&table.lock));
    EXPECT_TRUE(LockGuard(tokens.lock).held());
    EXPECT_EQ(1, fault.hits());
}

TEST_F(LockOrder, TakesALockThatCouldNotBeGivenUpAsHeld)
{
    RankedLock table(RANK_TABLE);
    RankedLock tokens(RANK_TOKEN_LIST);
    auto takeAndFailToGiveUp = [&] {
        Fault fault = failCallOn(Call::MutexUnlock, &table.lock.lock);
        clapiRequestLock(&table.lock);
        EXPECT_EQ(-1, clapiReleaseLock(&table.lock));
    };
    auto askWithIt = [&] {
        takeAndFailToGiveUp();
        clapiRequestLock(&tokens.lock);
    };
    EXPECT_DEATH(askWithIt(), refusal("asked for gtlLock", RANK_TABLE));
    takeAndFailToGiveUp();
    EXPECT_EQ(0, clapiReleaseLock(&table.lock));
    EXPECT_TRUE(LockGuard(tokens.lock).held());
}

// ---- The locks of the library ------------------------------------------------------------------

TEST_F(LockOrder, HasAPlaceForEachLockOfTheLibrary)
{
    EXPECT_EQ(RANK_TOKEN_LIST, gtlLock.rank);
    EXPECT_EQ(RANK_CHANNEL_LIST, chanListLock.rank);
    EXPECT_EQ(RANK_CORRELATOR, correlatorLock.rank);
    EXPECT_EQ(RANK_TRACE, traceLock.rank);

    script::ScriptedConnection connection;
    EXPECT_EQ(RANK_TABLE, connection.token->tableLock.rank);
    EXPECT_EQ(RANK_SEND, connection.token->sendLock.rank);

    ECI_ChannelToken_t channel = nullptr;
    ASSERT_EQ(ECI_NO_ERROR, ECI_createChannel("CHANNEL", &channel));
    EXPECT_EQ(RANK_CHANNEL, channel->serLock.rank);
    EXPECT_EQ(ECI_NO_ERROR, ECI_deleteChannel(&channel));
}

TEST_F(LockOrder, EndsACallThatTakesALockWhichItsThreadHas)
{
    auto tagTwice = [] {
        LockGuard hold(correlatorLock);
        getNextCorrelator();
    };
    EXPECT_DEATH(tagTwice(), refusal("asked for correlatorLock", RANK_CORRELATOR));
}

TEST_F(LockOrder, EndsAnExportedCallThatIsMadeWithALockHeld)
{
    auto dumpInside = [] {
        LockGuard hold(chanListLock);
        QPX_dumpState();
    };
    EXPECT_DEATH(dumpInside(), refusal("waited", RANK_CHANNEL_LIST));
}

TEST_F(LockOrder, EndsAProcessThatForksWithALockHeld)
{
    auto forkInside = [] {
        LockGuard hold(correlatorLock);
        if (fork() == 0) _exit(0);
    };
    EXPECT_DEATH(forkInside(), refusal("a fork asked for initGuard", RANK_CORRELATOR));
}

#endif
