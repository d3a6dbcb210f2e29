#include "control/tables.h"

#include <chrono>
#include <optional>

#include "database/database.h"
#include "log/log_text.h"

namespace control {

using call_json::Json;
using call_json::validText;
using ledger::Database;
using ledger::Statement;
using ledger::Transaction;

namespace {

// A list of the largest ledger would be of no use to anybody.
constexpr int kMostRows = 1000;

Json timeFrom(std::optional<std::int64_t> milliseconds)
{
    if (!milliseconds) return nullptr;
    return log_text::timeText(
        std::chrono::system_clock::time_point(std::chrono::milliseconds(*milliseconds)));
}

} // namespace

Json ledgerIn(const std::string& file)
{
    Database database(file);
    const Transaction transaction(database, Transaction::Kind::Deferred); // one moment for all
    Json json;
    Statement sum(database, "SELECT count(*), coalesce(sum(balance), 0) FROM account");
    sum.step();
    json["count"] = sum.number(0);
    json["total"] = sum.number(1);
    json["accounts"] = Json::array();
    Statement accounts(database,
                       "SELECT number, name, balance FROM account ORDER BY number LIMIT ?1");
    accounts.bind(1, kMostRows);
    while (accounts.step()) {
        json["accounts"].push_back({{"number", validText(accounts.text(0))},
                                    {"name", accounts.text(1)},
                                    {"balance", accounts.number(2)}});
    }
    json["postings"] = Json::array();
    Statement postings(database, "SELECT posting, account, kind, amount, balance, posted "
                                 "FROM journal ORDER BY posting DESC LIMIT ?1");
    postings.bind(1, kMostRows);
    while (postings.step()) {
        json["postings"].push_back({{"posting", postings.number(0)},
                                    {"account", validText(postings.text(1))},
                                    {"kind", postings.text(2) == "D" ? "debit" : "credit"},
                                    {"amount", postings.number(3)},
                                    {"balance", postings.number(4)},
                                    {"posted", postings.text(5)}});
    }
    return json;
}

Json pricesIn(const std::string& file)
{
    Database database(file);
    Json articles = Json::array();
    Statement statement(database,
                        "SELECT number, description, tax_rate, currency, price FROM article "
                        "LEFT JOIN price ON article = number ORDER BY number, currency LIMIT ?1");
    statement.bind(1, 3 * kMostRows);
    while (statement.step()) {
        const std::int64_t number = statement.number(0);
        if (articles.empty() || articles.back()["number"] != number) {
            articles.push_back({{"number", number},
                                {"description", statement.text(1)},
                                {"taxRate", statement.number(2)},
                                {"prices", Json::object()}});
        }
        const std::string currency = statement.text(3);
        if (!currency.empty()) articles.back()["prices"][currency] = statement.number(4);
    }
    return {{"articles", std::move(articles)}};
}

Json usersIn(const std::string& file)
{
    Database database(file);
    Json users = Json::array();
    Statement statement(database, "SELECT id, expiry, verified, accessed, invalid, revoked "
                                  "FROM \"user\" ORDER BY id LIMIT ?1");
    statement.bind(1, kMostRows);
    while (statement.step()) {
        users.push_back({{"id", validText(statement.text(0))},
                         {"expiry", timeFrom(statement.numberIfAny(1))},
                         {"verified", timeFrom(statement.numberIfAny(2))},
                         {"accessed", timeFrom(statement.numberIfAny(3))},
                         {"wrongPasswords", statement.number(4)},
                         {"revoked", statement.number(5) != 0}});
    }
    return {{"users", std::move(users)}};
}

Json systemsIn(const std::string& file)
{
    Database database(file);
    Json systems = Json::array();
    Statement statement(database, "SELECT system.name, description, state, code FROM system "
                                  "JOIN state ON state = state.name ORDER BY position LIMIT ?1");
    statement.bind(1, kMostRows);
    while (statement.step()) {
        systems.push_back({{"name", validText(statement.text(0))},
                           {"description", validText(statement.text(1))},
                           {"state", statement.text(2)},
                           {"code", statement.number(3)}});
    }
    return {{"systems", std::move(systems)}};
}

} // namespace control
