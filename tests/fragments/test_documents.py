"""Every block of the documents has a language; what is data is taken by what reads it, and Python
is run."""

import ast
import asyncio
import contextlib
import inspect
import io
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest
from typing import Any, Callable, Dict, List

from blocks import LANGUAGES, Block, Mistake, blocks, blocks_of, documents
from support import DAEMON, SOURCE, Gateway, answers, here, started

CLIENT = os.environ.get("QPX_CLIENT", "")


def page(text: str) -> List[Block]:
    """The blocks of a document with this text."""
    with tempfile.TemporaryDirectory() as folder:
        document = pathlib.Path(folder, "page.md")
        document.write_text(text)
        return list(blocks_of(document, "page.md"))


class Languages(unittest.TestCase):
    def assertRefused(self, text: str, complaint: str) -> None:
        with self.assertRaisesRegex(Mistake, complaint):
            page(text)

    def test_every_block_has_one_that_is_known(self) -> None:
        self.assertGreater(len(documents(SOURCE)), 20)
        self.assertGreater(len(list(blocks(SOURCE, *LANGUAGES))), 100)

    def test_a_block_without_one_is_found(self) -> None:
        self.assertRefused("Text.\n\n```\nqpx ping\n```\n",
                           "^page.md:3: a block without a language; write its language")

    def test_a_block_in_one_that_nobody_knows_is_found(self) -> None:
        self.assertRefused("```ruby\nputs 1\n```\n",
                           "^page.md:1: no test knows blocks of 'ruby'; write one of c, cmake, ")

    def test_a_block_that_does_not_end_is_found(self) -> None:
        self.assertRefused("```sh\nqpx ping\n", "^page.md:1: the block does not end")

    def test_a_block_in_a_block_is_found(self) -> None:
        self.assertRefused("```sh\nqpx ping\n```sh\n", "^page.md:3: a block in a block")

    def test_a_block_that_could_be_overlooked_is_found(self) -> None:
        self.assertRefused("- one\n\n  ```sh\n  qpx ping\n  ```\n", "^page.md:3: begin and end")
        self.assertRefused("~~~sh\nqpx ping\n~~~\n", "^page.md:1: begin and end")


class Read(unittest.TestCase):
    """What tries the blocks of a language gives a complaint of each, or none."""

    def setUp(self) -> None:
        self.folder = self.enterContext(tempfile.TemporaryDirectory())

    def file(self, name: str, text: str) -> str:
        path = pathlib.Path(self.folder, name)
        path.write_text(text)
        return str(path)

    def assertAllTaken(self, language: str, least: int, complaint: Callable[[Block], str]) -> None:
        found = list(blocks(SOURCE, language))
        self.assertGreaterEqual(len(found), least)
        complaints = [f"{block.place}: {what}" for block in found for what in [complaint(block)]
                      if what]
        self.assertEqual("\n".join(complaints), "")

    def assertRefused(self, text: str, complaint: Callable[[Block], str], expected: str) -> None:
        (block,) = page(text)
        self.assertRegex(complaint(block), expected)


class Json(Read):
    def complaint(self, block: Block) -> str:
        try:
            for line in block.text.splitlines():
                json.loads(line)
        except ValueError as wrong:
            return str(wrong)
        return ""

    def test_every_line_is_a_value(self) -> None:
        self.assertAllTaken("json", 4, self.complaint)

    def test_a_line_that_is_none_is_found(self) -> None:
        self.assertRefused("```json\n{}\n{a:1}\n```\n", self.complaint, "property name")


class Toml(Read):
    """Scripts, registries and scenarios are taken by the daemon, lists of what was expected by its
    check, settings by qpx."""

    def complaint(self, block: Block) -> str:
        if re.search(r"(?m)^\[\[call\]\]", block.text):
            return self.run_to_code(1, DAEMON, "check", self.file("journal", ""),
                                    self.file("expect.toml", block.text))
        if re.search(r"(?m)^\[\[step\]\]", block.text):
            return self.daemon("--scenario", block)
        if re.search(r"(?m)^\[rules\]|^\[\[system\]\]", block.text):
            return self.daemon("--registry", block, "--database", self.folder + "/ledger.db")
        if re.search(r"(?m)^\[\[(on|user)\]\]", block.text):
            return self.daemon("--script", block)
        with Gateway() as gateway:
            return self.run_to_code(
                0, CLIENT, "--config", self.file("qpx.toml", block.text), "--host", "127.0.0.1",
                "--port", str(gateway.port), "systems")

    def daemon(self, option: str, block: Block, *others: str) -> str:
        code, log = started(self.folder, option, self.file("block.toml", block.text), *others)
        return "".join(log) if code != 0 else ""

    def run_to_code(self, code: int, *command: str) -> str:
        run = subprocess.run(command, text=True, check=False, stdin=subprocess.DEVNULL,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return run.stdout if run.returncode != code else ""

    def test_every_block_is_taken_by_what_it_is_for(self) -> None:
        self.assertAllTaken("toml", 8, self.complaint)

    def test_a_script_that_is_none_is_found(self) -> None:
        self.assertRefused('```toml\n[[on]]\nprogramme = "A"\n```\n', self.complaint, "line 2")

    def test_a_scenario_that_is_none_is_found(self) -> None:
        self.assertRefused('```toml\n[[step]]\nat = "soon"\n```\n', self.complaint, "line 2")

    def test_a_registry_that_is_none_is_found(self) -> None:
        self.assertRefused("```toml\n[rules]\nshort = 1\n```\n", self.complaint, "line 2")

    def test_a_list_of_what_was_expected_that_is_none_is_found(self) -> None:
        self.assertRefused("```toml\n[[call]]\nanswers = 1\n```\n", self.complaint, "line 2")

    def test_settings_that_are_none_are_found(self) -> None:
        self.assertRefused("```toml\nhosts = 1\n```\n", self.complaint, "hosts")


class Units(Read):
    """The calls of a unit of work, for programs that a script answers."""

    def complaint(self, block: Block) -> str:
        self.file("order.bin", "order")
        with Gateway("--script", answers(self.folder)) as gateway:
            run = subprocess.run(
                [CLIENT, "--port", str(gateway.port), "call", "--unit",
                 self.file("unit.txt", block.text)], cwd=self.folder, text=True, check=False,
                stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return run.stdout if run.returncode != 0 else ""

    def test_every_block_is_called(self) -> None:
        self.assertAllTaken("unit", 1, self.complaint)

    def test_a_line_that_is_no_call_is_found(self) -> None:
        self.assertRefused("```unit\nSTOCK longer 40 text take\n```\n", self.complaint, "longer")


class Settings(Read):
    """Settings for the unit of any service."""

    def complaint(self, block: Block) -> str:
        path = self.file("block.service", block.text + "ExecStart=/bin/true\n")
        run = subprocess.run(["systemd-analyze", "verify", "--man=no", path], text=True,
                             check=False, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return run.stdout

    def test_systemd_knows_every_setting(self) -> None:
        self.assertAllTaken("ini", 1, self.complaint)

    def test_a_setting_that_is_none_is_found(self) -> None:
        self.assertRefused("```ini\n[Service]\nLimitDesk=1\n```\n", self.complaint, "LimitDesk")


# What a tree would do is not done: names are held against those that there are.
CMAKE = r"""cmake_minimum_required(VERSION 3.18)
function(needs kind name)
  if(NOT name IN_LIST ARGN)
    message(FATAL_ERROR "there is no ${kind} ${name}")
  endif()
endfunction()
function(find_package name)
  needs(package ${name} qpxclient qpxstandin)
  if(NOT ARGV1 STREQUAL "REQUIRED" AND ARGV1 VERSION_GREATER "@VERSION@")
    message(FATAL_ERROR "there is no version ${ARGV1}")
  endif()
endfunction()
function(target_link_libraries name)
  list(REMOVE_ITEM ARGN PRIVATE)
  foreach(library IN LISTS ARGN)
    needs(library ${library} qpxclient qpxclient::qpxclient gateway_core qpxstandin)
  endforeach()
endfunction()
function(add_subdirectory name)
  needs(folder ${name} qpxclient)
endfunction()
macro(set name)
  if("${name}" MATCHES "^QPX_")
    needs(option ${name} @OPTIONS@)
  endif()
endmacro()
"""


class CMake(Read):
    def complaint(self, block: Block) -> str:
        text = (SOURCE / "CMakeLists.txt").read_text()
        version = re.search(r"project\(qpxclient VERSION ([0-9.]+)", text)
        assert version is not None
        options = re.findall(r"(?m)^(?:option|set)\((QPX_\w+)", text)
        path = self.file("block.cmake", CMAKE.replace("@VERSION@", version.group(1))
                         .replace("@OPTIONS@", " ".join(options)) + block.text)
        run = subprocess.run(["cmake", "-P", path], text=True, check=False,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return run.stdout if run.returncode != 0 else ""

    def test_every_block_has_names_that_there_are(self) -> None:
        self.assertAllTaken("cmake", 3, self.complaint)

    def test_what_there_is_not_is_found(self) -> None:
        for line, complaint in (
                ("find_package(qpxclient 11 REQUIRED)", "no version 11"),
                ("find_package(qpx REQUIRED)", "no package qpx"),
                ("target_link_libraries(program PRIVATE qpx)", "no library qpx"),
                ("set(QPX_GATE ON)", "no option QPX_GATE"),
                ("find_packages(qpxclient)", "Unknown CMake command"),
                ("find_package(qpxclient", "Parse error")):
            with self.subTest(line):
                self.assertRefused(f"```cmake\n{line}\n```\n", self.complaint, complaint)


# ---- Python --------------------------------------------------------------------------------------


def run(block: Block, names: Dict[str, Any]) -> str:
    """Runs a block, which may await at its top, and gives what it prints."""
    code = compile("\n" * (block.line - 1) + block.text, block.document, "exec",
                   ast.PyCF_ALLOW_TOP_LEVEL_AWAIT)
    printed = io.StringIO()
    with contextlib.redirect_stdout(printed):
        waiting = eval(code, names)
        if inspect.iscoroutine(waiting):
            asyncio.run(waiting)
    return printed.getvalue()


class Python(Read):
    """In 64 bits, which the module is for."""

    def blocks(self, document: str) -> List[Block]:
        return [block for block in blocks(SOURCE, "python") if block.document == document]

    def test_every_block_is_run_here_or_as_a_program_of_the_readme(self) -> None:
        self.assertEqual({block.document for block in blocks(SOURCE, "python")},
                         {"README.md", "docs/gateway.md", "docs/languages.md"},
                         "say below how the blocks of a document are run")

    def test_the_blocks_of_other_languages_do_what_the_page_says(self) -> None:
        import qpxclient

        first, second = self.blocks("docs/languages.md")
        with Gateway("--script", answers(self.folder)) as gateway:
            names: Dict[str, Any] = {
                "user": "FRED", "password": "Blue7sky", "request": b"request", "debit": b"debit",
                "credit": b"credit", "lines": b"lines"}
            self.assertEqual(run(at(first, gateway), names), "one loaf\n")
            self.assertEqual(names["reply"], b"request")
            gateway.await_line("unit of work 1 is committed")
            names = {"asyncio": asyncio, "qpxclient": qpxclient, "requests": [b"ACME", b"BOLT"]}
            run(at(second, gateway), names)
            self.assertEqual(names["replies"], [b"ACME", b"BOLT"])

    def test_the_block_of_the_gateway_answers_the_call_that_stands_above_it(self) -> None:
        (block,) = self.blocks("docs/gateway.md")
        (shown,) = [each for each in blocks(SOURCE, "json") if each.document == "docs/gateway.md"
                    and len(each.text.splitlines()) == 2]
        call, answer = shown.text.splitlines(keepends=True)
        program = self.file("price.py", "import json\nimport sys\nPRICES = {'100105': '1.20'}\n"
                            + block.text)
        ran = subprocess.run([sys.executable, "-B", program], input=call, text=True, check=True,
                             stdout=subprocess.PIPE)
        self.assertEqual(json.loads(ran.stdout), json.loads(answer))


def at(block: Block, gateway: Gateway) -> Block:
    return block._replace(text=here(block.text, gateway.port))
