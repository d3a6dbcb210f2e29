// The Gateway's flows as bytes. One line for each field, in wire order.

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "codec/byte_writer.h"
#include "standin/wire.h"

namespace standin {

namespace {

constexpr std::size_t kNameWidth = 16;          // channel and container names
constexpr std::size_t kSystemNameWidth = 9;     // in a system list entry
constexpr std::size_t kDescriptionWidth = 61;   // in a system list entry
constexpr std::size_t kFixedHeaderSize = 29;    // without the request type
constexpr std::size_t kRoomForFixedFields = 64; // of a reply, at least as many as it has
constexpr std::uint8_t kSet = 0xFF;
constexpr std::uint8_t kNotSet = 0x00;

const char* const kBase = "BASE";
const char* const kEci = "ECI";
const char* const kEsi = "ESI";

Flow headerOnly(FlowType type, std::int32_t messageId, std::string_view requestType)
{
    Flow flow;
    flow.header.flowType = static_cast<std::int32_t>(type);
    flow.header.messageId = messageId;
    flow.header.requestType = requestType;
    return flow;
}

bool travelsWithData(Change change)
{
    return change == Change::Added || change == Change::Modified;
}

void putContainer(ByteWriter& out, const Container& container)
{
    out.putPadded(container.name, kNameWidth);
    out.putByte(static_cast<std::uint8_t>(container.change));
    out.putShort(0);
    out.putByte(container.type);
    out.putInt(container.ccsid);
    out.putInt(container.dataLength.value_or(lengthOnWire(container.data.size())));
    if (travelsWithData(container.change)) out.putBytes(container.data);
}

void putChannel(ByteWriter& out, const Channel& channel)
{
    out.putPadded(channel.name, kNameWidth);
    out.putInt(channel.ccsid);
    out.putInt(channel.count.value_or(lengthOnWire(channel.containers.size())));
    for (const Container& container : channel.containers) putContainer(out, container);
}

void putListReply(ByteWriter& out, const EciReply& reply)
{
    out.putInt(reply.serverNum);
    out.putInt(reply.vornRc);
    out.putInt(reply.commareaLength);
    out.putBytes(reply.commarea);
}

void putProgramReply(ByteWriter& out, const EciReply& reply)
{
    out.putInt(reply.luwToken);
    out.putInt(reply.messageQualifier);
    out.putInt(reply.vornRc);
    out.putText({reply.abendCode.data(), reply.abendCode.size()});
    out.putInt(reply.commareaLength);
    if (reply.inboundLength) {
        out.putByte(kSet);
        out.putByte(0x00); // the client takes it and ignores it
        out.putInt(*reply.inboundLength);
    } else {
        out.putByte(kNotSet);
    }
    out.putBytes(reply.commarea);
    out.putByte(reply.channel ? kSet : kNotSet);
    if (reply.channel) putChannel(out, *reply.channel);
}

void putDateTime(ByteWriter& out, const EsiDateTime& time)
{
    out.putInt(time.year);
    out.putInt(time.month);
    out.putInt(time.day);
    out.putInt(time.hour);
    out.putInt(time.minute);
    out.putInt(time.second);
    out.putInt(time.hundredths);
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    throw std::invalid_argument(std::string("'") + c + "' is not a hexadecimal digit");
}

} // namespace

std::int32_t lengthOnWire(std::size_t size)
{
    constexpr auto kLargest = std::numeric_limits<std::int32_t>::max();
    if (size > static_cast<std::size_t>(kLargest))
        throw std::length_error(std::to_string(size) + " bytes are more than a flow can have");
    return static_cast<std::int32_t>(size);
}

Bytes encodeFlow(const Flow& flow)
{
    const FlowHeader& header = flow.header;
    ByteWriter out;
    out.reserve(kFixedHeaderSize + header.requestType.size() + flow.body.size());
    out.putInt(header.eyecatcher);
    out.putInt(header.flowVersion);
    out.putInt(header.flowType);
    out.putInt(header.messageId);
    out.putInt(header.gatewayRc);
    out.putInt(header.requestTypeLength.value_or(lengthOnWire(header.requestType.size())));
    out.putText(header.requestType);
    out.putByte(header.security);
    out.putInt(header.dataLength.value_or(lengthOnWire(flow.body.size())));
    out.putBytes(flow.body);
    return out.take();
}

Flow makeHandshakeAccepted()
{
    return headerOnly(FlowType::Handshake, kHandshakeMessageId, kBase);
}

Flow makeCloseFlow()
{
    return headerOnly(FlowType::Close, kCloseMessageId, kBase);
}

Flow makePing()
{
    return headerOnly(FlowType::Ping, 0, kBase);
}

Flow makeErrorFlow(std::int32_t messageId, std::int32_t gatewayRc, std::string_view requestType)
{
    Flow flow = headerOnly(FlowType::Error, messageId, requestType);
    flow.header.gatewayRc = gatewayRc;
    return flow;
}

Flow makeExceptionFlow(std::int32_t messageId, std::string_view text, std::string_view requestType)
{
    Flow flow = headerOnly(FlowType::Exception, messageId, requestType);
    flow.header.gatewayRc = kGatewayException;
    flow.body = encodeExceptionBody(text);
    return flow;
}

Flow makeEciReply(std::int32_t messageId, const EciReply& reply)
{
    Flow flow = headerOnly(FlowType::Reply, messageId, kEci);
    flow.header.gatewayRc = reply.gatewayRc;
    flow.body = encodeEciReplyBody(reply);
    return flow;
}

Flow makeEsiReply(std::int32_t messageId, const EsiReply& reply)
{
    Flow flow = headerOnly(FlowType::Reply, messageId, kEsi);
    flow.header.gatewayRc = reply.gatewayRc;
    flow.body = encodeEsiReplyBody(reply);
    return flow;
}

Bytes encodeHandshakeAccepted()
{
    return encodeFlow(makeHandshakeAccepted());
}

Bytes encodeCloseFlow()
{
    return encodeFlow(makeCloseFlow());
}

Bytes encodePing()
{
    return encodeFlow(makePing());
}

Bytes encodeErrorFlow(std::int32_t messageId, std::int32_t gatewayRc, std::string_view requestType)
{
    return encodeFlow(makeErrorFlow(messageId, gatewayRc, requestType));
}

Bytes encodeExceptionFlow(std::int32_t messageId, std::string_view text,
                          std::string_view requestType)
{
    return encodeFlow(makeExceptionFlow(messageId, text, requestType));
}

Bytes encodeEciReply(std::int32_t messageId, const EciReply& reply)
{
    return encodeFlow(makeEciReply(messageId, reply));
}

Bytes encodeEsiReply(std::int32_t messageId, const EsiReply& reply)
{
    return encodeFlow(makeEsiReply(messageId, reply));
}

Bytes encodeExceptionBody(std::string_view text)
{
    const std::string_view kept = text.substr(0, 0xFFFF);
    ByteWriter out;
    out.putByte(0x00); // the client skips it
    out.putShort(static_cast<std::uint16_t>(kept.size()));
    out.putText(kept);
    return out.take();
}

Bytes encodeEciReplyBody(const EciReply& reply)
{
    ByteWriter out;
    out.reserve(kRoomForFixedFields + reply.commarea.size());
    out.putInt(reply.callType);
    if (reply.callType == kCallListSystems) {
        putListReply(out, reply);
    } else if (reply.callType == kCallProgram || reply.callType == kCallTransaction) {
        putProgramReply(out, reply);
    }
    return out.take();
}

Bytes encodeEsiReplyBody(const EsiReply& reply)
{
    ByteWriter out;
    out.putInt(reply.vornRc);
    if (reply.vornRc == kServerOk) {
        putDateTime(out, reply.lastVerified);
        putDateTime(out, reply.expiry);
        putDateTime(out, reply.lastAccessed);
        out.putInt(reply.invalidCount);
    }
    Bytes body = out.take();
    body.resize(reply.bodySize.value_or(body.size()), 0x00);
    return body;
}

Bytes encodeSystemEntries(const std::vector<SystemEntry>& systems)
{
    ByteWriter out;
    for (const SystemEntry& system : systems) {
        out.putPadded(system.name, kSystemNameWidth);
        out.putPadded(system.description, kDescriptionWidth);
    }
    return out.take();
}

std::string toHex(const Bytes& bytes)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        if (!text.empty()) text += ' ';
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

Bytes fromHex(std::string_view text)
{
    std::string digits(text);
    digits.erase(std::remove(digits.begin(), digits.end(), ' '), digits.end());
    if (digits.size() % 2 != 0) throw std::invalid_argument("an odd number of hexadecimal digits");
    Bytes bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        bytes.push_back(
            static_cast<std::uint8_t>(hexDigit(digits[i]) * 16 + hexDigit(digits[i + 1])));
    }
    return bytes;
}

} // namespace standin
