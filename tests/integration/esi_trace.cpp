// What password calls write to the trace, level by level.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/esi_script.h"

using namespace script;
using support::TraceFile;
using support::TraceRecord;

namespace {

// A line of the trace as its point, type and text.
struct Line {
    int point;
    const char* type;
    std::string message;
};

class EsiTrace : public EsiConnection {
protected:
    // The lines of these points, in their order, and no others.
    static void expectLines(const TraceFile& trace, const std::vector<int>& points,
                            const std::vector<Line>& expected)
    {
        std::vector<TraceRecord> found;
        for (const TraceRecord& record : trace.records())
            for (int point : points)
                if (record.point == point) found.push_back(record);
        ASSERT_EQ(expected.size(), found.size()) << trace.text();
        for (std::size_t at = 0; at < expected.size(); ++at) {
            EXPECT_EQ(expected[at].point, found[at].point);
            EXPECT_EQ(expected[at].type, found[at].type);
            EXPECT_TRUE(support::matches(expected[at].message, found[at].message))
                << "expected: " << expected[at].message << "\nfound:    " << found[at].message;
        }
    }

    std::string token() const { return shown(connection.token); }

    // All points of the module.
    static std::vector<int> esiPoints()
    {
        std::vector<int> points;
        for (int point = 1800; point <= 1827; ++point) points.push_back(point);
        return points;
    }

    Details details;
};

TEST_F(EsiTrace, IsEmptyOfASuccessfulCallAtLevelOne)
{
    TraceFile trace(1);

    EXPECT_RC(0, verifyAnswered(acceptance(1), details.get()));
    EXPECT_RC(0, changeAnswered(acceptance(1), details.get()));

    EXPECT_EQ("", trace.text());
}

TEST_F(EsiTrace, TellsOfTheServersRefusalAtLevelOne)
{
    TraceFile trace(1);

    EXPECT_RC(-306, verifyAnswered(refusal(1, -105), details.get()));

    ASSERT_EQ(1U, trace.records().size());
    EXPECT_EQ("*EXC*", trace.records()[0].type);
    EXPECT_EQ("clapi_gwycon.receiverThread() Gateway returned ESI error, rc=-105 "
              "(ESI_ERR_PASSWORD_EXPIRED)",
              trace.messages()[0]);
}

TEST_F(EsiTrace, TellsOfAVerificationAtLevelTwo)
{
    TraceFile trace(2);
    auto call = startVerify("CLERK", "SECRET", "PROD");
    answerWith(acceptance(1));
    EXPECT_RC(0, call.get());

    EXPECT_EQ(
        (std::vector<std::string>{
            "clapi_gwytok.clapiRegisterRequest() Outstanding API calls=1 on gwTokPtr=" + token(),
            "API.QPX_ESI_verifyPassword() Verifying password for userid=CLERK on "
            "server=PROD",
            "clapi_gwytok.clapiUnregisterRequest() Outstanding API calls=0 on gwTokPtr=" +
                token()}),
        trace.messages());
    EXPECT_TRUE(trace.wrote(1804, "EVENT",
                            "API.QPX_ESI_verifyPassword() Verifying password for userid=CLERK "
                            "on server=PROD"));
}

TEST_F(EsiTrace, TellsOfAChangeAtLevelTwo)
{
    TraceFile trace(2);
    auto call = startChange("CLERK", "SECRET", "TERCES", "PROD");
    answerWith(acceptance(1));
    EXPECT_RC(0, call.get());

    EXPECT_EQ(
        (std::vector<std::string>{
            "clapi_gwytok.clapiRegisterRequest() Outstanding API calls=1 on gwTokPtr=" + token(),
            "API.QPX_ESI_changePassword() Changing password for userid=CLERK on "
            "server=PROD",
            "clapi_gwytok.clapiUnregisterRequest() Outstanding API calls=0 on gwTokPtr=" +
                token()}),
        trace.messages());
    EXPECT_TRUE(trace.wrote(1811, "EVENT",
                            "API.QPX_ESI_changePassword() Changing password for userid=CLERK on "
                            "server=PROD"));
}

TEST_F(EsiTrace, ShowsEntryAndExitOfAVerificationAtLevelThree)
{
    TraceFile trace(3);
    auto call = startVerify("CLERK", "SECRET", "PROD", details.get());
    answerWith(acceptance(1));
    EXPECT_RC(0, call.get());

    expectLines(trace, esiPoints(),
                {{1800, "ENTRY",
                  "API.QPX_ESI_verifyPassword(gwTok=" + token() +
                      ", userid=CLERK, server=PROD, esiDetailsPtr=" + shown(details.get()) + ")"},
                 {1804, "EVENT",
                  "API.QPX_ESI_verifyPassword() Verifying password for userid=CLERK on "
                  "server=PROD"},
                 {1816, "ENTRY",
                  "clapi_esi.performEsiFlow(gwTok=" + token() +
                      ", esiRequest=<ptr>, esiDetails=" + shown(details.get()) + ")"},
                 {1824, "EXIT", "clapi_esi.performEsiFlow() rc=0 (QPX_OK)"},
                 {1805, "EXIT", "API.QPX_ESI_verifyPassword() rc=0 (QPX_OK)"}});
}

TEST_F(EsiTrace, ShowsEntryAndExitOfAChangeAtLevelThree)
{
    TraceFile trace(3);
    auto call = startChange("CLERK", "SECRET", "TERCES", "PROD", details.get());
    answerWith(acceptance(1));
    EXPECT_RC(0, call.get());

    expectLines(trace, esiPoints(),
                {{1806, "ENTRY",
                  "API.QPX_ESI_changePassword(gwTok=" + token() +
                      ", userid=CLERK, server=PROD, esiDetailsPtr=" + shown(details.get()) + ")"},
                 {1811, "EVENT",
                  "API.QPX_ESI_changePassword() Changing password for userid=CLERK on "
                  "server=PROD"},
                 {1816, "ENTRY",
                  "clapi_esi.performEsiFlow(gwTok=" + token() +
                      ", esiRequest=<ptr>, esiDetails=" + shown(details.get()) + ")"},
                 {1824, "EXIT", "clapi_esi.performEsiFlow() rc=0 (QPX_OK)"},
                 {1812, "EXIT", "API.QPX_ESI_changePassword() rc=0 (QPX_OK)"}});
}

TEST_F(EsiTrace, ShowsTheMappingAtLevelFour)
{
    TraceFile trace(4);
    auto call = startVerify("CLERK", "SECRET", "PROD", nullptr);
    answerWith(refusal(1, -107));
    EXPECT_RC(-315, call.get());

    expectLines(
        trace, esiPoints(),
        {{1800, "ENTRY",
          "API.QPX_ESI_verifyPassword(gwTok=" + token() +
              ", userid=CLERK, server=PROD, esiDetailsPtr=(nil))"},
         {1804, "EVENT",
          "API.QPX_ESI_verifyPassword() Verifying password for userid=CLERK on server=PROD"},
         {1816, "ENTRY",
          "clapi_esi.performEsiFlow(gwTok=" + token() + ", esiRequest=<ptr>, esiDetails=(nil))"},
         {1825, "DEBUG", "clapi_esi.mapGwyRc() Mapped rc=-107 to newRc=-315"},
         {1824, "EXIT", "clapi_esi.performEsiFlow() rc=-315 (ESI_ERR_PASSWORD_REJECTED)"},
         {1805, "EXIT", "API.QPX_ESI_verifyPassword() rc=-315 (ESI_ERR_PASSWORD_REJECTED)"}});
}

TEST_F(EsiTrace, ShowsTheMappingOfSuccessAsWell)
{
    TraceFile trace(4);

    EXPECT_RC(0, changeAnswered(acceptance(1)));

    EXPECT_TRUE(trace.wrote(1825, "DEBUG", "clapi_esi.mapGwyRc() Mapped rc=0 to newRc=0"));
}

TEST_F(EsiTrace, ShowsNoMappingOfTheGatewaysCode)
{
    TraceFile trace(4);

    EXPECT_RC(61445, verifyAnswered(esiReply(1, be32(-107), 61445)));

    EXPECT_EQ(0, trace.timesWrote(1825));
    EXPECT_TRUE(trace.wrote(1824, "EXIT",
                            "clapi_esi.performEsiFlow() rc=61445 (QPX_ERR_WORK_WAS_REFUSED)"));
}

TEST_F(EsiTrace, ShowsNullForAbsentTexts)
{
    TraceFile trace(3);

    EXPECT_RC(-100, QPX_ESI_verifyPassword(nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_RC(-100, QPX_ESI_changePassword(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));

    EXPECT_TRUE(trace.wrote(1800, "ENTRY",
                            "API.QPX_ESI_verifyPassword(gwTok=(nil), userid=NULL, server=NULL, "
                            "esiDetailsPtr=(nil))"));
    EXPECT_TRUE(
        trace.wrote(1805, "EXIT", "API.QPX_ESI_verifyPassword() rc=-100 (QPX_ERR_NULLGWTOK)"));
    EXPECT_TRUE(trace.wrote(1806, "ENTRY",
                            "API.QPX_ESI_changePassword(gwTok=(nil), userid=NULL, server=NULL, "
                            "esiDetailsPtr=(nil))"));
    EXPECT_TRUE(
        trace.wrote(1812, "EXIT", "API.QPX_ESI_changePassword() rc=-100 (QPX_ERR_NULLGWTOK)"));
}

TEST_F(EsiTrace, ShowsNullForTheDefaultServer)
{
    TraceFile trace(2);

    EXPECT_RC(0, verifyAnswered(acceptance(1)));
    EXPECT_RC(0, changeAnswered(acceptance(1)));

    EXPECT_TRUE(trace.wrote(1804, "EVENT",
                            "API.QPX_ESI_verifyPassword() Verifying password for userid=USER on "
                            "server=NULL"));
    EXPECT_TRUE(trace.wrote(1811, "EVENT",
                            "API.QPX_ESI_changePassword() Changing password for userid=USER on "
                            "server=NULL"));
}

TEST_F(EsiTrace, TakesPercentSignsOfTheCallerForWhatTheyAre)
{
    TraceFile trace(3);
    auto call = startVerify("%s%n%d", "SECRET", "%p%x");
    answerWith(acceptance(1));
    EXPECT_RC(0, call.get());

    EXPECT_TRUE(trace.wrote(1800, "ENTRY",
                            "API.QPX_ESI_verifyPassword(gwTok=" + token() +
                                ", userid=%s%n%d, server=%p%x, esiDetailsPtr=(nil))"));
    EXPECT_TRUE(trace.wrote(1804, "EVENT",
                            "API.QPX_ESI_verifyPassword() Verifying password for userid=%s%n%d "
                            "on server=%p%x"));
}

TEST_F(EsiTrace, ShowsTextsOfAnyLength)
{
    TraceFile trace(3);
    std::string user(5000, 'u');
    std::string server(300, 's');
    auto call = startVerify(user.c_str(), "SECRET", server.c_str());
    answerWith(acceptance(1));
    EXPECT_RC(0, call.get());

    EXPECT_TRUE(trace.wrote(1800, "ENTRY",
                            "API.QPX_ESI_verifyPassword(gwTok=" + token() + ", userid=" + user +
                                ", server=" + server + ", esiDetailsPtr=(nil))"));
}

TEST_F(EsiTrace, ShowsEntryAndExitOfAFailedCheck)
{
    TraceFile trace(4);

    EXPECT_RC(-314,
              QPX_ESI_changePassword(connection.token, "CLERK", "SECRET", "", "PROD", nullptr));

    expectLines(
        trace, esiPoints(),
        {{1806, "ENTRY",
          "API.QPX_ESI_changePassword(gwTok=" + token() +
              ", userid=CLERK, server=PROD, esiDetailsPtr=(nil))"},
         {1810, "*EXC*", "API.QPX_ESI_changePassword() NULL new password, newPassword=<ptr>"},
         {1812, "EXIT", "API.QPX_ESI_changePassword() rc=-314 (ESI_ERR_NULL_NEW_PASSWORD)"}});
}

TEST_F(EsiTrace, ShowsTheStepsOfTheCallInOrder)
{
    TraceFile trace(4);

    EXPECT_RC(0, verifyAnswered(acceptance(1)));

    std::vector<int> found;
    for (const TraceRecord& record : trace.records())
        for (int point : {1800, 1804, 1816, 1824, 1825, 1805, 2020, 2023, 2024, 2025,
                          2027, 2028, 2052, 2056, 3121, 3239, 3237, 3238, 3240, 3119})
            if (record.point == point) found.push_back(point);
    EXPECT_EQ((std::vector<int>{1800, 2020, 2023, 2024, 1804, 1816, 2052, 2056, 3121, 3239,
                                3237, 3238, 3240, 3119, 1825, 1824, 2025, 2027, 2028, 1805}),
              found);
}

TEST_F(EsiTrace, ShowsTheReadingOfTheReply)
{
    TraceFile trace(4);

    EXPECT_RC(0, verifyAnswered(acceptance(1)));

    EXPECT_TRUE(trace.wroteText("DEBUG  clapi_gwycon.receiverThread() Flow type is FLOW_REPLY, "
                                "request type ESI\n"));
    EXPECT_EQ(1, trace.timesWrote(3241));
    EXPECT_EQ(1, trace.timesWrote(3242));
}

TEST_F(EsiTrace, IsTheSameAtLevelFive)
{
    TraceFile trace(5);

    EXPECT_RC(0, verifyAnswered(acceptance(1)));

    expectLines(trace, {1800, 1804, 1816, 1825, 1824, 1805},
                {{1800, "ENTRY", "API.QPX_ESI_verifyPassword(<any>)"},
                 {1804, "EVENT", "API.QPX_ESI_verifyPassword() Verifying password <any>"},
                 {1816, "ENTRY", "clapi_esi.performEsiFlow(<any>)"},
                 {1825, "DEBUG", "clapi_esi.mapGwyRc() Mapped rc=0 to newRc=0"},
                 {1824, "EXIT", "clapi_esi.performEsiFlow() rc=0 (QPX_OK)"},
                 {1805, "EXIT", "API.QPX_ESI_verifyPassword() rc=0 (QPX_OK)"}});
}

} // namespace
