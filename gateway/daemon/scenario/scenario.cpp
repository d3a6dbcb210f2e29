#include "scenario/scenario.h"

#include <map>
#include <stdexcept>

#include "conf/section.h"

namespace scenario {

using conf::Section;
using conf::Value;

namespace {

constexpr std::size_t kLongest = 1000;
constexpr std::int64_t kMostTimes = 1000000000;
constexpr std::int64_t kLargestNumber = 2147483647;

const std::map<std::string, Deed>& deeds()
{
    static const std::map<std::string, Deed> all = {
        {"drop", Deed::Drop},   {"reset", Deed::Reset}, {"half-close", Deed::HalfClose},
        {"close", Deed::Close}, {"ping", Deed::Ping},   {"release", Deed::Release}};
    return all;
}

// The places of the texts of a value that is one or a list of them.
std::vector<const Value*> elementsOf(const Value& value)
{
    std::vector<const Value*> elements;
    if (!value.isList()) return {&value};
    for (const Value& element : value.list) elements.push_back(&element);
    if (elements.empty()) conf::complain(value, "this is an empty list");
    return elements;
}

Beginning beginningFrom(const Value& value, const std::optional<Time>& lasting)
{
    const std::string text = conf::textIn(value, "misbehave", kLongest);
    try {
        return {text, standin::parseMisbehaviour(text), lasting};
    } catch (const std::invalid_argument& refusal) {
        conf::complain(value, refusal.what());
    }
}

standin::Fault faultNamed(const Value& value)
{
    const std::string name = conf::textIn(value, "end", kLongest);
    for (const standin::MisbehaviourInfo& info : standin::misbehaviours()) {
        if (info.name == name) return info.fault;
    }
    conf::complain(value, "this is neither \"all\" nor the name of a misbehaviour; "
                          "--list-misbehaviours shows them all");
}

void readEnds(const Value& value, Step& step)
{
    for (const Value* const element : elementsOf(value)) {
        if (element->isText() && element->text == "all") {
            step.endsAll = true;
        } else {
            step.ends.push_back(faultNamed(*element));
        }
    }
}

Action actionFrom(const Value& value, int connection)
{
    const std::string text = conf::textIn(value, "do", kLongest);
    const auto found = deeds().find(text);
    if (found == deeds().end()) {
        conf::complain(value, "this is none of drop, reset, half-close, close, ping and release");
    }
    return {text, found->second, connection};
}

Step stepFrom(const Value& value)
{
    const Section section(value, "step");
    section.expectOnly({"at", "spread", "end", "misbehave", "for", "do", "connection"});
    Step step;
    step.at = conf::timeIn(section.needed("at"), "at");
    step.spread = section.time("spread").value_or(Time(0));
    const Value* const end = section.find("end");
    const Value* const misbehave = section.find("misbehave");
    const Value* const deed = section.find("do");
    const std::optional<Time> lasting = section.time("for");
    const auto connection = section.number("connection", 1, kLargestNumber);
    if (lasting && misbehave == nullptr)
        conf::complain(*section.find("for"), "for belongs to a misbehave, and there is none");
    if (connection && deed == nullptr)
        conf::complain(*section.find("connection"),
                       "connection belongs to a do; a misbehaviour has selectors of its own");
    if (end == nullptr && misbehave == nullptr && deed == nullptr)
        conf::complain(value, "nothing happens here: there is no end, misbehave or do");
    if (end != nullptr) readEnds(*end, step);
    if (misbehave != nullptr) {
        for (const Value* const element : elementsOf(*misbehave))
            step.begins.push_back(beginningFrom(*element, lasting));
    }
    if (deed != nullptr) {
        for (const Value* const element : elementsOf(*deed))
            step.actions.push_back(actionFrom(*element, static_cast<int>(connection.value_or(0))));
    }
    return step;
}

} // namespace

Scenario readScenario(const Value& file)
{
    const Section root(file, "a scenario");
    root.expectOnly({"seed", "every", "times", "step"});
    Scenario scenario;
    scenario.seed = static_cast<std::uint64_t>(root.number("seed", 0, kLargestNumber).value_or(1));
    scenario.every = root.time("every");
    if (scenario.every && scenario.every->count() == 0)
        conf::complain(*root.find("every"), "every is no time at all");
    scenario.times = root.number("times", 1, kMostTimes);
    if (scenario.times && !scenario.every)
        conf::complain(*root.find("times"), "times belongs to every, and there is none");
    for (const Value* const step : root.tables("step")) scenario.steps.push_back(stepFrom(*step));
    if (scenario.steps.empty()) conf::complain(file, "there is no [[step]]");
    return scenario;
}

std::vector<Time> timesOf(const Scenario& scenario, std::mt19937_64& chance)
{
    std::vector<Time> times;
    for (const Step& step : scenario.steps) {
        const auto room = static_cast<std::uint64_t>(step.spread.count()) + 1;
        const Time later(room > 1 ? static_cast<Time::rep>(chance() % room) : 0);
        times.push_back(step.at + later);
    }
    return times;
}

} // namespace scenario
