"""Gateways that share a ledger at PostgreSQL, behind haproxy: one is killed, the books agree."""

import collections
from typing import Dict, Set, Tuple

import qpxclient
from postgresql import Server
from support import GENEROUS, Gateway, recipe
from test_haproxy import LEDGER, HaproxyTest, Teller

POOL = "ACC00008"           # which every teller pays and is paid by in turn: it never runs dry
Transfer = Tuple[str, int]  # the account of the teller, and the amount, which is never the same


class LedgerTest(HaproxyTest):
    """Files of the recipe, with a server in the place of db.example."""

    def setUp(self) -> None:
        super().setUp()
        self.server = Server()
        self.addCleanup(self.server.end)
        self.server.psql("postgres", "--file",
                         str(self.file("database.sql", recipe("postgresql/database.sql", {}))))
        place = str(self.server.folder)
        passwords = self.file("pgpass", recipe("postgresql/pgpass", {"db.example": place}))
        passwords.chmod(0o600)
        self.passwords = f"PGPASSFILE={passwords}"
        self.options = self.file("qpxgatewayd.conf", recipe("postgresql/qpxgatewayd.conf", {
            "host=0.0.0.0": "host=127.0.0.1", "port=5770": "port=0",
            "@db.example/ledger?": f"@/ledger?host={place}&",
            "connect_timeout=5": f"connect_timeout={GENEROUS}"}))

    def sharing_gateway(self) -> Gateway:
        gateway = Gateway(["--config", str(self.options)], ["env", self.passwords])
        self.addCleanup(gateway.stop)
        return gateway

    def asked(self, sql: str) -> Dict[str, int]:
        rows = (line.split("|") for line in self.server.psql("ledger", "-c", sql).splitlines())
        return {name: int(number) for name, number in rows}

    def balances(self) -> Dict[str, int]:
        return self.asked("SELECT number, balance FROM account")


class LedgerShared(LedgerTest):
    """Two gateways, one ledger."""

    def test_what_is_posted_at_one_gateway_is_seen_at_the_other(self) -> None:
        ports = [self.sharing_gateway().port for _ in range(2)]
        first, second = (self.connect(port) for port in ports)
        unit = first.unit_of_work()
        unit.call(LEDGER, record("D  ACC00001", 10000))
        with self.assertRaises(qpxclient.Error) as busy:
            second.call(LEDGER, record("C  ACC00002", 1))
        self.assertEqual(busy.exception.code, qpxclient.Code.ECI_ERR_RESOURCE_SHORTAGE)
        unit.commit()
        self.assertIn(b"+000001240000", second.call(LEDGER, record("Q  ACC00001", 0)))

    def test_the_password_is_shown_by_nobody(self) -> None:
        gateway = self.sharing_gateway()
        gateway.await_line(r"LEDGER and ORDERS on postgresql://gateway@/ledger$")
        self.assertEqual(gateway.lines("Choose1another"), [])

    def test_the_books_agree_behind_a_gateway_that_is_killed(self) -> None:
        gateways = [self.sharing_gateway() for _ in range(2)]
        before = self.balances()
        port = self.proxy(*gateways)
        tellers = [NumberingTeller(port, number) for number in range(4)]
        self.kill_the_second_under_load(gateways, tellers)
        self.check_books(before, tellers)

    def check_books(self, before: Dict[str, int], tellers: "list[NumberingTeller]") -> None:
        after = self.balances()
        self.assertEqual(sum(after.values()), sum(before.values()))
        changes = self.asked("SELECT account, sum(CASE kind WHEN 'D' THEN -amount ELSE amount END) "
                             "FROM journal GROUP BY account")
        self.assertEqual({account: before[account] + change for account, change in changes.items()},
                         {account: after[account] for account in changes})
        self.assertEqual({account: after[account] for account in before if account not in changes},
                         {account: before[account] for account in before if account not in changes})

        done: "collections.Counter[Transfer]" = collections.Counter()
        for line in self.server.psql("ledger", "-c", "SELECT account, amount FROM journal "
                                     f"WHERE account <> '{POOL}'").splitlines():
            account, amount = line.split("|")
            done[account, int(amount)] += 1
        told = set().union(*(each.told for each in tellers))
        in_doubt = set().union(*(each.doubted for each in tellers))
        self.assertEqual([each for each, count in done.items() if count != 1], [])
        self.assertEqual(told - set(done), set())             # each that was acknowledged is there
        self.assertEqual(set(done) - told - in_doubt, set())  # and no other but those in doubt
        self.assertLessEqual(len(in_doubt), 2)


class NumberingTeller(Teller):
    """Pays another amount with each transfer, and knows which were acknowledged. One that was
    refused is tried again as it was, so that the payments to and fro take turns."""

    def __init__(self, port: int, number: int) -> None:
        super().__init__(port, number)
        self.amount = 1
        self.told: Set[Transfer] = set()
        self.doubted: Set[Transfer] = set()

    def postings(self) -> Tuple[bytes, bytes]:
        payer, payee = (POOL, self.account) if self.amount % 2 else (self.account, POOL)
        return record(f"D  {payer}", self.amount), record(f"C  {payee}", self.amount)

    def acknowledged(self) -> None:
        self.told.add((self.account, self.amount))
        self.amount += 1

    def doubt(self) -> None:
        self.doubted.add((self.account, self.amount))
        self.amount += 1


def record(front: str, amount: int) -> bytes:
    return f"{front}{amount:012}".encode("ascii").ljust(80)
