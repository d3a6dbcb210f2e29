// Creating a gateway token: what the record holds, in which order its locks and events are made,
// and that a failure leaves nothing behind.
#include <cstring>
#include <vector>

#include "unit/connect_fixture.h"

using namespace fixture;
using namespace script;
using support::Call;
using support::CallInfo;
using support::failCall;
using support::Fault;
using support::Threads;
using support::TraceFile;

namespace {

// Addresses that a call of the library was made with, in order.
class Recorder {
public:
    explicit Recorder(Call call)
        : fault_(support::beforeCall(
              call, 0, [this](const CallInfo& info) { addresses.push_back(info.first); },
              Threads::Calling))
    {
    }

    std::vector<std::uintptr_t> addresses;

private:
    Fault fault_;
};

class TokenCreate : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_RC(QPX_OK, clapiInit()); }

    int create(int connTimeout = 0, const std::string& applid = "",
               const std::string& qualifier = "")
    {
        std::string id = applid;
        std::string part = qualifier;
        return clapiCreateGatewayToken(&token, localHost(), gateway.port(), connTimeout, id.data(),
                                       part.data());
    }

    // The same for what fails before it comes to connect.
    int createInVain()
    {
        char nothing[] = "";
        return clapiCreateGatewayToken(&token, localHost(), refusing.port(), 0, nothing, nothing);
    }

    // Lets the nth lock or event of the token fail and looks at how the others go.
    void failTheNth(int nth, int expectedRc, int point, const std::string& line)
    {
        TraceFile trace(1);
        Recorder made(Call::MutexInit);
        Recorder destroyed(Call::MutexDestroy);
        Fault fault = failCall(Call::MutexInit, nth, ENOMEM, Threads::Calling);

        EXPECT_RC(expectedRc, createInVain());

        EXPECT_EQ(1, fault.hits());
        EXPECT_TRUE(trace.wrote(point, "*EXC*", line)) << trace.text();
        ASSERT_EQ(static_cast<std::size_t>(nth), made.addresses.size());
        std::vector<std::uintptr_t> newestFirst(made.addresses.rbegin() + 1, made.addresses.rend());
        EXPECT_EQ(newestFirst, destroyed.addresses);
        EXPECT_EQ(nullptr, token);
        trace.forget();
        clapiDumpGatewayTokens();
        EXPECT_EQ(emptyList(), trace.text());
    }

    ScriptedGateway gateway;
    support::RefusingPort refusing;
    QPX_ConnToken_t token = nullptr;
};

TEST_F(TokenCreate, FillsTheRecordWithItsInitialValues)
{
    ScriptedConnection connection(7);
    const _QPX_ConnToken_t& record = *connection.token;

    EXPECT_EQ(0, std::memcmp(record.eyecatcher, "QPXGWTOK", 8));
    EXPECT_EQ(nullptr, record.nextGwyTokPtr);
    EXPECT_EQ(static_cast<uint32_t>(connection.gateway.port()), record.portNumber);
    EXPECT_EQ(1, record.connStatus.load());
    EXPECT_EQ(7, record.connTimeout);
    EXPECT_EQ(0, record.handshakeRc);
    EXPECT_EQ(0, record.closedown.load());
    EXPECT_LE(0, record.socketDescriptor);
    EXPECT_EQ(nullptr, record.firstReply);
    EXPECT_EQ(nullptr, record.lastReply);
    EXPECT_EQ(0, record.asyncCount.load());
    EXPECT_EQ(0, record.requestCount.load());
    EXPECT_STREQ("", record.applid);
    EXPECT_STREQ("", record.applidQualifier);
}

TEST_F(TokenCreate, StartsInTheConnectingState)
{
    TraceFile trace(3);
    auto open = callInThread([this] { return create(); });
    Peer peer = gateway.accept();
    peer.read(handshakeSize);

    _QPX_ConnToken_t* record = tokenInTrace(trace);
    EXPECT_EQ(0, record->connStatus.load());
    EXPECT_EQ(nullptr, token);

    peer.send(handshakeAnswer());
    ASSERT_RC(QPX_OK, open.get());
    EXPECT_EQ(record, token);
    peer.close();
    QPX_closeGatewayConnection(&token);
}

TEST_F(TokenCreate, GivesItsSixteenSlotsTheMessageIdsOneToSixteen)
{
    ScriptedConnection connection;
    RequestSlot* slot = connection.token->table.slot;

    for (int at = 0; at < 16; ++at) {
        EXPECT_EQ(0, std::memcmp(slot[at].eyecatcher, "QPXRSLOT", 8)) << at;
        EXPECT_EQ(at + 1, slot[at].messageId.load());
        EXPECT_EQ(0, slot[at].state) << at;
        EXPECT_EQ(at < 15 ? &slot[at + 1] : nullptr, slot[at].nextSlot.load()) << at;
    }
}

TEST_F(TokenCreate, ArmsEveryEventButThoseOfHandshakeAndReceiver)
{
    ScriptedConnection connection;

    EXPECT_EQ(0, connection.token->asyncReplyEvent.eflag);
    EXPECT_EQ(0, connection.token->requestsEnded.eflag);
    EXPECT_EQ(0, connection.token->recvThreadEndedEvent.eflag);
    EXPECT_EQ(1, connection.token->connEvent.eflag);
}

TEST_F(TokenCreate, KeepsApplidAndQualifierOfEightCharacters)
{
    auto open = callInThread([this] { return create(0, "APPLID78", "QUALIF78"); });
    Peer peer = gateway.accept();
    peer.read(handshakeSize + 16);
    peer.send(handshakeAnswer());
    ASSERT_RC(QPX_OK, open.get());

    EXPECT_STREQ("APPLID78", token->applid);
    EXPECT_STREQ("QUALIF78", token->applidQualifier);

    peer.close();
    QPX_closeGatewayConnection(&token);
}

TEST_F(TokenCreate, TracesTheNewTokenAndItsSlots)
{
    TraceFile trace(4);
    ScriptedConnection connection;
    std::string at = shown(connection.token);

    EXPECT_TRUE(trace.wrote(2001, "DEBUG",
                            "clapi_gwytok.clapiCreateGatewayToken() Called malloc for <int> bytes. "
                            "new token address=" +
                                at));
    EXPECT_TRUE(trace.wrote(2003, "DEBUG",
                            "clapi_gwytok.clapiCreateGatewayToken() Initialized slot table, "
                            "first slot=1, last slot=16"));
    EXPECT_EQ(1, trace.timesWrote(2000));
    EXPECT_EQ(1, trace.timesWrote(2010));
}

TEST_F(TokenCreate, TracesTheOpenedSocket)
{
    TraceFile trace(3);
    ScriptedConnection connection(9);
    std::string at = shown(connection.token);
    std::string port = std::to_string(connection.gateway.port());
    std::string descriptor = std::to_string(connection.token->socketDescriptor);

    EXPECT_TRUE(trace.wroteText("ENTRY  clapi_gwytok.openClientSocket(gwTokPtr=" + at +
                                ") Attempting to connect to 127.0.0.1:" + port +
                                " connTimeout=9\n"));
    EXPECT_TRUE(trace.wroteText("EVENT  clapi_gwytok.openClientSocket() Connected to Gateway "
                                "127.0.0.1:" +
                                port + " - socketDescriptor(" + descriptor + ")\n"));
}

TEST_F(TokenCreate, TracesTheFormattedTokenAsAnEvent)
{
    TraceFile trace(2);
    ScriptedConnection connection;

    EXPECT_TRUE(
        trace.wrote(2009, "EVENT",
                    "<any>GatwayToken(" + shown(connection.token) + ") eyecatcher(QPXGWTOK) port(" +
                        std::to_string(connection.gateway.port()) + ") connStatus(1) socket(" +
                        std::to_string(connection.token->socketDescriptor) +
                        ") applid() applidQual() nextGwyTokPtr((nil))"))
        << trace.text();
}

TEST_F(TokenCreate, TracesPercentSignsOfAnApplidAsTheyAre)
{
    TraceFile trace(2);
    auto open = callInThread([this] { return create(0, "%s%n%d%x", "100%"); });
    Peer peer = gateway.accept();
    peer.read(handshakeSize + 12);
    peer.send(handshakeAnswer());
    ASSERT_RC(QPX_OK, open.get());

    EXPECT_TRUE(trace.wrote(2009, "EVENT", "<any>applid(%s%n%d%x) applidQual(100%)<any>"));

    peer.close();
    QPX_closeGatewayConnection(&token);
}

TEST_F(TokenCreate, FailsWithMallocFailWithoutMemory)
{
    TraceFile trace(1);
    Fault fault = failCall(Call::Malloc, 1, ENOMEM, Threads::Calling);

    EXPECT_RC(QPX_ERR_MALLOCFAIL, createInVain());

    EXPECT_TRUE(trace.wrote(2002, "*EXC*",
                            "clapi_gwytok.clapiCreateGatewayToken() Failed to allocate <int> "
                            "bytes"));
    EXPECT_EQ(nullptr, token);
    trace.forget();
    clapiDumpGatewayTokens();
    EXPECT_EQ(emptyList(), trace.text());
}

TEST_F(TokenCreate, FailsWithoutATableLock)
{
    failTheNth(1, QPX_ERR_SYSTEM_ERROR, 2008,
               "clapi_gwytok.clapiCreateGatewayToken() Failed to create table lock");
}

TEST_F(TokenCreate, DestroysTheTableLockWhenTheSendLockFails)
{
    failTheNth(2, QPX_ERR_SYSTEM_ERROR, 2007,
               "clapi_gwytok.clapiCreateGatewayToken() Failed to create send lock");
}

TEST_F(TokenCreate, DestroysTheLocksWhenTheConnEventFails)
{
    failTheNth(3, QPX_ERR_SYSTEM_ERROR, 2006,
               "clapi_gwytok.clapiCreateGatewayToken() Failed to create connEvent");
}

TEST_F(TokenCreate, UndoesEverythingWhenTheRecvThreadEndedEventFails)
{
    failTheNth(4, QPX_ERR_SYSTEM_ERROR, 2080,
               "clapi_gwytok.clapiCreateGatewayToken() Failed to create recvThreadEndedEvent");
}

TEST_F(TokenCreate, UndoesEverythingWhenTheRequestsEndedEventFails)
{
    failTheNth(5, QPX_ERR_SYSTEM_ERROR, 2005,
               "clapi_gwytok.clapiCreateGatewayToken() Failed to create requestsEnded event");
}

TEST_F(TokenCreate, ReturnsMinusOneWhenTheAsyncReplyEventFails)
{
    failTheNth(6, -1, 2004,
               "clapi_gwytok.clapiCreateGatewayToken() Failed to create asyncReplyEvent");
}

TEST_F(TokenCreate, UndoesEverythingNewestFirstWhenTheListCannotBeLocked)
{
    TraceFile trace(1);
    Recorder made(Call::MutexInit);
    Recorder destroyed(Call::MutexDestroy);
    {
        BrokenLock noList(gtlLock);
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, createInVain());
    }

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.chainGatewayToken() Release lock failed"));
    ASSERT_EQ(6U, made.addresses.size());
    std::vector<std::uintptr_t> expected{
        made.addresses[5], // asyncReplyEvent
        made.addresses[4], // requestsEnded
        made.addresses[3], // recvThreadEndedEvent
        made.addresses[2], // connEvent
        made.addresses[1], // sendLock
        made.addresses[0], // tableLock
    };
    EXPECT_EQ(expected, destroyed.addresses);
    EXPECT_EQ(nullptr, token);
}

TEST_F(TokenCreate, UndoesEverythingWhenTheRecvThreadEndedEventCannotBePosted)
{
    TraceFile trace(1);
    Recorder destroyed(Call::MutexDestroy);
    Fault connects = watch(Call::Connect);
    Fault fault = support::failCallWith(Call::CondBroadcast, 1, EINVAL, -1, Threads::Calling);

    int rc = createInVain();

    EXPECT_EQ(1, fault.hits());
    EXPECT_TRUE(trace.wrote(3133, "*EXC*",
                            "clapi_lock.clapiClearEvent() pthread_cond_broadcast failed, rc=22"));
    EXPECT_TRUE(rc == -1 || rc == QPX_ERR_SYSTEM_ERROR) << support::rcName(rc);
    EXPECT_EQ(6U, destroyed.addresses.size());
    EXPECT_EQ(0, connects.hits());
    EXPECT_EQ(nullptr, token);
    EXPECT_EQ(emptyList(), dumpedTokens());
}

TEST_F(TokenCreate, LeavesNoTokenBehindWhenTheConnectFails)
{
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_CONNECTFAILED, createInVain());

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.openClientSocket() Failed to connect to "
                                "Gateway 127.0.0.1:" +
                                std::to_string(refusing.port()) + "\n"));
    EXPECT_EQ(nullptr, token);
    trace.forget();
    clapiDumpGatewayTokens();
    EXPECT_EQ(emptyList(), trace.text());
}

TEST_F(TokenCreate, LeavesTheCallersVariableAsItWasWhenTheConnectFails)
{
    QPX_ConnToken_t before = reinterpret_cast<QPX_ConnToken_t>(&refusing);
    token = before;

    EXPECT_RC(QPX_ERR_CONNECTFAILED, createInVain());

    EXPECT_EQ(before, token);
}

TEST_F(TokenCreate, IsListedButNotFoundByCallersWhileTheConnectIsInProgress)
{
    TraceFile trace(3);
    auto open = callInThread([this] { return create(); });
    Peer peer = gateway.accept();
    peer.read(handshakeSize);
    _QPX_ConnToken_t* record = tokenInTrace(trace);

    EXPECT_TRUE(support::contains(dumpedTokens(), "GatwayToken(" + shown(record) + ") "));
    EXPECT_RC(QPX_ERR_BADGWTOK, clapiRegisterRequest(record));

    peer.send(handshakeAnswer());
    ASSERT_RC(QPX_OK, open.get());
    EXPECT_RC(QPX_OK, clapiRegisterRequest(record));
    EXPECT_RC(QPX_OK, clapiUnregisterRequest(record));
    peer.close();
    QPX_closeGatewayConnection(&token);
}

} // namespace
