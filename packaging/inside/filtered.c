/* A program of a script: what becomes of a system call that a service need not make, and that every
 * process may make which has no filter. */
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>

int main(void)
{
    char call[4096];

    while (fgets(call, sizeof call, stdin) != NULL) {
        const char* what = setpriority(PRIO_PROCESS, 0, 1) == 0 ? "allowed" : strerror(errno);

        printf("{\"commarea\":\"%u bits, %s\"}\n", 8 * (unsigned)sizeof(void*), what);
        if (fflush(stdout) != 0) return 1;
    }
    return 0;
}
