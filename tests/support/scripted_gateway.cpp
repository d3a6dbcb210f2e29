#include "support/scripted_gateway.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "support/call_in_thread.h"

namespace support {

namespace {

[[noreturn]] void fail(const std::string& problem)
{
    ADD_FAILURE() << problem;
    throw std::runtime_error(problem);
}

[[noreturn]] void failWithErrno(const std::string& what)
{
    fail(what + ": " + std::strerror(errno));
}

// Waits until the descriptor is ready; the events that arrived.
short awaitReady(int descriptor, short events, const std::string& what)
{
    auto limit = std::chrono::duration_cast<std::chrono::milliseconds>(generousLimit);
    pollfd wait{descriptor, events, 0};
    int ready = 0;
    do {
        ready = poll(&wait, 1, static_cast<int>(limit.count()));
    } while (ready < 0 && errno == EINTR);
    if (ready < 0) failWithErrno("poll");
    if (ready == 0) fail("nothing happened within a generous limit while waiting to " + what);
    return wait.revents;
}

int newSocket()
{
    int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) failWithErrno("socket");
    return descriptor;
}

int bindToFreePort(int descriptor)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (bind(descriptor, generic, size) != 0) failWithErrno("bind");
    if (getsockname(descriptor, generic, &size) != 0) failWithErrno("getsockname");
    return ntohs(address.sin_port);
}

void beginToConnect(int descriptor, int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    fcntl(descriptor, F_SETFL, O_NONBLOCK);
    if (connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 &&
        errno != EINPROGRESS)
        failWithErrno("connect");
}

// True when the listener's queue takes no further connection.
bool queueIsFull(int listener)
{
    tcp_info info{};
    socklen_t size = sizeof info;
    if (getsockopt(listener, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) failWithErrno("TCP_INFO");
    // For a listener these are the connections in its queue and the most that it holds.
    return info.tcpi_unacked > info.tcpi_sacked;
}

} // namespace

// ---- Peer --------------------------------------------------------------------------------------

Peer& Peer::operator=(Peer&& other) noexcept
{
    if (this != &other) {
        close();
        descriptor_ = std::exchange(other.descriptor_, -1);
    }
    return *this;
}

Bytes Peer::read(std::size_t count)
{
    Bytes bytes(count);
    std::size_t had = 0;
    while (had < count) {
        awaitReady(descriptor_, POLLIN,
                   "read " + std::to_string(count) + " bytes, of which " + std::to_string(had) +
                       " are there");
        ssize_t got = ::recv(descriptor_, bytes.data() + had, count - had, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) failWithErrno("recv");
        if (got == 0)
            fail("the stream ended after " + std::to_string(had) + " of " + std::to_string(count) +
                 " bytes");
        had += static_cast<std::size_t>(got);
    }
    return bytes;
}

Bytes Peer::readAll()
{
    Bytes bytes;
    for (;;) {
        awaitReady(descriptor_, POLLIN, "read up to the end of the stream");
        unsigned char piece[4096];
        ssize_t got = ::recv(descriptor_, piece, sizeof piece, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) failWithErrno("recv");
        if (got == 0) return bytes;
        bytes.insert(bytes.end(), piece, piece + got);
    }
}

void Peer::send(const Bytes& bytes)
{
    std::size_t done = 0;
    while (done < bytes.size()) {
        awaitReady(descriptor_, POLLOUT, "send");
        ssize_t sent = ::send(descriptor_, bytes.data() + done, bytes.size() - done,
                              MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (sent < 0) failWithErrno("send");
        done += static_cast<std::size_t>(sent);
    }
}

void Peer::sendInPieces(const Bytes& bytes, std::size_t pieceSize)
{
    int on = 1;
    setsockopt(descriptor_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    for (std::size_t at = 0; at < bytes.size(); at += pieceSize) {
        std::size_t left = bytes.size() - at;
        send(slice(bytes, at, left < pieceSize ? left : pieceSize));
    }
}

void Peer::close()
{
    if (descriptor_ < 0) return;
    ::close(descriptor_);
    descriptor_ = -1;
}

void Peer::shutdownWriting()
{
    if (shutdown(descriptor_, SHUT_WR) != 0) failWithErrno("shutdown");
}

void Peer::reset()
{
    linger abort{1, 0};
    if (setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &abort, sizeof abort) != 0)
        failWithErrno("SO_LINGER");
    close();
}

bool Peer::awaitEof()
{
    awaitReady(descriptor_, POLLIN, "see the end of the stream");
    char byte = 0;
    ssize_t got = ::recv(descriptor_, &byte, 1, 0);
    return got == 0 || (got < 0 && errno == ECONNRESET);
}

bool Peer::isQuiet()
{
    pollfd wait{descriptor_, POLLIN, 0};
    return poll(&wait, 1, 0) == 0;
}

// ---- ScriptedGateway ---------------------------------------------------------------------------

ScriptedGateway::ScriptedGateway(Backlog backlog) : listener_(newSocket())
{
    port_ = bindToFreePort(listener_);
    if (listen(listener_, backlog == Backlog::Full ? 0 : 128) != 0) failWithErrno("listen");
    while (backlog == Backlog::Full && !queueIsFull(listener_)) {
        fillers_.push_back(newSocket());
        beginToConnect(fillers_.back(), port_);
    }
}

ScriptedGateway::~ScriptedGateway()
{
    stopListening();
    for (int filler : fillers_) ::close(filler);
}

Peer ScriptedGateway::accept()
{
    awaitReady(listener_, POLLIN, "accept a connection");
    int descriptor = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (descriptor < 0) failWithErrno("accept");
    return Peer(descriptor);
}

void ScriptedGateway::stopListening()
{
    if (listener_ < 0) return;
    ::close(listener_);
    listener_ = -1;
}

// ---- RefusingPort ------------------------------------------------------------------------------

RefusingPort::RefusingPort() : socket_(newSocket())
{
    port_ = bindToFreePort(socket_);
}

RefusingPort::~RefusingPort()
{
    ::close(socket_);
}

// ---- Pairs -------------------------------------------------------------------------------------

std::pair<Peer, Peer> socketPair()
{
    int descriptors[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, descriptors) != 0)
        failWithErrno("socketpair");
    return {Peer(descriptors[0]), Peer(descriptors[1])};
}

} // namespace support
