/* The exported calls with exactly these arguments and results. */
#include <stddef.h>

#include "eci_channel.h"
#include "qpxclient.h"
#include "qpxclient_eci.h"
#include "qpxclient_esi.h"

void takes_every_call(void);
void takes_every_call(void)
{
    int (*open_plain)(char*, int, QPX_ConnToken_t*, int) = QPX_openRemoteGatewayConnection;
    int (*open_applid)(char*, int, QPX_ConnToken_t*, int, char*,
                       char*) = QPX_openRemoteGatewayConnectionApplid;
    int (*close_one)(QPX_ConnToken_t*) = QPX_closeGatewayConnection;
    int (*purge)(QPX_ConnToken_t*, int) = QPX_purgeGatewayConnection;
    int (*close_all)(void) = QPX_closeAllGatewayConnections;
    int (*applid)(QPX_ConnToken_t, char**) = QPX_getApplid;
    int (*qualifier)(QPX_ConnToken_t, char**) = QPX_getApplidQualifier;
    int (*api_version)(char**) = QPX_getAPIVersion;
    int (*dll_version)(char**) = QPX_getDLLVersion;
    int (*dump)(void) = QPX_dumpState;
    char* (*rc_string)(int, char*) = QPX_getRcString;
    int (*get_level)(int*) = QPX_getAPITraceLevel;
    int (*set_level)(int) = QPX_setAPITraceLevel;
    int (*set_file)(char*) = QPX_setAPITraceFile;
    void (*set_length)(size_t) = QPX_setAPITraceDataLength;
    void (*set_offset)(size_t) = QPX_setAPITraceDataOffset;
    int (*execute)(QPX_ConnToken_t, QPX_ECI_PARMS*) = QPX_ECI_Execute;

    (void)open_plain;
    (void)open_applid;
    (void)close_one;
    (void)purge;
    (void)close_all;
    (void)applid;
    (void)qualifier;
    (void)api_version;
    (void)dll_version;
    (void)dump;
    (void)rc_string;
    (void)get_level;
    (void)set_level;
    (void)set_file;
    (void)set_length;
    (void)set_offset;
    (void)execute;
}
