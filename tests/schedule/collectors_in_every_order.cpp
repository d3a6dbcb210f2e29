// A call that waits for an asynchronous reply is held before it looks for one, or before it goes
// to sleep; something else happens from beginning to end, and the call goes on.
#include <memory>
#include <string>
#include <vector>

#include "schedule/race_fixture.h"

using namespace race;

namespace {

enum class Wanted {
    AnyOfNone, // nothing is outstanding
    AnyOfOne,
    TheOne
};

enum class Step { Registered, BeforeSleep };

enum class Event {
    Reply,
    AnotherCollects,
    Loss,
    GatewayCloses,
    Close,
    LimitedPurge,
    Purge,
    CloseAll
};

struct Order {
    Wanted wanted;
    Step step;
    Event event;
};

std::string nameOf(const Order& order)
{
    static const char* const wanted[] = {"AnyOfNone", "AnyOfOne", "TheOne"};
    static const char* const steps[] = {"Registered", "BeforeSleep"};
    static const char* const events[] = {"Reply", "AnotherCollects", "Loss",  "GatewayCloses",
                                         "Close", "LimitedPurge",    "Purge", "CloseAll"};
    return std::string(wanted[static_cast<int>(order.wanted)]) + "_" +
           steps[static_cast<int>(order.step)] + "_" + events[static_cast<int>(order.event)];
}

race::Close closeOf(Event event)
{
    if (event == Event::Close) return race::Close::InOrder;
    if (event == Event::LimitedPurge) return race::Close::Limited;
    return event == Event::Purge ? race::Close::Purge : race::Close::All;
}

bool needsARequest(Event event)
{
    return event == Event::Reply || event == Event::AnotherCollects;
}

std::vector<Order> allOrders()
{
    std::vector<Order> orders;
    for (int wanted = 0; wanted <= static_cast<int>(Wanted::TheOne); ++wanted)
        for (int step = 0; step <= static_cast<int>(Step::BeforeSleep); ++step)
            for (int event = 0; event <= static_cast<int>(Event::CloseAll); ++event) {
                Order order{static_cast<Wanted>(wanted), static_cast<Step>(step),
                            static_cast<Event>(event)};
                if (order.wanted == Wanted::AnyOfNone && needsARequest(order.event)) continue;
                orders.push_back(order);
            }
    return orders;
}

class CollectorInEveryOrder : public RaceTest, public ::testing::WithParamInterface<Order> {
protected:
    Order order = GetParam();
    EciParms collecting = order.wanted == Wanted::TheOne ? getSpecificReplyWait(1, 8)
                                                         : getReplyWait(8);
    std::unique_ptr<RunningCall<int>> closing;

    bool isOutstanding() const { return order.wanted != Wanted::AnyOfNone; }

    void happen()
    {
        switch (order.event) {
        case Event::Reply: deliver(1, "answered"); break;
        case Event::AnotherCollects:
            deliver(1, "answered");
            expectCollected(1, "answered");
            break;
        case Event::Loss: lose(); break;
        case Event::GatewayCloses: closeByGateway(); break;
        default: beginClose();
        }
    }

    void beginClose()
    {
        closing = std::make_unique<RunningCall<int>>(
            startClose(closeOf(order.event), &connection.token));
        workAwaited.await(1);
        if (waitsForWork(closeOf(order.event))) return;
        EXPECT_EQ(closeFlow(), connection.peer.read(33));
        closeByGateway();
    }

    // What the collecting call gives, and what it takes until it ends.
    void expectEnd(RunningCall<int>& call)
    {
        switch (order.event) {
        case Event::Reply: expectReply(call); break;
        case Event::AnotherCollects: expectLeftBehind(call); break;
        case Event::Loss: EXPECT_RC(QPX_ERR_LOSTGWCON, call.get()); break;
        case Event::GatewayCloses: EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, call.get()); break;
        case Event::Close:
        case Event::LimitedPurge:
            if (isOutstanding()) {
                deliver(1, "answered"); // it is still waited for
                expectReply(call);
            } else {
                EXPECT_RC(QPX_ERR_GWTOK_CLOSED, call.get());
            }
            break;
        case Event::Purge:
        case Event::CloseAll: EXPECT_RC(QPX_ERR_GWTOK_CLOSED, call.get()); break;
        }
    }

    void expectReply(RunningCall<int>& call)
    {
        EXPECT_RC(0, call.get());
        EXPECT_EQ(text("answered"), collecting.commarea());
        EXPECT_EQ(1, int(collecting.record.eci_message_qualifier));
    }

    // One that waits for any reply goes on waiting; the one that the other waited for cannot come.
    void expectLeftBehind(RunningCall<int>& call)
    {
        if (order.wanted == Wanted::TheOne) {
            EXPECT_RC(ECI_ERR_INVALID_MSG_QUAL, call.get());
            return;
        }
        queueAwaited.await(order.step == Step::BeforeSleep ? 2 : 1);
        int next = send();
        deliver(next, "the next");
        EXPECT_RC(0, call.get());
        EXPECT_EQ(text("the next"), collecting.commarea());
    }
};

TEST_P(CollectorInEveryOrder, EndsAsDocumentedAndLeavesNothing)
{
    if (isOutstanding()) {
        ASSERT_EQ(1, send());
    }
    Hold step(order.step == Step::Registered ? SchedulePoint::callRegistered
                                             : SchedulePoint::beforeQueueWait);
    auto call = start(collecting);
    step.awaitArrival();
    happen();
    EXPECT_FALSE(call.hasEnded());

    step.release();

    expectEnd(call);
    if (!closing) {
        expectClosable();
        return;
    }
    if (waitsForWork(closeOf(order.event))) connection.answerClose();
    EXPECT_RC(0, closing->get());
    expectClosed();
}

INSTANTIATE_TEST_SUITE_P(Every, CollectorInEveryOrder, ::testing::ValuesIn(allOrders()),
                         [](const auto& about) { return nameOf(about.param); });

} // namespace
