// What orders are priced from: articles and prices, and the accounts of the ledger. Nothing here
// begins or ends a transaction, except preparePriceList.
#ifndef ORDERS_PRICE_LIST_H
#define ORDERS_PRICE_LIST_H

#include <cstdint>
#include <optional>
#include <string>

#include "database/database.h"

namespace orders {

// Tables and articles, as in gateway/data/price_list.sql.
extern const char* const kPriceListSql;

// Makes the price list in a ledger that has none yet. Throws DatabaseError.
void preparePriceList(ledger::Database& database);

struct Article {
    std::string description;
    std::int64_t taxRate; // hundredths of a percent
};
std::optional<Article> findArticle(ledger::Database& database, std::int64_t number);

// The price of one piece in the currency's smallest unit.
std::optional<std::int64_t> priceOf(ledger::Database& database, std::int64_t article,
                                    const std::string& currency);

// True when at least one article has a price in the currency.
bool isPriced(ledger::Database& database, const std::string& currency);

// Who holds an account of the ledger.
std::optional<std::string> holderOf(ledger::Database& database, const std::string& account);

} // namespace orders

#endif
