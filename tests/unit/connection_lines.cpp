// The lines of the trace that frame the life of a connection, and of a hold of a channel.
#include <netdb.h>

#include <string>

#include "unit/channel_fixture.h"
#include "unit/receiver_fixture.h"

using namespace fixture;
using namespace script;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::failCall;
using support::Fault;
using support::TraceFile;

namespace {

class ConnectionLines : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_RC(QPX_OK, clapiInit()); }
};

TEST_F(ConnectionLines, TellHowAnOpenHasEnded)
{
    TraceFile trace(3);

    ScriptedConnection connection;

    EXPECT_TRUE(trace.wrote(2014, "EXIT", "clapi_gwytok.openClientSocket() rc=0 (QPX_OK)"));
    EXPECT_TRUE(trace.wrote(3012, "EXIT", "clapi_gwycon.clapiConnectToGateway() rc=0 (QPX_OK)"));
}

TEST_F(ConnectionLines, TellHowAnOpenHasEndedInVain)
{
    support::RefusingPort refusing;
    QPX_ConnToken_t token = nullptr;
    TraceFile trace(3);

    EXPECT_RC(QPX_ERR_CONNECTFAILED,
              QPX_openRemoteGatewayConnection(localHost(), refusing.port(), &token, 0));

    std::string failed = "() rc=" + std::to_string(QPX_ERR_CONNECTFAILED) +
                         " (QPX_ERR_CONNECTFAILED)";
    EXPECT_TRUE(trace.wrote(3012, "EXIT", "clapi_gwycon.clapiConnectToGateway" + failed));
    EXPECT_TRUE(trace.wrote(2014, "EXIT", "clapi_gwytok.openClientSocket" + failed));
    // Its token goes without a wait, and under the lock of the list.
    EXPECT_TRUE(trace.wrote(2029, "ENTRY",
                            "clapi_gwytok.clapiDeleteGatewayToken(gwTokPtr=<ptr>, closeTimeout=0, "
                            "lockRequired=TRUE)"));
    EXPECT_TRUE(trace.wrote(2033, "EXIT", "clapi_gwytok.clapiDeleteGatewayToken() rc=0 (QPX_OK)"));
}

TEST_F(ConnectionLines, TellHowTheWaitForAConnectHasEnded)
{
    TraceFile trace(3);
    Fault connecting = beforeCall(Call::Connect, 1, connectForReal);
    Fault slow = failCall(Call::Connect, 1, EINPROGRESS);

    ScriptedConnection connection(30);

    EXPECT_TRUE(trace.wrote(3020, "EXIT", "clapi_gwycon.waitForConnection() rc=0 (QPX_OK)"));
}

TEST_F(ConnectionLines, TellOfAClose)
{
    ScriptedConnection connection;
    std::string token = shown(connection.token);
    TraceFile trace(4);

    connection.closeInOrder();

    EXPECT_TRUE(
        trace.wrote(3023, "ENTRY", "clapi_gwycon.clapiCloseConnection(conn=" + token + ")"));
    EXPECT_TRUE(trace.wrote(3026, "EXIT", "clapi_gwycon.clapiCloseConnection() rc=0 (QPX_OK)"));
    EXPECT_TRUE(trace.wrote(2078, "EXIT", "clapi_gwytok.quiesceConnection() rc=0 (QPX_OK)"));
    EXPECT_TRUE(trace.wrote(2032, "clapi_gwytok.clapiDeleteGatewayToken() Freeing gateway token "
                                  "at gwTokPtr=" +
                                      token));
}

// A socket that cannot be closed shows in this line alone.
TEST_F(ConnectionLines, TellWhyASocketCouldNotBeClosed)
{
    support::RefusingPort refusing;
    QPX_ConnToken_t token = nullptr;
    int number = -1;
    {
        TraceFile trace(3);
        Fault closing = beforeCall(
            Call::Close, 1, [&](const CallInfo& info) { number = static_cast<int>(info.first); });
        Fault fault = failCall(Call::Close, 1, ENOSPC);
        EXPECT_RC(QPX_ERR_CONNECTFAILED,
                  QPX_openRemoteGatewayConnection(localHost(), refusing.port(), &token, 0));
        EXPECT_TRUE(trace.wroteText("clapi_gwycon.closeSocket() rc=28"));
    }
    close(number);
}

TEST_F(ConnectionLines, TellOfASocketThatWasClosed)
{
    support::RefusingPort refusing;
    QPX_ConnToken_t token = nullptr;
    TraceFile trace(3);

    EXPECT_RC(QPX_ERR_CONNECTFAILED,
              QPX_openRemoteGatewayConnection(localHost(), refusing.port(), &token, 0));

    EXPECT_TRUE(trace.wroteText("clapi_gwycon.closeSocket() rc=0"));
}

// ---- Tokens ----

TEST_F(ConnectionLines, ShowATokenWithoutASocketAsSuch)
{
    QPX_ConnToken_t token = nullptr;
    char host[] = "no.such.host.invalid";
    std::string tokens;
    Fault resolving = beforeCall(Call::GetAddrInfo, 1,
                                 [&](const CallInfo&) { tokens = dumpedTokens(); });
    Fault unknown = failCall(Call::GetAddrInfo, 1, EAI_NONAME);

    EXPECT_RC(QPX_ERR_BADHOST, QPX_openRemoteGatewayConnection(host, 2006, &token, 0));

    EXPECT_TRUE(support::contains(tokens, "connStatus(0) socket(-1)"));
}

// Nobody writes between the lines of a dump.
TEST_F(ConnectionLines, OfADumpOfTokensStandTogether)
{
    TraceFile trace(0);
    int free = 0;
    Fault writing = beforeCall(Call::Write, 0, [&](const CallInfo&) {
        if (isFree(traceLock.lock)) free += 1;
    });

    clapiDumpGatewayTokens();

    EXPECT_LT(0, writing.hits());
    EXPECT_EQ(0, free);
}

TEST_F(ConnectionLines, OfADumpOfChannelsStandTogether)
{
    support::Channel channel;
    TraceFile trace(0);
    int free = 0;
    Fault writing = beforeCall(Call::Write, 0, [&](const CallInfo&) {
        if (isFree(traceLock.lock)) free += 1;
    });

    EXPECT_RC(0, QPX_ECI_dumpChannels());

    EXPECT_LT(0, writing.hits());
    EXPECT_EQ(0, free);
}

TEST_F(ConnectionLines, OfADumpOfChannelsTakeNoMemoryForGood)
{
    support::Channel channel;
    TraceFile trace(0);
    Fault freeing = watch(Call::Free);

    EXPECT_RC(0, QPX_ECI_dumpChannels());

    EXPECT_EQ(1, freeing.hits());
}

// ---- Channels ----

class ChannelLines : public ::testing::Test {
protected:
    ChannelLines() { support::settleCodePage(); }

    CustomerChannel channel;
};

TEST_F(ChannelLines, FrameTheEndOfAHold)
{
    TraceFile trace(3);

    EXPECT_EQ("CUSTOMER", channel.first());

    EXPECT_TRUE(trace.wrote(1471, "ENTRY",
                            "clapi_channel.unlockChannel(chanTok=" + shown(channel.token) + ")"));
    EXPECT_TRUE(trace.wrote(1476, "EXIT", "clapi_channel.unlockChannel() rc=0 (<any>)"));
}

TEST_F(ChannelLines, TellOfANewContainer)
{
    TraceFile trace(4);

    channel.addBit("NEW");

    EXPECT_TRUE(trace.wrote(1336, "DEBUG",
                            "API.ECI_createContainer() Created container \"NEW\" (<ptr>) in "
                            "channel \"ORDER\" (" +
                                shown(channel.token) + ")"));
}

TEST_F(ChannelLines, TellOfACodePageThatIsTheLocalOne)
{
    TraceFile trace(4);

    channel.addChar("TEXT", 0, "abc");

    EXPECT_TRUE(trace.wrote(1332, "DEBUG",
                            "API.ECI_createContainer() Channel CCSID set to <int> from locale"));
}

TEST_F(ChannelLines, TellWhoeverWaitsThatTheChannelIsNoMore)
{
    TraceFile trace(4);
    ECI_ChannelToken_t token = channel.token;
    ASSERT_RC(0, lockChannel(token));
    auto waiting = waiterFor(trace, token, [token] { return lockChannel(token); });

    EXPECT_RC(0, ECI_deleteAllChannels());

    EXPECT_RC(ECI_ERR_INVALID_CHANNEL, waiting.get());
    EXPECT_TRUE(
        trace.wrote(1462, "*EXC*",
                    "clapi_channel.lockChannel() chanTok (" + shown(token) + ") is not a channel"));
    EXPECT_RC(ECI_ERR_INVALID_CHANNEL, unlockChannel(token));
    channel.token = nullptr;
}

} // namespace
