// Programs that end, in order, with connections open and calls under way.
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "support/connection_script.h"
#include "support/forked.h"

using namespace script;
using support::inChild;

namespace {

QPX_ConnToken_t childsToken = nullptr;

void openInChild(int port)
{
    if (QPX_openRemoteGatewayConnection(localHost(), port, &childsToken, 30) != 0)
        support::endChild(1);
}

void closeAtExit()
{
    if (QPX_closeGatewayConnection(&childsToken) != 0) support::endChild(2);
}

// A program that ends; the test is its Gateway.
class EndingProgram : public ::testing::Test {
protected:
    template <typename Program>
    support::RunningCall<int> start(Program program)
    {
        return callInThread([this, program] {
            return inChild([this, program]() -> int { return program(gateway.port()); });
        });
    }

    Peer acceptConnection()
    {
        Peer peer = gateway.accept();
        peer.read(handshakeSize);
        peer.send(handshakeAnswer());
        return peer;
    }

    ScriptedGateway gateway;
};

TEST_F(EndingProgram, EndsWithItsConnectionsOpenAndSaysNoGoodbye)
{
    auto program = start([](int port) -> int {
        openInChild(port);
        std::exit(3);
    });
    Peer peer = acceptConnection();

    EXPECT_EQ(3, program.get());
    EXPECT_TRUE(peer.awaitEof());
}

TEST_F(EndingProgram, EndsWhileAThreadWaitsInACall)
{
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    auto program = start([&ends](int port) -> int {
        openInChild(port);
        std::thread([] {
            support::EciParms parms = support::syncCall("PROG", text("question"));
            QPX_ECI_Execute(childsToken, &parms.record);
        }).detach();
        char go = 0;
        if (read(ends[0], &go, 1) != 1) support::endChild(4);
        std::exit(3);
    });
    Peer peer = acceptConnection();
    readRequest(peer);
    EXPECT_EQ(1, write(ends[1], "g", 1));

    EXPECT_EQ(3, program.get());
    EXPECT_TRUE(peer.awaitEof());
    close(ends[0]);
    close(ends[1]);
}

TEST_F(EndingProgram, ClosesInOrderInAHandlerOfAtexitThatIsOlderThanTheFirstCall)
{
    auto program = start([](int port) -> int {
        std::atexit(closeAtExit);
        openInChild(port);
        std::exit(3);
    });
    Peer peer = acceptConnection();
    EXPECT_EQ(closeFlow(), peer.read(closeFlow().size()));
    peer.send(closeFlow());

    EXPECT_EQ(3, program.get());
    EXPECT_TRUE(peer.awaitEof());
}

} // namespace
