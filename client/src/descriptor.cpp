#include "descriptor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace qpx {

ssize_t readSome(int descriptor, char* room, std::size_t size)
{
    for (;;) {
        const ssize_t length = read(descriptor, room, size);
        if (length >= 0 || (errno != EAGAIN && errno != EINTR)) return length;
        pollfd input = {descriptor, POLLIN, 0};
        if (errno == EAGAIN && poll(&input, 1, -1) < 0 && errno != EINTR) return -1;
    }
}

void letWritingWait(int descriptor)
{
    struct stat about = {};
    const int flags = fcntl(descriptor, F_GETFL);
    if (flags < 0 || (flags & O_NONBLOCK) == 0 || fstat(descriptor, &about) != 0) return;
    if (!S_ISFIFO(about.st_mode) && !S_ISCHR(about.st_mode)) return;
    const std::string itself = "/proc/self/fd/" + std::to_string(descriptor);
    const int again = open(itself.c_str(), (flags & O_ACCMODE) | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (again < 0) return; // nobody reads, which the writing will tell
    fcntl(again, F_SETFL, flags & ~O_NONBLOCK);
    dup2(again, descriptor);
    close(again);
}

} // namespace qpx
