// A call of every kind is held at every step, something else happens from beginning to end, and
// the call goes on.
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "schedule/race_fixture.h"

using namespace race;

namespace {

enum class Step { Registered, Armed, BeforeWrite, Written, Asleep };

enum class Event {
    Answer,
    Loss,
    GatewayCloses,
    Close,
    LimitedPurge,
    Purge,
    CloseAll,
    ChannelIsDeleted,
    AnotherCollects
};

SchedulePoint pointOf(Step step)
{
    switch (step) {
    case Step::Registered: return SchedulePoint::callRegistered;
    case Step::Armed: return SchedulePoint::requestArmed;
    case Step::BeforeWrite: return SchedulePoint::beforeRequestWrite;
    case Step::Written: return SchedulePoint::requestWritten;
    case Step::Asleep: break;
    }
    return SchedulePoint::beforeReplyWait;
}

struct Order {
    Kind kind;
    Step step;
    Event event;
};

std::string nameOf(const Order& order)
{
    static const char* const steps[] = {"Registered", "Armed", "BeforeWrite", "Written", "Asleep"};
    static const char* const events[] = {
        "Answer", "Loss",     "GatewayCloses",    "Close",          "LimitedPurge",
        "Purge",  "CloseAll", "ChannelIsDeleted", "AnotherCollects"};
    return std::string(race::nameOf(order.kind)) + "_" + steps[static_cast<int>(order.step)] + "_" +
           events[static_cast<int>(order.event)];
}

// The slot takes a reply in these steps, and a request is on the wire in the last two.
bool waits(Step step)
{
    return step >= Step::BeforeWrite;
}
bool isWritten(Step step)
{
    return step >= Step::Written;
}

bool endsTheConnection(Event event)
{
    return event == Event::Loss || event == Event::GatewayCloses || event == Event::Purge ||
           event == Event::CloseAll;
}

bool isClose(Event event)
{
    return event == Event::Close || event == Event::LimitedPurge || event == Event::Purge ||
           event == Event::CloseAll;
}

race::Close closeOf(Event event)
{
    if (event == Event::Close) return race::Close::InOrder;
    if (event == Event::LimitedPurge) return race::Close::Limited;
    return event == Event::Purge ? race::Close::Purge : race::Close::All;
}

bool waitsForWork(const Order& order)
{
    return isClose(order.event) && race::waitsForWork(closeOf(order.event));
}

// A close that begins while a call is at this step makes the call leave. An asynchronous one must
// not add to what the close waits for, which collectors may have been told is over.
bool isRefusedByAClose(const Order& order)
{
    return order.step == Step::Registered || (order.step == Step::Armed && isAsync(order.kind));
}

// What the reply changes is still to be read for the request.
bool keepsReplyWaiting(const Order& order)
{
    return isAnsweredInPlace(order.kind) && order.step == Step::BeforeWrite;
}

bool isPossible(const Order& order)
{
    if (order.step == Step::Asleep && isAsync(order.kind)) return false;
    if (order.event == Event::ChannelIsDeleted)
        return hasChannel(order.kind) && order.step != Step::Registered;
    if (order.event == Event::AnotherCollects)
        return isAsync(order.kind) && waits(order.step) && !keepsReplyWaiting(order);
    return true;
}

std::vector<Order> allOrders()
{
    std::vector<Order> orders;
    for (int kind = 0; kind <= static_cast<int>(Kind::Systems); ++kind)
        for (int step = 0; step <= static_cast<int>(Step::Asleep); ++step)
            for (int event = 0; event <= static_cast<int>(Event::AnotherCollects); ++event) {
                Order order{static_cast<Kind>(kind), static_cast<Step>(step),
                            static_cast<Event>(event)};
                if (isPossible(order)) orders.push_back(order);
            }
    return orders;
}

// What a request gets that has not come as far as to wait for a reply.
int refusalBeforeWaiting(const Order& order)
{
    if (order.step == Step::Registered && isClose(order.event)) return QPX_ERR_GWTOK_CLOSED;
    if (isNoProgramCall(order.kind) || order.event == Event::Loss) return QPX_ERR_LOSTGWCON;
    return QPX_ERR_GATEWAY_CLOSED;
}

// What the end of the connection delivers to a request that waits.
int endOfWaiting(Event event)
{
    if (event == Event::Loss) return QPX_ERR_LOSTGWCON;
    return event == Event::GatewayCloses ? QPX_ERR_GATEWAY_CLOSED : QPX_ERR_GWTOK_CLOSED;
}

class CallInEveryOrder : public RaceTest, public ::testing::WithParamInterface<Order> {
protected:
    Order order = GetParam();
    Call work{order.kind};
    std::unique_ptr<RunningCall<int>> closing;
    std::unique_ptr<RunningCall<int>> deleting;

    // The event, as far as it comes while the call is held.
    void happen()
    {
        if (isWritten(order.step)) connection.awaitRequest();
        switch (order.event) {
        case Event::Answer: answer(); break;
        case Event::Loss: lose(); break;
        case Event::GatewayCloses: closeByGateway(); break;
        case Event::Close:
        case Event::LimitedPurge: beginClose(); break;
        case Event::Purge:
        case Event::CloseAll:
            beginClose();
            EXPECT_EQ(closeFlow(), connection.peer.read(33));
            closeByGateway();
            break;
        case Event::ChannelIsDeleted:
            deleting = std::make_unique<RunningCall<int>>(
                callInThread([this] { return ECI_deleteChannel(&work.channel); }));
            channelAwaited.await(1);
            break;
        case Event::AnotherCollects:
            answer();
            expectWorkCollected();
            break;
        }
        if (order.step == Step::BeforeWrite && endsTheConnection(order.event))
            sendersAwaited.await(1); // the stream is shut by now, but not the descriptor
    }

    void beginClose()
    {
        closing = std::make_unique<RunningCall<int>>(
            startClose(closeOf(order.event), &connection.token));
        workAwaited.await(1);
    }

    // The answer to the call. A slot that does not wait yet drops it.
    void answer()
    {
        if (keepsReplyWaiting(order)) {
            Counter found(SchedulePoint::replyFound);
            connection.peer.send(work.answer(1));
            found.await(1);
            work.expectUnchanged();
        } else if (waits(order.step)) {
            deliver(work.answer(1));
        } else {
            connection.peer.send(work.answer(1));
            awaitReceiver();
        }
    }

    void expectWorkCollected()
    {
        EciParms parms = getReply(8);
        EXPECT_RC(0, execute(parms));
        EXPECT_EQ(1, int(parms.record.eci_message_qualifier));
        if (!hasChannel(order.kind)) {
            EXPECT_EQ(text("answered"), parms.commarea());
        }
    }

    // The call goes through as if nothing had happened.
    void expectToGoThrough(RunningCall<int>& call)
    {
        bool hasBeenAnswered = waits(order.step) && (order.event == Event::Answer ||
                                                     order.event == Event::AnotherCollects);
        if (!isWritten(order.step)) {
            EXPECT_EQ(1, connection.awaitRequest().messageId());
        }
        if (isAsync(order.kind)) {
            EXPECT_RC(0, call.get());
            EXPECT_EQ(1, int(work.parms.record.eci_message_qualifier));
        }
        if (!hasBeenAnswered) deliver(work.answer(1));
        delivered.await(1);
        if (isAsync(order.kind) && order.event != Event::AnotherCollects) expectWorkCollected();
        if (!isAsync(order.kind)) {
            EXPECT_RC(0, call.get());
        }
        if (order.event != Event::ChannelIsDeleted) work.expectAnswered();
    }

    // The call gets to know that the connection has ended.
    void expectToFail(RunningCall<int>& call)
    {
        if (order.step == Step::BeforeWrite) {
            EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
        } else if (!waits(order.step)) {
            EXPECT_RC(refusalBeforeWaiting(order), call.get());
        } else if (!isAsync(order.kind)) {
            EXPECT_RC(endOfWaiting(order.event), call.get());
        } else {
            EXPECT_RC(0, call.get());
            if (!isClose(order.event)) expectOutcomeCollected(endOfWaiting(order.event));
        }
        if (!isWritten(order.step)) {
            EXPECT_TRUE(connection.peer.awaitEof()); // and nothing has been sent
        }
    }

    void expectOutcomeCollected(int rc)
    {
        EciParms parms = getReply(8);
        EXPECT_RC(rc, execute(parms));
        EXPECT_EQ(1, int(parms.record.eci_message_qualifier));
    }

    // The close of a close that has waited for the call follows.
    void finish()
    {
        if (deleting) {
            EXPECT_RC(0, deleting->get());
        }
        if (closing) {
            if (waitsForWork(order)) connection.answerClose();
            EXPECT_RC(0, closing->get());
            expectClosed();
        } else {
            expectClosable();
        }
        if (work.channel != nullptr) {
            EXPECT_EQ(0, work.channel->isLocked.load());
            EXPECT_RC(0, ECI_deleteChannel(&work.channel));
        }
    }
};

TEST_P(CallInEveryOrder, EndsAsDocumentedAndLeavesNothing)
{
    Hold step(pointOf(order.step));
    auto call = start(work);
    step.awaitArrival();
    happen();
    EXPECT_FALSE(call.hasEnded());
    if (isClose(order.event)) {
        EXPECT_FALSE(closing->hasEnded());
    }

    step.release();

    if (isRefusedByAClose(order) && waitsForWork(order)) {
        EXPECT_RC(QPX_ERR_GWTOK_CLOSED, call.get());
    } else if (endsTheConnection(order.event)) {
        expectToFail(call);
    } else {
        expectToGoThrough(call);
    }
    finish();
}

INSTANTIATE_TEST_SUITE_P(Every, CallInEveryOrder, ::testing::ValuesIn(allOrders()),
                         [](const auto& about) { return nameOf(about.param); });

} // namespace
