#!/usr/bin/env bash
# Runs one case of the tests of COBOL: run.sh CASE LIBRARY DAEMON, with the folder of the library and
# the path of the gateway's daemon. CMakeLists.txt names the cases; each is a function below.
set -euo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)
readonly HERE
# shellcheck source=tests/support/program_cases.sh
source "$HERE/../support/program_cases.sh"

readonly ROOT=$HERE/../..
readonly HOST=127.0.0.1

# ---- Verbs ---------------------------------------------------------------------------------------

compile() {
    cobc -x -Wall -Werror -I "$ROOT/cobol" -o "$FOLDER/$1" "$2" -L "$PROGRAMS" -lqpxclient \
        >"$FOLDER/out" 2>"$FOLDER/err" || fail "$2 does not compile"
}

run() {
    CODE=0
    LD_LIBRARY_PATH=$PROGRAMS "$FOLDER/$1" "${@:2}" >"$FOLDER/out" 2>"$FOLDER/err" </dev/null ||
        CODE=$?
}

run_echo() {
    compile cobol_echo "$ROOT/examples/cobol_echo.cob"
    run cobol_echo "$HOST" "$GATEWAY_PORT"
}

# ---- Cases ---------------------------------------------------------------------------------------

EchoAnswersWhatItWasSent() {
    gateway
    run_echo
    expect_code 0
    expect_line out "Hello, Gateway!"
    expect_text gateway.log 'program="ECHO"'
    expect_text gateway.log 'close flow'
}

EchoNamesTheErrorWithoutAGateway() {
    closed_port
    run_echo
    expect_code 1
    expect_line err "open: QPX_ERR_CONNECTFAILED (-118)"
}

EchoNamesTheErrorOfACallThatFails() {
    gateway --misbehave flow-error=61445
    run_echo
    expect_code 1
    expect_line err "call: QPX_ERR_WORK_WAS_REFUSED (61445)"
}

TransferPostsBothSides() {
    gateway
    compile cobol_transfer "$ROOT/examples/cobol_transfer.cob"
    run cobol_transfer "$GATEWAY_PORT"
    expect_code 0
    expect_line out "posted"
    expect_text gateway.log 'D account="ACC00001" amount=2.50 result=00'
    expect_text gateway.log 'C account="ACC00002" amount=2.50 result=00'
    expect_text gateway.log 'unit of work 1 is committed'
}

TransferBacksOutWhatIsRefused() {
    printf '%s\n' '[[on]]' 'program = "LEDGER"' 'commarea = { text = "C" }' \
        'answer.put = { at = 1, text = "02" }' >"$FOLDER/script.toml"
    gateway --script "$FOLDER/script.toml"
    compile cobol_transfer "$ROOT/examples/cobol_transfer.cob"
    run cobol_transfer "$GATEWAY_PORT"
    expect_code 0
    expect_line out "refused"
    expect_text gateway.log 'unit of work 1 is backed out'
}

TransferNamesTheErrorOfACallThatFails() {
    gateway --misbehave flow-error=61445@nth:2
    compile cobol_transfer "$ROOT/examples/cobol_transfer.cob"
    run cobol_transfer "$GATEWAY_PORT"
    expect_code 1
    expect_line err "QPX_ERR_WORK_WAS_REFUSED"
    expect_text gateway.log 'unit of work 1 is backed out'
}

EveryItemOfTheCopybookHasTheLengthOfItsField() {
    "$ROOT/tools/records" --lengths >"$FOLDER/lengths.cob"
    compile lengths "$FOLDER/lengths.cob"
    run lengths
    expect_code 0
    sed -n 's/^      \*= //p' "$FOLDER/lengths.cob" >"$FOLDER/expected"
    [[ -s $FOLDER/expected ]] || fail "nothing is expected"
    sed 's/ 0*/ /' "$FOLDER/out" >"$FOLDER/lengths.out"
    expect_same "$FOLDER/expected" "$FOLDER/lengths.out"
}

NoLineOfTheCopybookIsTooLongForFixedFormat() {
    ! grep -nE '^.{73,}' "$ROOT/cobol/qpxclient.cpy" >&2 || fail "a line has more than 72 columns"
}

run_case
