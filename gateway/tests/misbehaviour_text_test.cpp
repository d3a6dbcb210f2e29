// Misbehaviours as text.

#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "standin/misbehaviour.h"

using namespace standin;

namespace {

std::string complaint(const std::string& text)
{
    try {
        parseMisbehaviour(text);
    } catch (const std::invalid_argument& refusal) {
        return refusal.what();
    }
    return "accepted";
}

// The rows of the table in the document's chapter on misbehaviours, without its two head lines.
std::vector<std::string> documentedRows()
{
    std::ifstream document(GATEWAY_DOCUMENT);
    std::string line;
    while (std::getline(document, line) && line != "## Misbehaviours") {}
    std::vector<std::string> rows;
    while (std::getline(document, line) && (rows.empty() || !line.empty())) {
        if (!line.empty()) rows.push_back(line);
    }
    if (rows.size() > 2) rows.erase(rows.begin(), rows.begin() + 2);
    return rows;
}

// The same rows as the table of faults has them: a heading in front of those that belong to it.
std::vector<std::string> rowsOfTheFaults()
{
    std::vector<std::string> rows;
    std::string_view heading;
    for (const MisbehaviourInfo& info : misbehaviours()) {
        if (info.heading != heading) rows.push_back("| | **" + std::string(info.heading) + "** |");
        heading = info.heading;
        rows.push_back("| `" + info.form + "` | " + std::string(info.sentence) + " |");
    }
    return rows;
}

std::string asText(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
}

} // namespace

TEST(ParseMisbehaviour, ReadsANameAlone)
{
    const SelectedMisbehaviour read = parseMisbehaviour("no-close-answer");
    EXPECT_EQ(Fault::NoCloseAnswer, read.misbehaviour.fault);
    EXPECT_EQ(0, read.selector.connection);
    EXPECT_EQ(0, read.selector.messageId);
    EXPECT_EQ("", read.selector.program);
    EXPECT_EQ(0, read.selector.skip);
    EXPECT_EQ(0, read.selector.times);
}

TEST(ParseMisbehaviour, ReadsEveryKindOfArgument)
{
    EXPECT_EQ(61445, parseMisbehaviour("flow-error=61445").misbehaviour.number);
    EXPECT_EQ(-9, parseMisbehaviour("refuse-handshake=-9").misbehaviour.number);
    EXPECT_EQ(7, parseMisbehaviour("pieces=7").misbehaviour.number);
    EXPECT_EQ(42, parseMisbehaviour("unknown-flow=42").misbehaviour.number);
    EXPECT_EQ(0, parseMisbehaviour("unknown-flow").misbehaviour.number);
    EXPECT_EQ(50, parseMisbehaviour("latency=50~20").misbehaviour.number);
    EXPECT_EQ(20, parseMisbehaviour("latency=50~20").misbehaviour.spread);
    EXPECT_EQ(0, parseMisbehaviour("latency=50").misbehaviour.spread);
    EXPECT_EQ("no luck=today", parseMisbehaviour("flow-exception=no luck=today").misbehaviour.text);
    EXPECT_EQ((Bytes{0x47, 0x61}), parseMisbehaviour("raw=47 61").misbehaviour.bytes);
}

TEST(ParseMisbehaviour, ReadsSelectors)
{
    const Selector selector =
        parseMisbehaviour("drop@connection:2,message:3,program:LEDGER,skip:4,times:5").selector;
    EXPECT_EQ(2, selector.connection);
    EXPECT_EQ(3, selector.messageId);
    EXPECT_EQ("LEDGER", selector.program);
    EXPECT_EQ(4, selector.skip);
    EXPECT_EQ(5, selector.times);
}

TEST(ParseMisbehaviour, ReadsTheSelectorsThatCount)
{
    EXPECT_EQ(1, parseMisbehaviour("drop@once").selector.times);
    EXPECT_EQ(0, parseMisbehaviour("drop@once").selector.skip);
    EXPECT_EQ(1, parseMisbehaviour("drop@nth:3").selector.times);
    EXPECT_EQ(2, parseMisbehaviour("drop@nth:3").selector.skip);
}

TEST(ParseMisbehaviour, SaysWhatIsWrong)
{
    EXPECT_EQ("\"explode\" is no misbehaviour; --list-misbehaviours shows them all",
              complaint("explode"));
    EXPECT_EQ("hold takes no argument", complaint("hold=3"));
    EXPECT_EQ("pieces needs an argument: pieces=N", complaint("pieces"));
    EXPECT_EQ("pieces needs a number of at least 1, not \"0\"", complaint("pieces=0"));
    EXPECT_EQ("flow-error needs a number, not \"12x\"", complaint("flow-error=12x"));
    EXPECT_EQ("flow-error needs a number, not \"\"", complaint("flow-error="));
    EXPECT_EQ("the jitter of latency needs a number of at least 1, not \"0\"",
              complaint("latency=5~0"));
    EXPECT_EQ("latency needs a number, not \"5ms\"", complaint("latency=5ms"));
    EXPECT_EQ("send-rate is of a connection, and has no message or program",
              complaint("send-rate=5@program:ECHO"));
    EXPECT_EQ("'G' is not a hexadecimal digit", complaint("raw=0G"));
    EXPECT_EQ("\"never\" is no selector; there are connection:N, message:ID, program:NAME, skip:N, "
              "times:N, nth:N and once",
              complaint("drop@never"));
    EXPECT_EQ("nth needs a number of at least 1, not \"0\"", complaint("drop@nth:0"));
    EXPECT_NE("accepted", complaint("drop@"));
    EXPECT_NE("accepted", complaint(""));
}

TEST(Misbehaviours, HaveNamesOfTheirOwnAndCanBeReadBack)
{
    std::set<std::string> names;
    for (const MisbehaviourInfo& info : misbehaviours()) {
        EXPECT_TRUE(names.emplace(info.name).second) << info.name;
        EXPECT_FALSE(info.sentence.empty()) << info.name;
        std::string text(info.name);
        if (info.form != info.name) text += info.form == "flow-exception=TEXT" ? "=oops" : "=12";
        EXPECT_EQ(info.fault, parseMisbehaviour(text).misbehaviour.fault) << text;
        EXPECT_EQ(info.name, nameOf(info.fault));
    }
    EXPECT_EQ(35U, names.size());
}

TEST(Misbehaviours, AreDocumentedWordForWord)
{
    EXPECT_EQ(asText(rowsOfTheFaults()), asText(documentedRows()));
}

TEST(Misbehaviours, HaveTheirHeadingsOnceEach)
{
    std::vector<std::string_view> headings;
    for (const MisbehaviourInfo& info : misbehaviours()) {
        if (headings.empty() || headings.back() != info.heading) headings.push_back(info.heading);
    }
    EXPECT_EQ((std::vector<std::string_view>{
                  "while a connection opens", "while it closes", "however it sends",
                  "as fast as a connection is", "on the way of any answer",
                  "instead of the answer to a request", "before the answer", "in the answer"}),
              headings);
}
