// Times of password calls, converted.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <ctime>

#include "qpxclient_esi.h"
#include "support/eci_script.h"

using support::shown;
using support::TraceFile;

namespace {

ESI_DATETIME dateOf(int year, int month, int day)
{
    return ESI_DATETIME{year, month, day, 0, 0, 0, 0};
}

tm converted(const ESI_DATETIME& time)
{
    tm result;
    std::memset(&result, 0x55, sizeof result);
    EXPECT_EQ(&result, QPX_ESI_convertTime(&time, &result));
    return result;
}

tm converted(int year, int month, int day)
{
    return converted(dateOf(year, month, day));
}

bool isUntouched(const tm& result)
{
    tm untouched;
    std::memset(&untouched, 0x55, sizeof untouched);
    return std::memcmp(&untouched, &result, sizeof result) == 0;
}

// A calendar of the test's own, which counts day by day from Monday, 1 January 1900.
class Calendar {
public:
    int year = 1900;
    int month = 0;
    int day = 1;
    int dayOfWeek = 1;
    int dayOfYear = 1;

    void goOn()
    {
        dayOfWeek = dayOfWeek == 6 ? 0 : dayOfWeek + 1;
        dayOfYear += 1;
        if (++day <= lastDay()) return;
        day = 1;
        if (++month < 12) return;
        month = 0;
        year += 1;
        dayOfYear = 1;
    }

private:
    int lastDay() const
    {
        switch (month) {
        case 1: return isLeap() ? 29 : 28;
        case 3:
        case 5:
        case 8:
        case 10: return 30;
        default: return 31;
        }
    }
    bool isLeap() const { return year % 400 == 0 || (year % 4 == 0 && year % 100 != 0); }
};

// The same for the day of the week, by Zeller's rule.
int zeller(int year, int month, int day)
{
    int m = month < 2 ? month + 13 : month + 1;
    int y = month < 2 ? year - 1 : year;
    int saturdayFirst = (day + 13 * (m + 1) / 5 + y + y / 4 - y / 100 + y / 400) % 7;
    return (saturdayFirst + 6) % 7;
}

// ---- Every day ----

TEST(EsiTime, ConvertsEveryDayOfThreeCenturies)
{
    int days = 0;
    for (Calendar today; today.year <= 2199; today.goOn()) {
        days += 1;
        ASSERT_EQ(zeller(today.year, today.month, today.day), today.dayOfWeek);

        tm result = converted(today.year, today.month, today.day);

        // The year 2100 is counted with the offset of the 2000s, one day late.
        int expected = today.year == 2100 ? (today.dayOfWeek + 1) % 7 : today.dayOfWeek;
        ASSERT_EQ(expected, result.tm_wday)
            << today.year << "-" << today.month + 1 << "-" << today.day;
        ASSERT_EQ(today.dayOfYear, result.tm_yday)
            << today.year << "-" << today.month + 1 << "-" << today.day;
        ASSERT_EQ(today.year - 1900, result.tm_year);
        ASSERT_EQ(today.month, result.tm_mon);
        ASSERT_EQ(today.day, result.tm_mday);
    }
    EXPECT_EQ(109573, days);
}

// ---- Single days ----

TEST(EsiTime, KnowsTheFirstDayOfTheYear2000)
{
    EXPECT_EQ(6, converted(2000, 0, 1).tm_wday);
    EXPECT_EQ(1, converted(2000, 0, 1).tm_yday);
}

TEST(EsiTime, CountsALeapDayThatHasPassed)
{
    EXPECT_EQ(5, converted(2024, 2, 1).tm_wday);
    EXPECT_EQ(61, converted(2024, 2, 1).tm_yday);
}

TEST(EsiTime, CountsNoLeapDayThatIsStillToCome)
{
    EXPECT_EQ(60, converted(2024, 1, 29).tm_yday);
    EXPECT_EQ(4, converted(2024, 1, 29).tm_wday);
    EXPECT_EQ(366, converted(2024, 11, 31).tm_yday);
    EXPECT_EQ(365, converted(2023, 11, 31).tm_yday);
}

TEST(EsiTime, TakesTheYear1900ForACommonYear)
{
    EXPECT_EQ(1, converted(1900, 0, 1).tm_wday);
    EXPECT_EQ(60, converted(1900, 2, 1).tm_yday);
    EXPECT_EQ(4, converted(1900, 2, 1).tm_wday);
}

TEST(EsiTime, CountsTheYear2100WithTheOffsetOfThe2000s)
{
    EXPECT_EQ(6, converted(2100, 0, 1).tm_wday);
    EXPECT_EQ(60, converted(2100, 2, 1).tm_yday);
    EXPECT_EQ(6, converted(2101, 0, 1).tm_wday);
}

TEST(EsiTime, KeepsTheOffsetOfThe2100sFrom2200On)
{
    // 100 + 4 + 25 + 0 + 1 = 130; in truth it is a Wednesday.
    EXPECT_EQ(4, converted(2200, 0, 1).tm_wday);
    // 300 + 4 + 75 + 6 + 1 = 386 in a leap year; in truth it is a Saturday.
    EXPECT_EQ(1, converted(2400, 0, 1).tm_wday);
}

// ---- The other fields ----

TEST(EsiTime, KeepsTheTimeOfDayAndDropsTheHundredths)
{
    tm result = converted(ESI_DATETIME{2026, 1, 16, 23, 58, 59, 99});

    EXPECT_EQ(126, result.tm_year);
    EXPECT_EQ(1, result.tm_mon);
    EXPECT_EQ(16, result.tm_mday);
    EXPECT_EQ(23, result.tm_hour);
    EXPECT_EQ(58, result.tm_min);
    EXPECT_EQ(59, result.tm_sec);
    EXPECT_EQ(1, result.tm_wday);
    EXPECT_EQ(47, result.tm_yday);
}

TEST(EsiTime, DoesNotKnowWhetherSummerTimeIsInForce)
{
    EXPECT_EQ(-1, converted(2026, 6, 1).tm_isdst);
    EXPECT_EQ(-1, converted(2026, 0, 1).tm_isdst);
}

TEST(EsiTime, GivesNoTimeZone)
{
    tm result = converted(2026, 6, 1);

    EXPECT_EQ(0, result.tm_gmtoff);
    EXPECT_EQ(nullptr, result.tm_zone);
}

TEST(EsiTime, DoesNotAdjustATimeOfDayOutOfRange)
{
    tm result = converted(ESI_DATETIME{2026, 1, 40, 25, -1, 60, 100});

    EXPECT_EQ(40, result.tm_mday);
    EXPECT_EQ(25, result.tm_hour);
    EXPECT_EQ(-1, result.tm_min);
    EXPECT_EQ(60, result.tm_sec);
    EXPECT_EQ(71, result.tm_yday);
}

TEST(EsiTime, KeepsTheHundredthsOutOfTheResult)
{
    tm first = converted(ESI_DATETIME{2026, 1, 16, 1, 2, 3, 0});
    tm second = converted(ESI_DATETIME{2026, 1, 16, 1, 2, 3, 99});

    EXPECT_EQ(0, std::memcmp(&first, &second, sizeof first));
}

TEST(EsiTime, LeavesItsArgumentAsItIs)
{
    ESI_DATETIME time{2026, 1, 16, 1, 2, 3, 4};
    tm result;

    QPX_ESI_convertTime(&time, &result);

    EXPECT_EQ(2026, time.year);
    EXPECT_EQ(1, time.month);
    EXPECT_EQ(16, time.day);
    EXPECT_EQ(1, time.hour);
    EXPECT_EQ(2, time.minute);
    EXPECT_EQ(3, time.second);
    EXPECT_EQ(4, time.hundredths);
}

// ---- Dates that are none ----

TEST(EsiTime, GivesZerosForADateThatIsNotSet)
{
    tm result = converted(ESI_DATETIME{0, 5, 6, 7, 8, 9, 10});

    tm zeros;
    std::memset(&zeros, 0, sizeof zeros);
    EXPECT_EQ(0, std::memcmp(&zeros, &result, sizeof result));
}

TEST(EsiTime, LeavesTheResultAloneWithoutATime)
{
    tm result;
    std::memset(&result, 0x55, sizeof result);

    EXPECT_EQ(&result, QPX_ESI_convertTime(nullptr, &result));

    EXPECT_TRUE(isUntouched(result));
}

TEST(EsiTime, GivesNothingWithoutARecordForTheResult)
{
    ESI_DATETIME time = dateOf(2026, 1, 16);

    EXPECT_EQ(nullptr, QPX_ESI_convertTime(&time, nullptr));
    EXPECT_EQ(nullptr, QPX_ESI_convertTime(nullptr, nullptr));
}

TEST(EsiTime, CountsAMonthBeforeTheFirstLikeJanuary)
{
    for (int month : {-1, -12, INT_MIN}) {
        SCOPED_TRACE(month);
        tm result = converted(2026, month, 15);

        EXPECT_EQ(month, result.tm_mon);
        EXPECT_EQ(15, result.tm_yday);
        EXPECT_EQ(4, result.tm_wday); // 15 January 2026
    }
}

TEST(EsiTime, CountsAMonthBehindTheLastLikeDecember)
{
    for (int month : {12, 13, 1000000, INT_MAX}) {
        SCOPED_TRACE(month);
        tm result = converted(2026, month, 15);

        EXPECT_EQ(month, result.tm_mon);
        EXPECT_EQ(349, result.tm_yday);
        EXPECT_EQ(2, result.tm_wday); // 15 December 2026
    }
    EXPECT_EQ(350, converted(2024, 12, 15).tm_yday);
}

// ---- The trace ----

TEST(EsiTime, TracesTheFieldsAtLevelFour)
{
    TraceFile trace(4);
    ESI_DATETIME time{2024, 2, 1, 13, 14, 15, 16};
    tm result;

    QPX_ESI_convertTime(&time, &result);

    ASSERT_EQ(3U, trace.records().size());
    EXPECT_TRUE(trace.wrote(1813, "ENTRY",
                            "API.QPX_ESI_convertTime(esiTime=" + shown(&time) +
                                ", result=" + shown(&result) + ")"));
    EXPECT_TRUE(trace.wrote(1814, "DEBUG",
                            "API.QPX_ESI_convertTime() tm members year=124, month=2, day=1, "
                            "hour=13, min=14, sec=15, wday=5, yday=61"));
    EXPECT_TRUE(trace.wrote(1815, "EXIT", "API.QPX_ESI_convertTime()"));
}

TEST(EsiTime, EndsEntryAndExitWithoutANewline)
{
    TraceFile trace(3);
    ESI_DATETIME time = dateOf(2026, 1, 16);
    tm result;

    QPX_ESI_convertTime(&time, &result);
    QPX_ESI_convertTime(&time, &result);

    EXPECT_EQ(std::string::npos, trace.text().find('\n'));
    EXPECT_TRUE(trace.wroteText("[1813] ENTRY  API.QPX_ESI_convertTime(esiTime=<ptr>, "
                                "result=<ptr>)<any>[1815] EXIT   API.QPX_ESI_convertTime()<any>"
                                "[1813] ENTRY  API.QPX_ESI_convertTime(esiTime=<ptr>, "
                                "result=<ptr>)<any>[1815] EXIT   API.QPX_ESI_convertTime()"));
}

TEST(EsiTime, EndsOnlyTheFieldsWithANewline)
{
    TraceFile trace(4);
    ESI_DATETIME time = dateOf(2026, 1, 16);
    tm result;

    QPX_ESI_convertTime(&time, &result);

    EXPECT_EQ(1, trace.timesWroteText("\n"));
    EXPECT_TRUE(trace.wroteText("[1814] DEBUG  API.QPX_ESI_convertTime() tm members year=126, "
                                "month=1, day=16, hour=0, min=0, sec=0, wday=1, yday=47\n"));
}

TEST(EsiTime, TracesNoFieldsOfADateThatIsNotSet)
{
    TraceFile trace(4);
    ESI_DATETIME time = dateOf(0, 1, 16);
    tm result;

    QPX_ESI_convertTime(&time, &result);

    EXPECT_EQ(1, trace.timesWrote(1813));
    EXPECT_EQ(0, trace.timesWrote(1814));
    EXPECT_EQ(1, trace.timesWrote(1815));
}

TEST(EsiTime, TracesNullPointers)
{
    TraceFile trace(4);

    QPX_ESI_convertTime(nullptr, nullptr);

    EXPECT_TRUE(trace.wrote(1813, "ENTRY", "API.QPX_ESI_convertTime(esiTime=(nil), result=(nil))"));
    EXPECT_EQ(0, trace.timesWrote(1814));
    EXPECT_TRUE(trace.wrote(1815, "EXIT", "API.QPX_ESI_convertTime()"));
}

TEST(EsiTime, TracesNothingAtLevelTwo)
{
    TraceFile trace(2);
    ESI_DATETIME time = dateOf(2026, 1, 16);
    tm result;

    QPX_ESI_convertTime(&time, &result);

    EXPECT_EQ("", trace.text());
}

} // namespace
