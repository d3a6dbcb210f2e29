// What the receiver thread takes memory for, and that it gives it back.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>

#include "support/channel_bytes.h"
#include "support/eci_script.h"
#include "support/live_blocks.h"
#include "unit/receiver_fixture.h"

using namespace fixture;
using namespace script;
using support::afterCall;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::EciParms;
using support::failCall;
using support::Fault;
using support::Gate;
using support::getReply;
using support::LiveBlocks;
using support::RunningCall;
using support::syncCall;
using support::Threads;
using support::TraceFile;

namespace {

class ReceiverBlocks : public ReceiverTest {
protected:
    // What comes behind everything else has been read.
    void awaitPing()
    {
        TraceFile trace(4);
        connection.peer.send(pingFlow());
        ASSERT_TRUE(trace.awaitText("Flow type is FLOW_PING"));
        ASSERT_TRUE(trace.awaitText("Waiting for a reply"));
    }
};

// ---- Replies of asynchronous calls ----

TEST_F(ReceiverBlocks, OfAReplyLongerThanItsRequestExpectedAreGivenBackWithIt)
{
    LiveBlocks blocks;
    int messageId = startAsync("PROG", 8);
    connection.peer.send(eciReply(messageId, filled(100, 'r')));
    awaitPing();
    EXPECT_EQ(1, blocks.count()); // the reply's; that of the request has gone

    EciParms reply = getReply(100);
    EXPECT_RC(QPX_OK, collect(reply));

    EXPECT_EQ(0, blocks.count());
}

TEST_F(ReceiverBlocks, AreNoLargerThanAReplyMayBeHoweverLongItSaysToBe)
{
    int messageId = startAsync("PROG", 8);
    std::atomic<std::uintptr_t> largest{0};
    Fault taking = afterCall(
        Call::Malloc, 0,
        [&](const CallInfo& info) {
            std::uintptr_t size = info.second != 0 ? info.first * info.second : info.first;
            largest = std::max(largest.load(), size);
        },
        Threads::Others);

    connection.peer.send(ProgramReply().commarea(text("short")).inbound(50'000'000).to(messageId));
    expectEnded(3);

    EXPECT_LE(largest.load(), 32'767U);
    EciParms reply = getReply(8);
    EXPECT_RC(QPX_ERR_LOSTGWCON, collect(reply));
}

TEST_F(ReceiverBlocks, OfARefusedReplyOfAUnitOfWorkAreGivenBackWhenItIsCollected)
{
    LiveBlocks blocks;
    EciParms parms = support::asyncCall("PROG", filled(8, 'q'));
    parms.withExtendMode(ECI_EXTENDED);
    EXPECT_RC(QPX_OK, QPX_ECI_Execute(connection.token, &parms.record));
    int messageId = connection.awaitRequest().messageId();
    connection.peer.send(
        ProgramReply().luwToken(5).serverCode(-7).commarea(text("answered")).to(messageId));
    awaitPing();

    EciParms reply = getReply(8);
    EXPECT_RC(ECI_ERR_TRANSACTION_ABEND, collect(reply));

    EXPECT_EQ(0, blocks.count());
}

// ---- Exceptions ----

TEST_F(ReceiverBlocks, OfAnExceptionsTextAreGivenBack)
{
    LiveBlocks blocks;

    EXPECT_RC(QPX_ERR_GATEWAY_EXCEPTION, callAnswered(exceptionFlow(1, "of no use")));
    awaitPing();

    EXPECT_EQ(0, blocks.count());
}

TEST_F(ReceiverBlocks, OfAnExceptionsTextAreAsLongAsWhatHasComeOfIt)
{
    std::atomic<bool> tooLong{false};
    asked = syncCall("PROG");
    auto call = connection.start(asked);
    connection.awaitRequest();
    Fault taking = beforeCall(
        Call::Malloc, 0, [&](const CallInfo& info) { tooLong = tooLong || info.first > 100; },
        Threads::Others);
    TraceFile trace(1);

    connection.peer.send(
        flow(exceptionType, 1, 0, "ECI", hex("00") + be16(60'000) + text("cut here")));

    EXPECT_RC(QPX_ERR_GATEWAY_EXCEPTION, call.get());
    EXPECT_FALSE(tooLong.load());
    EXPECT_TRUE(trace.wrote(3043, "clapi_gwycon.receiverThread() Exception message: cut here"));
}

// What the library shows of it is what has come, and nothing that was in its memory before.
TEST_F(ReceiverBlocks, OfAnExceptionsTextThatBreaksOffAreEmptyBehindWhatHasCome)
{
    // So much of the text is staged at once: what a buffer holds, without the byte and the length
    // in front.
    constexpr std::size_t staged = 33'000 - 3;
    asked = syncCall("PROG");
    auto call = connection.start(asked);
    connection.awaitRequest();
    TraceFile trace(1);

    Bytes whole = flow(exceptionType, 1, 0, "ECI", hex("00") + be16(40'000) + filled(40'000, 'x'));
    connection.peer.send(Bytes(whole.begin(), whole.end() - 1'000));
    connection.peer.close();

    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    EXPECT_TRUE(trace.wrote(3043, "clapi_gwycon.receiverThread() Exception message: " +
                                      std::string(staged, 'x')));
}

// ---- What has been read ahead ----

TEST_F(ReceiverBlocks, OfWhatHasBeenReadAheadAreOverwrittenWhole)
{
    constexpr std::size_t ahead = 2048;
    asked = syncCall("PROG", filled(4'000, 'q'));
    auto call = connection.start(asked);
    connection.awaitRequest();
    Bytes reply = eciReply(1, filled(4'000, 'r'));
    std::atomic<bool> wasWhole{false};
    Fault overwriting = beforeCall(
        Call::Overwrite, 0,
        [&](const CallInfo& info) {
            const void* bytes = reinterpret_cast<const void*>(info.first);
            if (memmem(bytes, info.second, reply.data(), ahead) != nullptr) wasWhole = true;
        },
        Threads::Others);

    connection.peer.send(reply);

    EXPECT_RC(QPX_OK, call.get());
    connection.peer.close();
    expectEnded(3);
    EXPECT_TRUE(wasWhole.load());
}

// ---- Channel sections ----

class ReceiverChannelBlocks : public ReceiverBlocks {
protected:
    ReceiverChannelBlocks()
    {
        EXPECT_RC(0, ECI_createChannel("CHANNEL", &channel));
        asked = syncCall("PROG");
        asked.record.channel = channel;
    }
    ~ReceiverChannelBlocks() override { EXPECT_RC(0, ECI_deleteChannel(&channel)); }

    RunningCall<int> startCall()
    {
        return support::callInThread(
            [this] { return QPX_ECI_Execute_Channel(connection.token, &asked.record); });
    }

    static Bytes answer(int count, const Bytes& records)
    {
        return flow(replyType, 1, 0, "ECI",
                    support::replyBody(support::channelSection("CHANNEL", 819, count, records)));
    }

    ECI_ChannelToken_t channel = nullptr;
};

TEST_F(ReceiverChannelBlocks, OfAContainerThatAReplyDeletesAreGivenBack)
{
    LiveBlocks blocks;
    EXPECT_RC(0, ECI_createContainer(channel, "GOES", ECI_BIT, 0, "data", 4));
    EXPECT_EQ(2, blocks.count());
    auto call = startCall();
    connection.awaitRequest();

    connection.peer.send(answer(1, support::deleted("GOES")));

    EXPECT_RC(0, call.get());
    EXPECT_EQ(0, blocks.count());
}

TEST_F(ReceiverChannelBlocks, OfDataThatDoesNotComeWholeAreGivenBack)
{
    LiveBlocks blocks;
    auto call = startCall();
    connection.awaitRequest();

    Bytes whole = answer(1, support::added("CUT", 1, 0, filled(60'000, 'd')));
    connection.peer.send(Bytes(whole.begin(), whole.end() - 10'000)); // more than is buffered
    connection.peer.close();

    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    expectEnded(3);
    EXPECT_EQ(0, blocks.count());
}

TEST_F(ReceiverChannelBlocks, OfDataWithoutMemoryForItsContainerAreGivenBack)
{
    LiveBlocks blocks;
    auto call = startCall();
    connection.awaitRequest();
    Fault fault = failCall(Call::Malloc, 2, ENOMEM, Threads::Others); // behind the data

    connection.peer.send(answer(1, support::added("NEW", 1, 0, filled(50, 'd'))));

    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    expectEnded(3);
    EXPECT_EQ(1, fault.hits());
    EXPECT_EQ(0, blocks.count());
}

// ---- Replies that come before their requests are sent ----

class EarlyBlocks : public ReceiverBlocks {
protected:
    static constexpr std::size_t area = 5003;

    // The call stands before its sending.
    RunningCall<int> startCall()
    {
        asked = syncCall("PROG", filled(area, 'q'));
        auto call = connection.start(asked);
        EXPECT_TRUE(sender.awaitArrival());
        return call;
    }

    Gate sender;
    Fault beforeSending = beforeCall(Call::MutexLock, 0, [this](const CallInfo& info) {
        if (info.first == asNumber(&connection.token->sendLock.lock)) sender.pass();
    });
};

TEST_F(EarlyBlocks, AreGivenBackByTheSenderThatAppliesThem)
{
    LiveBlocks blocks;
    auto call = startCall();
    connection.peer.send(eciReply(1, text("answered")));
    awaitPing();
    EXPECT_EQ(1, blocks.count());

    sender.open();

    EXPECT_RC(QPX_OK, call.get());
    EXPECT_EQ(text("answered"), Bytes(asked.area.begin(), asked.area.begin() + 8));
    connection.awaitRequest();
    EXPECT_EQ(0, blocks.count());
}

TEST_F(EarlyBlocks, AreGivenBackWithTheConnectionThatTheReplyBreaks)
{
    LiveBlocks blocks;
    auto call = startCall();
    TraceFile trace(1);

    connection.peer.send(ProgramReply().commarea(100, text("too short")).to(1));
    ASSERT_TRUE(trace.awaitText("goes beyond its message"));
    sender.open();

    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    EXPECT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
    EXPECT_EQ(0, blocks.count());
}

// The sender is through by the time that the receiver has read the reply.
TEST_F(EarlyBlocks, AreGivenBackByTheReceiverThatAppliesThem)
{
    LiveBlocks blocks;
    auto call = startCall();
    Gate receiver;
    Fault takingAside = afterCall(
        Call::Malloc, 0,
        [&](const CallInfo& info) {
            if (info.first == area) receiver.pass();
        },
        Threads::Others);
    connection.peer.send(eciReply(1, text("answered")));
    ASSERT_TRUE(receiver.awaitArrival());

    sender.open();
    connection.awaitRequest();
    receiver.open();

    EXPECT_RC(QPX_OK, call.get());
    EXPECT_EQ(text("answered"), Bytes(asked.area.begin(), asked.area.begin() + 8));
    awaitPing();
    EXPECT_EQ(0, blocks.count());
}

// ---- What a reply is read into ----

TEST_F(ReceiverBlocks, OfAReplyAreNotThoseOfTheOneBefore)
{
    EXPECT_RC(QPX_OK, callAnswered(eciReply(1, text("answered"))));

    // Nobody waits for it, so that nothing of it is read, and nothing needs to be there.
    expectIgnored(flow(replyType, 2, 0, "ECI", hex("00")));
}

TEST_F(ReceiverBlocks, OfACommitTakeNoData)
{
    EciParms begin = syncCall("PROG", filled(8, 'q'));
    begin.withExtendMode(ECI_EXTENDED);
    auto first = connection.start(begin);
    connection.awaitRequest();
    connection.peer.send(ProgramReply().luwToken(42).commarea(text("answered")).to(1));
    ASSERT_RC(QPX_OK, first.get());
    EciParms commit = syncCall("PROG", filled(8, 'q'));
    commit.withExtendMode(ECI_COMMIT, 42);
    auto second = connection.start(commit);
    connection.awaitRequest();

    connection.peer.send(ProgramReply().commarea(8, Bytes()).to(1)); // a length, and no data

    EXPECT_RC(QPX_OK, second.get());
    EXPECT_EQ(filled(8, 'q'), commit.commarea());
}

class InboundLength : public ReceiverBlocks {
protected:
    int inboundOf(const Bytes& answer, std::size_t room)
    {
        connection.peer.send(answer);
        awaitPing();
        EciParms reply = getReply(room);
        EXPECT_RC(QPX_OK, collect(reply));
        return reply.record.commarea_inbound_length;
    }
};

TEST_F(InboundLength, IsNoneOfANegativeOne)
{
    int messageId = startAsync();
    EXPECT_EQ(0, inboundOf(ProgramReply().inbound(-5).to(messageId), 8));
}

TEST_F(InboundLength, IsThatOfTheLongestReplyThereIs)
{
    int messageId = startAsync();
    EXPECT_EQ(32'767, inboundOf(eciReply(messageId, filled(32'767, 'r')), 32'767));
}

TEST_F(InboundLength, IsNoLongerThanTheLongestReplyThereIs)
{
    int messageId = startAsync();
    EXPECT_EQ(32'767, inboundOf(eciReply(messageId, filled(40'000, 'r')), 32'767));
}

} // namespace
