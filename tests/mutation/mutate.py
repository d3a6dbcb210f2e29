"""Runs the tests against mutants of the library; see tools/mutate."""

import argparse
import hashlib
import json
import mmap
import os
import queue
import random
import re
import shlex
import subprocess
import sys
import threading
import time
import tomllib
import zlib
from collections import Counter, defaultdict

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import mutants as mutation  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
TREE = os.path.dirname(os.path.dirname(HERE))
FILES = ["clapi_socketcomms.cpp", "clapi_eci.cpp", "clapi_gwytok.cpp", "clapi_gwycon.cpp",
         "clapi_channel.cpp"]
# The test programs in the order in which mutants meet them, and the objects that they are made of.
SUITES = {"unit": "unit_tests", "schedule": "schedule_tests", "integration": "integration_tests",
          "load": "load_tests", "fuzz": "fuzz_"}
# Each input is a test, run by a program of its own; a build has them with the address sanitizer.
FUZZ_TARGETS = ["receiver", "socketbuffer", "channels", "connections", "requests"]
CORPUS = os.path.join(TREE, "tests/fuzz/corpus")
SHARED = "src/libqpxclient.so"
HEADER_SIZE = 4  # of the page: which mutant is chosen
LEAST_LIMIT = 4000  # milliseconds that every test gets
LIMIT_FACTOR = 4  # and so many times what it takes without a mutant


class Failure(Exception):
    """Something that the user has to be told, and that ends the run."""


# ---- Building ----

class Build:
    """Compiles the sources with the mutants in them into a folder of its own, and links the tests
    with them as the build that is taken as a model has linked them."""

    def __init__(self, model, work, sources):
        self.model = os.path.abspath(model)
        self.work = os.path.abspath(work)
        self.sources = sources
        self.stamps = {}
        commands = os.path.join(self.model, "compile_commands.json")
        if not os.path.exists(commands):
            raise Failure("%s is no build, or one without compile_commands.json" % model)
        with open(commands, encoding="utf-8") as file:
            self.commands = {self.output(entry["command"]): entry["command"]
                             for entry in json.load(file)}

    @staticmethod
    def output(command):
        return re.search(r" -o (\S+) ", command).group(1)

    def is_made(self, output, *made_of):
        """Whether a file has been made of the very same before; if not, it is about to be."""
        stamp = output + ".made-of"
        digest = hashlib.sha256("\n".join(made_of).encode()).hexdigest()
        if os.path.exists(output) and os.path.exists(stamp):
            with open(stamp, encoding="utf-8") as file:
                if file.read() == digest:
                    return True
        self.stamps[output] = digest
        return False

    def note_made(self, output):
        with open(output + ".made-of", "w", encoding="utf-8") as file:
            file.write(self.stamps[output])

    def run(self, command, log):
        done = subprocess.run(command, cwd=self.model, shell=True, text=True, check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        with open(os.path.join(self.work, log), "w", encoding="utf-8") as file:
            file.write(command + "\n" + done.stdout)
        return done

    def compiled(self, like, source, output, more=""):
        """The command that compiles a source as another one is compiled."""
        command = re.sub(r" -o \S+ -c \S+", "", self.commands[like])
        command = re.sub(r" -(flto=\S+|ffat-lto-objects|Werror|Wall|Wextra|Wshadow|Wconversion|"
                         r"Wformat=2|g\d?)(?= |$)", "", command)
        return "%s -g1 -w -fpermissive -Wno-narrowing -I%s %s -o %s -c %s" % (
            command, HERE, more, output, source)

    def compile_source(self, source, folder, left_out):
        like = "src/CMakeFiles/%s.dir/%s.o" % (folder, source.name)
        if like not in self.commands:
            return
        written = os.path.join(self.work, "src", source.name)
        output = os.path.join(self.work, folder + ".dir", source.name + ".o")
        command = self.compiled(like, written, output, "-include mutant.h")
        with open(os.path.join(HERE, "mutant.h"), encoding="utf-8") as file:
            header = file.read()
        for _ in range(10):
            text = mutation.apply_edits(source, left_out[source.name])
            if self.is_made(output, command, header, text):
                return
            with open(written, "w", encoding="utf-8") as file:
                file.write(text)
            done = self.run(command, "%s.%s.log" % (folder, source.name))
            if done.returncode == 0:
                self.note_made(output)
                return
            lines = {int(line) for line in
                     re.findall(re.escape(source.name) + r":(\d+):\d+: error", done.stdout)}
            if not lines - left_out[source.name]:
                raise Failure("%s cannot be compiled:\n%s" % (written, done.stdout[-2000:]))
            left_out[source.name] |= lines
        raise Failure("%s cannot be compiled" % written)

    def link(self, target, programs):
        """Links a target with our objects in the place of the model's."""
        done = subprocess.run(["ninja", "-t", "commands", target], cwd=self.model, text=True,
                              stdout=subprocess.PIPE, check=True)
        command = [line for line in done.stdout.splitlines() if re.search(r" -o \S*%s\S* " %
                   re.escape(os.path.basename(target)), line) and " -c " not in line][-1]
        command = re.search(r"(?:: && )?(\S+/(?:cc|c\+\+|gcc|g\+\+|clang\S*) .*?)(?: && |$)",
                            command).group(1)
        has_objects = False
        for folder in ("qpxclient_objects", "qpxclient_scheduled_objects"):
            for source in self.sources:
                ours = os.path.join(self.work, folder + ".dir", source.name + ".o")
                model = "src/CMakeFiles/%s.dir/%s.o" % (folder, source.name)
                has_objects |= model in command
                command = command.replace(model, ours)
        name = os.path.basename(re.search(r" -o (\S+)", command).group(1))
        output = os.path.join(self.work, name)
        command = re.sub(r" -o \S+", " -o " + output, command)
        shared = os.path.join(self.work, "libqpxclient.so.10")
        command = re.sub(r"src/libqpxclient\.so\S*", shared, command)
        command = re.sub(r"-rpath,[^: ]*/src", "-rpath," + self.work, command)
        objects = []
        if has_objects:
            objects.append(os.path.join(self.work, "page.o"))
        if programs:
            objects.append(os.path.join(self.work, "server.o"))
        # Before the archives: what is in an object is not looked for there.
        command = re.sub(r"( -o \S+)", r"\1 " + " ".join(objects), command, count=1)
        if self.is_made(output, command, *self.times(command)):
            return output
        done = self.run(command, os.path.basename(target) + ".log")
        if done.returncode != 0:
            raise Failure("%s cannot be linked:\n%s" % (target, done.stdout[-3000:]))
        self.note_made(output)
        return output

    def times(self, command):
        """When what is linked has been made."""
        for name in re.findall(r"\S+\.(?:o|a|10)(?= |$)", command):
            path = os.path.join(self.model, name)
            yield "%s %d" % (name, os.stat(path).st_mtime_ns if os.path.exists(path) else 0)

    def make(self, suites, jobs, say):
        os.makedirs(os.path.join(self.work, "src"), exist_ok=True)
        tasks = []
        left_out = {source.name: set() for source in self.sources}
        for folder in ("qpxclient_objects", "qpxclient_scheduled_objects"):
            os.makedirs(os.path.join(self.work, folder + ".dir"), exist_ok=True)
            tasks += [(source, folder) for source in self.sources]
        say("compiling %d sources" % len(tasks))
        # The one kind of objects tells what cannot be compiled, for both.
        for folder in ("qpxclient_objects", "qpxclient_scheduled_objects"):
            in_parallel(jobs, [lambda s=source: self.compile_source(s, folder, left_out)
                               for source in self.sources])
        a_source = "src/CMakeFiles/qpxclient_objects.dir/%s.o" % FILES[0]
        a_test = next(name for name in self.commands if name.startswith("tests/CMakeFiles/"))
        for like, name in ((a_source, "page"), (a_test, "server")):
            output = os.path.join(self.work, name + ".o")
            source = os.path.join(HERE, name + ".cpp")
            command = self.compiled(like, source, output)
            with open(source, encoding="utf-8") as file:
                if self.is_made(output, command, file.read()):
                    continue
            done = self.run(command, name + ".log")
            if done.returncode != 0:
                raise Failure("%s.cpp cannot be compiled:\n%s" % (name, done.stdout[-2000:]))
            self.note_made(output)
        say("linking")
        if "integration" in suites:
            made = self.link(SHARED, programs=False)
            link = os.path.join(self.work, "libqpxclient.so.10")
            if made != link and not os.path.exists(link):
                os.symlink(os.path.basename(made), link)
        for suite in suites:
            if suite == "fuzz":
                for target in FUZZ_TARGETS:
                    self.link("tests/fuzz/fuzz_" + target, programs=False)
            else:
                self.link("tests/" + SUITES[suite], programs=True)
        return {name: sorted(lines) for name, lines in left_out.items() if lines}


def in_parallel(jobs, tasks):
    failures = []
    waiting = queue.SimpleQueue()
    for task in tasks:
        waiting.put(task)

    def work():
        while not failures:
            try:
                task = waiting.get_nowait()
            except queue.Empty:
                return
            try:
                task()
            except Exception as failure:  # pylint: disable=broad-except
                failures.append(failure)

    threads = [threading.Thread(target=work) for _ in range(jobs)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if failures:
        raise failures[0]


# ---- Running tests ----

class Worker:
    """Runs tests, one at a time, with a mutant chosen or none: one process for each program, of
    which each test is a fork, and a page that all of them share."""

    def __init__(self, work, model, number, page_size, wrapper):
        self.work, self.model, self.wrapper = work, model, wrapper
        self.page_name = os.path.join(work, "page.%d.%d" % (os.getpid(), number))
        with open(self.page_name, "wb") as file:
            file.write(bytes(page_size))
        with open(self.page_name, "r+b") as file:
            self.page = mmap.mmap(file.fileno(), page_size)
        self.programs = {}

    def program(self, suite):
        if suite not in self.programs:
            environment = dict(os.environ, QPX_MUTANT_SERVER="1", QPX_MUTANT_PAGE=self.page_name)
            self.programs[suite] = subprocess.Popen(
                self.wrapper + [os.path.join(self.work, SUITES[suite])], env=environment, text=True,
                cwd=os.path.join(self.model, "tests"), bufsize=1, stdin=subprocess.PIPE,
                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        return self.programs[suite]

    def run(self, suite, test, mutant, limit):
        """How the test ends with the mutant, and after how many milliseconds."""
        self.page[:] = bytes(len(self.page))
        self.page[:HEADER_SIZE] = mutant.to_bytes(HEADER_SIZE, sys.byteorder)
        if suite == "fuzz":
            return self.replay(test, limit)
        program = self.program(suite)
        program.stdin.write("%d %s\n" % (limit, test))
        answer = program.stdout.readline().split()
        if len(answer) != 2:
            raise Failure("%s has ended" % SUITES[suite])
        return answer[0], int(answer[1])

    def replay(self, test, limit):
        begin = time.monotonic()
        try:
            done = subprocess.run(
                self.wrapper + [os.path.join(self.work, "fuzz_" + test.split("/")[0]),
                                os.path.join(CORPUS, test)],
                env=dict(os.environ, QPX_MUTANT_PAGE=self.page_name), timeout=limit / 1000,
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
            result = "passed" if done.returncode == 0 else "failed"
        except subprocess.TimeoutExpired:
            result = "hung"
        return result, int(1000 * (time.monotonic() - begin))

    def reached(self):
        page = self.page[HEADER_SIZE:]
        return [number for number in range(len(page)) if page[number]]

    def close(self):
        for program in self.programs.values():
            program.stdin.close()
            program.wait()
        self.page.close()
        os.unlink(self.page_name)


def list_subjects(work, suite, wrapper):
    """All tests of a subject as one, for each."""
    tests = list_tests(work, suite, wrapper)
    if suite == "fuzz":
        return tests
    return list(dict.fromkeys(test.split(".", 1)[0] + ".*" for test in tests))


def list_tests(work, suite, wrapper):
    if suite == "fuzz":
        return [target + "/" + name for target in FUZZ_TARGETS
                for name in sorted(os.listdir(os.path.join(CORPUS, target)))]
    program = os.path.join(work, SUITES[suite])
    done = subprocess.run(wrapper + [program, "--gtest_list_tests"], text=True, check=True,
                          stdout=subprocess.PIPE)
    subject, tests = "", []
    for line in done.stdout.splitlines():
        line = line.split("#")[0].rstrip()
        if line.startswith("  "):
            tests.append(subject + line.strip())
        elif line.endswith("."):
            subject = line
    return tests


class Tests:
    """What is known about the tests: how long each takes, and which mutants it reaches."""

    def __init__(self, file, digest):
        self.file = file
        self.data = {"digest": digest, "tests": {}}
        if os.path.exists(file):
            with open(file, encoding="utf-8") as text:
                data = json.load(text)
            if data["digest"] == digest:
                self.data = data

    def save(self):
        with open(self.file + ".new", "w", encoding="utf-8") as file:
            json.dump(self.data, file)
        os.replace(self.file + ".new", self.file)

    def look(self, runner, suites, lister, wrapper, say):
        """Runs every test that is not known yet, without a mutant."""
        known = self.data["tests"]
        new = [(suite, test) for suite in suites
               for test in lister(runner.work, suite, wrapper)
               if suite + " " + test not in known]
        if not new:
            return
        done = Counter()
        lock = threading.Lock()

        def look(worker, task):
            suite, test = task
            result, taken = worker.run(suite, test, 0, 120000)
            with lock:
                known[suite + " " + test] = {
                    "ms": taken, "ok": result == "passed",
                    "reached": worker.reached() if result == "passed" else []}
                done[result] += 1
                say("%d of %d tests without a mutant" % (done.total(), len(new)))

        runner.each(new, look)
        self.save()

    def failed(self):
        return sorted(name for name, test in self.data["tests"].items() if not test["ok"])

    def by_mutant(self, suites, subjects, pattern):
        """For each mutant the tests that reach it, in the order in which they are tried: programs
        in their order; in each by turns the one that reaches the fewest mutants, for it is about
        little else, and a fast one of every subject, whose tests are much alike."""
        found = defaultdict(list)
        for name, test in self.data["tests"].items():
            suite = name.split(" ", 1)[0]
            if suite not in suites or not test["ok"] or name.endswith(".*") != subjects:
                continue
            if not re.search(pattern, name):
                continue
            rank = (max(test["ms"], 4).bit_length(), len(test["reached"]), name)
            for number in test["reached"]:
                found[number, suite].append(rank)
        order = defaultdict(list)
        for (number, suite), ranks in sorted(found.items(), key=lambda e: suites.index(e[0][1])):
            order[number] += self.in_turns(ranks)
        return order

    @staticmethod
    def in_turns(ranks):
        had = Counter()
        by_subject = []
        for rank in sorted(ranks):
            subject = rank[-1].split(".", 1)[0]
            by_subject.append((had[subject], rank))
            had[subject] += 1
        by_subject.sort()
        # A slow test has to be about little else indeed.
        few_first = sorted(ranks, key=lambda rank: (rank[1] << max(0, rank[0] - 9), rank))
        order = {}
        for i, rank in enumerate(few_first):
            for other in few_first[2 * i:2 * i + 2] + [by_subject[i][1]]:
                order.setdefault(other[-1])
        return list(order)


class Runner:
    """Workers that go through a list of tasks."""

    def __init__(self, work, model, jobs, page_size, wrapper):
        self.work, self.model, self.jobs = work, model, jobs
        self.page_size, self.wrapper = page_size, wrapper

    def each(self, tasks, action):
        waiting = queue.SimpleQueue()
        for task in tasks:
            waiting.put(task)
        numbers = queue.SimpleQueue()
        for number in range(self.jobs):
            numbers.put(number)

        def work():
            worker = Worker(self.work, self.model, numbers.get(), self.page_size, self.wrapper)
            try:
                while True:
                    try:
                        task = waiting.get_nowait()
                    except queue.Empty:
                        return
                    action(worker, task)
            finally:
                worker.close()

        in_parallel(self.jobs, [work] * self.jobs)


# ---- Mutants and their tests ----

class Results:
    """What has become of each mutant, by its key: a line of a file for each run of it. What one run
    has killed is dead, whatever another says that has not seen it."""

    def __init__(self, file):
        self.file = file
        self.of = {}
        if os.path.exists(file):
            with open(file, encoding="utf-8") as lines:
                for line in lines:
                    result = json.loads(line)
                    if self.of.get(result["key"], {}).get("status") != "killed":
                        self.of[result["key"]] = result

    def add(self, result):
        self.of[result["key"]] = result
        with open(self.file, "a", encoding="utf-8") as file:
            file.write(json.dumps(result) + "\n")


class Hunt:
    """Runs the tests of mutants until one fails."""

    def __init__(self, tests, results, suites, options):
        self.tests, self.results, self.suites, self.most = tests, results, suites, options.most
        self.build = os.path.basename(options.build)
        self.by_mutant = tests.by_mutant(suites, options.subjects, options.tests)
        self.killers = defaultdict(Counter)  # by file, and by function of a file
        self.unsteady = Counter()
        self.counts = Counter()
        self.lock = threading.Lock()
        for result in results.of.values():
            if result["status"] == "killed":
                self.note_killer(result["where"], result["suite"] + " " + result["test"])

    def candidates(self, mutant):
        """The tests to try, those first that have killed others in the same function or file."""
        tried = self.tried_before(mutant)
        names = [name for name in self.by_mutant.get(mutant.number, [])
                 if self.number_of(name) not in tried]
        likely = [name for name, _ in
                  self.killers[mutant.file + " " + mutant.function].most_common(12) +
                  self.killers[mutant.file].most_common(60)]
        there = set(names)
        first = [name for name in dict.fromkeys(likely) if name in there]
        there.difference_update(first)
        names = [name for name in names if name in there]
        if not self.most:
            return first + names
        left = Counter({suite: self.most for suite in self.suites})
        chosen = []
        for name in names:
            suite = name.split(" ", 1)[0]
            left[suite] -= 1
            if left[suite] >= 0:
                chosen.append(name)
        return first + chosen

    def note_killer(self, where, name):
        self.killers[where][name] += 1
        self.killers[where.split(" ")[0]][name] += 1

    def number_of(self, name):
        """The number by which results name a test of this build."""
        return zlib.crc32((self.build + " " + name).encode())

    def tried_before(self, mutant):
        """The tests that the mutant has survived already."""
        before = self.results.of.get(mutant.key, {})
        return set(before.get("passed", []))

    def fails(self, worker, name, number):
        """How a test fails with the mutant, if it does, and not without."""
        suite, test = name.split(" ", 1)
        limit = LEAST_LIMIT + LIMIT_FACTOR * self.tests.data["tests"][name]["ms"]
        result, _ = worker.run(suite, test, number, limit)
        if result == "passed":
            return None
        alone, taken = worker.run(suite, test, 0, limit)
        if alone == "passed" and (result != "hung" or taken * 2 < limit):
            return result
        self.unsteady[name] += 1
        return None

    def run(self, worker, mutant):
        if not self.by_mutant.get(mutant.number):
            if mutant.key not in self.results.of:
                self.note(mutant, {"status": "unreached"})
            return
        candidates = self.candidates(mutant)
        for count, name in enumerate(candidates, 1):
            how = self.fails(worker, name, mutant.number)
            if how:
                suite, test = name.split(" ", 1)
                with self.lock:
                    self.note_killer(mutant.file + " " + mutant.function, name)
                self.note(mutant, {"status": "killed", "how": how, "suite": suite, "test": test,
                                   "tried": count})
                return
        passed = self.tried_before(mutant) | {self.number_of(name) for name in candidates}
        self.note(mutant, {"status": "survived", "tried": len(passed), "passed": sorted(passed)})

    def note(self, mutant, result):
        with self.lock:
            self.counts[result.get("how", result["status"])] += 1
            self.results.add(dict(result, key=mutant.key,
                                  where=mutant.file + " " + mutant.function))


# ---- Survivors that are known ----

def known_survivors(file):
    """By the keys of mutants that are known to survive: whether nobody can tell them from the
    original, "equivalent", or no test does so far, "open"; and why."""
    if not os.path.exists(file):
        return {}
    with open(file, "rb") as text:
        listed = tomllib.load(text)
    return {key: (status, group["why"]) for status in ("equivalent", "open")
            for group in listed.get(status, []) for key in group["mutants"]}


def status_of(mutant, results, reasons):
    result = results.of.get(mutant.key)
    if result is None:
        return "not run"
    if result["status"] == "killed":
        return "killed"
    if mutant.key in reasons:
        return reasons[mutant.key][0]
    return result["status"]


def report(chosen, results, reasons, tests, out):
    """A table by file and kind, and every survivor that is not known. Returns how many."""
    table = defaultdict(Counter)
    reached = {n for test in tests.data["tests"].values() if test["ok"] for n in test["reached"]}
    for mutant in chosen:
        status = status_of(mutant, results, reasons)
        for row in [(file, kind) for file in (mutant.file, "all") for kind in (mutant.kind, "")]:
            table[row]["made"] += 1
            table[row]["reached"] += mutant.number in reached
            table[row][status] += 1
    out("%-22s %-11s %6s %8s %7s %11s %5s %9s" % ("file", "kind", "made", "reached", "killed",
                                                  "equivalent", "open", "survived"))
    order = FILES + ["all"]
    for (file, kind), row in sorted(table.items(), key=lambda e: (order.index(e[0][0]), e[0][1])):
        out("%-22s %-11s %6d %8d %7d %11d %5d %9d" % (
            file, kind or "all", row["made"], row["reached"], row["killed"], row["equivalent"],
            row["open"], row["survived"] + row["unreached"]))
    all_of = table[("all", "")]
    run = all_of["made"] - all_of["not run"]
    if run:
        out("killed: %.1f %% of %d mutants, %.1f %% of the %d that are not equivalent" % (
            100.0 * all_of["killed"] / run, run,
            100.0 * all_of["killed"] / max(1, run - all_of["equivalent"]),
            run - all_of["equivalent"]))
    if all_of["not run"]:
        out("not run yet: %d" % all_of["not run"])
    new = [m for m in chosen if status_of(m, results, reasons) in ("survived", "unreached")]
    for mutant in new:
        status = status_of(mutant, results, reasons)
        out("%s %d: %s:%d %s: %s" % (status, mutant.number, mutant.file, mutant.line,
                                     mutant.function, mutant.change))
        out("    " + mutant.text)
    for key, (status, reason) in reasons.items():
        result = results.of.get(key)
        if result and result["status"] == "killed":
            out("killed, although said to be %s (%s): %s" % (status, reason, key))
    return len(new)


# ---- The command line ----

def parse(arguments):
    parser = argparse.ArgumentParser(
        prog="tools/mutate", description="Makes small changes to sources of the library, one at a "
        "time, and looks whether the tests notice. Everything it makes is in a folder of its own.",
        epilog="Each change that no test notices is shown, unless tests/mutation/survivors.toml "
        "says why none can, or none does so far. Exit code 1 if there is one that is not listed "
        "there.")
    parser.add_argument("--file", action="append", choices=FILES, help="only mutants of this file")
    parser.add_argument("--kind", action="append", choices=list(mutation.KINDS),
                        help="only mutants of this kind")
    parser.add_argument("--mutant", action="append", type=int, metavar="NUMBER",
                        help="only this one")
    parser.add_argument("--sample", type=int, metavar="NUMBER", help="only so many, by chance")
    parser.add_argument("--seed", type=int, default=1, help="what the sample's chance goes by")
    parser.add_argument("--suites", default="unit,schedule,integration",
                        help="the test programs, in the order in which they are tried")
    parser.add_argument("--most", type=int, default=0, metavar="NUMBER",
                        help="try no more than so many tests of a program; --again goes on")
    parser.add_argument("--tests", default="", metavar="PATTERN",
                        help="only tests whose names match it")
    parser.add_argument("--subjects", action="store_true",
                        help="all tests of a subject in one process, which is faster for mutants "
                        "that survive most of them")
    parser.add_argument("--again", action="store_true",
                        help="run those again that have survived, with what tests there are now")
    parser.add_argument("--fresh", action="store_true", help="forget earlier results")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="so many tests at once")
    parser.add_argument("--build", default=os.path.join(TREE, "build/release"), metavar="FOLDER",
                        help="the build whose objects and commands are used")
    parser.add_argument("--work", default=os.path.join(TREE, "build/mutation"), metavar="FOLDER",
                        help="where everything is made")
    parser.add_argument("--results", metavar="FILE", help="where the results are, so that another "
                        "build goes on with what one has left; in the folder above unless given")
    parser.add_argument("--list", action="store_true", help="show the mutants and end")
    parser.add_argument("--report", action="store_true", help="show what is known and end")
    return parser.parse_args(arguments)


def choose(all_mutants, options):
    chosen = [m for m in all_mutants
              if (not options.file or m.file in options.file) and
              (not options.kind or m.kind in options.kind) and
              (not options.mutant or m.number in options.mutant)]
    if options.sample:
        chosen = random.Random(options.seed).sample(chosen, min(options.sample, len(chosen)))
    return chosen


class Progress:
    """A line that is written over on a terminal, and now and then elsewhere."""

    def __init__(self):
        self.begin = self.shown = time.monotonic()
        self.wide = sys.stdout.isatty()

    def __call__(self, text, always=False):
        now = time.monotonic()
        if not always and now - self.shown < (0.5 if self.wide else 20):
            return
        self.shown = now
        minutes, seconds = divmod(int(now - self.begin), 60)
        line = "%3d:%02d  %s" % (minutes, seconds, text)
        print("\r%-100s" % line if self.wide else line, end="" if self.wide else "\n", flush=True)


def read_sources():
    files = {}
    for name in FILES:
        with open(os.path.join(TREE, "src", name), encoding="utf-8") as file:
            files[name] = file.read()
    return mutation.make_all(files)


def wrapper_for(model):
    """Sanitizers place their shadow memory where some kernels put a program by chance."""
    with open(os.path.join(model, "CMakeCache.txt"), encoding="utf-8") as cache:
        sanitized = re.search(r"^QPX_SANITIZE:\w+=(.+)$", cache.read(), re.M)
    return ["setarch", "--addr-no-randomize"] if sanitized else []


def digest_of(sources):
    text = "".join(mutation.apply_edits(source) for source in sources)
    return hashlib.sha256(text.encode()).hexdigest()


def main(arguments):
    options = parse(arguments)
    sources = read_sources()
    all_mutants = [mutant for source in sources for mutant in source.mutants]
    chosen = choose(all_mutants, options)
    if options.list:
        for mutant in chosen:
            print("%d %s:%d %s, %s: %s\n    %s" % (mutant.number, mutant.file, mutant.line,
                                                   mutant.function, mutant.kind, mutant.change,
                                                   mutant.text))
        return 0

    suites = options.suites.split(",")
    for suite in suites:
        if suite not in SUITES:
            raise Failure("there is no test program %s; there are %s" % (suite, ", ".join(SUITES)))
    os.makedirs(options.work, exist_ok=True)
    results_file = options.results or os.path.join(options.work, "results.jsonl")
    if options.fresh and os.path.exists(results_file):
        os.unlink(results_file)
    results = Results(results_file)
    tests = Tests(os.path.join(options.work, "tests.json"), digest_of(sources))
    reasons = known_survivors(os.path.join(HERE, "survivors.toml"))
    say = Progress()
    if not options.report:
        say("%d mutants in %d files" % (len(all_mutants), len(sources)), always=True)
        wrapper = wrapper_for(options.build)
        left_out = Build(options.build, options.work, sources).make(
            suites, options.jobs, lambda text: say(text, always=True))
        if left_out:
            print("mutants that do not compile, in lines", left_out)
        runner = Runner(os.path.abspath(options.work), os.path.abspath(options.build), options.jobs,
                        HEADER_SIZE + len(all_mutants) + 8, wrapper)
        tests.look(runner, suites, list_subjects if options.subjects else list_tests, wrapper, say)
        hunt = Hunt(tests, results, suites, options)
        hunt_all(chosen, options, runner, hunt, reasons, say)
    for name in tests.failed():
        print("fails without a mutant, and is left out:", name)
    return 1 if report(chosen, results, reasons, tests, print) else 0


def hunt_all(chosen, options, runner, hunt, reasons, say):
    def is_due(mutant):
        result = hunt.results.of.get(mutant.key)
        if result is None:
            return True
        is_equivalent = reasons.get(mutant.key, ("", ""))[0] == "equivalent"
        return options.again and result["status"] != "killed" and not is_equivalent

    due = [mutant for mutant in chosen if is_due(mutant)]

    def run(worker, mutant):
        hunt.run(worker, mutant)
        say("%d of %d mutants: %s" % (hunt.counts.total(), len(due), ", ".join(
            "%d %s" % (count, what) for what, count in sorted(hunt.counts.items()))))

    if due:
        runner.each(due, run)
        say("%d mutants run" % len(due), always=True)
        print()
    for name, count in hunt.unsteady.most_common():
        print("fails now and then without a mutant, %d times: %s" % (count, name))


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except Failure as failure:
        sys.exit("mutate: %s" % failure)
    except KeyboardInterrupt:
        sys.exit(130)
