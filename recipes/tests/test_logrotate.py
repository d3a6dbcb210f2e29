"""logrotate/qpxclient, with logrotate and a program that goes on writing."""

import subprocess
from typing import Dict

import qpxclient
from support import GENEROUS, RecipeTest, recipe


class Logrotate(RecipeTest):
    """The program is this process, and makes a call before and a call behind the rotation."""

    def rotate(self, changes: Dict[str, str]) -> None:
        path = self.file("logrotate.conf", recipe("logrotate/qpxclient", {
            "/var/log/application": str(self.folder), **changes}))
        path.chmod(0o600)
        rotation = subprocess.run(
            ["logrotate", "--force", "--state", str(self.folder / "state"), str(path)],
            check=False, capture_output=True, text=True, timeout=GENEROUS,
            env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"})
        self.assertEqual((rotation.returncode, rotation.stderr), (0, ""))

    def calls_around(self, changes: Dict[str, str]) -> None:
        self.now, self.before = self.folder / "app.trc", self.folder / "app.trc.1"
        gateway = self.gateway()
        qpxclient.set_trace_file(str(self.now))
        self.addCleanup(qpxclient.set_trace_file, None)
        self.addCleanup(qpxclient.set_trace_level, 0)
        with qpxclient.connect("127.0.0.1", gateway.port) as connection:
            qpxclient.set_trace_level(3)
            connection.call("ECHO", b"before")
            self.rotate(changes)
            connection.call("ECHO", b"behind")
            qpxclient.set_trace_level(0)

    def test_the_trace_goes_on_in_the_file_that_was_emptied(self) -> None:
        self.calls_around({})
        before, now = self.before.read_bytes(), self.now.read_bytes()
        for text in before, now:
            self.assertEqual(text.count(b"ENTRY  API.QPX_ECI_Execute("), 1)
            self.assertEqual(text.count(b"EXIT   API.QPX_ECI_Execute("), 1)
        self.assertNotIn(b"\0", now)

    def test_without_copytruncate_it_goes_on_in_the_file_that_was_renamed(self) -> None:
        self.calls_around({"copytruncate": "nocreate"})
        self.assertEqual(self.before.read_bytes().count(b"EXIT   API.QPX_ECI_Execute("), 2)
        self.assertFalse(self.now.exists())
