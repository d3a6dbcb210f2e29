#include "read_ahead.h"

#include <sys/socket.h>

namespace bench {

namespace {

constexpr std::size_t typeOffset = 8;
constexpr std::size_t requestTypeLengthOffset = 20;

std::size_t headerSizeAt(const char* flow)
{
    return requestTypeOffset + intAt(flow + requestTypeLengthOffset) + 1 + 4;
}

} // namespace

// The whole size of the flow in front, or as much as must be there before it can be told.
std::size_t ReadAhead::sizeOfNext() const
{
    const char* flow = buffer_.get() + begin_;
    if (there() < requestTypeOffset) return requestTypeOffset;
    const std::size_t headerSize = headerSizeAt(flow);
    if (there() < headerSize) return headerSize;
    return headerSize + intAt(flow + headerSize - 4);
}

void ReadAhead::makeRoomFor(std::size_t flowSize)
{
    if (begin_ + flowSize <= capacity_ && end_ < capacity_) return;
    if (flowSize > capacity_) {
        std::unique_ptr<char[]> larger(new char[flowSize]);
        std::memcpy(larger.get(), buffer_.get() + begin_, there());
        buffer_ = std::move(larger);
        capacity_ = flowSize;
    } else {
        std::memmove(buffer_.get(), buffer_.get() + begin_, there());
    }
    end_ = there();
    begin_ = 0;
}

bool ReadAhead::next(Flow* flow)
{
    if (begin_ == end_) begin_ = end_ = 0;
    std::size_t size = sizeOfNext();
    while (there() < size) {
        makeRoomFor(size);
        const ssize_t received = recv(socket_, buffer_.get() + end_, capacity_ - end_, 0);
        if (received <= 0) return false;
        end_ += static_cast<std::size_t>(received);
        size = sizeOfNext();
    }
    char* const start = buffer_.get() + begin_;
    const std::size_t headerSize = headerSizeAt(start);
    flow->type = static_cast<FlowType>(intAt(start + typeOffset));
    flow->id = intAt(start + messageIdOffset);
    flow->isPasswordRequest = std::memcmp(start + requestTypeOffset, "ESI", 3) == 0;
    flow->body = start + headerSize;
    flow->bodySize = size - headerSize;
    begin_ += size;
    return true;
}

} // namespace bench
