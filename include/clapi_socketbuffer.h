/*
 * clapi_socketbuffer.h - the staging buffer of every flow: big-endian fields on their way to or
 * from one connected socket.
 *
 * A socket error is sticky: the first one is kept in socketErr, and from then on writes are
 * dropped and reads give 0, so that a flow is written or read field by field and tested once.
 * A message that ends before the field that is read counts as such an error (EBADMSG).
 *
 * A record is zero-filled before its first initialisation. Thread: one at a time; the writers
 * of requests hold the connection's sendLock, the read side is the receiver thread's.
 */
#ifndef CLAPI_SOCKETBUFFER_H
#define CLAPI_SOCKETBUFFER_H

#include <cstddef>

#include "clapi_socket.h"
#include "data_storage.h"

/* The most that a buffer holds, whatever the length of the message. */
constexpr size_t SOCKET_BUFFER_CAPACITY = 33000;

/* How much is taken from a socket at once, ahead of the message that is read: a few small replies.
 * What is larger goes straight where it belongs. */
constexpr size_t READ_AHEAD_CAPACITY = 2048;

/*
 * What has come from a socket and has not been read yet, of whatever messages: one recv brings a
 * header with its body, and often several messages. Zero-filled before it is used, and overwritten
 * by its owner.
 */
typedef struct {
    char* next; // the first that has not been taken
    size_t count;
    int ended;    // 1 once the socket has nothing to come; whoever takes the next bytes is told
    int endErrno; // why: 0 for an orderly end
    char bytes[READ_AHEAD_CAPACITY];
} ReadAhead;

/* A secret field staged in a write buffer, hidden while the buffer is traced. */
typedef struct {
    char* ptr;      // where the field's scrambled bytes begin in the buffer
    size_t length;  // bytes of the field
    char* lstore;   // save area of length bytes behind this record, one heap block with it
    void* nextItem; // the MaskArea staged before this one
} MaskArea;

typedef struct _SocketBuffer {
    char eyecatcher[8]; // "QPXSCKBF", no terminator
    Socket socketDesc;
    int socketErr; // 0, or errno of the first failure
    char* buffer;  // heap storage of bufferSize bytes, owned
    size_t bufferSize;
    char* ptr;          // writing: next free byte; reading: next unread byte
    size_t count;       // writing: bytes staged; reading: bytes unread
    size_t totalCount;  // bytes of the message not yet sent, or not yet taken from the socket
    MaskArea* maskArea; // the most recently staged secret field, owned
    int mayHoldSecret;  // the storage is to be overwritten before it is freed
    int maskLost;       // a secret field is staged that could not be recorded in maskArea
    size_t sentCount;   // writing: bytes of the flow that have left
    ReadAhead* ahead;   // reading: what the bytes come from; null: from the socket. Not owned
    char* pages; // reading: those of the storage that still hold something, and are given back as
                 // they are read; null: all of it stays
} SocketBuffer;

/* Bind the record to a socket for a message of dataLen bytes: 0 or QPX_ERR_MALLOCFAIL. */
int initWriteBuffer(SocketBuffer* sockBuffer, Socket socketDesc, size_t dataLen);
int initReadBuffer(SocketBuffer* sockBuffer, Socket socketDesc, size_t dataLen);

/* Overwrites the storage if it may hold a secret, gives it back and zeroes the record: 0, or
 * QPX_ERR_SYSTEM_ERROR if there was none. */
int freeBuffer(SocketBuffer* sockBuffer);

/* As freeBuffer, without a result or a trace; for a record without storage, too. */
void wipeBuffer(SocketBuffer* sockBuffer);

/* Waits until the socket is readable, at most timeout seconds (0 = no limit): 0,
 * QPX_ERR_LOSTGWCON or QPX_ERR_CONNECTTIMEOUT. Without a limit, and with a read-ahead, it takes
 * what comes, and leaves an end or a failure to whoever reads next. */
int waitForResponse(SocketBuffer* sockBuffer, int timeout);

/* Sends what is staged: 0 or QPX_ERR_LOSTGWCON. A flow that cannot be sent on once a part of it has
 * left ends the connection: the socket is shut down. */
int flushBuffer(SocketBuffer* sockBuffer);

/* Stage one field, flushing first when it does not fit. */
void writeByte(SocketBuffer* sockBuffer, char value);
void writeShort(SocketBuffer* sockBuffer, short value);
void writeInt(SocketBuffer* sockBuffer, int value);
void writeBytes(SocketBuffer* sockBuffer, const char* data, size_t dataLen);

/* Stages exactly totalLen bytes: the data, cut or filled with zero bytes. totalLen must fit in
 * an empty buffer. */
void writePaddedBytes(SocketBuffer* sockBuffer, const char* data, size_t dataLen, size_t totalLen);

/* Stage a secret: scrambled, and shown as asterisks in the trace. Deliberate: the padded form
 * leaves the bytes behind the data as they are in the buffer, for they are no part of the secret,
 * and whoever stages it says where it ends. */
void writeBytesMasked(SocketBuffer* sockBuffer, const char* data, size_t dataLen);
void writePaddedBytesMasked(SocketBuffer* sockBuffer, const char* data, size_t dataLen,
                            size_t totalLen);

/* Takes as much of the message from the socket as the buffer has room for, and blocks until it
 * has it: 0 or QPX_ERR_LOSTGWCON. */
int fillBuffer(SocketBuffer* sockBuffer);

/* Take one field, filling the buffer when it is not wholly there; 0 after an error. */
char readByte(SocketBuffer* sockBuffer);
short readShort(SocketBuffer* sockBuffer);
int readInt(SocketBuffer* sockBuffer);

/* Takes dataLen bytes; after an error the caller's bytes stay as they are, from where it
 * occurred. */
void readBytes(SocketBuffer* sockBuffer, char* data, size_t dataLen);

/*
 * As readBytes, into storage that grows with what arrives; bytes is empty before. Behind an error
 * its length tells how much has come.
 * 0, or QPX_ERR_MALLOCFAIL if there is no memory (without a line of the trace).
 */
int readArrivingBytes(SocketBuffer* sockBuffer, ArrivingBytes* bytes, size_t dataLen);

/* Takes the rest of the message as it is, behind what bytes holds: 0, QPX_ERR_MALLOCFAIL or
 * QPX_ERR_LOSTGWCON. */
int readRest(SocketBuffer* sockBuffer, ArrivingBytes* bytes);

/* Takes dataLen bytes and drops them. */
void skipBytes(SocketBuffer* sockBuffer, size_t dataLen);

/* Bytes of the message that have not been read yet. */
size_t bytesLeft(const SocketBuffer* sockBuffer);

#endif
