"""The commands of the documents: every one is known, those that are ours have the options that
they are given, and the harmless ones are run. Those of README.md are run in tests/readme."""

import contextlib
import functools
import http.client
import json
import os
import pathlib
import re
import shlex
import socket
import sqlite3
import subprocess
import tempfile
import unittest
from typing import Iterator, List, NamedTuple

from blocks import Block, blocks
from support import DAEMON, SOURCE, Gateway, answers, started

BUILD = pathlib.Path(os.environ["QPX_BUILD"])
CLIENT = os.environ["QPX_CLIENT"]
REGISTRY = str(SOURCE / "demo-programs/data/registry.toml")

# Commands of others, whose options are theirs, and programs of the reader.
OTHERS = frozenset("""
    apt cc cobc createdb curl dumpcap echo file gcc grep install ldconfig less nm pkg-config psql
    readelf socat sqlite3 sysctl systemctl tshark ulimit ./app ./a.out ./orders
    """.split())


class Command(NamedTuple):
    """A simple command, without its redirections; variables are those that it is given."""
    place: str
    variables: List[str]
    words: List[str]


# ---- Reading -------------------------------------------------------------------------------------


def script_of(block: Block) -> str:
    """What a reader types; on a console that stands behind a $, and the rest is output."""
    if block.language == "console":
        return "".join(line[2:] + "\n" if line.startswith("$ ") else "\n"
                       for line in block.text.splitlines())
    return block.text


def shell_blocks() -> List[Block]:
    return [block for block in blocks(SOURCE, "sh", "console") if block.document != "README.md"]


def commands_of(block: Block) -> Iterator[Command]:
    """Each simple command, that of a pipe and that in another one too."""
    lines = script_of(block).replace("\\\n", " ").splitlines()
    for number, line in enumerate(lines, block.line):
        inner = re.compile(r"\$\(([^()]*)\)")
        text = " ; ".join([*inner.findall(line), inner.sub("substituted", line)])
        lexer = shlex.shlex(text, posix=True, punctuation_chars="();<>|&")
        lexer.whitespace_split = True
        found = Command(f"{block.document}:{number}", [], [])
        redirected = False
        for word in [*lexer, ";"]:
            if redirected:
                redirected = False
            elif re.fullmatch(r"[<>]+", word):
                redirected = True
                if found.words and found.words[-1].isdigit():  # that of the descriptor
                    found.words.pop()
            elif re.fullmatch(r"[();|&]+", word):
                if found.words:
                    yield found
                found = Command(found.place, [], [])
            elif not found.words and re.fullmatch(r"\w+=.*", word):
                found.variables.append(word.partition("=")[0])
            elif found.words or word != "exec":
                found.words.append(word)


# ---- What there is -------------------------------------------------------------------------------


@functools.lru_cache(maxsize=None)
def help_of(*command: str) -> str:
    return subprocess.run([*command, "--help"], check=True, text=True, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE).stdout


def read(*files: str) -> str:
    return "\n".join(path.read_text() for file in files for path in sorted(SOURCE.glob(file)))


@functools.lru_cache(maxsize=None)
def variables() -> str:
    return read("src/*.cpp", "client/src/*.cpp", "client/*.cpp", "python/*.py")


@functools.lru_cache(maxsize=None)
def tests() -> List[str]:
    """The tests of the tree, those of programs that have not been built too."""
    told = subprocess.run(["ctest", "--test-dir", str(BUILD), "-N"], check=True, text=True,
                          stdout=subprocess.PIPE).stdout
    sources = read("tests/*/*.cpp", "gateway/tests/*.cpp", "client/tests/*.cpp")
    return [*re.findall(r"Test +#\d+: (.*)", told),
            *(".".join(name) for name in re.findall(r"\nTEST(?:_[FP])?\((\w+), (\w+)\)", sources))]


@functools.lru_cache(maxsize=None)
def presets() -> List[str]:
    told = json.loads((SOURCE / "CMakePresets.json").read_text())
    return [each["name"] for kind in ("configurePresets", "buildPresets", "testPresets")
            for each in told[kind]]


def has_option(text: str, option: str) -> bool:
    return re.search(rf"(?<![\w-]){re.escape(option)}(?![\w-])", text) is not None


# ---- What is wrong with a command ----------------------------------------------------------------


def complaint(command: Command) -> str:
    """A sentence, or nothing."""
    for variable in command.variables:
        if variable.startswith("QPX_") and not has_option(variables(), variable):
            return f"nothing reads the variable {variable}"
    for word in command.words:
        for path in re.findall(r"(?:^|[=:@])((?:cobol|examples|gateway|recipes|tests|tools)/\S+)",
                               word):
            if not (SOURCE / path).exists():
                return f"there is no {path}"
    name, *words = command.words
    if name in OTHERS:
        return ""
    if name in ("cmake", "ctest"):
        return complaint_of_tree(words)
    options = [word.partition("=")[0] for word in words if re.match(r"--?[a-zA-Z]", word)]
    if name == "qpx":
        return complaint_of_client(words, options)
    if name == "qpxgatewayd":
        name = DAEMON
    elif name.startswith("build/"):
        name = str(BUILD.joinpath(*name.split("/")[2:]))
    elif "/" in name:
        name = str(SOURCE / name)
    else:
        return f"nobody knows {name}; if it is none of ours, add it to OTHERS in {__name__}.py"
    if not os.access(name, os.X_OK):
        return f"there is no {command.words[0]}"
    told = help_of(name) if options and name.startswith((DAEMON, str(BUILD))) else \
        pathlib.Path(name).read_text() if options else ""
    return "".join(f"{command.words[0]} has no {option}" for option in options
                   if not has_option(told, option))


def complaint_of_client(words: List[str], options: List[str]) -> str:
    """The options of a command of qpx are those of all, and its own."""
    told = help_of(CLIENT)
    path: List[str] = []
    for word in words:
        if not re.search(rf"(?m)^  {re.escape(word)} +[A-Z]", help_of(CLIENT, *path).partition(
                "Subcommands:")[2]):
            break
        path.append(word)
        told += help_of(CLIENT, *path)
    if not path:
        return f"qpx has no command {words[0]}"
    return "".join(f"qpx {' '.join(path)} has no {option}" for option in options
                   if not has_option(told, option))


def complaint_of_tree(words: List[str]) -> str:
    """Presets, settings and tests are there."""
    for before, word in zip(["", *words], words):
        setting = re.match(r"-D(QPX_\w+)=", word)
        if before == "--preset" and word not in presets():
            return f"there is no preset {word}"
        if before == "-R" and not any(re.search(word, test) for test in tests()):
            return f"there is no test {word}"
        if setting and not re.search(rf"(?m)^(option|set)\({setting.group(1)} ",
                                     (SOURCE / "CMakeLists.txt").read_text()):
            return f"there is no setting {setting.group(1)}"
    return ""


def complaints(block: Block) -> List[str]:
    parsed = subprocess.run(["bash", "-n"], input=script_of(block), text=True, check=False,
                            env={**os.environ, "LC_ALL": "C"}, capture_output=True)
    if parsed.returncode != 0:
        return [f"{block.place}: {parsed.stderr}"]
    return [f"{command.place}: {what}" for command in commands_of(block)
            for what in [complaint(command)] if what]


class Commands(unittest.TestCase):
    def test_every_one_is_known_with_its_options(self) -> None:
        self.assertGreater(sum(len(list(commands_of(block))) for block in shell_blocks()), 70)
        self.assertEqual([each for block in shell_blocks() for each in complaints(block)], [])

    def test_what_there_is_not_is_found(self) -> None:
        for line, expected in (
                ("qpx call ECHO | (", "syntax error"),
                ("cd /tmp && sl -x", "nobody knows cd; if it is none of ours"),
                ("QPX_TRACE=1 ./app", "nothing reads the variable QPX_TRACE"),
                ("gcc -o app examples/app.c", "there is no examples/app.c"),
                ("tools/make", "there is no tools/make"),
                ("tools/format --chek", "tools/format has no --chek"),
                ("build/release/examples/ekko", "there is no build/release/examples/ekko"),
                ("build/demo/demo-programs/fanout --counts 1", "has no --counts"),
                ("qpxgatewayd --ports 1", "qpxgatewayd has no --ports"),
                ("grep x | qpxgatewayd --port 0 --databas x", "has no --databas"),
                ("qpx cal ECHO", "qpx has no command cal"),
                ("qpx call ECHO --count 1", "qpx call has no --count"),
                ("qpx password verify FRED --fd 3 3<file", "qpx password verify has no --fd"),
                ("cmake --preset relese", "there is no preset relese"),
                ("cmake -B build -DQPX_BIT=64", "there is no setting QPX_BIT"),
                ("ctest --preset release -R ^Handshaking$", "there is no test")):
            for language, prompt in ("sh", ""), ("console", "$ "):
                with self.subTest(line, language=language):
                    block = Block("page.md", 7, language, f"{prompt}{line}\n")
                    self.assertRegex("\n".join(complaints(block)), re.escape(expected))

    def test_output_on_a_console_is_none(self) -> None:
        block = Block("page.md", 7, "console", "$ qpx ping\nls --nothing\n")
        self.assertEqual([each.words for each in commands_of(block)], [["qpx", "ping"]])


# ---- Running -------------------------------------------------------------------------------------


class Run(unittest.TestCase):
    """The commands of one program, in a folder that has the files which they name."""

    def setUp(self) -> None:
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        units = [block.text for block in blocks(SOURCE, "unit")]
        scripts = [block.text for block in blocks(SOURCE, "toml") if "\nanswer = " in block.text]
        recordings = [block.text for block in blocks(SOURCE, "json")
                      if '"event":"opened"' in block.text]
        pathlib.Path(self.folder, "monday").mkdir()
        for name, text in {
                "answers.toml": scripts[0], "header.txt": "order=4711\n", "lines.bin": "lines",
                "monday/connection-000001.jsonl": recordings[0], "order.bin": "order",
                "request.bin": "request", "secret.txt": "Blue7sky\n",
                "transfer.txt": units[0]}.items():
            pathlib.Path(self.folder, name).write_text(text)

    def commands(self, program: str, least: int) -> List[Command]:
        found = [command for block in shell_blocks() for command in commands_of(block)
                 if pathlib.PurePath(command.words[0]).name == program]
        self.assertGreaterEqual(len(found), least)
        return found


class Daemon(Run):
    """On a port that is free, without a server for its database; it is ended when it is ready."""

    def test_it_starts_as_it_is_shown(self) -> None:
        for command in self.commands("qpxgatewayd", 9):
            if any(word.startswith("postgresql:") for word in command.words):
                continue
            text = "\0".join(command.words[1:]).replace("/tmp/", self.folder + "/")
            words = re.sub(r"--port\x00\d+", "--port\x000", text).split("\0")
            with self.subTest(command.place, words=words):
                code, log = started(self.folder, *words)
                self.assertEqual(code, 0, "".join(log))

    def test_its_books_are_read_and_written_as_it_is_shown(self) -> None:
        code, log = started(self.folder, "--database", "ledger.db", "--registry", REGISTRY)
        self.assertEqual(code, 0, "".join(log))
        for command in self.commands("sqlite3", 5):
            _, file, text = command.words
            with self.subTest(command.place, text=text), contextlib.closing(
                    sqlite3.connect(pathlib.Path(self.folder, file))) as ledger:
                for number, statement in enumerate(filter(str.strip, text.split(";"))):
                    done = ledger.execute(statement)
                    if number == 0:
                        self.assertTrue(done.rowcount == 1 or done.fetchone())

    def test_it_is_controlled_as_it_is_shown(self) -> None:
        with Gateway("--control", "0") as gateway, \
                socket.create_connection(("127.0.0.1", gateway.port)):
            gateway.await_line("connection 1: accepted")
            port = int(gateway.await_line(r"control.*127\.0\.0\.1:(\d+)").group(1))
            for command in self.commands("curl", 5):
                with self.subTest(command.place, words=command.words):
                    self.assertEqual(self.answer(command.words[1:], port) // 100, 2)

    def answer(self, words: List[str], port: int) -> int:
        """What curl would get: its code of HTTP."""
        (address,) = [word for word in words if word.startswith("localhost:8080/")]
        options = dict(zip(words[1::2], words[2::2]))
        self.assertLessEqual(set(options), {"--json", "-X"})
        method = options.get("-X", "POST" if "--json" in options else "GET")
        client = http.client.HTTPConnection("127.0.0.1", port)
        client.request(method, address.partition(":8080")[2], options.get("--json"),
                       {"Content-Type": "application/json"} if "--json" in options else {})
        code = client.getresponse().status
        client.close()
        return code


class Client(Run):
    """In a shell; those that ask at a terminal, never end, or take long are not run."""

    def test_its_commands_do_what_they_show(self) -> None:
        ran = 0
        with Gateway("--script", answers(self.folder), "--registry", REGISTRY,
                     database=True) as gateway:
            self.shell("qpx call ECHO", gateway, QPX_CLIENT_TRACE_LEVEL="4",
                       QPX_CLIENT_TRACE_FILE=self.folder + "/app.trc")
            for block in shell_blocks():
                for line in script_of(block).splitlines():
                    if re.match(r"qpx (?!doctor|load|trace --follow|password (?!.*-fd))", line):
                        with self.subTest(block.document, line=line):
                            written = self.shell(line, gateway)
                            if line.startswith("qpx codes"):
                                self.assertEqual(f"$ {line}\n{written}", block.text)
                        ran += 1
        self.assertGreaterEqual(ran, 9)

    def shell(self, line: str, gateway: Gateway, **more: str) -> str:
        run = subprocess.run(
            ["bash", "-c", line], text=True, cwd=self.folder, check=False,
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env={
                **os.environ, "HOME": self.folder, "XDG_CONFIG_HOME": self.folder,
                "PATH": f"{pathlib.Path(CLIENT).parent}:{os.environ['PATH']}",
                "QPX_PORT": str(gateway.port), **more})
        self.assertEqual(run.returncode, 0, run.stdout)
        return run.stdout


class Porting(Run):
    """What docs/porting.md looks at, with a program of ours in place of the reader's."""

    def test_the_library_has_as_many_calls_as_it_is_shown(self) -> None:
        (block,) = [block for block in shell_blocks() if "nm -D --defined-only" in block.text]
        pathlib.Path(self.folder, "app").symlink_to(CLIENT)
        library = BUILD / "src" / "libqpxclient.so.10"
        pathlib.Path(self.folder, library.name).symlink_to(library)
        written = {}
        for line in block.text.splitlines():
            if not line.startswith("file "):
                written[line] = subprocess.run(
                    ["bash", "-c", line], cwd=self.folder, text=True, check=True,
                    stdout=subprocess.PIPE).stdout
        needed, wanted, offered = written.values()
        self.assertIn("libqpxclient.so.10", needed)
        self.assertIn("QPX_ECI_Execute", wanted)
        (line,) = [line for line in written if "--defined-only" in line]
        self.assertEqual(len(re.findall(r" T ", offered)), int(line.split()[-1]))
