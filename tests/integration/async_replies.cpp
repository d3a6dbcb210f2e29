// Asynchronous calls and the four calls that collect their replies.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/eci_script.h"

using namespace script;
using support::asyncCall;
using support::eciCall;
using support::EciParms;
using support::getReply;
using support::getReplyWait;
using support::getSpecificReply;
using support::getSpecificReplyWait;
using support::RunningCall;
using support::syncCall;
using support::TraceFile;

namespace {

class AsyncCall : public ::testing::Test {
protected:
    int execute(EciParms& parms) { return QPX_ECI_Execute(connection.token, &parms.record); }

    // Sends an asynchronous request and returns its qualifier.
    int send(EciParms& parms)
    {
        EXPECT_RC(0, execute(parms));
        last = connection.awaitRequest();
        EXPECT_EQ(last.messageId(), int(parms.record.eci_message_qualifier));
        return parms.record.eci_message_qualifier;
    }
    int send(const std::string& program = "LATER", const Bytes& commarea = filled(8, 'a'))
    {
        EciParms parms = asyncCall(program, commarea);
        return send(parms);
    }

    void answer(int qualifier, const ProgramReply& reply, int gatewayRc = 0)
    {
        connection.peer.send(reply.to(qualifier, gatewayRc));
    }
    void answer(int qualifier, const std::string& contents)
    {
        answer(qualifier, ProgramReply().commarea(text(contents)));
    }

    // Waits until everything that the peer has sent so far is delivered: a later reply is.
    void awaitDelivery()
    {
        EciParms parms = syncCall("AFTER");
        auto call = connection.start(parms);
        connection.peer.send(ProgramReply().to(connection.awaitRequest().messageId()));
        EXPECT_RC(0, call.get());
    }

    // Collects the oldest reply and returns its COMMAREA.
    std::string collect()
    {
        EciParms parms = getReply(8);
        EXPECT_RC(0, execute(parms));
        return support::toText(parms.commarea());
    }

    std::string collectSpecific(int qualifier)
    {
        EciParms parms = getSpecificReply(qualifier, 8);
        EXPECT_RC(0, execute(parms));
        EXPECT_EQ(qualifier, int(parms.record.eci_message_qualifier));
        return support::toText(parms.commarea());
    }

    void expectNoReply()
    {
        EciParms parms = getReply(8);
        EXPECT_RC(ECI_ERR_NO_REPLY, execute(parms));
    }

    ScriptedConnection connection;
    Request last;
};

} // namespace

// ---- Sending ----

TEST_F(AsyncCall, ReturnsTheMessageIdAsItsQualifier)
{
    EXPECT_EQ(1, send());
    EXPECT_EQ(2, send());
    EXPECT_EQ(3, send());
}

TEST_F(AsyncCall, ChangesNothingButTheQualifier)
{
    EciParms parms = asyncCall("LATER", text("question"));
    parms.record.eci_luw_token = 0;
    parms.record.eci_message_qualifier = 99;
    parms.record.commarea_inbound_length = 4;
    EciParms::fill(parms.record.eci_abend_code, "KEEP");
    QPX_ECI_PARMS expected = parms.record;
    expected.eci_message_qualifier = 1;
    send(parms);
    EXPECT_EQ(0, std::memcmp(&expected, &parms.record, sizeof expected));
    EXPECT_EQ(text("question"), parms.commarea());
}

TEST_F(AsyncCall, LeavesTheCallersCommareaAloneWhenTheReplyComes)
{
    EciParms parms = asyncCall("LATER", text("question"));
    int qualifier = send(parms);
    answer(qualifier, "answered");
    awaitDelivery();
    EXPECT_EQ(text("question"), parms.commarea());
    EXPECT_EQ("answered", collect());
    EXPECT_EQ(text("question"), parms.commarea());
}

TEST_F(AsyncCall, NeedsItsRecordAndCommareaOnlyWhileItSends)
{
    int qualifier = 0;
    {
        EciParms parms = asyncCall("LATER", text("question"));
        qualifier = send(parms);
    }
    answer(qualifier, "answered");
    awaitDelivery();
    EXPECT_EQ("answered", collect());
}

TEST_F(AsyncCall, SendsFromTheCallersCommarea)
{
    send("LATER", text("question"));
    EXPECT_EQ(text("question"), support::slice(last.body, 71, 8));
}

TEST_F(AsyncCall, CountsWhatIsOutstanding)
{
    TraceFile trace(4);
    int first = send();
    EXPECT_TRUE(trace.wroteText("DEBUG  clapi_eci.performEciExecute() Async requests=1 on gwTok=" +
                                shown(connection.token) + "\n"));
    send();
    EXPECT_TRUE(trace.wroteText("clapi_eci.performEciExecute() Async requests=2 on gwTok="));
    answer(first, "x");
    awaitDelivery();
    collect();
    EXPECT_TRUE(trace.wrote(1545, "DEBUG",
                            "clapi_eci.getAsyncReply() Async requests=1 on gwTok=" +
                                shown(connection.token)));
}

// ---- The reply's buffer ----

TEST_F(AsyncCall, AllocatesRoomForTheWholeCommarea)
{
    TraceFile trace(4);
    send("LATER", filled(100, 'a'));
    EXPECT_TRUE(
        trace.wrote(1520, "DEBUG",
                    "clapi_eci.performEciExecute() Allocated 100 bytes for async commarea=<ptr>"))
        << trace.text();
}

TEST_F(AsyncCall, AllocatesRoomForTheInboundLength)
{
    TraceFile trace(4);
    EciParms parms = asyncCall("LATER", filled(100, 'a'));
    parms.record.commarea_inbound_length = 10;
    send(parms);
    EXPECT_TRUE(
        trace.wrote(1520, "DEBUG",
                    "clapi_eci.performEciExecute() Allocated 10 bytes for async commarea=<ptr>"));
}

TEST_F(AsyncCall, AllocatesNoMoreThanTheCommareaForALargeInboundLength)
{
    TraceFile trace(4);
    EciParms parms = asyncCall("LATER", filled(100, 'a'));
    parms.record.commarea_inbound_length = 101;
    send(parms);
    EXPECT_TRUE(
        trace.wrote(1520, "DEBUG",
                    "clapi_eci.performEciExecute() Allocated 100 bytes for async commarea=<ptr>"));
}

TEST_F(AsyncCall, TakesAReplyThatIsShorterThanTheCommarea)
{
    EciParms parms = asyncCall("LATER", filled(100, 'a'));
    parms.record.commarea_inbound_length = 10;
    int qualifier = send(parms);
    answer(qualifier, ProgramReply().commarea(100, filled(10, 'r')).inbound(10));
    EciParms collecting = getReplyWait(20);
    collecting.withCommarea(filled(20, 'z'));
    EXPECT_RC(0, execute(collecting));
    EXPECT_EQ(filled(10, 'r') + filled(10, 'z'), collecting.commarea());
    EXPECT_EQ(10, int(collecting.record.commarea_inbound_length));
}

TEST_F(AsyncCall, FreesTheBufferWhenTheReplyIsCollected)
{
    TraceFile trace(4);
    int qualifier = send();
    answer(qualifier, "answered");
    awaitDelivery();
    collect();
    EXPECT_EQ(1, trace.timesWrote(1544));
    EXPECT_TRUE(
        trace.wrote(1544, "DEBUG", "clapi_eci.getAsyncReply() Freeing async commarea=<ptr>"));
}

// ---- Collecting ----

TEST_F(AsyncCall, GivesItsReplyToGetReply)
{
    answer(send(), "answered");
    awaitDelivery();
    EXPECT_EQ("answered", collect());
    expectNoReply();
}

TEST_F(AsyncCall, GivesItsReplyToGetReplyWait)
{
    answer(send(), "answered");
    EciParms parms = getReplyWait(8);
    EXPECT_RC(0, execute(parms));
    EXPECT_EQ(text("answered"), parms.commarea());
    expectNoReply();
}

TEST_F(AsyncCall, GivesItsReplyToGetSpecificReply)
{
    int qualifier = send();
    answer(qualifier, "answered");
    awaitDelivery();
    EXPECT_EQ("answered", collectSpecific(qualifier));
    expectNoReply();
}

TEST_F(AsyncCall, GivesItsReplyToGetSpecificReplyWait)
{
    int qualifier = send();
    answer(qualifier, "answered");
    EciParms parms = getSpecificReplyWait(qualifier, 8);
    EXPECT_RC(0, execute(parms));
    EXPECT_EQ(text("answered"), parms.commarea());
    expectNoReply();
}

TEST_F(AsyncCall, HasNoReplyBeforeOneCame)
{
    int qualifier = send();
    expectNoReply();
    EciParms specific = getSpecificReply(qualifier, 8);
    EXPECT_RC(ECI_ERR_NO_REPLY, execute(specific));
}

TEST_F(AsyncCall, HasNoReplyWhenNothingWasAsked)
{
    expectNoReply();
}

TEST_F(AsyncCall, LeavesTheRecordAloneWhenThereIsNoReply)
{
    EciParms parms = getReply(8);
    const QPX_ECI_PARMS before = parms.record;
    EXPECT_RC(ECI_ERR_NO_REPLY, execute(parms));
    EXPECT_EQ(0, std::memcmp(&before, &parms.record, sizeof before));
}

TEST_F(AsyncCall, FreesItsSlotWhenTheReplyIsCollected)
{
    answer(send(), "x");
    awaitDelivery();
    collect();
    EXPECT_EQ(1, send());
}

TEST_F(AsyncCall, KeepsItsSlotUntilTheReplyIsCollected)
{
    answer(send(), "x");
    awaitDelivery();
    EXPECT_EQ(2, send());
}

TEST_F(AsyncCall, OverwritesTheRecordWithThatOfTheRequest)
{
    EciParms request = asyncCall("LATER", filled(20, 'a'));
    request.withUser("USER", "PASSWORD").withSystem("SYSTEM").withTransid("TRAN").withTpn("TPNX");
    request.record.eci_timeout = 9;
    request.record.commarea_outbound_length = 5;
    request.record.commarea_inbound_length = 12;
    int qualifier = send(request);
    answer(qualifier, ProgramReply()
                          .luwToken(4711)
                          .qualifier(5)
                          .abend("OKAY")
                          .commarea(20, text("twelve bytes"))
                          .inbound(12));

    EciParms collecting = getReplyWait(16);
    QPX_ECI_PARMS expected = request.record;
    expected.eci_commarea = collecting.record.eci_commarea;
    expected.eci_commarea_length = 16;
    expected.eci_luw_token = 4711;
    expected.eci_message_qualifier = qualifier;
    expected.commarea_inbound_length = 12;
    std::memcpy(expected.eci_abend_code, "OKAY", 4);
    EXPECT_RC(0, execute(collecting));
    EXPECT_EQ(0, std::memcmp(&expected, &collecting.record, sizeof expected));
    EXPECT_EQ(text("twelve bytes") + filled(4), collecting.commarea());
}

TEST_F(AsyncCall, TellsTheInboundLengthThatCame)
{
    answer(send("LATER", filled(100, 'a')), ProgramReply().commarea(filled(30, 'r')));
    EciParms parms = getReplyWait(100);
    EXPECT_RC(0, execute(parms));
    EXPECT_EQ(30, int(parms.record.commarea_inbound_length));
}

TEST_F(AsyncCall, LeavesTheCommareaBehindTheReplyAlone)
{
    answer(send("LATER", filled(20, 'a')), ProgramReply().commarea(20, text("five!")).inbound(5));
    EciParms parms = getReplyWait(20);
    parms.withCommarea(filled(20, 'z'));
    EXPECT_RC(0, execute(parms));
    EXPECT_EQ(text("five!") + filled(15, 'z'), parms.commarea());
}

TEST_F(AsyncCall, NeedsNoCommarea)
{
    EciParms parms = asyncCall("LATER");
    answer(send(parms), ProgramReply());
    EciParms collecting = getReplyWait(0);
    EXPECT_RC(0, execute(collecting));
}

TEST_F(AsyncCall, WithoutACommareaMayBeCollectedWithOne)
{
    EciParms parms = asyncCall("LATER");
    answer(send(parms), ProgramReply());
    EciParms collecting = getReplyWait(4);
    collecting.withCommarea(text("mine"));
    EXPECT_RC(0, execute(collecting));
    EXPECT_EQ(text("mine"), collecting.commarea());
}

TEST_F(AsyncCall, TracesTheReplyThatWasFound)
{
    TraceFile trace(4);
    int qualifier = send();
    answer(qualifier, "x");
    awaitDelivery();
    trace.forget();
    collect();
    EXPECT_TRUE(trace.wrote(1536, "ENTRY",
                            "clapi_eci.getAsyncReply(gwTok=" + shown(connection.token) +
                                ", EciParms=<ptr>)"));
    EXPECT_TRUE(
        trace.wrote(1542, "DEBUG", "clapi_eci.getAsyncReply() Async reply found, msg qual=1"));
    EXPECT_TRUE(trace.wrote(1547, "EXIT", "clapi_eci.getAsyncReply() rc=0 (QPX_OK)"));
    EXPECT_EQ(0, trace.timesWrote(1517)); // a collecting call sends nothing
}

TEST_F(AsyncCall, TracesThatThereIsNoReply)
{
    TraceFile trace(3);
    expectNoReply();
    EXPECT_TRUE(trace.wrote(1547, "EXIT", "clapi_eci.getAsyncReply() rc=-32 (ECI_ERR_NO_REPLY)"));
    EXPECT_TRUE(trace.wrote(1506, "EXIT", "API.QPX_ECI_Execute() rc=-32 (ECI_ERR_NO_REPLY)"));
    EXPECT_EQ(0, trace.timesWrote(1542));
}

TEST_F(AsyncCall, ReceivesNoReplyOfASynchronousCall)
{
    EciParms sync = syncCall("NOW", text("mine"));
    auto running = connection.start(sync);
    Request request = connection.awaitRequest();
    int qualifier = send();
    answer(request.messageId(), "now!");
    EXPECT_RC(0, running.get());
    expectNoReply();
    answer(qualifier, "later!");
    awaitDelivery();
    EXPECT_EQ(std::string("later!") + std::string(2, '\0'), collect());
}

// ---- Order ----

TEST_F(AsyncCall, RepliesAreCollectedOldestFirst)
{
    int first = send();
    int second = send();
    int third = send();
    answer(second, "2nd req.");
    answer(third, "3rd req.");
    answer(first, "1st req.");
    awaitDelivery();
    EXPECT_EQ("2nd req.", collect());
    EXPECT_EQ("3rd req.", collect());
    EXPECT_EQ("1st req.", collect());
    expectNoReply();
}

TEST_F(AsyncCall, TwoRepliesComeBackOldestFirst)
{
    int first = send();
    int second = send();
    answer(first, "reply 1.");
    answer(second, "reply 2.");
    awaitDelivery();
    EXPECT_EQ("reply 1.", collect());
    EXPECT_EQ("reply 2.", collect());
}

TEST_F(AsyncCall, ASpecificReplyIsTakenOutOfTheMiddle)
{
    int first = send();
    int second = send();
    int third = send();
    answer(first, "reply 1.");
    answer(second, "reply 2.");
    answer(third, "reply 3.");
    awaitDelivery();
    EXPECT_EQ("reply 2.", collectSpecific(second));
    EXPECT_EQ("reply 1.", collect());
    EXPECT_EQ("reply 3.", collect());
    expectNoReply();
}

TEST_F(AsyncCall, AReplyIsQueuedBehindTheRestWhenTheLastWasTaken)
{
    int first = send();
    int second = send();
    int third = send();
    answer(first, "reply 1.");
    answer(second, "reply 2.");
    awaitDelivery();
    EXPECT_EQ("reply 2.", collectSpecific(second));
    answer(third, "reply 3.");
    awaitDelivery();
    EXPECT_EQ("reply 1.", collect());
    EXPECT_EQ("reply 3.", collect());
    expectNoReply();
}

TEST_F(AsyncCall, AReplyIsQueuedAgainWhenTheOnlyOneWasTaken)
{
    int first = send();
    int second = send();
    answer(first, "reply 1.");
    awaitDelivery();
    EXPECT_EQ("reply 1.", collectSpecific(first));
    answer(second, "reply 2.");
    awaitDelivery();
    EXPECT_EQ("reply 2.", collect());
    expectNoReply();
}

TEST_F(AsyncCall, ManyRepliesAreCollectedByTheirQualifiers)
{
    std::vector<int> qualifiers;
    for (int request = 0; request < 40; ++request) qualifiers.push_back(send());
    EXPECT_EQ(40, qualifiers.back());
    for (int qualifier : qualifiers) answer(qualifier, std::to_string(10000000 + qualifier));
    awaitDelivery();
    for (std::size_t left = qualifiers.size(); left > 0; --left)
        EXPECT_EQ(std::to_string(10000000 + qualifiers[left - 1]),
                  collectSpecific(qualifiers[left - 1]));
    expectNoReply();
}

// ---- Qualifiers that name no asynchronous request ----

TEST_F(AsyncCall, RefusesAQualifierThatNoSlotHas)
{
    send();
    for (int qualifier : {17, 0, -1, -2, 1000000}) {
        EciParms now = getSpecificReply(qualifier, 8);
        EXPECT_RC(ECI_ERR_INVALID_MSG_QUAL, execute(now)) << qualifier;
        EciParms wait = getSpecificReplyWait(qualifier, 8);
        EXPECT_RC(ECI_ERR_INVALID_MSG_QUAL, execute(wait)) << qualifier;
    }
}

TEST_F(AsyncCall, RefusesAQualifierOfNoRequest)
{
    EciParms now = getSpecificReply(1, 8);
    EXPECT_RC(ECI_ERR_INVALID_MSG_QUAL, execute(now));
    EciParms wait = getSpecificReplyWait(16, 8);
    EXPECT_RC(ECI_ERR_INVALID_MSG_QUAL, execute(wait));
}

TEST_F(AsyncCall, RefusesTheQualifierOfASynchronousCall)
{
    EciParms sync = syncCall("NOW");
    auto running = connection.start(sync);
    Request request = connection.awaitRequest();
    EciParms now = getSpecificReply(request.messageId(), 8);
    EXPECT_RC(ECI_ERR_INVALID_MSG_QUAL, execute(now));
    EciParms wait = getSpecificReplyWait(request.messageId(), 8);
    EXPECT_RC(ECI_ERR_INVALID_MSG_QUAL, execute(wait));
    connection.peer.send(ProgramReply().to(request.messageId()));
    EXPECT_RC(0, running.get());
}

TEST_F(AsyncCall, RefusesTheQualifierOfAReplyThatWasCollected)
{
    int qualifier = send();
    answer(qualifier, "x");
    awaitDelivery();
    collectSpecific(qualifier);
    EciParms again = getSpecificReply(qualifier, 8);
    EXPECT_RC(ECI_ERR_INVALID_MSG_QUAL, execute(again));
}

TEST_F(AsyncCall, HasNoReplyForTheQualifierOfAnIdleUnitOfWork)
{
    EciParms opening = asyncCall("OPEN", filled(8, 'a'));
    opening.withExtendMode(1);
    int qualifier = send(opening);
    answer(qualifier, ProgramReply().luwToken(7));
    EciParms collecting = getSpecificReplyWait(qualifier, 8);
    EXPECT_RC(0, execute(collecting));
    EciParms now = getSpecificReply(qualifier, 8);
    EXPECT_RC(ECI_ERR_NO_REPLY, execute(now));
    EciParms wait = getSpecificReplyWait(qualifier, 8);
    EXPECT_RC(ECI_ERR_NO_REPLY, execute(wait));
}

// ---- Codes ----

TEST_F(AsyncCall, ReturnsTheServersCodeWhenItIsCollected)
{
    int qualifier = send();
    answer(qualifier,
           ProgramReply().serverCode(-7).abend("ASRA").luwToken(3).commarea(text("not seen")));
    EciParms parms = getReplyWait(8);
    parms.withCommarea(text("mine...."));
    EXPECT_RC(ECI_ERR_TRANSACTION_ABEND, execute(parms));
    EXPECT_EQ("ASRA", std::string(parms.record.eci_abend_code, 4));
    EXPECT_EQ(3, int(parms.record.eci_luw_token));
    EXPECT_EQ(qualifier, int(parms.record.eci_message_qualifier));
    EXPECT_EQ(text("mine...."), parms.commarea());
    expectNoReply();
    EXPECT_EQ(1, send());
}

TEST_F(AsyncCall, ReturnsTheServersCodeThoughTheCommareaIsTooSmall)
{
    answer(send("LATER", filled(100, 'a')),
           ProgramReply().serverCode(-7).commarea(filled(100, 'r')));
    EciParms parms = getReplyWait(10);
    EXPECT_RC(ECI_ERR_TRANSACTION_ABEND, execute(parms));
    EXPECT_EQ(10, int(parms.record.eci_commarea_length));
    expectNoReply();
}

TEST_F(AsyncCall, ReturnsTheGatewaysCodeWhenItIsCollected)
{
    int qualifier = send();
    connection.peer.send(errorFlow(qualifier, 61445));
    EciParms parms = getReplyWait(8);
    parms.withCommarea(text("mine...."));
    EXPECT_RC(QPX_ERR_WORK_WAS_REFUSED, execute(parms));
    EXPECT_EQ(qualifier, int(parms.record.eci_message_qualifier));
    EXPECT_EQ("LATER   ", std::string(parms.record.eci_program_name, 8));
    EXPECT_EQ(8, int(parms.record.eci_commarea_length));
    EXPECT_EQ(text("mine...."), parms.commarea());
    expectNoReply();
    EXPECT_EQ(1, send());
}

TEST_F(AsyncCall, ReturnsTheGatewaysCodeRatherThanTheServers)
{
    answer(send("LATER", filled(100, 'a')),
           ProgramReply().serverCode(-7).commarea(filled(100, 'r')), 61445);
    EciParms parms = getReplyWait(10);
    EXPECT_RC(QPX_ERR_WORK_WAS_REFUSED, execute(parms));
    EXPECT_EQ(10, int(parms.record.eci_commarea_length));
    EXPECT_EQ(filled(10), parms.commarea());
    expectNoReply();
}

TEST_F(AsyncCall, ReturnsAnExceptionWhenItIsCollected)
{
    connection.peer.send(exceptionFlow(send(), "out of order"));
    EciParms parms = getReplyWait(8);
    EXPECT_RC(QPX_ERR_GATEWAY_EXCEPTION, execute(parms));
    expectNoReply();
}

TEST_F(AsyncCall, GivesAFailedUnitOfWorksSlotBackForAGatewayCode)
{
    EciParms opening = asyncCall("OPEN", filled(8, 'a'));
    opening.withExtendMode(1);
    connection.peer.send(errorFlow(send(opening), 61445));
    EciParms parms = getReplyWait(8);
    EXPECT_RC(QPX_ERR_WORK_WAS_REFUSED, execute(parms));
    EXPECT_EQ(1, send());
}

// ---- A record that names a channel, which COMMAREA calls do not use ----

namespace {

int noChannel = 0;

EciParms callNamingNoChannel()
{
    EciParms parms = asyncCall("LATER", filled(8, 'a'));
    parms.record.channel = reinterpret_cast<ECI_ChannelToken_t>(&noChannel);
    return parms;
}

} // namespace

TEST_F(AsyncCall, IsCollectedWithoutRegardToAChannel)
{
    EciParms parms = callNamingNoChannel();
    answer(send(parms), "answered");
    EciParms collecting = getReplyWait(8);
    EXPECT_RC(0, execute(collecting));
    EXPECT_EQ(text("answered"), collecting.commarea());
    EXPECT_EQ(reinterpret_cast<ECI_ChannelToken_t>(&noChannel),
              static_cast<ECI_ChannelToken_t>(collecting.record.channel));
    EXPECT_EQ(0, noChannel);
}

TEST_F(AsyncCall, IsGivenUpWithoutRegardToAChannel)
{
    EciParms parms = callNamingNoChannel();
    send(parms);
    auto purging = connection.startPurge(0);
    connection.answerClose();
    EXPECT_RC(QPX_OK, purging.get());
    connection.forget();
    EXPECT_EQ(0, noChannel);
}

// ---- A COMMAREA that is too small ----

TEST_F(AsyncCall, TellsTheSizeThatTheCommareaNeeds)
{
    TraceFile trace(1);
    int qualifier = send("LATER", filled(200, 'a'));
    answer(qualifier, ProgramReply().commarea(filled(200, 'r')));
    EciParms small = getReplyWait(100);
    small.withCommarea(filled(100, 'z'));
    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, execute(small));
    EXPECT_EQ(200, int(small.record.eci_commarea_length));
    EXPECT_EQ(filled(100, 'z'), small.commarea());
    EXPECT_EQ(small.area.data(), static_cast<char*>(small.record.eci_commarea));
    EXPECT_TRUE(trace.wrote(1543, "*EXC*",
                            "clapi_eci.getAsyncReply() Caller commarea len=100 is smaller than "
                            "inbound commarea len=200"))
        << trace.text();
}

TEST_F(AsyncCall, IsStillThereAfterACommareaThatWasTooSmall)
{
    int qualifier = send("LATER", filled(200, 'a'));
    answer(qualifier, ProgramReply().commarea(filled(200, 'r')));
    EciParms small = getReplyWait(100);
    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, execute(small));
    EXPECT_EQ(2, send()); // the slot is still in use

    EciParms large = getReply(200);
    EXPECT_RC(0, execute(large));
    EXPECT_EQ(filled(200, 'r'), large.commarea());
    EXPECT_EQ(qualifier, int(large.record.eci_message_qualifier));
    expectNoReply();
}

TEST_F(AsyncCall, FitsACommareaOfExactlyItsSize)
{
    answer(send("LATER", filled(200, 'a')), ProgramReply().commarea(filled(200, 'r')));
    EciParms small = getReplyWait(199);
    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, execute(small));
    EXPECT_EQ(200, int(small.record.eci_commarea_length));
    EciParms exact = getReplyWait(200);
    EXPECT_RC(0, execute(exact));
}

TEST_F(AsyncCall, DescribesTheRequestEvenWhenTheCommareaIsTooSmall)
{
    int qualifier = send("BIGREPLY", filled(200, 'a'));
    answer(qualifier, ProgramReply().luwToken(6).abend("OKAY").commarea(filled(200, 'r')));
    EciParms small = getReplyWait(0);
    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, execute(small));
    EXPECT_EQ("BIGREPLY", std::string(small.record.eci_program_name, 8));
    EXPECT_EQ("OKAY", std::string(small.record.eci_abend_code, 4));
    EXPECT_EQ(ECI_ASYNC, int(small.record.eci_call_type));
    EXPECT_EQ(qualifier, int(small.record.eci_message_qualifier));
    EXPECT_EQ(6, int(small.record.eci_luw_token));
    EXPECT_EQ(200, int(small.record.commarea_inbound_length));
}

TEST_F(AsyncCall, StaysAtTheHeadOfTheQueueWhenTheCommareaIsTooSmall)
{
    int big = send("BIG", filled(200, 'a'));
    int little = send("LITTLE", filled(8, 'a'));
    answer(big, ProgramReply().commarea(filled(200, 'r')));
    answer(little, "reply 2.");
    awaitDelivery();
    EciParms small = getReply(8);
    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, execute(small));
    EXPECT_EQ("reply 2.", collectSpecific(little));
    EciParms large = getReply(200);
    EXPECT_RC(0, execute(large));
    EXPECT_EQ(big, int(large.record.eci_message_qualifier));
}

TEST_F(AsyncCall, MayBeLargerThanItsRequest)
{
    // The Gateway sends more than the COMMAREA of the request has; it can still be collected.
    int qualifier = send("LATER", filled(8, 'a'));
    answer(qualifier, ProgramReply().commarea(filled(300, 'r')));
    EciParms small = getReplyWait(8);
    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, execute(small));
    EXPECT_EQ(300, int(small.record.eci_commarea_length));
    EciParms large = getReplyWait(300);
    EXPECT_RC(0, execute(large));
    EXPECT_EQ(filled(300, 'r'), large.commarea());
}

TEST_F(AsyncCall, IsCutToTheLargestCommareaThereIs)
{
    int qualifier = send("LATER", filled(8, 'a'));
    answer(qualifier, ProgramReply().commarea(filled(40000, 'r')));
    EciParms small = getReplyWait(8);
    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, execute(small));
    EXPECT_EQ(32767, int(small.record.eci_commarea_length));
    EciParms large = getReplyWait(32767);
    EXPECT_RC(0, execute(large));
    EXPECT_EQ(filled(32767, 'r'), large.commarea());
    expectStillServing(connection);
}

TEST_F(AsyncCall, TakesANegativeInboundLengthForZero)
{
    answer(send("LATER", filled(8, 'a')), ProgramReply().commarea(8, Bytes()).inbound(-5));
    EciParms parms = getReplyWait(8);
    parms.withCommarea(text("mine...."));
    EXPECT_RC(0, execute(parms));
    EXPECT_EQ(0, int(parms.record.commarea_inbound_length));
    EXPECT_EQ(text("mine...."), parms.commarea());
    expectStillServing(connection);
}

TEST_F(AsyncCall, IsDeliveredOnceThoughItsReplyComesTwice)
{
    int qualifier = send();
    answer(qualifier, "reply 1.");
    answer(qualifier, "reply 1.");
    awaitDelivery();
    EXPECT_EQ("reply 1.", collect());
    expectNoReply();
    expectStillServing(connection);
    connection.closeInOrder();
}

// ---- Waiters ----

namespace {

// Collecting calls that sleep. The trace shows when they do.
class WaitingForAReply : public AsyncCall {
protected:
    RunningCall<int> startAndAwaitSleep(EciParms& parms)
    {
        trace.forget();
        auto call = connection.start(parms);
        // The event is armed and the table unlocked by now; a reply that comes is not missed.
        EXPECT_TRUE(trace.awaitText("clapi_lock.clapiWaitEvent() Waiting on event"));
        return call;
    }

    TraceFile trace{4};
};

} // namespace

TEST_F(WaitingForAReply, EndsWhenAReplyComes)
{
    int qualifier = send();
    EciParms parms = getReplyWait(8);
    auto waiting = startAndAwaitSleep(parms);
    answer(qualifier, "answered");
    EXPECT_RC(0, waiting.get());
    EXPECT_EQ(text("answered"), parms.commarea());
}

TEST_F(WaitingForAReply, MayBeginBeforeAnythingIsAsked)
{
    EciParms parms = getReplyWait(8);
    auto waiting = startAndAwaitSleep(parms);
    answer(send(), "answered");
    EXPECT_RC(0, waiting.get());
    EXPECT_EQ(text("answered"), parms.commarea());
}

TEST_F(WaitingForAReply, GoesOnWhenAnotherReplyThanTheWantedComes)
{
    int first = send();
    int second = send();
    EciParms parms = getSpecificReplyWait(second, 8);
    auto waiting = startAndAwaitSleep(parms);
    trace.forget();
    answer(first, "reply 1.");
    EXPECT_TRUE(trace.awaitText("clapi_lock.clapiWaitEvent() Waiting on event")); // again
    answer(second, "reply 2.");
    EXPECT_RC(0, waiting.get());
    EXPECT_EQ(text("reply 2."), parms.commarea());
    EXPECT_EQ("reply 1.", collect());
}

TEST_F(WaitingForAReply, GivesEachWaiterOneReply)
{
    EciParms first = getReplyWait(8);
    auto firstWaits = startAndAwaitSleep(first);
    EciParms second = getReplyWait(8);
    auto secondWaits = startAndAwaitSleep(second);
    EciParms third = getReplyWait(8);
    auto thirdWaits = startAndAwaitSleep(third);
    std::vector<int> qualifiers = {send(), send(), send()};
    for (int qualifier : qualifiers) answer(qualifier, "reply " + std::to_string(qualifier) + ".");
    EXPECT_RC(0, firstWaits.get());
    EXPECT_RC(0, secondWaits.get());
    EXPECT_RC(0, thirdWaits.get());
    int sum = 0;
    for (EciParms* parms : {&first, &second, &third}) {
        int qualifier = parms->record.eci_message_qualifier;
        EXPECT_EQ(text("reply " + std::to_string(qualifier) + "."), parms->commarea());
        sum += qualifier;
    }
    EXPECT_EQ(1 + 2 + 3, sum);
    expectNoReply();
}

TEST_F(WaitingForAReply, GivesEachSpecificWaiterItsOwnReply)
{
    int first = send();
    int second = send();
    EciParms firstParms = getSpecificReplyWait(first, 8);
    auto firstWaits = startAndAwaitSleep(firstParms);
    EciParms secondParms = getSpecificReplyWait(second, 8);
    auto secondWaits = startAndAwaitSleep(secondParms);
    answer(second, "reply 2.");
    EXPECT_RC(0, secondWaits.get());
    answer(first, "reply 1.");
    EXPECT_RC(0, firstWaits.get());
    EXPECT_EQ(text("reply 1."), firstParms.commarea());
    EXPECT_EQ(text("reply 2."), secondParms.commarea());
}

TEST_F(WaitingForAReply, EndsWhenTheConnectionIsLost)
{
    EciParms parms = getReplyWait(8);
    auto waiting = startAndAwaitSleep(parms);
    connection.peer.close();
    EXPECT_RC(QPX_ERR_LOSTGWCON, waiting.get());
    EXPECT_TRUE(trace.wrote(1562, "*EXC*", "clapi_eci.getAsyncReply() Connection status not open"));
}

TEST_F(WaitingForAReply, EndsWhenTheGatewayCloses)
{
    EciParms parms = getReplyWait(8);
    auto waiting = startAndAwaitSleep(parms);
    connection.peer.send(closeFlow());
    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, waiting.get());
    EXPECT_TRUE(trace.wrote(1562, "*EXC*", "clapi_eci.getAsyncReply() Connection status not open"));
}

TEST_F(WaitingForAReply, CollectsTheLossOfItsRequest)
{
    int qualifier = send();
    EciParms parms = getSpecificReplyWait(qualifier, 8);
    auto waiting = startAndAwaitSleep(parms);
    connection.peer.close();
    EXPECT_RC(QPX_ERR_LOSTGWCON, waiting.get());
    EXPECT_EQ(qualifier, int(parms.record.eci_message_qualifier));
    EXPECT_EQ(0, trace.timesWrote(1562)); // the request's own result, not the connection's state
}

TEST_F(WaitingForAReply, EndsForEveryWaiterWhenTheConnectionIsLost)
{
    int qualifier = send();
    EciParms any = getReplyWait(8);
    auto anyWaits = startAndAwaitSleep(any);
    EciParms other = getReplyWait(8);
    auto otherWaits = startAndAwaitSleep(other);
    EciParms specific = getSpecificReplyWait(qualifier, 8);
    auto specificWaits = startAndAwaitSleep(specific);
    connection.peer.close();
    EXPECT_RC(QPX_ERR_LOSTGWCON, anyWaits.get());
    EXPECT_RC(QPX_ERR_LOSTGWCON, otherWaits.get());
    EXPECT_RC(QPX_ERR_LOSTGWCON, specificWaits.get());
}

TEST_F(WaitingForAReply, EndsWhenTheConnectionIsClosed)
{
    EciParms parms = getReplyWait(8);
    auto waiting = startAndAwaitSleep(parms);
    auto closing = connection.startClose();
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, waiting.get());
    connection.answerClose();
    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
}

TEST_F(WaitingForAReply, HoldsUpACloseUntilTheLastReplyIsCollected)
{
    int qualifier = send();
    EciParms parms = getReplyWait(8);
    auto waiting = startAndAwaitSleep(parms);
    auto closing = connection.startClose();
    ASSERT_TRUE(trace.awaitText("Waiting for 1 API calls and 1 async requests to complete\n"));
    EXPECT_FALSE(waiting.hasEnded());
    answer(qualifier, "answered");
    EXPECT_RC(0, waiting.get());
    EXPECT_EQ(text("answered"), parms.commarea());
    connection.answerClose();
    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
}

TEST_F(WaitingForAReply, EndsForTheOthersWhenTheLastReplyOfAClosingConnectionIsTaken)
{
    int qualifier = send();
    EciParms first = getReplyWait(8);
    auto firstWaits = startAndAwaitSleep(first);
    EciParms second = getReplyWait(8);
    auto secondWaits = startAndAwaitSleep(second);
    auto closing = connection.startClose();
    ASSERT_TRUE(trace.awaitText("Waiting for 2 API calls and 1 async requests to complete\n"));
    answer(qualifier, "answered");
    int firstRc = firstWaits.get();
    int secondRc = secondWaits.get();
    EXPECT_EQ(0, firstRc == 0 ? firstRc : secondRc);
    EXPECT_EQ(QPX_ERR_GWTOK_CLOSED, firstRc == 0 ? secondRc : firstRc);
    connection.answerClose();
    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
}

TEST_F(WaitingForAReply, EndsWhenTheConnectionIsPurged)
{
    send();
    EciParms parms = getReplyWait(8);
    auto waiting = startAndAwaitSleep(parms);
    auto purging = connection.startPurge(0);
    connection.answerClose();
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, waiting.get());
    EXPECT_RC(QPX_OK, purging.get());
    connection.forget();
}

// ---- Connections that end ----

TEST_F(AsyncCall, IsCollectedWithTheLossOfItsConnection)
{
    TraceFile trace(3);
    int qualifier = send();
    lose(connection, trace);
    EciParms parms = getReply(8);
    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
    EXPECT_EQ(qualifier, int(parms.record.eci_message_qualifier));
    EXPECT_EQ("LATER   ", std::string(parms.record.eci_program_name, 8));
    expectNoReply();
}

TEST_F(AsyncCall, IsCollectedWithTheGatewaysClose)
{
    TraceFile trace(3);
    send();
    closeByGateway(connection, trace);
    EciParms parms = getReply(8);
    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, execute(parms));
    expectNoReply();
}

TEST_F(AsyncCall, IsStillCollectedAfterItsConnectionIsLost)
{
    TraceFile trace(3);
    answer(send(), "in time.");
    awaitDelivery();
    int late = send();
    lose(connection, trace);
    EXPECT_EQ("in time.", collect());
    EciParms lost = getSpecificReply(late, 8);
    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(lost));
}

TEST_F(AsyncCall, HasNoWaitersOnALostConnection)
{
    TraceFile trace(3);
    lose(connection, trace);
    EciParms parms = getReplyWait(8);
    EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
    EXPECT_TRUE(trace.wrote(1562, "*EXC*", "clapi_eci.getAsyncReply() Connection status not open"));
    expectNoReply();
}

TEST_F(AsyncCall, HasNoWaitersOnAConnectionThatTheGatewayClosed)
{
    TraceFile trace(3);
    closeByGateway(connection, trace);
    EciParms parms = getReplyWait(8);
    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, execute(parms));
    expectNoReply();
}

TEST_F(AsyncCall, IsGivenUpByAPurge)
{
    answer(send("LATER", filled(100, 'a')), ProgramReply().commarea(filled(100, 'r')));
    awaitDelivery();
    send();
    auto purging = connection.startPurge(0);
    connection.answerClose();
    EXPECT_RC(QPX_OK, purging.get());
    connection.forget();
}

TEST_F(AsyncCall, HoldsUpACloseUntilItIsCollected)
{
    TraceFile trace(2);
    answer(send(), "answered");
    awaitDelivery();
    auto closing = connection.startClose();
    ASSERT_TRUE(trace.awaitText("Waiting for 0 API calls and 1 async requests to complete\n"));
    EXPECT_FALSE(closing.hasEnded());
    EXPECT_TRUE(connection.peer.isQuiet());
    EXPECT_EQ("answered", collect());
    connection.answerClose();
    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
}
