// The trace over a fork: both processes go on tracing, whatever other threads were about.

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "clapi_diag.h"
#include "clapi_impl.h"
#include "support/call_in_thread.h"
#include "support/expect_rc.h"
#include "support/faults.h"
#include "support/forked.h"
#include "support/trace_file.h"

using namespace support;

namespace {

// Writes line 3104, without the trace lock.
void useBadLock()
{
    Clapilock lock = {};
    EXPECT_EQ(-1, clapiRequestLock(&lock));
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

    auto lockOfTheTrace = reinterpret_cast<std::uintptr_t>(&traceLock.lock);
    Gate asking;
    Fault requested = beforeCall(
        Call::MutexLock, 0,
        [&](const CallInfo& info) {
            if (info.first == lockOfTheTrace) asking.pass();
        },
        Threads::Others);
    auto forked = callInThread([&] {
        pid_t child = fork();
        if (child == 0) {
            alarm(30); // ends a child that hangs
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
    clapiTraceForkPrepare();
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
