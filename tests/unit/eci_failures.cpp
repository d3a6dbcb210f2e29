// ECI calls when locks, events, memory or the socket fail them: the code, the line, and that the
// slot, the count of asynchronous requests and the connection are as they should be afterwards.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ostream>
#include <string>
#include <vector>

#include "clapi_gwytok.h"
#include "support/eci_script.h"
#include "support/faults.h"
#include "support/refusals.h"

using namespace script;
using support::asyncCall;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::EciParms;
using support::failCall;
using support::failCallOn;
using support::failEveryCall;
using support::Fault;
using support::getReply;
using support::getReplyWait;
using support::Refusal;
using support::Refused;
using support::syncCall;
using support::Threads;
using support::TraceFile;

namespace {

// What a fault is about.
enum class On {
    ListLock,
    TableLock,
    SendLock,
    Commarea,    // the bytes of a COMMAREA of 100
    WriteBuffer, // those of a request with it
    First        // the first call, whatever it is about
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
            return 0;
        });
        int rc = execute(parms);
        answering.get();
        return rc;
    }

    const void* subjectOf(On on)
    {
        switch (on) {
        case On::ListLock: return &gtlLock.lock;
        case On::TableLock: return &connection.token->tableLock.lock;
        case On::SendLock: return &connection.token->sendLock.lock;
        case On::Commarea: return reinterpret_cast<const void*>(100);
        case On::WriteBuffer: return reinterpret_cast<const void*>(32 + 15 + 68 + 100);
        case On::First: break;
        }
        return nullptr;
    }

    // The nth of this thread's calls about it fails. An unlocking that fails leaves the mutex
    // locked.
    Fault fail(Call call, On on, int nth = 1, int error = EINVAL)
    {
        if (on == On::First) return failCall(call, nth, error, Threads::Calling);
        return failCallOn(call, subjectOf(on), nth, error, Threads::Calling);
    }

    // How many such calls this thread makes for an answered request: the number of the last one.
    int lastOf(Call call, On on)
    {
        Fault counting = failCallOn(call, subjectOf(on), INT_MAX, 0, Threads::Calling);
        EciParms parms = syncCall("PROG", filled(100, 'a'));
        EXPECT_RC(0, answeredCall(parms));
        EXPECT_LT(0, counting.calls());
        return counting.calls();
    }

    // The line, of that point where one is given.
    void expectLine(const std::string& message, int point = 0)
    {
        EXPECT_TRUE(trace.wroteText("*EXC*  " + message + "\n")) << trace.text();
        if (point != 0) {
            EXPECT_TRUE(trace.wrote(point, "*EXC*", message));
        }
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

    ScriptedConnection connection;
    TraceFile trace{1};
};

// ---- Calls that fail without a reply ----

struct EarlyFailure {
    const char* name;
    bool async;
    Call call;
    On on;
    int nth;
    int error;
    int rc;
    int point;        // 0: any
    const char* line; // null: none of its own
    bool sent = false;
};

void PrintTo(const EarlyFailure& failure, std::ostream* stream)
{
    *stream << failure.name;
}

constexpr bool sync = false;
constexpr bool async = true;
constexpr bool sent = true;

const EarlyFailure earlyFailures[] = {
    {"ToLockTheList", sync, Call::MutexLock, On::ListLock, 1, EINVAL, QPX_ERR_SYSTEM_ERROR, 0,
     "clapi_gwytok.clapiRegisterRequest() Failed to lock Gateway token list"},
    {"ToLockTheTable", sync, Call::MutexLock, On::TableLock, 1, EINVAL, ECI_ERR_SYSTEM_ERROR, 1518,
     "clapi_eci.performEciExecute() Failed to lock slot table"},
    {"ToUnlockTheTable", sync, Call::MutexUnlock, On::TableLock, 1, EPERM, ECI_ERR_SYSTEM_ERROR,
     1519, "clapi_eci.performEciExecute() Failed to unlock slot table"},
    {"ToLockTheTableBeforeSending", sync, Call::MutexLock, On::TableLock, 2, EINVAL,
     ECI_ERR_SYSTEM_ERROR, 0, nullptr},
    {"ToAcquireTheSendLock", sync, Call::MutexLock, On::SendLock, 1, EINVAL, ECI_ERR_SYSTEM_ERROR,
     0, "clapi_eci.performEciExecute() Failed to acquire send lock"},
    {"ToReleaseTheSendLock", sync, Call::MutexUnlock, On::SendLock, 1, EPERM, ECI_ERR_SYSTEM_ERROR,
     0, "clapi_eci.performEciExecute() Failed to release send lock", sent},
    {"ToSend", sync, Call::Send, On::First, 1, EPIPE, QPX_ERR_LOSTGWCON, 0,
     "clapi_socketbuffer.flushBuffer() Unable to send data to Gateway: Broken pipe (32)"},
    {"OfTheWriteBuffer", sync, Call::Malloc, On::WriteBuffer, 1, ENOMEM, QPX_ERR_MALLOCFAIL, 0,
     "clapi_socketbuffer.initWriteBuffer() Failed to allocate 215 bytes for buffer"},
    {"OfTheSlotsEvent", sync, Call::CondInit, On::First, 1, EAGAIN, QPX_ERR_SYSTEM_ERROR, 0,
     nullptr},
    {"ToLockTheTableForCounting", async, Call::MutexLock, On::TableLock, 2, EINVAL,
     ECI_ERR_SYSTEM_ERROR, 0,
     "clapi_eci.performEciExecute() Failed to lock slot table to update async count"},
    {"ToUnlockTheTableAfterCounting", async, Call::MutexUnlock, On::TableLock, 2, EPERM,
     ECI_ERR_SYSTEM_ERROR, 0,
     "clapi_eci.performEciExecute() Failed to unlock slot table after updating async count"},
    {"ToAcquireTheSendLockAsync", async, Call::MutexLock, On::SendLock, 1, EINVAL,
     ECI_ERR_SYSTEM_ERROR, 0, "clapi_eci.performEciExecute() Failed to acquire send lock"},
    {"ToReleaseTheSendLockAsync", async, Call::MutexUnlock, On::SendLock, 1, EPERM,
     ECI_ERR_SYSTEM_ERROR, 0, "clapi_eci.performEciExecute() Failed to release send lock", sent},
    {"ToSendAsync", async, Call::Send, On::First, 1, EPIPE, QPX_ERR_LOSTGWCON, 0,
     "clapi_socketbuffer.flushBuffer() Unable to send data to Gateway: Broken pipe (32)"},
    {"OfTheReplyBuffer", async, Call::Malloc, On::Commarea, 1, ENOMEM, ECI_ERR_RESOURCE_SHORTAGE, 0,
     "clapi_eci.performEciExecute() Failed to allocate 100 bytes for async commarea"},
    {"OfTheWriteBufferAsync", async, Call::Malloc, On::WriteBuffer, 1, ENOMEM, QPX_ERR_MALLOCFAIL,
     0, "clapi_socketbuffer.initWriteBuffer() Failed to allocate 215 bytes for buffer"},
};

class EciEarlyFailure : public EciFailure, public ::testing::WithParamInterface<EarlyFailure> {};

} // namespace

TEST_P(EciEarlyFailure, IsToldAndLeavesNothing)
{
    const EarlyFailure& failure = GetParam();
    EciParms parms = failure.async ? asyncCall("PROG", filled(100, 'a'))
                                   : syncCall("PROG", filled(100, 'a'));
    EciParms::fill(parms.record.eci_abend_code, "KEEP");
    parms.record.eci_message_qualifier = 99;
    {
        Fault fault = fail(failure.call, failure.on, failure.nth, failure.error);
        EXPECT_RC(failure.rc, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    if (failure.line != nullptr) expectLine(failure.line, failure.point);
    EXPECT_FALSE(trace.wroteText("Unregister"));
    // What has been sent is not answered.
    if (failure.sent) {
        EXPECT_EQ(1, connection.awaitRequest().messageId());
    }
    EXPECT_TRUE(connection.peer.isQuiet());
    EXPECT_EQ("KEEP", std::string(parms.record.eci_abend_code, 4));
    EXPECT_EQ(99, int(parms.record.eci_message_qualifier));
    EXPECT_EQ(filled(100, 'a'), parms.commarea());
    EciParms collecting = getReply(8);
    EXPECT_RC(ECI_ERR_NO_REPLY, execute(collecting));
    expectNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(Every, EciEarlyFailure, ::testing::ValuesIn(earlyFailures),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(EciFailure, ToUnlockTheTableKeepsAnEarlierCode)
{
    EciParms parms = syncCall("PROG");
    parms.withExtendMode(1, 7);
    {
        Fault fault = fail(Call::MutexUnlock, On::TableLock, 1, EPERM);
        EXPECT_RC(ECI_ERR_LUW_TOKEN, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_EQ(1, trace.timesWrote(1519));
    expectNothingLeft();
}

TEST_F(EciFailure, ToWaitLeavesTheResultsUntouched)
{
    EciParms parms = syncCall("PROG", text("mine"));
    EciParms::fill(parms.record.eci_abend_code, "KEEP");
    {
        Fault fault = fail(Call::CondWait, On::First);
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

TEST_F(EciFailure, ToSendTakesTheCountBack)
{
    QPX_setAPITraceLevel(4);
    EciParms parms = asyncCall("PROG", filled(100, 'a'));
    {
        Fault fault = fail(Call::Send, On::First, 1, EPIPE);
        EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    const std::string counted = "DEBUG  clapi_eci.performEciExecute() Async requests=";
    EXPECT_EQ(1, trace.timesWroteText(counted + "1 on gwTok=" + shown(connection.token) + "\n"));
    EXPECT_EQ(1, trace.timesWroteText(counted + "0 on gwTok=" + shown(connection.token) + "\n"));
    expectNothingLeft();
}

// The request counts as one that nobody has answered yet.
TEST_F(EciFailure, ToLockTheTableToTakeARequestBackLeavesItToACollector)
{
    EciParms parms = asyncCall("PROG", filled(8, 'a'));
    {
        Fault send = fail(Call::Send, On::First, 1, EPIPE);
        Fault lock = fail(Call::MutexLock, On::TableLock, 3);
        EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
        EXPECT_EQ(1, send.hits());
        EXPECT_EQ(1, lock.hits());
    }
    expectLine("clapi_eci.performEciExecute() Failed to lock slot table to update async count",
               1528);
    EXPECT_EQ(1, connection.token->asyncCount.load());
    EXPECT_EQ(0, connection.token->senders);
    connection.peer.send(ProgramReply().to(1));
    EciParms collecting = getReplyWait(8);
    EXPECT_RC(0, execute(collecting));
    expectNothingLeft();
}

TEST_F(EciFailure, ToUnlockTheTableBehindARequestTakenBackIsTold)
{
    EciParms parms = asyncCall("PROG", filled(8, 'a'));
    {
        Fault send = fail(Call::Send, On::First, 1, EPIPE);
        Fault unlock = fail(Call::MutexUnlock, On::TableLock, 3, EPERM);
        EXPECT_RC(QPX_ERR_LOSTGWCON, execute(parms));
        EXPECT_EQ(1, unlock.hits());
    }
    expectLine("clapi_eci.performEciExecute() Failed to unlock slot table after updating async "
               "count",
               1530);
    expectNothingLeft();
}

TEST_F(EciFailure, ToArmTheEventOfTheSlotIsToldAndLeavesNothing)
{
    for (bool isAsync : {false, true}) {
        SCOPED_TRACE(isAsync);
        EciParms parms = isAsync ? asyncCall("PROG") : syncCall("PROG");
        trace.forget();
        {
            Refusal refusal(Refused::EventArmed);
            EXPECT_RC(QPX_ERR_SYSTEM_ERROR, execute(parms));
            EXPECT_TRUE(refusal.hasHappened());
        }
        expectLine("clapi_eci.performEciExecute() Failed to set request event in slot", 1522);
        EXPECT_TRUE(connection.peer.isQuiet());
        expectNothingLeft();
    }
}

TEST_F(EciFailure, ToSendGivesAUnitOfWorkUp)
{
    EciParms opening = syncCall("PROG");
    opening.withExtendMode(1);
    ASSERT_RC(0, answeredCall(opening, ProgramReply().luwToken(7)));
    EciParms next = syncCall("PROG");
    next.withExtendMode(1, 7);
    {
        Fault fault = fail(Call::Send, On::First, 1, EPIPE);
        EXPECT_RC(QPX_ERR_LOSTGWCON, execute(next));
    }
    EXPECT_RC(ECI_ERR_LUW_TOKEN, execute(next));
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

// ---- Calls that fail with a reply ----

namespace {

// The last call of its kind, behind the reply.
struct LateFailure {
    const char* name;
    Call call;
    On on;
    int error;
    const char* line;
};

void PrintTo(const LateFailure& failure, std::ostream* stream)
{
    *stream << failure.name;
}

const LateFailure slotFailures[] = {
    {"ToLockTheTable", Call::MutexLock, On::TableLock, EINVAL,
     "clapi_eci.performEciExecute() Failed to lock slot table to free slot"},
    {"ToUnlockTheTable", Call::MutexUnlock, On::TableLock, EPERM,
     "clapi_eci.performEciExecute() Failed to unlock slot table after freeing slot"},
};

class EciLateFailure : public EciFailure, public ::testing::WithParamInterface<LateFailure> {};

// A call that cannot be counted out can never be waited for: these connections are not closed.
class EciUnregisterFailure : public EciFailure {
protected:
    ~EciUnregisterFailure() override { connection.forget(); }
};

} // namespace

TEST_P(EciLateFailure, IsReportedWithTheReply)
{
    int nth = lastOf(GetParam().call, GetParam().on);
    EciParms parms = syncCall("PROG", filled(4, 'x'));
    {
        Fault fault = fail(GetParam().call, GetParam().on, nth, GetParam().error);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR,
                  answeredCall(parms, ProgramReply().abend("OKAY").commarea(text("data"))));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine(GetParam().line);
    EXPECT_EQ("OKAY", std::string(parms.record.eci_abend_code, 4));
    EXPECT_EQ(text("data"), parms.commarea());
    expectNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(OfTheSlot, EciLateFailure, ::testing::ValuesIn(slotFailures),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(EciFailure, ToFreeTheSlotKeepsTheServersCode)
{
    int nth = lastOf(Call::MutexUnlock, On::TableLock);
    EciParms parms = syncCall("PROG");
    {
        // This unlocking takes place, and fails all the same: it is not tried again.
        int unlockings = 0;
        Fault unlocked = beforeCall(
            Call::MutexUnlock, 0,
            [&](const CallInfo& info) {
                auto* mutex = reinterpret_cast<pthread_mutex_t*>(info.first);
                if (mutex != subjectOf(On::TableLock)) return;
                unlockings += 1;
                if (unlockings != nth) return;
                pthread_mutex_unlock(mutex);
                clapiNoteGivenUp(mutex);
            },
            Threads::Calling);
        Fault fault = fail(Call::MutexUnlock, On::TableLock, nth, EPERM);
        EXPECT_RC(ECI_ERR_TRANSACTION_ABEND, answeredCall(parms, ProgramReply().serverCode(-7)));
        EXPECT_EQ(1, fault.hits());
        EXPECT_LE(nth, unlockings);
    }
    expectNothingLeft();
}

TEST_F(EciUnregisterFailure, IsReported)
{
    int nth = lastOf(Call::MutexLock, On::ListLock);
    EciParms parms = syncCall("PROG", filled(4, 'x'));
    {
        Fault fault = fail(Call::MutexLock, On::ListLock, nth);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, answeredCall(parms, ProgramReply().commarea(text("data"))));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine("API.QPX_ECI_Execute() Unregister request failed", 1563);
    expectLine("clapi_gwytok.clapiUnregisterRequest() Failed to lock Gateway token list");
    EXPECT_EQ(text("data"), parms.commarea());
    EXPECT_EQ(1, connection.token->requestCount.load());
}

TEST_F(EciUnregisterFailure, KeepsTheServersCode)
{
    int nth = lastOf(Call::MutexLock, On::ListLock);
    EciParms parms = syncCall("PROG");
    {
        Fault fault = fail(Call::MutexLock, On::ListLock, nth);
        EXPECT_RC(ECI_ERR_TRANSACTION_ABEND, answeredCall(parms, ProgramReply().serverCode(-7)));
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_EQ(1, trace.timesWrote(1563));
}

// ---- Collecting ----

TEST_F(EciFailure, ToLockTheTableEndsACollectingCall)
{
    QPX_setAPITraceLevel(3);
    EciParms parms = getReply(8);
    {
        Fault fault = fail(Call::MutexLock, On::TableLock);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, execute(parms));
        EXPECT_EQ(1, fault.hits());
    }
    expectLine("clapi_eci.getAsyncReply() Failed to lock slot table", 1537);
    EXPECT_TRUE(
        trace.wrote(1547, "EXIT", "clapi_eci.getAsyncReply() rc=-9 (QPX_ERR_SYSTEM_ERROR)"));
    expectNothingLeft();
}

namespace {

// A call that has to wait for its reply.
class EciWaitFailure : public EciFailure {
protected:
    EciWaitFailure()
    {
        EciParms parms = asyncCall("PROG");
        EXPECT_RC(0, execute(parms));
        qualifier = connection.awaitRequest().messageId();
    }

    void expectWaitFails(const Fault& fault)
    {
        EciParms waiting = getReplyWait(0);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, execute(waiting));
        EXPECT_EQ(1, fault.hits());
    }

    void answer() { connection.peer.send(ProgramReply().to(qualifier)); }

    void expectStillCollectable(EciParms collecting)
    {
        EXPECT_RC(0, execute(collecting));
        expectNothingLeft();
    }

    int qualifier = 0;
};

} // namespace

TEST_F(EciWaitFailure, ToUnlockTheTableBeforeWaitingIsReported)
{
    expectWaitFails(fail(Call::MutexUnlock, On::TableLock, 1, EPERM));
    expectLine("clapi_eci.getAsyncReply() Failed to unlock slot table before waiting", 1538);
    answer();
    expectStillCollectable(getReplyWait(0));
}

TEST_F(EciWaitFailure, ToWaitIsReported)
{
    expectWaitFails(fail(Call::CondWait, On::First));
    expectLine("clapi_eci.getAsyncReply() Failed to wait on asyncReplyEvent", 1539);
    answer();
    expectStillCollectable(getReplyWait(0));
}

TEST_F(EciWaitFailure, ToLockTheTableAfterWaitingIsReported)
{
    int sleepers = support::callCount(Call::CondWait);
    auto answering = callInThread([this, sleepers] {
        EXPECT_TRUE(support::awaitCallCount(Call::CondWait, sleepers + 1));
        answer();
        return 0;
    });
    expectWaitFails(fail(Call::MutexLock, On::TableLock, 2));
    answering.get();
    expectLine("clapi_eci.getAsyncReply() Failed to lock slot table after waiting", 1540);
    // The reply is queued and nobody has taken it.
    expectStillCollectable(getReply(0));
}

TEST_F(EciWaitFailure, ToArmTheEventBeforeWaitingIsReported)
{
    {
        Refusal refusal(Refused::EventArmed);
        EciParms waiting = getReplyWait(0);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, execute(waiting));
        EXPECT_TRUE(refusal.hasHappened());
    }
    expectLine("clapi_eci.getAsyncReply() Failed to set asyncReplyEvent", 1541);
    answer();
    expectStillCollectable(getReplyWait(0));
}

TEST_F(EciWaitFailure, ToArmTheEventBehindAReplyIsReportedWithTheReply)
{
    connection.peer.send(ProgramReply().commarea(text("data")).to(qualifier));
    EXPECT_EQ(0, clapiWaitEvent(&connection.token->asyncReplyEvent));
    EciParms collecting = getReply(4);
    {
        Refusal refusal(Refused::EventArmed);
        EXPECT_RC(ECI_ERR_SYSTEM_ERROR, execute(collecting));
        EXPECT_TRUE(refusal.hasHappened());
    }
    expectLine("clapi_eci.getAsyncReply() Failed to set asyncReplyEvent", 1546);
    EXPECT_EQ(qualifier, int(collecting.record.eci_message_qualifier));
    EXPECT_EQ(text("data"), collecting.commarea());
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
