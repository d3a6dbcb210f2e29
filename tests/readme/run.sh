#!/usr/bin/env bash
# Runs one block of README.md as a reader does who pastes it into a shell:
#
#   run.sh --list SOURCE BITS   names the blocks: heading, and number under it
#   run.sh BLOCK SOURCE BUILD   runs one, with the build of the tree in place of that of ./demo
#
# Blocks are marked "sh", "c", "cpp" or "python"; the last are for 64 bits, the others for 32. Those
# of commands run line by line in a copy of the tree; a program is compiled, if need be, and run. A
# block fails with its first command that does, and where a program reads the lines behind it, which
# have been pasted at once.
#
# Commands that build the whole tree or run its tests are not run from within the tests: ./demo,
# ./check, the build of a preset and its tests. A block of them is checked for its names alone.
set -euo pipefail

BLOCK=$1 SOURCE=$2 BUILD=${3:-}
readonly SOURCE BUILD
readonly NOT_RUN='^(\./demo|\./check|cmake --preset|cmake --build --preset|ctest --preset)( |$)'

# shellcheck source=tools/gateway.sh
source "$SOURCE/tools/gateway.sh"

# Writes the blocks, each line behind the block's name, its kind and tabulators.
blocks() {
    awk -v OFS='\t' '
        /^```/ && kind == "" { kind = substr($0, 4); if (kind == "") kind = "none"
                               print heading "-" ++number, kind, ""; next }
        /^```/               { kind = ""; next }
        kind != ""           { print heading "-" number, kind, $0; next }
        /^#/                 { heading = $0; sub(/^#+ */, "", heading)
                               gsub(/[^A-Za-z]/, "_", heading); number = 0 }
    ' "$SOURCE/README.md"
}

lines_of_block() {
    blocks | awk -F '\t' -v block="$BLOCK" '$1 == block { sub(/^[^\t]*\t[^\t]*\t/, ""); print }'
}

kind_of_block() {
    blocks | awk -F '\t' -v block="$BLOCK" '$1 == block { print $2; exit }'
}

fail() {
    printf '%s: %s\n' "$BLOCK" "$1" >&2
    exit 1
}

clean_up() {
    stop_gateway || true
    # What a block has left running.
    [[ -z ${SHELL_OF_BLOCK:-} ]] || kill -- "-$SHELL_OF_BLOCK" 2>/dev/null || true
    rm -rf "$FOLDER"
}

# A copy of the tree, in which the build stands where ./demo puts its own.
copy_tree() {
    mkdir -p "$FOLDER/tree/build" "$FOLDER/temporary"
    cp -r "$SOURCE"/{CMakeLists.txt,CMakePresets.json,cmake,include,src,gateway,tools} \
        "$SOURCE"/{client,demo-programs,docs,examples,manual} "$FOLDER/tree"
    mkdir "$FOLDER/tree/tests" && cp -r "$SOURCE/tests/manual" "$FOLDER/tree/tests"
    ln -s "$BUILD" "$FOLDER/tree/build/demo"
}

# The shell reads the block as it would from a terminal, and so do the programs that it starts.
# What the block installs goes into the folder, and is compiled quickly.
run_commands() {
    local code=0

    copy_tree
    { lines_of_block && printf 'touch "%s"\n' "$FOLDER/end"; } >"$FOLDER/commands"
    set -m
    (cd "$FOLDER/tree" &&
        TMPDIR=$FOLDER/temporary DESTDIR=$FOLDER/installed CMAKE_BUILD_TYPE=Debug \
            exec bash -e -o pipefail -s) <"$FOLDER/commands" &
    SHELL_OF_BLOCK=$!
    set +m
    wait "$SHELL_OF_BLOCK" || code=$?
    [[ $code == 0 ]] || fail "a command has failed with exit code $code"
    [[ -e $FOLDER/end ]] || fail "a program has read the commands behind it"
}

# What is not run is at least there: the presets, and the tests that a selection fits.
check_names() {
    local line word previous='' words presets

    presets=$(cd "$SOURCE" && cmake --list-presets=all)
    while read -r line; do
        read -r -a words <<<"${line%%#*}"
        for word in "${words[@]}"; do
            case $previous in
            --preset) [[ $presets == *"\"$word\""* ]] || fail "there is no preset $word" ;;
            -R) [[ $(ctest --test-dir "$BUILD" -N -R "$word") == *'  Test '* ]] ||
                fail "there is no test $word" ;;
            esac
            previous=$word
        done
        [[ ${words[0]:-} != ./* || -x $SOURCE/${words[0]} ]] || fail "there is no ${words[0]}"
        [[ ${words[0]:-} != ./* || ${#words[@]} == 1 ]] ||
            (cd "$SOURCE" && "${words[@]}" --help) || fail "$line does not run"
    done
}

check_commands() {
    local commands

    commands=$(lines_of_block | grep -vE '^ *(#|$)')
    if grep -qE "$NOT_RUN" <<<"$commands"; then
        ! grep -vE "$NOT_RUN" <<<"$commands" ||
            fail "holds more than what is not run from within tests"
        check_names <<<"$commands"
    else
        run_commands
    fi
}

# Programs expect the gateway at a port that may be taken here; they get another.
prepare_program() {
    lines_of_block >"$FOLDER/$1"
    start_gateway "$BUILD/gateway/daemon/qpxgatewayd" "$FOLDER"
    sed -i "s/\\b5770\\b/$GATEWAY_PORT/" "$FOLDER/$1"
}

check_program() {
    prepare_program "$1"
    "${@:2}" -m32 -Wall -Wextra -Wpedantic -Werror "-I$SOURCE/include" "$FOLDER/$1" \
        -o "$FOLDER/program" "-L$BUILD/src" -lqpxclient
    expect_greeting env LD_LIBRARY_PATH="$BUILD/src" "$FOLDER/program"
}

check_script() {
    prepare_program program.py
    expect_greeting env PYTHONPATH="$SOURCE/python" PYTHONDONTWRITEBYTECODE=1 \
        QPX_CLIENT_LIBRARY="$BUILD/src/libqpxclient.so" python3 "$FOLDER/program.py"
}

expect_greeting() {
    [[ $("$@") == "Hello, Gateway!" ]] || fail "the program does not say what it is meant to"
}

# Whether a block of this kind is for the word size.
is_for() {
    if [[ $1 == python ]]; then [[ $2 == 64 ]]; else [[ $2 == 32 ]]; fi
}

list_blocks() {
    local kind

    for BLOCK in $(blocks | cut -f1 | uniq | grep .); do
        kind=$(kind_of_block)
        ! is_for "$kind" "$1" || printf '%s\n' "$BLOCK"
    done
}

if [[ $BLOCK == --list ]]; then
    list_blocks "$3"
    exit
fi

FOLDER=$(mktemp -d)
trap clean_up EXIT
case $(kind_of_block) in
sh) check_commands ;;
c) check_program program.c gcc -std=c99 ;;
cpp) check_program program.cpp g++ -std=c++17 ;;
python) check_script ;;
*) fail "is marked \"$(kind_of_block)\", and that is nothing that can be run" ;;
esac
