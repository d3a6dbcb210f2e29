/*
 * unit_of_work.c - two calls that count together or not at all.
 *
 * An amount goes from one account of the server program LEDGER to another: a debit and a credit in
 * one unit of work, committed when both have been accepted, backed out otherwise.
 *
 *     unit_of_work [HOST [PORT [CENTS]]]
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qpxclient_eci.h"

#define AREA_SIZE 80 /* function, result, account, amount; see docs/gateway.md */

static void complain(const char* what, int rc)
{
    char name[QPX_RC_STRING_SIZE];

    fprintf(stderr, "%s: %s (%d)\n", what, QPX_getRcString(rc, name), rc);
}

/* Makes one call of the unit of work that *token names; 0 begins one, and it is 0 when that has
 * ended. A call that fails ends it, too. */
static int call(QPX_ConnToken_t gateway, short mode, int* token, char* area)
{
    QPX_ECI_PARMS parms = {.eci_version = ECI_VERSION_6,
                           .eci_call_type = ECI_SYNC,
                           .eci_program_name = "LEDGER",
                           .eci_extend_mode = mode,
                           .eci_luw_token = *token,
                           .eci_commarea = area,
                           .eci_commarea_length = area == NULL ? 0 : AREA_SIZE};
    int rc = QPX_ECI_Execute(gateway, &parms);

    *token = rc == ECI_NO_ERROR ? parms.eci_luw_token : 0;
    return rc;
}

/* Debits ('D') or credits ('C') an account. *accepted is what the program says; a call that fails
 * has done nothing. */
static int post(QPX_ConnToken_t gateway, int* token, char function, const char* account, long cents,
                int* accepted)
{
    char area[AREA_SIZE + 1];
    int rc;

    sprintf(area, "%c  %-8.8s%012ld%57s", function, account, cents, "");
    rc = call(gateway, ECI_EXTENDED, token, area);
    *accepted = rc == ECI_NO_ERROR && memcmp(area + 1, "00", 2) == 0;
    return rc;
}

static int transfer(QPX_ConnToken_t gateway, const char* from, const char* to, long cents)
{
    int token = 0;
    int accepted = 0;
    int rc = post(gateway, &token, 'D', from, cents, &accepted);

    if (accepted) rc = post(gateway, &token, 'C', to, cents, &accepted);
    if (rc != ECI_NO_ERROR) complain("post", rc);
    if (token != 0) {
        int end = call(gateway, accepted ? ECI_COMMIT : ECI_BACKOUT, &token, NULL);

        /* If the connection is lost during a commit, nobody here knows whether it was done. */
        if (end != ECI_NO_ERROR) complain(accepted ? "commit" : "back out", end);
        if (rc == ECI_NO_ERROR) rc = end;
    }
    if (rc == ECI_NO_ERROR) puts(accepted ? "posted" : "refused, and nothing has moved");
    return rc;
}

int main(int argc, char** argv)
{
    QPX_ConnToken_t gateway = NULL;
    long cents = argc > 3 ? atol(argv[3]) : 100;
    int rc = QPX_openRemoteGatewayConnection(argc > 1 ? argv[1] : "127.0.0.1",
                                             argc > 2 ? atoi(argv[2]) : 5770, &gateway, 30);

    if (rc != QPX_OK) {
        complain("open", rc);
        return 1;
    }
    rc = transfer(gateway, "ACC00001", "ACC00002", cents);
    QPX_closeGatewayConnection(&gateway);
    if (fflush(stdout) == 0 && !ferror(stdout)) return rc != QPX_OK;
    fprintf(stderr, "cannot write to standard output\n");
    return 1;
}
