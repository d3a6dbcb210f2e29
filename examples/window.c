/*
 * window.c - many calls from one thread: asynchronous ones, of which so many are on their way at a
 * time. That is several times as fast as one after the other, and bounds what waits for replies.
 *
 *     window [HOST [PORT]]
 */
#include "example.h"

#define CALLS  1000
#define WINDOW 64

static int send(QPX_ConnToken_t gateway, int number, int* qualifier)
{
    QPX_ECI_PARMS parms = call_of("ECHO", (char*)&number, sizeof number);
    int rc;

    parms.eci_call_type = ECI_ASYNC;
    rc = QPX_ECI_Execute(gateway, &parms);
    *qualifier = parms.eci_message_qualifier;
    return rc == ECI_NO_ERROR ? rc : complain("send", rc);
}

static int collect(QPX_ConnToken_t gateway, int qualifier, int* number)
{
    QPX_ECI_PARMS parms = call_of("", (char*)number, sizeof *number);
    int rc;

    parms.eci_call_type = ECI_GET_SPECIFIC_REPLY_WAIT;
    parms.eci_message_qualifier = qualifier;
    rc = QPX_ECI_Execute(gateway, &parms);
    return rc == ECI_NO_ERROR ? rc : complain("collect", rc);
}

int main(int argc, char** argv)
{
    QPX_ConnToken_t gateway = NULL;
    int window[WINDOW], sent = 0, collected = 0, number;
    int rc = open_gateway(argc, argv, &gateway);

    while (rc == QPX_OK && collected < CALLS) {
        if (sent < CALLS && sent - collected < WINDOW) {
            rc = send(gateway, sent, &window[sent % WINDOW]);
            ++sent;
        } else { /* the oldest, whose place in the window comes next */
            rc = collect(gateway, window[collected % WINDOW], &number);
            if (rc == ECI_NO_ERROR && number == collected) ++collected;
        }
    }
    printf("%d calls, at most %d at a time\n", collected, WINDOW);
    if (gateway != NULL) QPX_purgeGatewayConnection(&gateway, 0); /* gives up what is left */
    return end_with(rc);
}
