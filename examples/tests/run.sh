#!/usr/bin/env bash
# Runs one case of the examples' tests: run.sh CASE ECHO LEDGER ORDERS DAEMON, with the paths of the
# programs. CMakeLists.txt names the cases; each is a function below.
set -euo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)
CASE=$1 ECHO=$2 LEDGER=$3 ORDERS=$4 DAEMON=$5
readonly HERE CASE ECHO LEDGER ORDERS DAEMON

# shellcheck source=tools/gateway.sh
source "$HERE/../../tools/gateway.sh"

FOLDER=$(mktemp -d)
trap 'stop_gateway || true; rm -rf "$FOLDER"' EXIT

# ---- Verbs ---------------------------------------------------------------------------------------

fail() {
    printf '%s: %s\n' "$CASE" "$1" >&2
    for file in out err gateway.log; do
        [[ ! -s $FOLDER/$file ]] || sed "s/^/  $file | /" "$FOLDER/$file" >&2
    done
    exit 1
}

gateway() {
    start_gateway "$DAEMON" "$FOLDER" "$@"
}

# A port at which nothing listens: that of a gateway that has stopped.
closed_port() {
    gateway
    stop_gateway || fail "the gateway does not stop cleanly"
}

# Runs a program in the folder of the examples' data, keeps what it writes and its exit code.
run() {
    CODE=0
    (cd "$HERE/../data" && "$@" >"$FOLDER/out" 2>"$FOLDER/err" </dev/null) || CODE=$?
}

ledger() {
    run "$LEDGER" --port "$GATEWAY_PORT" "$@"
}

orders() {
    run env LANG=C "$ORDERS" --port "$GATEWAY_PORT" "$@"
}

expect_code() {
    [[ $CODE == "$1" ]] || fail "exit code $CODE, not $1"
}

expect_line() {
    local file=$1 line=$2
    grep -qxF -- "$line" "$FOLDER/$file" || fail "no line \"$line\" in $file"
}

expect_text() {
    local file=$1 text=$2
    grep -qF -- "$text" "$FOLDER/$file" || fail "no \"$text\" in $file"
}

expect_nothing() {
    [[ ! -s $FOLDER/$1 ]] || fail "something in $1"
}

expect_same() {
    diff -u "$1" "$2" >&2 || fail "the output differs"
}

# Of all calls of a run: one asks for the total, one for each account that the file names, and the
# first transfer begins with its debit.
number_of_the_first_credit() {
    local accounts

    accounts=$(grep -xE '[^#].{79}' "$HERE/../data/transfers.txt" |
        sed -E 's/^.{16}(.{8})(.{8}).*/\1\n\2/' | sort -u | wc -l)
    printf '%d' $((1 + accounts + 2))
}

# ---- Cases ---------------------------------------------------------------------------------------

EchoAnswersWhatItWasSent() {
    gateway
    run "$ECHO" 127.0.0.1 "$GATEWAY_PORT"
    expect_code 0
    expect_line out "Hello, Gateway!"
    expect_nothing err
}

EchoNamesTheErrorWithoutAGateway() {
    closed_port
    run "$ECHO" 127.0.0.1 "$GATEWAY_PORT"
    expect_code 1
    expect_line err "-118 QPX_ERR_CONNECTFAILED"
}

LedgerPostsEveryTransferOnce() {
    gateway
    ledger transfers.txt
    expect_code 0
    expect_nothing err
    sed "s/:$GATEWAY_PORT:/:PORT:/" "$FOLDER/out" >"$FOLDER/summary.txt"
    expect_same "$HERE/summary.txt" "$FOLDER/summary.txt"
}

LedgerNamesEveryRecordThatIsNotPosted() {
    gateway
    ledger --verbose transfers.txt
    expect_code 0
    sed -n '/^Records that/,/^$/{/./p}' "$FOLDER/out" >"$FOLDER/not-posted.txt"
    expect_same "$HERE/not-posted.txt" "$FOLDER/not-posted.txt"
}

LedgerAgreesWithItsBooksOnASecondRun() {
    gateway
    ledger transfers.txt
    expect_code 0
    ledger transfers.txt
    expect_code 0
    expect_text out "$(printf '%-10s %16s ' ACC00001 4,007.36)"
    expect_line out "Total            121,010.60       121,010.60             0.00"
}

LedgerShowsTheTotal() {
    gateway
    ledger --total
    expect_code 0
    expect_line out "Ledger at 127.0.0.1:$GATEWAY_PORT: 12 accounts, total 121,010.60"
}

# The connection drops at the credit of the first transfer, whose debit is done by then.
LedgerBacksOutAnOpenUnitWhenTheConnectionDrops() {
    gateway --misbehave drop@connection:1,nth:"$(number_of_the_first_credit)" \
        --misbehave refuse-handshake=61445@connection:2
    ledger transfers.txt
    expect_code 1
    expect_line err "ledger: line 6, T0000001: credit: QPX_ERR_LOSTGWCON (-102)"
    ledger --total
    expect_code 0
    expect_text out "12 accounts, total 121,010.60"
}

# Nothing of the transfer stays behind whose call has failed, and the others are posted.
LedgerGoesOnOverANewConnectionWhenOneIsLost() {
    gateway --misbehave close@nth:"$(number_of_the_first_credit)"
    ledger transfers.txt
    expect_code 1
    expect_line err "ledger: line 6, T0000001: credit: QPX_ERR_GATEWAY_CLOSED (61444)"
    expect_going_on_after_a_failed_call
}

LedgerGoesOnOverANewConnectionWhenACallFails() {
    gateway --misbehave flow-error=61445@nth:"$(number_of_the_first_credit)"
    ledger transfers.txt
    expect_code 1
    expect_line err "ledger: line 6, T0000001: credit: QPX_ERR_WORK_WAS_REFUSED (61445)"
    expect_going_on_after_a_failed_call
}

expect_going_on_after_a_failed_call() {
    expect_line err "ledger: going on over a new connection"
    expect_line out "    call failed                         1"
    expect_line out "The books agree: every account moved by what was posted, the total did not."
}

LedgerStopsWhenThereIsNoNewConnection() {
    gateway --misbehave close@nth:"$(number_of_the_first_credit)" \
        --misbehave refuse-handshake=61445@connection:2
    ledger transfers.txt
    expect_code 1
    expect_line err "ledger: open: QPX_ERR_WORK_WAS_REFUSED (61445)"
    expect_line out "    not reached                       299"
}

LedgerTellsOfACommitInDoubt() {
    gateway --misbehave flow-error=61445@nth:"$(($(number_of_the_first_credit) + 1))"
    ledger transfers.txt
    expect_code 1
    expect_text err "line 6, T0000001: commit: QPX_ERR_WORK_WAS_REFUSED (61445)"
    expect_line err "ledger: going on over a new connection"
    expect_line out "  commit in doubt                       1"
}

LedgerShowsTheAbendCode() {
    gateway
    run "$LEDGER" --port "$GATEWAY_PORT" --program ABEND --total
    expect_code 1
    expect_text err "query of the total: ECI_ERR_TRANSACTION_ABEND (-7), abend code T   "
}

LedgerNamesTheErrorWithoutAGateway() {
    closed_port
    ledger --total
    expect_code 1
    expect_line err "ledger: cannot connect to a Gateway at 127.0.0.1:$GATEWAY_PORT"
    expect_line err "ledger: open: QPX_ERR_CONNECTFAILED (-118)"
}

LedgerNamesTheCodeOfARefusedHandshake() {
    gateway --misbehave refuse-handshake=61450
    ledger --total
    expect_code 1
    expect_line err "ledger: open: QPX_ERR_GATEWAY_BACK_LEVEL (61450)"
}

LedgerNamesTheErrorOfALongApplid() {
    gateway
    ledger --applid NINECHARS --total
    expect_code 1
    expect_line err "ledger: open: QPX_ERR_APPLIDTOOLONG (-139)"
}

LedgerTellsOfAMissingFile() {
    run "$LEDGER" --port 1 "$FOLDER/missing.txt"
    expect_code 1
    expect_text err "cannot open $FOLDER/missing.txt"
}

LedgerRefusesWrongArguments() {
    expect_usage "--port is missing"
    expect_usage "the file of transfers is missing" --port 5770
    expect_usage "more than one file: two" --port 5770 one two
    expect_usage "--total takes no file: one" --port 5770 --total one
    expect_usage "a port is a number from 1 to 65535, not 0" --port 0 one
    expect_usage "a port is a number from 1 to 65535, not 65536" --port 65536 one
    expect_usage "a time-out is a number of seconds from 0 to 3600, not 3601" --timeout 3601
    expect_usage "unknown or incomplete option --nonsense" --nonsense
    expect_usage "unknown or incomplete option --port" --port
}

expect_usage() {
    expect_usage_of "$LEDGER" ledger "$@"
}

expect_usage_of() {
    local program=$1 name=$2 problem=$3
    shift 3
    run "$program" "$@"
    expect_code 2
    expect_line err "$name: $problem; \"$name --help\" shows what there is"
    expect_nothing out
}

LedgerShowsHelp() {
    run "$LEDGER" --help
    expect_code 0
    expect_text out "Usage: ledger --port PORT [options] FILE"
    expect_text out "Examples:"
    expect_nothing err
}

OrdersPrintsTheInvoice() {
    gateway
    orders order.txt
    expect_code 0
    expect_nothing err
    expect_same "$HERE/invoice.txt" "$FOLDER/out"
}

OrdersPrintsTheInvoiceOfAnOrderInUtf8() {
    gateway
    orders --ccsid 1208 order-utf8.txt
    expect_code 0
    expect_nothing err
    expect_same "$HERE/invoice-utf8.txt" "$FOLDER/out"
}

# The newest first: those that the server has added, then the others, the last created first.
OrdersListsTheContainersOfTheReply() {
    gateway
    orders --verbose order-wrong.txt
    expect_code 3
    cat >"$FOLDER/expected" <<'TEXT'
The channel ORDER has come back with
  STATUS               15 bytes, characters, CCSID 819
  ERROR                46 bytes, characters, CCSID 819
  ORDER.LINES          24 bytes, binary
  ORDER.HEADER         62 bytes, characters, CCSID 819

TEXT
    expect_same "$FOLDER/expected" "$FOLDER/out"
}

OrdersTakesTheCodePageOfTheLocale() {
    gateway
    run env LANG=ru_RU "$ORDERS" --port "$GATEWAY_PORT" --verbose order.txt
    expect_code 0
    expect_line out "  ORDER.HEADER         88 bytes, characters, CCSID 915"
    expect_line out "  INVOICE            1129 bytes, characters, CCSID 915"
}

OrdersNamesWhatIsWrongWithAnOrder() {
    gateway
    orders order-wrong.txt
    expect_code 3
    expect_nothing out
    expect_line err \
        "orders: the order is refused: ORDER.LINES, line 2: article 100106 is unknown"
    : >"$FOLDER/empty.txt"
    orders "$FOLDER/empty.txt"
    expect_code 3
    expect_line err "orders: the order is refused: ORDER.HEADER: there is no order"
}

OrdersNamesACodePageThatIsNotKnown() {
    gateway
    orders --ccsid 4711 order.txt
    expect_code 3
    expect_line err "orders: the order is refused: ORDER.HEADER: CCSID 4711 is not known"
}

OrdersShowsTheAbendCode() {
    gateway
    orders --program NOSUCH order.txt
    expect_code 1
    expect_line err "orders: call: ECI_ERR_TRANSACTION_ABEND (-7)"
    expect_line err "orders: program NOSUCH ended abnormally, abend code AEI0"
}

OrdersTellsOfAnotherProgram() {
    gateway
    orders --program CHANECHO order.txt
    expect_code 1
    expect_line err "orders: the reply has neither INVOICE nor ERROR; is this the right program?"
}

OrdersNamesTheErrorOfALostConnection() {
    gateway --misbehave drop@program:ORDERS
    orders order.txt
    expect_code 1
    expect_line err "orders: call: QPX_ERR_LOSTGWCON (-102)"
    expect_text err "nothing was posted, so the order may be sent again"
    expect_nothing out
}

OrdersNamesTheErrorOfARefusedCall() {
    gateway --misbehave flow-error=61445
    orders order.txt
    expect_code 1
    expect_line err "orders: call: QPX_ERR_WORK_WAS_REFUSED (61445)"
    expect_nothing out
}

OrdersNamesTheErrorWithoutAGateway() {
    closed_port
    orders order.txt
    expect_code 1
    expect_line err "orders: cannot connect to a Gateway at 127.0.0.1:$GATEWAY_PORT"
    expect_line err "orders: open: QPX_ERR_CONNECTFAILED (-118)"
}

OrdersNamesTheErrorOfALongApplid() {
    gateway
    orders --applid NINECHARS order.txt
    expect_code 1
    expect_line err "orders: open: QPX_ERR_APPLIDTOOLONG (-139)"
}

OrdersTellsOfFilesThatItCannotRead() {
    run "$ORDERS" --port 1 "$FOLDER/missing.txt"
    expect_code 1
    expect_text err "cannot open $FOLDER/missing.txt"
    run "$ORDERS" --port 1 "$FOLDER"
    expect_code 1
    expect_line err "orders: cannot read $FOLDER"
    printf '%1023d\n' 0 >"$FOLDER/long.txt"
    run "$ORDERS" --port 1 "$FOLDER/long.txt"
    expect_code 1
    expect_line err "orders: $FOLDER/long.txt, line 1: longer than 1022 characters"
}

OrdersTellsOfAWrongItem() {
    local item

    for item in "" "100105" "100105 " "x 1" "100105 1 " "100105 1 5.001" "100105 1 5." \
        "100105 1 655.36" "100105 1 5 x" "4294967296 1" "100105 4294967296" "100105 -1"; do
        printf '# one\nitem %s\n' "$item" >"$FOLDER/order.txt"
        run "$ORDERS" --port 1 "$FOLDER/order.txt"
        expect_code 1
        expect_line err \
            "orders: $FOLDER/order.txt, line 2: not \"item ARTICLE QUANTITY [DISCOUNT]\""
    done
}

OrdersRefusesWrongArguments() {
    expect_orders_usage "--port is missing"
    expect_orders_usage "the file of the order is missing" --port 5770
    expect_orders_usage "more than one file: two" --port 5770 one two
    expect_orders_usage "a port is a number from 1 to 65535, not 0" --port 0 one
    expect_orders_usage "a port is a number from 1 to 65535, not 65536" --port 65536 one
    expect_orders_usage "a time-out is a number of seconds from 0 to 3600, not x" --timeout x
    expect_orders_usage "a CCSID is a number from 0 to 65535, not -1" --ccsid -1
    expect_orders_usage "a CCSID is a number from 0 to 65535, not 65536" --ccsid 65536
    expect_orders_usage "longer than 8 characters: NINECHARS" --port 1 --program NINECHARS one
    expect_orders_usage "longer than 8 characters: NINECHARS" --port 1 --server NINECHARS one
    expect_orders_usage "unknown or incomplete option --nonsense" --nonsense
    expect_orders_usage "unknown or incomplete option --port" --port
}

expect_orders_usage() {
    expect_usage_of "$ORDERS" orders "$@"
}

OrdersShowsHelp() {
    run "$ORDERS" --help
    expect_code 0
    expect_text out "Usage: orders --port PORT [options] FILE"
    expect_text out "Examples:"
    expect_nothing err
}

declare -F "$CASE" >/dev/null || fail "there is no such case"
"$CASE"
