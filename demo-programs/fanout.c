/*
 * fanout.c - sends many requests at once over one connection, and collects the replies as they
 * come.
 *
 * Each request is an asynchronous call of the server program ECHO, which answers what it was
 * sent. The replies are collected by the one thread that has sent the requests, whichever is
 * there first; the message qualifier tells whose it is. Each must be what was sent, byte for byte.
 *
 * The requests are the lines of a file, or texts that are made up. Empty lines are passed over.
 */
#define _POSIX_C_SOURCE 200809L /* for clock_gettime */

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "options.h"
#include "qpxclient_eci.h"

/* The exit code that only this program has. */
#define EXIT_MISMATCH 3 /* a reply is not what was sent */

#define MAX_COUNT     10000
#define MAX_AREA_SIZE 32767 /* the longest COMMAREA */

/* Room for a line that is too long and for the terminator. */
#define LINE_SIZE (MAX_AREA_SIZE + 2)

/* No call waits under this qualifier. */
#define NO_QUALIFIER 0

/* What became of a request. */
enum outcome {
    NOT_SENT,
    OUTSTANDING, /* sent, its reply not collected */
    ANSWERED,
    WRONG_ANSWER,
    CALL_FAILED,
    OUTCOMES
};

static const char* const outcome_text[OUTCOMES] = {
    "not sent", "without a reply", "answered", "answered with something else", "failed",
};

struct request {
    char* text; /* owned */
    size_t length;
    int qualifier; /* of the call, while its reply is outstanding */
    enum outcome outcome;
    double sent_at; /* milliseconds */
    double latency; /* milliseconds until the reply was collected */
};

struct requests {
    struct request* at; /* owned */
    size_t count;
    size_t room;
};

const char program_name[] = "fanout";

struct options {
    struct target target;
    int count;
    int at_once;
    int verbose;
    int progress;
    const char* file;
};

/* A connection with the requests on it. */
struct batch {
    const struct options* options;
    QPX_ConnToken_t gateway;
    struct requests* requests;
    size_t sent;        /* requests that have been tried, in their order */
    size_t outstanding; /* replies still to be collected */
    size_t collected;
    size_t overtaken;    /* replies that came behind the one of a later request */
    size_t latest;       /* the latest request that has its reply, counted from 1 */
    int connection_gone; /* nothing more can be sent */
    char* area;          /* owned; takes any reply */
};

static void complain_of_request(size_t index, const char* step, int rc, const char* abend_code)
{
    char what[80];

    snprintf(what, sizeof what, "request %lu: %s", (unsigned long)index + 1, step);
    complain_of_call(what, rc, abend_code);
}

static double now_in_milliseconds(void)
{
    struct timespec now;

    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e3 + (double)now.tv_nsec / 1e6;
}

/* ---- The requests -------------------------------------------------------------------------- */

static void add_request(struct requests* requests, const char* text, size_t length)
{
    struct request* request;

    requests->at = more_room(requests->at, requests->count, &requests->room, sizeof *requests->at);
    request = &requests->at[requests->count++];
    memset(request, 0, sizeof *request);
    request->text = checked(malloc(length));
    memcpy(request->text, text, length);
    request->length = length;
    request->outcome = NOT_SENT;
}

static void make_requests(int count, struct requests* requests)
{
    char text[64];
    int i;

    for (i = 1; i <= count; ++i) {
        int length = snprintf(text, sizeof text, "Request %d of %d", i, count);

        add_request(requests, text, (size_t)length);
    }
}

static int read_lines(FILE* file, const char* name, struct requests* requests)
{
    char* line = checked(malloc(LINE_SIZE));
    size_t length;
    int number = 0;
    int is_right = 1;

    while (is_right && read_line(file, line, LINE_SIZE, &length)) {
        number += 1;
        is_right = length <= MAX_AREA_SIZE && requests->count < MAX_COUNT;
        if (length > MAX_AREA_SIZE)
            complain("%s, line %d is longer than %d bytes", name, number, MAX_AREA_SIZE);
        else if (!is_right)
            complain("%s has more than %d requests", name, MAX_COUNT);
        else if (length > 0)
            add_request(requests, line, length);
    }
    free(line);
    return could_read(file, name) && is_right;
}

static int read_requests(const char* name, struct requests* requests)
{
    FILE* file = open_file(name, "give a file with one request in each line");
    int is_right;

    if (file == NULL) return 0;
    is_right = read_lines(file, name, requests);
    fclose(file);
    return is_right;
}

static void free_requests(struct requests* requests)
{
    size_t i;

    for (i = 0; i < requests->count; ++i) free(requests->at[i].text);
    free(requests->at);
}

/* ---- Sending ------------------------------------------------------------------------------- */

/* Whether a code says that the connection takes no more requests, whosever they are. */
static int is_end_of_connection(int rc)
{
    return rc == QPX_ERR_LOSTGWCON || rc == QPX_ERR_GATEWAY_CLOSED || rc == QPX_ERR_GWTOK_CLOSED ||
           rc == QPX_ERR_BADGWTOK;
}

static int call_program(struct batch* batch, struct request* request, QPX_ECI_PARMS* parms)
{
    prepare_call(&batch->options->target, ECI_ASYNC, parms);
    parms->eci_commarea = request->text;
    parms->eci_commarea_length = (short)request->length;
    return QPX_ECI_Execute(batch->gateway, parms);
}

static void send_next(struct batch* batch)
{
    size_t index = batch->sent++;
    struct request* request = &batch->requests->at[index];
    QPX_ECI_PARMS parms;
    int rc;

    request->sent_at = now_in_milliseconds();
    rc = call_program(batch, request, &parms);
    if (rc == ECI_NO_ERROR) {
        request->qualifier = parms.eci_message_qualifier;
        request->outcome = OUTSTANDING;
        batch->outstanding += 1;
        return;
    }
    complain_of_request(index, "send", rc, parms.eci_abend_code);
    request->outcome = CALL_FAILED;
    batch->connection_gone = is_end_of_connection(rc);
}

/* ---- Collecting ---------------------------------------------------------------------------- */

/* Waits for any reply. parms names its request afterwards, whether it was a good one or not; a
 * qualifier of NO_QUALIFIER says that there was none. */
static int collect_any(struct batch* batch, QPX_ECI_PARMS* parms)
{
    memset(parms, 0, sizeof *parms);
    parms->eci_version = ECI_VERSION_6;
    parms->eci_call_type = ECI_GET_REPLY_WAIT;
    parms->eci_message_qualifier = NO_QUALIFIER;
    parms->eci_commarea = batch->area;
    parms->eci_commarea_length = MAX_AREA_SIZE;
    return QPX_ECI_Execute(batch->gateway, parms);
}

/* The request that waits under a qualifier, which serves again when its reply is collected. */
static struct request* find_outstanding(struct batch* batch, int qualifier)
{
    size_t i;

    for (i = 0; i < batch->sent; ++i) {
        struct request* request = &batch->requests->at[i];

        if (request->outcome == OUTSTANDING && request->qualifier == qualifier) return request;
    }
    return NULL;
}

static int is_what_was_sent(const struct batch* batch, const struct request* request,
                            const QPX_ECI_PARMS* parms)
{
    return parms->commarea_inbound_length >= 0 &&
           (size_t)parms->commarea_inbound_length == request->length &&
           memcmp(batch->area, request->text, request->length) == 0;
}

static void note_arrival(struct batch* batch, struct request* request)
{
    size_t number = (size_t)(request - batch->requests->at) + 1;

    request->latency = now_in_milliseconds() - request->sent_at;
    batch->outstanding -= 1;
    batch->collected += 1;
    if (number < batch->latest)
        batch->overtaken += 1;
    else
        batch->latest = number;
}

static void show_reply(const struct batch* batch, const struct request* request)
{
    unsigned long number = (unsigned long)(request - batch->requests->at) + 1;

    if (batch->options->verbose)
        printf("  reply %6lu: request %6lu, %s\n", (unsigned long)batch->collected, number,
               outcome_text[request->outcome]);
}

/* Holds a reply against its request. */
static void judge_reply(struct batch* batch, struct request* request, int rc,
                        const QPX_ECI_PARMS* parms)
{
    size_t index = (size_t)(request - batch->requests->at);

    if (rc != ECI_NO_ERROR) {
        complain_of_request(index, "reply", rc, parms->eci_abend_code);
        request->outcome = CALL_FAILED;
    } else if (is_what_was_sent(batch, request, parms)) {
        request->outcome = ANSWERED;
    } else {
        complain("request %lu: the reply is not what was sent", (unsigned long)index + 1);
        request->outcome = WRONG_ANSWER;
    }
}

/* Collects one reply; 0 if none can be had any more. */
static int collect_next(struct batch* batch)
{
    QPX_ECI_PARMS parms;
    struct request* request;
    int rc = collect_any(batch, &parms);

    request = find_outstanding(batch, parms.eci_message_qualifier);
    if (request == NULL) {
        if (rc == ECI_NO_ERROR)
            complain("a reply to no request, message qualifier %d", parms.eci_message_qualifier);
        else
            complain_of_rc("collect", rc);
        return 0;
    }
    note_arrival(batch, request);
    judge_reply(batch, request, rc, &parms);
    show_reply(batch, request);
    return 1;
}

/* ---- The batch ----------------------------------------------------------------------------- */

static void show_progress(const struct batch* batch)
{
    int is_last = batch->collected == batch->requests->count;

    if (!batch->options->progress || (batch->collected % 10 != 0 && !is_last)) return;
    fprintf(stderr, "\r%lu sent, %lu of %lu collected", (unsigned long)batch->sent,
            (unsigned long)batch->collected, (unsigned long)batch->requests->count);
    fflush(stderr);
}

static void end_progress(const struct batch* batch)
{
    if (batch->options->progress && batch->collected > 0) fputc('\n', stderr);
}

static int may_send(const struct batch* batch)
{
    return !batch->connection_gone && batch->sent < batch->requests->count &&
           batch->outstanding < (size_t)batch->options->at_once;
}

/* Sends as long as it may, collects one, and so on until there is nothing left of either. */
static void run_batch(struct batch* batch)
{
    int more_to_come = 1;

    while (more_to_come) {
        while (may_send(batch)) send_next(batch);
        more_to_come = batch->outstanding > 0 && collect_next(batch);
        if (more_to_come) show_progress(batch);
    }
    end_progress(batch);
}

/* ---- The summary --------------------------------------------------------------------------- */

static size_t count_outcome(const struct requests* requests, enum outcome outcome)
{
    size_t count = 0;
    size_t i;

    for (i = 0; i < requests->count; ++i)
        if (requests->at[i].outcome == outcome) count += 1;
    return count;
}

static int by_size(const void* left, const void* right)
{
    double difference = *(const double*)left - *(const double*)right;

    return (difference > 0) - (difference < 0);
}

static double median_of(const double* sorted, size_t count)
{
    size_t middle = count / 2;

    return count % 2 != 0 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
}

static void print_latency(const struct requests* requests)
{
    double* latencies = checked(malloc(requests->count * sizeof *latencies));
    size_t count = 0;
    size_t i;

    for (i = 0; i < requests->count; ++i)
        if (requests->at[i].outcome == ANSWERED) latencies[count++] = requests->at[i].latency;
    if (count > 0) {
        qsort(latencies, count, sizeof *latencies, by_size);
        printf("Latency   min %.2f ms, median %.2f ms, max %.2f ms\n", latencies[0],
               median_of(latencies, count), latencies[count - 1]);
    }
    free(latencies);
}

static void print_summary(const struct batch* batch)
{
    int outcome;

    printf("\nRequests\n");
    for (outcome = 0; outcome < OUTCOMES; ++outcome) {
        size_t count = count_outcome(batch->requests, (enum outcome)outcome);

        if (count > 0 || outcome == ANSWERED)
            printf("  %-32s %6lu\n", outcome_text[outcome], (unsigned long)count);
    }
    if (batch->collected == 0) return;
    printf("\nOrder     %lu of %lu replies came behind that of a later request\n",
           (unsigned long)batch->overtaken, (unsigned long)batch->collected);
    print_latency(batch->requests);
}

static int result_of(const struct requests* requests)
{
    if (count_outcome(requests, WRONG_ANSWER) > 0) return EXIT_MISMATCH;
    return count_outcome(requests, ANSWERED) == requests->count ? EXIT_OK : EXIT_FAILED;
}

/* An orderly close would wait without limit for replies that nobody collects. */
static int close_connection(struct batch* batch)
{
    int rc = batch->outstanding == 0 ? QPX_closeGatewayConnection(&batch->gateway)
                                     : QPX_purgeGatewayConnection(&batch->gateway, 0);

    batch->gateway = NULL;
    if (rc == QPX_OK) return 1;
    complain_of_rc("close", rc);
    return 0;
}

static int run_requests(const struct options* options, struct requests* requests)
{
    struct batch batch = {0};
    int result;

    batch.options = options;
    batch.requests = requests;
    if (!open_gateway(&options->target, &batch.gateway)) return EXIT_FAILED;

    batch.area = checked(malloc(MAX_AREA_SIZE));
    printf("Sending %lu requests to %s at %s:%d\n", (unsigned long)requests->count,
           options->target.program, options->target.host, options->target.port);
    run_batch(&batch);
    print_summary(&batch);
    result = result_of(requests);
    if (!close_connection(&batch) && result == EXIT_OK) result = EXIT_FAILED;
    free(batch.area);
    return result;
}

static int run(const struct options* options)
{
    struct requests requests = {0};
    int result = EXIT_FAILED;

    if (options->file == NULL) make_requests(options->count, &requests);
    if (options->file == NULL || read_requests(options->file, &requests)) {
        if (requests.count > 0)
            result = run_requests(options, &requests);
        else
            complain("%s has no requests", options->file);
    }
    free_requests(&requests);
    return result;
}

/* ---- Arguments ----------------------------------------------------------------------------- */

void print_help(void)
{
    printf(
        "Sends many requests at once over one connection, and collects the replies as they come.\n"
        "\n"
        "Usage: fanout --port PORT [options] FILE\n"
        "       fanout --port PORT [options] --count N\n"
        "\n"
        "Each line of the file is a request. The program must answer what it was sent.\n"
        "\n");
    print_call_options("ECHO", "FANOUT_PASSWORD");
    printf("  --count N        makes up N requests, 1 to 10000\n"
           "  --at-once N      so many requests without a reply at most, 1 to 10000 (all)\n"
           "  --verbose        names every reply as it comes\n"
           "  --progress       count along on standard error\n"
           "  --help           this text\n"
           "\n"
           "Exit codes:\n"
           "  0  every request was answered with what was sent\n"
           "  1  a file or a call failed; what was answered is told\n"
           "  2  the arguments are wrong\n"
           "  3  a reply is not what was sent\n"
           "\n"
           "Examples:\n"
           "  fanout --port 5770 --count 200\n"
           "  fanout --port 5770 --at-once 16 --verbose data/transfers.txt\n"
           "  fanout --host gateway.example --port 5770 --applid LOAD --progress --count 5000\n");
}

/* A number of requests. */
static int parse_count(const char* text, int* count)
{
    return parse_number(text, 1, MAX_COUNT, count);
}

/* What the options together must be. */
static int check_options(const struct options* options, int files, char** file)
{
    if (options->count == 0 && files == 0) return usage("a file or --count is missing", "");
    if (options->count > 0 && files > 0) return usage("--count takes no file: ", file[0]);
    if (files > 1) return usage("more than one file: ", file[1]);
    return GO_ON;
}

/* Fills the options, and gives GO_ON or the exit code to end with. */
static int parse_arguments(int argc, char** argv, struct options* options)
{
    enum { COUNT = OWN_OPTIONS, AT_ONCE, VERBOSE, PROGRESS };
    static const struct option known[] = {
        CALL_OPTIONS,
        {"count", required_argument, NULL, COUNT},
        {"at-once", required_argument, NULL, AT_ONCE},
        {"verbose", no_argument, NULL, VERBOSE},
        {"progress", no_argument, NULL, PROGRESS},
        {NULL, 0, NULL, 0},
    };
    int choice;

    while ((choice = next_option(argc, argv, known, &options->target)) >= OWN_OPTIONS) {
        switch (choice) {
        case COUNT:
            if (!parse_count(optarg, &options->count))
                return usage("a count is a number from 1 to 10000, not ", optarg);
            break;
        case AT_ONCE:
            if (!parse_count(optarg, &options->at_once))
                return usage("--at-once takes a number from 1 to 10000, not ", optarg);
            break;
        case VERBOSE: options->verbose = 1; break;
        case PROGRESS: options->progress = 1; break;
        }
    }
    if (choice != GO_ON) return choice;
    options->file = argv[optind];
    return check_options(options, argc - optind, argv + optind);
}

int main(int argc, char** argv)
{
    struct options options = {.target = {CALL_DEFAULTS("ECHO", "FANOUT_PASSWORD")},
                              .at_once = MAX_COUNT};
    int result;

    result = parse_arguments(argc, argv, &options);
    return end_with(result == GO_ON ? run(&options) : result);
}
