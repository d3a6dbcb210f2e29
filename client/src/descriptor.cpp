#include "descriptor.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

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

} // namespace qpx
