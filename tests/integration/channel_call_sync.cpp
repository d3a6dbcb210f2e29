// Synchronous channel calls: what they send, what their replies change, and that a channel serves
// one call at a time.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "standin/gateway.h"
#include "support/channel_script.h"

using namespace script;
using support::changeOf;
using support::EciParms;
using support::slice;
using support::syncCall;
using support::toHex;
using support::TraceFile;

namespace {

class ChannelCall : public ::testing::Test {
protected:
    // One call with the channel, answered.
    int call(const ChannelReply& reply)
    {
        EciParms parms = channelCall(ECI_SYNC, channel);
        return call(parms, reply);
    }
    int call(EciParms& parms, const ChannelReply& reply)
    {
        auto running = startChannelCall(connection, parms);
        request = connection.awaitRequest();
        connection.peer.send(reply.to(request.messageId()));
        return running.get();
    }

    // A unit of work is open, with this token.
    void openUnit(int luwToken)
    {
        EciParms parms = channelCall(ECI_SYNC, channel);
        parms.withExtendMode(1);
        ASSERT_RC(0, call(parms, ChannelReply().token(luwToken)));
        ASSERT_EQ(luwToken, int(parms.record.eci_luw_token));
    }

    ScriptedConnection connection;
    Channel channel;
    Request request;
};

} // namespace

// ---- The request ----

TEST_F(ChannelCall, SendsItsContainers)
{
    channel.with("B", "").withChars("A", 1208, "0123456789");
    EXPECT_RC(0, call(ChannelReply()));

    EXPECT_EQ(
        toHex(hex("47617465 10A01000 00000001 00000001 00000000 00000003 454349 00 000000AD")),
        toHex(request.header));
    EXPECT_EQ(toHex(hex("00000001"                            // call type
                        "00000000 00000000 00000000 00"       // extend mode to callback
                        "00000008 00000000 00000000"          // server
                        "00000000 00000000 00000000 00000000" // user id
                        "00000000") +                         // password
                    text("PROG    ") +
                    hex("00000000 00000000" // transaction id, token
                        "00000000 00 00"    // COMMAREA: none
                        "FF 4348414E4E454C000000000000000000 000004B8 00000002"
                        "41000000000000000000000000000000 01 0000 02 000004B8 0000000A"
                        "30313233343536373839"
                        "42000000000000000000000000000000 01 0000 01 00000000 00000000"
                        "0000 00 FFFFFFFF")), // time-out to transaction branch
              toHex(slice(request.body, 0, request.body.size() - 4)));
}

TEST_F(ChannelCall, SendsAChannelWithoutContainers)
{
    channel.withChars("GONE", 37, "");
    ASSERT_RC(0, ECI_deleteContainer(channel.token, "GONE"));
    EXPECT_RC(0, call(ChannelReply()));
    EXPECT_EQ(toHex(hex("FF 4348414E4E454C000000000000000000 00000025 00000000"
                        "0000 00 FFFFFFFF")),
              toHex(channelOf(request)));
}

TEST_F(ChannelCall, SendsUserAndPasswordOfTheFixedFieldsInVersionFour)
{
    EciParms parms = channelCall(ECI_SYNC, channel);
    parms.withVersion(4).withFixedUser("FIXED", "AB").withUser("POINTED", "XYZ");
    EXPECT_RC(0, call(parms, ChannelReply()));
    EXPECT_EQ("FIXED           ", support::toText(slice(request.body, 29, 16)));
    // "AB" and fourteen blanks: 41 complemented, then each byte with the one before it.
    EXPECT_EQ(toHex(hex("00000010 BE 03 62 00000000000000000000000000")),
              toHex(slice(request.body, 45, 20)));
}

TEST_F(ChannelCall, SendsUserAndPasswordByPointerFromVersionFive)
{
    for (int version : {5, 6}) {
        SCOPED_TRACE(version);
        EciParms parms = channelCall(ECI_SYNC, channel);
        parms.withVersion(version).withFixedUser("FIXED", "AB").withUser("POINTED", "ABC");
        EXPECT_RC(0, call(parms, ChannelReply()));
        EXPECT_EQ(toHex(text("POINTED") + filled(9)), toHex(slice(request.body, 29, 16)));
        EXPECT_EQ("00000003 BE0301", toHex(slice(request.body, 45, 7)));
    }
}

TEST_F(ChannelCall, SendsTheTransactionProgram)
{
    EciParms parms = channelCall(ECI_SYNC, channel);
    parms.withTpn("TPN1").withTransid("TRN1");
    EXPECT_RC(0, call(parms, ChannelReply()));
    EXPECT_EQ("0000000C", toHex(slice(request.body, 0, 4)));
    EXPECT_EQ("TPN1", support::toText(slice(request.body, 57, 4)));
}

TEST_F(ChannelCall, SendsNeitherLengthOfACommarea)
{
    EciParms parms = channelCall(ECI_SYNC, channel);
    parms.record.commarea_inbound_length = 10;
    parms.record.commarea_outbound_length = 10;
    EXPECT_RC(0, call(parms, ChannelReply()));
    EXPECT_EQ("00000000 0000FF", toHex(slice(request.body, 65, 7)));
}

TEST_F(ChannelCall, SendsTheChannelOfTheRecordAgain)
{
    channel.with("A", "a");
    EciParms parms = channelCall(ECI_SYNC, channel);
    for (int time = 1; time <= 5; ++time) {
        SCOPED_TRACE(time);
        EXPECT_RC(0, call(parms, ChannelReply()));
        EXPECT_EQ(channel.token, ECI_ChannelToken_t(parms.record.channel));
        EXPECT_EQ(1, request.messageId());
        EXPECT_EQ(1, support::int32At(channelOf(request), 21));
    }
}

TEST_F(ChannelCall, SendsWhatTheLastReplyLeft)
{
    channel.with("A", "a");
    EXPECT_RC(0, call(ChannelReply(2, modified("A", 2, 37, text("new")) +
                                          added("NEW", 1, 0, text("x")))));
    EXPECT_RC(0, call(ChannelReply()));
    EXPECT_EQ(toHex(hex("FF 4348414E4E454C000000000000000000 00000333 00000002"
                        "4E455700000000000000000000000000 01 0000 01 00000000 00000001 78"
                        "41000000000000000000000000000000 01 0000 02 00000025 00000003 6E6577"
                        "0000 00 FFFFFFFF")),
              toHex(channelOf(request)));
}

// ---- The reply ----

TEST_F(ChannelCall, HasAppliedTheReplyWhenItReturns)
{
    channel.with("C", "cc").with("B", "bb").with("A", "aa");
    EXPECT_RC(0, call(ChannelReply(4, added("NEW", 1, 0, text("data")) + deleted("B") +
                                          modified("A", 1, 0, text("longer")) + unchanged("C"))));
    EXPECT_EQ((Names{"NEW=data", "A=longer", "C=cc"}), channel.contents());
}

TEST_F(ChannelCall, TakesTheNameOfTheReply)
{
    ChannelReply reply;
    reply.name = "SIXTEEN_LETTERS_";
    EXPECT_RC(0, call(reply));
    EXPECT_EQ("SIXTEEN_LETTERS_", channel.name());
}

TEST_F(ChannelCall, TakesTypeAndCodePageOfTheReply)
{
    channel.with("A", "aa");
    EXPECT_RC(0, call(ChannelReply(2, modified("A", 2, 1208, text("zz")) +
                                          added("NEW", 1, 77, text("x")))));
    ECI_CONTAINER_INFO info{};
    EXPECT_RC(0, ECI_getContainerInfo(channel.token, "A", &info));
    EXPECT_EQ(2, int(info.type));
    EXPECT_EQ(1208, int(info.ccsid));
    EXPECT_RC(0, ECI_getContainerInfo(channel.token, "NEW", &info));
    EXPECT_EQ(1, int(info.type));
    EXPECT_EQ(0, int(info.ccsid)); // binary data has no code page to tell
    EXPECT_EQ(1U, std::size_t(info.dataLength));
}

TEST_F(ChannelCall, TakesLargeContainersInBothDirections)
{
    std::string large(1000000, 'o');
    channel.with("A", large);
    EciParms parms = channelCall(ECI_SYNC, channel);
    auto running = startChannelCall(connection, parms);
    request = connection.awaitRequest();
    EXPECT_EQ(large, support::toText(slice(channelOf(request), 1 + 24 + 28, 1000000)));
    connection.peer.send(ChannelReply(2, modified("A", 1, 0, Bytes(999999, 'i')) +
                                             added("B", 1, 0, Bytes(40000, 'b')))
                             .to(1));
    EXPECT_RC(0, running.get());
    EXPECT_EQ((Names{"B=" + std::string(40000, 'b'), "A=" + std::string(999999, 'i')}),
              channel.contents());
}

TEST_F(ChannelCall, ChangesNothingForAReplyWithoutAChannel)
{
    channel.with("A", "aa");
    EciParms parms = channelCall(ECI_SYNC, channel);
    auto running = startChannelCall(connection, parms);
    connection.peer.send(ProgramReply().to(connection.awaitRequest().messageId()));
    EXPECT_RC(0, running.get());
    EXPECT_EQ((Names{"A=aa"}), channel.contents());
    EXPECT_EQ("CHANNEL", channel.name());
}

TEST_F(ChannelCall, AppliesTheReplyOfAFailedProgram)
{
    channel.with("A", "aa");
    EXPECT_RC(-7, call(ChannelReply(1, deleted("A")).serverCode(-7)));
    EXPECT_EQ(Names{}, channel.contents());
}

TEST_F(ChannelCall, TakesAGatewayCodeWithoutABody)
{
    channel.with("A", "aa");
    EciParms parms = channelCall(ECI_SYNC, channel);
    auto running = startChannelCall(connection, parms);
    int messageId = connection.awaitRequest().messageId();
    connection.peer.send(flow(replyType, messageId, 61445, "ECI", Bytes()));
    EXPECT_RC(61445, running.get());
    EXPECT_EQ((Names{"A=aa"}), channel.contents());
    expectStillServing(connection);
}

TEST_F(ChannelCall, TakesAnErrorAndAnException)
{
    channel.with("A", "aa");
    EciParms parms = channelCall(ECI_SYNC, channel);
    auto failing = startChannelCall(connection, parms);
    connection.peer.send(errorFlow(connection.awaitRequest().messageId(), 61450));
    EXPECT_RC(61450, failing.get());
    auto excepted = startChannelCall(connection, parms);
    connection.peer.send(exceptionFlow(connection.awaitRequest().messageId(), "no"));
    EXPECT_RC(61446, excepted.get());
    EXPECT_EQ((Names{"A=aa"}), channel.contents());
    expectStillServing(connection);
}

TEST_F(ChannelCall, ReturnsAbendCodeAndUnitOfWork)
{
    EciParms parms = channelCall(ECI_SYNC, channel);
    parms.withExtendMode(1);
    EXPECT_RC(0, call(parms, ChannelReply().token(7)));
    EXPECT_EQ(7, int(parms.record.eci_luw_token));
    EXPECT_EQ("    ", std::string(parms.record.eci_abend_code, 4));
}

TEST_F(ChannelCall, SkipsWhatFollowsTheChannelInItsBody)
{
    channel.with("B", "b").with("A", "a");
    EXPECT_RC(0, call(ChannelReply(1, deleted("A") + deleted("B"))));
    EXPECT_EQ((Names{"B=b"}), channel.contents());
    expectStillServing(connection);
}

TEST_F(ChannelCall, AppliesAReplyOnceThoughItComesTwice)
{
    channel.with("B", "bb").with("A", "aa");
    EciParms parms = channelCall(ECI_SYNC, channel);
    parms.withExtendMode(1); // so that its message id is no other call's afterwards
    auto running = startChannelCall(connection, parms);
    Bytes reply = ChannelReply(1, deleted("A")).token(7).to(connection.awaitRequest().messageId());
    connection.peer.send(reply + reply);
    EXPECT_RC(0, running.get());
    expectStillServing(connection); // the second one has been dropped by now
    EXPECT_EQ((Names{"B=bb"}), channel.contents());
}

TEST_F(ChannelCall, IsNotChangedByAReplyThatNobodyAskedFor)
{
    channel.with("A", "aa");
    openUnit(7);
    // To the slot that was the channel's and is idle now, and to one that is free.
    connection.peer.send(ChannelReply(1, deleted("A")).to(1) +
                         ChannelReply(1, deleted("A")).to(16));
    expectStillServing(connection);
    EXPECT_EQ((Names{"A=aa"}), channel.contents());
}

TEST_F(ChannelCall, ReadsNoChannelInAReplyOfAnotherCallType)
{
    channel.with("A", "aa");
    // A list of systems, and a type that nobody knows, before what would be a channel.
    for (const char* other : {"00000009 00000000 00000000 00000000", "0000004D"}) {
        SCOPED_TRACE(other);
        EciParms parms = channelCall(ECI_SYNC, channel);
        auto running = startChannelCall(connection, parms);
        int messageId = connection.awaitRequest().messageId();
        connection.peer.send(flow(replyType, messageId, 0, "ECI",
                                  hex(other) + ChannelReply(1, deleted("A")).body()));
        EXPECT_RC(0, running.get());
        EXPECT_EQ((Names{"A=aa"}), channel.contents());
        expectStillServing(connection);
    }
}

TEST_F(ChannelCall, ReadsNoChannelInAReplyOfAnotherRequestType)
{
    channel.with("A", "aa");
    EciParms parms = channelCall(ECI_SYNC, channel);
    auto running = startChannelCall(connection, parms);
    int messageId = connection.awaitRequest().messageId();
    connection.peer.send(
        flow(replyType, messageId, 0, "XYZ", ChannelReply(1, deleted("A")).body()));
    EXPECT_RC(-9, running.get());
    EXPECT_EQ((Names{"A=aa"}), channel.contents());
    expectStillServing(connection);
}

// ---- Units of work ----

TEST_F(ChannelCall, SendsNoChannelToCommitOrBackOut)
{
    for (int mode : {2, 4}) {
        SCOPED_TRACE(mode);
        openUnit(7);
        EciParms parms = channelCall(ECI_SYNC, channel);
        parms.withExtendMode(mode, 7);
        auto running = startChannelCall(connection, parms);
        Request ending = connection.awaitRequest();
        connection.peer.send(ProgramReply().to(ending.messageId()));
        EXPECT_RC(0, running.get());
        EXPECT_EQ(toHex(be32(1) + be32(mode) + be32(7)), toHex(slice(ending.body, 0, 12)));
        EXPECT_EQ(83U, ending.body.size());
        EXPECT_EQ(toHex(hex("00 0000 00 FFFFFFFF")), toHex(channelOf(ending)));
    }
}

TEST_F(ChannelCall, DropsAChannelInTheReplyToACommit)
{
    channel.with("A", "aa");
    for (int mode : {2, 4}) {
        SCOPED_TRACE(mode);
        openUnit(7);
        EciParms parms = channelCall(ECI_SYNC, channel);
        parms.withExtendMode(mode, 7);
        ChannelReply reply(4, added("NEW", 1, 0, text("x")) + deleted("A") + deleted("NOBODY") +
                                  changeOf("A", 4, 1, 0, 99));
        reply.name = "RENAMED";
        EXPECT_RC(0, call(parms, reply));
        EXPECT_EQ((Names{"A=aa"}), channel.contents());
        EXPECT_EQ("CHANNEL", channel.name());
        expectStillServing(connection);
    }
}

TEST_F(ChannelCall, CommitsWhileAnotherCallHasTheChannel)
{
    openUnit(7);
    EciParms flying = channelCall(ECI_ASYNC, channel);
    ASSERT_RC(0, executeChannel(connection, flying));
    int flyingId = connection.awaitRequest().messageId();

    EciParms parms = channelCall(ECI_SYNC, channel);
    parms.withExtendMode(2, 7);
    auto running = startChannelCall(connection, parms);
    connection.peer.send(ProgramReply().to(connection.awaitRequest().messageId()));
    EXPECT_RC(0, running.get());

    // And the other call still has it.
    TraceFile trace(4);
    auto use = channel.startUse();
    EXPECT_TRUE(trace.awaitText(waitsForChannel));
    connection.peer.send(ChannelReply().to(flyingId));
    EciParms collecting = support::getReplyWait(0);
    EXPECT_RC(0, executeChannel(connection, collecting));
    EXPECT_RC(0, use.get());
}

TEST_F(ChannelCall, LocksNoChannelToCommitOrBackOut)
{
    for (int mode : {2, 4}) {
        openUnit(7);
        TraceFile trace(3);
        EciParms parms = channelCall(ECI_SYNC, channel);
        parms.withExtendMode(mode, 7);
        EXPECT_RC(0, call(parms, ChannelReply()));
        EXPECT_EQ(0, trace.timesWrote(1460));
        EXPECT_EQ(0, trace.timesWrote(1471));
    }
}

TEST_F(ChannelCall, CommitsAndBacksOutThoughTheChannelHasBeenDeleted)
{
    for (int mode : {2, 4}) {
        openUnit(7);
        Channel gone("GONE");
        EciParms parms = channelCall(ECI_SYNC, gone);
        parms.withExtendMode(mode, 7);
        ASSERT_RC(0, ECI_deleteChannel(&gone.token));
        EXPECT_RC(0, call(parms, ChannelReply()));
    }
}

TEST_F(ChannelCall, FollowsNoHandleThatIsNoChannelsToCommitOrBackOut)
{
    static char memory[4096];
    std::memset(memory, 0xFF, sizeof memory); // a code page of -1, as it happens
    for (int mode : {2, 4}) {
        for (void* handle : {static_cast<void*>(memory), reinterpret_cast<void*>(1)}) {
            openUnit(7);
            EciParms parms = channelCall(ECI_SYNC, channel);
            parms.withExtendMode(mode, 7);
            parms.record.channel = static_cast<ECI_ChannelToken_t>(handle);
            EXPECT_RC(0, call(parms, ChannelReply()));
        }
    }
    EXPECT_EQ(std::string(sizeof memory, '\xFF'), std::string(memory, sizeof memory));
}

TEST_F(ChannelCall, SendsAChannelWithEveryCallOfAUnitOfWork)
{
    openUnit(7);
    channel.with("A", "aa");
    EciParms parms = channelCall(ECI_SYNC, channel);
    parms.withExtendMode(1, 7);
    EXPECT_RC(0, call(parms, ChannelReply(1, deleted("A")).token(7)));
    EXPECT_EQ(1, request.messageId());
    EXPECT_EQ(1, support::int32At(channelOf(request), 21));
    EXPECT_EQ(Names{}, channel.contents());
}

// ---- One call at a time ----

TEST_F(ChannelCall, WaitsForAnotherCallWithTheSameChannel)
{
    TraceFile trace(4);
    EciParms first = channelCall(ECI_SYNC, channel);
    auto firstCall = startChannelCall(connection, first);
    int firstId = connection.awaitRequest().messageId();

    EciParms second = channelCall(ECI_SYNC, channel);
    auto secondCall = startChannelCall(connection, second);
    ASSERT_TRUE(trace.awaitText(waitsForChannel));
    EXPECT_TRUE(trace.wrote(1463, "DEBUG",
                            "clapi_channel.lockChannel() Waiting for channel \"CHANNEL\" (" +
                                shown(channel.token) + ")"));
    EXPECT_TRUE(connection.peer.isQuiet());
    EXPECT_FALSE(secondCall.hasEnded());

    connection.peer.send(ChannelReply(1, added("FIRST", 1, 0, text("1"))).to(firstId));
    EXPECT_RC(0, firstCall.get());
    request = connection.awaitRequest();
    EXPECT_EQ(1, support::int32At(channelOf(request), 21)); // what the first call's reply added
    connection.peer.send(ChannelReply(1, added("SECOND", 1, 0, text("2"))).to(request.messageId()));
    EXPECT_RC(0, secondCall.get());
    EXPECT_EQ((Names{"SECOND=2", "FIRST=1"}), channel.contents());
}

TEST_F(ChannelCall, WaitsForACallOnAnotherConnection)
{
    ScriptedConnection other;
    TraceFile trace(4);
    EciParms first = channelCall(ECI_SYNC, channel);
    auto firstCall = startChannelCall(other, first);
    int firstId = other.awaitRequest().messageId();
    EciParms second = channelCall(ECI_SYNC, channel);
    auto secondCall = startChannelCall(connection, second);
    ASSERT_TRUE(trace.awaitText(waitsForChannel));
    EXPECT_TRUE(connection.peer.isQuiet());
    other.peer.send(ChannelReply().to(firstId));
    EXPECT_RC(0, firstCall.get());
    connection.peer.send(ChannelReply().to(connection.awaitRequest().messageId()));
    EXPECT_RC(0, secondCall.get());
}

TEST_F(ChannelCall, DoesNotWaitForACallWithAnotherChannel)
{
    Channel another("CHANNEL"); // of the same name, all the same
    EciParms first = channelCall(ECI_SYNC, channel);
    auto firstCall = startChannelCall(connection, first);
    int firstId = connection.awaitRequest().messageId();
    EciParms second = channelCall(ECI_SYNC, another);
    auto secondCall = startChannelCall(connection, second);
    int secondId = connection.awaitRequest().messageId();
    EXPECT_NE(firstId, secondId);
    connection.peer.send(ChannelReply(1, added("B", 1, 0, text("2"))).to(secondId));
    EXPECT_RC(0, secondCall.get());
    connection.peer.send(ChannelReply(1, added("A", 1, 0, text("1"))).to(firstId));
    EXPECT_RC(0, firstCall.get());
    EXPECT_EQ((Names{"A=1"}), channel.contents());
    EXPECT_EQ((Names{"B=2"}), another.contents());
}

TEST_F(ChannelCall, HoldsUpTheDeletionOfItsChannel)
{
    channel.with("A", "aa");
    TraceFile trace(4);
    EciParms parms = channelCall(ECI_SYNC, channel);
    auto running = startChannelCall(connection, parms);
    int messageId = connection.awaitRequest().messageId();
    auto deleting = callInThread([this] { return ECI_deleteChannel(&channel.token); });
    ASSERT_TRUE(trace.awaitText(waitsForChannel));
    EXPECT_FALSE(deleting.hasEnded());
    connection.peer.send(ChannelReply(1, modified("A", 1, 0, text("longer"))).to(messageId));
    EXPECT_RC(0, running.get());
    EXPECT_RC(0, deleting.get());
    EXPECT_EQ(nullptr, channel.token);
}

TEST_F(ChannelCall, HoldsUpAContainerCallOfAnotherThread)
{
    channel.with("A", "aa");
    TraceFile trace(4);
    EciParms parms = channelCall(ECI_SYNC, channel);
    auto running = startChannelCall(connection, parms);
    int messageId = connection.awaitRequest().messageId();
    auto reading = callInThread([this] { return channel.dataOf("A"); });
    ASSERT_TRUE(trace.awaitText(waitsForChannel));
    connection.peer.send(ChannelReply(1, modified("A", 1, 0, text("after"))).to(messageId));
    EXPECT_RC(0, running.get());
    EXPECT_EQ("after", reading.get());
}

TEST_F(ChannelCall, ServesManyThreadsInTurn)
{
    constexpr int threads = 8;
    constexpr int calls = 25;
    auto serving = callInThread([this] {
        for (int number = 0; number < threads * calls; ++number) {
            Request arrived = readRequest(connection.peer);
            EXPECT_EQ(number, support::int32At(channelOf(arrived), 21));
            connection.peer.send(
                ChannelReply(1, added("N" + std::to_string(number), 1, 0, text("x")))
                    .to(arrived.messageId()));
        }
        return 0;
    });
    std::vector<RunningCall<int>> running;
    for (int thread = 0; thread < threads; ++thread)
        running.emplace_back(callInThread([this] {
            EciParms parms = channelCall(ECI_SYNC, channel);
            int failed = 0;
            for (int number = 0; number < calls; ++number)
                if (executeChannel(connection, parms) != 0) failed += 1;
            return failed;
        }));
    for (auto& call : running) EXPECT_EQ(0, call.get());
    serving.get();
    EXPECT_EQ(200U, channel.contents().size());
}

// ---- Dumps meanwhile ----

TEST_F(ChannelCall, IsDumpedInOrderWhileItsReplyIsApplied)
{
    constexpr int calls = 300;
    auto serving = callInThread([this] {
        for (int number = 0; number < calls; ++number) {
            int messageId = connection.awaitRequest().messageId();
            Bytes records;
            for (int one = 0; one < 20; ++one)
                records += added("N" + std::to_string(one), 1, 0, text("data"));
            for (int one = 0; one < 20; ++one) records += deleted("N" + std::to_string(one));
            connection.peer.send(ChannelReply(40, records).to(messageId));
        }
        return 0;
    });
    auto calling = callInThread([this] {
        EciParms parms = channelCall(ECI_SYNC, channel);
        int failed = 0;
        for (int number = 0; number < calls; ++number)
            if (executeChannel(connection, parms) != 0) failed += 1;
        return failed;
    });
    TraceFile trace(0);
    do {
        trace.forget();
        EXPECT_RC(0, QPX_ECI_dumpChannels());
        std::string dump = trace.text();
        std::size_t from = dump.find("numContainers(");
        ASSERT_NE(std::string::npos, from) << dump;
        // As many containers follow as the channel says.
        ASSERT_EQ(std::stoi(dump.substr(from + 14)),
                  support::countOf(dump, "   Container list entry -"))
            << dump;
        ASSERT_EQ(support::countOf(dump, "   Container list entry -"),
                  support::countOf(dump, "eyecatcher(QPXCONTA) name("));
    } while (!calling.hasEnded());
    EXPECT_EQ(0, calling.get());
    serving.get();
    EXPECT_EQ(Names{}, channel.contents());
}

// ---- COMMAREA calls, which use no channel ----

TEST_F(ChannelCall, IsNotWhatACommareaCallWithAChannelIs)
{
    channel.with("A", "aa");
    TraceFile trace(3);
    EciParms parms = syncCall("PROG", text("data"));
    parms.record.channel = channel.token;
    auto running = connection.start(parms);
    Request arrived = connection.awaitRequest();
    EXPECT_EQ(87U, arrived.body.size());
    connection.peer.send(flow(
        replyType, arrived.messageId(), 0, "ECI",
        hex("00000001 00000000 00000000 00000000 20202020 00000004 00") + text("back") + hex("FF") +
            channelSection("RENAMED", 37, 2, deleted("A") + added("B", 1, 0, text("b")))));
    EXPECT_RC(0, running.get());
    EXPECT_EQ(text("back"), parms.commarea());
    EXPECT_EQ(0, trace.timesWrote(1460));
    EXPECT_EQ(0, trace.timesWrote(1471));
    EXPECT_EQ((Names{"A=aa"}), channel.contents());
    EXPECT_EQ("CHANNEL", channel.name());
    expectStillServing(connection);
}

TEST_F(ChannelCall, IsNotWhatACommareaCallWithGarbageForAChannelIs)
{
    for (std::uintptr_t garbage : {std::uintptr_t{1}, std::uintptr_t{0xDEADBEEF}}) {
        EciParms parms = syncCall("PROG", text("data"));
        parms.record.channel = reinterpret_cast<ECI_ChannelToken_t>(garbage);
        auto running = connection.start(parms);
        connection.peer.send(
            ChannelReply(1, added("B", 1, 0, text("b"))).to(connection.awaitRequest().messageId()));
        EXPECT_RC(0, running.get());
        EXPECT_EQ(reinterpret_cast<ECI_ChannelToken_t>(garbage),
                  ECI_ChannelToken_t(parms.record.channel));
    }
    expectStillServing(connection);
    connection.closeInOrder();
}

TEST_F(ChannelCall, LeavesAChannelInFlightToItsCallWhenACommareaCallNamesIt)
{
    EciParms flying = channelCall(ECI_SYNC, channel);
    auto channelRunning = startChannelCall(connection, flying);
    int flyingId = connection.awaitRequest().messageId();
    EciParms parms = syncCall("PROG", text("data"));
    parms.record.channel = channel.token;
    auto running = connection.start(parms);
    connection.peer.send(ProgramReply().to(connection.awaitRequest().messageId()));
    EXPECT_RC(0, running.get());

    TraceFile trace(4);
    auto use = channel.startUse();
    EXPECT_TRUE(trace.awaitText(waitsForChannel));
    connection.peer.send(ChannelReply().to(flyingId));
    EXPECT_RC(0, channelRunning.get());
    EXPECT_RC(0, use.get());
}

// ---- With the stand-in gateway ----

namespace {

class ChannelCallToTheGateway : public ::testing::Test {
protected:
    ChannelCallToTheGateway()
    {
        EXPECT_RC(0, QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 0));
    }
    ~ChannelCallToTheGateway() override
    {
        if (token != nullptr) {
            EXPECT_RC(0, QPX_closeGatewayConnection(&token));
        }
        EXPECT_EQ(0U, gateway.findingCount());
    }

    int execute(const std::string& program)
    {
        EciParms parms = channelCall(ECI_SYNC, channel, program);
        parms.withUser("USER", "PASSWORD").withSystem("SYSTEM").withTransid("TRAN");
        return QPX_ECI_Execute_Channel(token, &parms.record);
    }

    standin::Gateway gateway;
    Channel channel;
    QPX_ConnToken_t token = nullptr;
};

} // namespace

TEST_F(ChannelCallToTheGateway, IsReadAsItWasMade)
{
    channel.with("BITS", std::string("\0\x01\xFF", 3)).withChars("SIXTEEN_LETTERS_", 1208, "text");
    channel.with("EMPTY", "");
    gateway.setReply(
        "PROG", [](const standin::EciRequest& request) { return standin::EciReply::to(request); });

    EXPECT_RC(0, execute("PROG"));

    auto arrived = gateway.lastRequest();
    ASSERT_TRUE(arrived && arrived->eci && arrived->eci->channel);
    const standin::Channel& read = *arrived->eci->channel;
    EXPECT_EQ("CHANNEL", read.name);
    EXPECT_EQ(1208, read.ccsid);
    ASSERT_EQ(3U, read.containers.size());
    EXPECT_EQ("EMPTY", read.containers[0].name);
    EXPECT_EQ(0U, read.containers[0].data.size());
    EXPECT_EQ("SIXTEEN_LETTERS_", read.containers[1].name);
    EXPECT_EQ(2, read.containers[1].type);
    EXPECT_EQ(1208, read.containers[1].ccsid);
    EXPECT_EQ("BITS", read.containers[2].name);
    EXPECT_EQ(1, read.containers[2].type);
    EXPECT_EQ((standin::Bytes{0x00, 0x01, 0xFF}), read.containers[2].data);
    EXPECT_EQ("USER", arrived->eci->userId);
    EXPECT_EQ("PASSWORD", arrived->eci->password);
    EXPECT_EQ("TRAN", arrived->eci->transid);
}

TEST_F(ChannelCallToTheGateway, ComesBackFromTheEcho)
{
    channel.with("B", "bb").with("A", "aa");
    EXPECT_RC(0, execute("ECHO"));
    EXPECT_EQ((Names{"A=aa", "B=bb"}), channel.contents());
    EXPECT_EQ("CHANNEL", channel.name());
}

TEST_F(ChannelCallToTheGateway, IsChangedAsTheProgramSays)
{
    channel.with("C", "cc").with("B", "bb").with("A", "aa");
    gateway.setReply("PROG", [](const standin::EciRequest& request) {
        standin::EciReply reply = standin::EciReply::to(request);
        standin::Channel changes;
        changes.name = "ANSWER";
        changes.ccsid = 37;
        standin::Container one;
        one.name = "NEW";
        one.data = {'n', 'e', 'w'};
        changes.containers.push_back(one);
        one.name = "A";
        one.change = standin::Change::Modified;
        changes.containers.push_back(one);
        one.name = "B";
        one.change = standin::Change::Deleted;
        changes.containers.push_back(one);
        one.name = "C";
        one.change = standin::Change::Unchanged;
        changes.containers.push_back(one);
        reply.channel = changes;
        return reply;
    });
    EXPECT_RC(0, execute("PROG"));
    EXPECT_EQ((Names{"NEW=new", "A=new", "C=cc"}), channel.contents());
    EXPECT_EQ("ANSWER", channel.name());
}

TEST_F(ChannelCallToTheGateway, StaysAsItIsWhenTheProgramIsUnknown)
{
    channel.with("A", "aa");
    EXPECT_RC(-7, execute("NOBODY"));
    EXPECT_EQ((Names{"A=aa"}), channel.contents());
}

TEST_F(ChannelCallToTheGateway, ComesBackInPiecesOfOneByte)
{
    gateway.misbehave({standin::Fault::Pieces, 1});
    channel.with("B", std::string(3000, 'b')).with("A", "aa");
    EXPECT_RC(0, execute("ECHO"));
    EXPECT_EQ((Names{"A=aa", "B=" + std::string(3000, 'b')}), channel.contents());
}
