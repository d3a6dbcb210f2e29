// Sending what is staged in a socket buffer, with sockets that fail, stall and take little.
#include "socketbuffer_fixture.h"

#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <atomic>
#include <csignal>

using namespace support;
using namespace unit;

namespace {

using SocketBufferFlush = SocketBufferTest;

TEST_F(SocketBufferFlush, SendsTheStagedBytesAndEmptiesTheBuffer)
{
    bindForWriting(10);
    stage(text("ABCDEF"));

    EXPECT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_EQ(0U, sockBuffer.count);
    EXPECT_EQ(sockBuffer.buffer, sockBuffer.ptr);
    EXPECT_EQ(4U, sockBuffer.totalCount);
    EXPECT_EQ(0, sockBuffer.socketErr);
    EXPECT_EQ("41424344 4546", sentHex());
}

TEST_F(SocketBufferFlush, SendsTheStagedBytesOnce)
{
    bindForWriting(10);
    stage(text("ABCDEF"));
    ASSERT_RC(0, flushBuffer(&sockBuffer));
    int before = callCount(Call::Send);

    EXPECT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_EQ(before, callCount(Call::Send));
    EXPECT_EQ("41424344 4546", sentHex());
}

TEST_F(SocketBufferFlush, SendsNothingWhenNothingIsStaged)
{
    bindForWriting(10);
    int before = callCount(Call::Send);

    EXPECT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_EQ(before, callCount(Call::Send));
    EXPECT_EQ(10U, sockBuffer.totalCount);
}

TEST_F(SocketBufferFlush, SendsAllStagedBytesInOneCall)
{
    bindForWriting(33000);
    stage(filled(33000, 0x61));
    auto wire = collect();
    int before = callCount(Call::Send);

    EXPECT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_EQ(before + 1, callCount(Call::Send));
    ours.shutdownWriting();
    EXPECT_TRUE(filled(33000, 0x61) == wire.get());
}

TEST_F(SocketBufferFlush, KeepsTheErrnoOfAFailedSend)
{
    bindForWriting(10);
    stage(text("ABC"));
    Fault broken = failCall(Call::Send, 1, ECONNRESET);

    EXPECT_RC(-102, flushBuffer(&sockBuffer));

    EXPECT_EQ(1, broken.hits());
    EXPECT_EQ(ECONNRESET, sockBuffer.socketErr);
}

TEST_F(SocketBufferFlush, FailsWithoutEndingTheProcessWhenThePeerHasGone)
{
    bindForWriting(10);
    stage(text("ABC"));
    theirs.close();

    EXPECT_RC(-102, flushBuffer(&sockBuffer));

    EXPECT_EQ(EPIPE, sockBuffer.socketErr);
}

TEST_F(SocketBufferFlush, FailsOnADescriptorThatIsNoneAndKeepsItsErrno)
{
    ASSERT_RC(0, initWriteBuffer(&sockBuffer, NO_SOCKET, 10));
    stage(text("ABC"));

    EXPECT_RC(-102, flushBuffer(&sockBuffer));

    EXPECT_EQ(EBADF, sockBuffer.socketErr);
}

TEST_F(SocketBufferFlush, FailsWhenNothingIsTakenAndStaysFailed)
{
    bindForWriting(10);
    stage(text("ABC"));
    {
        Fault nothing = fakeCall(Call::Send, 1, 0);
        EXPECT_RC(-102, flushBuffer(&sockBuffer));
        EXPECT_EQ(1, nothing.hits());
    }

    EXPECT_NE(0, sockBuffer.socketErr);
    EXPECT_RC(-102, flushBuffer(&sockBuffer));
    EXPECT_EQ("", sentHex());
}

TEST_F(SocketBufferFlush, SendsNothingMoreAfterAFailure)
{
    bindForWriting(10);
    stage(text("ABC"));
    {
        Fault broken = failCall(Call::Send, 1, ECONNRESET);
        EXPECT_RC(-102, flushBuffer(&sockBuffer));
    }
    int before = callCount(Call::Send);

    EXPECT_RC(-102, flushBuffer(&sockBuffer));

    EXPECT_EQ(before, callCount(Call::Send));
    EXPECT_EQ(ECONNRESET, sockBuffer.socketErr);
    EXPECT_EQ("", sentHex());
}

TEST_F(SocketBufferFlush, KeepsTheFirstError)
{
    bindForWriting(4);
    stage(text("ABC"));
    {
        Fault broken = failCall(Call::Send, 1, ECONNRESET);
        EXPECT_RC(-102, flushBuffer(&sockBuffer));
    }
    Fault brokenOtherwise = failEveryCall(Call::Send, EPIPE);

    writeInt(&sockBuffer, 1);
    stage(filled(100, 0x41));
    EXPECT_RC(-102, flushBuffer(&sockBuffer));

    EXPECT_EQ(ECONNRESET, sockBuffer.socketErr);
    EXPECT_EQ(0, brokenOtherwise.hits());
}

TEST_F(SocketBufferFlush, ReportsTheErrorOfAnyEarlierWrite)
{
    bindForWriting(8);
    sockBuffer.socketErr = ENETDOWN;

    EXPECT_RC(-102, flushBuffer(&sockBuffer));
}

TEST_F(SocketBufferFlush, RepeatsASendThatASignalInterrupted)
{
    bindForWriting(10);
    stage(text("ABCDEF"));
    Fault first = failCall(Call::Send, 1, EINTR);
    Fault second = failCall(Call::Send, 2, EINTR);
    Fault third = failCall(Call::Send, 3, EINTR);

    EXPECT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_EQ(1, third.hits());
    EXPECT_EQ(0, sockBuffer.socketErr);
    EXPECT_EQ("41424344 4546", sentHex());
}

TEST_F(SocketBufferFlush, ResumesAShortSendUntilAllBytesAreOut)
{
    for (std::size_t piece = 1; piece <= 6; ++piece) {
        SCOPED_TRACE(piece);
        bindForWriting(10);
        stage(text("ABCDEF"));
        Fault narrow = limitLength(Call::Send, piece);

        EXPECT_RC(0, flushBuffer(&sockBuffer));

        EXPECT_EQ(cutsOf(6, piece), narrow.hits());
        EXPECT_EQ(0U, sockBuffer.count);
        EXPECT_EQ(4U, sockBuffer.totalCount);
        EXPECT_EQ(sockBuffer.buffer, sockBuffer.ptr);
        EXPECT_EQ("41424344 4546", toHex(theirs.read(6)));
    }
    EXPECT_EQ("", sentHex());
}

TEST_F(SocketBufferFlush, ResumesAShortSendAfterASignal)
{
    bindForWriting(10);
    stage(text("ABCDEF"));
    Fault narrow = limitLength(Call::Send, 2, 1);
    Fault interrupted = failCall(Call::Send, 2, EINTR);

    EXPECT_RC(0, flushBuffer(&sockBuffer));

    EXPECT_EQ(1, interrupted.hits());
    EXPECT_EQ("41424344 4546", sentHex());
}

TEST_F(SocketBufferFlush, FailsWhenTheRestOfAShortSendFails)
{
    bindForWriting(10);
    stage(text("ABCDEF"));
    Fault narrow = limitLength(Call::Send, 2, 1);
    Fault broken = failCall(Call::Send, 2, ECONNRESET);

    EXPECT_RC(-102, flushBuffer(&sockBuffer));

    EXPECT_EQ(ECONNRESET, sockBuffer.socketErr);
    EXPECT_EQ("4142", sentHex());
}

// A handler without SA_RESTART, so that a signal ends a blocked send early.
void onSignal(int) {}

TEST_F(SocketBufferFlush, SendsAllBytesThroughAFullSocketWhileSignalsArrive)
{
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigaction(SIGUSR1, &action, nullptr);
    int small = 1;
    setsockopt(ours.fd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    bindForWriting(33000);
    Bytes message = countedBytes(33000);
    stage(message);

    std::atomic<bool> ended{false};
    pthread_t sender = pthread_self();
    auto peer = callInThread([&] {
        Bytes arrived;
        while (arrived.size() < message.size()) {
            pthread_kill(sender, SIGUSR1);
            arrived += theirs.read(std::min<std::size_t>(100, message.size() - arrived.size()));
        }
        while (!ended) pthread_kill(sender, SIGUSR1);
        return arrived;
    });
    int rc = flushBuffer(&sockBuffer);
    ended = true;

    EXPECT_RC(0, rc);
    EXPECT_TRUE(message == peer.get());
    EXPECT_EQ("", sentHex());
}

// ---- Trace ----

TEST_F(SocketBufferFlush, TracesTheBytesThatAreSent)
{
    bindForWriting(30);
    stage(text("ABCDEFGHIJKLMNOPQRST"));
    TraceFile trace(4);

    flushBuffer(&sockBuffer);

    EXPECT_EQ((std::vector<int>{2525, 2526, 2528, 2529}), pointsOf(trace));
    EXPECT_EQ((std::vector<std::string>{"ENTRY", "DATA", "DEBUG", "EXIT"}), typesOf(trace));
    EXPECT_TRUE(trace.wrote(2525, "clapi_socketbuffer.flushBuffer(<any>)"));
    EXPECT_TRUE(
        trace.wroteText("clapi_socketbuffer.flushBuffer() data=<ptr> len=20 stopword=00000000\n"
                        "Data truncation size=128, offset=0\n"
                        "<ptr>: 41424344 45464748 494A4B4C 4D4E4F50 : ABCDEFGHIJKLMNOP \n"
                        "<ptr>: 51525354                            : QRST\n"));
    EXPECT_TRUE(
        trace.wrote(2528, "clapi_socketbuffer.flushBuffer() Sent 20 bytes, 10 bytes remaining"));
    EXPECT_TRUE(trace.wrote(2529, "clapi_socketbuffer.flushBuffer() rc=0 (QPX_OK)"));
}

TEST_F(SocketBufferFlush, TracesTheTotalOfAResumedSendOnce)
{
    bindForWriting(6);
    stage(text("ABCDEF"));
    TraceFile trace(4);
    Fault narrow = limitLength(Call::Send, 4);

    flushBuffer(&sockBuffer);

    EXPECT_EQ((std::vector<int>{2525, 2526, 2528, 2529}), pointsOf(trace));
    EXPECT_TRUE(
        trace.wrote(2528, "clapi_socketbuffer.flushBuffer() Sent 6 bytes, 0 bytes remaining"));
}

TEST_F(SocketBufferFlush, TracesTheErrorOfASend)
{
    bindForWriting(10);
    stage(text("ABC"));
    TraceFile trace(4);
    Fault broken = failCall(Call::Send, 1, ECONNRESET);

    flushBuffer(&sockBuffer);

    EXPECT_EQ((std::vector<int>{2525, 2526, 2527, 2529}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(2527, "*EXC*",
                            "clapi_socketbuffer.flushBuffer() Unable to send data to Gateway: "
                            "Connection reset by peer (104)"));
    EXPECT_TRUE(trace.wrote(2529, "clapi_socketbuffer.flushBuffer() rc=-102 (QPX_ERR_LOSTGWCON)"));
}

TEST_F(SocketBufferFlush, TracesABadDescriptorWithItsNameAndNumber)
{
    ASSERT_RC(0, initWriteBuffer(&sockBuffer, NO_SOCKET, 10));
    stage(text("ABC"));
    TraceFile trace(1);

    flushBuffer(&sockBuffer);

    EXPECT_EQ(1U, trace.records().size());
    EXPECT_TRUE(trace.wroteText("[2527] *EXC*  clapi_socketbuffer.flushBuffer() "
                                "Unable to send data to Gateway: Bad file descriptor (9)\n"));
}

TEST_F(SocketBufferFlush, TracesNoDataWhenThereIsNothingToSend)
{
    bindForWriting(10);
    TraceFile trace(5);

    flushBuffer(&sockBuffer);

    EXPECT_EQ((std::vector<int>{2525, 2529}), pointsOf(trace));
}

TEST_F(SocketBufferFlush, TracesNoDataAfterAnEarlierFailure)
{
    bindForWriting(10);
    stage(text("ABC"));
    sockBuffer.socketErr = EPIPE;
    TraceFile trace(5);

    flushBuffer(&sockBuffer);

    EXPECT_EQ((std::vector<int>{2525, 2529}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(2529, "clapi_socketbuffer.flushBuffer() rc=-102 (QPX_ERR_LOSTGWCON)"));
}

TEST_F(SocketBufferFlush, TracesOnlyEntryAndExitAtLevelThree)
{
    bindForWriting(10);
    stage(text("ABC"));
    TraceFile trace(3);

    flushBuffer(&sockBuffer);

    EXPECT_EQ((std::vector<int>{2525, 2529}), pointsOf(trace));
    EXPECT_FALSE(trace.wroteText("Data truncation size"));
}

TEST_F(SocketBufferFlush, TracesNothingOfASuccessAtLevelTwo)
{
    bindForWriting(10);
    stage(text("ABC"));
    TraceFile trace(2);

    flushBuffer(&sockBuffer);

    EXPECT_EQ("", trace.text());
}

TEST_F(SocketBufferFlush, TracesNoFailureAtLevelZero)
{
    bindForWriting(10);
    stage(text("ABC"));
    TraceFile trace(0);
    Fault broken = failCall(Call::Send, 1, ECONNRESET);

    flushBuffer(&sockBuffer);

    EXPECT_EQ("", trace.text());
}

TEST_F(SocketBufferFlush, CutsTheDataOfALongMessage)
{
    bindForWriting(200);
    stage(filled(129, 0x41));
    TraceFile trace(4);

    flushBuffer(&sockBuffer);

    EXPECT_TRUE(trace.wroteText("flushBuffer() data=<ptr> len=129 stopword=00000000\n"));
    EXPECT_EQ(8, trace.timesWroteText(
                     "<ptr>: 41414141 41414141 41414141 41414141 : AAAAAAAAAAAAAAAA \n"));
    EXPECT_FALSE(trace.wroteText("<ptr>: 41      "));
}

} // namespace
