// What clients send, checked byte for byte.

#include <string.h>

#include <algorithm>
#include <cstdio>
#include <unordered_set>

#include "codec/byte_reader.h"
#include "codec/printable.h"
#include "standin/wipe.h"
#include "standin/wire.h"

namespace standin {

namespace {

constexpr std::size_t kFixedHeaderSize = 29; // without the request type
constexpr std::size_t kRequestTypeOffset = 24;
constexpr std::int32_t kLongestRequestType = 6;
constexpr std::int32_t kLongestApplid = 16; // 8 characters, up to 2 bytes each as UTF-8
constexpr std::size_t kNameWidth = 16;
constexpr std::int32_t kLargestEsiBody = 1024 * 1024; // passwords have no largest length
constexpr std::size_t kShortestContainer = 28;        // a container record without data

// Language "en", country "GB", and ten zero bytes.
const Bytes kHandshakeDataFixed = {0x00, 0x02, 0x65, 0x6E, 0x00, 0x02, 0x47, 0x42, 0x00,
                                   0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};

std::string inHex(std::int32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned int>(value));
    return text;
}

std::string quoted(const std::string& text)
{
    return "\"" + printable(text) + "\"";
}

[[noreturn]] void reject(std::size_t offset, const std::string& problem)
{
    throw MalformedFlow(offset, problem);
}

std::string withoutPadding(std::string text)
{
    const std::size_t last = text.find_last_not_of(std::string_view(" \0", 2));
    text.resize(last == std::string::npos ? 0 : last + 1);
    return text;
}

// Reads an int that must have one certain value.
void expectInt(ByteReader& in, std::int32_t wanted, std::string_view field)
{
    const std::size_t start = in.offset();
    const std::int32_t value = in.takeInt(field);
    if (value != wanted)
        reject(start, std::string(field) + " is " + std::to_string(value) + ", not " +
                          std::to_string(wanted));
}

// --------------------------------------------------------------------------------------- handshake

std::string takeApplid(ByteReader& in, const std::string& field)
{
    const std::size_t start = in.offset();
    const std::int32_t length = in.takeShort("length of " + field);
    if (length < 0 || length > kLongestApplid) {
        reject(start, "length of " + field + " is " + std::to_string(length) + ", not 0 to " +
                          std::to_string(kLongestApplid));
    }
    return in.takeText(static_cast<std::size_t>(length), field);
}

void expectFixedHandshakeData(ByteReader& in)
{
    const std::size_t start = in.offset();
    const Bytes data = in.takeBytes(kHandshakeDataFixed.size(), "fixed handshake data");
    for (std::size_t i = 0; i < data.size(); ++i) {
        if (data[i] == kHandshakeDataFixed[i]) continue;
        reject(start + i, "fixed handshake data has 0x" + toHex({data[i]}) + ", not 0x" +
                              toHex({kHandshakeDataFixed[i]}));
    }
}

// ----------------------------------------------------------------------------------------- channel

std::string takeName(ByteReader& in, const std::string& field)
{
    const std::size_t start = in.offset();
    std::string name = in.takePadded(kNameWidth, field);
    if (!isChannelName(name)) reject(start, field + " is " + quoted(name) + ", which is no name");
    return name;
}

Container takeContainer(ByteReader& in)
{
    Container container;
    container.name = takeName(in, "container name");

    std::size_t start = in.offset();
    const std::uint8_t change = in.takeByte("container change code");
    if (change != static_cast<std::uint8_t>(Change::Added)) {
        reject(start, "container change code is " + std::to_string(change) + ", not 1");
    }
    start = in.offset();
    if (in.takeShort("two zero bytes of a container") != 0) {
        reject(start, "the two bytes behind a container's change code are not 0x00");
    }
    start = in.offset();
    container.type = in.takeByte("container type");
    if (container.type != kContainerBit && container.type != kContainerChar) {
        reject(start, "container type is " + std::to_string(container.type) + ", neither 1 nor 2");
    }
    container.ccsid = in.takeInt("container CCSID");
    container.data = in.takeCounted("container data");
    return container;
}

Channel takeChannel(ByteReader& in)
{
    Channel channel;
    channel.name = takeName(in, "channel name");
    channel.ccsid = in.takeInt("channel CCSID");
    const std::size_t start = in.offset();
    const auto count = static_cast<std::size_t>(in.takeLength("number of containers"));
    if (count > in.remaining() / kShortestContainer) {
        reject(start, std::to_string(count) + " containers do not fit into the " +
                          std::to_string(in.remaining()) + " bytes left");
    }
    std::unordered_set<std::string> names;
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t place = in.offset();
        channel.containers.push_back(takeContainer(in));
        const std::string& name = channel.containers.back().name;
        if (!names.insert(name).second)
            reject(place, "container name is " + quoted(name) + ", which is there already");
    }
    return channel;
}

// --------------------------------------------------------------------------------------------- ECI

std::int32_t takeExtendMode(ByteReader& in)
{
    const std::size_t start = in.offset();
    const std::int32_t mode = in.takeInt("extend mode");
    const bool known = mode == kModeSingle || mode == kModeExtended || mode == kModeCommit ||
                       mode == kModeBackout;
    if (!known) reject(start, "extend mode is " + std::to_string(mode) + ", not 0, 1, 2 or 4");
    return mode;
}

// One of the two optional lengths: a flag, and behind 0xFF a length of 1 to `largest`.
std::optional<std::int32_t> takeOptionalLength(ByteReader& in, std::int32_t largest,
                                               const char* flag, const char* field)
{
    if (!in.takeFlag(flag)) return std::nullopt;
    const std::size_t start = in.offset();
    const std::int32_t length = in.takeInt(field);
    if (length < 1 || length > largest) {
        reject(start, std::string(field) + " is " + std::to_string(length) +
                          ", not 1 to the COMMAREA length " + std::to_string(largest));
    }
    return length;
}

void takeCommarea(ByteReader& in, EciRequest& request)
{
    const std::size_t start = in.offset();
    request.commareaLength = in.takeLength("COMMAREA length");
    if (request.commareaLength > kLargestCommarea) {
        reject(start, "COMMAREA length is " + std::to_string(request.commareaLength) +
                          ", not 0 to " + std::to_string(kLargestCommarea));
    }
    request.outboundLength = takeOptionalLength(in, request.commareaLength, "outbound length flag",
                                                "outbound length");
    request.inboundLength = takeOptionalLength(in, request.commareaLength, "inbound length flag",
                                               "inbound length");
    if (request.endsUnitOfWork()) return;
    const std::int32_t sent = request.outboundLength.value_or(request.commareaLength);
    request.commarea = in.takeBytes(static_cast<std::size_t>(sent), "COMMAREA");
}

void takeProgramCall(ByteReader& in, EciRequest& request)
{
    request.extendMode = takeExtendMode(in);
    request.luwToken = in.takeInt("LUW token");
    request.messageQualifier = in.takeInt("message qualifier");
    request.callbackExists = in.takeByte("callback flag");
    expectInt(in, 8, "length of the server name");
    request.server = withoutPadding(in.takeText(8, "server name"));
    request.userId = withoutPadding(in.takePadded(16, "user id"));
    request.password = unmaskPassword(in.takeCounted("password"));
    request.program = withoutPadding(in.takeText(8, "program name"));
    request.transid = in.takeText(4, "transaction id");
    request.pyxaToken = in.takeCounted("workload token");
    takeCommarea(in, request);
    if (in.takeFlag("channel flag")) request.channel = takeChannel(in);
}

std::int16_t takeTimeout(ByteReader& in)
{
    const std::size_t start = in.offset();
    const std::int16_t timeout = in.takeShort("time-out");
    if (timeout < 0) reject(start, "time-out is negative (" + std::to_string(timeout) + ")");
    return timeout;
}

Xid takeXid(ByteReader& in)
{
    Xid xid;
    xid.format = in.takeInt("XID format");
    if (xid.format == -1) return xid;
    xid.globalId = in.takeCounted("XID global id");
    xid.branchQualifier = in.takeCounted("XID branch qualifier");
    return xid;
}

std::int32_t takeCorrelator(ByteReader& in)
{
    const std::size_t start = in.offset();
    const std::int32_t correlator = in.takeInt("correlator");
    if (correlator == 0) reject(start, "correlator is 0");
    return correlator;
}

} // namespace

bool isChannelName(std::string_view name)
{
    constexpr std::string_view kAllowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                          "0123456789<>$@#/%&?!:|\"=';.-_";
    return !name.empty() && name.size() <= kNameWidth &&
           name.find_first_not_of(kAllowed) == std::string_view::npos;
}

MalformedFlow::MalformedFlow(std::size_t offset, std::string problem)
    : std::runtime_error(problem + " at byte " + std::to_string(offset)), offset_(offset),
      problem_(std::move(problem))
{
}

namespace {

std::int32_t largestBody(const FlowHeader& header, Stream kind)
{
    if (kind == Stream::Any) return kLargestBody;
    const bool isRequest = header.flowType == static_cast<std::int32_t>(FlowType::Request);
    if (!isRequest || kind == Stream::ClientBeforeHandshake) return kLargestSmallBody;
    if (header.requestType == "ECI") return kLargestBody;
    return header.requestType == "ESI" ? kLargestEsiBody : kLargestSmallBody;
}

} // namespace

std::optional<SplitFlow> splitFlow(const Bytes& stream, Stream kind)
{
    ByteReader in(stream, 0);
    SplitFlow split;
    FlowHeader& header = split.flow.header;

    if (in.remaining() < 4) return std::nullopt;
    header.eyecatcher = in.takeInt("eyecatcher");
    if (header.eyecatcher != kEyecatcher) {
        reject(0, "eyecatcher is " + inHex(header.eyecatcher) + ", not " + inHex(kEyecatcher));
    }

    if (stream.size() < kRequestTypeOffset) return std::nullopt;
    header.flowVersion = in.takeInt("flow version");
    header.flowType = in.takeInt("flow type");
    header.messageId = in.takeInt("message id");
    header.gatewayRc = in.takeInt("Gateway return code");
    const std::int32_t typeLength = in.takeInt("request type length");
    if (typeLength < 0 || typeLength > kLongestRequestType) {
        reject(kRequestTypeOffset - 4, "request type length is " + std::to_string(typeLength) +
                                           ", not 0 to " + std::to_string(kLongestRequestType));
    }
    header.requestTypeLength = typeLength;

    split.headerSize = kFixedHeaderSize + static_cast<std::size_t>(typeLength);
    if (stream.size() < split.headerSize) return std::nullopt;
    header.requestType = in.takeText(static_cast<std::size_t>(typeLength), "request type");
    header.security = in.takeByte("security");
    const std::int32_t dataLength = in.takeInt("data length");
    const std::int32_t largest = largestBody(header, kind);
    if (dataLength < 0 || dataLength > largest) {
        reject(split.headerSize - 4, "data length is " + std::to_string(dataLength) +
                                         ", not 0 to " + std::to_string(largest));
    }
    header.dataLength = dataLength;

    split.size = split.headerSize + static_cast<std::size_t>(dataLength);
    if (stream.size() < split.size) return std::nullopt;
    split.flow.body = in.takeBytes(static_cast<std::size_t>(dataLength), "body");
    return split;
}

namespace {

void checkMessageId(const FlowHeader& header, FlowType type)
{
    const std::int32_t id = header.messageId;
    if (type == FlowType::Handshake && id != kHandshakeMessageId) {
        reject(12, "message id of a handshake is " + std::to_string(id) + ", not -2");
    }
    if (type == FlowType::Close && id != kCloseMessageId) {
        reject(12, "message id of a close flow is " + std::to_string(id) + ", not -1");
    }
    if (type == FlowType::Request && id < 1) {
        reject(12, "message id of a request is " + std::to_string(id) + ", not positive");
    }
}

void checkRequestType(const FlowHeader& header, FlowType type)
{
    const std::string& name = header.requestType;
    if (type == FlowType::Request) {
        if (name != "ECI" && name != "ESI") {
            reject(kRequestTypeOffset,
                   "request type is " + quoted(name) + ", neither \"ECI\" nor \"ESI\"");
        }
    } else if (name != "BASE") {
        reject(kRequestTypeOffset, "request type is " + quoted(name) + ", not \"BASE\"");
    }
}

} // namespace

void checkClientHeader(const FlowHeader& header)
{
    if (header.flowVersion != kFlowVersion) {
        reject(4, "flow version is " + inHex(header.flowVersion) + ", not " + inHex(kFlowVersion));
    }
    const auto type = static_cast<FlowType>(header.flowType);
    if (type != FlowType::Request && type != FlowType::Handshake && type != FlowType::Close) {
        reject(8, "flow type is " + std::to_string(header.flowType) + ", not 1, 5 or 10");
    }
    checkMessageId(header, type);
    if (header.gatewayRc != 0) {
        reject(16, "Gateway return code is " + std::to_string(header.gatewayRc) + ", not 0");
    }
    checkRequestType(header, type);
    const std::size_t securityOffset = kRequestTypeOffset + header.requestType.size();
    if (header.security != 0)
        reject(securityOffset, "security is " + std::to_string(header.security) + ", not 0");
    if (type == FlowType::Close && header.dataLength.value_or(0) != 0) {
        reject(securityOffset + 1,
               "data length of a close flow is " + std::to_string(*header.dataLength) + ", not 0");
    }
}

Handshake decodeHandshake(const Bytes& body, std::size_t bodyOffset)
{
    ByteReader in(body, bodyOffset);
    Handshake handshake;
    expectFixedHandshakeData(in);
    handshake.applid = takeApplid(in, "applid");
    handshake.applidQualifier = takeApplid(in, "applid qualifier");
    in.expectEnd();
    return handshake;
}

EciRequest decodeEciRequest(const Bytes& body, std::size_t bodyOffset)
{
    ByteReader in(body, bodyOffset);
    EciRequest request;
    request.callType = in.takeInt("call type");
    switch (request.callType) {
    case kCallListSystems: request.serverNum = in.takeLength("number of systems"); break;
    case kCallProgram:
    case kCallTransaction: takeProgramCall(in, request); break;
    default:
        reject(bodyOffset, "call type is " + std::to_string(request.callType) + ", not 1, 9 or 12");
    }
    request.timeout = takeTimeout(in);
    request.isAutoMessageQualifier = in.takeByte("automatic qualifier flag");
    request.xid = takeXid(in);
    request.correlator = takeCorrelator(in);
    in.expectEnd();
    return request;
}

std::int32_t tokenOf(const Flow& request)
{
    constexpr std::size_t kBehindToken = 12;
    if (request.header.requestType != "ECI" || request.body.size() < kBehindToken) return 0;
    ByteReader in(request.body, 0);
    const std::int32_t callType = in.takeInt("call type");
    in.takeInt("extend mode");
    const std::int32_t token = in.takeInt("LUW token");
    return callType == kCallProgram || callType == kCallTransaction ? token : 0;
}

EsiRequest decodeEsiRequest(const Bytes& body, std::size_t bodyOffset)
{
    ByteReader in(body, bodyOffset);
    EsiRequest request;
    request.callType = in.takeInt("call type");
    if (request.callType != kEsiVerify && request.callType != kEsiChange) {
        reject(bodyOffset,
               "call type is " + std::to_string(request.callType) + ", neither 0 nor 1");
    }
    request.userId = in.takePadded(10, "user id");
    request.currentPassword = unmaskPassword(in.takeCounted("current password"));
    request.server = withoutPadding(in.takeText(8, "server name"));
    if (request.callType == kEsiChange)
        request.newPassword = unmaskPassword(in.takeCounted("new password"));
    in.expectEnd();
    return request;
}

std::string unmaskPassword(const Bytes& masked)
{
    std::string clear;
    clear.reserve(masked.size()); // no copy of a part stays behind
    for (const std::uint8_t byte : masked) {
        const auto before = clear.empty() ? 0xFFU : static_cast<unsigned char>(clear.back());
        clear += static_cast<char>(byte ^ before);
    }
    return clear;
}

void wipe(std::string& text)
{
    text.resize(text.capacity());
    ::explicit_bzero(text.data(), text.size());
    text.clear();
}

void wipeStack()
{
    char room[65536];
    ::explicit_bzero(room, sizeof room);
}

EsiRequest::~EsiRequest()
{
    wipe(currentPassword);
    wipe(newPassword);
}

Bytes EciRequest::commareaAsSeenByProgram() const
{
    if (endsUnitOfWork()) return {};
    Bytes seen = commarea;
    seen.resize(static_cast<std::size_t>(commareaLength), 0x00);
    return seen;
}

std::size_t EciRequest::wantedLength() const
{
    if (endsUnitOfWork()) return 0;
    return static_cast<std::size_t>(
        std::min(inboundLength.value_or(commareaLength), commareaLength));
}

EciReply EciReply::to(const EciRequest& request)
{
    EciReply reply;
    reply.callType = request.callType;
    reply.luwToken = request.luwToken;
    reply.messageQualifier = request.messageQualifier;
    return reply;
}

EciReply EciReply::withCommarea(const EciRequest& request, Bytes data)
{
    EciReply reply = to(request);
    data.resize(std::min(data.size(), request.wantedLength()));
    reply.commarea = std::move(data);
    reply.commareaLength = request.commareaLength;
    const auto length = static_cast<std::int32_t>(reply.commarea.size());
    if (length < reply.commareaLength) reply.inboundLength = length;
    return reply;
}

EciReply EciReply::abend(const EciRequest& request, std::string_view code)
{
    EciReply reply = serverError(request, kServerAbend);
    std::copy_n(code.begin(), std::min(code.size(), reply.abendCode.size()),
                reply.abendCode.begin());
    return reply;
}

EciReply EciReply::serverError(const EciRequest& request, std::int32_t vornRc)
{
    EciReply reply = to(request);
    reply.vornRc = vornRc;
    return reply;
}

EciReply EciReply::systemList(const EciRequest& request, const std::vector<SystemEntry>& systems)
{
    EciReply reply = to(request);
    const std::size_t fitting = std::min(systems.size(),
                                         static_cast<std::size_t>(request.serverNum));
    const auto end = systems.begin() + static_cast<std::ptrdiff_t>(fitting);
    reply.serverNum = static_cast<std::int32_t>(fitting);
    reply.commarea = encodeSystemEntries(std::vector<SystemEntry>(systems.begin(), end));
    reply.commareaLength = static_cast<std::int32_t>(reply.commarea.size());
    if (systems.empty()) reply.vornRc = kServerNoSystems;
    if (fitting < systems.size()) reply.vornRc = kServerMoreSystems;
    return reply;
}

} // namespace standin
