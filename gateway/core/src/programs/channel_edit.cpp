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

// What one call may do.
constexpr std::size_t kMostInstructions = 1000;
constexpr std::size_t kMostContainers = 10000;
constexpr std::size_t kMostBytesWritten = 2 * std::size_t{kLargestContainer};

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

// A channel that is being changed, and what that has cost so far.
class Edit {
public:
    explicit Edit(const Channel& called) : changes_(called) {}

    ChannelChanges& changes() { return changes_; }

    void countInstruction()
    {
        if (++instructions_ > kMostInstructions)
            refuse("more than " + std::to_string(kMostInstructions) + " instructions");
    }

    // To be called in front of the writing.
    void countBytes(std::size_t count)
    {
        written_ += count;
        if (written_ > kMostBytesWritten)
            refuse("more than " + std::to_string(kMostBytesWritten) + " bytes in all");
    }

private:
    ChannelChanges changes_;
    std::size_t instructions_ = 0;
    std::size_t written_ = 0;
};

void expectEnd(std::string_view rest)
{
    if (!rest.empty()) refuse(quoted(rest) + " is too much");
}

// ------------------------------------------------------------------------------------ instructions

void add(Edit& edit, std::string_view line)
{
    Container container;
    container.name = takeName(line);
    const std::string_view type = takeWord(line);
    if (type == "char") {
        container.type = kContainerChar;
        container.ccsid = takeNumber(line, "CCSID", 1, kLargestCcsid);
        edit.countBytes(line.size());
        container.data = bytesOf(line);
    } else if (type == "bit") {
        edit.countBytes(line.size());
        container.data = binary(line);
    } else {
        refuse("type " + quoted(type) + " is neither char nor bit");
    }
    const std::string name = container.name;
    if (!edit.changes().add(std::move(container)))
        refuse("there is a container " + quoted(name) + " already");
}

void remove(Edit& edit, std::string_view line)
{
    const std::string name = takeName(line);
    expectEnd(line);
    existing(edit.changes(), name);
    edit.changes().remove(name);
}

void replace(Edit& edit, std::string_view line)
{
    const std::string name = takeName(line);
    const bool isText = existing(edit.changes(), name).type == kContainerChar;
    edit.countBytes(line.size());
    edit.changes().replaceData(name, isText ? bytesOf(line) : binary(line));
}

void reverse(Edit& edit, std::string_view line)
{
    const std::string name = takeName(line);
    expectEnd(line);
    const Container& container = existing(edit.changes(), name);
    edit.countBytes(container.data.size());
    Bytes data = container.data;
    std::reverse(data.begin(), data.end());
    edit.changes().replaceData(name, std::move(data));
}

void resize(Edit& edit, std::string_view line)
{
    const std::string name = takeName(line);
    const Container& container = existing(edit.changes(), name);
    const auto length = static_cast<std::size_t>(takeNumber(line, "length", 0, kLargestContainer));
    expectEnd(line);
    edit.countBytes(std::max(length, container.data.size()));
    Bytes data = container.data;
    data.resize(length, container.type == kContainerChar ? ' ' : 0x00);
    edit.changes().replaceData(name, std::move(data));
}

using Instruction = void (*)(Edit&, std::string_view line);

constexpr std::pair<std::string_view, Instruction> kKnown[] = {
    {"add", add},         {"delete", remove}, {"replace", replace},
    {"reverse", reverse}, {"resize", resize},
};

void carryOutLine(Edit& edit, std::string_view line)
{
    if (line.empty() || line.front() == '#') return;
    edit.countInstruction();
    const std::string_view word = takeWord(line);
    for (const auto& [name, instruction] : kKnown) {
        if (name == word) return instruction(edit, line);
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

void carryOut(Edit& edit)
{
    if (edit.changes().records().containers.size() > kMostContainers)
        refuse("more than " + std::to_string(kMostContainers) + " containers");
    const std::string instructions = instructionsOf(edit.changes());
    std::string_view rest = instructions;
    for (int number = 1; !rest.empty(); ++number) {
        try {
            carryOutLine(edit, takeUpTo('\n', rest));
        } catch (const WrongInstruction& wrong) {
            refuse("EDITS, line " + std::to_string(number) + ": " + wrong.what());
        }
    }
}

} // namespace

Channel editChannel(const Channel& called)
{
    try {
        Edit edit(called);
        carryOut(edit);
        return edit.changes().records();
    } catch (const WrongInstruction& wrong) {
        ChannelChanges refused(called);
        refused.put(
            {kError, Change::Added, kContainerChar, kErrorCcsid, bytesOf(wrong.what()), {}});
        return refused.records();
    }
}

} // namespace standin
