// Channel calls when sending, memory, locks or the reply fail them: the code, the line, and that
// the channel is given back once and is in order.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "clapi_channel.h"
#include "support/channel_script.h"
#include "support/other_thread.h"
#include "unit/connect_fixture.h"

using namespace script;
using fixture::BrokenLock;
using support::Call;
using support::EciParms;
using support::failCall;
using support::failEveryCall;
using support::Fault;
using support::getReply;
using support::getReplyWait;
using support::Threads;
using support::TraceFile;

namespace {

class FlowChannelCall : public ::testing::Test {
protected:
    FlowChannelCall() { channel.with("B", "bb").with("A", "aa"); }

    // A call that is on the wire.
    RunningCall<int> startOnWire(EciParms& parms)
    {
        auto call = startChannelCall(connection, parms);
        request = connection.awaitRequest();
        return call;
    }

    // Sends an asynchronous request with the channel.
    void sendAsync(int extendMode = 0)
    {
        EciParms parms = channelCall(ECI_ASYNC, channel);
        parms.withExtendMode(extendMode);
        ASSERT_RC(0, executeChannel(connection, parms));
        request = connection.awaitRequest();
    }

    void answer(const ChannelReply& reply) { connection.peer.send(reply.to(request.messageId())); }

    int isLocked() const { return channel.token->isLocked; }

    // The channel is nobody's, its count is that of its list, and it goes out on a further call.
    void expectInOrder()
    {
        EXPECT_EQ(0, isLocked());
        channel.expectFree();
        int walked = 0;
        for (ECI_Container_t* one = channel.token->firstCont; one != nullptr; one = one->nextCont)
            walked += 1;
        EXPECT_EQ(walked, channel.token->numContainers.load());
        channel.with("PROBE", "probe");
        EXPECT_EQ("probe", channel.dataOf("PROBE"));
    }

    void expectServing()
    {
        EciParms parms = channelCall(ECI_SYNC, channel);
        auto call = startOnWire(parms);
        answer(ChannelReply());
        EXPECT_RC(0, call.get());
    }

    // Nothing of the call is left on the connection.
    void expectNothingLeft()
    {
        EXPECT_EQ(0, connection.token->table.slot[0].state);
        EXPECT_EQ(0, connection.token->asyncCount.load());
        EXPECT_EQ(0, connection.token->requestCount.load());
        EXPECT_TRUE(connection.token->firstReply == nullptr);
    }

    // The receiver has given the connection up.
    void expectLost()
    {
        support::OtherThread acting;
        EXPECT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
        EXPECT_EQ(3, connection.token->connStatus.load());
        EXPECT_TRUE(connection.peer.awaitEof());
        EciParms parms = channelCall(ECI_SYNC, channel);
        EXPECT_RC(-102, executeChannel(connection, parms));
    }

    ScriptedConnection connection;
    Channel channel;
    Request request;
};

} // namespace

// ---- While the channel is in flight ----

TEST_F(FlowChannelCall, HasTheChannelFromBeforeTheRequestUntilItReturns)
{
    EXPECT_EQ(0, isLocked());
    EciParms parms = channelCall(ECI_SYNC, channel);
    std::atomic<int> lockedAtSend{0};
    Fault sending = support::beforeCall(
        Call::Send, 1, [&](const support::CallInfo&) { lockedAtSend = isLocked(); });
    auto call = startOnWire(parms);
    EXPECT_EQ(1, lockedAtSend.load());
    EXPECT_EQ(1, isLocked());
    answer(ChannelReply());
    EXPECT_RC(0, call.get());
    EXPECT_EQ(0, isLocked());
    expectInOrder();
}

TEST_F(FlowChannelCall, KeepsTheChannelOfAnAsynchronousRequestUntilItIsCollected)
{
    sendAsync();
    EXPECT_EQ(1, isLocked());
    answer(ChannelReply());
    EciParms parms = getReplyWait(0);
    EXPECT_RC(0, executeChannel(connection, parms));
    EXPECT_EQ(0, isLocked());
    expectInOrder();
}

TEST_F(FlowChannelCall, HasNoChannelToCommitOrBackOut)
{
    for (int mode : {2, 4}) {
        EciParms opening = channelCall(ECI_SYNC, channel);
        opening.withExtendMode(1);
        auto call = startOnWire(opening);
        answer(ChannelReply().token(7));
        EXPECT_RC(0, call.get());

        EciParms ending = channelCall(ECI_SYNC, channel);
        ending.withExtendMode(mode, 7);
        auto end = startOnWire(ending);
        EXPECT_EQ(0, isLocked());
        connection.peer.send(ProgramReply().to(request.messageId()));
        EXPECT_RC(0, end.get());
    }
    expectInOrder();
}

// ---- Sending ----

TEST_F(FlowChannelCall, GivesTheChannelBackWhenASynchronousSendFails)
{
    EciParms parms = channelCall(ECI_SYNC, channel);
    {
        Fault broken = failCall(Call::Send, 1, EPIPE, Threads::Calling);
        EXPECT_RC(-102, executeChannel(connection, parms));
        EXPECT_EQ(1, broken.hits());
    }
    expectNothingLeft();
    expectInOrder();
    expectServing();
}

TEST_F(FlowChannelCall, GivesTheChannelBackWhenAnAsynchronousSendFails)
{
    EciParms parms = channelCall(ECI_ASYNC, channel);
    parms.record.eci_message_qualifier = 99;
    {
        Fault broken = failCall(Call::Send, 1, EPIPE, Threads::Calling);
        EXPECT_RC(-102, executeChannel(connection, parms));
        EXPECT_EQ(1, broken.hits());
    }
    EXPECT_EQ(99, int(parms.record.eci_message_qualifier));
    expectNothingLeft();
    expectInOrder();
    EciParms collecting = getReply(0);
    EXPECT_RC(ECI_ERR_NO_REPLY, executeChannel(connection, collecting));
    expectServing();
}

TEST_F(FlowChannelCall, GivesTheChannelBackOnceWhenASendFails)
{
    TraceFile trace(3);
    EciParms parms = channelCall(ECI_ASYNC, channel);
    {
        Fault broken = failCall(Call::Send, 1, EPIPE, Threads::Calling);
        EXPECT_RC(-102, executeChannel(connection, parms));
    }
    EXPECT_EQ(1, trace.timesWrote(1460));
    EXPECT_EQ(1, trace.timesWrote(1471));
    EXPECT_TRUE(
        trace.wrote(1516, "EXIT", "API.QPX_ECI_Execute_Channel() rc=-102 (QPX_ERR_LOSTGWCON)"));
}

TEST_F(FlowChannelCall, GivesTheChannelBackWhenThereIsNoMemoryForTheRequest)
{
    for (int callType : {ECI_SYNC, ECI_ASYNC}) {
        SCOPED_TRACE(callType);
        EciParms parms = channelCall(callType, channel);
        {
            Fault noMemory = failEveryCall(Call::Malloc, ENOMEM, Threads::Calling);
            EXPECT_RC(-111, executeChannel(connection, parms));
            EXPECT_LE(1, noMemory.hits());
        }
        expectNothingLeft();
        channel.expectFree();
    }
    expectInOrder();
    expectServing();
}

// ---- Replies that cannot be applied ----

TEST_F(FlowChannelCall, EndsTheConnectionWhenThereIsNoMemoryForData)
{
    EciParms parms = channelCall(ECI_SYNC, channel);
    auto call = startOnWire(parms);
    TraceFile trace(1);
    Fault noMemory = failCall(Call::Malloc, 1, ENOMEM, Threads::Others);
    answer(ChannelReply(1, added("NEW", 1, 0, text("data"))));

    EXPECT_RC(-102, call.get());

    EXPECT_EQ(1, noMemory.hits());
    EXPECT_EQ(1, trace.timesWrote(3238)) << trace.text();
    EXPECT_EQ((Names{"A=aa", "B=bb"}), channel.contents());
    expectInOrder();
    expectLost();
}

TEST_F(FlowChannelCall, EndsTheConnectionWhenThereIsNoMemoryForAContainer)
{
    EciParms parms = channelCall(ECI_SYNC, channel);
    auto call = startOnWire(parms);
    TraceFile trace(1);
    Fault noMemory = failCall(Call::Malloc, 2, ENOMEM, Threads::Others);
    answer(ChannelReply(1, added("NEW", 1, 0, text("data"))));

    EXPECT_RC(-102, call.get());

    EXPECT_EQ(1, trace.timesWrote(3225)) << trace.text();
    EXPECT_EQ((Names{"A=aa", "B=bb"}), channel.contents());
    expectInOrder();
    expectLost();
}

TEST_F(FlowChannelCall, EndsTheConnectionWhenThereIsNoMemoryForModifiedData)
{
    EciParms parms = channelCall(ECI_SYNC, channel);
    auto call = startOnWire(parms);
    TraceFile trace(1);
    Fault noMemory = failCall(Call::Malloc, 1, ENOMEM, Threads::Others);
    answer(ChannelReply(1, modified("A", 1, 0, text("longer"))));

    EXPECT_RC(-102, call.get());

    EXPECT_EQ(1, trace.timesWrote(3235)) << trace.text();
    EXPECT_EQ((Names{"A=", "B=bb"}), channel.contents());
    expectInOrder();
    expectLost();
}

TEST_F(FlowChannelCall, LeavesTheChannelOfAnAsynchronousRequestInOrderWhenThereIsNoMemory)
{
    sendAsync();
    {
        Fault noMemory = failCall(Call::Malloc, 1, ENOMEM, Threads::Others);
        answer(ChannelReply(1, added("NEW", 1, 0, text("data"))));
        EXPECT_TRUE(noMemory.awaitHits());
        support::OtherThread acting;
        EXPECT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
    }
    EXPECT_EQ(1, isLocked());
    EciParms parms = getReply(0);
    EXPECT_RC(-102, executeChannel(connection, parms));
    EXPECT_EQ((Names{"A=aa", "B=bb"}), channel.contents());
    expectInOrder();
    expectLost();
}

TEST_F(FlowChannelCall, TakesAReplyInReceivesOfEverySize)
{
    Bytes records = added("NEW", 2, 37, text("new")) + modified("A", 1, 0, text("longer")) +
                    deleted("B") + deleted("NEW") + modified("A", 1, 0, text("aa")) +
                    added("B", 1, 0, text("bb"));
    const Bytes whole = ChannelReply(6, records).to(1);
    for (std::size_t piece = 1; piece <= whole.size(); ++piece) {
        SCOPED_TRACE(piece);
        EciParms parms = channelCall(ECI_SYNC, channel);
        auto call = startOnWire(parms);
        Fault narrow = support::limitLength(Call::Recv, piece);
        connection.peer.send(pingFlow());
        EXPECT_TRUE(narrow.awaitHits(1)); // what is received from here on comes in pieces
        answer(ChannelReply(6, records));
        EXPECT_RC(0, call.get());
        EXPECT_EQ((Names{"B=bb", "A=aa"}), channel.contents());
    }
    expectInOrder();
}

// ---- Locks ----

TEST_F(FlowChannelCall, IsRefusedWithAChannelThatCannotBeLocked)
{
    for (int callType : {ECI_SYNC, ECI_ASYNC}) {
        SCOPED_TRACE(callType);
        TraceFile trace(1);
        EciParms parms = channelCall(callType, channel);
        {
            BrokenLock broken(channel.token->serLock);
            EXPECT_RC(ECI_ERR_INVALID_CHANNEL, executeChannel(connection, parms));
        }
        EXPECT_TRUE(trace.wrote(1462, "*EXC*",
                                "clapi_channel.lockChannel() chanTok (" + shown(channel.token) +
                                    ") is not a channel"))
            << trace.text();
        EXPECT_TRUE(connection.peer.isQuiet());
        expectNothingLeft();
    }
    expectInOrder();
}

TEST_F(FlowChannelCall, TakesNoCodePageForAChannelThatCannotBeLocked)
{
    ASSERT_EQ(-1, channel.token->ccsid.load());
    EciParms parms = channelCall(ECI_SYNC, channel);
    {
        BrokenLock broken(channel.token->serLock);
        EXPECT_RC(ECI_ERR_INVALID_CHANNEL, executeChannel(connection, parms));
    }
    EXPECT_EQ(-1, channel.token->ccsid.load());
}

TEST_F(FlowChannelCall, ReportsAChannelThatCannotBeUnlocked)
{
    TraceFile trace(1);
    EciParms parms = channelCall(ECI_SYNC, channel);
    auto call = startOnWire(parms);
    {
        BrokenLock broken(channel.token->serLock);
        answer(ChannelReply());
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, call.get());
    }
    EXPECT_TRUE(trace.wrote(1564, "*EXC*", "API.QPX_ECI_Execute_Channel() Unlock channel failed"))
        << trace.text();
    EXPECT_EQ(1, trace.timesWrote(1473));
    EXPECT_RC(0, unlockChannel(channel.token));
    expectNothingLeft();
    expectInOrder();
}

TEST_F(FlowChannelCall, KeepsTheServersCodeWhenItsChannelCannotBeUnlocked)
{
    TraceFile trace(1);
    EciParms parms = channelCall(ECI_SYNC, channel);
    auto call = startOnWire(parms);
    {
        BrokenLock broken(channel.token->serLock);
        answer(ChannelReply().serverCode(-7));
        EXPECT_RC(ECI_ERR_TRANSACTION_ABEND, call.get());
    }
    EXPECT_EQ(1, trace.timesWrote(1564));
    EXPECT_RC(0, unlockChannel(channel.token));
    expectInOrder();
}

TEST_F(FlowChannelCall, ReportsAChannelThatCannotBeUnlockedAtItsCollection)
{
    sendAsync();
    TraceFile trace(1);
    answer(ChannelReply());
    EciParms parms = getReplyWait(0);
    {
        BrokenLock broken(channel.token->serLock);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, executeChannel(connection, parms));
    }
    EXPECT_TRUE(trace.wrote(1566, "*EXC*", "clapi_eci.getAsyncReply() Unlock channel failed"))
        << trace.text();
    EXPECT_RC(0, unlockChannel(channel.token));
    expectNothingLeft();
    expectInOrder();
}

TEST_F(FlowChannelCall, IsRefusedWhenItsCodePageCannotBeHad)
{
    TraceFile trace(3);
    EciParms parms = channelCall(ECI_SYNC, channel);
    {
        BrokenLock broken(chanListLock);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, executeChannel(connection, parms));
        // Nothing is checked any more.
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, QPX_ECI_Execute_Channel(nullptr, nullptr));
    }
    EXPECT_TRUE(
        trace.wrote(1356, "*EXC*",
                    "clapi_channel.getCurrentCcsid() Failed to lock channel list for CCSID check"));
    EXPECT_EQ(0, trace.timesWrote(1508));
    EXPECT_EQ(0, trace.timesWrote(1460));
    EXPECT_EQ(2, trace.timesWrote(1507));
    EXPECT_EQ((Names{"API.QPX_ECI_Execute_Channel() rc=-9 (QPX_ERR_SYSTEM_ERROR)",
                     "API.QPX_ECI_Execute_Channel() rc=-9 (QPX_ERR_SYSTEM_ERROR)"}),
              trace.messages(1516));
    EXPECT_TRUE(connection.peer.isQuiet());
    expectNothingLeft();
    expectInOrder();
}

// ---- Units of work ----

TEST_F(FlowChannelCall, LeavesNoChannelWithASlotThatAUnitOfWorkKeeps)
{
    sendAsync(1);
    answer(ChannelReply().token(7));
    EciParms parms = getReplyWait(0);
    ASSERT_RC(0, executeChannel(connection, parms));
    ASSERT_EQ(4, connection.token->table.slot[0].state);
    EXPECT_EQ(0, isLocked());

    // Somebody else has the channel when the connection is closed.
    ASSERT_RC(0, lockChannel(channel.token));
    connection.closeInOrder();
    EXPECT_EQ(1, isLocked());
    EXPECT_RC(0, unlockChannel(channel.token));
    expectInOrder();
}

TEST_F(FlowChannelCall, LeavesNoChannelWithAnIdleSlotOfASynchronousCall)
{
    EciParms parms = channelCall(ECI_SYNC, channel);
    parms.withExtendMode(1);
    auto call = startOnWire(parms);
    answer(ChannelReply().token(7));
    ASSERT_RC(0, call.get());
    ASSERT_EQ(4, connection.token->table.slot[0].state);

    ASSERT_RC(0, lockChannel(channel.token));
    connection.closeInOrder();
    EXPECT_EQ(1, isLocked());
    EXPECT_RC(0, unlockChannel(channel.token));
    expectInOrder();
}

TEST_F(FlowChannelCall, GivesBackTheChannelsOfAPurgedConnectionOnce)
{
    sendAsync();
    TraceFile trace(3);
    auto purging = connection.startPurge(0);
    connection.answerClose();
    EXPECT_RC(0, purging.get());
    connection.forget();
    EXPECT_EQ(1, trace.timesWrote(1471));
    EXPECT_EQ(0, isLocked());
    expectInOrder();
}

// ---- Replies and ends that overtake their call ----

namespace {

class FlowChannelRace : public FlowChannelCall {
protected:
    // Runs something on the calling thread in the middle of its call, before it sends.
    static Fault beforeSend(std::function<void()> work)
    {
        return support::beforeCall(
            Call::Send, 1, [work](const support::CallInfo&) { work(); }, Threads::Calling);
    }

    // Runs something on the calling thread in the middle of its call: its request is written, or
    // has failed to be, but it still counts as a sender. That is when the call asks for the lock of
    // the table for the third time.
    Fault whenTheChannelIsSent(std::function<void()> work)
    {
        auto seen = std::make_shared<std::atomic<int>>(0);
        auto mutex = reinterpret_cast<std::uintptr_t>(&connection.token->tableLock.lock);
        return support::beforeCall(
            Call::MutexLock, 0,
            [seen, mutex, work](const support::CallInfo& info) {
                if (info.first == mutex && ++*seen == 3) work();
            },
            Threads::Calling);
    }

    // Ends the connection, and waits until every waiting slot has been told.
    void loseAndAwaitSweep()
    {
        connection.peer.close();
        support::OtherThread acting;
        EXPECT_EQ(0, clapiWaitEvent(&connection.token->asyncReplyEvent));
        EXPECT_EQ(0, clapiRequestLock(&connection.token->tableLock));
        EXPECT_EQ(0, clapiReleaseLock(&connection.token->tableLock));
    }
};

} // namespace

TEST_F(FlowChannelRace, GivesTheChannelBackOnceWhenTheConnectionIsLostInTheSend)
{
    for (int callType : {ECI_SYNC, ECI_ASYNC}) {
        SCOPED_TRACE(callType);
        ScriptedConnection lost;
        TraceFile trace(3);
        EciParms parms = channelCall(callType, channel);
        Fault losing = beforeSend([&] {
            lost.peer.close();
            support::OtherThread acting;
            EXPECT_EQ(0, clapiWaitEvent(&lost.token->asyncReplyEvent));
        });
        Fault failing = failCall(Call::Send, 1, EPIPE, Threads::Calling);
        EXPECT_RC(-102, executeChannel(lost, parms));
        EXPECT_EQ(1, trace.timesWrote(1471));
        EXPECT_EQ(0, isLocked());
        EXPECT_EQ(0, lost.token->asyncCount.load());
        EXPECT_TRUE(lost.token->firstReply == nullptr);
    }
    expectInOrder();
}

TEST_F(FlowChannelRace, LeavesTheChannelToWhoeverHasItAfterAnEarlyCollection)
{
    // The reply is collected, and the channel taken by somebody else, before the call returns.
    EciParms parms = channelCall(ECI_ASYNC, channel);
    Fault early = whenTheChannelIsSent([&] {
        request = connection.awaitRequest();
        answer(ChannelReply(1, deleted("A")));
        EciParms collecting = getReplyWait(0);
        EXPECT_RC(0, startChannelCall(connection, collecting).get());
        EXPECT_RC(0, lockChannel(channel.token));
    });
    EXPECT_RC(0, executeChannel(connection, parms));
    EXPECT_EQ(1, int(parms.record.eci_message_qualifier));
    EXPECT_EQ(1, isLocked());
    EXPECT_RC(0, unlockChannel(channel.token));
    EXPECT_EQ((Names{"B=bb"}), channel.contents());
    expectNothingLeft();
    expectInOrder();
}

TEST_F(FlowChannelRace, LeavesTheChannelToWhoeverHasItWhenAFailedSendWasCollected)
{
    // The loss is collected, and the channel taken by somebody else, before the call fails.
    EciParms parms = channelCall(ECI_ASYNC, channel);
    Fault early = whenTheChannelIsSent([&] {
        loseAndAwaitSweep();
        EciParms collecting = getReply(0);
        EXPECT_RC(-102, startChannelCall(connection, collecting).get());
        EXPECT_RC(0, lockChannel(channel.token));
    });
    Fault failing = failCall(Call::Send, 1, EPIPE, Threads::Calling);
    EXPECT_RC(0, executeChannel(connection, parms)); // its outcome is delivered: it counts as sent
    EXPECT_EQ(1, isLocked());
    EXPECT_RC(0, unlockChannel(channel.token));
    expectNothingLeft();
    expectInOrder();
}

TEST_F(FlowChannelRace, HasAppliedAReplyThatComesBeforeItsCallerWaits)
{
    EciParms parms = channelCall(ECI_SYNC, channel);
    Fault early = whenTheChannelIsSent([&] {
        request = connection.awaitRequest();
        answer(ChannelReply(1, deleted("A")));
        support::OtherThread acting;
        EXPECT_EQ(0, clapiWaitEvent(&connection.token->table.slot[0].requestEvent));
    });
    EXPECT_RC(0, executeChannel(connection, parms));
    EXPECT_EQ((Names{"B=bb"}), channel.contents());
    expectInOrder();
}

TEST_F(FlowChannelRace, AppliesAReplyAtOnceThatComesWhenItsChannelHasBeenRead)
{
    // The whole request is staged when its only send begins.
    EciParms parms = channelCall(ECI_SYNC, channel);
    Fault early = beforeSend([&] {
        connection.peer.send(ChannelReply(1, deleted("A")).to(1));
        support::OtherThread acting;
        EXPECT_EQ(0, clapiWaitEvent(&connection.token->table.slot[0].requestEvent));
        EXPECT_EQ(1, channel.token->numContainers.load());
    });
    EXPECT_RC(0, executeChannel(connection, parms));
    EXPECT_EQ((Names{"B=bb"}), channel.contents());
    connection.awaitRequest();
    expectInOrder();
}

TEST_F(FlowChannelRace, AppliesNoReplyWhileItsChannelIsBeingSent)
{
    Bytes large(70000, 'l');
    EXPECT_RC(0, ECI_createContainer(channel.token, "LARGE", ECI_BIT, 0, large.data(), 70000));
    EciParms parms = channelCall(ECI_SYNC, channel);
    TraceFile lines(4);
    Fault early = beforeSend([&] {
        connection.peer.send(ChannelReply(1, deleted("A")).to(1));
        connection.peer.send(pingFlow());
        EXPECT_TRUE(lines.awaitText("Flow type is FLOW_PING")); // behind the reply
        EXPECT_EQ(3, channel.token->numContainers.load());
    });
    EXPECT_RC(0, executeChannel(connection, parms));
    EXPECT_EQ(2, channel.token->numContainers.load());
    EXPECT_EQ("bb", channel.dataOf("B"));
    connection.awaitRequest();
    expectInOrder();
}

TEST_F(FlowChannelRace, DoesNotReturnWhileTheReceiverChangesItsChannel)
{
    // Half of a reply is there, and being applied, when its request has failed to be sent.
    constexpr std::size_t large = 100000;
    std::promise<void> applying;
    Fault allocating = support::beforeCall(
        Call::Malloc, 0,
        [&](const support::CallInfo& info) {
            if (info.first == large) applying.set_value();
        },
        Threads::Others);
    EciParms parms = channelCall(ECI_SYNC, channel);
    Fault early = whenTheChannelIsSent([&] {
        Bytes reply = ChannelReply(2, added("NEW", 1, 0, Bytes(large, 'n')) + deleted("A")).to(1);
        connection.peer.send(support::slice(reply, 0, 60000));
        applying.get_future().wait();
    });
    Fault failing = failCall(Call::Send, 1, EPIPE, Threads::Calling);

    EXPECT_RC(-102, executeChannel(connection, parms));

    EXPECT_EQ(0, isLocked());
    EXPECT_EQ("aa", channel.dataOf("A"));
    EXPECT_TRUE(connection.peer.awaitEof());
    EXPECT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
    expectNothingLeft();
    expectInOrder();
}
