// ECI calls when locks, events, memory or the socket fail them: the code, the line, and that the
// slot, the count of asynchronous requests and the connection are as they should be afterwards.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "clapi_gwytok.h"
#include "support/eci_script.h"
#include "support/faults.h"

using namespace script;
using support::asyncCall;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::EciParms;
using support::failCall;
using support::failEveryCall;
using support::Fault;
using support::getReply;
using support::getReplyWait;
using support::syncCall;
using support::Threads;
using support::TraceFile;

namespace {

// The first arguments of the calling thread's system calls of a kind, in order.
class Rehearsal {
public:
    explicit Rehearsal(Call call)
        : watch_(beforeCall(
              call, 0, [seen = seen_](const CallInfo& info) { seen->push_back(info.first); },
              Threads::Calling))
    {
    }

    // Which of the calls is the nth one with an argument, counted from 1; the last one for n = -1.
    int position(const void* argument, int n) const
    {
        return positionOfNumber(reinterpret_cast<std::uintptr_t>(argument), n);
    }
    int positionOfNumber(std::uintptr_t argument, int n) const
    {
        std::vector<int> found;
        for (std::size_t index = 0; index < seen_->size(); ++index)
            if ((*seen_)[index] == argument) found.push_back(static_cast<int>(index) + 1);
        std::size_t wanted = n > 0 ? static_cast<std::size_t>(n) : found.size();
        if (wanted == 0 || wanted > found.size()) {
            ADD_FAILURE() << "the call was not made " << n << " times";
            return 1000000;
        }
        return found[wanted - 1];
    }

private:
    std::shared_ptr<std::vector<std::uintptr_t>> seen_ =
        std::make_shared<std::vector<std::uintptr_t>>();
    Fault watch_;
};

class EciFailure : public ::testing::Test {
protected:
    int execute(EciParms& parms) { return QPX_ECI_Execute(connection.token, &parms.record); }

    // A call made by this thread and answered by another.
    int answeredCall(EciParms& parms, const ProgramReply& answer = ProgramReply())
    {
        auto answering = callInThread([this, answer] {
            Request request = connection.awaitRequest();
            connection.peer.send(answer.to(request.messageId()));
            return request.messageId();
        });
        int rc = execute(parms);
        lastMessageId = answering.get();
        return rc;
    }

    void rehearseSync()
    {
        EciParms parms = syncCall("PROG", filled(100, 'a'));
        ASSERT_RC(0, answeredCall(parms));
    }

    // Sends an asynchronous request; its reply is collected at once.
    void rehearseAsync()
    {
        EciParms parms = asyncCall("PROG", filled(100, 'a'));
        ASSERT_RC(0, execute(parms));
    }
    void collectRehearsal()
    {
        connection.peer.send(ProgramReply().to(connection.awaitRequest().messageId()));
        EciParms collecting = getReplyWait(0);
        ASSERT_RC(0, execute(collecting));
    }

    // An unlocking that fails leaves the mutex locked.
    static Fault failUnlock(int nth)
    {
        return failCall(Call::MutexUnlock, nth, EPERM, Threads::Calling);
    }

    void expectLine(const std::string& message)
    {
        EXPECT_TRUE(trace.wroteText("*EXC*  " + message + "\n")) << trace.text();
    }

    // Everything is as before the call: the first slot is free, nothing is outstanding, and the
    // connection serves.
    void expectNothingLeft()
    {
        EXPECT_EQ(0, connection.token->table.slot[0].state);
        EXPECT_EQ(0, connection.token->asyncCount.load());
        EXPECT_EQ(0, connection.token->requestCount.load());
        EXPECT_TRUE(connection.token->firstReply == nullptr);
        expectStillServing(connection);
    }

    const void* tableMutex() { return &connection.token->tableLock.lock; }
    const void* sendMutex() { return &connection.token->sendLock.lock; }
    static const void* listMutex() { return &gtlLock.lock; }

    ScriptedConnection connection;
    TraceFile trace{1};
    int lastMessageId = 0;
};

} // namespace

// ---- Locks of a synchronous call ----

TEST_F(EciFailure, OfTheListLockRefusesTheCall)
{
    int nth = 0;
    {
        Rehearsal rehearsal(Call::MutexLock);
        rehearseSync();
        nth = rehearsal.position(listMutex(), 1);
    }
    EciParms parms = syncCall("PROG");
    {
        Fault fault = failCall(Call::MutexLock, nth, EINVAL, Threads::Calling);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine("clapi_gwytok.clapiRegisterRequest() Failed to lock Gateway token list");
    EXPECT_FALSE(trace.wroteText("Unregister"));
    EXPECT_TRUE(connection.peer.isQuiet());
    expectNothingLeft();
}

TEST_F(EciFailure, ToLockTheTableRefusesTheCall)
{
    int nth = 0;
    {
        Rehearsal rehearsal(Call::MutexLock);
        rehearseSync();
        nth = rehearsal.position(tableMutex(), 1);
    }
    EciParms parms = syncCall("PROG");
    {
        Fault fault = failCall(Call::MutexLock, nth, EINVAL, Threads::Calling);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_TRUE(
        trace.wrote(1518, "*EXC*", "clapi_eci.performEciExecute() Failed to lock slot table"));
    EXPECT_TRUE(connection.peer.isQuiet());
    expectNothingLeft();
}

TEST_F(EciFailure, ToUnlockTheTableFreesTheSlot)
{
    int nth = 0;
    {
        Rehearsal rehearsal(Call::MutexUnlock);
        rehearseSync();
        nth = rehearsal.position(tableMutex(), 1);
    }
    EciParms parms = syncCall("PROG");
    {
        Fault fault = failUnlock(nth);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_TRUE(
        trace.wrote(1519, "*EXC*", "clapi_eci.performEciExecute() Failed to unlock slot table"));
    EXPECT_TRUE(connection.peer.isQuiet());
    expectNothingLeft();
}

TEST_F(EciFailure, ToUnlockTheTableKeepsAnEarlierCode)
{
    EciParms parms = syncCall("PROG");
    parms.withExtendMode(1, 7);
    int nth = 0;
    {
        Rehearsal rehearsal(Call::MutexUnlock);
        ASSERT_RC(ECI_ERR_LUW_TOKEN, execute(parms));
        nth = rehearsal.position(tableMutex(), 1);
    }
    {
        Fault fault = failUnlock(nth);
        EXPECT_RC(ECI_ERR_LUW_TOKEN, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_EQ(1, trace.timesWrote(1519));
    expectNothingLeft();
}

TEST_F(EciFailure, ToLockTheTableBeforeSendingFreesTheSlot)
{
    int nth = 0;
    {
        Rehearsal rehearsal(Call::MutexLock);
        rehearseSync();
        nth = rehearsal.position(tableMutex(), 2);
    }
    EciParms parms = syncCall("PROG");
    {
        Fault fault = failCall(Call::MutexLock, nth, EINVAL, Threads::Calling);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_TRUE(connection.peer.isQuiet());
    expectNothingLeft();
}

TEST_F(EciFailure, ToAcquireTheSendLockFreesTheSlot)
{
    int nth = 0;
    {
        Rehearsal rehearsal(Call::MutexLock);
        rehearseSync();
        nth = rehearsal.position(sendMutex(), 1);
    }
    EciParms parms = syncCall("PROG");
    {
        Fault fault = failCall(Call::MutexLock, nth, EINVAL, Threads::Calling);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine("clapi_eci.performEciExecute() Failed to acquire send lock");
    EXPECT_TRUE(connection.peer.isQuiet());
    expectNothingLeft();
}

TEST_F(EciFailure, ToReleaseTheSendLockEndsTheCallWithoutItsReply)
{
    int nth = 0;
    {
        Rehearsal rehearsal(Call::MutexUnlock);
        rehearseSync();
        nth = rehearsal.position(sendMutex(), 1);
    }
    EciParms parms = syncCall("PROG", text("mine"));
    {
        Fault fault = failUnlock(nth);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine("clapi_eci.performEciExecute() Failed to release send lock");
    EXPECT_EQ(1, connection.awaitRequest().messageId()); // it was sent, and is not answered
    EXPECT_EQ(text("mine"), parms.commarea());
    expectNothingLeft();
}

TEST_F(EciFailure, ToWaitLeavesTheResultsUntouched)
{
    EciParms parms = syncCall("PROG", text("mine"));
    EciParms::fill(parms.record.eci_abend_code, "KEEP");
    {
        Fault fault = failCall(Call::CondWait, 1, EINVAL, Threads::Calling);
        EXPECT_NE(0, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine("clapi_lock.clapiWaitEvent() pthread_cond_wait failed, rc=22");
    EXPECT_EQ("KEEP", std::string(parms.record.eci_abend_code, 4));
    EXPECT_EQ(0, int(parms.record.eci_luw_token));
    EXPECT_EQ(text("mine"), parms.commarea());
    EXPECT_EQ(1, connection.awaitRequest().messageId());
    expectNothingLeft();
}

TEST_F(EciFailure, ToLockTheTableForFreeingIsReported)
{
    int nth = 0;
    {
        Rehearsal rehearsal(Call::MutexLock);
        rehearseSync();
        nth = rehearsal.position(tableMutex(), -1);
    }
    EciParms parms = syncCall("PROG", filled(4, 'x'));
    {
        Fault fault = failCall(Call::MutexLock, nth, EINVAL, Threads::Calling);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR,
                  answeredCall(parms, ProgramReply().abend("OKAY").commarea(text("data"))));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine("clapi_eci.performEciExecute() Failed to lock slot table to free slot");
    EXPECT_EQ("OKAY", std::string(parms.record.eci_abend_code, 4));
    EXPECT_EQ(text("data"), parms.commarea());
    expectNothingLeft();
}

TEST_F(EciFailure, ToUnlockTheTableAfterFreeingIsReported)
{
    int nth = 0;
    {
        Rehearsal rehearsal(Call::MutexUnlock);
        rehearseSync();
        nth = rehearsal.position(tableMutex(), -1);
    }
    EciParms parms = syncCall("PROG");
    {
        Fault fault = failUnlock(nth);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, answeredCall(parms));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine("clapi_eci.performEciExecute() Failed to unlock slot table after freeing slot");
    expectNothingLeft();
}

TEST_F(EciFailure, ToFreeTheSlotKeepsTheServersCode)
{
    int nth = 0;
    {
        Rehearsal rehearsal(Call::MutexUnlock);
        EciParms rehearsed = syncCall("PROG");
        ASSERT_RC(ECI_ERR_TRANSACTION_ABEND,
                  answeredCall(rehearsed, ProgramReply().serverCode(-7)));
        nth = rehearsal.position(tableMutex(), -1);
    }
    EciParms parms = syncCall("PROG");
    {
        // This unlocking takes place, and fails all the same: it is not tried again.
        Fault unlocked = beforeCall(
            Call::MutexUnlock, nth,
            [](const CallInfo& info) {
                pthread_mutex_unlock(reinterpret_cast<pthread_mutex_t*>(info.first));
            },
            Threads::Calling);
        Fault fault = failCall(Call::MutexUnlock, nth, EPERM, Threads::Calling);
        EXPECT_RC(ECI_ERR_TRANSACTION_ABEND, answeredCall(parms, ProgramReply().serverCode(-7)));
        EXPECT_EQ(1, fault.hits());
    }
    expectNothingLeft();
}

// ---- Unregistering ----

namespace {

// A call that cannot be counted out can never be waited for: these connections are not closed.
class EciUnregisterFailure : public EciFailure {
protected:
    ~EciUnregisterFailure() override { connection.forget(); }

    int lastListLock()
    {
        Rehearsal rehearsal(Call::MutexLock);
        rehearseSync();
        return rehearsal.position(listMutex(), -1);
    }
};

} // namespace

TEST_F(EciUnregisterFailure, IsReported)
{
    int nth = lastListLock();
    EciParms parms = syncCall("PROG", filled(4, 'x'));
    {
        Fault fault = failCall(Call::MutexLock, nth, EINVAL, Threads::Calling);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, answeredCall(parms, ProgramReply().commarea(text("data"))));
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_TRUE(trace.wrote(1563, "*EXC*", "API.QPX_ECI_Execute() Unregister request failed"));
    expectLine("clapi_gwytok.clapiUnregisterRequest() Failed to lock Gateway token list");
    EXPECT_EQ(text("data"), parms.commarea());
    EXPECT_EQ(1, connection.token->requestCount.load());
}

TEST_F(EciUnregisterFailure, KeepsTheServersCode)
{
    int nth = lastListLock();
    EciParms parms = syncCall("PROG");
    {
        Fault fault = failCall(Call::MutexLock, nth, EINVAL, Threads::Calling);
        EXPECT_RC(ECI_ERR_TRANSACTION_ABEND, answeredCall(parms, ProgramReply().serverCode(-7)));
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_EQ(1, trace.timesWrote(1563));
}

// ---- Locks of an asynchronous call ----

TEST_F(EciFailure, ToLockTheTableForCountingRefusesAnAsyncCall)
{
    int nth = 0;
    {
        Rehearsal rehearsal(Call::MutexLock);
        rehearseAsync();
        nth = rehearsal.position(tableMutex(), 2);
    }
    collectRehearsal();
    EciParms parms = asyncCall("PROG");
    parms.record.eci_message_qualifier = 99;
    {
        Fault fault = failCall(Call::MutexLock, nth, EINVAL, Threads::Calling);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine("clapi_eci.performEciExecute() Failed to lock slot table to update async count");
    EXPECT_EQ(99, int(parms.record.eci_message_qualifier));
    EXPECT_TRUE(connection.peer.isQuiet());
    expectNothingLeft();
}

TEST_F(EciFailure, ToUnlockTheTableAfterCountingTakesTheCountBack)
{
    int nth = 0;
    {
        Rehearsal rehearsal(Call::MutexUnlock);
        rehearseAsync();
        nth = rehearsal.position(tableMutex(), 2);
    }
    collectRehearsal();
    EciParms parms = asyncCall("PROG");
    {
        Fault fault = failUnlock(nth);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine(
        "clapi_eci.performEciExecute() Failed to unlock slot table after updating async count");
    EXPECT_TRUE(connection.peer.isQuiet());
    expectNothingLeft();
}

TEST_F(EciFailure, ToAcquireTheSendLockTakesTheCountBack)
{
    int nth = 0;
    {
        Rehearsal rehearsal(Call::MutexLock);
        rehearseAsync();
        nth = rehearsal.position(sendMutex(), 1);
    }
    collectRehearsal();
    EciParms parms = asyncCall("PROG");
    parms.record.eci_message_qualifier = 99;
    {
        Fault fault = failCall(Call::MutexLock, nth, EINVAL, Threads::Calling);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine("clapi_eci.performEciExecute() Failed to acquire send lock");
    EXPECT_EQ(99, int(parms.record.eci_message_qualifier));
    EXPECT_TRUE(connection.peer.isQuiet());
    expectNothingLeft();
}

TEST_F(EciFailure, ToReleaseTheSendLockGivesAnAsyncCallUp)
{
    int nth = 0;
    {
        Rehearsal rehearsal(Call::MutexUnlock);
        rehearseAsync();
        nth = rehearsal.position(sendMutex(), 1);
    }
    collectRehearsal();
    EciParms parms = asyncCall("PROG");
    {
        Fault fault = failUnlock(nth);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine("clapi_eci.performEciExecute() Failed to release send lock");
    connection.awaitRequest();
    expectNothingLeft();
}

// ---- The socket ----

TEST_F(EciFailure, ToSendFreesTheSlot)
{
    EciParms parms = syncCall("PROG", text("mine"));
    EciParms::fill(parms.record.eci_abend_code, "KEEP");
    {
        Fault fault = failCall(Call::Send, 1, EPIPE, Threads::Calling);
        EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine("clapi_socketbuffer.flushBuffer() Unable to send data to Gateway: Broken pipe (32)");
    EXPECT_EQ("KEEP", std::string(parms.record.eci_abend_code, 4));
    EXPECT_EQ(text("mine"), parms.commarea());
    expectNothingLeft();
}

TEST_F(EciFailure, ToSendTakesTheCountBack)
{
    QPX_setAPITraceLevel(4);
    EciParms parms = asyncCall("PROG", filled(100, 'a'));
    parms.record.eci_message_qualifier = 99;
    {
        Fault fault = failCall(Call::Send, 1, EPIPE, Threads::Calling);
        EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    const std::string counted = "DEBUG  clapi_eci.performEciExecute() Async requests=";
    EXPECT_EQ(1, trace.timesWroteText(counted + "1 on gwTok=" + address(connection.token) + "\n"));
    EXPECT_EQ(1, trace.timesWroteText(counted + "0 on gwTok=" + address(connection.token) + "\n"));
    EXPECT_EQ(99, int(parms.record.eci_message_qualifier));
    EciParms collecting = getReply(8);
    EXPECT_RC(ECI_ERR_NO_REPLY, execute(collecting));
    expectNothingLeft();
}

TEST_F(EciFailure, ToSendGivesAUnitOfWorkUp)
{
    EciParms opening = syncCall("PROG");
    opening.withExtendMode(1);
    ASSERT_RC(0, answeredCall(opening, ProgramReply().luwToken(7)));
    EciParms next = syncCall("PROG");
    next.withExtendMode(1, 7);
    {
        Fault fault = failCall(Call::Send, 1, EPIPE, Threads::Calling);
        EXPECT_RC(QPX_ERR_LOSTGWCON, execute(next));
    }
    EXPECT_RC(ECI_ERR_LUW_TOKEN, execute(next));
    expectNothingLeft();
}

// ---- Memory ----

TEST_F(EciFailure, OfTheReplyBufferRefusesAnAsyncCall)
{
    int nth = 0;
    {
        Rehearsal rehearsal(Call::Malloc);
        rehearseAsync();
        nth = rehearsal.positionOfNumber(100, 1);
    }
    collectRehearsal();
    EciParms parms = asyncCall("PROG", filled(100, 'a'));
    parms.record.eci_message_qualifier = 99;
    {
        Fault fault = failCall(Call::Malloc, nth, ENOMEM, Threads::Calling);
        EXPECT_RC(ECI_ERR_RESOURCE_SHORTAGE, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine("clapi_eci.performEciExecute() Failed to allocate 100 bytes for async commarea");
    EXPECT_EQ(99, int(parms.record.eci_message_qualifier));
    EXPECT_TRUE(connection.peer.isQuiet());
    expectNothingLeft();
}

TEST_F(EciFailure, OfTheWriteBufferRefusesASyncCall)
{
    int nth = 0;
    {
        Rehearsal rehearsal(Call::Malloc);
        rehearseSync();
        nth = rehearsal.positionOfNumber(32 + 15 + 68 + 100, 1);
    }
    EciParms parms = syncCall("PROG", filled(100, 'a'));
    {
        Fault fault = failCall(Call::Malloc, nth, ENOMEM, Threads::Calling);
        EXPECT_RC(QPX_ERR_MALLOCFAIL, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine("clapi_socketbuffer.initWriteBuffer() Failed to allocate 215 bytes for buffer");
    EXPECT_TRUE(connection.peer.isQuiet());
    expectNothingLeft();
}

TEST_F(EciFailure, OfTheWriteBufferTakesTheCountBack)
{
    int nth = 0;
    {
        Rehearsal rehearsal(Call::Malloc);
        rehearseAsync();
        nth = rehearsal.positionOfNumber(32 + 15 + 68 + 100, 1);
    }
    collectRehearsal();
    EciParms parms = asyncCall("PROG", filled(100, 'a'));
    {
        Fault fault = failCall(Call::Malloc, nth, ENOMEM, Threads::Calling);
        EXPECT_RC(QPX_ERR_MALLOCFAIL, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_TRUE(connection.peer.isQuiet());
    expectNothingLeft();
}

TEST_F(EciFailure, OfTheSlotsEventRefusesTheCall)
{
    EciParms parms = syncCall("PROG");
    {
        Fault fault = failCall(Call::CondInit, 1, EAGAIN, Threads::Calling);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_TRUE(connection.peer.isQuiet());
    expectNothingLeft();
}

TEST_F(EciFailure, OfANewTableRefusesTheSeventeenthRequest)
{
    std::vector<int> qualifiers;
    for (int request = 0; request < 16; ++request) {
        EciParms parms = asyncCall("PROG");
        ASSERT_RC(0, execute(parms));
        qualifiers.push_back(connection.awaitRequest().messageId());
    }
    EciParms parms = syncCall("PROG");
    {
        Fault fault = failEveryCall(Call::Malloc, ENOMEM, Threads::Calling);
        EXPECT_RC(QPX_ERR_MALLOCFAIL, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_EQ(16, connection.token->asyncCount.load());
    for (int qualifier : qualifiers) {
        connection.peer.send(ProgramReply().to(qualifier));
        EciParms collecting = getReplyWait(0);
        EXPECT_RC(0, execute(collecting));
    }
    expectNothingLeft();
}

// ---- Collecting ----

TEST_F(EciFailure, ToLockTheTableEndsACollectingCall)
{
    int nth = 0;
    {
        Rehearsal rehearsal(Call::MutexLock);
        EciParms parms = getReply(8);
        ASSERT_RC(ECI_ERR_NO_REPLY, execute(parms));
        nth = rehearsal.position(tableMutex(), 1);
    }
    EciParms parms = getReply(8);
    {
        Fault fault = failCall(Call::MutexLock, nth, EINVAL, Threads::Calling);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_TRUE(trace.wrote(1537, "*EXC*", "clapi_eci.getAsyncReply() Failed to lock slot table"));
    expectNothingLeft();
}

TEST_F(EciFailure, OfACollectingCallStillTracesItsExit)
{
    QPX_setAPITraceLevel(3);
    int nth = 0;
    {
        Rehearsal rehearsal(Call::MutexLock);
        EciParms parms = getReply(8);
        ASSERT_RC(ECI_ERR_NO_REPLY, execute(parms));
        nth = rehearsal.position(tableMutex(), 1);
    }
    EciParms parms = getReply(8);
    {
        Fault fault = failCall(Call::MutexLock, nth, EINVAL, Threads::Calling);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_TRUE(
        trace.wrote(1547, "EXIT", "clapi_eci.getAsyncReply() rc=-9 (QPX_ERR_SYSTEM_ERROR)"));
}

namespace {

// A call that has to wait for its reply; the peer answers once it sleeps.
class EciWaitFailure : public EciFailure {
protected:
    EciWaitFailure()
    {
        EciParms parms = asyncCall("PROG");
        EXPECT_RC(0, execute(parms));
        qualifier = connection.awaitRequest().messageId();
    }

    // Answers the request once somebody sleeps.
    support::RunningCall<int> answerSleeper()
    {
        int sleepers = support::callCount(Call::CondWait);
        return callInThread([this, sleepers] {
            EXPECT_TRUE(support::awaitCallCount(Call::CondWait, sleepers + 1));
            connection.peer.send(ProgramReply().to(qualifier));
            return 0;
        });
    }

    int positionInWait(Call call, const void* argument, int n)
    {
        Rehearsal rehearsal(call);
        auto answering = answerSleeper();
        EciParms waiting = getReplyWait(0);
        EXPECT_RC(0, execute(waiting));
        answering.get();
        return rehearsal.position(argument, n);
    }

    // The request of the test itself; the one of the rehearsal is collected by then.
    void sendAgain()
    {
        EciParms parms = asyncCall("PROG");
        EXPECT_RC(0, execute(parms));
        qualifier = connection.awaitRequest().messageId();
    }

    void expectStillCollectable()
    {
        connection.peer.send(ProgramReply().to(qualifier));
        EciParms collecting = getReplyWait(0);
        EXPECT_RC(0, execute(collecting));
        expectNothingLeft();
    }

    int qualifier = 0;
};

} // namespace

TEST_F(EciWaitFailure, ToUnlockTheTableBeforeWaitingIsReported)
{
    int nth = positionInWait(Call::MutexUnlock, tableMutex(), 1);
    sendAgain();
    EciParms waiting = getReplyWait(0);
    {
        Fault fault = failUnlock(nth);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, execute(waiting));
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_TRUE(trace.wrote(
        1538, "*EXC*", "clapi_eci.getAsyncReply() Failed to unlock slot table before waiting"));
    expectStillCollectable();
}

TEST_F(EciWaitFailure, ToWaitIsReported)
{
    EciParms waiting = getReplyWait(0);
    {
        Fault fault = failCall(Call::CondWait, 1, EINVAL, Threads::Calling);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, execute(waiting));
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_TRUE(
        trace.wrote(1539, "*EXC*", "clapi_eci.getAsyncReply() Failed to wait on asyncReplyEvent"));
    expectStillCollectable();
}

TEST_F(EciWaitFailure, ToLockTheTableAfterWaitingIsReported)
{
    int nth = positionInWait(Call::MutexLock, tableMutex(), 2);
    sendAgain();
    EciParms waiting = getReplyWait(0);
    auto answering = answerSleeper();
    {
        Fault fault = failCall(Call::MutexLock, nth, EINVAL, Threads::Calling);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, execute(waiting));
        EXPECT_EQ(1, fault.hits());
    }
    answering.get();
    EXPECT_TRUE(trace.wrote(1540, "*EXC*",
                            "clapi_eci.getAsyncReply() Failed to lock slot table after waiting"));
    // The reply is queued and nobody has taken it.
    EciParms collecting = getReply(0);
    EXPECT_RC(0, execute(collecting));
    expectNothingLeft();
}

// ---- The library itself ----

TEST(EciUninitialised, GivesTheResultOfTheFailedInitialisation)
{
    Fault fault = failEveryCall(Call::Once, EINVAL);
    EciParms parms = syncCall("PROG");
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, QPX_ECI_Execute(nullptr, &parms.record));
    EXPECT_EQ(1, fault.hits());
}

TEST(EciUninitialised, TracesEntryAndExitOnly)
{
    setenv("QPX_CLIENT_TRACE_LEVEL", "3", 1);
    support::CapturedStderr captured;
    EciParms parms = syncCall("PROG");
    {
        Fault fault = failCall(Call::MutexInit, 2, ENOMEM); // the second lock is the token list's
        EXPECT_EQ(-1, QPX_ECI_Execute(nullptr, &parms.record));
    }
    captured.stop();
    const std::string text = captured.text();
    EXPECT_TRUE(
        support::wroteIn(text, 1500, "ENTRY", "API.QPX_ECI_Execute(gwTok=(nil), EciParms=<ptr>)"))
        << text;
    EXPECT_TRUE(support::wroteIn(text, 1506, "EXIT",
                                 "API.QPX_ECI_Execute() rc=-1 (ECI_ERR_INVALID_DATA_LENGTH)"))
        << text;
    EXPECT_FALSE(support::contains(text, "NULL gateway token"));
}
