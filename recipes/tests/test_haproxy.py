"""haproxy.cfg, with haproxy itself between the library and stand-in gateways."""

import concurrent.futures
import pathlib
import re
import socket
import sqlite3
import threading
from typing import Dict, Iterable, List, Optional, Sequence

import qpxclient
from support import GENEROUS, RECIPES, Gateway, RecipeTest, recipe

LEDGER = "LEDGER"


class HaproxyTest(RecipeTest):
    """Checks come often, and have time: a machine that is busy is not a Gateway that is dead."""

    def setUp(self) -> None:
        super().setUp()
        self.pool = concurrent.futures.ThreadPoolExecutor(8)
        self.addCleanup(self.pool.shutdown)

    def configuration(self, name: str, port: int, gateways: List[Gateway],
                      changes: Dict[str, str]) -> pathlib.Path:
        return self.file(name, recipe("haproxy/haproxy.cfg", {
            "/dev/log local0": "stdout format raw local0",
            "/run/haproxy/admin.sock": str(self.folder / f"{name}.sock"),
            "bind :5770": f"bind fd@{port}",
            "gateway1.example:5770": f"127.0.0.1:{gateways[0].port}",
            "gateway2.example:5770": f"127.0.0.1:{gateways[-1].port}",
            "inter 5s": "inter 200ms",
            "timeout check 5s": "timeout check 1m",
            **changes}))

    def proxy(self, *gateways: Gateway, name: str = "haproxy",
              changes: Optional[Dict[str, str]] = None, **options: object) -> int:
        listener = self.listener()
        path = self.configuration(name, listener.fileno(), list(gateways), changes or {})
        self.haproxy = self.run_program(["haproxy", "-W", "-S", str(self.folder / "master.sock"),
                                         "-f", str(path)],
                                        pass_fds=[listener.fileno()])
        self.haproxy.await_line("Loading success")
        return int(listener.getsockname()[1])

    def order(self, text: str, name: str = "haproxy") -> str:
        with socket.socket(socket.AF_UNIX) as admin:
            admin.settimeout(GENEROUS)
            admin.connect(str(self.folder / f"{name}.sock"))
            admin.sendall(text.encode() + b"\n")
            admin.shutdown(socket.SHUT_WR)
            return admin.makefile().read().strip()

    def reload(self) -> None:
        # Behind its start, and at a reload, the master executes itself anew: whoever asks it then is
        # refused, or cut off.
        while True:
            try:
                if self.order("show proc", "master"):
                    break
            except ConnectionError:
                pass
        try:
            self.order("reload", "master")
        except ConnectionError:
            pass
        self.haproxy.await_line("Reloading HAProxy")

    def connect(self, port: int, applid: str = "CALLER") -> qpxclient.Connection:
        connection = qpxclient.connect("127.0.0.1", port, applid=applid)
        self.addCleanup(self.end, connection)
        return connection

    @staticmethod
    def end(connection: qpxclient.Connection) -> None:
        try:
            connection.purge()
        except qpxclient.Error:
            pass

    def kill_the_second_under_load(self, gateways: List[Gateway],
                                   tellers: Sequence["Teller"]) -> None:
        """Four tellers, two at each Gateway: those at the other one lose nothing."""
        runs = []
        for each in tellers:  # one after the other, so that each finds the others counted
            runs.append(self.pool.submit(each.run))
            each.await_posted(3)
        for gateway in gateways:
            gateway.await_callers(2)
        safe = [each for each in tellers if gateways[0].lines(f'applid="{each.applid}"')]
        gateways[1].kill()
        posted = [each.posted for each in tellers]
        for each, number in zip(tellers, posted):
            each.await_posted(number + 3)
            each.enough.set()
        for run in runs:
            run.result(GENEROUS)

        self.assertEqual([each.lost for each in safe], [0, 0])
        self.assertEqual(sum(each.lost > 0 for each in tellers), 2)


class HaproxyConnections(HaproxyTest):
    """What becomes of connections, and of long calls on them."""

    def test_connections_go_where_there_are_fewest(self) -> None:
        first, second = self.gateway(), self.gateway()
        port = self.proxy(first, second)
        connections = [self.connect(port, f"CALLER{number}") for number in range(4)]
        first.await_callers(2)
        second.await_callers(2)
        for number, each in enumerate(connections):
            if first.lines(f'applid="CALLER{number}"'):
                each.close()
        self.haproxy.await_line("gateways/gateway1 ", times=2)  # their lines, when they have ended
        for number in range(2):
            self.connect(port)
        first.await_callers(4)

    def test_a_gateway_refuses_the_line_of_the_proxy_protocol(self) -> None:
        gateway = self.gateway()
        port = self.proxy(gateway, changes={"on-marked-down": "send-proxy on-marked-down"})
        self.assert_not_opened(port)
        gateway.await_line("malformed flow: eyecatcher")

    # Two proxies, one of them with the time-outs alone that are usual, of a second each.
    def test_a_long_call_is_cut_without_the_time_out_of_the_tunnel(self) -> None:
        gateway = self.gateway("--misbehave", "hold@program:ECHO")
        short = {"timeout client 1m": "timeout client 1s", "timeout server 1m": "timeout server 1s"}
        cut = self.connect(self.proxy(gateway, name="cut",
                                      changes={**short, "timeout tunnel 7d": ""}))
        kept = self.connect(self.proxy(gateway, name="kept", changes=short))
        reply = self.pool.submit(kept.call, "ECHO", b"hello")
        gateway.await_line('program="ECHO"')
        with self.assertRaises(qpxclient.ConnectionEnded) as ended:
            cut.call("ECHO", b"hello")
        self.assertEqual(ended.exception.code, qpxclient.Code.QPX_ERR_LOSTGWCON)
        self.assertFalse(reply.done())
        gateway.release()
        self.assertEqual(reply.result(GENEROUS), b"hello")

    def test_keepalive_watches_both_sides(self) -> None:
        gateway = self.gateway()
        port = self.proxy(gateway)
        connection = self.connect(port)
        self.await_keepalive(connection, local=port)
        self.await_keepalive(connection, remote=gateway.port)


class HaproxyChecks(HaproxyTest):
    """Who is alive."""

    def test_a_check_is_a_handshake_and_a_goodbye(self) -> None:
        gateway = self.gateway()
        self.proxy(gateway)
        gateway.await_line('handshake applid="" qualifier=""')
        gateway.await_line("close flow", times=4)
        self.assertEqual(gateway.lines("warn"), [])

    def test_its_bytes_are_those_of_the_protocol(self) -> None:
        handshake, goodbye = (bytes.fromhex(each) for each in re.findall(
            r"send-binary (\w+)", recipe("haproxy/haproxy.cfg", {})))
        self.assertEqual(goodbye, dump("Close"))
        # But for the applid and its qualifier, which are empty, and the length of it all.
        whole = dump("Handshake")
        self.assertEqual(handshake, whole[:29] + (22).to_bytes(4, "big") + whole[33:51] + bytes(4))

    def test_a_check_without_goodbye_makes_the_gateway_warn(self) -> None:
        gateway = self.gateway()
        goodbye = [line for line in recipe("haproxy/haproxy.cfg", {}).splitlines()
                   if "0000000AFFFFFFFF" in line]
        self.assertEqual(len(goodbye), 2)
        self.proxy(gateway, changes={line: "" for line in goodbye})
        gateway.await_line("warn")

    def test_a_gateway_that_does_not_answer_gets_no_connection(self) -> None:
        good, silent = self.gateway(), self.gateway("--misbehave", "no-handshake-answer")
        port = self.proxy(good, silent, changes={"timeout check 5s": "timeout check 2s"})
        self.haproxy.await_line("gateway2 is DOWN")
        for _ in range(3):
            self.connect(port).call("ECHO", b"hello")
        good.await_callers(3)

    def test_no_gateway_left_is_a_connection_that_is_lost(self) -> None:
        gateway = self.gateway()
        port = self.proxy(gateway)
        gateway.kill()
        self.haproxy.await_line("'gateways' has no server available")
        self.assert_not_opened(port)

    def test_a_gateway_that_hangs_lets_its_callers_go(self) -> None:
        gateway = self.gateway()
        port = self.proxy(gateway, changes={"timeout check 5s": "timeout check 2s"})
        connection = self.connect(port)
        gateway.hang()
        with self.assertRaises(qpxclient.ConnectionEnded):
            connection.call("ECHO", b"hello")
        self.haproxy.await_line("gateway1 is DOWN")


class HaproxyChanges(HaproxyTest):
    """Changes while there are connections."""

    def test_a_drained_gateway_keeps_what_it_has_and_gets_no_more(self) -> None:
        first, second = self.gateway(), self.gateway()
        port = self.proxy(first, second)
        before = [self.connect(port) for _ in range(2)]
        self.assertEqual(self.order("set server gateways/gateway2 state drain"), "")
        for _ in range(3):
            self.connect(port).call("ECHO", b"hello")
        first.await_callers(4)
        second.await_callers(1)
        for each in before:
            self.assertEqual(each.call("ECHO", b"hello"), b"hello")

    def test_what_a_drained_gateway_has_left_is_cut(self) -> None:
        gateway = self.gateway("--misbehave", "hold@program:ECHO")
        connection = self.connect(self.proxy(gateway))
        reply = self.pool.submit(connection.call, "ECHO", b"hello")
        gateway.await_line('program="ECHO"')
        self.assertIn("gateway1", self.order("show servers conn gateways"))
        for server in "gateway1", "gateway2":
            self.order(f"shutdown sessions server gateways/{server}")
        with self.assertRaises(qpxclient.ConnectionEnded):
            reply.result(GENEROUS)

    def test_a_reload_keeps_connections(self) -> None:
        gateway = self.gateway()
        port = self.proxy(gateway)
        connection = self.connect(port)
        self.reload()
        self.haproxy.await_line("Proxy applications stopped")
        self.haproxy.await_line("Loading success", times=2)
        self.assertEqual(connection.call("ECHO", b"hello"), b"hello")
        self.assertEqual(self.connect(port).call("ECHO", b"hello"), b"hello")

    def test_hard_stop_after_cuts_them(self) -> None:
        gateway = self.gateway("--misbehave", "hold@program:ECHO")
        port = self.proxy(gateway, changes={"# hard-stop-after 12h": "hard-stop-after 1s"})
        connection = self.connect(port)
        reply = self.pool.submit(connection.call, "ECHO", b"hello")
        gateway.await_line('program="ECHO"')
        self.reload()
        with self.assertRaises(qpxclient.ConnectionEnded):
            reply.result(GENEROUS)


class HaproxyDeath(HaproxyTest):
    """A Gateway that dies under load."""

    def test_an_open_that_meets_it_before_the_checks_do_is_passed_on(self) -> None:
        first, second = self.gateway(), self.gateway()
        port = self.proxy(first, second, changes={"inter 5s": "inter 1d"})
        second.kill()
        for _ in range(4):
            self.assertEqual(self.connect(port).call("ECHO", b"hello"), b"hello")
        first.await_callers(4)

    def test_a_gateway_that_is_killed_takes_only_its_own_connections_along(self) -> None:
        books = [self.folder / "first.db", self.folder / "second.db"]
        gateways = [self.gateway("--database", str(book)) for book in books]
        before = [total(book) for book in books]
        port = self.proxy(*gateways)
        tellers = [Teller(port, number) for number in range(4)]
        self.kill_the_second_under_load(gateways, tellers)

        gateways[0].await_callers(4)
        self.assertEqual([total(book) for book in books], before)
        done = sum(transfers(book) for book in books)
        told = sum(each.posted for each in tellers)
        self.assertTrue(told <= done <= told + sum(each.in_doubt for each in tellers), (told, done))


class Teller:
    """Posts transfers until it has had enough, over whatever connection it can get."""

    def __init__(self, port: int, number: int) -> None:
        self.port = port
        self.applid = f"CALLER{number}"
        self.account = f"ACC{number + 2:05}"
        self.posted = self.lost = self.in_doubt = 0
        self.enough = threading.Event()
        self._more = threading.Condition()

    def await_posted(self, number: int) -> None:
        with self._more:
            if not self._more.wait_for(lambda: self.posted >= number, GENEROUS):
                raise AssertionError(f"only {self.posted} transfers")

    def run(self) -> None:
        while not self.enough.is_set():
            try:
                with qpxclient.connect("127.0.0.1", self.port, applid=self.applid) as gateway:
                    while not self.enough.is_set():
                        self._transfer(gateway)
            except qpxclient.ConnectionEnded:
                self.lost += 1

    def _transfer(self, gateway: qpxclient.Connection) -> None:
        unit = gateway.unit_of_work()
        try:
            for each in self.postings():
                reply = unit.call(LEDGER, each)
                assert reply[1:3] == b"00", reply
        except qpxclient.ConnectionEnded:
            raise
        except qpxclient.Error as busy:
            if busy.code != qpxclient.Code.ECI_ERR_RESOURCE_SHORTAGE:
                raise
            return
        try:
            unit.commit()
        except qpxclient.ConnectionEnded:
            self.in_doubt += 1
            self.doubt()
            raise
        self.acknowledged()
        with self._more:
            self.posted += 1
            self._more.notify_all()

    def postings(self) -> Iterable[bytes]:
        """Those of the next transfer."""
        return [f"{each}{1:012}".encode("ascii").ljust(80)
                for each in (f"D  {self.account}", "C  ACC00001")]

    def acknowledged(self) -> None:
        """The transfer is done."""

    def doubt(self) -> None:
        """Nobody knows of the transfer whether it is."""


def dump(flow: str) -> bytes:
    """The bytes of a flow, as docs/protocol.md shows them."""
    page = (RECIPES.parent / "docs" / "protocol.md").read_text()
    shown = re.search(rf"^### {flow}$.*?^```text\n(.*?)^```", page, re.DOTALL | re.MULTILINE)
    assert shown is not None
    return bytes.fromhex("".join(line[6:53] for line in shown.group(1).splitlines()))


def total(book: pathlib.Path) -> int:
    with sqlite3.connect(book) as ledger:
        return int(ledger.execute("SELECT sum(balance) FROM account").fetchone()[0])


def transfers(book: pathlib.Path) -> int:
    with sqlite3.connect(book) as ledger:
        return int(ledger.execute("SELECT count(*) FROM journal").fetchone()[0]) // 2
