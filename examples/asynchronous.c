/*
 * asynchronous.c - calls that do not wait for each other: all requests go out first, then the
 * replies are collected in whatever order they come.
 *
 *     asynchronous [HOST [PORT]]
 */
#include "example.h"

#define CALLS     5
#define AREA_SIZE 32

/* Sends a request, and keeps what names its reply. Its COMMAREA may be used again at once. */
static int send(QPX_ConnToken_t gateway, int number, int* qualifier)
{
    char area[AREA_SIZE] = "";
    QPX_ECI_PARMS parms = call_of("ECHO", area, sizeof area);
    int rc;

    parms.eci_call_type = ECI_ASYNC;
    sprintf(area, "request %d", number);
    rc = QPX_ECI_Execute(gateway, &parms);
    *qualifier = parms.eci_message_qualifier;
    return rc == ECI_NO_ERROR ? rc : complain("send", rc);
}

/* Waits for the next reply, whosever it is. The record is that of the request afterwards. */
static int collect(QPX_ConnToken_t gateway, const int qualifiers[CALLS])
{
    char area[AREA_SIZE] = "";
    QPX_ECI_PARMS parms = call_of("", area, sizeof area);
    int i = 0, rc;

    parms.eci_call_type = ECI_GET_REPLY_WAIT;
    rc = QPX_ECI_Execute(gateway, &parms);
    if (rc != ECI_NO_ERROR) return complain("collect", rc);
    while (i < CALLS && qualifiers[i] != parms.eci_message_qualifier) ++i;
    printf("reply to request %d: %.*s\n", i + 1, AREA_SIZE, area);
    return rc;
}

int main(int argc, char** argv)
{
    QPX_ConnToken_t gateway = NULL;
    int qualifiers[CALLS] = {0};
    int sent = 0, collected = 0;

    if (open_gateway(argc, argv, &gateway) != QPX_OK) return 1;
    while (sent < CALLS && send(gateway, sent + 1, &qualifiers[sent]) == ECI_NO_ERROR) ++sent;
    while (collected < sent && collect(gateway, qualifiers) == ECI_NO_ERROR) ++collected;
    /* A close in order would wait for replies that nobody collects any more. */
    if (collected == sent)
        close_gateway(&gateway);
    else
        QPX_purgeGatewayConnection(&gateway, 0);
    return end_with(collected != CALLS);
}
