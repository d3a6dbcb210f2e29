#include "script/file_watch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <system_error>
#include <utility>

namespace script {

namespace {

std::system_error failure(const char* what)
{
    return std::system_error(errno, std::generic_category(), what);
}

} // namespace

// The folder is watched, since editors put a new file in the place of the old one.
FileWatch::FileWatch(const std::string& file, std::function<void()> changed)
    : name_(std::filesystem::path(file).filename().string()), changed_(std::move(changed))
{
    std::filesystem::path folder = std::filesystem::path(file).parent_path();
    if (folder.empty()) folder = ".";
    events_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (events_ == -1) throw failure("inotify");
    if (::inotify_add_watch(events_, folder.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO) == -1) {
        const std::system_error error = failure("inotify");
        ::close(events_);
        throw error;
    }
    end_ = ::eventfd(0, EFD_CLOEXEC);
    if (end_ == -1) {
        const std::system_error error = failure("eventfd");
        ::close(events_);
        throw error;
    }
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_ = std::thread([this] { work(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

FileWatch::~FileWatch()
{
    const std::uint64_t one = 1;
    while (::write(end_, &one, sizeof one) == -1 && errno == EINTR) {}
    thread_.join();
    ::close(end_);
    ::close(events_);
}

void FileWatch::work()
{
    for (;;) {
        pollfd places[2] = {{events_, POLLIN, 0}, {end_, POLLIN, 0}};
        ::poll(places, 2, -1);
        if (places[1].revents != 0) return;
        if (places[0].revents != 0 && isOurs()) changed_();
    }
}

bool FileWatch::isOurs()
{
    alignas(inotify_event) char events[4096];
    bool isOurs = false;
    for (;;) {
        const ssize_t count = ::read(events_, events, sizeof events);
        if (count <= 0) return isOurs;
        for (ssize_t at = 0; at < count;) {
            const auto* const event = reinterpret_cast<const inotify_event*>(events + at);
            isOurs = isOurs || (event->len > 0 && name_ == event->name);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
}

} // namespace script
