/* Trace points of clapi_gwytok: 2000 to 2082. */
#ifndef TRACE_POINTS_CLAPI_GWYTOK_H
#define TRACE_POINTS_CLAPI_GWYTOK_H

#include "clapi_diag.h"

namespace tp::clapiCreateGatewayToken {
constexpr TracePoint entry               = tpEntry(2000, "clapi_gwytok.clapiCreateGatewayToken(gwTokPtr=%p, port=%d, connTimeout=%d, applid=%s, applidQualifier=%s)\n");
constexpr TracePoint allocated           = tpDebug(2001, "clapi_gwytok.clapiCreateGatewayToken() Called malloc for %d bytes. new token address=%p\n");
constexpr TracePoint noMemory            = tpExc  (2002, "clapi_gwytok.clapiCreateGatewayToken() Failed to allocate %d bytes\n");
constexpr TracePoint slotTable           = tpDebug(2003, "clapi_gwytok.clapiCreateGatewayToken() Initialized slot table, first slot=%d, last slot=%d\n");
constexpr TracePoint noAsyncReplyEvent   = tpExc  (2004, "clapi_gwytok.clapiCreateGatewayToken() Failed to create asyncReplyEvent\n");
constexpr TracePoint noRequestsEnded     = tpExc  (2005, "clapi_gwytok.clapiCreateGatewayToken() Failed to create requestsEnded event\n");
constexpr TracePoint noConnEvent         = tpExc  (2006, "clapi_gwytok.clapiCreateGatewayToken() Failed to create connEvent\n");
constexpr TracePoint noSendLock          = tpExc  (2007, "clapi_gwytok.clapiCreateGatewayToken() Failed to create send lock\n");
constexpr TracePoint noTableLock         = tpExc  (2008, "clapi_gwytok.clapiCreateGatewayToken() Failed to create table lock\n");
constexpr TracePoint created             = tpEvent(2009, "%s\n");
constexpr TracePoint exit                = tpExit (2010, "clapi_gwytok.clapiCreateGatewayToken() rc=%d (%s)\n");
constexpr TracePoint noRecvThreadEndedEvent = tpExc(2080, "clapi_gwytok.clapiCreateGatewayToken() Failed to create recvThreadEndedEvent\n");
}

namespace tp::openClientSocket {
constexpr TracePoint entry     = tpEntry(2011, "clapi_gwytok.openClientSocket(gwTokPtr=%p) Attempting to connect to %s:%d connTimeout=%d\n");
constexpr TracePoint connected = tpEvent(2012, "clapi_gwytok.openClientSocket() Connected to Gateway %s:%u - socketDescriptor(%lu)\n");
constexpr TracePoint failed    = tpExc  (2013, "clapi_gwytok.openClientSocket() Failed to connect to Gateway %s:%u\n");
constexpr TracePoint exit      = tpExit (2014, "clapi_gwytok.openClientSocket() rc=%d (%s)\n");
}

namespace tp::clapiCloseGatewayToken {
constexpr TracePoint entry       = tpEntry(2015, "clapi_gwytok.clapiCloseGatewayToken(gwTokPtr=%p, lockRequired=%s)\n");
constexpr TracePoint noLock      = tpExc  (2016, "clapi_gwytok.clapiCloseGatewayToken() Failed to lock Gateway token list\n");
constexpr TracePoint notFound    = tpExc  (2017, "clapi_gwytok.clapiCloseGatewayToken() Gateway token=%p not found, findRc=%d\n");
constexpr TracePoint outstanding = tpDebug(2018, "clapi_gwytok.clapiCloseGatewayToken() There are %d API calls and %d async requests outstanding\n");
constexpr TracePoint exit        = tpExit (2019, "clapi_gwytok.clapiCloseGatewayToken() rc=%d (%s)\n");
constexpr TracePoint notArmed    = tpExc  (2065, "clapi_gwytok.clapiCloseGatewayToken() Failed to set requestsEnded event\n");
}

namespace tp::clapiRegisterRequest {
constexpr TracePoint entry    = tpEntry(2020, "clapi_gwytok.clapiRegisterRequest(gwTokPtr=%p)\n");
constexpr TracePoint noLock   = tpExc  (2021, "clapi_gwytok.clapiRegisterRequest() Failed to lock Gateway token list\n");
constexpr TracePoint notFound = tpExc  (2022, "clapi_gwytok.clapiRegisterRequest() Gateway token=%p not found, findRc=%d\n");
constexpr TracePoint counted  = tpEvent(2023, "clapi_gwytok.clapiRegisterRequest() Outstanding API calls=%d on gwTokPtr=%p\n");
constexpr TracePoint exit     = tpExit (2024, "clapi_gwytok.clapiRegisterRequest() rc=%d (%s)\n");
}

namespace tp::clapiUnregisterRequest {
constexpr TracePoint entry   = tpEntry(2025, "clapi_gwytok.clapiUnregisterRequest(gwTokPtr=%p)\n");
constexpr TracePoint noLock  = tpExc  (2026, "clapi_gwytok.clapiUnregisterRequest() Failed to lock Gateway token list\n");
constexpr TracePoint counted = tpEvent(2027, "clapi_gwytok.clapiUnregisterRequest() Outstanding API calls=%d on gwTokPtr=%p\n");
constexpr TracePoint exit    = tpExit (2028, "clapi_gwytok.clapiUnregisterRequest() rc=%d (%s)\n");
}

namespace tp::clapiDeleteGatewayToken {
constexpr TracePoint entry           = tpEntry(2029, "clapi_gwytok.clapiDeleteGatewayToken(gwTokPtr=%p, closeTimeout=%d, lockRequired=%s)\n");
constexpr TracePoint noLock          = tpExc  (2030, "clapi_gwytok.clapiDeleteGatewayToken() Failed to lock Gateway token list\n");
constexpr TracePoint notFound        = tpExc  (2031, "clapi_gwytok.clapiDeleteGatewayToken() Gateway token=%p not found, findRc=%d\n");
constexpr TracePoint freeing         = tpDebug(2032, "clapi_gwytok.clapiDeleteGatewayToken() Freeing gateway token at gwTokPtr=%p\n");
constexpr TracePoint exit            = tpExit (2033, "clapi_gwytok.clapiDeleteGatewayToken() rc=%d (%s)\n");
constexpr TracePoint notReleased     = tpExc  (2050, "clapi_gwytok.clapiDeleteGatewayToken() Failed to unlock Gateway token list\n");
constexpr TracePoint noLockAfterwards = tpExc (2081, "clapi_gwytok.clapiDeleteGatewayToken() Failed to lock Gateway token list after quiesce\n");
}

namespace tp::clapiDeleteGatewayTokens {
constexpr TracePoint entry = tpEntry(2034, "clapi_gwytok.clapiDeleteGatewayTokens()\n");
constexpr TracePoint token = tpEvent(2035, "clapi_gwytok.clapiDeleteGatewayTokens(indexToken=%p) GTL entry %4.4d: %s\n");
// Deliberate, here and below: no newline, the next line continues this one. Scripts that read
// traces know the lines so.
constexpr TracePoint empty = tpEvent(2036, "clapi_gwytok.clapiDeleteGatewayTokens() GTL is EMPTY");
constexpr TracePoint exit  = tpExit (2037, "clapi_gwytok.clapiDeleteGatewayTokens() Entries deleted=%d, rc=%d\n");
}

namespace tp::clapiDumpGatewayTokens {
constexpr TracePoint entry = tpEntry(2038, "clapi_gwytok.clapiDumpGatewayTokens()\n");
constexpr TracePoint exit  = tpExit (2039, "clapi_gwytok.clapiDumpGatewayTokens() List length=%d");
}

namespace tp::chainGatewayToken {
constexpr TracePoint entry     = tpEntry(2040, "clapi_gwytok.chainGatewayToken(newToken=%p)\n");
constexpr TracePoint nullToken = tpExc  (2041, "clapi_gwytok.chainGatewayToken() Chain request was for null token\n");
// Deliberate: the text names the release, although it is the request that has failed: scripts that
// read traces know the line so, and its number tells which it was.
constexpr TracePoint noLock    = tpExc  (2042, "clapi_gwytok.chainGatewayToken() Release lock failed");
constexpr TracePoint exit      = tpExit (2043, "clapi_gwytok.chainGatewayToken() rc=%d (%s)\n");
constexpr TracePoint corrupt   = tpExc  (2051, "clapi_gwytok.chainGatewayToken() GTL state corrupt - head(%p) tail (%p)\n");
}

namespace tp::findGatewayToken {
constexpr TracePoint entry     = tpEntry(2044, "clapi_gwytok.findGatewayToken(targetToken=%p, parentTokenPtrPtr=%p)\n");
constexpr TracePoint nullToken = tpExc  (2045, "clapi_gwytok.findGatewayToken() Token null\n");
constexpr TracePoint empty     = tpDebug(2046, "clapi_gwytok.findGatewayToken() GTL is EMPTY");
constexpr TracePoint found     = tpDebug(2047, "clapi_gwytok.findGatewayToken() Token found at GTL Entry(%d)");
constexpr TracePoint notFound  = tpDebug(2048, "clapi_gwytok.findGatewayToken() Token not found. GTL entries(%d) head(%p) last(%p)\n");
constexpr TracePoint exit      = tpExit (2049, "clapi_gwytok.findGatewayToken() rc=%d (%s)\n");
}

namespace tp::slotFind {
constexpr TracePoint entry      = tpEntry(2052, "clapi_gwytok.slotFind(requestTableP=%p, luwToken=%d, requestSlotPP=%p)\n");
constexpr TracePoint newTable   = tpDebug(2053, "clapi_gwytok.slotFind() Created new slot table at slotP=%p, first=%d, last=%d\n");
constexpr TracePoint noMemory   = tpExc  (2054, "clapi_gwytok.slotFind() Failed to allocate %d bytes for slot table\n");
constexpr TracePoint existing   = tpDebug(2055, "clapi_gwytok.slotFind() Found existing slot %d for request\n");
constexpr TracePoint exit       = tpExit (2056, "clapi_gwytok.slotFind() rc=%d (%s)\n");
constexpr TracePoint newEvent   = tpDebug(2059, "clapi_gwytok.slotFind() Creating request event for slot %d\n");
constexpr TracePoint active     = tpExc  (2064, "clapi_gwytok.slotFind() LUW token=%d has a call in progress in slot %d\n");
constexpr TracePoint noEvent    = tpExc  (2079, "clapi_gwytok.slotFind() Failed to create request event for slot %d\n");
constexpr TracePoint unknownLuw = tpExc  (2082, "clapi_gwytok.slotFind() LUW token=%d not found\n");
}

namespace tp::slotFree {
constexpr TracePoint entry     = tpEntry(2057, "clapi_gwytok.slotFree(requestTableP=%p, slotP=%p)\n");
constexpr TracePoint freeTable = tpDebug(2058, "clapi_gwytok.slotFree() Freeing slot table at slotP=%p, first=%d, last=%d\n");
constexpr TracePoint exit      = tpExit (2060, "clapi_gwytok.slotFree()\n");
}

namespace tp::slotLookup {
constexpr TracePoint entry    = tpEntry(2061, "clapi_gwytok.slotLookup(requestTableP=%p, messageId=%d, slotPP=%p)\n");
constexpr TracePoint notFound = tpExc  (2062, "clapi_gwytok.slotLookup() No slot found for message id %d\n");
constexpr TracePoint exit     = tpExit (2063, "clapi_gwytok.slotLookup() rc=%d (%s)\n");
}

namespace tp::quiesceConnection {
constexpr TracePoint entry           = tpEntry(2066, "clapi_gwytok.quiesceConnection(gwToken=%p, closeTimeout=%d)\n");
constexpr TracePoint noLock          = tpExc  (2067, "clapi_gwytok.quiesceConnection() Failed to lock slot table\n");
constexpr TracePoint notPosted       = tpExc  (2068, "clapi_gwytok.quiesceConnection() Failed to clear event to release waiting get reply calls\n");
constexpr TracePoint waiting         = tpEvent(2069, "clapi_gwytok.quiesceConnection() Waiting for %d API calls and %d async requests to complete\n");
constexpr TracePoint waitFailed      = tpExc  (2070, "clapi_gwytok.quiesceConnection() Failed to wait (indefinitely) for work to complete\n");
constexpr TracePoint waitingFor      = tpEvent(2071, "clapi_gwytok.quiesceConnection() Waiting %d seconds for %d API calls and %d async requests to complete\n");
constexpr TracePoint waitForFailed   = tpExc  (2072, "clapi_gwytok.quiesceConnection() Failed to wait (for %d seconds) for work to complete\n");
constexpr TracePoint receiverStays   = tpExc  (2073, "clapi_gwytok.quiesceConnection() Failed to wait on recvThreadEndedEvent\n");
constexpr TracePoint noLockAfterClose = tpExc (2074, "clapi_gwytok.quiesceConnection() Failed to lock slot table after close\n");
constexpr TracePoint waitingForCalls = tpEvent(2075, "clapi_gwytok.quiesceConnection() Waiting for %d API calls to complete\n");
constexpr TracePoint callsStay       = tpExc  (2076, "clapi_gwytok.quiesceConnection() Failed to wait for API calls to complete\n");
constexpr TracePoint noLockAfterWait = tpExc  (2077, "clapi_gwytok.quiesceConnection() Failed to lock slot table after waiting\n");
constexpr TracePoint exit            = tpExit (2078, "clapi_gwytok.quiesceConnection() rc=%d (%s)\n");
}

#endif
