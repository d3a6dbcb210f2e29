/* systems.c - lists the servers that a Gateway knows, however many there are. */
#include <getopt.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include "qpxclient.h"

/* Exit codes. */
#define EXIT_OK     0 /* all servers are listed, even if there are none */
#define EXIT_FAILED 1 /* the connection or the call failed */
#define EXIT_USAGE  2 /* the arguments are wrong */

/* What an unsigned short can count. */
#define MOST_SYSTEMS 65535

struct options {
    char* host;
    int port;
    int room; /* for so many servers at first */
    int timeout;
};

struct systems {
    QPX_listSystem_t* at; /* owned */
    int count;
};

/* ---- Messages ------------------------------------------------------------------------------ */

static void complain(const char* format, ...)
{
    va_list arguments;

    fflush(stdout);
    fputs("systems: ", stderr);
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    fputc('\n', stderr);
}

static void complain_of_rc(const char* what, int rc)
{
    char name[QPX_RC_STRING_SIZE];

    complain("%s: %s (%d)", what, QPX_getRcString(rc, name), rc);
}

/* ---- The list ------------------------------------------------------------------------------- */

/* Asks for as many servers as there is room for. */
static int ask(QPX_ConnToken_t gateway, int room, struct systems* systems)
{
    unsigned short count = (unsigned short)room;
    QPX_listSystem_t* list = realloc(systems->at, (size_t)room * sizeof *list);
    int rc;

    if (list == NULL) return QPX_ERR_MALLOCFAIL;
    systems->at = list;
    rc = QPX_listSystems(gateway, &count, list);
    systems->count = count < room ? count : room;
    return rc;
}

/* Makes more room until all servers fit. */
static int ask_for_all(QPX_ConnToken_t gateway, int room, struct systems* systems)
{
    int rc = ask(gateway, room, systems);

    while (rc == QPX_ERR_MORE_SYSTEMS && room < MOST_SYSTEMS) {
        room = room > MOST_SYSTEMS / 2 ? MOST_SYSTEMS : room * 2;
        rc = ask(gateway, room, systems);
    }
    return rc;
}

/* Both texts are printed no further than their fields reach. */
static void print_systems(const struct systems* systems)
{
    int i;

    for (i = 0; i < systems->count; ++i) {
        const QPX_listSystem_t* system = &systems->at[i];

        printf("%-8.*s  %.*s\n", (int)sizeof system->SystemName - 1, system->SystemName,
               (int)sizeof system->Description - 1, system->Description);
    }
}

static int show_systems(QPX_ConnToken_t gateway, int room)
{
    struct systems systems = {NULL, 0};
    int rc = ask_for_all(gateway, room, &systems);

    if (rc == QPX_OK)
        print_systems(&systems);
    else if (rc == QPX_ERR_NO_SYSTEMS)
        puts("The Gateway knows no server.");
    else
        complain_of_rc("list", rc);
    free(systems.at);
    return rc == QPX_OK || rc == QPX_ERR_NO_SYSTEMS ? EXIT_OK : EXIT_FAILED;
}

/* ---- The run -------------------------------------------------------------------------------- */

static int run(const struct options* options)
{
    QPX_ConnToken_t gateway = NULL;
    int rc = QPX_openRemoteGatewayConnection(options->host, options->port, &gateway,
                                             options->timeout);
    int result;

    if (rc != QPX_OK) {
        complain("cannot connect to a Gateway at %s:%d", options->host, options->port);
        complain_of_rc("open", rc);
        return EXIT_FAILED;
    }
    result = show_systems(gateway, options->room);
    rc = QPX_closeGatewayConnection(&gateway);
    if (rc == QPX_OK) return result;
    complain_of_rc("close", rc);
    return EXIT_FAILED;
}

/* ---- Arguments ------------------------------------------------------------------------------ */

static void print_help(void)
{
    printf("Lists the servers that a Gateway knows, with their descriptions.\n"
           "\n"
           "Usage: systems --port PORT [options]\n"
           "\n"
           "  --host HOST     where the Gateway listens (127.0.0.1)\n"
           "  --port PORT     its TCP port, 1 to 65535\n"
           "  --room NUMBER   servers to make room for at first, 1 to 65535 (16)\n"
           "  --timeout SECS  limit for connecting, 0 to 3600, 0 is none (30)\n"
           "  --help          this text\n"
           "\n"
           "Exit codes:\n"
           "  0  all servers are listed, even if there are none\n"
           "  1  the connection or the call failed\n"
           "  2  the arguments are wrong\n"
           "\n"
           "Example:\n"
           "  systems --port 5770\n");
}

static int usage(const char* problem, const char* what)
{
    complain("%s%s; \"systems --help\" shows what there is", problem, what);
    return EXIT_USAGE;
}

/* A whole number of the range; 0 if the text is none. */
static int parse_number(const char* text, long least, long most, int* number)
{
    char* end = NULL;
    long value = strtol(text, &end, 10);

    if (end == text || *end != '\0' || value < least || value > most) return 0;
    *number = (int)value;
    return 1;
}

/* Fills the options; -1 to go on, otherwise the exit code to end with. */
static int parse_arguments(int argc, char** argv, struct options* options)
{
    enum { HOST = 1, PORT, ROOM, TIMEOUT, HELP };
    static const struct option known[] = {
        {"host", required_argument, NULL, HOST}, {"port", required_argument, NULL, PORT},
        {"room", required_argument, NULL, ROOM}, {"timeout", required_argument, NULL, TIMEOUT},
        {"help", no_argument, NULL, HELP},       {NULL, 0, NULL, 0},
    };
    int choice;

    opterr = 0;
    while ((choice = getopt_long(argc, argv, "", known, NULL)) != -1) {
        switch (choice) {
        case HOST: options->host = optarg; break;
        case PORT:
            if (!parse_number(optarg, 1, 65535, &options->port))
                return usage("a port is a number from 1 to 65535, not ", optarg);
            break;
        case ROOM:
            if (!parse_number(optarg, 1, MOST_SYSTEMS, &options->room))
                return usage("room is a number from 1 to 65535, not ", optarg);
            break;
        case TIMEOUT:
            if (!parse_number(optarg, 0, 3600, &options->timeout))
                return usage("a time-out is a number of seconds from 0 to 3600, not ", optarg);
            break;
        case HELP: print_help(); return EXIT_OK;
        default: return usage("unknown or incomplete option ", argv[optind - 1]);
        }
    }
    if (options->port == 0) return usage("--port is missing", "");
    if (optind < argc) return usage("an argument too many: ", argv[optind]);
    return -1;
}

/* What cannot be written is a failure, however well everything else went. */
static int end_with(int result)
{
    if (fflush(stdout) == 0 && !ferror(stdout)) return result;
    complain("cannot write to standard output");
    return result == EXIT_OK ? EXIT_FAILED : result;
}

int main(int argc, char** argv)
{
    struct options options = {0};
    int result;

    options.host = "127.0.0.1";
    options.room = 16;
    options.timeout = 30;

    result = parse_arguments(argc, argv, &options);
    return end_with(result != -1 ? result : run(&options));
}
