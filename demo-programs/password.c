/*
 * password.c - verifies or changes a user's password at a server behind a Gateway, and tells what
 * the server knows of the user.
 *
 * Passwords come from a file or from standard input, one to a line: the one in force first, for a
 * change the new one behind it. At a terminal they are asked for, and do not show. They are never
 * taken from the command line, where other users of the machine could see them, and never written.
 */
#define _POSIX_C_SOURCE 200809L /* fileno, sigaction, termios */

#include <locale.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include "options.h"
#include "qpxclient_esi.h"

/* The exit code that only this program has. */
#define EXIT_REFUSED 3 /* the server refused the user, the password or the new password */

#define LONGEST_PASSWORD 512
#define LONGEST_USER     10

/* Room for a password that is too long, for a CR behind it and for the terminator. */
#define PASSWORD_SIZE (LONGEST_PASSWORD + 3)

const char program_name[] = "password";

struct options {
    struct target target;
    const char* passwords; /* file; NULL for standard input */
    int change;
    const char* user;
};

struct passwords {
    char current[PASSWORD_SIZE];
    char changed[PASSWORD_SIZE];
};

/* What a code of the server means to whoever has called this program; NULL if it has no more to
 * say than its name. */
static const char* meaning_of(int rc)
{
    static const struct {
        int rc;
        const char* meaning;
    } meanings[] = {
        {ESI_ERR_USERID_INVALID, "the server does not know this user"},
        {ESI_ERR_PASSWORD_INVALID, "the password is wrong; too many wrong ones revoke the user"},
        {ESI_ERR_PASSWORD_EXPIRED, "the password is right, but has expired: change it"},
        {ESI_ERR_PASSWORD_REJECTED,
         "the server does not take this new password; the old one stays"},
        {ESI_ERR_SECURITY_ERROR, "the server refuses this user, who may be revoked"},
        {ESI_ERR_PEM_NOT_SUPPORTED, "this server has no password management"},
        {ESI_ERR_PEM_NOT_ACTIVE, "this server's password management is not active"},
        {ESI_ERR_NO_VORN, "the server is not available"},
        {ESI_ERR_VORN_DIED, "the server ended during the call"},
        {ESI_ERR_UNKNOWN_SERVER, "the Gateway knows no such server"},
        {ESI_ERR_RESOURCE_SHORTAGE, "the server has run out of something; try again"},
        {ESI_ERR_NO_SESSIONS, "the server has no free session; try again"},
        {ESI_ERR_MAX_SYSTEMS, "the Gateway cannot connect to more servers"},
        {ESI_ERR_MAX_SESSIONS, "the Gateway cannot open more sessions"},
    };
    size_t i;

    for (i = 0; i < sizeof meanings / sizeof meanings[0]; ++i)
        if (meanings[i].rc == rc) return meanings[i].meaning;
    return NULL;
}

static void complain_with_meaning(const char* what, int rc)
{
    char name[QPX_RC_STRING_SIZE];
    const char* meaning = meaning_of(rc);

    complain("%s: %s (%d)%s%s", what, QPX_getRcString(rc, name), rc, meaning == NULL ? "" : ": ",
             meaning == NULL ? "" : meaning);
}

/* ---- Passwords ------------------------------------------------------------------------------ */

/* Overwrites a secret in a way that no compiler leaves out. */
static void wipe(void* secret, size_t size)
{
    volatile char* at = secret;

    while (size > 0) {
        *at++ = '\0';
        size -= 1;
    }
}

/* Reads a password; 0 if there is none, or none that can be one. */
static int read_password(FILE* file, char password[PASSWORD_SIZE], const char* which)
{
    const char* problem = NULL;
    size_t length = 0;

    if (!read_text_line(file, password, PASSWORD_SIZE, &length))
        problem = "is missing";
    else if (length > LONGEST_PASSWORD)
        problem = "is too long";
    else if (length == 0)
        problem = "is empty";
    else if (strlen(password) < length)
        problem = "holds a NUL";
    if (problem == NULL) return 1;
    complain("the %s password %s", which, problem);
    return 0;
}

/* How the terminal was before passwords were asked for. */
static struct termios terminal_before;

/* Leaves the terminal as it was, and lets the signal do what it does otherwise. */
static void leave_terminal(int signal_number)
{
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &terminal_before);
    raise(signal_number); /* is delivered when this returns */
}

/* Ctrl-C and its like end the program, but not with a terminal that stays silent. */
static void on_interruption(void (*handler)(int))
{
    static const int interruptions[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};
    struct sigaction action;
    struct sigaction before;
    size_t i;

    memset(&action, 0, sizeof action);
    action.sa_handler = handler;
    action.sa_flags = (int)SA_RESETHAND;
    for (i = 0; i < sizeof interruptions / sizeof interruptions[0]; ++i)
        if (sigaction(interruptions[i], NULL, &before) == 0 && before.sa_handler != SIG_IGN)
            sigaction(interruptions[i], &action, NULL);
}

/* Asks at the terminal. What is typed does not show. */
static int ask_password(char password[PASSWORD_SIZE], const char* which)
{
    struct termios silent;
    int result;

    if (tcgetattr(STDIN_FILENO, &terminal_before) != 0) {
        complain("the terminal cannot be told to keep passwords to itself");
        return 0;
    }
    silent = terminal_before;
    silent.c_lflag &= ~(tcflag_t)ECHO;
    on_interruption(leave_terminal);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
    fprintf(stderr, "Password (the %s): ", which);
    result = read_password(stdin, password, which);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &terminal_before);
    on_interruption(SIG_DFL);
    fputc('\n', stderr);
    return result;
}

/* The new password is typed blindly, so it is asked for twice. */
static int ask_new_password(char password[PASSWORD_SIZE])
{
    char again[PASSWORD_SIZE] = "";
    int asked = ask_password(password, "new") && ask_password(again, "new one once more");
    int agree = strcmp(password, again) == 0;

    wipe(again, sizeof again);
    if (asked && !agree) complain("the new passwords differ");
    return asked && agree;
}

static int ask_passwords(const struct options* options, struct passwords* passwords)
{
    if (!ask_password(passwords->current, "current")) return 0;
    return !options->change || ask_new_password(passwords->changed);
}

static int read_passwords(FILE* file, const struct options* options, struct passwords* passwords)
{
    if (!read_password(file, passwords->current, "current")) return 0;
    return !options->change || read_password(file, passwords->changed, "new");
}

static int get_passwords(const struct options* options, struct passwords* passwords)
{
    FILE* file;
    int result;

    if (options->passwords == NULL && isatty(fileno(stdin)))
        return ask_passwords(options, passwords);

    file = options->passwords == NULL
               ? stdin
               : open_file(options->passwords, "give a file with one password to a line");
    if (file == NULL) return 0;
    setvbuf(file, NULL, _IONBF, 0); /* no second copy of them */
    result = read_passwords(file, options, passwords);
    if (file != stdin) fclose(file);
    return result;
}

/* ---- What the server tells of the user ------------------------------------------------------ */

/* Shows a time as is usual where the program runs. The server's clock has told it. */
static void print_time(const char* what, const ESI_DATETIME* when)
{
    struct tm converted;
    char text[80];

    QPX_ESI_convertTime(when, &converted);
    if (when->year == 0 || strftime(text, sizeof text, "%a %d %b %Y %X", &converted) == 0)
        strcpy(text, "never");
    printf("  %-16s %s\n", what, text);
}

static void print_details(const struct options* options, const ESI_DETAILS* details)
{
    printf("The password of %s is %s.\n", options->user, options->change ? "changed" : "right");
    print_time("last verified", &details->lastVerifiedTime);
    print_time("last accessed", &details->lastAccessedTime);
    print_time("expires", &details->expiryTime);
    printf("  %-16s %d\n", "wrong attempts", details->invalidCount);
}

/* ---- The run -------------------------------------------------------------------------------- */

static int is_refusal(int rc)
{
    return rc == ESI_ERR_USERID_INVALID || rc == ESI_ERR_PASSWORD_INVALID ||
           rc == ESI_ERR_PASSWORD_EXPIRED || rc == ESI_ERR_PASSWORD_REJECTED ||
           rc == ESI_ERR_SECURITY_ERROR;
}

static int call_server(const struct options* options, QPX_ConnToken_t gateway,
                       const struct passwords* passwords)
{
    ESI_DETAILS details;
    int rc;

    if (options->change)
        rc = QPX_ESI_changePassword(gateway, options->user, passwords->current, passwords->changed,
                                    options->target.server, &details);
    else
        rc = QPX_ESI_verifyPassword(gateway, options->user, passwords->current,
                                    options->target.server, &details);
    if (rc == QPX_OK) {
        print_details(options, &details);
        return EXIT_OK;
    }
    complain_with_meaning(options->change ? "change" : "verify", rc);
    return is_refusal(rc) ? EXIT_REFUSED : EXIT_FAILED;
}

static int run_session(const struct options* options, const struct passwords* passwords)
{
    QPX_ConnToken_t gateway = NULL;
    int result;

    if (!open_gateway(&options->target, &gateway)) return EXIT_FAILED;
    result = call_server(options, gateway, passwords);
    return close_after(result, &gateway);
}

static int run(const struct options* options)
{
    struct passwords passwords = {"", ""};
    int result = EXIT_FAILED;

    if (get_passwords(options, &passwords)) result = run_session(options, &passwords);
    wipe(&passwords, sizeof passwords);
    return result;
}

/* ---- Arguments ------------------------------------------------------------------------------ */

void print_help(void)
{
    printf("Verifies or changes a user's password at a server behind a Gateway.\n"
           "\n"
           "Usage: password --port PORT [options] verify USER\n"
           "       password --port PORT [options] change USER\n"
           "\n"
           "  --host HOST       where the Gateway listens (127.0.0.1)\n"
           "  --port PORT       its TCP port, 1 to 65535\n"
           "  --server NAME     the server to ask, at most 8 characters (the Gateway's default)\n"
           "  --passwords FILE  where the passwords are (standard input): the current one in the\n"
           "                    first line, the new one in the second\n"
           "  --timeout SECS    limit for connecting, 0 to 3600, 0 is none (30)\n"
           "  --help            this text\n"
           "\n"
           "Exit codes:\n"
           "  0  the password is right, or changed\n"
           "  1  a file, the connection or the server failed\n"
           "  2  the arguments are wrong\n"
           "  3  the server refused the user, the password or the new password\n"
           "\n"
           "Examples:\n"
           "  password --port 5770 verify FRED\n"
           "  password --port 5770 --server VORNB --passwords secret.txt change FRED\n");
}

/* Takes what stands behind the options, and gives GO_ON or the exit code to end with. */
static int parse_words(int argc, char** argv, struct options* options)
{
    if (argc < 2) return usage("the user is missing", "");
    if (argc > 2) return usage("an argument too many", ""); /* it might be a password */
    if (strcmp(argv[0], "verify") != 0 && strcmp(argv[0], "change") != 0)
        return usage("neither verify nor change: ", argv[0]);
    options->change = strcmp(argv[0], "change") == 0;
    options->user = argv[1];
    if (strlen(options->user) > LONGEST_USER)
        return usage("longer than 10 characters: ", options->user);
    return GO_ON;
}

/* Fills the options, and gives GO_ON or the exit code to end with. */
static int parse_arguments(int argc, char** argv, struct options* options)
{
    enum { PASSWORDS = OWN_OPTIONS };
    static const struct option known[] = {
        WHERE_OPTIONS,
        {"server", required_argument, NULL, OPTION_SERVER},
        {"passwords", required_argument, NULL, PASSWORDS},
        {NULL, 0, NULL, 0},
    };
    int choice;

    while ((choice = next_option(argc, argv, known, &options->target)) >= OWN_OPTIONS)
        options->passwords = optarg;
    if (choice != GO_ON) return choice;
    return parse_words(argc - optind, argv + optind, options);
}

int main(int argc, char** argv)
{
    struct options options = {.target = {WHERE_DEFAULTS}};
    int result;

    setlocale(LC_TIME, "");
    result = parse_arguments(argc, argv, &options);
    return end_with(result == GO_ON ? run(&options) : result);
}
