// The COMMAREA of the program LEDGER: 80 characters with a fixed layout.
//
//   offset  length  content
//        0       1  function: 'Q' balance, 'D' debit, 'C' credit, 'T' total of all accounts
//        1       2  result, blank on the way in
//        3       8  account
//       11      12  amount in cents, digits
//       23      13  balance behind the call: sign and 12 digits; the total for 'T'
//       36       4  number of accounts, digits; 'T' only
//       40      40  message
#ifndef LEDGER_RECORD_H
#define LEDGER_RECORD_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "standin/messages.h"

namespace ledger {

constexpr std::size_t kRecordSize = 80;
constexpr std::size_t kAccountSize = 8;

enum class Function : char { Query = 'Q', Debit = 'D', Credit = 'C', Total = 'T' };

// Results as they stand in the record.
extern const char* const kDone;              // "00"
extern const char* const kUnknownAccount;    // "01"
extern const char* const kInsufficientFunds; // "02"
extern const char* const kBadAmount;         // "03"
extern const char* const kUnknownFunction;   // "04"

// What a call asks for.
struct Question {
    std::optional<Function> function;   // empty: unknown
    std::string account;                // trailing blanks and NULs removed
    std::optional<std::int64_t> amount; // empty: not 12 digits
};
Question readQuestion(const standin::Bytes& record);

// What it is told.
struct Outcome {
    std::string result;
    std::string message;
    std::optional<std::int64_t> balance; // empty: blanks
    std::optional<std::int64_t> count;   // empty: blanks
};

// The record with the outcome put in. Throws std::range_error for a number that does not fit.
standin::Bytes writeOutcome(standin::Bytes record, const Outcome& outcome);

} // namespace ledger

#endif
