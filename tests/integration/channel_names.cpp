// The names of channels and containers: what they may be made of, and how long they may be.

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "qpxclient_eci.h"
#include "support/channels.h"
#include "support/expect_rc.h"
#include "support/trace_file.h"

using namespace support;

namespace {

const std::string allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                            "abcdefghijklmnopqrstuvwxyz"
                            "0123456789"
                            "<>$@#/%&?!:|\"=';.-_";

bool isAllowed(int byte)
{
    return allowed.find(static_cast<char>(byte)) != std::string::npos;
}

class ChannelNameByte : public ::testing::TestWithParam<int> {
protected:
    char byte() const { return static_cast<char>(GetParam()); }
};

// Creates and deletes a channel of that name.
int tryChannel(const std::string& name)
{
    ECI_ChannelToken_t token = nullptr;
    int rc = ECI_createChannel(name.c_str(), &token);
    if (rc == 0) ECI_deleteChannel(&token);
    return rc;
}

int tryContainer(const Channel& channel, const std::string& name)
{
    return ECI_createContainer(channel.token, name.c_str(), ECI_BIT, 0, nullptr, 0);
}

std::string channelName(ECI_ChannelToken_t token)
{
    char name[ECI_NAME_SIZE];
    return ECI_getChannelName(token, name) == 0 ? name : "?";
}

const char* const sixteen = "ABCDEFGHIJKLMNOP";
const char* const seventeen = "ABCDEFGHIJKLMNOPQ";

} // namespace

// ---- Characters --------------------------------------------------------------------------------

TEST_P(ChannelNameByte, IsTakenOrRefusedByItsValue)
{
    std::string name(1, byte());
    EXPECT_RC(isAllowed(GetParam()) ? 0 : -51, tryChannel(name));
}

TEST_P(ChannelNameByte, IsTakenOrRefusedAsTheLastOfSixteen)
{
    std::string name = std::string(15, 'A') + byte();
    EXPECT_RC(isAllowed(GetParam()) ? 0 : -51, tryChannel(name));
}

INSTANTIATE_TEST_SUITE_P(OfEachValue, ChannelNameByte, ::testing::Range(1, 256));

TEST(ChannelName, HasEightyOneAllowedCharacters)
{
    int taken = 0;
    for (int byte = 1; byte < 256; ++byte)
        if (tryChannel(std::string(1, static_cast<char>(byte))) == 0) taken += 1;
    EXPECT_EQ(81, taken);
}

TEST(ChannelContainerName, HasTheCharactersOfAChannelName)
{
    Channel channel;
    for (int byte = 1; byte < 256; ++byte) {
        std::string name = std::string("A") + static_cast<char>(byte);
        EXPECT_RC(isAllowed(byte) ? 0 : -51, tryContainer(channel, name)) << "byte " << byte;
    }
}

TEST(ChannelName, WithABlankIsRefusedAndTheBlankShown)
{
    TraceFile trace(1);
    EXPECT_RC(-51, tryChannel("MY ORDER"));
    EXPECT_TRUE(traceReads(
        trace, {"1403 *EXC* clapi_channel.validateName() name contains invalid character ' '"}));
}

TEST(ChannelName, ShowsOnlyTheFirstWrongCharacter)
{
    TraceFile trace(1);
    EXPECT_RC(-51, tryChannel("A*B+C,D"));
    EXPECT_TRUE(traceReads(
        trace, {"1403 *EXC* clapi_channel.validateName() name contains invalid character '*'"}));
}

TEST(ChannelName, ShowsAWrongByteAboveTheAsciiRange)
{
    TraceFile trace(1);
    EXPECT_RC(-51, tryChannel("A\xE4"));
    EXPECT_TRUE(trace.wrote(1403, "*EXC*",
                            "clapi_channel.validateName() name contains invalid character '\xE4'"));
}

TEST(ChannelName, ShowsALineEndAsItIs)
{
    TraceFile trace(1);
    EXPECT_RC(-51, tryChannel("\n"));
    EXPECT_TRUE(
        trace.wroteText("clapi_channel.validateName() name contains invalid character '\n'\n"));
}

TEST(ChannelName, WithPercentSignsIsTracedAsItIs)
{
    TraceFile trace(3);
    EXPECT_RC(0, tryChannel("%s%n%d"));
    EXPECT_TRUE(trace.wrote(1300, "ENTRY", "API.ECI_createChannel(name=%s%n%d, tokPtr=<ptr>)"));
    EXPECT_TRUE(trace.wrote(1400, "ENTRY", "clapi_channel.validateName(name=%s%n%d)"));
    EXPECT_TRUE(trace.wrote(1305, "DEBUG",
                            "API.ECI_createChannel() New channel \"%s%n%d\" created (<ptr>)"));
}

// ---- Lengths -----------------------------------------------------------------------------------

TEST(ChannelName, MayHaveOneCharacter)
{
    Channel channel("A");
    EXPECT_EQ("A", channelName(channel.token));
}

TEST(ChannelName, MayHaveSixteenCharacters)
{
    Channel channel(sixteen);
    EXPECT_EQ(sixteen, channelName(channel.token));
}

TEST(ChannelName, OfSeventeenCharactersIsRefused)
{
    TraceFile trace(1);
    EXPECT_RC(-51, tryChannel(seventeen));
    EXPECT_TRUE(
        traceReads(trace, {"1402 *EXC* clapi_channel.validateName() name length exceeds 16"}));
}

TEST(ChannelName, OfGreatLengthIsRefused)
{
    EXPECT_RC(-51, tryChannel(std::string(1000000, 'A')));
}

TEST(ChannelName, TooLongAndWrongIsRefusedForItsLength)
{
    TraceFile trace(1);
    EXPECT_RC(-51, tryChannel("A NAME WITH BLANKS"));
    EXPECT_TRUE(
        traceReads(trace, {"1402 *EXC* clapi_channel.validateName() name length exceeds 16"}));
}

TEST(ChannelName, MayNotBeEmpty)
{
    TraceFile trace(1);
    EXPECT_RC(-51, tryChannel(""));
    EXPECT_TRUE(traceReads(trace, {"1407 *EXC* clapi_channel.validateName() name is zero length"}));
}

TEST(ChannelName, MayNotBeNull)
{
    TraceFile trace(1);
    ECI_ChannelToken_t token = nullptr;
    EXPECT_RC(-51, ECI_createChannel(nullptr, &token));
    EXPECT_EQ(nullptr, token);
    EXPECT_TRUE(traceReads(trace, {"1401 *EXC* clapi_channel.validateName() name is NULL"}));
}

TEST(ChannelName, RefusedLeavesTheHandleAlone)
{
    Channel other;
    ECI_ChannelToken_t token = other.token;
    EXPECT_RC(-51, ECI_createChannel("", &token));
    EXPECT_EQ(other.token, token);
}

TEST(ChannelName, NullIsTracedAsTheWordNull)
{
    TraceFile trace(3);
    ECI_ChannelToken_t token = nullptr;
    EXPECT_RC(-51, ECI_createChannel(nullptr, &token));
    EXPECT_TRUE(traceReads(
        trace, {"1300 ENTRY API.ECI_createChannel(name=NULL, tokPtr=" + shown(&token) + ")",
                "1400 ENTRY clapi_channel.validateName(name=NULL)",
                "1401 *EXC* clapi_channel.validateName() name is NULL",
                "1404 EXIT clapi_channel.validateName() rc=-51 (ECI_ERR_INVALID_NAME)",
                "1309 EXIT API.ECI_createChannel() rc=-51 (ECI_ERR_INVALID_NAME)"}));
}

TEST(ChannelContainerName, MayHaveOneCharacter)
{
    Channel channel;
    EXPECT_RC(0, tryContainer(channel, "A"));
    EXPECT_EQ("A", channel.first());
}

TEST(ChannelContainerName, MayHaveSixteenCharacters)
{
    Channel channel;
    EXPECT_RC(0, tryContainer(channel, sixteen));
    EXPECT_EQ(sixteen, channel.first());
}

TEST(ChannelContainerName, OfSeventeenCharactersIsRefused)
{
    Channel channel;
    EXPECT_RC(-51, tryContainer(channel, seventeen));
    EXPECT_EQ("-54", channel.first());
}

TEST(ChannelContainerName, MayNotBeEmpty)
{
    Channel channel;
    EXPECT_RC(-51, tryContainer(channel, ""));
    EXPECT_EQ("-54", channel.first());
}

TEST(ChannelContainerName, OfSeventeenCharactersIsNotLookedForBySixteen)
{
    Channel channel;
    channel.addBit(sixteen, "data");
    ECI_CONTAINER_INFO info;
    EXPECT_RC(-51, ECI_getContainerInfo(channel.token, seventeen, &info));
    EXPECT_RC(-51, ECI_deleteContainer(channel.token, seventeen));
    EXPECT_EQ("data", channel.data(sixteen));
}

// ---- Sameness ----------------------------------------------------------------------------------

TEST(ChannelName, MayBeUsedTwice)
{
    Channel first("ORDER");
    Channel second("ORDER");
    EXPECT_NE(first.token, second.token);
    first.addBit("ONLY");
    EXPECT_EQ("ONLY", first.first());
    EXPECT_EQ("-54", second.first());
}

TEST(ChannelContainerName, MayNotBeUsedTwiceOnOneChannel)
{
    Channel channel;
    channel.addBit("CUSTOMER", "first");
    TraceFile trace(1);
    EXPECT_RC(-59, ECI_createContainer(channel.token, "CUSTOMER", ECI_CHAR, 0, "second", 6));
    EXPECT_TRUE(traceReads(trace, {"<int> *EXC* API.ECI_createContainer() Container \"CUSTOMER\" "
                                   "already exists in channel \"ORDER\""}));
    EXPECT_EQ("first", channel.data("CUSTOMER"));
    EXPECT_EQ(std::vector<std::string>{"CUSTOMER"}, channel.names());
}

TEST(ChannelContainerName, MayBeUsedOnTwoChannels)
{
    Channel first;
    Channel second;
    first.addBit("CUSTOMER", "one");
    second.addBit("CUSTOMER", "two");
    EXPECT_EQ("one", first.data("CUSTOMER"));
    EXPECT_EQ("two", second.data("CUSTOMER"));
}

TEST(ChannelContainerName, DiffersByCase)
{
    Channel channel;
    channel.addBit("Customer", "one");
    channel.addBit("CUSTOMER", "two");
    channel.addBit("customer", "three");
    EXPECT_EQ("one", channel.data("Customer"));
    EXPECT_EQ("two", channel.data("CUSTOMER"));
    EXPECT_EQ("three", channel.data("customer"));
}

TEST(ChannelContainerName, IsNotFoundInAnotherCase)
{
    Channel channel;
    channel.addBit("CUSTOMER");
    EXPECT_RC(-58, ECI_deleteContainer(channel.token, "CUSTOMEr"));
    EXPECT_EQ("CUSTOMER", channel.first());
}

TEST(ChannelContainerName, DiffersByTheSixteenthCharacter)
{
    Channel channel;
    channel.addBit("ABCDEFGHIJKLMNO1", "one");
    channel.addBit("ABCDEFGHIJKLMNO2", "two");
    EXPECT_EQ("one", channel.data("ABCDEFGHIJKLMNO1"));
    EXPECT_EQ("two", channel.data("ABCDEFGHIJKLMNO2"));
}

TEST(ChannelContainerName, IsNotFoundByItsBeginning)
{
    Channel channel;
    channel.addBit(sixteen);
    ECI_CONTAINER_INFO info;
    EXPECT_RC(-58, ECI_getContainerInfo(channel.token, "ABCDEFGHIJKLMNO", &info));
}

TEST(ChannelContainerName, DoesNotFindALongerOne)
{
    Channel channel;
    channel.addBit("AB");
    ECI_CONTAINER_INFO info;
    EXPECT_RC(-58, ECI_getContainerInfo(channel.token, "ABC", &info));
}

TEST(ChannelContainerName, OfSixteenCharactersMayNotBeUsedTwice)
{
    Channel channel;
    channel.addBit(sixteen);
    TraceFile trace(1);
    EXPECT_RC(-59, tryContainer(channel, sixteen));
    EXPECT_TRUE(
        traceReads(trace, {"<int> *EXC* API.ECI_createContainer() Container \"ABCDEFGHIJKLMNOP\" "
                           "already exists in channel \"ORDER\""}));
}

// ---- ECI_getChannelName ------------------------------------------------------------------------

TEST(ChannelGetName, FillsSeventeenBytesAndNoMore)
{
    Channel channel("AB");
    char buffer[19];
    std::memset(buffer, '?', sizeof buffer);
    EXPECT_RC(0, ECI_getChannelName(channel.token, buffer + 1));
    EXPECT_EQ(std::string("?AB") + std::string(15, '\0') + "?", std::string(buffer, 19));
}

TEST(ChannelGetName, EndsSixteenCharactersWithANul)
{
    Channel channel(sixteen);
    char buffer[19];
    std::memset(buffer, '?', sizeof buffer);
    EXPECT_RC(0, ECI_getChannelName(channel.token, buffer + 1));
    EXPECT_EQ(std::string("?ABCDEFGHIJKLMNOP") + '\0' + "?", std::string(buffer, 19));
}

TEST(ChannelGetName, NeedsAChannel)
{
    char buffer[] = "unchanged";
    TraceFile trace(1);
    EXPECT_RC(-50, ECI_getChannelName(nullptr, buffer));
    EXPECT_STREQ("unchanged", buffer);
    EXPECT_TRUE(traceReads(trace, {"1321 *EXC* API.ECI_getChannelName() chanTok is NULL"}));
}

TEST(ChannelGetName, NeedsABuffer)
{
    Channel channel;
    TraceFile trace(1);
    EXPECT_RC(-109, ECI_getChannelName(channel.token, nullptr));
    EXPECT_TRUE(traceReads(trace, {"1322 *EXC* API.ECI_getChannelName() nameBuffer is NULL"}));
}

TEST(ChannelGetName, LooksForTheChannelFirst)
{
    TraceFile trace(1);
    EXPECT_RC(-50, ECI_getChannelName(nullptr, nullptr));
    EXPECT_TRUE(traceReads(trace, {"1321 *EXC* API.ECI_getChannelName() chanTok is NULL"}));
}
