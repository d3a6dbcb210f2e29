"""The library in Python: a call, a unit of work that backs itself out, and asyncio.

    PYTHONPATH=python python3 examples/python_calls.py [HOST [PORT]]
"""

import asyncio
import sys

import qpxclient


class Refused(Exception):
    """The server program did not accept a posting."""


def entry(function: str, account: str, cents: int) -> bytes:
    """An entry of the server program LEDGER; see docs/gateway.md."""
    return f"{function}  {account}{cents:012}".encode("ascii").ljust(80)


def transfer(gateway: qpxclient.Connection, cents: int) -> None:
    """Whatever leaves the block by an exception undoes what was posted in it."""
    ledger = qpxclient.Call("LEDGER")
    with gateway.unit_of_work() as unit:
        for each in entry("D", "ACC00001", cents), entry("C", "ACC00002", cents):
            if unit.call(ledger, each)[1:3] != b"00":
                raise Refused(f"{cents} cents are refused")


async def ask(host: str, port: int) -> None:
    """Any number of calls at once on one connection."""
    async with qpxclient.connect_async(host, port) as gateway:
        calls = (gateway.call("ECHO", each) for each in (b"one", b"two", b"three"))
        for reply in await asyncio.gather(*calls):
            print(reply.decode("ascii"))


def main(host: str = "127.0.0.1", port: str = "5770") -> int:
    try:
        with qpxclient.connect(host, int(port), timeout=10) as gateway:
            print(gateway.call("ECHO", b"Hello, Gateway!").decode("ascii"))
            transfer(gateway, 250)
            print("posted")
        asyncio.run(ask(host, int(port)))
    except (qpxclient.Error, Refused) as error:
        print(error, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
