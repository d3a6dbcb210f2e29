/*
 * held_locks.h - the locks that a thread holds, as a build with QPX_CHECK_LOCKS keeps them. A test
 * that has several threads of control in one thread gives each its own.
 */
#ifndef HELD_LOCKS_H
#define HELD_LOCKS_H

#include "lock_order.h"

#ifdef QPX_CHECK_LOCKS

/* No thread holds more, not even over a fork. */
constexpr int MOST_HELD = 16;

struct HeldLock {
    const void* lock;
    LockRank rank;
};

struct HeldLocks {
    HeldLock locks[MOST_HELD];
    int count;
};

/* Exchanges the locks of this thread for others. */
void clapiExchangeHeldLocks(HeldLocks* others);

#else

struct HeldLocks {};

inline void clapiExchangeHeldLocks(HeldLocks*) {}

#endif

#endif
