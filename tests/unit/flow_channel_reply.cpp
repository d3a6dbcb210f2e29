// The channel of an ECI reply: its changes applied to the channel of the call.
#include "flow_channel_fixture.h"

#include <cstdio>

using namespace support;
using namespace unit;

namespace {

class FlowChannelReply : public SocketBufferTest {
protected:
    FlowChannelReply() { std::memset(&request, 0, sizeof request); }

    // Reads a reply with these records for the channel, which it has taken whole.
    int read(const Bytes& records, int count)
    {
        return readBody(replyBody(channelSection("CHANNEL", 819, count, records)));
    }

    int readBody(const Bytes& body)
    {
        request.channel = channel.token;
        bindForReading(body.size());
        theirs.send(body);
        return clapiReadECIResponse(&sockBuffer, &request);
    }

    // The reply was taken whole, and well, and left a channel that is in order.
    void expectApplied()
    {
        EXPECT_EQ(0, sockBuffer.socketErr);
        EXPECT_EQ(0U, bytesLeft(&sockBuffer));
        channel.expectConsistent();
    }

    ECI_Container_t* at(int place) const { return channel.at(place); }

    // Browsing stands on the container of that place.
    void browseAt(int place) { channel.token->currentCont = at(place); }
    const ECI_Container_t* cursor() const { return channel.token->currentCont; }

    LocalChannel channel{
        "CHANNEL", 819, {bits("A", text("aa")), bits("B", text("bb")), bits("C", text("cc"))}};
    ECIRequest request;
};

// ---- The channel itself ----

TEST_F(FlowChannelReply, TakesOverTheNameAndTheCodePage)
{
    EXPECT_RC(0, readBody(replyBody(channelSection("RENAMED", 1208, 0, Bytes()))));

    EXPECT_EQ(toHex(hex("52454E414D4544000000000000000000")), toHex(channel.name()));
    EXPECT_EQ(1208, channel.token->ccsid.load());
    EXPECT_EQ("A B C", channel.names());
    expectApplied();
}

TEST_F(FlowChannelReply, TakesOverANameOfSixteenCharacters)
{
    EXPECT_RC(0, readBody(replyBody(channelSection("SIXTEEN_LETTERS_", -1, 0, Bytes()))));

    EXPECT_EQ(toHex(text("SIXTEEN_LETTERS_")), toHex(channel.name()));
    EXPECT_EQ(-1, channel.token->ccsid.load());
    char name[17];
    EXPECT_RC(0, ECI_getChannelName(channel.token, name));
    EXPECT_STREQ("SIXTEEN_LETTERS_", name);
    expectApplied();
}

TEST_F(FlowChannelReply, TakesOverANameOfAnyBytes)
{
    EXPECT_RC(0, readBody(replyBody(hex("00FF20257300000000000000000041FE 7FFFFFFF 00000000"))));

    EXPECT_EQ(toHex(hex("00FF20257300000000000000000041FE")), toHex(channel.name()));
    EXPECT_EQ(0x7FFFFFFF, channel.token->ccsid.load());
    expectApplied();
}

TEST_F(FlowChannelReply, ChangesNothingWithoutAChannelInTheReply)
{
    EXPECT_RC(0, readBody(hex("00000001 00000000 00000000 00000000 20202020 00000000 00 00")));

    EXPECT_EQ((Names{"A 1 0 6161", "B 1 0 6262", "C 1 0 6363"}), channel.contents());
    EXPECT_EQ(819, channel.token->ccsid.load());
    expectApplied();
}

TEST_F(FlowChannelReply, TakesAnyFlagButZeroForAChannel)
{
    for (int flag : {0x01, 0x7F, 0x80, 0xFF}) {
        SCOPED_TRACE(flag);
        Bytes body = replyBody(channelSection("CHANNEL", flag, 0, Bytes()));
        body[channelOffset - 1] = static_cast<unsigned char>(flag);

        EXPECT_RC(0, readBody(body));

        EXPECT_EQ(flag, channel.token->ccsid.load());
        expectApplied();
    }
}

TEST_F(FlowChannelReply, ReadsTheChannelBehindACommarea)
{
    char area[4] = {};
    request.commarea = area;

    EXPECT_RC(0, readBody(hex("00000001 00000000 00000000 00000000 20202020 00000004 FF 00 00000003"
                              "414243 FF") +
                          channelSection("CHANNEL", 37, 1, deleted("B"))));

    EXPECT_EQ("41424300", toHex(Bytes(area, area + 4)));
    EXPECT_EQ("A C", channel.names());
    expectApplied();
}

TEST_F(FlowChannelReply, ReadsTheChannelOfATransactionProgram)
{
    Bytes body = replyBody(channelSection("CHANNEL", 37, 1, deleted("B")));
    body[3] = 12;

    EXPECT_RC(0, readBody(body));

    EXPECT_EQ("A C", channel.names());
    expectApplied();
}

TEST_F(FlowChannelReply, AppliesTheChannelOfAFailedProgram)
{
    Bytes body = hex("00000001 00000000 00000000 FFFFFFF9 41424344 00000000 00 FF") +
                 channelSection("CHANNEL", 37, 1, deleted("B"));

    EXPECT_RC(0, readBody(body));

    EXPECT_EQ(-7, request.vornRc);
    EXPECT_EQ("A C", channel.names());
    expectApplied();
}

// ---- Added ----

TEST_F(FlowChannelReply, PutsAnAddedContainerFirst)
{
    EXPECT_RC(0, read(added("NEW", 1, 0, text("data")), 1));

    EXPECT_EQ((Names{"NEW 1 0 64617461", "A 1 0 6161", "B 1 0 6262", "C 1 0 6363"}),
              channel.contents());
    EXPECT_EQ(4, channel.token->numContainers.load());
    expectApplied();
}

TEST_F(FlowChannelReply, PutsTheLastAddedContainerFirst)
{
    EXPECT_RC(0, read(added("N1", 1, 0, text("1")) + added("N2", 1, 0, text("2")), 2));

    EXPECT_EQ("N2 N1 A B C", channel.names());
    expectApplied();
}

TEST_F(FlowChannelReply, AddsToAnEmptyChannel)
{
    LocalChannel empty("EMPTY", -1, {});
    Bytes body = replyBody(channelSection("EMPTY", 819, 1, added("NEW", 2, 1208, text("data"))));
    request.channel = empty.token;
    bindForReading(body.size());
    theirs.send(body);

    EXPECT_RC(0, clapiReadECIResponse(&sockBuffer, &request));

    EXPECT_EQ((Names{"NEW 2 1208 64617461"}), empty.contents());
    EXPECT_EQ(1, empty.token->numContainers.load());
    empty.expectConsistent();
}

TEST_F(FlowChannelReply, AddsAnEmptyContainer)
{
    EXPECT_RC(0, read(added("EMPTY", 1, 0, Bytes()), 1));

    ASSERT_EQ("EMPTY A B C", channel.names());
    EXPECT_EQ(nullptr, at(0)->dataPtr);
    EXPECT_EQ(0U, at(0)->dataLength);
    expectApplied();
}

TEST_F(FlowChannelReply, AddsAContainerOfANameThatIsThere)
{
    EXPECT_RC(0, read(added("B", 1, 0, text("second")), 1));

    EXPECT_EQ((Names{"B 1 0 7365636F 6E64", "A 1 0 6161", "B 1 0 6262", "C 1 0 6363"}),
              channel.contents());
    EXPECT_EQ(4, channel.token->numContainers.load());
    expectApplied();
}

TEST_F(FlowChannelReply, AddsAContainerWithANameOfSixteenBytes)
{
    EXPECT_RC(0, read(added("SIXTEEN_LETTERS_", 2, 37, text("x")), 1));

    EXPECT_EQ(0, std::memcmp("SIXTEEN_LETTERS_", at(0)->name, 16));
    EXPECT_EQ("QPXCONTA", std::string(at(0)->eyecatcher, 8));
    ECI_CONTAINER_INFO info;
    EXPECT_RC(0, ECI_getContainerInfo(channel.token, "SIXTEEN_LETTERS_", &info));
    EXPECT_EQ(37, int(info.ccsid));
    EXPECT_EQ(2, int(info.type));
    expectApplied();
}

TEST_F(FlowChannelReply, KeepsTheTypeThatTheReplyGives)
{
    for (int type : {0, 1, 2, 3, 127}) {
        SCOPED_TRACE(type);
        EXPECT_RC(0, read(added("TYPED", type, 0, text("x")), 1));
        EXPECT_EQ(type, at(0)->type);
        expectApplied();
    }
}

TEST_F(FlowChannelReply, TakesEveryTypeThatAByteHolds)
{
    TraceFile trace(2);
    EXPECT_RC(0, read(added("TYPED", 0xFF, 0, text("x")) + added("TYPED", 0x80, 0, text("y")), 2));
    EXPECT_EQ("TYPED TYPED A B C", channel.names());
    EXPECT_EQ(2, trace.timesWroteText("\"TYPED\" ADDED in VORN, type=UNKNOWN, CCSID=0"));
    expectApplied();
}

TEST_F(FlowChannelReply, LeavesBrowsingWhereItStandsWhenItAdds)
{
    browseAt(1);
    const ECI_Container_t* before = cursor();
    EXPECT_RC(0, read(added("NEW", 1, 0, text("x")), 1));
    EXPECT_EQ(before, cursor());
    expectApplied();
}

TEST_F(FlowChannelReply, AddsAContainerLargerThanItsBuffer)
{
    Bytes data = countedBytes(100000);
    Bytes body = replyBody(
        channelSection("CHANNEL", 819, 2, added("BIG", 1, 0, data) + deleted("B")));
    request.channel = channel.token;
    bindForReading(body.size());
    auto sender = callInThread([&] {
        theirs.send(body);
        return 0;
    });

    EXPECT_RC(0, clapiReadECIResponse(&sockBuffer, &request));

    sender.get();
    EXPECT_EQ("BIG A C", channel.names());
    EXPECT_TRUE(data == LocalChannel::dataOf(at(0)));
    expectApplied();
}

class FlowChannelReplySize : public FlowChannelReply, public ::testing::WithParamInterface<int> {};

TEST_P(FlowChannelReplySize, AddsAndModifiesContainersOfAnySize)
{
    auto size = static_cast<std::size_t>(GetParam());
    Bytes data = countedBytes(size);
    Bytes other(size, 0x5A);
    Bytes body = replyBody(channelSection("CHANNEL", 819, 3,
                                          added("NEW", 1, 0, data) + modified("A", 1, 0, other) +
                                              added("TAIL", 1, 0, text("tail"))));
    request.channel = channel.token;
    bindForReading(body.size());
    auto sender = callInThread([&] {
        theirs.send(body);
        return 0;
    });

    EXPECT_RC(0, clapiReadECIResponse(&sockBuffer, &request));

    sender.get();
    EXPECT_EQ("TAIL NEW A B C", channel.names());
    EXPECT_TRUE(text("tail") == LocalChannel::dataOf(at(0)));
    EXPECT_TRUE(data == LocalChannel::dataOf(at(1)));
    EXPECT_TRUE(other == LocalChannel::dataOf(at(2)));
    expectApplied();
}

INSTANTIATE_TEST_SUITE_P(, FlowChannelReplySize,
                         ::testing::Values(0, 1, 32919, 32920, 32999, 33000, 33001, 8388608));

// ---- Deleted ----

TEST_F(FlowChannelReply, DeletesTheFirstContainer)
{
    EXPECT_RC(0, read(deleted("A"), 1));
    EXPECT_EQ((Names{"B 1 0 6262", "C 1 0 6363"}), channel.contents());
    EXPECT_EQ(2, channel.token->numContainers.load());
    expectApplied();
}

TEST_F(FlowChannelReply, DeletesAContainerInTheMiddle)
{
    EXPECT_RC(0, read(deleted("B"), 1));
    EXPECT_EQ((Names{"A 1 0 6161", "C 1 0 6363"}), channel.contents());
    EXPECT_EQ(2, channel.token->numContainers.load());
    expectApplied();
}

TEST_F(FlowChannelReply, DeletesTheLastContainer)
{
    EXPECT_RC(0, read(deleted("C"), 1));
    EXPECT_EQ((Names{"A 1 0 6161", "B 1 0 6262"}), channel.contents());
    EXPECT_EQ(2, channel.token->numContainers.load());
    expectApplied();
}

TEST_F(FlowChannelReply, DeletesEveryContainer)
{
    EXPECT_RC(0, read(deleted("B") + deleted("A") + deleted("C"), 3));
    EXPECT_EQ("", channel.names());
    EXPECT_EQ(0, channel.token->numContainers.load());
    EXPECT_EQ(nullptr, channel.token->firstCont);
    expectApplied();
}

TEST_F(FlowChannelReply, DeletesTheFirstOfTwoContainersOfOneName)
{
    EXPECT_RC(0, read(added("B", 1, 0, text("second")) + deleted("B"), 2));
    EXPECT_EQ((Names{"A 1 0 6161", "B 1 0 6262", "C 1 0 6363"}), channel.contents());
    expectApplied();
}

TEST_F(FlowChannelReply, DeletesAContainerThatTheSameReplyAdded)
{
    EXPECT_RC(0, read(added("NEW", 1, 0, text("x")) + deleted("NEW"), 2));
    EXPECT_EQ("A B C", channel.names());
    expectApplied();
}

TEST_F(FlowChannelReply, TellsNamesApartByTheirSixteenthByte)
{
    EXPECT_RC(0, read(added("SIXTEEN_LETTERS1", 1, 0, text("1")) +
                          added("SIXTEEN_LETTERS2", 1, 0, text("2")) + deleted("SIXTEEN_LETTERS1"),
                      3));
    EXPECT_EQ("SIXTEEN_LETTERS2 A B C", channel.names());
    expectApplied();
}

TEST_F(FlowChannelReply, TellsNamesApartByTheirCase)
{
    EXPECT_RC(-9, read(deleted("b"), 1));
    EXPECT_EQ("A B C", channel.names());
    channel.expectConsistent();
}

TEST_F(FlowChannelReply, TellsNamesApartByTheirPadding)
{
    EXPECT_RC(-9, read(deleted("B               "), 1));
    EXPECT_EQ("A B C", channel.names());
    channel.expectConsistent();
}

TEST_F(FlowChannelReply, TakesANameForNoOtherThatItBegins)
{
    EXPECT_RC(-9, read(added("LONGER", 1, 0, text("x")) + deleted("LONG"), 2));
    EXPECT_EQ("LONGER A B C", channel.names());
    channel.expectConsistent();
}

TEST_F(FlowChannelReply, LooksAtNoLengthOfADeletedContainer)
{
    EXPECT_RC(0, read(changeOf("B", 2, 1, 0, 0x7FFFFFFF) + changeOf("A", 2, 1, 0, -1) +
                          added("NEW", 1, 0, text("x")),
                      3));
    EXPECT_EQ("NEW C", channel.names());
    expectApplied();
}

// ---- Deleted while it is browsed ----

TEST_F(FlowChannelReply, BrowsesFromTheStartWhenTheFirstContainerIsDeletedUnderTheCursor)
{
    browseAt(0);
    TraceFile trace(4);
    EXPECT_RC(0, read(deleted("A"), 1));
    EXPECT_EQ(nullptr, cursor());
    EXPECT_TRUE(trace.wrote(3229, "DEBUG",
                            "clapi_socketcomms.deleteContainer Current container is now NULL"));
    EXPECT_EQ(0, trace.timesWrote(3230));
    ECI_CONTAINER_INFO info;
    EXPECT_RC(0, ECI_getNextContainer(channel.token, &info));
    EXPECT_STREQ("B", info.name);
    expectApplied();
}

TEST_F(FlowChannelReply, BrowsesOnWhenAContainerInTheMiddleIsDeletedUnderTheCursor)
{
    browseAt(1);
    TraceFile trace(4);
    EXPECT_RC(0, read(deleted("B"), 1));
    EXPECT_EQ(at(0), cursor());
    EXPECT_TRUE(trace.wrote(3230, "DEBUG",
                            "clapi_socketcomms.deleteContainer Current container is now \"A\""));
    EXPECT_EQ(0, trace.timesWrote(3229));
    ECI_CONTAINER_INFO info;
    EXPECT_RC(0, ECI_getNextContainer(channel.token, &info));
    EXPECT_STREQ("C", info.name);
    expectApplied();
}

TEST_F(FlowChannelReply, BrowsesToTheEndWhenTheLastContainerIsDeletedUnderTheCursor)
{
    browseAt(2);
    TraceFile trace(4);
    EXPECT_RC(0, read(deleted("C"), 1));
    EXPECT_EQ(at(1), cursor());
    EXPECT_TRUE(trace.wrote(3230, "DEBUG",
                            "clapi_socketcomms.deleteContainer Current container is now \"B\""));
    ECI_CONTAINER_INFO info;
    EXPECT_RC(ECI_ERR_ENDOFCONTAINERS, ECI_getNextContainer(channel.token, &info));
    expectApplied();
}

TEST_F(FlowChannelReply, BrowsesAnEmptyChannelWhenTheOnlyContainersAreDeletedUnderTheCursor)
{
    browseAt(2);
    EXPECT_RC(0, read(deleted("C") + deleted("B") + deleted("A"), 3));
    EXPECT_EQ(nullptr, cursor());
    ECI_CONTAINER_INFO info;
    EXPECT_RC(ECI_ERR_ENDOFCONTAINERS, ECI_getNextContainer(channel.token, &info));
    expectApplied();
}

TEST_F(FlowChannelReply, LeavesBrowsingWhereItStandsWhenItDeletesAnotherContainer)
{
    browseAt(1);
    const ECI_Container_t* before = cursor();
    TraceFile trace(4);
    EXPECT_RC(0, read(deleted("A") + deleted("C"), 2));
    EXPECT_EQ(before, cursor());
    EXPECT_EQ(0, trace.timesWrote(3229) + trace.timesWrote(3230));
    expectApplied();
}

TEST_F(FlowChannelReply, SaysNothingOfBrowsingThatHasNotBegun)
{
    TraceFile trace(4);
    EXPECT_RC(0, read(deleted("A"), 1));
    EXPECT_EQ(nullptr, cursor());
    EXPECT_EQ(0, trace.timesWrote(3229) + trace.timesWrote(3230));
}

// ---- Modified ----

TEST_F(FlowChannelReply, ModifiesDataOfTheSameLengthInPlace)
{
    char* before = at(1)->dataPtr;
    TraceFile trace(4);

    EXPECT_RC(0, read(modified("B", 1, 0, text("xy")), 1));

    EXPECT_EQ((Names{"A 1 0 6161", "B 1 0 7879", "C 1 0 6363"}), channel.contents());
    EXPECT_EQ(before, at(1)->dataPtr);
    EXPECT_EQ(0, trace.timesWrote(3234));
    expectApplied();
}

TEST_F(FlowChannelReply, NeedsNoMemoryForDataOfTheSameLength)
{
    Bytes body = replyBody(channelSection("CHANNEL", 819, 1, modified("B", 1, 0, text("xy"))));
    request.channel = channel.token;
    bindForReading(body.size());
    theirs.send(body);
    Fault noMemory = failEveryCall(Call::Malloc, ENOMEM);

    EXPECT_RC(0, clapiReadECIResponse(&sockBuffer, &request));

    EXPECT_EQ(0, noMemory.calls());
    EXPECT_EQ("A B C", channel.names());
    EXPECT_EQ(text("xy"), LocalChannel::dataOf(at(1)));
}

TEST_F(FlowChannelReply, ModifiesDataToBeLonger)
{
    std::string before = shown(at(1)->dataPtr);
    TraceFile trace(4);

    EXPECT_RC(0, read(modified("B", 1, 0, text("longer")), 1));

    EXPECT_EQ((Names{"A 1 0 6161", "B 1 0 6C6F6E67 6572", "C 1 0 6363"}), channel.contents());
    EXPECT_TRUE(trace.wrote(3234, "DEBUG",
                            "clapi_socketcomms.modifyContainer() Freeing 2 bytes of container data "
                            "(" +
                                before + ")"))
        << trace.text();
    expectApplied();
}

TEST_F(FlowChannelReply, ModifiesDataToBeShorter)
{
    EXPECT_RC(0, read(modified("C", 1, 0, text("x")), 1));
    EXPECT_EQ((Names{"A 1 0 6161", "B 1 0 6262", "C 1 0 78"}), channel.contents());
    expectApplied();
}

TEST_F(FlowChannelReply, ModifiesDataToNothing)
{
    TraceFile trace(4);
    EXPECT_RC(0, read(modified("A", 1, 0, Bytes()), 1));
    EXPECT_EQ((Names{"A 1 0 ", "B 1 0 6262", "C 1 0 6363"}), channel.contents());
    EXPECT_EQ(nullptr, at(0)->dataPtr);
    EXPECT_EQ(1, trace.timesWrote(3234));
    expectApplied();
}

TEST_F(FlowChannelReply, ModifiesNothingToData)
{
    ASSERT_RC(0, ECI_setContainerData(channel.token, "B", nullptr, 0));
    TraceFile trace(4);
    EXPECT_RC(0, read(modified("B", 1, 0, text("data")), 1));
    EXPECT_EQ((Names{"A 1 0 6161", "B 1 0 64617461", "C 1 0 6363"}), channel.contents());
    EXPECT_EQ(0, trace.timesWrote(3234)); // there was nothing to free
    expectApplied();
}

TEST_F(FlowChannelReply, ModifiesNothingToNothing)
{
    ASSERT_RC(0, ECI_setContainerData(channel.token, "B", nullptr, 0));
    EXPECT_RC(0, read(modified("B", 2, 37, Bytes()), 1));
    EXPECT_EQ((Names{"A 1 0 6161", "B 2 37 ", "C 1 0 6363"}), channel.contents());
    expectApplied();
}

TEST_F(FlowChannelReply, ModifiesTypeAndCodePage)
{
    EXPECT_RC(0,
              read(modified("B", 2, 1208, text("xy")) + modified("C", 2, 37, text("longer")), 2));
    EXPECT_EQ((Names{"A 1 0 6161", "B 2 1208 7879", "C 2 37 6C6F6E67 6572"}), channel.contents());
    expectApplied();
}

TEST_F(FlowChannelReply, ModifiesOneContainerTwice)
{
    EXPECT_RC(0, read(modified("B", 1, 0, text("longer")) + modified("B", 1, 0, text("z")), 2));
    EXPECT_EQ((Names{"A 1 0 6161", "B 1 0 7A", "C 1 0 6363"}), channel.contents());
    expectApplied();
}

TEST_F(FlowChannelReply, ModifiesTheFirstOfTwoContainersOfOneName)
{
    EXPECT_RC(0, read(added("B", 1, 0, text("2nd")) + modified("B", 1, 0, text("new")), 2));
    EXPECT_EQ((Names{"B 1 0 6E6577", "A 1 0 6161", "B 1 0 6262", "C 1 0 6363"}),
              channel.contents());
    expectApplied();
}

TEST_F(FlowChannelReply, LeavesBrowsingWhereItStandsWhenItModifies)
{
    browseAt(1);
    const ECI_Container_t* before = cursor();
    EXPECT_RC(0, read(modified("B", 1, 0, text("longer")), 1));
    EXPECT_EQ(before, cursor());
    EXPECT_EQ(at(1), cursor());
    ECI_CONTAINER_INFO info;
    EXPECT_RC(0, ECI_getNextContainer(channel.token, &info));
    EXPECT_STREQ("C", info.name);
    expectApplied();
}

// ---- Unchanged, and codes that nobody knows ----

TEST_F(FlowChannelReply, ChangesNothingOfAnUnchangedContainer)
{
    EXPECT_RC(0, read(changeOf("B", 4, 2, 1208, 100) + deleted("A"), 2));
    EXPECT_EQ((Names{"B 1 0 6262", "C 1 0 6363"}), channel.contents());
    expectApplied();
}

TEST_F(FlowChannelReply, DoesNotLookForAnUnchangedContainer)
{
    TraceFile trace(2);
    EXPECT_RC(0, read(unchanged("NOBODY"), 1));
    EXPECT_EQ("A B C", channel.names());
    EXPECT_TRUE(trace.wrote(3222, "EVENT",
                            "clapi_socketcomms.readChannel() Container \"NOBODY\" is UNCHANGED"));
    expectApplied();
}

TEST_F(FlowChannelReply, LooksAtNoLengthOfAnUnchangedContainer)
{
    EXPECT_RC(
        0, read(changeOf("A", 4, 1, 0, -1) + changeOf("B", 4, 1, 0, 0x7FFFFFFF) + deleted("C"), 3));
    EXPECT_EQ("A B", channel.names());
    expectApplied();
}

TEST_F(FlowChannelReply, SkipsCodesThatNobodyKnows)
{
    for (int code : {0, 5, 6, 127, 128, 254, 255}) {
        SCOPED_TRACE(code);
        TraceFile trace(2);

        EXPECT_RC(0, read(changeOf("A", code, 1, 0, 5) + unchanged("B"), 2));

        EXPECT_EQ((Names{"A 1 0 6161", "B 1 0 6262", "C 1 0 6363"}), channel.contents());
        EXPECT_EQ((std::vector<int>{3222}), pointsOf(trace));
        expectApplied();
    }
}

TEST_F(FlowChannelReply, LooksAtNoLengthBehindACodeThatNobodyKnows)
{
    EXPECT_RC(0, read(changeOf("A", 9, 1, 0, 0x7FFFFFFF) + deleted("B"), 2));
    EXPECT_EQ("A C", channel.names());
    expectApplied();
}

TEST_F(FlowChannelReply, TakesAnyTwoBytesBehindTheCode)
{
    Bytes record = added("NEW", 1, 0, text("x"));
    record[17] = 0xFF;
    record[18] = 0x01;
    EXPECT_RC(0, read(record, 1));
    EXPECT_EQ("NEW A B C", channel.names());
    expectApplied();
}

// ---- Failures ----

TEST_F(FlowChannelReply, EndsAtTheDeletionOfAContainerThatIsNotThere)
{
    TraceFile trace(1);

    EXPECT_RC(-9, read(added("BEFORE", 1, 0, text("x")) + deleted("NOBODY") + deleted("A") +
                           added("AFTER", 1, 0, text("y")),
                       4));

    EXPECT_EQ("BEFORE A B C", channel.names());
    EXPECT_TRUE(trace.wrote(3228, "*EXC*",
                            "clapi_socketcomms.deleteContainer() Container \"NOBODY\" not found in "
                            "channel \"CHANNEL\""))
        << trace.text();
    channel.expectConsistent();
}

TEST_F(FlowChannelReply, EndsAtTheModificationOfAContainerThatIsNotThere)
{
    TraceFile trace(1);

    EXPECT_RC(-9, read(deleted("A") + modified("NOBODY", 1, 0, text("data")) + deleted("B"), 3));

    EXPECT_EQ("B C", channel.names());
    EXPECT_TRUE(trace.wrote(3233, "*EXC*",
                            "clapi_socketcomms.modifyContainer() Container \"NOBODY\" not found in "
                            "channel \"CHANNEL\""))
        << trace.text();
    channel.expectConsistent();
}

TEST_F(FlowChannelReply, NamesTheChannelThatTheReplyNamed)
{
    TraceFile trace(1);
    EXPECT_RC(-9, readBody(replyBody(
                      channelSection("SIXTEEN_LETTERS_", 819, 1, deleted("CONTAINER_OF_16_")))));
    EXPECT_TRUE(trace.wrote(3228, "*EXC*",
                            "clapi_socketcomms.deleteContainer() Container \"CONTAINER_OF_16_\" "
                            "not found in channel \"SIXTEEN_LETTERS_\""));
}

TEST_F(FlowChannelReply, DeletesNothingOfAnEmptyChannel)
{
    EXPECT_RC(0, read(deleted("A") + deleted("B") + deleted("C"), 3));
    EXPECT_RC(-9, read(deleted("A"), 1));
    EXPECT_EQ("", channel.names());
    channel.expectConsistent();
}

TEST_F(FlowChannelReply, ReturnsTheFailureOfTheChannelWithTheRestOfTheReplyRead)
{
    Bytes body = hex("00000001 00000022 00000000 FFFFFFE0 41424344 00000000 00 FF") +
                 channelSection("CHANNEL", 37, 1, deleted("NOBODY"));
    EXPECT_RC(-9, readBody(body));
    EXPECT_EQ(0x22, request.luwToken);
    EXPECT_EQ(-32, request.vornRc);
    EXPECT_EQ("ABCD", std::string(request.abendCode, 4));
}

// ---- In pieces ----

TEST_F(FlowChannelReply, TakesAReplyInReceivesOfEverySize)
{
    Bytes body = replyBody(channelSection("RENAMED", 37, 4,
                                          added("NEW", 2, 1208, text("data")) + deleted("B") +
                                              modified("A", 1, 0, text("longer")) +
                                              unchanged("C")));
    for (std::size_t piece = 1; piece <= body.size(); ++piece) {
        SCOPED_TRACE(piece);
        LocalChannel fresh("CHANNEL", 819,
                           {bits("A", text("aa")), bits("B", text("bb")), bits("C", text("cc"))});
        request.channel = fresh.token;
        bindForReading(body.size());
        theirs.send(body);
        Fault narrow = limitLength(Call::Recv, piece);

        EXPECT_RC(0, clapiReadECIResponse(&sockBuffer, &request));

        EXPECT_EQ(piece<body.size(), narrow.hits()> 0);
        EXPECT_EQ((Names{"NEW 2 1208 64617461", "A 1 0 6C6F6E67 6572", "C 1 0 6363"}),
                  fresh.contents());
        EXPECT_EQ(37, fresh.token->ccsid.load());
        EXPECT_EQ(0U, bytesLeft(&sockBuffer));
        fresh.expectConsistent();
    }
}

TEST_F(FlowChannelReply, TakesAReplyThatArrivesInPiecesOfEverySize)
{
    Bytes body = replyBody(channelSection("RENAMED", 37, 3,
                                          added("NEW", 2, 1208, text("data")) + deleted("B") +
                                              modified("A", 1, 0, text("longer"))));
    for (std::size_t piece = 1; piece <= body.size(); ++piece) {
        SCOPED_TRACE(piece);
        LocalChannel fresh("CHANNEL", 819,
                           {bits("A", text("aa")), bits("B", text("bb")), bits("C", text("cc"))});
        request.channel = fresh.token;
        bindForReading(body.size());
        auto sender = sendApart(body, piece);

        EXPECT_RC(0, clapiReadECIResponse(&sockBuffer, &request));

        EXPECT_TRUE(sender.get());
        EXPECT_EQ((Names{"NEW 2 1208 64617461", "A 1 0 6C6F6E67 6572", "C 1 0 6363"}),
                  fresh.contents());
        fresh.expectConsistent();
    }
}

TEST_F(FlowChannelReply, TakesReceivesThatSignalsInterrupt)
{
    Bytes body = replyBody(
        channelSection("CHANNEL", 819, 1, added("BIG", 1, 0, countedBytes(40000))));
    for (int nth = 1; nth <= 5; ++nth) {
        SCOPED_TRACE(nth);
        LocalChannel fresh("CHANNEL", 819, {});
        request.channel = fresh.token;
        bindForReading(body.size());
        auto sender = callInThread([&] {
            theirs.send(body);
            return 0;
        });
        Fault interrupted = failCall(Call::Recv, nth, EINTR);
        Fault narrow = limitLength(Call::Recv, 9000);

        EXPECT_RC(0, clapiReadECIResponse(&sockBuffer, &request));

        sender.get();
        EXPECT_EQ(1, interrupted.hits());
        ASSERT_EQ("BIG", fresh.names());
        EXPECT_TRUE(countedBytes(40000) == LocalChannel::dataOf(fresh.at(0)));
    }
}

// ---- The trace ----

class FlowChannelReplyTrace : public FlowChannelReply {
protected:
    // One change of every kind.
    void readAll()
    {
        EXPECT_RC(0, read(added("SIXTEEN_LETTERS_", 2, 1208, text("data")) + deleted("B") +
                              modified("A", 1, 0, text("longer")) + unchanged("C"),
                          4));
    }
};

TEST_F(FlowChannelReplyTrace, SaysNothingAtLevelOne)
{
    TraceFile trace(1);
    readAll();
    EXPECT_EQ("", trace.text());
}

TEST_F(FlowChannelReplyTrace, TellsTheChangesAtLevelTwo)
{
    TraceFile trace(2);
    readAll();
    EXPECT_EQ((std::vector<int>{3219, 3220, 3221, 3222}), pointsOf(trace));
    EXPECT_EQ((std::vector<std::string>{"EVENT", "EVENT", "EVENT", "EVENT"}), typesOf(trace));
    EXPECT_EQ((Names{"clapi_socketcomms.readChannel() Container \"SIXTEEN_LETTERS_\" ADDED in "
                     "VORN, type=ECI_CHAR, CCSID=1208, data length=4",
                     "clapi_socketcomms.readChannel() Container \"B\" DELETED in VORN",
                     "clapi_socketcomms.readChannel() Container \"A\" MODIFIED in VORN, new "
                     "length=6",
                     "clapi_socketcomms.readChannel() Container \"C\" is UNCHANGED"}),
              trace.messages());
}

TEST_F(FlowChannelReplyTrace, TellsABinaryContainerByItsType)
{
    TraceFile trace(2);
    EXPECT_RC(0, read(added("BITS", 1, 0, Bytes()), 1));
    EXPECT_EQ((Names{"clapi_socketcomms.readChannel() Container \"BITS\" ADDED in VORN, "
                     "type=ECI_BIT, CCSID=0, data length=0"}),
              trace.messages(3219));
}

TEST_F(FlowChannelReplyTrace, TellsItsFunctionsAtLevelThree)
{
    TraceFile trace(3);
    readAll();
    std::vector<int> points;
    std::string modifyExit;
    for (const TraceRecord& record : trace.records()) {
        if (record.point < 3200) continue;
        // The number of this line is of no concern.
        bool isModifyExit = record.type == "EXIT" &&
                            contains(record.message, "clapi_socketcomms.modifyContainer()");
        points.push_back(isModifyExit ? 0 : record.point);
    }
    EXPECT_EQ((std::vector<int>{3206, 3217, 3219, 3224, 3226, 3220, 3227, 3231, 3221, 3232, 0, 3222,
                                3223, 3207}),
              points);
    EXPECT_TRUE(trace.wrote(3217, "ENTRY", "clapi_socketcomms.readChannel(<any>"));
    EXPECT_TRUE(trace.wrote(3223, "EXIT", "clapi_socketcomms.readChannel() rc=0"));
    EXPECT_TRUE(trace.wrote(3224, "ENTRY", "clapi_socketcomms.addContainer(<any>"));
    EXPECT_TRUE(trace.wrote(3227, "ENTRY", "clapi_socketcomms.deleteContainer(<any>"));
    EXPECT_TRUE(trace.wrote(3232, "ENTRY", "clapi_socketcomms.modifyContainer(<any>"));
}

TEST_F(FlowChannelReplyTrace, TellsAFailureWhereItLeaves)
{
    TraceFile trace(3);
    EXPECT_RC(-9, read(deleted("NOBODY"), 1));
    EXPECT_TRUE(trace.wrote(3223, "EXIT", "clapi_socketcomms.readChannel() rc=-9"));
    EXPECT_TRUE(trace.wrote(3207, "EXIT", "clapi_socketcomms.clapiReadECIResponse() rc=-9"));
    EXPECT_TRUE(wroteInOrder(trace, {3206, 3217, 3220, 3227, 3228, 3231, 3223, 3207}));
}

TEST_F(FlowChannelReplyTrace, TellsTheNumberOfRecordsAtLevelFour)
{
    TraceFile trace(4);
    EXPECT_RC(0, readBody(replyBody(channelSection("SIXTEEN_LETTERS_", 37, 1, unchanged("A")))));
    EXPECT_EQ((Names{"clapi_socketcomms.readChannel() Return flow contains 1 containers in channel "
                     "\"SIXTEEN_LETTERS_\""}),
              trace.messages(3218));
}

TEST_F(FlowChannelReplyTrace, DumpsAddedAndModifiedDataAtLevelFour)
{
    TraceFile trace(4);
    readAll();
    int dumps = 0;
    for (const TraceRecord& record : trace.records()) {
        if (record.point != 3248 && record.point != 3249) continue;
        dumps += 1;
        EXPECT_EQ("DATA", record.type);
        bool isAdded = record.point == 3248;
        std::string data = shown(at(isAdded ? 0 : 1)->dataPtr);
        EXPECT_EQ(isAdded
                      ? "clapi_socketcomms.addContainer() data=" + data + " len=4 stopword=00000000"
                      : "clapi_socketcomms.modifyContainer() data=" + data +
                            " len=6 stopword=00000000",
                  record.message);
        EXPECT_EQ("Data truncation size=128, offset=0\n" + data +
                      (isAdded ? ": 64617461                            : data\n"
                               : ": 6C6F6E67 6572                       : longer\n"),
                  record.body);
    }
    EXPECT_EQ(2, dumps) << trace.text();
}

TEST_F(FlowChannelReplyTrace, DumpsNothingOfEmptyContainers)
{
    TraceFile trace(4);
    EXPECT_RC(0, read(added("NEW", 1, 0, Bytes()) + modified("A", 1, 0, Bytes()), 2));
    int lines = 0;
    for (const TraceRecord& record : trace.records()) {
        if (record.point != 3248 && record.point != 3249) continue;
        lines += 1;
        EXPECT_TRUE(contains(record.message, "Container() data=(nil) len=0 stopword=00000000"))
            << record.message;
        EXPECT_EQ("", record.body);
    }
    EXPECT_EQ(2, lines);
}

// The name of the channel and that of the record are read, and nothing where there is no data.
TEST_F(FlowChannelReplyTrace, ReadsNoDataOfARecordWithoutAny)
{
    ASSERT_RC(0, ECI_setContainerData(channel.token, "B", nullptr, 0));
    for (const char* name : {"A", "B"}) { // one with data so far, and one without
        SCOPED_TRACE(name);
        TraceFile trace(3);
        EXPECT_RC(0, read(modified(name, 1, 0, Bytes()), 1));
        EXPECT_EQ(4, trace.timesWrote(2530)); // before them the abend code and the COMMAREA
    }
}

TEST_F(FlowChannelReplyTrace, ShowsNamesAsTheyAre)
{
    TraceFile trace(4);
    EXPECT_RC(-9, readBody(replyBody(channelSection(
                      "%s%n%d", 37, 2, added("%n%s", 1, 0, text("x")) + deleted("%x%n%d")))));
    EXPECT_TRUE(trace.wroteText("Container \"%n%s\" ADDED in VORN"));
    EXPECT_TRUE(trace.wroteText("Container \"%x%n%d\" not found in channel \"%s%n%d\"\n"));
}

} // namespace
