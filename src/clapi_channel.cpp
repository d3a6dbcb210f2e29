/*
 * Channels: their records and list, the holding of a channel for the length of a call, the
 * operations on containers, and the local code page. How a channel travels is
 * clapi_socketcomms', which call has it is clapi_eci's business.
 *
 * Locks: chanListLock for the list, the set and the cached code page, a channel's serLock for a few
 * instructions of holding and letting go, never across a wait. A handle is known by the set of
 * channels: chanListLock is held from the look-up until serLock is taken. containerListGuard and
 * waitersGuard are leaves: nothing that takes another lock of the library, traces or waits for
 * anything else happens under them; a dump makes its whole text under the former.
 */
#include "clapi_channel.h"

#include <climits>
#include <clocale>
#include <cstdlib>
#include <cstring>

#include <algorithm>

#include "address_set.h"
#include "api_call.h"
#include "clapi_diag.h"
#include "clapi_impl.h"
#include "clapi_rc.h"
#include "container_index.h"
#include "growing_text.h"
#include "qpxclient_eci.h"
#include "schedule_points.h"
#include "trace_points/clapi_channel.h"

static const char CHANNEL_EYECATCHER[] = "QPXCHANN";
static const char CONTAINER_EYECATCHER[] = "QPXCONTA";

Clapilock chanListLock;
static ECI_Channel_t* chanList GUARDED_BY(chanListLock) = nullptr; // the newest channel
/* The channels of the list, and those of others that a call still has. */
static AddressSet<ECI_Channel_t, &ECI_Channel_t::nextInSet> channelSet GUARDED_BY(chanListLock);

/* For deletions, which wait for those who wait for a channel to have left. */
static ProcessLock waitersGuard(RANK_WAITERS);
static pthread_cond_t waiterLeft = PTHREAD_COND_INITIALIZER;

/* Keeps a dump of the channels, which holds no channel, off a container list that is changing. */
static ProcessLock containerListGuard(RANK_CONTAINERS);

class HOLDS_A_LOCK ContainerListHold {
public:
    ContainerListHold() ACQUIRES(containerListGuard)
    {
        SCHEDULE_POINT(beforeListChange, &containerListGuard);
        clapiTake(&containerListGuard);
    }
    ~ContainerListHold() RELEASES() { clapiGiveUp(&containerListGuard); }
    ContainerListHold(const ContainerListHold&) = delete;
    ContainerListHold& operator=(const ContainerListHold&) = delete;
};

/* ---- Names of channels and containers ---- */

constexpr char NAME_CHARACTERS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"
                                   "<>$@#/%&?!:|\"=';.-_";

/* The same as a table: every call on a container looks at a name. */
struct NameCharacters {
    constexpr NameCharacters()
    {
        for (size_t i = 0; i < sizeof NAME_CHARACTERS - 1; ++i)
            isOne[static_cast<unsigned char>(NAME_CHARACTERS[i])] = true;
    }
    bool isOne[UCHAR_MAX + 1] = {};
};

/* How many characters at a text's beginning may stand in a name. */
static size_t countNameCharacters(const char* text)
{
    static constexpr NameCharacters characters;

    size_t count = 0;
    while (characters.isOne[static_cast<unsigned char>(text[count])]) count += 1;
    return count;
}

static int checkName(const char* name)
{
    namespace at = tp::validateName;

    if (name == nullptr) {
        TRACE(at::nullName);
        return ECI_ERR_INVALID_NAME;
    }
    size_t length = strlen(name);
    if (length > CHANNEL_NAME_SIZE) {
        TRACE(at::tooLong, traceInt(CHANNEL_NAME_SIZE));
        return ECI_ERR_INVALID_NAME;
    }
    size_t valid = countNameCharacters(name);
    if (valid < length) {
        TRACE(at::badCharacter, name[valid]);
        return ECI_ERR_INVALID_NAME;
    }
    if (length == 0) {
        TRACE(at::empty);
        return ECI_ERR_INVALID_NAME;
    }
    return ECI_NO_ERROR;
}

int validateName(const char* name)
{
    namespace at = tp::validateName;

    TRACE(at::entry, traceText(name));
    int rc = checkName(name);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* A valid name, which is not null, in a record: without a terminator where it fills the field. */
static void storeName(char (&field)[CHANNEL_NAME_SIZE], const char* name)
{
    // NOLINTNEXTLINE(clang-analyzer-core.NonNullParamChecker): validateName is too far away for it
    memcpy(field, name, strnlen(name, sizeof field));
}

/* ---- The local code page ---- */

int defaultLocalCcsid = 0;
int defaultLocalCcsidSet = 0;

constexpr int CCSID_ISO_8859_1 = 819;

typedef struct _CodeSetEntry {
    const char* codeSet; // a prefix of LANG's value
    int ccsid;
} CodeSetEntry;

/* Deliberate: the first row whose text the value begins with counts, so that a longer text must
 * stand before a shorter one that it begins with: the order is part of the table. */
static const CodeSetEntry CodeSetTable[] = {
    {"C", 819},      {"ar", 1089}, {"bu", 915},   {"co", 819},         {"ca", 819},
    {"cs", 912},     {"cy", 819},  {"da", 819},   {"de", 819},         {"el", 813},
    {"en", 819},     {"eo", 819},  {"es", 819},   {"eu", 819},         {"fi", 819},
    {"fr", 819},     {"fy", 819},  {"ga", 819},   {"gd", 819},         {"hr", 912},
    {"hu", 912},     {"is", 819},  {"it", 819},   {"iw", 916},         {"ja", 5050},
    {"ji", 916},     {"kl", 819},  {"ko", 970},   {"lv", 912},         {"mk", 915},
    {"nl", 819},     {"no", 819},  {"pl", 912},   {"POSIX", 819},      {"pt", 819},
    {"ro", 912},     {"ru", 915},  {"sh", 912},   {"sl", 912},         {"sk", 912},
    {"sr", 915},     {"sv", 819},  {"tr", 920},   {"zh_TW.big5", 950}, {"zh_TW", 964},
    {"zh_CN", 1383}, {"zh", 1383}, {"big5", 950}, {"tchinese", 964},   {"", 0},
};

static int ccsidOfCodeSet(const char* lang)
{
    namespace at = tp::getCurrentCcsid;

    const CodeSetEntry* entry = CodeSetTable;
    while (entry->ccsid != 0 && strncmp(lang, entry->codeSet, strlen(entry->codeSet)) != 0) ++entry;
    if (entry->ccsid == 0) {
        TRACE(at::notMapped, lang);
        return CCSID_ISO_8859_1;
    }
    TRACE(at::mapped, lang, entry->ccsid);
    return entry->ccsid;
}

static int localCcsid()
{
    namespace at = tp::getCurrentCcsid;

    // NOLINTNEXTLINE(concurrency-mt-unsafe): applications know that and when it happens
    static_cast<void>(setlocale(LC_ALL, ""));
    // Deliberate: neither LC_ALL nor LC_CTYPE is asked. The code page would become another one on
    // machines where they are set, and data that servers know would come out differently.
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody may change the environment meanwhile
    const char* lang = getenv("LANG");
    if (lang != nullptr && lang[0] != '\0') return ccsidOfCodeSet(lang);
    TRACE(at::noLang, CCSID_ISO_8859_1);
    return CCSID_ISO_8859_1;
}

static int obtainLocalCcsid()
{
    namespace at = tp::getCurrentCcsid;

    LockGuard list(chanListLock);
    if (!list.held()) {
        TRACE(at::noListLock);
        return ECI_ERR_SYSTEM_ERROR;
    }
    if (defaultLocalCcsidSet == 0) {
        defaultLocalCcsid = localCcsid();
        defaultLocalCcsidSet = 1;
        TRACE(at::resultCcsid, defaultLocalCcsid);
    }
    if (list.release() != 0) {
        TRACE(at::notReleased, &chanListLock);
        return ECI_ERR_SYSTEM_ERROR;
    }
    return ECI_NO_ERROR;
}

int getCurrentCcsid(void)
{
    namespace at = tp::getCurrentCcsid;

    TRACE(at::entry);
    int rc = obtainLocalCcsid();
    TRACE(at::exit, rc);
    return rc;
}

void clapiSettleCcsid(ECI_Channel_t* channel)
{
    int32_t unknown = CCSID_UNKNOWN;
    channel->ccsid.compare_exchange_strong(unknown, defaultLocalCcsid);
}

void clapiSettleCcsidIfThere(ECI_ChannelToken_t chanTok)
{
    LockGuard list(chanListLock);
    if (list.held() && channelSet.contains(chanTok)) clapiSettleCcsid(chanTok);
}

/* ---- Holding a channel ---- */

/* What the last to hold a deleted channel does. */
static void freeAbandoned(ECI_Channel_t* channel);

/* Sleeps until no call holds the channel; serLock is given up meanwhile. */
static int awaitUnlocked(ECI_Channel_t* channel, LockGuard* serLock) NEEDS_LOCK(channel->serLock)
    NOT_ANALYSED("gives up what its caller's guard holds")
{
    namespace at = tp::lockChannel;

    if (serLock->release() != 0) {
        TRACE(at::notReleased, channel);
        return ECI_ERR_SYSTEM_ERROR;
    }
    SCHEDULE_POINT(beforeChannelWait, channel);
    if (clapiWaitEvent(&channel->unlockEvent) != 0) {
        TRACE(at::waitFailed, channel);
        return ECI_ERR_SYSTEM_ERROR;
    }
    SCHEDULE_POINT(channelWaitEnded, channel);
    if (serLock->request() != 0) {
        TRACE(at::noLock, channel);
        return ECI_ERR_SYSTEM_ERROR;
    }
    return ECI_NO_ERROR;
}

/* A channel's name as it is at this moment: a reply may change it while a call has the channel. */
struct ChannelName {
    explicit ChannelName(const ECI_Channel_t* channel)
    {
        ContainerListHold hold;
        memcpy(text, channel->name, sizeof text);
    }
    char text[CHANNEL_NAME_SIZE];
};

/* Deletions look at the number of waiters again. */
static void leaveWaiters(ECI_Channel_t* channel)
{
    clapiTake(&waitersGuard);
    channel->waiters -= 1;
    pthread_cond_broadcast(&waiterLeft);
    clapiGiveUp(&waitersGuard);
}

/* Waits for the channel's turn, or its deletion. Another thread may take it between the wake-up and
 * the look: then the wait begins anew. A deletion waits for all who are in here. */
static int awaitTurn(ECI_Channel_t* channel, LockGuard* serLock) NEEDS_LOCK(channel->serLock)
{
    namespace at = tp::lockChannel;

    TRACE(at::waiting, ChannelName(channel).text, channel);
    channel->waiters += 1;
    int rc = ECI_NO_ERROR;
    while (rc == ECI_NO_ERROR && channel->isLocked != 0 && channel->deleted == 0)
        rc = awaitUnlocked(channel, serLock);
    leaveWaiters(channel);
    return rc;
}

/* Locks: serLock held, as in the two functions that follow. */
static int takeChannel(ECI_Channel_t* channel) NEEDS_LOCK(channel->serLock)
{
    namespace at = tp::lockChannel;

    if (clapiSetEvent(&channel->unlockEvent) != 0) {
        TRACE(at::notArmed, channel);
        return ECI_ERR_SYSTEM_ERROR;
    }
    channel->isLocked = 1;
    return ECI_NO_ERROR;
}

static int letGo(ECI_Channel_t* channel)
{
    channel->isLocked = 0;
    return clapiClearEvent(&channel->unlockEvent);
}

static int waitAndTakeChannel(ECI_Channel_t* channel, LockGuard* serLock)
    NEEDS_LOCK(channel->serLock)
{
    namespace at = tp::lockChannel;

    bool mustWait = channel->isLocked != 0;
    int rc = mustWait ? awaitTurn(channel, serLock) : ECI_NO_ERROR;
    if (rc != ECI_NO_ERROR) return rc;
    if (channel->deleted != 0) {
        TRACE(at::noChannel, channel);
        return ECI_ERR_INVALID_CHANNEL;
    }
    rc = takeChannel(channel);
    if (rc == ECI_NO_ERROR && mustWait) TRACE(at::finished, ChannelName(channel).text, channel);
    return rc;
}

/* Where the lock of a handle is. By arithmetic on numbers: what is no channel may stand at any
 * address. */
static Clapilock* serLockOf(ECI_ChannelToken_t chanTok)
{
    std::uintptr_t address = reinterpret_cast<std::uintptr_t>(chanTok);
    return reinterpret_cast<Clapilock*>(address + offsetof(ECI_Channel_t, serLock));
}

/* Takes the serLock of a channel that is there and not deleted: 0 or -1. */
static int requestSerLock(ECI_ChannelToken_t chanTok) ACQUIRES_IF_ZERO(chanTok->serLock)
    NOT_ANALYSED("whether it takes the lock depends on what it finds")
{
    LockGuard list(chanListLock);
    if (!list.held()) return -1;
    bool isThere = channelSet.contains(chanTok) && chanTok->deleted == 0;
    int rc = isThere ? clapiRequestLock(&chanTok->serLock) : -1;
    list.release();
    if (!isThere) clapiRefuseLock(serLockOf(chanTok));
    return rc;
}

static int holdChannel(ECI_ChannelToken_t chanTok)
    NOT_ANALYSED("a lock that could not be given up is held")
{
    namespace at = tp::lockChannel;

    if (chanTok == nullptr) {
        TRACE(at::nullChannel);
        return ECI_ERR_INVALID_CHANNEL;
    }
    if (requestSerLock(chanTok) != 0) {
        TRACE(at::noChannel, chanTok);
        return ECI_ERR_INVALID_CHANNEL;
    }
    LockGuard serLock(chanTok->serLock, ALREADY_HELD);
    int rc = waitAndTakeChannel(chanTok, &serLock);
    if (rc == ECI_NO_ERROR && serLock.release() != 0) {
        TRACE(at::stillHeld, chanTok);
        letGo(chanTok); // nobody else would
        rc = ECI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

int lockChannel(ECI_ChannelToken_t chanTok)
{
    namespace at = tp::lockChannel;

    TRACE(at::entry, chanTok);
    int rc = holdChannel(chanTok);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* The end of a call's hold of a channel that has been deleted under it. True if its record is left
 * to the caller. Locks: chanListLock held. */
static bool leaveDeleted(ECI_Channel_t* channel) NEEDS_LOCK(chanListLock)
{
    LockGuard serLock(channel->serLock);
    channel->isLocked = 0;
    if (channel->fate != LEFT_TO_HOLDER) return false;
    channelSet.remove(channel);
    return true;
}

/* As requestSerLock, for the end of a hold, which may be that of a deleted channel. */
static int requestHeldSerLock(ECI_ChannelToken_t chanTok) ACQUIRES_IF_ZERO(chanTok->serLock)
    NOT_ANALYSED("whether it takes the lock depends on what it finds")
{
    LockGuard list(chanListLock);
    if (!list.held()) return -1;
    bool isKnown = channelSet.contains(chanTok);
    bool isThere = isKnown && chanTok->deleted == 0;
    int rc = isThere ? clapiRequestLock(&chanTok->serLock) : -1;
    bool isMine = isKnown && !isThere && leaveDeleted(chanTok);
    list.release();
    if (isMine) freeAbandoned(chanTok);
    if (!isThere) clapiRefuseLock(serLockOf(chanTok));
    return rc;
}

/* Opens a channel to those who wait for it. serLockRc is the outcome of requesting its serLock. */
static int releaseChannel(ECI_Channel_t* channel, int serLockRc)
    NOT_ANALYSED("serLockRc tells whether the lock is held")
{
    namespace at = tp::unlockChannel;

    if (serLockRc != 0) {
        TRACE(at::noChannel, channel);
        return ECI_ERR_INVALID_CHANNEL;
    }
    LockGuard serLock(channel->serLock, ALREADY_HELD);
    int rc = ECI_NO_ERROR;
    if (letGo(channel) != 0) {
        TRACE(at::notPosted, channel);
        rc = ECI_ERR_SYSTEM_ERROR;
    }
    if (serLock.release() != 0) {
        TRACE(at::notReleased, channel);
        rc = ECI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

int unlockChannel(ECI_ChannelToken_t chanTok)
{
    namespace at = tp::unlockChannel;

    TRACE(at::entry, chanTok);
    int rc = ECI_ERR_INVALID_CHANNEL;
    if (chanTok == nullptr)
        TRACE(at::nullChannel);
    else
        rc = releaseChannel(chanTok, requestHeldSerLock(chanTok));
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* The serLock of a channel that the call itself holds, whose record is there until it lets go. Only
 * one that has been deleted meanwhile is looked up. */
static int requestOwnSerLock(ECI_Channel_t* channel) ACQUIRES_IF_ZERO(channel->serLock)
    NOT_ANALYSED("whether it keeps the lock depends on what it finds")
{
    int rc = clapiRequestLock(&channel->serLock);
    if (rc != 0 || channel->deleted == 0) return rc;
    clapiReleaseLock(&channel->serLock);
    return requestHeldSerLock(channel);
}

/* The serLock of a channel that a deletion holds and has taken out of the set. */
static int requestForgottenSerLock(ECI_Channel_t* channel)
{
    return clapiRequestLock(&channel->serLock);
}

/* As unlockChannel, for a caller who knows that there is a channel. */
template <int (*requestItsSerLock)(ECI_Channel_t*)>
static int unlockKnown(ECI_Channel_t* channel)
{
    namespace at = tp::unlockChannel;

    TRACE(at::entry, channel);
    int rc = releaseChannel(channel, requestItsSerLock(channel));
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- Forks ---- */

void clapiChannelsForkPrepare(void) ACQUIRES(chanListLock, containerListGuard, waitersGuard)
{
    clapiTakeForFork(&chanListLock);
    clapiTakeForFork(&containerListGuard);
    clapiTakeForFork(&waitersGuard);
}

void clapiChannelsForkParent(void) RELEASES(chanListLock, containerListGuard, waitersGuard)
{
    clapiGiveUp(&waitersGuard);
    clapiGiveUp(&containerListGuard);
    clapiGiveUpAfterFork(&chanListLock);
}

/* A channel that no thread of this process holds or waits for. Its lock and its event are made
 * anew: a thread that does not exist here may have been at work on them. */
static void startAnew(ECI_Channel_t* channel)
{
    pthread_mutex_init(&channel->serLock.lock, nullptr);
    pthread_mutex_init(&channel->unlockEvent.mutex, nullptr);
    pthread_cond_init(&channel->unlockEvent.cond, nullptr);
    channel->unlockEvent.eflag = 1;
    channel->isLocked = 0;
    channel->waiters = 0;
    // An index may have been in the making; the next container makes another.
    channel->index = nullptr;
    channel->indexBits = 0;
}

void clapiChannelsForkChild(void) RELEASES(chanListLock, containerListGuard, waitersGuard)
{
    // A channel that is off the list is being deleted by a thread that does not exist here.
    channelSet.clear();
    for (ECI_Channel_t* channel = chanList; channel != nullptr; channel = channel->nextChan) {
        startAnew(channel);
        channelSet.add(channel);
    }
    pthread_cond_init(&waiterLeft, nullptr);
    clapiGiveUp(&waitersGuard);
    clapiGiveUp(&containerListGuard);
    clapiGiveUpAfterFork(&chanListLock);
}

/* ---- Containers of a channel that is held ---- */

void clapiInitializeContainer(ECI_Container_t* container)
{
    memcpy(container->eyecatcher, CONTAINER_EYECATCHER, sizeof container->eyecatcher);
}

ECI_Container_t* clapiFindContainer(const ECI_Channel_t* channel, const char* name)
{
    return clapiFirstOfName(channel, name);
}

/* The container of that name, which must be there; null and a line of the trace if it is not. */
template <const TracePoint& notFound>
static ECI_Container_t* wantedContainer(ECI_Channel_t* channel, const char* name)
{
    ECI_Container_t* container = clapiFindContainer(channel, name);
    if (container == nullptr) TRACE(notFound, name, channel->name);
    return container;
}

void clapiLinkContainer(ECI_Channel_t* channel, ECI_Container_t* container)
{
    {
        ContainerListHold hold;
        container->previousCont = nullptr;
        container->nextCont = channel->firstCont;
        if (channel->firstCont != nullptr) channel->firstCont->previousCont = container;
        channel->firstCont = container;
        channel->numContainers += 1;
    }
    clapiNoteLinked(channel, container);
    SCHEDULE_POINT(containerLinked, channel);
}

bool clapiUnlinkContainer(ECI_Channel_t* channel, ECI_Container_t* container)
{
    clapiNoteUnlinked(channel, container);
    ContainerListHold hold;
    ECI_Container_t* previous = container->previousCont;
    ECI_Container_t* next = container->nextCont;
    (previous != nullptr ? previous->nextCont : channel->firstCont) = next;
    if (next != nullptr) next->previousCont = previous;
    channel->numContainers -= 1;

    if (channel->currentCont != container) return false;
    channel->currentCont = previous;
    return true;
}

char* clapiExchangeData(ECI_Container_t* container, char* data, size_t length)
{
    ContainerListHold hold;
    char* before = container->dataPtr;
    container->dataPtr = data;
    container->dataLength = length;
    return before;
}

void clapiReplaceContainer(ECI_Container_t* container, const ECI_Container_t* replacement)
{
    ContainerListHold hold;
    // Its name is the same as far as names count.
    ECI_Container_t before = *container;
    *container = *replacement;
    container->nextCont = before.nextCont;
    container->previousCont = before.previousCont;
    container->nextInIndex = before.nextInIndex;
}

void clapiRenameChannel(ECI_Channel_t* channel, const char* name)
{
    ContainerListHold hold;
    memcpy(channel->name, name, sizeof channel->name);
}

void clapiFreeContainer(ECI_Container_t* container)
{
    explicit_bzero(container, sizeof *container);
    free(container);
}

/* ---- Creating a channel ---- */

/* Zeroes and frees the record of a channel without containers. */
static void freeChannel(ECI_Channel_t* channel)
{
    clapiDropIndex(channel);
    explicit_bzero(static_cast<void*>(channel), sizeof *channel);
    free(channel);
}

/* A channel with its lock and event. *channelPP is stored on success only. */
static int buildChannel(const char* name, ECI_Channel_t** channelPP)
{
    namespace at = tp::ECI_createChannel;

    ECI_Channel_t* channel = static_cast<ECI_Channel_t*>(calloc(1, sizeof(ECI_Channel_t)));
    if (channel == nullptr) {
        TRACE(at::noMemory, traceInt(sizeof *channel));
        return ECI_ERR_MEMORY_SHORTAGE;
    }
    memcpy(channel->eyecatcher, CHANNEL_EYECATCHER, sizeof channel->eyecatcher);
    storeName(channel->name, name);
    channel->ccsid = CCSID_UNKNOWN;
    if (clapiInitializeLock(&channel->serLock) != 0) {
        TRACE(at::noLock);
        freeChannel(channel);
        return ECI_ERR_CHANNELLOCKFAIL;
    }
    clapiRankLock(&channel->serLock, RANK_CHANNEL);
    if (clapiCreateEvent(&channel->unlockEvent) != 0) {
        TRACE(at::noEvent);
        clapiDestroyLock(&channel->serLock);
        freeChannel(channel);
        return ECI_ERR_CHANNELLOCKFAIL;
    }
    *channelPP = channel;
    return ECI_NO_ERROR;
}

static void dismantleChannel(ECI_Channel_t* channel)
{
    clapiDeleteEvent(&channel->unlockEvent);
    clapiDestroyLock(&channel->serLock);
}

/* Locks: chanListLock held, as in the function that follows. */
static void putOnList(ECI_Channel_t* channel) NEEDS_LOCK(chanListLock)
{
    channel->previousChan = nullptr;
    channel->nextChan = chanList;
    if (chanList != nullptr) chanList->previousChan = channel;
    chanList = channel;
}

static void takeOffList(const ECI_Channel_t* channel) NEEDS_LOCK(chanListLock)
{
    if (channel->nextChan != nullptr) channel->nextChan->previousChan = channel->previousChan;
    if (channel->previousChan != nullptr)
        channel->previousChan->nextChan = channel->nextChan;
    else
        chanList = channel->nextChan;
}

static int listChannel(ECI_Channel_t* channel)
    NOT_ANALYSED("a lock that could not be given up is held")
{
    namespace at = tp::ECI_createChannel;

    LockGuard list(chanListLock);
    if (!list.held()) {
        TRACE(at::noListLock);
        return ECI_ERR_SYSTEM_ERROR;
    }
    putOnList(channel);
    channelSet.add(channel);
    if (list.release() == 0) return ECI_NO_ERROR;

    // Still held: the channel goes off the list again.
    TRACE(at::notReleased);
    takeOffList(channel);
    channelSet.remove(channel);
    return ECI_ERR_SYSTEM_ERROR;
}

static int createChannel(const char* name, ECI_ChannelToken_t* tokPtr)
{
    namespace at = tp::ECI_createChannel;

    if (tokPtr == nullptr) {
        TRACE(at::nullPtr);
        return ECI_ERR_NULLCHANNELPTR;
    }
    ECI_Channel_t* channel = nullptr;
    int rc = validateName(name);
    if (rc == ECI_NO_ERROR) rc = buildChannel(name, &channel);
    if (rc != ECI_NO_ERROR) return rc;

    rc = listChannel(channel);
    if (rc != ECI_NO_ERROR) {
        dismantleChannel(channel);
        freeChannel(channel);
        return rc;
    }
    *tokPtr = channel;
    TRACE(at::created, name, channel); // the channel itself may be gone already
    return ECI_NO_ERROR;
}

int ECI_createChannel(const char* name, ECI_ChannelToken_t* tokPtr)
{
    namespace at = tp::ECI_createChannel;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, traceText(name), tokPtr);
    if (rc == QPX_OK) rc = createChannel(name, tokPtr);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- Deleting channels ---- */

/* Overwrites and frees the data of a container that is off its list, and the container. The
 * parameters are the lines that the deletion writes. */
template <const TracePoint& freeingData, const TracePoint& deleted>
static void destroyContainer(ECI_Container_t* container)
{
    if (container->dataPtr != nullptr) {
        TRACE(freeingData, traceSize(container->dataLength), container->dataPtr);
        clapiFreeData(container->dataPtr, container->dataLength);
    }
    TRACE(deleted, container->name, container);
    clapiFreeContainer(container);
}

template <const TracePoint& freeingData, const TracePoint& deleted>
static void destroyContainers(ECI_Channel_t* channel)
{
    while (channel->firstCont != nullptr) {
        ECI_Container_t* container = channel->firstCont;
        clapiUnlinkContainer(channel, container);
        destroyContainer<freeingData, deleted>(container);
    }
}

/* Deleting all channels may have been faster: then the channel is not this deletion's. */
static int unlistChannel(ECI_Channel_t* channel)
    NOT_ANALYSED("a lock that could not be given up is held")
{
    namespace at = tp::ECI_deleteChannel;

    LockGuard list(chanListLock);
    if (!list.held()) {
        TRACE(at::noListLock);
        return ECI_ERR_SYSTEM_ERROR;
    }
    if (channel->deleted != 0) return ECI_ERR_INVALID_CHANNEL;
    takeOffList(channel);
    if (list.release() == 0) return ECI_NO_ERROR;

    // Still held: the channel stays, and on the list.
    TRACE(at::listNotReleased);
    putOnList(channel);
    return ECI_ERR_SYSTEM_ERROR;
}

/* From here on the handle is unknown, and whoever waits for the channel is refused when it wakes.
 * A lock that cannot be had does not keep the deletion from ending. */
static void refuseWaiters(ECI_Channel_t* channel)
{
    LockGuard list(chanListLock);
    channelSet.remove(channel);
    LockGuard serLock(channel->serLock);
    channel->deleted = 1;
}

/* Returns when no thread waits in lockChannel any more. Each of them leaves at once: the event is
 * open, and the channel marked as deleted, so that nobody else can come. */
static void awaitWaiters(ECI_Channel_t* channel)
{
    SCHEDULE_POINT(beforeWaitersWait, channel);
    clapiTake(&waitersGuard);
    while (channel->waiters != 0) clapiSleep(&waiterLeft, &waitersGuard);
    clapiGiveUp(&waitersGuard);
    LockGuard serLock(channel->serLock); // the last one to leave had it
}

static int finishDeletion(ECI_Channel_t* channel)
{
    namespace at = tp::ECI_deleteChannel;

    refuseWaiters(channel);
    int rc = ECI_NO_ERROR;
    if (unlockKnown<requestForgottenSerLock>(channel) != ECI_NO_ERROR) {
        TRACE(at::notUnlocked);
        letGo(channel); // nobody is left asleep
        rc = ECI_ERR_SYSTEM_ERROR;
    }
    awaitWaiters(channel);
    TRACE(at::releasedLock, channel);
    dismantleChannel(channel);
    TRACE(at::deleted, channel->name, channel);
    freeChannel(channel);
    return rc;
}

static int deleteHeldChannel(ECI_Channel_t* channel, ECI_ChannelToken_t* tokPtr)
{
    namespace at = tp::ECI_deleteChannel;

    int rc = unlistChannel(channel);
    if (rc != ECI_NO_ERROR) {
        if (unlockChannel(channel) != ECI_NO_ERROR) TRACE(at::notUnlocked);
        return rc;
    }
    destroyContainers<at::freeingData, at::deletedContainer>(channel);
    rc = finishDeletion(channel);
    *tokPtr = nullptr;
    return rc;
}

static int deleteChannel(ECI_ChannelToken_t* tokPtr)
{
    namespace at = tp::ECI_deleteChannel;

    if (tokPtr == nullptr) {
        TRACE(at::nullPtr);
        return ECI_ERR_NULLCHANNELPTR;
    }
    ECI_Channel_t* channel = *tokPtr;
    if (channel == nullptr) {
        TRACE(at::nullChannel);
        return ECI_ERR_INVALID_CHANNEL;
    }
    int rc = lockChannel(channel);
    if (rc == ECI_NO_ERROR) rc = deleteHeldChannel(channel, tokPtr);
    return rc;
}

int ECI_deleteChannel(ECI_ChannelToken_t* tokPtr)
{
    namespace at = tp::ECI_deleteChannel;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, tokPtr);
    if (rc == QPX_OK) rc = deleteChannel(tokPtr);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* Frees a channel that was deleted while a call had it; the deletion has told of it. */
static void freeAbandoned(ECI_Channel_t* channel)
{
    dismantleChannel(channel);
    while (channel->firstCont != nullptr) {
        ECI_Container_t* container = channel->firstCont;
        clapiUnlinkContainer(channel, container);
        clapiFreeData(container->dataPtr, container->dataLength);
        clapiFreeContainer(container);
    }
    freeChannel(channel);
}

/* What a deletion tells of one container. */
struct ContainerView {
    const ECI_Container_t* container;
    char name[CHANNEL_NAME_SIZE];
    const char* dataPtr;
    size_t dataLength;
};

/* Looks at a container by its place in the list of a channel that a call may be changing; false if
 * there are not so many. */
static bool viewContainer(const ECI_Channel_t* channel, int place, ContainerView* view)
{
    ContainerListHold hold;
    const ECI_Container_t* container = channel->firstCont;
    while (container != nullptr && place-- > 0) container = container->nextCont;
    if (container == nullptr) return false;
    view->container = container;
    memcpy(view->name, container->name, sizeof view->name);
    view->dataPtr = container->dataPtr;
    view->dataLength = container->dataLength;
    return true;
}

/* The lines of a deletion for containers that the call which has the channel may still use. */
static void tellOfContainers(const ECI_Channel_t* channel)
{
    namespace at = tp::ECI_deleteAllChannels;

    ContainerView view;
    for (int place = 0; clientAPITrace > 0 && viewContainer(channel, place, &view); ++place) {
        if (view.dataPtr != nullptr)
            TRACE(at::freeingData, traceSize(view.dataLength), view.dataPtr);
        TRACE(at::deletedContainer, view.name, view.container);
    }
}

/* Leaves the record to the call that has the channel, or frees it if none has it any more. */
static void abandonChannel(ECI_Channel_t* channel)
{
    {
        LockGuard list(chanListLock);
        if (!list.held()) return; // it stays, and stays refused
        LockGuard serLock(channel->serLock);
        if (channel->isLocked != 0) {
            channel->fate = LEFT_TO_HOLDER;
            return;
        }
        channelSet.remove(channel);
    }
    freeAbandoned(channel);
}

/* Refuses those who wait for a channel that has been marked as deleted. */
static void seeWaitersOut(ECI_Channel_t* channel)
{
    {
        LockGuard serLock(channel->serLock); // the last one to leave may still have it
        if (channel->waiters == 0) return;
        clapiClearEvent(&channel->unlockEvent);
    }
    awaitWaiters(channel);
}

static void destroyUnlisted(ECI_Channel_t* channel)
{
    namespace at = tp::ECI_deleteAllChannels;

    seeWaitersOut(channel);
    TRACE(at::destroying, ChannelName(channel).text, channel);
    if (channel->fate == DELETED_WHILE_HELD) {
        tellOfContainers(channel);
        TRACE(at::deleted, ChannelName(channel).text, channel);
        abandonChannel(channel);
        return;
    }
    dismantleChannel(channel);
    destroyContainers<at::freeingData, at::deletedContainer>(channel);
    TRACE(at::deleted, channel->name, channel);
    freeChannel(channel);
}

/* Takes all channels off the list and returns the first. Nobody can hold them from here on; those
 * that a call has stay in the set, for its unlockChannel. Locks: chanListLock held. */
static ECI_Channel_t* unlistAllChannels() NEEDS_LOCK(chanListLock)
{
    ECI_Channel_t* first = chanList;
    for (ECI_Channel_t* channel = first; channel != nullptr; channel = channel->nextChan) {
        LockGuard serLock(channel->serLock);
        channel->deleted = 1;
        if (channel->isLocked != 0)
            channel->fate = DELETED_WHILE_HELD;
        else
            channelSet.remove(channel);
    }
    chanList = nullptr;
    return first;
}

/* The next of the channels that have been taken off the list together. */
static ECI_Channel_t* nextUnlisted(const ECI_Channel_t* channel)
    NOT_ANALYSED("off the list they are one thread's")
{
    return channel->nextChan;
}

/* Deliberate: calls in progress are not waited for, since a server may take any time to answer, or
 * never do. */
static int deleteAllChannels()
{
    namespace at = tp::ECI_deleteAllChannels;

    ECI_Channel_t* channel;
    int releaseRc;
    {
        LockGuard list(chanListLock);
        if (!list.held()) {
            TRACE(at::noListLock);
            return ECI_ERR_SYSTEM_ERROR;
        }
        channel = unlistAllChannels();
        releaseRc = list.release();
    }
    SCHEDULE_POINT(channelsUnlisted, channel);
    while (channel != nullptr) {
        ECI_Channel_t* next = nextUnlisted(channel);
        destroyUnlisted(channel);
        channel = next;
    }
    if (releaseRc == 0) return ECI_NO_ERROR;
    TRACE(at::notReleased);
    return ECI_ERR_SYSTEM_ERROR;
}

int ECI_deleteAllChannels(void)
{
    namespace at = tp::ECI_deleteAllChannels;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry);
    if (rc == QPX_OK) rc = deleteAllChannels();
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- A channel's name ---- */

/* Runs an operation on a channel, which is held meanwhile. A channel that cannot be let go shows in
 * a result that was good. */
template <const TracePoint& notUnlocked, typename Operation>
static int whileHolding(ECI_ChannelToken_t chanTok, Operation operation)
{
    int rc = lockChannel(chanTok);
    if (rc != ECI_NO_ERROR) return rc;

    rc = operation();
    if (unlockKnown<requestOwnSerLock>(chanTok) == ECI_NO_ERROR) return rc;
    TRACE(notUnlocked);
    return firstFailure(rc, ECI_ERR_SYSTEM_ERROR);
}

static int copyChannelName(ECI_ChannelToken_t chanTok, char* nameBuffer)
{
    namespace at = tp::ECI_getChannelName;

    if (chanTok == nullptr) {
        TRACE(at::nullChannel);
        return ECI_ERR_INVALID_CHANNEL;
    }
    if (nameBuffer == nullptr) {
        TRACE(at::nullBuffer);
        return ECI_ERR_NULLPTR;
    }
    return whileHolding<at::notUnlocked>(chanTok, [&] {
        memset(nameBuffer, 0, ECI_NAME_SIZE);
        memcpy(nameBuffer, chanTok->name, sizeof chanTok->name);
        return ECI_NO_ERROR;
    });
}

int ECI_getChannelName(ECI_ChannelToken_t chanTok, char* nameBuffer)
{
    namespace at = tp::ECI_getChannelName;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, chanTok, nameBuffer);
    if (rc == QPX_OK) rc = copyChannelName(chanTok, nameBuffer);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- The dump of all channels ---- */

static void printContainer(GrowingText* text, const ECI_Container_t* container, int ordinal,
                           int containers)
{
    text->print("   Container list entry -%4.4d/%4.4d- : Container(%p): eyecatcher(%8.8s) "
                "name(%16.16s) type(%d) ccsid(%d) dataLength(%lu) dataPtr(%p) nextCont(%p)\n",
                ordinal, containers, static_cast<const void*>(container), container->eyecatcher,
                container->name, container->type, container->ccsid,
                traceSize(container->dataLength), static_cast<void*>(container->dataPtr),
                static_cast<void*>(container->nextCont));
}

static void printChannel(GrowingText* text, const ECI_Channel_t* channel, int ordinal)
    NEEDS_LOCK(chanListLock)
{
    text->print("Channel list entry -%4.4d- : Channel(%p): eyecatcher(%8.8s) name(%16.16s) "
                "serlock(%p) unlockEvent(%p) isLocked(%d) ccsid(%d) numContainers(%d) "
                "nextChannel(%p) firstCont(%p) currentCont(%p)\n",
                ordinal, static_cast<const void*>(channel), channel->eyecatcher, channel->name,
                static_cast<const void*>(&channel->serLock),
                static_cast<const void*>(&channel->unlockEvent), channel->isLocked.load(),
                channel->ccsid.load(), channel->numContainers.load(),
                static_cast<void*>(channel->nextChan), static_cast<void*>(channel->firstCont),
                static_cast<void*>(channel->currentCont.load()));
}

/* The dump as one text. Locks: chanListLock held. */
static void printChannels(GrowingText* text) NEEDS_LOCK(chanListLock)
{
    ContainerListHold hold;
    text->print("Channel and container dump\n%s", TRACE_DUMP_RULE);
    if (chanList == nullptr) text->print("The channel list is EMPTY\n");
    int channels = 0;
    for (const ECI_Channel_t* channel = chanList; channel != nullptr; channel = channel->nextChan) {
        printChannel(text, channel, ++channels);
        SCHEDULE_POINT(channelDumped, channel);
        int ordinal = 0;
        for (const ECI_Container_t* container = channel->firstCont; container != nullptr;
             container = container->nextCont)
            printContainer(text, container, ++ordinal, channel->numContainers);
    }
    text->print("Total number of channels=%d\n%s", channels, TRACE_DUMP_RULE);
}

static void writeDump(const char* dump)
{
    TraceHold hold;
    clapiTraceText(dump);
}

static int dumpChannels()
{
    namespace at = tp::QPX_ECI_dumpChannels;

    GrowingText dump;
    int releaseRc;
    {
        LockGuard list(chanListLock);
        if (!list.held()) {
            TRACE(at::noListLock);
            return ECI_ERR_SYSTEM_ERROR;
        }
        printChannels(&dump);
        releaseRc = list.release();
    }
    if (dump.whole() == nullptr) {
        TRACE(at::noMemory);
        return ECI_ERR_MEMORY_SHORTAGE;
    }
    // Not under the lock that every call on a channel takes: the trace may be slow.
    writeDump(dump.whole());
    if (releaseRc == 0) return ECI_NO_ERROR;
    TRACE(at::notReleased);
    return ECI_ERR_SYSTEM_ERROR;
}

int QPX_ECI_dumpChannels(void)
{
    namespace at = tp::QPX_ECI_dumpChannels;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry);
    if (rc == QPX_OK) rc = dumpChannels();
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- Creating a container ---- */

/* What ECI_createContainer is given. */
struct NewContainer {
    const char* name;
    int32_t type;
    int ccsid;
    const void* data;
    size_t dataLength;
};

static int checkNewContainer(ECI_ChannelToken_t chanTok, const NewContainer& given)
{
    namespace at = tp::ECI_createContainer;

    if (chanTok == nullptr) {
        TRACE(at::nullChannel);
        return ECI_ERR_INVALID_CHANNEL;
    }
    if (given.type != ECI_BIT && given.type != ECI_CHAR) {
        TRACE(at::badType, given.type);
        return ECI_ERR_INVALID_TYPE;
    }
    if (given.data == nullptr && given.dataLength != 0) {
        TRACE(at::nullData, traceSize(given.dataLength));
        return ECI_ERR_INVALID_DATA_LENGTH;
    }
    return validateName(given.name);
}

/* The code page of a new character container. The first one settles the channel's. */
static int32_t settleCcsid(ECI_Channel_t* channel, int given)
{
    namespace at = tp::ECI_createContainer;

    if (channel->ccsid == CCSID_UNKNOWN && given != 0) {
        channel->ccsid = given;
        TRACE(at::ccsidFromContainer, given);
    } else if (channel->ccsid == CCSID_UNKNOWN) {
        channel->ccsid = defaultLocalCcsid;
        TRACE(at::ccsidFromLocale, defaultLocalCcsid);
    }
    int32_t ccsid = given != 0 ? given : channel->ccsid.load();
    TRACE(at::containerCcsid, ccsid);
    return ccsid;
}

/* A copy of container data, or null if there is no memory for it. */
static char* copyData(const void* data, size_t length)
{
    char* copy = clapiAllocateData(length);
    if (copy != nullptr) memcpy(copy, data, length);
    return copy;
}

static int copyNewData(ECI_Container_t* container, const NewContainer& given)
{
    namespace at = tp::ECI_createContainer;

    if (given.dataLength == 0) return ECI_NO_ERROR;
    container->dataPtr = copyData(given.data, given.dataLength);
    if (container->dataPtr == nullptr) {
        TRACE(at::noDataMemory, traceSize(given.dataLength));
        return ECI_ERR_MEMORY_SHORTAGE;
    }
    container->dataLength = given.dataLength;
    TRACE_DATA(at::data, dumpOf(container->dataPtr, given.dataLength), container->dataPtr,
               traceSize(given.dataLength), STOPWORD);
    return ECI_NO_ERROR;
}

/* A container that is on no list yet. */
static int buildContainer(ECI_Channel_t* channel, const NewContainer& given,
                          ECI_Container_t** containerPP)
{
    namespace at = tp::ECI_createContainer;

    ECI_Container_t* container = static_cast<ECI_Container_t*>(calloc(1, sizeof(ECI_Container_t)));
    if (container == nullptr) {
        TRACE(at::noMemory, traceInt(sizeof *container));
        return ECI_ERR_MEMORY_SHORTAGE;
    }
    clapiInitializeContainer(container);
    storeName(container->name, given.name);
    container->type = given.type;
    if (given.type == ECI_CHAR) container->ccsid = settleCcsid(channel, given.ccsid);
    int rc = copyNewData(container, given);
    if (rc != ECI_NO_ERROR) {
        clapiFreeContainer(container);
        return rc;
    }
    *containerPP = container;
    return ECI_NO_ERROR;
}

static int addNewContainer(ECI_Channel_t* channel, const NewContainer& given)
{
    namespace at = tp::ECI_createContainer;

    if (clapiFindContainer(channel, given.name) != nullptr) {
        TRACE(at::exists, given.name, channel->name);
        return ECI_ERR_CONTAINER_EXISTS;
    }
    ECI_Container_t* container = nullptr;
    int rc = buildContainer(channel, given, &container);
    if (rc != ECI_NO_ERROR) return rc;

    clapiLinkContainer(channel, container);
    TRACE(at::created, container->name, container, channel->name, channel);
    return ECI_NO_ERROR;
}

static int createContainer(ECI_ChannelToken_t chanTok, const NewContainer& given)
{
    namespace at = tp::ECI_createContainer;

    int rc = getCurrentCcsid();
    if (rc == ECI_NO_ERROR) rc = checkNewContainer(chanTok, given);
    if (rc != ECI_NO_ERROR) return rc;
    return whileHolding<at::notUnlocked>(chanTok, [&] { return addNewContainer(chanTok, given); });
}

int ECI_createContainer(ECI_ChannelToken_t chanTok, const char* name, ECI_CONTAINER_TYPE type,
                        int ccsid, const void* data, size_t dataLength)
{
    namespace at = tp::ECI_createContainer;

    ApiCall apiCall;
    // A C caller may pass any integer, which is read as such.
    int32_t typeValue;
    static_assert(sizeof typeValue == sizeof type);
    memcpy(&typeValue, &type, sizeof typeValue);

    int rc = clapiInit();
    TRACE(at::entry, chanTok, traceText(name), typeValue, ccsid, data, traceSize(dataLength));
    if (rc == QPX_OK) rc = createContainer(chanTok, {name, typeValue, ccsid, data, dataLength});
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- Deleting a container ---- */

static int removeContainer(ECI_Channel_t* channel, const char* name)
{
    namespace at = tp::ECI_deleteContainer;

    ECI_Container_t* container = clapiFindContainer(channel, name);
    if (container == nullptr) {
        TRACE(at::notFound, name, channel->name);
        return ECI_ERR_CONTAINER_NOTFOUND;
    }
    const ECI_Container_t* previous = container->previousCont;
    bool wasCurrent = clapiUnlinkContainer(channel, container);
    if (wasCurrent && previous != nullptr)
        TRACE(at::current, previous->name);
    else if (wasCurrent)
        TRACE(at::noCurrent);
    destroyContainer<at::freeingData, at::deleted>(container);
    return ECI_NO_ERROR;
}

static int deleteNamedContainer(ECI_ChannelToken_t chanTok, const char* name)
{
    namespace at = tp::ECI_deleteContainer;

    if (chanTok == nullptr) {
        TRACE(at::nullChannel);
        return ECI_ERR_INVALID_CHANNEL;
    }
    int rc = validateName(name);
    if (rc != ECI_NO_ERROR) return rc;
    return whileHolding<at::notUnlocked>(chanTok, [&] { return removeContainer(chanTok, name); });
}

int ECI_deleteContainer(ECI_ChannelToken_t chanTok, const char* name)
{
    namespace at = tp::ECI_deleteContainer;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, chanTok, traceText(name));
    if (rc == QPX_OK) rc = deleteNamedContainer(chanTok, name);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- Browsing and describing ---- */

static void fillInfo(ECI_CONTAINER_INFO* infoPtr, const ECI_Container_t* container)
{
    *infoPtr = ECI_CONTAINER_INFO{};
    memcpy(infoPtr->name, container->name, sizeof container->name);
    infoPtr->dataLength = container->dataLength;
    // A type out of a reply may be none of those that the application's compiler knows.
    memcpy(reinterpret_cast<char*>(infoPtr) + offsetof(ECI_CONTAINER_INFO, type), &container->type,
           sizeof container->type);
    if (container->type == ECI_CHAR) infoPtr->ccsid = container->ccsid;
}

/* Checks the arguments of a browsing call. */
template <const TracePoint& nullChannel, const TracePoint& nullInfo>
static int checkBrowsing(ECI_ChannelToken_t chanTok, const ECI_CONTAINER_INFO* infoPtr)
{
    if (chanTok == nullptr) {
        TRACE(nullChannel);
        return ECI_ERR_INVALID_CHANNEL;
    }
    if (infoPtr == nullptr) {
        TRACE(nullInfo);
        return ECI_ERR_NULLINFOPTR;
    }
    return ECI_NO_ERROR;
}

static int goToFirst(ECI_Channel_t* channel, ECI_CONTAINER_INFO* infoPtr)
{
    namespace at = tp::ECI_getFirstContainer;

    ECI_Container_t* container = channel->firstCont;
    channel->currentCont = container;
    if (container == nullptr) {
        TRACE(at::empty, channel->name);
        return ECI_ERR_ENDOFCONTAINERS;
    }
    TRACE(at::current, container->name);
    fillInfo(infoPtr, container);
    return ECI_NO_ERROR;
}

static int getFirstContainer(ECI_ChannelToken_t chanTok, ECI_CONTAINER_INFO* infoPtr)
{
    namespace at = tp::ECI_getFirstContainer;

    int rc = checkBrowsing<at::nullChannel, at::nullInfo>(chanTok, infoPtr);
    if (rc != ECI_NO_ERROR) return rc;
    return whileHolding<at::notUnlocked>(chanTok, [&] { return goToFirst(chanTok, infoPtr); });
}

int ECI_getFirstContainer(ECI_ChannelToken_t chanTok, ECI_CONTAINER_INFO* infoPtr)
{
    namespace at = tp::ECI_getFirstContainer;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, chanTok, infoPtr);
    if (rc == QPX_OK) rc = getFirstContainer(chanTok, infoPtr);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* Moves the browse position on; deliberate: behind the end it starts anew. */
static ECI_Container_t* advance(ECI_Channel_t* channel)
{
    namespace at = tp::ECI_getNextContainer;

    ECI_Container_t* container = channel->currentCont;
    if (container != nullptr) {
        container = container->nextCont;
        if (container == nullptr) TRACE(at::noMore, channel->name);
    } else if (channel->firstCont != nullptr) {
        TRACE(at::restart);
        container = channel->firstCont;
    } else {
        TRACE(at::empty, channel->name);
    }
    channel->currentCont = container;
    return container;
}

static int goToNext(ECI_Channel_t* channel, ECI_CONTAINER_INFO* infoPtr)
{
    namespace at = tp::ECI_getNextContainer;

    ECI_Container_t* container = advance(channel);
    if (container == nullptr) return ECI_ERR_ENDOFCONTAINERS;
    TRACE(at::current, container->name);
    fillInfo(infoPtr, container);
    return ECI_NO_ERROR;
}

static int getNextContainer(ECI_ChannelToken_t chanTok, ECI_CONTAINER_INFO* infoPtr)
{
    namespace at = tp::ECI_getNextContainer;

    int rc = checkBrowsing<at::nullChannel, at::nullInfo>(chanTok, infoPtr);
    if (rc != ECI_NO_ERROR) return rc;
    return whileHolding<at::notUnlocked>(chanTok, [&] { return goToNext(chanTok, infoPtr); });
}

int ECI_getNextContainer(ECI_ChannelToken_t chanTok, ECI_CONTAINER_INFO* infoPtr)
{
    namespace at = tp::ECI_getNextContainer;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, chanTok, infoPtr);
    if (rc == QPX_OK) rc = getNextContainer(chanTok, infoPtr);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

static int describeContainer(ECI_Channel_t* channel, const char* name, ECI_CONTAINER_INFO* infoPtr)
{
    namespace at = tp::ECI_getContainerInfo;

    const ECI_Container_t* container = wantedContainer<at::notFound>(channel, name);
    if (container == nullptr) return ECI_ERR_CONTAINER_NOTFOUND;
    fillInfo(infoPtr, container);
    return ECI_NO_ERROR;
}

static int getContainerInfo(ECI_ChannelToken_t chanTok, const char* name,
                            ECI_CONTAINER_INFO* infoPtr)
{
    namespace at = tp::ECI_getContainerInfo;

    int rc = checkBrowsing<at::nullChannel, at::nullInfo>(chanTok, infoPtr);
    if (rc == ECI_NO_ERROR) rc = validateName(name);
    if (rc != ECI_NO_ERROR) return rc;
    return whileHolding<at::notUnlocked>(chanTok,
                                         [&] { return describeContainer(chanTok, name, infoPtr); });
}

int ECI_getContainerInfo(ECI_ChannelToken_t chanTok, const char* name, ECI_CONTAINER_INFO* infoPtr)
{
    namespace at = tp::ECI_getContainerInfo;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, chanTok, traceText(name), infoPtr);
    if (rc == QPX_OK) rc = getContainerInfo(chanTok, name, infoPtr);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- Container data ---- */

/* A part of a container's data, and where it goes. */
struct DataRange {
    void* buffer;
    size_t length;
    size_t offset;
    size_t* bytesReadPtr; // may be null
};

static int copyRange(ECI_Channel_t* channel, const char* name, const DataRange& wanted)
{
    namespace at = tp::ECI_getContainerData;

    const ECI_Container_t* container = wantedContainer<at::notFound>(channel, name);
    if (container == nullptr) return ECI_ERR_CONTAINER_NOTFOUND;
    size_t behindOffset = container->dataLength - std::min(wanted.offset, container->dataLength);
    size_t count = std::min(wanted.length, behindOffset);
    if (count > 0) {
        memcpy(wanted.buffer, container->dataPtr + wanted.offset, count);
        TRACE(at::copied, traceSize(count), wanted.buffer);
    } else {
        TRACE(at::noData);
    }
    if (wanted.bytesReadPtr != nullptr) *wanted.bytesReadPtr = count;
    return ECI_NO_ERROR;
}

static int getContainerData(ECI_ChannelToken_t chanTok, const char* name, const DataRange& wanted)
{
    namespace at = tp::ECI_getContainerData;

    if (chanTok == nullptr) {
        TRACE(at::nullChannel);
        return ECI_ERR_INVALID_CHANNEL;
    }
    if (wanted.buffer == nullptr) {
        TRACE(at::nullBuffer);
        return ECI_ERR_NULLPTR;
    }
    int rc = validateName(name);
    if (rc != ECI_NO_ERROR) return rc;
    return whileHolding<at::notUnlocked>(chanTok, [&] { return copyRange(chanTok, name, wanted); });
}

int ECI_getContainerData(ECI_ChannelToken_t chanTok, const char* name, void* buffer, size_t length,
                         size_t offset, size_t* bytesReadPtr)
{
    namespace at = tp::ECI_getContainerData;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, chanTok, traceText(name), buffer, traceSize(length), traceSize(offset),
          bytesReadPtr);
    if (rc == QPX_OK) rc = getContainerData(chanTok, name, {buffer, length, offset, bytesReadPtr});
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* Puts a copy of the data in the place of the container's, which is overwritten and freed. */
static int storeData(ECI_Container_t* container, const void* data, size_t dataLength)
{
    namespace at = tp::ECI_setContainerData;

    char* copy = copyData(data, dataLength);
    size_t lengthBefore = container->dataLength;
    char* before = clapiExchangeData(container, copy, copy != nullptr ? dataLength : 0);
    clapiFreeData(before, lengthBefore);
    if (copy == nullptr) {
        TRACE(at::noMemory, traceSize(dataLength));
        return ECI_ERR_MEMORY_SHORTAGE;
    }
    TRACE_DATA(at::data, dumpOf(copy, dataLength), copy, traceSize(dataLength), STOPWORD);
    return ECI_NO_ERROR;
}

static void emptyContainer(ECI_Container_t* container)
{
    namespace at = tp::ECI_setContainerData;

    size_t length = container->dataLength;
    TRACE(at::freeingData, traceSize(length), container->dataPtr);
    clapiFreeData(clapiExchangeData(container, nullptr, 0), length);
}

static int replaceData(ECI_Channel_t* channel, const char* name, const void* data,
                       size_t dataLength)
{
    namespace at = tp::ECI_setContainerData;

    ECI_Container_t* container = wantedContainer<at::notFound>(channel, name);
    if (container == nullptr) return ECI_ERR_CONTAINER_NOTFOUND;
    if (dataLength != container->dataLength && container->dataPtr != nullptr)
        emptyContainer(container);
    return dataLength != 0 ? storeData(container, data, dataLength) : ECI_NO_ERROR;
}

static int setContainerData(ECI_ChannelToken_t chanTok, const char* name, const void* data,
                            size_t dataLength)
{
    namespace at = tp::ECI_setContainerData;

    if (chanTok == nullptr) {
        TRACE(at::nullChannel);
        return ECI_ERR_INVALID_CHANNEL;
    }
    if (data == nullptr && dataLength != 0) {
        TRACE(at::nullData, traceSize(dataLength));
        return ECI_ERR_INVALID_DATA_LENGTH;
    }
    int rc = validateName(name);
    if (rc != ECI_NO_ERROR) return rc;
    return whileHolding<at::notUnlocked>(
        chanTok, [&] { return replaceData(chanTok, name, data, dataLength); });
}

int ECI_setContainerData(ECI_ChannelToken_t chanTok, const char* name, const void* data,
                         size_t dataLength)
{
    namespace at = tp::ECI_setContainerData;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, chanTok, traceText(name), data, traceSize(dataLength));
    if (rc == QPX_OK) rc = setContainerData(chanTok, name, data, dataLength);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}
