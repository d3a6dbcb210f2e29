/*
 * The flows between library and Gateway, byte by byte: one line of code for each field, in the
 * order of the wire. How bytes reach the socket is clapi_socketbuffer's business, whom a reply
 * is for is clapi_gwycon's.
 *
 * Locks: none taken; the writers' callers hold the connection's sendLock.
 */
#include <arpa/inet.h>

#include <cstring>

#include <algorithm>
#include <limits>

#include "clapi_diag.h"
#include "clapi_requests.h"
#include "clapi_types.h"
#include "trace_points/clapi_socketcomms.h"

const char HANDSHAKE_REQUEST_NAME[4] = {'B', 'A', 'S', 'E'};
const char ECI_REQUEST_NAME[3] = {'E', 'C', 'I'};
const char ESI_REQUEST_NAME[3] = {'E', 'S', 'I'};

/* Behind a flag byte a field follows, or not. */
constexpr char FIELD_FOLLOWS = static_cast<char>(0xFF);
constexpr char NO_FIELD = 0;

/* ---- Headers ---- */

static void buildHeader(GatewayRequest* header, int flowType, int messageId, const char* name,
                        size_t nameLength)
{
    *header = GatewayRequest{};
    header->eyecatcher = FLOW_EYECATCHER;
    header->flowVersion = FLOW_VERSION;
    header->flowType = flowType;
    header->messageId = messageId;
    header->requestTypeLength = static_cast<int>(nameLength);
    memcpy(header->requestType, name, nameLength);
}

void clapiBuildRequestHeader(GatewayRequest* header, int messageId, const char (&name)[3])
{
    buildHeader(header, FLOW_REQUEST, messageId, name, sizeof name);
}

/* The length of a whole message. */
static size_t messageSize(const GatewayRequest* header)
{
    return static_cast<size_t>(HEADER_FIXED_SIZE) + static_cast<size_t>(header->requestTypeLength) +
           static_cast<size_t>(header->datalength);
}

static void writeHeader(SocketBuffer* sockBuffer, GatewayRequest* req)
{
    namespace at = tp::writeHeader;

    TRACE(at::entry, sockBuffer, req);
    writeInt(sockBuffer, req->eyecatcher);
    writeInt(sockBuffer, req->flowVersion);
    writeInt(sockBuffer, req->flowType);
    writeInt(sockBuffer, req->messageId);
    writeInt(sockBuffer, req->gatewayRc);
    writeInt(sockBuffer, req->requestTypeLength);
    writeBytes(sockBuffer, req->requestType, static_cast<size_t>(req->requestTypeLength));
    writeByte(sockBuffer, req->security);
    writeInt(sockBuffer, req->datalength);
    TRACE(at::exit);
}

static int readHeaderFields(SocketBuffer* sockBuffer, GatewayRequest* req)
{
    namespace at = tp::clapiReadHeader;

    int rc = initReadBuffer(sockBuffer, sockBuffer->socketDesc, HEADER_SIZE);
    if (rc == QPX_OK) rc = fillBuffer(sockBuffer);
    if (rc != QPX_OK) return rc;

    *req = GatewayRequest{};
    req->eyecatcher = readInt(sockBuffer);
    if (req->eyecatcher != FLOW_EYECATCHER) {
        TRACE(at::badEyecatcher, FLOW_EYECATCHER, req->eyecatcher);
        return QPX_ERR_SYSTEM_ERROR;
    }
    req->flowVersion = readInt(sockBuffer);
    req->flowType = readInt(sockBuffer);
    req->messageId = readInt(sockBuffer);
    req->gatewayRc = readInt(sockBuffer);
    req->requestTypeLength = readInt(sockBuffer);
    // A name that the record has no room for is as good as a bad eyecatcher.
    if (req->requestTypeLength < 0 || req->requestTypeLength > REQUEST_TYPE_SIZE)
        return QPX_ERR_SYSTEM_ERROR;

    // The first fill took the header for one with a name of three letters.
    size_t nameLength = static_cast<size_t>(req->requestTypeLength);
    if (nameLength > sizeof ECI_REQUEST_NAME)
        sockBuffer->totalCount += nameLength - sizeof ECI_REQUEST_NAME;
    readBytes(sockBuffer, req->requestType, nameLength);
    req->security = readByte(sockBuffer);
    req->datalength = readInt(sockBuffer);
    return sockBuffer->socketErr != 0 ? QPX_ERR_LOSTGWCON : QPX_OK;
}

int clapiReadHeader(SocketBuffer* sockBuffer, GatewayRequest* req)
{
    namespace at = tp::clapiReadHeader;

    TRACE(at::entry, sockBuffer, req);
    int rc = readHeaderFields(sockBuffer, req);
    TRACE(at::exit, rc);
    return rc;
}

/* ---- Handshake and close ---- */

/* Room for 8 characters of at most 2 bytes each and a terminator. */
constexpr size_t UTF8_APPLID_SIZE = 2 * APPLID_SIZE + 1;

/* The constant part of a handshake: two texts with their lengths, "en" and "GB", and zeros. */
static const char handshakeDataFixed[18] = {0x00, 0x02, 0x65, 0x6E, 0x00, 0x02, 0x47, 0x42};

/*
 * Converts an applid from ISO 8859-1 to UTF-8. The terminator is not written: out is zero-filled
 * and has room for twice the longest applid and one byte.
 */
static void makeUtf8(const char* in, char* out)
{
    for (size_t i = 0; i < APPLID_SIZE && in[i] != '\0'; ++i) {
        unsigned char character = static_cast<unsigned char>(in[i]);
        if (character < 0x80) {
            *out++ = in[i];
            continue;
        }
        *out++ = static_cast<char>(character < 0xC0 ? 0xC2 : 0xC3);
        *out++ = static_cast<char>(0x80 | (character & 0x3F));
    }
}

static int sendHandshake(Socket socketDesc, const char* applid, const char* applidQualifier)
{
    char utf8Applid[UTF8_APPLID_SIZE] = {};
    char utf8Qualifier[UTF8_APPLID_SIZE] = {};
    makeUtf8(applid, utf8Applid);
    makeUtf8(applidQualifier, utf8Qualifier);
    size_t applidLen = strlen(utf8Applid);
    size_t applidQualifierLen = strlen(utf8Qualifier);

    GatewayRequest header;
    buildHeader(&header, FLOW_HANDSHAKE, MESSAGE_ID_CONNECTION, HANDSHAKE_REQUEST_NAME,
                sizeof HANDSHAKE_REQUEST_NAME);
    header.datalength = static_cast<int>(sizeof handshakeDataFixed + sizeof(short) + applidLen +
                                         sizeof(short) + applidQualifierLen);

    SocketBuffer sockBuffer = {};
    int rc = initWriteBuffer(&sockBuffer, socketDesc, messageSize(&header));
    if (rc != QPX_OK) return rc;

    writeHeader(&sockBuffer, &header);
    writeBytes(&sockBuffer, handshakeDataFixed, sizeof handshakeDataFixed);
    writeShort(&sockBuffer, static_cast<short>(applidLen));
    writeBytes(&sockBuffer, utf8Applid, applidLen);
    writeShort(&sockBuffer, static_cast<short>(applidQualifierLen));
    writeBytes(&sockBuffer, utf8Qualifier, applidQualifierLen);

    rc = flushBuffer(&sockBuffer);
    return firstFailure(rc, freeBuffer(&sockBuffer));
}

int clapiFlowHandshakeRequest(Socket socketDesc, char* applid, char* applidQualifier)
{
    namespace at = tp::clapiFlowHandshakeRequest;

    TRACE(at::entry, traceSocket(socketDesc), applid, applidQualifier);
    int rc = sendHandshake(socketDesc, applid, applidQualifier);
    TRACE(at::exit, rc);
    return rc;
}

static int sendClose(Socket socketDesc)
{
    GatewayRequest header;
    // Deliberate: the close flow carries the handshake's name.
    buildHeader(&header, FLOW_CLOSE, MESSAGE_ID_CLOSE, HANDSHAKE_REQUEST_NAME,
                sizeof HANDSHAKE_REQUEST_NAME);

    SocketBuffer sockBuffer = {};
    int rc = initWriteBuffer(&sockBuffer, socketDesc, messageSize(&header));
    if (rc != QPX_OK) return rc;

    writeHeader(&sockBuffer, &header);

    rc = flushBuffer(&sockBuffer);
    return firstFailure(rc, freeBuffer(&sockBuffer));
}

int clapiFlowCloseRequest(Socket socketDesc)
{
    namespace at = tp::clapiFlowCloseRequest;

    TRACE(at::entry, traceSocket(socketDesc));
    int rc = sendClose(socketDesc);
    TRACE(at::exit, rc);
    return rc;
}

/* ---- ECI requests ---- */

/* Bytes of a request's body: what every call carries, what a transaction branch adds to it, and
 * what a program call carries besides its data. */
constexpr int ECI_COMMON_SIZE = 15;
constexpr int ECI_COMMON_SIZE_WITH_XID = 23;
constexpr int ECI_PROGRAM_SIZE = 68;
constexpr int INT_SIZE = 4;

constexpr size_t WIRE_USERID_SIZE = 16;

static bool isProgramCall(const ECIRequest* request)
{
    return request->callType == WIRE_CALL_PROGRAM || request->callType == WIRE_CALL_TPN;
}

/* A call that ends a unit of work carries no data in either direction. */
static bool carriesData(const ECIRequest* request)
{
    return request->extendedMode != ECI_COMMIT && request->extendedMode != ECI_BACKOUT;
}

static int textLength(const char* text)
{
    return text != nullptr ? static_cast<int>(strlen(text)) : 0;
}

/* How many bytes of the COMMAREA travel to the server. */
static int outboundLength(const ECIRequest* request)
{
    return request->commareaOutboundLength > 0 ? request->commareaOutboundLength
                                               : request->commarealength;
}

static int programCallSize(const ECIRequest* request)
{
    int size = ECI_PROGRAM_SIZE + textLength(request->password) + request->pyxaLen;
    if (request->commareaInboundLength > 0) size += INT_SIZE;
    if (request->commareaOutboundLength > 0) size += INT_SIZE;
    if (carriesData(request)) size += outboundLength(request);
    return size;
}

static int calculateECIRequestSize(ECIRequest* request)
{
    namespace at = tp::calculateECIRequestSize;

    TRACE(at::entry, request);
    int requestSize = ECI_COMMON_SIZE;
    if (request->xid.format != NO_XID)
        requestSize = ECI_COMMON_SIZE_WITH_XID + request->xid.globalIdLen +
                      request->xid.branchQualifierLen;
    if (request->callType == WIRE_CALL_LIST_SYSTEMS) requestSize += INT_SIZE;
    if (isProgramCall(request)) requestSize += programCallSize(request);
    TRACE(at::exit, requestSize);
    return requestSize;
}

static void writePassword(SocketBuffer* sockBuffer, const char* password)
{
    int length = textLength(password);
    writeInt(sockBuffer, length);
    if (length > 0) writeBytesMasked(sockBuffer, password, static_cast<size_t>(length));
}

/* A length that is given only when it is positive, behind its flag. */
static void writeOptionalLength(SocketBuffer* sockBuffer, int length)
{
    if (length < 1) {
        writeByte(sockBuffer, NO_FIELD);
        return;
    }
    writeByte(sockBuffer, FIELD_FOLLOWS);
    writeInt(sockBuffer, length);
}

static void writeCommarea(SocketBuffer* sockBuffer, const ECIRequest* request)
{
    namespace at = tp::clapiFlowECIRequest;

    const char* commarea = request->commarea;
    int length = outboundLength(request);
    size_t size = length > 0 ? static_cast<size_t>(length) : 0;
    if (request->commareaOutboundLength > 0)
        TRACE_DATA(at::outbound, dumpOf(commarea, size), commarea, length, STOPWORD);
    else
        TRACE_DATA(at::commarea, dumpOf(commarea, size), commarea, length, STOPWORD);
    writeBytes(sockBuffer, commarea, size);
}

static void writeProgramCall(SocketBuffer* sockBuffer, const ECIRequest* request)
{
    writeInt(sockBuffer, request->extendedMode);
    writeInt(sockBuffer, request->luwToken);
    writeInt(sockBuffer, request->messageQualifier);
    writeByte(sockBuffer, request->callbackExists);
    writeInt(sockBuffer, sizeof request->server);
    writeBytes(sockBuffer, request->server, sizeof request->server);
    writePaddedBytes(sockBuffer, request->userID, static_cast<size_t>(textLength(request->userID)),
                     WIRE_USERID_SIZE);
    writePassword(sockBuffer, request->password);
    writeBytes(sockBuffer, request->program, sizeof request->program);
    writeBytes(sockBuffer, request->transid, sizeof request->transid);
    writeInt(sockBuffer, request->pyxaLen);
    writeBytes(sockBuffer, request->pyxaToken, static_cast<size_t>(request->pyxaLen));
    writeInt(sockBuffer, request->commarealength);
    writeOptionalLength(sockBuffer, request->commareaOutboundLength);
    writeOptionalLength(sockBuffer, request->commareaInboundLength);
    if (carriesData(request)) writeCommarea(sockBuffer, request);
    writeByte(sockBuffer, NO_FIELD); // no channel
}

static void writeXid(SocketBuffer* sockBuffer, const XID* xid)
{
    writeInt(sockBuffer, xid->format);
    if (xid->format == NO_XID) return;
    writeInt(sockBuffer, xid->globalIdLen);
    writeBytes(sockBuffer, xid->globalId, static_cast<size_t>(xid->globalIdLen));
    writeInt(sockBuffer, xid->branchQualifierLen);
    writeBytes(sockBuffer, xid->branchQualifier, static_cast<size_t>(xid->branchQualifierLen));
}

static void writeECIBody(SocketBuffer* sockBuffer, const ECIRequest* request)
{
    writeInt(sockBuffer, request->callType);
    if (request->callType == WIRE_CALL_LIST_SYSTEMS) writeInt(sockBuffer, request->server_num);
    if (isProgramCall(request)) writeProgramCall(sockBuffer, request);
    writeShort(sockBuffer, request->eciTimeout);
    writeByte(sockBuffer, request->isAutomsgqual);
    writeXid(sockBuffer, &request->xid);
    writeInt(sockBuffer, request->qpxCorrelator);
}

static int sendECIRequest(Socket socketDesc, GatewayRequest* header, ECIRequest* request)
{
    header->datalength = calculateECIRequestSize(request);

    SocketBuffer sockBuffer = {};
    int rc = initWriteBuffer(&sockBuffer, socketDesc, messageSize(header));
    if (rc != QPX_OK) return rc;

    writeHeader(&sockBuffer, header);
    writeECIBody(&sockBuffer, request);

    rc = flushBuffer(&sockBuffer);
    return firstFailure(rc, freeBuffer(&sockBuffer));
}

int clapiFlowECIRequest(Socket socketDesc, GatewayRequest* header, ECIRequest* request)
{
    namespace at = tp::clapiFlowECIRequest;

    TRACE(at::entry, traceSocket(socketDesc), header, request);
    int rc = sendECIRequest(socketDesc, header, request);
    TRACE(at::exit, rc);
    return rc;
}

/* ---- ECI replies ---- */

/* A length of a reply; a negative one counts as none. */
static size_t replyLength(int length)
{
    return length > 0 ? static_cast<size_t>(length) : 0;
}

/* How many bytes a reply may store at the request's COMMAREA. */
static size_t commareaRoom(const ECIRequest* request)
{
    if (request->commarea == nullptr) return 0;
    return request->limited != 0 ? request->capacity : std::numeric_limits<size_t>::max();
}

/* Reads length bytes into the COMMAREA as far as it has room, and drops the rest. Returns how
 * many bytes were stored. */
static size_t readIntoCommarea(SocketBuffer* sockBuffer, ECIRequest* request, size_t length)
{
    size_t stored = std::min(length, commareaRoom(request));
    readBytes(sockBuffer, request->commarea, stored);
    skipBytes(sockBuffer, length - stored);
    return stored;
}

static void readSystemList(SocketBuffer* sockBuffer, ECIRequest* request)
{
    request->server_num = readInt(sockBuffer);
    request->vornRc = readInt(sockBuffer);
    request->commarealength = readInt(sockBuffer);
    readIntoCommarea(sockBuffer, request, replyLength(request->commarealength));
}

static int readInboundLength(SocketBuffer* sockBuffer, const ECIRequest* request)
{
    if (readByte(sockBuffer) == NO_FIELD) return request->commarealength;
    readByte(sockBuffer); // consumed, its value is of no use
    return readInt(sockBuffer);
}

/* Reads the returned COMMAREA and zeroes what the server did not fill. */
static void readCommarea(SocketBuffer* sockBuffer, ECIRequest* request)
{
    size_t stored = readIntoCommarea(sockBuffer, request,
                                     replyLength(request->commareaInboundLength));
    size_t filled = std::min(replyLength(request->commarealength), commareaRoom(request));
    if (stored < filled) memset(request->commarea + stored, 0, filled - stored);
}

static void readProgramReply(SocketBuffer* sockBuffer, ECIRequest* request)
{
    request->luwToken = readInt(sockBuffer);
    request->messageQualifier = readInt(sockBuffer);
    request->vornRc = readInt(sockBuffer);
    readBytes(sockBuffer, request->abendCode, sizeof request->abendCode);
    request->commarealength = readInt(sockBuffer);
    request->commareaInboundLength = readInboundLength(sockBuffer, request);
    if (carriesData(request)) readCommarea(sockBuffer, request);
    // A channel for a request that has none ends the body and is dropped.
    if (readByte(sockBuffer) != NO_FIELD) skipBytes(sockBuffer, bytesLeft(sockBuffer));
}

int clapiReadECIResponse(SocketBuffer* sockBuffer, ECIRequest* request)
{
    namespace at = tp::clapiReadECIResponse;

    TRACE(at::entry, sockBuffer, request);
    int rc = QPX_OK;
    request->callType = readInt(sockBuffer);
    if (request->callType == WIRE_CALL_LIST_SYSTEMS)
        readSystemList(sockBuffer, request);
    else if (isProgramCall(request))
        readProgramReply(sockBuffer, request);
    TRACE(at::exit, rc);
    return rc;
}

/* A big-endian integer at an offset of the unread bytes. */
static int peekInt(const SocketBuffer* sockBuffer, size_t offset)
{
    uint32_t wireValue;
    memcpy(&wireValue, sockBuffer->ptr + offset, sizeof wireValue);
    return static_cast<int>(ntohl(wireValue));
}

int clapiPeekInboundLength(const SocketBuffer* sockBuffer)
{
    // Where a program call's reply has its lengths: behind five fields of 4 bytes the size of
    // the COMMAREA, then a flag, and if that is set one more byte and the inbound length.
    constexpr size_t COMMAREA_LENGTH_AT = 20;
    constexpr size_t FLAG_AT = 24;
    constexpr size_t INBOUND_LENGTH_AT = 26;

    if (sockBuffer->count <= FLAG_AT) return 0;
    int callType = peekInt(sockBuffer, 0);
    if (callType != WIRE_CALL_PROGRAM && callType != WIRE_CALL_TPN) return 0;
    if (sockBuffer->ptr[FLAG_AT] == NO_FIELD) return peekInt(sockBuffer, COMMAREA_LENGTH_AT);
    if (sockBuffer->count < INBOUND_LENGTH_AT + sizeof(uint32_t)) return 0;
    return peekInt(sockBuffer, INBOUND_LENGTH_AT);
}

/* ---- ESI replies ---- */

static void readTime(SocketBuffer* sockBuffer, ESI_DATETIME* time)
{
    time->year = readInt(sockBuffer);
    time->month = readInt(sockBuffer);
    time->day = readInt(sockBuffer);
    time->hour = readInt(sockBuffer);
    time->minute = readInt(sockBuffer);
    time->second = readInt(sockBuffer);
    time->hundredths = readInt(sockBuffer);
}

void clapiReadESIResponse(SocketBuffer* sockBuffer, ESIRequest* request)
{
    namespace at = tp::clapiReadESIResponse;

    TRACE(at::entry, sockBuffer, request);
    request->vornRc = readInt(sockBuffer);
    if (request->vornRc == 0) {
        // The order of the wire, not that of the record.
        readTime(sockBuffer, &request->details.lastVerifiedTime);
        readTime(sockBuffer, &request->details.expiryTime);
        readTime(sockBuffer, &request->details.lastAccessedTime);
        request->details.invalidCount = readInt(sockBuffer);
    }
    TRACE(at::exit);
}
