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

namespace tp::writeChannel {
constexpr TracePoint entry     = tpEntry(3215, "clapi_socketcomms.writeChannel(sockBuffer=%p, channel=%p)\n");
constexpr TracePoint exit      = tpExit (3216, "clapi_socketcomms.writeChannel()\n");
constexpr TracePoint channel   = tpEvent(3245, "clapi_socketcomms.writeChannel() Writing channel \"%.16s\", CCSID=%d, num containers=%d\n");
constexpr TracePoint container = tpEvent(3246, "clapi_socketcomms.writeChannel() Writing container \"%.16s\", type=%s, CCSID=%d, data length=%lu\n");
constexpr TracePoint data      = tpData (3247, "clapi_socketcomms.writeChannel() data=%p len=%lu stopword=%8.8X\n");
}

namespace tp::readChannel {
constexpr TracePoint entry     = tpEntry(3217, "clapi_socketcomms.readChannel(sockBuffer=%p, channel=%p)\n");
constexpr TracePoint records   = tpDebug(3218, "clapi_socketcomms.readChannel() Return flow contains %d containers in channel \"%.16s\"\n");
constexpr TracePoint added     = tpEvent(3219, "clapi_socketcomms.readChannel() Container \"%.16s\" ADDED in VORN, type=%s, CCSID=%d, data length=%lu\n");
constexpr TracePoint deleted   = tpEvent(3220, "clapi_socketcomms.readChannel() Container \"%.16s\" DELETED in VORN\n");
constexpr TracePoint modified  = tpEvent(3221, "clapi_socketcomms.readChannel() Container \"%.16s\" MODIFIED in VORN, new length=%lu\n");
constexpr TracePoint unchanged = tpEvent(3222, "clapi_socketcomms.readChannel() Container \"%.16s\" is UNCHANGED\n");
constexpr TracePoint exit      = tpExit (3223, "clapi_socketcomms.readChannel() rc=%d\n");
}

namespace tp::addContainer {
constexpr TracePoint entry        = tpEntry(3224, "clapi_socketcomms.addContainer(sockBuffer=%p, channel=%p, tempCont=%p)\n");
constexpr TracePoint noMemory     = tpExc  (3225, "clapi_socketcomms.addContainer() Failed to allocate %lu bytes for new container\n");
constexpr TracePoint exit         = tpExit (3226, "clapi_socketcomms.addContainer() rc=%d\n");
constexpr TracePoint noDataMemory = tpExc  (3238, "clapi_socketcomms.addContainer() Failed to allocate %lu bytes for container data\n");
constexpr TracePoint data         = tpData (3248, "clapi_socketcomms.addContainer() data=%p len=%lu stopword=%8.8X\n");
}

namespace tp::deleteContainer {
constexpr TracePoint entry     = tpEntry(3227, "clapi_socketcomms.deleteContainer(channel=%p, name=%.16s)\n");
constexpr TracePoint notFound  = tpExc  (3228, "clapi_socketcomms.deleteContainer() Container \"%.16s\" not found in channel \"%.16s\"\n");
// Deliberate: no parentheses behind the function's name. Scripts that read traces know the line so.
constexpr TracePoint noCurrent = tpDebug(3229, "clapi_socketcomms.deleteContainer Current container is now NULL\n");
constexpr TracePoint current   = tpDebug(3230, "clapi_socketcomms.deleteContainer Current container is now \"%.16s\"\n");
constexpr TracePoint exit      = tpExit (3231, "clapi_socketcomms.deleteContainer() rc=%d\n");
}

namespace tp::modifyContainer {
constexpr TracePoint entry    = tpEntry(3232, "clapi_socketcomms.modifyContainer(sockBuffer=%p, channel=%p, tempCont=%p)\n");
constexpr TracePoint notFound = tpExc  (3233, "clapi_socketcomms.modifyContainer() Container \"%.16s\" not found in channel \"%.16s\"\n");
constexpr TracePoint freeing  = tpDebug(3234, "clapi_socketcomms.modifyContainer() Freeing %lu bytes of container data (%p)\n");
constexpr TracePoint noMemory = tpExc  (3235, "clapi_socketcomms.modifyContainer() Failed to allocate %lu bytes for container data\n");
constexpr TracePoint exit     = tpExit (3236, "clapi_socketcomms.modifyContainer() rc=%d\n");
constexpr TracePoint data     = tpData (3249, "clapi_socketcomms.modifyContainer() data=%p len=%lu stopword=%8.8X\n");
}

namespace tp::calculateESIRequestSize {
constexpr TracePoint entry = tpEntry(3237, "clapi_socketcomms.calculateESIRequestSize(request=%p)\n");
constexpr TracePoint exit  = tpExit (3238, "clapi_socketcomms.calculateESIRequestSize() size=%d\n");
}

namespace tp::clapiFlowESIRequest {
constexpr TracePoint entry = tpEntry(3239, "clapi_socketcomms.clapiFlowESIRequest(socketDesc=%lu, header=%p, request=%p)\n");
constexpr TracePoint exit  = tpExit (3240, "clapi_socketcomms.clapiFlowESIRequest() rc=%d\n");
}

namespace tp::clapiReadESIResponse {
constexpr TracePoint entry = tpEntry(3241, "clapi_socketcomms.clapiReadESIResponse(sockBuffer=%p, request=%p)\n");
constexpr TracePoint exit  = tpExit (3242, "clapi_socketcomms.clapiReadESIResponse()\n");
}

#endif
