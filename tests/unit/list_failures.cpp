// The query of systems when locks, events, memory or the socket fail it.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "clapi_gwytok.h"
#include "support/esi_script.h"
#include "support/faults.h"
#include "support/refusals.h"

using namespace script;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::failCall;
using support::failCallOn;
using support::Fault;
using support::Gate;
using support::Refusal;
using support::Refused;
using support::Threads;
using support::TraceFile;

namespace {

class ListFailure : public EsiConnection {
protected:
    // Queries made by this thread, and answered by another.
    int list() { return QPX_listSystems(connection.token, &systems.count, systems.get()); }
    int answered(const Bytes& answer)
    {
        auto answering = callInThread([&] {
            int messageId = connection.awaitRequest().messageId();
            connection.peer.send(answer);
            return messageId;
        });
        int rc = list();
        EXPECT_EQ(1, answering.get());
        return rc;
    }
    static Bytes good() { return ListReply().reported(1).data(systemEntry("PROD")).to(1); }

    // The nth taking, or giving up, of a lock by this thread fails.
    static Fault failLock(Clapilock& lock, int nth = 1)
    {
        return failCallOn(Call::MutexLock, &lock.lock, nth, EINVAL, Threads::Calling);
    }
    static Fault failUnlock(Clapilock& lock, int nth = 1)
    {
        return failCallOn(Call::MutexUnlock, &lock.lock, nth, EPERM, Threads::Calling);
    }

    // How often this thread takes the token's table lock in an answered query.
    int tableLocks()
    {
        Fault count = failCallOn(Call::MutexLock, &tableLock().lock, 1000000, EINVAL,
                                 Threads::Calling);
        EXPECT_RC(0, answered(good()));
        systems = SystemArray(2);
        return count.calls();
    }

    void expectLine(int point, const std::string& text)
    {
        EXPECT_TRUE(trace.wrote(point, "*EXC*", text)) << trace.text();
    }

    // Nothing has changed, the slot is free, no call is counted, and the connection serves.
    void expectNothingLeft()
    {
        EXPECT_EQ(2, systems.count);
        EXPECT_TRUE(systems.isUntouched());
        expectFree();
    }
    void expectFree()
    {
        EXPECT_EQ(0, firstSlot().state);
        EXPECT_EQ(0, connection.token->requestCount.load());
        expectServing();
    }

    void expectNotSent() { EXPECT_TRUE(connection.peer.isQuiet()); }

    RequestSlot& firstSlot() { return connection.token->table.slot[0]; }
    Clapilock& tableLock() { return connection.token->tableLock; }
    Clapilock& sendLock() { return connection.token->sendLock; }

    TraceFile trace{1};
    SystemArray systems{2};
};

TEST_F(ListFailure, OfTheListLockRefusesTheQuery)
{
    {
        Fault fault = failLock(gtlLock);
        EXPECT_RC(-9, list());
        EXPECT_EQ(1, fault.calls());
    }
    EXPECT_EQ(0, trace.timesWrote(1080));
    expectNotSent();
    expectNothingLeft();
}

TEST_F(ListFailure, ToLockTheTableRefusesTheQuery)
{
    {
        Fault fault = failLock(tableLock());
        EXPECT_RC(-9, list());
        EXPECT_EQ(1, fault.hits());
    }
    expectLine(1021, "API.QPX_listSystems() Failed to lock slot table");
    expectNotSent();
    expectNothingLeft();
}

TEST_F(ListFailure, ToUnlockTheTableFreesTheSlot)
{
    {
        Fault fault = failUnlock(tableLock());
        EXPECT_RC(-9, list());
        EXPECT_EQ(1, fault.hits());
    }
    expectLine(1022, "API.QPX_listSystems() Failed to unlock slot table");
    expectNotSent();
    expectNothingLeft();
}

TEST_F(ListFailure, ToCreateTheEventOfTheSlotIsASystemError)
{
    {
        Fault fault = failCallOn(Call::MutexInit, &firstSlot().requestEvent.mutex, 1, ENOMEM);
        EXPECT_RC(-9, list());
        EXPECT_EQ(1, fault.hits());
    }
    expectNotSent();
    expectNothingLeft();
}

TEST_F(ListFailure, ToFindASlotKeepsItsCodeWhenTheTableCannotBeUnlocked)
{
    for (RequestSlot& slot : connection.token->table.slot) slot.state = 1;
    {
        Fault noMemory = failCall(Call::Malloc, 1, ENOMEM, Threads::Calling);
        Fault fault = failUnlock(tableLock());
        EXPECT_RC(-111, list());
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_EQ(1, trace.timesWrote(1022));
    for (RequestSlot& slot : connection.token->table.slot) {
        EXPECT_EQ(1, slot.state);
        slot.state = 0;
    }
    expectNotSent();
    expectNothingLeft();
}

TEST_F(ListFailure, ToArmTheEventOfTheSlotFreesIt)
{
    {
        Refusal refusal(Refused::EventArmed);
        EXPECT_RC(-9, list());
        EXPECT_TRUE(refusal.hasHappened());
    }
    expectLine(1023, "API.QPX_listSystems() Failed to set request event");
    expectNotSent();
    expectNothingLeft();
}

TEST_F(ListFailure, ToLockTheTableBeforeSendingFreesTheSlot)
{
    {
        Fault fault = failLock(tableLock(), 2);
        EXPECT_RC(-9, list());
        EXPECT_EQ(1, fault.hits());
    }
    expectNotSent();
    expectNothingLeft();
}

TEST_F(ListFailure, ToAcquireTheSendLockFreesTheSlot)
{
    {
        Fault fault = failLock(sendLock());
        EXPECT_RC(-9, list());
        EXPECT_EQ(1, fault.hits());
    }
    expectLine(1024, "API.QPX_listSystems() Failed to acquire send lock");
    expectNotSent();
    expectNothingLeft();
}

TEST_F(ListFailure, ToReleaseTheSendLockEndsTheQueryWithoutItsReply)
{
    {
        Fault fault = failUnlock(sendLock());
        EXPECT_RC(-9, list());
        EXPECT_EQ(1, fault.hits());
    }
    expectLine(1025, "API.QPX_listSystems() Failed to release send lock");
    EXPECT_EQ(1, connection.awaitRequest().messageId());
    expectNothingLeft();
}

TEST_F(ListFailure, ToSendIsALostConnection)
{
    {
        Fault fault = failCall(Call::Send, 1, EPIPE, Threads::Calling);
        EXPECT_RC(-102, list());
        EXPECT_EQ(1, fault.hits());
    }
    expectNotSent();
    expectNothingLeft();
}

TEST_F(ListFailure, ToSendKeepsItsCodeWhenTheSendLockCannotBeReleased)
{
    {
        Fault broken = failCall(Call::Send, 1, EPIPE, Threads::Calling);
        Fault fault = failUnlock(sendLock());
        EXPECT_RC(-102, list());
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_EQ(1, trace.timesWrote(1025));
    expectNothingLeft();
}

TEST_F(ListFailure, FindsNoMemoryForTheRequest)
{
    {
        Fault noMemory = failCall(Call::Malloc, 1, ENOMEM, Threads::Calling);
        EXPECT_RC(-111, list());
        EXPECT_EQ(1, noMemory.hits());
    }
    expectNotSent();
    expectNothingLeft();
}

TEST_F(ListFailure, ToWaitIsNoSuccess)
{
    {
        Fault fault = failCall(Call::CondWait, 1, EINVAL, Threads::Calling);
        EXPECT_NE(0, list());
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_EQ(1, connection.awaitRequest().messageId());
    expectNothingLeft();
}

// The receiver is in the middle of a list, 40,000 bytes of 70,000, when the query gives up: from
// its return on the array is the caller's alone.
TEST_F(ListFailure, ToWaitLeavesNoReceiverBehindThatWritesToTheList)
{
    SystemArray large(1000);
    Bytes answer = ListReply().reported(1000).data(filled(70000, 'S')).to(1);
    Gate reading;
    reading.open();
    Fault blocked = beforeCall(
        Call::Recv, 0,
        [reading](const CallInfo& info) mutable {
            if (info.second == 30000) reading.pass();
        },
        Threads::Others);
    Fault untilThen = beforeCall(
        Call::CondWait, 1, [reading](const CallInfo&) mutable { reading.awaitArrival(); },
        Threads::Calling);
    Fault fault = failCall(Call::CondWait, 1, EINVAL, Threads::Calling);
    auto answering = callInThread([&] {
        connection.awaitRequest();
        connection.peer.send(support::slice(answer, 0, answer.size() - 30000));
        return true;
    });

    EXPECT_NE(0, QPX_listSystems(connection.token, &large.count, large.get()));

    EXPECT_TRUE(answering.get());
    EXPECT_EQ(1, fault.hits());
    EXPECT_EQ(1000, large.count);
    std::memset(large.get(), 'M', 70000);
    EXPECT_TRUE(connection.peer.awaitEof());
    EXPECT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
    EXPECT_EQ(support::toText(filled(70000, 'M')),
              std::string(reinterpret_cast<char*>(large.get()), 70000));
    EXPECT_TRUE(large.hasNothingBehind());
    EXPECT_EQ(0, firstSlot().state);
}

// ---- Freeing the slot: -9 wins over everything ----

TEST_F(ListFailure, ToLockTheTableForFreeingIsReported)
{
    int last = tableLocks();
    {
        Fault fault = failLock(tableLock(), last);
        EXPECT_RC(-9, answered(good()));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine(1026, "API.QPX_listSystems() Failed to lock slot table to free slot");
    EXPECT_EQ(1, systems.count);
    EXPECT_STREQ("PROD", systems.get()[0].SystemName);
}

TEST_F(ListFailure, ToLockTheTableForFreeingWinsOverMoreSystems)
{
    int last = tableLocks();
    Fault fault = failLock(tableLock(), last);

    EXPECT_RC(-9, answered(ListReply().reported(9).serverCode(-25).to(1)));

    EXPECT_EQ(1, trace.timesWrote(1026));
    EXPECT_EQ(9, systems.count);
}

TEST_F(ListFailure, ToLockTheTableForFreeingWinsOverNoSystems)
{
    int last = tableLocks();
    Fault fault = failLock(tableLock(), last);

    EXPECT_RC(-9, answered(ListReply().serverCode(-26).to(1)));

    EXPECT_EQ(1, trace.timesWrote(1026));
    EXPECT_EQ(0, systems.count);
}

TEST_F(ListFailure, ToUnlockTheTableAfterFreeingIsReported)
{
    int last = tableLocks();
    {
        Fault fault = failUnlock(tableLock(), last);
        EXPECT_RC(-9, answered(good()));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine(1027, "API.QPX_listSystems() Failed to unlock slot table after freeing slot");
    EXPECT_EQ(1, systems.count);
    expectFree();
}

TEST_F(ListFailure, ToUnlockTheTableAfterFreeingWinsOverMoreSystems)
{
    int last = tableLocks();
    {
        Fault fault = failUnlock(tableLock(), last);
        EXPECT_RC(-9, answered(ListReply().reported(9).serverCode(-25).to(1)));
    }
    EXPECT_EQ(1, trace.timesWrote(1027));
    EXPECT_EQ(9, systems.count);
    expectFree();
}

TEST_F(ListFailure, ToUnlockTheTableAfterFreeingWinsOverNoSystems)
{
    int last = tableLocks();
    {
        Fault fault = failUnlock(tableLock(), last);
        EXPECT_RC(-9, answered(ListReply().serverCode(-26).to(1)));
    }
    EXPECT_EQ(1, trace.timesWrote(1027));
    expectFree();
}

// ---- Unregistering ----

// A query that cannot be counted out can never be waited for: these connections are not closed.
class ListFailureToUnregister : public ListFailure {
protected:
    ~ListFailureToUnregister() override { connection.forget(); }
};

TEST_F(ListFailureToUnregister, IsReported)
{
    Fault fault = failLock(gtlLock, 2);

    EXPECT_RC(-9, answered(good()));

    EXPECT_EQ(1, fault.hits());
    expectLine(1080, "API.QPX_listSystems() Unregister request failed");
    EXPECT_EQ(1, systems.count);
    EXPECT_EQ(1, connection.token->requestCount.load());
}

TEST_F(ListFailureToUnregister, KeepsTheCodesOfTheList)
{
    {
        Fault fault = failLock(gtlLock, 2);
        EXPECT_RC(-25, answered(ListReply().reported(9).serverCode(-25).to(1)));
        EXPECT_EQ(1, fault.hits());
    }
    {
        Fault fault = failLock(gtlLock, 2);
        EXPECT_RC(-26, answered(ListReply().serverCode(-26).to(1)));
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_EQ(2, trace.timesWrote(1080));
}

TEST_F(ListFailureToUnregister, KeepsTheCodeOfACheck)
{
    Fault fault = failLock(gtlLock, 2);

    EXPECT_RC(-109, QPX_listSystems(connection.token, nullptr, systems.get()));

    EXPECT_EQ(1, trace.timesWrote(1019));
    EXPECT_EQ(1, trace.timesWrote(1080));
}

} // namespace
