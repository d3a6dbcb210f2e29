// Password calls and queries of systems on connections that end, or have ended.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/esi_script.h"

using namespace script;
using support::slice;
using support::TraceFile;

namespace {

// A verification, a change and a query that wait for their answers, and what they end with.
class EsiOfEndingConnection : public EsiConnection {
protected:
    void startAll()
    {
        calls.push_back(startVerify("ONE", "SECRET", nullptr, verified.get()));
        connection.awaitRequest();
        calls.push_back(startChange("TWO", "SECRET", "TERCES", nullptr, changed.get()));
        connection.awaitRequest();
        calls.push_back(startList(systems));
        connection.awaitRequest();
    }

    void expectAll(int rc)
    {
        for (auto& call : calls) EXPECT_RC(rc, call.get());
        calls.clear();
        expectNothingWritten();
    }

    // All three, made one after the other, end with this.
    void expectRefused(int rc)
    {
        EXPECT_RC(
            rc, QPX_ESI_verifyPassword(connection.token, "ONE", "SECRET", nullptr, verified.get()));
        EXPECT_RC(rc, QPX_ESI_changePassword(connection.token, "TWO", "SECRET", "TERCES", nullptr,
                                             changed.get()));
        EXPECT_RC(rc, QPX_listSystems(connection.token, &systems.count, systems.get()));
        expectNothingWritten();
    }

    void expectNothingWritten()
    {
        EXPECT_TRUE(verified.areUntouched());
        EXPECT_TRUE(changed.areUntouched());
        EXPECT_TRUE(systems.isUntouched());
        EXPECT_EQ(2, systems.count);
    }

    Details verified;
    Details changed;
    SystemArray systems{2};
    std::vector<support::RunningCall<int>> calls;
};

// ---- The connection ends while they wait ----

TEST_F(EsiOfEndingConnection, IsLostWhenTheConnectionIs)
{
    startAll();
    connection.peer.close();
    expectAll(-102);
}

TEST_F(EsiOfEndingConnection, IsLostWhenTheConnectionIsReset)
{
    startAll();
    connection.peer.reset();
    expectAll(-102);
}

TEST_F(EsiOfEndingConnection, IsLostWhenTheGatewaySendsNoHeader)
{
    startAll();
    connection.peer.send(filled(32, 'X'));
    expectAll(-102);
}

TEST_F(EsiOfEndingConnection, IsLostWhenTheGatewayAnswersNobody)
{
    startAll();
    connection.peer.send(acceptance(999));
    expectAll(-102);
}

TEST_F(EsiOfEndingConnection, IsLostByAnErrorOfTheConnection)
{
    startAll();
    connection.peer.send(errorFlow(-2, 61445));
    expectAll(-102);
}

TEST_F(EsiOfEndingConnection, IsToldWhenTheGatewayCloses)
{
    startAll();
    connection.peer.send(closeFlow());
    expectAll(61444);
}

TEST_F(EsiOfEndingConnection, IsToldOfAClosingGatewayInTheTrace)
{
    TraceFile trace(3);
    startAll();
    connection.peer.send(closeFlow());
    expectAll(61444);

    EXPECT_TRUE(trace.wrote(1805, "EXIT",
                            "API.QPX_ESI_verifyPassword() rc=61444 (QPX_ERR_GATEWAY_CLOSED)"));
    EXPECT_TRUE(trace.wrote(1812, "EXIT",
                            "API.QPX_ESI_changePassword() rc=61444 (QPX_ERR_GATEWAY_CLOSED)"));
    EXPECT_TRUE(
        trace.wrote(1028, "EXIT", "API.QPX_listSystems() rc=61444 (QPX_ERR_GATEWAY_CLOSED)"));
    EXPECT_EQ(0, trace.timesWrote(1825));
}

TEST_F(EsiOfEndingConnection, IsEndedByAPurge)
{
    startAll();
    auto purging = connection.startPurge(0);
    connection.answerClose();
    expectAll(-140);
    EXPECT_RC(0, purging.get());
    connection.forget();
}

TEST_F(EsiOfEndingConnection, IsEndedByAPurgeWhoseTimeIsOver)
{
    startAll();
    auto purging = connection.startPurge(1);
    connection.answerClose();
    expectAll(-140);
    EXPECT_RC(0, purging.get());
    connection.forget();
}

TEST_F(EsiOfEndingConnection, IsEndedByClosingAllConnections)
{
    startAll();
    auto closing = callInThread([] { return QPX_closeAllGatewayConnections(); });
    connection.answerClose();
    expectAll(-140);
    EXPECT_RC(0, closing.get());
    connection.forget();
}

TEST_F(EsiOfEndingConnection, EndsManyAtOnce)
{
    std::vector<support::RunningCall<int>> many;
    for (int at = 0; at < 40; ++at) {
        many.push_back(startVerify("USER", "SECRET"));
        connection.awaitRequest();
    }
    connection.peer.close();
    for (auto& call : many) EXPECT_RC(-102, call.get());
}

// ---- The answer breaks off ----

TEST(EsiOfBrokenAnswer, IsLostWhereverTheAnswerBreaksOff)
{
    Bytes answer = acceptance(1);
    for (std::size_t there = 0; there < answer.size(); ++there) {
        SCOPED_TRACE(there);
        ScriptedConnection connection;
        Details details;
        auto call = callInThread([&] {
            return QPX_ESI_verifyPassword(connection.token, "USER", "SECRET", nullptr,
                                          details.get());
        });
        connection.awaitRequest();

        connection.peer.send(slice(answer, 0, there));
        connection.peer.shutdownWriting();

        ASSERT_RC(-102, call.get());
        ASSERT_TRUE(details.areUntouched());
    }
}

TEST(EsiOfBrokenAnswer, IsLostWhereverTheListBreaksOff)
{
    Bytes answer = ListReply().reported(1).data(systemEntry("PROD", "Production")).to(1);
    for (std::size_t there = 0; there < answer.size(); ++there) {
        SCOPED_TRACE(there);
        ScriptedConnection connection;
        SystemArray systems(2);
        auto call = callInThread(
            [&] { return QPX_listSystems(connection.token, &systems.count, systems.get()); });
        connection.awaitRequest();

        connection.peer.send(slice(answer, 0, there));
        connection.peer.shutdownWriting();

        ASSERT_RC(-102, call.get());
        ASSERT_EQ(2, systems.count);
        ASSERT_TRUE(systems.isUntouched());
    }
}

// A list longer than the receiver's buffer goes straight into the caller's array.
TEST(EsiOfBrokenAnswer, IsLostWhenALongListBreaksOff)
{
    ScriptedConnection connection;
    SystemArray systems(1000);
    auto call = callInThread(
        [&] { return QPX_listSystems(connection.token, &systems.count, systems.get()); });
    connection.awaitRequest();
    Bytes answer = ListReply().reported(1000).data(filled(70000, 'S')).to(1);

    connection.peer.send(slice(answer, 0, answer.size() - 1));
    connection.peer.shutdownWriting();

    EXPECT_RC(-102, call.get());
    EXPECT_EQ(1000, systems.count);
    EXPECT_TRUE(systems.hasNothingBehind());
}

// ---- The connection has ended ----

TEST_F(EsiOfEndingConnection, IsLostOnALostConnection)
{
    {
        TraceFile trace(3);
        lose(connection, trace);
    }
    expectRefused(-102);
    expectRefused(-102);
}

TEST_F(EsiOfEndingConnection, IsLostOnAConnectionThatTheGatewayClosed)
{
    {
        TraceFile trace(3);
        closeByGateway(connection, trace);
    }
    expectRefused(-102);
    expectRefused(-102);
    EXPECT_RC(0, QPX_closeGatewayConnection(&connection.token));
    connection.forget();
}

TEST_F(EsiOfEndingConnection, LooksAtTheTextsBeforeTheConnection)
{
    {
        TraceFile trace(3);
        lose(connection, trace);
    }
    EXPECT_RC(-301, QPX_ESI_verifyPassword(connection.token, "", "", nullptr, nullptr));
    EXPECT_RC(-314,
              QPX_ESI_changePassword(connection.token, "USER", "SECRET", "", nullptr, nullptr));
    EXPECT_RC(-109, QPX_listSystems(connection.token, nullptr, nullptr));
}

TEST_F(EsiOfEndingConnection, FindsNoTokenOfAClosedConnection)
{
    // A new connection may take the memory of the old one: there is none here.
    QPX_ConnToken_t old = connection.token;
    connection.closeInOrder();

    EXPECT_RC(-101, QPX_ESI_verifyPassword(old, "ONE", "SECRET", nullptr, verified.get()));
    EXPECT_RC(-101, QPX_ESI_changePassword(old, "TWO", "SECRET", "TERCES", nullptr, changed.get()));
    EXPECT_RC(-101, QPX_listSystems(old, &systems.count, systems.get()));
    expectNothingWritten();
}

TEST_F(EsiOfEndingConnection, DoesNotKeepALostConnectionFromClosing)
{
    startAll();
    connection.peer.close();
    expectAll(-102);
    expectRefused(-102);

    EXPECT_RC(0, QPX_closeGatewayConnection(&connection.token));
    connection.forget();
}

} // namespace
