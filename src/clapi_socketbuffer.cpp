/*
 * The socket buffer: stages the fields of one message on their way to a socket, and takes those
 * of one message from it, through at most SOCKET_BUFFER_CAPACITY bytes of storage. What a
 * message means is clapi_socketcomms' business.
 *
 * Locks: none; a buffer is used by one thread at a time.
 */
#include "clapi_socketbuffer.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "clapi_diag.h"
#include "clapi_rc.h"
#include "descriptor_wait.h"
#include "trace_points/clapi_socketbuffer.h"

static const char EYECATCHER[] = "QPXSCKBF";

/* How much of a secret field's save area is overwritten once the field has been traced. */
constexpr size_t SCRUBBED_BYTES = 4;

/* ---- Setting up and giving back ---- */

/* What may hold a secret is overwritten first. */
static void freeStorage(SocketBuffer* sockBuffer)
{
    if (sockBuffer->buffer == nullptr) return;
    if (sockBuffer->mayHoldSecret != 0) explicit_bzero(sockBuffer->buffer, sockBuffer->bufferSize);
    free(sockBuffer->buffer);
}

enum class Storage { reused, allocated, missing };

/* Makes sure that the record has storage for a message, and leaves it untouched if it cannot. */
static Storage ensureStorage(SocketBuffer* sockBuffer, size_t dataLen)
{
    size_t wanted = std::min(dataLen, SOCKET_BUFFER_CAPACITY);
    if (sockBuffer->bufferSize >= wanted) return Storage::reused;

    char* storage = static_cast<char*>(malloc(wanted));
    if (storage == nullptr) return Storage::missing;
    freeStorage(sockBuffer);
    sockBuffer->buffer = storage;
    sockBuffer->bufferSize = wanted;
    return Storage::allocated;
}

/* Zeroes the record but for its storage, and binds it to a message. */
static void bindToMessage(SocketBuffer* sockBuffer, Socket socketDesc, size_t dataLen)
{
    char* storage = sockBuffer->buffer;
    size_t size = sockBuffer->bufferSize;
    int mayHoldSecret = sockBuffer->mayHoldSecret;
    ReadAhead* ahead = sockBuffer->ahead;
    *sockBuffer = SocketBuffer{};
    sockBuffer->ahead = ahead;
    memcpy(sockBuffer->eyecatcher, EYECATCHER, sizeof sockBuffer->eyecatcher);
    sockBuffer->buffer = storage;
    sockBuffer->bufferSize = size;
    sockBuffer->mayHoldSecret = mayHoldSecret;
    sockBuffer->socketDesc = socketDesc;
    sockBuffer->totalCount = dataLen;
}

/* Gives a record storage and binds it to a message. The parameters are the lines that it writes. */
template <const TracePoint& reused, const TracePoint& allocated, const TracePoint& noMemory>
static int initBuffer(SocketBuffer* sockBuffer, Socket socketDesc, size_t dataLen)
{
    switch (ensureStorage(sockBuffer, dataLen)) {
    case Storage::reused: TRACE(reused, traceSize(sockBuffer->bufferSize)); break;
    case Storage::allocated: TRACE(allocated, traceSize(sockBuffer->bufferSize)); break;
    case Storage::missing:
        TRACE(noMemory, traceSize(std::min(dataLen, SOCKET_BUFFER_CAPACITY)));
        return QPX_ERR_MALLOCFAIL;
    }
    bindToMessage(sockBuffer, socketDesc, dataLen);
    return QPX_OK;
}

int initWriteBuffer(SocketBuffer* sockBuffer, Socket socketDesc, size_t dataLen)
{
    namespace at = tp::initWriteBuffer;

    TRACE(at::entry, sockBuffer, traceSocket(socketDesc), traceSize(dataLen));
    int rc = initBuffer<at::reused, at::allocated, at::noMemory>(sockBuffer, socketDesc, dataLen);
    if (rc == QPX_OK) sockBuffer->ptr = sockBuffer->buffer;
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

int initReadBuffer(SocketBuffer* sockBuffer, Socket socketDesc, size_t dataLen)
{
    namespace at = tp::initReadBuffer;

    TRACE(at::entry, sockBuffer, traceSocket(socketDesc), traceSize(dataLen));
    int rc = initBuffer<at::reused, at::allocated, at::noMemory>(sockBuffer, socketDesc, dataLen);
    sockBuffer->mayHoldSecret = 1; // whatever comes
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

static void freeMaskArea(MaskArea* item)
{
    if (item == nullptr) return;
    freeMaskArea(static_cast<MaskArea*>(item->nextItem));
    explicit_bzero(item, sizeof *item + item->length);
    free(item);
}

/* Frees what the record owns. */
static void releaseStorage(SocketBuffer* sockBuffer)
{
    freeStorage(sockBuffer);
    freeMaskArea(sockBuffer->maskArea);
}

int freeBuffer(SocketBuffer* sockBuffer)
{
    namespace at = tp::freeBuffer;

    TRACE(at::entry, sockBuffer);
    int rc = QPX_OK;
    if (sockBuffer->buffer != nullptr) {
        releaseStorage(sockBuffer);
    } else {
        TRACE(at::notInitialized, sockBuffer);
        rc = QPX_ERR_SYSTEM_ERROR;
    }
    *sockBuffer = SocketBuffer{};
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

void wipeBuffer(SocketBuffer* sockBuffer)
{
    if (sockBuffer->buffer != nullptr) releaseStorage(sockBuffer);
    *sockBuffer = SocketBuffer{};
}

/* ---- The socket ---- */

/* Remembers a failure. An orderly close by the peer has no errno of its own, but must stick. */
static void keepError(SocketBuffer* sockBuffer, int error)
{
    sockBuffer->socketErr = error != 0 ? error : ECONNRESET;
}

/* One send or recv, repeated while a signal interrupts it. */
template <typename Call>
static ssize_t uninterrupted(Call call)
{
    ssize_t result;
    do {
        result = call();
    } while (result == -1 && errno == EINTR);
    return result;
}

/* Keeps the error of a failed send. Once a part of the flow has left, whatever followed it would
 * be taken for its rest: the connection ends. */
static void keepSendError(SocketBuffer* sockBuffer)
{
    keepError(sockBuffer, errno);
    if (sockBuffer->sentCount != 0) shutdown(sockBuffer->socketDesc, SHUT_RDWR);
}

/* Sends all of the data, in as many calls as the socket wants. False: socketErr tells why. */
static bool sendAll(SocketBuffer* sockBuffer, const char* data, size_t dataLen)
{
    clapiCheckPeerWait();
    size_t sent = 0;
    while (sent < dataLen) {
        ssize_t result = uninterrupted([&] {
            return send(sockBuffer->socketDesc, data + sent, dataLen - sent, MSG_NOSIGNAL);
        });
        if (result < 1) {
            keepSendError(sockBuffer);
            return false;
        }
        sent += static_cast<size_t>(result);
        sockBuffer->sentCount += static_cast<size_t>(result);
    }
    return true;
}

static ssize_t receive(Socket socketDesc, char* data, size_t wanted, int flags = 0)
{
    clapiCheckPeerWait();
    return uninterrupted([&] { return recv(socketDesc, data, wanted, flags); });
}

/* Keeps the result of a receive that has brought nothing for whoever takes the next bytes. */
static void keepEnd(ReadAhead* ahead, ssize_t result)
{
    ahead->ended = 1;
    ahead->endErrno = result == 0 ? 0 : errno;
}

/* Waits for what comes next, whatever it is, unless something has come that is not taken yet. */
static void readAhead(ReadAhead* ahead, Socket socketDesc)
{
    if (ahead->count != 0 || ahead->ended != 0) return;
    ssize_t result = receive(socketDesc, ahead->bytes, sizeof ahead->bytes);
    if (result < 1) {
        keepEnd(ahead, result);
        return;
    }
    ahead->next = ahead->bytes;
    ahead->count = static_cast<size_t>(result);
}

/* Takes up to so many of the bytes that have been read ahead. */
static size_t takeAhead(ReadAhead* ahead, char* data, size_t wanted)
{
    size_t taken = std::min(wanted, ahead->count);
    memcpy(data, ahead->next, taken);
    ahead->next += taken;
    ahead->count -= taken;
    return taken;
}

/* Receives what has come already, without waiting: how much. */
static size_t receiveAtOnce(ReadAhead* ahead, Socket socketDesc, char* data, size_t wanted)
{
    ssize_t result = receive(socketDesc, data, wanted, MSG_DONTWAIT);
    if (result > 0) return static_cast<size_t>(result);
    if (result == 0 || errno != EAGAIN) keepEnd(ahead, result);
    return 0;
}

/*
 * As recv of what has come, of which the socket's share may be read ahead already. Much data goes
 * straight where it belongs. Deliberate: where what was read ahead ends within the wanted bytes,
 * what has come behind it comes with it, as with one recv: the trace shows each result.
 */
static ssize_t receiveSome(SocketBuffer* sockBuffer, char* data, size_t wanted)
{
    ReadAhead* ahead = sockBuffer->ahead;
    if (ahead == nullptr) return receive(sockBuffer->socketDesc, data, wanted);
    bool hasMet = ahead->count != 0 || ahead->ended != 0;
    bool isMuch = wanted > READ_AHEAD_CAPACITY / 2;
    if (!hasMet && isMuch) return receive(sockBuffer->socketDesc, data, wanted);

    readAhead(ahead, sockBuffer->socketDesc);
    if (ahead->count == 0) {
        errno = ahead->endErrno;
        return ahead->endErrno == 0 ? 0 : -1;
    }
    size_t taken = takeAhead(ahead, data, wanted);
    if (hasMet && taken < wanted)
        taken += receiveAtOnce(ahead, sockBuffer->socketDesc, data + taken, wanted - taken);
    return static_cast<ssize_t>(taken);
}

/* Waits for something to read: 1, 0 once the time is over, or -1 with errno. */
static int awaitSomething(SocketBuffer* sockBuffer, int timeout)
{
    ReadAhead* ahead = sockBuffer->ahead;
    if (ahead == nullptr || timeout != 0) return waitForReadable(sockBuffer->socketDesc, timeout);

    readAhead(ahead, sockBuffer->socketDesc);
    if (ahead->endErrno != EBADF) return 1;
    errno = EBADF; // what is no socket cannot be waited for
    return -1;
}

static int waitUntilReadable(SocketBuffer* sockBuffer, int timeout)
{
    namespace at = tp::waitForResponse;

    int ready = awaitSomething(sockBuffer, timeout);
    if (ready < 0) {
        int error = errno;
        ErrorText text;
        keepError(sockBuffer, error);
        TRACE(at::failed, traceError(error, text), error);
        return QPX_ERR_LOSTGWCON;
    }
    if (ready == 0) {
        TRACE(at::timedOut);
        return QPX_ERR_CONNECTTIMEOUT;
    }
    return QPX_OK;
}

int waitForResponse(SocketBuffer* sockBuffer, int timeout)
{
    namespace at = tp::waitForResponse;

    TRACE(at::entry, sockBuffer, timeout);
    int rc = waitUntilReadable(sockBuffer, timeout);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- Writing ---- */

static bool hasRoom(const SocketBuffer* sockBuffer, size_t dataLen)
{
    return dataLen <= sockBuffer->bufferSize - sockBuffer->count;
}

static void advanceWrite(SocketBuffer* sockBuffer, size_t dataLen)
{
    sockBuffer->ptr += dataLen;
    sockBuffer->count += dataLen;
}

static void stage(SocketBuffer* sockBuffer, const void* data, size_t dataLen)
{
    memcpy(sockBuffer->ptr, data, dataLen);
    advanceWrite(sockBuffer, dataLen);
}

/* Stages a value, unless an error has occurred or the buffer is smaller than the value. */
static void stageValue(SocketBuffer* sockBuffer, const void* value, size_t width)
{
    if (sockBuffer->socketErr != 0 || !hasRoom(sockBuffer, width)) return;
    stage(sockBuffer, value, width);
}

static void hideSecrets(SocketBuffer* sockBuffer)
{
    for (MaskArea* item = sockBuffer->maskArea; item != nullptr;
         item = static_cast<MaskArea*>(item->nextItem)) {
        memcpy(item->lstore, item->ptr, item->length);
        memset(item->ptr, '*', item->length);
    }
}

/* Deliberate: of the save area only the first bytes are overwritten. What lies there is scrambled,
 * shows in no trace, and is overwritten whole when it is freed. */
static void restoreSecrets(SocketBuffer* sockBuffer)
{
    for (MaskArea* item = sockBuffer->maskArea; item != nullptr;
         item = static_cast<MaskArea*>(item->nextItem)) {
        memcpy(item->ptr, item->lstore, item->length);
        memset(item->lstore, '*', std::min(SCRUBBED_BYTES, item->length));
    }
}

/* Dumps what is staged, secrets as asterisks. A secret that could not be recorded cannot be
 * hidden, and then no byte is shown. */
static void traceStaged(SocketBuffer* sockBuffer)
{
    namespace at = tp::flushBuffer;

    if (!clapiTraces(at::sending)) return;
    size_t shown = sockBuffer->maskLost != 0 ? 0 : sockBuffer->count;
    hideSecrets(sockBuffer);
    TRACE_DATA(at::sending, dumpOf(sockBuffer->buffer, shown), sockBuffer->buffer,
               traceSize(sockBuffer->count), STOPWORD);
    restoreSecrets(sockBuffer);
}

static void forgetStaged(SocketBuffer* sockBuffer)
{
    sockBuffer->totalCount -= std::min(sockBuffer->count, sockBuffer->totalCount);
    sockBuffer->count = 0;
    sockBuffer->ptr = sockBuffer->buffer;
    freeMaskArea(sockBuffer->maskArea);
    sockBuffer->maskArea = nullptr;
    sockBuffer->maskLost = 0;
}

static int sendStaged(SocketBuffer* sockBuffer)
{
    namespace at = tp::flushBuffer;

    if (sockBuffer->socketErr != 0) return QPX_ERR_LOSTGWCON;
    if (sockBuffer->count == 0) return QPX_OK;

    traceStaged(sockBuffer);
    if (!sendAll(sockBuffer, sockBuffer->buffer, sockBuffer->count)) {
        ErrorText text;
        TRACE(at::failed, traceError(sockBuffer->socketErr, text), sockBuffer->socketErr);
        return QPX_ERR_LOSTGWCON;
    }
    int sent = traceInt(sockBuffer->count);
    forgetStaged(sockBuffer);
    TRACE(at::sent, sent, traceSize(sockBuffer->totalCount));
    return QPX_OK;
}

int flushBuffer(SocketBuffer* sockBuffer)
{
    namespace at = tp::flushBuffer;

    TRACE(at::entry, sockBuffer);
    int rc = sendStaged(sockBuffer);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* Sends what is staged, for what comes next does not fit behind it. What is shown of that stands in
 * the line. */
template <const TracePoint& noSpace, typename Shown>
[[gnu::cold, gnu::noinline]] static int makeRoom(SocketBuffer* sockBuffer, Shown shown)
{
    TRACE(noSpace, sockBuffer, shown);
    return flushBuffer(sockBuffer);
}

void writeByte(SocketBuffer* sockBuffer, char value)
{
    namespace at = tp::writeByte;

    if (!hasRoom(sockBuffer, sizeof value)) makeRoom<at::noSpace>(sockBuffer, value);
    stageValue(sockBuffer, &value, sizeof value);
}

void writeShort(SocketBuffer* sockBuffer, short value)
{
    namespace at = tp::writeShort;

    if (!hasRoom(sockBuffer, sizeof value)) makeRoom<at::noSpace>(sockBuffer, value);
    uint16_t wireValue = htons(static_cast<uint16_t>(value));
    stageValue(sockBuffer, &wireValue, sizeof wireValue);
}

void writeInt(SocketBuffer* sockBuffer, int value)
{
    namespace at = tp::writeInt;

    if (!hasRoom(sockBuffer, sizeof value)) makeRoom<at::noSpace>(sockBuffer, value);
    uint32_t wireValue = htonl(static_cast<uint32_t>(value));
    stageValue(sockBuffer, &wireValue, sizeof wireValue);
}

/* Sends data that is larger than the buffer straight from the caller's storage. */
static void sendDirect(SocketBuffer* sockBuffer, const char* data, size_t dataLen)
{
    namespace at = tp::writeBytes;

    TRACE(at::tooLarge, sockBuffer, sockBuffer->socketDesc);
    TRACE_DATA(at::sending, dumpOf(data, dataLen), data, traceSize(dataLen), STOPWORD);
    if (!sendAll(sockBuffer, data, dataLen)) {
        ErrorText text;
        TRACE(at::failed, traceError(sockBuffer->socketErr, text), sockBuffer->socketErr);
        return;
    }
    sockBuffer->totalCount -= std::min(dataLen, sockBuffer->totalCount);
    TRACE(at::sent, static_cast<unsigned int>(dataLen), traceSize(sockBuffer->totalCount));
}

static void stageOrSend(SocketBuffer* sockBuffer, const char* data, size_t dataLen)
{
    namespace at = tp::writeBytes;

    if (!hasRoom(sockBuffer, dataLen)) {
        if (makeRoom<at::noSpace>(sockBuffer, traceSize(dataLen)) != QPX_OK) return;
    }
    if (dataLen == 0) return;
    // Deliberate: where no flush was needed, an earlier error is not looked at. What is staged
    // behind one is never sent: the flush looks.
    if (hasRoom(sockBuffer, dataLen))
        stage(sockBuffer, data, dataLen);
    else
        sendDirect(sockBuffer, data, dataLen);
}

void writeBytes(SocketBuffer* sockBuffer, const char* data, size_t dataLen)
{
    namespace at = tp::writeBytes;

    TRACE(at::entry, sockBuffer, data, traceSize(dataLen));
    stageOrSend(sockBuffer, data, dataLen);
    TRACE(at::exit);
}

void writePaddedBytes(SocketBuffer* sockBuffer, const char* data, size_t dataLen, size_t totalLen)
{
    namespace at = tp::writePaddedBytes;

    if (!hasRoom(sockBuffer, totalLen)) makeRoom<at::noSpace>(sockBuffer, traceSize(totalLen));
    if (sockBuffer->socketErr != 0 || !hasRoom(sockBuffer, totalLen)) return;

    size_t used = std::min(dataLen, totalLen);
    if (used != 0) stage(sockBuffer, data, used);
    memset(sockBuffer->ptr, 0, totalLen - used);
    advanceWrite(sockBuffer, totalLen - used);
}

/* ---- Writing secrets ---- */

/* Records that the next length bytes of the buffer are secret. */
static void recordSecret(SocketBuffer* sockBuffer, size_t length)
{
    sockBuffer->mayHoldSecret = 1;
    MaskArea* item = static_cast<MaskArea*>(malloc(sizeof(MaskArea) + length));
    if (item == nullptr) {
        sockBuffer->maskLost = 1;
        return;
    }
    item->ptr = sockBuffer->ptr;
    item->length = length;
    item->lstore = reinterpret_cast<char*>(item + 1);
    item->nextItem = sockBuffer->maskArea;
    sockBuffer->maskArea = item;
}

/* Writes data[from] and what follows to the cursor: each byte combined with the clear byte
 * before it, the first of all complemented. */
static void scramble(char* out, const char* data, size_t from, size_t length)
{
    for (size_t i = 0; i < length; ++i) {
        size_t at = from + i;
        out[i] = static_cast<char>(at == 0 ? ~data[0] : data[at] ^ data[at - 1]);
    }
}

void writeBytesMasked(SocketBuffer* sockBuffer, const char* data, size_t dataLen)
{
    namespace at = tp::writeBytesMasked;

    if (!hasRoom(sockBuffer, dataLen)) makeRoom<at::noSpace>(sockBuffer, traceSize(dataLen));
    // A secret longer than the buffer leaves in pieces.
    size_t written = 0;
    while (written < dataLen && sockBuffer->socketErr == 0 && sockBuffer->bufferSize != 0) {
        size_t piece = std::min(dataLen - written, sockBuffer->bufferSize - sockBuffer->count);
        if (piece == 0) {
            flushBuffer(sockBuffer);
            continue;
        }
        recordSecret(sockBuffer, piece);
        scramble(sockBuffer->ptr, data, written, piece);
        advanceWrite(sockBuffer, piece);
        written += piece;
    }
}

void writePaddedBytesMasked(SocketBuffer* sockBuffer, const char* data, size_t dataLen,
                            size_t totalLen)
{
    namespace at = tp::writePaddedBytesMasked;

    if (!hasRoom(sockBuffer, totalLen)) makeRoom<at::noSpace>(sockBuffer, traceSize(totalLen));
    if (sockBuffer->socketErr != 0 || !hasRoom(sockBuffer, totalLen)) return;

    recordSecret(sockBuffer, totalLen);
    scramble(sockBuffer->ptr, data, 0, std::min(dataLen, totalLen));
    advanceWrite(sockBuffer, totalLen);
}

/* ---- Reading ---- */

/* Moves what is unread to the start of the storage; ptr is then where new bytes go. */
static void keepUnread(SocketBuffer* sockBuffer)
{
    namespace at = tp::fillBuffer;

    if (sockBuffer->count > 0) {
        memmove(sockBuffer->buffer, sockBuffer->ptr, sockBuffer->count);
        TRACE(at::kept, traceSize(sockBuffer->count), sockBuffer);
    }
    sockBuffer->ptr = sockBuffer->buffer + sockBuffer->count;
}

static int receiveIntoBuffer(SocketBuffer* sockBuffer)
{
    namespace at = tp::fillBuffer;

    if (sockBuffer->socketErr != 0) return QPX_ERR_LOSTGWCON;

    size_t wanted = std::min(sockBuffer->totalCount, sockBuffer->bufferSize - sockBuffer->count);
    keepUnread(sockBuffer);
    const char* newBytes = sockBuffer->ptr;

    int rc = QPX_OK;
    size_t received = 0;
    ssize_t result = 0;
    while (received < wanted) {
        TRACE(at::receiving, traceSize(wanted - received));
        result = receiveSome(sockBuffer, sockBuffer->ptr, wanted - received);
        if (result < 1) {
            int error = result == 0 ? 0 : errno;
            ErrorText text;
            keepError(sockBuffer, error);
            TRACE(at::failed, traceError(sockBuffer->socketErr, text), sockBuffer->socketErr);
            rc = QPX_ERR_LOSTGWCON;
            break;
        }
        sockBuffer->ptr += result;
        received += static_cast<size_t>(result);
    }

    TRACE_DATA(at::received, dumpOf(newBytes, received), newBytes, traceSize(received), STOPWORD);
    sockBuffer->count += received;
    sockBuffer->totalCount -= received;
    sockBuffer->ptr = sockBuffer->buffer;
    TRACE(at::readSoFar, static_cast<int>(result), traceSize(sockBuffer->totalCount));
    return rc;
}

int fillBuffer(SocketBuffer* sockBuffer)
{
    namespace at = tp::fillBuffer;

    TRACE(at::entry, sockBuffer);
    int rc = receiveIntoBuffer(sockBuffer);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

static void take(SocketBuffer* sockBuffer, void* data, size_t dataLen)
{
    memcpy(data, sockBuffer->ptr, dataLen);
    sockBuffer->ptr += dataLen;
    sockBuffer->count -= dataLen;
}

/* Fills the buffer, for it does not hold the whole value that comes next. */
template <const TracePoint& needMore>
[[gnu::noinline]] static void fetchValue(SocketBuffer* sockBuffer)
{
    TRACE(needMore, sockBuffer);
    fillBuffer(sockBuffer);
}

/* Takes a value that a fill should have made complete. A message too short for it is broken. */
static bool takeValue(SocketBuffer* sockBuffer, void* value, size_t width)
{
    if (sockBuffer->socketErr != 0) return false;
    if (sockBuffer->count < width) {
        sockBuffer->socketErr = EBADMSG;
        return false;
    }
    take(sockBuffer, value, width);
    return true;
}

char readByte(SocketBuffer* sockBuffer)
{
    namespace at = tp::readByte;

    char value;
    if (sockBuffer->count < sizeof value) fetchValue<at::needMore>(sockBuffer);
    return takeValue(sockBuffer, &value, sizeof value) ? value : static_cast<char>(0);
}

short readShort(SocketBuffer* sockBuffer)
{
    namespace at = tp::readShort;

    uint16_t wireValue;
    if (sockBuffer->count < sizeof wireValue) fetchValue<at::needMore>(sockBuffer);
    if (!takeValue(sockBuffer, &wireValue, sizeof wireValue)) return 0;
    return static_cast<short>(ntohs(wireValue));
}

int readInt(SocketBuffer* sockBuffer)
{
    namespace at = tp::readInt;

    uint32_t wireValue;
    if (sockBuffer->count < sizeof wireValue) fetchValue<at::needMore>(sockBuffer);
    if (!takeValue(sockBuffer, &wireValue, sizeof wireValue)) return 0;
    return static_cast<int>(ntohl(wireValue));
}

/* Receives the rest of a field that is larger than the buffer straight into its storage, as far as
 * there is memory for it. */
static int receiveDirect(SocketBuffer* sockBuffer, ArrivingBytes* bytes, size_t dataLen)
{
    namespace at = tp::readBytes;

    size_t inBuffer = bytes->length;
    if (dataLen - inBuffer > sockBuffer->totalCount) {
        sockBuffer->socketErr = EBADMSG;
        return QPX_OK;
    }
    int rc = QPX_OK;
    while (bytes->length < dataLen) {
        if (!clapiProvideRoom(bytes, dataLen)) {
            rc = QPX_ERR_MALLOCFAIL;
            break;
        }
        ssize_t result = receiveSome(sockBuffer, bytes->data + bytes->length,
                                     bytes->capacity - bytes->length);
        if (result < 1) {
            int error = result == 0 ? 0 : errno;
            ErrorText text;
            keepError(sockBuffer, error);
            TRACE(at::failed, traceError(sockBuffer->socketErr, text), sockBuffer->socketErr);
            break;
        }
        bytes->length += static_cast<size_t>(result);
    }
    size_t received = bytes->length - inBuffer;
    if (received == 0) return rc;

    const char* data = bytes->data + inBuffer;
    TRACE_DATA(at::received, dumpOf(data, received), data, traceSize(received), STOPWORD);
    sockBuffer->totalCount -= received;
    sockBuffer->count = 0;
    sockBuffer->ptr = sockBuffer->buffer;
    TRACE(at::readDirect, traceSize(inBuffer), sockBuffer, traceSize(received),
          traceSocket(sockBuffer->socketDesc), traceSize(sockBuffer->totalCount));
    return rc;
}

/* Takes what the buffer holds of a field of dataLen bytes, as far as there is memory for it. */
static int takeBuffered(SocketBuffer* sockBuffer, ArrivingBytes* bytes, size_t dataLen)
{
    while (bytes->length < dataLen && sockBuffer->count > 0) {
        if (!clapiProvideRoom(bytes, dataLen)) return QPX_ERR_MALLOCFAIL;
        size_t room = std::min(dataLen, bytes->capacity) - bytes->length;
        size_t step = std::min({room, sockBuffer->count, OWN_PAGES_FROM});
        take(sockBuffer, bytes->data + bytes->length, step);
        bytes->length += step;
        // So that data is not there twice for longer than a step.
        if (sockBuffer->pages != nullptr)
            sockBuffer->pages = clapiGiveBackPages(sockBuffer->pages, sockBuffer->ptr);
    }
    return QPX_OK;
}

/* Takes a field of dataLen bytes, for the first of which there is room. */
static int takeBytes(SocketBuffer* sockBuffer, ArrivingBytes* bytes, size_t dataLen)
{
    namespace at = tp::readBytes;

    if (sockBuffer->socketErr != 0) return QPX_OK;
    int rc = takeBuffered(sockBuffer, bytes, dataLen);
    if (rc != QPX_OK || bytes->length == dataLen) return rc;

    size_t inBuffer = bytes->length;
    size_t rest = dataLen - inBuffer;
    if (rest > sockBuffer->bufferSize) return receiveDirect(sockBuffer, bytes, dataLen);

    TRACE(at::needMore, traceSize(inBuffer), sockBuffer, traceSize(rest));
    fillBuffer(sockBuffer);
    if (takeValue(sockBuffer, bytes->data + inBuffer, rest)) bytes->length += rest;
    return QPX_OK;
}

void readBytes(SocketBuffer* sockBuffer, char* data, size_t dataLen)
{
    namespace at = tp::readBytes;

    TRACE(at::entry, sockBuffer, data, traceSize(dataLen));
    ArrivingBytes bytes = {data, 0, dataLen};
    takeBytes(sockBuffer, &bytes, dataLen);
    TRACE(at::exit);
}

int readArrivingBytes(SocketBuffer* sockBuffer, ArrivingBytes* bytes, size_t dataLen)
{
    namespace at = tp::readBytes;

    if (!clapiProvideRoom(bytes, dataLen)) return QPX_ERR_MALLOCFAIL;
    TRACE(at::entry, sockBuffer, bytes->data, traceSize(dataLen));
    int rc = takeBytes(sockBuffer, bytes, dataLen);
    TRACE(at::exit);
    return rc;
}

int readRest(SocketBuffer* sockBuffer, ArrivingBytes* bytes)
{
    size_t announced = bytes->length + bytesLeft(sockBuffer);
    while (bytes->length < announced) {
        if (sockBuffer->count == 0 && fillBuffer(sockBuffer) != QPX_OK) return QPX_ERR_LOSTGWCON;
        int rc = takeBuffered(sockBuffer, bytes, announced);
        if (rc != QPX_OK) return rc;
    }
    return QPX_OK;
}

void skipBytes(SocketBuffer* sockBuffer, size_t dataLen)
{
    size_t skipped = 0;
    while (skipped < dataLen && sockBuffer->socketErr == 0) {
        if (sockBuffer->count == 0) {
            fillBuffer(sockBuffer);
            if (sockBuffer->count == 0 && sockBuffer->socketErr == 0)
                sockBuffer->socketErr = EBADMSG;
        }
        size_t step = std::min(dataLen - skipped, sockBuffer->count);
        sockBuffer->ptr += step;
        sockBuffer->count -= step;
        skipped += step;
    }
}

size_t bytesLeft(const SocketBuffer* sockBuffer)
{
    return sockBuffer->count + sockBuffer->totalCount;
}
