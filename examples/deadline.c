/*
 * deadline.c - a limit of the program's own, for a Gateway that keeps none. No call gives up by
 * itself: another thread purges the connection, and the call returns QPX_ERR_GWTOK_CLOSED.
 *
 *     deadline [HOST [PORT [SECONDS]]]
 */
#define _POSIX_C_SOURCE 200809L
#include <pthread.h>
#include <time.h>

#include "example.h"

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER; /* guards answered */
static pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
static int answered;
static struct timespec deadline;

/* Purges the connection at the deadline, unless the call has returned before. */
static void* watch(void* gateway)
{
    int late = 0;

    pthread_mutex_lock(&lock);
    while (!answered && !late) late = pthread_cond_timedwait(&changed, &lock, &deadline) != 0;
    late = !answered;
    pthread_mutex_unlock(&lock);
    if (late) QPX_purgeGatewayConnection(gateway, 0);
    return late ? gateway : NULL;
}

int main(int argc, char** argv)
{
    char area[] = "Hello, Gateway!";
    QPX_ECI_PARMS parms = call_of("ECHO", area, sizeof area);
    QPX_ConnToken_t gateway = NULL;
    void* purged = NULL;
    pthread_t watcher;
    int rc = open_gateway(argc, argv, &gateway);

    if (rc != QPX_OK) return end_with(rc);
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += argc > 3 ? atoi(argv[3]) : 10;
    if (pthread_create(&watcher, NULL, watch, &gateway) != 0) return 1;

    rc = QPX_ECI_Execute(gateway, &parms);
    if (rc == ECI_NO_ERROR)
        puts(area);
    else
        complain("call", rc);

    pthread_mutex_lock(&lock);
    answered = 1;
    pthread_cond_signal(&changed);
    pthread_mutex_unlock(&lock);
    pthread_join(watcher, &purged);
    if (purged == NULL) close_gateway(&gateway);
    return end_with(rc);
}
