// How a connection is opened, used and closed, and what becomes of flows that are wrong.

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <new>
#include <optional>
#include <system_error>
#include <thread>
#include <tuple>
#include <vector>

#include "client.h"
#include "standin/gateway.h"

using namespace standin;
using standin_test::Call;
using standin_test::Client;
using standin_test::closeFlow;
using standin_test::eciBody;
using standin_test::eciRequest;
using standin_test::flow;
using standin_test::handshake;
using standin_test::Raw;
using standin_test::Received;
using standin_test::textOf;

namespace {

// Lines of a Gateway's log, kept for reading.
class Lines {
public:
    LogSink sink()
    {
        return [this](LogLevel, const std::string& line) {
            const std::lock_guard<std::mutex> guard(lock_);
            text_ += line + "\n";
            changed_.notify_all();
        };
    }

    // Waits until the text has come; false when it does not.
    bool await(const std::string& part) const
    {
        std::unique_lock<std::mutex> guard(lock_);
        return changed_.wait_for(guard, kAwaitLimit,
                                 [&] { return text_.find(part) != std::string::npos; });
    }

    std::string text() const
    {
        const std::lock_guard<std::mutex> guard(lock_);
        return text_;
    }

private:
    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    std::string text_;
};

// The gateway's end of the connection from this port; -1 when there is none.
int socketTo(std::uint16_t clientPort)
{
    constexpr int kHighest = 1024;
    for (int descriptor = 0; descriptor < kHighest; ++descriptor) {
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        if (::getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) != 0) continue;
        if (peer.sin_family == AF_INET && ntohs(peer.sin_port) == clientPort) return descriptor;
    }
    return -1;
}

int optionOf(int socket, int level, int name)
{
    int value = -1;
    socklen_t size = sizeof value;
    ::getsockopt(socket, level, name, &value, &size);
    return value;
}

class Conversation : public testing::Test {
protected:
    static GatewayOptions withLog(Lines& lines)
    {
        GatewayOptions options;
        options.log = lines.sink();
        return options;
    }

    bool logged(const std::string& part) const
    {
        return lines.text().find(part) != std::string::npos;
    }

    // Sends a flow that must be answered with FLOW_EXCEPTION; returns its text.
    std::string exceptionFor(const Bytes& request)
    {
        client.send(request);
        const std::optional<Received> answer = client.read();
        if (!answer || answer->flowType != 6) return "no exception";
        return textOf(answer->body).substr(3);
    }

    // Puts a program BIG behind the gateway, which answers a megabyte.
    void answerBig()
    {
        gateway.setReply("BIG", [](const EciRequest& request) {
            EciReply reply = EciReply::to(request);
            reply.channel = Channel{"CHAN", 819, {Container{}}, std::nullopt};
            reply.channel->containers[0].name = "BIG";
            reply.channel->containers[0].data.resize(1024 * 1024);
            return reply;
        });
    }

    // The header of a flow with so many bytes behind it.
    static Bytes announcing(int flowType, const std::string& requestType, std::size_t bodySize)
    {
        const Bytes whole = flow(flowType, 1, requestType, Bytes(bodySize));
        return Bytes(whole.begin(), whole.end() - static_cast<std::ptrdiff_t>(bodySize));
    }

    Lines lines;
    Gateway gateway{withLog(lines)};
    Client client{gateway.port()};
};

} // namespace

TEST_F(Conversation, OpensAndCloses)
{
    ASSERT_TRUE(client.send(handshake()));
    const std::optional<Received> accepted = client.read();
    ASSERT_TRUE(accepted);
    EXPECT_EQ(5, accepted->flowType);
    EXPECT_EQ(-2, accepted->messageId);
    EXPECT_EQ("BASE", accepted->requestType);
    EXPECT_TRUE(accepted->body.empty());

    ASSERT_TRUE(client.send(closeFlow()));
    const std::optional<Received> closed = client.read();
    ASSERT_TRUE(closed);
    EXPECT_EQ(10, closed->flowType);
    EXPECT_EQ(-1, closed->messageId);
    EXPECT_TRUE(closed->body.empty());
    EXPECT_EQ(0U, gateway.closedCount());

    client.close();
    ASSERT_TRUE(gateway.awaitClosed());
    const ConnectionRecord record = gateway.connections().at(0);
    EXPECT_EQ(1, record.number);
    EXPECT_EQ("DEMO1", record.handshake.value().applid);
    EXPECT_TRUE(record.handshakeAccepted);
    EXPECT_TRUE(record.closeFlowReceived);
    EXPECT_EQ(Ending::ClosedByClient, record.ending);
    EXPECT_EQ(0U, gateway.findingCount());
}

TEST_F(Conversation, RecordsEveryByte)
{
    ASSERT_TRUE(client.shakeHands());
    client.call(1, {});
    EXPECT_EQ(static_cast<Bytes>(Raw().bytes(handshake()).bytes(eciRequest(1, {}))),
              gateway.received());
    const Bytes sent = gateway.sent();
    ASSERT_EQ(33U + 32U + 26U,
              sent.size()); // the handshake's answer, and a reply without a COMMAREA
    EXPECT_EQ(flow(5, -2, "BASE", {}), Bytes(sent.begin(), sent.begin() + 33));
    const std::optional<ReceivedRequest> request = gateway.lastRequest();
    ASSERT_TRUE(request);
    EXPECT_EQ(eciRequest(1, {}), request->raw);
    EXPECT_EQ(1, request->header.messageId);
    EXPECT_EQ(1, request->connection);
    EXPECT_EQ("ECHO", request->eci.value().program);
}

TEST_F(Conversation, ForgetsWhenTold)
{
    ASSERT_TRUE(client.shakeHands());
    client.call(1, {});
    gateway.forget();
    EXPECT_EQ(0U, gateway.requestCount());
    EXPECT_TRUE(gateway.requests().empty());
    EXPECT_TRUE(gateway.received().empty());
    client.call(2, {});
    EXPECT_EQ(1U, gateway.requestCount());
    EXPECT_EQ(2, gateway.lastRequest().value().header.messageId);
}

TEST_F(Conversation, TakesFlowsInPiecesOfOneByte)
{
    for (const std::uint8_t byte :
         static_cast<Bytes>(Raw().bytes(handshake()).bytes(eciRequest(1, {})))) {
        ASSERT_TRUE(client.send({byte}));
    }
    EXPECT_EQ(5, client.read().value().flowType);
    EXPECT_EQ(3, client.read().value().flowType);
}

TEST_F(Conversation, TakesSeveralFlowsInOnePiece)
{
    Raw all;
    all.bytes(handshake());
    for (int id = 1; id <= 5; ++id) all.bytes(eciRequest(id, {}));
    ASSERT_TRUE(client.send(all));
    EXPECT_EQ(5, client.read().value().flowType);
    for (int id = 1; id <= 5; ++id) EXPECT_EQ(id, client.read().value().messageId);
}

TEST_F(Conversation, ServesManyConnectionsAtOnce)
{
    constexpr int kClients = 16;
    constexpr int kCalls = 25;
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i) {
        threads.emplace_back([&, i] {
            Client mine(gateway.port());
            if (!mine.shakeHands()) return;
            for (int n = 1; n <= kCalls; ++n) {
                Call call;
                call.commarea = std::to_string(i) + ":" + std::to_string(n);
                if (mine.call(n, call).commarea == call.commarea) ++right;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(kClients * kCalls, right.load());
    EXPECT_EQ(static_cast<std::size_t>(kClients) * kCalls, gateway.requestCount());
}

TEST_F(Conversation, IsDeafWhileReadingIsStopped)
{
    ASSERT_TRUE(client.shakeHands());
    gateway.stopReading();
    ASSERT_TRUE(client.send(eciRequest(1, {})));
    ASSERT_TRUE(gateway.awaitBytes(handshake().size() + 1)); // the read that was under way
    EXPECT_EQ(0U, gateway.requestCount());
    gateway.resumeReading();
    EXPECT_EQ(1, client.read().value().messageId);
}

TEST_F(Conversation, DoesNotReadFromAClientThatTakesNothing)
{
    constexpr int kRequests = 64;
    ASSERT_TRUE(client.shakeHands());
    answerBig();
    Call call;
    call.program = "BIG";
    Raw all;
    for (int id = 1; id <= kRequests; ++id) all.bytes(eciRequest(id, call));
    client.send(all);
    ASSERT_TRUE(lines.await("bytes wait to be taken; nothing more is read until they are"));
    Client another(gateway.port());
    ASSERT_TRUE(another.shakeHands());
    EXPECT_EQ(0, another.call(1, {}).vornRc);
    EXPECT_LT(gateway.requestCount(), std::size_t{kRequests});

    for (int id = 1; id <= kRequests; ++id) EXPECT_EQ(id, client.read().value().messageId);
    EXPECT_TRUE(logged("connection 1: is read from again"));
    EXPECT_EQ(0, client.call(kRequests + 1, {}).vornRc);
}

TEST(AGatewaysLog, HasNothingLessThanWhatItBeginsWith)
{
    std::mutex lock;
    std::vector<LogLevel> levels;
    GatewayOptions options;
    options.logFrom = LogLevel::Warning;
    options.log = [&](LogLevel level, const std::string&) {
        const std::lock_guard<std::mutex> guard(lock);
        levels.push_back(level);
    };
    Gateway gateway(options);
    Client client(gateway.port());
    ASSERT_TRUE(client.shakeHands());
    client.call(1, {});
    gateway.misbehave(Fault::Ping, onMessage(2));
    client.send(eciRequest(2, {}));
    ASSERT_TRUE(client.read());
    gateway.stop();
    EXPECT_EQ(std::vector<LogLevel>{LogLevel::Warning}, levels);
}

// An allocation that fails is played by a log that throws.
TEST(GatewayFailure, EndsTheConnectionThatItBelongsToAndNoOther)
{
    GatewayOptions options;
    options.log = [](LogLevel, const std::string& line) {
        for (const char* const event : {"connection 2: accepted", "connection 3: handshake",
                                        "connection 4: request", "connection 5: answer"}) {
            if (line.find(event) == 0) throw std::bad_alloc();
        }
    };
    Gateway gateway(options);
    std::optional<PendingEsiReply> kept;
    gateway.setEsiProgram(
        [&kept](const EsiRequest&, const PendingEsiReply& pending) { kept = pending; });
    Client first(gateway.port());
    ASSERT_TRUE(first.shakeHands());
    Client second(gateway.port());
    EXPECT_FALSE(second.endsInOrder());
    Client third(gateway.port());
    EXPECT_FALSE(third.shakeHands());
    Client fourth(gateway.port());
    ASSERT_TRUE(fourth.shakeHands());
    fourth.send(eciRequest(1, {}));
    EXPECT_FALSE(fourth.endsInOrder());
    Client fifth(gateway.port());
    ASSERT_TRUE(fifth.shakeHands());
    fifth.send(flow(1, 2, "ESI", Raw().int32(0).padded("FRED", 10).int32(0).padded("", 8)));
    ASSERT_TRUE(gateway.awaitRequests());
    gateway.behave(); // behind it the request has been given to the program
    kept.value().complete({});
    EXPECT_FALSE(fifth.endsInOrder());
    EXPECT_EQ(0, first.call(1, {}).vornRc);
    ASSERT_TRUE(gateway.awaitClosed(4));
}

TEST_F(Conversation, EndsEverythingWhenItStops)
{
    ASSERT_TRUE(client.shakeHands());
    gateway.stop();
    EXPECT_TRUE(client.endsInOrder());
    EXPECT_THROW(Client another(gateway.port()), std::system_error);
    EXPECT_EQ(1U, gateway.closedCount());
    EXPECT_FALSE(gateway.sendPing());
    EXPECT_FALSE(gateway.dropConnection());
    gateway.release();
    gateway.stop();
}

TEST(GatewayStart, FailsOnAPortInUse)
{
    Gateway first;
    GatewayOptions options;
    options.port = first.port();
    EXPECT_THROW(Gateway second(options), std::system_error);
}

TEST(GatewayStart, FailsOnAHostThatIsNotHere)
{
    GatewayOptions options;
    options.host = "192.0.2.1";
    EXPECT_THROW(Gateway gateway(options), std::system_error);
}

TEST(GatewayWithoutRecording, CountsButKeepsNothing)
{
    GatewayOptions options;
    options.recording = false;
    Gateway gateway(options);
    Client client(gateway.port());
    ASSERT_TRUE(client.shakeHands());
    client.call(1, {});
    EXPECT_EQ(1U, gateway.requestCount());
    EXPECT_TRUE(gateway.requests().empty());
    EXPECT_TRUE(gateway.connections().empty());
    EXPECT_TRUE(gateway.received().empty());
}

// ---------------------------------------------------------------------------- clients on their way

TEST_F(Conversation, AnswersAClientThatHasClosedItsSide)
{
    constexpr int kRequests = 8;
    Client slow(gateway.port(), standin_test::Room::Little);
    ASSERT_TRUE(slow.shakeHands());
    answerBig();
    Call call;
    call.program = "BIG";
    Raw all;
    for (int id = 1; id <= kRequests; ++id) all.bytes(eciRequest(id, call));
    slow.send(all);
    slow.closeSending();
    for (int id = 1; id <= kRequests; ++id) ASSERT_EQ(id, slow.read().value().messageId);
    EXPECT_TRUE(slow.endsInOrder());
    ASSERT_TRUE(gateway.awaitClosed());
    EXPECT_EQ(Ending::ClosedByClient, gateway.connections().back().ending);
}

TEST_F(Conversation, GivesALateAnswerToAClientThatHasClosedItsSide)
{
    std::optional<PendingEsiReply> kept;
    gateway.setEsiProgram(
        [&kept](const EsiRequest&, const PendingEsiReply& pending) { kept = pending; });
    ASSERT_TRUE(client.shakeHands());
    Call opening;
    opening.mode = 1;
    client.call(1, opening);
    client.send(flow(1, 2, "ESI", Raw().int32(0).padded("FRED", 10).int32(0).padded("", 8)));
    client.closeSending();
    ASSERT_TRUE(lines.await("unit of work 1 is backed out"));
    gateway.behave();
    kept.value().complete({});
    EXPECT_EQ(2, client.read().value().messageId);
    EXPECT_TRUE(client.endsInOrder());
}

TEST_F(Conversation, LooksAfterClientsThatHaveVanished)
{
    ASSERT_TRUE(client.shakeHands());
    const int server = socketTo(client.localPort());
    ASSERT_NE(-1, server);
    EXPECT_EQ(1, optionOf(server, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(60, optionOf(server, IPPROTO_TCP, TCP_KEEPIDLE));
    EXPECT_EQ(10, optionOf(server, IPPROTO_TCP, TCP_KEEPINTVL));
    EXPECT_EQ(6, optionOf(server, IPPROTO_TCP, TCP_KEEPCNT));
    EXPECT_EQ(120000, optionOf(server, IPPROTO_TCP, TCP_USER_TIMEOUT));
}

// ------------------------------------------------------------------------------------- wrong flows

TEST_F(Conversation, ClosesBehindABadEyecatcher)
{
    client.send(Raw().text("HTTP"));
    EXPECT_TRUE(client.endsInOrder());
    ASSERT_TRUE(gateway.awaitClosed());
    const Finding finding = gateway.findings().at(0);
    EXPECT_EQ(0U, finding.offset);
    EXPECT_EQ("eyecatcher is 0x48545450, not 0x47617465", finding.problem);
    EXPECT_EQ(static_cast<Bytes>(Raw().text("HTTP")), finding.raw);
    EXPECT_TRUE(
        logged("connection 1: malformed flow: eyecatcher is 0x48545450, not 0x47617465 at byte 0"));
    EXPECT_EQ(Ending::ClosedByGateway, gateway.connections().at(0).ending);
}

TEST_F(Conversation, TakesNoLargeBodyBeforeTheHandshake)
{
    client.send(announcing(1, "ECI", 65537));
    EXPECT_TRUE(client.endsInOrder());
    EXPECT_EQ("data length is 65537, not 0 to 65536", gateway.findings().at(0).problem);
}

TEST_F(Conversation, TakesALargeBodyOnlyForAnEciRequest)
{
    const std::tuple<int, const char*, std::size_t> cases[] = {
        {1, "ESI", 1048576}, {1, "XYZ", 65536}, {5, "BASE", 65536}, {10, "BASE", 65536}};
    for (const auto& [type, requestType, largest] : cases) {
        gateway.forget();
        Client another(gateway.port());
        ASSERT_TRUE(another.shakeHands());
        another.send(announcing(type, requestType, largest + 1));
        EXPECT_TRUE(another.endsInOrder());
        EXPECT_EQ("data length is " + std::to_string(largest + 1) + ", not 0 to " +
                      std::to_string(largest),
                  gateway.findings().at(0).problem);
    }
    ASSERT_TRUE(client.shakeHands());
    Call call;
    call.channel = standin_test::channelSection(
        "CHAN", 819, {standin_test::record("LARGE", 1, 1, 0, 70000, std::string(70000, 'x'))});
    EXPECT_EQ(0, client.call(1, call).vornRc);
}

TEST_F(Conversation, ClosesBehindAFlowTypeOfTheGatewaysOwn)
{
    ASSERT_TRUE(client.shakeHands());
    client.send(flow(3, 1, "ECI", {}));
    EXPECT_TRUE(client.endsInOrder());
    EXPECT_EQ(8U, gateway.findings().at(0).offset);
}

TEST_F(Conversation, RefusesAMalformedHandshake)
{
    Bytes wrong = handshake();
    wrong[35] = 'd';
    client.send(wrong);
    const std::optional<Received> refusal = client.read();
    ASSERT_TRUE(refusal);
    EXPECT_EQ(4, refusal->flowType);
    EXPECT_EQ(-2, refusal->messageId);
    EXPECT_EQ(-9, refusal->gatewayRc);
    EXPECT_TRUE(client.endsInOrder());
    EXPECT_EQ("fixed handshake data has 0x64, not 0x65", gateway.findings().at(0).problem);
    EXPECT_EQ(0U, gateway.handshakeCount());
}

TEST_F(Conversation, RefusesAHandshakeOfAnotherVersion)
{
    Bytes wrong = handshake();
    wrong[7] = 1;
    client.send(wrong);
    EXPECT_EQ(61450, client.read().value().gatewayRc);
}

TEST_F(Conversation, RefusesASecondHandshake)
{
    ASSERT_TRUE(client.shakeHands());
    client.send(handshake());
    EXPECT_EQ(4, client.read().value().flowType);
    EXPECT_TRUE(client.endsInOrder());
}

TEST_F(Conversation, RefusesARequestBeforeTheHandshake)
{
    client.send(eciRequest(3, {}));
    const std::optional<Received> refusal = client.read();
    ASSERT_TRUE(refusal);
    EXPECT_EQ(4, refusal->flowType);
    EXPECT_EQ(3, refusal->messageId);
    EXPECT_EQ(61445, refusal->gatewayRc);
}

TEST_F(Conversation, AnswersAMalformedRequestWithWhatIsWrongAndGoesOn)
{
    ASSERT_TRUE(client.shakeHands());
    Bytes body = eciBody({});
    body[7] = 3;
    EXPECT_EQ("extend mode is 3, not 0, 1, 2 or 4 at byte 36",
              exceptionFor(flow(1, 9, "ECI", body)));
    EXPECT_EQ(1U, gateway.findingCount());
    EXPECT_EQ(1U, gateway.requestCount());
    EXPECT_FALSE(gateway.lastRequest().value().eci);
    EXPECT_EQ(0, client.call(10, {}).vornRc);
}

TEST_F(Conversation, AnswersAMalformedHeaderOfARequest)
{
    ASSERT_TRUE(client.shakeHands());
    Bytes wrong = eciRequest(9, {});
    wrong[19] = 5;
    EXPECT_EQ("Gateway return code is 5, not 0 at byte 16", exceptionFor(wrong));

    client.send(flow(1, 9, "XYZ", eciBody({})));
    EXPECT_EQ(61451, client.read().value().gatewayRc);

    wrong = eciRequest(9, {});
    wrong[4] = 0;
    client.send(wrong);
    EXPECT_EQ(61450, client.read().value().gatewayRc);

    client.send(eciRequest(0, {}));
    EXPECT_TRUE(client.endsInOrder());
}

TEST_F(Conversation, ReportsAFlowThatIsCutShort)
{
    ASSERT_TRUE(client.shakeHands());
    const Bytes request = eciRequest(1, {});
    client.send(Bytes(request.begin(), request.begin() + 40));
    client.closeSending();
    ASSERT_TRUE(gateway.awaitFindings());
    EXPECT_EQ(40U, gateway.findings().at(0).offset);
    EXPECT_EQ("the connection ends within a flow", gateway.findings().at(0).problem);
}

TEST_F(Conversation, ReportsAMalformedCloseFlowAndAnswersIt)
{
    ASSERT_TRUE(client.shakeHands());
    client.send(flow(10, 5, "BASE", {}));
    EXPECT_EQ(10, client.read().value().flowType);
    EXPECT_EQ(12U, gateway.findings().at(0).offset);
}

TEST_F(Conversation, IgnoresRequestsBehindTheCloseFlow)
{
    ASSERT_TRUE(client.shakeHands());
    client.send(Raw().bytes(closeFlow()).bytes(eciRequest(1, {})));
    EXPECT_EQ(10, client.read().value().flowType);
    ASSERT_TRUE(gateway.awaitRequests());
    EXPECT_TRUE(gateway.sendPing());
    EXPECT_EQ(7, client.read().value().flowType); // nothing has come in between
}

// --------------------------------------------------------------------------------------------- log

TEST_F(Conversation, LogsOneReadableLineForEachEvent)
{
    ASSERT_TRUE(client.shakeHands());
    Call call;
    call.user = "FRED";
    call.commarea = "hello";
    client.call(1, call);
    EXPECT_TRUE(logged("listening on 127.0.0.1:" + std::to_string(gateway.port())));
    EXPECT_TRUE(logged("connection 1: accepted from 127.0.0.1:"));
    EXPECT_TRUE(logged("connection 1: handshake applid=\"DEMO1\" qualifier=\"\"\n"));
    EXPECT_TRUE(logged("connection 1: request 1 ECI program=\"ECHO\" mode=0 token=0 user=\"FRED\" "
                       "commarea=5/5\n"));
    EXPECT_TRUE(logged("connection 1: answer 1 vornRc=0 token=0 commarea=5\n"));
}

TEST_F(Conversation, LogsNeitherPasswordsNorControlCharacters)
{
    ASSERT_TRUE(client.shakeHands());
    Bytes body = eciBody({});
    const Bytes masked = {0xBE, 0x03, 0x01}; // "ABC"
    body[48] = 3;
    body.insert(body.begin() + 49, masked.begin(), masked.end());
    body[52] = '\n'; // first character of the program's name
    client.send(flow(1, 1, "ECI", body));
    ASSERT_TRUE(client.read());
    EXPECT_EQ("ABC", gateway.lastRequest().value().eci.value().password);
    EXPECT_FALSE(logged("ABC"));
    EXPECT_TRUE(logged("program=\"?CHO\""));
}

TEST_F(Conversation, LogsAConnectionThatEndsWithoutACloseFlow)
{
    ASSERT_TRUE(client.shakeHands());
    client.close();
    ASSERT_TRUE(gateway.awaitClosed());
    EXPECT_TRUE(logged("connection 1: closed by the client without a close flow\n"));
}
