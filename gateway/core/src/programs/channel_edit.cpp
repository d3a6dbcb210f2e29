#include "programs/channel_edit.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "codec/printable.h"
#include "standin/channel_changes.h"
#include "standin/wire.h"

namespace standin {

namespace {

const char* const kInstructions = "EDITS";
const char* const kError = "ERROR";
constexpr std::int32_t kErrorCcsid = 819;

constexpr std::int32_t kLargestCcsid = 65535;
constexpr std::int32_t kLargestContainer = 16 * 1024 * 1024;

// An instruction that cannot be carried out; what() says why.
class WrongInstruction : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

[[noreturn]] void refuse(const std::string& problem)
{
    throw WrongInstruction(problem);
}

std::string quoted(std::string_view text)
{
    constexpr std::size_t kShown = 40;
    return "\"" + printable(text.substr(0, kShown)) + "\"";
}

Bytes bytesOf(std::string_view text)
{
    return Bytes(text.begin(), text.end());
}

// Cuts the text up to the next separator off its front; the separator goes too.
std::string_view takeUpTo(char separator, std::string_view& text)
{
    const std::size_t length = std::min(text.find(separator), text.size());
    const std::string_view front = text.substr(0, length);
    text.remove_prefix(std::min(length + 1, text.size()));
    return front;
}

std::string_view takeWord(std::string_view& line)
{
    return takeUpTo(' ', line);
}

std::string takeName(std::string_view& line)
{
    const std::string_view name = takeWord(line);
    if (!isChannelName(name)) refuse(quoted(name) + " is no name of a container");
    return std::string(name);
}

std::int32_t takeNumber(std::string_view& line, const char* field, std::int32_t smallest,
                        std::int32_t largest)
{
    const std::string_view word = takeWord(line);
    const bool digitsOnly = word.find_first_not_of("0123456789") == std::string_view::npos;
    const bool canBeRead = digitsOnly && !word.empty() && word.size() <= 9;
    const std::int32_t number = canBeRead ? std::stoi(std::string(word)) : -1;
    if (number < smallest || number > largest) {
        refuse(std::string(field) + " " + quoted(word) + " is not a number from " +
               std::to_string(smallest) + " to " + std::to_string(largest));
    }
    return number;
}

Bytes binary(std::string_view text)
{
    try {
        return fromHex(text);
    } catch (const std::invalid_argument&) {
        refuse(quoted(text) + " is not hexadecimal");
    }
}

const Container& existing(const ChannelChanges& changes, const std::string& name)
{
    const Container* const container = changes.find(name);
    if (container == nullptr) refuse("there is no container " + quoted(name));
    return *container;
}

void expectEnd(std::string_view rest)
{
    if (!rest.empty()) refuse(quoted(rest) + " is too much");
}

// ------------------------------------------------------------------------------------ instructions

void add(ChannelChanges& changes, std::string_view line)
{
    Container container;
    container.name = takeName(line);
    const std::string_view type = takeWord(line);
    if (type == "char") {
        container.type = kContainerChar;
        container.ccsid = takeNumber(line, "CCSID", 1, kLargestCcsid);
        container.data = bytesOf(line);
    } else if (type == "bit") {
        container.data = binary(line);
    } else {
        refuse("type " + quoted(type) + " is neither char nor bit");
    }
    const std::string name = container.name;
    if (!changes.add(std::move(container)))
        refuse("there is a container " + quoted(name) + " already");
}

void remove(ChannelChanges& changes, std::string_view line)
{
    const std::string name = takeName(line);
    expectEnd(line);
    existing(changes, name);
    changes.remove(name);
}

void replace(ChannelChanges& changes, std::string_view line)
{
    const std::string name = takeName(line);
    const bool isText = existing(changes, name).type == kContainerChar;
    changes.replaceData(name, isText ? bytesOf(line) : binary(line));
}

void reverse(ChannelChanges& changes, std::string_view line)
{
    const std::string name = takeName(line);
    expectEnd(line);
    Bytes data = existing(changes, name).data;
    std::reverse(data.begin(), data.end());
    changes.replaceData(name, std::move(data));
}

void resize(ChannelChanges& changes, std::string_view line)
{
    const std::string name = takeName(line);
    const Container& container = existing(changes, name);
    const std::int32_t length = takeNumber(line, "length", 0, kLargestContainer);
    expectEnd(line);
    Bytes data = container.data;
    data.resize(static_cast<std::size_t>(length), container.type == kContainerChar ? ' ' : 0x00);
    changes.replaceData(name, std::move(data));
}

using Instruction = void (*)(ChannelChanges&, std::string_view line);

constexpr std::pair<std::string_view, Instruction> kKnown[] = {
    {"add", add},         {"delete", remove}, {"replace", replace},
    {"reverse", reverse}, {"resize", resize},
};

void carryOutLine(ChannelChanges& changes, std::string_view line)
{
    if (line.empty() || line.front() == '#') return;
    const std::string_view word = takeWord(line);
    for (const auto& [name, instruction] : kKnown) {
        if (name == word) return instruction(changes, line);
    }
    refuse(quoted(word) + " is no instruction");
}

std::string instructionsOf(const ChannelChanges& changes)
{
    const Container* const container = changes.find(kInstructions);
    if (container == nullptr) refuse("there is no container EDITS");
    if (container->type != kContainerChar) refuse("EDITS is not of characters");
    return std::string(container->data.begin(), container->data.end());
}

void carryOut(ChannelChanges& changes)
{
    const std::string instructions = instructionsOf(changes);
    std::string_view rest = instructions;
    for (int number = 1; !rest.empty(); ++number) {
        try {
            carryOutLine(changes, takeUpTo('\n', rest));
        } catch (const WrongInstruction& wrong) {
            refuse("EDITS, line " + std::to_string(number) + ": " + wrong.what());
        }
    }
}

} // namespace

Channel editChannel(const Channel& called)
{
    ChannelChanges changes(called);
    try {
        carryOut(changes);
        return changes.records();
    } catch (const WrongInstruction& wrong) {
        ChannelChanges refused(called);
        refused.put(
            {kError, Change::Added, kContainerChar, kErrorCcsid, bytesOf(wrong.what()), {}});
        return refused.records();
    }
}

} // namespace standin
