// A socket buffer of the test's own and a connected pair of sockets to bind it to.
#ifndef UNIT_SOCKETBUFFER_FIXTURE_H
#define UNIT_SOCKETBUFFER_FIXTURE_H

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "clapi_impl.h"
#include "clapi_socketbuffer.h"
#include "clapi_socketcomms.h"
#include "support/bytes.h"
#include "support/call_in_thread.h"
#include "support/expect_rc.h"
#include "support/faults.h"
#include "support/scripted_gateway.h"
#include "support/trace_file.h"

namespace unit {

inline const char* chars(const support::Bytes& bytes)
{
    return reinterpret_cast<const char*>(bytes.data());
}

// Bytes that differ from their neighbours, for long data: 0, 1, ... 250, 0, 1, ...
inline support::Bytes countedBytes(std::size_t count)
{
    support::Bytes bytes(count);
    for (std::size_t at = 0; at < count; ++at) bytes[at] = static_cast<unsigned char>(at % 251);
    return bytes;
}

// Dumps show everything while this lives.
class WholeDumps {
public:
    WholeDumps() { QPX_setAPITraceDataLength(0); }
    ~WholeDumps() { QPX_setAPITraceDataLength(128); }
    WholeDumps(const WholeDumps&) = delete;
    WholeDumps& operator=(const WholeDumps&) = delete;
};

// The header of a request that is to go out. Its writer fills in the length of the data.
inline GatewayRequest requestHeader(const char (&type)[4])
{
    GatewayRequest header;
    std::memset(&header, 0, sizeof header);
    header.eyecatcher = 0x47617465;
    header.flowVersion = 0x10A01000;
    header.flowType = 1;
    header.messageId = 17;
    header.requestTypeLength = 3;
    std::memcpy(header.requestType, type, 3);
    header.datalength = 0x55555555;
    return header;
}

// The trace points of the lines, in order.
inline std::vector<int> pointsOf(const support::TraceFile& trace)
{
    std::vector<int> points;
    for (const support::TraceRecord& record : trace.records()) points.push_back(record.point);
    return points;
}

// The type words of the lines, in order.
inline std::vector<std::string> typesOf(const support::TraceFile& trace)
{
    std::vector<std::string> types;
    for (const support::TraceRecord& record : trace.records()) types.push_back(record.type);
    return types;
}

// True when the points occur among the lines in this order, with others in between or not.
inline bool wroteInOrder(const support::TraceFile& trace, const std::vector<int>& points)
{
    std::size_t next = 0;
    for (int point : pointsOf(trace))
        if (next < points.size() && point == points[next]) next += 1;
    return next == points.size();
}

class SocketBufferTest : public ::testing::Test {
protected:
    SocketBufferTest() : SocketBufferTest(support::socketPair()) {}
    ~SocketBufferTest() override
    {
        if (sockBuffer.buffer != nullptr) freeBuffer(&sockBuffer);
    }

    // Binds the buffer for a message of so many bytes.
    void bindForWriting(std::size_t messageLength)
    {
        ASSERT_RC(QPX_OK, initWriteBuffer(&sockBuffer, ours.fd(), messageLength));
    }
    void bindForReading(std::size_t messageLength)
    {
        ASSERT_RC(QPX_OK, initReadBuffer(&sockBuffer, ours.fd(), messageLength));
    }

    // Writes from bytes.
    void stage(const support::Bytes& bytes) { writeBytes(&sockBuffer, chars(bytes), bytes.size()); }
    void stageMasked(const support::Bytes& bytes)
    {
        writeBytesMasked(&sockBuffer, chars(bytes), bytes.size());
    }

    // Takes so many bytes from the buffer into an area of 0xEE bytes.
    support::Bytes take(std::size_t count)
    {
        support::Bytes area(count, 0xEE);
        readBytes(&sockBuffer, reinterpret_cast<char*>(area.data()), count);
        return area;
    }

    // What a write buffer holds.
    support::Bytes staged() const
    {
        return support::Bytes(sockBuffer.buffer, sockBuffer.buffer + sockBuffer.count);
    }

    // What a read buffer holds.
    support::Bytes unread() const
    {
        return support::Bytes(sockBuffer.ptr, sockBuffer.ptr + sockBuffer.count);
    }

    // Ends our side of the stream and gives everything that went out; up to the system's buffers.
    support::Bytes sent()
    {
        ours.shutdownWriting();
        return theirs.readAll();
    }
    std::string sentHex() { return support::toHex(sent()); }

    // The same for any length: collects while the test writes.
    support::RunningCall<support::Bytes> collect()
    {
        return support::callInThread([this] { return theirs.readAll(); });
    }

    // Sends while the test reads, each piece only once the one before has been taken. The result
    // is true when all of them have been.
    support::RunningCall<bool> sendApart(const support::Bytes& bytes, std::size_t pieceSize)
    {
        return support::callInThread([this, bytes, pieceSize] {
            for (std::size_t at = 0; at < bytes.size(); at += pieceSize) {
                theirs.send(support::slice(bytes, at, std::min(pieceSize, bytes.size() - at)));
                if (!awaitTaken()) return false;
            }
            return true;
        });
    }

    support::Peer ours;
    support::Peer theirs;
    SocketBuffer sockBuffer;

private:
    // Waits until our side has read everything.
    bool awaitTaken() const
    {
        auto deadline = std::chrono::steady_clock::now() + support::generousLimit;
        int unread = 1;
        while (ioctl(theirs.fd(), SIOCOUTQ, &unread) == 0 && unread != 0) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::yield();
        }
        return unread == 0;
    }

    explicit SocketBufferTest(std::pair<support::Peer, support::Peer> sockets)
        : ours(std::move(sockets.first)), theirs(std::move(sockets.second))
    {
        clapiInit();
        std::memset(&sockBuffer, 0, sizeof sockBuffer);
    }
};

} // namespace unit

#endif
