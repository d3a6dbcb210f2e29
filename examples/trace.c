/*
 * trace.c - lists the servers behind a Gateway, and writes a trace of that one call to a file.
 *
 *     trace FILE [HOST [PORT]]
 *
 * The environment does the same for a whole program, without a change to it:
 * QPX_CLIENT_TRACE_LEVEL=4 QPX_CLIENT_TRACE_FILE=FILE.
 */
#include <stdio.h>
#include <stdlib.h>

#include "qpxclient.h"

#define ROOM 16

static int complain(const char* what, int rc)
{
    char name[QPX_RC_STRING_SIZE];

    fprintf(stderr, "%s: %s (%d)\n", what, QPX_getRcString(rc, name), rc);
    return rc;
}

/* Both texts are printed no further than their fields reach. */
static int list(QPX_ConnToken_t gateway)
{
    QPX_listSystem_t systems[ROOM];
    unsigned short count = ROOM;
    int rc = QPX_listSystems(gateway, &count, systems);
    int i;

    if (rc == QPX_ERR_NO_SYSTEMS) {
        puts("The Gateway knows no server.");
        return QPX_OK;
    }
    /* With more than there is room for, as many as fit are there. */
    if (rc != QPX_OK && rc != QPX_ERR_MORE_SYSTEMS) return complain("list", rc);
    for (i = 0; i < count && i < ROOM; ++i)
        printf("%-8.*s  %.*s\n", (int)sizeof systems[i].SystemName - 1, systems[i].SystemName,
               (int)sizeof systems[i].Description - 1, systems[i].Description);
    if (rc == QPX_ERR_MORE_SYSTEMS) puts("... and more");
    return QPX_OK;
}

int main(int argc, char** argv)
{
    QPX_ConnToken_t gateway = NULL;
    int rc;

    if (argc < 2) {
        fprintf(stderr, "trace FILE [HOST [PORT]]\n");
        return 2;
    }
    rc = QPX_openRemoteGatewayConnection(argc > 2 ? argv[2] : "127.0.0.1",
                                         argc > 3 ? atoi(argv[3]) : 5770, &gateway, 30);
    if (rc != QPX_OK) return complain("open", rc) != QPX_OK;

    rc = QPX_setAPITraceFile(argv[1]);
    if (rc == QPX_OK) rc = QPX_setAPITraceLevel(4);
    if (rc != QPX_OK) complain("trace", rc);
    if (rc == QPX_OK) rc = list(gateway);
    QPX_setAPITraceLevel(0);
    QPX_closeGatewayConnection(&gateway);
    if (fflush(stdout) == 0 && !ferror(stdout)) return rc != QPX_OK;
    fprintf(stderr, "cannot write to standard output\n");
    return 1;
}
