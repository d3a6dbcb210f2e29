/*
 * clapi_rc.h - return codes: their names, and which of two failures counts.
 */
#ifndef CLAPI_RC_H
#define CLAPI_RC_H

#include "qpxclient.h"

/* What a code without a name is called. */
extern const char* const UNKNOWN_RC_STR;

/*
 * Names of return codes; never null. The first knows every family, in its fixed order: the
 * library's, then ECI's with that of channels and containers, then ESI's. Each of the others knows
 * its own, and clapiGetRcStringECI that of channels too.
 */
const char* clapiGetRcString(int rc);
const char* clapiGetRcStringECI(int rc);
const char* clapiGetRcStringESI(int rc); // ESI values and the Gateway's own
const char* clapiGetRcStringChannel(int rc);

/* The ESI family's code for the one that the Gateway reports; any other stays as it is. */
int clapiEsiRcFor(int gatewayCode);

/* The code of the earlier step, unless it succeeded. */
inline int firstFailure(int earlier, int later)
{
    return earlier != QPX_OK ? earlier : later;
}

#endif
