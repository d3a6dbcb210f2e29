#include "codec/byte_reader.h"

#include <algorithm>

namespace standin {

namespace {

[[noreturn]] void complainAboutLength(std::size_t offset, std::string_view field,
                                      std::int32_t length)
{
    throw MalformedFlow(offset,
                        std::string(field) + " is negative (" + std::to_string(length) + ")");
}

} // namespace

void ByteReader::complain(std::size_t count, std::string_view field) const
{
    throw MalformedFlow(offset(), std::string(field) + " needs " + std::to_string(count) +
                                      " bytes but the flow has only " +
                                      std::to_string(remaining()) + " left");
}

std::uint8_t ByteReader::takeByte(std::string_view field)
{
    need(1, field);
    return bytes_[position_++];
}

std::int16_t ByteReader::takeShort(std::string_view field)
{
    need(2, field);
    const auto high = static_cast<std::uint16_t>(bytes_[position_] << 8);
    const auto value = static_cast<std::uint16_t>(high | bytes_[position_ + 1]);
    position_ += 2;
    return static_cast<std::int16_t>(value);
}

std::int32_t ByteReader::takeInt(std::string_view field)
{
    need(4, field);
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i) value = value << 8 | bytes_[position_++];
    return static_cast<std::int32_t>(value);
}

Bytes ByteReader::takeBytes(std::size_t count, std::string_view field)
{
    need(count, field);
    const auto first = bytes_.begin() + static_cast<std::ptrdiff_t>(position_);
    position_ += count;
    return Bytes(first, first + static_cast<std::ptrdiff_t>(count));
}

std::string ByteReader::takeText(std::size_t count, std::string_view field)
{
    need(count, field);
    const auto first = bytes_.begin() + static_cast<std::ptrdiff_t>(position_);
    position_ += count;
    return std::string(first, first + static_cast<std::ptrdiff_t>(count));
}

Bytes ByteReader::takeCounted(std::string_view field)
{
    constexpr std::size_t kLengthSize = 4;
    if (remaining() < kLengthSize) complain(kLengthSize, "length of " + std::string(field));
    const std::size_t start = offset();
    const std::int32_t length = takeInt(field);
    if (length < 0) complainAboutLength(start, "length of " + std::string(field), length);
    return takeBytes(static_cast<std::size_t>(length), field);
}

std::int32_t ByteReader::takeLength(std::string_view field)
{
    const std::size_t start = offset();
    const std::int32_t length = takeInt(field);
    if (length < 0) complainAboutLength(start, field, length);
    return length;
}

bool ByteReader::takeFlag(std::string_view field)
{
    const std::size_t start = offset();
    const std::uint8_t flag = takeByte(field);
    if (flag == 0xFF) return true;
    if (flag == 0x00) return false;
    throw MalformedFlow(start,
                        std::string(field) + " is 0x" + toHex({flag}) + ", neither 0xFF nor 0x00");
}

std::string ByteReader::takePadded(std::size_t width, std::string_view field)
{
    const std::size_t start = offset();
    std::string text = takeText(width, field);
    const std::size_t length = std::min(text.find('\0'), width);
    const std::size_t stray = text.find_first_not_of('\0', length);
    if (stray != std::string::npos) {
        throw MalformedFlow(start + stray,
                            std::string(field) + " has a byte other than 0x00 behind its end");
    }
    text.resize(length);
    return text;
}

void ByteReader::expectEnd() const
{
    if (remaining() == 0) return;
    throw MalformedFlow(offset(), std::to_string(remaining()) + " bytes too many");
}

} // namespace standin
