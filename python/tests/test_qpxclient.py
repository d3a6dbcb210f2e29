"""Tests of qpxclient.py against the daemon of the stand-in gateway."""

import asyncio
import ctypes
import datetime
import gc
import os
import pathlib
import re
import subprocess
import sys
import threading
import unittest
import warnings

import qpxclient
from gateway import GENEROUS, Gateway
from qpxclient import Call, Channel, Code

SOURCE = pathlib.Path(__file__).resolve().parents[2]
REGISTRY = SOURCE / "demo-programs" / "data" / "registry.toml"


class Records(unittest.TestCase):
    """The module says what the headers say."""

    def test_codes_are_those_of_the_headers(self) -> None:
        told = {}
        for name in ("qpxclient.h", "qpxclient_eci.h", "qpxclient_esi.h", "eci_channel.h"):
            for line in (SOURCE / "include" / name).read_text().splitlines():
                match = re.match(r"#define ((?:\w+_ERR_\w+)|QPX_OK|ECI_NO_ERROR) +\(?(-?\d+)\)?",
                                 line)
                if match:
                    told[match.group(1)] = int(match.group(2))
        self.assertGreater(len(told), 70)
        self.assertEqual({name: int(code) for name, code in Code.__members__.items()}, told)

    def test_records_lie_as_the_compiler_lays_them(self) -> None:
        records = {"QPX_ECI_PARMS": qpxclient._Parms, "ECI_CONTAINER_INFO": qpxclient._Info,
                   "QPX_listSystem_t": qpxclient._System, "ESI_DATETIME": qpxclient._DateTime,
                   "ESI_DETAILS": qpxclient._Details}
        lines = ['#include <stddef.h>', '#include "qpxclient_eci.h"', '#include "qpxclient_esi.h"']
        for name, record in records.items():
            lines.append(f"_Static_assert(sizeof({name}) == {ctypes.sizeof(record)}, \"size\");")
            for field, *_ in record._fields_:
                offset = getattr(record, field).offset
                lines.append(f"_Static_assert(offsetof({name}, {field}) == {offset}, \"{field}\");")
        compiler = subprocess.run(
            [os.environ.get("CC", "cc"), "-m64", "-std=c11", "-fsyntax-only", "-x", "c",
             "-I", str(SOURCE / "include"), "-"],
            input="\n".join(lines) + "\n", text=True, capture_output=True, check=False)
        self.assertEqual(compiler.stderr, "")

    def test_names_codes_as_the_library_does(self) -> None:
        self.assertEqual(qpxclient.code_name(-107), "QPX_ERR_BADPORT")
        self.assertEqual(qpxclient.code_name(4711), "UNKNOWN")

    def test_a_password_is_in_no_text_of_a_call(self) -> None:
        self.assertNotIn("secret", repr(Call("PROG", user="FRED", password="secret")))

    def test_a_library_that_cannot_be_loaded_is_told_in_a_sentence(self) -> None:
        run = subprocess.run(
            [sys.executable, "-c", "import qpxclient"], text=True, capture_output=True,
            env={**os.environ, "QPX_CLIENT_LIBRARY": "/nonexistent.so"}, check=False)
        self.assertNotEqual(run.returncode, 0)
        self.assertIn("QPX_BITS=64", run.stderr)


class WithGateway(unittest.TestCase):
    options: tuple = ()
    database = False

    def setUp(self) -> None:
        self.gateway = self.enterContext(Gateway(*self.options, database=self.database))

    def connect(self, **more: str) -> qpxclient.Connection:
        return self.enterContext(qpxclient.connect("127.0.0.1", self.gateway.port, 10, **more))

    def assertFails(self, code: Code, call, *arguments: object) -> qpxclient.Error:
        with self.assertRaises(qpxclient.Error) as raised:
            call(*arguments)
        self.assertEqual(raised.exception.code, code)
        return raised.exception


class Connections(WithGateway):
    def test_a_with_block_closes_the_connection_in_order(self) -> None:
        with qpxclient.connect("127.0.0.1", self.gateway.port) as connection:
            self.assertEqual(connection.call("ECHO", b"hello"), b"hello")
        self.gateway.await_line(r"connection 1: close")
        self.assertFails(Code.QPX_ERR_NULLGWTOK, connection.call, "ECHO", b"hello")

    def test_an_exception_leaves_a_with_block_without_waiting_for_replies(self) -> None:
        with self.assertRaises(RuntimeError):
            with qpxclient.connect("127.0.0.1", self.gateway.port) as connection:
                reply = connection.start("ECHO", b"never taken")
                raise RuntimeError
        self.assertFails(Code.QPX_ERR_NULLGWTOK, reply.get)

    def test_a_connection_that_is_forgotten_is_closed_with_a_warning(self) -> None:
        connection = qpxclient.connect("127.0.0.1", self.gateway.port)
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            del connection
            gc.collect()
        self.assertTrue(any(each.category is ResourceWarning for each in caught))
        self.gateway.await_line(r"connection 1: close")

    def test_an_open_that_fails_raises_its_code(self) -> None:
        error = self.assertFails(Code.QPX_ERR_BADPORT, qpxclient.connect, "127.0.0.1", 0)
        self.assertEqual(str(error),
                         "QPX_openRemoteGatewayConnectionApplid: QPX_ERR_BADPORT (-107)")

    def test_a_connection_has_its_identity(self) -> None:
        connection = self.connect(applid="BRANCH", qualifier="NORTH")
        self.assertEqual((connection.applid, connection.applid_qualifier), ("BRANCH", "NORTH"))

    def test_a_purge_from_another_thread_ends_a_call(self) -> None:
        with Gateway("--misbehave", "hold") as gateway:
            connection = qpxclient.connect("127.0.0.1", gateway.port)
            errors = []

            def call() -> None:
                try:
                    connection.call("ECHO", b"hello")
                except qpxclient.ConnectionEnded as error:
                    errors.append(error.code)

            thread = threading.Thread(target=call)
            thread.start()
            gateway.await_line(r"request 1 ECI")
            connection.purge()
            thread.join(GENEROUS)
            self.assertEqual(errors, [Code.QPX_ERR_GWTOK_CLOSED])


class Calls(WithGateway):
    def setUp(self) -> None:
        super().setUp()
        self.connection = self.connect()

    def test_a_call_brings_the_data_of_the_reply(self) -> None:
        self.assertEqual(self.connection.call("ECHO", b"a\0b"), b"a\0b")
        self.assertEqual(self.connection.call("ECHO"), b"")

    def test_a_call_has_room_for_a_longer_reply(self) -> None:
        self.assertEqual(self.connection.call("ECHO", b"ask", 8), b"ask".ljust(8, b"\0"))
        self.gateway.await_line(r'program="ECHO".*commarea=3/8')

    def test_a_call_carries_its_server_and_its_user(self) -> None:
        self.connection.call(Call("ECHO", server="PROD", user="FRED", password="x"), b"hello")
        self.gateway.await_line(r'user="FRED"')

    def test_what_does_not_fit_is_refused_and_nothing_is_sent(self) -> None:
        for call in (Call("PROGRAM12"), Call("ECHO", server="SERVER123"),
                     Call("ECHO", transaction="TRANS"), Call("ECHO", timeout=-1),
                     Call("ECHO", timeout=32768), Call("EC\0O"), Call("ECHO", user="a\0b")):
            with self.subTest(call), self.assertRaises(ValueError):
                self.connection.call(call, b"x")
        with self.assertRaises(ValueError):
            self.connection.call("ECHO", bytes(32768))
        self.assertEqual(len(self.connection.call("ECHO", bytes(32767))), 32767)
        self.gateway.await_line(r"request 1 ECI .*commarea=32767")

    def test_an_abend_brings_its_code(self) -> None:
        with self.assertRaises(qpxclient.AbendError) as raised:
            self.connection.call("ABEND", b"ASRA")
        self.assertEqual(raised.exception.abend_code, "ASRA")
        self.assertIn("abend code ASRA", str(raised.exception))

    def test_no_system_is_no_failure(self) -> None:
        self.assertEqual(self.connection.systems(), [])

    def test_every_system_is_listed_however_many_there_are(self) -> None:
        options = [f"--system=SYS{number}=system" for number in range(100)]
        with Gateway(*options) as gateway, \
                qpxclient.connect("127.0.0.1", gateway.port) as connection:
            systems = connection.systems()
        self.assertEqual(len(systems), 100)
        self.assertIn(qpxclient.System("SYS99", "system"), systems)

    def test_replies_are_taken_in_any_order(self) -> None:
        first, second = (self.connection.start("ECHO", data) for data in (b"first", b"second"))
        self.assertEqual(second.get(), b"second")
        self.assertEqual(first.get(), b"first")
        with self.assertRaises(ValueError):
            first.get()

    def test_a_reply_that_is_held_is_not_there(self) -> None:
        with Gateway("--misbehave", "hold") as gateway:
            with qpxclient.connect("127.0.0.1", gateway.port) as connection:
                reply = connection.start("ECHO", b"late")
                gateway.await_line(r"request 1 ECI")
                self.assertIsNone(reply.poll())
                gateway.release()
                self.assertEqual(reply.get(), b"late")

    def test_a_reply_that_nobody_takes_does_not_hold_up_a_close(self) -> None:
        with qpxclient.connect("127.0.0.1", self.gateway.port) as connection:
            connection.start("ECHO", b"dropped")
        self.gateway.await_line(r"connection 2: close")


class Passwords(WithGateway):
    options = ("--registry", str(REGISTRY))
    database = True

    def setUp(self) -> None:
        super().setUp()
        self.connection = self.connect()

    def test_a_password_is_verified(self) -> None:
        details = self.connection.verify_password("FRED", "Blue7sky")
        self.assertEqual(details.wrong_attempts, 0)
        self.assertIsNone(details.last_verified)
        again = self.connection.verify_password("FRED", "Blue7sky")
        assert again.last_verified is not None
        self.assertLessEqual(again.last_verified.year - datetime.date.today().year, 1)
        self.assertFails(Code.ESI_ERR_PASSWORD_INVALID, self.connection.verify_password, "FRED",
                         "wrong")

    def test_a_password_is_changed(self) -> None:
        self.connection.change_password("OLGA", "Winter5", "Spring6")
        self.connection.verify_password("OLGA", "Spring6")


class UnitsOfWork(WithGateway):
    database = True

    def setUp(self) -> None:
        super().setUp()
        self.connection = self.connect()

    @staticmethod
    def debit(cents: int) -> bytes:
        return f"D  ACC00001{cents:012}".encode().ljust(80)

    def test_a_with_block_commits(self) -> None:
        with self.connection.unit_of_work() as unit:
            self.assertEqual(unit.call("LEDGER", self.debit(100))[1:3], b"00")
            unit.call("LEDGER", self.debit(200))
        self.gateway.await_line("unit of work 1 is committed")

    def test_an_exception_backs_out(self) -> None:
        with self.assertRaises(RuntimeError):
            with self.connection.unit_of_work() as unit:
                unit.call("LEDGER", self.debit(100))
                raise RuntimeError
        self.gateway.await_line("unit of work 1 is backed out")

    def test_a_unit_that_a_failure_has_ended_begins_no_other_unseen(self) -> None:
        unit = self.connection.unit_of_work()
        unit.call("LEDGER", self.debit(100))
        self.assertFails(Code.ECI_ERR_TRANSACTION_ABEND, unit.call, "ABEND", b"ASRA")
        self.assertFalse(unit.is_open)
        self.assertFails(Code.ECI_ERR_LUW_TOKEN, unit.call, "LEDGER", self.debit(100))
        self.assertFails(Code.ECI_ERR_LUW_TOKEN, unit.commit)

    def test_a_unit_without_a_call_sends_nothing(self) -> None:
        with self.connection.unit_of_work() as unit:
            self.assertFalse(unit.is_open)
        self.connection.call("ECHO", b"hello")
        self.gateway.await_line(r'request 1 ECI program="ECHO"')


class Channels(WithGateway):
    def setUp(self) -> None:
        super().setUp()
        self.channel = self.enterContext(Channel("ORDER"))

    def test_a_channel_is_a_mapping_of_its_containers(self) -> None:
        self.channel["BYTES"] = b"\0\1\2"
        self.channel.add_text("TEXT", "Grüß Gott", 819)
        self.assertEqual(self.channel["BYTES"], b"\0\1\2")
        self.assertEqual(self.channel["TEXT"], "Grüß Gott".encode("latin-1"))
        self.assertEqual(self.channel.text("TEXT"), "Grüß Gott")
        self.assertEqual(list(self.channel), ["TEXT", "BYTES"])
        self.assertEqual(self.channel.info("TEXT"),
                         qpxclient.ContainerInfo("TEXT", True, 819, 9))
        self.channel["BYTES"] = b"changed"
        self.assertEqual(self.channel["BYTES"], b"changed")
        del self.channel["BYTES"]
        self.assertNotIn("BYTES", self.channel)
        self.assertEqual(len(self.channel), 1)

    def test_a_container_that_is_missing_is_a_key_error(self) -> None:
        with self.assertRaises(KeyError):
            self.channel["MISSING"]
        with self.assertRaises(KeyError):
            del self.channel["MISSING"]

    def test_a_container_may_be_empty(self) -> None:
        self.channel["EMPTY"] = b""
        self.assertEqual(self.channel["EMPTY"], b"")

    def test_a_code_page_without_a_codec_is_told(self) -> None:
        with self.assertRaises(LookupError):
            self.channel.add_text("TEXT", "text", 4711)

    def test_a_channel_comes_back_from_a_call(self) -> None:
        self.channel["DATA"] = b"12"
        self.connect().call_channel("CHANECHO", self.channel)
        self.assertEqual(self.channel["DATA"], b"12")

    def test_a_channel_that_was_closed_is_refused(self) -> None:
        self.channel.close()
        self.channel.close()
        self.assertFails(Code.ECI_ERR_INVALID_CHANNEL, self.channel.add_bytes, "DATA", b"12")


class Asyncio(WithGateway):
    def run_with(self, work, *options: str) -> None:
        async def whole() -> None:
            async with qpxclient.connect_async("127.0.0.1", self.gateway.port) as connection:
                await asyncio.wait_for(work(connection), GENEROUS)
        asyncio.run(whole())

    def test_calls_run_side_by_side(self) -> None:
        async def work(connection: qpxclient.AsyncConnection) -> None:
            asked = [str(number).encode() for number in range(2000)]
            replies = await asyncio.gather(*(connection.call("ECHO", each) for each in asked))
            self.assertEqual(replies, asked)
        self.run_with(work)

    def test_a_reply_that_comes_first_is_there_first(self) -> None:
        with Gateway("--misbehave", "hold@message:1,once") as gateway:
            async def whole() -> None:
                async with qpxclient.connect_async("127.0.0.1", gateway.port) as connection:
                    first = asyncio.ensure_future(connection.call("ECHO", b"first"))
                    await asyncio.to_thread(gateway.await_line, r"request 1 ECI")
                    self.assertEqual(await connection.call("ECHO", b"second"), b"second")
                    self.assertFalse(first.done())
                    gateway.release()
                    self.assertEqual(await first, b"first")
            asyncio.run(asyncio.wait_for(whole(), GENEROUS))

    def test_channels_and_failures_come_back(self) -> None:
        async def work(connection: qpxclient.AsyncConnection) -> None:
            with Channel("ORDER") as channel:
                channel["DATA"] = b"12"
                await connection.call_channel("CHANECHO", channel)
                self.assertEqual(channel["DATA"], b"12")
            with self.assertRaises(qpxclient.AbendError) as raised:
                await connection.call("ABEND", b"ASRA")
            self.assertEqual(raised.exception.abend_code, "ASRA")
            with self.assertRaises(ValueError):
                await connection.call("PROGRAM12")
            self.assertEqual(connection.outstanding, 0)
        self.run_with(work)

    def test_a_call_that_is_cancelled_does_not_hold_up_the_others_nor_the_end(self) -> None:
        with Gateway("--misbehave", "hold@message:1,once") as gateway:
            async def whole() -> None:
                async with qpxclient.connect_async("127.0.0.1", gateway.port) as connection:
                    held = asyncio.ensure_future(connection.call("ECHO", b"held"))
                    await asyncio.to_thread(gateway.await_line, r"request 1 ECI")
                    held.cancel()
                    with self.assertRaises(asyncio.CancelledError):
                        await held
                    self.assertEqual(await connection.call("ECHO", b"other"), b"other")
                    gateway.release()
            asyncio.run(asyncio.wait_for(whole(), GENEROUS))

    def test_the_loop_goes_on_while_a_reply_is_held(self) -> None:
        with Gateway("--misbehave", "hold") as gateway:
            async def whole() -> bytes:
                async with qpxclient.connect_async("127.0.0.1", gateway.port) as connection:
                    call = asyncio.ensure_future(connection.call("ECHO", b"late"))
                    await asyncio.to_thread(gateway.await_line, r"request 1 ECI")
                    self.assertFalse(call.done())
                    gateway.release()
                    return await call
            self.assertEqual(asyncio.run(asyncio.wait_for(whole(), GENEROUS)), b"late")

    def test_an_exception_leaves_the_block_without_waiting_for_replies(self) -> None:
        with Gateway("--misbehave", "hold") as gateway:
            outcome = []

            async def whole() -> None:
                async with qpxclient.connect_async("127.0.0.1", gateway.port) as connection:
                    outcome.append(asyncio.ensure_future(connection.call("ECHO", b"held")))
                    await asyncio.to_thread(gateway.await_line, r"request 1 ECI")
                    raise RuntimeError

            async def caught() -> None:
                with self.assertRaises(RuntimeError):
                    await whole()
                with self.assertRaises(qpxclient.ConnectionEnded):
                    await outcome[0]
            asyncio.run(asyncio.wait_for(caught(), GENEROUS))

    def test_an_open_that_fails_raises_its_code(self) -> None:
        async def whole() -> None:
            with self.assertRaises(qpxclient.Error) as raised:
                async with qpxclient.connect_async("127.0.0.1", 0):
                    self.fail("it is open")
            self.assertEqual(raised.exception.code, Code.QPX_ERR_BADPORT)
        asyncio.run(whole())


class Example(WithGateway):
    database = True

    def run_example(self, name: str, port: int) -> "subprocess.CompletedProcess[str]":
        return subprocess.run(
            [sys.executable, str(SOURCE / "examples" / name), "127.0.0.1", str(port)], text=True,
            capture_output=True, check=False, timeout=GENEROUS)

    def test_the_example_calls_posts_and_collects(self) -> None:
        run = self.run_example("python_calls.py", self.gateway.port)
        self.assertEqual(run.stderr, "")
        self.assertEqual(run.stdout, "Hello, Gateway!\nposted\none\ntwo\nthree\n")
        self.gateway.await_line("unit of work 1 is committed")

    def test_the_channel_of_the_example_is_priced(self) -> None:
        run = self.run_example("python_channel.py", self.gateway.port)
        self.assertEqual(run.stderr, "")
        self.assertEqual(run.returncode, 0)
        self.assertIn("Invoice for order 4711\n", run.stdout)

    def test_the_examples_name_the_error_without_a_gateway(self) -> None:
        with Gateway() as gateway:
            port = gateway.port
        for name in "python_calls.py", "python_channel.py":
            run = self.run_example(name, port)
            self.assertEqual(run.returncode, 1)
            self.assertIn("QPX_ERR_CONNECTFAILED", run.stderr)


if __name__ == "__main__":
    unittest.main()
