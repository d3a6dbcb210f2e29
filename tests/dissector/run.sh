#!/usr/bin/env bash
# Runs one case of the tests of the dissector: run.sh CASE EXAMPLES DAEMON DEMO_PROGRAMS QPX.
# CMakeLists.txt names the cases; each is a function below.
# shellcheck disable=SC2317 # functions are called by their names
set -euo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)
readonly HERE
# shellcheck source=tests/support/program_cases.sh
source "$HERE/../support/program_cases.sh"

readonly DEMO=$4 QPX=$5
readonly DISSECTOR=$HERE/../../tools/dissector/qpx.lua
readonly DATA=$HERE/../../demo-programs/data
export LC_ALL=C.UTF-8
export HOME=$FOLDER # no settings, and no dissector, of whoever runs this
for variable in QPX_HOST QPX_PORT QPX_APPLID QPX_APPLIDQUALIFIER QPX_CLIENT_TRACE_LEVEL; do
    unset "$variable"
done

# ---- Verbs ---------------------------------------------------------------------------------------

# Records what the application, a function, says to the gateway at PORT, into session of $FOLDER.
record() {
    local application=$1 segment=${2:-0} recorder pid from to

    coproc recorder {
        python3 "$HERE/record.py" "$GATEWAY_PORT" "$FOLDER/session" "$segment" 2>"$FOLDER/recorder"
    }
    # shellcheck disable=SC2154 # coproc sets it
    pid=$recorder_PID
    exec {from}<&"${recorder[0]}" {to}>&"${recorder[1]}"
    read -r -u "$from" PORT
    "$application" >"$FOLDER/out" 2>&1 || fail "the application fails"
    eval "exec ${recorder[1]}>&-"
    exec {to}>&- {from}<&-
    wait "$pid" || fail "the recorder fails: $(cat "$FOLDER/recorder")"
}

# What tshark tells of the session, in two passes, as its window does.
read_session() {
    tshark -2 -r "$FOLDER/session" -X "lua_script:$DISSECTOR" "$@" >"$FOLDER/out" \
        2>"$FOLDER/err" || fail "tshark fails"
    ! grep -qE 'Lua Error|\.lua:[0-9]' "$FOLDER/err" "$FOLDER/out" || fail "the dissector fails"
}

# The flows, one to a line, without their times.
flows() {
    read_session -T fields -e _ws.col.Info -Y "${1:-qpx}"
    sed -E -e 's/ \| /\n/g' "$FOLDER/out" | sed -E 's/, [0-9]+\.[0-9]{3} ms//' >"$FOLDER/flows"
}

expect_flows() {
    flows
    cat >"$FOLDER/expected"
    expect_same "$FOLDER/expected" "$FOLDER/flows"
}

# ---- Applications --------------------------------------------------------------------------------

an_echo() {
    "$PROGRAMS/echo" 127.0.0.1 "$PORT"
}

# Each program of the tree with something to do.
every_program() {
    "$PROGRAMS/echo" 127.0.0.1 "$PORT"
    "$PROGRAMS/asynchronous" 127.0.0.1 "$PORT"
    "$PROGRAMS/channel" 127.0.0.1 "$PORT"
    "$PROGRAMS/unit_of_work" 127.0.0.1 "$PORT"
    "$PROGRAMS/unit_of_work" 127.0.0.1 "$PORT" 999999999
    printf 'wrong1\n' | "$PROGRAMS/change_password" FRED 127.0.0.1 "$PORT" || true
    "$PROGRAMS/trace" "$FOLDER/trace" 127.0.0.1 "$PORT"
    "$DEMO/systems" --port "$PORT"
    "$DEMO/orders" --port "$PORT" "$DATA/order.txt"
    "$DEMO/fanout" --port "$PORT" --count 20
    "$DEMO/ledger" --port "$PORT" "$DATA/transfers.txt" || true
    printf 'Blue7sky\nNew9pass\n' >"$FOLDER/passwords"
    "$DEMO/password" --port "$PORT" --passwords "$FOLDER/passwords" change FRED || true
    "$QPX" --port "$PORT" --applid MINE --qualifier NET call ABEND --text BOOM || true
}

# ---- Cases ---------------------------------------------------------------------------------------

EveryFlowOfEveryProgramHasItsName() {
    gateway_with_registry
    record every_program
    flows
    sed -E 's/ \[[0-9]+\]//' "$FOLDER/flows" | sort -u >"$FOLDER/kinds"
    expect_same - "$FOLDER/kinds" <<'TEXT'
Backout
Change a password, of FRED
Close
Close answered
Commit
Handshake
Handshake accepted
Handshake of MINE/NET
List systems
Program call ABEND
Program call CHANECHO with the channel GREETINGS
Program call ECHO
Program call LEDGER
Program call ORDERS with the channel ORDER
Reply to a password, ESI_ERR_PASSWORD_INVALID
Reply to a password, QPX_OK
Reply with the channel GREETINGS, ECI_NO_ERROR
Reply with the channel ORDER, ECI_NO_ERROR
Reply, ECI_ERR_TRANSACTION_ABEND
Reply, ECI_NO_ERROR
Systems, ECI_NO_ERROR
Verify a password, of FRED
TEXT
}

NoFlowOfAnyProgramIsMalformed() {
    gateway_with_registry
    record every_program
    read_session -Y 'qpx.malformed || qpx.unasked || _ws.malformed'
    expect_nothing out
    # All bytes of all segments are in flows.
    read_session -T fields -e tcp.len -Y 'tcp.len > 0 && !qpx'
    expect_nothing out
}

RequestsAndRepliesPointAtEachOtherWithTheTimeBetween() {
    gateway
    record an_echo
    read_session -T fields -e frame.number -e qpx.reply_in -e qpx.request_in -Y 'qpx.type == "ECI"'
    expect_same - "$FOLDER/out" <<<$'6\t7\t\n7\t\t6'
    read_session -T fields -e qpx.time -e frame.time_delta_displayed -Y 'qpx.type == "ECI"'
    # The time is that between the two frames, which stand next to each other.
    awk 'NR == 2 && ($1 - $2 < 0.000002 && $2 - $1 < 0.000002) { good = 1 } END { exit !good }' \
        "$FOLDER/out" || fail "another time: $(cat "$FOLDER/out")"
}

RepliesInAnotherOrderAreThoseOfTheirRequests() {
    gateway --misbehave reverse=5@program:ECHO
    asynchronous() { "$PROGRAMS/asynchronous" 127.0.0.1 "$PORT"; }
    record asynchronous
    flows 'qpx.flow_type == 3'
    expect_same - "$FOLDER/flows" <<'TEXT'
Reply [5], ECI_NO_ERROR
Reply [4], ECI_NO_ERROR
Reply [3], ECI_NO_ERROR
Reply [2], ECI_NO_ERROR
Reply [1], ECI_NO_ERROR
TEXT
    read_session -Y 'qpx.unasked'
    expect_nothing out
}

EveryFieldOfAProgramCallIsThere() {
    gateway
    a_call() {
        "$QPX" --port "$PORT" --server VORNA call ECHO --text 1001 --length 12 \
            --call-timeout 30 --transaction EXPR
    }
    record a_call
    read_session -O qpx -Y 'qpx.flow contains "Program call"'
    sed -n '/^QPX/,$s/ *$//p' "$FOLDER/out" >"$FOLDER/seen"
    expect_same - "$FOLDER/seen" <<'TEXT'
QPX Gateway Protocol, Program call ECHO on VORNA [1]
    Header
        Eyecatcher: Gate
        Version: 0x10a01000
        Flow type: Request (1)
        Message id: 1
        Return code of the Gateway: QPX_OK (0)
        Length of the request type: 3
        Request type: ECI
        Security: 0
        Length of the body: 91
    Call type: program (1)
    Extend mode: a unit of work of its own (0)
    Unit of work: 0
    Message qualifier: 0
    A callback is there: no (0)
    Length of the server name: 8
    Server: VORNA
    User id:
    Length of the password: 0
    Program: ECHO
    Transaction: EXPR
    Length of the workload token: 0
    Length of the COMMAREA: 12
    Outbound length: yes (255)
    Outbound length: 4
    Inbound length: no (0)
    COMMAREA: 31303031
    A channel: no (0)
    Time-out of the call: 30
    The message qualifier is given by the Gateway: no (0)
    Format of the XID: -1
    Correlator: 1
    [Flow: Program call ECHO on VORNA]
    [Reply in: 7]

TEXT
}

ChannelsShowTheirContainersAndWhatBecameOfThem() {
    gateway
    a_channel() {
        "$QPX" --port "$PORT" channel CHANEDIT KEEP=1 CHANGE=2 DELETE=3
    }
    record a_channel
    read_session -O qpx -Y 'qpx.channel'
    local text
    for text in '    Channel: QPX' '    CCSID of the channel: 1208' '    Number of containers: 3' \
        '    Container: KEEP, added, 1 bytes' '        Type: characters (2)' '        CCSID: 1208'; do
        expect_line out "$text"
    done
    grep -E '^    Container: ' "$FOLDER/out" >"$FOLDER/containers"
    [[ $(grep -c ', added, ' "$FOLDER/containers") -ge 3 ]] || fail "not all are sent"
}

PasswordsAreNeverShown() {
    gateway_with_registry
    some_passwords() {
        printf 'Blue7sky\nNew9pass\n' >"$FOLDER/passwords"
        "$DEMO/password" --port "$PORT" --passwords "$FOLDER/passwords" change FRED
        printf 'New9pass\n' >"$FOLDER/passwords"
        "$DEMO/password" --port "$PORT" --passwords "$FOLDER/passwords" verify FRED
        "$QPX" --port "$PORT" --user FRED call ECHO --text hello --password-fd 7 7<"$FOLDER/passwords"
    }
    record some_passwords
    read_session -V
    cp "$FOLDER/out" "$FOLDER/all"
    read_session -T json -J qpx
    cat "$FOLDER/out" >>"$FOLDER/all"
    read_session -T pdml -J qpx
    sed '/name="tcp\./d' "$FOLDER/out" >>"$FOLDER/all"
    [[ $(grep -c '\[Password: (hidden)\]' "$FOLDER/all") == 3 ]] || fail "they are not there"
    # As they are, and as they travel.
    ! grep -iE 'Blue7sky|New9pass|426c756537736b79|bd ?2e ?19 ?10 ?52 ?44 ?18 ?12|4e65773970617373' \
        "$FOLDER/all" || fail "a password is shown"
    local masked
    masked=$(python3 -c 'p = b"New9pass"; print(bytes(c ^ b for c, b in zip(p, b"\xff" + p)).hex())')
    ! tr -d ': ' <"$FOLDER/all" | grep -i "$masked" || fail "a password is shown as it travels"
}

FlowsAreTheSameHoweverTheyAreCutIntoSegments() {
    local segment
    a_session() {
        "$PROGRAMS/channel" 127.0.0.1 "$PORT"
        "$PROGRAMS/asynchronous" 127.0.0.1 "$PORT"
        "$DEMO/systems" --port "$PORT"
    }
    # All requests of one program stand behind one another, and so do the replies to them.
    gateway --registry "$REGISTRY" --misbehave reverse=5@program:ECHO
    record a_session
    flows
    sort "$FOLDER/flows" >"$FOLDER/whole"
    [[ $(wc -l <"$FOLDER/whole") == 26 ]] || fail "not all flows are there"
    for segment in 1 7 100; do
        record a_session "$segment"
        flows
        sort "$FOLDER/flows" | expect_same "$FOLDER/whole" -
        read_session -Y 'qpx.malformed || qpx.unasked || _ws.malformed'
        expect_nothing out
    done
}

ALongChannelIsPutTogether() {
    head -c 300000 /dev/zero | tr '\0' x >"$FOLDER/long"
    gateway
    a_long_channel() {
        "$QPX" --port "$PORT" channel CHANECHO LONG=@"$FOLDER/long" --get LONG --as hex
    }
    record a_long_channel 1460
    read_session -T fields -e qpx.data_length -Y 'qpx.channel'
    expect_same - "$FOLDER/out" <<<$'300000\n300000'
}

# Each line: a misbehaviour of the gateway, and a flow that a call meets then.
expect_with_misbehaviours() {
    local fault wanted
    an_error() { an_echo || true; }
    while IFS='|' read -r fault wanted; do
        gateway --misbehave "$fault"
        record an_error
        stop_gateway || fail "the gateway does not stop cleanly"
        flows
        expect_line flows "$wanted"
    done
}

RefusalsOfTheGatewayAreNamed() {
    expect_with_misbehaviours <<'TEXT'
flow-error=61445|Error [1], QPX_ERR_WORK_WAS_REFUSED
flow-exception=out of order|Exception: out of order [1], QPX_ERR_GATEWAY_EXCEPTION
connection-error=61444|Error [-2], QPX_ERR_GATEWAY_CLOSED
refuse-handshake=61445|Error [-2], QPX_ERR_WORK_WAS_REFUSED
TEXT
}

WhatTheGatewaySendsUnaskedIsNamed() {
    expect_with_misbehaviours <<'TEXT'
ping|Ping
close|Close by the Gateway
unknown-flow=99|Flow of the unknown type 99 [0], malformed
bad-eyecatcher|No flow begins here
TEXT
}

ASecondReplyHasNoRequest() {
    gateway --misbehave duplicate@program:ECHO
    record an_echo
    read_session -Y qpx.unasked
    grep -q 'Reply \[1\], ECI_NO_ERROR' "$FOLDER/out" || fail "the second is as good as the first"
    read_session -T fields -e qpx.request_in -Y 'qpx.flow_type == 3'
    [[ $(grep -o 6 "$FOLDER/out" | wc -l) == 1 ]] || fail "both are those of the request"
}

ASessionOnAnotherPortIsRecognised() {
    gateway
    record an_echo
    python3 - "$FOLDER/session" <<'PYTHON'
import sys
data = open(sys.argv[1], "rb").read()
open(sys.argv[1], "wb").write(data.replace((5770).to_bytes(2, "big"), (4711).to_bytes(2, "big")))
PYTHON
    flows 'tcp.port == 4711 && qpx'
    expect_flows <<'TEXT'
Handshake
Handshake accepted
Program call ECHO [1]
Reply [1], ECI_NO_ERROR
Close
Close answered
TEXT
}

# A session of which every byte but its length and the names is changed in turn: whatever comes of it,
# the dissector goes on.
WhatIsNoFlowIsNotTakenForOne() {
    gateway
    record an_echo
    cp "$FOLDER/session" "$FOLDER/whole"
    local value
    for value in 0 127 255; do
        python3 - "$FOLDER/whole" "$FOLDER/session" "$value" <<'PYTHON'
import struct, sys
data, value = open(sys.argv[1], "rb").read(), int(sys.argv[3])
packets, at = [], 24
while at < len(data):
    length = struct.unpack_from("<I", data, at + 8)[0]
    packets.append((data[at:at + 16], data[at + 16:at + 16 + length]))
    at += 16 + length
with open(sys.argv[2], "wb") as out:
    out.write(data[:24])
    stream = 0
    longest = max(range(len(packets)), key=lambda i: len(packets[i][1]))
    head, packet = packets[longest]
    for place in range(40, len(packet)):
        changed = bytearray(packet)
        changed[place] = value
        stream += 1
        changed[20:22] = struct.pack(">H", 20000 + stream)
        out.write(head + bytes(changed))
PYTHON
        read_session -V
        expect_text out 'QPX Gateway Protocol'
    done
}

CodesHaveTheNamesOfThePage() {
    "$QPX" codes --json >"$FOLDER/codes"
    python3 - "$FOLDER/codes" "$DISSECTOR" <<'PYTHON' || fail "they differ"
import json, re, sys
codes = json.load(open(sys.argv[1]))["codes"]
lua = open(sys.argv[2]).read()

def table(name):
    rows = re.search(r"local %s = \{\n(.*?)\n\}" % name, lua, re.S).group(1)
    return {int(value): name for value, name in re.findall(r'\[(-?\d+)\] = "(\w+)"', rows)}

def page(*whens):
    return {c["value"]: c["names"][0] for c in codes if c["when"] in whens and c["names"]}

server = page("From the Gateway and the server", "The list of systems")
assert server.items() <= table("eci_codes").items(), server.items() - table("eci_codes").items()
assert set(table("eci_codes")) - set(server) == {0}
gateway = {value: name for value, name in page("From the Gateway and the server",
                                               "When a connection ends").items() if value > 0}
assert gateway == {v: n for v, n in table("gateway_codes").items() if v}, gateway
passwords = {name for name in page("Passwords").values()}
assert passwords == set(table("esi_codes").values()) - {"QPX_OK"}, passwords
PYTHON
}

run_case
