// The trace over a fork: both processes go on tracing, whatever other threads were about.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "clapi_diag.h"
#include "clapi_impl.h"
#include "support/call_in_thread.h"
#include "support/expect_rc.h"
#include "support/faults.h"
#include "support/forked.h"
#include "support/trace_file.h"
#include "unit/connect_fixture.h"

using namespace support;

namespace {

// Writes line 3104, without the trace lock.
void useBadLock()
{
    Clapilock lock = {};
    EXPECT_EQ(-1, clapiRequestLock(&lock));
}

// Runs in a thread that forks, behind everything that the library does before the fork.
thread_local const std::function<void()>* lastBeforeFork = nullptr;

// Handlers that are registered first run last, and the library registers its own with this
// program's other constructors.
__attribute__((constructor(101))) void registerLastBeforeFork()
{
    pthread_atfork(
        [] {
            if (lastBeforeFork != nullptr) (*lastBeforeFork)();
        },
        nullptr, nullptr);
}

void useTimeZone(const char* zone)
{
    setenv("TZ", zone, 1);
    tzset();
}

// A second thread of this process, as long as the object is there.
class SecondThread {
public:
    ~SecondThread() { gate_.open(); }

private:
    Gate gate_;
    RunningCall<void> running_ = callInThread([gate = gate_]() mutable { gate.pass(); });
};

// Makes the library's clock show the seconds in a variable.
Fault clockShowing(const long long& seconds)
{
    return afterCall(Call::Clock, 0, [&seconds](const CallInfo& info) {
        auto* now = reinterpret_cast<timespec*>(info.second);
        now->tv_sec = static_cast<time_t>(seconds);
        now->tv_nsec = 0;
    });
}

std::string stampNow()
{
    char stamp[24];
    clapiGetTimestamp(stamp);
    return stamp;
}

// 15 November 2026, 17:21:12 UTC.
constexpr long long someTime = 1794763272;

// How a test forks, and where the child's zone has become another: 20:21:12 is local time of the
// fork, 12:21:12 that of now.
constexpr const char* zoneOfFork = "XYZ-3";
constexpr const char* zoneOfNow = "XYZ5";
constexpr const char* stampByFork = "15/11/26 20:21:12:000";
constexpr const char* stampByNow = "15/11/26 12:21:12:000";

std::string stampOfSomeTime()
{
    long long seconds = someTime;
    Fault clock = clockShowing(seconds);
    return stampNow();
}

// For a child, 0 if its stamps are that one.
int stampsInTheZoneOfNow(const std::string& stamp)
{
    useTimeZone(zoneOfNow);
    return stampOfSomeTime() == stamp ? 0 : 1;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-y2k" // the trace's form

std::string stampOf(const tm& time)
{
    char stamp[24];
    std::strftime(stamp, sizeof stamp, "%d/%m/%y %H:%M:%S:000", &time);
    return stamp;
}

#pragma GCC diagnostic pop

// Whether the library's stamps and dates are those of UTC, as the C library has it, at a time.
bool stampsUtc(long long seconds)
{
    auto time = static_cast<time_t>(seconds);
    tm utc{};
    gmtime_r(&time, &utc);
    std::string expected = stampOf(utc);
    std::string stamp = stampNow();
    char date[10];
    clapiGetDate(date);
    if (stamp == expected && date == expected.substr(0, 8)) return true;
    std::fprintf(stderr, "%lld: %s and %s, not %s\n", seconds, stamp.c_str(), date,
                 expected.c_str());
    return false;
}

} // namespace

TEST(TraceFork, LeavesTheTraceFreeInTheChildWhileAnotherThreadIsInsideALine)
{
    EXPECT_RC(0, clapiInit());
    TemporaryDirectory directory;
    std::string other = directory.file("other");
    TraceFile trace(1);
    Gate gate;
    Fault writing = beforeCall(
        Call::Write, 1, [&](const CallInfo&) { gate.pass(); }, Threads::Others);
    auto line = callInThread([] { TRACE(tpExc(6, "another's\n")); });
    ASSERT_TRUE(gate.awaitArrival()); // it has both locks

    Gate asking;
    Fault requested = fixture::stopAtLock(Call::MutexLock, traceLock.lock, asking, fixture::always);
    auto forked = callInThread([&] {
        pid_t child = fork();
        if (child == 0) {
            alarm(support::childLimit); // ends a child that hangs
            TRACE(tpExc(7, "of the child\n"));
            useBadLock();
            endChild(QPX_setAPITraceFile(other.data()));
        }
        return child;
    });
    ASSERT_TRUE(asking.awaitArrival()); // everything else is held for the fork
    asking.open();
    EXPECT_FALSE(forked.hasEnded());
    gate.open();
    line.get();
    pid_t child = forked.get();
    ASSERT_GT(child, 0);
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

    TRACE(tpExc(8, "of the parent\n"));
    EXPECT_EQ((std::vector<std::string>{"another's"}), trace.messages(6));
    EXPECT_EQ((std::vector<std::string>{"of the child"}), trace.messages(7));
    EXPECT_EQ((std::vector<std::string>{"of the parent"}), trace.messages(8));
    EXPECT_EQ(1, trace.timesWrote(3104));
    EXPECT_EQ(std::size_t{4}, trace.records().size());
}

TEST(TraceFork, HasNothingToHoldBeforeTheFirstCall)
{
    EXPECT_TRUE(clapiTraceForkPrepare(clapiClockForFork(TRACE_OFF)));
    clapiTraceForkParent();
    EXPECT_RC(0, clapiInit());
    EXPECT_EQ(0, clapiRequestLock(&traceLock));
    EXPECT_EQ(0, clapiReleaseLock(&traceLock));
}

// The id of a process is kept for its lines. A fork that the C library knows nothing of runs none
// of the handlers that could forget it.
TEST(TraceFork, ShowsTheChildsOwnIdAfterEveryKindOfFork)
{
    EXPECT_RC(0, clapiInit());
    ProcessId before = 0;
    clapiGetPidTid(&before, nullptr);
    ASSERT_EQ(getpid(), before);

    auto childIsItself = [] {
        ProcessId pid = 0;
        clapiGetPidTid(&pid, nullptr);
        return pid == static_cast<ProcessId>(syscall(SYS_getpid)) ? 0 : 1;
    };
    auto forkByTheCLibrary = [] { return fork(); };
    auto forkByTheKernelAlone = [] {
        return static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
    };
    for (pid_t (*makeChild)() : {+forkByTheCLibrary, +forkByTheKernelAlone}) {
        pid_t child = makeChild();
        if (child == 0) endChild(childIsItself());
        int status = -1;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
}

// ---- Local time --------------------------------------------------------------------------------

TEST(TraceFork, GivesAChildThatWritesLinesThoughTheTimeZoneWasBeingReadByAnotherThread)
{
    EXPECT_RC(0, clapiInit());
    TemporaryDirectory directory;
    std::string other = directory.file("other");
    std::string zone = directory.file("zone");
    ASSERT_EQ(0, mkfifo(zone.c_str(), 0600));
    TraceFile trace(1);
    TRACE(tpExc(6, "of the parent\n"));
    long long seconds = someTime;
    int zoneText = -1;
    Gate gate;
    auto reader = callInThread([&] {
        gate.pass();
        useTimeZone(zone.c_str());
    });
    ASSERT_TRUE(gate.awaitArrival());
    std::function<void()> letItRead = [&] {
        gate.open();
        zoneText = open(zone.c_str(), O_WRONLY | O_CLOEXEC); // waits until it is inside
    };
    lastBeforeFork = &letItRead;
    int code = inChild([&] {
        Fault clock = clockShowing(seconds);
        TRACE(tpExc(7, "of the child\n"));
        useBadLock();
        return QPX_setAPITraceFile(other.data());
    });
    lastBeforeFork = nullptr;
    close(zoneText);
    reader.get();
    useTimeZone("UTC0");
    EXPECT_EQ(0, code);
    EXPECT_EQ((std::vector<std::string>{"of the child"}), trace.messages(7));
    EXPECT_EQ(1, trace.timesWrote(3104));
}

// The trace is being switched on when the fork begins: it looks at local time before its locks, and
// the level is 0 then.
TEST(TraceFork, GivesAChildThatWritesLinesThoughTheTraceWasSwitchedOnWhileItWaited)
{
    TemporaryDirectory directory;
    std::string zone = directory.file("zone");
    TraceFile trace(0);
    ASSERT_EQ(0, mkfifo(zone.c_str(), 0600));
    Gate writing;
    Fault banner = beforeCall(
        Call::Write, 1, [&](const CallInfo&) { writing.pass(); }, Threads::Others);
    auto change = callInThread([] { return QPX_setAPITraceLevel(1); });
    ASSERT_TRUE(writing.awaitArrival()); // it has the locks of the trace, and the level is 0

    Gate reading;
    auto reader = callInThread([&] {
        reading.pass();
        useTimeZone(zone.c_str());
    });
    ASSERT_TRUE(reading.awaitArrival());
    int zoneText = -1;
    std::function<void()> letItRead = [&] {
        reading.open();
        zoneText = open(zone.c_str(), O_WRONLY | O_CLOEXEC); // waits until it is inside
    };
    Gate asking;
    Fault requested = fixture::stopAtLock(Call::MutexLock, traceLock.lock, asking, fixture::always);
    auto forked = callInThread([&] {
        lastBeforeFork = &letItRead;
        pid_t child = fork();
        if (child == 0) {
            alarm(childLimit); // ends a child that hangs
            TRACE(tpExc(7, "of the child\n"));
            useBadLock();
            endChild(0);
        }
        return child;
    });
    ASSERT_TRUE(asking.awaitArrival()); // everything else is held for the fork
    asking.open();
    writing.open();
    EXPECT_RC(0, change.get());
    pid_t child = forked.get();
    ASSERT_GT(child, 0);
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    close(zoneText);
    reader.get();
    useTimeZone("UTC0");
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ((std::vector<std::string>{"of the child"}), trace.messages(7));
    EXPECT_EQ(1, trace.timesWrote(3104));
}

// The level is another while the first call lasts.
TEST(TraceFork, GivesTheChildOfAProcessWithoutATraceLocalTimeThoughItsFirstCallWasUnderWay)
{
    useTimeZone(zoneOfFork);
    Gate gate;
    Fault stop = beforeCall(Call::MutexInit, 2, [&](const CallInfo&) { gate.pass(); });
    auto first = callInThread([] { return clapiInit(); });
    ASSERT_TRUE(gate.awaitArrival());
    EXPECT_EQ(TRACE_EXCEPTIONS, clientAPITrace);
    Fault forkWaits = beforeCall(
        Call::MutexLock, 1, [&](const CallInfo&) { gate.open(); }, Threads::Calling);

    EXPECT_EQ(0, inChild([] { return stampsInTheZoneOfNow(stampByNow); }));
    EXPECT_RC(0, first.get());
    EXPECT_EQ(TRACE_OFF, clientAPITrace);
}

TEST(TraceFork, GivesAChildThatKeepsTheOffsetFromUtcThatLocalTimeHadThen)
{
    SecondThread second;
    TraceFile trace(1);
    useTimeZone(zoneOfFork);
    EXPECT_EQ(0, inChild([] { return stampsInTheZoneOfNow(stampByFork); }));
}

TEST(TraceFork, GivesAChildWhoseOwnChildrenKeepThatOffsetToo)
{
    SecondThread second;
    TraceFile trace(1);
    useTimeZone(zoneOfFork);
    EXPECT_EQ(0, inChild([] {
                  useTimeZone(zoneOfNow);
                  return inChild([] { return stampsInTheZoneOfNow(stampByFork); });
              }));
}

TEST(TraceFork, LeavesTheParentWithLocalTimeAsItChanges)
{
    SecondThread second;
    TraceFile trace(1);
    useTimeZone(zoneOfFork);
    EXPECT_EQ(0, inChild([] { return 0; }));
    useTimeZone(zoneOfNow);
    EXPECT_EQ(stampByNow, stampOfSomeTime());
}

// The thread sanitizer has a thread of its own.
#ifndef __SANITIZE_THREAD__

TEST(TraceFork, GivesTheChildOfASingleThreadLocalTimeAsItChanges)
{
    TraceFile trace(1);
    useTimeZone(zoneOfFork);
    EXPECT_EQ(0, inChild([] { return stampsInTheZoneOfNow(stampByNow); }));
}

#endif

TEST(TraceFork, GivesTheChildOfAProcessWithoutATraceLocalTimeAsItChanges)
{
    SecondThread second;
    useTimeZone(zoneOfFork);
    EXPECT_EQ(0, inChild([] { return stampsInTheZoneOfNow(stampByNow); }));
}

// A zone of UTC that is 27 leap seconds behind since 1972, as a file of zones has it.
TEST(TraceFork, GivesAChildThatCountsLeapSecondsAsLocalTimeDoes)
{
    std::string zone = std::string("TZif") + std::string(16, '\0');
    for (int count : {0, 0, 1, 0, 1, 4}) zone += std::string(3, '\0') + static_cast<char>(count);
    zone += std::string(6, '\0') + std::string("UTC\0", 4);
    zone += std::string("\x04\xB2\x58\x00", 4) + std::string("\0\0\0\x1B", 4);
    TemporaryDirectory directory;
    std::string file = directory.file("zone");
    std::ofstream(file, std::ios::binary) << zone;
    SecondThread second;
    TraceFile trace(1);
    useTimeZone((":" + file).c_str());

    EXPECT_EQ(0, inChild([] { return stampOfSomeTime() == "15/11/26 17:20:45:000" ? 0 : 1; }));
    useTimeZone("UTC0");
}

TEST(TraceFork, GivesAChildWithTheDatesOfTheCalendar)
{
    constexpr long long secondsPerDay = 86400;
    SecondThread second;
    TraceFile trace(1);
    useTimeZone("UTC0");
    // Four centuries and more around the beginning of time, by the day; some years to a child.
    constexpr long long days = 2000;
    for (long long first = -80000; first < 80000; first += days) {
        ASSERT_EQ(0, inChild([first] {
                      long long seconds = 0;
                      Fault clock = clockShowing(seconds);
                      for (long long day = first; day < first + days; ++day) {
                          seconds = day * secondsPerDay + (day & 1 ? 0 : secondsPerDay - 1);
                          if (!stampsUtc(seconds)) return 1;
                      }
                      return 0;
                  }));
    }
    // Up to the year 40,000, with other times of the day.
    constexpr long long step = 86399999;
    for (long long first = 1; first < 1200000000000; first += days * step) {
        ASSERT_EQ(0, inChild([first] {
                      long long seconds = 0;
                      Fault clock = clockShowing(seconds);
                      for (seconds = first; seconds < first + days * step; seconds += step)
                          if (!stampsUtc(seconds)) return 1;
                      return 0;
                  }));
    }
}

TEST(TraceFork, GivesAChildThatFindsTheDayOfItsOwnOffset)
{
    SecondThread second;
    TraceFile trace(1);
    auto stampsOfChild = [](const char* zone, long long seconds) {
        useTimeZone(zone);
        return inChild([seconds] {
            Fault clock = clockShowing(seconds);
            auto time = static_cast<time_t>(seconds);
            tm local{};
            localtime_r(&time, &local);
            return stampNow() == stampOf(local) ? 0 : 1;
        });
    };
    EXPECT_EQ(0, stampsOfChild("XYZ12:34:56", 0)); // on the last day of the year before
    EXPECT_EQ(0, stampsOfChild("XYZ0:00:01", 951782400));
    EXPECT_EQ(0, stampsOfChild("XYZ-14", 1709164800 - 3600)); // from 28 to 29 February
    EXPECT_EQ(0, stampsOfChild("XYZ-0:00:01", 4107542399));   // into 1 March 2100
}
