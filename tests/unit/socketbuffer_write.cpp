// Staging fields in a socket buffer, and the flushes that make room for them.
#include "socketbuffer_fixture.h"

using namespace support;
using namespace unit;

namespace {

using SocketBufferWrite = SocketBufferTest;

// ---- Fixed widths ----

TEST_F(SocketBufferWrite, StagesNumbersMostSignificantByteFirst)
{
    bindForWriting(7);

    writeInt(&sockBuffer, 0x12345678);
    writeShort(&sockBuffer, 0x1A2B);
    writeByte(&sockBuffer, 0x7F);

    EXPECT_EQ(7U, sockBuffer.count);
    EXPECT_EQ(sockBuffer.buffer + 7, sockBuffer.ptr);
    EXPECT_EQ(7U, sockBuffer.totalCount);
    EXPECT_EQ("12345678 1A2B7F", toHex(staged()));
}

TEST_F(SocketBufferWrite, StagesNegativeNumbers)
{
    bindForWriting(21);

    writeInt(&sockBuffer, -1);
    writeInt(&sockBuffer, -2);
    writeInt(&sockBuffer, static_cast<int>(0x80000000));
    writeShort(&sockBuffer, -1);
    writeShort(&sockBuffer, -32768);
    writeShort(&sockBuffer, -2);
    writeByte(&sockBuffer, -1);
    writeByte(&sockBuffer, -128);
    writeByte(&sockBuffer, -2);

    EXPECT_EQ("FFFFFFFF FFFFFFFE 80000000 FFFF8000 FFFEFF80 FE", toHex(staged()));
}

TEST_F(SocketBufferWrite, StagesNumbersThatAreNotAligned)
{
    bindForWriting(8);

    writeByte(&sockBuffer, 1);
    writeInt(&sockBuffer, 0x02030405);
    writeByte(&sockBuffer, 6);
    writeShort(&sockBuffer, 0x0708);

    EXPECT_EQ("01020304 05060708", toHex(staged()));
}

TEST_F(SocketBufferWrite, SendsNothingBeforeTheFlush)
{
    bindForWriting(7);
    int before = callCount(Call::Send);

    writeInt(&sockBuffer, 0x12345678);
    writeShort(&sockBuffer, 0x1A2B);
    writeByte(&sockBuffer, 0x7F);

    EXPECT_EQ(before, callCount(Call::Send));
    EXPECT_TRUE(theirs.isQuiet());
}

TEST_F(SocketBufferWrite, KeepsAByteThatJustFits)
{
    bindForWriting(4);
    stage(text("ABC"));
    int before = callCount(Call::Send);

    writeByte(&sockBuffer, 'D');

    EXPECT_EQ(before, callCount(Call::Send));
    EXPECT_EQ("41424344", toHex(staged()));
}

TEST_F(SocketBufferWrite, FlushesForAByteThatDoesNotFit)
{
    bindForWriting(4);
    sockBuffer.totalCount = 100;
    stage(text("ABCD"));

    writeByte(&sockBuffer, 'E');

    EXPECT_EQ("41424344", toHex(theirs.read(4)));
    EXPECT_EQ("45", toHex(staged()));
    EXPECT_EQ(sockBuffer.buffer + 1, sockBuffer.ptr);
    EXPECT_EQ(96U, sockBuffer.totalCount);
}

TEST_F(SocketBufferWrite, KeepsAShortThatJustFits)
{
    bindForWriting(4);
    stage(text("AB"));
    int before = callCount(Call::Send);

    writeShort(&sockBuffer, 0x4344);

    EXPECT_EQ(before, callCount(Call::Send));
    EXPECT_EQ("41424344", toHex(staged()));
}

TEST_F(SocketBufferWrite, FlushesForAShortThatDoesNotFit)
{
    bindForWriting(4);
    stage(text("ABC"));

    writeShort(&sockBuffer, 0x4445);

    EXPECT_EQ("414243", toHex(theirs.read(3)));
    EXPECT_EQ("4445", toHex(staged()));
}

TEST_F(SocketBufferWrite, KeepsAnIntThatJustFits)
{
    bindForWriting(8);
    stage(text("ABCD"));
    int before = callCount(Call::Send);

    writeInt(&sockBuffer, 0x45464748);

    EXPECT_EQ(before, callCount(Call::Send));
    EXPECT_EQ("41424344 45464748", toHex(staged()));
}

TEST_F(SocketBufferWrite, FlushesForAnIntThatDoesNotFit)
{
    bindForWriting(8);
    stage(text("ABCDE"));

    writeInt(&sockBuffer, 0x46474849);

    EXPECT_EQ("41424344 45", toHex(theirs.read(5)));
    EXPECT_EQ("46474849", toHex(staged()));
}

TEST_F(SocketBufferWrite, DropsNumbersAfterAnError)
{
    bindForWriting(20);
    stage(text("ABC"));
    sockBuffer.socketErr = EPIPE;

    writeByte(&sockBuffer, 1);
    writeShort(&sockBuffer, 2);
    writeInt(&sockBuffer, 3);

    EXPECT_EQ("414243", toHex(staged()));
    EXPECT_EQ(sockBuffer.buffer + 3, sockBuffer.ptr);
    EXPECT_EQ("", sentHex());
}

TEST_F(SocketBufferWrite, DropsTheNumberWhoseFlushFails)
{
    bindForWriting(4);
    stage(text("ABCD"));
    Fault broken = failCall(Call::Send, 1, ECONNRESET);

    writeInt(&sockBuffer, 0x45464748);

    EXPECT_EQ(1, broken.hits());
    EXPECT_EQ(ECONNRESET, sockBuffer.socketErr);
    EXPECT_EQ("41424344", toHex(staged()));
    EXPECT_EQ(sockBuffer.buffer + 4, sockBuffer.ptr);
}

TEST_F(SocketBufferWrite, TracesTheByteThatDoesNotFit)
{
    bindForWriting(4);
    stage(text("ABCD"));
    TraceFile trace(4);

    writeByte(&sockBuffer, -2);

    EXPECT_EQ((std::vector<int>{2550, 2525, 2526, 2528, 2529}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(
        2550, "DEBUG",
        "clapi_socketbuffer.writeByte() Insufficient space in buffer <ptr> to write -2"));
}

TEST_F(SocketBufferWrite, TracesTheShortThatDoesNotFit)
{
    bindForWriting(4);
    stage(text("ABC"));
    TraceFile trace(4);

    writeShort(&sockBuffer, -32768);

    EXPECT_EQ((std::vector<int>{2551, 2525, 2526, 2528, 2529}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(
        2551, "DEBUG",
        "clapi_socketbuffer.writeShort() Insufficient space in buffer <ptr> to write -32768"));
}

TEST_F(SocketBufferWrite, TracesTheIntThatDoesNotFit)
{
    bindForWriting(4);
    stage(text("A"));
    TraceFile trace(4);

    writeInt(&sockBuffer, 1234567);

    EXPECT_EQ((std::vector<int>{2552, 2525, 2526, 2528, 2529}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(
        2552, "DEBUG",
        "clapi_socketbuffer.writeInt() Insufficient space in buffer <ptr> to write 1234567"));
}

TEST_F(SocketBufferWrite, TracesNothingOfNumbersThatFit)
{
    bindForWriting(7);
    TraceFile trace(5);

    writeInt(&sockBuffer, 1);
    writeShort(&sockBuffer, 2);
    writeByte(&sockBuffer, 3);

    EXPECT_EQ("", trace.text());
}

TEST_F(SocketBufferWrite, TracesNoMissingSpaceAtLevelThree)
{
    bindForWriting(4);
    stage(text("ABCD"));
    TraceFile trace(3);

    writeByte(&sockBuffer, 1);

    EXPECT_EQ((std::vector<int>{2525, 2529}), pointsOf(trace));
}

// ---- Bytes ----

TEST_F(SocketBufferWrite, StagesBytes)
{
    bindForWriting(6);

    stage(text("ABC"));
    stage(text("DEF"));

    EXPECT_EQ("41424344 4546", toHex(staged()));
    EXPECT_EQ(sockBuffer.buffer + 6, sockBuffer.ptr);
    EXPECT_EQ(6U, sockBuffer.totalCount);
}

TEST_F(SocketBufferWrite, StagesNothingForNoBytes)
{
    bindForWriting(6);
    stage(text("ABC"));

    writeBytes(&sockBuffer, nullptr, 0);

    EXPECT_EQ("414243", toHex(staged()));
}

TEST_F(SocketBufferWrite, KeepsBytesThatJustFit)
{
    bindForWriting(6);
    stage(text("ABC"));
    int before = callCount(Call::Send);

    stage(text("DEF"));

    EXPECT_EQ(before, callCount(Call::Send));
    EXPECT_EQ("41424344 4546", toHex(staged()));
}

TEST_F(SocketBufferWrite, FlushesForBytesThatDoNotFit)
{
    bindForWriting(6);
    stage(text("ABC"));

    stage(text("DEFG"));

    EXPECT_EQ("414243", toHex(theirs.read(3)));
    EXPECT_EQ("44454647", toHex(staged()));
}

TEST_F(SocketBufferWrite, StagesBytesThatFillTheWholeBuffer)
{
    bindForWriting(6);
    stage(text("A"));

    stage(text("BCDEFG"));

    EXPECT_EQ("41", toHex(theirs.read(1)));
    EXPECT_EQ("42434445 4647", toHex(staged()));
}

TEST_F(SocketBufferWrite, SendsBytesLargerThanTheBufferDirectly)
{
    bindForWriting(6);
    sockBuffer.totalCount = 100;
    int before = callCount(Call::Send);

    stage(text("ABCDEFG"));

    EXPECT_EQ(before + 1, callCount(Call::Send));
    EXPECT_EQ("41424344 454647", toHex(theirs.read(7)));
    EXPECT_EQ(0U, sockBuffer.count);
    EXPECT_EQ(sockBuffer.buffer, sockBuffer.ptr);
    EXPECT_EQ(93U, sockBuffer.totalCount);
}

TEST_F(SocketBufferWrite, SendsWhatIsStagedBeforeBytesLargerThanTheBuffer)
{
    bindForWriting(6);
    sockBuffer.totalCount = 100;
    stage(text("AB"));

    stage(text("CDEFGHI"));
    stage(text("JK"));
    EXPECT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_EQ(89U, sockBuffer.totalCount);
    EXPECT_EQ("41424344 45464748 494A4B", sentHex());
}

TEST_F(SocketBufferWrite, Sends50000BytesInOneCall)
{
    bindForWriting(50000);
    ASSERT_EQ(33000U, sockBuffer.bufferSize);
    auto wire = collect();
    int before = callCount(Call::Send);

    stage(countedBytes(50000));

    EXPECT_EQ(before + 1, callCount(Call::Send));
    EXPECT_EQ(0U, sockBuffer.count);
    EXPECT_EQ(0U, sockBuffer.totalCount);
    ours.shutdownWriting();
    EXPECT_TRUE(countedBytes(50000) == wire.get());
}

TEST_F(SocketBufferWrite, SendsALongMessageOfSmallFieldsInTwoPieces)
{
    bindForWriting(40000);
    auto wire = collect();
    int before = callCount(Call::Send);

    for (int field = 0; field < 10000; ++field) {
        writeInt(&sockBuffer, field);
        if (field == 8249) {
            EXPECT_EQ(33000U, sockBuffer.count);
            EXPECT_EQ(before, callCount(Call::Send));
        }
        if (field == 8250) {
            EXPECT_EQ(7000U, sockBuffer.totalCount);
        }
    }
    EXPECT_EQ(7000U, sockBuffer.count);
    EXPECT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_EQ(before + 2, callCount(Call::Send));
    EXPECT_EQ(0U, sockBuffer.totalCount);
    Bytes expected;
    for (int field = 0; field < 10000; ++field) expected += be32(field);
    ours.shutdownWriting();
    EXPECT_TRUE(expected == wire.get());
}

TEST_F(SocketBufferWrite, DropsBytesWhoseFlushFails)
{
    bindForWriting(6);
    stage(text("ABC"));
    Fault broken = failCall(Call::Send, 1, ECONNRESET);

    stage(text("DEFG"));

    EXPECT_EQ(ECONNRESET, sockBuffer.socketErr);
    EXPECT_EQ("414243", toHex(staged()));
    EXPECT_EQ("", sentHex());
}

TEST_F(SocketBufferWrite, DropsLargeBytesWhoseFlushFails)
{
    bindForWriting(6);
    stage(text("ABC"));
    Fault broken = failCall(Call::Send, 1, ECONNRESET);

    stage(text("DEFGHIJ"));

    EXPECT_EQ(1, broken.calls());
    EXPECT_EQ(ECONNRESET, sockBuffer.socketErr);
    EXPECT_EQ("", sentHex());
}

TEST_F(SocketBufferWrite, SendsNoBytesAfterAnError)
{
    bindForWriting(6);
    sockBuffer.socketErr = ECONNRESET;

    stage(text("AB"));
    stage(text("CDEFGHIJ"));
    stage(text("KLMNOP"));

    EXPECT_EQ(ECONNRESET, sockBuffer.socketErr);
    EXPECT_EQ("", sentHex());
}

TEST_F(SocketBufferWrite, KeepsTheErrnoOfAFailedDirectSend)
{
    bindForWriting(6);
    Fault broken = failCall(Call::Send, 1, ECONNRESET);

    stage(text("ABCDEFG"));

    EXPECT_EQ(ECONNRESET, sockBuffer.socketErr);
    EXPECT_EQ(0U, sockBuffer.count);
    EXPECT_RC(-102, flushBuffer(&sockBuffer));
    EXPECT_EQ("", sentHex());
}

TEST_F(SocketBufferWrite, FailsWhenNothingOfADirectSendIsTaken)
{
    bindForWriting(6);
    Fault nothing = fakeCall(Call::Send, 1, 0);

    stage(text("ABCDEFG"));

    EXPECT_EQ(1, nothing.hits());
    EXPECT_NE(0, sockBuffer.socketErr);
    EXPECT_RC(-102, flushBuffer(&sockBuffer));
}

TEST_F(SocketBufferWrite, RepeatsADirectSendThatASignalInterrupted)
{
    bindForWriting(6);
    Fault first = failCall(Call::Send, 1, EINTR);
    Fault second = failCall(Call::Send, 2, EINTR);

    stage(text("ABCDEFG"));

    EXPECT_EQ(1, second.hits());
    EXPECT_EQ(0, sockBuffer.socketErr);
    EXPECT_EQ("41424344 454647", sentHex());
}

TEST_F(SocketBufferWrite, ResumesAShortDirectSendUntilAllBytesAreOut)
{
    for (std::size_t piece = 1; piece <= 7; ++piece) {
        SCOPED_TRACE(piece);
        bindForWriting(6);
        sockBuffer.totalCount = 10;
        Fault narrow = limitLength(Call::Send, piece);

        stage(text("ABCDEFG"));

        EXPECT_EQ(cutsOf(7, piece), narrow.hits());
        EXPECT_EQ(0, sockBuffer.socketErr);
        EXPECT_EQ(3U, sockBuffer.totalCount);
        EXPECT_EQ("41424344 454647", toHex(theirs.read(7)));
    }
    EXPECT_EQ("", sentHex());
}

TEST_F(SocketBufferWrite, FailsWhenTheRestOfAShortDirectSendFails)
{
    bindForWriting(6);
    Fault narrow = limitLength(Call::Send, 5, 1);
    Fault broken = failCall(Call::Send, 2, EPIPE);

    stage(text("ABCDEFG"));

    EXPECT_EQ(EPIPE, sockBuffer.socketErr);
    EXPECT_RC(-102, flushBuffer(&sockBuffer));
    EXPECT_EQ("41424344 45", sentHex());
}

TEST_F(SocketBufferWrite, TracesOnlyEntryAndExitOfBytesThatFit)
{
    bindForWriting(6);
    TraceFile trace(5);

    stage(text("ABCDEF"));

    EXPECT_EQ((std::vector<int>{2560, 2569}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(2560, "ENTRY", "clapi_socketbuffer.writeBytes(<any>)"));
    EXPECT_TRUE(trace.wrote(2569, "EXIT", "clapi_socketbuffer.writeBytes()"));
}

TEST_F(SocketBufferWrite, TracesBytesThatDoNotFit)
{
    bindForWriting(6);
    stage(text("ABC"));
    TraceFile trace(4);

    stage(text("DEFG"));

    EXPECT_EQ((std::vector<int>{2560, 2561, 2525, 2526, 2528, 2529, 2569}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(
        2561, "DEBUG",
        "clapi_socketbuffer.writeBytes() Insufficient space in buffer <ptr> to write 4 bytes"));
}

TEST_F(SocketBufferWrite, TracesBytesThatAreSentDirectly)
{
    bindForWriting(6);
    sockBuffer.totalCount = 27;
    TraceFile trace(4);

    stage(text("ABCDEFGHIJKLMNOPQRST"));

    EXPECT_EQ((std::vector<int>{2560, 2561, 2525, 2529, 2562, 2563, 2565, 2569}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(
        2562, "DEBUG",
        "clapi_socketbuffer.writeBytes() Data too large for buffer <ptr>, writing to socket " +
            std::to_string(ours.fd())));
    EXPECT_TRUE(trace.wrote(2563, "DATA",
                            "clapi_socketbuffer.writeBytes() data=<ptr> len=20 stopword=00000000"));
    EXPECT_TRUE(trace.wroteText("writeBytes() data=<ptr> len=20 stopword=00000000\n"
                                "Data truncation size=128, offset=0\n"
                                "<ptr>: 41424344 45464748 494A4B4C 4D4E4F50 : ABCDEFGHIJKLMNOP \n"
                                "<ptr>: 51525354                            : QRST\n"));
    EXPECT_TRUE(trace.wrote(2565, "DEBUG",
                            "clapi_socketbuffer.writeBytes() Sent 20 bytes, 7 bytes remaining"));
}

TEST_F(SocketBufferWrite, TracesTheErrorOfADirectSend)
{
    bindForWriting(6);
    TraceFile trace(4);
    Fault broken = failCall(Call::Send, 1, ECONNRESET);

    stage(text("ABCDEFG"));

    EXPECT_TRUE(wroteInOrder(trace, {2560, 2562, 2563, 2564, 2569}));
    EXPECT_EQ(0, trace.timesWrote(2565));
    EXPECT_TRUE(trace.wrote(2564, "*EXC*",
                            "clapi_socketbuffer.writeBytes() Unable to send data to Gateway: "
                            "Connection reset by peer (104)"));
}

TEST_F(SocketBufferWrite, TracesOnlyTheErrorOfADirectSendAtLevelOne)
{
    bindForWriting(6);
    TraceFile trace(1);
    Fault broken = failCall(Call::Send, 1, ECONNRESET);

    stage(text("ABCDEFG"));

    EXPECT_EQ((std::vector<int>{2564}), pointsOf(trace));
}

TEST_F(SocketBufferWrite, TracesTheTotalOfAResumedDirectSendOnce)
{
    bindForWriting(6);
    sockBuffer.totalCount = 7;
    TraceFile trace(4);
    Fault narrow = limitLength(Call::Send, 3);

    stage(text("ABCDEFG"));

    EXPECT_EQ(1, trace.timesWrote(2565));
    EXPECT_TRUE(
        trace.wrote(2565, "clapi_socketbuffer.writeBytes() Sent 7 bytes, 0 bytes remaining"));
}

// ---- Padded bytes ----

TEST_F(SocketBufferWrite, FillsAPaddedFieldWithZeroBytes)
{
    bindForWriting(8);
    std::memset(sockBuffer.buffer, 0x55, 8);

    writePaddedBytes(&sockBuffer, "ABC", 3, 8);

    EXPECT_EQ("41424300 00000000", toHex(staged()));
    EXPECT_EQ(sockBuffer.buffer + 8, sockBuffer.ptr);
}

TEST_F(SocketBufferWrite, CutsPaddedDataToItsField)
{
    bindForWriting(20);
    std::memset(sockBuffer.buffer, 0x55, 20);

    writePaddedBytes(&sockBuffer, "ABCDEFGHI", 9, 8);

    EXPECT_EQ("41424344 45464748", toHex(staged()));
    EXPECT_EQ(0x55, sockBuffer.buffer[8]);
}

TEST_F(SocketBufferWrite, FillsAPaddedFieldExactly)
{
    bindForWriting(8);

    writePaddedBytes(&sockBuffer, "ABCDEFGH", 8, 8);

    EXPECT_EQ("41424344 45464748", toHex(staged()));
}

TEST_F(SocketBufferWrite, FillsAPaddedFieldWithoutData)
{
    bindForWriting(4);
    std::memset(sockBuffer.buffer, 0x55, 4);

    writePaddedBytes(&sockBuffer, nullptr, 0, 4);

    EXPECT_EQ("00000000", toHex(staged()));
}

TEST_F(SocketBufferWrite, KeepsAPaddedFieldThatJustFits)
{
    bindForWriting(8);
    stage(text("ABCD"));
    int before = callCount(Call::Send);

    writePaddedBytes(&sockBuffer, "E", 1, 4);

    EXPECT_EQ(before, callCount(Call::Send));
    EXPECT_EQ("41424344 45000000", toHex(staged()));
}

TEST_F(SocketBufferWrite, FlushesForAPaddedFieldByItsWholeWidth)
{
    bindForWriting(8);
    stage(text("ABCDE"));

    writePaddedBytes(&sockBuffer, "F", 1, 4);

    EXPECT_EQ("41424344 45", toHex(theirs.read(5)));
    EXPECT_EQ("46000000", toHex(staged()));
}

TEST_F(SocketBufferWrite, DropsAPaddedFieldAfterAnError)
{
    bindForWriting(8);
    stage(text("AB"));
    sockBuffer.socketErr = EPIPE;

    writePaddedBytes(&sockBuffer, "C", 1, 4);

    EXPECT_EQ("4142", toHex(staged()));
}

TEST_F(SocketBufferWrite, DropsThePaddedFieldWhoseFlushFails)
{
    bindForWriting(4);
    stage(text("AB"));
    Fault broken = failCall(Call::Send, 1, EPIPE);

    writePaddedBytes(&sockBuffer, "C", 1, 4);

    EXPECT_EQ("4142", toHex(staged()));
    EXPECT_EQ(EPIPE, sockBuffer.socketErr);
}

TEST_F(SocketBufferWrite, TracesAPaddedFieldThatDoesNotFit)
{
    bindForWriting(8);
    stage(text("ABCDE"));
    TraceFile trace(4);

    writePaddedBytes(&sockBuffer, "F", 1, 4);

    EXPECT_EQ((std::vector<int>{2572, 2525, 2526, 2528, 2529}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(2572, "DEBUG",
                            "clapi_socketbuffer.writePaddedBytes() Insufficient space in buffer "
                            "<ptr> to write 4 bytes"));
}

TEST_F(SocketBufferWrite, TracesNothingOfAPaddedFieldThatFits)
{
    bindForWriting(8);
    TraceFile trace(5);

    writePaddedBytes(&sockBuffer, "F", 1, 4);

    EXPECT_EQ("", trace.text());
}

} // namespace
