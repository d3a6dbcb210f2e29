"""Runs rows, round after round, and keeps what they have measured."""

import json
import os
import shutil
import sys
import time

from .machine import cpus_of
from .processes import Failed, run


def command_of(row, programs, port, folder):
    options = dict(row.options)
    if "trace-file" in options:
        options["trace-file"] = os.path.join(folder, options["trace-file"])
    words = [programs[row.program]]
    for name, value in options.items():
        words += [f"--{name}", str(value)]
    if port is not None:
        words += ["--port", str(port)]
    return words


class Progress:
    """One line that is written over, or a line for each part where nobody watches."""

    def __init__(self, total):
        self._total = total
        self._done = 0
        self._begun = time.monotonic()
        self._part = None
        self._watched = sys.stderr.isatty()

    def next(self, part, row):
        self._done += 1
        taken = time.monotonic() - self._begun
        left = taken / self._done * (self._total - self._done)
        time_left = f"{int(left) // 60}:{int(left) % 60:02}"
        text = f"{part}: {row} ({self._done} of {self._total}, {time_left} left)"
        if self._watched:
            sys.stderr.write(f"\r\033[K{text}")
        elif part != self._part:
            sys.stderr.write(text + "\n")
        self._part = part
        sys.stderr.flush()

    def say(self, text):
        sys.stderr.write(f"\r\033[K{text}\n" if self._watched else text + "\n")

    def end(self):
        if self._watched:
            sys.stderr.write("\r\033[K")


class Subjects:
    """The libraries that take part: a name and a folder for the loader each."""

    def __init__(self, folders):
        self._folders = folders

    def of(self, row):
        return list(self._folders) if row.of_library else [""]

    def environment(self, subject):
        return {"LD_LIBRARY_PATH": self._folders[subject]} if subject else {}


class Rounds:
    """Measurements: figures by round, placement, row and subject."""

    def __init__(self, rows, programs, servers, subjects, folder):
        self.rows = rows
        self.results = {}
        self.failures = {}
        self._programs = programs
        self._servers = servers
        self._subjects = subjects
        self._folder = folder

    def run(self, rounds, placements):
        placements = [placement for placement in placements if cpus_of(placement)]
        progress = Progress(sum(self._count(number, placement)
                                for number in range(rounds) for placement in placements))
        for number in range(rounds):
            for placement in placements:
                self._run_part(number, placement, rounds, progress)
        progress.end()

    def _rows_of(self, number, placement):
        return [row for row in self.rows
                if placement in row.placements and number < row.most_rounds]

    def _count(self, number, placement):
        return sum(len(self._subjects.of(row)) for row in self._rows_of(number, placement))

    def _run_part(self, number, placement, rounds, progress):
        client_cpus, server_cpus = cpus_of(placement)
        self._servers.move_to(server_cpus)
        # Every other round runs backwards, so that nobody is always the first.
        rows = self._rows_of(number, placement)
        for row in rows if number % 2 == 0 else reversed(rows):
            subjects = self._subjects.of(row)
            for subject in subjects if number % 2 == 0 else reversed(subjects):
                progress.next(f"round {number + 1} of {rounds}, {placement}", row.name)
                try:
                    self._run_row(number, placement, row, subject, client_cpus)
                except Failed as reason:
                    if (row.name, subject) not in self.failures:
                        progress.say(f"without {row.name} {subject}: {reason}")
                    self.failures[row.name, subject] = str(reason)

    def _run_row(self, number, placement, row, subject, cpus):
        if self.failures.get((row.name, subject)):
            return  # once is enough
        done = self.measure(row, subject, cpus)
        self.results[number, placement, row.name, subject] = json.loads(done.stdout)

    def measure(self, row, subject, cpus, changed=None, prefix=()):
        """Runs a row once, with options changed and behind another program if it is to be."""
        program = self._programs[row.program]
        if not os.path.exists(program):
            raise Failed(f"{os.path.basename(program)} is not built")
        port = self._servers.port(row.server) if row.server else None
        work = os.path.join(self._folder, "work")
        os.makedirs(work, exist_ok=True)
        try:
            command = command_of(row, self._programs, port, work)
            for name, value in (changed or {}).items():
                command += [f"--{name}", str(value)]
            return run([*prefix, *command], cpus=cpus, stack_kb=row.stack_kb,
                       environment=self._subjects.environment(subject))
        finally:
            shutil.rmtree(work, ignore_errors=True)
