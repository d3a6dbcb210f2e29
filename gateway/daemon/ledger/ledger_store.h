// The ledger's tables: accounts and the journal of postings. Nothing here begins or ends a
// transaction, except prepareLedger.
#ifndef LEDGER_STORE_H
#define LEDGER_STORE_H

#include <cstdint>
#include <optional>
#include <string>

#include "database/database.h"

namespace ledger {

// Tables and opening accounts, as in gateway/data/ledger.sql.
extern const char* const kLedgerSql;

// The most that an account can hold, in cents.
constexpr std::int64_t kLargestBalance = 9'999'999'999;

// Makes the tables and the opening accounts when the file is new, and makes sure that it is a
// ledger when it is not. Throws DatabaseError.
void prepareLedger(Database& database);

std::optional<std::int64_t> balanceOf(Database& database, const std::string& account);

struct AllAccounts {
    std::int64_t total;
    std::int64_t count;
};
AllAccounts allAccounts(Database& database);

// Adds the amount, which is negative for a debit, to the balance and writes the journal. Returns
// the new balance; nothing when the account is unknown or the balance would leave 0 to
// kLargestBalance, and then nothing has changed.
std::optional<std::int64_t> post(Database& database, const std::string& account,
                                 std::int64_t amount);

} // namespace ledger

#endif
