// Reading ahead: what comes from a socket beyond the message that is read.
#include "socketbuffer_fixture.h"

using namespace support;
using namespace unit;

namespace {

class ReadingAhead : public SocketBufferTest {
protected:
    ReadingAhead() { sockBuffer.ahead = &ahead; }

    // Reads a message of so many bytes.
    Bytes message(std::size_t length)
    {
        bindForReading(length);
        return take(length);
    }

    // How many receives something makes.
    template <typename Action>
    int receivesOf(Action action)
    {
        int before = callCount(Call::Recv);
        action();
        return callCount(Call::Recv) - before;
    }

    // What the lines of filling say of each receive, and of the last one.
    static std::vector<std::string> fillLines(const TraceFile& trace)
    {
        std::vector<std::string> lines;
        for (const support::TraceRecord& record : trace.records())
            if (record.point == 2542 || record.point == 2545) lines.push_back(record.message);
        return lines;
    }

    ReadAhead ahead = {};
};

TEST_F(ReadingAhead, TakesSeveralMessagesFromOneReceive)
{
    theirs.send(text("firstsecondthird"));
    std::vector<std::string> messages;

    int receives = receivesOf([&] {
        for (std::size_t length : {5, 6, 5}) messages.push_back(toHex(message(length)));
    });

    EXPECT_EQ(1, receives);
    EXPECT_EQ((std::vector<std::string>{toHex(text("first")), toHex(text("second")),
                                        toHex(text("third"))}),
              messages);
}

TEST_F(ReadingAhead, GivesTheBufferNoByteBeyondItsMessage)
{
    theirs.send(text("ABCDEFGH"));
    bindForReading(4);

    EXPECT_RC(0, fillBuffer(&sockBuffer));

    EXPECT_EQ("41424344", toHex(unread()));
    EXPECT_EQ(4U, ahead.count);
}

TEST_F(ReadingAhead, StaysWithTheBufferWhenThatIsBoundAnew)
{
    bindForReading(4);
    bindForReading(400);

    EXPECT_EQ(&ahead, sockBuffer.ahead);
}

TEST_F(ReadingAhead, ReceivesAgainForTheRestOfAMessage)
{
    theirs.send(text("ABC"));
    bindForReading(8);
    int before = callCount(Call::Recv);
    auto reading = callInThread([this] { return fillBuffer(&sockBuffer); });
    ASSERT_TRUE(awaitCallCount(Call::Recv, before + 2));

    theirs.send(text("DEFGHIJ"));

    EXPECT_RC(0, reading.get());
    EXPECT_EQ(toHex(text("ABCDEFGH")), toHex(unread()));
}

TEST_F(ReadingAhead, ReceivesMuchDataWhereItBelongs)
{
    const Bytes sent = countedBytes(READ_AHEAD_CAPACITY / 2 + 1);
    auto sender = callInThread([&] {
        theirs.send(sent);
        return 0;
    });

    Bytes taken = message(sent.size());

    sender.get();
    EXPECT_TRUE(sent == taken);
    EXPECT_EQ(nullptr, ahead.next);
}

TEST_F(ReadingAhead, TakesWhatItHasBeforeMuchDataIsReceived)
{
    const Bytes sent = countedBytes(90000);
    auto sender = callInThread([&] {
        theirs.send(sent);
        return 0;
    });

    Bytes first = message(100);
    Bytes rest = message(sent.size() - 100);

    sender.get();
    first.insert(first.end(), rest.begin(), rest.end());
    EXPECT_TRUE(sent == first);
}

// What a fill gets is in its trace: how much is still to come after each receive, and what the last
// one has brought.
TEST_F(ReadingAhead, GetsWhatHasComeBeyondItAsPartOfTheSameReceive)
{
    const std::vector<std::size_t> lengths = {100, 20000, 19900};
    const Bytes sent = countedBytes(40000);
    auto linesOfReading = [&] {
        theirs.send(sent);
        TraceFile trace(5);
        for (std::size_t length : lengths) message(length);
        return fillLines(trace);
    };

    sockBuffer.ahead = nullptr;
    const std::vector<std::string> without = linesOfReading();
    sockBuffer.ahead = &ahead;

    EXPECT_EQ(without, linesOfReading());
    EXPECT_EQ(2 * lengths.size(), without.size());
}

TEST_F(ReadingAhead, TellsOfAnEndThatItMeetsBehindAPartInTheNextReceive)
{
    theirs.send(text("ABCDEF"));
    theirs.close();
    message(2);
    bindForReading(8);
    TraceFile trace(5);

    EXPECT_RC(QPX_ERR_LOSTGWCON, fillBuffer(&sockBuffer));

    EXPECT_EQ(toHex(text("CDEF")), toHex(unread()));
    EXPECT_EQ(ECONNRESET, sockBuffer.socketErr);
    EXPECT_EQ((std::vector<std::string>{
                  "clapi_socketbuffer.fillBuffer() Attempting to read 8 bytes",
                  "clapi_socketbuffer.fillBuffer() Attempting to read 4 bytes",
                  "clapi_socketbuffer.fillBuffer() Read 0 bytes, 4 bytes remaining"}),
              fillLines(trace));
}

TEST_F(ReadingAhead, KeepsAFailureThatItMeetsBehindAPart)
{
    theirs.send(text("ABCDEF"));
    message(2);
    Fault failing = failCall(Call::Recv, 1, ETIMEDOUT);
    bindForReading(20000);

    EXPECT_RC(QPX_ERR_LOSTGWCON, fillBuffer(&sockBuffer));

    EXPECT_EQ(1, failing.hits());
    EXPECT_EQ(toHex(text("CDEF")), toHex(unread()));
    EXPECT_EQ(ETIMEDOUT, sockBuffer.socketErr);
}

TEST_F(ReadingAhead, TellsOfAnOrderlyEndBehindTheLastByte)
{
    theirs.send(text("ABCD"));
    theirs.close();

    EXPECT_EQ(toHex(text("AB")), toHex(message(2)));
    EXPECT_EQ(toHex(text("CD")), toHex(message(2)));
    bindForReading(1);
    EXPECT_RC(QPX_ERR_LOSTGWCON, fillBuffer(&sockBuffer));

    EXPECT_EQ(ECONNRESET, sockBuffer.socketErr);
}

TEST_F(ReadingAhead, LeavesTheEndThatAWaitHasMetToTheNextFill)
{
    theirs.close();
    bindForReading(4);
    TraceFile trace(4);

    EXPECT_RC(0, waitForResponse(&sockBuffer, 0));
    EXPECT_EQ(0, sockBuffer.socketErr);
    EXPECT_RC(QPX_ERR_LOSTGWCON, fillBuffer(&sockBuffer));

    EXPECT_EQ(ECONNRESET, sockBuffer.socketErr);
    EXPECT_EQ(0, trace.timesWrote(2523));
}

TEST_F(ReadingAhead, LeavesTheFailureThatAWaitHasMetToTheNextFill)
{
    Fault failing = failCall(Call::Recv, 1, ETIMEDOUT);
    bindForReading(4);

    EXPECT_RC(0, waitForResponse(&sockBuffer, 0));
    EXPECT_RC(QPX_ERR_LOSTGWCON, fillBuffer(&sockBuffer));

    EXPECT_EQ(1, failing.hits());
    EXPECT_EQ(ETIMEDOUT, sockBuffer.socketErr);
}

TEST_F(ReadingAhead, FailsTheWaitForWhatIsNoSocket)
{
    Fault failing = failCall(Call::Recv, 1, EBADF);
    bindForReading(4);
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_LOSTGWCON, waitForResponse(&sockBuffer, 0));

    EXPECT_EQ(1, failing.hits());
    EXPECT_EQ(EBADF, sockBuffer.socketErr);
    EXPECT_TRUE(trace.wrote(2523, "*EXC*",
                            "clapi_socketbuffer.waitForResponse() select failed: Bad file "
                            "descriptor (9)"));
}

TEST_F(ReadingAhead, WaitsForNothingWhenSomethingHasCome)
{
    theirs.send(text("ABCD"));
    message(2);
    bindForReading(2);

    int calls = callCount(Call::Recv) + callCount(Call::Select);
    EXPECT_RC(0, waitForResponse(&sockBuffer, 0));

    EXPECT_EQ(calls, callCount(Call::Recv) + callCount(Call::Select));
    EXPECT_EQ(toHex(text("CD")), toHex(take(2)));
}

TEST_F(ReadingAhead, TakesWhatComesWhileItWaits)
{
    theirs.send(text("ABCD"));
    bindForReading(4);

    int receives = receivesOf([this] {
        EXPECT_RC(0, waitForResponse(&sockBuffer, 0));
        EXPECT_EQ(toHex(text("ABCD")), toHex(take(4)));
    });

    EXPECT_EQ(1, receives);
}

TEST_F(ReadingAhead, WaitsNoLongerThanALimit)
{
    bindForReading(4);

    EXPECT_RC(QPX_ERR_CONNECTTIMEOUT, waitForResponse(&sockBuffer, 1));
}

TEST_F(ReadingAhead, RepeatsAReceiveThatASignalInterrupts)
{
    theirs.send(text("ABCD"));
    Fault interrupted = failCall(Call::Recv, 1, EINTR);
    bindForReading(4);

    EXPECT_RC(0, waitForResponse(&sockBuffer, 0));

    EXPECT_EQ(1, interrupted.hits());
    EXPECT_EQ(toHex(text("ABCD")), toHex(take(4)));
}

} // namespace
