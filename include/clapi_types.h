/*
 * clapi_types.h - the record of one connection, its request slots, and the functions that the
 * modules offer one another.
 */
#ifndef CLAPI_TYPES_H
#define CLAPI_TYPES_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "clapi_lock.h"
#include "clapi_rc.h"
#include "clapi_requests.h"
#include "clapi_socketbuffer.h"
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
    char eyecatcher[8];                    // "QPXRSLOT", no terminator
    std::atomic<_RequestSlot*> nextSlot;   // through all tables; null in the last slot
    _RequestSlot* nextReply;               // in the token's reply queue
    int32_t state;                         // SLOT_...
    std::atomic<int32_t> messageId;        // fixed for the slot's life
    int32_t gatewayRc;                     // from the reply header, or of the connection's end
    int32_t vornRc;                        // the server's, from the reply body
    ClapiEvent requestEvent;               // posted when the slot is delivered
    QPX_ECI_PARMS eciParms;                // the caller's record, with the reply's fields
    ESI_DETAILS* esiDetails;               // where an ESI reply goes; null when not wanted
    uint32_t allocNumber;                  // names one use of the slot; 0 while it is free
    char* asyncBuffer;                     // reply buffer of an asynchronous call, owned
    size_t replyCapacity;                  // room at eciParms.eci_commarea
    int32_t channelHeld;                   // 1 while the request holds its channel's lock
    std::atomic<int32_t> channelBeingSent; // 1 until the sender has read the request's channel
    int32_t outcomePending;                // 1 once an outcome waits for that sender to deliver it
    ArrivingBytes channelSection;          // of a pending reply, not applied yet; owned
    int32_t purpose;                       // PROGRAM_CALL and the others
} RequestSlot;

struct _RequestTable;

/* Finds the slot with a message id, as slotLookup does. */
typedef int SlotLookup(_RequestTable* requestTableP, int messageId, RequestSlot** slotPP);

/* 16 slots. The fields behind them serve a token's first table only, but for nextKept. */
typedef struct _RequestTable {
    RequestSlot slot[SLOTS_PER_TABLE];
    uint32_t lastAllocNumber; // counts up with every slot taken
    _RequestTable* keptTable; // added tables that are empty, kept for the next growth
    _RequestTable* nextKept;
    SlotLookup* lookUp; // for the receiver, which knows the records of slots and not their rules
} RequestTable;

typedef struct _QPX_ConnToken_t _QPX_ConnToken_t;

/* Fills a table's slots as a chain with the message ids firstId to firstId + 15. */
void clapiInitializeTable(RequestTable* tableP, int firstId);

/* Frees the tables that slotFree kept. Locks: tableLock held, or the token is unknown to all. */
void clapiFreeKeptTables(RequestTable* requestTableP);

/*
 * Takes a slot for a new request: a free one for luwToken 0, else the idle one of that unit of
 * work. *requestSlotPP is stored on failure too; only result 0 means that the slot was taken.
 * 0, ECI_ERR_LUW_TOKEN, ECI_ERR_ALREADY_ACTIVE, QPX_ERR_MALLOCFAIL or QPX_ERR_SYSTEM_ERROR.
 * Locks: tableLock held.
 */
int slotFind(RequestTable* requestTableP, int luwToken, RequestSlot** requestSlotPP);

/* Gives a slot back, with its reply buffer, and trailing tables that are empty now.
 * Locks: tableLock held. */
void slotFree(RequestTable* requestTableP, RequestSlot* slotP);

/* Frees the slot of a request that has failed; one whose table cannot be locked stays allocated.
 * Locks: takes tableLock. */
void clapiDropSlot(_QPX_ConnToken_t* gwTokPtr, RequestSlot* slotP);

/* Finds the slot with a message id, whatever its state: 0 or QPX_ERR_SYSTEM_ERROR.
 * Locks: tableLock held for a reply; error and exception flows look without it. */
int slotLookup(RequestTable* requestTableP, int messageId, RequestSlot** slotPP);

/* ---- Gateway tokens ---- */

/* Connection states; written by the receiver thread only. */
constexpr int CONN_CONNECTING = 0;
constexpr int CONN_CONNECTED = 1;
constexpr int CONN_FAILED = 2;
constexpr int CONN_LOST = 3;
constexpr int CONN_CLOSED = 4;

constexpr size_t APPLID_SIZE = 8;

/* Room for a token as clapiFormatGatewayToken writes it. */
constexpr size_t FORMATTED_TOKEN_SIZE = 512;

/* One connection, from clapiCreateGatewayToken to clapiDeleteGatewayToken. */
typedef struct _QPX_ConnToken_t {
    char eyecatcher[8];              // "QPXGWTOK", no terminator
    _QPX_ConnToken_t* nextGwyTokPtr; // guarded by gtlLock
    uint32_t portNumber;
    std::atomic<int32_t> connStatus; // CONN_...
    int32_t connTimeout;             // seconds for connect and for handshake, 0 = no limit
    int32_t handshakeRc;             // from the receiver to the connecting thread, by connEvent
    std::atomic<int32_t> closedown;  // 1 once a close has begun; written under gtlLock
    std::atomic<Socket> socketDescriptor; // NO_SOCKET until connected; keeps its number afterwards
    RequestTable table;                   // guarded by tableLock
    Clapilock tableLock;
    Clapilock sendLock;      // held while one whole flow is written
    RequestSlot* firstReply; // queue of delivered asynchronous slots; by tableLock
    RequestSlot* lastReply;
    std::atomic<int32_t> asyncCount;   // asynchronous requests not yet collected; by tableLock
    ClapiEvent asyncReplyEvent;        // posted under tableLock when a reply is queued
    ClapiEvent connEvent;              // posted when the outcome of the handshake is known
    ClapiEvent recvThreadEndedEvent;   // open while no receiver thread runs
    ClapiEvent requestsEnded;          // posted by the last API call that leaves
    std::atomic<int32_t> requestCount; // API calls at work on the token; written under gtlLock
    char applid[APPLID_SIZE + 1];
    char applidQualifier[APPLID_SIZE + 1];
    int32_t senders;                // flows being written, which keep the socket; by tableLock
    RequestSlot* slotBeingRead;     // whose reply the receiver reads; by tableLock
    pthread_cond_t transferEnded;   // with tableLock's mutex: a sending or a reading has ended
    std::atomic<int32_t> brokenOff; // 1 once the library has ended the stream; written by tableLock
    // Threads that close the token, each from its mark or from the beginning of its delete until
    // that has ended; raised under gtlLock, and the token is freed by the last of them.
    std::atomic<int32_t> deleters;
    int32_t quiesced; // 1 once a delete has quiesced the token; by gtlLock
    int32_t opening;  // 1 until the open has succeeded; by gtlLock
    uint64_t serial;  // counts the tokens of the process; the list is in its order; by gtlLock
    _QPX_ConnToken_t* nextOpenSocket; // among the tokens whose socket is open; by their own lock
} _QPX_ConnToken_t;
typedef _QPX_ConnToken_t Internal_ConnToken_t;

/* Guards the list of tokens, and of each token what says so above. */
extern Clapilock gtlLock;

/* Creates a connection and stores it in *gwTokPtr on success only. Arguments are checked. */
int clapiCreateGatewayToken(QPX_ConnToken_t* gwTokPtr, char* hostname, int port, int connTimeout,
                            char* applid, char* applidQualifier);

/* Writes one line about a token to FORMATTED_TOKEN_SIZE bytes: 0 or QPX_ERR_NULLPARM. */
int clapiFormatGatewayToken(_QPX_ConnToken_t* gwTokPtr, char* formattedToken);

/* Writes the list of tokens to the trace destination. Locks: takes gtlLock. */
void clapiDumpGatewayTokens(void);

/*
 * Count an API call on a token in and out. Between the two the token is not freed; after the
 * second it must not be touched. Registering does not look at closedown. 0, QPX_ERR_BADGWTOK
 * (registering, the token is not on the list, or its open has not ended) or QPX_ERR_SYSTEM_ERROR.
 * Locks: take gtlLock.
 */
int clapiRegisterRequest(_QPX_ConnToken_t* gwTokPtr);
int clapiUnregisterRequest(_QPX_ConnToken_t* gwTokPtr);

/* Values of lockRequired below: whether the function takes gtlLock, or its caller holds it. */
constexpr int CALLER_HOLDS_LOCK = 0;
constexpr int LOCK_REQUIRED = 1;

/* Reads the application's variable, which another thread may change at any time. Once per call. */
inline _QPX_ConnToken_t* clapiReadToken(QPX_ConnToken_t* gwTokPtr)
{
    return __atomic_load_n(gwTokPtr, __ATOMIC_RELAXED);
}

/*
 * Marks a token as closing. Only after result 0 has the caller marked it; the token then stays
 * until the caller has been through clapiDeleteClosingToken. With CALLER_HOLDS_LOCK the caller
 * holds gtlLock. 0, QPX_ERR_GWTOK_CLOSED (it is closing, or has been closed not long ago),
 * QPX_ERR_BADGWTOK (also for a token whose open has not ended) or QPX_ERR_SYSTEM_ERROR.
 */
int clapiCloseGatewayToken(_QPX_ConnToken_t* gwTokPtr, int lockRequired);

/* Close time-outs that are no number of seconds. */
constexpr int WAIT_WITHOUT_LIMIT = -1;
constexpr int NO_WAIT = 0;

/*
 * Quiesces the token that the caller has marked as closing, and frees it if no other thread is
 * still at that. gwTokPtr is shown in the trace and not read. Work in progress is waited for
 * without limit, for a number of seconds, or not at all, as closeTimeout says.
 * Locks: takes gtlLock.
 */
int clapiDeleteClosingToken(QPX_ConnToken_t* gwTokPtr, _QPX_ConnToken_t* token, int closeTimeout);

/*
 * The same for a thread that has not marked the token. With CALLER_HOLDS_LOCK the caller
 * vouches for the token and holds gtlLock, which is given up in every case.
 */
int clapiDeleteGatewayToken(QPX_ConnToken_t* gwTokPtr, int closeTimeout, int lockRequired);

/* Closes and deletes every token on the list that has been opened. Always 0. */
int clapiDeleteGatewayTokens(void);

/*
 * For the child of a fork: no token is on the list any more, for the connections are the parent's,
 * and what names one is refused. The records stay, as do the locks in them that threads of the
 * parent may have held. Writes no trace line.
 * Locks: gtlLock held, by this thread and since before the fork, so that the list is whole; no
 * lock of a token is taken.
 */
void clapiForgetTokens(void);

/* ---- Connections (clapi_gwycon) ---- */

/* Resolves, connects, starts the receiver thread and shakes hands. */
int clapiConnectToGateway(int port, char* hostname, _QPX_ConnToken_t* gwTokPtr, char* applid,
                          char* applidQualifier);

/*
 * Ends the sending of a request that has been written and may have a channel. An outcome that has
 * overtaken it is delivered, with the changes of its reply made to the channel first. allocNumber
 * names the sender's use of the slot, which may be another's by now.
 * Locks: takes tableLock, and gives it up while it changes the channel.
 */
void clapiEndSendingRequest(_QPX_ConnToken_t* gwTokPtr, RequestSlot* slotP, uint32_t allocNumber);

/* Sends the close flow. Locks: takes sendLock. */
int clapiCloseConnection(_QPX_ConnToken_t* conn);

/* Around a fork: no socket is made or closed meanwhile, and the child closes those that it has
 * inherited, without a flow. Locks: held from the first to one of the others. */
void clapiConnectionsForkPrepare(void);
void clapiConnectionsForkParent(void);
void clapiConnectionsForkChild(void);

/* ---- Frame ---- */

/* Initialises the library once per process; the result is the same for every caller. */
int clapiInit(void);

/* A tag for a request: 1, 2, 3 and so on, never 0. Locks: takes correlatorLock. */
int getNextCorrelator(void);

extern int clapiState;
extern int nextCorrelator; // guarded by correlatorLock
extern Clapilock correlatorLock;

const char* getCallTypeString(int callType);

/* Turns the Gateway's code of an ESI reply into the ESI family's. */
int mapGwyRc(int rc);

/* ---- ECI calls (clapi_eci) ---- */

int verifyEciParms(QPX_ECI_PARMS* EciParms, int minVersion);
int performEciExecute(QPX_ConnToken_t gwTok, QPX_ECI_PARMS* EciParms, int useChannel);
int getAsyncReply(QPX_ConnToken_t gwTok, QPX_ECI_PARMS* EciParms);

#endif
