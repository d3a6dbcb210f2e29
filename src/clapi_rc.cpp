/*
 * The names of return codes: one table for each family, which other families look into in a fixed
 * order, and what the Gateway's codes of a password request mean. It calls no other module.
 *
 * Locks: none.
 */
#include "clapi_rc.h"

#include <cstddef>

#include "eci_channel.h"
#include "qpxclient_eci.h"
#include "qpxclient_esi.h"

const char* const UNKNOWN_RC_STR = "UNKNOWN";

/* One row of a table of names. */
struct RcName {
    int rc;
    const char* name;
};

/* The row of a code, which is spelt in the table and nowhere else. */
#define NAMED(code)   \
    {                 \
        (code), #code \
    }

/* The name of rc in a table, or null. */
template <size_t rows>
static const char* nameOfRc(const RcName (&table)[rows], int rc)
{
    for (const RcName& row : table)
        if (row.rc == rc) return row.name;
    return nullptr;
}

/* ---- Channels and containers ---- */

static const RcName CHANNEL_RC_NAMES[] = {
    NAMED(ECI_NO_ERROR),
    NAMED(ECI_ERR_INVALID_DATA_LENGTH),
    NAMED(ECI_ERR_SYSTEM_ERROR),
    NAMED(ECI_ERR_INVALID_CHANNEL),
    NAMED(ECI_ERR_INVALID_NAME),
    NAMED(ECI_ERR_NULLCHANNELPTR),
    NAMED(ECI_ERR_CHANNELLOCKFAIL),
    NAMED(ECI_ERR_ENDOFCONTAINERS),
    NAMED(ECI_ERR_NULLINFOPTR),
    NAMED(ECI_ERR_INVALID_TYPE),
    NAMED(ECI_ERR_CONTAINER_NOTFOUND),
    NAMED(ECI_ERR_CONTAINER_EXISTS),
    NAMED(ECI_ERR_COMMAREA_AND_CHANNEL),
    NAMED(ECI_ERR_NULLPTR),
    NAMED(ECI_ERR_MEMORY_SHORTAGE),
    NAMED(ECI_ERR_LOCKFAIL),
};

const char* clapiGetRcStringChannel(int rc)
{
    const char* name = nameOfRc(CHANNEL_RC_NAMES, rc);
    return name != nullptr ? name : UNKNOWN_RC_STR;
}

/* ---- ECI calls ---- */

/* Without the codes that channels have too, whose table is looked into next. */
static const RcName ECI_RC_NAMES[] = {
    NAMED(ECI_ERR_INVALID_EXTEND_MODE),
    NAMED(ECI_ERR_NO_VORN),
    NAMED(ECI_ERR_VORN_DIED),
    NAMED(ECI_ERR_REQUEST_TIMEOUT),
    NAMED(ECI_ERR_RESPONSE_TIMEOUT),
    NAMED(ECI_ERR_TRANSACTION_ABEND),
    NAMED(ECI_ERR_LUW_TOKEN),
    NAMED(ECI_ERR_INVALID_CALL_TYPE),
    NAMED(ECI_ERR_ALREADY_ACTIVE),
    NAMED(ECI_ERR_RESOURCE_SHORTAGE),
    NAMED(ECI_ERR_NO_SESSIONS),
    NAMED(ECI_ERR_INVALID_DATA_AREA),
    NAMED(ECI_ERR_INVALID_VERSION),
    NAMED(ECI_ERR_UNKNOWN_SERVER),
    NAMED(ECI_ERR_SECURITY_ERROR),
    NAMED(ECI_ERR_MAX_SYSTEMS),
    NAMED(ECI_ERR_MAX_SESSIONS),
    NAMED(ECI_ERR_ROLLEDBACK),
    NAMED(ECI_ERR_NO_REPLY),
    NAMED(ECI_ERR_INVALID_MSG_QUAL),
};

const char* clapiGetRcStringECI(int rc)
{
    const char* name = nameOfRc(ECI_RC_NAMES, rc);
    return name != nullptr ? name : clapiGetRcStringChannel(rc);
}

/* ---- ESI calls ---- */

/* A code of the ESI family, and the one that the Gateway reports for it. */
struct EsiRc {
    RcName own;
    int gatewayCode;
};

static const EsiRc ESI_RCS[] = {
    {NAMED(ESI_ERR_USERID_INVALID), -108},
    {NAMED(ESI_ERR_NULL_USERID), -100},
    {NAMED(ESI_ERR_PASSWORD_INVALID), -106},
    {NAMED(ESI_ERR_NULL_PASSWORD), -101},
    {NAMED(ESI_ERR_PEM_NOT_SUPPORTED), -103},
    {NAMED(ESI_ERR_PEM_NOT_ACTIVE), -104},
    {NAMED(ESI_ERR_PASSWORD_EXPIRED), -105},
    {NAMED(ESI_ERR_SECURITY_ERROR), -27},
    {NAMED(ESI_ERR_RESOURCE_SHORTAGE), -16},
    {NAMED(ESI_ERR_NO_SESSIONS), -17},
    {NAMED(ESI_ERR_NO_VORN), -3},
    {NAMED(ESI_ERR_VORN_DIED), -4},
    {NAMED(ESI_ERR_UNKNOWN_SERVER), -22},
    {NAMED(ESI_ERR_SYSTEM_ERROR), -9},
    {NAMED(ESI_ERR_NULL_NEW_PASSWORD), -102},
    {NAMED(ESI_ERR_PASSWORD_REJECTED), -107},
    {NAMED(ESI_ERR_MAX_SYSTEMS), -28},
    {NAMED(ESI_ERR_MAX_SESSIONS), -29},
};

/* Deliberate: the lookup by name ends here, so that the last two codes of the family are named
 * by the Gateway's codes only. Their own show as unknown in every trace and program there is. */
constexpr int LAST_NAMED_ESI_RC = ESI_ERR_PASSWORD_REJECTED;

const char* clapiGetRcStringESI(int rc)
{
    for (const EsiRc& row : ESI_RCS)
        if (row.gatewayCode == rc || (row.own.rc == rc && rc >= LAST_NAMED_ESI_RC))
            return row.own.name;
    return UNKNOWN_RC_STR;
}

int clapiEsiRcFor(int gatewayCode)
{
    for (const EsiRc& row : ESI_RCS)
        if (row.gatewayCode == gatewayCode) return row.own.rc;
    return gatewayCode;
}

/* ---- The library ---- */

static const RcName QPX_RC_NAMES[] = {
    NAMED(QPX_OK),
    NAMED(QPX_ERR_SYSTEM_ERROR),
    NAMED(QPX_ERR_MORE_SYSTEMS),
    NAMED(QPX_ERR_NO_SYSTEMS),
    NAMED(QPX_ERR_NULLGWTOK),
    NAMED(QPX_ERR_BADGWTOK),
    NAMED(QPX_ERR_LOSTGWCON),
    NAMED(QPX_ERR_NULLPARM),
    NAMED(QPX_ERR_TRACELEVEL),
    NAMED(QPX_ERR_BADPORT),
    NAMED(QPX_ERR_NULLGWTOKPTR),
    NAMED(QPX_ERR_NULLPTR),
    NAMED(QPX_ERR_MALLOCFAIL),
    NAMED(QPX_ERR_CONNECTFAILED),
    NAMED(QPX_ERR_TRACEFILE),
    NAMED(QPX_ERR_BADHOST),
    NAMED(QPX_ERR_NULLADDRESS),
    NAMED(QPX_ERR_CONNECTTIMEOUT),
    NAMED(QPX_ERR_NULLECIPOINTER),
    NAMED(QPX_ERR_INVALIDTIMEOUTPARM),
    NAMED(QPX_ERR_APPLIDTOOLONG),
    NAMED(QPX_ERR_GWTOK_CLOSED),
    NAMED(QPX_ERR_GATEWAY_CLOSED),
    NAMED(QPX_ERR_WORK_WAS_REFUSED),
    NAMED(QPX_ERR_GATEWAY_EXCEPTION),
    NAMED(QPX_ERR_GATEWAY_BACK_LEVEL),
    NAMED(QPX_ERR_INVALID_REQUEST_TYPE),
};

const char* clapiGetRcString(int rc)
{
    const char* name = nameOfRc(QPX_RC_NAMES, rc);
    if (name != nullptr) return name;
    name = clapiGetRcStringECI(rc);
    if (name != UNKNOWN_RC_STR) return name;
    return clapiGetRcStringESI(rc);
}
