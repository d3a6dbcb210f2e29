// Channels that are deleted while a call has them, and what is left of them: nothing.
#include <memory>
#include <utility>
#include <vector>

#include "data_storage.h"
#include "support/forked.h"
#include "support/live_blocks.h"
#include "unit/channel_fixture.h"

using namespace fixture;
using namespace support;

namespace {

class ChannelGivenUp : public ::testing::Test {
protected:
    ChannelGivenUp()
    {
        settleCodePage();
        ECI_ChannelToken_t first = nullptr; // what the library makes once is there
        EXPECT_RC(0, ECI_createChannel("FIRST", &first));
        EXPECT_RC(0, ECI_deleteChannel(&first));
    }

    static ECI_ChannelToken_t newChannel()
    {
        ECI_ChannelToken_t token = nullptr;
        EXPECT_RC(0, ECI_createChannel("ORDER", &token));
        return token;
    }

    // So many that the set of channels has taken memory of its own.
    static std::vector<ECI_ChannelToken_t> manyChannels()
    {
        std::vector<ECI_ChannelToken_t> all;
        for (int i = 0; i < 300; ++i) all.push_back(newChannel());
        return all;
    }

    // Deletes all channels; the first that a call has is let go while they are off the list, and
    // not destroyed yet.
    static void deleteAllWhileLettingGo(ECI_ChannelToken_t held)
    {
        auto list = reinterpret_cast<std::uintptr_t>(&chanListLock.lock);
        int released = 0;
        Gate gate;
        Fault stop = afterCall(
            Call::MutexUnlock, 0,
            [&](const CallInfo& info) {
                if (info.first == list && ++released == 1) gate.pass();
            },
            Threads::Others);
        auto deleting = callInThread([] { return ECI_deleteAllChannels(); });
        ASSERT_TRUE(gate.awaitArrival());
        EXPECT_RC(ECI_ERR_INVALID_CHANNEL, unlockChannel(held));
        gate.open();
        EXPECT_RC(0, deleting.get());
    }
};

} // namespace

TEST_F(ChannelGivenUp, IsFreedByTheDeletionWhenTheCallIsFaster)
{
    LiveBlocks blocks;
    ECI_ChannelToken_t held = newChannel();
    ASSERT_RC(0, lockChannel(held));

    deleteAllWhileLettingGo(held);

    EXPECT_EQ(0, blocks.count());
}

TEST_F(ChannelGivenUp, IsFreedByTheCallWhenTheDeletionIsFaster)
{
    LiveBlocks blocks;
    ECI_ChannelToken_t held = newChannel();
    ASSERT_RC(0, lockChannel(held));

    EXPECT_RC(0, ECI_deleteAllChannels());
    EXPECT_EQ(1, blocks.count());
    EXPECT_RC(ECI_ERR_INVALID_CHANNEL, unlockChannel(held));

    EXPECT_EQ(0, blocks.count());
}

TEST_F(ChannelGivenUp, LeavesTheSetOfChannelsEmptyWhenTheCallIsFaster)
{
    LiveBlocks blocks;
    ECI_ChannelToken_t held = manyChannels().back();
    ASSERT_RC(0, lockChannel(held));

    deleteAllWhileLettingGo(held);

    EXPECT_EQ(0, blocks.count()); // an empty set has no memory of its own
}

TEST_F(ChannelGivenUp, LeavesTheSetOfChannelsEmptyWhenTheDeletionIsFaster)
{
    LiveBlocks blocks;
    ECI_ChannelToken_t held = manyChannels().back();
    ASSERT_RC(0, lockChannel(held));

    EXPECT_RC(0, ECI_deleteAllChannels());
    EXPECT_RC(ECI_ERR_INVALID_CHANNEL, unlockChannel(held));

    EXPECT_EQ(0, blocks.count());
}

TEST_F(ChannelGivenUp, LeavesNeitherLockNorEvent)
{
    int mutexes = callCount(Call::MutexInit) - callCount(Call::MutexDestroy);
    int conditions = callCount(Call::CondInit) - callCount(Call::CondDestroy);
    ECI_ChannelToken_t held = newChannel();
    ASSERT_RC(0, lockChannel(held));

    EXPECT_RC(0, ECI_deleteAllChannels());
    EXPECT_RC(ECI_ERR_INVALID_CHANNEL, unlockChannel(held));

    EXPECT_EQ(mutexes, callCount(Call::MutexInit) - callCount(Call::MutexDestroy));
    EXPECT_EQ(conditions, callCount(Call::CondInit) - callCount(Call::CondDestroy));
}

// Without the lock it cannot be left to the call, which lets it go and no more.
TEST_F(ChannelGivenUp, StaysWhenTheListCannotBeLocked)
{
    ECI_ChannelToken_t held = newChannel();
    ASSERT_RC(0, lockChannel(held));
    {
        Fault fault = failCallOn(Call::MutexLock, &chanListLock.lock, 2, EINVAL);
        EXPECT_RC(0, ECI_deleteAllChannels());
    }
    EXPECT_EQ(DELETED_WHILE_HELD, held->fate);

    held->fate = LEFT_TO_HOLDER; // as it would have been
    EXPECT_RC(ECI_ERR_INVALID_CHANNEL, unlockChannel(held));
}

// ---- Channels that could not be made ----

TEST_F(ChannelGivenUp, LeavesNeitherLockNorEventWhenItCannotBeListed)
{
    int mutexes = callCount(Call::MutexInit) - callCount(Call::MutexDestroy);
    int conditions = callCount(Call::CondInit) - callCount(Call::CondDestroy);
    ECI_ChannelToken_t token = nullptr;
    Fault fault = failCallOn(Call::MutexLock, &chanListLock.lock, 1, EINVAL);

    EXPECT_RC(-9, ECI_createChannel("ORDER", &token));

    EXPECT_EQ(mutexes, callCount(Call::MutexInit) - callCount(Call::MutexDestroy));
    EXPECT_EQ(conditions, callCount(Call::CondInit) - callCount(Call::CondDestroy));
}

TEST_F(ChannelGivenUp, LeavesTheSetOfChannelsEmptyWhenTheListCannotBeReleased)
{
    LiveBlocks blocks;
    manyChannels();
    ECI_ChannelToken_t token = nullptr;
    {
        Fault fault = failCallOn(Call::MutexUnlock, &chanListLock.lock, 1, EPERM);
        EXPECT_RC(-9, ECI_createChannel("ORDER", &token));
    }

    EXPECT_RC(0, ECI_deleteAllChannels());

    EXPECT_EQ(0, blocks.count());
}

// It was not the newest, and is put before the others again.
TEST_F(ChannelGivenUp, StaysOnTheListWhenItsDeletionCannotReleaseIt)
{
    ECI_ChannelToken_t older = newChannel();
    ECI_ChannelToken_t newer = newChannel();
    {
        Fault fault = failCallOn(Call::MutexUnlock, &chanListLock.lock, 2, EPERM);
        EXPECT_RC(-9, ECI_deleteChannel(&older));
    }
    EXPECT_EQ(nullptr, older->previousChan);
    EXPECT_EQ(newer, older->nextChan);

    EXPECT_RC(0, ECI_deleteChannel(&older));
    EXPECT_EQ(1, channelCount());
    EXPECT_RC(0, ECI_deleteChannel(&newer));
}

// ---- Handles of no channel ----

// A trace may be slow, and every call on a channel takes the lock of the list.
class ChannelBadHandleTrace : public ChannelGivenUp,
                              public ::testing::WithParamInterface<int (*)(ECI_ChannelToken_t)> {};

TEST_P(ChannelBadHandleTrace, IsWrittenWithTheListFree)
{
    auto stale = std::make_unique<ECI_Channel_t>();
    TraceFile trace(1);
    int held = 0;
    Fault writing = beforeCall(Call::Write, 0, [&](const CallInfo&) {
        if (!isFree(chanListLock.lock)) held += 1;
    });

    EXPECT_RC(ECI_ERR_INVALID_CHANNEL, GetParam()(stale.get()));

    EXPECT_LT(0, writing.hits());
    EXPECT_EQ(0, held);
}

TEST_P(ChannelBadHandleTrace, TellsOfALockThatIsNone)
{
    auto stale = std::make_unique<ECI_Channel_t>();
    TraceFile trace(1);

    EXPECT_RC(ECI_ERR_INVALID_CHANNEL, GetParam()(stale.get()));

    EXPECT_EQ(1, trace.timesWrote(3104));
}

INSTANTIATE_TEST_SUITE_P(OfTheHold, ChannelBadHandleTrace,
                         ::testing::Values(&lockChannel, &unlockChannel),
                         [](const auto& made) { return made.index == 0 ? "Begin" : "End"; });

// ---- Containers ----

TEST_F(ChannelGivenUp, HasAListThatHoldsWhenAReplacedContainerIsDeleted)
{
    Channel channel;
    for (const char* name : {"C", "B", "A"}) channel.addBit(name);
    ECI_Container_t replacement = {};
    std::memcpy(replacement.eyecatcher, "QPXCONTA", 8);
    replacement.name[0] = 'B';
    clapiReplaceContainer(channel.token->firstCont->nextCont, &replacement);

    EXPECT_RC(0, ECI_deleteContainer(channel.token, "B"));

    EXPECT_EQ((std::vector<std::string>{"A", "C"}), channel.names());
}

TEST_F(ChannelGivenUp, HasAnIndexThatHoldsWhenContainersAreReplaced)
{
    Channel channel;
    for (int i = 0; i < 200; ++i) channel.addBit(("N" + std::to_string(i)).c_str());
    ECI_Container_t* container = channel.token->firstCont;
    for (; container != nullptr; container = container->nextCont) {
        ECI_Container_t replacement = {};
        std::memcpy(replacement.eyecatcher, "QPXCONTA", 8);
        std::memcpy(replacement.name, container->name, sizeof replacement.name);
        clapiReplaceContainer(container, &replacement);
    }

    for (int i = 0; i < 200; ++i)
        EXPECT_NE(nullptr, clapiFindContainer(channel.token, ("N" + std::to_string(i)).c_str()));
}

TEST_F(ChannelGivenUp, HasAnIndexOfManyContainers)
{
    Channel channel;
    for (int i = 0; i < 15; ++i) channel.addBit(("N" + std::to_string(i)).c_str());
    EXPECT_EQ(nullptr, channel.token->index);

    channel.addBit("N15");

    EXPECT_NE(nullptr, channel.token->index);
}

// ---- The child of a fork ----

class ForkedChannel : public ChannelGivenUp {
protected:
    // Stops a thread in a call that is about to give up a mutex, and lets a child look.
    template <typename Look>
    int inChildWhileHeld(pthread_mutex_t& mutex, Look look)
    {
        auto wanted = reinterpret_cast<std::uintptr_t>(&mutex);
        int passes = 0;
        Gate gate;
        Fault stop = beforeCall(
            Call::MutexUnlock, 0,
            [&](const CallInfo& info) {
                if (info.first == wanted && ++passes == 1) gate.pass();
            },
            Threads::Others);
        auto holder = callInThread([this] { return lockChannel(channel.token); });
        EXPECT_TRUE(gate.awaitArrival());
        int seen = inChild(look);
        gate.open();
        EXPECT_RC(0, holder.get());
        EXPECT_RC(0, unlockChannel(channel.token));
        return seen;
    }

    Channel channel;
};

TEST_F(ForkedChannel, HasAFreeLockThoughAThreadOfTheParentHasIt)
{
    EXPECT_EQ(0, inChildWhileHeld(channel.token->serLock.lock,
                                  [this] { return isFree(channel.token->serLock.lock) ? 0 : 1; }));
}

TEST_F(ForkedChannel, HasAFreeEventThoughAThreadOfTheParentIsAtWorkOnIt)
{
    EXPECT_EQ(0, inChildWhileHeld(channel.token->unlockEvent.mutex, [this] {
                  return isFree(channel.token->unlockEvent.mutex) ? 0 : 1;
              }));
}

TEST_F(ForkedChannel, HasNoWaitersThoughAThreadOfTheParentWaits)
{
    TraceFile trace(4);
    ASSERT_RC(0, lockChannel(channel.token));
    auto waiting = waiterFor(trace, channel.token, [this] { return lockChannel(channel.token); });

    EXPECT_EQ(0, inChild([this] {
                  if (channel.token->waiters != 0) return 1;
                  // Destroying a condition waits for those who wait for it.
                  pthread_cond_t unused = PTHREAD_COND_INITIALIZER;
                  const pthread_cond_t& cond = channel.token->unlockEvent.cond;
                  if (std::memcmp(&unused, &cond, sizeof cond) != 0) return 2;
                  return ECI_deleteChannel(&channel.token) == 0 ? 0 : 3;
              }));

    EXPECT_RC(0, unlockChannel(channel.token));
    EXPECT_RC(0, waiting.get());
    EXPECT_RC(0, unlockChannel(channel.token));
}

TEST_F(ForkedChannel, HasNoIndexUntilTheNextContainerMakesOne)
{
    for (int i = 0; i < 20; ++i) channel.addBit(("N" + std::to_string(i)).c_str());
    ASSERT_NE(nullptr, channel.token->index);

    EXPECT_EQ(0, inChild([this] {
                  if (channel.token->index != nullptr) return 1;
                  if (channel.token->indexBits != 0) return 2;
                  channel.addBit("N20");
                  if (channel.token->index == nullptr) return 3;
                  return clapiFindContainer(channel.token, "N0") != nullptr ? 0 : 4;
              }));
}
