"""System calls and instructions a call, counted apart from what is timed.

Each row runs twice with different numbers of calls; what the difference costs is what calls cost,
without the beginning and the end of the program.
"""

import os
import re
import shutil
import tempfile

from .machine import cpus_of
from .processes import Failed

FEW = 200
MANY = 1200
WARM_UP = 100


def _slope(count):
    return (count(MANY) - count(FEW)) / (MANY - FEW)


def _total_of(summary):
    """The sum of the totals: a program of 32 bits has two, with that of its start in 64 bits."""
    totals = [int(words[3]) for words in map(str.split, summary.splitlines())
              if words and words[-1] == "total"]
    if not totals:
        raise Failed("strace has counted nothing")
    return sum(totals)


class Counts:
    """Counts for rows; figures by row and subject."""

    def __init__(self, rounds):
        self._rounds = rounds
        self._cpus = cpus_of("one")[0]
        self.results = {}

    def run(self, rows, subjects, say):
        for row in rows:
            if not row.counted:
                continue
            for subject in subjects.of(row):
                found = {}
                for name, count in (("system_calls", self._system_calls),
                                    ("instructions", self._instructions)):
                    try:
                        found[name] = _slope(lambda calls, one=count: one(row, subject, calls))
                    except Failed as reason:
                        say(f"without {name.replace('_', ' ')} of {row.name}: {reason}")
                self.results[row.name, subject] = found

    def _measure(self, row, subject, calls, prefix):
        return self._rounds.measure(row, subject, self._cpus,
                                    {"calls": calls, "warm-up": WARM_UP}, prefix)

    def _system_calls(self, row, subject, calls):
        if not shutil.which("strace"):
            raise Failed("there is no strace")
        with tempfile.NamedTemporaryFile("r", suffix=".strace") as summary:
            self._measure(row, subject, calls, ["strace", "-f", "-c", "-o", summary.name])
            return _total_of(summary.read())

    def _instructions(self, row, subject, calls):
        if not shutil.which("valgrind"):
            raise Failed("there is no valgrind")
        done = self._measure(row, subject, calls,
                             ["valgrind", "--tool=callgrind", f"--callgrind-out-file={os.devnull}"])
        collected = re.search(r"Collected : (\d+)", done.stderr)
        if not collected:
            raise Failed("valgrind has counted nothing")
        return int(collected.group(1))
