// What the reader of a reply says of a channel section that is cut: nothing but that the message is
// broken. That is the receiver's to tell, with the code that the connection ends with.
#include "flow_channel_fixture.h"

#include <cerrno>

using namespace support;
using namespace unit;

namespace {

constexpr std::size_t beforeSection = 26;
constexpr std::size_t sectionHead = 24;
constexpr std::size_t recordHead = 28;

class FlowChannelCut : public SocketBufferTest {
protected:
    FlowChannelCut() { std::memset(&request, 0, sizeof request); }

    // Reads so many bytes of a reply with one record.
    int readFirst(std::size_t count)
    {
        Bytes body = replyBody(
            channelSection("CHANNEL", 819, 1, added("NEW", ECI_BIT, 0, text("data"))));
        request.channel = channel.token;
        bindForReading(count);
        theirs.send(slice(body, 0, count));
        return clapiReadECIResponse(&sockBuffer, &request);
    }

    LocalChannel channel{"CHANNEL", 819, {}};
    ECIRequest request;
};

} // namespace

TEST_F(FlowChannelCut, InItsHeadIsABrokenMessageAndNoFailureOfTheReader)
{
    for (std::size_t count = beforeSection; count < beforeSection + sectionHead; ++count) {
        SCOPED_TRACE(count);
        EXPECT_RC(0, readFirst(count));
        EXPECT_EQ(EBADMSG, sockBuffer.socketErr);
    }
}

TEST_F(FlowChannelCut, InTheHeadOfARecordIsABrokenMessageAndNoFailureOfTheReader)
{
    constexpr std::size_t records = beforeSection + sectionHead;
    for (std::size_t count = records; count < records + recordHead; ++count) {
        SCOPED_TRACE(count);
        EXPECT_RC(0, readFirst(count));
        EXPECT_EQ(EBADMSG, sockBuffer.socketErr);
    }
}
