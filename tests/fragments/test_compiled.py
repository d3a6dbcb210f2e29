"""The blocks of C and C++ compile, and those of docs/languages.md do what the page says."""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest
from typing import Dict, List, Sequence, Tuple

from blocks import Block, blocks, blocks_of
from support import SOURCE, Gateway, answers, here

BITS = "-m" + os.environ["QPX_BITS"]
INCLUDES = [f"-I{SOURCE / folder}" for folder in (
    "include", "gateway/standin/include", "gateway/core/include", "tests/fragments")]
WARNINGS = ["-Wall", "-Wextra", "-Werror"]
# What a fragment leaves to its reader.
UNUSED = ["-Wno-unused", "-Wno-unused-but-set-variable"]


class Compiled(unittest.TestCase):
    """Blocks for a compiler, one that speaks English."""
    compiler: Sequence[str]

    def compile(self, source: str, *options: str) -> "subprocess.CompletedProcess[str]":
        return subprocess.run(
            [*self.compiler, BITS, *WARNINGS, *INCLUDES, "-", *options], input=source, text=True,
            capture_output=True, check=False, env={**os.environ, "LC_ALL": "C"})

    def prelude_of(self, block: Block) -> str:
        """The file that a block is compiled behind which is no program."""
        raise NotImplementedError

    def complaints(self, found: List[Block]) -> str:
        """What the compiler says, which reads a program by itself, and all fragments that take the
        same for known together."""
        programs = [placed(block) for block in found if is_program(block)]
        fragments: Dict[str, List[str]] = {}
        for number, block in enumerate(found):
            if not is_program(block):
                fragments.setdefault(self.prelude_of(block), []).append(
                    fragment(block, f"fragment{number}"))
        return "".join([
            *(self.compile(program, "-fsyntax-only").stderr for program in programs),
            *(self.compile(f'#include "{prelude}"\n' + "".join(parts), "-fsyntax-only",
                           *UNUSED).stderr for prelude, parts in fragments.items())])

    def assertAllCompile(self, language: str, least: int) -> None:
        found = list(blocks(SOURCE, language))
        self.assertGreaterEqual(len(found), least)
        self.assertEqual(self.complaints(found), "")

    def assertFound(self, language: str, *wrong: Tuple[str, str]) -> None:
        """Each line has a complaint, which names the document and the line."""
        with tempfile.TemporaryDirectory() as folder:
            document = pathlib.Path(folder, "page.md")
            lines = "".join(line + "\n" for line, _ in wrong)
            document.write_text(f"Text.\n\n```{language}\nint one = 1;\n{lines}```\n")
            complaints = self.complaints(list(blocks_of(document, "page.md")))
        for number, (line, expected) in enumerate(wrong, 5):
            with self.subTest(line):
                self.assertRegex(complaints, f"(?m)^page.md:{number}:.*{expected}")


def is_program(block: Block) -> bool:
    return re.search(r"(?m)^int main\(", block.text) is not None


def placed(block: Block) -> str:
    return f'#line {block.line} "{block.document}"\n{block.text}'


def fragment(block: Block, name: str) -> str:
    """A function as it is, and anything else as the body of one, with what it includes in front."""
    if re.search(r"(?m)^static .*\)$", block.text):
        return placed(block)
    included = re.compile(r"(?m)^#include .*$")
    return "\n".join([
        *included.findall(block.text), f"void {name}(void);", f"void {name}(void)", "{",
        placed(block._replace(text=included.sub("", block.text))) + "}", ""])


class C(Compiled):
    """As C99, and as POSIX has it."""
    compiler = (os.environ.get("CC", "cc"), "-x", "c", "-std=c99", "-D_POSIX_C_SOURCE=200809L")

    def prelude_of(self, block: Block) -> str:
        return "prelude.h"

    def test_every_block_compiles(self) -> None:
        self.assertAllCompile("c", 12)

    def test_a_block_that_does_not_compile_is_found(self) -> None:
        self.assertFound("c", ("rc = QPX_listSystems(gateway);", "too few arguments"))

    def test_a_block_with_a_warning_is_found(self) -> None:
        self.assertFound("c", ('printf("%s", rc);', "expects argument"))

    def test_a_block_that_uses_what_no_reader_knows_is_found(self) -> None:
        self.assertFound("c", ("rc = somewhere;", "undeclared"))


class Cplusplus(Compiled):
    """As C++17; what speaks of standin:: is a test with the stand-in gateway in it."""
    compiler = (os.environ.get("CXX", "c++"), "-x", "c++", "-std=c++17")

    def prelude_of(self, block: Block) -> str:
        return "prelude_standin.hpp" if "standin::" in block.text else "prelude.hpp"

    def test_every_block_compiles(self) -> None:
        self.assertAllCompile("cpp", 5)

    def test_what_does_not_compile_warns_or_is_known_to_no_reader_is_found(self) -> None:
        self.assertFound("cpp", ("gateway.call();", "no matching function"),
                         ("gateway.call(ledger, debit);", "ignoring return"),
                         ("use(somewhere);", "not declared"))


class CplusplusRuns(Compiled):
    """The blocks of docs/languages.md, one behind the other."""
    compiler = Cplusplus.compiler

    def test_the_blocks_do_what_the_page_says(self) -> None:
        found: List[Block] = list(blocks_of(SOURCE / "docs/languages.md", "docs/languages.md"))
        found = [block for block in found if block.language == "cpp"]
        names = [f"fragment{number}" for number, _ in enumerate(found)]
        source = "\n".join([
            '#include "prelude.hpp"', *map(fragment, found, names),
            "int main() {", *(f"{name}();" for name in names), "}", ""])
        with tempfile.TemporaryDirectory() as folder, Gateway(
                "--script", answers(folder)) as gateway:
            program = str(pathlib.Path(folder, "program"))
            library = pathlib.Path(os.environ["QPX_CLIENT_LIBRARY"]).parent
            compiled = self.compile(
                here(source, gateway.port), *UNUSED, f'-DGATEWAY="127.0.0.1", {gateway.port}',
                "-o", program, f"-L{library}", "-lqpxclient", "-pthread")
            self.assertEqual(compiled.stderr, "")
            run = subprocess.run([program], text=True, capture_output=True, check=False,
                                 env={**os.environ, "LD_LIBRARY_PATH": str(library)})
            self.assertEqual((run.stdout, run.stderr, run.returncode), (
                "request\nACME\nBOLT\n", "", 0))
            gateway.await_line("unit of work 1 is committed")


