#include "script/content.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <stdexcept>

#include "conf/section.h"
#include "script/data_match.h"
#include "text/code_page.h"

namespace script {

using conf::Section;
using conf::Value;
using standin::Bytes;
using standin::EciRequest;

namespace {

constexpr std::size_t kLongestText = 1024 * 1024;
constexpr std::size_t kMostBytes = 16 * 1024 * 1024;
constexpr std::int64_t kMostDigits = 18;

const char* const kFields =
    "program, server, transaction, user, channel, connection, message, unit, commarea, "
    "container:NAME, call, counter:NAME, connection.NAME, unit.NAME and time";

std::vector<std::string> cutAtColons(const std::string& words)
{
    std::vector<std::string> parts(1);
    for (const char c : words) {
        if (c == ':') {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    return parts;
}

std::optional<std::size_t> countFrom(const std::string& text, std::size_t most)
{
    std::size_t count = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, count);
    if (error != std::errc() || stop != end || count > most) return std::nullopt;
    return count;
}

// A piece of some data: an offset and a length, from the words behind a name.
struct Cut {
    std::size_t at = 0;
    std::size_t length = kMostBytes;

    Bytes of(const Bytes& data) const
    {
        const std::size_t first = std::min(at, data.size());
        const std::size_t count = std::min(length, data.size() - first);
        const auto begin = data.begin() + static_cast<std::ptrdiff_t>(first);
        return Bytes(begin, begin + static_cast<std::ptrdiff_t>(count));
    }
};

// Both complain when the words are no cut, or no number of digits.
Cut cutFrom(const Value& value, const std::vector<std::string>& words, std::size_t first)
{
    Cut cut;
    if (words.size() > first + 2) conf::complain(value, "a field has too many colons");
    for (std::size_t i = first; i < words.size(); ++i) {
        const std::optional<std::size_t> count = countFrom(words[i], kMostBytes);
        if (!count) conf::complain(value, "an offset or a length in a field is no number");
        (i == first ? cut.at : cut.length) = *count;
    }
    return cut;
}

std::size_t digitsFrom(const Value& value, const std::vector<std::string>& words, std::size_t first)
{
    if (words.size() <= first) return 1;
    const auto digits = countFrom(words[first], kMostDigits);
    if (!digits || words.size() > first + 1)
        conf::complain(value, "a field has no number of digits from 0 to 18 behind its colon");
    return *digits;
}

std::string withDigits(std::uint64_t number, std::size_t digits)
{
    const std::string text = std::to_string(number);
    return text.size() < digits ? std::string(digits - text.size(), '0') + text : text;
}

std::string timeNow(const std::string& format)
{
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    std::ostringstream text;
    text << std::put_time(&local, format.c_str());
    return text.str();
}

std::string valueOf(const State& state, const std::string& name)
{
    const auto found = state.find(name);
    return found == state.end() ? "" : found->second;
}

Bytes bytesOf(const std::string& text)
{
    return Bytes(text.begin(), text.end());
}

Bytes containerOf(const EciRequest& request, const std::string& name)
{
    if (!request.channel) return {};
    for (const standin::Container& container : request.channel->containers) {
        if (container.name == name) return container.data;
    }
    return {};
}

std::string withoutPadding(const std::string& text)
{
    const std::size_t end = text.find_last_not_of(std::string(" \0", 2));
    return end == std::string::npos ? "" : text.substr(0, end + 1);
}

const std::map<std::string, std::function<std::string(const Situation&)>>& plainFields()
{
    using S = const Situation&;
    static const std::map<std::string, std::function<std::string(S)>> fields = {
        {"program", [](S s) { return withoutPadding(s.request.program); }},
        {"server", [](S s) { return withoutPadding(s.request.server); }},
        {"transaction", [](S s) { return withoutPadding(s.request.transid); }},
        {"user", [](S s) { return withoutPadding(s.request.userId); }},
        {"channel", [](S s) { return s.request.channel ? s.request.channel->name : ""; }},
    };
    return fields;
}

} // namespace

// --------------------------------------------------------------------------------------- Template

Template::Template(const Value& value, const std::string& name, std::int32_t ccsid) : ccsid_(ccsid)
{
    const std::string text = conf::textIn(value, name, kLongestText);
    std::string plain;
    const auto endPlain = [&] {
        if (!plain.empty()) parts_.emplace_back(code_page::fromUtf8(plain, ccsid_));
        plain.clear();
    };
    for (std::size_t at = 0; at < text.size();) {
        if (text.compare(at, 3, "$${") == 0) {
            plain += "${";
            at += 3;
        } else if (text.compare(at, 2, "${") == 0) {
            const std::size_t end = text.find('}', at);
            if (end == std::string::npos) conf::complain(value, "a field ${ has no end");
            endPlain();
            parts_.emplace_back(fieldFrom(value, text.substr(at + 2, end - at - 2)));
            at = end + 1;
        } else {
            plain += text[at++];
        }
    }
    endPlain();
}

Template::Field Template::fieldFrom(const Value& value, const std::string& text) const
{
    using S = const Situation&;
    const std::vector<std::string> words = cutAtColons(text);
    const std::string& name = words.front();
    const auto plain = plainFields().find(name);
    if (plain != plainFields().end() && words.size() == 1) return {nullptr, plain->second};
    if (name == "commarea") {
        const Cut cut = cutFrom(value, words, 1);
        return {[cut](S s) { return cut.of(s.request.commareaAsSeenByProgram()); }, nullptr};
    }
    if (name == "container" && words.size() > 1 && standin::isChannelName(words[1])) {
        const Cut cut = cutFrom(value, words, 2);
        const std::string container = words[1];
        return {[cut, container](S s) { return cut.of(containerOf(s.request, container)); },
                nullptr};
    }
    if (name == "time") {
        const std::string format = words.size() == 1 ? "%Y-%m-%dT%H:%M:%S" : text.substr(5);
        if (format.size() > 100) conf::complain(value, "a field has too long a format of time");
        return {nullptr, [format](S) { return timeNow(format); }};
    }
    if (name == "counter" && words.size() > 1 && !words[1].empty()) {
        const std::size_t digits = digitsFrom(value, words, 2);
        const std::string counter = words[1];
        return {nullptr,
                [digits, counter](S s) { return withDigits(++s.counters[counter], digits); }};
    }
    if (name == "call" || name == "connection" || name == "message" || name == "unit") {
        const std::size_t digits = digitsFrom(value, words, 1);
        if (name == "call") return {nullptr, [digits](S s) { return withDigits(s.call, digits); }};
        if (name == "unit") {
            return {nullptr, [digits](S s) {
                        return withDigits(static_cast<std::uint64_t>(s.unit), digits);
                    }};
        }
        const bool isMessage = name == "message";
        return {nullptr, [digits, isMessage](S s) {
                    return withDigits(
                        static_cast<std::uint64_t>(isMessage ? s.message : s.connection), digits);
                }};
    }
    for (const bool ofUnit : {false, true}) {
        const std::string front = ofUnit ? "unit." : "connection.";
        if (text.compare(0, front.size(), front) != 0 || text.size() == front.size()) continue;
        const std::string variable = text.substr(front.size());
        return {[ofUnit, variable](S s) {
                    return bytesOf(valueOf(ofUnit ? s.ofUnit : s.ofConnection, variable));
                },
                nullptr};
    }
    conf::complain(value, std::string("there is no such field; there are ") + kFields);
}

Bytes Template::fill(const Situation& situation) const
{
    Bytes filled;
    for (const Part& part : parts_) {
        Bytes made;
        const Bytes* more = std::get_if<Bytes>(&part);
        if (const Field* const field = std::get_if<Field>(&part)) {
            made = field->bytes ? field->bytes(situation)
                                : code_page::fromUtf8(field->text(situation), ccsid_);
            more = &made;
        }
        if (more->size() > kMostBytes - filled.size())
            throw std::length_error("an answer of the script is larger than 16 MB");
        filled.insert(filled.end(), more->begin(), more->end());
    }
    return filled;
}

// ---------------------------------------------------------------------------------------- Content

bool Content::isIn(const Value& table)
{
    return table.find("text") != nullptr || table.find("hex") != nullptr ||
           table.find("file") != nullptr;
}

Content Content::read(const Value& value, const std::string& name, const std::string& folder,
                      const std::vector<std::string>& others)
{
    if (value.isText()) return Content(Template(value, name, kUsualCcsid), kUsualCcsid);
    const Section section(value, name);
    std::vector<std::string> keys = {"text", "hex", "file", "ccsid", "length"};
    keys.insert(keys.end(), others.begin(), others.end());
    section.expectOnly(keys);
    const Value* const text = section.find("text");
    const Value* const hex = section.find("hex");
    const Value* const file = section.find("file");
    if ((text != nullptr ? 1 : 0) + (hex != nullptr ? 1 : 0) + (file != nullptr ? 1 : 0) != 1)
        conf::complain(value, name + " needs one of text, hex and file");

    const std::int32_t ccsid = ccsidIn(value).value_or(kUsualCcsid);
    Content content(Bytes(), ccsid);
    if (text != nullptr) {
        content.data_ = Template(*text, "text", ccsid);
    } else if (hex != nullptr) {
        content.data_ = hexIn(*hex, "hex");
    } else {
        const std::filesystem::path path = std::filesystem::path(folder) /
                                           conf::textIn(*file, "file", 4096);
        try {
            content.data_ = bytesOf(conf::bytesOf(path.string(), kMostBytes));
        } catch (const conf::Unreadable& failure) {
            conf::complain(*file, std::string("this file: ") + failure.what());
        }
    }
    content.length_ = static_cast<std::size_t>(
        section.number("length", 0, static_cast<std::int64_t>(kMostBytes)).value_or(0));
    return content;
}

Bytes Content::fill(const Situation& situation) const
{
    Bytes data;
    Bytes filler = {0};
    if (const Template* const text = std::get_if<Template>(&data_)) {
        data = text->fill(situation);
        filler = code_page::fromUtf8(" ", ccsid_);
    } else {
        data = std::get<Bytes>(data_);
    }
    while (data.size() + filler.size() <= length_)
        data.insert(data.end(), filler.begin(), filler.end());
    return data;
}

} // namespace script
