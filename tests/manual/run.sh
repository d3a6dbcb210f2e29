#!/usr/bin/env bash
# Runs one case of the tests of the manual and of the site: run.sh CASE SOURCE BUILD EXAMPLES GATEWAY, with the
# program of the examples and the stand-in gateway. CMakeLists.txt names the cases; each is a
# function below.
set -euo pipefail

CASE=$1 SOURCE=$2 BUILD=$3 EXAMPLES=$4 GATEWAY=$5
readonly CASE SOURCE BUILD EXAMPLES GATEWAY
# shellcheck source=tools/gateway.sh
source "$SOURCE/tools/gateway.sh"

FOLDER=$(mktemp -d)
readonly FOLDER
readonly PAGES=$FOLDER/man
trap 'stop_gateway || true; rm -rf "$FOLDER"' EXIT
unset QPX_APPLID QPX_APPLIDQUALIFIER QPX_CLIENT_TRACE_LEVEL QPX_CLIENT_TRACE_FILE

# ---- Verbs ---------------------------------------------------------------------------------------

fail() {
    printf '%s: %s\n' "$CASE" "$1" >&2
    exit 1
}

make_pages() {
    python3 -B "$SOURCE/tools/manual" "$PAGES"
}

# The calls that the library exports.
calls() {
    sed -n 's/^    \([A-Z][A-Za-z_]*\);$/\1/p' "$SOURCE/src/qpxclient.map" | sort
}

# A page as man shows it, in lines that are never broken.
page() {
    MANWIDTH=5000 LC_ALL=C.UTF-8 man -l "$(echo "$PAGES"/man?/"$1".?)" | sed 's/^ *//'
}

expect_line() {
    grep -qxF -- "$2" <<<"$1" || fail "no line \"$2\" in:
$1"
}

# ---- Cases ---------------------------------------------------------------------------------------

EveryCallHasAPage() {
    make_pages
    diff <(calls) <(cd "$PAGES/man3" && printf '%s\n' * | sed 's/\.3$//' | sort) || fail "others"
    [[ $(calls | wc -l) == 34 ]] || fail "not 34 calls"
}

EveryPageIsMadeWithoutAWarning() {
    local file warnings

    make_pages
    for file in "$PAGES"/man?/*; do
        warnings=$(MANWIDTH=80 LC_ALL=C.UTF-8 man --warnings=w -l "$file" 2>&1 >/dev/null)
        [[ -z $warnings ]] || fail "$file: $warnings"
    done
}

EveryPageHasAllSections() {
    local call section

    make_pages
    for call in $(calls); do
        for section in SYNOPSIS DESCRIPTION "RETURN VALUE" WAITS THREADS SIGNALS EXAMPLE "SEE ALSO"; do
            grep -qxF ".SH \"$section\"" "$PAGES/man3/$call.3" || fail "$call has no $section"
        done
    done
}

APageHasTheErrorsOfItsHeader() {
    local text

    make_pages
    text=$(page ECI_getContainerData)
    expect_line "$text" "ECI_ERR_INVALID_CHANNEL, ECI_ERR_NULLPTR (buffer), ECI_ERR_INVALID_NAME, ECI_ERR_CONTAINER_NOTFOUND, ECI_ERR_SYSTEM_ERROR."
    expect_line "$text" "ECI_ERR_CONTAINER_NOTFOUND (-58)"
    expect_line "$text" "the channel has no container of that name"
}

APageHasTheWaitsOfTheBounds() {
    local text

    make_pages
    text=$(page QPX_listSystems)
    expect_line "$text" "While the connection is idle; then the call is made"
    expect_line "$text" "If the host is dead: when retransmission gives up. If the Gateway is silent: not before the connection ends."
    text=$(page QPX_openRemoteGatewayConnection)
    expect_line "$text" "While it opens, with a limit"
    expect_line "$text" "If the host is dead: at its limit. If the Gateway is silent: at its limit."
    expect_line "$(page QPX_getRcString)" "This call waits for nobody at the other side."
}

APageThatBuildsOnAnotherCallHasItsArgumentsAndErrors() {
    local text

    make_pages
    text=$(page QPX_openRemoteGatewayConnectionApplid)
    expect_line "$text" "Of QPX_openRemoteGatewayConnection this holds as well:"
    expect_line "$text" "port   TCP port, 1 to 65535."
    expect_line "$text" "QPX_ERR_NULLPARM (-103)"
    expect_line "$text" "QPX_ERR_BADPORT (-107)"
}

APageShowsTheExampleThatRuns() {
    make_pages
    page QPX_closeGatewayConnection | sed -n '/^EXAMPLE$/,/^SEE ALSO$/p' | sed '1d;$d' |
        sed '/^$/d' >"$FOLDER/shown"
    cat >"$FOLDER/expected" <<'TEXT'
int rc = QPX_closeGatewayConnection(&gateway);
gateway = NULL; /* the call does not change it */
if (rc == QPX_ERR_LOSTGWCON) fprintf(stderr, "the Gateway went before the goodbye\n");
return rc;
TEXT
    diff "$FOLDER/expected" "$FOLDER/shown" || fail "another example"
}

AproposFindsEveryPage() {
    local call

    make_pages
    printf 'MANDATORY_MANPATH %s\nMANDB_MAP %s %s\n' "$PAGES" "$PAGES" "$FOLDER/cache" \
        >"$FOLDER/man_db.conf"
    mandb --quiet --config-file="$FOLDER/man_db.conf" "$PAGES"
    apropos --config-file="$FOLDER/man_db.conf" --manpath="$PAGES" --long . >"$FOLDER/found"
    for call in $(calls); do
        grep -q "^$call (3) " "$FOLDER/found" || fail "$call is not found"
    done
    apropos --config-file="$FOLDER/man_db.conf" --manpath="$PAGES" --long Gateway \
        >"$FOLDER/found"
    for call in "qpxclient (7)" "qpxgatewayd (8)" "QPX_openRemoteGatewayConnection (3)"; do
        grep -qF "$call" "$FOLDER/found" || fail "$call is not found by its subject"
    done
}

TheExamplesRun() {
    start_gateway "$GATEWAY" "$FOLDER" --registry "$SOURCE/demo-programs/data/registry.toml"
    "$EXAMPLES" 127.0.0.1 "$GATEWAY_PORT" "$FOLDER/trace" >"$FOLDER/out"
    stop_gateway
    cat >"$FOLDER/expected" <<'TEXT'
QPX_ERR_BADPORT
programming interface 2.3.0.0
library 10.1.0.0
connected
applid "MANUAL"
qualifier "PAGES"
VORNA  Accounts, head office
VORNB  Accounts, branch offices
VORNOLD  Accounts before the merger, read only
VORNTEST  Tests, at office hours
Hello, server!
0 wrong passwords before
verified last on 2026-01-30
channel ORDER
12 bytes of code page 1208
Good| mor|ning||
newest: NUMBERS
NUMBERS
GREETING
gone, with all its containers
TEXT
    diff "$FOLDER/expected" "$FOLDER/out" || fail "something else is printed"
    grep -q "qpxclient state dump" "$FOLDER/trace" || fail "no state in the trace"
}

# In a copy of what the manual is made of.
ACallWithoutExampleIsRefused() {
    mkdir -p "$FOLDER/tree/tests"
    cp -r "$SOURCE"/{CMakeLists.txt,include,docs,manual,tools} "$FOLDER/tree"
    cp -r "$SOURCE/tests/manual" "$FOLDER/tree/tests"
    sed -i 's/QPX_getRcString_example/somethingElse/' "$FOLDER/tree/tests/manual/examples.c"
    ! python3 -B "$FOLDER/tree/tools/manual" "$PAGES" 2>"$FOLDER/errors" || fail "it is taken"
    grep -qxF "manual: tests/manual/examples.c and the headers do not have the same calls: QPX_getRcString" \
        "$FOLDER/errors" || fail "$(cat "$FOLDER/errors")"
}

TheOverviewNamesEveryCall() {
    local text call

    make_pages
    text=$(page qpxclient)
    for call in $(calls); do
        expect_line "$text" "$call(3)"
    done
    grep -qF "Calls may be made from any thread" <<<"$text" || fail "no conventions"
}

ThePagesAreInstalled() {
    make_pages
    cmake -DCMAKE_INSTALL_PREFIX="$FOLDER/prefix" -P "$BUILD/manual/cmake_install.cmake" >/dev/null
    diff -r "$PAGES/man3" "$FOLDER/prefix/share/man/man3" || fail "other pages"
    diff -r "$PAGES/man7" "$FOLDER/prefix/share/man/man7" || fail "other pages"
    diff -r "$PAGES/man8" "$FOLDER/prefix/share/man/man8" || fail "other pages"
}

# ---- The pages for a browser ---------------------------------------------------------------------

readonly SITE=$FOLDER/site

TheSiteHasEveryDocumentAndCallAndNoLinkThatLeadsNowhere() {
    local file

    python3 -B "$SOURCE/tools/site" "$SITE" || fail "see above"
    for file in "$SOURCE"/docs/*.md "$SOURCE"/{CHANGELOG,CONTRIBUTING,SECURITY}.md; do
        [[ -s $SITE/$(basename "$file" .md).html ]] || fail "no page of $file"
    done
    for file in $(calls); do
        grep -q "<h1[^>]*>$file</h1>" "$SITE/calls/$file.html" || fail "no page of $file"
    done
    grep -qF 'href="calls/index.html"' "$SITE/index.html" || fail "no way to the calls"
}

# Pages in which one thing is wrong: expect_found PAGE LINE
expect_found() {
    mkdir "$SITE"
    printf '<h1 id="top">One</h1><a href="two.html#there">two</a>%s' "$1" >"$SITE/one.html"
    printf '<h1 id="there">Two</h1><a href="one.html">one</a>' >"$SITE/two.html"
    ! python3 -B "$SOURCE/tools/site" --check "$SITE" >"$FOLDER/out" 2>"$FOLDER/errors" ||
        fail "nothing is found"
    [[ $(<"$FOLDER/out") == "$2" ]] || fail "found: $(<"$FOLDER/out") $(<"$FOLDER/errors")"
}

ALinkToNoPageIsFound() {
    expect_found '<a href="three.html">three</a>' "one.html: three.html is not there"
}

ALinkToNoPlaceOfAPageIsFound() {
    expect_found '<a href="two.html#here">two</a>' "one.html: two.html#here is no place there"
}

WhatIsLoadedFromElsewhereIsFound() {
    expect_found '<img src="https://example.org/x.png"><a href="https://example.org">x</a>' \
        "one.html: https://example.org/x.png is loaded from elsewhere"
}

ADocumentThatLinksToNoFileIsRefused() {
    local file

    mkdir "$FOLDER/tree"
    for file in "$SOURCE"/*; do
        case ${file##*/} in
        build*) ;;
        docs | tools) cp -r "$file" "$FOLDER/tree" ;;
        *) ln -s "$file" "$FOLDER/tree" ;;
        esac
    done
    printf '\n[gone](nowhere.md#place)\n' >>"$FOLDER/tree/docs/guide.md"
    ! python3 -B "$FOLDER/tree/tools/site" "$SITE" 2>"$FOLDER/errors" || fail "it is taken"
    grep -qxF "site: docs/guide.md: no nowhere.md#place" "$FOLDER/errors" ||
        fail "$(<"$FOLDER/errors")"
}

declare -F "$CASE" >/dev/null || fail "there is no such case"
"$CASE"
