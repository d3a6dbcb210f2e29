// Trace settings from the environment. Each case needs a process in which no call has been made.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include "clapi_diag.h"
#include "clapi_impl.h"
#include "support/expect_rc.h"
#include "support/faults.h"
#include "support/trace_file.h"

using namespace support;

namespace {

class Environment : public ::testing::Test {
protected:
    Environment() : path_(directory_.file("trace"))
    {
        unsetenv("QPX_CLIENT_TRACE_LEVEL");
        unsetenv("QPX_CLIENT_TRACE_FILE");
        unsetenv("QPX_CLIENT_DATA_LENGTH");
        unsetenv("QPX_CLIENT_DATA_OFFSET");
    }

    static void level(const std::string& value)
    {
        setenv("QPX_CLIENT_TRACE_LEVEL", value.c_str(), 1);
    }
    static void file(const std::string& value)
    {
        setenv("QPX_CLIENT_TRACE_FILE", value.c_str(), 1);
    }
    static void length(const std::string& value)
    {
        setenv("QPX_CLIENT_DATA_LENGTH", value.c_str(), 1);
    }
    static void offset(const std::string& value)
    {
        setenv("QPX_CLIENT_DATA_OFFSET", value.c_str(), 1);
    }

    const std::string& path() const { return path_; }
    std::string fileText() const { return readFile(path_); }

    TemporaryDirectory directory_;
    std::string path_;
};

class EnvironmentLevel : public Environment, public ::testing::WithParamInterface<int> {};

struct BadLevel {
    const char* kind;
    std::string value;
};

void PrintTo(const BadLevel& level, std::ostream* stream)
{
    *stream << level.kind;
}

class EnvironmentBadLevel : public Environment, public ::testing::WithParamInterface<BadLevel> {};

std::string word()
{
    return sizeof(void*) == 4 ? "32-bit" : "64-bit";
}

std::string banner(int level, const std::string& file)
{
    return "*** <int>/<int>/<int> ZAVO Quorvex QPXClient DLL trace V10.1.0.0 API Version 2.3.0.0 "
           "Build Level d1010-20240618-1931 ***\n"
           "*** Trace Level = " +
           std::to_string(level) + ", Trace File = " + file + ", " + word() + " ***\n";
}

const std::string anyBanner = "ZAVO Quorvex QPXClient DLL trace";

} // namespace

// ---- QPX_CLIENT_TRACE_LEVEL --------------------------------------------------------------------

TEST_P(EnvironmentLevel, IsTheInitialTraceLevel)
{
    CapturedStderr output;
    level(std::to_string(GetParam()));
    int current = -1;
    EXPECT_RC(0, QPX_getAPITraceLevel(&current));
    EXPECT_EQ(GetParam(), current);
}

INSTANTIATE_TEST_SUITE_P(OfEachValue, EnvironmentLevel, ::testing::Range(0, 6));

TEST_P(EnvironmentBadLevel, LeavesTheTraceOffAndIsToldOnce)
{
    CapturedStderr output;
    level(GetParam().value);
    EXPECT_RC(0, clapiInit());
    EXPECT_EQ(0, clientAPITrace);
    std::vector<TraceRecord> records = parseTrace(output.text());
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(1075, records[0].point);
    EXPECT_EQ("*EXC*", records[0].type);
    EXPECT_EQ("clapi_impl.clapiSetAPITraceLevelFromEnv() Supplied trace environment value " +
                  GetParam().value + " was invalid",
              records[0].message);
    EXPECT_EQ("", records[0].body); // no banner
}

INSTANTIATE_TEST_SUITE_P(OfEachKind, EnvironmentBadLevel,
                         ::testing::Values(BadLevel{"TwoDigits", "03"}, BadLevel{"AboveFive", "6"},
                                           BadLevel{"Nine", "9"}, BadLevel{"BelowZero", "-1"},
                                           BadLevel{"BeforeTheDigits", "/"},
                                           BadLevel{"BehindTheDigits", ":"},
                                           BadLevel{"Letter", "x"}, BadLevel{"Empty", ""},
                                           BadLevel{"BlankBehind", "3 "},
                                           BadLevel{"BlankBefore", " 3"}, BadLevel{"Long", "12345"},
                                           BadLevel{"Format", "%s%n%d"}));

TEST_F(Environment, LeavesTheTraceOffWithoutALevel)
{
    CapturedStderr output;
    EXPECT_RC(0, clapiInit());
    EXPECT_EQ(0, clientAPITrace);
    EXPECT_EQ("", output.text());
}

TEST_F(Environment, TellsOfABadLevelAtStandardErrorThoughAFileIsGiven)
{
    CapturedStderr output;
    level("7");
    file(path());
    EXPECT_RC(0, clapiInit());
    EXPECT_TRUE(contains(output.text(), "[1075]"));
    EXPECT_EQ("", fileText());
}

// ---- The banner --------------------------------------------------------------------------------

TEST_F(Environment, PutsTheBannerOnStandardErrorWithALevelAndNoFile)
{
    CapturedStderr output;
    level("1");
    EXPECT_RC(0, clapiInit());
    EXPECT_TRUE(matches(banner(1, "stderr"), output.text()));
    EXPECT_EQ(1, traceHeaderWrite);
}

TEST_F(Environment, PutsTheBannerIntoTheFileOnly)
{
    CapturedStderr output;
    level("2");
    file(path());
    EXPECT_RC(0, clapiInit());
    EXPECT_TRUE(matches(banner(2, path()), fileText()));
    EXPECT_EQ("", output.text());
    EXPECT_EQ(1, traceHeaderWrite);
}

TEST_F(Environment, WritesNoBannerWithLevelZero)
{
    CapturedStderr output;
    level("0");
    file(path());
    EXPECT_RC(0, clapiInit());
    EXPECT_EQ("", fileText());
    EXPECT_EQ("", output.text());
}

TEST_F(Environment, WritesNoBannerWithAnEmptyFileName)
{
    CapturedStderr output;
    level("2");
    file("");
    EXPECT_RC(0, clapiInit());
    EXPECT_EQ("", output.text());
    EXPECT_EQ(0, traceHeaderWrite);
}

TEST_F(Environment, WritesTheBannerIntoTheFileOnceTheTraceIsSwitchedOn)
{
    CapturedStderr output;
    file(path());
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_TRUE(matches(banner(0, path()), fileText()));
}

TEST_F(Environment, WritesNoSecondBannerWhenTheLevelIsSwitchedOffAndOn)
{
    CapturedStderr output;
    level("1");
    file(path());
    EXPECT_RC(0, QPX_setAPITraceLevel(0));
    EXPECT_RC(0, QPX_setAPITraceLevel(1));
    EXPECT_EQ(1, countOf(fileText(), anyBanner));
}

TEST_F(Environment, ShowsTodayInTheBanner)
{
    CapturedStderr output;
    level("1");
    EXPECT_RC(0, clapiInit());
    char before[10];
    clapiGetDate(before);
    EXPECT_EQ(0u, output.text().find(std::string("*** ") + before + " ZAVO"));
}

// ---- QPX_CLIENT_TRACE_FILE ---------------------------------------------------------------------

TEST_F(Environment, SendsTheTraceToTheFile)
{
    CapturedStderr output;
    level("1");
    file(path());
    EXPECT_RC(-109, QPX_getAPIVersion(nullptr));
    EXPECT_TRUE(wroteIn(fileText(), 1030, "*EXC*", "<any>"));
    EXPECT_STREQ(path().c_str(), clientAPITraceFilename);
    EXPECT_EQ("", output.text());
}

TEST_F(Environment, AppendsToAFileThatIsThere)
{
    CapturedStderr output;
    std::ofstream(path()) << "before\n";
    level("1");
    file(path());
    EXPECT_RC(0, clapiInit());
    EXPECT_TRUE(matches("before\n" + banner(1, path()), fileText()));
}

TEST_F(Environment, DoesNotCloseStandardErrorForAFile)
{
    CapturedStderr output;
    file(path());
    EXPECT_RC(0, clapiInit());
    EXPECT_EQ(0, callCount(Call::Fclose));
    EXPECT_LE(0, fprintf(stderr, "still there\n"));
    EXPECT_EQ("still there\n", output.text());
}

TEST_F(Environment, TellsOfTheSwitchInTheFileAtLevel4)
{
    CapturedStderr output;
    level("4");
    file(path());
    EXPECT_RC(0, clapiInit());
    EXPECT_TRUE(wroteIn(fileText(), 1072, "DEBUG",
                        "clapi_impl.clapiSetAPITraceFileFromEnv() Trace file switched to new "
                        "destination. Filename=" +
                            path()));
}

TEST_F(Environment, DoesNotTellOfTheSwitchAtLevel3)
{
    CapturedStderr output;
    level("3");
    file(path());
    EXPECT_RC(0, clapiInit());
    EXPECT_FALSE(contains(fileText(), "[1072]"));
}

TEST_F(Environment, StaysAtStandardErrorWhenTheFileCannotBeOpened)
{
    CapturedStderr output;
    std::string bad = directory_.file("missing/trace");
    level("1");
    file(bad);
    EXPECT_RC(0, clapiInit());
    EXPECT_EQ(stderr, clientAPITraceHandle);
    EXPECT_STREQ("stderr", clientAPITraceFilename);
    EXPECT_TRUE(wroteIn(output.text(), 1074, "*EXC*",
                        "clapi_impl.clapiSetAPITraceFileFromEnv(" + bad +
                            ") file append failed with errno=2. Trace file destination is "
                            "unchanged. Filename=stderr"));
}

TEST_F(Environment, WritesTheBannerBeforeItTellsThatTheFileCannotBeOpened)
{
    CapturedStderr output;
    level("1");
    file(directory_.file("missing/trace"));
    EXPECT_RC(0, clapiInit());
    std::string text = output.text();
    EXPECT_EQ(1, countOf(text, banner(1, "stderr")));
    EXPECT_LT(text.find(anyBanner), text.find("[1074]"));
}

TEST_F(Environment, SaysNothingOfABadFileAtLevelZero)
{
    CapturedStderr output;
    file(directory_.file("missing/trace"));
    EXPECT_RC(0, clapiInit());
    EXPECT_EQ("", output.text());
}

TEST_F(Environment, TakesAFileNameWithPercentSignsAsItIs)
{
    CapturedStderr output;
    std::string odd = directory_.file("%s%n%d");
    level("4");
    file(odd);
    EXPECT_RC(0, clapiInit());
    EXPECT_TRUE(contains(readFile(odd), banner(4, odd)));
    EXPECT_TRUE(contains(readFile(odd), "Filename=" + odd));
}

TEST_F(Environment, KeepsTheFirst1023BytesOfALongFileName)
{
    CapturedStderr output;
    std::string longName = directory_.path();
    while (longName.size() < 1500) longName += "/.";
    longName += "/trace";
    file(longName);
    EXPECT_RC(0, clapiInit());
    EXPECT_EQ(longName.substr(0, 1023), clientAPITraceFilename);
    EXPECT_RC(0, QPX_dumpState());
    EXPECT_TRUE(contains(fileText(), "clientAPITraceFile=" + longName.substr(0, 1023) + "\n"));
}

// ---- QPX_CLIENT_DATA_LENGTH, QPX_CLIENT_DATA_OFFSET --------------------------------------------

namespace {

struct DataSetting {
    const char* kind;
    std::string value;
    std::size_t length; // what the length becomes, 128 when the value counts for nothing
    std::size_t offset; // the same for the offset, with 0
};

void PrintTo(const DataSetting& setting, std::ostream* stream)
{
    *stream << setting.kind;
}

class EnvironmentData : public Environment, public ::testing::WithParamInterface<DataSetting> {};

} // namespace

TEST_P(EnvironmentData, IsTheInitialDumpLength)
{
    length(GetParam().value);
    EXPECT_RC(0, clapiInit());
    EXPECT_EQ(GetParam().length, clientAPIDataTrunc);
    EXPECT_EQ(0u, clientAPIDataOffset);
}

TEST_P(EnvironmentData, IsTheInitialDumpOffset)
{
    offset(GetParam().value);
    EXPECT_RC(0, clapiInit());
    EXPECT_EQ(GetParam().offset, clientAPIDataOffset);
    EXPECT_EQ(128u, clientAPIDataTrunc);
}

INSTANTIATE_TEST_SUITE_P(
    OfEachKind, EnvironmentData,
    ::testing::Values(DataSetting{"Zero", "0", 0, 0}, DataSetting{"One", "1", 1, 1},
                      DataSetting{"Usual", "256", 256, 256},
                      DataSetting{"LeadingZeros", "0064", 64, 64},
                      DataSetting{"DigitsThenLetters", "12abc", 12, 12},
                      DataSetting{"Largest", "2147483647", 2147483647, 2147483647},
                      DataSetting{"Letters", "abc", 128, 0}, DataSetting{"Empty", "", 128, 0},
                      DataSetting{"Minus", "-5", 128, 0}, DataSetting{"Plus", "+5", 128, 0},
                      DataSetting{"BlankBefore", " 5", 128, 0}));

TEST_F(Environment, TellsNothingOfTheDataSettingsWhenNoneIsGiven)
{
    CapturedStderr output;
    level("5");
    EXPECT_RC(0, clapiInit());
    std::vector<TraceRecord> records = parseTrace(output.text());
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ(1066, records[0].point);
    EXPECT_EQ("ENTRY", records[0].type);
    EXPECT_EQ("clapi_impl.clapiSetAPITraceParamsFromEnv()", records[0].message);
    EXPECT_EQ(1071, records[1].point);
    EXPECT_EQ("EXIT", records[1].type);
    EXPECT_EQ("clapi_impl.clapiSetAPITraceParamsFromEnv()", records[1].message);
}

TEST_F(Environment, TellsOfTheDataSettingsAtLevel4)
{
    CapturedStderr output;
    level("4");
    length("256");
    offset("16");
    EXPECT_RC(0, clapiInit());
    std::vector<TraceRecord> records = parseTrace(output.text());
    ASSERT_EQ(6u, records.size());
    const std::string origin = "clapi_impl.clapiSetAPITraceParamsFromEnv() ";
    EXPECT_EQ(1067, records[1].point);
    EXPECT_EQ("DEBUG", records[1].type);
    EXPECT_EQ(origin + "Environment variable QPX_CLIENT_DATA_LENGTH=256", records[1].message);
    EXPECT_EQ(1068, records[2].point);
    EXPECT_EQ("DEBUG", records[2].type);
    EXPECT_EQ(origin + "Data truncation length set to 256", records[2].message);
    EXPECT_EQ(1069, records[3].point);
    EXPECT_EQ("DEBUG", records[3].type);
    EXPECT_EQ(origin + "Environment variable QPX_CLIENT_DATA_OFFSET=16", records[3].message);
    EXPECT_EQ(1070, records[4].point);
    EXPECT_EQ("DEBUG", records[4].type);
    EXPECT_EQ(origin + "Data offset set to 16", records[4].message);
    EXPECT_EQ(1071, records[5].point);
}

TEST_F(Environment, ShowsADataSettingThatItIgnores)
{
    CapturedStderr output;
    level("4");
    length("abc");
    offset("%s%n");
    EXPECT_RC(0, clapiInit());
    EXPECT_TRUE(wroteIn(output.text(), 1067, "DEBUG",
                        "clapi_impl.clapiSetAPITraceParamsFromEnv() Environment variable "
                        "QPX_CLIENT_DATA_LENGTH=abc"));
    EXPECT_TRUE(wroteIn(output.text(), 1069, "DEBUG",
                        "clapi_impl.clapiSetAPITraceParamsFromEnv() Environment variable "
                        "QPX_CLIENT_DATA_OFFSET=%s%n"));
    EXPECT_FALSE(contains(output.text(), "[1068]"));
    EXPECT_FALSE(contains(output.text(), "[1070]"));
}

TEST_F(Environment, TellsEntryAndExitOnlyAtLevel3)
{
    CapturedStderr output;
    level("3");
    length("256");
    EXPECT_RC(0, clapiInit());
    std::vector<TraceRecord> records = parseTrace(output.text());
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ(1066, records[0].point);
    EXPECT_EQ(1071, records[1].point);
}

TEST_F(Environment, TellsNothingOfTheDataSettingsAtLevel2)
{
    CapturedStderr output;
    level("2");
    length("256");
    EXPECT_RC(0, clapiInit());
    EXPECT_TRUE(matches(banner(2, "stderr"), output.text()));
}

// ---- All together ------------------------------------------------------------------------------

TEST_F(Environment, IsReadAtTheFirstCallAndNotAgain)
{
    CapturedStderr output;
    EXPECT_RC(0, clapiInit());
    level("3");
    file(path());
    length("7");
    offset("7");
    char* version = nullptr;
    EXPECT_RC(0, QPX_getAPIVersion(&version));
    EXPECT_EQ(0, clientAPITrace);
    EXPECT_EQ(stderr, clientAPITraceHandle);
    EXPECT_EQ(128u, clientAPIDataTrunc);
    EXPECT_EQ(0u, clientAPIDataOffset);
    EXPECT_EQ("", output.text());
}

TEST_F(Environment, IsAppliedInTheOrderLevelFileData)
{
    CapturedStderr output;
    level("4");
    file(path());
    length("1");
    EXPECT_RC(0, clapiInit());
    std::string text = fileText();
    std::size_t bannerAt = text.find(anyBanner);
    std::size_t switchedAt = text.find("[1072]");
    std::size_t dataAt = text.find("[1066]");
    ASSERT_NE(std::string::npos, bannerAt);
    ASSERT_NE(std::string::npos, switchedAt);
    ASSERT_NE(std::string::npos, dataAt);
    EXPECT_LT(bannerAt, switchedAt);
    EXPECT_LT(switchedAt, dataAt);
}

TEST_F(Environment, TracesTheFirstCallItself)
{
    CapturedStderr output;
    level("3");
    char* version = nullptr;
    EXPECT_RC(0, QPX_getAPIVersion(&version));
    std::string text = output.text();
    EXPECT_LT(text.find("[1071]"), text.find("[1029]"));
    EXPECT_TRUE(wroteIn(text, 1031, "EXIT", "API.QPX_getAPIVersion() rc=0 (QPX_OK)"));
}

// ---- A program with more rights than its user --------------------------------------------------

TEST_F(Environment, CountsForNothingInAProgramWithMoreRightsThanItsUser)
{
    CapturedStderr output;
    level("4");
    file(path());
    length("64");
    offset("8");
    Fault hidden = fakeCall(Call::Environment, 0, 0); // as the system answers such a program
    EXPECT_RC(0, clapiInit());
    EXPECT_GE(hidden.hits(), 4);
    EXPECT_EQ(0, clientAPITrace);
    EXPECT_EQ(stderr, clientAPITraceHandle);
    EXPECT_EQ(128u, clientAPIDataTrunc);
    EXPECT_EQ(0u, clientAPIDataOffset);
    EXPECT_EQ("", output.text());
    EXPECT_EQ("", fileText());
}

TEST_F(Environment, NamesNoApplidInAProgramWithMoreRightsThanItsUser)
{
    setenv("QPX_APPLID", "MUCHTOOLONG", 1);
    Fault hidden = fakeCall(Call::Environment, 0, 0);
    char host[] = "127.0.0.1";
    char applid[] = "ALSOTOOLONG";
    char qualifier[] = "";
    QPX_ConnToken_t token = nullptr;
    TraceFile trace(4);
    EXPECT_RC(-139, QPX_openRemoteGatewayConnectionApplid(host, 1, &token, 1, applid, qualifier));
    EXPECT_FALSE(trace.wroteText("MUCHTOOLONG"));
}
