# Starts the stand-in gateway for a script, on a free port and with a database of its own. Sourced.
#
#   start_gateway build/demo/gateway/daemon/qpxgatewayd /tmp/some-folder [daemon options...]
#   ... $GATEWAY_PORT ...
#   stop_gateway
#
# The folder receives the database ledger.db and the log gateway.log. Call stop_gateway on the
# way out as well (trap stop_gateway EXIT); it does nothing where nothing runs. The turn of a script
# (turns.sh) is not the daemon's.
# shellcheck shell=bash

GATEWAY_PORT=
GATEWAY_PID=

# Waits until the daemon has written its port, or has ended.
await_port() {
    local file=$1 code=0
    local lines tail_pid

    exec {lines}< <(exec tail --follow=name --retry --lines=1 --pid="$GATEWAY_PID" "$file" 2>/dev/null)
    tail_pid=$!
    # shellcheck disable=SC2034 # for the script that has sourced this
    read -r -u "$lines" GATEWAY_PORT || code=1
    kill "$tail_pid" 2>/dev/null || true
    exec {lines}<&-
    return "$code"
}

start_gateway() {
    local daemon=$1 folder=$2
    shift 2

    # Empty until the daemon puts its own in its place: of a file that is there tail learns at once.
    : >"$folder/port"
    "$daemon" --port-file "$folder/port" --database "$folder/ledger.db" "$@" \
        >"$folder/gateway.log" 2>&1 </dev/null 9>&- &
    GATEWAY_PID=$!
    if ! await_port "$folder/port"; then
        stop_gateway || true
        printf 'The gateway did not start:\n' >&2
        sed 's/^/  | /' "$folder/gateway.log" >&2
        return 1
    fi
}

# Stops the daemon and gives its exit code.
stop_gateway() {
    local pid=$GATEWAY_PID

    [[ -n $pid ]] || return 0
    GATEWAY_PID=
    kill -TERM "$pid" 2>/dev/null || true
    wait "$pid"
}
