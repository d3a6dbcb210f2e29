// Every way to close a connection, and everything that may be in progress on it meanwhile.
#ifndef SUPPORT_CLOSE_MATRIX_H
#define SUPPORT_CLOSE_MATRIX_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "qpxclient_esi.h"
#include "standin/gateway.h"
#include "support/connection_script.h"
#include "support/trace_file.h"

namespace matrix {

using namespace script;
using support::asyncCall;
using support::EciParms;
using support::getReply;
using support::getReplyWait;
using support::getSpecificReplyWait;
using support::RunningCall;
using support::syncCall;
using support::TraceFile;

enum class Closing {
    Close,      // without limit; the work is finished while it waits
    PurgeLong,  // a purge whose time is more than enough; likewise
    PurgeShort, // a purge whose time runs out
    PurgeNow,   // a purge that does not wait
    CloseAll
};

enum class Work {
    Nothing,
    SyncCall,
    AsyncRequests,      // two, not answered yet
    UncollectedReply,   // an asynchronous request, answered
    CollectorOfNothing, // a thread that waits for any reply, with nothing asked
    CollectorOfAny,     // the same, with a request
    CollectorOfOne,     // a thread that waits for the reply of a request
    SyncChannel,
    AsyncChannel,
    PasswordCheck,
    SystemsQuery
};

inline bool isPatient(Closing closing)
{
    return closing == Closing::Close || closing == Closing::PurgeLong;
}

using Case = std::tuple<Closing, Work>;

inline std::string nameOf(const ::testing::TestParamInfo<Case>& info)
{
    static const char* const closings[] = {"Close", "PurgeLong", "PurgeShort", "PurgeNow",
                                           "CloseAll"};
    static const char* const works[] = {"Nothing",          "SyncCall",           "AsyncRequests",
                                        "UncollectedReply", "CollectorOfNothing", "CollectorOfAny",
                                        "CollectorOfOne",   "SyncChannel",        "AsyncChannel",
                                        "PasswordCheck",    "SystemsQuery"};
    return std::string(closings[static_cast<int>(std::get<0>(info.param))]) + "With" +
           works[static_cast<int>(std::get<1>(info.param))];
}

inline auto everyWork()
{
    return ::testing::Values(Work::Nothing, Work::SyncCall, Work::AsyncRequests,
                             Work::UncollectedReply, Work::CollectorOfNothing, Work::CollectorOfAny,
                             Work::CollectorOfOne, Work::SyncChannel, Work::AsyncChannel,
                             Work::PasswordCheck, Work::SystemsQuery);
}

// One connection to the stand-in gateway, the work on it, and its close.
class BusyConnection {
public:
    BusyConnection()
    {
        standin::GatewayOptions options;
        options.systems = {{"SYSTEM1", "the first"}, {"SYSTEM2", "the second"}};
        gateway = std::make_unique<standin::Gateway>(options);
        gateway->setEsiReply([](const standin::EsiRequest&) { return standin::EsiReply(); });
        EXPECT_RC(QPX_OK, QPX_openRemoteGatewayConnection(localHost(), gateway->port(), &token, 0));
        EXPECT_RC(ECI_NO_ERROR, ECI_createChannel("BUSY", &channel));
        EXPECT_RC(ECI_NO_ERROR, ECI_createContainer(channel, "DATA", ECI_BIT, 0, "data", 4));
    }

    // Returns when the gateway has the requests and every waiting thread waits.
    void begin(Work work)
    {
        if (work == Work::UncollectedReply) return sendAndAwaitDelivery();
        gateway->hold();
        switch (work) {
        case Work::SyncCall: return startHeld(syncCall("ECHO", text("hello")));
        case Work::AsyncRequests: send(), send(); return;
        case Work::CollectorOfNothing: return startCollector(getReplyWait(8));
        case Work::CollectorOfAny: send(); return startCollector(getReplyWait(8));
        case Work::CollectorOfOne: return startCollector(getSpecificReplyWait(send(), 8));
        case Work::SyncChannel: return startHeld(onChannel(syncCall("ECHO")));
        case Work::AsyncChannel: return sendOnChannel();
        case Work::PasswordCheck: return startPasswordCheck();
        case Work::SystemsQuery: return startSystemsQuery();
        default: return;
        }
    }

    RunningCall<int> start(Closing closing)
    {
        return callInThread([this, closing] {
            switch (closing) {
            case Closing::Close: return QPX_closeGatewayConnection(&token);
            case Closing::PurgeLong: return QPX_purgeGatewayConnection(&token, 3600);
            case Closing::PurgeShort: return QPX_purgeGatewayConnection(&token, 1);
            case Closing::PurgeNow: return QPX_purgeGatewayConnection(&token, 0);
            default: return QPX_closeAllGatewayConnections();
            }
        });
    }

    // Lets the gateway answer, and collects what no thread waits for.
    void finish()
    {
        gateway->release();
        for (; uncollected > 0; --uncollected) {
            EciParms parms = getReplyWait(8);
            results.push_back(QPX_ECI_Execute(token, &parms.record));
        }
    }

    // The work, from its beginning to the end of the close. The trace must be at level 2 or above.
    void closeDuring(Work work, Closing closing, const std::string& waitLine)
    {
        begin(work);
        auto closes = start(closing);
        if (!waitLine.empty()) {
            EXPECT_TRUE(trace.awaitText(waitLine)) << trace.text();
        }
        if (isPatient(closing) && !waitLine.empty()) {
            EXPECT_FALSE(closes.hasEnded());
            EXPECT_EQ(0U, gateway->closeFlowCount());
            finish();
        }
        EXPECT_RC(QPX_OK, closes.get());
        awaitCalls();
    }

    // Waits for the threads that the work has.
    void awaitCalls()
    {
        for (RunningCall<int>& party : parties) results.push_back(party.get());
    }

    // What the application can do with a channel that no call holds any more.
    void deleteChannel()
    {
        auto use = callInThread([this] {
            EXPECT_RC(ECI_NO_ERROR, ECI_createContainer(channel, "MORE", ECI_CHAR, 819, "more", 4));
            return ECI_deleteChannel(&channel);
        });
        EXPECT_RC(ECI_NO_ERROR, use.get());
    }

    std::unique_ptr<standin::Gateway> gateway;
    TraceFile trace{4};
    QPX_ConnToken_t token = nullptr;
    ECI_ChannelToken_t channel = nullptr;
    std::vector<int> results; // of all calls that have had to wait, or were collected by finish()

private:
    using Call = int (*)(QPX_ConnToken_t, QPX_ECI_PARMS*);

    EciParms onChannel(EciParms parms)
    {
        parms.record.channel = channel;
        return parms;
    }

    void startCall(EciParms parms)
    {
        Call call = parms.record.channel != nullptr ? QPX_ECI_Execute_Channel : QPX_ECI_Execute;
        records.push_back(std::make_unique<EciParms>(std::move(parms)));
        parties.push_back(callInThread([call, gwTok = token, record = &records.back()->record] {
            return call(gwTok, record);
        }));
    }

    void startHeld(EciParms parms)
    {
        startCall(std::move(parms));
        EXPECT_TRUE(gateway->awaitHeld(1));
    }

    void startCollector(EciParms parms)
    {
        trace.forget();
        startCall(std::move(parms));
        EXPECT_TRUE(trace.awaitText("clapi_lock.clapiWaitEvent() Waiting on event"));
        uncollected = 0; // the thread does it
    }

    // Sends an asynchronous request and returns its qualifier.
    int send()
    {
        EciParms parms = asyncCall("ECHO", text("question"));
        EXPECT_RC(0, QPX_ECI_Execute(token, &parms.record));
        uncollected += 1;
        EXPECT_TRUE(gateway->awaitHeld(static_cast<std::size_t>(uncollected)));
        return parms.record.eci_message_qualifier;
    }

    void sendOnChannel()
    {
        EciParms parms = onChannel(asyncCall("ECHO"));
        EXPECT_RC(0, QPX_ECI_Execute_Channel(token, &parms.record));
        uncollected += 1;
        EXPECT_TRUE(gateway->awaitHeld(1));
    }

    // The reply has been delivered when that of a later request has.
    void sendAndAwaitDelivery()
    {
        EciParms parms = asyncCall("ECHO", text("question"));
        EXPECT_RC(0, QPX_ECI_Execute(token, &parms.record));
        EciParms later = syncCall("ECHO", text("later"));
        EXPECT_RC(0, QPX_ECI_Execute(token, &later.record));
        uncollected += 1;
    }

    void startPasswordCheck()
    {
        parties.push_back(callInThread([this] {
            return QPX_ESI_verifyPassword(token, "USER", "SECRET", "SERVER", &details);
        }));
        EXPECT_TRUE(gateway->awaitHeld(1));
    }

    void startSystemsQuery()
    {
        parties.push_back(
            callInThread([this] { return QPX_listSystems(token, &systems, &list[0]); }));
        EXPECT_TRUE(gateway->awaitHeld(1));
    }

    int uncollected = 0;
    std::vector<std::unique_ptr<EciParms>> records;
    ESI_DETAILS details = {};
    unsigned short systems = 4;
    QPX_listSystem_t list[4] = {};
    std::vector<RunningCall<int>> parties;
};

} // namespace matrix

#endif
