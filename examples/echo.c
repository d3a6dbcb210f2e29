/* echo.c - one call of the server program ECHO, which answers what it was sent. */
#include <stdio.h>
#include <stdlib.h>

#include "qpxclient_eci.h"

int main(int argc, char** argv)
{
    char area[] = "Hello, Gateway!", name[QPX_RC_STRING_SIZE];
    QPX_ECI_PARMS parms = {.eci_version = ECI_VERSION_6,
                           .eci_call_type = ECI_SYNC,
                           .eci_program_name = "ECHO",
                           .eci_commarea = area,
                           .eci_commarea_length = sizeof area};
    QPX_ConnToken_t gateway = NULL;
    char* host = argc > 1 ? argv[1] : "127.0.0.1";
    int rc = QPX_openRemoteGatewayConnection(host, argc > 2 ? atoi(argv[2]) : 5770, &gateway, 30);

    if (rc == QPX_OK) {
        rc = QPX_ECI_Execute(gateway, &parms);
        if (rc == ECI_NO_ERROR) puts(area);
        QPX_closeGatewayConnection(&gateway);
    }
    if (rc != QPX_OK) fprintf(stderr, "%d %s\n", rc, QPX_getRcString(rc, name));
    if (fflush(stdout) == 0 && !ferror(stdout)) return rc != QPX_OK;
    fprintf(stderr, "cannot write to standard output\n");
    return 1;
}
