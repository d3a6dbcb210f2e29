// The program ORDERS behind a Gateway, on a temporary ledger: invoices, refusals, code pages.

#include <gtest/gtest.h>

#include <mutex>

#include "client.h"
#include "ledger/ledger.h"
#include "orders/orders.h"
#include "standin/gateway.h"
#include "test_database.h"

using namespace standin;
using standin_test::Call;
using standin_test::channelSection;
using standin_test::Client;
using standin_test::Raw;
using standin_test::record;
using standin_test::Reply;
using standin_test::TestDatabase;
using standin_test::textOf;

namespace {

constexpr int kAdded = 1;
constexpr int kDeleted = 2;
constexpr int kModified = 3;
constexpr int kUnchanged = 4;
constexpr int kBit = 1;
constexpr int kChar = 2;

const std::string kHeader = "order=2026-0117\n"
                            "account=ACC00001\n"
                            "date=2026-11-20\n"
                            "currency=EUR\n"
                            "reference=Backstube\n";

const std::string kInvoice =
    "Invoice for order 2026-0117\n"
    "\n"
    "Account    ACC00001, Harbour Light Bakery\n"
    "Date       2026-11-20\n"
    "Reference  Backstube\n"
    "\n"
    "Pos  Article  Description                    Qty       Price   Off %         Amount\n"
    "-----------------------------------------------------------------------------------\n"
    "  1   100105  Wheat flour type 550, 25 kg     12       18.90    5.00         215.46\n"
    "  2   100205  Fresh yeast, 1 kg                3        3.45                  10.35\n"
    "  3   200310  Ball pens blue, 50               1       12.50    2.50          12.19\n"
    "-----------------------------------------------------------------------------------\n"
    "                                                                 Net         238.00\n"
    "                                                Tax 7.00 % of 225.81          15.81\n"
    "                                                Tax 19.00 % of 12.19           2.32\n"
    "                                                           Total EUR         256.13\n";

const std::string kStatus = "status=PRICED\n"
                            "order=2026-0117\n"
                            "currency=EUR\n"
                            "lines=3\n"
                            "net=238.00\n"
                            "tax=18.13\n"
                            "total=256.13\n";

std::string line(int article, int quantity, int discount)
{
    return textOf(Raw().int32(article).int32(quantity).int16(discount).int16(0));
}

const std::string kLines = line(100105, 12, 500) + line(100205, 3, 0) + line(200310, 1, 250);

class OrdersProgram : public testing::Test {
protected:
    void SetUp() override
    {
        gateway.setProgram("ORDERS", std::make_shared<orders::Orders>(database.name(), sink()));
        ASSERT_TRUE(client.shakeHands());
    }

    LogSink sink()
    {
        return [this](LogLevel, const std::string& line) {
            const std::lock_guard<std::mutex> guard(lock);
            log += line + "\n";
        };
    }

    std::string logged()
    {
        const std::lock_guard<std::mutex> guard(lock);
        return log;
    }

    Reply run(const std::vector<Bytes>& containers)
    {
        Call call;
        call.program = "ORDERS";
        call.channel = channelSection("ORDER", 819, containers);
        return client.call(1, call);
    }

    Reply order(const std::string& header, const std::string& lines, int ccsid = 819)
    {
        return run({record("ORDER.HEADER", kAdded, kChar, ccsid, header.size(), header),
                    record("ORDER.LINES", kAdded, kBit, 0, lines.size(), lines)});
    }

    // The containers of a good answer or of a refusal behind the two of the order.
    static Bytes answer(const std::string& header, const std::string& lines, int ccsid,
                        const std::vector<Bytes>& added)
    {
        std::vector<Bytes> all = {record("ORDER.HEADER", kUnchanged, kChar, ccsid, header.size()),
                                  record("ORDER.LINES", kUnchanged, kBit, 0, lines.size())};
        all.insert(all.end(), added.begin(), added.end());
        return channelSection("ORDER", 819, all);
    }

    static Bytes text(const std::string& name, const std::string& content, int change = kAdded,
                      int ccsid = 819)
    {
        return record(name, change, kChar, ccsid, content.size(), content);
    }

    void expectRefused(const std::string& problem, const std::string& header,
                       const std::string& lines = kLines)
    {
        EXPECT_EQ(answer(header, lines, 819,
                         {text("ERROR", problem), text("STATUS", "status=REFUSED\n")}),
                  order(header, lines).channel)
            << problem;
    }

    // What a good order of these lines comes to: the line of the status.
    std::string total(const std::string& lines, const std::string& header = kHeader)
    {
        const std::string reply = textOf(order(header, lines).channel);
        const std::size_t start = reply.rfind("total=");
        return start == std::string::npos ? "no total" : reply.substr(start);
    }

    static std::string with(const std::string& key, const std::string& value)
    {
        std::string header = kHeader;
        const std::size_t start = header.find(key + "=") + key.size() + 1;
        return header.replace(start, header.find('\n', start) - start, value);
    }

    const TestDatabase database;
    std::mutex lock;
    std::string log; // guarded by lock
    Gateway gateway;
    Client client{gateway.port()};
};

} // namespace

// ---------------------------------------------------------------------------------------- invoices

TEST_F(OrdersProgram, AnswersAnOrderWithAnInvoiceAndAStatus)
{
    const Reply reply = order(kHeader, kLines);
    EXPECT_EQ(0, reply.vornRc);
    EXPECT_EQ(answer(kHeader, kLines, 819, {text("INVOICE", kInvoice), text("STATUS", kStatus)}),
              reply.channel);
    EXPECT_EQ(
        textOf(answer(kHeader, kLines, 819, {text("INVOICE", kInvoice), text("STATUS", kStatus)})),
        textOf(reply.channel));
    EXPECT_EQ("ORDERS: order=\"2026-0117\" account=\"ACC00001\" lines=3 total=256.13 EUR\n",
              logged());
}

TEST_F(OrdersProgram, RoundsHalvesUp)
{
    EXPECT_EQ("total=1.85\n", total(line(100205, 1, 5000))); // 1.725 is 1.73, its tax 0.1211
    EXPECT_EQ("total=0.00\n", total(line(100205, 1, 10000)));
    EXPECT_EQ("total=50.00\n", total(line(900200, 1, 0)));
}

TEST_F(OrdersProgram, PricesInTheCurrencyOfTheOrder)
{
    EXPECT_EQ("total=17.39\n", total(line(100105, 1, 0), with("currency", "GBP"))); // 16.25 + 1.14
    EXPECT_EQ("total=22.20\n", total(line(100105, 1, 0), with("currency", "USD"))); // 20.75 + 1.45
}

TEST_F(OrdersProgram, TakesAnOrderUpToWhatAnAccountCanHoldAndNotMore)
{
    database.change("UPDATE price SET price = 99999999 WHERE article = 900200");
    const std::string almost = line(900200, 100, 0); // 99,999,999.00
    database.change("UPDATE price SET price = 99 WHERE article = 900100 AND currency = 'EUR'");
    EXPECT_EQ("total=100000000.18\n", total(almost + line(900100, 1, 0))); // with tax of 0.19
    expectRefused("the order comes to more than 99,999,999.99", kHeader,
                  almost + line(900100, 2, 0));
}

TEST_F(OrdersProgram, PricesTheLongestOrder)
{
    std::string lines;
    for (int i = 0; i < 999; ++i) lines += line(900200, 1, 0);
    EXPECT_EQ("total=49950.00\n", total(lines));
}

TEST_F(OrdersProgram, PostsNothing)
{
    const Bytes priced = answer(kHeader, kLines, 819,
                                {text("INVOICE", kInvoice), text("STATUS", kStatus)});
    EXPECT_EQ(priced, order(kHeader, kLines).channel);
    ledger::Database asked(database.name());
    ledger::Statement journal(asked, "SELECT count(*) FROM journal");
    ASSERT_TRUE(journal.step());
    EXPECT_EQ(0, journal.number(0));
}

TEST_F(OrdersProgram, PricesBesideSomebodyWhoWrites)
{
    ledger::Database writer(database.name());
    const ledger::Transaction transaction(writer, ledger::Transaction::Kind::Immediate);
    writer.run("UPDATE account SET balance = 0");
    EXPECT_EQ("total=256.13\n", total(kLines));
}

// -------------------------------------------------------------------------------------- code pages

TEST_F(OrdersProgram, AnswersInTheCodePageOfTheHeader)
{
    const std::string header = with("reference", "B\xC3\xA4"
                                                 "cker");
    const std::string lines = line(100230, 1, 0); // "Crème fraîche, 5 l"
    const std::string utf8 = textOf(order(header, lines, 1208).channel);
    EXPECT_NE(std::string::npos, utf8.find("Reference  B\xC3\xA4"
                                           "cker\n"));
    EXPECT_NE(std::string::npos, utf8.find("Cr\xC3\xA8me fra\xC3\xAE"
                                           "che, 5 l               1       22.60  "));

    const std::string latin1 = textOf(order(with("reference", "B\xE4"
                                                              "cker"),
                                            lines, 819)
                                          .channel);
    EXPECT_NE(std::string::npos, latin1.find("Reference  B\xE4"
                                             "cker\n"));
    EXPECT_NE(std::string::npos, latin1.find("Cr\xE8me fra\xEE"
                                             "che, 5 l               1       22.60  "));
}

TEST_F(OrdersProgram, AnswersInEbcdic)
{
    const Bytes header = {
        0x96, 0x99, 0x84, 0x85, 0x99, 0x7E, 0xC1, 0xF1, 0x25, // order=A1
        0x81, 0x83, 0x83, 0x96, 0xA4, 0x95, 0xA3, 0x7E,       // account=
        0xC1, 0xC3, 0xC3, 0xF0, 0xF0, 0xF0, 0xF0, 0xF1, 0x25, // ACC00001
        0x84, 0x81, 0xA3, 0x85, 0x7E, 0xF2, 0xF0, 0xF2, 0xF6,
        0x60, 0xF1, 0xF2, 0x60, // date=2026-12-
        0xF3, 0xF1, 0x25,       // 31
        0x83, 0xA4, 0x99, 0x99, 0x85, 0x95, 0x83, 0xA8, 0x7E,
        0xC5, 0xE4, 0xD9, 0x25, // currency=EUR
    };
    const Bytes status = {
        0xA2, 0xA3, 0x81, 0xA3, 0xA4, 0xA2, 0x7E, 0xD7, 0xD9,
        0xC9, 0xC3, 0xC5, 0xC4, 0x25,                         // status=PRICED
        0x96, 0x99, 0x84, 0x85, 0x99, 0x7E, 0xC1, 0xF1, 0x25, // order=A1
    };
    const std::string reply = textOf(order(textOf(header), kLines, 37).channel);
    const std::string record = textOf(Raw().padded("STATUS", 16).int32(0x01000002).int32(37));
    const std::size_t start = reply.find(record);
    ASSERT_NE(std::string::npos, start);
    EXPECT_EQ(textOf(status), reply.substr(start + record.size() + 4, status.size()));
}

TEST_F(OrdersProgram, RefusesInTheCodePageOfTheHeader)
{
    const std::string header = with("account", "\xC3\xA4");
    EXPECT_EQ(answer(header, kLines, 1208,
                     {text("ERROR", "ORDER.HEADER: account \"\xC3\xA4\" is unknown", kAdded, 1208),
                      text("STATUS", "status=REFUSED\n", kAdded, 1208)}),
              order(header, kLines, 1208).channel);
    EXPECT_EQ("ORDERS: refused: ORDER.HEADER: account \"??\" is unknown\n", logged());
}

TEST_F(OrdersProgram, RefusesAnUnknownCodePageIn819)
{
    EXPECT_EQ(answer(kHeader, kLines, 4711,
                     {text("ERROR", "ORDER.HEADER: CCSID 4711 is not known"),
                      text("STATUS", "status=REFUSED\n")}),
              order(kHeader, kLines, 4711).channel);
}

// ---------------------------------------------------------------------------------------- refusals

TEST_F(OrdersProgram, RefusesWhatTheDatabaseDoesNotHave)
{
    expectRefused("ORDER.HEADER: account \"ACC00013\" is unknown", with("account", "ACC00013"));
    expectRefused("ORDER.HEADER: account \"' OR 1=1\" is unknown", with("account", "' OR 1=1"));
    expectRefused("ORDER.HEADER: there are no prices in JPY", with("currency", "JPY"));
    expectRefused("ORDER.LINES, line 2: article 100106 is unknown", kHeader,
                  line(100105, 1, 0) + line(100106, 1, 0));
    expectRefused("ORDER.LINES, line 1: article 4294967295 is unknown", kHeader, line(-1, 1, 0));

    database.change("DELETE FROM price WHERE article = 100110 AND currency = 'EUR'");
    expectRefused("ORDER.LINES, line 1: article 100110 has no price in EUR", kHeader,
                  line(100110, 1, 0));
}

TEST_F(OrdersProgram, RefusesWhatCannotBeRead)
{
    expectRefused("ORDER.HEADER: date \"2026-02-29\" is not a day as YYYY-MM-DD",
                  with("date", "2026-02-29"));
    expectRefused("ORDER.LINES: 11 bytes are not records of 12", kHeader, std::string(11, 'x'));
    EXPECT_EQ(channelSection("ORDER", 819,
                             {text("ERROR", "there is no container ORDER.HEADER"),
                              text("STATUS", "status=REFUSED\n")}),
              run({}).channel);
}

TEST_F(OrdersProgram, AbendsWithoutAChannel)
{
    Call call;
    call.program = "ORDERS";
    call.commarea = kHeader;
    const Reply reply = client.call(1, call);
    EXPECT_EQ(-7, reply.vornRc);
    EXPECT_EQ("ACHN", reply.abendCode);
    EXPECT_EQ("ORDERS: called without a channel\n", logged());
}

TEST_F(OrdersProgram, TellsOfADatabaseThatFails)
{
    database.change("DROP TABLE price");
    const Reply reply = order(kHeader, kLines);
    EXPECT_EQ(-9, reply.vornRc);
    EXPECT_TRUE(reply.channel.empty());
    EXPECT_NE(std::string::npos, logged().find("ORDERS: the database has failed: "));
}

// -------------------------------------------------------------------- a channel that is used again

TEST_F(OrdersProgram, ReplacesTheAnswerToAnEarlierOrder)
{
    const Bytes header = text("ORDER.HEADER", kHeader);
    const Bytes lines = record("ORDER.LINES", kAdded, kBit, 0, kLines.size(), kLines);
    EXPECT_EQ(answer(kHeader, kLines, 819,
                     {text("INVOICE", kInvoice, kModified), text("STATUS", kStatus, kModified)}),
              run({header, lines, text("INVOICE", "old"), text("STATUS", "old")}).channel);
}

TEST_F(OrdersProgram, DeletesTheErrorOfAnEarlierOrder)
{
    const Bytes header = text("ORDER.HEADER", kHeader);
    const Bytes lines = record("ORDER.LINES", kAdded, kBit, 0, kLines.size(), kLines);
    EXPECT_EQ(answer(kHeader, kLines, 819,
                     {text("STATUS", kStatus, kModified), record("ERROR", kDeleted, kChar, 819, 0),
                      text("INVOICE", kInvoice)}),
              run({header, lines, text("STATUS", "old"), text("ERROR", "old")}).channel);
}

TEST_F(OrdersProgram, DeletesTheInvoiceOfAnEarlierOrder)
{
    EXPECT_EQ(channelSection("ORDER", 819,
                             {record("INVOICE", kDeleted, kChar, 819, 0),
                              text("STATUS", "status=REFUSED\n", kModified),
                              text("ERROR", "there is no container ORDER.HEADER")}),
              run({text("INVOICE", "old"), text("STATUS", "old")}).channel);
}

// ------------------------------------------------------------------------------------ the database

TEST(PriceList, IsPutIntoALedgerThatHasNone)
{
    const TestDatabase database;
    const ledger::Ledger only(database.name(), nullptr);
    ledger::Database asked(database.name());
    const orders::Orders added(database.name(), nullptr);
    ledger::Statement articles(asked, "SELECT count(*) FROM article");
    ASSERT_TRUE(articles.step());
    EXPECT_EQ(27, articles.number(0));
    ledger::Statement accounts(asked, "SELECT count(*) FROM account");
    ASSERT_TRUE(accounts.step());
    EXPECT_EQ(12, accounts.number(0));
}

TEST(PriceList, HasAPriceInEachCurrencyForEveryArticle)
{
    const TestDatabase database;
    const orders::Orders prepared(database.name(), nullptr);
    ledger::Database asked(database.name());
    ledger::Statement prices(asked,
                             "SELECT count(*) FROM article CROSS JOIN (SELECT DISTINCT currency "
                             "FROM price) AS c JOIN price ON price.article = number "
                             "AND price.currency = c.currency");
    ASSERT_TRUE(prices.step());
    EXPECT_EQ(81, prices.number(0));
}

TEST(PriceList, KeepsItsPricesFromOneStartToTheNext)
{
    const TestDatabase database;
    const orders::Orders first(database.name(), nullptr);
    database.change("UPDATE price SET price = 1 WHERE article = 100105");
    const orders::Orders second(database.name(), nullptr);
    ledger::Database asked(database.name());
    ledger::Statement price(asked, "SELECT sum(price) FROM price WHERE article = 100105");
    ASSERT_TRUE(price.step());
    EXPECT_EQ(3, price.number(0));
}

TEST(PriceList, IsNotPutIntoSomethingElse)
{
    const TestDatabase database;
    database.change("CREATE TABLE other (x INTEGER)");
    EXPECT_THROW(orders::Orders(database.name(), nullptr), ledger::DatabaseError);
}

TEST(PriceList, LeavesALedgerThatOthersKnow)
{
    const TestDatabase database;
    const orders::Orders prepared(database.name(), nullptr);
    EXPECT_NO_THROW(ledger::Ledger(database.name(), nullptr));
}
