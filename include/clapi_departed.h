/*
 * clapi_departed.h - tokens that are on the list no more.
 *
 * Locks: gtlLock is held in every call.
 */
#ifndef CLAPI_DEPARTED_H
#define CLAPI_DEPARTED_H

#include "clapi_types.h"

/* From the first to the second a token that is off the list has calls that are still inside. */
void clapiBeginLeaving(_QPX_ConnToken_t* token) NEEDS_LOCK(gtlLock);
void clapiEndLeaving(_QPX_ConnToken_t* token) NEEDS_LOCK(gtlLock);

/* Puts the record of a token that has been given out to rest, instead of freeing it, and frees the
 * one that has rested longest. */
void clapiPutToRest(_QPX_ConnToken_t* record) NEEDS_LOCK(gtlLock);

/* Whether there was a connection at the address not long ago: its token is leaving, or its record
 * rests. The address may be any; nothing is read there. */
bool clapiHasLeft(const _QPX_ConnToken_t* gwTokPtr) NEEDS_LOCK(gtlLock);

/* Takes over a list of tokens, from its first to its last, that nobody will know any more. */
void clapiKeepForgotten(_QPX_ConnToken_t* first, _QPX_ConnToken_t* last) NEEDS_LOCK(gtlLock);

#endif
