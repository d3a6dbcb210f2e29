#include "codec/byte_writer.h"

#include <iterator>

namespace standin {

void ByteWriter::putShort(std::uint16_t value)
{
    const std::uint8_t bytes[] = {static_cast<std::uint8_t>(value >> 8U),
                                  static_cast<std::uint8_t>(value & 0xFFU)};
    bytes_.insert(bytes_.end(), std::begin(bytes), std::end(bytes));
}

void ByteWriter::putInt(std::int32_t value)
{
    const auto bits = static_cast<std::uint32_t>(value);
    const std::uint8_t bytes[] = {
        static_cast<std::uint8_t>(bits >> 24U), static_cast<std::uint8_t>(bits >> 16U & 0xFFU),
        static_cast<std::uint8_t>(bits >> 8U & 0xFFU), static_cast<std::uint8_t>(bits & 0xFFU)};
    bytes_.insert(bytes_.end(), std::begin(bytes), std::end(bytes));
}

void ByteWriter::putText(std::string_view text)
{
    bytes_.insert(bytes_.end(), text.begin(), text.end());
}

void ByteWriter::putBytes(const Bytes& bytes)
{
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
}

void ByteWriter::putPadded(std::string_view text, std::size_t width)
{
    const std::string_view kept = text.substr(0, width);
    putText(kept);
    bytes_.insert(bytes_.end(), width - kept.size(), 0x00);
}

} // namespace standin
