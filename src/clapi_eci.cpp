/*
 * ECI calls: checks the caller's record, sends a program call and waits for its reply, or leaves
 * it to be collected, and collects asynchronous replies. The receiver thread, which delivers
 * replies into slots, is clapi_gwycon's.
 *
 * Locks: tableLock for slots, reply queue and asyncCount, sendLock for one flow; never both, and
 * neither across a wait.
 */
#include "clapi_eci.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "api_call.h"
#include "clapi_channel.h"
#include "clapi_delivery.h"
#include "clapi_diag.h"
#include "clapi_gwycon.h"
#include "clapi_gwytok.h"
#include "clapi_impl.h"
#include "clapi_rc.h"
#include "clapi_socketcomms.h"
#include "request_steps.h"
#include "schedule_points.h"
#include "trace_points/clapi_eci.h"

const char* getCallTypeString(int callType)
{
    switch (callType) {
    case ECI_SYNC: return "ECI_SYNC";
    case ECI_ASYNC: return "ECI_ASYNC";
    case ECI_GET_REPLY: return "ECI_GET_REPLY";
    case ECI_GET_REPLY_WAIT: return "ECI_GET_REPLY_WAIT";
    case ECI_GET_SPECIFIC_REPLY: return "ECI_GET_SPECIFIC_REPLY";
    case ECI_GET_SPECIFIC_REPLY_WAIT: return "ECI_GET_SPECIFIC_REPLY_WAIT";
    default: return UNKNOWN_RC_STR;
    }
}

/* ---- Checking the record ---- */

/* Versions of the record: the lowest that a COMMAREA call and a channel call take, the last that
 * carries the user id in the fixed fields, and the highest, which alone does more than
 * synchronous calls. */
constexpr int MIN_VERSION_COMMAREA = ECI_VERSION_3;
constexpr int MIN_VERSION_CHANNEL = ECI_VERSION_4;
constexpr int LAST_VERSION_WITH_FIELDS = ECI_VERSION_4;
constexpr int MAX_VERSION = ECI_VERSION_6;

/* Whether a call starts work, rather than collecting the reply of work started before. */
static bool startsWork(int callType)
{
    return callType == ECI_SYNC || callType == ECI_ASYNC;
}

static bool isExtendMode(int mode)
{
    return mode == ECI_NO_EXTEND || mode == ECI_EXTENDED || mode == ECI_COMMIT ||
           mode == ECI_BACKOUT;
}

/* Checks what says where the data is and how much. The record may be a copy, which lines show under
 * the address of its original. */
static int checkLengths(const QPX_ECI_PARMS* record, const QPX_ECI_PARMS* shownAs)
{
    namespace at = tp::verifyEciParms;

    if (record->eci_commarea_length < 0) {
        TRACE(at::badLength, shownAs, record->eci_commarea_length);
        return ECI_ERR_INVALID_DATA_LENGTH;
    }
    if (record->commarea_inbound_length < 0) {
        TRACE(at::badInboundLength, shownAs, record->commarea_inbound_length);
        return ECI_ERR_INVALID_DATA_LENGTH;
    }
    if (record->commarea_outbound_length < 0) {
        TRACE(at::badOutboundLength, shownAs, record->commarea_outbound_length);
        return ECI_ERR_INVALID_DATA_LENGTH;
    }
    if (record->eci_commarea == nullptr && record->eci_commarea_length != 0) {
        TRACE(at::noCommarea, shownAs, record->eci_commarea_length);
        return ECI_ERR_INVALID_DATA_AREA;
    }
    if (record->eci_commarea != nullptr && record->eci_commarea_length == 0) {
        TRACE(at::unusedCommarea, shownAs);
        return ECI_ERR_INVALID_DATA_AREA;
    }
    return ECI_NO_ERROR;
}

static int checkEciParms(const QPX_ECI_PARMS* EciParms, int minVersion)
{
    namespace at = tp::verifyEciParms;

    int version = EciParms->eci_version;
    int callType = EciParms->eci_call_type;

    // Deliberate: the lower bound is held against the version without its sign, so that a negative
    // one passes: programs that have one in the field have always got through.
    if (static_cast<unsigned short>(version) < minVersion || version > MAX_VERSION) {
        TRACE(at::badVersion, EciParms, version);
        return ECI_ERR_INVALID_VERSION;
    }
    if (callType < ECI_SYNC || callType > ECI_GET_SPECIFIC_REPLY_WAIT) {
        TRACE(at::badCallType, EciParms, callType);
        return ECI_ERR_INVALID_CALL_TYPE;
    }
    TRACE(at::callType, getCallTypeString(callType));
    if (callType != ECI_SYNC && version < MAX_VERSION) {
        TRACE(at::badVersionForCall, EciParms, version);
        return ECI_ERR_INVALID_VERSION;
    }
    if (startsWork(callType) && !isExtendMode(EciParms->eci_extend_mode)) {
        TRACE(at::badExtendMode, EciParms, EciParms->eci_extend_mode);
        return ECI_ERR_INVALID_EXTEND_MODE;
    }
    int rc = checkLengths(EciParms, EciParms);
    if (rc != ECI_NO_ERROR) return rc;
    if (EciParms->eci_timeout < 0) {
        TRACE(at::badTimeout, EciParms, EciParms->eci_timeout);
        return ECI_ERR_REQUEST_TIMEOUT;
    }
    return ECI_NO_ERROR;
}

int verifyEciParms(QPX_ECI_PARMS* EciParms, int minVersion)
{
    namespace at = tp::verifyEciParms;

    TRACE(at::entry, EciParms, minVersion);
    int rc = checkEciParms(EciParms, minVersion);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- One program call ---- */

/* What a call gets on a connection that does not stand (any more), or that is being closed.
 * Locks: tableLock held. */
static int refusalOf(const _QPX_ConnToken_t* gwTok) NEEDS_LOCK(gwTok->tableLock)
{
    bool stands = gwTok->connStatus == CONN_CONNECTED;
    if (stands && gwTok->brokenOff == 0) return QPX_ERR_GWTOK_CLOSED;
    return stands || gwTok->connStatus == CONN_LOST ? QPX_ERR_LOSTGWCON : QPX_ERR_GATEWAY_CLOSED;
}

namespace {

/* A call on its way. */
struct EciCall : OutgoingRequest {
    struct Lines {
        static constexpr const TracePoint& noLock = tp::performEciExecute::noLock;
        static constexpr const TracePoint& notUnlocked = tp::performEciExecute::notUnlocked;
        static constexpr const TracePoint& notArmed = tp::performEciExecute::notArmed;
        static constexpr const TracePoint& noLockToBegin = noLock;
        static constexpr const TracePoint& notUnlockedToBegin = notUnlocked;
        static constexpr const TracePoint& noSendLock = tp::performEciExecute::noSendLock;
        static constexpr const TracePoint& sendLockStays = tp::performEciExecute::sendLockStays;
        static constexpr const TracePoint& noLockToFree = tp::performEciExecute::noLockToFree;
        static constexpr const TracePoint& notUnlockedAfterFree =
            tp::performEciExecute::notUnlockedAfterFree;
    };

    QPX_ECI_PARMS* results;      // the application's record, which takes the results
    const QPX_ECI_PARMS* record; // a copy of it as it was at the call's start
    bool useChannel;
    ECIRequest body;
    char userid[sizeof(QPX_ECI_PARMS::eci_userid) + 1];     // outlive the sending
    char password[sizeof(QPX_ECI_PARMS::eci_password) + 1]; // overwritten at the call's end

    int refusal() const NEEDS_LOCK(gwTok->tableLock) { return refusalOf(gwTok); }
    void prepareSlot();
    int build();
    int write(Socket socketDescriptor)
    {
        return clapiFlowECIRequest(socketDescriptor, &header, &body);
    }
};

/* A call that waits for its reply. */
struct SyncCall : EciCall {
    void giveSlotBack();
    int conclude();
};

/* A call whose reply is collected by another. */
struct AsyncCall : EciCall {
    struct Lines : EciCall::Lines {
        static constexpr const TracePoint& noLockToBegin = tp::performEciExecute::noLockToCount;
        static constexpr const TracePoint& notUnlockedToBegin =
            tp::performEciExecute::notUnlockedAfterCount;
    };

    int build();
    void traceBegun() const;
    int endFailedSending(int rc);
    int awaitReply() { return ECI_NO_ERROR; } // whoever collects it does
    int conclude();
};

} // namespace

/* Whether the call's channel travels. Then it is locked for the call: the slot is marked, and
 * whoever ends an asynchronous call unlocks it. */
static bool sendsChannel(const EciCall* call)
{
    return call->useChannel && clapiCarriesData(call->record->eci_extend_mode);
}

/* Whether the reply's data goes where the call's is sent from. The COMMAREA of an asynchronous call
 * has a reply buffer of its own. */
static bool repliesInPlace(const EciCall* call)
{
    return clapiCarriesData(call->record->eci_extend_mode) &&
           (call->useChannel || call->record->eci_call_type == ECI_SYNC);
}

void EciCall::prepareSlot()
{
    slotP->eciParms = *record;
    slotP->replyCapacity = static_cast<size_t>(record->eci_commarea_length);
    slotP->channelHeld = sendsChannel(this) ? 1 : 0;
    slotP->beingSent = repliesInPlace(this) ? 1 : 0;
}

static void setCredentials(EciCall* call)
{
    namespace at = tp::performEciExecute;

    const QPX_ECI_PARMS* EciParms = call->record;
    if (EciParms->eci_version > LAST_VERSION_WITH_FIELDS) {
        TRACE(at::usingPointers, EciParms->eci_version);
        call->body.userID = EciParms->eci_userid_ptr;
        call->body.password = EciParms->eci_password_ptr;
        return;
    }
    TRACE(at::usingFields, EciParms->eci_version);
    memcpy(call->userid, EciParms->eci_userid, sizeof EciParms->eci_userid);
    memcpy(call->password, EciParms->eci_password, sizeof EciParms->eci_password);
    call->body.userID = call->userid;
    call->body.password = call->password;
}

/* A length that the caller may give, at most that of the COMMAREA; 0 if not given. */
static int givenLength(short length, short commareaLength)
{
    return std::min(std::max<int>(length, 0), static_cast<int>(commareaLength));
}

static void setCommarea(ECIRequest* request, const QPX_ECI_PARMS* EciParms)
{
    short length = EciParms->eci_commarea_length;
    request->commarealength = length;
    request->commarea = EciParms->eci_commarea;
    request->commareaInboundLength = givenLength(EciParms->commarea_inbound_length, length);
    request->commareaOutboundLength = givenLength(EciParms->commarea_outbound_length, length);
}

int EciCall::build()
{
    static const char noTpn[sizeof(QPX_ECI_PARMS::eci_tpn)] = {};
    bool hasTpn = memcmp(record->eci_tpn, noTpn, sizeof noTpn) != 0;

    clapiBuildRequestHeader(&header, messageId, ECI_REQUEST_NAME);
    body.callType = hasTpn ? WIRE_CALL_TPN : WIRE_CALL_PROGRAM;
    memcpy(body.transid, hasTpn ? record->eci_tpn : record->eci_transid, sizeof body.transid);
    body.extendedMode = record->eci_extend_mode;
    body.luwToken = record->eci_luw_token;
    body.eciTimeout = record->eci_timeout;
    memcpy(body.server, record->eci_system_name, sizeof body.server);
    memcpy(body.program, record->eci_program_name, sizeof body.program);
    body.xid.format = NO_XID;
    body.qpxCorrelator = getNextCorrelator();
    setCredentials(this);
    if (repliesInPlace(this)) body.beingSent = &slotP->beingSent;
    if (sendsChannel(this))
        body.channel = record->channel;
    else if (clapiCarriesData(record->eci_extend_mode))
        setCommarea(&body, record);
    return ECI_NO_ERROR;
}

/* Keeps a slot for the next call of its unit of work. That one brings its password with it.
 * Locks: tableLock held. */
static void keepForUnitOfWork(RequestSlot* slotP)
{
    explicit_bzero(slotP->eciParms.eci_password, sizeof slotP->eciParms.eci_password);
    slotP->state = SLOT_LUW_IDLE;
}

/* ---- Synchronous calls ---- */

/* Keeps the slot for the next call of its unit of work, or frees it. */
void SyncCall::giveSlotBack()
{
    slotP->channelHeld = 0; // the entry point unlocks the channel
    if (record->eci_extend_mode == ECI_EXTENDED && slotP->eciParms.eci_luw_token != 0)
        keepForUnitOfWork(slotP);
    else
        slotFree(&gwTok->table, slotP);
}

int SyncCall::conclude()
{
    // These two are results whatever the codes say.
    memcpy(results->eci_abend_code, slotP->eciParms.eci_abend_code, sizeof results->eci_abend_code);
    results->eci_luw_token = slotP->eciParms.eci_luw_token;

    int rc = firstFailure(slotP->gatewayRc, slotP->vornRc);
    if (rc == ECI_NO_ERROR) rc = releaseRequestSlot(this);
    if (slotP != nullptr) clapiDropSlot(gwTok, slotP);
    return rc;
}

/* ---- Asynchronous calls ---- */

/* The reply waits in a buffer of its own until it is collected; the request still goes out of the
 * caller's. */
static int provideReplyBuffer(AsyncCall* call)
{
    namespace at = tp::performEciExecute;

    int size = call->body.commareaInboundLength;
    if (size == 0) size = call->record->eci_commarea_length;
    char* buffer = static_cast<char*>(calloc(static_cast<size_t>(std::max(size, 1)), 1));
    if (buffer == nullptr) {
        TRACE(at::noReplyBuffer, size);
        return ECI_ERR_RESOURCE_SHORTAGE;
    }
    TRACE(at::replyBuffer, size, buffer);
    call->slotP->asyncBuffer = buffer;
    call->slotP->replyCapacity = static_cast<size_t>(size);
    call->slotP->eciParms.eci_commarea = buffer;
    return ECI_NO_ERROR;
}

int AsyncCall::build()
{
    int rc = EciCall::build();
    return rc == ECI_NO_ERROR && !useChannel ? provideReplyBuffer(this) : rc;
}

void AsyncCall::traceBegun() const
{
    namespace at = tp::performEciExecute;

    TRACE(at::counted, gwTok->asyncCount.load(), gwTok);
}

/* Lowers the count of asynchronous requests; it may have been set to 0 by a close.
 * Locks: tableLock held. */
static void countOut(_QPX_ConnToken_t* gwTok) NEEDS_LOCK(gwTok->tableLock)
{
    if (gwTok->asyncCount > 0) gwTok->asyncCount -= 1;
}

/* Whether nobody has collected the request's outcome yet. Locks: tableLock held. */
static bool isStillOurs(const AsyncCall* call) NEEDS_LOCK(call->gwTok->tableLock)
{
    const RequestSlot* slotP = call->slotP;
    return slotP->allocNumber == call->allocNumber &&
           (slotP->state == SLOT_WAITING || slotP->state == SLOT_DELIVERED);
}

/* Takes back a request that was not sent whole. Locks: tableLock held. */
static void withdraw(AsyncCall* call) NEEDS_LOCK(call->gwTok->tableLock)
{
    namespace at = tp::performEciExecute;

    _QPX_ConnToken_t* gwTok = call->gwTok;
    if (call->slotP->state == SLOT_DELIVERED) clapiUnlinkReply(call->gwTok, call->slotP);
    countOut(call->gwTok);
    TRACE(at::uncounted, gwTok->asyncCount.load(), gwTok);
    // A collector may be waiting for this very request, though its call has not returned: the
    // message id is known before, or guessed.
    clapiClearEvent(&gwTok->asyncReplyEvent);
    slotFree(&gwTok->table, call->slotP);
}

/*
 * Takes back a request that could not be written. The connection's end may have delivered the
 * slot meanwhile, and another thread may have collected it: then the request's outcome is known
 * to the application already, and the request counts as sent. Until the slot is given back its
 * sender counts as one, so that no close of the connection comes between.
 */
static int takeBack(AsyncCall* call, int rc)
{
    namespace at = tp::performEciExecute;

    LockGuard table(call->gwTok->tableLock);
    clapiNoteBrokenFlow(call->gwTok, call->header.brokenOff);
    if (!table.held()) {
        TRACE(at::noLockToUncount);
        clapiLeaveSenders(call->gwTok);
        return rc;
    }
    clapiAwaitEndOfReading(call->gwTok, call->slotP);
    if (isStillOurs(call))
        withdraw(call);
    else
        rc = ECI_NO_ERROR;
    clapiLeaveSenders(call->gwTok);
    if (table.release() != 0) TRACE(at::notUnlockedAfterUncount);
    return rc;
}

int AsyncCall::endFailedSending(int rc)
{
    rc = takeBack(this, rc);
    slotP = nullptr; // given back, or left where it is
    return rc;
}

int AsyncCall::conclude()
{
    results->eci_message_qualifier = messageId;
    return ECI_NO_ERROR;
}

/* ---- A call of either kind ---- */

template <typename Call>
static int performProgramCall(_QPX_ConnToken_t* gwTok, QPX_ECI_PARMS* EciParms,
                              const QPX_ECI_PARMS* record, bool useChannel)
{
    Call call = {};
    call.gwTok = gwTok;
    call.luwToken = record->eci_luw_token;
    call.results = EciParms;
    call.record = record;
    call.useChannel = useChannel;
    int rc = performRequest(&call);
    explicit_bzero(call.password, sizeof call.password);
    return rc;
}

int performEciExecute(QPX_ConnToken_t gwTok, QPX_ECI_PARMS* EciParms, const QPX_ECI_PARMS* record,
                      bool useChannel)
{
    namespace at = tp::performEciExecute;

    TRACE(at::entry, gwTok, EciParms, useChannel ? "TRUE" : "FALSE");
    bool isAsync = record->eci_call_type == ECI_ASYNC;
    // The application's record may have changed since it was checked.
    int rc = checkLengths(record, EciParms);
    if (rc == ECI_NO_ERROR)
        rc = (isAsync ? performProgramCall<AsyncCall>
                      : performProgramCall<SyncCall>)(gwTok, EciParms, record, useChannel);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- Collecting asynchronous replies ---- */

/* The functions here hold the token's tableLock, which is given up only around a wait. */

/* What a collecting call asks for, read from the record before a reply overwrites it. */
struct Collection {
    _QPX_ConnToken_t* gwTok;
    QPX_ECI_PARMS* EciParms;
    bool isSpecific;
    bool waits;
    int qualifier;
    char* commarea;       // where the data goes
    short commareaLength; // and the room there; 0 if there is none
};

/* Whether the wanted reply can come at all. */
static int checkQualifier(const Collection& wanted) NEEDS_LOCK(wanted.gwTok->tableLock)
{
    const RequestSlot* slotP = clapiSlotById(&wanted.gwTok->table, wanted.qualifier);
    if (slotP == nullptr || slotP->state == SLOT_FREE || slotP->eciParms.eci_call_type != ECI_ASYNC)
        return ECI_ERR_INVALID_MSG_QUAL;
    if (slotP->state != SLOT_WAITING && slotP->state != SLOT_DELIVERED) return ECI_ERR_NO_REPLY;
    return ECI_NO_ERROR;
}

/* Whether a slot is in the reply queue. */
static bool isQueued(const RequestSlot* slotP)
{
    return slotP->state == SLOT_DELIVERED && slotP->eciParms.eci_call_type == ECI_ASYNC;
}

/* The queued reply that is wanted, or null. While this thread slept, the slot may have become that
 * of a synchronous call, whose outcome is in no queue. */
static RequestSlot* chooseReply(const Collection& wanted) NEEDS_LOCK(wanted.gwTok->tableLock)
{
    if (!wanted.isSpecific) return wanted.gwTok->firstReply;
    RequestSlot* slotP = clapiSlotById(&wanted.gwTok->table, wanted.qualifier);
    return slotP != nullptr && isQueued(slotP) ? slotP : nullptr;
}

/*
 * Sleeps until asyncReplyEvent is posted. Its generation is read while tableLock is held, under
 * which every reply is queued and posted: one that comes before the sleep begins ends it, even
 * if another waiter has armed the event again by then.
 */
static int sleepUntilReply(const Collection& wanted, LockGuard* table)
    NEEDS_LOCK(wanted.gwTok->tableLock) NOT_ANALYSED("gives up what its caller's guard holds")
{
    namespace at = tp::getAsyncReply;

    ClapiEvent* replyEvent = &wanted.gwTok->asyncReplyEvent;
    if (clapiSetEvent(replyEvent) != 0) {
        TRACE(at::notArmed);
        return ECI_ERR_SYSTEM_ERROR;
    }
    int generation = clapiEventGeneration(replyEvent);
    if (table->release() != 0) {
        TRACE(at::notUnlocked);
        return ECI_ERR_SYSTEM_ERROR;
    }
    SCHEDULE_POINT(beforeQueueWait, wanted.gwTok);
    if (clapiWaitEventSince(replyEvent, generation) != 0) {
        TRACE(at::waitFailed);
        return ECI_ERR_SYSTEM_ERROR;
    }
    if (table->request() != 0) {
        TRACE(at::noLockAfterWait);
        return ECI_ERR_SYSTEM_ERROR;
    }
    return ECI_NO_ERROR;
}

/* Whether an outcome that is wanted has come, and its sender will deliver it any moment. */
static bool outcomeIsPending(const Collection& wanted) NEEDS_LOCK(wanted.gwTok->tableLock)
{
    const RequestSlot* slotP = &wanted.gwTok->table.slot[0];
    for (; slotP != nullptr; slotP = slotP->nextSlot) {
        bool isPending = slotP->outcomePending != 0 && slotP->eciParms.eci_call_type == ECI_ASYNC;
        if (isPending && (!wanted.isSpecific || slotP->messageId == wanted.qualifier)) return true;
    }
    return false;
}

static int awaitAsyncReply(const Collection& wanted, LockGuard* table)
    NEEDS_LOCK(wanted.gwTok->tableLock)
{
    namespace at = tp::getAsyncReply;

    if (!wanted.waits) return ECI_ERR_NO_REPLY;
    if (wanted.gwTok->connStatus != CONN_CONNECTED && !outcomeIsPending(wanted)) {
        TRACE(at::notOpen);
        return refusalOf(wanted.gwTok);
    }
    // Another thread may have taken the reply that this one waited for.
    int rc = wanted.isSpecific ? checkQualifier(wanted) : ECI_NO_ERROR;
    if (rc == ECI_NO_ERROR) rc = sleepUntilReply(wanted, table);
    return rc;
}

static int findReply(const Collection& wanted, LockGuard* table, RequestSlot** slotPP)
    NEEDS_LOCK(wanted.gwTok->tableLock)
{
    int rc = wanted.isSpecific ? checkQualifier(wanted) : ECI_NO_ERROR;
    while (rc == ECI_NO_ERROR) {
        if (wanted.gwTok->closedown != 0 && wanted.gwTok->asyncCount == 0)
            return QPX_ERR_GWTOK_CLOSED;
        *slotPP = chooseReply(wanted);
        if (*slotPP != nullptr) return ECI_NO_ERROR;
        rc = awaitAsyncReply(wanted, table);
    }
    return rc;
}

/* Copies a part of a record, from one field up to another. */
static void copyFields(QPX_ECI_PARMS* to, const QPX_ECI_PARMS* from, size_t begin, size_t end)
{
    memcpy(reinterpret_cast<char*>(to) + begin, reinterpret_cast<const char*>(from) + begin,
           end - begin);
}

/* Gives the caller the record of the request whose reply it is. The caller's COMMAREA and its
 * length stay, and never show anything else meanwhile. */
static void copyRecord(QPX_ECI_PARMS* EciParms, const RequestSlot* slotP)
{
    constexpr size_t COMMAREA_AT = offsetof(QPX_ECI_PARMS, eci_commarea);
    constexpr size_t BEHIND_COMMAREA_LENGTH = offsetof(QPX_ECI_PARMS, eci_timeout);

    copyFields(EciParms, &slotP->eciParms, 0, COMMAREA_AT);
    copyFields(EciParms, &slotP->eciParms, BEHIND_COMMAREA_LENGTH, sizeof *EciParms);
}

/* Deliberate: only the bytes that came back are copied. The rest stays as it is: it may be more
 * than the request had, and is the caller's. */
static void copyCommarea(const Collection& wanted, RequestSlot* slotP)
{
    namespace at = tp::getAsyncReply;

    size_t length = std::min(static_cast<size_t>(slotP->eciParms.commarea_inbound_length),
                             slotP->replyCapacity);
    if (length > 0) memcpy(wanted.commarea, slotP->asyncBuffer, length);
    TRACE(at::freeing, slotP->asyncBuffer);
    clapiFreeReplyBuffer(slotP);
}

/* Hands the reply's data over; ECI_ERR_INVALID_DATA_LENGTH if the caller has no room for it. The
 * lengths are those of the slot and of the call's start: the caller's record may be changing. */
static int takeData(const Collection& wanted, RequestSlot* slotP)
{
    namespace at = tp::getAsyncReply;

    if (slotP->gatewayRc != QPX_OK || slotP->vornRc != 0) return ECI_NO_ERROR;
    short inbound = slotP->eciParms.commarea_inbound_length;
    if (inbound > wanted.commareaLength) {
        TRACE(at::tooSmall, wanted.commareaLength, inbound);
        wanted.EciParms->eci_commarea_length = inbound;
        return ECI_ERR_INVALID_DATA_LENGTH;
    }
    if (clapiCarriesData(slotP->eciParms.eci_extend_mode) && slotP->asyncBuffer != nullptr)
        copyCommarea(wanted, slotP);
    return ECI_NO_ERROR;
}

/* The channel that a request has held until now, or null; the slot holds it no more. */
static ECI_Channel_t* takeHeldChannel(RequestSlot* slotP)
{
    ECI_Channel_t* channel = slotP->channelHeld != 0 ? slotP->eciParms.channel : nullptr;
    slotP->channelHeld = 0;
    return channel;
}

static int giveChannelBack(ECI_Channel_t* channel)
{
    namespace at = tp::getAsyncReply;

    if (channel == nullptr || unlockChannel(channel) == ECI_NO_ERROR) return ECI_NO_ERROR;
    TRACE(at::channelStays);
    return ECI_ERR_SYSTEM_ERROR;
}

/* Frees the slot, or keeps it for its unit of work. Deliberate: it is kept for token 0 too, though
 * none of its calls will find it: the message ids of later requests depend on which slots are free,
 * and Gateways and traces show them. */
static int consumeSlot(const Collection& wanted, RequestSlot* slotP)
    NEEDS_LOCK(wanted.gwTok->tableLock)
{
    const QPX_ECI_PARMS* EciParms = &slotP->eciParms; // the caller's may be changing
    ECI_Channel_t* channel = takeHeldChannel(slotP);
    int rc = firstFailure(slotP->gatewayRc, slotP->vornRc);
    bool keepsUnitOfWork = slotP->gatewayRc == QPX_OK &&
                           EciParms->eci_extend_mode == ECI_EXTENDED &&
                           EciParms->eci_luw_token >= 0;
    if (keepsUnitOfWork) {
        clapiFreeReplyBuffer(slotP);
        keepForUnitOfWork(slotP);
    } else {
        slotFree(&wanted.gwTok->table, slotP);
    }
    return firstFailure(rc, giveChannelBack(channel));
}

/* With nothing queued, later waiters must wait, unless nothing can come any more. */
static int armForNextReply(_QPX_ConnToken_t* gwTok) NEEDS_LOCK(gwTok->tableLock)
{
    namespace at = tp::getAsyncReply;

    bool nothingCanCome = gwTok->closedown != 0 && gwTok->asyncCount == 0;
    if (gwTok->firstReply != nullptr || nothingCanCome) return ECI_NO_ERROR;
    if (clapiSetEvent(&gwTok->asyncReplyEvent) == 0) return ECI_NO_ERROR;
    TRACE(at::notArmedAfterwards);
    return ECI_ERR_SYSTEM_ERROR;
}

static int takeReply(const Collection& wanted, RequestSlot* slotP)
    NEEDS_LOCK(wanted.gwTok->tableLock)
{
    namespace at = tp::getAsyncReply;

    TRACE(at::found, slotP->eciParms.eci_message_qualifier);
    copyRecord(wanted.EciParms, slotP);
    int rc = takeData(wanted, slotP);
    if (rc != ECI_NO_ERROR) return rc; // the reply stays queued

    countOut(wanted.gwTok);
    TRACE(at::counted, wanted.gwTok->asyncCount.load(), wanted.gwTok);
    clapiUnlinkReply(wanted.gwTok, slotP);
    rc = consumeSlot(wanted, slotP);
    return firstFailure(rc, armForNextReply(wanted.gwTok));
}

static int collectReply(const Collection& wanted)
{
    namespace at = tp::getAsyncReply;

    LockGuard table(wanted.gwTok->tableLock);
    if (!table.held()) {
        TRACE(at::noLock);
        return ECI_ERR_SYSTEM_ERROR;
    }
    RequestSlot* slotP;
    int rc = findReply(wanted, &table, &slotP);
    if (rc == ECI_NO_ERROR) rc = takeReply(wanted, slotP);
    return rc;
}

int getAsyncReply(QPX_ConnToken_t gwTok, QPX_ECI_PARMS* EciParms, const QPX_ECI_PARMS* record)
{
    namespace at = tp::getAsyncReply;

    TRACE(at::entry, gwTok, EciParms);
    int callType = record->eci_call_type;
    Collection wanted;
    wanted.gwTok = gwTok;
    wanted.EciParms = EciParms;
    wanted.isSpecific = callType == ECI_GET_SPECIFIC_REPLY ||
                        callType == ECI_GET_SPECIFIC_REPLY_WAIT;
    wanted.waits = callType == ECI_GET_REPLY_WAIT || callType == ECI_GET_SPECIFIC_REPLY_WAIT;
    wanted.qualifier = record->eci_message_qualifier;
    wanted.commarea = record->eci_commarea;
    wanted.commareaLength = wanted.commarea != nullptr ? record->eci_commarea_length : short{0};
    int rc = collectReply(wanted);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- The exported calls ---- */

/* A copy of the caller's record whose password does not show. The record itself is left alone:
 * another thread may be using it. */
class RecordToTrace {
public:
    explicit RecordToTrace(const QPX_ECI_PARMS* EciParms) : original(EciParms), copy(*EciParms)
    {
        memset(copy.eci_password, '*', sizeof copy.eci_password);
    }
    DumpBlock dump() const { return dumpOfCopy(&copy, sizeof copy, original); }

private:
    const QPX_ECI_PARMS* original;
    QPX_ECI_PARMS copy;
};

template <const TracePoint& point>
static void traceRecord(const QPX_ECI_PARMS* EciParms)
{
    if (EciParms == nullptr || !clapiTraces(point)) return;
    RecordToTrace record(EciParms);
    TRACE_DATA(point, record.dump(), EciParms, traceInt(sizeof *EciParms), STOPWORD);
}

static void traceCommarea(const QPX_ECI_PARMS* EciParms)
{
    namespace at = tp::QPX_ECI_Execute;

    if (EciParms == nullptr) return;
    const char* commarea = EciParms->eci_commarea;
    int length = EciParms->eci_commarea_length;
    if (length < 1 || commarea == nullptr) return;
    TRACE_DATA(at::commarea, dumpOf(commarea, static_cast<size_t>(length)), commarea, length,
               STOPWORD);
}

/* The caller's record, read once: whatever happens to it afterwards, the call is of one piece. */
class RecordAtStart {
public:
    explicit RecordAtStart(const QPX_ECI_PARMS* EciParms) : record(*EciParms)
    {
        if (!startsWork(record.eci_call_type)) clearPassword();
    }
    ~RecordAtStart() { clearPassword(); }
    RecordAtStart(const RecordAtStart&) = delete;
    RecordAtStart& operator=(const RecordAtStart&) = delete;

    QPX_ECI_PARMS record;

private:
    void clearPassword() { explicit_bzero(record.eci_password, sizeof record.eci_password); }
};

/* Nothing of the token may be touched behind the unregistering. */
template <const TracePoint& notUnregistered>
static int unregisterCall(QPX_ConnToken_t gwTok)
{
    if (clapiUnregisterRequest(gwTok) == QPX_OK) return ECI_NO_ERROR;
    TRACE(notUnregistered);
    return ECI_ERR_SYSTEM_ERROR;
}

template <const TracePoint& closing>
static int checkConnection(QPX_ConnToken_t gwTok, const QPX_ECI_PARMS* EciParms)
{
    if (gwTok->closedown == 0 || !startsWork(EciParms->eci_call_type)) return ECI_NO_ERROR;
    TRACE(closing, getCallTypeString(EciParms->eci_call_type));
    return QPX_ERR_GWTOK_CLOSED;
}

/* ---- With a COMMAREA ---- */

static int checkExecuteCall(QPX_ConnToken_t gwTok, QPX_ECI_PARMS* EciParms)
{
    namespace at = tp::QPX_ECI_Execute;

    if (EciParms == nullptr) {
        TRACE(at::nullParms, EciParms);
        return QPX_ERR_NULLECIPOINTER;
    }
    int rc = verifyEciParms(EciParms, MIN_VERSION_COMMAREA);
    return rc == ECI_NO_ERROR ? checkConnection<at::closing>(gwTok, EciParms) : rc;
}

static int executeCall(QPX_ConnToken_t gwTok, QPX_ECI_PARMS* EciParms)
{
    RecordAtStart start(EciParms);
    if (!startsWork(start.record.eci_call_type))
        return getAsyncReply(gwTok, EciParms, &start.record);
    return performEciExecute(gwTok, EciParms, &start.record, false);
}

static int executeRegistered(QPX_ConnToken_t gwTok, QPX_ECI_PARMS* EciParms)
{
    namespace at = tp::QPX_ECI_Execute;

    if (gwTok == nullptr) {
        TRACE(at::nullToken, gwTok);
        return QPX_ERR_NULLGWTOK;
    }
    int rc = clapiRegisterRequest(gwTok);
    if (rc != QPX_OK) return rc;

    rc = checkExecuteCall(gwTok, EciParms);
    traceRecord<at::recordBefore>(EciParms);
    traceCommarea(EciParms);
    if (rc == ECI_NO_ERROR) rc = executeCall(gwTok, EciParms);
    rc = firstFailure(rc, unregisterCall<at::notUnregistered>(gwTok));
    traceRecord<at::recordAfter>(EciParms);
    return rc;
}

int QPX_ECI_Execute(QPX_ConnToken_t gwTok, QPX_ECI_PARMS* EciParms)
{
    namespace at = tp::QPX_ECI_Execute;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, gwTok, EciParms);
    if (rc == QPX_OK) rc = executeRegistered(gwTok, EciParms);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- With a channel ---- */

static int checkChannel(const QPX_ECI_PARMS* EciParms)
{
    namespace at = tp::QPX_ECI_Execute_Channel;

    if (!startsWork(EciParms->eci_call_type)) return ECI_NO_ERROR;
    if (EciParms->channel == nullptr) {
        TRACE(at::nullChannel, EciParms->channel);
        return ECI_ERR_INVALID_CHANNEL;
    }
    if (EciParms->eci_commarea != nullptr) {
        TRACE(at::channelAndCommarea, EciParms->channel, EciParms->eci_commarea);
        return ECI_ERR_COMMAREA_AND_CHANNEL;
    }
    return ECI_NO_ERROR;
}

static int checkChannelCall(QPX_ConnToken_t gwTok, QPX_ECI_PARMS* EciParms)
{
    namespace at = tp::QPX_ECI_Execute_Channel;

    if (EciParms == nullptr) {
        TRACE(at::nullParms, EciParms);
        return QPX_ERR_NULLECIPOINTER;
    }
    int rc = verifyEciParms(EciParms, MIN_VERSION_CHANNEL);
    if (rc == ECI_NO_ERROR) rc = checkChannel(EciParms);
    return rc == ECI_NO_ERROR ? checkConnection<at::closing>(gwTok, EciParms) : rc;
}

/* Holds the channel until the reply is there; an asynchronous request that has been sent keeps
 * it, until its reply is collected. */
static int performHoldingChannel(QPX_ConnToken_t gwTok, QPX_ECI_PARMS* EciParms,
                                 const QPX_ECI_PARMS* record)
{
    namespace at = tp::QPX_ECI_Execute_Channel;

    int rc = lockChannel(record->channel);
    if (rc != ECI_NO_ERROR) return rc;

    clapiSettleCcsid(record->channel);
    rc = performEciExecute(gwTok, EciParms, record, true);
    if (record->eci_call_type == ECI_ASYNC && rc == ECI_NO_ERROR) return rc;
    if (unlockChannel(record->channel) != ECI_NO_ERROR) {
        TRACE(at::channelStays);
        rc = firstFailure(rc, ECI_ERR_SYSTEM_ERROR);
    }
    return rc;
}

/* Neither sends the channel nor waits for it. Deliberate: a unit of work can be ended by the record
 * of its calls though their channel has been deleted. */
static int performBesideChannel(QPX_ConnToken_t gwTok, QPX_ECI_PARMS* EciParms,
                                const QPX_ECI_PARMS* record)
{
    clapiSettleCcsidIfThere(record->channel);
    return performEciExecute(gwTok, EciParms, record, true);
}

static int executeChannelCall(QPX_ConnToken_t gwTok, QPX_ECI_PARMS* EciParms)
{
    RecordAtStart start(EciParms);
    if (!startsWork(start.record.eci_call_type))
        return getAsyncReply(gwTok, EciParms, &start.record);
    return (clapiCarriesData(start.record.eci_extend_mode)
                ? performHoldingChannel
                : performBesideChannel)(gwTok, EciParms, &start.record);
}

static int executeChannelRegistered(QPX_ConnToken_t gwTok, QPX_ECI_PARMS* EciParms)
{
    namespace at = tp::QPX_ECI_Execute_Channel;

    if (gwTok == nullptr) {
        TRACE(at::nullToken, gwTok);
        return QPX_ERR_NULLGWTOK;
    }
    int rc = clapiRegisterRequest(gwTok);
    if (rc != QPX_OK) return rc;

    rc = checkChannelCall(gwTok, EciParms);
    traceRecord<at::recordBefore>(EciParms);
    if (rc == ECI_NO_ERROR) rc = executeChannelCall(gwTok, EciParms);
    rc = firstFailure(rc, unregisterCall<at::notUnregistered>(gwTok));
    traceRecord<at::recordAfter>(EciParms);
    return rc;
}

int QPX_ECI_Execute_Channel(QPX_ConnToken_t gwTok, QPX_ECI_PARMS* EciParms)
{
    namespace at = tp::QPX_ECI_Execute_Channel;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, gwTok, EciParms);
    if (rc == QPX_OK) rc = getCurrentCcsid();
    if (rc == QPX_OK) rc = executeChannelRegistered(gwTok, EciParms);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}
