// The program in front of all others, and answers that wait or misbehave because it says so.

#include <gtest/gtest.h>

#include <functional>

#include "client.h"
#include "standin/gateway.h"

using namespace standin;
using standin_test::Call;
using standin_test::Client;

namespace {

// Takes the calls of TAKEN, and answers them as the test says.
class Front final : public FirstProgram {
public:
    bool takes(const ProgramCall& call) override { return call.request.program == "TAKEN"; }

    std::optional<EciReply> call(const ProgramCall& call) override { return reply(call); }

    void connectionEnded(int connection) override { ended.push_back(connection); }

    std::function<std::optional<EciReply>(const ProgramCall&)> reply = [](const ProgramCall& call) {
        return EciReply::to(call.request);
    };
    std::vector<int> ended;
};

Call callOf(const std::string& program, int mode = 0, int token = 0)
{
    Call call;
    call.program = program;
    call.commarea = "hello";
    call.mode = mode;
    call.token = token;
    return call;
}

class AFirstProgram : public testing::Test {
protected:
    AFirstProgram()
    {
        gateway.setFirstProgram(front);
        EXPECT_TRUE(client.shakeHands());
    }

    const std::shared_ptr<Front> front = std::make_shared<Front>();
    Gateway gateway;
    Client client{gateway.port()};
};

} // namespace

TEST_F(AFirstProgram, RunsTheCallsThatItTakesAndNoOthers)
{
    front->reply = [](const ProgramCall& call) {
        return EciReply::withCommarea(call.request, {'f', 'i', 'r', 's', 't'});
    };
    EXPECT_EQ("first", client.call(1, callOf("TAKEN")).commarea);
    EXPECT_EQ("hello", client.call(2, callOf("ECHO")).commarea);
    EXPECT_EQ("AEI0", client.call(3, callOf("OTHER")).abendCode);
}

TEST_F(AFirstProgram, IsPartOfTheUnitOfWork)
{
    EXPECT_EQ(1, client.call(1, callOf("TAKEN", 1)).luwToken);
    EXPECT_EQ(1U, gateway.openUnitsOfWork());
    front->reply = [](const ProgramCall& call) { return EciReply::abend(call.request, "FRST"); };
    EXPECT_EQ(0, client.call(2, callOf("TAKEN", 1, 1)).luwToken);
    EXPECT_EQ(0U, gateway.openUnitsOfWork());
}

TEST_F(AFirstProgram, IsToldWhenAConnectionHasEnded)
{
    client.call(1, callOf("TAKEN"));
    client.close();
    ASSERT_TRUE(gateway.awaitClosed());
    gateway.stop();
    EXPECT_EQ(std::vector<int>{1}, front->ended);
}

TEST_F(AFirstProgram, MayHaveAnAnswerWaitWhileOthersAreAnswered)
{
    front->reply = [](const ProgramCall& call) {
        EciReply reply = EciReply::to(call.request);
        reply.delay = std::chrono::hours(1);
        return reply;
    };
    client.send(standin_test::eciRequest(1, callOf("TAKEN")));
    EXPECT_EQ("hello", client.call(2, callOf("ECHO")).commarea);
    gateway.stop(); // does not wait for it
    EXPECT_FALSE(client.read());
}

TEST_F(AFirstProgram, MayHaveAnAnswerWaitThatComes)
{
    front->reply = [](const ProgramCall& call) {
        EciReply reply = EciReply::to(call.request);
        reply.delay = std::chrono::milliseconds(1);
        return reply;
    };
    client.send(standin_test::eciRequest(7, callOf("TAKEN")));
    client.closeSending(); // and it comes all the same
    EXPECT_EQ(7, client.read().value().messageId);
    EXPECT_TRUE(client.endsInOrder());
}

TEST_F(AFirstProgram, MayHaveItsAnswerMisbehave)
{
    front->reply = [](const ProgramCall& call) {
        EciReply reply = EciReply::to(call.request);
        reply.faults = {"flow-error=61448"};
        return reply;
    };
    client.send(standin_test::eciRequest(1, callOf("TAKEN", 1)));
    const standin_test::Received error = client.read().value();
    EXPECT_EQ(4, error.flowType);
    EXPECT_EQ(61448, error.gatewayRc);
    EXPECT_EQ(0U, gateway.openUnitsOfWork()) << "the call has failed";

    front->reply = [](const ProgramCall& call) {
        EciReply reply = EciReply::to(call.request);
        reply.faults = {"ping", "duplicate"};
        return reply;
    };
    client.send(standin_test::eciRequest(2, callOf("TAKEN")));
    EXPECT_EQ(7, client.read().value().flowType);
    EXPECT_EQ(2, client.read().value().messageId);
    EXPECT_EQ(2, client.read().value().messageId);
    EXPECT_EQ(0, client.call(3, callOf("ECHO")).vornRc);
}

TEST_F(AFirstProgram, MayHaveItsConnectionDropped)
{
    front->reply = [](const ProgramCall& call) {
        EciReply reply = EciReply::to(call.request);
        reply.faults = {"drop"};
        return reply;
    };
    client.send(standin_test::eciRequest(1, callOf("TAKEN")));
    EXPECT_TRUE(client.endsInOrder());
}

TEST_F(AFirstProgram, GivesWayToTheOthersWhenItIsTakenAway)
{
    gateway.setFirstProgram(nullptr);
    EXPECT_EQ("AEI0", client.call(1, callOf("TAKEN")).abendCode);
}
