#include "exec/exec_json.h"

#include <algorithm>
#include <vector>

#include "log/log_text.h"
#include "standin/channel_changes.h"
#include "standin/misbehaviour.h"
#include "standin/wire.h"
#include "text/code_page.h"
#include "json/call_json.h"

namespace exec {

using call_json::Json;
using standin::Bytes;
using standin::EciReply;
using standin::EciRequest;

namespace {

constexpr std::int32_t kUsualCcsid = 819;

struct Data {
    Bytes bytes;
    bool isText = false;
    std::int32_t ccsid = 0;
};

void expectOnly(const Json& json, const std::vector<std::string>& keys, const char* where)
{
    if (!json.is_object()) throw BadAnswer(std::string(where) + " is no object");
    for (const auto& [key, value] : json.items()) {
        if (std::find(keys.begin(), keys.end(), key) == keys.end())
            throw BadAnswer(std::string(where) + " has a key other than " + log_text::listed(keys));
    }
}

std::string textIn(const Json& json, const std::string& name)
{
    if (!json.is_string()) throw BadAnswer(name + " is no text");
    return json.get<std::string>();
}

std::int32_t numberIn(const Json& json, const std::string& name)
{
    constexpr std::int64_t kMost = 2147483647;
    if (json.is_number_integer() &&
        !(json.is_number_unsigned() && json.get<std::uint64_t>() > kMost)) {
        const auto number = json.get<std::int64_t>();
        if (number >= -kMost && number <= kMost) return static_cast<std::int32_t>(number);
    }
    throw BadAnswer(name + " is no number of 32 bits");
}

Data dataIn(const Json& json, const std::string& name)
{
    Data data;
    data.ccsid = kUsualCcsid;
    std::string text;
    if (json.is_object()) {
        expectOnly(json, {"text", "hex", "ccsid"}, name.c_str());
        if (json.contains("text") == json.contains("hex"))
            throw BadAnswer(name + " needs either text or hex");
        if (json.contains("ccsid")) data.ccsid = numberIn(json.at("ccsid"), "ccsid");
        if (!code_page::isKnownCcsid(data.ccsid)) throw BadAnswer("a CCSID is not known");
    }
    if (json.is_object() && json.contains("hex")) {
        try {
            data.bytes = standin::fromHex(textIn(json.at("hex"), "hex"));
        } catch (const std::invalid_argument&) {
            throw BadAnswer("hex is no even number of hexadecimal digits");
        }
        return data;
    }
    data.isText = true;
    data.bytes = code_page::fromUtf8(textIn(json.is_object() ? json.at("text") : json, name),
                                     data.ccsid);
    return data;
}

void changeContainers(EciReply& reply, const Json& json, const EciRequest& request)
{
    if (!json.is_object()) throw BadAnswer("containers is no object");
    if (!request.channel) throw BadAnswer("there are containers, and the call has no channel");
    standin::ChannelChanges changes(*request.channel);
    for (const auto& [name, value] : json.items()) {
        if (!standin::isChannelName(name))
            throw BadAnswer("a name is none that a container may have");
        if (value.is_null()) {
            changes.remove(name);
            continue;
        }
        const Data data = dataIn(value, "a container");
        changes.put({name, standin::Change::Added,
                     data.isText ? standin::kContainerChar : standin::kContainerBit,
                     data.isText ? data.ccsid : 0, data.bytes, std::nullopt});
    }
    reply.channel = changes.records();
}

std::vector<std::string> faultsIn(const Json& json)
{
    std::vector<std::string> faults;
    if (!json.is_array()) {
        faults.push_back(textIn(json, "fault"));
    } else {
        for (const Json& one : json) faults.push_back(textIn(one, "fault"));
    }
    for (const std::string& fault : faults) {
        try {
            if (fault.find('@') == std::string::npos &&
                standin::strikesAtAnswers(standin::parseMisbehaviour(fault).misbehaviour.fault))
                continue;
        } catch (const std::invalid_argument&) {
        }
        throw BadAnswer("fault is no misbehaviour that strikes at answers");
    }
    return faults;
}

void setAbend(EciReply& reply, const Json& json)
{
    const std::string abend = textIn(json, "abend");
    const bool isCode = !abend.empty() && abend.size() <= 4 &&
                        std::all_of(abend.begin(), abend.end(),
                                    [](char c) { return c >= ' ' && c <= '~'; });
    if (!isCode) throw BadAnswer("abend is no code of 1 to 4 printable characters");
    reply.vornRc = standin::kServerAbend;
    reply.abendCode = {' ', ' ', ' ', ' '};
    std::copy(abend.begin(), abend.end(), reply.abendCode.begin());
}

EciReply replyFrom(const Json& json, const EciRequest& request)
{
    expectOnly(json, {"commarea", "containers", "code", "abend", "gateway", "fault"}, "the answer");
    EciReply reply = EciReply::to(request);
    if (json.contains("commarea"))
        reply = EciReply::withCommarea(request, dataIn(json.at("commarea"), "commarea").bytes);
    if (request.channel) reply.channel = standin::ChannelChanges(*request.channel).records();
    if (json.contains("containers")) changeContainers(reply, json.at("containers"), request);
    if (json.contains("code")) reply.vornRc = numberIn(json.at("code"), "code");
    if (json.contains("gateway")) reply.gatewayRc = numberIn(json.at("gateway"), "gateway");
    if (json.contains("fault")) reply.faults = faultsIn(json.at("fault"));
    if (json.contains("abend")) setAbend(reply, json.at("abend"));
    if (reply.vornRc != standin::kServerOk && !json.contains("containers")) reply.channel.reset();
    return reply;
}

} // namespace

std::string lineFor(const Call& call)
{
    Json json;
    call_json::putRequest(json, call.request, call_json::Form::Both);
    json["unit"] = call.unit;
    json["connection"] = call.connection;
    json["message"] = call.message;
    return call_json::lineOf(json) + "\n";
}

EciReply replyFrom(const std::string& line, const EciRequest& request)
{
    Json json;
    try {
        json = Json::parse(line);
    } catch (const Json::exception&) {
        throw BadAnswer("it is no JSON");
    }
    return replyFrom(json, request);
}

} // namespace exec
