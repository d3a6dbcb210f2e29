#include "replay/skeleton.h"

#include <cstdio>
#include <map>
#include <optional>

#include "log/log_text.h"
#include "standin/reply_decode.h"
#include "standin/wire.h"
#include "json/call_json.h"

namespace replay {

using call_json::Form;
using call_json::Json;
using standin::Change;
using standin::EciReply;
using standin::EciRequest;
using standin::FlowType;

namespace {

// As TOML takes it.
std::string tomlText(const std::string& text)
{
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') result += '\\';
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7F') {
            char escape[16];
            std::snprintf(escape, sizeof escape, "\\u%04X", static_cast<unsigned char>(c));
            result += escape;
        } else {
            result += c;
        }
    }
    return result + "\"";
}

// A text in which nothing is put in.
std::string withoutFields(std::string text)
{
    for (std::size_t at = text.find("${"); at != std::string::npos; at = text.find("${", at + 3))
        text.insert(at, "$");
    return text;
}

bool endsWithFill(const std::string& text)
{
    return !text.empty() && text.back() == ' ';
}

// Data that a call must have: a text may have blanks and 0x00 behind it, as the script has it.
std::string wanted(const Json& area)
{
    if (!area.contains("text")) {
        return "{ hex = \"" + area.at("hex").get<std::string>() +
               "\", length = " + std::to_string(area.at("length").get<std::size_t>()) + " }";
    }
    std::string text = area.at("text").get<std::string>();
    while (endsWithFill(text)) text.pop_back();
    return tomlText(text);
}

// Data of an answer.
std::string given(const Json& area, bool withCodePage)
{
    if (!area.contains("text")) return "{ hex = \"" + area.at("hex").get<std::string>() + "\" }";
    const std::string text = tomlText(withoutFields(area.at("text").get<std::string>()));
    if (!withCodePage) return text;
    return "{ text = " + text + ", ccsid = " + std::to_string(area.at("ccsid").get<int>()) + " }";
}

// "{ a, b }" of the parts.
std::string table(const std::vector<std::string>& parts)
{
    std::string text = "{";
    for (const std::string& part : parts) text += (text.size() > 1 ? ", " : " ") + part;
    return text + (parts.empty() ? "}" : " }");
}

std::string containersOf(const standin::Channel& channel)
{
    const Json json = call_json::channelOf(channel, Form::Either);
    std::vector<std::string> parts;
    for (std::size_t i = 0; i < channel.containers.size(); ++i) {
        const Change change = channel.containers[i].change;
        const Json& one = json.at("containers").at(i);
        if (change == Change::Unchanged) continue;
        const bool isChar = one.at("type").get<std::string>() == "char";
        parts.push_back(tomlText(one.at("name").get<std::string>()) + " = " +
                        (change == Change::Deleted ? "false" : given(one, isChar)));
    }
    return parts.empty() ? "" : table(parts);
}

std::string answerOf(const EciReply& reply, std::int32_t gatewayRc)
{
    std::vector<std::string> parts;
    if (reply.vornRc == standin::kServerAbend) {
        parts.push_back("abend = " + tomlText(log_text::printable(std::string(
                                         reply.abendCode.data(), reply.abendCode.size()))));
    } else if (reply.vornRc != 0) {
        parts.push_back("code = " + std::to_string(reply.vornRc));
    }
    if (gatewayRc != 0) parts.push_back("gateway = " + std::to_string(gatewayRc));
    if (!reply.commarea.empty()) {
        const Json area = call_json::areaOf(reply.commarea, Form::Either);
        parts.push_back(area.contains("text")
                            ? "text = " + given(area, false)
                            : "hex = \"" + area.at("hex").get<std::string>() + "\"");
    }
    const std::string containers = reply.channel ? containersOf(*reply.channel) : "";
    if (!containers.empty()) parts.push_back("containers = " + containers);
    return table(parts);
}

std::string faultFor(const standin::SplitFlow& split)
{
    if (split.flow.header.flowType == static_cast<std::int32_t>(FlowType::Error))
        return "flow-error=" + std::to_string(split.flow.header.gatewayRc);
    std::string text = log_text::printable(
        standin::decodeExceptionText(split.flow.body, split.headerSize));
    for (char& c : text) c = c == '@' ? '?' : c; // it would begin a selector
    return "flow-exception=" + text;
}

// How the call was answered, as a script has it; no answer is one too.
std::string answerTo(const EciRequest& request, const Exchange& exchange)
{
    if (exchange.answers.empty()) return table({"fault = \"no-answer\""});
    const standin::SplitFlow split = standin::splitFlow(exchange.answers.front().flow).value();
    if (split.flow.header.flowType != static_cast<std::int32_t>(FlowType::Reply))
        return table({"fault = " + tomlText(faultFor(split))});
    return answerOf(standin::decodeEciReply(split.flow.body, split.headerSize, request.extendMode),
                    split.flow.header.gatewayRc);
}

std::string conditionsFor(const EciRequest& request)
{
    Json json;
    call_json::putRequest(json, request, Form::Either);
    std::string text = "program = " + tomlText(json.at("program").get<std::string>()) + "\n";
    const bool hasArea = !request.commareaAsSeenByProgram().empty();
    text += "commarea = " + (hasArea ? wanted(json.at("commarea")) : std::string("false")) + "\n";
    if (!request.channel) return text;
    std::vector<std::string> parts;
    for (const Json& one : json.at("channel").at("containers"))
        parts.push_back(tomlText(one.at("name").get<std::string>()) + " = " + wanted(one));
    return text + "containers = " + table(parts) + "\n";
}

// Those that have the same conditions, with their answers.
struct On {
    std::string conditions;
    std::vector<std::string> answers;
};

class Script {
public:
    void take(const Exchange& exchange)
    {
        if (exchange.header.requestType != "ECI") return addOther("of passwords");
        const EciRequest request = standin::decodeEciRequest(exchange.body, exchange.bodyOffset);
        if (request.callType == standin::kCallListSystems) return addOther("for the systems");
        const std::string conditions = conditionsFor(request);
        const auto [place, isNew] = places_.try_emplace(conditions, ons_.size());
        if (isNew) ons_.push_back({conditions, {}});
        ons_[place->second].answers.push_back(answerTo(request, exchange));
    }

    std::string text() const
    {
        std::string text = "# What was recorded. Make it your own: a call that nothing here fits "
                           "goes on to the\n# gateway's own programs.\n";
        for (const auto& [what, count] : others_)
            text += "# Not here: " + std::to_string(count) + " requests " + what + ".\n";
        for (const On& on : ons_) text += "\n[[on]]\n" + on.conditions + answers(on);
        return text;
    }

private:
    void addOther(const std::string& what) { ++others_[what]; }

    static std::string answers(const On& on)
    {
        bool areSame = true;
        for (const std::string& answer : on.answers) areSame = areSame && answer == on.answers[0];
        if (areSame) return "answer = " + on.answers[0] + "\n";
        std::string text = "answers = [\n";
        for (const std::string& answer : on.answers) text += "    " + answer + ",\n";
        return text + "]\n";
    }

    std::vector<On> ons_;
    std::map<std::string, std::size_t> places_; // in ons_, by conditions
    std::map<std::string, std::size_t> others_;
};

} // namespace

std::string skeletonOf(const std::vector<Connection>& connections)
{
    Script script;
    for (const Connection& connection : connections) {
        for (const Exchange& exchange : connection.exchanges) script.take(exchange);
    }
    return script.text();
}

} // namespace replay
