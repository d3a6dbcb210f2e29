// qpxgatewayd between an application and a Gateway: what it passes on, and what it writes of it.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <thread>

#include "client.h"
#include "daemon.h"
#include "record/line_file.h"
#include "standin/gateway.h"
#include "stream_peer.h"
#include "temporary_directory.h"
#include "json/base64.h"
#include "json/call_json.h"

using standin::Bytes;
using standin_test::Buffers;
using standin_test::Call;
using standin_test::Client;
using standin_test::Daemon;
using standin_test::Listener;
using standin_test::moreThanIsUnderWay;
using standin_test::Raw;
using standin_test::Received;
using standin_test::StreamPeer;
using standin_test::TemporaryDirectory;
using Ending = StreamPeer::Ending;

namespace {

std::string contentOf(const std::string& file)
{
    std::ostringstream content;
    content << std::ifstream(file).rdbuf();
    return content.str();
}

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// Times and addresses, which differ from run to run, as T, N and A.
std::string timeless(const std::string& text)
{
    static const std::regex time("\"time\":\"20[0-9]{2}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:"
                                 "[0-9]{2}\\.[0-9]{6}[-+][0-9]{4}\"");
    static const std::regex since("\"microseconds\":[0-9]+");
    static const std::regex address("127\\.0\\.0\\.1:[0-9]+");
    std::string result = std::regex_replace(text, time, "\"time\":\"T\"");
    result = std::regex_replace(result, since, "\"microseconds\":N");
    return std::regex_replace(result, address, "A");
}

// Without its front, and of what follows the payload.
std::string said(const std::string& line)
{
    static const std::regex front("^\\{\"connection\":[0-9]+,\"time\":\"T\",\"microseconds\":N,");
    return std::regex_replace(timeless(line), front, "");
}

std::string payloadOf(const Bytes& bytes)
{
    return "\"payload\":\"" + base64::encode(bytes) + "\"}";
}

// The password as it travels.
Bytes scrambled(const std::string& password)
{
    Bytes masked;
    unsigned before = 0xFF;
    for (const char c : password) {
        const auto clear = static_cast<unsigned char>(c);
        masked.push_back(static_cast<std::uint8_t>(clear ^ before));
        before = clear;
    }
    return masked;
}

Bytes callOf(int messageId, const Call& call, const Bytes& masked)
{
    Bytes body = standin_test::eciBody(call);
    body[48] = static_cast<std::uint8_t>(masked.size());
    body.insert(body.begin() + 49, masked.begin(), masked.end());
    return standin_test::flow(1, messageId, "ECI", body);
}

Bytes passwordRequest(int messageId, int callType, const Bytes& current, const Bytes& next)
{
    Raw raw;
    raw.int32(callType).padded("FRED", 10).int32(static_cast<int>(current.size())).bytes(current);
    raw.padded("VORNA", 8, ' ');
    if (callType == 1) raw.int32(static_cast<int>(next.size())).bytes(next);
    return standin_test::flow(1, messageId, "ESI", raw);
}

Call echo(const std::string& commarea)
{
    Call call;
    call.user = "FRED";
    call.commarea = commarea;
    return call;
}

class DaemonRecord : public testing::Test {
protected:
    std::vector<std::string> to(std::uint16_t port) const
    {
        return {"--record", "127.0.0.1:" + std::to_string(port), folder};
    }

    std::string file(int number) const
    {
        return folder + "/connection-00000" + std::to_string(number) + ".jsonl";
    }

    std::vector<std::string> lines(int number = 1) const
    {
        return linesOf(contentOf(file(number)));
    }

    const TemporaryDirectory directory;
    const std::string folder = directory.file("monday");
};

} // namespace

// ------------------------------------------------------------------------------------------- parts

TEST(Base64, GivesWhatTheStandardHasForEveryLengthAndBack)
{
    const std::vector<std::pair<std::string, std::string>> cases = {{"", ""},
                                                                    {"f", "Zg=="},
                                                                    {"fo", "Zm8="},
                                                                    {"foo", "Zm9v"},
                                                                    {"foob", "Zm9vYg=="},
                                                                    {"fooba", "Zm9vYmE="},
                                                                    {"foobar", "Zm9vYmFy"},
                                                                    {"\xFB\xFF", "+/8="}};
    for (const auto& [clear, text] : cases) {
        const Bytes bytes(clear.begin(), clear.end());
        EXPECT_EQ(text, base64::encode(bytes));
        EXPECT_EQ(bytes, base64::decode(text)) << text;
    }
    for (const char* const wrong : {"Zg=", "Z===", "Zm9*", "Zg==Zg==", "===="})
        EXPECT_THROW(base64::decode(wrong), std::invalid_argument) << wrong;
}

TEST(LineFile, EndsALineThatWasBegunAndCountsThoseThatAreMissingOnceThereIsRoom)
{
    const TemporaryDirectory directory;
    const std::string name = directory.file("lines");
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &before));
    {
        record::LineFile file(::open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        const rlimit narrow{10, before.rlim_max};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &narrow));
        EXPECT_EQ(0, file.write("one\n"));
        EXPECT_EQ(EFBIG, file.write("two is long\n"));
        EXPECT_EQ(EFBIG, file.write("three\n"));
        EXPECT_EQ(EFBIG, file.write("four\n"));
        EXPECT_EQ("one\ntwo is", contentOf(name));
        ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &before));
        EXPECT_EQ(0, file.write("five\n"));
    }
    EXPECT_EQ("one\ntwo is long\n{\"missing\":2}\nfive\n", contentOf(name));
}

TEST(LineFile, OnAFullDiskHasNothingAndSaysSo)
{
    record::LineFile file(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(ENOSPC, file.write("one\n"));
    EXPECT_EQ(ENOSPC, file.write("two\n"));
}

// --------------------------------------------------------------------------------------- the bytes

TEST_F(DaemonRecord, PassesEveryByteOnUnchangedInBothDirections)
{
    standin::Gateway gateway;
    Daemon daemon(to(gateway.port()));
    Client client(daemon.port());
    Bytes all = standin_test::handshake();
    const std::vector<Bytes> requests = {
        callOf(1, echo("hello"), scrambled("Blue7sky")),
        passwordRequest(2, 1, scrambled("Blue7sky"), scrambled("Green8sea")),
        standin_test::flow(1, 3, "ECI", Raw().int32(77)), standin_test::closeFlow()};
    Bytes came;
    ASSERT_TRUE(client.send(all));
    ASSERT_TRUE(gateway.awaitHandshakes());
    for (const Bytes& request : requests) {
        ASSERT_TRUE(client.send(request));
        all.insert(all.end(), request.begin(), request.end());
    }
    ASSERT_TRUE(gateway.awaitCloseFlows());
    client.closeSending();
    ASSERT_TRUE(gateway.awaitClosed());
    const Bytes sent = gateway.sent(1);
    EXPECT_EQ(all, gateway.received(1));
    EXPECT_EQ(sent, client.readBytes(sent.size()));
    EXPECT_TRUE(client.endsInOrder());
}

TEST_F(DaemonRecord, PassesOnWhatItCannotParseAndWritesOnlyHowMuch)
{
    Listener listener;
    Daemon daemon(to(listener.port()));
    StreamPeer application = StreamPeer::to(daemon.port());
    StreamPeer gateway = listener.accept();
    const Bytes garbage = Raw().text("no flow at all, Blue7sky");
    ASSERT_TRUE(application.send(garbage));
    EXPECT_EQ(garbage, gateway.read(garbage.size()));
    ASSERT_TRUE(gateway.send(garbage));
    EXPECT_EQ(garbage, application.read(garbage.size()));
    ASSERT_TRUE(application.send(standin_test::handshake()));
    EXPECT_EQ(standin_test::handshake(), gateway.read(60));
    application.close();
    EXPECT_EQ(Ending::InOrder, gateway.ending());
    gateway.close();
    ASSERT_TRUE(daemon.awaitOutput("connection 1: closed\n"));
    std::vector<std::string> written = lines();
    ASSERT_EQ(6U, written.size());
    EXPECT_EQ("\"from\":\"application\",\"flow\":\"unreadable\",\"withheld\":24}",
              said(written[1]));
    EXPECT_EQ("\"from\":\"gateway\",\"flow\":\"unreadable\",\"withheld\":24}", said(written[2]));
    EXPECT_EQ("\"from\":\"application\",\"flow\":\"unreadable\",\"withheld\":60}",
              said(written[3]));
}

TEST_F(DaemonRecord, PassesOnAHalfCloseBehindItsBytesAndWhatComesBackThen)
{
    Listener listener;
    Daemon daemon(to(listener.port()));
    StreamPeer application = StreamPeer::to(daemon.port());
    StreamPeer gateway = listener.accept();
    ASSERT_TRUE(application.send({'a', 'b'}));
    application.closeSending();
    EXPECT_EQ((Bytes{'a', 'b'}), gateway.read(3));
    const Bytes large(3000000, 'x');
    ASSERT_TRUE(gateway.send({'y'}));
    EXPECT_EQ(Bytes{'y'}, application.read(1));
    std::thread sender([&] {
        gateway.send(large);
        gateway.closeSending();
    });
    EXPECT_EQ(large, application.read(large.size() + 1));
    sender.join();
    EXPECT_EQ(Ending::InOrder, application.ending());
}

TEST_F(DaemonRecord, PassesOnAResetOfEitherSide)
{
    Listener listener;
    Daemon daemon(to(listener.port()));
    {
        StreamPeer application = StreamPeer::to(daemon.port());
        StreamPeer gateway = listener.accept();
        application.reset();
        EXPECT_EQ(Ending::Reset, gateway.ending());
    }
    {
        StreamPeer application = StreamPeer::to(daemon.port());
        StreamPeer gateway = listener.accept();
        gateway.reset();
        EXPECT_EQ(Ending::Reset, application.ending());
    }
    ASSERT_TRUE(daemon.awaitOutput("connection 1: reset by the application\n"));
    ASSERT_TRUE(daemon.awaitOutput("connection 2: reset by the gateway\n"));
    EXPECT_EQ("\"from\":\"application\",\"event\":\"reset\"}", said(lines(1).back()));
    EXPECT_EQ("\"from\":\"gateway\",\"event\":\"reset\"}", said(lines(2).back()));
}

TEST_F(DaemonRecord, PassesOnAResetOfASideThatHasClosedItsOwnBefore)
{
    Listener listener;
    Daemon daemon(to(listener.port()));
    StreamPeer application = StreamPeer::to(daemon.port());
    StreamPeer gateway = listener.accept();
    application.closeSending();
    ASSERT_TRUE(gateway.read(1).empty());
    application.reset();
    // Whoever sends to a connection that is gone learns that it is.
    while (gateway.send({'x'})) {}
    ASSERT_TRUE(daemon.awaitOutput("connection 1: reset by the application\n"));
}

TEST_F(DaemonRecord, TakesNoMoreThanTheOtherSideDoes)
{
    Listener listener(Buffers::Small);
    Daemon daemon(to(listener.port()));
    StreamPeer application = StreamPeer::to(daemon.port(), Buffers::Small);
    StreamPeer gateway = listener.accept();
    Bytes much(moreThanIsUnderWay());
    std::uint32_t last = 7;
    for (std::uint8_t& byte : much) {
        last = last * 1664525U + 1013904223U;
        byte = static_cast<std::uint8_t>(last >> 24U);
    }
    const std::size_t taken = application.sendWhatIsTaken(much, [&] { return daemon.sleeps(); });
    EXPECT_LT(taken, much.size());
    const Bytes rest(much.begin() + static_cast<std::ptrdiff_t>(taken), much.end());
    std::thread sender([&] { EXPECT_TRUE(application.send(rest)); });
    EXPECT_TRUE(much == gateway.read(much.size()));
    sender.join();
}

TEST_F(DaemonRecord, ResetsAnApplicationWhoseGatewayCannotBeReached)
{
    Listener listener;
    const std::uint16_t port = listener.port();
    listener.close();
    Daemon daemon(to(port));
    StreamPeer application = StreamPeer::to(daemon.port());
    EXPECT_EQ(Ending::Reset, application.ending());
    ASSERT_TRUE(daemon.awaitOutput("connection 1: cannot connect to 127.0.0.1:" +
                                   std::to_string(port) + ": Connection refused\n"));
    EXPECT_EQ("\"from\":\"gateway\",\"event\":\"unreachable\"}", said(lines().back()));
}

// --------------------------------------------------------------------------------------- the lines

TEST_F(DaemonRecord, HasALineForEachFlowWithItsFieldsAndItsBytes)
{
    standin::Gateway gateway;
    gateway.setEsiReply([](const standin::EsiRequest&) { return standin::EsiReply(); });
    Daemon daemon(to(gateway.port()));
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    Call call = echo("hello");
    call.mode = 1;
    ASSERT_TRUE(client.send(callOf(7, call, scrambled("Blue7sky"))));
    ASSERT_TRUE(client.read());
    ASSERT_TRUE(client.send(passwordRequest(8, 1, scrambled("Blue7sky"), scrambled("Green8sea"))));
    ASSERT_TRUE(client.read());
    ASSERT_TRUE(gateway.sendException(9, "no reason"));
    ASSERT_TRUE(client.read());
    client.close();
    ASSERT_TRUE(daemon.awaitOutput("connection 1: closed\n"));

    const std::vector<std::string> written = lines();
    ASSERT_EQ(10U, written.size());
    EXPECT_EQ("{\"connection\":1,\"time\":\"T\",\"microseconds\":N,\"from\":\"application\","
              "\"event\":\"opened\",\"application\":\"A\",\"to\":\"A\"}",
              timeless(written[0]));
    EXPECT_EQ("\"from\":\"application\",\"flow\":\"handshake\",\"message\":-2,\"kind\":\"BASE\","
              "\"applid\":\"DEMO1\",\"qualifier\":\"\"," +
                  payloadOf(standin_test::handshake()),
              said(written[1]));
    EXPECT_EQ("\"from\":\"gateway\",\"flow\":\"handshake\",\"message\":-2,\"kind\":\"BASE\","
              "\"gateway\":0," +
                  payloadOf(standin_test::flow(5, -2, "BASE", {})),
              said(written[2]));
    // The passwords are empty, as if there had been none.
    EXPECT_EQ("\"from\":\"application\",\"flow\":\"request\",\"message\":7,\"kind\":\"ECI\","
              "\"type\":\"program\",\"program\":\"ECHO\",\"transaction\":\"TRN1\","
              "\"server\":\"SERVER1\",\"user\":\"FRED\",\"mode\":\"extended\",\"unit\":0,"
              "\"commarea\":{\"length\":5,\"text\":\"hello\"}," +
                  payloadOf(standin_test::eciRequest(7, call)),
              said(written[3]));
    EXPECT_EQ("\"from\":\"gateway\",\"flow\":\"reply\",\"message\":7,\"kind\":\"ECI\","
              "\"gateway\":0,\"code\":0,\"unit\":1,"
              "\"commarea\":{\"length\":5,\"text\":\"hello\"}," +
                  payloadOf(standin_test::flow(3, 7, "ECI",
                                               Raw()
                                                   .int32(1)
                                                   .int32(1)
                                                   .int32(0)
                                                   .int32(0)
                                                   .text("    ")
                                                   .int32(5)
                                                   .byte(0)
                                                   .text("hello")
                                                   .byte(0))),
              said(written[4]));
    EXPECT_EQ("\"from\":\"application\",\"flow\":\"request\",\"message\":8,\"kind\":\"ESI\","
              "\"type\":\"change\",\"user\":\"FRED\",\"server\":\"VORNA\"," +
                  payloadOf(passwordRequest(8, 1, {}, {})),
              said(written[5]));
    EXPECT_EQ(0U, said(written[6])
                      .find("\"from\":\"gateway\",\"flow\":\"reply\",\"message\":8,"
                            "\"kind\":\"ESI\",\"gateway\":0,\"code\":0,\"payload\":"));
    EXPECT_EQ(0U, said(written[7])
                      .find("\"from\":\"gateway\",\"flow\":\"exception\",\"message\":9,"
                            "\"kind\":\"ECI\",\"gateway\":61446,"
                            "\"exception\":\"no reason\",\"payload\":"));
    EXPECT_EQ("\"from\":\"application\",\"event\":\"closed\"}", said(written[8]));
    EXPECT_EQ("\"from\":\"gateway\",\"event\":\"closed\"}", said(written[9]));
}

TEST_F(DaemonRecord, WithholdsARequestThatIsNotWellFormed)
{
    standin::Gateway gateway;
    Daemon daemon(to(gateway.port()));
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    Bytes cutShort = passwordRequest(4, 0, scrambled("Blue7sky"), {});
    cutShort[49] = 100; // a byte of the password's length
    ASSERT_TRUE(client.send(cutShort));
    ASSERT_EQ(6, client.read().value().flowType);
    EXPECT_EQ("\"from\":\"application\",\"flow\":\"request\",\"message\":4,\"kind\":\"ESI\","
              "\"withheld\":" +
                  std::to_string(cutShort.size()) + "}",
              said(lines().at(3)));
}

TEST_F(DaemonRecord, HasAFileForEachConnectionAndGoesOnBehindThoseThatAreThere)
{
    standin::Gateway gateway;
    for (int run = 0; run < 2; ++run) {
        Daemon daemon(to(gateway.port()));
        Client one(daemon.port());
        ASSERT_TRUE(one.shakeHands());
        Client two(daemon.port());
        ASSERT_TRUE(two.shakeHands());
        EXPECT_EQ(0, daemon.stop());
    }
    for (int number = 1; number <= 4; ++number) {
        const std::vector<std::string> written = lines(number);
        ASSERT_EQ(4U, written.size()) << number;
        EXPECT_EQ(0U, written[0].find("{\"connection\":" + std::to_string(number) + ","));
        EXPECT_EQ("\"from\":\"gateway\",\"event\":\"stopped\"}", said(written[3]));
    }
    EXPECT_FALSE(std::filesystem::exists(file(5)));
}

TEST_F(DaemonRecord, HasTheLineBeforeTheApplicationHasItsAnswer)
{
    standin::Gateway gateway;
    Daemon daemon(to(gateway.port()));
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    for (std::size_t i = 1; i <= 200; ++i) {
        client.call(static_cast<int>(i), echo("x"));
        ASSERT_EQ(3 + 2 * i, lines().size());
    }
}

// ----------------------------------------------------------------------------------- misbehaviours

namespace {

class MisbehavingRecord : public DaemonRecord {
protected:
    std::vector<std::string> misbehaving(const std::vector<std::string>& faults) const
    {
        std::vector<std::string> options = to(gateway.port());
        for (const std::string& fault : faults) {
            options.push_back("--misbehave");
            options.push_back(fault);
        }
        return options;
    }

    // How many answers of the Gateway are in the recording of the first connection.
    std::size_t recordedReplies() const
    {
        std::size_t count = 0;
        for (const std::string& line : lines())
            count += line.find("\"flow\":\"reply\"") == std::string::npos ? 0 : 1;
        return count;
    }

    standin::Gateway gateway;
};

bool ask(Client& client, int messageId)
{
    return client.send(standin_test::eciRequest(messageId, echo("x")));
}

} // namespace

TEST_F(MisbehavingRecord, ReplacesTheAnswerThatTheGatewayHasGivenAndRecordsThat)
{
    Daemon daemon(misbehaving({"flow-error=61445@nth:1", "raw=47 61@nth:2"}));
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    ASSERT_TRUE(ask(client, 1));
    const Received answer = client.read().value();
    EXPECT_EQ(4, answer.flowType);
    EXPECT_EQ(1, answer.messageId);
    EXPECT_EQ(61445, answer.gatewayRc);
    ASSERT_TRUE(ask(client, 2));
    EXPECT_EQ((Bytes{0x47, 0x61}), client.readBytes(2));
    EXPECT_EQ("x", client.call(3, echo("x")).commarea);
    EXPECT_EQ(3U, gateway.requestCount());
    EXPECT_EQ(3U, recordedReplies());
    EXPECT_TRUE(daemon.awaitOutput("warning connection 1: request 1 misbehaving: flow-error\n"));
}

TEST_F(MisbehavingRecord, ChangesTheHeaderOfAnAnswer)
{
    Daemon daemon(misbehaving({"gateway-rc=61446@message:1", "unknown-message-id=7@message:2",
                               "request-type=XYZWV@message:3", "bad-eyecatcher@message:4"}));
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    ASSERT_TRUE(ask(client, 1));
    EXPECT_EQ(61446, client.read().value().gatewayRc);
    ASSERT_TRUE(ask(client, 2));
    EXPECT_EQ(7, client.read().value().messageId);
    ASSERT_TRUE(ask(client, 3));
    const Received typed = client.read().value();
    EXPECT_EQ("XYZWV", typed.requestType);
    EXPECT_EQ("x", standin_test::takeApart(typed.body).commarea);
    ASSERT_TRUE(ask(client, 4));
    EXPECT_EQ("Etag", standin_test::textOf(client.readBytes(4)));
}

TEST_F(MisbehavingRecord, SpoilsWhatGoesOutForAnAnswer)
{
    Daemon daemon(misbehaving({"duplicate@nth:1", "ping@nth:2", "truncate=40@nth:3"}));
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    ASSERT_TRUE(ask(client, 1));
    EXPECT_EQ(1, client.read().value().messageId);
    EXPECT_EQ(1, client.read().value().messageId);
    ASSERT_TRUE(ask(client, 2));
    EXPECT_EQ(7, client.read().value().flowType);
    EXPECT_EQ(2, client.read().value().messageId);
    ASSERT_TRUE(ask(client, 3));
    EXPECT_EQ(40U, client.readBytes(41).size());
    EXPECT_TRUE(gateway.awaitClosed());
    EXPECT_EQ("\"from\":\"application\",\"event\":\"dropped\"}", said(lines().back()));
}

TEST_F(MisbehavingRecord, HoldsAnAnswerUntilSigusr1)
{
    Daemon daemon(misbehaving({"hold@message:1"}));
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    ASSERT_TRUE(ask(client, 1));
    EXPECT_EQ("x", client.call(2, echo("x")).commarea); // the Gateway has answered both
    daemon.signal(SIGUSR1);
    EXPECT_EQ(1, client.read().value().messageId);
    EXPECT_TRUE(daemon.awaitOutput("released 1 held answers\n"));
    ASSERT_TRUE(ask(client, 1));
    EXPECT_EQ(1, client.read().value().messageId);
}

TEST_F(MisbehavingRecord, SendsTheAnswersOfSeveralConnectionsTheLastOneFirst)
{
    Daemon daemon(misbehaving({"reverse=2", "drop@connection:2"}));
    Client one(daemon.port());
    ASSERT_TRUE(one.shakeHands());
    Client two(daemon.port());
    ASSERT_TRUE(two.shakeHands());
    ASSERT_TRUE(ask(one, 1));
    ASSERT_TRUE(gateway.awaitAnswers(1));
    ASSERT_TRUE(ask(two, 5));
    EXPECT_TRUE(two.endsInOrder());
    EXPECT_EQ(1, one.read().value().messageId);
}

TEST_F(MisbehavingRecord, DropsAndResetsConnectionsAsTheyOpen)
{
    Daemon daemon(
        misbehaving({"drop-at-connect@connection:1", "reset-at-connect@connection:2",
                     "no-handshake-answer@connection:3", "refuse-handshake=61450@connection:4"}));
    EXPECT_EQ(Ending::InOrder, StreamPeer::to(daemon.port()).ending());
    EXPECT_EQ(Ending::Reset, StreamPeer::to(daemon.port()).ending());
    EXPECT_EQ(0U, gateway.connectionCount());
    Client three(daemon.port());
    ASSERT_TRUE(three.send(standin_test::handshake()));
    EXPECT_EQ("x", (ask(three, 1), standin_test::takeApart(three.read().value().body).commarea));
    Client four(daemon.port());
    ASSERT_TRUE(four.send(standin_test::handshake()));
    const Received refusal = four.read().value();
    EXPECT_EQ(-2, refusal.messageId);
    EXPECT_EQ(61450, refusal.gatewayRc);
}

TEST_F(MisbehavingRecord, KeepsTheAnswerToACloseFlow)
{
    Daemon daemon(misbehaving({"no-close-answer"}));
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    ASSERT_TRUE(client.send(standin_test::closeFlow()));
    ASSERT_TRUE(gateway.awaitCloseFlows());
    client.closeSending();
    EXPECT_TRUE(client.readBytes(1).empty());
}

TEST_F(MisbehavingRecord, SendsInPieces)
{
    Daemon daemon(misbehaving({"pieces=1@connection:2"}));
    Client one(daemon.port());
    ASSERT_TRUE(one.shakeHands());
    Client two(daemon.port());
    ASSERT_TRUE(two.shakeHands());
    const unsigned before = two.segmentsReceived();
    EXPECT_EQ("x", two.call(1, echo("x")).commarea);
    EXPECT_GT(two.segmentsReceived() - before, 10U);
    EXPECT_EQ("x", one.call(1, echo("x")).commarea);
    EXPECT_LT(one.segmentsReceived(), 6U);
}

TEST_F(DaemonRecord, WithMisbehavioursPassesOnWhatIsNoFlowAndTakesNoMoreThanTheOtherSideDoes)
{
    Listener listener(Buffers::Small);
    std::vector<std::string> options = to(listener.port());
    options.insert(options.end(), {"--misbehave", "drop@message:1"});
    Daemon daemon(options);
    StreamPeer application = StreamPeer::to(daemon.port(), Buffers::Small);
    StreamPeer gateway = listener.accept();
    ASSERT_TRUE(application.send({'a', 'b'}));
    EXPECT_EQ((Bytes{'a', 'b'}), gateway.read(2));
    const Bytes much(moreThanIsUnderWay(), 'y');
    const std::size_t taken = gateway.sendWhatIsTaken(much, [&] { return daemon.sleeps(); });
    EXPECT_LT(taken, much.size());
    std::thread sender([&] {
        gateway.send(Bytes(much.begin() + static_cast<std::ptrdiff_t>(taken), much.end()));
        gateway.closeSending();
    });
    EXPECT_TRUE(much == application.read(much.size() + 1));
    sender.join();
    application.closeSending();
    EXPECT_TRUE(gateway.read(1).empty());
    EXPECT_TRUE(daemon.awaitOutput("connection 1: closed\n"));
}

TEST_F(DaemonRecord, WithMisbehavioursPassesOnWhatIsLeftWhenAFlowIsCutShort)
{
    Listener listener;
    std::vector<std::string> options = to(listener.port());
    options.insert(options.end(), {"--misbehave", "drop@message:1"});
    Daemon daemon(options);
    StreamPeer application = StreamPeer::to(daemon.port());
    StreamPeer gateway = listener.accept();
    ASSERT_TRUE(gateway.send({'G', 'a', 't', 'e', 0x10}));
    gateway.closeSending();
    EXPECT_EQ((Bytes{'G', 'a', 't', 'e', 0x10}), application.read(6));
}

// ---------------------------------------------------------------------------------------- failures

TEST_F(DaemonRecord, InAFolderThatGoesAwayIsComplainedAboutOnceAndHoldsUpNobody)
{
    standin::Gateway gateway;
    Daemon daemon(to(gateway.port()));
    daemon.port();
    std::filesystem::remove(folder);
    for (int i = 1; i <= 2; ++i) {
        Client client(daemon.port());
        ASSERT_TRUE(client.shakeHands());
        EXPECT_EQ("x", client.call(i, echo("x")).commarea);
    }
    std::filesystem::create_directory(folder);
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    EXPECT_EQ(0, daemon.stop());
    const std::string complaint = "error   cannot write the recording " + file(1) +
                                  ": No such file or directory; traffic goes on";
    const std::size_t at = daemon.output().find(complaint);
    ASSERT_NE(std::string::npos, at) << daemon.output();
    EXPECT_EQ(std::string::npos, daemon.output().find("cannot write", at + complaint.size()));
    EXPECT_TRUE(daemon.wrote("the recording goes on with " + file(3))) << daemon.output();
    EXPECT_EQ(4U, lines(3).size());
}

TEST_F(DaemonRecord, OnAFullDiskIsComplainedAboutOnceAndHoldsUpNobody)
{
    standin::Gateway gateway;
    Daemon daemon(to(gateway.port()), "ulimit -f 8");
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    for (int i = 1; i <= 100; ++i) ASSERT_EQ("x", client.call(i, echo("x")).commarea) << i;
    EXPECT_EQ(0, daemon.stop());
    const std::string complaint = "error   cannot write the recording " + file(1) +
                                  ": File too large; traffic goes on, and is missing there until "
                                  "it can be written to\n";
    const std::size_t at = daemon.output().find(complaint);
    ASSERT_NE(std::string::npos, at) << daemon.output();
    EXPECT_EQ(std::string::npos, daemon.output().find("cannot write", at + complaint.size()));
    EXPECT_EQ(0U, contentOf(file(1)).find("{\"connection\":1,"));
}

TEST_F(DaemonRecord, WithoutItsFolderEndsWithCode9)
{
    std::ofstream(folder) << "a file";
    Daemon daemon(to(5770));
    EXPECT_EQ(9, daemon.end());
    EXPECT_TRUE(daemon.wrote("cannot use the folder " + folder +
                             ": "
                             "Not a directory. Give one that may be written to with --record.\n"))
        << daemon.output();
}

TEST_F(DaemonRecord, RefusesAPlaceThatIsNoneAndOptionsOfAGatewayOfItsOwn)
{
    for (const char* const place : {"here", ":5770", "here:", "here:0", "here:65536", "here:x"}) {
        Daemon daemon({"--record", place, folder});
        EXPECT_EQ(2, daemon.end()) << place;
        EXPECT_TRUE(daemon.wrote(std::string("\"") + place + "\" is not HOST:PORT"))
            << daemon.output();
    }
    Daemon daemon({"--record", "here:5770", folder, "--database", directory.file("ledger.db")});
    EXPECT_EQ(2, daemon.end());
    EXPECT_TRUE(daemon.wrote("--database excludes --record")) << daemon.output();
}

// --------------------------------------------------------------------------------------- passwords

TEST_F(DaemonRecord, AndLogHaveNoPasswordOfFiveHundred)
{
    std::mt19937 chance(13);
    std::vector<std::string> passwords;
    for (int i = 0; i < 500; ++i) {
        std::string password;
        for (std::size_t length = 10 + chance() % 20; length > 0; --length)
            password += static_cast<char>('!' + chance() % 94);
        passwords.push_back(password);
    }
    standin::Gateway gateway;
    gateway.setEsiReply([](const standin::EsiRequest&) { return standin::EsiReply(); });
    Daemon daemon(to(gateway.port()));
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    for (std::size_t i = 0; i < passwords.size(); ++i) {
        const Bytes masked = scrambled(passwords[i]);
        const Bytes next = scrambled(passwords[(i + 1) % passwords.size()]);
        ASSERT_TRUE(client.send(callOf(1, echo("x"), masked)));
        ASSERT_EQ(3, client.read().value().flowType);
        ASSERT_TRUE(client.send(passwordRequest(2, static_cast<int>(i % 2), masked, next)));
        ASSERT_EQ(3, client.read().value().flowType);
        Bytes wrong = passwordRequest(3, 1, masked, next);
        wrong[static_cast<std::size_t>(46 + i % 4)] = 100; // of the 4 that are the length
        ASSERT_TRUE(client.send(wrong));
        ASSERT_EQ(6, client.read().value().flowType);
    }
    // One that ends within a flow, and one that is none.
    Bytes rest = callOf(4, echo("x"), scrambled(passwords[0]));
    rest.pop_back();
    ASSERT_TRUE(client.send(rest));
    client.close();
    ASSERT_TRUE(daemon.awaitOutput("connection 1: "));
    StreamPeer other = StreamPeer::to(daemon.port());
    ASSERT_TRUE(other.send(Raw().text(passwords[1])));
    EXPECT_EQ(Ending::InOrder, other.ending());
    EXPECT_EQ(0, daemon.stop());

    std::string all = daemon.output();
    std::size_t requests = 0;
    for (int number = 1; number <= 2; ++number) {
        for (const std::string& line : lines(number)) {
            all += line + "\n";
            const call_json::Json json = call_json::Json::parse(line);
            requests += json.value("flow", std::string()) == "request" ? 1 : 0;
            if (!json.contains("payload")) continue;
            const Bytes bytes = base64::decode(json.at("payload").get<std::string>());
            all.append(bytes.begin(), bytes.end());
        }
    }
    EXPECT_EQ(3 * passwords.size(), requests);
    for (const std::string& password : passwords) {
        const std::string masked = standin_test::textOf(scrambled(password));
        ASSERT_EQ(std::string::npos, all.find(password)) << password;
        ASSERT_EQ(std::string::npos, all.find(masked)) << password;
        ASSERT_EQ(std::string::npos, all.find(masked.substr(0, 6))) << password;
    }
}

// -------------------------------------------------------------------------------------- the manual

TEST_F(DaemonRecord, IsAsTheManualShowsIt)
{
    standin::Gateway gateway;
    Daemon daemon(to(gateway.port()));
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    client.call(1, echo("hello"));
    ASSERT_TRUE(client.send(standin_test::closeFlow()));
    ASSERT_TRUE(client.read());
    client.close();
    ASSERT_TRUE(daemon.awaitOutput("connection 1: closed\n"));
    std::string manual = contentOf(GATEWAY_DOCUMENT);
    manual = manual.substr(manual.find("\n## Recording"));
    manual = manual.substr(manual.find("{\"connection\":1"));
    manual = manual.substr(0, manual.find("```"));
    EXPECT_EQ(timeless(contentOf(file(1))),
              std::regex_replace(timeless(manual), std::regex("gateway\\.example:5770"), "A"));
}
