#include "main/port_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

namespace daemon_options {

namespace {

// True when the file is there, and no daemon that runs has written it.
bool isLeftBehind(const std::string& name)
{
    const int descriptor = ::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (descriptor == -1) return false;
    struct stat status {};
    const bool isFile = ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
    const bool isFree = isFile && ::flock(descriptor, LOCK_EX | LOCK_NB) == 0;
    ::close(descriptor);
    return isFree;
}

bool writeAll(int descriptor, const std::string& text)
{
    return ::write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

} // namespace

PortFile::PortFile(std::string name) : name_(std::move(name))
{
    if (!name_.empty() && isLeftBehind(name_)) std::remove(name_.c_str());
}

PortFile::~PortFile()
{
    if (descriptor_ == -1) return;
    if (isStillOurs()) std::remove(name_.c_str());
    ::close(descriptor_);
}

bool PortFile::write(std::uint16_t port)
{
    if (name_.empty()) return true;
    const std::string unfinished = name_ + ".new." + std::to_string(::getpid());
    descriptor_ = ::open(unfinished.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (descriptor_ == -1) return false;
    const bool written = ::flock(descriptor_, LOCK_EX | LOCK_NB) == 0 &&
                         writeAll(descriptor_, std::to_string(port) + "\n") &&
                         std::rename(unfinished.c_str(), name_.c_str()) == 0;
    if (written) return true;
    std::remove(unfinished.c_str());
    ::close(std::exchange(descriptor_, -1));
    return false;
}

bool PortFile::isStillOurs() const
{
    struct stat ours {};
    struct stat there {};
    return ::fstat(descriptor_, &ours) == 0 && ::lstat(name_.c_str(), &there) == 0 &&
           ours.st_dev == there.st_dev && ours.st_ino == there.st_ino;
}

} // namespace daemon_options
