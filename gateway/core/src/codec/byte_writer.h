// Builds a flow field by field, big-endian.
#ifndef STANDIN_BYTE_WRITER_H
#define STANDIN_BYTE_WRITER_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "standin/messages.h"

namespace standin {

class ByteWriter {
public:
    // So many bytes will follow.
    void reserve(std::size_t count) { bytes_.reserve(bytes_.size() + count); }

    void putByte(std::uint8_t value) { bytes_.push_back(value); }
    void putShort(std::uint16_t value);
    void putInt(std::int32_t value);
    void putText(std::string_view text);
    void putBytes(const Bytes& bytes);

    // Exactly `width` bytes: the text, cut or filled up with 0x00.
    void putPadded(std::string_view text, std::size_t width);

    Bytes take() { return std::move(bytes_); }

private:
    Bytes bytes_;
};

} // namespace standin

#endif
