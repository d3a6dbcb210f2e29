#include "script/data_match.h"

#include <algorithm>
#include <stdexcept>

#include "conf/section.h"
#include "script/pattern.h"
#include "standin/wire.h"
#include "text/code_page.h"

namespace script {

using conf::Section;
using conf::Value;
using standin::Bytes;

namespace {

constexpr std::size_t kLongestText = 1024 * 1024;
constexpr std::int64_t kLargestOffset = 16 * 1024 * 1024;

bool isPadding(std::uint8_t byte, const Bytes& blank)
{
    return byte == 0 || std::find(blank.begin(), blank.end(), byte) != blank.end();
}

// What text is converted from and to; data whose CCSID says nothing is taken as usual.
std::int32_t inEffect(const std::optional<std::int32_t>& given, std::int32_t ccsid)
{
    if (given) return *given;
    return ccsid != kUsualCcsid && code_page::isKnownCcsid(ccsid) ? ccsid : kUsualCcsid;
}

} // namespace

std::optional<std::int32_t> ccsidIn(const Value& table)
{
    const Value* const value = table.find("ccsid");
    if (value == nullptr) return std::nullopt;
    const auto ccsid = static_cast<std::int32_t>(conf::numberIn(*value, "ccsid", 1, 65535));
    if (!code_page::isKnownCcsid(ccsid)) conf::complain(*value, "this CCSID is not known");
    return ccsid;
}

Bytes hexIn(const Value& value, const std::string& name)
{
    try {
        return standin::fromHex(conf::textIn(value, name, kLongestText));
    } catch (const std::invalid_argument&) {
        conf::complain(value, name + " is no even number of hexadecimal digits");
    }
}

DataMatch DataMatch::read(const Value& value, const std::string& name)
{
    DataMatch match;
    if (!value.isList()) {
        match.add(value, name);
        return match;
    }
    if (value.list.empty()) conf::complain(value, name + " is an empty list");
    for (const Value& element : value.list) match.add(element, name);
    return match;
}

void DataMatch::add(const Value& value, const std::string& name)
{
    Item item;
    if (value.isText()) {
        item.text = conf::textIn(value, name, kLongestText);
    } else if (value.kind == Value::Kind::Flag) {
        item.isThere = value.flag;
    } else if (value.isTable()) {
        item = itemFrom(value, name);
    } else {
        conf::complain(value, name + " is neither a text, a table, true nor false");
    }
    items_.push_back(std::move(item));
}

DataMatch::Item DataMatch::itemFrom(const Value& table, const std::string& name)
{
    const Section section(table, name);
    section.expectOnly({"text", "hex", "pattern", "at", "length", "ccsid"});
    Item item;
    item.ccsid = ccsidIn(table);
    item.length = section.number("length", 0, kLargestOffset);
    item.text = section.text("text", kLongestText);
    if (const Value* const hex = section.find("hex")) item.bytes = hexIn(*hex, "hex");
    if (const Value* const pattern = section.find("pattern")) {
        item.pattern = Pattern::read(conf::textIn(*pattern, "pattern", kLongestText), *pattern);
    }
    const int kinds = (item.text ? 1 : 0) + (item.bytes ? 1 : 0) + (item.pattern ? 1 : 0);
    if (kinds > 1) conf::complain(table, name + " has more than one of text, hex and pattern");
    if (kinds == 0 && !item.length)
        conf::complain(table, name + " has none of text, hex, pattern and length");
    if (kinds == 0 && section.find("at") != nullptr)
        conf::complain(*section.find("at"), "at says nothing without text, hex or pattern");
    item.at = static_cast<std::size_t>(section.number("at", 0, kLargestOffset).value_or(0));
    return item;
}

bool DataMatch::fits(const Bytes* data, std::int32_t ccsid) const
{
    return std::all_of(items_.begin(), items_.end(), [&](const Item& item) {
        if (item.isThere) return *item.isThere == (data != nullptr);
        return data != nullptr && fits(item, *data, ccsid);
    });
}

bool DataMatch::fits(const Item& item, const Bytes& data, std::int32_t ccsid)
{
    if (item.length && static_cast<std::size_t>(*item.length) != data.size()) return false;
    if (item.at && *item.at > data.size()) return false;
    if (item.pattern) return hasPattern(item, data, inEffect(item.ccsid, ccsid));
    if (item.text) return hasText(item, data, inEffect(item.ccsid, ccsid));
    if (!item.bytes) return true;
    const std::size_t at = item.at.value_or(0);
    return data.size() - at >= item.bytes->size() &&
           std::equal(item.bytes->begin(), item.bytes->end(),
                      data.begin() + static_cast<std::ptrdiff_t>(at));
}

bool DataMatch::hasText(const Item& item, const Bytes& data, std::int32_t ccsid)
{
    auto found = item.encoded.find(ccsid);
    if (found == item.encoded.end())
        found = item.encoded.emplace(ccsid, code_page::fromUtf8(*item.text, ccsid)).first;
    const Bytes& text = found->second;
    const std::size_t at = item.at.value_or(0);
    if (data.size() - at < text.size()) return false;
    const auto first = data.begin() + static_cast<std::ptrdiff_t>(at);
    if (!std::equal(text.begin(), text.end(), first)) return false;
    if (item.at) return true;
    const Bytes blank = code_page::fromUtf8(" ", ccsid);
    return std::all_of(first + static_cast<std::ptrdiff_t>(text.size()), data.end(),
                       [&](std::uint8_t byte) { return isPadding(byte, blank); });
}

bool DataMatch::hasPattern(const Item& item, const Bytes& data, std::int32_t ccsid)
{
    std::string text;
    try {
        const auto first = data.begin() + static_cast<std::ptrdiff_t>(item.at.value_or(0));
        text = code_page::toUtf8(Bytes(first, data.end()), ccsid);
    } catch (const code_page::ConversionError&) {
        return false;
    }
    const std::size_t end = text.find_last_not_of(std::string(" \0", 2));
    text.resize(end == std::string::npos ? 0 : end + 1);
    return item.pattern->isIn(text);
}

} // namespace script
