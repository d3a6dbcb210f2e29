// The program LEDGER behind a Gateway: what it answers, and that its units of work are
// transactions.

#include <gtest/gtest.h>

#include <mutex>

#include "client.h"
#include "ledger/ledger.h"
#include "standin/gateway.h"
#include "test_database.h"

using namespace standin;
using standin_test::Call;
using standin_test::Client;
using standin_test::Reply;
using standin_test::TestDatabase;

namespace {

constexpr std::int64_t kOpeningTotal = 12101060; // cents, all twelve accounts

// An answer of the ledger taken apart.
struct Answer {
    int vornRc;
    int luwToken;
    std::string result;
    std::string balance;
    std::string count;
    std::string message;
};

Answer takeApart(const Reply& reply)
{
    Answer answer{reply.vornRc, reply.luwToken, "", "", "", ""};
    if (reply.commarea.size() != 80) return answer;
    answer.result = reply.commarea.substr(1, 2);
    answer.balance = reply.commarea.substr(23, 13);
    answer.count = reply.commarea.substr(36, 4);
    answer.message = reply.commarea.substr(40);
    answer.message.erase(answer.message.find_last_not_of(' ') + 1);
    return answer;
}

std::string record(const std::string& front)
{
    std::string text = front;
    text.resize(80, ' ');
    return text;
}

class LedgerProgram : public testing::Test {
protected:
    void SetUp() override
    {
        gateway.setProgram("LEDGER", std::make_shared<ledger::Ledger>(database.name(), sink()));
        ASSERT_TRUE(client.shakeHands());
        ASSERT_TRUE(second.shakeHands());
    }

    LogSink sink()
    {
        return [this](LogLevel, const std::string& line) {
            const std::lock_guard<std::mutex> guard(lock);
            lines += line + "\n";
        };
    }

    bool logged(const std::string& part)
    {
        const std::lock_guard<std::mutex> guard(lock);
        return lines.find(part) != std::string::npos;
    }

    Answer run(Client& by, const std::string& front, int mode = 0, int token = 0)
    {
        Call call;
        call.program = "LEDGER";
        call.commarea = record(front);
        call.mode = mode;
        call.token = token;
        return takeApart(by.call(1, call));
    }

    Answer run(const std::string& front, int mode = 0, int token = 0)
    {
        return run(client, front, mode, token);
    }

    std::string balance(const std::string& account) { return run("Q  " + account).balance; }

    std::int64_t total() { return std::stoll(run("T").balance); }

    std::int64_t journalSize() { return database.ask("SELECT count(*) FROM journal"); }

    const TestDatabase database;
    std::mutex lock;
    std::string lines; // of the ledger's log; guarded by lock
    Gateway gateway;
    Client client{gateway.port()};
    Client second{gateway.port()};
};

} // namespace

// ------------------------------------------------------------------------------------ the database

TEST_F(LedgerProgram, OpensWithTwelveAccounts)
{
    const Answer answer = run("T");
    EXPECT_EQ(0, answer.vornRc);
    EXPECT_EQ("00", answer.result);
    EXPECT_EQ("0012", answer.count);
    EXPECT_EQ("+000012101060", answer.balance);
    EXPECT_EQ(50000, database.ask("SELECT min(balance) FROM account"));
    EXPECT_EQ(2500000, database.ask("SELECT max(balance) FROM account"));
    EXPECT_EQ(12, database.ask("SELECT count(DISTINCT balance) FROM account"));
    EXPECT_EQ(12, database.ask("SELECT count(DISTINCT name) FROM account"));
    EXPECT_EQ(12,
              database.ask(
                  "SELECT count(*) FROM account WHERE number BETWEEN 'ACC00001' AND 'ACC00012'"));
    EXPECT_EQ(0, journalSize());
}

TEST_F(LedgerProgram, KeepsItsAccountsFromOneStartToTheNext)
{
    run("C  ACC00005000000000001");
    gateway.setProgram("LEDGER", std::make_shared<ledger::Ledger>(database.name(), sink()));
    EXPECT_EQ("+000000050001", balance("ACC00005"));
    EXPECT_EQ(1, journalSize());
}

TEST(LedgerDatabase, IsRefusedWhenItHoldsSomethingElse)
{
    const TestDatabase database;
    database.change("CREATE TABLE other (x INTEGER)");
    EXPECT_THROW(ledger::Ledger(database.name(), nullptr), ledger::DatabaseError);
}

// ------------------------------------------------------------------------------------------- calls

TEST_F(LedgerProgram, TellsABalance)
{
    const Answer answer = run("Q  ACC00001");
    EXPECT_EQ(0, answer.vornRc);
    EXPECT_EQ("00", answer.result);
    EXPECT_EQ("+000001250000", answer.balance);
    EXPECT_EQ("    ", answer.count);
    EXPECT_EQ("done", answer.message);
}

TEST_F(LedgerProgram, ReturnsTheRestOfTheRecordAsItWas)
{
    Call call;
    call.program = "LEDGER";
    call.commarea = record("D  ACC00001000000000100");
    EXPECT_EQ("D00ACC00001000000000100+000001249900    done" + std::string(36, ' '),
              client.call(1, call).commarea);
}

TEST_F(LedgerProgram, DebitsAndCredits)
{
    EXPECT_EQ("+000001249999", run("D  ACC00001000000000001").balance);
    EXPECT_EQ("+000000050001", run("C  ACC00005000000000001").balance);
    EXPECT_EQ(kOpeningTotal, total());
}

TEST_F(LedgerProgram, WritesEveryPostingIntoTheJournal)
{
    run("D  ACC00001000000000200");
    run("C  ACC00002000000000300");
    EXPECT_EQ(2, journalSize());
    EXPECT_EQ(1, database.ask("SELECT count(*) FROM journal WHERE posting = 1 AND account = "
                              "'ACC00001' AND kind = 'D' "
                              "AND amount = 200 AND balance = 1249800"));
    EXPECT_EQ(1, database.ask("SELECT count(*) FROM journal WHERE posting = 2 AND account = "
                              "'ACC00002' AND kind = 'C' "
                              "AND amount = 300 AND balance = 318775"));
}

TEST_F(LedgerProgram, RefusesAnUnknownAccount)
{
    for (const char* const front :
         {"Q  ACC00013", "D  ACC00013000000000001", "C  ACC00013000000000001", "Q  "}) {
        const Answer answer = run(front);
        EXPECT_EQ(0, answer.vornRc) << front;
        EXPECT_EQ("01", answer.result) << front;
        EXPECT_EQ("unknown account", answer.message) << front;
        EXPECT_EQ(std::string(13, ' '), answer.balance) << front;
    }
    EXPECT_EQ(0, journalSize());
}

TEST_F(LedgerProgram, DebitsDownToNothingAndNotFurther)
{
    const Answer refused = run("D  ACC00005000000050001");
    EXPECT_EQ("02", refused.result);
    EXPECT_EQ("insufficient funds", refused.message);
    EXPECT_EQ("+000000050000", refused.balance);
    EXPECT_EQ(0, journalSize());
    EXPECT_EQ("+000000050000", balance("ACC00005"));

    EXPECT_EQ("+000000000000", run("D  ACC00005000000050000").balance);
}

TEST_F(LedgerProgram, RefusesAmountsThatAreNone)
{
    for (const char* const amount :
         {"000000000000", "            ", "00000000000A", "-00000000001", "1.0000000000"}) {
        EXPECT_EQ("03", run(std::string("D  ACC00001") + amount).result) << amount;
        EXPECT_EQ("03", run(std::string("C  ACC00001") + amount).result) << amount;
    }
    EXPECT_EQ(0, journalSize());
}

TEST_F(LedgerProgram, FillsAnAccountUpAndNotFurther)
{
    EXPECT_EQ("+009999999999", run("C  ACC00005009999949999").balance);
    const Answer refused = run("C  ACC00005000000000001");
    EXPECT_EQ("03", refused.result);
    EXPECT_EQ("amount too large for the account", refused.message);
    EXPECT_EQ("+009999999999", balance("ACC00005"));
}

TEST_F(LedgerProgram, RefusesAnUnknownFunction)
{
    EXPECT_EQ("04", run("X  ACC00001000000000001").result);
    EXPECT_EQ("04", run("").result);
}

TEST_F(LedgerProgram, TakesTheAccountAsDataOnly)
{
    EXPECT_EQ("01", run("Q  ' OR 1=1").result);
    EXPECT_EQ("01", run("D  ACC0000%000000000001").result);
    EXPECT_EQ(kOpeningTotal, total());
}

TEST_F(LedgerProgram, AbendsWithACommareaOfAnotherLength)
{
    for (const std::size_t length : {std::size_t{0}, std::size_t{79}, std::size_t{81}}) {
        Call call;
        call.program = "LEDGER";
        call.commarea = std::string(length, ' ');
        const Reply reply = client.call(1, call);
        EXPECT_EQ(-7, reply.vornRc) << length;
        EXPECT_EQ("ALEN", reply.abendCode) << length;
    }
}

TEST_F(LedgerProgram, TakesACommareaOfWhichOnlyTheFrontWasSent)
{
    Call call;
    call.program = "LEDGER";
    call.commarea = record("Q  ACC00001");
    call.outbound = 11;
    call.inbound = 40;
    const Reply reply = client.call(1, call);
    EXPECT_EQ(0, reply.vornRc);
    EXPECT_EQ(40, reply.inboundLength);
    EXPECT_EQ("+000001250000", reply.commarea.substr(23, 13));
}

// ----------------------------------------------------------------------------------- units of work

TEST_F(LedgerProgram, CommitsAUnitOfWork)
{
    const Answer debit = run("D  ACC00001000000010000", 1);
    ASSERT_NE(0, debit.luwToken);
    const Answer credit = run("C  ACC00002000000010000", 1, debit.luwToken);
    EXPECT_EQ(debit.luwToken, credit.luwToken);
    EXPECT_EQ(0, run("", 2, debit.luwToken).vornRc);
    EXPECT_EQ("+000001240000", balance("ACC00001"));
    EXPECT_EQ("+000000328475", balance("ACC00002"));
    EXPECT_EQ(2, journalSize());
    EXPECT_EQ(kOpeningTotal, total());
}

TEST_F(LedgerProgram, ShowsAUnitOfWorkNothingOfWhichIsDoneYetToItselfOnly)
{
    const int token = run("D  ACC00001000000010000", 1).luwToken;
    EXPECT_EQ("+000001240000", run("Q  ACC00001", 1, token).balance);
    EXPECT_EQ("+000001250000", balance("ACC00001"));
    EXPECT_EQ(0, journalSize());
}

TEST_F(LedgerProgram, BacksAUnitOfWorkOut)
{
    const int token = run("D  ACC00001000000010000", 1).luwToken;
    EXPECT_EQ(0, run("", 4, token).vornRc);
    EXPECT_EQ("+000001250000", balance("ACC00001"));
    EXPECT_EQ(0, journalSize());
    EXPECT_EQ(-8, run("Q  ACC00001", 1, token).vornRc);
}

TEST_F(LedgerProgram, KeepsAUnitOfWorkOpenBehindARefusal)
{
    const int token = run("D  ACC00001000000010000", 1).luwToken;
    const Answer refused = run("C  ACC00099000000010000", 1, token);
    EXPECT_EQ("01", refused.result);
    EXPECT_EQ(token, refused.luwToken);
    run("", 2, token);
    EXPECT_EQ("+000001240000", balance("ACC00001"));
}

TEST_F(LedgerProgram, BacksOutWhenTheConnectionIsLost)
{
    run(second, "D  ACC00001000000010000", 1);
    second.close();
    ASSERT_TRUE(gateway.awaitClosed());
    EXPECT_EQ("+000001250000", balance("ACC00001"));
    EXPECT_EQ("00", run("D  ACC00001000000000001").result); // and the database is free again
}

TEST_F(LedgerProgram, BacksOutWhenACallInTheUnitOfWorkAbends)
{
    const int token = run("D  ACC00001000000010000", 1).luwToken;
    Call tooShort;
    tooShort.program = "LEDGER";
    tooShort.mode = 1;
    tooShort.token = token;
    EXPECT_EQ("ALEN", client.call(1, tooShort).abendCode);
    EXPECT_EQ("+000001250000", balance("ACC00001"));
}

TEST_F(LedgerProgram, AnswersASecondWriterAtOnce)
{
    const int token = run("D  ACC00001000000010000", 1).luwToken;

    const Answer single = run(second, "C  ACC00003000000000001");
    EXPECT_EQ(-16, single.vornRc);
    const Answer unit = run(second, "C  ACC00003000000000001", 1);
    EXPECT_EQ(-16, unit.vornRc);
    EXPECT_EQ(0, unit.luwToken);
    EXPECT_TRUE(logged("LEDGER: call meets another writer"));
    EXPECT_EQ(1U, gateway.openUnitsOfWork());

    EXPECT_EQ(0, run("", 2, token).vornRc);
    EXPECT_EQ("00", run(second, "C  ACC00003000000000001").result);
    EXPECT_EQ(kOpeningTotal - 10000 + 1, total());
}

TEST_F(LedgerProgram, RefusesToPostOnWhatIsNoLongerTrue)
{
    const int token = run(second, "Q  ACC00001", 1).luwToken;
    run("D  ACC00001000000010000");
    const Answer late = run(second, "D  ACC00001000000010000", 1, token);
    EXPECT_EQ(-16, late.vornRc);
    EXPECT_EQ(-8, run(second, "", 2, token).vornRc);
    EXPECT_EQ("+000001240000", balance("ACC00001"));
}

TEST_F(LedgerProgram, LetsUnitsOfWorkReadBesideAWriter)
{
    run("D  ACC00001000000010000", 1);
    const Answer answer = run(second, "T", 1);
    EXPECT_EQ(0, answer.vornRc);
    EXPECT_EQ("+000012101060", answer.balance);
}

TEST_F(LedgerProgram, LosesAndDoublesNothingInManyTransfers)
{
    for (int i = 0; i < 200; ++i) {
        Client& by = i % 2 == 0 ? client : second;
        const std::string from = "ACC000" + std::string(i % 12 < 9 ? "0" : "") +
                                 std::to_string(i % 12 + 1);
        const int token = run(by, "D  " + from + "000000000100", 1).luwToken;
        ASSERT_NE(0, token);
        ASSERT_EQ("00", run(by, "C  ACC00007000000000100", 1, token).result);
        ASSERT_EQ(0, run(by, "", i % 3 == 0 ? 4 : 2, token).vornRc);
    }
    EXPECT_EQ(kOpeningTotal, total());
    EXPECT_EQ(2 * 133, journalSize());
    EXPECT_EQ(0, database.ask(
                     "SELECT sum(CASE kind WHEN 'D' THEN -amount ELSE amount END) FROM journal"));
    EXPECT_EQ(0U, gateway.openUnitsOfWork());
}
