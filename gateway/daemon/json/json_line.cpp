#include "json/json_line.h"

#include <algorithm>
#include <array>

#include <nlohmann/json.hpp>

namespace call_json {

namespace {

constexpr std::size_t kUsualLength = 256;

// The characters that do not stand between quotes as they are.
constexpr std::array<bool, 256> escapedCharacters()
{
    std::array<bool, 256> escaped{};
    for (std::size_t c = 0; c < escaped.size(); ++c)
        escaped[c] = c < ' ' || c > '~' || c == '"' || c == '\\';
    return escaped;
}

constexpr std::array<bool, 256> kEscaped = escapedCharacters();

// All are looked at, without a branch for each.
bool isAsItIs(std::string_view text)
{
    unsigned escaped = 0;
    for (const char c : text) escaped |= kEscaped[static_cast<unsigned char>(c)];
    return escaped == 0;
}

// Puts a text between two characters or more at the end of a line, which grows once.
void appendBetween(std::string& line, std::string_view before, std::string_view text,
                   std::string_view behind)
{
    const std::size_t size = line.size();
    line.resize(size + before.size() + text.size() + behind.size());
    char* end = line.data() + size;
    end = std::copy(before.begin(), before.end(), end);
    end = std::copy(text.begin(), text.end(), end);
    std::copy(behind.begin(), behind.end(), end);
}

} // namespace

// Most texts have nothing that is to be escaped; the others are the library's business.
void appendText(std::string& line, std::string_view text)
{
    if (isAsItIs(text)) return appendBetween(line, "\"", text, "\"");
    using Json = nlohmann::ordered_json;
    line += Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

void Line::Slot::operator=(const std::vector<std::string>& texts)
{
    char before = '[';
    for (const std::string& text : texts) {
        line_ += before;
        appendText(line_, text);
        before = ',';
    }
    line_ += before == '[' ? "[]" : "]";
}

Line Line::array()
{
    Line line;
    line.kind_ = Kind::Array;
    return line;
}

Line::Slot Line::operator[](std::string_view key)
{
    if (text_.empty()) text_.reserve(kUsualLength);
    appendBetween(text_, text_.empty() ? "{\"" : ",\"", key, "\":");
    kind_ = Kind::Object;
    return Slot(text_);
}

void Line::push_back(const Line& value)
{
    text_ += text_.empty() ? '[' : ',';
    value.appendTo(text_);
}

std::string Line::text() const
{
    std::string text;
    appendTo(text);
    return text;
}

void Line::appendTo(std::string& line) const
{
    switch (kind_) {
    case Kind::Object: return appendBetween(line, "", text_, "}");
    case Kind::Array: return appendBetween(line, text_.empty() ? "[" : "", text_, "]");
    case Kind::Null: break;
    }
    line += "null";
}

} // namespace call_json
