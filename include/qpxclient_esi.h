/*
 * qpxclient_esi.h - verifying and changing passwords.
 *
 * The conventions of qpxclient.h hold. Passwords are never traced.
 *
 * Example: verify a password, and show when it expires.
 *
 *     ESI_DETAILS details;
 *     struct tm expiry;
 *     int rc = QPX_ESI_verifyPassword(gateway, user, password, "PROD", &details);
 *     if (rc == QPX_OK) {
 *         QPX_ESI_convertTime(&details.expiryTime, &expiry);
 *         printf("valid until %d-%02d-%02d\n", expiry.tm_year + 1900, expiry.tm_mon + 1,
 *                expiry.tm_mday);
 *     }
 */
#ifndef QPXCLIENT_ESI_H
#define QPXCLIENT_ESI_H

#include <time.h>

#include "qpxclient.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Return codes of the ESI family ------------------------------------------------------ */

#define ESI_ERR_USERID_INVALID    (-300) /* the server does not know the user id */
#define ESI_ERR_NULL_USERID       (-301) /* the user id is NULL or empty */
#define ESI_ERR_PASSWORD_INVALID  (-302) /* the password is wrong */
#define ESI_ERR_NULL_PASSWORD     (-303) /* the password is NULL or empty */
#define ESI_ERR_PEM_NOT_SUPPORTED (-304) /* the server has no password management */
#define ESI_ERR_PEM_NOT_ACTIVE    (-305) /* the server's password management is not active */
#define ESI_ERR_PASSWORD_EXPIRED  (-306) /* the password has expired */
#define ESI_ERR_SECURITY_ERROR    (-307) /* the server refused for another reason */
#define ESI_ERR_RESOURCE_SHORTAGE (-308) /* a server resource ran out */
#define ESI_ERR_NO_SESSIONS       (-309) /* the server has no free session */
#define ESI_ERR_NO_VORN           (-310) /* the server is not available */
#define ESI_ERR_VORN_DIED         (-311) /* the server ended during the call */
#define ESI_ERR_UNKNOWN_SERVER    (-312) /* the Gateway knows no such server */
#define ESI_ERR_SYSTEM_ERROR      (-313) /* an internal error */
#define ESI_ERR_NULL_NEW_PASSWORD (-314) /* the new password is NULL or empty */
#define ESI_ERR_PASSWORD_REJECTED (-315) /* the new password breaks the server's rules */
/* QPX_getRcString calls the last two UNKNOWN. */
#define ESI_ERR_MAX_SYSTEMS  (-316) /* the Gateway cannot connect to more servers */
#define ESI_ERR_MAX_SESSIONS (-317) /* the Gateway cannot open more sessions */

/* A point in time as the server sends it. A year of 0 means that it is not set. */
typedef struct _ESI_DATETIME {
    int year;       /* the full year */
    int month;      /* 0 to 11 */
    int day;        /* 1 to 31 */
    int hour;       /* 0 to 23 */
    int minute;     /* 0 to 59 */
    int second;     /* 0 to 59 */
    int hundredths; /* hundredths of a second, 0 to 99 */
} ESI_DATETIME;

/* What the server tells of a user whose password it accepted. */
typedef struct _ESI_DETAILS {
    ESI_DATETIME lastVerifiedTime; /* when the password was last verified */
    ESI_DATETIME lastAccessedTime; /* when the user last accessed the server */
    ESI_DATETIME expiryTime;       /* when the password expires */
    int invalidCount;              /* invalid password attempts */
} ESI_DETAILS;

/* ---- Calls ------------------------------------------------------------------------------- */

/*
 * Verifies a user's password.
 *
 * userid         NUL-terminated, not empty; its first 10 bytes are sent.
 * password       NUL-terminated, not empty.
 * server         the server to ask, of which the first 8 characters count; NULL for the
 *                Gateway's default server.
 * esiDetailsPtr  receives what the server tells of the user, if the result is QPX_OK; may be
 *                NULL.
 *
 * The texts must stay unchanged during the call, which waits without limit for a reply or the end
 * of the connection.
 *
 * Errors: QPX_ERR_NULLGWTOK, QPX_ERR_BADGWTOK, QPX_ERR_GWTOK_CLOSED, QPX_ERR_LOSTGWCON,
 * QPX_ERR_GATEWAY_CLOSED, QPX_ERR_MALLOCFAIL, QPX_ERR_SYSTEM_ERROR, ESI_ERR_NULL_USERID,
 * ESI_ERR_NULL_PASSWORD, every other code of the ESI family, and every code that the Gateway
 * returns.
 */
QPX_API int QPX_ESI_verifyPassword(QPX_ConnToken_t gwTok, const char* userid, const char* password,
                                   const char* server, ESI_DETAILS* esiDetailsPtr);

/*
 * Verifies a user's old password and makes newPassword the new one; otherwise as
 * QPX_ESI_verifyPassword. If the connection ends during the call, the change is in doubt.
 *
 * Further errors: ESI_ERR_NULL_NEW_PASSWORD, ESI_ERR_PASSWORD_REJECTED.
 */
QPX_API int QPX_ESI_changePassword(QPX_ConnToken_t gwTok, const char* userid,
                                   const char* oldPassword, const char* newPassword,
                                   const char* server, ESI_DETAILS* esiDetailsPtr);

/*
 * Converts a time of ESI_DETAILS and returns result. The time is taken as sent and not shifted. A
 * time that is not set (year 0) gives a record of zeros; if an argument is NULL, nothing is done.
 * The two may share storage.
 *
 * Unlike the C library's, tm_yday counts from 1, which strftime's %j and numbers of weeks show.
 * tm_wday is right for 1900 to 2099 and 2101 to 2199. tm_isdst is -1.
 */
QPX_API struct tm* QPX_ESI_convertTime(const ESI_DATETIME* esiTime, struct tm* result);

#ifdef __cplusplus
}
#endif

#endif
