/*
 * time_out.c - how long the program may take. The limit travels with the call, and the Gateway is
 * who gives up: the code tells whether the program had begun by then.
 *
 *     time_out [HOST [PORT [SECONDS]]]
 */
#include "example.h"

int main(int argc, char** argv)
{
    char area[] = "Hello, Gateway!";
    QPX_ECI_PARMS parms = call_of("ECHO", area, sizeof area);
    QPX_ConnToken_t gateway = NULL;
    int rc = open_gateway(argc, argv, &gateway);

    if (rc != QPX_OK) return end_with(rc);
    parms.eci_timeout = (short)(argc > 3 ? atoi(argv[3]) : 10);
    rc = QPX_ECI_Execute(gateway, &parms);
    switch (rc) {
    case ECI_NO_ERROR: puts(area); break;
    case ECI_ERR_REQUEST_TIMEOUT: puts("Nothing was done: try again."); break;
    case ECI_ERR_RESPONSE_TIMEOUT:
        puts("It was begun: ask what was done before trying again.");
        break;
    default: complain("call", rc);
    }
    close_gateway(&gateway); /* the connection is as good as before */
    return end_with(rc);
}
