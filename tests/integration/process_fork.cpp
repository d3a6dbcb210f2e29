// Applications that fork: the child has the library, but none of the parent's connections.
#include <fcntl.h>
#include <sched.h>

#include "qpxclient_eci.h"
#include "support/connected_descriptor.h"
#include "support/connection_script.h"
#include "support/forked.h"
#include "support/trace_file.h"

using namespace script;
using support::descriptorTo;
using support::EciParms;
using support::inChild;
using support::syncCall;
using support::TraceFile;

namespace {

class ForkedChild : public ::testing::Test {
protected:
    // The parent's connection is as it was: nothing has been said on it, and it serves.
    void expectServing()
    {
        EXPECT_TRUE(connection.peer.isQuiet());
        EciParms parms = syncCall("PROG", text("question"));
        auto call = connection.start(parms);
        int messageId = connection.awaitRequest().messageId();
        connection.peer.send(eciReply(messageId, text("answered")));
        EXPECT_RC(QPX_OK, call.get());
        connection.closeInOrder();
    }

    ScriptedConnection connection;
};

TEST_F(ForkedChild, ClosesNoneOfTheParentsConnections)
{
    EXPECT_EQ(0, inChild([] { return QPX_closeAllGatewayConnections(); }));

    expectServing();
}

TEST_F(ForkedChild, IsRefusedTheTokensOfTheParent)
{
    QPX_ConnToken_t token = connection.token;
    char* applid = nullptr;
    EciParms parms = syncCall("PROG", text("question"));

    EXPECT_EQ(101, inChild([&] { return -QPX_getApplid(token, &applid); }));
    EXPECT_EQ(101, inChild([&] { return -QPX_ECI_Execute(token, &parms.record); }));
    EXPECT_EQ(101, inChild([&] { return -QPX_closeGatewayConnection(&token); }));
    EXPECT_EQ(101, inChild([&] { return -QPX_purgeGatewayConnection(&token, 0); }));

    expectServing();
}

TEST_F(ForkedChild, HasNoneOfTheParentsSockets)
{
    int port = connection.gateway.port();
    ASSERT_LE(0, descriptorTo(port));

    EXPECT_EQ(0, inChild([&] { return descriptorTo(port) == -1 ? 0 : 1; }));

    EXPECT_LE(0, descriptorTo(port));
    expectServing();
}

// The socket has been closed when the connection was lost, and its number is another's by now.
TEST_F(ForkedChild, KeepsADescriptorThatWasASocketOfTheParents)
{
    int number = descriptorTo(connection.gateway.port());
    connection.peer.close();
    while (fcntl(number, F_GETFD) != -1) sched_yield();
    int other = fcntl(STDERR_FILENO, F_DUPFD, number);
    ASSERT_EQ(number, other);

    EXPECT_EQ(0, inChild([&] { return fcntl(other, F_GETFD) != -1 ? 0 : 1; }));

    close(other);
}

TEST_F(ForkedChild, OpensConnectionsOfItsOwn)
{
    auto child = callInThread([this] {
        return inChild([this] {
            QPX_ConnToken_t token = nullptr;
            if (QPX_openRemoteGatewayConnection(localHost(), connection.gateway.port(), &token,
                                                0) != 0)
                return 1;
            return QPX_closeGatewayConnection(&token) == 0 ? 0 : 2;
        });
    });
    Peer peer = connection.gateway.accept();
    peer.read(handshakeSize);
    peer.send(handshakeAnswer());
    EXPECT_EQ(closeFlow(), peer.read(33));
    peer.send(closeFlow());

    EXPECT_EQ(0, child.get());
    expectServing();
}

TEST_F(ForkedChild, HasTheChannelsThatCallsOfTheParentHold)
{
    ECI_ChannelToken_t channel = nullptr;
    ASSERT_RC(0, ECI_createChannel("CHANNEL", &channel));
    EciParms parms = syncCall("PROG");
    parms.record.channel = channel;
    auto call = callInThread(
        [&] { return QPX_ECI_Execute_Channel(connection.token, &parms.record); });
    int messageId = connection.awaitRequest().messageId();

    EXPECT_EQ(0, inChild([&] {
                  char name[17] = {};
                  if (ECI_getChannelName(channel, name) != 0) return 1;
                  if (ECI_createContainer(channel, "CONTAINER", ECI_BIT, 0, "data", 4) != 0)
                      return 2;
                  return ECI_deleteChannel(&channel) == 0 ? 0 : 3;
              }));

    connection.peer.send(errorFlow(messageId, QPX_ERR_WORK_WAS_REFUSED));
    EXPECT_RC(QPX_ERR_WORK_WAS_REFUSED, call.get());
    EXPECT_RC(0, ECI_deleteChannel(&channel));
    connection.closeInOrder();
}

TEST_F(ForkedChild, WritesToTheTraceOfTheParent)
{
    TraceFile trace(3);

    EXPECT_EQ(0, inChild([] {
                  char* version = nullptr;
                  return QPX_getAPIVersion(&version);
              }));

    EXPECT_EQ(1, trace.timesWroteText("API.QPX_getAPIVersion() rc=0 (QPX_OK)"));
    EXPECT_FALSE(trace.wroteText("closeSocket"));
}

TEST_F(ForkedChild, ForksAChildThatIsLikeIt)
{
    EXPECT_EQ(0, inChild([] { return inChild([] { return QPX_closeAllGatewayConnections(); }); }));

    expectServing();
}

} // namespace
