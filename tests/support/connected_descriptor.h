// The descriptor that a connection of the library has, found from outside.
#ifndef SUPPORT_CONNECTED_DESCRIPTOR_H
#define SUPPORT_CONNECTED_DESCRIPTOR_H

#include <netinet/in.h>
#include <sys/socket.h>

namespace support {

constexpr int highestLookedAt = 255;

// The descriptor that is connected to the port, or -1.
inline int descriptorTo(int port)
{
    for (int descriptor = 0; descriptor <= highestLookedAt; ++descriptor) {
        sockaddr_in address = {};
        socklen_t size = sizeof address;
        auto* general = reinterpret_cast<sockaddr*>(&address);
        if (getpeername(descriptor, general, &size) == 0 && address.sin_family == AF_INET &&
            ntohs(address.sin_port) == port)
            return descriptor;
    }
    return -1;
}

} // namespace support

#endif
