#include "log/line_writer.h"

#include <limits.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace log_text {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kLook(100); // how often the end is looked for

std::string usualNote(std::size_t lost)
{
    return std::to_string(lost) + " lines are missing here: nobody took them\n";
}

// Nobody waits for one, so nobody has to ask whether it has room.
bool isRegularFile(int descriptor)
{
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

LineWriter::Manner usual(std::chrono::milliseconds lastPatience)
{
    LineWriter::Manner manner;
    manner.lastPatience = lastPatience;
    manner.noteOfLoss = usualNote;
    return manner;
}

} // namespace

LineWriter::LineWriter(int descriptor, std::chrono::milliseconds lastPatience)
    : LineWriter(descriptor, usual(lastPatience))
{
}

LineWriter::LineWriter(int descriptor, Manner manner)
    : descriptor_(descriptor), isFile_(isRegularFile(descriptor)), manner_(std::move(manner)),
      thread_([this] { work(); })
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
        if (gone_) return;
        const bool mayGoOn = failing_ || waiting_.empty();
        if ((lost_ > 0 && !mayGoOn) || bytes_ + line.size() > manner_.mostWaiting) {
            ++lost_;
            return;
        }
        keepNoteOfLoss();
        keep({line, 1});
        writeWhatFits();
        if (waiting_.empty() || failing_) return;
    }
    changed_.notify_all();
}

// These need the lock.
void LineWriter::keep(Line line)
{
    bytes_ += line.text.size();
    waiting_.push_back(std::move(line));
}

void LineWriter::keepNoteOfLoss()
{
    if (lost_ == 0) return;
    keep({manner_.noteOfLoss(lost_), lost_});
    lost_ = 0;
}

// Also true when writing fails at once.
bool LineWriter::hasRoom(std::chrono::milliseconds patience) const
{
    if (isFile_) return true;
    pollfd place{descriptor_, POLLOUT, 0};
    return ::poll(&place, 1, static_cast<int>(patience.count())) > 0;
}

// A pipe that has room takes PIPE_BUF bytes without waiting.
void LineWriter::writeWhatFits()
{
    while (!waiting_.empty() && hasRoom(std::chrono::milliseconds(0))) {
        const std::string& text = waiting_.front().text;
        const std::size_t size = std::min<std::size_t>(text.size() - begun_, PIPE_BUF);
        const ssize_t count = ::write(descriptor_, text.data() + begun_, size);
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
        if (count < 0) return onFailure(errno);
        onWritten(static_cast<std::size_t>(count));
        if (waiting_.empty()) keepNoteOfLoss();
    }
}

void LineWriter::onWritten(std::size_t count)
{
    begun_ += count;
    if (std::exchange(failing_, false) && manner_.trouble) manner_.trouble(0);
    if (begun_ < waiting_.front().text.size()) return;
    bytes_ -= waiting_.front().text.size();
    begun_ = 0;
    waiting_.pop_front();
}

void LineWriter::onFailure(int error)
{
    const std::size_t kept = begun_ > 0 && error != EPIPE ? 1 : 0;
    while (waiting_.size() > kept) {
        lost_ += waiting_.back().count;
        bytes_ -= waiting_.back().text.size();
        waiting_.pop_back();
    }
    gone_ = error == EPIPE;
    if (!std::exchange(failing_, true) && manner_.trouble) manner_.trouble(error);
}

void LineWriter::work()
{
    const auto hasWork = [this] { return ending_ || (!waiting_.empty() && !failing_); };
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait(guard, hasWork);
    while (!ending_) {
        guard.unlock();
        const bool canWrite = hasRoom(kLook);
        guard.lock();
        if (canWrite) writeWhatFits();
        changed_.wait(guard, hasWork);
    }
    if (failing_ && !gone_) keepNoteOfLoss(); // perhaps there is room by now
    const Clock::time_point limit = Clock::now() + manner_.lastPatience;
    while (!waiting_.empty() && Clock::now() < limit) {
        if (hasRoom(std::min(manner_.lastPatience, kLook))) writeWhatFits();
        if (failing_) return;
    }
}

} // namespace log_text
