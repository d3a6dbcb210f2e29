// Misbehaviours of the connection itself: late, slow, cut off, stalled, silent and half closed.

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "client.h"
#include "standin/gateway.h"

using namespace standin;
using namespace std::chrono_literals;
using standin_test::Call;
using standin_test::Client;
using standin_test::eciRequest;
using standin_test::handshake;
using standin_test::takeApart;

namespace {

constexpr std::size_t kHandshakeAnswer = 33; // its bytes

GatewayOptions optionsBy(const std::shared_ptr<ManualClock>& clock, std::uint64_t seed = 1)
{
    GatewayOptions options;
    options.clock = clock;
    options.seed = seed;
    return options;
}

class ConnectionFaults : public testing::Test {
protected:
    std::uint64_t misbehave(const std::string& text)
    {
        const SelectedMisbehaviour selected = parseMisbehaviour(text);
        return gateway.misbehave(selected.misbehaviour, selected.selector);
    }

    void ask(Client& asking, int messageId, const std::string& program = "ECHO",
             const std::string& commarea = "hello")
    {
        Call call;
        call.program = program;
        call.commarea = commarea;
        ASSERT_TRUE(asking.send(eciRequest(messageId, call)));
    }

    struct Request {
        int messageId;
        const char* program;
    };

    static Bytes together(const std::vector<Request>& requests)
    {
        Bytes all;
        for (const Request& request : requests) {
            Call call;
            call.program = request.program;
            const Bytes one = eciRequest(request.messageId, call);
            all.insert(all.end(), one.begin(), one.end());
        }
        return all;
    }

    // All in one segment.
    void askTogether(const std::vector<Request>& requests)
    {
        ASSERT_TRUE(client.send(together(requests)));
    }

    // Requests 1 to `count` in one segment.
    void askTogether(int count)
    {
        std::vector<Request> requests;
        for (int id = 1; id <= count; ++id) requests.push_back({id, "ECHO"});
        askTogether(requests);
    }

    const std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    Gateway gateway{optionsBy(clock)};
    Client client{gateway.port()};
};

// The latencies of so many answers, by a clock that nobody waits for.
std::vector<Clock::Duration> latencies(std::uint64_t seed)
{
    const auto clock = std::make_shared<ManualClock>();
    Gateway gateway(optionsBy(clock, seed));
    const SelectedMisbehaviour selected = parseMisbehaviour("latency=50~20@program:ECHO");
    gateway.misbehave(selected.misbehaviour, selected.selector);
    Client client(gateway.port());
    EXPECT_TRUE(client.shakeHands());
    std::vector<Clock::Duration> found;
    for (int id = 1; id <= 40; ++id) {
        EXPECT_TRUE(client.send(eciRequest(id, Call())));
        EXPECT_TRUE(clock->awaitTasks(1));
        const Clock::Duration before = clock->now();
        EXPECT_TRUE(clock->advanceToNext());
        found.push_back(clock->now() - before);
        EXPECT_TRUE(client.read());
    }
    return found;
}

} // namespace

// ----------------------------------------------------------------------------------------- latency

TEST_F(ConnectionFaults, LatencyKeepsAHandshakeAnAnswerAndACloseFlow)
{
    misbehave("latency=50");
    const std::vector<Bytes> flows = {handshake(), eciRequest(1, Call()),
                                      standin_test::closeFlow()};
    for (const Bytes& flow : flows) {
        const std::size_t before = gateway.sent(1).size();
        ASSERT_TRUE(client.send(flow));
        ASSERT_TRUE(clock->awaitTasks(1));
        clock->advance(49ms);
        EXPECT_EQ(1U, clock->tasks());
        EXPECT_EQ(before, gateway.sent(1).size());
        clock->advance(1ms);
        EXPECT_TRUE(client.read());
    }
}

TEST_F(ConnectionFaults, LatencyOfOneProgramLeavesTheOthersAndKeepsTheirOrder)
{
    misbehave("latency=50@program:ABEND");
    ASSERT_TRUE(client.shakeHands());
    ask(client, 1);
    EXPECT_EQ(1, client.read().value().messageId);
    EXPECT_EQ(0U, clock->tasks());
    ask(client, 2, "ABEND");
    ask(client, 3);
    ASSERT_TRUE(clock->awaitTasks(1));
    clock->advance(50ms);
    EXPECT_EQ(2, client.read().value().messageId);
    EXPECT_EQ(3, client.read().value().messageId);
}

TEST_F(ConnectionFaults, JitterStaysWithinItsBoundsAndIsTheSameForASeed)
{
    const std::vector<Clock::Duration> first = latencies(7);
    EXPECT_EQ(first, latencies(7));
    EXPECT_NE(first, latencies(8));
    Clock::Duration least = 1h;
    Clock::Duration most = 0h;
    for (const Clock::Duration latency : first) {
        least = std::min(least, latency);
        most = std::max(most, latency);
    }
    EXPECT_GE(least, 30ms);
    EXPECT_LE(most, 70ms);
    EXPECT_GT(most - least, 10ms);
}

TEST_F(ConnectionFaults, JitterLargerThanTheLatencyDelaysNothingRatherThanLess)
{
    misbehave("latency=1~100000@program:ECHO");
    ASSERT_TRUE(client.shakeHands());
    for (int id = 1; id <= 20; ++id) {
        ask(client, id);
        ASSERT_TRUE(gateway.awaitRequests(static_cast<std::size_t>(id)));
        EXPECT_FALSE(gateway.sendPing(99)); // behind which the answer is under way, or waits
        while (clock->advanceToNext()) {}
        EXPECT_EQ(id, client.read().value().messageId);
    }
}

// ------------------------------------------------------------------------------------------- rates

TEST_F(ConnectionFaults, SendRateLetsNoMoreBytesThroughInASecond)
{
    misbehave("send-rate=1000"); // 50 bytes at a time
    ASSERT_TRUE(client.shakeHands());
    ask(client, 1, "ECHO", std::string(1000, 'x'));
    ASSERT_TRUE(clock->awaitTasks(1));
    EXPECT_TRUE(clock->advanceToNext());
    EXPECT_EQ(std::chrono::milliseconds(kHandshakeAnswer), clock->now());
    Bytes reply = client.readBytes(50);
    for (int chunk = 1; chunk <= 20; ++chunk) {
        ASSERT_TRUE(clock->awaitTasks(1));
        ASSERT_EQ(kHandshakeAnswer + 50U * static_cast<unsigned>(chunk), gateway.sent(1).size());
        clock->advance(50ms - 1us);
        ASSERT_EQ(1U, clock->tasks());
        clock->advance(1us);
        const std::size_t room = chunk < 20 ? 50 : 64;
        const Bytes more = client.readBytes(chunk < 20 ? room : 1);
        reply.insert(reply.end(), more.begin(), more.end());
    }
    EXPECT_EQ(1001U, reply.size());
}

TEST_F(ConnectionFaults, ReceiveRateLetsNoMoreBytesThroughInASecond)
{
    misbehave("receive-rate=1000"); // 50 bytes at a time
    ASSERT_TRUE(client.send(handshake()));
    ASSERT_EQ(60U, handshake().size());
    ASSERT_TRUE(clock->awaitTasks(1));
    EXPECT_EQ(50U, gateway.received(1).size());
    EXPECT_EQ(0U, gateway.handshakeCount());
    clock->advance(50ms);
    EXPECT_EQ(5, client.read().value().flowType);
}

TEST_F(ConnectionFaults, RatesAreOfTheConnectionsThatTheirSelectorsCount)
{
    misbehave("send-rate=20@nth:2"); // a byte at a time
    ASSERT_TRUE(client.shakeHands());
    EXPECT_EQ(0U, clock->tasks());
    Client second(gateway.port());
    ASSERT_TRUE(second.send(handshake()));
    ASSERT_TRUE(clock->awaitTasks(1));
    EXPECT_EQ(1U, second.readBytes(1).size());
    Client third(gateway.port());
    ASSERT_TRUE(third.shakeHands());
    ask(client, 1);
    EXPECT_EQ(1, client.read().value().messageId);
    EXPECT_EQ(1U, gateway.sent(2).size());
    gateway.behave();
    clock->advance(50ms);
    EXPECT_EQ(kHandshakeAnswer - 1, second.readBytes(kHandshakeAnswer - 1).size());
}

// ------------------------------------------------------------------------------------------- stall

TEST_F(ConnectionFaults, StallStopsAtAnyByteUntilItIsReleased)
{
    ASSERT_TRUE(client.shakeHands());
    ask(client, 1);
    ASSERT_TRUE(client.read());
    const Bytes all = gateway.sent(1);
    const Bytes whole(all.begin() + kHandshakeAnswer, all.end());
    for (std::size_t count = 1; count <= whole.size(); ++count) {
        gateway.behave();
        misbehave("stall=" + std::to_string(count) + "@message:1");
        Client other(gateway.port());
        const int number = static_cast<int>(count) + 1;
        ASSERT_TRUE(other.shakeHands());
        ask(other, 1);
        Bytes came = other.readBytes(count);
        ask(other, 2);
        ASSERT_TRUE(gateway.awaitRequests(2 * count + 1));
        ASSERT_EQ(kHandshakeAnswer + count, gateway.sent(number).size());
        gateway.release();
        const Bytes rest = other.readBytes(whole.size() - count);
        came.insert(came.end(), rest.begin(), rest.end());
        EXPECT_EQ(whole, came);
        EXPECT_EQ(2, other.read().value().messageId);
    }
}

TEST_F(ConnectionFaults, StallOfAHandshakeIsOneOfItsConnection)
{
    misbehave("stall=7@connection:1,once");
    ASSERT_TRUE(client.send(handshake()));
    EXPECT_EQ(7U, client.readBytes(7).size());
    Client other(gateway.port());
    ASSERT_TRUE(other.shakeHands());
    gateway.release();
    EXPECT_EQ(kHandshakeAnswer - 7, client.readBytes(kHandshakeAnswer - 7).size());
}

TEST_F(ConnectionFaults, AStalledConnectionCanBeDroppedAndEndsWithItsClient)
{
    misbehave("stall=7@message:1");
    ASSERT_TRUE(client.shakeHands());
    ask(client, 1);
    EXPECT_EQ(7U, client.readBytes(7).size());
    gateway.dropConnection();
    EXPECT_TRUE(client.readBytes(1).empty());
    Client other(gateway.port());
    ASSERT_TRUE(other.shakeHands());
    ask(other, 1);
    EXPECT_EQ(7U, other.readBytes(7).size());
    other.close();
    EXPECT_TRUE(gateway.awaitClosed(2));
}

TEST_F(ConnectionFaults, ARateStrikesNoMoreConnectionsThanItTells)
{
    misbehave("send-rate=1000@nth:2");
    ASSERT_TRUE(client.shakeHands());
    Client second(gateway.port());
    ASSERT_TRUE(second.shakeHands());
    Client third(gateway.port());
    ASSERT_TRUE(third.shakeHands());
    const std::vector<MisbehaviourInForce> inForce = gateway.misbehavioursInForce();
    ASSERT_EQ(1U, inForce.size());
    EXPECT_EQ(2, inForce[0].seen);
    EXPECT_EQ(1, inForce[0].struck);
}

// --------------------------------------------------------------------------------------- partition

TEST_F(ConnectionFaults, PartitionLetsNothingThroughForItsTime)
{
    misbehave("partition=1000@message:1");
    ASSERT_TRUE(client.shakeHands());
    ask(client, 1);
    ASSERT_TRUE(clock->awaitTasks(2)); // its end, and the answer
    ask(client, 2);
    Client other(gateway.port());
    ASSERT_TRUE(other.shakeHands());
    clock->advance(1s - 1us);
    EXPECT_EQ(1U, gateway.requestCount());
    EXPECT_EQ(kHandshakeAnswer, gateway.sent(1).size());
    clock->advance(1us);
    EXPECT_EQ(1, client.read().value().messageId);
    EXPECT_EQ(2, client.read().value().messageId);
}

TEST_F(ConnectionFaults, PartitionOfTheGatewayIsOfTheConnectionsThatAreOpen)
{
    ASSERT_TRUE(client.shakeHands());
    EXPECT_TRUE(gateway.partition(2s));
    EXPECT_FALSE(gateway.partition(2s, 7));
    Client other(gateway.port());
    ASSERT_TRUE(other.shakeHands());
    ask(client, 1);
    clock->advance(1s);
    EXPECT_TRUE(gateway.partition(2s, 1)); // longer, from now
    clock->advance(1s);
    ask(other, 5);
    EXPECT_EQ(5, other.read().value().messageId);
    EXPECT_EQ(1U, gateway.requestCount());
    clock->advance(1s);
    EXPECT_EQ(1, client.read().value().messageId);
}

TEST_F(ConnectionFaults, PartitionTakesNothingOffTheSocket)
{
    ASSERT_TRUE(client.shakeHands());
    ASSERT_TRUE(gateway.partition(2s, 1)); // while it waits for bytes
    ask(client, 1);
    Client other(gateway.port());
    ASSERT_TRUE(other.shakeHands());
    EXPECT_EQ(handshake(), gateway.received(1));
    clock->advance(2s);
    EXPECT_EQ(1, client.read().value().messageId);
}

// ----------------------------------------------------------------------- what has come together

TEST_F(ConnectionFaults, AnswersToRequestsThatCameTogetherGoTogether)
{
    ASSERT_TRUE(client.shakeHands());
    const unsigned before = client.segmentsReceived();
    askTogether(3);
    for (int id = 1; id <= 3; ++id) EXPECT_EQ(id, client.read().value().messageId);
    EXPECT_EQ(1U, client.segmentsReceived() - before);
}

TEST_F(ConnectionFaults, NoMoreThanSixteenAnswersWaitForTheNext)
{
    std::promise<void> read;
    int count = 0;
    bool wasRead = false;
    gateway.setReply("ECHO", [&](const EciRequest& request) {
        if (++count == 17) wasRead = read.get_future().wait_for(30s) == std::future_status::ready;
        return EciReply::to(request);
    });
    ASSERT_TRUE(client.shakeHands());
    askTogether(17);
    for (int id = 1; id <= 16; ++id) EXPECT_EQ(id, client.read().value().messageId);
    read.set_value();
    EXPECT_EQ(17, client.read().value().messageId);
    EXPECT_TRUE(wasRead);
}

TEST_F(ConnectionFaults, PartitionDoesNotStopTheAnswerInFrontOfIt)
{
    misbehave("partition=1000@message:2");
    ASSERT_TRUE(client.shakeHands());
    askTogether(3);
    EXPECT_EQ(1, client.read().value().messageId);
    ASSERT_TRUE(clock->awaitTasks(2)); // its end, and the answer
    EXPECT_EQ(2U, gateway.requestCount());
    clock->advance(1s);
    EXPECT_EQ(2, client.read().value().messageId);
    EXPECT_EQ(3, client.read().value().messageId);
}

TEST_F(ConnectionFaults, ResetComesBehindTheAnswerInFrontOfIt)
{
    misbehave("reset@message:2");
    ASSERT_TRUE(client.shakeHands());
    askTogether(3);
    EXPECT_EQ(1, client.read().value().messageId);
    EXPECT_FALSE(client.endsInOrder());
}

TEST_F(ConnectionFaults, ALateAnswerKeepsTheOnesThatCameWithItInTheirOrder)
{
    misbehave("latency=1000@message:2");
    ASSERT_TRUE(client.shakeHands());
    askTogether(3);
    EXPECT_EQ(1, client.read().value().messageId);
    ASSERT_TRUE(clock->awaitTasks(1));
    clock->advance(1s);
    EXPECT_EQ(2, client.read().value().messageId);
    EXPECT_EQ(3, client.read().value().messageId);
}

TEST_F(ConnectionFaults, DropComesBehindTheAnswersInFrontOfIt)
{
    misbehave("drop@message:3");
    ASSERT_TRUE(client.shakeHands());
    askTogether(4);
    EXPECT_EQ(1, client.read().value().messageId);
    EXPECT_EQ(2, client.read().value().messageId);
    EXPECT_TRUE(client.endsInOrder());
}

TEST_F(ConnectionFaults, ResetByAProgramComesBehindTheAnswersInFrontOfIt)
{
    gateway.setReply("RESET", [&](const EciRequest& request) {
        gateway.resetConnection();
        return EciReply::to(request);
    });
    ASSERT_TRUE(client.shakeHands());
    askTogether({{1, "ECHO"}, {2, "ECHO"}, {3, "RESET"}});
    EXPECT_EQ(1, client.read().value().messageId);
    EXPECT_EQ(2, client.read().value().messageId);
    EXPECT_FALSE(client.endsInOrder());
}

// An allocation that fails is played by a log that throws.
TEST_F(ConnectionFaults, FailureComesBehindTheAnswersInFrontOfIt)
{
    GatewayOptions options;
    options.log = [](LogLevel, const std::string& line) {
        if (line.find("connection 1: request 3") == 0) throw std::bad_alloc();
    };
    Gateway failing(options);
    Client asking(failing.port());
    ASSERT_TRUE(asking.shakeHands());
    ASSERT_TRUE(asking.send(together({{1, "ECHO"}, {2, "ECHO"}, {3, "ECHO"}})));
    EXPECT_EQ(1, asking.read().value().messageId);
    EXPECT_EQ(2, asking.read().value().messageId);
    EXPECT_FALSE(asking.endsInOrder());
}

// The answers are released at the very moment at which a late one may go, and before it has gone.
class AnswersReleasedInTime : public ConnectionFaults {
protected:
    void SetUp() override
    {
        misbehave("latency=1000@message:1");
        misbehave("hold@message:2");
        gateway.after(1s, [&] { gateway.release(); });
        ASSERT_TRUE(client.shakeHands());
    }
};

TEST_F(AnswersReleasedInTime, StayTogetherWhenTheyEndACongestion)
{
    constexpr std::size_t kMuch = 5 * 1024 * 1024; // of which more than four wait
    Client slow(gateway.port(), standin_test::Room::Little);
    ASSERT_TRUE(slow.shakeHands());
    misbehave("duplicate@message:2");
    gateway.setRawReply([](const ReceivedRequest& request) {
        const int id = request.header.messageId;
        return standin_test::flow(3, id, "ECI", Bytes(id == 1 ? kMuch : 0));
    });
    ASSERT_TRUE(slow.send(together({{2, "ECHO"}, {1, "ECHO"}, {3, "ECHO"}})));
    ASSERT_TRUE(clock->awaitTasks(2));
    clock->advance(1s);
    for (const int id : {1, 2, 2, 3}) EXPECT_EQ(id, slow.read().value().messageId);
}

TEST_F(AnswersReleasedInTime, GoOutAllWhenTheClientHasClosedItsSide)
{
    misbehave("ping@message:2");
    askTogether({{2, "ECHO"}, {1, "ECHO"}});
    ASSERT_TRUE(clock->awaitTasks(2));
    ASSERT_TRUE(client.send({'G'}));
    client.closeSending();
    ASSERT_TRUE(gateway.awaitFindings());
    clock->advance(1s);
    EXPECT_EQ(1, client.read().value().messageId);
    EXPECT_EQ(7, client.read().value().flowType);
    const std::optional<standin_test::Received> last = client.read();
    ASSERT_TRUE(last);
    EXPECT_EQ(2, last->messageId);
}

// ---------------------------------------------------------------------------- silent, half a side

TEST_F(ConnectionFaults, SilenceAcceptsAndReadsAndNeverSendsAnything)
{
    misbehave("silence@connection:2");
    Client second(gateway.port());
    ASSERT_TRUE(second.send(handshake()));
    ask(second, 1);
    ASSERT_TRUE(gateway.awaitRequests(1));
    EXPECT_TRUE(gateway.sent(2).empty());
    ASSERT_TRUE(client.shakeHands());
    gateway.sendPing();
    EXPECT_EQ(7, client.read().value().flowType);
    gateway.dropConnection(2);
    EXPECT_TRUE(second.readBytes(1).empty());
}

TEST_F(ConnectionFaults, HalfCloseClosesItsSideInsteadOfAnsweringAndReadsOn)
{
    misbehave("half-close@message:2");
    ASSERT_TRUE(client.shakeHands());
    ask(client, 1);
    EXPECT_EQ(1, client.read().value().messageId);
    ask(client, 2);
    EXPECT_TRUE(client.readBytes(1).empty());
    ask(client, 3);
    EXPECT_TRUE(gateway.awaitRequests(3));
    EXPECT_EQ(0U, gateway.closedCount());
    client.close();
    EXPECT_TRUE(gateway.awaitClosed());
}

TEST_F(ConnectionFaults, HalfCloseOfTheGatewayComesBehindWhatIsUnderWay)
{
    misbehave("latency=50@message:1");
    ASSERT_TRUE(client.shakeHands());
    ask(client, 1);
    ASSERT_TRUE(clock->awaitTasks(1));
    EXPECT_TRUE(gateway.halfCloseConnection(1));
    clock->advance(50ms);
    EXPECT_EQ(1, client.read().value().messageId);
    EXPECT_TRUE(client.readBytes(1).empty());
    EXPECT_FALSE(gateway.halfCloseConnection(9));
}

// ---------------------------------------------------------------------------------- on and off

TEST_F(ConnectionFaults, EndByTheirNumberOrTheirName)
{
    const std::uint64_t first = misbehave("latency=50");
    const std::uint64_t second = misbehave("latency=70");
    misbehave("gateway-rc=61446");
    EXPECT_NE(first, second);
    EXPECT_TRUE(gateway.behave(first));
    EXPECT_FALSE(gateway.behave(first));
    ASSERT_TRUE(client.send(handshake()));
    ASSERT_TRUE(clock->awaitTasks(1));
    clock->advance(70ms);
    EXPECT_TRUE(client.read());
    gateway.behave(Fault::Latency);
    ask(client, 1);
    EXPECT_EQ(61446, client.read().value().gatewayRc);
    EXPECT_FALSE(gateway.behave(second));
}

TEST_F(ConnectionFaults, MayBeThoseOfOneAnswerOnly)
{
    gateway.setReply("SLOW", [](const EciRequest& request) {
        EciReply reply = EciReply::withCommarea(request, {'s'});
        reply.faults = {"latency=50", "stall=40"};
        return reply;
    });
    ASSERT_TRUE(client.shakeHands());
    ask(client, 1, "SLOW");
    ASSERT_TRUE(clock->awaitTasks(1));
    clock->advance(50ms);
    EXPECT_EQ(40U, client.readBytes(40).size());
    EXPECT_EQ(kHandshakeAnswer + 40, gateway.sent(1).size());
}

TEST(ManualClock, DoesWhatIsDueInItsOrder)
{
    ManualClock clock;
    std::string done;
    clock.after(20ms, [&] { done += "b"; });
    clock.after(10ms, [&] {
        done += "a";
        clock.after(5ms, [&] { done += "c"; });
    });
    clock.after(20ms, [&] { done += "d"; });
    clock.advance(9ms);
    EXPECT_EQ("", done);
    clock.advance(11ms);
    EXPECT_EQ("acbd", done);
    EXPECT_EQ(20ms, clock.now());
    EXPECT_FALSE(clock.advanceToNext());
}
