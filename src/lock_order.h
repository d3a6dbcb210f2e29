/*
 * lock_order.h - the order of locks, looked at by a build with QPX_CHECK_LOCKS.
 *
 * Each thread knows which locks it holds. A lock that could not be given up counts as held.
 */
#ifndef LOCK_ORDER_H
#define LOCK_ORDER_H

#include "clapi_lock.h"

#ifdef QPX_CHECK_LOCKS
/* Before a lock is taken, and once it has been. */
void clapiCheckRequest(const Clapilock* lockPtr);
void clapiNoteTaken(const Clapilock* lockPtr);

/* Once a lock has been given up: its owner may have freed it. */
void clapiNoteGivenUp(const Clapilock* lockPtr);
#else
inline void clapiCheckRequest(const Clapilock*) {}
inline void clapiNoteTaken(const Clapilock*) {}
inline void clapiNoteGivenUp(const Clapilock*) {}
#endif

#endif
