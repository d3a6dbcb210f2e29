// What the receiver thread does with flows that are no replies: errors, exceptions, pings, unknown
// ones, and such that only look like flows.
#include "unit/receiver_fixture.h"

using namespace fixture;
using namespace script;
using support::Call;
using support::EciParms;
using support::failCall;
using support::Fault;
using support::getReply;
using support::getReplyWait;
using support::Threads;
using support::TraceFile;

namespace {

class ReceiverFlow : public ReceiverTest {
protected:
    int callAnsweredByException(const Bytes& body)
    {
        return callAnswered(flow(exceptionType, 1, 0, "ECI", body));
    }

    // The connection is given up because of these bytes; a waiting call loses it.
    void expectGarbage(const Bytes& bytes)
    {
        EXPECT_RC(QPX_ERR_LOSTGWCON, callAnswered(bytes));
        expectEnded(3);
    }
};

// ---- Errors

TEST_F(ReceiverFlow, ErrorGivesItsCodeToTheRequest)
{
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_WORK_WAS_REFUSED, callAnswered(errorFlow(1, 61445)));

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.receiverThread() Gateway returned a flow "
                                "type of FLOW_ERROR, rc=61445 (QPX_ERR_WORK_WAS_REFUSED)\n"));
    expectAlive();
}

TEST_F(ReceiverFlow, ErrorWithoutACodeEndsTheCallWell)
{
    EXPECT_RC(QPX_OK, callAnswered(errorFlow(1, 0)));

    EXPECT_EQ(text("question"), asked.commarea());
    expectAlive();
}

TEST_F(ReceiverFlow, ErrorReachesAnAsynchronousRequest)
{
    int messageId = startAsync();
    connection.peer.send(errorFlow(messageId, 61450));

    EciParms collected = getReplyWait(8);

    EXPECT_RC(QPX_ERR_GATEWAY_BACK_LEVEL, collect(collected));
}

TEST_F(ReceiverFlow, ErrorForAnUnknownIdIsIgnored)
{
    TraceFile trace(1);

    expectIgnored(errorFlow(17, 61445) + errorFlow(0, 61445) + errorFlow(-3, 61445));

    EXPECT_EQ(3, trace.timesWroteText("Gateway returned a flow type of FLOW_ERROR, rc=61445 "
                                      "(QPX_ERR_WORK_WAS_REFUSED)\n"));
}

TEST_F(ReceiverFlow, ErrorForAFreeSlotIsIgnored)
{
    expectIgnored(errorFlow(9, 61445));

    EXPECT_EQ(0, connection.token->table.slot[8].state);
}

TEST_F(ReceiverFlow, ErrorWithABodyIsReadToItsEnd)
{
    EXPECT_RC(QPX_ERR_WORK_WAS_REFUSED,
              callAnswered(flow(errorType, 1, 61445, "ECI", filled(500, 0x47))));

    expectAlive();
}

TEST_F(ReceiverFlow, ErrorWithALargeBodyIsReadToItsEnd)
{
    EXPECT_RC(QPX_ERR_WORK_WAS_REFUSED,
              callAnswered(flow(errorType, 1, 61445, "ECI", filled(100000, 0x47))));

    expectAlive();
}

TEST_F(ReceiverFlow, ErrorOfTheConnectionEndsIt)
{
    EXPECT_RC(QPX_ERR_LOSTGWCON, callAnswered(errorFlow(-2, 61445)));

    expectEnded(3);
    EXPECT_EQ(61445, connection.token->handshakeRc);
}

TEST_F(ReceiverFlow, ErrorOfTheConnectionWithoutACodeEndsItToo)
{
    EXPECT_RC(QPX_ERR_LOSTGWCON, callAnswered(errorFlow(-2, 0)));

    expectEnded(3);
    EXPECT_EQ(QPX_ERR_SYSTEM_ERROR, connection.token->handshakeRc);
}

// ---- Exceptions

TEST_F(ReceiverFlow, ExceptionTracesItsTextAndFailsTheRequest)
{
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_GATEWAY_EXCEPTION, callAnswered(exceptionFlow(1, "out of order")));

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.receiverThread() Gateway returned a flow "
                                "type of FLOW_EXCEPTION\n"));
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.receiverThread() Exception message: out of "
                                "order\n"));
    expectAlive();
}

TEST_F(ReceiverFlow, ExceptionReplacesTheCodeOfItsHeader)
{
    EXPECT_RC(QPX_ERR_GATEWAY_EXCEPTION,
              callAnswered(flow(exceptionType, 1, 61445, "ECI", hex("00 0001 41"))));
}

TEST_F(ReceiverFlow, ExceptionReachesAnAsynchronousRequest)
{
    int messageId = startAsync();
    connection.peer.send(exceptionFlow(messageId, "out of order"));

    EciParms collected = getReplyWait(8);

    EXPECT_RC(QPX_ERR_GATEWAY_EXCEPTION, collect(collected));
}

TEST_F(ReceiverFlow, ExceptionForAnUnknownIdIsTracedAndIgnored)
{
    TraceFile trace(1);

    expectIgnored(exceptionFlow(17, "nobody's") + exceptionFlow(-2, "the connection's"));

    EXPECT_TRUE(trace.wroteText("Exception message: nobody's\n"));
    EXPECT_TRUE(trace.wroteText("Exception message: the connection's\n"));
}

TEST_F(ReceiverFlow, ExceptionForAFreeSlotIsIgnored)
{
    expectIgnored(exceptionFlow(9, "nobody's"));

    EXPECT_EQ(0, connection.token->table.slot[8].state);
}

TEST_F(ReceiverFlow, ExceptionMayHaveAnEmptyText)
{
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_GATEWAY_EXCEPTION, callAnsweredByException(hex("00 0000")));

    EXPECT_TRUE(trace.wroteText("Exception message: \n"));
    expectAlive();
}

TEST_F(ReceiverFlow, ExceptionMayHaveNoBody)
{
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_GATEWAY_EXCEPTION, callAnsweredByException(Bytes()));

    EXPECT_TRUE(trace.wroteText("Exception message: \n"));
    expectAlive();
}

TEST_F(ReceiverFlow, ExceptionMayHaveABodyThatEndsBeforeItsLength)
{
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_GATEWAY_EXCEPTION, callAnsweredByException(hex("00 00")));

    EXPECT_TRUE(trace.wroteText("Exception message: \n"));
    expectAlive();
}

TEST_F(ReceiverFlow, ExceptionShowsNoMoreTextThanThereIs)
{
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_GATEWAY_EXCEPTION, callAnsweredByException(hex("00 7FFF 414243")));

    EXPECT_TRUE(trace.wroteText("Exception message: ABC\n"));
    expectAlive();
}

TEST_F(ReceiverFlow, ExceptionShowsNoMoreTextThanItsLength)
{
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_GATEWAY_EXCEPTION, callAnsweredByException(hex("00 0002 414243")));

    EXPECT_TRUE(trace.wroteText("Exception message: AB\n"));
    expectAlive();
}

TEST_F(ReceiverFlow, ExceptionHasALengthWithoutASign)
{
    TraceFile trace(1);
    Bytes message = filled(65534, 'e');
    message.push_back('!');

    EXPECT_RC(QPX_ERR_GATEWAY_EXCEPTION, callAnsweredByException(hex("00 FFFF") + message));

    EXPECT_TRUE(trace.wroteText("eeee!\n"));
    expectAlive();
}

TEST_F(ReceiverFlow, ExceptionShowsPercentSignsAsTheyAre)
{
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_GATEWAY_EXCEPTION, callAnswered(exceptionFlow(1, "100%n %s")));

    EXPECT_TRUE(trace.wroteText("Exception message: 100%n %s\n"));
}

TEST_F(ReceiverFlow, ExceptionIgnoresItsFirstByte)
{
    EXPECT_RC(QPX_ERR_GATEWAY_EXCEPTION, callAnsweredByException(hex("FF 0001 41")));

    expectAlive();
}

TEST_F(ReceiverFlow, ExceptionWithTrailingBytesIsReadToItsEnd)
{
    EXPECT_RC(QPX_ERR_GATEWAY_EXCEPTION,
              callAnsweredByException(hex("00 0003 414243") + filled(40000, 0x47)));

    expectAlive();
}

TEST_F(ReceiverFlow, ExceptionEndsTheConnectionWithoutMemoryForItsText)
{
    int messageId = startAsync();
    TraceFile trace(1);
    Fault fault = failCall(Call::Malloc, 1, ENOMEM, Threads::Others);
    connection.peer.send(exceptionFlow(messageId, "out of order"));

    EciParms collected = getReplyWait(8);
    EXPECT_RC(QPX_ERR_LOSTGWCON, collect(collected));

    EXPECT_EQ(1, fault.hits());
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.receiverThread() Failed to allocate <int> "
                                "bytes for exception message\n"));
    expectEnded(3);
    EXPECT_EQ(QPX_ERR_SYSTEM_ERROR, connection.token->handshakeRc);
}

// ---- Flows that change nothing

TEST_F(ReceiverFlow, PingIsTracedAndChangesNothing)
{
    TraceFile trace(4);

    expectIgnored(pingFlow());

    EXPECT_TRUE(trace.wroteText("DEBUG  clapi_gwycon.receiverThread() Flow type is FLOW_PING\n"));
    EXPECT_TRUE(connection.peer.isQuiet());
}

TEST_F(ReceiverFlow, PingWithABodyIsReadToItsEnd)
{
    expectIgnored(flow(pingType, 0, 0, "BASE", text("are you there?")));
}

TEST_F(ReceiverFlow, PingWithABodyOfTheBuffersSizeIsReadToItsEnd)
{
    for (std::size_t size : {32966U, 32967U, 32968U, 32999U, 33000U, 33001U})
        expectIgnored(flow(pingType, 0, 0, "BASE", filled(size, 0x47)));
}

TEST_F(ReceiverFlow, PingWithALargeBodyIsReadToItsEnd)
{
    expectIgnored(flow(pingType, 0, 0, "BASE", filled(99999, 0x47)));
}

TEST_F(ReceiverFlow, PingForAWaitingRequestDoesNotAnswerIt)
{
    expectIgnored(flow(pingType, 1, 61445, "ECI", Bytes()));
}

TEST_F(ReceiverFlow, CloseWithAnotherMessageIdIsTracedAndChangesNothing)
{
    TraceFile trace(4);

    expectIgnored(flow(closeType, 1, 0, "BASE", text("body")));

    EXPECT_TRUE(trace.wroteText("DEBUG  clapi_gwycon.receiverThread() Flow type is FLOW_CLOSE\n"));
}

TEST_F(ReceiverFlow, HandshakeAnswerChangesNothingLater)
{
    expectIgnored(handshakeAnswer() + flow(handshakeType, -2, 0, "BASE", text("body")));
}

TEST_F(ReceiverFlow, UnknownTypesAreIgnoredWithoutATrace)
{
    TraceFile trace(1);
    Bytes flows;
    for (int type : {0, 1, 2, 8, 9, 11, 99, -1, 2147483647})
        flows += flow(type, 1, 61445, "ECI", text("anything"));

    expectIgnored(flows);

    EXPECT_EQ("", trace.text());
}

TEST_F(ReceiverFlow, UnknownTypeWithALargeBodyIsReadToItsEnd)
{
    expectIgnored(flow(99, 1, 0, "ECI", filled(80000, 0x47)));
}

// ---- What is no flow

TEST_F(ReceiverFlow, BadEyecatcherEndsTheConnection)
{
    TraceFile trace(1);

    expectGarbage(text("Etag") + support::slice(eciReply(1, text("answered")), 4, 60));

    EXPECT_TRUE(trace.wrote(3213, "*EXC*",
                            "clapi_socketcomms.clapiReadHeader() Bad eyecatcher! "
                            "Expected=0x47617465, actual=0x45746167"));
    EXPECT_EQ(QPX_ERR_SYSTEM_ERROR, connection.token->handshakeRc);
}

TEST_F(ReceiverFlow, NegativeTypeLengthEndsTheConnection)
{
    expectGarbage(header(replyType, 1, 0, -1, "ECI", 8) + text("answered"));
}

TEST_F(ReceiverFlow, TypeLengthOfSevenEndsTheConnection)
{
    expectGarbage(header(replyType, 1, 0, 7, "ABCDEFG", 8) + text("answered"));
}

TEST_F(ReceiverFlow, HugeTypeLengthEndsTheConnection)
{
    expectGarbage(header(replyType, 1, 0, 2147483647, "ECI", 8) + text("answered"));
}

TEST_F(ReceiverFlow, NegativeBodyLengthEndsTheConnection)
{
    expectGarbage(header(replyType, 1, 0, 3, "ECI", -1) + text("answered"));
}

TEST_F(ReceiverFlow, BodyLengthBelowWhatIsReadAlreadyEndsTheConnection)
{
    expectGarbage(header(replyType, 1, 0, 0, "", 2) + text("answered"));
}

TEST_F(ReceiverFlow, EndOfTheStreamInsideAHeaderEndsTheConnection)
{
    asked = support::syncCall("PROG", text("question"));
    auto call = connection.start(asked);
    connection.awaitRequest();

    connection.peer.send(support::slice(eciReply(1, text("answered")), 0, 31));
    connection.peer.close();

    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
}

TEST_F(ReceiverFlow, EndOfTheStreamInsideABodyEndsTheConnection)
{
    asked = support::syncCall("PROG", text("question"));
    auto call = connection.start(asked);
    connection.awaitRequest();

    Bytes answer = eciReply(1, text("answered"));
    connection.peer.send(support::slice(answer, 0, answer.size() - 1));
    connection.peer.close();

    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
}

TEST_F(ReceiverFlow, EndOfTheStreamInsideALargeBodyEndsTheConnection)
{
    asked = support::syncCall("PROG", filled(32767, 'q'));
    auto call = connection.start(asked);
    connection.awaitRequest();

    Bytes answer = flow(replyType, 1, 0, "ECI", [] {
        ReplyBody body;
        body.commarea = filled(40000, 'a');
        return body.bytes();
    }());
    connection.peer.send(support::slice(answer, 0, 33100));
    connection.peer.close();

    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
}

TEST_F(ReceiverFlow, InnerLengthBeyondTheBodyEndsTheConnection)
{
    Bytes body = be32(1) + be32(0) + be32(0) + be32(0) + text("    ") + be32(2000000) + hex("00") +
                 text("answered") + hex("00");

    expectGarbage(flow(replyType, 1, 0, "ECI", body));
}

} // namespace
