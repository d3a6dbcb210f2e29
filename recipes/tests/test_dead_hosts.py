"""sysctl/60-qpxclient.conf, in a network of the test's own with a line that can be cut.

A machine that lets no network be made runs none of this."""

import ctypes
import os
import pathlib
import socket
import subprocess
import unittest
from typing import Dict

import qpxclient
from support import GENEROUS, KEEPALIVE, Gateway, RecipeTest, recipe

NEW_MOUNTS, NEW_USER, NEW_NETWORK = 0x00020000, 0x10000000, 0x40000000
ADDRESS = "10.9.0.2"


def run(*command: str) -> None:
    subprocess.run(command, check=True, capture_output=True, timeout=GENEROUS)


def enter_own_network() -> None:
    """Of this thread, which has no other beside it yet, and of what it begins."""
    libc = ctypes.CDLL(None, use_errno=True)
    users = f"0 {os.geteuid()} 1"
    if libc.unshare(NEW_NETWORK | NEW_MOUNTS) != 0:
        if libc.unshare(NEW_USER | NEW_NETWORK | NEW_MOUNTS) != 0:
            raise unittest.SkipTest("this machine lets no network be made")
        try:
            pathlib.Path("/proc/self/uid_map").write_text(users)
        except PermissionError:
            raise unittest.SkipTest("this machine lets no user be made") from None
    if not os.access("/proc/sys/net/ipv4/tcp_keepalive_time", os.W_OK):
        raise unittest.SkipTest("this machine lets no setting of a network be made")
    try:
        run("ip", "link", "add", "near", "type", "veth", "peer", "name", "far")
    except subprocess.CalledProcessError:
        raise unittest.SkipTest("this machine lets no line be made") from None
    run("ip", "link", "del", "near")
    run("ip", "link", "set", "lo", "up")


class DeadHosts(RecipeTest):
    """A gateway on another host, behind a line."""

    @classmethod
    def setUpClass(cls) -> None:
        enter_own_network()

    def setUp(self) -> None:
        super().setUp()
        self.host = subprocess.Popen(  # it has the far network, and ends with its standard input
            ["unshare", "--net", "cat"], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.addCleanup(self.host.communicate)
        assert self.host.stdin is not None and self.host.stdout is not None
        self.host.stdin.write(b"there\n")
        self.host.stdin.flush()
        self.host.stdout.readline()
        self.there = "nsenter", f"--net=/proc/{self.host.pid}/ns/net"
        run("ip", "link", "add", "near", "type", "veth", "peer", "name", "far", "netns",
            str(self.host.pid))
        self.addCleanup(run, "ip", "link", "del", "near")
        run("ip", "addr", "add", "10.9.0.1/24", "dev", "near")
        run("ip", "link", "set", "near", "up")
        run(*self.there, "ip", "addr", "add", f"{ADDRESS}/24", "dev", "far")
        self.line("up")

    def line(self, what: str) -> None:
        run(*self.there, "ip", "link", "set", "far", what)

    def far_gateway(self, *options: str) -> Gateway:
        gateway = Gateway(["--host", ADDRESS, *options], self.there)
        self.addCleanup(gateway.stop)
        while True:  # a line that is up carries nothing for a moment
            try:
                socket.create_connection((ADDRESS, gateway.port), GENEROUS).close()
                return gateway
            except OSError:
                pass

    def load(self, changes: Dict[str, str]) -> None:
        run("sysctl", f"--load={self.file('sysctl', recipe('sysctl/60-qpxclient.conf', changes))}")

    def load_short(self) -> None:
        self.load({"time = 60": "time = 2", "intvl = 10": "intvl = 1", "probes = 6": "probes = 2",
                   "retries2 = 8": "retries2 = 3"})

    def load_defaults(self) -> None:
        self.load({"time = 60": "time = 7200", "intvl = 10": "intvl = 75",
                   "probes = 6": "probes = 9", "retries2 = 8": "retries2 = 15"})

    def connect(self, port: int, address: str = ADDRESS) -> qpxclient.Connection:
        connection = qpxclient.connect(address, port)
        self.addCleanup(self.end, connection)
        return connection

    @staticmethod
    def end(connection: qpxclient.Connection) -> None:
        try:
            connection.purge()
        except qpxclient.Error:
            pass

    def seconds_of_keepalive(self, connection: qpxclient.Connection, port: int) -> float:
        """How long the connection may say nothing before the kernel asks."""
        while True:
            for each in pathlib.Path("/proc/thread-self/net/tcp").read_text().splitlines()[1:]:
                fields = each.split()
                timer, ticks = (int(part, 16) for part in fields[5].split(":"))
                if int(fields[2].split(":")[1], 16) == port and timer == KEEPALIVE:
                    return ticks / os.sysconf("SC_CLK_TCK")
            connection.call("ECHO", b"hello")

    def test_the_kernel_asks_after_a_minute_and_not_after_two_hours(self) -> None:
        gateway = self.far_gateway()
        self.load_defaults()
        before = self.connect(gateway.port)
        self.assertGreater(self.seconds_of_keepalive(before, gateway.port), 3600)
        before.close()
        self.load({})
        after = self.connect(gateway.port)
        self.assertLessEqual(self.seconds_of_keepalive(after, gateway.port), 60)

    def test_the_kernel_takes_each_setting(self) -> None:
        self.load_defaults()
        self.load({})
        lines = [line for line in recipe("sysctl/60-qpxclient.conf", {}).splitlines()
                 if line.startswith("net.")]
        self.assertEqual(len(lines), 4)
        for line in lines:
            name, value = line.split(" = ")
            self.assertEqual(
                pathlib.Path("/proc/sys", name.replace(".", "/")).read_text().strip(), value, name)

    def test_a_call_that_waits_ends_when_keepalive_gives_up(self) -> None:
        self.load_short()
        gateway = self.far_gateway("--misbehave", "no-answer@program:ECHO")
        connection = self.connect(gateway.port)
        cutting = gateway.when_line('program="ECHO"', lambda: self.line("down"))
        self.addCleanup(cutting.join)
        with self.assertRaises(qpxclient.ConnectionEnded) as ended:
            connection.call("ECHO", b"hello")
        self.assertEqual(ended.exception.code, qpxclient.Code.QPX_ERR_LOSTGWCON)

    def test_a_call_that_cannot_be_sent_ends_when_retransmission_gives_up(self) -> None:
        self.load_short()
        connection = self.connect(self.far_gateway().port)
        self.line("down")
        with self.assertRaises(qpxclient.ConnectionEnded) as ended:
            connection.call("ECHO", b"hello")
        self.assertEqual(ended.exception.code, qpxclient.Code.QPX_ERR_LOSTGWCON)

    def test_checks_of_a_proxy_end_it_without_the_settings(self) -> None:
        gateway = self.far_gateway("--misbehave", "no-answer@program:ECHO")
        self.load_defaults()
        listener = self.listener()
        path = self.file("haproxy.cfg", recipe("haproxy/haproxy.cfg", {
            "/dev/log local0": "stdout format raw local0",
            "/run/haproxy/admin.sock": str(self.folder / "admin.sock"),
            "bind :5770": f"bind fd@{listener.fileno()}",
            "gateway1.example:5770": f"{ADDRESS}:{gateway.port}",
            "gateway2.example:5770": f"{ADDRESS}:{gateway.port}",
            "inter 5s": "inter 200ms", "timeout check 5s": "timeout check 2s",
            "timeout connect 5s": "timeout connect 2s"}))
        self.run_program(["haproxy", "-W", "-f", str(path)], pass_fds=[listener.fileno()])
        connection = self.connect(listener.getsockname()[1], "127.0.0.1")
        cutting = gateway.when_line('program="ECHO"', lambda: self.line("down"))
        self.addCleanup(cutting.join)
        with self.assertRaises(qpxclient.ConnectionEnded) as ended:
            connection.call("ECHO", b"hello")
        self.assertEqual(ended.exception.code, qpxclient.Code.QPX_ERR_LOSTGWCON)
