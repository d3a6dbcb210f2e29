/*
 * api_call.h - the scope of one exported call.
 *
 * A thread that is cancelled leaves the call first: cancellation is disabled while the scope lives,
 * so that no call ends with a lock held, counted as still at work, or with a request that nobody
 * waits for. A request to cancel stays pending and acts at the caller's own next cancellation
 * point.
 */
#ifndef API_CALL_H
#define API_CALL_H

#include <pthread.h>

class ApiCall {
public:
    ApiCall() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &stateBefore); }
    ~ApiCall() { pthread_setcancelstate(stateBefore, nullptr); }
    ApiCall(const ApiCall&) = delete;
    ApiCall& operator=(const ApiCall&) = delete;

private:
    int stateBefore;
};

#endif
