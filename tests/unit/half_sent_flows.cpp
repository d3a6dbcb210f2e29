// Flows that cannot be sent whole. As long as nothing of one has left, the connection is in step
// and stands; once a byte has left, it is lost, and whatever comes next ends at once.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <tuple>

#include "clapi_types.h"
#include "qpxclient_esi.h"
#include "support/channel_script.h"
#include "support/faults.h"

using namespace script;
using support::asyncCall;
using support::Call;
using support::EciParms;
using support::failCall;
using support::Fault;
using support::limitLength;
using support::RunningCall;
using support::syncCall;
using support::Threads;

namespace {

// Where a flow breaks off: at its nth send, of which some bytes may have left before.
struct Break {
    const char* name;
    bool inChannelCall; // whose flow takes several sends; else a call of one
    int send;
    bool half;

    bool nothingLeft() const { return send == 1 && !half; }
};

const Break breaks[] = {
    {"Call", false, 1, false},          {"HalfOfACall", false, 1, true},
    {"First", true, 1, false},          {"Second", true, 2, false},
    {"Third", true, 3, false},          {"Fourth", true, 4, false},
    {"Fifth", true, 5, false},          {"HalfOfTheFirst", true, 1, true},
    {"HalfOfTheSecond", true, 2, true}, {"HalfOfTheFifth", true, 5, true},
};

enum class Next { Call, Close, Purge, CloseAll };
const char* const nextNames[] = {"Call", "Close", "Purge", "CloseAll"};

using Case = std::tuple<int, int, int>; // break, error, next

class HalfSent : public ::testing::TestWithParam<Case> {
protected:
    HalfSent()
    {
        std::string data(40'000, 'd'); // more than is staged: sent by itself
        channel.with("TWO", data).with("ONE", data);
    }

    const Break& where() const { return breaks[static_cast<std::size_t>(std::get<0>(GetParam()))]; }
    int error() const { return std::get<1>(GetParam()); }
    Next next() const { return static_cast<Next>(std::get<2>(GetParam())); }

    // A call whose flow breaks off.
    int breakOff(EciParms& parms)
    {
        std::unique_ptr<Fault> shorter;
        if (where().half)
            shorter = std::make_unique<Fault>(
                limitLength(Call::Send, 10, where().send, Threads::Calling));
        Fault failing = failCall(Call::Send, where().send + (where().half ? 1 : 0), error(),
                                 Threads::Calling);
        int rc = where().inChannelCall ? executeChannel(connection, parms)
                                       : QPX_ECI_Execute(connection.token, &parms.record);
        EXPECT_EQ(1, failing.hits());
        return rc;
    }

    EciParms parmsFor(int callType)
    {
        if (where().inChannelCall) return channelCall(callType, channel);
        return support::eciCall(callType, "BROKEN", filled(100, 'q'));
    }

    // Another call that waits when the flow breaks off.
    RunningCall<int> startOther()
    {
        auto running = connection.start(other);
        otherId = connection.awaitRequest().messageId();
        return running;
    }

    RunningCall<int> startNext()
    {
        switch (next()) {
        case Next::Call: return connection.start(after);
        case Next::Close: return connection.startClose();
        case Next::Purge: return connection.startPurge(5);
        default: return callInThread([] { return QPX_closeAllGatewayConnections(); });
        }
    }

    void expectStanding(RunningCall<int>& waiting)
    {
        connection.peer.send(eciReply(otherId, text("other")));
        EXPECT_RC(0, waiting.get());
        auto running = startNext();
        if (next() == Next::Call)
            connection.peer.send(eciReply(connection.awaitRequest().messageId(), text("after")));
        else
            connection.answerClose();
        EXPECT_RC(0, running.get());
        if (next() != Next::Call) connection.forget();
    }

    // Whoever closes may meet the end of the connection; its token then goes with all of them.
    void expectLost(RunningCall<int>& waiting)
    {
        int rc = startNext().get();
        EXPECT_TRUE(rc == -102 || (next() != Next::Call && rc == 0)) << support::rcName(rc);
        int waitingRc = waiting.get();
        EXPECT_TRUE(waitingRc == -102 || (next() != Next::Call && waitingRc == -140))
            << support::rcName(waitingRc);
        connection.peer.readAll(); // to its end, which is there
        auto closing = callInThread([] { return QPX_closeAllGatewayConnections(); });
        EXPECT_RC(0, closing.get());
        connection.forget();
        channel.expectFree();
    }

    void expectAfterwards(RunningCall<int>& waiting)
    {
        if (where().nothingLeft())
            expectStanding(waiting);
        else
            expectLost(waiting);
    }

    ScriptedConnection connection;
    Channel channel;
    EciParms other = syncCall("OTHER", filled(5, '?'));
    EciParms after = syncCall("AFTER", filled(5, '?'));
    int otherId = 0;
};

INSTANTIATE_TEST_SUITE_P(, HalfSent,
                         ::testing::Combine(::testing::Range(0, 10),
                                            ::testing::Values(ENOBUFS, EPERM),
                                            ::testing::Range(0, 4)),
                         [](const auto& one) {
                             const Case& param = one.param;
                             return std::string(
                                        breaks[static_cast<std::size_t>(std::get<0>(param))].name) +
                                    (std::get<1>(param) == EPERM ? "_EPERM_" : "_ENOBUFS_") +
                                    nextNames[std::get<2>(param)];
                         });

TEST_P(HalfSent, SynchronousCallLosesTheConnectionOnceAByteHasLeft)
{
    auto waiting = startOther();
    EciParms parms = parmsFor(ECI_SYNC);
    EXPECT_RC(-102, breakOff(parms));
    expectAfterwards(waiting);
}

TEST_P(HalfSent, AsynchronousCallLosesTheConnectionOnceAByteHasLeft)
{
    auto waiting = startOther();
    EciParms parms = parmsFor(ECI_ASYNC);
    EXPECT_RC(-102, breakOff(parms));
    expectAfterwards(waiting);
}

// ---- Other flows ----

class HalfSentFlow : public ::testing::Test {
protected:
    void expectLost()
    {
        EciParms after = syncCall("AFTER");
        auto running = connection.start(after);
        EXPECT_RC(-102, running.get());
        connection.peer.readAll();
        auto closing = callInThread([] { return QPX_closeAllGatewayConnections(); });
        EXPECT_RC(0, closing.get());
        connection.forget();
    }

    ScriptedConnection connection;
};

TEST_F(HalfSentFlow, OfAPasswordLosesTheConnection)
{
    Fault shorter = limitLength(Call::Send, 10, 1, Threads::Calling);
    Fault failing = failCall(Call::Send, 2, ENOBUFS, Threads::Calling);
    EXPECT_RC(-102, QPX_ESI_verifyPassword(connection.token, "CLERK", "secret", nullptr, nullptr));
    EXPECT_EQ(1, failing.hits());
    expectLost();
}

TEST_F(HalfSentFlow, OfAListOfSystemsLosesTheConnection)
{
    Fault shorter = limitLength(Call::Send, 10, 1, Threads::Calling);
    Fault failing = failCall(Call::Send, 2, ENOBUFS, Threads::Calling);
    unsigned short count = 1;
    QPX_listSystem_t systems[1];
    EXPECT_RC(-102, QPX_listSystems(connection.token, &count, systems));
    EXPECT_EQ(1, failing.hits());
    expectLost();
}

// The close flow itself breaks off: nothing hangs, and closing all connections frees the token.
class HalfSentClose : public HalfSentFlow, public ::testing::WithParamInterface<bool> {};

INSTANTIATE_TEST_SUITE_P(, HalfSentClose, ::testing::Bool(), [](const auto& one) {
    return std::string(one.param ? "Half" : "AtItsBeginning");
});

TEST_P(HalfSentClose, EndsAndLeavesATokenThatAllOfThemFree)
{
    std::unique_ptr<Fault> shorter;
    if (GetParam()) shorter = std::make_unique<Fault>(limitLength(Call::Send, 10, 1));
    Fault failing = failCall(Call::Send, GetParam() ? 2 : 1, ENOBUFS);
    auto running = connection.startClose();
    EXPECT_TRUE(failing.awaitHits());
    if (GetParam())
        EXPECT_EQ(10U, connection.peer.readAll().size());
    else
        connection.peer.close(); // of which the close waits to hear
    int rc = running.get();
    EXPECT_TRUE(rc == 0 || rc == -102) << support::rcName(rc);
    auto closing = callInThread([] { return QPX_closeAllGatewayConnections(); });
    EXPECT_RC(0, closing.get());
    connection.forget();
}

} // namespace

namespace {

class AnsweredBeforeItBroke : public ::testing::Test {
protected:
    ScriptedConnection connection;
    Channel channel;
};

} // namespace

// A Gateway has answered a request of which the end never left; the answer lies unread when its
// message id is free again.
TEST_F(AnsweredBeforeItBroke, LeavesItsAnswerToNobody)
{
    channel.with("LARGE", std::string(70'000, 'd'));
    support::Gate reading;
    Fault held = support::beforeCall(
        Call::Recv, 1, [&](const support::CallInfo&) { reading.pass(); }, Threads::Others);
    connection.peer.send(eciReply(1, text("strange!")));
    ASSERT_TRUE(reading.awaitArrival());
    EciParms broken = channelCall(ECI_SYNC, channel);
    {
        Fault failing = failCall(Call::Send, 2, ENOBUFS, Threads::Calling);
        EXPECT_RC(-102, executeChannel(connection, broken));
        EXPECT_EQ(1, failing.hits());
    }
    EciParms next = asyncCall("NEXT", filled(8, 'n'));

    EXPECT_RC(-102, QPX_ECI_Execute(connection.token, &next.record));

    reading.open();
    EXPECT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
    EciParms collecting = support::getReply(8);
    EXPECT_RC(ECI_ERR_NO_REPLY, QPX_ECI_Execute(connection.token, &collecting.record));
}
