// qpxgatewayd answering from a recording, and the script that it makes of one.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "client.h"
#include "daemon.h"
#include "standin/gateway.h"
#include "temporary_directory.h"

using standin::Bytes;
using standin_test::Call;
using standin_test::Client;
using standin_test::Daemon;
using standin_test::Raw;
using standin_test::Received;
using standin_test::TemporaryDirectory;

namespace {

Call price(const std::string& article)
{
    Call call;
    call.program = "PRICE";
    call.user = "FRED";
    call.commarea = article;
    return call;
}

Bytes verification(int messageId, const std::string& user)
{
    return standin_test::flow(
        1, messageId, "ESI",
        Raw().int32(0).padded(user, 10).int32(3).text("\xBE\x03\x01").padded("VORNA", 8, ' '));
}

class DaemonReplay : public testing::Test {
protected:
    DaemonReplay()
    {
        gateway.setReply("PRICE", [this](const standin::EciRequest& request) {
            const std::string text = "price " + std::to_string(++prices);
            standin::EciReply reply = standin::EciReply::withCommarea(
                request, Bytes(text.begin(), text.end()));
            reply.delay = delay;
            return reply;
        });
        gateway.setEsiReply([](const standin::EsiRequest& request) {
            standin::EsiReply reply;
            reply.vornRc = request.userId == "FRED" ? 0 : -105;
            return reply;
        });
    }

    // Records what the client does in front of the Gateway.
    template <typename Talk>
    void recordWhat(Talk talk)
    {
        Daemon daemon({"--record", "127.0.0.1:" + std::to_string(gateway.port()), folder});
        Client client(daemon.port());
        ASSERT_TRUE(client.shakeHands());
        talk(client);
        ASSERT_EQ(0, daemon.stop());
    }

    std::vector<std::string> options(const std::vector<std::string>& more = {}) const
    {
        std::vector<std::string> all = {"--replay", folder};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }

    standin::Gateway gateway;
    std::chrono::milliseconds delay{0};
    int prices = 0;
    const TemporaryDirectory directory;
    const std::string folder = directory.file("monday");
};

std::string answerTo(Client& client, int messageId, const std::string& article)
{
    return client.call(messageId, price(article)).commarea;
}

} // namespace

TEST_F(DaemonReplay, AnswersTheSameRequestsWithTheSameBytes)
{
    const auto talk = [](Client& client) {
        Bytes all = Raw();
        const std::vector<Bytes> requests = {
            standin_test::eciRequest(1, price("100105      ")), verification(2, "FRED"),
            verification(3, "NOBODY"),
            standin_test::flow(1, 4, "ECI",
                               Raw().int32(9).int32(5).int16(0).byte(0).int32(-1).int32(7))};
        for (const Bytes& request : requests) {
            EXPECT_TRUE(client.send(request));
            const std::optional<Received> answer = client.read();
            EXPECT_TRUE(answer);
            if (!answer) return all;
            const Bytes bytes = Raw()
                                    .int32(answer->flowType)
                                    .int32(answer->messageId)
                                    .int32(answer->gatewayRc)
                                    .text(answer->requestType)
                                    .bytes(answer->body);
            all.insert(all.end(), bytes.begin(), bytes.end());
        }
        return all;
    };
    Bytes recorded;
    recordWhat([&](Client& client) { recorded = talk(client); });
    for (const char* const order : {"", "--in-order"}) {
        Daemon daemon(*order == '\0' ? options() : options({order}));
        Client client(daemon.port());
        ASSERT_TRUE(client.shakeHands());
        EXPECT_EQ(recorded, talk(client)) << order;
        EXPECT_EQ(0, daemon.stop());
        EXPECT_TRUE(daemon.wrote("info    replayed: 4 requests, 0 without an answer, 0 answered "
                                 "again; 0 of 4 recorded ones did not come\n"))
            << daemon.output();
    }
    EXPECT_EQ(1, prices);
}

TEST_F(DaemonReplay, MatchesProgramAndDataInAnyOrderAndOnAnyConnection)
{
    recordWhat([](Client& client) {
        EXPECT_EQ("price 1", answerTo(client, 1, "100105      "));
        EXPECT_EQ("price 2", answerTo(client, 2, "900200      "));
        EXPECT_EQ("price 3", answerTo(client, 3, "100105      "));
    });
    Daemon daemon(options());
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    EXPECT_EQ("price 2", answerTo(client, 7, "900200      "));
    Client other(daemon.port());
    ASSERT_TRUE(other.shakeHands());
    EXPECT_EQ("price 1", answerTo(other, 1, "100105      "));
    EXPECT_EQ("price 3", answerTo(client, 9, "100105      "));
    EXPECT_EQ("price 3", answerTo(other, 2, "100105      ")); // the last one stays
    EXPECT_EQ(0, daemon.stop());
    EXPECT_TRUE(daemon.wrote("replayed: 4 requests, 0 without an answer, 1 answered again; "
                             "0 of 3 recorded ones did not come\n"))
        << daemon.output();
}

TEST_F(DaemonReplay, GivesTheAnswerTheMessageQualifierOfItsRequest)
{
    recordWhat([](Client& client) { answerTo(client, 1, "100105      "); });
    Daemon daemon(options());
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    Bytes body = standin_test::eciBody(price("100105      "));
    body[15] = 42; // the last byte of the qualifier
    ASSERT_TRUE(client.send(standin_test::flow(1, 5, "ECI", body)));
    EXPECT_EQ(42, standin_test::takeApart(client.read().value().body).messageQualifier);
}

TEST_F(DaemonReplay, SaysWhichRequestHasNoAnswer)
{
    recordWhat([](Client& client) { answerTo(client, 1, "100105      "); });
    Daemon daemon(options());
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    ASSERT_TRUE(client.send(standin_test::eciRequest(4, price("100106"))));
    const Received answer = client.read().value();
    EXPECT_EQ(6, answer.flowType);
    EXPECT_EQ(4, answer.messageId);
    const std::string text = "no answer is recorded for program \"PRICE\" with 6 bytes";
    EXPECT_EQ(text, standin_test::textOf(answer.body).substr(3));
    EXPECT_EQ(0, daemon.stop());
    EXPECT_TRUE(daemon.wrote("warning connection 1: request 4: " + text + "\n"));
    EXPECT_TRUE(daemon.wrote("warning replayed: 1 request, 1 without an answer, 0 answered again; "
                             "1 of 1 recorded ones did not come\n"))
        << daemon.output();
}

TEST_F(DaemonReplay, InOrderAnswersNothingButTheNextOne)
{
    recordWhat([](Client& client) {
        answerTo(client, 1, "100105      ");
        answerTo(client, 2, "900200      ");
    });
    Daemon daemon(options({"--in-order"}));
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    ASSERT_TRUE(client.send(standin_test::eciRequest(1, price("900200      "))));
    EXPECT_EQ(6, client.read().value().flowType);
    EXPECT_EQ("price 1", answerTo(client, 2, "100105      "));
    EXPECT_EQ("price 2", answerTo(client, 3, "900200      "));
    ASSERT_TRUE(client.send(standin_test::eciRequest(4, price("900200      "))));
    EXPECT_EQ(6, client.read().value().flowType);
}

TEST_F(DaemonReplay, AtRecordedSpeedKeepsAnAnswerAsLongAsTheGatewayDid)
{
    delay = std::chrono::milliseconds(200);
    recordWhat([](Client& client) { answerTo(client, 1, "100105      "); });
    Daemon daemon(options({"--recorded-speed"}));
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ("price 1", answerTo(client, 1, "100105      "));
    EXPECT_GE(std::chrono::steady_clock::now() - start, delay);
}

TEST_F(DaemonReplay, HasMisbehavioursOnTop)
{
    recordWhat([](Client& client) { answerTo(client, 1, "100105      "); });
    Daemon daemon(
        options({"--misbehave", "flow-error=61445@nth:1", "--misbehave", "truncate=40@nth:2"}));
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    ASSERT_TRUE(client.send(standin_test::eciRequest(1, price("100105      "))));
    EXPECT_EQ(61445, client.read().value().gatewayRc);
    ASSERT_TRUE(client.send(standin_test::eciRequest(2, price("100105      "))));
    EXPECT_EQ(40U, client.readBytes(41).size());
}

TEST_F(DaemonReplay, HasMisbehavioursInTheHeaderAndAtRecordedSpeedToo)
{
    recordWhat([](Client& client) { answerTo(client, 1, "100105      "); });
    Daemon daemon(options({"--recorded-speed", "--misbehave", "gateway-rc=61446@nth:1",
                           "--misbehave", "request-type=XYZWV@nth:2", "--misbehave", "hold@nth:3",
                           "--misbehave", "truncate=40@nth:4"}));
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    const auto ask = [&](int id) {
        return client.send(standin_test::eciRequest(id, price("100105      ")));
    };
    ASSERT_TRUE(ask(1));
    EXPECT_EQ(61446, client.read().value().gatewayRc);
    ASSERT_TRUE(ask(2));
    const Received typed = client.read().value();
    EXPECT_EQ("XYZWV", typed.requestType);
    EXPECT_EQ("price 1", standin_test::takeApart(typed.body).commarea);
    ASSERT_TRUE(ask(3));
    ASSERT_TRUE(daemon.awaitOutput("request 3 misbehaving: hold\n"));
    ASSERT_TRUE(ask(4));
    EXPECT_EQ(40U, client.readBytes(41).size());
}

TEST_F(DaemonReplay, OfWhatIsNoRecordingEndsWithCode9AndShowsNothingOfIt)
{
    Daemon nothing(options());
    EXPECT_EQ(9, nothing.end());
    std::filesystem::create_directory(folder);
    Daemon empty(options());
    EXPECT_EQ(9, empty.end());
    EXPECT_TRUE(empty.wrote("cannot replay " + folder + ": there is no recording in it"))
        << empty.output();
    std::ofstream(folder + "/connection-000001.jsonl") << "{\"missing\":2}\nBlue7sky\n";
    Daemon wrong(options());
    EXPECT_EQ(9, wrong.end());
    EXPECT_TRUE(wrong.wrote("cannot replay " + folder +
                            ": connection-000001.jsonl, line 2 is not one of a recording"))
        << wrong.output();
    EXPECT_FALSE(wrong.wrote("Blue7sky"));
}

// A folder opens as files do, and fails when it is read.
TEST_F(DaemonReplay, OfAFileThatCannotBeReadToItsEndEndsWithCode9)
{
    recordWhat([](Client& client) { EXPECT_EQ("price 1", answerTo(client, 1, "100105      ")); });
    std::filesystem::create_directory(folder + "/connection-000002.jsonl");
    Daemon daemon(options());
    EXPECT_EQ(9, daemon.end());
    EXPECT_TRUE(daemon.wrote("cannot replay " + folder +
                             ": connection-000002.jsonl cannot be read to its end"))
        << daemon.output();
}

TEST_F(DaemonReplay, OfAFileThatCannotBeOpenedEndsWithCode9AndNamesIt)
{
    recordWhat([](Client& client) { EXPECT_EQ("price 1", answerTo(client, 1, "100105      ")); });
    std::filesystem::create_symlink("nowhere", folder + "/connection-000002.jsonl");
    Daemon daemon(options());
    EXPECT_EQ(9, daemon.end());
    EXPECT_TRUE(daemon.wrote("cannot replay " + folder +
                             ": connection-000002.jsonl cannot be read: No such file or directory"))
        << daemon.output();
}

// -------------------------------------------------------------------------------------- the script

TEST_F(DaemonReplay, MakesAScriptThatAnswersAsTheRecording)
{
    gateway.setReply("STOCK", [](const standin::EciRequest& request) {
        return standin::EciReply::abend(request, "NONE");
    });
    gateway.setReply("DATA", [](const standin::EciRequest& request) {
        return standin::EciReply::withCommarea(request, {0x01, 0xFF, 0x00});
    });
    gateway.setReply("SAY", [](const standin::EciRequest& request) {
        const std::string text = "\"${user}\"\\";
        return standin::EciReply::withCommarea(request, Bytes(text.begin(), text.end()));
    });
    const auto talk = [](Client& client) {
        EXPECT_EQ("price 1", answerTo(client, 1, "100105      "));
        EXPECT_EQ("price 2", answerTo(client, 2, "100105      "));
        Call call = price("x");
        call.program = "STOCK";
        EXPECT_EQ("NONE", client.call(3, call).abendCode);
        call.program = "DATA";
        call.commarea = "\x02zz";
        EXPECT_EQ(std::string("\x01\xFF\0", 3), client.call(4, call).commarea);
        call.program = "SAY";
        call.commarea = "something long";
        EXPECT_EQ("\"${user}\"\\", client.call(5, call).commarea);
    };
    recordWhat([&](Client& client) {
        talk(client);
        client.send(verification(6, "FRED"));
        client.read();
    });
    Daemon writer({"--record-script", folder});
    EXPECT_EQ(0, writer.end());
    EXPECT_EQ("# What was recorded. Make it your own: a call that nothing here fits goes on to "
              "the\n"
              "# gateway's own programs.\n"
              "# Not here: 1 requests of passwords.\n"
              "\n"
              "[[on]]\n"
              "program = \"PRICE\"\n"
              "commarea = \"100105\"\n"
              "answers = [\n"
              "    { text = \"price 1\" },\n"
              "    { text = \"price 2\" },\n"
              "]\n"
              "\n"
              "[[on]]\n"
              "program = \"STOCK\"\n"
              "commarea = \"x\"\n"
              "answer = { abend = \"NONE\" }\n"
              "\n"
              "[[on]]\n"
              "program = \"DATA\"\n"
              "commarea = { hex = \"027a7a\", length = 3 }\n"
              "answer = { hex = \"01ff00\" }\n"
              "\n"
              "[[on]]\n"
              "program = \"SAY\"\n"
              "commarea = \"something long\"\n"
              "answer = { text = \"\\\"$${user}\\\"\\\\\" }\n",
              writer.output());
    const std::string script = directory.file("answers.toml");
    std::ofstream(script) << writer.output();
    Daemon daemon({"--script", script});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    talk(client);
}

TEST_F(DaemonReplay, MakesNoScriptOfWhatIsNoRecording)
{
    Daemon writer({"--record-script", folder});
    EXPECT_EQ(9, writer.end());
    EXPECT_TRUE(writer.wrote("cannot use " + folder + ": No such file or directory"))
        << writer.output();
}
