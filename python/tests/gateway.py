"""The stand-in gateway's daemon for the tests: on a free port, and gone with its with block."""

import os
import pathlib
import re
import signal
import subprocess
import tempfile
import threading
from typing import List

DAEMON = os.environ["QPX_GATEWAY_DAEMON"]
GENEROUS = 60  # seconds, after which a test that waits fails


class Gateway:
    """with Gateway("--misbehave", "hold") as gateway: ... gateway.port ..."""

    def __init__(self, *options: str, database: bool = False) -> None:
        self._options = list(options)
        self._database = database
        self._lines: List[str] = []
        self._more = threading.Condition()

    def __enter__(self) -> "Gateway":
        self._folder = tempfile.TemporaryDirectory()
        if self._database:
            self._options += ["--database", str(pathlib.Path(self._folder.name) / "ledger.db")]
        self._process = subprocess.Popen(
            [DAEMON, *self._options],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, text=True)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        listens = self.await_line(r"listening on 127\.0\.0\.1:(\d+)")
        self.port = int(listens.group(1))
        self.await_line(r"info +ready$")
        return self

    def __exit__(self, *_: object) -> None:
        self._process.terminate()
        self._process.wait()
        self._reader.join()
        assert self._process.stdout is not None
        self._process.stdout.close()
        self._folder.cleanup()

    def release(self) -> None:
        """Sends the answers that are held, and ends the holding."""
        self._process.send_signal(signal.SIGUSR1)

    def await_line(self, pattern: str) -> "re.Match[str]":
        """Waits for a line of the log, which may have been written already."""
        found: List["re.Match[str]"] = []

        def look() -> bool:
            found.extend(match for match in (re.search(pattern, line) for line in self._lines)
                         if match)
            return bool(found)

        with self._more:
            if not self._more.wait_for(look, GENEROUS):
                raise AssertionError(f"no line {pattern!r} in\n" + "".join(self._lines))
        return found[0]

    def _read(self) -> None:
        assert self._process.stdout is not None
        for line in self._process.stdout:
            with self._more:
                self._lines.append(line)
                self._more.notify_all()
