#include "orders/orders.h"

#include <utility>

#include "ledger/ledger_store.h"
#include "log/log_text.h"
#include "orders/invoice.h"
#include "standin/channel_changes.h"
#include "text/code_page.h"

namespace orders {

using ledger::DatabaseError;
using ledger::Transaction;
using standin::Channel;
using standin::ChannelChanges;
using standin::EciReply;
using standin::LogLevel;

namespace {

const char* const kInvoiceName = "INVOICE";
const char* const kStatusName = "STATUS";
const char* const kErrorName = "ERROR";

Invoice invoiceFor(ledger::Database& database, const Channel& channel)
{
    const Order order = readOrder(channel);
    Transaction transaction(database, Transaction::Kind::Deferred);
    Invoice invoice = priceOrder(database, order);
    transaction.commit();
    return invoice;
}

void putText(ChannelChanges& changes, const char* name, const std::string& text, std::int32_t ccsid)
{
    changes.put({name, standin::Change::Added, standin::kContainerChar, ccsid,
                 code_page::fromUtf8(text, ccsid), std::nullopt});
}

std::string describe(const Invoice& invoice)
{
    return "order=\"" + invoice.order.number + "\" account=\"" + invoice.order.account +
           "\" lines=" + std::to_string(invoice.lines.size()) +
           " total=" + log_text::inUnits(invoice.total()) + " " + invoice.order.currency;
}

} // namespace

Orders::Orders(const std::string& file, standin::LogSink log)
    : database_(file), log_(std::move(log))
{
    ledger::prepareLedger(database_);
    preparePriceList(database_);
}

std::optional<EciReply> Orders::call(const standin::ProgramCall& call)
{
    if (!call.request.channel) {
        log(LogLevel::Warning, "called without a channel");
        return EciReply::abend(call.request, standin::kNoChannel);
    }
    try {
        EciReply reply = EciReply::to(call.request);
        reply.channel = answer(*call.request.channel);
        return reply;
    } catch (const DatabaseError& error) {
        log(LogLevel::Error, std::string("the database has failed: ") + error.what());
        return EciReply::serverError(call.request, error.isConflict()
                                                       ? standin::kServerResourceShortage
                                                       : standin::kServerSystemError);
    }
}

Channel Orders::answer(const Channel& called)
{
    const std::int32_t ccsid = ccsidOfAnswer(called);
    ChannelChanges changes(called);
    try {
        const Invoice invoice = invoiceFor(database_, called);
        putText(changes, kInvoiceName, printInvoice(invoice), ccsid);
        putText(changes, kStatusName, printStatus(invoice), ccsid);
        changes.remove(kErrorName);
        log(LogLevel::Info, describe(invoice));
    } catch (const Refusal& refusal) {
        putText(changes, kErrorName, refusal.what(), ccsid);
        putText(changes, kStatusName, "status=REFUSED\n", ccsid);
        changes.remove(kInvoiceName);
        log(LogLevel::Info, "refused: " + log_text::printable(refusal.what()));
    }
    return changes.records();
}

void Orders::log(LogLevel level, const std::string& line) const
{
    if (log_) log_(level, "ORDERS: " + line);
}

} // namespace orders
