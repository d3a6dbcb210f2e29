// Secret fields: scrambled on the wire, asterisks in the trace.
#include "socketbuffer_fixture.h"

using namespace support;
using namespace unit;

namespace {

class SocketBufferMasked : public SocketBufferTest {
protected:
    void stagePaddedMasked(const Bytes& bytes, std::size_t width)
    {
        writePaddedBytesMasked(&sockBuffer, chars(bytes), bytes.size(), width);
    }
};

// ---- What goes out ----

TEST_F(SocketBufferMasked, ComplementsTheFirstByteAndChainsTheOthers)
{
    bindForWriting(3);

    stageMasked(hex("414243"));

    EXPECT_EQ("BE0301", toHex(staged()));
    EXPECT_EQ(sockBuffer.buffer + 3, sockBuffer.ptr);
}

TEST_F(SocketBufferMasked, ComplementsASingleByte)
{
    bindForWriting(1);

    stageMasked(hex("58"));

    EXPECT_EQ("A7", toHex(staged()));
}

TEST_F(SocketBufferMasked, ScramblesBytesOfEveryKind)
{
    bindForWriting(8);

    stageMasked(hex("00FF807F 01 20 E9 E9"));

    EXPECT_EQ("FFFF7FFF 7E21C900", toHex(staged()));
}

TEST_F(SocketBufferMasked, ScramblesAPassword)
{
    bindForWriting(6);

    stageMasked(text("SECRET"));

    EXPECT_EQ("AC160611 1711", toHex(staged()));
}

TEST_F(SocketBufferMasked, SendsTheScrambledBytes)
{
    bindForWriting(14);
    stage(text("user"));
    stageMasked(text("SECRET"));
    stage(text("more"));

    EXPECT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_EQ("75736572 AC160611 17116D6F 7265", sentHex());
}

TEST_F(SocketBufferMasked, SendsTheScrambledBytesWhileTheyAreTraced)
{
    bindForWriting(14);
    stage(text("user"));
    stageMasked(text("SECRET"));
    stage(text("more"));
    TraceFile trace(4);

    EXPECT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_EQ("75736572 AC160611 17116D6F 7265", sentHex());
}

TEST_F(SocketBufferMasked, LeavesTheCallersBytesAsTheyAre)
{
    bindForWriting(6);
    Bytes secret = text("SECRET");

    stageMasked(secret);

    EXPECT_EQ("SECRET", toText(secret));
}

TEST_F(SocketBufferMasked, StagesNothingForNoBytes)
{
    bindForWriting(8);
    std::memset(sockBuffer.buffer, 0x55, 8);
    stage(text("AB"));

    writeBytesMasked(&sockBuffer, "", 0);

    EXPECT_EQ("4142", toHex(staged()));
    EXPECT_EQ(0x55, sockBuffer.buffer[2]);
    EXPECT_EQ(sockBuffer.buffer + 2, sockBuffer.ptr);
}

TEST_F(SocketBufferMasked, RegistersTheFieldThatIsStaged)
{
    bindForWriting(8);
    stage(text("AB"));

    stageMasked(text("XYZ"));

    ASSERT_NE(nullptr, sockBuffer.maskArea);
    EXPECT_EQ(sockBuffer.buffer + 2, sockBuffer.maskArea->ptr);
    EXPECT_EQ(3U, sockBuffer.maskArea->length);
    EXPECT_EQ(nullptr, sockBuffer.maskArea->nextItem);
    EXPECT_EQ(reinterpret_cast<char*>(sockBuffer.maskArea + 1), sockBuffer.maskArea->lstore);
}

TEST_F(SocketBufferMasked, ListsTheFieldsFromTheMostRecentToTheOldest)
{
    bindForWriting(16);
    stageMasked(text("ONE"));
    stage(text("-"));
    stageMasked(text("TWO2"));

    MaskArea* latest = sockBuffer.maskArea;
    ASSERT_NE(nullptr, latest);
    EXPECT_EQ(sockBuffer.buffer + 4, latest->ptr);
    EXPECT_EQ(4U, latest->length);
    auto* oldest = static_cast<MaskArea*>(latest->nextItem);
    ASSERT_NE(nullptr, oldest);
    EXPECT_EQ(sockBuffer.buffer, oldest->ptr);
    EXPECT_EQ(3U, oldest->length);
    EXPECT_EQ(nullptr, oldest->nextItem);
}

TEST_F(SocketBufferMasked, ForgetsTheFieldsOnceTheyAreSent)
{
    bindForWriting(16);
    stageMasked(text("ONE"));
    stageMasked(text("TWO2"));

    ASSERT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_EQ(nullptr, sockBuffer.maskArea);
}

TEST_F(SocketBufferMasked, KeepsASecretThatJustFits)
{
    bindForWriting(6);
    stage(text("ABC"));
    int before = callCount(Call::Send);

    stageMasked(hex("414243"));

    EXPECT_EQ(before, callCount(Call::Send));
    EXPECT_EQ("414243BE 0301", toHex(staged()));
}

TEST_F(SocketBufferMasked, FlushesForASecretThatDoesNotFit)
{
    bindForWriting(6);
    stage(text("ABCD"));

    stageMasked(hex("414243"));

    EXPECT_EQ("41424344", toHex(theirs.read(4)));
    EXPECT_EQ("BE0301", toHex(staged()));
    ASSERT_NE(nullptr, sockBuffer.maskArea);
    EXPECT_EQ(sockBuffer.buffer, sockBuffer.maskArea->ptr);
}

TEST_F(SocketBufferMasked, StagesASecretThatFillsTheWholeBuffer)
{
    bindForWriting(6);
    stage(text("A"));

    stageMasked(text("SECRET"));

    EXPECT_EQ("41", toHex(theirs.read(1)));
    EXPECT_EQ("AC160611 1711", toHex(staged()));
}

TEST_F(SocketBufferMasked, DropsASecretAfterAnError)
{
    bindForWriting(8);
    stage(text("AB"));
    sockBuffer.socketErr = EPIPE;

    stageMasked(text("XYZ"));

    EXPECT_EQ("4142", toHex(staged()));
    EXPECT_EQ(nullptr, sockBuffer.maskArea);
}

TEST_F(SocketBufferMasked, DropsTheSecretWhoseFlushFails)
{
    bindForWriting(4);
    stage(text("AB"));
    Fault broken = failCall(Call::Send, 1, EPIPE);

    stageMasked(text("XYZ"));

    EXPECT_EQ("4142", toHex(staged()));
    EXPECT_EQ(EPIPE, sockBuffer.socketErr);
}

// A secret of so many bytes through a buffer of four: every piece carries the chain on.
TEST_F(SocketBufferMasked, SendsASecretLargerThanTheBufferAsOneChain)
{
    Bytes secret = hex("41424344 45464748 494A4B4C");
    Bytes scrambled = hex("BE030107 0103010F 01030107");
    for (std::size_t length = 5; length <= 12; ++length) {
        SCOPED_TRACE(length);
        bindForWriting(4);
        sockBuffer.totalCount = length;

        stageMasked(slice(secret, 0, length));
        EXPECT_RC(0, flushBuffer(&sockBuffer));

        EXPECT_EQ(0U, sockBuffer.totalCount);
        EXPECT_EQ(toHex(slice(scrambled, 0, length)), toHex(theirs.read(length)));
        ASSERT_RC(0, freeBuffer(&sockBuffer));
    }
    EXPECT_EQ("", sentHex());
}

TEST_F(SocketBufferMasked, SendsWhatIsStagedAroundASecretLargerThanTheBuffer)
{
    bindForWriting(4);
    sockBuffer.totalCount = 11;

    stage(text("ab"));
    stageMasked(text("SECRET"));
    stage(text("cde"));
    EXPECT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_EQ("6162AC16 06111711 636465", sentHex());
}

TEST_F(SocketBufferMasked, SendsASecretOfManyThousandBytes)
{
    bindForWriting(70000);
    auto wire = collect();
    Bytes secret = countedBytes(70000);

    stageMasked(secret);
    EXPECT_RC(0, flushBuffer(&sockBuffer));

    ours.shutdownWriting();
    Bytes arrived = wire.get();
    ASSERT_EQ(70000U, arrived.size());
    Bytes undone(70000);
    undone[0] = static_cast<unsigned char>(arrived[0] ^ 0xFF);
    for (std::size_t at = 1; at < undone.size(); ++at)
        undone[at] = static_cast<unsigned char>(arrived[at] ^ undone[at - 1]);
    EXPECT_TRUE(secret == undone);
    EXPECT_EQ(0U, sockBuffer.totalCount);
}

TEST_F(SocketBufferMasked, DropsTheRestOfALargeSecretAfterAnError)
{
    bindForWriting(4);
    sockBuffer.totalCount = 12;
    Fault broken = failCall(Call::Send, 2, EPIPE);

    stageMasked(text("ABCDEFGHIJKL"));
    EXPECT_RC(-102, flushBuffer(&sockBuffer));

    EXPECT_EQ(1, broken.hits());
    EXPECT_EQ(EPIPE, sockBuffer.socketErr);
    EXPECT_EQ("BE030107", sentHex());
}

// ---- The padded form ----

TEST_F(SocketBufferMasked, LeavesTheBytesBehindAPaddedSecretAsTheBufferHasThem)
{
    bindForWriting(10);
    std::memset(sockBuffer.buffer, 0x55, 10);

    stagePaddedMasked(hex("414243"), 8);

    EXPECT_EQ("BE030155 55555555", toHex(staged()));
    EXPECT_EQ(sockBuffer.buffer + 8, sockBuffer.ptr);
    EXPECT_EQ(0x55, sockBuffer.buffer[8]);
}

TEST_F(SocketBufferMasked, CutsAPaddedSecretToItsField)
{
    bindForWriting(10);
    std::memset(sockBuffer.buffer, 0x55, 10);

    stagePaddedMasked(text("SECRETS!"), 6);

    EXPECT_EQ("AC160611 1711", toHex(staged()));
    EXPECT_EQ(0x55, sockBuffer.buffer[6]);
}

TEST_F(SocketBufferMasked, WritesNothingIntoAPaddedFieldWithoutASecret)
{
    bindForWriting(10);
    std::memset(sockBuffer.buffer, 0x55, 10);

    stagePaddedMasked(Bytes(), 4);

    EXPECT_EQ("55555555", toHex(staged()));
}

TEST_F(SocketBufferMasked, RegistersTheWholeWidthOfAPaddedSecret)
{
    bindForWriting(10);

    stagePaddedMasked(text("AB"), 8);

    ASSERT_NE(nullptr, sockBuffer.maskArea);
    EXPECT_EQ(sockBuffer.buffer, sockBuffer.maskArea->ptr);
    EXPECT_EQ(8U, sockBuffer.maskArea->length);
}

TEST_F(SocketBufferMasked, KeepsAPaddedSecretThatJustFits)
{
    bindForWriting(8);
    stage(text("ABCD"));
    int before = callCount(Call::Send);

    stagePaddedMasked(text("X"), 4);

    EXPECT_EQ(before, callCount(Call::Send));
    EXPECT_EQ(8U, sockBuffer.count);
}

TEST_F(SocketBufferMasked, FlushesForAPaddedSecretByItsWholeWidth)
{
    bindForWriting(8);
    stage(text("ABCDE"));

    stagePaddedMasked(text("XYZ{"), 4);

    EXPECT_EQ("41424344 45", toHex(theirs.read(5)));
    EXPECT_EQ("A7010321", toHex(staged()));
}

TEST_F(SocketBufferMasked, DropsAPaddedSecretAfterAnError)
{
    bindForWriting(8);
    stage(text("AB"));
    sockBuffer.socketErr = EPIPE;

    stagePaddedMasked(text("X"), 4);

    EXPECT_EQ("4142", toHex(staged()));
    EXPECT_EQ(nullptr, sockBuffer.maskArea);
}

// ---- What the trace shows ----

TEST_F(SocketBufferMasked, ShowsAsterisksForASecret)
{
    bindForWriting(14);
    stage(text("user"));
    stageMasked(text("SECRET"));
    stage(text("more"));
    TraceFile trace(4);

    flushBuffer(&sockBuffer);

    EXPECT_TRUE(
        trace.wroteText("clapi_socketbuffer.flushBuffer() data=<ptr> len=14 stopword=00000000\n"
                        "Data truncation size=128, offset=0\n"
                        "<ptr>: 75736572 2A2A2A2A 2A2A6D6F 7265     : user******more\n"));
    EXPECT_FALSE(trace.wroteText("SECRET"));
    EXPECT_FALSE(trace.wroteText("AC160611"));
}

TEST_F(SocketBufferMasked, ShowsAsterisksForEverySecretOfAMessage)
{
    bindForWriting(16);
    stageMasked(text("ONE"));
    stage(text("-"));
    stageMasked(text("TWO2"));
    stage(text("-"));
    stageMasked(text("X"));
    TraceFile trace(4);

    flushBuffer(&sockBuffer);

    EXPECT_TRUE(trace.wroteText("<ptr>: 2A2A2A2D 2A2A2A2A 2D2A              : ***-****-*\n"));
}

TEST_F(SocketBufferMasked, ShowsAsterisksForSecretsShorterThanFourBytes)
{
    for (std::size_t length = 1; length <= 4; ++length) {
        SCOPED_TRACE(length);
        bindForWriting(8);
        stageMasked(slice(hex("41424344"), 0, length));
        TraceFile trace(4);

        ASSERT_RC(0, flushBuffer(&sockBuffer));

        EXPECT_TRUE(trace.wroteText(" : " + std::string(length, '*') + "\n"));
        EXPECT_EQ(toHex(slice(hex("BE030107"), 0, length)), toHex(theirs.read(length)));
        ASSERT_RC(0, freeBuffer(&sockBuffer));
    }
}

TEST_F(SocketBufferMasked, ShowsAsterisksForTheWholeWidthOfAPaddedSecret)
{
    bindForWriting(10);
    std::memset(sockBuffer.buffer, 0x55, 10);
    stagePaddedMasked(text("AB"), 8);
    stage(text("CD"));
    TraceFile trace(4);

    flushBuffer(&sockBuffer);

    EXPECT_TRUE(trace.wroteText("<ptr>: 2A2A2A2A 2A2A2A2A 4344              : ********CD\n"));
    EXPECT_EQ("BE035555 55555555 4344", sentHex());
}

TEST_F(SocketBufferMasked, ShowsOnlyAsterisksOfASecretLargerThanTheBuffer)
{
    bindForWriting(4);
    sockBuffer.totalCount = 12;
    TraceFile trace(5);

    stageMasked(text("ABCDEFGHIJKL"));
    ASSERT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_EQ("BE030107 0103010F 01030107", sentHex());
    int dumps = 0;
    for (const TraceRecord& record : trace.records()) {
        if (record.point != 2526) continue;
        dumps += 1;
        EXPECT_TRUE(contains(record.body, " : ****\n") || contains(record.body, " : ***\n") ||
                    contains(record.body, " : **\n") || contains(record.body, " : *\n"))
            << record.body;
    }
    EXPECT_LE(3, dumps);
    for (const char* shown : {"41424344", "BE030107", "0103010F", "45464748", "ABCD", "EFGH"})
        EXPECT_FALSE(trace.wroteText(shown)) << shown;
}

TEST_F(SocketBufferMasked, PutsASecretBackWhenTheSendFails)
{
    bindForWriting(14);
    stage(text("user"));
    stageMasked(text("SECRET"));
    stage(text("more"));
    TraceFile trace(4);
    Fault broken = failCall(Call::Send, 1, EPIPE);

    EXPECT_RC(-102, flushBuffer(&sockBuffer));

    EXPECT_EQ("75736572 AC160611 17116D6F 7265", toHex(staged()));
}

TEST_F(SocketBufferMasked, OverwritesTheFirstFourBytesOfTheSaveAreaAfterTheTrace)
{
    bindForWriting(6);
    stageMasked(text("SECRET"));
    TraceFile trace(4);
    Fault broken = failCall(Call::Send, 1, EPIPE);

    flushBuffer(&sockBuffer);

    ASSERT_NE(nullptr, sockBuffer.maskArea);
    char* saved = sockBuffer.maskArea->lstore;
    EXPECT_EQ("2A2A2A2A 1711", toHex(Bytes(saved, saved + 6)));
}

TEST_F(SocketBufferMasked, OverwritesTheWholeOfAShorterSaveArea)
{
    bindForWriting(3);
    stageMasked(text("ABC"));
    TraceFile trace(4);
    Fault broken = failCall(Call::Send, 1, EPIPE);

    flushBuffer(&sockBuffer);

    ASSERT_NE(nullptr, sockBuffer.maskArea);
    char* saved = sockBuffer.maskArea->lstore;
    EXPECT_EQ("2A2A2A", toHex(Bytes(saved, saved + 3)));
}

TEST_F(SocketBufferMasked, TracesNothingOfASecretThatFits)
{
    bindForWriting(16);
    TraceFile trace(5);

    stageMasked(text("SECRET"));
    stagePaddedMasked(text("AB"), 8);

    EXPECT_EQ("", trace.text());
}

TEST_F(SocketBufferMasked, TracesASecretThatDoesNotFit)
{
    bindForWriting(6);
    stage(text("ABCD"));
    TraceFile trace(4);

    stageMasked(text("XYZ"));

    EXPECT_EQ((std::vector<int>{2570, 2525, 2526, 2528, 2529}), pointsOf(trace));
    EXPECT_TRUE(
        trace.wrote(2570, "DEBUG",
                    "clapi_socketbuffer.writeBytesMasked() Insufficient space in buffer <ptr> "
                    "to write 3 bytes"));
}

TEST_F(SocketBufferMasked, TracesAPaddedSecretThatDoesNotFitWithItsWidth)
{
    bindForWriting(6);
    stage(text("ABCD"));
    TraceFile trace(4);

    stagePaddedMasked(text("X"), 3);

    EXPECT_EQ((std::vector<int>{2571, 2525, 2526, 2528, 2529}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(
        2571, "DEBUG",
        "clapi_socketbuffer.writePaddedBytesMasked() Insufficient space in buffer <ptr> "
        "to write 3 bytes"));
}

// ---- Without memory ----

TEST_F(SocketBufferMasked, SendsASecretThatCouldNotBeRegistered)
{
    bindForWriting(14);
    stage(text("user"));
    {
        Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);
        stageMasked(text("SECRET"));
        EXPECT_EQ(1, noMemory.hits());
    }
    stage(text("more"));

    EXPECT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_EQ("75736572 AC160611 17116D6F 7265", sentHex());
}

TEST_F(SocketBufferMasked, SendsAPaddedSecretThatCouldNotBeRegistered)
{
    bindForWriting(8);
    std::memset(sockBuffer.buffer, 0x55, 8);
    {
        Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);
        stagePaddedMasked(hex("414243"), 8);
        EXPECT_EQ(1, noMemory.hits());
    }

    EXPECT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_EQ("BE030155 55555555", sentHex());
}

TEST_F(SocketBufferMasked, ShowsNoDataOfABufferWithASecretThatCouldNotBeRegistered)
{
    bindForWriting(14);
    stage(text("user"));
    {
        Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);
        stageMasked(text("SECRET"));
    }
    stage(text("more"));
    TraceFile trace(5);

    ASSERT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_FALSE(trace.wroteText("AC160611"));
    EXPECT_FALSE(trace.wroteText("AC16"));
    EXPECT_FALSE(trace.wroteText("SECRET"));
    EXPECT_FALSE(trace.wroteText("53454352"));
    EXPECT_FALSE(trace.wroteText("75736572"));
    EXPECT_TRUE(
        trace.wrote(2528, "clapi_socketbuffer.flushBuffer() Sent 14 bytes, 0 bytes remaining"));
}

TEST_F(SocketBufferMasked, ShowsDataAgainOnceTheUnregisteredSecretIsSent)
{
    bindForWriting(8);
    {
        Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);
        stageMasked(text("ABC"));
    }
    ASSERT_RC(0, flushBuffer(&sockBuffer));
    stage(text("user"));
    TraceFile trace(4);

    ASSERT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_TRUE(trace.wroteText("<ptr>: 75736572                            : user\n"));
}

TEST_F(SocketBufferMasked, RegistersOtherSecretsBesideOneThatCouldNotBe)
{
    bindForWriting(12);
    {
        Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);
        stageMasked(text("ABC"));
    }
    stageMasked(text("XYZ"));
    TraceFile trace(5);

    ASSERT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_EQ("BE0301A7 0103", sentHex());
    EXPECT_FALSE(trace.wroteText("BE0301"));
    EXPECT_FALSE(trace.wroteText("A70103"));
}

TEST_F(SocketBufferMasked, SendsALargeSecretThatCouldNotBeRegistered)
{
    bindForWriting(4);
    sockBuffer.totalCount = 12;
    TraceFile trace(5);
    Fault noMemory = failEveryCall(Call::Malloc, ENOMEM);

    stageMasked(text("ABCDEFGHIJKL"));
    ASSERT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_EQ("BE030107 0103010F 01030107", sentHex());
    for (const char* shown : {"41424344", "BE030107", "0103010F", "ABCD"})
        EXPECT_FALSE(trace.wroteText(shown)) << shown;
}

TEST_F(SocketBufferMasked, ForgetsTheUnregisteredSecretWhenTheBufferIsBoundAgain)
{
    bindForWriting(8);
    {
        Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);
        stageMasked(text("ABC"));
    }
    bindForWriting(8);
    stage(text("user"));
    TraceFile trace(4);

    ASSERT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_TRUE(trace.wroteText("<ptr>: 75736572                            : user\n"));
}

} // namespace
