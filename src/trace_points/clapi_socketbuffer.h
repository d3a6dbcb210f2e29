/* Trace points of clapi_socketbuffer: 2500 to 2582. */
#ifndef TRACE_POINTS_CLAPI_SOCKETBUFFER_H
#define TRACE_POINTS_CLAPI_SOCKETBUFFER_H

#include "clapi_diag.h"

namespace tp::initWriteBuffer {
constexpr TracePoint entry     = tpEntry(2500, "clapi_socketbuffer.initWriteBuffer(sockBuffer=%p, socketDesc=%lu, dataLen=%lu)\n");
constexpr TracePoint reused    = tpDebug(2501, "clapi_socketbuffer.initWriteBuffer() Reusing existing buffer of %lu bytes\n");
constexpr TracePoint allocated = tpDebug(2502, "clapi_socketbuffer.initWriteBuffer() Allocated new buffer of %lu bytes\n");
constexpr TracePoint noMemory  = tpExc  (2503, "clapi_socketbuffer.initWriteBuffer() Failed to allocate %lu bytes for buffer\n");
constexpr TracePoint exit      = tpExit (2509, "clapi_socketbuffer.initWriteBuffer() rc=%d (%s)\n");
}

namespace tp::waitForResponse {
constexpr TracePoint timedOut = tpExc  (2504, "clapi_socketbuffer.waitForResponse() Timed out waiting for handshake response\n");
constexpr TracePoint entry    = tpEntry(2522, "clapi_socketbuffer.waitForResponse(sockBuffer=%p, timeout=%d)\n");
constexpr TracePoint failed   = tpExc  (2523, "clapi_socketbuffer.waitForResponse() select failed: %s (%d)\n");
constexpr TracePoint exit     = tpExit (2524, "clapi_socketbuffer.waitForResponse() rc=%d (%s)\n");
}

namespace tp::initReadBuffer {
constexpr TracePoint entry     = tpEntry(2510, "clapi_socketbuffer.initReadBuffer(sockBuffer=%p, socketDesc=%lu, dataLen=%lu)\n");
constexpr TracePoint reused    = tpDebug(2511, "clapi_socketbuffer.initReadBuffer() Reusing existing buffer of %lu bytes\n");
constexpr TracePoint allocated = tpDebug(2512, "clapi_socketbuffer.initReadBuffer() Allocated new buffer of %lu bytes\n");
constexpr TracePoint noMemory  = tpExc  (2513, "clapi_socketbuffer.initReadBuffer() Failed to allocate %lu bytes for buffer\n");
constexpr TracePoint exit      = tpExit (2515, "clapi_socketbuffer.initReadBuffer() rc=%d (%s)\n");
}

namespace tp::freeBuffer {
constexpr TracePoint entry          = tpEntry(2516, "clapi_socketbuffer.freeBuffer(sockBuffer=%p)\n");
constexpr TracePoint notInitialized = tpExc  (2517, "clapi_socketbuffer.freeBuffer() Buffer not initialized: %p\n");
constexpr TracePoint exit           = tpExit (2518, "clapi_socketbuffer.freeBuffer() rc=%d (%s)\n");
}

namespace tp::flushBuffer {
constexpr TracePoint entry   = tpEntry(2525, "clapi_socketbuffer.flushBuffer(sockBuffer=%p)\n");
constexpr TracePoint sending = tpData (2526, "clapi_socketbuffer.flushBuffer() data=%p len=%lu stopword=%8.8X\n");
constexpr TracePoint failed  = tpExc  (2527, "clapi_socketbuffer.flushBuffer() Unable to send data to Gateway: %s (%d)\n");
constexpr TracePoint sent    = tpDebug(2528, "clapi_socketbuffer.flushBuffer() Sent %d bytes, %lu bytes remaining\n");
constexpr TracePoint exit    = tpExit (2529, "clapi_socketbuffer.flushBuffer() rc=%d (%s)\n");
}

namespace tp::readBytes {
constexpr TracePoint entry      = tpEntry(2530, "clapi_socketbuffer.readBytes(sockBuffer=%p, data=%p, dataLen=%lu)\n");
constexpr TracePoint needMore   = tpDebug(2531, "clapi_socketbuffer.readBytes() Read %lu bytes from buffer %p, %lu more bytes needed\n");
constexpr TracePoint failed     = tpExc  (2532, "clapi_socketbuffer.readBytes() recv returned an error code: %s (%d)\n");
constexpr TracePoint received   = tpData (2533, "clapi_socketbuffer.readBytes() data=%p len=%lu stopword=%8.8X\n");
constexpr TracePoint readDirect = tpDebug(2534, "clapi_socketbuffer.readBytes() Read %lu bytes from buffer %p, %lu bytes from socket %lu, %lu bytes remaining\n");
constexpr TracePoint exit       = tpExit (2539, "clapi_socketbuffer.readBytes()\n");
}

namespace tp::fillBuffer {
constexpr TracePoint entry     = tpEntry(2540, "clapi_socketbuffer.fillBuffer(sockBuffer=%p)\n");
constexpr TracePoint kept      = tpDebug(2541, "clapi_socketbuffer.fillBuffer() %lu bytes already in buffer %p\n");
constexpr TracePoint receiving = tpDebug(2542, "clapi_socketbuffer.fillBuffer() Attempting to read %lu bytes\n");
constexpr TracePoint failed    = tpExc  (2543, "clapi_socketbuffer.fillBuffer() recv returned an error code: %s (%d)\n");
constexpr TracePoint received  = tpData (2544, "clapi_socketbuffer.fillBuffer() data=%p len=%lu stopword=%8.8X\n");
constexpr TracePoint readSoFar = tpDebug(2545, "clapi_socketbuffer.fillBuffer() Read %d bytes, %lu bytes remaining\n");
constexpr TracePoint exit      = tpExit (2549, "clapi_socketbuffer.fillBuffer() rc=%d (%s)\n");
}

namespace tp::writeByte {
constexpr TracePoint noSpace = tpDebug(2550, "clapi_socketbuffer.writeByte() Insufficient space in buffer %p to write %d\n");
}

namespace tp::writeShort {
constexpr TracePoint noSpace = tpDebug(2551, "clapi_socketbuffer.writeShort() Insufficient space in buffer %p to write %d\n");
}

namespace tp::writeInt {
constexpr TracePoint noSpace = tpDebug(2552, "clapi_socketbuffer.writeInt() Insufficient space in buffer %p to write %d\n");
}

namespace tp::writeBytes {
constexpr TracePoint entry    = tpEntry(2560, "clapi_socketbuffer.writeBytes(sockBuffer=%p, data=%p, dataLen=%lu)\n");
constexpr TracePoint noSpace  = tpDebug(2561, "clapi_socketbuffer.writeBytes() Insufficient space in buffer %p to write %lu bytes\n");
constexpr TracePoint tooLarge = tpDebug(2562, "clapi_socketbuffer.writeBytes() Data too large for buffer %p, writing to socket %d\n");
constexpr TracePoint sending  = tpData (2563, "clapi_socketbuffer.writeBytes() data=%p len=%lu stopword=%8.8X\n");
constexpr TracePoint failed   = tpExc  (2564, "clapi_socketbuffer.writeBytes() Unable to send data to Gateway: %s (%d)\n");
constexpr TracePoint sent     = tpDebug(2565, "clapi_socketbuffer.writeBytes() Sent %u bytes, %lu bytes remaining\n");
constexpr TracePoint exit     = tpExit (2569, "clapi_socketbuffer.writeBytes()\n");
}

namespace tp::writeBytesMasked {
constexpr TracePoint noSpace = tpDebug(2570, "clapi_socketbuffer.writeBytesMasked() Insufficient space in buffer %p to write %lu bytes\n");
}

namespace tp::writePaddedBytesMasked {
constexpr TracePoint noSpace = tpDebug(2571, "clapi_socketbuffer.writePaddedBytesMasked() Insufficient space in buffer %p to write %lu bytes\n");
}

namespace tp::writePaddedBytes {
constexpr TracePoint noSpace = tpDebug(2572, "clapi_socketbuffer.writePaddedBytes() Insufficient space in buffer %p to write %lu bytes\n");
}

namespace tp::readByte {
constexpr TracePoint needMore = tpDebug(2580, "clapi_socketbuffer.readByte() Insufficient data in buffer %p\n");
}

namespace tp::readShort {
constexpr TracePoint needMore = tpDebug(2581, "clapi_socketbuffer.readShort() Insufficient data in buffer %p\n");
}

namespace tp::readInt {
constexpr TracePoint needMore = tpDebug(2582, "clapi_socketbuffer.readInt() Insufficient data in buffer %p\n");
}

#endif
