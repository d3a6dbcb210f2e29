// The events of a connection in its trace: how often each is set, cleared and waited for. Nothing
// else shows it where an event is set that is set already.
#include "support/eci_script.h"
#include "unit/connect_fixture.h"

using namespace fixture;
using namespace script;
using support::asyncCall;
using support::Call;
using support::EciParms;
using support::failCall;
using support::Fault;
using support::getReply;
using support::TraceFile;

namespace {

const char* const setting = "clapiSetEvent() Setting event";
const char* const clearing = "clapiClearEvent() Clearing event";

class EventLines : public ::testing::Test {
protected:
    // How often the trace has so far what is done to an event.
    int linesOf(const std::string& what, const void* event) const
    {
        return trace.timesWroteText("clapi_lock." + what + ", eventPtr=" + shown(event) + "\n");
    }

    // Sends an asynchronous request, answers it, and waits until its reply is there.
    static void deliverReply(ScriptedConnection& connection)
    {
        EciParms parms = asyncCall("LATER", filled(8));
        EXPECT_RC(0, QPX_ECI_Execute(connection.token, &parms.record));
        connection.peer.send(ProgramReply().to(connection.awaitRequest().messageId()));
        expectStillServing(connection);
    }

    static void collect(ScriptedConnection& connection)
    {
        EciParms parms = getReply(8);
        EXPECT_RC(0, QPX_ECI_Execute(connection.token, &parms.record));
    }

    TraceFile trace{5};
};

} // namespace

TEST_F(EventLines, OfTheReceiversEndAreOneOfTheOpenAndOneOfTheReceiver)
{
    ScriptedConnection connection;
    expectStillServing(connection);

    EXPECT_EQ(2, linesOf(setting, &connection.token->recvThreadEndedEvent));
}

TEST_F(EventLines, OfTheReplyEventAreOneBehindTheLastReply)
{
    ScriptedConnection connection;
    deliverReply(connection);
    deliverReply(connection);

    collect(connection);
    EXPECT_EQ(0, linesOf(setting, &connection.token->asyncReplyEvent));
    collect(connection);
    EXPECT_EQ(1, linesOf(setting, &connection.token->asyncReplyEvent));
}

TEST_F(EventLines, OfTheReplyEventAreNoneBehindTheLastReplyOfAClosingConnection)
{
    ScriptedConnection connection;
    deliverReply(connection);
    auto closing = connection.startClose();
    ASSERT_TRUE(trace.awaitText("quiesceConnection() Waiting for "));

    collect(connection);

    EXPECT_EQ(0, linesOf(setting, &connection.token->asyncReplyEvent));
    connection.answerClose();
    EXPECT_RC(QPX_OK, closing.get());
    connection.forget();
}

TEST_F(EventLines, OfTheLastCallAreNoneWhereACloseGivesNoReplyUp)
{
    ScriptedConnection connection;
    const void* event = &connection.token->requestsEnded;

    connection.closeInOrder();

    EXPECT_EQ(0, linesOf(clearing, event));
}

TEST_F(EventLines, OfTheReceiversEndAreTwoWaitsWhereTheHandshakeCannotBeSent)
{
    ScriptedGateway gateway;
    QPX_ConnToken_t token = nullptr;
    Fault unsent = failCall(Call::Send, 1, EPIPE);

    EXPECT_RC(QPX_ERR_CONNECTFAILED,
              QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 0));

    EXPECT_EQ(2, trace.timesWroteText("clapi_lock.clapiWaitEvent() Waiting on event, eventPtr="));
}

// ---- What else shows in a trace or in a record alone ----

TEST_F(EventLines, DoNotKeepADumpOfTokensFromTellingThatItHasNone)
{
    ScriptedConnection connection;
    Fault fault = support::failCallOn(Call::MutexLock, &gtlLock.lock, 1, EINVAL);

    EXPECT_RC(QPX_OK, QPX_dumpState());

    EXPECT_TRUE(trace.wroteText("clapi_gwytok.clapiDumpGatewayTokens() List length=0"));
    EXPECT_FALSE(trace.wroteText("clapi_gwytok.clapiDumpGatewayTokens() List length=1"));
}

TEST(IdleUnitOfWork, HoldsNoByteOfAPasswordThatFillsItsField)
{
    ScriptedConnection connection;
    EciParms parms = support::syncCall("PROG");
    parms.withVersion(ECI_VERSION_4).withExtendMode(ECI_EXTENDED);
    parms.withFixedUser("USER", "0123456789ABCDEF");
    auto call = connection.start(parms);
    connection.peer.send(ProgramReply().luwToken(7).to(connection.awaitRequest().messageId()));
    EXPECT_RC(0, call.get());

    const RequestSlot& slot = connection.token->table.slot[0];
    EXPECT_EQ(SLOT_LUW_IDLE, slot.state);
    for (char byte : slot.eciParms.eci_password) EXPECT_EQ('\0', byte);
}
