// The socket of a connection: who closes it and when, and that nothing is written to its number
// once that may be another's.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "schedule/race_fixture.h"
#include "support/descriptors.h"

using namespace race;
using support::descriptorIsOpen;

namespace {

// Gives a descriptor that the library has closed to a stream of the test's own.
class NumberTaken {
public:
    explicit NumberTaken(int number)
    {
        EXPECT_FALSE(descriptorIsOpen(number));
        EXPECT_EQ(number, dup2(STDERR_FILENO, number)); // lest one of the next two has it
        auto ends = support::socketPair();
        EXPECT_EQ(number, dup2(ends.first.fd(), number));
        here = Peer(number);
        there = std::move(ends.second);
    }

    void expectUntouched()
    {
        EXPECT_TRUE(descriptorIsOpen(here.fd()));
        EXPECT_TRUE(there.isQuiet());
    }

private:
    Peer here;
    Peer there;
};

class SocketNumber : public RaceTest {
protected:
    // The receiver has closed the socket and stands before its last step.
    void endAndTakeNumber(bool lost, Hold& last)
    {
        if (lost)
            connection.peer.shutdownWriting();
        else
            connection.peer.send(closeFlow());
        last.awaitArrival();
        number = std::make_unique<NumberTaken>(token()->socketDescriptor);
    }

    std::unique_ptr<NumberTaken> number;
};

// ---- A number that is another's by now ----

struct Ended {
    Kind kind;
    bool lost; // or closed by the Gateway
};

class RequestToAnEndedConnection : public SocketNumber,
                                   public ::testing::WithParamInterface<Ended> {
protected:
    // The connection ends, and its number is another's, while the request is held at the point.
    void expectUntouchedAfter(SchedulePoint point)
    {
        Call work(GetParam().kind);
        Hold held(point);
        auto call = start(work);
        held.awaitArrival();
        Hold last(SchedulePoint::receiverEnding);
        endAndTakeNumber(GetParam().lost, last);

        held.release();

        bool toldOfTheClose = !GetParam().lost && !isNoProgramCall(GetParam().kind);
        EXPECT_RC(toldOfTheClose ? QPX_ERR_GATEWAY_CLOSED : QPX_ERR_LOSTGWCON, call.get());
        number->expectUntouched();
        last.release();
        expectClosable();
    }
};

TEST_P(RequestToAnEndedConnection, IsNotWrittenToTheNumberOfTheSocket)
{
    expectUntouchedAfter(SchedulePoint::callRegistered);
}

TEST_P(RequestToAnEndedConnection, IsNotWrittenToTheNumberOfTheSocketAtItsLastStep)
{
    expectUntouchedAfter(SchedulePoint::requestArmed);
}

INSTANTIATE_TEST_SUITE_P(
    Every, RequestToAnEndedConnection,
    ::testing::Values(Ended{Kind::Sync, true}, Ended{Kind::Sync, false}, Ended{Kind::Async, true},
                      Ended{Kind::Async, false}, Ended{Kind::SyncChannel, true},
                      Ended{Kind::SyncChannel, false}, Ended{Kind::AsyncChannel, true},
                      Ended{Kind::AsyncChannel, false}, Ended{Kind::Password, true},
                      Ended{Kind::Password, false}, Ended{Kind::Systems, true},
                      Ended{Kind::Systems, false}),
    [](const auto& about) {
        return std::string(nameOf(about.param.kind)) +
               (about.param.lost ? "_Lost" : "_ClosedByGateway");
    });

TEST_F(SocketNumber, GetsNoCloseFlowOnceItIsAnothers)
{
    Hold beforeFlow(SchedulePoint::beforeCloseFlow);
    auto closing = startClose(Close::InOrder, &connection.token);
    beforeFlow.awaitArrival();
    Hold last(SchedulePoint::receiverEnding);
    endAndTakeNumber(true, last);

    beforeFlow.release();

    receiverAwaited.await(1);
    number->expectUntouched();
    last.release();
    EXPECT_RC(QPX_ERR_LOSTGWCON, closing.get());
    number->expectUntouched();
    // The close has failed, so that the token is still there.
    EXPECT_FALSE(support::contains(support::dumpedTokens(), "EMPTY"));
    EXPECT_RC(0, QPX_closeAllGatewayConnections());
    expectClosed();
}

// ---- A socket that is being written to ----

class SocketInUse : public RaceTest, public ::testing::WithParamInterface<Kind> {};

TEST_P(SocketInUse, StaysOpenUntilTheRequestHasBeenWritten)
{
    int descriptor = token()->socketDescriptor;
    Call work(GetParam());
    Hold waiting(SchedulePoint::beforeRequestWrite);
    auto call = start(work);
    waiting.awaitArrival();
    Hold closingSocket(SchedulePoint::beforeSocketClose);
    connection.peer.shutdownWriting();
    sendersAwaited.await(1);
    EXPECT_EQ(1, token()->senders);
    EXPECT_TRUE(descriptorIsOpen(descriptor));
    EXPECT_FALSE(closingSocket.hasArrived());

    waiting.release();

    closingSocket.awaitArrival();
    EXPECT_EQ(0, token()->senders);
    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    EXPECT_TRUE(descriptorIsOpen(descriptor));
    Hold last(SchedulePoint::receiverEnding);
    closingSocket.release();
    last.awaitArrival();
    EXPECT_FALSE(descriptorIsOpen(descriptor));
    last.release();
    expectClosable();
}

TEST_P(SocketInUse, StaysOpenUntilTheSenderHasGone)
{
    int descriptor = token()->socketDescriptor;
    Call work(GetParam());
    Hold written(SchedulePoint::requestWritten);
    auto call = start(work);
    written.awaitArrival();
    Hold closingSocket(SchedulePoint::beforeSocketClose);
    connection.peer.shutdownWriting();
    sendersAwaited.await(1);
    EXPECT_TRUE(descriptorIsOpen(descriptor));
    EXPECT_FALSE(closingSocket.hasArrived());

    written.release();

    closingSocket.awaitArrival();
    closingSocket.release();
    EXPECT_RC(isAsync(GetParam()) ? 0 : QPX_ERR_LOSTGWCON, call.get());
    if (isAsync(GetParam())) {
        EciParms collecting = getReply(8);
        EXPECT_RC(QPX_ERR_LOSTGWCON, execute(collecting));
    }
    expectClosable();
}

INSTANTIATE_TEST_SUITE_P(Every, SocketInUse,
                         ::testing::Values(Kind::Sync, Kind::Async, Kind::SyncChannel,
                                           Kind::AsyncChannel, Kind::Password, Kind::Systems),
                         [](const auto& about) { return nameOf(about.param); });

TEST_F(SocketNumber, StaysTheConnectionsUntilTheCloseFlowHasBeenWritten)
{
    int descriptor = token()->socketDescriptor;
    Hold writing(SchedulePoint::beforeCloseWrite);
    auto closing = startClose(Close::InOrder, &connection.token);
    writing.awaitArrival();
    Hold closingSocket(SchedulePoint::beforeSocketClose);
    connection.peer.shutdownWriting();
    sendersAwaited.await(1);
    EXPECT_TRUE(descriptorIsOpen(descriptor));
    EXPECT_FALSE(closingSocket.hasArrived());

    writing.release();

    closingSocket.awaitArrival();
    closingSocket.release();
    EXPECT_RC(QPX_ERR_LOSTGWCON, closing.get());
    EXPECT_TRUE(connection.peer.awaitEof());
    EXPECT_RC(0, QPX_closeAllGatewayConnections());
    expectClosed();
}

// ---- Opening ----

class Opening : public ::testing::Test {
protected:
    RunningCall<int> startOpen(int connTimeout)
    {
        return callInThread([this, connTimeout] {
            return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &opened,
                                                   connTimeout);
        });
    }

    static _QPX_ConnToken_t* tokenAt(Hold& hold)
    {
        return const_cast<_QPX_ConnToken_t*>(
            static_cast<const _QPX_ConnToken_t*>(hold.heldAbout()));
    }

    ScriptedGateway gateway;
    QPX_ConnToken_t opened = nullptr;
};

TEST_F(Opening, ThatFailsWaitsForAReceiverThatHasNotStarted)
{
    Hold late(SchedulePoint::receiverStarted);
    Hold writing(SchedulePoint::beforeHandshake);
    Counter ended(SchedulePoint::receiverEnding);
    auto opening = startOpen(0);
    _QPX_ConnToken_t* token = tokenAt(writing);
    late.awaitArrival();
    Peer peer = gateway.accept();
    // Neither open nor posted before the thread has had its turn.
    EXPECT_EQ(0, token->recvThreadEndedEvent.eflag);
    EXPECT_EQ(0, shutdown(token->socketDescriptor, SHUT_WR));
    Hold tableGivenUp(SchedulePoint::lockReleased, &token->tableLock);
    writing.release();
    tableGivenUp.awaitArrival(); // the write has failed, and nobody writes any more
    tableGivenUp.release();
    EXPECT_FALSE(opening.hasEnded());
    EXPECT_EQ(0, ended.times());

    late.release();

    EXPECT_RC(QPX_ERR_CONNECTFAILED, opening.get());
    EXPECT_EQ(1, ended.times());
    EXPECT_TRUE(opened == nullptr);
    expectNoTokenLeft();
}

// Without a time limit nothing but the open's own step can wake a receiver that reads.
TEST_F(Opening, ThatFailsWakesItsReceiver)
{
    TraceFile trace(4);
    Hold writing(SchedulePoint::beforeHandshake);
    auto opening = startOpen(0);
    _QPX_ConnToken_t* token = tokenAt(writing);
    Peer peer = gateway.accept();
    ASSERT_TRUE(trace.awaitText("clapi_gwycon.receiverThread() Waiting for a reply"));
    EXPECT_EQ(0, shutdown(token->socketDescriptor, SHUT_WR));

    writing.release();

    EXPECT_RC(QPX_ERR_CONNECTFAILED, opening.get());
    EXPECT_TRUE(peer.awaitEof());
    expectNoTokenLeft();
}

TEST_F(Opening, ThatFailsLeavesTheClosingOfTheSocketToItsReceiver)
{
    Hold writing(SchedulePoint::beforeHandshake);
    Hold last(SchedulePoint::receiverEnding);
    auto opening = startOpen(0);
    _QPX_ConnToken_t* token = tokenAt(writing);
    int descriptor = token->socketDescriptor;
    Peer peer = gateway.accept();
    EXPECT_EQ(0, shutdown(descriptor, SHUT_WR));
    writing.release();
    last.awaitArrival();
    NumberTaken number(descriptor); // closed once

    last.release();

    EXPECT_RC(QPX_ERR_CONNECTFAILED, opening.get());
    number.expectUntouched(); // and no second time
    expectNoTokenLeft();
}

TEST_F(Opening, KeepsTheSocketUntilTheHandshakeHasBeenWritten)
{
    Counter sendersAwaited(SchedulePoint::beforeSendersWait);
    Hold writing(SchedulePoint::beforeHandshake);
    Hold closingSocket(SchedulePoint::beforeSocketClose);
    auto opening = startOpen(0);
    _QPX_ConnToken_t* token = tokenAt(writing);
    int descriptor = token->socketDescriptor;
    Peer peer = gateway.accept();
    peer.shutdownWriting();
    sendersAwaited.await(1);
    EXPECT_EQ(CONN_FAILED, token->connStatus.load());
    EXPECT_TRUE(descriptorIsOpen(descriptor));
    EXPECT_FALSE(closingSocket.hasArrived());

    writing.release();

    closingSocket.awaitArrival();
    EXPECT_EQ(0, token->senders);
    closingSocket.release();
    EXPECT_RC(QPX_ERR_LOSTGWCON, opening.get());
    expectNoTokenLeft();
}

TEST_F(Opening, HearsOfAnEndThatComesBeforeItWaitsForTheHandshakesAnswer)
{
    Hold writing(SchedulePoint::beforeHandshake);
    Counter swept(SchedulePoint::connectionEnded);
    auto opening = startOpen(0);
    tokenAt(writing);
    Peer peer = gateway.accept();
    peer.send(handshakeRefusal(61450));
    swept.await(1);

    writing.release();

    EXPECT_RC(61450, opening.get());
    expectNoTokenLeft();
}

TEST_F(Opening, HearsOfAnAnswerThatComesBeforeItHasAsked)
{
    TraceFile trace(4);
    Hold writing(SchedulePoint::beforeHandshake);
    auto opening = startOpen(0);
    _QPX_ConnToken_t* token = tokenAt(writing);
    Peer peer = gateway.accept();
    peer.send(handshakeAnswer() + pingFlow());
    ASSERT_TRUE(trace.awaitText("Flow type is FLOW_PING"));
    EXPECT_EQ(CONN_CONNECTED, token->connStatus.load());

    writing.release();

    EXPECT_RC(0, opening.get());
    EXPECT_EQ(handshakeSize, peer.read(handshakeSize).size());
    auto closing = startClose(Close::InOrder, &opened);
    EXPECT_EQ(closeFlow(), peer.read(33));
    peer.send(closeFlow());
    EXPECT_RC(0, closing.get());
    expectNoTokenLeft();
}

// From its first step on, the token is on the list, and not for a close of all connections.
TEST_F(Opening, IsPassedOverByACloseOfAllConnections)
{
    for (SchedulePoint point : {SchedulePoint::receiverStarted, SchedulePoint::beforeHandshake}) {
        Hold step(point);
        auto opening = startOpen(0);
        step.awaitArrival();

        EXPECT_RC(0, QPX_closeAllGatewayConnections());

        step.release();
        Peer peer = gateway.accept();
        peer.read(handshakeSize);
        peer.send(handshakeAnswer());
        EXPECT_RC(0, opening.get());
        auto closing = startClose(Close::InOrder, &opened);
        EXPECT_EQ(closeFlow(), peer.read(33));
        peer.send(closeFlow());
        EXPECT_RC(0, closing.get());
    }
    expectNoTokenLeft();
}

// ---- The receiver's last step ----

TEST_F(SocketNumber, IsFreeAndTheTokenGoneBeforeTheReceiverHasReturned)
{
    Hold gone(SchedulePoint::receiverEnded);
    auto closing = startClose(Close::InOrder, &connection.token);
    connection.answerClose();
    gone.awaitArrival();

    EXPECT_RC(0, closing.get());

    expectClosed();
    ScriptedConnection next; // may stand where the token was
    TraceFile exits(3);
    gone.release();
    EXPECT_TRUE(exits.awaitText("[3041] EXIT"));
    EXPECT_EQ(1, next.token->connStatus.load());
    EXPECT_EQ(0, next.token->recvThreadEndedEvent.eflag); // its own receiver has not ended
    next.closeInOrder();
    expectNoTokenLeft();
}

} // namespace
