/* systems.c - lists the servers that a Gateway knows, however many there are. */
#include <stdio.h>
#include <stdlib.h>

#include "options.h"

/* What an unsigned short can count. */
#define MOST_SYSTEMS 65535

const char program_name[] = "systems";

struct options {
    struct target target;
    int room; /* for so many servers at first */
};

struct systems {
    QPX_listSystem_t* at; /* owned */
    int count;
};

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
    int result;

    if (!open_gateway(&options->target, &gateway)) return EXIT_FAILED;
    result = show_systems(gateway, options->room);
    return close_after(result, &gateway);
}

/* ---- Arguments ------------------------------------------------------------------------------ */

void print_help(void)
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

/* Fills the options, and gives GO_ON or the exit code to end with. */
static int parse_arguments(int argc, char** argv, struct options* options)
{
    enum { ROOM = OWN_OPTIONS };
    static const struct option known[] = {
        WHERE_OPTIONS,
        {"room", required_argument, NULL, ROOM},
        {NULL, 0, NULL, 0},
    };
    int choice;

    while ((choice = next_option(argc, argv, known, &options->target)) >= OWN_OPTIONS) {
        if (!parse_number(optarg, 1, MOST_SYSTEMS, &options->room))
            return usage("room is a number from 1 to 65535, not ", optarg);
    }
    if (choice != GO_ON) return choice;
    if (optind < argc) return usage("an argument too many: ", argv[optind]);
    return GO_ON;
}

int main(int argc, char** argv)
{
    struct options options = {.target = {WHERE_DEFAULTS}, .room = 16};
    int result;

    result = parse_arguments(argc, argv, &options);
    return end_with(result == GO_ON ? run(&options) : result);
}
