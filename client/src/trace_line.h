// The text of a trace as lines: what is in front of the message, the message, the dump behind it.
#ifndef QPX_TRACE_LINE_H
#define QPX_TRACE_LINE_H

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace qpx {

struct TraceLine {
    std::int64_t time = 0; // milliseconds, by the calendar of the trace
    unsigned long process = 0;
    unsigned long thread = 0;
    int point = 0;
    std::string type; // "ENTRY", "*EXC*" and so on
    std::string message;

    // A dump shows bytes of a block from the offset on; each line begins with an address.
    std::size_t offset = 0;
    std::string bytes;
    std::vector<std::string> addresses;

    bool is(const char* wanted) const { return type == wanted; }

    // What follows a text in the message up to one of these characters; "" if it is not there.
    std::string behind(const std::string& text, const char* end = ",) \t") const;
};

// "2026-11-22T19:00:42.156"
std::string timeText(std::int64_t time);

// "0xF7FB4A00", as it stands in the trace
std::string threadText(unsigned long thread);

// The dump of a line, as the library writes it.
std::vector<std::string> dumpOf(const TraceLine& line);

// Replaces what may be a password in the dump of a line. The library has done so before it wrote
// the dump; what it is that has written a file is not known here.
void hidePasswords(TraceLine& line);

// Makes lines of a text that comes in pieces. Lines that others have been written behind are told
// apart.
class TraceText {
public:
    void feed(const char* text, std::size_t length);

    // No more comes for now: a line that has its end is complete.
    void settle();

    // No more comes at all.
    void finish();

    bool next(TraceLine& line);
    std::int64_t nextTime() const { return ready_.front().time; }
    bool hasNext() const { return !ready_.empty(); }

    // What else the text has shown.
    struct Findings {
        std::size_t lines = 0;
        std::size_t foreign = 0; // lines of text that are of no trace
        std::size_t firstForeign = 0;
        std::uint64_t lostBytes = 0;
        int level = -1; // as its last head says, -1 without one
        int bits = 0;
        bool cutOff = false; // ends within a line
    };
    const Findings& findings() const { return findings_; }

private:
    void takeText(std::string text, bool hasEnd);
    void takeOther(const std::string& text);
    bool takeHead(const std::string& text);
    bool takeDump(const std::string& text);
    void complete();

    std::string rest_; // of a line of text without its end
    std::size_t number_ = 0;
    TraceLine line_; // with what of its dump has come
    bool hasLine_ = false;
    bool lineHasEnd_ = false;
    bool inDump_ = false;
    std::deque<TraceLine> ready_;
    Findings findings_;
};

} // namespace qpx

#endif
