# A Debian in a folder that runs: systemd is its first process, as on a machine. It has processes,
# mounts, control groups and a network of its own, in which there is nothing else. Sourced.
#
#   boot_machine FOLDER       needs root; ends when everything that starts by itself has started
#   inside systemctl status   runs a command in it, as its root
#   end_machine               nothing of it is left but the folder
# shellcheck shell=bash

MACHINE_UNSHARED=
MACHINE_FIRST=
MACHINE_GROUP=

# What the kernel and a container's manager would have set up before systemd starts. The folder's
# own run, tmp and dev stay as they are.
# shellcheck disable=SC2016 # for the shell that is started
readonly SET_UP='set -e
    mount --make-rprivate /
    mount --bind "$0" "$0"
    cd "$0"
    mount -t proc proc proc
    mount -t sysfs -o ro sysfs sys
    mount -t cgroup2 cgroup2 sys/fs/cgroup
    for folder in dev run tmp; do mount -t tmpfs -o mode=755 tmpfs "$folder"; done
    chmod 1777 tmp
    mkdir dev/pts dev/shm
    mount -t devpts -o newinstance,ptmxmode=666 devpts dev/pts
    mount -t tmpfs tmpfs dev/shm
    while read -r name numbers; do
        mknod -m 666 "dev/$name" c $numbers
    done <<<"null 1 3
zero 1 5
full 1 7
random 1 8
urandom 1 9
tty 5 0"
    ln -s pts/ptmx dev/ptmx
    ln -s /proc/self/fd dev/fd
    for number in "0 stdin" "1 stdout" "2 stderr"; do
        ln -s "/proc/self/fd/${number% *}" "dev/${number#* }"
    done
    mkdir -p run/systemd/system/multi-user.target.wants run/outside
    printf "%s\n" "[Service]" "Type=oneshot" \
        "ExecStart=/bin/sh -c \"echo started >/started\"" \
        >run/systemd/system/machine-started.service
    ln -s ../machine-started.service run/systemd/system/multi-user.target.wants
    for timer in apt-daily apt-daily-upgrade dpkg-db-backup e2scrub_all fstrim man-db; do
        ln -s /dev/null "run/systemd/system/$timer.timer"
    done
    ip link set lo up
    pivot_root . run/outside
    umount --lazy /run/outside
    exec env -i container=machine PATH=/usr/sbin:/usr/bin:/sbin:/bin /lib/systemd/systemd'

# In a group of its own, so that what systemd makes there can be taken away behind it.
make_group() {
    local groups own

    groups=$(findmnt --noheadings --first-only --types cgroup2 --output TARGET)
    own=$(sed -n 's/^0:://p' /proc/self/cgroup)
    MACHINE_GROUP=$groups${own%/}/qpx-machine.$$
    mkdir "$MACHINE_GROUP"
}

boot_machine() {
    local started=$1/started
    readonly PATIENCE=300 # seconds; a machine that has not started by then does not

    make_group
    mkfifo "$started"
    # shellcheck disable=SC2016 # for the shell that is started
    sh -c 'echo $$ >"$0/cgroup.procs"; exec "$@"' "$MACHINE_GROUP" \
        unshare --pid --mount --cgroup --uts --ipc --net --fork --kill-child \
        bash -c "$SET_UP" "$1" </dev/null 9>&- &
    MACHINE_UNSHARED=$!
    read -r -t "$PATIENCE" _ <>"$started" || return 1
    rm "$started"
    MACHINE_FIRST=$(pgrep --parent "$MACHINE_UNSHARED")
    inside systemctl is-system-running --wait
}

end_machine() {
    [[ -n $MACHINE_UNSHARED ]] || return 0
    # With the first process the kernel ends all others.
    pkill --signal KILL --parent "$MACHINE_UNSHARED" || true
    wait "$MACHINE_UNSHARED" 2>/dev/null || true
    MACHINE_UNSHARED=
    find "$MACHINE_GROUP" -depth -type d -exec rmdir {} ';'
}

inside() {
    nsenter --target "$MACHINE_FIRST" --pid --mount --cgroup --uts --ipc --net \
        env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/src LC_ALL=C.UTF-8 \
        DEBIAN_FRONTEND=noninteractive "$@"
}
