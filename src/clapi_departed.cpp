/*
 * Tokens that have left the list: those whose last calls are still inside, those whose records
 * rest, and those that the child of a fork has forgotten. What is on the list, and when a token
 * leaves it, is clapi_gwytok's business.
 *
 * Locks: none taken; gtlLock is held.
 */
#include "clapi_departed.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#endif

/*
 * A variable of the application may name a token long after its close. As long as the record rests
 * its address is nobody else's, and who names it is told that the connection is closed. The records
 * are known by their place here; nothing of them is read.
 */
constexpr size_t RESTING_RECORDS = 64;
static _QPX_ConnToken_t* restingRecords[RESTING_RECORDS] GUARDED_BY(gtlLock);
static size_t nextRestingPlace GUARDED_BY(gtlLock) = 0; // holds the oldest

/* Tokens off the list whose last calls are still inside. */
static _QPX_ConnToken_t* leavingHeadPtr GUARDED_BY(gtlLock) = nullptr;

/* What a child of a fork has forgotten, which belongs to threads that it does not have. */
static _QPX_ConnToken_t* forgottenHeadPtr GUARDED_BY(gtlLock) = nullptr;

bool clapiHasLeft(const _QPX_ConnToken_t* gwTokPtr)
{
    if (gwTokPtr == nullptr) return false;
    for (const _QPX_ConnToken_t* token = leavingHeadPtr; token != nullptr;
         token = token->nextGwyTokPtr)
        if (token == gwTokPtr) return true;
    for (const _QPX_ConnToken_t* record : restingRecords)
        if (record == gwTokPtr) return true;
    return false;
}

void clapiBeginLeaving(_QPX_ConnToken_t* token)
{
    token->nextGwyTokPtr = leavingHeadPtr;
    leavingHeadPtr = token;
}

void clapiEndLeaving(_QPX_ConnToken_t* token)
{
    _QPX_ConnToken_t** linkPtr = &leavingHeadPtr;
    while (*linkPtr != token) linkPtr = &(*linkPtr)->nextGwyTokPtr;
    *linkPtr = token->nextGwyTokPtr;
}

/* Lets a use of a resting record show as what it is where the address sanitizer looks on. */
static void forbidUse(_QPX_ConnToken_t* record)
{
#ifdef __SANITIZE_ADDRESS__
    ASAN_POISON_MEMORY_REGION(record, sizeof *record);
#endif
    static_cast<void>(record);
}

static void freeRecord(_QPX_ConnToken_t* record)
{
#ifdef __SANITIZE_ADDRESS__
    if (record != nullptr) ASAN_UNPOISON_MEMORY_REGION(record, sizeof *record);
#endif
    free(record);
}

/* Overwrites all of a record but the event that its receiver may still be leaving: what wakes the
 * closer is the unlock of that event, which has not returned then. */
static void eraseRecord(_QPX_ConnToken_t* record)
{
    constexpr size_t event = offsetof(_QPX_ConnToken_t, recvThreadEndedEvent);
    constexpr size_t behind = event + sizeof record->recvThreadEndedEvent;

    char* bytes = reinterpret_cast<char*>(record);
    explicit_bzero(bytes, event);
    explicit_bzero(bytes + behind, sizeof *record - behind);
}

void clapiPutToRest(_QPX_ConnToken_t* record)
{
    eraseRecord(record);
    forbidUse(record);
    freeRecord(restingRecords[nextRestingPlace]);
    restingRecords[nextRestingPlace] = record;
    nextRestingPlace = (nextRestingPlace + 1) % RESTING_RECORDS;
}

void clapiKeepForgotten(_QPX_ConnToken_t* first, _QPX_ConnToken_t* last)
{
    last->nextGwyTokPtr = forgottenHeadPtr;
    forgottenHeadPtr = first;
}
