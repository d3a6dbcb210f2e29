/*
 * reconnect.c - a connection that is lost is opened again, after pauses that grow, and that chance
 * makes longer or shorter: a thousand clients that have lost one Gateway do not come back in step.
 *
 *     reconnect [HOST [PORT]]
 */
#define _POSIX_C_SOURCE 200809L
#include <time.h>
#include <unistd.h>

#include "example.h"

#define ATTEMPTS 4 /* a service goes on for ever */

/* Up to 50 ms, then 100, 200 and so on to half a minute, and never less than half of that. */
static void pause_before(int attempt)
{
    long most = attempt < 10 ? 25L << attempt : 30000, ms = most / 2 + rand() % (most / 2);
    struct timespec time = {ms / 1000, ms % 1000 * 1000000};

    nanosleep(&time, NULL);
}

static int connect(int argc, char** argv, QPX_ConnToken_t* gateway)
{
    int attempt = 1, rc;

    while ((rc = open_gateway(argc, argv, gateway)) != QPX_OK && attempt < ATTEMPTS)
        pause_before(attempt++);
    return rc;
}

static int call(QPX_ConnToken_t gateway, char* area, size_t size)
{
    QPX_ECI_PARMS parms = call_of("ECHO", area, size);
    int rc = QPX_ECI_Execute(gateway, &parms);

    if (rc == ECI_NO_ERROR) puts(area);
    return rc == ECI_NO_ERROR ? rc : complain(area, rc);
}

int main(int argc, char** argv)
{
    QPX_ConnToken_t gateway = NULL;
    char calls[][8] = {"first", "second", "third"};
    int rc, i;

    srand((unsigned)(getpid() ^ time(NULL)));
    rc = connect(argc, argv, &gateway);
    for (i = 0; rc == QPX_OK && i < 3; ++i) {
        rc = call(gateway, calls[i], sizeof calls[i]);
        if (!is_lost(rc)) continue;
        close_gateway(&gateway);
        rc = connect(argc, argv, &gateway);
        /* It may have been done: a call that must not be done twice is not made again. */
        if (rc == QPX_OK) rc = call(gateway, calls[i], sizeof calls[i]);
    }
    close_gateway(&gateway);
    return end_with(rc);
}
