#!/usr/bin/env bash
# Runs one case of the tests of qpx: run.sh CASE PROGRAMS DAEMON, with the folder of the program and
# the path of the gateway's. CMakeLists.txt names the cases; each is a function below.
set -euo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)
readonly HERE
# shellcheck source=tests/support/program_cases.sh
source "$HERE/../../tests/support/program_cases.sh"

readonly QPX=$PROGRAMS/qpx TOOLS=$HERE/../../tools
APPLICATION=
export LC_ALL=C.UTF-8
# Nothing of the environment in which the tests run, and a home of the case's own.
for variable in QPX_HOST QPX_PORT QPX_TIMEOUT QPX_SERVER QPX_USER QPX_APPLID QPX_APPLIDQUALIFIER \
    XDG_CONFIG_HOME NO_COLOR QPX_CLIENT_TRACE_LEVEL QPX_CLIENT_TRACE_FILE QPX_CLIENT_DATA_LENGTH \
    QPX_CLIENT_DATA_OFFSET; do
    unset "$variable"
done
export HOME=$FOLDER

# ---- Verbs ---------------------------------------------------------------------------------------

# Runs a program, keeps what it writes and its exit code.
run() {
    CODE=0
    (cd "$FOLDER" && "$@" >"$FOLDER/out" 2>"$FOLDER/err" </dev/null) || CODE=$?
}

# qpx against the gateway of the case.
qpx() {
    run "$QPX" --port "$GATEWAY_PORT" "$@"
}

# The same from a shell that does this first, and ends with exec "$@".
qpx_within() {
    local commands=$1
    shift
    run bash -c "$commands" - "$QPX" --port "$GATEWAY_PORT" "$@"
}

# The first argument are the passwords, one to a line.
qpx_with_passwords() {
    printf '%s\n' "$1" >"$FOLDER/passwords"
    shift
    CODE=0
    (cd "$FOLDER" && "$QPX" --port "$GATEWAY_PORT" "$@" --password-fd 7 >"$FOLDER/out" \
        2>"$FOLDER/err" </dev/null 7<"$FOLDER/passwords") || CODE=$?
}

# Runs a program that has the first lines of a file on standard input when it begins. When it has read
# them and waits, the others come on a "pipe" that does not block, or the "connection" is reset that
# standard input is.
in_pieces() {
    local kind=$1 file=$2 lines=$3
    shift 3
    CODE=0
    python3 - "$kind" "$file" "$lines" "$@" <<'PYTHON' >"$FOLDER/out" 2>"$FOLDER/err" || CODE=$?
import array, fcntl, os, socket, struct, subprocess, sys, termios

kind, file, count, *command = sys.argv[1:]
lines = open(file, "rb").read().splitlines(True)
if kind == "pipe":
    its, ours = os.pipe()
    os.set_blocking(its, False)
else:
    listener = socket.create_server(("127.0.0.1", 0))
    peer = socket.create_connection(listener.getsockname())
    standard_input = listener.accept()[0]
    its, ours = standard_input.fileno(), peer.fileno()


def unread():
    count = array.array("i", [0])
    fcntl.ioctl(its, termios.FIONREAD, count)
    return count[0]


def state(process):
    with open(f"/proc/{process.pid}/stat") as stat:
        return stat.read().rpartition(")")[2].split()[0]


first = b"".join(lines[: int(count)])
os.write(ours, first)
while unread() < len(first):
    pass
program = subprocess.Popen(command, stdin=its)
while unread() > 0 or state(program) not in "SZ":
    pass
if kind == "pipe":
    os.write(ours, b"".join(lines[int(count) :]))
    os.close(ours)
else:
    peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    peer.close()
sys.exit(program.wait())
PYTHON
}

# Waits until a file has a line with a text, as long as the application runs.
await_line() {
    local file=$1 text=$2 line
    while read -r line; do
        [[ $line != *"$text"* ]] || break
    done < <(tail -n +1 -f --pid="$APPLICATION" "$FOLDER/$file")
}

# Waits until the gateway has the first request of the application.
await_request() {
    await_line gateway.log "request 1 ECI"
}

# That a file is exactly what stands on standard input, but for the port and for times.
expect_exactly() {
    local file=$1
    cat >"$FOLDER/expected"
    sed -E -e "s/:${GATEWAY_PORT:-none}\b/:PORT/" -e 's/("[a-z]*seconds"):[0-9.]+/\1:TIME/g' \
        "$FOLDER/$file" >"$FOLDER/$file.seen"
    expect_same "$FOLDER/expected" "$FOLDER/$file.seen"
}

# That a run has ended with this code, has this first line to complain with, and shows nothing.
expect_complaint() {
    local code=$1 line=$2
    expect_code "$code"
    head -n 1 "$FOLDER/err" >"$FOLDER/complaint"
    expect_exactly complaint <<<"$line"
    expect_nothing out
}

# That qpx takes these arguments for wrong, with this line.
expect_usage() {
    local line=$1
    shift
    run "$QPX" "$@"
    expect_complaint 2 "qpx: $line"
}

configuration() {
    mkdir -p "$FOLDER/.config"
    cat >"$FOLDER/.config/qpx.toml"
}

# ---- The frame -----------------------------------------------------------------------------------

HelpShowsEveryCommandTheExitCodesAndExamples() {
    run "$QPX" --help
    expect_code 0
    expect_nothing err
    local text
    for text in call channel systems password ping load trace codes doctor "Exit codes:" "Examples:" --json; do
        expect_text out "$text"
    done
}

HelpOfEveryCommandHasExamples() {
    local command
    for command in call channel systems "password verify" "password change" ping load trace codes \
        doctor; do
        # shellcheck disable=SC2086 # a command of two words
        run "$QPX" $command --help
        expect_code 0
        expect_nothing err
        expect_line out "Examples:"
        expect_text out "  qpx ${command%% *}"
    done
}

VersionNamesTheLibraryAndItsWordSize() {
    run "$QPX" --version
    expect_code 0
    grep -qxE 'qpx 10\.1\.0, library 10\.1\.0\.0, (32|64) bits' "$FOLDER/out" || fail "says otherwise"
}

WrongArgumentsAreRefused() {
    expect_usage 'A subcommand is required; "qpx --help" shows what there is'
    expect_usage '--port: a port is a number from 1 to 65535, not x' --port x systems
    expect_usage '--port: a port is a number from 1 to 65535, not 0' --port 0 systems
    expect_usage '--timeout: a time-out is a number from 0 to 3600, not 3601' --timeout 3601 systems
    expect_usage '--applid: longer than 8 characters: NINECHARS' --applid NINECHARS systems
    expect_usage '--server: longer than 8 characters: NINECHARS' --server NINECHARS systems
    expect_usage '--color: neither auto, always nor never: blue' --color blue systems
}

TheEnvironmentTellsWhereTheGatewayIs() {
    gateway
    run env QPX_HOST=127.0.0.1 QPX_PORT="$GATEWAY_PORT" "$QPX" call ECHO --text hello
    expect_code 0
    expect_exactly out <<<hello
}

TheConfigurationFileTellsWhereTheGatewayIs() {
    gateway
    configuration <<<"port = $GATEWAY_PORT"
    run "$QPX" call ECHO --text hello
    expect_code 0
    expect_exactly out <<<hello
}

OptionsComeBeforeTheEnvironmentAndThatBeforeTheFile() {
    configuration <<<'port = "file"'
    expect_usage "$HOME/.config/qpx.toml, line 1, port: a port is a number from 1 to 65535, not file" systems
    export QPX_PORT=environment
    expect_usage "QPX_PORT: a port is a number from 1 to 65535, not environment" systems
    expect_usage "--port: a port is a number from 1 to 65535, not option" --port option systems
}

AnUnknownKeyOfTheConfigurationFileIsNamed() {
    configuration <<'TOML'
host = "127.0.0.1"
prot = 5770
TOML
    expect_usage "$HOME/.config/qpx.toml, line 2: \"prot\" is no key; there are applid, color, host, port, qualifier, server, timeout, user" systems
}

AConfigurationFileThatIsNamedMustBeThere() {
    expect_usage "cannot read the configuration file $FOLDER/none.toml" --config "$FOLDER/none.toml" systems
}

AConfigurationFileThatIsNamedMustBeAFile() {
    expect_usage "cannot read the configuration file $FOLDER" --config "$FOLDER" systems
}

AnApplidOfTheCommandLineComesBeforeTheEnvironment() {
    gateway
    run env QPX_APPLID=OTHER "$QPX" --port "$GATEWAY_PORT" --applid MINE call ECHO
    expect_code 0
    expect_text gateway.log 'handshake applid="MINE" qualifier=""'
}

NoGatewayIsExitCode3WithItsMeaningAndAdvice() {
    closed_port
    qpx call ECHO
    expect_code 3
    expect_nothing out
    expect_exactly err <<'TEXT'
qpx: open 127.0.0.1:PORT: QPX_ERR_CONNECTFAILED (-118): the Gateway could not be reached, or did not take the handshake; with limit 0 also a signal
  does it run, is the port right, does a firewall stand between? is localhost ::1?
TEXT
}

ALostConnectionIsExitCode3() {
    gateway --misbehave drop
    qpx call ECHO
    expect_complaint 3 "qpx: ECHO: QPX_ERR_LOSTGWCON (-102): the connection broke, or the Gateway sent what cannot be read"
}

ARefusalOfTheGatewayIsExitCode4() {
    gateway --misbehave refuse-handshake=61445
    qpx call ECHO
    expect_complaint 4 "qpx: open 127.0.0.1:PORT: QPX_ERR_WORK_WAS_REFUSED (61445): the Gateway accepts no new work"
}

ACodeOfTheServerIsExitCode5() {
    script <<<'[[on]]
answer = { code = -17 }'
    qpx call ECHO
    expect_complaint 5 "qpx: ECHO: ECI_ERR_NO_SESSIONS (-17): the server has no free session"
}

AnAbendIsExitCode6AndShowsItsCode() {
    gateway
    qpx call ABEND --text BOOM
    expect_complaint 6 "qpx: ABEND: ECI_ERR_TRANSACTION_ABEND (-7), abend code BOOM: the server program ended abnormally"
}

ErrorsAreJsonAsWell() {
    gateway
    qpx call ABEND --text BOOM --json
    expect_code 6
    expect_exactly out <<'TEXT'
{"error":{"step":"ABEND","code":-7,"name":"ECI_ERR_TRANSACTION_ABEND","abend":"BOOM","meaning":"the server program ended abnormally","advice":"eci_abend_code has four characters for whoever maintains it"}}
TEXT
}

AFullDiskIsExitCode1() {
    # shellcheck disable=SC2016 # for the inner shell
    run bash -c 'exec "$@" >/dev/full' - "$QPX" codes
    expect_code 1
    expect_line err "qpx: cannot write to standard output"
}

# qpx with an output that takes nothing.
qpx_without_output() {
    # shellcheck disable=SC2016 # for the inner shell
    qpx_within 'exec "$@" >/dev/full' "$@"
    expect_code 1
    expect_line err "qpx: cannot write to standard output"
}

AFullDiskIsExitCode1ForWhateverIsWritten() {
    gateway
    qpx_without_output ping --count 2 --interval 0
    qpx_without_output ping --count 2 --interval 0 --json
    qpx_without_output load ECHO --count 10
    qpx_without_output load ECHO --count 10 --json
    qpx_without_output call ECHO --text hello
}

# The pipe is full when the program begins, and it is read from when the program waits, or has ended.
AnOutputThatDoesNotBlockIsWaitedFor() {
    CODE=0
    python3 - "$QPX" codes >"$FOLDER/out" 2>"$FOLDER/err" <<'PYTHON' || CODE=$?
import os, subprocess, sys


def state(process):
    with open(f"/proc/{process.pid}/stat") as stat:
        return stat.read().rpartition(")")[2].split()[0]


its, output = os.pipe()
os.set_blocking(output, False)
filled = 0
try:
    while True:
        filled += os.write(output, b"x")
except BlockingIOError:
    pass
program = subprocess.Popen(sys.argv[1:], stdout=output)
while state(program) not in "SZ":
    pass
if os.get_blocking(output):
    sys.exit("the pipe of others has become one that blocks")
os.close(output)
with open(its, "rb") as pipe:
    sys.stdout.buffer.write(pipe.read()[filled:])
sys.exit(program.wait())
PYTHON
    expect_code 0
    expect_nothing err
    mv "$FOLDER/out" "$FOLDER/through-the-pipe"
    run "$QPX" codes
    expect_same "$FOLDER/out" "$FOLDER/through-the-pipe"
}

AFullDiskIsExitCode1WhenItIsInterrupted() {
    gateway --misbehave hold@program:ECHO
    env --default-signal=INT "$QPX" --port "$GATEWAY_PORT" ping --program ECHO >/dev/full \
        2>"$FOLDER/err" &
    APPLICATION=$!
    await_request
    kill -INT "$APPLICATION"
    CODE=0
    wait "$APPLICATION" || CODE=$?
    expect_code 1
    expect_line err "qpx: cannot write to standard output"
}

ColoursAreForTerminalsOnly() {
    run "$QPX" codes -118
    expect_no_text out $'\e'
    run "$QPX" --color always codes -118
    expect_text out $'\e[1m-118'
    # shellcheck disable=SC2016 # for the inner shell
    run env TERM=xterm script --quiet --return --command "'$QPX' codes -118" /dev/null
    expect_text out $'\e[1m-118'
    run env TERM=xterm NO_COLOR=1 script --quiet --return --command "'$QPX' codes -118" /dev/null
    expect_no_text out $'\e'
}

# ---- call ----------------------------------------------------------------------------------------

script() {
    cat >"$FOLDER/script.toml"
    gateway --script "$FOLDER/script.toml"
}

CallShowsTheReplyAsText() {
    gateway
    qpx call ECHO --text 'Grüß Gott'
    expect_code 0
    expect_nothing err
    expect_exactly out <<<'Grüß Gott'
}

CallSendsHexadecimalDigitsAndDumpsWhatIsNoText() {
    gateway
    qpx call ECHO --hex '00 01 02 41 42'
    expect_code 0
    expect_exactly out <<<'000000  00 01 02 41 42                                   |...AB|'
}

CallSendsAFileByteForByte() {
    gateway
    head -c 32767 /dev/urandom >"$FOLDER/data"
    qpx call ECHO --file "$FOLDER/data" --as raw
    expect_code 0
    cmp "$FOLDER/data" "$FOLDER/out" || fail "not what was sent"
}

CallSendsStandardInput() {
    gateway
    CODE=0
    printf %s hello | "$QPX" --port "$GATEWAY_PORT" call ECHO --file - >"$FOLDER/out" || CODE=$?
    expect_code 0
    expect_exactly out <<<hello
}

CallEndsWhereItsInputCannotBeRead() {
    gateway
    qpx call ECHO --file missing
    expect_complaint 1 "qpx: cannot read missing: No such file or directory"
    qpx call ECHO --file "$FOLDER"
    expect_complaint 1 "qpx: cannot read $FOLDER: Is a directory"
    # shellcheck disable=SC2016 # for the inner shell
    {
        qpx_within 'exec "$@" <.' call ECHO --file -
        expect_complaint 1 "qpx: cannot read standard input: Is a directory"
        qpx_within 'exec "$@" <&-' call ECHO --file -
        expect_complaint 1 "qpx: cannot read standard input: Bad file descriptor"
    }
    expect_no_text gateway.log ECI
}

CallConvertsTextToTheCodePageAndBack() {
    gateway
    qpx call ECHO --ccsid 37 --text 'AB 12' --as hex
    expect_code 0
    expect_exactly out <<<c1c240f1f2
    qpx call ECHO --ccsid 37 --text 'AB 12'
    expect_code 0
    expect_exactly out <<<'AB 12'
    qpx call ECHO --ccsid 819 --text '€'
    expect_complaint 2 "qpx: the text has characters that code page 819 does not have"
    qpx call ECHO --ccsid 9 --text x
    expect_complaint 2 "qpx: this system cannot convert code page 9"
}

CallEndsTextInTheStateInWhichItsCodePageBegins() {
    gateway
    local ccsid
    for ccsid in 930 939; do
        qpx call ECHO --ccsid "$ccsid" --text '日本' --as hex
        expect_code 0
        expect_exactly out <<<0e456245660f
        qpx call ECHO --ccsid "$ccsid" --text '日本'
        expect_code 0
        expect_exactly out <<<'日本'
    done
}

CallMakesRoomForALongerReplyAndSendsNoMoreThanTheData() {
    script <<<'[[on]]
program = "PRICE"
answer = "100106 Bag of flour"'
    qpx call PRICE --text 100106 --length 80
    expect_code 0
    expect_exactly out <<<'100106 Bag of flour'
    expect_text gateway.log 'program="PRICE" mode=0 token=0 commarea=6/80'
}

CallWithoutDataHasNoCommarea() {
    gateway
    qpx call ECHO
    expect_code 0
    expect_nothing out
    expect_text gateway.log 'commarea=0/0'
}

CallTellsTheGatewayTransactionAndServer() {
    gateway --journal "$FOLDER/calls"
    qpx --server VORNB call ECHO --transaction TRN1
    expect_code 0
    expect_text calls '"transaction":"TRN1","server":"VORNB"'
}

CallWritesJson() {
    gateway
    qpx call ECHO --text hello --json
    expect_code 0
    expect_exactly out <<'TEXT'
{"program":"ECHO","code":0,"name":"QPX_OK","microseconds":TIME,"commarea":{"length":5,"text":"hello","hex":"68656c6c6f"}}
TEXT
    qpx call ECHO --hex ff --json
    expect_code 0
    expect_exactly out <<'TEXT'
{"program":"ECHO","code":0,"name":"QPX_OK","microseconds":TIME,"commarea":{"length":1,"hex":"ff"}}
TEXT
}

CallTakesThePasswordFromADescriptor() {
    # shellcheck disable=SC2016 # for the gateway
    script <<<'[[user]]
id = "FRED"
password = "Blue7sky"
[[on]]
program = "HELLO"
answer = "Good morning, ${user}"'
    qpx_with_passwords Blue7sky --user FRED call HELLO --length 40
    expect_code 0
    expect_exactly out <<<'Good morning, FRED'
    qpx_with_passwords wrong --user FRED call HELLO --length 40
    expect_complaint 7 "qpx: HELLO: ECI_ERR_SECURITY_ERROR (-27): user id or password was refused"
}

CallRefusesWrongArguments() {
    expect_usage 'a program or --unit is missing' call
    expect_usage 'a program has at most 8 characters: NINECHARS' call NINECHARS
    expect_usage '--hex: "x" is no hexadecimal digit' call ECHO --hex 0x
    expect_usage '--hex: a hexadecimal digit is missing' call ECHO --hex 000
    expect_usage 'the length is a number from 5 to 32767, not 4' call ECHO --text hello --length 4
    expect_usage '--as takes auto, text, hex, dump or raw, not x' call ECHO --as x
    expect_usage '--extend takes commit or backout, not x' call ECHO --extend x
    expect_usage '--transaction: longer than 4 characters: TOOLONG' call ECHO --transaction TOOLONG
    expect_usage '--password-fd is given without a user' call ECHO --password-fd 0
    expect_usage '--unit takes its programs and their data from the file' call ECHO --unit x
    expect_usage '--text excludes --hex; "qpx --help" shows what there is' call ECHO --text x --hex 00
    head -c 32768 /dev/zero >"$FOLDER/data"
    expect_usage "a COMMAREA has at most 32767 bytes, and $FOLDER/data has more" call ECHO --file "$FOLDER/data"
    expect_usage 'a COMMAREA has at most 32767 bytes, not 32768' call ECHO --text "$(printf '%032768d' 0)"
}

CallReadsNoMoreOfAFileWithoutAnEndThanThereIsRoomFor() {
    expect_usage 'a COMMAREA has at most 32767 bytes, and /dev/zero has more' call ECHO --file /dev/zero
    expect_usage 'a unit of work has at most 100000000 bytes, and /dev/zero has more' call --unit /dev/zero
}

# ---- call --unit ---------------------------------------------------------------------------------

# A transfer of 100.00 from one account to the other, and a question for the balance of the first.
transfer() {
    printf '# a transfer\n'
    printf 'LEDGER text %-80s\n' 'D  ACC00001000000010000' 'C  ACC00002000000010000'
}

balance() {
    qpx call LEDGER --text "$(printf '%-80s' 'Q  ACC00001')"
    expect_code 0
    cut -c 24-36 "$FOLDER/out"
}

UnitIsCommittedWhenAllItsCallsHaveSucceeded() {
    gateway
    local before after
    before=$(balance)
    transfer >"$FOLDER/unit"
    qpx call --unit "$FOLDER/unit"
    expect_code 0
    expect_exactly err <<<'qpx: committed'
    after=$(balance)
    ((10#${before#?} - 10#${after#?} == 10000)) || fail "$before became $after"
}

UnitIsBackedOutWhenThatIsWanted() {
    gateway
    local before after
    before=$(balance)
    transfer >"$FOLDER/unit"
    qpx call --unit "$FOLDER/unit" --extend backout
    expect_code 0
    expect_exactly err <<<'qpx: backed out'
    after=$(balance)
    [[ $before == "$after" ]] || fail "$before became $after"
}

UnitStopsAtTheCallThatFailsAndChangesNothing() {
    gateway
    local before after
    before=$(balance)
    { transfer && printf 'ABEND text FULL\nECHO text never\n'; } >"$FOLDER/unit"
    qpx call --unit "$FOLDER/unit"
    expect_code 6
    expect_text err "qpx: $FOLDER/unit, line 4: ABEND: ECI_ERR_TRANSACTION_ABEND (-7), abend code FULL"
    expect_no_text gateway.log never
    after=$(balance)
    [[ $before == "$after" ]] || fail "$before became $after"
}

UnitWhoseCommitGetsNoAnswerIsInDoubt() {
    gateway --misbehave drop@nth:2
    printf 'ECHO text x\n' >"$FOLDER/unit"
    qpx call --unit "$FOLDER/unit"
    expect_code 3
    expect_text err "qpx: commit: QPX_ERR_LOSTGWCON (-102)"
    expect_line err "qpx: the unit of work is in doubt: ask the server what it has before you send it again"
}

unit_in_pieces() {
    transfer >"$FOLDER/unit"
    in_pieces "$1" "$FOLDER/unit" 2 "$QPX" --port "$GATEWAY_PORT" call --unit -
}

UnitIsReadToTheEndOfAPipeThatDoesNotBlock() {
    gateway
    local before after
    before=$(balance)
    unit_in_pieces pipe
    expect_code 0
    expect_exactly err <<<'qpx: committed'
    expect_text out "D00ACC00001000000010000"
    expect_text out "C00ACC00002000000010000"
    after=$(balance)
    ((10#${before#?} - 10#${after#?} == 10000)) || fail "$before became $after"
}

UnitWhoseInputBreaksOffChangesNothing() {
    gateway
    unit_in_pieces connection
    expect_complaint 1 "qpx: cannot read standard input: Connection reset by peer"
    expect_no_text gateway.log ECI
}

UnitWritesJson() {
    gateway
    printf 'ECHO text one\nECHO length 5 hex 00ff\n' >"$FOLDER/unit"
    qpx call --unit "$FOLDER/unit" --json
    expect_code 0
    expect_exactly out <<'TEXT'
{"unit":"committed","calls":[{"program":"ECHO","code":0,"name":"QPX_OK","microseconds":TIME,"commarea":{"length":3,"text":"one","hex":"6f6e65"}},{"program":"ECHO","code":0,"name":"QPX_OK","microseconds":TIME,"commarea":{"length":5,"hex":"00ff000000"}}]}
TEXT
}

UnitNamesTheLineThatIsWrong() {
    printf '\nECHO text one\nECHO texts two\n' >"$FOLDER/unit"
    expect_usage "$FOLDER/unit, line 3: neither length, text, hex nor file: texts" call --unit "$FOLDER/unit"
    printf '# nothing\n' >"$FOLDER/unit"
    expect_usage "$FOLDER/unit has no calls" call --unit "$FOLDER/unit"
}

# ---- systems -------------------------------------------------------------------------------------

SystemsListsThemAll() {
    gateway_with_registry
    qpx systems
    expect_code 0
    expect_nothing err
    expect_exactly out <<'TEXT'
VORNA     Accounts, head office
VORNB     Accounts, branch offices
VORNOLD   Accounts before the merger, read only
VORNTEST  Tests, at office hours
TEXT
}

SystemsWritesJson() {
    gateway --system 'ONE=The first' --system 'TWO='
    qpx systems --json
    expect_code 0
    expect_exactly out <<'TEXT'
{"systems":[{"name":"ONE","description":"The first"},{"name":"TWO","description":""}]}
TEXT
}

SystemsMakesRoomUntilAllFit() {
    local number systems=()
    for ((number = 1; number <= 300; ++number)); do systems+=(--system "S$number=x"); done
    gateway "${systems[@]}"
    qpx systems
    expect_code 0
    [[ $(wc -l <"$FOLDER/out") == 300 ]] || fail "not all of them"
    expect_line out "S300      x"
}

SystemsSaysWhenThereIsNone() {
    gateway
    qpx systems
    expect_code 0
    expect_nothing out
    expect_line err "qpx: the Gateway knows no server"
}

SystemsNamesTheErrorOfAFailedCall() {
    gateway --misbehave flow-error=61446
    qpx systems
    expect_complaint 4 "qpx: systems: QPX_ERR_GATEWAY_EXCEPTION (61446): the Gateway failed over this request"
}

# ---- password ------------------------------------------------------------------------------------

PasswordVerifiesAndTellsOfTheUser() {
    gateway_with_registry
    qpx_with_passwords Paper4boat password verify ANNA
    expect_code 0
    expect_nothing err
    expect_line out "The password of ANNA is right."
    expect_line out "Last verified:   2026-01-30 17:02:11"
    expect_line out "Last access:     2026-01-30 17:02:12"
    expect_line out "Wrong attempts:  1"
}

PasswordWritesJson() {
    gateway_with_registry
    qpx_with_passwords Paper4boat password verify ANNA --json
    expect_code 0
    sed -i -E 's/("expires":")[0-9: -]+"/\1WHEN"/' "$FOLDER/out"
    expect_exactly out <<'TEXT'
{"user":"ANNA","changed":false,"verified":"2026-01-30 17:02:11","accessed":"2026-01-30 17:02:12","expires":"WHEN","invalid":1}
TEXT
}

PasswordChangesIt() {
    gateway_with_registry
    qpx_with_passwords $'Blue7sky\nGreen8hill' password change FRED
    expect_code 0
    expect_line out "The password of FRED is changed."
    qpx_with_passwords Green8hill password verify FRED
    expect_code 0
    qpx_with_passwords Blue7sky password verify FRED
    expect_code 7
}

PasswordAsksTheServerThatIsNamed() {
    gateway_with_registry
    qpx_with_passwords Blue7sky --server VORNTEST password verify FRED
    expect_complaint 5 "qpx: verify: ESI_ERR_NO_VORN (-310): the server is not available"
}

PasswordThatIsWrongIsExitCode7() {
    gateway_with_registry
    qpx_with_passwords nonsense password verify FRED
    expect_complaint 7 "qpx: verify: ESI_ERR_PASSWORD_INVALID (-302): the password is wrong"
    qpx_with_passwords $'Blue7sky\nshort' password change FRED
    expect_complaint 7 "qpx: change: ESI_ERR_PASSWORD_REJECTED (-315): the new password breaks the server's rules"
}

PasswordsAreReadToTheEndOfAPipeThatDoesNotBlock() {
    gateway_with_registry
    printf '%s\n' Blue7sky Green8hill >"$FOLDER/passwords"
    in_pieces pipe "$FOLDER/passwords" 1 "$QPX" --port "$GATEWAY_PORT" password change FRED \
        --password-fd 0
    expect_code 0
    expect_line out "The password of FRED is changed."
}

PasswordTellsOfPasswordsThatAreMissing() {
    GATEWAY_PORT=1
    : >"$FOLDER/passwords"
    run bash -c '"$1" password verify FRED --password-fd 0 <"$2"' - "$QPX" "$FOLDER/passwords"
    expect_complaint 1 "qpx: the password is missing"
    qpx_with_passwords Blue7sky password change FRED
    expect_complaint 1 "qpx: the new password is missing"
    qpx_with_passwords "$(printf '%0513d' 1)" password verify FRED
    expect_complaint 1 "qpx: the password is longer than 512 characters"
    run setsid --wait "$QPX" password verify FRED
    expect_complaint 2 "qpx: there is no terminal to ask for the password at; give it with --password-fd"
}

PasswordIsNeverShown() {
    gateway_with_registry
    export QPX_CLIENT_TRACE_LEVEL=5 QPX_CLIENT_TRACE_FILE=$FOLDER/trace
    qpx_with_passwords $'Blue7sky\nGreen8hill' password change FRED --json
    expect_code 0
    [[ -s $FOLDER/trace ]] || fail "no trace"
    local file word
    for file in out err trace gateway.log; do
        for word in Blue7sky Green8hill; do expect_no_text "$file" "$word"; done
    done
}

# Runs qpx at a terminal and types each line when it is asked for something.
type_at_a_terminal() {
    local lines=$1 command question line
    shift
    local keyboard screen

    printf -v command '%q ' "$@"
    mkfifo "$FOLDER/keyboard" "$FOLDER/screen"
    exec {keyboard}<>"$FOLDER/keyboard" {screen}<>"$FOLDER/screen"
    # A shell starts what is to run beside it with Ctrl-C ignored.
    env --default-signal=INT script --quiet --return --command "exec $command >$FOLDER/out" \
        /dev/null <"$FOLDER/keyboard" >"$FOLDER/screen" 2>&1 &
    : >"$FOLDER/questions"
    while IFS= read -r line; do
        IFS= read -r -d : -u "$screen" question
        printf '%s\n' "${question##*$'\n'}" >>"$FOLDER/questions"
        # shellcheck disable=SC2059 # what is typed is a format
        printf "$line" >&"$keyboard"
    done <<<"$lines"
    CODE=0
    wait $! || CODE=$?
    # What is left on the screen, up to a mark of the case's own.
    printf '\001' >&"$screen"
    IFS= read -r -d $'\001' -u "$screen" REST || true
    printf '%s' "$REST" >"$FOLDER/rest"
    exec {keyboard}>&- {screen}>&-
}

PasswordIsAskedForAtTheTerminalAndDoesNotShow() {
    gateway_with_registry
    type_at_a_terminal 'Blue7sky\n' "$QPX" --port "$GATEWAY_PORT" password verify FRED
    expect_code 0
    expect_exactly questions <<<'The password'
    expect_line out "The password of FRED is right."
    expect_no_text rest Blue7sky
}

PasswordThatIsNewIsAskedForTwice() {
    gateway_with_registry
    type_at_a_terminal $'Blue7sky\\n\nGreen8hill\\n\nGreen9hill\\n' \
        "$QPX" --port "$GATEWAY_PORT" password change FRED
    expect_code 1
    expect_exactly questions <<'TEXT'
The current password
The new password
The new password again
TEXT
    expect_text rest "the new passwords differ"
    expect_no_text gateway.log "request"
}

PasswordIsInterruptedAndLeavesATerminalThatShowsWhatIsTyped() {
    gateway_with_registry
    # shellcheck disable=SC2016 # for the inner shell
    type_at_a_terminal '\003' bash -c 'trap : INT; "${@:2}"; stty -a >"$1"' - "$FOLDER/stty" \
        "$QPX" --port "$GATEWAY_PORT" password verify FRED
    expect_text stty " echo "
    expect_no_text gateway.log "request"
}

PasswordRefusesWrongArguments() {
    expect_usage 'user is required; "qpx --help" shows what there is' password verify
    expect_usage 'longer than 10 characters: ELEVENCHARS' password verify ELEVENCHARS --password-fd 0
    expect_usage 'a descriptor is a number from 0 to 1048575, not x' password verify FRED --password-fd x
}

# ---- channel -------------------------------------------------------------------------------------

ChannelShowsEveryContainerOfTheReply() {
    gateway
    printf '\0\1\2' >"$FOLDER/data"
    qpx channel CHANECHO 'GREETING=Grüß Gott' "BYTES=@$FOLDER/data" DIGITS,hex=00ff
    expect_code 0
    expect_nothing err
    expect_exactly out <<'TEXT'
DIGITS: binary, 2 bytes
000000  00 ff                                            |..|
BYTES: binary, 3 bytes
000000  00 01 02                                         |...|
GREETING: characters in 1208, 11 bytes
Grüß Gott
TEXT
}

ChannelConvertsTextAndTakesFilesAsTheyAre() {
    gateway
    printf '\xc1\xc2' >"$FOLDER/ebcdic"
    qpx channel CHANECHO 'TYPED,37=AB' "FILE,37=@$FOLDER/ebcdic" --as hex
    expect_code 0
    expect_exactly out <<'TEXT'
FILE: characters in 37, 2 bytes
c1c2
TYPED: characters in 37, 2 bytes
c1c2
TEXT
}

ChannelGetsOneContainerAlone() {
    gateway
    qpx channel CHANEDIT 'EDITS,819=add ANSWER char 819 fortytwo' --get ANSWER
    expect_code 0
    expect_exactly out <<<fortytwo
    qpx channel CHANECHO A=b --get NONE
    expect_complaint 1 "qpx: container NONE: ECI_ERR_CONTAINER_NOTFOUND (-58): the channel has no container of that name"
}

ChannelTakesAnOrderThatIsPriced() {
    gateway
    printf 'order=A-1\naccount=ACC00001\ndate=2026-03-02\ncurrency=EUR\n' >"$FOLDER/header"
    qpx channel ORDERS "ORDER.HEADER,819=@$FOLDER/header" ORDER.LINES,hex=000187090000000100000000 --get STATUS
    expect_code 0
    expect_line out "status=PRICED"
}

ChannelWritesJson() {
    gateway
    qpx channel CHANECHO A=b C,hex=00ff --channel MINE --json
    expect_code 0
    expect_exactly out <<'TEXT'
{"program":"CHANECHO","code":0,"name":"QPX_OK","channel":"MINE","containers":[{"name":"C","type":"bit","length":2,"hex":"00ff"},{"name":"A","type":"char","ccsid":1208,"length":1,"text":"b","hex":"62"}]}
TEXT
    expect_text gateway.log 'channel="MINE" containers=2'
}

ChannelEndsWhereItsInputCannotBeRead() {
    gateway
    # shellcheck disable=SC2016 # for the inner shell
    qpx_within 'exec "$@" <&-' channel CHANECHO A=@-
    expect_complaint 1 "qpx: cannot read standard input: Bad file descriptor"
    expect_no_text gateway.log ECI
}

ChannelRefusesWrongArguments() {
    expect_usage 'NAME: not NAME=VALUE' channel CHANECHO NAME
    expect_usage 'A: a code page is a number from 1 to 65535, not x' channel CHANECHO A,x=b
    expect_usage 'A: a hexadecimal digit is missing' channel CHANECHO A,hex=0
    run "$QPX" channel CHANECHO 'B(=x'
    expect_complaint 2 "qpx: container B(: ECI_ERR_INVALID_NAME (-51): a name is not 1 to 16 allowed characters"
    run "$QPX" channel CHANECHO A=x A=y
    expect_complaint 2 "qpx: container A: ECI_ERR_CONTAINER_EXISTS (-59): the channel has a container of that name"
    run "$QPX" channel CHANECHO A=@missing
    expect_complaint 1 "qpx: cannot read missing: No such file or directory"
}

# ---- ping ----------------------------------------------------------------------------------------

# Standard output with every time in milliseconds replaced.
expect_out_but_for_times() {
    sed -i -E -e 's/time=[0-9.]+ ms/time=T/' -e 's/time [0-9]+ ms/time T/' \
        -e 's|= [0-9.]+/[0-9.]+/[0-9.]+/[0-9.]+ ms|= T|' "$FOLDER/out"
    expect_exactly out
}

PingCountsAnswersAndShowsStatistics() {
    gateway --journal "$FOLDER/calls"
    qpx ping --count 3 --interval 0
    expect_code 0
    expect_nothing err
    expect_out_but_for_times <<'TEXT'
answer from 127.0.0.1:PORT: request=1 time=T
answer from 127.0.0.1:PORT: request=2 time=T
answer from 127.0.0.1:PORT: request=3 time=T

--- 127.0.0.1:PORT ping statistics ---
3 requests, 3 answers, 0% lost, time T
min/avg/max/mdev = T
TEXT
    [[ $(grep -c '"type":"list"' "$FOLDER/calls") == 3 ]] || fail "not three lists were asked for"
}

PingOpensALostConnectionAnew() {
    gateway --misbehave drop@nth:2
    qpx ping --count 3 --interval 0
    expect_code 3
    expect_out_but_for_times <<'TEXT'
answer from 127.0.0.1:PORT: request=1 time=T
no answer from 127.0.0.1:PORT: request=2 QPX_ERR_LOSTGWCON (-102)
answer from 127.0.0.1:PORT: request=3 time=T

--- 127.0.0.1:PORT ping statistics ---
3 requests, 2 answers, 33.33% lost, time T
min/avg/max/mdev = T
TEXT
    expect_text gateway.log "connection 2: accepted"
}

PingCallsTheProgramThatIsNamed() {
    gateway
    qpx ping --program ECHO --count 1
    expect_code 0
    expect_text gateway.log 'ECI program="ECHO" mode=0'
}

PingTellsOfEachFailureWithoutAGateway() {
    closed_port
    qpx ping --count 2 --interval 0
    expect_code 3
    expect_out_but_for_times <<'TEXT'
no answer from 127.0.0.1:PORT: request=1 QPX_ERR_CONNECTFAILED (-118)
no answer from 127.0.0.1:PORT: request=2 QPX_ERR_CONNECTFAILED (-118)

--- 127.0.0.1:PORT ping statistics ---
2 requests, 0 answers, 100% lost, time T
TEXT
}

PingWritesALineOfJsonForEachRequest() {
    gateway
    qpx ping --count 2 --interval 0 --json
    expect_code 0
    expect_text out '{"request":2,"milliseconds":'
    expect_text out '{"requests":2,"answers":2,"lostpercent":0.0,"milliseconds":'
    [[ $(wc -l <"$FOLDER/out") == 3 ]] || fail "not three lines"
}

# The request is on its way, and its answer is kept.
PingShowsStatisticsWhenItIsInterrupted() {
    local pid lines line
    gateway --misbehave hold@skip:1
    mkfifo "$FOLDER/fifo"
    env --default-signal=INT "$QPX" --port "$GATEWAY_PORT" ping --interval 0 >"$FOLDER/fifo" &
    pid=$!
    exec {lines}<"$FOLDER/fifo"
    IFS= read -r -u "$lines" line
    kill -INT "$pid"
    cat <&"$lines" >"$FOLDER/out"
    CODE=0
    wait "$pid" || CODE=$?
    expect_code 0
    expect_line out "--- 127.0.0.1:$GATEWAY_PORT ping statistics ---"
    expect_text out " 1 answers, "
}

PingEndsWhenNobodyReadsItsLinesAnyMore() {
    gateway
    {
        CODE=0
        "$QPX" --port "$GATEWAY_PORT" ping --interval 0 2>"$FOLDER/err" || CODE=$?
        printf '%s\n' "$CODE" >"$FOLDER/code"
    } | read -r
    CODE=$(<"$FOLDER/code")
    expect_code 1
    expect_line err "qpx: cannot write to standard output"
}

# Its output takes nothing, and so there is no telling. The first one has been taken when it is no
# longer pending, and the second will end the program when a thread does not block it.
PingEndsAtASecondInterruption() {
    gateway
    CODE=0
    python3 - env --default-signal=INT "$QPX" --port "$GATEWAY_PORT" ping <<'PYTHON' || CODE=$?
import os, pathlib, signal, subprocess, sys


def has_interruption(status, field):
    mask = int(status.split(f"{field}:\t")[1].split()[0], 16)
    return mask & 1 << (signal.SIGINT - 1) != 0


def await_threads(hold):
    tasks = pathlib.Path("/proc", str(ping.pid), "task")
    while not hold([(task / "status").read_text() for task in tasks.iterdir()]):
        pass


unread, output = os.pipe()
os.set_blocking(output, False)
try:
    while True:
        os.write(output, b"x")
except BlockingIOError:
    os.set_blocking(output, True)
ping = subprocess.Popen(sys.argv[1:], stdout=output)
await_threads(lambda all: len(all) > 1 and any(has_interruption(one, "SigBlk") for one in all))
ping.send_signal(signal.SIGINT)
await_threads(
    lambda all: any(
        not has_interruption(one, "ShdPnd") and not has_interruption(one, "SigBlk") for one in all
    )
)
ping.send_signal(signal.SIGINT)
sys.exit(128 - ping.wait())
PYTHON
    expect_code 130
}

PingRefusesWrongArguments() {
    expect_usage '--count is a number from 1 to 1000000000, not 0' ping --count 0
    expect_usage 'an interval is a number of seconds from 0 to 86400' ping --interval -1
    expect_usage 'a program has at most 8 characters: NINECHARS' ping --program NINECHARS
}

# ---- load ----------------------------------------------------------------------------------------

LoadMakesAsManyCallsAsItIsToldTo() {
    gateway --log-level error --journal "$FOLDER/calls"
    qpx load ECHO --threads 4 --connections 2 --count 1000
    expect_code 0
    expect_nothing err
    [[ $(wc -l <"$FOLDER/calls") == 1000 ]] || fail "not 1000 calls"
    expect_line out "ECHO at 127.0.0.1:$GATEWAY_PORT: threads 4, connections 2, window 1, 100 bytes"
    grep -qE '^1000 calls in [0-9.]+ s, [0-9]+ a second, 0 failed$' "$FOLDER/out" || fail "no count"
    grep -qE '^50 % [0-9.]+  90 % [0-9.]+  99 % [0-9.]+  99.9 % [0-9.]+ ms$' "$FOLDER/out" ||
        fail "no percentiles"
    awk '/ ms  #/ { sum += $NF } END { exit sum != 1000 }' "$FOLDER/out" ||
        fail "the histogram does not have all of them"
}

LoadKeepsAWindowOfRequestsOnTheirWay() {
    gateway --misbehave reverse=8
    qpx load ECHO --window 8 --count 80 --json
    expect_code 0
    expect_text out '"window":8,"calls":80,'
    expect_text out '"failures":[]'
}

LoadEndsAfterItsDuration() {
    gateway --log-level error
    qpx load ECHO --duration 0.2
    expect_code 0
    expect_text out " 0 failed"
}

LoadCountsFailuresByTheirCode() {
    gateway
    qpx load ABEND --count 10
    expect_code 6
    expect_text out "10 failed"
    expect_line out "  10 of ECI_ERR_TRANSACTION_ABEND (-7)"
}

LoadEndsWhenTheConnectionIsLost() {
    gateway --misbehave drop@nth:5
    qpx load ECHO --count 100
    expect_code 3
    expect_line out "  1 of QPX_ERR_LOSTGWCON (-102)"
}

LoadCountsNoTimeBeforeItsCallsBegin() {
    gateway --misbehave no-handshake-answer
    env --default-signal=INT "$QPX" --port "$GATEWAY_PORT" load ECHO >"$FOLDER/out" \
        2>"$FOLDER/err" &
    APPLICATION=$!
    await_line gateway.log "connection 1: handshake"
    kill -INT "$APPLICATION"
    CODE=0
    wait "$APPLICATION" || CODE=$?
    expect_code 0
    expect_line out "0 calls in 0.000 s, 0 a second, 0 failed"
}

# The terminal takes nothing, which the progress line waits for when the program is told to end.
LoadIsEndedWhileTheTerminalTakesNothing() {
    gateway --log-level error
    CODE=0
    python3 - "$QPX" --port "$GATEWAY_PORT" load ECHO --duration 3600 >"$FOLDER/out" <<'PYTHON' || CODE=$?
import os, pathlib, pty, subprocess, sys

unread, terminal = pty.openpty()
os.set_blocking(terminal, False)
try:
    while True:
        os.write(terminal, b"x")
except BlockingIOError:
    os.set_blocking(terminal, True)
load = subprocess.Popen(sys.argv[1:], stderr=terminal)
call = pathlib.Path("/proc", str(load.pid), "syscall")
while call.read_text().split()[1:2] != ["0x2"]:  # something with descriptor 2
    pass
load.terminate()
sys.exit(load.wait())
PYTHON
    expect_code 0
    expect_text out " 0 failed"
}

LoadHasRoomForAsManyThreadsAsItTakes() {
    gateway --log-level error
    # shellcheck disable=SC2016 # for the inner shell
    qpx_within 'ulimit -s 8192 && exec "$@"' load ECHO --threads 1000 --count 2000
    expect_code 0
    expect_text out "2000 calls in "
    expect_text out " 0 failed"
}

LoadSaysHowManyThreadsCouldBeStartedAndMakesNoCall() {
    gateway
    # shellcheck disable=SC2016 # for the inner shell
    qpx_within 'ulimit -v 400000 && exec "$@"' load ECHO --threads 1000 --count 2000
    expect_code 1
    expect_nothing out
    grep -qxE 'qpx: only [1-9][0-9]* of 1000 threads could be started; --threads and --connections take fewer, and ulimit -u and -v set how many there can be' \
        "$FOLDER/err" || fail "does not say how many"
    expect_no_text gateway.log ECI
}

LoadSaysThatThereIsNoThreadForInterruptions() {
    gateway
    # shellcheck disable=SC2016 # for the inner shell
    qpx_within 'ulimit -s 500000 && ulimit -v 400000 && exec "$@"' load ECHO --count 10
    expect_complaint 1 "qpx: cannot start a thread: Resource temporarily unavailable; ulimit -u, -v and -s set how many there can be"
}

LoadRefusesWrongArguments() {
    expect_usage '--threads is a number from 1 to 1000, not 0' load ECHO --threads 0
    expect_usage '--window is a number from 1 to 100000, not x' load ECHO --window x
    expect_usage '--count is a number from 1 to 1000000000, not 0' load ECHO --count 0
    expect_usage 'a duration is a number of seconds up to 86400, and more than 0' load ECHO --duration 0
    expect_usage 'there are fewer threads than connections' load ECHO --connections 2
    expect_usage 'either --text or --size' load ECHO --text x --size 1
}

# ---- completions ---------------------------------------------------------------------------------

# The first words that bash offers behind these.
completed() {
    # shellcheck disable=SC1091 # it is there
    (
        source "$HERE/../completions/qpx.bash"
        COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
        _qpx
        printf '%s\n' "${COMPREPLY[@]}"
    ) >"$FOLDER/out"
}

BashCompletesCommandsOptionsAndTheirValues() {
    completed qpx c
    expect_exactly out <<<$'call\nchannel\ncodes'
    completed qpx --port 1 call ECHO --as ''
    expect_exactly out <<<$'auto\ntext\nhex\ndump\nraw'
    completed qpx load ECHO --w
    expect_exactly out <<<--window
    completed qpx password ch
    expect_exactly out <<<change
}

# What zsh or fish offers for the command lines on standard input.
completed_by() {
    cat >"$FOLDER/lines"
    case $1 in
    zsh) run zsh -f "$HERE/complete.zsh" "$HERE/../completions" "$FOLDER/lines" ;;
    fish) run fish --no-config "$HERE/complete.fish" "$HERE/../completions/qpx.fish" "$FOLDER/lines" ;;
    esac
    expect_code 0
    expect_nothing err
}

expect_words_of() {
    completed_by "$1" <<'TEXT'
qpx c
qpx --port 1 c
qpx call --extend b
qpx load ECHO --w
qpx password ch
qpx --color al
TEXT
    expect_exactly out <<'TEXT'
> qpx c
call
channel
codes
> qpx --port 1 c
call
channel
codes
> qpx call --extend b
backout
> qpx load ECHO --w
--window
> qpx password ch
change
> qpx --color al
always
TEXT
}

ZshCompletesCommandsOptionsAndTheirValues() {
    expect_words_of zsh
}

FishCompletesCommandsOptionsAndTheirValues() {
    expect_words_of fish
}

# "COMMAND OPTION" for each long option that the help of a command has.
options_of_the_help() {
    local command
    for command in '' call channel systems "password verify" "password change" ping load trace \
        codes doctor; do
        # shellcheck disable=SC2086 # a command of two words
        run "$QPX" $command --help
        expect_code 0
        grep -oE '^ +(-[a-zA-Z],)?--[a-z-]+' "$FOLDER/out" | grep -oE -- '--[a-z-]+' |
            sed "s/^/qpx $command /"
    done
}

BashCompletesEveryOptionOfTheHelp() {
    local line
    options_of_the_help >"$FOLDER/all"
    while read -r line; do
        # shellcheck disable=SC2086 # words
        completed $line
        expect_line out "${line##* }"
    done <"$FOLDER/all"
}

# Each line is followed by what it ends with.
expect_every_option() {
    options_of_the_help >"$FOLDER/all"
    [[ -s $FOLDER/all ]] || fail "there are no options"
    completed_by "$1" <"$FOLDER/all"
    awk '/^> / { line = substr($0, 3); wanted = $NF } $0 == wanted { print line }' "$FOLDER/out" \
        >"$FOLDER/found"
    expect_same "$FOLDER/all" "$FOLDER/found"
}

ZshCompletesEveryOptionOfTheHelp() {
    expect_every_option zsh
}

FishCompletesEveryOptionOfTheHelp() {
    expect_every_option fish
}

# ---- installed -----------------------------------------------------------------------------------

expect_installed() {
    (cd "$FOLDER/$1" && find . -type f -path '*qpx*' ! -path './include/*' ! -name '*.so*' \
        ! -path '*/cmake/*' ! -path '*/pkgconfig/*' ! -name '*.py' ! -name '*.cpy' | sed 's/^..//' | sort) >"$FOLDER/tree"
    expect_exactly tree
}

InstalledItFindsItsLibraryAndShellsFindItsCompletions() {
    local part
    for part in src client; do
        run cmake --install "$PROGRAMS/../$part" --prefix "$FOLDER/opt"
        expect_code 0
    done
    expect_installed opt <<'TEXT'
bin/qpx
share/bash-completion/completions/qpx
share/fish/vendor_completions.d/qpx.fish
share/qpxclient/qpx.lua
share/zsh/site-functions/_qpx
TEXT
    run "$FOLDER/opt/bin/qpx" --version
    expect_code 0
}

InstalledForTheSystemItHasNoPathOfItsOwn() {
    run env DESTDIR="$FOLDER/root" cmake --install "$PROGRAMS" --prefix /usr
    expect_code 0
    expect_installed root/usr <<'TEXT'
bin/qpx
share/bash-completion/completions/qpx
share/fish/vendor_completions.d/qpx.fish
share/qpxclient/qpx.lua
share/zsh/vendor-completions/_qpx
TEXT
    run readelf -d "$FOLDER/root/usr/bin/qpx"
    expect_text out libqpxclient.so.10
    expect_no_text out PATH
}

# ---- trace ---------------------------------------------------------------------------------------

# Runs qpx with the library's trace at this level, which goes to trace of $FOLDER.
traced() {
    local level=$1
    shift
    run env QPX_CLIENT_TRACE_LEVEL="$level" QPX_CLIENT_TRACE_FILE="$FOLDER/trace" \
        QPX_CLIENT_DATA_LENGTH=0 "$QPX" --port "$GATEWAY_PORT" "$@"
}

# That out is what stands on standard input, but for what differs from run to run: times, processes,
# threads, addresses, and the number of lines. Blanks count once.
expect_trace() {
    cat >"$FOLDER/expected"
    sed -E -e "s/:${GATEWAY_PORT:-none}\b/:PORT/" -e 's/[0-9-]*T?[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}/TIME/g' \
        -e 's/^( +[0-9]+  )TIME +[0-9]+  0x[0-9A-F]{8}/\1TIME PID THREAD/' -e 's/\b[0-9]+ ms/N/g' \
        -e 's/^ +[0-9]+  0x[0-9A-F]{8}/  AT THREAD/' -e 's/^  TIME  0x[0-9A-F]{8}/  TIME THREAD/' -e 's/process [0-9]+/process PID/' \
        -e 's/(token|receiver) 0x[0-9a-fA-F]+/\1 X/g' -e 's/; [0-9]+ lines/; N lines/' \
        -e 's/("(process|milliseconds|gateway|library|lines)"):[0-9]+/\1:N/g' -e 's/"0x[0-9a-fA-F]+"/"X"/g' \
        -e 's/ +/ /g' "$FOLDER/out" >"$FOLDER/out.seen"
    expect_same "$FOLDER/expected" "$FOLDER/out.seen"
}

a_trace_with_a_unit() {
    gateway
    printf '%s\n' 'ECHO text one' 'ECHO text two' >"$FOLDER/unit"
    traced 4 call --unit unit
    expect_code 0
}

TraceShowsCallsAsATable() {
    a_trace_with_a_unit
    run "$QPX" trace trace
    expect_code 0
    expect_nothing err
    expect_trace <<'TEXT'
CALL TIME PROCESS THREAD CONN TOTAL GATEWAY LIBRARY RESULT WHAT
 1 TIME PID THREAD 1 N N N ok open 127.0.0.1:PORT
 2 TIME PID THREAD 1 N N N ok call ECHO, in a unit
 3 TIME PID THREAD 1 N N N ok call ECHO, in a unit
 4 TIME PID THREAD 1 N N N ok commit
 5 TIME PID THREAD 1 N - N ok close
connection 1: process PID, 127.0.0.1:PORT, token X, receiver X, 5 calls, closed by API
5 calls, 0 failed, 0 without an end; N lines, level 4
TEXT
}

TraceNamesNoProgramsAtLevel3() {
    gateway
    traced 3 call ECHO --text hello
    run "$QPX" trace trace
    expect_code 0
    expect_trace <<'TEXT'
CALL TIME PROCESS THREAD CONN TOTAL GATEWAY LIBRARY RESULT WHAT
 1 TIME PID THREAD 1 N N N ok open 127.0.0.1:PORT
 2 TIME PID THREAD 1 N N N ok call
 3 TIME PID THREAD 1 N - N ok close
connection 1: process PID, 127.0.0.1:PORT, token X, receiver X, 3 calls, closed by API
3 calls, 0 failed, 0 without an end; N lines, level 3
TEXT
}

TraceTellsWhatLevel2Has() {
    gateway
    traced 2 call ECHO --text hello
    run "$QPX" trace trace
    expect_code 0
    expect_trace <<'TEXT'
CALL TIME PROCESS THREAD CONN TOTAL GATEWAY LIBRARY RESULT WHAT
 1 TIME PID THREAD 1 N - - ? call
connection 1: process PID, 127.0.0.1:PORT, token X, 1 call
1 calls, 0 failed, 0 without an end; N lines, level 2
At this level calls are not named, and have no results: that takes level 3.
TEXT
}

TraceTellsWhatLevel1Has() {
    gateway
    traced 1 call ABEND --text BOOM
    run "$QPX" trace trace
    expect_code 0
    expect_trace <<'TEXT'
CALL TIME PROCESS THREAD CONN TOTAL GATEWAY LIBRARY RESULT WHAT
failures outside of calls:
 TIME THREAD [3035] *EXC* clapi_gwycon.receiverThread() Gateway returned ECI error, rc=-7 (ECI_ERR_TRANSACTION_ABEND)
0 calls, 0 failed, 0 without an end; N lines, level 1
At this level calls are not named, and have no results: that takes level 3.
TEXT
}

TraceShowsFailedCallsAndWhy() {
    gateway
    traced 4 call ABEND --text BOOM
    traced 4 call ECHO --text hello
    run "$QPX" trace --failed trace
    expect_code 0
    expect_trace <<'TEXT'
CALL TIME PROCESS THREAD CONN TOTAL GATEWAY LIBRARY RESULT WHAT
 2 TIME PID THREAD 1 N N N ECI_ERR_TRANSACTION_ABEND BOOM call ABEND
 [3035] *EXC* clapi_gwycon.receiverThread() Gateway returned ECI error, rc=-7 (ECI_ERR_TRANSACTION_ABEND)
connection 1: process PID, 127.0.0.1:PORT, token X, receiver X, 3 calls, 1 failed, closed by API
connection 2: process PID, 127.0.0.1:PORT, token X, receiver X, 3 calls, closed by API
7 calls, 1 failed, 0 without an end; N lines, level 4
TEXT
}

TraceMeasuresTheTimeAtTheGateway() {
    script <<<'[[on]]
answer = { text = "late", delay = "300ms" }'
    traced 3 call ECHO --text hello
    run "$QPX" trace --json --slow 300 trace
    expect_code 0
    python3 - "$FOLDER/out" <<'PYTHON' || fail "other times"
import json, sys
lines = [json.loads(line) for line in open(sys.argv[1])]
call = [line for line in lines if line.get("function") == "QPX_ECI_Execute"][0]
assert call["gateway"] >= 299, call
assert call["milliseconds"] == call["gateway"] + call["library"], call
PYTHON
    run "$QPX" trace --slow 1000000 trace
    expect_code 0
    expect_no_text out '  ok  '
}

TraceTellsWhoseReplyItWasWhereSeveralCallsAreOnTheirWay() {
    gateway --misbehave reverse=4@program:ECHO
    traced 4 load ECHO --window 4 --count 4
    expect_code 0
    run "$QPX" trace --connection 1 trace
    expect_code 0
    grep -oE 'call [0-9]+ is (sent|answered)' "$FOLDER/out" | sort -k 4,4r -k 2,2n >"$FOLDER/seen"
    printf 'call %s is sent\n' 1 2 3 4 5 >"$FOLDER/wanted"
    printf 'call %s is answered\n' 1 2 3 4 5 >>"$FOLDER/wanted"
    expect_same "$FOLDER/wanted" "$FOLDER/seen"
    grep -oE 'call [0-9]+ is answered' "$FOLDER/out" | grep -oE '[0-9]+' | tr '\n' ' ' >"$FOLDER/order"
    [[ $(cat "$FOLDER/order") == "1 5 4 3 2 " ]] || fail "answered in the order $(cat "$FOLDER/order")"
}

TraceShowsTheLinesOfACallWithThoseOfItsReply() {
    gateway
    traced 4 call ECHO --text "Hello, trace"
    run "$QPX" trace --call 2 --data trace
    expect_code 0
    expect_text out 'call ECHO, process '
    local text
    for text in '[1500] ENTRY  API.QPX_ECI_Execute(' '[2526] DATA   clapi_socketbuffer.flushBuffer()' \
        '[2061] ENTRY  clapi_gwytok.slotLookup(' '[1506] EXIT   API.QPX_ECI_Execute() rc=0 (QPX_OK)' \
        ': 48656C6C 6F2C2074 72616365          : Hello, trace'; do
        expect_text out "$text"
    done
    expect_no_text out QPX_openRemote
    expect_no_text out QPX_close
    run "$QPX" trace --call 2 trace
    expect_no_text out ': Hello, trace'
    run "$QPX" trace --call 4 trace
    expect_complaint 1 'qpx: there is no call 4, the last is 3'
}

TraceShowsWhatHappenedToAConnection() {
    gateway --misbehave drop@program:ECHO
    traced 3 call ECHO --text hello
    run "$QPX" trace --connection 1 trace
    expect_code 0
    expect_text out '  is lost'
    # When the call learns of it is another matter than when the receiver ends.
    grep -vE 'EXC|  is lost' "$FOLDER/out" >"$FOLDER/without" && mv "$FOLDER/without" "$FOLDER/out"
    expect_trace <<'TEXT'
127.0.0.1:PORT, process PID, token X
 AT THREAD call 1 begins: open 127.0.0.1:PORT
 AT THREAD call 1 is sent
 AT THREAD call 1 is answered
 AT THREAD call 1 ends: open 127.0.0.1:PORT, ok
 AT THREAD call 2 begins: call
 AT THREAD call 2 is sent
 AT THREAD call 2 ends: call, QPX_ERR_LOSTGWCON
 AT THREAD call 4 begins: purge
 AT THREAD call 4 ends: purge, ok
TEXT
    run "$QPX" trace --connection 2 trace
    expect_complaint 1 'qpx: there is no connection 2, the last is 1'
}

# A line of a trace: its second, process and thread, and the rest.
trace_line() {
    printf '22/11/26 19:00:%02d:000 [0x%08X,0x%08X] %s\n' "$1" "$2" "$3" "$4"
}

TraceReadsSeveralFilesInOneOrder() {
    local exit='[1028] EXIT   API.QPX_listSystems() rc=0 (QPX_OK)'
    trace_line 1 1 7 '[1017] ENTRY  API.QPX_listSystems(gwTok=0x5000, Systems=0x1, List=0x2)' >"$FOLDER/a"
    trace_line 4 1 7 "$exit" >>"$FOLDER/a"
    trace_line 2 2 7 '[1017] ENTRY  API.QPX_listSystems(gwTok=0x5000, Systems=0x1, List=0x2)' >"$FOLDER/b"
    trace_line 3 2 7 "$exit" >>"$FOLDER/b"
    trace_line 5 1 7 '[1017] ENTRY  API.QPX_listSystems(gwTok=0x5000, Systems=0x1, List=0x2)' >>"$FOLDER/b"
    run "$QPX" trace b a
    expect_code 0
    expect_exactly out <<'TEXT'
CALL  TIME          PROCESS  THREAD      CONN     TOTAL   GATEWAY   LIBRARY  RESULT  WHAT
   1  19:00:01.000        1  0x00000007     1   3000 ms         -   3000 ms  ok      list systems
   2  19:00:02.000        2  0x00000007     2   1000 ms         -   1000 ms  ok      list systems
   3  19:00:05.000        1  0x00000007     1         -         -         -  no end  list systems
connection 1: process 1, opened before the trace, token 0x5000, 2 calls
connection 2: process 2, opened before the trace, token 0x5000, 1 call
3 calls, 0 failed, 1 without an end; 5 lines
TEXT
}

TraceFollowsAFileThatGrows() {
    local rows pid code=0 row
    local entry='[1017] ENTRY  API.QPX_listSystems(gwTok=0x5000, Systems=0x1, List=0x2)'
    : >"$FOLDER/trace"
    mkfifo "$FOLDER/rows"
    exec {rows}<>"$FOLDER/rows"
    "$QPX" trace --follow "$FOLDER/trace" >"$FOLDER/rows" 2>"$FOLDER/err" &
    pid=$!
    read -r -u "$rows" row # the head
    trace_line 1 1 7 "$entry" >>"$FOLDER/trace"
    trace_line 2 1 7 '[1028] EXIT   API.QPX_listSystems() rc=-102 (QPX_ERR_LOSTGWCON)' >>"$FOLDER/trace"
    read -r -u "$rows" row
    [[ $row == *"1000 ms  QPX_ERR_LOSTGWCON  list systems" ]] || fail "shows $row"
    trace_line 3 1 7 "$entry" >>"$FOLDER/trace"
    trace_line 4 1 7 '[1028] EXIT   API.QPX_listSystems() rc=0 (QPX_OK)' >>"$FOLDER/trace"
    read -r -u "$rows" row
    [[ $row == *"1000 ms  ok      list systems" ]] || fail "shows $row"
    : >"$FOLDER/trace" # emptied in place
    trace_line 5 1 7 "$entry" >>"$FOLDER/trace"
    trace_line 7 1 7 '[1028] EXIT   API.QPX_listSystems() rc=0 (QPX_OK)' >>"$FOLDER/trace"
    read -r -u "$rows" row
    [[ $row == *"2000 ms  ok      list systems" ]] || fail "shows $row"
    kill -INT "$pid"
    wait "$pid" || code=$?
    [[ $code == 0 ]] || fail "exit code $code"
    read -r -u "$rows" row
    read -r -u "$rows" row
    [[ $row == "3 calls, 1 failed, 0 without an end; 6 lines" ]] || fail "ends with $row"
}

# The daemon refuses them all; what matters is that they travel.
TraceEndsToFollowWhenItCannotWrite() {
    gateway
    traced 3 call ECHO --text hello
    # shellcheck disable=SC2016 # for the inner shell
    run bash -c 'exec "$@" >/dev/full' - "$QPX" trace --follow trace
    expect_code 1
    expect_line err "qpx: cannot write to standard output"
}

TraceNeverShowsAPassword() {
    gateway
    run env QPX_CLIENT_TRACE_LEVEL=5 QPX_CLIENT_TRACE_FILE="$FOLDER/trace" QPX_CLIENT_DATA_LENGTH=0 \
        "$PROGRAMS/tests/qpx_random_passwords" 127.0.0.1 "$GATEWAY_PORT" 500
    expect_code 0
    mv "$FOLDER/out" "$FOLDER/words"
    [[ $(wc -l <"$FOLDER/words") == 1500 ]] || fail "not all passwords are there"
    run "$QPX" trace --connection 1 --data trace
    expect_code 0
    [[ $(grep -c 'ESI_ERR\|ECI_ERR' "$FOLDER/out") -ge 500 ]] || fail "not all calls are there"
    expect_text out ': ....FRED'
    cat "$FOLDER/out" >"$FOLDER/all"
    run "$QPX" trace --connection 1 --data --json trace
    expect_code 0
    cat "$FOLDER/out" >>"$FOLDER/all"
    cut -d ' ' -f 1 "$FOLDER/words" | grep -F -f - "$FOLDER/all" && fail "a password is there"
    # Digits of dumps, without the blanks between them, both as they are and as they travel.
    sed -E 's/^.*0x[0-9a-f]+: //; s/ : .*//; s/ //g' "$FOLDER/all" | tr -d '\n' >"$FOLDER/digits"
    tr ' ' '\n' <"$FOLDER/words" | grep -vE '^.{8}$' | grep -oF -f - "$FOLDER/digits" && fail "a password is there"
    return 0
}

# A file of which the library has hidden nothing: digits BD in the place of each asterisk.
TraceHidesPasswordsThatAFileHas() {
    gateway
    run env QPX_CLIENT_TRACE_LEVEL=5 QPX_CLIENT_TRACE_FILE="$FOLDER/trace" QPX_CLIENT_DATA_LENGTH=0 \
        "$PROGRAMS/tests/qpx_random_passwords" 127.0.0.1 "$GATEWAY_PORT" 1
    expect_code 0
    sed -i -E '/^0x/ { s/2A/BD/g; s/\*/=/g }' "$FOLDER/trace"
    [[ $(grep -c BDBD "$FOLDER/trace") -ge 4 ]] || fail "there is none to hide"
    run "$QPX" trace --connection 1 --data trace
    expect_code 0
    expect_text out '2A2A2A'
    expect_no_text out BD
    # Where a dump does not begin at the beginning, a password may be anywhere in it.
    sed -i 's/, offset=0/, offset=8/' "$FOLDER/trace"
    run "$QPX" trace --connection 1 --data trace
    expect_code 0
    sed -n '/2526/,/^ *[0-9]* *0x[0-9A-F]* /p' "$FOLDER/out" | grep -E 'BDBD' && fail "shown from an offset on"
    return 0
}

TraceRefusesWhatIsNoTrace() {
    : >"$FOLDER/empty"
    run "$QPX" trace empty
    expect_complaint 1 'qpx: empty is empty'
    printf 'port = 5770\n' >"$FOLDER/foreign"
    run "$QPX" trace foreign
    expect_complaint 1 'qpx: foreign is no trace of the library'
    head -c 3000000 /dev/zero >"$FOLDER/zeros"
    run "$QPX" trace zeros
    expect_complaint 1 'qpx: zeros is no trace of the library'
    run "$QPX" trace none
    expect_complaint 1 'qpx: none: No such file or directory'
    run "$QPX" trace .
    expect_complaint 1 'qpx: .: Is a directory'
}

TraceTellsWhatIsMissingOrForeignInAFile() {
    a_trace_with_a_unit
    local lines
    lines=$(wc -l <"$FOLDER/trace")
    {
        head -n 100 "$FOLDER/trace"
        printf 'something else\n*** 1234 bytes of trace lost ***\n'
        tail -n +101 "$FOLDER/trace" | head -c -20
    } >"$FOLDER/broken"
    run "$QPX" trace broken
    expect_code 0
    expect_exactly err <<'TEXT'
qpx: broken: line 101 is of no trace
qpx: broken: 1234 bytes are missing: the library could not write them
qpx: broken: ends within a line
TEXT
    # Its first half only: the last call has no end.
    head -n "$((lines * 6 / 10))" "$FOLDER/trace" >"$FOLDER/half"
    run "$QPX" trace half
    expect_code 0
    expect_text out 'no end'
    expect_text out '1 without an end'
    # Its second half: the first call has no beginning.
    tail -n "$((lines * 6 / 10))" "$FOLDER/trace" >"$FOLDER/half"
    run "$QPX" trace half
    expect_code 0
    grep -qE '^   1  - ' "$FOLDER/out" || fail "the beginning is known"
    expect_text out 'opened before the trace'
}

# Whatever a trace is cut to, and in whatever order its lines are, it is read.
TraceReadsWhatIsCutOrMixed() {
    a_trace_with_a_unit
    local size at
    size=$(stat -c %s "$FOLDER/trace")
    for at in 1 2 3 5 8 13 21 34 55 89 144; do
        head -c "$((size * at / 145))" "$FOLDER/trace" >"$FOLDER/piece"
        run "$QPX" trace --connection 1 --data piece
        [[ $CODE == 0 || ($CODE == 1 && $(cat "$FOLDER/err") == *"there is no connection 1"*) ]] ||
            fail "exit code $CODE at $at"
        shuf --random-source=<(yes "$at") "$FOLDER/trace" >"$FOLDER/mixed"
        run "$QPX" trace --json --all mixed
        expect_code 0
        tail -n 1 "$FOLDER/out" | grep -q '^{"calls":' || fail "no end at $at"
        tr "\\$((at % 8 + 60))" '\377' <"$FOLDER/trace" >"$FOLDER/changed"
        run "$QPX" trace --all changed
        [[ $CODE == 0 || $CODE == 1 ]] || fail "exit code $CODE when changed by $at"
    done
}

TraceWritesJson() {
    gateway
    traced 4 call ABEND --text BOOM
    run "$QPX" trace --json trace
    expect_code 0
    expect_nothing err
    expect_trace <<'TEXT'
{"call":1,"time":"TIME","process":N,"thread":"X","connection":1,"function":"QPX_openRemoteGatewayConnectionApplid","what":"open 127.0.0.1:PORT","ended":true,"code":0,"name":"QPX_OK","milliseconds":N,"gateway":N,"library":N}
{"call":2,"time":"TIME","process":N,"thread":"X","connection":1,"function":"QPX_ECI_Execute","what":"call ABEND","ended":true,"code":-7,"name":"ECI_ERR_TRANSACTION_ABEND","milliseconds":N,"gateway":N,"library":N,"failures":["[3035] *EXC* clapi_gwycon.receiverThread() Gateway returned ECI error, rc=-7 (ECI_ERR_TRANSACTION_ABEND)"]}
{"call":4,"time":"TIME","process":N,"thread":"X","connection":1,"function":"QPX_purgeGatewayConnection","what":"purge","ended":true,"code":0,"name":"QPX_OK","milliseconds":N,"gateway":null,"library":N}
{"calls":4,"failed":1,"unended":0,"lines":N,"level":4,"connections":[{"connection":1,"process":N,"token":"X","place":"127.0.0.1:PORT","receiver":"X","opened":"TIME","closed":"TIME","closing":"by API","calls":3,"failed":1}],"strays":[]}
TEXT
}

# An application that calls again and again, with a file for its trace. READER takes what it writes.
calling_application() {
    local row
    mkfifo "$FOLDER/pings"
    QPX_CLIENT_TRACE_FILE="$FOLDER/trace" QPX_CLIENT_TRACE_LEVEL=0 \
        "$QPX" --port "$GATEWAY_PORT" ping --program ECHO --interval 0.01 >"$FOLDER/pings" &
    APPLICATION=$!
    exec {PINGS}<"$FOLDER/pings"
    read -r -u "$PINGS" row # it is connected
    cat <&"$PINGS" >"$FOLDER/pinged" &
    READER=$!
}

# Where no process may attach to another the tool says so, and the application does not notice.
TraceIsSwitchedOnInARunningProcess() {
    gateway
    calling_application
    run "$TOOLS/trace-attach" "$APPLICATION" 3
    if [[ $CODE != 0 ]]; then
        expect_text err 'trace-attach: gdb cannot do it: '
    else
        : >>"$FOLDER/trace"
        await_line trace '[1506] EXIT'
        run "$TOOLS/trace-attach" "$APPLICATION" 0
        expect_code 0
    fi
    kill -INT "$APPLICATION"
    CODE=0
    wait "$APPLICATION" || CODE=$?
    expect_code 0
    wait "$READER"
    expect_text pinged 'ping statistics'
    expect_no_text pinged 'no answer'
    [[ -s $FOLDER/trace ]] || return 0
    # The trace begins in the middle; each whole call has its reply all the same.
    run "$QPX" trace --json trace
    expect_code 0
    python3 - "$FOLDER/out" <<'PYTHON' || fail "calls without their replies"
import json, sys
lines = [json.loads(line) for line in open(sys.argv[1])]
calls = [line for line in lines if line.get("function") == "QPX_ECI_Execute" and line["ended"]]
assert calls and all(call["code"] == 0 for call in calls), calls
assert all(call["gateway"] is not None for call in calls[1:-1]), calls
PYTHON
}

TraceAttachRefusesWhatIsNotOfTheLibrary() {
    local other
    tail -f /dev/null &
    other=$!
    run "$TOOLS/trace-attach" "$other" 3
    kill "$other"
    wait "$other" || true
    expect_complaint 1 "trace-attach: process $other does not use libqpxclient.so"
    run "$TOOLS/trace-attach" "$other" 3
    expect_complaint 1 "trace-attach: there is no process $other"
    run "$TOOLS/trace-attach" "$other" 6
    expect_complaint 2 'trace-attach: a level is a digit from 0 to 5, not 6'
    run "$TOOLS/trace-attach" x 3
    expect_complaint 2 'trace-attach: no process: x'
    run "$TOOLS/trace-attach" "$other"
    expect_complaint 2 'trace-attach: a process and a level; --help tells more'
}

# The program of the page, which switches its trace by a signal.
TraceIsSwitchedBySignalAsThePageShows() {
    gateway
    # shellcheck disable=SC2016 # the lines of the page
    sed -n '/^```c$/,/^```$/p' "$HERE/../../docs/seeing.md" | sed '1d;$d' >"$FOLDER/page"
    sed -n '/^static void\* switchTrace/,/^}/p' "$HERE/trace_switch.c" >"$FOLDER/program"
    expect_same "$FOLDER/program" "$FOLDER/page"
    "$PROGRAMS/tests/qpx_trace_switch" 127.0.0.1 "$GATEWAY_PORT" "$FOLDER/trace" >"$FOLDER/out" 2>&1 &
    APPLICATION=$!
    await_line gateway.log "answer 1"
    [[ ! -s $FOLDER/trace ]] || fail "there is a trace before it is wanted"
    kill -USR1 "$APPLICATION"
    : >>"$FOLDER/trace"
    await_line trace '[1506] EXIT'
    kill -USR2 "$APPLICATION"
    CODE=0
    wait "$APPLICATION" || CODE=$?
    expect_code 0
    expect_line out 'level 3'
    expect_line out 'level 0'
}

TraceReadsStandardInput() {
    gateway
    traced 3 call ECHO --text hello
    CODE=0
    "$QPX" trace - <"$FOLDER/trace" >"$FOLDER/out" 2>"$FOLDER/err" || CODE=$?
    expect_code 0
    expect_text out '3 calls, 0 failed'
    in_pieces pipe "$FOLDER/trace" 2 "$QPX" trace -
    expect_code 0
    expect_text out '3 calls, 0 failed'
}

TraceRefusesWrongArguments() {
    expect_usage 'files is required; "qpx --help" shows what there is' trace
    expect_usage '--slow is a number from 0 to 1000000000, not x' trace --slow x file
    expect_usage '--call is a number from 1 to 2000000000, not 0' trace --call 0 file
    expect_usage 'either --call or --connection' trace --call 1 --connection 1 file
    expect_usage '--follow shows the table, neither --call nor --connection' trace --follow --call 1 file
    expect_usage '--follow takes files, not standard input' trace --follow -
    expect_usage '--data is for --call and --connection' trace --data file
}

# ---- doctor --------------------------------------------------------------------------------------

DoctorFindsAGatewayAndItsSystems() {
    gateway_with_registry
    export QPX_APPLID=MINE
    qpx doctor 127.0.0.1
    expect_code 0
    expect_nothing err
    local line
    for line in 'ok   name       127\.0\.0\.1 has 1 address, found in [0-9.]+ ms' \
        'ok   IPv4       127\.0\.0\.1 \(the first, which the library takes\): TCP in [0-9.]+ ms, connected with handshake in [0-9.]+ ms' \
        '     applid     MINE, from QPX_APPLID' \
        'ok   systems    4, answered in [0-9.]+ ms' \
        'ok   library    /.*/libqpxclient\.so\.10[0-9.]*, version 10\.1\.0\.0, (32|64) bits' \
        '     limits     [a-z0-9 ]+ descriptors, stacks of [0-9]+ KiB: about [0-9]+ connections fit' \
        '     trace      level 0, to standard error'; do
        grep -qxE -- "$line" "$FOLDER/out" || fail "no line \"$line\""
    done
}

DoctorReckonsAfterHowLongTheKernelGivesADeadHostUp() {
    gateway
    local time interval probes
    read -r time </proc/sys/net/ipv4/tcp_keepalive_time
    read -r interval </proc/sys/net/ipv4/tcp_keepalive_intvl
    read -r probes </proc/sys/net/ipv4/tcp_keepalive_probes
    qpx doctor
    expect_line out "     dead host  noticed after $((time + interval * probes)) s on a silent connection"
}

DoctorTellsThatNobodyListens() {
    closed_port
    qpx doctor 127.0.0.1
    expect_code 3
    expect_line out "BAD  IPv4       127.0.0.1 (the first, which the library takes): Connection refused"
    expect_line out "                 -> does the Gateway run, is the port right, does a firewall stand between?"
}

DoctorTellsThatWhatListensIsNoGateway() {
    gateway --misbehave drop-at-handshake
    qpx doctor 127.0.0.1
    expect_code 3
    expect_line out "BAD  IPv4       127.0.0.1 (the first, which the library takes): QPX_ERR_LOSTGWCON (-102)"
}

DoctorTellsOfATraceFileThatCannotBeWritten() {
    gateway
    export QPX_CLIENT_TRACE_FILE=$FOLDER/none/trace
    qpx doctor 127.0.0.1
    expect_code 1
    expect_line out "BAD  trace      $FOLDER/none/trace: No such file or directory"
}

DoctorFindsAnotherLibraryOnThePath() {
    gateway
    mkdir "$FOLDER/other"
    : >"$FOLDER/other/libqpxclient.so"
    export LD_LIBRARY_PATH=$FOLDER/other
    qpx doctor 127.0.0.1
    expect_line out "     library    another one in LD_LIBRARY_PATH: $FOLDER/other/libqpxclient.so"
}

DoctorWritesJson() {
    gateway
    qpx doctor 127.0.0.1 --json
    expect_code 0
    expect_text out '{"reached":true,"findings":[{"state":"good","about":"name",'
    [[ $(wc -l <"$FOLDER/out") == 1 ]] || fail "not one line"
}

# Starts an application whose call of ECHO is held, and waits until it waits.
waiting_application() {
    "$QPX" --port "$GATEWAY_PORT" call ECHO --text hello >"$FOLDER/application" 2>&1 &
    APPLICATION=$!
    await_request
}

end_application() {
    kill -KILL "$APPLICATION"
    wait "$APPLICATION" 2>/dev/null || true
}

expect_found() {
    grep -qxE -- "$1" "$FOLDER/out" || fail "no line \"$1\""
}

DoctorTellsOfARunningProcess() {
    gateway --misbehave hold@program:ECHO
    waiting_application
    # Until both of its threads wait; the time limit of the test ends this if they never do.
    until qpx doctor --pid "$APPLICATION" && (($(grep -c ' waits$' "$FOLDER/out") == 2)); do continue; done
    end_application
    expect_code 0
    expect_nothing err
    expect_found "ok   process    $APPLICATION, qpx, waits"
    expect_found 'ok   library    /.*/libqpxclient\.so\.10[0-9.]*, (32|64) bits'
    expect_found '     receiver   thread [0-9]+ waits'
    expect_found "ok   gateway    descriptor [0-9]+, 127\.0\.0\.1:[0-9]+ to 127\.0\.0\.1:$GATEWAY_PORT, established, [0-9]+ bytes not acknowledged, 0 not read"
}

DoctorTellsWhatAStoppedProcessHasNotRead() {
    gateway --misbehave hold@program:ECHO
    waiting_application
    kill -STOP "$APPLICATION"
    # Until each of its threads is stopped, and reads no more.
    while grep -qv ') T ' "/proc/$APPLICATION"/task/*/stat; do continue; done
    kill -USR1 "$GATEWAY_PID" # sends the answer
    # Until the answer is there; the time limit of the test ends this if it never comes.
    until qpx doctor --pid "$APPLICATION" && ! grep -q ', 0 not read' "$FOLDER/out"; do continue; done
    end_application
    expect_code 1
    expect_found "BAD  process    $APPLICATION, qpx, is stopped"
    expect_line out "                 -> kill -CONT $APPLICATION lets it go on"
    expect_found 'ok   gateway    .*, established, [0-9]+ bytes not acknowledged, [1-9][0-9]+ not read'
}

DoctorWritesJsonOfAProcess() {
    gateway --misbehave hold@program:ECHO
    waiting_application
    until qpx doctor --json --pid "$APPLICATION" && grep -q '"state":"waits"' "$FOLDER/out"; do continue; done
    end_application
    expect_code 0
    python3 - "$FOLDER/out" "$APPLICATION" "$GATEWAY_PORT" <<'PYTHON' || fail "other findings"
import json, sys
found = json.load(open(sys.argv[1]))
assert found["process"] == int(sys.argv[2])
assert [r["state"] for r in found["receivers"]] == ["waits"]
[connection] = found["connections"]
assert connection["remote"] == "127.0.0.1:" + sys.argv[3]
assert connection["state"] == "established" and connection["unread"] == 0
PYTHON
}

DoctorTellsThatAProcessIsNotThereOrNotOneOfTheLibrary() {
    true &
    local ended=$!
    wait "$ended"
    run "$QPX" doctor --pid "$ended"
    expect_complaint 1 "qpx: there is no process $ended"
    tail -f /dev/null &
    local other=$!
    run "$QPX" doctor --pid "$other"
    kill "$other"
    expect_code 1
    expect_line out 'BAD  library    the process does not use libqpxclient.so'
    expect_usage '--pid is a number from 1 to 4194304, not 0' doctor --pid 0
    expect_usage 'either a host or --pid' doctor --pid 1 localhost
}

# A process that hides, from its own user, too. Root, who may look at all, does it as nobody, with
# what nobody may read of what has been built.
DoctorTellsThatAProcessMayNotBeLookedAt() {
    local as=()
    if [[ $(id -u) == 0 ]]; then
        as=(setpriv --reuid=65534 --regid=65534 --clear-groups)
        chmod 755 "$FOLDER"
    fi
    cp "$QPX" "$PROGRAMS/../src/libqpxclient.so.10" "$FOLDER"
    mkfifo "$FOLDER/hidden"
    python3 -c 'import ctypes, signal
PR_SET_DUMPABLE = 4
if ctypes.CDLL(None).prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0:
    print("hidden", flush=True)
    signal.pause()' >"$FOLDER/hidden" &
    GATEWAY_PID=$! # ends with the case, as a gateway does
    read -r _ <"$FOLDER/hidden" || fail "there is no process that hides"
    run env LD_LIBRARY_PATH="$FOLDER" HOME=/nonexistent "${as[@]}" "$FOLDER/qpx" doctor \
        --pid "$GATEWAY_PID"
    expect_complaint 1 "qpx: process $GATEWAY_PID may not be looked at: that takes its own user, or root"
}

# ---- codes ---------------------------------------------------------------------------------------

CodesTellsMeaningAndAdviceOfANumber() {
    run "$QPX" codes -118
    expect_code 0
    expect_nothing err
    expect_exactly out <<'TEXT'
-118  QPX_ERR_CONNECTFAILED
  when   While a connection opens
  means  the Gateway could not be reached, or did not take the handshake; with limit 0 also a signal
  do     does it run, is the port right, does a firewall stand between? is localhost ::1?
TEXT
}

CodesFindsHexadecimalNumbersAndPartsOfNames() {
    run "$QPX" codes 0xF004
    expect_code 0
    expect_line out "61444  QPX_ERR_GATEWAY_CLOSED"
    run "$QPX" codes connectfail
    expect_code 0
    expect_line out "-118  QPX_ERR_CONNECTFAILED"
}

CodesSaysWhenThereIsNone() {
    run "$QPX" codes 4711
    expect_complaint 1 "qpx: no return code is 4711; servers may send codes of their own"
}

# The page, read here once more and in another way, against what the program says.
CodesAgreesWithThePage() {
    sed -En 's/^\| (-?[0-9][-0-9, ]*) \|.*/\1/p' "$HERE/../../docs/return-codes.md" |
        tr -d ' ' | tr , '\n' >"$FOLDER/values"
    run "$QPX" codes --json
    expect_code 0
    grep -oE '"value":-?[0-9]+' "$FOLDER/out" | cut -d : -f 2 >"$FOLDER/values.seen"
    expect_same "$FOLDER/values" "$FOLDER/values.seen"

    sed -E 's/\]\([^)]*\)//g; s/[`[]//g' "$HERE/../../docs/return-codes.md" |
        awk -F ' [|] ?' '/^[|] -?[0-9]/ { n = split($1, v, ","); for (; n > 0; --n) print $3 "|" $4 }' \
            >"$FOLDER/texts"
    "$QPX" codes --json | sed 's/},{/\n/g' |
        sed -E 's/.*"meaning":"(.*)","advice":"(.*)"[]}]*$/\1|\2/; s/\\"/"/g' >"$FOLDER/texts.seen"
    expect_same "$FOLDER/texts" "$FOLDER/texts.seen"
    [[ $(wc -l <"$FOLDER/texts") -gt 80 ]] || fail "the page has no codes"
}

run_case
