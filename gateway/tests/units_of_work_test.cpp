// Units of work: how they are opened, continued and ended, and what programs are told.

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "client.h"
#include "standin/gateway.h"

using namespace standin;
using standin_test::Call;
using standin_test::Client;
using standin_test::Reply;

namespace {

using Entries = std::vector<std::string>;

// Writes down what it is told, and answers as the test wants. The Gateway may back out what a
// departing client leaves open while a test still reads.
class Diary final : public Program {
public:
    std::optional<EciReply> call(const ProgramCall& call) override
    {
        write("call", call.unitOfWork ? call.unitOfWork->token : 0);
        return EciReply::serverError(call.request, callRc);
    }

    std::int32_t begin(const UnitOfWork& unit) override
    {
        if (throwsAtBegin) throw std::runtime_error("no beginning");
        return note("begin", unit, beginRc);
    }
    std::int32_t resume(const UnitOfWork& unit) override { return note("resume", unit, resumeRc); }
    std::int32_t commit(const UnitOfWork& unit) override
    {
        if (throwsAtCommit) throw std::runtime_error("no end");
        return note("commit", unit, commitRc);
    }
    void backout(const UnitOfWork& unit) override
    {
        write("backout", unit.token);
        if (throwsAtBackout) throw std::runtime_error("no way back");
    }

    Entries entries() const
    {
        const std::lock_guard lock(mutex_);
        return entries_;
    }

    std::int32_t callRc = 0;
    std::int32_t beginRc = 0;
    std::int32_t resumeRc = 0;
    std::int32_t commitRc = 0;
    bool throwsAtBegin = false;
    bool throwsAtCommit = false;
    bool throwsAtBackout = false;

private:
    std::int32_t note(const std::string& what, const UnitOfWork& unit, std::int32_t rc)
    {
        write(what, unit.token);
        return rc;
    }

    void write(const std::string& what, std::int32_t token)
    {
        const std::lock_guard lock(mutex_);
        entries_.push_back(what + " " + std::to_string(token));
    }

    mutable std::mutex mutex_;
    Entries entries_;
};

class UnitsOfWork : public testing::Test {
protected:
    void SetUp() override
    {
        gateway.setProgram("DIARY", diary);
        gateway.setProgram("OTHER", other);
        ASSERT_TRUE(client.shakeHands());
    }

    static standin::Bytes request(int mode, int token, const std::string& program = "DIARY")
    {
        Call request;
        request.program = program;
        request.mode = mode;
        request.token = token;
        return standin_test::eciRequest(1, request);
    }

    Reply call(int mode, int token, const std::string& program = "DIARY")
    {
        Call request;
        request.program = program;
        request.mode = mode;
        request.token = token;
        return client.call(1, request);
    }

    const std::shared_ptr<Diary> diary = std::make_shared<Diary>();
    const std::shared_ptr<Diary> other = std::make_shared<Diary>();
    Gateway gateway;
    Client client{gateway.port()};
};

} // namespace

TEST_F(UnitsOfWork, ACallInMode0HasNone)
{
    EXPECT_EQ(0, call(0, 0).luwToken);
    EXPECT_EQ((Entries{"call 0"}), diary->entries());
}

TEST_F(UnitsOfWork, Mode1WithToken0OpensOne)
{
    const Reply reply = call(1, 0);
    EXPECT_EQ(0, reply.vornRc);
    EXPECT_EQ(1, reply.luwToken);
    EXPECT_EQ(1U, gateway.openUnitsOfWork());
    EXPECT_EQ((Entries{"begin 1", "call 1"}), diary->entries());
}

TEST_F(UnitsOfWork, EveryOneHasATokenOfItsOwn)
{
    EXPECT_EQ(1, call(1, 0).luwToken);
    EXPECT_EQ(2, call(1, 0).luwToken);
    EXPECT_EQ(2U, gateway.openUnitsOfWork());
}

TEST_F(UnitsOfWork, Mode1WithTheTokenContinuesIt)
{
    call(1, 0);
    EXPECT_EQ(1, call(1, 1).luwToken);
    EXPECT_EQ((Entries{"begin 1", "call 1", "resume 1", "call 1"}), diary->entries());
}

TEST_F(UnitsOfWork, Mode2CommitsIt)
{
    call(1, 0);
    const Reply reply = call(2, 1);
    EXPECT_EQ(0, reply.vornRc);
    EXPECT_EQ(0, reply.luwToken);
    EXPECT_EQ(0, reply.commareaLength);
    EXPECT_EQ(0U, gateway.openUnitsOfWork());
    EXPECT_EQ((Entries{"begin 1", "call 1", "commit 1"}), diary->entries());
}

TEST_F(UnitsOfWork, Mode4BacksItOut)
{
    call(1, 0);
    const Reply reply = call(4, 1);
    EXPECT_EQ(0, reply.vornRc);
    EXPECT_EQ(0, reply.luwToken);
    EXPECT_EQ((Entries{"begin 1", "call 1", "backout 1"}), diary->entries());
}

TEST_F(UnitsOfWork, AnUnknownTokenIsRefused)
{
    EXPECT_EQ(-8, call(1, 77).vornRc);
    EXPECT_EQ(-8, call(2, 77).vornRc);
    EXPECT_EQ(-8, call(4, 77).vornRc);
    EXPECT_EQ(-8, call(2, 0).vornRc);
    EXPECT_TRUE(diary->entries().empty());
}

TEST_F(UnitsOfWork, ATokenIsUnknownAfterItsEnd)
{
    call(1, 0);
    call(2, 1);
    EXPECT_EQ(-8, call(2, 1).vornRc);
    EXPECT_EQ(-8, call(1, 1).vornRc);
}

TEST_F(UnitsOfWork, ATokenIsUnknownOnAnotherConnection)
{
    call(1, 0);
    Client stranger(gateway.port());
    ASSERT_TRUE(stranger.shakeHands());
    Call commit;
    commit.mode = 2;
    commit.token = 1;
    EXPECT_EQ(-8, stranger.call(1, commit).vornRc);
    EXPECT_EQ(0, call(2, 1).vornRc);
}

TEST_F(UnitsOfWork, SeveralProgramsTakePart)
{
    call(1, 0);
    call(1, 1, "OTHER");
    call(2, 1);
    EXPECT_EQ((Entries{"begin 1", "call 1", "commit 1"}), diary->entries());
    EXPECT_EQ((Entries{"begin 1", "call 1", "commit 1"}), other->entries());
}

TEST_F(UnitsOfWork, AProgramMayRefuseToBegin)
{
    diary->beginRc = -16;
    const Reply reply = call(1, 0);
    EXPECT_EQ(-16, reply.vornRc);
    EXPECT_EQ(0, reply.luwToken);
    EXPECT_EQ(0U, gateway.openUnitsOfWork());
    EXPECT_EQ((Entries{"begin 1"}), diary->entries());
}

TEST_F(UnitsOfWork, AProgramThatCannotResumeBacksItOut)
{
    call(1, 0);
    diary->resumeRc = -9;
    EXPECT_EQ(-9, call(1, 1).vornRc);
    EXPECT_EQ((Entries{"begin 1", "call 1", "resume 1", "backout 1"}), diary->entries());
}

TEST_F(UnitsOfWork, AFailingCallBacksItOut)
{
    call(1, 0);
    diary->callRc = -16;
    const Reply reply = call(1, 1);
    EXPECT_EQ(-16, reply.vornRc);
    EXPECT_EQ(0, reply.luwToken);
    EXPECT_EQ("backout 1", diary->entries().back());
    EXPECT_EQ(-8, call(2, 1).vornRc);
}

TEST_F(UnitsOfWork, AnAbendOfOneProgramBacksOutTheOthers)
{
    call(1, 0);
    EXPECT_EQ(-7, call(1, 1, "ABEND").vornRc);
    EXPECT_EQ((Entries{"begin 1", "call 1", "backout 1"}), diary->entries());
}

TEST_F(UnitsOfWork, AProgramThatIsNotThereBacksItOut)
{
    call(1, 0);
    EXPECT_EQ("AEI0", call(1, 1, "NOSUCH").abendCode);
    EXPECT_EQ("backout 1", diary->entries().back());
}

TEST_F(UnitsOfWork, AFailingCommitBacksOutTheRest)
{
    call(1, 0);
    call(1, 1, "OTHER");
    diary->commitRc = -9;
    EXPECT_EQ(-9, call(2, 1).vornRc);
    EXPECT_EQ((Entries{"begin 1", "call 1", "commit 1", "backout 1"}), diary->entries());
    EXPECT_EQ((Entries{"begin 1", "call 1", "backout 1"}), other->entries());
    EXPECT_EQ(0U, gateway.openUnitsOfWork());
}

TEST_F(UnitsOfWork, ALostConnectionBacksOutAllOfItsOwn)
{
    call(1, 0);
    call(1, 0, "OTHER");
    client.close();
    ASSERT_TRUE(gateway.awaitClosed());
    EXPECT_EQ(0U, gateway.openUnitsOfWork());
    EXPECT_EQ("backout 1", diary->entries().back());
    EXPECT_EQ("backout 2", other->entries().back());
}

TEST_F(UnitsOfWork, StoppingTheGatewayBacksOutEverything)
{
    call(1, 0);
    gateway.stop();
    EXPECT_EQ("backout 1", diary->entries().back());
}

TEST_F(UnitsOfWork, AReplyFunctionMayNameATokenOfItsOwn)
{
    gateway.setReply("TOKEN", [](const EciRequest& request) {
        EciReply reply = EciReply::to(request);
        reply.luwToken = 4711;
        return reply;
    });
    EXPECT_EQ(4711, call(1, 0, "TOKEN").luwToken);
}

TEST_F(UnitsOfWork, IsBackedOutAtTheCloseFlow)
{
    call(1, 0);
    client.send(standin_test::closeFlow());
    EXPECT_EQ(10, client.read().value().flowType);
    EXPECT_EQ(0U, gateway.openUnitsOfWork());
    EXPECT_EQ((Entries{"begin 1", "call 1", "backout 1"}), diary->entries());
    EXPECT_EQ(0U, gateway.closedCount());
}

TEST_F(UnitsOfWork, IsBackedOutAtAMalformedFlowWhateverTheClientStillHasToTake)
{
    gateway.setReply("BIG", [](const EciRequest& request) {
        EciReply reply = EciReply::to(request);
        reply.channel = Channel{"CHAN", 819, {Container{}}, std::nullopt};
        reply.channel->containers[0].name = "BIG";
        reply.channel->containers[0].data.resize(4000000);
        return reply;
    });
    Client slow(gateway.port(), standin_test::Room::Little);
    ASSERT_TRUE(slow.shakeHands());
    Call opening;
    opening.program = "DIARY";
    opening.mode = 1;
    slow.call(1, opening);
    EXPECT_EQ(1U, gateway.openUnitsOfWork());
    Call big;
    big.program = "BIG";
    slow.send(standin_test::Raw().bytes(standin_test::eciRequest(2, big)).text("HTTP"));
    ASSERT_TRUE(gateway.awaitFindings());
    gateway.behave(); // behind what the flow leads to
    EXPECT_EQ(0U, gateway.closedCount()) << "the answer has been taken";
    EXPECT_EQ(0U, gateway.openUnitsOfWork());
    EXPECT_EQ(2, slow.read().value().messageId);
    EXPECT_TRUE(slow.endsInOrder());
}

TEST_F(UnitsOfWork, IsBackedOutWhenACallInItIsAnsweredByAnErrorOrAnException)
{
    for (const Misbehaviour& misbehaviour :
         {Misbehaviour(Fault::FlowError, 61445), Misbehaviour(Fault::ConnectionError, 61444),
          Misbehaviour(Fault::FlowException, std::string("no"))}) {
        const int token = call(1, 0).luwToken;
        gateway.misbehave(misbehaviour, once());
        client.send(request(1, token));
        EXPECT_NE(3, client.read().value().flowType);
        EXPECT_EQ(0U, gateway.openUnitsOfWork()) << nameOf(misbehaviour.fault);
        EXPECT_EQ(-8, call(2, token).vornRc);
    }
}

TEST_F(UnitsOfWork, IsBackedOutWhenItsCommitIsAnsweredByAnError)
{
    call(1, 0);
    gateway.misbehave({Fault::FlowError, 61445}, once());
    client.send(request(2, 1));
    EXPECT_EQ(4, client.read().value().flowType);
    EXPECT_EQ((Entries{"begin 1", "call 1", "backout 1"}), diary->entries());
}

TEST_F(UnitsOfWork, IsBackedOutWhenACallInItIsAnsweredWithACodeOfTheGateway)
{
    call(1, 0);
    gateway.misbehave({Fault::GatewayRc, 61441}, once());
    EXPECT_EQ(0, call(1, 1).luwToken);
    EXPECT_EQ((Entries{"begin 1", "call 1", "resume 1", "call 1", "backout 1"}), diary->entries());

    gateway.misbehave({Fault::GatewayRc, 61441}, once());
    EXPECT_EQ(0, call(1, 0).luwToken);
    EXPECT_EQ(0U, gateway.openUnitsOfWork());

    gateway.misbehave({Fault::GatewayRc, 0}, once());
    EXPECT_EQ(3, call(1, 0).luwToken);
}

TEST_F(UnitsOfWork, IsBackedOutWhenACallInItIsMalformed)
{
    call(1, 0);
    standin::Bytes malformed = request(1, 1);
    malformed[malformed.size() - 1] = 0; // the correlator
    client.send(malformed);
    EXPECT_EQ(6, client.read().value().flowType);
    EXPECT_EQ(0U, gateway.openUnitsOfWork());
}

TEST_F(UnitsOfWork, IsBackedOutWhenAProgramThrowsAtItsBeginningOrEnd)
{
    call(1, 0);
    other->throwsAtBegin = true;
    client.send(request(1, 1, "OTHER"));
    EXPECT_EQ(6, client.read().value().flowType);
    EXPECT_EQ(0U, gateway.openUnitsOfWork());

    call(1, 0);
    diary->throwsAtCommit = true;
    client.send(request(2, 2));
    EXPECT_EQ(6, client.read().value().flowType);
    EXPECT_EQ(0U, gateway.openUnitsOfWork());
}

TEST_F(UnitsOfWork, IsGoneEvenIfAProgramThrowsAtItsBackout)
{
    call(1, 0);
    call(1, 1, "OTHER");
    diary->throwsAtBackout = true;
    EXPECT_EQ(0, call(4, 1).vornRc);
    EXPECT_EQ((Entries{"begin 1", "call 1", "backout 1"}), other->entries());
    EXPECT_EQ(0U, gateway.openUnitsOfWork());
}

TEST(UnitsOfWorkLimit, RefusesAnotherUnitWithMinus16)
{
    GatewayOptions options;
    options.mostUnitsOfWork = 2;
    Gateway gateway(options);
    Client client(gateway.port());
    ASSERT_TRUE(client.shakeHands());
    Call opening;
    opening.mode = 1;
    EXPECT_EQ(0, client.call(1, opening).vornRc);
    EXPECT_EQ(0, client.call(2, opening).vornRc);
    const Reply refused = client.call(3, opening);
    EXPECT_EQ(-16, refused.vornRc);
    EXPECT_EQ(0, refused.luwToken);
    Call commit;
    commit.mode = 2;
    commit.token = 1;
    EXPECT_EQ(0, client.call(4, commit).vornRc);
    EXPECT_EQ(3, client.call(5, opening).luwToken);
}
