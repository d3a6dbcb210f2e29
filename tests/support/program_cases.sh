# What the cases of a script have in common that run programs against the gateway's daemon. Sourced
# by a script run.sh CASE PROGRAMS DAEMON, where the last two are the folder of the programs and the
# path of the daemon, behind a line that finds the script's own folder:
#
#   HERE=$(cd "$(dirname "$0")" && pwd)
#   source "$HERE/../../tests/support/program_cases.sh"
#   SomethingIsDone() { ...; expect_code 0; }
#   run_case
#
# Each case is a function. What runs a program keeps what it writes in out and err of $FOLDER, which
# is the case's own, and its exit code in CODE.
# shellcheck shell=bash

# shellcheck disable=SC2034 # for the script that has sourced this
readonly CASE=$1 PROGRAMS=$2 DAEMON=$3
readonly REGISTRY=${HERE:?}/../../demo-programs/data/registry.toml
CODE=

# shellcheck source=tools/gateway.sh
source "$HERE/../../tools/gateway.sh"

FOLDER=$(mktemp -d)
RECORDED_PID=
trap 'stop_gateway || true; GATEWAY_PID=$RECORDED_PID; stop_gateway || true; rm -rf "$FOLDER"' EXIT

run_case() {
    declare -F "$CASE" >/dev/null || fail "there is no such case"
    "$CASE"
}

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

gateway_with_registry() {
    gateway --registry "$REGISTRY"
}

# A daemon without a database, with these options, whose port is that of the gateway from now on.
daemon_with() {
    local log=$1
    shift
    : >"$FOLDER/port.$log"
    "$DAEMON" --port-file "$FOLDER/port.$log" "$@" >"$FOLDER/$log" 2>&1 </dev/null &
    GATEWAY_PID=$!
    await_port "$FOLDER/port.$log" || fail "the daemon does not start: $(cat "$FOLDER/$log")"
}

# Puts a daemon in front of the gateway that runs, which records what is said.
record_gateway() {
    RECORDED_PID=$GATEWAY_PID
    daemon_with recorder.log --record "127.0.0.1:$GATEWAY_PORT" "$FOLDER/recording"
}

stop_recording() {
    stop_gateway || fail "the recording does not stop cleanly"
    GATEWAY_PID=$RECORDED_PID
    RECORDED_PID=
    stop_gateway || fail "the gateway does not stop cleanly"
}

# The recording in the place of the gateway.
replay_gateway() {
    daemon_with gateway.log --replay "$FOLDER/recording"
}

# Ends the replaying; every request has been answered, once.
expect_all_replayed() {
    local requests
    stop_gateway || fail "the gateway does not stop cleanly"
    requests=$(cat "$FOLDER"/recording/*.jsonl | grep -c '"flow":"request"') || fail "no requests"
    expect_text gateway.log "replayed: $requests requests, 0 without an answer, 0 answered again; 0 of $requests recorded ones did not come"
}

# A port at which nothing listens, and nothing else of this machine will: somebody has it.
closed_port() {
    mkfifo "$FOLDER/closed"
    python3 -c 'import signal, socket
place = socket.socket()
place.bind(("127.0.0.1", 0))
print(place.getsockname()[1], flush=True)
signal.pause()' >"$FOLDER/closed" &
    # shellcheck disable=SC2034 # ends with the case, as a gateway does
    GATEWAY_PID=$!
    read -r GATEWAY_PORT <"$FOLDER/closed" || fail "there is no port"
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

expect_no_text() {
    local file=$1 text=$2
    ! grep -qF -- "$text" "$FOLDER/$file" || fail "\"$text\" in $file"
}

expect_nothing() {
    [[ ! -s $FOLDER/$1 ]] || fail "something in $1"
}

expect_same() {
    diff -u "$1" "$2" >&2 || fail "the output differs"
}
