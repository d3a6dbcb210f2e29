// Bytes as tests write them out by hand: hexadecimal, text, and big-endian numbers.
#ifndef SUPPORT_BYTES_H
#define SUPPORT_BYTES_H

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace support {

using Bytes = std::vector<unsigned char>;

inline int hexDigit(char digit)
{
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    throw std::invalid_argument(std::string("not a hexadecimal digit: ") + digit);
}

// Bytes from hexadecimal digits; blanks and line ends between them count for nothing.
inline Bytes hex(const std::string& digits)
{
    Bytes bytes;
    int high = -1;
    for (char digit : digits) {
        if (digit == ' ' || digit == '\n' || digit == '\t') continue;
        if (high < 0) {
            high = hexDigit(digit);
        } else {
            bytes.push_back(static_cast<unsigned char>(high * 16 + hexDigit(digit)));
            high = -1;
        }
    }
    if (high >= 0) throw std::invalid_argument("odd number of hexadecimal digits");
    return bytes;
}

// The characters of a text, without a terminator.
inline Bytes text(const std::string& characters)
{
    return Bytes(characters.begin(), characters.end());
}

// The same byte, count times.
inline Bytes filled(std::size_t count, unsigned char value = 0)
{
    return Bytes(count, value);
}

// A text in a field of fixed width, the rest filled.
inline Bytes padded(const std::string& characters, std::size_t width, unsigned char fill = 0)
{
    Bytes field = text(characters);
    if (field.size() > width) throw std::invalid_argument("longer than its field: " + characters);
    field.resize(width, fill);
    return field;
}

// Signed numbers, most significant byte first.
inline Bytes be32(int value)
{
    auto number = static_cast<std::uint32_t>(value);
    return Bytes{static_cast<unsigned char>(number >> 24U),
                 static_cast<unsigned char>((number >> 16U) & 0xFFU),
                 static_cast<unsigned char>((number >> 8U) & 0xFFU),
                 static_cast<unsigned char>(number & 0xFFU)};
}

inline Bytes be16(int value)
{
    auto number = static_cast<std::uint32_t>(value);
    return Bytes{static_cast<unsigned char>((number >> 8U) & 0xFFU),
                 static_cast<unsigned char>(number & 0xFFU)};
}

inline Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes& operator+=(Bytes& left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// count bytes from an offset on; throws when they are not all there.
inline Bytes slice(const Bytes& bytes, std::size_t offset, std::size_t count)
{
    if (offset > bytes.size() || count > bytes.size() - offset)
        throw std::out_of_range("slice beyond the end");
    auto first = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
    return Bytes(first, first + static_cast<std::ptrdiff_t>(count));
}

// A signed 32-bit number out of bytes.
inline int int32At(const Bytes& bytes, std::size_t offset)
{
    std::uint32_t number = 0;
    for (unsigned char byte : slice(bytes, offset, 4)) number = (number << 8U) | byte;
    return static_cast<int>(number);
}

// Upper case, a blank after every fourth byte.
inline std::string toHex(const Bytes& bytes)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string shown;
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        if (at != 0 && at % 4 == 0) shown += ' ';
        shown += digits[bytes[at] >> 4U];
        shown += digits[bytes[at] & 0x0FU];
    }
    return shown;
}

inline std::string toText(const Bytes& bytes)
{
    return std::string(bytes.begin(), bytes.end());
}

} // namespace support

using support::operator+;

#endif
