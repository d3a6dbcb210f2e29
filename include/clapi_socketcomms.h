/*
 * clapi_socketcomms.h - the records of the flows between library and Gateway, and the functions
 * that write and read them.
 *
 * Writers return 0, QPX_ERR_MALLOCFAIL or QPX_ERR_LOSTGWCON. Thread: the caller's, holding the
 * connection's sendLock (the handshake alone is written without it, while no other thread writes
 * to the connection). Readers run on the receiver thread, unless they say otherwise.
 */
#ifndef CLAPI_SOCKETCOMMS_H
#define CLAPI_SOCKETCOMMS_H

#include <atomic>
#include <cstdint>

#include "clapi_socket.h"
#include "data_storage.h"
#include "qpxclient_eci.h"
#include "qpxclient_esi.h"

typedef struct _ECI_Channel_t ECI_Channel_t;
typedef struct _SocketBuffer SocketBuffer;

/* ---- The header of every flow ---- */

constexpr int FLOW_EYECATCHER = 0x47617465; // "Gate"
constexpr int FLOW_VERSION = 0x10A01000;

/* Flow types. */
constexpr int FLOW_REQUEST = 1;
constexpr int FLOW_REPLY = 3;
constexpr int FLOW_ERROR = 4;
constexpr int FLOW_HANDSHAKE = 5;
constexpr int FLOW_EXCEPTION = 6;
constexpr int FLOW_PING = 7;
constexpr int FLOW_CLOSE = 10;

/* Message ids that name no request. */
constexpr int MESSAGE_ID_CLOSE = -1;
constexpr int MESSAGE_ID_CONNECTION = -2;

/* Bytes of a header without its request type, and with one of three letters. */
constexpr int HEADER_FIXED_SIZE = 29;
constexpr int HEADER_SIZE = 32;

constexpr int REQUEST_TYPE_SIZE = 6;

typedef struct _GatewayRequest {
    int eyecatcher;  // FLOW_EYECATCHER
    int flowVersion; // FLOW_VERSION; not checked on read
    int flowType;
    int messageId;                       // the request slot's, or MESSAGE_ID_...
    int gatewayRc;                       // 0 in requests
    int requestTypeLength;               // bytes of requestType on the wire
    char requestType[REQUEST_TYPE_SIZE]; // zero-filled behind the name, no terminator
    char security;                       // 0
    int datalength;                      // bytes of the body
    int brokenOff;                       // of a request: 1 if a part of it alone has left
} GatewayRequest;

/* The request type names and their lengths on the wire. */
extern const char HANDSHAKE_REQUEST_NAME[4]; // "BASE"
extern const char ECI_REQUEST_NAME[3];       // "ECI"
extern const char ESI_REQUEST_NAME[3];       // "ESI"

/* Fills the header of an ECI or ESI request; name has three letters. */
void clapiBuildRequestHeader(GatewayRequest* header, int messageId, const char (&name)[3]);

/*
 * Reads the next header. Its datalength is the length of the body, whose first
 * bytes may be in the buffer already.
 * 0, QPX_ERR_MALLOCFAIL, QPX_ERR_LOSTGWCON, or QPX_ERR_SYSTEM_ERROR for what is no header.
 */
int clapiReadHeader(SocketBuffer* sockBuffer, GatewayRequest* req);

int clapiFlowHandshakeRequest(Socket socketDesc, char* applid, char* applidQualifier);
int clapiFlowCloseRequest(Socket socketDesc);

/* ---- ECI flows ---- */

/* Wire call types; not the application's eci_call_type. */
constexpr int WIRE_CALL_PROGRAM = 1; // the transaction id is eci_transid
constexpr int WIRE_CALL_LIST_SYSTEMS = 9;
constexpr int WIRE_CALL_TPN = 12; // the transaction id is eci_tpn

constexpr int NO_XID = -1;

/* A transaction branch identifier. */
typedef struct _XID {
    int format; // NO_XID suppresses the other fields on the wire
    int globalIdLen;
    char* globalId;
    int branchQualifierLen;
    char* branchQualifier;
} XID;

/* One call, on its way out or back. It owns nothing that it points to. */
typedef struct _ECIRequest {
    int callType;     // WIRE_CALL_...
    int extendedMode; // ECI_NO_EXTEND and the others
    int luwToken;     // out and back
    int messageQualifier;
    char callbackExists;
    char server[8];
    const char* userID;   // NUL-terminated or null
    const char* password; // NUL-terminated or null
    char program[8];
    char transid[4];
    char abendCode[4]; // from the reply
    int pyxaLen;       // 0 when there is no token
    char* pyxaToken;
    int commarealength;
    char* commarea;
    int commareaInboundLength;  // 0 = not given
    int commareaOutboundLength; // 0 = not given
    ECI_Channel_t* channel;     // null for a COMMAREA call
    short eciTimeout;
    char isAutomsgqual;
    XID xid;
    int qpxCorrelator;
    int server_num; // of a system list query
    int vornRc;     // from the reply
    int limited;    // 1: commarea has room for capacity bytes, the rest is dropped
    size_t capacity;
    size_t commareaChanged; // how many bytes at commarea the reply has set
    ArrivingBytes* section; // instead of channel: takes the reply's channel section as it comes
    std::atomic<int32_t>* beingSent; // null, or set to 0 once the request's data has been read
} ECIRequest;

/* Whether a call has data: one that ends a unit of work carries none, in either direction. */
inline bool clapiCarriesData(int extendMode)
{
    return extendMode != ECI_COMMIT && extendMode != ECI_BACKOUT;
}

/* Sets the header's datalength and sends the request. Its data has been read before the last bytes
 * leave, without which the Gateway cannot answer. */
int clapiFlowECIRequest(Socket socketDesc, GatewayRequest* header, ECIRequest* request);

/*
 * Reads a reply's body into the request. With limited 0 the reply's lengths are trusted.
 * 0, or the failure of a channel update; socket errors stay in the buffer's socketErr.
 */
int clapiReadECIResponse(SocketBuffer* sockBuffer, ECIRequest* request);

/*
 * Applies a channel section that clapiReadECIResponse has put aside. *broken tells whether it ended
 * before its last field. 0, or the failure of a channel update. The bytes of a large section are
 * given back as they are applied: what it holds afterwards is to be freed, and not read. Thread:
 * any, while the channel is held and nobody else uses it.
 */
int clapiApplyChannelSection(const ArrivingBytes* section, ECI_Channel_t* channel, bool* broken);

/* The inbound length that the reply to a program call gives, told from the bytes of its body
 * that are in the buffer and without reading them; 0 if it cannot be told. */
int clapiPeekInboundLength(const SocketBuffer* sockBuffer);

/* ---- ESI flows ---- */

/* Wire call types. */
constexpr int WIRE_CALL_VERIFY_PASSWORD = 0;
constexpr int WIRE_CALL_CHANGE_PASSWORD = 1;

typedef struct _ESIRequest {
    int callType; // WIRE_CALL_VERIFY_PASSWORD or the other
    const char* userID;
    const char* currentPassword;
    const char* newPassword; // of a change only
    char server[8];
    int vornRc;          // from the reply
    ESI_DETAILS details; // from the reply
} ESIRequest;

/* Sets the header's datalength and sends the request. The texts are not null, but for newPassword
 * of a verification. */
int clapiFlowESIRequest(Socket socketDesc, GatewayRequest* header, ESIRequest* request);

/* Reads a reply's body into the request. Socket errors stay in the buffer's socketErr. */
void clapiReadESIResponse(SocketBuffer* sockBuffer, ESIRequest* request);

#endif
