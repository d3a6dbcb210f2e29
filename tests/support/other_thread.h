// What a hook does in a thread of the library, in the place of another thread: locks that the
// library holds there are not its own, and it may take them and wait.
//
//     OtherThread acting;
//     EXPECT_EQ(0, clapiWaitEvent(&event));
#ifndef SUPPORT_OTHER_THREAD_H
#define SUPPORT_OTHER_THREAD_H

#include "held_locks.h"

namespace support {

class OtherThread {
public:
    OtherThread() { clapiExchangeHeldLocks(&held_); }
    ~OtherThread() { clapiExchangeHeldLocks(&held_); }
    OtherThread(const OtherThread&) = delete;
    OtherThread& operator=(const OtherThread&) = delete;

private:
    HeldLocks held_ = {};
};

} // namespace support

#endif
