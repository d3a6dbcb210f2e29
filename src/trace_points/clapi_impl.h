/* Trace points of clapi_impl: 1000 to 1085. Numbers 1073 and 1077 are not used: the
   environment either switches the trace file or fails to. */
#ifndef TRACE_POINTS_CLAPI_IMPL_H
#define TRACE_POINTS_CLAPI_IMPL_H

#include "clapi_diag.h"

namespace tp::QPX_openRemoteGatewayConnectionApplid {
// Deliberate: no closing parenthesis. Scripts that read traces know the line without one.
constexpr TracePoint entry       = tpEntry(1000, "API.QPX_openRemoteGatewayConnectionApplid(hostname=%s, port=%d, &gwTokPtr=%p, connTimeout=%d, applid=%s, applidQualifier=%s\n");
constexpr TracePoint badPort     = tpExc  (1001, "API.QPX_openRemoteGatewayConnectionApplid() Port value out of range, port=%d\n");
constexpr TracePoint nullTokPtr  = tpExc  (1002, "API.QPX_openRemoteGatewayConnectionApplid() NULL gateway token pointer, gwTokPtr=%p\n");
constexpr TracePoint badTimeout  = tpExc  (1003, "API.QPX_openRemoteGatewayConnectionApplid() Timeout value out of range, connTimeout=%d\n");
constexpr TracePoint nullHost    = tpExc  (1004, "API.QPX_openRemoteGatewayConnectionApplid() NULL host name, hostname=%p\n");
constexpr TracePoint nullApplid  = tpExc  (1005, "API.QPX_openRemoteGatewayConnectionApplid() NULL applid, applid=%p\n");
constexpr TracePoint nullQualifier = tpExc(1006, "API.QPX_openRemoteGatewayConnectionApplid() NULL applid qualifier, applidQualifier=%p\n");
constexpr TracePoint environment = tpDebug(1007, "API.QPX_openRemoteGatewayConnectionApplid() Environment variables: applidEnv=%s and applidQualifierEnv=%s\n");
constexpr TracePoint exit        = tpExit (1008, "API.QPX_openRemoteGatewayConnectionApplid() rc=%d (%s)\n");
}

namespace tp::QPX_closeGatewayConnection {
constexpr TracePoint entry      = tpEntry(1009, "API.QPX_closeGatewayConnection(gwTokPtr=%p)\n");
constexpr TracePoint nullTokPtr = tpExc  (1010, "API.QPX_closeGatewayConnection() NULL gateway token pointer, gwTokPtr=%p\n");
constexpr TracePoint nullToken  = tpExc  (1011, "API.QPX_closeGatewayConnection() NULL gateway token, *gwTokPtr=%p\n");
constexpr TracePoint closed     = tpEvent(1012, "API.QPX_closeGatewayConnection() Closed Gateway connection for token %p\n");
constexpr TracePoint exit       = tpExit (1013, "API.QPX_closeGatewayConnection(gwTokPtr=%p) rc=%d (%s)\n");
}

namespace tp::QPX_closeAllGatewayConnections {
constexpr TracePoint entry  = tpEntry(1014, "API.QPX_closeAllGatewayConnections()\n");
constexpr TracePoint closed = tpEvent(1015, "API.QPX_closeAllGatewayConnections() Closed all Gateway connections\n");
constexpr TracePoint exit   = tpExit (1016, "API.QPX_closeAllGatewayConnections() rc=%d (%s)\n");
}

namespace tp::QPX_listSystems {
constexpr TracePoint entry                = tpEntry(1017, "API.QPX_listSystems(gwTok=%p, Systems=%p, List=%p)\n");
constexpr TracePoint nullToken            = tpExc  (1018, "API.QPX_listSystems() NULL gateway token, gwTok=%p\n");
constexpr TracePoint nullSystems          = tpExc  (1019, "API.QPX_listSystems() NULL Systems Parameter, Systems=%p\n");
constexpr TracePoint nullList             = tpExc  (1020, "API.QPX_listSystems() NULL List Parameter, List=%p\n");
constexpr TracePoint noLock               = tpExc  (1021, "API.QPX_listSystems() Failed to lock slot table\n");
constexpr TracePoint notUnlocked          = tpExc  (1022, "API.QPX_listSystems() Failed to unlock slot table\n");
constexpr TracePoint notArmed             = tpExc  (1023, "API.QPX_listSystems() Failed to set request event\n");
constexpr TracePoint noSendLock           = tpExc  (1024, "API.QPX_listSystems() Failed to acquire send lock\n");
constexpr TracePoint sendLockStays        = tpExc  (1025, "API.QPX_listSystems() Failed to release send lock\n");
constexpr TracePoint noLockToFree         = tpExc  (1026, "API.QPX_listSystems() Failed to lock slot table to free slot\n");
constexpr TracePoint notUnlockedAfterFree = tpExc  (1027, "API.QPX_listSystems() Failed to unlock slot table after freeing slot\n");
constexpr TracePoint exit                 = tpExit (1028, "API.QPX_listSystems() rc=%d (%s)\n");
// Deliberate: the number of another call's ENTRY line, for none is left; the type tells which.
constexpr TracePoint notUnregistered      = tpExc  (1080, "API.QPX_listSystems() Unregister request failed\n");
}

namespace tp::QPX_getAPIVersion {
constexpr TracePoint entry   = tpEntry(1029, "API.QPX_getAPIVersion(apiVersPtr=%p)\n");
constexpr TracePoint nullPtr = tpExc  (1030, "API.QPX_getAPIVersion() Supplied pointer is NULL, apiVersPtr=%p\n");
constexpr TracePoint exit    = tpExit (1031, "API.QPX_getAPIVersion() rc=%d (%s)\n");
}

namespace tp::QPX_getDLLVersion {
constexpr TracePoint entry   = tpEntry(1032, "API.QPX_getDLLVersion(dllVersPtr=%p)\n");
constexpr TracePoint nullPtr = tpExc  (1033, "API.QPX_getDLLVersion() Supplied pointer is NULL, dllVersPtr=%p\n");
constexpr TracePoint exit    = tpExit (1034, "API.QPX_getDLLVersion() rc=%d (%s)\n");
}

namespace tp::QPX_getAPITraceLevel {
constexpr TracePoint entry   = tpEntry(1035, "API.QPX_getAPITraceLevel(traceStatePtr=%p)\n");
constexpr TracePoint nullPtr = tpExc  (1036, "API.QPX_getAPITraceLevel() Supplied pointer is NULL, traceStatePtr=%p\n");
constexpr TracePoint exit    = tpExit (1037, "API.QPX_getAPITraceLevel() rc=%d (%s)\n");
}

namespace tp::QPX_setAPITraceLevel {
constexpr TracePoint entry    = tpEntry(1038, "API.QPX_setAPITraceLevel(traceState=%d) Current trace level=%d\n");
constexpr TracePoint badLevel = tpExc  (1039, "API.QPX_setAPITraceLevel() Supplied trace state value %d was invalid\n");
constexpr TracePoint exit     = tpExit (1040, "API.QPX_setAPITraceLevel() rc=%d (%s) New trace level=%d\n");
}

namespace tp::QPX_setAPITraceFile {
constexpr TracePoint entry     = tpEntry(1041, "API.QPX_setAPITraceFile(traceFile=%s) Current trace destination=%s\n");
constexpr TracePoint switched  = tpDebug(1042, "API.QPX_setAPITraceFile() Trace file switched to new destination. Filename=%s\n");
constexpr TracePoint unchanged = tpDebug(1043, "API.QPX_setAPITraceFile() Trace file destination is unchanged. Filename=%s\n");
constexpr TracePoint failed    = tpExc  (1044, "API.QPX_setAPITraceFile(%s) file append failed with errno=%d. Trace file destination is unchanged. Filename=%s\n");
constexpr TracePoint exit      = tpExit (1045, "API.QPX_setAPITraceFile() rc=%d (%s) New trace destination=%s\n");
}

namespace tp::QPX_dumpState {
constexpr TracePoint entry = tpEntry(1046, "API.QPX_dumpState()\n");
constexpr TracePoint exit  = tpExit (1047, "API.QPX_dumpState() rc=%d (%s)\n");
}

namespace tp::QPX_setAPITraceDataLength {
constexpr TracePoint entry   = tpEntry(1048, "API.QPX_setAPITraceDataLength(dataLength=%lu)\n");
constexpr TracePoint changed = tpDebug(1049, "API.QPX_setAPITraceDataLength() Trace data truncation length changed from %lu to %lu\n");
constexpr TracePoint exit    = tpExit (1050, "API.QPX_setAPITraceDataLength()\n");
}

namespace tp::QPX_setAPITraceDataOffset {
constexpr TracePoint entry   = tpEntry(1051, "API.QPX_setAPITraceDataOffset(dataOffset=%lu)\n");
constexpr TracePoint changed = tpDebug(1052, "API.QPX_setAPITraceDataOffset() Trace data offset changed from %lu to %lu\n");
constexpr TracePoint exit    = tpExit (1053, "API.QPX_setAPITraceDataOffset()\n");
}

namespace tp::QPX_getApplid {
constexpr TracePoint entry     = tpEntry(1054, "API.QPX_getApplid(gwTok=%p, applid=%p)\n");
constexpr TracePoint nullToken = tpExc  (1055, "API.QPX_getApplid() NULL gateway token, gwTok=%p\n");
constexpr TracePoint nullPtr   = tpExc  (1056, "API.QPX_getApplid() Supplied pointer is NULL, applid=%p\n");
constexpr TracePoint exit      = tpExit (1057, "API.QPX_getApplid() rc=%d (%s)\n");
}

namespace tp::QPX_getApplidQualifier {
constexpr TracePoint entry     = tpEntry(1058, "API.QPX_getApplidQualifier(gwTok=%p, applidQualifier=%p)\n");
constexpr TracePoint nullToken = tpExc  (1059, "API.QPX_getApplidQualifier() NULL gateway token, gwTok=%p\n");
constexpr TracePoint nullPtr   = tpExc  (1060, "API.QPX_getApplidQualifier() Supplied pointer is NULL, applidQualifier=%p\n");
constexpr TracePoint exit      = tpExit (1061, "API.QPX_getApplidQualifier() rc=%d (%s)\n");
}

namespace tp::QPX_getRcString {
constexpr TracePoint entry = tpEntry(1062, "API.QPX_getRcString(rc=%d, rcString=%p)\n");
constexpr TracePoint exit  = tpExit (1063, "API.QPX_getRcString() rcString=%s\n");
}

namespace tp::getNextCorrelator {
constexpr TracePoint entry = tpEntry(1064, "clapi_impl.getNextCorrelator()\n");
constexpr TracePoint exit  = tpExit (1065, "clapi_impl.getNextCorrelator() correlator=%d\n");
}

namespace tp::clapiSetAPITraceParamsFromEnv {
constexpr TracePoint entry     = tpEntry(1066, "clapi_impl.clapiSetAPITraceParamsFromEnv()\n");
constexpr TracePoint length    = tpDebug(1067, "clapi_impl.clapiSetAPITraceParamsFromEnv() Environment variable %s=%s\n");
constexpr TracePoint lengthSet = tpDebug(1068, "clapi_impl.clapiSetAPITraceParamsFromEnv() Data truncation length set to %d\n");
constexpr TracePoint offset    = tpDebug(1069, "clapi_impl.clapiSetAPITraceParamsFromEnv() Environment variable %s=%s\n");
constexpr TracePoint offsetSet = tpDebug(1070, "clapi_impl.clapiSetAPITraceParamsFromEnv() Data offset set to %d\n");
constexpr TracePoint exit      = tpExit (1071, "clapi_impl.clapiSetAPITraceParamsFromEnv()\n");
}

namespace tp::clapiSetAPITraceFileFromEnv {
constexpr TracePoint switched  = tpDebug(1072, "clapi_impl.clapiSetAPITraceFileFromEnv() Trace file switched to new destination. Filename=%s\n");
constexpr TracePoint failed    = tpExc  (1074, "clapi_impl.clapiSetAPITraceFileFromEnv(%s) file append failed with errno=%d. Trace file destination is unchanged. Filename=%s\n");
}

namespace tp::clapiSetAPITraceLevelFromEnv {
constexpr TracePoint badLevel = tpExc(1075, "clapi_impl.clapiSetAPITraceLevelFromEnv() Supplied trace environment value %s was invalid\n");
}

namespace tp::clapiInitFunc {
constexpr TracePoint noTokenListLock   = tpExc(1076, "clapi_impl.clapiInitFunc() Init of Gateway Token List lock failed rc=%d\n");
constexpr TracePoint noChannelListLock = tpExc(1078, "clapi_impl.clapiInitFunc() Init of channel list lock failed rc=%d\n");
// Deliberate: two blanks before "failed". Scripts that read traces know the line with both.
constexpr TracePoint noCorrelatorLock  = tpExc(1079, "clapi_impl.clapiInitFunc() Init of correlator lock  failed rc=%d\n");
}

namespace tp::QPX_purgeGatewayConnection {
constexpr TracePoint entry      = tpEntry(1080, "API.QPX_purgeGatewayConnection(gwTokPtr=%p, closeTimeout=%d)\n");
constexpr TracePoint nullTokPtr = tpExc  (1081, "API.QPX_purgeGatewayConnection() NULL gateway token pointer, gwTokPtr=%p\n");
constexpr TracePoint nullToken  = tpExc  (1082, "API.QPX_purgeGatewayConnection() NULL gateway token, *gwTokPtr=%p\n");
constexpr TracePoint badTimeout = tpExc  (1083, "API.QPX_purgeGatewayConnection() Timeout value out of range, closeTimeout=%d\n");
constexpr TracePoint closed     = tpEvent(1084, "API.QPX_purgeGatewayConnection() Closed Gateway connection for token %p\n");
constexpr TracePoint exit       = tpExit (1085, "API.QPX_purgeGatewayConnection(gwTokPtr=%p) rc=%d (%s)\n");
}

#endif
