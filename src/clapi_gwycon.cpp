/*
 * Connections: reaching the Gateway, shaking hands, the receiver thread of each connection, and
 * the close flow. Tokens and slots are clapi_gwytok's, the bytes of flows clapi_socketcomms', what
 * waits for whom clapi_delivery's.
 *
 * Locks: the receiver takes tableLock only, the close flow sendLock only; connecting takes none
 * but tableLock for the moment in which it stops being a sender.
 */
#include "clapi_gwycon.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "clapi_delivery.h"
#include "clapi_diag.h"
#include "clapi_rc.h"
#include "clapi_socketbuffer.h"
#include "clapi_socketcomms.h"
#include "descriptor_wait.h"
#include "schedule_points.h"
#include "trace_points/clapi_gwycon.h"

static int sockOptOn = 1;
static int sockOptOff = 0;

/* ---- Sockets ---- */

/*
 * The tokens whose socket is open. The lock is a leaf: it is held for the making or the closing of
 * a socket together with the note of it, so that a process that is forked finds each socket that
 * it inherits, and no number that is another's by now.
 */
static ProcessLock openSocketsGuard(RANK_SOCKETS);
static _QPX_ConnToken_t* firstOpenSocket GUARDED_BY(openSocketsGuard) = nullptr;

class HOLDS_A_LOCK OpenSocketsHold {
public:
    OpenSocketsHold() ACQUIRES(openSocketsGuard) { clapiTake(&openSocketsGuard); }
    ~OpenSocketsHold() RELEASES() { clapiGiveUp(&openSocketsGuard); }
    OpenSocketsHold(const OpenSocketsHold&) = delete;
    OpenSocketsHold& operator=(const OpenSocketsHold&) = delete;
};

/* Locks: openSocketsGuard held, as in the function that follows. */
static void noteOpen(_QPX_ConnToken_t* gwTokPtr) NEEDS_LOCK(openSocketsGuard)
{
    gwTokPtr->nextOpenSocket = firstOpenSocket;
    firstOpenSocket = gwTokPtr;
}

static void noteClosing(const _QPX_ConnToken_t* gwTokPtr) NEEDS_LOCK(openSocketsGuard)
{
    _QPX_ConnToken_t** linkPtr = &firstOpenSocket;
    while (*linkPtr != nullptr && *linkPtr != gwTokPtr) linkPtr = &(*linkPtr)->nextOpenSocket;
    if (*linkPtr == gwTokPtr) *linkPtr = gwTokPtr->nextOpenSocket;
}

/* Closes a connection's socket; a failure shows in the EXIT line only. */
static void closeSocket(_QPX_ConnToken_t* gwTokPtr)
{
    namespace at = tp::closeSocket;

    Socket socketDescriptor = gwTokPtr->socketDescriptor;
    TRACE(at::entry, traceSocket(socketDescriptor));
    int closeErrno;
    {
        OpenSocketsHold hold;
        noteClosing(gwTokPtr);
        closeErrno = close(socketDescriptor) == 0 ? 0 : errno;
    }
    TRACE(at::exit, closeErrno);
}

void clapiConnectionsForkPrepare(void) ACQUIRES(openSocketsGuard)
{
    clapiTakeForFork(&openSocketsGuard);
}

void clapiConnectionsForkParent(void) RELEASES(openSocketsGuard)
{
    clapiGiveUp(&openSocketsGuard);
}

void clapiConnectionsForkChild(void) RELEASES(openSocketsGuard)
{
    for (_QPX_ConnToken_t* token = firstOpenSocket; token != nullptr;
         token = token->nextOpenSocket) {
        close(token->socketDescriptor);
        token->socketDescriptor = NO_SOCKET;
    }
    firstOpenSocket = nullptr;
    clapiGiveUp(&openSocketsGuard);
}

/* ---- The receiver thread ---- */

/* What tools show for the thread. */
static const char RECEIVER_NAME[] = "qpx-recv";

/* What one receiver thread works with. */
struct Receiver {
    _QPX_ConnToken_t* conn;
    SocketBuffer sockBuffer;
    ReadAhead ahead;
    GatewayRequest header;
    ECIRequest eciReply;
    ESIRequest esiReply;
    ArrivingBytes aside;  // a reply's data whose place is still read for the request
    size_t roomRefused;   // what an asynchronous reply needs and there was no memory for, or 0
    RequestSlot* slotP;   // whom the flow is for; null if nobody
    uint32_t allocNumber; // that slot's use when the flow began to be read
    int rc;               // any non-zero value ends the thread's loop
    int closeRc;          // for requests still waiting when the thread ends
    bool closed;          // a close flow has come
    int timeout;          // seconds for the next wait, 0 = no limit
};

static bool isOpenOrOpening(const _QPX_ConnToken_t* conn)
{
    int status = conn->connStatus;
    return status == CONN_CONNECTING || status == CONN_CONNECTED;
}

/* A flow that says that the connection has ended, by the Gateway or at the application's wish. */
static int noteClosed(Receiver* r)
{
    namespace at = tp::receiverThread;

    bool byApplication = r->conn->closedown != 0;
    r->closeRc = byApplication ? QPX_ERR_GWTOK_CLOSED : QPX_ERR_GATEWAY_CLOSED;
    TRACE(at::closed, byApplication ? "API" : "Gateway", r->closeRc, clapiGetRcString(r->closeRc));
    r->closed = true;
    return QPX_ERR_GATEWAY_CLOSED;
}

/* Reads a header; what is one but for the length of its request type ends the connection with a
 * line of its own. */
static int readHeader(Receiver* r)
{
    namespace at = tp::receiverThread;

    int rc = clapiReadHeader(&r->sockBuffer, &r->header);
    bool isHeader = r->header.eyecatcher == FLOW_EYECATCHER;
    if (rc == QPX_ERR_SYSTEM_ERROR && isHeader)
        TRACE(at::badTypeLength, r->header.requestTypeLength);
    return rc;
}

/* Takes the body into the buffer, or as much of it as the buffer holds. */
static int fillBody(Receiver* r)
{
    namespace at = tp::receiverThread;

    // What the header's read left in the buffer belongs to the body.
    size_t buffered = r->sockBuffer.count;
    int length = r->header.datalength;
    if (length < 0 || static_cast<size_t>(length) < buffered) {
        TRACE(at::badDataLength, length);
        return QPX_ERR_SYSTEM_ERROR;
    }
    r->sockBuffer.totalCount += static_cast<size_t>(length) - buffered;
    return fillBuffer(&r->sockBuffer);
}

static int readFlow(Receiver* r)
{
    r->slotP = nullptr;
    clapiFreeArrived(&r->aside);
    int rc = waitForResponse(&r->sockBuffer, r->timeout);
    r->timeout = 0; // only the wait for the handshake's answer has a limit
    if (rc == QPX_OK) rc = readHeader(r);
    if (rc != QPX_OK) return rc;
    if (r->header.messageId == MESSAGE_ID_CLOSE) return noteClosed(r);
    return fillBody(r);
}

/* Drops what nobody has read of the body, so that the next header is found behind it. */
static int drainBody(Receiver* r)
{
    skipBytes(&r->sockBuffer, bytesLeft(&r->sockBuffer));
    return r->sockBuffer.socketErr != 0 ? QPX_ERR_LOSTGWCON : QPX_OK;
}

/*
 * The result of reading a body, of which rc is what the reader says. One that ends before its last
 * field breaks the connection, unless the header tells of a failure: then nothing needs to be
 * there, and what is missing counts as 0.
 */
static int bodyResult(Receiver* r, int rc)
{
    namespace at = tp::receiverThread;

    bool tooShort = r->sockBuffer.socketErr == EBADMSG;
    if (tooShort && r->header.gatewayRc != 0) {
        r->sockBuffer.socketErr = 0;
        return QPX_OK;
    }
    if (tooShort) TRACE(at::brokenBody);
    return firstFailure(rc, r->sockBuffer.socketErr != 0 ? QPX_ERR_LOSTGWCON : QPX_OK);
}

/* ---- Replies ---- */

/* Room for the whole reply of an asynchronous call, so that a later collection can say how much
 * it needs. Without memory the reply is read into the room that there is, and then is none.
 * Locks: tableLock held. */
static void growReplyBuffer(Receiver* r, RequestSlot* slotP)
{
    bool carriesData = clapiCarriesData(slotP->eciParms.eci_extend_mode);
    if (slotP->asyncBuffer == nullptr || !carriesData) return;
    int inboundLength = clapiPeekInboundLength(&r->sockBuffer);
    size_t wanted = static_cast<size_t>(std::clamp(inboundLength, 0, SHRT_MAX));
    if (wanted <= slotP->replyCapacity) return;

    char* buffer = static_cast<char*>(calloc(wanted, 1));
    if (buffer == nullptr) {
        r->roomRefused = wanted;
        return;
    }
    clapiFreeReplyBuffer(slotP);
    slotP->asyncBuffer = buffer;
    slotP->replyCapacity = wanted;
    slotP->eciParms.eci_commarea = buffer;
}

/* Makes the data of a reply come into storage of its own: 0 or QPX_ERR_MALLOCFAIL. */
static int readAside(Receiver* r, const RequestSlot* slotP)
{
    namespace at = tp::receiverThread;

    if (slotP->channelHeld != 0) {
        r->eciReply.section = &r->aside;
        return QPX_OK;
    }
    size_t room = r->eciReply.capacity;
    if (r->eciReply.commarea == nullptr || room == 0) return QPX_OK;

    char* data = clapiAllocateData(room);
    if (data == nullptr) {
        TRACE(at::noRoomAside);
        return QPX_ERR_MALLOCFAIL;
    }
    // What the reply does not reach stays as it is.
    memcpy(data, r->eciReply.commarea, room);
    r->aside = ArrivingBytes{data, 0, room};
    r->eciReply.commarea = data;
    return QPX_OK;
}

/* Says where an ECI reply goes. A list that comes with a failure goes nowhere.
 * 0 or QPX_ERR_MALLOCFAIL. Locks: tableLock held. */
static int loadReplyRecord(Receiver* r, RequestSlot* slotP) NEEDS_LOCK(r->conn->tableLock)
{
    if (slotP->purpose == SYSTEM_LIST_QUERY && r->header.gatewayRc != QPX_OK) return QPX_OK;
    growReplyBuffer(r, slotP);
    r->eciReply.commarea = slotP->eciParms.eci_commarea;
    r->eciReply.capacity = slotP->replyCapacity;
    r->eciReply.extendedMode = slotP->eciParms.eci_extend_mode;
    // What overtakes the request must not change what is still read for it.
    if (slotP->beingSent != 0) return readAside(r, slotP);
    if (slotP->channelHeld != 0) r->eciReply.channel = slotP->eciParms.channel;
    return QPX_OK;
}

/* Finds the slot that a flow names, whatever its state: 0 or QPX_ERR_SYSTEM_ERROR. */
static int lookUpSlot(const Receiver* r, RequestSlot** slotPP)
{
    RequestTable* table = &r->conn->table;
    return table->lookUp(table, r->header.messageId, slotPP);
}

/* Finds the slot that a reply is for. Only a slot that waits takes it; an id that no slot has
 * ends the connection. */
static int findReplySlot(Receiver* r)
{
    namespace at = tp::receiverThread;

    r->eciReply = ECIRequest{};
    r->eciReply.limited = 1;
    r->esiReply = ESIRequest{};
    r->roomRefused = 0;

    LockGuard table(r->conn->tableLock);
    if (!table.held()) {
        TRACE(at::noLock);
        return QPX_ERR_SYSTEM_ERROR;
    }
    RequestSlot* slotP = nullptr;
    int rc = lookUpSlot(r, &slotP);
    if (rc == QPX_OK && clapiAwaitsOutcome(slotP)) {
        r->slotP = slotP;
        r->allocNumber = slotP->allocNumber;
        clapiBeginReading(r->conn, slotP);
        rc = loadReplyRecord(r, slotP);
    }
    if (table.release() != 0) {
        TRACE(at::notReleased);
        return QPX_ERR_SYSTEM_ERROR;
    }
    return rc;
}

/* Whether the slot that was found still is in the use that it was found in.
 * Locks: tableLock held. */
static bool stillWaits(const Receiver* r) NEEDS_LOCK(r->conn->tableLock)
{
    return r->slotP != nullptr && clapiAwaitsOutcome(r->slotP) &&
           r->slotP->allocNumber == r->allocNumber;
}

static short inboundLengthFor(const RequestSlot* slotP, int inboundLength)
{
    int limit = SHRT_MAX;
    if (slotP->eciParms.eci_call_type != ECI_ASYNC)
        limit = static_cast<int>(std::min(slotP->replyCapacity, static_cast<size_t>(SHRT_MAX)));
    return static_cast<short>(std::clamp(inboundLength, 0, limit));
}

static void storeECIReply(RequestSlot* slotP, const ECIRequest& reply)
{
    bool isSystemList = reply.callType == WIRE_CALL_LIST_SYSTEMS;
    memcpy(slotP->eciParms.eci_abend_code, reply.abendCode, sizeof reply.abendCode);
    slotP->vornRc = reply.vornRc;
    slotP->eciParms.commarea_inbound_length = inboundLengthFor(slotP, reply.commareaInboundLength);
    slotP->eciParms.eci_luw_token = isSystemList ? reply.server_num : reply.luwToken;
}

static void storeESIReply(RequestSlot* slotP, const ESIRequest& reply)
{
    slotP->vornRc = reply.vornRc;
    if (reply.vornRc == 0 && slotP->esiDetails != nullptr) *slotP->esiDetails = reply.details;
}

/* What there is to store of a reply besides the header's code. */
enum class ReplyKind { eci, esi, empty };

/* Makes the changes of a reply's channel section to the slot's channel: 0, or why the connection
 * has to end. */
static int applySection(const RequestSlot* slotP, const ArrivingBytes* section, int gatewayRc)
{
    namespace at = tp::receiverThread;

    bool broken = false;
    int rc = clapiApplyChannelSection(section, slotP->eciParms.channel, &broken);
    if (!broken) return rc;
    // A failure that the header tells may come with a body that is cut.
    if (gatewayRc != QPX_OK) return QPX_OK;
    TRACE(at::brokenBody);
    return firstFailure(rc, QPX_ERR_LOSTGWCON);
}

/* Puts a reply's data where it belongs: 0, or why the connection has to end. Thread: whoever
 * settles the slot, which waits meanwhile. */
static int applyReplyData(const RequestSlot* slotP, const ArrivingBytes* data, int gatewayRc)
{
    if (slotP->channelHeld != 0) return applySection(slotP, data, gatewayRc);
    memcpy(slotP->eciParms.eci_commarea, data->data, data->length);
    return QPX_OK;
}

/* Applies what was read aside for a request that is not being sent any more.
 * Locks: tableLock held; given up meanwhile. */
static int applyAside(Receiver* r, LockGuard* table) NEEDS_LOCK(r->conn->tableLock)
    NOT_ANALYSED("gives up what its caller's guard holds")
{
    bool released = table->release() == 0;
    int rc = applyReplyData(r->slotP, &r->aside, r->header.gatewayRc);
    if (released) table->request();
    return rc;
}

/* Locks: tableLock held, but for what applyAside says. */
static int settleReply(Receiver* r, ReplyKind kind, LockGuard* table, LaterWake* wakeP)
    NEEDS_LOCK(r->conn->tableLock)
{
    // From here on, once it is 0 it stays so: it is looked at once.
    bool overtakes = r->slotP->beingSent != 0;
    bool isAside = r->aside.length != 0;
    int rc = isAside && !overtakes ? applyAside(r, table) : QPX_OK;
    if (rc != QPX_OK) return rc;

    if (kind == ReplyKind::eci) storeECIReply(r->slotP, r->eciReply);
    if (kind == ReplyKind::esi) storeESIReply(r->slotP, r->esiReply);
    if (overtakes)
        clapiPutAside(r->slotP, r->header.gatewayRc, &r->aside);
    else
        clapiDeliverSlot(r->conn, r->slotP, r->header.gatewayRc, wakeP);
    return QPX_OK;
}

/* Puts the reply and the header's code into the slot, if it still waits, and wakes its waiter. */
static int deliverReply(Receiver* r, ReplyKind kind)
{
    namespace at = tp::receiverThread;

    SCHEDULE_POINT(replyRead, r->slotP);
    LaterWake wake;
    LockGuard table(r->conn->tableLock);
    if (!table.held()) {
        TRACE(at::noLock);
        return QPX_ERR_SYSTEM_ERROR;
    }
    int rc = stillWaits(r) ? settleReply(r, kind, &table, &wake) : QPX_OK;
    clapiEndReading(r->conn);
    return rc;
}

/*
 * Makes a success whose data there was no memory for a failure: nobody may take what is there for
 * the whole. It counts as the server's, behind which a unit of work goes on: it can be backed out,
 * and what it has done so far does not stay with the server unseen.
 */
static void failCutReply(Receiver* r)
{
    namespace at = tp::failCutReply;

    bool isSuccess = r->header.gatewayRc == QPX_OK && r->eciReply.vornRc == 0;
    if (r->roomRefused == 0 || !isSuccess) return;
    TRACE(at::noMemory, static_cast<int>(r->roomRefused));
    // In doubt, as the program has run: ECI_ERR_RESOURCE_SHORTAGE is the server's word for nothing
    // done, and QPX_ERR_MALLOCFAIL would say that the reply is still to be collected.
    r->eciReply.vornRc = ECI_ERR_SYSTEM_ERROR;
}

static int receiveECIReply(Receiver* r)
{
    namespace at = tp::receiverThread;

    // A failure that the header tells may come without a body.
    bool hasBody = r->header.gatewayRc == 0 || r->header.datalength != 0;
    int rc = hasBody ? clapiReadECIResponse(&r->sockBuffer, &r->eciReply) : QPX_OK;
    if (rc == QPX_ERR_MALLOCFAIL && r->eciReply.section != nullptr) TRACE(at::noRoomAside);
    rc = bodyResult(r, rc);
    if (rc != QPX_OK) return rc;
    if (r->eciReply.commarea == r->aside.data) r->aside.length = r->eciReply.commareaChanged;
    if (r->eciReply.vornRc != 0)
        TRACE(at::eciError, r->eciReply.vornRc, clapiGetRcStringECI(r->eciReply.vornRc));
    failCutReply(r);
    return deliverReply(r, ReplyKind::eci);
}

static int receiveESIReply(Receiver* r)
{
    namespace at = tp::receiverThread;

    bool hasServerRc = r->header.datalength >= static_cast<int>(sizeof(int));
    clapiReadESIResponse(&r->sockBuffer, &r->esiReply);
    // Deliberate: a short body does not end the connection. The message has come whole, and the
    // next one can be read; what is missing counts as 0.
    if (r->sockBuffer.socketErr == EBADMSG) r->sockBuffer.socketErr = 0;
    // Without a server's code a success must not be read out of the missing bytes.
    if (!hasServerRc && r->header.gatewayRc == 0) r->header.gatewayRc = QPX_ERR_SYSTEM_ERROR;
    if (r->esiReply.vornRc != 0)
        TRACE(at::esiError, r->esiReply.vornRc, clapiGetRcStringESI(r->esiReply.vornRc));
    return deliverReply(r, hasServerRc ? ReplyKind::esi : ReplyKind::empty);
}

static int receiveUnknownReply(Receiver* r, const char* requestType)
{
    namespace at = tp::receiverThread;

    TRACE(at::otherType, requestType);
    r->header.gatewayRc = QPX_ERR_SYSTEM_ERROR;
    return deliverReply(r, ReplyKind::empty);
}

static int receiveReply(Receiver* r)
{
    namespace at = tp::receiverThread;

    char requestType[REQUEST_TYPE_SIZE + 1] = {};
    memcpy(requestType, r->header.requestType, REQUEST_TYPE_SIZE);
    TRACE(at::reply, requestType);

    int rc = findReplySlot(r);
    if (rc != QPX_OK) return rc;
    if (r->slotP == nullptr) return QPX_OK; // nobody waits; the body is dropped
    SCHEDULE_POINT(replyFound, r->slotP);

    size_t length = static_cast<size_t>(r->header.requestTypeLength);
    if (strncmp(requestType, "ECI", length) == 0) return receiveECIReply(r);
    if (strncmp(requestType, "ESI", length) == 0) return receiveESIReply(r);
    return receiveUnknownReply(r, requestType);
}

/* ---- A reply that has overtaken its request ---- */

/* Delivers the outcome that has overtaken its request. A channel that cannot be changed as the
 * reply says ends the connection, and the request with it.
 * Locks: tableLock held; given up while the reply's data is applied. */
static void deliverPendingOutcome(_QPX_ConnToken_t* gwTokPtr, RequestSlot* slotP, LockGuard* table,
                                  LaterWake* wakeP) NEEDS_LOCK(gwTokPtr->tableLock)
    NOT_ANALYSED("gives up what its caller's guard holds")
{
    int gatewayRc = slotP->gatewayRc;
    ArrivingBytes data = clapiTakeArrived(&slotP->replyData);
    if (data.length != 0) {
        bool released = table->held() && table->release() == 0;
        if (applyReplyData(slotP, &data, gatewayRc) != QPX_OK) {
            clapiEndStream(gwTokPtr);
            gatewayRc = QPX_ERR_LOSTGWCON;
        }
        SCHEDULE_POINT(asideApplied, slotP);
        if (released) table->request();
    }
    clapiFreeArrived(&data);
    slotP->outcomePending = 0;
    clapiDeliverSlot(gwTokPtr, slotP, gatewayRc, wakeP);
}

void clapiEndSendingRequest(_QPX_ConnToken_t* gwTokPtr, RequestSlot* slotP, uint32_t allocNumber)
{
    LaterWake wake;
    LockGuard table(gwTokPtr->tableLock);
    // While an outcome is pending, nobody else gives the slot back.
    if (slotP->allocNumber == allocNumber && slotP->outcomePending != 0)
        deliverPendingOutcome(gwTokPtr, slotP, &table, &wake);
    clapiLeaveSenders(gwTokPtr);
}

/* ---- Other flows ---- */

/* The slot that a flow names, or null. Deliberate: unlike for a reply, it is looked up without the
 * table lock: nothing is written into the slot here, and its delivery looks at it again with the
 * lock. Slots stay readable as long as their token. */
static RequestSlot* lookUpWithoutLock(const Receiver* r)
{
    RequestSlot* slotP = nullptr;
    lookUpSlot(r, &slotP);
    return slotP;
}

/* Gives the header's code to a request, if it waits. The slot was found without the lock, and may
 * have another id by now. */
static void deliverFailure(Receiver* r, RequestSlot* slotP)
{
    if (slotP == nullptr) return;
    SCHEDULE_POINT(failureFound, slotP);
    LaterWake wake;
    LockGuard table(r->conn->tableLock);
    if (table.held() && slotP->messageId == r->header.messageId && clapiAwaitsOutcome(slotP))
        clapiSettleSlot(r->conn, slotP, r->header.gatewayRc, &wake);
}

static int receiveError(Receiver* r)
{
    namespace at = tp::receiverThread;

    bool isForConnection = r->header.messageId == MESSAGE_ID_CONNECTION;
    RequestSlot* slotP = isForConnection ? nullptr : lookUpWithoutLock(r);
    TRACE(at::error, r->header.gatewayRc, clapiGetRcString(r->header.gatewayRc));
    if (isForConnection) return firstFailure(r->header.gatewayRc, QPX_ERR_SYSTEM_ERROR);
    deliverFailure(r, slotP);
    return QPX_OK;
}

static int receiveHandshake(Receiver* r)
{
    namespace at = tp::receiverThread;

    TRACE(at::handshake);
    r->conn->connStatus = CONN_CONNECTED;
    clapiClearEvent(&r->conn->connEvent);
    return QPX_OK;
}

/* Reads and traces the text of an exception. A body without one gives an empty text. */
static int readExceptionText(Receiver* r)
{
    namespace at = tp::receiverThread;

    readByte(&r->sockBuffer);
    size_t length = static_cast<unsigned short>(readShort(&r->sockBuffer));
    length = std::min(length, bytesLeft(&r->sockBuffer));
    char* text = static_cast<char*>(malloc(length + 1));
    if (text == nullptr) {
        TRACE(at::noMemory, traceInt(length));
        return QPX_ERR_SYSTEM_ERROR;
    }
    memset(text, 0, length + 1);
    readBytes(&r->sockBuffer, text, length);
    TRACE(at::exceptionText, traceInt(length), text);
    free(text);
    if (r->sockBuffer.socketErr == EBADMSG) r->sockBuffer.socketErr = 0;
    return r->sockBuffer.socketErr != 0 ? QPX_ERR_LOSTGWCON : QPX_OK;
}

static int receiveException(Receiver* r)
{
    namespace at = tp::receiverThread;

    TRACE(at::exception);
    int rc = readExceptionText(r);
    r->header.gatewayRc = QPX_ERR_GATEWAY_EXCEPTION;
    RequestSlot* slotP = lookUpWithoutLock(r);
    if (rc == QPX_OK) deliverFailure(r, slotP);
    return rc;
}

static int dispatchFlow(Receiver* r)
{
    namespace at = tp::receiverThread;

    switch (r->header.flowType) {
    case FLOW_REPLY: return receiveReply(r);
    case FLOW_ERROR: return receiveError(r);
    case FLOW_HANDSHAKE: return receiveHandshake(r);
    case FLOW_EXCEPTION: return receiveException(r);
    case FLOW_PING: TRACE(at::ping); return QPX_OK;
    case FLOW_CLOSE: TRACE(at::closeFlow); return QPX_OK;
    default: return QPX_OK;
    }
}

/* ---- The receiver's start and end ---- */

static void startReceiving(Receiver* r)
{
    clapiSetEvent(&r->conn->recvThreadEndedEvent);
    r->rc = initReadBuffer(&r->sockBuffer, r->conn->socketDescriptor, SOCKET_BUFFER_CAPACITY);
    if (r->rc != QPX_OK) {
        r->conn->connStatus = CONN_FAILED;
        return;
    }
    r->timeout = r->conn->connTimeout;
    r->sockBuffer.ahead = &r->ahead;
}

static void receiveFlows(Receiver* r)
{
    namespace at = tp::receiverThread;

    while (isOpenOrOpening(r->conn) && r->rc == QPX_OK) {
        TRACE(at::waiting);
        r->rc = readFlow(r);
        if (r->rc == QPX_OK) r->rc = dispatchFlow(r);
        if (r->rc == QPX_OK) r->rc = drainBody(r);
        SCHEDULE_POINT(flowHandled, r->conn);
    }
}

/* Sets the connection's final state, and tells the connecting thread, if it still waits, what has
 * ended the connection. Locks: tableLock held, so that nobody sees the state before the requests
 * that wait have got their results. */
static void noteEnd(Receiver* r) NEEDS_LOCK(r->conn->tableLock)
{
    _QPX_ConnToken_t* conn = r->conn;
    if (r->closed) {
        conn->connStatus = CONN_CLOSED;
        return; // deliberate: after a close flow nobody is told
    }
    conn->handshakeRc = r->rc;
    conn->connStatus = conn->connStatus == CONN_CONNECTING ? CONN_FAILED : CONN_LOST;
    clapiClearEvent(&conn->connEvent);
}

/* Gives every request that still waits the connection's end as its result, and lets those go
 * that wait for an asynchronous reply. */
static void completeWaitingRequests(Receiver* r) NEEDS_LOCK(r->conn->tableLock)
{
    for (RequestSlot* slotP = &r->conn->table.slot[0]; slotP != nullptr; slotP = slotP->nextSlot) {
        LaterWake wake;
        if (clapiAwaitsOutcome(slotP)) clapiSettleSlot(r->conn, slotP, r->closeRc, &wake);
    }
    clapiClearEvent(&r->conn->asyncReplyEvent);
}

static void endConnection(Receiver* r)
{
    freeBuffer(&r->sockBuffer);
    explicit_bzero(&r->ahead, sizeof r->ahead);
    clapiFreeArrived(&r->aside);
    SCHEDULE_POINT(connectionEnding, r->conn);
    LockGuard table(r->conn->tableLock);
    clapiEndReading(r->conn);
    noteEnd(r);
    if (r->conn->connStatus != CONN_FAILED) completeWaitingRequests(r);
    SCHEDULE_POINT(connectionEnded, r->conn);
}

/* Closes the socket once nobody writes to it: its number may serve another connection at once. */
static void closeConnectionSocket(_QPX_ConnToken_t* conn)
{
    if (conn->socketDescriptor == NO_SOCKET) return;
    // Wakes a sender that is stuck. Before the handshake has been answered there is only the
    // connecting thread, whose short flow cannot be.
    if (conn->connStatus != CONN_FAILED) shutdown(conn->socketDescriptor, SHUT_RDWR);
    clapiWaitForSenders(conn);
    SCHEDULE_POINT(beforeSocketClose, conn);
    closeSocket(conn);
}

/* The only reader of a connection's socket, from the connect to the end of the connection. */
static void* receiverThread(void* argument)
{
    namespace at = tp::receiverThread;

    _QPX_ConnToken_t* conn = static_cast<_QPX_ConnToken_t*>(argument);
    Receiver receiver = {};
    receiver.conn = conn;
    receiver.closeRc = QPX_ERR_LOSTGWCON;

    SCHEDULE_POINT(receiverStarted, conn);
    TRACE(at::entry, conn);
    pthread_setname_np(pthread_self(), RECEIVER_NAME);
    pthread_detach(pthread_self());
    startReceiving(&receiver);
    receiveFlows(&receiver);
    // Deliberate: where no buffer could be made, nobody is told. That is known behaviour: an open
    // that waits for the handshake goes on waiting, and no request has begun.
    if (conn->connStatus != CONN_FAILED) endConnection(&receiver);
    closeConnectionSocket(conn);
    SCHEDULE_POINT(receiverEnding, conn);
    clapiClearEvent(&conn->recvThreadEndedEvent);
    // From here on a closer may free the token.
    SCHEDULE_POINT(receiverEnded, conn);
    TRACE(at::exit);
    return nullptr;
}

/* ---- Connecting ---- */

static int getHostInfo(const char* address, int port, addrinfo** hostInfo)
{
    namespace at = tp::getHostInfo;

    char portText[16];
    static_cast<void>(snprintf(portText, sizeof portText, "%d", port));
    addrinfo hints = {};
    hints.ai_flags = AI_ADDRCONFIG | AI_ALL;
    hints.ai_socktype = SOCK_STREAM;
    clapiCheckPeerWait();
    int resolverRc = getaddrinfo(address, portText, &hints, hostInfo);
    if (resolverRc == 0) return QPX_OK;

    TRACE(at::notResolved, address, portText, gai_strerror(resolverRc), resolverRc);
    return QPX_ERR_BADHOST;
}

/* Whole seconds of a clock that nobody sets. */
static time_t secondsOfClock()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

/* How many seconds to wait again after a signal: what is left of the limit, or 1. */
static int secondsToWaitAgain(time_t start, int connTimeout)
{
    time_t elapsed = secondsOfClock() - start;
    if (elapsed > 0 && elapsed < connTimeout) return connTimeout - static_cast<int>(elapsed);
    return 1;
}

/* Waits until the socket is connected or has failed; the result of the last wait, with errno. */
static int selectConnection(Socket socketDescriptor, bool* writable, int connTimeout)
{
    namespace at = tp::waitForConnection;

    int limit = connTimeout;
    time_t start = secondsOfClock();
    for (;;) {
        TRACE(at::selecting, traceSocket(socketDescriptor));
        int ready = waitForWritable(socketDescriptor, limit, writable);
        if (ready >= 0 || errno != EINTR) return ready;
        limit = secondsToWaitAgain(start, connTimeout);
    }
}

static int awaitConnected(Socket socketDescriptor, int* sockError, int connTimeout)
{
    namespace at = tp::waitForConnection;

    ErrorText text;
    bool writable = false;
    int ready = selectConnection(socketDescriptor, &writable, connTimeout);
    if (ready < 0) {
        *sockError = errno;
        TRACE(at::selectFailed, traceSocket(socketDescriptor), traceError(*sockError, text),
              *sockError);
        return QPX_ERR_CONNECTFAILED;
    }
    if (ready == 0) {
        *sockError = ETIMEDOUT;
        TRACE(at::timedOut, traceSocket(socketDescriptor));
        return QPX_ERR_CONNECTTIMEOUT;
    }
    // Deliberate: a socket that shows in the exception set alone counts as connected. If it is not,
    // the handshake that comes next fails, and tells why.
    if (!writable) return QPX_OK;

    int error = 0;
    socklen_t errorSize = sizeof error;
    getsockopt(socketDescriptor, SOL_SOCKET, SO_ERROR, &error, &errorSize);
    if (error == 0) return QPX_OK;
    *sockError = error;
    TRACE(at::failed, traceSocket(socketDescriptor), traceError(error, text), error);
    return QPX_ERR_CONNECTFAILED;
}

static int waitForConnection(Socket* socketDescriptorPtr, int* sockError, int connTimeout)
{
    namespace at = tp::waitForConnection;

    TRACE(at::entry, socketDescriptorPtr, sockError, connTimeout);
    int rc = awaitConnected(*socketDescriptorPtr, sockError, connTimeout);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* A socket that no program gets that the application executes. A number that the standard streams
 * have is not for it: an application that has closed them may open them anew, or write to them. */
static Socket newSocket(const addrinfo* host)
{
    Socket made = socket(host->ai_family, host->ai_socktype | SOCK_CLOEXEC, host->ai_protocol);
    if (made == NO_SOCKET || made > STDERR_FILENO) return made;

    Socket moved = fcntl(made, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    int error = errno;
    close(made);
    errno = error;
    return moved;
}

/* Gives the token a socket: 0 or errno. */
static int makeSocket(_QPX_ConnToken_t* gwTokPtr, const addrinfo* host)
{
    OpenSocketsHold hold;
    gwTokPtr->socketDescriptor = newSocket(host);
    if (gwTokPtr->socketDescriptor == NO_SOCKET) return errno;
    noteOpen(gwTokPtr);
    return 0;
}

static int createSocket(_QPX_ConnToken_t* gwTokPtr, const addrinfo* host)
{
    namespace at = tp::clapiConnectToGateway;

    TRACE(at::creatingSocket, host->ai_family, host->ai_socktype, host->ai_protocol);
    int error = makeSocket(gwTokPtr, host);
    if (error == 0) return QPX_OK;

    ErrorText text;
    TRACE(at::noSocket, traceError(error, text), error);
    // Deliberate: not a failed connect. No socket can be had for the kind of address that the host
    // name has led to, and programs know that as a bad host.
    return QPX_ERR_BADHOST;
}

static int setSocketOptions(Socket socketDescriptor)
{
    namespace at = tp::clapiConnectToGateway;

    int on = 1;
    if (setsockopt(socketDescriptor, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) == 0 &&
        setsockopt(socketDescriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0)
        return QPX_OK;
    TRACE(at::noOptions, static_cast<unsigned long>(errno));
    return QPX_ERR_CONNECTFAILED;
}

/* Starts the connect and, where it does not succeed at once, waits for it. */
static int reachHost(_QPX_ConnToken_t* gwTokPtr, const addrinfo* host, int* sockError)
{
    namespace at = tp::clapiConnectToGateway;

    clapiCheckPeerWait();
    if (connect(gwTokPtr->socketDescriptor, host->ai_addr, host->ai_addrlen) == 0) return QPX_OK;
    if (errno != EINPROGRESS) {
        *sockError = errno;
        return QPX_ERR_CONNECTFAILED;
    }
    TRACE(at::waiting);
    Socket socketDescriptor = gwTokPtr->socketDescriptor;
    return waitForConnection(&socketDescriptor, sockError, gwTokPtr->connTimeout);
}

/* Whether a connection has no other side. Where nobody listens at a port of this machine that the
 * system also gives out, a connect may be given that very port, and what it meets is itself. */
static bool isConnectedToItself(Socket socketDescriptor, const addrinfo* host)
{
    sockaddr_storage own = {};
    socklen_t size = sizeof own;
    return getsockname(socketDescriptor, reinterpret_cast<sockaddr*>(&own), &size) == 0 &&
           size == host->ai_addrlen && memcmp(&own, host->ai_addr, size) == 0;
}

/* Such a connection keeps its port from the Gateway that is to come unless it ends at once. */
static int refuseOwnConnection(Socket socketDescriptor, int* sockError)
{
    linger atOnce = {1, 0};
    setsockopt(socketDescriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    *sockError = ECONNREFUSED;
    return QPX_ERR_CONNECTFAILED;
}

/* Connects within the token's time limit. A limit of 0 leaves the socket in blocking mode. */
static int connectSocket(_QPX_ConnToken_t* gwTokPtr, const addrinfo* host, const char* hostname)
{
    namespace at = tp::clapiConnectToGateway;

    bool limited = gwTokPtr->connTimeout != 0;
    if (limited) ioctl(gwTokPtr->socketDescriptor, FIONBIO, &sockOptOn);
    int sockError = 0;
    int rc = reachHost(gwTokPtr, host, &sockError);
    if (rc == QPX_OK && isConnectedToItself(gwTokPtr->socketDescriptor, host))
        rc = refuseOwnConnection(gwTokPtr->socketDescriptor, &sockError);
    if (rc != QPX_OK) {
        ErrorText text;
        TRACE(at::notConnected, traceError(sockError, text), sockError);
        return rc;
    }
    TRACE(at::connected, hostname, gwTokPtr->portNumber);
    if (limited) ioctl(gwTokPtr->socketDescriptor, FIONBIO, &sockOptOff);
    return QPX_OK;
}

/* Blocks every signal for this thread and those that it starts: the application's handlers run in
 * the application's threads. The destructor puts the mask back. */
class SignalsBlocked {
public:
    SignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before;
};

static int createReceiverThread(_QPX_ConnToken_t* gwTokPtr)
{
    SignalsBlocked signals;
    pthread_t thread;
    return pthread_create(&thread, nullptr, receiverThread, gwTokPtr);
}

/*
 * Starts the receiver thread. The event for its end is armed and this thread counted as a sender
 * before it exists: whatever it meets first, nobody takes it for ended, and the socket stays
 * open until the handshake is written.
 */
static int startReceiverThread(_QPX_ConnToken_t* gwTokPtr)
    NOT_ANALYSED("no other thread counts senders yet")
{
    namespace at = tp::clapiConnectToGateway;

    TRACE(at::creatingThread);
    clapiSetEvent(&gwTokPtr->recvThreadEndedEvent);
    gwTokPtr->senders = 1;
    int threadRc = createReceiverThread(gwTokPtr);
    if (threadRc == 0) return QPX_OK;

    TRACE(at::noThread, threadRc);
    gwTokPtr->senders = 0;
    clapiClearEvent(&gwTokPtr->recvThreadEndedEvent);
    return QPX_ERR_SYSTEM_ERROR;
}

/* Writes the handshake without sendLock: no other thread writes to the connection yet. If it cannot
 * be written, the receiver is made to end, and closes the socket; this waits for it. */
static int sendHandshake(_QPX_ConnToken_t* gwTokPtr, char* applid, char* applidQualifier)
{
    namespace at = tp::clapiConnectToGateway;

    SCHEDULE_POINT(beforeHandshake, gwTokPtr);
    int rc = clapiFlowHandshakeRequest(gwTokPtr->socketDescriptor, applid, applidQualifier);
    if (rc == QPX_OK) {
        clapiEndSending(gwTokPtr);
        return QPX_OK;
    }
    TRACE(at::notSent, rc, clapiGetRcString(rc));
    shutdown(gwTokPtr->socketDescriptor, SHUT_RDWR);
    clapiEndSending(gwTokPtr);
    clapiWaitEvent(&gwTokPtr->recvThreadEndedEvent);
    return QPX_ERR_CONNECTFAILED;
}

/* Waits for the receiver to tell what the Gateway answered; it bounds this wait. */
static int awaitHandshakeAnswer(_QPX_ConnToken_t* gwTokPtr)
{
    namespace at = tp::clapiConnectToGateway;

    TRACE(at::awaitingAnswer);
    int rc = clapiWaitEvent(&gwTokPtr->connEvent);
    SCHEDULE_POINT(handshakeAnswered, gwTokPtr);
    int status = gwTokPtr->connStatus;
    if (status == CONN_CONNECTED) return rc;
    // A close flow releases nobody from the wait: it has come behind a good answer.
    if (status != CONN_CLOSED) TRACE(at::refused, gwTokPtr->handshakeRc);
    return gwTokPtr->handshakeRc;
}

/* A socket that is open, tuned, connected and read by its receiver thread, or no socket. */
static int openSocket(_QPX_ConnToken_t* gwTokPtr, const addrinfo* host, const char* hostname)
{
    int rc = createSocket(gwTokPtr, host);
    if (rc != QPX_OK) return rc;

    rc = setSocketOptions(gwTokPtr->socketDescriptor);
    if (rc == QPX_OK) rc = connectSocket(gwTokPtr, host, hostname);
    if (rc == QPX_OK) rc = startReceiverThread(gwTokPtr);
    // Once there is a receiver, closing is its business.
    if (rc != QPX_OK) closeSocket(gwTokPtr);
    return rc;
}

static int connectAndShakeHands(int port, char* hostname, _QPX_ConnToken_t* gwTokPtr, char* applid,
                                char* applidQualifier)
{
    addrinfo* hostInfo = nullptr;
    int rc = getHostInfo(hostname, port, &hostInfo);
    if (rc != QPX_OK) return rc;

    // Deliberate: only the first address is tried, so that the open takes its time-out once, and
    // what it fails with is told of one address.
    rc = openSocket(gwTokPtr, hostInfo, hostname);
    if (rc == QPX_OK) rc = sendHandshake(gwTokPtr, applid, applidQualifier);
    if (rc == QPX_OK) rc = awaitHandshakeAnswer(gwTokPtr);
    freeaddrinfo(hostInfo);
    return rc;
}

int clapiConnectToGateway(int port, char* hostname, _QPX_ConnToken_t* gwTokPtr, char* applid,
                          char* applidQualifier)
{
    namespace at = tp::clapiConnectToGateway;

    TRACE(at::entry, port, hostname, gwTokPtr, gwTokPtr->connTimeout, applid, applidQualifier);
    int rc = connectAndShakeHands(port, hostname, gwTokPtr, applid, applidQualifier);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- The close flow ---- */

static int sendCloseFlow(_QPX_ConnToken_t* conn)
{
    namespace at = tp::clapiCloseConnection;

    LockGuard sending(conn->sendLock);
    if (!sending.held()) {
        TRACE(at::noLock);
        return QPX_ERR_SYSTEM_ERROR;
    }
    int rc = clapiFlowCloseRequest(conn->socketDescriptor);
    if (rc == QPX_OK) conn->closeFlowSent = 1;
    if (sending.release() != 0) {
        TRACE(at::notReleased);
        rc = firstFailure(rc, QPX_ERR_SYSTEM_ERROR);
    }
    return rc;
}

/* The socket of a connection that has ended meanwhile may be another's by now: the flow then
 * goes to no socket, with the same result as on a closed one. */
static int sendCloseFlowSafely(_QPX_ConnToken_t* conn)
{
    if (!clapiBeginSendingFlow(conn)) return clapiFlowCloseRequest(NO_SOCKET);
    SCHEDULE_POINT(beforeCloseWrite, conn);
    int rc = sendCloseFlow(conn);
    // A Gateway that knows of no close would not answer it, and the connection is to end anyway.
    if (conn->closeFlowSent == 0) clapiEndStream(conn);
    clapiEndSending(conn);
    return rc;
}

int clapiCloseConnection(_QPX_ConnToken_t* conn)
{
    namespace at = tp::clapiCloseConnection;

    TRACE(at::entry, conn);
    SCHEDULE_POINT(beforeCloseFlow, conn);
    int rc = sendCloseFlowSafely(conn);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}
