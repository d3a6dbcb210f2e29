// The one-time initialisation. Each case needs a process in which no call has been made yet.

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "clapi_channel.h"
#include "clapi_diag.h"
#include "clapi_gwytok.h"
#include "clapi_impl.h"
#include "support/call_in_thread.h"
#include "support/expect_rc.h"
#include "support/faults.h"
#include "support/scripted_gateway.h"
#include "support/trace_file.h"

using namespace support;

namespace {

constexpr int initializedWord = static_cast<int>(0xFFEEDDCC);
constexpr int destroyedWord = static_cast<int>(0xCCDDEEFF);

class Initialisation : public ::testing::Test {
protected:
    Initialisation()
    {
        unsetenv("QPX_CLIENT_TRACE_LEVEL");
        unsetenv("QPX_CLIENT_TRACE_FILE");
        unsetenv("QPX_CLIENT_DATA_LENGTH");
        unsetenv("QPX_CLIENT_DATA_OFFSET");
    }

    static void set(const char* name, const std::string& value) { setenv(name, value.c_str(), 1); }
};

using FailedInitialisation = Initialisation;

std::uintptr_t addressOf(const Clapilock& lock)
{
    return reinterpret_cast<std::uintptr_t>(&lock.lock);
}

// The mutexes handed to a call, in order.
class Addresses {
public:
    explicit Addresses(Call call)
        : watch_(beforeCall(call, 0, [this](const CallInfo& info) { seen_.push_back(info.first); }))
    {
    }
    const std::vector<std::uintptr_t>& seen() const { return seen_; }

private:
    std::vector<std::uintptr_t> seen_;
    Fault watch_;
};

// The initialisation fails at the nth of its locks: 1 traceLock, 2 gtlLock, 3 chanListLock,
// 4 correlatorLock.
int failLock(int nth)
{
    Fault fault = failCall(Call::MutexInit, nth, ENOMEM);
    return clapiInit();
}

bool sigpipeIsIgnored()
{
    struct sigaction action {};
    sigaction(SIGPIPE, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

} // namespace

// ---- Success -----------------------------------------------------------------------------------

TEST_F(Initialisation, Succeeds)
{
    EXPECT_EQ(0, clapiState);
    EXPECT_RC(0, clapiInit());
    EXPECT_EQ(1, clapiState);
}

TEST_F(Initialisation, LeavesTheTraceOffAndAtStandardError)
{
    CapturedStderr output;
    EXPECT_RC(0, clapiInit());
    EXPECT_EQ(0, clientAPITrace);
    EXPECT_EQ(stderr, clientAPITraceHandle);
    EXPECT_STREQ("stderr", clientAPITraceFilename);
    EXPECT_EQ(0, traceHeaderWrite);
    EXPECT_EQ(128u, clientAPIDataTrunc);
    EXPECT_EQ(0u, clientAPIDataOffset);
    EXPECT_EQ("", output.text());
}

TEST_F(Initialisation, MakesTheGlobalLocksInTheirOrder)
{
    Addresses made(Call::MutexInit);
    EXPECT_RC(0, clapiInit());
    EXPECT_EQ((std::vector<std::uintptr_t>{addressOf(traceLock), addressOf(gtlLock),
                                           addressOf(chanListLock), addressOf(correlatorLock)}),
              made.seen());
    EXPECT_EQ(initializedWord, traceLock.initialized);
    EXPECT_EQ(initializedWord, gtlLock.initialized);
    EXPECT_EQ(initializedWord, chanListLock.initialized);
    EXPECT_EQ(initializedWord, correlatorLock.initialized);
}

TEST_F(Initialisation, RunsOnceOnly)
{
    EXPECT_RC(0, clapiInit());
    int before = callCount(Call::MutexInit);
    EXPECT_RC(0, clapiInit());
    EXPECT_EQ(before, callCount(Call::MutexInit));
}

TEST_F(Initialisation, RunsWithinTheFirstExportedCall)
{
    char* version = nullptr;
    EXPECT_RC(0, QPX_getAPIVersion(&version));
    EXPECT_EQ(1, clapiState);
}

TEST_F(Initialisation, RunsWithinTheCallsWithoutAResult)
{
    QPX_setAPITraceDataLength(128);
    EXPECT_EQ(1, clapiState);
}

// The first thread is stopped inside the initialisation; the second one's call has to wait for it.
TEST_F(Initialisation, RunsOnceForTwoThreadsThatComeAtTheSameMoment)
{
    Gate gate;
    Fault stop = beforeCall(Call::MutexInit, 1, [&](const CallInfo&) { gate.pass(); });
    char* versions[2] = {nullptr, nullptr};
    auto first = callInThread([&] { return QPX_getAPIVersion(&versions[0]); });
    ASSERT_TRUE(gate.awaitArrival());
    auto second = callInThread([&] { return QPX_getAPIVersion(&versions[1]); });
    ASSERT_TRUE(awaitCallCount(Call::Once, 2));
    EXPECT_FALSE(second.hasEnded());
    gate.open();
    EXPECT_RC(0, first.get());
    EXPECT_RC(0, second.get());
    EXPECT_STREQ("2.3.0.0", versions[0]);
    EXPECT_EQ(versions[0], versions[1]);
    EXPECT_EQ(4, stop.calls());
}

TEST_F(Initialisation, GivesTheSameFailureToTwoThreadsThatComeAtTheSameMoment)
{
    CapturedStderr output;
    Gate gate;
    Fault stop = beforeCall(Call::MutexInit, 1, [&](const CallInfo&) { gate.pass(); });
    Fault fault = failCall(Call::MutexInit, 3, ENOMEM);
    auto first = callInThread([] { return clapiInit(); });
    ASSERT_TRUE(gate.awaitArrival());
    auto second = callInThread([] { return clapiInit(); });
    ASSERT_TRUE(awaitCallCount(Call::Once, 2));
    gate.open();
    EXPECT_EQ(-1, first.get());
    EXPECT_EQ(-1, second.get());
    EXPECT_EQ(1, fault.hits());
}

// ---- Broken pipes ------------------------------------------------------------------------------

TEST_F(Initialisation, IgnoresBrokenPipesFromTheFirstCallOn)
{
    EXPECT_FALSE(sigpipeIsIgnored());
    EXPECT_RC(0, clapiInit());
    EXPECT_TRUE(sigpipeIsIgnored());
}

TEST_F(Initialisation, MakesAWriteToAClosedPeerReturnAnError)
{
    EXPECT_RC(0, clapiInit());
    auto ends = socketPair();
    ends.second.close();
    EXPECT_EQ(-1, send(ends.first.fd(), "x", 1, 0));
    EXPECT_EQ(EPIPE, errno);
}

TEST_F(FailedInitialisation, LeavesBrokenPipesAsTheyWere)
{
    CapturedStderr output;
    EXPECT_EQ(-1, failLock(4));
    EXPECT_FALSE(sigpipeIsIgnored());
}

// ---- pthread_once fails ------------------------------------------------------------------------

TEST_F(FailedInitialisation, GivesSystemErrorWhenItCannotEvenBegin)
{
    Fault fault = failCall(Call::Once, 1, EINVAL);
    EXPECT_RC(-9, clapiInit());
    EXPECT_EQ(0, clapiState);
}

TEST_F(FailedInitialisation, MakesACallFailThatCouldNotBegin)
{
    Fault fault = failCall(Call::Once, 1, EINVAL);
    char* version = nullptr;
    EXPECT_RC(-9, QPX_getAPIVersion(&version));
    EXPECT_EQ(nullptr, version);
}

// ---- The trace cannot be set up ----------------------------------------------------------------

TEST_F(FailedInitialisation, GivesSystemErrorWithoutTheTraceLock)
{
    CapturedStderr output;
    EXPECT_RC(-9, failLock(1));
    EXPECT_EQ(0, clapiState);
    EXPECT_TRUE(contains(output.text(),
                         "clapi_impl.clapiInitFunc() Init of qpxclient API trace failed rc=-9\n"));
}

TEST_F(FailedInitialisation, TellsOfTheTraceLockWithoutALinePrefix)
{
    CapturedStderr output;
    failLock(1);
    for (const TraceRecord& record : parseTrace(output.text()))
        EXPECT_FALSE(contains(record.message, "Init of qpxclient API trace failed"));
}

TEST_F(FailedInitialisation, TracesTheMutexThatCouldNotBeMade)
{
    CapturedStderr output;
    failLock(1);
    EXPECT_TRUE(wroteIn(output.text(), 3101, "*EXC*",
                        "clapi_lock.clapiInitializeLockLock initialization failed "
                        "&(lockPtr->lock)=<ptr> mutexRc=12 errno=12"));
}

TEST_F(FailedInitialisation, MakesNoOtherLockWithoutTheTraceLock)
{
    CapturedStderr output;
    Addresses made(Call::MutexInit);
    failLock(1);
    EXPECT_EQ(std::vector<std::uintptr_t>{addressOf(traceLock)}, made.seen());
}

TEST_F(FailedInitialisation, GivesMallocFailWithoutRoomForTheTraceFileName)
{
    CapturedStderr output;
    Fault fault = failCall(Call::Malloc, 1, ENOMEM);
    EXPECT_RC(-111, clapiInit());
    EXPECT_EQ(0, clapiState);
    EXPECT_TRUE(contains(
        output.text(), "clapi_impl.clapiInitFunc() Init of qpxclient API trace failed rc=-111\n"));
}

TEST_F(FailedInitialisation, SurvivesATraceFileInTheEnvironmentWithoutTheTraceLock)
{
    CapturedStderr output;
    TemporaryDirectory directory;
    set("QPX_CLIENT_TRACE_FILE", directory.file("trace"));
    set("QPX_CLIENT_TRACE_LEVEL", "4");
    EXPECT_RC(-9, failLock(1));
    EXPECT_RC(-9, QPX_dumpState());
}

TEST_F(FailedInitialisation, SurvivesATraceFileInTheEnvironmentWithoutRoomForItsName)
{
    CapturedStderr output;
    TemporaryDirectory directory;
    set("QPX_CLIENT_TRACE_FILE", directory.file("trace"));
    set("QPX_CLIENT_TRACE_LEVEL", "4");
    Fault fault = failCall(Call::Malloc, 1, ENOMEM);
    EXPECT_RC(-111, clapiInit());
    EXPECT_RC(-111, QPX_dumpState());
}

// ---- A global lock cannot be made --------------------------------------------------------------

TEST_F(FailedInitialisation, GivesTheResultOfTheTokenListLock)
{
    CapturedStderr output;
    EXPECT_EQ(-1, failLock(2));
    EXPECT_TRUE(wroteIn(output.text(), 1076, "*EXC*",
                        "clapi_impl.clapiInitFunc() Init of Gateway Token List lock failed rc=-1"));
}

TEST_F(FailedInitialisation, GivesTheResultOfTheChannelListLock)
{
    CapturedStderr output;
    EXPECT_EQ(-1, failLock(3));
    EXPECT_TRUE(wroteIn(output.text(), 1078, "*EXC*",
                        "clapi_impl.clapiInitFunc() Init of channel list lock failed rc=-1"));
}

TEST_F(FailedInitialisation, GivesTheResultOfTheCorrelatorLock)
{
    CapturedStderr output;
    EXPECT_EQ(-1, failLock(4));
    EXPECT_TRUE(wroteIn(output.text(), 1079, "*EXC*",
                        "clapi_impl.clapiInitFunc() Init of correlator lock  failed rc=-1"));
}

TEST_F(FailedInitialisation, DestroysTheTraceLockWhenTheTokenListLockFails)
{
    CapturedStderr output;
    Addresses destroyed(Call::MutexDestroy);
    failLock(2);
    EXPECT_EQ(std::vector<std::uintptr_t>{addressOf(traceLock)}, destroyed.seen());
    EXPECT_EQ(destroyedWord, traceLock.initialized);
    EXPECT_EQ(0, gtlLock.initialized);
    EXPECT_EQ(0, chanListLock.initialized);
    EXPECT_EQ(0, correlatorLock.initialized);
}

TEST_F(FailedInitialisation, DestroysTheLocksBeforeTheChannelListLockInReverseOrder)
{
    CapturedStderr output;
    Addresses destroyed(Call::MutexDestroy);
    failLock(3);
    EXPECT_EQ((std::vector<std::uintptr_t>{addressOf(gtlLock), addressOf(traceLock)}),
              destroyed.seen());
    EXPECT_EQ(destroyedWord, gtlLock.initialized);
    EXPECT_EQ(0, chanListLock.initialized);
    EXPECT_EQ(0, correlatorLock.initialized);
}

TEST_F(FailedInitialisation, DestroysTheLocksBeforeTheCorrelatorLockInReverseOrder)
{
    CapturedStderr output;
    Addresses destroyed(Call::MutexDestroy);
    failLock(4);
    EXPECT_EQ((std::vector<std::uintptr_t>{addressOf(chanListLock), addressOf(gtlLock),
                                           addressOf(traceLock)}),
              destroyed.seen());
    EXPECT_EQ(destroyedWord, chanListLock.initialized);
    EXPECT_EQ(0, correlatorLock.initialized);
}

// Neither the line of the initialisation nor the lock module's own takes it; later it is gone.
TEST_F(FailedInitialisation, IsToldWithoutTheTraceLock)
{
    CapturedStderr output;
    Addresses taken(Call::MutexLock);
    failLock(4);
    EXPECT_EQ(0, std::count(taken.seen().begin(), taken.seen().end(), addressOf(traceLock)));
    EXPECT_TRUE(wroteIn(output.text(), 1079, "*EXC*", "<any>"));
}

TEST_F(FailedInitialisation, LeavesTheStateAtZero)
{
    CapturedStderr output;
    failLock(2);
    EXPECT_EQ(0, clapiState);
}

TEST_F(FailedInitialisation, IsNeverTriedAgain)
{
    CapturedStderr output;
    EXPECT_EQ(-1, failLock(3));
    int before = callCount(Call::MutexInit);
    EXPECT_EQ(-1, clapiInit());
    char* version = nullptr;
    EXPECT_EQ(-1, QPX_getDLLVersion(&version));
    EXPECT_EQ(before, callCount(Call::MutexInit));
}

TEST_F(FailedInitialisation, MakesEveryCallFailWithoutDoingItsWork)
{
    CapturedStderr output;
    failLock(2);
    char* version = nullptr;
    int level = 77;
    EXPECT_EQ(-1, QPX_getAPIVersion(&version));
    EXPECT_EQ(-1, QPX_getDLLVersion(&version));
    EXPECT_EQ(nullptr, version);
    EXPECT_EQ(-1, QPX_getAPITraceLevel(&level));
    EXPECT_EQ(77, level);
    EXPECT_EQ(-1, QPX_closeAllGatewayConnections());
}

TEST_F(FailedInitialisation, SkipsTheChecksOfArguments)
{
    CapturedStderr output;
    failLock(2);
    EXPECT_EQ(-1, QPX_getAPIVersion(nullptr));
    EXPECT_EQ(-1, QPX_setAPITraceLevel(6));
    EXPECT_FALSE(contains(output.text(), "[1030]"));
    EXPECT_FALSE(contains(output.text(), "[1039]"));
}

TEST_F(FailedInitialisation, KeepsTheTraceLevelFromBeingSet)
{
    CapturedStderr output;
    failLock(2);
    EXPECT_EQ(-1, QPX_setAPITraceLevel(4));
    EXPECT_EQ(1, clientAPITrace);
}

TEST_F(FailedInitialisation, KeepsTheTraceFileFromBeingSet)
{
    CapturedStderr output;
    failLock(2);
    TemporaryDirectory directory;
    std::string path = directory.file("trace");
    EXPECT_EQ(-1, QPX_setAPITraceFile(path.data()));
    EXPECT_EQ(stderr, clientAPITraceHandle);
    EXPECT_EQ("", readFile(path));
}

TEST_F(FailedInitialisation, DumpsNoState)
{
    CapturedStderr output;
    failLock(2);
    EXPECT_EQ(-1, QPX_dumpState());
    EXPECT_FALSE(contains(output.text(), "qpxclient state dump"));
}

TEST_F(FailedInitialisation, IsIgnoredByTheCallsWithoutAResult)
{
    CapturedStderr output;
    failLock(2);
    QPX_setAPITraceDataLength(5);
    QPX_setAPITraceDataOffset(3);
    EXPECT_EQ(5u, clientAPIDataTrunc);
    EXPECT_EQ(3u, clientAPIDataOffset);
}

TEST_F(FailedInitialisation, LeavesReturnCodeNamesToBeHad)
{
    CapturedStderr output;
    failLock(2);
    char name[40];
    EXPECT_STREQ("QPX_ERR_BADPORT", QPX_getRcString(-107, name));
}

// ---- Trace level after a failure ---------------------------------------------------------------

TEST_F(FailedInitialisation, LeavesTheTraceLevelAtOne)
{
    CapturedStderr output;
    failLock(3);
    EXPECT_EQ(1, clientAPITrace);
}

TEST_F(FailedInitialisation, LeavesTheTraceLevelAtOneWithoutTheTraceLock)
{
    CapturedStderr output;
    failLock(1);
    EXPECT_EQ(1, clientAPITrace);
}

TEST_F(FailedInitialisation, TakesTheTraceLevelFromTheEnvironment)
{
    CapturedStderr output;
    set("QPX_CLIENT_TRACE_LEVEL", "3");
    failLock(3);
    EXPECT_EQ(3, clientAPITrace);
}

TEST_F(FailedInitialisation, TakesTraceLevelZeroFromTheEnvironment)
{
    CapturedStderr output;
    set("QPX_CLIENT_TRACE_LEVEL", "0");
    failLock(3);
    EXPECT_EQ(0, clientAPITrace);
}

TEST_F(FailedInitialisation, TakesTheTraceFileFromTheEnvironment)
{
    CapturedStderr output;
    TemporaryDirectory directory;
    std::string path = directory.file("trace");
    set("QPX_CLIENT_TRACE_FILE", path);
    failLock(3);
    EXPECT_NE(stderr, clientAPITraceHandle);
    EXPECT_STREQ(path.c_str(), clientAPITraceFilename);
    EXPECT_TRUE(contains(readFile(path), "*** Trace Level = 1, Trace File = " + path + ", "));
    EXPECT_TRUE(wroteIn(output.text(), 1078, "*EXC*", "<any>"));
}

TEST_F(FailedInitialisation, TakesTheDataSettingsFromTheEnvironment)
{
    CapturedStderr output;
    set("QPX_CLIENT_DATA_LENGTH", "64");
    set("QPX_CLIENT_DATA_OFFSET", "8");
    failLock(3);
    EXPECT_EQ(64u, clientAPIDataTrunc);
    EXPECT_EQ(8u, clientAPIDataOffset);
}

TEST_F(FailedInitialisation, TellsOfABadTraceLevelAndTurnsTheTraceOff)
{
    CapturedStderr output;
    set("QPX_CLIENT_TRACE_LEVEL", "6");
    failLock(3);
    EXPECT_EQ(0, clientAPITrace);
    EXPECT_TRUE(wroteIn(output.text(), 1075, "*EXC*",
                        "clapi_impl.clapiSetAPITraceLevelFromEnv() Supplied trace environment "
                        "value 6 was invalid"));
}

TEST_F(FailedInitialisation, TracesEntryAndExitOfCallsAllTheSame)
{
    CapturedStderr output;
    set("QPX_CLIENT_TRACE_LEVEL", "3");
    failLock(3);
    char* version = nullptr;
    QPX_getAPIVersion(&version);
    EXPECT_TRUE(wroteIn(output.text(), 1029, "ENTRY", "API.QPX_getAPIVersion(apiVersPtr=<ptr>)"));
    EXPECT_TRUE(wroteIn(output.text(), 1031, "EXIT",
                        "API.QPX_getAPIVersion() rc=-1 (ECI_ERR_INVALID_DATA_LENGTH)"));
}

// ---- clapiInitTrace ----------------------------------------------------------------------------

TEST_F(Initialisation, SetsTheTraceUpAtStandardError)
{
    clientAPITraceHandle = nullptr;
    EXPECT_EQ(0, clapiInitTrace());
    EXPECT_EQ(stderr, clientAPITraceHandle);
    EXPECT_STREQ("stderr", clientAPITraceFilename);
    EXPECT_EQ(initializedWord, traceLock.initialized);
    EXPECT_STREQ("stderr", defaultTraceFilename);
}

TEST_F(Initialisation, AllocatesRoomForTheTraceFileName)
{
    std::uintptr_t size = 0;
    Fault look = beforeCall(Call::Malloc, 1, [&](const CallInfo& info) { size = info.first; });
    EXPECT_EQ(0, clapiInitTrace());
    EXPECT_EQ(1024u, size);
}

// Deliberate: a trace lock that is there already ends the step before the name's room is made.
TEST_F(Initialisation, TakesATraceLockThatIsThereAlreadyForSuccess)
{
    ASSERT_EQ(0, clapiInitializeLock(&traceLock));
    int before = callCount(Call::Malloc);
    EXPECT_EQ(0, clapiInitTrace());
    EXPECT_EQ(before, callCount(Call::Malloc));
    EXPECT_EQ(nullptr, clientAPITraceFilename);
}

TEST_F(FailedInitialisation, GivesSystemErrorForTheTraceLockInTheTraceSetUp)
{
    Fault fault = failCall(Call::MutexInit, 1, ENOMEM);
    EXPECT_RC(-9, clapiInitTrace());
}

TEST_F(FailedInitialisation, GivesMallocFailForTheNameInTheTraceSetUp)
{
    Fault fault = failCall(Call::Malloc, 1, ENOMEM);
    EXPECT_RC(-111, clapiInitTrace());
}
