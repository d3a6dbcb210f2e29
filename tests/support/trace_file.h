// The library's trace, sent to a file of the test's own.
//
//     TraceFile trace(3);
//     ... calls ...
//     EXPECT_TRUE(trace.wrote(1506, "API.QPX_ECI_Execute() rc=0 (QPX_OK)"));
//
// Expected texts may hold placeholders: <ptr> an address as %p prints it, <int> a decimal number,
// <hex> hexadecimal digits, <any> anything within the line, nothing included.
// Works with the library's exported calls only.
#ifndef SUPPORT_TRACE_FILE_H
#define SUPPORT_TRACE_FILE_H

#include <string>
#include <vector>

namespace support {

// An address as the trace shows it.
std::string shown(const volatile void* address);

// True when the whole text reads as the pattern; see above for its placeholders.
bool matches(const std::string& pattern, const std::string& text);

// True when some part of the text reads as the pattern. <any> does not cross a line end.
bool contains(const std::string& text, const std::string& pattern);

// How often the pattern is found, without overlaps.
int countOf(const std::string& text, const std::string& pattern);

// One trace line, taken apart.
struct TraceRecord {
    std::string stamp;   // "15/11/26 17:21:12:045"
    std::string process; // "0x0000ABCD"
    std::string thread;  // the same for the thread id
    int point = 0;
    std::string type;    // "*EXC*"
    std::string message; // up to the line end, or to the next line when the text has no line end
    std::string body;    // what follows without a prefix up to the next line: dumps
};

// The lines that have a prefix, in order. Text before the first one belongs to none.
std::vector<TraceRecord> parseTrace(const std::string& text);

// True when a line of that point, and of that type where one is given, reads as the pattern.
bool wroteIn(const std::string& text, int point, const std::string& type,
             const std::string& message);

// The whole contents of a file; empty when there is none.
std::string readFile(const std::string& path);

// Lets the text pass when it is found in the file, now or once something is written to it.
bool awaitTextIn(const std::string& path, const std::string& pattern);

// A temporary directory that goes with everything in it.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// From its construction on the trace goes to a file of its own; at its end the level is 0, the
// destination standard error, and the file gone. What the switching itself wrote (the banner and
// the lines of the trace calls) is not part of text() and the others, but of wholeText().
class TraceFile {
public:
    explicit TraceFile(int level);
    ~TraceFile();
    TraceFile(const TraceFile&) = delete;
    TraceFile& operator=(const TraceFile&) = delete;

    const std::string& path() const { return path_; }

    std::string wholeText() const;
    std::string text() const;
    std::vector<std::string> lines() const;   // as split by line ends
    std::vector<TraceRecord> records() const; // as split by prefixes

    // Those of the calling thread: a receiver may still be writing about what was before.
    std::vector<TraceRecord> ownRecords() const;
    std::vector<std::string> messages() const; // of the records
    std::vector<std::string> messages(int point) const;

    // A line of the point reads as the pattern; with type, it also has that type word.
    bool wrote(int point, const std::string& message) const;
    bool wrote(int point, const std::string& type, const std::string& message) const;
    int timesWrote(int point) const;

    bool wroteText(const std::string& pattern) const;
    int timesWroteText(const std::string& pattern) const;

    // Waits, with a generous limit, until the pattern stands in text().
    bool awaitText(const std::string& pattern) const;

    // text() and the others begin here from now on.
    void forget();

private:
    TemporaryDirectory directory_;
    std::string path_;
    std::size_t start_ = 0;
};

// Standard error, caught from construction until text() or the end. Takes what the library writes
// directly or by its trace, and everything else of the process.
class CapturedStderr {
public:
    CapturedStderr();
    ~CapturedStderr();
    CapturedStderr(const CapturedStderr&) = delete;
    CapturedStderr& operator=(const CapturedStderr&) = delete;

    std::string text() const;
    bool awaitText(const std::string& pattern) const;
    void stop(); // standard error is as before; text() stays

private:
    TemporaryDirectory directory_;
    std::string path_;
    int saved_ = -1;
};

} // namespace support

#endif
