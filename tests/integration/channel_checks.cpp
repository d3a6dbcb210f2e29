// The arguments of the channel and container calls, in the order in which they are looked at.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "qpxclient_eci.h"
#include "support/channels.h"
#include "support/expect_rc.h"
#include "support/trace_file.h"

using namespace support;

namespace {

// A channel ORDER with one container CUSTOMER, and the trace of failures.
class ChannelChecks : public ::testing::Test {
protected:
    ChannelChecks()
    {
        settleCodePage();
        channel.addBit("CUSTOMER", "4711");
        std::memset(&info, '?', sizeof info);
        before = info;
        trace.forget();
    }

    bool infoUnchanged() const { return std::memcmp(&info, &before, sizeof info) == 0; }

    // A failure writes one line.
    ::testing::AssertionResult told(const std::string& line)
    {
        ::testing::AssertionResult result = traceReads(trace, {line});
        trace.forget();
        return result;
    }

    Channel channel;
    ECI_CONTAINER_INFO info;
    ECI_CONTAINER_INFO before;
    TraceFile trace{1};
};

using ChannelCreateChecks = ChannelChecks;
using ChannelDeleteChecks = ChannelChecks;
using ChannelCreateContainerChecks = ChannelChecks;
using ChannelDeleteContainerChecks = ChannelChecks;
using ChannelBrowseChecks = ChannelChecks;
using ChannelInfoChecks = ChannelChecks;
using ChannelGetDataChecks = ChannelChecks;
using ChannelSetDataChecks = ChannelChecks;

const std::string nameIsNull = "1401 *EXC* clapi_channel.validateName() name is NULL";

} // namespace

// ---- ECI_createChannel -------------------------------------------------------------------------

TEST_F(ChannelCreateChecks, NeedSomewhereForTheHandle)
{
    EXPECT_RC(-52, ECI_createChannel("ORDER", nullptr));
    EXPECT_TRUE(told("1301 *EXC* API.ECI_createChannel() tokPtr is NULL"));
}

TEST_F(ChannelCreateChecks, LookAtTheHandleBeforeTheName)
{
    EXPECT_RC(-52, ECI_createChannel(nullptr, nullptr));
    EXPECT_TRUE(told("1301 *EXC* API.ECI_createChannel() tokPtr is NULL"));
}

// ---- ECI_deleteChannel -------------------------------------------------------------------------

TEST_F(ChannelDeleteChecks, NeedAPointerToTheHandle)
{
    EXPECT_RC(-52, ECI_deleteChannel(nullptr));
    EXPECT_TRUE(told("1311 *EXC* API.ECI_deleteChannel() tokPtr is NULL"));
}

TEST_F(ChannelDeleteChecks, NeedAHandle)
{
    ECI_ChannelToken_t none = nullptr;
    EXPECT_RC(-50, ECI_deleteChannel(&none));
    EXPECT_TRUE(told("1312 *EXC* API.ECI_deleteChannel() *tokPtr is NULL"));
}

TEST_F(ChannelDeleteChecks, RefuseAVariableThatADeletionHasCleared)
{
    ECI_ChannelToken_t token = nullptr;
    ASSERT_RC(0, ECI_createChannel("SHORT", &token));
    EXPECT_RC(0, ECI_deleteChannel(&token));
    EXPECT_EQ(nullptr, token);
    EXPECT_RC(-50, ECI_deleteChannel(&token));
}

// ---- ECI_createContainer -----------------------------------------------------------------------

TEST_F(ChannelCreateContainerChecks, NeedAChannel)
{
    EXPECT_RC(-50, ECI_createContainer(nullptr, "NEW", ECI_BIT, 0, "data", 4));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_createContainer() chanTok is NULL"));
}

TEST_F(ChannelCreateContainerChecks, LookAtTheChannelFirst)
{
    EXPECT_RC(-50, createOfType(9, nullptr, nullptr, nullptr, 4));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_createContainer() chanTok is NULL"));
}

TEST_F(ChannelCreateContainerChecks, LookAtTheTypeBeforeTheData)
{
    EXPECT_RC(-56, createOfType(9, channel.token, nullptr, nullptr, 4));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_createContainer() type is invalid (9)"));
}

TEST_F(ChannelCreateContainerChecks, LookAtTheDataBeforeTheName)
{
    EXPECT_RC(-1, createOfType(1, channel.token, nullptr, nullptr, 4));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_createContainer() data is NULL when dataLength is 4"));
}

TEST_F(ChannelCreateContainerChecks, LookAtTheNameBeforeTheChannelItself)
{
    EXPECT_RC(-51, createOfType(1, channel.token, nullptr, "data", 4));
    EXPECT_TRUE(told(nameIsNull));
}

TEST_F(ChannelCreateContainerChecks, RefuseEveryOtherType)
{
    for (int type : {0, 3, -1, 256, 257, 258, 2147483647, -2147483647 - 1}) {
        EXPECT_RC(-56, createOfType(type, channel.token, "NEW", "data", 4));
        EXPECT_TRUE(told("<int> *EXC* API.ECI_createContainer() type is invalid (" +
                         std::to_string(type) + ")"));
    }
    EXPECT_EQ(std::vector<std::string>{"CUSTOMER"}, channel.names());
}

TEST_F(ChannelCreateContainerChecks, RefuseALengthWithoutData)
{
    EXPECT_RC(-1, ECI_createContainer(channel.token, "NEW", ECI_CHAR, 0, nullptr, 1));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_createContainer() data is NULL when dataLength is 1"));
    EXPECT_EQ(std::vector<std::string>{"CUSTOMER"}, channel.names());
}

TEST_F(ChannelCreateContainerChecks, AcceptNoDataForNoLength)
{
    EXPECT_RC(0, ECI_createContainer(channel.token, "NEW", ECI_BIT, 0, nullptr, 0));
    EXPECT_EQ("", channel.data("NEW"));
}

TEST_F(ChannelCreateContainerChecks, AcceptDataForNoLength)
{
    EXPECT_RC(0, ECI_createContainer(channel.token, "NEW", ECI_BIT, 0, "data", 0));
    EXPECT_EQ("", channel.data("NEW"));
}

// ---- ECI_deleteContainer -----------------------------------------------------------------------

TEST_F(ChannelDeleteContainerChecks, NeedAChannel)
{
    EXPECT_RC(-50, ECI_deleteContainer(nullptr, nullptr));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_deleteContainer() chanTok is NULL"));
}

TEST_F(ChannelDeleteContainerChecks, NeedAName)
{
    EXPECT_RC(-51, ECI_deleteContainer(channel.token, nullptr));
    EXPECT_TRUE(told(nameIsNull));
}

TEST_F(ChannelDeleteContainerChecks, NeedTheContainer)
{
    EXPECT_RC(-58, ECI_deleteContainer(channel.token, "OTHER"));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_deleteContainer() Container \"OTHER\" does not exist in "
                     "channel \"ORDER\""));
    EXPECT_EQ(std::vector<std::string>{"CUSTOMER"}, channel.names());
}

// ---- ECI_getFirstContainer, ECI_getNextContainer -----------------------------------------------

TEST_F(ChannelBrowseChecks, NeedAChannelForTheFirst)
{
    EXPECT_RC(-50, ECI_getFirstContainer(nullptr, nullptr));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_getFirstContainer() chanTok is NULL"));
}

TEST_F(ChannelBrowseChecks, NeedARecordForTheFirst)
{
    EXPECT_RC(-55, ECI_getFirstContainer(channel.token, nullptr));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_getFirstContainer() infoPtr is NULL"));
}

TEST_F(ChannelBrowseChecks, NeedAContainerForTheFirst)
{
    Channel empty("EMPTY");
    EXPECT_RC(-54, ECI_getFirstContainer(empty.token, &info));
    EXPECT_TRUE(
        told("<int> *EXC* API.ECI_getFirstContainer() Channel \"EMPTY\" has no containers"));
    EXPECT_TRUE(infoUnchanged());
}

TEST_F(ChannelBrowseChecks, NeedAChannelForTheNext)
{
    EXPECT_RC(-50, ECI_getNextContainer(nullptr, nullptr));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_getNextContainer() chanTok is NULL"));
}

TEST_F(ChannelBrowseChecks, NeedARecordForTheNext)
{
    EXPECT_RC(-55, ECI_getNextContainer(channel.token, nullptr));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_getNextContainer() infoPtr is NULL"));
}

TEST_F(ChannelBrowseChecks, NeedAContainerForTheNext)
{
    Channel empty("EMPTY");
    EXPECT_RC(-54, ECI_getNextContainer(empty.token, &info));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_getNextContainer() Channel \"EMPTY\" has no containers"));
    EXPECT_TRUE(infoUnchanged());
}

TEST_F(ChannelBrowseChecks, NeedAFurtherContainerForTheNext)
{
    ASSERT_EQ("CUSTOMER", channel.first());
    EXPECT_RC(-54, ECI_getNextContainer(channel.token, &info));
    EXPECT_TRUE(
        told("<int> *EXC* API.ECI_getNextContainer() No more containers in channel \"ORDER\""));
    EXPECT_TRUE(infoUnchanged());
}

TEST_F(ChannelBrowseChecks, LeaveThePositionWithoutARecord)
{
    channel.addBit("SECOND");
    ASSERT_EQ("SECOND", channel.first());
    EXPECT_RC(-55, ECI_getNextContainer(channel.token, nullptr));
    EXPECT_RC(-55, ECI_getFirstContainer(channel.token, nullptr));
    EXPECT_EQ("CUSTOMER", channel.next());
}

// ---- ECI_getContainerInfo ----------------------------------------------------------------------

TEST_F(ChannelInfoChecks, NeedAChannel)
{
    EXPECT_RC(-50, ECI_getContainerInfo(nullptr, nullptr, nullptr));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_getContainerInfo() chanTok is NULL"));
}

TEST_F(ChannelInfoChecks, LookAtTheRecordBeforeTheName)
{
    EXPECT_RC(-55, ECI_getContainerInfo(channel.token, nullptr, nullptr));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_getContainerInfo() infoPtr is NULL"));
}

TEST_F(ChannelInfoChecks, NeedAName)
{
    EXPECT_RC(-51, ECI_getContainerInfo(channel.token, nullptr, &info));
    EXPECT_TRUE(told(nameIsNull));
    EXPECT_TRUE(infoUnchanged());
}

TEST_F(ChannelInfoChecks, NeedTheContainer)
{
    EXPECT_RC(-58, ECI_getContainerInfo(channel.token, "OTHER", &info));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_getContainerInfo() Container \"OTHER\" does not exist in "
                     "channel \"ORDER\""));
    EXPECT_TRUE(infoUnchanged());
}

// ---- ECI_getContainerData ----------------------------------------------------------------------

TEST_F(ChannelGetDataChecks, NeedAChannel)
{
    EXPECT_RC(-50, ECI_getContainerData(nullptr, nullptr, nullptr, 0, 0, nullptr));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_getContainerData() chanTok is NULL"));
}

TEST_F(ChannelGetDataChecks, LookAtTheBufferBeforeTheName)
{
    EXPECT_RC(-109, ECI_getContainerData(channel.token, nullptr, nullptr, 0, 0, nullptr));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_getContainerData() buffer is NULL"));
}

TEST_F(ChannelGetDataChecks, NeedABufferEvenForNothing)
{
    EXPECT_RC(-109, ECI_getContainerData(channel.token, "CUSTOMER", nullptr, 0, 0, nullptr));
}

TEST_F(ChannelGetDataChecks, NeedAName)
{
    char buffer[] = "unchanged";
    EXPECT_RC(-51, ECI_getContainerData(channel.token, nullptr, buffer, 4, 0, nullptr));
    EXPECT_TRUE(told(nameIsNull));
}

TEST_F(ChannelGetDataChecks, NeedTheContainer)
{
    char buffer[] = "unchanged";
    std::size_t count = 77;
    EXPECT_RC(-58, ECI_getContainerData(channel.token, "OTHER", buffer, 4, 0, &count));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_getContainerData() Container \"OTHER\" does not exist in "
                     "channel \"ORDER\""));
    EXPECT_STREQ("unchanged", buffer);
    EXPECT_EQ(77u, count);
}

// ---- ECI_setContainerData ----------------------------------------------------------------------

TEST_F(ChannelSetDataChecks, NeedAChannel)
{
    EXPECT_RC(-50, ECI_setContainerData(nullptr, nullptr, nullptr, 4));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_setContainerData() chanTok is NULL"));
}

TEST_F(ChannelSetDataChecks, LookAtTheDataBeforeTheName)
{
    EXPECT_RC(-1, ECI_setContainerData(channel.token, nullptr, nullptr, 4));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_setContainerData() data is NULL when dataLength is 4"));
}

TEST_F(ChannelSetDataChecks, RefuseTheGreatestLengthWithoutData)
{
    EXPECT_RC(-1, ECI_setContainerData(channel.token, "CUSTOMER", nullptr, 4294967295u));
    EXPECT_TRUE(
        told("<int> *EXC* API.ECI_setContainerData() data is NULL when dataLength is 4294967295"));
    EXPECT_EQ("4711", channel.data("CUSTOMER"));
}

TEST_F(ChannelSetDataChecks, NeedAName)
{
    EXPECT_RC(-51, ECI_setContainerData(channel.token, nullptr, "data", 4));
    EXPECT_TRUE(told(nameIsNull));
}

TEST_F(ChannelSetDataChecks, NeedTheContainer)
{
    EXPECT_RC(-58, ECI_setContainerData(channel.token, "OTHER", "data", 4));
    EXPECT_TRUE(told("<int> *EXC* API.ECI_setContainerData() Container \"OTHER\" does not exist in "
                     "channel \"ORDER\""));
    EXPECT_EQ("4711", channel.data("CUSTOMER"));
}
