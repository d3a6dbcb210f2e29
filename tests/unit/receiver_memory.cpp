// Replies of asynchronous calls that are longer than their requests expected, when the receiver has
// no memory for them: none is collected as a whole one.
#include "support/eci_script.h"
#include "unit/receiver_fixture.h"

using namespace fixture;
using namespace script;
using support::asyncCall;
using support::Call;
using support::EciParms;
using support::failCallOn;
using support::failEveryCall;
using support::Fault;
using support::getReply;
using support::getReplyWait;
using support::getSpecificReply;
using support::syncCall;
using support::Threads;
using support::TraceFile;

namespace {

constexpr std::size_t LONG = 1000;

// Requests expect 8 bytes.
class LongReply : public ReceiverTest {
protected:
    static Bytes longReply(int messageId) { return eciReply(messageId, filled(LONG, 'r')); }

    int startOfUnit(int extendMode, int luwToken)
    {
        EciParms parms = asyncCall("PROG", filled(8, 'q'));
        parms.withExtendMode(extendMode, luwToken);
        EXPECT_RC(QPX_OK, QPX_ECI_Execute(connection.token, &parms.record));
        connection.awaitRequest();
        return parms.record.eci_message_qualifier;
    }

    int slotState(int messageId) { return connection.token->table.slot[messageId - 1].state; }

    // The nth taking of memory for a long reply fails, or every one for nth 0.
    static Fault refuseMemory(int nth = 0)
    {
        return failCallOn(Call::Malloc, reinterpret_cast<const void*>(LONG), nth, ENOMEM,
                          Threads::Others);
    }

    // A reply without memory that is a failure anyhow.
    void expectRefused(int rc, const Fault& noMemory)
    {
        EciParms reply = getReplyWait(LONG);
        EXPECT_RC(rc, collect(reply));
        EXPECT_EQ(1, noMemory.hits());
        EXPECT_EQ(0, trace.timesWrote(3014));
    }

    TraceFile trace{1};
};

TEST_F(LongReply, WithoutMemoryIsCollectedAsAFailure)
{
    Fault noMemory = refuseMemory();
    int messageId = startAsync();
    connection.peer.send(longReply(messageId));

    EciParms reply = getReplyWait(2 * LONG);
    EXPECT_RC(ECI_ERR_SYSTEM_ERROR, collect(reply));

    EXPECT_EQ(1, noMemory.hits());
    EXPECT_EQ(filled(2 * LONG), reply.commarea());
    EXPECT_EQ(messageId, int(reply.record.eci_message_qualifier));
    EXPECT_TRUE(trace.wrote(3014, "*EXC*",
                            "clapi_gwycon.failCutReply() Failed to allocate 1000 bytes for the "
                            "reply of an asynchronous request"));
}

TEST_F(LongReply, WithoutMemoryTellsHowLongItWas)
{
    Fault noMemory = refuseMemory();
    connection.peer.send(longReply(startAsync()));

    EciParms reply = getReplyWait(2 * LONG);
    EXPECT_RC(ECI_ERR_SYSTEM_ERROR, collect(reply));

    EXPECT_EQ(1, noMemory.hits());
    EXPECT_EQ(int(LONG), int(reply.record.commarea_inbound_length));
}

TEST_F(LongReply, WithoutMemoryIsCollectedOnceWhateverRoomThereIs)
{
    Fault noMemory = refuseMemory();
    int messageId = startAsync();
    connection.peer.send(longReply(messageId));

    EciParms reply = getReplyWait(8);
    EXPECT_RC(ECI_ERR_SYSTEM_ERROR, collect(reply));

    EXPECT_EQ(1, noMemory.hits());
    EXPECT_EQ(filled(8), reply.commarea());
    EXPECT_EQ(8, int(reply.record.eci_commarea_length));
    reply = getSpecificReply(messageId, LONG);
    EXPECT_RC(ECI_ERR_INVALID_MSG_QUAL, collect(reply));
}

TEST_F(LongReply, WithoutMemoryGivesItsSlotBack)
{
    Fault noMemory = refuseMemory();
    int messageId = startAsync();
    connection.peer.send(longReply(messageId));

    EciParms reply = getReplyWait(LONG);
    EXPECT_RC(ECI_ERR_SYSTEM_ERROR, collect(reply));

    EXPECT_EQ(1, noMemory.hits());
    EXPECT_EQ(SLOT_FREE, slotState(messageId));
    EXPECT_EQ(0, connection.token->asyncCount.load());
    expectAlive();
}

TEST_F(LongReply, WithoutMemoryLeavesTheRepliesBehindItWhole)
{
    Fault noMemory = refuseMemory();
    int cut = startAsync();
    int whole = startAsync();
    connection.peer.send(longReply(cut) + eciReply(whole, filled(LONG - 1, 'w')));

    EciParms reply = getReplyWait(LONG);
    EXPECT_RC(ECI_ERR_SYSTEM_ERROR, collect(reply));
    reply = getReplyWait(LONG - 1);
    EXPECT_RC(QPX_OK, collect(reply));

    EXPECT_EQ(1, noMemory.hits());
    EXPECT_EQ(whole, int(reply.record.eci_message_qualifier));
    EXPECT_EQ(filled(LONG - 1, 'w'), reply.commarea());
}

TEST_F(LongReply, WithoutMemoryIsReadOverThoughItIsTheLongestThereIs)
{
    Fault noMemory = failEveryCall(Call::Malloc, ENOMEM, Threads::Others);
    connection.peer.send(eciReply(startAsync(), filled(40'000, 'r')));

    EciParms reply = getReplyWait(32'767);
    EXPECT_RC(ECI_ERR_SYSTEM_ERROR, collect(reply));

    EXPECT_EQ(1, noMemory.hits());
    noMemory.end();
    expectAlive();
}

TEST_F(LongReply, WithoutMemoryIsNoBetterWhenItComesTwice)
{
    int messageId = startAsync();
    Fault noMemory = refuseMemory(1);
    connection.peer.send(longReply(messageId) + longReply(messageId));

    EciParms reply = getReplyWait(LONG);
    EXPECT_RC(ECI_ERR_SYSTEM_ERROR, collect(reply));

    EXPECT_EQ(1, noMemory.hits());
    EXPECT_EQ(filled(LONG), reply.commarea());
    reply = getReply(LONG);
    EXPECT_RC(ECI_ERR_NO_REPLY, collect(reply));
}

TEST_F(LongReply, WithoutMemoryLeavesItsUnitOfWorkToBeBackedOut)
{
    Fault noMemory = refuseMemory();
    int messageId = startOfUnit(ECI_EXTENDED, 0);
    connection.peer.send(ProgramReply().luwToken(12).commarea(filled(LONG, 'r')).to(messageId));

    EciParms reply = getReplyWait(LONG);
    EXPECT_RC(ECI_ERR_SYSTEM_ERROR, collect(reply));

    EXPECT_EQ(1, noMemory.hits());
    EXPECT_EQ(12, int(reply.record.eci_luw_token));
    EXPECT_EQ(SLOT_LUW_IDLE, slotState(messageId));
    EciParms backout = syncCall("PROG");
    backout.withExtendMode(ECI_BACKOUT, 12);
    auto call = connection.start(backout);
    EXPECT_EQ(messageId, connection.awaitRequest().messageId());
    connection.peer.send(ProgramReply().to(messageId));
    EXPECT_RC(QPX_OK, call.get());
    EXPECT_EQ(SLOT_FREE, slotState(messageId));
}

TEST_F(LongReply, WithoutMemoryGivesTheServersCodeIfThereIsOne)
{
    Fault noMemory = refuseMemory();
    connection.peer.send(
        ProgramReply().serverCode(-7).commarea(filled(LONG, 'r')).to(startAsync()));

    expectRefused(ECI_ERR_TRANSACTION_ABEND, noMemory);
}

TEST_F(LongReply, WithoutMemoryGivesTheGatewaysCodeIfThereIsOne)
{
    Fault noMemory = refuseMemory();
    ReplyBody body;
    body.commarea = filled(LONG, 'r');
    connection.peer.send(flow(replyType, startAsync(), 61445, "ECI", body.bytes()));

    expectRefused(QPX_ERR_WORK_WAS_REFUSED, noMemory);
}

TEST_F(LongReply, OfACommitNeedsNoMemory)
{
    Fault noMemory = refuseMemory();
    startOfUnit(ECI_EXTENDED, 0);
    connection.peer.send(ProgramReply().luwToken(12).commarea(filled(8, 'r')).to(1));
    EciParms reply = getReplyWait(8);
    ASSERT_RC(QPX_OK, collect(reply));

    startOfUnit(ECI_COMMIT, 12);
    connection.peer.send(ProgramReply().commarea(LONG, Bytes()).to(1)); // a length, and no data

    reply = getReplyWait(LONG);
    EXPECT_RC(QPX_OK, collect(reply));
    EXPECT_EQ(0, noMemory.calls());
}

TEST_F(LongReply, OfTheLengthThatIsExpectedNeedsNoMemory)
{
    Fault noMemory = failEveryCall(Call::Malloc, ENOMEM, Threads::Others);
    connection.peer.send(eciReply(startAsync("PROG", LONG), filled(LONG, 'r')));

    EciParms reply = getReplyWait(LONG);
    EXPECT_RC(QPX_OK, collect(reply));

    EXPECT_EQ(0, noMemory.calls());
    EXPECT_EQ(filled(LONG, 'r'), reply.commarea());
}

TEST_F(LongReply, ThatIsEmptyNeedsNoMemory)
{
    Fault noMemory = failEveryCall(Call::Malloc, ENOMEM, Threads::Others);
    connection.peer.send(eciReply(startAsync("PROG", 0), Bytes()));

    EciParms reply = getReplyWait(0);
    EXPECT_RC(QPX_OK, collect(reply));

    EXPECT_EQ(0, noMemory.calls());
}

} // namespace
