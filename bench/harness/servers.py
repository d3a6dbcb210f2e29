"""The servers: each on a free port of the loopback, with its files in a folder of its own."""

import os
import select
import socket
import subprocess
import time

from .processes import Failed, move_to, prepare

SECONDS_TO_START = 30


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Server:
    """A program that serves until it is ended."""

    def __init__(self, name, command, folder, port=None):
        self.name = name
        self.log = open(os.path.join(folder, "log"), "ab")
        self.process = subprocess.Popen(
            command, stdin=subprocess.DEVNULL, cwd=folder, preexec_fn=prepare(),
            stdout=subprocess.PIPE if port is None else self.log, stderr=self.log)
        try:
            self.port = self._printed_port() if port is None else self._answering(port)
        except Failed:
            self.end()
            raise

    def _printed_port(self):
        readable, _, _ = select.select([self.process.stdout], [], [], SECONDS_TO_START)
        line = self.process.stdout.readline().strip() if readable else b""
        if not line.isdigit():
            raise Failed(f"{self.name} does not start; see {self.log.name}")
        return int(line)

    def _answering(self, port):
        latest = time.monotonic() + SECONDS_TO_START
        while time.monotonic() < latest and self.process.poll() is None:
            try:
                socket.create_connection(("127.0.0.1", port), 1).close()
                return port
            except OSError:
                time.sleep(0.02)
        raise Failed(f"{self.name} does not start; see {self.log.name}")

    def move_to(self, cpus):
        if self.process.poll() is None:
            move_to(self.process.pid, cpus)

    def end(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        if self.process.stdout:
            self.process.stdout.close()
        self.log.close()


class Servers:
    """All servers that rows have asked for so far, and those that did not start."""

    def __init__(self, programs, folder):
        self._programs = programs
        self._folder = folder
        self._running = {}
        self._missing = {}
        self._cpus = None
        self._starts = {"answering": self._start_answering, "stand-in": self._start_stand_in,
                        "redis": self._start_redis, "nginx": self._start_nginx,
                        "grpc": self._start_grpc, "nats": self._start_nats}

    def port(self, name):
        """The port of a server, which is started the first time."""
        if name in self._missing:
            raise Failed(self._missing[name])
        if name not in self._running or self._running[name][0].process.poll() is not None:
            try:
                self._start(name)
            except (Failed, OSError) as error:
                self._missing[name] = str(error)
                raise Failed(str(error)) from error
        return self._running[name][0].port

    def _start(self, name):
        folder = os.path.join(self._folder, name)
        os.makedirs(folder, exist_ok=True)
        self._running[name] = self._starts[name](folder)
        self.move_to(self._cpus)

    def move_to(self, cpus):
        self._cpus = cpus
        for servers in self._running.values():
            for server in servers:
                if cpus:
                    server.move_to(cpus)

    def end(self):
        for servers in self._running.values():
            for server in reversed(servers):
                server.end()
        self._running.clear()

    # ---- How each is started; the first of several is the one that is called ----

    def _start_answering(self, folder):
        return [Server("qpxbench-server", [self._programs["qpxbench-server"]], folder)]

    def _start_stand_in(self, folder):
        port = free_port()
        return [Server("qpxgatewayd", [self._programs["qpxgatewayd"], "--port", str(port),
                                       "--log-level", "error"], folder, port)]

    def _start_redis(self, folder):
        port = free_port()
        command = ["redis-server", "--bind", "127.0.0.1", "--port", str(port), "--save", "",
                   "--appendonly", "no", "--daemonize", "no"]
        return [Server("redis-server", command, folder, port)]

    def _start_nginx(self, folder):
        port = free_port()
        _write_nginx_files(folder, port)
        command = ["nginx", "-p", folder, "-c", "nginx.conf", "-e", "error.log"]
        return [Server("nginx", command, folder, port)]

    def _start_grpc(self, folder):
        return [Server("qpxbench-grpc", [self._programs["qpxbench-grpc"], "--serve"], folder)]

    def _start_nats(self, folder):
        port = free_port()
        broker = Server("nats-server", ["nats-server", "-a", "127.0.0.1", "-p", str(port)],
                        folder, port)
        command = [self._programs["qpxbench-nats"], "--serve", "--port", str(port)]
        return [broker, Server("qpxbench-nats", command, folder)]


def _write_nginx_files(folder, port):
    for size in (100, 32000):
        with open(os.path.join(folder, str(size)), "w", encoding="ascii") as page:
            page.write("a" * size)
    os.chmod(folder, 0o755)
    with open(os.path.join(folder, "nginx.conf"), "w", encoding="ascii") as configuration:
        configuration.write(
            "daemon off;\nmaster_process off;\npid nginx.pid;\n"
            "events { worker_connections 1024; }\n"
            "http {\n"
            "    access_log off;\n    sendfile on;\n    tcp_nopush on;\n    tcp_nodelay on;\n"
            "    keepalive_requests 1000000000;\n    open_file_cache max=16;\n"
            f"    client_body_temp_path {folder}/body;\n"
            f"    proxy_temp_path {folder}/proxy;\n"
            f"    fastcgi_temp_path {folder}/fastcgi;\n"
            f"    uwsgi_temp_path {folder}/uwsgi;\n"
            f"    scgi_temp_path {folder}/scgi;\n"
            f"    server {{ listen 127.0.0.1:{port}; root {folder}; }}\n"
            "}\n")
