#include "control/fault_json.h"

#include <algorithm>
#include <limits>

#include "log/log_text.h"

namespace control {

using call_json::Json;
using standin::MisbehaviourInfo;
using standin::Selector;

namespace {

const std::vector<std::string> kSelectorKeys = {"connection", "message", "program", "skip",
                                                "times"};

const MisbehaviourInfo& infoOf(standin::Fault fault)
{
    for (const MisbehaviourInfo& info : standin::misbehaviours()) {
        if (info.fault == fault) return info;
    }
    throw std::logic_error("a fault without a name");
}

std::string hexOf(const standin::Bytes& bytes)
{
    static const char* const digits = "0123456789abcdef";
    std::string hex;
    for (const std::uint8_t byte : bytes) {
        hex += digits[byte >> 4U];
        hex += digits[byte & 15U];
    }
    return hex;
}

std::string argumentOf(const standin::Misbehaviour& misbehaviour)
{
    const std::string& form = infoOf(misbehaviour.fault).form;
    if (form.find('=') == std::string::npos) return {};
    if (!misbehaviour.text.empty()) return misbehaviour.text;
    if (!misbehaviour.bytes.empty()) return hexOf(misbehaviour.bytes);
    const bool isOptional = form.find("[=") != std::string::npos;
    if (isOptional && misbehaviour.number == 0) return {};
    const std::string number = std::to_string(misbehaviour.number);
    return misbehaviour.spread == 0 ? number : number + "~" + std::to_string(misbehaviour.spread);
}

} // namespace

Json knownFaults()
{
    Json known = Json::array();
    for (const MisbehaviourInfo& info : standin::misbehaviours()) {
        known.push_back({{"name", std::string(info.name)},
                         {"form", info.form},
                         {"heading", std::string(info.heading)},
                         {"sentence", std::string(info.sentence)}});
    }
    return known;
}

Json faultJson(const standin::MisbehaviourInForce& fault)
{
    const Selector& selector = fault.selected.selector;
    Json json;
    json["number"] = fault.number;
    json["name"] = std::string(standin::nameOf(fault.selected.misbehaviour.fault));
    json["argument"] = call_json::validText(argumentOf(fault.selected.misbehaviour));
    json["connection"] = selector.connection;
    json["message"] = selector.messageId;
    json["program"] = call_json::validText(selector.program);
    json["skip"] = selector.skip;
    json["times"] = selector.times;
    json["seen"] = fault.seen;
    json["struck"] = fault.struck;
    return json;
}

void checkMembers(const Json& json, const std::vector<std::string>& known)
{
    if (!json.is_object())
        throw BadRequest("the body is no JSON object; there may be " + log_text::listed(known));
    for (const auto& [name, value] : json.items()) {
        if (std::find(known.begin(), known.end(), name) != known.end()) continue;
        throw BadRequest("there is no member \"" + log_text::printable(name.substr(0, 40)) +
                         "\"; there may be " + log_text::listed(known));
    }
}

std::int64_t numberIn(const Json& json, const std::string& name, std::int64_t least,
                      std::int64_t otherwise)
{
    const auto found = json.find(name);
    if (found == json.end()) return otherwise;
    constexpr std::int64_t most = std::numeric_limits<std::int32_t>::max();
    const bool isNumber = found->is_number_integer() &&
                          !(found->is_number_unsigned() && found->get<std::uint64_t>() > most);
    const std::int64_t number = isNumber ? found->get<std::int64_t>() : least - 1;
    if (number >= least && number <= most) return number;
    throw BadRequest(name + " is no whole number from " + std::to_string(least) + " to " +
                     std::to_string(most));
}

Selector selectorFrom(const Json& json, const std::vector<std::string>& others)
{
    std::vector<std::string> known = others;
    known.insert(known.end(), kSelectorKeys.begin(), kSelectorKeys.end());
    checkMembers(json, known);
    Selector selector;
    selector.connection = static_cast<int>(numberIn(json, "connection", 0, 0));
    selector.messageId = static_cast<std::int32_t>(numberIn(json, "message", 0, 0));
    selector.skip = static_cast<int>(numberIn(json, "skip", 0, 0));
    selector.times = static_cast<int>(numberIn(json, "times", 0, 0));
    const auto program = json.find("program");
    if (program == json.end()) return selector;
    if (!program->is_string() || program->get_ref<const std::string&>().size() > 8)
        throw BadRequest("program is no text of at most 8 characters");
    selector.program = program->get<std::string>();
    return selector;
}

standin::SelectedMisbehaviour faultFrom(const Json& json)
{
    const Selector selector = selectorFrom(json, {"fault"});
    const auto fault = json.find("fault");
    if (fault == json.end() || !fault->is_string()) {
        throw BadRequest("fault is missing; it is a text as --misbehave takes it, such as "
                         "\"drop@program:ECHO,nth:3\"; GET /api/faults shows them all");
    }
    try {
        standin::SelectedMisbehaviour selected = standin::parseMisbehaviour(
            fault->get_ref<const std::string&>());
        const bool hasBoth = fault->get_ref<const std::string&>().find('@') != std::string::npos &&
                             json.size() > 1;
        if (hasBoth)
            throw BadRequest("there is a selector in fault, and another one beside it; give one");
        if (json.size() > 1) selected.selector = selector;
        return selected;
    } catch (const std::invalid_argument& refusal) {
        std::string problem = refusal.what();
        const std::string option = "--list-misbehaviours";
        const std::size_t at = problem.find("; " + option);
        if (at != std::string::npos) problem.replace(at + 2, option.size(), "GET /api/faults");
        throw BadRequest(call_json::validText(problem));
    }
}

} // namespace control
