// What tests look for in a trace: patterns, and lines taken apart.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/trace_file.h"

using namespace support;

TEST(TracePattern, MatchesTheWholeText)
{
    EXPECT_TRUE(matches("abc", "abc"));
    EXPECT_FALSE(matches("abc", "abcd"));
    EXPECT_FALSE(matches("abc", "ab"));
    EXPECT_TRUE(matches("", ""));
    EXPECT_FALSE(matches("", "a"));
}

TEST(TracePattern, TakesAddressesForPointers)
{
    EXPECT_TRUE(matches("p=<ptr>)", "p=0xffe01a2b)"));
    EXPECT_TRUE(matches("p=<ptr>)", "p=(nil))"));
    EXPECT_FALSE(matches("p=<ptr>)", "p=)"));
    EXPECT_FALSE(matches("p=<ptr>)", "p=0x)"));
    EXPECT_FALSE(matches("p=<ptr>)", "p=17)"));
}

TEST(TracePattern, TakesDecimalNumbersForNumbers)
{
    EXPECT_TRUE(matches("rc=<int> ", "rc=-109 "));
    EXPECT_TRUE(matches("rc=<int> ", "rc=0 "));
    EXPECT_FALSE(matches("rc=<int> ", "rc= "));
    EXPECT_FALSE(matches("rc=<int> ", "rc=- "));
    EXPECT_FALSE(matches("rc=<int> ", "rc=x "));
}

TEST(TracePattern, TakesHexadecimalDigits)
{
    EXPECT_TRUE(matches("<hex>:", "00Ffa9:"));
    EXPECT_FALSE(matches("<hex>:", ":"));
    EXPECT_FALSE(matches("<hex>:", "xy:"));
}

TEST(TracePattern, TakesAnythingWithinALine)
{
    EXPECT_TRUE(matches("a<any>b", "ab"));
    EXPECT_TRUE(matches("a<any>b", "a b b"));
    EXPECT_FALSE(matches("a<any>b", "a\nb"));
    EXPECT_TRUE(matches("<any>", ""));
    EXPECT_TRUE(matches("a<any>", "a b"));
}

TEST(TracePattern, IsFoundWithinAText)
{
    EXPECT_TRUE(contains("one two three", "t<any>o"));
    EXPECT_FALSE(contains("one\ntwo", "one<any>two"));
    EXPECT_EQ(2, countOf("rc=1 rc=22", "rc=<int>"));
    EXPECT_EQ(0, countOf("", "x"));
}

TEST(TraceParser, TakesALineApart)
{
    std::vector<TraceRecord> records = parseTrace(
        "15/11/26 17:21:12:045 [0x0000ABCD,0xF7C00B40] [1030] *EXC*  API.x() failed, rc=-1\n");
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ("15/11/26 17:21:12:045", records[0].stamp);
    EXPECT_EQ("0x0000ABCD", records[0].process);
    EXPECT_EQ("0xF7C00B40", records[0].thread);
    EXPECT_EQ(1030, records[0].point);
    EXPECT_EQ("*EXC*", records[0].type);
    EXPECT_EQ("API.x() failed, rc=-1", records[0].message);
    EXPECT_EQ("", records[0].body);
}

TEST(TraceParser, KeepsADumpWithItsLine)
{
    std::vector<TraceRecord> records = parseTrace(
        "*** banner ***\n"
        "15/11/26 17:21:12:045 [0x0000ABCD,0xF7C00B40] [2526] DATA   bytes\n"
        "Data truncation size=128, offset=0\n"
        "0x1: 41 : A\n"
        "15/11/26 17:21:12:046 [0x0000ABCD,0xF7C00B40] [2529] EXIT   done\n");
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("Data truncation size=128, offset=0\n0x1: 41 : A\n", records[0].body);
    EXPECT_EQ("EXIT", records[1].type);
}

TEST(TraceParser, FindsALineBehindOneWithoutALineEnd)
{
    std::vector<TraceRecord> records = parseTrace(
        "15/11/26 17:21:12:045 [0x0000ABCD,0xF7C00B40] [2036] EVENT  GTL is EMPTY"
        "15/11/26 17:21:12:046 [0x0000ABCD,0xF7C00B40] [2037] EXIT   done\n");
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("GTL is EMPTY", records[0].message);
    EXPECT_EQ(2037, records[1].point);
    EXPECT_EQ("done", records[1].message);
}

TEST(TraceParser, DemandsPointAndTypeTogether)
{
    const std::string text = "15/11/26 17:21:12:045 [0x0000ABCD,0xF7C00B40] [1080] ENTRY  in\n"
                             "15/11/26 17:21:12:045 [0x0000ABCD,0xF7C00B40] [1080] *EXC*  out\n";
    EXPECT_TRUE(wroteIn(text, 1080, "ENTRY", "in"));
    EXPECT_FALSE(wroteIn(text, 1080, "ENTRY", "out"));
    EXPECT_TRUE(wroteIn(text, 1080, "", "out"));
    EXPECT_FALSE(wroteIn(text, 1081, "", "in"));
    EXPECT_FALSE(wroteIn(text, 1080, "", "i"));
}
