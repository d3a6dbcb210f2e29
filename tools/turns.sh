# Lets scripts run one after the other where two at once would break each other's build. Sourced.
#
#   take_turn check ./check
#   ...
#   end_turn
#
# Waits while another process has its turn at "check", and says for whom. The turn ends with the
# process, if not before: the lock on build/check.lock is held through descriptor 9, which nothing
# may inherit that can outlive this process (9>&-).
# shellcheck shell=bash

take_turn() {
    local lock=build/$1.lock name=$2
    local holder

    mkdir -p build
    exec 9<>"$lock"
    if ! flock --nonblock 9; then
        holder=$(<"$lock")
        printf 'Waiting for %s to end, which builds in the same folder.\n' "${holder:-another run}"
        flock 9
    fi
    printf '%s (process %d)\n' "$name" "$$" >"$lock"
}

end_turn() {
    exec 9>&-
}
