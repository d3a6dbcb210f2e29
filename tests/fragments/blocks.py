"""The blocks of the documents: where they stand, and in which language they are."""

import os
import pathlib
import re
from typing import Dict, Iterable, Iterator, List, NamedTuple, Optional

# What is done with the blocks of each language; a new one gets a test here first.
LANGUAGES: Dict[str, str] = {
    "c": "compiled in the word size of the library",
    "cmake": "run by CMake, with names that there are",
    "console": "a command behind each $, held as those of sh are, and what it writes",
    "cpp": "compiled against qpxclient.hpp or the stand-in gateway",
    "ini": "settings of a unit of systemd",
    "json": "one value to a line, each parsed",
    "python": "compiled, and run against the stand-in gateway",
    "sh": "parsed by bash; every command is known, and so are the options of those that are ours",
    "text": "output and drawings; nothing is done",
    "toml": "taken by the program that it is for",
    "unit": "taken by qpx call --unit",
}


class Mistake(Exception):
    """What is wrong with a document, and what to do."""


class Block(NamedTuple):
    """One block; line is that of its first line of text."""
    document: str
    line: int
    language: str
    text: str

    @property
    def place(self) -> str:
        return f"{self.document}:{self.line}"


def documents(source: pathlib.Path) -> List[pathlib.Path]:
    """All documents of a tree; what has been built in it is none of it."""
    found: List[pathlib.Path] = []
    for folder, folders, files in os.walk(source):
        folders[:] = [] if "CMakeCache.txt" in files else [
            each for each in folders if each != "build" and not each.startswith(".")]
        found += [pathlib.Path(folder, file) for file in files if file.endswith(".md")]
    return sorted(found)


def blocks_of(document: pathlib.Path, name: str) -> Iterator[Block]:
    """The blocks of one document, which is called so in messages."""
    begin = 0
    language: Optional[str] = None
    lines: List[str] = []
    for number, line in enumerate(document.read_text(encoding="utf-8").splitlines(), 1):
        if not re.match(r"\s*(```|~~~)", line):
            lines.append(line)
        elif not line.startswith("```"):
            raise Mistake(f"{name}:{number}: begin and end a block with ``` at the first column")
        elif language is None:
            language, begin, lines = language_of(line[3:], f"{name}:{number}"), number, []
        elif line != "```":
            raise Mistake(f"{name}:{number}: a block in a block; end the one of line {begin} first")
        else:
            yield Block(name, begin + 1, language, "".join(each + "\n" for each in lines))
            language = None
    if language is not None:
        raise Mistake(f"{name}:{begin}: the block does not end; write ``` behind its last line")


def language_of(word: str, place: str) -> str:
    if not word:
        raise Mistake(f"{place}: a block without a language; write its language behind the ```, "
                      "or text if it is output or a drawing")
    if word not in LANGUAGES:
        raise Mistake(f"{place}: no test knows blocks of {word!r}; write one of "
                      f"{', '.join(LANGUAGES)}, or add the language and its test to "
                      "tests/fragments")
    return word


def blocks(source: pathlib.Path, *languages: str) -> Iterable[Block]:
    """The blocks of a tree's documents in these languages."""
    return [block for document in documents(source)
            for block in blocks_of(document, str(document.relative_to(source)))
            if block.language in languages]
