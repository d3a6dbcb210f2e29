/*
 * ledger.c - posts a file of transfers through a Gateway, each as one unit of work.
 *
 * For every record of the file the server program LEDGER is called twice in one unit of work, to
 * debit the one account and to credit the other. If both are accepted the unit is committed; if
 * either is refused the unit is backed out and neither account has moved. At the end the
 * balances are asked for again and held against what was posted.
 *
 * The file has one transfer per line of exactly 80 characters:
 *
 *     offset  length
 *          0       8  reference
 *          8       8  value date, YYYYMMDD
 *         16       8  account that is debited
 *         24       8  account that is credited
 *         32      12  amount in cents, digits, padded with zeros on the left
 *         44      33  purpose, padded with blanks
 *         77       3  currency
 *
 * Lines that begin with '#' are comments.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "options.h"
#include "qpxclient_eci.h"

/* The exit code that only this program has. */
#define EXIT_MISMATCH 3 /* the balances are not what was posted */

/* ---- The COMMAREA of LEDGER: 80 characters ------------------------------------------------ */

#define LEDGER_AREA_SIZE    80
#define LEDGER_FUNCTION     0
#define LEDGER_RESULT       1
#define LEDGER_RESULT_SIZE  2
#define LEDGER_ACCOUNT      3
#define LEDGER_AMOUNT       11
#define LEDGER_BALANCE      23
#define LEDGER_BALANCE_SIZE 13
#define LEDGER_COUNT        36
#define LEDGER_COUNT_SIZE   4

#define LEDGER_QUERY  'Q'
#define LEDGER_DEBIT  'D'
#define LEDGER_CREDIT 'C'
#define LEDGER_TOTAL  'T'

#define ACCOUNT_SIZE 8
#define AMOUNT_SIZE  12

/* ---- The records of the transfer file ------------------------------------------------------ */

#define RECORD_SIZE    80
#define RECORD_FROM    16
#define RECORD_TO      24
#define RECORD_AMOUNT  32
#define REFERENCE_SIZE 8

/* Room for a record that is too long, for the line end and for the terminator. */
#define LINE_SIZE (RECORD_SIZE + 3)

/* What became of a transfer. */
enum outcome {
    NOT_REACHED, /* the run ended before it */
    POSTED,
    UNKNOWN_ACCOUNT,
    INSUFFICIENT_FUNDS,
    BAD_AMOUNT,
    OTHER_REFUSAL,
    BAD_RECORD,
    CALL_FAILED, /* a call other than the commit failed */
    IN_DOUBT,    /* the commit failed in a way that does not tell whether it was done */
    OUTCOMES
};

static const char* const outcome_text[OUTCOMES] = {
    "not reached",
    "posted",
    "unknown account",
    "insufficient funds",
    "amount not numeric or zero",
    "refused for another reason",
    "record length is not 80",
    "call failed",
    "commit in doubt",
};

struct transfer {
    char record[RECORD_SIZE + 1];
    size_t length; /* of the line in the file, cut at LINE_SIZE */
    int line;
    enum outcome outcome;
};

struct transfers {
    struct transfer* at; /* owned */
    size_t count;
    size_t room;
};

struct account {
    char name[ACCOUNT_SIZE + 1];
    int known;        /* 0 if the ledger has no such account */
    long long before; /* cents */
    long long posted; /* credits less debits of the transfers that were posted */
    long long after;
};

struct accounts {
    struct account* at; /* owned */
    size_t count;
    size_t room;
};

const char program_name[] = "ledger";

struct options {
    struct target target;
    int total_only;
    int verbose;
    int progress;
    const char* file;
};

/* Writes an amount in cents as "-1,234.56" and returns the buffer. */
#define MONEY_SIZE 32
static const char* money(long long cents, char buffer[MONEY_SIZE])
{
    unsigned long long rest = cents < 0 ? 0ULL - (unsigned long long)cents
                                        : (unsigned long long)cents;
    char* at = buffer + MONEY_SIZE - 1;
    int digit;

    *at = '\0';
    for (digit = 0; digit < 3 || rest > 0; ++digit) {
        if (digit == 2) *--at = '.';
        if (digit > 2 && (digit - 2) % 3 == 0) *--at = ',';
        *--at = (char)('0' + rest % 10);
        rest /= 10;
    }
    if (cents < 0) *--at = '-';
    return memmove(buffer, at, strlen(at) + 1);
}

/* Reads digits behind an optional sign; 0 if there is anything else. */
static int parse_cents(const char* text, size_t length, long long* cents)
{
    size_t at = 0;
    long long value = 0;
    int negative = 0;

    if (length > 0 && (text[0] == '+' || text[0] == '-')) {
        negative = text[0] == '-';
        at = 1;
    }
    if (at == length) return 0;
    for (; at < length; ++at) {
        if (text[at] < '0' || text[at] > '9') return 0;
        value = value * 10 + (text[at] - '0');
    }
    *cents = negative ? -value : value;
    return 1;
}

/* ---- The transfer file ---------------------------------------------------------------------- */

static int read_transfers(const char* name, struct transfers* transfers)
{
    FILE* file = open_file(name, "give the file of transfers as the last argument");
    char line[LINE_SIZE];
    size_t length;
    int number = 0;
    int done;

    if (file == NULL) return 0;
    while (read_line(file, line, sizeof line, &length)) {
        struct transfer* transfer;

        number += 1;
        if (line[0] == '#') continue;
        transfers->at = more_room(transfers->at, transfers->count, &transfers->room,
                                  sizeof *transfers->at);
        transfer = &transfers->at[transfers->count++];
        memset(transfer, 0, sizeof *transfer);
        memcpy(transfer->record, line, length < RECORD_SIZE ? length : RECORD_SIZE);
        transfer->length = length;
        transfer->line = number;
        transfer->outcome = NOT_REACHED;
    }
    done = could_read(file, name);
    fclose(file);
    return done;
}

static struct account* find_account(struct accounts* accounts, const char* name)
{
    size_t i;

    for (i = 0; i < accounts->count; ++i)
        if (memcmp(accounts->at[i].name, name, ACCOUNT_SIZE) == 0) return &accounts->at[i];
    return NULL;
}

static void note_account(struct accounts* accounts, const char* name)
{
    struct account* account;

    if (find_account(accounts, name) != NULL) return;
    accounts->at = more_room(accounts->at, accounts->count, &accounts->room, sizeof *accounts->at);
    account = &accounts->at[accounts->count++];
    memset(account, 0, sizeof *account);
    memcpy(account->name, name, ACCOUNT_SIZE);
}

static int by_name(const void* left, const void* right)
{
    return memcmp(((const struct account*)left)->name, ((const struct account*)right)->name,
                  ACCOUNT_SIZE);
}

/* Lists the accounts that the transfers name, each once, in order. */
static void collect_accounts(const struct transfers* transfers, struct accounts* accounts)
{
    size_t i;

    for (i = 0; i < transfers->count; ++i) {
        if (transfers->at[i].length != RECORD_SIZE) continue;
        note_account(accounts, transfers->at[i].record + RECORD_FROM);
        note_account(accounts, transfers->at[i].record + RECORD_TO);
    }
    if (accounts->count > 0) qsort(accounts->at, accounts->count, sizeof *accounts->at, by_name);
}

/* ---- Calls of LEDGER ------------------------------------------------------------------------ */

/* A connection, and what a call on it leaves beside its reply. */
struct session {
    const struct options* options;
    QPX_ConnToken_t gateway; /* NULL while there is no connection */
    char abend_code[4];      /* of the last call */
};

/*
 * Calls LEDGER. extend_mode and *luw_token say which unit of work the call belongs to; a commit
 * and a back-out carry no data, so their area is NULL.
 */
static int call_ledger(struct session* session, short extend_mode, int* luw_token, char* area)
{
    QPX_ECI_PARMS parms;
    int rc;

    prepare_call(&session->options->target, ECI_SYNC, &parms);
    parms.eci_extend_mode = extend_mode;
    parms.eci_luw_token = *luw_token;
    if (area != NULL) {
        parms.eci_commarea = area;
        parms.eci_commarea_length = LEDGER_AREA_SIZE;
    }

    rc = QPX_ECI_Execute(session->gateway, &parms);

    *luw_token = parms.eci_luw_token;
    memcpy(session->abend_code, parms.eci_abend_code, sizeof session->abend_code);
    return rc;
}

/* Fills a COMMAREA for a function of LEDGER; account and amount may be NULL. */
static void prepare_area(char area[LEDGER_AREA_SIZE], char function, const char* account,
                         const char* amount)
{
    memset(area, ' ', LEDGER_AREA_SIZE);
    area[LEDGER_FUNCTION] = function;
    if (account != NULL) memcpy(area + LEDGER_ACCOUNT, account, ACCOUNT_SIZE);
    if (amount != NULL) memcpy(area + LEDGER_AMOUNT, amount, AMOUNT_SIZE);
}

static enum outcome outcome_of(const char area[LEDGER_AREA_SIZE])
{
    static const struct {
        char result[LEDGER_RESULT_SIZE + 1];
        enum outcome outcome;
    } meanings[] = {
        {"00", POSTED},
        {"01", UNKNOWN_ACCOUNT},
        {"02", INSUFFICIENT_FUNDS},
        {"03", BAD_AMOUNT},
    };
    size_t i;

    for (i = 0; i < sizeof meanings / sizeof meanings[0]; ++i)
        if (memcmp(area + LEDGER_RESULT, meanings[i].result, LEDGER_RESULT_SIZE) == 0)
            return meanings[i].outcome;
    return OTHER_REFUSAL;
}

static int query_account(struct session* session, const char* name, int* known, long long* balance)
{
    char area[LEDGER_AREA_SIZE];
    int no_unit = 0;
    int rc;

    prepare_area(area, LEDGER_QUERY, name, NULL);
    rc = call_ledger(session, ECI_NO_EXTEND, &no_unit, area);
    if (rc != ECI_NO_ERROR) {
        complain_of_call("query of a balance", rc, session->abend_code);
        return 0;
    }
    *known = outcome_of(area) == POSTED;
    if (*known && !parse_cents(area + LEDGER_BALANCE, LEDGER_BALANCE_SIZE, balance)) {
        complain("LEDGER answers a balance that is no number: \"%.*s\"", LEDGER_BALANCE_SIZE,
                 area + LEDGER_BALANCE);
        return 0;
    }
    return 1;
}

static int query_total(struct session* session, long long* total, long long* accounts)
{
    char area[LEDGER_AREA_SIZE];
    int no_unit = 0;
    int rc;

    prepare_area(area, LEDGER_TOTAL, NULL, NULL);
    rc = call_ledger(session, ECI_NO_EXTEND, &no_unit, area);
    if (rc != ECI_NO_ERROR) {
        complain_of_call("query of the total", rc, session->abend_code);
        return 0;
    }
    if (!parse_cents(area + LEDGER_BALANCE, LEDGER_BALANCE_SIZE, total) ||
        !parse_cents(area + LEDGER_COUNT, LEDGER_COUNT_SIZE, accounts)) {
        complain("LEDGER answers a total that is no number: \"%.*s\"",
                 LEDGER_BALANCE_SIZE + LEDGER_COUNT_SIZE, area + LEDGER_BALANCE);
        return 0;
    }
    return 1;
}

/* ---- Posting -------------------------------------------------------------------------------- */

static void complain_of_transfer(struct session* session, const struct transfer* transfer,
                                 const char* step, int rc)
{
    char what[80];

    snprintf(what, sizeof what, "line %d, %.*s: %s", transfer->line, REFERENCE_SIZE,
             transfer->record, step);
    complain_of_call(what, rc, session->abend_code);
}

/* Debits or credits one account within a unit of work, which the first call opens. */
static enum outcome post_side(struct session* session, const struct transfer* transfer,
                              char function, int* luw_token)
{
    size_t account = function == LEDGER_DEBIT ? RECORD_FROM : RECORD_TO;
    char area[LEDGER_AREA_SIZE];
    int rc;

    prepare_area(area, function, transfer->record + account, transfer->record + RECORD_AMOUNT);
    rc = call_ledger(session, ECI_EXTENDED, luw_token, area);
    if (rc == ECI_NO_ERROR) return outcome_of(area);
    complain_of_transfer(session, transfer, function == LEDGER_DEBIT ? "debit" : "credit", rc);
    return CALL_FAILED;
}

static enum outcome commit(struct session* session, const struct transfer* transfer, int luw_token)
{
    int rc = call_ledger(session, ECI_COMMIT, &luw_token, NULL);

    if (rc == ECI_NO_ERROR) return POSTED;
    complain_of_transfer(session, transfer, "commit", rc);
    return rc == ECI_ERR_ROLLEDBACK ? CALL_FAILED : IN_DOUBT;
}

/* Backs a refused transfer out. */
static enum outcome back_out(struct session* session, const struct transfer* transfer,
                             int luw_token, enum outcome refusal)
{
    int rc = call_ledger(session, ECI_BACKOUT, &luw_token, NULL);

    if (rc == ECI_NO_ERROR) return refusal;
    complain_of_transfer(session, transfer, "back-out", rc);
    return CALL_FAILED;
}

/* Posts one transfer as one unit of work. */
static enum outcome post_transfer(struct session* session, const struct transfer* transfer)
{
    int luw_token = 0;
    enum outcome outcome;

    if (transfer->length != RECORD_SIZE) return BAD_RECORD;

    outcome = post_side(session, transfer, LEDGER_DEBIT, &luw_token);
    if (outcome == POSTED) outcome = post_side(session, transfer, LEDGER_CREDIT, &luw_token);

    if (outcome == POSTED) return commit(session, transfer, luw_token);
    /* After a failed call its unit of work cannot be named; only a refusal leaves one to end. */
    if (outcome == CALL_FAILED) return CALL_FAILED;
    return back_out(session, transfer, luw_token, outcome);
}

/* Keeps what a posted transfer means for the balances of its two accounts. */
static void note_posted(struct accounts* accounts, const struct transfer* transfer)
{
    struct account* from = find_account(accounts, transfer->record + RECORD_FROM);
    struct account* to = find_account(accounts, transfer->record + RECORD_TO);
    long long amount = 0;

    if (from == NULL || to == NULL ||
        !parse_cents(transfer->record + RECORD_AMOUNT, AMOUNT_SIZE, &amount)) {
        complain("line %d: LEDGER has posted what is no transfer", transfer->line);
        return;
    }
    from->posted -= amount;
    to->posted += amount;
}

static void show_progress(const struct options* options, size_t done, size_t count)
{
    if (!options->progress) return;
    if (done % 10 != 0 && done != count) return;
    fprintf(stderr, "\r%lu of %lu transfers%s", (unsigned long)done, (unsigned long)count,
            done == count ? "\n" : "");
    fflush(stderr);
}

/*
 * A failed call may have ended the connection. If not, its unit of work cannot be named any more,
 * but may still be open at the server, which backs it out when its connection ends. So the rest is
 * posted on a new connection.
 */
static int renew_connection(struct session* session)
{
    close_gateway(&session->gateway);
    if (!open_gateway(&session->options->target, &session->gateway)) return 0;
    complain("going on over a new connection");
    return 1;
}

static int call_has_failed(enum outcome outcome)
{
    return outcome == CALL_FAILED || outcome == IN_DOUBT;
}

/* Posts until the end, or until there is no connection to be had. */
static int post_all(struct session* session, struct transfers* transfers, struct accounts* accounts)
{
    size_t i;

    for (i = 0; i < transfers->count; ++i) {
        struct transfer* transfer = &transfers->at[i];

        transfer->outcome = post_transfer(session, transfer);
        if (transfer->outcome == POSTED) note_posted(accounts, transfer);
        show_progress(session->options, i + 1, transfers->count);
        if (call_has_failed(transfer->outcome) && !renew_connection(session)) return 0;
    }
    return 1;
}

/* ---- The summary ---------------------------------------------------------------------------- */

static void count_outcomes(const struct transfers* transfers, unsigned long counts[OUTCOMES])
{
    size_t i;

    memset(counts, 0, OUTCOMES * sizeof counts[0]);
    for (i = 0; i < transfers->count; ++i) counts[transfers->at[i].outcome] += 1;
}

static void print_count(const char* text, unsigned long count)
{
    printf("  %-32s %6lu\n", text, count);
}

static void print_reason(enum outcome outcome, const unsigned long counts[OUTCOMES])
{
    if (counts[outcome] > 0) printf("    %-30s %6lu\n", outcome_text[outcome], counts[outcome]);
}

static void print_counts(const unsigned long counts[OUTCOMES], size_t records)
{
    unsigned long backed_out = counts[UNKNOWN_ACCOUNT] + counts[INSUFFICIENT_FUNDS] +
                               counts[BAD_AMOUNT] + counts[OTHER_REFUSAL] + counts[CALL_FAILED];

    printf("\nTransfers\n");
    print_count("posted", counts[POSTED]);
    print_count("backed out", backed_out);
    print_reason(UNKNOWN_ACCOUNT, counts);
    print_reason(INSUFFICIENT_FUNDS, counts);
    print_reason(BAD_AMOUNT, counts);
    print_reason(OTHER_REFUSAL, counts);
    print_reason(CALL_FAILED, counts);
    print_count("not sent", counts[BAD_RECORD] + counts[NOT_REACHED]);
    print_reason(BAD_RECORD, counts);
    print_reason(NOT_REACHED, counts);
    if (counts[IN_DOUBT] > 0) print_count(outcome_text[IN_DOUBT], counts[IN_DOUBT]);
    print_count("records", (unsigned long)records);
}

static void print_refused(const struct transfers* transfers)
{
    size_t i;

    printf("\nRecords that are not posted\n");
    for (i = 0; i < transfers->count; ++i) {
        const struct transfer* transfer = &transfers->at[i];

        if (transfer->outcome != POSTED)
            printf("  line %4d  %-*.*s  %s\n", transfer->line, REFERENCE_SIZE, REFERENCE_SIZE,
                   transfer->record, outcome_text[transfer->outcome]);
    }
}

static void print_balances(const struct accounts* accounts, long long before, long long after)
{
    char text[3][MONEY_SIZE];
    size_t i;

    printf("\n%-10s %16s %16s %16s\n", "Account", "Before", "After", "Change");
    for (i = 0; i < accounts->count; ++i) {
        const struct account* account = &accounts->at[i];

        if (account->known)
            printf("%-10s %16s %16s %16s\n", account->name, money(account->before, text[0]),
                   money(account->after, text[1]),
                   money(account->after - account->before, text[2]));
    }
    printf("%-10s %16s %16s %16s\n", "Total", money(before, text[0]), money(after, text[1]),
           money(after - before, text[2]));
}

/* Nothing may be lost or doubled: each account has moved by what was posted, the total not. */
static int books_agree(const struct accounts* accounts, long long before, long long after)
{
    char text[2][MONEY_SIZE];
    int agree = 1;
    size_t i;

    for (i = 0; i < accounts->count; ++i) {
        const struct account* account = &accounts->at[i];

        if (!account->known || account->after == account->before + account->posted) continue;
        complain("account %s is at %s, and %s follows from what was posted", account->name,
                 money(account->after, text[0]), money(account->before + account->posted, text[1]));
        agree = 0;
    }
    if (before != after) {
        complain("the total was %s and is %s", money(before, text[0]), money(after, text[1]));
        agree = 0;
    }
    if (!agree) complain("the books do not agree; is somebody else posting to this ledger?");
    return agree;
}

/* ---- The run -------------------------------------------------------------------------------- */

static int query_before(struct session* session, struct accounts* accounts)
{
    size_t i;

    for (i = 0; i < accounts->count; ++i)
        if (!query_account(session, accounts->at[i].name, &accounts->at[i].known,
                           &accounts->at[i].before))
            return 0;
    return 1;
}

static int query_after(struct session* session, struct accounts* accounts)
{
    size_t i;

    for (i = 0; i < accounts->count; ++i) {
        int known = 0;

        if (!query_account(session, accounts->at[i].name, &known, &accounts->at[i].after)) return 0;
    }
    return 1;
}

/* Asks for the total and says where it comes from. */
static int show_ledger(struct session* session, long long* total)
{
    char text[MONEY_SIZE];
    long long accounts = 0;

    if (!query_total(session, total, &accounts)) return 0;
    printf("Ledger at %s:%d: %lld accounts, total %s\n", session->options->target.host,
           session->options->target.port, accounts, money(*total, text));
    return 1;
}

static int run_file(struct session* session, struct transfers* transfers, struct accounts* accounts)
{
    unsigned long counts[OUTCOMES];
    long long before = 0;
    long long after = 0;
    long long count = 0;
    int reached_the_end;
    int complete;

    if (!show_ledger(session, &before)) return EXIT_FAILED;
    if (!query_before(session, accounts)) return EXIT_FAILED;
    printf("Posting %lu records of %s\n", (unsigned long)transfers->count, session->options->file);

    reached_the_end = post_all(session, transfers, accounts);

    count_outcomes(transfers, counts);
    print_counts(counts, transfers->count);
    if (session->options->verbose) print_refused(transfers);
    if (!reached_the_end) return EXIT_FAILED;
    if (!query_after(session, accounts) || !query_total(session, &after, &count))
        return EXIT_FAILED;
    print_balances(accounts, before, after);

    complete = counts[CALL_FAILED] == 0 && counts[IN_DOUBT] == 0;
    if (!books_agree(accounts, before, after)) return complete ? EXIT_MISMATCH : EXIT_FAILED;
    printf("\nThe books agree: every account moved by what was posted, the total did not.\n");
    return complete ? EXIT_OK : EXIT_FAILED;
}

/* Opens a connection, does the work on it and closes it, whatever came of the work. */
static int run_session(const struct options* options, struct transfers* transfers,
                       struct accounts* accounts)
{
    struct session session = {options, NULL, {0}};
    long long total = 0;
    int result;

    if (!open_gateway(&session.options->target, &session.gateway)) return EXIT_FAILED;
    if (options->total_only)
        result = show_ledger(&session, &total) ? EXIT_OK : EXIT_FAILED;
    else
        result = run_file(&session, transfers, accounts);
    return close_after(result, &session.gateway);
}

static int run(const struct options* options)
{
    struct transfers transfers = {0};
    struct accounts accounts = {0};
    int result = EXIT_FAILED;

    if (options->total_only || read_transfers(options->file, &transfers)) {
        collect_accounts(&transfers, &accounts);
        result = run_session(options, &transfers, &accounts);
    }
    free(transfers.at);
    free(accounts.at);
    return result;
}

/* ---- Arguments ------------------------------------------------------------------------------ */

void print_help(void)
{
    printf("Posts a file of transfers through a Gateway, each as one unit of work.\n"
           "\n"
           "Usage: ledger --port PORT [options] FILE\n"
           "       ledger --port PORT [options] --total\n"
           "\n");
    print_call_options("LEDGER", "LEDGER_PASSWORD");
    printf("  --total          only ask for the total of all accounts\n"
           "  --verbose        name every record that is not posted\n"
           "  --progress       count along on standard error\n"
           "  --help           this text\n"
           "\n"
           "Exit codes:\n"
           "  0  every record was posted or backed out, and the books agree\n"
           "  1  a file or a call failed; what was posted until then is told\n"
           "  2  the arguments are wrong\n"
           "  3  the balances are not what was posted\n"
           "\n"
           "Examples:\n"
           "  ledger --port 5770 data/transfers.txt\n"
           "  ledger --host gateway.example --port 5770 --applid PAYDESK --verbose today.txt\n"
           "  QPX_CLIENT_TRACE_LEVEL=3 ledger --port 5770 --total\n");
}

/* Fills the options, and gives GO_ON or the exit code to end with. */
static int parse_arguments(int argc, char** argv, struct options* options)
{
    enum { TOTAL = OWN_OPTIONS, VERBOSE, PROGRESS };
    static const struct option known[] = {
        CALL_OPTIONS,
        {"total", no_argument, NULL, TOTAL},
        {"verbose", no_argument, NULL, VERBOSE},
        {"progress", no_argument, NULL, PROGRESS},
        {NULL, 0, NULL, 0},
    };
    int choice;

    while ((choice = next_option(argc, argv, known, &options->target)) >= OWN_OPTIONS) {
        switch (choice) {
        case TOTAL: options->total_only = 1; break;
        case VERBOSE: options->verbose = 1; break;
        case PROGRESS: options->progress = 1; break;
        }
    }
    if (choice != GO_ON) return choice;
    if (options->total_only) {
        if (optind < argc) return usage("--total takes no file: ", argv[optind]);
        return GO_ON;
    }
    return take_file(argc, argv, "the file of transfers is missing", &options->file);
}

int main(int argc, char** argv)
{
    struct options options = {.target = {CALL_DEFAULTS("LEDGER", "LEDGER_PASSWORD")}};
    int result;

    result = parse_arguments(argc, argv, &options);
    return end_with(result == GO_ON ? run(&options) : result);
}
