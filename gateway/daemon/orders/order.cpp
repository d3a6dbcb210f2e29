#include "orders/order.h"

#include <algorithm>
#include <map>

#include "text/code_page.h"

namespace orders {

const char* const kHeaderName = "ORDER.HEADER";
const char* const kLinesName = "ORDER.LINES";

namespace {

using standin::Bytes;
using standin::Channel;
using standin::Container;

constexpr std::int32_t kCcsidOfLastResort = 819;
constexpr std::size_t kLongestHeader = 65536;   // bytes as they came
constexpr std::size_t kLongestHeaderLine = 200; // bytes in UTF-8
constexpr std::size_t kLongestNumber = 12;
constexpr std::size_t kLongestReference = 40; // characters
constexpr std::size_t kRecordSize = 12;
constexpr std::size_t kMostLines = 999;
constexpr std::uint32_t kLargestQuantity = 9999;
constexpr std::uint32_t kWholeDiscount = 10000;

const char* const kDigits = "0123456789";
const char* const kCapitals = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
const char* const kNumberCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-";

[[noreturn]] void refuse(const std::string& problem)
{
    throw Refusal(problem);
}

[[noreturn]] void refuseField(const char* key, const std::string& value, const char* wanted)
{
    refuse(std::string(kHeaderName) + ": " + key + " \"" + value + "\" is not " + wanted);
}

bool consistsOf(const std::string& text, const char* characters)
{
    return text.find_first_not_of(characters) == std::string::npos;
}

const Container* findContainer(const Channel& channel, const char* name)
{
    const auto found = std::find_if(
        channel.containers.begin(), channel.containers.end(),
        [name](const Container& container) { return container.name == name; });
    return found == channel.containers.end() ? nullptr : &*found;
}

const Container& requiredContainer(const Channel& channel, const char* name, std::uint8_t type)
{
    const Container* const container = findContainer(channel, name);
    if (container == nullptr) refuse(std::string("there is no container ") + name);
    if (container->type != type) {
        refuse(std::string(name) +
               (type == standin::kContainerChar ? " is not of characters" : " is not binary"));
    }
    return *container;
}

// ------------------------------------------------------------------------------------------ header

// Value and line of each key.
struct Entry {
    std::string value;
    std::size_t line;
};
using Header = std::map<std::string, Entry>;

std::string headerText(const Container& container)
{
    if (container.data.size() > kLongestHeader) {
        refuse(std::string(kHeaderName) + ": " + std::to_string(container.data.size()) +
               " bytes are more than " + std::to_string(kLongestHeader));
    }
    if (!code_page::isKnownCcsid(container.ccsid)) {
        refuse(std::string(kHeaderName) + ": CCSID " + std::to_string(container.ccsid) +
               " is not known");
    }
    try {
        return code_page::toUtf8(container.data, container.ccsid);
    } catch (const code_page::ConversionError& error) {
        refuse(std::string(kHeaderName) + ": " + error.what());
    }
}

// One line feed at the end of each line, whatever it was. U+0085 is EBCDIC's new line.
std::string withLineFeeds(const std::string& text)
{
    static const std::string kEnds[] = {"\r\n", "\xC2\x85"};
    std::string plain;
    plain.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        const auto* const end = std::find_if(
            std::begin(kEnds), std::end(kEnds),
            [&](const std::string& mark) { return text.compare(at, mark.size(), mark) == 0; });
        const bool isEnd = end != std::end(kEnds);
        plain += isEnd ? '\n' : text[at];
        at += isEnd ? end->size() : 1;
    }
    return plain;
}

bool isControl(char c)
{
    return (c >= 0x00 && c < ' ') || c == 0x7F;
}

void takeHeaderLine(Header& header, const std::string& line, std::size_t number)
{
    static const char* const kKeys[] = {"order", "account", "date", "currency", "reference"};

    if (line.size() > kLongestHeaderLine) refuseLine(kHeaderName, number, "too long");
    if (std::any_of(line.begin(), line.end(), isControl))
        refuseLine(kHeaderName, number, "a control character");
    const std::size_t mark = line.find('=');
    if (mark == std::string::npos) refuseLine(kHeaderName, number, "not KEY=VALUE");
    const std::string key = line.substr(0, mark);
    if (std::find(std::begin(kKeys), std::end(kKeys), key) == std::end(kKeys))
        refuseLine(kHeaderName, number, "unknown key \"" + key + "\"");
    if (!header.emplace(key, Entry{line.substr(mark + 1), number}).second)
        refuseLine(kHeaderName, number, "\"" + key + "\" is given twice");
}

Header readHeader(const std::string& text)
{
    Header header;
    std::size_t number = 0;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        number += 1;
        if (end > at) takeHeaderLine(header, text.substr(at, end - at), number);
        at = end + 1;
    }
    return header;
}

std::string required(const Header& header, const char* key)
{
    const auto found = header.find(key);
    if (found == header.end()) refuse(std::string(kHeaderName) + ": there is no " + key);
    return found->second.value;
}

int daysIn(int month, int year)
{
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool isLeap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && isLeap ? 29 : kDays[month - 1];
}

bool isDate(const std::string& text)
{
    if (text.size() != 10 || text[4] != '-' || text[7] != '-') return false;
    const std::string digits = text.substr(0, 4) + text.substr(5, 2) + text.substr(8, 2);
    if (!consistsOf(digits, kDigits)) return false;
    const int year = std::stoi(digits.substr(0, 4));
    const int month = std::stoi(digits.substr(4, 2));
    const int day = std::stoi(digits.substr(6, 2));
    return month >= 1 && month <= 12 && day >= 1 && day <= daysIn(month, year);
}

void checkHeader(const Order& order)
{
    const bool isNumber = !order.number.empty() && order.number.size() <= kLongestNumber &&
                          consistsOf(order.number, kNumberCharacters);
    if (!isNumber) refuseField("order", order.number, "1 to 12 letters, digits and hyphens");
    if (!isDate(order.date)) refuseField("date", order.date, "a day as YYYY-MM-DD");
    if (order.currency.size() != 3 || !consistsOf(order.currency, kCapitals))
        refuseField("currency", order.currency, "three capital letters");
    if (code_page::characterCount(order.reference) > kLongestReference)
        refuseField("reference", order.reference, "at most 40 characters");
}

// ------------------------------------------------------------------------------------------- lines

std::uint32_t unsignedAt(const Bytes& bytes, std::size_t offset, std::size_t size)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < size; ++i) value = value << 8 | bytes.at(offset + i);
    return value;
}

OrderLine readLine(const Bytes& bytes, std::size_t number)
{
    const std::size_t start = (number - 1) * kRecordSize;
    OrderLine line;
    line.article = unsignedAt(bytes, start, 4);
    line.quantity = unsignedAt(bytes, start + 4, 4);
    line.discount = unsignedAt(bytes, start + 8, 2);
    const std::uint32_t reserved = unsignedAt(bytes, start + 10, 2);

    if (line.quantity < 1 || line.quantity > kLargestQuantity) {
        refuseLine(kLinesName, number,
                   "quantity " + std::to_string(line.quantity) + " is not 1 to 9999");
    }
    if (line.discount > kWholeDiscount) {
        refuseLine(kLinesName, number,
                   "discount " + std::to_string(line.discount) + " is not 0 to 10000");
    }
    if (reserved != 0) refuseLine(kLinesName, number, "the last two bytes are not 0");
    return line;
}

std::vector<OrderLine> readLines(const Bytes& bytes)
{
    if (bytes.empty() || bytes.size() % kRecordSize != 0) {
        refuse(std::string(kLinesName) + ": " + std::to_string(bytes.size()) +
               " bytes are not records of 12");
    }
    const std::size_t count = bytes.size() / kRecordSize;
    if (count > kMostLines) {
        refuse(std::string(kLinesName) + ": " + std::to_string(count) +
               " records are more than 999");
    }
    std::vector<OrderLine> lines;
    for (std::size_t number = 1; number <= count; ++number)
        lines.push_back(readLine(bytes, number));
    return lines;
}

} // namespace

void refuseLine(const char* container, std::size_t number, const std::string& problem)
{
    refuse(std::string(container) + ", line " + std::to_string(number) + ": " + problem);
}

Order readOrder(const Channel& channel)
{
    const Container& head = requiredContainer(channel, kHeaderName, standin::kContainerChar);
    const Header header = readHeader(withLineFeeds(headerText(head)));
    Order order;
    order.number = required(header, "order");
    order.account = required(header, "account");
    order.date = required(header, "date");
    order.currency = required(header, "currency");
    if (header.count("reference") != 0) order.reference = header.at("reference").value;
    checkHeader(order);
    order.lines = readLines(requiredContainer(channel, kLinesName, standin::kContainerBit).data);
    return order;
}

std::int32_t ccsidOfAnswer(const Channel& channel)
{
    const Container* const header = findContainer(channel, kHeaderName);
    const bool isUsable = header != nullptr && header->type == standin::kContainerChar &&
                          code_page::isKnownCcsid(header->ccsid);
    return isUsable ? header->ccsid : kCcsidOfLastResort;
}

} // namespace orders
