// JSON that is written and not looked at again: each value is text as soon as it is given. It takes
// values as the library's objects do, json["key"] = value, each key once.
//
// Thread: any; one at a time.
#ifndef GATEWAY_JSON_LINE_H
#define GATEWAY_JSON_LINE_H

#include <charconv>
#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace call_json {

// Writes a text in quotes. What is no UTF-8 is replaced.
void appendText(std::string& line, std::string_view text);

class Line {
public:
    // Where the value of a key is put.
    class Slot {
    public:
        explicit Slot(std::string& line) : line_(line) {}

        template <typename Number, typename = std::enable_if_t<std::is_integral_v<Number>>>
        void operator=(Number number)
        {
            char digits[24];
            const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
            line_.append(digits, end);
        }
        void operator=(std::string_view text) { appendText(line_, text); }
        void operator=(const std::string& text) { appendText(line_, text); }
        void operator=(const char* text) { appendText(line_, text); }
        void operator=(const std::vector<std::string>& texts);
        void operator=(const Line& value) { value.appendTo(line_); }

    private:
        std::string& line_;
    };

    // null, until it gets a key.
    Line() = default;
    Line(std::nullptr_t) {}

    static Line array();

    // The key has nothing in it that would have to be escaped.
    Slot operator[](std::string_view key);
    void push_back(const Line& value);

    // All of it, without a line end.
    std::string text() const;
    void appendTo(std::string& line) const;

private:
    enum class Kind { Null, Object, Array };

    Kind kind_ = Kind::Null;
    std::string text_; // without its end
};

} // namespace call_json

#endif
