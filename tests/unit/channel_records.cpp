// The records of channels and containers.

#include <cstddef>

#include "unit/channel_fixture.h"

using namespace fixture;
using namespace support;

namespace {

std::string bytesOf(const char* bytes, std::size_t count)
{
    return std::string(bytes, count);
}

} // namespace

TEST(ChannelRecord, HasItsFieldsInOrder)
{
    EXPECT_EQ(0u, offsetof(ECI_Channel_t, eyecatcher));
    EXPECT_EQ(8u, offsetof(ECI_Channel_t, name));
    EXPECT_EQ(24u, offsetof(ECI_Channel_t, ccsid));
    EXPECT_EQ(28u, offsetof(ECI_Channel_t, numContainers));
    EXPECT_EQ(32u, offsetof(ECI_Channel_t, serLock));
    EXPECT_LT(offsetof(ECI_Channel_t, serLock), offsetof(ECI_Channel_t, unlockEvent));
    EXPECT_LT(offsetof(ECI_Channel_t, unlockEvent), offsetof(ECI_Channel_t, isLocked));
    EXPECT_LT(offsetof(ECI_Channel_t, isLocked), offsetof(ECI_Channel_t, firstCont));
    EXPECT_LT(offsetof(ECI_Channel_t, firstCont), offsetof(ECI_Channel_t, currentCont));
    EXPECT_LT(offsetof(ECI_Channel_t, currentCont), offsetof(ECI_Channel_t, nextChan));
}

TEST(ChannelRecord, IsFilledByItsCreation)
{
    Channel channel("ORDER");
    EXPECT_EQ("QPXCHANN", bytesOf(channel.token->eyecatcher, 8));
    EXPECT_EQ("ORDER" + std::string(11, '\0'), bytesOf(channel.token->name, 16));
    EXPECT_EQ(-1, channel.token->ccsid);
    EXPECT_EQ(0, channel.token->numContainers);
    EXPECT_EQ(LOCK_INITIALIZED, channel.token->serLock.initialized);
    EXPECT_EQ(0, channel.token->isLocked);
    EXPECT_EQ(nullptr, channel.token->firstCont);
    EXPECT_EQ(nullptr, channel.token->currentCont);
}

TEST(ChannelRecord, HoldsSixteenCharactersWithoutATerminator)
{
    Channel channel("ABCDEFGHIJKLMNOP");
    EXPECT_EQ("ABCDEFGHIJKLMNOP", bytesOf(channel.token->name, 16));
    EXPECT_EQ(-1, channel.token->ccsid);
}

TEST(ChannelRecord, LeadsToTheChannelCreatedBefore)
{
    Channel first;
    Channel second;
    Channel third;
    EXPECT_EQ(nullptr, first.token->nextChan);
    EXPECT_EQ(first.token, second.token->nextChan);
    EXPECT_EQ(second.token, third.token->nextChan);
    ASSERT_RC(0, ECI_deleteChannel(&second.token));
    EXPECT_EQ(first.token, third.token->nextChan);
    ASSERT_RC(0, ECI_deleteChannel(&first.token));
    EXPECT_EQ(nullptr, third.token->nextChan);
}

TEST(ChannelRecord, CountsItsContainers)
{
    Channel channel;
    channel.addBit("ONE");
    channel.addBit("TWO");
    EXPECT_EQ(2, channel.token->numContainers);
    ASSERT_RC(-59, ECI_createContainer(channel.token, "ONE", ECI_BIT, 0, nullptr, 0));
    EXPECT_EQ(2, channel.token->numContainers);
    ASSERT_RC(0, ECI_deleteContainer(channel.token, "ONE"));
    EXPECT_EQ(1, channel.token->numContainers);
    ASSERT_RC(-58, ECI_deleteContainer(channel.token, "ONE"));
    EXPECT_EQ(1, channel.token->numContainers);
    ASSERT_RC(0, ECI_deleteContainer(channel.token, "TWO"));
    EXPECT_EQ(0, channel.token->numContainers);
}

TEST(ChannelContainerRecord, HasItsFieldsInOrder)
{
    EXPECT_EQ(0u, offsetof(ECI_Container_t, eyecatcher));
    EXPECT_EQ(8u, offsetof(ECI_Container_t, name));
    EXPECT_EQ(24u, offsetof(ECI_Container_t, ccsid));
    EXPECT_EQ(28u, offsetof(ECI_Container_t, type));
    EXPECT_EQ(32u, offsetof(ECI_Container_t, dataPtr));
    EXPECT_EQ(32u + sizeof(void*), offsetof(ECI_Container_t, dataLength));
    EXPECT_EQ(32u + 2 * sizeof(void*), offsetof(ECI_Container_t, nextCont));
}

TEST(ChannelContainerRecord, IsFilledForCharacters)
{
    Channel channel;
    channel.addChar("TEXT", 1208, "data");
    const ECI_Container_t* container = channel.token->firstCont;
    EXPECT_EQ("QPXCONTA", bytesOf(container->eyecatcher, 8));
    EXPECT_EQ("TEXT" + std::string(12, '\0'), bytesOf(container->name, 16));
    EXPECT_EQ(1208, container->ccsid);
    EXPECT_EQ(2, container->type);
    EXPECT_EQ(4u, container->dataLength);
    EXPECT_EQ("data", bytesOf(container->dataPtr, 4));
    EXPECT_EQ(nullptr, container->nextCont);
}

TEST(ChannelContainerRecord, HasNoDataWhenEmpty)
{
    Channel channel;
    ASSERT_RC(0, ECI_createContainer(channel.token, "EMPTY", ECI_BIT, 1208, "data", 0));
    const ECI_Container_t* container = channel.token->firstCont;
    EXPECT_EQ(0, container->ccsid);
    EXPECT_EQ(1, container->type);
    EXPECT_EQ(0u, container->dataLength);
    EXPECT_EQ(nullptr, container->dataPtr);
}

TEST(ChannelContainerRecord, LeadsToTheContainerCreatedBefore)
{
    Channel channel;
    channel.addBit("ONE");
    const ECI_Container_t* one = channel.token->firstCont;
    channel.addBit("TWO");
    const ECI_Container_t* two = channel.token->firstCont;
    EXPECT_EQ(one, two->nextCont);
    EXPECT_EQ(nullptr, one->nextCont);
}

TEST(ChannelContainerRecord, StaysInPlaceWhenItsDataIsReplaced)
{
    Channel channel;
    channel.addBit("ONE", "data");
    const ECI_Container_t* one = channel.token->firstCont;
    ASSERT_RC(0, ECI_setContainerData(channel.token, "ONE", "other data", 10));
    EXPECT_EQ(one, channel.token->firstCont);
    EXPECT_EQ(1, channel.token->numContainers);
}

TEST(ChannelRecord, IsShownByADumpWithItsAddresses)
{
    Channel channel("ORDER");
    channel.addBit("ONE", "data");
    ASSERT_EQ("ONE", channel.first());
    ECI_ChannelToken_t token = channel.token;
    const ECI_Container_t* one = token->firstCont;
    std::string rule(80, '-');
    TraceFile trace(0);
    ASSERT_RC(0, QPX_ECI_dumpChannels());
    EXPECT_EQ("Channel and container dump\n" + rule + "\nChannel list entry -0001- : Channel(" +
                  shown(token) + "): eyecatcher(QPXCHANN) name(           ORDER) serlock(" +
                  shown(&token->serLock) + ") unlockEvent(" + shown(&token->unlockEvent) +
                  ") isLocked(0) ccsid(-1) numContainers(1) nextChannel((nil)) firstCont(" +
                  shown(one) + ") currentCont(" + shown(one) +
                  ")\n   Container list entry -0001/0001- : Container(" + shown(one) +
                  "): eyecatcher(QPXCONTA) name(             ONE) type(1) ccsid(0) dataLength(4) "
                  "dataPtr(" +
                  shown(one->dataPtr) + ") nextCont((nil))\nTotal number of channels=1\n" + rule +
                  "\n",
              trace.text());
}

TEST(ChannelRecord, IsShownByADumpWhileItIsHeld)
{
    Channel channel;
    ASSERT_RC(0, lockChannel(channel.token));
    TraceFile trace(0);
    EXPECT_RC(0, QPX_ECI_dumpChannels());
    EXPECT_TRUE(trace.wroteText(") isLocked(1) ccsid(-1) "));
    EXPECT_RC(0, unlockChannel(channel.token));
}

TEST(ChannelRecord, GivesUpItsLockAndItsEventWithTheChannel)
{
    Channel channel;
    int mutexes = callCount(Call::MutexDestroy);
    int conditions = callCount(Call::CondDestroy);
    ASSERT_RC(0, ECI_deleteChannel(&channel.token));
    EXPECT_EQ(mutexes + 2, callCount(Call::MutexDestroy));
    EXPECT_EQ(conditions + 1, callCount(Call::CondDestroy));
}

TEST(ChannelRecord, GivesUpItsLockAndItsEventWithAllChannels)
{
    ECI_ChannelToken_t token = nullptr;
    for (int number = 0; number < 3; ++number) ASSERT_RC(0, ECI_createChannel("MANY", &token));
    int mutexes = callCount(Call::MutexDestroy);
    int conditions = callCount(Call::CondDestroy);
    ASSERT_RC(0, ECI_deleteAllChannels());
    EXPECT_EQ(mutexes + 6, callCount(Call::MutexDestroy));
    EXPECT_EQ(conditions + 3, callCount(Call::CondDestroy));
}

// Deliberate: the deletion of all waits for nobody.
TEST(ChannelRecord, IsDeletedWithAllThoughItIsHeld)
{
    ECI_ChannelToken_t token = nullptr;
    ASSERT_RC(0, ECI_createChannel("HELD", &token));
    ASSERT_RC(0, lockChannel(token));
    auto deletion = callInThread([] { return ECI_deleteAllChannels(); });
    EXPECT_RC(0, deletion.get());
    EXPECT_EQ(0, channelCount());
}
