#include "conf/section.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <string_view>

#include "log/log_text.h"

namespace conf {

namespace {

struct Unit {
    std::string_view name;
    std::int64_t microseconds;
};

constexpr Unit kUnits[] = {{"us", 1}, {"ms", 1000}, {"s", 1000000}, {"min", 60000000}};
constexpr std::int64_t kLongest = 3600000000; // microseconds

std::optional<std::chrono::microseconds> timeFrom(std::string_view text)
{
    std::int64_t count = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, count);
    if (error != std::errc() || count < 0 || count > kLongest) return std::nullopt;
    const std::string_view name(stop, static_cast<std::size_t>(end - stop));
    const auto* const unit = std::find_if(std::begin(kUnits), std::end(kUnits),
                                          [&](const Unit& one) { return one.name == name; });
    if (unit == std::end(kUnits) || count > kLongest / unit->microseconds) return std::nullopt;
    return std::chrono::microseconds(count * unit->microseconds);
}

} // namespace

void complain(const Value& value, const std::string& problem)
{
    throw Wrong(value.place, problem);
}

std::string textIn(const Value& value, const std::string& name, std::size_t longest)
{
    if (!value.isText()) complain(value, name + " is no text in quotes");
    if (value.text.size() > longest)
        complain(value, name + " has more than " + std::to_string(longest) + " characters");
    return value.text;
}

std::int64_t numberIn(const Value& value, const std::string& name, std::int64_t least,
                      std::int64_t most)
{
    if (value.kind == Value::Kind::Number && value.number >= least && value.number <= most)
        return value.number;
    complain(value, name + " is not a number from " + std::to_string(least) + " to " +
                        std::to_string(most));
}

std::vector<std::string> textsIn(const Value& value, const std::string& name, std::size_t longest)
{
    if (!value.isList()) return {textIn(value, name, longest)};
    std::vector<std::string> texts;
    for (const Value& element : value.list) texts.push_back(textIn(element, name, longest));
    if (texts.empty()) complain(value, name + " is an empty list");
    return texts;
}

std::chrono::microseconds timeIn(const Value& value, const std::string& name)
{
    const auto time = value.isText() ? timeFrom(value.text) : std::nullopt;
    if (time) return *time;
    complain(value, name + " is no time such as \"250us\", \"50ms\", \"2s\" or \"1min\", up to an "
                           "hour");
}

Section::Section(const Value& value, const std::string& name) : value_(value)
{
    if (!value.isTable()) complain(value, name + " is no table");
}

void Section::expectOnly(const std::vector<std::string>& keys) const
{
    for (const Entry& entry : value_.entries) {
        if (std::find(keys.begin(), keys.end(), entry.key) != keys.end()) continue;
        throw Wrong(entry.place, "there is no such key here; there are " + log_text::listed(keys));
    }
}

const Value& Section::needed(const char* key) const
{
    const Value* const value = find(key);
    if (value == nullptr) complain(value_, std::string(key) + " is missing");
    return *value;
}

std::optional<std::string> Section::text(const char* key, std::size_t longest) const
{
    const Value* const value = find(key);
    if (value == nullptr) return std::nullopt;
    return textIn(*value, key, longest);
}

std::optional<std::int64_t> Section::number(const char* key, std::int64_t least,
                                            std::int64_t most) const
{
    const Value* const value = find(key);
    if (value == nullptr) return std::nullopt;
    return numberIn(*value, key, least, most);
}

std::optional<bool> Section::flag(const char* key) const
{
    const Value* const value = find(key);
    if (value == nullptr) return std::nullopt;
    if (value->kind != Value::Kind::Flag)
        complain(*value, std::string(key) + " is neither true nor false");
    return value->flag;
}

std::optional<std::chrono::microseconds> Section::time(const char* key) const
{
    const Value* const value = find(key);
    if (value == nullptr) return std::nullopt;
    return timeIn(*value, key);
}

std::vector<const Value*> Section::tables(const char* key) const
{
    std::vector<const Value*> found;
    const Value* const value = find(key);
    if (value == nullptr) return found;
    const std::string problem = "each " + std::string(key) + " begins with [[" + key + "]]";
    if (!value->isList()) complain(*value, problem);
    for (const Value& element : value->list) {
        if (!element.isTable()) complain(element, problem);
        found.push_back(&element);
    }
    return found;
}

} // namespace conf
