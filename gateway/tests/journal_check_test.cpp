// "qpxgatewayd check": a journal held against expectations.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "client.h"
#include "daemon.h"
#include "document_example.h"
#include "journal/check.h"
#include "journal/journal_line.h"
#include "temporary_directory.h"

using standin_test::TemporaryDirectory;

namespace {

standin::CallRecord record(const std::string& program, const std::string& commarea = "")
{
    standin::CallRecord call;
    call.connection = 1;
    call.header.messageId = 3;
    call.eci.emplace();
    call.eci->callType = standin::kCallProgram;
    call.eci->program = program;
    call.eci->userId = "FRED";
    call.eci->commarea.assign(commarea.begin(), commarea.end());
    call.eci->commareaLength = static_cast<std::int32_t>(commarea.size());
    call.flowType = 3;
    call.bytes = 100;
    call.took = std::chrono::milliseconds(5);
    call.eciReply = standin::EciReply::to(*call.eci);
    return call;
}

std::string line(const std::string& program, const std::string& commarea = "")
{
    return journal::lineFor(record(program, commarea));
}

class JournalCheck : public testing::Test {
protected:
    // The exit code, and behind it what was said.
    std::string check(const std::string& calls, const std::string& expected)
    {
        std::ofstream(directory.file("calls.jsonl")) << calls;
        std::ofstream(directory.file("expect.toml")) << expected;
        std::ostringstream said;
        const int code = journal::check(
            {directory.file("calls.jsonl"), directory.file("expect.toml")}, said, said);
        return std::to_string(code) + " " + said.str();
    }

    // Whether an expectation with these lines takes the call.
    bool takes(const standin::CallRecord& call, const std::string& lines)
    {
        return check(journal::lineFor(call), "[[call]]\n" + lines + "\n")[0] == '0';
    }

    const TemporaryDirectory directory;
};

const std::string kPriceThenOrder = "[[call]]\nprogram = \"PRICE\"\ntimes = 2\n\n"
                                    "[[call]]\nprogram = \"ORDER\"\n";

} // namespace

TEST_F(JournalCheck, SaysThatAllIsAsExpected)
{
    EXPECT_EQ("0 3 calls, as expected\n",
              check(line("PRICE") + line("PRICE") + line("ORDER"), kPriceThenOrder));
    EXPECT_EQ("0 0 calls, as expected\n", check("", ""));
    EXPECT_EQ("0 1 call, as expected\n", check(line("PRICE"), "others = true\n"));
}

TEST_F(JournalCheck, NamesWhatIsMissing)
{
    EXPECT_EQ("1 missing: the [[call]] of line 1 is expected 2 calls, and there is 1\n"
              "missing: the [[call]] of line 5 is expected 1 call, and there are 0\n",
              check(line("PRICE"), kPriceThenOrder));
}

TEST_F(JournalCheck, NamesWhatIsUnexpected)
{
    EXPECT_EQ("1 unexpected: line 3: connection 1, message 3: program STOCK, user FRED, reply, "
              "code 0\n"
              "unexpected: line 5: connection 1, message 3: program PRICE, user FRED, reply, code "
              "0; there have been enough of these\n",
              check(line("PRICE") + line("PRICE") + line("STOCK") + line("ORDER") + line("PRICE"),
                    kPriceThenOrder));
    EXPECT_EQ("1 unexpected: line 4: connection 1, message 3: program PRICE, user FRED, reply, "
              "code 0; there have been enough of these\n",
              check(line("PRICE") + line("PRICE") + line("ORDER") + line("PRICE") + line("STOCK"),
                    "others = true\n" + kPriceThenOrder));
}

TEST_F(JournalCheck, NamesWhatIsOutOfOrder)
{
    const std::string calls = line("PRICE") + line("ORDER") + line("PRICE");
    EXPECT_EQ("1 out of order: line 3: connection 1, message 3: program PRICE, user FRED, reply, "
              "code 0; the [[call]] of line 1 is expected before line 2, which is that of line 5\n",
              check(calls, kPriceThenOrder));
    EXPECT_EQ("0 3 calls, as expected\n", check(calls, "order = false\n" + kPriceThenOrder));
}

TEST_F(JournalCheck, TakesTheSameCallInSeveralPlaces)
{
    const std::string twice = "[[call]]\nprogram = \"A\"\n[[call]]\nprogram = \"B\"\n"
                              "[[call]]\nprogram = \"A\"\n";
    EXPECT_EQ("0 3 calls, as expected\n", check(line("A") + line("B") + line("A"), twice));
}

TEST_F(JournalCheck, CountsFromTo)
{
    const std::string some = "[[call]]\nprogram = \"A\"\ntimes = { least = 1, most = 2 }\n";
    EXPECT_EQ('1', check("", some)[0]);
    EXPECT_EQ('0', check(line("A"), some)[0]);
    EXPECT_EQ('0', check(line("A") + line("A"), some)[0]);
    EXPECT_EQ('1', check(line("A") + line("A") + line("A"), some)[0]);
    EXPECT_EQ('1', check(line("A"), "[[call]]\nprogram = \"A\"\ntimes = 0\n")[0]);
}

TEST_F(JournalCheck, LooksAtWhatCame)
{
    const standin::CallRecord call = record("PRICE", "4711  ");
    EXPECT_TRUE(takes(call, "program = \"P*\"\nuser = \"FRED\"\ncommarea = \"4711\""));
    EXPECT_FALSE(takes(call, "user = \"ANNA\""));
    EXPECT_FALSE(takes(call, "commarea = \"4712\""));
    EXPECT_FALSE(takes(call, "type = \"verify\""));
    standin::CallRecord binary = record("PRICE", "\x01\xFF");
    EXPECT_TRUE(takes(binary, "commarea = { hex = \"01ff\" }"));
    binary.eci->channel.emplace();
    binary.eci->channel->name = "ORDER";
    binary.eci->channel->containers.push_back(
        {"NAME", standin::Change::Added, standin::kContainerChar, 37, {0xC1, 0xC2}, std::nullopt});
    EXPECT_TRUE(takes(binary, "channel = \"ORDER\"\ncontainers.NAME = \"AB\""));
    EXPECT_FALSE(takes(binary, "containers.NAME = \"ABC\""));
}

TEST_F(JournalCheck, LooksAtWhatWent)
{
    standin::CallRecord call = record("PRICE");
    call.eciReply->commarea = {'1', '.', '2', '0'};
    call.faults = {"ping"};
    EXPECT_TRUE(takes(call, "answer = \"1.20\""));
    EXPECT_FALSE(takes(call, "answer = \"1.30\""));
    EXPECT_TRUE(takes(call, "answer = { code = 0, commarea = \"1.20\", flow = \"reply\" }"));
    EXPECT_FALSE(takes(call, "answer = { code = -16 }"));
    EXPECT_FALSE(takes(call, "answer = { flow = \"error\" }"));
    EXPECT_FALSE(takes(call, "answer = { gateway = 61448 }"));
    EXPECT_FALSE(takes(call, "answer = false"));
    EXPECT_TRUE(takes(call, "faults = \"ping\""));
    EXPECT_FALSE(takes(call, "faults = []"));
    EXPECT_TRUE(takes(call, "within = \"5ms\""));
    EXPECT_FALSE(takes(call, "within = \"4999us\""));

    standin::CallRecord abend = record("PRICE");
    abend.eciReply = standin::EciReply::abend(*abend.eci, "AB1 ");
    EXPECT_TRUE(takes(abend, "answer = { abend = \"AB1\" }"));
    EXPECT_FALSE(takes(abend, "answer = { abend = \"AB2\" }"));

    standin::CallRecord unanswered = record("PRICE");
    unanswered.flowType.reset();
    unanswered.bytes = 0;
    EXPECT_TRUE(takes(unanswered, "answer = false"));
    EXPECT_FALSE(takes(unanswered, "answer = true"));
    EXPECT_FALSE(takes(unanswered, "answer = {}"));

    standin::CallRecord changed = record("PRICE");
    changed.eciReply->channel.emplace();
    changed.eciReply->channel->containers.push_back(
        {"NEW", standin::Change::Added, standin::kContainerBit, 0, {1}, std::nullopt});
    changed.eciReply->channel->containers.push_back(
        {"OLD", standin::Change::Deleted, standin::kContainerBit, 0, {}, std::nullopt});
    EXPECT_TRUE(takes(changed, "answer.containers = { NEW = { hex = \"01\" }, OLD = false }"));
    EXPECT_FALSE(takes(changed, "answer.containers = { OLD = true }"));
}

TEST_F(JournalCheck, SaysWhenTheJournalHasHoles)
{
    EXPECT_EQ("1 missing: line 2: 7 calls could not be written here\n",
              check(line("A") + journal::noteOfMissing(7), "others = true\n"));
}

TEST_F(JournalCheck, RefusesWrongExpectationsWithLineAndColumn)
{
    const std::string front = "2 qpxgatewayd check: " + directory.file("expect.toml") + ": ";
    EXPECT_EQ(front + "line 2, column 1: there is no such key here; there are program, server, "
                      "transaction, user, commarea, channel, containers, type, answer, times, "
                      "faults and within\n",
              check("", "[[call]]\nprogramm = \"A\"\n"));
    EXPECT_EQ(front + "line 1, column 1: there is no such key here; there are call, order and "
                      "others\n",
              check("", "calls = 3\n"));
    EXPECT_EQ(front + "line 2, column 8: type is none of \"program\", \"list\", \"verify\", "
                      "\"change\", \"malformed\"\n",
              check("", "[[call]]\ntype = \"eci\"\n"));
    EXPECT_EQ(front + "line 2, column 9: least is more than most\n",
              check("", "[[call]]\ntimes = { least = 3, most = 2 }\n"));
    EXPECT_EQ(front + "line 2, column 11: from here on this is no TOML\n",
              check("", "[[call]]\nprogram = PRICE\n"));
}

TEST_F(JournalCheck, RefusesWhatIsNoJournal)
{
    const std::string front = "2 qpxgatewayd check: " + directory.file("calls.jsonl") + ": ";
    EXPECT_EQ(front + "line 2 is no call\n", check(line("A") + "hello\n", ""));
    EXPECT_EQ(front + "line 1 is no call\n", check("{}\n", ""));
    EXPECT_EQ(front + "line 1 is no call\n", check("[]\n", ""));
    EXPECT_EQ(front + "line 1 is no call\n", check("\n", ""));
    EXPECT_EQ(front + "line 1 is no call\n", check(line("A").substr(0, 100), ""));
    std::ostringstream said;
    EXPECT_EQ(2, journal::check({directory.file("none"), directory.file("none")}, said, said));
    EXPECT_EQ("qpxgatewayd check: " + directory.file("none") + ": it cannot be read\n", said.str());
}

TEST_F(JournalCheck, ExplainsItself)
{
    standin_test::Daemon help({"check", "--help"});
    EXPECT_EQ(0, help.end());
    EXPECT_TRUE(help.wrote("Usage: qpxgatewayd check JOURNAL EXPECT.toml\n")) << help.output();
    standin_test::Daemon nothing({"check"});
    EXPECT_EQ(2, nothing.end());
    EXPECT_TRUE(nothing.wrote("Usage: ")) << nothing.output();
}

TEST_F(JournalCheck, OfTheDocumentIsWhatItsScriptGives)
{
    std::ofstream(directory.file("answers.toml"))
        << standin_test::documentExample("program = \"PRICE\"");
    std::ofstream(directory.file("expect.toml"))
        << standin_test::documentExample("answer = { code = -16 }");
    const std::string calls = directory.file("calls.jsonl");
    {
        standin_test::Daemon daemon(
            {"--script", directory.file("answers.toml"), "--journal", calls});
        standin_test::Client client(daemon.port());
        ASSERT_TRUE(client.shakeHands());
        standin_test::Call call;
        call.program = "PRICE";
        call.commarea = "100106" + std::string(34, ' ');
        client.call(1, call);
        call.commarea = "4711";
        client.call(2, call);
        standin_test::Daemon check({"check", calls, directory.file("expect.toml")});
        EXPECT_EQ(0, check.end()) << check.output();
        EXPECT_EQ("2 calls, as expected\n", check.output());
        client.call(3, call);
        EXPECT_EQ(0, daemon.stop());
    }
    standin_test::Daemon check({"check", calls, directory.file("expect.toml")});
    EXPECT_EQ(1, check.end());
    EXPECT_EQ("unexpected: line 3: connection 1, message 3: program PRICE, reply, code -7, abend "
              "NONE\n",
              check.output());
}
