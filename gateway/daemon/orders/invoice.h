// What an order costs. Amounts are in the smallest unit of the order's currency; each line is
// rounded to it, and so is the tax of each rate, which is taken from the sum of its lines. Halves
// are rounded up.
#ifndef ORDERS_INVOICE_H
#define ORDERS_INVOICE_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "orders/order.h"
#include "orders/price_list.h"

namespace orders {

// The most that an order may come to, tax left out: what an account of the ledger can hold.
constexpr std::int64_t kLargestNet = 9'999'999'999;

struct InvoiceLine {
    OrderLine ordered;
    Article article;
    std::int64_t price = 0;  // of one piece
    std::int64_t amount = 0; // of all, less discount
};

struct TaxShare {
    std::int64_t net = 0;
    std::int64_t tax = 0;
};

struct Invoice {
    Order order;
    std::string holder; // of the account
    std::vector<InvoiceLine> lines;
    std::map<std::int64_t, TaxShare> shares; // by tax rate
    std::int64_t net = 0;
    std::int64_t tax = 0;

    std::int64_t total() const { return net + tax; }
};

// Throws Refusal for what the database does not have, and for an order that is too large.
Invoice priceOrder(ledger::Database& database, const Order& order);

// The invoice for people and the status for programs, in UTF-8, each line ended by a line feed.
std::string printInvoice(const Invoice& invoice);
std::string printStatus(const Invoice& invoice);

} // namespace orders

#endif
