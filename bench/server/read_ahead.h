// What has come on a connection, read with as few recv as possible: one takes all that is there,
// and only a flow that has not come whole takes another.
#pragma once

#include "../common/wire.h"

#include <memory>

namespace bench {

// A flow in the buffer of its reader; valid until the next is taken.
struct Flow {
    FlowType type;
    std::uint32_t id;
    bool isPasswordRequest;
    char* body;
    std::size_t bodySize;
};

class ReadAhead {
public:
    explicit ReadAhead(int socket) : socket_(socket) {}

    // Takes the next flow; false at the end of the connection.
    bool next(Flow* flow);

private:
    std::size_t there() const { return end_ - begin_; }
    std::size_t sizeOfNext() const;
    void makeRoomFor(std::size_t flowSize);

    // Room for a flow with the largest COMMAREA; untouched pages of it cost nothing.
    static constexpr std::size_t usualCapacity = 40 * 1024;

    int socket_;
    std::size_t capacity_ = usualCapacity;
    std::unique_ptr<char[]> buffer_{new char[usualCapacity]};
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};

} // namespace bench
