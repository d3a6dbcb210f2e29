/*
 * clapi_channel.h - the records of channels and containers, and what other modules do with them.
 *
 * A channel is held with lockChannel while a call works on it or has it in flight. Its serLock
 * guards the holding itself, for a few instructions at a time. What a dump of the channels shows
 * is changed by the functions below only: they keep the dump out while they change it.
 */
#ifndef CLAPI_CHANNEL_H
#define CLAPI_CHANNEL_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "clapi_lock.h"
#include "data_storage.h"
#include "eci_channel.h"

/* Bytes of a name in a record; one that fills them has no terminator. */
constexpr size_t CHANNEL_NAME_SIZE = 16;

/* A channel's ccsid until the first character container or call has set it. */
constexpr int CCSID_UNKNOWN = -1;

typedef struct _ECI_Container_t {
    char eyecatcher[8]; // "QPXCONTA", no terminator
    char name[CHANNEL_NAME_SIZE];
    int32_t ccsid;     // 0 for ECI_BIT
    int32_t type;      // an ECI_CONTAINER_TYPE; out of a reply, any value
    char* dataPtr;     // owned, of data_storage.h; null when dataLength is 0
    size_t dataLength; // bytes
    _ECI_Container_t* nextCont;
    _ECI_Container_t* previousCont; // in the list
    _ECI_Container_t* nextInIndex;  // among the containers of the channel's index
} ECI_Container_t;

/* Who frees the record of a channel that is deleted. While a call has a channel its record stays,
 * so that its address cannot become another channel's. */
enum ChannelFate : int32_t {
    FREED_BY_DELETION = 0,
    DELETED_WHILE_HELD, // the deletion is not through yet
    LEFT_TO_HOLDER      // the call that has the channel frees it when it lets go
};

/* Guards the list and the set of channels, and the cached code page. */
extern Clapilock chanListLock;

typedef struct _ECI_Channel_t {
    char eyecatcher[8]; // "QPXCHANN", no terminator
    char name[CHANNEL_NAME_SIZE];
    std::atomic<int32_t> ccsid; // CCSID_UNKNOWN until it is known
    std::atomic<int32_t> numContainers;
    Clapilock serLock;
    ClapiEvent unlockEvent;                    // posted when the channel is unlocked
    std::atomic<int32_t> isLocked;             // 1 while a call holds the channel; by serLock
    ECI_Container_t* firstCont;                // the newest container
    std::atomic<ECI_Container_t*> currentCont; // where browsing stands; null before the first
    _ECI_Channel_t* nextChan GUARDED_BY(chanListLock);
    std::atomic<int32_t> waiters; // threads that wait in lockChannel; they come and go by serLock
    int32_t deleted;              // 1 once the channel is being deleted; by serLock
    int32_t fate;                 // a ChannelFate; by chanListLock
    _ECI_Channel_t* previousChan GUARDED_BY(chanListLock);
    _ECI_Channel_t* nextInSet GUARDED_BY(chanListLock); // in the set of channels
    ECI_Container_t** index; // of containers by their names, owned; null for a few of them
    unsigned int indexBits;  // it has 2 to this power of chains
} ECI_Channel_t;

/* ---- Holding a channel ---- */

/*
 * Takes a channel for the length of a call, and gives it back. lockChannel waits, without limit,
 * until no other call has it. A handle that is no channel's is refused and not followed. A channel
 * that ECI_deleteAllChannels has deleted meanwhile stays readable for the call that has it, until
 * its unlockChannel, which returns ECI_ERR_INVALID_CHANNEL then.
 * 0, ECI_ERR_INVALID_CHANNEL or ECI_ERR_SYSTEM_ERROR.
 * Locks: both take chanListLock and serLock, in this order, and neither may be called with one of
 * them held; unlockChannel may with a tableLock.
 */
int lockChannel(ECI_ChannelToken_t chanTok) TAKES_LOCK(chanListLock);
int unlockChannel(ECI_ChannelToken_t chanTok) TAKES_LOCK(chanListLock);

/*
 * Around a fork: no list of channels or containers is being changed meanwhile. The child has the
 * channels, and none of the calls that held them or waited for them: it can use them all.
 * Locks: held from the first to one of the others.
 */
void clapiChannelsForkPrepare(void);
void clapiChannelsForkParent(void);
void clapiChannelsForkChild(void);

/* Checks the name of a channel or container: 0 or ECI_ERR_INVALID_NAME. */
int validateName(const char* name);

/* ---- Code pages ---- */

/*
 * Makes sure that defaultLocalCcsid is the CCSID of the local code page, which is worked out
 * once per process: 0 or ECI_ERR_SYSTEM_ERROR. Locks: takes chanListLock.
 */
int getCurrentCcsid(void) TAKES_LOCK(chanListLock);

/*
 * Gives the local code page to a channel that has none yet: one that the caller holds, or one that
 * is there. The handle of one that is not is not followed.
 * Locks: the second takes chanListLock.
 */
void clapiSettleCcsid(ECI_Channel_t* channel);
void clapiSettleCcsidIfThere(ECI_ChannelToken_t chanTok) TAKES_LOCK(chanListLock);

extern int defaultLocalCcsid; // valid once getCurrentCcsid has returned 0
extern int defaultLocalCcsidSet GUARDED_BY(chanListLock); // 1 once defaultLocalCcsid is valid

/* ---- Containers of a channel that the caller holds ---- */

/* Sets the eyecatcher of a container that is zero otherwise. */
void clapiInitializeContainer(ECI_Container_t* container);

/* The newest container of that name, of which 16 bytes count, or null. */
ECI_Container_t* clapiFindContainer(const ECI_Channel_t* channel, const char* name);

/* Puts a container at the head of the list. */
void clapiLinkContainer(ECI_Channel_t* channel, ECI_Container_t* container);

/* Takes a container out of the list. If browsing stands on it, it goes back to the one before, and
 * the result is true. */
bool clapiUnlinkContainer(ECI_Channel_t* channel, ECI_Container_t* container);

/* Gives a container other data and returns the old, which is the caller's now. */
char* clapiExchangeData(ECI_Container_t* container, char* data, size_t length);

/* Gives a container everything that another has, but for its place in the list. */
void clapiReplaceContainer(ECI_Container_t* container, const ECI_Container_t* replacement);

/* Gives a channel the 16 bytes of another name. */
void clapiRenameChannel(ECI_Channel_t* channel, const char* name);

/* Overwrites a container's record without its data, and frees it. */
void clapiFreeContainer(ECI_Container_t* container);

#endif
