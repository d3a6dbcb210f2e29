// The programs that every Gateway has, and programs given by a test.

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "client.h"
#include "standin/gateway.h"

using namespace standin;
using standin_test::Call;
using standin_test::Client;
using standin_test::eciRequest;
using standin_test::Raw;
using standin_test::Received;
using standin_test::Reply;
using standin_test::textOf;

namespace {

class Programs : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(client.shakeHands()); }

    Reply echo(const std::string& commarea, int outbound, int inbound)
    {
        Call call;
        call.commarea = commarea;
        call.outbound = outbound;
        call.inbound = inbound;
        return client.call(1, call);
    }

    Reply run(const std::string& program, const std::string& commarea = {})
    {
        Call call;
        call.program = program;
        call.commarea = commarea;
        return client.call(1, call);
    }

    Gateway gateway;
    Client client{gateway.port()};
};

// Answers only when the test says so, from the test's own thread.
class LateProgram final : public Program {
public:
    std::optional<EciReply> call(const ProgramCall& call) override
    {
        pending.push_back(call.answerLater());
        reply = EciReply::withCommarea(call.request, {'l', 'a', 't', 'e'});
        return std::nullopt;
    }

    std::vector<PendingReply> pending;
    EciReply reply;
};

} // namespace

TEST_F(Programs, EchoReturnsTheWholeCommarea)
{
    const Reply reply = echo("hello", 0, 0);
    EXPECT_EQ(0, reply.vornRc);
    EXPECT_EQ("    ", reply.abendCode);
    EXPECT_EQ(5, reply.commareaLength);
    EXPECT_FALSE(reply.inboundLength);
    EXPECT_EQ("hello", reply.commarea);
}

TEST_F(Programs, EchoFillsUpWhatWasNotSent)
{
    const Reply reply = echo("hello", 2, 0);
    EXPECT_FALSE(reply.inboundLength);
    EXPECT_EQ(std::string("he\0\0\0", 5), reply.commarea);
}

TEST_F(Programs, EchoReturnsNoMoreThanIsWanted)
{
    const Reply reply = echo("hello", 0, 3);
    EXPECT_EQ(5, reply.commareaLength);
    EXPECT_EQ(3, reply.inboundLength);
    EXPECT_EQ("hel", reply.commarea);
}

TEST_F(Programs, EchoReturnsMoreThanWasSentWhenThatIsWanted)
{
    const Reply reply = echo("hello", 2, 4);
    EXPECT_EQ(4, reply.inboundLength);
    EXPECT_EQ(std::string("he\0\0", 4), reply.commarea);
}

TEST_F(Programs, EchoReturnsAnEmptyCommarea)
{
    const Reply reply = echo("", 0, 0);
    EXPECT_EQ(0, reply.vornRc);
    EXPECT_EQ(0, reply.commareaLength);
    EXPECT_EQ("", reply.commarea);
}

TEST_F(Programs, EchoReturnsTheLargestCommarea)
{
    std::string large(32767, ' ');
    for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i % 251);
    EXPECT_EQ(large, echo(large, 0, 0).commarea);
}

TEST_F(Programs, EchoReturnsTheContainersOfAChannelUnchanged)
{
    const Bytes section = Raw()
                              .padded("CHAN", 16)
                              .int32(819)
                              .int32(1)
                              .padded("A", 16)
                              .byte(1)
                              .int16(0)
                              .byte(2)
                              .int32(819)
                              .int32(3)
                              .text("abc");
    Bytes body = standin_test::eciBody({});
    body[body.size() - 12] = 0xFF;
    body.insert(body.end() - 11, section.begin(), section.end());
    client.send(standin_test::flow(1, 1, "ECI", body));
    const std::optional<Received> answer = client.read();
    ASSERT_TRUE(answer);
    const Bytes expected = Raw()
                               .byte(0xFF)
                               .padded("CHAN", 16)
                               .int32(819)
                               .int32(1)
                               .padded("A", 16)
                               .byte(4)
                               .int16(0)
                               .byte(2)
                               .int32(819)
                               .int32(3);
    ASSERT_LT(expected.size(), answer->body.size());
    EXPECT_EQ(expected, Bytes(answer->body.end() - static_cast<std::ptrdiff_t>(expected.size()),
                              answer->body.end()));
}

TEST_F(Programs, EchoAnswersACallOfATransactionProgram)
{
    Call call;
    call.callType = 12;
    call.commarea = "x";
    EXPECT_EQ(12, client.call(1, call).callType);
}

TEST_F(Programs, AbendTakesItsCodeFromTheCommarea)
{
    const Reply reply = run("ABEND", "AXYZ and more");
    EXPECT_EQ(-7, reply.vornRc);
    EXPECT_EQ("AXYZ", reply.abendCode);
    EXPECT_EQ(0, reply.commareaLength);
}

TEST_F(Programs, AbendHasACodeOfItsOwn)
{
    EXPECT_EQ("AZZZ", run("ABEND").abendCode);
    EXPECT_EQ("AZZZ", run("ABEND", "AXY").abendCode);
    EXPECT_EQ(-7, run("ABEND").vornRc);
}

TEST_F(Programs, AProgramThatIsNotThereAbendsWithAEI0)
{
    const Reply reply = run("NOSUCH");
    EXPECT_EQ(-7, reply.vornRc);
    EXPECT_EQ("AEI0", reply.abendCode);
}

TEST_F(Programs, AReplyFunctionAnswersItsProgram)
{
    gateway.setReply("UPPER", [](const EciRequest& request) {
        Bytes data = request.commarea;
        for (std::uint8_t& byte : data) byte = static_cast<std::uint8_t>(std::toupper(byte));
        return EciReply::withCommarea(request, data);
    });
    EXPECT_EQ("HELLO", run("UPPER", "hello").commarea);
}

TEST_F(Programs, AReplyFunctionMayReplaceEcho)
{
    gateway.setReply("ECHO",
                     [](const EciRequest& request) { return EciReply::serverError(request, -27); });
    EXPECT_EQ(-27, run("ECHO").vornRc);
}

TEST_F(Programs, AReplyFunctionThatThrowsIsAnsweredWithAnException)
{
    gateway.setReply(
        "BROKEN", [](const EciRequest&) -> EciReply { throw std::runtime_error("no such thing"); });
    Call call;
    call.program = "BROKEN";
    client.send(eciRequest(4, call));
    const std::optional<Received> answer = client.read();
    ASSERT_TRUE(answer);
    EXPECT_EQ(6, answer->flowType);
    EXPECT_EQ(4, answer->messageId);
    EXPECT_EQ("no such thing", textOf(answer->body).substr(3));
}

TEST_F(Programs, TheGatewayRcOfAReplyTravelsInItsHeader)
{
    gateway.setReply("REFUSED", [](const EciRequest& request) {
        EciReply reply = EciReply::to(request);
        reply.gatewayRc = 61445;
        return reply;
    });
    Call call;
    call.program = "REFUSED";
    client.send(eciRequest(4, call));
    const std::optional<Received> answer = client.read();
    ASSERT_TRUE(answer);
    EXPECT_EQ(3, answer->flowType);
    EXPECT_EQ(61445, answer->gatewayRc);
}

TEST_F(Programs, AProgramMayAnswerLaterFromAnotherThread)
{
    const auto late = std::make_shared<LateProgram>();
    gateway.setProgram("LATE", late);
    Call call;
    call.program = "LATE";
    call.commarea = "1234";
    client.send(eciRequest(7, call));
    ASSERT_TRUE(gateway.awaitRequests(1));
    gateway.setReply("OTHER", [](const EciRequest& request) {
        return EciReply::to(request);
    }); // the call has run by now

    std::thread([&] { late->pending.at(0).complete(late->reply); }).join();
    const std::optional<Received> answer = client.read();
    ASSERT_TRUE(answer);
    EXPECT_EQ(7, answer->messageId);
    EXPECT_EQ("late", standin_test::takeApart(answer->body).commarea);
}

TEST_F(Programs, AnAnswerIsGivenOnlyOnce)
{
    const auto late = std::make_shared<LateProgram>();
    gateway.setProgram("LATE", late);
    Call call;
    call.program = "LATE";
    client.send(eciRequest(7, call));
    ASSERT_TRUE(gateway.awaitRequests(1));
    gateway.behave(); // the call has run by now
    late->pending.at(0).complete(late->reply);
    late->pending.at(0).complete(late->reply);
    ASSERT_TRUE(client.read());
    ASSERT_TRUE(client.send(standin_test::closeFlow()));
    const std::optional<Received> next = client.read();
    ASSERT_TRUE(next);
    EXPECT_EQ(10, next->flowType);
}

TEST(PendingEsiReply, IsGivenLaterFromAnotherThread)
{
    Gateway gateway;
    std::optional<PendingEsiReply> kept;
    gateway.setEsiProgram(
        [&kept](const EsiRequest&, const PendingEsiReply& pending) { kept = pending; });
    Client client(gateway.port());
    ASSERT_TRUE(client.shakeHands());
    client.send(flow(1, 2, "ESI", Raw().int32(0).padded("FRED", 10).int32(0).padded("", 8)));
    client.send(eciRequest(3, {}));
    EXPECT_EQ(3, client.read().value().messageId);
    ASSERT_TRUE(gateway.awaitAnswers());
    EsiReply reply;
    reply.vornRc = -106;
    kept.value().complete(reply);
    const Received answer = client.read().value();
    EXPECT_EQ(2, answer.messageId);
    EXPECT_EQ(static_cast<Bytes>(Raw().int32(-106)), answer.body);
    kept.value().complete(reply); // the second one is nothing
    gateway.stop();
    EXPECT_FALSE(gateway.wayOntoThread()([] {}));
}

TEST(PendingReply, IsHarmlessWhenTheGatewayHasGone)
{
    const auto late = std::make_shared<LateProgram>();
    {
        Gateway gateway;
        gateway.setProgram("LATE", late);
        Client client(gateway.port());
        ASSERT_TRUE(client.shakeHands());
        Call call;
        call.program = "LATE";
        client.send(eciRequest(7, call));
        ASSERT_TRUE(gateway.awaitRequests(1));
        gateway.behave(); // the call has run by now
    }
    ASSERT_EQ(1U, late->pending.size());
    EXPECT_NO_FATAL_FAILURE(late->pending.at(0).complete(late->reply));
}

TEST_F(Programs, EsiRequestsAreRefusedUnlessATestAnswersThem)
{
    const Bytes body = Raw().int32(0).padded("FRED", 10).int32(0).padded("SERV1", 8);
    client.send(standin_test::flow(1, 3, "ESI", body));
    const std::optional<Received> refusal = client.read();
    ASSERT_TRUE(refusal);
    EXPECT_EQ(4, refusal->flowType);
    EXPECT_EQ(61451, refusal->gatewayRc);

    gateway.setEsiReply([](const EsiRequest& request) {
        EsiReply reply;
        reply.vornRc = request.userId == "FRED" ? -106 : 0;
        return reply;
    });
    client.send(standin_test::flow(1, 3, "ESI", body));
    const std::optional<Received> answer = client.read();
    ASSERT_TRUE(answer);
    EXPECT_EQ(3, answer->flowType);
    EXPECT_EQ("ESI", answer->requestType);
    EXPECT_EQ(static_cast<Bytes>(Raw().int32(-106)), answer->body);
}

TEST_F(Programs, EsiRepliesGoOutAsATestWantsThem)
{
    EsiReply reply;
    const auto ask = [&] {
        gateway.setEsiReply([reply](const EsiRequest&) { return reply; });
        client.send(standin_test::flow(
            1, 3, "ESI", Raw().int32(0).padded("FRED", 10).int32(1).byte(0xBE).padded("", 8)));
        return client.read().value();
    };

    reply.lastVerified = {2026, 2, 2, 10, 11, 12, 34};
    reply.invalidCount = 1;
    EXPECT_EQ(static_cast<Bytes>(Raw()
                                     .int32(0)
                                     .int32(2026)
                                     .int32(2)
                                     .int32(2)
                                     .int32(10)
                                     .int32(11)
                                     .int32(12)
                                     .int32(34)
                                     .padded("", 56)
                                     .int32(1)),
              ask().body);

    reply.bodySize = 4;
    EXPECT_EQ(static_cast<Bytes>(Raw().int32(0)), ask().body);

    reply.bodySize = 2;
    EXPECT_EQ(static_cast<Bytes>(Raw().int16(0)), ask().body);

    reply.bodySize = 100;
    EXPECT_EQ(100U, ask().body.size());

    reply.gatewayRc = 61445;
    reply.bodySize = 0;
    const Received refused = ask();
    EXPECT_EQ(61445, refused.gatewayRc);
    EXPECT_EQ(0U, refused.body.size());
}

TEST_F(Programs, AnEsiReplyCanBeTruncated)
{
    gateway.setEsiReply([](const EsiRequest&) { return EsiReply(); });
    gateway.misbehave({Fault::Truncate, 40});
    client.send(standin_test::flow(
        1, 3, "ESI", Raw().int32(0).padded("FRED", 10).int32(1).byte(0xBE).padded("", 8)));
    EXPECT_EQ(40U, client.readBytes(124).size());
}

TEST_F(Programs, AListReplyGoesOutAsATestWantsIt)
{
    gateway.setListReply([](const EciRequest& request) {
        EciReply reply = EciReply::systemList(request, {{"ONE     ", "first"}});
        reply.serverNum = 70000;
        reply.vornRc = -25;
        reply.commareaLength = 139;
        return reply;
    });
    client.send(standin_test::flow(1, 1, "ECI",
                                   Raw().int32(9).int32(5).int16(0).byte(0).int32(-1).int32(7)));
    EXPECT_EQ(static_cast<Bytes>(Raw()
                                     .int32(9)
                                     .int32(70000)
                                     .int32(-25)
                                     .int32(139)
                                     .padded("ONE     ", 9)
                                     .padded("first", 61)),
              client.read().value().body);
}

TEST(SystemList, ReportsAsManyAsFit)
{
    GatewayOptions options;
    options.systems = {{"ONE", "first"}, {"TWO", "second"}};
    Gateway gateway(options);
    Client client(gateway.port());
    ASSERT_TRUE(client.shakeHands());
    const auto ask = [&](int room) {
        client.send(standin_test::flow(
            1, 1, "ECI", Raw().int32(9).int32(room).int16(0).byte(0).int32(-1).int32(7)));
        return client.read().value().body;
    };
    const Bytes one = Raw().padded("ONE", 9).padded("first", 61);
    const Bytes two = Raw().padded("TWO", 9).padded("second", 61);
    EXPECT_EQ(static_cast<Bytes>(Raw().int32(9).int32(2).int32(0).int32(140).bytes(one).bytes(two)),
              ask(10));
    EXPECT_EQ(static_cast<Bytes>(Raw().int32(9).int32(2).int32(0).int32(140).bytes(one).bytes(two)),
              ask(2));
    EXPECT_EQ(static_cast<Bytes>(Raw().int32(9).int32(1).int32(-25).int32(70).bytes(one)), ask(1));
}

TEST_F(Programs, ASystemListWithoutSystemsSaysSo)
{
    client.send(standin_test::flow(1, 1, "ECI",
                                   Raw().int32(9).int32(5).int16(0).byte(0).int32(-1).int32(7)));
    EXPECT_EQ(static_cast<Bytes>(Raw().int32(9).int32(0).int32(-26).int32(0)),
              client.read().value().body);
}
