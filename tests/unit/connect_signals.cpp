// The signals of a thread whose open fails for want of a receiver thread.
#include <pthread.h>
#include <signal.h>

#include "unit/connect_fixture.h"

using namespace fixture;
using namespace script;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::failCall;
using support::Fault;

namespace {

bool isBlocked(int signal)
{
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, signal) == 1;
}

TEST(ConnectSignals, AreAsTheyWereWhenTheReceiverCannotBeStarted)
{
    ScriptedGateway gateway;
    QPX_ConnToken_t token = nullptr;
    bool blockedMeanwhile = false;
    Fault look = beforeCall(Call::ThreadCreate, 1,
                            [&](const CallInfo&) { blockedMeanwhile = isBlocked(SIGUSR1); });
    Fault noThread = failCall(Call::ThreadCreate, 1, EAGAIN);

    EXPECT_RC(QPX_ERR_SYSTEM_ERROR,
              QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 0));

    EXPECT_EQ(1, noThread.hits());
    EXPECT_TRUE(blockedMeanwhile);
    EXPECT_FALSE(isBlocked(SIGUSR1));
}

} // namespace
