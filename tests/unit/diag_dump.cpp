// Data dumps: hexadecimal digits and characters, cut to a length, from an offset on.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "clapi_diag.h"
#include "clapi_lock.h"
#include "support/expect_rc.h"
#include "support/trace_file.h"

using namespace support;

namespace {

class Dump : public ::testing::Test {
protected:
    Dump() : trace_(4)
    {
        for (std::size_t i = 0; i < sizeof letters_; ++i)
            letters_[i] = static_cast<char>('A' + i % 26);
        QPX_setAPITraceDataLength(128);
        QPX_setAPITraceDataOffset(0);
        trace_.forget();
    }
    ~Dump() override
    {
        QPX_setAPITraceDataLength(128);
        QPX_setAPITraceDataOffset(0);
    }

    // Dumps as every caller in the library does, or in another width.
    std::size_t dump(const void* bytes, std::size_t length, int width = 16)
    {
        LockGuard hold(traceLock);
        return clapiTraceOutStorage(const_cast<void*>(bytes), length, 0, width, 1);
    }

    void setLength(std::size_t length)
    {
        QPX_setAPITraceDataLength(length);
        trace_.forget();
    }

    void setOffset(std::size_t offset)
    {
        QPX_setAPITraceDataOffset(offset);
        trace_.forget();
    }

    // "0x12345678: ", as a line begins.
    static std::string at(const void* address)
    {
        char text[40];
        std::snprintf(text, sizeof text, "%p: ", const_cast<void*>(address));
        return text;
    }

    // How many lines of bytes there are.
    std::size_t byteLines() const { return trace_.lines().size() - 1; }

    TraceFile trace_;
    char letters_[1000];
};

class DumpLine : public Dump {
protected:
    std::string written()
    {
        std::fflush(clientAPITraceHandle);
        return trace_.text();
    }

    std::size_t dual(const void* bytes, std::size_t length, int width)
    {
        LockGuard hold(traceLock);
        return clapiWriteStorageLineDual(const_cast<void*>(bytes), width, length, 0, 1);
    }

    std::size_t hexPart(const void* bytes, std::size_t length, int width)
    {
        LockGuard hold(traceLock);
        return clapiWriteStorageLineHex(const_cast<void*>(bytes), width, length, 0);
    }

    std::size_t charPart(const void* bytes, std::size_t length, int width)
    {
        LockGuard hold(traceLock);
        return clapiWriteStorageLineChar(const_cast<void*>(bytes), width, length, 0, 1);
    }
};

} // namespace

// ---- Whole dumps -------------------------------------------------------------------------------

TEST_F(Dump, OfSixteenBytesIsOneFullLine)
{
    EXPECT_EQ(16u, dump(letters_, 16));
    EXPECT_EQ("Data truncation size=128, offset=0\n" + at(letters_) +
                  "41424344 45464748 494A4B4C 4D4E4F50 : ABCDEFGHIJKLMNOP \n",
              trace_.text());
}

TEST_F(Dump, OfTwentyBytesHasALastLineFilledWithBlanks)
{
    EXPECT_EQ(20u, dump(letters_, 20));
    EXPECT_EQ("Data truncation size=128, offset=0\n" + at(letters_) +
                  "41424344 45464748 494A4B4C 4D4E4F50 : ABCDEFGHIJKLMNOP \n" + at(letters_ + 16) +
                  "51525354                            : QRST\n",
              trace_.text());
}

TEST_F(Dump, OfOneByteIsOneLine)
{
    EXPECT_EQ(1u, dump(letters_, 1));
    EXPECT_EQ("Data truncation size=128, offset=0\n" + at(letters_) +
                  "41                                  : A\n",
              trace_.text());
}

TEST_F(Dump, OfFifteenBytesHasNoBlankBehindItsCharacters)
{
    EXPECT_EQ(15u, dump(letters_, 15));
    EXPECT_EQ("Data truncation size=128, offset=0\n" + at(letters_) +
                  "41424344 45464748 494A4B4C 4D4E4F   : ABCDEFGHIJKLMNO\n",
              trace_.text());
}

TEST_F(Dump, OfSeventeenBytesBeginsASecondLine)
{
    EXPECT_EQ(17u, dump(letters_, 17));
    ASSERT_EQ(2u, byteLines());
    EXPECT_EQ(at(letters_ + 16) + "51                                  : Q", trace_.lines()[2]);
}

// ---- Length and offset -------------------------------------------------------------------------

TEST_F(Dump, ShowsTheFirst128BytesUnlessSetOtherwise)
{
    EXPECT_EQ(128u, dump(letters_, 1000));
    EXPECT_EQ(8u, byteLines());
    EXPECT_EQ("Data truncation size=128, offset=0", trace_.lines()[0]);
}

TEST_F(Dump, IsNotCutAtItsLimit)
{
    EXPECT_EQ(128u, dump(letters_, 128));
    EXPECT_EQ(8u, byteLines());
}

TEST_F(Dump, IsCutOneByteAboveItsLimit)
{
    EXPECT_EQ(128u, dump(letters_, 129));
    EXPECT_EQ(8u, byteLines());
}

TEST_F(Dump, IsWholeOneByteBelowItsLimit)
{
    EXPECT_EQ(127u, dump(letters_, 127));
    EXPECT_EQ(8u, byteLines());
}

TEST_F(Dump, HasNoLimitWithALengthOfZero)
{
    setLength(0);
    EXPECT_EQ(1000u, dump(letters_, 1000));
    EXPECT_EQ(63u, byteLines());
    EXPECT_EQ("Data truncation size=0, offset=0", trace_.lines()[0]);
}

TEST_F(Dump, IsCutWithinALine)
{
    setLength(5);
    EXPECT_EQ(5u, dump(letters_, 1000));
    EXPECT_EQ("Data truncation size=5, offset=0\n" + at(letters_) +
                  "41424344 45                         : ABCDE\n",
              trace_.text());
}

TEST_F(Dump, BeginsAtTheOffset)
{
    setOffset(4);
    EXPECT_EQ(12u, dump(letters_, 16));
    EXPECT_EQ("Data truncation size=128, offset=4\n" + at(letters_ + 4) +
                  "45464748 494A4B4C 4D4E4F50          : EFGHIJKLMNOP\n",
              trace_.text());
}

TEST_F(Dump, ShowsNothingWhenTheOffsetIsItsWholeLength)
{
    setOffset(16);
    EXPECT_EQ(0u, dump(letters_, 16));
    EXPECT_EQ("Data truncation size=128, offset=16\n", trace_.text());
}

TEST_F(Dump, ShowsNothingOfABlockThatIsShorterThanTheOffset)
{
    const std::size_t offsets[] = {11, 20, 111, 400, SIZE_MAX / 2, SIZE_MAX - 10, SIZE_MAX};
    for (std::size_t offset : offsets) {
        setOffset(offset);
        EXPECT_EQ(0u, dump(letters_, 10));
        EXPECT_EQ("Data truncation size=128, offset=" + std::to_string(offset) + "\n",
                  trace_.text());
    }
}

TEST_F(Dump, ShowsNothingOfADataLineThatIsShorterThanTheOffset)
{
    setOffset(20);
    TRACE_DATA(tpData(7, "ten bytes\n"), dumpOf(letters_, 10));
    ASSERT_EQ(1u, trace_.records().size());
    EXPECT_EQ("ten bytes", trace_.records()[0].message);
    EXPECT_EQ("Data truncation size=128, offset=20\n", trace_.records()[0].body);
}

TEST_F(Dump, HasNoLimitBehindTheOffsetEither)
{
    setLength(0);
    setOffset(SIZE_MAX);
    EXPECT_EQ(0u, dump(letters_, 1000));
    setOffset(999);
    EXPECT_EQ(1u, dump(letters_, 1000));
}

TEST_F(Dump, IsCutToItsLimitFromTheOffsetOn)
{
    setLength(20);
    setOffset(900);
    EXPECT_EQ(20u, dump(letters_, 1000));
    ASSERT_EQ(2u, byteLines());
    EXPECT_EQ(0u, trace_.lines()[1].find(at(letters_ + 900)));
    EXPECT_EQ(0u, trace_.lines()[2].find(at(letters_ + 916)));
}

TEST_F(Dump, IsCutToWhatIsBehindTheOffset)
{
    setOffset(990);
    EXPECT_EQ(10u, dump(letters_, 1000));
    EXPECT_EQ(1u, byteLines());
}

// ---- Characters --------------------------------------------------------------------------------

TEST_F(Dump, ShowsPrintableCharactersAsThemselves)
{
    setLength(0);
    char all[256];
    for (int value = 0; value < 256; ++value) all[value] = static_cast<char>(value);
    EXPECT_EQ(256u, dump(all, sizeof all));
    std::string shown;
    std::vector<std::string> lines = trace_.lines();
    for (std::size_t line = 1; line < lines.size(); ++line)
        shown += lines[line].substr(lines[line].find(" : ") + 3, 16);
    EXPECT_EQ(std::string(32, '.') +
                  " !\"#$%&'()*+,-./0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\]^_`"
                  "abcdefghijklmnopqrstuvwxyz{|}~" +
                  std::string(129, '.'),
              shown);
}

TEST_F(Dump, ShowsDigitsInUpperCaseWithLeadingZeros)
{
    const unsigned char bytes[] = {0x00, 0x0F, 0xF0, 0xFF, 0xAB, 0xCD, 0xEF, 0x7F};
    dump(bytes, sizeof bytes);
    EXPECT_EQ(at(bytes) + "000FF0FF ABCDEF7F                   : ........", trace_.lines()[1]);
}

// ---- Other widths ------------------------------------------------------------------------------

TEST_F(Dump, HasLinesOfAnyWidth)
{
    EXPECT_EQ(20u, dump(letters_, 20, 8));
    EXPECT_EQ("Data truncation size=128, offset=0\n" + at(letters_) +
                  "41424344 45464748 : ABCDEFGH\n" + at(letters_ + 8) +
                  "494A4B4C 4D4E4F50 : IJKLMNOP\n" + at(letters_ + 16) +
                  "51525354          : QRST\n",
              trace_.text());
}

TEST_F(Dump, HasTwoBlanksBehindTheSixteenthByteOfAWiderLine)
{
    EXPECT_EQ(32u, dump(letters_, 32, 32));
    EXPECT_EQ("Data truncation size=128, offset=0\n" + at(letters_) +
                  "41424344 45464748 494A4B4C 4D4E4F50  51525354 55565758 595A4142 43444546 : "
                  "ABCDEFGHIJKLMNOP QRSTUVWXYZABCDEF \n",
              trace_.text());
}

TEST_F(Dump, FillsAWiderLineWithTheSameBlanks)
{
    EXPECT_EQ(10u, dump(letters_, 10, 32));
    EXPECT_EQ(at(letters_) +
                  "41424344 45464748 494A                                                   : "
                  "ABCDEFGHIJ",
              trace_.lines()[1]);
}

// ---- The line writers --------------------------------------------------------------------------

TEST_F(DumpLine, OfBothPartsGivesTheBytesWritten)
{
    EXPECT_EQ(16u, dual(letters_, 100, 16));
    EXPECT_EQ("41424344 45464748 494A4B4C 4D4E4F50 : ABCDEFGHIJKLMNOP \n", written());
}

TEST_F(DumpLine, OfBothPartsStopsAtTheEndOfTheData)
{
    EXPECT_EQ(5u, dual(letters_, 5, 16));
    EXPECT_EQ("41424344 45                         : ABCDE\n", written());
}

TEST_F(DumpLine, OfDigitsIsFilledToItsWidth)
{
    EXPECT_EQ(5u, hexPart(letters_, 5, 8));
    EXPECT_EQ("41424344 45      ", written());
}

TEST_F(DumpLine, OfDigitsHasNoBlankAtItsEnd)
{
    EXPECT_EQ(16u, hexPart(letters_, 16, 16));
    EXPECT_EQ("41424344 45464748 494A4B4C 4D4E4F50", written());
}

TEST_F(DumpLine, OfCharactersIsNotFilled)
{
    EXPECT_EQ(5u, charPart(letters_, 5, 16));
    EXPECT_EQ("ABCDE", written());
}

TEST_F(DumpLine, OfSixteenCharactersHasABlankAtItsEnd)
{
    EXPECT_EQ(16u, charPart(letters_, 16, 16));
    EXPECT_EQ("ABCDEFGHIJKLMNOP ", written());
}

TEST_F(DumpLine, ShowsCharactersAsTheyAreUnlessTheyAreToBeTranslated)
{
    char bytes[] = {'A', '\x01', '\x7F', 'B'};
    {
        LockGuard hold(traceLock);
        EXPECT_EQ(4u, clapiWriteStorageLineChar(bytes, 4, 4, 0, 0));
    }
    EXPECT_EQ("A\x01\x7F"
              "B",
              written());
}

// ---- The stop word -----------------------------------------------------------------------------

TEST_F(Dump, OfUnknownLengthStopsAtTheStopWord)
{
    alignas(4) const char bytes[16] = {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H'};
    EXPECT_EQ(8u, dump(bytes, 0));
    EXPECT_EQ(at(bytes) + "41424344 45464748                   : ABCDEFGH", trace_.lines()[1]);
}

TEST_F(Dump, OfUnknownLengthDoesNotStopWithinAWord)
{
    alignas(4) const char bytes[16] = {'A', 'B', 0, 0, 0, 0, 'G', 'H'};
    EXPECT_EQ(8u, dump(bytes, 0));
}

TEST_F(Dump, UpToAStopWordMayHaveSeveralLines)
{
    alignas(8) unsigned char bytes[48];
    std::memset(bytes, 'x', sizeof bytes);
    constexpr unsigned int stopWord = 0xDEADBEEF;
    std::memcpy(bytes + 20, &stopWord, sizeof stopWord);
    {
        LockGuard hold(traceLock);
        EXPECT_EQ(20u, clapiTraceOutStorage(bytes, 0, stopWord, 16, 1));
    }
    EXPECT_EQ(2u, byteLines());
}

TEST_F(Dump, UpToAStopWordThatComesFirstHasNoLine)
{
    alignas(8) unsigned char bytes[16];
    std::memset(bytes, 'x', sizeof bytes);
    constexpr unsigned int stopWord = 0xDEADBEEF;
    std::memcpy(bytes, &stopWord, sizeof stopWord);
    {
        LockGuard hold(traceLock);
        EXPECT_EQ(0u, clapiTraceOutStorage(bytes, 0, stopWord, 16, 1));
    }
    EXPECT_EQ("Data truncation size=128, offset=0\n", trace_.text());
}

TEST_F(Dump, UpToAStopWordBehindAFullLineEndsWithThatLine)
{
    alignas(8) unsigned char bytes[48];
    std::memset(bytes, 'x', sizeof bytes);
    constexpr unsigned int stopWord = 0xDEADBEEF;
    std::memcpy(bytes + 32, &stopWord, sizeof stopWord);
    {
        LockGuard hold(traceLock);
        EXPECT_EQ(32u, clapiTraceOutStorage(bytes, 0, stopWord, 16, 1));
    }
    EXPECT_EQ(2u, byteLines());
}

// ---- Dumps of trace lines ----------------------------------------------------------------------

TEST_F(Dump, FollowsItsDataLine)
{
    TRACE_DATA(tpData(7, "three bytes\n"), dumpOf(letters_, 3));
    std::vector<TraceRecord> records = trace_.records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ("DATA", records[0].type);
    EXPECT_EQ("three bytes", records[0].message);
    EXPECT_EQ("Data truncation size=128, offset=0\n" + at(letters_) +
                  "414243                              : ABC\n",
              records[0].body);
}

TEST_F(Dump, OfNothingIsLeftOutOfItsDataLine)
{
    TRACE_DATA(tpData(7, "no bytes\n"), dumpOf(letters_, 0));
    std::vector<TraceRecord> records = trace_.records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ("", records[0].body);
}

TEST_F(Dump, IsNotWrittenAtLevel3)
{
    EXPECT_RC(0, QPX_setAPITraceLevel(3));
    trace_.forget();
    TRACE_DATA(tpData(7, "three bytes\n"), dumpOf(letters_, 3));
    EXPECT_EQ("", trace_.text());
}

TEST_F(Dump, OfACopyShowsTheAddressesOfItsOriginal)
{
    const char copy[] = "xyz";
    TRACE_DATA(tpData(7, "a copy\n"), dumpOfCopy(copy, 3, letters_));
    EXPECT_EQ("Data truncation size=128, offset=0\n" + at(letters_) +
                  "78797A                              : xyz\n",
              trace_.records()[0].body);
}
