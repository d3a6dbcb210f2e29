/*
 * request_steps.h - the steps of a request that is sent and waited for. A password request and the
 * query for the list of systems consist of them, a program call shares some.
 *
 * Lines names the trace lines of whoever makes the request: noLock, notUnlocked, notArmed,
 * noSendLock, sendLockStays, noLockToFree, notUnlockedAfterFree; those of the steps that it takes.
 */
#ifndef REQUEST_STEPS_H
#define REQUEST_STEPS_H

#include "clapi_delivery.h"
#include "clapi_diag.h"
#include "clapi_gwytok.h"
#include "clapi_rc.h"
#include "clapi_socketcomms.h"
#include "schedule_points.h"

/* Takes a slot and has prepare(slot) put into it where the reply goes. *slotPP stays null if no
 * slot has been taken. */
template <typename Lines, typename Prepare>
int obtainRequestSlot(_QPX_ConnToken_t* gwTok, RequestSlot** slotPP, Prepare prepare)
{
    LockGuard table(gwTok->tableLock);
    if (!table.held()) {
        TRACE(Lines::noLock);
        return QPX_ERR_SYSTEM_ERROR;
    }
    RequestSlot* slotP = nullptr;
    int rc = slotFind(&gwTok->table, 0, &slotP);
    if (rc == QPX_OK) {
        prepare(slotP);
        *slotPP = slotP;
    }
    if (table.release() != 0) {
        TRACE(Lines::notUnlocked);
        rc = firstFailure(rc, QPX_ERR_SYSTEM_ERROR);
    }
    return rc;
}

template <typename Lines>
int armRequestEvent(RequestSlot* slotP)
{
    if (clapiSetEvent(&slotP->requestEvent) != 0) {
        TRACE(Lines::notArmed);
        return QPX_ERR_SYSTEM_ERROR;
    }
    SCHEDULE_POINT(requestArmed, slotP);
    return QPX_OK;
}

/* Hands the slot over to the receiver, if the connection still stands; *begun tells. */
template <typename Lines>
int beginRequest(_QPX_ConnToken_t* gwTok, RequestSlot* slotP, bool* begun)
{
    LockGuard table(gwTok->tableLock);
    if (!table.held()) {
        TRACE(Lines::noLock);
        return QPX_ERR_SYSTEM_ERROR;
    }
    *begun = clapiBeginSending(gwTok, slotP);
    if (table.release() == 0) return QPX_OK;
    TRACE(Lines::notUnlocked);
    return QPX_ERR_SYSTEM_ERROR;
}

template <typename Lines, typename WriteFlow>
int writeRequest(_QPX_ConnToken_t* gwTok, Socket socketDescriptor, WriteFlow writeFlow)
{
    LockGuard sending(gwTok->sendLock);
    if (!sending.held()) {
        TRACE(Lines::noSendLock);
        return QPX_ERR_SYSTEM_ERROR;
    }
    int rc = writeFlow(socketDescriptor);
    if (sending.release() != 0) {
        TRACE(Lines::sendLockStays);
        rc = firstFailure(rc, QPX_ERR_SYSTEM_ERROR);
    }
    return rc;
}

/* Has writeFlow(socket) send the request with that header. The socket of a connection that has
 * ended may be another's by now, and that one shall see nothing of it: the flow then goes to no
 * socket, with the same result as on a closed one. */
template <typename Lines, typename WriteFlow>
int sendRequest(_QPX_ConnToken_t* gwTok, RequestSlot* slotP, const GatewayRequest& header,
                WriteFlow writeFlow)
{
    bool begun = false;
    int rc = beginRequest<Lines>(gwTok, slotP, &begun);
    if (begun) SCHEDULE_POINT(beforeRequestWrite, slotP);
    Socket socketDescriptor = begun ? gwTok->socketDescriptor.load() : NO_SOCKET;
    if (rc == QPX_OK) rc = writeRequest<Lines>(gwTok, socketDescriptor, writeFlow);
    if (!begun) return rc;
    SCHEDULE_POINT(requestWritten, slotP);
    if (rc == QPX_OK)
        clapiEndSending(gwTok);
    else
        clapiEndFailedSending(gwTok, slotP, header.brokenOff);
    return rc;
}

inline int awaitReply(RequestSlot* slotP)
{
    SCHEDULE_POINT(beforeReplyWait, slotP);
    return clapiWaitEvent(&slotP->requestEvent) == 0 ? QPX_OK : QPX_ERR_SYSTEM_ERROR;
}

/* Frees the slot after the reply. Deliberate: without the lock the slot stays allocated. */
template <typename Lines>
int releaseRequestSlot(_QPX_ConnToken_t* gwTok, RequestSlot* slotP)
{
    LockGuard table(gwTok->tableLock);
    if (!table.held()) {
        TRACE(Lines::noLockToFree);
        return QPX_ERR_SYSTEM_ERROR;
    }
    slotFree(&gwTok->table, slotP);
    if (table.release() == 0) return QPX_OK;
    TRACE(Lines::notUnlockedAfterFree);
    return QPX_ERR_SYSTEM_ERROR;
}

#endif
