// Connections under a load of everything at once, with one arena of memory.
//
// QPX_LOAD_SECONDS  how long; a few seconds unless set
// QPX_LOAD_SEED     what the threads choose; the run's own unless set
#include <gtest/gtest.h>
#include <sched.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <random>
#include <string>
#include <thread>

#include "load/live_blocks.h"
#include "load/load.h"
#include "load/peers.h"
#include "load/watch.h"
#include "qpxclient.h"
#include "support/call_in_thread.h"
#include "support/descriptors.h"
#include "support/expect_rc.h"

namespace {

constexpr int threads = 8;
constexpr long usualSeconds = 6;

long numberIn(const char* variable, long otherwise)
{
    const char* value = std::getenv(variable);
    return value != nullptr ? std::atol(value) : otherwise;
}

int threadsOfTheProcess()
{
    std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<int>(std::distance(begin(tasks), end(tasks)));
}

// A receiver's thread leaves the process a moment after its connection has gone.
int threadsOnceTheyAre(int expected)
{
    auto limit = std::chrono::steady_clock::now() + support::generousLimit;
    while (threadsOfTheProcess() != expected && std::chrono::steady_clock::now() < limit)
        sched_yield();
    return threadsOfTheProcess();
}

void show(std::chrono::seconds passed, const std::string& counts)
{
    std::printf("%4ld s: %s\n", static_cast<long>(passed.count()), counts.c_str());
    std::fflush(stdout);
}

} // namespace

TEST(ConnectionsUnderLoad, AnswerAsTheyShouldAndLeaveNothingBehind)
{
    load::useOneArena();
    auto seed = static_cast<unsigned>(numberIn("QPX_LOAD_SEED", std::random_device()() % 1000000));
    std::chrono::seconds length(numberIn("QPX_LOAD_SECONDS", usualSeconds));
    std::printf("%d threads for %ld s with seed %u\n", threads, static_cast<long>(length.count()),
                seed);
    std::fflush(stdout);
    char nowhere[] = "/dev/null";
    ASSERT_RC(QPX_OK, QPX_setAPITraceFile(nowhere));
    std::thread([] {}).join(); // a sanitizer's own thread comes with the first one
    int threadsBefore = threadsOfTheProcess();
    int descriptorsBefore = support::openDescriptors();
    long blocksBefore = 0;
    long mappedBefore = 0;

    load::Watch watch(seed, threads + 1);
    {
        load::Peers peers(seed);
        load::Load load(seed, threads, peers.port(), watch);
        load.warmUp();
        blocksBefore = load::liveBlocks();
        mappedBefore = load::mappedBytes();

        load.run(length, show);
        load.settle();
        show(length, load.counts());

        peers.stop();
        for (const std::string& problem : peers.problems()) watch.problem(problem);
        EXPECT_TRUE(load.hasDoneEverything()) << load.counts();
    }
    for (const std::string& problem : watch.problems()) ADD_FAILURE() << problem;
    int threadsAfter = threadsOnceTheyAre(threadsBefore + 1); // the watch's
    EXPECT_EQ(threadsBefore + 1, threadsAfter) << "threads; seed " << seed;
    EXPECT_EQ(descriptorsBefore, support::openDescriptors()) << "descriptors; seed " << seed;
    EXPECT_EQ(blocksBefore, load::liveBlocks()) << "blocks of memory; seed " << seed;
    EXPECT_EQ(mappedBefore, load::mappedBytes()) << "mapped bytes; seed " << seed;
    std::printf("%d threads, %d descriptors, %ld blocks of memory, %ld bytes mapped; %d, %d, %ld, "
                "%ld before\n",
                threadsAfter - 1, support::openDescriptors(), load::liveBlocks(),
                load::mappedBytes(), threadsBefore, descriptorsBefore, blocksBefore, mappedBefore);
}
