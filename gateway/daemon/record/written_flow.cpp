#include "record/written_flow.h"

#include <string.h>

#include <algorithm>
#include <string>

#include "standin/reply_decode.h"
#include "standin/wipe.h"
#include "json/base64.h"

namespace record {

using call_json::Form;
using call_json::Json;
using standin::Bytes;
using standin::EciReply;
using standin::EciRequest;
using standin::EsiRequest;
using standin::Flow;
using standin::FlowType;
using standin::MalformedFlow;
using standin::SplitFlow;

namespace {

// Where the counted passwords stand in the bodies of requests.
constexpr std::size_t kEciPassword = 45;
constexpr std::size_t kEsiPassword = 14;
constexpr std::size_t kFromThereToTheNewOne = 12; // an empty password and the server name

constexpr std::size_t kMostAsked = 65536; // requests of a connection that wait for an answer

FlowType typeOf(const Flow& flow)
{
    return static_cast<FlowType>(flow.header.flowType);
}

std::string nameOfType(std::int32_t type)
{
    switch (static_cast<FlowType>(type)) {
    case FlowType::Request: return "request";
    case FlowType::Reply: return "reply";
    case FlowType::Error: return "error";
    case FlowType::Handshake: return "handshake";
    case FlowType::Exception: return "exception";
    case FlowType::Ping: return "ping";
    case FlowType::Close: return "close";
    }
    return std::to_string(type);
}

// A request whose clear passwords are gone with it.
struct Eci {
    explicit Eci(const SplitFlow& split)
        : request(standin::decodeEciRequest(split.flow.body, split.headerSize))
    {
    }
    ~Eci() { standin::wipe(request.password); }
    Eci(const Eci&) = delete;
    Eci& operator=(const Eci&) = delete;

    EciRequest request;
};

void emptyCounted(Bytes& body, std::size_t at)
{
    const auto field = body.begin() + static_cast<std::ptrdiff_t>(at);
    std::size_t length = 0;
    for (auto byte = field; byte != field + 4; ++byte) length = length << 8U | *byte;
    std::fill(field, field + 4, std::uint8_t{0});
    const auto rest = field + 4 + static_cast<std::ptrdiff_t>(length);
    const auto stale = std::move(rest, body.end(), field + 4);
    ::explicit_bzero(&*field + (stale - field), static_cast<std::size_t>(body.end() - stale));
    body.erase(stale, body.end());
}

// The flow is a well-formed request.
Flow requestWithoutPasswords(Flow flow)
{
    if (flow.header.requestType == "ESI") {
        const bool isChange = flow.body[3] == standin::kEsiChange;
        emptyCounted(flow.body, kEsiPassword);
        if (isChange) emptyCounted(flow.body, kEsiPassword + kFromThereToTheNewOne);
    } else if (flow.body[3] != standin::kCallListSystems) {
        emptyCounted(flow.body, kEciPassword);
    }
    flow.header.dataLength.reset();
    return flow;
}

void checkFromApplication(const SplitFlow& split)
{
    standin::checkClientHeader(split.flow.header);
    if (typeOf(split.flow) == FlowType::Handshake)
        standin::decodeHandshake(split.flow.body, split.headerSize);
    if (typeOf(split.flow) != FlowType::Request) return;
    if (split.flow.header.requestType == "ECI") {
        const Eci checked(split);
    } else {
        const EsiRequest checked = standin::decodeEsiRequest(split.flow.body, split.headerSize);
    }
}

// What applications send may come back from a Gateway that is none.
bool isOfAGateway(const Flow& flow)
{
    switch (typeOf(flow)) {
    case FlowType::Reply:
    case FlowType::Error:
    case FlowType::Exception:
    case FlowType::Ping: return true;
    case FlowType::Handshake:
    case FlowType::Close: return flow.body.empty();
    case FlowType::Request: break;
    }
    return false;
}

bool isRequestType(const std::string& text)
{
    return text == "ECI" || text == "ESI" || text == "BASE";
}

void putHandshake(Json& json, const SplitFlow& split)
{
    if (split.flow.body.empty()) return;
    const standin::Handshake handshake = standin::decodeHandshake(split.flow.body,
                                                                  split.headerSize);
    json["applid"] = call_json::validText(handshake.applid);
    json["qualifier"] = call_json::validText(handshake.applidQualifier);
}

void putEsiRequest(Json& json, const SplitFlow& split)
{
    const EsiRequest request = standin::decodeEsiRequest(split.flow.body, split.headerSize);
    json["type"] = request.callType == standin::kEsiVerify ? "verify" : "change";
    json["user"] = call_json::validText(request.userId);
    json["server"] = call_json::validText(request.server);
}

} // namespace

const char* nameOf(Side side)
{
    return side == Side::Application ? "application" : "gateway";
}

std::optional<Flow> withoutPasswords(const SplitFlow& split, Side from)
{
    if (from == Side::Gateway) {
        if (isOfAGateway(split.flow)) return split.flow;
        return std::nullopt;
    }
    try {
        checkFromApplication(split);
    } catch (const MalformedFlow&) {
        return std::nullopt;
    }
    if (typeOf(split.flow) != FlowType::Request) return split.flow;
    return requestWithoutPasswords(split.flow);
}

void Fields::put(Json& json, const SplitFlow& split, Side from)
{
    const standin::FlowHeader& header = split.flow.header;
    const std::optional<Flow> written = withoutPasswords(split, from);
    json["flow"] = nameOfType(header.flowType);
    json["message"] = header.messageId;
    if (isRequestType(header.requestType)) json["kind"] = header.requestType;
    if (from == Side::Gateway) json["gateway"] = header.gatewayRc;
    if (!written) {
        json["withheld"] = split.size;
        return;
    }
    try {
        if (typeOf(split.flow) == FlowType::Handshake) putHandshake(json, split);
        if (typeOf(split.flow) == FlowType::Request) putRequest(json, split);
        if (typeOf(split.flow) == FlowType::Reply) putReply(json, split);
        if (typeOf(split.flow) == FlowType::Exception)
            json["exception"] = call_json::validText(
                standin::decodeExceptionText(split.flow.body, split.headerSize));
    } catch (const MalformedFlow& malformed) {
        json["malformed"] = malformed.offset(); // of a Gateway; others have been withheld
    }
    json["payload"] = base64::encode(standin::encodeFlow(*written));
}

void Fields::putRequest(Json& json, const SplitFlow& split)
{
    if (split.flow.header.requestType == "ECI") {
        putEciRequest(json, split);
    } else {
        putEsiRequest(json, split);
    }
}

void Fields::putEciRequest(Json& json, const SplitFlow& split)
{
    const Eci eci(split);
    const EciRequest& request = eci.request;
    if (asked_.size() < kMostAsked)
        asked_[split.flow.header.messageId] = {request.callType, request.extendMode};
    if (request.callType == standin::kCallListSystems) {
        json["type"] = "list";
        json["room"] = request.serverNum;
    } else {
        json["type"] = "program";
        call_json::putRequest(json, request, Form::Either);
    }
}

void Fields::putReply(Json& json, const SplitFlow& split)
{
    if (split.flow.header.requestType == "ESI") {
        json["code"] = standin::decodeEsiReply(split.flow.body, split.headerSize).vornRc;
    } else {
        putEciReply(json, split);
    }
}

void Fields::putEciReply(Json& json, const SplitFlow& split)
{
    std::int32_t extendMode = standin::kModeSingle;
    const auto asked = asked_.find(split.flow.header.messageId);
    if (asked != asked_.end()) {
        extendMode = asked->second.extendMode;
        asked_.erase(asked);
    }
    const EciReply reply = standin::decodeEciReply(split.flow.body, split.headerSize, extendMode);
    json["code"] = reply.vornRc;
    if (reply.callType == standin::kCallListSystems) {
        json["systems"] = reply.serverNum;
        return;
    }
    if (reply.vornRc == standin::kServerAbend) {
        json["abend"] = call_json::validText(
            std::string(reply.abendCode.data(), reply.abendCode.size()));
    }
    json["unit"] = reply.luwToken;
    json["commarea"] = call_json::areaOf(reply.commarea, Form::Either);
    if (reply.channel) json["channel"] = call_json::channelOf(*reply.channel, Form::Either);
}

} // namespace record
