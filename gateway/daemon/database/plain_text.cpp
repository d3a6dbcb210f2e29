#include "database/plain_text.h"

#include <cstddef>

namespace plain_text {

namespace {

// U+10FF00 and those behind it, for private use.
constexpr unsigned kFirst = 0x10FF00;

bool isBehind(unsigned byte)
{
    return (byte & 0xC0U) == 0x80U;
}

// How many bytes the character has that begins there; 0 when none does. A NUL is none, and those of
// ours are none: they would come back as the bytes that they stand for.
std::size_t lengthAt(const std::string& text, std::size_t at)
{
    const auto byte = [&text, at](std::size_t offset) {
        return at + offset < text.size() ? static_cast<unsigned char>(text[at + offset]) : 0U;
    };
    const unsigned first = byte(0);
    const unsigned second = byte(1);
    if (first > 0 && first < 0x80) return 1;
    if (first >= 0xC2 && first < 0xE0) return isBehind(byte(1)) ? 2 : 0;
    if (first >= 0xE0 && first < 0xF0) {
        const bool isTooLong = first == 0xE0 && second < 0xA0;
        const bool isSurrogate = first == 0xED && second > 0x9F;
        return isBehind(byte(1)) && isBehind(byte(2)) && !isTooLong && !isSurrogate ? 3 : 0;
    }
    if (first >= 0xF0 && first < 0xF5) {
        const bool isTooLong = first == 0xF0 && second < 0x90;
        const bool isTooLarge = first == 0xF4 && second > 0x8F;
        const bool isOurs = first == 0xF4 && second == 0x8F && byte(2) >= 0xBC;
        const bool isWhole = isBehind(byte(1)) && isBehind(byte(2)) && isBehind(byte(3));
        return isWhole && !isTooLong && !isTooLarge && !isOurs ? 4 : 0;
    }
    return 0;
}

std::string character(unsigned number)
{
    return {static_cast<char>(0xF0U | (number >> 18U)),
            static_cast<char>(0x80U | ((number >> 12U) & 0x3FU)),
            static_cast<char>(0x80U | ((number >> 6U) & 0x3FU)),
            static_cast<char>(0x80U | (number & 0x3FU))};
}

} // namespace

std::string fromBytes(const std::string& bytes)
{
    std::string text;
    for (std::size_t at = 0; at < bytes.size();) {
        const std::size_t length = lengthAt(bytes, at);
        if (length == 0)
            text += character(kFirst + static_cast<unsigned char>(bytes[at]));
        else
            text.append(bytes, at, length);
        at += length == 0 ? 1 : length;
    }
    return text;
}

std::string toBytes(const std::string& text)
{
    std::string bytes;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const bool isOurs = text.compare(at, 2, "\xF4\x8F") == 0 && at + 3 < text.size() &&
                            static_cast<unsigned char>(text[at + 2]) >= 0xBCU;
        if (!isOurs) {
            bytes += text[at];
            continue;
        }
        const unsigned high = static_cast<unsigned char>(text[at + 2]) & 0x03U;
        const unsigned low = static_cast<unsigned char>(text[at + 3]) & 0x3FU;
        bytes += static_cast<char>((high << 6U) | low);
        at += 3;
    }
    return bytes;
}

} // namespace plain_text
