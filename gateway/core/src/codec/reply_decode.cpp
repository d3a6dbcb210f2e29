// What Gateways send, as far as a reader needs it: lengths are checked, values are not.

#include "standin/reply_decode.h"

#include <algorithm>

#include "codec/byte_reader.h"
#include "standin/wire.h"

namespace standin {

namespace {

constexpr std::size_t kNameWidth = 16;
constexpr std::size_t kShortestContainer = 28; // a container record without data

Container takeContainer(ByteReader& in)
{
    Container container;
    container.name = in.takePadded(kNameWidth, "container name");
    const std::size_t start = in.offset();
    const std::uint8_t change = in.takeByte("container change code");
    if (change < static_cast<std::uint8_t>(Change::Added) ||
        change > static_cast<std::uint8_t>(Change::Unchanged)) {
        throw MalformedFlow(start, "container change code is " + std::to_string(change) +
                                       ", not 1, 2, 3 or 4");
    }
    container.change = static_cast<Change>(change);
    in.takeShort("two zero bytes of a container");
    container.type = in.takeByte("container type");
    container.ccsid = in.takeInt("container CCSID");
    const std::int32_t length = in.takeLength("length of container data");
    container.dataLength = length;
    if (container.change == Change::Added || container.change == Change::Modified)
        container.data = in.takeBytes(static_cast<std::size_t>(length), "container data");
    return container;
}

Channel takeChannel(ByteReader& in)
{
    Channel channel;
    channel.name = in.takePadded(kNameWidth, "channel name");
    channel.ccsid = in.takeInt("channel CCSID");
    const std::size_t start = in.offset();
    const auto count = static_cast<std::size_t>(in.takeLength("number of containers"));
    if (count > in.remaining() / kShortestContainer) {
        throw MalformedFlow(start, std::to_string(count) + " containers do not fit into the " +
                                       std::to_string(in.remaining()) + " bytes left");
    }
    for (std::size_t i = 0; i < count; ++i) channel.containers.push_back(takeContainer(in));
    return channel;
}

void takeProgramReply(ByteReader& in, EciReply& reply, std::int32_t extendMode)
{
    reply.luwToken = in.takeInt("LUW token");
    reply.messageQualifier = in.takeInt("message qualifier");
    reply.vornRc = in.takeInt("return code");
    const std::string code = in.takeText(reply.abendCode.size(), "abend code");
    std::copy(code.begin(), code.end(), reply.abendCode.begin());
    reply.commareaLength = in.takeLength("COMMAREA length");
    if (in.takeFlag("inbound length flag")) {
        in.takeByte("byte in front of the inbound length");
        reply.inboundLength = in.takeLength("inbound length");
    }
    if (extendMode != kModeCommit && extendMode != kModeBackout) {
        const std::int32_t length = reply.inboundLength.value_or(reply.commareaLength);
        reply.commarea = in.takeBytes(static_cast<std::size_t>(length), "COMMAREA");
    }
    if (in.takeFlag("channel flag")) reply.channel = takeChannel(in);
}

EsiDateTime takeDateTime(ByteReader& in)
{
    EsiDateTime time;
    time.year = in.takeInt("year");
    time.month = in.takeInt("month");
    time.day = in.takeInt("day");
    time.hour = in.takeInt("hour");
    time.minute = in.takeInt("minute");
    time.second = in.takeInt("second");
    time.hundredths = in.takeInt("hundredths");
    return time;
}

} // namespace

EciReply decodeEciReply(const Bytes& body, std::size_t bodyOffset, std::int32_t extendMode)
{
    ByteReader in(body, bodyOffset);
    EciReply reply;
    reply.callType = in.takeInt("call type");
    if (reply.callType == kCallListSystems) {
        reply.serverNum = in.takeLength("number of systems");
        reply.vornRc = in.takeInt("return code");
        reply.commareaLength = in.takeLength("length of the list");
        reply.commarea = in.takeBytes(static_cast<std::size_t>(reply.commareaLength), "list");
    } else if (reply.callType == kCallProgram || reply.callType == kCallTransaction) {
        takeProgramReply(in, reply, extendMode);
    } else {
        throw MalformedFlow(bodyOffset,
                            "call type is " + std::to_string(reply.callType) + ", not 1, 9 or 12");
    }
    in.expectEnd();
    return reply;
}

EsiReply decodeEsiReply(const Bytes& body, std::size_t bodyOffset)
{
    ByteReader in(body, bodyOffset);
    EsiReply reply;
    reply.vornRc = in.takeInt("return code");
    if (reply.vornRc == kServerOk) {
        reply.lastVerified = takeDateTime(in);
        reply.expiry = takeDateTime(in);
        reply.lastAccessed = takeDateTime(in);
        reply.invalidCount = in.takeInt("number of wrong passwords");
    }
    return reply;
}

std::string decodeExceptionText(const Bytes& body, std::size_t bodyOffset)
{
    ByteReader in(body, bodyOffset);
    in.takeByte("first byte");
    const auto length = static_cast<std::uint16_t>(in.takeShort("length of the text"));
    return in.takeText(length, "text");
}

} // namespace standin
