// ECI replies as they come in.
#include "socketbuffer_fixture.h"

#include <climits>

using namespace support;
using namespace unit;

namespace {

constexpr unsigned char untouched = 0xEE;

class FlowEciReply : public SocketBufferTest {
protected:
    FlowEciReply() { std::memset(&request, 0, sizeof request); }

    // Room for a COMMAREA; what is behind it must stay as it is.
    void withRoom(std::size_t size)
    {
        room = size;
        area.assign(size + 64, static_cast<char>(untouched));
        request.commarea = area.data();
    }

    // As the receiver sets it, so that no reply writes beyond the room.
    void withLimitedRoom(std::size_t size)
    {
        withRoom(size);
        request.limited = 1;
        request.capacity = size;
    }

    // Reads a body that has arrived.
    int readBody(const Bytes& body)
    {
        bindForReading(body.size());
        theirs.send(body);
        return clapiReadECIResponse(&sockBuffer, &request);
    }

    // A body of a program call with these lengths and data.
    static Bytes programBody(int commarealength, const Bytes& inboundAndData)
    {
        return hex("00000001 00000000 00000000 00000000 20202020") + be32(commarealength) +
               inboundAndData + hex("00");
    }

    // The COMMAREA as it is now.
    std::string commarea() const { return toHex(Bytes(area.begin(), area.begin() + end())); }

    bool isUntouchedFrom(std::size_t offset) const
    {
        for (std::size_t at = offset; at < area.size(); ++at)
            if (static_cast<unsigned char>(area[at]) != untouched) return false;
        return true;
    }

    // The reply was taken whole, and well.
    void expectTakenWhole()
    {
        EXPECT_EQ(0, sockBuffer.socketErr);
        EXPECT_EQ(0U, bytesLeft(&sockBuffer));
    }

    ECIRequest request;
    std::vector<char> area;
    std::size_t room = 0;

private:
    std::ptrdiff_t end() const { return static_cast<std::ptrdiff_t>(room); }
};

using FlowEciLimitedReply = FlowEciReply;

// ---- Program calls ----

TEST_F(FlowEciReply, ReadsEveryFieldOfAReply)
{
    withRoom(5);

    EXPECT_RC(0, readBody(hex("00000001 01020304 05060708 FFFFFFF9 41424344"
                              "00000005 00 48454C4C4F"
                              "00")));

    EXPECT_EQ(1, request.callType);
    EXPECT_EQ(0x01020304, request.luwToken);
    EXPECT_EQ(0x05060708, request.messageQualifier);
    EXPECT_EQ(-7, request.vornRc);
    EXPECT_EQ("ABCD", std::string(request.abendCode, 4));
    EXPECT_EQ(5, request.commarealength);
    EXPECT_EQ(5, request.commareaInboundLength);
    EXPECT_EQ("48454C4C 4F", commarea());
    EXPECT_TRUE(isUntouchedFrom(5));
    expectTakenWhole();
}

TEST_F(FlowEciReply, ReadsAReplyToATransactionProgram)
{
    withRoom(5);
    request.callType = 12;

    EXPECT_RC(0, readBody(hex("0000000C FFFFFFFE FFFFFFFD 00000000 00000000"
                              "00000005 00 48454C4C4F"
                              "00")));

    EXPECT_EQ(12, request.callType);
    EXPECT_EQ(-2, request.luwToken);
    EXPECT_EQ(-3, request.messageQualifier);
    EXPECT_EQ(0, request.vornRc);
    EXPECT_EQ("48454C4C 4F", commarea());
    expectTakenWhole();
}

TEST_F(FlowEciReply, StoresTheCallTypeOfTheReplyOverThatOfTheRequest)
{
    request.callType = 1;

    EXPECT_RC(0, readBody(hex("0000000C 00000000 00000000 00000000 00000000 00000000 00 00")));

    EXPECT_EQ(12, request.callType);
}

TEST_F(FlowEciReply, StoresTheLengthOfTheReplyOverThatOfTheRequest)
{
    withRoom(3);
    request.commarealength = 3;
    request.commareaInboundLength = 2;

    EXPECT_RC(0, readBody(programBody(2, hex("00 4142"))));

    EXPECT_EQ(2, request.commarealength);
    EXPECT_EQ(2, request.commareaInboundLength);
    EXPECT_EQ("4142EE", commarea());
}

TEST_F(FlowEciReply, KeepsAbendCodesOfAnyBytes)
{
    EXPECT_RC(0, readBody(hex("00000001 00000000 00000000 00000000 00FF2500 00000000 00 00")));

    EXPECT_EQ("00FF2500", toHex(Bytes(request.abendCode, request.abendCode + 4)));
    expectTakenWhole();
}

TEST_F(FlowEciReply, ReadsTheInboundBytesAndZeroesTheRest)
{
    withRoom(100);

    EXPECT_RC(0, readBody(programBody(100, hex("FF 00 0000000A") + text("0123456789"))));

    EXPECT_EQ(100, request.commarealength);
    EXPECT_EQ(10, request.commareaInboundLength);
    EXPECT_EQ(toHex(text("0123456789") + filled(90)), commarea());
    EXPECT_TRUE(isUntouchedFrom(100));
    expectTakenWhole();
}

TEST_F(FlowEciReply, TakesAnyInboundFlagAndAnyByteBehindIt)
{
    withRoom(3);
    for (const char* flags : {"01 00", "FF FF", "80 01", "7F 7F"}) {
        SCOPED_TRACE(flags);

        EXPECT_RC(0, readBody(programBody(3, hex(flags) + hex("00000001 41"))));

        EXPECT_EQ(1, request.commareaInboundLength);
        EXPECT_EQ("410000", commarea());
        expectTakenWhole();
    }
}

TEST_F(FlowEciReply, ReadsAnInboundLengthOfZero)
{
    withRoom(3);

    EXPECT_RC(0, readBody(programBody(3, hex("FF 00 00000000"))));

    EXPECT_EQ(0, request.commareaInboundLength);
    EXPECT_EQ("000000", commarea());
    expectTakenWhole();
}

TEST_F(FlowEciReply, ReadsAnInboundLengthOfTheWholeCommarea)
{
    withRoom(3);

    EXPECT_RC(0, readBody(programBody(3, hex("FF 00 00000003 414243"))));

    EXPECT_EQ("414243", commarea());
    EXPECT_TRUE(isUntouchedFrom(3));
}

TEST_F(FlowEciReply, ReadsAnInboundLengthAboveThatOfTheCommarea)
{
    withRoom(5);

    EXPECT_RC(0, readBody(programBody(3, hex("FF 00 00000005 4142434445"))));

    EXPECT_EQ(3, request.commarealength);
    EXPECT_EQ(5, request.commareaInboundLength);
    EXPECT_EQ("41424344 45", commarea());
    EXPECT_TRUE(isUntouchedFrom(5));
    expectTakenWhole();
}

TEST_F(FlowEciReply, ReadsAReplyWithoutACommarea)
{
    EXPECT_RC(0, readBody(programBody(0, hex("00"))));

    EXPECT_EQ(0, request.commarealength);
    EXPECT_EQ(0, request.commareaInboundLength);
    expectTakenWhole();
}

TEST_F(FlowEciReply, ReadsNoDataOfACommit)
{
    withRoom(5);
    request.extendedMode = 2;

    EXPECT_RC(0, readBody(hex("00000001 00000007 00000000 00000000 20202020 00000005 00 00")));

    EXPECT_EQ(7, request.luwToken);
    EXPECT_EQ(5, request.commarealength);
    EXPECT_TRUE(isUntouchedFrom(0));
    expectTakenWhole();
}

TEST_F(FlowEciReply, ReadsNoDataOfABackout)
{
    withRoom(5);
    request.extendedMode = 4;

    EXPECT_RC(0, readBody(hex(
                     "00000001 00000007 00000000 00000000 20202020 00000005 FF 00 00000005 00")));

    EXPECT_EQ(5, request.commareaInboundLength);
    EXPECT_TRUE(isUntouchedFrom(0));
    expectTakenWhole();
}

TEST_F(FlowEciReply, ReadsTheDataOfAnExtendedCall)
{
    withRoom(2);
    request.extendedMode = 1;

    EXPECT_RC(0, readBody(programBody(2, hex("00 4142"))));

    EXPECT_EQ("4142", commarea());
    expectTakenWhole();
}

TEST_F(FlowEciReply, LeavesTheFieldsThatAReplyDoesNotCarry)
{
    withRoom(2);
    request.extendedMode = 1;
    request.commareaOutboundLength = 0x11;
    request.qpxCorrelator = 0x22;
    request.server_num = 0x33;
    request.eciTimeout = 0x44;
    std::memcpy(request.server, "PROD1   ", 8);
    std::memcpy(request.program, "PAYROLL ", 8);

    EXPECT_RC(0, readBody(programBody(2, hex("00 4142"))));

    EXPECT_EQ(1, request.extendedMode);
    EXPECT_EQ(0x11, request.commareaOutboundLength);
    EXPECT_EQ(0x22, request.qpxCorrelator);
    EXPECT_EQ(0x33, request.server_num);
    EXPECT_EQ(0x44, request.eciTimeout);
    EXPECT_EQ("PROD1   ", std::string(request.server, 8));
    EXPECT_EQ("PAYROLL ", std::string(request.program, 8));
}

TEST_F(FlowEciReply, ChangesNothingForAChannelThatTheCallDoesNotHave)
{
    withRoom(2);

    EXPECT_RC(0, readBody(hex("00000001 00000000 00000000 00000000 20202020 00000002 00 4142 FF") +
                          text("CHANNEL1        ") + hex("000004B8 00000000")));

    EXPECT_EQ("4142", commarea());
    EXPECT_EQ(0, sockBuffer.socketErr);
    EXPECT_EQ(nullptr, request.channel);
}

// Data follows the records of added and modified containers only, whatever lengths others have.
TEST_F(FlowEciReply, DropsAChannelThatTheCallDoesNotHave)
{
    withRoom(2);

    EXPECT_RC(0, readBody(hex("00000001 00000000 00000000 00000000 20202020 00000002 00 4142 FF") +
                          text("CHANNEL1        ") + hex("000004B8 00000006") +
                          text("ADDED           ") + hex("01 0000 01 000004B8 00000003 414243") +
                          text("DELETED         ") + hex("02 0000 01 000004B8 00000064") +
                          text("MODIFIED        ") + hex("03 FFFF 02 000004B8 00000002 4142") +
                          text("UNCHANGED       ") + hex("04 0000 02 000004B8 00000064") +
                          text("UNKNOWN         ") + hex("05 0000 07 000004B8 00000064") +
                          text("EMPTY           ") + hex("01 0000 02 000004B8 00000000")));

    EXPECT_EQ("4142", commarea());
    EXPECT_TRUE(isUntouchedFrom(2));
    expectTakenWhole();
}

TEST_F(FlowEciReply, DropsAChannelOfMoreContainersThanTheBodyHas)
{
    withRoom(2);

    EXPECT_RC(0, readBody(hex("00000001 00000000 00000000 00000000 20202020 00000002 00 4142 FF") +
                          text("CHANNEL1        ") + hex("000004B8 7FFFFFFF") +
                          text("ADDED           ") + hex("01 0000 01 000004B8 00000003 414243")));

    EXPECT_EQ("4142", commarea());
    EXPECT_TRUE(isUntouchedFrom(2));
    expectTakenWhole();
}

// ---- Lists of systems ----

TEST_F(FlowEciReply, ReadsAListOfSystems)
{
    withRoom(140);
    request.callType = 9;
    Bytes entries = countedBytes(140);

    EXPECT_RC(0, readBody(hex("00000009 00000002 FFFFFFE7 0000008C") + entries));

    EXPECT_EQ(9, request.callType);
    EXPECT_EQ(2, request.server_num);
    EXPECT_EQ(-25, request.vornRc);
    EXPECT_EQ(140, request.commarealength);
    EXPECT_EQ(toHex(entries), commarea());
    EXPECT_TRUE(isUntouchedFrom(140));
    expectTakenWhole();
}

TEST_F(FlowEciReply, ReadsAnEmptyListOfSystems)
{
    withRoom(70);
    request.callType = 9;

    EXPECT_RC(0, readBody(hex("00000009 00000000 FFFFFFE6 00000000")));

    EXPECT_EQ(0, request.server_num);
    EXPECT_EQ(-26, request.vornRc);
    EXPECT_TRUE(isUntouchedFrom(0));
    expectTakenWhole();
}

TEST_F(FlowEciReply, ReadsNothingMoreOfAListOfSystems)
{
    withRoom(2);

    EXPECT_RC(0, readBody(hex("00000009 00000000 00000000 00000002 4142 FF11")));

    EXPECT_EQ("FF11", toHex(unread()));
}

// ---- Other call types ----

TEST_F(FlowEciReply, ReadsNothingButTheCallTypeOfAnyOtherReply)
{
    withRoom(2);
    request.luwToken = 0x77;
    for (const char* callType : {"00000000", "00000002", "0000000A", "0000000D", "FFFFFFFF"}) {
        SCOPED_TRACE(callType);
        Bytes rest = hex("00000001 00000002");

        EXPECT_RC(0, readBody(hex(callType) + rest));

        EXPECT_EQ(int32At(hex(callType), 0), request.callType);
        EXPECT_EQ(0x77, request.luwToken);
        EXPECT_EQ(toHex(rest), toHex(unread()));
        EXPECT_TRUE(isUntouchedFrom(0));
    }
}

// ---- In pieces ----

TEST_F(FlowEciReply, ReadsAReplyInPiecesOfEverySize)
{
    Bytes body = hex("00000001 01020304 05060708 FFFFFFF9 41424344"
                     "0000000C FF 00 0000000A") +
                 text("0123456789") + hex("00");
    for (std::size_t capacity : {std::size_t{4}, std::size_t{5}, std::size_t{11}, body.size()}) {
        for (std::size_t piece = 1; piece <= body.size(); ++piece) {
            SCOPED_TRACE(std::to_string(piece) + " bytes into " + std::to_string(capacity));
            std::memset(&request, 0, sizeof request);
            withRoom(12);
            bindForReading(capacity);
            sockBuffer.totalCount = body.size();
            auto sender = sendApart(body, piece);

            EXPECT_RC(0, clapiReadECIResponse(&sockBuffer, &request));

            EXPECT_TRUE(sender.get());
            EXPECT_EQ(0x01020304, request.luwToken);
            EXPECT_EQ(0x05060708, request.messageQualifier);
            EXPECT_EQ(-7, request.vornRc);
            EXPECT_EQ("ABCD", std::string(request.abendCode, 4));
            EXPECT_EQ(12, request.commarealength);
            EXPECT_EQ(10, request.commareaInboundLength);
            EXPECT_EQ(toHex(text("0123456789") + filled(2)), commarea());
            expectTakenWhole();
            ASSERT_RC(0, freeBuffer(&sockBuffer));
        }
    }
}

TEST_F(FlowEciReply, ReadsAListOfSystemsInPiecesOfEverySize)
{
    Bytes body = hex("00000009 00000002 00000000 0000000E") + text("PROD1 and TEST");
    for (std::size_t piece = 1; piece <= body.size(); ++piece) {
        SCOPED_TRACE(piece);
        std::memset(&request, 0, sizeof request);
        withRoom(14);
        bindForReading(body.size());
        auto sender = sendApart(body, piece);

        EXPECT_RC(0, clapiReadECIResponse(&sockBuffer, &request));

        EXPECT_TRUE(sender.get());
        EXPECT_EQ(2, request.server_num);
        EXPECT_EQ(toHex(text("PROD1 and TEST")), commarea());
        expectTakenWhole();
    }
}

TEST_F(FlowEciReply, ReadsACommareaLargerThanTheBuffer)
{
    withRoom(40000);
    Bytes contents = countedBytes(40000);
    Bytes body = programBody(40000, hex("00") + contents);
    bindForReading(body.size());
    auto sender = callInThread([&] {
        theirs.send(body);
        return 0;
    });

    EXPECT_RC(0, clapiReadECIResponse(&sockBuffer, &request));

    sender.get();
    EXPECT_EQ(toHex(contents), commarea());
    EXPECT_TRUE(isUntouchedFrom(40000));
    expectTakenWhole();
}

// ---- Replies that end early ----

TEST_F(FlowEciReply, LeavesTheErrorOfAConnectionThatEndsToTheBuffer)
{
    Bytes body = hex(
        "00000001 01020304 05060708 FFFFFFF9 41424344 00000003 FF 00 00000003 414243 00");
    for (std::size_t there = 0; there < body.size(); ++there) {
        SCOPED_TRACE(there);
        std::memset(&request, 0, sizeof request);
        withRoom(3);
        auto sockets = socketPair();
        ASSERT_RC(0, initReadBuffer(&sockBuffer, sockets.first.fd(), body.size()));
        sockets.second.send(slice(body, 0, there));
        sockets.second.close();

        EXPECT_RC(0, clapiReadECIResponse(&sockBuffer, &request));

        EXPECT_NE(0, sockBuffer.socketErr);
        EXPECT_TRUE(isUntouchedFrom(3));
    }
}

TEST_F(FlowEciReply, LeavesTheErrorOfABodyThatIsTooShortToTheBuffer)
{
    Bytes body = hex(
        "00000001 01020304 05060708 FFFFFFF9 41424344 00000003 FF 00 00000003 414243 00");
    for (std::size_t there = 0; there < body.size(); ++there) {
        SCOPED_TRACE(there);
        std::memset(&request, 0, sizeof request);
        withRoom(3);

        EXPECT_RC(0, readBody(slice(body, 0, there)));

        EXPECT_EQ(EBADMSG, sockBuffer.socketErr);
        EXPECT_TRUE(isUntouchedFrom(3));
        freeBuffer(&sockBuffer);
    }
}

TEST_F(FlowEciReply, GivesZeroForFieldsThatAreNotThere)
{
    request.luwToken = 0x11;
    request.messageQualifier = 0x22;
    request.vornRc = 0x33;

    EXPECT_RC(0, readBody(hex("00000001 00000044")));

    EXPECT_EQ(0x44, request.luwToken);
    EXPECT_EQ(0, request.messageQualifier);
    EXPECT_EQ(0, request.vornRc);
    EXPECT_EQ(EBADMSG, sockBuffer.socketErr);
}

TEST_F(FlowEciReply, TakesNoByteBehindABodyThatIsTooShort)
{
    withRoom(64);
    bindForReading(33000);
    Bytes body = hex("00000001 00000000 00000000 00000000 20202020 00000040 00 414243");
    ASSERT_RC(0, initReadBuffer(&sockBuffer, ours.fd(), body.size()));
    theirs.send(body + text("the next flow"));

    EXPECT_RC(0, clapiReadECIResponse(&sockBuffer, &request));

    EXPECT_EQ(EBADMSG, sockBuffer.socketErr);
    EXPECT_EQ("the next flow", toText(ours.read(13)));
}

// ---- Lengths that do not suit the storage ----

TEST_F(FlowEciLimitedReply, ReadsAReplyThatFitsExactly)
{
    withLimitedRoom(5);

    EXPECT_RC(0, readBody(programBody(5, hex("00 48454C4C4F"))));

    EXPECT_EQ("48454C4C 4F", commarea());
    EXPECT_EQ(5, request.commareaInboundLength);
    EXPECT_TRUE(isUntouchedFrom(5));
    expectTakenWhole();
}

TEST_F(FlowEciLimitedReply, DropsWhatIsBeyondTheRoom)
{
    withLimitedRoom(4);

    EXPECT_RC(0, readBody(programBody(5, hex("00 48454C4C4F"))));

    EXPECT_EQ("48454C4C", commarea());
    EXPECT_TRUE(isUntouchedFrom(4));
    expectTakenWhole();
}

TEST_F(FlowEciLimitedReply, KeepsTheRoomBehindAShorterReply)
{
    withLimitedRoom(10);

    EXPECT_RC(0, readBody(programBody(5, hex("FF 00 00000002 4142"))));

    EXPECT_EQ("41420000 00EEEEEE EEEE", commarea());
    expectTakenWhole();
}

TEST_F(FlowEciLimitedReply, ZeroesNoMoreThanTheRoom)
{
    withLimitedRoom(10);

    EXPECT_RC(0, readBody(programBody(100, hex("FF 00 00000002 4142"))));

    EXPECT_EQ("41420000 00000000 0000", commarea());
    EXPECT_TRUE(isUntouchedFrom(10));
    expectTakenWhole();
}

TEST_F(FlowEciLimitedReply, ZeroesNoMoreThanTheRoomForTheGreatestLength)
{
    withLimitedRoom(10);

    EXPECT_RC(0, readBody(programBody(INT_MAX, hex("FF 00 0000000A") + text("0123456789"))));

    EXPECT_EQ(toHex(text("0123456789")), commarea());
    EXPECT_TRUE(isUntouchedFrom(10));
    expectTakenWhole();
}

TEST_F(FlowEciLimitedReply, TakesANegativeLengthForZero)
{
    withLimitedRoom(4);

    EXPECT_RC(0, readBody(programBody(-1, hex("00"))));

    EXPECT_TRUE(isUntouchedFrom(0));
    expectTakenWhole();
}

TEST_F(FlowEciLimitedReply, TakesANegativeInboundLengthForZero)
{
    withLimitedRoom(4);

    EXPECT_RC(0, readBody(programBody(4, hex("FF 00 80000000"))));

    EXPECT_EQ("00000000", commarea());
    EXPECT_TRUE(isUntouchedFrom(4));
    expectTakenWhole();
}

TEST_F(FlowEciLimitedReply, DropsEverythingWithoutRoom)
{
    withLimitedRoom(0);

    EXPECT_RC(0, readBody(programBody(5, hex("00 48454C4C4F"))));

    EXPECT_TRUE(isUntouchedFrom(0));
    expectTakenWhole();
}

TEST_F(FlowEciLimitedReply, DropsEverythingWithoutACommarea)
{
    request.limited = 1;
    request.commarea = nullptr;
    request.capacity = 0;

    EXPECT_RC(0, readBody(programBody(10, hex("FF 00 00000005 48454C4C4F"))));

    EXPECT_EQ(nullptr, request.commarea);
    expectTakenWhole();
}

TEST_F(FlowEciLimitedReply, DropsMoreThanTheBufferHolds)
{
    withLimitedRoom(100);
    Bytes contents = countedBytes(70000);
    Bytes body = programBody(70000, hex("00") + contents);
    bindForReading(body.size());
    auto sender = callInThread([&] {
        theirs.send(body);
        return 0;
    });

    EXPECT_RC(0, clapiReadECIResponse(&sockBuffer, &request));

    sender.get();
    EXPECT_EQ(toHex(slice(contents, 0, 100)), commarea());
    EXPECT_TRUE(isUntouchedFrom(100));
    expectTakenWhole();
}

TEST_F(FlowEciLimitedReply, EndsAtTheEndOfTheMessageWhateverItsLengthsSay)
{
    withLimitedRoom(100);

    EXPECT_RC(0, readBody(programBody(INT_MAX, hex("FF 00 7FFFFFFF 414243"))));

    EXPECT_EQ(EBADMSG, sockBuffer.socketErr);
    EXPECT_TRUE(isUntouchedFrom(100));
}

TEST_F(FlowEciLimitedReply, ReadsNoDataOfACommit)
{
    withLimitedRoom(5);
    request.extendedMode = 2;

    EXPECT_RC(0, readBody(hex("00000001 00000007 00000000 00000000 20202020 00000005 00 00")));

    EXPECT_TRUE(isUntouchedFrom(0));
    expectTakenWhole();
}

TEST_F(FlowEciLimitedReply, DropsSystemsBeyondTheRoom)
{
    withLimitedRoom(70);
    Bytes entries = countedBytes(140);

    EXPECT_RC(0, readBody(hex("00000009 00000002 00000000 0000008C") + entries));

    EXPECT_EQ(toHex(slice(entries, 0, 70)), commarea());
    EXPECT_TRUE(isUntouchedFrom(70));
    EXPECT_EQ(2, request.server_num);
    expectTakenWhole();
}

TEST_F(FlowEciLimitedReply, ReadsSystemsThatFitExactly)
{
    withLimitedRoom(140);
    Bytes entries = countedBytes(140);

    EXPECT_RC(0, readBody(hex("00000009 00000002 00000000 0000008C") + entries));

    EXPECT_EQ(toHex(entries), commarea());
    EXPECT_TRUE(isUntouchedFrom(140));
    expectTakenWhole();
}

TEST_F(FlowEciLimitedReply, TakesANegativeLengthOfSystemsForZero)
{
    withLimitedRoom(70);

    EXPECT_RC(0, readBody(hex("00000009 00000001 00000000 FFFFFFFF")));

    EXPECT_TRUE(isUntouchedFrom(0));
    expectTakenWhole();
}

TEST_F(FlowEciLimitedReply, EndsAtTheEndOfTheMessageForSystems)
{
    withLimitedRoom(70);

    EXPECT_RC(0, readBody(hex("00000009 00000001 00000000 00000046 4142")));

    EXPECT_EQ(EBADMSG, sockBuffer.socketErr);
    EXPECT_TRUE(isUntouchedFrom(70));
}

// ---- Trace ----

TEST_F(FlowEciReply, TracesEntryAndExit)
{
    withRoom(5);
    TraceFile trace(3);

    readBody(programBody(5, hex("00 48454C4C4F")));

    EXPECT_TRUE(wroteInOrder(trace, {3206, 2540, 2549, 2530, 2539, 3207}));
    EXPECT_TRUE(trace.wrote(
        3206, "ENTRY", "clapi_socketcomms.clapiReadECIResponse(sockBuffer=<ptr>, request=<ptr>)"));
    EXPECT_TRUE(trace.wrote(3207, "EXIT", "clapi_socketcomms.clapiReadECIResponse() rc=0"));
}

TEST_F(FlowEciReply, TracesNothingAtLevelTwo)
{
    withRoom(5);
    TraceFile trace(2);

    readBody(programBody(5, hex("00 48454C4C4F")));

    EXPECT_EQ("", trace.text());
}

} // namespace
