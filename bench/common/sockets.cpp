#include "sockets.h"

#include "wire.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace bench {

namespace {

constexpr rlim_t descriptorsWanted = 32768;
constexpr int waitingConnections = 4096;

sockaddr_in loopback(std::uint16_t port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

[[noreturn]] void failWithErrno(const std::string& what)
{
    fail(what + ": " + std::strerror(errno));
}

} // namespace

void fail(const std::string& message)
{
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, message.c_str());
    std::exit(1);
}

void allowManyDescriptors()
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max(limit.rlim_max, descriptorsWanted);
    const rlimit more = {limit.rlim_cur, limit.rlim_cur};
    if (setrlimit(RLIMIT_NOFILE, &more) == 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

int listenOnLoopback(std::uint16_t* port)
{
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    if (listener == -1 ||
        bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1 ||
        listen(listener, waitingConnections) == -1 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) == -1)
        failWithErrno("cannot listen");
    *port = ntohs(address.sin_port);
    return listener;
}

void sendAtOnce(int socket)
{
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void sendAll(int socket, const char* data, std::size_t size)
{
    while (size > 0) {
        const ssize_t sent = send(socket, data, size, MSG_NOSIGNAL);
        if (sent <= 0) failWithErrno("cannot send");
        data += sent;
        size -= static_cast<std::size_t>(sent);
    }
}

void receiveAll(int socket, char* data, std::size_t size)
{
    while (size > 0) {
        const ssize_t received = recv(socket, data, size, 0);
        if (received == 0) fail("the server has ended the connection");
        if (received < 0) failWithErrno("cannot receive");
        data += received;
        size -= static_cast<std::size_t>(received);
    }
}

int connectTo(std::uint16_t port)
{
    const sockaddr_in address = loopback(port);
    const int connected = socket(AF_INET, SOCK_STREAM, 0);
    if (connected == -1 ||
        connect(connected, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1)
        failWithErrno("cannot connect");
    sendAtOnce(connected);
    return connected;
}

int connectToGateway(std::uint16_t port)
{
    const int connected = connectTo(port);
    Bytes body;
    body.append("\0\2en\0\2GB", 8);
    body.fill(10 + 2 + 2, '\0');
    Bytes handshake;
    handshake.header(handshakeFlow, static_cast<std::uint32_t>(-2), "BASE", body.size());
    handshake.append(body);
    sendAll(connected, handshake.data(), handshake.size());
    Bytes accepted;
    accepted.header(handshakeFlow, static_cast<std::uint32_t>(-2), "BASE", 0);
    receiveAll(connected, accepted.data(), accepted.size());
    return connected;
}

} // namespace bench
