// The programs CHANECHO and CHANEDIT, with the records of their answers typed by hand.

#include <gtest/gtest.h>

#include "client.h"
#include "standin/gateway.h"

using namespace standin;
using standin_test::Call;
using standin_test::channelSection;
using standin_test::Client;
using standin_test::Raw;
using standin_test::record;
using standin_test::Reply;

namespace {

constexpr int kAdded = 1;
constexpr int kDeleted = 2;
constexpr int kModified = 3;
constexpr int kUnchanged = 4;
constexpr int kBit = 1;
constexpr int kChar = 2;

class ChannelPrograms : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(client.shakeHands()); }

    Reply run(const std::string& program, const std::vector<Bytes>& containers)
    {
        Call call;
        call.program = program;
        call.channel = channelSection("CHAN", 819, containers);
        return client.call(1, call);
    }

    // What CHANEDIT answers to TEXT ("hello", 819), BITS (01 02) and the instructions.
    Bytes edited(const std::string& instructions)
    {
        const std::size_t length = instructions.size();
        return run("CHANEDIT",
                   {record("EDITS", kAdded, kChar, 819, length, instructions), text, bits})
            .channel;
    }

    // EDITS itself unchanged, and these records for the others.
    static void expectRecords(const std::vector<Bytes>& records, const std::string& instructions,
                              const Bytes& answer)
    {
        std::vector<Bytes> all = {record("EDITS", kUnchanged, kChar, 819, instructions.size())};
        all.insert(all.end(), records.begin(), records.end());
        EXPECT_EQ(channelSection("CHAN", 819, all), answer) << instructions.substr(0, 100);
    }

    void expectEdited(const std::vector<Bytes>& records, const std::string& instructions)
    {
        expectRecords(records, instructions, edited(instructions));
    }

    void expectRefused(const std::string& message, const std::string& instructions)
    {
        expectEdited(
            {sameText, sameBits, record("ERROR", kAdded, kChar, 819, message.size(), message)},
            instructions);
    }

    const Bytes text = record("TEXT", kAdded, kChar, 819, 5, "hello");
    const Bytes bits = record("BITS", kAdded, kBit, 0, 2, "\x01\x02");
    const Bytes sameText = record("TEXT", kUnchanged, kChar, 819, 5);
    const Bytes sameBits = record("BITS", kUnchanged, kBit, 0, 2);
    Gateway gateway;
    Client client{gateway.port()};
};

} // namespace

// ---------------------------------------------------------------------------------------- CHANECHO

TEST_F(ChannelPrograms, ChanechoReturnsEveryContainerUnchanged)
{
    const Reply reply = run("CHANECHO", {text, bits});
    EXPECT_EQ(0, reply.vornRc);
    EXPECT_EQ(0, reply.commareaLength);
    const Bytes expected = {
        'C',  'H',  'A',  'N',  0,    0,    0,    0,    0, 0, 0, 0, 0, 0, 0, 0, // channel
        0x00, 0x00, 0x03, 0x33, 0x00, 0x00, 0x00, 0x02,                         // CCSID, two
        'T',  'E',  'X',  'T',  0,    0,    0,    0,    0, 0, 0, 0, 0, 0, 0, 0, // container
        0x04, 0x00, 0x00, 0x02,                         // unchanged, characters
        0x00, 0x00, 0x03, 0x33, 0x00, 0x00, 0x00, 0x05, // CCSID, length
        'B',  'I',  'T',  'S',  0,    0,    0,    0,    0, 0, 0, 0, 0, 0, 0, 0, // container
        0x04, 0x00, 0x00, 0x01,                                                 // unchanged, binary
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02,                         // CCSID, length
    };
    EXPECT_EQ(expected, reply.channel);
    EXPECT_EQ(0U, gateway.findingCount());
}

TEST_F(ChannelPrograms, ChanechoReturnsAnEmptyChannel)
{
    EXPECT_EQ(channelSection("CHAN", 819, {}), run("CHANECHO", {}).channel);
}

TEST_F(ChannelPrograms, ChanechoReturnsManyContainers)
{
    std::vector<Bytes> sent;
    std::vector<Bytes> expected;
    for (int i = 0; i < 2000; ++i) {
        const std::string name = "C" + std::to_string(i);
        sent.push_back(record(name, kAdded, kBit, 0, 3, "abc"));
        expected.push_back(record(name, kUnchanged, kBit, 0, 3));
    }
    EXPECT_EQ(channelSection("CHAN", 819, expected), run("CHANECHO", sent).channel);
}

TEST_F(ChannelPrograms, AbendWithoutAChannel)
{
    for (const char* const program : {"CHANECHO", "CHANEDIT"}) {
        Call call;
        call.program = program;
        call.commarea = "data";
        const Reply reply = client.call(1, call);
        EXPECT_EQ(-7, reply.vornRc) << program;
        EXPECT_EQ("ACHN", reply.abendCode) << program;
    }
}

// ---------------------------------------------------------------------------------------- CHANEDIT

TEST_F(ChannelPrograms, ChaneditLeavesTheOthersUnchanged)
{
    expectEdited({sameText, sameBits}, "");
}

TEST_F(ChannelPrograms, ChaneditAddsBehindTheOthersInTheOrderOfTheInstructions)
{
    expectEdited({sameText, sameBits, record("NEW.CHAR", kAdded, kChar, 1208, 10, "some  text"),
                  record("NEW.BIT", kAdded, kBit, 0, 3, std::string("\0\xFF\x7A", 3)),
                  record("EMPTY", kAdded, kChar, 37, 0), record("NOTHING", kAdded, kBit, 0, 0)},
                 "add NEW.CHAR char 1208 some  text\n"
                 "add NEW.BIT bit 00 fF 7a\n"
                 "add EMPTY char 37 \n"
                 "add NOTHING bit");
}

TEST_F(ChannelPrograms, ChaneditDeletes)
{
    expectEdited({record("TEXT", kDeleted, kChar, 819, 0), sameBits}, "delete TEXT\n");
}

TEST_F(ChannelPrograms, ChaneditReplacesDataByOtherOfTheSameLength)
{
    expectEdited({record("TEXT", kModified, kChar, 819, 5, "HELLO"),
                  record("BITS", kModified, kBit, 0, 2, "\xFF\xFE")},
                 "replace TEXT HELLO\nreplace BITS FFFE");
}

TEST_F(ChannelPrograms, ChaneditReplacesDataByOtherOfAnotherLength)
{
    expectEdited({record("TEXT", kModified, kChar, 819, 18, "longer than it was"),
                  record("BITS", kModified, kBit, 0, 0)},
                 "replace TEXT longer than it was\nreplace BITS ");
}

TEST_F(ChannelPrograms, ChaneditReversesData)
{
    expectEdited({record("TEXT", kModified, kChar, 819, 5, "olleh"),
                  record("BITS", kModified, kBit, 0, 2, "\x02\x01")},
                 "reverse TEXT\nreverse BITS");
}

TEST_F(ChannelPrograms, ChaneditCutsDataAndFillsItUp)
{
    expectEdited({record("TEXT", kModified, kChar, 819, 7, "hello  "),
                  record("BITS", kModified, kBit, 0, 4, std::string("\x01\x02\0\0", 4))},
                 "resize TEXT 7\nresize BITS 4");
    expectEdited(
        {record("TEXT", kModified, kChar, 819, 4, "hell"), record("BITS", kModified, kBit, 0, 0)},
        "resize TEXT 4\nresize BITS 0");
}

TEST_F(ChannelPrograms, ChaneditMakesALargeContainer)
{
    expectEdited({sameText, record("BITS", kModified, kBit, 0, 16777216,
                                   "\x01\x02" + std::string(16777214, '\0'))},
                 "resize BITS 16777216");
}

TEST_F(ChannelPrograms, ChaneditPassesOverEmptyLinesAndComments)
{
    expectEdited({sameText, record("BITS", kDeleted, kBit, 0, 0)},
                 "# nothing\n\n#delete TEXT\ndelete BITS\n\n");
}

TEST_F(ChannelPrograms, ChaneditTellsOfSeveralChangesOfOneContainerAsOne)
{
    expectEdited({record("TEXT", kModified, kChar, 819, 2, "ol"), sameBits},
                 "reverse TEXT\nresize TEXT 2");
    expectEdited({sameText, sameBits, record("NEW", kAdded, kChar, 819, 1, "b")},
                 "add NEW char 819 a\nreplace NEW b");
    expectEdited({sameText, sameBits}, "add NEW char 819 a\ndelete NEW");
    expectEdited({record("TEXT", kDeleted, kChar, 819, 0), sameBits},
                 "replace TEXT x\ndelete TEXT");
}

TEST_F(ChannelPrograms, ChaneditAddsAgainWhatItHasDeleted)
{
    expectEdited({record("TEXT", kDeleted, kChar, 819, 0), sameBits,
                  record("TEXT", kAdded, kBit, 0, 1, "\x0A")},
                 "delete TEXT\nadd TEXT bit 0A");
}

TEST_F(ChannelPrograms, ChaneditChangesItsOwnInstructions)
{
    EXPECT_EQ(
        channelSection("CHAN", 819, {record("EDITS", kDeleted, kChar, 819, 0), sameText, sameBits}),
        edited("delete EDITS"));
}

TEST_F(ChannelPrograms, ChaneditNamesAWrongInstruction)
{
    const std::pair<const char*, const char*> cases[] = {
        {"frob TEXT", "\"frob\" is no instruction"},
        {" delete TEXT", "\"\" is no instruction"},
        {"delete", "\"\" is no name of a container"},
        {"delete SEVENTEEN-IS-MUCH", "\"SEVENTEEN-IS-MUCH\" is no name of a container"},
        {"delete A\x01", "\"A?\" is no name of a container"},
        {"delete NONE", "there is no container \"NONE\""},
        {"delete TEXT BITS", "\"BITS\" is too much"},
        {"replace NONE x", "there is no container \"NONE\""},
        {"replace BITS 0", "\"0\" is not hexadecimal"},
        {"replace BITS 0G", "\"0G\" is not hexadecimal"},
        {"reverse NONE", "there is no container \"NONE\""},
        {"reverse TEXT x", "\"x\" is too much"},
        {"resize NONE 1", "there is no container \"NONE\""},
        {"resize TEXT", "length \"\" is not a number from 0 to 16777216"},
        {"resize TEXT -1", "length \"-1\" is not a number from 0 to 16777216"},
        {"resize TEXT 16777217", "length \"16777217\" is not a number from 0 to 16777216"},
        {"resize TEXT 99999999999999999999",
         "length \"99999999999999999999\" is not a number from 0 to 16777216"},
        {"resize TEXT 1 2", "\"2\" is too much"},
        {"add TEXT char 819 x", "there is a container \"TEXT\" already"},
        {"add NEW", "type \"\" is neither char nor bit"},
        {"add NEW text x", "type \"text\" is neither char nor bit"},
        {"add NEW char 0 x", "CCSID \"0\" is not a number from 1 to 65535"},
        {"add NEW char 65536 x", "CCSID \"65536\" is not a number from 1 to 65535"},
        {"add NEW char x", "CCSID \"x\" is not a number from 1 to 65535"},
        {"add NEW bit xyz", "\"xyz\" is not hexadecimal"},
    };
    for (const auto& [line, problem] : cases) {
        expectRefused(std::string("EDITS, line 1: ") + problem, line);
    }
}

TEST_F(ChannelPrograms, ChaneditCarriesNothingOutWhenALineIsWrong)
{
    expectRefused("EDITS, line 4: \"\" is no name of a container",
                  "delete TEXT\nreverse BITS\n\nadd");
}

TEST_F(ChannelPrograms, ChaneditShowsTheBeginningOfALongWord)
{
    expectRefused("EDITS, line 1: \"" + std::string(40, 'x') + "\" is no instruction",
                  std::string(1000, 'x'));
}

TEST_F(ChannelPrograms, ChaneditWritesNoMoreThan32MegabytesInAll)
{
    const std::string problem = ": more than 33554432 bytes in all";
    expectRefused("EDITS, line 3" + problem,
                  "resize BITS 16777216\nresize TEXT 16777216\nadd NEW char 819 x");
    expectRefused("EDITS, line 3" + problem, "resize BITS 16777216\nreverse BITS\nresize BITS 0");
    expectRefused("EDITS, line 3" + problem, "resize BITS 16777216\nresize BITS 0\nadd NEW bit 00");
}

TEST_F(ChannelPrograms, ChaneditCarriesOutAThousandInstructions)
{
    std::string reversals;
    for (int i = 0; i < 1000; ++i) reversals += "reverse TEXT\n# a comment\n";
    expectEdited({record("TEXT", kModified, kChar, 819, 5, "hello"), sameBits}, reversals);
    expectRefused("EDITS, line 2001: more than 1000 instructions", reversals + "reverse TEXT");
}

TEST_F(ChannelPrograms, ChaneditTakesTenThousandContainers)
{
    std::vector<Bytes> records;
    for (int i = 1; i <= 10000; ++i)
        records.push_back(record("C" + std::to_string(i), kAdded, kBit, 0, 0));
    const auto isRefused = [&] {
        const std::string answer = standin_test::textOf(run("CHANEDIT", records).channel);
        return answer.find("more than 10000 containers") != std::string::npos;
    };
    EXPECT_FALSE(isRefused());
    records.push_back(record("ONE.MORE", kAdded, kBit, 0, 0));
    EXPECT_TRUE(isRefused());
}

TEST_F(ChannelPrograms, ChaneditWantsInstructionsInCharacters)
{
    const std::string missing = "there is no container EDITS";
    EXPECT_EQ(
        channelSection("CHAN", 819, {sameText, record("ERROR", kAdded, kChar, 819, 27, missing)}),
        run("CHANEDIT", {text}).channel);

    const std::string binary = "EDITS is not of characters";
    EXPECT_EQ(channelSection("CHAN", 819,
                             {record("EDITS", kUnchanged, kBit, 0, 1),
                              record("ERROR", kAdded, kChar, 819, 26, binary)}),
              run("CHANEDIT", {record("EDITS", kAdded, kBit, 0, 1, "#")}).channel);
}

TEST_F(ChannelPrograms, ChaneditPutsItsErrorIntoAContainerThatIsThere)
{
    const Reply reply = run("CHANEDIT", {record("ERROR", kAdded, kBit, 0, 1, "x")});
    EXPECT_EQ(0, reply.vornRc);
    EXPECT_EQ(
        channelSection("CHAN", 819,
                       {record("ERROR", kModified, kChar, 819, 27, "there is no container EDITS")}),
        reply.channel);
}

TEST_F(ChannelPrograms, ChaneditTakesPartInAUnitOfWork)
{
    Call call;
    call.program = "CHANEDIT";
    call.mode = 1;
    call.channel = channelSection("CHAN", 819, {record("EDITS", kAdded, kChar, 819, 0)});
    const Reply reply = client.call(1, call);
    EXPECT_NE(0, reply.luwToken);
    EXPECT_EQ(channelSection("CHAN", 819, {record("EDITS", kUnchanged, kChar, 819, 0)}),
              reply.channel);
    EXPECT_EQ(1U, gateway.openUnitsOfWork());
}
