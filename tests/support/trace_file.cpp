#include "support/trace_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "qpxclient.h"
#include "support/call_in_thread.h"

namespace support {

namespace {

bool isDecimal(char c)
{
    return c >= '0' && c <= '9';
}

bool isHexadecimal(char c)
{
    return isDecimal(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool standsAt(const std::string& text, std::size_t at, const std::string& part)
{
    return text.compare(at, part.size(), part) == 0;
}

constexpr std::size_t nowhere = std::string::npos;

// Where the part of the pattern from patternAt on, found at textAt, ends in the text. With
// toTheEnd only an end at the end of the text counts.
std::size_t matchFrom(const std::string& pattern, std::size_t patternAt, const std::string& text,
                      std::size_t textAt, bool toTheEnd)
{
    while (patternAt < pattern.size()) {
        if (standsAt(pattern, patternAt, "<ptr>")) {
            patternAt += 5;
            if (standsAt(text, textAt, "(nil)")) {
                textAt += 5;
                continue;
            }
            if (!standsAt(text, textAt, "0x")) return nowhere;
            std::size_t first = textAt += 2;
            while (textAt < text.size() && isHexadecimal(text[textAt])) textAt += 1;
            if (textAt == first) return nowhere;
        } else if (standsAt(pattern, patternAt, "<int>")) {
            patternAt += 5;
            if (textAt < text.size() && text[textAt] == '-') textAt += 1;
            std::size_t first = textAt;
            while (textAt < text.size() && isDecimal(text[textAt])) textAt += 1;
            if (textAt == first) return nowhere;
        } else if (standsAt(pattern, patternAt, "<hex>")) {
            patternAt += 5;
            std::size_t first = textAt;
            while (textAt < text.size() && isHexadecimal(text[textAt])) textAt += 1;
            if (textAt == first) return nowhere;
        } else if (standsAt(pattern, patternAt, "<any>")) {
            patternAt += 5;
            for (std::size_t rest = textAt;; ++rest) {
                std::size_t end = matchFrom(pattern, patternAt, text, rest, toTheEnd);
                if (end != nowhere) return end;
                if (rest >= text.size() || text[rest] == '\n') return nowhere;
            }
        } else {
            if (textAt >= text.size() || text[textAt] != pattern[patternAt]) return nowhere;
            patternAt += 1;
            textAt += 1;
        }
    }
    return toTheEnd && textAt != text.size() ? nowhere : textAt;
}

// "15/11/26 17:21:12:045 [0x0000ABCD,0x0000ABCD] [1029] ENTRY  "
constexpr std::size_t stampSize = 21;
constexpr std::size_t idSize = 10;
constexpr std::size_t prefixSize = stampSize + 1 + 1 + idSize + 1 + idSize + 2 + 6 + 1 + 6 + 1;

bool looksLike(const std::string& text, std::size_t at, const char* shape)
{
    for (const char* c = shape; *c != '\0'; ++c, ++at) {
        if (at >= text.size()) return false;
        bool same = *c == 'd'   ? isDecimal(text[at])
                    : *c == 'h' ? isHexadecimal(text[at])
                    : *c == '?' ? text[at] != '\n'
                                : text[at] == *c;
        if (!same) return false;
    }
    return true;
}

bool prefixStandsAt(const std::string& text, std::size_t at)
{
    return looksLike(text, at, "dd/dd/dd dd:dd:dd:ddd [0xhhhhhhhh,0xhhhhhhhh] [dddd] ?????? ");
}

std::size_t nextPrefix(const std::string& text, std::size_t from)
{
    for (std::size_t at = from; at + prefixSize <= text.size(); ++at)
        if (isDecimal(text[at]) && prefixStandsAt(text, at)) return at;
    return text.size();
}

std::string withoutTrailingBlanks(std::string word)
{
    while (!word.empty() && word.back() == ' ') word.pop_back();
    return word;
}

TraceRecord recordAt(const std::string& text, std::size_t at, std::size_t end)
{
    TraceRecord record;
    record.stamp = text.substr(at, stampSize);
    at += stampSize + 2;
    record.process = text.substr(at, idSize);
    at += idSize + 1;
    record.thread = text.substr(at, idSize);
    at += idSize + 3;
    record.point = std::stoi(text.substr(at, 4));
    at += 6;
    record.type = withoutTrailingBlanks(text.substr(at, 6));
    at += 7;
    std::size_t lineEnd = text.find('\n', at);
    if (lineEnd == nowhere || lineEnd >= end) {
        record.message = text.substr(at, end - at);
    } else {
        record.message = text.substr(at, lineEnd - at);
        record.body = text.substr(lineEnd + 1, end - lineEnd - 1);
    }
    return record;
}

// Tells when something is written to a file.
class FileWatch {
public:
    explicit FileWatch(const std::string& path) : descriptor_(inotify_init1(IN_CLOEXEC))
    {
        if (descriptor_ < 0 || inotify_add_watch(descriptor_, path.c_str(), IN_MODIFY) < 0)
            throw std::runtime_error("cannot watch " + path);
    }
    ~FileWatch() { close(descriptor_); }
    FileWatch(const FileWatch&) = delete;
    FileWatch& operator=(const FileWatch&) = delete;

    bool await(std::chrono::steady_clock::time_point limit) const
    {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            limit - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd wait{descriptor_, POLLIN, 0};
        if (poll(&wait, 1, static_cast<int>(left.count())) <= 0) return false;
        char events[4096];
        return read(descriptor_, events, sizeof events) > 0;
    }

private:
    int descriptor_;
};

bool awaitInFile(const std::string& path, std::size_t start, const std::string& pattern)
{
    FileWatch watch(path);
    auto limit = std::chrono::steady_clock::now() + generousLimit;
    for (;;) {
        std::string text = readFile(path);
        if (text.size() > start && contains(text.substr(start), pattern)) return true;
        if (!watch.await(limit)) return false;
    }
}

} // namespace

std::string shown(const volatile void* address)
{
    char text[32];
    std::snprintf(text, sizeof text, "%p", const_cast<const void*>(address));
    return text;
}

bool matches(const std::string& pattern, const std::string& text)
{
    return matchFrom(pattern, 0, text, 0, true) != nowhere;
}

bool contains(const std::string& text, const std::string& pattern)
{
    return countOf(text, pattern) > 0;
}

int countOf(const std::string& text, const std::string& pattern)
{
    int found = 0;
    for (std::size_t at = 0; at <= text.size();) {
        std::size_t end = matchFrom(pattern, 0, text, at, false);
        if (end == nowhere) {
            at += 1;
            continue;
        }
        found += 1;
        at = end > at ? end : at + 1;
    }
    return found;
}

std::vector<TraceRecord> parseTrace(const std::string& text)
{
    std::vector<TraceRecord> records;
    std::size_t at = nextPrefix(text, 0);
    while (at < text.size()) {
        std::size_t end = nextPrefix(text, at + prefixSize);
        records.push_back(recordAt(text, at, end));
        at = end;
    }
    return records;
}

bool wroteIn(const std::string& text, int point, const std::string& type,
             const std::string& message)
{
    for (const TraceRecord& record : parseTrace(text)) {
        if (record.point != point) continue;
        if (!type.empty() && record.type != type) continue;
        if (matches(message, record.message)) return true;
    }
    return false;
}

std::string readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream contents;
    contents << file.rdbuf();
    return contents.str();
}

bool awaitTextIn(const std::string& path, const std::string& pattern)
{
    return awaitInFile(path, 0, pattern);
}

// ---- TemporaryDirectory ------------------------------------------------------------------------

TemporaryDirectory::TemporaryDirectory()
{
    path_ = (std::filesystem::temp_directory_path() / ("qpxclient-test-" + std::string(6, 'X')))
                .string();
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary directory");
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

// ---- TraceFile ---------------------------------------------------------------------------------

TraceFile::TraceFile(int level) : path_(directory_.file("trace"))
{
    if (QPX_setAPITraceFile(path_.data()) != QPX_OK)
        throw std::runtime_error("the trace cannot be sent to " + path_);
    if (QPX_setAPITraceLevel(level) != QPX_OK)
        throw std::runtime_error("not a trace level: " + std::to_string(level));
    forget();
}

TraceFile::~TraceFile()
{
    QPX_setAPITraceLevel(0);
    QPX_setAPITraceFile(nullptr);
}

std::string TraceFile::wholeText() const
{
    return readFile(path_);
}

std::string TraceFile::text() const
{
    return wholeText().substr(start_);
}

std::vector<std::string> TraceFile::lines() const
{
    std::vector<std::string> all;
    std::istringstream stream(text());
    for (std::string line; std::getline(stream, line);) all.push_back(line);
    return all;
}

std::vector<TraceRecord> TraceFile::records() const
{
    return parseTrace(text());
}

std::vector<TraceRecord> TraceFile::ownRecords() const
{
    char thread[16];
    std::snprintf(thread, sizeof thread, "0x%8.8X", static_cast<unsigned int>(pthread_self()));
    std::vector<TraceRecord> own;
    for (const TraceRecord& record : records())
        if (record.thread == thread) own.push_back(record);
    return own;
}

std::vector<std::string> TraceFile::messages() const
{
    std::vector<std::string> all;
    for (const TraceRecord& record : records()) all.push_back(record.message);
    return all;
}

std::vector<std::string> TraceFile::messages(int point) const
{
    std::vector<std::string> all;
    for (const TraceRecord& record : records())
        if (record.point == point) all.push_back(record.message);
    return all;
}

bool TraceFile::wrote(int point, const std::string& message) const
{
    return wroteIn(text(), point, "", message);
}

bool TraceFile::wrote(int point, const std::string& type, const std::string& message) const
{
    return wroteIn(text(), point, type, message);
}

int TraceFile::timesWrote(int point) const
{
    int times = 0;
    for (const TraceRecord& record : records())
        if (record.point == point) times += 1;
    return times;
}

bool TraceFile::wroteText(const std::string& pattern) const
{
    return contains(text(), pattern);
}

int TraceFile::timesWroteText(const std::string& pattern) const
{
    return countOf(text(), pattern);
}

bool TraceFile::awaitText(const std::string& pattern) const
{
    return awaitInFile(path_, start_, pattern);
}

void TraceFile::forget()
{
    start_ = readFile(path_).size();
}

// ---- CapturedStderr ----------------------------------------------------------------------------

CapturedStderr::CapturedStderr() : path_(directory_.file("stderr"))
{
    std::fflush(stderr);
    saved_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    int file = open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (saved_ < 0 || file < 0 || dup2(file, STDERR_FILENO) < 0)
        throw std::runtime_error("standard error cannot be caught");
    close(file);
}

CapturedStderr::~CapturedStderr()
{
    stop();
}

void CapturedStderr::stop()
{
    if (saved_ < 0) return;
    std::fflush(stderr);
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    saved_ = -1;
}

std::string CapturedStderr::text() const
{
    std::fflush(stderr);
    return readFile(path_);
}

bool CapturedStderr::awaitText(const std::string& pattern) const
{
    return awaitInFile(path_, 0, pattern);
}

} // namespace support
