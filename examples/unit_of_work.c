/*
 * unit_of_work.c - two calls that count together or not at all: an amount goes from one account of
 * the server program LEDGER to another, committed when both have been accepted, backed out if not.
 *
 *     unit_of_work [HOST [PORT [CENTS]]]
 */
#include "example.h"

#define AREA_SIZE 80 /* function, result, account, amount; see docs/gateway.md */

/* Makes one call of the unit of work that *unit names; 0 begins one, and it is 0 when that has
 * ended. A call that fails ends it, too. */
static int call(QPX_ConnToken_t gateway, short mode, int* unit, char* area)
{
    QPX_ECI_PARMS parms = call_of("LEDGER", area, area == NULL ? 0 : AREA_SIZE);
    int rc;

    parms.eci_extend_mode = mode;
    parms.eci_luw_token = *unit;
    rc = QPX_ECI_Execute(gateway, &parms);
    *unit = rc == ECI_NO_ERROR ? parms.eci_luw_token : 0;
    return rc;
}

/* Debits ('D') or credits ('C') an account. *accepted is what the program says; a call that fails
 * has done nothing. */
static int post(QPX_ConnToken_t gateway, int* unit, char function, const char* account, long cents,
                int* accepted)
{
    char area[AREA_SIZE + 1];
    int rc;

    sprintf(area, "%c  %-8.8s%012ld%57s", function, account, cents, "");
    rc = call(gateway, ECI_EXTENDED, unit, area);
    *accepted = rc == ECI_NO_ERROR && memcmp(area + 1, "00", 2) == 0;
    return rc == ECI_NO_ERROR ? rc : complain("post", rc);
}

int main(int argc, char** argv)
{
    QPX_ConnToken_t gateway = NULL;
    long cents = argc > 3 ? atol(argv[3]) : 100;
    int unit = 0, accepted = 0, rc;

    if (open_gateway(argc, argv, &gateway) != QPX_OK) return 1;
    rc = post(gateway, &unit, 'D', "ACC00001", cents, &accepted);
    if (accepted) rc = post(gateway, &unit, 'C', "ACC00002", cents, &accepted);
    if (unit != 0) {
        int end = call(gateway, accepted ? ECI_COMMIT : ECI_BACKOUT, &unit, NULL);

        /* If the connection is lost during a commit, nobody here knows whether it was done. */
        if (end != ECI_NO_ERROR) complain(accepted ? "commit" : "back out", end);
        if (rc == ECI_NO_ERROR) rc = end;
    }
    if (rc == ECI_NO_ERROR) puts(accepted ? "posted" : "refused, and nothing has moved");
    close_gateway(&gateway);
    return end_with(rc);
}
