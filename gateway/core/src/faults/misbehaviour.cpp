// Misbehaviours and selectors as text.

#include "standin/misbehaviour.h"

#include <charconv>
#include <optional>
#include <stdexcept>

#include "faults/fault_table.h"
#include "standin/wire.h"

namespace standin {

namespace {

[[noreturn]] void refuse(const std::string& text)
{
    throw std::invalid_argument(text);
}

std::string inQuotes(std::string_view text)
{
    return "\"" + std::string(text) + "\"";
}

std::int32_t numberFrom(std::string_view text, std::string_view what)
{
    std::int32_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || text.empty()) {
        refuse(std::string(what) + " needs a number, not " + inQuotes(text));
    }
    return number;
}

std::int32_t countFrom(std::string_view text, std::string_view what)
{
    const std::int32_t count = numberFrom(text, what);
    if (count < 1)
        refuse(std::string(what) + " needs a number of at least 1, not " + inQuotes(text));
    return count;
}

// Cuts `text` in front of the first `mark`; nothing is behind it when the mark is not there.
std::pair<std::string_view, std::optional<std::string_view>> cut(std::string_view text,
                                                                 std::size_t mark)
{
    if (mark == std::string_view::npos) return {text, std::nullopt};
    return {text.substr(0, mark), text.substr(mark + 1)};
}

void applySelector(Selector& selector, std::string_view item)
{
    const auto [name, value] = cut(item, item.find(':'));
    if (name == "once" && !value) {
        selector.times = 1;
    } else if (name == "connection" && value) {
        selector.connection = countFrom(*value, name);
    } else if (name == "message" && value) {
        selector.messageId = countFrom(*value, name);
    } else if (name == "program" && value && !value->empty()) {
        selector.program = *value;
    } else if (name == "skip" && value) {
        selector.skip = countFrom(*value, name);
    } else if (name == "times" && value) {
        selector.times = countFrom(*value, name);
    } else if (name == "nth" && value) {
        const Selector chosen = nth(countFrom(*value, name));
        selector.skip = chosen.skip;
        selector.times = chosen.times;
    } else {
        refuse(inQuotes(item) +
               " is no selector; there are connection:N, message:ID, program:NAME, skip:N, "
               "times:N, nth:N and once");
    }
}

Selector selectorFrom(std::string_view text)
{
    Selector selector;
    std::optional<std::string_view> rest = text;
    while (rest) {
        const auto [item, behind] = cut(*rest, rest->find(','));
        applySelector(selector, item);
        rest = behind;
    }
    return selector;
}

const FaultRow& rowNamed(std::string_view name)
{
    for (const FaultRow& row : faultRows()) {
        if (row.name == name) return row;
    }
    refuse(inQuotes(name) + " is no misbehaviour; --list-misbehaviours shows them all");
}

// "50" or "50~20".
Misbehaviour timeFrom(const FaultRow& row, std::string_view argument)
{
    const auto [time, jitter] = cut(argument, argument.find('~'));
    Misbehaviour misbehaviour(row.fault, countFrom(time, row.name));
    if (jitter) misbehaviour.spread = countFrom(*jitter, "the jitter of " + std::string(row.name));
    return misbehaviour;
}

Misbehaviour withArgument(const FaultRow& row, std::string_view argument)
{
    switch (row.argument.kind) {
    case Argument::Kind::Number: return {row.fault, numberFrom(argument, row.name)};
    case Argument::Kind::Count: return {row.fault, countFrom(argument, row.name)};
    case Argument::Kind::Jitter: return timeFrom(row, argument);
    case Argument::Kind::Hex: return {row.fault, fromHex(argument)};
    case Argument::Kind::Text: return {row.fault, std::string(argument)};
    case Argument::Kind::None: break;
    }
    refuse(std::string(row.name) + " takes no argument");
}

Misbehaviour withoutArgument(const FaultRow& row)
{
    if (row.argument.kind == Argument::Kind::None || row.argument.optional) return {row.fault};
    refuse(std::string(row.name) + " needs an argument: " + formOf(row));
}

std::vector<MisbehaviourInfo> infosOfAllRows()
{
    std::vector<MisbehaviourInfo> infos;
    for (const FaultRow& row : faultRows())
        infos.push_back({row.fault, row.name, formOf(row), headingOf(row), row.sentence});
    return infos;
}

} // namespace

Selector everything()
{
    return {};
}

Selector onConnection(int number)
{
    Selector selector;
    selector.connection = number;
    return selector;
}

Selector onMessage(std::int32_t messageId)
{
    Selector selector;
    selector.messageId = messageId;
    return selector;
}

Selector onProgram(std::string program)
{
    Selector selector;
    selector.program = std::move(program);
    return selector;
}

Selector once()
{
    return nth(1);
}

Selector nth(int number)
{
    Selector selector;
    selector.skip = number - 1;
    selector.times = 1;
    return selector;
}

SelectedMisbehaviour parseMisbehaviour(std::string_view text)
{
    // The argument may be any text, so the selector begins at the last "@".
    const auto [front, selector] = cut(text, text.rfind('@'));
    const auto [name, argument] = cut(front, front.find('='));
    const FaultRow& row = rowNamed(name);
    const Selector selected = selector ? selectorFrom(*selector) : everything();
    if (row.moment == Moment::Always && (selected.messageId != 0 || !selected.program.empty()))
        refuse(std::string(row.name) + " is of a connection, and has no message or program");
    return {argument ? withArgument(row, *argument) : withoutArgument(row), selected};
}

const std::vector<MisbehaviourInfo>& misbehaviours()
{
    static const std::vector<MisbehaviourInfo> infos = infosOfAllRows();
    return infos;
}

std::string_view nameOf(Fault fault)
{
    return rowOf(fault).name;
}

bool strikesAtAnswers(Fault fault)
{
    return rowOf(fault).moment == Moment::Request || rowOf(fault).moment == Moment::Flow;
}

bool isOfTheConnection(Fault fault)
{
    return rowOf(fault).moment == Moment::Always || rowOf(fault).moment == Moment::Flow ||
           fault == Fault::Silence || fault == Fault::HalfClose;
}

} // namespace standin
