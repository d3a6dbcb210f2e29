// Delays of scripted answers: what they may be, and how they are spread.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "conf/value.h"
#include "script/delay.h"

namespace {

script::Delay delayOf(const std::string& toml)
{
    const conf::Value file = conf::readText("delay = " + toml + "\n");
    return script::Delay::read(*file.find("delay"));
}

std::string complaint(const std::string& toml)
{
    try {
        delayOf(toml);
    } catch (const conf::Wrong& problem) {
        return problem.what();
    }
    return "none";
}

// Ten thousand of them, in microseconds, in order.
std::vector<std::int64_t> drawn(const std::string& toml)
{
    const script::Delay delay = delayOf(toml);
    script::Chance chance(1);
    std::vector<std::int64_t> times;
    for (int i = 0; i < 10000; ++i) times.push_back(delay.next(chance).count());
    std::sort(times.begin(), times.end());
    return times;
}

double mean(const std::vector<std::int64_t>& times)
{
    double sum = 0;
    for (const std::int64_t time : times) sum += static_cast<double>(time);
    return sum / static_cast<double>(times.size());
}

} // namespace

TEST(Delay, IsATime)
{
    EXPECT_EQ(250, drawn("\"250us\"").back());
    EXPECT_EQ(50000, drawn("\"50ms\"").front());
    EXPECT_EQ(2000000, drawn("\"2s\"").front());
    EXPECT_EQ(3600000000, drawn("\"60min\"").front());
    EXPECT_EQ(0, drawn("\"0ms\"").front());
}

TEST(Delay, MayBeAnyBetweenTwo)
{
    const std::vector<std::int64_t> times = drawn("{ from = \"10ms\", to = \"20ms\" }");
    EXPECT_GE(times.front(), 10000);
    EXPECT_LE(times.front(), 10100);
    EXPECT_LE(times.back(), 20000);
    EXPECT_GE(times.back(), 19900);
    EXPECT_NEAR(15000, mean(times), 200);
}

TEST(Delay, MayBeExponentialNormalOrLogNormal)
{
    const std::vector<std::int64_t> exponential = drawn("{ mean = \"10ms\" }");
    EXPECT_NEAR(10000, mean(exponential), 500);
    EXPECT_NEAR(6931, static_cast<double>(exponential[5000]), 500); // ln 2 of the mean

    const std::vector<std::int64_t> normal = drawn("{ mean = \"10ms\", deviation = \"2ms\" }");
    EXPECT_NEAR(10000, mean(normal), 100);
    EXPECT_NEAR(12000, static_cast<double>(normal[8413]), 200); // one deviation above
    EXPECT_GE(drawn("{ mean = \"1ms\", deviation = \"1s\" }").front(), 0);

    const std::vector<std::int64_t> logNormal = drawn("{ median = \"5ms\", p99 = \"300ms\" }");
    EXPECT_NEAR(5000, static_cast<double>(logNormal[5000]), 400);
    EXPECT_NEAR(300000, static_cast<double>(logNormal[9900]), 80000);
}

TEST(Delay, IsTheSameByChanceFromTheSameSeedOn)
{
    EXPECT_EQ(drawn("{ mean = \"10ms\" }"), drawn("{ mean = \"10ms\" }"));
}

TEST(Delay, OfAnyOtherKindIsRefused)
{
    const std::string noTime = "line 1, column 9: delay is no time such as \"250us\", \"50ms\", "
                               "\"2s\" or \"1min\", up to an hour";
    for (const char* const toml : {"\"\"", "\"50\"", "\"ms\"", "\"-1ms\"", "\"50 ms\"", "50",
                                   "\"61min\"", "\"3600001ms\"", "\"99999999999999999999s\""}) {
        EXPECT_EQ(noTime, complaint(toml)) << toml;
    }
    const std::string noTable = "line 1, column 9: delay is none of: a time, from with a later to, "
                                "mean, mean with deviation, median with a longer p99";
    for (const char* const toml :
         {"{}", "{ from = \"1ms\" }", "{ from = \"2ms\", to = \"1ms\" }", "{ mean = \"0ms\" }",
          "{ mean = \"1ms\", to = \"2ms\" }", "{ median = \"2ms\", p99 = \"1ms\" }",
          "{ deviation = \"1ms\" }"}) {
        EXPECT_EQ(noTable, complaint(toml)) << toml;
    }
    EXPECT_EQ("line 1, column 11: there is no such key here; there are from, to, mean, deviation, "
              "median and p99",
              complaint("{ meen = \"1ms\" }"));
}
