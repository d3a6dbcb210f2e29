/*
 * Who is sending on a connection, for whom the socket stays open; whose reply is being read; and
 * what comes of a request: an outcome that is put aside, or delivered to the slot that waits for
 * it. Which requests there are is clapi_gwytok's, what an outcome is clapi_gwycon's business.
 *
 * Locks: tableLock, and none for a wait, in which it is given up.
 */
#include "clapi_delivery.h"

#include <pthread.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>

#include "schedule_points.h"

/* ---- Sending ---- */

bool clapiBeginSending(_QPX_ConnToken_t* gwTokPtr, RequestSlot* slotP)
{
    // The receiver ends a connection by changing its state first and sweeping the slots under
    // this lock afterwards: either the change is seen here, or the slot is seen there.
    if (gwTokPtr->connStatus != CONN_CONNECTED || gwTokPtr->brokenOff != 0) return false;

    if (slotP->eciParms.eci_call_type == ECI_ASYNC) {
        // Whoever collects on a closing connection is told that nothing can come any more.
        if (gwTokPtr->closedown != 0) return false;
        slotP->eciParms.eci_message_qualifier = slotP->messageId;
        gwTokPtr->asyncCount += 1;
    }
    slotP->state = SLOT_WAITING;
    gwTokPtr->senders += 1;
    SCHEDULE_POINT(requestWaiting, slotP);
    return true;
}

bool clapiBeginSendingFlow(_QPX_ConnToken_t* gwTokPtr)
{
    LockGuard table(gwTokPtr->tableLock);
    if (!table.held() || gwTokPtr->connStatus != CONN_CONNECTED) return false;
    gwTokPtr->senders += 1;
    return true;
}

void clapiLeaveSenders(_QPX_ConnToken_t* gwTokPtr)
{
    gwTokPtr->senders -= 1;
    pthread_cond_broadcast(&gwTokPtr->transferEnded);
}

void clapiEndSending(_QPX_ConnToken_t* gwTokPtr)
{
    LockGuard table(gwTokPtr->tableLock);
    clapiLeaveSenders(gwTokPtr);
}

void clapiEndStream(_QPX_ConnToken_t* gwTokPtr)
{
    gwTokPtr->brokenOff = 1;
    shutdown(gwTokPtr->socketDescriptor, SHUT_RDWR);
}

void clapiNoteBrokenFlow(_QPX_ConnToken_t* gwTokPtr, int brokenOff)
{
    if (brokenOff != 0) gwTokPtr->brokenOff = 1;
}

/* Waits for the end of some sending or reading. Locks: tableLock held; given up while waiting. */
static void awaitTransfer(_QPX_ConnToken_t* gwTokPtr) NEEDS_LOCK(gwTokPtr->tableLock)
{
    clapiSleep(&gwTokPtr->transferEnded, &gwTokPtr->tableLock);
}

void clapiEndFailedSending(_QPX_ConnToken_t* gwTokPtr, const RequestSlot* slotP, int brokenOff)
{
    LockGuard table(gwTokPtr->tableLock);
    clapiNoteBrokenFlow(gwTokPtr, brokenOff);
    clapiLeaveSenders(gwTokPtr);
    if (table.held()) clapiAwaitEndOfReading(gwTokPtr, slotP);
}

void clapiWaitForSenders(_QPX_ConnToken_t* gwTokPtr)
{
    LockGuard table(gwTokPtr->tableLock);
    while (table.held() && gwTokPtr->senders > 0) {
        SCHEDULE_POINT(beforeSendersWait, gwTokPtr);
        awaitTransfer(gwTokPtr);
    }
}

/* ---- Reading ---- */

void clapiBeginReading(_QPX_ConnToken_t* gwTokPtr, RequestSlot* slotP)
{
    gwTokPtr->slotBeingRead = slotP;
}

void clapiEndReading(_QPX_ConnToken_t* gwTokPtr)
{
    if (gwTokPtr->slotBeingRead == nullptr) return;
    gwTokPtr->slotBeingRead = nullptr;
    pthread_cond_broadcast(&gwTokPtr->transferEnded);
}

void clapiAwaitEndOfReading(_QPX_ConnToken_t* gwTokPtr, const RequestSlot* slotP)
{
    // While it reads, the receiver has not closed the socket.
    if (gwTokPtr->slotBeingRead == slotP) clapiEndStream(gwTokPtr);
    while (gwTokPtr->slotBeingRead == slotP) {
        SCHEDULE_POINT(beforeReadingWait, slotP);
        awaitTransfer(gwTokPtr);
    }
}

/* ---- Outcomes ---- */

bool clapiAwaitsOutcome(const RequestSlot* slotP)
{
    return slotP->state == SLOT_WAITING && slotP->outcomePending == 0;
}

LaterWake::~LaterWake()
{
    if (requestEventPtr == nullptr) return;
    SCHEDULE_POINT(beforeWake, requestEventPtr);
    if (asyncReplyEventPtr != nullptr) clapiWakeWaiters(asyncReplyEventPtr);
    clapiWakeWaiters(requestEventPtr);
}

static void queueReply(_QPX_ConnToken_t* gwTokPtr, RequestSlot* slotP)
    NEEDS_LOCK(gwTokPtr->tableLock)
{
    slotP->nextReply = nullptr;
    slotP->replyBefore = gwTokPtr->lastReply;
    if (gwTokPtr->firstReply == nullptr)
        gwTokPtr->firstReply = slotP;
    else
        gwTokPtr->lastReply->nextReply = slotP;
    gwTokPtr->lastReply = slotP;
    clapiOpenEvent(&gwTokPtr->asyncReplyEvent);
}

void clapiDeliverSlot(_QPX_ConnToken_t* gwTokPtr, RequestSlot* slotP, int gatewayRc,
                      LaterWake* wakeP)
{
    bool isAsync = slotP->eciParms.eci_call_type == ECI_ASYNC;
    slotP->gatewayRc = gatewayRc;
    slotP->state = SLOT_DELIVERED;
    if (isAsync) queueReply(gwTokPtr, slotP);
    clapiOpenEvent(&slotP->requestEvent);
    wakeP->expect(&slotP->requestEvent, isAsync ? &gwTokPtr->asyncReplyEvent : nullptr);
    SCHEDULE_POINT(slotDelivered, slotP);
}

void clapiPutAside(RequestSlot* slotP, int gatewayRc, ArrivingBytes* data)
{
    slotP->gatewayRc = gatewayRc;
    if (data != nullptr) slotP->replyData = clapiTakeArrived(data);
    slotP->outcomePending = 1;
    SCHEDULE_POINT(outcomePutAside, slotP);
}

void clapiSettleSlot(_QPX_ConnToken_t* gwTokPtr, RequestSlot* slotP, int gatewayRc,
                     LaterWake* wakeP)
{
    if (slotP->beingSent != 0)
        clapiPutAside(slotP, gatewayRc, nullptr);
    else
        clapiDeliverSlot(gwTokPtr, slotP, gatewayRc, wakeP);
}

void clapiDropOutcome(RequestSlot* slotP)
{
    slotP->outcomePending = 0;
    clapiFreeArrived(&slotP->replyData);
}

void clapiUnlinkReply(_QPX_ConnToken_t* gwTokPtr, RequestSlot* slotP)
{
    RequestSlot* beforeP = slotP->replyBefore;
    RequestSlot* behindP = slotP->nextReply;
    bool isQueued = beforeP != nullptr || gwTokPtr->firstReply == slotP;
    if (!isQueued) return;

    (beforeP != nullptr ? beforeP->nextReply : gwTokPtr->firstReply) = behindP;
    (behindP != nullptr ? behindP->replyBefore : gwTokPtr->lastReply) = beforeP;
    slotP->nextReply = nullptr;
    slotP->replyBefore = nullptr;
}

void clapiFreeReplyBuffer(RequestSlot* slotP)
{
    if (slotP->asyncBuffer == nullptr) return;
    explicit_bzero(slotP->asyncBuffer, slotP->replyCapacity);
    free(slotP->asyncBuffer);
    slotP->asyncBuffer = nullptr;
    slotP->eciParms.eci_commarea = nullptr;
}
