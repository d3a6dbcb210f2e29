// What the tests of forced orders share: a connection whose other end the test plays, calls of
// every kind that are held and answered, and what must be left when everything has ended.
#ifndef SCHEDULE_RACE_FIXTURE_H
#define SCHEDULE_RACE_FIXTURE_H

#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/socket.h>

#include <memory>
#include <string>

#include "clapi_channel.h"
#include "clapi_diag.h"
#include "clapi_gwytok.h"
#include "clapi_impl.h"
#include "qpxclient_esi.h"
#include "schedule/scheduler.h"
#include "support/eci_script.h"
#include "support/mutex.h"
#include "support/token_list.h"
#include "support/trace_file.h"

namespace race {

using namespace script;
using schedule::Counter;
using schedule::Hold;
using support::asyncCall;
using support::EciParms;
using support::getReply;
using support::getReplyWait;
using support::getSpecificReply;
using support::getSpecificReplyWait;
using support::RunningCall;
using support::syncCall;
using support::TraceFile;

// ---- Calls ----

enum class Kind {
    Sync,        // a program call
    Extended,    // one that leaves no unit of work open
    Async,       // collected later
    SyncChannel, // the same two with a channel
    AsyncChannel,
    Password, // verifies a password
    Systems   // asks for the list of systems
};

inline const char* nameOf(Kind kind)
{
    static const char* const names[] = {"Sync",         "Extended", "Async",  "SyncChannel",
                                        "AsyncChannel", "Password", "Systems"};
    return names[static_cast<int>(kind)];
}

inline bool isAsync(Kind kind)
{
    return kind == Kind::Async || kind == Kind::AsyncChannel;
}

inline bool hasChannel(Kind kind)
{
    return kind == Kind::SyncChannel || kind == Kind::AsyncChannel;
}

// Calls whose reply changes the data that they send.
inline bool isAnsweredInPlace(Kind kind)
{
    return hasChannel(kind) || kind == Kind::Sync || kind == Kind::Extended;
}

// Calls whose code on an ended connection is the writer's, whatever has ended it.
inline bool isNoProgramCall(Kind kind)
{
    return kind == Kind::Password || kind == Kind::Systems;
}

// A reply that adds a container to the channel, which had none.
inline Bytes channelReply(int messageId, const std::string& contents)
{
    return flow(replyType, messageId, 0, "ECI",
                be32(1) + be32(0) + be32(0) + be32(0) + text("    ") + be32(0) + hex("00") +
                    hex("FF") + text("CHANNEL         ") + be32(819) + be32(1) +
                    text("ADDED           ") + hex("01 0000 01") + be32(0) +
                    be32(static_cast<int>(contents.size())) + text(contents));
}

// A password that has been accepted: three times of seven fields, and the count of bad attempts.
inline Bytes passwordReply(int messageId, int invalidCount)
{
    return flow(replyType, messageId, 0, "ESI", be32(0) + filled(84) + be32(invalidCount));
}

// One system, whose name and description fill their fields.
inline Bytes systemsReply(int messageId)
{
    return flow(replyType, messageId, 0, "ECI",
                be32(9) + be32(1) + be32(0) + be32(70) + text("SYSTEMA ") + hex("00") +
                    filled(60, 'd') + hex("00"));
}

// A call of some kind with the memory that it needs; outlives the call.
class Call {
public:
    explicit Call(Kind wantedKind) : kind(wantedKind)
    {
        parms = isAsync(kind) ? asyncCall("PROG") : syncCall("PROG");
        if (!hasChannel(kind)) parms.withCommarea(filled(8, 'q'));
        if (kind == Kind::Extended) parms.withExtendMode(ECI_EXTENDED);
        if (!hasChannel(kind)) return;
        EXPECT_RC(0, ECI_createChannel("CHANNEL", &channel));
        parms.record.channel = channel;
    }
    ~Call()
    {
        if (channel != nullptr) ECI_deleteChannel(&channel);
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    int run(QPX_ConnToken_t token)
    {
        static const char user[] = "USER";
        static const char password[] = "PASSWORD";
        if (kind == Kind::Password)
            return QPX_ESI_verifyPassword(token, user, password, nullptr, &details);
        if (kind == Kind::Systems) return QPX_listSystems(token, &systems, list);
        if (hasChannel(kind)) return QPX_ECI_Execute_Channel(token, &parms.record);
        return QPX_ECI_Execute(token, &parms.record);
    }

    Bytes answer(int messageId) const
    {
        if (kind == Kind::Password) return passwordReply(messageId, 7);
        if (kind == Kind::Systems) return systemsReply(messageId);
        if (hasChannel(kind)) return channelReply(messageId, "answered");
        return ProgramReply().commarea(text("answered")).to(messageId);
    }

    // The answer has arrived where it belongs. That of an asynchronous call with a COMMAREA is
    // in the record that has collected it.
    void expectAnswered() const
    {
        if (kind == Kind::Password) {
            EXPECT_EQ(7, details.invalidCount);
        } else if (kind == Kind::Systems) {
            EXPECT_EQ(1, systems);
            EXPECT_STREQ("SYSTEMA", list[0].SystemName);
        } else if (hasChannel(kind)) {
            EXPECT_EQ(1, channel->numContainers.load());
        } else if (!isAsync(kind)) {
            EXPECT_EQ(text("answered"), parms.commarea());
        }
    }

    // What the call sends is as the application has left it.
    void expectUnchanged() const
    {
        if (hasChannel(kind)) {
            EXPECT_EQ(0, channel->numContainers.load());
        } else {
            EXPECT_EQ(filled(8, 'q'), parms.commarea());
        }
    }

    Kind kind;
    EciParms parms;
    ESI_DETAILS details = {};
    unsigned short systems = 2;
    QPX_listSystem_t list[2] = {};
    ECI_ChannelToken_t channel = nullptr;
};

// ---- The list of tokens ----

inline void expectNoTokenLeft()
{
    EXPECT_TRUE(support::contains(support::dumpedTokens(), "The Gateway Token List is EMPTY\n"));
}

// The lock of the list, which from here on refuses whoever gives it up without holding it.
class StrictListLock {
public:
    StrictListLock()
    {
        EXPECT_EQ(QPX_OK, clapiInit());
        EXPECT_TRUE(support::makeStrict(gtlLock.lock));
    }

    // Nobody holds it, and nobody has given it up more often than taken it.
    void expectIntact()
    {
        EXPECT_TRUE(support::isFree(gtlLock.lock));
        EXPECT_EQ(0, refused.times());
    }

private:
    Counter refused{SchedulePoint::releaseRefused, &gtlLock};
};

// ---- A connection and its other end ----

class RaceTest : public ::testing::Test {
protected:
    // Memory is overwritten when it is freed: who follows a pointer into it shall not get away.
    RaceTest() { mallopt(M_PERTURB, 0xA5); }

    _QPX_ConnToken_t* token() { return connection.token; }
    RequestSlot& slot(int messageId) { return token()->table.slot[messageId - 1]; }

    int execute(EciParms& parms) { return QPX_ECI_Execute(token(), &parms.record); }

    RunningCall<int> start(Call& call)
    {
        return callInThread([&call, gwTok = token()] { return call.run(gwTok); });
    }
    RunningCall<int> start(EciParms& parms) { return connection.start(parms); }

    // What had the table when this began has given it up. Passes by the holds of the test.
    void passTable() { passTableOf(token()); }
    static void passTableOf(_QPX_ConnToken_t* gwTok)
    {
        pthread_mutex_lock(&gwTok->tableLock.lock);
        pthread_mutex_unlock(&gwTok->tableLock.lock);
    }

    // The receiver has dealt with everything that has been sent to it: the failure of a request
    // that does not exist is sent behind it, and has been looked for in vain.
    void awaitReceiver()
    {
        Counter passed(SchedulePoint::slotMissed, &token()->table);
        connection.peer.send(errorFlow(9999, 61445));
        passed.await(1);
    }

    // Sends the answer to a slot that waits, and returns when it has been delivered.
    void deliver(const Bytes& answer)
    {
        int before = delivered.times();
        connection.peer.send(answer);
        delivered.await(before + 1);
        passTable();
    }
    void deliver(int messageId, const std::string& contents)
    {
        deliver(ProgramReply().commarea(text(contents)).to(messageId));
    }

    // Ends the connection, though what the library writes can still be read, and returns when
    // every waiting slot has been told.
    void lose()
    {
        connection.peer.shutdownWriting();
        awaitSweep();
    }
    void closeByGateway()
    {
        connection.peer.send(closeFlow());
        awaitSweep();
    }
    void awaitSweep()
    {
        swept.await(1);
        passTable();
    }

    // An asynchronous request that has been sent.
    int send()
    {
        EciParms parms = asyncCall("LATER", filled(8, 'a'));
        EXPECT_RC(0, execute(parms));
        connection.awaitRequest();
        return parms.record.eci_message_qualifier;
    }

    void expectCollected(int messageId, const std::string& contents)
    {
        EciParms parms = getReply(8);
        EXPECT_RC(0, execute(parms));
        EXPECT_EQ(messageId, int(parms.record.eci_message_qualifier));
        EXPECT_EQ(text(contents), parms.commarea());
    }
    void expectListLockIntact() { listLock.expectIntact(); }
    void expectNothingToCollect()
    {
        EciParms parms = getReply(8);
        EXPECT_RC(ECI_ERR_NO_REPLY, execute(parms));
    }

    // No trace of any call is left on the connection.
    void expectAtRest()
    {
        passTable();
        for (const RequestSlot& each : token()->table.slot)
            EXPECT_EQ(SLOT_FREE, each.state) << "slot " << each.messageId;
        EXPECT_TRUE(token()->table.slot[SLOTS_PER_TABLE - 1].nextSlot == nullptr);
        EXPECT_EQ(0, token()->asyncCount.load());
        EXPECT_EQ(0, token()->requestCount.load());
        EXPECT_EQ(0, token()->senders);
        EXPECT_TRUE(token()->firstReply == nullptr);
        EXPECT_TRUE(token()->slotBeingRead == nullptr);
    }

    // The next call gets the first message id, and its answer.
    void expectServing()
    {
        EciParms parms = syncCall("AGAIN", filled(8, '?'));
        auto call = start(parms);
        EXPECT_EQ(1, connection.awaitRequest().messageId());
        connection.peer.send(ProgramReply().commarea(text("in order")).to(1));
        EXPECT_RC(0, call.get());
        EXPECT_EQ(text("in order"), parms.commarea());
    }

    // The connection has nothing in progress any more: it serves, if it stands, and closes.
    void expectClosable()
    {
        expectAtRest();
        if (token()->connStatus == CONN_CONNECTED) {
            expectServing();
            connection.closeInOrder();
        } else {
            EXPECT_RC(0, QPX_closeGatewayConnection(&connection.token));
            connection.forget();
        }
        expectNoTokenLeft();
        expectListLockIntact();
    }

    // The token has been freed by a close.
    void expectClosed()
    {
        connection.forget();
        expectNoTokenLeft();
        expectListLockIntact();
    }

    StrictListLock listLock; // before there is a connection
    Counter delivered{SchedulePoint::slotDelivered};
    Counter swept{SchedulePoint::connectionEnded};
    Counter sendersAwaited{SchedulePoint::beforeSendersWait};
    Counter workAwaited{SchedulePoint::beforeWorkWait};
    Counter receiverAwaited{SchedulePoint::beforeReceiverWait};
    Counter queueAwaited{SchedulePoint::beforeQueueWait};
    Counter replyAwaited{SchedulePoint::beforeReplyWait};
    Counter channelAwaited{SchedulePoint::beforeChannelWait};
    ScriptedConnection connection;
};

// ---- Closing ----

enum class Close { InOrder, Limited, Purge, All };

inline const char* nameOf(Close close)
{
    static const char* const names[] = {"Close", "LimitedPurge", "Purge", "CloseAll"};
    return names[static_cast<int>(close)];
}

// A limit that no test reaches.
constexpr int longLimit = 3600;

inline int perform(Close close, QPX_ConnToken_t* token)
{
    switch (close) {
    case Close::InOrder: return QPX_closeGatewayConnection(token);
    case Close::Limited: return QPX_purgeGatewayConnection(token, longLimit);
    case Close::Purge: return QPX_purgeGatewayConnection(token, 0);
    case Close::All: break;
    }
    return QPX_closeAllGatewayConnections();
}

// Whether calls in progress are waited for before the connection is closed.
inline bool waitsForWork(Close close)
{
    return close == Close::InOrder || close == Close::Limited;
}

inline RunningCall<int> startClose(Close close, QPX_ConnToken_t* token)
{
    return callInThread([close, token] { return perform(close, token); });
}

} // namespace race

#endif
