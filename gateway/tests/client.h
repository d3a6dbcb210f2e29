// A bare client for the tests of the gateway: it sends bytes and reads flows, with blocking calls.
// Its bytes are put together here, independently of the gateway's own codec.
#ifndef STANDIN_TESTS_CLIENT_H
#define STANDIN_TESTS_CLIENT_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "standin/wire.h"

namespace standin_test {

using standin::Bytes;

// Puts bytes one behind the other.
class Raw {
public:
    Raw& byte(unsigned value);
    Raw& int16(int value);
    Raw& int32(std::int64_t value);
    Raw& text(const std::string& characters);
    Raw& padded(const std::string& characters, std::size_t width, char filler = '\0');
    Raw& bytes(const Bytes& more);

    operator Bytes() const { return bytes_; }
    std::size_t size() const { return bytes_.size(); }

private:
    Bytes bytes_;
};

// A header with the usual contents and the body behind it.
Bytes flow(int flowType, int messageId, const std::string& requestType, const Bytes& body);

// The handshake for applid "DEMO1" without a qualifier: the flow of 60 bytes.
Bytes handshake();
Bytes closeFlow();

// What differs between the ECI requests of the tests.
struct Call {
    std::string program = "ECHO";
    std::string commarea;
    int mode = 0;
    int token = 0;
    int outbound = 0; // 0: no outbound length
    int inbound = 0;  // 0: no inbound length
    int callType = 1;
    std::string user;
    Bytes channel; // its section; empty: no channel
};
Bytes eciBody(const Call& call);
Bytes eciRequest(int messageId, const Call& call);

// A flow as the client reads it.
struct Received {
    int flowType = 0;
    int messageId = 0;
    int gatewayRc = 0;
    std::string requestType;
    Bytes body;
};

// An ECI reply's body taken apart.
struct Reply {
    int callType = 0;
    int luwToken = 0;
    int messageQualifier = 0;
    int vornRc = 0;
    std::string abendCode;
    int commareaLength = 0;
    std::optional<int> inboundLength;
    std::string commarea;
    Bytes channel; // its section; empty: no channel
};

// One record of a channel section, and the section itself.
Bytes record(const std::string& name, int change, int type, int ccsid, std::size_t length,
             const std::string& data = "");
Bytes channelSection(const std::string& name, int ccsid, const std::vector<Bytes>& records);

// How much is on its way to a client that does not read. Little is far less than a megabyte, of
// short segments for which neither side takes much room, whatever has been usual on this machine.
enum class Room { AsUsual, Little };

// Thread: one at a time.
class Client {
public:
    explicit Client(std::uint16_t port, Room room = Room::AsUsual);
    ~Client();

    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool send(const Bytes& bytes);

    // Reads one flow; nothing when the connection ends first.
    std::optional<Received> read();

    // Reads exactly `count` bytes, fewer when the connection ends.
    Bytes readBytes(std::size_t count);

    std::uint16_t localPort() const;

    // How many segments with data have arrived so far.
    unsigned segmentsReceived() const;

    // How the connection ends: true when it is closed in order, false when it is reset. Whatever
    // comes before is thrown away.
    bool endsInOrder();

    void closeSending();
    void close();

    // Sends the handshake and reads the answer; true when it is accepted.
    bool shakeHands();

    // Sends a request and reads its reply.
    Reply call(int messageId, const Call& call);

private:
    int socket_ = -1;
};

Reply takeApart(const Bytes& replyBody, int extendMode = 0);
std::string textOf(const Bytes& bytes);

} // namespace standin_test

#endif
