"""What the tests of blocks share: the gateway, and the answers of programs that documents call."""

import pathlib
import subprocess
import sys
from typing import List, Tuple

HERE = pathlib.Path(__file__).resolve().parent
SOURCE = HERE.parents[1]
sys.path.append(str(SOURCE / "python" / "tests"))

from gateway import DAEMON, Gateway  # noqa: E402

__all__ = ["DAEMON", "SOURCE", "Gateway", "answers", "here", "started"]

# Programs that only the documents have.
ANSWERS = """\
[[on]]
program = "ORDERS"
channel = true
answer = { containers = { INVOICE = "one loaf" } }

[[on]]
program = "*"
channel = true
answer = {}

[[on]]
program = "*"
answer = "${commarea}"
"""


def answers(folder: str) -> str:
    """A script for the gateway, in this folder."""
    script = pathlib.Path(folder, "known.toml")
    script.write_text(ANSWERS)
    return str(script)


def here(text: str, port: int) -> str:
    """A block with this gateway in place of that of the documents."""
    return text.replace('"gateway.example", 5770', f'"127.0.0.1", {port}')


def started(folder: str, *options: str) -> Tuple[int, List[str]]:
    """Starts the daemon in a folder, ends it when it is ready, and gives its exit code and its log;
    it may have ended before."""
    with subprocess.Popen([DAEMON, *options], cwd=folder, text=True, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT) as daemon:
        log = []
        assert daemon.stdout is not None
        for line in daemon.stdout:
            log.append(line)
            if line.rstrip().endswith(" ready"):
                daemon.terminate()
        return daemon.wait(), log
