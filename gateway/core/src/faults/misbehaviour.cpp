// Names, arguments and selectors of misbehaviours, and their reading from text.

#include "standin/misbehaviour.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <optional>
#include <stdexcept>

#include "standin/wire.h"

namespace standin {

namespace {

// What stands behind the "=" of a name.
enum class Argument { None, Number, OptionalNumber, Count, Text, OptionalText, Hex };

// How the argument of a misbehaviour is read, told by the word that stands for it in the table.
Argument argumentOf(const MisbehaviourInfo& info)
{
    static const std::map<std::string_view, Argument> kinds = {
        {"", Argument::None},
        {"CODE", Argument::Number},
        {"[TYPE]", Argument::OptionalNumber},
        {"[ID]", Argument::OptionalNumber},
        {"N", Argument::Count},
        {"TEXT", Argument::Text},
        {"[NAME]", Argument::OptionalText},
        {"HEX", Argument::Hex},
    };
    return kinds.at(info.argument);
}

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

const MisbehaviourInfo& infoNamed(std::string_view name)
{
    for (const MisbehaviourInfo& info : misbehaviours()) {
        if (info.name == name) return info;
    }
    refuse(inQuotes(name) + " is no misbehaviour; --list-misbehaviours shows them all");
}

Misbehaviour withArgument(const MisbehaviourInfo& info, std::string_view argument)
{
    switch (argumentOf(info)) {
    case Argument::Number:
    case Argument::OptionalNumber: return {info.fault, numberFrom(argument, info.name)};
    case Argument::Count: return {info.fault, countFrom(argument, info.name)};
    case Argument::Hex: return {info.fault, fromHex(argument)};
    case Argument::Text:
    case Argument::OptionalText: return {info.fault, std::string(argument)};
    case Argument::None: break;
    }
    refuse(std::string(info.name) + " takes no argument");
}

Misbehaviour withoutArgument(const MisbehaviourInfo& info)
{
    const Argument kind = argumentOf(info);
    const bool needsNone = kind == Argument::None || kind == Argument::OptionalNumber ||
                           kind == Argument::OptionalText;
    if (needsNone) return {info.fault};
    const std::string name(info.name);
    refuse(name + " needs an argument: " + name + "=" + std::string(info.argument));
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
    const MisbehaviourInfo& info = infoNamed(name);
    return {argument ? withArgument(info, *argument) : withoutArgument(info),
            selector ? selectorFrom(*selector) : everything()};
}

const std::vector<MisbehaviourInfo>& misbehaviours()
{
    static const std::vector<MisbehaviourInfo> table = {
        {Fault::DropAtConnect, "drop-at-connect", "", "closes the connection once it is accepted"},
        {Fault::ResetAtConnect, "reset-at-connect", "",
         "resets the connection once it is accepted"},
        {Fault::NoHandshakeAnswer, "no-handshake-answer", "", "never answers the handshake"},
        {Fault::RefuseHandshake, "refuse-handshake", "CODE", "refuses the handshake with the code"},
        {Fault::CloseAtHandshake, "close-at-handshake", "", "sends a close flow at the handshake"},
        {Fault::DropAtHandshake, "drop-at-handshake", "", "closes the connection at the handshake"},
        {Fault::ResetAtHandshake, "reset-at-handshake", "",
         "resets the connection at the handshake"},
        {Fault::NoCloseAnswer, "no-close-answer", "", "never answers the client's close flow"},
        {Fault::Pieces, "pieces", "N", "sends every flow in pieces of N bytes"},
        {Fault::Hold, "hold", "", "keeps the answer until it is released"},
        {Fault::NoAnswer, "no-answer", "", "drops the request without an answer"},
        {Fault::Reverse, "reverse", "N", "collects N answers and sends them last one first"},
        {Fault::FlowError, "flow-error", "CODE", "answers with FLOW_ERROR and the code"},
        {Fault::FlowException, "flow-exception", "TEXT",
         "answers with FLOW_EXCEPTION and the text"},
        {Fault::ConnectionError, "connection-error", "CODE",
         "answers with FLOW_ERROR for message -2"},
        {Fault::Close, "close", "", "answers with a close flow"},
        {Fault::Drop, "drop", "", "closes the connection instead of answering"},
        {Fault::Reset, "reset", "", "resets the connection instead of answering"},
        {Fault::Raw, "raw", "HEX", "answers with these bytes"},
        {Fault::Ping, "ping", "", "sends a FLOW_PING before the answer"},
        {Fault::UnknownFlow, "unknown-flow", "[TYPE]",
         "sends a flow of type TYPE (99) before the answer"},
        {Fault::BadEyecatcher, "bad-eyecatcher", "", "begins the answer with \"Etag\""},
        {Fault::UnknownMessageId, "unknown-message-id", "[ID]",
         "answers under the message id ID (999999)"},
        {Fault::Duplicate, "duplicate", "", "sends the answer twice"},
        {Fault::EsiType, "esi-type", "", "gives the answer the request type \"ESI\""},
        {Fault::RequestType, "request-type", "[NAME]",
         "gives the answer the request type NAME (XYZ)"},
        {Fault::GatewayRc, "gateway-rc", "CODE", "puts the code into the header of the answer"},
        {Fault::Truncate, "truncate", "N", "sends N bytes of the answer and closes the connection"},
    };
    return table;
}

std::string_view nameOf(Fault fault)
{
    const auto& all = misbehaviours();
    return std::find_if(all.begin(), all.end(),
                        [fault](const auto& info) { return info.fault == fault; })
        ->name;
}

} // namespace standin
