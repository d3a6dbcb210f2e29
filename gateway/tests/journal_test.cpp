// The journal of qpxgatewayd: what a line says, and what becomes of it when nobody takes it.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>

#include "client.h"
#include "daemon.h"
#include "scrambled.h"
#include "temporary_directory.h"

using standin_test::Call;
using standin_test::Client;
using standin_test::Daemon;
using standin_test::Raw;
using standin_test::TemporaryDirectory;

namespace {

std::string contentOf(const std::string& file)
{
    std::ostringstream content;
    content << std::ifstream(file).rdbuf();
    return content.str();
}

// Its times, which differ from run to run, as T and N.
std::string timeless(const std::string& text)
{
    static const std::regex time("\"time\":\"20[0-9]{2}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:"
                                 "[0-9]{2}\\.[0-9]{6}[-+][0-9]{4}\"");
    static const std::regex took("\"microseconds\":[0-9]+");
    return std::regex_replace(std::regex_replace(text, time, "\"time\":\"T\""), took,
                              "\"microseconds\":N");
}

standin::Bytes verification(const std::string& user, const standin::Bytes& masked)
{
    return standin_test::flow(1, 3, "ESI",
                              Raw()
                                  .int32(0)
                                  .padded(user, 10)
                                  .int32(static_cast<int>(masked.size()))
                                  .bytes(masked)
                                  .padded("VORNA", 8, ' '));
}

standin::Bytes callOf(const std::string& program, const std::string& user,
                      const standin::Bytes& masked)
{
    Call call;
    call.program = program;
    call.user = user;
    standin::Bytes body = standin_test::eciBody(call);
    body[48] = static_cast<std::uint8_t>(masked.size());
    body.insert(body.begin() + 49, masked.begin(), masked.end());
    return standin_test::flow(1, 5, "ECI", body);
}

class DaemonJournal : public testing::Test {
protected:
    // What the journal says of what a client does.
    template <typename Talk>
    std::string journalOf(Talk talk, std::vector<std::string> more = {})
    {
        more.insert(more.end(), {"--journal", file});
        Daemon daemon(more);
        Client client(daemon.port());
        EXPECT_TRUE(client.shakeHands());
        talk(client);
        client.close();
        EXPECT_TRUE(daemon.awaitOutput("closed"));
        EXPECT_EQ(0, daemon.stop());
        return timeless(contentOf(file));
    }

    const TemporaryDirectory directory;
    const std::string file = directory.file("calls.jsonl");
};

Call echo(const std::string& commarea)
{
    Call call;
    call.user = "FRED";
    call.commarea = commarea;
    return call;
}

} // namespace

TEST_F(DaemonJournal, HasALineForACallWithWhatCameAndWhatWent)
{
    EXPECT_EQ("{\"call\":1,\"time\":\"T\",\"connection\":1,\"message\":7,\"type\":\"program\","
              "\"program\":\"ECHO\",\"transaction\":\"TRN1\",\"server\":\"SERVER1\","
              "\"user\":\"FRED\",\"mode\":\"extended\",\"unit\":0,\"commarea\":{\"length\":5,"
              "\"text\":\"hello\"},\"answer\":{\"flow\":\"reply\",\"bytes\":63,\"gateway\":0,"
              "\"code\":0,\"unit\":1,\"commarea\":{\"length\":5,\"text\":\"hello\"}},"
              "\"microseconds\":N}\n",
              journalOf([](Client& client) {
                  Call call = echo("hello");
                  call.mode = 1;
                  client.call(7, call);
              }));
}

TEST_F(DaemonJournal, HasDataThatAreNoTextInHexAndContainersInTheirCodePage)
{
    const std::string line = journalOf([](Client& client) {
        Call call = echo("\x01\xFF");
        call.channel = standin_test::channelSection(
            "ORDER", 819,
            {standin_test::record("NAME", 1, 2, 37, 2, "\xC1\xC2"),
             standin_test::record("DATA", 1, 1, 0, 1, "A")});
        client.call(1, call);
    });
    EXPECT_NE(std::string::npos, line.find("\"commarea\":{\"length\":2,\"hex\":\"01ff\"},"
                                           "\"channel\":{\"name\":\"ORDER\",\"ccsid\":819,"
                                           "\"containers\":[{\"name\":\"NAME\",\"change\":"
                                           "\"added\",\"type\":\"char\",\"ccsid\":37,\"length\":2,"
                                           "\"text\":\"AB\"},{\"name\":\"DATA\",\"change\":"
                                           "\"added\",\"type\":\"bit\",\"ccsid\":0,\"length\":1,"
                                           "\"hex\":\"41\"}]}"))
        << line;
    EXPECT_NE(std::string::npos, line.find("\"change\":\"unchanged\"")) << line;
}

TEST_F(DaemonJournal, HasEveryKindOfRequest)
{
    const std::string journal = journalOf([](Client& client) {
        client.send(standin_test::flow(
            1, 1, "ECI", Raw().int32(9).int32(5).int16(0).byte(0).int32(-1).int32(7)));
        ASSERT_TRUE(client.read());
        client.send(verification("FRED", standin_test::scrambled("Blue7sky")));
        ASSERT_TRUE(client.read());
        standin::Bytes body = standin_test::eciBody(echo(""));
        body[7] = 3; // the extend mode
        client.send(standin_test::flow(1, 4, "ECI", body));
        ASSERT_TRUE(client.read());
        Call abend = echo("AB12");
        abend.program = "ABEND";
        client.call(5, abend);
    });
    EXPECT_EQ("{\"call\":1,\"time\":\"T\",\"connection\":1,\"message\":1,\"type\":\"list\","
              "\"room\":5,\"answer\":{\"flow\":\"reply\",\"bytes\":48,\"gateway\":0,\"code\":-26,"
              "\"unit\":0,\"commarea\":{\"length\":0,\"text\":\"\"}},\"microseconds\":N}\n"
              "{\"call\":2,\"time\":\"T\",\"connection\":1,\"message\":3,\"type\":\"verify\","
              "\"user\":\"FRED\",\"server\":\"VORNA\",\"answer\":{\"flow\":\"error\",\"bytes\":32,"
              "\"gateway\":61451},\"microseconds\":N}\n",
              journal.substr(0, journal.find("{\"call\":3")));
    EXPECT_NE(std::string::npos,
              journal.find("\"message\":4,\"type\":\"malformed\",\"problem\":\"extend mode is 3, "
                           "not 0, 1, 2 or 4 at byte 36\",\"answer\":{\"flow\":\"exception\","))
        << journal;
    EXPECT_NE(std::string::npos, journal.find("\"code\":-7,\"abend\":\"AB12\",\"unit\":0"))
        << journal;
}

TEST_F(DaemonJournal, HasMisbehavioursAndCallsWithoutAnAnswer)
{
    const std::string journal = journalOf(
        [](Client& client) { client.send(standin_test::eciRequest(1, echo("x"))); },
        {"--misbehave", "no-answer"});
    EXPECT_NE(std::string::npos,
              journal.find("\"answer\":null,\"faults\":[\"no-answer\"],\"microseconds\":N}\n"))
        << journal;
}

TEST_F(DaemonJournal, HasTheLineBeforeTheClientHasItsAnswer)
{
    Daemon daemon({"--journal", file});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    for (int i = 1; i <= 200; ++i) {
        client.call(i, echo("x"));
        const std::string text = contentOf(file);
        ASSERT_EQ(i, std::count(text.begin(), text.end(), '\n'));
    }
}

TEST_F(DaemonJournal, GoesOnBehindWhatIsThereOnALineOfItsOwn)
{
    std::ofstream(file) << "{\"call\":1,\"ti"; // by one that was killed
    const std::string journal = journalOf([](Client& client) { client.call(1, echo("x")); });
    EXPECT_EQ(0U, journal.find("{\"call\":1,\"ti\n{\"call\":1,\"time\"")) << journal;
}

TEST_F(DaemonJournal, MayBeStandardOutput)
{
    const std::string port = directory.file("port");
    Daemon daemon({"--journal", "-", "--log-level", "error", "--port-file", port},
                  "exec 2>/dev/null");
    Daemon other({"--journal", "-"});
    Client client(other.port());
    ASSERT_TRUE(client.shakeHands());
    client.call(1, echo("x"));
    EXPECT_TRUE(other.awaitOutput("\n{\"call\":1,\"time\":"));
    while (!std::filesystem::exists(port)) {} // until it understands signals
    EXPECT_EQ(0, daemon.stop());
    EXPECT_EQ("", daemon.output());
}

TEST_F(DaemonJournal, ThatCannotBeOpenedEndsWithCode8)
{
    Daemon daemon({"--journal", directory.file("missing/calls.jsonl")});
    EXPECT_EQ(8, daemon.end());
    EXPECT_TRUE(daemon.wrote("cannot open the journal " + directory.file("missing/calls.jsonl") +
                             ": No such file or directory. Give a file in a directory that may be "
                             "written to, or - for standard output, with --journal.\n"))
        << daemon.output();
    Daemon empty({"--journal", ""});
    EXPECT_EQ(2, empty.end());

    const std::string pipe = directory.file("pipe");
    ASSERT_EQ(0, ::mkfifo(pipe.c_str(), 0600));
    Daemon unread({"--journal", pipe});
    EXPECT_EQ(8, unread.end());
}

TEST_F(DaemonJournal, OnAFullDiskIsComplainedAboutOnceAndHoldsUpNobody)
{
    Daemon daemon({"--journal", "/dev/full"});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    for (int i = 1; i <= 100; ++i) ASSERT_EQ("x", client.call(i, echo("x")).commarea) << i;
    EXPECT_EQ(0, daemon.stop());
    const std::string complaint = "error   cannot write the journal /dev/full: No space left on "
                                  "device; calls are answered, and are missing there until it can "
                                  "be written to\n";
    const std::size_t at = daemon.output().find(complaint);
    ASSERT_NE(std::string::npos, at) << daemon.output();
    EXPECT_EQ(std::string::npos, daemon.output().find("cannot write", at + complaint.size()));
}

TEST_F(DaemonJournal, ThatNobodyReadsAnyMoreIsComplainedAboutAndHoldsUpNobody)
{
    const std::string pipe = directory.file("pipe");
    ASSERT_EQ(0, ::mkfifo(pipe.c_str(), 0600));
    const int reader = ::open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    Daemon daemon({"--journal", pipe});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    ASSERT_EQ("x", client.call(1, echo("x")).commarea);
    ::close(reader);
    for (int i = 2; i <= 100; ++i) ASSERT_EQ("x", client.call(i, echo("x")).commarea) << i;
    EXPECT_EQ(0, daemon.stop());
    EXPECT_TRUE(daemon.wrote("cannot write the journal " + pipe +
                             ": Broken pipe; nobody reads it any more, and there is no journal "
                             "from now on\n"))
        << daemon.output();
}

TEST_F(DaemonJournal, ThatIsReadLateHoldsUpNobodyAndIsWhole)
{
    constexpr int kCalls = 1000; // some 300 kB of lines, more than a pipe holds
    const std::string pipe = directory.file("pipe");
    ASSERT_EQ(0, ::mkfifo(pipe.c_str(), 0600));
    const int reader = ::open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    Daemon daemon({"--journal", pipe});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    for (int i = 1; i <= kCalls; ++i) ASSERT_EQ("x", client.call(i, echo("x")).commarea) << i;
    ::fcntl(reader, F_SETFL, 0);
    const std::string last = "{\"call\":" + std::to_string(kCalls) + ",";
    std::string journal;
    char buffer[65536];
    while (journal.find(last) == std::string::npos || journal.back() != '\n') {
        const ssize_t count = ::read(reader, buffer, sizeof buffer);
        ASSERT_GT(count, 0);
        journal.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(reader);
    EXPECT_EQ(kCalls, std::count(journal.begin(), journal.end(), '\n'));
}

// ------------------------------------------------------------------------------------- passwords

TEST_F(DaemonJournal, AndLogHaveNoPasswordOfFiveHundred)
{
    constexpr int kPasswords = 500;
    std::mt19937 chance(11);
    std::vector<std::string> passwords;
    for (int i = 0; i < kPasswords; ++i) {
        std::string password;
        for (std::size_t length = 10 + chance() % 20; length > 0; --length)
            password += static_cast<char>('!' + chance() % 94);
        passwords.push_back(password);
    }
    std::ofstream(directory.file("registry.toml"))
        << "[rules]\nattempts = 0\n[[user]]\nid = \"FRED\"\npassword = '''"
        << "Blue7sky"
        << "'''\n";
    const std::string script = directory.file("answers.toml");
    const std::string good = "[[user]]\nid = \"ANNA\"\npassword = \"Green8sea\"\n"
                             "[[on]]\nprogram = \"SAY\"\nanswer = \"${user} ${program}\"\n";
    std::ofstream(script) << good;
    Daemon daemon({"--journal", file, "--log-level", "debug", "--script", script, "--database",
                   directory.file("ledger.db"), "--registry", directory.file("registry.toml")});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    for (std::size_t i = 0; i < passwords.size(); ++i) {
        const standin::Bytes masked = standin_test::scrambled(passwords[i]);
        // Each travels, some of them are looked at, and some come in malformed requests.
        client.send(callOf(i % 50 == 0 ? "SAY" : "ECHO", i % 50 == 0 ? "ANNA" : "FRED", masked));
        ASSERT_EQ(3, client.read().value().flowType);
        client.send(verification(i % 100 == 0 ? "FRED" : "NOBODY", masked));
        ASSERT_EQ(3, client.read().value().flowType);
        standin::Bytes cutShort = verification("FRED", masked);
        cutShort[49] = 100; // of the 4 bytes that are the password's length the last but one
        client.send(cutShort);
        ASSERT_EQ(6, client.read().value().flowType);
    }
    // Scripts with the password in wrong places are complained about.
    for (std::size_t i = 0; i < 30; ++i) {
        std::string wrong = "[[user]]\nid = \"ANNA\"\npassword = " + passwords[i] + "\n";
        if (i % 3 == 1) wrong = "[[user]]\nid = '" + passwords[i] + "'\npassword = 3\n";
        if (i % 3 == 2)
            wrong = "[[user]]\n\"" + std::to_string(i) + "x\" = '''" + passwords[i] + "'''\n";
        std::ofstream(directory.file("next")) << wrong;
        std::filesystem::rename(directory.file("next"), script);
        const std::string end = "stays in force.\n";
        std::size_t seen = 0;
        while (seen <= i) {
            seen = 0;
            for (std::size_t at = daemon.output().find(end); at != std::string::npos;
                 at = daemon.output().find(end, at + 1)) {
                ++seen;
            }
            if (seen > i) break;
            ASSERT_TRUE(daemon.awaitMore()) << daemon.output();
        }
    }
    EXPECT_EQ(0, daemon.stop());
    const std::string journal = contentOf(file);
    EXPECT_EQ(3 * kPasswords, std::count(journal.begin(), journal.end(), '\n'));
    for (const std::string& password : passwords) {
        const std::string masked = standin_test::textOf(standin_test::scrambled(password));
        const std::string hex = standin::toHex(standin::Bytes(password.begin(), password.end()));
        for (const std::string& text : {password, masked, hex}) {
            ASSERT_EQ(std::string::npos, journal.find(text)) << password;
            ASSERT_EQ(std::string::npos, daemon.output().find(text)) << password;
        }
    }
}
