/*
 * The security service: its return codes, their names, and the Gateway's codes for them.
 */

#include "clapi_diag.h"
#include "clapi_types.h"

#include "trace_points/clapi_esi.h"

/* A code of the ESI family, its name, and the code that the Gateway reports for it. */
struct EsiRc {
    int rc;
    int gatewayCode;
    const char* name;
};

static const EsiRc ESI_RCS[] = {
    {ESI_ERR_USERID_INVALID, -108, "ESI_ERR_USERID_INVALID"},
    {ESI_ERR_NULL_USERID, -100, "ESI_ERR_NULL_USERID"},
    {ESI_ERR_PASSWORD_INVALID, -106, "ESI_ERR_PASSWORD_INVALID"},
    {ESI_ERR_NULL_PASSWORD, -101, "ESI_ERR_NULL_PASSWORD"},
    {ESI_ERR_PEM_NOT_SUPPORTED, -103, "ESI_ERR_PEM_NOT_SUPPORTED"},
    {ESI_ERR_PEM_NOT_ACTIVE, -104, "ESI_ERR_PEM_NOT_ACTIVE"},
    {ESI_ERR_PASSWORD_EXPIRED, -105, "ESI_ERR_PASSWORD_EXPIRED"},
    {ESI_ERR_SECURITY_ERROR, -27, "ESI_ERR_SECURITY_ERROR"},
    {ESI_ERR_RESOURCE_SHORTAGE, -16, "ESI_ERR_RESOURCE_SHORTAGE"},
    {ESI_ERR_NO_SESSIONS, -17, "ESI_ERR_NO_SESSIONS"},
    {ESI_ERR_NO_VORN, -3, "ESI_ERR_NO_VORN"},
    {ESI_ERR_VORN_DIED, -4, "ESI_ERR_VORN_DIED"},
    {ESI_ERR_UNKNOWN_SERVER, -22, "ESI_ERR_UNKNOWN_SERVER"},
    {ESI_ERR_SYSTEM_ERROR, -9, "ESI_ERR_SYSTEM_ERROR"},
    {ESI_ERR_NULL_NEW_PASSWORD, -102, "ESI_ERR_NULL_NEW_PASSWORD"},
    {ESI_ERR_PASSWORD_REJECTED, -107, "ESI_ERR_PASSWORD_REJECTED"},
    {ESI_ERR_MAX_SYSTEMS, -28, "ESI_ERR_MAX_SYSTEMS"},
    {ESI_ERR_MAX_SESSIONS, -29, "ESI_ERR_MAX_SESSIONS"},
};

/* Deliberate: the lookup by name ends here, so that the last two codes of the family are named
 * by the Gateway's codes only. */
constexpr int LAST_NAMED_ESI_RC = ESI_ERR_PASSWORD_REJECTED;

const char* clapiGetRcStringESI(int rc)
{
    for (const EsiRc& row : ESI_RCS)
        if (row.gatewayCode == rc || (row.rc == rc && rc >= LAST_NAMED_ESI_RC)) return row.name;
    return UNKNOWN_RC_STR;
}

static int esiRcFor(int gatewayCode)
{
    for (const EsiRc& row : ESI_RCS)
        if (row.gatewayCode == gatewayCode) return row.rc;
    return gatewayCode;
}

int mapGwyRc(int rc)
{
    namespace at = tp::mapGwyRc;

    int newRc = esiRcFor(rc);
    TRACE(at::mapped, rc, newRc);
    return newRc;
}
