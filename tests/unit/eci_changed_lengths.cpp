// Records that another thread changes between their check and their use. What uses them is called
// as the check would have let nobody do.
#include "clapi_eci.h"
#include "support/eci_script.h"
#include "support/faults.h"

using namespace script;
using support::asyncCall;
using support::eciCall;
using support::EciParms;
using support::Fault;
using support::getReply;
using support::getSpecificReply;
using support::syncCall;
using support::TraceFile;

namespace {

class ChangedRecord : public ::testing::Test {
protected:
    // An asynchronous request whose reply has been delivered.
    void sendAndAnswer()
    {
        EciParms parms = asyncCall("LATER", filled(8, 'a'));
        ASSERT_RC(0, QPX_ECI_Execute(connection.token, &parms.record));
        int messageId = connection.awaitRequest().messageId();
        connection.peer.send(ProgramReply().commarea(text("answered")).to(messageId));
        EciParms after = syncCall("AFTER");
        auto call = connection.start(after);
        connection.peer.send(ProgramReply().to(connection.awaitRequest().messageId()));
        EXPECT_RC(0, call.get());
    }

    // The refused call has sent nothing, and the connection serves.
    void expectNothingSent()
    {
        EXPECT_TRUE(connection.peer.isQuiet());
        connection.closeInOrder();
    }

    ScriptedConnection connection;
};

TEST_F(ChangedRecord, IsRefusedWithANegativeLength)
{
    for (int callType : {ECI_SYNC, ECI_ASYNC}) {
        EciParms parms = eciCall(callType, "PROG", filled(8, 'a'));
        parms.record.eci_commarea_length = -1;
        TraceFile trace(1);

        EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH,
                  performEciExecute(connection.token, &parms.record, &parms.record, false));

        EXPECT_TRUE(trace.wroteText("*EXC*")) << trace.text();
    }
    expectNothingSent();
}

TEST_F(ChangedRecord, IsRefusedWithANegativeInboundOrOutboundLength)
{
    EciParms inbound = syncCall("PROG", filled(8, 'a'));
    inbound.record.commarea_inbound_length = -1;
    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH,
              performEciExecute(connection.token, &inbound.record, &inbound.record, false));

    EciParms outbound = syncCall("PROG", filled(8, 'a'));
    outbound.record.commarea_outbound_length = -1;
    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH,
              performEciExecute(connection.token, &outbound.record, &outbound.record, false));

    expectNothingSent();
}

TEST_F(ChangedRecord, IsRefusedWithALengthAndNoData)
{
    EciParms parms = syncCall("PROG", filled(8, 'a'));
    parms.record.eci_commarea = nullptr;

    EXPECT_RC(ECI_ERR_INVALID_DATA_AREA,
              performEciExecute(connection.token, &parms.record, &parms.record, false));

    expectNothingSent();
}

TEST_F(ChangedRecord, CollectsNothingIntoALengthWithoutData)
{
    sendAndAnswer();
    EciParms parms = getReply(8);
    parms.record.eci_commarea = nullptr;

    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH,
              getAsyncReply(connection.token, &parms.record, &parms.record));

    EXPECT_EQ(8, int{parms.record.eci_commarea_length});
}

// The first line of the collection is where the record changes.
TEST_F(ChangedRecord, CollectsTheReplyThatWasAskedFor)
{
    sendAndAnswer();
    EciParms parms = getSpecificReply(4711, 8);
    TraceFile trace(3);
    Fault changing = support::afterCall(
        support::Call::Write, 0,
        [&](const support::CallInfo&) {
            if (!trace.wroteText("getAsyncReply(")) return;
            parms.record.eci_call_type = ECI_GET_REPLY;
            parms.record.eci_message_qualifier = 1;
        },
        support::Threads::Calling);

    EXPECT_RC(ECI_ERR_INVALID_MSG_QUAL, QPX_ECI_Execute(connection.token, &parms.record));

    EXPECT_EQ(ECI_GET_REPLY, int{parms.record.eci_call_type});
    EXPECT_EQ(filled(8), parms.commarea());
}

TEST_F(ChangedRecord, CollectsNothingIntoANegativeLength)
{
    sendAndAnswer();
    EciParms parms = getReply(8);
    parms.record.eci_commarea_length = -1;

    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH,
              getAsyncReply(connection.token, &parms.record, &parms.record));

    EXPECT_EQ(filled(8), parms.commarea());
}

} // namespace
