// Binding a socket buffer to a socket and giving its storage back.
#include "socketbuffer_fixture.h"

#include <sys/uio.h>
#include <unistd.h>

using namespace support;
using namespace unit;

namespace {

class SocketBufferInit : public SocketBufferTest {
protected:
    // Every byte of the record; equal copies mean that it has not been touched.
    Bytes recordBytes() const
    {
        auto* first = reinterpret_cast<const unsigned char*>(&sockBuffer);
        return Bytes(first, first + sizeof sockBuffer);
    }

    static std::string eyecatcherOf(const SocketBuffer& buffer)
    {
        return std::string(buffer.eyecatcher, sizeof buffer.eyecatcher);
    }
};

// ---- Writing ----

TEST_F(SocketBufferInit, BindsAWriteBufferToItsSocketAndMessage)
{
    ASSERT_RC(0, initWriteBuffer(&sockBuffer, 7, 100));

    EXPECT_EQ("QPXSCKBF", eyecatcherOf(sockBuffer));
    EXPECT_EQ(7, sockBuffer.socketDesc);
    EXPECT_EQ(0, sockBuffer.socketErr);
    ASSERT_NE(nullptr, sockBuffer.buffer);
    EXPECT_EQ(100U, sockBuffer.bufferSize);
    EXPECT_EQ(sockBuffer.buffer, sockBuffer.ptr);
    EXPECT_EQ(0U, sockBuffer.count);
    EXPECT_EQ(100U, sockBuffer.totalCount);
    EXPECT_EQ(nullptr, sockBuffer.maskArea);
}

TEST_F(SocketBufferInit, GivesAWriteBufferOfTheCapacityToAMessageOfTheCapacity)
{
    ASSERT_RC(0, initWriteBuffer(&sockBuffer, 7, 33000));

    EXPECT_EQ(33000U, sockBuffer.bufferSize);
    EXPECT_EQ(33000U, sockBuffer.totalCount);
}

TEST_F(SocketBufferInit, BoundsTheStorageOfAWriteBufferOneByteAboveTheCapacity)
{
    ASSERT_RC(0, initWriteBuffer(&sockBuffer, 7, 33001));

    EXPECT_EQ(33000U, sockBuffer.bufferSize);
    EXPECT_EQ(33001U, sockBuffer.totalCount);
}

TEST_F(SocketBufferInit, KeepsTheWholeLengthOfALongMessageInAWriteBuffer)
{
    ASSERT_RC(0, initWriteBuffer(&sockBuffer, 7, 40000));

    EXPECT_EQ(33000U, sockBuffer.bufferSize);
    EXPECT_EQ(40000U, sockBuffer.totalCount);
}

TEST_F(SocketBufferInit, ReusesTheStorageOfAWriteBufferForAMessageOfTheSameLength)
{
    bindForWriting(100);
    char* storage = sockBuffer.buffer;

    ASSERT_RC(0, initWriteBuffer(&sockBuffer, 8, 100));

    EXPECT_EQ(storage, sockBuffer.buffer);
    EXPECT_EQ(100U, sockBuffer.bufferSize);
    EXPECT_EQ(8, sockBuffer.socketDesc);
}

TEST_F(SocketBufferInit, KeepsTheLargerStorageOfAWriteBufferForAShorterMessage)
{
    bindForWriting(100);
    char* storage = sockBuffer.buffer;

    ASSERT_RC(0, initWriteBuffer(&sockBuffer, 7, 10));

    EXPECT_EQ(storage, sockBuffer.buffer);
    EXPECT_EQ(100U, sockBuffer.bufferSize);
    EXPECT_EQ(10U, sockBuffer.totalCount);
}

TEST_F(SocketBufferInit, EnlargesTheStorageOfAWriteBufferForAMessageOneByteLonger)
{
    bindForWriting(100);

    ASSERT_RC(0, initWriteBuffer(&sockBuffer, 7, 101));

    EXPECT_EQ(101U, sockBuffer.bufferSize);
    EXPECT_EQ(101U, sockBuffer.totalCount);
    std::memset(sockBuffer.buffer, 1, 101);
}

TEST_F(SocketBufferInit, ReusesAWriteBufferOfTheCapacityForAnyLongerMessage)
{
    bindForWriting(33000);
    char* storage = sockBuffer.buffer;

    ASSERT_RC(0, initWriteBuffer(&sockBuffer, 7, 50000));

    EXPECT_EQ(storage, sockBuffer.buffer);
    EXPECT_EQ(50000U, sockBuffer.totalCount);
}

TEST_F(SocketBufferInit, ForgetsStagedBytesAndErrorsWhenAWriteBufferIsBoundAgain)
{
    bindForWriting(100);
    writeInt(&sockBuffer, 1);
    sockBuffer.socketErr = EPIPE;

    ASSERT_RC(0, initWriteBuffer(&sockBuffer, ours.fd(), 100));

    EXPECT_EQ(0, sockBuffer.socketErr);
    EXPECT_EQ(0U, sockBuffer.count);
    EXPECT_EQ(sockBuffer.buffer, sockBuffer.ptr);
    EXPECT_EQ(nullptr, sockBuffer.maskArea);
}

TEST_F(SocketBufferInit, TakesNoStorageForAnEmptyMessage)
{
    ASSERT_RC(0, initWriteBuffer(&sockBuffer, 7, 0));

    EXPECT_EQ("QPXSCKBF", eyecatcherOf(sockBuffer));
    EXPECT_EQ(0U, sockBuffer.bufferSize);
    EXPECT_EQ(0U, sockBuffer.totalCount);
}

TEST_F(SocketBufferInit, FailsForAWriteBufferWithoutMemoryAndLeavesTheRecordUntouched)
{
    Bytes before = recordBytes();
    Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);

    EXPECT_RC(-111, initWriteBuffer(&sockBuffer, 7, 100));

    EXPECT_EQ(1, noMemory.hits());
    EXPECT_EQ(toHex(before), toHex(recordBytes()));
}

TEST_F(SocketBufferInit, KeepsTheOldStorageOfAWriteBufferThatCannotGrow)
{
    bindForWriting(4);
    writeInt(&sockBuffer, 0x41424344);
    Bytes before = recordBytes();
    Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);

    EXPECT_RC(-111, initWriteBuffer(&sockBuffer, 7, 100));

    EXPECT_EQ(toHex(before), toHex(recordBytes()));
    EXPECT_EQ("41424344", toHex(staged()));
}

TEST_F(SocketBufferInit, TracesTheStorageAllocatedForAWriteBuffer)
{
    TraceFile trace(4);

    initWriteBuffer(&sockBuffer, 7, 40000);

    EXPECT_EQ((std::vector<int>{2500, 2502, 2509}), pointsOf(trace));
    EXPECT_EQ((std::vector<std::string>{"ENTRY", "DEBUG", "EXIT"}), typesOf(trace));
    EXPECT_TRUE(trace.wrote(2500, "clapi_socketbuffer.initWriteBuffer(<any>)"));
    EXPECT_TRUE(trace.wrote(
        2502, "clapi_socketbuffer.initWriteBuffer() Allocated new buffer of 33000 bytes"));
    EXPECT_TRUE(trace.wrote(2509, "clapi_socketbuffer.initWriteBuffer() rc=0 (QPX_OK)"));
}

TEST_F(SocketBufferInit, TracesTheStorageReusedForAWriteBuffer)
{
    bindForWriting(100);
    TraceFile trace(4);

    initWriteBuffer(&sockBuffer, 7, 10);

    EXPECT_EQ((std::vector<int>{2500, 2501, 2509}), pointsOf(trace));
    EXPECT_TRUE(
        trace.wrote(2501, "DEBUG",
                    "clapi_socketbuffer.initWriteBuffer() Reusing existing buffer of 100 bytes"));
}

TEST_F(SocketBufferInit, TracesThatAWriteBufferGotNoMemory)
{
    TraceFile trace(4);
    Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);

    initWriteBuffer(&sockBuffer, 7, 100);

    EXPECT_EQ((std::vector<int>{2500, 2503, 2509}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(
        2503, "*EXC*",
        "clapi_socketbuffer.initWriteBuffer() Failed to allocate 100 bytes for buffer"));
    EXPECT_TRUE(
        trace.wrote(2509, "clapi_socketbuffer.initWriteBuffer() rc=-111 (QPX_ERR_MALLOCFAIL)"));
}

TEST_F(SocketBufferInit, TracesOnlyEntryAndExitOfAWriteBufferAtLevelThree)
{
    TraceFile trace(3);

    initWriteBuffer(&sockBuffer, 7, 100);

    EXPECT_EQ((std::vector<int>{2500, 2509}), pointsOf(trace));
}

TEST_F(SocketBufferInit, TracesOnlyTheMissingMemoryOfAWriteBufferAtLevelOne)
{
    TraceFile trace(1);
    Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);

    initWriteBuffer(&sockBuffer, 7, 100);

    EXPECT_EQ((std::vector<int>{2503}), pointsOf(trace));
}

TEST_F(SocketBufferInit, TracesNothingAtLevelZero)
{
    TraceFile trace(0);
    Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);

    initWriteBuffer(&sockBuffer, 7, 100);

    EXPECT_EQ("", trace.text());
}

// ---- Reading ----

TEST_F(SocketBufferInit, BindsAReadBufferWithNoBytesUnread)
{
    ASSERT_RC(0, initReadBuffer(&sockBuffer, 9, 200));

    EXPECT_EQ("QPXSCKBF", eyecatcherOf(sockBuffer));
    EXPECT_EQ(9, sockBuffer.socketDesc);
    EXPECT_EQ(0, sockBuffer.socketErr);
    ASSERT_NE(nullptr, sockBuffer.buffer);
    EXPECT_EQ(200U, sockBuffer.bufferSize);
    EXPECT_EQ(nullptr, sockBuffer.ptr);
    EXPECT_EQ(0U, sockBuffer.count);
    EXPECT_EQ(200U, sockBuffer.totalCount);
    EXPECT_EQ(nullptr, sockBuffer.maskArea);
}

TEST_F(SocketBufferInit, BoundsTheStorageOfAReadBufferByTheCapacity)
{
    ASSERT_RC(0, initReadBuffer(&sockBuffer, 9, 33001));

    EXPECT_EQ(33000U, sockBuffer.bufferSize);
    EXPECT_EQ(33001U, sockBuffer.totalCount);
}

TEST_F(SocketBufferInit, GivesAReadBufferOfTheCapacityToAMessageOfTheCapacity)
{
    ASSERT_RC(0, initReadBuffer(&sockBuffer, 9, 33000));

    EXPECT_EQ(33000U, sockBuffer.bufferSize);
}

TEST_F(SocketBufferInit, KeepsTheLargerStorageOfAReadBufferForAShorterMessage)
{
    bindForReading(500);
    char* storage = sockBuffer.buffer;

    ASSERT_RC(0, initReadBuffer(&sockBuffer, ours.fd(), 32));

    EXPECT_EQ(storage, sockBuffer.buffer);
    EXPECT_EQ(500U, sockBuffer.bufferSize);
    EXPECT_EQ(32U, sockBuffer.totalCount);
}

TEST_F(SocketBufferInit, EnlargesTheStorageOfAReadBufferForALongerMessage)
{
    bindForReading(32);

    ASSERT_RC(0, initReadBuffer(&sockBuffer, ours.fd(), 33));

    EXPECT_EQ(33U, sockBuffer.bufferSize);
}

TEST_F(SocketBufferInit, AcceptsTheRecordsOwnSocketWhenAReadBufferIsBoundAgain)
{
    bindForReading(32);

    ASSERT_RC(0, initReadBuffer(&sockBuffer, sockBuffer.socketDesc, 32));

    EXPECT_EQ(ours.fd(), sockBuffer.socketDesc);
}

TEST_F(SocketBufferInit, ForgetsUnreadBytesAndErrorsWhenAReadBufferIsBoundAgain)
{
    bindForReading(8);
    theirs.send(hex("0102030405060708"));
    ASSERT_RC(0, fillBuffer(&sockBuffer));
    sockBuffer.socketErr = ECONNRESET;

    ASSERT_RC(0, initReadBuffer(&sockBuffer, ours.fd(), 8));

    EXPECT_EQ(0, sockBuffer.socketErr);
    EXPECT_EQ(0U, sockBuffer.count);
    EXPECT_EQ(nullptr, sockBuffer.ptr);
    EXPECT_EQ(8U, sockBuffer.totalCount);
}

TEST_F(SocketBufferInit, FailsForAReadBufferWithoutMemoryAndLeavesTheRecordUntouched)
{
    bindForReading(8);
    theirs.send(hex("0102030405060708"));
    ASSERT_RC(0, fillBuffer(&sockBuffer));
    Bytes before = recordBytes();
    Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);

    EXPECT_RC(-111, initReadBuffer(&sockBuffer, ours.fd(), 9));

    EXPECT_EQ(1, noMemory.hits());
    EXPECT_EQ(toHex(before), toHex(recordBytes()));
    EXPECT_EQ("01020304 05060708", toHex(unread()));
}

TEST_F(SocketBufferInit, TracesTheStorageAllocatedForAReadBuffer)
{
    TraceFile trace(4);

    initReadBuffer(&sockBuffer, 9, 200);

    EXPECT_EQ((std::vector<int>{2510, 2512, 2515}), pointsOf(trace));
    EXPECT_EQ((std::vector<std::string>{"ENTRY", "DEBUG", "EXIT"}), typesOf(trace));
    EXPECT_TRUE(trace.wrote(2510, "clapi_socketbuffer.initReadBuffer(<any>)"));
    EXPECT_TRUE(
        trace.wrote(2512, "clapi_socketbuffer.initReadBuffer() Allocated new buffer of 200 bytes"));
    EXPECT_TRUE(trace.wrote(2515, "clapi_socketbuffer.initReadBuffer() rc=0 (QPX_OK)"));
}

TEST_F(SocketBufferInit, TracesTheStorageReusedForAReadBuffer)
{
    bindForReading(33000);
    TraceFile trace(4);

    initReadBuffer(&sockBuffer, ours.fd(), 32);

    EXPECT_EQ((std::vector<int>{2510, 2511, 2515}), pointsOf(trace));
    EXPECT_TRUE(
        trace.wrote(2511, "DEBUG",
                    "clapi_socketbuffer.initReadBuffer() Reusing existing buffer of 33000 bytes"));
}

TEST_F(SocketBufferInit, TracesThatAReadBufferGotNoMemory)
{
    TraceFile trace(4);
    Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);

    initReadBuffer(&sockBuffer, 9, 50000);

    EXPECT_EQ((std::vector<int>{2510, 2513, 2515}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(
        2513, "*EXC*",
        "clapi_socketbuffer.initReadBuffer() Failed to allocate 33000 bytes for buffer"));
    EXPECT_TRUE(
        trace.wrote(2515, "clapi_socketbuffer.initReadBuffer() rc=-111 (QPX_ERR_MALLOCFAIL)"));
}

// ---- Giving back ----

TEST_F(SocketBufferInit, FreesTheStorageAndZeroesTheRecord)
{
    bindForWriting(100);
    writeInt(&sockBuffer, 1);
    stageMasked(text("SECRET"));

    EXPECT_RC(0, freeBuffer(&sockBuffer));

    EXPECT_EQ(toHex(filled(sizeof sockBuffer)), toHex(recordBytes()));
}

TEST_F(SocketBufferInit, RefusesToFreeARecordWithoutStorageAndZeroesIt)
{
    std::memset(&sockBuffer, 0x55, sizeof sockBuffer);
    sockBuffer.buffer = nullptr;
    sockBuffer.maskArea = nullptr;

    EXPECT_RC(-9, freeBuffer(&sockBuffer));

    EXPECT_EQ(toHex(filled(sizeof sockBuffer)), toHex(recordBytes()));
}

TEST_F(SocketBufferInit, RefusesToFreeTheSameBufferTwice)
{
    bindForWriting(100);
    ASSERT_RC(0, freeBuffer(&sockBuffer));

    EXPECT_RC(-9, freeBuffer(&sockBuffer));
}

TEST_F(SocketBufferInit, TracesTheFreeingOfABuffer)
{
    bindForWriting(100);
    TraceFile trace(4);

    freeBuffer(&sockBuffer);

    EXPECT_EQ((std::vector<int>{2516, 2518}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(2516, "ENTRY", "clapi_socketbuffer.freeBuffer(<any>)"));
    EXPECT_TRUE(trace.wrote(2518, "EXIT", "clapi_socketbuffer.freeBuffer() rc=0 (QPX_OK)"));
}

TEST_F(SocketBufferInit, TracesThatThereWasNoStorageToFree)
{
    TraceFile trace(4);

    freeBuffer(&sockBuffer);

    EXPECT_EQ((std::vector<int>{2516, 2517, 2518}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(2517, "*EXC*",
                            "clapi_socketbuffer.freeBuffer() Buffer not initialized: <any>"));
    EXPECT_TRUE(trace.wrote(2518, "clapi_socketbuffer.freeBuffer() rc=-9 (QPX_ERR_SYSTEM_ERROR)"));
}

TEST_F(SocketBufferInit, WipesABufferWithoutATraceLine)
{
    bindForWriting(100);
    writeInt(&sockBuffer, 1);
    stageMasked(text("SECRET"));
    TraceFile trace(5);

    wipeBuffer(&sockBuffer);

    EXPECT_EQ(toHex(filled(sizeof sockBuffer)), toHex(recordBytes()));
    EXPECT_EQ("", trace.text());
}

// What is at an address, even if it has been given back; empty if nothing is there any more.
Bytes memoryAt(const char* address, std::size_t count)
{
    Bytes bytes(count);
    iovec here{bytes.data(), count};
    iovec there{const_cast<char*>(address), count};
    ssize_t got = process_vm_readv(getpid(), &here, 1, &there, 1, 0);
    bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return bytes;
}

// The allocator keeps notes of its own in the first bytes of what it got back.
TEST_F(SocketBufferInit, OverwritesTheStorageThatItWipes)
{
    bindForWriting(1000);
    stage(filled(500, 'a'));
    stageMasked(text("SECRET OF MANY LETTERS"));
    const char* storage = sockBuffer.buffer;
    ASSERT_EQ(toHex(filled(400, 'a')), toHex(memoryAt(storage + 100, 400)));

    wipeBuffer(&sockBuffer);

    Bytes left = memoryAt(storage, 522);
    EXPECT_FALSE(contains(toHex(left), "AC160611"));
    EXPECT_FALSE(contains(toHex(left), "61616161 61616161"));
}

TEST_F(SocketBufferInit, WipesARecordWithoutStorage)
{
    std::memset(&sockBuffer, 0x55, sizeof sockBuffer);
    sockBuffer.buffer = nullptr;
    sockBuffer.bufferSize = 0;
    sockBuffer.count = 0;
    sockBuffer.maskArea = nullptr;
    TraceFile trace(5);

    wipeBuffer(&sockBuffer);

    EXPECT_EQ(toHex(filled(sizeof sockBuffer)), toHex(recordBytes()));
    EXPECT_EQ("", trace.text());
}

} // namespace
