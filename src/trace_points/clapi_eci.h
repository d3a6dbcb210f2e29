/* Trace points of clapi_eci: 1500 to 1566. */
#ifndef TRACE_POINTS_CLAPI_ECI_H
#define TRACE_POINTS_CLAPI_ECI_H

#include "clapi_diag.h"

namespace tp::QPX_ECI_Execute {
constexpr TracePoint entry           = tpEntry(1500, "API.QPX_ECI_Execute(gwTok=%p, EciParms=%p)\n");
constexpr TracePoint nullToken       = tpExc  (1501, "API.QPX_ECI_Execute() NULL gateway token, gwTok=%p\n");
constexpr TracePoint nullParms       = tpExc  (1502, "API.QPX_ECI_Execute() NULL Eci Parameter, EciParms=%p\n");
constexpr TracePoint closing         = tpExc  (1503, "API.QPX_ECI_Execute() %s call attempted while connection is closing\n");
constexpr TracePoint recordBefore    = tpDebug(1504, "API.QPX_ECI_Execute() EciParms=%p len=%d stopword=%8.8X\n");
// Deliberate: no parentheses behind the function's name. Scripts that read traces know the line so.
constexpr TracePoint recordAfter     = tpDebug(1505, "API.QPX_ECI_Execute EciParms=%p len=%d stopword=%8.8X\n");
constexpr TracePoint exit            = tpExit (1506, "API.QPX_ECI_Execute() rc=%d (%s)\n");
constexpr TracePoint commarea        = tpDebug(1561, "API.QPX_ECI_Execute() Commarea=%p len=%d stopword=%8.8X\n");
constexpr TracePoint notUnregistered = tpExc  (1563, "API.QPX_ECI_Execute() Unregister request failed\n");
}

namespace tp::QPX_ECI_Execute_Channel {
constexpr TracePoint entry              = tpEntry(1507, "API.QPX_ECI_Execute_Channel(gwTok=%p, EciParms=%p)\n");
constexpr TracePoint nullToken          = tpExc  (1508, "API.QPX_ECI_Execute_Channel() NULL gateway token, gwTok=%p\n");
constexpr TracePoint nullParms          = tpExc  (1509, "API.QPX_ECI_Execute_Channel() NULL Eci Parameter, EciParms=%p\n");
constexpr TracePoint nullChannel        = tpExc  (1510, "API.QPX_ECI_Execute_Channel() NULL channel, channel=%p\n");
constexpr TracePoint channelAndCommarea = tpExc  (1511, "API.QPX_ECI_Execute_Channel() EciParms contains a channel and a COMMAREA, channel=%p, eci_commarea=%p\n");
constexpr TracePoint closing            = tpExc  (1512, "API.QPX_ECI_Execute_Channel() %s call attempted while connection is closing\n");
constexpr TracePoint recordBefore       = tpDebug(1513, "API.QPX_ECI_Execute_Channel() EciParms=%p len=%d stopword=%8.8X\n");
// Deliberate: no parentheses behind the function's name. Scripts that read traces know the line so.
constexpr TracePoint recordAfter        = tpDebug(1515, "API.QPX_ECI_Execute_Channel EciParms=%p len=%d stopword=%8.8X\n");
constexpr TracePoint exit               = tpExit (1516, "API.QPX_ECI_Execute_Channel() rc=%d (%s)\n");
constexpr TracePoint channelStays       = tpExc  (1564, "API.QPX_ECI_Execute_Channel() Unlock channel failed\n");
constexpr TracePoint notUnregistered    = tpExc  (1565, "API.QPX_ECI_Execute_Channel() Unregister request failed\n");
}

namespace tp::performEciExecute {
constexpr TracePoint entry           = tpEntry(1517, "clapi_eci.performEciExecute(gwTok=%p, EciParms=%p, useChannel=%s)\n");
constexpr TracePoint noLock          = tpExc  (1518, "clapi_eci.performEciExecute() Failed to lock slot table\n");
constexpr TracePoint notUnlocked     = tpExc  (1519, "clapi_eci.performEciExecute() Failed to unlock slot table\n");
constexpr TracePoint replyBuffer     = tpDebug(1520, "clapi_eci.performEciExecute() Allocated %d bytes for async commarea=%p\n");
constexpr TracePoint noReplyBuffer   = tpExc  (1521, "clapi_eci.performEciExecute() Failed to allocate %d bytes for async commarea\n");
constexpr TracePoint notArmed        = tpExc  (1522, "clapi_eci.performEciExecute() Failed to set request event in slot\n");
constexpr TracePoint noLockToCount   = tpExc  (1523, "clapi_eci.performEciExecute() Failed to lock slot table to update async count\n");
constexpr TracePoint counted         = tpDebug(1524, "clapi_eci.performEciExecute() Async requests=%d on gwTok=%p\n");
constexpr TracePoint notUnlockedAfterCount = tpExc(1525, "clapi_eci.performEciExecute() Failed to unlock slot table after updating async count\n");
constexpr TracePoint noSendLock      = tpExc  (1526, "clapi_eci.performEciExecute() Failed to acquire send lock\n");
constexpr TracePoint sendLockStays   = tpExc  (1527, "clapi_eci.performEciExecute() Failed to release send lock\n");
constexpr TracePoint noLockToUncount = tpExc  (1528, "clapi_eci.performEciExecute() Failed to lock slot table to update async count\n");
constexpr TracePoint uncounted       = tpDebug(1529, "clapi_eci.performEciExecute() Async requests=%d on gwTok=%p\n");
constexpr TracePoint notUnlockedAfterUncount = tpExc(1530, "clapi_eci.performEciExecute() Failed to unlock slot table after updating async count\n");
constexpr TracePoint noLockToFree    = tpExc  (1531, "clapi_eci.performEciExecute() Failed to lock slot table to free slot\n");
constexpr TracePoint notUnlockedAfterFree = tpExc(1532, "clapi_eci.performEciExecute() Failed to unlock slot table after freeing slot\n");
constexpr TracePoint usingPointers   = tpDebug(1533, "clapi_eci.performEciExecute() eci_version set to %d, using eci_userid_ptr and eci_password_ptr\n");
constexpr TracePoint usingFields     = tpDebug(1534, "clapi_eci.performEciExecute() eci_version set to %d, using eci_userid and eci_password\n");
constexpr TracePoint exit            = tpExit (1535, "clapi_eci.performEciExecute() rc=%d (%s)\n");
}

namespace tp::getAsyncReply {
constexpr TracePoint entry            = tpEntry(1536, "clapi_eci.getAsyncReply(gwTok=%p, EciParms=%p)\n");
constexpr TracePoint noLock           = tpExc  (1537, "clapi_eci.getAsyncReply() Failed to lock slot table\n");
constexpr TracePoint notUnlocked      = tpExc  (1538, "clapi_eci.getAsyncReply() Failed to unlock slot table before waiting\n");
constexpr TracePoint waitFailed       = tpExc  (1539, "clapi_eci.getAsyncReply() Failed to wait on asyncReplyEvent\n");
constexpr TracePoint noLockAfterWait  = tpExc  (1540, "clapi_eci.getAsyncReply() Failed to lock slot table after waiting\n");
constexpr TracePoint notArmed         = tpExc  (1541, "clapi_eci.getAsyncReply() Failed to set asyncReplyEvent\n");
constexpr TracePoint found            = tpDebug(1542, "clapi_eci.getAsyncReply() Async reply found, msg qual=%d\n");
constexpr TracePoint tooSmall         = tpExc  (1543, "clapi_eci.getAsyncReply() Caller commarea len=%d is smaller than inbound commarea len=%d\n");
constexpr TracePoint freeing          = tpDebug(1544, "clapi_eci.getAsyncReply() Freeing async commarea=%p\n");
constexpr TracePoint counted          = tpDebug(1545, "clapi_eci.getAsyncReply() Async requests=%d on gwTok=%p\n");
constexpr TracePoint notArmedAfterwards = tpExc(1546, "clapi_eci.getAsyncReply() Failed to set asyncReplyEvent\n");
constexpr TracePoint exit             = tpExit (1547, "clapi_eci.getAsyncReply() rc=%d (%s)\n");
constexpr TracePoint notOpen          = tpExc  (1562, "clapi_eci.getAsyncReply() Connection status not open\n");
constexpr TracePoint channelStays     = tpExc  (1566, "clapi_eci.getAsyncReply() Unlock channel failed\n");
}

namespace tp::verifyEciParms {
constexpr TracePoint entry              = tpEntry(1548, "clapi_eci.verifyEciParms(EciParms=%p, minVersion=%d)\n");
constexpr TracePoint badVersion         = tpExc  (1549, "clapi_eci.verifyEciParms() Invalid ECI Version, EciParms=%p, eci_version=%d\n");
constexpr TracePoint badCallType        = tpExc  (1550, "clapi_eci.verifyEciParms() Invalid Call Type, EciParms=%p, eci_call_type=%d\n");
constexpr TracePoint callType           = tpDebug(1551, "clapi_eci.verifyEciParms() Call type is %s\n");
constexpr TracePoint badVersionForCall  = tpExc  (1552, "clapi_eci.verifyEciParms() Invalid ECI Version, EciParms=%p, eci_version=%d\n");
constexpr TracePoint badExtendMode      = tpExc  (1553, "clapi_eci.verifyEciParms() Invalid Extend Mode, EciParms=%p, eci_extend_mode=%d\n");
constexpr TracePoint badLength          = tpExc  (1554, "clapi_eci.verifyEciParms() Invalid Data Length, EciParms=%p, eci_commarea_length=%d\n");
constexpr TracePoint badInboundLength   = tpExc  (1555, "clapi_eci.verifyEciParms() Invalid Data Length, EciParms=%p, commarea_inbound_length=%d\n");
constexpr TracePoint badOutboundLength  = tpExc  (1556, "clapi_eci.verifyEciParms() Invalid Data Length, EciParms=%p, commarea_outbound_length=%d\n");
// Deliberate: a blank before the newline. Scripts that read traces know the line with it.
constexpr TracePoint noCommarea         = tpExc  (1557, "clapi_eci.verifyEciParms() Invalid Data Area, EciParms=%p, Commarea NULL but eci_commarea_length=%d \n");
constexpr TracePoint unusedCommarea     = tpExc  (1558, "clapi_eci.verifyEciParms() Invalid Data Area, EciParms=%p, Commarea not NULL but eci_commarea_length=0\n");
constexpr TracePoint badTimeout         = tpExc  (1559, "clapi_eci.verifyEciParms() Invalid Timeout, EciParms=%p, eci_timeout=%d\n");
constexpr TracePoint exit               = tpExit (1560, "clapi_eci.verifyEciParms() rc=%d (%s)\n");
}

#endif
