#!/usr/bin/env bash
# Runs one case of the tests of the demo's programs: run.sh CASE PROGRAMS DAEMON, with the folder of
# the programs and the path of the gateway's. CMakeLists.txt names the cases; each is a function below.
set -euo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)
readonly HERE
# shellcheck source=tests/support/program_cases.sh
source "$HERE/../../tests/support/program_cases.sh"

readonly FANOUT=$PROGRAMS/fanout LEDGER=$PROGRAMS/ledger
readonly ORDERS=$PROGRAMS/orders PASSWORD=$PROGRAMS/password SYSTEMS=$PROGRAMS/systems
export LC_ALL=C # of what the programs write

# ---- Verbs ---------------------------------------------------------------------------------------

# Runs a program in the folder of the data, keeps what it writes and its exit code.
run() {
    CODE=0
    (cd "$HERE/../data" && "$@" >"$FOLDER/out" 2>"$FOLDER/err" </dev/null) || CODE=$?
}

ledger() {
    run "$LEDGER" --port "$GATEWAY_PORT" "$@"
}

fanout() {
    run "$FANOUT" --port "$GATEWAY_PORT" "$@"
}

orders() {
    run env LANG=C "$ORDERS" --port "$GATEWAY_PORT" "$@"
}

# The first argument are the passwords, one to a line.
password() {
    printf '%s\n' "$1" >"$FOLDER/passwords"
    shift
    run "$PASSWORD" --port "$GATEWAY_PORT" --passwords "$FOLDER/passwords" "$@"
}

# The same with standard output on a disk that is full.
run_on_a_full_disk() {
    # shellcheck disable=SC2016 # for the inner shell
    run bash -c 'exec "$@" >/dev/full' - "$@"
}

# That the program takes these arguments for wrong.
expect_usage_of() {
    local program=$1 problem=$2 name=${1##*/}
    shift 2
    run "$program" "$@"
    expect_code 2
    expect_line err "$name: $problem; \"$name --help\" shows what there is"
    expect_nothing out
}

# That a program which has done all its work fails because nobody will ever read what it writes.
expect_failure_on_a_full_disk() {
    run_on_a_full_disk "$@"
    expect_code 1
    expect_line err "${1##*/}: cannot write to standard output"
    run_on_a_full_disk "$1" --help
    expect_code 1
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
    expect_usage_of "$LEDGER" "$@"
}

LedgerFailsOnAFullDisk() {
    gateway
    expect_failure_on_a_full_disk "$LEDGER" --port "$GATEWAY_PORT" transfers.txt
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
    expect_usage_of "$ORDERS" "$@"
}

OrdersFailsOnAFullDisk() {
    gateway
    expect_failure_on_a_full_disk "$ORDERS" --port "$GATEWAY_PORT" --ccsid 819 order.txt
}

OrdersRefusesANulInItsFile() {
    gateway
    printf 'order=1\nitem 1001 2\0 3\n' >"$FOLDER/order.txt"
    orders "$FOLDER/order.txt"
    expect_code 1
    expect_line err "orders: $FOLDER/order.txt, line 2: holds a NUL, so this is no text"
    printf 'order=1\0\n' >"$FOLDER/order.txt"
    orders "$FOLDER/order.txt"
    expect_code 1
    expect_line err "orders: $FOLDER/order.txt, line 1: holds a NUL, so this is no text"
    expect_no_text gateway.log "request"
}

OrdersTakesAFileWithLinesThatEndInCrLf() {
    gateway
    sed 's/$/\r/' "$HERE/../data/order.txt" >"$FOLDER/order.txt"
    orders --ccsid 819 order.txt
    expect_code 0
    cp "$FOLDER/out" "$FOLDER/invoice.txt"
    orders --ccsid 819 "$FOLDER/order.txt"
    expect_code 0
    expect_same "$FOLDER/invoice.txt" "$FOLDER/out"
}

OrdersShowsHelp() {
    run "$ORDERS" --help
    expect_code 0
    expect_text out "Usage: orders --port PORT [options] FILE"
    expect_text out "Examples:"
    expect_nothing err
}

PasswordVerifiesAndTellsOfTheUser() {
    gateway_with_registry
    password Paper4boat verify ANNA
    expect_code 0
    expect_nothing err
    expect_line out "The password of ANNA is right."
    expect_line out "  last verified    Fri 30 Jan 2026 17:02:11"
    expect_line out "  last accessed    Fri 30 Jan 2026 17:02:12"
    expect_line out "  wrong attempts   1"
}

PasswordReadsStandardInput() {
    gateway_with_registry
    printf 'Blue7sky\n' >"$FOLDER/passwords"
    # shellcheck disable=SC2016 # for the inner shell
    run bash -c 'exec "$1" --port "$2" verify FRED <"$3"' - "$PASSWORD" "$GATEWAY_PORT" "$FOLDER/passwords"
    expect_code 0
    expect_line out "The password of FRED is right."
    expect_line out "  last verified    never"
}

PasswordChangesIt() {
    gateway_with_registry
    password $'Winter5\nSpring6' change OLGA
    expect_code 0
    expect_line out "The password of OLGA is changed."
    password Spring6 verify OLGA
    expect_code 0
    password Winter5 verify OLGA
    expect_code 3
}

PasswordAsksTheServerThatIsNamed() {
    gateway_with_registry
    password Blue7sky --server VORNB verify FRED
    expect_code 0
    expect_text gateway.log 'ESI verify user="FRED" server="VORNB"'
}

PasswordTellsOfARefusal() {
    gateway_with_registry
    expect_refusal "ESI_ERR_USERID_INVALID (-300): the server does not know this user" Blue7sky NOBODY
    expect_refusal "ESI_ERR_PASSWORD_INVALID (-302): the password is wrong; too many wrong ones revoke the user" x FRED
    expect_refusal "ESI_ERR_PASSWORD_EXPIRED (-306): the password is right, but has expired: change it" Winter5 OLGA
    expect_refusal "ESI_ERR_SECURITY_ERROR (-307): the server refuses this user, who may be revoked" Copper2pan RALF
    password $'Blue7sky\nNodigits' change FRED
    expect_code 3
    expect_line err "password: change: ESI_ERR_PASSWORD_REJECTED (-315): the server does not take this new password; the old one stays"
    expect_nothing out
}

expect_refusal() {
    password "$2" verify "$3"
    expect_code 3
    expect_line err "password: verify: $1"
    expect_nothing out
}

PasswordTellsOfAServerThatDoesNotWork() {
    gateway_with_registry
    expect_failure "ESI_ERR_NO_VORN (-310): the server is not available" VORNTEST
    expect_failure "ESI_ERR_PEM_NOT_SUPPORTED (-304): this server has no password management" VORNOLD
    expect_failure "ESI_ERR_UNKNOWN_SERVER (-312): the Gateway knows no such server" NOWHERE
}

expect_failure() {
    password Blue7sky --server "$2" verify FRED
    expect_code 1
    expect_line err "password: verify: $1"
    expect_nothing out
}

PasswordTellsOfPasswordsThatAreMissing() {
    gateway_with_registry
    password Blue7sky change FRED
    expect_code 1
    expect_line err "password: the new password is missing"
    password $'\nGreen8sea' change FRED
    expect_code 1
    expect_line err "password: the current password is empty"
    password "$(printf '%0600d' 0)" verify FRED
    expect_code 1
    expect_line err "password: the current password is too long"
    run "$PASSWORD" --port "$GATEWAY_PORT" --passwords "$FOLDER/missing.txt" verify FRED
    expect_code 1
    expect_text err "cannot open $FOLDER/missing.txt"
    expect_no_text gateway.log "request"
}

PasswordIsNeverShown() {
    local file

    gateway --registry "$REGISTRY" --log-level debug
    export QPX_CLIENT_TRACE_LEVEL=5 QPX_CLIENT_TRACE_FILE=$FOLDER/trace
    password $'Blue7sky\nGreen8sea' change FRED
    expect_code 0
    expect_text trace "QPX_ESI_changePassword"
    for file in out err gateway.log trace; do
        expect_no_text "$file" Blue7sky
        expect_no_text "$file" Green8sea
    done
}

PasswordNamesTheErrorWithoutAGateway() {
    closed_port
    password Blue7sky verify FRED
    expect_code 1
    expect_line err "password: open: QPX_ERR_CONNECTFAILED (-118)"
}

PasswordRefusesWrongArguments() {
    expect_usage_of "$PASSWORD" "--port is missing" verify FRED
    expect_usage_of "$PASSWORD" "the user is missing" --port 5770 verify
    expect_usage_of "$PASSWORD" "an argument too many" --port 5770 verify FRED Blue7sky
    expect_usage_of "$PASSWORD" "neither verify nor change: look" --port 5770 look FRED
    expect_usage_of "$PASSWORD" "longer than 10 characters: ELEVENLONG1" --port 5770 verify ELEVENLONG1
    expect_usage_of "$PASSWORD" "longer than 8 characters: NINELONG1" --port 5770 --server NINELONG1 verify FRED
    expect_usage_of "$PASSWORD" "unknown or incomplete option --nonsense" --nonsense
}

PasswordFailsOnAFullDisk() {
    gateway_with_registry
    printf 'Blue7sky\n' >"$FOLDER/passwords"
    expect_failure_on_a_full_disk "$PASSWORD" --port "$GATEWAY_PORT" \
        --passwords "$FOLDER/passwords" verify FRED
}

PasswordTakesAFileWithLinesThatEndInCrLf() {
    gateway_with_registry
    password $'Winter5\r\nSpring6\r' change OLGA
    expect_code 0
    password Spring6 verify OLGA
    expect_code 0
    expect_line out "  wrong attempts   0"
}

PasswordRefusesANul() {
    gateway_with_registry
    printf 'Blue7sky\0green\n' >"$FOLDER/passwords"
    run "$PASSWORD" --port "$GATEWAY_PORT" --passwords "$FOLDER/passwords" verify FRED
    expect_code 1
    expect_line err "password: the current password holds a NUL"
    expect_no_text gateway.log "request"
}

# Runs the program at a terminal, waits for its question, and types.
type_at_a_terminal() {
    local typed=$1 command question
    shift
    local keyboard screen

    printf -v command '%q ' "$@"
    mkfifo "$FOLDER/keyboard" "$FOLDER/screen"
    exec {keyboard}<>"$FOLDER/keyboard" {screen}<>"$FOLDER/screen"
    # A shell starts what is to run beside it with Ctrl-C ignored.
    env --default-signal=INT script --quiet --return --command "exec $command" /dev/null \
        <"$FOLDER/keyboard" >"$FOLDER/screen" 2>&1 &
    IFS= read -r -d : -u "$screen" question
    [[ $question == "Password (the current)" ]] || fail "asks: $question"
    # shellcheck disable=SC2059 # what is typed is a format
    printf "$typed" >&"$keyboard"
    CODE=0
    wait $! || CODE=$?
    exec {keyboard}>&- {screen}>&-
}

PasswordAsksAtATerminal() {
    gateway_with_registry
    type_at_a_terminal 'Blue7sky\n' "$PASSWORD" --port "$GATEWAY_PORT" verify FRED
    expect_code 0
}

PasswordIsInterruptedAtATerminal() {
    gateway_with_registry
    type_at_a_terminal '\003\n' "$PASSWORD" --port "$GATEWAY_PORT" verify FRED
    expect_code 130
    expect_no_text gateway.log "request"
}

PasswordLeavesATerminalThatShowsWhatIsTyped() {
    gateway_with_registry
    # shellcheck disable=SC2016 # for the inner shell
    type_at_a_terminal '\003' bash -c 'trap : INT; "${@:2}"; stty -a >"$1"' - "$FOLDER/stty" \
        "$PASSWORD" --port "$GATEWAY_PORT" verify FRED
    expect_text stty " echo "
}

PasswordShowsHelp() {
    run "$PASSWORD" --help
    expect_code 0
    expect_text out "Usage: password --port PORT [options] verify USER"
    expect_nothing err
}

SystemsListsThemAll() {
    gateway_with_registry
    run "$SYSTEMS" --port "$GATEWAY_PORT"
    expect_code 0
    expect_nothing err
    expect_all_systems
}

expect_all_systems() {
    cat >"$FOLDER/systems.txt" <<'TEXT'
VORNA     Accounts, head office
VORNB     Accounts, branch offices
VORNOLD   Accounts before the merger, read only
VORNTEST  Tests, at office hours
TEXT
    expect_same "$FOLDER/systems.txt" "$FOLDER/out"
}

SystemsMakesRoomUntilAllFit() {
    gateway_with_registry
    run "$SYSTEMS" --port "$GATEWAY_PORT" --room 1
    expect_code 0
    expect_all_systems
    expect_text gateway.log "ECI system list for 1"
    expect_text gateway.log "ECI system list for 2"
    expect_text gateway.log "ECI system list for 4"
}

SystemsSaysWhenThereIsNone() {
    gateway
    run "$SYSTEMS" --port "$GATEWAY_PORT"
    expect_code 0
    expect_line out "The Gateway knows no server."
}

SystemsNamesTheErrorOfAFailedCall() {
    gateway --misbehave flow-error=61445
    run "$SYSTEMS" --port "$GATEWAY_PORT"
    expect_code 1
    expect_line err "systems: list: QPX_ERR_WORK_WAS_REFUSED (61445)"
    expect_nothing out
}

SystemsNamesTheErrorWithoutAGateway() {
    closed_port
    run "$SYSTEMS" --port "$GATEWAY_PORT"
    expect_code 1
    expect_line err "systems: open: QPX_ERR_CONNECTFAILED (-118)"
}

SystemsRefusesWrongArguments() {
    expect_usage_of "$SYSTEMS" "--port is missing"
    expect_usage_of "$SYSTEMS" "room is a number from 1 to 65535, not 0" --port 5770 --room 0
    expect_usage_of "$SYSTEMS" "an argument too many: all" --port 5770 all
    expect_usage_of "$SYSTEMS" "unknown or incomplete option --nonsense" --nonsense
}

SystemsFailsOnAFullDisk() {
    gateway
    expect_failure_on_a_full_disk "$SYSTEMS" --port "$GATEWAY_PORT"
}

SystemsShowsHelp() {
    run "$SYSTEMS" --help
    expect_code 0
    expect_text out "Usage: systems --port PORT [options]"
    expect_nothing err
}

FanoutCollectsEveryReply() {
    gateway
    fanout --count 100
    expect_code 0
    expect_nothing err
    expect_line out "Sending 100 requests to ECHO at 127.0.0.1:$GATEWAY_PORT"
    expect_line out "  answered                            100"
    expect_text out "Latency   min "
}

FanoutSendsTheLinesOfAFile() {
    gateway
    printf 'one\n\ntwo words\n%s\nno line end' "$(printf '%032767d' 1)" >"$FOLDER/lines.txt"
    fanout "$FOLDER/lines.txt"
    expect_code 0
    expect_line out "  answered                              4"
    expect_text gateway.log "commarea=9/9"
    expect_text gateway.log "commarea=32767/32767"
}

FanoutTellsHowRepliesOvertakeEachOther() {
    gateway --misbehave reverse=10
    fanout --verbose --count 10
    expect_code 0
    expect_line out "  reply      1: request     10, answered"
    expect_line out "  reply      9: request      2, answered"
    expect_line out "  reply     10: request      1, answered"
    expect_line out "Order     9 of 10 replies came behind that of a later request"
}

FanoutFindsRepliesInTheOrderOfTheirRequests() {
    gateway
    fanout --at-once 1 --count 5
    expect_code 0
    expect_line out "Order     0 of 5 replies came behind that of a later request"
}

# A message id serves again when its reply is collected.
FanoutHasNoMoreRequestsOutThanItMay() {
    gateway
    fanout --at-once 4 --count 20
    expect_code 0
    expect_text gateway.log "request 4 ECI"
    ! grep -q "request 5 ECI" "$FOLDER/gateway.log" || fail "a fifth request at once"
}

FanoutCountsAlong() {
    gateway
    fanout --progress --count 20
    expect_code 0
    expect_text err "20 sent, 10 of 20 collected"
    expect_text err "20 sent, 20 of 20 collected"
    [[ $(grep -o "20 of 20" "$FOLDER/err" | wc -l) == 1 ]] || fail "the end is counted twice"
}

# LEDGER takes the reference of a transfer, which begins with T, for a query of the total.
FanoutNoticesAReplyThatIsNotWhatWasSent() {
    gateway
    head -n 6 "$HERE/../data/transfers.txt" | tail -n 1 >"$FOLDER/lines.txt"
    fanout --program LEDGER "$FOLDER/lines.txt"
    expect_code 3
    expect_line err "fanout: request 1: the reply is not what was sent"
    expect_line out "  answered with something else          1"
}

FanoutNamesTheCodeOfAReply() {
    gateway --misbehave flow-error=61445@nth:3
    fanout --count 10
    expect_code 1
    expect_line err "fanout: request 3: reply: QPX_ERR_WORK_WAS_REFUSED (61445)"
    expect_line out "  answered                              9"
    expect_line out "  failed                                1"
}

FanoutShowsTheAbendCode() {
    gateway
    fanout --program ABEND --count 1
    expect_code 1
    expect_line err "fanout: request 1: reply: ECI_ERR_TRANSACTION_ABEND (-7), abend code Requ"
}

FanoutStopsSendingWhenTheConnectionIsLost() {
    gateway --misbehave drop@nth:5
    fanout --at-once 1 --count 10
    expect_code 1
    expect_line err "fanout: request 5: reply: QPX_ERR_LOSTGWCON (-102)"
    expect_line err "fanout: request 6: send: QPX_ERR_LOSTGWCON (-102)"
    expect_line out "  not sent                              4"
    expect_line out "  answered                              4"
    expect_line out "  failed                                2"
}

FanoutNamesTheErrorWithoutAGateway() {
    closed_port
    fanout --count 1
    expect_code 1
    expect_line err "fanout: cannot connect to a Gateway at 127.0.0.1:$GATEWAY_PORT"
    expect_line err "fanout: open: QPX_ERR_CONNECTFAILED (-118)"
}

FanoutTellsOfAFileThatIsNoUse() {
    run "$FANOUT" --port 1 "$FOLDER/missing.txt"
    expect_code 1
    expect_text err "cannot open $FOLDER/missing.txt"

    printf '\n\n' >"$FOLDER/empty.txt"
    run "$FANOUT" --port 1 "$FOLDER/empty.txt"
    expect_code 1
    expect_line err "fanout: $FOLDER/empty.txt has no requests"

    printf 'one\n%032768d\n' 1 >"$FOLDER/long.txt"
    run "$FANOUT" --port 1 "$FOLDER/long.txt"
    expect_code 1
    expect_line err "fanout: $FOLDER/long.txt, line 2 is longer than 32767 bytes"
}

FanoutRefusesWrongArguments() {
    expect_usage_of "$FANOUT" "--port is missing" --count 1
    expect_usage_of "$FANOUT" "a file or --count is missing" --port 5770
    expect_usage_of "$FANOUT" "more than one file: two" --port 5770 one two
    expect_usage_of "$FANOUT" "--count takes no file: one" --port 5770 --count 1 one
    expect_usage_of "$FANOUT" "a port is a number from 1 to 65535, not 0" --port 0 one
    expect_usage_of "$FANOUT" "a count is a number from 1 to 10000, not 0" --count 0
    expect_usage_of "$FANOUT" "a count is a number from 1 to 10000, not 10001" --count 10001
    expect_usage_of "$FANOUT" "--at-once takes a number from 1 to 10000, not x" --at-once x
    expect_usage_of "$FANOUT" "a time-out is a number of seconds from 0 to 3600, not 3601" --timeout 3601
    expect_usage_of "$FANOUT" "longer than 8 characters: NINECHARS" --port 1 --count 1 --program NINECHARS
    expect_usage_of "$FANOUT" "unknown or incomplete option --nonsense" --nonsense
    expect_usage_of "$FANOUT" "unknown or incomplete option --port" --port
}

FanoutFailsOnAFullDisk() {
    gateway
    expect_failure_on_a_full_disk "$FANOUT" --port "$GATEWAY_PORT" --count 3
}

FanoutShowsHelp() {
    run "$FANOUT" --help
    expect_code 0
    expect_text out "Usage: fanout --port PORT [options] FILE"
    expect_text out "Examples:"
    expect_nothing err
}

run_all_programs() {
    local with=$1
    ledger transfers.txt
    "$with" ledger
    orders order.txt
    "$with" orders
    password Paper4boat verify ANNA
    "$with" password
    run "$SYSTEMS" --port "$GATEWAY_PORT"
    "$with" systems
    fanout --count 100
    expect_code 0
    expect_line out "  answered                            100"
}

# What each writes in front of a Gateway it writes again when its recording answers. The times that
# fanout tells differ.
ProgramsAreAnsweredFromTheirRecording() {
    gateway_with_registry
    record_gateway
    run_all_programs keep_what_it_wrote
    stop_recording
    replay_gateway
    run_all_programs expect_what_it_wrote
    expect_all_replayed
}

# Without the place of the gateway, which is another one each time.
without_its_place() {
    sed "s/:$GATEWAY_PORT\\b/:PORT/g" "$FOLDER/out"
}

keep_what_it_wrote() {
    without_its_place >"$FOLDER/recorded.$1"
    [[ -s $FOLDER/recorded.$1 ]] || fail "$1 has written nothing"
    printf '%s\n' "$CODE" >>"$FOLDER/recorded.$1"
}

expect_what_it_wrote() {
    without_its_place >"$FOLDER/replayed"
    printf '%s\n' "$CODE" >>"$FOLDER/replayed"
    expect_same "$FOLDER/recorded.$1" "$FOLDER/replayed"
}

ProgramsCallForTheUserThatIsNamed() {
    gateway
    ledger --user FRED --total
    expect_code 0
    expect_text gateway.log 'ECI program="LEDGER" mode=0 token=0 user="FRED"'
    fanout --user FRED --count 1
    expect_code 0
    expect_text gateway.log 'ECI program="ECHO" mode=0 token=0 user="FRED"'
    orders --user FRED order.txt
    expect_code 0
    expect_text gateway.log 'ECI program="ORDERS" mode=0 token=0 user="FRED"'
}

run_case
