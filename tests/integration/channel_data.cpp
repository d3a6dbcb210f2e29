// The data of containers: what is copied in and out at every boundary.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "qpxclient_eci.h"
#include "support/channels.h"
#include "support/expect_rc.h"
#include "support/trace_file.h"

using namespace support;

namespace {

const std::size_t most = SIZE_MAX;

struct Part {
    std::size_t offset;
    std::size_t length;
    const char* expected;
};

void PrintTo(const Part& part, std::ostream* stream)
{
    *stream << part.length << " from " << part.offset;
}

// A channel with a container of the five bytes ABCDE.
class ChannelData : public ::testing::Test {
protected:
    ChannelData() { channel.addBit("FIVE", "ABCDE"); }

    int set(const std::string& data) const
    {
        return ECI_setContainerData(channel.token, "FIVE", data.data(), data.size());
    }

    Channel channel;
};

class ChannelDataPart : public ChannelData, public ::testing::WithParamInterface<Part> {};

std::string allBytes()
{
    std::string all;
    for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
    return all;
}

} // namespace

// ---- ECI_getContainerData ----------------------------------------------------------------------

TEST_P(ChannelDataPart, IsCopiedAndNothingElseIsTouched)
{
    std::string expected = GetParam().expected;
    char buffer[9];
    std::memset(buffer, '?', sizeof buffer);
    std::size_t count = 77;
    EXPECT_RC(0, ECI_getContainerData(channel.token, "FIVE", buffer + 1, GetParam().length,
                                      GetParam().offset, &count));
    EXPECT_EQ(expected.size(), count);
    EXPECT_EQ("?" + expected + std::string(8 - expected.size(), '?'), std::string(buffer, 9));
}

TEST_P(ChannelDataPart, IsCopiedWithoutItsCount)
{
    std::string expected = GetParam().expected;
    char buffer[9];
    std::memset(buffer, '?', sizeof buffer);
    EXPECT_RC(0, ECI_getContainerData(channel.token, "FIVE", buffer + 1, GetParam().length,
                                      GetParam().offset, nullptr));
    EXPECT_EQ("?" + expected + std::string(8 - expected.size(), '?'), std::string(buffer, 9));
}

INSTANTIATE_TEST_SUITE_P(
    AtEachBoundary, ChannelDataPart,
    ::testing::Values(Part{0, 0, ""}, Part{0, 1, "A"}, Part{0, 4, "ABCD"}, Part{0, 5, "ABCDE"},
                      Part{0, 6, "ABCDE"}, Part{0, most, "ABCDE"}, Part{1, 0, ""},
                      Part{1, 3, "BCD"}, Part{1, 4, "BCDE"}, Part{1, 5, "BCDE"},
                      Part{1, most, "BCDE"}, Part{1, most - 1, "BCDE"}, Part{2, 10, "CDE"},
                      Part{4, 0, ""}, Part{4, 1, "E"}, Part{4, 2, "E"}, Part{4, most - 3, "E"},
                      Part{4, most - 4, "E"}, Part{4, most, "E"}, Part{5, 0, ""}, Part{5, 1, ""},
                      Part{5, most, ""}, Part{6, 0, ""}, Part{6, 1, ""}, Part{most, 0, ""},
                      Part{most, 1, ""}, Part{most, 2, ""}, Part{most, 6, ""},
                      Part{most - 4, 10, ""}, Part{most, most, ""}, Part{2147483647, 5, ""},
                      Part{2147483648u, 5, ""}, Part{3, 2147483648u, "DE"}));

TEST_F(ChannelData, IsEmptyWithoutData)
{
    channel.addBit("EMPTY");
    char buffer[] = "unchanged";
    std::size_t count = 77;
    EXPECT_RC(0, ECI_getContainerData(channel.token, "EMPTY", buffer, 5, 0, &count));
    EXPECT_EQ(0u, count);
    EXPECT_STREQ("unchanged", buffer);
}

TEST_F(ChannelData, TellsWhatItCopied)
{
    char buffer[3];
    TraceFile trace(4);
    EXPECT_RC(0, ECI_getContainerData(channel.token, "FIVE", buffer, 3, 1, nullptr));
    EXPECT_TRUE(trace.wroteText("DEBUG  API.ECI_getContainerData() Copied 3 bytes into " +
                                shown(buffer) + "\n"));
    EXPECT_FALSE(trace.wroteText("No data to copy"));
}

TEST_F(ChannelData, TellsThatThereIsNothingToCopy)
{
    char buffer[3];
    TraceFile trace(4);
    EXPECT_RC(0, ECI_getContainerData(channel.token, "FIVE", buffer, 3, 5, nullptr));
    EXPECT_TRUE(trace.wroteText("DEBUG  API.ECI_getContainerData() No data to copy\n"));
    EXPECT_FALSE(trace.wroteText("Copied"));
}

TEST_F(ChannelData, IsReadInPiecesOfEverySize)
{
    std::string whole = allBytes() + allBytes();
    channel.addBit("MANY", whole);
    for (std::size_t piece = 1; piece <= whole.size() + 1; ++piece) {
        std::string got;
        std::vector<char> buffer(piece);
        for (std::size_t count = 1; count != 0; got.append(buffer.data(), count))
            ASSERT_RC(0, ECI_getContainerData(channel.token, "MANY", buffer.data(), piece,
                                              got.size(), &count));
        ASSERT_EQ(whole, got) << "in pieces of " << piece;
    }
}

// ---- ECI_createContainer -----------------------------------------------------------------------

TEST_F(ChannelData, IsACopy)
{
    char data[] = "before";
    ASSERT_RC(0, ECI_createContainer(channel.token, "COPY", ECI_BIT, 0, data, 6));
    std::strcpy(data, "after!");
    EXPECT_EQ("before", channel.data("COPY"));
}

TEST_F(ChannelData, HoldsEveryByte)
{
    channel.addBit("ALL", allBytes());
    EXPECT_EQ(allBytes(), channel.data("ALL"));
}

TEST_F(ChannelData, IsNotConvertedForCharacters)
{
    channel.addChar("ALL", 37, allBytes());
    EXPECT_EQ(allBytes(), channel.data("ALL"));
}

TEST_F(ChannelData, HoldsMegabytes)
{
    std::string large(5000000, 'x');
    large.back() = 'y';
    channel.addBit("LARGE", large);
    EXPECT_EQ(5000000u, std::size_t(channel.info("LARGE").dataLength));
    EXPECT_EQ(large, channel.data("LARGE"));
}

TEST_F(ChannelData, OfTheGreatestLengthIsRefused)
{
    TraceFile trace(1);
    EXPECT_RC(-111, ECI_createContainer(channel.token, "HUGE", ECI_BIT, 0, "ABC", most));
    EXPECT_TRUE(trace.wroteText("*EXC*  API.ECI_createContainer() Failed to allocate " +
                                std::to_string(most) + " bytes for container data\n"));
    EXPECT_EQ(std::vector<std::string>{"FIVE"}, channel.names());
}

TEST_F(ChannelData, OfAlmostTheGreatestLengthIsRefused)
{
    for (std::size_t less = 1; less <= 64; ++less)
        EXPECT_RC(-111, ECI_createContainer(channel.token, "HUGE", ECI_BIT, 0, "ABC", most - less));
    EXPECT_EQ(std::vector<std::string>{"FIVE"}, channel.names());
}

// ---- ECI_setContainerData ----------------------------------------------------------------------

TEST_F(ChannelData, IsReplacedByOtherOfTheSameLength)
{
    EXPECT_RC(0, set("VWXYZ"));
    EXPECT_EQ("VWXYZ", channel.data("FIVE"));
}

TEST_F(ChannelData, IsReplacedByShorterData)
{
    EXPECT_RC(0, set("V"));
    EXPECT_EQ("V", channel.data("FIVE"));
}

TEST_F(ChannelData, IsReplacedByLongerDataAndNotAppendedTo)
{
    EXPECT_RC(0, set("VWXYZ!"));
    EXPECT_EQ("VWXYZ!", channel.data("FIVE"));
}

TEST_F(ChannelData, IsRemovedByALengthOfZero)
{
    EXPECT_RC(0, ECI_setContainerData(channel.token, "FIVE", nullptr, 0));
    EXPECT_EQ("", channel.data("FIVE"));
    EXPECT_EQ(0u, std::size_t(channel.info("FIVE").dataLength));
}

TEST_F(ChannelData, IsRemovedByALengthOfZeroWithData)
{
    EXPECT_RC(0, ECI_setContainerData(channel.token, "FIVE", "ABC", 0));
    EXPECT_EQ("", channel.data("FIVE"));
}

TEST_F(ChannelData, StaysEmptyWithALengthOfZero)
{
    channel.addBit("EMPTY");
    EXPECT_RC(0, ECI_setContainerData(channel.token, "EMPTY", nullptr, 0));
    EXPECT_EQ("", channel.data("EMPTY"));
}

TEST_F(ChannelData, IsGivenToAnEmptyContainer)
{
    channel.addBit("EMPTY");
    EXPECT_RC(0, ECI_setContainerData(channel.token, "EMPTY", "data", 4));
    EXPECT_EQ("data", channel.data("EMPTY"));
}

TEST_F(ChannelData, IsGivenAgainAfterItWasRemoved)
{
    EXPECT_RC(0, set(""));
    EXPECT_RC(0, set("again"));
    EXPECT_EQ("again", channel.data("FIVE"));
}

TEST_F(ChannelData, IsReplacedByACopy)
{
    char data[] = "VWXYZ";
    EXPECT_RC(0, ECI_setContainerData(channel.token, "FIVE", data, 5));
    data[0] = '?';
    EXPECT_EQ("VWXYZ", channel.data("FIVE"));
}

TEST_F(ChannelData, IsReplacedInOneContainerOnly)
{
    channel.addBit("OTHER", "ABCDE");
    EXPECT_RC(0, set("VWXYZ"));
    EXPECT_EQ("ABCDE", channel.data("OTHER"));
}

TEST_F(ChannelData, KeepsTypeAndCodePageWhenReplaced)
{
    channel.addChar("TEXT", 1208, "text");
    EXPECT_RC(0, ECI_setContainerData(channel.token, "TEXT", "other text", 10));
    ECI_CONTAINER_INFO info = channel.info("TEXT");
    EXPECT_EQ(2, int(info.type));
    EXPECT_EQ(1208, int(info.ccsid));
    EXPECT_EQ(10u, std::size_t(info.dataLength));
}

TEST_F(ChannelData, OfTheGreatestLengthCannotReplaceOther)
{
    TraceFile trace(1);
    EXPECT_RC(-111, ECI_setContainerData(channel.token, "FIVE", "ABC", most));
    EXPECT_TRUE(traceReads(trace, {"<int> *EXC* API.ECI_setContainerData() Failed to allocate " +
                                   std::to_string(most) + " bytes for container data"}));
    EXPECT_EQ(0u, std::size_t(channel.info("FIVE").dataLength));
    EXPECT_EQ("", channel.data("FIVE"));
}

TEST_F(ChannelData, CanBeGivenAfterALengthThatWasRefused)
{
    ASSERT_RC(-111, ECI_setContainerData(channel.token, "FIVE", "ABC", most));
    EXPECT_RC(0, set("later"));
    EXPECT_EQ("later", channel.data("FIVE"));
}
