// Many callers at once: threads that share a connection, connections that share a process, and
// more requests on one connection than its first slots.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "standin/gateway.h"
#include "support/eci_script.h"

using namespace script;
using support::asyncCall;
using support::EciParms;
using support::getReplyWait;
using support::getSpecificReplyWait;
using support::matches;
using support::RunningCall;
using support::syncCall;
using support::TraceFile;

namespace {

// Contents that tell which thread and which call they belong to, of a length of their own.
Bytes contentsOf(int thread, int call)
{
    std::string mark = "thread " + std::to_string(thread) + " call " + std::to_string(call) + ";";
    std::string contents;
    auto length = static_cast<std::size_t>(
        mark.size() + static_cast<std::size_t>((thread * 397 + call * 31) % 3000));
    while (contents.size() < length) contents += mark;
    contents.resize(length);
    return text(contents);
}

// Makes so many calls in a row; how many of them did not get their own contents back.
int echoCalls(QPX_ConnToken_t token, int thread, int calls)
{
    int wrong = 0;
    for (int call = 0; call < calls; ++call) {
        Bytes contents = contentsOf(thread, call);
        EciParms parms = syncCall("ECHO", contents);
        if (QPX_ECI_Execute(token, &parms.record) != 0 || parms.commarea() != contents) wrong += 1;
    }
    return wrong;
}

// A line of a trace that is neither part of a dump nor a record from its first character to its
// last. Three texts of the trace have no line end, so that the next record begins behind them.
bool isTorn(const std::string& line)
{
    std::vector<support::TraceRecord> found = support::parseTrace(line);
    if (found.empty())
        return !matches("<ptr>: <any> : <any>", line) &&
               !matches("Data truncation size=<int>, offset=<int>", line);
    for (std::size_t at = 0; at + 1 < found.size(); ++at) {
        const std::string& text = found[at].message;
        if (!matches("clapi_gwytok.findGatewayToken() Token found at GTL Entry(<int>)", text) &&
            !matches("clapi_gwycon.closeSocket(socket=<int>)", text) &&
            !matches("clapi_gwycon.closeSocket() rc=<int>", text))
            return true;
    }
    return line.compare(0, found[0].stamp.size(), found[0].stamp) != 0;
}

// Behind its head, each line of a dump shows the 16 bytes behind those of the line before.
void expectWholeDump(const std::string& dump)
{
    if (dump.empty()) return;
    std::istringstream lines(dump);
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ("Data truncation size=128, offset=0", line);
    unsigned long long next = 0;
    while (std::getline(lines, line)) {
        unsigned long long shown = std::strtoull(line.c_str(), nullptr, 16);
        if (next != 0) {
            EXPECT_EQ(next, shown) << dump;
        }
        next = shown + 16;
    }
}

QPX_ConnToken_t openTo(const standin::Gateway& gateway)
{
    QPX_ConnToken_t token = nullptr;
    EXPECT_RC(QPX_OK, QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 30));
    return token;
}

} // namespace

// ---- Threads ----

TEST(ManyThreads, ShareOneConnection)
{
    constexpr int threads = 32;
    constexpr int calls = 40;
    standin::Gateway gateway;
    QPX_ConnToken_t token = openTo(gateway);
    std::vector<RunningCall<int>> running;
    running.reserve(threads);
    for (int thread = 0; thread < threads; ++thread)
        running.push_back(callInThread(echoCalls, token, thread, calls));
    for (RunningCall<int>& call : running) EXPECT_EQ(0, call.get());

    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token));
    EXPECT_EQ(1u, gateway.connectionCount());
    EXPECT_EQ(static_cast<std::size_t>(threads * calls), gateway.requestCount());
    EXPECT_EQ(0u, gateway.findingCount());
}

TEST(ManyThreads, GetTheirOwnRepliesWhenTheseComeInReverse)
{
    constexpr int threads = 32;
    standin::Gateway gateway;
    QPX_ConnToken_t token = openTo(gateway);
    gateway.hold();
    std::vector<RunningCall<int>> running;
    running.reserve(threads);
    for (int thread = 0; thread < threads; ++thread)
        running.push_back(callInThread(echoCalls, token, thread, 1));
    ASSERT_TRUE(gateway.awaitHeld(threads));
    EXPECT_EQ(std::size_t(threads), gateway.releaseReversed());
    for (RunningCall<int>& call : running) EXPECT_EQ(0, call.get());
    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token));
}

TEST(ManyThreads, EachSendAndCollectAsynchronously)
{
    constexpr int threads = 16;
    constexpr int calls = 20;
    standin::Gateway gateway;
    QPX_ConnToken_t token = openTo(gateway);
    auto sendAndCollect = [token](int thread) {
        int wrong = 0;
        for (int call = 0; call < calls; ++call) {
            Bytes contents = contentsOf(thread, call);
            EciParms parms = asyncCall("ECHO", contents);
            if (QPX_ECI_Execute(token, &parms.record) != 0) wrong += 1;
            EciParms reply = getSpecificReplyWait(parms.record.eci_message_qualifier,
                                                  contents.size());
            if (QPX_ECI_Execute(token, &reply.record) != 0 || reply.commarea() != contents)
                wrong += 1;
        }
        return wrong;
    };
    std::vector<RunningCall<int>> running;
    running.reserve(threads);
    for (int thread = 0; thread < threads; ++thread)
        running.push_back(callInThread(sendAndCollect, thread));
    for (RunningCall<int>& call : running) EXPECT_EQ(0, call.get());
    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token));
    EXPECT_EQ(0u, gateway.findingCount());
}

TEST(ManyThreads, CollectWhateverComesNext)
{
    constexpr int threads = 8;
    constexpr int each = 25;
    standin::Gateway gateway;
    QPX_ConnToken_t token = openTo(gateway);
    auto collect = [token] {
        std::vector<std::string> seen;
        for (int reply = 0; reply < each; ++reply) {
            EciParms parms = getReplyWait(8);
            if (QPX_ECI_Execute(token, &parms.record) != 0) break;
            seen.push_back(support::toText(parms.commarea()));
        }
        return seen;
    };
    std::vector<RunningCall<std::vector<std::string>>> running;
    running.reserve(threads);
    for (int thread = 0; thread < threads; ++thread) running.push_back(callInThread(collect));

    std::set<std::string> sent;
    for (int request = 0; request < threads * each; ++request) {
        std::string contents = std::to_string(10000000 + request);
        sent.insert(contents);
        EciParms parms = asyncCall("ECHO", text(contents));
        EXPECT_RC(0, QPX_ECI_Execute(token, &parms.record));
    }
    std::multiset<std::string> received;
    for (auto& call : running)
        for (const std::string& contents : call.get()) received.insert(contents);
    EXPECT_EQ(std::multiset<std::string>(sent.begin(), sent.end()), received);
    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token));
}

TEST(ManyThreads, RunUnitsOfWorkSideBySide)
{
    constexpr int threads = 8;
    standin::Gateway gateway;
    QPX_ConnToken_t token = openTo(gateway);
    auto unitsOfWork = [token](int thread) {
        int wrong = 0;
        for (int unit = 0; unit < 10; ++unit) {
            int luwToken = 0;
            for (int call = 0; call < 3; ++call) {
                Bytes contents = contentsOf(thread, call);
                EciParms parms = syncCall("ECHO", contents);
                parms.withExtendMode(1, luwToken);
                if (QPX_ECI_Execute(token, &parms.record) != 0 || parms.commarea() != contents)
                    wrong += 1;
                luwToken = parms.record.eci_luw_token;
            }
            EciParms end = syncCall("ECHO");
            end.withExtendMode(unit % 2 == 0 ? 2 : 4, luwToken);
            if (QPX_ECI_Execute(token, &end.record) != 0) wrong += 1;
        }
        return wrong;
    };
    std::vector<RunningCall<int>> running;
    running.reserve(threads);
    for (int thread = 0; thread < threads; ++thread)
        running.push_back(callInThread(unitsOfWork, thread));
    for (RunningCall<int>& call : running) EXPECT_EQ(0, call.get());
    EXPECT_EQ(0u, gateway.openUnitsOfWork());
    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token));
}

TEST(ManyThreads, TraceWholeLines)
{
    constexpr int threads = 8;
    TraceFile trace(4);
    standin::Gateway gateway;
    QPX_ConnToken_t token = openTo(gateway);
    std::vector<RunningCall<int>> running;
    running.reserve(threads);
    for (int thread = 0; thread < threads; ++thread)
        running.push_back(callInThread(echoCalls, token, thread, 3));
    for (RunningCall<int>& call : running) EXPECT_EQ(0, call.get());
    EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token));
    EXPECT_EQ(threads * 3, trace.timesWrote(1500));
    EXPECT_EQ(threads * 3, trace.timesWrote(1506));
    for (const std::string& line : trace.lines()) EXPECT_FALSE(isTorn(line)) << line;
    EXPECT_EQ('\n', trace.text().back());
    for (const support::TraceRecord& record : trace.records()) {
        expectWholeDump(record.body);
        if (record.point == 1500) {
            EXPECT_TRUE(matches("API.QPX_ECI_Execute(gwTok=<ptr>, EciParms=<ptr>)", record.message))
                << record.message;
        }
        if (record.point == 1506) {
            EXPECT_EQ("API.QPX_ECI_Execute() rc=0 (QPX_OK)", record.message);
        }
    }
}

// ---- Connections ----

TEST(ManyConnections, LiveInOneProcess)
{
    constexpr int connections = 16;
    constexpr int calls = 30;
    standin::Gateway gateway;
    std::vector<QPX_ConnToken_t> tokens;
    for (int connection = 0; connection < connections; ++connection)
        tokens.push_back(openTo(gateway));
    EXPECT_EQ(std::size_t(connections),
              std::set<QPX_ConnToken_t>(tokens.begin(), tokens.end()).size());

    std::vector<RunningCall<int>> running;
    running.reserve(connections);
    for (int connection = 0; connection < connections; ++connection)
        running.push_back(callInThread(echoCalls, tokens[static_cast<std::size_t>(connection)],
                                       connection, calls));
    for (RunningCall<int>& call : running) EXPECT_EQ(0, call.get());

    // Every call went out on its own connection.
    std::vector<int> perConnection(connections + 1, 0);
    for (const standin::ReceivedRequest& request : gateway.requests()) {
        ASSERT_TRUE(request.eci.has_value());
        perConnection[static_cast<std::size_t>(request.connection)] += 1;
        std::string start = "thread " + std::to_string(request.connection - 1) + " call ";
        EXPECT_EQ(text(start), support::slice(request.eci->commarea, 0, start.size()));
    }
    for (int connection = 1; connection <= connections; ++connection)
        EXPECT_EQ(calls, perConnection[static_cast<std::size_t>(connection)]) << connection;

    for (QPX_ConnToken_t& token : tokens) EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token));
    EXPECT_TRUE(gateway.awaitClosed(connections));
    EXPECT_EQ(0u, gateway.findingCount());
}

TEST(ManyConnections, OutliveALostOne)
{
    standin::Gateway gateway;
    QPX_ConnToken_t first = openTo(gateway);
    QPX_ConnToken_t second = openTo(gateway);
    QPX_ConnToken_t third = openTo(gateway);
    gateway.hold();
    EciParms parms = syncCall("ECHO", text("lost"));
    auto call = callInThread([&] { return QPX_ECI_Execute(second, &parms.record); });
    ASSERT_TRUE(gateway.awaitHeld());
    gateway.dropConnection(2);
    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    gateway.release();
    EXPECT_EQ(0, echoCalls(first, 1, 3));
    EXPECT_EQ(0, echoCalls(third, 3, 3));
    for (QPX_ConnToken_t* token : {&first, &second, &third})
        EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(token));
}

TEST(ManyConnections, AreOpenedAndClosedByManyThreads)
{
    constexpr int threads = 8;
    standin::Gateway gateway;
    auto openCallClose = [&gateway](int thread) {
        int wrong = 0;
        for (int round = 0; round < 5; ++round) {
            QPX_ConnToken_t token = nullptr;
            if (QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 30) != QPX_OK)
                return wrong + 1;
            wrong += echoCalls(token, thread, 2);
            if (QPX_closeGatewayConnection(&token) != QPX_OK) wrong += 1;
        }
        return wrong;
    };
    std::vector<RunningCall<int>> running;
    running.reserve(threads);
    for (int thread = 0; thread < threads; ++thread)
        running.push_back(callInThread([&openCallClose, thread] { return openCallClose(thread); }));
    for (RunningCall<int>& call : running) EXPECT_EQ(0, call.get());
    EXPECT_TRUE(gateway.awaitClosed(threads * 5));
}

// ---- More requests than slots ----

namespace {

// So many calls in progress at once on one connection, held by the gateway.
class ManyRequests : public ::testing::Test {
protected:
    void callAtOnce(int count)
    {
        for (int call = 0; call < count; ++call) {
            parms.push_back(std::make_unique<EciParms>(syncCall("ECHO", contentsOf(call, 0))));
            running.push_back(connection.start(*parms.back()));
            requests.push_back(connection.awaitRequest());
        }
    }

    void answer(std::size_t index)
    {
        connection.peer.send(
            ProgramReply().commarea(parms[index]->commarea()).to(requests[index].messageId()));
        EXPECT_RC(0, running[index].get());
        EXPECT_EQ(contentsOf(static_cast<int>(index), 0), parms[index]->commarea());
    }

    int messageIdOfNextCall()
    {
        EciParms next = syncCall("NEXT");
        auto call = connection.start(next);
        int messageId = connection.awaitRequest().messageId();
        connection.peer.send(ProgramReply().to(messageId));
        EXPECT_RC(0, call.get());
        return messageId;
    }

    ScriptedConnection connection;
    TraceFile trace{4};
    std::vector<std::unique_ptr<EciParms>> parms;
    std::vector<RunningCall<int>> running;
    std::vector<Request> requests;
};

} // namespace

TEST_F(ManyRequests, HaveTheMessageIdsFromOneOn)
{
    callAtOnce(16);
    for (std::size_t index = 0; index < 16; ++index)
        EXPECT_EQ(static_cast<int>(index + 1), requests[index].messageId());
    EXPECT_FALSE(trace.wroteText("Created new slot table"));
    for (std::size_t index = 0; index < 16; ++index) answer(index);
    EXPECT_FALSE(trace.wroteText("Freeing slot table"));
    EXPECT_EQ(1, messageIdOfNextCall());
}

TEST_F(ManyRequests, GetANewTableForTheSeventeenth)
{
    callAtOnce(17);
    EXPECT_EQ(17, requests[16].messageId());
    EXPECT_EQ(1, trace.timesWroteText("DEBUG  clapi_gwytok.slotFind() Created new slot table at "
                                      "slotP=<ptr>, first=17, last=32\n"))
        << trace.text();
    for (std::size_t index = 0; index < 17; ++index) answer(index);
}

TEST_F(ManyRequests, GiveTheTableBackWithItsLastRequest)
{
    callAtOnce(17);
    answer(0);
    EXPECT_FALSE(trace.wroteText("Freeing slot table"));
    answer(16);
    EXPECT_EQ(1, trace.timesWroteText("DEBUG  clapi_gwytok.slotFree() Freeing slot table at "
                                      "slotP=<ptr>, first=17, last=32\n"))
        << trace.text();
    for (std::size_t index = 1; index < 16; ++index) answer(index);
    EXPECT_EQ(1, trace.timesWroteText("Freeing slot table"));
}

TEST_F(ManyRequests, GetTheSameIdsFromATableThatWasGivenBack)
{
    callAtOnce(17);
    answer(16);
    EXPECT_EQ(17, messageIdOfNextCall());
    EXPECT_EQ(2,
              trace.timesWroteText("Created new slot table at slotP=<ptr>, first=17, last=32\n"));
    EXPECT_EQ(2, trace.timesWroteText("Freeing slot table at slotP=<ptr>, first=17, last=32\n"));
    for (std::size_t index = 0; index < 16; ++index) answer(index);
}

TEST_F(ManyRequests, KeepATableInTheMiddle)
{
    callAtOnce(33);
    EXPECT_EQ(33, requests[32].messageId());
    EXPECT_TRUE(trace.wroteText("Created new slot table at slotP=<ptr>, first=33, last=48\n"));
    for (std::size_t index = 16; index < 32; ++index) answer(index);
    EXPECT_FALSE(trace.wroteText("Freeing slot table")); // the one behind it is in use
    answer(32);                                          // now both are given back, the last first
    std::string text = trace.text();
    std::size_t last = text.find("first=33, last=48", text.find("Freeing slot table"));
    std::size_t middle = text.find("first=17, last=32", text.find("Freeing slot table"));
    EXPECT_NE(std::string::npos, last);
    EXPECT_NE(std::string::npos, middle);
    EXPECT_LT(last, middle);
    for (std::size_t index = 0; index < 16; ++index) answer(index);
}

TEST_F(ManyRequests, GetTheirOwnRepliesInAnyOrder)
{
    callAtOnce(40);
    for (std::size_t index = 40; index > 0; index -= 2) answer(index - 1);
    for (std::size_t index = 0; index < 40; index += 2) answer(index);
    EXPECT_EQ(1, messageIdOfNextCall());
}

TEST_F(ManyRequests, AllEndWhenTheConnectionIsLost)
{
    callAtOnce(20);
    connection.peer.close();
    for (RunningCall<int>& call : running) EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
}
