/*
 * workers.c - a pool of threads on one connection: their requests travel side by side, and each
 * thread gets its own reply. A record for each thread is all that this takes.
 *
 *     workers [HOST [PORT]]
 */
#include <pthread.h>

#include "example.h"

enum { WORKERS = 4, CALLS = 100 };

static QPX_ConnToken_t gateway;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER; /* guards those below */
static int taken, done, failure;

/* The number of the next call; 0 if there is none, or one has failed. */
static int take(void)
{
    int number;

    pthread_mutex_lock(&lock);
    number = failure == QPX_OK && taken < CALLS ? ++taken : 0;
    pthread_mutex_unlock(&lock);
    return number;
}

static void* work(void* unused)
{
    int number;

    while ((number = take()) != 0) {
        char sent[32] = "", area[32];
        QPX_ECI_PARMS parms = call_of("ECHO", area, sizeof area);
        int rc;

        sprintf(sent, "request %d", number);
        memcpy(area, sent, sizeof area);
        rc = QPX_ECI_Execute(gateway, &parms);

        pthread_mutex_lock(&lock);
        if (rc != ECI_NO_ERROR) failure = complain(sent, rc);
        if (rc == ECI_NO_ERROR && memcmp(area, sent, sizeof area) == 0) ++done;
        pthread_mutex_unlock(&lock);
    }
    return unused;
}

int main(int argc, char** argv)
{
    pthread_t threads[WORKERS];
    int started = 0, i, rc = open_gateway(argc, argv, &gateway);

    if (rc != QPX_OK) return end_with(rc);
    while (started < WORKERS && pthread_create(&threads[started], NULL, work, NULL) == 0) ++started;
    for (i = 0; i < started; ++i) pthread_join(threads[i], NULL);
    printf("%d of %d calls, each with its own reply\n", done, CALLS);
    close_gateway(&gateway);
    return end_with(done != CALLS);
}
