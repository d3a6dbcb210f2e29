// Password calls when locks, events, memory or the socket fail them: the code, the line, and that
// the slot and the connection are as they should be afterwards.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "clapi_gwytok.h"
#include "support/esi_script.h"
#include "support/faults.h"
#include "support/refusals.h"

using namespace script;
using support::afterCall;
using support::Call;
using support::CallInfo;
using support::failCall;
using support::failCallOn;
using support::Fault;
using support::Refusal;
using support::Refused;
using support::Threads;
using support::TraceFile;
using support::TraceRecord;

namespace {

class EsiFailure : public EsiConnection {
protected:
    // Calls made by this thread, and answered by another.
    int verify()
    {
        return QPX_ESI_verifyPassword(connection.token, "USER", "SECRET", "PROD", details.get());
    }
    int change()
    {
        return QPX_ESI_changePassword(connection.token, "USER", "SECRET", "TERCES", "PROD",
                                      details.get());
    }
    int answeredVerify(const Bytes& answer)
    {
        auto answering = callInThread([&] { return answerNext(answer); });
        int rc = verify();
        EXPECT_EQ(1, answering.get());
        return rc;
    }
    int answeredChange(const Bytes& answer)
    {
        auto answering = callInThread([&] { return answerNext(answer); });
        int rc = change();
        EXPECT_EQ(1, answering.get());
        return rc;
    }
    int answerNext(const Bytes& answer)
    {
        int messageId = connection.awaitRequest().messageId();
        connection.peer.send(answer);
        return messageId;
    }

    // The nth taking, or giving up, of a lock by this thread fails.
    static Fault failLock(Clapilock& lock, int nth = 1)
    {
        return failCallOn(Call::MutexLock, &lock.lock, nth, EINVAL, Threads::Calling);
    }
    static Fault failUnlock(Clapilock& lock, int nth = 1)
    {
        return failCallOn(Call::MutexUnlock, &lock.lock, nth, EPERM, Threads::Calling);
    }

    // How often this thread takes the token's table lock in an answered call.
    int tableLocks()
    {
        Fault count = failCallOn(Call::MutexLock, &connection.token->tableLock.lock, 1000000,
                                 EINVAL, Threads::Calling);
        EXPECT_RC(0, answeredVerify(acceptance(1)));
        return count.calls();
    }

    void expectLine(int point, const std::string& text)
    {
        EXPECT_TRUE(trace.wrote(point, "*EXC*", text)) << trace.text();
    }

    // The first slot is free, no call is counted, and the connection serves.
    void expectNothingLeft()
    {
        EXPECT_EQ(0, firstSlot().state);
        EXPECT_EQ(0, connection.token->requestCount.load());
        expectServing();
    }

    void expectNotSent() { EXPECT_TRUE(connection.peer.isQuiet()); }
    void expectSent() { EXPECT_EQ(1, connection.awaitRequest().messageId()); }

    RequestSlot& firstSlot() { return connection.token->table.slot[0]; }
    Clapilock& tableLock() { return connection.token->tableLock; }
    Clapilock& sendLock() { return connection.token->sendLock; }

    TraceFile trace{1};
    Details details;
};

// ---- Registering ----

TEST_F(EsiFailure, OfTheListLockRefusesTheCall)
{
    {
        Fault fault = failLock(gtlLock);
        EXPECT_RC(-9, verify());
        EXPECT_EQ(1, fault.hits());
        EXPECT_EQ(1, fault.calls()); // what is not registered is not unregistered
    }
    EXPECT_TRUE(trace.wroteText(
        "*EXC*  clapi_gwytok.clapiRegisterRequest() Failed to lock Gateway token list\n"));
    EXPECT_EQ(0, trace.timesWrote(1826));
    expectNotSent();
    expectNothingLeft();
}

TEST_F(EsiFailure, OfTheListLockComesBeforeTheTexts)
{
    {
        Fault fault = failLock(gtlLock);
        EXPECT_RC(-9, QPX_ESI_changePassword(connection.token, nullptr, nullptr, nullptr, nullptr,
                                             nullptr));
    }
    EXPECT_EQ(0, trace.timesWrote(1808));
    EXPECT_EQ(0, trace.timesWrote(1827));
    expectNothingLeft();
}

// ---- The slot ----

TEST_F(EsiFailure, ToLockTheTableRefusesTheCall)
{
    {
        Fault fault = failLock(tableLock());
        EXPECT_RC(-9, verify());
        EXPECT_EQ(1, fault.hits());
    }
    expectLine(1817, "clapi_esi.performEsiFlow() <any>lock<any>");
    EXPECT_TRUE(details.areUntouched());
    expectNotSent();
    expectNothingLeft();
}

TEST_F(EsiFailure, ToLockTheTableRefusesAChange)
{
    {
        Fault fault = failLock(tableLock());
        EXPECT_RC(-9, change());
    }
    expectLine(1817, "clapi_esi.performEsiFlow() <any>lock<any>");
    expectNotSent();
    expectNothingLeft();
}

TEST_F(EsiFailure, ToUnlockTheTableFreesTheSlot)
{
    {
        Fault fault = failUnlock(tableLock());
        EXPECT_RC(-9, verify());
        EXPECT_EQ(1, fault.hits());
    }
    expectLine(1818, "clapi_esi.performEsiFlow() <any>unlock<any>");
    EXPECT_TRUE(details.areUntouched());
    expectNotSent();
    expectNothingLeft();
}

TEST_F(EsiFailure, ToCreateTheEventOfTheSlotIsASystemError)
{
    {
        Fault fault = failCallOn(Call::MutexInit, &firstSlot().requestEvent.mutex, 1, ENOMEM);
        EXPECT_RC(-9, verify());
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_EQ(0, trace.timesWrote(1817));
    EXPECT_EQ(0, trace.timesWrote(1818));
    expectNotSent();
    expectNothingLeft();
}

// All sixteen slots are taken, and no table can be added.
class EsiFailureOfFullTable : public EsiFailure {
protected:
    void SetUp() override
    {
        for (RequestSlot& slot : connection.token->table.slot) slot.state = 1;
    }
    void emptyTable()
    {
        for (RequestSlot& slot : connection.token->table.slot) slot.state = 0;
    }
};

TEST_F(EsiFailureOfFullTable, FindsNoMemoryForASlot)
{
    {
        Fault noMemory = failCall(Call::Malloc, 1, ENOMEM, Threads::Calling);
        EXPECT_RC(-111, verify());
        EXPECT_EQ(1, noMemory.hits());
    }
    for (RequestSlot& slot : connection.token->table.slot) EXPECT_EQ(1, slot.state);
    expectNotSent();
    emptyTable();
    expectNothingLeft();
}

TEST_F(EsiFailureOfFullTable, KeepsItsCodeWhenTheTableCannotBeUnlocked)
{
    {
        Fault noMemory = failCall(Call::Malloc, 1, ENOMEM, Threads::Calling);
        Fault fault = failUnlock(tableLock());
        EXPECT_RC(-111, change());
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_EQ(1, trace.timesWrote(1818));
    for (RequestSlot& slot : connection.token->table.slot) EXPECT_EQ(1, slot.state);
    expectNotSent();
    emptyTable();
    expectNothingLeft();
}

// ---- Sending ----

TEST_F(EsiFailure, ToArmTheEventOfTheSlotFreesIt)
{
    {
        Refusal refusal(Refused::EventArmed);
        EXPECT_RC(-9, verify());
        EXPECT_TRUE(refusal.hasHappened());
    }
    expectLine(1819, "clapi_esi.performEsiFlow() Failed to set request event");
    expectNotSent();
    expectNothingLeft();
}

TEST_F(EsiFailure, ToLockTheTableBeforeSendingFreesTheSlot)
{
    {
        Fault fault = failLock(tableLock(), 2);
        EXPECT_RC(-9, verify());
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_TRUE(details.areUntouched());
    expectNotSent();
    expectNothingLeft();
}

TEST_F(EsiFailure, ToAcquireTheSendLockFreesTheSlot)
{
    {
        Fault fault = failLock(sendLock());
        EXPECT_RC(-9, verify());
        EXPECT_EQ(1, fault.hits());
    }
    expectLine(1820, "clapi_esi.performEsiFlow() <any>send lock<any>");
    EXPECT_EQ(0, trace.timesWrote(1821));
    EXPECT_TRUE(details.areUntouched());
    expectNotSent();
    expectNothingLeft();
}

TEST_F(EsiFailure, ToReleaseTheSendLockEndsTheCallWithoutItsReply)
{
    {
        Fault fault = failUnlock(sendLock());
        EXPECT_RC(-9, verify());
        EXPECT_EQ(1, fault.hits());
    }
    expectLine(1821, "clapi_esi.performEsiFlow() <any>send lock<any>");
    EXPECT_TRUE(details.areUntouched());
    expectSent();
    expectNothingLeft();
}

TEST_F(EsiFailure, ToSendIsALostConnection)
{
    {
        Fault fault = failCall(Call::Send, 1, EPIPE, Threads::Calling);
        EXPECT_RC(-102, verify());
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_TRUE(details.areUntouched());
    expectNotSent();
    expectNothingLeft();
}

TEST_F(EsiFailure, ToSendKeepsItsCodeWhenTheSendLockCannotBeReleased)
{
    {
        Fault broken = failCall(Call::Send, 1, EPIPE, Threads::Calling);
        Fault fault = failUnlock(sendLock());
        EXPECT_RC(-102, change());
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_EQ(1, trace.timesWrote(1821));
    expectNothingLeft();
}

TEST_F(EsiFailure, FindsNoMemoryForTheRequest)
{
    {
        Fault noMemory = failCall(Call::Malloc, 1, ENOMEM, Threads::Calling);
        EXPECT_RC(-111, change());
        EXPECT_EQ(1, noMemory.hits());
    }
    EXPECT_TRUE(details.areUntouched());
    expectNotSent();
    expectNothingLeft();
}

// A failed wait tells nothing of the password.
TEST_F(EsiFailure, ToWaitIsNoSuccess)
{
    {
        Fault fault = failCall(Call::CondWait, 1, EINVAL, Threads::Calling);
        EXPECT_NE(0, verify());
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_TRUE(
        trace.wrote(3128, "*EXC*", "clapi_lock.clapiWaitEvent() pthread_cond_wait failed, rc=22"));
    EXPECT_TRUE(details.areUntouched());
    expectSent();
    expectNothingLeft();
}

// ---- Freeing the slot ----

class EsiFailureToFree : public EsiFailure {
protected:
    void expectLeft()
    {
        EXPECT_EQ(3, firstSlot().state);
        EXPECT_EQ(0, connection.token->requestCount.load());
        expectLine(1822, "clapi_esi.performEsiFlow() Failed to lock slot table to free slot");
    }
};

TEST_F(EsiFailureToFree, LeavesTheSlotAllocatedWhenTheTableCannotBeLocked)
{
    int last = tableLocks();
    {
        Fault fault = failLock(tableLock(), last);
        EXPECT_RC(-313, answeredVerify(acceptance(1)));
        EXPECT_EQ(1, fault.hits());
    }
    expectLeft();
    EXPECT_EQ(acceptedValues(), details.values());
    // The next request takes the slot behind it.
    auto call = startVerify("USER", "SECRET");
    EXPECT_EQ(2, connection.awaitRequest().messageId());
    connection.peer.send(refusal(2, -106));
    EXPECT_RC(-302, call.get());
}

TEST_F(EsiFailureToFree, KeepsTheServersCodeWhenTheTableCannotBeLocked)
{
    int last = tableLocks();
    {
        Fault fault = failLock(tableLock(), last);
        EXPECT_RC(-315, answeredChange(refusal(1, -107)));
        EXPECT_EQ(1, fault.hits());
    }
    expectLeft();
}

TEST_F(EsiFailureToFree, KeepsTheGatewaysCodeWhenTheTableCannotBeLocked)
{
    int last = tableLocks();
    {
        Fault fault = failLock(tableLock(), last);
        EXPECT_RC(61445, answeredChange(flow(errorType, 1, 61445, "ESI", Bytes())));
    }
    expectLeft();
}

TEST_F(EsiFailureToFree, IsReportedWhenTheTableCannotBeUnlocked)
{
    int last = tableLocks();
    {
        Fault fault = failUnlock(tableLock(), last);
        EXPECT_RC(-313, answeredVerify(acceptance(1)));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine(1823, "clapi_esi.performEsiFlow() Failed to unlock slot table after freeing slot");
    EXPECT_EQ(acceptedValues(), details.values());
    expectNothingLeft();
}

TEST_F(EsiFailureToFree, KeepsTheServersCodeWhenTheTableCannotBeUnlocked)
{
    int last = tableLocks();
    {
        Fault fault = failUnlock(tableLock(), last);
        EXPECT_RC(-302, answeredVerify(refusal(1, -106)));
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_EQ(1, trace.timesWrote(1823));
    expectNothingLeft();
}

// ---- Unregistering ----

// A call that cannot be counted out can never be waited for: these connections are not closed.
class EsiFailureToUnregister : public EsiFailure {
protected:
    ~EsiFailureToUnregister() override { connection.forget(); }
};

TEST_F(EsiFailureToUnregister, IsReportedOfAVerification)
{
    Fault fault = failLock(gtlLock, 2);

    EXPECT_RC(-313, answeredVerify(acceptance(1)));

    EXPECT_EQ(1, fault.hits());
    expectLine(1826, "API.QPX_ESI_verifyPassword() Unregister request failed");
    EXPECT_EQ(acceptedValues(), details.values());
    EXPECT_EQ(1, connection.token->requestCount.load());
    EXPECT_EQ(0, firstSlot().state);
}

TEST_F(EsiFailureToUnregister, IsReportedOfAChange)
{
    Fault fault = failLock(gtlLock, 2);

    EXPECT_RC(-313, answeredChange(acceptance(1)));

    EXPECT_EQ(1, fault.hits());
    expectLine(1827, "API.QPX_ESI_changePassword() Unregister request failed");
    EXPECT_EQ(0, trace.timesWrote(1826));
}

TEST_F(EsiFailureToUnregister, KeepsTheServersCode)
{
    Fault fault = failLock(gtlLock, 2);

    EXPECT_RC(-302, answeredVerify(refusal(1, -106)));

    EXPECT_EQ(1, fault.hits());
    EXPECT_EQ(1, trace.timesWrote(1826));
}

TEST_F(EsiFailureToUnregister, KeepsTheCodeOfACheck)
{
    Fault fault = failLock(gtlLock, 2);

    EXPECT_RC(-314,
              QPX_ESI_changePassword(connection.token, "USER", "SECRET", "", nullptr, nullptr));

    EXPECT_EQ(1, trace.timesWrote(1810));
    EXPECT_EQ(1, trace.timesWrote(1827));
}

// ---- The library ----

// Each in a process in which no call has been made yet.
TEST(EsiFailureToInitialise, SkipsTheChecksOfAVerification)
{
    Fault once = failCall(Call::Once, 1, EINVAL);

    EXPECT_RC(-9, QPX_ESI_verifyPassword(nullptr, nullptr, nullptr, nullptr, nullptr));

    EXPECT_EQ(1, once.hits());
}

TEST(EsiFailureToInitialise, SkipsTheChecksOfAChange)
{
    Fault once = failCall(Call::Once, 1, EINVAL);

    EXPECT_RC(-9, QPX_ESI_changePassword(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));

    EXPECT_EQ(1, once.hits());
}

TEST(EsiFailureToInitialise, SkipsTheChecksOfTheList)
{
    Fault once = failCall(Call::Once, 1, EINVAL);

    EXPECT_RC(-9, QPX_listSystems(nullptr, nullptr, nullptr));

    EXPECT_EQ(1, once.hits());
}

} // namespace
