"""The configurations of recipes/tls, with stunnel and haproxy on both sides of a connection."""

import os
import pathlib
import subprocess
from typing import Dict, NamedTuple, Optional

import qpxclient
from support import GENEROUS, RECIPES, Logging, RecipeTest, listening_port, recipe

EXAMPLES = pathlib.Path(os.environ["QPX_EXAMPLES"])


class Side(NamedTuple):
    program: Logging
    port: int


class TlsTest(RecipeTest):
    """A gateway, something that speaks TLS beside it, and something beside the application."""

    def setUp(self) -> None:
        super().setUp()
        self.certificates("application=app.example", "gateway=gateway.example")

    def certificates(self, *names: str, folder: str = "", days: int = 30) -> None:
        subprocess.run([str(RECIPES / "tls" / "make-certificates"), str(self.folder / folder),
                        *names], env={**os.environ, "DAYS": str(days)}, check=True,
                       capture_output=True)

    def stunnel(self, name: str, changes: Dict[str, str]) -> Side:
        path = self.file(f"{name}.conf", self.with_folder(recipe(f"tls/{name}.conf", changes)))
        program = self.run_program(["stunnel4", str(path)])
        program.await_line("Configuration successful")
        return Side(program, listening_port(program.process.pid))

    def haproxy(self, name: str, bind: str, changes: Dict[str, str]) -> Side:
        listener = self.listener()
        path = self.file(f"{name}.cfg", self.with_folder(recipe(f"tls/{name}.cfg", {
            "/dev/log local0": "stdout format raw local0",
            f"bind {bind}": f"bind fd@{listener.fileno()}", **changes})))
        program = self.run_program(["haproxy", "-W", "-f", str(path)],
                                   pass_fds=[listener.fileno()])
        program.await_line("Loading success")
        return Side(program, int(listener.getsockname()[1]))

    def with_folder(self, text: str) -> str:
        return text.replace("/etc/qpx", str(self.folder))

    def beside_the_gateway(self, kind: str, port: int,
                           changes: Optional[Dict[str, str]] = None) -> Side:
        here = {"127.0.0.1:5770": f"127.0.0.1:{port}", **(changes or {})}
        if kind == "stunnel":
            return self.stunnel("stunnel-gateway", {"accept = 5771": "accept = 127.0.0.1:0", **here})
        return self.haproxy("haproxy-gateway", ":5771", here)

    def beside_the_application(self, kind: str, port: int,
                               changes: Optional[Dict[str, str]] = None) -> Side:
        far = {"gateway.example:5771": f"127.0.0.1:{port}", **(changes or {})}
        if kind == "stunnel":
            return self.stunnel("stunnel-application", {"127.0.0.1:5770": "127.0.0.1:0", **far})
        return self.haproxy("haproxy-application", "127.0.0.1:5770", far)


class TlsRight(TlsTest):
    """What goes through."""

    def check(self, near_application: str, near_gateway: str) -> None:
        gateway = self.gateway("--database", str(self.folder / "ledger.db"))
        far = self.beside_the_gateway(near_gateway, gateway.port)
        port = self.beside_the_application(near_application, far.port).port
        for each in "echo", "unit_of_work", "asynchronous", "channel", "window", "fork":
            run = subprocess.run([str(EXAMPLES / each), "127.0.0.1", str(port)], check=False,
                                 capture_output=True, text=True, timeout=GENEROUS)
            self.assertEqual((run.returncode, run.stderr), (0, ""), each)
        data = bytes(range(256)) * (20 * 1024 * 4)
        with qpxclient.connect("127.0.0.1", port) as connection:
            with qpxclient.Channel("LARGE") as channel:
                channel["DATA"] = data
                connection.call_channel("CHANECHO", channel)
                self.assertTrue(channel["DATA"] == data)

    def test_stunnel_on_both_sides(self) -> None:
        self.check("stunnel", "stunnel")

    def test_haproxy_on_both_sides(self) -> None:
        self.check("haproxy", "haproxy")

    def test_stunnel_beside_the_application_and_haproxy_beside_the_gateway(self) -> None:
        self.check("stunnel", "haproxy")


    def test_keepalive_watches_every_connection(self) -> None:
        gateway = self.gateway()
        for kind in "stunnel", "haproxy":
            far = self.beside_the_gateway(kind, gateway.port)
            port = self.beside_the_application(kind, far.port).port
            with qpxclient.connect("127.0.0.1", port) as connection:
                self.await_keepalive(connection, local=port)
                self.await_keepalive(connection, remote=far.port)
                self.await_keepalive(connection, local=far.port)
                self.await_keepalive(connection, remote=gateway.port)

    def test_the_check_of_several_gateways_goes_through_tls(self) -> None:
        gateway = self.gateway()
        far = self.beside_the_gateway("stunnel", gateway.port)
        server = [line for line in recipe("tls/haproxy-application.cfg", {}).splitlines()
                  if " verifyhost " in line][0]
        options = self.with_folder(server.split(":5771 ")[1])
        listener = self.listener()
        path = self.file("haproxy.cfg", recipe("haproxy/haproxy.cfg", {
            "/dev/log local0": "stdout format raw local0",
            "/run/haproxy/admin.sock": str(self.folder / "admin.sock"),
            "bind :5770": f"bind fd@{listener.fileno()}",
            "gateway1.example:5770": f"127.0.0.1:{far.port} {options}",
            "gateway2.example:5770": f"127.0.0.1:{far.port} {options}",
            "inter 5s": "inter 200ms", "timeout check 5s": "timeout check 1m"}))
        self.run_program(["haproxy", "-W", "-f", str(path)], pass_fds=[listener.fileno()])
        gateway.await_line('handshake applid=""')
        gateway.await_line("close flow", times=4)
        with qpxclient.connect("127.0.0.1", listener.getsockname()[1]) as connection:
            self.assertEqual(connection.call("ECHO", b"hello"), b"hello")


class TlsWrongTest(TlsTest):
    """What each kind of wrong certificate looks like: to the application always the same."""

    def check(self, kind: str, application: Optional[Dict[str, str]] = None,
              gateway: Optional[Dict[str, str]] = None, near: str = "", far: str = "") -> None:
        behind = self.gateway()
        other = self.beside_the_gateway(kind, behind.port, gateway)
        this = self.beside_the_application(kind, other.port, application)
        self.assert_not_opened(this.port)
        # The reason stands where the certificate was looked at.
        (this.program if near else other.program).await_line(near or far)
        self.assertEqual(behind.lines("handshake"), [])

    def of_another_authority(self, name: str) -> Dict[str, str]:
        self.certificates("application=app.example", "gateway=gateway.example", folder="other")
        return {f"/etc/qpx/{name}.pem": str(self.folder / "other" / f"{name}.pem")}


class TlsWrongStunnel(TlsWrongTest):
    """With stunnel on both sides."""

    def test_the_application_has_none(self) -> None:
        self.check("stunnel", application={"cert = ": "; cert = "},
                   far="peer did not return a certificate")

    def test_the_application_has_one_of_another_authority(self) -> None:
        self.check("stunnel", application=self.of_another_authority("application"),
                   far="CERT: Pre-verification error: unable to get local issuer certificate")

    def test_that_of_the_application_has_expired(self) -> None:
        self.certificates("application=app.example", days=-1)
        self.check("stunnel", far="CERT: Pre-verification error: certificate has expired")

    def test_the_gateway_has_one_of_another_authority(self) -> None:
        self.check("stunnel", gateway=self.of_another_authority("gateway"),
                   near="CERT: Pre-verification error: unable to get local issuer certificate")

    def test_the_gateway_has_one_of_another_name(self) -> None:
        self.certificates("gateway=other.example")
        self.check("stunnel", near="CERT: Subject checks failed")

    def test_that_of_the_gateway_has_expired(self) -> None:
        self.certificates("gateway=gateway.example", days=-1)
        self.check("stunnel", near="CERT: Pre-verification error: certificate has expired")

    def test_nothing_listens_at_the_other_side(self) -> None:
        this = self.beside_the_application("stunnel", 9)
        self.assert_not_opened(this.port)
        this.program.await_line("Connection refused")

    def test_a_call_that_is_longer_than_the_idle_time_is_cut(self) -> None:
        gateway = self.gateway("--misbehave", "no-answer")
        far = self.beside_the_gateway("stunnel", gateway.port)
        this = self.beside_the_application("stunnel", far.port, {"TIMEOUTidle = 604800":
                                                                 "TIMEOUTidle = 1"})
        connection = qpxclient.connect("127.0.0.1", this.port)
        with self.assertRaises(qpxclient.ConnectionEnded) as ended:
            connection.call("ECHO", b"hello")
        self.assertEqual(ended.exception.code, qpxclient.Code.QPX_ERR_LOSTGWCON)
        this.program.await_line("Connection reset: [0-9]+ byte")
        connection.close()


class TlsWrongHaproxy(TlsWrongTest):
    """With haproxy on both sides. The number is that of the verification: openssl-verification-options
    explains it."""

    def test_the_application_has_none(self) -> None:
        self.check("haproxy", application={" crt /etc/qpx/application.pem": ""},
                   far="peer did not return a certificate")

    def test_the_application_has_one_of_another_authority(self) -> None:
        self.check("haproxy", application=self.of_another_authority("application"),
                   far="certificate verify failed 20$")

    def test_that_of_the_application_has_expired(self) -> None:
        self.certificates("application=app.example", days=-1)
        self.check("haproxy", far="certificate verify failed 10$")

    def test_the_gateway_has_one_of_another_authority(self) -> None:
        self.check("haproxy", gateway=self.of_another_authority("gateway"),
                   near="certificate verify failed")

    def test_the_gateway_has_one_of_another_name(self) -> None:
        self.certificates("gateway=other.example")
        self.check("haproxy", near="certificate verify failed")

    def test_that_of_the_gateway_has_expired(self) -> None:
        self.certificates("gateway=gateway.example", days=-1)
        self.check("haproxy", near="certificate verify failed")
