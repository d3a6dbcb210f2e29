/*
 * orders.c - has an order priced by a server program that works on a channel.
 *
 * The order is read from a file and put into a channel as two containers: ORDER.HEADER, which is
 * characters, and ORDER.LINES, which is binary. The server program ORDERS answers by adding
 * containers to the channel: INVOICE, or ERROR if the order is wrong. The channel is browsed for
 * them, and what is found is printed.
 *
 * In the file, lines KEY=VALUE go to ORDER.HEADER as they are; lines
 *
 *     item ARTICLE QUANTITY [DISCOUNT IN PERCENT]
 *
 * become records of 12 bytes in ORDER.LINES, their numbers big-endian:
 *
 *     offset  length
 *          0       4  article
 *          4       4  quantity
 *          8       2  discount in hundredths of a percent
 *         10       2  0
 *
 * Lines that begin with '#' are comments.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "options.h"
#include "qpxclient_eci.h"

/* The exit code that only this program has. */
#define EXIT_REFUSED 3 /* the order was refused */

/* ---- The channel of ORDERS ------------------------------------------------------------------ */

#define CHANNEL_NAME      "ORDER"
#define HEADER_CONTAINER  "ORDER.HEADER"
#define LINES_CONTAINER   "ORDER.LINES"
#define INVOICE_CONTAINER "INVOICE"
#define ERROR_CONTAINER   "ERROR"

#define RECORD_SIZE 12

/* ---- The file -------------------------------------------------------------------------------- */

#define LONGEST_LINE 1022

/* Room for a line that is too long, for a CR behind it and for the terminator. */
#define LINE_SIZE (LONGEST_LINE + 3)

#define ITEM "item "

struct buffer {
    char* at; /* owned */
    size_t length;
    size_t room;
};

struct order {
    struct buffer header;
    struct buffer lines;
};

const char program_name[] = "orders";

struct options {
    struct target target;
    int ccsid;
    int verbose;
    const char* file;
};

/* The same for a call that belongs to a container. */
static void complain_of_container(const char* what, const char* container, int rc)
{
    char text[80];

    snprintf(text, sizeof text, "%s %s", what, container);
    complain_of_rc(text, rc);
}

/* ---- Reading the order ----------------------------------------------------------------------- */

static void append(struct buffer* buffer, const void* data, size_t length)
{
    while (buffer->room - buffer->length < length) {
        buffer->room = buffer->room == 0 ? 256 : buffer->room * 2;
        buffer->at = checked(realloc(buffer->at, buffer->room));
    }
    memcpy(buffer->at + buffer->length, data, length);
    buffer->length += length;
}

static void put_number(unsigned char* field, size_t size, unsigned long number)
{
    while (size-- > 0) {
        field[size] = (unsigned char)(number & 0xFF);
        number >>= 8;
    }
}

/* Reads the digits at *text and goes behind them; 0 if there are none or too many. */
static int take_digits(const char** text, unsigned long limit, unsigned long* number)
{
    const char* at = *text;
    unsigned long value = 0;

    for (; *at >= '0' && *at <= '9'; ++at) {
        unsigned long digit = (unsigned long)(*at - '0');

        if (value > (limit - digit) / 10) return 0;
        value = value * 10 + digit;
    }
    if (at == *text) return 0;
    *text = at;
    *number = value;
    return 1;
}

/* Reads a percentage with at most two decimals as hundredths: "2.5" is 250. */
static int take_percent(const char** text, unsigned long* hundredths)
{
    unsigned long decimals = 0;
    const char* start;

    if (!take_digits(text, 655, hundredths)) return 0;
    *hundredths *= 100;
    if (**text != '.') return 1;
    start = ++*text;
    if (!take_digits(text, 99, &decimals) || *text - start > 2) return 0;
    *hundredths += *text - start == 1 ? decimals * 10 : decimals;
    return *hundredths <= 0xFFFF;
}

/* Whether an article is there and a quantity allowed is for the server to say. */
static int add_item(struct buffer* lines, const char* text)
{
    unsigned long article = 0;
    unsigned long quantity = 0;
    unsigned long discount = 0;
    unsigned char record[RECORD_SIZE] = {0};

    if (!take_digits(&text, 0xFFFFFFFFUL, &article) || *text++ != ' ') return 0;
    if (!take_digits(&text, 0xFFFFFFFFUL, &quantity)) return 0;
    if (*text == ' ') {
        ++text;
        if (!take_percent(&text, &discount)) return 0;
    }
    if (*text != '\0') return 0;

    put_number(record, 4, article);
    put_number(record + 4, 4, quantity);
    put_number(record + 8, 2, discount);
    append(lines, record, sizeof record);
    return 1;
}

static int add_line(struct order* order, const char* line)
{
    if (line[0] == '#' || line[0] == '\0') return 1;
    if (strncmp(line, ITEM, strlen(ITEM)) == 0) return add_item(&order->lines, line + strlen(ITEM));
    append(&order->header, line, strlen(line));
    append(&order->header, "\n", 1);
    return 1;
}

static int read_lines(FILE* file, const char* name, struct order* order)
{
    char line[LINE_SIZE];
    size_t length;
    int number = 0;

    while (read_text_line(file, line, sizeof line, &length)) {
        number += 1;
        if (length > LONGEST_LINE) {
            complain("%s, line %d: longer than %d characters", name, number, LONGEST_LINE);
            return 0;
        }
        if (strlen(line) < length) {
            complain("%s, line %d: holds a NUL, so this is no text", name, number);
            return 0;
        }
        if (!add_line(order, line)) {
            complain("%s, line %d: not \"item ARTICLE QUANTITY [DISCOUNT]\"", name, number);
            return 0;
        }
    }
    return could_read(file, name);
}

static int read_order(const char* name, struct order* order)
{
    FILE* file = open_file(name, "give the file of the order as the last argument");
    int done;

    if (file == NULL) return 0;
    done = read_lines(file, name, order);
    fclose(file);
    return done;
}

/* ---- The channel ----------------------------------------------------------------------------- */

static int add_container(ECI_ChannelToken_t channel, const char* name, ECI_CONTAINER_TYPE type,
                         int ccsid, const struct buffer* data)
{
    int rc = ECI_createContainer(channel, name, type, ccsid, data->at, data->length);

    if (rc == ECI_NO_ERROR) return 1;
    complain_of_container("create container", name, rc);
    return 0;
}

/* Creates the channel; what is in it when this fails goes with it. */
static int build_channel(const struct order* order, int ccsid, ECI_ChannelToken_t* channel)
{
    int rc = ECI_createChannel(CHANNEL_NAME, channel);

    if (rc != ECI_NO_ERROR) {
        complain_of_rc("create channel " CHANNEL_NAME, rc);
        return 0;
    }
    return add_container(*channel, HEADER_CONTAINER, ECI_CHAR, ccsid, &order->header) &&
           add_container(*channel, LINES_CONTAINER, ECI_BIT, 0, &order->lines);
}

static int delete_channel(ECI_ChannelToken_t* channel)
{
    int rc;

    if (*channel == NULL) return 1;
    rc = ECI_deleteChannel(channel);
    if (rc == ECI_NO_ERROR) return 1;
    complain_of_rc("delete channel " CHANNEL_NAME, rc);
    return 0;
}

/* Names what became of the call, and says what can be done about it. */
static void complain_with_advice(const struct options* options, int rc, const char* abend_code)
{
    complain_of_rc("call", rc);
    switch (rc) {
    case ECI_ERR_TRANSACTION_ABEND:
        complain("program %s ended abnormally, abend code %.4s", options->target.program,
                 abend_code);
        break;
    case ECI_ERR_SECURITY_ERROR:
        complain("give a user with --user, and the password in ORDERS_PASSWORD");
        break;
    case ECI_ERR_RESOURCE_SHORTAGE:
    case ECI_ERR_RESPONSE_TIMEOUT: complain("try again later"); break;
    case QPX_ERR_LOSTGWCON:
    case QPX_ERR_GATEWAY_CLOSED:
        complain("the connection is gone; nothing was posted, so the order may be sent again");
        break;
    default: break;
    }
}

/* Sends the channel to the server program, which changes it. */
static int call_orders(const struct options* options, QPX_ConnToken_t gateway,
                       ECI_ChannelToken_t channel)
{
    QPX_ECI_PARMS parms;
    int rc;

    prepare_call(&options->target, ECI_SYNC, &parms);
    parms.channel = channel; /* in place of a COMMAREA */

    rc = QPX_ECI_Execute_Channel(gateway, &parms);

    if (rc == ECI_NO_ERROR) return 1;
    complain_with_advice(options, rc, parms.eci_abend_code);
    return 0;
}

/* ---- The reply ------------------------------------------------------------------------------- */

/* What was found in the channel that has come back. */
struct reply {
    int has_invoice;
    int has_error;
};

static void list_container(const ECI_CONTAINER_INFO* info)
{
    if (info->type == ECI_CHAR)
        printf("  %-16s %6lu bytes, characters, CCSID %d\n", info->name,
               (unsigned long)info->dataLength, info->ccsid);
    else
        printf("  %-16s %6lu bytes, binary\n", info->name, (unsigned long)info->dataLength);
}

/* Browses the channel. The newest containers come first, so those of the server are in front. */
static int browse_reply(ECI_ChannelToken_t channel, int verbose, struct reply* reply)
{
    ECI_CONTAINER_INFO info;
    int rc = ECI_getFirstContainer(channel, &info);

    if (verbose) printf("The channel %s has come back with\n", CHANNEL_NAME);
    for (; rc == ECI_NO_ERROR; rc = ECI_getNextContainer(channel, &info)) {
        if (verbose) list_container(&info);
        if (strcmp(info.name, INVOICE_CONTAINER) == 0) reply->has_invoice = 1;
        if (strcmp(info.name, ERROR_CONTAINER) == 0) reply->has_error = 1;
    }
    if (verbose) putchar('\n');
    if (rc == ECI_ERR_ENDOFCONTAINERS) return 1;
    complain_of_rc("browse the channel", rc);
    return 0;
}

/* Writes a container's data, piece by piece. */
static int print_container(ECI_ChannelToken_t channel, const char* name, FILE* file)
{
    char piece[512];
    size_t offset = 0;
    size_t count = 0;

    do {
        int rc = ECI_getContainerData(channel, name, piece, sizeof piece, offset, &count);

        if (rc != ECI_NO_ERROR) {
            complain_of_container("read container", name, rc);
            return 0;
        }
        fwrite(piece, 1, count, file);
        offset += count;
    } while (count == sizeof piece);
    return 1;
}

static int show_refusal(ECI_ChannelToken_t channel)
{
    int shown;

    fflush(stdout);
    fputs("orders: the order is refused: ", stderr);
    shown = print_container(channel, ERROR_CONTAINER, stderr);
    fputc('\n', stderr);
    return shown ? EXIT_REFUSED : EXIT_FAILED;
}

static int show_reply(ECI_ChannelToken_t channel, int verbose)
{
    struct reply reply = {0};

    if (!browse_reply(channel, verbose, &reply)) return EXIT_FAILED;
    if (reply.has_error) return show_refusal(channel);
    if (reply.has_invoice)
        return print_container(channel, INVOICE_CONTAINER, stdout) ? EXIT_OK : EXIT_FAILED;
    complain("the reply has neither %s nor %s; is this the right program?", INVOICE_CONTAINER,
             ERROR_CONTAINER);
    return EXIT_FAILED;
}

/* ---- The run --------------------------------------------------------------------------------- */

static int send_channel(const struct options* options, ECI_ChannelToken_t channel)
{
    QPX_ConnToken_t gateway = NULL;
    int called;

    if (!open_gateway(&options->target, &gateway)) return EXIT_FAILED;
    called = call_orders(options, gateway, channel);
    /* What has come back is in the channel, and needs no connection any more. */
    if (!close_gateway(&gateway) || !called) return EXIT_FAILED;
    return show_reply(channel, options->verbose);
}

static int run(const struct options* options)
{
    struct order order = {{0}, {0}};
    ECI_ChannelToken_t channel = NULL;
    int result = EXIT_FAILED;

    if (read_order(options->file, &order) && build_channel(&order, options->ccsid, &channel))
        result = send_channel(options, channel);
    if (!delete_channel(&channel) && result == EXIT_OK) result = EXIT_FAILED;
    free(order.header.at);
    free(order.lines.at);
    return result;
}

/* ---- Arguments ------------------------------------------------------------------------------- */

void print_help(void)
{
    printf("Has an order priced by a server program that works on a channel.\n"
           "\n"
           "Usage: orders --port PORT [options] FILE\n"
           "\n");
    print_call_options("ORDERS", "ORDERS_PASSWORD");
    printf("  --ccsid CCSID    code page of the file, such as 819 or 1208, which is UTF-8;\n"
           "                   0 is that of LANG (0)\n"
           "  --verbose        list the containers of the reply\n"
           "  --help           this text\n"
           "\n"
           "The file has lines KEY=VALUE (order, account, date, currency, reference) and\n"
           "lines \"item ARTICLE QUANTITY [DISCOUNT IN PERCENT]\"; '#' begins a comment.\n"
           "\n"
           "Exit codes:\n"
           "  0  the order was priced, and the invoice is printed\n"
           "  1  a file or a call failed\n"
           "  2  the arguments are wrong\n"
           "  3  the order was refused\n"
           "\n"
           "Examples:\n"
           "  orders --port 5770 data/order.txt\n"
           "  orders --port 5770 --ccsid 1208 --verbose data/order-utf8.txt\n"
           "  QPX_CLIENT_TRACE_LEVEL=2 orders --port 5770 data/order-wrong.txt\n");
}

/* Fills the options, and gives GO_ON or the exit code to end with. */
static int parse_arguments(int argc, char** argv, struct options* options)
{
    enum { CCSID = OWN_OPTIONS, VERBOSE };
    static const struct option known[] = {
        CALL_OPTIONS,
        {"ccsid", required_argument, NULL, CCSID},
        {"verbose", no_argument, NULL, VERBOSE},
        {NULL, 0, NULL, 0},
    };
    int choice;

    while ((choice = next_option(argc, argv, known, &options->target)) >= OWN_OPTIONS) {
        switch (choice) {
        case CCSID:
            if (!parse_number(optarg, 0, 65535, &options->ccsid))
                return usage("a CCSID is a number from 0 to 65535, not ", optarg);
            break;
        case VERBOSE: options->verbose = 1; break;
        }
    }
    if (choice != GO_ON) return choice;
    return take_file(argc, argv, "the file of the order is missing", &options->file);
}

int main(int argc, char** argv)
{
    struct options options = {.target = {CALL_DEFAULTS("ORDERS", "ORDERS_PASSWORD")}};
    int result;

    result = parse_arguments(argc, argv, &options);
    return end_with(result == GO_ON ? run(&options) : result);
}
