// What a synchronous call makes of its reply: results, COMMAREA, codes, and replies that say more
// than fits or do not fit together.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/eci_script.h"

using namespace script;
using support::EciParms;
using support::syncCall;
using support::TraceFile;

namespace {

std::string abendCode(const EciParms& parms)
{
    return std::string(parms.record.eci_abend_code, 4);
}

class EciReply : public ::testing::Test {
protected:
    // Makes the call and answers it with the flow; the answer is for the call's message id.
    int call(EciParms& parms, const ProgramReply& answer, int gatewayRc = 0)
    {
        auto running = connection.start(parms);
        connection.peer.send(answer.to(connection.awaitRequest().messageId(), gatewayRc));
        return running.get();
    }

    int callAndSend(EciParms& parms, const Bytes& bytes)
    {
        auto running = connection.start(parms);
        connection.awaitRequest();
        connection.peer.send(bytes);
        return running.get();
    }

    ScriptedConnection connection;
};

} // namespace

// ---- The COMMAREA ----

TEST_F(EciReply, PutsTheReplyIntoTheCommarea)
{
    EciParms parms = syncCall("PROG", text("question"));
    EXPECT_RC(0, call(parms, ProgramReply().commarea(text("answered"))));
    EXPECT_EQ(text("answered"), parms.commarea());
}

TEST_F(EciReply, ReadsTheRepliesBytesAsTheyStandOnTheWire)
{
    EciParms parms = syncCall("PROG", filled(6, 'x'));
    EXPECT_RC(
        ECI_ERR_TRANSACTION_ABEND,
        callAndSend(parms, hex("47617465 10A01000 00000003 00000001 00000000 00000003 454349 00"
                               "00000023"       // 35 bytes follow
                               "00000001"       // call type
                               "01020304"       // LUW token
                               "00000000"       // message qualifier
                               "FFFFFFF9"       // server code -7
                               "41535241"       // "ASRA"
                               "00000006"       // length of the COMMAREA
                               "FF 00 00000004" // flag, a byte of no use, inbound length
                               "61626364"       // "abcd"
                               "00")));         // no channel
    EXPECT_EQ(hex("61626364 0000"), parms.commarea());
    EXPECT_EQ("ASRA", abendCode(parms));
    EXPECT_EQ(0x01020304, int(parms.record.eci_luw_token));
}

TEST_F(EciReply, FillsTheRestOfTheCommareaWithZeros)
{
    EciParms parms = syncCall("PROG", filled(100, 'x'));
    EXPECT_RC(0, call(parms, ProgramReply().commarea(100, filled(10, 'r')).inbound(10)));
    EXPECT_EQ(filled(10, 'r') + filled(90), parms.commarea());
}

TEST_F(EciReply, FillsTheWholeCommareaWithZerosForAnEmptyReply)
{
    EciParms parms = syncCall("PROG", filled(100, 'x'));
    EXPECT_RC(0, call(parms, ProgramReply().commarea(100, Bytes()).inbound(0)));
    EXPECT_EQ(filled(100), parms.commarea());
}

TEST_F(EciReply, FillsWithZerosUpToTheLengthThatTheReplyTells)
{
    EciParms parms = syncCall("PROG", filled(100, 'x'));
    EXPECT_RC(0, call(parms, ProgramReply().commarea(50, filled(10, 'r')).inbound(10)));
    EXPECT_EQ(filled(10, 'r') + filled(40) + filled(50, 'x'), parms.commarea());
}

TEST_F(EciReply, LeavesTheCommareaBehindAShorterReply)
{
    EciParms parms = syncCall("PROG", filled(100, 'x'));
    EXPECT_RC(0, call(parms, ProgramReply().commarea(filled(10, 'r'))));
    EXPECT_EQ(filled(10, 'r') + filled(90, 'x'), parms.commarea());
}

TEST_F(EciReply, TakesTheLargestCommarea)
{
    EciParms parms = syncCall("PROG", filled(32767, 'x'));
    EXPECT_RC(0, call(parms, ProgramReply().commarea(filled(32767, 'r'))));
    EXPECT_EQ(filled(32767, 'r'), parms.commarea());
}

TEST_F(EciReply, NeedsNoCommarea)
{
    EciParms parms = syncCall("PROG");
    EXPECT_RC(0, call(parms, ProgramReply()));
    EXPECT_EQ(nullptr, static_cast<char*>(parms.record.eci_commarea));
}

TEST_F(EciReply, ComesInPiecesOfAnySize)
{
    for (std::size_t size : {std::size_t(1), std::size_t(2), std::size_t(3), std::size_t(7)}) {
        EciParms parms = syncCall("PROG", filled(20, 'x'));
        auto running = connection.start(parms);
        Request request = connection.awaitRequest();
        connection.peer.sendInPieces(
            ProgramReply().commarea(text("twenty bytes of data")).to(request.messageId()), size);
        EXPECT_RC(0, running.get()) << size;
        EXPECT_EQ(text("twenty bytes of data"), parms.commarea()) << size;
    }
}

TEST_F(EciReply, IsTheRightCallersWhenRepliesComeOutOfOrder)
{
    EciParms first = syncCall("PROG", filled(6, '1'));
    EciParms second = syncCall("PROG", filled(6, '2'));
    auto firstCall = connection.start(first);
    Request firstRequest = connection.awaitRequest();
    auto secondCall = connection.start(second);
    Request secondRequest = connection.awaitRequest();
    EXPECT_EQ(1, firstRequest.messageId());
    EXPECT_EQ(2, secondRequest.messageId());

    connection.peer.send(ProgramReply().commarea(text("two   ")).to(2));
    EXPECT_RC(0, secondCall.get());
    EXPECT_FALSE(firstCall.hasEnded());
    connection.peer.send(ProgramReply().commarea(text("one   ")).to(1));
    EXPECT_RC(0, firstCall.get());
    EXPECT_EQ(text("one   "), first.commarea());
    EXPECT_EQ(text("two   "), second.commarea());
}

// ---- Results in the record ----

TEST_F(EciReply, ChangesNothingButTheResults)
{
    EciParms parms = syncCall("PROG", filled(6, 'x'));
    parms.withUser("USER", "SECRET").withSystem("SYS").withTransid("TRAN");
    parms.record.commarea_inbound_length = 4;
    parms.record.eci_message_qualifier = 77;
    parms.record.eci_timeout = 9;
    QPX_ECI_PARMS expected = parms.record;
    std::memcpy(expected.eci_abend_code, "OKAY", 4);
    expected.eci_luw_token = 5;

    EXPECT_RC(0, call(parms, ProgramReply()
                                 .luwToken(5)
                                 .qualifier(88)
                                 .abend("OKAY")
                                 .commarea(6, filled(3, 'r'))
                                 .inbound(3)));
    EXPECT_EQ(0, std::memcmp(&expected, &parms.record, sizeof expected));
}

TEST_F(EciReply, ReturnsTheServersCode)
{
    for (int code : {-3, -4, -5, -6, -7, -8, -16, -17, -22, -27, -28, -29, -30, -9999, 9999}) {
        EciParms parms = syncCall("PROG");
        EXPECT_RC(code, call(parms, ProgramReply().serverCode(code)));
    }
}

TEST_F(EciReply, CopiesAbendCodeAndTokenWhenTheServerFails)
{
    EciParms parms = syncCall("PROG");
    EXPECT_RC(ECI_ERR_TRANSACTION_ABEND,
              call(parms, ProgramReply().serverCode(-7).abend("ASRA").luwToken(42)));
    EXPECT_EQ("ASRA", abendCode(parms));
    EXPECT_EQ(42, int(parms.record.eci_luw_token));
}

TEST_F(EciReply, PutsTheCommareaInPlaceWhenTheServerFails)
{
    EciParms parms = syncCall("PROG", filled(6, 'x'));
    EXPECT_RC(ECI_ERR_TRANSACTION_ABEND,
              call(parms, ProgramReply().serverCode(-7).commarea(text("reason"))));
    EXPECT_EQ(text("reason"), parms.commarea());
}

TEST_F(EciReply, TracesTheServersCodeByItsOwnName)
{
    TraceFile trace(1);
    EciParms parms = syncCall("PROG");
    EXPECT_RC(-9, call(parms, ProgramReply().serverCode(-9)));
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.receiverThread() Gateway returned ECI error, "
                                "rc=-9 (ECI_ERR_SYSTEM_ERROR)\n"))
        << trace.text();
    EXPECT_EQ(1u, trace.records().size()) << trace.text();
}

TEST_F(EciReply, TracesNoFailureForAGoodReply)
{
    TraceFile trace(1);
    EciParms parms = syncCall("PROG");
    EXPECT_RC(0, call(parms, ProgramReply()));
    EXPECT_EQ("", trace.text());
}

TEST_F(EciReply, ReturnsTheGatewaysCodeRatherThanTheServers)
{
    EciParms parms = syncCall("PROG");
    EXPECT_RC(QPX_ERR_WORK_WAS_REFUSED,
              call(parms, ProgramReply().serverCode(-7).abend("ASRA").luwToken(42), 61445));
    EXPECT_EQ("ASRA", abendCode(parms));
    EXPECT_EQ(42, int(parms.record.eci_luw_token));
}

TEST_F(EciReply, MayHaveNoBodyWhenTheGatewayFails)
{
    EciParms parms = syncCall("PROG", text("mine"));
    EciParms::fill(parms.record.eci_abend_code, "KEEP");
    EXPECT_RC(QPX_ERR_GATEWAY_BACK_LEVEL,
              callAndSend(parms, flow(replyType, 1, 61450, "ECI", Bytes())));
    EXPECT_EQ(text("mine"), parms.commarea());
    expectStillServing(connection);
}

TEST_F(EciReply, MayHaveAShortBodyWhenTheGatewayFails)
{
    EciParms parms = syncCall("PROG", text("mine"));
    EXPECT_RC(QPX_ERR_GATEWAY_BACK_LEVEL,
              callAndSend(parms, flow(replyType, 1, 61450, "ECI", hex("00000001 000000"))));
    expectStillServing(connection);
}

TEST_F(EciReply, MayBeAnErrorOfTheGateway)
{
    EciParms parms = syncCall("PROG", text("mine"));
    EciParms::fill(parms.record.eci_abend_code, "KEEP");
    parms.record.eci_luw_token = 0;
    EXPECT_RC(QPX_ERR_INVALID_REQUEST_TYPE, callAndSend(parms, errorFlow(1, 61451)));
    EXPECT_EQ("KEEP", abendCode(parms));
    EXPECT_EQ(text("mine"), parms.commarea());
    expectStillServing(connection);
}

TEST_F(EciReply, MayBeAnErrorWithoutACode)
{
    EciParms failing = syncCall("PROG");
    EXPECT_RC(ECI_ERR_TRANSACTION_ABEND, call(failing, ProgramReply().serverCode(-7)));
    // The slot is the same; nothing of the call before shows.
    EciParms parms = syncCall("PROG");
    EXPECT_RC(0, callAndSend(parms, errorFlow(1, 0)));
    expectStillServing(connection);
}

TEST_F(EciReply, MayBeAnExceptionOfTheGateway)
{
    TraceFile trace(1);
    EciParms parms = syncCall("PROG", text("mine"));
    EXPECT_RC(QPX_ERR_GATEWAY_EXCEPTION, callAndSend(parms, exceptionFlow(1, "out of order")));
    EXPECT_TRUE(trace.wroteText("Exception message: out of order\n"));
    EXPECT_EQ(text("mine"), parms.commarea());
    expectStillServing(connection);
}

TEST_F(EciReply, MayNameTheTransactionProgramsCallType)
{
    EciParms parms = syncCall("PROG", filled(4, 'x'));
    parms.withTpn("TP01");
    EXPECT_RC(0, call(parms, ProgramReply().callType(12).commarea(text("tpn."))));
    EXPECT_EQ(text("tpn."), parms.commarea());
}

TEST_F(EciReply, OfAnEndingUnitOfWorkCarriesNoCommarea)
{
    // The COMMAREA's length stands in the reply, its bytes do not.
    for (int mode : {2, 4}) {
        EciParms parms = syncCall("PROG", text("mine"));
        parms.withExtendMode(mode);
        EXPECT_RC(0, call(parms, ProgramReply().commarea(4, Bytes()))) << mode;
        EXPECT_EQ(text("mine"), parms.commarea()) << mode;
        expectStillServing(connection);
    }
}

// ---- More than fits ----

TEST_F(EciReply, KeepsToTheCommareaWhenMoreBytesCome)
{
    EciParms parms = syncCall("PROG", filled(20, 'x'));
    parms.record.eci_commarea_length = 10; // ten of the twenty bytes are the COMMAREA
    EXPECT_RC(0, call(parms, ProgramReply().commarea(filled(15, 'r'))));
    EXPECT_EQ(filled(10, 'r') + filled(10, 'x'), parms.commarea());
    expectStillServing(connection);
}

TEST_F(EciReply, KeepsToTheCommareaWhenMoreZerosAreDue)
{
    EciParms parms = syncCall("PROG", filled(20, 'x'));
    parms.record.eci_commarea_length = 10;
    EXPECT_RC(0, call(parms, ProgramReply().commarea(32767, filled(4, 'r')).inbound(4)));
    EXPECT_EQ(filled(4, 'r') + filled(6) + filled(10, 'x'), parms.commarea());
    expectStillServing(connection);
}

TEST_F(EciReply, DropsWhatComesWithoutACommareaToPutItIn)
{
    EciParms parms = syncCall("PROG");
    EXPECT_RC(0, call(parms, ProgramReply().commarea(filled(50, 'r'))));
    expectStillServing(connection);
}

TEST_F(EciReply, DropsWhatIsLargerThanTheReceivingBuffer)
{
    EciParms parms = syncCall("PROG", filled(20, 'x'));
    EXPECT_RC(0, call(parms, ProgramReply().commarea(filled(100000, 'r'))));
    EXPECT_EQ(filled(20, 'r'), parms.commarea());
    expectStillServing(connection);
}

TEST_F(EciReply, TakesNegativeLengthsForZero)
{
    EciParms parms = syncCall("PROG", text("mine"));
    EXPECT_RC(0, call(parms, ProgramReply().commarea(-1, Bytes()).inbound(-1)));
    EXPECT_EQ(text("mine"), parms.commarea());
    expectStillServing(connection);
}

TEST_F(EciReply, EndsTheConnectionWhenItsLengthsExceedTheMessage)
{
    EciParms parms = syncCall("PROG", filled(100, 'x'));
    EXPECT_RC(QPX_ERR_LOSTGWCON, call(parms, ProgramReply().commarea(100, filled(10, 'r'))));
}

TEST_F(EciReply, EndsTheConnectionWhenItsBodyIsTooShort)
{
    EciParms parms = syncCall("PROG");
    EXPECT_RC(QPX_ERR_LOSTGWCON,
              callAndSend(parms, flow(replyType, 1, 0, "ECI", hex("00000001 00000000"))));
}

TEST_F(EciReply, EndsTheConnectionForAMessageIdThatNoRequestHas)
{
    EciParms parms = syncCall("PROG");
    EXPECT_RC(QPX_ERR_LOSTGWCON, callAndSend(parms, ProgramReply().to(17)));
}

TEST_F(EciReply, OfAnotherRequestTypeFailsTheCall)
{
    TraceFile trace(1);
    EciParms parms = syncCall("PROG", text("mine"));
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR,
              callAndSend(parms, flow(replyType, 1, 0, "XYZ", ProgramReply().body())));
    EXPECT_TRUE(trace.wroteText(
        "clapi_gwycon.receiverThread() Gateway returned unexpected request type XYZ\n"))
        << trace.text();
    expectStillServing(connection);
}

TEST_F(EciReply, OfTheSystemListsTypeIsTakenAsItReads)
{
    EciParms parms = syncCall("PROG", filled(8, 'x'));
    EXPECT_RC(ECI_ERR_NO_VORN, callAndSend(parms, flow(replyType, 1, 0, "ECI",
                                                       hex("00000009 00000002 FFFFFFFD 0000000A") +
                                                           text("ten bytes!"))));
    EXPECT_EQ(2, int(parms.record.eci_luw_token));
    EXPECT_EQ(text("ten byte"), parms.commarea());
    expectStillServing(connection);
}

TEST_F(EciReply, OfAnUnknownCallTypeHasNothingElseToRead)
{
    EciParms parms = syncCall("PROG", text("mine"));
    EXPECT_RC(0, callAndSend(parms, flow(replyType, 1, 0, "ECI", hex("00000005 12345678"))));
    EXPECT_EQ(text("mine"), parms.commarea());
    expectStillServing(connection);
}

// ---- Nobody's replies ----

TEST_F(EciReply, ThatComesTwiceIsReadAndForgotten)
{
    EciParms first = syncCall("PROG", filled(4, 'x'));
    auto firstCall = connection.start(first);
    connection.awaitRequest();
    EciParms second = syncCall("PROG", filled(4, 'x'));
    auto secondCall = connection.start(second);
    connection.awaitRequest();

    Bytes answer = ProgramReply().commarea(text("once")).to(1);
    connection.peer.send(answer);
    EXPECT_RC(0, firstCall.get());
    first.withCommarea(filled(4, 'x'));
    connection.peer.send(answer);
    connection.peer.send(ProgramReply().commarea(text("next")).to(2)); // read behind the duplicate
    EXPECT_RC(0, secondCall.get());
    EXPECT_EQ(filled(4, 'x'), first.commarea());
    EXPECT_EQ(text("next"), second.commarea());
    expectStillServing(connection);
    connection.closeInOrder();
}

TEST_F(EciReply, ToASlotThatWasNeverUsedIsReadAndForgotten)
{
    connection.peer.send(ProgramReply().commarea(text("early")).to(16));
    expectStillServing(connection);
    connection.closeInOrder();
}

TEST_F(EciReply, MayFollowAPing)
{
    EciParms parms = syncCall("PROG", filled(4, 'x'));
    EXPECT_RC(0, callAndSend(parms, pingFlow() + ProgramReply().commarea(text("pong")).to(1)));
    EXPECT_EQ(text("pong"), parms.commarea());
}
