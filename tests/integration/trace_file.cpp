// The trace's destination and the limits of its dumps.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "qpxclient.h"
#include "support/call_in_thread.h"
#include "support/descriptors.h"
#include "support/expect_rc.h"
#include "support/trace_file.h"
#include "support/trace_reads.h"

using namespace support;

namespace {

class TraceDestination : public ::testing::Test {
protected:
    TraceDestination() : path_(directory_.file("trace")), bad_(directory_.file("missing/trace")) {}
    ~TraceDestination() override
    {
        QPX_setAPITraceLevel(0);
        QPX_setAPITraceFile(nullptr);
    }

    CapturedStderr output_;
    TemporaryDirectory directory_;
    std::string path_;
    std::string bad_;
};

using TraceData = TraceDestination;

} // namespace

// ---- Switching ---------------------------------------------------------------------------------

TEST_F(TraceDestination, IsStandardErrorAtFirst)
{
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_RC(-109, QPX_getAPIVersion(nullptr));
    EXPECT_TRUE(wroteIn(output_.text(), 1030, "*EXC*", "<any>"));
}

TEST_F(TraceDestination, IsTheFileFromTheCallOn)
{
    EXPECT_RC(0, QPX_setAPITraceFile(path_.data()));
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_RC(-109, QPX_getAPIVersion(nullptr));
    EXPECT_TRUE(wroteIn(readFile(path_), 1030, "*EXC*", "<any>"));
    EXPECT_EQ("", output_.text());
}

TEST_F(TraceDestination, IsAppendedTo)
{
    std::ofstream(path_) << "kept\n";
    EXPECT_RC(0, QPX_setAPITraceFile(path_.data()));
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_EQ(0u, readFile(path_).find("kept\n*** "));
}

TEST_F(TraceDestination, IsTheLastFileSet)
{
    std::string second = directory_.file("second");
    EXPECT_RC(0, QPX_setAPITraceFile(path_.data()));
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_RC(0, QPX_setAPITraceFile(second.data()));
    std::string first = readFile(path_);
    EXPECT_RC(-109, QPX_getAPIVersion(nullptr));
    EXPECT_EQ(first, readFile(path_));
    EXPECT_TRUE(wroteIn(readFile(second), 1030, "*EXC*", "<any>"));
}

TEST_F(TraceDestination, IsStandardErrorAgainAfterNull)
{
    EXPECT_RC(0, QPX_setAPITraceFile(path_.data()));
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_RC(0, QPX_setAPITraceFile(nullptr));
    std::string file = readFile(path_);
    EXPECT_RC(-109, QPX_getAPIVersion(nullptr));
    EXPECT_EQ(file, readFile(path_));
    EXPECT_TRUE(wroteIn(output_.text(), 1030, "*EXC*", "<any>"));
}

TEST_F(TraceDestination, TakesNoDescriptorForAFileThatIsLeft)
{
    std::string second = directory_.file("second");
    EXPECT_RC(0, QPX_setAPITraceFile(path_.data()));
    int before = openDescriptors();
    EXPECT_RC(0, QPX_setAPITraceFile(second.data()));
    EXPECT_EQ(before, openDescriptors());
    EXPECT_RC(0, QPX_setAPITraceFile(nullptr));
    EXPECT_EQ(before - 1, openDescriptors());
    EXPECT_TRUE(descriptorIsOpen(2));
}

TEST_F(TraceDestination, StaysWhenNullIsSetAtStandardError)
{
    EXPECT_RC(0, QPX_setAPITraceLevel(4));
    std::size_t before = output_.text().size();
    EXPECT_RC(0, QPX_setAPITraceFile(nullptr));
    std::vector<TraceRecord> records = parseTrace(output_.text().substr(before));
    ASSERT_EQ(3u, records.size());
    EXPECT_EQ("API.QPX_setAPITraceFile(traceFile=NULL) Current trace destination=stderr",
              records[0].message);
    EXPECT_EQ(1043, records[1].point);
    EXPECT_EQ("DEBUG", records[1].type);
    EXPECT_EQ("API.QPX_setAPITraceFile() Trace file destination is unchanged. Filename=stderr",
              records[1].message);
    EXPECT_EQ("API.QPX_setAPITraceFile() rc=0 (QPX_OK) New trace destination=stderr",
              records[2].message);
}

// Lines of one thread end up whole in the one file or the other while another thread switches.
TEST_F(TraceDestination, IsSwitchedWhileOtherThreadsTrace)
{
    constexpr int threads = 4;
    constexpr int each = 200;
    std::string second = directory_.file("second");
    EXPECT_RC(0, QPX_setAPITraceFile(path_.data()));
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    {
        std::vector<RunningCall<void>> calls;
        for (int thread = 0; thread < threads; ++thread)
            calls.push_back(callInThread([] {
                for (int i = 0; i < each; ++i) QPX_getAPIVersion(nullptr);
            }));
        for (int i = 0; i < 50; ++i) {
            EXPECT_RC(0, QPX_setAPITraceFile(second.data()));
            EXPECT_RC(0, QPX_setAPITraceFile(path_.data()));
        }
    }
    std::string all = readFile(path_) + readFile(second);
    EXPECT_EQ(threads * each,
              countOf(all, "[1030] *EXC*  API.QPX_getAPIVersion() Supplied pointer is NULL, "
                           "apiVersPtr=(nil)\n"));
    EXPECT_EQ(std::size_t{threads} * each, parseTrace(all).size());
    EXPECT_EQ("", output_.text());
}

// ---- A file that cannot be opened --------------------------------------------------------------

TEST_F(TraceDestination, StaysWhenTheFileCannotBeOpened)
{
    EXPECT_RC(0, QPX_setAPITraceFile(path_.data()));
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_RC(-130, QPX_setAPITraceFile(bad_.data()));
    EXPECT_RC(-109, QPX_getAPIVersion(nullptr));
    EXPECT_TRUE(wroteIn(readFile(path_), 1044, "*EXC*",
                        "API.QPX_setAPITraceFile(" + bad_ +
                            ") file append failed with errno=2. Trace file destination is "
                            "unchanged. Filename=" +
                            path_));
    EXPECT_TRUE(wroteIn(readFile(path_), 1030, "*EXC*", "<any>"));
}

TEST_F(TraceDestination, StaysWhenTheFileIsADirectory)
{
    std::string directory = directory_.path();
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_RC(-130, QPX_setAPITraceFile(directory.data()));
    EXPECT_TRUE(wroteIn(output_.text(), 1044, "*EXC*",
                        "API.QPX_setAPITraceFile(" + directory +
                            ") file append failed with errno=21. Trace file destination is "
                            "unchanged. Filename=stderr"));
}

TEST_F(TraceDestination, StaysWithAnEmptyName)
{
    char empty[] = "";
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_RC(-130, QPX_setAPITraceFile(empty));
    EXPECT_TRUE(wroteIn(output_.text(), 1044, "*EXC*",
                        "API.QPX_setAPITraceFile() file append failed with errno=2. Trace file "
                        "destination is unchanged. Filename=stderr"));
}

TEST_F(TraceDestination, StaysSilentlyAtLevelZero)
{
    EXPECT_RC(-130, QPX_setAPITraceFile(bad_.data()));
    EXPECT_EQ("", output_.text());
}

TEST_F(TraceDestination, IsSetAfterAFailureAllTheSame)
{
    EXPECT_RC(-130, QPX_setAPITraceFile(bad_.data()));
    EXPECT_RC(0, QPX_setAPITraceFile(path_.data()));
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_NE("", readFile(path_));
}

// ---- Lines of the call -------------------------------------------------------------------------

TEST_F(TraceDestination, IsLeftWithTheEntryLineAndEnteredWithTheOthers)
{
    EXPECT_RC(0, QPX_setAPITraceLevel(4));
    EXPECT_RC(0, QPX_setAPITraceFile(path_.data()));
    EXPECT_TRUE(wroteIn(output_.text(), 1041, "ENTRY",
                        "API.QPX_setAPITraceFile(traceFile=" + path_ +
                            ") Current trace destination=stderr"));
    std::vector<TraceRecord> records = parseTrace(readFile(path_));
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ(1042, records[0].point);
    EXPECT_EQ("DEBUG", records[0].type);
    EXPECT_EQ("API.QPX_setAPITraceFile() Trace file switched to new destination. Filename=" + path_,
              records[0].message);
    EXPECT_EQ(1045, records[1].point);
    EXPECT_EQ("EXIT", records[1].type);
    EXPECT_EQ("API.QPX_setAPITraceFile() rc=0 (QPX_OK) New trace destination=" + path_,
              records[1].message);
}

TEST_F(TraceDestination, IsShownAtLevel3WithoutTheSwitch)
{
    EXPECT_RC(0, QPX_setAPITraceLevel(3));
    EXPECT_RC(0, QPX_setAPITraceFile(path_.data()));
    std::vector<TraceRecord> records = parseTrace(readFile(path_));
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(1045, records[0].point);
}

TEST_F(TraceDestination, IsShownAsUnchangedWhenTheCallFails)
{
    EXPECT_RC(0, QPX_setAPITraceFile(path_.data()));
    EXPECT_RC(0, QPX_setAPITraceLevel(4));
    std::size_t before = readFile(path_).size();
    EXPECT_RC(-130, QPX_setAPITraceFile(bad_.data()));
    std::vector<TraceRecord> records = parseTrace(readFile(path_).substr(before));
    ASSERT_EQ(3u, records.size());
    EXPECT_EQ(1041, records[0].point);
    EXPECT_EQ("API.QPX_setAPITraceFile(traceFile=" + bad_ + ") Current trace destination=" + path_,
              records[0].message);
    EXPECT_EQ(1044, records[1].point);
    EXPECT_EQ(1045, records[2].point);
    EXPECT_EQ("API.QPX_setAPITraceFile() rc=-130 (QPX_ERR_TRACEFILE) New trace destination=" +
                  path_,
              records[2].message);
}

TEST_F(TraceDestination, ReturnsToStandardErrorWithTheSwitchToldThere)
{
    EXPECT_RC(0, QPX_setAPITraceFile(path_.data()));
    EXPECT_RC(0, QPX_setAPITraceLevel(4));
    EXPECT_RC(0, QPX_setAPITraceFile(nullptr));
    EXPECT_TRUE(
        wroteIn(readFile(path_), 1041, "ENTRY",
                "API.QPX_setAPITraceFile(traceFile=NULL) Current trace destination=" + path_));
    EXPECT_TRUE(wroteIn(output_.text(), 1042, "DEBUG",
                        "API.QPX_setAPITraceFile() Trace file switched to new destination. "
                        "Filename=stderr"));
    EXPECT_TRUE(wroteIn(output_.text(), 1045, "EXIT",
                        "API.QPX_setAPITraceFile() rc=0 (QPX_OK) New trace destination=stderr"));
}

TEST_F(TraceDestination, HasANameOf1023BytesAtMost)
{
    std::string longName = directory_.path();
    while (longName.size() < 1500) longName += "/.";
    longName += "/trace";
    EXPECT_RC(0, QPX_setAPITraceFile(longName.data()));
    EXPECT_RC(0, QPX_dumpState());
    EXPECT_TRUE(contains(readFile(path_), "clientAPITraceFile=" + longName.substr(0, 1023) + "\n"));
}

TEST_F(TraceDestination, HasANameOf1023BytesWhole)
{
    std::string name = directory_.path();
    while (name.size() + 8 <= 1023) name += "/.";
    name += name.size() % 2 == 0 ? "//trace" : "/trace";
    while (name.size() < 1023) name.insert(name.size() - 5, "/");
    ASSERT_EQ(1023u, name.size());
    EXPECT_RC(0, QPX_setAPITraceFile(name.data()));
    EXPECT_RC(0, QPX_dumpState());
    EXPECT_TRUE(contains(readFile(path_), "clientAPITraceFile=" + name + "\n"));
}

// ---- A file beyond two gigabytes ---------------------------------------------------------------

namespace {

constexpr off_t threeGigabytes = off_t{3} * 1024 * 1024 * 1024;

class LargeTraceFile : public TraceDestination {
protected:
    // A file of zeros that takes hardly any room.
    void make(off_t size)
    {
        int file = open(path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_LE(0, file);
        ASSERT_EQ(0, ftruncate(file, size));
        close(file);
    }

    off_t size() const
    {
        struct stat status {};
        EXPECT_EQ(0, stat(path_.c_str(), &status));
        return status.st_size;
    }

    std::string from(off_t offset) const
    {
        int file = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        char text[4096];
        ssize_t got = pread(file, text, sizeof text, offset);
        close(file);
        return got > 0 ? std::string(text, static_cast<std::size_t>(got)) : std::string();
    }
};

} // namespace

TEST_F(LargeTraceFile, IsAppendedTo)
{
    make(threeGigabytes);
    EXPECT_RC(0, QPX_setAPITraceFile(path_.data()));
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_RC(-109, QPX_getAPIVersion(nullptr));
    EXPECT_LT(threeGigabytes, size());
    std::string text = from(threeGigabytes);
    EXPECT_EQ(0u, text.find("*** "));
    EXPECT_TRUE(wroteIn(text, 1030, "*EXC*",
                        "API.QPX_getAPIVersion() Supplied pointer is NULL, apiVersPtr=(nil)"));
}

TEST_F(LargeTraceFile, GrowsAcrossTwoGigabytes)
{
    constexpr off_t justBelow = 2147483647 - 100;
    make(justBelow);
    EXPECT_RC(0, QPX_setAPITraceFile(path_.data()));
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_RC(-109, QPX_getAPIVersion(nullptr));
    EXPECT_LT(2147483647, size());
    EXPECT_TRUE(wroteIn(from(justBelow), 1030, "*EXC*", "<any>"));
}

TEST_F(LargeTraceFile, IsAppendedToWhenTheEnvironmentNamesIt)
{
    make(threeGigabytes);
    setenv("QPX_CLIENT_TRACE_FILE", path_.c_str(), 1);
    setenv("QPX_CLIENT_TRACE_LEVEL", "1", 1);
    EXPECT_RC(-109, QPX_getAPIVersion(nullptr));
    EXPECT_TRUE(wroteIn(from(threeGigabytes), 1030, "*EXC*", "<any>"));
}

// ---- Limits of dumps ---------------------------------------------------------------------------

TEST_F(TraceData, LengthIsSetWithOldAndNewValue)
{
    TraceFile trace(4);
    QPX_setAPITraceDataLength(64);
    EXPECT_TRUE(traceReads(trace, {"1048 ENTRY API.QPX_setAPITraceDataLength(dataLength=64)",
                                   "1049 DEBUG API.QPX_setAPITraceDataLength() Trace data "
                                   "truncation length changed from 128 to 64",
                                   "1050 EXIT API.QPX_setAPITraceDataLength()"}));
}

TEST_F(TraceData, LengthKeepsWhatWasSetLast)
{
    QPX_setAPITraceDataLength(0);
    TraceFile trace(4);
    QPX_setAPITraceDataLength(4294967295U);
    EXPECT_TRUE(trace.wrote(1049, "API.QPX_setAPITraceDataLength() Trace data truncation length "
                                  "changed from 0 to 4294967295"));
}

TEST_F(TraceData, OffsetIsSetWithOldAndNewValue)
{
    TraceFile trace(4);
    QPX_setAPITraceDataOffset(16);
    EXPECT_TRUE(traceReads(
        trace, {"1051 ENTRY API.QPX_setAPITraceDataOffset(dataOffset=16)",
                "1052 DEBUG API.QPX_setAPITraceDataOffset() Trace data offset changed from 0 to 16",
                "1053 EXIT API.QPX_setAPITraceDataOffset()"}));
}

TEST_F(TraceData, OffsetKeepsWhatWasSetLast)
{
    QPX_setAPITraceDataOffset(7);
    TraceFile trace(4);
    QPX_setAPITraceDataOffset(0);
    EXPECT_TRUE(
        trace.wrote(1052, "API.QPX_setAPITraceDataOffset() Trace data offset changed from 7 to 0"));
}

TEST_F(TraceData, IsToldWithEntryAndExitOnlyAtLevel3)
{
    TraceFile trace(3);
    QPX_setAPITraceDataLength(64);
    QPX_setAPITraceDataOffset(0);
    EXPECT_EQ((std::vector<std::string>{"API.QPX_setAPITraceDataLength(dataLength=64)",
                                        "API.QPX_setAPITraceDataLength()",
                                        "API.QPX_setAPITraceDataOffset(dataOffset=0)",
                                        "API.QPX_setAPITraceDataOffset()"}),
              trace.messages());
}

TEST_F(TraceData, IsNotToldAtLevel2)
{
    TraceFile trace(2);
    QPX_setAPITraceDataLength(64);
    QPX_setAPITraceDataOffset(0);
    EXPECT_EQ("", trace.text());
}
