// What a watcher of a Gateway is told, which misbehaviours are in force, and what is held.

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>

#include "client.h"
#include "scrambled.h"
#include "standin/gateway.h"

using namespace standin;
using standin_test::Call;
using standin_test::Client;

namespace {

// Writes down in words what it is told.
class Notes final : public Watcher {
public:
    void connectionBegan(int number, const std::string& peer) override
    {
        add("connection " + std::to_string(number) + " from " + peer.substr(0, peer.find(':')));
    }
    void handshakeCame(int number, const Handshake& handshake) override
    {
        add("handshake " + std::to_string(number) + " " + handshake.applid);
    }
    void connectionEnded(int number, Ending ending) override
    {
        add("end " + std::to_string(number) +
            (ending == Ending::ClosedByClient ? " by the client" : ""));
    }
    void unitChanged(const UnitState& unit) override
    {
        std::string text = "unit " + std::to_string(unit.token);
        for (const std::string& program : unit.programs) text += " " + program;
        if (unit.stage == UnitState::Stage::Committed) text += " committed";
        if (unit.stage == UnitState::Stage::BackedOut) text += " backed out";
        add(text);
    }
    void callBegan(const CallRecord& call) override
    {
        add("call " + std::to_string(call.number) + " began");
    }
    void callEnded(CallRecord call) override
    {
        add("call " + std::to_string(call.number) + " ended");
        const std::lock_guard<std::mutex> guard(lock_);
        calls_.push_back(std::move(call));
    }

    std::vector<std::string> all() const
    {
        const std::lock_guard<std::mutex> guard(lock_);
        return notes_;
    }
    std::vector<CallRecord> calls() const
    {
        const std::lock_guard<std::mutex> guard(lock_);
        return calls_;
    }

private:
    void add(const std::string& note)
    {
        const std::lock_guard<std::mutex> guard(lock_);
        notes_.push_back(note);
    }

    mutable std::mutex lock_;
    std::vector<std::string> notes_;
    std::vector<CallRecord> calls_;
};

class AWatcher : public testing::Test {
protected:
    AWatcher() { EXPECT_TRUE(client.shakeHands()); }

    static GatewayOptions options(const std::shared_ptr<Notes>& notes)
    {
        GatewayOptions options;
        options.watcher = notes;
        return options;
    }

    const std::shared_ptr<Notes> notes = std::make_shared<Notes>();
    Gateway gateway{options(notes)};
    Client client{gateway.port()};
};

Call inUnit(int mode, int token)
{
    Call call;
    call.mode = mode;
    call.token = token;
    return call;
}

Bytes withPassword(int messageId, const std::string& password)
{
    const Bytes masked = standin_test::scrambled(password);
    Bytes body = standin_test::eciBody(Call());
    body[48] = static_cast<std::uint8_t>(masked.size());
    body.insert(body.begin() + 49, masked.begin(), masked.end());
    return standin_test::flow(1, messageId, "ECI", body);
}

Bytes change(const std::string& current, const std::string& next)
{
    return standin_test::flow(1, 4, "ESI",
                              standin_test::Raw()
                                  .int32(1)
                                  .padded("FRED", 10)
                                  .int32(static_cast<int>(current.size()))
                                  .bytes(standin_test::scrambled(current))
                                  .padded("VORNA", 8, ' ')
                                  .int32(static_cast<int>(next.size()))
                                  .bytes(standin_test::scrambled(next)));
}

// The same flow without its passwords.
Bytes hidden(Bytes flow, const std::vector<std::string>& passwords)
{
    for (const std::string& password : passwords) {
        const Bytes masked = standin_test::scrambled(password);
        const auto at = std::search(flow.begin(), flow.end(), masked.begin(), masked.end());
        EXPECT_NE(flow.end(), at);
        std::fill_n(at, masked.size(), std::uint8_t{0});
    }
    return flow;
}

} // namespace

TEST_F(AWatcher, IsToldOfConnectionsUnitsOfWorkAndCallsInTheirOrder)
{
    const int token = client.call(1, inUnit(1, 0)).luwToken;
    EXPECT_EQ(1, token);
    client.call(2, inUnit(2, token));
    client.call(3, inUnit(1, 0));
    client.close();
    ASSERT_TRUE(gateway.awaitClosed());
    gateway.stop();
    const std::vector<std::string> wanted = {"connection 1 from 127.0.0.1",
                                             "handshake 1 DEMO1",
                                             "call 1 began",
                                             "unit 1",
                                             "unit 1 ECHO",
                                             "call 1 ended",
                                             "call 2 began",
                                             "unit 1 ECHO committed",
                                             "call 2 ended",
                                             "call 3 began",
                                             "unit 2",
                                             "unit 2 ECHO",
                                             "call 3 ended",
                                             "unit 2 ECHO backed out",
                                             "end 1 by the client"};
    EXPECT_EQ(wanted, notes->all());
}

TEST_F(AWatcher, GetsTheFlowsOfACallAsTheyWereOnTheWire)
{
    Call call;
    call.commarea = "hello";
    client.call(7, call);
    gateway.stop();
    ASSERT_EQ(1U, notes->calls().size());
    EXPECT_EQ(standin_test::eciRequest(7, call), notes->calls().front().requestFlow);
    const Bytes sent = gateway.sent();
    const Bytes answer = notes->calls().front().answerFlow;
    ASSERT_LT(answer.size(), sent.size());
    EXPECT_EQ(answer, Bytes(sent.end() - static_cast<std::ptrdiff_t>(answer.size()), sent.end()));
}

TEST_F(AWatcher, GetsRequestsWithoutTheirPasswords)
{
    const Bytes call = withPassword(3, "Blue7sky");
    const Bytes changed = change("Blue7sky", "Green8sea");
    client.send(call);
    ASSERT_TRUE(client.read());
    client.send(changed);
    ASSERT_TRUE(client.read());
    gateway.stop();
    ASSERT_EQ(2U, notes->calls().size());
    EXPECT_EQ(hidden(call, {"Blue7sky"}), notes->calls()[0].requestFlow);
    EXPECT_EQ(hidden(changed, {"Blue7sky", "Green8sea"}), notes->calls()[1].requestFlow);
    EXPECT_EQ("", notes->calls()[0].eci->password);
}

TEST(HiddenPasswords, AreHiddenInFlowsThatAreCutShortOrLieAboutTheirLengths)
{
    for (const Bytes& whole : {withPassword(3, "Blue7sky"), change("Green8sea", "Blue7sky")}) {
        const Bytes masked = standin_test::scrambled("Blue7sky");
        const auto isThere = [&masked](const Bytes& flow) {
            return std::search(flow.begin(), flow.end(), masked.begin() + 1, masked.begin() + 4) !=
                   flow.end();
        };
        ASSERT_TRUE(isThere(whole));
        for (std::size_t size = 0; size <= whole.size(); ++size) {
            Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
            hidePasswords(cut);
            EXPECT_FALSE(isThere(cut)) << size;
        }
        const std::size_t firstLength = 32 + (whole[26] == 'I' && whole[25] == 'C' ? 45 : 14);
        for (const int wrong : {0x7F, 0xFF, 0x80}) {
            Bytes lying = whole;
            lying[firstLength] = static_cast<std::uint8_t>(wrong);
            hidePasswords(lying);
            EXPECT_FALSE(isThere(lying)) << wrong;
        }
        for (const std::size_t at : {20U, 23U, 25U, 35U}) {
            Bytes unknown = whole; // lengths, types and call types that there are not
            unknown[at] = 99;
            hidePasswords(unknown);
            EXPECT_FALSE(isThere(unknown)) << at;
        }
    }
}

TEST_F(AWatcher, SeesWhichMisbehavioursAreInForceAndHowOftenTheyStruck)
{
    const std::uint64_t drops = gateway.misbehave(Fault::Ping, nth(2));
    const std::uint64_t holds = gateway.misbehave(Fault::Hold, onProgram("OTHER"));
    EXPECT_LT(drops, holds);
    client.send(standin_test::eciRequest(1, Call()));
    ASSERT_TRUE(client.read());
    client.send(standin_test::eciRequest(2, Call()));
    EXPECT_EQ(7, client.read().value().flowType);
    std::vector<MisbehaviourInForce> inForce = gateway.misbehavioursInForce();
    ASSERT_EQ(2U, inForce.size());
    EXPECT_EQ(drops, inForce[0].number);
    EXPECT_EQ(Fault::Ping, inForce[0].selected.misbehaviour.fault);
    EXPECT_EQ(2, inForce[0].seen);
    EXPECT_EQ(1, inForce[0].struck);
    EXPECT_EQ("OTHER", inForce[1].selected.selector.program);
    EXPECT_EQ(0, inForce[1].seen);

    EXPECT_TRUE(gateway.behave(drops));
    EXPECT_FALSE(gateway.behave(drops));
    inForce = gateway.misbehavioursInForce();
    ASSERT_EQ(1U, inForce.size());
    EXPECT_EQ(holds, inForce[0].number);
}

TEST_F(AWatcher, SeesWhichAnswersAreHeld)
{
    gateway.hold();
    client.send(standin_test::eciRequest(4, Call()));
    client.send(standin_test::eciRequest(5, Call()));
    ASSERT_TRUE(gateway.awaitHeld(2));
    const std::vector<HeldCall> held = gateway.heldCalls();
    ASSERT_EQ(2U, held.size());
    EXPECT_EQ(1, held[0].connection);
    EXPECT_EQ(4, held[0].messageId);
    EXPECT_EQ(5, held[1].messageId);
    gateway.release();
    EXPECT_TRUE(gateway.heldCalls().empty());
}
