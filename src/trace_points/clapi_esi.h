/* Trace points of clapi_esi: 1800 to 1827. */
#ifndef TRACE_POINTS_CLAPI_ESI_H
#define TRACE_POINTS_CLAPI_ESI_H

#include "clapi_diag.h"

namespace tp::mapGwyRc {
constexpr TracePoint mapped = tpDebug(1825, "clapi_esi.mapGwyRc() Mapped rc=%d to newRc=%d\n");
}

#endif
