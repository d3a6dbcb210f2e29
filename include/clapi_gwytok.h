/*
 * clapi_gwytok.h - tokens, from their creation to their end, the list of them, the calls at work on
 * each, and its request slots.
 */
#ifndef CLAPI_GWYTOK_H
#define CLAPI_GWYTOK_H

#include "clapi_types.h"

/* ---- Request slots ---- */

/* Fills a table's slots as a chain with the message ids firstId to firstId + 15. */
void clapiInitializeTable(RequestTable* tableP, int firstId);

/* Frees the tables that slotFree kept, and what the first one owns; all its slots are free.
 * Locks: tableLock held, or the token is unknown to all. */
void clapiFreeTables(RequestTable* requestTableP);

/*
 * Takes a slot for a new request: a free one for luwToken 0, else the idle one of that unit of
 * work. *requestSlotPP is stored on failure too; only result 0 means that the slot was taken.
 * 0, ECI_ERR_LUW_TOKEN, ECI_ERR_ALREADY_ACTIVE, QPX_ERR_MALLOCFAIL or QPX_ERR_SYSTEM_ERROR.
 * Locks: tableLock held.
 */
int slotFind(RequestTable* requestTableP, int luwToken, RequestSlot** requestSlotPP);

/* The slot with a message id, whatever its state, or null. Locks: as slotLookup. */
RequestSlot* clapiSlotById(RequestTable* requestTableP, int messageId);

/* Gives a slot back, with its reply buffer, and trailing tables that are empty now.
 * Locks: tableLock held. */
void slotFree(RequestTable* requestTableP, RequestSlot* slotP);

/* Frees the slot of a request that has failed; one whose table cannot be locked stays allocated.
 * Locks: takes tableLock. */
void clapiDropSlot(_QPX_ConnToken_t* gwTokPtr, RequestSlot* slotP) TAKES_LOCK(gwTokPtr->tableLock);

/* Finds the slot with a message id, whatever its state: 0 or QPX_ERR_SYSTEM_ERROR.
 * Locks: tableLock held for a reply; error and exception flows look without it. */
int slotLookup(RequestTable* requestTableP, int messageId, RequestSlot** slotPP);

/* ---- Gateway tokens ---- */

/* Room for a token as clapiFormatGatewayToken writes it. */
constexpr size_t FORMATTED_TOKEN_SIZE = 512;

/* Creates a connection and stores it in *gwTokPtr on success only. Arguments are checked. */
int clapiCreateGatewayToken(QPX_ConnToken_t* gwTokPtr, char* hostname, int port, int connTimeout,
                            char* applid, char* applidQualifier);

/* Writes one line about a token to FORMATTED_TOKEN_SIZE bytes: 0 or QPX_ERR_NULLPARM. Locks:
 * gtlLock held. */
int clapiFormatGatewayToken(_QPX_ConnToken_t* gwTokPtr, char* formattedToken) NEEDS_LOCK(gtlLock);

/* Writes the list of tokens to the trace destination. Locks: takes gtlLock. */
void clapiDumpGatewayTokens(void) TAKES_LOCK(gtlLock);

/*
 * Count an API call on a token in and out. Between the two the token is not freed; after the
 * second it must not be touched. Registering does not look at closedown. 0, QPX_ERR_BADGWTOK
 * (registering, the token is not on the list, or its open has not ended) or QPX_ERR_SYSTEM_ERROR.
 * Locks: take gtlLock.
 */
int clapiRegisterRequest(_QPX_ConnToken_t* gwTokPtr) TAKES_LOCK(gtlLock);
int clapiUnregisterRequest(_QPX_ConnToken_t* gwTokPtr) TAKES_LOCK(gtlLock);

/* Values of lockRequired below: whether the function takes gtlLock, or its caller holds it. */
constexpr int CALLER_HOLDS_LOCK = 0;
constexpr int LOCK_REQUIRED = 1;

/* Reads the application's variable, which another thread may change at any time. Once per call. */
inline _QPX_ConnToken_t* clapiReadToken(QPX_ConnToken_t* gwTokPtr)
{
    return __atomic_load_n(gwTokPtr, __ATOMIC_RELAXED);
}

/*
 * Marks a token as closing. Only after result 0 has the caller marked it; the token then stays
 * until the caller has been through clapiDeleteClosingToken. With CALLER_HOLDS_LOCK the caller
 * holds gtlLock. 0, QPX_ERR_GWTOK_CLOSED (it is closing, or has been closed not long ago),
 * QPX_ERR_BADGWTOK (also for a token whose open has not ended) or QPX_ERR_SYSTEM_ERROR.
 */
int clapiCloseGatewayToken(_QPX_ConnToken_t* gwTokPtr, int lockRequired);

/* Close time-outs that are no number of seconds. */
constexpr int WAIT_WITHOUT_LIMIT = -1;
constexpr int NO_WAIT = 0;

/*
 * Quiesces the token that the caller has marked as closing, and frees it if no other thread is
 * still at that. gwTokPtr is shown in the trace and not read. Work in progress is waited for
 * without limit, for a number of seconds, or not at all, as closeTimeout says.
 * Locks: takes gtlLock.
 */
int clapiDeleteClosingToken(QPX_ConnToken_t* gwTokPtr, _QPX_ConnToken_t* token, int closeTimeout)
    TAKES_LOCK(gtlLock);

/*
 * The same for a thread that has not marked the token. With CALLER_HOLDS_LOCK the caller
 * vouches for the token and holds gtlLock, which is given up in every case.
 */
int clapiDeleteGatewayToken(QPX_ConnToken_t* gwTokPtr, int closeTimeout, int lockRequired);

/* Closes and deletes every token on the list that has been opened. Always 0. */
int clapiDeleteGatewayTokens(void) TAKES_LOCK(gtlLock);

/*
 * For the child of a fork: no token is on the list any more, for the connections are the parent's,
 * and what names one is refused. The records stay, as do the locks in them that threads of the
 * parent may have held. Writes no trace line.
 * Locks: gtlLock held, by this thread and since before the fork, so that the list is whole; no
 * lock of a token is taken.
 */
void clapiForgetTokens(void) NEEDS_LOCK(gtlLock);

#endif
