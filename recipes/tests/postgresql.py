"""A PostgreSQL server of a test's own, which no port reaches."""

import os
import pathlib
import pwd
import signal
import subprocess
import tempfile
from typing import List

from support import Logging

PROGRAMS = pathlib.Path(os.environ.get("QPX_POSTGRESQL", ""))


class Server(Logging):
    """All that it keeps is in a folder, and so is the socket at which it listens. It ends with the
    test, however that ends; root, whom it would refuse, has it run as somebody else."""

    def __init__(self) -> None:
        self._kept = tempfile.TemporaryDirectory()  # gone, too, when the server does not start
        self.folder = pathlib.Path(self._kept.name)
        before: List[str] = ["setpriv", "--pdeathsig", "QUIT"]
        if os.geteuid() == 0:
            user = pwd.getpwnam("postgres")
            os.chown(self.folder, user.pw_uid, user.pw_gid)
            before += ["--reuid", str(user.pw_uid), "--regid", str(user.pw_gid), "--clear-groups"]
        data = self.folder / "data"
        subprocess.run([*before, PROGRAMS / "initdb", "--pgdata", data, "--username", "admin",
                        "--auth", "trust", "--encoding", "UTF8", "--locale", "C", "--no-sync",
                        "--no-instructions"], check=True, stdout=subprocess.DEVNULL)
        (data / "pg_hba.conf").write_text("local all admin trust\nlocal all all scram-sha-256\n")
        super().__init__([*before, str(PROGRAMS / "postgres"), "-D", str(data),
                          "-k", str(self.folder), "-c", "listen_addresses=", "-c", "fsync=off",
                          "-c", "autovacuum=off"])
        self.await_line("ready to accept connections")

    def psql(self, database: str, *arguments: str) -> str:
        """What psql prints: a line for each row, with bars between the columns."""
        return subprocess.run(
            [PROGRAMS / "psql", "--host", self.folder, "--username", "admin", "--no-psqlrc",
             "--quiet", "--tuples-only", "--no-align", "--set", "ON_ERROR_STOP=1", database,
             *arguments],
            check=True, stdout=subprocess.PIPE, text=True).stdout

    def end(self) -> None:
        self.stop(signal.SIGINT)
        self._kept.cleanup()
