#include "main/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace daemon_options {

ServiceManager::ServiceManager()
{
    constexpr const char* kVariable = "NOTIFY_SOCKET";
    if (const char* const address = std::getenv(kVariable)) address_ = address;
    ::unsetenv(kVariable);
}

bool ServiceManager::tellReady() const
{
    constexpr char kReady[] = "READY=1";
    sockaddr_un address{};
    if (address_.empty()) return true;
    if (address_.size() >= sizeof address.sun_path) return false;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, address_.data(), address_.size());
    if (address_.front() == '@') address.sun_path[0] = '\0'; // a name that is in no folder
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address_.size());

    const int descriptor = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor == -1) return false;
    const bool sent = ::sendto(descriptor, kReady, sizeof kReady - 1, MSG_NOSIGNAL,
                               reinterpret_cast<const sockaddr*>(&address),
                               length) == static_cast<ssize_t>(sizeof kReady - 1);
    ::close(descriptor);
    return sent;
}

} // namespace daemon_options
