/*
 * lock_order.h - the order in which the library's locks are taken, and what may be held where a
 * thread comes to wait. A build with QPX_CHECK_LOCKS looks at it at every request of a lock and at
 * every wait, and ends the process with a message where it does not hold; in others all of this is
 * nothing.
 *
 * Each thread knows which locks it holds. One that could not be given up counts as held.
 */
#ifndef LOCK_ORDER_H
#define LOCK_ORDER_H

/*
 * The kinds of locks, in the one order in which a fork takes those of the process. What else may be
 * held when one of them is asked for is told in lock_order.cpp. A lock without a rank may be taken,
 * and held, at any time.
 */
enum LockRank {
    RANK_NONE,
    RANK_INIT,         // initGuard
    RANK_TOKEN_LIST,   // gtlLock
    RANK_TABLE,        // a tableLock
    RANK_CHANNEL_LIST, // chanListLock
    RANK_CHANNEL,      // a serLock
    RANK_SEND,         // a sendLock
    RANK_CONTAINERS,   // containerListGuard
    RANK_WAITERS,      // waitersGuard
    RANK_SOCKETS,      // openSocketsGuard
    RANK_CORRELATOR,   // correlatorLock
    RANK_EVENT,        // the mutex of an event
    RANK_TRACE,        // traceLock
    RANK_DESTINATION   // destinationLock
};

#ifdef QPX_CHECK_LOCKS

/* Before a lock is taken: for a call, and over a fork. */
void clapiCheckRequest(LockRank wanted);
void clapiCheckForkRequest(LockRank wanted);

/* Once a lock has been taken, and once it has been given up: its owner may have freed it. */
void clapiNoteTaken(const void* lock, LockRank rank);
void clapiNoteGivenUp(const void* lock);

/* Before a thread waits for another, with no lock held but for the one named that it gives up
 * meanwhile, or null; and before it waits for a peer, with no lock held but a sendLock. */
void clapiCheckWait(const void* givenUpMeanwhile);
void clapiCheckPeerWait();

#else

inline void clapiCheckRequest(LockRank) {}
inline void clapiCheckForkRequest(LockRank) {}
inline void clapiNoteTaken(const void*, LockRank) {}
inline void clapiNoteGivenUp(const void*) {}
inline void clapiCheckWait(const void*) {}
inline void clapiCheckPeerWait() {}

#endif

#endif
