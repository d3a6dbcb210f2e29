// One trace line: its time stamp, its ids, its format, and how it is written.

#include <gtest/gtest.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "clapi_diag.h"
#include "clapi_impl.h"
#include "support/call_in_thread.h"
#include "support/expect_rc.h"
#include "support/faults.h"
#include "support/trace_file.h"

using namespace support;

namespace {

// Makes every reading of the clock by the library show this time.
class StoppedClock {
public:
    StoppedClock(long long seconds, long milliseconds)
        : clock_(afterCall(Call::Clock, 0,
                           [seconds, milliseconds](const CallInfo& info) {
                               // gettimeofday has the time in its first argument, clock_gettime
                               // the number of a clock.
                               if (info.first > 100) {
                                   auto* now = reinterpret_cast<timeval*>(info.first);
                                   now->tv_sec = static_cast<time_t>(seconds);
                                   now->tv_usec = milliseconds * 1000;
                               } else {
                                   auto* now = reinterpret_cast<timespec*>(info.second);
                                   now->tv_sec = static_cast<time_t>(seconds);
                                   now->tv_nsec = milliseconds * 1000000;
                               }
                           })),
          time_(fakeCall(Call::Time, 0, static_cast<long>(seconds)))
    {
    }
    ~StoppedClock() { EXPECT_LT(0, clock_.hits() + time_.hits()); } // whichever is read
    StoppedClock(const StoppedClock&) = delete;
    StoppedClock& operator=(const StoppedClock&) = delete;

private:
    Fault clock_;
    Fault time_;
};

std::string stampAt(long long seconds, long milliseconds)
{
    StoppedClock clock(seconds, milliseconds);
    char stamp[24];
    std::memset(stamp, '#', sizeof stamp);
    clapiGetTimestamp(stamp);
    return stamp;
}

void useTimeZone(const char* zone)
{
    setenv("TZ", zone, 1);
    tzset();
}

// 15 November 2026, 17:21:12 UTC.
constexpr long long someTime = 1794763272;

class Line : public ::testing::Test {
protected:
    Line() { EXPECT_RC(0, clapiInit()); }

    static std::string hex8(unsigned long value)
    {
        char text[16];
        std::snprintf(text, sizeof text, "0x%8.8X",
                      static_cast<unsigned int>(value & 0xFFFFFFFFUL));
        return text;
    }
};

} // namespace

// ---- Time and ids ------------------------------------------------------------------------------

TEST(Timestamp, ShowsDateTimeAndMilliseconds)
{
    useTimeZone("UTC0");
    EXPECT_EQ("15/11/26 17:21:12:045", stampAt(someTime, 45));
}

TEST(Timestamp, ShowsMillisecondsWithThreeDigits)
{
    useTimeZone("UTC0");
    EXPECT_EQ("15/11/26 17:21:12:000", stampAt(someTime, 0));
    EXPECT_EQ("15/11/26 17:21:12:007", stampAt(someTime, 7));
    EXPECT_EQ("15/11/26 17:21:12:999", stampAt(someTime, 999));
}

TEST(Timestamp, IsLocalTime)
{
    useTimeZone("XYZ-3");
    EXPECT_EQ("15/11/26 20:21:12:045", stampAt(someTime, 45));
}

TEST(Timestamp, IsRightBeyondTheYear2038)
{
    useTimeZone("UTC0");
    EXPECT_EQ("01/01/40 00:00:00:000", stampAt(2208988800LL, 0));
}

TEST(Date, ShowsTheDate)
{
    useTimeZone("UTC0");
    StoppedClock clock(someTime, 0);
    char date[10];
    clapiGetDate(date);
    EXPECT_STREQ("15/11/26", date);
}

TEST(Date, IsLocal)
{
    useTimeZone("XYZ-9");
    StoppedClock clock(someTime, 0);
    char date[10];
    clapiGetDate(date);
    EXPECT_STREQ("16/11/26", date);
}

TEST(PidTid, AreThoseOfTheCaller)
{
    ProcessId pid = 0;
    ThreadId tid{};
    clapiGetPidTid(&pid, &tid);
    EXPECT_EQ(getpid(), pid);
    EXPECT_NE(0, pthread_equal(pthread_self(), tid));
}

TEST(PidTid, SkipsAPointerThatIsNull)
{
    ProcessId pid = 0;
    ThreadId tid{};
    clapiGetPidTid(&pid, nullptr);
    clapiGetPidTid(nullptr, &tid);
    clapiGetPidTid(nullptr, nullptr);
    EXPECT_EQ(getpid(), pid);
    EXPECT_NE(0, pthread_equal(pthread_self(), tid));
}

TEST(CompareTids, TellsThreadsApart)
{
    pthread_t self = pthread_self();
    EXPECT_EQ(1, clapiCompareTids(self, self));
    auto other = callInThread([self] { return clapiCompareTids(self, pthread_self()); });
    EXPECT_EQ(0, other.get());
}

// ---- The format --------------------------------------------------------------------------------

TEST(LineFormat, IsARecordOfAdjacentTexts)
{
    EXPECT_EQ(0u, offsetof(formatStringType, timeStamp));
    EXPECT_EQ(3u, offsetof(formatStringType, pidTid));
    EXPECT_EQ(21u, offsetof(formatStringType, tpid));
    EXPECT_EQ(29u, offsetof(formatStringType, traceType));
    EXPECT_EQ(36u, offsetof(formatStringType, msg));
    EXPECT_EQ(292u, sizeof(formatStringType));
}

TEST_F(Line, LeavesItsWholeFormatInTheRecord)
{
    TraceFile trace(1);
    QPX_getAPIVersion(nullptr);
    EXPECT_STREQ("%s [0x%8.8X,0x%8.8X] [%4.4d] %-6.6s API.QPX_getAPIVersion() Supplied pointer is "
                 "NULL, apiVersPtr=%p\n",
                 reinterpret_cast<const char*>(&traceFmtStr));
}

TEST_F(Line, HasAPrefixOfStampIdsPointAndType)
{
    useTimeZone("UTC0");
    TraceFile trace(3);
    StoppedClock clock(someTime, 45);
    char name[40];
    QPX_getRcString(0, name);
    std::string prefix = "15/11/26 17:21:12:045 [" + hex8(static_cast<unsigned long>(getpid())) +
                         "," + hex8((unsigned long)(pthread_self())) + "] ";
    std::vector<std::string> lines = trace.lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(0u, lines[0].find(prefix + "[1062] ENTRY  API.QPX_getRcString(rc=0, rcString=0x"));
    EXPECT_EQ(prefix + "[1063] EXIT   API.QPX_getRcString() rcString=QPX_OK", lines[1]);
}

TEST_F(Line, PadsTheTypeWordToSixCharacters)
{
    TraceFile trace(4);
    clapiTraceLine(tpEntry(1, "entry\n"));
    clapiTraceLine(tpExit(12, "exit\n"));
    clapiTraceLine(tpExc(123, "exception\n"));
    clapiTraceLine(tpEvent(1234, "event\n"));
    clapiTraceLine(tpDebug(1235, "debug\n"));
    clapiTraceLine(tpData(1236, "data\n"));
    std::vector<std::string> lines = trace.lines();
    ASSERT_EQ(6u, lines.size());
    constexpr std::size_t behindTheIds = 46;
    EXPECT_EQ("[0001] ENTRY  entry", lines[0].substr(behindTheIds));
    EXPECT_EQ("[0012] EXIT   exit", lines[1].substr(behindTheIds));
    EXPECT_EQ("[0123] *EXC*  exception", lines[2].substr(behindTheIds));
    EXPECT_EQ("[1234] EVENT  event", lines[3].substr(behindTheIds));
    EXPECT_EQ("[1235] DEBUG  debug", lines[4].substr(behindTheIds));
    EXPECT_EQ("[1236] DATA   data", lines[5].substr(behindTheIds));
}

TEST_F(Line, HasAMessageOf255CharactersAtMost)
{
    TraceFile trace(1);
    std::string message(255, 'm');
    TracePoint fits = tpExc(9, message.c_str());
    clapiTraceLine(fits);
    EXPECT_EQ(message, trace.messages()[0]);
    trace.forget();
    std::string longer(256, 'n');
    TracePoint doesNotFit = tpExc(9, longer.c_str());
    clapiTraceLine(doesNotFit);
    EXPECT_EQ(std::string(255, 'n'), trace.messages()[0]);
}

TEST_F(Line, IsBoundToTheSameLengthWithoutTheLock)
{
    TraceFile trace(1);
    std::string longer(256, 'n');
    TracePoint doesNotFit = tpExc(9, longer.c_str());
    clapiTraceUnlocked(doesNotFit);
    EXPECT_EQ(std::string(255, 'n'), trace.messages()[0]);
}

// ---- Levels ------------------------------------------------------------------------------------

namespace {

class LineLevel : public ::testing::TestWithParam<int> {
protected:
    LineLevel() { EXPECT_RC(0, clapiInit()); }
};

} // namespace

TEST_P(LineLevel, WritesTheTypesOfItsLevelAndBelow)
{
    TraceFile trace(GetParam());
    TRACE(tpEntry(1, "\n"));
    TRACE(tpExit(2, "\n"));
    TRACE(tpExc(3, "\n"));
    TRACE(tpEvent(4, "\n"));
    TRACE(tpDebug(5, "\n"));
    TRACE(tpData(6, "\n"));
    std::string types;
    for (const TraceRecord& record : trace.records()) types += record.type + " ";
    const char* expected[] = {"",
                              "*EXC* ",
                              "*EXC* EVENT ",
                              "ENTRY EXIT *EXC* EVENT ",
                              "ENTRY EXIT *EXC* EVENT DEBUG DATA ",
                              "ENTRY EXIT *EXC* EVENT DEBUG DATA "};
    EXPECT_EQ(expected[GetParam()], types);
}

INSTANTIATE_TEST_SUITE_P(Each, LineLevel, ::testing::Range(0, 6));

TEST_F(Line, IsWrittenFromALevelOfItsOwnWhereItsPointSaysSo)
{
    constexpr TracePoint late = tpExc(7, "late\n").fromLevel(4);
    {
        TraceFile trace(3);
        TRACE(late);
        EXPECT_EQ("", trace.text());
    }
    TraceFile trace(4);
    TRACE(late);
    EXPECT_TRUE(trace.wrote(7, "*EXC*", "late"));
}

// ---- Writing -----------------------------------------------------------------------------------

TEST_F(Line, IsInTheFileAtOnce)
{
    TraceFile trace(1);
    TRACE(tpExc(7, "number %d\n"), 1);
    EXPECT_TRUE(trace.wrote(7, "number 1"));
}

TEST_F(Line, LeavesErrnoAsItWas)
{
    TraceFile trace(1);
    errno = 77;
    TRACE(tpExc(7, "one\n"));
    EXPECT_EQ(77, errno);
    TRACE_UNLOCKED(tpExc(8, "two\n"));
    EXPECT_EQ(77, errno);
}

TEST_F(Line, ShowsANullTextAsNull)
{
    TraceFile trace(1);
    TRACE(tpExc(7, "text=%s\n"), traceText(nullptr));
    EXPECT_TRUE(trace.wrote(7, "text=NULL"));
}

TEST_F(Line, ShowsANullPointerAsNil)
{
    TraceFile trace(1);
    TRACE(tpExc(7, "pointer=%p\n"), static_cast<void*>(nullptr));
    EXPECT_TRUE(trace.wrote(7, "pointer=(nil)"));
}

TEST_F(Line, WaitsForTheTraceLock)
{
    TraceFile trace(1);
    ASSERT_EQ(0, clapiRequestLock(&traceLock));
    int before = callCount(Call::MutexLock);
    auto call = callInThread([] { QPX_getAPIVersion(nullptr); });
    ASSERT_TRUE(awaitCallCount(Call::MutexLock, before + 1));
    EXPECT_EQ("", trace.text());
    EXPECT_EQ(0, clapiReleaseLock(&traceLock));
    call.get();
    EXPECT_TRUE(trace.wrote(1030, "*EXC*", "<any>"));
}

TEST_F(Line, TakesNoLockBelowItsLevel)
{
    TraceFile trace(0);
    int before = callCount(Call::MutexLock);
    QPX_getAPIVersion(nullptr);
    char* version = nullptr;
    QPX_getAPIVersion(&version);
    EXPECT_EQ(before, callCount(Call::MutexLock));
}

TEST_F(Line, IsWrittenUnlockedWhileTheTraceLockIsHeld)
{
    TraceFile trace(1);
    ASSERT_EQ(0, clapiRequestLock(&traceLock));
    TRACE_UNLOCKED(tpExc(7, "number %d of %s\n"), 5, "seven");
    EXPECT_EQ(0, clapiReleaseLock(&traceLock));
    EXPECT_TRUE(trace.wrote(7, "*EXC*", "number 5 of seven"));
}

// A line without the lock may come at any moment of another one's writing.
TEST_F(Line, WrittenUnlockedLeavesTheSharedFormatAlone)
{
    TraceFile trace(1);
    TRACE(tpExc(7, "before\n"));
    std::string shared = traceFmtStr.msg;
    TRACE_UNLOCKED(tpExc(8, "number %d\n"), 5);
    EXPECT_EQ(shared, traceFmtStr.msg);
}

TEST_F(Line, IsNeverMixedWithAnotherThreads)
{
    constexpr int threads = 8;
    constexpr int each = 100;
    TraceFile trace(3);
    {
        std::vector<RunningCall<void>> calls;
        for (int thread = 0; thread < threads; ++thread)
            calls.push_back(callInThread([] {
                char name[40];
                for (int i = 0; i < each; ++i) QPX_getRcString(-107, name);
            }));
    }
    std::vector<TraceRecord> records = trace.records();
    EXPECT_EQ(std::size_t{2} * threads * each, records.size());
    EXPECT_EQ(records.size(), trace.lines().size());
    for (const TraceRecord& record : records) {
        EXPECT_EQ("", record.body);
        const char* message = record.point == 1062
                                  ? "API.QPX_getRcString(rc=-107, rcString=<ptr>)"
                                  : "API.QPX_getRcString() rcString=QPX_ERR_BADPORT";
        EXPECT_TRUE(matches(message, record.message)) << record.message;
    }
}

TEST_F(Line, DoesNotHarmACallWhenItCannotBeWritten)
{
    char full[] = "/dev/full";
    ASSERT_RC(0, QPX_setAPITraceFile(full));
    EXPECT_RC(0, QPX_setAPITraceLevel(4));
    char* version = nullptr;
    EXPECT_RC(0, QPX_getAPIVersion(&version));
    EXPECT_RC(-109, QPX_getAPIVersion(nullptr));
    EXPECT_RC(0, QPX_dumpState());
    EXPECT_RC(0, QPX_setAPITraceLevel(0));
    EXPECT_RC(0, QPX_setAPITraceFile(nullptr));
}

// ---- The destination ---------------------------------------------------------------------------

TEST_F(Line, GoesToAFileThatIsClosedWhenTheNextOneIsOpened)
{
    TemporaryDirectory directory;
    std::string first = directory.file("first");
    std::string second = directory.file("second");
    ASSERT_RC(0, QPX_setAPITraceFile(first.data()));
    EXPECT_EQ(0, callCount(Call::Fclose)); // standard error stays open
    ASSERT_RC(0, QPX_setAPITraceFile(second.data()));
    EXPECT_EQ(1, callCount(Call::Fclose));
    ASSERT_RC(0, QPX_setAPITraceFile(nullptr));
    EXPECT_EQ(2, callCount(Call::Fclose));
    EXPECT_EQ(stderr, clientAPITraceHandle);
}

TEST_F(Line, GoesToTheOldFileWhenTheNextOneCannotBeOpened)
{
    TraceFile trace(1);
    FILE* before = clientAPITraceHandle;
    TemporaryDirectory directory;
    std::string other = directory.file("other");
    {
        Fault fault = failCall(Call::Fopen, 1, EMFILE); // 24
        EXPECT_RC(-130, QPX_setAPITraceFile(other.data()));
    }
    EXPECT_EQ(before, clientAPITraceHandle);
    EXPECT_EQ(0, callCount(Call::Fclose));
    EXPECT_TRUE(trace.wrote(1044, "*EXC*",
                            "API.QPX_setAPITraceFile(" + other +
                                ") file append failed with errno=24. Trace file destination is "
                                "unchanged. Filename=" +
                                trace.path()));
}

TEST_F(Line, WaitsForASwitchOfTheFile)
{
    TraceFile trace(1);
    TemporaryDirectory directory;
    std::string other = directory.file("other");
    std::uintptr_t requested = 0;
    {
        Fault look = beforeCall(
            Call::MutexLock, 1, [&](const CallInfo& info) { requested = info.first; },
            Threads::Calling);
        ASSERT_RC(0, QPX_setAPITraceFile(other.data()));
    }
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(&traceLock.lock), requested);
}

TEST_F(Line, WaitsForAChangeOfTheSettings)
{
    TraceFile trace(0);
    std::vector<std::uintptr_t> requested;
    Fault look = beforeCall(Call::MutexLock, 0,
                            [&](const CallInfo& info) { requested.push_back(info.first); });
    QPX_setAPITraceDataLength(64);
    QPX_setAPITraceDataOffset(0);
    EXPECT_RC(0, QPX_setAPITraceLevel(0));
    auto lock = reinterpret_cast<std::uintptr_t>(&traceLock.lock);
    EXPECT_EQ((std::vector<std::uintptr_t>{lock, lock, lock}), requested);
}
