/* Trace points of clapi_lock: 3101 to 3133. */
#ifndef TRACE_POINTS_CLAPI_LOCK_H
#define TRACE_POINTS_CLAPI_LOCK_H

#include "clapi_diag.h"

namespace tp::clapiInitializeLock {
// Deliberate: no blank behind the function's name. Scripts that read traces know the line so.
constexpr TracePoint failed = tpExc(3101, "clapi_lock.clapiInitializeLockLock initialization failed &(lockPtr->lock)=%p mutexRc=%d errno=%d\n");
}

namespace tp::clapiRequestLock {
constexpr TracePoint notInitialized = tpExc(3104, "clapi_lock.clapiRequestLock(lockPtr=%p) Lock not initialized\n");
constexpr TracePoint failed         = tpExc(3105, "clapi_lock.clapiRequestLock(lockPtr=%p) Lock request failed errno=%d\n");
}

namespace tp::clapiReleaseLock {
constexpr TracePoint notInitialized = tpExc(3108, "clapi_lock.clapiReleaseLock(lockPtr=%p) Lock not initialized\n");
constexpr TracePoint failed         = tpExc(3109, "clapi_lock.clapiReleaseLock(lockPtr=%p) Lock release failed errno=%d\n");
}

namespace tp::clapiDestroyLock {
constexpr TracePoint notInitialized = tpExc(3112, "clapi_lock.clapiDestroyLock(lockPtr=%p) Lock not initialized\n");
constexpr TracePoint failed         = tpExc(3113, "clapi_lock.clapiDestroyLock(lockPtr=%p) Lock destroy failed errno=%d\n");
}

namespace tp::clapiCreateEvent {
constexpr TracePoint entry      = tpDebug(3115, "clapi_lock.clapiCreateEvent() Creating event, eventPtr=%p\n");
constexpr TracePoint noMutex    = tpExc  (3116, "clapi_lock.clapiCreateEvent() pthread_mutex_init failed, rc=%d\n");
constexpr TracePoint noCond     = tpExc  (3117, "clapi_lock.clapiCreateEvent() pthread_cond_init failed, rc=%d\n");
}

namespace tp::clapiDeleteEvent {
constexpr TracePoint entry       = tpDebug(3118, "clapi_lock.clapiDeleteEvent() Deleting event, eventPtr=%p\n");
constexpr TracePoint mutexFailed = tpExc  (3125, "clapi_lock.clapiDeleteEvent() pthread_mutex_destroy failed, rc=%d\n");
constexpr TracePoint condFailed  = tpExc  (3126, "clapi_lock.clapiDeleteEvent() pthread_cond_destroy failed, rc=%d\n");
}

namespace tp::clapiWaitEvent {
constexpr TracePoint entry  = tpDebug(3119, "clapi_lock.clapiWaitEvent() Waiting on event, eventPtr=%p\n");
constexpr TracePoint failed = tpExc  (3128, "clapi_lock.clapiWaitEvent() pthread_cond_wait failed, rc=%d\n");
}

namespace tp::clapiTimedWaitEvent {
constexpr TracePoint entry   = tpDebug(3120, "clapi_lock.clapiTimedWaitEvent() Waiting on event, eventPtr=%p, timeout=%d, expired=%p\n");
constexpr TracePoint noClock = tpExc  (3130, "clapi_lock.clapiTimedWaitEvent() gettimeofday failed, rc=%d\n");
}

namespace tp::clapiSetEvent {
constexpr TracePoint entry = tpDebug(3121, "clapi_lock.clapiSetEvent() Setting event, eventPtr=%p\n");
}

namespace tp::clapiClearEvent {
constexpr TracePoint entry  = tpDebug(3122, "clapi_lock.clapiClearEvent() Clearing event, eventPtr=%p\n");
constexpr TracePoint failed = tpExc  (3133, "clapi_lock.clapiClearEvent() pthread_cond_broadcast failed, rc=%d\n");
}

#endif
