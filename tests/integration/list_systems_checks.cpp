// What the query of systems checks before it sends anything, and what it traces.
#include <gtest/gtest.h>

#include <string>

#include "support/esi_script.h"

using namespace script;
using support::TraceFile;
using support::TraceRecord;

namespace {

class ListSystemsChecks : public EsiConnection {
protected:
    void expectFailure(int point, const std::string& message)
    {
        std::vector<TraceRecord> records = trace.records();
        ASSERT_EQ(1U, records.size()) << trace.text();
        EXPECT_EQ(point, records[0].point);
        EXPECT_EQ("*EXC*", records[0].type);
        EXPECT_EQ(message, records[0].message);
    }

    void expectNoEffect()
    {
        EXPECT_TRUE(connection.peer.isQuiet());
        EXPECT_EQ(2, systems.count);
        EXPECT_TRUE(systems.isUntouched());
        connection.closeInOrder();
    }

    TraceFile trace{1};
    SystemArray systems{2};
};

TEST_F(ListSystemsChecks, RefuseANullToken)
{
    EXPECT_RC(-100, QPX_listSystems(nullptr, &systems.count, systems.get()));

    expectFailure(1018, "API.QPX_listSystems() NULL gateway token, gwTok=(nil)");
    expectNoEffect();
}

TEST_F(ListSystemsChecks, RefuseANullTokenBeforeAnythingElse)
{
    EXPECT_RC(-100, QPX_listSystems(nullptr, nullptr, nullptr));

    expectFailure(1018, "API.QPX_listSystems() NULL gateway token, gwTok=(nil)");
    expectNoEffect();
}

TEST_F(ListSystemsChecks, RefuseAnUnknownToken)
{
    alignas(16) char memory[8192] = {};
    auto noToken = reinterpret_cast<QPX_ConnToken_t>(memory);

    EXPECT_RC(-101, QPX_listSystems(noToken, &systems.count, systems.get()));

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.clapiRegisterRequest() Gateway token=" +
                                shown(memory) + " not found, findRc=<int>\n"));
    EXPECT_EQ(1U, trace.records().size());
    expectNoEffect();
}

TEST_F(ListSystemsChecks, RefuseAnUnknownTokenBeforeThePointers)
{
    alignas(16) char memory[8192] = {};

    EXPECT_RC(-101, QPX_listSystems(reinterpret_cast<QPX_ConnToken_t>(memory), nullptr, nullptr));

    EXPECT_EQ(0, trace.timesWrote(1019));
}

TEST_F(ListSystemsChecks, RefuseANullCount)
{
    EXPECT_RC(-109, QPX_listSystems(connection.token, nullptr, systems.get()));

    expectFailure(1019, "API.QPX_listSystems() NULL Systems Parameter, Systems=(nil)");
    expectNoEffect();
}

TEST_F(ListSystemsChecks, RefuseANullList)
{
    EXPECT_RC(-109, QPX_listSystems(connection.token, &systems.count, nullptr));

    expectFailure(1020, "API.QPX_listSystems() NULL List Parameter, List=(nil)");
    expectNoEffect();
}

TEST_F(ListSystemsChecks, LookAtTheCountBeforeTheList)
{
    EXPECT_RC(-109, QPX_listSystems(connection.token, nullptr, nullptr));

    expectFailure(1019, "API.QPX_listSystems() NULL Systems Parameter, Systems=(nil)");
    expectNoEffect();
}

TEST_F(ListSystemsChecks, RefuseANullListOfAnEmptyCapacity)
{
    systems.count = 0;

    EXPECT_RC(-109, QPX_listSystems(connection.token, &systems.count, nullptr));

    EXPECT_EQ(0, systems.count);
    EXPECT_TRUE(connection.peer.isQuiet());
}

// ---- The trace of a query ----

class ListSystemsTrace : public EsiConnection {
protected:
    // The lines of the querying thread, and only those that tell of the query itself.
    static std::vector<int> points(const TraceFile& trace)
    {
        std::vector<int> found;
        for (const TraceRecord& record : trace.records())
            for (int point : {1017, 1018, 1019, 1020, 1021, 1022, 1023, 1024, 1025, 1026,
                              1027, 1028, 1080, 2020, 2023, 2024, 2025, 2027, 2028, 2052,
                              2056, 1064, 1065, 3121, 3204, 3202, 3203, 3205, 3119})
                if (record.point == point) found.push_back(point);
        return found;
    }

    static Bytes answer() { return ListReply().reported(1).data(systemEntry("PROD")).to(1); }

    SystemArray systems{2};
};

TEST_F(ListSystemsTrace, IsEmptyAtLevelOne)
{
    TraceFile trace(1);

    EXPECT_RC(0, listAnswered(answer(), systems));

    EXPECT_EQ("", trace.text());
}

TEST_F(ListSystemsTrace, TellsOfItsRegistrationAtLevelTwo)
{
    TraceFile trace(2);

    EXPECT_RC(0, listAnswered(answer(), systems));

    EXPECT_EQ((std::vector<std::string>{
                  "clapi_gwytok.clapiRegisterRequest() Outstanding API calls=1 on gwTokPtr=" +
                      shown(connection.token),
                  "clapi_gwytok.clapiUnregisterRequest() Outstanding API calls=0 on gwTokPtr=" +
                      shown(connection.token)}),
              trace.messages());
}

TEST_F(ListSystemsTrace, TellsOfItsStepsInOrderAtLevelThree)
{
    TraceFile trace(3);

    EXPECT_RC(0, listAnswered(answer(), systems));

    EXPECT_EQ((std::vector<int>{1017, 2020, 2023, 2024, 2052, 2056, 1064, 1065, 3204, 3202, 3203,
                                3205, 2025, 2027, 2028, 1028}),
              points(trace));
    EXPECT_TRUE(trace.wrote(1017, "ENTRY",
                            "API.QPX_listSystems(gwTok=" + shown(connection.token) + ", Systems=" +
                                shown(&systems.count) + ", List=" + shown(systems.get()) + ")"));
    EXPECT_TRUE(
        trace.wrote(3203, "EXIT", "clapi_socketcomms.calculateECIRequestSize() requestSize=19"));
    EXPECT_TRUE(trace.wrote(1028, "EXIT", "API.QPX_listSystems() rc=0 (QPX_OK)"));
}

TEST_F(ListSystemsTrace, ArmsTheEventBeforeItSendsAtLevelFour)
{
    TraceFile trace(4);

    EXPECT_RC(0, listAnswered(answer(), systems));

    EXPECT_EQ((std::vector<int>{1017, 2020, 2023, 2024, 2052, 2056, 1064, 1065, 3121, 3204, 3202,
                                3203, 3205, 3119, 2025, 2027, 2028, 1028}),
              points(trace));
}

TEST_F(ListSystemsTrace, NamesTheCodesOfTheList)
{
    TraceFile trace(3);

    EXPECT_RC(-25, listAnswered(ListReply().serverCode(-25).to(1), systems));
    EXPECT_TRUE(trace.wrote(1028, "EXIT", "API.QPX_listSystems() rc=-25 (QPX_ERR_MORE_SYSTEMS)"));

    EXPECT_RC(-26, listAnswered(ListReply().serverCode(-26).to(1), systems));
    EXPECT_TRUE(trace.wrote(1028, "EXIT", "API.QPX_listSystems() rc=-26 (QPX_ERR_NO_SYSTEMS)"));
}

TEST_F(ListSystemsTrace, ShowsNullPointers)
{
    TraceFile trace(3);

    EXPECT_RC(-100, QPX_listSystems(nullptr, nullptr, nullptr));

    EXPECT_TRUE(
        trace.wrote(1017, "ENTRY", "API.QPX_listSystems(gwTok=(nil), Systems=(nil), List=(nil))"));
    EXPECT_TRUE(trace.wrote(1028, "EXIT", "API.QPX_listSystems() rc=-100 (QPX_ERR_NULLGWTOK)"));
}

} // namespace
