// Sending to a peer that has gone.
#include <signal.h>

#include "socketbuffer_fixture.h"

using namespace support;
using namespace unit;

namespace {

using SocketBufferSignal = SocketBufferTest;

// The application has taken back what the library's initialisation has made of the signal.
TEST_F(SocketBufferSignal, IsNotRaisedByASendingToAPeerThatHasGone)
{
    signal(SIGPIPE, SIG_DFL);
    ASSERT_RC(0, initWriteBuffer(&sockBuffer, ours.fd(), 8));
    theirs.close();
    writeInt(&sockBuffer, 1);

    EXPECT_RC(-102, flushBuffer(&sockBuffer));

    EXPECT_EQ(EPIPE, sockBuffer.socketErr);
}

} // namespace
