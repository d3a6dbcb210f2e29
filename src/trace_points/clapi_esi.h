/* Trace points of clapi_esi: 1800 to 1827. */
#ifndef TRACE_POINTS_CLAPI_ESI_H
#define TRACE_POINTS_CLAPI_ESI_H

#include "clapi_diag.h"

namespace tp::QPX_ESI_verifyPassword {
constexpr TracePoint entry           = tpEntry(1800, "API.QPX_ESI_verifyPassword(gwTok=%p, userid=%s, server=%s, esiDetailsPtr=%p)\n");
constexpr TracePoint nullToken       = tpExc  (1801, "API.QPX_ESI_verifyPassword() NULL gateway token, gwTok=%p\n");
constexpr TracePoint nullUserid      = tpExc  (1802, "API.QPX_ESI_verifyPassword() NULL user id, userid=%p\n");
constexpr TracePoint nullPassword    = tpExc  (1803, "API.QPX_ESI_verifyPassword() NULL password, password=%p\n");
constexpr TracePoint verifying       = tpEvent(1804, "API.QPX_ESI_verifyPassword() Verifying password for userid=%s on server=%s\n");
constexpr TracePoint exit            = tpExit (1805, "API.QPX_ESI_verifyPassword() rc=%d (%s)\n");
constexpr TracePoint notUnregistered = tpExc  (1826, "API.QPX_ESI_verifyPassword() Unregister request failed\n");
}

namespace tp::QPX_ESI_changePassword {
constexpr TracePoint entry           = tpEntry(1806, "API.QPX_ESI_changePassword(gwTok=%p, userid=%s, server=%s, esiDetailsPtr=%p)\n");
constexpr TracePoint nullToken       = tpExc  (1807, "API.QPX_ESI_changePassword() NULL gateway token, gwTok=%p\n");
constexpr TracePoint nullUserid      = tpExc  (1808, "API.QPX_ESI_changePassword() NULL user id, userid=%p\n");
constexpr TracePoint nullOldPassword = tpExc  (1809, "API.QPX_ESI_changePassword() NULL old password, oldPassword=%p\n");
constexpr TracePoint nullNewPassword = tpExc  (1810, "API.QPX_ESI_changePassword() NULL new password, newPassword=%p\n");
constexpr TracePoint changing        = tpEvent(1811, "API.QPX_ESI_changePassword() Changing password for userid=%s on server=%s\n");
constexpr TracePoint exit            = tpExit (1812, "API.QPX_ESI_changePassword() rc=%d (%s)\n");
constexpr TracePoint notUnregistered = tpExc  (1827, "API.QPX_ESI_changePassword() Unregister request failed\n");
}

namespace tp::QPX_ESI_convertTime {
// Deliberate: entry and exit end without a newline. Scripts that read traces know them so.
constexpr TracePoint entry   = tpEntry(1813, "API.QPX_ESI_convertTime(esiTime=%p, result=%p)");
constexpr TracePoint members = tpDebug(1814, "API.QPX_ESI_convertTime() tm members year=%d, month=%d, day=%d, hour=%d, min=%d, sec=%d, wday=%d, yday=%d\n");
constexpr TracePoint exit    = tpExit (1815, "API.QPX_ESI_convertTime()");
}

namespace tp::performEsiFlow {
constexpr TracePoint entry                = tpEntry(1816, "clapi_esi.performEsiFlow(gwTok=%p, esiRequest=%p, esiDetails=%p)\n");
constexpr TracePoint noLock               = tpExc  (1817, "clapi_esi.performEsiFlow() Failed to lock slot table\n");
constexpr TracePoint notUnlocked          = tpExc  (1818, "clapi_esi.performEsiFlow() Failed to unlock slot table\n");
constexpr TracePoint notArmed             = tpExc  (1819, "clapi_esi.performEsiFlow() Failed to set request event\n");
constexpr TracePoint noSendLock           = tpExc  (1820, "clapi_esi.performEsiFlow() Failed to acquire send lock\n");
constexpr TracePoint sendLockStays        = tpExc  (1821, "clapi_esi.performEsiFlow() Failed to release send lock\n");
constexpr TracePoint noLockToFree         = tpExc  (1822, "clapi_esi.performEsiFlow() Failed to lock slot table to free slot\n");
constexpr TracePoint notUnlockedAfterFree = tpExc  (1823, "clapi_esi.performEsiFlow() Failed to unlock slot table after freeing slot\n");
constexpr TracePoint exit                 = tpExit (1824, "clapi_esi.performEsiFlow() rc=%d (%s)\n");
}

namespace tp::mapGwyRc {
constexpr TracePoint mapped = tpDebug(1825, "clapi_esi.mapGwyRc() Mapped rc=%d to newRc=%d\n");
}

#endif
