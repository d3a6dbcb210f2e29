/*
 * examples.c - the example of each manual page: the body of the function that bears its name.
 *
 * The manual shows the bodies as they are; the tests compile this program and run all of them with
 * the stand-in gateway.
 *
 *     examples HOST PORT TRACEFILE
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qpxclient_eci.h"
#include "qpxclient_esi.h"

static char* host;
static int port;
static char* trace_file;

/* ---- Connections -------------------------------------------------------------------------- */

static int QPX_openRemoteGatewayConnection_example(void)
{
    QPX_ConnToken_t gateway = NULL;
    char name[QPX_RC_STRING_SIZE];
    int rc = QPX_openRemoteGatewayConnection(host, port, &gateway, 30);

    if (rc != QPX_OK) {
        fprintf(stderr, "cannot open: %d %s\n", rc, QPX_getRcString(rc, name));
        return rc;
    }
    printf("connected\n");
    return QPX_closeGatewayConnection(&gateway);
}

static int QPX_openRemoteGatewayConnectionApplid_example(void)
{
    QPX_ConnToken_t gateway = NULL;
    char applid[] = "PAYROLL", qualifier[] = "BERLIN";
    int rc = QPX_openRemoteGatewayConnectionApplid(host, port, &gateway, 30, applid, qualifier);

    if (rc == QPX_OK) rc = QPX_closeGatewayConnection(&gateway);
    return rc;
}

static int QPX_closeGatewayConnection_example(QPX_ConnToken_t gateway)
{
    int rc = QPX_closeGatewayConnection(&gateway);

    gateway = NULL; /* the call does not change it */
    if (rc == QPX_ERR_LOSTGWCON) fprintf(stderr, "the Gateway went before the goodbye\n");
    return rc;
}

static int QPX_purgeGatewayConnection_example(QPX_ConnToken_t gateway)
{
    /* Calls in progress get ten seconds; then they end with QPX_ERR_GWTOK_CLOSED. */
    int rc = QPX_purgeGatewayConnection(&gateway, 10);

    gateway = NULL;
    return rc;
}

static int QPX_closeAllGatewayConnections_example(void)
{
    /* On the way out of the program, whatever is still open. */
    return QPX_closeAllGatewayConnections();
}

static int QPX_getApplid_example(QPX_ConnToken_t gateway)
{
    char* applid = NULL;
    int rc = QPX_getApplid(gateway, &applid);

    if (rc == QPX_OK) printf("applid \"%s\"\n", applid);
    return rc;
}

static int QPX_getApplidQualifier_example(QPX_ConnToken_t gateway)
{
    char* qualifier = NULL;
    int rc = QPX_getApplidQualifier(gateway, &qualifier);

    if (rc == QPX_OK) printf("qualifier \"%s\"\n", qualifier);
    return rc;
}

static int QPX_listSystems_example(QPX_ConnToken_t gateway)
{
    QPX_listSystem_t list[10];
    unsigned short count = 10, i;
    int rc = QPX_listSystems(gateway, &count, list);

    /* Of more servers than fit, as many as fit are there. */
    if (rc == QPX_ERR_MORE_SYSTEMS) count = 10;
    if (rc != QPX_OK && rc != QPX_ERR_MORE_SYSTEMS) return rc;
    for (i = 0; i < count; i++) printf("%.8s  %.60s\n", list[i].SystemName, list[i].Description);
    return QPX_OK;
}

/* ---- Versions, state and return code names ------------------------------------------------ */

static int QPX_getAPIVersion_example(void)
{
    char* version = NULL;
    int rc = QPX_getAPIVersion(&version);

    if (rc == QPX_OK) printf("programming interface %s\n", version);
    return rc;
}

static int QPX_getDLLVersion_example(void)
{
    char* version = NULL;
    int rc = QPX_getDLLVersion(&version);

    if (rc == QPX_OK) printf("library %s\n", version);
    return rc;
}

static int QPX_dumpState_example(void)
{
    int rc = QPX_setAPITraceFile(trace_file);

    if (rc == QPX_OK) rc = QPX_dumpState();
    return rc;
}

static int QPX_getRcString_example(void)
{
    char name[QPX_RC_STRING_SIZE];

    printf("%s\n", QPX_getRcString(QPX_ERR_BADPORT, name));
    return 0;
}

/* ---- Trace -------------------------------------------------------------------------------- */

static int QPX_setAPITraceFile_example(void)
{
    int rc = QPX_setAPITraceFile(trace_file);

    if (rc == QPX_ERR_TRACEFILE) fprintf(stderr, "cannot append to %s\n", trace_file);
    return rc;
}

static int QPX_setAPITraceLevel_example(void)
{
    int rc = QPX_setAPITraceLevel(3); /* entry and exit of functions */

    /* ... the calls to look at ... */
    QPX_setAPITraceLevel(0);
    return rc;
}

static int QPX_getAPITraceLevel_example(void)
{
    int level = 0;
    int rc = QPX_getAPITraceLevel(&level);

    if (rc == QPX_OK && level >= 4) printf("the trace has the data of calls in it\n");
    return rc;
}

static int QPX_setAPITraceDataLength_example(void)
{
    QPX_setAPITraceDataLength(0); /* dumps show all of the data */
    return 0;
}

static int QPX_setAPITraceDataOffset_example(void)
{
    /* The first 16 bytes of every block are the same header: the dumps begin behind it. */
    QPX_setAPITraceDataOffset(16);
    return 0;
}

/* ---- Calls of programs -------------------------------------------------------------------- */

static int QPX_ECI_Execute_example(QPX_ConnToken_t gateway)
{
    char area[32] = "Hello, server!";
    QPX_ECI_PARMS parms;
    int rc;

    memset(&parms, 0, sizeof parms);
    parms.eci_version = ECI_VERSION_6;
    parms.eci_call_type = ECI_SYNC;
    memcpy(parms.eci_program_name, "ECHO    ", 8);
    parms.eci_commarea = area;
    parms.eci_commarea_length = sizeof area;
    rc = QPX_ECI_Execute(gateway, &parms);
    if (rc == ECI_NO_ERROR) printf("%s\n", area);
    if (rc == ECI_ERR_TRANSACTION_ABEND) fprintf(stderr, "abend %.4s\n", parms.eci_abend_code);
    return rc;
}

static int QPX_ECI_Execute_Channel_example(QPX_ConnToken_t gateway)
{
    ECI_ChannelToken_t channel;
    QPX_ECI_PARMS parms;
    int rc = ECI_createChannel("ORDER", &channel);

    if (rc != ECI_NO_ERROR) return rc;
    rc = ECI_createContainer(channel, "CUSTOMER", ECI_CHAR, 819, "4711", 4);
    if (rc == ECI_NO_ERROR) {
        memset(&parms, 0, sizeof parms);
        parms.eci_version = ECI_VERSION_6;
        parms.eci_call_type = ECI_SYNC;
        memcpy(parms.eci_program_name, "CHANECHO", 8);
        parms.channel = channel;
        rc = QPX_ECI_Execute_Channel(gateway, &parms);
    }
    ECI_deleteChannel(&channel);
    return rc;
}

/* ---- Passwords ---------------------------------------------------------------------------- */

static int QPX_ESI_verifyPassword_example(QPX_ConnToken_t gateway)
{
    ESI_DETAILS details;
    int rc = QPX_ESI_verifyPassword(gateway, "FRED", "Blue7sky", NULL, &details);

    if (rc == QPX_OK) printf("%d wrong passwords before\n", details.invalidCount);
    if (rc == ESI_ERR_PASSWORD_EXPIRED) fprintf(stderr, "time for a new one\n");
    return rc;
}

static int QPX_ESI_changePassword_example(QPX_ConnToken_t gateway)
{
    int rc = QPX_ESI_changePassword(gateway, "FRED", "Blue7sky", "Green8sea", NULL, NULL);

    if (rc == QPX_ERR_LOSTGWCON) fprintf(stderr, "verify which of the two it is now\n");
    return rc;
}

static int QPX_ESI_convertTime_example(QPX_ConnToken_t gateway)
{
    ESI_DETAILS details;
    struct tm expiry;
    int rc = QPX_ESI_verifyPassword(gateway, "ANNA", "Paper4boat", NULL, &details);

    if (rc != QPX_OK) return rc;
    QPX_ESI_convertTime(&details.lastVerifiedTime, &expiry);
    printf("verified last on %d-%02d-%02d\n", expiry.tm_year + 1900, expiry.tm_mon + 1,
           expiry.tm_mday);
    return rc;
}

/* ---- Channels ----------------------------------------------------------------------------- */

static int ECI_createChannel_example(void)
{
    ECI_ChannelToken_t channel;
    int rc = ECI_createChannel("ORDER", &channel);

    if (rc == ECI_NO_ERROR) rc = ECI_deleteChannel(&channel);
    return rc;
}

static int ECI_deleteChannel_example(ECI_ChannelToken_t channel)
{
    int rc = ECI_deleteChannel(&channel);

    if (rc == ECI_NO_ERROR && channel == NULL) printf("gone, with all its containers\n");
    return rc;
}

static int ECI_deleteAllChannels_example(void)
{
    /* At the end, when no other thread is at work on a channel. */
    return ECI_deleteAllChannels();
}

static int ECI_getChannelName_example(ECI_ChannelToken_t channel)
{
    char name[ECI_NAME_SIZE];
    int rc = ECI_getChannelName(channel, name);

    if (rc == ECI_NO_ERROR) printf("channel %s\n", name);
    return rc;
}

static int QPX_ECI_dumpChannels_example(void)
{
    int rc = QPX_setAPITraceFile(trace_file);

    if (rc == QPX_OK) rc = QPX_ECI_dumpChannels();
    return rc;
}

static int ECI_createContainer_example(ECI_ChannelToken_t channel)
{
    const char text[] = "Gr\303\274\303\237 Gott"; /* UTF-8, which is 1208 */
    const unsigned char bytes[] = {0x00, 0x01, 0x02};
    int rc = ECI_createContainer(channel, "GREETING", ECI_CHAR, 1208, text, sizeof text - 1);

    if (rc == ECI_NO_ERROR)
        rc = ECI_createContainer(channel, "NUMBERS", ECI_BIT, 0, bytes, sizeof bytes);
    return rc;
}

static int ECI_setContainerData_example(ECI_ChannelToken_t channel)
{
    const char text[] = "Good morning";

    return ECI_setContainerData(channel, "GREETING", text, sizeof text - 1);
}

static int ECI_getContainerInfo_example(ECI_ChannelToken_t channel)
{
    ECI_CONTAINER_INFO info;
    int rc = ECI_getContainerInfo(channel, "GREETING", &info);

    if (rc == ECI_NO_ERROR)
        printf("%lu bytes of code page %d\n", (unsigned long)info.dataLength, info.ccsid);
    return rc;
}

static int ECI_getContainerData_example(ECI_ChannelToken_t channel)
{
    char piece[4];
    size_t offset = 0, count = 0;
    int rc;

    do {
        rc = ECI_getContainerData(channel, "GREETING", piece, sizeof piece, offset, &count);
        if (rc == ECI_NO_ERROR) printf("%.*s|", (int)count, piece);
        offset += count;
    } while (rc == ECI_NO_ERROR && count == sizeof piece);
    printf("\n");
    return rc;
}

static int ECI_getFirstContainer_example(ECI_ChannelToken_t channel)
{
    ECI_CONTAINER_INFO newest;
    int rc = ECI_getFirstContainer(channel, &newest);

    if (rc == ECI_NO_ERROR) printf("newest: %s\n", newest.name);
    return rc;
}

static int ECI_getNextContainer_example(ECI_ChannelToken_t channel)
{
    ECI_CONTAINER_INFO info;
    int rc = ECI_getFirstContainer(channel, &info);

    while (rc == ECI_NO_ERROR) {
        printf("%s\n", info.name);
        rc = ECI_getNextContainer(channel, &info);
    }
    return rc == ECI_ERR_ENDOFCONTAINERS ? ECI_NO_ERROR : rc;
}

static int ECI_deleteContainer_example(ECI_ChannelToken_t channel)
{
    int rc = ECI_deleteContainer(channel, "GREETING");

    if (rc == ECI_ERR_CONTAINER_NOTFOUND) printf("it has not been there\n");
    return rc;
}

/* ---- All of them -------------------------------------------------------------------------- */

static void must(const char* example, int rc)
{
    char name[QPX_RC_STRING_SIZE];

    if (rc == 0) return;
    fprintf(stderr, "%s: %d %s\n", example, rc, QPX_getRcString(rc, name));
    exit(1);
}

#define RUN(call, arguments) must(#call, call##_example arguments)

static QPX_ConnToken_t open_gateway(void)
{
    QPX_ConnToken_t gateway = NULL;
    char applid[] = "MANUAL", qualifier[] = "PAGES";

    must("open",
         QPX_openRemoteGatewayConnectionApplid(host, port, &gateway, 30, applid, qualifier));
    return gateway;
}

static void run_with_a_channel(void)
{
    ECI_ChannelToken_t channel;

    must("channel", ECI_createChannel("ORDER", &channel));
    RUN(ECI_getChannelName, (channel));
    RUN(ECI_createContainer, (channel));
    RUN(ECI_setContainerData, (channel));
    RUN(ECI_getContainerInfo, (channel));
    RUN(ECI_getContainerData, (channel));
    RUN(ECI_getFirstContainer, (channel));
    RUN(ECI_getNextContainer, (channel));
    RUN(QPX_ECI_dumpChannels, ());
    RUN(ECI_deleteContainer, (channel));
    RUN(ECI_deleteChannel, (channel));
    RUN(ECI_createChannel, ());
    RUN(ECI_deleteAllChannels, ());
}

static void run_with_a_connection(void)
{
    QPX_ConnToken_t gateway = open_gateway();

    RUN(QPX_getApplid, (gateway));
    RUN(QPX_getApplidQualifier, (gateway));
    RUN(QPX_listSystems, (gateway));
    RUN(QPX_ECI_Execute, (gateway));
    RUN(QPX_ECI_Execute_Channel, (gateway));
    RUN(QPX_ESI_verifyPassword, (gateway));
    RUN(QPX_ESI_changePassword, (gateway));
    RUN(QPX_ESI_convertTime, (gateway));
    RUN(QPX_dumpState, ());
    RUN(QPX_closeGatewayConnection, (gateway));
    RUN(QPX_purgeGatewayConnection, (open_gateway()));
    RUN(QPX_closeAllGatewayConnections, ());
}

int main(int argc, char** argv)
{
    if (argc != 4) {
        fprintf(stderr, "usage: examples HOST PORT TRACEFILE\n");
        return 2;
    }
    host = argv[1];
    port = atoi(argv[2]);
    trace_file = argv[3];

    RUN(QPX_getRcString, ());
    RUN(QPX_getAPIVersion, ());
    RUN(QPX_getDLLVersion, ());
    RUN(QPX_setAPITraceFile, ());
    RUN(QPX_setAPITraceLevel, ());
    RUN(QPX_getAPITraceLevel, ());
    RUN(QPX_setAPITraceDataLength, ());
    RUN(QPX_setAPITraceDataOffset, ());
    RUN(QPX_openRemoteGatewayConnection, ());
    RUN(QPX_openRemoteGatewayConnectionApplid, ());
    run_with_a_connection();
    run_with_a_channel();
    return fflush(stdout) == 0 && !ferror(stdout) ? 0 : 1;
}
