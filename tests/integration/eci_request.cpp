// ECI requests as they leave: every byte, written out by hand.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/eci_script.h"

using namespace script;
using support::asyncCall;
using support::EciParms;
using support::padded;
using support::slice;
using support::syncCall;
using support::toHex;
using support::TraceFile;

namespace {

// The tag of a request stands in its last four bytes.
Bytes withoutCorrelator(const Bytes& body)
{
    return slice(body, 0, body.size() - 4);
}

int correlator(const Bytes& body)
{
    return support::int32At(body, body.size() - 4);
}

// The end of every request of a program call without the tag: no channel, time-out 0, no automatic
// qualifier, no transaction branch.
const char* const tail = "00 0000 00 FFFFFFFF";

class EciRequest : public ::testing::Test {
protected:
    // Makes the call, answers it, and returns the request as it arrived.
    Request requestOf(EciParms& parms)
    {
        auto call = connection.start(parms);
        Request request = connection.awaitRequest();
        if (parms.record.eci_call_type == ECI_SYNC)
            connection.peer.send(ProgramReply().to(request.messageId()));
        EXPECT_RC(0, call.get());
        EXPECT_TRUE(connection.peer.isQuiet());
        return request;
    }

    void expectBody(EciParms& parms, const Bytes& expected)
    {
        EXPECT_EQ(toHex(expected), toHex(withoutCorrelator(requestOf(parms).body)));
    }

    // The body up to the COMMAREA's length, of a call without anything but a program.
    static Bytes plainStart()
    {
        return hex("00000001"                      // call type
                   "00000000 00000000 00000000 00" // extend mode, LUW token, qualifier, callback
                   "00000008 00000000 00000000"    // length and name of the server
                   "00000000 00000000 00000000 00000000" // user id
                   "00000000") +                         // length of the password
               text("PROG    ") +
               hex("00000000"   // transaction id
                   "00000000"); // length of the token
    }

    ScriptedConnection connection;
};

} // namespace

TEST_F(EciRequest, CarriesTheHeaderOfAProgramCall)
{
    EciParms parms = syncCall("PROG", filled(100, 'c'));
    EXPECT_EQ(toHex(hex("47617465"    // "Gate"
                        "10A01000"    // version
                        "00000001"    // a request
                        "00000001"    // message id: the first slot
                        "00000000"    // return code
                        "00000003"    // length of the request type
                        "454349"      // "ECI"
                        "00"          // security
                        "000000B7")), // 183 bytes follow
              toHex(requestOf(parms).header));
}

TEST_F(EciRequest, CarriesEveryFieldOfTheRecord)
{
    EciParms parms = syncCall("LEDGER", text("0123456789"));
    parms.withUser("CLERK", "ABC").withSystem("PROD").withTransid("TR01");
    parms.record.eci_timeout = 0x1234;
    parms.record.commarea_outbound_length = 4;
    parms.record.commarea_inbound_length = 6;

    expectBody(parms, hex("00000001"         // call type
                          "00000000"         // extend mode
                          "00000000"         // LUW token
                          "00000000"         // message qualifier
                          "00"               // callback
                          "00000008") +      // length of the server's name
                          text("PROD    ") + // server
                          text("CLERK") +
                          hex("0000000000 000000000000") + // user id
                          hex("00000003"                   // length of the password
                              "BE0301") +                  // "ABC"
                          text("LEDGER  ") +               // program
                          text("TR01") +                   // transaction id
                          hex("00000000"                   // length of the token
                              "0000000A"                   // length of the COMMAREA
                              "FF 00000004"                // outbound length
                              "FF 00000006") +             // inbound length
                          text("0123") +                   // COMMAREA
                          hex("00"                         // channel
                              "1234"                       // time-out
                              "00"                         // automatic qualifier
                              "FFFFFFFF"));                // no transaction branch
}

TEST_F(EciRequest, TagsTheRequestsOfAProcessFromOneOn)
{
    EciParms first = syncCall("PROG");
    EXPECT_EQ(1, correlator(requestOf(first).body));
    EciParms second = syncCall("PROG");
    EXPECT_EQ(2, correlator(requestOf(second).body));
    EciParms third = asyncCall("PROG");
    EXPECT_EQ(3, correlator(requestOf(third).body));
}

TEST_F(EciRequest, UsesAFreedMessageIdAgain)
{
    EciParms first = syncCall("PROG");
    EXPECT_EQ(1, requestOf(first).messageId());
    EciParms second = syncCall("PROG");
    EXPECT_EQ(1, requestOf(second).messageId());
}

// ---- The COMMAREA and its lengths ----

TEST_F(EciRequest, CarriesTheWholeCommareaWhenNoLengthIsGiven)
{
    EciParms parms = syncCall("PROG", text("abcde"));
    expectBody(parms, plainStart() + hex("00000005 00 00") + text("abcde") + hex(tail));
}

TEST_F(EciRequest, CarriesNoCommareaWhenThereIsNone)
{
    EciParms parms = syncCall("PROG");
    expectBody(parms, plainStart() + hex("00000000 00 00") + hex(tail));
}

TEST_F(EciRequest, CarriesTheLargestCommarea)
{
    EciParms parms = syncCall("PROG", filled(32767, 'L'));
    expectBody(parms, plainStart() + hex("00007FFF 00 00") + filled(32767, 'L') + hex(tail));
}

TEST_F(EciRequest, CutsTheCommareaToTheOutboundLength)
{
    EciParms parms = syncCall("PROG", text("abcde"));
    parms.record.commarea_outbound_length = 2;
    expectBody(parms, plainStart() + hex("00000005 FF 00000002 00") + text("ab") + hex(tail));
}

TEST_F(EciRequest, CarriesAnOutboundLengthThatEqualsTheCommarea)
{
    EciParms parms = syncCall("PROG", text("abcde"));
    parms.record.commarea_outbound_length = 5;
    expectBody(parms, plainStart() + hex("00000005 FF 00000005 00") + text("abcde") + hex(tail));
}

TEST_F(EciRequest, CapsTheOutboundLengthAtTheCommarea)
{
    EciParms parms = syncCall("PROG", text("abcde"));
    parms.record.commarea_outbound_length = 6;
    expectBody(parms, plainStart() + hex("00000005 FF 00000005 00") + text("abcde") + hex(tail));
}

TEST_F(EciRequest, CarriesTheInboundLength)
{
    EciParms parms = syncCall("PROG", text("abcde"));
    parms.record.commarea_inbound_length = 5;
    expectBody(parms, plainStart() + hex("00000005 00 FF 00000005") + text("abcde") + hex(tail));
}

TEST_F(EciRequest, CapsTheInboundLengthAtTheCommarea)
{
    EciParms parms = syncCall("PROG", text("abcde"));
    parms.record.commarea_inbound_length = 32767;
    expectBody(parms, plainStart() + hex("00000005 00 FF 00000005") + text("abcde") + hex(tail));
}

TEST_F(EciRequest, CarriesNoLengthsWithoutACommarea)
{
    EciParms parms = syncCall("PROG");
    parms.record.commarea_outbound_length = 10;
    parms.record.commarea_inbound_length = 10;
    expectBody(parms, plainStart() + hex("00000000 00 00") + hex(tail));
}

// ---- Credentials ----

namespace {

// The part of a body from the user id to the password.
Bytes credentialsIn(const Bytes& body)
{
    return slice(body, 29, 20 + static_cast<std::size_t>(support::int32At(body, 45)));
}

} // namespace

TEST_F(EciRequest, TakesFixedCredentialsOfVersionThree)
{
    EciParms parms = syncCall("PROG");
    parms.withVersion(3).withUser("POINTER", "pointer");
    std::memcpy(parms.record.eci_userid, "USER3\0", 6);
    std::memcpy(parms.record.eci_password, "ABC\0", 4);
    EXPECT_EQ(toHex(padded("USER3", 16) + hex("00000003 BE0301")),
              toHex(credentialsIn(requestOf(parms).body)));
}

TEST_F(EciRequest, TakesFixedCredentialsOfVersionFour)
{
    EciParms parms = syncCall("PROG");
    parms.withVersion(4).withUser("POINTER", "pointer");
    std::memcpy(parms.record.eci_userid, "USER4\0", 6);
    std::memcpy(parms.record.eci_password, "ABC\0", 4);
    EXPECT_EQ(toHex(padded("USER4", 16) + hex("00000003 BE0301")),
              toHex(credentialsIn(requestOf(parms).body)));
}

TEST_F(EciRequest, TakesFixedCredentialsOfANegativeVersion)
{
    EciParms parms = syncCall("PROG");
    parms.withVersion(-1).withUser("POINTER", "pointer");
    std::memcpy(parms.record.eci_userid, "NEGATIVE\0", 9);
    std::memcpy(parms.record.eci_password, "ABC\0", 4);
    EXPECT_EQ(toHex(padded("NEGATIVE", 16) + hex("00000003 BE0301")),
              toHex(credentialsIn(requestOf(parms).body)));
}

TEST_F(EciRequest, TakesCredentialsByPointerFromVersionFive)
{
    EciParms parms = syncCall("PROG");
    parms.withVersion(5).withFixedUser("FIXED", "fixed").withUser("USER5", "ABC");
    EXPECT_EQ(toHex(padded("USER5", 16) + hex("00000003 BE0301")),
              toHex(credentialsIn(requestOf(parms).body)));
}

TEST_F(EciRequest, TakesCredentialsByPointerOfVersionSix)
{
    EciParms parms = syncCall("PROG");
    parms.withFixedUser("FIXED", "fixed").withUser("USER6", "ABC");
    EXPECT_EQ(toHex(padded("USER6", 16) + hex("00000003 BE0301")),
              toHex(credentialsIn(requestOf(parms).body)));
}

TEST_F(EciRequest, CarriesNoCredentialsForNullPointers)
{
    EciParms parms = syncCall("PROG");
    parms.withFixedUser("FIXED", "fixed");
    EXPECT_EQ(toHex(filled(16) + hex("00000000")), toHex(credentialsIn(requestOf(parms).body)));
}

TEST_F(EciRequest, CarriesAUserWithoutAPassword)
{
    EciParms parms = syncCall("PROG");
    parms.withUser("USER", "");
    EXPECT_EQ(toHex(padded("USER", 16) + hex("00000000")),
              toHex(credentialsIn(requestOf(parms).body)));
}

TEST_F(EciRequest, TerminatesFixedCredentialsThatFillTheirFields)
{
    EciParms parms = syncCall("PROG");
    parms.withVersion(3).withFixedUser("SIXTEENLETTERS16", "AAAAAAAAAAAAAAAA");
    // Equal letters: each but the first cancels out against the one before it.
    EXPECT_EQ(toHex(text("SIXTEENLETTERS16") + hex("00000010 BE000000 00000000 00000000 00000000")),
              toHex(credentialsIn(requestOf(parms).body)));
}

TEST_F(EciRequest, CountsBlanksOfAFixedPassword)
{
    EciParms parms = syncCall("PROG");
    parms.withVersion(3).withFixedUser("U", "AB");
    EXPECT_EQ(toHex(text("U               ") + hex("00000010 BE036200 00000000 00000000 00000000")),
              toHex(credentialsIn(requestOf(parms).body)));
}

TEST_F(EciRequest, CutsALongUserIdToSixteenBytes)
{
    EciParms parms = syncCall("PROG");
    parms.withUser("SEVENTEENLETTERS!", "ABC");
    EXPECT_EQ(toHex(text("SEVENTEENLETTERS") + hex("00000003 BE0301")),
              toHex(credentialsIn(requestOf(parms).body)));
}

TEST_F(EciRequest, CarriesAPasswordOfAnyLength)
{
    EciParms parms = syncCall("PROG");
    parms.withUser("U", std::string(300, 'A'));
    EXPECT_EQ(toHex(padded("U", 16) + hex("0000012C BE") + filled(299)),
              toHex(credentialsIn(requestOf(parms).body)));
}

TEST_F(EciRequest, ScramblesAPasswordLongerThanTheSendingBuffer)
{
    EciParms parms = syncCall("PROG");
    parms.withUser("U", std::string(40000, 'A') + "BC");
    EXPECT_EQ(toHex(padded("U", 16) + hex("00009C42 BE") + filled(39999) + hex("03 01")),
              toHex(credentialsIn(requestOf(parms).body)));
}

TEST_F(EciRequest, LeavesTheCallersCredentialsAsTheyAre)
{
    EciParms parms = syncCall("PROG");
    parms.withFixedUser("FIXED", "fixed").withUser("USER", "secret");
    requestOf(parms);
    EXPECT_STREQ("USER", parms.user.data());
    EXPECT_STREQ("secret", parms.password.data());
    EXPECT_EQ(0, std::memcmp("FIXED           ", parms.record.eci_userid, 16));
    EXPECT_EQ(0, std::memcmp("fixed           ", parms.record.eci_password, 16));
}

TEST_F(EciRequest, TellsInTheTraceWhichCredentialsItTakes)
{
    TraceFile trace(4);
    EciParms fixed = syncCall("PROG");
    fixed.withVersion(4);
    requestOf(fixed);
    EXPECT_TRUE(trace.wroteText("DEBUG  clapi_eci.performEciExecute() eci_version set to 4, using "
                                "eci_userid and eci_password\n"));
    EXPECT_FALSE(trace.wroteText("using eci_userid_ptr"));
    trace.forget();
    EciParms pointers = syncCall("PROG");
    pointers.withVersion(5);
    requestOf(pointers);
    EXPECT_TRUE(trace.wroteText("DEBUG  clapi_eci.performEciExecute() eci_version set to 5, using "
                                "eci_userid_ptr and eci_password_ptr\n"));
    EXPECT_FALSE(trace.wroteText("using eci_userid and"));
}

// ---- The transaction program ----

TEST_F(EciRequest, NamesTheTransactionProgramWhenThereIsOne)
{
    EciParms parms = syncCall("PROG");
    parms.withTransid("TR01").withTpn("TP01");
    Bytes body = requestOf(parms).body;
    EXPECT_EQ(toHex(hex("0000000C")), toHex(slice(body, 0, 4)));
    EXPECT_EQ(toHex(text("PROG    TP01")), toHex(slice(body, 49, 12)));
}

TEST_F(EciRequest, TakesBlanksForATransactionProgram)
{
    EciParms parms = syncCall("PROG");
    parms.withTransid("TR01").withTpn("    ");
    Bytes body = requestOf(parms).body;
    EXPECT_EQ(12, support::int32At(body, 0));
    EXPECT_EQ(toHex(text("    ")), toHex(slice(body, 57, 4)));
}

TEST_F(EciRequest, TakesATransactionProgramOfOneLetterAnywhere)
{
    EciParms parms = syncCall("PROG");
    parms.withTransid("TR01");
    parms.record.eci_tpn[3] = 'X';
    Bytes body = requestOf(parms).body;
    EXPECT_EQ(12, support::int32At(body, 0));
    EXPECT_EQ(toHex(hex("000000 58")), toHex(slice(body, 57, 4)));
}

TEST_F(EciRequest, NamesTheTransactionWhenThereIsNoTransactionProgram)
{
    EciParms parms = syncCall("PROG");
    parms.withTransid("TR01");
    Bytes body = requestOf(parms).body;
    EXPECT_EQ(1, support::int32At(body, 0));
    EXPECT_EQ(toHex(text("TR01")), toHex(slice(body, 57, 4)));
}

// ---- Fixed fields, extend modes, asynchronous calls ----

TEST_F(EciRequest, CarriesTheNamesAsTheApplicationGaveThem)
{
    EciParms parms = syncCall("");
    std::memcpy(parms.record.eci_program_name, "P\0\0\0\0\0\0Q", 8);
    std::memcpy(parms.record.eci_system_name, "EIGHTLET", 8);
    Bytes body = requestOf(parms).body;
    EXPECT_EQ(toHex(hex("00000008") + text("EIGHTLET")), toHex(slice(body, 17, 12)));
    EXPECT_EQ(toHex(hex("50000000 00000051")), toHex(slice(body, 49, 8)));
}

TEST_F(EciRequest, CarriesNoDataWhenAUnitOfWorkEnds)
{
    for (int mode : {2, 4}) {
        EciParms parms = syncCall("PROG", text("abcde"));
        parms.withExtendMode(mode);
        parms.record.commarea_inbound_length = 3;
        parms.record.commarea_outbound_length = 3;
        Bytes start = plainStart();
        start[7] = static_cast<unsigned char>(mode);
        expectBody(parms, start + hex("00000000 00 00") + hex(tail));
    }
}

TEST_F(EciRequest, CarriesDataWhenAUnitOfWorkBegins)
{
    EciParms parms = syncCall("PROG", text("abcde"));
    parms.withExtendMode(1);
    Bytes start = plainStart();
    start[7] = 1;
    expectBody(parms, start + hex("00000005 00 00") + text("abcde") + hex(tail));
}

TEST_F(EciRequest, LooksTheSameForAnAsynchronousCall)
{
    EciParms parms = asyncCall("PROG", text("abcde"));
    parms.record.eci_message_qualifier = 77;
    expectBody(parms, plainStart() + hex("00000005 00 00") + text("abcde") + hex(tail));
}

TEST_F(EciRequest, CarriesNoChannelThoughTheRecordNamesOne)
{
    int noChannel = 0;
    EciParms parms = syncCall("PROG", text("abcde"));
    parms.record.channel = reinterpret_cast<ECI_ChannelToken_t>(&noChannel);
    expectBody(parms, plainStart() + hex("00000005 00 00") + text("abcde") + hex(tail));
}

TEST_F(EciRequest, CarriesANegativeTokenAsItIs)
{
    EciParms open = syncCall("PROG");
    open.withExtendMode(1);
    auto opening = connection.start(open);
    connection.peer.send(ProgramReply().luwToken(-2).to(connection.awaitRequest().messageId()));
    ASSERT_RC(0, opening.get());

    EciParms next = syncCall("PROG");
    next.withExtendMode(1, -2);
    Bytes body = requestOf(next).body;
    EXPECT_EQ(toHex(hex("00000001 FFFFFFFE")), toHex(slice(body, 4, 8)));
}

// ---- The dump of what is sent ----

TEST_F(EciRequest, DumpsTheWholeCommareaThatItSends)
{
    TraceFile trace(4);
    EciParms parms = syncCall("PROG", text("ABCDEFGH"));
    requestOf(parms);
    EXPECT_TRUE(trace.wrote(3244, "clapi_socketcomms.clapiFlowECIRequest() Commarea=" +
                                      shown(parms.area.data()) + " len=8 stopword=00000000"));
    EXPECT_EQ(0, trace.timesWrote(3243));
    EXPECT_TRUE(trace.wroteText("len=8 stopword=00000000\nData truncation size=128, offset=0\n" +
                                shown(parms.area.data()) +
                                ": 41424344 45464748                   : ABCDEFGH\n"))
        << trace.text();
}

TEST_F(EciRequest, DumpsTheCutCommareaThatItSends)
{
    TraceFile trace(4);
    EciParms parms = syncCall("PROG", text("ABCDEFGH"));
    parms.record.commarea_outbound_length = 4;
    requestOf(parms);
    EXPECT_TRUE(trace.wrote(3243, "clapi_socketcomms.clapiFlowECIRequest() Commarea=" +
                                      shown(parms.area.data()) + " len=4 stopword=00000000"));
    EXPECT_EQ(0, trace.timesWrote(3244));
}
