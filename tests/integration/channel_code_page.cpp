// The local code page as LANG names it. Each case needs a process in which no call has been made.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <clocale>
#include <ostream>
#include <string>

#include "qpxclient_eci.h"
#include "support/channels.h"
#include "support/expect_rc.h"
#include "support/trace_file.h"

using namespace support;

namespace {

struct Language {
    const char* lang;
    int ccsid;
};

void PrintTo(const Language& language, std::ostream* stream)
{
    *stream << language.lang;
}

// A value of LANG that no row begins.
struct Unknown {
    const char* kind;
    const char* lang;
};

void PrintTo(const Unknown& unknown, std::ostream* stream)
{
    *stream << unknown.kind;
}

void setLang(const std::string& value)
{
    setenv("LANG", value.c_str(), 1);
}

// The code page of characters on a new channel.
int localCodePage()
{
    Channel channel;
    channel.addChar("TEXT", 0);
    return channel.info("TEXT").ccsid;
}

class ChannelLanguage : public ::testing::TestWithParam<Language> {};
class ChannelLanguageUnknown : public ::testing::TestWithParam<Unknown> {};

class ChannelLanguageFixture : public ::testing::Test {
protected:
    ChannelLanguageFixture()
    {
        unsetenv("LANG");
        unsetenv("LC_ALL");
        unsetenv("LC_CTYPE");
    }
};

using ChannelLocalCodePage = ChannelLanguageFixture;

} // namespace

// ---- The table ---------------------------------------------------------------------------------

TEST_P(ChannelLanguage, GivesTheCodePage)
{
    setLang(GetParam().lang);
    EXPECT_EQ(GetParam().ccsid, localCodePage());
}

TEST_P(ChannelLanguage, IsTold)
{
    setLang(GetParam().lang);
    Channel channel;
    TraceFile trace(4);
    channel.addChar("TEXT", 0);
    std::string ccsid = std::to_string(GetParam().ccsid);
    EXPECT_TRUE(trace.wrote(1438, "DEBUG",
                            std::string("clapi_channel.getCurrentCcsid() Mapped codeset ") +
                                GetParam().lang + " to CCSID " + ccsid));
    EXPECT_TRUE(trace.wrote(1348, "DEBUG",
                            "clapi_channel.getCurrentCcsid() default local CCSID is " + ccsid));
}

INSTANTIATE_TEST_SUITE_P(
    OfEachRow, ChannelLanguage,
    ::testing::Values(
        Language{"C", 819}, Language{"ar", 1089}, Language{"bu", 915}, Language{"co", 819},
        Language{"ca", 819}, Language{"cs", 912}, Language{"cy", 819}, Language{"da", 819},
        Language{"de", 819}, Language{"el", 813}, Language{"en", 819}, Language{"eo", 819},
        Language{"es", 819}, Language{"eu", 819}, Language{"fi", 819}, Language{"fr", 819},
        Language{"fy", 819}, Language{"ga", 819}, Language{"gd", 819}, Language{"hr", 912},
        Language{"hu", 912}, Language{"is", 819}, Language{"it", 819}, Language{"iw", 916},
        Language{"ja", 5050}, Language{"ji", 916}, Language{"kl", 819}, Language{"ko", 970},
        Language{"lv", 912}, Language{"mk", 915}, Language{"nl", 819}, Language{"no", 819},
        Language{"pl", 912}, Language{"POSIX", 819}, Language{"pt", 819}, Language{"ro", 912},
        Language{"ru", 915}, Language{"sh", 912}, Language{"sl", 912}, Language{"sk", 912},
        Language{"sr", 915}, Language{"sv", 819}, Language{"tr", 920}, Language{"zh_TW.big5", 950},
        Language{"zh_TW", 964}, Language{"zh_CN", 1383}, Language{"zh", 1383},
        Language{"big5", 950}, Language{"tchinese", 964}));

INSTANTIATE_TEST_SUITE_P(
    ByItsBeginning, ChannelLanguage,
    ::testing::Values(Language{"C.UTF-8", 819}, Language{"Czech", 819},
                      Language{"en_US.UTF-8", 819}, Language{"ja_JP.eucJP", 5050},
                      Language{"ko_KR", 970}, Language{"tr_TR", 920}, Language{"pl_PL.UTF-8", 912},
                      Language{"ru_RU.KOI8-R", 915}, Language{"skew", 912},
                      Language{"POSIXLY", 819}, Language{"zh_TW.big5hkscs", 950},
                      Language{"zh_TW.Big5", 964}, Language{"zh_TW.UTF-8", 964},
                      Language{"zh_TW.big", 964}, Language{"zh_CN.big5", 1383},
                      Language{"zh_HK", 1383}, Language{"zh_HK.big5", 1383}, Language{"zho", 1383},
                      Language{"big5.x", 950}, Language{"tchinese_x", 964}));

// ---- Values without a row ----------------------------------------------------------------------

TEST_P(ChannelLanguageUnknown, Gives819)
{
    setLang(GetParam().lang);
    EXPECT_EQ(819, localCodePage());
}

TEST_P(ChannelLanguageUnknown, IsToldAsAFailure)
{
    setLang(GetParam().lang);
    Channel channel;
    TraceFile trace(1);
    channel.addChar("TEXT", 0);
    EXPECT_TRUE(traceReads(trace, {std::string("1439 *EXC* clapi_channel.getCurrentCcsid() Unable "
                                               "to find a CCSID for codeset ") +
                                   GetParam().lang}));
}

INSTANTIATE_TEST_SUITE_P(
    OfEachKind, ChannelLanguageUnknown,
    ::testing::Values(Unknown{"CapitalLetters", "EN_us"}, Unknown{"CapitalFirst", "Zh"},
                      Unknown{"SmallC", "c"}, Unknown{"SmallPosix", "posix"},
                      Unknown{"PartOfARow", "z"}, Unknown{"PartOfPosix", "POSI"},
                      Unknown{"PartOfBig5", "big"}, Unknown{"PartOfTchinese", "tchines"},
                      Unknown{"CapitalBig5", "Big5"}, Unknown{"OtherLanguage", "bg_BG"},
                      Unknown{"NewerLanguageCode", "he_IL"}, Unknown{"BlankBefore", " en"},
                      Unknown{"CodeSetOnly", ".big5"}, Unknown{"PercentSigns", "%s%n%d"},
                      Unknown{"Digit", "1"}));

TEST_F(ChannelLocalCodePage, OfAValueWithPercentSignsIsToldAsItIs)
{
    setLang("ar_%s%n%d");
    TraceFile trace(4);
    settleCodePage();
    EXPECT_TRUE(trace.wrote(
        1438, "DEBUG", "clapi_channel.getCurrentCcsid() Mapped codeset ar_%s%n%d to CCSID 1089"));
}

TEST_F(ChannelLocalCodePage, OfAVeryLongValueIsToldAndNotCut)
{
    std::string value(5000, 'x');
    setLang(value);
    Channel channel;
    TraceFile trace(1);
    channel.addChar("TEXT", 0);
    EXPECT_EQ(819, int(channel.info("TEXT").ccsid));
    EXPECT_TRUE(
        trace.wrote(1439, "*EXC*",
                    "clapi_channel.getCurrentCcsid() Unable to find a CCSID for codeset " + value));
}

// ---- No value ----------------------------------------------------------------------------------

TEST_F(ChannelLocalCodePage, Is819WithoutLang)
{
    EXPECT_EQ(819, localCodePage());
}

TEST_F(ChannelLocalCodePage, Is819WithAnEmptyLang)
{
    setLang("");
    EXPECT_EQ(819, localCodePage());
}

TEST_F(ChannelLocalCodePage, TellsThatLangIsNotSet)
{
    Channel channel;
    TraceFile trace(4);
    EXPECT_RC(-50, ECI_createContainer(nullptr, "X", ECI_BIT, 0, nullptr, 0));
    EXPECT_TRUE(traceReads(
        trace, {"<int> ENTRY API.ECI_createContainer(chanTok=(nil), name=X, type=1, ccsid=0, "
                "data=(nil), dataLength=0)",
                "1435 ENTRY clapi_channel.getCurrentCcsid",
                "1437 DEBUG clapi_channel.getCurrentCcsid() LANG environment variable not set, "
                "defaulting to CCSID 819",
                "1348 DEBUG clapi_channel.getCurrentCcsid() default local CCSID is 819",
                "1441 EXIT clapi_channel.getCurrentCcsid() rc=0",
                "<int> *EXC* API.ECI_createContainer() chanTok is NULL",
                "<int> EXIT API.ECI_createContainer() rc=-50 (ECI_ERR_INVALID_CHANNEL)"}));
}

TEST_F(ChannelLocalCodePage, TellsThatLangIsEmpty)
{
    setLang("");
    TraceFile trace(4);
    settleCodePage();
    EXPECT_TRUE(trace.wrote(1437, "DEBUG",
                            "clapi_channel.getCurrentCcsid() LANG environment variable not set, "
                            "defaulting to CCSID 819"));
}

TEST_F(ChannelLocalCodePage, OfAnUnknownLanguageIsToldInOrder)
{
    setLang("EN_us");
    TraceFile trace(4);
    settleCodePage();
    EXPECT_TRUE(traceReads(
        trace,
        {"<int> ENTRY API.ECI_createContainer(chanTok=(nil), name=X, type=1, ccsid=0, "
         "data=<ptr>, dataLength=0)",
         "1435 ENTRY clapi_channel.getCurrentCcsid",
         "1439 *EXC* clapi_channel.getCurrentCcsid() Unable to find a CCSID for codeset EN_us",
         "1348 DEBUG clapi_channel.getCurrentCcsid() default local CCSID is 819",
         "1441 EXIT clapi_channel.getCurrentCcsid() rc=0",
         "<int> *EXC* API.ECI_createContainer() chanTok is NULL",
         "<int> EXIT API.ECI_createContainer() rc=-50 (ECI_ERR_INVALID_CHANNEL)"}));
}

// ---- Once for the process ----------------------------------------------------------------------

TEST_F(ChannelLocalCodePage, StaysWhenLangChanges)
{
    setLang("tr_TR");
    EXPECT_EQ(920, localCodePage());
    setLang("ja_JP");
    EXPECT_EQ(920, localCodePage());
    unsetenv("LANG");
    EXPECT_EQ(920, localCodePage());
}

TEST_F(ChannelLocalCodePage, StaysWhenLangIsSetLater)
{
    EXPECT_EQ(819, localCodePage());
    setLang("ja_JP");
    EXPECT_EQ(819, localCodePage());
}

TEST_F(ChannelLocalCodePage, IsWorkedOutAtTheFirstContainerAndNotBefore)
{
    setLang("tr_TR");
    Channel channel;
    setLang("ja_JP");
    channel.addChar("TEXT", 0);
    EXPECT_EQ(5050, int(channel.info("TEXT").ccsid));
}

TEST_F(ChannelLocalCodePage, IsWorkedOutByABinaryContainerToo)
{
    setLang("tr_TR");
    Channel channel;
    channel.addBit("BINARY");
    setLang("ja_JP");
    channel.addChar("TEXT", 0);
    EXPECT_EQ(920, int(channel.info("TEXT").ccsid));
}

TEST_F(ChannelLocalCodePage, IsWorkedOutByACallThatFails)
{
    setLang("tr_TR");
    settleCodePage();
    setLang("ja_JP");
    EXPECT_EQ(920, localCodePage());
}

TEST_F(ChannelLocalCodePage, IsNotToldASecondTime)
{
    setLang("tr_TR");
    settleCodePage();
    TraceFile trace(4);
    settleCodePage();
    EXPECT_EQ(1, trace.timesWrote(1435));
    EXPECT_EQ(1, trace.timesWrote(1441));
    EXPECT_EQ(0, trace.timesWrote(1438));
    EXPECT_EQ(0, trace.timesWrote(1348));
}

// ---- Other variables ---------------------------------------------------------------------------

TEST_F(ChannelLocalCodePage, IsNotTakenFromLcAll)
{
    setenv("LC_ALL", "ja_JP", 1);
    setLang("tr_TR");
    EXPECT_EQ(920, localCodePage());
}

TEST_F(ChannelLocalCodePage, IsNotTakenFromLcAllWithoutLang)
{
    setenv("LC_ALL", "ja_JP", 1);
    EXPECT_EQ(819, localCodePage());
}

TEST_F(ChannelLocalCodePage, IsNotTakenFromLcCtype)
{
    setenv("LC_CTYPE", "ko_KR", 1);
    setLang("tr_TR");
    EXPECT_EQ(920, localCodePage());
}

TEST_F(ChannelLocalCodePage, SetsTheLocaleOfTheEnvironment)
{
    setenv("LC_ALL", "C.UTF-8", 1);
    ASSERT_STREQ("C", std::setlocale(LC_ALL, nullptr));
    settleCodePage();
    EXPECT_STREQ("C.UTF-8", std::setlocale(LC_ALL, nullptr));
}
