/*
 * standin.h - a Gateway inside the program that tests against it.
 *
 * The stand-in listens on a port of this machine, speaks the Gateway's side of the protocol,
 * answers calls as a function or a script says, fails on purpose, and keeps every call to be looked
 * at. docs/gateway.md tells what its own programs, its scripts and its faults do.
 *
 * Example: a test of something that calls program PRICE once.
 *
 *     static void price(const standin_call* call, standin_answer* answer, void* context)
 *     {
 *         (void)call;
 *         (void)context;
 *         standin_answer_commarea(answer, "42.00", 5);
 *     }
 *
 *     standin_gateway* gateway;
 *     standin_call* call;
 *
 *     if (standin_start(&gateway) != STANDIN_OK) return fail(standin_problem());
 *     standin_set_program(gateway, "PRICE", price, NULL);
 *     standin_misbehave(gateway, "drop@program:PRICE,nth:2");
 *     ... what is tested connects to 127.0.0.1 and standin_port(gateway) ...
 *     if (standin_await_calls(gateway, 1, 5000) != STANDIN_OK) return fail(standin_problem());
 *     if (standin_read_call(gateway, 1, &call) == STANDIN_OK) {
 *         puts(standin_call_user(call));
 *         standin_free_call(call);
 *     }
 *     standin_stop(gateway);
 *
 * Conventions:
 *
 * 1. A function that can fail returns STANDIN_OK or one of the negative codes below;
 *    standin_problem() then says in a sentence what was wrong. Nothing has changed in that case.
 * 2. Texts end with a NUL. Data have an address and a length in bytes; an address may be NULL with
 *    the length 0. What is handed in is copied before the function returns.
 * 3. What is handed out belongs to the call that it was asked of, and is there as long as that: one
 *    that was given to a function of yours until that returns, one that was read back until
 *    standin_free_call(). Texts are never NULL; what there is none of is "".
 * 4. Times are in milliseconds, from 0.
 * 5. Each function may be called from any thread, and several threads may use one gateway. Only
 *    standin_stop() must be the last to use it.
 * 6. Your functions run on the gateway's own thread, one at a time, and nothing else is answered
 *    meanwhile. They may use what begins with standin_call_ and standin_answer_; all else is
 *    refused there with STANDIN_ERR_INSIDE. The thread has all signals blocked.
 * 7. Passwords are never kept, and are shown to a function of yours alone.
 */
#ifndef STANDIN_H
#define STANDIN_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Return codes ------------------------------------------------------------------------ */

#define STANDIN_OK           0
#define STANDIN_ERR_ARGUMENT (-1) /* a pointer is NULL, or a value out of its range */
#define STANDIN_ERR_MEMORY   (-2) /* memory or another resource of the system ran out */
#define STANDIN_ERR_LISTEN   (-3) /* the address and port cannot be listened on */
#define STANDIN_ERR_TIME     (-4) /* the time has passed */
#define STANDIN_ERR_NO_CALL  (-5) /* there is no such call, container or connection */
#define STANDIN_ERR_FAULT    (-6) /* there is no such misbehaviour or selector */
#define STANDIN_ERR_SCRIPT   (-7) /* the script cannot be used */
#define STANDIN_ERR_INSIDE   (-8) /* not within a function that answers a call */
#define STANDIN_ERR_STATE    (-9) /* not in this situation: see the function */

/* What the last function that failed in this thread has to say, a sentence in English. Belongs to
 * the library; there until the next one fails in this thread. "" before the first failure. */
const char* standin_problem(void);

/* ---- The gateway ------------------------------------------------------------------------- */

typedef struct standin_gateway standin_gateway;

/* One line about what happens, without a line end and without passwords. Runs on a thread of the
 * gateway; convention 6 holds. `level`: 0 debug, 1 information, 2 warning, 3 error. */
typedef void (*standin_log)(int level, const char* line, void* context);

/* Starts a gateway on 127.0.0.1 and any free port. It belongs to the caller, who ends it with
 * standin_stop(). It has the programs ECHO, ABEND, CHANECHO and CHANEDIT; a call of any other is
 * answered with code -7 and the abend code "AEI0".
 * STANDIN_ERR_ARGUMENT, STANDIN_ERR_LISTEN, STANDIN_ERR_MEMORY; *gateway is NULL then. */
int standin_start(standin_gateway** gateway);

/* The same on an address of this machine, NULL for 127.0.0.1, and a port of 0 (any free one) to
 * 65535. `log`, unless it is NULL, is told what happens, with `context`. */
int standin_start_at(standin_gateway** gateway, const char* host, int port, standin_log log,
                     void* context);

/* Ends every connection and the gateway's thread, and frees the gateway. No function of yours runs
 * any more once this has returned. NULL is harmless. STANDIN_ERR_INSIDE. */
int standin_stop(standin_gateway* gateway);

/* The port that it listens on, from 1; 0 for NULL. */
int standin_port(const standin_gateway* gateway);

/* ---- What is answered -------------------------------------------------------------------- */

typedef struct standin_call standin_call;
typedef struct standin_answer standin_answer;

/* Answers one call. Without any standin_answer_ function the answer is a good one: the COMMAREA of
 * the application stays as it is, and so does its channel. */
typedef void (*standin_program)(const standin_call* call, standin_answer* answer, void* context);

/* From now on `program` answers the calls of the program `name` (1 to 8 characters), with
 * `context`, instead of whatever has done so before. STANDIN_ERR_ARGUMENT, STANDIN_ERR_INSIDE. */
int standin_set_program(standin_gateway* gateway, const char* name, standin_program program,
                        void* context);

/* The same where the answer is always this COMMAREA, of at most 32,767 bytes. */
int standin_set_commarea(standin_gateway* gateway, const char* name, const void* data,
                         size_t length);

/* From now on `program` answers requests to verify and to change a password (standin_call_type()
 * tells which). At first they get the gateway's error 61451. STANDIN_ERR_ARGUMENT,
 * STANDIN_ERR_INSIDE. */
int standin_set_passwords(standin_gateway* gateway, standin_program program, void* context);

/* Adds a server to the list of systems that clients are shown: a name of 1 to 8 characters, a
 * description of at most 60. STANDIN_ERR_ARGUMENT, STANDIN_ERR_INSIDE. */
int standin_add_system(standin_gateway* gateway, const char* name, const char* description);

/* Puts the script `file` in front of all programs, in place of the one before; NULL: none. The file
 * is watched and read again when it changes; one that is wrong then is told to the log, and the one
 * before stays in force. STANDIN_ERR_SCRIPT when it cannot be read, is wrong (the problem has line
 * and column), or asks for what this build of the library has not; STANDIN_ERR_ARGUMENT,
 * STANDIN_ERR_INSIDE, STANDIN_ERR_MEMORY. */
int standin_set_script(standin_gateway* gateway, const char* file);

/* Each changes the answer to the call that is being answered; the last word counts.
 *
 * The COMMAREA: at most 32,767 bytes, of which as many go out as the application wants back. */
int standin_answer_commarea(standin_answer* answer, const void* data, size_t length);

/* The code of the server, 0 for a good answer. With another one no data go out, and the unit of
 * work ends. */
int standin_answer_code(standin_answer* answer, int code);

/* An abnormal end: code -7 and an abend code of 1 to 4 characters. */
int standin_answer_abend(standin_answer* answer, const char* abend);

/* The code of the gateway, 0 for none. */
int standin_answer_gateway(standin_answer* answer, int code);

/* Puts a container into the channel of the call, or in the place of the one of its name (1 to 16 of
 * the characters that names are made of). `ccsid` 0: bytes; 1 to 65535: characters in that code
 * page. STANDIN_ERR_STATE when the call has no channel. */
int standin_answer_container(standin_answer* answer, const char* name, int ccsid, const void* data,
                             size_t length);

/* Deletes a container. STANDIN_ERR_NO_CALL when there is none of the name, STANDIN_ERR_STATE when
 * the call has no channel. */
int standin_answer_delete_container(standin_answer* answer, const char* name);

/* Keeps the answer for so long before it goes out, at most an hour. Only for calls of programs:
 * STANDIN_ERR_STATE. */
int standin_answer_delay(standin_answer* answer, int milliseconds);

/* A misbehaviour that strikes at this answer alone, without a selector: "truncate=7". May be called
 * several times. Only for calls of programs: STANDIN_ERR_STATE. STANDIN_ERR_FAULT. */
int standin_answer_fault(standin_answer* answer, const char* misbehaviour);

/* ---- What goes wrong --------------------------------------------------------------------- */

/* Misbehaves from now on, as the option --misbehave of qpxgatewayd does: "drop",
 * "flow-error=61445@message:3", "hold@program:PRICE". Of several the first that replaces an answer
 * counts, the others add up. STANDIN_ERR_FAULT, STANDIN_ERR_ARGUMENT, STANDIN_ERR_INSIDE. */
int standin_misbehave(standin_gateway* gateway, const char* misbehaviour);

/* Ends all misbehaviours. What is held stays held. */
int standin_behave(standin_gateway* gateway);

/* Ends the misbehaviour "hold", and sends every answer that is held, the oldest first. */
int standin_release(standin_gateway* gateway);

/* Closes a connection in order behind what is under way, or resets it at once; 0: every one.
 * Connections have numbers from 1, in the order in which they come. STANDIN_ERR_NO_CALL when there
 * is none. */
int standin_drop(standin_gateway* gateway, int connection);
int standin_reset(standin_gateway* gateway, int connection);

/* Sends a close flow, as a Gateway does that ends; 0: on every connection. STANDIN_ERR_NO_CALL when
 * there is none. */
int standin_send_close(standin_gateway* gateway, int connection);

/* ---- What has happened ------------------------------------------------------------------- */

/* Each waits until so many calls in all, since the start or standin_forget(), have come, or have
 * been answered (or lost: no answer can go out any more), or until so many answers are held right
 * now. STANDIN_ERR_TIME when it has not come to that in so many milliseconds; 0 only looks.
 * STANDIN_ERR_ARGUMENT, STANDIN_ERR_INSIDE. */
int standin_await_calls(standin_gateway* gateway, size_t count, int milliseconds);
int standin_await_answers(standin_gateway* gateway, size_t count, int milliseconds);
int standin_await_held(standin_gateway* gateway, size_t count, int milliseconds);

/* The same numbers as they are; and how many flows were malformed, which is a defect of the client.
 * 0 for NULL. */
size_t standin_call_count(const standin_gateway* gateway);
size_t standin_answer_count(const standin_gateway* gateway);
size_t standin_finding_count(const standin_gateway* gateway);

/* The call with this number, from 1 in the order in which they came since the start or
 * standin_forget(), as it stands now. It belongs to the caller, who gives it to
 * standin_free_call(). STANDIN_ERR_NO_CALL when there have not been so many,
 * STANDIN_ERR_ARGUMENT, STANDIN_ERR_MEMORY. */
int standin_read_call(standin_gateway* gateway, size_t number, standin_call** call);

/* NULL is harmless. */
void standin_free_call(standin_call* call);

/* Forgets all calls, and counts calls, answers and malformed flows from 0 again. Every call is kept
 * until then, with its data: a test that makes very many forgets now and then. A call that is not
 * answered yet is forgotten with the others, and its answer is counted nowhere. */
int standin_forget(standin_gateway* gateway);

/* ---- A call ------------------------------------------------------------------------------ */

#define STANDIN_CALL_PROGRAM   1 /* of a program */
#define STANDIN_CALL_LIST      2 /* for the list of systems */
#define STANDIN_CALL_VERIFY    3 /* to verify a password */
#define STANDIN_CALL_CHANGE    4 /* to change a password */
#define STANDIN_CALL_MALFORMED 5 /* none that could be read */

/* Of these functions those that give a number or a length give 0 for NULL, those that give a text
 * "". */
int standin_call_type(const standin_call* call);
int standin_call_connection(const standin_call* call); /* the number of its connection */
int standin_call_message(const standin_call* call);    /* its message id */

/* Without the blanks behind them; the transaction has all four characters, if there is one. */
const char* standin_call_program(const standin_call* call);
const char* standin_call_transaction(const standin_call* call);
const char* standin_call_server(const standin_call* call);
const char* standin_call_user(const standin_call* call);

/* In clear; only within a function that answers the call. The new one of a change alone. */
const char* standin_call_password(const standin_call* call);
const char* standin_call_new_password(const standin_call* call);

/* The extend mode (0, 1, 2 or 4), and the token of the unit of work as it came; 0: none. */
int standin_call_mode(const standin_call* call);
int standin_call_unit(const standin_call* call);

/* The COMMAREA as a server program sees it: of the length that the application gave, with 0x00
 * behind what was sent. NULL and 0 when there is none; `length` may be NULL. */
const void* standin_call_commarea(const standin_call* call, size_t* length);

/* A container of a call or of its answer. */
typedef struct standin_container {
    const char* name;
    const void* data;
    size_t length; /* of the data, in bytes */
    int ccsid;     /* of characters; 0: bytes */
    int change;    /* 1 added, 2 deleted, 3 changed, 4 unchanged; 1 in every call */
} standin_container;

/* The channel's name, "" when there is none; how many containers it has; and one of them, by its
 * place from 0 or by its name. STANDIN_ERR_NO_CALL when there is no such container. */
const char* standin_call_channel(const standin_call* call);
size_t standin_call_containers(const standin_call* call);
int standin_call_container(const standin_call* call, size_t place, standin_container* container);
int standin_call_find_container(const standin_call* call, const char* name,
                                standin_container* container);

/* What was malformed, and at which byte of the flow. */
const char* standin_call_problem(const standin_call* call);

/* 1 when the call has been answered, or lost; 0 while its answer is made, delayed or held, and then
 * all below is 0 or "". */
int standin_call_is_done(const standin_call* call);

/* How many bytes went out as its answer, misbehaviours included; 0: none, it is lost. */
size_t standin_call_sent(const standin_call* call);

/* What was answered: the code of the server, the abend code (four characters, "" where the code is
 * not -7), the code of the gateway as it went out, and the data. Data of containers that were
 * deleted or are unchanged do not go out, and have the length 0. */
int standin_call_code(const standin_call* call);
const char* standin_call_abend(const standin_call* call);
int standin_call_gateway(const standin_call* call);
const void* standin_call_answer_commarea(const standin_call* call, size_t* length);
size_t standin_call_answer_containers(const standin_call* call);
int standin_call_answer_container(const standin_call* call, size_t place,
                                  standin_container* container);

/* The misbehaviours that have struck, with a blank between them: "drop pieces". */
const char* standin_call_faults(const standin_call* call);

/* From the request to its answer, in microseconds, a delay included. */
long standin_call_microseconds(const standin_call* call);

#ifdef __cplusplus
}
#endif

#endif
