"""Processes that end with this one, whatever ends it, and run on the CPUs that they are given."""

import ctypes
import os
import resource
import signal
import subprocess

PR_SET_PDEATHSIG = 1
_libc = ctypes.CDLL(None)


class Failed(Exception):
    """Something that is to be said to the user in one line."""


def prepare(cpus=None, stack_kb=0):
    """What a child does before its program begins."""

    def in_child():
        _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
        if cpus:
            os.sched_setaffinity(0, cpus)
        if stack_kb:
            resource.setrlimit(resource.RLIMIT_STACK, (stack_kb * 1024, resource.RLIM_INFINITY))

    return in_child


def run(command, cpus=None, stack_kb=0, environment=None, limit=600, folder=None):
    """Runs a program to its end and gives what it has printed, or fails with its last words."""
    try:
        done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=limit, cwd=folder, check=False,
                              env={**os.environ, **(environment or {})},
                              preexec_fn=prepare(cpus, stack_kb))
    except subprocess.TimeoutExpired as late:
        raise Failed(f"{os.path.basename(command[0])}: not done after {limit} s") from late
    except OSError as error:
        raise Failed(str(error)) from error
    if done.returncode != 0:
        words = (done.stderr or done.stdout).strip().splitlines()
        raise Failed(words[-1] if words else f"{command[0]} ended with {done.returncode}")
    return done


def move_to(pid, cpus):
    """Moves all threads of a process."""
    for thread in os.listdir(f"/proc/{pid}/task"):
        try:
            os.sched_setaffinity(int(thread), cpus)
        except ProcessLookupError:
            pass
