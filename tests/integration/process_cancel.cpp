// Threads that are cancelled inside the library leave the call first.
#include <pthread.h>
#include <stdlib.h>

#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "qpxclient_eci.h"
#include "qpxclient_esi.h"
#include "support/connection_script.h"
#include "support/trace_file.h"

using namespace script;
using support::asyncCall;
using support::EciParms;
using support::getReplyWait;
using support::syncCall;
using support::TraceFile;

namespace {

// A thread that makes one call and meets a cancellation point of its own behind it.
class CancelledThread {
public:
    enum class When { BeforeTheCall, Later };

    CancelledThread(When when, std::function<int()> call) : when_(when), call_(std::move(call))
    {
        EXPECT_EQ(0, pthread_create(&thread_, nullptr, run, this));
    }
    ~CancelledThread()
    {
        if (!joined_) join();
    }
    CancelledThread(const CancelledThread&) = delete;
    CancelledThread& operator=(const CancelledThread&) = delete;

    void cancel() { EXPECT_EQ(0, pthread_cancel(thread_)); }

    // The thread has been cancelled, but not before its call had returned.
    void expectReturned(int rc)
    {
        EXPECT_EQ(PTHREAD_CANCELED, join());
        ASSERT_TRUE(returned_);
        EXPECT_RC(rc, rc_);
    }
    bool hasReturned()
    {
        EXPECT_EQ(PTHREAD_CANCELED, join());
        return returned_;
    }

private:
    static void* run(void* argument)
    {
        auto* self = static_cast<CancelledThread*>(argument);
        if (self->when_ == When::BeforeTheCall) pthread_cancel(pthread_self());
        self->rc_ = self->call_();
        self->returned_ = true;
        for (;;) pthread_testcancel();
    }
    void* join()
    {
        void* result = nullptr;
        pthread_join(thread_, &result);
        joined_ = true;
        return result;
    }

    When when_;
    std::function<int()> call_;
    pthread_t thread_ = {};
    bool joined_ = false;
    bool returned_ = false;
    int rc_ = 12345;
};

using When = CancelledThread::When;

// ---- Calls that wait ----

class CancelledCall : public ::testing::Test {
protected:
    int execute(EciParms& parms) { return QPX_ECI_Execute(connection.token, &parms.record); }

    // No call counts as at work any more: a purge that waits for nobody returns.
    void expectPurged()
    {
        auto purging = connection.startPurge(0);
        connection.answerClose();
        EXPECT_RC(QPX_OK, purging.get());
        connection.forget();
    }

    ScriptedConnection connection;
};

TEST_F(CancelledCall, GetsItsReplyFirst)
{
    EciParms parms = syncCall("PROG", text("question"));
    CancelledThread caller(When::Later, [&] { return execute(parms); });
    int messageId = connection.awaitRequest().messageId();
    caller.cancel();
    connection.peer.send(eciReply(messageId, text("answered")));

    caller.expectReturned(QPX_OK);

    EXPECT_EQ(text("answered"), parms.commarea());
    expectPurged();
}

TEST_F(CancelledCall, CollectsItsReplyFirst)
{
    EciParms sent = asyncCall("LATER", text("question"));
    ASSERT_RC(QPX_OK, execute(sent));
    int messageId = connection.awaitRequest().messageId();
    EciParms parms = getReplyWait(8);
    TraceFile trace(4);
    CancelledThread collector(When::Later, [&] { return execute(parms); });
    ASSERT_TRUE(trace.awaitText("clapi_lock.clapiWaitEvent() Waiting on event"));
    collector.cancel();
    connection.peer.send(eciReply(messageId, text("answered")));

    collector.expectReturned(QPX_OK);

    EXPECT_EQ(text("answered"), parms.commarea());
    expectPurged();
}

TEST_F(CancelledCall, HasTheChannelThatItWaitsForFirst)
{
    ECI_ChannelToken_t channel = nullptr;
    ASSERT_RC(0, ECI_createChannel("CHANNEL", &channel));
    EciParms sent = asyncCall("LATER");
    sent.record.channel = channel;
    ASSERT_RC(QPX_OK, QPX_ECI_Execute_Channel(connection.token, &sent.record));
    int messageId = connection.awaitRequest().messageId();
    char name[17] = {};
    TraceFile trace(4);
    CancelledThread reader(When::Later, [&] { return ECI_getChannelName(channel, name); });
    ASSERT_TRUE(trace.awaitText("clapi_lock.clapiWaitEvent() Waiting on event"));
    reader.cancel();
    connection.peer.send(errorFlow(messageId, QPX_ERR_WORK_WAS_REFUSED));
    EciParms collected = getReplyWait(0);
    EXPECT_RC(QPX_ERR_WORK_WAS_REFUSED,
              QPX_ECI_Execute_Channel(connection.token, &collected.record));

    reader.expectReturned(QPX_OK);

    EXPECT_STREQ("CHANNEL", name);
    EXPECT_RC(0, ECI_deleteChannel(&channel));
    expectPurged();
}

TEST_F(CancelledCall, ClosesItsConnectionFirst)
{
    CancelledThread closer(When::Later,
                           [&] { return QPX_closeGatewayConnection(&connection.token); });
    EXPECT_EQ(closeFlow(), connection.peer.read(33));
    closer.cancel();
    connection.peer.send(closeFlow());

    closer.expectReturned(QPX_OK);

    connection.forget();
}

TEST_F(CancelledCall, OpensItsConnectionFirst)
{
    ScriptedGateway gateway;
    QPX_ConnToken_t token = nullptr;
    CancelledThread opener(When::Later, [&] {
        return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 0);
    });
    Peer peer = gateway.accept();
    peer.read(handshakeSize);
    opener.cancel();
    peer.send(handshakeAnswer());

    opener.expectReturned(QPX_OK);

    auto purging = callInThread([&] { return QPX_purgeGatewayConnection(&token, 0); });
    EXPECT_EQ(closeFlow(), peer.read(33));
    peer.send(closeFlow());
    EXPECT_RC(QPX_OK, purging.get());
    expectPurged();
}

// ---- Every call ----

struct Export {
    const char* name;
    void (*call)();
};

void nameAndVersion(int (*call)(char**))
{
    char* text = nullptr;
    call(&text);
}

char noFile[] = "/"; // cannot be opened for writing

// Each is made with arguments that it refuses, or that do no harm; it writes trace lines, which are
// cancellation points, all the same.
const Export everyCall[] = {
    {"ECI_createChannel", [] { ECI_createChannel("", nullptr); }},
    {"ECI_createContainer", [] { ECI_createContainer(nullptr, "", ECI_BIT, 0, nullptr, 0); }},
    {"ECI_deleteAllChannels", [] { ECI_deleteAllChannels(); }},
    {"ECI_deleteChannel", [] { ECI_deleteChannel(nullptr); }},
    {"ECI_deleteContainer", [] { ECI_deleteContainer(nullptr, ""); }},
    {"ECI_getChannelName", [] { ECI_getChannelName(nullptr, nullptr); }},
    {"ECI_getContainerData", [] { ECI_getContainerData(nullptr, "", nullptr, 0, 0, nullptr); }},
    {"ECI_getContainerInfo", [] { ECI_getContainerInfo(nullptr, "", nullptr); }},
    {"ECI_getFirstContainer", [] { ECI_getFirstContainer(nullptr, nullptr); }},
    {"ECI_getNextContainer", [] { ECI_getNextContainer(nullptr, nullptr); }},
    {"ECI_setContainerData", [] { ECI_setContainerData(nullptr, "", nullptr, 0); }},
    {"QPX_ECI_dumpChannels", [] { QPX_ECI_dumpChannels(); }},
    {"QPX_ECI_Execute", [] { QPX_ECI_Execute(nullptr, nullptr); }},
    {"QPX_ECI_Execute_Channel", [] { QPX_ECI_Execute_Channel(nullptr, nullptr); }},
    {"QPX_ESI_changePassword",
     [] { QPX_ESI_changePassword(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr); }},
    {"QPX_ESI_convertTime", [] { QPX_ESI_convertTime(nullptr, nullptr); }},
    {"QPX_ESI_verifyPassword",
     [] { QPX_ESI_verifyPassword(nullptr, nullptr, nullptr, nullptr, nullptr); }},
    {"QPX_closeAllGatewayConnections", [] { QPX_closeAllGatewayConnections(); }},
    {"QPX_closeGatewayConnection", [] { QPX_closeGatewayConnection(nullptr); }},
    {"QPX_dumpState", [] { QPX_dumpState(); }},
    {"QPX_getAPITraceLevel", [] { QPX_getAPITraceLevel(nullptr); }},
    {"QPX_getAPIVersion", [] { nameAndVersion(QPX_getAPIVersion); }},
    {"QPX_getApplid", [] { QPX_getApplid(nullptr, nullptr); }},
    {"QPX_getApplidQualifier", [] { QPX_getApplidQualifier(nullptr, nullptr); }},
    {"QPX_getDLLVersion", [] { nameAndVersion(QPX_getDLLVersion); }},
    {"QPX_getRcString", [] { QPX_getRcString(0, nullptr); }},
    {"QPX_listSystems", [] { QPX_listSystems(nullptr, nullptr, nullptr); }},
    {"QPX_openRemoteGatewayConnection",
     [] { QPX_openRemoteGatewayConnection(nullptr, 0, nullptr, 0); }},
    {"QPX_openRemoteGatewayConnectionApplid",
     [] { QPX_openRemoteGatewayConnectionApplid(nullptr, 0, nullptr, 0, nullptr, nullptr); }},
    {"QPX_purgeGatewayConnection", [] { QPX_purgeGatewayConnection(nullptr, 0); }},
    {"QPX_setAPITraceDataLength", [] { QPX_setAPITraceDataLength(128); }},
    {"QPX_setAPITraceDataOffset", [] { QPX_setAPITraceDataOffset(0); }},
    {"QPX_setAPITraceFile", [] { QPX_setAPITraceFile(noFile); }},
    {"QPX_setAPITraceLevel", [] { QPX_setAPITraceLevel(99); }},
};

// The calls that the shared library exports, from the list that it is linked with.
std::set<std::string> exportedNames()
{
    std::set<std::string> names;
    std::ifstream map(QPX_EXPORTS);
    for (std::string line; std::getline(map, line);) {
        std::size_t begin = line.find_first_not_of(' ');
        std::size_t end = line.find(';');
        if (begin == std::string::npos || end == std::string::npos) continue;
        std::string name = line.substr(begin, end - begin);
        if (name.find("QPX_") == 0 || name.find("ECI_") == 0) names.insert(name);
    }
    return names;
}

TEST(CancelledExports, AreAllThatThereAre)
{
    std::set<std::string> listed;
    for (const Export& each : everyCall) listed.insert(each.name);

    EXPECT_EQ(34U, listed.size());
    EXPECT_EQ(exportedNames(), listed);
}

class CancelledExport : public ::testing::TestWithParam<Export> {};

TEST_P(CancelledExport, ReturnsBeforeItsThreadEnds)
{
    TraceFile trace(4);
    CancelledThread caller(When::BeforeTheCall, [] {
        GetParam().call();
        return 0;
    });

    ASSERT_TRUE(caller.hasReturned());
    EXPECT_TRUE(trace.wroteText("ENTRY  API.")) << trace.text();
    EXPECT_TRUE(trace.wroteText("EXIT   API.")) << trace.text();
}

// The same for the first call of a process, which initialises the library.
TEST_P(CancelledExport, ReturnsBeforeItsThreadEndsWhenItIsTheFirst)
{
    support::TemporaryDirectory directory;
    setenv("QPX_CLIENT_TRACE_LEVEL", "4", 1);
    setenv("QPX_CLIENT_TRACE_FILE", directory.file("trace").c_str(), 1);
    CancelledThread caller(When::BeforeTheCall, [] {
        GetParam().call();
        return 0;
    });

    ASSERT_TRUE(caller.hasReturned());
    char* version = nullptr;
    EXPECT_RC(0, QPX_getAPIVersion(&version));
}

INSTANTIATE_TEST_SUITE_P(OfEachName, CancelledExport, ::testing::ValuesIn(everyCall),
                         [](const ::testing::TestParamInfo<Export>& made) {
                             return std::string(made.param.name);
                         });

} // namespace
