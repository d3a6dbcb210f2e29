#!/usr/bin/env bash
# Runs one case of the tests of what compiled programs see of the library: run.sh CASE SOURCE
# LIBRARY BITS. CMakeLists.txt names the cases; each is a function below.
set -euo pipefail

CASE=$1 SOURCE=$2 LIBRARY=$3 BITS=$4
readonly CASE SOURCE LIBRARY BITS
readonly DESCRIPTION=$SOURCE/tests/abi/qpxclient-$BITS.abi

FOLDER=$(mktemp -d)
readonly FOLDER
trap 'rm -rf "$FOLDER"' EXIT

# ---- Verbs ---------------------------------------------------------------------------------------

fail() {
    printf '%s: %s\n' "$CASE" "$1" >&2
    [[ ! -s $FOLDER/out ]] || sed 's/^/  out | /' "$FOLDER/out" >&2
    exit 1
}

run() {
    CODE=0
    "$SOURCE/tools/abi" "$@" >"$FOLDER/out" 2>&1 || CODE=$?
}

expect_text() {
    grep -qF -- "$1" "$FOLDER/out" || fail "there is no \"$1\""
}

# Plants a change, which the editing given makes to a copy of the description: the library must not
# be taken for what is described there, and the difference must be told.
expect_noticed() {
    sed -E "$1" "$DESCRIPTION" >"$FOLDER/planted.abi"
    ! cmp -s "$DESCRIPTION" "$FOLDER/planted.abi" || fail "nothing is planted"
    run "$LIBRARY" "$FOLDER/planted.abi"
    [[ $CODE == 1 ]] || fail "exit code $CODE, not 1"
    expect_text "$2"
    expect_text "docs/compatibility.md tells what may change"
}

# ---- Cases ---------------------------------------------------------------------------------------

TheLibraryIsAsItIsDescribed() {
    run "$LIBRARY"
    [[ $CODE == 0 ]] || fail "exit code $CODE; a change that is allowed is described by --update"
}

ACallThatIsGoneIsNoticed() {
    expect_noticed "s/(name=')ECI_createChannel'/\1ECI_openChannel'/g" "ECI_openChannel"
}

ACallThatIsNewIsNoticed() {
    expect_noticed "/elf-symbol name='QPX_dumpState'/d" "QPX_dumpState"
}

ACallOfAnotherVersionIsNoticed() {
    expect_noticed "s/(name='QPX_dumpState' version=')QPX_10'/\1QPX_11'/" "QPX_dumpState@@QPX_11"
}

AnArgumentOfAnotherTypeIsNoticed() {
    expect_noticed "/<function-decl name='QPX_setAPITraceLevel'/,/<return/ s/(<parameter type-id=')[^']*/\1$(type_of 'short int')/" \
        "parameter 1 of type 'short int' changed"
}

AResultOfAnotherTypeIsNoticed() {
    expect_noticed "/<function-decl name='QPX_dumpState'/,/<return/ s/(<return type-id=')[^']*/\1$(type_of 'short int')/" \
        "return type changed"
}

ARecordOfAnotherSizeIsNoticed() {
    expect_noticed "/<class-decl name='_QPX_ECI_PARMS'/ s/size-in-bits='[0-9]+'/size-in-bits='800'/" \
        "type size changed from 800"
}

AFieldAtAnotherPlaceIsNoticed() {
    expect_noticed "/<class-decl name='_QPX_ECI_PARMS'/,/eci_program_name/ s/offset-in-bits='16'/offset-in-bits='24'/" \
        "offset changed from 24 to 16"
}

AFieldOfAnotherTypeIsNoticed() {
    expect_noticed "/name='eci_timeout'/ s/type-id='[^']*'/type-id='$(type_of int)'/" "eci_timeout"
}

AFieldOfAnotherNameIsNoticed() {
    expect_noticed "s/name='eci_tpn'/name='eci_tpm'/" "eci_tpm"
}

AValueOfAnEnumerationIsNoticed() {
    expect_noticed "s/(name='ECI_CHAR' value=')2'/\13'/" "ECI_CHAR"
}

AnotherSonameIsNoticed() {
    expect_noticed "s/libqpxclient.so.10/libqpxclient.so.9/" "SONAME changed"
}

ALibraryWithoutDebugInformationIsRefused() {
    strip --strip-debug -o "$FOLDER/libqpxclient.so" "$LIBRARY"
    run "$FOLDER/libqpxclient.so"
    [[ $CODE == 1 ]] || fail "exit code $CODE, not 1"
    expect_text "has no debug information"
}

AnUpdateDescribesTheLibrary() {
    run --update "$LIBRARY" "$FOLDER/new.abi"
    [[ $CODE == 0 ]] || fail "exit code $CODE, not 0"
    run "$LIBRARY" "$FOLDER/new.abi"
    [[ $CODE == 0 ]] || fail "exit code $CODE, not 0"
}

# How the description names a type.
type_of() {
    sed -n "s/.*<type-decl name='$1' .*id='\([^']*\)'.*/\1/p" "$DESCRIPTION"
}

"$CASE"
