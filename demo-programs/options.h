/*
 * options.h - what the programs of the demo have in common: messages, the options that say where
 * the Gateway is and what to call, reading files, opening, calling and closing, and the end.
 */
#ifndef OPTIONS_H
#define OPTIONS_H

#include <getopt.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>

#include "qpxclient.h"
#include "qpxclient_eci.h"

/* Exit codes that all programs have. */
#define EXIT_OK     0
#define EXIT_FAILED 1
#define EXIT_USAGE  2

/* In place of an exit code: there is no reason to end. */
#define GO_ON (-1)

/* Each program has these. */
extern const char program_name[];
void print_help(void);

/* Where to connect, and what to call there. Texts that are not given are as the program has set
 * them. */
struct target {
    char* host;
    int port;
    char* applid;
    const char* server;  /* at most 8 characters; may be NULL */
    const char* program; /* at most 8 characters; may be NULL */
    char* user;
    char* password; /* of the user; may be NULL */
    int timeout;    /* seconds, for connecting */
};

/* The options of a target and --help, in two groups: where it is, and all that a call needs. Of each
 * group there are the values where nothing is given, and the rows for getopt_long. A program's own
 * options begin with OWN_OPTIONS. */
enum {
    OPTION_HOST = 1,
    OPTION_PORT,
    OPTION_APPLID,
    OPTION_SERVER,
    OPTION_PROGRAM,
    OPTION_USER,
    OPTION_TIMEOUT,
    OPTION_HELP,
    OWN_OPTIONS
};
/* clang-format off */
#define WHERE_DEFAULTS .host = "127.0.0.1", .timeout = 30
#define CALL_DEFAULTS(PROGRAM, PASSWORD_VARIABLE)       \
    WHERE_DEFAULTS, .applid = "", .server = "",         \
    .program = (PROGRAM), .password = getenv(PASSWORD_VARIABLE)

#define WHERE_OPTIONS                                   \
    {"host", required_argument, NULL, OPTION_HOST},     \
    {"port", required_argument, NULL, OPTION_PORT},     \
    {"timeout", required_argument, NULL, OPTION_TIMEOUT}, \
    {"help", no_argument, NULL, OPTION_HELP}
#define CALL_OPTIONS                                    \
    WHERE_OPTIONS,                                      \
    {"applid", required_argument, NULL, OPTION_APPLID}, \
    {"server", required_argument, NULL, OPTION_SERVER}, \
    {"program", required_argument, NULL, OPTION_PROGRAM}, \
    {"user", required_argument, NULL, OPTION_USER}
/* clang-format on */

/* Writes the lines of the help that tell of the options which a call needs, but for --help. */
void print_call_options(const char* program, const char* password_variable);

/* Takes the options of a target until there is one of the program's own, and gives that. Otherwise
 * there are no more of them, and what it gives is below OWN_OPTIONS: GO_ON if the target is right,
 * or the exit code to end with. */
int next_option(int argc, char** argv, const struct option* known, struct target* target);

/* Takes the one file that stands behind the options, and gives GO_ON or the exit code to end with.
 * missing is what to say where there is none. */
int take_file(int argc, char** argv, const char* missing, const char** file);

/* A whole number of the range; 0 if the text is none. */
int parse_number(const char* text, long least, long most, int* number);

/* Says what is wrong with the arguments, and gives the exit code. */
int usage(const char* problem, const char* what);

/* One line on standard error, behind what has been written to standard output. */
void complain(const char* format, ...);
void complain_of_rc(const char* what, int rc);

/* The same of a call's code, with the abend code if the server program abended. */
void complain_of_call(const char* what, int rc, const char* abend_code);

/* Memory that has been asked for; the end of the program if there is none. */
void* checked(void* memory);

/* An array with room for one more: the same, or a larger one in its place. */
void* more_room(void* array, size_t count, size_t* room, size_t size);

/* Opens a file to read; NULL if that fails, which has been told then, with what to give instead. */
FILE* open_file(const char* name, const char* advice);

/* Reads one line without its end, and puts a NUL behind it; a longer one is cut at size - 1. 0 at
 * the end of the file. A line ends with LF; that of a text may as well end with CR LF. */
int read_line(FILE* file, char* line, size_t size, size_t* length);
int read_text_line(FILE* file, char* line, size_t size, size_t* length);

/* Whether a file could be read as far as it was read; if not, that has been told. */
int could_read(FILE* file, const char* name);

/* 0 if that fails, which has been told then. Afterwards *gateway is NULL unless it is open; closing
 * what is not open is no failure. */
int open_gateway(const struct target* target, QPX_ConnToken_t* gateway);
int close_gateway(QPX_ConnToken_t* gateway);

/* Closes when the work on a connection is done, and gives its exit code; a failed close makes a
 * success a failure. */
int close_after(int result, QPX_ConnToken_t* gateway);

/* Fills the parameters that say what is called, and for whom; the others are 0. */
void prepare_call(const struct target* target, short call_type, QPX_ECI_PARMS* parms);

/* The exit code of a program that has done its work: what cannot be written is a failure, however
 * well everything else went. */
int end_with(int result);

#endif
