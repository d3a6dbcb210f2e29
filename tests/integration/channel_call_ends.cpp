// Channels in flight on connections that end: lost, closed, purged, or given up because the reply
// cannot be applied. Whatever happens, the channel is the application's again.
#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <string>
#include <vector>

#include "support/channel_script.h"

using namespace script;
using support::changeOf;
using support::EciParms;
using support::getReply;
using support::getReplyWait;
using support::getSpecificReplyWait;
using support::TraceFile;

namespace {

class ChannelInFlight : public ::testing::Test {
protected:
    ChannelInFlight() { channel.with("B", "bb").with("A", "aa"); }

    RunningCall<int> startSync()
    {
        auto running = startChannelCall(connection, sync);
        messageId = connection.awaitRequest().messageId();
        return running;
    }

    void sendAsync()
    {
        EciParms parms = channelCall(ECI_ASYNC, channel);
        ASSERT_RC(0, executeChannel(connection, parms));
        messageId = connection.awaitRequest().messageId();
    }

    void answer(const Bytes& flows) { connection.peer.send(flows); }

    int collect()
    {
        EciParms parms = getReply(0);
        return executeChannel(connection, parms);
    }

    void purge()
    {
        auto purging = connection.startPurge(0);
        connection.answerClose();
        EXPECT_RC(0, purging.get());
        connection.forget();
    }

    // The channel serves a call on another connection.
    void expectUsable()
    {
        channel.expectFree();
        ScriptedConnection another;
        EciParms parms = channelCall(ECI_SYNC, channel);
        auto running = startChannelCall(another, parms);
        another.peer.send(ChannelReply(1, added("PROBE", 1, 0, text("p")))
                              .to(another.awaitRequest().messageId()));
        EXPECT_RC(0, running.get());
        EXPECT_EQ("p", channel.dataOf("PROBE"));
    }

    ScriptedConnection connection;
    Channel channel;
    EciParms sync = channelCall(ECI_SYNC, channel);
    int messageId = 0;
};

} // namespace

// ---- Synchronous ----

TEST_F(ChannelInFlight, IsUsableAfterTheConnectionIsLost)
{
    auto running = startSync();
    connection.peer.close();
    EXPECT_RC(-102, running.get());
    EXPECT_EQ((Names{"A=aa", "B=bb"}), channel.contents());
    expectUsable();
}

TEST_F(ChannelInFlight, IsUsableAfterTheConnectionIsReset)
{
    auto running = startSync();
    connection.peer.reset();
    EXPECT_RC(-102, running.get());
    expectUsable();
}

TEST_F(ChannelInFlight, IsUsableAfterTheGatewayCloses)
{
    auto running = startSync();
    answer(closeFlow());
    EXPECT_RC(61444, running.get());
    expectUsable();
}

TEST_F(ChannelInFlight, IsUsableAfterAPurge)
{
    auto running = startSync();
    purge();
    EXPECT_RC(-140, running.get());
    expectUsable();
}

TEST_F(ChannelInFlight, IsUsableAfterAConnectionError)
{
    auto running = startSync();
    answer(flow(errorType, -2, 61445, "ECI", Bytes()));
    EXPECT_RC(-102, running.get());
    expectUsable();
}

TEST_F(ChannelInFlight, IsUsableAfterTheConnectionIsLostInItsReply)
{
    Bytes whole = ChannelReply(2, added("NEW", 1, 0, text("data")) + deleted("A")).to(1);
    for (std::size_t there = 0; there < whole.size(); there += 5) {
        SCOPED_TRACE(there);
        ScriptedConnection cut;
        EciParms parms = channelCall(ECI_SYNC, channel);
        auto running = startChannelCall(cut, parms);
        cut.awaitRequest();
        cut.peer.send(support::slice(whole, 0, there));
        cut.peer.close();
        EXPECT_RC(-102, running.get());
        EXPECT_EQ((Names{"A=aa", "B=bb"}), channel.contents()); // the body was not there whole
    }
    expectUsable();
}

// ---- Replies that cannot be applied ----

namespace {

struct Unfit {
    const char* name;
    int count;
    Bytes records;
    Names left;
};

const Unfit unfit[] = {
    {"DeletesWhatIsNotThere",
     3,
     added("NEW", 1, 0, text("n")) + deleted("NOBODY") + deleted("A"),
     {"NEW=n", "A=aa", "B=bb"}},
    {"ModifiesWhatIsNotThere",
     3,
     deleted("A") + modified("NOBODY", 1, 0, text("x")) + deleted("B"),
     {"B=bb"}},
    {"AddsMoreThanIsThere", 2, deleted("A") + changeOf("NEW", 1, 1, 0, INT_MAX), {"B=bb"}},
    {"AddsANegativeLength", 1, changeOf("NEW", 1, 1, 0, -1), {"A=aa", "B=bb"}},
    {"ModifiesToMoreThanIsThere", 1, changeOf("A", 3, 1, 0, 3) + text("xy"), {"A=aa", "B=bb"}},
    {"CountsMoreThanIsThere", INT_MAX, deleted("A"), {"B=bb"}},
    {"EndsInARecord", 2, deleted("A") + support::padded("NEW", 16), {"B=bb"}},
};

class ChannelReplyUnfit : public ChannelInFlight, public ::testing::WithParamInterface<int> {
protected:
    static const Unfit& reply() { return unfit[static_cast<std::size_t>(GetParam())]; }
    Bytes flowOfReply() const { return ChannelReply(reply().count, reply().records).to(messageId); }
};

INSTANTIATE_TEST_SUITE_P(, ChannelReplyUnfit, ::testing::Range(0, 7),
                         [](const auto& one) { return std::string(unfit[one.param].name); });

} // namespace

TEST_P(ChannelReplyUnfit, EndsTheConnectionOfASynchronousCall)
{
    auto running = startSync();
    answer(flowOfReply());
    EXPECT_RC(-102, running.get());
    EXPECT_EQ(reply().left, channel.contents());
    EXPECT_TRUE(connection.peer.awaitEof());
    EXPECT_RC(-102, executeChannel(connection, sync));
    expectUsable();
}

TEST_P(ChannelReplyUnfit, EndsTheConnectionOfAnAsynchronousCall)
{
    sendAsync();
    answer(flowOfReply());
    EXPECT_TRUE(connection.peer.awaitEof());
    EciParms parms = getReplyWait(0);
    EXPECT_RC(-102, executeChannel(connection, parms));
    EXPECT_EQ(reply().left, channel.contents());
    expectUsable();
}

TEST_F(ChannelInFlight, IsOneOfManyCallsThatAReplyThatCannotBeAppliedEnds)
{
    auto running = startSync();
    int failing = messageId;
    EciParms other = support::syncCall("OTHER");
    auto otherCall = connection.start(other);
    connection.awaitRequest();
    answer(ChannelReply(1, deleted("NOBODY")).to(failing));
    EXPECT_RC(-102, running.get());
    EXPECT_RC(-102, otherCall.get());
    expectUsable();
}

TEST_F(ChannelInFlight, IsGivenBackWithTheCodeOfAGatewayWhoseChannelIsTooShort)
{
    // With a code of the Gateway a body that is too short is none, and no reason to end.
    auto running = startSync();
    Bytes body = ChannelReply(1, added("NEW", 1, 0, text("data"))).body();
    answer(flow(replyType, messageId, 61445, "ECI", support::slice(body, 0, body.size() - 30)));
    EXPECT_RC(61445, running.get());
    EXPECT_EQ((Names{"A=aa", "B=bb"}), channel.contents());
    expectStillServing(connection);
    expectUsable();
}

// ---- Asynchronous ----

TEST_F(ChannelInFlight, IsHeldUntilItsLossIsCollected)
{
    sendAsync();
    TraceFile trace(4);
    lose(connection, trace);
    auto use = channel.startUse();
    ASSERT_TRUE(trace.awaitText(waitsForChannel));
    EXPECT_RC(-102, collect());
    EXPECT_RC(0, use.get());
    expectUsable();
}

TEST_F(ChannelInFlight, IsHeldUntilTheCloseOfTheGatewayIsCollected)
{
    sendAsync();
    TraceFile trace(4);
    closeByGateway(connection, trace);
    auto use = channel.startUse();
    ASSERT_TRUE(trace.awaitText(waitsForChannel));
    EXPECT_RC(61444, collect());
    EXPECT_RC(0, use.get());
    expectUsable();
}

TEST_F(ChannelInFlight, IsGivenBackByAPurgeWithoutACollector)
{
    sendAsync();
    TraceFile trace(4);
    auto use = channel.startUse();
    ASSERT_TRUE(trace.awaitText(waitsForChannel));
    purge();
    EXPECT_RC(0, use.get());
    EXPECT_EQ((Names{"A=aa", "B=bb"}), channel.contents());
    expectUsable();
}

TEST_F(ChannelInFlight, IsGivenBackByAPurgeThoughItsReplyWasThere)
{
    sendAsync();
    answer(ChannelReply(1, deleted("A")).to(messageId));
    EciParms after = support::syncCall("AFTER");
    auto call = connection.start(after);
    answer(ProgramReply().to(connection.awaitRequest().messageId()));
    EXPECT_RC(0, call.get());
    purge();
    EXPECT_EQ((Names{"B=bb"}), channel.contents());
    expectUsable();
}

TEST_F(ChannelInFlight, IsGivenBackByAPurgeThatHasWaitedForItInVain)
{
    sendAsync();
    TraceFile trace(4);
    auto use = channel.startUse();
    ASSERT_TRUE(trace.awaitText(waitsForChannel));
    auto purging = connection.startPurge(1);
    ASSERT_TRUE(
        trace.awaitText("Waiting 1 seconds for 0 API calls and 1 async requests to complete\n"));
    EXPECT_EQ(0, trace.timesWroteText("ENTRY  clapi_channel.unlockChannel("));
    connection.answerClose();
    EXPECT_RC(0, purging.get());
    connection.forget();
    EXPECT_RC(0, use.get());
    expectUsable();
}

TEST_F(ChannelInFlight, IsGivenBackByAPurgeOfALostConnection)
{
    sendAsync();
    {
        TraceFile trace(3);
        lose(connection, trace);
    }
    auto purging = connection.startPurge(0);
    EXPECT_RC(0, purging.get());
    connection.forget();
    expectUsable();
}

// The purge waits for the call, and the call for the channel that the purge has to give back.
TEST_F(ChannelInFlight, IsGivenBackByAPurgeToACallThatWaitsForItOnTheSameConnection)
{
    sendAsync();
    TraceFile trace(4);
    auto second = startChannelCall(connection, sync);
    ASSERT_TRUE(trace.awaitText(waitsForChannel));
    purge();
    EXPECT_RC(61444, second.get());
    expectUsable();
}

TEST_F(ChannelInFlight, IsGivenBackByAPurgeWithACollectorWaiting)
{
    for (bool specific : {false, true}) {
        SCOPED_TRACE(specific);
        ScriptedConnection purged;
        EciParms parms = channelCall(ECI_ASYNC, channel);
        ASSERT_RC(0, executeChannel(purged, parms));
        purged.awaitRequest();
        TraceFile trace(4);
        EciParms waiting = specific ? getSpecificReplyWait(1, 0) : getReplyWait(0);
        auto collecting = startChannelCall(purged, waiting);
        ASSERT_TRUE(trace.awaitText("clapi_lock.clapiWaitEvent() Waiting on event"));
        auto purging = purged.startPurge(0);
        purged.answerClose();
        EXPECT_RC(-140, collecting.get());
        EXPECT_RC(0, purging.get());
        purged.forget();
        EXPECT_EQ(1, trace.timesWrote(1471));
        EXPECT_EQ((Names{"A=aa", "B=bb"}), channel.contents());
    }
    expectUsable();
}

TEST_F(ChannelInFlight, IsGivenBackWhenAllConnectionsAreClosed)
{
    sendAsync();
    auto closing = callInThread([] { return QPX_closeAllGatewayConnections(); });
    connection.answerClose();
    EXPECT_RC(0, closing.get());
    connection.forget();
    expectUsable();
}

TEST_F(ChannelInFlight, HoldsUpACloseUntilItIsCollected)
{
    sendAsync();
    TraceFile trace(2);
    auto closing = connection.startClose();
    ASSERT_TRUE(trace.awaitText("Waiting for 0 API calls and 1 async requests to complete\n"));
    answer(ChannelReply(1, deleted("A")).to(messageId));
    EciParms parms = getReplyWait(0);
    EXPECT_RC(0, executeChannel(connection, parms));
    connection.answerClose();
    EXPECT_RC(0, closing.get());
    connection.forget();
    EXPECT_EQ((Names{"B=bb"}), channel.contents());
    expectUsable();
}

TEST_F(ChannelInFlight, IsOneOfManyThatAPurgeGivesBack)
{
    std::vector<std::unique_ptr<Channel>> channels;
    for (int number = 0; number < 20; ++number) {
        channels.push_back(std::make_unique<Channel>("C" + std::to_string(number)));
        EciParms parms = channelCall(ECI_ASYNC, *channels.back());
        ASSERT_RC(0, executeChannel(connection, parms));
        connection.awaitRequest();
    }
    TraceFile trace(3);
    purge();
    EXPECT_EQ(20, trace.timesWrote(1471));
    for (const auto& one : channels) one->expectFree();
}

TEST_F(ChannelInFlight, IsNotGivenBackByThePurgeOfAnotherConnection)
{
    sendAsync();
    ScriptedConnection other;
    auto purging = other.startPurge(0);
    other.answerClose();
    EXPECT_RC(0, purging.get());
    other.forget();
    TraceFile trace(4);
    auto use = channel.startUse();
    ASSERT_TRUE(trace.awaitText(waitsForChannel));
    answer(ChannelReply().to(messageId));
    EciParms parms = getReplyWait(0);
    EXPECT_RC(0, executeChannel(connection, parms));
    EXPECT_RC(0, use.get());
}

TEST_F(ChannelInFlight, MayBeDeletedAfterThePurge)
{
    sendAsync();
    TraceFile trace(4);
    auto deleting = callInThread([this] { return ECI_deleteChannel(&channel.token); });
    ASSERT_TRUE(trace.awaitText(waitsForChannel));
    purge();
    EXPECT_RC(0, deleting.get());
    EXPECT_EQ(nullptr, channel.token);
}
