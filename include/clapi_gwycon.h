/*
 * clapi_gwycon.h - connecting to a Gateway, what its receiver leaves to a request's sender, and
 * saying goodbye.
 */
#ifndef CLAPI_GWYCON_H
#define CLAPI_GWYCON_H

#include "clapi_types.h"

/* Resolves, connects, starts the receiver thread and shakes hands. */
int clapiConnectToGateway(int port, char* hostname, _QPX_ConnToken_t* gwTokPtr, char* applid,
                          char* applidQualifier);

/*
 * Ends the sending of a request that has been written and may have a channel. An outcome that has
 * overtaken it is delivered, with the changes of its reply made to the channel first. allocNumber
 * names the sender's use of the slot, which may be another's by now.
 * Locks: takes tableLock, and gives it up while it changes the channel.
 */
void clapiEndSendingRequest(_QPX_ConnToken_t* gwTokPtr, RequestSlot* slotP, uint32_t allocNumber)
    TAKES_LOCK(gwTokPtr->tableLock);

/* Sends the close flow. Locks: takes sendLock. */
int clapiCloseConnection(_QPX_ConnToken_t* conn) TAKES_LOCK(conn->sendLock, conn->tableLock);

/* Around a fork: no socket is made or closed meanwhile, and the child closes those that it has
 * inherited, without a flow. Locks: held from the first to one of the others. */
void clapiConnectionsForkPrepare(void);
void clapiConnectionsForkParent(void);
void clapiConnectionsForkChild(void);

#endif
