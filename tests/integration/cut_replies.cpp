// Replies that end before what they announce. With a code of the Gateway nothing needs to be there,
// wherever the body ends; without one the connection ends, and the trace says why in one line.
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "support/channel_script.h"

using namespace script;
using support::changeOf;
using support::EciParms;
using support::getReplyWait;
using support::syncCall;
using support::TraceFile;
using support::TraceRecord;

namespace {

// ---- With a code of the Gateway ----

constexpr int gatewayCode = 61445;

// A body of every kind of record.
Bytes bodyOfAllChanges()
{
    return ChannelReply(5, added("NEW", 1, 0, text("new data")) +
                               modified("SAME", 1, 0, text("ssss")) +
                               modified("OTHER", 1, 0, text("o")) + deleted("GONE") +
                               added("LAST", 1, 0, text("last")))
        .body();
}

class CutReply : public ::testing::Test {
protected:
    void restore()
    {
        for (const std::string& name : names()) ECI_deleteContainer(channel.token, name.c_str());
        channel.with("GONE", "gone").with("OTHER", "other").with("SAME", "same");
    }

    Names names() const
    {
        Names all;
        ECI_CONTAINER_INFO info{};
        for (int rc = ECI_getFirstContainer(channel.token, &info); rc == 0;
             rc = ECI_getNextContainer(channel.token, &info))
            all.emplace_back(info.name);
        return all;
    }

    Bytes cutReply(int messageId, std::size_t there) const
    {
        return flow(replyType, messageId, gatewayCode, "ECI", support::slice(body, 0, there));
    }

    // Of what has been changed nothing is there in part.
    void expectWholeContainersOnly() const
    {
        const Names whole = {"GONE=gone",    "OTHER=other", "OTHER=o", "SAME=same", "SAME=ssss",
                             "NEW=new data", "LAST=last",   "OTHER=",  "SAME="};
        for (const std::string& container : channel.contents())
            EXPECT_NE(whole.end(), std::find(whole.begin(), whole.end(), container)) << container;
    }

    ScriptedConnection connection;
    Channel channel;
    Bytes body = bodyOfAllChanges();
};

TEST_F(CutReply, GivesASynchronousCallTheCodeOfTheGateway)
{
    for (std::size_t there = 0; there <= body.size(); ++there) {
        SCOPED_TRACE(there);
        restore();
        EciParms parms = channelCall(ECI_SYNC, channel);
        auto running = startChannelCall(connection, parms);
        connection.peer.send(cutReply(connection.awaitRequest().messageId(), there));
        ASSERT_RC(gatewayCode, running.get());
        channel.expectFree();
        expectWholeContainersOnly();
        expectStillServing(connection);
    }
}

TEST_F(CutReply, GivesAnAsynchronousCallTheCodeOfTheGateway)
{
    for (std::size_t there = 0; there <= body.size(); ++there) {
        SCOPED_TRACE(there);
        restore();
        EciParms parms = channelCall(ECI_ASYNC, channel);
        ASSERT_RC(0, executeChannel(connection, parms));
        connection.peer.send(cutReply(connection.awaitRequest().messageId(), there));
        EciParms collecting = getReplyWait(0);
        ASSERT_RC(gatewayCode, executeChannel(connection, collecting));
        channel.expectFree();
        expectWholeContainersOnly();
        expectStillServing(connection);
    }
}

TEST_F(CutReply, GivesACallWithoutAChannelTheCodeOfTheGateway)
{
    Bytes whole = ProgramReply().commarea(text("answer")).body();
    for (std::size_t there = 0; there <= whole.size(); ++there) {
        SCOPED_TRACE(there);
        EciParms parms = syncCall("PROG", filled(10, '?'));
        auto running = connection.start(parms);
        connection.peer.send(flow(replyType, connection.awaitRequest().messageId(), gatewayCode,
                                  "ECI", support::slice(whole, 0, there)));
        ASSERT_RC(gatewayCode, running.get());
        expectStillServing(connection);
    }
}

// A message that is itself not there whole is no reply with a code.
TEST_F(CutReply, IsALossWhenTheStreamEndsBeforeTheMessageDoes)
{
    Bytes whole = flow(replyType, 1, gatewayCode, "ECI", body);
    for (std::size_t there = 0; there < whole.size(); there += 7) {
        SCOPED_TRACE(there);
        restore();
        ScriptedConnection cut;
        EciParms parms = channelCall(ECI_SYNC, channel);
        auto running = startChannelCall(cut, parms);
        cut.awaitRequest();
        cut.peer.send(support::slice(whole, 0, there));
        cut.peer.close();
        EXPECT_RC(-102, running.get());
        expectWholeContainersOnly();
    }
}

// ---- What the trace says ----

class MalformedInput : public ::testing::Test {
protected:
    MalformedInput() { channel.with("OLD", "old"); }

    // A call that is answered with these bytes, on a connection of its own, up to the end of that.
    void answerUntilTheEnd(const Bytes& bytes)
    {
        ScriptedConnection connection;
        TraceFile trace(3);
        EciParms parms = channelCall(ECI_SYNC, channel);
        auto running = startChannelCall(connection, parms);
        connection.awaitRequest();
        connection.peer.send(bytes);
        EXPECT_RC(-102, running.get());
        ASSERT_TRUE(trace.awaitText(receiverEnded));
        records = trace.records();
    }

    // The exceptions that a module has traced.
    Names exceptionsOf(const std::string& module) const
    {
        Names lines;
        for (const TraceRecord& record : records)
            if (record.type == "*EXC*" && record.message.compare(0, module.size(), module) == 0)
                lines.push_back(std::to_string(record.point) + " " + record.message);
        return lines;
    }

    void expectOneLine() const
    {
        Names lines = exceptionsOf("clapi_gwycon.");
        EXPECT_EQ(1U, lines.size()) << ::testing::PrintToString(lines);
    }

    Channel channel;
    std::vector<TraceRecord> records;
};

struct Malformed {
    const char* name;
    Bytes (*bytes)();
};

// Replies to message 1.
Bytes replyOf(int count, const Bytes& changes)
{
    return ChannelReply(count, changes).to(1);
}

const Malformed malformed[] = {
    {"NegativeTypeLength", [] { return header(replyType, 1, 0, -1, "ECI", 8) + text("answered"); }},
    {"TypeLengthOfSeven",
     [] { return header(replyType, 1, 0, 7, "ABCDEFG", 8) + text("answered"); }},
    {"HugeTypeLength",
     [] { return header(replyType, 1, 0, INT_MAX, "ECI", 8) + text("answered"); }},
    {"NegativeLength", [] { return header(replyType, 1, 0, 3, "ECI", -1) + text("answered"); }},
    {"SmallestLength",
     [] { return header(replyType, 1, 0, 3, "ECI", INT_MIN) + text("answered"); }},
    {"NegativeLengthOfAPing", [] { return header(pingType, 0, 0, 4, "BASE", -1); }},
    {"LengthShorterThanWhatWasRead",
     [] { return header(replyType, 1, 0, 0, "", 1) + text("answered"); }},
    {"EmptyBody", [] { return flow(replyType, 1, 0, "ECI", Bytes()); }},
    {"CommareaBeyondItsMessage", [] { return ProgramReply().commarea(9, text("answer")).to(1); }},
    {"InboundLengthBeyondItsMessage",
     [] { return ProgramReply().commarea(9, text("answer")).inbound(9).to(1); }},
    {"SectionCutInItsHead",
     [] {
         return flow(replyType, 1, 0, "ECI",
                     support::slice(ChannelReply().body(), 0, support::channelOffset + 5));
     }},
    {"RecordThatIsNotThere", [] { return replyOf(1, Bytes()); }},
    {"RecordCutInItsHead", [] { return replyOf(1, support::padded("NEW", 16)); }},
    {"MoreRecordsThanThereAre", [] { return replyOf(INT_MAX, unchanged("OLD")); }},
    {"AddedDataBeyondItsMessage",
     [] { return replyOf(1, changeOf("NEW", 1, 1, 0, 5) + text("four")); }},
    {"AddedDataOfNegativeLength", [] { return replyOf(1, changeOf("NEW", 1, 1, 0, -1)); }},
    {"ModifiedDataBeyondItsMessage",
     [] { return replyOf(1, changeOf("OLD", 3, 1, 0, 4) + text("old")); }},
    {"ModifiedDataOfTheSameLengthBeyondItsMessage",
     [] { return replyOf(1, changeOf("OLD", 3, 1, 0, 3) + text("ol")); }},
};

class MalformedFlow : public MalformedInput, public ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(, MalformedFlow, ::testing::Range(0, 18), [](const auto& one) {
    return std::string(malformed[static_cast<std::size_t>(one.param)].name);
});

TEST_P(MalformedFlow, EndsTheConnectionWithOneLine)
{
    answerUntilTheEnd(malformed[static_cast<std::size_t>(GetParam())].bytes());
    expectOneLine();
    EXPECT_EQ((Names{}), exceptionsOf("clapi_socketcomms."));
}

TEST_F(MalformedInput, OfEveryLengthHasOneLine)
{
    Bytes whole = ProgramReply().commarea(text("ab")).body();
    for (std::size_t there = 0; there < whole.size(); ++there) {
        SCOPED_TRACE(there);
        answerUntilTheEnd(flow(replyType, 1, 0, "ECI", support::slice(whole, 0, there)));
        expectOneLine();
    }
}

TEST_F(MalformedInput, WithABadEyecatcherKeepsTheLineThatItHas)
{
    answerUntilTheEnd(text("Etag") + support::slice(eciReply(1, text("answered")), 4, 60));
    EXPECT_EQ((Names{"3213 clapi_socketcomms.clapiReadHeader() Bad eyecatcher! "
                     "Expected=0x47617465, actual=0x45746167"}),
              exceptionsOf("clapi_socketcomms."));
    EXPECT_EQ((Names{}), exceptionsOf("clapi_gwycon."));
}

TEST_F(MalformedInput, InsteadOfAHandshakeAnswerHasOneLine)
{
    TraceFile trace(3);
    ScriptedGateway gateway;
    QPX_ConnToken_t token = nullptr;
    auto open = callInThread(
        [&] { return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 0); });
    Peer peer = gateway.accept();
    peer.read(handshakeSize);
    peer.send(header(handshakeType, -2, 0, 7, "ABCDEFG", 0));
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, open.get());
    ASSERT_TRUE(trace.awaitText(receiverEnded));
    records = trace.records();
    std::size_t ofConnecting = exceptionsOf("clapi_gwycon.clapiConnectToGateway").size();
    EXPECT_EQ(1U, exceptionsOf("clapi_gwycon.").size() - ofConnecting);
}

// ---- What ends in order has no such line ----

TEST_F(MalformedInput, IsNotTheEndOfTheStream)
{
    ScriptedConnection connection;
    TraceFile trace(3);
    lose(connection, trace);
    records = trace.records();
    EXPECT_EQ((Names{}), exceptionsOf("clapi_gwycon."));
}

TEST_F(MalformedInput, IsNotACloseFlow)
{
    ScriptedConnection connection;
    TraceFile trace(3);
    closeByGateway(connection, trace);
    records = trace.records();
    EXPECT_EQ((Names{}), exceptionsOf("clapi_gwycon."));
}

TEST_F(MalformedInput, IsNotACutReplyWithACodeOfTheGateway)
{
    ScriptedConnection connection;
    TraceFile trace(3);
    EciParms parms = channelCall(ECI_SYNC, channel);
    auto running = startChannelCall(connection, parms);
    int messageId = connection.awaitRequest().messageId();
    connection.peer.send(
        flow(replyType, messageId, gatewayCode, "ECI", support::slice(bodyOfAllChanges(), 0, 30)));
    EXPECT_RC(gatewayCode, running.get());
    expectStillServing(connection);
    records = trace.records();
    EXPECT_EQ((Names{}), exceptionsOf("clapi_gwycon."));
}

} // namespace
