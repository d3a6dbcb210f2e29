// The other end of a connection as bare bytes, for tests in which it is no Gateway: a socket that
// listens, and what is accepted there.
#ifndef STANDIN_TESTS_STREAM_PEER_H
#define STANDIN_TESTS_STREAM_PEER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>

#include "standin/messages.h"

namespace standin_test {

// How much of what is under way a socket has room for, and what is accepted from it.
enum class Buffers { AsUsual, Small };

// To be told before there is a connection.
inline void makeBuffersSmall(int socket)
{
    const int bytes = 65536;
    ::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    ::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

// More than a process takes that passes on what it has from one of them to another one whose peer
// takes nothing: what its own two sockets may hold at the most on this machine, and some megabytes.
inline std::size_t moreThanIsUnderWay()
{
    std::size_t bytes = 16 * 1024 * 1024;
    for (const char* const name : {"tcp_rmem", "tcp_wmem"}) {
        std::size_t least = 0;
        std::size_t usual = 0;
        std::size_t most = 0;
        std::ifstream file(std::string("/proc/sys/net/ipv4/") + name);
        if (!(file >> least >> usual >> most))
            throw std::runtime_error(std::string("unknown: ") + name);
        bytes += usual < most ? most : usual;
    }
    return bytes;
}

// Thread: one at a time.
class StreamPeer {
public:
    enum class Ending { InOrder, Reset };

    // Connects to the port.
    static StreamPeer to(std::uint16_t port, Buffers buffers = Buffers::AsUsual)
    {
        StreamPeer peer(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (buffers == Buffers::Small) makeBuffersSmall(peer.socket_);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(peer.socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address))
            throw std::runtime_error("cannot connect");
        return peer;
    }

    explicit StreamPeer(int socket) : socket_(socket)
    {
        const timeval limit{30, 0};
        ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }

    StreamPeer(StreamPeer&& other) noexcept : socket_(other.socket_) { other.socket_ = -1; }
    ~StreamPeer() { close(); }

    bool send(const standin::Bytes& bytes)
    {
        std::size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t count = ::send(socket_, bytes.data() + done, bytes.size() - done,
                                         MSG_NOSIGNAL);
            if (count < 1) return false;
            done += static_cast<std::size_t>(count);
        }
        return true;
    }

    // Sends until all is gone, or there is no room while the other end sleeps; how many are gone
    // then.
    template <typename Sleeps>
    std::size_t sendWhatIsTaken(const standin::Bytes& bytes, Sleeps otherEndSleeps)
    {
        std::size_t done = 0;
        while (done < bytes.size()) {
            const bool slept = otherEndSleeps();
            pollfd place{socket_, POLLOUT, 0};
            if (::poll(&place, 1, 0) < 1) {
                if (slept && otherEndSleeps()) return done;
                ::sched_yield();
                continue;
            }
            const ssize_t count = ::send(socket_, bytes.data() + done, bytes.size() - done,
                                         MSG_NOSIGNAL | MSG_DONTWAIT);
            if (count > 0) done += static_cast<std::size_t>(count);
        }
        return done;
    }

    // Fewer when the connection ends first.
    standin::Bytes read(std::size_t count)
    {
        standin::Bytes bytes(count);
        std::size_t done = 0;
        while (done < count) {
            const ssize_t got = ::recv(socket_, bytes.data() + done, count - done, 0);
            if (got == -1 && errno == EINTR) continue;
            if (got < 1) break;
            done += static_cast<std::size_t>(got);
        }
        bytes.resize(done);
        return bytes;
    }

    // Reads to the end, whose kind is told.
    Ending ending()
    {
        char thrownAway[4096];
        for (;;) {
            const ssize_t count = ::recv(socket_, thrownAway, sizeof thrownAway, 0);
            if (count == 0) return Ending::InOrder;
            if (count > 0 || errno == EINTR) continue;
            if (errno == ECONNRESET) return Ending::Reset;
            throw std::runtime_error("the connection does not end");
        }
    }

    void closeSending() { ::shutdown(socket_, SHUT_WR); }

    void reset()
    {
        const linger atOnce{1, 0};
        ::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        close();
    }

    void close()
    {
        if (socket_ != -1) ::close(socket_);
        socket_ = -1;
    }

private:
    int socket_;
};

class Listener {
public:
    explicit Listener(Buffers buffers = Buffers::AsUsual)
        : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        if (buffers == Buffers::Small) makeBuffersSmall(socket_);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(socket_, 16) != 0) {
            throw std::runtime_error("cannot listen");
        }
    }
    ~Listener() { close(); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    std::uint16_t port() const
    {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size);
        return ntohs(address.sin_port);
    }

    StreamPeer accept() { return StreamPeer(::accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC)); }

    void close()
    {
        if (socket_ != -1) ::close(socket_);
        socket_ = -1;
    }

private:
    int socket_;
};

} // namespace standin_test

#endif
