// Bytes that one side sends, on their way to becoming flows. What has been taken out leaves nothing
// behind in memory, since there may be a password in it.
//
// Thread: one at a time.
#ifndef GATEWAY_FLOW_STREAM_H
#define GATEWAY_FLOW_STREAM_H

#include <cstddef>
#include <cstdint>
#include <optional>

#include "standin/wire.h"

namespace record {

// Overwrites the bytes.
void wipe(standin::Bytes& bytes);

class FlowStream {
public:
    FlowStream() = default;
    ~FlowStream() { clear(); }

    FlowStream(const FlowStream&) = delete;
    FlowStream& operator=(const FlowStream&) = delete;

    void add(const std::uint8_t* bytes, std::size_t count);

    // The next flow, when it is whole. Throws MalformedFlow when where it ends cannot be told.
    std::optional<standin::SplitFlow> next();

    // What is not yet a whole flow.
    const standin::Bytes& unread() const { return unread_; }
    void clear();

    // Where flows begin cannot be told any more.
    void giveUp();
    bool isReadable() const { return isReadable_; }

private:
    standin::Bytes unread_;
    bool isReadable_ = true;
};

} // namespace record

#endif
