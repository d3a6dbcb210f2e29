/*
 * example.h - what the examples share and none of them is about: the Gateway from the command line,
 * a record for a call, a failure told by name, and an end that notices a full disk.
 *
 *     EXAMPLE [HOST [PORT]]
 */
#ifndef EXAMPLE_H
#define EXAMPLE_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qpxclient_eci.h"

/* Tells of a return code and gives it back. */
static inline int complain(const char* what, int rc)
{
    char name[QPX_RC_STRING_SIZE];

    fprintf(stderr, "%s: %s (%d)\n", what, QPX_getRcString(rc, name), rc);
    return rc;
}

static inline int open_gateway(int argc, char** argv, QPX_ConnToken_t* gateway)
{
    char local[] = "127.0.0.1";
    int rc = QPX_openRemoteGatewayConnection(argc > 1 ? argv[1] : local,
                                             argc > 2 ? atoi(argv[2]) : 5770, gateway, 30);

    return rc == QPX_OK ? rc : complain("open", rc);
}

/* A connection that was lost is closed, too: that frees it. */
static inline void close_gateway(QPX_ConnToken_t* gateway)
{
    if (*gateway != NULL) QPX_closeGatewayConnection(gateway);
    *gateway = NULL;
}

/* Whether the code says that the connection is gone and another one is needed. */
static inline int is_lost(int rc)
{
    return rc == QPX_ERR_LOSTGWCON || rc == QPX_ERR_GATEWAY_CLOSED;
}

/* The record of a synchronous call. */
static inline QPX_ECI_PARMS call_of(const char* program, char* area, size_t size)
{
    QPX_ECI_PARMS parms = {.eci_version = ECI_VERSION_6, .eci_call_type = ECI_SYNC};

    memcpy(parms.eci_program_name, program, strlen(program)); /* at most 8; the rest are NULs */
    parms.eci_commarea = area;
    parms.eci_commarea_length = (short)size;
    return parms;
}

/* The exit code of a program whose work has come to rc. */
static inline int end_with(int rc)
{
    if (fflush(stdout) == 0 && !ferror(stdout)) return rc != QPX_OK;
    fprintf(stderr, "cannot write to standard output\n");
    return 1;
}

#endif
