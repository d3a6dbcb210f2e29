#!/usr/bin/env bash
# Holds docs/process.md against the tests that it names: run.sh CASE SOURCE, with the folder of the
# tree. CMakeLists.txt names the cases; each is a function below.
set -euo pipefail

CASE=$1 SOURCE=$2
readonly CASE SOURCE
readonly PAGE=$SOURCE/docs/process.md

fail() {
    printf '%s: %s\n' "$CASE" "$1" >&2
    exit 1
}

# ---- The page ------------------------------------------------------------------------------------

# The part of the page in front of its table of tests, and the table's rows.
sentences() {
    sed '/^## The tests$/,$d' "$PAGE"
}

rows() {
    sed '1,/^## The tests$/d' "$PAGE" | grep -E '^\| [0-9]+ '
}

# The numbers in brackets. A sentence may refer to one that has stood before.
marks() {
    sentences | grep -oE '\[[0-9]+\]' | tr -d '[]' | awk '!seen[$0]++'
}

named_tests() {
    # shellcheck disable=SC2016 # no expansion is meant
    rows | sed -E 's/^\| [^|]*\|//' | grep -oE '`[^`]+`' | tr -d '`' | sort -u
}

named_system_calls() {
    # shellcheck disable=SC2016
    sentences | sed -n '/^| For | Calls/,/^$/p' | grep -oE '`[^`]+`' | tr -d '`' | sort -u
}

# ---- The tree ------------------------------------------------------------------------------------

# Every case of a test program as Suite.Name, and what ctest calls the others.
tests_of_the_tree() {
    find "$SOURCE/tests" -name '*.cpp' -exec cat {} + | tr '\n' ' ' |
        grep -oE '\bTEST(_F|_P)?\( *[A-Za-z0-9]+, *[A-Za-z0-9]+\)' |
        sed -E 's/^.*\( *([A-Za-z0-9]+), *([A-Za-z0-9]+)\)$/\1.\2/'
    sed -nE 's/^ *install_test\("([^"]+)".*/install: \1/p' "$SOURCE/tests/install/CMakeLists.txt"
    sed -n '/^qpx_cases(process /,/)$/p' "$SOURCE/tests/process/CMakeLists.txt" |
        sed -nE 's/^  (Every[A-Za-z]+)$/process: \1/p'
}

listed_system_calls() {
    sed -nE 's/^ *SYSTEM_CALL\(([a-z0-9_]+)\),$/\1/p' "$SOURCE/tests/process/system_calls.h" |
        sort -u
}

# ---- Cases ---------------------------------------------------------------------------------------

EverySentenceHasItsRow() {
    local sentences numbers

    sentences=$(marks)
    numbers=$(rows | awk '{ print $2 }')
    [[ -n $numbers && $numbers == "$(seq "$(wc -l <<<"$numbers")")" ]] ||
        fail "the rows are not numbered from 1 on"
    [[ $sentences == "$numbers" ]] ||
        fail "sentences and rows differ: $(diff <(echo "$sentences") <(echo "$numbers") | tr '\n' ' ')"
    # shellcheck disable=SC2016
    ! rows | grep -qvE '^\| [0-9]+ [^|]+ \| `[^`]+`(, `[^`]+`)* \|$' || fail "a row names no test"
}

EveryTestOfThePageIsThere() {
    local missing

    missing=$(comm -23 <(named_tests) <(tests_of_the_tree | sort -u))
    [[ -z $missing ]] || fail "tests that are not there: $missing"
}

EverySystemCallOfTheListIsOnThePage() {
    local different

    different=$(diff <(listed_system_calls) <(named_system_calls)) ||
        fail "list (<) and page (>) differ: $different"
}

"$CASE"
