/*
 * fork.c - a server of several processes: each child opens a connection of its own, since those of
 * its parent stay with the parent.
 *
 *     fork [HOST [PORT]]
 */
#define _POSIX_C_SOURCE 200809L
#include <sys/wait.h>
#include <unistd.h>

#include "example.h"

#define CHILDREN 3

static int serve(int argc, char** argv, int number)
{
    char area[32] = "";
    QPX_ECI_PARMS parms = call_of("ECHO", area, sizeof area);
    QPX_ConnToken_t gateway = NULL;
    int rc = open_gateway(argc, argv, &gateway);

    if (rc != QPX_OK) return end_with(rc);
    sprintf(area, "child %d", number);
    rc = QPX_ECI_Execute(gateway, &parms);
    if (rc == ECI_NO_ERROR)
        puts(area);
    else
        complain(area, rc);
    close_gateway(&gateway);
    return end_with(rc);
}

/* Forks before it has threads of its own or of the library: no lock is held then in the child. */
int main(int argc, char** argv)
{
    int number, failed = 0, status;

    for (number = 1; number <= CHILDREN; ++number) {
        pid_t child = fork();

        if (child == 0) return serve(argc, argv, number);
        if (child < 0) ++failed;
    }
    while (wait(&status) > 0)
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ++failed;
    return failed == 0 ? 0 : 1;
}
