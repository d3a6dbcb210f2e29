"""A channel in Python: a mapping of names to bytes, to which the server adds containers.

    PYTHONPATH=python python3 examples/python_channel.py [HOST [PORT]]
"""

import struct
import sys

import qpxclient

HEADER = "order=4711\naccount=ACC00001\ndate=2026-03-02\ncurrency=EUR\n"
LINES = ((100105, 2), (100210, 4))  # articles and quantities


def main(host: str = "127.0.0.1", port: str = "5770") -> int:
    try:
        with qpxclient.connect(host, int(port)) as gateway, qpxclient.Channel("ORDER") as order:
            order.add_text("ORDER.HEADER", HEADER)
            order["ORDER.LINES"] = b"".join(struct.pack(">IIHH", *each, 0, 0) for each in LINES)
            gateway.call_channel("ORDERS", order)
            # What the program says of the order is in containers; the call succeeds either way.
            if "ERROR" in order:
                print(order.text("ERROR"), file=sys.stderr)
                return 1
            print(order.text("INVOICE"), end="")
    except qpxclient.Error as error:
        print(error, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
