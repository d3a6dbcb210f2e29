/*
 * qpxclient.h - connections to a Gateway, trace control and return codes.
 *
 * Conventions of all QPXClient headers
 *
 *  1. Calls return an int return code, but for the few that return a pointer or nothing: 0
 *     (QPX_OK) on success. A negative code is the library's, the Gateway's or the server's; a
 *     positive code tells what became of a request at the Gateway. QPX_getRcString gives its name.
 *  2. Calls may be made from any thread, and any number of threads may share one connection.
 *     What is not safe to share is said at the call.
 *  3. The library initialises itself in the first call; a call that finds that this has failed
 *     returns what it failed with: QPX_ERR_MALLOCFAIL, QPX_ERR_SYSTEM_ERROR, or -1 for a lock. It
 *     ignores SIGPIPE for the process and starts one thread per open connection, none else.
 *     Channels set the locale of the process; see eci_channel.h.
 *  4. Texts are NUL-terminated unless their comment gives a fixed width. The library never
 *     writes into a text passed to it.
 *  5. Pointers handed out point into the library's own storage; each call says how long it
 *     lives. Never free them.
 *  6. Times are whole seconds, sizes are bytes.
 *  7. What bounds a wait is said at the call. "Without limit" means until the other side answers
 *     or the connection ends; neither a signal nor a cancellation of the thread ends such a wait.
 *     docs/guide.md lists these waits and the way out of each.
 *  8. A thread that is cancelled leaves the call first. No call may be made from a signal handler,
 *     or left by longjmp.
 *  9. A child of fork has the channels and no connection: a token of its parent is no token there.
 *     Nothing of a connection, and no trace file, is inherited by a program that is executed.
 *
 * Example
 *
 *     char host[] = "gateway.example";
 *     QPX_ConnToken_t gateway = NULL;
 *     int rc = QPX_openRemoteGatewayConnection(host, 5770, &gateway, 30);
 *     if (rc != QPX_OK) {
 *         char name[QPX_RC_STRING_SIZE];
 *         fprintf(stderr, "open failed: %d %s\n", rc, QPX_getRcString(rc, name));
 *         return 1;
 *     }
 *     ... calls ...
 *     rc = QPX_closeGatewayConnection(&gateway);
 */
#ifndef QPXCLIENT_H
#define QPXCLIENT_H

#include <stddef.h>

/* Marks the calls that the library exports; of no concern to applications. */
#ifndef QPX_API
#if defined(QPX_BUILDING_LIBRARY) && defined(__GNUC__)
#define QPX_API __attribute__((visibility("default")))
#else
#define QPX_API
#endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Return codes of the connection and library family ---------------------------------- */

#define QPX_OK                     0      /* the call succeeded */
#define QPX_ERR_SYSTEM_ERROR       (-9)   /* a lock, event or thread failed; or no Gateway */
#define QPX_ERR_MORE_SYSTEMS       (-25)  /* the Gateway knows more systems than the list holds */
#define QPX_ERR_NO_SYSTEMS         (-26)  /* the Gateway knows no system */
#define QPX_ERR_NULLGWTOK          (-100) /* the connection token is NULL */
#define QPX_ERR_BADGWTOK           (-101) /* the token is not that of an open connection */
#define QPX_ERR_LOSTGWCON          (-102) /* the connection was lost */
#define QPX_ERR_NULLPARM           (-103) /* a required text is NULL */
#define QPX_ERR_TRACELEVEL         (-104) /* the trace level is not 0 to 5 */
#define QPX_ERR_BADPORT            (-107) /* the port is not 1 to 65535 */
#define QPX_ERR_NULLGWTOKPTR       (-108) /* the pointer to the connection token is NULL */
#define QPX_ERR_NULLPTR            (-109) /* a required pointer is NULL */
#define QPX_ERR_MALLOCFAIL         (-111) /* memory could not be allocated */
#define QPX_ERR_CONNECTFAILED      (-118) /* the Gateway could not be reached */
#define QPX_ERR_TRACEFILE          (-130) /* the trace file could not be opened for appending */
#define QPX_ERR_BADHOST            (-132) /* no address for the host, or no socket for it */
#define QPX_ERR_NULLADDRESS        (-133) /* the host name is NULL */
#define QPX_ERR_CONNECTTIMEOUT     (-134) /* connect or handshake took longer than allowed */
#define QPX_ERR_NULLECIPOINTER     (-137) /* the ECI parameter record is NULL */
#define QPX_ERR_INVALIDTIMEOUTPARM (-138) /* a time-out is not 0 to 3600 seconds */
#define QPX_ERR_APPLIDTOOLONG      (-139) /* applid or qualifier is longer than 8 characters */
#define QPX_ERR_GWTOK_CLOSED       (-140) /* the connection is being closed by the application */

/* What became of a request at the Gateway. */
#define QPX_ERR_GATEWAY_CLOSED       61444 /* 0xF004: the Gateway closed the connection */
#define QPX_ERR_WORK_WAS_REFUSED     61445 /* 0xF005: the Gateway accepts no new work */
#define QPX_ERR_GATEWAY_EXCEPTION    61446 /* 0xF006: the Gateway failed; the trace has its text */
#define QPX_ERR_GATEWAY_BACK_LEVEL   61450 /* 0xF00A: the Gateway is too old for the request */
#define QPX_ERR_INVALID_REQUEST_TYPE 61451 /* 0xF00B: the Gateway does not know the request */

/* Room for the longest name of a return code and its terminator. */
#define QPX_RC_STRING_SIZE 40

/* ---- Connections ------------------------------------------------------------------------ */

/*
 * The handle of one connection; opaque, and valid from a successful open until its close. Calls
 * refuse what is no handle, or none any more, with QPX_ERR_BADGWTOK. A close or purge refuses one
 * of at least the last 64 that were closed with QPX_ERR_GWTOK_CLOSED. A handle that is kept longer
 * may come to name another connection: set variables to NULL.
 */
typedef struct _QPX_ConnToken_t* QPX_ConnToken_t;

/*
 * Opens a connection to the Gateway at hostname:port with no applid.
 *
 * hostname     name or address; only the first address that it resolves to is tried. That may be
 *              ::1 for "localhost".
 * port         TCP port, 1 to 65535.
 * gwTokPtr     receives the connection's token on success; unchanged otherwise.
 * connTimeout  seconds allowed for the TCP connect and again until the Gateway's answer to the
 *              handshake begins, 0 to 3600; 0 means no limit.
 *
 * connTimeout bounds neither the look-up of the name, which the resolver's own settings do, nor
 * the rest of the answer: a server that sends fewer than 32 bytes and stays keeps the call until it
 * goes, and one that says goodbye in the place of an answer keeps it for good. With a limit of 0 a
 * signal whose handler was set without SA_RESTART ends the connect with QPX_ERR_CONNECTFAILED.
 *
 * The environment variables QPX_APPLID and QPX_APPLIDQUALIFIER, where set (even to an empty
 * value), give the connection its applid and qualifier.
 *
 * Errors: QPX_ERR_BADPORT, QPX_ERR_NULLGWTOKPTR, QPX_ERR_INVALIDTIMEOUTPARM,
 * QPX_ERR_NULLADDRESS, QPX_ERR_APPLIDTOOLONG (from the environment), QPX_ERR_BADHOST (no
 * address, or no descriptor left), QPX_ERR_CONNECTFAILED, QPX_ERR_CONNECTTIMEOUT,
 * QPX_ERR_LOSTGWCON (the other side ended the connection during the handshake: a proxy with nobody
 * behind it, a server that wants TLS), QPX_ERR_SYSTEM_ERROR (no thread could be started, or what
 * answered is no Gateway), -1 (an event could not be made), QPX_ERR_MALLOCFAIL, or the code with
 * which the Gateway refused the handshake. In a 32-bit process with stacks of 8 MiB there is room
 * for about 500 threads and so for as many connections; with a smaller "ulimit -s" there are more.
 */
QPX_API int QPX_openRemoteGatewayConnection(char* hostname, int port, QPX_ConnToken_t* gwTokPtr,
                                            int connTimeout);

/*
 * As QPX_openRemoteGatewayConnection, with an application identifier and its qualifier, at most
 * 8 characters each (ISO 8859-1); an empty text means none. The environment variables win over
 * the arguments.
 *
 * Further errors: QPX_ERR_NULLPARM (applid or applidQualifier is NULL), QPX_ERR_APPLIDTOOLONG.
 */
QPX_API int QPX_openRemoteGatewayConnectionApplid(char* hostname, int port,
                                                  QPX_ConnToken_t* gwTokPtr, int connTimeout,
                                                  char* applid, char* applidQualifier);

/*
 * Closes a connection in order: refuses new calls on it, waits without limit until the calls
 * and asynchronous requests in progress are done and collected, then ends the conversation: sends
 * the close flow and waits, without limit too, for the Gateway's answer or the end of the
 * connection.
 *
 * After QPX_OK the token is invalid and what it stood for is freed; the variable that held it is
 * not changed, so set it to NULL yourself. One thread closes a connection once; a second close gets
 * QPX_ERR_GWTOK_CLOSED or QPX_ERR_BADGWTOK.
 *
 * After QPX_ERR_LOSTGWCON, QPX_ERR_MALLOCFAIL or QPX_ERR_SYSTEM_ERROR the connection is at its end
 * too, but its memory stays, and only QPX_closeAllGatewayConnections frees it. If the system did
 * not take the close flow, or there was no memory for it, the library has ended the connection by
 * itself. Where a lock of its own failed (QPX_ERR_SYSTEM_ERROR), the call may have waited until the
 * Gateway ended it.
 *
 * Errors: QPX_ERR_NULLGWTOKPTR, QPX_ERR_NULLGWTOK, QPX_ERR_BADGWTOK, QPX_ERR_GWTOK_CLOSED,
 * QPX_ERR_LOSTGWCON (the connection broke while it was closed), QPX_ERR_MALLOCFAIL,
 * QPX_ERR_SYSTEM_ERROR.
 */
QPX_API int QPX_closeGatewayConnection(QPX_ConnToken_t* gwTokPtr);

/*
 * As QPX_closeGatewayConnection, but waits at most closeTimeout seconds of the system's clock (0
 * to 3600; 0 = not at all) for outstanding work. Calls still waiting then end with
 * QPX_ERR_GWTOK_CLOSED, or QPX_ERR_LOSTGWCON if the purge itself fails, and replies not yet
 * collected are given up.
 *
 * closeTimeout does not bound the waits behind it: for the Gateway's answer to the close flow, for
 * a call that is still sending its request, and for a call that waits for a channel which a call on
 * another connection has.
 *
 * Further errors: QPX_ERR_INVALIDTIMEOUTPARM (the connection stays open).
 */
QPX_API int QPX_purgeGatewayConnection(QPX_ConnToken_t* gwTokPtr, int closeTimeout);

/*
 * Purges every open connection of the process, one after the other, with a closeTimeout of 0, and
 * frees what a failed close has left. A connection whose open has not returned yet is passed over.
 * The waits that a purge does not bound are not bounded here either. Always QPX_OK once the library
 * is initialised.
 */
QPX_API int QPX_closeAllGatewayConnections(void);

/*
 * Stores in *applid (*applidQualifier) a pointer to the text that the connection carries, "" if
 * none. The text belongs to the connection and lives until it is closed.
 *
 * Errors: QPX_ERR_NULLGWTOK, QPX_ERR_NULLPTR, QPX_ERR_BADGWTOK, QPX_ERR_SYSTEM_ERROR.
 */
QPX_API int QPX_getApplid(QPX_ConnToken_t gwTok, char** applid);
QPX_API int QPX_getApplidQualifier(QPX_ConnToken_t gwTok, char** applidQualifier);

/* ---- Systems ---------------------------------------------------------------------------- */

/* A server that the Gateway knows; 70 bytes. */
typedef struct _QPX_listSystem_t {
    char SystemName[9];   /* at most 8 characters, then NULs */
    char Description[61]; /* at most 60 characters, then what the Gateway sends */
} QPX_listSystem_t;

/*
 * Asks the Gateway for the servers that it knows.
 *
 * Systems  in: how many entries List has room for; out: how many the Gateway reports.
 * List     receives the entries. Blanks behind a name's first character become NULs, a description
 *          stays as sent. Only the Gateway vouches for terminators: print no more than 8 and 60
 *          characters.
 *
 * Both are changed only by a reply. The array must stay unchanged during the call, which waits
 * without limit for a reply or the end of the connection.
 *
 * Errors: QPX_ERR_NULLGWTOK, QPX_ERR_BADGWTOK, QPX_ERR_GWTOK_CLOSED, QPX_ERR_NULLPTR,
 * QPX_ERR_MORE_SYSTEMS (there are more than fit; the list is filled), QPX_ERR_NO_SYSTEMS,
 * QPX_ERR_LOSTGWCON, QPX_ERR_GATEWAY_CLOSED, QPX_ERR_MALLOCFAIL, QPX_ERR_SYSTEM_ERROR, and every
 * code that the Gateway returns.
 */
QPX_API int QPX_listSystems(QPX_ConnToken_t gwTok, unsigned short* Systems, QPX_listSystem_t* List);

/* ---- Versions, state and return code names ---------------------------------------------- */

/*
 * Store a pointer to the version of the programming interface ("2.3.0.0") and of the library
 * ("10.1.0.0"). The texts live as long as the process. Error: QPX_ERR_NULLPTR.
 */
QPX_API int QPX_getAPIVersion(char** apiVersPtr);
QPX_API int QPX_getDLLVersion(char** dllVersPtr);

/*
 * Writes the library's state to the trace destination, whatever the trace level: its version, the
 * trace level and the name of the trace file, a line for each connection, and what
 * QPX_ECI_dumpChannels writes. No data and no password. Always QPX_OK once the library is
 * initialised.
 */
QPX_API int QPX_dumpState(void);

/*
 * Copies the name of return code rc, such as "QPX_ERR_BADPORT", or "UNKNOWN", to rcString and
 * returns rcString. rcString has room for QPX_RC_STRING_SIZE bytes, all of which are written;
 * NULL is returned for NULL. Works before any other call.
 */
QPX_API char* QPX_getRcString(int rc, char* rcString);

/* ---- Trace ------------------------------------------------------------------------------
 *
 * The trace is a text of one line per event. Levels, each adding to the one below:
 *   0 nothing   1 failures   2 milestones   3 entry and exit of functions
 *   4 values and data dumps   5 the same as 4
 * Environment variables give the settings at the first call: QPX_CLIENT_TRACE_LEVEL (0 to 5),
 * QPX_CLIENT_TRACE_FILE, QPX_CLIENT_DATA_LENGTH and QPX_CLIENT_DATA_OFFSET.
 * Passwords are never traced; other data is, from level 4. A line that cannot be written is lost,
 * and no call fails for it. A file that reaches the limit of file sizes raises SIGXFSZ in the
 * thread that writes; a FIFO without a reader blocks the call that opens it, and a pipe that is
 * full every call that writes to it.
 */

/* Stores the current level in *traceStatePtr. Error: QPX_ERR_NULLPTR. */
QPX_API int QPX_getAPITraceLevel(int* traceStatePtr);

/* Sets the level, 0 to 5. Error: QPX_ERR_TRACELEVEL (the level is unchanged). */
QPX_API int QPX_setAPITraceLevel(int traceState);

/*
 * Appends the trace to the named file from now on; NULL means standard error. The name has at
 * most 1023 bytes. A file that is renamed or removed later is written on; the same name given
 * again opens a new one. Error: QPX_ERR_TRACEFILE (the destination is unchanged).
 */
QPX_API int QPX_setAPITraceFile(char* traceFile);

/* Sets how many bytes one data dump shows at most: 128 unless set, 0 means no limit. */
QPX_API void QPX_setAPITraceDataLength(size_t dataLength);

/*
 * Sets how many leading bytes of each dumped block are skipped: 0 unless set. Of a block that is
 * not longer than that no bytes are shown.
 */
QPX_API void QPX_setAPITraceDataOffset(size_t dataOffset);

#ifdef __cplusplus
}
#endif

#endif
