// The blocks of memory that the library has allocated and not freed yet.
//
//     LiveBlocks blocks;            // from here on
//     ... calls ...
//     EXPECT_EQ(0, blocks.count());
//
// Belongs to unit_tests only; see support/faults.h.
#ifndef SUPPORT_LIVE_BLOCKS_H
#define SUPPORT_LIVE_BLOCKS_H

#include <cstdint>
#include <mutex>
#include <set>

#include "support/faults.h"

namespace support {

class LiveBlocks {
public:
    int count() const
    {
        std::lock_guard<std::mutex> guard(mutex_);
        return static_cast<int>(live_.size());
    }

private:
    void note(const CallInfo& info)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        live_.erase(info.first); // where realloc has moved it from
        if (info.result != 0) live_.insert(static_cast<std::uintptr_t>(info.result));
    }

    void forget(const CallInfo& info)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        live_.erase(info.first);
    }

    mutable std::mutex mutex_;
    std::set<std::uintptr_t> live_;
    Fault allocating_ = afterCall(Call::Malloc, 0, [this](const CallInfo& info) { note(info); });
    Fault freeing_ = beforeCall(Call::Free, 0, [this](const CallInfo& info) { forget(info); });
};

} // namespace support

#endif
