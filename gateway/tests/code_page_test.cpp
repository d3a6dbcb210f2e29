// Code pages of containers, against bytes typed by hand.

#include <gtest/gtest.h>

#include "text/code_page.h"

using namespace code_page;
using standin::Bytes;

namespace {

const std::string kText = "K\xC3\xA4se 5"; // "Käse 5"

std::string complaint(const Bytes& text, int ccsid)
{
    try {
        toUtf8(text, ccsid);
    } catch (const ConversionError& error) {
        return error.what();
    }
    return "accepted";
}

struct Sample {
    int ccsid;
    Bytes text;
};

const Sample kSamples[] = {
    {819, {'K', 0xE4, 's', 'e', ' ', '5'}},
    {1208, {'K', 0xC3, 0xA4, 's', 'e', ' ', '5'}},
    {850, {'K', 0x84, 's', 'e', ' ', '5'}},
    {1252, {'K', 0xE4, 's', 'e', ' ', '5'}},
    {37, {0xD2, 0x43, 0xA2, 0x85, 0x40, 0xF5}},
    {500, {0xD2, 0x43, 0xA2, 0x85, 0x40, 0xF5}},
    {273, {0xD2, 0xC0, 0xA2, 0x85, 0x40, 0xF5}},
    {1200, {0, 'K', 0, 0xE4, 0, 's', 0, 'e', 0, ' ', 0, '5'}},
};

} // namespace

TEST(CodePage, BecomesUtf8)
{
    for (const Sample& sample : kSamples) EXPECT_EQ(kText, toUtf8(sample.text, sample.ccsid));
}

TEST(CodePage, ComesFromUtf8)
{
    for (const Sample& sample : kSamples)
        EXPECT_EQ(sample.text, fromUtf8(kText, sample.ccsid)) << sample.ccsid;
}

TEST(CodePage, KnowsWhatClientsTakeFromTheirLocale)
{
    for (const int ccsid : {813, 819, 912, 915, 916, 920, 950, 964, 970, 1089, 1383, 5050})
        EXPECT_TRUE(isKnownCcsid(ccsid)) << ccsid;
}

TEST(CodePage, DoesNotKnowOtherNumbers)
{
    for (const int ccsid : {-1, 0, 1, 818, 820, 1209, 65535, 0x7FFFFFFF})
        EXPECT_FALSE(isKnownCcsid(ccsid)) << ccsid;
}

TEST(CodePage, NamesTheFirstByteThatIsNoCharacter)
{
    EXPECT_EQ("byte 0 is no character of CCSID 1208", complaint({0xE4}, 1208));
    EXPECT_EQ("byte 2 is no character of CCSID 1208", complaint({'a', 'b', 0xFF, 'c'}, 1208));
    EXPECT_EQ("byte 1 is no character of CCSID 367", complaint({'a', 0x80}, 367));
}

TEST(CodePage, NamesACharacterThatIsCutShort)
{
    EXPECT_EQ("byte 1 is no character of CCSID 1208", complaint({'a', 0xC3}, 1208));
    EXPECT_EQ("byte 2 is no character of CCSID 1200", complaint({0, 'a', 0}, 1200));
}

TEST(CodePage, ReplacesWhatItDoesNotHave)
{
    EXPECT_EQ((Bytes{'5', ' ', '?', '!'}), fromUtf8("5 \xE2\x82\xAC!", 819)); // the euro sign
    EXPECT_EQ((Bytes{'5', ' ', 0x80, '!'}), fromUtf8("5 \xE2\x82\xAC!", 1252));
    EXPECT_EQ((Bytes{0x6F, 0x6F}), fromUtf8("\xE2\x82\xAC\xE2\x82\xAC", 37));
}

TEST(CodePage, WritesLineFeedsInEbcdic)
{
    EXPECT_EQ((Bytes{0xC1, 0x25}), fromUtf8("A\n", 37));
}

TEST(CodePage, ConvertsTextsThatAreLong)
{
    const std::string text(5000, 'a');
    EXPECT_EQ(text, toUtf8(Bytes(5000, 0x81), 37));
    EXPECT_EQ(Bytes(5000, 0x81), fromUtf8(text, 37));
}

TEST(CodePage, ConvertsNothingToNothing)
{
    EXPECT_EQ("", toUtf8({}, 819));
    EXPECT_EQ(Bytes{}, fromUtf8("", 819));
}

TEST(CharacterCount, CountsCharactersAndNotBytes)
{
    EXPECT_EQ(0U, characterCount(""));
    EXPECT_EQ(6U, characterCount(kText));
    EXPECT_EQ(2U, characterCount("\xE2\x82\xAC!"));
}
