// The record of a collecting call as another thread sees it, which may look at any time: its
// COMMAREA stays where the caller has put it. The collecting thread is stopped behind each of its
// instructions.
#include <gtest/gtest.h>

// The sanitizers' own code would be stepped through as well.
#if (defined(__i386__) || defined(__x86_64__)) && !defined(__SANITIZE_THREAD__) && \
    !defined(__SANITIZE_ADDRESS__)

#include <signal.h>
#include <ucontext.h>

#include "support/eci_script.h"

using namespace script;
using support::EciParms;

namespace {

constexpr greg_t trapFlag = 0x100;

// What the signal handler works with.
struct Watch {
    volatile bool on;
    const volatile QPX_ECI_PARMS* record;
    char* commarea;
    short length;
    int steps;
    int foreignCommareas;
    int foreignLengths;
};
Watch watch;

// Behind each instruction of the thread that is watched.
void look(int, siginfo_t*, void* context)
{
    greg_t& flags = static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL];
    if (!watch.on) {
        flags &= ~trapFlag;
        return;
    }
    flags |= trapFlag;
    watch.steps += 1;
    if (watch.record->eci_commarea != watch.commarea) watch.foreignCommareas += 1;
    if (watch.record->eci_commarea_length != watch.length) watch.foreignLengths += 1;
}

template <typename Function>
int watched(EciParms& parms, Function function)
{
    struct sigaction before = {};
    struct sigaction action = {};
    action.sa_sigaction = look;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGTRAP, &action, &before);
    watch = Watch{
        true, &parms.record, parms.record.eci_commarea, parms.record.eci_commarea_length, 0, 0, 0};
    raise(SIGTRAP);
    int rc = function();
    watch.on = false;
    raise(SIGTRAP);
    sigaction(SIGTRAP, &before, nullptr);
    return rc;
}

class CollectedRecord : public ::testing::Test {
protected:
    // The reply of an asynchronous request is queued.
    void SetUp() override
    {
        EciParms asked = support::asyncCall("PROG", filled(8, 'q'));
        ASSERT_RC(0, QPX_ECI_Execute(connection.token, &asked.record));
        connection.peer.send(eciReply(connection.awaitRequest().messageId(), text("answered")));
        expectStillServing(connection); // a reply behind it has come
    }

    int collect(EciParms& parms)
    {
        return watched(parms, [&] { return QPX_ECI_Execute(connection.token, &parms.record); });
    }

    ScriptedConnection connection;
};

TEST_F(CollectedRecord, IsWatchedAtEachStep)
{
    EciParms parms = support::getReply(8);
    int rc = watched(parms, [&] {
        volatile QPX_ECI_PARMS* record = &parms.record;
        record->eci_commarea = nullptr;
        record->eci_commarea_length = 4;
        record->eci_commarea_length = 8;
        record->eci_commarea = parms.area.data();
        return 1;
    });
    EXPECT_EQ(1, rc);
    EXPECT_LT(0, watch.foreignCommareas);
    EXPECT_LT(0, watch.foreignLengths);
    EciParms collecting = support::getReply(8);
    EXPECT_RC(0, QPX_ECI_Execute(connection.token, &collecting.record));
}

TEST_F(CollectedRecord, KeepsTheCommareaOfItsCallerAllTheTime)
{
    EciParms parms = support::getReply(8);
    EXPECT_RC(0, collect(parms));
    EXPECT_EQ("answered", support::toText(parms.commarea()));
    EXPECT_LT(100, watch.steps);
    EXPECT_EQ(0, watch.foreignCommareas);
}

TEST_F(CollectedRecord, KeepsTheLengthOfTheCommareaAllTheTime)
{
    EciParms parms = support::getReply(10);
    EXPECT_RC(0, collect(parms));
    EXPECT_EQ(10, int(parms.record.eci_commarea_length));
    EXPECT_LT(100, watch.steps);
    EXPECT_EQ(0, watch.foreignLengths);
}

TEST_F(CollectedRecord, KeepsTheCommareaOfACallerWithTooLittleRoom)
{
    EciParms parms = support::getReply(3);
    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, collect(parms));
    EXPECT_EQ(8, int(parms.record.eci_commarea_length)); // what is needed
    EXPECT_LT(100, watch.steps);
    EXPECT_EQ(0, watch.foreignCommareas);
    EciParms collecting = support::getReply(8);
    EXPECT_RC(0, QPX_ECI_Execute(connection.token, &collecting.record));
}

} // namespace

#endif
