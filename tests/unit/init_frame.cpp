// The version and state calls and the correlator.

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "clapi_diag.h"
#include "clapi_impl.h"
#include "support/call_in_thread.h"
#include "support/expect_rc.h"
#include "support/faults.h"
#include "support/trace_file.h"
#include "support/trace_reads.h"

using namespace support;

namespace {

constexpr int largest = 2147483647;
constexpr int smallest = -2147483647 - 1;

class Correlator : public ::testing::Test {
protected:
    Correlator() { EXPECT_RC(0, clapiInit()); }
};

class StateDump : public ::testing::Test {
protected:
    static std::string stateLine(int level, const std::string& file)
    {
        return "qpxclient state dump: DLL Version=10.1.0.0 Trace Level=" + std::to_string(level) +
               " clientAPITraceFile=" + file + "\n";
    }
};

} // namespace

// ---- getNextCorrelator -------------------------------------------------------------------------

TEST_F(Correlator, IsOneAtFirst)
{
    EXPECT_EQ(1, getNextCorrelator());
}

TEST_F(Correlator, RisesByOne)
{
    EXPECT_EQ(1, getNextCorrelator());
    EXPECT_EQ(2, getNextCorrelator());
    EXPECT_EQ(3, getNextCorrelator());
}

TEST_F(Correlator, GoesFromTheLargestNumberToTheSmallest)
{
    nextCorrelator = largest;
    EXPECT_EQ(largest, getNextCorrelator());
    EXPECT_EQ(smallest, getNextCorrelator());
    EXPECT_EQ(smallest + 1, getNextCorrelator());
}

TEST_F(Correlator, SkipsZeroAfterMinusOne)
{
    nextCorrelator = -1;
    EXPECT_EQ(-1, getNextCorrelator());
    EXPECT_EQ(1, getNextCorrelator());
    EXPECT_EQ(2, getNextCorrelator());
}

TEST_F(Correlator, IsTakenUnderItsLock)
{
    int before = callCount(Call::MutexLock);
    ASSERT_EQ(0, clapiRequestLock(&correlatorLock));
    auto call = callInThread([] { return getNextCorrelator(); });
    ASSERT_TRUE(awaitCallCount(Call::MutexLock, before + 2));
    EXPECT_FALSE(call.hasEnded());
    EXPECT_EQ(0, clapiReleaseLock(&correlatorLock));
    EXPECT_EQ(1, call.get());
}

TEST_F(Correlator, IsGivenToOneThreadOnly)
{
    constexpr int threads = 8;
    constexpr int each = 500;
    std::vector<std::vector<int>> taken(threads);
    {
        std::vector<RunningCall<void>> calls;
        for (std::vector<int>& mine : taken)
            calls.push_back(callInThread([&mine] {
                for (int i = 0; i < each; ++i) mine.push_back(getNextCorrelator());
            }));
    }
    std::set<int> all;
    for (const std::vector<int>& mine : taken) all.insert(mine.begin(), mine.end());
    EXPECT_EQ(std::size_t{threads} * each, all.size());
    EXPECT_EQ(1, *all.begin());
    EXPECT_EQ(threads * each, *all.rbegin());
}

TEST_F(Correlator, IsTracedAtLevel3)
{
    TraceFile trace(3);
    nextCorrelator = 41;
    EXPECT_EQ(41, getNextCorrelator());
    EXPECT_TRUE(traceReads(trace, {"1064 ENTRY clapi_impl.getNextCorrelator()",
                                   "1065 EXIT clapi_impl.getNextCorrelator() correlator=41"}));
}

TEST_F(Correlator, IsNotTracedAtLevel2)
{
    TraceFile trace(2);
    getNextCorrelator();
    EXPECT_EQ("", trace.text());
}

// ---- QPX_dumpState -----------------------------------------------------------------------------

TEST_F(StateDump, BeginsWithTheStateLineAtLevelZero)
{
    CapturedStderr output;
    EXPECT_RC(0, QPX_dumpState());
    EXPECT_EQ(0u, output.text().find(stateLine(0, "stderr")));
}

TEST_F(StateDump, IsWrittenToTheTraceFile)
{
    CapturedStderr output;
    TraceFile trace(0);
    EXPECT_RC(0, QPX_dumpState());
    EXPECT_EQ(0u, trace.text().find(stateLine(0, trace.path())));
    EXPECT_EQ("", output.text());
}

TEST_F(StateDump, ShowsTheTraceLevel)
{
    TraceFile trace(2);
    EXPECT_RC(0, QPX_dumpState());
    EXPECT_EQ(0u, trace.text().find(stateLine(2, trace.path())));
}

TEST_F(StateDump, PutsTheTokensBehindTheStateLine)
{
    TraceFile trace(0);
    EXPECT_RC(0, QPX_dumpState());
    std::string rule(80, '-');
    EXPECT_EQ(0u, trace.text().find(stateLine(0, trace.path()) + "Gateway Token List dump\n" +
                                    rule + "\nThe Gateway Token List is EMPTY\n" + rule + "\n"));
}

TEST_F(StateDump, IsFramedByEntryAndExitAtLevel3)
{
    TraceFile trace(3);
    EXPECT_RC(0, QPX_dumpState());
    std::vector<TraceRecord> records = trace.records();
    ASSERT_LE(4u, records.size());
    EXPECT_EQ(1046, records.front().point);
    EXPECT_EQ("ENTRY", records.front().type);
    EXPECT_EQ("API.QPX_dumpState()", records.front().message);
    EXPECT_EQ(stateLine(3, trace.path()), records.front().body);
    EXPECT_EQ(2038, records[1].point);
    EXPECT_EQ(1047, records.back().point);
    EXPECT_EQ("EXIT", records.back().type);
    EXPECT_EQ("API.QPX_dumpState() rc=0 (QPX_OK)", records.back().message);
}

TEST_F(StateDump, HasNoFrameAtLevel2)
{
    TraceFile trace(2);
    EXPECT_RC(0, QPX_dumpState());
    EXPECT_EQ(0u, trace.records().size());
}

TEST_F(StateDump, TakesAFileNameWithPercentSignsAsItIs)
{
    TemporaryDirectory directory;
    std::string odd = directory.file("%s%n%d");
    ASSERT_RC(0, QPX_setAPITraceFile(odd.data()));
    EXPECT_RC(0, QPX_dumpState());
    EXPECT_EQ(0u, readFile(odd).find(stateLine(0, odd)));
    EXPECT_RC(0, QPX_setAPITraceFile(nullptr));
}
