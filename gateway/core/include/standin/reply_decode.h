// Replies to requests, for whoever stands between a client and a Gateway: bytes back to the records
// of messages.h.
//
// Everything here is a pure function.
#ifndef STANDIN_REPLY_DECODE_H
#define STANDIN_REPLY_DECODE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "standin/messages.h"

namespace standin {

// Bodies of replies. `bodyOffset` is where the body begins in its flow; a MalformedFlow says at
// which byte of the flow it is none. The extend mode is that of the request, since a reply does not
// tell whether it has a COMMAREA.
EciReply decodeEciReply(const Bytes& body, std::size_t bodyOffset, std::int32_t extendMode);
EsiReply decodeEsiReply(const Bytes& body, std::size_t bodyOffset);
std::string decodeExceptionText(const Bytes& body, std::size_t bodyOffset);

} // namespace standin

#endif
