#!/usr/bin/env bash
# Holds docs/bounds.md and the results that have been kept against the matrix: run.sh CASE PROGRAM
# SOURCE, with the program and the folder of the tree. CMakeLists.txt names the cases; each is a
# function below.
set -euo pipefail

CASE=$1 PROGRAM=$2 SOURCE=$3
readonly CASE PROGRAM SOURCE
readonly RESULTS=$SOURCE/tests/bounds/results.txt

fail() {
    printf '%s: %s\n' "$CASE" "$1" >&2
    exit 1
}

ThePageIsWhatTheResultsMake() {
    diff "$SOURCE/docs/bounds.md" <("$PROGRAM" page "$RESULTS" "$SOURCE/tests/bounds/page.md") >&2 ||
        fail "docs/bounds.md (<) is not what the results make (>): tools/bounds --page writes it"
}

EveryCellOfTheShortFormComesOutAsItIsKept() {
    "$PROGRAM" compare "$RESULTS" || fail "tools/bounds shows all of it"
}

TheMatrixHasItsSize() {
    local faults

    faults=$("$PROGRAM" list | awk '{ print $3 }' | sort -u | wc -l)
    [[ $faults -ge 20 ]] || fail "only $faults faults"
    [[ $("$PROGRAM" list | sort | uniq -d) == "" ]] || fail "a cell is there twice"
}

"$CASE"
