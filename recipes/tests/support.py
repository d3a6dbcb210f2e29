"""What the recipes' tests share: programs that log, run with the files of the recipes."""

import os
import pathlib
import re
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest
from typing import Callable, Dict, List, Optional, Sequence

import qpxclient

RECIPES = pathlib.Path(__file__).resolve().parents[1]
DAEMON = os.environ["QPX_GATEWAY_DAEMON"]
GENEROUS = 90  # seconds, after which a test that waits fails
KEEPALIVE = 2  # the number of that timer in the kernel's table of connections


class Logging:
    """A program that writes lines, and whoever waits for one of them."""

    def __init__(self, command: Sequence[str], **options: object) -> None:
        self._lines: List[str] = []
        self._more = threading.Condition()
        self.process = subprocess.Popen(  # type: ignore[call-overload]
            command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
            text=True, **options)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def when_line(self, pattern: str, work: Callable[[], None]) -> threading.Thread:
        """Does the work when the line is there, while the caller goes on."""
        def wait() -> None:
            self.await_line(pattern)
            work()

        thread = threading.Thread(target=wait)
        thread.start()
        return thread

    def await_line(self, pattern: str, times: int = 1) -> "re.Match[str]":
        """Waits for the line, which may have been written already, to be there so often."""
        found: List["re.Match[str]"] = []

        def look() -> bool:
            found[:] = [match for match in (re.search(pattern, line) for line in self._lines)
                        if match]
            return len(found) >= times

        with self._more:
            if not self._more.wait_for(look, GENEROUS):
                raise AssertionError(f"no line {pattern!r} in\n" + "".join(self._lines))
        return found[-1]

    def lines(self, pattern: str) -> List[str]:
        with self._more:
            return [line for line in self._lines if re.search(pattern, line)]

    def kill(self) -> None:
        self.process.kill()
        self.process.wait()

    def stop(self, number: int = signal.SIGTERM) -> int:
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGCONT)
            self.process.send_signal(number)
        code = self.process.wait()
        self._reader.join()
        assert self.process.stdout is not None
        self.process.stdout.close()
        return code

    def _read(self) -> None:
        assert self.process.stdout is not None
        for line in self.process.stdout:
            with self._more:
                self._lines.append(line)
                self._more.notify_all()


class Gateway(Logging):
    """The stand-in gateway's daemon, on a free port."""

    def __init__(self, options: Sequence[str], wrapper: Sequence[str] = ()) -> None:
        super().__init__([*wrapper, DAEMON, *options])
        listens = self.await_line(r"listening on [\d.]+:(\d+)")
        self.port = int(listens.group(1))
        self.await_line(r"info +ready$")

    def release(self) -> None:
        """Sends the answers that are held, and ends the holding."""
        self.process.send_signal(signal.SIGUSR1)

    def await_callers(self, number: int) -> None:
        """Waits for connections that are no check of a proxy, which has no applid."""
        self.await_line(r'handshake applid="CALLER', times=number)

    def hang(self) -> None:
        """Stops it, with its connections as they are."""
        self.process.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, self.process.pid, os.WSTOPPED | os.WNOWAIT)


def recipe(name: str, changes: Dict[str, str]) -> str:
    """The file of a recipe for the machine of the test: each change must find what it changes."""
    text = (RECIPES / name).read_text()
    for old, new in changes.items():
        assert old in text, f"{name} has no {old!r}"
        text = text.replace(old, new)
    return text


class RecipeTest(unittest.TestCase):
    """A test with a folder, and programs that end with it."""

    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def assert_not_opened(self, port: int) -> None:
        """An open over something that accepts, and ends the connection when it can go no further:
        that may be before the library has sent its handshake."""
        with self.assertRaises(qpxclient.Error) as error:
            qpxclient.connect("127.0.0.1", port).close()
        self.assertIn(error.exception.code, (qpxclient.Code.QPX_ERR_LOSTGWCON,
                                             qpxclient.Code.QPX_ERR_CONNECTFAILED))

    def await_keepalive(self, connection: qpxclient.Connection, local: Optional[int] = None,
                        remote: Optional[int] = None) -> None:
        """Until the timer that the kernel runs for the other end is that of keepalive, as it is
        while nothing is on its way."""
        end = time.monotonic() + GENEROUS
        while KEEPALIVE not in timers(local, remote):
            self.assertLess(time.monotonic(), end, "no keepalive")
            connection.call("ECHO", b"hello")

    def run_program(self, command: Sequence[str], **options: object) -> Logging:
        program = Logging(command, **options)
        self.addCleanup(program.stop)
        return program

    def gateway(self, *options: str) -> "Gateway":
        gateway = Gateway(options)
        self.addCleanup(gateway.stop)
        return gateway

    def file(self, name: str, text: str) -> pathlib.Path:
        path = self.folder / name
        path.write_text(text)
        return path

    def listener(self) -> socket.socket:
        """A socket that listens on a port of its own, for a program to inherit."""
        listener = socket.create_server(("127.0.0.1", 0), backlog=256)
        self.addCleanup(listener.close)
        return listener


def timers(local: Optional[int], remote: Optional[int]) -> List[int]:
    """Which timers run for the established connections with these ports."""
    found = []
    for line in pathlib.Path("/proc/thread-self/net/tcp").read_text().splitlines()[1:]:
        fields = line.split()
        ports = [int(each.split(":")[1], 16) for each in fields[1:3]]
        if fields[3] == "01" and local in (None, ports[0]) and remote in (None, ports[1]):
            found.append(int(fields[5].split(":")[0], 16))
    return found


def listening_port(process: int) -> int:
    """The port at which the process listens, having been told to take any."""
    inodes = set()
    for each in pathlib.Path(f"/proc/{process}/fd").iterdir():
        try:
            target = os.readlink(each)
        except FileNotFoundError:  # closed meanwhile
            continue
        socket_name = re.fullmatch(r"socket:\[(\d+)\]", target)
        if socket_name:
            inodes.add(socket_name.group(1))
    for line in pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]:
        fields = line.split()
        if fields[3] == "0A" and fields[9] in inodes:
            return int(fields[1].split(":")[1], 16)
    raise AssertionError(f"process {process} listens nowhere")
