// What whoever watches a Gateway is told of each call.

#include <gtest/gtest.h>

#include "client.h"
#include "standin/gateway.h"

using namespace standin;
using standin_test::Call;
using standin_test::Client;

namespace {

class ACallRecord : public testing::Test {
protected:
    ACallRecord() { EXPECT_TRUE(client.shakeHands()); }

    static GatewayOptions options(std::vector<CallRecord>& records)
    {
        GatewayOptions options;
        options.observer = [&records](const CallRecord& call) { records.push_back(call); };
        return options;
    }

    // Nothing is written to the records any more.
    const std::vector<CallRecord>& end()
    {
        gateway.stop();
        return records;
    }

    std::vector<CallRecord> records;
    Gateway gateway{options(records)};
    Client client{gateway.port()};
};

Call echo()
{
    Call call;
    call.commarea = "hello";
    call.user = "FRED";
    return call;
}

Bytes requestWithPassword(int messageId)
{
    Bytes body = standin_test::eciBody(echo());
    const Bytes masked = {0xAC, 0x16, 0x06, 0x11}; // "SECR", scrambled
    body[48] = 4;
    body.insert(body.begin() + 49, masked.begin(), masked.end());
    return standin_test::flow(1, messageId, "ECI", body);
}

} // namespace

TEST_F(ACallRecord, TellsWhatCameAndWhatWent)
{
    client.call(3, echo());
    ASSERT_EQ(1U, end().size());
    const CallRecord& record = records.front();
    EXPECT_EQ(1U, record.number);
    EXPECT_EQ(1, record.connection);
    EXPECT_EQ(3, record.header.messageId);
    EXPECT_EQ("ECHO", record.eci.value().program);
    EXPECT_EQ("FRED", record.eci->userId);
    EXPECT_EQ((Bytes{'h', 'e', 'l', 'l', 'o'}), record.eciReply.value().commarea);
    EXPECT_EQ(3, record.flowType);
    EXPECT_EQ(0, record.gatewayRc);
    EXPECT_EQ(32U + 31U, record.bytes);
    EXPECT_TRUE(record.faults.empty());
}

TEST(AnArrival, IsToldBeforeItsProgramRunsAndHasNothingOfAnAnswer)
{
    std::vector<CallRecord> arrivals;
    std::vector<std::size_t> arrivedAtCalls;
    GatewayOptions options;
    options.arrivals = [&](const CallRecord& call) { arrivals.push_back(call); };
    Gateway gateway(options);
    gateway.setReply("ECHO", [&](const EciRequest& request) {
        arrivedAtCalls.push_back(arrivals.size());
        return EciReply::to(request);
    });
    Client client(gateway.port());
    ASSERT_TRUE(client.shakeHands());
    client.call(3, echo());
    client.send(requestWithPassword(4));
    ASSERT_TRUE(client.read());
    gateway.stop();
    EXPECT_EQ((std::vector<std::size_t>{1, 2}), arrivedAtCalls);
    ASSERT_EQ(2U, arrivals.size());
    EXPECT_EQ(1U, arrivals[0].number);
    EXPECT_EQ("FRED", arrivals[0].eci.value().userId);
    EXPECT_FALSE(arrivals[0].eciReply);
    EXPECT_EQ(2U, arrivals[1].number);
    EXPECT_EQ("", arrivals[1].eci.value().password);
}

TEST_F(ACallRecord, HasNoPassword)
{
    client.send(requestWithPassword(1));
    ASSERT_TRUE(client.read());
    client.send(standin_test::flow(1, 2, "ESI",
                                   standin_test::Raw()
                                       .int32(0)
                                       .padded("FRED", 10)
                                       .int32(4)
                                       .bytes({0xAC, 0x16, 0x06, 0x11})
                                       .padded("", 8)));
    ASSERT_TRUE(client.read());
    EXPECT_EQ("SECR", gateway.requests().at(0).eci.value().password);
    ASSERT_EQ(2U, end().size());
    EXPECT_EQ("", records[0].eci.value().password);
    EXPECT_EQ("", records[1].esi.value().currentPassword);
    EXPECT_EQ(4, records[1].flowType) << "there is no registry";
    EXPECT_EQ(61451, records[1].gatewayRc);
}

TEST_F(ACallRecord, TellsOfMisbehaviours)
{
    gateway.misbehave({Fault::GatewayRc, 61448});
    gateway.misbehave(Fault::Ping);
    client.send(standin_test::eciRequest(1, echo()));
    ASSERT_TRUE(client.read());
    ASSERT_TRUE(client.read());
    ASSERT_EQ(1U, end().size());
    EXPECT_EQ((std::vector<std::string>{"gateway-rc", "ping"}), records[0].faults);
    EXPECT_EQ(61448, records[0].gatewayRc);
}

TEST_F(ACallRecord, TellsOfAMalformedRequest)
{
    Bytes body = standin_test::eciBody(echo());
    body[7] = 3; // the extend mode
    client.send(standin_test::flow(1, 5, "ECI", body));
    ASSERT_EQ(6, client.read().value().flowType);
    ASSERT_EQ(1U, end().size());
    EXPECT_EQ(5, records[0].header.messageId);
    EXPECT_FALSE(records[0].eci.has_value());
    EXPECT_EQ("extend mode is 3, not 0, 1, 2 or 4 at byte 36", records[0].problem);
    EXPECT_EQ(6, records[0].flowType);
}

TEST_F(ACallRecord, TellsOfAProgramThatHasFailed)
{
    gateway.setReply(
        "ECHO", [](const EciRequest&) -> EciReply { throw std::runtime_error("out of order"); });
    client.send(standin_test::eciRequest(1, echo()));
    ASSERT_EQ(6, client.read().value().flowType);
    ASSERT_EQ(1U, end().size());
    EXPECT_EQ("out of order", records[0].exception);
    EXPECT_EQ(6, records[0].flowType);
}

TEST_F(ACallRecord, ComesWhenItIsClearThatNothingGoes)
{
    gateway.misbehave(Fault::NoAnswer, onMessage(1));
    client.send(standin_test::eciRequest(1, echo()));
    gateway.hold(onMessage(2));
    client.send(standin_test::eciRequest(2, echo()));
    ASSERT_TRUE(gateway.awaitHeld());
    client.close();
    ASSERT_TRUE(gateway.awaitClosed());
    ASSERT_EQ(2U, end().size());
    EXPECT_EQ((std::vector<std::string>{"no-answer"}), records[0].faults);
    EXPECT_FALSE(records[0].flowType.has_value());
    EXPECT_EQ(2, records[1].header.messageId);
    EXPECT_FALSE(records[1].flowType.has_value());
    EXPECT_TRUE(records[1].eciReply.has_value()) << "there was one";
}

TEST_F(ACallRecord, OfARequestBehindTheCloseFlowComesAtOnce)
{
    client.send(standin_test::closeFlow());
    client.send(standin_test::eciRequest(7, echo()));
    Client other(gateway.port());
    ASSERT_TRUE(gateway.awaitRequests(1));
    ASSERT_TRUE(other.shakeHands());
    other.call(1, echo());
    ASSERT_EQ(2U, end().size());
    EXPECT_EQ(7, records[0].header.messageId) << "while its connection is open";
    EXPECT_FALSE(records[0].flowType.has_value());
    EXPECT_EQ(0U, records[0].bytes);
    EXPECT_EQ(1, records[1].header.messageId);
}

TEST_F(ACallRecord, OfAHeldAnswerComesWhenItIsReleased)
{
    gateway.hold();
    client.send(standin_test::eciRequest(1, echo()));
    ASSERT_TRUE(gateway.awaitHeld());
    client.send(standin_test::eciRequest(2, echo()));
    ASSERT_TRUE(gateway.awaitHeld(2));
    gateway.releaseMessage(2);
    gateway.release();
    ASSERT_EQ(2U, end().size());
    EXPECT_EQ(2, records[0].header.messageId);
    EXPECT_EQ(2U, records[0].number);
    EXPECT_EQ(1, records[1].header.messageId);
}
