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

# Runs examples, each with what it takes but for the Gateway, and a function behind each.
run_these() {
    local with=$1 each
    shift

    for each in "$@"; do
        # shellcheck disable=SC2086 # a program and its arguments
        PASSWORDS='Blue7sky\n' run $each "$HOST" "$GATEWAY_PORT"
        "$with" "${each%% *}"
    done
}

# Those whose calls are the same in every run.
run_steady_ones() {
    run_these "$1" echo unit_of_work asynchronous channel "change_password FRED" \
        "trace $FOLDER/trace" code_pages cplusplus_channel
}

run_each() {
    run_steady_ones "$1"
    run_these "$1" connection_pool cplusplus deadline fork in_doubt many_connections qualifiers \
        reconnect retry signals time_out window workers
}

# A gateway whose script has one [[on]], of these lines.
gateway_with_script() {
    printf '%s\n' '[[on]]' "$@" >"$FOLDER/script.toml"
    gateway --script "$FOLDER/script.toml"
}

expect_lines() {
    [[ $(wc -l <"$FOLDER/$1") == "$2" ]] || fail "not $2 lines in $1"
}

connections() {
    grep -c ': accepted from ' "$FOLDER/gateway.log"
}

expect_connections() {
    [[ $(connections) == "$1" ]] || fail "$(connections) connections, not $1"
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

CplusplusChannelIsPriced() {
    gateway
    run cplusplus_channel "$HOST" "$GATEWAY_PORT"
    expect_code 0
    expect_line out "ORDER.LINES, bytes, 24"
    expect_line out "Invoice for order 4711"
}

CplusplusChannelTellsWhatIsWrongWithIt() {
    gateway_with_script 'program = "ORDERS"' 'answer = { containers = { ERROR = "no bread today" } }'
    run cplusplus_channel "$HOST" "$GATEWAY_PORT"
    expect_code 1
    expect_line err "no bread today"
}

ReconnectGoesOnBehindALostConnection() {
    gateway --misbehave drop@nth:2
    run reconnect "$HOST" "$GATEWAY_PORT"
    expect_code 0
    printf '%s\n' first second third | diff - "$FOLDER/out" >&2 || fail "other calls"
    expect_lines err 1
    expect_line err "second: QPX_ERR_LOSTGWCON (-102)"
    expect_connections 2
}

ReconnectComesBackWhenTheGatewayDoes() {
    gateway --misbehave drop-at-handshake@times:2
    run reconnect "$HOST" "$GATEWAY_PORT"
    expect_code 0
    expect_lines out 3
    expect_lines err 2
    expect_text err "open: "
    expect_connections 3
}

ReconnectGivesUpInTheEnd() {
    closed_port
    run reconnect "$HOST" "$GATEWAY_PORT"
    expect_code 1
    expect_lines err 4
}

# Answers come in groups of four, the last one first: one for each of the threads.
WorkersGetTheirOwnReplies() {
    gateway --misbehave reverse=4@program:ECHO
    run workers "$HOST" "$GATEWAY_PORT"
    expect_code 0
    expect_line out "100 of 100 calls, each with its own reply"
    expect_connections 1
}

WorkersStopWhenACallFails() {
    gateway --misbehave flow-error=61445@skip:49
    run workers "$HOST" "$GATEWAY_PORT"
    expect_code 1
    expect_line out "49 of 100 calls, each with its own reply"
    expect_text err "QPX_ERR_WORK_WAS_REFUSED (61445)"
    (($(wc -l <"$FOLDER/err") <= 4)) || fail "a thread has gone on behind its failure"
}

ConnectionPoolHasNoMoreThanItsConnections() {
    gateway
    run connection_pool "$HOST" "$GATEWAY_PORT"
    expect_code 0
    expect_line out "6 of 6 calls"
    (($(connections) <= 2)) || fail "$(connections) connections"
}

ConnectionPoolGoesOnBehindALostConnection() {
    gateway --misbehave drop@times:2
    run connection_pool "$HOST" "$GATEWAY_PORT"
    expect_code 1
    expect_line out "4 of 6 calls"
    expect_lines err 2
    expect_line err "QPX_ECI_Execute: QPX_ERR_LOSTGWCON (-102)"
}

QualifiersCollectInTheOrderOfTheProgram() {
    gateway --misbehave reverse=3@program:ECHO
    run qualifiers "$HOST" "$GATEWAY_PORT"
    expect_code 0
    printf 'request %d\n' 1 2 3 | diff - "$FOLDER/out" >&2 || fail "another order"
}

QualifiersCollectTheOthersWhenOneFails() {
    gateway --misbehave flow-error=61445@nth:2
    run qualifiers "$HOST" "$GATEWAY_PORT"
    expect_code 1
    printf 'request %d\n' 1 3 | diff - "$FOLDER/out" >&2 || fail "other replies"
    expect_line err "collect: QPX_ERR_WORK_WAS_REFUSED (61445)"
}

# The gateway answers none before it has 64 of them, and goes on so.
WindowHasSoManyOnTheirWay() {
    gateway --log-level warning --misbehave reverse=64@times:960
    run window "$HOST" "$GATEWAY_PORT"
    expect_code 0
    expect_line out "1000 calls, at most 64 at a time"
}

WindowGivesUpWhenACallFails() {
    gateway --misbehave flow-error=61445@nth:100
    run window "$HOST" "$GATEWAY_PORT"
    expect_code 1
    expect_lines err 1
    expect_line err "collect: QPX_ERR_WORK_WAS_REFUSED (61445)"
    expect_line out "99 calls, at most 64 at a time"
}

# No program of the gateway takes longer than it may: the codes are those of a script.
TimeOutTellsThatItWasBegun() {
    gateway_with_script 'program = "ECHO"' 'answer = { code = -6 }'
    run time_out "$HOST" "$GATEWAY_PORT"
    expect_code 1
    expect_line out "It was begun: ask what was done before trying again."
}

TimeOutTellsThatNothingWasDone() {
    gateway_with_script 'program = "ECHO"' 'answer = { code = -5 }'
    run time_out "$HOST" "$GATEWAY_PORT"
    expect_code 1
    expect_line out "Nothing was done: try again."
}

# A limit below zero is refused by the library, so that no call goes out.
TimeOutIsGivenToTheCall() {
    gateway
    run time_out "$HOST" "$GATEWAY_PORT" -1
    expect_code 1
    expect_line out "Nothing was done: try again."
    expect_no_text gateway.log 'program="ECHO"'
}

DeadlineEndsACallThatIsNeverAnswered() {
    gateway --misbehave no-answer
    run deadline "$HOST" "$GATEWAY_PORT" 2
    expect_code 1
    expect_line err "call: QPX_ERR_GWTOK_CLOSED (-140)"
    expect_text gateway.log "close flow"
}

DeadlineLetsAnAnswerBe() {
    gateway
    run deadline "$HOST" "$GATEWAY_PORT" 3000
    expect_code 0
    expect_line out "Hello, Gateway!"
    expect_text gateway.log "close flow"
}

# Of the answer to the commit 10 bytes arrive, and the connection ends.
InDoubtFindsWhatWasCommitted() {
    gateway --misbehave truncate=10@program:LEDGER,nth:2
    run in_doubt "$HOST" "$GATEWAY_PORT"
    expect_code 0
    expect_line err "commit: QPX_ERR_LOSTGWCON (-102)"
    expect_line out "posted"
    expect_text gateway.log "unit of work 1 is committed"
    expect_connections 2
}

InDoubtFindsWhatWasNotCommitted() {
    gateway --misbehave drop@program:LEDGER,nth:2
    run in_doubt "$HOST" "$GATEWAY_PORT"
    expect_code 0
    expect_line err "commit: QPX_ERR_LOSTGWCON (-102)"
    expect_line out "not posted"
    expect_text gateway.log "unit of work 1 is backed out"
    expect_connections 2
}

InDoubtAsksNobodyWhenTheAnswerIsThere() {
    gateway
    run in_doubt "$HOST" "$GATEWAY_PORT"
    expect_code 0
    expect_line out "posted"
    expect_nothing err
    expect_connections 1
}

RetryPostsAtTheSecondAttempt() {
    gateway_with_script 'program = "LEDGER"' 'times = 1' 'answer = { code = -16 }'
    run retry "$HOST" "$GATEWAY_PORT"
    expect_code 0
    expect_line out "posted, attempt 2"
    expect_lines err 1
    expect_line err "post: ECI_ERR_RESOURCE_SHORTAGE (-16)"
}

RetryGivesUpInTheEnd() {
    gateway_with_script 'program = "LEDGER"' 'answer = { code = -16 }'
    run retry "$HOST" "$GATEWAY_PORT"
    expect_code 1
    expect_lines err 3
    expect_nothing out
}

RetryTriesNothingAgainThatCannotHelp() {
    gateway_with_script 'program = "LEDGER"' 'answer = { code = -22 }'
    run retry "$HOST" "$GATEWAY_PORT"
    expect_code 1
    expect_lines err 1
    expect_line err "post: ECI_ERR_UNKNOWN_SERVER (-22)"
}

SignalsEndInOrder() {
    local lines line code=0 pid

    gateway
    mkfifo "$FOLDER/lines"
    "$PROGRAMS/signals" "$HOST" "$GATEWAY_PORT" >"$FOLDER/lines" 2>"$FOLDER/err" &
    pid=$!
    exec {lines}<"$FOLDER/lines"
    read -r -u "$lines" line || fail "no call"
    [[ $line == "Hello, Gateway!" ]] || fail "another answer: $line"
    kill -TERM "$pid"
    wait "$pid" || code=$?
    exec {lines}<&-
    [[ $code == 0 ]] || fail "exit code $code"
    expect_nothing err
    expect_text gateway.log "close flow"
}

ForkGivesEachChildAConnection() {
    gateway
    run fork "$HOST" "$GATEWAY_PORT"
    expect_code 0
    printf 'child %d\n' 1 2 3 | diff - <(sort "$FOLDER/out") >&2 || fail "other children"
    expect_connections 3
}

ForkTellsOfAChildThatFails() {
    gateway --misbehave flow-error=61445@nth:2
    run fork "$HOST" "$GATEWAY_PORT"
    expect_code 1
    expect_lines out 2
    expect_text err ": QPX_ERR_WORK_WAS_REFUSED (61445)"
}

CodePagesGoOutAndComeBackInEbcdic() {
    gateway --journal "$FOLDER/journal"
    run code_pages "$HOST" "$GATEWAY_PORT"
    expect_code 0
    expect_line out "Invoice for order 4711"
    expect_text journal '"name":"ORDER.HEADER","change":"added","type":"char","ccsid":37'
    expect_text journal '"name":"INVOICE","change":"added","type":"char","ccsid":37'
}

# What each example writes in front of a Gateway it writes again when its recording answers.
EachIsAnsweredFromItsRecording() {
    gateway_with_registry
    record_gateway
    run_steady_ones keep_what_it_wrote
    stop_recording
    for file in "$FOLDER"/recorded.*; do [[ -s $file ]] || fail "$file is empty"; done
    replay_gateway
    run_steady_ones expect_what_it_wrote
    expect_all_replayed
}

keep_what_it_wrote() {
    expect_code 0
    cp "$FOLDER/out" "$FOLDER/recorded.$1"
}

expect_what_it_wrote() {
    expect_code 0
    expect_same "$FOLDER/recorded.$1" "$FOLDER/out"
}

ManyConnectionsOpensThem() {
    gateway
    run many_connections "$HOST" "$GATEWAY_PORT" 20
    expect_code 0
    expect_line out "20 of 20 connections"
    expect_connections 20
}

# Of 700 stacks those of 8 MiB would take 5.5 GB, those of 256 KiB take 175 MB.
ManyConnectionsFitWithSmallStacks() {
    gateway --log-level warning
    run many_connections "$HOST" "$GATEWAY_PORT" 700 256
    expect_code 0
    expect_line out "700 of 700 connections"
}

ManyConnectionsDoNotFitWithLargeStacks() {
    gateway --log-level warning
    run many_connections "$HOST" "$GATEWAY_PORT" 700 8192
    expect_code 1
    expect_lines err 1
    expect_line err "open: QPX_ERR_SYSTEM_ERROR (-9)"
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
    local file

    for file in "$HERE"/../*.{c,cpp,py,cob}; do
        (($(wc -l <"$file") <= 60)) || fail "$file has more than 60 lines"
    done
}

EachIsInTheIndex() {
    local file

    for file in "$HERE"/../*.{c,cpp,h,py,cob}; do
        grep -qF "](${file##*/})" "$HERE/../README.md" || fail "$file is not in README.md"
    done
}

run_case
