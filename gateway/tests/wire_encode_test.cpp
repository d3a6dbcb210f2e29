// Every flow that a Gateway sends, against bytes typed by hand.

#include <gtest/gtest.h>

#include "standin/wire.h"

using namespace standin;

namespace {

Bytes bytesOf(std::initializer_list<int> values)
{
    Bytes bytes;
    for (const int value : values) bytes.push_back(static_cast<std::uint8_t>(value));
    return bytes;
}

EciRequest requestFor(std::int32_t commareaLength)
{
    EciRequest request;
    request.callType = 1;
    request.commareaLength = commareaLength;
    return request;
}

} // namespace

TEST(EncodeFlow, WritesTheHeaderFieldByField)
{
    Flow flow;
    flow.header.flowType = 3;
    flow.header.messageId = 17;
    flow.header.gatewayRc = -9;
    flow.header.requestType = "ECI";
    flow.body = {0xAA, 0xBB};
    EXPECT_EQ(bytesOf({
                  0x47, 0x61, 0x74, 0x65, // "Gate"
                  0x10, 0xA0, 0x10, 0x00, // version
                  0x00, 0x00, 0x00, 0x03, // FLOW_REPLY
                  0x00, 0x00, 0x00, 0x11, // message id
                  0xFF, 0xFF, 0xFF, 0xF7, // gatewayRc -9
                  0x00, 0x00, 0x00, 0x03, // request type length
                  0x45, 0x43, 0x49,       // "ECI"
                  0x00,                   // security
                  0x00, 0x00, 0x00, 0x02, // data length
                  0xAA, 0xBB,
              }),
              encodeFlow(flow));
}

TEST(EncodeFlow, SendsLengthsThatWereOverridden)
{
    Flow flow;
    flow.header.requestType = "ECI";
    flow.header.requestTypeLength = -1;
    flow.header.dataLength = 0x7FFFFFFF;
    const Bytes bytes = encodeFlow(flow);
    EXPECT_EQ(bytesOf({0xFF, 0xFF, 0xFF, 0xFF}), Bytes(bytes.begin() + 20, bytes.begin() + 24));
    EXPECT_EQ(bytesOf({0x7F, 0xFF, 0xFF, 0xFF}), Bytes(bytes.begin() + 28, bytes.end()));
}

TEST(EncodeFlow, AcceptsAHandshakeWith33Bytes)
{
    EXPECT_EQ(bytesOf({0x47, 0x61, 0x74, 0x65, 0x10, 0xA0, 0x10, 0x00, 0x00, 0x00, 0x00,
                       0x05, 0xFF, 0xFF, 0xFF, 0xFE, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                       0x00, 0x04, 0x42, 0x41, 0x53, 0x45, 0x00, 0x00, 0x00, 0x00, 0x00}),
              encodeHandshakeAccepted());
}

TEST(EncodeFlow, ClosesWith33Bytes)
{
    EXPECT_EQ(bytesOf({0x47, 0x61, 0x74, 0x65, 0x10, 0xA0, 0x10, 0x00, 0x00, 0x00, 0x00,
                       0x0A, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                       0x00, 0x04, 0x42, 0x41, 0x53, 0x45, 0x00, 0x00, 0x00, 0x00, 0x00}),
              encodeCloseFlow());
}

TEST(EncodeFlow, PutsTheCodeOfAnErrorFlowIntoTheHeader)
{
    EXPECT_EQ(bytesOf({0x47, 0x61, 0x74, 0x65, 0x10, 0xA0, 0x10, 0x00, 0x00, 0x00, 0x00,
                       0x04, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0xF0, 0x05, 0x00, 0x00,
                       0x00, 0x03, 0x45, 0x43, 0x49, 0x00, 0x00, 0x00, 0x00, 0x00}),
              encodeErrorFlow(5, 61445, "ECI"));
}

TEST(EncodeFlow, PutsTheTextOfAnExceptionBehindAByteAndAShortLength)
{
    const Bytes flow = encodeExceptionFlow(5, "oops", "ECI");
    EXPECT_EQ(6, flow[11]);
    EXPECT_EQ(bytesOf({0x00, 0x00, 0xF0, 0x06}), Bytes(flow.begin() + 16, flow.begin() + 20));
    EXPECT_EQ(bytesOf({0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x04, 'o', 'o', 'p', 's'}),
              Bytes(flow.begin() + 28, flow.end()));
}

TEST(EncodeFlow, SendsAPingWithoutABody)
{
    EXPECT_EQ(bytesOf({0x47, 0x61, 0x74, 0x65, 0x10, 0xA0, 0x10, 0x00, 0x00, 0x00, 0x00,
                       0x07, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                       0x00, 0x04, 0x42, 0x41, 0x53, 0x45, 0x00, 0x00, 0x00, 0x00, 0x00}),
              encodePing());
}

TEST(EncodeEciReply, WritesAWholeCommareaWithoutAnInboundLength)
{
    EciReply reply;
    reply.luwToken = 0x01020304;
    reply.messageQualifier = 7;
    reply.vornRc = -7;
    reply.abendCode = {{'A', 'Z', 'Z', 'Z'}};
    reply.commareaLength = 3;
    reply.commarea = {'x', 'y', 'z'};
    EXPECT_EQ(bytesOf({0x00, 0x00, 0x00, 0x01, 0x01, 0x02, 0x03, 0x04, 0x00, 0x00,
                       0x00, 0x07, 0xFF, 0xFF, 0xFF, 0xF9, 'A',  'Z',  'Z',  'Z',
                       0x00, 0x00, 0x00, 0x03, 0x00, 'x',  'y',  'z',  0x00}),
              encodeEciReplyBody(reply));
}

TEST(EncodeEciReply, WritesAnInboundLengthBehindTheFlagAndOneByteMore)
{
    EciReply reply;
    reply.callType = 12;
    reply.commareaLength = 100;
    reply.inboundLength = 2;
    reply.commarea = {'h', 'i'};
    EXPECT_EQ(bytesOf({0x00, 0x00, 0x00, 0x0C, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                       0x00, 0x00, 0x00, 0x00, 0x00, ' ',  ' ',  ' ',  ' ',  0x00, 0x00,
                       0x00, 0x64, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x02, 'h',  'i',  0x00}),
              encodeEciReplyBody(reply));
}

TEST(EncodeEciReply, SendsContradictingLengthsAsTheyStand)
{
    EciReply reply;
    reply.commareaLength = -1;
    reply.inboundLength = 1000000;
    const Bytes body = encodeEciReplyBody(reply);
    EXPECT_EQ(bytesOf({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x0F, 0x42, 0x40, 0x00}),
              Bytes(body.begin() + 20, body.end()));
}

TEST(EncodeEciReply, WritesOnlyTheCallTypeOfAnUnknownOne)
{
    EciReply reply;
    reply.callType = 5;
    EXPECT_EQ(bytesOf({0x00, 0x00, 0x00, 0x05}), encodeEciReplyBody(reply));
}

TEST(EncodeEciReply, WritesChannelChangesWithDataForAddedAndModifiedOnly)
{
    EciReply reply;
    reply.channel = Channel{"CH", 819, {}, std::nullopt};
    reply.channel->containers.push_back(
        {"A", Change::Modified, kContainerChar, 819, {'n', 'e', 'w'}, std::nullopt});
    reply.channel->containers.push_back({"B", Change::Deleted, kContainerBit, 0, {}, std::nullopt});
    const Bytes body = encodeEciReplyBody(reply);
    EXPECT_EQ(bytesOf({
                  0xFF, // channel flag
                  'C',  'H',  0,    0,    0,    0,    0,    0,    0,   0,   0,
                  0,    0,    0,    0,    0, // channel name
                  0x00, 0x00, 0x03, 0x33,    // CCSID
                  0x00, 0x00, 0x00, 0x02,    // two records
                  'A',  0,    0,    0,    0,    0,    0,    0,    0,   0,   0,
                  0,    0,    0,    0,    0, //
                  0x03, 0x00, 0x00, 0x02,    // modified, two bytes, character data
                  0x00, 0x00, 0x03, 0x33, 0x00, 0x00, 0x00, 0x03, 'n', 'e', 'w', //
                  'B',  0,    0,    0,    0,    0,    0,    0,    0,   0,   0,
                  0,    0,    0,    0,    0,                      //
                  0x02, 0x00, 0x00, 0x01,                         // deleted, two bytes, binary data
                  0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, //
              }),
              Bytes(body.begin() + 25, body.end()));
}

TEST(EncodeEciReply, WritesAddedAndUnchangedContainers)
{
    EciReply reply;
    reply.channel = Channel{"SIXTEEN-IS-LARGE", 1208, {}, std::nullopt};
    reply.channel->containers.push_back(
        {"NEW", Change::Added, kContainerBit, 0, {0x01, 0x02}, std::nullopt});
    reply.channel->containers.push_back(
        {"EMPTY", Change::Added, kContainerChar, 37, {}, std::nullopt});
    reply.channel->containers.push_back(
        {"OLD", Change::Unchanged, kContainerChar, 819, {'a', 'b', 'c'}, std::nullopt});
    const Bytes body = encodeEciReplyBody(reply);
    EXPECT_EQ(bytesOf({
                  0xFF,                                                            // channel flag
                  'S',  'I',  'X',  'T',  'E',  'E',  'N',  '-',  'I',  'S',  '-', //
                  'L',  'A',  'R',  'G',  'E',                                     // channel name
                  0x00, 0x00, 0x04, 0xB8,                                          // CCSID
                  0x00, 0x00, 0x00, 0x03,                                          // three records
                  'N',  'E',  'W',  0,    0,    0,    0,    0,    0,    0,    0,   //
                  0,    0,    0,    0,    0,                                       //
                  0x01, 0x00, 0x00, 0x01, // added, two bytes, binary data
                  0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x01, 0x02,    //
                  'E',  'M',  'P',  'T',  'Y',  0,    0,    0,    0,    0,    0, //
                  0,    0,    0,    0,    0,                                     //
                  0x01, 0x00, 0x00, 0x02, // added, two bytes, character data
                  0x00, 0x00, 0x00, 0x25, 0x00, 0x00, 0x00, 0x00,                //
                  'O',  'L',  'D',  0,    0,    0,    0,    0,    0,    0,    0, //
                  0,    0,    0,    0,    0,                                     //
                  0x04, 0x00, 0x00, 0x02, // unchanged, two bytes, character data
                  0x00, 0x00, 0x03, 0x33, 0x00, 0x00, 0x00, 0x03, // no data
              }),
              Bytes(body.begin() + 25, body.end()));
}

TEST(EncodeEciReply, SendsAWrongCountAndAWrongLengthAsTheyStand)
{
    EciReply reply;
    reply.channel = Channel{"CH", 819, {}, 7};
    reply.channel->containers.push_back({"A", Change::Added, kContainerBit, 0, {0x01}, 9});
    const Bytes body = encodeEciReplyBody(reply);
    EXPECT_EQ(bytesOf({0x00, 0x00, 0x00, 0x07}),
              Bytes(body.begin() + 46, body.begin() + 50)); // number of records
    EXPECT_EQ(bytesOf({0x00, 0x00, 0x00, 0x09, 0x01}),
              Bytes(body.end() - 5, body.end())); // length and data
}

TEST(EncodeEciReply, WritesASystemListAsNumberCodeLengthAndEntries)
{
    EciReply reply;
    reply.callType = 9;
    reply.serverNum = 1;
    reply.vornRc = -25;
    reply.commarea = encodeSystemEntries({{"SERV1", "The first"}});
    reply.commareaLength = 70;
    const Bytes body = encodeEciReplyBody(reply);
    ASSERT_EQ(16U + 70U, body.size());
    EXPECT_EQ(bytesOf({0, 0,   0,   9,   0,   0,   0,   1,   0xFF, 0xFF, 0xFF, 0xE7,
                       0, 0,   0,   70,  'S', 'E', 'R', 'V', '1',  0,    0,    0,
                       0, 'T', 'h', 'e', ' ', 'f', 'i', 'r', 's',  't',  0}),
              Bytes(body.begin(), body.begin() + 35));
}

TEST(EncodeEciReply, WritesAWholeSystemListByteForByte)
{
    EciRequest query;
    query.callType = 9;
    query.serverNum = 1;
    const EciReply reply = EciReply::systemList(query, {{"VORNTEST", "To try"}, {"B", ""}});
    EXPECT_EQ(fromHex("47617465 10A01000 00000003 00000005 00000000 00000003 454349 00 00000056 "
                      "00000009 00000001 FFFFFFE7 00000046 "
                      "564F524E54455354 00 546F20747279 "
                      "0000000000000000000000000000000000000000000000000000000000"
                      "0000000000000000000000000000000000000000000000000000"),
              encodeEciReply(5, reply));
}

TEST(EncodeEsiReply, WritesTheTimesInTheOrderVerifiedExpiryAccessed)
{
    EsiReply reply;
    reply.lastVerified = {2024, 1, 2, 3, 4, 5, 6};
    reply.expiry = {2025, 0, 0, 0, 0, 0, 0};
    reply.lastAccessed = {2023, 0, 0, 0, 0, 0, 0};
    reply.invalidCount = 4;
    const Bytes body = encodeEsiReplyBody(reply);
    ASSERT_EQ(92U, body.size());
    EXPECT_EQ(bytesOf({0, 0, 0, 0, 0, 0, 0x07, 0xE8, 0, 0, 0, 1, 0, 0, 0, 2,
                       0, 0, 0, 3, 0, 0, 0,    4,    0, 0, 0, 5, 0, 0, 0, 6}),
              Bytes(body.begin(), body.begin() + 32));
    EXPECT_EQ(bytesOf({0, 0, 0x07, 0xE9}), Bytes(body.begin() + 32, body.begin() + 36));
    EXPECT_EQ(bytesOf({0, 0, 0x07, 0xE7}), Bytes(body.begin() + 60, body.begin() + 64));
    EXPECT_EQ(bytesOf({0, 0, 0, 4}), Bytes(body.begin() + 88, body.end()));
}

TEST(EncodeEsiReply, WritesAWholeFlowByteForByte)
{
    EsiReply reply;
    reply.lastVerified = {2026, 2, 2, 10, 11, 12, 34};
    reply.expiry = {2026, 4, 31, 23, 59, 58, 99};
    reply.lastAccessed = {2025, 11, 24, 0, 1, 2, 3};
    reply.invalidCount = 2;
    EXPECT_EQ(fromHex("47617465 10A01000 00000003 00000007 00000000 00000003 455349 00 0000005C "
                      "00000000 "
                      "000007EA 00000002 00000002 0000000A 0000000B 0000000C 00000022 "
                      "000007EA 00000004 0000001F 00000017 0000003B 0000003A 00000063 "
                      "000007E9 0000000B 00000018 00000000 00000001 00000002 00000003 "
                      "00000002"),
              encodeEsiReply(7, reply));
}

TEST(EncodeEsiReply, WritesAWholeRefusalByteForByte)
{
    EsiReply reply;
    reply.vornRc = -107;
    EXPECT_EQ(fromHex("47617465 10A01000 00000003 00000009 00000000 00000003 455349 00 00000004 "
                      "FFFFFF95"),
              encodeEsiReply(9, reply));
}

TEST(EncodeEsiReply, IsCutOrFilledToTheSizeThatATestWants)
{
    EsiReply reply;
    reply.bodySize = 3;
    EXPECT_EQ(bytesOf({0, 0, 0}), encodeEsiReplyBody(reply));
    reply.vornRc = -106;
    reply.bodySize = 6;
    EXPECT_EQ(bytesOf({0xFF, 0xFF, 0xFF, 0x96, 0, 0}), encodeEsiReplyBody(reply));
    EXPECT_EQ(fromHex("47617465 10A01000 00000003 00000009 00000000 00000003 455349 00 00000006 "
                      "FFFFFF96 0000"),
              encodeEsiReply(9, reply));
}

TEST(EncodeEsiReply, EndsBehindACodeOtherThan0)
{
    EsiReply reply;
    reply.vornRc = -106;
    EXPECT_EQ(bytesOf({0xFF, 0xFF, 0xFF, 0x96}), encodeEsiReplyBody(reply));
}

TEST(EciReplyWithCommarea, SendsAllOfItWithoutAnInboundLength)
{
    const EciReply reply = EciReply::withCommarea(requestFor(3), {'a', 'b', 'c'});
    EXPECT_EQ(3, reply.commareaLength);
    EXPECT_FALSE(reply.inboundLength);
    EXPECT_EQ((Bytes{'a', 'b', 'c'}), reply.commarea);
}

TEST(EciReplyWithCommarea, AnnouncesShorterData)
{
    const EciReply reply = EciReply::withCommarea(requestFor(100), {'a'});
    EXPECT_EQ(100, reply.commareaLength);
    EXPECT_EQ(1, reply.inboundLength);
}

TEST(EciReplyWithCommarea, CutsToWhatTheClientWants)
{
    EciRequest request = requestFor(100);
    request.inboundLength = 2;
    const EciReply reply = EciReply::withCommarea(request, {'a', 'b', 'c'});
    EXPECT_EQ(2, reply.inboundLength);
    EXPECT_EQ((Bytes{'a', 'b'}), reply.commarea);
}

TEST(EciReplyAbend, KeepsFourCharactersAndFillsUpWithBlanks)
{
    EXPECT_EQ((std::array<char, 4>{{'L', 'O', 'N', 'G'}}),
              EciReply::abend(requestFor(0), "LONGER").abendCode);
    EXPECT_EQ((std::array<char, 4>{{'A', 'B', ' ', ' '}}),
              EciReply::abend(requestFor(0), "AB").abendCode);
    EXPECT_EQ(-7, EciReply::abend(requestFor(0), "AB").vornRc);
}

TEST(LengthOnWire, IsNeverNegative)
{
    EXPECT_EQ(2147483647, lengthOnWire(2147483647U));
    EXPECT_THROW(lengthOnWire(2147483648U), std::length_error);
    EXPECT_THROW(lengthOnWire(4294967295U), std::length_error);
}

TEST(Hex, GoesBothWays)
{
    EXPECT_EQ("00 1F A0", toHex({0x00, 0x1F, 0xA0}));
    EXPECT_EQ((Bytes{0x00, 0x1F, 0xA0}), fromHex("001f A0"));
    EXPECT_EQ(Bytes{}, fromHex(""));
}

TEST(Hex, RefusesWhatIsNone)
{
    EXPECT_THROW(fromHex("0"), std::invalid_argument);
    EXPECT_THROW(fromHex("0G"), std::invalid_argument);
}
