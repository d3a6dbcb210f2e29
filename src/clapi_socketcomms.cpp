/*
 * The flows between library and Gateway, byte by byte: one line of code for each field, in the
 * order of the wire. How bytes reach the socket is clapi_socketbuffer's business, whom a reply
 * is for is clapi_gwycon's.
 *
 * Locks: none taken; the writers' callers hold the connection's sendLock.
 */
#include "clapi_socketcomms.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <algorithm>
#include <limits>

#include "clapi_channel.h"
#include "clapi_diag.h"
#include "clapi_rc.h"
#include "clapi_socketbuffer.h"
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

static int sendHandshakeFlow(Socket socketDesc, const char* applid, const char* applidQualifier)
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
    int rc = sendHandshakeFlow(socketDesc, applid, applidQualifier);
    TRACE(at::exit, rc);
    return rc;
}

static int sendClose(Socket socketDesc)
{
    GatewayRequest header;
    // Deliberate: the close flow carries the handshake's name: it is about the connection, as that
    // is, and there is no other name for such a flow.
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

/* ---- Channels ---- */

/* Bytes of a channel section's head, and of a container record without its data. */
constexpr int64_t CHANNEL_HEAD_SIZE = 24;
constexpr int64_t CONTAINER_HEAD_SIZE = 28;

/* What a container record says of its container. */
constexpr char CONTAINER_ADDED = 1;
constexpr char CONTAINER_DELETED = 2;
constexpr char CONTAINER_MODIFIED = 3;
constexpr char CONTAINER_UNCHANGED = 4;

static const char* containerTypeName(int type)
{
    switch (type) {
    case ECI_BIT: return "ECI_BIT";
    case ECI_CHAR: return "ECI_CHAR";
    default: return UNKNOWN_RC_STR;
    }
}

static int64_t channelSize(const ECI_Channel_t* channel)
{
    int64_t size = CHANNEL_HEAD_SIZE;
    for (const ECI_Container_t* container = channel->firstCont; container != nullptr;
         container = container->nextCont)
        size += CONTAINER_HEAD_SIZE + static_cast<int64_t>(container->dataLength);
    return size;
}

static void writeContainer(SocketBuffer* sockBuffer, const ECI_Container_t* container)
{
    namespace at = tp::writeChannel;

    TRACE(at::container, container->name, containerTypeName(container->type), container->ccsid,
          traceSize(container->dataLength));
    TRACE_DATA(at::data, dumpOf(container->dataPtr, container->dataLength), container->dataPtr,
               traceSize(container->dataLength), STOPWORD);
    writeBytes(sockBuffer, container->name, sizeof container->name);
    writeByte(sockBuffer, CONTAINER_ADDED);
    writeShort(sockBuffer, 0);
    writeByte(sockBuffer, static_cast<char>(container->type));
    writeInt(sockBuffer, container->ccsid);
    writeInt(sockBuffer, static_cast<int>(container->dataLength));
    writeBytes(sockBuffer, container->dataPtr, container->dataLength);
}

static void writeChannel(SocketBuffer* sockBuffer, ECI_Channel_t* channel)
{
    namespace at = tp::writeChannel;

    TRACE(at::entry, sockBuffer, channel);
    TRACE(at::channel, channel->name, channel->ccsid.load(), channel->numContainers.load());
    writeBytes(sockBuffer, channel->name, sizeof channel->name);
    writeInt(sockBuffer, channel->ccsid);
    writeInt(sockBuffer, channel->numContainers);
    for (const ECI_Container_t* container = channel->firstCont; container != nullptr;
         container = container->nextCont)
        writeContainer(sockBuffer, container);
    TRACE(at::exit);
}

/* Reads the record's data into storage of its own, which grows with what arrives. Nothing is stored
 * for a length of 0, nor of data that has not come whole: the caller's null pointer stays. */
template <const TracePoint& noMemory>
static int readData(SocketBuffer* sockBuffer, size_t length, char** dataPtr)
{
    if (length == 0) return QPX_OK;
    ArrivingBytes bytes = {};
    int rc = readArrivingBytes(sockBuffer, &bytes, length);
    if (rc != QPX_OK) TRACE(noMemory, traceSize(length));
    if (bytes.length == length)
        *dataPtr = bytes.data;
    else
        clapiFreeArrived(&bytes);
    return rc;
}

static int linkAddedContainer(ECI_Channel_t* channel, const ECI_Container_t* tempCont)
{
    namespace at = tp::addContainer;

    ECI_Container_t* container = static_cast<ECI_Container_t*>(malloc(sizeof *container));
    if (container == nullptr) {
        TRACE(at::noMemory, traceSize(sizeof *container));
        clapiFreeData(tempCont->dataPtr, tempCont->dataLength);
        return QPX_ERR_MALLOCFAIL;
    }
    *container = *tempCont;
    clapiLinkContainer(channel, container);
    return QPX_OK;
}

static int readAndLinkContainer(SocketBuffer* sockBuffer, ECI_Channel_t* channel,
                                ECI_Container_t* tempCont)
{
    namespace at = tp::addContainer;

    int rc = readData<at::noDataMemory>(sockBuffer, tempCont->dataLength, &tempCont->dataPtr);
    if (rc != QPX_OK || sockBuffer->socketErr != 0) return rc;
    rc = linkAddedContainer(channel, tempCont);
    if (rc != QPX_OK) return rc;
    TRACE_DATA(at::data, dumpOf(tempCont->dataPtr, tempCont->dataLength), tempCont->dataPtr,
               traceSize(tempCont->dataLength), STOPWORD);
    return QPX_OK;
}

/* Deliberate: a name that the channel has already is added again. The server says what it has done,
 * and has another word for a change; which of the two is meant is not for the reader to guess. */
static int addContainer(SocketBuffer* sockBuffer, ECI_Channel_t* channel, ECI_Container_t* tempCont)
{
    namespace at = tp::addContainer;

    TRACE(at::entry, sockBuffer, channel, tempCont);
    int rc = readAndLinkContainer(sockBuffer, channel, tempCont);
    TRACE(at::exit, rc);
    return rc;
}

static int unlinkAndFreeContainer(ECI_Channel_t* channel, const char* name)
{
    namespace at = tp::deleteContainer;

    ECI_Container_t* container = clapiFindContainer(channel, name);
    if (container == nullptr) {
        TRACE(at::notFound, name, channel->name);
        return QPX_ERR_SYSTEM_ERROR;
    }
    const ECI_Container_t* previous = container->previousCont;
    bool wasCurrent = clapiUnlinkContainer(channel, container);
    if (wasCurrent && previous != nullptr)
        TRACE(at::current, previous->name);
    else if (wasCurrent)
        TRACE(at::noCurrent);
    clapiFreeData(container->dataPtr, container->dataLength);
    clapiFreeContainer(container);
    return QPX_OK;
}

static int deleteContainer(ECI_Channel_t* channel, const char* name)
{
    namespace at = tp::deleteContainer;

    TRACE(at::entry, channel, name);
    int rc = unlinkAndFreeContainer(channel, name);
    TRACE(at::exit, rc);
    return rc;
}

/* Overwrites and frees the data of a container, which is empty then. */
static void dropData(ECI_Container_t* container)
{
    size_t length = container->dataLength;
    clapiFreeData(clapiExchangeData(container, nullptr, 0), length);
}

/* Other storage for data of another length; until it is there, the container is empty. */
static int readDataOfOtherLength(SocketBuffer* sockBuffer, ECI_Container_t* container,
                                 size_t length)
{
    namespace at = tp::modifyContainer;

    if (container->dataPtr != nullptr) {
        TRACE(at::freeing, traceSize(container->dataLength), container->dataPtr);
        dropData(container);
    }
    char* data = nullptr;
    int rc = readData<at::noMemory>(sockBuffer, length, &data);
    if (data != nullptr) clapiExchangeData(container, data, length);
    return rc;
}

/* Reads over the data that is there, if any; if it does not come whole, neither the old nor the new
 * stays. */
static void readDataInPlace(SocketBuffer* sockBuffer, ECI_Container_t* container)
{
    if (container->dataLength == 0) return;
    readBytes(sockBuffer, container->dataPtr, container->dataLength);
    if (sockBuffer->socketErr != 0) dropData(container);
}

static int readModifiedData(SocketBuffer* sockBuffer, ECI_Channel_t* channel,
                            ECI_Container_t* tempCont)
{
    namespace at = tp::modifyContainer;

    ECI_Container_t* container = clapiFindContainer(channel, tempCont->name);
    if (container == nullptr) {
        TRACE(at::notFound, tempCont->name, channel->name);
        return QPX_ERR_SYSTEM_ERROR;
    }
    int rc = QPX_OK;
    if (tempCont->dataLength != container->dataLength)
        rc = readDataOfOtherLength(sockBuffer, container, tempCont->dataLength);
    else
        readDataInPlace(sockBuffer, container);
    if (rc != QPX_OK || sockBuffer->socketErr != 0) return rc;

    tempCont->dataPtr = container->dataPtr;
    clapiReplaceContainer(container, tempCont);
    TRACE_DATA(at::data, dumpOf(container->dataPtr, container->dataLength), container->dataPtr,
               traceSize(container->dataLength), STOPWORD);
    return QPX_OK;
}

static int modifyContainer(SocketBuffer* sockBuffer, ECI_Channel_t* channel,
                           ECI_Container_t* tempCont)
{
    namespace at = tp::modifyContainer;

    TRACE(at::entry, sockBuffer, channel, tempCont);
    int rc = readModifiedData(sockBuffer, channel, tempCont);
    TRACE(at::exit, rc);
    return rc;
}

/* Data that the message cannot hold breaks it. */
static int checkDataFits(SocketBuffer* sockBuffer, const ECI_Container_t* tempCont)
{
    if (tempCont->dataLength <= bytesLeft(sockBuffer)) return QPX_OK;
    sockBuffer->socketErr = EBADMSG;
    return QPX_ERR_SYSTEM_ERROR;
}

static int applyAddition(SocketBuffer* sockBuffer, ECI_Channel_t* channel,
                         ECI_Container_t* tempCont)
{
    namespace at = tp::readChannel;

    TRACE(at::added, tempCont->name, containerTypeName(tempCont->type), tempCont->ccsid,
          traceSize(tempCont->dataLength));
    int rc = checkDataFits(sockBuffer, tempCont);
    return rc == QPX_OK ? addContainer(sockBuffer, channel, tempCont) : rc;
}

static int applyModification(SocketBuffer* sockBuffer, ECI_Channel_t* channel,
                             ECI_Container_t* tempCont)
{
    namespace at = tp::readChannel;

    TRACE(at::modified, tempCont->name, traceSize(tempCont->dataLength));
    int rc = checkDataFits(sockBuffer, tempCont);
    return rc == QPX_OK ? modifyContainer(sockBuffer, channel, tempCont) : rc;
}

static int applyChange(SocketBuffer* sockBuffer, ECI_Channel_t* channel, char changeCode,
                       ECI_Container_t* tempCont)
{
    namespace at = tp::readChannel;

    switch (changeCode) {
    case CONTAINER_ADDED: return applyAddition(sockBuffer, channel, tempCont);
    case CONTAINER_MODIFIED: return applyModification(sockBuffer, channel, tempCont);
    case CONTAINER_DELETED:
        TRACE(at::deleted, tempCont->name);
        return deleteContainer(channel, tempCont->name);
    case CONTAINER_UNCHANGED: TRACE(at::unchanged, tempCont->name); return QPX_OK;
    default: return QPX_OK;
    }
}

static int readChange(SocketBuffer* sockBuffer, ECI_Channel_t* channel)
{
    ECI_Container_t tempCont = {};
    clapiInitializeContainer(&tempCont);
    readBytes(sockBuffer, tempCont.name, sizeof tempCont.name);
    char changeCode = readByte(sockBuffer);
    readShort(sockBuffer); // of no use
    tempCont.type = static_cast<unsigned char>(readByte(sockBuffer));
    tempCont.ccsid = readInt(sockBuffer);
    tempCont.dataLength = static_cast<unsigned int>(readInt(sockBuffer));
    // Nothing is done for a record that has not come whole.
    if (sockBuffer->socketErr != 0) return QPX_OK;
    return applyChange(sockBuffer, channel, changeCode, &tempCont);
}

static int readChanges(SocketBuffer* sockBuffer, ECI_Channel_t* channel)
{
    namespace at = tp::readChannel;

    char name[CHANNEL_NAME_SIZE] = {};
    readBytes(sockBuffer, name, sizeof name);
    int ccsid = readInt(sockBuffer);
    int records = readInt(sockBuffer);
    if (sockBuffer->socketErr != 0) return QPX_OK;

    clapiRenameChannel(channel, name);
    channel->ccsid = ccsid;
    TRACE(at::records, records, channel->name);
    int rc = QPX_OK;
    for (int i = 0; i < records && rc == QPX_OK && sockBuffer->socketErr == 0; ++i)
        rc = readChange(sockBuffer, channel);
    return rc;
}

static int readChannel(SocketBuffer* sockBuffer, ECI_Channel_t* channel)
{
    namespace at = tp::readChannel;

    TRACE(at::entry, sockBuffer, channel);
    int rc = readChanges(sockBuffer, channel);
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

static int64_t programCallSize(const ECIRequest* request)
{
    int64_t size = ECI_PROGRAM_SIZE + textLength(request->password) + request->pyxaLen;
    if (request->commareaInboundLength > 0) size += INT_SIZE;
    if (request->commareaOutboundLength > 0) size += INT_SIZE;
    if (clapiCarriesData(request->extendedMode)) size += outboundLength(request);
    if (request->channel != nullptr) size += channelSize(request->channel);
    return size;
}

/* The length of a request's body, or -1 for more than a message can have. */
static int calculateECIRequestSize(ECIRequest* request)
{
    namespace at = tp::calculateECIRequestSize;

    TRACE(at::entry, request);
    int64_t size = ECI_COMMON_SIZE;
    if (request->xid.format != NO_XID)
        size = ECI_COMMON_SIZE_WITH_XID + request->xid.globalIdLen +
               request->xid.branchQualifierLen;
    if (request->callType == WIRE_CALL_LIST_SYSTEMS) size += INT_SIZE;
    if (isProgramCall(request)) size += programCallSize(request);
    int requestSize = size <= std::numeric_limits<int>::max() ? static_cast<int>(size) : -1;
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
    if (clapiCarriesData(request->extendedMode)) writeCommarea(sockBuffer, request);
    writeByte(sockBuffer, request->channel != nullptr ? FIELD_FOLLOWS : NO_FIELD);
    if (request->channel != nullptr) writeChannel(sockBuffer, request->channel);
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

/* Notes whether a part of the flow has left, and the rest has not. */
static void noteBreak(GatewayRequest* header, const SocketBuffer& sockBuffer)
{
    header->brokenOff = sockBuffer.socketErr != 0 && sockBuffer.sentCount != 0 ? 1 : 0;
}

static int sendECIRequest(Socket socketDesc, GatewayRequest* header, ECIRequest* request)
{
    header->datalength = calculateECIRequestSize(request);
    if (header->datalength < 0) return QPX_ERR_MALLOCFAIL;

    SocketBuffer sockBuffer = {};
    int rc = initWriteBuffer(&sockBuffer, socketDesc, messageSize(header));
    if (rc != QPX_OK) return rc;

    writeHeader(&sockBuffer, header);
    writeECIBody(&sockBuffer, request);
    bool dataIsRead = sockBuffer.socketErr == 0;
    if (dataIsRead && request->beingSent != nullptr) *request->beingSent = 0;

    rc = flushBuffer(&sockBuffer);
    noteBreak(header, sockBuffer);
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
    request->commareaChanged = stored;
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

/* Bytes that are looked at and stay where they are. Behind their end every field is 0. */
struct UnreadBytes {
    const char* next;
    size_t count;
    bool ranOut;
};

static void readBytes(UnreadBytes* unread, char* data, size_t length)
{
    memset(data, 0, length);
    if (unread->count < length) unread->ranOut = true;
    if (unread->ranOut) return;
    memcpy(data, unread->next, length);
    unread->next += length;
    unread->count -= length;
}

static char readByte(UnreadBytes* unread)
{
    char byte;
    readBytes(unread, &byte, sizeof byte);
    return byte;
}

static int readInt(UnreadBytes* unread)
{
    char bytes[sizeof(uint32_t)];
    uint32_t wireValue;
    readBytes(unread, bytes, sizeof bytes);
    memcpy(&wireValue, bytes, sizeof wireValue);
    return static_cast<int>(ntohl(wireValue));
}

template <typename Source>
static int readInboundLength(Source* source, const ECIRequest* request)
{
    if (readByte(source) == NO_FIELD) return request->commarealength;
    readByte(source); // consumed, its value is of no use
    return readInt(source);
}

/* The fields of a program call's reply behind the call type, as far as its COMMAREA. They come
 * from a buffer, or from the bytes in it that are not read yet. */
template <typename Source>
static void readReplyFields(Source* source, ECIRequest* request)
{
    request->luwToken = readInt(source);
    request->messageQualifier = readInt(source);
    request->vornRc = readInt(source);
    readBytes(source, request->abendCode, sizeof request->abendCode);
    request->commarealength = readInt(source);
    request->commareaInboundLength = readInboundLength(source, request);
}

/* Reads the returned COMMAREA and zeroes what the server did not fill. */
static void readCommarea(SocketBuffer* sockBuffer, ECIRequest* request)
{
    size_t stored = readIntoCommarea(sockBuffer, request,
                                     replyLength(request->commareaInboundLength));
    size_t filled = std::min(replyLength(request->commarealength), commareaRoom(request));
    if (stored >= filled) return;
    memset(request->commarea + stored, 0, filled - stored);
    request->commareaChanged = filled;
}

/* A channel section ends the body. One for a request that holds no channel is dropped. */
static int readChannelSection(SocketBuffer* sockBuffer, ECIRequest* request)
{
    if (readByte(sockBuffer) == NO_FIELD) return QPX_OK;
    if (request->channel != nullptr) return readChannel(sockBuffer, request->channel);
    if (request->section != nullptr) {
        if (bytesLeft(sockBuffer) == 0) sockBuffer->socketErr = EBADMSG;
        return readRest(sockBuffer, request->section);
    }
    skipBytes(sockBuffer, bytesLeft(sockBuffer));
    return QPX_OK;
}

static int readProgramReply(SocketBuffer* sockBuffer, ECIRequest* request)
{
    readReplyFields(sockBuffer, request);
    if (clapiCarriesData(request->extendedMode)) readCommarea(sockBuffer, request);
    return readChannelSection(sockBuffer, request);
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
        rc = readProgramReply(sockBuffer, request);
    TRACE(at::exit, rc);
    return rc;
}

int clapiApplyChannelSection(const ArrivingBytes* section, ECI_Channel_t* channel, bool* broken)
{
    SocketBuffer sockBuffer = {};
    sockBuffer.socketDesc = NO_SOCKET;
    sockBuffer.buffer = section->data;
    sockBuffer.bufferSize = section->length;
    sockBuffer.ptr = section->data;
    sockBuffer.count = section->length;
    sockBuffer.pages = section->data;
    int rc = readChannel(&sockBuffer, channel);
    *broken = sockBuffer.socketErr != 0;
    return rc;
}

int clapiPeekInboundLength(const SocketBuffer* sockBuffer)
{
    UnreadBytes unread = {sockBuffer->ptr, sockBuffer->count, false};
    ECIRequest reply = {};
    reply.callType = readInt(&unread);
    if (!isProgramCall(&reply)) return 0;
    readReplyFields(&unread, &reply);
    return unread.ranOut ? 0 : reply.commareaInboundLength;
}

/* ---- ESI requests ---- */

/* Bytes of a request's body without its passwords. */
constexpr int64_t ESI_FIXED_SIZE = 26;

constexpr size_t WIRE_ESI_USERID_SIZE = 10;

/* The length of a request's body, or -1 for more than a message can have. */
static int calculateESIRequestSize(ESIRequest* request)
{
    namespace at = tp::calculateESIRequestSize;

    TRACE(at::entry, request);
    int64_t length = ESI_FIXED_SIZE + static_cast<int64_t>(strlen(request->currentPassword));
    if (request->callType == WIRE_CALL_CHANGE_PASSWORD)
        length += INT_SIZE + static_cast<int64_t>(strlen(request->newPassword));
    int size = length <= std::numeric_limits<int>::max() ? static_cast<int>(length) : -1;
    TRACE(at::exit, size);
    return size;
}

static void writeESIBody(SocketBuffer* sockBuffer, const ESIRequest* request)
{
    writeInt(sockBuffer, request->callType);
    writePaddedBytes(sockBuffer, request->userID, strlen(request->userID), WIRE_ESI_USERID_SIZE);
    writePassword(sockBuffer, request->currentPassword);
    writeBytes(sockBuffer, request->server, sizeof request->server);
    if (request->callType == WIRE_CALL_CHANGE_PASSWORD)
        writePassword(sockBuffer, request->newPassword);
}

static int sendESIRequest(Socket socketDesc, GatewayRequest* header, ESIRequest* request)
{
    header->datalength = calculateESIRequestSize(request);
    if (header->datalength < 0) return QPX_ERR_MALLOCFAIL;

    SocketBuffer sockBuffer = {};
    int rc = initWriteBuffer(&sockBuffer, socketDesc, messageSize(header));
    if (rc != QPX_OK) return rc;

    writeHeader(&sockBuffer, header);
    writeESIBody(&sockBuffer, request);

    rc = flushBuffer(&sockBuffer);
    noteBreak(header, sockBuffer);
    // Deliberate: unlike other flows, this one frees its buffer without a trace: traces of password
    // calls never had the line.
    wipeBuffer(&sockBuffer);
    return rc;
}

int clapiFlowESIRequest(Socket socketDesc, GatewayRequest* header, ESIRequest* request)
{
    namespace at = tp::clapiFlowESIRequest;

    TRACE(at::entry, traceSocket(socketDesc), header, request);
    int rc = sendESIRequest(socketDesc, header, request);
    TRACE(at::exit, rc);
    return rc;
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
