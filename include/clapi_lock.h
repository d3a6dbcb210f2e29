/*
 * clapi_lock.h - the primitives that guard every shared structure: Clapilock, a mutex that knows
 * whether it has been initialised, ClapiEvent, a gate on which threads wait, and ProcessLock, which
 * a few modules have for themselves.
 *
 * All operations of the first two return 0 for success and -1 for failure, and clapiInitializeLock
 * also 1 for a lock that is initialised already. Failures are told by the trace only.
 *
 * Lock order of the library: gtlLock, then a token's tableLock, then chanListLock, then a channel's
 * serLock; sendLock never together with tableLock; traceLock innermost.
 * gtlLock and tableLock are never held across a wait.
 */
#ifndef CLAPI_LOCK_H
#define CLAPI_LOCK_H

#include <pthread.h>

#include "lock_annotations.h"
#include "lock_order.h"

/* Values of Clapilock's state word; every other value means never initialised. */
constexpr int LOCK_INITIALIZED = static_cast<int>(0xFFEEDDCC);
constexpr int LOCK_DESTROYED = static_cast<int>(0xCCDDEEFF);

/* A mutex embedded in its owner, who destroys it before the owner's storage goes. */
typedef struct IS_A_LOCK _Clapilock {
    pthread_mutex_t lock; // not recursive
    int initialized;      // LOCK_INITIALIZED while the mutex exists
#ifdef QPX_CHECK_LOCKS
    LockRank rank; // where it stands in the order
#endif
} Clapilock;

int clapiInitializeLock(Clapilock* lockPtr);
int clapiRequestLock(Clapilock* lockPtr) ACQUIRES_IF_ZERO(lockPtr);
int clapiReleaseLock(Clapilock* lockPtr) RELEASES(lockPtr);
int clapiIsLockInitialized(Clapilock* lockPtr); // the raw state word
int clapiDestroyLock(Clapilock* lockPtr);

/* As clapiRequestLock of a lock that is not initialised, for an address at which its caller knows
 * that there is no lock, and perhaps no memory. */
void clapiRefuseLock(const Clapilock* lockPtr);

/* A lock of the process that is there from the start. It cannot fail, and writes no line. */
struct IS_A_LOCK ProcessLock {
    explicit constexpr ProcessLock([[maybe_unused]] LockRank rankOfIt)
#ifdef QPX_CHECK_LOCKS
        : rank(rankOfIt)
#endif
    {
    }

    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
#ifdef QPX_CHECK_LOCKS
    LockRank rank;
#endif
};

/* Gives a lock that has been initialised its place in the order; until then it has none. */
inline void clapiRankLock([[maybe_unused]] Clapilock* lockPtr, [[maybe_unused]] LockRank rank)
{
#ifdef QPX_CHECK_LOCKS
    lockPtr->rank = rank;
#endif
}

template <typename Lock>
LockRank clapiRankOf([[maybe_unused]] const Lock* lockPtr)
{
#ifdef QPX_CHECK_LOCKS
    return lockPtr->rank;
#else
    return RANK_NONE;
#endif
}

/* All that follows is part of its caller, as the calls of the system that it makes are. */

[[gnu::always_inline]] inline void clapiTake(ProcessLock* lockPtr) ACQUIRES(lockPtr)
    NOT_ANALYSED("it is the lock")
{
    clapiCheckRequest(clapiRankOf(lockPtr));
    pthread_mutex_lock(&lockPtr->mutex);
    clapiNoteTaken(lockPtr, clapiRankOf(lockPtr));
}

[[gnu::always_inline]] inline void clapiGiveUp(ProcessLock* lockPtr) RELEASES(lockPtr)
    NOT_ANALYSED("it is the lock")
{
    pthread_mutex_unlock(&lockPtr->mutex);
    clapiNoteGivenUp(lockPtr);
}

/* Sleeps once, until the condition is signalled or for no reason; the lock, which the caller has,
 * is given up meanwhile. Nothing else may be held. */
[[gnu::always_inline]] inline void clapiSleep(pthread_cond_t* condPtr, Clapilock* lockPtr)
    NEEDS_LOCK(lockPtr)
{
    clapiCheckWait(lockPtr);
    pthread_cond_wait(condPtr, &lockPtr->lock);
}

[[gnu::always_inline]] inline void clapiSleep(pthread_cond_t* condPtr, ProcessLock* lockPtr)
    NEEDS_LOCK(lockPtr)
{
    clapiCheckWait(lockPtr);
    pthread_cond_wait(condPtr, &lockPtr->mutex);
}

/* Taking and giving up over a fork, in whose handlers nothing is traced. The order is then that of
 * the ranks alone. Returns 0 or, for a Clapilock, an error number. */
[[gnu::always_inline]] inline int clapiTakeForFork(Clapilock* lockPtr) ACQUIRES(lockPtr)
    NOT_ANALYSED("it is the lock")
{
    clapiCheckForkRequest(clapiRankOf(lockPtr));
    int rc = pthread_mutex_lock(&lockPtr->lock);
    if (rc == 0) clapiNoteTaken(lockPtr, clapiRankOf(lockPtr));
    return rc;
}

[[gnu::always_inline]] inline void clapiTakeForFork(ProcessLock* lockPtr) ACQUIRES(lockPtr)
    NOT_ANALYSED("it is the lock")
{
    clapiCheckForkRequest(clapiRankOf(lockPtr));
    pthread_mutex_lock(&lockPtr->mutex);
    clapiNoteTaken(lockPtr, clapiRankOf(lockPtr));
}

[[gnu::always_inline]] inline void clapiGiveUpAfterFork(Clapilock* lockPtr) RELEASES(lockPtr)
    NOT_ANALYSED("it is the lock")
{
    pthread_mutex_unlock(&lockPtr->lock);
    clapiNoteGivenUp(lockPtr);
}

/*
 * A manual gate for any number of waiters. Deliberate: "set" closes the gate, so that later waits
 * block (it arms the event), and "clear" opens it and releases every waiter (it posts the event).
 * What is set is the wait: whoever needs something sets the event first, and who provides it clears
 * it; trace lines say so, too. A cleared gate stays open until the next set.
 */
typedef struct _ClapiEvent {
    int eflag;             // guarded by mutex: 0 closed, 1 open
    pthread_mutex_t mutex; // held for a few instructions only
    pthread_cond_t cond;
    int postCount; // guarded by mutex: how often the gate has been opened
} ClapiEvent;

int clapiCreateEvent(ClapiEvent* eventPtr); // the event starts closed
int clapiDeleteEvent(ClapiEvent* eventPtr);
int clapiSetEvent(ClapiEvent* eventPtr);   // closes the gate
int clapiClearEvent(ClapiEvent* eventPtr); // opens the gate

/*
 * clapiClearEvent in two steps, for a thread that holds a lock which those who wait want next: it
 * opens the gate with the lock held and wakes them when it has given it up. Between the two whoever
 * comes to wait goes through. The event must be there for the second step, whatever those have done
 * meanwhile whom the first has let through.
 */
void clapiOpenEvent(ClapiEvent* eventPtr);
void clapiWakeWaiters(ClapiEvent* eventPtr);

/*
 * clapiCreateEvent and clapiDeleteEvent for each use of an event that stays between its uses: they
 * write the lines of those two. The first closes the gate. The third deletes such an event, and
 * writes none.
 */
void clapiRenewEvent(ClapiEvent* eventPtr);
void clapiRestEvent(ClapiEvent* eventPtr);
void clapiDiscardEvent(ClapiEvent* eventPtr);

/* Blocks until the gate is open. */
int clapiWaitEvent(ClapiEvent* eventPtr);

/* Blocks until the gate is open or timeout seconds have passed; *expired tells which. */
int clapiTimedWaitEvent(ClapiEvent* eventPtr, int timeout, int* expired);

/* How often the gate has been opened so far; for clapiWaitEventSince. */
int clapiEventGeneration(ClapiEvent* eventPtr);

/*
 * As clapiWaitEvent for a caller that read the generation while it still held the lock under
 * which the event is posted: an opening since then ends the wait, even if the gate has been
 * closed again before this thread came to wait.
 */
int clapiWaitEventSince(ClapiEvent* eventPtr, int generation);

/* Tells a LockGuard that its caller has taken the lock. */
enum AlreadyHeld { ALREADY_HELD };

/*
 * A lock held within one scope, taken by the constructor or before it. Where the release can fail
 * and must be reported, call release and look at its result; the destructor releases what is
 * still held.
 */
class HOLDS_A_LOCK LockGuard {
public:
    explicit LockGuard(Clapilock& lock) ACQUIRES(lock)
        : lockPtr(&lock), isHeld(clapiRequestLock(&lock) == 0)
    {
    }
    LockGuard(Clapilock& lock, AlreadyHeld) NEEDS_LOCK(lock) : lockPtr(&lock), isHeld(true) {}
    ~LockGuard() RELEASES()
    {
        if (isHeld) clapiReleaseLock(lockPtr);
    }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

    bool held() const { return isHeld; }

    /* Takes the lock again after a release: 0 or -1. */
    int request() ACQUIRES()
    {
        int rc = clapiRequestLock(lockPtr);
        isHeld = rc == 0;
        return rc;
    }

    /* A lock that could not be released is still held, and the destructor tries again (a second
     * failure is traced again). */
    int release() RELEASES()
    {
        int rc = clapiReleaseLock(lockPtr);
        isHeld = rc != 0;
        return rc;
    }

private:
    Clapilock* lockPtr;
    bool isHeld;
};

#endif
