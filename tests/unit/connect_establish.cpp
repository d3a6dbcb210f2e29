// Connecting to a Gateway up to the handshake: resolving, the socket and its options, connect,
// the receiver thread.
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "support/descriptors.h"
#include "unit/connect_fixture.h"

using namespace fixture;
using namespace script;
using support::afterCall;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::failCall;
using support::failCallsFrom;
using support::Fault;
using support::Threads;
using support::TraceFile;

namespace {

class ConnectEstablish : public ::testing::Test {
protected:
    // An open in this thread, which gets no answer to its handshake from anybody.
    int open(int connTimeout = 0)
    {
        return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, connTimeout);
    }

    ScriptedGateway gateway;
    QPX_ConnToken_t token = nullptr;
    Fault connects = watch(Call::Connect);
    Fault options = watch(Call::SetSockOpt);
    Fault switches = watch(Call::Ioctl);
    Fault sends = watch(Call::Send);
    Fault closes = watch(Call::Close);
};

int optionOf(int descriptor, int level, int name)
{
    int value = -1;
    socklen_t length = sizeof value;
    getsockopt(descriptor, level, name, &value, &length);
    return value;
}

// Whether a program that asks for nothing special can have the address at once.
bool isFree(const sockaddr_in& address)
{
    int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    int rc = bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    close(descriptor);
    return rc == 0;
}

TEST_F(ConnectEstablish, TracesItsSteps)
{
    TraceFile trace(4);
    ScriptedConnection connection(0);
    std::string port = std::to_string(connection.gateway.port());
    std::string function = "clapi_gwycon.clapiConnectToGateway";
    std::vector<std::string> steps{
        "ENTRY  " + function + "(port=" + port + ", ipAddr=<ptr>, gwTokPtr=" +
            shown(connection.token) + ", connTimeout=0, applid=, applidQualifier=)\n",
        "DEBUG  " + function + "() Creating socket for family 2, type 1, protocol 6\n",
        "DEBUG  " + function + "() Connected to Gateway 127.0.0.1:" + port + "\n",
        "DEBUG  " + function + "() Creating receiver thread\n",
        "DEBUG  " + function + "() Waiting for handshake response\n",
    };

    std::string all = trace.text();
    for (const std::string& step : steps) EXPECT_EQ(1, support::countOf(all, step)) << step;
    EXPECT_LT(all.find("() Creating socket"), all.find("() Connected to Gateway"));
    EXPECT_LT(all.find("() Connected to Gateway"), all.find("() Creating receiver thread"));
    EXPECT_LT(all.find("() Creating receiver thread"), all.find("() Waiting for handshake"));
    EXPECT_EQ(0, support::countOf(all, "() Waiting for connect to complete"));
}

TEST_F(ConnectEstablish, TracesApplidAndQualifier)
{
    TraceFile trace(3);
    char applid[] = "MYAPPL";
    char qualifier[] = "MYQUAL";
    support::RefusingPort refusing;

    EXPECT_RC(QPX_ERR_CONNECTFAILED,
              QPX_openRemoteGatewayConnectionApplid(localHost(), refusing.port(), &token, 0, applid,
                                                    qualifier));

    EXPECT_TRUE(trace.wroteText("clapi_gwycon.clapiConnectToGateway(port=<int>, ipAddr=<ptr>, "
                                "gwTokPtr=<ptr>, connTimeout=0, applid=MYAPPL, "
                                "applidQualifier=MYQUAL)\n"));
}

TEST_F(ConnectEstablish, FailsWithBadHostWhenTheNameCannotBeResolved)
{
    char host[] = "some.host.example";
    TraceFile trace(1);
    Fault fault = failCall(Call::GetAddrInfo, 1, EAI_NONAME);

    EXPECT_RC(QPX_ERR_BADHOST, QPX_openRemoteGatewayConnection(host, 4321, &token, 5));

    EXPECT_EQ(1, fault.hits());
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.getHostInfo() Unable to resolve host "
                                "(some.host.example:4321): Name or service not known (-2)\n"))
        << trace.text();
    EXPECT_EQ(nullptr, token);
}

TEST_F(ConnectEstablish, ResolvesHostAndPortAsText)
{
    std::string host;
    std::string service;
    Fault fault = failCall(Call::GetAddrInfo, 1, EAI_AGAIN);
    Fault hook = beforeCall(Call::GetAddrInfo, 1, [&](const CallInfo& info) {
        host = reinterpret_cast<const char*>(info.first);
        service = reinterpret_cast<const char*>(info.second);
    });

    EXPECT_RC(QPX_ERR_BADHOST, QPX_openRemoteGatewayConnection(localHost(), 65535, &token, 5));

    EXPECT_EQ("127.0.0.1", host);
    EXPECT_EQ("65535", service);
}

TEST_F(ConnectEstablish, FailsWithBadHostWithoutASocket)
{
    TraceFile trace(1);
    Fault fault = failCall(Call::Socket, 1, EMFILE);

    EXPECT_RC(QPX_ERR_BADHOST, open());

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.clapiConnectToGateway() Unable to create a "
                                "socket: Too many open files (24)\n"));
    EXPECT_EQ(nullptr, token);
    EXPECT_EQ(0, closes.hits());
}

// A name with two addresses: at the second, the gateway of the test listens.
class ConnectToManyAddresses : public ConnectEstablish {
protected:
    int openBoth(int firstPort)
    {
        Fault resolved = afterCall(Call::GetAddrInfo, 1, [this](const CallInfo& info) {
            (*reinterpret_cast<addrinfo**>(info.output))->ai_next = addressOf(gateway.port());
        });
        int rc = QPX_openRemoteGatewayConnection(localHost(), firstPort, &token, 5);
        EXPECT_EQ(1, resolved.hits());
        return rc;
    }

    // Freed with the list that it is hung to.
    static addrinfo* addressOf(int port)
    {
        addrinfo hints = {};
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* found = nullptr;
        EXPECT_EQ(0, getaddrinfo(localHost(), std::to_string(port).c_str(), &hints, &found));
        return found;
    }
};

TEST_F(ConnectToManyAddresses, MakesASocketForTheFirstOnly)
{
    Fault sockets = support::failEveryCall(Call::Socket, EAFNOSUPPORT);

    EXPECT_RC(QPX_ERR_BADHOST, openBoth(gateway.port()));

    EXPECT_EQ(1, sockets.hits());
}

TEST_F(ConnectToManyAddresses, TriesTheFirstOnly)
{
    support::RefusingPort refusing;

    EXPECT_RC(QPX_ERR_CONNECTFAILED, openBoth(refusing.port()));

    EXPECT_EQ(1, connects.hits());
    EXPECT_EQ(nullptr, token);
}

TEST_F(ConnectEstablish, SwitchesKeepAliveAndNoDelayOn)
{
    std::vector<std::uintptr_t> names;
    Fault hook = beforeCall(Call::SetSockOpt, 0,
                            [&](const CallInfo& info) { names.push_back(info.second); });
    ScriptedConnection connection;

    EXPECT_EQ(1, optionOf(connection.token->socketDescriptor, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(1, optionOf(connection.token->socketDescriptor, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ((std::vector<std::uintptr_t>{SO_KEEPALIVE, TCP_NODELAY}), names);
}

TEST_F(ConnectEstablish, FailsWhenKeepAliveIsRefused)
{
    int before = support::openDescriptors();
    TraceFile trace(1);
    Fault fault = failCall(Call::SetSockOpt, 1, EINVAL);

    EXPECT_RC(QPX_ERR_CONNECTFAILED, open());

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.clapiConnectToGateway() Set socket to "
                                "KeepAlive or NoDelay failed: <int>\n"));
    EXPECT_EQ(1, options.hits());
    EXPECT_EQ(0, connects.hits());
    EXPECT_EQ(before, support::openDescriptors() - 1); // one more: the trace file
}

TEST_F(ConnectEstablish, FailsWhenNoDelayIsRefused)
{
    int before = support::openDescriptors();
    TraceFile trace(1);
    Fault fault = failCall(Call::SetSockOpt, 2, EINVAL);

    EXPECT_RC(QPX_ERR_CONNECTFAILED, open());

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.clapiConnectToGateway() Set socket to "
                                "KeepAlive or NoDelay failed: <int>\n"));
    EXPECT_EQ(0, connects.hits());
    EXPECT_EQ(before, support::openDescriptors() - 1); // one more: the trace file
}

// Another thread may execute a program at any moment.
TEST_F(ConnectEstablish, MakesASocketThatIsClosedOnExecFromItsCreationOn)
{
    int flags = 0;
    Fault made = afterCall(Call::Socket, 1, [&](const CallInfo& info) {
        flags = fcntl(static_cast<int>(info.result), F_GETFD);
    });
    ScriptedConnection connection(30);

    EXPECT_EQ(FD_CLOEXEC, flags);
}

TEST_F(ConnectEstablish, LeavesTheSocketBlockingAllTheTimeWithoutATimeOut)
{
    ScriptedConnection connection(0);

    EXPECT_EQ(0, switches.hits());
    EXPECT_EQ(0, fcntl(connection.token->socketDescriptor, F_GETFL) & O_NONBLOCK);
}

TEST_F(ConnectEstablish, PutsTheSocketBackIntoBlockingModeWithATimeOut)
{
    int flagsAtConnect = 0;
    Fault hook = beforeCall(Call::Connect, 1, [&](const CallInfo& info) {
        flagsAtConnect = fcntl(static_cast<int>(info.first), F_GETFL);
    });
    ScriptedConnection connection(30);

    EXPECT_NE(0, flagsAtConnect & O_NONBLOCK);
    EXPECT_EQ(2, switches.hits());
    EXPECT_EQ(0, fcntl(connection.token->socketDescriptor, F_GETFL) & O_NONBLOCK);
}

TEST_F(ConnectEstablish, FailsWhenABlockingConnectIsRefused)
{
    support::RefusingPort refusing;
    int before = support::openDescriptors();
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_CONNECTFAILED,
              QPX_openRemoteGatewayConnection(localHost(), refusing.port(), &token, 0));

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.clapiConnectToGateway() Unable to connect "
                                "to Gateway: Connection refused (111)\n"));
    EXPECT_EQ(nullptr, token);
    EXPECT_EQ(before, support::openDescriptors() - 1); // one more: the trace file
}

TEST_F(ConnectEstablish, FailsWhenAConnectWithATimeOutIsRefused)
{
    support::RefusingPort refusing;
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_CONNECTFAILED,
              QPX_openRemoteGatewayConnection(localHost(), refusing.port(), &token, 30));

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.clapiConnectToGateway() Unable to connect "
                                "to Gateway: Connection refused (111)\n"));
}

// Whoever may listen there: the connect itself goes where nobody does.
TEST_F(ConnectEstablish, TakesPortOne)
{
    TraceFile trace(3);
    support::RefusingPort refusing;
    int port = 0;
    Fault elsewhere = beforeCall(Call::Connect, 1, [&](const CallInfo& info) {
        auto* destination = reinterpret_cast<sockaddr_in*>(info.second);
        port = ntohs(destination->sin_port);
        destination->sin_port = htons(static_cast<std::uint16_t>(refusing.port()));
    });

    EXPECT_RC(QPX_ERR_CONNECTFAILED, QPX_openRemoteGatewayConnection(localHost(), 1, &token, 5));

    EXPECT_EQ(1, port);
    EXPECT_EQ(0, trace.timesWrote(1001));
}

// A connect to a port of this machine at which nobody listens may be given that port as its own.
TEST_F(ConnectEstablish, TakesAConnectionToItselfForARefusal)
{
    int before = support::openDescriptors();
    TraceFile trace(1);
    sockaddr_in taken = {};
    Fault samePort = beforeCall(Call::Connect, 0, [&taken](const CallInfo& info) {
        int descriptor = static_cast<int>(info.first);
        auto* destination = reinterpret_cast<sockaddr_in*>(info.second);
        sockaddr_in own = {};
        own.sin_family = AF_INET;
        own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* address = reinterpret_cast<sockaddr*>(&own);
        socklen_t size = sizeof own;
        EXPECT_EQ(0, bind(descriptor, address, size));
        EXPECT_EQ(0, getsockname(descriptor, address, &size));
        destination->sin_port = own.sin_port;
        taken = own;
    });

    // Somebody else may have been given the port by then: one of many is free.
    constexpr int attempts = 20;
    int opens = 0;
    for (int limit : {0, 30}) {
        bool wasFree = false; // for the Gateway that is to come
        for (int attempt = 0; attempt < attempts && !wasFree; ++attempt) {
            EXPECT_RC(QPX_ERR_CONNECTFAILED, open(limit));
            EXPECT_EQ(nullptr, token);
            wasFree = isFree(taken);
            opens += 1;
        }
        EXPECT_TRUE(wasFree);
    }

    EXPECT_EQ(opens, trace.timesWroteText("*EXC*  clapi_gwycon.clapiConnectToGateway() Unable to "
                                          "connect to Gateway: Connection refused (111)\n"));
    EXPECT_EQ(0, sends.calls());
    EXPECT_EQ(before, support::openDescriptors() - 1); // one more: the trace file
}

TEST_F(ConnectEstablish, TakesAnyOtherConnectErrorAsAFailure)
{
    TraceFile trace(1);
    Fault fault = failCall(Call::Connect, 1, EINTR);

    EXPECT_RC(QPX_ERR_CONNECTFAILED, open());

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.clapiConnectToGateway() Unable to connect "
                                "to Gateway: Interrupted system call (4)\n"));
}

TEST_F(ConnectEstablish, FailsWithoutAReceiverThread)
{
    int before = support::openDescriptors();
    TraceFile trace(1);
    Fault fault = failCall(Call::ThreadCreate, 1, EAGAIN);

    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, open());

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.clapiConnectToGateway() Failed to create "
                                "receiver thread, rc=11\n"));
    EXPECT_EQ(1, closes.hits());
    EXPECT_EQ(0, sends.hits());
    EXPECT_EQ(before, support::openDescriptors() - 1); // one more: the trace file
    EXPECT_EQ(nullptr, token);
    trace.forget();
    clapiDumpGatewayTokens();
    EXPECT_EQ(emptyList(), trace.text());
}

TEST_F(ConnectEstablish, FailsWhenTheHandshakeCannotBeSent)
{
    TraceFile trace(1);
    Fault fault = failCall(Call::Send, 1, ECONNRESET);

    EXPECT_RC(QPX_ERR_CONNECTFAILED, open());

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.clapiConnectToGateway() Handshake flow "
                                "failed rc=-102 (QPX_ERR_LOSTGWCON)\n"));
    EXPECT_EQ(nullptr, token);
    trace.forget();
    clapiDumpGatewayTokens();
    EXPECT_EQ(emptyList(), trace.text());
}

TEST_F(ConnectEstablish, FailsWhenThereIsNoMemoryForTheHandshake)
{
    TraceFile trace(1);
    Fault fault = failCallsFrom(Call::Malloc, 2, ENOMEM, Threads::Calling);

    EXPECT_RC(QPX_ERR_CONNECTFAILED, open());

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwycon.clapiConnectToGateway() Handshake flow "
                                "failed rc=-111 (QPX_ERR_MALLOCFAIL)\n"));
    EXPECT_EQ(0, sends.hits());
}

TEST_F(ConnectEstablish, WritesTheHandshakeWithoutTheSendLock)
{
    TraceFile trace(3);
    bool free = false;
    Fault hook = beforeCall(Call::Send, 1, [&](const CallInfo&) {
        free = support::isFree(tokenInTrace(trace)->sendLock.lock);
    });

    ScriptedConnection connection;

    EXPECT_EQ(1, hook.hits());
    EXPECT_TRUE(free);
}

} // namespace
