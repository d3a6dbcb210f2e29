// What each misbehaviour looks like to a client.

#include <gtest/gtest.h>

#include "client.h"
#include "standin/gateway.h"

using namespace standin;
using standin_test::Call;
using standin_test::Client;
using standin_test::closeFlow;
using standin_test::eciRequest;
using standin_test::handshake;
using standin_test::Raw;
using standin_test::Received;
using standin_test::textOf;

namespace {

class Misbehaving : public testing::Test {
protected:
    Client& connected()
    {
        EXPECT_TRUE(client.shakeHands());
        return client;
    }

    void request(int messageId, const std::string& program = "ECHO")
    {
        Call call;
        call.program = program;
        ASSERT_TRUE(client.send(eciRequest(messageId, call)));
    }

    Received next()
    {
        const std::optional<Received> flow = client.read();
        EXPECT_TRUE(flow) << "the connection has ended";
        return flow.value_or(Received{});
    }

    // The next flow is the reply to this message.
    void expectReply(int messageId)
    {
        const Received flow = next();
        EXPECT_EQ(3, flow.flowType);
        EXPECT_EQ(messageId, flow.messageId);
        EXPECT_EQ("ECI", flow.requestType);
    }

    Gateway gateway;
    Client client{gateway.port()};
};

} // namespace

// ----------------------------------------------------------------------------------------- opening

TEST(MisbehavingAtConnect, DropsTheConnection)
{
    Gateway gateway;
    gateway.misbehave(Fault::DropAtConnect);
    Client client(gateway.port());
    EXPECT_TRUE(client.endsInOrder());
    ASSERT_TRUE(gateway.awaitClosed());
}

TEST(MisbehavingAtConnect, ResetsTheConnection)
{
    Gateway gateway;
    gateway.misbehave(Fault::ResetAtConnect, onConnection(2));
    Client first(gateway.port());
    ASSERT_TRUE(first.shakeHands());
    Client second(gateway.port());
    EXPECT_FALSE(second.endsInOrder());
    ASSERT_TRUE(gateway.awaitClosed());
    EXPECT_EQ(Ending::Reset, gateway.connections().at(1).ending);
}

TEST(MisbehavingAtConnect, ResetsWhenItIsToDropAndToReset)
{
    Gateway gateway;
    gateway.misbehave(Fault::DropAtConnect);
    gateway.misbehave(Fault::ResetAtConnect);
    Client client(gateway.port());
    EXPECT_FALSE(client.endsInOrder());
    ASSERT_TRUE(gateway.awaitClosed());
    EXPECT_EQ(Ending::Reset, gateway.connections().at(0).ending);
}

TEST_F(Misbehaving, DoesNotAnswerTheHandshake)
{
    gateway.misbehave(Fault::NoHandshakeAnswer);
    ASSERT_TRUE(client.send(handshake()));
    ASSERT_TRUE(gateway.awaitHandshakes());
    EXPECT_TRUE(gateway.sendPing());
    EXPECT_EQ(7, next().flowType); // nothing has come before it
    EXPECT_FALSE(gateway.connections().at(0).handshakeAccepted);
}

TEST_F(Misbehaving, RefusesTheHandshakeWithACode)
{
    gateway.misbehave({Fault::RefuseHandshake, 61450});
    ASSERT_TRUE(client.send(handshake()));
    const Received answer = next();
    EXPECT_EQ(4, answer.flowType);
    EXPECT_EQ(-2, answer.messageId);
    EXPECT_EQ(61450, answer.gatewayRc);
}

TEST_F(Misbehaving, ClosesInsteadOfShakingHands)
{
    gateway.misbehave(Fault::CloseAtHandshake);
    ASSERT_TRUE(client.send(handshake()));
    const Received answer = next();
    EXPECT_EQ(10, answer.flowType);
    EXPECT_EQ(-1, answer.messageId);
}

TEST_F(Misbehaving, DropsTheConnectionAtTheHandshake)
{
    gateway.misbehave(Fault::DropAtHandshake);
    ASSERT_TRUE(client.send(handshake()));
    EXPECT_TRUE(client.endsInOrder());
}

TEST_F(Misbehaving, ResetsTheConnectionAtTheHandshake)
{
    gateway.misbehave(Fault::ResetAtHandshake);
    ASSERT_TRUE(client.send(handshake()));
    EXPECT_FALSE(client.endsInOrder());
}

// ----------------------------------------------------------------------------------------- closing

TEST_F(Misbehaving, DoesNotAnswerTheCloseFlow)
{
    gateway.misbehave(Fault::NoCloseAnswer);
    connected().send(closeFlow());
    ASSERT_TRUE(gateway.awaitCloseFlows());
    EXPECT_TRUE(gateway.sendPing());
    EXPECT_EQ(7, next().flowType); // nothing has come before it
}

// ----------------------------------------------------------------------------------------- sending

TEST_F(Misbehaving, SendsInPiecesOfEverySize)
{
    connected();
    for (const int size : {1, 2, 3, 7, 31, 32, 33, 1000}) {
        gateway.behave();
        gateway.misbehave({Fault::Pieces, size});
        Call call;
        call.commarea = std::string(500, 'x');
        const unsigned before = client.segmentsReceived();
        EXPECT_EQ(call.commarea, client.call(1, call).commarea) << size;
        if (size < 500) {
            EXPECT_GT(client.segmentsReceived(), before + 1) << size;
        }
    }
}

// ----------------------------------------------------------------------------------------- holding

TEST_F(Misbehaving, HoldsAnswersUntilReleased)
{
    connected();
    gateway.hold();
    request(1);
    request(2);
    ASSERT_TRUE(gateway.awaitHeld(2));
    EXPECT_EQ(0U, gateway.answerCount());
    gateway.release();
    expectReply(1);
    expectReply(2);
    EXPECT_EQ(0U, gateway.heldCount());
    request(3);
    expectReply(3);
}

TEST_F(Misbehaving, ReleasesTheOldestFirst)
{
    connected();
    gateway.hold();
    for (int id = 1; id <= 3; ++id) request(id);
    ASSERT_TRUE(gateway.awaitHeld(3));
    EXPECT_EQ(2U, gateway.releaseNext(2));
    expectReply(1);
    expectReply(2);
    EXPECT_EQ(1U, gateway.heldCount());
    EXPECT_EQ(1U, gateway.releaseNext(5));
    expectReply(3);
    request(4);
    ASSERT_TRUE(gateway.awaitHeld());
}

TEST_F(Misbehaving, ReleasesInReverse)
{
    connected();
    gateway.hold();
    for (int id = 1; id <= 3; ++id) request(id);
    ASSERT_TRUE(gateway.awaitHeld(3));
    EXPECT_EQ(3U, gateway.releaseReversed());
    for (int id = 3; id >= 1; --id) expectReply(id);
}

TEST_F(Misbehaving, ReleasesOneMessage)
{
    connected();
    gateway.hold();
    for (int id = 1; id <= 3; ++id) request(id);
    ASSERT_TRUE(gateway.awaitHeld(3));
    EXPECT_EQ(1U, gateway.releaseMessage(2));
    EXPECT_EQ(0U, gateway.releaseMessage(2));
    expectReply(2);
    EXPECT_EQ(2U, gateway.heldCount());
}

TEST_F(Misbehaving, HoldsOnlyWhatIsSelected)
{
    connected();
    gateway.hold(onMessage(1));
    gateway.hold(onProgram("ABEND"));
    request(1);
    request(2);
    request(3, "ABEND");
    expectReply(2);
    ASSERT_TRUE(gateway.awaitHeld(2));
}

TEST_F(Misbehaving, ForgetsWhatItHeldForAConnectionThatEnds)
{
    connected();
    gateway.hold();
    request(1);
    ASSERT_TRUE(gateway.awaitHeld());
    client.close();
    ASSERT_TRUE(gateway.awaitClosed());
    EXPECT_EQ(0U, gateway.heldCount());
}

TEST_F(Misbehaving, AnswersInReverseOrder)
{
    connected();
    gateway.misbehave({Fault::Reverse, 3});
    for (int id = 1; id <= 3; ++id) request(id);
    for (int id = 3; id >= 1; --id) expectReply(id);
}

TEST_F(Misbehaving, ReleasesWhatWasCollected)
{
    connected();
    gateway.misbehave({Fault::Reverse, 3});
    request(1);
    ASSERT_TRUE(gateway.awaitRequests());
    gateway.release();
    expectReply(1);
}

// ---------------------------------------------------------------------------- instead of an answer

TEST_F(Misbehaving, DoesNotAnswer)
{
    connected();
    gateway.misbehave(Fault::NoAnswer, once());
    request(1);
    request(2);
    expectReply(2);
}

TEST_F(Misbehaving, AnswersWithAnErrorFlow)
{
    connected();
    gateway.misbehave({Fault::FlowError, 61445});
    request(5);
    const Received answer = next();
    EXPECT_EQ(4, answer.flowType);
    EXPECT_EQ(5, answer.messageId);
    EXPECT_EQ(61445, answer.gatewayRc);
}

TEST_F(Misbehaving, AnswersWithAnException)
{
    connected();
    gateway.misbehave({Fault::FlowException, "out of order"});
    request(5);
    const Received answer = next();
    EXPECT_EQ(6, answer.flowType);
    EXPECT_EQ(5, answer.messageId);
    EXPECT_EQ(std::string("\0\0\x0Cout of order", 15), textOf(answer.body));
}

TEST_F(Misbehaving, AnswersWithAnErrorForTheConnection)
{
    connected();
    gateway.misbehave({Fault::ConnectionError, -9});
    request(5);
    const Received answer = next();
    EXPECT_EQ(4, answer.flowType);
    EXPECT_EQ(-2, answer.messageId);
    EXPECT_EQ(-9, answer.gatewayRc);
}

TEST_F(Misbehaving, AnswersWithACloseFlow)
{
    connected();
    gateway.misbehave(Fault::Close);
    request(5);
    const Received answer = next();
    EXPECT_EQ(10, answer.flowType);
    EXPECT_EQ(-1, answer.messageId);
}

TEST_F(Misbehaving, DropsTheConnectionInsteadOfAnswering)
{
    connected();
    gateway.misbehave(Fault::Drop, nth(2));
    request(1);
    expectReply(1);
    request(2);
    EXPECT_TRUE(client.endsInOrder());
    ASSERT_TRUE(gateway.awaitClosed());
    EXPECT_EQ(Ending::ClosedByGateway, gateway.connections().at(0).ending);
}

TEST_F(Misbehaving, ResetsTheConnectionInsteadOfAnswering)
{
    connected();
    gateway.misbehave(Fault::Reset);
    request(1);
    EXPECT_FALSE(client.endsInOrder());
}

TEST_F(Misbehaving, AnswersWithArbitraryBytes)
{
    connected();
    gateway.misbehave({Fault::Raw, Bytes{1, 2, 3}});
    request(1);
    EXPECT_EQ((Bytes{1, 2, 3}), client.readBytes(3));
}

// -------------------------------------------------------------------------------- around an answer

TEST_F(Misbehaving, PingsBeforeTheAnswer)
{
    connected();
    gateway.misbehave(Fault::Ping);
    request(1);
    EXPECT_EQ(7, next().flowType);
    expectReply(1);
}

TEST_F(Misbehaving, SendsAnUnknownFlowBeforeTheAnswer)
{
    connected();
    gateway.misbehave(Fault::UnknownFlow, once());
    gateway.misbehave({Fault::UnknownFlow, 8}, nth(2));
    request(1);
    EXPECT_EQ(99, next().flowType);
    expectReply(1);
    request(2);
    EXPECT_EQ(8, next().flowType);
    expectReply(2);
}

TEST_F(Misbehaving, SpoilsTheEyecatcher)
{
    connected();
    gateway.misbehave(Fault::BadEyecatcher);
    request(1);
    EXPECT_EQ("Etag", textOf(client.readBytes(4)));
}

TEST_F(Misbehaving, AnswersUnderAnotherMessageId)
{
    connected();
    gateway.misbehave(Fault::UnknownMessageId, once());
    gateway.misbehave({Fault::UnknownMessageId, 77}, nth(2));
    request(1);
    EXPECT_EQ(999999, next().messageId);
    request(1);
    EXPECT_EQ(77, next().messageId);
}

TEST_F(Misbehaving, AnswersTwice)
{
    connected();
    gateway.misbehave(Fault::Duplicate, once());
    request(1);
    expectReply(1);
    expectReply(1);
    request(2);
    expectReply(2);
}

TEST_F(Misbehaving, AnswersWithAnotherRequestType)
{
    connected();
    gateway.misbehave(Fault::EsiType, once());
    gateway.misbehave(Fault::RequestType, nth(2));
    gateway.misbehave({Fault::RequestType, "LONGER"}, nth(3));
    for (const char* const expected : {"ESI", "XYZ", "LONGER"}) {
        request(1);
        const Received answer = next();
        EXPECT_EQ(3, answer.flowType);
        EXPECT_EQ(expected, answer.requestType);
    }
}

TEST_F(Misbehaving, PutsACodeIntoTheHeaderOfTheAnswer)
{
    connected();
    gateway.misbehave({Fault::GatewayRc, 61446});
    request(1);
    const Received answer = next();
    EXPECT_EQ(3, answer.flowType);
    EXPECT_EQ(61446, answer.gatewayRc);
}

TEST_F(Misbehaving, CutsTheAnswerShort)
{
    connected();
    gateway.misbehave({Fault::Truncate, 40});
    request(1);
    EXPECT_EQ(40U, client.readBytes(1000).size());
    ASSERT_TRUE(gateway.awaitClosed());
}

TEST_F(Misbehaving, SendsTwiceWhatTheFirstOfTwoTruncationsLeaves)
{
    connected();
    gateway.misbehave(Fault::Duplicate);
    gateway.misbehave({Fault::Truncate, 40});
    gateway.misbehave({Fault::Truncate, 30});
    request(1);
    EXPECT_EQ(80U, client.readBytes(1000).size());
    ASSERT_TRUE(gateway.awaitClosed());
}

TEST_F(Misbehaving, AddsFaultsUp)
{
    connected();
    gateway.misbehave(Fault::Ping);
    gateway.misbehave(Fault::Duplicate);
    gateway.misbehave({Fault::GatewayRc, 5});
    gateway.misbehave({Fault::Pieces, 1});
    gateway.hold();
    request(1);
    ASSERT_TRUE(gateway.awaitHeld());
    gateway.release();
    EXPECT_EQ(7, next().flowType);
    EXPECT_EQ(5, next().gatewayRc);
    EXPECT_EQ(5, next().gatewayRc);
}

TEST_F(Misbehaving, BehavesAgain)
{
    connected();
    gateway.misbehave(Fault::Drop);
    gateway.behave();
    request(1);
    expectReply(1);
}

TEST_F(Misbehaving, SelectsByConnectionProgramAndCount)
{
    Selector selector;
    selector.program = "ABEND";
    selector.skip = 1;
    selector.times = 2;
    gateway.misbehave({Fault::GatewayRc, 5}, selector);
    gateway.misbehave({Fault::GatewayRc, 6}, onConnection(2));
    connected();
    request(1);
    EXPECT_EQ(0, next().gatewayRc);
    for (const int expected : {0, 5, 5, 0}) {
        request(1, "ABEND");
        EXPECT_EQ(expected, next().gatewayRc);
    }
}

// ------------------------------------------------------------------------------------- at any time

TEST_F(Misbehaving, SendsWhateverATestWants)
{
    connected();
    EXPECT_TRUE(gateway.sendPing());
    EXPECT_TRUE(gateway.sendClose());
    EXPECT_TRUE(gateway.sendConnectionError(61444));
    EXPECT_TRUE(gateway.sendError(3, -9));
    EXPECT_TRUE(gateway.sendException(4, "text"));
    EXPECT_TRUE(gateway.sendFlow(makeErrorFlow(8, 1, "ECI")));
    EXPECT_TRUE(gateway.sendRaw({0xAB}));
    EXPECT_EQ(7, next().flowType);
    EXPECT_EQ(-1, next().messageId);
    EXPECT_EQ(61444, next().gatewayRc);
    EXPECT_EQ(3, next().messageId);
    EXPECT_EQ(6, next().flowType);
    EXPECT_EQ(8, next().messageId);
    EXPECT_EQ((Bytes{0xAB}), client.readBytes(1));
}

TEST_F(Misbehaving, SendsOnlyOnTheConnectionThatIsMeant)
{
    connected();
    Client second(gateway.port());
    ASSERT_TRUE(second.shakeHands());
    EXPECT_TRUE(gateway.sendPing(2));
    EXPECT_FALSE(gateway.sendPing(3));
    EXPECT_EQ(7, second.read().value().flowType);
    request(1);
    expectReply(1);
}

TEST_F(Misbehaving, DropsBehindWhatHasBeenSent)
{
    connected();
    gateway.sendPing();
    EXPECT_TRUE(gateway.dropConnection());
    EXPECT_EQ(7, next().flowType);
    EXPECT_TRUE(client.endsInOrder());
    EXPECT_TRUE(gateway.awaitClosed());
    EXPECT_FALSE(gateway.dropConnection());
}

TEST_F(Misbehaving, ResetsAtOnce)
{
    connected();
    EXPECT_TRUE(gateway.resetConnection(1));
    EXPECT_FALSE(client.endsInOrder());
    EXPECT_EQ(1U, gateway.closedCount());
}

TEST_F(Misbehaving, AnswersEveryRequestWithHandMadeBytes)
{
    connected();
    gateway.setRawReply([](const ReceivedRequest& request) {
        return static_cast<Bytes>(
            Raw().int32(request.header.messageId).text(request.eci.value().program));
    });
    request(9);
    EXPECT_EQ(static_cast<Bytes>(Raw().int32(9).text("ECHO")), client.readBytes(8));
    gateway.setRawReply(nullptr);
    request(2);
    expectReply(2);
}

TEST_F(Misbehaving, WaitsNoLongerThanItsLimit)
{
    EXPECT_FALSE(gateway.awaitRequests(1, std::chrono::milliseconds(1)));
}
