// What the tests of channels and their containers share: every call that takes a channel, and a
// look at how a channel is held.
#ifndef UNIT_CHANNEL_FIXTURE_H
#define UNIT_CHANNEL_FIXTURE_H

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "clapi_channel.h"
#include "clapi_diag.h"
#include "clapi_impl.h"
#include "qpxclient.h"
#include "support/call_in_thread.h"
#include "support/channels.h"
#include "support/expect_rc.h"
#include "support/faults.h"
#include "support/mutex.h"
#include "support/trace_file.h"

namespace fixture {

// A call on a channel that has a container CUSTOMER of four bytes, on which browsing stands.
struct ChannelCall {
    const char* name;
    int (*make)(ECI_ChannelToken_t);
};

inline void PrintTo(const ChannelCall& call, std::ostream* stream)
{
    *stream << call.name;
}

inline const ChannelCall containerCalls[] = {
    {"createContainer",
     [](ECI_ChannelToken_t token) {
         return ECI_createContainer(token, "NEW", ECI_BIT, 0, "data", 4);
     }},
    {"deleteContainer",
     [](ECI_ChannelToken_t token) { return ECI_deleteContainer(token, "CUSTOMER"); }},
    {"getFirstContainer",
     [](ECI_ChannelToken_t token) {
         ECI_CONTAINER_INFO info;
         return ECI_getFirstContainer(token, &info);
     }},
    {"getNextContainer",
     [](ECI_ChannelToken_t token) {
         ECI_CONTAINER_INFO info;
         return ECI_getNextContainer(token, &info);
     }},
    {"getContainerInfo",
     [](ECI_ChannelToken_t token) {
         ECI_CONTAINER_INFO info;
         return ECI_getContainerInfo(token, "CUSTOMER", &info);
     }},
    {"getContainerData",
     [](ECI_ChannelToken_t token) {
         char buffer[4];
         return ECI_getContainerData(token, "CUSTOMER", buffer, 4, 0, nullptr);
     }},
    {"setContainerData",
     [](ECI_ChannelToken_t token) { return ECI_setContainerData(token, "CUSTOMER", "data!", 5); }},
};

inline const ChannelCall getNameCall = {"getChannelName", [](ECI_ChannelToken_t token) {
                                            char name[ECI_NAME_SIZE];
                                            return ECI_getChannelName(token, name);
                                        }};

inline const ChannelCall deleteCall = {
    "deleteChannel", [](ECI_ChannelToken_t token) { return ECI_deleteChannel(&token); }};

// Those that leave the channel in being, and all.
inline std::vector<ChannelCall> callsThatKeep()
{
    std::vector<ChannelCall> calls(std::begin(containerCalls), std::end(containerCalls));
    calls.push_back(getNameCall);
    return calls;
}

inline std::vector<ChannelCall> everyCall()
{
    std::vector<ChannelCall> calls = callsThatKeep();
    calls.push_back(deleteCall);
    return calls;
}

// A channel as ChannelCall expects it.
class CustomerChannel : public support::Channel {
public:
    CustomerChannel()
    {
        addBit("CUSTOMER", "4711");
        first();
    }
};

using support::isFree;

// Nobody holds the channel, nor any lock of it, and it can be held.
inline ::testing::AssertionResult isUsable(ECI_ChannelToken_t token)
{
    if (!isFree(chanListLock.lock))
        return ::testing::AssertionFailure() << "the lock of the channel list is held";
    if (!isFree(token->serLock.lock))
        return ::testing::AssertionFailure() << "the channel's own lock is held";
    if (!isFree(token->unlockEvent.mutex))
        return ::testing::AssertionFailure() << "the lock of the channel's event is held";
    if (token->isLocked != 0) return ::testing::AssertionFailure() << "the channel is held";
    int rc = lockChannel(token);
    if (rc == 0) rc = unlockChannel(token);
    if (rc == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "the channel cannot be held: " << support::rcName(rc);
}

// A thread in a call that waits for a channel that is held, asleep. The trace has level 4.
template <typename Function>
auto waiterFor(const support::TraceFile& trace, ECI_ChannelToken_t token, Function call)
    -> support::RunningCall<decltype(call())>
{
    int sleepers = support::callCount(support::Call::CondWait);
    int told = trace.timesWrote(1463);
    auto running = support::callInThread(call);
    EXPECT_TRUE(support::awaitCallCount(support::Call::CondWait, sleepers + 1));
    pthread_mutex_lock(&token->unlockEvent.mutex);
    pthread_mutex_unlock(&token->unlockEvent.mutex);
    EXPECT_EQ(told + 1, trace.timesWrote(1463));
    return running;
}

inline std::string waitingLine(ECI_ChannelToken_t token)
{
    return "clapi_channel.lockChannel() Waiting for channel \"ORDER\" (" + support::shown(token) +
           ")";
}

inline std::string finishedLine(ECI_ChannelToken_t token)
{
    return "clapi_channel.lockChannel() Finished waiting for channel \"ORDER\" (" +
           support::shown(token) + ")";
}

// The channels that a dump shows.
inline int channelCount()
{
    support::TraceFile trace(0);
    EXPECT_EQ(0, QPX_ECI_dumpChannels());
    std::string text = trace.text();
    std::size_t at = text.find("Total number of channels=");
    if (at == std::string::npos) return -1;
    return std::stoi(text.substr(at + 25));
}

} // namespace fixture

#endif
