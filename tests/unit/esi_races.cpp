// Password calls and queries of systems, and the receiver thread, getting into each other's way:
// replies before the call goes on, connections that end between two of its steps, descriptors used
// again by somebody who must not receive a password.
#include <unistd.h>

#include <string>
#include <vector>

#include "support/descriptors.h"
#include "support/esi_script.h"
#include "support/other_thread.h"
#include "unit/connect_fixture.h"

using namespace fixture;
using namespace script;
using support::afterCall;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::Fault;
using support::Gate;
using support::TraceFile;

namespace {

// The three calls, alike.
enum class Kind { Verify, Change, List };

class EsiRace : public EsiConnection, public ::testing::WithParamInterface<Kind> {
protected:
    support::RunningCall<int> start()
    {
        switch (GetParam()) {
        case Kind::Verify: return startVerify("USER", "SECRET", "PROD", details.get());
        case Kind::Change: return startChange("USER", "SECRET", "TERCES", "PROD", details.get());
        case Kind::List: break;
        }
        return startList(systems);
    }

    int make()
    {
        switch (GetParam()) {
        case Kind::Verify:
            return QPX_ESI_verifyPassword(connection.token, "USER", "SECRET", "PROD",
                                          details.get());
        case Kind::Change:
            return QPX_ESI_changePassword(connection.token, "USER", "SECRET", "TERCES", "PROD",
                                          details.get());
        case Kind::List: break;
        }
        return QPX_listSystems(connection.token, &systems.count, systems.get());
    }

    static Bytes answer()
    {
        return GetParam() == Kind::List ? ListReply().reported(1).data(systemEntry("PROD")).to(1)
                                        : acceptance(1);
    }

    void expectAnswered()
    {
        if (GetParam() == Kind::List)
            EXPECT_STREQ("PROD", systems.get()[0].SystemName);
        else
            EXPECT_EQ(acceptedValues(), details.values());
    }

    void expectUntouched()
    {
        EXPECT_TRUE(details.areUntouched());
        EXPECT_EQ(2, systems.count);
        EXPECT_TRUE(systems.isUntouched());
    }

    RequestSlot& firstSlot() { return connection.token->table.slot[0]; }

    void awaitReceiversEnd(int state)
    {
        support::OtherThread acting;
        ASSERT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
        ASSERT_EQ(state, connection.token->connStatus.load());
    }

    // The number of the closed socket now belongs to another stream.
    void occupySocketNumber()
    {
        int number = connection.token->socketDescriptor;
        ASSERT_FALSE(support::descriptorIsOpen(number));
        ASSERT_EQ(number, dup2(STDERR_FILENO, number)); // lest one of the next two has it
        auto ends = support::socketPair();
        ASSERT_EQ(number, dup2(ends.first.fd(), number));
        foreign = Peer(number);
        otherEnd = std::move(ends.second);
    }

    // The call has a slot and has not yet said that it sends, when the connection ends and the
    // number of its socket becomes somebody else's.
    template <typename End>
    int makeWhileTheConnectionEnds(int state, End end)
    {
        Gate arming;
        Fault stop = stopAtLock(Call::MutexLock, firstSlot().requestEvent.mutex, arming, always);
        auto call = start();
        EXPECT_TRUE(arming.awaitArrival());
        EXPECT_EQ(1, firstSlot().state);
        end();
        awaitReceiversEnd(state);
        EXPECT_EQ(1, firstSlot().state); // not completed by the receiver
        occupySocketNumber();
        arming.open();
        return call.get();
    }

    Details details;
    SystemArray systems{2};
    Peer foreign;
    Peer otherEnd;
};

// ---- The connection has ended

TEST_P(EsiRace, SendsNothingToTheNumberOfALostSocket)
{
    connection.peer.close();
    awaitReceiversEnd(3);
    occupySocketNumber();

    EXPECT_RC(-102, make());
    EXPECT_RC(-102, make());

    EXPECT_TRUE(otherEnd.isQuiet());
    EXPECT_TRUE(support::descriptorIsOpen(foreign.fd()));
    EXPECT_EQ(0, firstSlot().state);
    EXPECT_EQ(0, connection.token->requestCount.load());
    expectUntouched();
}

TEST_P(EsiRace, SendsNothingToTheNumberOfASocketThatTheGatewayClosed)
{
    connection.peer.send(closeFlow());
    awaitReceiversEnd(4);
    occupySocketNumber();

    EXPECT_RC(-102, make());
    EXPECT_RC(-102, make());

    EXPECT_TRUE(otherEnd.isQuiet());
    EXPECT_EQ(0, firstSlot().state);
    EXPECT_EQ(0, connection.token->requestCount.load());
    expectUntouched();
}

// ---- The connection ends while a request is being built

TEST_P(EsiRace, FailsWhenTheConnectionIsLostBeforeItSends)
{
    EXPECT_RC(-102, makeWhileTheConnectionEnds(3, [this] { connection.peer.close(); }));

    EXPECT_TRUE(otherEnd.isQuiet());
    EXPECT_EQ(0, firstSlot().state);
    expectUntouched();
    EXPECT_RC(0, QPX_closeGatewayConnection(&connection.token));
    connection.forget();
}

TEST_P(EsiRace, FailsWhenTheGatewayClosesBeforeItSends)
{
    EXPECT_RC(-102, makeWhileTheConnectionEnds(4, [this] { connection.peer.send(closeFlow()); }));

    EXPECT_TRUE(otherEnd.isQuiet());
    EXPECT_EQ(0, firstSlot().state);
    expectUntouched();
}

// ---- The connection ends between the last look at it and the send

TEST_P(EsiRace, WakesWhenTheConnectionIsLostJustBeforeItSends)
{
    Gate sending;
    Gate posted;
    posted.open();
    Fault stop = beforeCall(Call::Send, 1, [sending](const CallInfo&) mutable { sending.pass(); });
    Fault post = beforeCall(
        Call::CondBroadcast, 0,
        [=, wanted = asNumber(&firstSlot().requestEvent.cond)](const CallInfo& info) mutable {
            if (info.first == wanted) posted.pass();
        });
    auto call = start();
    ASSERT_TRUE(sending.awaitArrival());
    EXPECT_EQ(2, firstSlot().state);

    connection.peer.close();

    ASSERT_TRUE(posted.awaitArrival());
    sending.open();
    EXPECT_RC(-102, call.get());
    awaitReceiversEnd(3);
    EXPECT_EQ(0, firstSlot().state);
    expectUntouched();
}

TEST_P(EsiRace, KeepsTheSocketOpenWhileItSends)
{
    int descriptor = connection.token->socketDescriptor;
    Gate sending;
    Gate ending;
    ending.open();
    Fault stop = beforeCall(Call::Send, 1, [sending](const CallInfo&) mutable { sending.pass(); });
    Fault closing = watch(Call::Close);
    Fault waiting = beforeCall(
        Call::CondWait, 0,
        [=, wanted = asNumber(&connection.token->tableLock.lock)](const CallInfo& info) mutable {
            if (info.second == wanted) ending.pass();
        });
    auto call = start();
    ASSERT_TRUE(sending.awaitArrival());

    connection.peer.send(filled(64));

    ASSERT_TRUE(ending.awaitArrival());
    EXPECT_EQ(0, closing.hits());
    EXPECT_TRUE(support::descriptorIsOpen(descriptor));
    sending.open();
    EXPECT_RC(-102, call.get());
    awaitReceiversEnd(3);
    EXPECT_EQ(1, closing.hits());
}

// ---- The reply is there before the call goes on

TEST_P(EsiRace, TakesAReplyThatComesBeforeTheSendReturns)
{
    Gate sent;
    Gate posted;
    posted.open();
    Fault stop = afterCall(Call::Send, 1, [sent](const CallInfo&) mutable { sent.pass(); });
    Fault post = beforeCall(
        Call::CondBroadcast, 0,
        [=, wanted = asNumber(&firstSlot().requestEvent.cond)](const CallInfo& info) mutable {
            if (info.first == wanted) posted.pass();
        });
    auto call = start();
    ASSERT_TRUE(sent.awaitArrival());
    connection.awaitRequest();

    connection.peer.send(answer());

    ASSERT_TRUE(posted.awaitArrival());
    EXPECT_EQ(3, firstSlot().state);
    sent.open();
    EXPECT_RC(0, call.get());
    expectAnswered();
    EXPECT_EQ(0, firstSlot().state);
}

TEST_P(EsiRace, ArmsItsEventAndWaitsBeforeItSends)
{
    Gate sending;
    Fault stop = beforeCall(Call::Send, 1, [sending](const CallInfo&) mutable { sending.pass(); });
    auto call = start();
    ASSERT_TRUE(sending.awaitArrival());

    EXPECT_EQ(2, firstSlot().state);
    EXPECT_EQ(0, firstSlot().requestEvent.eflag);
    EXPECT_EQ(0, int(firstSlot().eciParms.eci_call_type));

    sending.open();
    answerWith(answer());
    EXPECT_RC(0, call.get());
}

// ---- A close comes between two steps

TEST_P(EsiRace, IsRefusedWhenTheCloseBeginsBeforeItRegisters)
{
    connection.token->closedown = 1;

    EXPECT_RC(-140, make());

    connection.token->closedown = 0;
    EXPECT_TRUE(connection.peer.isQuiet());
    EXPECT_EQ(0, connection.token->requestCount.load());
    expectUntouched();
}

TEST_P(EsiRace, IsWaitedForByACloseThatBeginsBehindIt)
{
    auto call = start();
    request = connection.awaitRequest();
    TraceFile trace(2);
    auto closing = connection.startClose();
    ASSERT_TRUE(trace.awaitText("quiesceConnection() Waiting for 1 API calls"));
    EXPECT_TRUE(connection.peer.isQuiet());

    connection.peer.send(answer());

    EXPECT_RC(0, call.get());
    expectAnswered();
    connection.answerClose();
    EXPECT_RC(0, closing.get());
    connection.forget();
}

INSTANTIATE_TEST_SUITE_P(OfCall, EsiRace, ::testing::Values(Kind::Verify, Kind::Change, Kind::List),
                         [](const ::testing::TestParamInfo<Kind>& row) {
                             switch (row.param) {
                             case Kind::Verify: return "Verify";
                             case Kind::Change: return "Change";
                             case Kind::List: break;
                             }
                             return "List";
                         });

// ---- What the slot keeps

class EsiSlot : public EsiConnection {
protected:
    RequestSlot& firstSlot() { return connection.token->table.slot[0]; }
};

TEST_F(EsiSlot, HoldsTheDetailsWhileItWaits)
{
    Details details;
    auto call = startVerify("USER", "SECRET", nullptr, details.get());
    request = connection.awaitRequest();

    EXPECT_EQ(details.get(), firstSlot().esiDetails);

    connection.peer.send(acceptance(1));
    EXPECT_RC(0, call.get());
}

TEST_F(EsiSlot, HoldsNoDetailsOfTheCallBefore)
{
    Details details;
    EXPECT_RC(0, verifyAnswered(acceptance(1), details.get()));
    support::EciParms parms = support::syncCall("PROG", text("question"));
    auto call = connection.start(parms);
    request = connection.awaitRequest();

    EXPECT_EQ(nullptr, firstSlot().esiDetails);

    connection.peer.send(ProgramReply().to(1));
    EXPECT_RC(0, call.get());
}

TEST_F(EsiSlot, HoldsTheListWhileItWaits)
{
    SystemArray systems(2);
    auto call = startList(systems);
    request = connection.awaitRequest();

    EXPECT_EQ(static_cast<void*>(systems.get()),
              static_cast<void*>(firstSlot().eciParms.eci_commarea));
    EXPECT_EQ(0, int(firstSlot().eciParms.eci_extend_mode));
    EXPECT_EQ(nullptr, ECI_ChannelToken_t(firstSlot().eciParms.channel));

    connection.peer.send(ListReply().to(1));
    EXPECT_RC(0, call.get());
}

TEST_F(EsiSlot, HoldsNoListOfTheQueryBefore)
{
    SystemArray systems(2);
    EXPECT_RC(0, listAnswered(ListReply().to(1), systems));
    auto call = startVerify("USER", "SECRET");
    request = connection.awaitRequest();

    EXPECT_EQ(nullptr, static_cast<void*>(firstSlot().eciParms.eci_commarea));

    connection.peer.send(acceptance(1));
    EXPECT_RC(0, call.get());
}

} // namespace
