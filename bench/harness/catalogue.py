"""What is measured: rows, and the ratios between them."""

from dataclasses import dataclass

PLACEMENTS = ("one", "free", "apart")
ONE_ONLY = ("one",)

LATENCY = "p50_ns"
TAIL = "p99_ns"
RATE = "calls_per_second"
CPU = "cpu_us_per_call"
SWITCHES = "switches_per_call"
MEMORY = "kb_per_connection"
SYSTEM_CALLS = "system_calls"
INSTRUCTIONS = "instructions"


@dataclass
class Row:
    """One program with its options. A row of the library is run once for each library."""

    name: str
    options: dict
    block: str = ""  # of rows that are compared, and so run close together
    program: str = "qpxbench"
    server: str = "answering"
    placements: tuple = PLACEMENTS
    of_library: bool = False
    long: bool = False  # left out of a quick run
    most_rounds: int = 1000  # of what takes minutes
    stack_kb: int = 0  # of the threads, 0 for the usual one
    counted: bool = False  # its system calls and instructions are counted


@dataclass
class Ratio:
    """One figure of a row over that of another, with what is wanted and what is hoped for."""

    title: str
    figure: str
    of: str
    to: str
    wanted: float = None
    hoped: float = None


@dataclass
class Limit:
    """A figure of a row itself, with what is wanted and what is hoped for."""

    title: str
    figure: str
    row: str
    wanted: float
    hoped: float


def _calls(count, **options):
    return {"calls": count, **options}


def _core_rows():
    """The library beside the floor and the hand-off, by size and threads."""
    rows = []
    for size, thread_counts in ((100, (1, 2, 4, 16)), (32000, (1, 4))):
        rows.append(Row(f"floor-{size}", _calls(10000, row="floor", size=size), f"{size}-t1",
                        counted=size == 100))
        for threads in thread_counts:
            for subject in ("handoff", "handoff-best", "sync"):
                rows.append(Row(f"{subject}-{size}-t{threads}",
                                _calls(10000, row=subject, size=size, threads=threads),
                                f"{size}-t{threads}", of_library=subject == "sync",
                                counted=threads == 1))
    return rows


def _window_rows():
    rows = []
    for window in (16, 64, 256, 1024):
        for subject in ("handoff-window", "handoff-best-window", "async"):
            rows.append(Row(f"{subject}-{window}", _calls(20000, row=subject, window=window),
                            f"window-{window}", of_library=subject == "async",
                            counted=window == 256))
    return rows


def _call_rows():
    """Other calls of the library, and the stand-in as the server."""
    rows = [Row("stand-in", _calls(5000, row="sync"), "100-t1", server="stand-in"),
            Row("password", _calls(10000, row="password"), "100-t1")]
    for containers in (1, 10):
        rows.append(Row(f"channel-{containers}",
                        _calls(10000, row="channel", containers=containers), "100-t1",
                        counted=True))
    rows.append(Row("sync-100-t4-c4", _calls(10000, row="sync", threads=4, connections=4),
                    "100-t4"))
    for row in rows:
        row.of_library = True
    return rows


def _scale_rows():
    """Many connections, many outstanding requests, many containers, large channels."""
    rows = []
    for count in (1, 100, 1000, 13000):
        rows.append(Row(f"connections-{count}",
                        _calls(5000, row="connections", connections=count),
                        stack_kb=64, long=count > 1000,
                        most_rounds=3 if count > 1000 else 1000))
    for count in (1, 16, 1000, 10000):
        rows.append(Row(f"outstanding-{count}",
                        _calls(10000, row="outstanding", outstanding=count), long=count > 1000))
    for count in (1, 10, 100, 1000, 10000):
        for subject in ("container", "map"):
            rows.append(Row(f"{subject}-{count}",
                            {**_calls(100000, row=subject, containers=count), "warm-up": count},
                            server=None))
    for program in ("KEEP", "MODIFY"):
        rows.append(Row(f"channel-10000-{program.lower()}",
                        {**_calls(20, row="channel", containers=10000, program=program),
                         "warm-up": 2}, long=True))
    for megabytes, calls in ((1, 200), (10, 20), (100, 5)):
        rows.append(Row(f"bulk-{megabytes}",
                        {**_calls(calls, row="bulk", megabytes=megabytes), "warm-up": 2},
                        long=megabytes > 10))
    for row in rows:
        row.placements = ONE_ONLY
        row.of_library = row.options["row"] != "map"
    return rows


def _trace_rows():
    rows = [Row(f"trace-{level}", _calls(2000, row="sync", trace=level), of_library=True)
            for level in (0, 3, 4)]
    for subject in ("trace-line", "print-line"):
        rows.append(Row(subject, _calls(20000, row=subject), server=None, of_library=True))
    for row in rows:
        row.placements = ONE_ONLY
        if row.name != "trace-0":
            row.options["trace-file"] = "trace.txt"
    return rows


def _peer_rows():
    rows = []

    def add(peer, server, name, calls, **options):
        rows.append(Row(f"{peer}-{name}", _calls(calls, **options), name.removesuffix("-c4"),
                        program=f"qpxbench-{peer}", server=server))

    for peer, server, calls in (("hiredis", "redis", 10000), ("grpc", "grpc", 3000),
                                ("curl", "nginx", 5000), ("nats", "nats", 5000)):
        add(peer, server, "100-t1", calls, size=100)
        add(peer, server, "100-t4", calls, size=100, threads=4)
        add(peer, server, "32000-t1", calls // 2, size=32000)
        if peer in ("hiredis", "curl"):
            add(peer, server, "100-t4-c4", calls, size=100, threads=4, connections=4)
        if peer != "curl":
            add(peer, server, "window-256", 2 * calls, row="window", window=256)
    return rows


def rows():
    """All rows, block by block."""
    found = (_core_rows() + _window_rows() + _call_rows() + _peer_rows() + _trace_rows()
             + _scale_rows())
    blocks = list(dict.fromkeys(row.block for row in found))
    return sorted(found, key=lambda row: blocks.index(row.block))


def ratios():
    alone = "synchronous, 1 thread"
    found = [
        Ratio(f"{alone}, p50, to hand-off", LATENCY, "sync-100-t1", "handoff-100-t1", 0.85, 0.72),
        Ratio(f"{alone}, p50, to the best hand-off", LATENCY, "sync-100-t1",
              "handoff-best-100-t1"),
        Ratio(f"{alone}, p50, to the floor", LATENCY, "sync-100-t1", "floor-100"),
        Ratio(f"{alone}, p50, to hiredis", LATENCY, "sync-100-t1", "hiredis-100-t1", 1.4, 1.15),
        Ratio(f"{alone}, p50, to gRPC", LATENCY, "sync-100-t1", "grpc-100-t1", 0.25, 0.20),
        Ratio(f"{alone}, p50, to libcurl", LATENCY, "sync-100-t1", "curl-100-t1"),
        Ratio(f"{alone}, p50, to NATS", LATENCY, "sync-100-t1", "nats-100-t1"),
        Ratio(f"{alone}, p99, to hand-off", TAIL, "sync-100-t1", "handoff-100-t1", 0.9, 0.75),
        Ratio(f"{alone}, CPU of the client, to hand-off", CPU, "sync-100-t1", "handoff-100-t1",
              0.85, 0.67),
        Ratio(f"{alone}, context switches, to hand-off", SWITCHES, "sync-100-t1",
              "handoff-100-t1"),
    ]
    for threads, wanted, hoped in ((2, 1.0, 1.15), (4, 1.05, 1.2), (16, 1.15, 1.4)):
        for best in ("", "-best"):
            found.append(Ratio(f"{threads} threads, calls/s, to {best[1:]} hand-off".replace(
                "  ", " "), RATE, f"sync-100-t{threads}", f"handoff{best}-100-t{threads}",
                *(() if best else (wanted, hoped))))
    found += [
        Ratio("4 threads, calls/s, to hiredis with 4 connections", RATE, "sync-100-t4",
              "hiredis-100-t4-c4", 1.0, 1.15),
        Ratio("4 threads, calls/s, to gRPC", RATE, "sync-100-t4", "grpc-100-t4", 12, 15),
        Ratio("4 threads, calls/s, to libcurl with 4 connections", RATE, "sync-100-t4",
              "curl-100-t4-c4"),
        Ratio("4 threads, calls/s, to NATS", RATE, "sync-100-t4", "nats-100-t4"),
        Ratio("4 threads, calls/s, to one thread", RATE, "sync-100-t4", "sync-100-t1"),
        Ratio("4 threads, 4 connections, calls/s, to one connection", RATE, "sync-100-t4-c4",
              "sync-100-t4"),
        Ratio("32,000 bytes, p50, to hand-off", LATENCY, "sync-32000-t1", "handoff-32000-t1",
              1.1, 0.9),
        Ratio("32,000 bytes, p50, to hiredis", LATENCY, "sync-32000-t1", "hiredis-32000-t1",
              0.65, 0.55),
        Ratio("32,000 bytes, p50, to gRPC", LATENCY, "sync-32000-t1", "grpc-32000-t1"),
        Ratio("32,000 bytes, 4 threads, calls/s, to hand-off", RATE, "sync-32000-t4",
              "handoff-32000-t4", 0.95, 1.1),
    ]
    for window, wanted in ((16, ()), (64, ()), (256, (0.9, 1.2)), (1024, (0.85, 1.2))):
        found.append(Ratio(f"asynchronous, window {window}, calls/s, to hand-off", RATE,
                           f"async-{window}", f"handoff-window-{window}", *wanted))
        found.append(Ratio(f"asynchronous, window {window}, calls/s, to the best hand-off", RATE,
                           f"async-{window}", f"handoff-best-window-{window}"))
    found += [
        Ratio("asynchronous, window 256, calls/s, to NATS", RATE, "async-256",
              "nats-window-256", 2.5, 3.5),
        Ratio("asynchronous, window 256, calls/s, to gRPC", RATE, "async-256",
              "grpc-window-256", 20, 25),
        Ratio("asynchronous, window 256, calls/s, to hiredis", RATE, "async-256",
              "hiredis-window-256"),
        Ratio("asynchronous, window 16, calls/s, to 16 threads", RATE, "async-16",
              "sync-100-t16"),
        Ratio("a channel of 1 container, p50, to a COMMAREA", LATENCY, "channel-1",
              "sync-100-t1"),
        Ratio("a channel of 10 containers, p50, to a COMMAREA", LATENCY, "channel-10",
              "sync-100-t1"),
        Ratio("password, p50, to a COMMAREA", LATENCY, "password", "sync-100-t1"),
        Ratio("the stand-in as server, p50, to the answering one", LATENCY, "stand-in",
              "sync-100-t1"),
        Ratio("beside 1,000 outstanding, p50, to 16", LATENCY, "outstanding-1000",
              "outstanding-16"),
        Ratio("beside 10,000 outstanding, p50, to 16", LATENCY, "outstanding-10000",
              "outstanding-16", 1.15, 1.03),
        Ratio("the last of 1,000 connections, p50, to the only one", LATENCY,
              "connections-1000", "connections-1", 1.05, 1.02),
        Ratio("the last of 13,000 connections, p50, to the only one", LATENCY,
              "connections-13000", "connections-1", 1.2, 1.05),
    ]
    for count in (1, 10, 100, 1000, 10000):
        wanted = (4, 2.5) if count in (100, 10000) else ()
        found.append(Ratio(f"reading one container of {count:,}, to a map under a mutex", LATENCY,
                           f"container-{count}", f"map-{count}", *wanted))
    found += [
        Ratio("a reply that modifies 10,000 containers, p50, to one that does not", LATENCY,
              "channel-10000-modify", "channel-10000-keep", 5, 2),
        Ratio("a line of the trace, to the same text printed and flushed", LATENCY, "trace-line",
              "print-line", 1.4, 1.1),
        Ratio("level 3, p50, to no trace", LATENCY, "trace-3", "trace-0", 7.8, 6),
        Ratio("level 4, p50, to no trace", LATENCY, "trace-4", "trace-0", 13.6, 10.5),
    ]
    return found


def limits():
    return [
        Limit("system calls a synchronous call", SYSTEM_CALLS, "sync-100-t1", 4.5, 3.5),
        Limit("context switches a synchronous call", SWITCHES, "sync-100-t1", 2.5, 2.1),
        Limit("instructions a synchronous call, both threads", INSTRUCTIONS, "sync-100-t1",
              6000, 4500),
        Limit("resident kilobytes a connection, of 1,000", MEMORY, "connections-1000", 13, 10),
    ]
