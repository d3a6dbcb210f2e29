/* options.c - what the programs of the demo have in common. */
#include "options.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define LONGEST_NAME 8 /* of a server, and of a program */

void complain(const char* format, ...)
{
    va_list arguments;

    fflush(stdout);
    fprintf(stderr, "%s: ", program_name);
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    fputc('\n', stderr);
}

void complain_of_rc(const char* what, int rc)
{
    char name[QPX_RC_STRING_SIZE];

    complain("%s: %s (%d)", what, QPX_getRcString(rc, name), rc);
}

void complain_of_call(const char* what, int rc, const char* abend_code)
{
    char name[QPX_RC_STRING_SIZE];

    if (rc == ECI_ERR_TRANSACTION_ABEND)
        complain("%s: %s (%d), abend code %.4s", what, QPX_getRcString(rc, name), rc, abend_code);
    else
        complain_of_rc(what, rc);
}

int usage(const char* problem, const char* what)
{
    complain("%s%s; \"%s --help\" shows what there is", problem, what, program_name);
    return EXIT_USAGE;
}

int parse_number(const char* text, long least, long most, int* number)
{
    char* end = NULL;
    long value = strtol(text, &end, 10);

    if (end == text || *end != '\0' || value < least || value > most) return 0;
    *number = (int)value;
    return 1;
}

void print_call_options(const char* program, const char* password_variable)
{
    printf("  --host HOST      where the Gateway listens (127.0.0.1)\n"
           "  --port PORT      its TCP port, 1 to 65535\n"
           "  --applid APPLID  who calls, at most 8 characters (none)\n"
           "  --server NAME    the server behind the Gateway, at most 8 characters (its default)\n"
           "  --program NAME   the server program, at most 8 characters (%s)\n"
           "  --user USER      user id (none); the password is taken from %s\n"
           "  --timeout SECS   limit for connecting, 0 to 3600, 0 is none (30)\n",
           program, password_variable);
}

static int take_option(int choice, struct target* target)
{
    switch (choice) {
    case OPTION_HOST: target->host = optarg; return GO_ON;
    case OPTION_PORT:
        if (parse_number(optarg, 1, 65535, &target->port)) return GO_ON;
        return usage("a port is a number from 1 to 65535, not ", optarg);
    case OPTION_APPLID: target->applid = optarg; return GO_ON;
    case OPTION_SERVER: target->server = optarg; return GO_ON;
    case OPTION_PROGRAM: target->program = optarg; return GO_ON;
    case OPTION_USER: target->user = optarg; return GO_ON;
    case OPTION_TIMEOUT:
        if (parse_number(optarg, 0, 3600, &target->timeout)) return GO_ON;
        return usage("a time-out is a number of seconds from 0 to 3600, not ", optarg);
    default: print_help(); return EXIT_OK;
    }
}

static int is_too_long(const char* name)
{
    return name != NULL && strlen(name) > LONGEST_NAME;
}

static int check_target(const struct target* target)
{
    if (target->port == 0) return usage("--port is missing", "");
    if (is_too_long(target->server)) return usage("longer than 8 characters: ", target->server);
    if (is_too_long(target->program)) return usage("longer than 8 characters: ", target->program);
    return GO_ON;
}

int next_option(int argc, char** argv, const struct option* known, struct target* target)
{
    int result = GO_ON;

    opterr = 0;
    while (result == GO_ON) {
        int choice = getopt_long(argc, argv, "", known, NULL);

        if (choice == -1) return check_target(target);
        if (choice == '?') return usage("unknown or incomplete option ", argv[optind - 1]);
        if (choice >= OWN_OPTIONS) return choice;
        result = take_option(choice, target);
    }
    return result;
}

int take_file(int argc, char** argv, const char* missing, const char** file)
{
    if (optind == argc) return usage(missing, "");
    if (optind + 1 < argc) return usage("more than one file: ", argv[optind + 1]);
    *file = argv[optind];
    return GO_ON;
}

void* checked(void* memory)
{
    if (memory == NULL) {
        complain("out of memory");
        exit(EXIT_FAILED);
    }
    return memory;
}

void* more_room(void* array, size_t count, size_t* room, size_t size)
{
    if (count < *room) return array;
    *room = *room == 0 ? 64 : *room * 2;
    return checked(realloc(array, *room * size));
}

FILE* open_file(const char* name, const char* advice)
{
    FILE* file = fopen(name, "r");

    if (file == NULL) complain("cannot open %s; %s", name, advice);
    return file;
}

/* Reads on to the end of a line or of the file, and tells which it was. */
static int read_to_end(FILE* file, char* line, size_t size, size_t* length, int* end)
{
    int c = getc(file);

    if (c == EOF) return 0;
    *length = 0;
    for (; c != EOF && c != '\n'; c = getc(file))
        if (*length + 1 < size) line[(*length)++] = (char)c;
    line[*length] = '\0';
    *end = c;
    return 1;
}

int read_line(FILE* file, char* line, size_t size, size_t* length)
{
    int end;

    return read_to_end(file, line, size, length, &end);
}

int read_text_line(FILE* file, char* line, size_t size, size_t* length)
{
    int end;

    if (!read_to_end(file, line, size, length, &end)) return 0;
    if (end == '\n' && *length > 0 && line[*length - 1] == '\r') line[--*length] = '\0';
    return 1;
}

int could_read(FILE* file, const char* name)
{
    if (!ferror(file)) return 1;
    complain("cannot read %s", name);
    return 0;
}

int open_gateway(const struct target* target, QPX_ConnToken_t* gateway)
{
    char none[] = "";
    int rc;

    if (target->applid == NULL)
        rc = QPX_openRemoteGatewayConnection(target->host, target->port, gateway, target->timeout);
    else
        rc = QPX_openRemoteGatewayConnectionApplid(target->host, target->port, gateway,
                                                   target->timeout, target->applid, none);
    if (rc == QPX_OK) return 1;
    complain("cannot connect to a Gateway at %s:%d", target->host, target->port);
    complain_of_rc("open", rc);
    return 0;
}

int close_gateway(QPX_ConnToken_t* gateway)
{
    int rc;

    if (*gateway == NULL) return 1;
    rc = QPX_closeGatewayConnection(gateway);
    *gateway = NULL;
    if (rc == QPX_OK) return 1;
    complain_of_rc("close", rc);
    return 0;
}

int close_after(int result, QPX_ConnToken_t* gateway)
{
    if (close_gateway(gateway) || result != EXIT_OK) return result;
    return EXIT_FAILED;
}

/* Fills a field of fixed width from a text, padded with blanks. */
static void fill(char* field, size_t width, const char* text)
{
    size_t length = strlen(text);

    memset(field, ' ', width);
    memcpy(field, text, length < width ? length : width);
}

void prepare_call(const struct target* target, short call_type, QPX_ECI_PARMS* parms)
{
    memset(parms, 0, sizeof *parms);
    parms->eci_version = ECI_VERSION_6;
    parms->eci_call_type = call_type;
    fill(parms->eci_program_name, sizeof parms->eci_program_name, target->program);
    fill(parms->eci_system_name, sizeof parms->eci_system_name, target->server);
    parms->eci_userid_ptr = target->user;
    parms->eci_password_ptr = target->password;
}

int end_with(int result)
{
    if (fflush(stdout) == 0 && !ferror(stdout)) return result;
    complain("cannot write to standard output");
    return result == EXIT_OK ? EXIT_FAILED : result;
}
