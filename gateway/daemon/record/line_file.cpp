#include "record/line_file.h"

#include <unistd.h>

#include <cerrno>

#include "json/call_json.h"

namespace record {

LineFile::~LineFile()
{
    if (descriptor_ == -1) return;
    if (missing_ > 0 || !begun_.empty()) write("");
    ::close(descriptor_);
}

int LineFile::write(const std::string& line)
{
    if (descriptor_ == -1) return EBADF;
    const std::size_t own = line.empty() ? 0 : 1;
    if (const int error = begun_.empty() ? 0 : writeOn()) {
        missing_ += own;
        return error;
    }
    if (missing_ > 0) begun_ = call_json::lineOf({{"missing", missing_}}) + "\n";
    begun_ += line;
    const std::size_t whole = begun_.size();
    const int error = writeOn();
    if (begun_.size() == whole && error != 0) {
        begun_.clear();
        missing_ += own;
    } else {
        missing_ = 0;
    }
    return error;
}

int LineFile::writeOn()
{
    while (!begun_.empty()) {
        const ssize_t count = ::write(descriptor_, begun_.data(), begun_.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno;
        begun_.erase(0, static_cast<std::size_t>(count));
    }
    return 0;
}

} // namespace record
