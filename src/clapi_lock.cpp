/*
 * Locks and events. A lock's failures are traced without the trace lock, which is itself such a
 * lock; the events trace like everyone else. An event's mutex is held for the few instructions
 * that look at the gate, and while a failed wait is traced; its results are not checked.
 */
#include "clapi_lock.h"

#include <sys/time.h>

#include <cerrno>

#include "clapi_diag.h"
#include "schedule_points.h"
#include "trace_points/clapi_lock.h"

/* ---- Locks ---- */

static bool isInitialized(const Clapilock* lockPtr)
{
    return lockPtr->initialized == LOCK_INITIALIZED;
}

int clapiInitializeLock(Clapilock* lockPtr)
{
    namespace at = tp::clapiInitializeLock;

    if (isInitialized(lockPtr)) return 1;

    int mutexRc = pthread_mutex_init(&lockPtr->lock, nullptr);
    if (mutexRc != 0) {
        TRACE_UNLOCKED(at::failed, &lockPtr->lock, mutexRc, errno);
        return -1;
    }
    lockPtr->initialized = LOCK_INITIALIZED;
    clapiRankLock(lockPtr, RANK_NONE);
    return 0;
}

int clapiRequestLock(Clapilock* lockPtr)
{
    namespace at = tp::clapiRequestLock;

    if (!isInitialized(lockPtr)) {
        TRACE_UNLOCKED(at::notInitialized, lockPtr);
        return -1;
    }
    clapiCheckRequest(clapiRankOf(lockPtr));
    if (pthread_mutex_lock(&lockPtr->lock) != 0) {
        TRACE_UNLOCKED(at::failed, lockPtr, errno);
        return -1;
    }
    clapiNoteTaken(lockPtr, clapiRankOf(lockPtr));
    return 0;
}

int clapiReleaseLock(Clapilock* lockPtr) NOT_ANALYSED("it is the lock")
{
    namespace at = tp::clapiReleaseLock;

    if (!isInitialized(lockPtr)) {
        TRACE_UNLOCKED(at::notInitialized, lockPtr);
        return -1;
    }
    if (pthread_mutex_unlock(&lockPtr->lock) != 0) {
        SCHEDULE_POINT(releaseRefused, lockPtr);
        TRACE_UNLOCKED(at::failed, lockPtr, errno);
        return -1;
    }
    clapiNoteGivenUp(lockPtr);
    SCHEDULE_POINT(lockReleased, lockPtr);
    return 0;
}

int clapiIsLockInitialized(Clapilock* lockPtr)
{
    return lockPtr->initialized;
}

int clapiDestroyLock(Clapilock* lockPtr)
{
    namespace at = tp::clapiDestroyLock;

    if (!isInitialized(lockPtr)) {
        TRACE_UNLOCKED(at::notInitialized, lockPtr);
        return -1;
    }
    if (pthread_mutex_destroy(&lockPtr->lock) != 0) {
        TRACE_UNLOCKED(at::failed, lockPtr, errno);
        return -1;
    }
    lockPtr->initialized = LOCK_DESTROYED;
    return 0;
}

void clapiRefuseLock(const Clapilock* lockPtr)
{
    namespace at = tp::clapiRequestLock;

    TRACE_UNLOCKED(at::notInitialized, lockPtr);
}

/* ---- Events ---- */

static void takeMutex(ClapiEvent* eventPtr)
{
    clapiCheckRequest(RANK_EVENT);
    pthread_mutex_lock(&eventPtr->mutex);
    clapiNoteTaken(&eventPtr->mutex, RANK_EVENT);
}

static void giveUpMutex(ClapiEvent* eventPtr)
{
    pthread_mutex_unlock(&eventPtr->mutex);
    clapiNoteGivenUp(&eventPtr->mutex);
}

int clapiCreateEvent(ClapiEvent* eventPtr)
{
    namespace at = tp::clapiCreateEvent;

    TRACE(at::entry, eventPtr);
    eventPtr->eflag = 0;
    eventPtr->postCount = 0;

    int rc = pthread_mutex_init(&eventPtr->mutex, nullptr);
    if (rc != 0) {
        TRACE(at::noMutex, rc);
        return -1;
    }
    rc = pthread_cond_init(&eventPtr->cond, nullptr);
    if (rc != 0) {
        TRACE(at::noCond, rc);
        pthread_mutex_destroy(&eventPtr->mutex);
        return -1;
    }
    return 0;
}

int clapiDeleteEvent(ClapiEvent* eventPtr)
{
    namespace at = tp::clapiDeleteEvent;

    TRACE(at::entry, eventPtr);
    int mutexRc = pthread_mutex_destroy(&eventPtr->mutex);
    if (mutexRc != 0) TRACE(at::mutexFailed, mutexRc);

    int condRc = pthread_cond_destroy(&eventPtr->cond);
    if (condRc != 0) TRACE(at::condFailed, condRc);

    eventPtr->eflag = 0;
    eventPtr->postCount = 0;
    return mutexRc == 0 && condRc == 0 ? 0 : -1;
}

void clapiRenewEvent(ClapiEvent* eventPtr)
{
    namespace at = tp::clapiCreateEvent;

    TRACE(at::entry, eventPtr);
    eventPtr->eflag = 0; // between two uses nobody looks at it
}

void clapiRestEvent(ClapiEvent* eventPtr)
{
    namespace at = tp::clapiDeleteEvent;

    TRACE(at::entry, eventPtr);
}

void clapiDiscardEvent(ClapiEvent* eventPtr)
{
    pthread_mutex_destroy(&eventPtr->mutex);
    pthread_cond_destroy(&eventPtr->cond);
}

/* Sleeps until the gate is opened once more. Deliberate: the generation is tested, not the gate,
 * so that a waiter leaves even if the gate has been closed again before it ran.
 * Locks: the event's mutex held. */
static int sleepWhileGeneration(ClapiEvent* eventPtr, int waitCount)
{
    namespace at = tp::clapiWaitEvent;

    while (eventPtr->postCount == waitCount) {
        int rc = pthread_cond_wait(&eventPtr->cond, &eventPtr->mutex);
        if (rc != 0) {
            TRACE(at::failed, rc);
            return -1;
        }
    }
    return 0;
}

int clapiWaitEvent(ClapiEvent* eventPtr)
{
    namespace at = tp::clapiWaitEvent;

    TRACE(at::entry, eventPtr);
    clapiCheckWait(nullptr);
    takeMutex(eventPtr);
    int rc = 0;
    if (eventPtr->eflag == 0) rc = sleepWhileGeneration(eventPtr, eventPtr->postCount);
    giveUpMutex(eventPtr);
    return rc;
}

int clapiWaitEventSince(ClapiEvent* eventPtr, int generation)
{
    namespace at = tp::clapiWaitEvent;

    TRACE(at::entry, eventPtr);
    clapiCheckWait(nullptr);
    takeMutex(eventPtr);
    int rc = 0;
    if (eventPtr->eflag == 0) rc = sleepWhileGeneration(eventPtr, generation);
    giveUpMutex(eventPtr);
    return rc;
}

int clapiEventGeneration(ClapiEvent* eventPtr)
{
    takeMutex(eventPtr);
    int generation = eventPtr->postCount;
    giveUpMutex(eventPtr);
    return generation;
}

/* The time now plus timeout seconds. Without a clock the deadline has passed already, so that
 * the wait happens and ends. */
static int deadlineAfter(int timeout, timespec* deadline)
{
    namespace at = tp::clapiTimedWaitEvent;

    timeval now;
    if (gettimeofday(&now, nullptr) != 0) {
        // The wait's status is printed, which is still 0 here.
        TRACE(at::noClock, 0);
        *deadline = timespec{0, 0};
        return -1;
    }
    deadline->tv_sec = now.tv_sec + timeout;
    deadline->tv_nsec = static_cast<long>(now.tv_usec) * 1000;
    return 0;
}

/* Locks: the event's mutex held. */
static void sleepUntil(ClapiEvent* eventPtr, const timespec& deadline, int* expired)
{
    int waitCount = eventPtr->postCount;
    int rc = 0;
    while (rc == 0 && eventPtr->postCount == waitCount)
        rc = pthread_cond_timedwait(&eventPtr->cond, &eventPtr->mutex, &deadline);
    // Deliberate: any other failure ends the wait silently. Who waits with a limit goes on behind
    // the wait whatever has ended it.
    if (rc == ETIMEDOUT) *expired = 1;
}

int clapiTimedWaitEvent(ClapiEvent* eventPtr, int timeout, int* expired)
{
    namespace at = tp::clapiTimedWaitEvent;

    TRACE(at::entry, eventPtr, timeout, expired);
    *expired = 0;
    clapiCheckWait(nullptr);
    takeMutex(eventPtr);
    int rc = 0;
    if (eventPtr->eflag == 0) {
        timespec deadline;
        rc = deadlineAfter(timeout, &deadline);
        sleepUntil(eventPtr, deadline, expired);
    }
    giveUpMutex(eventPtr);
    return rc;
}

int clapiSetEvent(ClapiEvent* eventPtr)
{
    namespace at = tp::clapiSetEvent;

    TRACE(at::entry, eventPtr);
    takeMutex(eventPtr);
    eventPtr->eflag = 0;
    giveUpMutex(eventPtr);
    return 0;
}

/* Locks: the event's mutex held. */
static void openGate(ClapiEvent* eventPtr)
{
    eventPtr->eflag = 1;
    eventPtr->postCount = static_cast<int>(static_cast<unsigned int>(eventPtr->postCount) + 1u);
}

int clapiClearEvent(ClapiEvent* eventPtr)
{
    namespace at = tp::clapiClearEvent;

    TRACE(at::entry, eventPtr);
    takeMutex(eventPtr);
    openGate(eventPtr);
    // Deliberate: only -1 counts as a failure, not an error number. The gate is open by now, and
    // who finds it open does not wait: nothing that the broadcast says undoes that.
    bool failed = pthread_cond_broadcast(&eventPtr->cond) == -1;
    int broadcastErrno = errno;
    giveUpMutex(eventPtr);
    if (!failed) return 0;

    TRACE(at::failed, broadcastErrno);
    return -1;
}

void clapiOpenEvent(ClapiEvent* eventPtr)
{
    namespace at = tp::clapiClearEvent;

    TRACE(at::entry, eventPtr);
    takeMutex(eventPtr);
    openGate(eventPtr);
    giveUpMutex(eventPtr);
}

void clapiWakeWaiters(ClapiEvent* eventPtr)
{
    namespace at = tp::clapiClearEvent;

    if (pthread_cond_broadcast(&eventPtr->cond) == -1) TRACE(at::failed, errno);
}
