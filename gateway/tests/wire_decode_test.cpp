// What clients send, against bytes typed by hand; and every way in which it can be malformed, with
// the byte at which it is.

#include <gtest/gtest.h>

#include <functional>

#include "client.h"
#include "standin/wire.h"

using namespace standin;
using standin_test::Call;
using standin_test::eciBody;
using standin_test::Raw;

namespace {

// The handshake of applid "DEMO1" with an empty qualifier.
const Bytes kHandshake = {
    0x47, 0x61, 0x74, 0x65,                                     // "Gate"
    0x10, 0xA0, 0x10, 0x00,                                     // version
    0x00, 0x00, 0x00, 0x05,                                     // FLOW_HANDSHAKE
    0xFF, 0xFF, 0xFF, 0xFE,                                     // message id -2
    0x00, 0x00, 0x00, 0x00,                                     // gatewayRc
    0x00, 0x00, 0x00, 0x04,                                     // request type length
    0x42, 0x41, 0x53, 0x45,                                     // "BASE"
    0x00,                                                       // security
    0x00, 0x00, 0x00, 0x1B,                                     // data length 27
    0x00, 0x02, 0x65, 0x6E,                                     // length 2, "en"
    0x00, 0x02, 0x47, 0x42,                                     // length 2, "GB"
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // ten zero bytes
    0x00, 0x05, 'D',  'E',  'M',  'O',  '1',                    // applid
    0x00, 0x00,                                                 // no qualifier
};

// A synchronous call of ECHO with user "FRED", password "ABC", a COMMAREA of 6 bytes of which 4 are
// sent and 5 are wanted.
const Bytes kEciBody = {
    0x00, 0x00, 0x00, 0x01,                                               //   0 call type
    0x00, 0x00, 0x00, 0x01,                                               //   4 extend mode
    0x00, 0x00, 0x00, 0x2A,                                               //   8 token 42
    0x00, 0x00, 0x00, 0x00,                                               //  12 qualifier
    0x00,                                                                 //  16 callback
    0x00, 0x00, 0x00, 0x08,                                               //  17 length of server
    'S',  'E',  'R',  'V',  '1',  ' ',  ' ', ' ',                         //  21 server
    'F',  'R',  'E',  'D',  0,    0,    0,   0,   0, 0, 0, 0, 0, 0, 0, 0, //  29 user
    0x00, 0x00, 0x00, 0x03,                                               //  45 length of password
    0xBE, 0x03, 0x01,                                                     //  49 "ABC", masked
    'E',  'C',  'H',  'O',  ' ',  ' ',  ' ', ' ',                         //  52 program
    'T',  'R',  'N',  '1',                                                //  60 transaction
    0x00, 0x00, 0x00, 0x02, 0x77, 0x88,                                   //  64 workload token
    0x00, 0x00, 0x00, 0x06,                                               //  70 COMMAREA length
    0xFF, 0x00, 0x00, 0x00, 0x04,                                         //  74 outbound
    0xFF, 0x00, 0x00, 0x00, 0x05,                                         //  79 inbound
    'd',  'a',  't',  'a',                                                //  84 COMMAREA
    0x00,                                                                 //  88 no channel
    0x00, 0x1E,                                                           //  89 time-out 30
    0x00,                                                                 //  91 automatic qualifier
    0xFF, 0xFF, 0xFF, 0xFF,                                               //  92 no XID
    0x00, 0x00, 0x00, 0x63,                                               //  96 correlator
};

// What the decoder says about bytes that it must refuse.
std::string complaint(const std::function<void()>& decode)
{
    try {
        decode();
    } catch (const MalformedFlow& malformed) {
        return malformed.what();
    }
    return "accepted";
}

std::string complaintAboutStream(const Bytes& stream)
{
    return complaint([&] { splitFlow(stream); });
}

// The offsets of these complaints count from the body's first byte.
std::string complaintAboutEci(const Bytes& body)
{
    return complaint([&] { decodeEciRequest(body, 0); });
}

std::string complaintAboutHandshake(const Bytes& body)
{
    return complaint([&] { decodeHandshake(body, 33); });
}

Bytes changed(Bytes bytes, std::size_t offset, std::initializer_list<int> values)
{
    for (const int value : values) bytes.at(offset++) = static_cast<std::uint8_t>(value);
    return bytes;
}

Bytes firstBytes(const Bytes& bytes, std::size_t count)
{
    return Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
}

FlowHeader requestHeader()
{
    FlowHeader header;
    header.flowType = 1;
    header.messageId = 1;
    header.requestType = "ECI";
    return header;
}

std::string complaintAboutHeader(const std::function<void(FlowHeader&)>& spoil)
{
    FlowHeader header = requestHeader();
    spoil(header);
    return complaint([&] { checkClientHeader(header); });
}

Bytes handshakeBody()
{
    return Bytes(kHandshake.begin() + 33, kHandshake.end());
}

// The COMMAREA call above ends at byte 88; this puts a channel section behind it.
Bytes withChannel(const Bytes& section)
{
    return Raw()
        .bytes(firstBytes(kEciBody, 88))
        .byte(0xFF)
        .bytes(section)
        .bytes(Bytes(kEciBody.begin() + 89, kEciBody.end()));
}

} // namespace

// ----------------------------------------------------------------------------------------- framing

TEST(SplitFlow, TakesAHandshakeOf60Bytes)
{
    ASSERT_EQ(60U, kHandshake.size());
    const std::optional<SplitFlow> split = splitFlow(kHandshake);
    ASSERT_TRUE(split);
    EXPECT_EQ(60U, split->size);
    EXPECT_EQ(33U, split->headerSize);
    EXPECT_EQ(5, split->flow.header.flowType);
    EXPECT_EQ(-2, split->flow.header.messageId);
    EXPECT_EQ("BASE", split->flow.header.requestType);
    EXPECT_EQ(27, split->flow.header.dataLength);
    EXPECT_EQ(27U, split->flow.body.size());
}

TEST(SplitFlow, WaitsForEveryByte)
{
    for (std::size_t count = 0; count < kHandshake.size(); ++count) {
        EXPECT_FALSE(splitFlow(firstBytes(kHandshake, count))) << count << " bytes";
    }
}

TEST(SplitFlow, LeavesTheNextFlowAlone)
{
    const std::optional<SplitFlow> split = splitFlow(Raw().bytes(kHandshake).bytes(kHandshake));
    ASSERT_TRUE(split);
    EXPECT_EQ(60U, split->size);
}

TEST(SplitFlow, TakesACloseFlowOf33Bytes)
{
    const Bytes close = {0x47, 0x61, 0x74, 0x65, 0x10, 0xA0, 0x10, 0x00, 0x00, 0x00, 0x00,
                         0x0A, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                         0x00, 0x04, 0x42, 0x41, 0x53, 0x45, 0x00, 0x00, 0x00, 0x00, 0x00};
    const std::optional<SplitFlow> split = splitFlow(close);
    ASSERT_TRUE(split);
    EXPECT_EQ(33U, split->size);
    EXPECT_EQ(-1, split->flow.header.messageId);
    EXPECT_NO_THROW(checkClientHeader(split->flow.header));
}

TEST(SplitFlow, RefusesAnEyecatcherAsSoonAsItIsThere)
{
    EXPECT_EQ("eyecatcher is 0x65746147, not 0x47617465 at byte 0",
              complaintAboutStream({0x65, 0x74, 0x61, 0x47}));
}

TEST(SplitFlow, RefusesRequestTypeLengthsOutside0To6)
{
    EXPECT_EQ("request type length is 7, not 0 to 6 at byte 20",
              complaintAboutStream(changed(kHandshake, 20, {0, 0, 0, 7})));
    EXPECT_EQ("request type length is -1, not 0 to 6 at byte 20",
              complaintAboutStream(changed(kHandshake, 20, {0xFF, 0xFF, 0xFF, 0xFF})));
}

TEST(SplitFlow, RefusesDataLengthsThatCannotBe)
{
    EXPECT_EQ("data length is -2, not 0 to 67108864 at byte 29",
              complaintAboutStream(changed(kHandshake, 29, {0xFF, 0xFF, 0xFF, 0xFE})));
    EXPECT_EQ("data length is 67108865, not 0 to 67108864 at byte 29",
              complaintAboutStream(changed(kHandshake, 29, {0x04, 0x00, 0x00, 0x01})));
}

TEST(CheckClientHeader, AcceptsARequest)
{
    EXPECT_EQ("accepted", complaintAboutHeader([](FlowHeader&) {}));
    EXPECT_EQ("accepted",
              complaintAboutHeader([](FlowHeader& header) { header.requestType = "ESI"; }));
}

TEST(CheckClientHeader, NamesTheFieldAndItsByte)
{
    EXPECT_EQ("flow version is 0x10A01001, not 0x10A01000 at byte 4",
              complaintAboutHeader([](FlowHeader& header) { header.flowVersion += 1; }));
    EXPECT_EQ("flow type is 3, not 1, 5 or 10 at byte 8",
              complaintAboutHeader([](FlowHeader& header) { header.flowType = 3; }));
    EXPECT_EQ("message id of a request is 0, not positive at byte 12",
              complaintAboutHeader([](FlowHeader& header) { header.messageId = 0; }));
    EXPECT_EQ("Gateway return code is 5, not 0 at byte 16",
              complaintAboutHeader([](FlowHeader& header) { header.gatewayRc = 5; }));
    EXPECT_EQ("request type is \"BASE\", neither \"ECI\" nor \"ESI\" at byte 24",
              complaintAboutHeader([](FlowHeader& header) { header.requestType = "BASE"; }));
    EXPECT_EQ("security is 1, not 0 at byte 27",
              complaintAboutHeader([](FlowHeader& header) { header.security = 1; }));
}

TEST(CheckClientHeader, KnowsTheMessageIdsAndTypesOfTheOtherFlows)
{
    EXPECT_EQ("message id of a handshake is 1, not -2 at byte 12",
              complaintAboutHeader([](FlowHeader& header) { header.flowType = 5; }));
    EXPECT_EQ("message id of a close flow is 1, not -1 at byte 12",
              complaintAboutHeader([](FlowHeader& header) { header.flowType = 10; }));
    EXPECT_EQ("request type is \"ECI\", not \"BASE\" at byte 24",
              complaintAboutHeader([](FlowHeader& header) {
                  header.flowType = 5;
                  header.messageId = -2;
              }));
    EXPECT_EQ("data length of a close flow is 3, not 0 at byte 29",
              complaintAboutHeader([](FlowHeader& header) {
                  header.flowType = 10;
                  header.messageId = -1;
                  header.requestType = "BASE";
                  header.dataLength = 3;
              }));
}

// --------------------------------------------------------------------------------------- handshake

TEST(DecodeHandshake, TakesApplidAndQualifier)
{
    const Handshake plain = decodeHandshake(handshakeBody(), 33);
    EXPECT_EQ("DEMO1", plain.applid);
    EXPECT_EQ("", plain.applidQualifier);

    const Handshake both = decodeHandshake(Raw()
                                               .bytes(firstBytes(handshakeBody(), 18))
                                               .int16(2)
                                               .byte(0xC3)
                                               .byte(0xA9)
                                               .int16(3)
                                               .text("QLF"),
                                           33);
    EXPECT_EQ("\xC3\xA9", both.applid);
    EXPECT_EQ("QLF", both.applidQualifier);
}

TEST(DecodeHandshake, NamesTheFirstWrongByte)
{
    EXPECT_EQ("fixed handshake data has 0x64, not 0x65 at byte 35",
              complaintAboutHandshake(changed(handshakeBody(), 2, {0x64})));
    EXPECT_EQ("length of applid is 17, not 0 to 16 at byte 51",
              complaintAboutHandshake(changed(handshakeBody(), 18, {0, 17})));
    EXPECT_EQ("length of applid qualifier is -1, not 0 to 16 at byte 58",
              complaintAboutHandshake(changed(handshakeBody(), 25, {0xFF, 0xFF})));
    EXPECT_EQ("1 bytes too many at byte 60",
              complaintAboutHandshake(Raw().bytes(handshakeBody()).byte(0)));
    EXPECT_EQ("applid needs 5 bytes but the flow has only 4 left at byte 53",
              complaintAboutHandshake(firstBytes(handshakeBody(), 24)));
    EXPECT_EQ("fixed handshake data needs 18 bytes but the flow has only 0 left at byte 33",
              complaintAboutHandshake({}));
}

// --------------------------------------------------------------------------------------------- ECI

TEST(DecodeEciRequest, TakesEveryField)
{
    ASSERT_EQ(100U, kEciBody.size());
    const EciRequest request = decodeEciRequest(kEciBody, 32);
    EXPECT_EQ(1, request.callType);
    EXPECT_EQ(1, request.extendMode);
    EXPECT_EQ(42, request.luwToken);
    EXPECT_EQ(0, request.messageQualifier);
    EXPECT_EQ(0, request.callbackExists);
    EXPECT_EQ("SERV1", request.server);
    EXPECT_EQ("FRED", request.userId);
    EXPECT_EQ("ABC", request.password);
    EXPECT_EQ("ECHO", request.program);
    EXPECT_EQ("TRN1", request.transid);
    EXPECT_EQ((Bytes{0x77, 0x88}), request.pyxaToken);
    EXPECT_EQ(6, request.commareaLength);
    EXPECT_EQ(4, request.outboundLength);
    EXPECT_EQ(5, request.inboundLength);
    EXPECT_EQ((Bytes{'d', 'a', 't', 'a'}), request.commarea);
    EXPECT_FALSE(request.channel);
    EXPECT_EQ(30, request.timeout);
    EXPECT_EQ(0, request.isAutoMessageQualifier);
    EXPECT_EQ(-1, request.xid.format);
    EXPECT_EQ(99, request.correlator);
}

TEST(DecodeEciRequest, ShowsTheProgramTheWholeCommarea)
{
    const EciRequest request = decodeEciRequest(kEciBody, 32);
    EXPECT_EQ((Bytes{'d', 'a', 't', 'a', 0, 0}), request.commareaAsSeenByProgram());
    EXPECT_EQ(5U, request.wantedLength());
}

TEST(DecodeEciRequest, TakesACallWithoutLengthsPasswordAndToken)
{
    Call call;
    call.commarea = std::string(100, 'x');
    const Bytes body = eciBody(call);
    ASSERT_EQ(183U, body.size());
    const EciRequest request = decodeEciRequest(body, 32);
    EXPECT_EQ(100U, request.commarea.size());
    EXPECT_FALSE(request.outboundLength);
    EXPECT_FALSE(request.inboundLength);
    EXPECT_EQ(100U, request.wantedLength());
}

TEST(DecodeEciRequest, TakesACallTrimmedToItsOutboundLength)
{
    Call call;
    call.commarea = std::string(100, 'x');
    call.outbound = 10;
    const Bytes body = eciBody(call);
    ASSERT_EQ(97U, body.size());
    EXPECT_EQ(10U, decodeEciRequest(body, 32).commarea.size());
}

TEST(DecodeEciRequest, FindsNoCommareaInModes2And4)
{
    for (const int mode : {2, 4}) {
        Call call;
        call.mode = mode;
        call.token = 5;
        const EciRequest request = decodeEciRequest(eciBody(call), 32);
        EXPECT_TRUE(request.commarea.empty());
        EXPECT_EQ(0U, request.wantedLength());
    }
}

TEST(DecodeEciRequest, TakesASystemListQueryOf19Bytes)
{
    const Bytes body = Raw().int32(9).int32(25).int16(0).byte(0).int32(-1).int32(7);
    ASSERT_EQ(19U, body.size());
    EXPECT_EQ(25, decodeEciRequest(body, 32).serverNum);
}

TEST(DecodeEciRequest, TakesAnXid)
{
    const Bytes body = Raw()
                           .int32(9)
                           .int32(0)
                           .int16(0)
                           .byte(0)
                           .int32(4)
                           .int32(2)
                           .text("gg")
                           .int32(1)
                           .text("b")
                           .int32(7);
    const Xid xid = decodeEciRequest(body, 32).xid;
    EXPECT_EQ(4, xid.format);
    EXPECT_EQ((Bytes{'g', 'g'}), xid.globalId);
    EXPECT_EQ((Bytes{'b'}), xid.branchQualifier);
}

TEST(DecodeEciRequest, TakesAChannelOf90Bytes)
{
    const Bytes section = Raw()
                              .padded("CHAN", 16)
                              .int32(819)
                              .int32(2)
                              .padded("A", 16)
                              .byte(1)
                              .int16(0)
                              .byte(2)
                              .int32(819)
                              .int32(10)
                              .text("0123456789")
                              .padded("B", 16)
                              .byte(1)
                              .int16(0)
                              .byte(1)
                              .int32(0)
                              .int32(0);
    ASSERT_EQ(90U, section.size());
    const EciRequest request = decodeEciRequest(withChannel(section), 32);
    ASSERT_TRUE(request.channel);
    EXPECT_EQ("CHAN", request.channel->name);
    EXPECT_EQ(819, request.channel->ccsid);
    ASSERT_EQ(2U, request.channel->containers.size());
    EXPECT_EQ("A", request.channel->containers[0].name);
    EXPECT_EQ(kContainerChar, request.channel->containers[0].type);
    EXPECT_EQ(10U, request.channel->containers[0].data.size());
    EXPECT_EQ("B", request.channel->containers[1].name);
    EXPECT_EQ(kContainerBit, request.channel->containers[1].type);
    EXPECT_TRUE(request.channel->containers[1].data.empty());
}

TEST(DecodeEciRequest, TakesNamesOf16CharactersAndBinaryData)
{
    const Bytes section = {
        'a',  'Z',  '0',  '9',  '<', '>', '$', '@', '#', '/', '%', '&', '?', '!', ':', '|', // name
        0x00, 0x00, 0x04, 0xB8,                                                             // CCSID
        0x00, 0x00, 0x00, 0x01,                                                             // one
        '"',  '=',  '\'', ';',  '.', '-', '_', 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', // name
        0x01, 0x00, 0x00, 0x01, // added, two zero bytes, binary data
        0x00, 0x00, 0x00, 0x00, // CCSID
        0x00, 0x00, 0x00, 0x03, // length
        0x00, 0xFF, 0x80,       // data
    };
    const EciRequest request = decodeEciRequest(withChannel(section), 32);
    ASSERT_TRUE(request.channel);
    EXPECT_EQ("aZ09<>$@#/%&?!:|", request.channel->name);
    EXPECT_EQ(1208, request.channel->ccsid);
    ASSERT_EQ(1U, request.channel->containers.size());
    EXPECT_EQ("\"=';.-_ABCDEFGHI", request.channel->containers[0].name);
    EXPECT_EQ((Bytes{0x00, 0xFF, 0x80}), request.channel->containers[0].data);
    EXPECT_EQ(99, request.correlator);
}

TEST(DecodeEciRequest, TakesAChannelWithoutContainers)
{
    const EciRequest request = decodeEciRequest(
        withChannel(Raw().padded("C", 16).int32(-1).int32(0)), 32);
    ASSERT_TRUE(request.channel);
    EXPECT_EQ(-1, request.channel->ccsid);
    EXPECT_TRUE(request.channel->containers.empty());
}

TEST(DecodeEciRequest, NamesTheFieldAndItsByte)
{
    const auto spoiled = [](std::size_t offset, std::initializer_list<int> values) {
        return complaintAboutEci(changed(kEciBody, offset, values));
    };
    EXPECT_EQ("call type is 2, not 1, 9 or 12 at byte 0", spoiled(0, {0, 0, 0, 2}));
    EXPECT_EQ("extend mode is 3, not 0, 1, 2 or 4 at byte 4", spoiled(4, {0, 0, 0, 3}));
    EXPECT_EQ("length of the server name is 9, not 8 at byte 17", spoiled(17, {0, 0, 0, 9}));
    EXPECT_EQ("user id has a byte other than 0x00 behind its end at byte 35", spoiled(35, {'X'}));
    EXPECT_EQ("length of password is negative (-1) at byte 45",
              spoiled(45, {0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ("password needs 1000 bytes but the flow has only 51 left at byte 49",
              spoiled(45, {0, 0, 0x03, 0xE8}));
    EXPECT_EQ("length of workload token is negative (-2) at byte 64",
              spoiled(64, {0xFF, 0xFF, 0xFF, 0xFE}));
    EXPECT_EQ("COMMAREA length is negative (-1) at byte 70", spoiled(70, {0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ("outbound length flag is 0x01, neither 0xFF nor 0x00 at byte 74", spoiled(74, {1}));
    EXPECT_EQ("COMMAREA length is 32768, not 0 to 32767 at byte 70",
              spoiled(70, {0x00, 0x00, 0x80, 0x00}));
    EXPECT_EQ("COMMAREA length is 2147483647, not 0 to 32767 at byte 70",
              spoiled(70, {0x7F, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ("outbound length is 0, not 1 to the COMMAREA length 6 at byte 75",
              spoiled(75, {0, 0, 0, 0}));
    EXPECT_EQ("outbound length is 7, not 1 to the COMMAREA length 6 at byte 75",
              spoiled(75, {0, 0, 0, 7}));
    EXPECT_EQ("inbound length is 7, not 1 to the COMMAREA length 6 at byte 80",
              spoiled(80, {0, 0, 0, 7}));
    EXPECT_EQ("channel flag is 0x02, neither 0xFF nor 0x00 at byte 88", spoiled(88, {2}));
    EXPECT_EQ("time-out is negative (-1) at byte 89", spoiled(89, {0xFF, 0xFF}));
    EXPECT_EQ("correlator is 0 at byte 96", spoiled(96, {0, 0, 0, 0}));
    EXPECT_EQ("1 bytes too many at byte 100", complaintAboutEci(Raw().bytes(kEciBody).byte(0)));
}

TEST(DecodeEciRequest, RefusesEveryBodyThatIsCutShort)
{
    for (std::size_t count = 0; count < kEciBody.size(); ++count) {
        EXPECT_NE("accepted", complaintAboutEci(firstBytes(kEciBody, count))) << count << " bytes";
    }
}

TEST(DecodeEciRequest, CountsOffsetsFromTheStartOfTheFlow)
{
    EXPECT_EQ("extend mode is 3, not 0, 1, 2 or 4 at byte 36", complaint([] {
                  decodeEciRequest(changed(kEciBody, 4, {0, 0, 0, 3}), 32);
              }));
}

TEST(DecodeEciRequest, RefusesChannelsThatAreWrong)
{
    const Bytes head = Raw().padded("CHAN", 16).int32(819);
    const auto withContainer = [&](unsigned change, int zeros, unsigned type) {
        return withChannel(Raw()
                               .bytes(head)
                               .int32(1)
                               .padded("A", 16)
                               .byte(change)
                               .int16(zeros)
                               .byte(type)
                               .int32(0)
                               .int32(0));
    };
    EXPECT_EQ("accepted", complaintAboutEci(withContainer(1, 0, 1)));
    EXPECT_EQ("container change code is 2, not 1 at byte 129",
              complaintAboutEci(withContainer(2, 0, 1)));
    EXPECT_EQ("the two bytes behind a container's change code are not 0x00 at byte 130",
              complaintAboutEci(withContainer(1, 1, 1)));
    EXPECT_EQ("container type is 3, neither 1 nor 2 at byte 132",
              complaintAboutEci(withContainer(1, 0, 3)));
    EXPECT_EQ("number of containers is negative (-1) at byte 109",
              complaintAboutEci(withChannel(Raw().bytes(head).int32(-1))));
    EXPECT_EQ("2147483647 containers do not fit into the 11 bytes left at byte 109",
              complaintAboutEci(withChannel(Raw().bytes(head).int32(0x7FFFFFFF))));
    const Bytes cutShort = Raw().bytes(head).int32(1).padded("A", 16).int32(0x01000001).int32(0);
    EXPECT_EQ("container data needs 12 bytes but the flow has only 11 left at byte 141",
              complaintAboutEci(withChannel(Raw().bytes(cutShort).int32(12))));
}

TEST(DecodeEciRequest, RefusesTwoContainersOfOneName)
{
    const auto container = [](const std::string& name) {
        return Raw().padded(name, 16).int32(0x01000001).int32(0).int32(0);
    };
    const Bytes front = Raw().padded("CHAN", 16).int32(819).int32(3);
    EXPECT_EQ(
        "container name is \"A\", which is there already at byte 169",
        complaintAboutEci(withChannel(
            Raw().bytes(front).bytes(container("A")).bytes(container("a")).bytes(container("A")))));
}

TEST(DecodeEciRequest, RefusesNamesThatNoChannelOrContainerCanHave)
{
    const auto channel = [](const Bytes& name) {
        return withChannel(Raw().bytes(name).int32(819).int32(0));
    };
    const auto container = [](const Bytes& name) {
        const Bytes head = Raw().padded("C", 16).int32(819).int32(1);
        const Bytes tail = Raw().int32(0x01000001).int32(0).int32(0);
        return withChannel(Raw().bytes(head).bytes(name).bytes(tail));
    };
    const Bytes empty = Raw().padded("", 16);
    const Bytes blank = Raw().padded("A B", 16);
    const Bytes blanks = Raw().padded("AB", 16, ' ');
    const Bytes stray = Raw().padded("A", 15).byte('X');
    EXPECT_EQ("channel name is \"\", which is no name at byte 89",
              complaintAboutEci(channel(empty)));
    EXPECT_EQ("channel name is \"A B\", which is no name at byte 89",
              complaintAboutEci(channel(blank)));
    EXPECT_EQ("channel name is \"AB              \", which is no name at byte 89",
              complaintAboutEci(channel(blanks)));
    EXPECT_EQ("channel name has a byte other than 0x00 behind its end at byte 104",
              complaintAboutEci(channel(stray)));
    EXPECT_EQ("container name is \"\", which is no name at byte 113",
              complaintAboutEci(container(empty)));
    EXPECT_EQ("container name is \"A B\", which is no name at byte 113",
              complaintAboutEci(container(blank)));
}

// --------------------------------------------------------------------------------------------- ESI

TEST(DecodeEsiRequest, TakesAVerification)
{
    const Bytes body = Raw()
                           .int32(0)
                           .padded("FRED", 10)
                           .int32(3)
                           .byte(0xBE)
                           .byte(0x03)
                           .byte(0x01)
                           .padded("SERV1", 8, ' ');
    ASSERT_EQ(29U, body.size());
    const EsiRequest request = decodeEsiRequest(body, 32);
    EXPECT_EQ(0, request.callType);
    EXPECT_EQ("FRED", request.userId);
    EXPECT_EQ("ABC", request.currentPassword);
    EXPECT_EQ("SERV1", request.server);
    EXPECT_EQ("", request.newPassword);
}

TEST(DecodeEsiRequest, TakesAChange)
{
    const Bytes body = Raw()
                           .int32(1)
                           .padded("FRED", 10)
                           .int32(1)
                           .byte(0xBE)
                           .padded("SERV1", 8)
                           .int32(2)
                           .byte(0xBE)
                           .byte(0x03);
    const EsiRequest request = decodeEsiRequest(body, 32);
    EXPECT_EQ("A", request.currentPassword);
    EXPECT_EQ("AB", request.newPassword);
}

TEST(DecodeEsiRequest, TakesAVerificationOf64BytesByteForByte)
{
    const Bytes bytes = fromHex("47617465 10A01000 00000001 00000007 00000000 00000003 455349 00 "
                                "00000020 "
                                "00000000 414C494345 0000000000 00000006 "
                                "AC 16 06 11 17 11 " // "SECRET", scrambled
                                "53455256 31202020");
    ASSERT_EQ(64U, bytes.size());
    const std::optional<SplitFlow> split = splitFlow(bytes);
    ASSERT_TRUE(split);
    EXPECT_EQ(64U, split->size);
    EXPECT_EQ(7, split->flow.header.messageId);
    EXPECT_EQ("ESI", split->flow.header.requestType);
    EXPECT_NO_THROW(checkClientHeader(split->flow.header));
    const EsiRequest request = decodeEsiRequest(split->flow.body, split->headerSize);
    EXPECT_EQ(0, request.callType);
    EXPECT_EQ("ALICE", request.userId);
    EXPECT_EQ("SECRET", request.currentPassword);
    EXPECT_EQ("SERV1", request.server);
    EXPECT_EQ("", request.newPassword);
}

TEST(DecodeEsiRequest, TakesAChangeWithABodyOf44BytesByteForByte)
{
    const Bytes body = fromHex("00000001 414C494345 0000000000 00000006 "
                               "AC 16 06 11 17 11 " // "SECRET"
                               "00000000 00000000 00000008 "
                               "B8 35 17 00 0B 56 59 03"); // "Green8ab"
    ASSERT_EQ(44U, body.size());
    const EsiRequest request = decodeEsiRequest(body, 32);
    EXPECT_EQ(1, request.callType);
    EXPECT_EQ("SECRET", request.currentPassword);
    EXPECT_EQ("", request.server);
    EXPECT_EQ("Green8ab", request.newPassword);
}

TEST(DecodeEsiRequest, TakesAUserIdThatFillsItsField)
{
    const Bytes body = fromHex("00000000 30313233343536373839 00000001 BE 0000000000000000");
    EXPECT_EQ("0123456789", decodeEsiRequest(body, 32).userId);
}

TEST(DecodeEsiRequest, NamesTheFieldAndItsByte)
{
    const Bytes unknown = Raw().int32(2).padded("FRED", 10).int32(0).padded("SERV1", 8);
    EXPECT_EQ("call type is 2, neither 0 nor 1 at byte 32",
              complaint([&] { decodeEsiRequest(unknown, 32); }));
    const Bytes withoutNew = Raw().int32(1).padded("FRED", 10).int32(0).padded("SERV1", 8);
    EXPECT_EQ("length of new password needs 4 bytes but the flow has only 0 left at byte 58",
              complaint([&] { decodeEsiRequest(withoutNew, 32); }));
}

TEST(DecodeEsiRequest, RefusesLengthsThatDoNotFit)
{
    const Bytes negative = fromHex("00000000 46524544000000000000 FFFFFFFF 0000000000000000");
    EXPECT_EQ("length of current password is negative (-1) at byte 46",
              complaint([&] { decodeEsiRequest(negative, 32); }));
    const Bytes tooLong = fromHex("00000000 46524544000000000000 7FFFFFFF 0000000000000000");
    EXPECT_EQ("current password needs 2147483647 bytes but the flow has only 8 left at byte 50",
              complaint([&] { decodeEsiRequest(tooLong, 32); }));
    const Bytes behind = fromHex("00000000 46524544000000000000 00000001 BE 0000000000000000 00");
    EXPECT_EQ("1 bytes too many at byte 59", complaint([&] { decodeEsiRequest(behind, 32); }));
    const Bytes stray = fromHex("00000000 46524544000000000058 00000001 BE 0000000000000000");
    EXPECT_EQ("user id has a byte other than 0x00 behind its end at byte 45",
              complaint([&] { decodeEsiRequest(stray, 32); }));
}

// --------------------------------------------------------------------------------------- passwords

TEST(UnmaskPassword, UndoesTheScrambling)
{
    EXPECT_EQ("ABC", unmaskPassword({0xBE, 0x03, 0x01}));
    EXPECT_EQ("", unmaskPassword({}));
    EXPECT_EQ("\xFF\x01", unmaskPassword({0x00, 0xFE}));
}

TEST(Wipe, OverwritesTheWholeBufferOfAText)
{
    std::string text = "a password that is too long to be kept in the string itself";
    const char* const bytes = text.data();
    const std::size_t size = text.size();
    wipe(text);
    EXPECT_EQ("", text);
    ASSERT_EQ(bytes, text.data());
    EXPECT_EQ(std::string(size, '\0'), std::string(bytes, size));
}
