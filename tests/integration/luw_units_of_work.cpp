// Units of work that span several calls: their slot, their token, and how they end.
#include <gtest/gtest.h>

#include <string>

#include "standin/gateway.h"
#include "support/eci_script.h"

using namespace script;
using support::asyncCall;
using support::EciParms;
using support::getReply;
using support::getReplyWait;
using support::syncCall;
using support::TraceFile;

namespace {

constexpr int single = 0;
constexpr int extended = 1;
constexpr int commit = 2;
constexpr int backout = 4;

int tokenOf(const EciParms& parms)
{
    return parms.record.eci_luw_token;
}

class UnitOfWork : public ::testing::Test {
protected:
    // One call, answered; returns the message id that it had on the wire.
    int call(EciParms& parms, const ProgramReply& answer, int expectedRc = 0)
    {
        auto running = connection.start(parms);
        last = connection.awaitRequest();
        connection.peer.send(answer.to(last.messageId()));
        EXPECT_RC(expectedRc, running.get());
        return last.messageId();
    }

    // The same for a call that is made for nothing but its message id.
    int plainCall()
    {
        EciParms parms = syncCall("PLAIN");
        return call(parms, ProgramReply());
    }

    int open(int luwToken)
    {
        EciParms parms = syncCall("OPEN", text("data"));
        parms.withExtendMode(extended);
        int messageId = call(parms, ProgramReply().luwToken(luwToken).commarea(text("open")));
        EXPECT_EQ(luwToken, tokenOf(parms));
        return messageId;
    }

    int refused(EciParms& parms) { return QPX_ECI_Execute(connection.token, &parms.record); }

    EciParms callIn(int mode, int luwToken)
    {
        EciParms parms = syncCall("NEXT", text("data"));
        parms.withExtendMode(mode, luwToken);
        return parms;
    }

    ScriptedConnection connection;
    Request last;
};

} // namespace

// ---- The slot stays with the unit of work ----

TEST_F(UnitOfWork, KeepsItsSlotBetweenCalls)
{
    EXPECT_EQ(1, open(7));
    EXPECT_EQ(2, plainCall());
    EciParms next = callIn(extended, 7);
    EXPECT_EQ(1, call(next, ProgramReply().luwToken(7)));
    EXPECT_EQ(2, plainCall());
}

TEST_F(UnitOfWork, GivesItsSlotBackWhenItIsCommitted)
{
    open(7);
    EciParms end = callIn(commit, 7);
    EXPECT_EQ(1, call(end, ProgramReply()));
    EXPECT_EQ(1, plainCall());
}

TEST_F(UnitOfWork, GivesItsSlotBackWhenItIsBackedOut)
{
    open(7);
    EciParms end = callIn(backout, 7);
    EXPECT_EQ(1, call(end, ProgramReply()));
    EXPECT_EQ(1, plainCall());
}

TEST_F(UnitOfWork, SendsNoDataWhenItEnds)
{
    for (int mode : {commit, backout}) {
        open(7);
        EciParms end = callIn(mode, 7);
        call(end, ProgramReply());
        EXPECT_EQ(support::toHex(be32(1) + be32(mode) + be32(7)),
                  support::toHex(support::slice(last.body, 0, 12)));
        // From the COMMAREA's length on: none, and neither of its two other lengths.
        EXPECT_EQ(support::toHex(hex("00000000 00 00 00 0000 00 FFFFFFFF")),
                  support::toHex(support::slice(last.body, 65, last.body.size() - 65 - 4)));
        EXPECT_EQ(text("data"), end.commarea());
    }
}

TEST_F(UnitOfWork, TakesTheTokenThatTheServerReturns)
{
    open(7);
    EciParms end = callIn(commit, 7);
    call(end, ProgramReply().luwToken(0));
    EXPECT_EQ(0, tokenOf(end));
}

TEST_F(UnitOfWork, FollowsATokenThatChanges)
{
    open(7);
    EciParms next = callIn(extended, 7);
    EXPECT_EQ(1, call(next, ProgramReply().luwToken(8)));
    EXPECT_EQ(8, tokenOf(next));
    EciParms old = callIn(extended, 7);
    EXPECT_RC(ECI_ERR_LUW_TOKEN, refused(old));
    EciParms end = callIn(commit, 8);
    EXPECT_EQ(1, call(end, ProgramReply()));
}

TEST_F(UnitOfWork, IsOverWhenTheServerReturnsNoToken)
{
    open(7);
    EciParms next = callIn(extended, 7);
    EXPECT_EQ(1, call(next, ProgramReply().luwToken(0)));
    EXPECT_EQ(1, plainCall());
}

TEST_F(UnitOfWork, NeverBeganWhenTheServerReturnsNoToken)
{
    EXPECT_EQ(1, open(0));
    EXPECT_EQ(1, plainCall());
}

TEST_F(UnitOfWork, KeepsItsSlotForANegativeToken)
{
    EXPECT_EQ(1, open(-5));
    EXPECT_EQ(2, plainCall());
    EciParms end = callIn(commit, -5);
    EXPECT_EQ(1, call(end, ProgramReply()));
}

TEST_F(UnitOfWork, EndsWithACallThatIsNotExtended)
{
    open(7);
    EciParms last7 = callIn(single, 7);
    EXPECT_EQ(1, call(last7, ProgramReply().luwToken(7)));
    EXPECT_EQ(1, plainCall());
}

TEST_F(UnitOfWork, MayBeOneOfSeveralOnAConnection)
{
    EXPECT_EQ(1, open(100));
    EXPECT_EQ(2, open(200));
    EXPECT_EQ(3, open(300));
    EciParms second = callIn(commit, 200);
    EXPECT_EQ(2, call(second, ProgramReply()));
    EciParms third = callIn(backout, 300);
    EXPECT_EQ(3, call(third, ProgramReply()));
    EciParms first = callIn(extended, 100);
    EXPECT_EQ(1, call(first, ProgramReply().luwToken(100)));
}

TEST_F(UnitOfWork, ThatEndsWithoutATokenIsTheServersAffair)
{
    EciParms end = callIn(commit, 0);
    EXPECT_EQ(1, call(end, ProgramReply().serverCode(-8), ECI_ERR_LUW_TOKEN));
    EXPECT_EQ(1, plainCall());
}

TEST_F(UnitOfWork, TracesTheSlotThatItFindsAgain)
{
    open(7);
    TraceFile trace(4);
    EciParms next = callIn(extended, 7);
    call(next, ProgramReply().luwToken(7));
    EXPECT_TRUE(
        trace.wroteText("DEBUG  clapi_gwytok.slotFind() Found existing slot 1 for request\n"))
        << trace.text();
}

// ---- Tokens that cannot be used ----

TEST_F(UnitOfWork, IsRefusedWhenItsTokenIsUnknown)
{
    EciParms parms = callIn(extended, 7);
    EXPECT_RC(ECI_ERR_LUW_TOKEN, refused(parms));
    EXPECT_EQ(7, tokenOf(parms));
    EXPECT_TRUE(connection.peer.isQuiet());
    EXPECT_EQ(1, plainCall());
}

TEST_F(UnitOfWork, IsRefusedWhenItIsOver)
{
    open(7);
    EciParms end = callIn(commit, 7);
    call(end, ProgramReply());
    EciParms next = callIn(extended, 7);
    EXPECT_RC(ECI_ERR_LUW_TOKEN, refused(next));
    EciParms again = callIn(commit, 7);
    EXPECT_RC(ECI_ERR_LUW_TOKEN, refused(again));
    EXPECT_TRUE(connection.peer.isQuiet());
}

TEST_F(UnitOfWork, IsRefusedWhileItHasACallInProgress)
{
    open(7);
    EciParms slow = callIn(extended, 7);
    auto running = connection.start(slow);
    Request request = connection.awaitRequest();

    EciParms other = callIn(extended, 7);
    EXPECT_RC(ECI_ERR_ALREADY_ACTIVE, refused(other));
    EciParms end = callIn(commit, 7);
    EXPECT_RC(ECI_ERR_ALREADY_ACTIVE, refused(end));
    EXPECT_TRUE(connection.peer.isQuiet());
    EXPECT_EQ(2, plainCall()); // the refused calls have left the other's slot alone

    connection.peer.send(ProgramReply().luwToken(7).commarea(text("slow")).to(request.messageId()));
    EXPECT_RC(0, running.get());
    EXPECT_EQ(text("slow"), slow.commarea());
    EciParms last7 = callIn(commit, 7);
    EXPECT_EQ(1, call(last7, ProgramReply()));
}

TEST_F(UnitOfWork, IsUnknownOnAnotherConnection)
{
    open(7);
    ScriptedConnection other;
    EciParms parms = callIn(extended, 7);
    EXPECT_RC(ECI_ERR_LUW_TOKEN, QPX_ECI_Execute(other.token, &parms.record));
}

// ---- Calls that fail ----

TEST_F(UnitOfWork, IsGivenUpWhenACallOfItFails)
{
    open(7);
    EciParms failing = callIn(extended, 7);
    EXPECT_EQ(1, call(failing, ProgramReply().serverCode(-7).luwToken(7).abend("ASRA"),
                      ECI_ERR_TRANSACTION_ABEND));
    EXPECT_EQ(7, tokenOf(failing));
    EciParms next = callIn(extended, 7);
    EXPECT_RC(ECI_ERR_LUW_TOKEN, refused(next));
    EXPECT_EQ(1, plainCall());
}

TEST_F(UnitOfWork, NeverBeganWhenItsFirstCallFails)
{
    EciParms parms = syncCall("OPEN");
    parms.withExtendMode(extended);
    EXPECT_EQ(1, call(parms, ProgramReply().serverCode(-7).luwToken(7), ECI_ERR_TRANSACTION_ABEND));
    EXPECT_EQ(7, tokenOf(parms));
    EciParms next = callIn(extended, 7);
    EXPECT_RC(ECI_ERR_LUW_TOKEN, refused(next));
}

TEST_F(UnitOfWork, IsGivenUpWhenItsCommitFails)
{
    open(7);
    EciParms end = callIn(commit, 7);
    EXPECT_EQ(1, call(end, ProgramReply().serverCode(-30), ECI_ERR_ROLLEDBACK));
    EXPECT_EQ(1, plainCall());
}

TEST_F(UnitOfWork, IsGivenUpWhenTheGatewayFails)
{
    open(7);
    EciParms next = callIn(extended, 7);
    auto running = connection.start(next);
    Request request = connection.awaitRequest();
    connection.peer.send(errorFlow(request.messageId(), 61445));
    EXPECT_RC(QPX_ERR_WORK_WAS_REFUSED, running.get());
    EciParms again = callIn(extended, 7);
    EXPECT_RC(ECI_ERR_LUW_TOKEN, refused(again));
}

TEST_F(UnitOfWork, IsLostWithItsConnection)
{
    open(7);
    TraceFile trace(3);
    lose(connection, trace);
    EciParms next = callIn(commit, 7);
    EXPECT_RC(QPX_ERR_LOSTGWCON, refused(next));
}

TEST_F(UnitOfWork, DoesNotHoldUpAClose)
{
    open(7);
    connection.closeInOrder();
}

// ---- Asynchronous calls ----

namespace {

class AsyncUnitOfWork : public UnitOfWork {
protected:
    // An asynchronous call, answered and collected.
    EciParms collected(EciParms& parms, const ProgramReply& answer, int expectedRc = 0)
    {
        EXPECT_RC(0, QPX_ECI_Execute(connection.token, &parms.record));
        last = connection.awaitRequest();
        connection.peer.send(answer.to(last.messageId()));
        EciParms collecting = getReplyWait(8);
        collecting.withCommarea(filled(8, 'z'));
        EXPECT_RC(expectedRc, QPX_ECI_Execute(connection.token, &collecting.record));
        return collecting;
    }

    EciParms opening()
    {
        EciParms parms = asyncCall("OPEN", text("data"));
        parms.withExtendMode(extended);
        return parms;
    }
};

} // namespace

TEST_F(AsyncUnitOfWork, KeepsItsSlotWhenItsReplyIsCollected)
{
    EciParms parms = opening();
    EciParms reply = collected(parms, ProgramReply().luwToken(7));
    EXPECT_EQ(1, last.messageId());
    EXPECT_EQ(7, tokenOf(reply));
    EXPECT_EQ(2, plainCall());
    EciParms end = callIn(commit, 7);
    EXPECT_EQ(1, call(end, ProgramReply()));
    EXPECT_EQ(1, plainCall());
}

TEST_F(AsyncUnitOfWork, MayGoOnAsynchronously)
{
    EciParms first = opening();
    collected(first, ProgramReply().luwToken(7));
    EciParms second = asyncCall("NEXT", text("data"));
    second.withExtendMode(extended, 7);
    collected(second, ProgramReply().luwToken(7));
    EXPECT_EQ(1, last.messageId());
    EciParms third = asyncCall("NEXT", text("data"));
    third.withExtendMode(commit, 7);
    collected(third, ProgramReply());
    EXPECT_EQ(1, last.messageId());
    EXPECT_EQ(1, plainCall());
}

TEST_F(AsyncUnitOfWork, IsActiveUntilItsReplyIsCollected)
{
    EciParms first = opening();
    collected(first, ProgramReply().luwToken(7));
    EciParms second = asyncCall("NEXT", text("data"));
    second.withExtendMode(extended, 7);
    EXPECT_RC(0, QPX_ECI_Execute(connection.token, &second.record));
    EciParms other = callIn(extended, 7);
    EXPECT_RC(ECI_ERR_ALREADY_ACTIVE, refused(other));
    connection.peer.send(ProgramReply().luwToken(7).to(connection.awaitRequest().messageId()));
    EciParms collecting = getReplyWait(8);
    EXPECT_RC(0, QPX_ECI_Execute(connection.token, &collecting.record));
    EciParms end = callIn(backout, 7);
    EXPECT_EQ(1, call(end, ProgramReply()));
}

TEST_F(AsyncUnitOfWork, KeepsItsSlotEvenWithoutAToken)
{
    EciParms parms = opening();
    collected(parms, ProgramReply().luwToken(0));
    EXPECT_EQ(2, plainCall());
}

TEST_F(AsyncUnitOfWork, GivesItsSlotBackForANegativeToken)
{
    EciParms parms = opening();
    collected(parms, ProgramReply().luwToken(-7));
    EXPECT_EQ(1, plainCall());
}

TEST_F(AsyncUnitOfWork, CarriesNoDataWhenItEnds)
{
    EciParms first = opening();
    collected(first, ProgramReply().luwToken(7));
    EciParms end = asyncCall("NEXT", text("data"));
    end.withExtendMode(commit, 7);
    EciParms reply = collected(end, ProgramReply());
    EXPECT_EQ(support::toHex(hex("00000000 00 00 00 0000 00 FFFFFFFF")),
              support::toHex(support::slice(last.body, 65, last.body.size() - 65 - 4)));
    EXPECT_EQ(filled(8, 'z'), reply.commarea());
}

TEST_F(AsyncUnitOfWork, IsRefusedWhenItsTokenIsUnknown)
{
    EciParms parms = asyncCall("NEXT", text("data"));
    parms.withExtendMode(extended, 7);
    parms.record.eci_message_qualifier = 99;
    EXPECT_RC(ECI_ERR_LUW_TOKEN, refused(parms));
    EXPECT_EQ(99, int(parms.record.eci_message_qualifier));
    EXPECT_TRUE(connection.peer.isQuiet());
}

// ---- Against the stand-in gateway ----

namespace {

class GatewayUnitOfWork : public ::testing::Test {
protected:
    GatewayUnitOfWork()
    {
        EXPECT_RC(QPX_OK, QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 30));
    }
    ~GatewayUnitOfWork() override { EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token)); }

    int call(EciParms& parms) { return QPX_ECI_Execute(token, &parms.record); }

    int open()
    {
        EciParms parms = syncCall("ECHO", text("one"));
        parms.withExtendMode(extended);
        EXPECT_RC(0, call(parms));
        EXPECT_EQ(text("one"), parms.commarea());
        EXPECT_NE(0, tokenOf(parms));
        return parms.record.eci_luw_token;
    }

    standin::Gateway gateway;
    QPX_ConnToken_t token = nullptr;
};

} // namespace

TEST_F(GatewayUnitOfWork, IsOpenedContinuedAndCommitted)
{
    int unit = open();
    EXPECT_EQ(1u, gateway.openUnitsOfWork());
    EciParms next = syncCall("ECHO", text("two"));
    next.withExtendMode(extended, unit);
    EXPECT_RC(0, call(next));
    EXPECT_EQ(text("two"), next.commarea());
    EXPECT_EQ(unit, tokenOf(next));
    EciParms end = syncCall("ECHO");
    end.withExtendMode(commit, unit);
    EXPECT_RC(0, call(end));
    EXPECT_EQ(0u, gateway.openUnitsOfWork());
    EXPECT_EQ(0u, gateway.findingCount());
}

TEST_F(GatewayUnitOfWork, IsOpenedAndBackedOut)
{
    EciParms end = syncCall("ECHO");
    end.withExtendMode(backout, open());
    EXPECT_RC(0, call(end));
    EXPECT_EQ(0u, gateway.openUnitsOfWork());
}

TEST_F(GatewayUnitOfWork, IsOverWhenTheProgramAbends)
{
    int unit = open();
    EciParms abending = syncCall("ABEND", text("AXYZ"));
    abending.withExtendMode(extended, unit);
    EXPECT_RC(ECI_ERR_TRANSACTION_ABEND, call(abending));
    EXPECT_EQ("AXYZ", std::string(abending.record.eci_abend_code, 4));
    EXPECT_EQ(0u, gateway.openUnitsOfWork());
    EciParms next = syncCall("ECHO");
    next.withExtendMode(extended, unit);
    EXPECT_RC(ECI_ERR_LUW_TOKEN, call(next));
}

TEST_F(GatewayUnitOfWork, RunsBesideOthersAndCallsOfTheirOwn)
{
    int first = open();
    int second = open();
    EXPECT_NE(first, second);
    EciParms plain = syncCall("ECHO", text("plain"));
    EXPECT_RC(0, call(plain));
    EXPECT_EQ(text("plain"), plain.commarea());
    for (int unit : {second, first}) {
        EciParms end = syncCall("ECHO");
        end.withExtendMode(commit, unit);
        EXPECT_RC(0, call(end));
    }
    EXPECT_EQ(0u, gateway.openUnitsOfWork());
}
