# Stages of a longer script, one line each on the terminal and everything else in a log. Sourced.
#
#   LOG_FOLDER=build/demo-logs
#   stage build "building the library" cmake --build build/demo
#
# writes the output of the command to $LOG_FOLDER/build.log. A stage that fails returns the exit
# code of its command, after the end of its log and the log's name have been shown. Descriptor 9, by
# which the script has its turn (turns.sh), is the script's alone.
# shellcheck shell=bash

: "${LOG_FOLDER:?}"
readonly SHOWN_OF_A_FAILURE=25

seconds_now() {
    printf '%(%s)T' -1
}

show_log_end() {
    printf '\n  The last lines of %s:\n\n' "$1"
    tail -n "$SHOWN_OF_A_FAILURE" "$1" | sed 's/^/  | /'
    printf '\n'
}

stage() {
    local name=$1 text=$2
    shift 2
    local log=$LOG_FOLDER/$name.log
    local begin code=0

    mkdir -p "$LOG_FOLDER"
    begin=$(seconds_now)
    printf '  %-46s ' "$text"
    "$@" >"$log" 2>&1 </dev/null 9>&- || code=$?
    if ((code == 0)); then
        printf 'done, %d s\n' $(($(seconds_now) - begin))
    else
        printf 'FAILED, %d s\n' $(($(seconds_now) - begin))
        show_log_end "$log"
    fi
    return "$code"
}

# Compilers are spared what they have done before, where ccache is installed; in whichever folder
# that was.
use_ccache_if_there() {
    command -v ccache >/dev/null || return 0
    export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD} CCACHE_NOHASHDIR=1
    export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
}
