// The wire protocol between a client and a Gateway, seen from the Gateway's side: the functions
// that turn the records of messages.h into bytes and back.
//
// All integers on the wire are big-endian. Decoding is strict: the first byte that a correct client
// would not have sent ends it with a MalformedFlow, which names what is wrong and at which offset.
// Encoding is not strict at all: a record may hold lengths that contradict its data, so that a test
// can send what no correct Gateway would.
//
// Everything here is a plain value or a pure function; nothing is shared between threads.
#ifndef STANDIN_WIRE_H
#define STANDIN_WIRE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "standin/messages.h"

namespace standin {

// A flow that no correct client sends. what() reads "<what> at byte <offset>"; the offset counts
// from the first byte of the flow, so 0 is the "G" of the eyecatcher.
class MalformedFlow : public std::runtime_error {
public:
    MalformedFlow(std::size_t offset, std::string problem);

    std::size_t offset() const { return offset_; }
    const std::string& problem() const { return problem_; }

private:
    std::size_t offset_;
    std::string problem_;
};

// The flows that a Gateway sends.
Flow makeHandshakeAccepted();
Flow makeCloseFlow();
Flow makePing();
Flow makeErrorFlow(std::int32_t messageId, std::int32_t gatewayRc, std::string_view requestType);
Flow makeExceptionFlow(std::int32_t messageId, std::string_view text, std::string_view requestType);
Flow makeEciReply(std::int32_t messageId, const EciReply& reply);
Flow makeEsiReply(std::int32_t messageId, const EsiReply& reply);

// A flow as bytes, and the same for what make... gives.
Bytes encodeFlow(const Flow& flow);
Bytes encodeHandshakeAccepted();
Bytes encodeCloseFlow();
Bytes encodePing();
Bytes encodeErrorFlow(std::int32_t messageId, std::int32_t gatewayRc, std::string_view requestType);
Bytes encodeExceptionFlow(std::int32_t messageId, std::string_view text,
                          std::string_view requestType);
Bytes encodeEciReply(std::int32_t messageId, const EciReply& reply);
Bytes encodeEsiReply(std::int32_t messageId, const EsiReply& reply);

// Bodies alone.
Bytes encodeEciReplyBody(const EciReply& reply);
Bytes encodeEsiReplyBody(const EsiReply& reply);
Bytes encodeExceptionBody(std::string_view text);
Bytes encodeSystemEntries(const std::vector<SystemEntry>& systems);

// The flow at the front of a stream of bytes, as far as its framing goes.
struct SplitFlow {
    Flow flow;                  // the header's two lengths are set as they stood on the wire
    std::size_t headerSize = 0; // also the offset of the body
    std::size_t size = 0;       // header and body
};

// Whose flows a stream has, and with it how large their bodies may be.
enum class Stream { Any, ClientBeforeHandshake, ClientBehindHandshake };

// Finds the first flow in `stream`. Nothing when it is not complete yet; MalformedFlow as soon as
// the eyecatcher or one of the two lengths makes it impossible to tell where the flow ends.
std::optional<SplitFlow> splitFlow(const Bytes& stream, Stream kind = Stream::Any);

// Checks all other fields of a header that came from a client: version, flow type, message id,
// gatewayRc, request type, security.
void checkClientHeader(const FlowHeader& header);

// Bodies of what clients send. `bodyOffset` is where the body begins in its flow; the offsets of a
// MalformedFlow start from there.
Handshake decodeHandshake(const Bytes& body, std::size_t bodyOffset);
EciRequest decodeEciRequest(const Bytes& body, std::size_t bodyOffset);
EsiRequest decodeEsiRequest(const Bytes& body, std::size_t bodyOffset);

// Overwrites what a request's flow has of passwords by 0x00. Where a flow is so malformed that it
// cannot be told where they stand, all that may be one is overwritten.
void hidePasswords(Bytes& flow);

// The token of the unit of work that an ECI request names, however malformed it is behind that; 0
// when it names none.
std::int32_t tokenOf(const Flow& request);

// Undoes the scrambling of a password: the first byte is the complement of the clear one, each
// later byte the exclusive or of the clear byte and the clear byte before it.
std::string unmaskPassword(const Bytes& masked);

// A length as it travels; std::length_error when it is larger than that can be.
std::int32_t lengthOnWire(std::size_t size);

// "00 1F A0 ...", and back. fromHex ignores blanks and throws std::invalid_argument for anything
// that is not an even number of hexadecimal digits.
std::string toHex(const Bytes& bytes);
Bytes fromHex(std::string_view text);

} // namespace standin

#endif
