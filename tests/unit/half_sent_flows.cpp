// Flows that cannot be sent whole. As long as nothing of one has left, the connection is in step
// and stands; once a byte has left, it is lost, and whatever comes next ends at once.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "clapi_types.h"
#include "qpxclient_esi.h"
#include "support/channel_script.h"
#include "support/faults.h"
#include "unit/connect_fixture.h"

using namespace script;
using support::asyncCall;
using support::Call;
using support::EciParms;
using support::failCall;
using support::failCallOn;
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

// ---- The close flow ----

enum class Closing { Close, Purge, CloseAll };
const char* const closingNames[] = {"Close", "Purge", "CloseAll"};

enum class Cause { NoBuffers, NotPermitted, NoMemory, NoSendLock, BrokenOff };
const char* const causeNames[] = {"ENOBUFS", "EPERM", "NoMemory", "NoSendLock", "BrokenOff"};

class FailedCloseFlow : public ::testing::Test {
protected:
    // Keeps close flows from being sent, or sent whole, as long as the result lives.
    std::vector<Fault> forbid(Cause cause)
    {
        std::vector<Fault> faults;
        switch (cause) {
        case Cause::NoBuffers: faults.push_back(failCall(Call::Send, 1, ENOBUFS)); break;
        case Cause::NotPermitted: faults.push_back(failCall(Call::Send, 1, EPERM)); break;
        case Cause::NoMemory: faults.push_back(failCall(Call::Malloc, 1, ENOMEM)); break;
        case Cause::NoSendLock:
            faults.push_back(
                failCallOn(Call::MutexLock, &connection.token->sendLock.lock, 1, EINVAL));
            break;
        case Cause::BrokenOff:
            faults.push_back(failCall(Call::Send, 2, ENOBUFS));
            faults.push_back(limitLength(Call::Send, bytesOfBroken, 1));
            break;
        }
        return faults;
    }

    static int resultOf(Closing closing, Cause cause)
    {
        if (closing == Closing::CloseAll) return QPX_OK;
        if (cause == Cause::NoMemory) return QPX_ERR_MALLOCFAIL;
        return cause == Cause::NoSendLock ? QPX_ERR_SYSTEM_ERROR : QPX_ERR_LOSTGWCON;
    }

    RunningCall<int> start(Closing closing)
    {
        switch (closing) {
        case Closing::Close: return connection.startClose();
        case Closing::Purge: return connection.startPurge(0);
        default: return callInThread([] { return QPX_closeAllGatewayConnections(); });
        }
    }

    // A purge whose close flow fails; it waits for the receiver then.
    RunningCall<int> startFailingPurge()
    {
        Fault failing = failCall(Call::Send, 1, ENOBUFS);
        auto purging = connection.startPurge(0);
        EXPECT_TRUE(failing.awaitHits());
        return purging;
    }

    // A close that fails leaves its token, which a close of all connections frees.
    void freeToken()
    {
        EXPECT_RC(0, QPX_closeAllGatewayConnections());
        connection.forget();
        EXPECT_EQ(fixture::emptyList(), fixture::dumpedTokens());
    }

    static constexpr std::size_t bytesOfBroken = 10;
    ScriptedConnection connection; // whose other end stays open
};

class HalfSentClose : public FailedCloseFlow,
                      public ::testing::WithParamInterface<std::tuple<int, int>> {
protected:
    Closing closing() const { return static_cast<Closing>(std::get<0>(GetParam())); }
    Cause cause() const { return static_cast<Cause>(std::get<1>(GetParam())); }
};

INSTANTIATE_TEST_SUITE_P(, HalfSentClose,
                         ::testing::Combine(::testing::Range(0, 3), ::testing::Range(0, 5)),
                         [](const auto& one) {
                             return std::string(closingNames[std::get<0>(one.param)]) + "_" +
                                    causeNames[std::get<1>(one.param)];
                         });

TEST_P(HalfSentClose, EndsTheConnectionThoughTheGatewayKeepsItsEndOpen)
{
    std::vector<Fault> faults = forbid(cause());
    auto running = start(closing());
    for (const Fault& fault : faults) EXPECT_TRUE(fault.awaitHits());

    EXPECT_RC(resultOf(closing(), cause()), running.get());

    EXPECT_EQ(cause() == Cause::BrokenOff ? bytesOfBroken : 0U, connection.peer.readAll().size());
    faults.clear();
    freeToken();
}

// As a close flow that is sent does: its answer comes before theirs.
TEST_F(FailedCloseFlow, EndsTheCallsThatWaitForTheirReplies)
{
    EciParms asked[] = {syncCall("FIRST", filled(8, 'q')), syncCall("SECOND", filled(8, 'q'))};
    auto first = connection.start(asked[0]);
    connection.awaitRequest();
    auto second = connection.start(asked[1]);
    connection.awaitRequest();

    auto purging = startFailingPurge();

    EXPECT_RC(-102, first.get());
    EXPECT_RC(-102, second.get());
    EXPECT_RC(-102, purging.get());
    EXPECT_EQ(0U, connection.peer.readAll().size());
    freeToken();
}

TEST_F(FailedCloseFlow, EndsACollectorThatWaitsForAReply)
{
    EciParms request = asyncCall("PROG", filled(8, 'q'));
    ASSERT_RC(0, QPX_ECI_Execute(connection.token, &request.record));
    connection.awaitRequest();
    EciParms collecting = support::getReplyWait(8);
    int waits = support::callCount(Call::CondWait);
    auto collector = connection.start(collecting);
    ASSERT_TRUE(support::awaitCallCount(Call::CondWait, waits + 1));

    auto purging = startFailingPurge();

    EXPECT_RC(-102, collector.get());
    EXPECT_RC(-102, purging.get());
    freeToken();
}

TEST_F(FailedCloseFlow, LeavesTheAnswersToAFlowThatAnotherCloseHasSent)
{
    EciParms asked = syncCall("PROG", filled(8, 'q'));
    auto call = connection.start(asked);
    int messageId = connection.awaitRequest().messageId();
    auto purging = connection.startPurge(0);
    EXPECT_EQ(closeFlow(), connection.peer.read(33));
    Fault failing = failCall(Call::Send, 1, ENOBUFS);
    auto closing = start(Closing::CloseAll);
    EXPECT_TRUE(failing.awaitHits());

    connection.peer.send(eciReply(messageId, text("answered")));
    EXPECT_RC(0, call.get());
    EXPECT_EQ(text("answered"), asked.commarea());
    connection.peer.send(closeFlow());

    EXPECT_RC(0, purging.get());
    EXPECT_RC(0, closing.get());
    connection.forget();
    EXPECT_EQ(fixture::emptyList(), fixture::dumpedTokens());
}

class FailedCloseFlowOfABrokenRequest : public FailedCloseFlow,
                                        public ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(, FailedCloseFlowOfABrokenRequest,
                         ::testing::Values(int{ECI_SYNC}, int{ECI_ASYNC}), [](const auto& one) {
                             return std::string(one.param == ECI_SYNC ? "Sync" : "Async");
                         });

// It waits for its turn to be written when the close flow fails, and cannot be written either.
TEST_P(FailedCloseFlowOfABrokenRequest, EndsItToo)
{
    support::Gate turn;
    std::unique_ptr<RunningCall<int>> purging;
    EciParms asked = support::eciCall(GetParam(), "PROG", filled(8, 'q'));
    Fault stopped = fixture::stopAtLock(Call::MutexLock, connection.token->sendLock.lock, turn,
                                        fixture::always);
    auto call = connection.start(asked);
    ASSERT_TRUE(turn.awaitArrival());
    purging = std::make_unique<RunningCall<int>>(startFailingPurge());
    Fault failing = failCall(Call::Send, 1, ENOBUFS);

    turn.open();

    EXPECT_RC(-102, call.get());
    EXPECT_EQ(1, failing.hits());
    EXPECT_RC(-102, purging->get());
    EXPECT_EQ(0U, connection.peer.readAll().size());
    freeToken();
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
