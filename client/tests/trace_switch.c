/*
 * An application whose trace is switched by signals: qpx_trace_switch HOST PORT FILE calls ECHO
 * again and again, until its trace has been switched on and off.
 */
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qpxclient.h"
#include "qpxclient_eci.h"

static char* traceFile;
static volatile sig_atomic_t done;

static void* switchTrace(void* signals)
{
    int number = 0;

    while (sigwait(signals, &number) == 0) {
        if (number == SIGUSR1) (void)QPX_setAPITraceFile(traceFile);
        (void)QPX_setAPITraceLevel(number == SIGUSR1 ? 3 : 0);
        printf("level %d\n", number == SIGUSR1 ? 3 : 0);
        if (number == SIGUSR2) done = 1;
    }
    return NULL;
}

int main(int argc, char** argv)
{
    QPX_ConnToken_t gateway = NULL;
    QPX_ECI_PARMS record;
    pthread_t switcher;
    sigset_t signals;
    int rc;

    if (argc != 4) return EXIT_FAILURE;
    traceFile = argv[3];
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    sigaddset(&signals, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &signals, NULL);
    if (pthread_create(&switcher, NULL, switchTrace, &signals) != 0) return EXIT_FAILURE;

    rc = QPX_openRemoteGatewayConnection(argv[1], atoi(argv[2]), &gateway, 30);
    while (rc == QPX_OK && !done) {
        memset(&record, 0, sizeof record);
        record.eci_version = ECI_VERSION_6;
        record.eci_call_type = ECI_SYNC;
        memcpy(record.eci_program_name, "ECHO    ", sizeof record.eci_program_name);
        rc = QPX_ECI_Execute(gateway, &record);
    }
    if (rc == QPX_OK) rc = QPX_closeGatewayConnection(&gateway);
    return rc == QPX_OK ? EXIT_SUCCESS : EXIT_FAILURE;
}
