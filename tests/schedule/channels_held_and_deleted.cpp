// Channels that several threads want, delete or dump while a call has them.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "schedule/race_fixture.h"

using namespace race;

namespace {

class HeldChannel : public RaceTest {
protected:
    HeldChannel() { EXPECT_RC(0, ECI_createChannel("CHANNEL", &channel)); }
    ~HeldChannel() override
    {
        if (channel != nullptr) ECI_deleteChannel(&channel);
    }

    RunningCall<int> startLock()
    {
        return callInThread([chanTok = channel] { return lockChannel(chanTok); });
    }

    // A thread that has found the channel taken and goes to sleep.
    struct Waiter {
        explicit Waiter(HeldChannel& test)
            : beforeSleep(SchedulePoint::beforeChannelWait), call(test.startLock())
        {
            beforeSleep.awaitArrival();
        }
        Hold beforeSleep;
        RunningCall<int> call;
    };

    // An asynchronous call that has the channel until its reply is collected.
    void sendWithChannel(int extendMode = ECI_NO_EXTEND)
    {
        EciParms parms = asyncCall("PROG");
        parms.record.eci_extend_mode = static_cast<short>(extendMode);
        parms.record.channel = channel;
        EXPECT_RC(0, QPX_ECI_Execute_Channel(token(), &parms.record));
        EXPECT_EQ(1, connection.awaitRequest().messageId());
        EXPECT_EQ(1, channel->isLocked.load());
    }

    int collect()
    {
        EciParms parms = getReply(8);
        return QPX_ECI_Execute_Channel(token(), &parms.record);
    }

    static std::string dump()
    {
        TraceFile trace(0);
        EXPECT_RC(0, QPX_ECI_dumpChannels());
        return trace.text();
    }

    ECI_ChannelToken_t channel = nullptr;
};

// ---- Turns ----

TEST_F(HeldChannel, DoesNotLoseAWaiterWhenItIsUnlockedBeforeTheWaiterSleeps)
{
    ASSERT_EQ(0, lockChannel(channel));
    Waiter waiter(*this);
    EXPECT_EQ(0, unlockChannel(channel));

    waiter.beforeSleep.release();

    EXPECT_EQ(0, waiter.call.get());
    EXPECT_EQ(1, channel->isLocked.load());
    EXPECT_EQ(0, unlockChannel(channel));
}

TEST_F(HeldChannel, MakesAWaiterWaitOnceMoreWhenAThirdThreadIsFaster)
{
    ASSERT_EQ(0, lockChannel(channel));
    Waiter waiter(*this);
    EXPECT_EQ(0, unlockChannel(channel));
    ASSERT_EQ(0, lockChannel(channel)); // the third's; the event is armed again

    waiter.beforeSleep.release();

    EXPECT_FALSE(waiter.call.hasEnded());
    EXPECT_EQ(1, channel->waiters.load());
    EXPECT_EQ(0, unlockChannel(channel));
    EXPECT_EQ(0, waiter.call.get());
    EXPECT_EQ(1, channel->isLocked.load());
    EXPECT_EQ(0, channel->waiters.load());
    EXPECT_EQ(0, unlockChannel(channel));
}

TEST_F(HeldChannel, MakesAWaiterWaitOnceMoreThatIsWokenAndTooSlow)
{
    ASSERT_EQ(0, lockChannel(channel));
    Waiter waiter(*this);
    Hold woken(SchedulePoint::channelWaitEnded);
    waiter.beforeSleep.release();
    EXPECT_EQ(0, unlockChannel(channel));
    woken.awaitArrival();
    ASSERT_EQ(0, lockChannel(channel)); // the third's

    woken.release();

    channelAwaited.await(2);
    EXPECT_FALSE(waiter.call.hasEnded());
    EXPECT_EQ(0, unlockChannel(channel));
    EXPECT_EQ(0, waiter.call.get());
    EXPECT_EQ(1, channel->isLocked.load());
    EXPECT_EQ(0, unlockChannel(channel));
}

TEST_F(HeldChannel, IsGivenToOneOfTwoWaitersAtATime)
{
    ASSERT_EQ(0, lockChannel(channel));
    Waiter first(*this);
    Waiter second(*this);
    EXPECT_EQ(0, unlockChannel(channel));
    second.beforeSleep.release();
    EXPECT_EQ(0, second.call.get());
    int waits = channelAwaited.times();

    first.beforeSleep.release();

    EXPECT_EQ(waits, channelAwaited.times()); // it sleeps on the armed event
    EXPECT_FALSE(first.call.hasEnded());
    EXPECT_EQ(0, unlockChannel(channel));
    EXPECT_EQ(0, first.call.get());
    EXPECT_EQ(0, unlockChannel(channel));
}

// ---- Deleting ----

TEST_F(HeldChannel, RefusesThoseWhoWaitForItWhenItIsDeleted)
{
    ASSERT_EQ(0, lockChannel(channel));
    Waiter deleter(*this); // takes the turn of the deletion below: it is first
    Waiter loser(*this);
    EXPECT_EQ(2, channel->waiters.load());
    EXPECT_EQ(0, unlockChannel(channel));
    ECI_Channel_t* record = channel;
    Hold marked(SchedulePoint::lockReleased, &record->serLock, 2);
    auto deleting = callInThread([this] { return ECI_deleteChannel(&channel); });
    marked.awaitArrival(); // it has taken its turn, marked the channel, and given it up
    EXPECT_EQ(1, record->deleted);

    deleter.beforeSleep.release();
    loser.beforeSleep.release();

    EXPECT_EQ(ECI_ERR_INVALID_CHANNEL, deleter.call.get());
    EXPECT_EQ(ECI_ERR_INVALID_CHANNEL, loser.call.get());
    marked.release();
    EXPECT_RC(0, deleting.get());
    EXPECT_TRUE(channel == nullptr);
}

TEST_F(HeldChannel, IsNotFreedBeforeThoseWhoWaitForItHaveLeft)
{
    ASSERT_EQ(0, lockChannel(channel));
    Waiter waiter(*this);
    EXPECT_EQ(0, unlockChannel(channel));
    ECI_Channel_t* record = channel;
    Hold looking(SchedulePoint::beforeWaitersWait, record);
    auto deleting = callInThread([this] { return ECI_deleteChannel(&channel); });
    looking.awaitArrival();

    EXPECT_EQ(1, record->waiters.load());
    EXPECT_EQ(1, record->deleted);
    EXPECT_TRUE(channel != nullptr);
    looking.release();
    EXPECT_FALSE(deleting.hasEnded());
    waiter.beforeSleep.release();
    EXPECT_EQ(ECI_ERR_INVALID_CHANNEL, waiter.call.get());
    EXPECT_RC(0, deleting.get());
    EXPECT_TRUE(channel == nullptr);
}

TEST_F(HeldChannel, IsDeletedByOneOfTwo)
{
    ASSERT_EQ(0, lockChannel(channel));
    ECI_ChannelToken_t same = channel;
    Hold firstWaits(SchedulePoint::beforeChannelWait);
    auto first = callInThread([this] { return ECI_deleteChannel(&channel); });
    firstWaits.awaitArrival();
    Hold secondWaits(SchedulePoint::beforeChannelWait);
    auto second = callInThread([&same] { return ECI_deleteChannel(&same); });
    secondWaits.awaitArrival();
    EXPECT_EQ(0, unlockChannel(channel));
    Hold marked(SchedulePoint::lockReleased, &channel->serLock, 1);
    firstWaits.release();
    marked.awaitArrival(); // the first has had its turn and marked the channel

    secondWaits.release();
    marked.release();

    EXPECT_RC(ECI_ERR_INVALID_CHANNEL, second.get());
    EXPECT_RC(0, first.get());
    EXPECT_TRUE(channel == nullptr);
    EXPECT_TRUE(support::contains(dump(), "The channel list is EMPTY\n"));
}

TEST_F(HeldChannel, IsDeletedOnlyOnceTheCallThatHasItIsCollected)
{
    sendWithChannel();
    Hold waits(SchedulePoint::beforeChannelWait);
    auto deleting = callInThread([this] { return ECI_deleteChannel(&channel); });
    waits.awaitArrival();
    waits.release();
    deliver(channelReply(1, "answered"));
    EXPECT_FALSE(deleting.hasEnded());

    EXPECT_RC(0, collect());

    EXPECT_RC(0, deleting.get());
    EXPECT_TRUE(channel == nullptr);
    expectClosable();
}

// ---- A call that waits for the channel of another ----

// Held before it sleeps; an asynchronous request of the same connection has the channel.
class CallWithoutChannel : public HeldChannel {
protected:
    CallWithoutChannel()
    {
        sendWithChannel();
        parms.record.channel = channel;
        beforeSleep = std::make_unique<Hold>(SchedulePoint::beforeChannelWait);
        call = std::make_unique<RunningCall<int>>(callInThread(
            [this, gwTok = token()] { return QPX_ECI_Execute_Channel(gwTok, &parms.record); }));
        beforeSleep->awaitArrival();
    }

    void expectAnswered()
    {
        EXPECT_EQ(1, connection.awaitRequest().messageId());
        deliver(channelReply(1, "answered"));
        EXPECT_RC(0, call->get());
        EXPECT_EQ(0, channel->isLocked.load());
    }

    EciParms parms = syncCall("PROG");
    std::unique_ptr<Hold> beforeSleep;
    std::unique_ptr<RunningCall<int>> call;
};

TEST_F(CallWithoutChannel, GoesOnWhenTheOtherIsCollectedBeforeItSleeps)
{
    deliver(channelReply(1, "answered"));
    EXPECT_RC(0, collect());

    beforeSleep->release();

    expectAnswered();
    expectClosable();
}

TEST_F(CallWithoutChannel, LearnsOfTheLossOnceItHasTheChannel)
{
    lose();
    EXPECT_RC(QPX_ERR_LOSTGWCON, collect());

    beforeSleep->release();

    EXPECT_RC(QPX_ERR_LOSTGWCON, call->get());
    EXPECT_EQ(0, channel->isLocked.load());
    expectClosable();
}

TEST_F(CallWithoutChannel, LearnsOfTheGatewaysCloseOnceItHasTheChannel)
{
    closeByGateway();
    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, collect());

    beforeSleep->release();

    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, call->get());
    EXPECT_EQ(0, channel->isLocked.load());
    expectClosable();
}

TEST_F(CallWithoutChannel, IsWaitedForByAClose)
{
    auto closing = startClose(Close::InOrder, &connection.token);
    workAwaited.await(1);
    deliver(channelReply(1, "answered"));
    EXPECT_RC(0, collect());

    beforeSleep->release();

    expectAnswered();
    connection.answerClose();
    EXPECT_RC(0, closing.get());
    expectClosed();
}

TEST_F(CallWithoutChannel, IsRefusedWhenTheChannelIsDeletedFirst)
{
    deliver(channelReply(1, "answered"));
    EXPECT_RC(0, collect());
    Hold marked(SchedulePoint::lockReleased, &channel->serLock, 2);
    auto deleting = callInThread([this] { return ECI_deleteChannel(&channel); });
    marked.awaitArrival();

    beforeSleep->release();

    EXPECT_RC(ECI_ERR_INVALID_CHANNEL, call->get());
    marked.release();
    EXPECT_RC(0, deleting.get());
    expectClosable();
}

TEST_F(CallWithoutChannel, GetsItFromAPurgeThatWaitsForTheCall)
{
    auto closing = startClose(Close::Purge, &connection.token);
    connection.answerClose();
    awaitSweep();

    beforeSleep->release();

    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, call->get());
    EXPECT_RC(0, closing.get());
    EXPECT_EQ(0, channel->isLocked.load());
    expectClosed();
}

TEST_F(CallWithoutChannel, GetsItFromACloseOfAllThatWaitsForTheCall)
{
    beforeSleep->release();
    auto closing = startClose(Close::All, &connection.token);
    connection.answerClose();

    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, call->get());
    EXPECT_RC(0, closing.get());
    EXPECT_EQ(0, channel->isLocked.load());
    expectClosed();
}

// The call gives the channel back itself, when it finds that it cannot be sent.
TEST_F(HeldChannel, IsNotGivenBackByAPurgeForACallThatIsStillBeingMade)
{
    EciParms parms = asyncCall("PROG");
    parms.record.channel = channel;
    Hold armed(SchedulePoint::requestArmed);
    auto call = callInThread([&] { return QPX_ECI_Execute_Channel(token(), &parms.record); });
    armed.awaitArrival();
    TraceFile events(2);
    auto closing = startClose(Close::Purge, &connection.token);
    connection.answerClose();
    ASSERT_TRUE(events.awaitText("quiesceConnection() Waiting for 1 API calls to complete"));
    passTable();
    EXPECT_EQ(1, channel->isLocked.load());

    armed.release();

    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, call.get());
    EXPECT_RC(0, closing.get());
    EXPECT_EQ(0, channel->isLocked.load());
    expectClosed();
}

// ---- Unlocking under the table ----

TEST_F(HeldChannel, IsUnlockedUnderTheTableWhileAnotherThreadWaitsForIt)
{
    sendWithChannel();
    Waiter waiter(*this);
    deliver(channelReply(1, "answered"));
    // The collector has given up the channel's lock and still has the table.
    Hold unlocked(SchedulePoint::lockReleased, &channel->serLock);
    auto collecting = callInThread([this] { return collect(); });
    unlocked.awaitArrival();
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(&token()->tableLock.lock));

    waiter.beforeSleep.release();

    EXPECT_EQ(0, waiter.call.get()); // it needs nothing of the table
    unlocked.release();
    EXPECT_RC(0, collecting.get());
    EXPECT_EQ(1, channel->isLocked.load());
    EXPECT_EQ(0, unlockChannel(channel));
    expectClosable();
}

TEST_F(HeldChannel, IsUnlockedByAPurgeUnderTheTableWhileAnotherThreadWaitsForIt)
{
    sendWithChannel();
    Waiter waiter(*this);
    Hold unlocked(SchedulePoint::lockReleased, &channel->serLock);
    auto purging = startClose(Close::Purge, &connection.token);
    connection.answerClose();
    unlocked.awaitArrival();
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(&token()->tableLock.lock));

    waiter.beforeSleep.release();

    EXPECT_EQ(0, waiter.call.get());
    unlocked.release();
    EXPECT_RC(0, purging.get());
    EXPECT_EQ(1, channel->isLocked.load());
    EXPECT_EQ(0, unlockChannel(channel));
    expectClosed();
}

// The slot is kept for the unit of work, and its channel is nobody's any more.
TEST_F(HeldChannel, IsNotTouchedByACloseOnceItHasBeenCollectedAndDeleted)
{
    sendWithChannel(ECI_EXTENDED);
    deliver(flow(replyType, 1, 0, "ECI",
                 be32(1) + be32(77) + be32(0) + be32(0) + text("    ") + be32(0) + hex("00 00")));
    EXPECT_RC(0, collect());
    EXPECT_EQ(SLOT_LUW_IDLE, slot(1).state);
    EXPECT_EQ(0, slot(1).channelHeld);
    ASSERT_EQ(0, lockChannel(channel)); // by now another call's
    TraceFile entries(3);

    auto purging = startClose(Close::Purge, &connection.token);
    connection.answerClose();
    EXPECT_RC(0, purging.get());

    EXPECT_FALSE(entries.wroteText("unlockChannel("));
    EXPECT_EQ(1, channel->isLocked.load());
    EXPECT_EQ(0, unlockChannel(channel));
    EXPECT_RC(0, ECI_deleteChannel(&channel));
    expectClosed();
}

// ---- The record changes while the call is under way ----

TEST_F(HeldChannel, IsUnlockedByItsCallWhateverTheRecordSaysByThen)
{
    ECI_ChannelToken_t other = nullptr;
    EXPECT_RC(0, ECI_createChannel("OTHER", &other));
    ASSERT_EQ(0, lockChannel(other));
    EciParms parms = syncCall("PROG");
    parms.record.channel = channel;
    Hold asleep(SchedulePoint::beforeReplyWait);
    auto call = callInThread([&] { return QPX_ECI_Execute_Channel(token(), &parms.record); });
    connection.awaitRequest();
    asleep.awaitArrival();
    parms.record.eci_call_type = ECI_ASYNC;
    parms.record.eci_extend_mode = ECI_COMMIT;
    parms.record.channel = other;
    deliver(channelReply(1, "answered"));

    asleep.release();

    EXPECT_RC(0, call.get());
    EXPECT_EQ(0, channel->isLocked.load());
    EXPECT_EQ(1, other->isLocked.load());
    EXPECT_EQ(1, channel->numContainers.load());
    EXPECT_EQ(0, unlockChannel(other));
    EXPECT_RC(0, ECI_deleteChannel(&other));
    expectClosable();
}

TEST_F(HeldChannel, IsThatOfItsCallWhateverTheRecordSaysWhenItHasBeenWaitedFor)
{
    ECI_ChannelToken_t other = nullptr;
    EXPECT_RC(0, ECI_createChannel("OTHER", &other));
    ASSERT_EQ(0, lockChannel(channel));
    EciParms parms = syncCall("PROG");
    parms.record.channel = channel;
    Hold waiting(SchedulePoint::beforeChannelWait);
    auto call = callInThread([&] { return QPX_ECI_Execute_Channel(token(), &parms.record); });
    waiting.awaitArrival();
    parms.record.eci_call_type = ECI_ASYNC;
    parms.record.eci_extend_mode = ECI_COMMIT;
    parms.record.channel = other;
    waiting.release();
    EXPECT_EQ(0, unlockChannel(channel));
    EXPECT_EQ(1, connection.awaitRequest().messageId());
    EXPECT_EQ(1, channel->isLocked.load());
    deliver(channelReply(1, "answered"));

    EXPECT_RC(0, call.get());
    EXPECT_EQ(0, channel->isLocked.load());
    EXPECT_EQ(1, channel->numContainers.load());
    EXPECT_EQ(CCSID_UNKNOWN, other->ccsid.load());
    EXPECT_RC(0, ECI_deleteChannel(&other));
    expectClosable();
}

TEST_F(HeldChannel, StaysWithAnAsynchronousCallWhateverTheRecordSaysByThen)
{
    EciParms parms = asyncCall("PROG");
    parms.record.channel = channel;
    Hold written(SchedulePoint::requestWritten);
    auto call = callInThread([&] { return QPX_ECI_Execute_Channel(token(), &parms.record); });
    connection.awaitRequest();
    written.awaitArrival();
    parms.record.eci_call_type = ECI_SYNC;

    written.release();

    EXPECT_RC(0, call.get());
    EXPECT_EQ(1, channel->isLocked.load());
    deliver(channelReply(1, "answered"));
    EXPECT_RC(0, collect());
    EXPECT_EQ(0, channel->isLocked.load());
    expectClosable();
}

// The reply of an asynchronous call says "asynchronous" in the record that collects it.
TEST_F(HeldChannel, IsUnlockedOnceByACollectorWhoseRecordTurnsIntoTheRequests)
{
    sendWithChannel();
    deliver(channelReply(1, "answered"));
    TraceFile entries(3);
    EciParms parms = getReply(8);

    EXPECT_RC(0, QPX_ECI_Execute_Channel(token(), &parms.record));

    EXPECT_EQ(ECI_ASYNC, int(parms.record.eci_call_type));
    EXPECT_EQ(channel, ECI_ChannelToken_t(parms.record.channel));
    EXPECT_EQ(1, entries.timesWroteText("unlockChannel(chanTok="));
    EXPECT_EQ(0, channel->isLocked.load());
}

// ---- Dumps ----

TEST_F(HeldChannel, IsDumpedBetweenTwoChangesOfTheReceiver)
{
    sendWithChannel();
    Hold linked(SchedulePoint::containerLinked, channel);
    connection.peer.send(flow(replyType, 1, 0, "ECI",
                              be32(1) + be32(0) + be32(0) + be32(0) + text("    ") + be32(0) +
                                  hex("00") + hex("FF") + text("CHANNEL         ") + be32(819) +
                                  be32(2) + text("FIRST           ") + hex("01 0000 01") + be32(0) +
                                  be32(3) + text("one") + text("SECOND          ") +
                                  hex("01 0000 01") + be32(0) + be32(3) + text("two")));
    linked.awaitArrival();

    std::string dumped = dump();

    EXPECT_TRUE(support::contains(dumped, "numContainers(1)"));
    EXPECT_TRUE(support::contains(dumped, "name(FIRST           )"));
    EXPECT_FALSE(support::contains(dumped, "name(SECOND          )"));
    linked.release();
    delivered.await(1);
    EXPECT_RC(0, collect());
    EXPECT_TRUE(support::contains(dump(), "numContainers(2)"));
    expectClosable();
}

TEST_F(HeldChannel, IsNotChangedWhileItIsBeingDumped)
{
    char data[] = "data";
    EXPECT_RC(0, ECI_createContainer(channel, "FIRST", ECI_BIT, 0, data, sizeof data));
    EXPECT_RC(0, ECI_createContainer(channel, "SECOND", ECI_BIT, 0, data, sizeof data));
    sendWithChannel();
    TraceFile lines(3);
    Hold dumping(SchedulePoint::channelDumped, channel);
    auto call = callInThread([] { return QPX_ECI_dumpChannels(); });
    dumping.awaitArrival();
    Hold changing(SchedulePoint::beforeListChange);
    connection.peer.send(flow(replyType, 1, 0, "ECI",
                              be32(1) + be32(0) + be32(0) + be32(0) + text("    ") + be32(0) +
                                  hex("00") + hex("FF") + text("CHANNEL         ") + be32(819) +
                                  be32(1) + support::padded("FIRST", 16) + hex("02 0000 01") +
                                  be32(0) + be32(0)));
    // The receiver wants to change the channel next, for which it needs what the dump holds.
    auto* guard = static_cast<pthread_mutex_t*>(const_cast<void*>(changing.heldAbout()));
    ASSERT_TRUE(lines.wroteText("clapi_socketcomms.readChannel("));
    EXPECT_FALSE(support::isFree(*guard));
    changing.release();
    EXPECT_EQ(0, delivered.times());
    EXPECT_EQ(2, channel->numContainers.load());

    dumping.release();

    EXPECT_RC(0, call.get());
    EXPECT_TRUE(lines.wroteText("Container list entry -0001/0002-"));
    EXPECT_TRUE(lines.wroteText("Container list entry -0002/0002-"));
    delivered.await(1);
    EXPECT_RC(0, collect());
    EXPECT_EQ(1, channel->numContainers.load());
    expectClosable();
}

// ---- The record of a call in the trace ----

class RecordInTrace : public RaceTest {
protected:
    RecordInTrace()
    {
        refused.withVersion(ECI_VERSION_3).withFixedUser("USER", "PASSWORD");
        refused.record.eci_extend_mode = 99;
    }

    int call(QPX_ECI_PARMS* record) { return QPX_ECI_Execute(token(), record); }

    EciParms refused = syncCall("PROG");
};

TEST_F(RecordInTrace, IsNotWrittenToForTheTrace)
{
    long pageSize = sysconf(_SC_PAGESIZE);
    void* page = mmap(nullptr, static_cast<std::size_t>(pageSize), PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, page);
    std::memcpy(page, &refused.record, sizeof refused.record);
    ASSERT_EQ(0, mprotect(page, static_cast<std::size_t>(pageSize), PROT_READ));
    TraceFile dumps(4);

    EXPECT_RC(ECI_ERR_INVALID_EXTEND_MODE, call(static_cast<QPX_ECI_PARMS*>(page)));

    EXPECT_EQ(1, dumps.timesWrote(1504));
    EXPECT_FALSE(dumps.wroteText("PASSWORD"));
    munmap(page, static_cast<std::size_t>(pageSize));
}

// The lines of the thread that makes the call; the receiver may still write its own.
int linesOfTheCall(const TraceFile& trace)
{
    auto records = trace.records();
    auto isOfTheCall = [](const support::TraceRecord& record) {
        return record.message.rfind("API.", 0) == 0;
    };
    auto first = std::find_if(records.begin(), records.end(), isOfTheCall);
    if (first == records.end()) return 0;
    std::string thread = first->thread;
    return static_cast<int>(
        std::count_if(records.begin(), records.end(),
                      [&](const support::TraceRecord& record) { return record.thread == thread; }));
}

// At every line of the trace another thread may read the record.
TEST_F(RecordInTrace, KeepsItsPasswordAtEveryLine)
{
    TraceFile dumps(4);
    EXPECT_RC(ECI_ERR_INVALID_EXTEND_MODE, call(&refused.record));
    int count = linesOfTheCall(dumps);
    ASSERT_LE(6, count);

    for (int line = 0; line < count; ++line) {
        Hold written(SchedulePoint::lockReleased, &traceLock, line);
        auto running = callInThread([this] { return call(&refused.record); });
        written.awaitArrival();
        EXPECT_EQ(0, std::memcmp("PASSWORD        ", refused.record.eci_password, 16));
        written.release();
        EXPECT_RC(ECI_ERR_INVALID_EXTEND_MODE, running.get());
    }
    EXPECT_FALSE(dumps.wroteText("PASSWORD"));
}

} // namespace
