// Asynchronous channel calls: their channel is held until the reply is collected, by whichever of
// the collecting calls, and given back once.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/channel_script.h"

using namespace script;
using support::asyncCall;
using support::eciCall;
using support::EciParms;
using support::getReply;
using support::getReplyWait;
using support::TraceFile;

namespace {

class AsyncChannelCall : public ::testing::Test {
protected:
    AsyncChannelCall() { channel.with("B", "bb").with("A", "aa"); }

    // Sends a request with the channel and returns its qualifier.
    int send() { return send(channel); }
    int send(const Channel& other, int extendMode = 0)
    {
        EciParms parms = channelCall(ECI_ASYNC, other);
        parms.withExtendMode(extendMode);
        EXPECT_RC(0, executeChannel(connection, parms));
        request = connection.awaitRequest();
        EXPECT_EQ(request.messageId(), int(parms.record.eci_message_qualifier));
        return request.messageId();
    }

    void answer(int messageId, const ChannelReply& reply, int gatewayRc = 0)
    {
        connection.peer.send(reply.to(messageId, gatewayRc));
    }

    // Waits until everything that the peer has sent so far is delivered: a later reply is.
    void awaitDelivery()
    {
        EciParms parms = support::syncCall("AFTER");
        auto call = connection.start(parms);
        connection.peer.send(ProgramReply().to(connection.awaitRequest().messageId()));
        EXPECT_RC(0, call.get());
    }

    int collect(EciParms& parms) { return executeChannel(connection, parms); }
    int collect()
    {
        EciParms parms = getReplyWait(0);
        return collect(parms);
    }

    ScriptedConnection connection;
    Channel channel;
    Request request;
};

} // namespace

// ---- Sending ----

TEST_F(AsyncChannelCall, SendsTheSameBytesAsASynchronousOne)
{
    send();
    EXPECT_EQ(
        support::toHex(hex("FF 4348414E4E454C000000000000000000 00000333 00000002"
                           "41000000000000000000000000000000 01 0000 01 00000000 00000002 6161"
                           "42000000000000000000000000000000 01 0000 01 00000000 00000002 6262"
                           "0000 00 FFFFFFFF")),
        support::toHex(channelOf(request)));
    answer(request.messageId(), ChannelReply());
    EXPECT_RC(0, collect());
}

TEST_F(AsyncChannelCall, ChangesNothingOfItsRecordButTheQualifier)
{
    EciParms parms = channelCall(ECI_ASYNC, channel);
    parms.record.eci_message_qualifier = 99;
    EciParms::fill(parms.record.eci_abend_code, "KEEP");
    QPX_ECI_PARMS expected = parms.record;
    expected.eci_message_qualifier = 1;
    EXPECT_RC(0, executeChannel(connection, parms));
    EXPECT_EQ(0, std::memcmp(&expected, &parms.record, sizeof expected));
    answer(1, ChannelReply());
    EXPECT_RC(0, collect());
}

TEST_F(AsyncChannelCall, AllocatesNoReplyBuffer)
{
    TraceFile trace(4);
    answer(send(), ChannelReply());
    EXPECT_RC(0, collect());
    EXPECT_EQ(0, trace.timesWrote(1520));
    EXPECT_EQ(0, trace.timesWrote(1544));
}

TEST_F(AsyncChannelCall, LocksTheChannelAndUnlocksItAtItsCollection)
{
    TraceFile trace(3);
    int qualifier = send();
    EXPECT_EQ(1, trace.timesWrote(1460));
    EXPECT_EQ(0, trace.timesWrote(1471));
    answer(qualifier, ChannelReply());
    awaitDelivery();
    EXPECT_EQ(0, trace.timesWrote(1471));
    EXPECT_RC(0, collect());
    EXPECT_EQ(1, trace.timesWrote(1460));
    EXPECT_EQ(1, trace.timesWrote(1471));
}

// ---- Collecting ----

namespace {

struct Collecting {
    int callType;
    bool byChannelCall; // by QPX_ECI_Execute_Channel, else by QPX_ECI_Execute
};

class AsyncChannelCollected : public AsyncChannelCall,
                              public ::testing::WithParamInterface<Collecting> {
protected:
    EciParms collecting(int qualifier) const
    {
        EciParms parms = eciCall(GetParam().callType, "", Bytes());
        parms.record.eci_message_qualifier = qualifier;
        return parms;
    }

    int execute(EciParms& parms)
    {
        return GetParam().byChannelCall ? QPX_ECI_Execute_Channel(connection.token, &parms.record)
                                        : QPX_ECI_Execute(connection.token, &parms.record);
    }

    bool waits() const
    {
        return GetParam().callType == ECI_GET_REPLY_WAIT ||
               GetParam().callType == ECI_GET_SPECIFIC_REPLY_WAIT;
    }
};

std::string nameOf(const ::testing::TestParamInfo<Collecting>& info)
{
    static const char* const types[] = {
        "", "", "", "GetReply", "GetReplyWait", "GetSpecificReply", "GetSpecificReplyWait"};
    return std::string(types[info.param.callType]) +
           (info.param.byChannelCall ? "ByExecuteChannel" : "ByExecute");
}

INSTANTIATE_TEST_SUITE_P(, AsyncChannelCollected,
                         ::testing::Values(Collecting{3, false}, Collecting{3, true},
                                           Collecting{4, false}, Collecting{4, true},
                                           Collecting{5, false}, Collecting{5, true},
                                           Collecting{6, false}, Collecting{6, true}),
                         nameOf);

} // namespace

TEST_P(AsyncChannelCollected, GivesTheChangedChannelBack)
{
    TraceFile trace(4);
    int qualifier = send();
    auto use = channel.startUse();
    ASSERT_TRUE(trace.awaitText(waitsForChannel));
    answer(qualifier, ChannelReply(2, added("NEW", 1, 0, text("n")) + deleted("A")));
    awaitDelivery();
    EXPECT_FALSE(use.hasEnded()); // delivered is not collected

    EciParms parms = collecting(qualifier);
    EXPECT_RC(0, execute(parms));

    EXPECT_RC(0, use.get());
    EXPECT_EQ((Names{"NEW=n", "B=bb"}), channel.contents());
    EXPECT_EQ(channel.token, ECI_ChannelToken_t(parms.record.channel));
    EXPECT_EQ(ECI_ASYNC, int(parms.record.eci_call_type));
    EXPECT_EQ(qualifier, int(parms.record.eci_message_qualifier));
    EXPECT_EQ("PROG    ", std::string(parms.record.eci_program_name, 8));
    connection.closeInOrder();
}

TEST_P(AsyncChannelCollected, UnlocksTheChannelOnce)
{
    int qualifier = send();
    answer(qualifier, ChannelReply());
    awaitDelivery();
    TraceFile trace(3);
    EciParms parms = collecting(qualifier);
    EXPECT_RC(0, execute(parms));
    EXPECT_EQ(0, trace.timesWrote(1460));
    EXPECT_EQ(1, trace.timesWrote(1471));
    EXPECT_TRUE(trace.wrote(1471, "ENTRY",
                            "clapi_channel.unlockChannel(chanTok=" + shown(channel.token) + ")"));
}

TEST_P(AsyncChannelCollected, WaitsOrNotAndLeavesTheChannelHeld)
{
    TraceFile trace(4);
    int qualifier = send();
    EciParms parms = collecting(qualifier);
    if (!waits()) {
        EXPECT_RC(ECI_ERR_NO_REPLY, execute(parms));
        EXPECT_EQ(0, trace.timesWrote(1471));
        answer(qualifier, ChannelReply());
        EXPECT_RC(0, collect());
    } else {
        trace.forget();
        auto waiting = callInThread([&] { return execute(parms); });
        ASSERT_TRUE(trace.awaitText("clapi_lock.clapiWaitEvent() Waiting on event"));
        EXPECT_EQ(0, trace.timesWrote(1471));
        answer(qualifier, ChannelReply());
        EXPECT_RC(0, waiting.get());
    }
    channel.expectFree();
}

TEST_P(AsyncChannelCollected, GivesTheChannelBackWithACodeOfTheServer)
{
    int qualifier = send();
    answer(qualifier, ChannelReply(1, deleted("A")).serverCode(-7));
    awaitDelivery();
    EciParms parms = collecting(qualifier);
    EXPECT_RC(-7, execute(parms));
    EXPECT_EQ((Names{"B=bb"}), channel.contents());
}

TEST_P(AsyncChannelCollected, GivesTheChannelBackWithACodeOfTheGateway)
{
    int qualifier = send();
    connection.peer.send(errorFlow(qualifier, 61445));
    awaitDelivery();
    EciParms parms = collecting(qualifier);
    EXPECT_RC(61445, execute(parms));
    EXPECT_EQ((Names{"A=aa", "B=bb"}), channel.contents());
}

TEST_P(AsyncChannelCollected, GivesTheChannelBackWhenTheConnectionIsLost)
{
    int qualifier = send();
    TraceFile trace(3);
    lose(connection, trace);
    EciParms parms = collecting(qualifier);
    EXPECT_RC(-102, execute(parms));
    EXPECT_EQ((Names{"A=aa", "B=bb"}), channel.contents());
}

// ---- What a held channel holds up ----

namespace {

struct Use {
    const char* name;
    std::function<int(ECI_ChannelToken_t)> call;
};

ECI_CONTAINER_INFO ignoredInfo;
char ignoredData[16];

const Use uses[] = {
    {"GetChannelName",
     [](ECI_ChannelToken_t token) {
         char buffer[ECI_NAME_SIZE];
         return ECI_getChannelName(token, buffer);
     }},
    {"CreateContainer",
     [](ECI_ChannelToken_t token) { return ECI_createContainer(token, "C", ECI_BIT, 0, "c", 1); }},
    {"DeleteContainer", [](ECI_ChannelToken_t token) { return ECI_deleteContainer(token, "A"); }},
    {"GetFirstContainer",
     [](ECI_ChannelToken_t token) { return ECI_getFirstContainer(token, &ignoredInfo); }},
    {"GetNextContainer",
     [](ECI_ChannelToken_t token) { return ECI_getNextContainer(token, &ignoredInfo); }},
    {"GetContainerInfo",
     [](ECI_ChannelToken_t token) { return ECI_getContainerInfo(token, "A", &ignoredInfo); }},
    {"GetContainerData",
     [](ECI_ChannelToken_t token) {
         return ECI_getContainerData(token, "A", ignoredData, sizeof ignoredData, 0, nullptr);
     }},
    {"SetContainerData",
     [](ECI_ChannelToken_t token) { return ECI_setContainerData(token, "A", "x", 1); }},
};

class AsyncChannelUse : public AsyncChannelCall, public ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(, AsyncChannelUse, ::testing::Range(0, 8),
                         [](const auto& one) { return std::string(uses[one.param].name); });

} // namespace

TEST_P(AsyncChannelUse, WaitsUntilTheReplyIsCollected)
{
    TraceFile trace(4);
    int qualifier = send();
    auto use = callInThread(
        [this] { return uses[static_cast<std::size_t>(GetParam())].call(channel.token); });
    ASSERT_TRUE(trace.awaitText(waitsForChannel));
    EXPECT_TRUE(trace.wrote(1463, "DEBUG",
                            "clapi_channel.lockChannel() Waiting for channel \"CHANNEL\" (" +
                                shown(channel.token) + ")"));
    answer(qualifier, ChannelReply());
    awaitDelivery();
    EXPECT_FALSE(use.hasEnded());
    EXPECT_RC(0, collect());
    EXPECT_RC(0, use.get());
    EXPECT_TRUE(trace.wroteText("DEBUG  clapi_channel.lockChannel() Finished waiting for channel "
                                "\"CHANNEL\" (" +
                                shown(channel.token) + ")\n"));
}

TEST_F(AsyncChannelCall, HoldsUpTheDeletionOfItsChannel)
{
    TraceFile trace(4);
    int qualifier = send();
    auto deleting = callInThread([this] { return ECI_deleteChannel(&channel.token); });
    ASSERT_TRUE(trace.awaitText(waitsForChannel));
    answer(qualifier, ChannelReply());
    awaitDelivery();
    EXPECT_FALSE(deleting.hasEnded());
    EXPECT_RC(0, collect());
    EXPECT_RC(0, deleting.get());
    EXPECT_EQ(nullptr, channel.token);
    connection.closeInOrder();
}

TEST_F(AsyncChannelCall, HoldsUpTheNextCallWithItsChannel)
{
    TraceFile trace(4);
    int qualifier = send();
    EciParms next = channelCall(ECI_ASYNC, channel);
    auto sending = startChannelCall(connection, next);
    ASSERT_TRUE(trace.awaitText(waitsForChannel));
    EXPECT_TRUE(connection.peer.isQuiet());
    answer(qualifier, ChannelReply(1, deleted("A")));
    EXPECT_RC(0, collect());
    EXPECT_RC(0, sending.get());
    Request second = connection.awaitRequest();
    EXPECT_EQ(1, support::int32At(channelOf(second), 21)); // what the reply left
    answer(second.messageId(), ChannelReply());
    EXPECT_RC(0, collect());
    channel.expectFree();
}

TEST_F(AsyncChannelCall, HoldsUpNobodyWithAnotherChannel)
{
    Channel another("ANOTHER");
    int first = send();
    another.with("X", "x").expectFree();
    int second = send(another);
    answer(second, ChannelReply(1, deleted("X")));
    answer(first, ChannelReply(1, deleted("A")));
    awaitDelivery();

    EciParms oldest = getReply(0);
    EXPECT_RC(0, collect(oldest));
    EXPECT_EQ(another.token, ECI_ChannelToken_t(oldest.record.channel));
    EXPECT_EQ(Names{}, another.contents());
    EciParms next = getReply(0);
    EXPECT_RC(0, collect(next));
    EXPECT_EQ(channel.token, ECI_ChannelToken_t(next.record.channel));
    EXPECT_EQ((Names{"B=bb"}), channel.contents());
}

TEST_F(AsyncChannelCall, IsCollectedByOneOfManyWaiters)
{
    TraceFile trace(4);
    EciParms first = getReplyWait(0);
    EciParms second = getReplyWait(0);
    auto firstWaits = startChannelCall(connection, first);
    ASSERT_TRUE(trace.awaitText("clapi_lock.clapiWaitEvent() Waiting on event"));
    trace.forget();
    auto secondWaits = connection.start(second);
    ASSERT_TRUE(trace.awaitText("clapi_lock.clapiWaitEvent() Waiting on event"));
    int qualifier = send();
    trace.forget();
    answer(qualifier, ChannelReply(1, deleted("A")));
    // Whichever it is, the channel is free when it has returned; the other waits on.
    ASSERT_TRUE(trace.awaitText("clapi_channel.unlockChannel() rc=0"));
    channel.expectFree();
    EXPECT_EQ((Names{"B=bb"}), channel.contents());
    EXPECT_EQ(1, trace.timesWroteText(
                     "ENTRY  clapi_channel.unlockChannel(chanTok=" + shown(channel.token) + ")\n") -
                     trace.timesWroteText("ENTRY  clapi_channel.lockChannel(chanTok=" +
                                          shown(channel.token) + ")\n"));
    connection.peer.close();
    int firstRc = firstWaits.get();
    int secondRc = secondWaits.get();
    EXPECT_EQ(-102, firstRc + secondRc); // one 0, one -102
}

TEST_F(AsyncChannelCall, AppliesAReplyOnceThoughItComesTwice)
{
    int qualifier = send();
    Bytes reply = ChannelReply(1, deleted("A")).to(qualifier);
    connection.peer.send(reply + reply);
    awaitDelivery();
    EXPECT_RC(0, collect());
    EXPECT_EQ((Names{"B=bb"}), channel.contents());
    EciParms none = getReply(0);
    EXPECT_RC(ECI_ERR_NO_REPLY, collect(none));
    expectStillServing(connection);
}

TEST_F(AsyncChannelCall, UsesOneRecordForManyRequestsAndTheirCollection)
{
    EciParms parms = channelCall(ECI_ASYNC, channel);
    for (int time = 1; time <= 20; ++time) {
        SCOPED_TRACE(time);
        ASSERT_RC(0, executeChannel(connection, parms));
        int messageId = connection.awaitRequest().messageId();
        answer(messageId, ChannelReply(1, added("N" + std::to_string(time), 1, 0, text("x"))));
        parms.record.eci_call_type = ECI_GET_REPLY_WAIT;
        ASSERT_RC(0, collect(parms)); // and the record is that of the request again
        ASSERT_EQ(ECI_ASYNC, int(parms.record.eci_call_type));
        channel.expectFree();
    }
    EXPECT_EQ(22U, channel.contents().size());
}

TEST_F(AsyncChannelCall, BringsEachChannelItsOwnReply)
{
    std::vector<std::unique_ptr<Channel>> channels;
    std::vector<int> qualifiers;
    for (int number = 0; number < 20; ++number) {
        channels.push_back(std::make_unique<Channel>("C" + std::to_string(number)));
        channels.back()->with("NUMBER", std::to_string(number));
        qualifiers.push_back(send(*channels.back()));
    }
    for (int number = 19; number >= 0; --number) // the last one first
        answer(qualifiers[static_cast<std::size_t>(number)],
               ChannelReply(2, unchanged("NUMBER") +
                                   added("ANSWER", 1, 0, text(std::to_string(number)))));
    awaitDelivery();
    for (std::size_t number = 0; number < 20; ++number) {
        EciParms parms = support::getSpecificReply(qualifiers[number], 0);
        EXPECT_RC(0, collect(parms));
        EXPECT_EQ(channels[number]->token, ECI_ChannelToken_t(parms.record.channel));
        EXPECT_EQ((Names{"ANSWER=" + std::to_string(number), "NUMBER=" + std::to_string(number)}),
                  channels[number]->contents());
    }
}

// ---- COMMAREA calls beside ----

TEST_F(AsyncChannelCall, CollectsTheReplyOfACommareaCall)
{
    EciParms parms = asyncCall("LATER", filled(8, 'a'));
    ASSERT_RC(0, QPX_ECI_Execute(connection.token, &parms.record));
    int messageId = connection.awaitRequest().messageId();
    connection.peer.send(ProgramReply().commarea(text("answered")).to(messageId));
    EciParms collecting = getReplyWait(8);
    EXPECT_RC(0, collect(collecting));
    EXPECT_EQ(text("answered"), collecting.commarea());
    EXPECT_EQ(nullptr, ECI_ChannelToken_t(collecting.record.channel));
}

TEST_F(AsyncChannelCall, KeepsItsChannelWhenACommareaCallThatNamesItIsCollected)
{
    EciParms commarea = asyncCall("LATER", filled(8, 'a'));
    commarea.record.channel = channel.token;
    ASSERT_RC(0, QPX_ECI_Execute(connection.token, &commarea.record));
    int commareaId = connection.awaitRequest().messageId();
    int qualifier = send();

    TraceFile trace(4);
    connection.peer.send(ProgramReply().commarea(text("answered")).to(commareaId));
    EciParms collecting = getReplyWait(8);
    EXPECT_RC(0, collect(collecting));
    EXPECT_EQ(channel.token, ECI_ChannelToken_t(collecting.record.channel));
    EXPECT_EQ(0, trace.timesWrote(1471));

    auto use = channel.startUse();
    ASSERT_TRUE(trace.awaitText(waitsForChannel));
    answer(qualifier, ChannelReply());
    EXPECT_RC(0, collect());
    EXPECT_RC(0, use.get());
}

TEST_F(AsyncChannelCall, DropsAChannelInTheReplyOfACommareaCallThatNamesIt)
{
    EciParms commarea = asyncCall("LATER", filled(8, 'a'));
    commarea.record.channel = channel.token;
    ASSERT_RC(0, QPX_ECI_Execute(connection.token, &commarea.record));
    answer(connection.awaitRequest().messageId(), ChannelReply(1, deleted("A")));
    EciParms collecting = getReplyWait(8);
    EXPECT_RC(0, collect(collecting));
    EXPECT_EQ((Names{"A=aa", "B=bb"}), channel.contents());
}

// ---- Units of work ----

TEST_F(AsyncChannelCall, CommitsWithoutItsChannel)
{
    answer(send(channel, 1), ChannelReply().token(7));
    EXPECT_RC(0, collect());
    channel.expectFree();

    TraceFile trace(3);
    EciParms parms = channelCall(ECI_ASYNC, channel);
    parms.withExtendMode(2, 7);
    ASSERT_RC(0, executeChannel(connection, parms));
    request = connection.awaitRequest();
    EXPECT_EQ(83U, request.body.size());
    EXPECT_EQ("00", support::toHex(support::slice(request.body, 71, 1)));
    EXPECT_EQ(0, trace.timesWrote(1460));
    channel.expectFree();
    trace.forget();
    answer(request.messageId(), ChannelReply(1, deleted("A")));
    EXPECT_RC(0, collect());
    EXPECT_EQ(0, trace.timesWrote(1471));
    EXPECT_EQ((Names{"A=aa", "B=bb"}), channel.contents());
}

TEST_F(AsyncChannelCall, LeavesTheChannelToOthersWhenItsCommitIsCollected)
{
    answer(send(channel, 1), ChannelReply().token(7));
    EXPECT_RC(0, collect());
    EciParms parms = channelCall(ECI_ASYNC, channel);
    parms.withExtendMode(4, 7);
    ASSERT_RC(0, executeChannel(connection, parms));
    int backoutId = connection.awaitRequest().messageId();
    int qualifier = send(); // has the channel now

    TraceFile trace(4);
    connection.peer.send(ProgramReply().to(backoutId));
    EciParms collecting = support::getSpecificReplyWait(backoutId, 0);
    EXPECT_RC(0, collect(collecting));
    auto use = channel.startUse();
    ASSERT_TRUE(trace.awaitText(waitsForChannel));
    answer(qualifier, ChannelReply());
    EXPECT_RC(0, collect());
    EXPECT_RC(0, use.get());
}

TEST_F(AsyncChannelCall, HasNothingToDoWithItsChannelOnceItsUnitOfWorkIsIdle)
{
    answer(send(channel, 1), ChannelReply().token(7));
    EXPECT_RC(0, collect());
    ASSERT_RC(0, ECI_deleteChannel(&channel.token));

    TraceFile trace(3);
    connection.closeInOrder();
    EXPECT_EQ(0, trace.timesWrote(1471));
}

TEST_F(AsyncChannelCall, LeavesTheChannelToAnotherConnectionWhenItsOwnIsClosed)
{
    answer(send(channel, 1), ChannelReply().token(7));
    EXPECT_RC(0, collect()); // the slot stays with the unit of work

    ScriptedConnection other;
    EciParms parms = channelCall(ECI_ASYNC, channel);
    ASSERT_RC(0, executeChannel(other, parms));
    int otherId = other.awaitRequest().messageId();
    connection.closeInOrder();

    TraceFile trace(4);
    auto use = channel.startUse();
    ASSERT_TRUE(trace.awaitText(waitsForChannel));
    other.peer.send(ChannelReply().to(otherId));
    EciParms collecting = getReplyWait(0);
    EXPECT_RC(0, executeChannel(other, collecting));
    EXPECT_RC(0, use.get());
}
