// Takes a flow apart field by field and keeps count of the offset, so that every failure can say at
// which byte of the flow it happened.
#ifndef STANDIN_BYTE_READER_H
#define STANDIN_BYTE_READER_H

#include <cstddef>
#include <cstdint>
#include <string>

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
    std::uint8_t takeByte(const std::string& field);
    std::int16_t takeShort(const std::string& field);
    std::int32_t takeInt(const std::string& field);
    Bytes takeBytes(std::size_t count, const std::string& field);
    std::string takeText(std::size_t count, const std::string& field);

    // A 4-byte length, then that many bytes.
    Bytes takeCounted(const std::string& field);

    // A 4-byte length or count that must not be negative.
    std::int32_t takeLength(const std::string& field);

    // One byte that must be 0xFF (true) or 0x00 (false).
    bool takeFlag(const std::string& field);

    // A fixed field of text filled up with 0x00 bytes; any other byte behind the first 0x00 is
    // malformed.
    std::string takePadded(std::size_t width, const std::string& field);

    // Throws unless every byte has been taken.
    void expectEnd() const;

    std::size_t remaining() const { return bytes_.size() - position_; }

    // Where the next field begins in the flow.
    std::size_t offset() const { return firstOffset_ + position_; }

private:
    void need(std::size_t count, const std::string& field) const;

    const Bytes& bytes_;
    std::size_t firstOffset_;
    std::size_t position_ = 0;
};

} // namespace standin

#endif
