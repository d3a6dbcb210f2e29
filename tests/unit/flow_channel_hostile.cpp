// Channels of replies that end too early, say what cannot be, or find no memory: what they leave is
// a channel in order.
#include "flow_channel_fixture.h"

#include <climits>
#include <cstdint>
#include <memory>

using namespace support;
using namespace unit;

namespace {

class FlowChannelHostile : public SocketBufferTest {
protected:
    FlowChannelHostile() { std::memset(&request, 0, sizeof request); }

    // Binds the buffer for the body, which has arrived, so that nothing but reading remains.
    void arrive(const Bytes& body)
    {
        request.channel = channel.token;
        bindForReading(body.size());
        theirs.send(body);
    }

    int readArrived() { return clapiReadECIResponse(&sockBuffer, &request); }

    int read(int count, const Bytes& records)
    {
        arrive(replyBody(channelSection("CHANNEL", 819, count, records)));
        return readArrived();
    }

    // The same while every allocation fails; none may be tried.
    int readWithoutAllocating(int count, const Bytes& records)
    {
        arrive(replyBody(channelSection("CHANNEL", 819, count, records)));
        Fault noMemory = failEveryCall(Call::Malloc, ENOMEM);
        int rc = readArrived();
        EXPECT_EQ(0, noMemory.calls());
        return rc;
    }

    // The channel is as it was made.
    void expectUntouched()
    {
        EXPECT_EQ((Names{"A 1 0 6161", "B 1 0 6262", "C 1 0 6363"}), channel.contents());
        expectUsable();
    }

    // The channel is in order and serves every call.
    void expectUsable()
    {
        channel.expectConsistent();
        EXPECT_RC(0, ECI_createContainer(channel.token, "PROBE", ECI_BIT, 0, "probe", 5));
        char data[5];
        EXPECT_RC(0, ECI_getContainerData(channel.token, "PROBE", data, 5, 0, nullptr));
        EXPECT_EQ("probe", std::string(data, 5));
        EXPECT_RC(0, ECI_deleteContainer(channel.token, "PROBE"));
        channel.expectConsistent();
    }

    LocalChannel channel{
        "CHANNEL", 819, {bits("A", text("aa")), bits("B", text("bb")), bits("C", text("cc"))}};
    ECIRequest request;
};

// ---- Replies that end too early ----

TEST_F(FlowChannelHostile, AppliesTheRecordsThatAreThereOfAReplyCutAnywhere)
{
    const Bytes body = replyBody(channelSection("CHANNEL", 819, 3,
                                                added("NEW", 1, 0, text("data")) + deleted("B") +
                                                    modified("A", 1, 0, text("longer"))));
    ASSERT_EQ(26U + 24 + 32 + 28 + 34, body.size());
    for (std::size_t there = 0; there < body.size(); ++there) {
        SCOPED_TRACE(there);
        LocalChannel fresh("CHANNEL", 819, {bits("A", text("aa")), bits("B", text("bb"))});
        arrive(slice(body, 0, there));
        request.channel = fresh.token;

        int rc = readArrived();

        EXPECT_TRUE(rc != 0 || sockBuffer.socketErr != 0);
        if (there < 26 + 24 + 32)
            EXPECT_EQ((Names{"A 1 0 6161", "B 1 0 6262"}), fresh.contents());
        else if (there < 26 + 24 + 32 + 28)
            EXPECT_EQ((Names{"NEW 1 0 64617461", "A 1 0 6161", "B 1 0 6262"}), fresh.contents());
        else
            EXPECT_EQ((Names{"NEW 1 0 64617461", "A 1 0 6161"}), fresh.contents());
        fresh.expectConsistent();
        EXPECT_RC(0, ECI_createContainer(fresh.token, "PROBE", ECI_BIT, 0, "probe", 5));
    }
}

TEST_F(FlowChannelHostile, AppliesAWholeReplyWithoutAnError)
{
    // What the truncated ones would be with their last byte.
    EXPECT_RC(0, read(3, added("NEW", 1, 0, text("data")) + deleted("B") +
                             modified("A", 1, 0, text("longer"))));
    EXPECT_EQ(0, sockBuffer.socketErr);
    EXPECT_EQ("NEW A C", channel.names());
    EXPECT_EQ(text("longer"), LocalChannel::dataOf(channel.at(1)));
}

TEST_F(FlowChannelHostile, StaysInOrderWhenTheConnectionEndsInAReply)
{
    Bytes body = replyBody(channelSection("CHANNEL", 819, 3,
                                          added("NEW", 1, 0, text("data")) + deleted("B") +
                                              modified("A", 1, 0, text("longer"))));
    request.channel = channel.token;
    bindForReading(body.size());
    theirs.send(slice(body, 0, body.size() - 1));
    theirs.close();

    readArrived();

    EXPECT_NE(0, sockBuffer.socketErr);
    channel.expectConsistent();
}

TEST_F(FlowChannelHostile, StaysInOrderWhenTheConnectionEndsInLargeData)
{
    for (const Bytes& record :
         {added("NEW", 1, 0, Bytes(80000, 'n')), modified("A", 1, 0, Bytes(80000, 'a'))}) {
        auto [here, there] = socketPair();
        Bytes body = replyBody(channelSection("CHANNEL", 819, 2, record + deleted("C")));
        request.channel = channel.token;
        ASSERT_RC(0, initReadBuffer(&sockBuffer, here.fd(), body.size()));
        Peer& peer = there;
        auto sender = callInThread([&] {
            peer.send(slice(body, 0, 50000));
            peer.close();
            return 0;
        });

        readArrived();

        sender.get();
        EXPECT_NE(0, sockBuffer.socketErr);
        ASSERT_NE(nullptr, channel.at(2));
        EXPECT_TRUE(contains(channel.names(), "C")); // what follows is not applied
        channel.expectConsistent();
    }
}

// ---- Lengths ----

constexpr int lengthsThatCannotBe[] = {4,          5,       32999, 33000, 33001,
                                       0x01000000, INT_MAX, -1,    -2,    INT_MIN};

TEST_F(FlowChannelHostile, RefusesAddedDataThatIsNotThere)
{
    for (int length : lengthsThatCannotBe) {
        SCOPED_TRACE(length);
        EXPECT_RC(-9, readWithoutAllocating(1, changeOf("NEW", 1, 1, 0, length) + text("dat")));
        expectUntouched();
    }
}

TEST_F(FlowChannelHostile, RefusesModifiedDataThatIsNotThere)
{
    for (int length : lengthsThatCannotBe) {
        SCOPED_TRACE(length);
        EXPECT_RC(-9, readWithoutAllocating(1, changeOf("B", 3, 1, 0, length) + text("dat")));
        expectUntouched();
    }
}

TEST_F(FlowChannelHostile, RefusesDataOfTheOldLengthThatIsNotThere)
{
    EXPECT_RC(-9, readWithoutAllocating(1, changeOf("B", 3, 1, 0, 2) + text("x")));
    expectUntouched();
}

TEST_F(FlowChannelHostile, TakesDataOfExactlyTheLengthThatIsThere)
{
    EXPECT_RC(0, read(1, changeOf("NEW", 1, 1, 0, 3) + text("dat")));
    EXPECT_EQ("NEW A B C", channel.names());
    EXPECT_EQ(text("dat"), LocalChannel::dataOf(channel.at(0)));
    expectUsable();
}

TEST_F(FlowChannelHostile, AppliesWhatStandsBeforeALengthThatCannotBe)
{
    EXPECT_RC(-9, read(3, deleted("A") + changeOf("NEW", 1, 1, 0, INT_MAX) + deleted("B")));
    EXPECT_EQ("B C", channel.names());
    expectUsable();
}

TEST_F(FlowChannelHostile, RefusesALengthThatTheRestOfALargeReplyDoesNotHave)
{
    // More than the buffer holds is still to come, and less than the length says.
    Bytes body = replyBody(
        channelSection("CHANNEL", 819, 1, changeOf("NEW", 1, 1, 0, 60001) + Bytes(60000, 'x')));
    request.channel = channel.token;
    bindForReading(body.size());
    auto sender = callInThread([&] {
        theirs.send(body);
        return 0;
    });
    EXPECT_RC(-9, readArrived());
    sender.get();
    expectUntouched();
}

// ---- Counts ----

TEST_F(FlowChannelHostile, EndsAtACountThatTheReplyDoesNotHave)
{
    for (int count : {1, 2, 1000000, INT_MAX}) {
        SCOPED_TRACE(count);
        EXPECT_TRUE(readWithoutAllocating(count, Bytes()) != 0 || sockBuffer.socketErr != 0);
        expectUntouched();
    }
}

TEST_F(FlowChannelHostile, AppliesTheRecordsThatAreThereOfTooGreatACount)
{
    int rc = read(INT_MAX, added("NEW", 1, 0, text("data")) + deleted("B"));
    EXPECT_TRUE(rc != 0 || sockBuffer.socketErr != 0);
    EXPECT_EQ("NEW A C", channel.names());
    EXPECT_EQ(3, channel.token->numContainers.load());
    expectUsable();
}

TEST_F(FlowChannelHostile, TakesANegativeCountForNone)
{
    for (int count : {-1, -1000, INT_MIN}) {
        SCOPED_TRACE(count);
        EXPECT_RC(0, readWithoutAllocating(count, Bytes()));
        EXPECT_EQ(0, sockBuffer.socketErr);
        EXPECT_EQ(3, channel.token->numContainers.load());
        expectUntouched();
    }
}

TEST_F(FlowChannelHostile, ReadsNoMoreRecordsThanTheCountSays)
{
    EXPECT_RC(0, read(1, deleted("A") + deleted("B")));
    EXPECT_EQ("B C", channel.names());
    EXPECT_EQ(0, sockBuffer.socketErr);
    EXPECT_EQ(28U, bytesLeft(&sockBuffer));
    expectUsable();
}

TEST_F(FlowChannelHostile, CountsItsContainersItself)
{
    EXPECT_RC(0, read(4, unchanged("A") + unchanged("B") + unchanged("C") + unchanged("A")));
    EXPECT_EQ(3, channel.token->numContainers.load());
    expectUntouched();
}

TEST_F(FlowChannelHostile, TakesTenThousandRecords)
{
    Bytes records;
    for (int number = 0; number < 5000; ++number)
        records += added("SAME", 1, 0, text("x")) + deleted("SAME");
    Bytes body = replyBody(channelSection("CHANNEL", 819, 10000, records));
    request.channel = channel.token;
    bindForReading(body.size());
    auto sender = callInThread([&] {
        theirs.send(body);
        return 0;
    });
    EXPECT_RC(0, readArrived());
    sender.get();
    EXPECT_EQ(0, sockBuffer.socketErr);
    expectUntouched();
}

// ---- A channel that the request does not have ----

TEST_F(FlowChannelHostile, DropsTheChannelOfARequestWithoutOne)
{
    Bytes body = replyBody(channelSection(
        "CHANNEL", 37, 5,
        added("NEW", 1, 0, text("data")) + deleted("B") + modified("A", 1, 0, text("longer")) +
            changeOf("C", 4, 1, 0, 77) + changeOf("C", 9, 1, 0, 77)));
    bindForReading(body.size());
    theirs.send(body);
    Fault noMemory = failEveryCall(Call::Malloc, ENOMEM);

    EXPECT_RC(0, readArrived());

    EXPECT_EQ(0, noMemory.calls());
    EXPECT_EQ(0, sockBuffer.socketErr);
    EXPECT_EQ(0U, bytesLeft(&sockBuffer));
    noMemory.end();
    expectUntouched();
}

TEST_F(FlowChannelHostile, DropsDataOfAnySizeWithARequestWithoutAChannel)
{
    Bytes body = replyBody(
        channelSection("CHANNEL", 37, 2, added("NEW", 1, 0, Bytes(100000, 'x')) + deleted("B")));
    bindForReading(body.size());
    auto sender = callInThread([&] {
        theirs.send(body);
        return 0;
    });

    EXPECT_RC(0, readArrived());

    sender.get();
    EXPECT_EQ(0, sockBuffer.socketErr);
    EXPECT_EQ(0U, bytesLeft(&sockBuffer));
}

// ---- Memory ----

// One failing allocation after the other: data and record of "N1", data of A, data and record of
// "N2".
class FlowChannelMemory : public FlowChannelHostile, public ::testing::WithParamInterface<int> {};

TEST_P(FlowChannelMemory, LeavesAChannelInOrderWhicheverAllocationFails)
{
    arrive(replyBody(channelSection("CHANNEL", 819, 4,
                                    added("N1", 1, 0, text("data")) +
                                        modified("A", 1, 0, text("longer")) +
                                        added("N2", 1, 0, text("data")) + deleted("C"))));
    {
        Fault noMemory = failCall(Call::Malloc, GetParam(), ENOMEM);
        EXPECT_RC(-111, readArrived());
        EXPECT_EQ(1, noMemory.hits());
    }
    const std::vector<Names> expected = {
        {"A 1 0 6161", "B 1 0 6262", "C 1 0 6363"},
        {"A 1 0 6161", "B 1 0 6262", "C 1 0 6363"},
        {"N1 1 0 64617461", "A 1 0 ", "B 1 0 6262", "C 1 0 6363"},
        {"N1 1 0 64617461", "A 1 0 6C6F6E67 6572", "B 1 0 6262", "C 1 0 6363"},
        {"N1 1 0 64617461", "A 1 0 6C6F6E67 6572", "B 1 0 6262", "C 1 0 6363"}};
    EXPECT_EQ(expected[static_cast<std::size_t>(GetParam() - 1)], channel.contents());
    expectUsable();
}

INSTANTIATE_TEST_SUITE_P(, FlowChannelMemory, ::testing::Range(1, 6));

TEST_F(FlowChannelHostile, NeedsNoFurtherMemoryForChangesOfEveryKind)
{
    arrive(replyBody(channelSection("CHANNEL", 819, 4,
                                    added("N1", 1, 0, text("data")) +
                                        modified("A", 1, 0, text("longer")) +
                                        added("N2", 1, 0, text("data")) + deleted("C"))));
    Fault noMemory = failCall(Call::Malloc, 6, ENOMEM);
    EXPECT_RC(0, readArrived());
    EXPECT_EQ(0, noMemory.hits());
    EXPECT_EQ(5, noMemory.calls());
    noMemory.end();
    EXPECT_EQ("N2 N1 A B", channel.names());
    expectUsable();
}

TEST_F(FlowChannelHostile, TellsThatThereIsNoMemoryForAddedData)
{
    TraceFile trace(1);
    arrive(replyBody(channelSection("CHANNEL", 819, 1, added("NEW", 1, 0, text("data!")))));
    Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);

    EXPECT_RC(-111, readArrived());

    EXPECT_TRUE(trace.wrote(
        3238, "*EXC*",
        "clapi_socketcomms.addContainer() Failed to allocate 5 bytes for container data"))
        << trace.text();
    EXPECT_EQ(1U, trace.records().size());
    expectUntouched();
}

TEST_F(FlowChannelHostile, TellsThatThereIsNoMemoryForAnAddedContainer)
{
    TraceFile trace(1);
    arrive(replyBody(channelSection("CHANNEL", 819, 1, added("NEW", 1, 0, text("data!")))));
    Fault noMemory = failCall(Call::Malloc, 2, ENOMEM);

    EXPECT_RC(-111, readArrived());

    EXPECT_TRUE(trace.wrote(
        3225, "*EXC*",
        "clapi_socketcomms.addContainer() Failed to allocate <int> bytes for new container"))
        << trace.text();
    EXPECT_EQ(1U, trace.records().size());
    expectUntouched();
}

TEST_F(FlowChannelHostile, TellsThatThereIsNoMemoryForAnEmptyAddedContainer)
{
    TraceFile trace(1);
    arrive(replyBody(channelSection("CHANNEL", 819, 1, added("NEW", 1, 0, Bytes()))));
    Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);

    EXPECT_RC(-111, readArrived());

    EXPECT_EQ(1, trace.timesWrote(3225)) << trace.text();
    EXPECT_EQ(0, trace.timesWrote(3238));
    expectUntouched();
}

TEST_F(FlowChannelHostile, TellsThatThereIsNoMemoryForModifiedData)
{
    TraceFile trace(1);
    arrive(replyBody(
        channelSection("CHANNEL", 819, 2, modified("B", 2, 37, text("longer")) + deleted("A"))));
    Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);

    EXPECT_RC(-111, readArrived());

    EXPECT_TRUE(trace.wrote(
        3235, "*EXC*",
        "clapi_socketcomms.modifyContainer() Failed to allocate 6 bytes for container data"))
        << trace.text();
    EXPECT_EQ("A B C", channel.names());
    EXPECT_EQ(0U, channel.at(1)->dataLength);
    EXPECT_EQ(nullptr, channel.at(1)->dataPtr);
    expectUsable();
}

TEST_F(FlowChannelHostile, TellsTheWantOfMemoryWhereItLeaves)
{
    TraceFile trace(3);
    arrive(replyBody(channelSection("CHANNEL", 819, 1, added("NEW", 1, 0, text("data!")))));
    Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);

    EXPECT_RC(-111, readArrived());

    EXPECT_TRUE(wroteInOrder(trace, {3206, 3217, 3219, 3224, 3238, 3226, 3223, 3207}));
    EXPECT_TRUE(trace.wrote(3223, "EXIT", "clapi_socketcomms.readChannel() rc=-111"));
    EXPECT_TRUE(trace.wrote(3207, "EXIT", "clapi_socketcomms.clapiReadECIResponse() rc=-111"));
}

TEST_F(FlowChannelHostile, AllocatesWhatTheRecordsSayAndNoMore)
{
    // Of the record of a container no size is given; of its data it is.
    arrive(replyBody(channelSection(
        "CHANNEL", 819, 2, added("NEW", 1, 0, filled(77)) + modified("A", 1, 0, filled(55)))));
    auto sizes = std::make_shared<std::vector<std::uintptr_t>>();
    Fault watching = beforeCall(Call::Malloc, 0,
                                [sizes](const CallInfo& info) { sizes->push_back(info.first); });

    EXPECT_RC(0, readArrived());

    ASSERT_EQ(3U, sizes->size());
    EXPECT_EQ(77U, (*sizes)[0]);
    EXPECT_EQ(55U, (*sizes)[2]);
}

} // namespace
