# Completion of qpx for bash: source this file, or install it as
# /usr/share/bash-completion/completions/qpx.
# shellcheck shell=bash

_qpx() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command='' i
    local settings="--host --port --timeout --applid --qualifier --server --user --config --color --json --help"
    local calling="--transaction --call-timeout --password-fd"
    local options=''

    case $before in
    --color) mapfile -t COMPREPLY < <(compgen -W "auto always never" -- "$word") && return ;;
    --as) mapfile -t COMPREPLY < <(compgen -W "auto text hex dump raw" -- "$word") && return ;;
    --extend) mapfile -t COMPREPLY < <(compgen -W "commit backout" -- "$word") && return ;;
    --file | --unit | --config) mapfile -t COMPREPLY < <(compgen -f -- "$word") && return ;;
    esac
    for ((i = 1; i < COMP_CWORD; ++i)); do
        case ${COMP_WORDS[i]} in
        call | channel | systems | password | ping | load | trace | codes | doctor)
            command=${COMP_WORDS[i]} && break
            ;;
        esac
    done
    case $command in
    '') options="--version call channel systems password ping load trace codes doctor" ;;
    call) options="--text --hex --file --length --ccsid --as --unit --extend $calling" ;;
    channel) options="--channel --get --as $calling" ;;
    password) options="verify change --password-fd" ;;
    ping) options="--count --interval --program $calling" ;;
    load) options="--threads --connections --window --duration --count --size --text --length $calling" ;;
    doctor) options="--pid" ;;
    trace)
        options="--slow --failed --all --call --data --connection --follow"
        [[ $word == -* ]] || { mapfile -t COMPREPLY < <(compgen -f -- "$word") && return; }
        ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$options $settings" -- "$word")
}

complete -F _qpx qpx
