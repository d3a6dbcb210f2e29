// ESI replies as they come in.
#include "socketbuffer_fixture.h"

#include <array>

using namespace support;
using namespace unit;

namespace {

class FlowEsiReply : public SocketBufferTest {
protected:
    FlowEsiReply() { std::memset(&request, 0, sizeof request); }

    void readBody(const Bytes& body)
    {
        bindForReading(body.size());
        theirs.send(body);
        clapiReadESIResponse(&sockBuffer, &request);
    }

    static std::array<int, 7> fieldsOf(const ESI_DATETIME& time)
    {
        return {time.year,   time.month,  time.day,       time.hour,
                time.minute, time.second, time.hundredths};
    }

    Bytes detailBytes() const
    {
        auto* first = reinterpret_cast<const unsigned char*>(&request.details);
        return Bytes(first, first + sizeof request.details);
    }

    ESIRequest request;
};

// Verified, expiry, last access, count: 0 and then the numbers 1 to 22.
const char* const goodReply = "00000000"
                              "00000001 00000002 00000003 00000004 00000005 00000006 00000007"
                              "00000008 00000009 0000000A 0000000B 0000000C 0000000D 0000000E"
                              "0000000F 00000010 00000011 00000012 00000013 00000014 00000015"
                              "00000016";

TEST_F(FlowEsiReply, PutsEachTimeInItsOwnField)
{
    request.vornRc = 5;

    readBody(hex(goodReply));

    EXPECT_EQ(0, request.vornRc);
    EXPECT_EQ((std::array<int, 7>{1, 2, 3, 4, 5, 6, 7}),
              fieldsOf(request.details.lastVerifiedTime));
    EXPECT_EQ((std::array<int, 7>{8, 9, 10, 11, 12, 13, 14}), fieldsOf(request.details.expiryTime));
    EXPECT_EQ((std::array<int, 7>{15, 16, 17, 18, 19, 20, 21}),
              fieldsOf(request.details.lastAccessedTime));
    EXPECT_EQ(22, request.details.invalidCount);
    EXPECT_EQ(0, sockBuffer.socketErr);
    EXPECT_EQ(0U, bytesLeft(&sockBuffer));
}

TEST_F(FlowEsiReply, KeepsTheValuesThatTheGatewaySends)
{
    readBody(hex("00000000"
                 "000007EA FFFFFFFF 0000001F 00000017 0000003B 0000003B 00000063"
                 "00000000 00000000 00000000 00000000 00000000 00000000 00000000"
                 "80000000 7FFFFFFF 00000000 00000000 00000000 00000000 00000000"
                 "FFFFFFFE"));

    EXPECT_EQ((std::array<int, 7>{2026, -1, 31, 23, 59, 59, 99}),
              fieldsOf(request.details.lastVerifiedTime));
    EXPECT_EQ(0, request.details.expiryTime.year);
    EXPECT_EQ(static_cast<int>(0x80000000), request.details.lastAccessedTime.year);
    EXPECT_EQ(0x7FFFFFFF, request.details.lastAccessedTime.month);
    EXPECT_EQ(-2, request.details.invalidCount);
}

TEST_F(FlowEsiReply, LeavesTheDetailsUntouchedWhenTheServerRefuses)
{
    std::memset(&request.details, 0x55, sizeof request.details);

    readBody(hex("FFFFFED2"));

    EXPECT_EQ(-302, request.vornRc);
    EXPECT_EQ(toHex(filled(sizeof request.details, 0x55)), toHex(detailBytes()));
    EXPECT_EQ(0, sockBuffer.socketErr);
    EXPECT_EQ(0U, bytesLeft(&sockBuffer));
}

TEST_F(FlowEsiReply, ReadsNothingMoreWhenTheServerRefuses)
{
    readBody(hex("00000001 00000002 00000003"));

    EXPECT_EQ(1, request.vornRc);
    EXPECT_EQ("00000002 00000003", toHex(unread()));
    EXPECT_EQ(0, request.details.lastVerifiedTime.year);
}

TEST_F(FlowEsiReply, ReadsAReplyInPiecesOfEverySize)
{
    Bytes body = hex(goodReply);
    for (std::size_t capacity : {std::size_t{4}, std::size_t{7}, body.size()}) {
        for (std::size_t piece = 1; piece <= body.size(); ++piece) {
            SCOPED_TRACE(std::to_string(piece) + " bytes into " + std::to_string(capacity));
            std::memset(&request, 0x55, sizeof request);
            bindForReading(capacity);
            sockBuffer.totalCount = body.size();
            auto sender = sendApart(body, piece);

            clapiReadESIResponse(&sockBuffer, &request);

            EXPECT_TRUE(sender.get());
            EXPECT_EQ(0, request.vornRc);
            EXPECT_EQ((std::array<int, 7>{1, 2, 3, 4, 5, 6, 7}),
                      fieldsOf(request.details.lastVerifiedTime));
            EXPECT_EQ((std::array<int, 7>{8, 9, 10, 11, 12, 13, 14}),
                      fieldsOf(request.details.expiryTime));
            EXPECT_EQ((std::array<int, 7>{15, 16, 17, 18, 19, 20, 21}),
                      fieldsOf(request.details.lastAccessedTime));
            EXPECT_EQ(22, request.details.invalidCount);
            EXPECT_EQ(0U, bytesLeft(&sockBuffer));
            ASSERT_RC(0, freeBuffer(&sockBuffer));
        }
    }
}

TEST_F(FlowEsiReply, GivesZeroForDetailsThatAreNotThere)
{
    readBody(slice(hex(goodReply), 0, 4 + 8));

    EXPECT_EQ((std::array<int, 7>{1, 2, 0, 0, 0, 0, 0}),
              fieldsOf(request.details.lastVerifiedTime));
    EXPECT_EQ((std::array<int, 7>{0, 0, 0, 0, 0, 0, 0}), fieldsOf(request.details.expiryTime));
    EXPECT_EQ((std::array<int, 7>{0, 0, 0, 0, 0, 0, 0}),
              fieldsOf(request.details.lastAccessedTime));
    EXPECT_EQ(0, request.details.invalidCount);
    EXPECT_EQ(EBADMSG, sockBuffer.socketErr);
}

TEST_F(FlowEsiReply, LeavesTheErrorOfABodyThatIsTooShortToTheBuffer)
{
    Bytes body = hex(goodReply);
    for (std::size_t there = 0; there < body.size(); ++there) {
        SCOPED_TRACE(there);

        readBody(slice(body, 0, there));

        EXPECT_EQ(EBADMSG, sockBuffer.socketErr);
        EXPECT_EQ(0, request.vornRc);
        freeBuffer(&sockBuffer);
    }
}

TEST_F(FlowEsiReply, LeavesTheErrorOfAConnectionThatEndsToTheBuffer)
{
    Bytes body = hex(goodReply);
    for (std::size_t there = 0; there < body.size(); ++there) {
        SCOPED_TRACE(there);
        auto sockets = socketPair();
        ASSERT_RC(0, initReadBuffer(&sockBuffer, sockets.first.fd(), body.size()));
        sockets.second.send(slice(body, 0, there));
        sockets.second.close();

        clapiReadESIResponse(&sockBuffer, &request);

        EXPECT_NE(0, sockBuffer.socketErr);
        EXPECT_EQ(0, request.details.invalidCount);
    }
}

TEST_F(FlowEsiReply, TracesEntryAndExit)
{
    TraceFile trace(3);

    readBody(hex(goodReply));

    EXPECT_TRUE(wroteInOrder(trace, {3241, 2540, 2549, 3242}));
    EXPECT_TRUE(trace.wrote(
        3241, "ENTRY", "clapi_socketcomms.clapiReadESIResponse(sockBuffer=<ptr>, request=<ptr>)"));
    EXPECT_TRUE(trace.wrote(3242, "EXIT", "clapi_socketcomms.clapiReadESIResponse()"));
}

TEST_F(FlowEsiReply, TracesNothingAtLevelTwo)
{
    TraceFile trace(2);

    readBody(hex(goodReply));

    EXPECT_EQ("", trace.text());
}

} // namespace
