#include "client.h"

#include <arpa/inet.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace standin_test {

namespace {

constexpr int kReadLimitSeconds = 30;

int int32At(const Bytes& bytes, std::size_t offset)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) value = value << 8 | bytes.at(offset + i);
    return static_cast<int>(value);
}

} // namespace

// --------------------------------------------------------------------------------------------- Raw

Raw& Raw::byte(unsigned value)
{
    bytes_.push_back(static_cast<std::uint8_t>(value));
    return *this;
}

Raw& Raw::int16(int value)
{
    return byte(static_cast<unsigned>(value >> 8) & 0xFFU)
        .byte(static_cast<unsigned>(value) & 0xFFU);
}

Raw& Raw::int32(std::int64_t value)
{
    const auto bits = static_cast<std::uint32_t>(value);
    return byte(bits >> 24).byte(bits >> 16 & 0xFFU).byte(bits >> 8 & 0xFFU).byte(bits & 0xFFU);
}

Raw& Raw::text(const std::string& characters)
{
    bytes_.insert(bytes_.end(), characters.begin(), characters.end());
    return *this;
}

Raw& Raw::padded(const std::string& characters, std::size_t width, char filler)
{
    text(characters);
    for (std::size_t i = characters.size(); i < width; ++i)
        byte(static_cast<unsigned char>(filler));
    return *this;
}

Raw& Raw::bytes(const Bytes& more)
{
    bytes_.insert(bytes_.end(), more.begin(), more.end());
    return *this;
}

// ------------------------------------------------------------------------------------------- flows

Bytes flow(int flowType, int messageId, const std::string& requestType, const Bytes& body)
{
    return Raw()
        .text("Gate")
        .int32(0x10A01000)
        .int32(flowType)
        .int32(messageId)
        .int32(0)
        .int32(static_cast<std::int64_t>(requestType.size()))
        .text(requestType)
        .byte(0)
        .int32(static_cast<std::int64_t>(body.size()))
        .bytes(body);
}

Bytes handshake()
{
    return flow(
        5, -2, "BASE",
        Raw().int16(2).text("en").int16(2).text("GB").padded("", 10).int16(5).text("DEMO1").int16(
            0));
}

Bytes closeFlow()
{
    return flow(10, -1, "BASE", {});
}

Bytes eciBody(const Call& call)
{
    Raw raw;
    raw.int32(call.callType).int32(call.mode).int32(call.token).int32(0).byte(0);
    raw.int32(8).padded("SERVER1", 8, ' ').padded(call.user, 16).int32(0);
    raw.padded(call.program, 8, ' ').text("TRN1").int32(0);
    const bool carriesData = call.mode != 2 && call.mode != 4;
    raw.int32(carriesData ? static_cast<std::int64_t>(call.commarea.size()) : 0);
    raw.byte(call.outbound > 0 ? 0xFF : 0x00);
    if (call.outbound > 0) raw.int32(call.outbound);
    raw.byte(call.inbound > 0 ? 0xFF : 0x00);
    if (call.inbound > 0) raw.int32(call.inbound);
    if (carriesData) {
        raw.text(call.outbound > 0
                     ? call.commarea.substr(0, static_cast<std::size_t>(call.outbound))
                     : call.commarea);
    }
    raw.byte(call.channel.empty() ? 0x00 : 0xFF).bytes(call.channel);
    return raw.int16(0).byte(0).int32(-1).int32(1);
}

Bytes record(const std::string& name, int change, int type, int ccsid, std::size_t length,
             const std::string& data)
{
    return Raw()
        .padded(name, 16)
        .byte(static_cast<unsigned>(change))
        .int16(0)
        .byte(static_cast<unsigned>(type))
        .int32(ccsid)
        .int32(static_cast<std::int64_t>(length))
        .text(data);
}

Bytes channelSection(const std::string& name, int ccsid, const std::vector<Bytes>& records)
{
    Raw raw;
    raw.padded(name, 16).int32(ccsid).int32(static_cast<std::int64_t>(records.size()));
    for (const Bytes& one : records) raw.bytes(one);
    return raw;
}

Bytes eciRequest(int messageId, const Call& call)
{
    return flow(1, messageId, "ECI", eciBody(call));
}

Reply takeApart(const Bytes& body, int extendMode)
{
    Reply reply;
    reply.callType = int32At(body, 0);
    reply.luwToken = int32At(body, 4);
    reply.messageQualifier = int32At(body, 8);
    reply.vornRc = int32At(body, 12);
    reply.abendCode.assign(body.begin() + 16, body.begin() + 20);
    reply.commareaLength = int32At(body, 20);
    std::size_t at = 25;
    if (body.at(24) != 0) {
        reply.inboundLength = int32At(body, 26);
        at = 30;
    }
    std::size_t length = static_cast<std::size_t>(
        reply.inboundLength.value_or(reply.commareaLength));
    if (extendMode == 2 || extendMode == 4) length = 0;
    const auto first = body.begin() + static_cast<std::ptrdiff_t>(at);
    const auto end = first + static_cast<std::ptrdiff_t>(length);
    const bool hasChannel = body.at(at + length) != 0;
    if (hasChannel == (body.size() == at + length + 1))
        throw std::runtime_error("the reply's lengths do not add up");
    reply.commarea.assign(first, end);
    reply.channel.assign(end + 1, body.end());
    return reply;
}

std::string textOf(const Bytes& bytes)
{
    return std::string(bytes.begin(), bytes.end());
}

// ------------------------------------------------------------------------------------------ Client

// To be told before the connection is there.
static void takeLittleAhead(int socket)
{
    const int bytes = 16384;
    ::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    const int segment = 536;
    ::setsockopt(socket, IPPROTO_TCP, TCP_MAXSEG, &segment, sizeof segment);
}

Client::Client(std::uint16_t port, Room room) : socket_(::socket(AF_INET, SOCK_STREAM, 0))
{
    if (room == Room::Little) takeLittleAhead(socket_);
    const timeval limit{kReadLimitSeconds, 0};
    ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::system_error(errno, std::generic_category(), "connect");
    }
}

Client::~Client()
{
    close();
}

bool Client::send(const Bytes& bytes)
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

Bytes Client::readBytes(std::size_t count)
{
    Bytes bytes(count);
    std::size_t done = 0;
    while (done < count) {
        const ssize_t read = ::recv(socket_, bytes.data() + done, count - done, 0);
        if (read == -1 && errno == EINTR) continue; // a child of the test has ended
        if (read < 1) break;
        done += static_cast<std::size_t>(read);
    }
    bytes.resize(done);
    return bytes;
}

std::optional<Received> Client::read()
{
    const Bytes front = readBytes(24);
    if (front.size() < 24 || textOf(Bytes(front.begin(), front.begin() + 4)) != "Gate")
        return std::nullopt;
    Received received;
    received.flowType = int32At(front, 8);
    received.messageId = int32At(front, 12);
    received.gatewayRc = int32At(front, 16);
    const auto typeLength = static_cast<std::size_t>(int32At(front, 20));
    const Bytes back = readBytes(typeLength + 5);
    if (back.size() < typeLength + 5) return std::nullopt;
    received.requestType = textOf(
        Bytes(back.begin(), back.begin() + static_cast<std::ptrdiff_t>(typeLength)));
    const auto dataLength = static_cast<std::size_t>(int32At(back, typeLength + 1));
    received.body = readBytes(dataLength);
    if (received.body.size() < dataLength) return std::nullopt;
    return received;
}

std::uint16_t Client::localPort() const
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size) != 0)
        throw std::system_error(errno, std::generic_category(), "getsockname");
    return ntohs(address.sin_port);
}

unsigned Client::segmentsReceived() const
{
    tcp_info info{};
    socklen_t size = sizeof info;
    if (::getsockopt(socket_, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) {
        throw std::system_error(errno, std::generic_category(), "getsockopt");
    }
    return info.tcpi_data_segs_in;
}

bool Client::endsInOrder()
{
    char thrownAway[4096];
    for (;;) {
        const ssize_t count = ::recv(socket_, thrownAway, sizeof thrownAway, 0);
        if (count == 0) return true;
        if (count > 0 || errno == EINTR) continue;
        if (errno == ECONNRESET) return false;
        throw std::system_error(errno, std::generic_category(), "recv");
    }
}

void Client::closeSending()
{
    ::shutdown(socket_, SHUT_WR);
}

void Client::close()
{
    if (socket_ != -1) ::close(socket_);
    socket_ = -1;
}

bool Client::shakeHands()
{
    if (!send(handshake())) return false;
    const std::optional<Received> answer = read();
    return answer && answer->flowType == 5;
}

Reply Client::call(int messageId, const Call& call)
{
    if (!send(eciRequest(messageId, call))) throw std::runtime_error("the request cannot be sent");
    const std::optional<Received> answer = read();
    if (!answer) throw std::runtime_error("the connection ends instead of an answer");
    if (answer->flowType != 3 || answer->messageId != messageId || answer->requestType != "ECI") {
        throw std::runtime_error("flow " + std::to_string(answer->flowType) + " for message " +
                                 std::to_string(answer->messageId) + " is not the reply");
    }
    return takeApart(answer->body, call.mode);
}

} // namespace standin_test
