// Filling a socket buffer from its socket and taking fields out of it.
#include "socketbuffer_fixture.h"

using namespace support;
using namespace unit;

namespace {

class SocketBufferRead : public SocketBufferTest {
protected:
    // The buffer bound for a message that has arrived.
    void arrive(const Bytes& message)
    {
        bindForReading(message.size());
        theirs.send(message);
    }
};

// ---- Filling ----

TEST_F(SocketBufferRead, FillsWithTheWholeMessage)
{
    arrive(text("ABCDEFGH"));

    EXPECT_RC(0, fillBuffer(&sockBuffer));

    EXPECT_EQ(8U, sockBuffer.count);
    EXPECT_EQ(0U, sockBuffer.totalCount);
    EXPECT_EQ(sockBuffer.buffer, sockBuffer.ptr);
    EXPECT_EQ("41424344 45464748", toHex(unread()));
}

TEST_F(SocketBufferRead, FillsWithNoByteBeyondTheMessage)
{
    bindForReading(500);
    bindForReading(4);
    theirs.send(text("ABCDEFGH"));

    EXPECT_RC(0, fillBuffer(&sockBuffer));

    EXPECT_EQ("41424344", toHex(unread()));
    EXPECT_EQ("45464748", toHex(ours.read(4)));
}

TEST_F(SocketBufferRead, FillsWithNoMoreThanTheBufferHolds)
{
    bindForReading(33005);
    Bytes message = countedBytes(33005);
    auto sender = callInThread([&] {
        theirs.send(message);
        return 0;
    });

    EXPECT_RC(0, fillBuffer(&sockBuffer));

    EXPECT_EQ(33000U, sockBuffer.count);
    EXPECT_EQ(5U, sockBuffer.totalCount);
    EXPECT_TRUE(slice(message, 0, 33000) == unread());
    sender.get();
    EXPECT_EQ(toHex(slice(message, 33000, 5)), toHex(ours.read(5)));
}

TEST_F(SocketBufferRead, WaitsUntilTheWholeMessageIsThere)
{
    for (std::size_t piece = 1; piece <= 9; ++piece) {
        SCOPED_TRACE(piece);
        bindForReading(9);
        auto sender = sendApart(text("ABCDEFGHI"), piece);

        EXPECT_RC(0, fillBuffer(&sockBuffer));

        EXPECT_TRUE(sender.get());
        EXPECT_EQ("ABCDEFGHI", toText(unread()));
        EXPECT_EQ(0U, sockBuffer.totalCount);
    }
}

TEST_F(SocketBufferRead, TakesWhatEachReceiveGives)
{
    arrive(text("ABCDEFGHI"));
    Fault narrow = limitLength(Call::Recv, 2);

    EXPECT_RC(0, fillBuffer(&sockBuffer));

    EXPECT_EQ(5, narrow.calls());
    EXPECT_EQ(4, narrow.hits()); // the last one asked for one byte
    EXPECT_EQ("ABCDEFGHI", toText(unread()));
}

TEST_F(SocketBufferRead, MovesUnreadBytesToTheStartBeforeItFills)
{
    bindForReading(12);
    bindForReading(6);
    theirs.send(text("ABCDEFGHIJ"));
    ASSERT_RC(0, fillBuffer(&sockBuffer));
    EXPECT_EQ("ABCD", toText(take(4)));
    sockBuffer.totalCount = 4;

    EXPECT_RC(0, fillBuffer(&sockBuffer));

    EXPECT_EQ(sockBuffer.buffer, sockBuffer.ptr);
    EXPECT_EQ(6U, sockBuffer.count);
    EXPECT_EQ("EFGHIJ", toText(unread()));
    EXPECT_EQ(0U, sockBuffer.totalCount);
}

TEST_F(SocketBufferRead, MovesAlmostAWholeBufferOfUnreadBytes)
{
    Bytes message = countedBytes(33003);
    bindForReading(33000);
    auto sender = callInThread([&] {
        theirs.send(message);
        return 0;
    });
    ASSERT_RC(0, fillBuffer(&sockBuffer));
    take(3);
    sockBuffer.totalCount = 3;

    EXPECT_RC(0, fillBuffer(&sockBuffer));

    sender.get();
    EXPECT_EQ(33000U, sockBuffer.count);
    EXPECT_TRUE(slice(message, 3, 33000) == unread());
}

TEST_F(SocketBufferRead, FillsTheSpaceThatUnreadBytesLeave)
{
    bindForReading(6);
    theirs.send(text("ABCDEFGHIJKLMN"));
    ASSERT_RC(0, fillBuffer(&sockBuffer));
    EXPECT_EQ("ABCD", toText(take(4)));
    sockBuffer.totalCount = 8;

    EXPECT_RC(0, fillBuffer(&sockBuffer));

    EXPECT_EQ("EFGHIJ", toText(unread()));
    EXPECT_EQ(4U, sockBuffer.totalCount);
}

TEST_F(SocketBufferRead, ReceivesNothingWhenTheMessageIsThereAlready)
{
    arrive(text("ABCD"));
    ASSERT_RC(0, fillBuffer(&sockBuffer));
    int before = callCount(Call::Recv);

    EXPECT_RC(0, fillBuffer(&sockBuffer));

    EXPECT_EQ(before, callCount(Call::Recv));
    EXPECT_EQ("ABCD", toText(unread()));
}

TEST_F(SocketBufferRead, ReceivesNothingAfterAnError)
{
    arrive(text("ABCD"));
    sockBuffer.socketErr = ETIMEDOUT;
    int before = callCount(Call::Recv);

    EXPECT_RC(-102, fillBuffer(&sockBuffer));

    EXPECT_EQ(before, callCount(Call::Recv));
    EXPECT_EQ(ETIMEDOUT, sockBuffer.socketErr);
}

TEST_F(SocketBufferRead, KeepsTheErrnoOfAFailedReceive)
{
    arrive(text("ABCD"));
    Fault broken = failCall(Call::Recv, 1, ECONNRESET);

    EXPECT_RC(-102, fillBuffer(&sockBuffer));

    EXPECT_EQ(ECONNRESET, sockBuffer.socketErr);
    EXPECT_EQ(0U, sockBuffer.count);
    EXPECT_EQ(4U, sockBuffer.totalCount);
}

TEST_F(SocketBufferRead, FailsWhenThePeerResetsTheConnection)
{
    bindForReading(8);
    ours.send(text("never read"));
    theirs.close();

    EXPECT_RC(-102, fillBuffer(&sockBuffer));

    EXPECT_EQ(ECONNRESET, sockBuffer.socketErr);
}

TEST_F(SocketBufferRead, RepeatsAReceiveThatASignalInterrupted)
{
    arrive(text("ABCD"));
    Fault first = failCall(Call::Recv, 1, EINTR);
    Fault second = failCall(Call::Recv, 2, EINTR);

    EXPECT_RC(0, fillBuffer(&sockBuffer));

    EXPECT_EQ(1, second.hits());
    EXPECT_EQ(0, sockBuffer.socketErr);
    EXPECT_EQ("ABCD", toText(unread()));
}

TEST_F(SocketBufferRead, FailsWhenThePeerClosesAnywhereInTheMessage)
{
    for (std::size_t there = 0; there < 8; ++there) {
        SCOPED_TRACE(there);
        auto sockets = socketPair();
        ASSERT_RC(0, initReadBuffer(&sockBuffer, sockets.first.fd(), 8));
        sockets.second.send(slice(text("ABCDEFGH"), 0, there));
        sockets.second.close();

        EXPECT_RC(-102, fillBuffer(&sockBuffer));

        EXPECT_NE(0, sockBuffer.socketErr);
        EXPECT_EQ(there, sockBuffer.count);
        EXPECT_EQ(8 - there, sockBuffer.totalCount);
        EXPECT_EQ(toHex(slice(text("ABCDEFGH"), 0, there)), toHex(unread()));
    }
}

TEST_F(SocketBufferRead, StaysFailedAfterThePeerClosed)
{
    bindForReading(8);
    theirs.send(text("ABCDEF"));
    theirs.close();
    ASSERT_RC(-102, fillBuffer(&sockBuffer));
    int before = callCount(Call::Recv);

    EXPECT_RC(-102, fillBuffer(&sockBuffer));
    EXPECT_EQ(0, readByte(&sockBuffer));
    EXPECT_EQ(0, readShort(&sockBuffer));
    EXPECT_EQ(0, readInt(&sockBuffer));
    EXPECT_EQ("EEEE", toHex(take(2)));

    EXPECT_EQ(before, callCount(Call::Recv));
}

TEST_F(SocketBufferRead, TracesAFill)
{
    arrive(text("ABCDEFGHIJKLMNOPQRST"));
    TraceFile trace(4);

    fillBuffer(&sockBuffer);

    EXPECT_EQ((std::vector<int>{2540, 2542, 2544, 2545, 2549}), pointsOf(trace));
    EXPECT_EQ((std::vector<std::string>{"ENTRY", "DEBUG", "DATA", "DEBUG", "EXIT"}),
              typesOf(trace));
    EXPECT_TRUE(trace.wrote(2540, "clapi_socketbuffer.fillBuffer(<any>)"));
    EXPECT_TRUE(trace.wrote(2542, "clapi_socketbuffer.fillBuffer() Attempting to read 20 bytes"));
    EXPECT_TRUE(
        trace.wroteText("clapi_socketbuffer.fillBuffer() data=<ptr> len=20 stopword=00000000\n"
                        "Data truncation size=128, offset=0\n"
                        "<ptr>: 41424344 45464748 494A4B4C 4D4E4F50 : ABCDEFGHIJKLMNOP \n"
                        "<ptr>: 51525354                            : QRST\n"));
    EXPECT_TRUE(
        trace.wrote(2545, "clapi_socketbuffer.fillBuffer() Read 20 bytes, 0 bytes remaining"));
    EXPECT_TRUE(trace.wrote(2549, "clapi_socketbuffer.fillBuffer() rc=0 (QPX_OK)"));
}

TEST_F(SocketBufferRead, TracesEveryAttemptOfAFillAndTheLastResult)
{
    bindForReading(10);
    theirs.send(text("ABCDEFGHIJ"));
    TraceFile trace(4);
    Fault narrow = limitLength(Call::Recv, 4);

    fillBuffer(&sockBuffer);

    EXPECT_EQ((std::vector<int>{2540, 2542, 2542, 2542, 2544, 2545, 2549}), pointsOf(trace));
    EXPECT_EQ(
        (std::vector<std::string>{"clapi_socketbuffer.fillBuffer() Attempting to read 10 bytes",
                                  "clapi_socketbuffer.fillBuffer() Attempting to read 6 bytes",
                                  "clapi_socketbuffer.fillBuffer() Attempting to read 2 bytes"}),
        trace.messages(2542));
    EXPECT_TRUE(
        trace.wrote(2545, "clapi_socketbuffer.fillBuffer() Read 2 bytes, 0 bytes remaining"));
}

TEST_F(SocketBufferRead, TracesTheUnreadBytesThatAFillMoves)
{
    bindForReading(6);
    theirs.send(text("ABCDEFGHI"));
    ASSERT_RC(0, fillBuffer(&sockBuffer));
    take(4);
    sockBuffer.totalCount = 3;
    TraceFile trace(4);

    fillBuffer(&sockBuffer);

    EXPECT_EQ((std::vector<int>{2540, 2541, 2542, 2544, 2545, 2549}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(2541, "DEBUG",
                            "clapi_socketbuffer.fillBuffer() 2 bytes already in buffer <ptr>"));
    EXPECT_TRUE(trace.wrote(2542, "clapi_socketbuffer.fillBuffer() Attempting to read 3 bytes"));
    EXPECT_TRUE(trace.wroteText("fillBuffer() data=<ptr> len=3 stopword=00000000\n"
                                "Data truncation size=128, offset=0\n"
                                "<ptr>: 474849                              : GHI\n"));
}

TEST_F(SocketBufferRead, TracesTheErrorOfAFill)
{
    arrive(text("ABCD"));
    TraceFile trace(4);
    Fault broken = failCall(Call::Recv, 1, ECONNRESET);

    fillBuffer(&sockBuffer);

    EXPECT_TRUE(wroteInOrder(trace, {2540, 2542, 2543, 2545, 2549}));
    EXPECT_TRUE(trace.wrote(2543, "*EXC*",
                            "clapi_socketbuffer.fillBuffer() recv returned an error code: "
                            "Connection reset by peer (104)"));
    EXPECT_TRUE(
        trace.wrote(2545, "clapi_socketbuffer.fillBuffer() Read -1 bytes, 4 bytes remaining"));
    EXPECT_TRUE(trace.wrote(2549, "clapi_socketbuffer.fillBuffer() rc=-102 (QPX_ERR_LOSTGWCON)"));
}

TEST_F(SocketBufferRead, TracesWhatCameBeforeThePeerClosed)
{
    bindForReading(8);
    theirs.send(text("ABC"));
    theirs.close();
    TraceFile trace(4);

    fillBuffer(&sockBuffer);

    EXPECT_EQ((std::vector<int>{2540, 2542, 2542, 2543, 2544, 2545, 2549}), pointsOf(trace));
    EXPECT_TRUE(
        trace.wrote(2543, "*EXC*",
                    "clapi_socketbuffer.fillBuffer() recv returned an error code: <any> (<int>)"));
    EXPECT_TRUE(trace.wroteText("fillBuffer() data=<ptr> len=3 stopword=00000000\n"
                                "Data truncation size=128, offset=0\n"
                                "<ptr>: 414243                              : ABC\n"));
    EXPECT_TRUE(
        trace.wrote(2545, "clapi_socketbuffer.fillBuffer() Read 0 bytes, 5 bytes remaining"));
}

TEST_F(SocketBufferRead, TracesOnlyTheErrorOfAFillAtLevelOne)
{
    arrive(text("ABCD"));
    TraceFile trace(1);
    Fault broken = failCall(Call::Recv, 1, ECONNRESET);

    fillBuffer(&sockBuffer);

    EXPECT_EQ((std::vector<int>{2543}), pointsOf(trace));
}

TEST_F(SocketBufferRead, TracesOnlyEntryAndExitOfAFillAtLevelThree)
{
    arrive(text("ABCD"));
    TraceFile trace(3);

    fillBuffer(&sockBuffer);

    EXPECT_EQ((std::vector<int>{2540, 2549}), pointsOf(trace));
}

// ---- Fixed widths ----

TEST_F(SocketBufferRead, TakesNumbersMostSignificantByteFirst)
{
    arrive(hex("12345678 1A2B 7F"));

    EXPECT_EQ(0x12345678, readInt(&sockBuffer));
    EXPECT_EQ(0x1A2B, readShort(&sockBuffer));
    EXPECT_EQ(0x7F, readByte(&sockBuffer));

    EXPECT_EQ(0U, sockBuffer.count);
    EXPECT_EQ(0U, sockBuffer.totalCount);
    EXPECT_EQ(0, sockBuffer.socketErr);
}

TEST_F(SocketBufferRead, TakesNegativeNumbers)
{
    arrive(hex("FFFFFFFF FFFFFFFE 80000000 FFFF 8000 FFFE FF 80 FE"));

    EXPECT_EQ(-1, readInt(&sockBuffer));
    EXPECT_EQ(-2, readInt(&sockBuffer));
    EXPECT_EQ(static_cast<int>(0x80000000), readInt(&sockBuffer));
    EXPECT_EQ(-1, readShort(&sockBuffer));
    EXPECT_EQ(-32768, readShort(&sockBuffer));
    EXPECT_EQ(-2, readShort(&sockBuffer));
    EXPECT_EQ(-1, readByte(&sockBuffer));
    EXPECT_EQ(-128, readByte(&sockBuffer));
    EXPECT_EQ(-2, readByte(&sockBuffer));
}

TEST_F(SocketBufferRead, TakesNumbersThatAreNotAligned)
{
    arrive(hex("01 02030405 06 0708"));

    EXPECT_EQ(1, readByte(&sockBuffer));
    EXPECT_EQ(0x02030405, readInt(&sockBuffer));
    EXPECT_EQ(6, readByte(&sockBuffer));
    EXPECT_EQ(0x0708, readShort(&sockBuffer));
}

TEST_F(SocketBufferRead, AdvancesByTheWidthThatIsTaken)
{
    arrive(hex("00000000 0000 00"));
    ASSERT_RC(0, fillBuffer(&sockBuffer));

    readInt(&sockBuffer);
    EXPECT_EQ(sockBuffer.buffer + 4, sockBuffer.ptr);
    EXPECT_EQ(3U, sockBuffer.count);
    readShort(&sockBuffer);
    EXPECT_EQ(sockBuffer.buffer + 6, sockBuffer.ptr);
    EXPECT_EQ(1U, sockBuffer.count);
    readByte(&sockBuffer);
    EXPECT_EQ(sockBuffer.buffer + 7, sockBuffer.ptr);
    EXPECT_EQ(0U, sockBuffer.count);
}

TEST_F(SocketBufferRead, FillsOnceForNumbersThatAreThere)
{
    arrive(hex("0000000100000002"));
    int before = callCount(Call::Recv);

    readInt(&sockBuffer);
    readInt(&sockBuffer);

    EXPECT_EQ(before + 1, callCount(Call::Recv));
}

TEST_F(SocketBufferRead, AssemblesAnIntAcrossARefill)
{
    for (std::size_t leftOver = 0; leftOver <= 3; ++leftOver) {
        SCOPED_TRACE(leftOver);
        bindForReading(6);
        theirs.send(slice(hex("FFFFFFFFFFFF"), 0, 6 - leftOver) + hex("01020304"));
        ASSERT_RC(0, fillBuffer(&sockBuffer));
        take(6 - leftOver);
        ASSERT_EQ(leftOver, sockBuffer.count);
        sockBuffer.totalCount = 4 - leftOver;

        EXPECT_EQ(0x01020304, readInt(&sockBuffer));

        EXPECT_EQ(0U, sockBuffer.count);
        EXPECT_EQ(sockBuffer.buffer + 4, sockBuffer.ptr);
    }
}

TEST_F(SocketBufferRead, AssemblesAShortAcrossARefill)
{
    bindForReading(3);
    theirs.send(hex("FFFF 0102"));
    ASSERT_RC(0, fillBuffer(&sockBuffer));
    take(2);
    sockBuffer.totalCount = 1;

    EXPECT_EQ(0x0102, readShort(&sockBuffer));

    EXPECT_EQ(sockBuffer.buffer + 2, sockBuffer.ptr);
}

TEST_F(SocketBufferRead, GivesZeroAfterAnError)
{
    arrive(hex("11111111 11111111"));
    ASSERT_RC(0, fillBuffer(&sockBuffer));
    sockBuffer.socketErr = ECONNRESET;

    EXPECT_EQ(0, readInt(&sockBuffer));
    EXPECT_EQ(0, readShort(&sockBuffer));
    EXPECT_EQ(0, readByte(&sockBuffer));
}

TEST_F(SocketBufferRead, GivesZeroForTheNumberWhoseFillFails)
{
    arrive(hex("11111111"));
    Fault broken = failCall(Call::Recv, 1, ECONNRESET);

    EXPECT_EQ(0, readInt(&sockBuffer));

    EXPECT_EQ(ECONNRESET, sockBuffer.socketErr);
}

TEST_F(SocketBufferRead, EndsAtTheEndOfTheMessageForAnInt)
{
    for (std::size_t there = 0; there <= 3; ++there) {
        SCOPED_TRACE(there);
        bindForReading(there);
        theirs.send(slice(hex("11121314"), 0, there));

        EXPECT_EQ(0, readInt(&sockBuffer));

        EXPECT_EQ(EBADMSG, sockBuffer.socketErr);
        EXPECT_GE(there, sockBuffer.count);
        EXPECT_EQ(0, readByte(&sockBuffer));
    }
}

TEST_F(SocketBufferRead, EndsAtTheEndOfTheMessageForAShort)
{
    for (std::size_t there = 0; there <= 1; ++there) {
        SCOPED_TRACE(there);
        bindForReading(there);
        theirs.send(slice(hex("1112"), 0, there));

        EXPECT_EQ(0, readShort(&sockBuffer));

        EXPECT_EQ(EBADMSG, sockBuffer.socketErr);
        EXPECT_GE(there, sockBuffer.count);
    }
}

TEST_F(SocketBufferRead, EndsAtTheEndOfTheMessageForAByte)
{
    arrive(hex("11"));
    EXPECT_EQ(0x11, readByte(&sockBuffer));
    EXPECT_EQ(0, sockBuffer.socketErr);

    EXPECT_EQ(0, readByte(&sockBuffer));

    EXPECT_EQ(EBADMSG, sockBuffer.socketErr);
    EXPECT_EQ(0U, sockBuffer.count);
}

TEST_F(SocketBufferRead, TakesNothingThatFollowsTheMessage)
{
    bindForReading(2);
    theirs.send(hex("1112 2122"));

    EXPECT_EQ(0, readInt(&sockBuffer));

    EXPECT_EQ(EBADMSG, sockBuffer.socketErr);
    EXPECT_EQ("2122", toHex(ours.read(2)));
}

TEST_F(SocketBufferRead, TracesTheNumbersThatAreNotThere)
{
    TraceFile trace(4);

    arrive(hex("01"));
    trace.forget();
    readByte(&sockBuffer);
    EXPECT_EQ((std::vector<int>{2580, 2540, 2542, 2544, 2545, 2549}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(2580, "DEBUG",
                            "clapi_socketbuffer.readByte() Insufficient data in buffer <ptr>"));

    arrive(hex("0102"));
    trace.forget();
    readShort(&sockBuffer);
    EXPECT_EQ((std::vector<int>{2581, 2540, 2542, 2544, 2545, 2549}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(2581, "DEBUG",
                            "clapi_socketbuffer.readShort() Insufficient data in buffer <ptr>"));

    arrive(hex("01020304"));
    trace.forget();
    readInt(&sockBuffer);
    EXPECT_EQ((std::vector<int>{2582, 2540, 2542, 2544, 2545, 2549}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(2582, "DEBUG",
                            "clapi_socketbuffer.readInt() Insufficient data in buffer <ptr>"));
}

TEST_F(SocketBufferRead, TracesNothingOfNumbersThatAreThere)
{
    arrive(hex("01020304 0506 07"));
    ASSERT_RC(0, fillBuffer(&sockBuffer));
    TraceFile trace(5);

    readInt(&sockBuffer);
    readShort(&sockBuffer);
    readByte(&sockBuffer);

    EXPECT_EQ("", trace.text());
}

// ---- Bytes ----

TEST_F(SocketBufferRead, TakesBytesThatAreThere)
{
    arrive(text("ABCDEFGH"));
    ASSERT_RC(0, fillBuffer(&sockBuffer));
    int before = callCount(Call::Recv);

    EXPECT_EQ("ABC", toText(take(3)));
    EXPECT_EQ(sockBuffer.buffer + 3, sockBuffer.ptr);
    EXPECT_EQ(5U, sockBuffer.count);
    EXPECT_EQ("DEFGH", toText(take(5)));

    EXPECT_EQ(0U, sockBuffer.count);
    EXPECT_EQ(before, callCount(Call::Recv));
}

TEST_F(SocketBufferRead, TakesNoBytes)
{
    arrive(text("ABCD"));
    ASSERT_RC(0, fillBuffer(&sockBuffer));

    readBytes(&sockBuffer, nullptr, 0);

    EXPECT_EQ(4U, sockBuffer.count);
    EXPECT_EQ(0, sockBuffer.socketErr);
}

TEST_F(SocketBufferRead, TakesNoBytesAtTheEndOfTheMessage)
{
    arrive(text("ABCD"));
    take(4);

    readBytes(&sockBuffer, nullptr, 0);

    EXPECT_EQ(0, sockBuffer.socketErr);
}

TEST_F(SocketBufferRead, FillsForBytesThatAreNotThere)
{
    arrive(text("ABCDEFGH"));

    EXPECT_EQ("ABCDE", toText(take(5)));

    EXPECT_EQ(3U, sockBuffer.count);
    EXPECT_EQ(0U, sockBuffer.totalCount);
}

TEST_F(SocketBufferRead, TakesBytesAcrossARefill)
{
    bindForReading(6);
    theirs.send(text("ABCDEFGHIJKL"));
    ASSERT_RC(0, fillBuffer(&sockBuffer));
    take(4);
    sockBuffer.totalCount = 6;

    EXPECT_EQ("EFGHIJ", toText(take(6)));

    EXPECT_EQ("KL", toText(unread()));
    EXPECT_EQ(sockBuffer.buffer + 4, sockBuffer.ptr);
}

TEST_F(SocketBufferRead, FillsForARestOfTheSizeOfTheBuffer)
{
    bindForReading(6);
    theirs.send(text("ABCDEFGHIJKL"));
    ASSERT_RC(0, fillBuffer(&sockBuffer));
    take(4);
    sockBuffer.totalCount = 6;
    TraceFile trace(4);

    EXPECT_EQ("EFGHIJKL", toText(take(8)));

    EXPECT_EQ((std::vector<int>{2530, 2531, 2540, 2542, 2544, 2545, 2549, 2539}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(
        2531, "DEBUG",
        "clapi_socketbuffer.readBytes() Read 2 bytes from buffer <ptr>, 6 more bytes needed"));
    EXPECT_EQ(0U, sockBuffer.count);
}

TEST_F(SocketBufferRead, ReadsARestLargerThanTheBufferDirectly)
{
    bindForReading(6);
    theirs.send(text("ABCDEFGHIJKLMNOP"));
    ASSERT_RC(0, fillBuffer(&sockBuffer));
    take(4);
    sockBuffer.totalCount = 10;
    TraceFile trace(4);

    EXPECT_EQ("EFGHIJKLM", toText(take(9)));

    EXPECT_EQ(0U, sockBuffer.count);
    EXPECT_EQ(sockBuffer.buffer, sockBuffer.ptr);
    EXPECT_EQ(3U, sockBuffer.totalCount);
    EXPECT_EQ(0, sockBuffer.socketErr);
    EXPECT_EQ((std::vector<int>{2530, 2533, 2534, 2539}), pointsOf(trace));
    EXPECT_EQ((std::vector<std::string>{"ENTRY", "DATA", "DEBUG", "EXIT"}), typesOf(trace));
    EXPECT_TRUE(trace.wrote(2530, "clapi_socketbuffer.readBytes(<any>)"));
    EXPECT_TRUE(
        trace.wroteText("clapi_socketbuffer.readBytes() data=<ptr> len=7 stopword=00000000\n"
                        "Data truncation size=128, offset=0\n"
                        "<ptr>: 4748494A 4B4C4D                     : GHIJKLM\n"));
    EXPECT_TRUE(trace.wrote(
        2534,
        "clapi_socketbuffer.readBytes() Read 2 bytes from buffer <ptr>, 7 bytes from socket " +
            std::to_string(ours.fd()) + ", 3 bytes remaining"));
    EXPECT_TRUE(trace.wrote(2539, "clapi_socketbuffer.readBytes()"));
}

TEST_F(SocketBufferRead, GoesOnWithTheMessageBehindADirectRead)
{
    bindForReading(6);
    sockBuffer.totalCount = 11;
    theirs.send(text("ABCDEFG") + hex("01020304"));

    EXPECT_EQ("ABCDEFG", toText(take(7)));
    EXPECT_EQ(0x01020304, readInt(&sockBuffer));

    EXPECT_EQ(0U, sockBuffer.totalCount);
}

TEST_F(SocketBufferRead, TakesADirectReadInPiecesOfEverySize)
{
    for (std::size_t piece = 1; piece <= 10; ++piece) {
        SCOPED_TRACE(piece);
        bindForReading(4);
        sockBuffer.totalCount = 10;
        auto sender = sendApart(text("ABCDEFGHIJ"), piece);

        EXPECT_EQ("ABCDEFGHIJ", toText(take(10)));

        EXPECT_TRUE(sender.get());
        EXPECT_EQ(0U, sockBuffer.totalCount);
        freeBuffer(&sockBuffer);
    }
}

TEST_F(SocketBufferRead, Takes50000BytesDirectly)
{
    bindForReading(50000);
    auto sender = callInThread([&] {
        theirs.send(countedBytes(50000));
        return 0;
    });

    EXPECT_TRUE(countedBytes(50000) == take(50000));

    sender.get();
    EXPECT_EQ(0U, sockBuffer.totalCount);
}

TEST_F(SocketBufferRead, RepeatsADirectReadThatASignalInterrupted)
{
    bindForReading(4);
    sockBuffer.totalCount = 8;
    theirs.send(text("ABCDEFGH"));
    Fault first = failCall(Call::Recv, 1, EINTR);
    Fault second = failCall(Call::Recv, 2, EINTR);

    EXPECT_EQ("ABCDEFGH", toText(take(8)));

    EXPECT_EQ(1, second.hits());
    EXPECT_EQ(0, sockBuffer.socketErr);
}

TEST_F(SocketBufferRead, KeepsTheErrnoOfAFailedDirectRead)
{
    bindForReading(4);
    sockBuffer.totalCount = 8;
    TraceFile trace(4);
    Fault broken = failCall(Call::Recv, 1, ECONNRESET);

    EXPECT_EQ("EEEEEEEE EEEEEEEE", toHex(take(8)));

    EXPECT_EQ(ECONNRESET, sockBuffer.socketErr);
    EXPECT_EQ(8U, sockBuffer.totalCount);
    EXPECT_EQ((std::vector<int>{2530, 2532, 2539}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(2532, "*EXC*",
                            "clapi_socketbuffer.readBytes() recv returned an error code: "
                            "Connection reset by peer (104)"));
}

TEST_F(SocketBufferRead, LeavesTheRestOfADirectReadAsItIsWhenThePeerCloses)
{
    bindForReading(4);
    sockBuffer.totalCount = 8;
    theirs.send(text("ABC"));
    theirs.close();
    TraceFile trace(4);

    EXPECT_EQ("414243EE EEEEEEEE", toHex(take(8)));

    EXPECT_NE(0, sockBuffer.socketErr);
    EXPECT_EQ(5U, sockBuffer.totalCount);
    EXPECT_EQ(0U, sockBuffer.count);
    EXPECT_EQ((std::vector<int>{2530, 2532, 2533, 2534, 2539}), pointsOf(trace));
    EXPECT_TRUE(trace.wroteText("readBytes() data=<ptr> len=3 stopword=00000000\n"));
    EXPECT_TRUE(trace.wrote(
        2534,
        "clapi_socketbuffer.readBytes() Read 0 bytes from buffer <ptr>, 3 bytes from socket " +
            std::to_string(ours.fd()) + ", 5 bytes remaining"));
}

TEST_F(SocketBufferRead, StaysFailedAfterADirectReadThatThePeerEnded)
{
    bindForReading(4);
    sockBuffer.totalCount = 8;
    theirs.close();
    take(8);

    EXPECT_EQ(0, readInt(&sockBuffer));
    EXPECT_RC(-102, fillBuffer(&sockBuffer));
}

TEST_F(SocketBufferRead, LeavesTheCallersBytesAfterAnError)
{
    arrive(text("ABCD"));
    ASSERT_RC(0, fillBuffer(&sockBuffer));
    sockBuffer.socketErr = ECONNRESET;

    EXPECT_EQ("EEEE", toHex(take(2)));
}

TEST_F(SocketBufferRead, LeavesTheRestOfTheCallersBytesWhenAFillFails)
{
    bindForReading(6);
    theirs.send(text("ABCDEFGH"));
    ASSERT_RC(0, fillBuffer(&sockBuffer));
    take(4);
    sockBuffer.totalCount = 4;
    Fault broken = failCall(Call::Recv, 1, ECONNRESET);

    Bytes area = take(5);

    EXPECT_EQ("EEEEEE", toHex(slice(area, 2, 3)));
    EXPECT_EQ(ECONNRESET, sockBuffer.socketErr);
}

TEST_F(SocketBufferRead, EndsAtTheEndOfTheMessageForBytes)
{
    bindForReading(33000);
    bindForReading(6);
    theirs.send(text("ABCDEF") + hex("A1A2A3A4"));

    Bytes area = take(8);

    EXPECT_EQ(EBADMSG, sockBuffer.socketErr);
    EXPECT_EQ("EEEE", toHex(slice(area, 6, 2)));
    EXPECT_EQ(0U, sockBuffer.totalCount);
    EXPECT_EQ(0, readByte(&sockBuffer));
    EXPECT_EQ("A1A2A3A4", toHex(ours.read(4)));
}

TEST_F(SocketBufferRead, EndsAtTheEndOfTheMessageForADirectRead)
{
    bindForReading(4);
    sockBuffer.totalCount = 6;
    theirs.send(text("ABCDEF") + hex("A1A2A3A4"));

    Bytes area = take(8);

    EXPECT_EQ(EBADMSG, sockBuffer.socketErr);
    EXPECT_EQ("EEEE", toHex(slice(area, 6, 2)));
    EXPECT_EQ(0, readInt(&sockBuffer));
}

TEST_F(SocketBufferRead, EndsAtTheEndOfTheMessageForAnyLength)
{
    bindForReading(8);
    theirs.send(text("ABCDEFGH"));
    char area[8] = {};

    readBytes(&sockBuffer, area, static_cast<std::size_t>(-1));

    EXPECT_EQ(EBADMSG, sockBuffer.socketErr);
    EXPECT_GE(8U, sockBuffer.count);
}

TEST_F(SocketBufferRead, TracesOnlyEntryAndExitOfBytesThatAreThere)
{
    arrive(text("ABCD"));
    ASSERT_RC(0, fillBuffer(&sockBuffer));
    TraceFile trace(5);

    take(4);

    EXPECT_EQ((std::vector<int>{2530, 2539}), pointsOf(trace));
}

// ---- Dropping bytes ----

TEST_F(SocketBufferRead, DropsBytes)
{
    arrive(text("ABCDEFGH"));

    skipBytes(&sockBuffer, 3);
    EXPECT_EQ('D', readByte(&sockBuffer));
    skipBytes(&sockBuffer, 0);
    EXPECT_EQ('E', readByte(&sockBuffer));
    skipBytes(&sockBuffer, 3);

    EXPECT_EQ(0U, bytesLeft(&sockBuffer));
    EXPECT_EQ(0, sockBuffer.socketErr);
}

TEST_F(SocketBufferRead, DropsMoreBytesThanTheBufferHolds)
{
    bindForReading(100004);
    auto sender = callInThread([&] {
        theirs.send(filled(100000, 0x41) + hex("01020304"));
        return 0;
    });

    skipBytes(&sockBuffer, 100000);

    EXPECT_EQ(0x01020304, readInt(&sockBuffer));
    EXPECT_EQ(0U, bytesLeft(&sockBuffer));
    sender.get();
}

TEST_F(SocketBufferRead, DropsNoByteBeyondTheMessage)
{
    bindForReading(4);
    theirs.send(text("ABCDEFGH"));

    skipBytes(&sockBuffer, 5);

    EXPECT_EQ(EBADMSG, sockBuffer.socketErr);
    EXPECT_EQ(0, readByte(&sockBuffer));
}

TEST_F(SocketBufferRead, FailsToDropBytesThatDoNotCome)
{
    bindForReading(8);
    theirs.send(text("ABC"));
    theirs.close();

    skipBytes(&sockBuffer, 8);

    EXPECT_NE(0, sockBuffer.socketErr);
}

TEST_F(SocketBufferRead, CountsTheBytesThatAreLeft)
{
    bindForReading(10);
    EXPECT_EQ(10U, bytesLeft(&sockBuffer));
    theirs.send(text("ABCDEFGHIJ"));

    EXPECT_EQ('A', readByte(&sockBuffer));
    EXPECT_EQ(9U, bytesLeft(&sockBuffer));
    EXPECT_EQ("BCDE", toText(take(4)));
    EXPECT_EQ(5U, bytesLeft(&sockBuffer));
    EXPECT_EQ("FGHIJ", toText(take(5)));
    EXPECT_EQ(0U, bytesLeft(&sockBuffer));
}

// ---- A message of many fields ----

TEST_F(SocketBufferRead, TakesAMessageInPiecesOfEverySize)
{
    Bytes message = hex("01 0203 04050607") + text("ABCDEFGHIJKLM") + hex("08090A0B 0C0D 0E");
    for (std::size_t capacity : {std::size_t{4}, std::size_t{7}, message.size()}) {
        for (std::size_t piece = 1; piece <= message.size(); ++piece) {
            SCOPED_TRACE(std::to_string(piece) + " bytes into " + std::to_string(capacity));
            bindForReading(capacity);
            sockBuffer.totalCount = message.size();
            auto sender = sendApart(message, piece);

            EXPECT_EQ(0x01, readByte(&sockBuffer));
            EXPECT_EQ(0x0203, readShort(&sockBuffer));
            EXPECT_EQ(0x04050607, readInt(&sockBuffer));
            EXPECT_EQ("ABCDEFGHIJKLM", toText(take(13)));
            EXPECT_EQ(0x08090A0B, readInt(&sockBuffer));
            EXPECT_EQ(0x0C0D, readShort(&sockBuffer));
            EXPECT_EQ(0x0E, readByte(&sockBuffer));

            EXPECT_TRUE(sender.get());
            EXPECT_EQ(0, sockBuffer.socketErr);
            EXPECT_EQ(0U, bytesLeft(&sockBuffer));
            ASSERT_RC(0, freeBuffer(&sockBuffer));
        }
    }
}

} // namespace
