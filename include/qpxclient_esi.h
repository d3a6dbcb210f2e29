/*
 * qpxclient_esi.h - the records of the security service.
 *
 * The conventions of qpxclient.h hold.
 */
#ifndef QPXCLIENT_ESI_H
#define QPXCLIENT_ESI_H

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
#define ESI_ERR_MAX_SYSTEMS       (-316) /* the Gateway cannot connect to more servers */
#define ESI_ERR_MAX_SESSIONS      (-317) /* the Gateway cannot open more sessions */

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

#ifdef __cplusplus
}
#endif

#endif
