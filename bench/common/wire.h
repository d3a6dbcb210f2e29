// The flows that the bench writes and reads itself, without the library, as docs/protocol.md has
// them. Numbers are big-endian.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace bench {

enum FlowType : std::uint32_t { requestFlow = 1, replyFlow = 3, handshakeFlow = 5, closeFlow = 10 };

// A header ends with its request type, a byte, and the length of the body.
constexpr std::size_t messageIdOffset = 12;
constexpr std::size_t requestTypeOffset = 24;
constexpr std::size_t callHeaderSize = requestTypeOffset + 3 + 1 + 4;

// What stands before the COMMAREA of a call and behind it.
constexpr std::size_t requestHeadSize = callHeaderSize + 71;
constexpr std::size_t requestTailSize = 12;
constexpr std::size_t replyHeadSize = callHeaderSize + 25;
constexpr std::size_t replyTailSize = 1;

inline std::uint32_t intAt(const char* at)
{
    std::uint32_t value;
    std::memcpy(&value, at, sizeof value);
    return __builtin_bswap32(value);
}

inline void putInt(char* at, std::uint32_t value)
{
    value = __builtin_bswap32(value);
    std::memcpy(at, &value, sizeof value);
}

// Bytes that grow field by field.
class Bytes : public std::string {
public:
    Bytes& number(std::uint32_t value)
    {
        char field[4];
        putInt(field, value);
        append(field, sizeof field);
        return *this;
    }
    Bytes& text(const std::string& value, std::size_t width, char pad)
    {
        const std::size_t used = std::min(width, value.size());
        append(value, 0, used);
        append(width - used, pad);
        return *this;
    }
    Bytes& fill(std::size_t count, char value)
    {
        append(count, value);
        return *this;
    }
    Bytes& header(FlowType type, std::uint32_t id, const std::string& requestType,
                  std::size_t bodySize)
    {
        append("Gate\x10\xA0\x10\x00", 8);
        number(type).number(id).number(0);
        number(static_cast<std::uint32_t>(requestType.size()));
        append(requestType);
        append(1, '\0');
        return number(static_cast<std::uint32_t>(bodySize));
    }
};

// A call of ECHO with a COMMAREA of that size: byte for byte what the library sends for one.
Bytes callOfEcho(std::size_t commareaSize);

inline std::size_t replySize(std::size_t commareaSize)
{
    return replyHeadSize + commareaSize + replyTailSize;
}

} // namespace bench
