// The 80 characters of the ledger's COMMAREA.

#include <gtest/gtest.h>

#include <stdexcept>

#include "ledger/ledger_record.h"

using namespace ledger;
using standin::Bytes;

namespace {

Bytes recordOf(const std::string& front)
{
    std::string text = front;
    text.resize(80, ' ');
    return Bytes(text.begin(), text.end());
}

std::string written(const Outcome& outcome)
{
    const Bytes record = writeOutcome(recordOf("D  ACC00001000000001234"), outcome);
    return std::string(record.begin(), record.end());
}

} // namespace

TEST(LedgerRecord, IsReadFieldByField)
{
    const Question question = readQuestion(recordOf("D  ACC00001000000001234"));
    EXPECT_EQ(Function::Debit, question.function);
    EXPECT_EQ("ACC00001", question.account);
    EXPECT_EQ(1234, question.amount);
}

TEST(LedgerRecord, KnowsFourFunctions)
{
    EXPECT_EQ(Function::Query, readQuestion(recordOf("Q")).function);
    EXPECT_EQ(Function::Debit, readQuestion(recordOf("D")).function);
    EXPECT_EQ(Function::Credit, readQuestion(recordOf("C")).function);
    EXPECT_EQ(Function::Total, readQuestion(recordOf("T")).function);
    EXPECT_FALSE(readQuestion(recordOf("q")).function);
    EXPECT_FALSE(readQuestion(recordOf(" ")).function);
}

TEST(LedgerRecord, TakesAmountsOfTwelveDigitsOnly)
{
    EXPECT_EQ(0, readQuestion(recordOf("C  ACC00001000000000000")).amount);
    EXPECT_EQ(999999999999, readQuestion(recordOf("C  ACC00001999999999999")).amount);
    EXPECT_FALSE(readQuestion(recordOf("C  ACC00001           1")).amount);
    EXPECT_FALSE(readQuestion(recordOf("C  ACC00001-00000000001")).amount);
    EXPECT_FALSE(readQuestion(recordOf("C  ACC0000100000000001X")).amount);
    EXPECT_FALSE(readQuestion(recordOf("C  ACC0000100000000001")).amount);
}

TEST(LedgerRecord, IsWrittenFieldByField)
{
    EXPECT_EQ("D00ACC00001000000001234+000001000000    done                                    ",
              written({"00", "done", 1000000, std::nullopt}));
    EXPECT_EQ("D00ACC00001000000001234+0000123456780012done                                    ",
              written({"00", "done", 12345678, 12}));
    EXPECT_EQ("D01ACC00001000000001234                 unknown account                         ",
              written({"01", "unknown account", std::nullopt, std::nullopt}));
    EXPECT_EQ("D00ACC00001000000001234-000000000005    done                                    ",
              written({"00", "done", -5, std::nullopt}));
}

TEST(LedgerRecord, RefusesNumbersThatDoNotFit)
{
    EXPECT_EQ("+999999999999", written({"00", "", 999999999999, std::nullopt}).substr(23, 13));
    EXPECT_THROW(written({"00", "", 1000000000000, std::nullopt}), std::range_error);
    EXPECT_THROW(written({"00", "", 0, 10000}), std::range_error);
}
