/*
 * trace.c - lists the servers behind a Gateway, and writes a trace of that one call to a file.
 *
 *     trace FILE [HOST [PORT]]
 *
 * The environment does the same for a whole program, without a change to it:
 * QPX_CLIENT_TRACE_LEVEL=4 QPX_CLIENT_TRACE_FILE=FILE.
 */
#include "example.h"

#define ROOM 16

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
    if (open_gateway(argc - 1, argv + 1, &gateway) != QPX_OK) return 1;

    rc = QPX_setAPITraceFile(argv[1]);
    if (rc == QPX_OK) rc = QPX_setAPITraceLevel(4);
    if (rc != QPX_OK) complain("trace", rc);
    if (rc == QPX_OK) rc = list(gateway);
    QPX_setAPITraceLevel(0);
    close_gateway(&gateway);
    return end_with(rc);
}
