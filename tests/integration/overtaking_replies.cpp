// Replies that come before their own requests have been sent whole: a Gateway that answers early
// and reads on late. Nobody but the sender has to wait for that, and the channel goes out as it
// was.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>
#include <vector>

#include "support/channel_script.h"
#include "support/connected_descriptor.h"

using namespace script;
using support::EciParms;
using support::getReply;
using support::getReplyWait;
using support::getSpecificReply;
using support::getSpecificReplyWait;
using support::RunningCall;
using support::TraceFile;

namespace {

// More than the buffers of a connection hold: while the peer does not read, its sender is stuck.
// Those of the connection are told how much that is, whatever is usual on the machine.
constexpr std::size_t large = 20'000'000;

// How a small container reads in the listing of a channel, and the large one.
std::string shown(const std::string& name, const std::string& data)
{
    if (data.size() < 100) return name + "=" + data;
    bool same = data.find_first_not_of(data[0]) == std::string::npos;
    return name + "=" + std::to_string(data.size()) + " times " + (same ? data[0] : '?');
}

class OvertakingReply : public ::testing::Test {
protected:
    OvertakingReply()
    {
        int room = 65536;
        setsockopt(connection.peer.fd(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
        int sender = support::descriptorTo(connection.gateway.port());
        setsockopt(sender, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
        channel.with("TAIL", "old tail").with("GONE", "gone").with("LARGE", all('L'));
    }

    static std::string all(char value) { return std::string(large, value); }

    // A call whose reply lies behind the early one.
    RunningCall<int> startOther()
    {
        auto running = connection.start(other);
        otherId = connection.awaitRequest().messageId();
        return running;
    }
    Bytes replyToOther() const { return eciReply(otherId, text("other")); }

    // Sends the channel; of the request only the header is read.
    RunningCall<int> startSync() { return startChannel(sync); }
    RunningCall<int> startAsync() { return startChannel(async); }
    RunningCall<int> startChannel(EciParms& parms)
    {
        auto running = startChannelCall(connection, parms);
        Bytes header = connection.peer.read(32);
        messageId = support::int32At(header, 12);
        unread = static_cast<std::size_t>(support::int32At(header, 28));
        return running;
    }

    void answer(const Bytes& flows) { connection.peer.send(flows); }

    // The peer reads on; the rest of the request.
    Bytes readOn() { return connection.peer.read(unread); }

    // The same, as long as there is a connection.
    void readOnToTheEnd()
    {
        std::vector<unsigned char> piece(65536);
        ssize_t got = 1;
        while (got > 0 || (got < 0 && errno == EINTR))
            got = recv(connection.peer.fd(), piece.data(), piece.size(), 0);
    }

    int collect(EciParms&& parms) { return executeChannel(connection, parms); }

    // In a thread of its own: one that waits would wait for this one to read on.
    int collectMeanwhile(EciParms parms)
    {
        QPX_ConnToken_t gwTok = connection.token;
        QPX_ECI_PARMS* record = &parms.record;
        return callInThread([=] { return QPX_ECI_Execute_Channel(gwTok, record); }).get();
    }

    // The other call's reply lies behind the early one, and has been delivered.
    void expectOtherIsServed(RunningCall<int>& running, const RunningCall<int>& stuck)
    {
        EXPECT_RC(0, running.get());
        EXPECT_EQ("other", support::toText(other.commarea()));
        EXPECT_FALSE(stuck.hasEnded());
    }

    // What overtakes the request.
    virtual Bytes reply() const { return ProgramReply().serverCode(-27).to(messageId); }

    // A request whose early reply has been taken by the receiver: one behind it has been delivered.
    RunningCall<int> startSyncOvertaken()
    {
        auto otherCall = startOther();
        auto running = startSync();
        answer(reply() + replyToOther());
        expectOtherIsServed(otherCall, running);
        return running;
    }
    RunningCall<int> startAsyncOvertaken()
    {
        auto otherCall = startOther();
        auto sending = startAsync();
        answer(reply() + replyToOther());
        expectOtherIsServed(otherCall, sending);
        return sending;
    }

    // What the request carried is what the channel had at its start.
    static void expectSentUnchanged(const Bytes& body)
    {
        constexpr std::size_t behind = 11; // of the body, behind the channel
        ASSERT_LT(large, body.size());
        EXPECT_EQ("old tail", support::toText(support::slice(body, body.size() - behind - 8, 8)));
        Bytes part = support::slice(body, body.size() - behind - large, large - 200);
        EXPECT_TRUE(part == filled(part.size(), 'L'));
    }

    Names contents() const
    {
        Names names;
        ECI_CONTAINER_INFO info{};
        for (int rc = ECI_getFirstContainer(channel.token, &info); rc == 0;
             rc = ECI_getNextContainer(channel.token, &info))
            names.push_back(shown(info.name, channel.dataOf(info.name)));
        return names;
    }

    // The channel serves a call on another connection.
    void expectUsable()
    {
        channel.expectFree();
        for (const char* name : {"LARGE", "NEW"}) ECI_deleteContainer(channel.token, name);
        ScriptedConnection another;
        EciParms parms = channelCall(ECI_SYNC, channel);
        auto running = startChannelCall(another, parms);
        another.peer.send(ChannelReply(1, added("PROBE", 1, 0, text("p")))
                              .to(another.awaitRequest().messageId()));
        EXPECT_RC(0, running.get());
        EXPECT_EQ("p", channel.dataOf("PROBE"));
    }

    ScriptedConnection connection;
    Channel channel;
    EciParms other = support::syncCall("OTHER", filled(5, '?'));
    EciParms sync = channelCall(ECI_SYNC, channel);
    EciParms async = channelCall(ECI_ASYNC, channel);
    int otherId = 0;
    int messageId = 0;
    std::size_t unread = 0;
};

std::string shownLarge()
{
    return shown("LARGE", std::string(large, 'L'));
}

Names asBefore()
{
    return {shownLarge(), "GONE=gone", "TAIL=old tail"};
}

// ---- Without a channel section ----

TEST_F(OvertakingReply, WithoutAChannelIsDeliveredOnceItsRequestHasBeenSent)
{
    auto running = startSyncOvertaken();

    expectSentUnchanged(readOn());

    EXPECT_RC(-27, running.get());
    EXPECT_EQ(asBefore(), contents());
    expectStillServing(connection);
    expectUsable();
}

TEST_F(OvertakingReply, WithoutAChannelIsCollectedOnceItsRequestHasBeenSent)
{
    auto sending = startAsyncOvertaken();

    expectSentUnchanged(readOn());

    EXPECT_RC(0, sending.get());
    EXPECT_RC(-27, collect(getReplyWait(0)));
    EXPECT_EQ(asBefore(), contents());
    expectStillServing(connection);
    expectUsable();
}

TEST_F(OvertakingReply, MayBeFollowedByAnythingBeforeTheGatewayReadsOn)
{
    auto otherCall = startOther();
    auto running = startSync();
    answer(ProgramReply().serverCode(-27).to(messageId));
    constexpr int unasked = 16; // a message id that nobody uses
    Bytes stray = flow(replyType, unasked, 0, "ECI", filled(1'000'000, 's'));
    Bytes pings;
    for (int count = 0; count < 1000; ++count) pings += pingFlow();
    for (int megabyte = 0; megabyte < 18; ++megabyte) answer(stray + pings);
    answer(replyToOther());

    expectSentUnchanged(readOn());

    EXPECT_RC(0, otherCall.get());
    EXPECT_RC(-27, running.get());
    expectStillServing(connection);
    expectUsable();
}

TEST_F(OvertakingReply, ComesAsOneOfManyCalls)
{
    std::vector<EciParms> parms;
    for (int at = 0; at < 8; ++at) parms.push_back(support::syncCall("OTHER", filled(1, '?')));
    std::vector<RunningCall<int>> calls;
    Bytes replies;
    for (EciParms& one : parms) {
        calls.push_back(connection.start(one));
        replies += eciReply(connection.awaitRequest().messageId(), text("!"));
    }
    auto running = startSync();
    answer(ProgramReply().serverCode(-27).to(messageId) + replies);
    for (RunningCall<int>& call : calls) EXPECT_RC(0, call.get());
    EXPECT_FALSE(running.hasEnded());

    readOn();

    EXPECT_RC(-27, running.get());
    expectStillServing(connection);
}

// ---- With a channel section ----

// The changes of a reply, and the channel afterwards; made when a test wants them, for their size.
struct Changes {
    const char* name;
    int count;
    Bytes (*records)();
    Names (*after)();
};

const Changes allChanges[] = {
    {"Unchanged", 1, [] { return unchanged("TAIL"); }, asBefore},
    {"Added", 1, [] { return added("NEW", 1, 0, text("new")); },
     [] {
         return Names{"NEW=new", shownLarge(), "GONE=gone", "TAIL=old tail"};
     }},
    {"Modified", 1, [] { return modified("TAIL", 1, 0, text("new tail")); },
     [] {
         return Names{shownLarge(), "GONE=gone", "TAIL=new tail"};
     }},
    {"Deleted", 1, [] { return deleted("GONE"); },
     [] {
         return Names{shownLarge(), "TAIL=old tail"};
     }},
    {"All", 4,
     [] {
         return added("NEW", 1, 0, text("new")) + modified("TAIL", 1, 0, text("another length")) +
                deleted("GONE") + unchanged("LARGE");
     },
     [] {
         return Names{"NEW=new", shownLarge(), "TAIL=another length"};
     }},
    {"WithoutWhatIsBeingSent", 1, [] { return deleted("LARGE"); },
     [] {
         return Names{"GONE=gone", "TAIL=old tail"};
     }},
    {"WithOtherDataForWhatIsBeingSent", 1, [] { return modified("LARGE", 1, 0, text("small")); },
     [] {
         return Names{"LARGE=small", "GONE=gone", "TAIL=old tail"};
     }},
    {"WithFiveMegabytes", 1, [] { return added("NEW", 1, 0, filled(5'000'000, 'n')); },
     [] {
         return Names{"NEW=5000000 times n", shownLarge(), "GONE=gone", "TAIL=old tail"};
     }},
    {"WithAsMuchAsIsBeingSent", 1, [] { return modified("LARGE", 1, 0, filled(large, 'n')); },
     [] {
         return Names{"LARGE=20000000 times n", "GONE=gone", "TAIL=old tail"};
     }},
};

class OvertakingChannel : public OvertakingReply, public ::testing::WithParamInterface<int> {
protected:
    const Changes& changes = allChanges[static_cast<std::size_t>(GetParam())];
    Bytes reply() const override
    {
        return ChannelReply(changes.count, changes.records()).to(messageId);
    }

    void expectAsBeforeOrChanged() const
    {
        Names left = contents();
        EXPECT_TRUE(left == asBefore() || left == changes.after())
            << ::testing::PrintToString(left);
    }
};

INSTANTIATE_TEST_SUITE_P(, OvertakingChannel, ::testing::Range(0, 9), [](const auto& one) {
    return std::string(allChanges[static_cast<std::size_t>(one.param)].name);
});

TEST_P(OvertakingChannel, IsAppliedOnceItsRequestHasBeenSent)
{
    auto running = startSyncOvertaken();

    expectSentUnchanged(readOn());

    EXPECT_RC(0, running.get());
    EXPECT_EQ(changes.after(), contents());
    expectStillServing(connection);
    expectUsable();
}

TEST_P(OvertakingChannel, IsAppliedToAnAsynchronousCallOnceItHasBeenSent)
{
    auto sending = startAsyncOvertaken();

    expectSentUnchanged(readOn());

    EXPECT_RC(0, sending.get());
    EXPECT_RC(0, collect(getReplyWait(0)));
    EXPECT_EQ(changes.after(), contents());
    expectStillServing(connection);
    expectUsable();
}

// What the connection's end leaves of a call whose reply was there: the loss is its result, and its
// channel either as it was or as the reply wants it.
TEST_P(OvertakingChannel, IsAppliedWholeOrNotAtAllWhenTheConnectionIsLost)
{
    auto running = startSyncOvertaken();

    connection.peer.reset();

    EXPECT_RC(-102, running.get());
    channel.expectFree();
    expectAsBeforeOrChanged();
    EXPECT_RC(-102, executeChannel(connection, sync));
    expectUsable();
}

TEST_P(OvertakingChannel, IsAppliedWholeOrNotAtAllWhenAnAsynchronousCallIsLost)
{
    auto sending = startAsyncOvertaken();

    connection.peer.reset();

    int rc = sending.get();
    EXPECT_TRUE(rc == 0 || rc == -102) << support::rcName(rc);
    EXPECT_RC(-102, collect(getReplyWait(0)));
    channel.expectFree();
    expectAsBeforeOrChanged();
    expectUsable();
}

// ---- With changes that cannot be made ----

struct UnfitChanges {
    const char* name;
    int count;
    Bytes records;
};

const UnfitChanges unfit[] = {
    {"DeletesWhatIsNotThere", 1, deleted("NOBODY")},
    {"ModifiesWhatIsNotThere", 1, modified("NOBODY", 1, 0, text("x"))},
    {"AddsMoreThanIsThere", 1, support::changeOf("NEW", 1, 1, 0, 5) + text("four")},
    {"ModifiesToMoreThanIsThere", 1, support::changeOf("TAIL", 3, 1, 0, 9) + text("new tail")},
    {"AddsANegativeLength", 1, support::changeOf("NEW", 1, 1, 0, -1)},
    {"EndsInARecord", 1, support::padded("NEW", 16)},
};

class OvertakingUnfit : public OvertakingReply, public ::testing::WithParamInterface<int> {
protected:
    Bytes reply() const override
    {
        const UnfitChanges& changes = unfit[static_cast<std::size_t>(GetParam())];
        return ChannelReply(changes.count, changes.records).to(messageId);
    }
};

INSTANTIATE_TEST_SUITE_P(, OvertakingUnfit, ::testing::Range(0, 6), [](const auto& one) {
    return std::string(unfit[static_cast<std::size_t>(one.param)].name);
});

TEST_P(OvertakingUnfit, EndsTheConnectionOfASynchronousCall)
{
    auto running = startSync();
    answer(reply());
    readOnToTheEnd();
    EXPECT_RC(-102, running.get());
    EXPECT_EQ(asBefore(), contents());
    EXPECT_RC(-102, executeChannel(connection, sync));
    expectUsable();
}

TEST_P(OvertakingUnfit, EndsTheConnectionOfAnAsynchronousCall)
{
    auto sending = startAsync();
    answer(reply());
    readOnToTheEnd();
    int rc = sending.get();
    EXPECT_TRUE(rc == 0 || rc == -102) << support::rcName(rc);
    EXPECT_RC(-102, collect(getReplyWait(0)));
    EXPECT_EQ(asBefore(), contents());
    expectUsable();
}

// ---- Refusals ----

struct Refusal {
    const char* name;
    bool isException;
    int code;
};

const Refusal refusals[] = {{"Error", false, 61445},
                            {"Exception", true, QPX_ERR_GATEWAY_EXCEPTION}};

class OvertakingRefusal : public OvertakingReply, public ::testing::WithParamInterface<int> {
protected:
    const Refusal& refusal = refusals[static_cast<std::size_t>(GetParam())];
    Bytes reply() const override
    {
        return refusal.isException ? exceptionFlow(messageId, "refused")
                                   : errorFlow(messageId, refusal.code);
    }
};

INSTANTIATE_TEST_SUITE_P(, OvertakingRefusal, ::testing::Range(0, 2), [](const auto& one) {
    return std::string(refusals[static_cast<std::size_t>(one.param)].name);
});

TEST_P(OvertakingRefusal, IsDeliveredOnceTheRequestHasBeenSent)
{
    auto running = startSyncOvertaken();

    expectSentUnchanged(readOn());

    EXPECT_RC(refusal.code, running.get());
    EXPECT_EQ(asBefore(), contents());
    expectStillServing(connection);
    expectUsable();
}

TEST_P(OvertakingRefusal, IsCollectedOnceTheRequestHasBeenSent)
{
    auto sending = startAsyncOvertaken();

    expectSentUnchanged(readOn());

    EXPECT_RC(0, sending.get());
    EXPECT_RC(refusal.code, collect(getReplyWait(0)));
    EXPECT_EQ(asBefore(), contents());
    expectStillServing(connection);
    expectUsable();
}

TEST_P(OvertakingRefusal, IsALossWhenTheConnectionEndsBeforeTheRequestHasBeenSent)
{
    auto running = startSyncOvertaken();

    connection.peer.reset();

    EXPECT_RC(-102, running.get());
    EXPECT_EQ(asBefore(), contents());
    expectUsable();
}

// ---- Collectors ----

// What overtakes its request, as a collector may find it.
struct Early {
    const char* name;
    int code; // what its collection returns
};

const Early early[] = {{"Reply", -27}, {"Channel", 0}, {"Error", 61445}};

class OvertakenCollector : public OvertakingReply, public ::testing::WithParamInterface<int> {
protected:
    Bytes reply() const override
    {
        if (GetParam() == 0) return ProgramReply().serverCode(-27).to(messageId);
        if (GetParam() == 1) return ChannelReply(1, deleted("GONE")).to(messageId);
        return errorFlow(messageId, 61445);
    }
    int code() const { return early[static_cast<std::size_t>(GetParam())].code; }

    void expectCollectable(RunningCall<int>& sending)
    {
        readOn();
        EXPECT_RC(0, sending.get());
        EXPECT_RC(code(), collect(getSpecificReplyWait(messageId, 0)));
        expectStillServing(connection);
        expectUsable();
    }
};

INSTANTIATE_TEST_SUITE_P(, OvertakenCollector, ::testing::Range(0, 3), [](const auto& one) {
    return std::string(early[static_cast<std::size_t>(one.param)].name);
});

TEST_P(OvertakenCollector, IsToldThatThereIsNoReplyYet)
{
    auto sending = startAsyncOvertaken();
    EXPECT_RC(ECI_ERR_NO_REPLY, collectMeanwhile(getReply(0)));
    EXPECT_FALSE(sending.hasEnded());
    expectCollectable(sending);
}

TEST_P(OvertakenCollector, IsToldThatThereIsNoReplyOfThisRequestYet)
{
    auto sending = startAsyncOvertaken();
    EXPECT_RC(ECI_ERR_NO_REPLY, collectMeanwhile(getSpecificReply(messageId, 0)));
    EXPECT_FALSE(sending.hasEnded());
    expectCollectable(sending);
}

TEST_P(OvertakenCollector, WaitsUntilTheRequestHasBeenSent)
{
    auto sending = startAsyncOvertaken();
    TraceFile trace(3);
    EciParms parms = getReplyWait(0);
    auto collecting = startChannelCall(connection, parms);
    ASSERT_TRUE(trace.awaitText("ENTRY  clapi_eci.getAsyncReply("));

    readOn();

    EXPECT_RC(0, sending.get());
    EXPECT_RC(code(), collecting.get());
    expectStillServing(connection);
    expectUsable();
}

TEST_P(OvertakenCollector, GetsTheReplyOfAnotherRequest)
{
    EciParms first = support::asyncCall("FIRST", filled(5, '?'));
    ASSERT_RC(0, QPX_ECI_Execute(connection.token, &first.record));
    int firstId = connection.awaitRequest().messageId();
    auto sending = startAsyncOvertaken();
    answer(eciReply(firstId, text("first")));

    EciParms parms = getReplyWait(5);
    auto collecting = connection.start(parms);

    EXPECT_RC(0, collecting.get());
    EXPECT_EQ(firstId, int(parms.record.eci_message_qualifier));
    EXPECT_EQ("first", support::toText(parms.commarea()));
    EXPECT_FALSE(sending.hasEnded());
    expectCollectable(sending);
}

TEST_P(OvertakenCollector, GetsTheReplyOfTheRequestThatItNames)
{
    EciParms first = support::asyncCall("FIRST", filled(5, '?'));
    ASSERT_RC(0, QPX_ECI_Execute(connection.token, &first.record));
    int firstId = connection.awaitRequest().messageId();
    auto sending = startAsyncOvertaken();
    answer(eciReply(firstId, text("first")));

    EciParms parms = getSpecificReplyWait(firstId, 5);
    auto collecting = connection.start(parms);

    EXPECT_RC(0, collecting.get());
    EXPECT_EQ("first", support::toText(parms.commarea()));
    EXPECT_FALSE(sending.hasEnded());
    expectCollectable(sending);
}

// ---- Collectors and a close ----

class OvertakenClose : public OvertakenCollector {
protected:
    RunningCall<int> startCollector(EciParms& parms)
    {
        trace.forget();
        auto running = startChannelCall(connection, parms);
        EXPECT_TRUE(trace.awaitText("ENTRY  clapi_eci.getAsyncReply("));
        return running;
    }

    RunningCall<int> startWaitingClose()
    {
        trace.forget();
        auto closing = connection.startClose();
        EXPECT_TRUE(trace.awaitText("clapi_gwytok.quiesceConnection() Waiting for "));
        return closing;
    }

    EciParms one = getReplyWait(0);
    EciParms two = getReplyWait(0);
    TraceFile trace{3};
};

INSTANTIATE_TEST_SUITE_P(, OvertakenClose, ::testing::Range(0, 3), [](const auto& param) {
    return std::string(early[static_cast<std::size_t>(param.param)].name);
});

TEST_P(OvertakenClose, LetsCollectorsAndCloserGoWhenTheGatewayReadsOn)
{
    auto sending = startAsyncOvertaken();
    auto first = startCollector(one);
    auto second = startCollector(two);
    auto closing = startWaitingClose();

    readOn();

    EXPECT_RC(0, sending.get());
    int firstRc = first.get();
    int secondRc = second.get();
    EXPECT_TRUE((firstRc == code() && secondRc == QPX_ERR_GWTOK_CLOSED) ||
                (secondRc == code() && firstRc == QPX_ERR_GWTOK_CLOSED))
        << support::rcName(firstRc) << ", " << support::rcName(secondRc);
    connection.answerClose();
    EXPECT_RC(0, closing.get());
    connection.forget();
    expectUsable();
}

TEST_P(OvertakenClose, LetsCollectorsAndCloserGoWhenTheGatewayEnds)
{
    auto sending = startAsyncOvertaken();
    auto first = startCollector(one);
    auto second = startCollector(two);
    auto closing = startWaitingClose();

    connection.peer.reset();

    // Either the call itself or one of the collectors tells of the loss, or all of them.
    for (RunningCall<int>* call : {&sending, &first, &second}) {
        int rc = call->get();
        EXPECT_TRUE(rc == -102 || rc == -140 || (rc == 0 && call == &sending))
            << support::rcName(rc);
    }
    EXPECT_RC(0, closing.get());
    connection.forget();
    expectUsable();
}

} // namespace
