// The order of locks, where the build looks at it: what is out of order ends the process.

#ifdef QPX_CHECK_LOCKS

#include <gtest/gtest.h>

#include <initializer_list>

#include "clapi_lock.h"
#include "support/forked.h"

using support::childDied;
using support::inChild;

namespace {

// Locks and an event as the library has them.
struct Ranked {
    Ranked()
    {
        for (Clapilock* lock : {&tokens, &table, &channel, &other, &send, &trace, &unranked})
            EXPECT_EQ(0, clapiInitializeLock(lock));
        clapiRankLock(&tokens, RANK_TOKEN_LIST);
        clapiRankLock(&table, RANK_TABLE);
        clapiRankLock(&channel, RANK_CHANNEL);
        clapiRankLock(&other, RANK_CHANNEL);
        clapiRankLock(&send, RANK_SEND);
        clapiRankLock(&trace, RANK_TRACE);
        EXPECT_EQ(0, clapiCreateEvent(&event));
        EXPECT_EQ(0, clapiClearEvent(&event)); // nobody sleeps here
    }

    // 0 in a child that has taken the locks in this order.
    static int take(std::initializer_list<Clapilock*> locks)
    {
        return inChild([locks] {
            for (Clapilock* lock : locks) clapiRequestLock(lock);
            return 0;
        });
    }

    int waitWith(Clapilock* held)
    {
        return inChild([this, held] {
            LockGuard guard(*held);
            return clapiWaitEvent(&event);
        });
    }

    Clapilock tokens{}, table{}, channel{}, other{}, send{}, trace{}, unranked{};
    ClapiEvent event{};
};

} // namespace

TEST(LockOrder, LetsLocksBeTakenInOrder)
{
    Ranked locks;
    EXPECT_EQ(0, Ranked::take({&locks.tokens, &locks.table, &locks.channel, &locks.trace}));
    EXPECT_EQ(0, Ranked::take({&locks.send, &locks.trace}));
    EXPECT_EQ(0, Ranked::take({&locks.trace, &locks.unranked}));
}

TEST(LockOrder, EndsAProcessThatTakesTwoTheWrongWayRound)
{
    Ranked locks;
    EXPECT_EQ(childDied, Ranked::take({&locks.table, &locks.tokens}));
    EXPECT_EQ(childDied, Ranked::take({&locks.channel, &locks.table}));
    EXPECT_EQ(childDied, Ranked::take({&locks.trace, &locks.table}));
}

TEST(LockOrder, EndsAProcessThatHoldsASendLockAndATable)
{
    Ranked locks;
    EXPECT_EQ(childDied, Ranked::take({&locks.send, &locks.table}));
    EXPECT_EQ(childDied, Ranked::take({&locks.table, &locks.send}));
}

TEST(LockOrder, EndsAProcessThatHoldsTwoOfAKind)
{
    Ranked locks;
    EXPECT_EQ(childDied, Ranked::take({&locks.channel, &locks.other}));
}

TEST(LockOrder, ForgetsALockThatHasBeenGivenUp)
{
    Ranked locks;
    EXPECT_EQ(0, inChild([&] {
                  {
                      LockGuard guard(locks.channel);
                  }
                  {
                      LockGuard guard(locks.trace);
                  }
                  return clapiRequestLock(&locks.tokens);
              }));
}

TEST(LockOrder, EndsAProcessThatWaitsWithALockHeld)
{
    Ranked locks;
    EXPECT_EQ(childDied, locks.waitWith(&locks.table));
    EXPECT_EQ(0, locks.waitWith(&locks.unranked));
}

#endif
