// Tells helgrind what it cannot see: what comes in on a connection answers what went out on it
// before. Without this it takes a reply's effect on data that its request was made of for a race.
// Nothing else is told to helgrind, and no report is suppressed.
#include <sys/socket.h>
#include <valgrind/helgrind.h>

#include <array>
#include <cstddef>

namespace {

// A place in memory for each descriptor, by which helgrind knows it.
std::array<char, 1024> descriptors;

void* placeOf(int descriptor)
{
    return &descriptors[static_cast<std::size_t>(descriptor) % descriptors.size()];
}

} // namespace

// The library's own calls arrive here.
extern "C" {

ssize_t __real_send(int descriptor, const void* data, std::size_t length, int flags);
ssize_t __real_recv(int descriptor, void* data, std::size_t length, int flags);
ssize_t __real___recv_chk(int descriptor, void* data, std::size_t length, std::size_t room,
                          int flags);

ssize_t __wrap_send(int descriptor, const void* data, std::size_t length, int flags)
{
    ANNOTATE_HAPPENS_BEFORE(placeOf(descriptor));
    return __real_send(descriptor, data, length, flags);
}

// What recv itself writes must come behind what was sent: it writes into the caller's memory.
ssize_t __wrap_recv(int descriptor, void* data, std::size_t length, int flags)
{
    ssize_t received = __real_recv(descriptor, data, length, flags);
    ANNOTATE_HAPPENS_AFTER(placeOf(descriptor));
    return received;
}

ssize_t __wrap___recv_chk(int descriptor, void* data, std::size_t length, std::size_t room,
                          int flags)
{
    ssize_t received = __real___recv_chk(descriptor, data, length, room, flags);
    ANNOTATE_HAPPENS_AFTER(placeOf(descriptor));
    return received;
}
}
