// What the receiver thread does with replies.
#include "support/channel_bytes.h"
#include "unit/receiver_fixture.h"

using namespace fixture;
using namespace script;
using support::asyncCall;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::EciParms;
using support::failCall;
using support::Fault;
using support::Gate;
using support::getReply;
using support::getReplyWait;
using support::syncCall;
using support::Threads;
using support::TraceFile;

namespace {

class ReceiverReply : public ReceiverTest {};

Bytes esiReplyBody(int vornRc)
{
    return be32(vornRc);
}

Bytes goodEsiReplyBody()
{
    Bytes body = be32(0);
    for (int field = 1; field <= 21; ++field) body += be32(field);
    return body + be32(3);
}

TEST_F(ReceiverReply, PutsTheCommareaIntoTheCallersBuffer)
{
    EXPECT_RC(QPX_OK, callAnswered(eciReply(1, text("answered"))));

    EXPECT_EQ(text("answered"), asked.commarea());
}

TEST_F(ReceiverReply, IsTracedWithItsRequestType)
{
    TraceFile trace(4);

    callAnswered(eciReply(1, text("answered")));

    EXPECT_TRUE(trace.wroteText("DEBUG  clapi_gwycon.receiverThread() Flow type is FLOW_REPLY, "
                                "request type ECI\n"));
    // The receiver may still be on its way to the next wait.
    EXPECT_TRUE(trace.awaitText("DEBUG  clapi_gwycon.receiverThread() Waiting for a reply\n"));
}

TEST_F(ReceiverReply, CarriesAbendCodeAndUnitOfWork)
{
    ReplyBody body;
    body.abendCode = "ASRA";
    body.luwToken = 77;
    body.commarea = text("answered");

    EXPECT_RC(QPX_OK, callAnswered(eciReply(1, body)));

    EXPECT_EQ("ASRA", std::string(asked.record.eci_abend_code, 4));
    EXPECT_EQ(77, int(asked.record.eci_luw_token));
}

TEST_F(ReceiverReply, GivesTheServersCodeAndTracesIt)
{
    ReplyBody body;
    body.vornRc = -7;
    body.abendCode = "AEI0";
    body.commarea = text("answered");
    TraceFile trace(1);

    EXPECT_RC(ECI_ERR_TRANSACTION_ABEND, callAnswered(eciReply(1, body)));

    EXPECT_EQ("AEI0", std::string(asked.record.eci_abend_code, 4));
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.receiverThread() Gateway returned ECI error, "
                                "rc=-7 (ECI_ERR_TRANSACTION_ABEND)\n"));
}

TEST_F(ReceiverReply, NamesAServersCodeFromTheEciFamily)
{
    ReplyBody body;
    body.vornRc = -9;
    body.commarea = text("answered");
    TraceFile trace(1);

    EXPECT_RC(ECI_ERR_SYSTEM_ERROR, callAnswered(eciReply(1, body)));

    EXPECT_TRUE(trace.wroteText("Gateway returned ECI error, rc=-9 (ECI_ERR_SYSTEM_ERROR)\n"));
}

TEST_F(ReceiverReply, GivesTheGatewaysCodeBeforeTheServers)
{
    ReplyBody body;
    body.vornRc = -7;
    body.commarea = text("answered");

    EXPECT_RC(QPX_ERR_WORK_WAS_REFUSED,
              callAnswered(flow(replyType, 1, 61445, "ECI", body.bytes())));

    expectAlive();
}

TEST_F(ReceiverReply, MayHaveNoBodyWithAGatewaysCode)
{
    EXPECT_RC(QPX_ERR_WORK_WAS_REFUSED, callAnswered(flow(replyType, 1, 61445, "ECI", Bytes())));

    expectAlive();
}

TEST_F(ReceiverReply, MayHaveAShortBodyWithAGatewaysCode)
{
    EXPECT_RC(QPX_ERR_WORK_WAS_REFUSED,
              callAnswered(flow(replyType, 1, 61445, "ECI", be32(1) + be32(0) + hex("00"))));

    expectAlive();
}

TEST_F(ReceiverReply, EndsTheConnectionWhenItIsTooShort)
{
    EXPECT_RC(QPX_ERR_LOSTGWCON,
              callAnswered(flow(replyType, 1, 0, "ECI", be32(1) + be32(0) + hex("00"))));

    expectEnded(3);
}

TEST_F(ReceiverReply, EndsTheConnectionWhenItIsEmpty)
{
    EXPECT_RC(QPX_ERR_LOSTGWCON, callAnswered(flow(replyType, 1, 0, "ECI", Bytes())));

    expectEnded(3);
}

TEST_F(ReceiverReply, ArrivesInPiecesOfAnySize)
{
    Bytes answer = eciReply(1, text("answered"));
    for (std::size_t size = 1; size <= 8; ++size) {
        asked = syncCall("PROG", text("question"));
        auto call = connection.start(asked);
        connection.awaitRequest();

        connection.peer.sendInPieces(answer, size);

        EXPECT_RC(QPX_OK, call.get()) << size;
        EXPECT_EQ(text("answered"), asked.commarea()) << size;
    }
}

TEST_F(ReceiverReply, CarriesTheLargestCommarea)
{
    asked = syncCall("PROG", filled(32767, 'q'));
    auto call = connection.start(asked);
    connection.awaitRequest();
    Bytes large = filled(32767, 'a');
    large.back() = 'z';

    connection.peer.send(eciReply(1, large));

    EXPECT_RC(QPX_OK, call.get());
    EXPECT_EQ(large, asked.commarea());
    expectAlive();
}

TEST_F(ReceiverReply, KeepsToTheCallersBufferWhenItIsTooLong)
{
    asked = syncCall("PROG", text("12345678"));
    asked.area.insert(asked.area.end(), {'s', 'a', 'f', 'e'});
    asked.record.eci_commarea = asked.area.data();
    auto call = connection.start(asked);
    connection.awaitRequest();

    connection.peer.send(eciReply(1, filled(40000, 'x')));

    EXPECT_RC(QPX_OK, call.get());
    EXPECT_EQ(text("xxxxxxxxsafe"), asked.commarea());
    expectAlive();
}

TEST_F(ReceiverReply, FillsTheCommareaWithZerosBehindAShorterAnswer)
{
    Bytes body = be32(1) + be32(0) + be32(0) + be32(0) + text("    ") + be32(8) + hex("FF00") +
                 be32(3) + text("abc") + hex("00");

    EXPECT_RC(QPX_OK, callAnswered(flow(replyType, 1, 0, "ECI", body)));

    EXPECT_EQ(text("abc") + filled(5), asked.commarea());
}

TEST_F(ReceiverReply, LeavesInboundLengthAndQualifierOfASynchronousCallAlone)
{
    asked = syncCall("PROG", text("question"));
    asked.record.commarea_inbound_length = 5;
    asked.record.eci_message_qualifier = 4711;
    auto call = connection.start(asked);
    connection.awaitRequest();

    connection.peer.send(eciReply(1, text("abcde")));

    EXPECT_RC(QPX_OK, call.get());
    EXPECT_EQ(5, asked.record.commarea_inbound_length);
    EXPECT_EQ(4711, int(asked.record.eci_message_qualifier));
}

TEST_F(ReceiverReply, PutsItsResultsIntoTheSlot)
{
    int messageId = startAsync();
    ReplyBody body;
    body.abendCode = "WXYZ";
    body.luwToken = 5;
    body.vornRc = -22;
    body.commarea = text("abc");
    connection.peer.send(eciReply(messageId, body));
    RequestSlot& slot = connection.token->table.slot[0];
    ASSERT_EQ(0, clapiWaitEvent(&slot.requestEvent));

    EXPECT_EQ(3, slot.state);
    EXPECT_EQ(0, slot.gatewayRc);
    EXPECT_EQ(-22, slot.vornRc);
    EXPECT_EQ(3, slot.eciParms.commarea_inbound_length);
    EXPECT_EQ(5, int(slot.eciParms.eci_luw_token));
    EXPECT_EQ("WXYZ", std::string(slot.eciParms.eci_abend_code, 4));

    EciParms collected = getReply(8);
    EXPECT_RC(ECI_ERR_UNKNOWN_SERVER, collect(collected));
}

TEST_F(ReceiverReply, TakesTheUnitOfWorkFromTheServerNumberOfAListReply)
{
    int messageId = startAsync();
    connection.peer.send(
        flow(replyType, messageId, 0, "ECI", be32(9) + be32(65537) + be32(0) + be32(0)));
    RequestSlot& slot = connection.token->table.slot[0];
    ASSERT_EQ(0, clapiWaitEvent(&slot.requestEvent));

    EXPECT_EQ(65537, int(slot.eciParms.eci_luw_token));

    EciParms collected = getReply(8);
    EXPECT_RC(QPX_OK, collect(collected));
}

TEST_F(ReceiverReply, QueuesAsynchronousRepliesInTheOrderOfTheirArrival)
{
    int first = startAsync("FIRST");
    int second = startAsync("SECOND");
    int third = startAsync("THIRD");
    connection.peer.send(eciReply(second, text("two")) + eciReply(third, text("three")) +
                         eciReply(first, text("one")));
    RequestSlot* slot = connection.token->table.slot;
    for (int at = 0; at < 3; ++at) ASSERT_EQ(0, clapiWaitEvent(&slot[at].requestEvent));

    EXPECT_EQ(&slot[1], connection.token->firstReply);
    EXPECT_EQ(&slot[2], slot[1].nextReply);
    EXPECT_EQ(&slot[0], slot[2].nextReply);
    EXPECT_EQ(nullptr, slot[0].nextReply);
    EXPECT_EQ(&slot[0], connection.token->lastReply);
    EXPECT_EQ(1, connection.token->asyncReplyEvent.eflag);

    for (int expected : {second, third, first}) {
        EciParms collected = getReply(8);
        EXPECT_RC(QPX_OK, collect(collected));
        EXPECT_EQ(expected, int(collected.record.eci_message_qualifier));
    }
    EXPECT_EQ(nullptr, connection.token->firstReply);
    EXPECT_EQ(nullptr, connection.token->lastReply);
}

TEST_F(ReceiverReply, DoesNotQueueSynchronousReplies)
{
    expectAlive();

    EXPECT_EQ(nullptr, connection.token->firstReply);
    EciParms nothing = getReply(8);
    EXPECT_RC(ECI_ERR_NO_REPLY, collect(nothing));
}

TEST_F(ReceiverReply, AnswersEachOfSeveralCallsWithItsOwn)
{
    EciParms one = syncCall("ONE", filled(4));
    EciParms two = syncCall("TWO", filled(4));
    auto first = connection.start(one);
    int idOfFirst = connection.awaitRequest().messageId();
    auto second = connection.start(two);
    int idOfSecond = connection.awaitRequest().messageId();

    connection.peer.send(eciReply(idOfSecond, text("2222")) + eciReply(idOfFirst, text("1111")));

    EXPECT_RC(QPX_OK, first.get());
    EXPECT_RC(QPX_OK, second.get());
    EXPECT_EQ(text("1111"), one.commarea());
    EXPECT_EQ(text("2222"), two.commarea());
}

TEST_F(ReceiverReply, OfTheEsiKindIsTakenForAnEciRequestToo)
{
    EXPECT_RC(QPX_OK, callAnswered(flow(replyType, 1, 0, "ESI", goodEsiReplyBody())));

    EXPECT_EQ(text("question"), asked.commarea());
    expectAlive();
}

TEST_F(ReceiverReply, OfTheEsiKindGivesItsCodeAndTracesIt)
{
    TraceFile trace(1);

    EXPECT_RC(-107, callAnswered(flow(replyType, 1, 0, "ESI", esiReplyBody(-107))));

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.receiverThread() Gateway returned ESI error, "
                                "rc=-107 (ESI_ERR_PASSWORD_REJECTED)\n"));
    expectAlive();
}

TEST_F(ReceiverReply, OfTheEsiKindWithoutACodeIsAnError)
{
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, callAnswered(flow(replyType, 1, 0, "ESI", hex("000000"))));

    expectAlive();
}

TEST_F(ReceiverReply, OfTheEsiKindWithoutACodeGivesTheGatewaysCode)
{
    EXPECT_RC(QPX_ERR_INVALID_REQUEST_TYPE,
              callAnswered(flow(replyType, 1, 61451, "ESI", Bytes())));

    expectAlive();
}

TEST_F(ReceiverReply, OfAnUnknownKindGivesASystemError)
{
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, callAnswered(flow(replyType, 1, 0, "XYZ", text("anything"))));

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.receiverThread() Gateway returned unexpected "
                                "request type XYZ\n"));
    expectAlive();
}

TEST_F(ReceiverReply, OfAnUnknownKindReplacesTheGatewaysCode)
{
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, callAnswered(flow(replyType, 1, 61445, "BASE", Bytes())));

    expectAlive();
}

TEST_F(ReceiverReply, OfAnUnknownKindOfSixLettersIsTracedWhole)
{
    TraceFile trace(4);

    EXPECT_RC(QPX_ERR_SYSTEM_ERROR,
              callAnswered(flow(replyType, 1, 0, "ABCDEF", text("anything"))));

    EXPECT_TRUE(trace.wroteText("Flow type is FLOW_REPLY, request type ABCDEF\n"));
    EXPECT_TRUE(trace.wroteText("Gateway returned unexpected request type ABCDEF\n"));
}

TEST_F(ReceiverReply, WithoutAKindCountsAsEci)
{
    ReplyBody body;
    body.commarea = text("answered");

    EXPECT_RC(QPX_OK, callAnswered(flow(replyType, 1, 0, "", body.bytes())));

    EXPECT_EQ(text("answered"), asked.commarea());
    expectAlive();
}

TEST_F(ReceiverReply, OfTheLettersEcCountsAsEci)
{
    ReplyBody body;
    body.commarea = text("answered");

    EXPECT_RC(QPX_OK, callAnswered(flow(replyType, 1, 0, "EC", body.bytes())));

    EXPECT_EQ(text("answered"), asked.commarea());
}

TEST_F(ReceiverReply, OfTheLettersEciAndAnotherIsUnknown)
{
    ReplyBody body;
    body.commarea = text("answered");

    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, callAnswered(flow(replyType, 1, 0, "ECIX", body.bytes())));

    expectAlive();
}

TEST_F(ReceiverReply, IsIgnoredForASlotThatIsFree)
{
    expectIgnored(eciReply(9, text("unwanted")));

    EXPECT_EQ(0, connection.token->table.slot[8].state);
}

TEST_F(ReceiverReply, IsIgnoredWhenItComesTwice)
{
    asked = syncCall("PROG", text("question"));
    auto call = connection.start(asked);
    connection.awaitRequest();

    connection.peer.send(eciReply(1, text("answered")) + eciReply(1, text("repeated")));

    EXPECT_RC(QPX_OK, call.get());
    EXPECT_EQ(text("answered"), asked.commarea());
    EXPECT_RC(QPX_OK, [&] {
        asked = syncCall("PROG", text("question"));
        auto next = connection.start(asked);
        connection.awaitRequest();
        connection.peer.send(eciReply(1, text("answered")));
        return next.get();
    }());
}

TEST_F(ReceiverReply, IsNotQueuedTwiceWhenItComesTwice)
{
    int first = startAsync();
    int second = startAsync();

    connection.peer.send(eciReply(first, text("one")) + eciReply(first, text("uno")) +
                         eciReply(second, text("two")));

    EciParms collected = getReplyWait(8);
    EXPECT_RC(QPX_OK, collect(collected));
    EXPECT_EQ(first, int(collected.record.eci_message_qualifier));
    EXPECT_EQ(text("one"), support::slice(collected.commarea(), 0, 3));
    collected = getReplyWait(8);
    EXPECT_RC(QPX_OK, collect(collected));
    EXPECT_EQ(second, int(collected.record.eci_message_qualifier));
    collected = getReply(8);
    EXPECT_RC(ECI_ERR_NO_REPLY, collect(collected));
}

TEST_F(ReceiverReply, IsIgnoredForAnIdleUnitOfWork)
{
    ReplyBody body;
    body.luwToken = 12;
    body.commarea = text("answered");
    asked = syncCall("PROG", text("question"));
    asked.withExtendMode(ECI_EXTENDED);
    auto call = connection.start(asked);
    connection.awaitRequest();
    connection.peer.send(eciReply(1, body));
    ASSERT_RC(QPX_OK, call.get());
    ASSERT_EQ(4, connection.token->table.slot[0].state);

    EciParms other = syncCall("PROG", text("question"));
    auto next = connection.start(other);
    EXPECT_EQ(2, connection.awaitRequest().messageId());
    connection.peer.send(eciReply(1, text("unwanted")) + eciReply(2, text("answered")));

    EXPECT_RC(QPX_OK, next.get());
    EXPECT_EQ(4, connection.token->table.slot[0].state);
    EXPECT_EQ(12, int(connection.token->table.slot[0].eciParms.eci_luw_token));
    EXPECT_EQ(text("answered"), asked.commarea());
}

TEST_F(ReceiverReply, EndsTheConnectionWhenNoSlotHasItsId)
{
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_LOSTGWCON, callAnswered(eciReply(17, text("answered"))));

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.slotLookup() <any>\n"));
    expectEnded(3);
}

TEST_F(ReceiverReply, EndsTheConnectionForTheIdZero)
{
    EXPECT_RC(QPX_ERR_LOSTGWCON, callAnswered(eciReply(0, text("answered"))));

    expectEnded(3);
    EXPECT_EQ(QPX_ERR_SYSTEM_ERROR, connection.token->handshakeRc);
}

// ---- A reply that comes while its request waits to be sent

class EarlyReply : public ReceiverTest {
protected:
    // A call stops before it gets to send, and its reply comes for which there is no memory.
    void answerWithoutMemory(support::RunningCall<int>& call, const Bytes& answer)
    {
        ASSERT_TRUE(sender.awaitArrival());
        TraceFile trace(1);
        Fault noMemory = failCall(Call::Malloc, 1, ENOMEM, Threads::Others);

        connection.peer.send(answer);

        ASSERT_TRUE(
            trace.awaitText("*EXC*  clapi_gwycon.receiverThread() Failed to allocate memory "
                            "for a reply that came before its request was sent\n"));
        sender.open();
        EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
        EXPECT_EQ(1, noMemory.hits());
        expectEnded(3);
    }

    Gate sender;
    Fault beforeSending = beforeCall(Call::MutexLock, 0, [this](const CallInfo& info) {
        if (info.first == asNumber(&connection.token->sendLock.lock)) sender.pass();
    });
};

TEST_F(EarlyReply, EndsTheConnectionWithoutMemoryToKeepItsCommarea)
{
    asked = syncCall("PROG", text("question"));
    auto call = connection.start(asked);

    answerWithoutMemory(call, eciReply(1, text("answered")));

    EXPECT_EQ(text("question"), asked.commarea());
}

TEST_F(EarlyReply, EndsTheConnectionWithoutMemoryToKeepItsChannelSection)
{
    ECI_ChannelToken_t channel = nullptr;
    ASSERT_RC(QPX_OK, ECI_createChannel("CHANNEL", &channel));
    asked = syncCall("PROG");
    asked.record.channel = channel;
    auto call = support::callInThread(
        [&] { return QPX_ECI_Execute_Channel(connection.token, &asked.record); });
    Bytes section = support::channelSection("CHANNEL", 819, 1, support::deleted("A"));

    answerWithoutMemory(call, flow(replyType, 1, 0, "ECI", support::replyBody(section)));

    EXPECT_RC(QPX_OK, ECI_deleteChannel(&channel));
}

TEST_F(EarlyReply, EndsTheConnectionWhenItsChannelSectionIsBroken)
{
    ECI_ChannelToken_t channel = nullptr;
    ASSERT_RC(QPX_OK, ECI_createChannel("CHANNEL", &channel));
    asked = syncCall("PROG");
    asked.record.channel = channel;
    auto call = support::callInThread(
        [&] { return QPX_ECI_Execute_Channel(connection.token, &asked.record); });
    ASSERT_TRUE(sender.awaitArrival());
    TraceFile trace(4);
    Bytes section = support::channelSection("CHANNEL", 819, 1,
                                            support::changeOf("A", support::changeAdded, 1, 0, 9));

    connection.peer.send(flow(replyType, 1, 0, "ECI", support::replyBody(section)) + pingFlow());

    ASSERT_TRUE(trace.awaitText("Flow type is FLOW_PING")); // behind the reply
    EXPECT_EQ(0, trace.timesWrote(3029));
    sender.open();
    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    EXPECT_TRUE(trace.wrote(3029, "*EXC*",
                            "clapi_gwycon.receiverThread() A field or record of a reply goes "
                            "beyond its message"));
    connection.awaitRequest();
    expectEnded(3);
    EXPECT_RC(QPX_OK, ECI_deleteChannel(&channel));
}

} // namespace
