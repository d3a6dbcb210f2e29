/*
 * asynchronous.c - calls that do not wait for each other: all requests go out first, then the
 * replies are collected in whatever order they come.
 *
 *     asynchronous [HOST [PORT]]
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qpxclient_eci.h"

#define CALLS     5
#define AREA_SIZE 32

static void complain(const char* what, int rc)
{
    char name[QPX_RC_STRING_SIZE];

    fprintf(stderr, "%s: %s (%d)\n", what, QPX_getRcString(rc, name), rc);
}

/* Sends a request, and keeps what names its reply. Its COMMAREA may be used again at once. */
static int send(QPX_ConnToken_t gateway, int number, int* qualifier)
{
    char area[AREA_SIZE] = "";
    QPX_ECI_PARMS parms = {.eci_version = ECI_VERSION_6,
                           .eci_call_type = ECI_ASYNC,
                           .eci_program_name = "ECHO",
                           .eci_commarea = area,
                           .eci_commarea_length = sizeof area};
    int rc;

    sprintf(area, "request %d", number);
    rc = QPX_ECI_Execute(gateway, &parms);
    *qualifier = parms.eci_message_qualifier;
    if (rc != ECI_NO_ERROR) complain("send", rc);
    return rc;
}

/* Waits for the next reply, whosever it is; ECI_GET_SPECIFIC_REPLY_WAIT would wait for one. The
 * record is that of the request afterwards. */
static int collect(QPX_ConnToken_t gateway, const int qualifiers[CALLS])
{
    char area[AREA_SIZE] = "";
    QPX_ECI_PARMS parms = {.eci_version = ECI_VERSION_6,
                           .eci_call_type = ECI_GET_REPLY_WAIT,
                           .eci_commarea = area,
                           .eci_commarea_length = sizeof area};
    int rc = QPX_ECI_Execute(gateway, &parms);
    int i = 0;

    if (rc != ECI_NO_ERROR) {
        complain("collect", rc);
        return rc;
    }
    while (i < CALLS && qualifiers[i] != parms.eci_message_qualifier) ++i;
    printf("reply to request %d: %.*s\n", i + 1, AREA_SIZE, area);
    return rc;
}

int main(int argc, char** argv)
{
    QPX_ConnToken_t gateway = NULL;
    int qualifiers[CALLS] = {0};
    int sent = 0, collected = 0;
    int rc = QPX_openRemoteGatewayConnection(argc > 1 ? argv[1] : "127.0.0.1",
                                             argc > 2 ? atoi(argv[2]) : 5770, &gateway, 30);

    if (rc != QPX_OK) {
        complain("open", rc);
        return 1;
    }
    while (sent < CALLS && send(gateway, sent + 1, &qualifiers[sent]) == ECI_NO_ERROR) ++sent;
    while (collected < sent && collect(gateway, qualifiers) == ECI_NO_ERROR) ++collected;
    /* A close in order would wait for replies that nobody collects any more. */
    if (collected == sent)
        QPX_closeGatewayConnection(&gateway);
    else
        QPX_purgeGatewayConnection(&gateway, 0);
    if (fflush(stdout) == 0 && !ferror(stdout)) return collected != CALLS;
    fprintf(stderr, "cannot write to standard output\n");
    return 1;
}
