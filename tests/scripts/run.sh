#!/usr/bin/env bash
# Runs one case of the scripts' tests: run.sh CASE SOURCE, with the folder of the tree.
# CMakeLists.txt names the cases; each is a function below.
set -euo pipefail

CASE=$1 SOURCE=$2
readonly CASE SOURCE

FOLDER=$(mktemp -d)
readonly TREE=$FOLDER/tree
PROCESSES=()
trap clean_up EXIT

# ---- Verbs ---------------------------------------------------------------------------------------

clean_up() {
    local process

    for process in "${PROCESSES[@]}"; do
        kill "$process" 2>/dev/null || true
    done
    [[ -z ${GO:-} ]] || printf '\n\n\n\n' >&"$GO"
    wait
    rm -rf "$FOLDER"
}

fail() {
    printf '%s: %s\n' "$CASE" "$1" >&2
    [[ ! -s $FOLDER/out ]] || sed 's/^/  out | /' "$FOLDER/out" >&2
    exit 1
}

# Makes a tree of the scripts, and of the folders in which they look, with nothing else in it.
scratch_tree() {
    mkdir -p "$TREE"/{tests,gateway/tests}
    cp -r "$SOURCE"/{demo,check,tools} "$TREE"
}

# Runs a command in that tree, keeps what it writes and its exit code.
run() {
    CODE=0
    (cd "$TREE" && "$@" >"$FOLDER/out" 2>&1 </dev/null) || CODE=$?
}

expect_code() {
    [[ $CODE == "$1" ]] || fail "exit code $CODE, not $1"
}

expect_line() {
    grep -qxF -- "$1" "$FOLDER/out" || fail "no line \"$1\""
}

expect_no_text() {
    ! grep -qF -- "$1" "$FOLDER/out" || fail "there is \"$1\""
}

# ---- Words ---------------------------------------------------------------------------------------

WordsSaysWhenThereIsNothing() {
    scratch_tree
    printf 'nothing\n' >"$TREE/a file.txt"
    run tools/lint words
    expect_code 0
    expect_line "lint: nothing found (words)"
}

WordsFindsALineInAFileWithABlankInItsName() {
    scratch_tree
    printf 'good\nbad \n' >"$TREE/a file.txt"
    run tools/lint words
    expect_code 1
    expect_line "./a file.txt:2:bad "
    expect_no_text "nothing found"
}

WordsFindsALineAmongMoreFilesThanOneCommandTakes() {
    local long
    long=$(printf '%0200d' 0)

    scratch_tree
    for number in {1..1500}; do
        printf 'good\n' >"$TREE/$long-$number.txt"
    done
    printf 'bad \n' >"$TREE/bad.txt"
    run tools/lint words
    expect_code 1
    expect_line "./bad.txt:1:bad "
}

WordsFailsWhenAFileCannotBeRead() {
    scratch_tree
    mkdir "$FOLDER/bin"
    printf '#!/bin/sh\nexit 2\n' >"$FOLDER/bin/grep"
    chmod +x "$FOLDER/bin/grep"
    run env PATH="$FOLDER/bin:$PATH" tools/lint words
    expect_code 1
    expect_no_text "nothing found"
}

# ---- Selections of tests -------------------------------------------------------------------------

EveryTestPresetFailsWhenItsSelectionFitsNoTest() {
    local preset presets

    mkdir -p "$TREE"
    cp "$SOURCE/CMakePresets.json" "$TREE"
    cat >"$TREE/CMakeLists.txt" <<'PROJECT'
cmake_minimum_required(VERSION 3.25)
project(one_test LANGUAGES NONE)
enable_testing()
add_test(NAME one COMMAND ${CMAKE_COMMAND} -E true)
PROJECT
    mapfile -t presets < <(cd "$TREE" && ctest --list-presets | sed -n 's/^ *"\(.*\)".*/\1/p')
    ((${#presets[@]} > 0)) || fail "there is no test preset"
    for preset in "${presets[@]}"; do
        run cmake --preset "$preset"
        expect_code 0
        run ctest --preset "$preset" -R one
        expect_code 0
        run ctest --preset "$preset" -R another
        [[ $CODE != 0 ]] || fail "$preset takes no test for a success"
    done
}

# ---- One after the other -------------------------------------------------------------------------

# Puts a program into the tree that tells of its start, does not end before it is let go, and fails.
holding_program() {
    mkdir -p "$(dirname "$1")"
    cat >"$1" <<PROGRAM
#!/bin/sh
printf '\nstarted\n' >"$FOLDER/events"
read -r _ <"$FOLDER/go"
exit 1
PROGRAM
    chmod +x "$1"
}

scratch_tree_that_holds() {
    scratch_tree
    mkfifo "$FOLDER/events" "$FOLDER/go"
    exec {EVENTS}<>"$FOLDER/events" {GO}<>"$FOLDER/go"
    holding_program "$TREE/tools/install-packages"
    holding_program "$FOLDER/bin/cmake"
}

# Starts a script of the tree, whose lines are events like the starts of what holds it.
start() {
    (cd "$TREE" && exec env PATH="$FOLDER/bin:$PATH" "$@" </dev/null >"$FOLDER/events" 2>&1) &
    PROCESSES+=($!)
}

# Passes over events until one begins as told; none of the others may be a start.
expect_event() {
    local event

    while read -r -u "$EVENTS" event; do
        [[ $event != "$1"* ]] || return 0
        [[ $event != started ]] || fail "a start, and not \"$1\""
    done
}

let_go() {
    local code=0

    printf '\n' >&"$GO"
    wait "$1" || code=$?
    [[ $code == 1 ]] || fail "a script ends with $code and not with 1"
}

# The first is in the middle of its work when the second begins.
expect_turns() {
    local first=$1 second=$2 name=$3

    scratch_tree_that_holds
    # shellcheck disable=SC2086 # a command and its arguments
    start $first
    expect_event started
    # shellcheck disable=SC2086
    start $second
    expect_event "Waiting for $name (process ${PROCESSES[0]}) to end"
    let_go "${PROCESSES[0]}"
    expect_event started
    let_go "${PROCESSES[1]}"
    PROCESSES=()
}

ASecondDemoWaitsForTheFirst() {
    expect_turns ./demo ./demo ./demo
}

ASecondCheckWaitsForTheFirst() {
    expect_turns ./check "./check --quick" ./check
}

ALoadWaitsForACheckBeforeItBuilds() {
    expect_turns ./check "tools/load 1" ./check
}

# ---- The source archive --------------------------------------------------------------------------

readonly ARCHIVE=qpxclient-10.1.0.tar.gz

# A tree of a few files that git knows, one of them a link, and of some that it does not.
tree_in_git() {
    mkdir -p "$TREE/tools" "$TREE/include" "$TREE/packaging/debian" "$TREE/build/release"
    cp "$SOURCE/tools/release" "$TREE/tools"
    cp "$SOURCE/CMakeLists.txt" "$SOURCE/CHANGELOG.md" "$TREE"
    cp "$SOURCE/include/clapi_diag.h" "$TREE/include"
    printf 'qpxclient (10.1.0-1) unstable; urgency=low\n' >"$TREE/packaging/debian/changelog"
    printf 'data\n' >"$TREE/a file with blanks"
    ln -s CHANGELOG.md "$TREE/link"
    mkdir "$TREE/deep"
    printf 'data\n' >"$TREE/deep/building"
    (
        cd "$TREE"
        git init -q
        git add .
        git -c user.name=somebody -c user.email=somebody@example.org commit -q -m all
    )
    printf 'left\n' >"$TREE/left"
    printf 'built\n' >"$TREE/build/release/program"
}

make_release() {
    run tools/release "$1"
    expect_code 0
}

AReleaseHoldsTheFilesThatGitKnows() {
    tree_in_git
    make_release "$FOLDER/to"
    (cd "$TREE" && git ls-files -z | tr '\0' '\n' | sed 's|^|qpxclient-10.1.0/|' | sort) \
        >"$FOLDER/expected"
    tar -tf "$FOLDER/to/$ARCHIVE" | sort | diff "$FOLDER/expected" - || fail "other files"
    (cd "$FOLDER/to" && sha256sum --quiet -c "$ARCHIVE.sha256") || fail "another checksum"
    tar -C "$FOLDER" -xf "$FOLDER/to/$ARCHIVE"
    [[ $(readlink "$FOLDER/qpxclient-10.1.0/link") == CHANGELOG.md ]] || fail "another link"
    [[ -x $FOLDER/qpxclient-10.1.0/tools/release ]] || fail "no program"
}

AReleaseOfTheSameFilesHasTheSameBytes() {
    tree_in_git
    make_release "$FOLDER/first"
    find "$TREE" -type f -exec touch -d 2001-01-01 {} +
    chmod -R go-rwx "$TREE"
    make_release "$FOLDER/second"
    cmp "$FOLDER/first/$ARCHIVE" "$FOLDER/second/$ARCHIVE" || fail "other bytes"
}

AReleaseCanBeMadeFromARelease() {
    tree_in_git
    make_release "$FOLDER/first"
    rm -rf "$TREE"
    tar -C "$FOLDER" -xf "$FOLDER/first/$ARCHIVE"
    mv "$FOLDER/qpxclient-10.1.0" "$TREE"
    mkdir "$TREE/build"
    printf 'built\n' >"$TREE/build/program"
    make_release "$FOLDER/second"
    cmp "$FOLDER/first/$ARCHIVE" "$FOLDER/second/$ARCHIVE" || fail "other bytes"
}

AReleaseWhoseVersionsDifferIsRefused() {
    local file

    tree_in_git
    for file in CHANGELOG.md include/clapi_diag.h packaging/debian/changelog; do
        cp "$TREE/$file" "$FOLDER/kept"
        sed -i 's/10\.1\.0/10.1.1/' "$TREE/$file"
        run tools/release "$FOLDER/to"
        expect_code 1
        expect_line "release: $file is of version \"10.1.1\", CMakeLists.txt of \"10.1.0\""
        cp "$FOLDER/kept" "$TREE/$file"
    done
    make_release "$FOLDER/to"
}

AReleaseTellsOfChangesThatAreNotCommitted() {
    tree_in_git
    make_release "$FOLDER/to"
    expect_no_text "not committed"
    printf 'more\n' >>"$TREE/CHANGELOG.md"
    make_release "$FOLDER/to"
    expect_line "release: with changes that are not committed"
}

declare -F "$CASE" >/dev/null || fail "there is no such case"
"$CASE"
