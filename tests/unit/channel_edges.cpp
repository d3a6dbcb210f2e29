// Channels at their edges: names that fill their fields in the lines of a deletion, and what is
// left when the list cannot be given up.

#include <cerrno>

#include "unit/channel_fixture.h"

using namespace fixture;
using namespace support;

namespace {

const char channelName[] = "SIXTEENLETTERS_C";
const char containerName[] = "SIXTEENLETTERS_D";
static_assert(sizeof channelName == CHANNEL_NAME_SIZE + 1);
static_assert(sizeof containerName == CHANNEL_NAME_SIZE + 1);

std::string inParentheses(const volatile void* address)
{
    return "(" + shown(address) + ")";
}

} // namespace

TEST(ChannelInUseWithLongNames, IsToldOfWithNamesAndAddressesByADeletionOfAll)
{
    settleCodePage();
    ECI_ChannelToken_t token = nullptr;
    ASSERT_RC(0, ECI_createChannel(channelName, &token));
    ASSERT_RC(0, ECI_createContainer(token, containerName, ECI_BIT, 0, "data", 4));
    ASSERT_RC(0, lockChannel(token));
    std::string channel = std::string("channel \"") + channelName + "\" " + inParentheses(token);
    std::string container = inParentheses(token->firstCont);
    std::string data = inParentheses(token->firstCont->dataPtr);
    TraceFile trace(4);

    EXPECT_RC(0, ECI_deleteAllChannels());

    const std::string call = "API.ECI_deleteAllChannels() ";
    EXPECT_TRUE(trace.wrote(1426, "DEBUG", call + "Destroying event and lock for " + channel));
    EXPECT_TRUE(trace.wrote(1427, "DEBUG", call + "Freeing 4 bytes of container data " + data));
    EXPECT_TRUE(trace.wrote(1428, "DEBUG",
                            call + "Deleted container \"" + containerName + "\" " + container));
    EXPECT_TRUE(trace.wrote(1429, "DEBUG", call + "Deleted " + channel));
    EXPECT_RC(-50, unlockChannel(token));
}

TEST(ChannelThatCouldNotBeListed, LeavesTheOthersOnTheList)
{
    settleCodePage();
    ECI_ChannelToken_t others[3];
    for (ECI_ChannelToken_t& other : others) ASSERT_RC(0, ECI_createChannel("OTHER", &other));
    {
        ECI_ChannelToken_t channel = nullptr;
        Fault fault = failCallOn(Call::MutexUnlock, &chanListLock.lock, 1, EPERM);
        ASSERT_RC(-9, ECI_createChannel("CHANNEL", &channel));
    }

    EXPECT_EQ(3, channelCount());
    for (ECI_ChannelToken_t& other : others) EXPECT_RC(0, ECI_deleteChannel(&other));
    EXPECT_EQ(0, channelCount());
}

TEST(ChannelThatCannotBeTakenOffTheList, IsUnlockedWithoutALineOfAFailure)
{
    settleCodePage();
    ECI_ChannelToken_t channel = nullptr;
    ASSERT_RC(0, ECI_createChannel("CHANNEL", &channel));
    TraceFile trace(1);
    {
        Fault fault = failCallOn(Call::MutexLock, &chanListLock.lock, 2, EINVAL);
        EXPECT_RC(-9, ECI_deleteChannel(&channel));
        EXPECT_EQ(1, fault.hits());
    }

    EXPECT_EQ(0, trace.timesWrote(1308));
    EXPECT_RC(0, ECI_deleteChannel(&channel));
}
