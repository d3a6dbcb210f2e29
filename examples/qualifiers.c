/*
 * qualifiers.c - each reply by its qualifier: asynchronous calls are collected in the order that
 * the program wants, whatever the order in which the replies come.
 *
 *     qualifiers [HOST [PORT]]
 */
#include "example.h"

#define CALLS 3

static int send(QPX_ConnToken_t gateway, int number, int* qualifier)
{
    char area[32] = "";
    QPX_ECI_PARMS parms = call_of("ECHO", area, sizeof area);
    int rc;

    parms.eci_call_type = ECI_ASYNC;
    sprintf(area, "request %d", number);
    rc = QPX_ECI_Execute(gateway, &parms);
    *qualifier = parms.eci_message_qualifier;
    return rc == ECI_NO_ERROR ? rc : complain("send", rc);
}

/* ECI_GET_SPECIFIC_REPLY would return ECI_ERR_NO_REPLY at once in place of waiting. */
static int collect(QPX_ConnToken_t gateway, int qualifier)
{
    char area[32] = "";
    QPX_ECI_PARMS parms = call_of("", area, sizeof area);
    int rc;

    parms.eci_call_type = ECI_GET_SPECIFIC_REPLY_WAIT;
    parms.eci_message_qualifier = qualifier;
    rc = QPX_ECI_Execute(gateway, &parms);
    if (rc == ECI_NO_ERROR) puts(area);
    return rc == ECI_NO_ERROR ? rc : complain("collect", rc);
}

int main(int argc, char** argv)
{
    QPX_ConnToken_t gateway = NULL;
    int qualifiers[CALLS], sent = 0, failure = 0, i;
    int rc = open_gateway(argc, argv, &gateway);

    while (rc == QPX_OK && sent < CALLS) {
        rc = send(gateway, sent + 1, &qualifiers[sent]);
        if (rc == ECI_NO_ERROR) ++sent;
    }
    /* Each is collected, even behind a failure: an orderly close waits for replies. */
    for (i = 0; i < sent; ++i)
        if (collect(gateway, qualifiers[i]) != ECI_NO_ERROR) failure = 1;
    close_gateway(&gateway);
    return end_with(rc != QPX_OK || failure);
}
