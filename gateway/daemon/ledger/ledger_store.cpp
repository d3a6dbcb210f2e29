#include "ledger/ledger_store.h"

namespace ledger {

namespace {

constexpr std::int64_t kLedgerVersion = 1;
constexpr int kPreparationPatience =
    5000; // milliseconds; another daemon may be preparing the same file

bool isLedger(Database& database)
{
    return database.version() == kLedgerVersion;
}

void createTables(Database& database)
{
    Transaction transaction(database, Transaction::Kind::Immediate);
    if (isLedger(database)) return; // another daemon was faster
    if (database.version() != 0 || !database.isEmpty()) {
        throw DatabaseError("it holds something else than a ledger of version " +
                            std::to_string(kLedgerVersion));
    }
    database.run(kLedgerSql);
    transaction.commit();
}

} // namespace

void prepareLedger(Database& database)
{
    database.setPatience(kPreparationPatience);
    if (!isLedger(database)) createTables(database);
    database.letReadersIn();
    database.setPatience(0);
}

std::optional<std::int64_t> balanceOf(Database& database, const std::string& account)
{
    Statement statement(database, "SELECT balance FROM account WHERE number = ?1");
    statement.bind(1, account);
    if (!statement.step()) return std::nullopt;
    return statement.number(0);
}

AllAccounts allAccounts(Database& database)
{
    Statement statement(database, "SELECT coalesce(sum(balance), 0), count(*) FROM account");
    statement.step();
    return {statement.number(0), statement.number(1)};
}

std::optional<std::int64_t> post(Database& database, const std::string& account,
                                 std::int64_t amount)
{
    Statement update(database,
                     "UPDATE account SET balance = balance + ?2 "
                     "WHERE number = ?1 AND balance + ?2 BETWEEN 0 AND ?3 RETURNING balance");
    update.bind(1, account).bind(2, amount).bind(3, kLargestBalance);
    if (!update.step()) return std::nullopt;
    const std::int64_t balance = update.number(0);
    update.step(); // the update is complete behind its last row

    Statement journal(
        database, "INSERT INTO journal (account, kind, amount, balance) VALUES (?1, ?2, ?3, ?4)");
    journal.bind(1, account).bind(2, std::string(amount < 0 ? "D" : "C"));
    journal.bind(3, amount < 0 ? -amount : amount).bind(4, balance);
    journal.step();
    return balance;
}

} // namespace ledger
