/*
 * Gateway tokens: the record of one connection from its creation to its end, the list of all of
 * them, the request slots of each, the count of the calls at work on it, and its orderly end.
 * What travels on the connection is clapi_gwycon's and clapi_socketcomms' business, how a request
 * gets its outcome clapi_delivery's, what is known of tokens off the list clapi_departed's.
 *
 * Locks: gtlLock for the list, closedown, requestCount and the fields behind deleters of a token;
 * then tableLock for its slots and its reply queue. Neither is held across a wait.
 */
#include "clapi_gwytok.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "address_set.h"
#include "clapi_channel.h"
#include "clapi_delivery.h"
#include "clapi_departed.h"
#include "clapi_diag.h"
#include "clapi_gwycon.h"
#include "clapi_rc.h"
#include "schedule_points.h"
#include "trace_points/clapi_gwytok.h"

static const char TOKEN_EYECATCHER[] = "QPXGWTOK";
static const char SLOT_EYECATCHER[] = "QPXRSLOT";

Clapilock gtlLock;
static _QPX_ConnToken_t* gtListHeadPtr GUARDED_BY(gtlLock) = nullptr;
static _QPX_ConnToken_t* gtListTailPtr GUARDED_BY(gtlLock) = nullptr; // stale for an empty list
static AddressSet<_QPX_ConnToken_t, &_QPX_ConnToken_t::nextInSet> listedTokens GUARDED_BY(gtlLock);
static uint64_t lastSerial GUARDED_BY(gtlLock) = 0; // that of the last token listed

/* Results of findGatewayToken. */
constexpr int TOKEN_NULL = 1002;
constexpr int TOKEN_NOT_FOUND = 1003;
constexpr int TOKEN_FOUND = 1004;

static const char* traceFlag(int flag)
{
    return flag != 0 ? "TRUE" : "FALSE";
}

/* ---- Slot tables ---- */

static RequestSlot* lastSlotOf(RequestTable* tableP)
{
    return &tableP->slot[SLOTS_PER_TABLE - 1];
}

static RequestTable* tableOf(RequestSlot* slotP)
{
    int position = (slotP->messageId - 1) % SLOTS_PER_TABLE;
    return reinterpret_cast<RequestTable*>(slotP - position);
}

/* Which of a chain's tables has the slot with a message id. */
static int tableNumberOf(int messageId)
{
    return (messageId - 1) / SLOTS_PER_TABLE;
}

/*
 * The place of a table in the index, or null if there is none yet. A segment is made once and stays
 * as long as the token: whoever looks without the table lock finds a table, or none. The number may
 * be that of any message id from outside: for the table of the highest ids there is no segment.
 */
static IndexedTable* placeInIndex(RequestTable* requestTableP, int tableNumber)
{
    unsigned int position = static_cast<unsigned int>(tableNumber) + 1;
    int segment = 31 - __builtin_clz(position);
    if (segment >= INDEX_SEGMENTS) return nullptr;
    IndexedTable* tables = requestTableP->index[segment];
    return tables != nullptr ? &tables[position - (1U << static_cast<unsigned int>(segment))]
                             : nullptr;
}

/* As placeInIndex, but makes the segment if need be: null if there is no memory. */
static IndexedTable* providePlace(RequestTable* requestTableP, int tableNumber)
{
    unsigned int position = static_cast<unsigned int>(tableNumber) + 1;
    int segment = 31 - __builtin_clz(position);
    if (segment < INDEX_SEGMENTS && requestTableP->index[segment] == nullptr) {
        void* tables = calloc(size_t{1} << static_cast<unsigned int>(segment),
                              sizeof(IndexedTable));
        requestTableP->index[segment] = static_cast<IndexedTable*>(tables);
    }
    return placeInIndex(requestTableP, tableNumber);
}

RequestSlot* clapiSlotById(RequestTable* requestTableP, int messageId)
{
    if (messageId < 1) return nullptr;
    RequestTable* tableP = requestTableP;
    if (messageId > SLOTS_PER_TABLE) {
        const IndexedTable* place = placeInIndex(requestTableP, tableNumberOf(messageId));
        tableP = place != nullptr ? place->load() : nullptr;
    }
    if (tableP == nullptr) return nullptr;
    SCHEDULE_POINT(tableFound, tableP);
    RequestSlot* slotP = &tableP->slot[(messageId - 1) % SLOTS_PER_TABLE];
    return slotP->messageId == messageId ? slotP : nullptr;
}

void clapiInitializeTable(RequestTable* tableP, int firstId)
{
    for (int i = 0; i < SLOTS_PER_TABLE; ++i) {
        RequestSlot* slotP = &tableP->slot[i];
        memcpy(slotP->eyecatcher, SLOT_EYECATCHER, sizeof slotP->eyecatcher);
        slotP->nextSlot = i + 1 < SLOTS_PER_TABLE ? slotP + 1 : nullptr;
        slotP->state = SLOT_FREE;
        slotP->messageId = firstId + i;
    }
    tableP->lowestFree = firstId;
}

/* A table of free slots: one that was kept, or a new one; null if there is no memory. */
static RequestTable* obtainTable(RequestTable* requestTableP)
{
    RequestTable* tableP = requestTableP->keptTable;
    if (tableP != nullptr) {
        requestTableP->keptTable = tableP->nextKept;
        tableP->nextKept = nullptr;
        return tableP;
    }
    tableP = static_cast<RequestTable*>(malloc(sizeof(RequestTable)));
    if (tableP != nullptr) memset(static_cast<void*>(tableP), 0, sizeof *tableP);
    return tableP;
}

/*
 * Keeps a table of free slots that has left the chain. It does not go back to the heap while the
 * token lives: a look-up without the table lock may still stand in it, and finds the end of the
 * chain there.
 */
static void keepTable(RequestTable* requestTableP, RequestTable* tableP)
{
    for (RequestSlot& slot : tableP->slot) {
        slot.nextSlot = nullptr;
        slot.messageId = 0;
    }
    tableP->nextKept = requestTableP->keptTable;
    requestTableP->keptTable = tableP;
}

static void discardEvents(RequestTable* tableP)
{
    for (RequestSlot& slot : tableP->slot) {
        if (slot.hasEvent == 0) continue;
        clapiDiscardEvent(&slot.requestEvent);
        slot.hasEvent = 0;
    }
}

/* The tables behind the first one that are still in its chain. One whose first slot could not be
 * taken has been added, and no slot of it is ever given back. */
static void freeAddedTables(RequestTable* requestTableP)
{
    RequestSlot* nextP = lastSlotOf(requestTableP)->nextSlot;
    while (nextP != nullptr) {
        RequestTable* tableP = tableOf(nextP);
        nextP = lastSlotOf(tableP)->nextSlot;
        discardEvents(tableP);
        free(tableP);
    }
    lastSlotOf(requestTableP)->nextSlot = nullptr;
    requestTableP->lastTable = nullptr;
}

void clapiFreeTables(RequestTable* requestTableP)
{
    freeAddedTables(requestTableP);
    discardEvents(requestTableP);
    for (std::atomic<IndexedTable*>& segment : requestTableP->index) {
        free(segment);
        segment = nullptr;
    }
    while (requestTableP->keptTable != nullptr) {
        RequestTable* tableP = requestTableP->keptTable;
        requestTableP->keptTable = tableP->nextKept;
        discardEvents(tableP);
        free(tableP);
    }
}

/* The last table of the chain. A first table is its own until one is added. */
static RequestTable* lastTableOf(RequestTable* requestTableP)
{
    return requestTableP->lastTable != nullptr ? requestTableP->lastTable : requestTableP;
}

/* Links one more table behind the last slot, and returns its first slot, or null. */
static RequestSlot* grow(RequestTable* requestTableP)
{
    namespace at = tp::slotFind;

    RequestSlot* lastSlotP = lastSlotOf(lastTableOf(requestTableP));
    int firstId = lastSlotP->messageId + 1;
    IndexedTable* place = providePlace(requestTableP, tableNumberOf(firstId));
    RequestTable* tableP = place != nullptr ? obtainTable(requestTableP) : nullptr;
    if (tableP == nullptr) {
        TRACE(at::noMemory, traceInt(sizeof(RequestTable)));
        return nullptr;
    }
    clapiInitializeTable(tableP, firstId);
    TRACE(at::newTable, tableP, tableP->slot[0].messageId.load(),
          lastSlotOf(tableP)->messageId.load());
    *place = tableP;
    lastSlotP->nextSlot = &tableP->slot[0];
    requestTableP->lastTable = tableP;
    return &tableP->slot[0];
}

/* ---- Taking and giving back slots ---- */

/* The free slot with the lowest message id; the last slot of all if none is free. */
static RequestSlot* lowestFreeSlot(RequestTable* requestTableP)
{
    RequestSlot* slotP = clapiSlotById(requestTableP, requestTableP->lowestFree);
    if (slotP == nullptr) slotP = lastSlotOf(lastTableOf(requestTableP));
    while (slotP->state != SLOT_FREE && slotP->nextSlot != nullptr) slotP = slotP->nextSlot;
    return slotP;
}

static int findFreeSlot(RequestTable* requestTableP, RequestSlot** requestSlotPP)
{
    RequestSlot* slotP = lowestFreeSlot(requestTableP);
    *requestSlotPP = slotP;
    if (slotP->state != SLOT_FREE) {
        slotP = grow(requestTableP);
        if (slotP == nullptr) return QPX_ERR_MALLOCFAIL;
        *requestSlotPP = slotP;
    }
    requestTableP->lowestFree = slotP->messageId;
    return QPX_OK;
}

/* The token field of a query for systems is a number of systems. */
static bool belongsToUnit(const RequestSlot* slotP, int luwToken)
{
    return slotP->purpose == PROGRAM_CALL && slotP->eciParms.eci_luw_token == luwToken;
}

static int findLuwSlot(RequestTable* requestTableP, int luwToken, RequestSlot** requestSlotPP)
{
    namespace at = tp::slotFind;

    RequestSlot* slotP = &requestTableP->slot[0];
    while (!belongsToUnit(slotP, luwToken) && slotP->nextSlot != nullptr) slotP = slotP->nextSlot;
    *requestSlotPP = slotP;

    if (!belongsToUnit(slotP, luwToken) || slotP->state == SLOT_FREE) {
        TRACE(at::unknownLuw, luwToken);
        return ECI_ERR_LUW_TOKEN;
    }
    if (slotP->state != SLOT_LUW_IDLE) {
        TRACE(at::active, luwToken, slotP->messageId.load());
        return ECI_ERR_ALREADY_ACTIVE;
    }
    return QPX_OK;
}

/*
 * A free slot gets its event; that of a unit of work has one. Deliberate: what the slot's first use
 * makes stays as long as its memory, though each use is told in the trace as if it had an event of
 * its own: whoever delivers an outcome wakes its waiter when the slot may be free again.
 */
static int prepareEvent(RequestSlot* slotP)
{
    namespace at = tp::slotFind;

    if (slotP->state != SLOT_FREE) {
        TRACE(at::existing, slotP->messageId.load());
        return QPX_OK;
    }
    TRACE(at::newEvent, slotP->messageId.load());
    if (slotP->hasEvent != 0) {
        clapiRenewEvent(&slotP->requestEvent);
        return QPX_OK;
    }
    if (clapiCreateEvent(&slotP->requestEvent) != 0) {
        TRACE(at::noEvent, slotP->messageId.load());
        return QPX_ERR_SYSTEM_ERROR;
    }
    slotP->hasEvent = 1;
    return QPX_OK;
}

/* Nothing of an earlier request may show in this one. */
static void clearResults(RequestSlot* slotP)
{
    clapiFreeReplyBuffer(slotP);
    clapiDropOutcome(slotP);
    slotP->nextReply = nullptr;
    slotP->replyBefore = nullptr;
    slotP->gatewayRc = 0;
    slotP->vornRc = 0;
    slotP->esiDetails = nullptr;
    slotP->replyCapacity = 0;
    slotP->channelHeld = 0;
    slotP->beingSent = 0;
    slotP->purpose = PROGRAM_CALL;
}

static int takeSlot(RequestTable* requestTableP, int luwToken, RequestSlot** requestSlotPP)
{
    int rc = luwToken != 0 ? findLuwSlot(requestTableP, luwToken, requestSlotPP)
                           : findFreeSlot(requestTableP, requestSlotPP);
    if (rc == QPX_OK) rc = prepareEvent(*requestSlotPP);
    if (rc != QPX_OK) return rc;

    RequestSlot* slotP = *requestSlotPP;
    clearResults(slotP);
    slotP->allocNumber = ++requestTableP->lastAllocNumber;
    slotP->state = SLOT_ALLOCATED;
    return QPX_OK;
}

int slotFind(RequestTable* requestTableP, int luwToken, RequestSlot** requestSlotPP)
{
    namespace at = tp::slotFind;

    TRACE(at::entry, requestTableP, luwToken, requestSlotPP);
    int rc = takeSlot(requestTableP, luwToken, requestSlotPP);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

static bool isEmpty(const RequestTable* tableP)
{
    for (const RequestSlot& slot : tableP->slot)
        if (slot.state != SLOT_FREE) return false;
    return true;
}

/* Takes the last table out of the chain if it is an added one and empty. */
static bool giveBackLastTable(RequestTable* requestTableP)
{
    namespace at = tp::slotFree;

    RequestTable* tableP = lastTableOf(requestTableP);
    if (tableP == requestTableP || !isEmpty(tableP)) return false;

    int firstId = tableP->slot[0].messageId;
    TRACE(at::freeTable, tableP, firstId, lastSlotOf(tableP)->messageId.load());
    *placeInIndex(requestTableP, tableNumberOf(firstId)) = nullptr;
    RequestSlot* beforeP = clapiSlotById(requestTableP, firstId - 1);
    beforeP->nextSlot = nullptr;
    requestTableP->lastTable = tableOf(beforeP);
    keepTable(requestTableP, tableP);
    return true;
}

static void releaseSlot(RequestTable* requestTableP, RequestSlot* slotP)
{
    if (slotP->state != SLOT_FREE) {
        slotP->state = SLOT_FREE;
        slotP->allocNumber = 0;
        clapiRestEvent(&slotP->requestEvent);
        clearResults(slotP);
        memset(&slotP->eciParms, 0, sizeof slotP->eciParms);
        requestTableP->lowestFree = std::min<int>(requestTableP->lowestFree, slotP->messageId);
    }
    bool liesInLastAddedTable = slotP->messageId > SLOTS_PER_TABLE &&
                                lastSlotOf(tableOf(slotP))->nextSlot == nullptr;
    if (!liesInLastAddedTable) return;
    while (giveBackLastTable(requestTableP)) continue;
}

void slotFree(RequestTable* requestTableP, RequestSlot* slotP)
{
    namespace at = tp::slotFree;

    TRACE(at::entry, requestTableP, slotP);
    releaseSlot(requestTableP, slotP);
    TRACE(at::exit);
}

void clapiDropSlot(_QPX_ConnToken_t* gwTokPtr, RequestSlot* slotP)
{
    LockGuard table(gwTokPtr->tableLock);
    if (!table.held()) return;
    clapiAwaitEndOfReading(gwTokPtr, slotP);
    slotFree(&gwTokPtr->table, slotP);
}

static int findSlotById(RequestTable* requestTableP, int messageId, RequestSlot** slotPP)
{
    namespace at = tp::slotLookup;

    RequestSlot* slotP = clapiSlotById(requestTableP, messageId);
    if (slotP != nullptr) {
        *slotPP = slotP;
        return QPX_OK;
    }
    SCHEDULE_POINT(slotMissed, requestTableP);
    TRACE(at::notFound, messageId);
    return QPX_ERR_SYSTEM_ERROR;
}

int slotLookup(RequestTable* requestTableP, int messageId, RequestSlot** slotPP)
{
    namespace at = tp::slotLookup;

    TRACE(at::entry, requestTableP, messageId, slotPP);
    int rc = findSlotById(requestTableP, messageId, slotPP);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- The token list ---- */

/* Who looks for a token. */
enum class Seeker {
    Caller, // has nothing but an address: a token whose open has not ended is not there for it
    Holder  // knows that the token is there, since it opens it or is one of its deleters
};

static bool showsTo(Seeker seeker, const _QPX_ConnToken_t* token) NEEDS_LOCK(gtlLock)
{
    return seeker == Seeker::Holder || token->opening == 0;
}

/* How many tokens stand before a listed one; counted for the trace alone. */
static int positionInList(const _QPX_ConnToken_t* token) NEEDS_LOCK(gtlLock)
{
    int before = 0;
    while ((token = token->beforeInList) != nullptr) before += 1;
    return before;
}

static int searchTokenList(_QPX_ConnToken_t* targetToken, _QPX_ConnToken_t** parentTokenPtrPtr,
                           Seeker seeker) NEEDS_LOCK(gtlLock)
{
    namespace at = tp::findGatewayToken;

    if (targetToken == nullptr) {
        TRACE(at::nullToken);
        return TOKEN_NULL;
    }
    if (gtListHeadPtr == nullptr) {
        TRACE(at::empty);
        return TOKEN_NOT_FOUND;
    }

    // Identity is the pointer's: no field of the target is read before it is found.
    if (!listedTokens.contains(targetToken) || !showsTo(seeker, targetToken)) {
        TRACE(at::notFound, positionInList(gtListTailPtr), gtListHeadPtr, gtListTailPtr);
        return TOKEN_NOT_FOUND;
    }
    if (parentTokenPtrPtr != nullptr) *parentTokenPtrPtr = targetToken->beforeInList;
    TRACE(at::found, positionInList(targetToken));
    return TOKEN_FOUND;
}

/* Searches the list for a token; *parentTokenPtrPtr, where wanted, receives the token before it.
 * Locks: gtlLock held. */
static int findGatewayToken(_QPX_ConnToken_t* targetToken, _QPX_ConnToken_t** parentTokenPtrPtr,
                            Seeker seeker) NEEDS_LOCK(gtlLock)
{
    namespace at = tp::findGatewayToken;

    TRACE(at::entry, targetToken, parentTokenPtrPtr);
    int rc = searchTokenList(targetToken, parentTokenPtrPtr, seeker);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

static int appendToList(_QPX_ConnToken_t* newToken)
{
    namespace at = tp::chainGatewayToken;

    if (newToken == nullptr) {
        TRACE(at::nullToken);
        return QPX_ERR_NULLGWTOKPTR;
    }
    LockGuard list(gtlLock);
    if (!list.held()) {
        TRACE(at::noLock);
        return QPX_ERR_SYSTEM_ERROR;
    }
    if (gtListHeadPtr == nullptr) {
        gtListHeadPtr = newToken;
        newToken->beforeInList = nullptr;
    } else if (gtListTailPtr != nullptr) {
        gtListTailPtr->nextGwyTokPtr = newToken;
        newToken->beforeInList = gtListTailPtr;
    } else {
        TRACE(at::corrupt, gtListHeadPtr, gtListTailPtr);
        return QPX_ERR_SYSTEM_ERROR;
    }
    gtListTailPtr = newToken;
    listedTokens.add(newToken);
    lastSerial += 1;
    newToken->serial = lastSerial;
    return QPX_OK;
}

static int chainGatewayToken(_QPX_ConnToken_t* newToken)
{
    namespace at = tp::chainGatewayToken;

    TRACE(at::entry, newToken);
    int rc = appendToList(newToken);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* Deliberate: when the head goes, the tail is left as it was, for it is read only while there is a
 * head, and then it is right. Locks: gtlLock held. */
static void unlinkFromList(_QPX_ConnToken_t* token, _QPX_ConnToken_t* parent) NEEDS_LOCK(gtlLock)
{
    listedTokens.remove(token);
    if (token->nextGwyTokPtr != nullptr) token->nextGwyTokPtr->beforeInList = parent;
    if (parent == nullptr) {
        gtListHeadPtr = token->nextGwyTokPtr;
        return;
    }
    parent->nextGwyTokPtr = token->nextGwyTokPtr;
    if (parent->nextGwyTokPtr == nullptr) gtListTailPtr = parent;
}

/* ---- Showing tokens ---- */

int clapiFormatGatewayToken(_QPX_ConnToken_t* gwTokPtr, char* formattedToken)
{
    if (formattedToken == nullptr) return QPX_ERR_NULLPARM;
    if (gwTokPtr == nullptr) {
        strcpy(formattedToken, "GatwayToken(NULL)");
        return QPX_OK;
    }
    static_cast<void>(snprintf(
        formattedToken, FORMATTED_TOKEN_SIZE,
        "GatwayToken(%p) eyecatcher(%8.8s) port(%d) connStatus(%d) socket(%d) applid(%s) "
        "applidQual(%s) nextGwyTokPtr(%p)",
        static_cast<void*>(gwTokPtr), gwTokPtr->eyecatcher, static_cast<int>(gwTokPtr->portNumber),
        gwTokPtr->connStatus.load(), gwTokPtr->socketDescriptor.load(), gwTokPtr->applid,
        gwTokPtr->applidQualifier, static_cast<void*>(gwTokPtr->nextGwyTokPtr)));
    return QPX_OK;
}

/* Locks: gtlLock and traceLock held. */
static int dumpTokenList() NEEDS_LOCK(gtlLock, traceLock)
{
    clapiTracePrint("Gateway Token List dump\n%s", TRACE_DUMP_RULE);
    int entries = 0;
    for (_QPX_ConnToken_t* token = gtListHeadPtr; token != nullptr; token = token->nextGwyTokPtr) {
        char formattedToken[FORMATTED_TOKEN_SIZE];
        clapiFormatGatewayToken(token, formattedToken);
        entries += 1;
        clapiTracePrint("Gateway Token List entry -%4.4d- : %s\n", entries, formattedToken);
    }
    if (entries == 0)
        clapiTracePrint("The Gateway Token List is EMPTY\n");
    else
        clapiTracePrint("Total number of Gateway Token List entries=%d\n", entries);
    clapiTracePrint("%s", TRACE_DUMP_RULE);
    return entries;
}

void clapiDumpGatewayTokens(void)
{
    namespace at = tp::clapiDumpGatewayTokens;

    TRACE(at::entry);
    int length = 0;
    {
        LockGuard list(gtlLock);
        TraceHold hold;
        if (list.held()) length = dumpTokenList();
    }
    TRACE(at::exit, length);
}

/* ---- Counting API calls ---- */

static int countRequestIn(_QPX_ConnToken_t* gwTokPtr)
{
    namespace at = tp::clapiRegisterRequest;

    LockGuard list(gtlLock);
    if (!list.held()) {
        TRACE(at::noLock);
        return QPX_ERR_SYSTEM_ERROR;
    }

    int findRc = findGatewayToken(gwTokPtr, nullptr, Seeker::Caller);
    if (findRc != TOKEN_FOUND) {
        TRACE(at::notFound, gwTokPtr, findRc);
        return QPX_ERR_BADGWTOK;
    }

    // Deliberate: a call on a closing token is counted too, so that the close waits for it; it
    // is refused later, by the call itself.
    gwTokPtr->requestCount += 1;
    TRACE(at::counted, gwTokPtr->requestCount.load(), gwTokPtr);
    return QPX_OK;
}

int clapiRegisterRequest(_QPX_ConnToken_t* gwTokPtr)
{
    namespace at = tp::clapiRegisterRequest;

    TRACE(at::entry, gwTokPtr);
    int rc = countRequestIn(gwTokPtr);
    if (rc == QPX_OK) SCHEDULE_POINT(callRegistered, gwTokPtr);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

static int countRequestOut(_QPX_ConnToken_t* gwTokPtr)
{
    namespace at = tp::clapiUnregisterRequest;

    LockGuard list(gtlLock);
    if (!list.held()) {
        TRACE(at::noLock);
        return QPX_ERR_SYSTEM_ERROR;
    }

    gwTokPtr->requestCount -= 1;
    if (gwTokPtr->requestCount == 0 && gwTokPtr->asyncCount == 0)
        clapiClearEvent(&gwTokPtr->requestsEnded);
    // Once the lock is released, a closer may free the token.
    TRACE(at::counted, gwTokPtr->requestCount.load(), gwTokPtr);
    return QPX_OK;
}

int clapiUnregisterRequest(_QPX_ConnToken_t* gwTokPtr)
{
    namespace at = tp::clapiUnregisterRequest;

    TRACE(at::entry, gwTokPtr);
    int rc = countRequestOut(gwTokPtr);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- Creating a token ---- */

/* A token's locks and events, in the order in which they are made. */
enum Primitive {
    TABLE_LOCK,
    SEND_LOCK,
    CONN_EVENT,
    RECV_THREAD_ENDED_EVENT,
    REQUESTS_ENDED_EVENT,
    ASYNC_REPLY_EVENT
};

/* Undoes what has been made up to the one named, the newest first. */
static void removePrimitives(_QPX_ConnToken_t* token, Primitive lastMade)
{
    if (lastMade >= ASYNC_REPLY_EVENT) {
        pthread_cond_destroy(&token->transferEnded);
        clapiDeleteEvent(&token->asyncReplyEvent);
    }
    if (lastMade >= REQUESTS_ENDED_EVENT) clapiDeleteEvent(&token->requestsEnded);
    if (lastMade >= RECV_THREAD_ENDED_EVENT) clapiDeleteEvent(&token->recvThreadEndedEvent);
    if (lastMade >= CONN_EVENT) clapiDeleteEvent(&token->connEvent);
    if (lastMade >= SEND_LOCK) clapiDestroyLock(&token->sendLock);
    if (lastMade >= TABLE_LOCK) clapiDestroyLock(&token->tableLock);
}

static int createPrimitives(_QPX_ConnToken_t* token)
{
    namespace at = tp::clapiCreateGatewayToken;

    if (clapiInitializeLock(&token->tableLock) != 0) {
        TRACE(at::noTableLock);
        return QPX_ERR_SYSTEM_ERROR;
    }
    if (clapiInitializeLock(&token->sendLock) != 0) {
        TRACE(at::noSendLock);
        removePrimitives(token, TABLE_LOCK);
        return QPX_ERR_SYSTEM_ERROR;
    }
    clapiRankLock(&token->tableLock, RANK_TABLE);
    clapiRankLock(&token->sendLock, RANK_SEND);
    if (clapiCreateEvent(&token->connEvent) != 0) {
        TRACE(at::noConnEvent);
        removePrimitives(token, SEND_LOCK);
        return QPX_ERR_SYSTEM_ERROR;
    }
    if (clapiCreateEvent(&token->recvThreadEndedEvent) != 0) {
        TRACE(at::noRecvThreadEndedEvent);
        removePrimitives(token, CONN_EVENT);
        return QPX_ERR_SYSTEM_ERROR;
    }
    if (clapiCreateEvent(&token->requestsEnded) != 0) {
        TRACE(at::noRequestsEnded);
        removePrimitives(token, RECV_THREAD_ENDED_EVENT);
        return QPX_ERR_SYSTEM_ERROR;
    }
    // Deliberate: this failure alone comes back as the event's own, as the callers of an open know
    // it.
    int eventRc = clapiCreateEvent(&token->asyncReplyEvent);
    if (eventRc != 0) {
        TRACE(at::noAsyncReplyEvent);
        removePrimitives(token, REQUESTS_ENDED_EVENT);
        return eventRc;
    }
    pthread_cond_init(&token->transferEnded, nullptr);
    return QPX_OK;
}

static void copyApplid(char (&field)[APPLID_SIZE + 1], const char* text)
{
    memcpy(field, text, strnlen(text, APPLID_SIZE));
}

static void setInitialFields(_QPX_ConnToken_t* token, int port, int connTimeout, const char* applid,
                             const char* applidQualifier)
    NOT_ANALYSED("nobody else knows the token yet")
{
    memset(static_cast<void*>(token), 0, sizeof *token);
    memcpy(token->eyecatcher, TOKEN_EYECATCHER, sizeof token->eyecatcher);
    token->portNumber = static_cast<uint32_t>(port);
    token->connStatus = CONN_CONNECTING;
    token->connTimeout = connTimeout;
    token->socketDescriptor = NO_SOCKET;
    copyApplid(token->applid, applid);
    copyApplid(token->applidQualifier, applidQualifier);
    token->opening = 1;
}

/* How a thread that deletes a token has come to it. */
enum class Deleter {
    Opener, // has made it, in an open that fails
    Marker, // has marked it as closing, and is one of its deleters since
    Other   // has found it on the list
};

/* Makes a token that is complete but for its connection and puts it on the list. */
static int buildToken(_QPX_ConnToken_t** newToken, int port, int connTimeout, const char* applid,
                      const char* applidQualifier)
{
    namespace at = tp::clapiCreateGatewayToken;

    _QPX_ConnToken_t* token = static_cast<_QPX_ConnToken_t*>(malloc(sizeof *token));
    TRACE(at::allocated, traceInt(sizeof *token), token);
    if (token == nullptr) {
        TRACE(at::noMemory, traceInt(sizeof *token));
        return QPX_ERR_MALLOCFAIL;
    }
    setInitialFields(token, port, connTimeout, applid, applidQualifier);
    RequestTable* tableP = &token->table;
    clapiInitializeTable(tableP, 1);
    tableP->lookUp = slotLookup;
    TRACE(at::slotTable, tableP->slot[0].messageId.load(), lastSlotOf(tableP)->messageId.load());

    int rc = createPrimitives(token);
    if (rc == QPX_OK) {
        // There is no receiver thread yet for which a teardown would have to wait.
        rc = clapiClearEvent(&token->recvThreadEndedEvent) == 0 ? QPX_OK : QPX_ERR_SYSTEM_ERROR;
        if (rc == QPX_OK) rc = chainGatewayToken(token);
        if (rc != QPX_OK) removePrimitives(token, ASYNC_REPLY_EVENT);
    }
    if (rc != QPX_OK) {
        free(token);
        return rc;
    }
    *newToken = token;
    return QPX_OK;
}

static int openClientSocket(_QPX_ConnToken_t* gwTokPtr, char* hostname, int port, char* applid,
                            char* applidQualifier)
{
    namespace at = tp::openClientSocket;

    TRACE(at::entry, gwTokPtr, hostname, port, gwTokPtr->connTimeout);
    int rc = clapiConnectToGateway(port, hostname, gwTokPtr, applid, applidQualifier);
    if (rc == QPX_OK)
        TRACE(at::connected, hostname, gwTokPtr->portNumber,
              traceSocket(gwTokPtr->socketDescriptor));
    else
        TRACE(at::failed, hostname, gwTokPtr->portNumber);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

static void traceNewToken(_QPX_ConnToken_t* token)
{
    namespace at = tp::clapiCreateGatewayToken;

    if (!clapiTraces(at::created)) return;
    char formattedToken[FORMATTED_TOKEN_SIZE];
    {
        LockGuard list(gtlLock); // the token has been on the list for a while
        clapiFormatGatewayToken(token, formattedToken);
    }
    TRACE(at::created, formattedToken);
}

/* From now on the token is there for whoever names it, and for a close of all connections. */
static void endOpening(_QPX_ConnToken_t* token)
{
    LockGuard list(gtlLock);
    token->opening = 0;
}

static int deleteToken(QPX_ConnToken_t* gwTokPtr, _QPX_ConnToken_t* token, int closeTimeout,
                       int lockRequired, Deleter deleter);

static int createAndConnect(QPX_ConnToken_t* gwTokPtr, char* hostname, int port, int connTimeout,
                            char* applid, char* applidQualifier)
{
    _QPX_ConnToken_t* token = nullptr;
    int rc = buildToken(&token, port, connTimeout, applid, applidQualifier);
    if (rc != QPX_OK) return rc;

    // From here on the token's copies of the texts count: the caller's may change meanwhile.
    rc = openClientSocket(token, hostname, port, token->applid, token->applidQualifier);
    if (rc != QPX_OK) {
        deleteToken(&token, token, NO_WAIT, LOCK_REQUIRED, Deleter::Opener);
        return rc;
    }
    traceNewToken(token);
    endOpening(token);
    *gwTokPtr = token;
    return QPX_OK;
}

int clapiCreateGatewayToken(QPX_ConnToken_t* gwTokPtr, char* hostname, int port, int connTimeout,
                            char* applid, char* applidQualifier)
{
    namespace at = tp::clapiCreateGatewayToken;

    TRACE(at::entry, gwTokPtr, port, connTimeout, applid, applidQualifier);
    int rc = createAndConnect(gwTokPtr, hostname, port, connTimeout, applid, applidQualifier);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- Closing a token ---- */

/* Whether a close of the token has begun, or has taken it off the list not long ago.
 * Locks: gtlLock held. */
static bool isClosing(const _QPX_ConnToken_t* gwTokPtr, int findRc) NEEDS_LOCK(gtlLock)
{
    return findRc == TOKEN_FOUND ? gwTokPtr->closedown != 0 : clapiHasLeft(gwTokPtr);
}

/*
 * Marks a token, and counts whoever has marked it among its deleters in the same hold: from here
 * on the token stays until that thread has been through the delete. Locks: gtlLock held.
 */
static int markAsClosing(_QPX_ConnToken_t* gwTokPtr) NEEDS_LOCK(gtlLock)
{
    namespace at = tp::clapiCloseGatewayToken;

    int findRc = findGatewayToken(gwTokPtr, nullptr, Seeker::Caller);
    // Deliberate: a closed token is told from an unknown one before the list is asked, so that a
    // second close says that it is the second, whether the first is through or not.
    if (isClosing(gwTokPtr, findRc)) return QPX_ERR_GWTOK_CLOSED;
    if (findRc != TOKEN_FOUND) {
        TRACE(at::notFound, gwTokPtr, findRc);
        return QPX_ERR_BADGWTOK;
    }

    gwTokPtr->closedown = 1;
    gwTokPtr->deleters += 1;
    SCHEDULE_POINT(tokenMarked, gwTokPtr);
    int calls = gwTokPtr->requestCount;
    int asyncRequests = gwTokPtr->asyncCount;
    TRACE(at::outstanding, calls, asyncRequests);
    if (calls < 1 && asyncRequests < 1) return QPX_OK;

    if (clapiSetEvent(&gwTokPtr->requestsEnded) != 0) {
        TRACE(at::notArmed);
        gwTokPtr->closedown = 0;
        gwTokPtr->deleters -= 1;
        return QPX_ERR_SYSTEM_ERROR;
    }
    return QPX_OK;
}

static int lockAndMarkAsClosing(_QPX_ConnToken_t* gwTokPtr)
{
    namespace at = tp::clapiCloseGatewayToken;

    LockGuard list(gtlLock);
    if (!list.held()) {
        TRACE(at::noLock);
        return QPX_ERR_SYSTEM_ERROR;
    }
    return markAsClosing(gwTokPtr);
}

int clapiCloseGatewayToken(_QPX_ConnToken_t* gwTokPtr, int lockRequired)
    NOT_ANALYSED("lockRequired tells who has the lock")
{
    namespace at = tp::clapiCloseGatewayToken;

    TRACE(at::entry, gwTokPtr, traceFlag(lockRequired));
    int rc = lockRequired != 0 ? lockAndMarkAsClosing(gwTokPtr) : markAsClosing(gwTokPtr);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- Quiescing a connection ---- */

/* Releases the threads that wait for an asynchronous reply that can no longer come. */
static int releaseReplyWaiters(_QPX_ConnToken_t* gwToken)
{
    namespace at = tp::quiesceConnection;

    LockGuard table(gwToken->tableLock);
    if (!table.held()) {
        TRACE(at::noLock);
        return QPX_ERR_SYSTEM_ERROR;
    }
    if (gwToken->asyncCount == 0 && clapiClearEvent(&gwToken->asyncReplyEvent) != 0) {
        TRACE(at::notPosted);
        return QPX_ERR_SYSTEM_ERROR;
    }
    return QPX_OK;
}

/* Waits for the work in progress as long as the close time-out allows. */
static int waitForWork(_QPX_ConnToken_t* gwToken, int closeTimeout)
{
    namespace at = tp::quiesceConnection;

    int calls = gwToken->requestCount;
    int asyncRequests = gwToken->asyncCount;
    if (calls < 1 && asyncRequests < 1) return QPX_OK;

    SCHEDULE_POINT(beforeWorkWait, gwToken);
    if (closeTimeout == WAIT_WITHOUT_LIMIT) {
        TRACE(at::waiting, calls, asyncRequests);
        if (clapiWaitEvent(&gwToken->requestsEnded) != 0) {
            TRACE(at::waitFailed);
            return QPX_ERR_SYSTEM_ERROR;
        }
    } else if (closeTimeout >= 1) {
        TRACE(at::waitingFor, closeTimeout, calls, asyncRequests);
        int expired; // running out of time is no failure: the close goes on
        if (clapiTimedWaitEvent(&gwToken->requestsEnded, closeTimeout, &expired) != 0) {
            TRACE(at::waitForFailed, closeTimeout);
            return QPX_ERR_SYSTEM_ERROR;
        }
    }
    return QPX_OK;
}

/* Deliberate: waits whatever has happened before, for the receiver works on the token, which is
 * freed next. */
static void waitForReceiver(_QPX_ConnToken_t* gwToken)
{
    namespace at = tp::quiesceConnection;

    SCHEDULE_POINT(beforeReceiverWait, gwToken);
    if (clapiWaitEvent(&gwToken->recvThreadEndedEvent) != 0) TRACE(at::receiverStays);
}

/* Gives up asynchronous replies that nobody has collected. Locks: tableLock held. */
static void giveUpReplies(_QPX_ConnToken_t* gwToken) NEEDS_LOCK(gwToken->tableLock)
{
    int givenUp = gwToken->asyncCount.exchange(0);
    // Another close of the token may be waiting for these very replies.
    if (givenUp > 0 && gwToken->requestCount == 0) clapiClearEvent(&gwToken->requestsEnded);
}

/* Gives channels that asynchronous requests hold back to the application; not those of calls that
 * are still being made, which do so themselves. Locks: tableLock held. */
static void unlockChannels(_QPX_ConnToken_t* gwToken) NEEDS_LOCK(gwToken->tableLock)
{
    for (RequestSlot* slotP = &gwToken->table.slot[0]; slotP != nullptr; slotP = slotP->nextSlot) {
        if (slotP->channelHeld == 0 || slotP->eciParms.eci_call_type != ECI_ASYNC) continue;
        if (slotP->state == SLOT_ALLOCATED) continue;
        unlockChannel(slotP->eciParms.channel);
        slotP->channelHeld = 0;
    }
}

/* Waits, whatever the close time-out was, until every call has left the library. */
static int waitForCalls(_QPX_ConnToken_t* gwToken, int calls)
{
    namespace at = tp::quiesceConnection;

    TRACE(at::waitingForCalls, calls);
    if (clapiWaitEvent(&gwToken->requestsEnded) == 0) return QPX_OK;
    TRACE(at::callsStay);
    return QPX_ERR_SYSTEM_ERROR;
}

/* As waitForCalls for a caller that holds tableLock, which is given up meanwhile. */
static int seeCallsOut(_QPX_ConnToken_t* gwToken, int calls, LockGuard* table)
    NEEDS_LOCK(gwToken->tableLock) NOT_ANALYSED("gives up what its caller's guard holds")
{
    namespace at = tp::quiesceConnection;

    table->release();
    if (waitForCalls(gwToken, calls) != QPX_OK) return QPX_ERR_SYSTEM_ERROR;
    if (table->request() != 0) {
        TRACE(at::noLockAfterWait);
        return QPX_ERR_SYSTEM_ERROR;
    }
    return QPX_OK;
}

/* Once the receiver is gone: gives up what is left of asynchronous work, and sees the last calls
 * out. */
static int endWork(_QPX_ConnToken_t* gwToken)
{
    namespace at = tp::quiesceConnection;

    LockGuard table(gwToken->tableLock);
    if (!table.held()) {
        TRACE(at::noLockAfterClose);
        return QPX_ERR_SYSTEM_ERROR;
    }
    giveUpReplies(gwToken);
    // A call that has to leave may be waiting for one of these.
    unlockChannels(gwToken);
    int calls = gwToken->requestCount;
    return calls >= 1 ? seeCallsOut(gwToken, calls, &table) : QPX_OK;
}

/* What is left to do where a quiesce has failed, with the receiver gone all the same: the requests
 * stay with the token, but nobody will write into their channels any more. */
static void giveChannelsBack(_QPX_ConnToken_t* gwToken)
{
    LockGuard table(gwToken->tableLock);
    if (table.held()) unlockChannels(gwToken);
}

/* Whether a close flow can be sent. A connection whose stream the library has ended is no more,
 * whether the receiver knows it yet or not. */
static bool takesCloseFlow(const _QPX_ConnToken_t* gwToken)
{
    return gwToken->connStatus == CONN_CONNECTED && gwToken->brokenOff == 0;
}

static int quiesceConnection(_QPX_ConnToken_t* gwToken, int closeTimeout)
{
    namespace at = tp::quiesceConnection;

    TRACE(at::entry, gwToken, closeTimeout);
    int rc = releaseReplyWaiters(gwToken);
    if (rc == QPX_OK) rc = waitForWork(gwToken, closeTimeout);
    if (rc == QPX_OK && takesCloseFlow(gwToken)) rc = clapiCloseConnection(gwToken);
    waitForReceiver(gwToken);
    if (rc == QPX_OK)
        rc = endWork(gwToken);
    else
        giveChannelsBack(gwToken);
    SCHEDULE_POINT(tokenQuiesced, gwToken);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- Deleting a token ---- */

static void freeAllSlots(_QPX_ConnToken_t* token)
{
    LockGuard table(token->tableLock);
    RequestSlot* slotP = &token->table.slot[0];
    while (slotP != nullptr) {
        if (slotP->state == SLOT_FREE) {
            slotP = slotP->nextSlot;
            continue;
        }
        slotFree(&token->table, slotP);
        // The table that the slot was in may have gone with it.
        slotP = &token->table.slot[0];
    }
}

/* Ends a token that is not on the list any more and that nobody works on. Deliberate:
 * recvThreadEndedEvent is not deleted, for the receiver that has posted it may not have left it
 * yet. Locks: gtlLock held. */
static void freeToken(_QPX_ConnToken_t* token) NEEDS_LOCK(gtlLock)
{
    namespace at = tp::clapiDeleteGatewayToken;

    freeAllSlots(token);
    clapiFreeTables(&token->table);
    clapiDeleteEvent(&token->asyncReplyEvent);
    clapiDeleteEvent(&token->requestsEnded);
    clapiDeleteEvent(&token->connEvent);
    clapiDestroyLock(&token->sendLock);
    clapiDestroyLock(&token->tableLock);
    pthread_cond_destroy(&token->transferEnded);
    TRACE(at::freeing, token);
    // The address of a token that was never given out is in nobody's variable.
    if (token->opening != 0)
        free(token);
    else
        clapiPutToRest(token);
}

/* Finds the token for its delete. Locks: takes gtlLock, and keeps it on success. */
static int lockAndFind(_QPX_ConnToken_t* token, Deleter deleter) ACQUIRES_IF_ZERO(gtlLock)
    NOT_ANALYSED("whether it keeps the lock depends on what it finds")
{
    namespace at = tp::clapiDeleteGatewayToken;

    if (clapiRequestLock(&gtlLock) != 0) {
        TRACE(at::noLock);
        // Without the lock the count is all that can be put right: it is the last touch of the
        // token, which stays for a close of all connections.
        if (deleter == Deleter::Marker) token->deleters -= 1;
        return QPX_ERR_SYSTEM_ERROR;
    }
    Seeker seeker = deleter == Deleter::Other ? Seeker::Caller : Seeker::Holder;
    int findRc = findGatewayToken(token, nullptr, seeker);
    if (findRc != TOKEN_FOUND) {
        TRACE(at::notFound, token, findRc);
        clapiReleaseLock(&gtlLock);
        return QPX_ERR_BADGWTOK;
    }
    return QPX_OK;
}

/* Begins a delete and gives up gtlLock, which the caller holds unless lockRequired is set. */
static int beginDelete(_QPX_ConnToken_t* token, int lockRequired, Deleter deleter)
    NOT_ANALYSED("lockRequired tells who has the lock")
{
    namespace at = tp::clapiDeleteGatewayToken;

    if (lockRequired != 0) {
        int rc = lockAndFind(token, deleter);
        if (rc != QPX_OK) return rc;
    }
    if (deleter != Deleter::Marker) token->deleters += 1;
    // Calls still at work on the token must be able to leave while the quiesce waits for them.
    if (clapiReleaseLock(&gtlLock) != 0) {
        TRACE(at::notReleased);
        token->deleters -= 1;
        clapiReleaseLock(&gtlLock); // it is still held
        return QPX_ERR_SYSTEM_ERROR;
    }
    return QPX_OK;
}

/*
 * Takes a quiesced token off the list and waits for the calls that have come upon it since it
 * was quiesced; nobody can come after them. False if the token is another delete's.
 * Locks: gtlLock held; given up while waiting, and taken again.
 */
static bool unlinkForGood(_QPX_ConnToken_t* token, LockGuard* list) NEEDS_LOCK(gtlLock)
    NOT_ANALYSED("gives up what its caller's guard holds")
{
    if (token->deleters > 0 || token->quiesced == 0) return false;
    _QPX_ConnToken_t* parent = nullptr;
    if (findGatewayToken(token, &parent, Seeker::Holder) != TOKEN_FOUND) return false;

    unlinkFromList(token, parent);
    clapiBeginLeaving(token);
    SCHEDULE_POINT(tokenUnlisted, token);
    while (token->requestCount >= 1) {
        clapiSetEvent(&token->requestsEnded);
        list->release();
        clapiWaitEvent(&token->requestsEnded);
        // Whether the last call is through with the token shows under the lock only.
        if (list->request() != 0) return false;
    }
    clapiEndLeaving(token);
    return true;
}

static int endDelete(_QPX_ConnToken_t* token, int quiesceRc)
{
    namespace at = tp::clapiDeleteGatewayToken;

    LockGuard list(gtlLock);
    if (!list.held()) {
        if (quiesceRc == QPX_OK) TRACE(at::noLockAfterwards);
        // The last touch of the token, which stays for a close of all connections.
        token->deleters -= 1;
        return firstFailure(quiesceRc, QPX_ERR_SYSTEM_ERROR);
    }
    token->deleters -= 1;
    if (quiesceRc == QPX_OK) token->quiesced = 1;
    if (unlinkForGood(token, &list)) freeToken(token);
    return quiesceRc;
}

static int quiesceAndFree(_QPX_ConnToken_t* token, int closeTimeout, int lockRequired,
                          Deleter deleter)
{
    int rc = beginDelete(token, lockRequired, deleter);
    if (rc != QPX_OK) return rc;
    rc = quiesceConnection(token, closeTimeout);
    return endDelete(token, rc);
}

/* The caller's variable is not read: it may have changed since the token was taken from it. */
static int deleteToken(QPX_ConnToken_t* gwTokPtr, _QPX_ConnToken_t* token, int closeTimeout,
                       int lockRequired, Deleter deleter)
{
    namespace at = tp::clapiDeleteGatewayToken;

    TRACE(at::entry, gwTokPtr, closeTimeout, traceFlag(lockRequired));
    int rc = quiesceAndFree(token, closeTimeout, lockRequired, deleter);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

int clapiDeleteClosingToken(QPX_ConnToken_t* gwTokPtr, _QPX_ConnToken_t* token, int closeTimeout)
{
    return deleteToken(gwTokPtr, token, closeTimeout, LOCK_REQUIRED, Deleter::Marker);
}

/* Deletes the token that a variable names. */
static int deleteNamedToken(QPX_ConnToken_t* gwTokPtr, int closeTimeout, int lockRequired)
{
    if (gwTokPtr == nullptr) return QPX_ERR_NULLGWTOKPTR;
    _QPX_ConnToken_t* token = clapiReadToken(gwTokPtr);
    if (token == nullptr) return QPX_ERR_NULLGWTOK;
    return quiesceAndFree(token, closeTimeout, lockRequired, Deleter::Other);
}

int clapiDeleteGatewayToken(QPX_ConnToken_t* gwTokPtr, int closeTimeout, int lockRequired)
{
    namespace at = tp::clapiDeleteGatewayToken;

    TRACE(at::entry, gwTokPtr, closeTimeout, traceFlag(lockRequired));
    int rc = deleteNamedToken(gwTokPtr, closeTimeout, lockRequired);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- Deleting all tokens ---- */

/* The functions of the walk below hold gtlLock. */

/*
 * How far a close of all connections has come. A token is known by its serial number, which no
 * other ever has; the list is in the order of the numbers.
 */
struct Walk {
    uint64_t lastAtStart; // serial numbers: of the last token listed when the walk began
    uint64_t lastToVisit;
    uint64_t visited;
};

/* The next token of the walk, or null. One whose open has not ended belongs to the thread that
 * opens it. */
static _QPX_ConnToken_t* nextToDelete(const Walk& walk) NEEDS_LOCK(gtlLock)
{
    _QPX_ConnToken_t* token = gtListHeadPtr;
    while (token != nullptr && (token->serial <= walk.visited || token->opening != 0))
        token = token->nextGwyTokPtr;
    return token != nullptr && token->serial <= walk.lastToVisit ? token : nullptr;
}

/*
 * Notes that a token's turn has come. As if the list was followed from token to token, the walk
 * comes to those behind it by now; but once it is past those that it has set out for it looks for
 * no more, lest it never ends while others go on opening.
 */
static void visit(Walk* walk, const _QPX_ConnToken_t* token) NEEDS_LOCK(gtlLock)
{
    walk->visited = token->serial;
    if (token->serial <= walk->lastAtStart) walk->lastToVisit = lastSerial;
}

static void traceTokenToDelete(_QPX_ConnToken_t* token, int entry) NEEDS_LOCK(gtlLock)
{
    namespace at = tp::clapiDeleteGatewayTokens;

    if (!clapiTraces(at::token)) return;
    char formattedToken[FORMATTED_TOKEN_SIZE];
    clapiFormatGatewayToken(token, formattedToken);
    TRACE(at::token, token, entry, formattedToken);
}

/* Deletes every token and returns their number. Each delete gives up gtlLock, which is taken
 * again for the look at the list between two of them. */
static int deleteEveryToken() NOT_ANALYSED("each delete gives up the lock")
{
    namespace at = tp::clapiDeleteGatewayTokens;

    if (clapiRequestLock(&gtlLock) != 0) return 0;
    if (gtListHeadPtr == nullptr) TRACE(at::empty);

    Walk walk = {lastSerial, lastSerial, 0};
    int entries = 0;
    _QPX_ConnToken_t* token = nextToDelete(walk);
    while (token != nullptr) {
        entries += 1;
        traceTokenToDelete(token, entries);
        visit(&walk, token);
        int rc = clapiCloseGatewayToken(token, CALLER_HOLDS_LOCK);
        deleteToken(&token, token, NO_WAIT, CALLER_HOLDS_LOCK,
                    rc == QPX_OK ? Deleter::Marker : Deleter::Other);
        if (clapiRequestLock(&gtlLock) != 0) return entries;
        token = nextToDelete(walk);
    }
    clapiReleaseLock(&gtlLock);
    return entries;
}

int clapiDeleteGatewayTokens(void)
{
    namespace at = tp::clapiDeleteGatewayTokens;

    TRACE(at::entry);
    int entries = deleteEveryToken();
    TRACE(at::exit, entries, QPX_OK);
    return QPX_OK;
}

/* ---- The child of a fork ---- */

void clapiForgetTokens(void)
{
    if (gtListHeadPtr == nullptr) return;
    clapiKeepForgotten(gtListHeadPtr, gtListTailPtr);
    gtListHeadPtr = nullptr;
    listedTokens.clear();
}
