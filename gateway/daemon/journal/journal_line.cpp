#include "journal/journal_line.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "log/log_text.h"
#include "json/call_json.h"

namespace journal {

using call_json::Form;
using call_json::Json;
using call_json::Line;
using standin::CallRecord;

namespace {

template <typename Object>
void putWhatCame(Object& json, const CallRecord& call)
{
    if (call.eci && call.eci->callType == standin::kCallListSystems) {
        json["room"] = call.eci->serverNum;
    } else if (call.eci) {
        call_json::putRequest(json, *call.eci, Form::Either);
    } else if (call.esi) {
        json["user"] = call_json::validText(call.esi->userId);
        json["server"] = call_json::validText(call.esi->server);
    }
    if (!call.problem.empty()) json["problem"] = call_json::validText(call.problem);
}

template <typename Object>
Object answerOf(const CallRecord& call)
{
    if (!call.flowType && call.bytes == 0) return nullptr;
    Object json;
    json["flow"] = call.flowType ? nameOfFlow(*call.flowType) : "none";
    json["bytes"] = call.bytes;
    json["gateway"] = call.gatewayRc;
    if (!call.exception.empty()) json["exception"] = call_json::validText(call.exception);
    if (call.flowType != static_cast<std::int32_t>(standin::FlowType::Reply)) return json;
    if (call.esiReply) {
        json["code"] = call.esiReply->vornRc;
    } else if (call.eciReply) {
        const standin::EciReply& reply = *call.eciReply;
        json["code"] = reply.vornRc;
        if (reply.vornRc == standin::kServerAbend) {
            json["abend"] = call_json::validText(
                std::string(reply.abendCode.data(), reply.abendCode.size()));
        }
        json["unit"] = reply.luwToken;
        json["commarea"] = call_json::areaOf<Object>(reply.commarea, Form::Either);
        if (reply.channel)
            json["channel"] = call_json::channelOf<Object>(*reply.channel, Form::Either);
    }
    return json;
}

void readAnswer(Entry& entry, const Json& json)
{
    entry.isAnswered = true;
    entry.flow = json.at("flow").get<std::string>();
    entry.gateway = json.value("gateway", 0);
    if (json.contains("code")) entry.code = json.at("code").get<std::int32_t>();
    entry.abend = json.value("abend", std::string());
    if (json.contains("commarea")) entry.commarea = call_json::areaFrom(json.at("commarea"));
    if (json.contains("channel")) entry.channel = call_json::channelFrom(json.at("channel"));
}

} // namespace

std::string nameOfFlow(std::int32_t type)
{
    switch (static_cast<standin::FlowType>(type)) {
    case standin::FlowType::Reply: return "reply";
    case standin::FlowType::Error: return "error";
    case standin::FlowType::Exception: return "exception";
    case standin::FlowType::Ping: return "ping";
    case standin::FlowType::Close: return "close";
    case standin::FlowType::Request:
    case standin::FlowType::Handshake: break;
    }
    return std::to_string(type);
}

std::string typeOf(const CallRecord& call)
{
    if (call.eci && call.eci->callType == standin::kCallListSystems) return "list";
    if (call.eci) return "program";
    if (call.esi) return call.esi->callType == standin::kEsiVerify ? "verify" : "change";
    return "malformed";
}

template <typename Object>
Object jsonOf(const CallRecord& call)
{
    Object json;
    json["call"] = call.number;
    json["time"] = log_text::timeText(call.came);
    json["connection"] = call.connection;
    json["message"] = call.header.messageId;
    json["type"] = typeOf(call);
    putWhatCame(json, call);
    json["answer"] = answerOf<Object>(call);
    if (!call.faults.empty()) json["faults"] = call.faults;
    json["microseconds"] = call.took.count();
    return json;
}

template Json jsonOf<Json>(const CallRecord& call);
template Line jsonOf<Line>(const CallRecord& call);

std::string lineFor(const CallRecord& call)
{
    std::string line = jsonOf<Line>(call).text();
    line += '\n';
    return line;
}

std::string noteOfMissing(std::size_t count)
{
    return call_json::lineOf({{"missing", count}}) + "\n";
}

Entry entryFrom(const std::string& line)
{
    const Json json = Json::parse(line);
    Entry entry;
    entry.missing = json.value("missing", std::size_t{0});
    if (entry.missing > 0) return entry;
    entry.connection = json.at("connection").get<int>();
    entry.message = json.at("message").get<std::int32_t>();
    entry.type = json.at("type").get<std::string>();
    entry.took = json.at("microseconds").get<std::int64_t>();
    if (entry.type == "program") {
        entry.request = call_json::requestFrom(json);
    } else {
        entry.request.userId = json.value("user", std::string());
        entry.request.server = json.value("server", std::string());
    }
    if (json.contains("faults")) entry.faults = json.at("faults").get<std::vector<std::string>>();
    if (!json.at("answer").is_null()) readAnswer(entry, json.at("answer"));
    return entry;
}

std::string describe(const Entry& entry)
{
    std::string text = "connection " + std::to_string(entry.connection) + ", message " +
                       std::to_string(entry.message) + ": ";
    if (entry.type == "program") {
        text += "program " + log_text::printable(entry.request.program);
    } else {
        text += log_text::printable(entry.type);
    }
    if (!entry.request.userId.empty())
        text += ", user " + log_text::printable(entry.request.userId);
    if (!entry.isAnswered) return text + ", no answer";
    text += ", " + log_text::printable(entry.flow);
    if (entry.code) text += ", code " + std::to_string(*entry.code);
    if (!entry.abend.empty()) text += ", abend " + log_text::printable(entry.abend);
    if (entry.gateway != 0) text += ", gateway " + std::to_string(entry.gateway);
    return text;
}

} // namespace journal
