// The query of the systems that a Gateway knows: its request, and what becomes of the answers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/esi_script.h"

using namespace script;
using support::EciParms;
using support::int32At;
using support::padded;
using support::slice;
using support::syncCall;
using support::toHex;
using support::TraceFile;

namespace {

class ListSystems : public EsiConnection {
protected:
    // The request of a query with this capacity.
    Request requestFor(unsigned short capacity)
    {
        SystemArray systems(1);
        systems.count = capacity;
        EXPECT_RC(0, listAnswered(ListReply().to(1), systems));
        return request;
    }

    // The name that a query gives for one of these nine bytes.
    std::string nameFor(const Bytes& name)
    {
        SystemArray systems(1);
        EXPECT_RC(0, listAnswered(ListReply().reported(1).data(systemEntry(name)).to(1), systems));
        EXPECT_TRUE(systems.hasNothingBehind());
        return toHex(systems.name(0));
    }

    // A query of two systems has this result, and changes nothing.
    void expectFailed(int rc, const Bytes& answer)
    {
        SystemArray systems(2);
        EXPECT_RC(rc, listAnswered(answer, systems));
        EXPECT_EQ(2, systems.count);
        EXPECT_TRUE(systems.isUntouched());
    }

    // So many entries, named S1, S2 and so on.
    static Bytes entries(int count)
    {
        Bytes all;
        for (int number = 1; number <= count; ++number)
            all += systemEntry(padded("S" + std::to_string(number), 8, ' '),
                               "System " + std::to_string(number));
        return all;
    }
};

// ---- The request ----

TEST_F(ListSystems, SendsAQueryWithItsCapacity)
{
    Request query = requestFor(3);

    EXPECT_EQ(toHex(hex("47617465"    // "Gate"
                        "10A01000"    // version
                        "00000001"    // a request
                        "00000001"    // message id: the first slot
                        "00000000"    // return code
                        "00000003"    // length of the request type
                        "454349"      // "ECI"
                        "00"          // security
                        "00000013")), // 19 bytes follow
              toHex(query.header));
    EXPECT_EQ(toHex(hex("00000009"    // list systems
                        "00000003"    // room for three
                        "0000"        // time-out
                        "00"          // automatic qualifier
                        "FFFFFFFF"    // no transaction branch
                        "00000001")), // the first request of the process
              toHex(query.body));
}

TEST_F(ListSystems, SendsAnyCapacity)
{
    EXPECT_EQ("00000000", toHex(slice(requestFor(0).body, 4, 4)));
    EXPECT_EQ("00000001", toHex(slice(requestFor(1).body, 4, 4)));
    EXPECT_EQ("00007FFF", toHex(slice(requestFor(32767).body, 4, 4)));
    EXPECT_EQ("00008000", toHex(slice(requestFor(32768).body, 4, 4)));
    EXPECT_EQ("0000FFFF", toHex(slice(requestFor(65535).body, 4, 4)));
}

TEST_F(ListSystems, TagsItsRequestsLikeThoseOfOtherCalls)
{
    EXPECT_EQ(1, int32At(requestFor(1).body, 15));
    expectStillServing(connection);
    EXPECT_EQ(3, int32At(requestFor(1).body, 15));
}

// ---- Systems ----

TEST_F(ListSystems, GivesNoSystem)
{
    SystemArray systems(2);

    EXPECT_RC(-26, listAnswered(ListReply().serverCode(-26).to(1), systems));

    EXPECT_EQ(0, systems.count);
    EXPECT_TRUE(systems.isUntouched());
    expectServing();
}

TEST_F(ListSystems, GivesOneSystem)
{
    SystemArray systems(2);
    Bytes name = text("PROD    ") + hex("00");

    EXPECT_RC(0, listAnswered(ListReply().reported(1).data(systemEntry(name, "Production")).to(1),
                              systems));

    EXPECT_EQ(1, systems.count);
    EXPECT_STREQ("PROD", systems.get()[0].SystemName);
    EXPECT_STREQ("Production", systems.get()[0].Description);
    EXPECT_EQ(toHex(filled(70, 'U')), toHex(systems.entry(1)));
    EXPECT_TRUE(systems.hasNothingBehind());
}

TEST_F(ListSystems, GivesAsManySystemsAsFit)
{
    SystemArray systems(3);

    EXPECT_RC(0, listAnswered(ListReply().reported(3).data(entries(3)).to(1), systems));

    EXPECT_EQ(3, systems.count);
    EXPECT_STREQ("S1", systems.get()[0].SystemName);
    EXPECT_STREQ("S2", systems.get()[1].SystemName);
    EXPECT_STREQ("S3", systems.get()[2].SystemName);
    EXPECT_STREQ("System 3", systems.get()[2].Description);
    EXPECT_TRUE(systems.hasNothingBehind());
}

TEST_F(ListSystems, ReportsMoreSystemsThanFit)
{
    SystemArray systems(3);

    EXPECT_RC(
        -25, listAnswered(ListReply().reported(5).serverCode(-25).data(entries(3)).to(1), systems));

    EXPECT_EQ(5, systems.count);
    EXPECT_STREQ("S1", systems.get()[0].SystemName);
    EXPECT_STREQ("S3", systems.get()[2].SystemName);
    EXPECT_TRUE(systems.hasNothingBehind());
    expectServing();
}

// What stands behind the list looks like a name that could be trimmed.
TEST_F(ListSystems, DoesNotTrimBehindTheList)
{
    struct {
        QPX_listSystem_t entry;
        char behind[140];
    } memory;
    std::memset(&memory, ' ', sizeof memory);
    unsigned short count = 1;
    auto call = callInThread(
        [&] { return QPX_listSystems(connection.token, &count, &memory.entry); });
    answerWith(ListReply().reported(3).serverCode(-25).data(entries(1)).to(1));

    EXPECT_RC(-25, call.get());
    EXPECT_EQ(3, count);
    EXPECT_STREQ("S1", memory.entry.SystemName);
    EXPECT_EQ(std::string(140, ' '), std::string(memory.behind, 140));
}

TEST_F(ListSystems, DropsSystemsThatDoNotFit)
{
    SystemArray systems(3);

    EXPECT_RC(
        -25, listAnswered(ListReply().reported(5).serverCode(-25).data(entries(5)).to(1), systems));

    EXPECT_EQ(5, systems.count);
    EXPECT_STREQ("S3", systems.get()[2].SystemName);
    EXPECT_TRUE(systems.hasNothingBehind());
    expectServing();
}

TEST_F(ListSystems, DropsAListThatIsMuchTooLong)
{
    SystemArray systems(2);

    EXPECT_RC(0, listAnswered(ListReply().reported(2000).data(entries(2000)).to(1), systems));

    EXPECT_EQ(2000, systems.count);
    EXPECT_STREQ("S2", systems.get()[1].SystemName);
    EXPECT_TRUE(systems.hasNothingBehind());
    expectServing();
}

TEST_F(ListSystems, WritesNothingToAListWithoutRoom)
{
    SystemArray systems(0);

    EXPECT_RC(
        -25, listAnswered(ListReply().reported(2).serverCode(-25).data(entries(2)).to(1), systems));

    EXPECT_EQ(2, systems.count);
    EXPECT_TRUE(systems.isUntouched());
    expectServing();
}

TEST_F(ListSystems, GivesTheLargestListThatCanBeReported)
{
    SystemArray systems(65535);
    auto call = startList(systems);
    request = connection.awaitRequest();
    connection.peer.send(ListReply().reported(65535).data(entries(65535)).to(1));

    EXPECT_RC(0, call.get());
    EXPECT_EQ(65535, systems.count);
    EXPECT_STREQ("S1", systems.get()[0].SystemName);
    EXPECT_STREQ("S32768", systems.get()[32767].SystemName);
    EXPECT_STREQ("S65535", systems.get()[65534].SystemName);
    EXPECT_STREQ("System 65535", systems.get()[65534].Description);
    EXPECT_TRUE(systems.hasNothingBehind());
    expectServing();
}

TEST_F(ListSystems, SurvivesTheLargestReportOfASmallList)
{
    SystemArray systems(1);

    EXPECT_RC(-25, listAnswered(ListReply().reported(65535).serverCode(-25).data(entries(1)).to(1),
                                systems));

    EXPECT_EQ(65535, systems.count);
    EXPECT_STREQ("S1", systems.get()[0].SystemName);
    EXPECT_TRUE(systems.hasNothingBehind());
}

TEST_F(ListSystems, ReportsTheLowSixteenBitsOfTheNumber)
{
    SystemArray systems(4);
    EXPECT_RC(0, listAnswered(ListReply().reported(0x12340003).data(entries(3)).to(1), systems));
    EXPECT_EQ(3, systems.count);

    SystemArray negative(4);
    EXPECT_RC(0, listAnswered(ListReply().reported(-1).data(entries(4)).to(1), negative));
    EXPECT_EQ(65535, negative.count);
    EXPECT_TRUE(negative.hasNothingBehind());
}

TEST_F(ListSystems, LeavesEntriesThatAreNotReportedUntrimmed)
{
    SystemArray systems(2);

    EXPECT_RC(0, listAnswered(ListReply().reported(1).data(entries(2)).to(1), systems));

    EXPECT_EQ(toHex(text("S1") + filled(7)), toHex(systems.name(0)));
    EXPECT_EQ(toHex(text("S2      ") + filled(1)), toHex(systems.name(1)));
}

// ---- Names and descriptions ----

TEST_F(ListSystems, TrimsANamePaddedWithBlanks)
{
    EXPECT_EQ("50524F44 31000000 00", nameFor(text("PROD1   ") + hex("00")));
}

TEST_F(ListSystems, TrimsANamePaddedToTheNinthByte)
{
    EXPECT_EQ("50524F44 31000000 00", nameFor(text("PROD1    ")));
}

TEST_F(ListSystems, TrimsBlanksAndZerosInAnyOrder)
{
    EXPECT_EQ("50000000 00000000 00", nameFor(hex("50 20 00 20 00 20 20 00 20")));
}

TEST_F(ListSystems, KeepsTheFirstBlankOfANameOfBlanks)
{
    EXPECT_EQ("20000000 00000000 00", nameFor(text("        ") + hex("00")));
    EXPECT_EQ("20000000 00000000 00", nameFor(text("         ")));
}

TEST_F(ListSystems, KeepsANameOfZeros)
{
    EXPECT_EQ("00000000 00000000 00", nameFor(filled(9)));
}

TEST_F(ListSystems, KeepsTheFirstZeroOfANameThatIsOtherwiseBlank)
{
    EXPECT_EQ("00000000 00000000 00", nameFor(hex("00") + text("        ")));
}

TEST_F(ListSystems, KeepsANameOfEightCharacters)
{
    EXPECT_EQ("41424344 45464748 00", nameFor(text("ABCDEFGH") + hex("00")));
    EXPECT_EQ("41424344 45464748 00", nameFor(text("ABCDEFGH ")));
}

TEST_F(ListSystems, KeepsANameOfOneCharacter)
{
    EXPECT_EQ("41000000 00000000 00", nameFor(text("A       ") + hex("00")));
}

TEST_F(ListSystems, KeepsBlanksWithinAName)
{
    EXPECT_EQ("20412042 00000000 00", nameFor(text(" A B    ") + hex("00")));
}

TEST_F(ListSystems, KeepsZerosWithinAName)
{
    EXPECT_EQ("41000042 00000000 00", nameFor(hex("41 00 00 42 20 20 20 20 00")));
}

TEST_F(ListSystems, KeepsOtherCharactersAtTheEndOfAName)
{
    EXPECT_EQ("41090000 00000000 00", nameFor(hex("41 09 20 20 20 20 20 20 00")));
    EXPECT_EQ("41424344 45464748 49", nameFor(text("ABCDEFGHI")));
}

TEST_F(ListSystems, LeavesDescriptionsAsReceived)
{
    SystemArray systems(2);
    std::string blanks = "Payroll" + std::string(54, ' ');
    std::string full(61, 'd');

    EXPECT_RC(0, listAnswered(ListReply()
                                  .reported(2)
                                  .data(systemEntry("ONE", blanks) + systemEntry("TWO", full))
                                  .to(1),
                              systems));

    EXPECT_EQ(blanks, systems.description(0));
    EXPECT_EQ(full, systems.description(1));
}

// ---- Codes ----

TEST_F(ListSystems, PassesTheServersCodeOn)
{
    for (int code : {-3, -9, -16, -22, -27, -28, -29, -106, -1, 5}) {
        SCOPED_TRACE(code);
        SystemArray systems(2);
        EXPECT_RC(
            code,
            listAnswered(ListReply().reported(1).serverCode(code).data(entries(1)).to(1), systems));
        EXPECT_EQ(1, systems.count);
        EXPECT_STREQ("S1", systems.get()[0].SystemName);
    }
    expectServing();
}

TEST_F(ListSystems, ChangesNothingWhenTheGatewayReportsAnError)
{
    for (int code : {-9, -25, 61444, 61445, 61450, 61451, 1}) {
        SCOPED_TRACE(code);
        expectFailed(code, ListReply().reported(1).data(entries(1)).to(1, code));
    }
    expectServing();
}

TEST_F(ListSystems, PrefersTheGatewaysCodeToTheServers)
{
    expectFailed(61445, ListReply().reported(7).serverCode(-25).data(entries(2)).to(1, 61445));
    expectFailed(61445, ListReply().serverCode(-26).to(1, 61445));
    expectServing();
}

TEST_F(ListSystems, ChangesNothingWithTheGatewaysErrorAndNoBody)
{
    for (std::size_t length = 0; length <= 16; ++length) {
        SCOPED_TRACE(length);
        expectFailed(61445, flow(replyType, 1, 61445, "ECI",
                                 slice(ListReply().reported(9).body(), 0, length)));
    }
    expectServing();
}

TEST_F(ListSystems, ChangesNothingByAnErrorFlow)
{
    expectFailed(61451, errorFlow(1, 61451));
    expectFailed(-25, errorFlow(1, -25));
    expectServing();
}

TEST_F(ListSystems, ChangesNothingByAnExceptionOfTheGateway)
{
    expectFailed(61446, exceptionFlow(1, "sorry"));
    expectServing();
}

TEST_F(ListSystems, ChangesNothingByAnUnknownType)
{
    expectFailed(-9, flow(replyType, 1, 0, "XYZ", ListReply().reported(1).data(entries(1)).body()));
    expectServing();
}

// ---- Answers of another kind, or of a wrong length ----

TEST_F(ListSystems, TakesNoEntriesFromAPasswordReply)
{
    SystemArray systems(2);

    EXPECT_RC(-106, listAnswered(refusal(1, -106), systems));

    EXPECT_TRUE(systems.isUntouched());
    expectServing();
}

TEST_F(ListSystems, TakesNoMoreThanItsRoomFromAProgramReply)
{
    SystemArray systems(2);

    EXPECT_RC(-7, listAnswered(ProgramReply().serverCode(-7).commarea(filled(30000, 0xEE)).to(1),
                               systems));

    EXPECT_TRUE(systems.hasNothingBehind());
    expectServing();
}

TEST_F(ListSystems, ToAProgramCallFillsNoMoreThanItsCommarea)
{
    EciParms parms = syncCall("PROG", text("12345"));
    auto call = connection.start(parms);
    connection.awaitRequest();

    connection.peer.send(ListReply().reported(77).data(filled(30000, 'S')).to(1));

    EXPECT_RC(0, call.get());
    EXPECT_EQ(text("SSSSS"), parms.commarea());
    EXPECT_EQ(77, int(parms.record.eci_luw_token));
    expectServing();
}

TEST_F(ListSystems, TakesANegativeLengthForNoData)
{
    SystemArray systems(2);

    EXPECT_RC(-26, listAnswered(ListReply().serverCode(-26).data(-1, Bytes()).to(1), systems));

    EXPECT_EQ(0, systems.count);
    EXPECT_TRUE(systems.isUntouched());
    expectServing();
}

TEST_F(ListSystems, LosesTheConnectionByALengthBeyondTheMessage)
{
    for (int length : {71, 140, 141, 40000, 0x7FFFFFFF}) {
        SCOPED_TRACE(length);
        ScriptedConnection broken;
        SystemArray systems(2);
        auto call = callInThread(
            [&] { return QPX_listSystems(broken.token, &systems.count, systems.get()); });
        broken.awaitRequest();

        broken.peer.send(ListReply().reported(2).data(length, entries(1)).to(1));

        EXPECT_RC(-102, call.get());
        EXPECT_EQ(2, systems.count);
        EXPECT_TRUE(systems.hasNothingBehind());
    }
}

TEST_F(ListSystems, LosesTheConnectionByABodyThatIsTooShort)
{
    for (std::size_t length = 0; length < 16; ++length) {
        SCOPED_TRACE(length);
        ScriptedConnection broken;
        SystemArray systems(2);
        auto call = callInThread(
            [&] { return QPX_listSystems(broken.token, &systems.count, systems.get()); });
        broken.awaitRequest();

        broken.peer.send(
            flow(replyType, 1, 0, "ECI", slice(ListReply().reported(2).body(), 0, length)));

        EXPECT_RC(-102, call.get());
        EXPECT_EQ(2, systems.count);
        EXPECT_TRUE(systems.isUntouched());
    }
}

TEST_F(ListSystems, DropsWhatFollowsTheEntries)
{
    SystemArray systems(2);
    Bytes body = ListReply().reported(1).data(entries(1)).body() + filled(50000, 0xEE);

    EXPECT_RC(0, listAnswered(flow(replyType, 1, 0, "ECI", body), systems));

    EXPECT_EQ(1, systems.count);
    EXPECT_TRUE(systems.hasNothingBehind());
    expectServing();
}

TEST_F(ListSystems, ReadsItsAnswerFromPiecesOfEverySize)
{
    Bytes answer = ListReply().reported(2).data(entries(2)).to(1);
    for (std::size_t piece = 1; piece <= answer.size(); ++piece) {
        SCOPED_TRACE(piece);
        SystemArray systems(2);
        auto call = startList(systems);
        connection.awaitRequest();
        connection.peer.sendInPieces(answer, piece);
        ASSERT_RC(0, call.get());
        ASSERT_EQ(2, systems.count);
        ASSERT_STREQ("S2", systems.get()[1].SystemName);
    }
}

TEST_F(ListSystems, ReachesTheCallThatAskedForIt)
{
    SystemArray one(1);
    SystemArray two(1);
    auto first = startList(one);
    int firstId = connection.awaitRequest().messageId();
    auto second = startList(two);
    int secondId = connection.awaitRequest().messageId();

    connection.peer.send(ListReply().reported(1).data(systemEntry("TWO")).to(secondId) +
                         ListReply().reported(1).data(systemEntry("ONE")).to(firstId));

    EXPECT_RC(0, first.get());
    EXPECT_RC(0, second.get());
    EXPECT_STREQ("ONE", one.get()[0].SystemName);
    EXPECT_STREQ("TWO", two.get()[0].SystemName);
}

TEST_F(ListSystems, GivesNoRoomForDataToTheNextCall)
{
    SystemArray systems(2);
    EXPECT_RC(0, listAnswered(ListReply().reported(1).data(entries(1)).to(1), systems));
    Details details;

    verifyAnswered(ListReply().reported(2).data(entries(2)).to(1), details.get());

    EXPECT_EQ(toHex(filled(70, 'U')), toHex(systems.entry(1)));
    EXPECT_TRUE(details.areUntouched());
    EXPECT_TRUE(details.haveNothingAround());
}

TEST_F(ListSystems, IsNotCollectedAsAnAsynchronousReply)
{
    SystemArray systems(2);
    auto call = startList(systems);
    connection.awaitRequest();

    EciParms collecting = support::getSpecificReply(1, 10);
    EXPECT_RC(-33, QPX_ECI_Execute(connection.token, &collecting.record));

    connection.peer.send(ListReply().reported(1).data(entries(1)).to(1));
    EXPECT_RC(0, call.get());
    collecting = support::getReply(10);
    EXPECT_RC(-32, QPX_ECI_Execute(connection.token, &collecting.record));
}

} // namespace
