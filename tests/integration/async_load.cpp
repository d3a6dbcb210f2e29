// Thousands of asynchronous calls at once.
#include <gtest/gtest.h>

#include <cstdio>

#include "qpxclient.h"
#include "support/mixed_load.h"
#include "support/mixed_load_gateway.h"
#include "support/trace_file.h"

using support::LoadCounts;
using support::LoadPlan;
using support::MixedLoad;
using support::TraceFile;

namespace {

// Sanitizers make every call many times as dear.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int manyCalls = 2000;
constexpr int manyDrops = 8;
#else
constexpr int manyCalls = 20000;
constexpr int manyDrops = 24;
#endif

constexpr unsigned seed = 20261121;

class AsyncLoad : public ::testing::Test {
protected:
    // 64 threads on 4 connections.
    void run(int calls, int drops)
    {
        LoadPlan plan;
        plan.calls = calls;
        plan.connections = 4;
        plan.senders = 12;
        plan.collectors = 4;
        plan.drops = drops;
        plan.seed = seed;
        std::printf("%d calls, %d drops chosen by seed %u\n", calls, drops, seed);
        standin::Gateway gateway;
        support::prepareForLoad(gateway, plan.connections);
        MixedLoad load(plan, gateway.port(), [&gateway] { gateway.release(); });
        load.run();
        counts = load.counts();
        for (const std::string& problem : load.problems()) ADD_FAILURE() << problem;
        for (const std::string& problem :
             support::problemsOf(gateway, plan.connections, counts.reopened))
            ADD_FAILURE() << problem;
    }

    LoadCounts counts;
};

} // namespace

TEST_F(AsyncLoad, HasEveryCallCollectedOnceWithItsOwnResult)
{
    run(manyCalls, manyDrops);
    std::printf("%d answered (%d channels), %d abended, %d refused, %d lost; %d out of turn, "
                "%d taken by others, %d in two steps, %d connections reopened\n",
                counts.answered, counts.channels, counts.abended, counts.refused, counts.lost,
                counts.outOfTurn, counts.byOthers, counts.tooSmall, counts.reopened);
    EXPECT_EQ(manyCalls, counts.answered + counts.abended + counts.refused + counts.lost);

    // All that the load is made of has taken part.
    EXPECT_LT(0, counts.channels);
    EXPECT_LT(counts.channels, counts.answered);
    EXPECT_LT(0, counts.abended);
    EXPECT_LT(0, counts.refused);
    EXPECT_LE(counts.reopened, counts.lost);
    EXPECT_LT(0, counts.reopened);
    EXPECT_LE(counts.reopened, manyDrops);
    EXPECT_LT(0, counts.outOfTurn);
    EXPECT_LT(0, counts.tooSmall);
}

TEST_F(AsyncLoad, LeavesNothingBehind)
{
    run(manyCalls / 10, manyDrops / 4);
    TraceFile trace(0);
    QPX_dumpState();
    EXPECT_TRUE(trace.wroteText("The Gateway Token List is EMPTY\n")) << trace.text();
    EXPECT_TRUE(trace.wroteText("The channel list is EMPTY\n")) << trace.text();
}
