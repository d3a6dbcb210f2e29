#include "orders/invoice.h"

#include <cstdio>

#include "log/log_text.h"
#include "text/code_page.h"

namespace orders {

using log_text::inUnits;

namespace {

constexpr std::int64_t kWhole = 10000; // hundredths of a percent

constexpr std::size_t kPositionWidth = 3;
constexpr std::size_t kArticleWidth = 9;
constexpr std::size_t kDescriptionWidth = 28;
constexpr std::size_t kQuantityWidth = 6;
constexpr std::size_t kPriceWidth = 12;
constexpr std::size_t kDiscountWidth = 8;
constexpr std::size_t kAmountWidth = 15;
constexpr std::size_t kLineWidth = kPositionWidth + kArticleWidth + 2 + kDescriptionWidth +
                                   kQuantityWidth + kPriceWidth + kDiscountWidth + kAmountWidth;

std::int64_t shareOf(std::int64_t amount, std::int64_t hundredthsOfPercent)
{
    return (amount * hundredthsOfPercent + kWhole / 2) / kWhole;
}

InvoiceLine priceLine(ledger::Database& database, const Order& order, std::size_t number)
{
    InvoiceLine line;
    line.ordered = order.lines.at(number - 1);
    const std::string name = "article " + std::to_string(line.ordered.article);
    const std::optional<Article> article = findArticle(database, line.ordered.article);
    if (!article) refuseLine(kLinesName, number, name + " is unknown");
    const auto price = priceOf(database, line.ordered.article, order.currency);
    if (!price) refuseLine(kLinesName, number, name + " has no price in " + order.currency);
    line.article = *article;
    line.price = *price;
    line.amount = shareOf(line.price * line.ordered.quantity, kWhole - line.ordered.discount);
    return line;
}

void addUp(Invoice& invoice)
{
    for (const InvoiceLine& line : invoice.lines)
        invoice.shares[line.article.taxRate].net += line.amount;
    for (auto& [rate, share] : invoice.shares) {
        share.tax = shareOf(share.net, rate);
        invoice.tax += share.tax;
    }
}

// ---------------------------------------------------------------------------------------- printing

std::string left(const std::string& text, std::size_t width)
{
    const std::size_t count = code_page::characterCount(text);
    return count < width ? text + std::string(width - count, ' ') : text;
}

std::string right(const std::string& text, std::size_t width)
{
    const std::size_t count = code_page::characterCount(text);
    return count < width ? std::string(width - count, ' ') + text : text;
}

// "1,234,567.89"
std::string money(std::int64_t cents)
{
    std::string text = inUnits(cents);
    for (std::size_t at = text.size() - 3; at > 3; at -= 3) text.insert(at - 3, ",");
    return text;
}

std::string tableLine(const std::string& position, const std::string& article,
                      const std::string& description, const std::string& quantity,
                      const std::string& price, const std::string& discount,
                      const std::string& amount)
{
    return right(position, kPositionWidth) + right(article, kArticleWidth) + "  " +
           left(description, kDescriptionWidth) + right(quantity, kQuantityWidth) +
           right(price, kPriceWidth) + right(discount, kDiscountWidth) +
           right(amount, kAmountWidth) + "\n";
}

std::string tableLine(std::size_t position, const InvoiceLine& line)
{
    const std::int64_t discount = line.ordered.discount;
    return tableLine(std::to_string(position), std::to_string(line.ordered.article),
                     line.article.description, std::to_string(line.ordered.quantity),
                     money(line.price), discount == 0 ? "" : inUnits(discount), money(line.amount));
}

std::string sumLine(const std::string& what, std::int64_t amount)
{
    return right(what, kLineWidth - kAmountWidth) + right(money(amount), kAmountWidth) + "\n";
}

std::string taxLine(std::int64_t rate, const TaxShare& share)
{
    return sumLine("Tax " + inUnits(rate) + " % of " + money(share.net), share.tax);
}

std::string headLines(const Invoice& invoice)
{
    const Order& order = invoice.order;
    std::string text = "Invoice for order " + order.number + "\n\n";
    text += "Account    " + order.account + ", " + invoice.holder + "\n";
    text += "Date       " + order.date + "\n";
    if (!order.reference.empty()) text += "Reference  " + order.reference + "\n";
    return text;
}

} // namespace

Invoice priceOrder(ledger::Database& database, const Order& order)
{
    Invoice invoice;
    invoice.order = order;
    const std::optional<std::string> holder = holderOf(database, order.account);
    if (!holder)
        throw Refusal(std::string(kHeaderName) + ": account \"" + order.account + "\" is unknown");
    invoice.holder = *holder;
    if (!isPriced(database, order.currency))
        throw Refusal(std::string(kHeaderName) + ": there are no prices in " + order.currency);
    for (std::size_t number = 1; number <= order.lines.size(); ++number) {
        invoice.lines.push_back(priceLine(database, order, number));
        invoice.net += invoice.lines.back().amount;
    }
    if (invoice.net > kLargestNet)
        throw Refusal("the order comes to more than " + money(kLargestNet));
    addUp(invoice);
    return invoice;
}

std::string printInvoice(const Invoice& invoice)
{
    const std::string rule = std::string(kLineWidth, '-') + "\n";
    std::string text = headLines(invoice) + "\n";
    text += tableLine("Pos", "Article", "Description", "Qty", "Price", "Off %", "Amount") + rule;
    for (std::size_t i = 0; i < invoice.lines.size(); ++i)
        text += tableLine(i + 1, invoice.lines[i]);
    text += rule + sumLine("Net", invoice.net);
    for (const auto& [rate, share] : invoice.shares) text += taxLine(rate, share);
    return text + sumLine("Total " + invoice.order.currency, invoice.total());
}

std::string printStatus(const Invoice& invoice)
{
    return "status=PRICED\norder=" + invoice.order.number + "\ncurrency=" + invoice.order.currency +
           "\nlines=" + std::to_string(invoice.lines.size()) + "\nnet=" + inUnits(invoice.net) +
           "\ntax=" + inUnits(invoice.tax) + "\ntotal=" + inUnits(invoice.total()) + "\n";
}

} // namespace orders
