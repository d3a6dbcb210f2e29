#include "ledger/ledger_record.h"

#include <algorithm>
#include <stdexcept>

namespace ledger {

const char* const kDone = "00";
const char* const kUnknownAccount = "01";
const char* const kInsufficientFunds = "02";
const char* const kBadAmount = "03";
const char* const kUnknownFunction = "04";

namespace {

struct Field {
    std::size_t offset;
    std::size_t length;
};

constexpr Field kFunctionField{0, 1};
constexpr Field kResultField{1, 2};
constexpr Field kAccountField{3, kAccountSize};
constexpr Field kAmountField{11, 12};
constexpr Field kBalanceField{23, 13};
constexpr Field kCountField{36, 4};
constexpr Field kMessageField{40, 40};

std::string get(const standin::Bytes& record, Field field)
{
    const auto first = record.begin() + static_cast<std::ptrdiff_t>(field.offset);
    return std::string(first, first + static_cast<std::ptrdiff_t>(field.length));
}

// Puts the text into the field, cut or filled up with blanks.
void put(standin::Bytes& record, Field field, std::string text)
{
    text.resize(field.length, ' ');
    std::copy(text.begin(), text.end(), record.begin() + static_cast<std::ptrdiff_t>(field.offset));
}

std::string digits(std::int64_t number, std::size_t width)
{
    const std::string text = std::to_string(number);
    if (text.size() > width)
        throw std::range_error(text + " has more than " + std::to_string(width) + " digits");
    return std::string(width - text.size(), '0') + text;
}

std::string signedDigits(std::int64_t number)
{
    return (number < 0 ? "-" : "+") +
           digits(number < 0 ? -number : number, kBalanceField.length - 1);
}

std::optional<Function> functionFrom(char letter)
{
    switch (letter) {
    case 'Q': return Function::Query;
    case 'D': return Function::Debit;
    case 'C': return Function::Credit;
    case 'T': return Function::Total;
    default: return std::nullopt;
    }
}

std::optional<std::int64_t> amountFrom(const std::string& text)
{
    if (text.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
    return std::stoll(text);
}

std::string withoutPadding(std::string text)
{
    const std::size_t last = text.find_last_not_of(std::string(" \0", 2));
    text.resize(last == std::string::npos ? 0 : last + 1);
    return text;
}

} // namespace

Question readQuestion(const standin::Bytes& record)
{
    Question question;
    question.function = functionFrom(get(record, kFunctionField).front());
    question.account = withoutPadding(get(record, kAccountField));
    question.amount = amountFrom(get(record, kAmountField));
    return question;
}

standin::Bytes writeOutcome(standin::Bytes record, const Outcome& outcome)
{
    put(record, kResultField, outcome.result);
    put(record, kBalanceField, outcome.balance ? signedDigits(*outcome.balance) : "");
    put(record, kCountField, outcome.count ? digits(*outcome.count, kCountField.length) : "");
    put(record, kMessageField, outcome.message);
    return record;
}

} // namespace ledger
