/*
 * many_connections.c - as many connections as the process can have. Each has a thread in the
 * library, and in 32 bits it is the stacks of those threads that bound their number: about 500 of
 * 8 MiB, and 14,000 of 256 KiB, fit into the memory of a process.
 *
 *     many_connections [HOST [PORT [COUNT [KIB]]]]
 */
#define _GNU_SOURCE
#include <pthread.h>
#include <sys/resource.h>

#include "example.h"

/* For threads that are made from now on; `ulimit -s` does the same before a program is started. */
static int set_stacks(size_t kib)
{
    pthread_attr_t attributes;
    int failed;

    if (pthread_attr_init(&attributes) != 0) return 1;
    failed = pthread_attr_setstacksize(&attributes, kib * 1024) != 0 ||
             pthread_setattr_default_np(&attributes) != 0;
    pthread_attr_destroy(&attributes);
    return failed;
}

/* As many descriptors as the system lets the process have. */
static void raise_descriptors(void)
{
    struct rlimit limit;

    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int main(int argc, char** argv)
{
    int count = argc > 3 ? atoi(argv[3]) : 10, opened = 0, rc = QPX_OK;
    QPX_ConnToken_t* gateways = calloc((size_t)count, sizeof *gateways);

    raise_descriptors();
    if (gateways == NULL || set_stacks(argc > 4 ? (size_t)atoi(argv[4]) : 256)) {
        fprintf(stderr, "no memory, or no such stack\n");
        return 1;
    }
    while (opened < count && (rc = open_gateway(argc, argv, &gateways[opened])) == QPX_OK) ++opened;
    printf("%d of %d connections\n", opened, count);
    while (opened > 0) close_gateway(&gateways[--opened]);
    free(gateways);
    return end_with(rc);
}
