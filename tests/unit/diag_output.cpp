// How lines and dumps leave: whole, in few writes, to a destination that may change meanwhile.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "clapi_diag.h"
#include "clapi_impl.h"
#include "support/call_in_thread.h"
#include "support/descriptors.h"
#include "support/expect_rc.h"
#include "support/faults.h"
#include "support/trace_file.h"
#include "unit/connect_fixture.h"

using namespace support;

namespace {

class Output : public ::testing::Test {
protected:
    Output() : first_(directory_.file("first")), second_(directory_.file("second"))
    {
        EXPECT_RC(0, clapiInit());
    }
    ~Output() override
    {
        QPX_setAPITraceLevel(0);
        QPX_setAPITraceFile(nullptr);
        QPX_setAPITraceDataLength(128);
    }

    void traceTo(std::string& path, int level)
    {
        ASSERT_RC(0, QPX_setAPITraceFile(path.data()));
        ASSERT_RC(0, QPX_setAPITraceLevel(level));
    }

    // Writes line 3104, without the trace lock.
    static void useBadLock()
    {
        Clapilock lock = {};
        EXPECT_EQ(-1, clapiRequestLock(&lock));
    }

    // A line that finds no room.
    static void loseALine()
    {
        Fault full = failEveryCall(Call::Write, ENOSPC);
        useBadLock();
    }

    // The system calls by which the calling thread writes during a call.
    static long writesDuring(const std::function<void()>& call)
    {
        long before = writesSoFar();
        call();
        return writesSoFar() - before;
    }

    TemporaryDirectory directory_;
    std::string first_;
    std::string second_;

private:
    static long writesSoFar()
    {
        std::ifstream counts("/proc/thread-self/io");
        std::string name;
        long count = -1;
        while (counts >> name >> count)
            if (name == "syscw:") return count;
        ADD_FAILURE() << "the system counts no writes";
        return -1;
    }
};

constexpr char badLockText[] = "clapi_lock.clapiRequestLock(lockPtr=<ptr>) Lock not initialized";

// The text without the banners that come with each switch.
std::string withoutBanners(const std::string& text)
{
    std::istringstream lines(text);
    std::string rest;
    for (std::string line; std::getline(lines, line);)
        if (line.find("*** ") != 0) rest += line + "\n";
    return rest;
}

// How many lines of a point there are; each has to read as the pattern and to have the body.
int wholeLines(const std::string& text, int point, const std::string& message,
               const std::string& body)
{
    int count = 0;
    for (const TraceRecord& record : parseTrace(text)) {
        if (record.point != point) continue;
        count += 1;
        EXPECT_TRUE(matches(message, record.message)) << record.message;
        EXPECT_TRUE(matches(body, record.body)) << record.body;
    }
    return count;
}

constexpr std::size_t blockSize = 4096;

std::string block()
{
    std::string bytes;
    for (std::size_t at = 0; at < blockSize; ++at) bytes += static_cast<char>('A' + at % 26);
    return bytes;
}

// The dump of a block of such bytes, with a pattern in the place of each address.
std::string dumpOfLetters(const std::string& bytes)
{
    std::string dump;
    for (std::size_t at = 0; at < bytes.size(); at += 16) {
        std::string hexadecimal;
        std::string characters;
        for (std::size_t i = at; i < at + 16; ++i) {
            char digits[3];
            std::snprintf(digits, sizeof digits, "%2.2X", static_cast<unsigned char>(bytes[i]));
            hexadecimal += digits;
            if (i % 4 == 3 && i % 16 != 15) hexadecimal += ' ';
            characters += bytes[i];
        }
        dump += "<ptr>: " + hexadecimal + " : " + characters + " \n";
    }
    return dump;
}

std::string wholeDumpOfLetters(const std::string& bytes)
{
    return "Data truncation size=0, offset=0\n" + dumpOfLetters(bytes);
}

} // namespace

// ---- Lines and changes of the destination ------------------------------------------------------

TEST_F(Output, OfALineWithoutTheLockGoesToTheNewFileWhenTheOldOneIsBeingClosed)
{
    traceTo(first_, 1);
    Gate gate;
    Fault closed = afterCall(Call::Fclose, 1, [&](const CallInfo&) { gate.pass(); });
    auto change = callInThread([&] { return QPX_setAPITraceFile(second_.data()); });
    ASSERT_TRUE(gate.awaitArrival()); // the first file is closed

    useBadLock();

    gate.open();
    EXPECT_RC(0, change.get());
    EXPECT_FALSE(wroteIn(readFile(first_), 3104, "*EXC*", badLockText));
    EXPECT_TRUE(wroteIn(readFile(second_), 3104, "*EXC*", badLockText));
}

TEST_F(Output, OfALineWithoutTheLockIsWaitedForBeforeItsFileIsClosed)
{
    traceTo(first_, 1);
    Gate gate;
    Fault writing = beforeCall(
        Call::Write, 1, [&](const CallInfo&) { gate.pass(); }, Threads::Others);
    auto line = callInThread([] { useBadLock(); });
    ASSERT_TRUE(gate.awaitArrival()); // it is about to be written to the first file

    int opened = callCount(Call::Fopen);
    int locks = callCount(Call::MutexLock);
    auto change = callInThread([&] { return QPX_setAPITraceFile(second_.data()); });
    // The change takes the trace lock, opens its file, and comes to the lock of the destination.
    ASSERT_TRUE(awaitCallCount(Call::MutexLock, locks + 2));
    EXPECT_EQ(opened + 1, callCount(Call::Fopen));
    EXPECT_EQ(0, callCount(Call::Fclose));

    gate.open();
    line.get();
    EXPECT_RC(0, change.get());
    EXPECT_EQ(1, callCount(Call::Fclose));
    EXPECT_TRUE(wroteIn(readFile(first_), 3104, "*EXC*", badLockText));
}

TEST_F(Output, LosesNoLineWithoutTheLockWhileTheFileIsSwitchedToAndFro)
{
    constexpr int lines = 3000;
    constexpr int switches = 300;
    traceTo(first_, 1);
    {
        auto writer = callInThread([] {
            for (int i = 0; i < lines; ++i) useBadLock();
        });
        for (int i = 0; i < switches; ++i)
            EXPECT_RC(0, QPX_setAPITraceFile(i % 2 == 0 ? second_.data() : first_.data()));
    }
    std::string text = withoutBanners(readFile(first_)) + withoutBanners(readFile(second_));
    EXPECT_EQ(lines, wholeLines(text, 3104, badLockText, ""));
}

TEST_F(Output, ShowsAWholeNameOfAFileThatOthersSwitchMeanwhile)
{
    std::string shortName = directory_.file("s");
    std::string longName = directory_.file(std::string(200, 'l'));
    constexpr int switches = 200;
    traceTo(first_, 3);
    auto toAndFro = [&](std::string name, std::string other) {
        for (int i = 0; i < switches; ++i)
            EXPECT_RC(0, QPX_setAPITraceFile(i % 2 == 0 ? name.data() : other.data()));
    };
    {
        auto another = callInThread([&] { toAndFro(shortName, longName); });
        toAndFro(longName, shortName);
    }
    int names = 0;
    for (const std::string& path : {first_, shortName, longName})
        for (const TraceRecord& record : parseTrace(readFile(path))) {
            if (record.point != 1041 && record.point != 1045) continue;
            std::string name = record.message.substr(record.message.rfind('=') + 1);
            EXPECT_TRUE(name == first_ || name == shortName || name == longName) << name;
            names += 1;
        }
    EXPECT_EQ(4 * switches, names);
}

// ---- Whole dumps -------------------------------------------------------------------------------

TEST_F(Output, OfADumpIsNotTornByALineWithoutTheLock)
{
    traceTo(first_, 4);
    QPX_setAPITraceDataLength(0);
    std::string bytes = block();
    Gate gate;
    Fault writing = beforeCall(
        Call::Write, 1, [&](const CallInfo&) { gate.pass(); }, Threads::Others);
    auto dump = callInThread(
        [&] { TRACE_DATA(tpData(7, "a block\n"), dumpOf(bytes.data(), bytes.size())); });
    ASSERT_TRUE(gate.awaitArrival());
    int locks = callCount(Call::MutexLock);
    auto line = callInThread([] { useBadLock(); });
    ASSERT_TRUE(awaitCallCount(Call::MutexLock, locks + 1));

    gate.open();
    dump.get();
    line.get();
    std::string text = readFile(first_);
    EXPECT_EQ(1, wholeLines(text, 7, "a block", wholeDumpOfLetters(bytes)));
    EXPECT_EQ(1, wholeLines(text, 3104, badLockText, ""));
}

TEST_F(Output, OfManyThreadsIsWholeWhateverTheyWrite)
{
    constexpr int rounds = 40;
    constexpr int threads = 3;
    traceTo(first_, 4);
    QPX_setAPITraceDataLength(0);
    std::string bytes = block();
    std::size_t start = readFile(first_).size();
    {
        std::vector<RunningCall<void>> calls;
        for (int thread = 0; thread < threads; ++thread) {
            calls.push_back(callInThread([] {
                for (int i = 0; i < 10 * rounds; ++i) TRACE(tpExc(6, "line %d\n"), 5);
            }));
            calls.push_back(callInThread([&] {
                for (int i = 0; i < rounds; ++i)
                    TRACE_DATA(tpData(7, "a block\n"), dumpOf(bytes.data(), bytes.size()));
            }));
            calls.push_back(callInThread([] {
                for (int i = 0; i < 10 * rounds; ++i) useBadLock();
            }));
        }
    }
    std::string text = readFile(first_).substr(start);
    EXPECT_EQ(10 * rounds * threads, wholeLines(text, 6, "line 5", ""));
    EXPECT_EQ(rounds * threads, wholeLines(text, 7, "a block", wholeDumpOfLetters(bytes)));
    EXPECT_EQ(10 * rounds * threads, wholeLines(text, 3104, badLockText, ""));
}

// ---- Few writes --------------------------------------------------------------------------------

// The address sanitizer looks at memory by writing from it, so that there the system counts more.
#ifndef __SANITIZE_ADDRESS__

TEST_F(Output, OfALineWithItsDumpIsOneWriteToAFile)
{
    traceTo(first_, 4);
    QPX_setAPITraceDataLength(0);
    std::string bytes = block();
    EXPECT_EQ(1, writesDuring([&] {
                  TRACE_DATA(tpData(7, "a block\n"), dumpOf(bytes.data(), bytes.size()));
              }));
}

TEST_F(Output, OfALineWithItsDumpIsOneWriteToStandardError)
{
    CapturedStderr output;
    ASSERT_RC(0, QPX_setAPITraceLevel(4));
    QPX_setAPITraceDataLength(0);
    std::string bytes = block();
    EXPECT_EQ(1, writesDuring([&] {
                  TRACE_DATA(tpData(7, "a block\n"), dumpOf(bytes.data(), bytes.size()));
              }));
    EXPECT_EQ(1, wholeLines(output.text(), 7, "a block", wholeDumpOfLetters(bytes)));
}

#endif

TEST_F(Output, OfALongDumpLeavesInPiecesOfWholeLines)
{
    traceTo(first_, 4);
    QPX_setAPITraceDataLength(0);
    std::string bytes;
    for (int i = 0; i < 32; ++i) bytes += block();
    // The blocks do not end with a letter's line, so the text is made of one.
    std::string dump = "Data truncation size=0, offset=0\n";
    for (int i = 0; i < 32; ++i) dump += dumpOfLetters(block());
    std::vector<bool> wholes;
    {
        Fault look = beforeCall(Call::Write, 0, [&](const CallInfo& info) {
            // Nothing of a piece is on its way yet, so the file ends with the piece before.
            EXPECT_LE(info.second, 65536u);
            std::string text = readFile(first_);
            wholes.push_back(text.back() == '\n');
        });
        TRACE_DATA(tpData(7, "blocks\n"), dumpOf(bytes.data(), bytes.size()));
    }
    EXPECT_EQ(1, wholeLines(readFile(first_), 7, "blocks", dump));
    EXPECT_GT(wholes.size(), 1u);
    EXPECT_LE(wholes.size(), 12u);
    EXPECT_EQ(0, std::count(wholes.begin(), wholes.end(), false));
}

TEST_F(Output, OfAVeryLongLineIsWhole)
{
    traceTo(first_, 1);
    std::string name(200000, 'n');
    TRACE(tpExc(7, "name=%s\n"), name.c_str());
    EXPECT_EQ(1, wholeLines(readFile(first_), 7, "name=" + name, ""));
}

TEST_F(Output, OfAVeryLongLineIsWholeWithoutMemory)
{
    traceTo(first_, 1);
    std::string name(200000, 'n');
    {
        Fault fault = failEveryCall(Call::Malloc, ENOMEM);
        TRACE(tpExc(7, "name=%s\n"), name.c_str());
        EXPECT_EQ(1, fault.hits());
    }
    EXPECT_EQ(1, wholeLines(readFile(first_), 7, "name=" + name, ""));
}

TEST_F(Output, OfATextIsWholeWithoutMemoryOrAFormat)
{
    traceTo(first_, 1);
    std::size_t start = readFile(first_).size();
    std::string text = std::string(200000, 't') + "%s\n";
    {
        Fault memory = failEveryCall(Call::Malloc, ENOMEM);
        TraceHold hold;
        clapiTraceText(text.c_str());
        EXPECT_EQ(0, memory.hits());
    }
    EXPECT_TRUE(text == readFile(first_).substr(start));
}

TEST_F(Output, ComesBehindWhatTheApplicationHasLeftInTheBufferOfStandardError)
{
    CapturedStderr output;
    ASSERT_RC(0, QPX_setAPITraceLevel(1));
    static char buffer[BUFSIZ];
    ASSERT_EQ(0, setvbuf(stderr, buffer, _IOFBF, sizeof buffer));
    std::fprintf(stderr, "before\n");
    useBadLock();
    std::fprintf(stderr, "behind\n");
    std::string text = output.text();
    ASSERT_EQ(0, setvbuf(stderr, nullptr, _IONBF, 0));
    EXPECT_TRUE(
        contains(text, "before\n<any>[3104] *EXC*  " + std::string(badLockText) + "\nbehind\n"));
}

// ---- The lock of the stream --------------------------------------------------------------------

TEST_F(Output, GoesPastAStreamWhoseHolderWaitsForTheTrace)
{
    CapturedStderr output;
    ASSERT_RC(0, QPX_setAPITraceLevel(3));
    Gate holding;
    auto holder = callInThread([&] {
        flockfile(stderr);
        holding.pass();
        TRACE(tpExc(6, "of the holder\n"));
        funlockfile(stderr);
    });
    ASSERT_TRUE(holding.awaitArrival());
    Gate inLine;
    Fault second = beforeCall(
        Call::MutexLock, 2, [&](const CallInfo&) { inLine.pass(); }, Threads::Others);
    auto line = callInThread([] { TRACE(tpExc(7, "of another\n")); });
    ASSERT_TRUE(inLine.awaitArrival()); // it has traceLock, and comes to the stream next

    Gate asking;
    Fault requested = fixture::stopAtLock(Call::MutexLock, traceLock.lock, asking, fixture::always);
    holding.open();
    ASSERT_TRUE(asking.awaitArrival());
    asking.open();
    inLine.open();
    line.get();
    holder.get();
    std::string text = output.text();
    EXPECT_EQ(1, wholeLines(text, 6, "of the holder", ""));
    EXPECT_EQ(1, wholeLines(text, 7, "of another", ""));
}

namespace {

// Another thread that has a stream for itself, from the construction until letGo().
class HeldStream {
public:
    explicit HeldStream(FILE* stream)
        : holder_(callInThread([stream, gate = gate_]() mutable {
              flockfile(stream);
              std::fputs("half a line ", stream);
              gate.pass();
              std::fputs("of the application\n", stream);
              funlockfile(stream);
          }))
    {
        EXPECT_TRUE(gate_.awaitArrival());
    }
    ~HeldStream() { gate_.open(); }

    void letGo()
    {
        gate_.open();
        holder_.get();
    }

private:
    Gate gate_;
    RunningCall<void> holder_;
};

} // namespace

TEST_F(Output, WaitsAMomentForAStreamThatAnotherThreadHolds)
{
    traceTo(first_, 1);
    HeldStream held(clientAPITraceHandle);
    Fault moment = beforeCall(Call::Poll, 1, [&](const CallInfo&) { held.letGo(); });
    useBadLock();
    EXPECT_TRUE(contains(readFile(first_), "\nhalf a line of the application\n<any>[3104] *EXC*  " +
                                               std::string(badLockText) + "\n"));
}

// Also where others have had it before: a line of theirs may have been begun.
TEST_F(Output, WaitsAsLongWithEachLineForAStreamThatAnotherThreadHas)
{
    traceTo(first_, 1);
    Fault moments = fakeCall(Call::Poll, 0, 0);
    HeldStream held(clientAPITraceHandle);
    useBadLock();
    int waited = moments.hits();
    EXPECT_GT(waited, 0);
    useBadLock();
    EXPECT_EQ(2 * waited, moments.hits());
    EXPECT_EQ(2, wholeLines(readFile(first_), 3104, badLockText, ""));
    held.letGo();
    useBadLock();
    EXPECT_EQ(2 * waited, moments.hits());
}

TEST_F(Output, OfAVeryLongLineIsWholePastAHeldStreamWithoutMemory)
{
    traceTo(first_, 1);
    Fault moments = fakeCall(Call::Poll, 0, 0);
    std::string name(200000, 'n');
    HeldStream held(clientAPITraceHandle);
    {
        Fault memory = failEveryCall(Call::Malloc, ENOMEM, Threads::Calling);
        TRACE(tpExc(7, "name=%s\n"), name.c_str());
        EXPECT_EQ(1, memory.hits());
    }
    EXPECT_EQ(1, wholeLines(readFile(first_), 7, "name=" + name, ""));
}

// ---- Writes that fail --------------------------------------------------------------------------

TEST_F(Output, GoesOnWhereAShortWriteHasEnded)
{
    traceTo(first_, 1);
    Fault writes = limitLength(Call::Write, 7);
    useBadLock();
    EXPECT_GT(writes.hits(), 10);
    EXPECT_EQ(1, wholeLines(readFile(first_), 3104, badLockText, ""));
}

TEST_F(Output, IsTriedAgainWhenASignalComesInBetween)
{
    traceTo(first_, 1);
    Fault writes = failCall(Call::Write, 1, EINTR);
    useBadLock();
    EXPECT_EQ(1, writes.hits());
    EXPECT_EQ(1, wholeLines(readFile(first_), 3104, badLockText, ""));
}

TEST_F(Output, WaitsUntilAFullDestinationHasRoom)
{
    traceTo(first_, 1);
    Fault writes = failCall(Call::Write, 1, EAGAIN);
    int polls = callCount(Call::Poll);
    useBadLock();
    EXPECT_EQ(1, writes.hits());
    EXPECT_EQ(polls + 1, callCount(Call::Poll));
    EXPECT_EQ(1, wholeLines(readFile(first_), 3104, badLockText, ""));
}

TEST_F(Output, WaitsOnceForADestinationThatStaysFullAndTellsWhatIsMissing)
{
    traceTo(first_, 1);
    {
        Fault writes = failEveryCall(Call::Write, EAGAIN);
        Fault polls = fakeCall(Call::Poll, 0, 0); // the limit has passed
        useBadLock();
        EXPECT_EQ(1, polls.hits());
        EXPECT_EQ(1, writes.hits());
        useBadLock();
        EXPECT_EQ(1, polls.hits());
        EXPECT_EQ(2, writes.hits());
    }
    std::size_t start = readFile(first_).size();
    useBadLock();
    std::string text = readFile(first_).substr(start);
    EXPECT_EQ(1, wholeLines(text, 3104, badLockText, ""));
    // Two lines of the length of the third.
    std::string told = text.substr(0, text.find('\n') + 1);
    EXPECT_EQ("*** " + std::to_string(2 * (text.size() - told.size())) +
                  " bytes of trace lost ***\n",
              told);
}

TEST_F(Output, TellsHowManyBytesAreMissingBeyondWhatFitsIntoMemory)
{
    traceTo(first_, 1);
    std::string text(64 << 20, 'x');
    constexpr unsigned long long times = 65;
    std::size_t start = readFile(first_).size();
    {
        Fault writes = failEveryCall(Call::Write, ENOSPC);
        TraceHold hold;
        for (unsigned long long i = 0; i < times; ++i) clapiTraceText(text.c_str());
    }
    useBadLock();
    EXPECT_EQ(0u, readFile(first_).substr(start).find("*** " + std::to_string(times * text.size()) +
                                                      " bytes of trace lost ***\n"));
}

TEST_F(Output, TellsThatAVeryLongLineIsMissingForWhichThereWasNoMemory)
{
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_NONBLOCK | O_CLOEXEC));
    FILE* pipe = fdopen(ends[1], "w");
    ASSERT_RC(0, QPX_setAPITraceLevel(1));
    FILE* before = clientAPITraceHandle;
    clientAPITraceHandle = pipe;
    std::string name(200000, 'n'); // more than the pipe takes
    {
        Fault memory = failEveryCall(Call::Malloc, ENOMEM);
        TRACE(tpExc(7, "name=%s\n"), name.c_str());
        EXPECT_EQ(1, memory.hits());
    }
    std::string taken;
    char piece[4096];
    for (ssize_t got = 0; (got = read(ends[0], piece, sizeof piece)) > 0;)
        taken.append(piece, static_cast<std::size_t>(got));
    useBadLock();
    ssize_t got = read(ends[0], piece, sizeof piece);
    clientAPITraceHandle = before;
    std::fclose(pipe);
    close(ends[0]);
    EXPECT_LT(taken.size(), name.size());
    std::size_t length = name.size() + sizeof "name=\n" - 1;
    std::string told = "\n*** " + std::to_string(length) + " bytes of trace lost ***\n";
    EXPECT_EQ(told, std::string(piece, static_cast<std::size_t>(std::max<ssize_t>(got, 0)))
                        .substr(0, told.size()));
}

TEST_F(Output, CountsAVeryLongLineWithoutMemoryWhereBytesAreMissingAlready)
{
    traceTo(first_, 1);
    std::string name(200000, 'n');
    std::size_t start = readFile(first_).size();
    {
        Fault full = failEveryCall(Call::Write, ENOSPC);
        Fault memory = failEveryCall(Call::Malloc, ENOMEM);
        TRACE(tpExc(7, "name=%s\n"), name.c_str());
        EXPECT_EQ(1, memory.hits());
    }
    EXPECT_EQ(start, readFile(first_).size()); // no half of a line
    TRACE(tpExc(7, "name=%s\n"), name.c_str());
    std::string text = readFile(first_).substr(start);
    std::string told = text.substr(0, text.find('\n') + 1);
    EXPECT_EQ("*** " + std::to_string(text.size() - told.size()) + " bytes of trace lost ***\n",
              told.substr(0, 100));
}

TEST_F(Output, BeginsALineOfItsOwnBehindOneThatWasCut)
{
    traceTo(first_, 1);
    std::size_t start = readFile(first_).size();
    {
        Fault part = limitLength(Call::Write, 5, 1);
        Fault full = failCallsFrom(Call::Write, 2, ENOSPC);
        useBadLock();
    }
    useBadLock();
    std::string text = readFile(first_).substr(start);
    std::size_t cut = text.find('\n');
    EXPECT_EQ(5u, cut);
    std::size_t next = text.find('\n', cut + 1);
    EXPECT_TRUE(matches("*** <int> bytes of trace lost ***", text.substr(cut + 1, next - cut - 1)));
    EXPECT_EQ(1, wholeLines(text.substr(next + 1), 3104, badLockText, ""));
}

TEST_F(Output, TellsOfALossOnALineOfItsOwnBehindTheBeginningOfAVeryLongLine)
{
    traceTo(first_, 1);
    std::string name(200000, 'n');
    {
        Fault full = failCallsFrom(Call::Write, 2, ENOSPC); // the beginning of the line has left
        TRACE(tpExc(7, "name=%s\n"), name.c_str());
        EXPECT_EQ(1, full.hits());
    }
    useBadLock();
    EXPECT_TRUE(contains(readFile(first_), "*EXC*  \n*** 200006 bytes of trace lost ***\n"));
}

TEST_F(Output, TellsOfALossOnALineOfItsOwnBehindAMessageWithoutALineEnd)
{
    traceTo(first_, 1);
    TRACE(tpExc(7, "no end"));
    loseALine();
    useBadLock();
    EXPECT_TRUE(contains(readFile(first_), "no end\n*** <int> bytes of trace lost ***\n"));
}

TEST_F(Output, LeavesNoEmptyLineBehindAVeryLongLineForWhichThereWasNoMemory)
{
    traceTo(first_, 1);
    std::string name(200000, 'n');
    {
        Fault memory = failEveryCall(Call::Malloc, ENOMEM);
        TRACE(tpExc(7, "name=%s\n"), name.c_str());
    }
    loseALine();
    useBadLock();
    EXPECT_TRUE(contains(readFile(first_), "n\n*** <int> bytes of trace lost ***\n"));
}

TEST_F(Output, EndsALineThatWasCutOnceThoughTheNoteOfTheLossIsCutBehindTheLineEnd)
{
    traceTo(first_, 1);
    std::size_t start = readFile(first_).size();
    for (std::size_t taken : {5, 1}) {
        Fault part = limitLength(Call::Write, taken, 1);
        Fault full = failCallsFrom(Call::Write, 2, ENOSPC);
        useBadLock();
    }
    useBadLock();
    std::string text = readFile(first_).substr(start);
    EXPECT_EQ(5u, text.find("\n*** "));
}

TEST_F(Output, DoesNotSpinOnADestinationThatOthersFillAgainAndAgain)
{
    traceTo(first_, 1);
    Fault writes = failEveryCall(Call::Write, EAGAIN);
    Fault polls = fakeCall(Call::Poll, 0, 1); // there is room, and then there is none
    useBadLock();
    EXPECT_LE(writes.hits(), 101);
    EXPECT_LE(polls.hits(), 100);
}

TEST_F(Output, GoesOnWhereASignalHasInterruptedAWrite)
{
    traceTo(first_, 1);
    std::size_t start = readFile(first_).size();
    {
        Fault interrupted = failCall(Call::Write, 1, EINTR);
        useBadLock();
        EXPECT_EQ(1, interrupted.hits());
    }
    EXPECT_EQ(1, wholeLines(readFile(first_).substr(start), 3104, badLockText, ""));
}

TEST_F(Output, CountsALineAsLostThatADestinationTakesNothingOf)
{
    traceTo(first_, 1);
    std::size_t start = readFile(first_).size();
    {
        Fault nothing = fakeCall(Call::Write, 1, 0);
        useBadLock();
        EXPECT_EQ(1, nothing.hits());
    }
    EXPECT_EQ("", readFile(first_).substr(start));
    useBadLock();
    EXPECT_TRUE(contains(readFile(first_).substr(start), "*** <int> bytes of trace lost ***\n"));
}

TEST_F(Output, GoesToAStreamWithoutADescriptor)
{
    char* text = nullptr;
    std::size_t size = 0;
    FILE* memory = open_memstream(&text, &size);
    ASSERT_NE(nullptr, memory);
    ASSERT_EQ(-1, fileno(memory));
    ASSERT_RC(0, QPX_setAPITraceLevel(1));
    FILE* before = clientAPITraceHandle;
    clientAPITraceHandle = memory;
    useBadLock();
    EXPECT_EQ(1, wholeLines(std::string(text, size), 3104, badLockText, "")); // it waits nowhere
    clientAPITraceHandle = before;
    fclose(memory);
    std::free(text);
}

TEST_F(Output, GoesToStandardErrorWithoutAStream)
{
    ASSERT_RC(0, QPX_setAPITraceLevel(1));
    FILE* before = clientAPITraceHandle;
    CapturedStderr captured;
    clientAPITraceHandle = nullptr;
    useBadLock();
    clientAPITraceHandle = before;
    captured.stop();
    EXPECT_EQ(1, wholeLines(captured.text(), 3104, badLockText, ""));
}

// ---- The file's descriptor ---------------------------------------------------------------------

TEST_F(Output, GoesToAFileThatIsClosedOnExec)
{
    traceTo(first_, 1);
    int descriptor = fileno(clientAPITraceHandle);
    EXPECT_EQ(FD_CLOEXEC, fcntl(descriptor, F_GETFD));

    std::string listing = directory_.file("listing");
    std::string command = "ls -l /proc/self/fd > " + listing;
    ASSERT_EQ(0, std::system(command.c_str()));
    std::string listed = readFile(listing);
    EXPECT_TRUE(contains(listed, listing)); // what the child has shows
    EXPECT_FALSE(contains(listed, first_));
}

// Another thread may execute a program at any moment.
TEST_F(Output, GoesToAFileThatIsClosedOnExecFromItsOpeningOn)
{
    int flags = 0;
    Fault opened = afterCall(Call::Fopen, 1, [&](const CallInfo& info) {
        flags = fcntl(fileno(reinterpret_cast<FILE*>(info.result)), F_GETFD);
    });
    traceTo(first_, 1);
    EXPECT_EQ(FD_CLOEXEC, flags);
}

namespace {

// While it lives one of the standard descriptors is closed.
class WithoutDescriptor {
public:
    explicit WithoutDescriptor(int number)
        : number_(number), saved_(fcntl(number, F_DUPFD_CLOEXEC, 10))
    {
        close(number_);
    }
    ~WithoutDescriptor()
    {
        if (saved_ < 0) return;
        dup2(saved_, number_);
        close(saved_);
    }
    WithoutDescriptor(const WithoutDescriptor&) = delete;
    WithoutDescriptor& operator=(const WithoutDescriptor&) = delete;

private:
    int number_;
    int saved_;
};

class StandardNumber : public Output, public ::testing::WithParamInterface<int> {};

} // namespace

TEST_P(StandardNumber, IsNeverThatOfTheFile)
{
    WithoutDescriptor without(GetParam());
    traceTo(first_, 1);
    int descriptor = fileno(clientAPITraceHandle);
    EXPECT_GT(descriptor, 2);
    EXPECT_EQ(FD_CLOEXEC, fcntl(descriptor, F_GETFD));
    EXPECT_FALSE(descriptorIsOpen(GetParam()));
    useBadLock();
    EXPECT_EQ(1, wholeLines(readFile(first_), 3104, badLockText, ""));
}

INSTANTIATE_TEST_SUITE_P(OfEachStream, StandardNumber, ::testing::Values(0, 1, 2));

TEST_F(Output, StaysWhereItIsWhenTheFileCannotHaveAnotherNumber)
{
    CapturedStderr output;
    WithoutDescriptor without(0);
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    rlimit low = limit;
    low.rlim_cur = 1; // number 0 only
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
    int rc = QPX_setAPITraceFile(first_.data());
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    EXPECT_RC(-130, rc);
    EXPECT_EQ(stderr, clientAPITraceHandle);
    EXPECT_FALSE(descriptorIsOpen(0));
}
