// What a fuzzer hands over, byte by byte; zeros once it is over.
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>

class InputBytes {
public:
    InputBytes(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    bool isOver() const { return size_ == 0; }
    std::uint32_t byte()
    {
        if (size_ == 0) return 0;
        size_ -= 1;
        return *data_++;
    }

private:
    const std::uint8_t* data_;
    std::size_t size_;
};

#endif
