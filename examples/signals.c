/*
 * signals.c - a service that calls every second, and ends in order at SIGTERM or Ctrl-C: with the
 * call done that it had begun, and its connection closed.
 *
 *     signals [HOST [PORT]]
 *
 * Signals end no call of the library. Blocked, they wait until the program has time for them.
 */
#define _POSIX_C_SOURCE 200809L
#include <signal.h>
#include <time.h>

#include "example.h"

static int call(QPX_ConnToken_t gateway)
{
    char area[] = "Hello, Gateway!";
    QPX_ECI_PARMS parms = call_of("ECHO", area, sizeof area);
    int rc = QPX_ECI_Execute(gateway, &parms);

    if (rc != ECI_NO_ERROR) return complain("call", rc);
    puts(area);
    return fflush(stdout) == 0 ? rc : QPX_ERR_SYSTEM_ERROR;
}

int main(int argc, char** argv)
{
    const struct timespec second = {1, 0};
    QPX_ConnToken_t gateway = NULL;
    sigset_t ends;
    int rc;

    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigprocmask(SIG_BLOCK, &ends, NULL); /* before there are other threads, which inherit it */

    rc = open_gateway(argc, argv, &gateway);
    while (rc == QPX_OK) {
        rc = call(gateway);
        if (rc == QPX_OK && sigtimedwait(&ends, NULL, &second) > 0) break;
    }
    close_gateway(&gateway);
    return end_with(rc);
}
