#!/usr/bin/env bash
# Runs one case of the tests of the blocks of C in the documents: run.sh CASE SOURCE CC BITS.
# CMakeLists.txt names the cases; each is a function below.
set -euo pipefail

CASE=$1 SOURCE=$2 CC=$3 BITS=$4
readonly CASE SOURCE CC BITS
export LC_ALL=C # the language in which the compiler complains

FOLDER=$(mktemp -d)
readonly FOLDER
trap 'rm -rf "$FOLDER"' EXIT

fail() {
    printf '%s: %s\n' "$CASE" "$1" >&2
    exit 1
}

# Writes each block of C of a document to a file of its own, which knows where the block stands.
extract() {
    awk -v folder="$FOLDER" -v name="$(basename "$1")" '
        /^```c$/ { file = folder "/" name "-" FNR ".txt"; printf "#line %d \"%s\"\n", FNR + 1, name >file
                   next }
        /^```/ { file = "" }
        file != "" { print >file }' "$1"
}

# A whole program is compiled as it is, a function behind the prelude, and anything else as the body
# of one.
compile() {
    local options=("-m$BITS" -std=c99 -D_POSIX_C_SOURCE=200809L -Wall -Wextra -Werror
        "-I$SOURCE/include" "-I$SOURCE/gateway/standin/include" -fsyntax-only)

    if grep -q '^static .*)$' "$1"; then
        options+=(-Wno-unused)
        { printf '#include "%s"\n' "$SOURCE/tests/fragments/prelude.h" && cat "$1"; } >"$1.c"
    elif ! grep -q '^int main(' "$1"; then
        options+=(-Wno-unused -Wno-unused-but-set-variable)
        {
            printf '#include "%s"\nvoid fragment(void);\nvoid fragment(void)\n{\n' \
                "$SOURCE/tests/fragments/prelude.h"
            cat "$1"
            printf '}\n'
        } >"$1.c"
    else
        cp "$1" "$1.c"
    fi
    "$CC" "${options[@]}" "$1.c"
}

# compile_blocks DOCUMENT...: all blocks; the number of them is in BLOCKS.
compile_blocks() {
    local document block code=0

    for document in "$@"; do extract "$document"; done
    BLOCKS=0
    for block in "$FOLDER"/*.txt; do
        BLOCKS=$((BLOCKS + 1))
        compile "$block" || code=1
    done
    return "$code"
}

EveryBlockOfCInTheDocumentsCompiles() {
    compile_blocks "$SOURCE/README.md" "$SOURCE"/docs/*.md || fail "see above"
    # Of them there are a dozen at least, or they have not been found.
    ((BLOCKS >= 12)) || fail "$BLOCKS blocks only"
}

# expect_found BLOCK TEXT: the message names document and line.
expect_found() {
    # shellcheck disable=SC2016 # these are no commands
    printf 'Text.\n\n```c\nrc = 0;\n%s\n```\n' "$1" >"$FOLDER/document.md"
    ! compile_blocks "$FOLDER/document.md" 2>"$FOLDER/messages" || fail "it is taken"
    grep -q "^document.md:5:.*$2" "$FOLDER/messages" || fail "$(<"$FOLDER/messages")"
}

ABlockThatDoesNotCompileIsFound() {
    expect_found 'rc = QPX_listSystems(gateway);' "too few arguments"
}

ABlockWithAWarningIsFound() {
    expect_found 'printf("%s", rc);' "expects argument"
}

ABlockThatUsesWhatNoReaderKnowsIsFound() {
    expect_found 'rc = somewhere;' "undeclared"
}

declare -F "$CASE" >/dev/null || fail "there is no such case"
"$CASE"
