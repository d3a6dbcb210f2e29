#include "journal/expectation.h"

#include <algorithm>

namespace journal {

using conf::Section;
using conf::Value;

namespace {

constexpr std::int64_t kMostTimes = 1000000000;
constexpr std::int64_t kLargestCode = 2147483647;

std::string oneOf(const Value& value, const std::string& name,
                  const std::vector<std::string>& known)
{
    const std::string text = conf::textIn(value, name, 100);
    if (std::find(known.begin(), known.end(), text) != known.end()) return text;
    std::string names;
    for (const std::string& one : known) names += (names.empty() ? "\"" : ", \"") + one + "\"";
    conf::complain(value, name + " is none of " + names);
}

std::string withoutBlanks(const std::string& text)
{
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

} // namespace

Expectation::Expectation(const Value& value) : line_(value.place.line)
{
    const Section section(value, "call");
    std::vector<std::string> keys = script::CallMatch::keys();
    keys.insert(keys.end(), {"type", "answer", "times", "faults", "within"});
    section.expectOnly(keys);
    match_ = script::CallMatch::read(section);
    if (const Value* const type = section.find("type"))
        type_ = oneOf(*type, "type", {"program", "list", "verify", "change", "malformed"});
    if (const Value* const times = section.find("times")) readTimes(*times);
    if (const Value* const answer = section.find("answer")) readAnswer(*answer);
    if (const auto within = section.time("within")) within_ = within->count();
    if (const Value* const faults = section.find("faults")) {
        faults_ = faults->isList() && faults->list.empty() ? std::vector<std::string>()
                                                           : conf::textsIn(*faults, "faults", 100);
    }
}

void Expectation::readTimes(const Value& value)
{
    if (!value.isTable()) {
        least_ = most_ = conf::numberIn(value, "times", 0, kMostTimes);
        return;
    }
    const Section section(value, "times");
    section.expectOnly({"least", "most"});
    least_ = section.number("least", 0, kMostTimes).value_or(0);
    most_ = section.number("most", 0, kMostTimes).value_or(kMostTimes);
    if (least_ > most_) conf::complain(value, "least is more than most");
}

void Expectation::readAnswer(const Value& value)
{
    if (value.kind == Value::Kind::Flag) {
        isAnswered_ = value.flag;
        return;
    }
    isAnswered_ = true;
    if (!value.isTable()) {
        code_ = 0;
        commarea_ = script::DataMatch::read(value, "answer");
        return;
    }
    const Section section(value, "answer");
    section.expectOnly({"code", "abend", "gateway", "flow", "commarea", "containers"});
    code_ = section.number("code", -kLargestCode, kLargestCode);
    abend_ = section.text("abend", 4);
    gateway_ = section.number("gateway", -kLargestCode, kLargestCode);
    if (const Value* const flow = section.find("flow"))
        flow_ = oneOf(*flow, "flow", {"reply", "error", "exception", "close"});
    if (const Value* const commarea = section.find("commarea"))
        commarea_ = script::DataMatch::read(*commarea, "commarea");
    if (const Value* const containers = section.find("containers"))
        containers_ = script::containersIn(*containers);
}

bool Expectation::fits(const Entry& entry) const
{
    if (entry.type != type_ || !match_.fits(entry.request)) return false;
    if (within_ && entry.took > *within_) return false;
    if (faults_ && *faults_ != entry.faults) return false;
    return !isAnswered_ || (*isAnswered_ == entry.isAnswered && fitsAnswer(entry));
}

bool Expectation::fitsAnswer(const Entry& entry) const
{
    if (code_ && entry.code != *code_) return false;
    if (abend_ && withoutBlanks(entry.abend) != withoutBlanks(*abend_)) return false;
    if (gateway_ && entry.gateway != *gateway_) return false;
    if (flow_ && entry.flow != *flow_) return false;
    const bool hasData = entry.commarea && !entry.commarea->empty();
    if (commarea_ && !commarea_->fits(hasData ? &*entry.commarea : nullptr, script::kUsualCcsid))
        return false;
    return script::containersFit(containers_, entry.channel ? &*entry.channel : nullptr);
}

Expectations readExpectations(const Value& file)
{
    const Section root(file, "the list");
    root.expectOnly({"call", "order", "others"});
    Expectations expectations;
    expectations.inOrder = root.flag("order").value_or(true);
    expectations.othersToo = root.flag("others").value_or(false);
    for (const Value* const call : root.tables("call")) expectations.calls.emplace_back(*call);
    return expectations;
}

} // namespace journal
