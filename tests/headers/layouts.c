/*
 * The public records, byte by byte. Applications are compiled against exactly these layouts: the
 * numbers of a 32-bit program are written out, and POINTERS(n) adds what n pointers take more in a
 * 64-bit one.
 */
#include <stddef.h>

#include "check.h"

#include "eci_channel.h"
#include "qpxclient.h"
#include "qpxclient_eci.h"
#include "qpxclient_esi.h"

#define POINTERS(count) ((count) * (sizeof(void*) - 4))

CHECK(QPX_ECI_PARMS_has_98_bytes, sizeof(QPX_ECI_PARMS) == 98 + POINTERS(4));
CHECK_FIELD(QPX_ECI_PARMS, eci_call_type, 0, 2);
CHECK_FIELD(QPX_ECI_PARMS, eci_program_name, 2, 8);
CHECK_FIELD(QPX_ECI_PARMS, eci_userid, 10, 16);
CHECK_FIELD(QPX_ECI_PARMS, eci_password, 26, 16);
CHECK_FIELD(QPX_ECI_PARMS, eci_transid, 42, 4);
CHECK_FIELD(QPX_ECI_PARMS, eci_abend_code, 46, 4);
CHECK_FIELD(QPX_ECI_PARMS, eci_commarea, 50, sizeof(void*));
CHECK_FIELD(QPX_ECI_PARMS, eci_commarea_length, 54 + POINTERS(1), 2);
CHECK_FIELD(QPX_ECI_PARMS, eci_timeout, 56 + POINTERS(1), 2);
CHECK_FIELD(QPX_ECI_PARMS, eci_extend_mode, 58 + POINTERS(1), 2);
CHECK_FIELD(QPX_ECI_PARMS, eci_luw_token, 60 + POINTERS(1), 4);
CHECK_FIELD(QPX_ECI_PARMS, eci_version, 64 + POINTERS(1), 2);
CHECK_FIELD(QPX_ECI_PARMS, eci_system_name, 66 + POINTERS(1), 8);
CHECK_FIELD(QPX_ECI_PARMS, eci_tpn, 74 + POINTERS(1), 4);
CHECK_FIELD(QPX_ECI_PARMS, commarea_outbound_length, 78 + POINTERS(1), 2);
CHECK_FIELD(QPX_ECI_PARMS, commarea_inbound_length, 80 + POINTERS(1), 2);
CHECK_FIELD(QPX_ECI_PARMS, channel, 82 + POINTERS(1), sizeof(void*));
CHECK_FIELD(QPX_ECI_PARMS, eci_userid_ptr, 86 + POINTERS(2), sizeof(void*));
CHECK_FIELD(QPX_ECI_PARMS, eci_password_ptr, 90 + POINTERS(3), sizeof(void*));
CHECK_FIELD(QPX_ECI_PARMS, eci_message_qualifier, 94 + POINTERS(4), 4);

CHECK(ESI_DATETIME_has_28_bytes, sizeof(ESI_DATETIME) == 28);
CHECK_FIELD(ESI_DATETIME, year, 0, 4);
CHECK_FIELD(ESI_DATETIME, month, 4, 4);
CHECK_FIELD(ESI_DATETIME, day, 8, 4);
CHECK_FIELD(ESI_DATETIME, hour, 12, 4);
CHECK_FIELD(ESI_DATETIME, minute, 16, 4);
CHECK_FIELD(ESI_DATETIME, second, 20, 4);
CHECK_FIELD(ESI_DATETIME, hundredths, 24, 4);

CHECK(ESI_DETAILS_has_88_bytes, sizeof(ESI_DETAILS) == 88);
CHECK_FIELD(ESI_DETAILS, lastVerifiedTime, 0, 28);
CHECK_FIELD(ESI_DETAILS, lastAccessedTime, 28, 28);
CHECK_FIELD(ESI_DETAILS, expiryTime, 56, 28);
CHECK_FIELD(ESI_DETAILS, invalidCount, 84, 4);

CHECK(handles_are_pointers, sizeof(QPX_ConnToken_t) == sizeof(void*));
CHECK(channel_handles_are_pointers, sizeof(ECI_ChannelToken_t) == sizeof(void*));

/* The whole numbers of the record are signed. */
typedef QPX_ECI_PARMS parms_t;
int a_negative_length_is_kept(parms_t* parms);
int a_negative_length_is_kept(parms_t* parms)
{
    parms->eci_call_type = -1;
    parms->eci_commarea_length = -1;
    parms->eci_version = -1;
    parms->eci_luw_token = -1;
    parms->eci_message_qualifier = -1;
    return parms->eci_call_type < 0 && parms->eci_commarea_length < 0 && parms->eci_version < 0 &&
           parms->eci_luw_token < 0 && parms->eci_message_qualifier < 0;
}
