#!/usr/bin/env bash
# Runs one case of the examples' tests: run.sh CASE PROGRAMS DAEMON, with the folder of the programs
# and the path of the gateway's. CMakeLists.txt names the cases; each is a function below.
set -euo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)
readonly HERE
# shellcheck source=tests/support/program_cases.sh
source "$HERE/../../tests/support/program_cases.sh"

readonly HOST=127.0.0.1

# ---- Verbs ---------------------------------------------------------------------------------------

# Runs an example with the passwords on its standard input, keeps what it writes and its exit code.
run() {
    local program=$1
    shift
    CODE=0
    printf '%b' "${PASSWORDS:-}" >"$FOLDER/passwords"
    "$PROGRAMS/$program" "$@" >"${OUT:-$FOLDER/out}" 2>"$FOLDER/err" <"$FOLDER/passwords" || CODE=$?
}

# Each example with what it takes, but for the Gateway.
run_each() {
    local with=$1

    for each in echo unit_of_work asynchronous channel "change_password FRED" \
        "trace $FOLDER/trace" cplusplus; do
        # shellcheck disable=SC2086 # a program and its arguments
        PASSWORDS='Blue7sky\n' run $each "$HOST" "$GATEWAY_PORT"
        "$with" "${each%% *}"
    done
}

# ---- Cases ---------------------------------------------------------------------------------------

EchoAnswersWhatItWasSent() {
    gateway
    run echo "$HOST" "$GATEWAY_PORT"
    expect_code 0
    expect_line out "Hello, Gateway!"
}

UnitOfWorkPostsBothSides() {
    gateway
    run unit_of_work "$HOST" "$GATEWAY_PORT" 250
    expect_code 0
    expect_line out "posted"
    expect_text gateway.log 'D account="ACC00001" amount=2.50 result=00 balance=12497.50'
    expect_text gateway.log 'C account="ACC00002" amount=2.50 result=00 balance=3187.25'
    expect_text gateway.log 'unit of work 1 is committed'
}

UnitOfWorkBacksOutWhatIsRefused() {
    gateway
    run unit_of_work "$HOST" "$GATEWAY_PORT" 999999999
    expect_code 0
    expect_line out "refused, and nothing has moved"
    expect_text gateway.log 'unit of work 1 is backed out'
}

UnitOfWorkPostsNothingWhenACallFails() {
    gateway --misbehave flow-error=61445@nth:2
    run unit_of_work "$HOST" "$GATEWAY_PORT"
    expect_code 1
    expect_line err "post: QPX_ERR_WORK_WAS_REFUSED (61445)"
    [[ $(wc -l <"$FOLDER/err") == 1 ]] || fail "more than that"
    expect_text gateway.log 'unit of work 1 is backed out'
}

AsynchronousCollectsEveryReplyWithItsRequest() {
    gateway --misbehave reverse=5@program:ECHO
    run asynchronous "$HOST" "$GATEWAY_PORT"
    expect_code 0
    printf 'reply to request %d: request %d\n' 5 5 4 4 3 3 2 2 1 1 | diff - "$FOLDER/out" >&2 ||
        fail "other replies"
}

ChannelComesBackWithItsContainers() {
    gateway
    run channel "$HOST" "$GATEWAY_PORT"
    expect_code 0
    printf '%s\n' "NUMBERS: binary, 3 bytes, 3 read" "GREETING: characters, 9 bytes, 9 read" |
        diff - "$FOLDER/out" >&2 || fail "other containers"
    expect_text gateway.log 'channel="GREETINGS" containers=2'
}

PasswordIsVerified() {
    gateway_with_registry
    PASSWORDS='Blue7sky\n' run change_password FRED "$HOST" "$GATEWAY_PORT"
    expect_code 0
    expect_text out "wrong attempts 0"
    PASSWORDS='wrong\n' run change_password FRED "$HOST" "$GATEWAY_PORT"
    expect_code 1
    expect_line err "verify: ESI_ERR_PASSWORD_INVALID (-302)"
}

PasswordIsChanged() {
    gateway_with_registry
    PASSWORDS='Winter5\nSpring6\n' run change_password OLGA "$HOST" "$GATEWAY_PORT"
    expect_code 0
    PASSWORDS='Spring6\n' run change_password OLGA "$HOST" "$GATEWAY_PORT"
    expect_code 0
}

PasswordIsReadWithoutTheCrOfACrLf() {
    gateway_with_registry
    PASSWORDS='Blue7sky\r\n' run change_password FRED "$HOST" "$GATEWAY_PORT"
    expect_code 0
}

TraceShowsTheOneCall() {
    gateway_with_registry
    run trace "$FOLDER/trace" "$HOST" "$GATEWAY_PORT"
    expect_code 0
    [[ -s $FOLDER/out ]] || fail "no servers"
    expect_text trace "[1028] EXIT   API.QPX_listSystems() rc=0 (QPX_OK)"
    ! grep -q QPX_closeGatewayConnection "$FOLDER/trace" || fail "the close is in the trace"
}

CplusplusCallsPostsAndCollects() {
    gateway
    run cplusplus "$HOST" "$GATEWAY_PORT"
    expect_code 0
    printf '%s\n' "Hello, Gateway!" posted one two three | diff - "$FOLDER/out" >&2 ||
        fail "other lines"
    expect_text gateway.log 'C account="ACC00002" amount=2.50 result=00 balance=3187.25'
    expect_text gateway.log 'unit of work 1 is committed'
}

CplusplusPostsNothingWhenACallFails() {
    gateway --misbehave flow-error=61445@nth:3
    run cplusplus "$HOST" "$GATEWAY_PORT"
    expect_code 1
    expect_line err "QPX_ECI_Execute: QPX_ERR_WORK_WAS_REFUSED (61445)"
    expect_text gateway.log 'unit of work 1 is backed out'
}

EachNamesTheErrorWithoutAGateway() {
    closed_port
    run_each expect_no_connection
}

expect_no_connection() {
    expect_code 1
    expect_text err QPX_ERR_CONNECTFAILED
}

EachFailsOnAFullDisk() {
    gateway_with_registry
    OUT=/dev/full run_each expect_full_disk
}

expect_full_disk() {
    [[ $CODE == 1 ]] || fail "$1: exit code $CODE, not 1"
    expect_line err "cannot write to standard output"
}

EachIsShort() {
    for file in "$HERE"/../*.{c,cpp}; do
        (($(wc -l <"$file") <= 120)) || fail "$file has more than 120 lines"
    done
    (($(wc -l <"$HERE/../cplusplus.cpp") <= 60)) || fail "that in C++ has more than 60 lines"
}

run_case
