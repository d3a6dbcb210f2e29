// What connections take of the process, from an open that fails to the child of a fork: it goes
// with them, and where a step fails nothing is done twice.
#include <fcntl.h>
#include <netdb.h>

#include <string>
#include <utility>

#include "clapi_channel.h"
#include "clapi_delivery.h"
#include "qpxclient_esi.h"
#include "support/channels.h"
#include "support/descriptors.h"
#include "support/eci_script.h"
#include "support/forked.h"
#include "support/live_blocks.h"
#include "unit/receiver_fixture.h"

using namespace fixture;
using namespace script;
using support::afterCall;
using support::asyncCall;
using support::beforeCall;
using support::Call;
using support::callCount;
using support::CallInfo;
using support::EciParms;
using support::failCall;
using support::failCallOn;
using support::Fault;
using support::Gate;
using support::inChild;
using support::LiveBlocks;
using support::syncCall;
using support::Threads;
using support::TraceFile;

namespace {

char noHost[] = "no.such.host.invalid";

// ---- Opening ----

class OpeningLeftovers : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_RC(QPX_OK, clapiInit()); }

    int openInVain() { return QPX_openRemoteGatewayConnection(noHost, 2006, &token, 0); }

    Fault unresolved() { return failCall(Call::GetAddrInfo, 1, EAI_NONAME); }

    QPX_ConnToken_t token = nullptr;
};

TEST_F(OpeningLeftovers, AreNoBlocksWhereALockCannotBeMade)
{
    LiveBlocks blocks;
    Fault fault = failCall(Call::MutexInit, 3, ENOMEM, Threads::Calling);

    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, openInVain());

    EXPECT_EQ(0, blocks.count());
}

TEST_F(OpeningLeftovers, AreNoAddresses)
{
    Fault freeing = watch(Call::FreeAddrInfo);

    ScriptedConnection connection;

    EXPECT_EQ(1, freeing.hits());
}

TEST_F(OpeningLeftovers, AreNoAddressesWhereNobodyListens)
{
    support::RefusingPort refusing;
    Fault freeing = watch(Call::FreeAddrInfo);

    EXPECT_RC(QPX_ERR_CONNECTFAILED,
              QPX_openRemoteGatewayConnection(localHost(), refusing.port(), &token, 0));

    EXPECT_EQ(1, freeing.hits());
}

TEST_F(OpeningLeftovers, AreOfAddressesThatTheMachineHasAWayTo)
{
    int flags = 0;
    Fault asking = beforeCall(Call::GetAddrInfo, 1, [&](const CallInfo& info) {
        flags = reinterpret_cast<const addrinfo*>(info.hints)->ai_flags;
    });

    ScriptedConnection connection;

    EXPECT_EQ(AI_ADDRCONFIG | AI_ALL, flags);
}

TEST_F(OpeningLeftovers, AreTextsThatFitTheirFields)
{
    char applid[] = "ABCDEFGHIJKL";
    char qualifier[] = "QRSTUVWXYZ";
    std::string tokens;
    Fault resolving = beforeCall(Call::GetAddrInfo, 1,
                                 [&](const CallInfo&) { tokens = dumpedTokens(); });
    Fault fault = unresolved();

    EXPECT_RC(QPX_ERR_BADHOST, clapiCreateGatewayToken(&token, noHost, 2006, 0, applid, qualifier));

    EXPECT_TRUE(support::contains(tokens, "applid(ABCDEFGH) applidQual(QRSTUVWX)")) << tokens;
}

TEST_F(OpeningLeftovers, AreToldAsTheyAreListed)
{
    TraceFile trace(3);
    Fault fault = unresolved();

    EXPECT_RC(QPX_ERR_BADHOST, openInVain());

    EXPECT_TRUE(trace.wrote(2040, "ENTRY", "clapi_gwytok.chainGatewayToken(newToken=<ptr>)"));
    EXPECT_TRUE(trace.wrote(2043, "EXIT", "clapi_gwytok.chainGatewayToken() rc=0 (QPX_OK)"));
}

// The connecting thread waits for the answer, which is a reply to a slot that nobody uses.
TEST_F(OpeningLeftovers, AreCodesOfASystemErrorWhereTheTableStaysLocked)
{
    ScriptedGateway gateway;
    TraceFile trace(4);
    auto opening = callInThread(
        [&] { return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 0); });
    Peer peer = gateway.accept();
    peer.read(handshakeSize);
    ASSERT_TRUE(trace.awaitText("Waiting for handshake response"));
    Fault fault = failCallOn(Call::MutexUnlock, &tokenInTrace(trace)->tableLock.lock, 1, EPERM,
                             Threads::Others);

    peer.send(eciReply(1, text("x")));

    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, opening.get());
    EXPECT_EQ(1, fault.hits());
}

TEST_F(OpeningLeftovers, AreABufferOfItsReceiver)
{
    TraceFile trace(3);

    ScriptedConnection connection;

    EXPECT_TRUE(trace.wroteText("ENTRY  clapi_socketbuffer.initReadBuffer(sockBuffer=<ptr>, "
                                "socketDesc=<int>, dataLen=33000)\n"));
}

// ---- Serving ----

class ServingLeftovers : public ReceiverTest {};

TEST_F(ServingLeftovers, AreNoneOfManyRequestsButTheRecord)
{
    connection.closeInOrder();
    LiveBlocks blocks;
    {
        ScriptedConnection other;
        for (int i = 0; i < 40; ++i) {
            EciParms parms = asyncCall("PROG", filled(8, 'q'));
            EXPECT_RC(QPX_OK, QPX_ECI_Execute(other.token, &parms.record));
            other.awaitRequest();
        }
        other.peer.close();
        ASSERT_EQ(0, clapiWaitEvent(&other.token->recvThreadEndedEvent));
        EXPECT_RC(QPX_OK, QPX_purgeGatewayConnection(&other.token, 0));
    }

    EXPECT_EQ(1, blocks.count()); // the token's record, which rests
}

TEST_F(ServingLeftovers, OfFlowsThatComeTogetherAreTakenAtOnce)
{
    asked = syncCall("PROG", text("question"));
    auto call = connection.start(asked);
    connection.awaitRequest();
    TraceFile trace(4);
    int before = receiverWaits.hits();

    connection.peer.send(eciReply(1, text("answered")) + pingFlow());

    EXPECT_RC(QPX_OK, call.get());
    ASSERT_TRUE(trace.awaitText("Flow type is FLOW_PING"));
    // The one that has waited brings both.
    EXPECT_LE(receiverWaits.hits(), before + 1);
}

// ---- Sending ----

class SendingLeftovers : public ReceiverTest {
protected:
    // A flow of which ten bytes leave.
    template <typename Function>
    void breakOff(Function call)
    {
        Fault shorter = support::limitLength(Call::Send, 10, 1, Threads::Calling);
        Fault failing = failCall(Call::Send, 2, EPIPE, Threads::Calling);
        EXPECT_RC(QPX_ERR_LOSTGWCON, call());
    }
};

TEST_F(SendingLeftovers, OfACallMarkTheConnection)
{
    EciParms parms = syncCall("PROG", filled(8, 'q'));

    breakOff([&] { return QPX_ECI_Execute(connection.token, &parms.record); });

    EXPECT_EQ(1, connection.token->brokenOff.load());
}

TEST_F(SendingLeftovers, OfAnAsynchronousCallMarkTheConnection)
{
    EciParms parms = asyncCall("PROG", filled(8, 'q'));

    breakOff([&] { return QPX_ECI_Execute(connection.token, &parms.record); });

    EXPECT_EQ(1, connection.token->brokenOff.load());
}

TEST_F(SendingLeftovers, OfAPasswordCallMarkTheConnection)
{
    static const char user[] = "USER";
    static const char password[] = "PASSWORD";
    ESI_DETAILS details = {};

    breakOff([&] {
        return QPX_ESI_verifyPassword(connection.token, user, password, nullptr, &details);
    });

    EXPECT_EQ(1, connection.token->brokenOff.load());
}

TEST_F(SendingLeftovers, AreNoneWhereNothingHasLeft)
{
    EciParms parms = asyncCall("PROG", filled(8, 'q'));
    Fault failing = failCall(Call::Send, 1, EPIPE, Threads::Calling);

    EXPECT_RC(QPX_ERR_LOSTGWCON, QPX_ECI_Execute(connection.token, &parms.record));

    EXPECT_EQ(0, connection.token->brokenOff.load());
}

TEST_F(SendingLeftovers, AreASlotThatIsGivenBackOnce)
{
    EciParms parms = asyncCall("PROG", filled(8, 'q'));
    Fault failing = failCall(Call::Send, 1, EPIPE, Threads::Calling);
    TraceFile trace(3);

    EXPECT_RC(QPX_ERR_LOSTGWCON, QPX_ECI_Execute(connection.token, &parms.record));

    EXPECT_EQ(1, trace.timesWrote(2057));
}

// As a close that gives the replies up has left it.
TEST_F(SendingLeftovers, OfRepliesThatWereGivenUpAreNotCounted)
{
    int messageId = startAsync();
    TraceFile trace(4);
    connection.peer.send(eciReply(messageId, text("answered")) + pingFlow());
    ASSERT_TRUE(trace.awaitText("Flow type is FLOW_PING"));
    connection.token->asyncCount = 0;
    EciParms reply = support::getReply(8);

    EXPECT_RC(QPX_OK, collect(reply));

    EXPECT_EQ(0, connection.token->asyncCount.load());
}

TEST_F(SendingLeftovers, StayWhereTheTableCannotBeLocked)
{
    RequestSlot* slot = nullptr;
    ASSERT_RC(QPX_OK, slotFind(&connection.token->table, 0, &slot));
    {
        BrokenLock noTable(connection.token->tableLock);
        clapiDropSlot(connection.token, slot);
    }
    EXPECT_EQ(SLOT_ALLOCATED, slot->state);

    clapiDropSlot(connection.token, slot);
    EXPECT_EQ(SLOT_FREE, slot->state);
}

// ---- Closing ----

class ClosingLeftovers : public ReceiverTest {};

TEST_F(ClosingLeftovers, AreChannelsThatAreGivenBackOnce)
{
    support::Channel channel;
    EciParms request = asyncCall("PROG");
    request.record.channel = channel.token;
    ASSERT_RC(QPX_OK, QPX_ECI_Execute_Channel(connection.token, &request.record));
    {
        Fault fault = failCall(Call::Send, 1, EPIPE);
        auto purging = connection.startPurge(0);
        ASSERT_TRUE(fault.awaitHits());
        connection.peer.close();
        EXPECT_RC(QPX_ERR_LOSTGWCON, purging.get());
    }
    EXPECT_EQ(0, channel.token->isLocked.load());
    TraceFile trace(3);

    EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());

    EXPECT_EQ(0, trace.timesWrote(1471)); // nothing is unlocked any more
    connection.forget();
}

TEST_F(ClosingLeftovers, AreNoDeletersWhereTheListCannotBeLocked)
{
    auto closing = connection.startClose();
    EXPECT_EQ(closeFlow(), connection.peer.read(33));
    {
        BrokenLock noList(gtlLock);
        connection.peer.send(closeFlow());
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, closing.get());
    }
    EXPECT_EQ(0, connection.token->deleters.load());

    EXPECT_RC(QPX_OK, QPX_closeAllGatewayConnections());
    connection.forget();
}

// ---- Forks ----

class ForkedLeftovers : public ReceiverTest {
protected:
    // A child of a fork that has to wait for a lock, and opens the gate when it does.
    template <typename Look>
    static int inChildBehind(Gate gate, Look look)
    {
        Fault waits = beforeCall(
            Call::MutexLock, 0,
            [gate](const CallInfo& info) mutable {
                if (!support::isFree(*reinterpret_cast<pthread_mutex_t*>(info.first))) gate.open();
            },
            Threads::Calling);
        int seen = inChild(look);
        gate.open();
        return seen;
    }
};

TEST_F(ForkedLeftovers, HaveNoSocket)
{
    EXPECT_EQ(0,
              inChild([this] { return connection.token->socketDescriptor == NO_SOCKET ? 0 : 1; }));
}

TEST_F(ForkedLeftovers, HaveNothingToCloseInTheNextChild)
{
    EXPECT_EQ(0, inChild([] {
                  int before = callCount(Call::Close);
                  return inChild([before] { return callCount(Call::Close) - before; });
              }));
}

TEST_F(ForkedLeftovers, AreUnknownToTheChildThatHasATokenOfItsOwn)
{
    EXPECT_EQ(0, inChild([this] {
                  int found = QPX_OK;
                  Fault resolving = beforeCall(Call::GetAddrInfo, 1, [&](const CallInfo&) {
                      found = clapiRegisterRequest(connection.token);
                  });
                  Fault unknown = failCall(Call::GetAddrInfo, 1, EAI_NONAME);
                  QPX_ConnToken_t own = nullptr;
                  int rc = QPX_openRemoteGatewayConnection(noHost, 2006, &own, 0);
                  if (rc != QPX_ERR_BADHOST) return 1;
                  return found == QPX_ERR_BADGWTOK ? 0 : 2;
              }));
}

TEST_F(ForkedLeftovers, AreNoSocketThatAThreadOfTheParentIsClosing)
{
    int number = connection.token->socketDescriptor;
    Gate gate;
    Fault closing = beforeCall(
        Call::Close, 1, [gate](const CallInfo&) mutable { gate.pass(); }, Threads::Others);
    connection.peer.close();
    ASSERT_TRUE(gate.awaitArrival());

    EXPECT_EQ(0, inChildBehind(gate, [=] { return support::descriptorIsOpen(number) ? 1 : 0; }));
}

TEST_F(ForkedLeftovers, AreNoSocketThatAThreadOfTheParentIsMaking)
{
    support::RefusingPort refusing;
    int number = -1;
    Gate gate;
    Fault making = afterCall(
        Call::Socket, 1,
        [&number, gate](const CallInfo& info) mutable {
            number = static_cast<int>(info.result);
            gate.pass();
        },
        Threads::Others);
    Gate connecting;
    Fault before = beforeCall(
        Call::Connect, 1, [connecting](const CallInfo&) mutable { connecting.pass(); },
        Threads::Others);
    auto opening = callInThread([&] {
        QPX_ConnToken_t token = nullptr;
        return QPX_openRemoteGatewayConnection(localHost(), refusing.port(), &token, 0);
    });
    ASSERT_TRUE(gate.awaitArrival());

    EXPECT_EQ(0,
              inChildBehind(gate, [&number] { return support::descriptorIsOpen(number) ? 1 : 0; }));

    connecting.open();
    EXPECT_RC(QPX_ERR_CONNECTFAILED, opening.get());
}

// ---- Without initialisation ----

TEST(UninitialisedChannelCall, GivesTheResultOfTheFailedInitialisation)
{
    Fault fault = support::failEveryCall(Call::Once, EINVAL);
    EciParms parms = syncCall("PROG");

    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, QPX_ECI_Execute_Channel(nullptr, &parms.record));

    EXPECT_EQ(1, fault.hits());
}

} // namespace
