"""Records a session: record.py GATEWAY_PORT PCAP [SEGMENT] is between an application and a gateway.

Writes the port to which the application is to connect, takes connections until its
standard input ends, and then writes what has travelled as a capture file, for which it makes up the
headers of IP and TCP. With SEGMENT all segments but the last before the other side speaks have so
many bytes, wherever flows end.
"""
import select
import socket
import struct
import sys
import time

CLIENT, GATEWAY = b"\x0a\x00\x00\x07", b"\x0a\x00\x00\x02"
GATEWAY_SIDE_PORT = 5770
FIN, SYN, ACK = 1, 2, 16


class Capture:
    """Packets of a capture file."""

    def __init__(self, name, segment):
        self.file = open(name, "wb")
        self.file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262144, 101))
        self.segment = segment

    def packet(self, ends, flags, sequence, acknowledged, data=b""):
        (source, source_port), (target, target_port) = ends
        tcp = struct.pack(">HHIIBBHHH", source_port, target_port, sequence & 0xFFFFFFFF,
                          acknowledged & 0xFFFFFFFF, 0x50, flags, 65535, 0, 0)
        length = 20 + len(tcp) + len(data)
        ip = struct.pack(">BBHHHBBH", 0x45, 0, length, 0, 0, 64, 6, 0) + source + target
        now = time.time()
        self.file.write(struct.pack("<IIII", int(now), int(now % 1 * 1e6), length, length))
        self.file.write(ip + tcp + data)


class Session:
    """A connection of the application, and the one to the gateway that stands for it."""

    def __init__(self, capture, number, application, gateway):
        self.capture = capture
        client = (CLIENT, 40000 + number)
        server = (GATEWAY, GATEWAY_SIDE_PORT)
        self.ways = {
            application: (gateway, (client, server)),
            gateway: (application, (server, client)),
        }
        self.sequence = {client: 1000, server: 5000}
        self.kept = (None, b"")  # what has come from one side and is not in a packet yet
        capture.packet((client, server), SYN, 999, 0)
        capture.packet((server, client), SYN | ACK, 4999, 1000)
        capture.packet((client, server), ACK, 1000, 5000)

    def carry(self, source):
        """Carries what has come on; False at the end."""
        target, ends = self.ways[source]
        try:
            data = source.recv(65536)
        except ConnectionResetError:
            data = b""
        if self.kept[0] != ends or not data or not self.capture.segment:
            self.flush()
        self.kept = (ends, self.kept[1] + data)
        if not self.capture.segment:
            self.flush()
        if data:
            try:
                target.sendall(data)
            except (BrokenPipeError, ConnectionResetError):
                pass  # it has ended by itself meanwhile, and tells so when it is read
            return True
        self.capture.packet(ends, FIN | ACK, self.sequence[ends[0]], self.sequence[ends[1]])
        return False

    def flush(self):
        """Makes packets of what has been kept."""
        ends, data = self.kept
        step = self.capture.segment or 60000
        for at in range(0, len(data), step):
            piece = data[at:at + step]
            self.capture.packet(ends, ACK, self.sequence[ends[0]], self.sequence[ends[1]], piece)
            self.sequence[ends[0]] += len(piece)
        self.kept = (None, b"")

    def close(self):
        for each in self.ways:
            each.close()


def main():
    gateway_port, name = int(sys.argv[1]), sys.argv[2]
    capture = Capture(name, int(sys.argv[3]) if len(sys.argv) > 3 else 0)
    listener = socket.create_server(("127.0.0.1", 0))
    print(listener.getsockname()[1], flush=True)
    sessions = {}
    ended = False
    count = 0
    while sessions or not ended:
        wanted = list(sessions) + [listener] + ([] if ended else [sys.stdin])
        for ready in select.select(wanted, [], [])[0]:
            if ready is sys.stdin:
                ended = sys.stdin.readline() == ""
            elif ready is listener:
                application = listener.accept()[0]
                gateway = socket.create_connection(("127.0.0.1", gateway_port))
                count += 1
                session = Session(capture, count, application, gateway)
                sessions[application] = sessions[gateway] = session
            elif ready in sessions and not sessions[ready].carry(ready):
                session = sessions[ready]
                for each in session.ways:
                    sessions.pop(each, None)
                session.close()
    capture.file.close()


main()
