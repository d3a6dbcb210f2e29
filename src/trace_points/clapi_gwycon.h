/* Trace points of clapi_gwycon: 3000 to 3046. */
#ifndef TRACE_POINTS_CLAPI_GWYCON_H
#define TRACE_POINTS_CLAPI_GWYCON_H

#include "clapi_diag.h"

namespace tp::clapiConnectToGateway {
constexpr TracePoint entry           = tpEntry(3000, "clapi_gwycon.clapiConnectToGateway(port=%d, ipAddr=%p, gwTokPtr=%p, connTimeout=%d, applid=%s, applidQualifier=%s)\n");
constexpr TracePoint creatingSocket  = tpDebug(3001, "clapi_gwycon.clapiConnectToGateway() Creating socket for family %d, type %d, protocol %d\n");
constexpr TracePoint noSocket        = tpExc  (3002, "clapi_gwycon.clapiConnectToGateway() Unable to create a socket: %s (%d)\n");
constexpr TracePoint noOptions       = tpExc  (3003, "clapi_gwycon.clapiConnectToGateway() Set socket to KeepAlive or NoDelay failed: %lu\n");
constexpr TracePoint waiting         = tpDebug(3004, "clapi_gwycon.clapiConnectToGateway() Waiting for connect to complete\n");
constexpr TracePoint notConnected    = tpExc  (3005, "clapi_gwycon.clapiConnectToGateway() Unable to connect to Gateway: %s (%d)\n");
constexpr TracePoint connected       = tpDebug(3006, "clapi_gwycon.clapiConnectToGateway() Connected to Gateway %s:%u\n");
constexpr TracePoint creatingThread  = tpDebug(3007, "clapi_gwycon.clapiConnectToGateway() Creating receiver thread\n");
constexpr TracePoint noThread        = tpExc  (3008, "clapi_gwycon.clapiConnectToGateway() Failed to create receiver thread, rc=%d\n");
constexpr TracePoint notSent         = tpExc  (3009, "clapi_gwycon.clapiConnectToGateway() Handshake flow failed rc=%d (%s)\n");
constexpr TracePoint awaitingAnswer  = tpDebug(3010, "clapi_gwycon.clapiConnectToGateway() Waiting for handshake response\n");
constexpr TracePoint refused         = tpExc  (3011, "clapi_gwycon.clapiConnectToGateway() Handshake flow returned an error: %d\n");
constexpr TracePoint exit            = tpExit (3012, "clapi_gwycon.clapiConnectToGateway() rc=%d (%s)\n");
}

namespace tp::getHostInfo {
constexpr TracePoint notResolved = tpExc(3013, "clapi_gwycon.getHostInfo() Unable to resolve host (%s:%s): %s (%d)\n");
}

namespace tp::failCutReply {
constexpr TracePoint noMemory = tpExc(3014, "clapi_gwycon.failCutReply() Failed to allocate %d bytes for the reply of an asynchronous request\n");
}

namespace tp::waitForConnection {
constexpr TracePoint entry        = tpEntry(3015, "clapi_gwycon.waitForConnection(socketDescriptorPtr=%p, sockError=%p, connTimeout=%d)\n");
constexpr TracePoint selecting    = tpDebug(3016, "clapi_gwycon.waitForConnection() Calling select() on socketdescriptor %lu\n");
constexpr TracePoint failed       = tpExc  (3017, "clapi_gwycon.waitForConnection() socket %lu connect() failed error: %s (%d)\n");
constexpr TracePoint timedOut     = tpExc  (3018, "clapi_gwycon.waitForConnection() socket %lu connect timed out\n");
constexpr TracePoint selectFailed = tpExc  (3019, "clapi_gwycon.waitForConnection() socket %lu select() failed error: %s (%d)\n");
constexpr TracePoint exit         = tpExit (3020, "clapi_gwycon.waitForConnection() rc=%d (%s)\n");
}

namespace tp::closeSocket {
// Deliberate, both: no newline. Scripts that read traces know the lines without.
constexpr TracePoint entry = tpEntry(3021, "clapi_gwycon.closeSocket(socket=%lu)");
constexpr TracePoint exit  = tpExit (3022, "clapi_gwycon.closeSocket() rc=%d");
}

namespace tp::clapiCloseConnection {
constexpr TracePoint entry       = tpEntry(3023, "clapi_gwycon.clapiCloseConnection(conn=%p)\n");
constexpr TracePoint noLock      = tpExc  (3024, "clapi_gwycon.clapiCloseConnection() Failed to acquire send lock\n");
constexpr TracePoint notReleased = tpExc  (3025, "clapi_gwycon.clapiCloseConnection() Failed to release send lock\n");
constexpr TracePoint exit        = tpExit (3026, "clapi_gwycon.clapiCloseConnection() rc=%d (%s)\n");
}

namespace tp::receiverThread {
// Input outside of the protocol, which ends the connection.
constexpr TracePoint badTypeLength  = tpExc  (3027, "clapi_gwycon.receiverThread() Invalid request type length %d in a header\n");
constexpr TracePoint badDataLength  = tpExc  (3028, "clapi_gwycon.receiverThread() Invalid data length %d in a header\n");
constexpr TracePoint brokenBody     = tpExc  (3029, "clapi_gwycon.receiverThread() A field or record of a reply goes beyond its message\n");
constexpr TracePoint noRoomAside    = tpExc  (3030, "clapi_gwycon.receiverThread() Failed to allocate memory for a reply that came before its request was sent\n");
constexpr TracePoint entry          = tpEntry(3031, "clapi_gwycon.receiverThread(conn=%p)\n");
constexpr TracePoint waiting        = tpDebug(3032, "clapi_gwycon.receiverThread() Waiting for a reply\n");
constexpr TracePoint reply          = tpDebug(3033, "clapi_gwycon.receiverThread() Flow type is FLOW_REPLY, request type %s\n");
constexpr TracePoint noLock         = tpExc  (3034, "clapi_gwycon.receiverThread() Failed to acquire table lock\n");
constexpr TracePoint notReleased    = tpExc  (3034, "clapi_gwycon.receiverThread() Failed to release table lock\n");
constexpr TracePoint eciError       = tpExc  (3035, "clapi_gwycon.receiverThread() Gateway returned ECI error, rc=%d (%s)\n");
constexpr TracePoint esiError       = tpExc  (3036, "clapi_gwycon.receiverThread() Gateway returned ESI error, rc=%d (%s)\n");
constexpr TracePoint otherType      = tpExc  (3037, "clapi_gwycon.receiverThread() Gateway returned unexpected request type %s\n");
constexpr TracePoint error          = tpExc  (3038, "clapi_gwycon.receiverThread() Gateway returned a flow type of FLOW_ERROR, rc=%d (%s)\n");
constexpr TracePoint handshake      = tpDebug(3039, "clapi_gwycon.receiverThread() Flow type is FLOW_HANDSHAKE\n");
constexpr TracePoint exception      = tpExc  (3040, "clapi_gwycon.receiverThread() Gateway returned a flow type of FLOW_EXCEPTION\n");
constexpr TracePoint exit           = tpExit (3041, "clapi_gwycon.receiverThread()\n");
constexpr TracePoint closed         = tpEvent(3042, "clapi_gwycon.receiverThread() Connection closed, initiated by %s; closeRc=%d (%s)\n");
constexpr TracePoint exceptionText  = tpExc  (3043, "clapi_gwycon.receiverThread() Exception message: %.*s\n");
constexpr TracePoint noMemory       = tpExc  (3044, "clapi_gwycon.receiverThread() Failed to allocate %d bytes for exception message\n");
constexpr TracePoint ping           = tpDebug(3045, "clapi_gwycon.receiverThread() Flow type is FLOW_PING\n");
constexpr TracePoint closeFlow      = tpDebug(3046, "clapi_gwycon.receiverThread() Flow type is FLOW_CLOSE\n");
}

#endif
