// Writes lines to a descriptor, and keeps nobody waiting for whoever reads them there: what cannot
// be written at once waits, up to a megabyte. Lines that come then are lost, and counted in a line
// of their own as soon as there is room again.
//
// Thread: any.
#ifndef GATEWAY_LINE_WRITER_H
#define GATEWAY_LINE_WRITER_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>

namespace log_text {

class LineWriter {
public:
    // At the end the reader has so much time for what still waits.
    explicit LineWriter(int descriptor,
                        std::chrono::milliseconds lastPatience = std::chrono::seconds(1));
    ~LineWriter();

    LineWriter(const LineWriter&) = delete;
    LineWriter& operator=(const LineWriter&) = delete;

    // The line comes with its end.
    void write(const std::string& line);

private:
    bool hasRoom(std::chrono::milliseconds patience) const;
    void writeWhatFits();
    void work();

    const int descriptor_;
    const std::chrono::milliseconds lastPatience_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::string waiting_;  // guarded by lock_, as are the next two
    std::size_t lost_ = 0; // lines since the last one that was taken
    bool ending_ = false;
    std::thread thread_; // writes what waits
};

} // namespace log_text

#endif
