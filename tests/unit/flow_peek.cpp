// The inbound length of a reply that is not read yet: what the bytes in the buffer tell of it.
#include "socketbuffer_fixture.h"

using namespace support;

namespace {

/* The body of a program call's reply up to its COMMAREA, whose size is 0x0102. */
Bytes replyWith(const char* inboundField)
{
    return hex("00000001 00000007 00000008 00000009 41424E44 00000102") + hex(inboundField);
}

Bytes replyWithLength()
{
    return replyWith("FF 00 00000304");
}

Bytes replyWithoutLength()
{
    return replyWith("00");
}

Bytes withCallType(unsigned char callType, Bytes reply)
{
    reply[3] = callType;
    return reply;
}

int lengthToldBy(Bytes bytes)
{
    SocketBuffer sockBuffer = {};
    char* begin = reinterpret_cast<char*>(bytes.data());
    sockBuffer.ptr = begin;
    sockBuffer.count = bytes.size();
    int length = clapiPeekInboundLength(&sockBuffer);
    EXPECT_EQ(begin, sockBuffer.ptr);
    EXPECT_EQ(bytes.size(), sockBuffer.count);
    EXPECT_EQ(0, sockBuffer.socketErr);
    return length;
}

} // namespace

TEST(PeekedLength, IsTheInboundLengthWhereThereIsOne)
{
    EXPECT_EQ(0x0304, lengthToldBy(replyWithLength()));
}

TEST(PeekedLength, IsTheSizeOfTheCommareaWhereThereIsNone)
{
    EXPECT_EQ(0x0102, lengthToldBy(replyWithoutLength()));
}

TEST(PeekedLength, IsTheSameWithMoreBehindIt)
{
    EXPECT_EQ(0x0304, lengthToldBy(replyWithLength() + hex("41414141")));
    EXPECT_EQ(0x0102, lengthToldBy(replyWithoutLength() + hex("41414141")));
}

TEST(PeekedLength, IsTheSameForATransactionProgram)
{
    EXPECT_EQ(0x0304, lengthToldBy(withCallType(12, replyWithLength())));
}

TEST(PeekedLength, CannotBeToldBeforeItsLastByteHasCome)
{
    for (const Bytes& whole : {replyWithLength(), replyWithoutLength()})
        for (std::size_t there = 0; there < whole.size(); ++there)
            EXPECT_EQ(0, lengthToldBy(Bytes(whole.begin(), whole.begin() + there))) << there;
}

TEST(PeekedLength, CannotBeToldOfAListOfSystems)
{
    EXPECT_EQ(0, lengthToldBy(withCallType(9, replyWithLength())));
}
