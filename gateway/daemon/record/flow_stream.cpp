#include "record/flow_stream.h"

#include <string.h>

#include <algorithm>
#include <utility>

namespace record {

using standin::Bytes;
using standin::SplitFlow;

namespace {

constexpr std::size_t kMostRoom = 1024 * 1024; // that a large flow leaves behind

// Cuts bytes off the front, and leaves nothing of them behind.
void cutOff(Bytes& bytes, std::size_t count)
{
    const auto end = bytes.begin() + static_cast<std::ptrdiff_t>(count);
    const auto stale = std::move(end, bytes.end(), bytes.begin());
    std::fill(stale, bytes.end(), std::uint8_t{0});
    bytes.erase(stale, bytes.end());
    if (bytes.capacity() > kMostRoom) bytes.shrink_to_fit();
}

} // namespace

void wipe(Bytes& bytes)
{
    if (!bytes.empty()) ::explicit_bzero(bytes.data(), bytes.size());
}

void FlowStream::add(const std::uint8_t* bytes, std::size_t count)
{
    // No room that is given up keeps a password.
    if (unread_.size() + count > unread_.capacity()) {
        Bytes larger;
        larger.reserve(2 * (unread_.size() + count));
        larger.assign(unread_.begin(), unread_.end());
        wipe(unread_);
        unread_ = std::move(larger);
    }
    unread_.insert(unread_.end(), bytes, bytes + count);
}

std::optional<SplitFlow> FlowStream::next()
{
    std::optional<SplitFlow> split = standin::splitFlow(unread_);
    if (split) cutOff(unread_, split->size);
    return split;
}

void FlowStream::clear()
{
    wipe(unread_);
    unread_.clear();
}

void FlowStream::giveUp()
{
    clear();
    unread_ = {};
    isReadable_ = false;
}

} // namespace record
