#include "conf/value.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

#include <toml++/toml.h>

namespace conf {

namespace {

constexpr std::size_t kLargestFile = 4 * 1024 * 1024;
constexpr std::size_t kMostParts = 8; // of a key with dots between
constexpr int kDeepest = 32;          // values within values

Place placeOf(const toml::source_region& region)
{
    return {std::max<std::uint32_t>(region.begin.line, 1),
            std::max<std::uint32_t>(region.begin.column, 1)};
}

// Each part of a key with dots is a table in the one before. How deep they go is bounded here: the
// parser itself does not care, and everything that walks through the tables would run out of stack.
class Dots {
public:
    explicit Dots(std::string_view text) : text_(text) {}

    void check()
    {
        while (at_ < text_.size()) {
            const char c = text_[at_];
            if (c == '"' || c == '\'') {
                passString(c);
            } else if (c == '#') {
                passUntil('\n');
            } else {
                if (c == '.' && ++dots_ >= kMostParts)
                    throw Wrong(place_,
                                "a key has more than " + std::to_string(kMostParts) + " parts");
                if (c == '\n' || c == '=' || c == ',' || c == '{' || c == '[') dots_ = 0;
                step();
            }
        }
    }

private:
    void step()
    {
        const char c = text_[at_++];
        if (c == '\n') {
            ++place_.line;
            place_.column = 1;
        } else if ((static_cast<unsigned char>(c) & 0xC0U) != 0x80U) {
            ++place_.column;
        }
    }

    void passUntil(char end)
    {
        while (at_ < text_.size() && text_[at_] != end) step();
    }

    bool isAt(std::string_view part) const { return text_.substr(at_, part.size()) == part; }

    void passString(char quote)
    {
        const std::string three(3, quote);
        const bool isLong = isAt(three);
        const std::string end = isLong ? three : std::string(1, quote);
        for (std::size_t i = 0; i < end.size(); ++i) step();
        while (at_ < text_.size() && !isAt(end)) {
            if (text_[at_] == '\n' && !isLong) return; // not closed; the parser tells
            if (text_[at_] == '\\' && quote == '"' && at_ + 1 < text_.size()) step();
            step();
        }
        for (std::size_t i = 0; i < end.size() && at_ < text_.size(); ++i) step();
        while (isLong && at_ < text_.size() && text_[at_] == quote) step();
    }

    std::string_view text_;
    std::size_t at_ = 0;
    std::size_t dots_ = 0;
    Place place_;
};

bool isEarlier(const Place& one, const Place& other)
{
    return one.line != other.line ? one.line < other.line : one.column < other.column;
}

Value valueOf(const toml::node& node, int depth);

Value tableOf(const toml::table& table, int depth)
{
    Value value;
    for (const auto& [key, node] : table)
        value.entries.push_back(
            {placeOf(key.source()), std::string(key.str()), valueOf(node, depth)});
    std::sort(value.entries.begin(), value.entries.end(), [](const Entry& one, const Entry& other) {
        return isEarlier(one.place, other.place);
    });
    return value;
}

Value valueOf(const toml::node& node, int depth)
{
    if (depth == kDeepest) throw Wrong(placeOf(node.source()), "this is too deep within others");
    Value value;
    if (const toml::table* const table = node.as_table()) {
        value = tableOf(*table, depth + 1);
    } else if (const toml::array* const array = node.as_array()) {
        value.kind = Value::Kind::List;
        for (const toml::node& element : *array) value.list.push_back(valueOf(element, depth + 1));
    } else if (const auto text = node.value_exact<std::string>()) {
        value.kind = Value::Kind::Text;
        value.text = *text;
    } else if (const auto number = node.value_exact<std::int64_t>()) {
        value.kind = Value::Kind::Number;
        value.number = *number;
        value.fraction = static_cast<double>(*number);
    } else if (const auto fraction = node.value_exact<double>()) {
        value.kind = Value::Kind::Fraction;
        value.fraction = *fraction;
    } else if (const auto flag = node.value_exact<bool>()) {
        value.kind = Value::Kind::Flag;
        value.flag = *flag;
    } else {
        value.kind = Value::Kind::Moment;
    }
    value.place = placeOf(node.source());
    return value;
}

} // namespace

Wrong::Wrong(Place place, const std::string& problem)
    : std::runtime_error("line " + std::to_string(place.line) + ", column " +
                         std::to_string(place.column) + ": " + problem),
      place_(place)
{
}

const Value* Value::find(const std::string& key) const
{
    for (const Entry& entry : entries) {
        if (entry.key == key) return &entry.value;
    }
    return nullptr;
}

std::string bytesOf(const std::string& file, std::size_t most)
{
    std::error_code unknown;
    if (std::filesystem::is_directory(file, unknown)) throw Unreadable("it is a folder");
    std::ifstream stream(file, std::ios::binary);
    if (!stream.is_open())
        throw Unreadable("it cannot be read: " + std::generic_category().message(errno));
    std::string text;
    char piece[16384];
    while (stream.read(piece, sizeof piece), stream.gcount() > 0) {
        text.append(piece, static_cast<std::size_t>(stream.gcount()));
        if (text.size() > most)
            throw Unreadable("it has more than " + std::to_string(most) + " bytes");
    }
    if (stream.bad()) throw Unreadable("it cannot be read");
    return text;
}

Value readText(const std::string& text)
{
    Dots(text).check();
    try {
        return tableOf(toml::parse(text), 0);
    } catch (const toml::parse_error& error) {
        // Its own text may quote what stands there, which may be a password.
        throw Wrong(placeOf(error.source()), "from here on this is no TOML");
    }
}

Value readFile(const std::string& file)
{
    return readText(bytesOf(file, kLargestFile));
}

} // namespace conf
