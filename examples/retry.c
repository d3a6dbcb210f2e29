/*
 * retry.c - a call that found something locked is made again: a few times, and only for codes that
 * say that nothing was done and that it may help. Of several calls that are one unit of work, it is
 * the whole unit that is repeated.
 *
 *     retry [HOST [PORT]]
 */
#include "example.h"

#define ATTEMPTS 3

static int helps(int rc)
{
    switch (rc) {
    case ECI_ERR_RESOURCE_SHORTAGE: /* here: somebody else is writing to the ledger */
    case ECI_ERR_NO_SESSIONS:
    case ECI_ERR_REQUEST_TIMEOUT: return 1;
    default: return 0;
    }
}

int main(int argc, char** argv)
{
    char area[81] = "";
    QPX_ConnToken_t gateway = NULL;
    int attempt = 1, rc = open_gateway(argc, argv, &gateway);

    if (rc != QPX_OK) return end_with(rc);
    do {
        QPX_ECI_PARMS parms = call_of("LEDGER", area, 80);

        sprintf(area, "%-80s", "C  ACC00001000000000250"); /* anew: the record and the data */
        rc = QPX_ECI_Execute(gateway, &parms);
        if (rc != ECI_NO_ERROR) complain("post", rc);
    } while (helps(rc) && attempt++ < ATTEMPTS);

    if (rc == QPX_OK)
        printf("%s, attempt %d\n", memcmp(area + 1, "00", 2) == 0 ? "posted" : "refused", attempt);
    close_gateway(&gateway);
    return end_with(rc);
}
