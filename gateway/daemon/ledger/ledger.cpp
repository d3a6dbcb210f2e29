#include "ledger/ledger.h"

#include <utility>

#include "ledger/ledger_store.h"
#include "log/log_text.h"

namespace ledger {

using log_text::inUnits;
using standin::EciReply;
using standin::LogLevel;
using standin::UnitOfWork;

namespace {

const char* const kWrongLength = "ALEN"; // abend code
constexpr std::size_t kMostIdle = 8;     // connections that wait for units of work

Outcome refusal(const char* result, const std::string& message)
{
    return {result, message, std::nullopt, std::nullopt};
}

Outcome query(Database& database, const Question& question)
{
    const std::optional<std::int64_t> balance = balanceOf(database, question.account);
    if (!balance) return refusal(kUnknownAccount, "unknown account");
    return {kDone, "done", balance, std::nullopt};
}

Outcome total(Database& database)
{
    const AllAccounts all = allAccounts(database);
    return {kDone, "done", all.total, all.count};
}

Outcome posting(Database& database, const Question& question)
{
    if (!question.amount || *question.amount == 0)
        return refusal(kBadAmount, "amount not numeric or zero");
    const bool isDebit = question.function == Function::Debit;
    const std::int64_t amount = isDebit ? -*question.amount : *question.amount;
    if (const auto balance = post(database, question.account, amount))
        return {kDone, "done", balance, std::nullopt};

    const std::optional<std::int64_t> unchanged = balanceOf(database, question.account);
    if (!unchanged) return refusal(kUnknownAccount, "unknown account");
    if (isDebit) return {kInsufficientFunds, "insufficient funds", unchanged, std::nullopt};
    return {kBadAmount, "amount too large for the account", unchanged, std::nullopt};
}

std::string describe(const Question& question, const Outcome& outcome)
{
    if (!question.function) return "unknown function";
    std::string text(1, static_cast<char>(*question.function));
    if (*question.function != Function::Total) text += " account=\"" + question.account + "\"";
    const bool posts = *question.function == Function::Debit ||
                       *question.function == Function::Credit;
    if (posts && question.amount) text += " amount=" + inUnits(*question.amount);
    text += " result=" + outcome.result;
    if (outcome.balance) text += " balance=" + inUnits(*outcome.balance);
    return log_text::printable(text);
}

} // namespace

Outcome carryOut(Database& database, const Question& question)
{
    if (!question.function) return refusal(kUnknownFunction, "unknown function");
    switch (*question.function) {
    case Function::Query: return query(database, question);
    case Function::Total: return total(database);
    case Function::Debit:
    case Function::Credit: break;
    }
    return posting(database, question);
}

Ledger::Unit::Unit(std::unique_ptr<Database> theDatabase)
    : database(std::move(theDatabase)), transaction(*database, Transaction::Kind::Deferred)
{
}

Ledger::Ledger(std::string database, standin::LogSink log)
    : name_(std::move(database)), log_(std::move(log)), own_(name_)
{
    prepareLedger(own_);
}

// ------------------------------------------------------------------------------------------- calls

std::optional<EciReply> Ledger::call(const standin::ProgramCall& call)
{
    const standin::Bytes record = call.request.commareaAsSeenByProgram();
    if (record.size() != kRecordSize) {
        log(LogLevel::Warning, "COMMAREA of " + std::to_string(record.size()) + " bytes, not " +
                                   std::to_string(kRecordSize));
        return EciReply::abend(call.request, kWrongLength);
    }
    try {
        return answer(call, record);
    } catch (const DatabaseError& error) {
        return EciReply::serverError(call.request, vornRcFor(error, "call"));
    }
}

EciReply Ledger::answer(const standin::ProgramCall& call, const standin::Bytes& record)
{
    const Question question = readQuestion(record);
    Outcome outcome;
    if (call.unitOfWork) {
        outcome = carryOut(*units_.at(call.unitOfWork->token)->database, question);
    } else {
        Transaction transaction(own_, Transaction::Kind::Deferred);
        outcome = carryOut(own_, question);
        transaction.commit();
    }
    log(LogLevel::Info, describe(question, outcome));
    return EciReply::withCommarea(call.request, writeOutcome(record, outcome));
}

// ----------------------------------------------------------------------------------- units of work

std::int32_t Ledger::begin(const UnitOfWork& unitOfWork)
{
    try {
        units_[unitOfWork.token] = std::make_unique<Unit>(connection());
        return standin::kServerOk;
    } catch (const DatabaseError& error) {
        units_.erase(unitOfWork.token);
        return vornRcFor(error, "begin");
    }
}

std::int32_t Ledger::commit(const UnitOfWork& unitOfWork)
{
    try {
        units_.at(unitOfWork.token)->transaction.commit();
    } catch (const DatabaseError& error) {
        return vornRcFor(error, "commit");
    }
    endUnit(unitOfWork.token);
    return standin::kServerOk;
}

void Ledger::backout(const UnitOfWork& unitOfWork)
{
    endUnit(unitOfWork.token);
}

// One that an earlier unit of work has left, or a new one.
std::unique_ptr<Database> Ledger::connection()
{
    if (idle_.empty()) return std::make_unique<Database>(name_);
    std::unique_ptr<Database> kept = std::move(idle_.back());
    idle_.pop_back();
    return kept;
}

// The log could not be put back into the file behind what the unit has read.
void Ledger::endUnit(std::int32_t token)
{
    const auto unit = units_.find(token);
    if (unit == units_.end()) return;
    std::unique_ptr<Database> database = std::move(unit->second->database);
    units_.erase(unit);
    if (database->isSlowToOpen() && idle_.size() < kMostIdle) idle_.push_back(std::move(database));
    database.reset();
    own_.shortenLog();
}

// ------------------------------------------------------------------------------------------ errors

std::int32_t Ledger::vornRcFor(const DatabaseError& error, const std::string& what) const
{
    if (error.isConflict()) {
        log(LogLevel::Warning, what + " meets another writer: " + error.what());
        return standin::kServerResourceShortage;
    }
    log(LogLevel::Error, what + " has failed: " + error.what());
    return standin::kServerSystemError;
}

void Ledger::log(LogLevel level, const std::string& line) const
{
    if (log_) log_(level, "LEDGER: " + line);
}

} // namespace ledger
