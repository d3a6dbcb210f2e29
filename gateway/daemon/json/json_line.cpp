#include "json/json_line.h"

#include <nlohmann/json.hpp>

namespace call_json {

namespace {

constexpr std::size_t kUsualLength = 256;

// Whether each character may stand between quotes as it is. All are looked at, without a branch for
// each.
bool isAsItIs(std::string_view text)
{
    bool good = true;
    for (const char c : text) {
        good &= (c >= ' ') & (c <= '~') & (c != '"') & (c != '\\');
    }
    return good;
}

} // namespace

// Most texts have nothing that is to be escaped; the others are the library's business.
void appendText(std::string& line, std::string_view text)
{
    if (!isAsItIs(text)) {
        using Json = nlohmann::ordered_json;
        line += Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
        return;
    }
    line += '"';
    line += text;
    line += '"';
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
    text_ += text_.empty() ? '{' : ',';
    kind_ = Kind::Object;
    text_ += '"';
    text_ += key;
    text_ += "\":";
    return Slot(text_);
}

void Line::push_back(const Line& value)
{
    text_ += text_.empty() ? '[' : ',';
    text_ += value.text();
}

std::string Line::text() const
{
    switch (kind_) {
    case Kind::Object: return text_ + '}';
    case Kind::Array: return text_.empty() ? "[]" : text_ + ']';
    case Kind::Null: break;
    }
    return "null";
}

} // namespace call_json
