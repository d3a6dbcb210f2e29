/*
 * clapi_eci.h - the steps of a program call and of a collection.
 */
#ifndef CLAPI_ECI_H
#define CLAPI_ECI_H

#include "qpxclient.h"
#include "qpxclient_eci.h"

/* The name of a call type, or UNKNOWN_RC_STR. */
const char* getCallTypeString(int callType);

int verifyEciParms(QPX_ECI_PARMS* EciParms, int minVersion);

/* The steps behind the checks. EciParms takes the results; record is what it was when the call
 * began. */
int performEciExecute(QPX_ConnToken_t gwTok, QPX_ECI_PARMS* EciParms, const QPX_ECI_PARMS* record,
                      bool useChannel);
int getAsyncReply(QPX_ConnToken_t gwTok, QPX_ECI_PARMS* EciParms, const QPX_ECI_PARMS* record);

#endif
