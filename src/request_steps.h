/*
 * request_steps.h - the way of a request from its slot to its outcome. Program calls, password
 * requests and the query for the list of systems all go it, and each names what it does otherwise.
 *
 * A request is a class that extends OutgoingRequest, whose functions it may replace, and has
 *
 *   Lines           its trace lines: noLock and notUnlocked (taking the slot), notArmed,
 *                   noLockToBegin, notUnlockedToBegin, noSendLock, sendLockStays, and if it gives
 *                   its slot back with releaseRequestSlot noLockToFree, notUnlockedAfterFree
 *   prepareSlot()   puts into the slot where the reply goes. Locks: tableLock held
 *   build()         makes header and body: 0, or why there is nothing to send
 *   write(socket)   sends the flow, with sendLock held
 *   conclude()      takes the outcome and gives the slot back
 *
 * Locks: tableLock for slots, sendLock for one flow; never both, and neither across a wait.
 */
#ifndef REQUEST_STEPS_H
#define REQUEST_STEPS_H

#include "clapi_delivery.h"
#include "clapi_diag.h"
#include "clapi_gwycon.h"
#include "clapi_gwytok.h"
#include "clapi_rc.h"
#include "clapi_socketcomms.h"
#include "schedule_points.h"

/* What every request has, and does unless it has its own way. */
struct OutgoingRequest {
    _QPX_ConnToken_t* gwTok;
    int luwToken;         // the unit of work whose slot it takes; 0 for a free one
    RequestSlot* slotP;   // null while it has none
    uint32_t allocNumber; // names its use of the slot
    int messageId;
    GatewayRequest header;

    /* What it gets on a connection that does not stand. With 0 it goes on, to no socket: that has
     * the same result as a closed one. Locks: tableLock held. */
    int refusal() const NEEDS_LOCK(gwTok->tableLock) { return QPX_OK; }

    /* It waits now. Locks: tableLock held. */
    void traceBegun() const {}

    /* Ends a sending that has failed with rc, and returns what the request gets. */
    int endFailedSending(int rc)
    {
        clapiEndFailedSending(gwTok, slotP, header.brokenOff);
        return rc;
    }

    int awaitReply()
    {
        SCHEDULE_POINT(beforeReplyWait, slotP);
        return clapiWaitEvent(&slotP->requestEvent) == 0 ? QPX_OK : QPX_ERR_SYSTEM_ERROR;
    }

    /* Locks: tableLock held. */
    void giveSlotBack() { slotFree(&gwTok->table, slotP); }
};

/* Takes one step with a lock held. The parameters are the lines of a lock that cannot be taken, or
 * not be given up. */
template <const TracePoint& noLock, const TracePoint& notUnlocked, typename Step>
int withLock(Clapilock& lock, Step step)
{
    LockGuard guard(lock);
    if (!guard.held()) {
        TRACE(noLock);
        return QPX_ERR_SYSTEM_ERROR;
    }
    int rc = step();
    if (guard.release() == 0) return rc;
    TRACE(notUnlocked);
    return firstFailure(rc, QPX_ERR_SYSTEM_ERROR);
}

/* Locks: tableLock held. */
template <typename Request>
int takeRequestSlot(Request* request) NEEDS_LOCK(request->gwTok->tableLock)
{
    _QPX_ConnToken_t* gwTok = request->gwTok;
    int rc = gwTok->connStatus == CONN_CONNECTED ? QPX_OK : request->refusal();
    if (rc != QPX_OK) return rc;

    RequestSlot* slotP = nullptr;
    rc = slotFind(&gwTok->table, request->luwToken, &slotP);
    if (rc != QPX_OK) return rc;

    request->slotP = slotP;
    request->allocNumber = slotP->allocNumber;
    request->messageId = slotP->messageId;
    request->prepareSlot();
    return QPX_OK;
}

template <typename Request>
int obtainRequestSlot(Request* request)
{
    using Lines = typename Request::Lines;

    auto take = [&]() NOT_ANALYSED("withLock holds the lock") { return takeRequestSlot(request); };
    return withLock<Lines::noLock, Lines::notUnlocked>(request->gwTok->tableLock, take);
}

template <typename Request>
int armRequestEvent(Request* request)
{
    using Lines = typename Request::Lines;

    if (clapiSetEvent(&request->slotP->requestEvent) != 0) {
        TRACE(Lines::notArmed);
        return QPX_ERR_SYSTEM_ERROR;
    }
    SCHEDULE_POINT(requestArmed, request->slotP);
    return QPX_OK;
}

/* Hands the slot over to the receiver, if the connection still stands. *begun tells whether that
 * has happened; the sending must then be ended. */
template <typename Request>
int beginRequest(Request* request, bool* begun)
{
    using Lines = typename Request::Lines;

    auto begin = [&]() NOT_ANALYSED("withLock holds the lock") {
        *begun = clapiBeginSending(request->gwTok, request->slotP);
        if (!*begun) return request->refusal();
        request->traceBegun();
        return QPX_OK;
    };
    return withLock<Lines::noLockToBegin, Lines::notUnlockedToBegin>(request->gwTok->tableLock,
                                                                     begin);
}

/* Sends the flow. The socket of a connection that has ended may be another's by now, and that one
 * shall see nothing of it: only a request that has begun gets the socket. */
template <typename Request>
int writeRequest(Request* request, bool begun)
{
    using Lines = typename Request::Lines;

    Socket socketDescriptor = begun ? request->gwTok->socketDescriptor.load() : NO_SOCKET;
    auto write = [&] { return request->write(socketDescriptor); };
    return withLock<Lines::noSendLock, Lines::sendLockStays>(request->gwTok->sendLock, write);
}

/* Once it has begun, the slot is also the receiver's, and that of an asynchronous request any
 * collector's. */
template <typename Request>
int sendRequest(Request* request)
{
    bool begun = false;
    int rc = beginRequest(request, &begun);
    if (begun) SCHEDULE_POINT(beforeRequestWrite, request->slotP);
    if (rc == QPX_OK) rc = writeRequest(request, begun);
    if (!begun) return rc;
    SCHEDULE_POINT(requestWritten, request->slotP);
    if (rc != QPX_OK) return request->endFailedSending(rc);
    clapiEndSendingRequest(request->gwTok, request->slotP, request->allocNumber);
    return QPX_OK;
}

/* The whole way. The event is armed before the slot waits, and the slot waits before the flow is
 * written: neither a reply nor the connection's end can come too early to be noticed. */
template <typename Request>
int performRequest(Request* request)
{
    int rc = obtainRequestSlot(request);
    if (rc == QPX_OK) rc = request->build();
    if (rc == QPX_OK) rc = armRequestEvent(request);
    if (rc == QPX_OK) rc = sendRequest(request);
    if (rc == QPX_OK) rc = request->awaitReply();
    if (rc == QPX_OK) return request->conclude();
    if (request->slotP != nullptr) clapiDropSlot(request->gwTok, request->slotP);
    return rc;
}

/* Gives the slot back after the reply. Without the lock the request keeps it. */
template <typename Request>
int releaseRequestSlot(Request* request)
{
    using Lines = typename Request::Lines;

    auto giveBack = [&] {
        request->giveSlotBack();
        request->slotP = nullptr;
        return QPX_OK;
    };
    return withLock<Lines::noLockToFree, Lines::notUnlockedAfterFree>(request->gwTok->tableLock,
                                                                      giveBack);
}

#endif
