/*
 * clapi_types.h - the records that modules share: that of one connection, and its request slots.
 */
#ifndef CLAPI_TYPES_H
#define CLAPI_TYPES_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "clapi_lock.h"
#include "clapi_socket.h"
#include "data_storage.h"
#include "qpxclient.h"
#include "qpxclient_eci.h"
#include "qpxclient_esi.h"

/* ---- Request slots ---- */

constexpr int SLOTS_PER_TABLE = 16;

/* States of a request slot. */
constexpr int SLOT_FREE = 0;
constexpr int SLOT_ALLOCATED = 1; // its request is being built
constexpr int SLOT_WAITING = 2;   // its request is on its way, the reply is not there yet
constexpr int SLOT_DELIVERED = 3; // the reply, or the end of the connection, is in the slot
constexpr int SLOT_LUW_IDLE = 4;  // kept between the calls of a unit of work

/* What a slot is used for. */
constexpr int PROGRAM_CALL = 0;
constexpr int PASSWORD_REQUEST = 1;
constexpr int SYSTEM_LIST_QUERY = 2;

/*
 * One request from its start until its reply has been taken. A slot's memory lives as long as
 * its token. Guarded by tableLock, but for what one thread owns by the slot's state: in state 1
 * the requester, in state 3 whoever consumes the reply.
 */
typedef struct _RequestSlot {
    char eyecatcher[8];                  // "QPXRSLOT", no terminator
    std::atomic<_RequestSlot*> nextSlot; // through all tables; null in the last slot
    _RequestSlot* nextReply;             // in the token's reply queue
    _RequestSlot* replyBefore;
    int32_t state;                  // SLOT_...
    std::atomic<int32_t> messageId; // fixed for the slot's life
    int32_t gatewayRc;              // from the reply header, or of the connection's end
    int32_t vornRc;                 // the server's, from the reply body
    ClapiEvent requestEvent;        // posted when the slot is delivered
    int32_t hasEvent;               // 1 once requestEvent exists; it then stays with the table
    QPX_ECI_PARMS eciParms;         // the caller's record, with the reply's fields
    ESI_DETAILS* esiDetails;        // where an ESI reply goes; null when not wanted
    uint32_t allocNumber;           // names one use of the slot; 0 while it is free
    char* asyncBuffer;              // reply buffer of an asynchronous call, owned
    size_t replyCapacity;           // room at eciParms.eci_commarea
    int32_t channelHeld;            // 1 while the request holds its channel's lock
    std::atomic<int32_t> beingSent; // 1 until the sender has read the data that a reply changes
    int32_t outcomePending;         // 1 once an outcome waits for that sender to deliver it
    ArrivingBytes replyData;        // of a pending reply, not applied yet; owned
    int32_t purpose;                // PROGRAM_CALL and the others
} RequestSlot;

struct _RequestTable;

/* Finds the slot with a message id, as slotLookup does. */
typedef int SlotLookup(_RequestTable* requestTableP, int messageId, RequestSlot** slotPP);

/* Segments of the index of a chain's tables; the nth has room for 2 to the power of n. */
constexpr int INDEX_SEGMENTS = 27;

typedef std::atomic<_RequestTable*> IndexedTable;

/* 16 slots. The fields behind them serve a token's first table only, but for nextKept. */
typedef struct _RequestTable {
    RequestSlot slot[SLOTS_PER_TABLE];
    uint32_t lastAllocNumber; // counts up with every slot taken
    _RequestTable* keptTable; // added tables that are empty, kept for the next growth
    _RequestTable* nextKept;
    _RequestTable* lastTable;                         // of the chain
    int32_t lowestFree;                               // no slot with a lower message id is free
    std::atomic<IndexedTable*> index[INDEX_SEGMENTS]; // the tables in order of ids; owned
    SlotLookup* lookUp; // for the receiver, which knows the records of slots and not their rules
} RequestTable;

/* ---- Gateway tokens ---- */

/* Connection states; written by the receiver thread only. */
constexpr int CONN_CONNECTING = 0;
constexpr int CONN_CONNECTED = 1;
constexpr int CONN_FAILED = 2;
constexpr int CONN_LOST = 3;
constexpr int CONN_CLOSED = 4;

constexpr size_t APPLID_SIZE = 8;

/* Guards the list of tokens, and of each token what says so below; clapi_gwytok's. */
extern Clapilock gtlLock;

/* One connection, from clapiCreateGatewayToken to clapiDeleteGatewayToken. */
typedef struct _QPX_ConnToken_t {
    char eyecatcher[8]; // "QPXGWTOK", no terminator
    _QPX_ConnToken_t* nextGwyTokPtr GUARDED_BY(gtlLock);
    uint32_t portNumber;
    std::atomic<int32_t> connStatus; // CONN_...
    int32_t connTimeout;             // seconds for connect and for handshake, 0 = no limit
    int32_t handshakeRc;             // from the receiver to the connecting thread, by connEvent
    std::atomic<int32_t> closedown;  // 1 once a close has begun; written under gtlLock
    std::atomic<Socket> socketDescriptor; // NO_SOCKET until connected; keeps its number afterwards
    RequestTable table GUARDED_BY(tableLock);
    Clapilock tableLock;
    Clapilock sendLock;                            // held while one whole flow is written
    RequestSlot* firstReply GUARDED_BY(tableLock); // queue of delivered asynchronous slots
    RequestSlot* lastReply GUARDED_BY(tableLock);
    std::atomic<int32_t> asyncCount;   // asynchronous requests not yet collected; by tableLock
    ClapiEvent asyncReplyEvent;        // posted under tableLock: collectors must look again
    ClapiEvent connEvent;              // posted when the outcome of the handshake is known
    ClapiEvent recvThreadEndedEvent;   // open while no receiver thread runs
    ClapiEvent requestsEnded;          // posted by the last API call that leaves
    std::atomic<int32_t> requestCount; // API calls at work on the token; written under gtlLock
    char applid[APPLID_SIZE + 1];
    char applidQualifier[APPLID_SIZE + 1];
    int32_t senders GUARDED_BY(tableLock);            // flows being written, which keep the socket
    RequestSlot* slotBeingRead GUARDED_BY(tableLock); // whose reply the receiver reads
    pthread_cond_t transferEnded;       // with tableLock's mutex: a sending or a reading has ended
    std::atomic<int32_t> brokenOff;     // 1 once the library has ended the stream; never goes back
    std::atomic<int32_t> closeFlowSent; // 1 once the Gateway is asked to end the connection
    // Threads that close the token, each from its mark or from the beginning of its delete until
    // that has ended; raised under gtlLock, and the token is freed by the last of them.
    std::atomic<int32_t> deleters;
    int32_t quiesced GUARDED_BY(gtlLock);            // 1 once a delete has quiesced the token
    int32_t opening GUARDED_BY(gtlLock);             // 1 until the open has succeeded
    uint64_t serial GUARDED_BY(gtlLock);             // counts the process's tokens; orders the list
    _QPX_ConnToken_t* nextInSet GUARDED_BY(gtlLock); // in the set of listed tokens
    _QPX_ConnToken_t* beforeInList GUARDED_BY(gtlLock); // in the list
    _QPX_ConnToken_t* nextOpenSocket; // among the tokens whose socket is open; by their own lock
} _QPX_ConnToken_t;
typedef _QPX_ConnToken_t Internal_ConnToken_t;

#endif
