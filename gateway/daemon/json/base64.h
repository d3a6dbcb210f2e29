// Bytes as Base64 (RFC 4648, with padding), as JSON takes them.
//
// Thread: any.
#ifndef GATEWAY_BASE64_H
#define GATEWAY_BASE64_H

#include <string>
#include <string_view>

#include "standin/messages.h"

namespace base64 {

std::string encode(const standin::Bytes& bytes);

// std::invalid_argument for what encode() does not give.
standin::Bytes decode(std::string_view text);

} // namespace base64

#endif
