#include "log/line_writer.h"

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace log_text {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMostWaiting = 1024 * 1024;
constexpr std::chrono::milliseconds kLook(100); // how often the end is looked for

} // namespace

LineWriter::LineWriter(int descriptor, std::chrono::milliseconds lastPatience)
    : descriptor_(descriptor), lastPatience_(lastPatience), thread_([this] { work(); })
{
}

LineWriter::~LineWriter()
{
    {
        const std::lock_guard<std::mutex> guard(lock_);
        ending_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void LineWriter::write(const std::string& line)
{
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (lost_ > 0 || waiting_.size() + line.size() > kMostWaiting) {
            ++lost_;
            return;
        }
        waiting_ += line;
        writeWhatFits();
        if (waiting_.empty()) return;
    }
    changed_.notify_all();
}

// Also true when writing fails at once.
bool LineWriter::hasRoom(std::chrono::milliseconds patience) const
{
    pollfd place{descriptor_, POLLOUT, 0};
    return ::poll(&place, 1, static_cast<int>(patience.count())) > 0;
}

// A pipe that has room takes PIPE_BUF bytes without waiting. Needs the lock.
void LineWriter::writeWhatFits()
{
    while (!waiting_.empty() && hasRoom(std::chrono::milliseconds(0))) {
        const std::size_t size = std::min<std::size_t>(waiting_.size(), PIPE_BUF);
        const ssize_t count = ::write(descriptor_, waiting_.data(), size);
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
        if (count < 0) {
            waiting_.clear(); // nobody will ever read it
            lost_ = 0;
            return;
        }
        waiting_.erase(0, static_cast<std::size_t>(count));
        if (waiting_.empty() && lost_ > 0) {
            waiting_ = std::to_string(lost_) + " lines are missing here: nobody took them\n";
            lost_ = 0;
        }
    }
}

void LineWriter::work()
{
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait(guard, [this] { return ending_ || !waiting_.empty(); });
    while (!ending_) {
        guard.unlock();
        const bool canWrite = hasRoom(kLook);
        guard.lock();
        if (canWrite) writeWhatFits();
        changed_.wait(guard, [this] { return ending_ || !waiting_.empty(); });
    }
    const Clock::time_point limit = Clock::now() + lastPatience_;
    while (!waiting_.empty() && Clock::now() < limit) {
        if (hasRoom(std::min(lastPatience_, kLook))) writeWhatFits();
    }
}

} // namespace log_text
