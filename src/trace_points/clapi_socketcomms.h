/* Trace points of clapi_socketcomms: 3200 to 3249. */
#ifndef TRACE_POINTS_CLAPI_SOCKETCOMMS_H
#define TRACE_POINTS_CLAPI_SOCKETCOMMS_H

#include "clapi_diag.h"

namespace tp::clapiFlowHandshakeRequest {
constexpr TracePoint entry = tpEntry(3200, "clapi_socketcomms.clapiFlowHandshakeRequest(socketDesc=%lu, applid=%s, applidQualifier=%s)\n");
constexpr TracePoint exit  = tpExit (3201, "clapi_socketcomms.clapiFlowHandshakeRequest() rc=%d\n");
}

namespace tp::calculateECIRequestSize {
constexpr TracePoint entry = tpEntry(3202, "clapi_socketcomms.calculateECIRequestSize(request=%p)\n");
constexpr TracePoint exit  = tpExit (3203, "clapi_socketcomms.calculateECIRequestSize() requestSize=%d\n");
}

namespace tp::clapiFlowECIRequest {
constexpr TracePoint entry    = tpEntry(3204, "clapi_socketcomms.clapiFlowECIRequest(socketDesc=%lu, header=%p, request=%p)\n");
constexpr TracePoint exit     = tpExit (3205, "clapi_socketcomms.clapiFlowECIRequest() rc=%d\n");
constexpr TracePoint outbound = tpData (3243, "clapi_socketcomms.clapiFlowECIRequest() Commarea=%p len=%d stopword=%8.8X\n");
constexpr TracePoint commarea = tpData (3244, "clapi_socketcomms.clapiFlowECIRequest() Commarea=%p len=%d stopword=%8.8X\n");
}

namespace tp::clapiReadECIResponse {
constexpr TracePoint entry = tpEntry(3206, "clapi_socketcomms.clapiReadECIResponse(sockBuffer=%p, request=%p)\n");
constexpr TracePoint exit  = tpExit (3207, "clapi_socketcomms.clapiReadECIResponse() rc=%d\n");
}

namespace tp::clapiFlowCloseRequest {
constexpr TracePoint entry = tpEntry(3208, "clapi_socketcomms.clapiFlowCloseRequest(socketDesc=%lu)\n");
constexpr TracePoint exit  = tpExit (3209, "clapi_socketcomms.clapiFlowCloseRequest() rc=%d\n");
}

namespace tp::writeHeader {
constexpr TracePoint entry = tpEntry(3210, "clapi_socketcomms.writeHeader(sockBuffer=%p, req=%p)\n");
constexpr TracePoint exit  = tpExit (3211, "clapi_socketcomms.writeHeader()\n");
}

namespace tp::clapiReadHeader {
constexpr TracePoint entry         = tpEntry(3212, "clapi_socketcomms.clapiReadHeader(sockBuffer=%p, req=%p)\n");
constexpr TracePoint badEyecatcher = tpExc  (3213, "clapi_socketcomms.clapiReadHeader() Bad eyecatcher! Expected=0x%x, actual=0x%x\n");
constexpr TracePoint exit          = tpExit (3214, "clapi_socketcomms.clapiReadHeader() rc=%d\n");
}

namespace tp::clapiReadESIResponse {
constexpr TracePoint entry = tpEntry(3241, "clapi_socketcomms.clapiReadESIResponse(sockBuffer=%p, request=%p)\n");
constexpr TracePoint exit  = tpExit (3242, "clapi_socketcomms.clapiReadESIResponse()\n");
}

#endif
