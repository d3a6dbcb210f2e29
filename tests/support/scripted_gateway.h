// A peer that knows nothing of the protocol: the test reads and sends its bytes itself.
//
//     ScriptedGateway gateway;
//     auto open = callInThread([&] { return QPX_openRemoteGatewayConnection(...); });
//     Peer peer = gateway.accept();
//     EXPECT_EQ(hex("..."), peer.read(60));
//     peer.send(hex("..."));
//
// Everything that waits has a generous limit. When it passes, the test fails and a
// std::runtime_error leaves the test's body.
#ifndef SUPPORT_SCRIPTED_GATEWAY_H
#define SUPPORT_SCRIPTED_GATEWAY_H

#include <cstddef>
#include <utility>
#include <vector>

#include "support/bytes.h"

namespace support {

// One end of a stream connection, owned.
class Peer {
public:
    Peer() = default;
    explicit Peer(int descriptor) : descriptor_(descriptor) {}
    Peer(Peer&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Peer& operator=(Peer&& other) noexcept;
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer() { close(); }

    // Exactly so many bytes.
    Bytes read(std::size_t count);

    // Everything up to the end of the stream.
    Bytes readAll();

    // All of it; the receive buffers of the system bound what can be sent unread.
    void send(const Bytes& bytes);

    // The same bytes in pieces, each sent by itself. What arrives together is the system's
    // business; limitLength(Call::Recv, ...) makes the library take it in pieces for certain.
    void sendInPieces(const Bytes& bytes, std::size_t pieceSize);

    void close();           // in order, if still open
    void shutdownWriting(); // the other side sees the end of the stream; reading goes on
    void reset();           // throws away what is under way; the other side sees ECONNRESET

    // True when the other side ends the stream (or resets it) and has sent nothing more before.
    bool awaitEof();

    // True when nothing has arrived that was not read.
    bool isQuiet();

    int fd() const { return descriptor_; }

    // Gives the descriptor away.
    int release() { return std::exchange(descriptor_, -1); }

private:
    int descriptor_ = -1;
};

// A listener on 127.0.0.1 at a port that the system chooses.
class ScriptedGateway {
public:
    enum class Backlog {
        Usual,
        Full // connects to the port are never answered
    };

    explicit ScriptedGateway(Backlog backlog = Backlog::Usual);
    ~ScriptedGateway();
    ScriptedGateway(const ScriptedGateway&) = delete;
    ScriptedGateway& operator=(const ScriptedGateway&) = delete;

    int port() const { return port_; }
    Peer accept();

    // Connects are refused from now on.
    void stopListening();

private:
    int listener_ = -1;
    int port_ = 0;
    std::vector<int> fillers_;
};

// A port of 127.0.0.1 that refuses connections as long as this object lives.
class RefusingPort {
public:
    RefusingPort();
    ~RefusingPort();
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;

    int port() const { return port_; }

private:
    int socket_ = -1;
    int port_ = 0;
};

// Two connected stream sockets.
std::pair<Peer, Peer> socketPair();

} // namespace support

#endif
