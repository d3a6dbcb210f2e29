// Takes a flow apart field by field and keeps count of the offset, so that every failure can say at
// which byte of the flow it happened.
#ifndef STANDIN_BYTE_READER_H
#define STANDIN_BYTE_READER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "standin/wire.h"

namespace standin {

class ByteReader {
public:
    // Reads `bytes`, which begin at `firstOffset` of their flow and must outlive the reader.
    ByteReader(const Bytes& bytes, std::size_t firstOffset)
        : bytes_(bytes), firstOffset_(firstOffset)
    {
    }

    // Each throws MalformedFlow when the bytes end inside the field, which `field` names.
    std::uint8_t takeByte(std::string_view field);
    std::int16_t takeShort(std::string_view field);
    std::int32_t takeInt(std::string_view field);
    Bytes takeBytes(std::size_t count, std::string_view field);
    std::string takeText(std::size_t count, std::string_view field);

    // A 4-byte length, then that many bytes.
    Bytes takeCounted(std::string_view field);

    // A 4-byte length or count that must not be negative.
    std::int32_t takeLength(std::string_view field);

    // One byte that must be 0xFF (true) or 0x00 (false).
    bool takeFlag(std::string_view field);

    // A fixed field of text filled up with 0x00 bytes; any other byte behind the first 0x00 is
    // malformed.
    std::string takePadded(std::size_t width, std::string_view field);

    // Throws unless every byte has been taken.
    void expectEnd() const;

    std::size_t remaining() const { return bytes_.size() - position_; }

    // Where the next field begins in the flow.
    std::size_t offset() const { return firstOffset_ + position_; }

private:
    void need(std::size_t count, std::string_view field) const
    {
        if (count > remaining()) complain(count, field);
    }
    [[noreturn]] void complain(std::size_t count, std::string_view field) const;

    const Bytes& bytes_;
    std::size_t firstOffset_;
    std::size_t position_ = 0;
};

} // namespace standin

#endif
