// What applications do, in short: each scenario makes some calls and looks at what they bring. It
// goes on behind a failure where an application could.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "application.h"

namespace torture {

namespace {

char localhost[] = "127.0.0.1";
char emptyText[] = "";

// ---- Connections --------------------------------------------------------------------------------

// A connection that the scenario closes; where that fails, the closing of all does it.
struct Connection {
    QPX_ConnToken_t token = nullptr;

    bool open(int limit = 0, int port = ports.gateway, int expected = QPX_OK)
    {
        return CALL(expected, QPX_openRemoteGatewayConnection, localhost, port, &token, limit) ==
               QPX_OK;
    }

    void close()
    {
        if (token == nullptr) return;
        CALL(QPX_OK, QPX_closeGatewayConnection, &token);
        token = nullptr;
    }

    void closeLost()
    {
        CALL_ANY((std::initializer_list<int>{QPX_OK, QPX_ERR_LOSTGWCON}),
                 QPX_closeGatewayConnection, &token);
        token = nullptr;
    }

    void purge(int limit)
    {
        CALL(QPX_OK, QPX_purgeGatewayConnection, &token, limit);
        token = nullptr;
    }
};

void openAndClose()
{
    Connection connection;
    if (connection.open()) connection.close();
}

void openWithLimit()
{
    Connection connection;
    if (connection.open(30)) connection.close();
}

void expectApplid(const Connection& connection, const char* applid, const char* qualifier)
{
    char* text = nullptr;
    if (CALL(QPX_OK, QPX_getApplid, connection.token, &text) == QPX_OK)
        expect(std::strcmp(text, applid) == 0, "the applid");
    if (CALL(QPX_OK, QPX_getApplidQualifier, connection.token, &text) == QPX_OK)
        expect(std::strcmp(text, qualifier) == 0, "the qualifier");
}

void openWithApplid()
{
    char applid[] = "TORTURE";
    char qualifier[] = "SHIM";
    Connection connection;
    if (CALL(QPX_OK, QPX_openRemoteGatewayConnectionApplid, localhost, ports.gateway,
             &connection.token, 0, applid, qualifier) != QPX_OK)
        return;
    expectApplid(connection, "TORTURE", "SHIM");
    connection.close();
}

void openWithApplidOfTheEnvironment()
{
    setenv("QPX_APPLID", "OUTSIDE", 1);
    setenv("QPX_APPLIDQUALIFIER", "WORLD", 1);
    Connection connection;
    if (CALL(QPX_OK, QPX_openRemoteGatewayConnectionApplid, localhost, ports.gateway,
             &connection.token, 0, emptyText, emptyText) == QPX_OK) {
        expectApplid(connection, "OUTSIDE", "WORLD");
        connection.close();
    }
    unsetenv("QPX_APPLID");
    unsetenv("QPX_APPLIDQUALIFIER");
}

// Numbers that a set of select has no room for are polled.
void openOnHighDescriptor()
{
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 1100);
    setrlimit(RLIMIT_NOFILE, &limit);
    std::vector<int> taken;
    while (taken.empty() || taken.back() < 1024) {
        int descriptor = dup(STDIN_FILENO);
        if (descriptor < 0) break;
        taken.push_back(descriptor);
    }
    openWithLimit();
    for (int descriptor : taken) ::close(descriptor);
}

void openWithoutStandardInput()
{
    ::close(STDIN_FILENO);
    openAndClose();
    if (open("/dev/null", O_RDONLY) != STDIN_FILENO) complain("descriptor 0 is taken");
}

void openThatIsRefused()
{
    Connection connection;
    connection.open(0, ports.refusing, QPX_ERR_WORK_WAS_REFUSED);
}

void openThatIsDropped()
{
    Connection connection;
    connection.open(0, ports.dropping, QPX_ERR_LOSTGWCON);
}

void openThatIsDroppedWithinALimit()
{
    Connection connection;
    connection.open(30, ports.dropping, QPX_ERR_LOSTGWCON);
}

void openWhereNobodyListens()
{
    Connection connection;
    connection.open(0, ports.silent, QPX_ERR_CONNECTFAILED);
    connection.open(30, ports.silent, QPX_ERR_CONNECTFAILED);
}

void openTwo()
{
    Connection first;
    Connection second;
    first.open();
    second.open();
    first.close();
    second.close();
}

void closeTwice()
{
    Connection connection;
    if (!connection.open()) return;
    QPX_ConnToken_t stale = connection.token;
    connection.close();
    CALL_ANY((std::initializer_list<int>{QPX_ERR_GWTOK_CLOSED, QPX_ERR_BADGWTOK}),
             QPX_closeGatewayConnection, &stale);
}

void purgeIdle()
{
    Connection connection;
    if (connection.open()) connection.purge(0);
}

void closeAllOfThree()
{
    std::array<Connection, 3> connections;
    for (Connection& connection : connections) connection.open();
    CALL(QPX_OK, QPX_closeAllGatewayConnections);
}

// ---- Calls --------------------------------------------------------------------------------------

constexpr int RESULT = ECI_NO_ERROR;

// A call of a program with a COMMAREA of its own.
struct Call {
    QPX_ECI_PARMS parms = {};
    std::vector<char> area;

    explicit Call(const char* program, std::size_t length = 40, short type = ECI_SYNC)
        : area(length)
    {
        parms.eci_call_type = type;
        parms.eci_version = ECI_VERSION_6;
        std::memset(parms.eci_program_name, ' ', sizeof parms.eci_program_name);
        std::memcpy(parms.eci_program_name, program, std::strlen(program));
        for (std::size_t i = 0; i < length; i += 1) area[i] = static_cast<char>(i % 251);
        aim();
    }

    void aim()
    {
        parms.eci_commarea = area.empty() ? nullptr : area.data();
        parms.eci_commarea_length = static_cast<short>(area.size());
    }

    int execute(const Connection& connection, int expected = RESULT)
    {
        return CALL(expected, QPX_ECI_Execute, connection.token, &parms);
    }

    bool isEcho() const
    {
        for (std::size_t i = 0; i < area.size(); i += 1)
            if (area[i] != static_cast<char>(i % 251)) return false;
        return true;
    }
};

// Opens, does something, closes.
template <class Work>
void onConnection(Work work)
{
    Connection connection;
    if (!connection.open()) return;
    work(connection);
    connection.close();
}

// The same where the peer ends the connection.
template <class Work>
void onConnectionThatEnds(Work work)
{
    Connection connection;
    if (!connection.open()) return;
    work(connection);
    connection.closeLost();
}

void expectEcho(const Connection& connection, std::size_t length)
{
    Call call("ECHO", length);
    if (call.execute(connection) == RESULT) expect(call.isEcho(), "the COMMAREA");
}

void callWithCommarea()
{
    onConnection([](Connection& connection) { expectEcho(connection, 40); });
}

void callWithoutCommarea()
{
    onConnection([](Connection& connection) { expectEcho(connection, 0); });
}

void callWithLargeCommarea()
{
    onConnection([](Connection& connection) { expectEcho(connection, 32767); });
}

void threeCalls()
{
    onConnection([](Connection& connection) {
        for (std::size_t length : {1, 4000, 20}) expectEcho(connection, length);
    });
}

void callWithPartsOfACommarea()
{
    onConnection([](Connection& connection) {
        Call call("ECHO", 1000);
        call.parms.commarea_outbound_length = 500;
        call.parms.commarea_inbound_length = 100;
        if (call.execute(connection) != RESULT) return;
        expect(call.area[99] == 99 && call.area[100] == 0, "the COMMAREA behind what came");
    });
}

void callWithFixedFields()
{
    onConnection([](Connection& connection) {
        Call call("ECHO");
        call.parms.eci_version = ECI_VERSION_3;
        std::memcpy(call.parms.eci_userid, "SOMEBODY        ", 16);
        std::memcpy(call.parms.eci_password, "SECRET          ", 16);
        std::memcpy(call.parms.eci_transid, "TRAN", 4);
        std::memcpy(call.parms.eci_system_name, "PROD    ", 8);
        if (call.execute(connection) == RESULT) expect(call.isEcho(), "the COMMAREA");
    });
}

void callWithPointersAndTransactionProgram()
{
    onConnection([](Connection& connection) {
        char user[] = "SOMEBODY";
        char password[] = "SECRET";
        Call call("ECHO");
        call.parms.eci_userid_ptr = user;
        call.parms.eci_password_ptr = password;
        call.parms.eci_timeout = 30;
        std::memcpy(call.parms.eci_tpn, "CPMI", 4);
        if (call.execute(connection) == RESULT) expect(call.isEcho(), "the COMMAREA");
    });
}

void callThatAbends()
{
    onConnection([](Connection& connection) {
        Call call("ABEND", 4);
        std::memcpy(call.area.data(), "AEY9", 4);
        if (call.execute(connection, ECI_ERR_TRANSACTION_ABEND) == ECI_ERR_TRANSACTION_ABEND)
            expect(std::memcmp(call.parms.eci_abend_code, "AEY9", 4) == 0, "the abend code");
    });
}

void callThatIsAnsweredWithAnError()
{
    onConnection([](Connection& connection) {
        Call("FLOWERR").execute(connection, QPX_ERR_WORK_WAS_REFUSED);
        expectEcho(connection, 10);
    });
}

void callThatIsAnsweredWithAnException()
{
    onConnection([](Connection& connection) {
        Call("FLOWEXC").execute(connection, QPX_ERR_GATEWAY_EXCEPTION);
        expectEcho(connection, 10);
    });
}

void callThatTheGatewayCloses()
{
    onConnectionThatEnds(
        [](Connection& connection) { Call("CLOSE").execute(connection, QPX_ERR_GATEWAY_CLOSED); });
}

void callOnADroppedConnection()
{
    onConnectionThatEnds([](Connection& connection) {
        Call dropped("DROP");
        dropped.execute(connection, QPX_ERR_LOSTGWCON);
        // Where that was never sent, nobody has dropped the connection.
        Call next("ECHO");
        CALL_ANY((std::initializer_list<int>{QPX_ERR_LOSTGWCON, RESULT}), QPX_ECI_Execute,
                 connection.token, &next.parms);
    });
}

void callOnAResetConnection()
{
    onConnectionThatEnds(
        [](Connection& connection) { Call("RESET").execute(connection, QPX_ERR_LOSTGWCON); });
}

void callThatIsCutOff()
{
    onConnectionThatEnds(
        [](Connection& connection) { Call("CUT").execute(connection, QPX_ERR_LOSTGWCON); });
}

void callThatIsAnsweredWithGarbage()
{
    onConnectionThatEnds(
        [](Connection& connection) { Call("GARBAGE").execute(connection, QPX_ERR_LOSTGWCON); });
}

void callBehindAPing()
{
    onConnection([](Connection& connection) {
        Call call("PING");
        if (call.execute(connection) == RESULT) expect(call.isEcho(), "the COMMAREA");
    });
}

void callThatIsAnsweredTwice()
{
    onConnection([](Connection& connection) {
        Call("TWICE").execute(connection);
        expectEcho(connection, 30);
    });
}

void callInUnitOfWork(short end)
{
    onConnection([end](Connection& connection) {
        Call call("ECHO");
        call.parms.eci_extend_mode = ECI_EXTENDED;
        if (call.execute(connection) != RESULT) return;
        expect(call.parms.eci_luw_token != 0, "the token of the unit of work");
        if (call.execute(connection) != RESULT) return;
        call.parms.eci_extend_mode = end;
        call.execute(connection);
    });
}

void committedUnitOfWork()
{
    callInUnitOfWork(ECI_COMMIT);
}

void backedOutUnitOfWork()
{
    callInUnitOfWork(ECI_BACKOUT);
}

void unitOfWorkThatFails()
{
    onConnection([](Connection& connection) {
        Call call("ECHO");
        call.parms.eci_extend_mode = ECI_EXTENDED;
        if (call.execute(connection) != RESULT) return;
        int unit = call.parms.eci_luw_token;
        std::memcpy(call.parms.eci_program_name, "ABEND   ", 8);
        if (call.execute(connection, ECI_ERR_TRANSACTION_ABEND) != ECI_ERR_TRANSACTION_ABEND)
            return;
        call.parms.eci_luw_token = unit;
        call.execute(connection, ECI_ERR_LUW_TOKEN);
    });
}

void callOnADescriptorAboveTheSets()
{
    std::vector<int> taken;
    while (taken.empty() || taken.back() < 1024) {
        int descriptor = dup(STDIN_FILENO);
        if (descriptor < 0) break;
        taken.push_back(descriptor);
    }
    Connection connection;
    if (connection.open(30)) {
        expectEcho(connection, 3000);
        connection.close();
    }
    for (int descriptor : taken) ::close(descriptor);
}

// ---- Asynchronous calls -------------------------------------------------------------------------

void collectNext(const Connection& connection, std::size_t length = 40)
{
    Call reply("", length, ECI_GET_REPLY_WAIT);
    std::fill(reply.area.begin(), reply.area.end(), 'x');
    if (reply.execute(connection) == RESULT) expect(reply.isEcho(), "the collected COMMAREA");
}

void asynchronousCall()
{
    onConnection([](Connection& connection) {
        if (Call("ECHO", 40, ECI_ASYNC).execute(connection) == RESULT) collectNext(connection);
    });
}

void asynchronousCallWithoutRoom()
{
    onConnection([](Connection& connection) {
        if (Call("ECHO", 400, ECI_ASYNC).execute(connection) != RESULT) return;
        Call reply("", 10, ECI_GET_REPLY_WAIT);
        if (reply.execute(connection, ECI_ERR_INVALID_DATA_LENGTH) != ECI_ERR_INVALID_DATA_LENGTH)
            return;
        expect(reply.parms.eci_commarea_length == 400, "the length that is needed");
        collectNext(connection, 400);
    });
}

void asynchronousCallsByQualifier()
{
    onConnection([](Connection& connection) {
        std::vector<int> qualifiers;
        for (int i = 0; i < 3; i += 1) {
            Call call("ECHO", 40, ECI_ASYNC);
            if (call.execute(connection) != RESULT) continue;
            int qualifier = call.parms.eci_message_qualifier; // a packed field has no reference
            qualifiers.push_back(qualifier);
        }
        std::reverse(qualifiers.begin(), qualifiers.end());
        for (int qualifier : qualifiers) {
            Call reply("", 40, ECI_GET_SPECIFIC_REPLY_WAIT);
            reply.parms.eci_message_qualifier = qualifier;
            reply.execute(connection);
        }
    });
}

void asynchronousCallsThatAreAskedFor()
{
    onConnection([](Connection& connection) {
        Call early("", 40, ECI_GET_REPLY);
        early.execute(connection, ECI_ERR_NO_REPLY);
        Call unknown("", 40, ECI_GET_SPECIFIC_REPLY);
        unknown.parms.eci_message_qualifier = 4711;
        CALL_ANY((std::initializer_list<int>{ECI_ERR_INVALID_MSG_QUAL, ECI_ERR_NO_REPLY}),
                 QPX_ECI_Execute, connection.token, &unknown.parms);
        if (Call("ECHO", 40, ECI_ASYNC).execute(connection) == RESULT) collectNext(connection);
    });
}

// More than a token begins with slots for.
void manyAsynchronousCalls()
{
    onConnection([](Connection& connection) {
        int sent = 0;
        for (int i = 0; i < 20; i += 1)
            if (Call("ECHO", 40, ECI_ASYNC).execute(connection) == RESULT) sent += 1;
        for (int i = 0; i < sent; i += 1) collectNext(connection);
    });
}

void asynchronousUnitOfWork()
{
    onConnection([](Connection& connection) {
        Call call("ECHO", 40, ECI_ASYNC);
        call.parms.eci_extend_mode = ECI_EXTENDED;
        if (call.execute(connection) != RESULT) return;
        Call reply("", 40, ECI_GET_REPLY_WAIT);
        if (reply.execute(connection) != RESULT) return;
        Call commit("ECHO");
        commit.parms.eci_extend_mode = ECI_COMMIT;
        commit.parms.eci_luw_token = reply.parms.eci_luw_token;
        commit.execute(connection);
    });
}

void asynchronousCallThatAbends()
{
    onConnection([](Connection& connection) {
        if (Call("ABEND", 40, ECI_ASYNC).execute(connection) != RESULT) return;
        Call("", 40, ECI_GET_REPLY_WAIT).execute(connection, ECI_ERR_TRANSACTION_ABEND);
    });
}

void asynchronousCallOnADroppedConnection()
{
    onConnectionThatEnds([](Connection& connection) {
        if (Call("DROP", 40, ECI_ASYNC).execute(connection) != RESULT) return;
        Call("", 40, ECI_GET_REPLY_WAIT).execute(connection, QPX_ERR_LOSTGWCON);
    });
}

void purgeOfAnAsynchronousCall()
{
    Connection connection;
    if (!connection.open()) return;
    Call("SILENT", 40, ECI_ASYNC).execute(connection);
    Call("ECHO", 40, ECI_ASYNC).execute(connection);
    connection.purge(0);
}

void closeAllOfAsynchronousCalls()
{
    std::array<Connection, 2> connections;
    for (Connection& connection : connections) {
        if (!connection.open()) continue;
        Call("SILENT", 40, ECI_ASYNC).execute(connection);
    }
    CALL(QPX_OK, QPX_closeAllGatewayConnections);
}

// ---- Threads ------------------------------------------------------------------------------------

void purgeOfACallThatWaits()
{
    Connection connection;
    if (!connection.open()) return;
    std::thread caller([&connection] {
        Call call("SILENT");
        CALL_ANY((std::initializer_list<int>{QPX_ERR_GWTOK_CLOSED, QPX_ERR_BADGWTOK,
                                             QPX_ERR_GATEWAY_CLOSED}),
                 QPX_ECI_Execute, connection.token, &call.parms);
    });
    QPX_ConnToken_t token = connection.token;
    CALL(QPX_OK, QPX_purgeGatewayConnection, &token, 0);
    caller.join();
}

void closeWhileAnotherCollects()
{
    Connection connection;
    if (!connection.open()) return;
    std::thread collector([&connection] {
        Call reply("", 40, ECI_GET_REPLY_WAIT);
        CALL_ANY((std::initializer_list<int>{QPX_ERR_GWTOK_CLOSED, QPX_ERR_BADGWTOK}),
                 QPX_ECI_Execute, connection.token, &reply.parms);
    });
    QPX_ConnToken_t token = connection.token;
    CALL(QPX_OK, QPX_closeGatewayConnection, &token);
    collector.join();
}

void threeThreadsOnOneConnection()
{
    onConnection([](Connection& connection) {
        std::vector<std::thread> callers;
        for (std::size_t i = 0; i < 3; i += 1)
            callers.emplace_back([&connection, i] { expectEcho(connection, 100 * i + 1); });
        for (std::thread& caller : callers) caller.join();
    });
}

void threadsThatOpenAtOnce()
{
    std::vector<std::thread> openers;
    for (int i = 0; i < 2; i += 1) openers.emplace_back(callWithCommarea);
    for (std::thread& opener : openers) opener.join();
}

// ---- Channels -----------------------------------------------------------------------------------

struct Channel {
    ECI_ChannelToken_t token = nullptr;

    bool create(const char* name)
    {
        return CALL(RESULT, ECI_createChannel, name, &token) == RESULT;
    }

    bool add(const char* name, const std::string& data, ECI_CONTAINER_TYPE type = ECI_BIT,
             int ccsid = 0)
    {
        return CALL(RESULT, ECI_createContainer, token, name, type, ccsid, data.data(),
                    data.size()) == RESULT;
    }

    void expectData(const char* name, const std::string& data) const
    {
        std::vector<char> room(data.size() + 10);
        std::size_t read = 0;
        if (CALL(RESULT, ECI_getContainerData, token, name, room.data(), room.size(), 0, &read) ==
            RESULT)
            expect(std::string(room.data(), read) == data, "the data of a container");
    }

    void drop()
    {
        if (token != nullptr) CALL(RESULT, ECI_deleteChannel, &token);
    }
};

template <class Work>
void withChannel(Work work)
{
    Channel channel;
    if (!channel.create("TORTURE")) return;
    work(channel);
    channel.drop();
}

void channelAndItsName()
{
    withChannel([](Channel& channel) {
        char name[ECI_NAME_SIZE];
        if (CALL(RESULT, ECI_getChannelName, channel.token, name) == RESULT)
            expect(std::strcmp(name, "TORTURE") == 0, "the name of the channel");
    });
}

void containersAndTheirData()
{
    withChannel([](Channel& channel) {
        if (channel.add("BITS", "0123456789")) channel.expectData("BITS", "0123456789");
        if (channel.add("TEXT", "abc", ECI_CHAR, 1208)) channel.expectData("TEXT", "abc");
        ECI_CONTAINER_INFO info = {};
        CALL_ANY((std::initializer_list<int>{RESULT, ECI_ERR_CONTAINER_NOTFOUND}),
                 ECI_getContainerInfo, channel.token, "TEXT", &info);
        int rc = CALL_ANY((std::initializer_list<int>{RESULT, ECI_ERR_CONTAINER_NOTFOUND}),
                          ECI_setContainerData, channel.token, "BITS", "other data", 10);
        if (rc == RESULT) channel.expectData("BITS", "other data");
        if (rc == ECI_ERR_MEMORY_SHORTAGE) channel.expectData("BITS", "");
    });
}

void containersAreBrowsed()
{
    withChannel([](Channel& channel) {
        int made = 0;
        for (const char* name : {"ONE", "TWO", "THREE"}) made += channel.add(name, name) ? 1 : 0;
        ECI_CONTAINER_INFO info = {};
        int seen = 0;
        int rc = CALL_ANY((std::initializer_list<int>{RESULT, ECI_ERR_ENDOFCONTAINERS}),
                          ECI_getFirstContainer, channel.token, &info);
        while (rc == RESULT) {
            seen += 1;
            rc = CALL_ANY((std::initializer_list<int>{RESULT, ECI_ERR_ENDOFCONTAINERS}),
                          ECI_getNextContainer, channel.token, &info);
        }
        expect(seen == made, "the number of containers");
        CALL_ANY((std::initializer_list<int>{RESULT, ECI_ERR_CONTAINER_NOTFOUND}),
                 ECI_deleteContainer, channel.token, "TWO");
    });
}

void containersWithTheLocalCodePage()
{
    withChannel([](Channel& channel) {
        channel.add("TEXT", "abc", ECI_CHAR, 0);
        channel.add("MORE", "def", ECI_CHAR, 0);
    });
}

// More than are looked for one by one.
void manyContainers()
{
    withChannel([](Channel& channel) {
        std::vector<std::string> names;
        for (int i = 0; i < 20; i += 1) {
            std::string name = "C" + std::to_string(i);
            if (channel.add(name.c_str(), name)) names.push_back(name);
        }
        for (const std::string& name : names) channel.expectData(name.c_str(), name);
        for (const std::string& name : names)
            CALL(RESULT, ECI_deleteContainer, channel.token, name.c_str());
    });
}

void containerOfMegabytes()
{
    withChannel([](Channel& channel) {
        std::string data(3 << 20, 'd');
        if (!channel.add("BIG", data)) return;
        channel.expectData("BIG", data);
        std::string other(2 << 20, 'e');
        if (CALL(RESULT, ECI_setContainerData, channel.token, "BIG", other.data(), other.size()) ==
            RESULT)
            channel.expectData("BIG", other);
    });
}

void dumpOfChannels()
{
    CALL(QPX_OK, QPX_setAPITraceFile, const_cast<char*>("/dev/null"));
    withChannel([](Channel& channel) {
        channel.add("BITS", "0123456789");
        channel.add("TEXT", "abc", ECI_CHAR, 1208);
        for (int i = 0; i < 80; i += 1) // so that the dump's text grows twice
            channel.add(("MORE" + std::to_string(i)).c_str(), "data");
        CALL(RESULT, QPX_ECI_dumpChannels);
    });
}

void deletionOfAllChannels()
{
    std::array<Channel, 3> channels;
    for (Channel& channel : channels)
        if (channel.create("TORTURE")) channel.add("BITS", "0123456789");
    CALL(RESULT, ECI_deleteAllChannels);
}

void channelsOfTwoThreads()
{
    std::vector<std::thread> owners;
    for (int i = 0; i < 2; i += 1) owners.emplace_back(containersAndTheirData);
    for (std::thread& owner : owners) owner.join();
}

int executeWithChannel(const Connection& connection, Call& call, int expected = RESULT)
{
    return CALL(expected, QPX_ECI_Execute_Channel, connection.token, &call.parms);
}

// Lets CHANEDIT change a channel as it is told.
template <class Look>
void editedChannel(const std::string& edits, short type, Look look)
{
    onConnection([&](Connection& connection) {
        withChannel([&](Channel& channel) {
            if (!channel.add("EDITS", edits, ECI_CHAR, 819)) return;
            if (!channel.add("OLD", "old data")) return;
            Call call("CHANEDIT", 0, type);
            call.parms.channel = channel.token;
            if (executeWithChannel(connection, call) != RESULT) return;
            if (type == ECI_ASYNC) {
                Call reply("", 0, ECI_GET_REPLY_WAIT);
                if (executeWithChannel(connection, reply) != RESULT) return;
            }
            look(channel);
        });
    });
}

void channelCall()
{
    editedChannel("add NEW bit 4142\nreverse OLD\n", ECI_SYNC, [](Channel& channel) {
        channel.expectData("NEW", "AB");
        channel.expectData("OLD", "atad dlo");
    });
}

void channelCallThatDeletes()
{
    editedChannel("delete OLD\nadd TEXT char 819 hello\n", ECI_SYNC,
                  [](Channel& channel) { channel.expectData("TEXT", "hello"); });
}

void asynchronousChannelCall()
{
    editedChannel("add NEW bit 4142\nreverse OLD\n", ECI_ASYNC, [](Channel& channel) {
        channel.expectData("NEW", "AB");
        channel.expectData("OLD", "atad dlo");
    });
}

void channelCallWithALargeReply()
{
    editedChannel("resize OLD 5000000\n", ECI_SYNC, [](Channel& channel) {
        channel.expectData("OLD", "old data" + std::string(5000000 - 8, '\0'));
    });
}

void channelCallWithALargeRequest()
{
    onConnection([](Connection& connection) {
        withChannel([&](Channel& channel) {
            std::string data(3 << 20, 'd');
            if (!channel.add("BIG", data)) return;
            Call call("CHANECHO", 0);
            call.parms.channel = channel.token;
            if (executeWithChannel(connection, call) == RESULT) channel.expectData("BIG", data);
        });
    });
}

void channelCallInAUnitOfWork()
{
    onConnection([](Connection& connection) {
        withChannel([&](Channel& channel) {
            channel.add("BITS", "0123456789");
            Call call("CHANECHO", 0);
            call.parms.channel = channel.token;
            call.parms.eci_extend_mode = ECI_EXTENDED;
            if (executeWithChannel(connection, call) != RESULT) return;
            call.parms.eci_extend_mode = ECI_COMMIT;
            executeWithChannel(connection, call);
        });
    });
}

void channelCallThatIsPurged()
{
    Connection connection;
    if (!connection.open()) return;
    withChannel([&](Channel& channel) {
        channel.add("BITS", "0123456789");
        Call call("SILENT", 0, ECI_ASYNC);
        call.parms.channel = channel.token;
        executeWithChannel(connection, call);
        connection.purge(0);
    });
}

// ---- Systems and passwords ----------------------------------------------------------------------

void listOfSystems()
{
    onConnection([](Connection& connection) {
        std::array<QPX_listSystem_t, 10> list = {};
        unsigned short count = list.size();
        if (CALL(QPX_OK, QPX_listSystems, connection.token, &count, list.data()) == QPX_OK)
            expect(count == 2 && std::strcmp(list[1].SystemName, "TEST") == 0, "the systems");
    });
}

void listOfMoreSystems()
{
    onConnection([](Connection& connection) {
        QPX_listSystem_t list = {};
        unsigned short count = 1;
        CALL(QPX_ERR_MORE_SYSTEMS, QPX_listSystems, connection.token, &count, &list);
    });
}

void verifiedPassword()
{
    onConnection([](Connection& connection) {
        ESI_DETAILS details = {};
        if (CALL(QPX_OK, QPX_ESI_verifyPassword, connection.token, "SOMEBODY", "SECRET", "PROD",
                 &details) != QPX_OK)
            return;
        tm expiry = {};
        CALL_PLAIN(QPX_ESI_convertTime, &details.expiryTime, &expiry);
        expect(expiry.tm_year == 2031 - 1900, "the year in which the password expires");
    });
}

void changedPassword()
{
    onConnection([](Connection& connection) {
        ESI_DETAILS details = {};
        CALL(QPX_OK, QPX_ESI_changePassword, connection.token, "SOMEBODY", "SECRET", "OTHER",
             nullptr, &details);
    });
}

void refusedPassword()
{
    onConnection([](Connection& connection) {
        CALL(ESI_ERR_PASSWORD_INVALID, QPX_ESI_verifyPassword, connection.token, "SOMEBODY",
             "WRONG", nullptr, nullptr);
    });
}

// ---- The trace, and what needs no connection ----------------------------------------------------

char traceName[] = "/dev/null";

void tracedConnection()
{
    CALL(QPX_OK, QPX_setAPITraceFile, traceName);
    CALL(QPX_OK, QPX_setAPITraceLevel, 3);
    openAndClose();
}

void tracedCall()
{
    Connection connection;
    if (!connection.open()) return;
    CALL(QPX_OK, QPX_setAPITraceFile, traceName);
    CALL_PLAIN(QPX_setAPITraceDataLength, 64);
    CALL_PLAIN(QPX_setAPITraceDataOffset, 4);
    CALL(QPX_OK, QPX_setAPITraceLevel, 5);
    expectEcho(connection, 60);
    CALL(QPX_OK, QPX_setAPITraceLevel, 0);
    CALL_PLAIN(QPX_setAPITraceDataLength, 128);
    CALL_PLAIN(QPX_setAPITraceDataOffset, 0);
    connection.close();
}

void switchedTraceFile()
{
    CALL(QPX_OK, QPX_setAPITraceFile, traceName);
    CALL(QPX_OK, QPX_setAPITraceFile, traceName);
    CALL(QPX_ERR_TRACEFILE, QPX_setAPITraceFile, const_cast<char*>("/no/such/folder/trace"));
    CALL(QPX_OK, QPX_setAPITraceFile, nullptr);
}

void traceFileWithoutStandardInput()
{
    ::close(STDIN_FILENO);
    CALL(QPX_OK, QPX_setAPITraceFile, traceName);
    CALL(QPX_OK, QPX_setAPITraceLevel, 3);
    channelAndItsName();
    CALL(QPX_OK, QPX_setAPITraceLevel, 0);
    CALL(QPX_OK, QPX_setAPITraceFile, nullptr);
    if (open("/dev/null", O_RDONLY) != STDIN_FILENO) complain("descriptor 0 is taken");
}

void stateDump()
{
    CALL(QPX_OK, QPX_setAPITraceFile, traceName);
    onConnection([](Connection&) {
        withChannel([](Channel& channel) {
            channel.add("BITS", "0123456789");
            CALL(QPX_OK, QPX_dumpState);
        });
    });
}

void versionsAndNames()
{
    char* text = nullptr;
    if (CALL(QPX_OK, QPX_getAPIVersion, &text) == QPX_OK)
        expect(std::strcmp(text, "2.3.0.0") == 0, "the version of the interface");
    if (CALL(QPX_OK, QPX_getDLLVersion, &text) == QPX_OK)
        expect(std::strcmp(text, "10.1.0.0") == 0, "the version of the library");
    int level = -1;
    CALL(QPX_OK, QPX_getAPITraceLevel, &level);
    char name[QPX_RC_STRING_SIZE];
    CALL_PLAIN(QPX_getRcString, QPX_ERR_BADPORT, name);
    expect(std::strcmp(name, "QPX_ERR_BADPORT") == 0, "the name of a return code");
}

// ---- First calls --------------------------------------------------------------------------------

void firstCallOfAll()
{
    versionsAndNames();
}

void firstCallThatOpens()
{
    callWithCommarea();
}

void firstCallWithATrace()
{
    setenv("QPX_CLIENT_TRACE_LEVEL", "3", 1);
    setenv("QPX_CLIENT_TRACE_FILE", traceName, 1);
    versionsAndNames();
}

void firstCallOfAChannel()
{
    containersAndTheirData();
}

} // namespace

#define SCENARIO(function)         \
    {                              \
#function, function, false \
    }
#define COLD_SCENARIO(function)   \
    {                             \
#function, function, true \
    }

const Scenario scenarios[] = {
    SCENARIO(openAndClose),
    SCENARIO(openWithLimit),
    SCENARIO(openWithApplid),
    SCENARIO(openWithApplidOfTheEnvironment),
    SCENARIO(openOnHighDescriptor),
    SCENARIO(openWithoutStandardInput),
    SCENARIO(openThatIsRefused),
    SCENARIO(openThatIsDropped),
    SCENARIO(openThatIsDroppedWithinALimit),
    SCENARIO(openWhereNobodyListens),
    SCENARIO(openTwo),
    SCENARIO(closeTwice),
    SCENARIO(purgeIdle),
    SCENARIO(closeAllOfThree),
    SCENARIO(callWithCommarea),
    SCENARIO(callWithoutCommarea),
    SCENARIO(callWithLargeCommarea),
    SCENARIO(threeCalls),
    SCENARIO(callWithPartsOfACommarea),
    SCENARIO(callWithFixedFields),
    SCENARIO(callWithPointersAndTransactionProgram),
    SCENARIO(callThatAbends),
    SCENARIO(callThatIsAnsweredWithAnError),
    SCENARIO(callThatIsAnsweredWithAnException),
    SCENARIO(callThatTheGatewayCloses),
    SCENARIO(callOnADroppedConnection),
    SCENARIO(callOnAResetConnection),
    SCENARIO(callThatIsCutOff),
    SCENARIO(callThatIsAnsweredWithGarbage),
    SCENARIO(callBehindAPing),
    SCENARIO(callThatIsAnsweredTwice),
    SCENARIO(committedUnitOfWork),
    SCENARIO(backedOutUnitOfWork),
    SCENARIO(unitOfWorkThatFails),
    SCENARIO(callOnADescriptorAboveTheSets),
    SCENARIO(asynchronousCall),
    SCENARIO(asynchronousCallWithoutRoom),
    SCENARIO(asynchronousCallsByQualifier),
    SCENARIO(asynchronousCallsThatAreAskedFor),
    SCENARIO(manyAsynchronousCalls),
    SCENARIO(asynchronousUnitOfWork),
    SCENARIO(asynchronousCallThatAbends),
    SCENARIO(asynchronousCallOnADroppedConnection),
    SCENARIO(purgeOfAnAsynchronousCall),
    SCENARIO(closeAllOfAsynchronousCalls),
    SCENARIO(purgeOfACallThatWaits),
    SCENARIO(closeWhileAnotherCollects),
    SCENARIO(threeThreadsOnOneConnection),
    SCENARIO(threadsThatOpenAtOnce),
    SCENARIO(channelAndItsName),
    SCENARIO(containersAndTheirData),
    SCENARIO(containersAreBrowsed),
    SCENARIO(containersWithTheLocalCodePage),
    SCENARIO(manyContainers),
    SCENARIO(containerOfMegabytes),
    SCENARIO(dumpOfChannels),
    SCENARIO(deletionOfAllChannels),
    SCENARIO(channelsOfTwoThreads),
    SCENARIO(channelCall),
    SCENARIO(channelCallThatDeletes),
    SCENARIO(asynchronousChannelCall),
    SCENARIO(channelCallWithALargeReply),
    SCENARIO(channelCallWithALargeRequest),
    SCENARIO(channelCallInAUnitOfWork),
    SCENARIO(channelCallThatIsPurged),
    SCENARIO(listOfSystems),
    SCENARIO(listOfMoreSystems),
    SCENARIO(verifiedPassword),
    SCENARIO(changedPassword),
    SCENARIO(refusedPassword),
    SCENARIO(tracedConnection),
    SCENARIO(tracedCall),
    SCENARIO(switchedTraceFile),
    SCENARIO(traceFileWithoutStandardInput),
    SCENARIO(stateDump),
    SCENARIO(versionsAndNames),
    COLD_SCENARIO(firstCallOfAll),
    COLD_SCENARIO(firstCallThatOpens),
    COLD_SCENARIO(firstCallWithATrace),
    COLD_SCENARIO(firstCallOfAChannel),
};
const std::size_t scenarioCount = sizeof scenarios / sizeof scenarios[0];

} // namespace torture
