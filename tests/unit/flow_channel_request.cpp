// Channels in ECI requests as they go out.
#include "flow_channel_fixture.h"

using namespace support;
using namespace unit;

namespace {

// What a call of nothing but names sends before the channel flag, and behind the channel.
const char* const bodyStart = "00000001 00000000 00000000 00000000 00"
                              "00000008 50524F4431202020"
                              "00000000000000000000000000000000"
                              "00000000"
                              "504159524F4C4C20 50415931"
                              "00000000"
                              "00000000 00 00";
const char* const bodyEnd = "0000 00 FFFFFFFF 00000001";

// Bytes before the channel flag, of the header and of the body.
constexpr std::size_t headerSize = 32;
constexpr std::size_t flagOffset = 71;
constexpr std::size_t endSize = 11;

class FlowChannelRequest : public SocketBufferTest {
protected:
    FlowChannelRequest()
    {
        std::memset(&request, 0, sizeof request);
        request.callType = 1;
        std::memcpy(request.server, "PROD1   ", 8);
        std::memcpy(request.program, "PAYROLL ", 8);
        std::memcpy(request.transid, "PAY1", 4);
        request.xid.format = -1;
        request.qpxCorrelator = 1;
    }

    int flow(const LocalChannel& channel)
    {
        request.channel = channel.token;
        return clapiFlowECIRequest(ours.fd(), &header, &request);
    }

    // Sends the channel and expects these bytes of it, flag and section, in a body of this length.
    void expectChannel(const LocalChannel& channel, int length, const Bytes& expected)
    {
        EXPECT_RC(0, flow(channel));
        EXPECT_EQ(length, header.datalength);
        EXPECT_EQ(toHex(hex("47617465 10A01000 00000001 00000011 00000000 00000003 454349 00") +
                        be32(length) + hex(bodyStart) + expected + hex(bodyEnd)),
                  sentHex());
    }

    // The channel flag and section out of a whole message of a call of nothing but names.
    static Bytes channelOf(const Bytes& message)
    {
        return slice(message, headerSize + flagOffset,
                     message.size() - headerSize - flagOffset - endSize);
    }

    GatewayRequest header = requestHeader("ECI");
    ECIRequest request;
};

// ---- The section ----

TEST_F(FlowChannelRequest, SendsAChannelWithoutContainers)
{
    LocalChannel channel("CHANNEL", 819, {});
    expectChannel(channel, 107, hex("FF 4348414E4E454C000000000000000000 00000333 00000000"));
}

TEST_F(FlowChannelRequest, SendsAChannelOfOneContainer)
{
    LocalChannel channel("CHANNEL", 819, {bits("ORDER", hex("0102FF"))});
    expectChannel(channel, 138,
                  hex("FF 4348414E4E454C000000000000000000 00000333 00000001"
                      "4F524445520000000000000000000000 01 0000 01 00000000 00000003 0102FF"));
}

TEST_F(FlowChannelRequest, SendsTenBytesAndNoneIn90BytesOfChannel)
{
    LocalChannel channel("CH", 819, {bits("A", text("0123456789")), bits("B", Bytes())});
    expectChannel(channel, 83 + 90,
                  hex("FF 43480000000000000000000000000000 00000333 00000002"
                      "41000000000000000000000000000000 01 0000 01 00000000 0000000A"
                      "30313233343536373839"
                      "42000000000000000000000000000000 01 0000 01 00000000 00000000"));
}

TEST_F(FlowChannelRequest, SendsThreeContainersFromTheFirstOn)
{
    LocalChannel channel(
        "CH", 1208,
        {chars("NEW", 1208, text("n")), bits("MIDDLE", text("mm")), chars("OLD", 37, text("ooo"))});
    expectChannel(channel, 83 + 24 + 3 * 28 + 6,
                  hex("FF 43480000000000000000000000000000 000004B8 00000003"
                      "4E455700000000000000000000000000 01 0000 02 000004B8 00000001 6E"
                      "4D4944444C4500000000000000000000 01 0000 01 00000000 00000002 6D6D"
                      "4F4C4400000000000000000000000000 01 0000 02 00000025 00000003 6F6F6F"));
}

TEST_F(FlowChannelRequest, SendsNamesOfSixteenCharactersWithoutATerminator)
{
    LocalChannel channel("CHANNEL890123456", 819, {bits("CONTAINER0123456", text("x"))});
    expectChannel(channel, 136,
                  hex("FF 4348414E4E454C383930313233343536 00000333 00000001"
                      "434F4E5441494E455230313233343536 01 0000 01 00000000 00000001 78"));
}

TEST_F(FlowChannelRequest, SendsNamesOfOneCharacter)
{
    LocalChannel channel("c", 819, {bits("_", text("x"))});
    expectChannel(channel, 136,
                  hex("FF 63000000000000000000000000000000 00000333 00000001"
                      "5F000000000000000000000000000000 01 0000 01 00000000 00000001 78"));
}

TEST_F(FlowChannelRequest, SendsTypeAndCodePageOfCharacters)
{
    LocalChannel channel("CH", 0x12345678, {chars("TEXT", 0x0A0B0C0D, text("x"))});
    expectChannel(channel, 136,
                  hex("FF 43480000000000000000000000000000 12345678 00000001"
                      "54455854000000000000000000000000 01 0000 02 0A0B0C0D 00000001 78"));
}

TEST_F(FlowChannelRequest, SendsAnUnknownCodePageAsItIs)
{
    LocalChannel channel("CH", -1, {bits("BITS", text("x"))});
    expectChannel(channel, 136,
                  hex("FF 43480000000000000000000000000000 FFFFFFFF 00000001"
                      "42495453000000000000000000000000 01 0000 01 00000000 00000001 78"));
}

TEST_F(FlowChannelRequest, SendsZeroBytesAndEveryOtherByteOfData)
{
    Bytes every;
    for (int value = 0; value < 256; ++value) every.push_back(static_cast<unsigned char>(value));
    LocalChannel channel("CH", 819, {bits("EVERY", every)});
    expectChannel(channel, 83 + 24 + 28 + 256,
                  hex("FF 43480000000000000000000000000000 00000333 00000001"
                      "45564552590000000000000000000000 01 0000 01 00000000 00000100") +
                      every);
}

TEST_F(FlowChannelRequest, SendsTheNewDataOfAContainer)
{
    LocalChannel channel("CH", 819, {bits("A", text("old"))});
    ASSERT_RC(0, ECI_setContainerData(channel.token, "A", "newer", 5));
    expectChannel(channel, 83 + 24 + 28 + 5,
                  hex("FF 43480000000000000000000000000000 00000333 00000001"
                      "41000000000000000000000000000000 01 0000 01 00000000 00000005 6E65776572"));
}

TEST_F(FlowChannelRequest, SendsNoContainerThatWasDeleted)
{
    LocalChannel channel("CH", 819, {bits("A", text("a")), bits("B", text("b"))});
    ASSERT_RC(0, ECI_deleteContainer(channel.token, "A"));
    expectChannel(channel, 136,
                  hex("FF 43480000000000000000000000000000 00000333 00000001"
                      "42000000000000000000000000000000 01 0000 01 00000000 00000001 62"));
}

// ---- Its place in the request ----

TEST_F(FlowChannelRequest, SendsNoSectionWithoutAChannel)
{
    EXPECT_RC(0, clapiFlowECIRequest(ours.fd(), &header, &request));
    EXPECT_EQ(83, header.datalength);
    EXPECT_EQ(toHex(hex("00") + hex(bodyEnd)), toHex(slice(sent(), headerSize + flagOffset, 12)));
}

TEST_F(FlowChannelRequest, SendsACommareaBesideTheChannel)
{
    LocalChannel channel("CH", 819, {bits("A", text("a"))});
    char commarea[] = "HELLO";
    request.commarea = commarea;
    request.commarealength = 5;

    EXPECT_RC(0, flow(channel));

    EXPECT_EQ(141, header.datalength);
    EXPECT_EQ(toHex(hex("00000005 00 00 48454C4C4F FF 43480000000000000000000000000000 00000333"
                        "00000001 41000000000000000000000000000000 01 0000 01 00000000 00000001 61"
                        "0000 00 FFFFFFFF 00000001")),
              toHex(slice(sent(), headerSize + 65, 141 - 65)));
}

TEST_F(FlowChannelRequest, SendsAChannelToATransactionProgram)
{
    LocalChannel channel("CH", 819, {});
    request.callType = 12;

    EXPECT_RC(0, flow(channel));

    EXPECT_EQ(107, header.datalength);
    Bytes message = sent();
    EXPECT_EQ("0000000C", toHex(slice(message, headerSize, 4)));
    EXPECT_EQ(toHex(hex("FF 43480000000000000000000000000000 00000333 00000000")),
              toHex(channelOf(message)));
}

TEST_F(FlowChannelRequest, SendsAChannelInAUnitOfWork)
{
    LocalChannel channel("CH", 819, {});
    request.extendedMode = 1;
    request.luwToken = 0x01020304;

    EXPECT_RC(0, flow(channel));

    Bytes message = sent();
    EXPECT_EQ("00000001 00000001 01020304", toHex(slice(message, headerSize, 12)));
    EXPECT_EQ(toHex(hex("FF 43480000000000000000000000000000 00000333 00000000")),
              toHex(channelOf(message)));
}

TEST_F(FlowChannelRequest, SendsNoChannelWithAListOfSystems)
{
    LocalChannel channel("CH", 819, {bits("A", text("a"))});
    request.callType = 9;

    EXPECT_RC(0, flow(channel));

    EXPECT_EQ(19, header.datalength);
    EXPECT_EQ(toHex(hex("00000009 00000000 0000 00 FFFFFFFF 00000001")),
              toHex(slice(sent(), headerSize, 19)));
}

TEST_F(FlowChannelRequest, SendsATransactionBranchBehindTheChannel)
{
    LocalChannel channel("CH", 819, {bits("A", text("a"))});
    char globalId[] = {'g', 'l'};
    char branch[] = {'b'};
    request.xid.format = 7;
    request.xid.globalId = globalId;
    request.xid.globalIdLen = 2;
    request.xid.branchQualifier = branch;
    request.xid.branchQualifierLen = 1;

    EXPECT_RC(0, flow(channel));

    EXPECT_EQ(136 + 8 + 3, header.datalength);
    EXPECT_EQ(toHex(hex("61 0000 00 00000007 00000002 676C 00000001 62 00000001")),
              toHex(slice(sent(), headerSize + flagOffset + 1 + 24 + 28, 23)));
}

TEST_F(FlowChannelRequest, SendsPasswordAndChannel)
{
    LocalChannel channel("CH", 819, {bits("A", text("SECRETS"))});
    request.password = "SECRET";

    EXPECT_RC(0, flow(channel));

    EXPECT_EQ(83 + 6 + 24 + 28 + 7, header.datalength);
    Bytes message = sent();
    EXPECT_EQ("00000006 AC160611 1711", toHex(slice(message, headerSize + 45, 10)));
    EXPECT_EQ(toHex(text("SECRETS")), toHex(slice(message, headerSize + 83 + 6 - 11 + 24 + 28, 7)));
}

// ---- Much data ----

class FlowChannelSize : public FlowChannelRequest, public ::testing::WithParamInterface<int> {};

TEST_P(FlowChannelSize, SendsContainersOfAnySize)
{
    auto size = static_cast<std::size_t>(GetParam());
    Bytes data = countedBytes(size);
    LocalChannel channel("CH", 819, {bits("BIG", data), bits("NEXT", text("next"))});
    auto wire = collect();

    EXPECT_RC(0, flow(channel));

    EXPECT_EQ(83 + 24 + 28 + GetParam() + 28 + 4, header.datalength);
    ours.shutdownWriting();
    Bytes message = wire.get();
    ASSERT_EQ(headerSize + 83 + 24 + 28 + size + 28 + 4, message.size());
    Bytes sentChannel = channelOf(message);
    EXPECT_EQ(toHex(hex("FF 43480000000000000000000000000000 00000333 00000002"
                        "42494700000000000000000000000000 01 0000 01 00000000") +
                    be32(GetParam())),
              toHex(slice(sentChannel, 0, 53)));
    EXPECT_TRUE(data == slice(sentChannel, 53, size));
    EXPECT_EQ(toHex(hex("4E455854000000000000000000000000 01 0000 01 00000000 00000004 6E657874")),
              toHex(slice(sentChannel, 53 + size, 32)));
    EXPECT_EQ(toHex(hex(bodyEnd)), toHex(slice(message, message.size() - endSize, endSize)));
}

// Behind 156 bytes the buffer of 33000 has room for 32844.
INSTANTIATE_TEST_SUITE_P(, FlowChannelSize,
                         ::testing::Values(0, 1, 32843, 32844, 32845, 32999, 33000, 33001, 65536,
                                           8388608));

TEST_F(FlowChannelRequest, SendsEveryRecordThatMeetsTheEndOfTheBuffer)
{
    // The second record begins where each of its fields is once the last to fit, or not to.
    for (std::size_t size = 32800; size <= 32844; ++size) {
        SCOPED_TRACE(size);
        Bytes data = countedBytes(size);
        LocalChannel channel("CH", 819, {bits("FIRST", data), chars("SECOND", 37, text("tail"))});
        auto message = callInThread(
            [&] { return theirs.read(headerSize + 83 + 24 + 28 + size + 28 + 4); });

        EXPECT_RC(0, flow(channel));

        Bytes sentChannel = channelOf(message.get());
        EXPECT_TRUE(data == slice(sentChannel, 53, size));
        EXPECT_EQ(
            toHex(hex("5345434F4E4400000000000000000000 01 0000 02 00000025 00000004 7461696C")),
            toHex(slice(sentChannel, 53 + size, 32)));
    }
}

TEST_F(FlowChannelRequest, SendsAThousandContainers)
{
    std::vector<Contents> containers;
    Bytes expected = hex("FF 43480000000000000000000000000000 00000333 000003E8");
    for (int number = 1000; number < 2000; ++number) {
        std::string name = "N" + std::to_string(number);
        Bytes data = filled(static_cast<std::size_t>(number % 90),
                            static_cast<unsigned char>(number % 256));
        containers.push_back(bits(name, data));
        expected += padded(name, 16) + hex("01 0000 01 00000000") + be32(number % 90) + data;
    }
    LocalChannel channel("CH", 819, containers);
    auto wire = collect();

    EXPECT_RC(0, flow(channel));

    ours.shutdownWriting();
    Bytes message = wire.get();
    EXPECT_EQ(message.size(), headerSize + static_cast<std::size_t>(header.datalength));
    EXPECT_TRUE(expected == channelOf(message));
}

TEST_F(FlowChannelRequest, GoesOnAfterShortSends)
{
    LocalChannel channel("CH", 819, {bits("A", countedBytes(40000)), bits("B", text("b"))});
    auto wire = collect();
    Fault narrow = limitLength(Call::Send, 1000);

    EXPECT_RC(0, flow(channel));

    ours.shutdownWriting();
    Bytes sentChannel = channelOf(wire.get());
    ASSERT_EQ(1U + 24 + 28 + 40000 + 28 + 1, sentChannel.size());
    EXPECT_TRUE(countedBytes(40000) == slice(sentChannel, 53, 40000));
    EXPECT_LT(40, narrow.calls());
    EXPECT_LE(39, narrow.hits());
}

// ---- What the writing leaves behind ----

TEST_F(FlowChannelRequest, LeavesTheChannelAsItIs)
{
    LocalChannel channel("CH", -1, {bits("A", text("a")), chars("B", 37, text("bb"))});
    channel.token->currentCont = channel.at(1);
    const char* data = channel.at(0)->dataPtr;

    EXPECT_RC(0, flow(channel));

    EXPECT_EQ((Names{"A 1 0 61", "B 2 37 6262"}), channel.contents());
    EXPECT_EQ(-1, channel.token->ccsid.load());
    EXPECT_EQ(channel.at(1), channel.token->currentCont.load());
    EXPECT_EQ(data, channel.at(0)->dataPtr);
    EXPECT_EQ(0, channel.token->isLocked.load());
    channel.expectConsistent();
}

class FlowChannelSend : public FlowChannelRequest, public ::testing::WithParamInterface<int> {};

TEST_P(FlowChannelSend, FailsWhicheverSendFails)
{
    LocalChannel channel("CH", 819, {bits("A", countedBytes(40000)), bits("B", text("b"))});
    auto wire = collect();
    Fault broken = failCall(Call::Send, GetParam(), EPIPE);

    EXPECT_RC(-102, flow(channel));

    EXPECT_EQ(1, broken.hits());
    ours.shutdownWriting();
    EXPECT_GT(headerSize + static_cast<std::size_t>(header.datalength), wire.get().size());
    EXPECT_EQ("A B", channel.names());
    EXPECT_TRUE(countedBytes(40000) == LocalChannel::dataOf(channel.at(0)));
    channel.expectConsistent();
}

// What stands before the large data, the data, and what stands behind it.
INSTANTIATE_TEST_SUITE_P(, FlowChannelSend, ::testing::Values(1, 2, 3));

TEST_F(FlowChannelRequest, SendsNothingWithoutMemory)
{
    LocalChannel channel("CH", 819, {bits("A", text("a"))});
    Fault noMemory = failEveryCall(Call::Malloc, ENOMEM);

    EXPECT_RC(-111, flow(channel));

    EXPECT_LE(1, noMemory.hits());
    EXPECT_EQ("", sentHex());
    channel.expectConsistent();
}

TEST_F(FlowChannelRequest, NeedsNoMemoryButItsBuffer)
{
    LocalChannel channel("CH", 819, {bits("A", countedBytes(100)), bits("B", text("b"))});
    Fault noFurther = failCallsFrom(Call::Malloc, 2, ENOMEM);

    EXPECT_RC(0, flow(channel));

    EXPECT_EQ(0, noFurther.hits());
}

// ---- Its trace ----

TEST_F(FlowChannelRequest, TracesNothingOfAChannelAtLevelOne)
{
    LocalChannel channel("CH", 819, {bits("A", text("a"))});
    TraceFile trace(1);

    EXPECT_RC(0, flow(channel));

    EXPECT_EQ("", trace.text());
}

TEST_F(FlowChannelRequest, TracesChannelAndContainersAtLevelTwo)
{
    LocalChannel channel("CH", 819,
                         {bits("A", text("0123456789")), chars("SIXTEEN_LETTERS_", 1208, Bytes())});
    TraceFile trace(2);

    EXPECT_RC(0, flow(channel));

    ASSERT_EQ(3U, trace.records().size()) << trace.text();
    EXPECT_EQ((std::vector<int>{3245, 3246, 3246}), pointsOf(trace));
    EXPECT_EQ((std::vector<std::string>{"EVENT", "EVENT", "EVENT"}), typesOf(trace));
    EXPECT_EQ((Names{"clapi_socketcomms.writeChannel() Writing channel \"CH\", CCSID=819, num "
                     "containers=2",
                     "clapi_socketcomms.writeChannel() Writing container \"A\", type=ECI_BIT, "
                     "CCSID=0, data length=10",
                     "clapi_socketcomms.writeChannel() Writing container \"SIXTEEN_LETTERS_\", "
                     "type=ECI_CHAR, CCSID=1208, data length=0"}),
              trace.messages());
}

TEST_F(FlowChannelRequest, TracesNoMoreThanSixteenCharactersOfAChannelsName)
{
    LocalChannel channel("CHANNEL890123456", -1, {});
    TraceFile trace(2);

    EXPECT_RC(0, flow(channel));

    EXPECT_TRUE(trace.wrote(3245, "EVENT",
                            "clapi_socketcomms.writeChannel() Writing channel "
                            "\"CHANNEL890123456\", CCSID=-1, num containers=0"))
        << trace.text();
}

TEST_F(FlowChannelRequest, TracesNamesAsTheyAre)
{
    LocalChannel channel("%s%n%d", 819, {bits("%n%n%s", text("x"))});
    TraceFile trace(4);

    EXPECT_RC(0, flow(channel));

    EXPECT_TRUE(trace.wroteText("Writing channel \"%s%n%d\", CCSID=819, num containers=1\n"));
    EXPECT_TRUE(trace.wroteText("Writing container \"%n%n%s\", type=ECI_BIT, CCSID=0, data "
                                "length=1\n"));
}

TEST_F(FlowChannelRequest, TracesATypeThatNobodyKnows)
{
    LocalChannel channel("CH", 819, {bits("ODD", text("x"))});
    channel.at(0)->type = 3;
    TraceFile trace(2);

    EXPECT_RC(0, flow(channel));

    EXPECT_TRUE(trace.wrote(3246, "EVENT",
                            "clapi_socketcomms.writeChannel() Writing container \"ODD\", "
                            "type=UNKNOWN, CCSID=0, data length=1"));
    EXPECT_EQ("03", toHex(slice(sent(), headerSize + flagOffset + 1 + 24 + 19, 1)));
}

TEST_F(FlowChannelRequest, TracesItsFunctionsAtLevelThree)
{
    LocalChannel channel("CH", 819, {bits("A", text("0123456789")), bits("B", Bytes())});
    TraceFile trace(3);

    EXPECT_RC(0, flow(channel));

    std::vector<int> points;
    for (int point : pointsOf(trace))
        if (point >= 3200) points.push_back(point);
    EXPECT_EQ((std::vector<int>{3204, 3202, 3203, 3210, 3211, 3215, 3245, 3246, 3246, 3216, 3205}),
              points);
    EXPECT_TRUE(
        trace.wrote(3203, "EXIT", "clapi_socketcomms.calculateECIRequestSize() requestSize=173"));
    EXPECT_TRUE(trace.wrote(3215, "ENTRY", "clapi_socketcomms.writeChannel(<any>"));
    EXPECT_TRUE(trace.wrote(3216, "EXIT", "clapi_socketcomms.writeChannel()<any>"));
    EXPECT_EQ(0, trace.timesWrote(3247));
}

TEST_F(FlowChannelRequest, DumpsContainersAtLevelFour)
{
    LocalChannel channel("CH", 819, {bits("A", text("0123456789ABCDEFghij"))});
    std::string data = support::shown(channel.at(0)->dataPtr);
    TraceFile trace(4);

    EXPECT_RC(0, flow(channel));

    ASSERT_EQ(1, trace.timesWrote(3247));
    for (const TraceRecord& record : trace.records()) {
        if (record.point != 3247) continue;
        EXPECT_EQ("DATA", record.type);
        EXPECT_EQ("clapi_socketcomms.writeChannel() data=" + data + " len=20 stopword=00000000",
                  record.message);
        EXPECT_TRUE(matches("Data truncation size=128, offset=0\n" + data +
                                ": 30313233 34353637 38394142 43444546 : 0123456789ABCDEF \n"
                                "<ptr>: 6768696A                            : ghij\n",
                            record.body))
            << record.body;
    }
}

TEST_F(FlowChannelRequest, DumpsNothingOfAnEmptyContainer)
{
    LocalChannel channel("CH", 819, {bits("A", Bytes())});
    TraceFile trace(4);

    EXPECT_RC(0, flow(channel));

    ASSERT_EQ(1, trace.timesWrote(3247)) << trace.text();
    for (const TraceRecord& record : trace.records()) {
        if (record.point != 3247) continue;
        EXPECT_EQ("clapi_socketcomms.writeChannel() data=(nil) len=0 stopword=00000000",
                  record.message);
        EXPECT_EQ("", record.body);
    }
}

TEST_F(FlowChannelRequest, DumpsTheFirstBytesOfALargeContainer)
{
    LocalChannel channel("CH", 819, {bits("A", countedBytes(1000))});
    TraceFile trace(4);

    EXPECT_RC(0, flow(channel));

    for (const TraceRecord& record : trace.records()) {
        if (record.point != 3247) continue;
        EXPECT_TRUE(contains(record.message, "len=1000"));
        EXPECT_EQ(9, countOf(record.body, "\n")); // the sizes, and 128 bytes in eight lines
        EXPECT_TRUE(contains(record.body, ": 70717273 74757677 78797A7B 7C7D7E7F : "));
        EXPECT_FALSE(contains(record.body, "80818283"));
    }
    EXPECT_EQ(1, trace.timesWrote(3247));
}

TEST_F(FlowChannelRequest, ShowsNoPasswordInATraceWithAChannel)
{
    LocalChannel channel("CH", 819, {bits("A", text("a"))});
    request.password = "SECRET";
    WholeDumps whole;
    TraceFile trace(5);

    EXPECT_RC(0, flow(channel));

    EXPECT_TRUE(trace.wroteText("2A2A2A"));
    EXPECT_FALSE(trace.wroteText("SECRET"));
    EXPECT_FALSE(trace.wroteText("534543"));
    EXPECT_FALSE(trace.wroteText("AC1606"));
}

} // namespace
