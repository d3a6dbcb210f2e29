// The end of the receiver thread: what ends it, and what becomes of the requests that wait.
#include <memory>
#include <vector>

#include "support/descriptors.h"
#include "unit/receiver_fixture.h"

using namespace fixture;
using namespace script;
using support::Call;
using support::EciParms;
using support::failCall;
using support::failCallOn;
using support::Fault;
using support::getReply;
using support::getReplyWait;
using support::syncCall;
using support::Threads;
using support::TraceFile;

namespace {

class ReceiverEnd : public ReceiverTest {
protected:
    // Synchronous calls on the wire.
    void startCalls(int count)
    {
        for (int at = 0; at < count; ++at) {
            records.push_back(std::make_unique<EciParms>(syncCall("PROG", text("question"))));
            calls.push_back(connection.start(*records.back()));
            connection.awaitRequest();
        }
    }

    void expectAllCalls(int expectedRc)
    {
        for (auto& call : calls) EXPECT_RC(expectedRc, call.get());
    }

    std::vector<std::unique_ptr<EciParms>> records;
    std::vector<support::RunningCall<int>> calls;
};

TEST_F(ReceiverEnd, GivesEveryWaitingCallALostConnection)
{
    startCalls(3);
    startAsync();

    connection.peer.close();

    expectAllCalls(QPX_ERR_LOSTGWCON);
    EciParms collected = getReplyWait(8);
    EXPECT_RC(QPX_ERR_LOSTGWCON, collect(collected));
    expectEnded(3);
    EXPECT_EQ(QPX_ERR_LOSTGWCON, connection.token->handshakeRc);
}

TEST_F(ReceiverEnd, GivesEveryWaitingCallALostConnectionAfterAReset)
{
    startCalls(2);

    connection.peer.reset();

    expectAllCalls(QPX_ERR_LOSTGWCON);
    EXPECT_EQ(3, connection.token->connStatus.load());
}

TEST_F(ReceiverEnd, ReachesCallsInEveryTable)
{
    startCalls(35);

    connection.peer.close();

    expectAllCalls(QPX_ERR_LOSTGWCON);
}

TEST_F(ReceiverEnd, GivesEveryWaitingCallAClosedGatewayAfterACloseFlow)
{
    startCalls(2);
    startAsync();

    connection.peer.send(closeFlow());

    expectAllCalls(QPX_ERR_GATEWAY_CLOSED);
    expectEnded(4);
    EXPECT_EQ(&connection.token->table.slot[2], connection.token->firstReply);
    EXPECT_EQ(&connection.token->table.slot[2], connection.token->lastReply);
    EciParms collected = getReply(8);
    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, collect(collected));
    collected = getReply(8);
    EXPECT_RC(ECI_ERR_NO_REPLY, collect(collected));
}

TEST_F(ReceiverEnd, LeavesTheHandshakeResultAloneAfterACloseFlow)
{
    connection.peer.send(closeFlow());

    expectEnded(4);
    EXPECT_EQ(0, connection.token->handshakeRc);
}

TEST_F(ReceiverEnd, QueuesSeveralAsynchronousRequestsInTheOrderOfTheirSlots)
{
    int first = startAsync();
    int second = startAsync();
    int third = startAsync();

    connection.peer.close();

    for (int expected : {first, second, third}) {
        EciParms collected = getReplyWait(8);
        EXPECT_RC(QPX_ERR_LOSTGWCON, collect(collected));
        EXPECT_EQ(expected, int(collected.record.eci_message_qualifier));
    }
}

TEST_F(ReceiverEnd, KeepsRepliesThatCameBefore)
{
    int first = startAsync();
    int second = startAsync();
    connection.peer.send(eciReply(second, text("answered")));
    connection.peer.close();

    EciParms collected = getReplyWait(8);
    EXPECT_RC(QPX_OK, collect(collected));
    EXPECT_EQ(second, int(collected.record.eci_message_qualifier));
    EXPECT_EQ(text("answered"), collected.commarea());
    collected = getReplyWait(8);
    EXPECT_RC(QPX_ERR_LOSTGWCON, collect(collected));
    EXPECT_EQ(first, int(collected.record.eci_message_qualifier));
}

TEST_F(ReceiverEnd, LeavesAnIdleUnitOfWorkAlone)
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

    connection.peer.close();

    expectEnded(3);
    EXPECT_EQ(4, connection.token->table.slot[0].state);
    EXPECT_EQ(0, connection.token->table.slot[0].gatewayRc);
}

TEST_F(ReceiverEnd, IsTracedWhenTheGatewayCloses)
{
    TraceFile trace(3);

    connection.peer.send(closeFlow());

    expectEnded(4);
    EXPECT_TRUE(trace.wrote(3042, "EVENT",
                            "clapi_gwycon.receiverThread() Connection closed, initiated by "
                            "Gateway; closeRc=61444 (QPX_ERR_GATEWAY_CLOSED)"));
    EXPECT_TRUE(trace.awaitText("[3041] EXIT   clapi_gwycon.receiverThread()"));
}

TEST_F(ReceiverEnd, IsTracedWhenTheApplicationCloses)
{
    TraceFile trace(2);

    connection.closeInOrder();

    EXPECT_TRUE(trace.wrote(3042, "EVENT",
                            "clapi_gwycon.receiverThread() Connection closed, initiated by API; "
                            "closeRc=-140 (QPX_ERR_GWTOK_CLOSED)"));
}

TEST_F(ReceiverEnd, IsRecognisedByTheMessageIdOfAnyFlow)
{
    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, callAnswered(flow(pingType, -1, 0, "BASE", Bytes())));

    expectEnded(4);
}

TEST_F(ReceiverEnd, IsRecognisedInAReplyWithABody)
{
    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, callAnswered(flow(replyType, -1, 61445, "ECI", filled(100))));

    expectEnded(4);
}

TEST_F(ReceiverEnd, ClosesTheSocketAndKeepsItsNumber)
{
    int descriptor = connection.token->socketDescriptor;

    connection.peer.close();

    expectEnded(3);
    EXPECT_EQ(descriptor, connection.token->socketDescriptor);
    EXPECT_FALSE(support::descriptorIsOpen(descriptor));
}

TEST_F(ReceiverEnd, FollowsAWaitForWhatIsNoSocket)
{
    TraceFile trace(1);
    Fault fault = failCall(Call::Recv, 1, EBADF, Threads::Others);

    EXPECT_RC(QPX_ERR_LOSTGWCON, callAnswered(pingFlow()));

    EXPECT_EQ(1, fault.hits());
    EXPECT_TRUE(trace.wrote(2523, "*EXC*",
                            "clapi_socketbuffer.waitForResponse() select failed: Bad file "
                            "descriptor (9)"));
    expectEnded(3);
}

TEST_F(ReceiverEnd, FollowsAFailedRead)
{
    Fault fault = failCall(Call::Recv, 1, ECONNRESET, Threads::Others);

    EXPECT_RC(QPX_ERR_LOSTGWCON, callAnswered(pingFlow()));

    EXPECT_EQ(1, fault.hits());
    expectEnded(3);
}

TEST_F(ReceiverEnd, FollowsAReplyWhenTheSlotTableCannotBeLocked)
{
    int messageId = startAsync();
    TraceFile trace(1);
    Fault fault = failCall(Call::MutexLock, 1, EINVAL, Threads::Others);
    connection.peer.send(eciReply(messageId, text("answered")));

    EciParms collected = getReplyWait(8);
    EXPECT_RC(QPX_ERR_LOSTGWCON, collect(collected));

    EXPECT_EQ(1, fault.hits());
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.receiverThread() Failed to acquire table "
                                "lock\n"));
    expectEnded(3);
    EXPECT_EQ(QPX_ERR_SYSTEM_ERROR, connection.token->handshakeRc);
}

TEST_F(ReceiverEnd, FollowsAReplyWhenTheSlotTableCannotBeLockedForItsDelivery)
{
    int messageId = startAsync();
    TraceFile trace(1);
    Fault fault = failCallOn(Call::MutexLock, &connection.token->tableLock.lock, 2, EINVAL,
                             Threads::Others);
    connection.peer.send(eciReply(messageId, text("answered")));

    EciParms collected = getReplyWait(8);
    EXPECT_RC(QPX_ERR_LOSTGWCON, collect(collected));

    EXPECT_EQ(1, fault.hits());
    EXPECT_EQ(1, trace.timesWroteText("*EXC*  clapi_gwycon.receiverThread() Failed to acquire "
                                      "table lock\n"));
    expectEnded(3);
    EXPECT_EQ(QPX_ERR_SYSTEM_ERROR, connection.token->handshakeRc);
}

TEST_F(ReceiverEnd, FollowsAReplyWhenTheSlotTableCannotBeReleased)
{
    int messageId = startAsync();
    TraceFile trace(1);
    Fault fault = failCall(Call::MutexUnlock, 1, EPERM, Threads::Others);
    connection.peer.send(eciReply(messageId, text("answered")));

    EciParms collected = getReplyWait(8);
    EXPECT_RC(QPX_ERR_LOSTGWCON, collect(collected));

    EXPECT_EQ(1, fault.hits());
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.receiverThread() Failed to release table "
                                "lock\n"));
    expectEnded(3);
}

TEST_F(ReceiverEnd, LeavesALostConnectionToBeClosedWithoutACloseFlow)
{
    connection.peer.shutdownWriting();
    ASSERT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));

    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&connection.token));

    connection.forget();
    EXPECT_EQ(Bytes(), connection.peer.readAll());
}

TEST_F(ReceiverEnd, RefusesLaterCallsOnALostConnection)
{
    connection.peer.close();
    expectEnded(3);
    EciParms parms = syncCall("PROG", text("question"));

    EXPECT_RC(QPX_ERR_LOSTGWCON, QPX_ECI_Execute(connection.token, &parms.record));
}

TEST_F(ReceiverEnd, RefusesLaterCallsOnAConnectionThatTheGatewayClosed)
{
    connection.peer.send(closeFlow());
    expectEnded(4);
    EciParms parms = syncCall("PROG", text("question"));

    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, QPX_ECI_Execute(connection.token, &parms.record));
}

} // namespace
