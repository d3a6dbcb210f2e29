/*
 * in_doubt.c - a commit whose answer is lost may have been done or not. The program asks, over a
 * new connection, before it tells anybody anything and before it posts again.
 *
 *     in_doubt [HOST [PORT]]
 */
#include "example.h"

#define AREA_SIZE 80 /* of the server program LEDGER; see docs/gateway.md */
#define BALANCE   23 /* 13 characters: the balance behind the call */

static int ledger(QPX_ConnToken_t gateway, const char* entry, char* area, short mode, int* unit)
{
    QPX_ECI_PARMS parms = call_of("LEDGER", area, AREA_SIZE);
    int rc;

    sprintf(area, "%-80s", entry);
    parms.eci_extend_mode = mode;
    rc = QPX_ECI_Execute(gateway, &parms);
    *unit = parms.eci_luw_token;
    return rc == ECI_NO_ERROR ? rc : complain("ledger", rc);
}

static int commit(QPX_ConnToken_t gateway, int unit)
{
    QPX_ECI_PARMS parms = call_of("LEDGER", NULL, 0);
    int rc;

    parms.eci_extend_mode = ECI_COMMIT;
    parms.eci_luw_token = unit;
    rc = QPX_ECI_Execute(gateway, &parms);
    return rc == ECI_NO_ERROR ? rc : complain("commit", rc);
}

int main(int argc, char** argv)
{
    char debit[AREA_SIZE + 1] = "", now[AREA_SIZE + 1];
    QPX_ConnToken_t gateway = NULL;
    int unit = 0, posted = 0, rc = open_gateway(argc, argv, &gateway);

    if (rc == QPX_OK) rc = ledger(gateway, "D  ACC00001000000000250", debit, ECI_EXTENDED, &unit);
    if (rc == QPX_OK && memcmp(debit + 1, "00", 2) == 0) {
        rc = commit(gateway, unit);
        posted = rc == ECI_NO_ERROR;
        if (is_lost(rc)) {
            close_gateway(&gateway);
            rc = open_gateway(argc, argv, &gateway);
            /* Nobody else uses this account. A program among others sends a number of its own with
             * each entry, and asks for that. */
            if (rc == QPX_OK) rc = ledger(gateway, "Q  ACC00001", now, ECI_NO_EXTEND, &unit);
            posted = rc == QPX_OK && memcmp(now + BALANCE, debit + BALANCE, 13) == 0;
        }
    }
    if (rc == QPX_OK) puts(posted ? "posted" : "not posted");
    close_gateway(&gateway); /* backs out what was not committed */
    return end_with(rc);
}
