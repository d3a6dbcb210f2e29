// The receiver is held while it reads a reply or delivers a failure, or while it ends the
// connection; something else happens from beginning to end, or as far as it comes, and the receiver
// goes on.
#include <memory>
#include <string>
#include <vector>

#include "schedule/race_fixture.h"

using namespace race;

namespace {

// ---- While it reads a reply ----

enum class Step {
    Found,
    Read,
    Failure // instead of a reply
};

enum class Event {
    AnswerOnceMore,
    Loss,
    GatewayCloses,
    Close,
    LimitedPurge,
    Purge,
    CloseAll,
    ChannelIsDeleted,
    AnotherCallIsMade,
    Collects
};

struct Order {
    Kind kind;
    Step step;
    Event event;
};

std::string nameOf(const Order& order)
{
    static const char* const steps[] = {"Found", "Read", "Failure"};
    static const char* const events[] = {
        "AnswerOnceMore",    "Loss",    "GatewayCloses", "Close",
        "LimitedPurge",      "Purge",   "CloseAll",      "ChannelIsDeleted",
        "AnotherCallIsMade", "Collects"};
    return std::string(race::nameOf(order.kind)) + "_" + steps[static_cast<int>(order.step)] + "_" +
           events[static_cast<int>(order.event)];
}

race::Close closeOf(Event event)
{
    if (event == Event::Close) return race::Close::InOrder;
    if (event == Event::LimitedPurge) return race::Close::Limited;
    return event == Event::Purge ? race::Close::Purge : race::Close::All;
}

std::vector<Order> allOrders()
{
    std::vector<Order> orders;
    for (int kind = 0; kind <= static_cast<int>(Kind::Systems); ++kind)
        for (int step = 0; step <= static_cast<int>(Step::Failure); ++step)
            for (int event = 0; event <= static_cast<int>(Event::Collects); ++event) {
                Order order{static_cast<Kind>(kind), static_cast<Step>(step),
                            static_cast<Event>(event)};
                if (order.event == Event::ChannelIsDeleted && !hasChannel(order.kind)) continue;
                if (order.event == Event::Collects && !isAsync(order.kind)) continue;
                orders.push_back(order);
            }
    return orders;
}

SchedulePoint pointOf(Step step)
{
    if (step == Step::Found) return SchedulePoint::replyFound;
    return step == Step::Read ? SchedulePoint::replyRead : SchedulePoint::failureFound;
}

class ReplyInEveryOrder : public RaceTest, public ::testing::WithParamInterface<Order> {
protected:
    Order order = GetParam();
    Call work{order.kind};
    EciParms another = syncCall("ANOTHER", filled(8, 'q'));
    EciParms collecting = getReplyWait(8);
    std::unique_ptr<RunningCall<int>> closing;
    std::unique_ptr<RunningCall<int>> deleting;
    std::unique_ptr<RunningCall<int>> anotherCall;

    bool fails() const { return order.step == Step::Failure; }
    int result() const { return fails() ? 61448 : 0; }
    Bytes outcome() const { return fails() ? errorFlow(1, 61448) : work.answer(1); }

    bool purges() const { return order.event == Event::Purge || order.event == Event::CloseAll; }

    void happen()
    {
        switch (order.event) {
        case Event::AnswerOnceMore: connection.peer.send(work.answer(1)); break;
        case Event::Loss: connection.peer.shutdownWriting(); break;
        case Event::GatewayCloses: connection.peer.send(closeFlow()); break;
        case Event::Close:
        case Event::LimitedPurge:
        case Event::Purge:
        case Event::CloseAll: beginClose(); break;
        case Event::ChannelIsDeleted:
            deleting = std::make_unique<RunningCall<int>>(
                callInThread([this] { return ECI_deleteChannel(&work.channel); }));
            channelAwaited.await(1);
            break;
        case Event::AnotherCallIsMade:
            anotherCall = std::make_unique<RunningCall<int>>(start(another));
            EXPECT_EQ(2, connection.awaitRequest().messageId());
            connection.peer.send(ProgramReply().commarea(text("another.")).to(2));
            break;
        case Event::Collects:
            anotherCall = std::make_unique<RunningCall<int>>(start(collecting));
            queueAwaited.await(1);
            break;
        }
    }

    void beginClose()
    {
        closing = std::make_unique<RunningCall<int>>(
            startClose(closeOf(order.event), &connection.token));
        workAwaited.await(1);
        if (!purges()) return;
        EXPECT_EQ(closeFlow(), connection.peer.read(33));
        receiverAwaited.await(1);
        connection.peer.send(closeFlow());
    }

    void expectReply(RunningCall<int>* call)
    {
        if (call != nullptr) {
            EXPECT_RC(result(), call->get());
        }
        if (order.event == Event::Collects) {
            EXPECT_RC(result(), anotherCall->get());
            EXPECT_EQ(1, int(collecting.record.eci_message_qualifier));
        } else if (isAsync(order.kind) && !purges()) {
            delivered.await(1);
            EciParms parms = getReply(8);
            EXPECT_RC(result(), execute(parms));
            EXPECT_EQ(1, int(parms.record.eci_message_qualifier));
            if (!hasChannel(order.kind) && !fails()) {
                EXPECT_EQ(text("answered"), parms.commarea());
            }
        }
        if (fails() || isAsync(order.kind)) return;
        if (order.event != Event::ChannelIsDeleted) work.expectAnswered();
    }

    void finish()
    {
        if (deleting) {
            EXPECT_RC(0, deleting->get());
        }
        if (order.event == Event::AnotherCallIsMade) {
            EXPECT_RC(0, anotherCall->get());
            EXPECT_EQ(text("another."), another.commarea());
        }
        if (order.event == Event::AnswerOnceMore) awaitReceiver();
        if (order.event == Event::Loss || order.event == Event::GatewayCloses) awaitSweep();
        if (!closing) {
            expectClosable();
            return;
        }
        if (!purges()) connection.answerClose();
        EXPECT_RC(0, closing->get());
        expectClosed();
    }
};

TEST_P(ReplyInEveryOrder, ArrivesWhateverComesBehindIt)
{
    Hold step(pointOf(order.step));
    auto call = std::make_unique<RunningCall<int>>(start(work));
    connection.awaitRequest();
    if (isAsync(order.kind)) {
        EXPECT_RC(0, call->get());
        call.reset();
    }
    connection.peer.send(outcome());
    step.awaitArrival();
    happen();
    if (call) {
        EXPECT_FALSE(call->hasEnded());
    }
    if (closing) {
        EXPECT_FALSE(closing->hasEnded());
    }

    step.release();

    expectReply(call.get());
    finish();
    if (work.channel != nullptr) {
        EXPECT_EQ(0, work.channel->isLocked.load());
    }
}

INSTANTIATE_TEST_SUITE_P(Every, ReplyInEveryOrder, ::testing::ValuesIn(allOrders()),
                         [](const auto& about) { return nameOf(about.param); });

// ---- While it ends the connection ----

enum class EndStep { Ending, BeforeSocketClose, Last };

enum class Visitor {
    Sync,
    Extended,
    Async,
    SyncChannel,
    AsyncChannel,
    Password,
    Systems,
    Collector,
    Close,
    LimitedPurge,
    Purge,
    CloseAll
};

struct EndOrder {
    bool lost; // or closed by the Gateway
    EndStep step;
    Visitor visitor;
};

std::string nameOf(const EndOrder& order)
{
    static const char* const steps[] = {"Ending", "BeforeSocketClose", "Last"};
    static const char* const visitors[] = {"Sync",         "Extended",     "Async",   "SyncChannel",
                                           "AsyncChannel", "Password",     "Systems", "Collector",
                                           "Close",        "LimitedPurge", "Purge",   "CloseAll"};
    return std::string(order.lost ? "Lost" : "ClosedByGateway") + "_" +
           steps[static_cast<int>(order.step)] + "_" + visitors[static_cast<int>(order.visitor)];
}

SchedulePoint pointOf(EndStep step)
{
    if (step == EndStep::Ending) return SchedulePoint::connectionEnding;
    return step == EndStep::Last ? SchedulePoint::receiverEnding : SchedulePoint::beforeSocketClose;
}

std::vector<EndOrder> allEndOrders()
{
    std::vector<EndOrder> orders;
    for (bool lost : {true, false})
        for (int step = 0; step <= static_cast<int>(EndStep::Last); ++step)
            for (int visitor = 0; visitor <= static_cast<int>(Visitor::CloseAll); ++visitor)
                orders.push_back(
                    EndOrder{lost, static_cast<EndStep>(step), static_cast<Visitor>(visitor)});
    return orders;
}

class EndInEveryOrder : public RaceTest, public ::testing::WithParamInterface<EndOrder> {
protected:
    EndOrder order = GetParam();

    bool isCall() const { return order.visitor <= Visitor::Systems; }
    Kind kind() const { return static_cast<Kind>(order.visitor); }

    // The state is still "connected", so that what comes now takes the connection for one.
    bool looksConnected() const { return order.step == EndStep::Ending; }

    // What a request gets that the end of the connection finds waiting.
    int endOfWaiting() const { return order.lost ? QPX_ERR_LOSTGWCON : QPX_ERR_GATEWAY_CLOSED; }

    int refusal(bool isProgramCall) const
    {
        return order.lost || !isProgramCall ? QPX_ERR_LOSTGWCON : QPX_ERR_GATEWAY_CLOSED;
    }

    void expectCall(Hold& step)
    {
        Call work(kind());
        auto call = start(work);
        if (!looksConnected()) {
            EXPECT_RC(refusal(!isNoProgramCall(kind())), call.get());
            step.release();
        } else if (isAsync(kind())) {
            EXPECT_RC(0, call.get());
            step.release();
            awaitSweep();
            EciParms collecting = getReply(8);
            EXPECT_RC(endOfWaiting(), execute(collecting));
            EXPECT_EQ(1, int(collecting.record.eci_message_qualifier));
        } else {
            replyAwaited.await(1);
            step.release();
            EXPECT_RC(endOfWaiting(), call.get());
        }
        if (work.channel != nullptr) {
            EXPECT_EQ(0, work.channel->isLocked.load());
        }
    }

    void expectCollector(Hold& step)
    {
        EciParms collecting = getReplyWait(8);
        auto call = start(collecting);
        if (looksConnected()) {
            queueAwaited.await(1);
            step.release();
        }
        EXPECT_RC(refusal(true), call.get());
        step.release();
    }

    race::Close close() const
    {
        return static_cast<race::Close>(static_cast<int>(order.visitor) -
                                        static_cast<int>(Visitor::Close));
    }

    void expectClose(Hold& step)
    {
        auto closing = startClose(close(), &connection.token);
        receiverAwaited.await(1);
        EXPECT_FALSE(closing.hasEnded());
        step.release();
        EXPECT_RC(0, closing.get());
        if (looksConnected()) {
            EXPECT_EQ(closeFlow(), connection.peer.read(33));
        }
        EXPECT_TRUE(connection.peer.awaitEof());
        expectClosed();
    }
};

TEST_P(EndInEveryOrder, IsSeenByWhoeverComes)
{
    Hold step(pointOf(order.step));
    if (order.lost)
        connection.peer.shutdownWriting();
    else
        connection.peer.send(closeFlow());
    step.awaitArrival();

    if (isCall())
        expectCall(step);
    else if (order.visitor == Visitor::Collector)
        expectCollector(step);
    else
        expectClose(step);

    if (connection.token != nullptr) expectClosable();
}

INSTANTIATE_TEST_SUITE_P(Every, EndInEveryOrder, ::testing::ValuesIn(allEndOrders()),
                         [](const auto& about) { return nameOf(about.param); });

} // namespace
