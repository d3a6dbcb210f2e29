// The header of every flow: built for requests, read from the Gateway.
#include "socketbuffer_fixture.h"

#include <climits>

using namespace support;
using namespace unit;

namespace {

class FlowHeader : public SocketBufferTest {
protected:
    FlowHeader() { std::memset(&header, 0x55, sizeof header); }

    // Reads a header that has arrived, with the long-lived buffer of a receiver.
    int readArrived(const Bytes& bytes)
    {
        bindForReading(33000);
        theirs.send(bytes);
        return clapiReadHeader(&sockBuffer, &header);
    }

    std::string requestType() const
    {
        return toHex(Bytes(header.requestType, header.requestType + sizeof header.requestType));
    }

    GatewayRequest header;
};

const char* const eciReply =
    "47617465 10A01000 00000003 00000011 00000000 00000003 454349 00 00000000";

// ---- Building ----

TEST_F(FlowHeader, NamesTheRequestTypesWithoutATerminator)
{
    EXPECT_EQ(4U, sizeof HANDSHAKE_REQUEST_NAME);
    EXPECT_EQ("BASE", std::string(HANDSHAKE_REQUEST_NAME, 4));
    EXPECT_EQ(3U, sizeof ECI_REQUEST_NAME);
    EXPECT_EQ("ECI", std::string(ECI_REQUEST_NAME, 3));
    EXPECT_EQ(3U, sizeof ESI_REQUEST_NAME);
    EXPECT_EQ("ESI", std::string(ESI_REQUEST_NAME, 3));
}

TEST_F(FlowHeader, BuildsTheHeaderOfAnEciRequest)
{
    clapiBuildRequestHeader(&header, 17, ECI_REQUEST_NAME);

    EXPECT_EQ(0x47617465, header.eyecatcher);
    EXPECT_EQ(0x10A01000, header.flowVersion);
    EXPECT_EQ(1, header.flowType);
    EXPECT_EQ(17, header.messageId);
    EXPECT_EQ(0, header.gatewayRc);
    EXPECT_EQ(3, header.requestTypeLength);
    EXPECT_EQ("45434900 0000", requestType());
    EXPECT_EQ(0, header.security);
}

TEST_F(FlowHeader, BuildsTheHeaderOfAnEsiRequest)
{
    clapiBuildRequestHeader(&header, 1, ESI_REQUEST_NAME);

    EXPECT_EQ(1, header.flowType);
    EXPECT_EQ(1, header.messageId);
    EXPECT_EQ(3, header.requestTypeLength);
    EXPECT_EQ("45534900 0000", requestType());
}

// ---- Reading ----

TEST_F(FlowHeader, ReadsTheHeaderOfAnEciReply)
{
    EXPECT_RC(0, readArrived(hex(
                     "47617465 10A01000 00000003 00000011 00000000 00000003 454349 00 00000000")));

    EXPECT_EQ(0x47617465, header.eyecatcher);
    EXPECT_EQ(0x10A01000, header.flowVersion);
    EXPECT_EQ(3, header.flowType);
    EXPECT_EQ(17, header.messageId);
    EXPECT_EQ(0, header.gatewayRc);
    EXPECT_EQ(3, header.requestTypeLength);
    EXPECT_EQ("45434900 0000", requestType());
    EXPECT_EQ(0, header.security);
    EXPECT_EQ(0, header.datalength);
    EXPECT_EQ(0U, bytesLeft(&sockBuffer));
}

TEST_F(FlowHeader, ReadsEveryFieldWithItsSign)
{
    EXPECT_RC(0, readArrived(hex(
                     "47617465 FEDCBA98 0000000A FFFFFFFF 80000001 00000003 455349 81 00010203")));

    EXPECT_EQ(static_cast<int>(0xFEDCBA98), header.flowVersion);
    EXPECT_EQ(10, header.flowType);
    EXPECT_EQ(-1, header.messageId);
    EXPECT_EQ(-2147483647, header.gatewayRc);
    EXPECT_EQ("45534900 0000", requestType());
    EXPECT_EQ(static_cast<char>(0x81), header.security);
    EXPECT_EQ(0x00010203, header.datalength);
}

TEST_F(FlowHeader, ReadsAHeaderOfAnotherFlowVersion)
{
    EXPECT_RC(0, readArrived(hex(
                     "47617465 00000000 00000007 00000000 00000000 00000003 454349 00 00000000")));

    EXPECT_EQ(0, header.flowVersion);
    EXPECT_EQ(7, header.flowType);
}

TEST_F(FlowHeader, ReadsTheLastByteOfAHandshakeAnswerBySecondFill)
{
    int before = callCount(Call::Recv);

    EXPECT_RC(
        0, readArrived(
               hex("47617465 10A01000 00000005 FFFFFFFE 00000000 00000004 42415345 00 00000012")));

    EXPECT_EQ(before + 2, callCount(Call::Recv));
    EXPECT_EQ(5, header.flowType);
    EXPECT_EQ(-2, header.messageId);
    EXPECT_EQ(4, header.requestTypeLength);
    EXPECT_EQ("42415345 0000", requestType());
    EXPECT_EQ(0x12, header.datalength);
    EXPECT_EQ(0U, bytesLeft(&sockBuffer));
}

TEST_F(FlowHeader, TracesTheSecondFillOfOneByte)
{
    TraceFile trace(4);

    readArrived(hex("47617465 10A01000 00000005 FFFFFFFE 00000000 00000004 42415345 00 00000012"));

    EXPECT_EQ(
        (std::vector<std::string>{"clapi_socketbuffer.fillBuffer() Attempting to read 32 bytes",
                                  "clapi_socketbuffer.fillBuffer() Attempting to read 1 bytes"}),
        trace.messages(2542));
}

TEST_F(FlowHeader, ReadsARequestTypeOfFiveBytes)
{
    EXPECT_RC(0,
              readArrived(hex(
                  "47617465 10A01000 00000003 00000001 00000000 00000005 4142434445 00 00000007")));

    EXPECT_EQ("41424344 4500", requestType());
    EXPECT_EQ(7, header.datalength);
    EXPECT_EQ(0U, bytesLeft(&sockBuffer));
}

TEST_F(FlowHeader, ReadsARequestTypeOfSixBytes)
{
    EXPECT_RC(
        0, readArrived(hex(
               "47617465 10A01000 00000003 00000001 00000000 00000006 414243444546 5A 00000007")));

    EXPECT_EQ("41424344 4546", requestType());
    EXPECT_EQ(0x5A, header.security);
    EXPECT_EQ(7, header.datalength);
    EXPECT_EQ(0U, bytesLeft(&sockBuffer));
}

TEST_F(FlowHeader, LeavesTheBytesOfTheBodyThatAShortRequestTypeMakesRoomFor)
{
    EXPECT_RC(0, readArrived(hex(
                     "47617465 10A01000 00000003 00000001 00000000 00000001 41 00 00000009 B1B2")));
    EXPECT_EQ("41000000 0000", requestType());
    EXPECT_EQ(9, header.datalength);
    EXPECT_EQ("B1B2", toHex(unread()));

    EXPECT_RC(0, readArrived(hex(
                     "47617465 10A01000 00000003 00000001 00000000 00000002 4142 00 00000009 B1")));
    EXPECT_EQ("41420000 0000", requestType());
    EXPECT_EQ("B1", toHex(unread()));
}

TEST_F(FlowHeader, ReadsAnEmptyRequestType)
{
    EXPECT_RC(0, readArrived(hex(
                     "47617465 10A01000 00000003 00000001 00000000 00000000 00 00000009 B1B2B3")));

    EXPECT_EQ(0, header.requestTypeLength);
    EXPECT_EQ("00000000 0000", requestType());
    EXPECT_EQ(9, header.datalength);
    EXPECT_EQ("B1B2B3", toHex(unread()));
}

TEST_F(FlowHeader, RefusesARequestTypeLongerThanItsField)
{
    EXPECT_RC(
        -9,
        readArrived(hex(
            "47617465 10A01000 00000003 00000001 00000000 00000007 41424344454647 00 00000000")));
}

TEST_F(FlowHeader, RefusesARequestTypeOfAnyGreaterLength)
{
    EXPECT_RC(-9, readArrived(hex(
                      "47617465 10A01000 00000003 00000001 00000000 7FFFFFFF 41424344 45464748")));
}

TEST_F(FlowHeader, RefusesARequestTypeOfNegativeLength)
{
    EXPECT_RC(-9, readArrived(hex(
                      "47617465 10A01000 00000003 00000001 00000000 FFFFFFFF 41424344 45464748")));
    EXPECT_RC(-9, readArrived(hex(
                      "47617465 10A01000 00000003 00000001 00000000 80000000 41424344 45464748")));
}

TEST_F(FlowHeader, RefusesABadEyecatcherAndReadsNothingElse)
{
    int before = callCount(Call::Recv);

    EXPECT_RC(-9, readArrived(hex(
                      "47617466 10A01000 00000003 00000001 00000000 00000003 454349 00 00000000")));

    EXPECT_EQ(before + 1, callCount(Call::Recv));
    EXPECT_EQ("10A01000 00000003 00000001 00000000 00000003 45434900 00000000", toHex(unread()));
}

TEST_F(FlowHeader, RefusesAnEyecatcherInTheOtherByteOrder)
{
    EXPECT_RC(-9, readArrived(hex(
                      "65746147 10A01000 00000003 00000001 00000000 00000003 454349 00 00000000")));
}

TEST_F(FlowHeader, TracesABadEyecatcher)
{
    TraceFile trace(3);

    readArrived(hex("48545450 2F312E31 00000003 00000001 00000000 00000003 454349 00 00000000"));

    EXPECT_TRUE(trace.wrote(3212, "ENTRY",
                            "clapi_socketcomms.clapiReadHeader(sockBuffer=<ptr>, req=<ptr>)"));
    EXPECT_TRUE(
        trace.wrote(3213, "*EXC*",
                    "clapi_socketcomms.clapiReadHeader() Bad eyecatcher! Expected=0x47617465, "
                    "actual=0x48545450"));
    EXPECT_TRUE(trace.wrote(3214, "EXIT", "clapi_socketcomms.clapiReadHeader() rc=-9"));
    EXPECT_TRUE(wroteInOrder(trace, {3212, 2510, 2515, 2540, 2549, 3213, 3214}));
}

TEST_F(FlowHeader, TracesABadEyecatcherAtLevelOne)
{
    TraceFile trace(1);

    readArrived(hex("00000000 2F312E31 00000003 00000001 00000000 00000003 454349 00 00000000"));

    EXPECT_EQ((std::vector<int>{3213}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(
        3213,
        "clapi_socketcomms.clapiReadHeader() Bad eyecatcher! Expected=0x47617465, actual=0x0"));
}

TEST_F(FlowHeader, TracesAHeader)
{
    bindForReading(33000);
    theirs.send(hex(eciReply));
    TraceFile trace(3);

    clapiReadHeader(&sockBuffer, &header);

    EXPECT_TRUE(wroteInOrder(trace, {3212, 2510, 2515, 2540, 2549, 2530, 2539, 3214}));
    EXPECT_TRUE(trace.wrote(3212, "ENTRY",
                            "clapi_socketcomms.clapiReadHeader(sockBuffer=<ptr>, req=<ptr>)"));
    EXPECT_TRUE(trace.wrote(3214, "EXIT", "clapi_socketcomms.clapiReadHeader() rc=0"));
}

TEST_F(FlowHeader, TracesNothingOfAHeaderAtLevelTwo)
{
    bindForReading(33000);
    theirs.send(hex(eciReply));
    TraceFile trace(2);

    clapiReadHeader(&sockBuffer, &header);

    EXPECT_EQ("", trace.text());
}

TEST_F(FlowHeader, WaitsForAHeaderThatComesInPiecesOfEverySize)
{
    Bytes bytes = hex("47617465 10A01000 00000004 FFFFFFFE 0000F005 00000004 42415345 00 00000000");
    for (std::size_t piece = 1; piece <= bytes.size(); ++piece) {
        SCOPED_TRACE(piece);
        bindForReading(33000);
        auto sender = sendApart(bytes, piece);

        EXPECT_RC(0, clapiReadHeader(&sockBuffer, &header));

        EXPECT_TRUE(sender.get());
        EXPECT_EQ(4, header.flowType);
        EXPECT_EQ(-2, header.messageId);
        EXPECT_EQ(61445, header.gatewayRc);
        EXPECT_EQ("42415345 0000", requestType());
        EXPECT_EQ(0, header.datalength);
    }
}

TEST_F(FlowHeader, FailsWhenTheConnectionEndsAnywhereInAHeader)
{
    Bytes bytes = hex("47617465 10A01000 00000005 FFFFFFFE 00000000 00000004 42415345 00 00000012");
    for (std::size_t there = 0; there < bytes.size(); ++there) {
        SCOPED_TRACE(there);
        auto sockets = socketPair();
        ASSERT_RC(0, initReadBuffer(&sockBuffer, sockets.first.fd(), 33000));
        sockets.second.send(slice(bytes, 0, there));
        sockets.second.close();

        EXPECT_RC(-102, clapiReadHeader(&sockBuffer, &header));

        EXPECT_NE(0, sockBuffer.socketErr);
    }
}

TEST_F(FlowHeader, FailsWhenTheSocketFails)
{
    bindForReading(33000);
    Fault broken = failCall(Call::Recv, 1, ECONNRESET);
    TraceFile trace(3);

    EXPECT_RC(-102, clapiReadHeader(&sockBuffer, &header));

    EXPECT_EQ(ECONNRESET, sockBuffer.socketErr);
    EXPECT_TRUE(trace.wrote(3214, "clapi_socketcomms.clapiReadHeader() rc=-102"));
}

TEST_F(FlowHeader, FailsWithoutMemoryForItsBuffer)
{
    sockBuffer.socketDesc = ours.fd();
    theirs.send(hex(eciReply));
    int before = callCount(Call::Recv);
    Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);

    EXPECT_RC(-111, clapiReadHeader(&sockBuffer, &header));

    EXPECT_EQ(1, noMemory.hits());
    EXPECT_EQ(before, callCount(Call::Recv));
}

TEST_F(FlowHeader, KeepsTheStorageAndTheSocketOfTheBuffer)
{
    bindForReading(33000);
    char* storage = sockBuffer.buffer;
    theirs.send(hex(eciReply) + hex(eciReply));

    EXPECT_RC(0, clapiReadHeader(&sockBuffer, &header));
    EXPECT_RC(0, clapiReadHeader(&sockBuffer, &header));

    EXPECT_EQ(storage, sockBuffer.buffer);
    EXPECT_EQ(33000U, sockBuffer.bufferSize);
    EXPECT_EQ(ours.fd(), sockBuffer.socketDesc);
    EXPECT_EQ(17, header.messageId);
}

TEST_F(FlowHeader, LeavesTheBodyToItsReader)
{
    bindForReading(33000);
    theirs.send(hex("47617465 10A01000 00000003 00000011 00000000 00000003 454349 00 00000008") +
                hex("0102030405060708"));

    ASSERT_RC(0, clapiReadHeader(&sockBuffer, &header));

    EXPECT_EQ(8, header.datalength);
    sockBuffer.totalCount += 8;
    EXPECT_RC(0, fillBuffer(&sockBuffer));
    EXPECT_EQ("01020304 05060708", toHex(unread()));
}

TEST_F(FlowHeader, StartsAnewAfterAnError)
{
    bindForReading(33000);
    theirs.send(hex(eciReply));
    sockBuffer.socketErr = EBADMSG;

    EXPECT_RC(0, clapiReadHeader(&sockBuffer, &header));

    EXPECT_EQ(0, sockBuffer.socketErr);
}

} // namespace
