#include "orders/price_list.h"

namespace orders {

using ledger::Database;
using ledger::Statement;
using ledger::Transaction;

namespace {

constexpr int kPreparationPatience =
    5000; // milliseconds; another daemon may be preparing the same file

bool hasPriceList(Database& database)
{
    return database.hasTable("article");
}

} // namespace

void preparePriceList(Database& database)
{
    // Nobody waits for a writer where there is nothing to write.
    if (hasPriceList(database)) return;
    database.setPatience(kPreparationPatience);
    {
        Transaction transaction(database, Transaction::Kind::Immediate);
        if (!hasPriceList(database)) database.run(kPriceListSql);
        transaction.commit();
    }
    database.setPatience(0);
}

std::optional<Article> findArticle(Database& database, std::int64_t number)
{
    Statement statement(database, "SELECT description, tax_rate FROM article WHERE number = ?1");
    statement.bind(1, number);
    if (!statement.step()) return std::nullopt;
    return Article{statement.text(0), statement.number(1)};
}

std::optional<std::int64_t> priceOf(Database& database, std::int64_t article,
                                    const std::string& currency)
{
    Statement statement(database, "SELECT price FROM price WHERE article = ?1 AND currency = ?2");
    statement.bind(1, article).bind(2, currency);
    if (!statement.step()) return std::nullopt;
    return statement.number(0);
}

bool isPriced(Database& database, const std::string& currency)
{
    Statement statement(database, "SELECT 1 FROM price WHERE currency = ?1 LIMIT 1");
    statement.bind(1, currency);
    return statement.step();
}

std::optional<std::string> holderOf(Database& database, const std::string& account)
{
    Statement statement(database, "SELECT name FROM account WHERE number = ?1");
    statement.bind(1, account);
    if (!statement.step()) return std::nullopt;
    return statement.text(0);
}

} // namespace orders
