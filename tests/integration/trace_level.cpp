// The trace level: how it is set and asked, what each level adds, and when a banner is written.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qpxclient.h"
#include "support/expect_rc.h"
#include "support/trace_file.h"
#include "support/trace_reads.h"

using namespace support;

namespace {

const std::string bannerFirstLine =
    "*** <int>/<int>/<int> ZAVO Quorvex QPXClient DLL trace V10.1.0.0 API Version 2.3.0.0 Build "
    "Level d1010-20240618-1931 ***\n";

std::string bannerSecondLine(int level, const std::string& file)
{
    return "*** Trace Level = " + std::to_string(level) + ", Trace File = " + file +
           (sizeof(void*) == 4 ? ", 32-bit ***\n" : ", 64-bit ***\n");
}

std::string banner(int level, const std::string& file)
{
    return bannerFirstLine + bannerSecondLine(level, file);
}

class TraceLevel : public ::testing::Test {
protected:
    static int current()
    {
        int level = -1;
        EXPECT_RC(0, QPX_getAPITraceLevel(&level));
        return level;
    }
};

class EachTraceLevel : public TraceLevel, public ::testing::WithParamInterface<int> {};

using TraceBanner = TraceLevel;

} // namespace

// ---- Setting and asking ------------------------------------------------------------------------

TEST_P(EachTraceLevel, IsAccepted)
{
    TraceFile trace(0);
    EXPECT_RC(0, QPX_setAPITraceLevel(GetParam()));
    EXPECT_EQ(GetParam(), current());
}

INSTANTIATE_TEST_SUITE_P(FromZeroToFive, EachTraceLevel, ::testing::Range(0, 6));

TEST_F(TraceLevel, IsZeroAtFirst)
{
    EXPECT_EQ(0, current());
}

TEST_F(TraceLevel, OfSixIsRefused)
{
    TraceFile trace(2);
    EXPECT_RC(-104, QPX_setAPITraceLevel(6));
    EXPECT_EQ(2, current());
    EXPECT_TRUE(trace.wrote(1039, "*EXC*",
                            "API.QPX_setAPITraceLevel() Supplied trace state value 6 was invalid"));
}

TEST_F(TraceLevel, OfMinusOneIsRefused)
{
    TraceFile trace(2);
    EXPECT_RC(-104, QPX_setAPITraceLevel(-1));
    EXPECT_EQ(2, current());
    EXPECT_TRUE(trace.wrote(
        1039, "*EXC*", "API.QPX_setAPITraceLevel() Supplied trace state value -1 was invalid"));
}

TEST_F(TraceLevel, IsRefusedSilentlyAtLevelZero)
{
    CapturedStderr output;
    TraceFile trace(0);
    EXPECT_RC(-104, QPX_setAPITraceLevel(6));
    EXPECT_EQ("", trace.text());
    EXPECT_EQ("", output.text());
}

TEST_F(TraceLevel, NeedsSomewhereToGo)
{
    TraceFile trace(1);
    EXPECT_RC(-109, QPX_getAPITraceLevel(nullptr));
    EXPECT_TRUE(traceReads(
        trace,
        {"1036 *EXC* API.QPX_getAPITraceLevel() Supplied pointer is NULL, traceStatePtr=(nil)"}));
}

TEST_F(TraceLevel, IsAskedWithEntryAndExit)
{
    TraceFile trace(3);
    EXPECT_EQ(3, current());
    EXPECT_TRUE(traceReads(trace, {"1035 ENTRY API.QPX_getAPITraceLevel(traceStatePtr=<ptr>)",
                                   "1037 EXIT API.QPX_getAPITraceLevel() rc=0 (QPX_OK)"}));
}

TEST_F(TraceLevel, IsSetWithEntryAndExit)
{
    TraceFile trace(3);
    EXPECT_RC(0, QPX_setAPITraceLevel(4));
    EXPECT_TRUE(traceReads(
        trace, {"1038 ENTRY API.QPX_setAPITraceLevel(traceState=4) Current trace level=3",
                "1040 EXIT API.QPX_setAPITraceLevel() rc=0 (QPX_OK) New trace level=4"}));
}

TEST_F(TraceLevel, ShowsTheUnchangedLevelWhenRefused)
{
    TraceFile trace(3);
    EXPECT_RC(-104, QPX_setAPITraceLevel(9));
    EXPECT_EQ((std::vector<std::string>{
                  "API.QPX_setAPITraceLevel(traceState=9) Current trace level=3",
                  "API.QPX_setAPITraceLevel() Supplied trace state value 9 was invalid",
                  "API.QPX_setAPITraceLevel() rc=-104 (QPX_ERR_TRACELEVEL) New trace level=3"}),
              trace.messages());
}

// The ENTRY line is up to the old level, the EXIT line to the new one.
TEST_F(TraceLevel, RaisedToThreeWritesTheExitLineOnly)
{
    TraceFile trace(2);
    EXPECT_RC(0, QPX_setAPITraceLevel(3));
    EXPECT_EQ(
        std::vector<std::string>{"API.QPX_setAPITraceLevel() rc=0 (QPX_OK) New trace level=3"},
        trace.messages());
}

TEST_F(TraceLevel, LoweredFromThreeWritesTheEntryLineOnly)
{
    TraceFile trace(3);
    EXPECT_RC(0, QPX_setAPITraceLevel(2));
    EXPECT_EQ(
        std::vector<std::string>{"API.QPX_setAPITraceLevel(traceState=2) Current trace level=3"},
        trace.messages());
}

// ---- What each level adds ----------------------------------------------------------------------

namespace {

// A failure, a milestone, and a change of a value, each with its ENTRY and EXIT line.
std::string pointsWrittenAt(int level)
{
    TraceFile trace(level);
    QPX_getAPIVersion(nullptr);
    QPX_closeAllGatewayConnections();
    QPX_setAPITraceDataLength(128);
    std::string points;
    for (const TraceRecord& record : trace.records())
        if (contains(record.message, "API.")) points += std::to_string(record.point) + " ";
    return points;
}

} // namespace

TEST_F(TraceLevel, ZeroWritesNothing)
{
    EXPECT_EQ("", pointsWrittenAt(0));
}

TEST_F(TraceLevel, OneWritesFailures)
{
    EXPECT_EQ("1030 ", pointsWrittenAt(1));
}

TEST_F(TraceLevel, TwoAddsMilestones)
{
    EXPECT_EQ("1030 1015 ", pointsWrittenAt(2));
}

TEST_F(TraceLevel, ThreeAddsEntryAndExit)
{
    EXPECT_EQ("1029 1030 1031 1014 1015 1016 1048 1050 ", pointsWrittenAt(3));
}

TEST_F(TraceLevel, FourAddsValues)
{
    EXPECT_EQ("1029 1030 1031 1014 1015 1016 1048 1049 1050 ", pointsWrittenAt(4));
}

TEST_F(TraceLevel, FiveWritesWhatFourWrites)
{
    EXPECT_EQ("1029 1030 1031 1014 1015 1016 1048 1049 1050 ", pointsWrittenAt(5));
}

// ---- The banner of the level call --------------------------------------------------------------

// The banner comes before the change, hence its level of 0.
TEST_F(TraceBanner, IsWrittenWhenTheLevelLeavesZero)
{
    CapturedStderr output;
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_TRUE(matches(banner(0, "stderr"), output.text()));
}

TEST_F(TraceBanner, ShowsTheOldLevelWhateverTheNewOneIs)
{
    CapturedStderr output;
    EXPECT_RC(0, QPX_setAPITraceLevel(2));
    EXPECT_TRUE(matches(banner(0, "stderr"), output.text()));
}

TEST_F(TraceBanner, ComesBeforeTheExitLine)
{
    CapturedStderr output;
    EXPECT_RC(0, QPX_setAPITraceLevel(3));
    std::string text = output.text();
    EXPECT_EQ(1, countOf(text, banner(0, "stderr")));
    EXPECT_LT(text.find("*** Trace Level"), text.find("[1040]"));
    EXPECT_FALSE(contains(text, "[1038]"));
}

TEST_F(TraceBanner, IsWrittenEachTimeTheLevelLeavesZero)
{
    CapturedStderr output;
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_RC(0, QPX_setAPITraceLevel(0));
    EXPECT_RC(0, QPX_setAPITraceLevel(2));
    EXPECT_EQ(2, countOf(output.text(), bannerFirstLine));
}

TEST_F(TraceBanner, IsNotWrittenBetweenPositiveLevels)
{
    CapturedStderr output;
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_RC(0, QPX_setAPITraceLevel(2));
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_EQ(1, countOf(output.text(), bannerFirstLine));
}

TEST_F(TraceBanner, IsNotWrittenFromZeroToZero)
{
    CapturedStderr output;
    EXPECT_RC(0, QPX_setAPITraceLevel(0));
    EXPECT_EQ("", output.text());
}

TEST_F(TraceBanner, IsNotWrittenForARefusedLevel)
{
    CapturedStderr output;
    EXPECT_RC(-104, QPX_setAPITraceLevel(6));
    EXPECT_RC(-104, QPX_setAPITraceLevel(-1));
    EXPECT_EQ("", output.text());
}

TEST_F(TraceBanner, IsNotRepeatedOnceAFileSwitchHasWrittenIt)
{
    CapturedStderr output;
    TemporaryDirectory directory;
    std::string path = directory.file("trace");
    EXPECT_RC(0, QPX_setAPITraceLevel(1)); // on standard error
    EXPECT_RC(0, QPX_setAPITraceFile(path.data()));
    EXPECT_RC(0, QPX_setAPITraceLevel(0));
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_EQ(1, countOf(output.text(), bannerFirstLine));
    EXPECT_EQ(1, countOf(readFile(path), bannerFirstLine));
}

// ---- The banner of the file call ---------------------------------------------------------------

TEST_F(TraceBanner, IsWrittenIntoANewFileAtAPositiveLevel)
{
    CapturedStderr output;
    TemporaryDirectory directory;
    std::string path = directory.file("trace");
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_RC(0, QPX_setAPITraceFile(path.data()));
    EXPECT_TRUE(matches(banner(1, path), readFile(path)));
}

TEST_F(TraceBanner, IsNotWrittenIntoANewFileAtLevelZero)
{
    TemporaryDirectory directory;
    std::string path = directory.file("trace");
    EXPECT_RC(0, QPX_setAPITraceFile(path.data()));
    EXPECT_EQ("", readFile(path));
}

TEST_F(TraceBanner, IsWrittenIntoAFileSetAtLevelZeroOnceTheLevelRises)
{
    CapturedStderr output;
    TemporaryDirectory directory;
    std::string path = directory.file("trace");
    EXPECT_RC(0, QPX_setAPITraceFile(path.data()));
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_TRUE(matches(banner(0, path), readFile(path)));
    EXPECT_EQ("", output.text());
}

TEST_F(TraceBanner, IsWrittenIntoEachNewFile)
{
    CapturedStderr output;
    TemporaryDirectory directory;
    std::string first = directory.file("first");
    std::string second = directory.file("second");
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_RC(0, QPX_setAPITraceFile(first.data()));
    EXPECT_RC(0, QPX_setAPITraceFile(second.data()));
    EXPECT_TRUE(matches(banner(1, first), readFile(first)));
    EXPECT_TRUE(matches(banner(1, second), readFile(second)));
}

TEST_F(TraceBanner, IsWrittenAgainIntoAFileThatIsSetTwice)
{
    CapturedStderr output;
    TemporaryDirectory directory;
    std::string path = directory.file("trace");
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_RC(0, QPX_setAPITraceFile(path.data()));
    EXPECT_RC(0, QPX_setAPITraceFile(path.data()));
    EXPECT_TRUE(matches(banner(1, path) + banner(1, path), readFile(path)));
}

TEST_F(TraceBanner, IsWrittenToStandardErrorWhenTheTraceReturnsThere)
{
    CapturedStderr output;
    TraceFile trace(2);
    EXPECT_RC(0, QPX_setAPITraceFile(nullptr));
    EXPECT_TRUE(matches(banner(2, "stderr"), output.text()));
}

// The level call has left the banner due; the file call writes it though nothing is switched.
TEST_F(TraceBanner, IsWrittenByAFileCallThatSwitchesNothing)
{
    CapturedStderr output;
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_RC(0, QPX_setAPITraceFile(nullptr));
    EXPECT_TRUE(matches(banner(0, "stderr") + banner(1, "stderr"), output.text()));
    EXPECT_RC(0, QPX_setAPITraceFile(nullptr));
    EXPECT_EQ(2, countOf(output.text(), bannerFirstLine));
}

TEST_F(TraceBanner, IsWrittenByAFileCallThatFails)
{
    CapturedStderr output;
    TemporaryDirectory directory;
    std::string bad = directory.file("missing/trace");
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_RC(-130, QPX_setAPITraceFile(bad.data()));
    std::string text = output.text();
    EXPECT_EQ(0u, text.find("***"));
    EXPECT_EQ(1, countOf(text, banner(0, "stderr") + banner(1, "stderr")));
    EXPECT_LT(text.rfind("*** Trace Level"), text.find("[1044]"));
}
