/*
 * clapi_delivery.h - who is sending on a connection, whose reply is being read, and how a request
 * gets its outcome.
 */
#ifndef CLAPI_DELIVERY_H
#define CLAPI_DELIVERY_H

#include "clapi_types.h"

/* ---- Sending ---- */

/*
 * The last step before a request is written. If the connection stands, and for an asynchronous
 * request is not closing, the slot becomes SLOT_WAITING, an asynchronous one is counted and gets
 * its message qualifier, the socket stays open until the sending has ended, and the result is true.
 * The slot's requestEvent is armed already: from here on the receiver may deliver the slot.
 * Locks: tableLock held.
 */
bool clapiBeginSending(_QPX_ConnToken_t* gwTokPtr, RequestSlot* slotP)
    NEEDS_LOCK(gwTokPtr->tableLock);

/* As clapiBeginSending for a flow that belongs to no request. Locks: takes tableLock. */
bool clapiBeginSendingFlow(_QPX_ConnToken_t* gwTokPtr) TAKES_LOCK(gwTokPtr->tableLock);

/* Takes a sender off the count of those who keep the socket. Locks: tableLock held. */
void clapiLeaveSenders(_QPX_ConnToken_t* gwTokPtr) NEEDS_LOCK(gwTokPtr->tableLock);

/* Ends either of the first two. Locks: takes tableLock. */
void clapiEndSending(_QPX_ConnToken_t* gwTokPtr) TAKES_LOCK(gwTokPtr->tableLock);

/*
 * Ends the sending of a request that could not be written, and returns when the receiver reads
 * no reply into its slot's storage any more. brokenOff tells that a part of it has left.
 * Locks: takes tableLock.
 */
void clapiEndFailedSending(_QPX_ConnToken_t* gwTokPtr, const RequestSlot* slotP, int brokenOff)
    TAKES_LOCK(gwTokPtr->tableLock);

/* Returns when no flow is being written. Thread: the receiver. Locks: takes tableLock. */
void clapiWaitForSenders(_QPX_ConnToken_t* gwTokPtr) TAKES_LOCK(gwTokPtr->tableLock);

/* Makes the receiver end the connection, to which nothing is written any more: what begins from
 * here on finds it as good as ended. Thread: one for which the socket stays open.
 * Locks: none needed. */
void clapiEndStream(_QPX_ConnToken_t* gwTokPtr);

/* Keeps further requests off a connection that ends because of a flow that broke off: a reply to
 * that one may still come, and must not find its message id in use again. Locks: tableLock held. */
void clapiNoteBrokenFlow(_QPX_ConnToken_t* gwTokPtr, int brokenOff) NEEDS_LOCK(gwTokPtr->tableLock);

/* ---- Reading ---- */

/* From the first to the second the slot's storage may be written to. The second is allowed
 * without the first. Thread: the receiver. Locks: tableLock held. */
void clapiBeginReading(_QPX_ConnToken_t* gwTokPtr, RequestSlot* slotP)
    NEEDS_LOCK(gwTokPtr->tableLock);
void clapiEndReading(_QPX_ConnToken_t* gwTokPtr) NEEDS_LOCK(gwTokPtr->tableLock);

/* Returns when the receiver reads no reply into the slot's storage any more; a receiver that
 * waits for the rest of one is woken by ending the connection. Locks: tableLock held; given up
 * while waiting. */
void clapiAwaitEndOfReading(_QPX_ConnToken_t* gwTokPtr, const RequestSlot* slotP)
    NEEDS_LOCK(gwTokPtr->tableLock);

/* ---- Outcomes ---- */

/* Whether a slot takes an outcome: it waits, and has none yet. Locks: tableLock held. */
bool clapiAwaitsOutcome(const RequestSlot* slotP);

/*
 * Wakes those who wait for an outcome when its scope ends. They want tableLock next: it stands in
 * front of the guard of that lock, so that they find it free.
 */
class LaterWake {
public:
    LaterWake() = default;
    ~LaterWake();
    LaterWake(const LaterWake&) = delete;
    LaterWake& operator=(const LaterWake&) = delete;

    /* Once for each object. The events are those of a slot and, or null, of its token's queue. */
    void expect(ClapiEvent* requestEvent, ClapiEvent* asyncReplyEvent)
    {
        requestEventPtr = requestEvent;
        asyncReplyEventPtr = asyncReplyEvent;
    }

private:
    ClapiEvent* requestEventPtr = nullptr;
    ClapiEvent* asyncReplyEventPtr = nullptr;
};

/* Puts a result into a waiting slot, and lets whoever waits for it go, whom wakeP wakes.
 * Locks: tableLock held. */
void clapiDeliverSlot(_QPX_ConnToken_t* gwTokPtr, RequestSlot* slotP, int gatewayRc,
                      LaterWake* wakeP) NEEDS_LOCK(gwTokPtr->tableLock);

/*
 * Leaves an outcome to the request's sender, who delivers it: a code, and of a reply the data, or
 * null. Until then the request has no outcome for anybody. Locks: tableLock held.
 */
void clapiPutAside(RequestSlot* slotP, int gatewayRc, ArrivingBytes* data);

/* Makes a failure the slot's outcome: it is delivered, or put aside while the request's sender
 * still reads its data. Locks: tableLock held. */
void clapiSettleSlot(_QPX_ConnToken_t* gwTokPtr, RequestSlot* slotP, int gatewayRc,
                     LaterWake* wakeP) NEEDS_LOCK(gwTokPtr->tableLock);

/* Forgets an outcome that has been put aside and not delivered. Locks: tableLock held. */
void clapiDropOutcome(RequestSlot* slotP);

/* Takes a slot out of the reply queue. Locks: tableLock held. */
void clapiUnlinkReply(_QPX_ConnToken_t* gwTokPtr, RequestSlot* slotP)
    NEEDS_LOCK(gwTokPtr->tableLock);

/* Frees the reply buffer of an asynchronous request, if it has one. Locks: tableLock held, or
 * the slot is the caller's. */
void clapiFreeReplyBuffer(RequestSlot* slotP);

#endif
