// Holding a channel: lockChannel and unlockChannel, those who wait, and handles that are none.

#include <sys/mman.h>

#include <cstdint>
#include <cstring>

#include "unit/channel_fixture.h"

using namespace fixture;
using namespace support;

namespace {

class ChannelLock : public ::testing::Test {
protected:
    ChannelLock() { settleCodePage(); }

    RunningCall<int> locker(const TraceFile& trace)
    {
        return waiterFor(trace, token(), [this] { return lockChannel(token()); });
    }

    ECI_ChannelToken_t token() const { return channel.token; }

    CustomerChannel channel;
};

class ChannelCallLock : public ChannelLock, public ::testing::WithParamInterface<ChannelCall> {};
class ChannelDeletedCall : public ChannelLock, public ::testing::WithParamInterface<ChannelCall> {};

using ChannelUnlock = ChannelLock;

// Memory that is no channel's.
struct BadHandle {
    const char* kind;
    ECI_ChannelToken_t (*make)();
};

void PrintTo(const BadHandle& handle, std::ostream* stream)
{
    *stream << handle.kind;
}

alignas(16) char zeroes[1024];
alignas(16) char letters[1024];
alignas(16) char destroyed[1024];

ECI_ChannelToken_t asToken(void* address)
{
    return static_cast<ECI_ChannelToken_t>(address);
}

constexpr std::size_t regionSize = 64U << 20U;

char* mapped(int protection)
{
    void* region = mmap(nullptr, regionSize, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(MAP_FAILED, region);
    return static_cast<char*>(region);
}

const BadHandle badHandles[] = {
    {"Zeroes", [] { return asToken(zeroes); }},
    {"Text",
     [] {
         std::memset(letters, 'A', sizeof letters);
         return asToken(letters);
     }},
    {"DestroyedLock",
     [] {
         asToken(destroyed)->serLock.initialized = LOCK_DESTROYED;
         return asToken(destroyed);
     }},
    {"UnmappedPage",
     [] { // in the middle of a hole that nothing later fills
         char* region = mapped(PROT_READ);
         munmap(region, regionSize);
         return asToken(region + regionSize / 2);
     }},
    {"ForbiddenPage", [] { return asToken(mapped(PROT_NONE)); }},
    {"LowAddress", [] { return reinterpret_cast<ECI_ChannelToken_t>(std::uintptr_t{16}); }},
    {"HighestAddress", [] { return reinterpret_cast<ECI_ChannelToken_t>(~std::uintptr_t{15}); }},
};

class ChannelBadHandle : public ::testing::TestWithParam<BadHandle> {
protected:
    ChannelBadHandle() : token(GetParam().make()) { settleCodePage(); }

    ECI_ChannelToken_t token;
};

std::string isNotAChannel(const char* function, ECI_ChannelToken_t token)
{
    return std::string("clapi_channel.") + function + "() chanTok (" + shown(token) +
           ") is not a channel";
}

} // namespace

// ---- lockChannel -------------------------------------------------------------------------------

TEST_F(ChannelLock, HoldsAChannel)
{
    EXPECT_RC(0, lockChannel(token()));
    EXPECT_EQ(1, token()->isLocked);
    EXPECT_EQ(0, token()->unlockEvent.eflag);
    EXPECT_TRUE(isFree(token()->serLock.lock));
    EXPECT_RC(0, unlockChannel(token()));
    EXPECT_EQ(0, token()->isLocked);
    EXPECT_EQ(1, token()->unlockEvent.eflag);
}

TEST_F(ChannelLock, IsTracedWithoutAWait)
{
    TraceFile trace(4);
    EXPECT_RC(0, lockChannel(token()));
    EXPECT_TRUE(
        traceReads(trace, {"1460 ENTRY clapi_channel.lockChannel(chanTok=" + shown(token()) + ")",
                           "3121 DEBUG clapi_lock.clapiSetEvent() Setting event, eventPtr=" +
                               shown(&token()->unlockEvent),
                           "1470 EXIT clapi_channel.lockChannel() rc=0 (QPX_OK)"}));
    unlockChannel(token());
}

TEST_F(ChannelLock, NeedsAChannel)
{
    TraceFile trace(4);
    EXPECT_RC(-50, lockChannel(nullptr));
    EXPECT_TRUE(traceReads(trace, {"1460 ENTRY clapi_channel.lockChannel(chanTok=(nil))",
                                   "1461 *EXC* clapi_channel.lockChannel() chanTok is NULL",
                                   "1470 EXIT clapi_channel.lockChannel() rc=-50 "
                                   "(ECI_ERR_INVALID_CHANNEL)"}));
}

TEST_F(ChannelLock, MakesASecondThreadWaitUntilItIsGivenUp)
{
    TraceFile trace(4);
    ASSERT_RC(0, lockChannel(token()));
    auto second = locker(trace);
    EXPECT_FALSE(second.hasEnded());
    EXPECT_EQ(1, token()->isLocked);
    EXPECT_RC(0, unlockChannel(token()));
    EXPECT_RC(0, second.get());
    EXPECT_EQ(1, token()->isLocked);
    EXPECT_RC(0, unlockChannel(token()));
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelLock, TellsOfAWait)
{
    TraceFile trace(4);
    ASSERT_RC(0, lockChannel(token()));
    trace.forget();
    auto second = locker(trace);
    EXPECT_TRUE(
        traceReads(trace, {"1460 ENTRY clapi_channel.lockChannel(chanTok=" + shown(token()) + ")",
                           "1463 DEBUG " + waitingLine(token()),
                           "3119 DEBUG clapi_lock.clapiWaitEvent() Waiting on event, eventPtr=" +
                               shown(&token()->unlockEvent)}));
    trace.forget();
    unlockChannel(token());
    EXPECT_RC(0, second.get());
    EXPECT_TRUE(trace.wroteText("DEBUG  " + finishedLine(token()) + "\n"));
    EXPECT_TRUE(trace.wrote(1470, "EXIT", "clapi_channel.lockChannel() rc=0 (QPX_OK)"));
    unlockChannel(token());
}

TEST_F(ChannelLock, TellsOfTheEndOfAWaitAtLevel2)
{
    TraceFile trace(2);
    ASSERT_RC(0, lockChannel(token()));
    int sleepers = callCount(Call::CondWait);
    auto second = callInThread([this] { return lockChannel(token()); });
    ASSERT_TRUE(awaitCallCount(Call::CondWait, sleepers + 1));
    unlockChannel(token());
    EXPECT_RC(0, second.get());
    EXPECT_TRUE(traceReads(trace, {"<int> DEBUG " + finishedLine(token())}));
    unlockChannel(token());
}

TEST_F(ChannelLock, TellsNothingOfAWaitAtLevel1)
{
    TraceFile trace(1);
    ASSERT_RC(0, lockChannel(token()));
    int sleepers = callCount(Call::CondWait);
    auto second = callInThread([this] { return lockChannel(token()); });
    ASSERT_TRUE(awaitCallCount(Call::CondWait, sleepers + 1));
    unlockChannel(token());
    EXPECT_RC(0, second.get());
    EXPECT_EQ("", trace.text());
    unlockChannel(token());
}

// The waiter is released and finds the channel held again: the hook closes the gate while the event
// is still being posted.
TEST_F(ChannelLock, IsWaitedForAgainButToldOnce)
{
    TraceFile trace(4);
    ASSERT_RC(0, lockChannel(token()));
    auto second = locker(trace);
    int sleepers = callCount(Call::CondWait);
    {
        Fault close = afterCall(Call::CondBroadcast, 1,
                                [this](const CallInfo&) { token()->unlockEvent.eflag = 0; });
        ASSERT_EQ(0, clapiClearEvent(&token()->unlockEvent));
    }
    ASSERT_TRUE(awaitCallCount(Call::CondWait, sleepers + 1));
    EXPECT_FALSE(second.hasEnded());
    EXPECT_RC(0, unlockChannel(token()));
    EXPECT_RC(0, second.get());
    EXPECT_EQ(1, trace.timesWrote(1463));
    EXPECT_EQ(1, trace.timesWroteText(finishedLine(token())));
    EXPECT_RC(0, unlockChannel(token()));
}

TEST_F(ChannelLock, IsGivenToOneThreadAfterTheOther)
{
    constexpr int threads = 6;
    constexpr int rounds = 500;
    int counter = 0; // not atomic: the channel guards it
    {
        std::vector<RunningCall<int>> calls;
        for (int thread = 0; thread < threads; ++thread)
            calls.push_back(callInThread([&] {
                int failures = 0;
                for (int round = 0; round < rounds; ++round) {
                    if (lockChannel(token()) != 0) failures += 1;
                    counter += 1;
                    if (unlockChannel(token()) != 0) failures += 1;
                }
                return failures;
            }));
        for (RunningCall<int>& call : calls) EXPECT_EQ(0, call.get());
    }
    EXPECT_EQ(threads * rounds, counter);
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelLock, IsOfOneChannelOnly)
{
    Channel other;
    ASSERT_RC(0, lockChannel(token()));
    EXPECT_RC(0, lockChannel(other.token));
    EXPECT_RC(0, unlockChannel(other.token));
    EXPECT_RC(0, unlockChannel(token()));
}

// ---- unlockChannel -----------------------------------------------------------------------------

TEST_F(ChannelUnlock, IsTraced)
{
    ASSERT_RC(0, lockChannel(token()));
    TraceFile trace(4);
    EXPECT_RC(0, unlockChannel(token()));
    EXPECT_TRUE(
        traceReads(trace, {"1471 ENTRY clapi_channel.unlockChannel(chanTok=" + shown(token()) + ")",
                           "3122 DEBUG clapi_lock.clapiClearEvent() Clearing event, eventPtr=" +
                               shown(&token()->unlockEvent),
                           "1476 EXIT clapi_channel.unlockChannel() rc=0 (QPX_OK)"}));
}

TEST_F(ChannelUnlock, NeedsAChannel)
{
    TraceFile trace(4);
    EXPECT_RC(-50, unlockChannel(nullptr));
    EXPECT_TRUE(traceReads(trace, {"1471 ENTRY clapi_channel.unlockChannel(chanTok=(nil))",
                                   "1472 *EXC* clapi_channel.unlockChannel() chanTok is NULL",
                                   "1476 EXIT clapi_channel.unlockChannel() rc=-50 "
                                   "(ECI_ERR_INVALID_CHANNEL)"}));
}

TEST_F(ChannelUnlock, MayBeDoneTwice)
{
    ASSERT_RC(0, lockChannel(token()));
    EXPECT_RC(0, unlockChannel(token()));
    EXPECT_RC(0, unlockChannel(token()));
    EXPECT_TRUE(isUsable(token()));
}

TEST_F(ChannelUnlock, MayBeDoneToAChannelThatWasNeverHeld)
{
    Channel fresh;
    TraceFile trace(1);
    EXPECT_RC(0, unlockChannel(fresh.token));
    EXPECT_EQ("", trace.text());
    EXPECT_TRUE(isUsable(fresh.token));
}

TEST_F(ChannelUnlock, MayBeDoneByAnotherThread)
{
    ASSERT_RC(0, lockChannel(token()));
    auto other = callInThread([this] { return unlockChannel(token()); });
    EXPECT_RC(0, other.get());
    EXPECT_TRUE(isUsable(token()));
}

// ---- Every call --------------------------------------------------------------------------------

TEST_P(ChannelCallLock, IsWaitedForByTheCall)
{
    TraceFile trace(4);
    ASSERT_RC(0, lockChannel(token()));
    auto call = waiterFor(trace, token(), [this] { return GetParam().make(token()); });
    EXPECT_FALSE(call.hasEnded());
    EXPECT_EQ(1, token()->numContainers);
    EXPECT_EQ(std::string("4711"), std::string(token()->firstCont->dataPtr, 4));
    EXPECT_EQ(token()->firstCont, token()->currentCont);
    EXPECT_RC(0, unlockChannel(token()));
    int expected = std::strcmp(GetParam().name, "getNextContainer") == 0 ? -54 : 0;
    EXPECT_RC(expected, call.get());
    EXPECT_TRUE(isUsable(token()));
}

TEST_P(ChannelCallLock, IsFreeAfterTheCall)
{
    GetParam().make(token());
    EXPECT_TRUE(isUsable(token()));
    GetParam().make(token());
    EXPECT_TRUE(isUsable(token()));
}

INSTANTIATE_TEST_SUITE_P(OfEachCall, ChannelCallLock, ::testing::ValuesIn(callsThatKeep()));

// ---- Deletion ----------------------------------------------------------------------------------

TEST_F(ChannelLock, KeepsADeletionWaiting)
{
    TraceFile trace(4);
    ASSERT_RC(0, lockChannel(token()));
    ECI_ChannelToken_t mine = token();
    auto deletion = waiterFor(trace, token(), [&] { return ECI_deleteChannel(&mine); });
    EXPECT_FALSE(deletion.hasEnded());
    EXPECT_NE(nullptr, mine);
    EXPECT_EQ(1, token()->numContainers);
    channel.token = nullptr;
    EXPECT_RC(0, unlockChannel(mine));
    EXPECT_RC(0, deletion.get());
    EXPECT_EQ(nullptr, mine);
    EXPECT_EQ(0, channelCount());
}

TEST_F(ChannelLock, LeavesTheChannelOnTheListWhileADeletionWaits)
{
    {
        TraceFile trace(4);
        ASSERT_RC(0, lockChannel(token()));
        ECI_ChannelToken_t mine = token();
        auto deletion = waiterFor(trace, token(), [&] { return ECI_deleteChannel(&mine); });
        EXPECT_RC(0, QPX_ECI_dumpChannels());
        EXPECT_TRUE(trace.wroteText("name(           ORDER) serlock(<ptr>) unlockEvent(<ptr>) "
                                    "isLocked(1) "));
        ECI_ChannelToken_t held = token();
        channel.token = nullptr;
        EXPECT_RC(0, unlockChannel(held));
        EXPECT_RC(0, deletion.get());
    }
    EXPECT_EQ(0, channelCount());
}

// The deletion holds the channel and stops where it frees the data; the call waits for the
// channel, which then is no more.
TEST_P(ChannelDeletedCall, IsRefusedWhenItWaitedForADeletion)
{
    TraceFile trace(4);
    Gate freeing;
    void* data = token()->firstCont->dataPtr;
    Fault stop = beforeCall(Call::Free, 0, [&](const CallInfo& info) {
        if (info.first == reinterpret_cast<std::uintptr_t>(data)) freeing.pass();
    });
    ECI_ChannelToken_t stale = token();
    auto deletion = callInThread([this] { return ECI_deleteChannel(&channel.token); });
    ASSERT_TRUE(freeing.awaitArrival());
    auto call = waiterFor(trace, stale, [&] { return GetParam().make(stale); });
    EXPECT_FALSE(call.hasEnded());
    freeing.open();
    EXPECT_RC(-50, call.get());
    EXPECT_RC(0, deletion.get());
    EXPECT_TRUE(
        trace.wrote(1470, "EXIT", "clapi_channel.lockChannel() rc=-50 (ECI_ERR_INVALID_CHANNEL)"));
}

INSTANTIATE_TEST_SUITE_P(OfEachCall, ChannelDeletedCall, ::testing::ValuesIn(everyCall()));

TEST_F(ChannelLock, OfADeletedChannelRefusesAllWhoWaited)
{
    constexpr int waiters = 5;
    TraceFile trace(4);
    Gate freeing;
    void* data = token()->firstCont->dataPtr;
    Fault stop = beforeCall(Call::Free, 0, [&](const CallInfo& info) {
        if (info.first == reinterpret_cast<std::uintptr_t>(data)) freeing.pass();
    });
    ECI_ChannelToken_t stale = token();
    auto deletion = callInThread([this] { return ECI_deleteChannel(&channel.token); });
    ASSERT_TRUE(freeing.awaitArrival());
    std::vector<RunningCall<int>> calls;
    for (int number = 0; number < waiters; ++number)
        calls.push_back(waiterFor(trace, stale, [stale] { return lockChannel(stale); }));
    freeing.open();
    for (RunningCall<int>& call : calls) EXPECT_RC(-50, call.get());
    EXPECT_RC(0, deletion.get());
}

TEST_F(ChannelLock, LetsOneOfTwoDeletionsDoIt)
{
    TraceFile trace(4);
    ASSERT_RC(0, lockChannel(token()));
    ECI_ChannelToken_t held = token();
    ECI_ChannelToken_t mine[2] = {held, held};
    channel.token = nullptr;
    auto first = waiterFor(trace, held, [&] { return ECI_deleteChannel(&mine[0]); });
    auto second = waiterFor(trace, held, [&] { return ECI_deleteChannel(&mine[1]); });
    EXPECT_RC(0, unlockChannel(held));
    int rc[2] = {first.get(), second.get()};
    int loser = rc[0] == 0 ? 1 : 0;
    EXPECT_RC(0, rc[1 - loser]);
    EXPECT_RC(-50, rc[loser]);
    EXPECT_EQ(nullptr, mine[1 - loser]);
    EXPECT_EQ(held, mine[loser]);
    EXPECT_EQ(1, trace.timesWrote(1422));
}

// Threads that use a channel and one that deletes it: each call is done or refused.
TEST_F(ChannelLock, IsRefusedOrDoneWhileADeletionComes)
{
    constexpr int rounds = 200;
    for (int round = 0; round < rounds; ++round) {
        ECI_ChannelToken_t shared = nullptr;
        ASSERT_RC(0, ECI_createChannel("SHARED", &shared));
        ECI_ChannelToken_t copy = shared;
        ASSERT_RC(0, lockChannel(shared));
        int sleepers = callCount(Call::CondWait);
        auto user = callInThread(
            [copy] { return ECI_createContainer(copy, "ONE", ECI_BIT, 0, "data", 4); });
        auto deletion = callInThread([&shared] { return ECI_deleteChannel(&shared); });
        ASSERT_TRUE(awaitCallCount(Call::CondWait, sleepers + 2));
        ASSERT_RC(0, unlockChannel(copy));
        int rc = user.get();
        EXPECT_TRUE(rc == 0 || rc == -50) << rcName(rc);
        EXPECT_RC(0, deletion.get());
        EXPECT_EQ(nullptr, shared);
    }
    EXPECT_EQ(1, channelCount());
}

// ---- Handles that are none ---------------------------------------------------------------------

TEST_P(ChannelBadHandle, IsRefusedByLock)
{
    TraceFile trace(1);
    EXPECT_RC(-50, lockChannel(token));
    EXPECT_TRUE(trace.wrote(1462, "*EXC*", isNotAChannel("lockChannel", token)));
}

TEST_P(ChannelBadHandle, IsRefusedByUnlock)
{
    TraceFile trace(1);
    EXPECT_RC(-50, unlockChannel(token));
    EXPECT_TRUE(trace.wrote(1473, "*EXC*", isNotAChannel("unlockChannel", token)));
}

TEST_P(ChannelBadHandle, IsRefusedByEveryCall)
{
    for (const ChannelCall& call : everyCall()) {
        TraceFile trace(1);
        EXPECT_RC(-50, call.make(token)) << call.name;
        EXPECT_TRUE(trace.wrote(1462, "*EXC*", isNotAChannel("lockChannel", token))) << call.name;
    }
}

TEST_P(ChannelBadHandle, StaysInItsVariableWhenItsDeletionIsRefused)
{
    ECI_ChannelToken_t variable = token;
    EXPECT_RC(-50, ECI_deleteChannel(&variable));
    EXPECT_EQ(token, variable);
}

INSTANTIATE_TEST_SUITE_P(OfEachKind, ChannelBadHandle, ::testing::ValuesIn(badHandles));

TEST_F(ChannelLock, OfMemoryThatIsNoChannelTellsOfTheLock)
{
    ECI_ChannelToken_t none = asToken(zeroes);
    TraceFile trace(1);
    EXPECT_RC(-50, lockChannel(none));
    EXPECT_TRUE(traceReads(trace, {"3104 *EXC* clapi_lock.clapiRequestLock(lockPtr=" +
                                       shown(&none->serLock) + ") Lock not initialized",
                                   "1462 *EXC* " + isNotAChannel("lockChannel", none)}));
}

TEST_F(ChannelLock, OfADeletedChannelIsRefused)
{
    ECI_ChannelToken_t stale = token();
    ASSERT_RC(0, ECI_deleteChannel(&channel.token));
    TraceFile trace(1);
    EXPECT_RC(-50, lockChannel(stale));
    EXPECT_TRUE(trace.wrote(1462, "*EXC*", isNotAChannel("lockChannel", stale)));
    EXPECT_RC(-50, unlockChannel(stale));
    EXPECT_TRUE(trace.wrote(1473, "*EXC*", isNotAChannel("unlockChannel", stale)));
}

TEST_F(ChannelLock, OfADeletedChannelIsRefusedByEveryCall)
{
    ECI_ChannelToken_t stale = token();
    ASSERT_RC(0, ECI_deleteChannel(&channel.token));
    for (const ChannelCall& call : everyCall()) EXPECT_RC(-50, call.make(stale)) << call.name;
}

TEST_F(ChannelLock, OfAChannelDeletedWithAllIsRefusedByEveryCall)
{
    ECI_ChannelToken_t stale = token();
    ASSERT_RC(0, ECI_deleteAllChannels());
    channel.token = nullptr;
    for (const ChannelCall& call : everyCall()) EXPECT_RC(-50, call.make(stale)) << call.name;
}

// ---- After a failed start ----------------------------------------------------------------------

TEST(ChannelAfterAFailedStart, GetsTheResultOfTheStartFromEveryCall)
{
    CapturedStderr output;
    Fault fault = failCall(Call::MutexInit, 2, ENOMEM); // the trace's lock is the first
    ECI_ChannelToken_t token = nullptr;
    EXPECT_RC(-1, ECI_createChannel("ORDER", &token));
    EXPECT_EQ(nullptr, token);
    EXPECT_EQ(1, fault.hits());
    for (const ChannelCall& call : everyCall()) {
        EXPECT_RC(-1, call.make(asToken(zeroes))) << call.name;
        EXPECT_RC(-1, call.make(nullptr)) << call.name;
    }
    EXPECT_RC(-1, ECI_createChannel(nullptr, nullptr));
    EXPECT_RC(-1, ECI_deleteAllChannels());
    EXPECT_RC(-1, QPX_ECI_dumpChannels());
    EXPECT_FALSE(contains(output.text(), "Channel and container dump"));
}
