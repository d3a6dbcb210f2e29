// Waiting until a socket is readable.
#include "socketbuffer_fixture.h"

#include "support/descriptors.h"

using namespace support;
using namespace unit;

namespace {

using SocketBufferWait = SocketBufferTest;

TEST_F(SocketBufferWait, ReturnsWhenBytesAreThere)
{
    bindForReading(8);
    theirs.send(text("A"));

    EXPECT_RC(0, waitForResponse(&sockBuffer, 3600));

    EXPECT_EQ(0, sockBuffer.socketErr);
    EXPECT_EQ(0U, sockBuffer.count);
    EXPECT_EQ("41", toHex(ours.read(1)));
}

TEST_F(SocketBufferWait, ReturnsWhenThePeerHasClosed)
{
    bindForReading(8);
    theirs.close();

    EXPECT_RC(0, waitForResponse(&sockBuffer, 3600));
}

TEST_F(SocketBufferWait, ReturnsWhenBytesArriveWhileItWaits)
{
    bindForReading(8);
    int before = callCount(Call::Select) + callCount(Call::Poll);
    auto wait = callInThread([&] { return waitForResponse(&sockBuffer, 0); });
    while (callCount(Call::Select) + callCount(Call::Poll) == before) std::this_thread::yield();
    EXPECT_FALSE(wait.hasEnded());

    theirs.send(text("A"));

    EXPECT_RC(0, wait.get());
}

TEST_F(SocketBufferWait, TimesOutWhenNothingComes)
{
    bindForReading(8);

    EXPECT_RC(-134, waitForResponse(&sockBuffer, 1));
}

TEST_F(SocketBufferWait, RepeatsAWaitThatASignalInterrupted)
{
    bindForReading(8);
    theirs.send(text("A"));
    Fault selectOnce = failCall(Call::Select, 1, EINTR);
    Fault selectTwice = failCall(Call::Select, 2, EINTR);
    Fault pollOnce = failCall(Call::Poll, 1, EINTR);
    Fault pollTwice = failCall(Call::Poll, 2, EINTR);

    EXPECT_RC(0, waitForResponse(&sockBuffer, 3600));

    EXPECT_EQ(2, selectOnce.hits() + selectTwice.hits() + pollOnce.hits() + pollTwice.hits());
    EXPECT_EQ(0, sockBuffer.socketErr);
}

TEST_F(SocketBufferWait, FailsOnADescriptorThatIsNotOpen)
{
    bindForReading(8);
    TraceFile trace(1);
    ours.close();

    EXPECT_RC(-102, waitForResponse(&sockBuffer, 3600));

    EXPECT_EQ(EBADF, sockBuffer.socketErr);
    EXPECT_EQ((std::vector<int>{2523}), pointsOf(trace));
    EXPECT_TRUE(
        trace.wrote(2523, "*EXC*",
                    "clapi_socketbuffer.waitForResponse() select failed: Bad file descriptor (9)"));
}

TEST_F(SocketBufferWait, FailsWithoutADescriptor)
{
    bindForReading(8);
    sockBuffer.socketDesc = -1;
    int before = callCount(Call::Select) + callCount(Call::Poll);
    TraceFile trace(1);

    EXPECT_RC(-102, waitForResponse(&sockBuffer, 3600));

    EXPECT_EQ(before, callCount(Call::Select) + callCount(Call::Poll));
    EXPECT_EQ(EBADF, sockBuffer.socketErr);
    EXPECT_TRUE(
        trace.wrote(2523, "*EXC*",
                    "clapi_socketbuffer.waitForResponse() select failed: Bad file descriptor (9)"));
}

TEST_F(SocketBufferWait, KeepsTheErrnoOfAFailedWait)
{
    bindForReading(8);
    Fault selectFails = failCall(Call::Select, 1, ENOMEM);
    Fault pollFails = failCall(Call::Poll, 1, ENOMEM);

    EXPECT_RC(-102, waitForResponse(&sockBuffer, 0));

    EXPECT_EQ(1, selectFails.hits() + pollFails.hits());
    EXPECT_EQ(ENOMEM, sockBuffer.socketErr);
    EXPECT_RC(-102, fillBuffer(&sockBuffer));
}

TEST_F(SocketBufferWait, TracesASuccess)
{
    bindForReading(8);
    theirs.send(text("A"));
    TraceFile trace(5);

    waitForResponse(&sockBuffer, 30);

    EXPECT_EQ((std::vector<int>{2522, 2524}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(2522, "ENTRY", "clapi_socketbuffer.waitForResponse(<any>)"));
    EXPECT_TRUE(trace.wrote(2524, "EXIT", "clapi_socketbuffer.waitForResponse() rc=0 (QPX_OK)"));
}

TEST_F(SocketBufferWait, TracesATimeOut)
{
    bindForReading(8);
    TraceFile trace(5);

    waitForResponse(&sockBuffer, 1);

    EXPECT_EQ((std::vector<int>{2522, 2504, 2524}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(
        2504, "*EXC*",
        "clapi_socketbuffer.waitForResponse() Timed out waiting for handshake response"));
    EXPECT_TRUE(
        trace.wrote(2524, "clapi_socketbuffer.waitForResponse() rc=-134 (QPX_ERR_CONNECTTIMEOUT)"));
}

TEST_F(SocketBufferWait, TracesNothingOfASuccessAtLevelTwo)
{
    bindForReading(8);
    theirs.send(text("A"));
    TraceFile trace(2);

    waitForResponse(&sockBuffer, 30);

    EXPECT_EQ("", trace.text());
}

TEST_F(SocketBufferWait, WaitsOnADescriptorNumberedAbove1024)
{
    DescriptorsFrom high(1500);
    auto sockets = socketPair();
    ASSERT_LE(1500, sockets.first.fd());
    ASSERT_RC(0, initReadBuffer(&sockBuffer, sockets.first.fd(), 8));
    sockets.second.send(text("A"));

    EXPECT_RC(0, waitForResponse(&sockBuffer, 3600));

    EXPECT_EQ("41", toHex(sockets.first.read(1)));
}

TEST_F(SocketBufferWait, TimesOutOnADescriptorNumberedAbove1024)
{
    DescriptorsFrom high(1500);
    auto sockets = socketPair();
    ASSERT_RC(0, initReadBuffer(&sockBuffer, sockets.first.fd(), 8));

    EXPECT_RC(-134, waitForResponse(&sockBuffer, 1));
}

TEST_F(SocketBufferWait, FailsOnADescriptorNumberedAbove1024ThatIsNotOpen)
{
    DescriptorsFrom high(1500);
    auto sockets = socketPair();
    ASSERT_RC(0, initReadBuffer(&sockBuffer, sockets.first.fd(), 8));
    sockets.first.close();

    EXPECT_RC(-102, waitForResponse(&sockBuffer, 3600));

    EXPECT_EQ(EBADF, sockBuffer.socketErr);
}

TEST_F(SocketBufferWait, NeedsNoMemoryForADescriptorNumberedAbove1024)
{
    DescriptorsFrom high(1500);
    auto sockets = socketPair();
    ASSERT_RC(0, initReadBuffer(&sockBuffer, sockets.first.fd(), 8));
    sockets.second.send(text("A"));
    Fault noMemory = support::failEveryCall(Call::Malloc, ENOMEM);

    EXPECT_RC(0, waitForResponse(&sockBuffer, 3600));

    EXPECT_EQ(0, noMemory.hits());
    EXPECT_EQ(0, sockBuffer.socketErr);
}

TEST_F(SocketBufferWait, RepeatsAnInterruptedWaitOnADescriptorNumberedAbove1024)
{
    DescriptorsFrom high(1500);
    auto sockets = socketPair();
    ASSERT_RC(0, initReadBuffer(&sockBuffer, sockets.first.fd(), 8));
    sockets.second.send(text("A"));
    Fault interrupted = failCall(Call::Poll, 1, EINTR);

    EXPECT_RC(0, waitForResponse(&sockBuffer, 3600));

    EXPECT_EQ(1, interrupted.hits());
}

TEST_F(SocketBufferWait, WaitsWithoutLimitOnADescriptorNumberedAbove1024)
{
    DescriptorsFrom high(1500);
    auto sockets = socketPair();
    ASSERT_RC(0, initReadBuffer(&sockBuffer, sockets.first.fd(), 8));
    int before = callCount(Call::Poll);
    auto wait = callInThread([&] { return waitForResponse(&sockBuffer, 0); });
    ASSERT_TRUE(support::awaitCallCount(Call::Poll, before + 1));
    EXPECT_FALSE(wait.hasEnded());

    sockets.second.send(text("A"));

    EXPECT_RC(0, wait.get());
}

} // namespace
