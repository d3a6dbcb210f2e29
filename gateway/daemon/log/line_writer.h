// Writes lines to a descriptor, and keeps nobody waiting for whoever reads them there: what cannot
// be written at once waits, up to a limit. Lines that come then are lost, and counted in a line of
// their own as soon as there is room again. So they are while writing fails, on a full disk say; a
// line that has been begun is written to its end first. When the reader has gone that is the end of
// it.
//
// Thread: any.
#ifndef GATEWAY_LINE_WRITER_H
#define GATEWAY_LINE_WRITER_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace log_text {

class LineWriter {
public:
    struct Manner {
        // At the end the reader has so much time for what still waits.
        std::chrono::milliseconds lastPatience = std::chrono::seconds(1);
        std::size_t mostWaiting = 1024 * 1024; // bytes

        // The line, with its end, that stands for so many that are lost.
        std::function<std::string(std::size_t lost)> noteOfLoss;

        // Is told with the error of the system when writing fails, once until it succeeds again,
        // which is told with 0. Must not come back to the writer. Empty: nobody is told.
        std::function<void(int error)> trouble;
    };

    explicit LineWriter(int descriptor,
                        std::chrono::milliseconds lastPatience = std::chrono::seconds(1));
    LineWriter(int descriptor, Manner manner);
    ~LineWriter();

    LineWriter(const LineWriter&) = delete;
    LineWriter& operator=(const LineWriter&) = delete;

    // The line comes with its end.
    void write(const std::string& line);

private:
    struct Line {
        std::string text;
        std::size_t count; // of the lines that it stands for
    };

    bool hasRoom(std::chrono::milliseconds patience) const;
    void keep(Line line);
    void keepNoteOfLoss();
    void writeWhatFits();
    void onWritten(std::size_t count);
    void onFailure(int error);
    void work();

    const int descriptor_;
    const bool isFile_;
    const Manner manner_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<Line> waiting_; // guarded by lock_, as is all behind it
    std::size_t bytes_ = 0;    // in waiting_, what has been written of the first line included
    std::size_t begun_ = 0;    // so much of the first line has been written
    std::size_t lost_ = 0;     // lines since the last one that was taken
    bool failing_ = false;
    bool gone_ = false; // the reader
    bool ending_ = false;
    std::thread thread_; // writes what waits
};

} // namespace log_text

#endif
