// A close of every kind is held at every step; something else happens from beginning to end, or
// as far as it comes, and the close goes on.
#include <memory>
#include <string>
#include <vector>

#include "schedule/race_fixture.h"

using namespace race;

namespace {

enum class Step { BeforeCloseFlow, BeforeCloseWrite, BeforeReceiverWait, Quiesced };

enum class Event {
    Sync,
    Async,
    SyncChannel,
    Password,
    Systems,
    Collector,
    Applid,
    AnotherClose,
    AnotherPurge,
    AnotherCloseAll,
    Loss,
    GatewayCloses
};

struct Order {
    Close close;
    Step step;
    Event event;
};

std::string nameOf(const Order& order)
{
    static const char* const steps[] = {"BeforeCloseFlow", "BeforeCloseWrite", "BeforeReceiverWait",
                                        "Quiesced"};
    static const char* const events[] = {
        "Sync",   "Async",        "SyncChannel",  "Password",        "Systems", "Collector",
        "Applid", "AnotherClose", "AnotherPurge", "AnotherCloseAll", "Loss",    "GatewayCloses"};
    return std::string(race::nameOf(order.close)) + "_" + steps[static_cast<int>(order.step)] +
           "_" + events[static_cast<int>(order.event)];
}

SchedulePoint pointOf(Step step)
{
    switch (step) {
    case Step::BeforeCloseFlow: return SchedulePoint::beforeCloseFlow;
    case Step::BeforeCloseWrite: return SchedulePoint::beforeCloseWrite;
    case Step::BeforeReceiverWait: return SchedulePoint::beforeReceiverWait;
    case Step::Quiesced: break;
    }
    return SchedulePoint::tokenQuiesced;
}

bool endsTheConnection(Event event)
{
    return event == Event::Loss || event == Event::GatewayCloses;
}

std::vector<Order> allOrders()
{
    std::vector<Order> orders;
    for (int close = 0; close <= static_cast<int>(Close::All); ++close)
        for (int step = 0; step <= static_cast<int>(Step::Quiesced); ++step)
            for (int event = 0; event <= static_cast<int>(Event::GatewayCloses); ++event) {
                Order order{static_cast<Close>(close), static_cast<Step>(step),
                            static_cast<Event>(event)};
                // Once quiesced there is no connection left that could end.
                if (order.step == Step::Quiesced && endsTheConnection(order.event)) continue;
                orders.push_back(order);
            }
    return orders;
}

class CloseInEveryOrder : public RaceTest, public ::testing::WithParamInterface<Order> {
protected:
    Order order = GetParam();
    std::unique_ptr<RunningCall<int>> closingAll;

    bool hasWritten() const { return order.step >= Step::BeforeReceiverWait; }

    void expectRefused(Kind kind)
    {
        Call work(kind);
        EXPECT_RC(QPX_ERR_GWTOK_CLOSED, start(work).get());
    }

    void happen()
    {
        switch (order.event) {
        case Event::Sync: expectRefused(Kind::Sync); break;
        case Event::Async: expectRefused(Kind::Async); break;
        case Event::SyncChannel: expectRefused(Kind::SyncChannel); break;
        case Event::Password: expectRefused(Kind::Password); break;
        case Event::Systems: expectRefused(Kind::Systems); break;
        case Event::Collector: {
            EciParms collecting = getReplyWait(8);
            EXPECT_RC(QPX_ERR_GWTOK_CLOSED, execute(collecting));
            break;
        }
        case Event::Applid: {
            char* applid = nullptr;
            EXPECT_RC(0, QPX_getApplid(token(), &applid));
            break;
        }
        case Event::AnotherClose: expectSecondRefused(Close::InOrder); break;
        case Event::AnotherPurge: expectSecondRefused(Close::Purge); break;
        case Event::AnotherCloseAll: closeAll(); break;
        case Event::Loss: lose(); break;
        case Event::GatewayCloses: closeByGateway(); break;
        }
        if (order.step == Step::BeforeCloseWrite && endsTheConnection(order.event))
            sendersAwaited.await(1);
    }

    void expectSecondRefused(Close close)
    {
        QPX_ConnToken_t same = token();
        EXPECT_RC(QPX_ERR_GWTOK_CLOSED, perform(close, &same));
    }

    // It quiesces the token, too, as far as that goes with the other one held.
    void closeAll()
    {
        closingAll = std::make_unique<RunningCall<int>>(startClose(Close::All, &connection.token));
        receiverAwaited.await(hasWritten() ? 2 : 1);
        if (order.step == Step::Quiesced) {
            EXPECT_RC(0, closingAll->get());
            closingAll.reset();
        } else {
            EXPECT_EQ(closeFlow(), connection.peer.read(33));
        }
    }

    // The close has not come to write its flow when the connection ended.
    bool cannotWrite() const { return !hasWritten() && endsTheConnection(order.event); }

    void expectEnd(RunningCall<int>& closing)
    {
        if (cannotWrite()) {
            // A close of all connections tells no failures.
            EXPECT_RC(order.close == Close::All ? 0 : QPX_ERR_LOSTGWCON, closing.get());
            EXPECT_TRUE(connection.peer.awaitEof());
            EXPECT_RC(0, QPX_closeAllGatewayConnections());
        } else {
            if (!hasWritten()) {
                EXPECT_EQ(closeFlow(), connection.peer.read(33));
            }
            if (order.step != Step::Quiesced && !endsTheConnection(order.event))
                connection.peer.send(closeFlow());
            EXPECT_RC(0, closing.get());
        }
        if (closingAll) {
            EXPECT_RC(0, closingAll->get());
        }
        expectClosed();
    }
};

TEST_P(CloseInEveryOrder, EndsAsDocumentedAndLeavesNoToken)
{
    Hold step(pointOf(order.step));
    auto closing = startClose(order.close, &connection.token);
    if (order.step == Step::Quiesced) connection.answerClose();
    step.awaitArrival();
    if (order.step == Step::BeforeReceiverWait) {
        EXPECT_EQ(closeFlow(), connection.peer.read(33));
    }
    happen();
    EXPECT_FALSE(closing.hasEnded());

    step.release();

    expectEnd(closing);
}

INSTANTIATE_TEST_SUITE_P(Every, CloseInEveryOrder, ::testing::ValuesIn(allOrders()),
                         [](const auto& about) { return nameOf(about.param); });

// ---- A close that is about to wait for a reply that nobody has collected ----

enum class Meanwhile {
    Collected,
    CollectorComes,
    AnotherCall,
    AnotherClose,
    CloseAll,
    Loss,
    GatewayCloses
};

struct Wait {
    Close close;
    Meanwhile meanwhile;
};

std::string nameOf(const Wait& wait)
{
    static const char* const events[] = {"Collected",    "CollectorComes", "AnotherCall",
                                         "AnotherClose", "CloseAll",       "Loss",
                                         "GatewayCloses"};
    return std::string(race::nameOf(wait.close)) + "_" + events[static_cast<int>(wait.meanwhile)];
}

std::vector<Wait> allWaits()
{
    std::vector<Wait> waits;
    for (Close close : {Close::InOrder, Close::Limited})
        for (int event = 0; event <= static_cast<int>(Meanwhile::GatewayCloses); ++event)
            waits.push_back(Wait{close, static_cast<Meanwhile>(event)});
    return waits;
}

class CloseThatWaits : public RaceTest, public ::testing::WithParamInterface<Wait> {
protected:
    EciParms collecting = getReplyWait(8);
    std::unique_ptr<RunningCall<int>> other;

    int collect()
    {
        EciParms parms = getReply(8);
        return execute(parms);
    }

    void happen()
    {
        switch (GetParam().meanwhile) {
        case Meanwhile::Collected:
            deliver(1, "answered");
            expectCollected(1, "answered");
            break;
        case Meanwhile::CollectorComes:
            other = std::make_unique<RunningCall<int>>(start(collecting));
            queueAwaited.await(1);
            break;
        case Meanwhile::AnotherCall: {
            Call work(Kind::Sync);
            EXPECT_RC(QPX_ERR_GWTOK_CLOSED, start(work).get());
            break;
        }
        case Meanwhile::AnotherClose: {
            QPX_ConnToken_t same = token();
            EXPECT_RC(QPX_ERR_GWTOK_CLOSED, QPX_closeGatewayConnection(&same));
            break;
        }
        case Meanwhile::CloseAll: closeAll(); break;
        case Meanwhile::Loss: lose(); break;
        case Meanwhile::GatewayCloses: closeByGateway(); break;
        }
    }

    // It gives the reply up, and frees nothing, since the other close is still at work.
    void closeAll()
    {
        other = std::make_unique<RunningCall<int>>(startClose(Close::All, &connection.token));
        connection.answerClose();
        EXPECT_RC(0, other->get());
        other.reset();
        EXPECT_EQ(0, token()->asyncCount.load());
    }

    void expectWorkToEnd()
    {
        switch (GetParam().meanwhile) {
        case Meanwhile::Collected:
        case Meanwhile::CloseAll: break;
        case Meanwhile::CollectorComes:
            deliver(1, "answered");
            EXPECT_RC(0, other->get());
            EXPECT_EQ(text("answered"), collecting.commarea());
            break;
        case Meanwhile::AnotherCall:
        case Meanwhile::AnotherClose:
            deliver(1, "answered");
            expectCollected(1, "answered");
            break;
        case Meanwhile::Loss: EXPECT_RC(QPX_ERR_LOSTGWCON, collect()); break;
        // Once the application closes, a close flow counts as the answer to its own.
        case Meanwhile::GatewayCloses: EXPECT_RC(QPX_ERR_GWTOK_CLOSED, collect()); break;
        }
    }

    // The connection is still there to be closed.
    bool stands() const { return GetParam().meanwhile <= Meanwhile::AnotherClose; }
};

TEST_P(CloseThatWaits, EndsOnceTheReplyIsCollected)
{
    ASSERT_EQ(1, send());
    Hold beforeWait(SchedulePoint::beforeWorkWait);
    auto closing = startClose(GetParam().close, &connection.token);
    beforeWait.awaitArrival();
    happen();
    EXPECT_FALSE(closing.hasEnded());

    beforeWait.release();

    expectWorkToEnd();
    if (stands()) connection.answerClose();
    EXPECT_RC(0, closing.get());
    expectClosed();
}

INSTANTIATE_TEST_SUITE_P(Every, CloseThatWaits, ::testing::ValuesIn(allWaits()),
                         [](const auto& about) { return nameOf(about.param); });

} // namespace
