// The blocks of memory that the library has allocated and not freed yet.
//
//     LiveBlocks blocks;            // from here on
//     ... calls ...
//     EXPECT_EQ(0, blocks.count());
//
// One at a time. Belongs to unit_tests only; see support/wrapped_calls.cmake.
#ifndef SUPPORT_LIVE_BLOCKS_H
#define SUPPORT_LIVE_BLOCKS_H

#include "support/faults.h"

namespace support {

class LiveBlocks {
public:
    LiveBlocks();
    ~LiveBlocks();
    LiveBlocks(const LiveBlocks&) = delete;
    LiveBlocks& operator=(const LiveBlocks&) = delete;

    int count() const;
    int allocations() const { return allocating_.calls(); } // made so far

private:
    Fault allocating_;
};

} // namespace support

#endif
