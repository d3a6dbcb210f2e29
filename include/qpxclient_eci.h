/*
 * qpxclient_eci.h - calling server programs.
 *
 * One record, QPX_ECI_PARMS, describes a call and takes its results. Zero the whole record
 * first, then fill the fields that the call needs. The conventions of qpxclient.h hold.
 *
 * Example: call program PAYROLL on server PROD with 80 bytes and get 80 bytes back.
 *
 *     char area[80];
 *     QPX_ECI_PARMS parms;
 *     int rc;
 *
 *     memset(&parms, 0, sizeof parms);
 *     parms.eci_version = ECI_VERSION_6;
 *     parms.eci_call_type = ECI_SYNC;
 *     memcpy(parms.eci_program_name, "PAYROLL ", 8);
 *     memcpy(parms.eci_system_name, "PROD    ", 8);
 *     parms.eci_userid_ptr = user;
 *     parms.eci_password_ptr = password;
 *     parms.eci_commarea = area;
 *     parms.eci_commarea_length = sizeof area;
 *     rc = QPX_ECI_Execute(gateway, &parms);
 *     if (rc == ECI_ERR_TRANSACTION_ABEND)
 *         fprintf(stderr, "abend %.4s\n", parms.eci_abend_code);
 *
 * Units of work. A call with eci_extend_mode ECI_EXTENDED and eci_luw_token 0 opens a unit of
 * work and returns its token in eci_luw_token; calls that pass the token back run in the same
 * unit, and ECI_COMMIT or ECI_BACKOUT ends it. A call of a unit of work that fails, unless the
 * checks have refused it, gives up the unit: its token is unknown afterwards (ECI_ERR_LUW_TOKEN).
 * Not so an ECI_EXTENDED call that is asynchronous and whose reply brings a code of the server's:
 * end its unit with ECI_BACKOUT and the token of that reply. With a token of 0 nothing can name the
 * unit any more, and the memory that it takes is held until the connection is closed.
 */
#ifndef QPXCLIENT_ECI_H
#define QPXCLIENT_ECI_H

#include "eci_channel.h"
#include "qpxclient.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Return codes of the ECI family ------------------------------------------------------ */

#define ECI_NO_ERROR                0    /* the call succeeded */
#define ECI_ERR_INVALID_DATA_LENGTH (-1) /* a length is negative, or too small for the reply */
#define ECI_ERR_INVALID_EXTEND_MODE (-2) /* the extend mode is not 0, 1, 2 or 4 */
#define ECI_ERR_NO_VORN             (-3) /* the server is not available */
#define ECI_ERR_VORN_DIED           (-4) /* the server ended during the call */
#define ECI_ERR_REQUEST_TIMEOUT     (-5) /* the time-out is negative, or ran out before the start */
#define ECI_ERR_RESPONSE_TIMEOUT    (-6) /* the time-out ran out during the call */
#define ECI_ERR_TRANSACTION_ABEND   (-7) /* the server program abended; see eci_abend_code */
#define ECI_ERR_LUW_TOKEN           (-8) /* the token names no unit of work */
#define ECI_ERR_SYSTEM_ERROR        (-9) /* an internal error */
#define ECI_ERR_INVALID_CALL_TYPE   (-14) /* the call type is not 1 to 6 */
#define ECI_ERR_ALREADY_ACTIVE      (-15) /* the unit of work has a call in progress */
#define ECI_ERR_RESOURCE_SHORTAGE   (-16) /* memory or a server resource ran out */
#define ECI_ERR_NO_SESSIONS         (-17) /* the server has no free session */
#define ECI_ERR_INVALID_DATA_AREA   (-19) /* COMMAREA pointer and length disagree */
#define ECI_ERR_INVALID_VERSION     (-21) /* the record's version does not suit the call */
#define ECI_ERR_UNKNOWN_SERVER      (-22) /* the Gateway knows no such server */
#define ECI_ERR_SECURITY_ERROR      (-27) /* user id or password was refused */
#define ECI_ERR_MAX_SYSTEMS         (-28) /* the Gateway cannot connect to more servers */
#define ECI_ERR_MAX_SESSIONS        (-29) /* the Gateway cannot open more sessions */
#define ECI_ERR_ROLLEDBACK          (-30) /* the server backed the unit of work out */
#define ECI_ERR_NO_REPLY            (-32) /* no reply is there yet */
#define ECI_ERR_INVALID_MSG_QUAL    (-33) /* no asynchronous request has this qualifier */

/* ---- The parameter record ---------------------------------------------------------------- */

/* Values of eci_call_type. */
#define ECI_SYNC                    1 /* call and wait for the reply */
#define ECI_ASYNC                   2 /* call and return; collect the reply later */
#define ECI_GET_REPLY               3 /* collect the oldest reply, if there is one */
#define ECI_GET_REPLY_WAIT          4 /* collect the oldest reply, wait for it */
#define ECI_GET_SPECIFIC_REPLY      5 /* collect the reply of eci_message_qualifier, if there */
#define ECI_GET_SPECIFIC_REPLY_WAIT 6 /* collect the reply of eci_message_qualifier, wait */

/* Values of eci_extend_mode. */
#define ECI_NO_EXTEND 0 /* the call is a unit of work of its own */
#define ECI_EXTENDED  1 /* the call opens or continues a unit of work */
#define ECI_COMMIT    2 /* the call commits the unit of work; carries no data */
#define ECI_BACKOUT   4 /* the call backs the unit of work out; carries no data */

/* Values of eci_version: which fields of the record are in use. */
#define ECI_VERSION_3 3 /* COMMAREA calls only, user id and password in the fixed fields */
#define ECI_VERSION_4 4 /* the same, and channel calls */
#define ECI_VERSION_5 5 /* user id and password by pointer */
#define ECI_VERSION_6 6 /* the same, and asynchronous calls; use this in new programs */

#pragma pack(push, 1)
/*
 * 98 bytes in a 32-bit program, without padding. Fields of fixed width are padded with blanks
 * or NULs and carry no terminator. "out" fields are results.
 */
typedef struct _QPX_ECI_PARMS {
    short eci_call_type;            /* ECI_SYNC and the others */
    char eci_program_name[8];       /* the server program to run */
    char eci_userid[16];            /* user id, versions 3 and 4 */
    char eci_password[16];          /* password, versions 3 and 4 */
    char eci_transid[4];            /* transaction under which the program runs */
    char eci_abend_code[4];         /* out: the abend code of the server program */
    char* eci_commarea;             /* in/out: the COMMAREA; NULL if its length is 0 */
    short eci_commarea_length;      /* size of the COMMAREA, 0 to 32767 */
    short eci_timeout;              /* time-out of the call, for the Gateway; 0 or more */
    short eci_extend_mode;          /* ECI_NO_EXTEND and the others */
    int eci_luw_token;              /* in/out: the unit of work; 0 for a new one */
    short eci_version;              /* ECI_VERSION_6 and the others */
    char eci_system_name[8];        /* the server behind the Gateway */
    char eci_tpn[4];                /* transaction program; takes the place of eci_transid */
    short commarea_outbound_length; /* bytes of the COMMAREA to send; 0 means all */
    short commarea_inbound_length;  /* bytes wanted back, 0 means all; out of collected replies */
    ECI_ChannelToken_t channel;     /* in/out: the channel of a channel call */
    char* eci_userid_ptr;           /* user id, from version 5; NULL for none */
    char* eci_password_ptr;         /* password, from version 5; NULL for none */
    int eci_message_qualifier;      /* out of ECI_ASYNC; in of the specific collecting calls */
} QPX_ECI_PARMS;
#pragma pack(pop)

/*
 * Runs one call as the record says: calls a server program with a COMMAREA, or collects the
 * reply of an asynchronous call.
 *
 * ECI_SYNC      sends the request and waits, without limit, for the reply or the end of the
 *               connection. eci_abend_code and eci_luw_token are results even if the server
 *               reports a failure; the reply is in the COMMAREA, zeros behind it where it is
 *               shorter.
 * ECI_ASYNC     returns when the request is sent; eci_message_qualifier names it. The COMMAREA
 *               may be used again at once.
 * Collecting    overwrites the record with that of the request whose reply it is, eci_call_type
 *               included, but for eci_commarea and eci_commarea_length: set eci_call_type again
 *               before the next call. If the COMMAREA is too small, the record is overwritten
 *               too, the result is ECI_ERR_INVALID_DATA_LENGTH, eci_commarea_length has the size
 *               needed, and the reply stays for the next call. A reply that was longer than its
 *               request expected, and for which there was no memory when it came, is lost:
 *               ECI_ERR_SYSTEM_ERROR, and commarea_inbound_length has the size that it had.
 *               A call that waits does so until there is a reply, the connection ends, or it is
 *               being closed with nothing to come.
 *
 * Sending waits while the Gateway does not read, without limit.
 *
 * The record and what it points to belong to the caller, must stay unchanged during the call,
 * and serve one call at a time. Several threads may call on one connection with records of
 * their own.
 *
 * Errors: QPX_ERR_NULLGWTOK, QPX_ERR_BADGWTOK, QPX_ERR_NULLECIPOINTER, QPX_ERR_GWTOK_CLOSED,
 * QPX_ERR_LOSTGWCON, QPX_ERR_GATEWAY_CLOSED, QPX_ERR_MALLOCFAIL, every code of the ECI family, and
 * every code that the Gateway or the server returns.
 */
QPX_API int QPX_ECI_Execute(QPX_ConnToken_t gwTok, QPX_ECI_PARMS* EciParms);

/*
 * As QPX_ECI_Execute, with the channel in the record's field channel instead of a COMMAREA
 * (eci_version from ECI_VERSION_4). The server's additions, deletions and changes of containers
 * have been applied to the channel when an ECI_SYNC call returns, or the reply of an ECI_ASYNC
 * call has been collected. Until then the channel is the call's: whoever else uses it waits,
 * without limit, and so does a close of the connection on which such a call waits.
 *
 * A request that is answered before its channel is sent whole has its outcome when the sending has
 * ended, not before.
 *
 * ECI_COMMIT and ECI_BACKOUT carry no data: they need a handle in the record, but neither send its
 * channel nor wait for it, and end the unit of work also when that has been deleted. A channel
 * whose code page is not known yet gets that of the local code page, whatever the mode; see
 * ECI_createContainer for what that does to the locale.
 *
 * The collecting calls need no channel and collect every kind of reply, as those of QPX_ECI_Execute
 * do; the record's channel is that of the request then.
 *
 * If the connection is lost during the call, some of the changes may have been applied, each of
 * them whole: a container whose data did not all arrive is not there if it was to be added, and as
 * before or empty if it was to be changed. Memory is taken as data arrives, not as it is announced.
 *
 * Further errors: ECI_ERR_INVALID_CHANNEL, ECI_ERR_COMMAREA_AND_CHANNEL.
 */
QPX_API int QPX_ECI_Execute_Channel(QPX_ConnToken_t gwTok, QPX_ECI_PARMS* EciParms);

#ifdef __cplusplus
}
#endif

#endif
