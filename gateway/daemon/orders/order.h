// An order as it arrives in a channel: ORDER.HEADER, characters, and ORDER.LINES, binary.
//
// ORDER.HEADER has at most 65,536 bytes: lines KEY=VALUE, ended by line feeds, with or without a
// carriage return, or by EBCDIC's new lines; empty lines are passed over. All keys but the last are
// required:
//
//   order      1 to 12 letters, digits and hyphens
//   account    an account of the ledger
//   date       YYYY-MM-DD
//   currency   three capital letters
//   reference  up to 40 characters
//
// ORDER.LINES has 1 to 999 records of 12 bytes, their numbers big-endian and unsigned:
//
//   offset  length  content
//        0       4  article
//        4       4  quantity, 1 to 9999
//        8       2  discount in hundredths of a percent, 0 to 10000
//       10       2  0
#ifndef ORDERS_ORDER_H
#define ORDERS_ORDER_H

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "standin/messages.h"

namespace orders {

extern const char* const kHeaderName; // "ORDER.HEADER"
extern const char* const kLinesName;  // "ORDER.LINES"

struct OrderLine {
    std::uint32_t article = 0;
    std::uint32_t quantity = 0;
    std::uint32_t discount = 0; // hundredths of a percent
};

// All texts are UTF-8.
struct Order {
    std::string number;
    std::string account;
    std::string date;
    std::string currency;
    std::string reference; // empty: none
    std::vector<OrderLine> lines;
};

// An order that is wrong; what() says, in UTF-8, what is wrong and where.
class Refusal : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Refuses what is wrong with line `number`, counted from 1, of a container.
[[noreturn]] void refuseLine(const char* container, std::size_t number, const std::string& problem);

// Throws Refusal. Whether account, currency and articles exist is not looked at here.
Order readOrder(const standin::Channel& channel);

// The code page in which the order is answered: that of ORDER.HEADER, 819 when it has none that is
// known.
std::int32_t ccsidOfAnswer(const standin::Channel& channel);

} // namespace orders

#endif
