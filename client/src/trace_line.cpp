#include "trace_line.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>

namespace qpx {

namespace {

constexpr std::size_t kStamp = 21;        // "22/11/26 19:00:42:156"
constexpr std::size_t kLongest = 1 << 20; // of a line of text; what is longer is cut

constexpr std::size_t kBytesOfALine = 16;

bool digits(const std::string& text, std::size_t at, std::size_t count)
{
    if (at + count > text.size()) return false;
    return std::all_of(text.begin() + static_cast<std::ptrdiff_t>(at),
                       text.begin() + static_cast<std::ptrdiff_t>(at + count),
                       [](unsigned char c) { return std::isdigit(c) != 0; });
}

long number(const std::string& text, std::size_t at, std::size_t count)
{
    return std::strtol(text.substr(at, count).c_str(), nullptr, 10);
}

// Days since 1970 of a date of the calendar.
std::int64_t daysOf(std::int64_t year, std::int64_t month, std::int64_t day)
{
    if (month <= 2) year -= 1;
    const std::int64_t age = year / 400;
    const std::int64_t yearOfAge = year - age * 400;
    const std::int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    return age * 146097 + yearOfAge * 365 + yearOfAge / 4 - yearOfAge / 100 + dayOfYear - 719468;
}

bool readStamp(const std::string& text, std::size_t at, TraceLine& line)
{
    static constexpr std::array<std::size_t, 6> kTwoDigits = {0, 3, 6, 9, 12, 15};
    static const char kBetween[] = "//"
                                   " "
                                   ":::";

    for (std::size_t i = 0; i < kTwoDigits.size(); ++i) {
        if (!digits(text, at + kTwoDigits[i], 2)) return false;
        if (text[at + kTwoDigits[i] + 2] != kBetween[i]) return false;
    }
    if (!digits(text, at + 18, 3)) return false;
    const long month = number(text, at + 3, 2);
    const long day = number(text, at, 2);
    if (month < 1 || month > 12 || day < 1 || day > 31) return false;
    line.time = daysOf(2000 + number(text, at + 6, 2), month, day);
    line.time = line.time * 24 + number(text, at + 9, 2);
    line.time = line.time * 60 + number(text, at + 12, 2);
    line.time = line.time * 60 + number(text, at + 15, 2);
    line.time = line.time * 1000 + number(text, at + 18, 3);
    return true;
}

// What is in front of a message: it begins a stamp before this place, at " [0x". Gives the length
// from there, 0 if it is none.
std::size_t readPrefix(const std::string& text, std::size_t at, TraceLine& line)
{
    int length = 0;
    char type[7] = {};
    char process[17] = {};
    char thread[17] = {};

    if (at < kStamp || !readStamp(text, at - kStamp, line)) return 0;
    if (std::sscanf(text.c_str() + at, " [0x%16[0-9A-F],0x%16[0-9A-F]] [%4d] %6c%n", process,
                    thread, &line.point, type, &length) != 4 ||
        length == 0)
        return 0;
    const auto messageAt = at + static_cast<std::size_t>(length);
    if (messageAt >= text.size() || text[messageAt] != ' ') return 0;
    line.process = std::strtoul(process, nullptr, 16);
    line.thread = std::strtoul(thread, nullptr, 16);
    line.type = type;
    line.type.erase(line.type.find_last_not_of(' ') + 1);
    return static_cast<std::size_t>(length) + 1;
}

// Where the next line's prefix begins from this place on, npos if there is none.
std::size_t findPrefix(const std::string& text, std::size_t from, TraceLine& line,
                       std::size_t& messageAt)
{
    for (std::size_t at = text.find(" [0x", from); at != std::string::npos;
         at = text.find(" [0x", at + 1)) {
        if (at < from + kStamp) continue;
        const std::size_t length = readPrefix(text, at, line);
        if (length == 0) continue;
        messageAt = at + length;
        return at - kStamp;
    }
    return std::string::npos;
}

// Nothing that a terminal would take for a command.
std::string withoutControls(std::string text)
{
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '.';
    return text;
}

bool startsWith(const std::string& text, const char* beginning)
{
    return text.compare(0, std::strlen(beginning), beginning) == 0;
}

// What QPX_dumpState writes has neither time nor thread.
bool isOfAState(const std::string& text)
{
    for (const char* const beginning :
         {"qpxclient state dump:", "Gateway Token List ", "--------", "Total number of ",
          "Channel and container dump", "Channel list entry ", "   Container list entry "})
        if (startsWith(text, beginning)) return true;
    return text.empty();
}

// These lines end without a line feed.
bool endsWithoutLineFeed(int point)
{
    static constexpr std::array<int, 9> kPoints = {1813, 1815, 2036, 2039, 2042,
                                                   2046, 2047, 3021, 3022};
    return std::find(kPoints.begin(), kPoints.end(), point) != kPoints.end();
}

// ---- Passwords ----------------------------------------------------------------------------------

constexpr char kHidden = '*';

void hide(std::string& bytes, std::size_t from, std::size_t count)
{
    if (from >= bytes.size()) return;
    const std::size_t end = from + std::min(count, bytes.size() - from);
    std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(from),
              bytes.begin() + static_cast<std::ptrdiff_t>(end), kHidden);
}

// A number of a flow; what has not come counts as 0.
std::size_t numberAt(const std::string& bytes, std::size_t at)
{
    std::size_t value = 0;
    for (std::size_t i = at; i < at + 4; ++i)
        value = value << 8U | (i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0U);
    return value;
}

// Hides a password behind its length, and gives the place behind it. One that is too long to be
// true hides all that follows.
std::size_t hideWithLength(std::string& bytes, std::size_t at)
{
    constexpr std::size_t kMostOfAPassword = 256;
    const std::size_t length = numberAt(bytes, at);
    const bool plausible = length <= kMostOfAPassword;
    hide(bytes, at + 4, plausible ? length : bytes.size());
    return plausible ? at + 4 + length : bytes.size();
}

void hideInFlow(std::string& bytes)
{
    constexpr std::size_t kRequest = 1;
    const std::size_t typeLength = numberAt(bytes, 20);
    if (numberAt(bytes, 8) != kRequest) return;
    if (typeLength > 6) return hide(bytes, 24, bytes.size());
    const std::string type = bytes.substr(std::min<std::size_t>(24, bytes.size()), typeLength);
    const std::size_t body = 24 + typeLength + 5;
    if (type == "ESI") {
        const std::size_t behind = hideWithLength(bytes, body + 14);
        if (numberAt(bytes, body) != 0) hideWithLength(bytes, behind + 8);
    } else if (numberAt(bytes, body) != 9) {
        hideWithLength(bytes, body + 45);
    }
}

} // namespace

void hidePasswords(TraceLine& line)
{
    constexpr std::size_t kPasswordOfRecord = 26;
    constexpr std::size_t kLengthOfIt = 16;

    switch (line.point) {
    case 1504:
    case 1505:
    case 1513:
    case 1515: {
        const std::size_t from = std::max(kPasswordOfRecord, line.offset);
        const std::size_t end = kPasswordOfRecord + kLengthOfIt;
        if (from < end) hide(line.bytes, from - line.offset, end - from);
        break;
    }
    case 2526:
        if (line.offset != 0)
            hide(line.bytes, 0, line.bytes.size());
        else if (startsWith(line.bytes, "Gate"))
            hideInFlow(line.bytes);
        break;
    default: break;
    }
}

std::string TraceLine::behind(const std::string& text, const char* end) const
{
    std::size_t at = message.find(text);
    if (at == std::string::npos) return "";
    at += text.size();
    const std::size_t length = std::min(message.find_first_of(end, at), message.size()) - at;
    return message.substr(at, length);
}

std::string timeText(std::int64_t time)
{
    const std::int64_t days = time / 86400000;
    const auto rest = static_cast<long>(time % 86400000);
    std::int64_t z = days + 719468;
    const std::int64_t age = z / 146097;
    z -= age * 146097;
    const std::int64_t years = (z - z / 1460 + z / 36524 - z / 146096) / 365;
    const std::int64_t day = z - (365 * years + years / 4 - years / 100);
    const std::int64_t month = (5 * day + 2) / 153;
    char text[80];
    std::snprintf(text, sizeof text, "%04ld-%02ld-%02ldT%02ld:%02ld:%02ld.%03ld",
                  static_cast<long>(years + age * 400 + (month >= 10 ? 1 : 0)),
                  static_cast<long>(month + (month < 10 ? 3 : -9)),
                  static_cast<long>(day - (153 * month + 2) / 5 + 1), rest / 3600000,
                  rest / 60000 % 60, rest / 1000 % 60, rest % 1000);
    return text;
}

std::string threadText(unsigned long thread)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%08lX", thread);
    return text;
}

std::vector<std::string> dumpOf(const TraceLine& line)
{
    std::vector<std::string> lines;
    for (std::size_t i = 0; i < line.addresses.size(); ++i) {
        const std::string part = line.bytes.substr(std::min(i * kBytesOfALine, line.bytes.size()),
                                                   kBytesOfALine);
        std::string hex;
        std::string characters;
        for (std::size_t k = 0; k < part.size(); ++k) {
            char two[3];
            const auto byte = static_cast<unsigned char>(part[k]);
            std::snprintf(two, sizeof two, "%02X", byte);
            hex += (k > 0 && k % 4 == 0 ? " " : "") + std::string(two);
            characters += byte >= 0x20 && byte < 0x7f ? part[k] : '.';
        }
        hex.resize(kBytesOfALine * 2 + 3, ' ');
        lines.push_back(line.addresses[i] + ": " + hex + " : " + characters);
    }
    return lines;
}

// ---- The text -----------------------------------------------------------------------------------

void TraceText::feed(const char* text, std::size_t length)
{
    const char* const end = text + length;
    while (text != end) {
        const char* const feed = std::find(text, end, '\n');
        if (rest_.size() < kLongest)
            rest_.append(text, std::min<std::size_t>(static_cast<std::size_t>(feed - text),
                                                     kLongest - rest_.size()));
        if (feed == end) return;
        std::string whole;
        whole.swap(rest_);
        takeText(std::move(whole), true);
        text = feed + 1;
    }
}

void TraceText::settle()
{
    if (hasLine_ && lineHasEnd_ && rest_.empty()) complete();
}

void TraceText::finish()
{
    if (!rest_.empty()) {
        takeText(rest_, false);
        rest_.clear();
        findings_.cutOff = !(hasLine_ && endsWithoutLineFeed(line_.point));
    }
    if (hasLine_) complete();
}

bool TraceText::next(TraceLine& line)
{
    if (ready_.empty()) return false;
    line = std::move(ready_.front());
    ready_.pop_front();
    return true;
}

void TraceText::complete()
{
    hidePasswords(line_);
    ready_.push_back(std::move(line_));
    line_ = {};
    hasLine_ = false;
    findings_.lines += 1;
}

// Deliberate: a line that another was written behind ends where that begins.
void TraceText::takeText(std::string text, bool hasEnd)
{
    TraceLine found;
    std::size_t messageAt = 0;
    number_ += 1;
    if (!text.empty() && text.back() == '\r') text.pop_back();
    std::size_t at = findPrefix(text, 0, found, messageAt);
    if (at != 0) takeOther(text.substr(0, at));
    while (at != std::string::npos) {
        if (hasLine_) complete();
        line_ = found;
        hasLine_ = true;
        inDump_ = false;
        const std::size_t from = messageAt;
        at = findPrefix(text, from, found, messageAt);
        line_.message = withoutControls(
            text.substr(from, at == std::string::npos ? at : at - from));
        lineHasEnd_ = at == std::string::npos && hasEnd;
    }
}

void TraceText::takeOther(const std::string& text)
{
    if (isOfAState(text) || takeHead(text) || (hasLine_ && takeDump(text))) return;
    findings_.foreign += 1;
    if (findings_.firstForeign == 0) findings_.firstForeign = number_;
}

bool TraceText::takeHead(const std::string& text)
{
    unsigned long long lost = 0;
    if (!startsWith(text, "*** ")) return false;
    if (std::sscanf(text.c_str(), "*** %llu bytes of trace lost", &lost) == 1 &&
        text.find(" bytes of trace lost ***") != std::string::npos) {
        findings_.lostBytes += lost;
        return true;
    }
    int level = 0;
    if (std::sscanf(text.c_str(), "*** Trace Level = %d", &level) == 1) {
        const std::size_t bits = text.rfind("-bit ***");
        if (bits == std::string::npos || bits < 2) return false;
        findings_.level = level;
        findings_.bits = static_cast<int>(number(text, bits - 2, 2));
        return true;
    }
    return text.find(" DLL trace V") != std::string::npos;
}

bool TraceText::takeDump(const std::string& text)
{
    unsigned long truncation = 0;
    unsigned long offset = 0;
    if (std::sscanf(text.c_str(), "Data truncation size=%lu, offset=%lu", &truncation, &offset) ==
        2) {
        line_.offset = offset;
        inDump_ = true;
        return true;
    }
    const std::size_t colon = text.find(": ");
    if (!inDump_ || !startsWith(text, "0x") || colon == std::string::npos) return false;
    std::string bytes;
    for (std::size_t at = colon + 2; at + 1 < text.size() && bytes.size() < kBytesOfALine;) {
        if (text[at] == ' ') {
            at += 1;
            continue;
        }
        if (text[at] == ':' || std::isxdigit(static_cast<unsigned char>(text[at])) == 0 ||
            std::isxdigit(static_cast<unsigned char>(text[at + 1])) == 0)
            break;
        bytes += static_cast<char>(std::strtol(text.substr(at, 2).c_str(), nullptr, 16));
        at += 2;
    }
    if (bytes.empty()) return false;
    line_.addresses.push_back(withoutControls(text.substr(0, colon)));
    line_.bytes += bytes;
    return true;
}

} // namespace qpx
