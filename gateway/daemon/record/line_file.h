// A file of lines that may not be writable for a time, on a full disk say: lines that come then are
// missing, and a line that counts them stands in their place as soon as there is room again. A line
// that has been begun is written to its end first.
//
// Thread: one at a time.
#ifndef GATEWAY_LINE_FILE_H
#define GATEWAY_LINE_FILE_H

#include <cstddef>
#include <string>

namespace record {

class LineFile {
public:
    // Takes the descriptor over; -1 is a file that never takes anything.
    explicit LineFile(int descriptor) : descriptor_(descriptor) {}
    ~LineFile();

    LineFile(const LineFile&) = delete;
    LineFile& operator=(const LineFile&) = delete;

    // The line comes with its end. Returns the error of the system, or 0 when all has been written.
    int write(const std::string& line);

private:
    int writeOn();

    int descriptor_;
    std::string begun_;       // what has not been written of lines that were begun
    std::size_t missing_ = 0; // lines since then
};

} // namespace record

#endif
