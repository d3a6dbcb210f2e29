// What is told of a container, and which code page it and its channel have.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstddef>
#include <cstring>
#include <ostream>
#include <string>

#include "qpxclient_eci.h"
#include "support/channels.h"
#include "support/expect_rc.h"
#include "support/trace_file.h"

using namespace support;

namespace {

// The process has the code page 920, which no default has.
class ChannelInfo : public ::testing::Test {
protected:
    ChannelInfo() { setenv("LANG", "tr_TR", 1); }

    // The channel's code page as a dump shows it.
    std::string channelCcsid() const
    {
        TraceFile trace(0);
        EXPECT_RC(0, QPX_ECI_dumpChannels());
        std::string text = trace.text();
        std::size_t at = text.find("isLocked(0) ccsid(");
        if (at == std::string::npos) return "none";
        at += std::strlen("isLocked(0) ccsid(");
        return text.substr(at, text.find(')', at) - at);
    }

    Channel channel;
};

using ChannelCodePage = ChannelInfo;

int getInfo(ECI_ChannelToken_t token, const char* name, ECI_CONTAINER_INFO* info)
{
    return ECI_getContainerInfo(token, name, info);
}

int getFirst(ECI_ChannelToken_t token, const char*, ECI_CONTAINER_INFO* info)
{
    return ECI_getFirstContainer(token, info);
}

int getNext(ECI_ChannelToken_t token, const char*, ECI_CONTAINER_INFO* info)
{
    return ECI_getNextContainer(token, info);
}

struct Getter {
    const char* name;
    int (*call)(ECI_ChannelToken_t, const char*, ECI_CONTAINER_INFO*);
};

void PrintTo(const Getter& getter, std::ostream* stream)
{
    *stream << getter.name;
}

class ChannelInfoRecord : public ::testing::TestWithParam<Getter> {
protected:
    // The bytes that the call leaves in 40, five before the record and the rest behind it.
    std::string bytesAfter(const char* name) const
    {
        char bytes[40];
        std::memset(bytes, '?', sizeof bytes);
        auto* info = reinterpret_cast<ECI_CONTAINER_INFO*>(bytes + 5);
        EXPECT_RC(0, GetParam().call(channel.token, name, info));
        return std::string(bytes, sizeof bytes);
    }

    Channel channel;
};

const std::string four(4, '\0');
const bool is32Bits = sizeof(void*) == 4;

// A length as it lies in memory.
std::string lengthBytes(char low)
{
    return low + std::string(is32Bits ? 3 : 7, '\0');
}

std::string rest(const std::string& begin)
{
    return std::string(40 - begin.size(), '?');
}

} // namespace

// ---- The record --------------------------------------------------------------------------------

TEST_F(ChannelInfo, HasItsFieldsInPlace)
{
    EXPECT_EQ(is32Bits ? 29u : 33u, sizeof(ECI_CONTAINER_INFO));
    EXPECT_EQ(0u, offsetof(ECI_CONTAINER_INFO, name));
    EXPECT_EQ(17u, offsetof(ECI_CONTAINER_INFO, type));
    EXPECT_EQ(21u, offsetof(ECI_CONTAINER_INFO, ccsid));
    EXPECT_EQ(25u, offsetof(ECI_CONTAINER_INFO, dataLength));
}

TEST_P(ChannelInfoRecord, IsFilledForBinaryDataAndNothingAroundIt)
{
    ASSERT_RC(0, ECI_createContainer(channel.token, "BINARY", ECI_BIT, 819, "ABC", 3));
    std::string expected = "?????BINARY" + std::string(11, '\0') + std::string("\1\0\0\0", 4) +
                           four + lengthBytes(3);
    EXPECT_EQ(expected + rest(expected), bytesAfter("BINARY"));
}

TEST_P(ChannelInfoRecord, IsFilledForCharactersAndNothingAroundIt)
{
    ASSERT_RC(0, ECI_createContainer(channel.token, "ABCDEFGHIJKLMNOP", ECI_CHAR, 1208, "A", 1));
    std::string expected = std::string("?????ABCDEFGHIJKLMNOP") + '\0' +
                           std::string("\2\0\0\0", 4) + std::string("\xB8\x04\0\0", 4) +
                           lengthBytes(1);
    EXPECT_EQ(expected + rest(expected), bytesAfter("ABCDEFGHIJKLMNOP"));
}

TEST_P(ChannelInfoRecord, IsFilledForAnEmptyContainer)
{
    ASSERT_RC(0, ECI_createContainer(channel.token, "E", ECI_BIT, 0, nullptr, 0));
    std::string expected = "?????E" + std::string(16, '\0') + std::string("\1\0\0\0", 4) + four +
                           lengthBytes(0);
    EXPECT_EQ(expected + rest(expected), bytesAfter("E"));
}

INSTANTIATE_TEST_SUITE_P(OfEachCall, ChannelInfoRecord,
                         ::testing::Values(Getter{"Info", &getInfo}, Getter{"First", &getFirst},
                                           Getter{"Next", &getNext}));

TEST_F(ChannelInfo, IsOfTheNamedContainer)
{
    channel.addBit("ONE", "1");
    channel.addBit("TWO", "22");
    channel.addBit("THREE", "333");
    EXPECT_EQ(2u, std::size_t(channel.info("TWO").dataLength));
    EXPECT_STREQ("TWO", channel.info("TWO").name);
    EXPECT_EQ(1u, std::size_t(channel.info("ONE").dataLength));
    EXPECT_EQ(3u, std::size_t(channel.info("THREE").dataLength));
}

// ---- Code pages --------------------------------------------------------------------------------

TEST_F(ChannelCodePage, IsUnknownAtFirst)
{
    EXPECT_EQ("-1", channelCcsid());
}

TEST_F(ChannelCodePage, StaysUnknownWithBinaryContainers)
{
    channel.addBit("BINARY");
    ASSERT_RC(0, ECI_createContainer(channel.token, "OTHER", ECI_BIT, 1208, nullptr, 0));
    EXPECT_EQ("-1", channelCcsid());
    EXPECT_EQ(0, int(channel.info("OTHER").ccsid));
}

TEST_F(ChannelCodePage, IsTheLocalOneForCharactersWithout)
{
    channel.addChar("TEXT", 0);
    EXPECT_EQ(920, int(channel.info("TEXT").ccsid));
    EXPECT_EQ("920", channelCcsid());
}

TEST_F(ChannelCodePage, IsThatOfTheFirstCharacters)
{
    channel.addChar("TEXT", 1208);
    EXPECT_EQ(1208, int(channel.info("TEXT").ccsid));
    EXPECT_EQ("1208", channelCcsid());
}

TEST_F(ChannelCodePage, StaysWhenLaterCharactersHaveAnother)
{
    channel.addChar("FIRST", 1208);
    channel.addChar("SECOND", 37);
    EXPECT_EQ(37, int(channel.info("SECOND").ccsid));
    EXPECT_EQ(1208, int(channel.info("FIRST").ccsid));
    EXPECT_EQ("1208", channelCcsid());
}

TEST_F(ChannelCodePage, IsTakenByLaterCharactersWithout)
{
    channel.addChar("FIRST", 1208);
    channel.addChar("SECOND", 0);
    EXPECT_EQ(1208, int(channel.info("SECOND").ccsid));
    EXPECT_EQ("1208", channelCcsid());
}

TEST_F(ChannelCodePage, StaysLocalWhenLaterCharactersHaveAnother)
{
    channel.addChar("FIRST", 0);
    channel.addChar("SECOND", 1208);
    channel.addChar("THIRD", 0);
    EXPECT_EQ(1208, int(channel.info("SECOND").ccsid));
    EXPECT_EQ(920, int(channel.info("THIRD").ccsid));
    EXPECT_EQ("920", channelCcsid());
}

TEST_F(ChannelCodePage, StaysWhenItsContainersAreDeleted)
{
    channel.addChar("FIRST", 1208);
    ASSERT_RC(0, ECI_deleteContainer(channel.token, "FIRST"));
    channel.addChar("SECOND", 0);
    EXPECT_EQ(1208, int(channel.info("SECOND").ccsid));
}

TEST_F(ChannelCodePage, MayBeAnyNumber)
{
    channel.addChar("FIRST", 2147483647);
    channel.addChar("SECOND", -5);
    EXPECT_EQ(2147483647, int(channel.info("FIRST").ccsid));
    EXPECT_EQ(-5, int(channel.info("SECOND").ccsid));
}

// A channel whose first characters have the code page -1 still counts as one without.
TEST_F(ChannelCodePage, OfMinusOneIsKeptOnTheContainer)
{
    channel.addChar("FIRST", -1);
    EXPECT_EQ(-1, int(channel.info("FIRST").ccsid));
    channel.addChar("SECOND", 0);
    EXPECT_EQ(920, int(channel.info("SECOND").ccsid));
}

TEST_F(ChannelCodePage, IsOfItsOwnOnEachChannel)
{
    Channel other;
    channel.addChar("FIRST", 1208);
    other.addChar("FIRST", 37);
    channel.addChar("SECOND", 0);
    other.addChar("SECOND", 0);
    EXPECT_EQ(1208, int(channel.info("SECOND").ccsid));
    EXPECT_EQ(37, int(other.info("SECOND").ccsid));
}

// ---- What the trace says -----------------------------------------------------------------------

TEST_F(ChannelCodePage, FromAContainerIsTold)
{
    TraceFile trace(4);
    channel.addChar("TEXT", 1208);
    EXPECT_TRUE(trace.wroteText(
        "DEBUG  API.ECI_createContainer() Channel CCSID set to 1208 from Container\n"));
    EXPECT_TRUE(trace.wroteText("DEBUG  API.ECI_createContainer() Container CCSID set to 1208\n"));
}

TEST_F(ChannelCodePage, FromTheLocaleIsTold)
{
    TraceFile trace(4);
    channel.addChar("TEXT", 0);
    EXPECT_TRUE(
        trace.wroteText("DEBUG  API.ECI_createContainer() Channel CCSID set to 920 from locale\n"));
    EXPECT_TRUE(trace.wroteText("DEBUG  API.ECI_createContainer() Container CCSID set to 920\n"));
}

TEST_F(ChannelCodePage, OfAContainerOnlyIsTold)
{
    channel.addChar("FIRST", 1208);
    TraceFile trace(4);
    channel.addChar("SECOND", 37);
    EXPECT_TRUE(trace.wroteText("DEBUG  API.ECI_createContainer() Container CCSID set to 37\n"));
    EXPECT_FALSE(trace.wroteText("Channel CCSID set"));
}

TEST_F(ChannelCodePage, IsNotToldForBinaryData)
{
    TraceFile trace(4);
    ASSERT_RC(0, ECI_createContainer(channel.token, "BINARY", ECI_BIT, 1208, nullptr, 0));
    EXPECT_FALSE(trace.wroteText("Channel CCSID set"));
}
