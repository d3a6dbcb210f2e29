// Units of work whose calls are asynchronous, with COMMAREAs and with channels, and the lengths and
// codes with which asynchronous calls come back from a gateway.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "standin/gateway.h"
#include "support/eci_script.h"

using namespace script;
using standin::Fault;
using support::asyncCall;
using support::EciParms;
using support::getReply;
using support::getReplyWait;
using support::getSpecificReplyWait;
using support::syncCall;

namespace {

constexpr int extended = 1;
constexpr int commit = 2;
constexpr int backout = 4;

enum class Carrier { Commarea, Channel };

// Calls with either, on a connection of which the test knows nothing but the token.
class Caller {
public:
    explicit Caller(Carrier theCarrier) : carrier(theCarrier)
    {
        EXPECT_RC(ECI_NO_ERROR, ECI_createChannel("UNIT", &channel));
        EXPECT_RC(ECI_NO_ERROR, ECI_createContainer(channel, "DATA", ECI_BIT, 0, "unit", 4));
    }
    ~Caller() { EXPECT_RC(ECI_NO_ERROR, ECI_deleteChannel(&channel)); }
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    EciParms callOf(int callType, const std::string& program, int mode, int luwToken) const
    {
        bool withCommarea = carrier == Carrier::Commarea;
        EciParms parms = support::eciCall(callType, program, withCommarea ? text("unit") : Bytes());
        if (!withCommarea) parms.record.channel = channel;
        parms.withExtendMode(mode, luwToken);
        return parms;
    }

    int execute(QPX_ConnToken_t token, EciParms& parms) const
    {
        return carrier == Carrier::Commarea ? QPX_ECI_Execute(token, &parms.record)
                                            : QPX_ECI_Execute_Channel(token, &parms.record);
    }

    Carrier carrier;
    ECI_ChannelToken_t channel = nullptr;
};

class AsyncUnit : public ::testing::TestWithParam<Carrier> {
protected:
    AsyncUnit()
    {
        EXPECT_RC(QPX_OK, QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 30));
    }
    ~AsyncUnit() override { EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token)); }

    // Sends a call of a unit of work and returns its qualifier.
    int send(int mode, int luwToken, const std::string& program = "ECHO")
    {
        EciParms parms = caller.callOf(ECI_ASYNC, program, mode, luwToken);
        EXPECT_RC(0, caller.execute(token, parms));
        return parms.record.eci_message_qualifier;
    }

    // Collects the reply of a call and returns the unit of work that it names.
    int collect(int qualifier, int expectedRc = 0)
    {
        collected = getSpecificReplyWait(qualifier, 4);
        EXPECT_RC(expectedRc, QPX_ECI_Execute(token, &collected.record));
        EXPECT_EQ(qualifier, int(collected.record.eci_message_qualifier));
        return collected.record.eci_luw_token;
    }

    int call(int mode, int luwToken) { return collect(send(mode, luwToken)); }

    std::vector<int> messageIds() const
    {
        std::vector<int> ids;
        for (const standin::ReceivedRequest& request : gateway.requests())
            ids.push_back(request.header.messageId);
        return ids;
    }

    standin::Gateway gateway;
    QPX_ConnToken_t token = nullptr;
    Caller caller{GetParam()};
    EciParms collected;
};

std::string nameOf(const ::testing::TestParamInfo<Carrier>& info)
{
    return info.param == Carrier::Commarea ? "WithCommareas" : "WithChannels";
}

} // namespace

// ---- Against the stand-in gateway ----

TEST_P(AsyncUnit, IsOpenedContinuedAndCommitted)
{
    int unit = call(extended, 0);
    EXPECT_NE(0, unit);
    EXPECT_EQ(1U, gateway.openUnitsOfWork());
    EXPECT_EQ(unit, call(extended, unit));
    EXPECT_EQ(1U, gateway.openUnitsOfWork());
    EXPECT_EQ(0, call(commit, unit));
    EXPECT_EQ(0U, gateway.openUnitsOfWork());
    EXPECT_EQ(0U, gateway.findingCount());
}

TEST_P(AsyncUnit, IsOpenedAndBackedOut)
{
    int unit = call(extended, 0);
    EXPECT_EQ(0, call(backout, unit));
    EXPECT_EQ(0U, gateway.openUnitsOfWork());
    EXPECT_EQ(4, gateway.requests()[1].eci->extendMode);
}

TEST_P(AsyncUnit, HasOneSlotFromItsFirstCallToItsLast)
{
    int unit = call(extended, 0);
    call(0, 0); // a call of its own, meanwhile
    call(extended, unit);
    call(commit, unit);
    call(0, 0);
    EXPECT_EQ((std::vector<int>{1, 2, 1, 1, 1}), messageIds());
}

TEST_P(AsyncUnit, SendsNoDataWhenItEnds)
{
    int unit = call(extended, 0);
    call(commit, unit);
    standin::EciRequest end = *gateway.requests()[1].eci;
    EXPECT_EQ(2, end.extendMode);
    EXPECT_EQ(unit, end.luwToken);
    EXPECT_EQ(0, end.commareaLength);
    EXPECT_FALSE(end.channel.has_value());
}

TEST_P(AsyncUnit, NeedsNoRoomForTheReplyThatEndsIt)
{
    int unit = call(extended, 0);
    int qualifier = send(commit, unit);
    EciParms parms = getSpecificReplyWait(qualifier, 0);
    EXPECT_RC(0, QPX_ECI_Execute(token, &parms.record));
    EXPECT_EQ(0, int(parms.record.commarea_inbound_length));
}

TEST_P(AsyncUnit, MayMixSynchronousCallsIn)
{
    int unit = call(extended, 0);
    EciParms sync = caller.callOf(ECI_SYNC, "ECHO", extended, unit);
    EXPECT_RC(0, caller.execute(token, sync));
    EXPECT_EQ(unit, int(sync.record.eci_luw_token));
    EXPECT_EQ(0, call(commit, unit));
    EXPECT_EQ((std::vector<int>{1, 1, 1}), messageIds());
}

TEST_P(AsyncUnit, MayBeginWithASynchronousCall)
{
    EciParms sync = caller.callOf(ECI_SYNC, "ECHO", extended, 0);
    EXPECT_RC(0, caller.execute(token, sync));
    int unit = sync.record.eci_luw_token;
    EXPECT_EQ(unit, call(extended, unit));
    EXPECT_EQ(0, call(backout, unit));
    EXPECT_EQ((std::vector<int>{1, 1, 1}), messageIds());
}

TEST_P(AsyncUnit, EndsBesideAnother)
{
    int first = call(extended, 0);
    int second = call(extended, 0);
    EXPECT_NE(first, second);
    gateway.hold();
    int committing = send(commit, first);
    int backingOut = send(backout, second);
    ASSERT_TRUE(gateway.awaitHeld(2));
    gateway.releaseReversed();
    EXPECT_EQ(0, collect(backingOut));
    EXPECT_EQ(0, collect(committing));
    EXPECT_EQ(0U, gateway.openUnitsOfWork());
    EXPECT_EQ((std::vector<int>{1, 2, 1, 2}), messageIds());
}

TEST_P(AsyncUnit, RefusesAnotherCallUntilTheReplyIsCollected)
{
    int unit = call(extended, 0);
    int qualifier = send(extended, unit);
    ASSERT_TRUE(gateway.awaitAnswers(2));
    // A channel of its own: that of the call is held.
    Caller other(GetParam());
    EciParms parms = other.callOf(ECI_ASYNC, "ECHO", commit, unit);
    EXPECT_RC(ECI_ERR_ALREADY_ACTIVE, other.execute(token, parms));
    EXPECT_EQ(unit, collect(qualifier));
    EXPECT_EQ(0, call(commit, unit));
    EXPECT_EQ(3U, gateway.requestCount());
}

TEST_P(AsyncUnit, IsOverWhenItsProgramAbends)
{
    int unit = call(extended, 0);
    collect(send(extended, unit, "ABEND"), ECI_ERR_TRANSACTION_ABEND);
    EXPECT_EQ(GetParam() == Carrier::Commarea ? "unit" : "AZZZ",
              std::string(collected.record.eci_abend_code, 4));
    EXPECT_EQ(0U, gateway.openUnitsOfWork());
    int plain = send(0, 0);
    EXPECT_EQ(0, collect(plain));
}

TEST_P(AsyncUnit, IsUnknownOnceItIsOver)
{
    int unit = call(extended, 0);
    call(commit, unit);
    EciParms parms = caller.callOf(ECI_ASYNC, "ECHO", extended, unit);
    EXPECT_RC(ECI_ERR_LUW_TOKEN, caller.execute(token, parms));
    EXPECT_EQ(0, call(0, 0)); // a channel is not left held
}

TEST_P(AsyncUnit, GivesItsSlotBackWhenTheGatewayFails)
{
    int unit = call(extended, 0);
    gateway.misbehave({Fault::FlowError, 61445}, standin::once());
    collect(send(extended, unit), QPX_ERR_WORK_WAS_REFUSED);
    EciParms parms = caller.callOf(ECI_ASYNC, "ECHO", commit, unit);
    EXPECT_RC(ECI_ERR_LUW_TOKEN, caller.execute(token, parms));
    call(0, 0);
    EXPECT_EQ((std::vector<int>{1, 1, 1}), messageIds());
}

INSTANTIATE_TEST_SUITE_P(, AsyncUnit, ::testing::Values(Carrier::Commarea, Carrier::Channel),
                         nameOf);

// ---- A unit of work without a token ----

namespace {

class AsyncUnitWithoutToken : public ::testing::TestWithParam<Carrier> {
protected:
    // An asynchronous call in extended mode whose reply names no unit of work. Its message id.
    int call()
    {
        EciParms parms = caller.callOf(ECI_ASYNC, "OPEN", extended, 0);
        EXPECT_RC(0, caller.execute(connection.token, parms));
        int messageId = connection.awaitRequest().messageId();
        connection.peer.send(ProgramReply().luwToken(0).to(messageId));
        EciParms collected = getReplyWait(4);
        EXPECT_RC(0, QPX_ECI_Execute(connection.token, &collected.record));
        return messageId;
    }

    ScriptedConnection connection;
    Caller caller{GetParam()};
};

} // namespace

TEST_P(AsyncUnitWithoutToken, KeepsItsSlotForGood)
{
    EXPECT_EQ(1, call());
    EXPECT_EQ(2, call());
    EXPECT_EQ(3, call());
}

TEST_P(AsyncUnitWithoutToken, HasNoReplyUnderItsQualifier)
{
    int qualifier = call();
    EciParms parms = getSpecificReplyWait(qualifier, 4);
    EXPECT_RC(ECI_ERR_NO_REPLY, QPX_ECI_Execute(connection.token, &parms.record));
}

TEST_P(AsyncUnitWithoutToken, DoesNotHoldUpAClose)
{
    call();
    connection.closeInOrder();
}

INSTANTIATE_TEST_SUITE_P(, AsyncUnitWithoutToken,
                         ::testing::Values(Carrier::Commarea, Carrier::Channel), nameOf);

// ---- Inbound lengths ----

namespace {

struct Inbound {
    const char* name;
    int given;    // by the request, whose COMMAREA has 20 bytes
    int expected; // what comes back
};

class AsyncInbound : public ::testing::TestWithParam<Inbound> {
protected:
    AsyncInbound()
    {
        EXPECT_RC(QPX_OK, QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 30));
        EciParms parms = asyncCall("ECHO", text("twenty bytes long !!"));
        parms.record.commarea_inbound_length = static_cast<short>(GetParam().given);
        EXPECT_RC(0, QPX_ECI_Execute(token, &parms.record));
    }
    ~AsyncInbound() override { EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token)); }

    int collect(EciParms& parms) { return QPX_ECI_Execute(token, &parms.record); }

    std::size_t expected() const { return static_cast<std::size_t>(GetParam().expected); }

    standin::Gateway gateway;
    QPX_ConnToken_t token = nullptr;
};

std::string nameOfInbound(const ::testing::TestParamInfo<Inbound>& info)
{
    return info.param.name;
}

} // namespace

TEST_P(AsyncInbound, IsWhatComesBack)
{
    EciParms parms = getReplyWait(20);
    parms.withCommarea(filled(20, 'z'));
    EXPECT_RC(0, collect(parms));
    EXPECT_EQ(GetParam().expected, int(parms.record.commarea_inbound_length));
    EXPECT_EQ(support::slice(text("twenty bytes long !!"), 0, expected()) +
                  filled(20 - expected(), 'z'),
              parms.commarea());
}

TEST_P(AsyncInbound, FitsACommareaOfItsOwnSize)
{
    EciParms parms = getReplyWait(expected());
    EXPECT_RC(0, collect(parms));
    EXPECT_EQ(support::slice(text("twenty bytes long !!"), 0, expected()), parms.commarea());
}

TEST_P(AsyncInbound, IsToldToACommareaThatIsOneByteShort)
{
    EciParms small = getReplyWait(expected() - 1);
    small.withCommarea(filled(expected() - 1, 'z'));
    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, collect(small));
    EXPECT_EQ(GetParam().expected, int(small.record.eci_commarea_length));
    EXPECT_EQ(filled(expected() - 1, 'z'), small.commarea());

    EciParms again = getReply(static_cast<std::size_t>(small.record.eci_commarea_length));
    EXPECT_RC(0, collect(again));
    EXPECT_EQ(support::slice(text("twenty bytes long !!"), 0, expected()), again.commarea());
}

INSTANTIATE_TEST_SUITE_P(, AsyncInbound,
                         ::testing::Values(Inbound{"NotGiven", 0, 20}, Inbound{"Below", 7, 7},
                                           Inbound{"Equal", 20, 20}, Inbound{"Above", 21, 20}),
                         nameOfInbound);
