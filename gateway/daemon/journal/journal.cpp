#include "journal/journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "journal/journal_line.h"

namespace journal {

namespace {

constexpr std::size_t kMostWaiting = 16 * 1024 * 1024;

// A pipe that nobody reads is refused, instead of waited for.
int open(const std::string& file)
{
    const int descriptor =
        file == "-"
            ? ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)
            : ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, 0666);
    if (descriptor == -1) throw std::system_error(errno, std::generic_category(), file);
    return descriptor;
}

// A daemon that was killed may have left a line without its end.
bool endsWithinALine(const std::string& file)
{
    const int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor == -1) return false;
    char last = '\n';
    const bool isThere = ::lseek(descriptor, -1, SEEK_END) != -1 &&
                         ::read(descriptor, &last, 1) == 1;
    ::close(descriptor);
    return isThere && last != '\n';
}

} // namespace

Journal::Journal(const std::string& file, standin::LogSink log)
    : name_(file), log_(std::move(log)), descriptor_(open(file))
{
    log_text::LineWriter::Manner manner;
    manner.mostWaiting = kMostWaiting;
    manner.noteOfLoss = noteOfMissing;
    manner.trouble = [this](int error) { tell(error); };
    writer_ = std::make_unique<log_text::LineWriter>(descriptor_, std::move(manner));
    if (file != "-" && endsWithinALine(file)) writer_->write("\n");
}

Journal::~Journal()
{
    writer_.reset();
    ::close(descriptor_);
}

void Journal::add(const standin::CallRecord& call)
{
    writer_->write(lineFor(call));
}

void Journal::tell(int error) const
{
    if (!log_) return;
    const std::string name = name_ == "-" ? "standard output" : name_;
    if (error == 0) return log_(standin::LogLevel::Info, "the journal " + name + " goes on");
    const char* const consequence = error == EPIPE
                                        ? "nobody reads it any more, and there is no journal from "
                                          "now on"
                                        : "calls are answered, and are missing there until it can "
                                          "be written to";
    log_(standin::LogLevel::Error, "cannot write the journal " + name + ": " +
                                       std::generic_category().message(error) + "; " + consequence);
}

} // namespace journal
