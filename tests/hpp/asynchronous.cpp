// Asynchronous calls: as values that wait for their reply, and as futures.
#include <set>
#include <vector>

#include "fixture.h"
#include "support/call_in_thread.h"

using namespace hpp;
using support::callInThread;

namespace {

class PendingReplies : public WithConnection {
protected:
    // Waits until all replies that went out before are there: a later one is.
    void awaitDelivery() { ASSERT_TRUE(connection.call(echo, "after")); }
};

class Futures : public WithConnection {
protected:
    qpx::Collector collector = qpx::Collector::over(connection).value();
};

qpx::Channel channelWith(std::string_view name, std::string_view data)
{
    qpx::Channel channel = qpx::Channel::create("CHANNEL").value();
    EXPECT_TRUE(channel.addBytes(name, data));
    return channel;
}

} // namespace

TEST_F(PendingReplies, AreTakenInWhateverOrderTheApplicationLikes)
{
    auto first = connection.start(echo, "first").value();
    auto second = connection.start(echo, "second").value();
    EXPECT_EQ("second", second.get().value());
    EXPECT_EQ("first", first.get().value());
}

TEST_F(PendingReplies, AreNotThereBeforeTheyHaveCome)
{
    gateway.hold();
    auto reply = connection.start(echo, "late").value();
    EXPECT_FALSE(reply.poll().has_value());
    EXPECT_TRUE(reply.valid());
    gateway.release();
    awaitDelivery();
    auto polled = reply.poll();
    ASSERT_TRUE(polled.has_value());
    EXPECT_EQ("late", polled->value());
}

TEST_F(PendingReplies, AreTakenOnce)
{
    auto reply = connection.start(echo, "once").value();
    EXPECT_EQ("once", reply.get().value());
    EXPECT_FALSE(reply.valid());
    EXPECT_FAILURE(ECI_ERR_INVALID_MSG_QUAL, reply.get());
}

TEST_F(PendingReplies, AreAsLongAsTheProgramMadeThem)
{
    gateway.setReply("SHORT", [](const standin::EciRequest& request) {
        return standin::EciReply::withCommarea(request, bytes("ok"));
    });
    EXPECT_EQ("ok", connection.start(qpx::Call("SHORT"), "ask", 80).value().get().value());
}

TEST_F(PendingReplies, TellTheAbendCode)
{
    auto reply = connection.start(qpx::Call("ABEND"), "ASRA").value().get();
    ASSERT_FALSE(reply);
    EXPECT_EQ("ASRA", reply.failure().abendCode());
}

TEST_F(PendingReplies, BringTheChannelBack)
{
    auto reply = connection.start(qpx::Call("CHANECHO"), channelWith("DATA", "12")).value();
    EXPECT_EQ("12", reply.get().value().data("DATA").value());
}

TEST_F(PendingReplies, ThatNobodyTakesDoNotHoldUpAClose)
{
    gateway.hold();
    static_cast<void>(connection.start(echo, "dropped").value());
    static_cast<void>(connection.start(qpx::Call("CHANECHO"), channelWith("DATA", "12")).value());
    ASSERT_TRUE(gateway.awaitHeld(2));
    gateway.release();
    EXPECT_FAILURE(QPX_OK, connection.close());
}

TEST_F(PendingReplies, ThatNobodyTakesDoNotHoldUpTheEndOfTheConnection)
{
    gateway.hold();
    static_cast<void>(connection.start(echo, "dropped").value());
    auto pending = connection.start(qpx::Call("CHANECHO"), channelWith("DATA", "12")).value();
    auto end = callInThread([&] { return connection.purge().code(); });
    EXPECT_RC(QPX_OK, end.get());
    EXPECT_FAILURE(QPX_ERR_NULLGWTOK, pending.get());
}

TEST_F(PendingReplies, ThatNobodyTakesAreCollectedBeforeTheNextCallStarts)
{
    const int dropped = connection.start(echo, "dropped").value().qualifier();
    awaitDelivery();
    ASSERT_TRUE(connection.start(echo, "next").value().get());
    QPX_ECI_PARMS record = echo.native(ECI_GET_SPECIFIC_REPLY);
    record.eci_message_qualifier = dropped;
    EXPECT_RC(ECI_ERR_INVALID_MSG_QUAL, QPX_ECI_Execute(connection.native(), &record));
}

TEST_F(PendingReplies, FailWithTheConnection)
{
    gateway.hold();
    auto reply = connection.start(echo, "lost").value();
    ASSERT_TRUE(gateway.awaitRequests(1));
    gateway.dropConnection();
    EXPECT_FAILURE(QPX_ERR_LOSTGWCON, reply.get());
}

TEST_F(Futures, BringEveryReplyToItsCall)
{
    std::vector<std::future<qpx::Result<std::string>>> replies;
    for (int i = 0; i < 100; ++i) replies.push_back(collector.call(echo, std::to_string(i)));
    for (int i = 0; i < 100; ++i) EXPECT_EQ(std::to_string(i), replies[size_t(i)].get().value());
    EXPECT_EQ(0u, collector.outstanding());
}

// The library gives the qualifier of a reply that was collected to the next call, which may be
// entered before the collecting thread has come to the former one.
TEST_F(Futures, AreNotMixedUpWhenAQualifierIsUsedAgain)
{
    constexpr int calls = 5000;
    std::vector<std::future<qpx::Result<std::string>>> replies;
    for (int i = 0; i < calls; ++i) replies.push_back(collector.call(echo, std::to_string(i)));
    int right = 0;
    for (int i = 0; i < calls; ++i) {
        auto& reply = replies[size_t(i)];
        ASSERT_EQ(std::future_status::ready, reply.wait_for(support::generousLimit)) << i;
        right += reply.get().value() == std::to_string(i);
    }
    EXPECT_EQ(calls, right);
}

TEST_F(Futures, AreReadyInTheOrderOfTheReplies)
{
    gateway.hold();
    auto first = collector.call(echo, "first");
    auto second = collector.call(echo, "second");
    ASSERT_TRUE(gateway.awaitHeld(2));
    const auto requests = gateway.requests();
    gateway.releaseMessage(requests[1].header.messageId);
    EXPECT_EQ("second", second.get().value());
    EXPECT_EQ(std::future_status::timeout, first.wait_for(std::chrono::seconds(0)));
    gateway.release();
    EXPECT_EQ("first", first.get().value());
}

TEST_F(Futures, ComeFromManyThreadsAtOnce)
{
    std::vector<support::RunningCall<int>> threads;
    for (int t = 0; t < 4; ++t)
        threads.push_back(callInThread([this, t] {
            int right = 0;
            for (int i = 0; i < 50; ++i) {
                const std::string data = std::to_string(t * 1000 + i);
                right += collector.call(echo, data).get().value() == data;
            }
            return right;
        }));
    for (auto& each : threads) EXPECT_EQ(50, each.get());
}

TEST_F(Futures, BringChannelsAndData)
{
    auto channel = collector.call(qpx::Call("CHANECHO"), channelWith("DATA", "12"));
    auto data = collector.call(echo, "text");
    EXPECT_EQ("12", channel.get().value().data("DATA").value());
    EXPECT_EQ("text", data.get().value());
}

TEST_F(Futures, HoldTheFailureOfACallThatIsNotSent)
{
    EXPECT_FAILURE(ECI_ERR_INVALID_DATA_LENGTH, collector.call(qpx::Call("PROGRAM12"), "x").get());
    EXPECT_FAILURE(ECI_ERR_INVALID_CHANNEL, collector.call(echo, qpx::Channel()).get());
    EXPECT_EQ(0u, collector.outstanding());
}

TEST_F(Futures, FailWithTheConnection)
{
    gateway.hold();
    auto first = collector.call(echo, "first");
    auto second = collector.call(qpx::Call("CHANECHO"), channelWith("DATA", "12"));
    ASSERT_TRUE(gateway.awaitRequests(2));
    gateway.dropConnection();
    EXPECT_FAILURE(QPX_ERR_LOSTGWCON, first.get());
    EXPECT_FAILURE(QPX_ERR_LOSTGWCON, second.get());
}

TEST_F(Futures, FailWhenTheConnectionIsPurged)
{
    gateway.hold();
    auto reply = collector.call(echo, "first");
    ASSERT_TRUE(gateway.awaitRequests(1));
    EXPECT_FAILURE(QPX_OK, connection.purge());
    EXPECT_TRUE(reply.get().failure().connectionEnded());
}

TEST_F(Futures, HaveTheirOutcomeWhenTheCollectorIsGone)
{
    std::future<qpx::Result<std::string>> reply;
    {
        qpx::Collector moved = std::move(collector);
        reply = moved.call(echo, "kept");
    }
    ASSERT_EQ(std::future_status::ready, reply.wait_for(std::chrono::seconds(0)));
    EXPECT_EQ("kept", reply.get().value());
}

TEST_F(Futures, AreNotMixedWithOtherWaysToCollect)
{
    EXPECT_FAILURE(ECI_ERR_ALREADY_ACTIVE, connection.start(echo, "x"));
    EXPECT_FAILURE(ECI_ERR_ALREADY_ACTIVE, qpx::Collector::over(connection));
    {
        qpx::Collector gone = std::move(collector);
    }
    auto pending = connection.start(echo, "x").value();
    EXPECT_FAILURE(ECI_ERR_ALREADY_ACTIVE, qpx::Collector::over(connection));
    EXPECT_EQ("x", pending.get().value());
    EXPECT_TRUE(qpx::Collector::over(connection));
}
