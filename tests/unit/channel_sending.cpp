// The channel of an asynchronous call whose connection ends while the call is still being sent.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/eci_script.h"
#include "support/faults.h"

using namespace script;
using support::asyncCall;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::EciParms;
using support::Fault;
using support::Gate;
using support::getReplyWait;
using support::Threads;

namespace {

// Two containers, each larger than what the library sends at once: when the first bytes go out,
// most of the channel is still to be read.
class ChannelSending : public ::testing::Test {
protected:
    ChannelSending()
    {
        Bytes data = filled(40000, 'd');
        EXPECT_RC(ECI_NO_ERROR, ECI_createChannel("LARGE", &channel));
        for (const char* name : {"ONE", "TWO"})
            EXPECT_RC(ECI_NO_ERROR,
                      ECI_createContainer(channel, name, ECI_BIT, 0, data.data(), data.size()));
    }
    ~ChannelSending() override { EXPECT_RC(ECI_NO_ERROR, ECI_deleteChannel(&channel)); }

    // Collects what has become of the call and changes its channel, as an application may that has
    // collected it.
    int collectAndChange()
    {
        Fault sleep = beforeCall(
            Call::CondWait, 0, [this](const CallInfo&) { waits = true; }, Threads::Calling);
        EciParms parms = getReplyWait(8);
        int rc = QPX_ECI_Execute(connection.token, &parms.record);
        EXPECT_RC(ECI_NO_ERROR, ECI_deleteContainer(channel, "ONE"));
        changed = true;
        return rc;
    }

    ScriptedConnection connection;
    ECI_ChannelToken_t channel = nullptr;
    std::atomic<bool> waits{false};
    std::atomic<bool> changed{false};
};

} // namespace

TEST_F(ChannelSending, KeepsItsChannelUntilItHasReadIt)
{
    Gate gate;
    Fault stop = beforeCall(Call::Send, 1, [&gate](const CallInfo&) { gate.pass(); });
    EciParms parms = asyncCall("LATER");
    parms.record.channel = channel;
    auto sending = callInThread(
        [&] { return QPX_ECI_Execute_Channel(connection.token, &parms.record); });
    ASSERT_TRUE(gate.awaitArrival());

    // The receiver sleeps once it has seen the end, until nobody sends any more.
    Fault receiverSleeps = beforeCall(Call::CondWait, 1, [](const CallInfo&) {});
    connection.peer.close();
    ASSERT_TRUE(receiverSleeps.awaitHits());
    auto collecting = callInThread([this] { return collectAndChange(); });
    while (!collecting.hasEnded() && !waits) std::this_thread::yield();
    EXPECT_FALSE(changed);

    gate.open();
    EXPECT_RC(QPX_ERR_LOSTGWCON, collecting.get());
    // Sent whole or not, the call is told of the loss by one of the two.
    int rc = sending.get();
    EXPECT_TRUE(rc == 0 || rc == QPX_ERR_LOSTGWCON) << support::rcName(rc);
}
