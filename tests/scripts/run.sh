#!/usr/bin/env bash
# Runs one case of the scripts' tests: run.sh CASE SOURCE, with the folder of the tree. CMakeLists.txt
# names the cases; each is a function below.
set -euo pipefail

CASE=$1 SOURCE=$2
readonly CASE SOURCE

FOLDER=$(mktemp -d)
readonly TREE=$FOLDER/tree
trap 'rm -rf "$FOLDER"' EXIT

# ---- Verbs ---------------------------------------------------------------------------------------

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

declare -F "$CASE" >/dev/null || fail "there is no such case"
"$CASE"
