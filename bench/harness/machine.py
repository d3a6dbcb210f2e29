"""The machine: packages that are needed, the build, the CPUs that rows run on."""

import fcntl
import os
import platform
import shutil
import subprocess

from .processes import Failed, run

TREE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
INSTALLER = os.path.join(TREE, "tools", "install-packages")

# The packages that a peer is made of, as a group of the installer.
PEERS = {"hiredis": "peer-redis", "grpc": "peer-grpc", "curl": "peer-nginx", "nats": "peer-nats"}


def install(group):
    """Installs what is missing of a group of packages."""
    done = subprocess.run([INSTALLER, group], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, check=False)
    if done.returncode != 0:
        words = (done.stderr or done.stdout).strip().splitlines()
        raise Failed(words[-1] if words else f"the packages of {group} cannot be installed")


class Build:
    """The programs of the benchmark in a folder of their own."""

    def __init__(self, bits):
        self.folder = os.path.join(TREE, "build", "bench" if bits == 32 else f"bench{bits}")
        self._bits = bits
        self._lock = None

    def lock(self):
        """Keeps other runs out of the folder until this process ends."""
        os.makedirs(self.folder, exist_ok=True)
        self._lock = open(os.path.join(self.folder, "lock"), "w", encoding="utf-8")
        try:
            fcntl.flock(self._lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError as held:
            raise Failed("another run has not ended; two would measure each other") from held

    def make(self):
        options = ["-DCMAKE_BUILD_TYPE=Release", "-DQPX_BENCH=ON", "-DQPX_GATEWAY=ON",
                   f"-DQPX_BITS={self._bits}"]
        # A folder keeps the generator that it was made with.
        if shutil.which("ninja") and not os.path.exists(f"{self.folder}/CMakeCache.txt"):
            options.append("-GNinja")
        if shutil.which("ccache"):
            options += ["-DCMAKE_C_COMPILER_LAUNCHER=ccache",
                        "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"]
        self._log("configure", ["cmake", "-S", TREE, "-B", self.folder, *options])
        self._targets("qpxbench", "qpxbench-server", "qpxgatewayd")

    def make_peer(self, peer):
        self._targets(f"qpxbench-{peer}")

    def _targets(self, *targets):
        self._log(f"build-{targets[0]}", ["cmake", "--build", self.folder, "--parallel",
                                          str(os.cpu_count()), "--target", *targets])

    def _log(self, step, command):
        path = os.path.join(self.folder, f"{step}.log")
        with open(path, "w", encoding="utf-8") as log:
            done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                  check=False)
        if done.returncode != 0:
            raise Failed(f"{step} has failed; see {path}")

    def programs(self):
        places = {"qpxgatewayd": "gateway/daemon/qpxgatewayd", "qpxbench": "bench/qpxbench",
                  "qpxbench-server": "bench/qpxbench-server"}
        for peer in PEERS:
            places[f"qpxbench-{peer}"] = f"bench/peers/qpxbench-{peer}"
        return {name: os.path.join(self.folder, place) for name, place in places.items()}

    def built_library(self):
        return os.path.realpath(os.path.join(self.folder, "src", "libqpxclient.so"))


def lay_out_library(path, folder):
    """Puts a build of the library where the loader finds it under the name that it looks for."""
    if not os.path.isfile(path):
        raise Failed(f"there is no library {path}")
    said = run(["objdump", "-p", path]).stdout
    names = [line.split()[1] for line in said.splitlines() if line.strip().startswith("SONAME")]
    if not names:
        raise Failed(f"{path} is no shared library with a name")
    shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(folder)
    shutil.copyfile(path, os.path.join(folder, names[0]))
    return folder


def cpus_of(placement):
    """The CPUs of the client and of the servers; None where there are not enough."""
    allowed = sorted(os.sched_getaffinity(0))
    if placement == "one":
        return {allowed[0]}, {allowed[0]}
    if placement == "free":
        return set(allowed), set(allowed)
    return ({allowed[0]}, {allowed[1]}) if len(allowed) > 1 else None


def description():
    model = platform.machine()
    with open("/proc/cpuinfo", encoding="utf-8") as info:
        for line in info:
            if line.startswith("model name"):
                model = line.split(":", 1)[1].strip()
                break
    return (f"{model}, {len(os.sched_getaffinity(0))} processors, "
            f"{platform.system()} {platform.release()}")
