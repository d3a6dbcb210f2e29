// Waiting for a connect in progress: success, failure, time-out and signals.
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>

#include <utility>
#include <vector>

#include "unit/connect_fixture.h"

using namespace fixture;
using namespace script;
using support::afterCall;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::failCall;
using support::Fault;
using support::Threads;
using support::TraceFile;

namespace {

// The next connect takes place and is then said to be still in progress. What the test adds runs
// between the two.
class SlowConnect {
public:
    explicit SlowConnect(std::function<void(int descriptor)> then = nullptr)
        : hook_(beforeCall(Call::Connect, 1,
                           [then](const CallInfo& info) {
                               connectForReal(info);
                               if (then) then(static_cast<int>(info.first));
                           })),
          failure_(failCall(Call::Connect, 1, EINPROGRESS))
    {
    }

private:
    Fault hook_;
    Fault failure_;
};

// A clock that nobody sets, and what it shows at the looks that are taken at it.
class SteadyClock {
public:
    explicit SteadyClock(std::vector<time_t> seconds)
        : seconds_(std::move(seconds)),
          hook_(afterCall(
              Call::Clock, 0, [this](const CallInfo& info) { show(info); }, Threads::Calling))
    {
    }
    int looks() const { return looks_; }

private:
    void show(const CallInfo& info)
    {
        if (info.first != CLOCK_MONOTONIC) return;
        auto look = static_cast<std::size_t>(looks_++);
        if (look < seconds_.size())
            reinterpret_cast<timespec*>(info.second)->tv_sec = seconds_[look];
    }

    std::vector<time_t> seconds_;
    int looks_ = 0;
    Fault hook_;
};

class ConnectWait : public ::testing::Test {
protected:
    int open(int connTimeout)
    {
        return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, connTimeout);
    }

    ScriptedGateway gateway;
    Peer peer;
    QPX_ConnToken_t token = nullptr;
};

TEST_F(ConnectWait, SucceedsWhenTheSocketBecomesWritable)
{
    TraceFile trace(4);
    SlowConnect slow;
    ScriptedConnection connection(30);
    std::string descriptor = std::to_string(connection.token->socketDescriptor);

    EXPECT_TRUE(trace.wroteText("DEBUG  clapi_gwycon.clapiConnectToGateway() Waiting for connect "
                                "to complete\n"));
    EXPECT_TRUE(trace.wroteText("ENTRY  clapi_gwycon.waitForConnection(socketDescriptorPtr=<ptr>, "
                                "sockError=<ptr>, connTimeout=30)\n"));
    EXPECT_EQ(1, trace.timesWroteText("DEBUG  clapi_gwycon.waitForConnection() Calling select() "
                                      "on socketdescriptor " +
                                      descriptor + "\n"));
    EXPECT_TRUE(trace.wroteText("() Connected to Gateway 127.0.0.1:"));
}

TEST_F(ConnectWait, TimesOutWhenNobodyAnswersTheConnect)
{
    ScriptedGateway deaf(ScriptedGateway::Backlog::Full);
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_CONNECTTIMEOUT,
              QPX_openRemoteGatewayConnection(localHost(), deaf.port(), &token, 1));

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.waitForConnection() socket <int> connect "
                                "timed out\n"));
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.clapiConnectToGateway() Unable to connect "
                                "to Gateway: Connection timed out (110)\n"))
        << trace.text();
    EXPECT_EQ(nullptr, token);
}

TEST_F(ConnectWait, FailsWithTheErrorOfTheSocket)
{
    TraceFile trace(1);
    SlowConnect slow([this](int) { gateway.accept().reset(); });

    EXPECT_RC(QPX_ERR_CONNECTFAILED, open(30));

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.waitForConnection() socket <int> connect() "
                                "failed error: Connection reset by peer (104)\n"))
        << trace.text();
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.clapiConnectToGateway() Unable to connect "
                                "to Gateway: Connection reset by peer (104)\n"));
}

TEST_F(ConnectWait, FailsWhenSelectFails)
{
    TraceFile trace(1);
    SlowConnect slow;
    Fault fault = failCall(Call::Select, 1, EBADF);

    EXPECT_RC(QPX_ERR_CONNECTFAILED, open(30));

    EXPECT_EQ(1, fault.hits());
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.waitForConnection() <any>\n"));
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.clapiConnectToGateway() Unable to connect "
                                "to Gateway: Bad file descriptor (9)\n"));
}

TEST_F(ConnectWait, TakesASocketThatIsInTheExceptionSetOnlyAsConnected)
{
    std::size_t filling = 0;
    TraceFile trace(4);
    SlowConnect slow([&](int descriptor) {
        Peer early = gateway.accept();
        const Bytes block(16384, 0);
        for (ssize_t sent; (sent = send(descriptor, block.data(), block.size(), MSG_DONTWAIT)) > 0;)
            filling += static_cast<std::size_t>(sent);
        ASSERT_EQ(1, send(early.fd(), "!", 1, MSG_OOB));
        peer = std::move(early);
    });
    support::Gate gate;
    Fault connected = beforeCall(Call::ThreadCreate, 1,
                                 [=](const CallInfo&) mutable { gate.pass(); });
    auto opening = callInThread([this] { return open(60); });

    ASSERT_TRUE(gate.awaitArrival());
    EXPECT_TRUE(trace.wroteText("clapi_gwycon.clapiConnectToGateway() Connected to Gateway"));
    EXPECT_FALSE(trace.wroteText("*EXC*"));
    gate.open();
    ASSERT_LT(0U, filling);
    peer.read(filling);
    peer.read(handshakeSize);
    peer.send(handshakeAnswer());

    EXPECT_RC(QPX_OK, opening.get());
    peer.close();
    QPX_closeGatewayConnection(&token);
}

TEST_F(ConnectWait, WaitsAgainWhenASignalArrives)
{
    TraceFile trace(4);
    SlowConnect slow;
    Fault signal = failCall(Call::Select, 1, EINTR);

    ScriptedConnection connection(30);

    EXPECT_EQ(1, signal.hits());
    EXPECT_EQ(2, trace.timesWroteText("clapi_gwycon.waitForConnection() Calling select()"));
}

TEST_F(ConnectWait, WaitsAgainForAsManySignalsAsArrive)
{
    TraceFile trace(4);
    SlowConnect slow;
    Fault first = failCall(Call::Select, 1, EINTR);
    Fault second = failCall(Call::Select, 2, EINTR);
    Fault third = failCall(Call::Select, 3, EINTR);

    ScriptedConnection connection(30);

    EXPECT_EQ(4, trace.timesWroteText("clapi_gwycon.waitForConnection() Calling select()"));
}

TEST_F(ConnectWait, StillTimesOutAfterASignal)
{
    ScriptedGateway deaf(ScriptedGateway::Backlog::Full);
    TraceFile trace(4);
    Fault signal = failCall(Call::Select, 1, EINTR);

    EXPECT_RC(QPX_ERR_CONNECTTIMEOUT,
              QPX_openRemoteGatewayConnection(localHost(), deaf.port(), &token, 1));

    EXPECT_EQ(2, trace.timesWroteText("clapi_gwycon.waitForConnection() Calling select()"));
}

// The clock says that 3599 of 3600 seconds are over when the signal comes.
TEST_F(ConnectWait, WaitsForTheRemainingSecondsAfterASignal)
{
    ScriptedGateway deaf(ScriptedGateway::Backlog::Full);
    SteadyClock clock({1000, 4599});
    Fault signal = failCall(Call::Select, 1, EINTR);

    EXPECT_RC(QPX_ERR_CONNECTTIMEOUT,
              QPX_openRemoteGatewayConnection(localHost(), deaf.port(), &token, 3600));

    EXPECT_EQ(2, clock.looks());
}

TEST_F(ConnectWait, WaitsForOneMoreSecondWhenASignalComesAtTheEnd)
{
    ScriptedGateway deaf(ScriptedGateway::Backlog::Full);
    TraceFile trace(4);
    SteadyClock clock({1000, 4600});
    Fault signal = failCall(Call::Select, 1, EINTR);

    EXPECT_RC(QPX_ERR_CONNECTTIMEOUT,
              QPX_openRemoteGatewayConnection(localHost(), deaf.port(), &token, 3600));

    EXPECT_EQ(2, trace.timesWroteText("clapi_gwycon.waitForConnection() Calling select()"));
}

TEST_F(ConnectWait, WaitsForOneSecondWhenASignalComesAtTheStart)
{
    ScriptedGateway deaf(ScriptedGateway::Backlog::Full);
    SteadyClock clock({1000, 1000});
    Fault signal = failCall(Call::Select, 1, EINTR);

    EXPECT_RC(QPX_ERR_CONNECTTIMEOUT,
              QPX_openRemoteGatewayConnection(localHost(), deaf.port(), &token, 3600));

    EXPECT_EQ(1, signal.hits());
}

TEST_F(ConnectWait, GoesOnBeyondItsLimitAsLongAsSignalsCome)
{
    constexpr int signals = 10;
    SlowConnect slow;
    std::vector<time_t> seconds{1000};
    std::vector<Fault> waits;
    for (int i = 1; i <= signals; ++i) {
        seconds.push_back(1002 + i);
        waits.push_back(failCall(Call::Select, i, EINTR, Threads::Calling));
    }
    SteadyClock clock(seconds);
    Fault over = support::fakeCall(Call::Select, signals + 1, 0, Threads::Calling);

    EXPECT_RC(QPX_ERR_CONNECTTIMEOUT, open(2));

    EXPECT_EQ(1 + signals, clock.looks());
}

// How many seconds the wait has that follows a signal, when so many of 3600 are over.
class ConnectWaitAgain : public ConnectWait,
                         public ::testing::WithParamInterface<std::pair<time_t, time_t>> {};

TEST_P(ConnectWaitAgain, HasWhatIsLeftOfTheLimitOrOneSecond)
{
    SlowConnect slow;
    SteadyClock clock({1000, 1000 + GetParam().first});
    Fault signal = failCall(Call::Select, 1, EINTR, Threads::Calling);
    timeval limit = {};
    Fault second = beforeCall(
        Call::Select, 2,
        [&](const CallInfo& info) { limit = *reinterpret_cast<timeval*>(info.second); },
        Threads::Calling);
    Fault over = support::fakeCall(Call::Select, 2, 0, Threads::Calling);

    EXPECT_RC(QPX_ERR_CONNECTTIMEOUT, open(3600));

    EXPECT_EQ(GetParam().second, limit.tv_sec);
    EXPECT_EQ(0, limit.tv_usec);
}

INSTANTIATE_TEST_SUITE_P(
    , ConnectWaitAgain,
    ::testing::Values(std::pair<time_t, time_t>{0, 1}, std::pair<time_t, time_t>{1, 3599},
                      std::pair<time_t, time_t>{10, 3590}, std::pair<time_t, time_t>{3599, 1},
                      std::pair<time_t, time_t>{3600, 1}, std::pair<time_t, time_t>{3605, 1}),
    [](const auto& made) { return "After" + std::to_string(made.param.first); });

} // namespace
