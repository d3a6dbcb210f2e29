// qpxgatewayd as a process: its options, its errors, its beginning and its end.

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "client.h"
#include "daemon.h"
#include "scrambled.h"
#include "standin/gateway.h"
#include "stream_peer.h"
#include "temporary_directory.h"

using standin_test::Call;
using standin_test::Client;
using standin_test::Daemon;
using standin_test::Reply;
using standin_test::TemporaryDirectory;

namespace {

std::string contentOf(const std::string& file)
{
    std::ostringstream content;
    content << std::ifstream(file).rdbuf();
    return content.str();
}

// Where a service manager listens to what its services tell.
class ServiceManager {
public:
    explicit ServiceManager(const std::string& file)
        : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        file.copy(address.sun_path, sizeof address.sun_path - 1);
        if (::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            throw std::system_error(errno, std::generic_category(), file);
    }

    ~ServiceManager() { ::close(socket_); }

    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;

    // What has been told by now, once; "" for nothing.
    std::string told() const
    {
        char text[64];
        const ssize_t length = ::recv(socket_, text, sizeof text, MSG_DONTWAIT);
        return {text, length > 0 ? static_cast<std::size_t>(length) : 0};
    }

private:
    const int socket_;
};

} // namespace

// ----------------------------------------------------------------------------------------- options

TEST(DaemonOptions, HelpExplainsThemWithExamples)
{
    Daemon daemon({"--help"});
    EXPECT_EQ(0, daemon.end());
    for (const char* const part :
         {"--port ", "--port-file", "--host", "--database", "--registry", "--script", "--journal",
          "--log-level", "--misbehave", "--list-misbehaviours", "--version", "--config", "--system",
          "Examples:", "qpxgatewayd --port 5770 --database ledger.db", "Exit codes:"}) {
        EXPECT_TRUE(daemon.wrote(part)) << part;
    }
}

TEST(DaemonOptions, VersionIsPrinted)
{
    Daemon daemon({"--version"});
    EXPECT_EQ(0, daemon.end());
    EXPECT_TRUE(daemon.wrote("qpxgatewayd ")) << daemon.output();
}

TEST(DaemonOptions, MisbehavioursAreListed)
{
    Daemon daemon({"--list-misbehaviours"});
    EXPECT_EQ(0, daemon.end());
    EXPECT_EQ(
        "  drop-at-connect           closes the connection once it is accepted\n"
        "  reset-at-connect          resets the connection once it is accepted\n"
        "  silence                   accepts the connection, reads what comes and never sends "
        "anything\n"
        "  no-handshake-answer       never answers the handshake\n"
        "  refuse-handshake=CODE     refuses the handshake: FLOW_ERROR, message -2, the code\n"
        "  close-at-handshake        sends a close flow at the handshake\n"
        "  drop-at-handshake         closes the connection at the handshake\n"
        "  reset-at-handshake        resets the connection at the handshake\n"
        "  no-close-answer           never answers the client's close flow\n"
        "  pieces=N                  sends every flow in pieces of N bytes\n"
        "  send-rate=BYTES           sends no more than BYTES a second\n"
        "  receive-rate=BYTES        reads no more than BYTES a second\n"
        "  latency=MS[~JITTER]       sends it MS milliseconds later, and up to JITTER more or "
        "less\n"
        "  stall=N                   sends N bytes of it, and then nothing on the connection until "
        "it is released\n"
        "  partition=MS              sends and reads nothing on the connection for MS "
        "milliseconds\n"
        "  hold                      keeps the answer until it is released\n"
        "  no-answer                 drops the request without an answer\n"
        "  reverse=N                 collects N answers and sends them last one first\n"
        "  flow-error=CODE           answers with FLOW_ERROR and the code\n"
        "  flow-exception=TEXT       answers with FLOW_EXCEPTION and the text\n"
        "  connection-error=CODE     answers with FLOW_ERROR, message -2, the code\n"
        "  close                     answers with a close flow\n"
        "  drop                      closes the connection instead of answering\n"
        "  reset                     resets the connection instead of answering\n"
        "  half-close                closes its side of the connection instead of answering, and "
        "reads on\n"
        "  raw=HEX                   answers with these bytes\n"
        "  ping                      sends a FLOW_PING before the answer\n"
        "  unknown-flow[=TYPE]       sends a flow of type TYPE (99) before the answer\n"
        "  bad-eyecatcher            begins the answer with \"Etag\"\n"
        "  unknown-message-id[=ID]   answers under the message id ID (999999)\n"
        "  duplicate                 sends the answer twice\n"
        "  esi-type                  gives the answer the request type \"ESI\"\n"
        "  request-type[=NAME]       gives the answer the request type NAME (XYZ)\n"
        "  gateway-rc=CODE           puts the code into the header of the answer\n"
        "  truncate=N                sends N bytes of the answer and closes the connection\n"
        "\n"
        "Each may have selectors behind it, as in hold@connection:1,program:ECHO :\n"
        "  connection:N  message:ID  program:NAME  skip:N  times:N  nth:N  once\n",
        daemon.output());
}

TEST(DaemonOptions, WrongOnesEndWithCode2AndSayWhy)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--nonsense"}, "--nonsense"},
        {{"--port", "many"}, "--port"},
        {{"--port", "65536"}, "--port"},
        {{"--log-level", "loud"}, "\"loud\" is not debug, info, warning or error"},
        {{"--misbehave", "explode"},
         "\"explode\" is no misbehaviour; --list-misbehaviours shows them all"},
        {{"--misbehave", "pieces=none"}, "pieces needs a number, not \"none\""},
        {{"--system", "NODESCRIPTION"}, "\"NODESCRIPTION\" is not NAME=DESCRIPTION"},
        {{"--system", "NINELONG1=x"}, "does not have 1 to 8 characters"},
        {{"--registry", "registry.toml"}, "--registry requires --database"},
        {{"--port-file", "/nonexistent/port", "--host", ""},
         "--host: the address is empty; 0.0.0.0 is every address"},
        {{"--port-file", "", "--list-misbehaviours"}, "--port-file: it is empty"},
        {{"--port-file", "/nonexistent/port", "--database", ""},
         "--database: the file has no name"},
        {{"--port-file", "/nonexistent/port", "--database", "", "--registry", "registry.toml"},
         "--database: the file has no name"},
        {{"--port-file", "/nonexistent/port", "--database", ":memory:"},
         "--database: \":memory:\" is no file"},
        {{"--port-file", "/nonexistent/port", "--database", "ledger.db", "--registry", ""},
         "--registry: it is empty"},
        {{"--config", "/nonexistent/gateway.conf"}, "/nonexistent/gateway.conf"},
    };
    for (const auto& [arguments, text] : cases) {
        Daemon daemon(arguments);
        EXPECT_EQ(2, daemon.end()) << arguments.back();
        EXPECT_TRUE(daemon.wrote(text)) << daemon.output();
        EXPECT_TRUE(daemon.wrote("Run with --help for more information.")) << daemon.output();
    }
}

TEST(DaemonOptions, APortInUseEndsWithCode3)
{
    const standin::Gateway other;
    const std::string port = std::to_string(other.port());
    Daemon daemon({"--port", port});
    EXPECT_EQ(3, daemon.end());
    EXPECT_TRUE(daemon.wrote("cannot listen on 127.0.0.1:" + port +
                             ": Address already in use. Choose another port with --port"))
        << daemon.output();
}

TEST(DaemonOptions, ADatabaseThatCannotBeMadeEndsWithCode4)
{
    const TemporaryDirectory directory;
    const std::string file = directory.file("missing/ledger.db");
    Daemon daemon({"--database", file});
    EXPECT_EQ(4, daemon.end());
    EXPECT_TRUE(daemon.wrote("cannot use the database " + file + ": unable to open database file."))
        << daemon.output();
}

TEST(DaemonOptions, AFileThatIsNoDatabaseEndsWithCode4)
{
    const TemporaryDirectory directory;
    const std::string file = directory.file("notes.txt");
    std::ofstream(file)
        << "this is no database, however long one looks at its first hundred bytes and more";
    Daemon daemon({"--database", file});
    EXPECT_EQ(4, daemon.end());
    EXPECT_TRUE(daemon.wrote("file is not a database")) << daemon.output();
}

TEST(DaemonOptions, APortFileThatCannotBeWrittenEndsWithCode5)
{
    const TemporaryDirectory directory;
    Daemon daemon({"--port-file", directory.file("missing/port")});
    EXPECT_EQ(5, daemon.end());
    EXPECT_TRUE(daemon.wrote("cannot write the port file")) << daemon.output();
}

TEST(DaemonOptions, ARegistryFileThatCannotBeUsedEndsWithCode6)
{
    const TemporaryDirectory directory;
    const std::string file = directory.file("registry.toml");
    std::ofstream(file) << "[[user]]\nid = \"FRED\"\npassword = Blue7sky\n";
    Daemon daemon({"--database", directory.file("ledger.db"), "--registry", file});
    EXPECT_EQ(6, daemon.end());
    EXPECT_TRUE(daemon.wrote("cannot use the registry file " + file + ": line 3: this is no TOML"))
        << daemon.output();
    EXPECT_FALSE(daemon.wrote("lue7sky")) << daemon.output();
}

TEST(DaemonOptions, ARegistryFileThatIsAFolderEndsWithCode6)
{
    const TemporaryDirectory directory;
    const TemporaryDirectory folder;
    // The port file would end it with another code, were the folder accepted.
    Daemon daemon({"--database", directory.file("ledger.db"), "--registry", folder.file(""),
                   "--port-file", directory.file("missing/port")});
    EXPECT_EQ(6, daemon.end());
    EXPECT_TRUE(
        daemon.wrote("cannot use the registry file " + folder.file("") + ": it is a folder"))
        << daemon.output();
}

// Of the kernel's files, this one can be opened, and nothing can be read at its beginning.
TEST(DaemonOptions, AFileThatBreaksOffIsNamed)
{
    const TemporaryDirectory directory;
    const std::string file = "/proc/self/mem";
    const std::string missing = directory.file("missing/port"); // ends what takes the file
    Daemon registry(
        {"--database", directory.file("ledger.db"), "--registry", file, "--port-file", missing});
    EXPECT_EQ(6, registry.end());
    EXPECT_TRUE(registry.wrote("cannot use the registry file " + file + ": it cannot be read"))
        << registry.output();
    Daemon config({"--config", file, "--port-file", missing});
    EXPECT_EQ(2, config.end());
    EXPECT_TRUE(config.wrote(file + " cannot be read to its end")) << config.output();
    Daemon token({"--control", "0", "--control-token", file, "--port-file", missing});
    EXPECT_EQ(10, token.end());
    EXPECT_TRUE(token.wrote("cannot use the token file " + file + ": it cannot be read"))
        << token.output();
}

TEST(DaemonOptions, ComeFromAFileToo)
{
    const TemporaryDirectory directory;
    std::ofstream(directory.file("gateway.conf"))
        << "log-level=warning\nmisbehave=[\"ping\", \"pieces=7\"]\n";
    Daemon daemon({"--config", directory.file("gateway.conf")});
    ASSERT_TRUE(daemon.awaitOutput("misbehaving on purpose: pieces"));
    EXPECT_EQ(0, daemon.stop());
    EXPECT_TRUE(daemon.wrote("misbehaving on purpose: ping"));
    EXPECT_FALSE(daemon.wrote("listening")) << "info lines in spite of the log level";
}

namespace {

const char* const kKeysOfTheConfiguration =
    "host, port, port-file, database, registry, script, journal, control, control-token, "
    "control-host, system, misbehave, scenario, record, replay, in-order, recorded-speed, "
    "record-script, list-misbehaviours and log-level";

// That a configuration file with this text is refused for the key in this line.
void expectUnknownKey(const std::string& text, int line, const std::string& key)
{
    const TemporaryDirectory directory;
    const std::string file = directory.file("gateway.conf");
    std::ofstream(file) << text;
    Daemon daemon({"--config", file, "--list-misbehaviours"}); // ends whatever the file says
    EXPECT_EQ(2, daemon.end()) << text;
    EXPECT_TRUE(daemon.wrote(file + ", line " + std::to_string(line) + ": there is no key \"" +
                             key + "\" here; there are " + kKeysOfTheConfiguration + "\n"))
        << text << daemon.output();
}

} // namespace

TEST(DaemonConfiguration, WithAnUnknownKeyEndsWithCode2AndNamesFileLineKeyAndWhatThereIs)
{
    expectUnknownKey("port=0\n\n# the port\nprot=5770\n", 4, "prot");
    expectUnknownKey("prot\n", 1, "prot");
    expectUnknownKey("x\n", 1, "x");
    expectUnknownKey("\"prot\" = 1\n", 1, "prot");
    expectUnknownKey("port=0 # any\r\n  Port = 0\r\n", 2, "Port");
    expectUnknownKey("po\x1Brt=0\n", 1, "po?rt");
}

TEST(DaemonConfiguration, MayNotHoldEmptyOrWrongValues)
{
    const TemporaryDirectory directory;
    const std::string file = directory.file("gateway.conf");
    const std::pair<const char*, const char*> cases[] = {
        {"host=\"\"\n", "--host: the address is empty"},
        {"database=\"\"\n", "--database: the file has no name"},
        {"database=\":memory:\"\n", "--database: \":memory:\" is no file"},
    };
    for (const auto& [text, complaint] : cases) {
        std::ofstream(file) << text;
        Daemon daemon({"--config", file, "--port-file", directory.file("missing/port")});
        EXPECT_EQ(2, daemon.end()) << text;
        EXPECT_TRUE(daemon.wrote(complaint)) << daemon.output();
    }
}

TEST(DaemonConfiguration, MayNotHoldWhatOnlyTheCommandLineHas)
{
    expectUnknownKey("config=other.conf\n", 1, "config");
    expectUnknownKey("help=true\n", 1, "help");
    expectUnknownKey("version=true\n", 1, "version");
}

TEST(DaemonConfiguration, WithAnUnknownTableEndsWithCode2)
{
    expectUnknownKey("port=0\n[gateway]\n", 2, "gateway");
    expectUnknownKey("port=0\n[gateway]\nport=0\n", 2, "gateway");
    expectUnknownKey("[gateway.listen]\nport=0\n", 1, "gateway.listen");
    expectUnknownKey("[[gateway]]\nport=0\n", 1, "gateway");
    expectUnknownKey("gateway.port=0\n", 1, "gateway.port");
    expectUnknownKey("[default]\nport=0\nprot=0\n", 3, "prot");
}

TEST(DaemonConfiguration, WithAnUnknownKeyBehindAListNamesItsLine)
{
    expectUnknownKey("misbehave=[\"ping\",\n  \"pieces=7\",\n  \"hold\"\n]\nprot=0\n", 5, "prot");
}

TEST(DaemonConfiguration, MayHoldEveryOption)
{
    const TemporaryDirectory directory;
    std::ofstream(directory.file("registry.toml")) << "[rules]\nshortest = 6\n";
    std::ofstream(directory.file("answers.toml")) << "seed = 2\n";
    std::ofstream(directory.file("gateway.conf"))
        << "; all there is\n[default]\n\"host\" = 127.0.0.1\n--port=0\nport-file="
        << directory.file("port") << "\ndatabase=" << directory.file("ledger.db")
        << "\nregistry=" << directory.file("registry.toml")
        << "\nscript=" << directory.file("answers.toml")
        << "\njournal=" << directory.file("calls.jsonl")
        << "\nsystem=[\"ONE=The first\",\n\"TWO=The second\"\n]\n\n# of two lines\nmisbehave=ping\n"
           "list-misbehaviours=false\nlog-level=info\n";
    Daemon daemon({"--config", directory.file("gateway.conf")});
    ASSERT_TRUE(daemon.awaitOutput("ready\n")) << daemon.output();
    EXPECT_TRUE(std::filesystem::exists(directory.file("port")));
    EXPECT_EQ(0, daemon.stop());
    EXPECT_TRUE(daemon.wrote("misbehaving on purpose: ping")) << daemon.output();
}

TEST(DaemonOptions, ARegistryFileWithAnUnknownKeyEndsWithCode2AndNamesFileLineAndWhatThereIs)
{
    const TemporaryDirectory directory;
    const std::string file = directory.file("registry.toml");
    const std::string fred = "[[user]]\nid = \"FRED\"\npassword = \"Blue7sky\"\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"rule = 3\n", "line 1: there is no such key here; there are rules, system and user."},
        {"[[user]]\nGreen8sea = \"FRED\"\n",
         "line 2: there is no such key here; there are id, password,"},
        {fred + "[user.rules]\natempts = 5\n",
         "line 5: there is no such key here; there are shortest, longest, digit, history, "
         "lifetime and attempts."},
    };
    for (const auto& [text, complaint] : cases) {
        std::ofstream(file) << text;
        // The port file would end it with another code, were the registry's accepted.
        Daemon daemon({"--database", directory.file("ledger.db"), "--registry", file, "--port-file",
                       directory.file("missing/port")});
        EXPECT_EQ(2, daemon.end()) << text;
        EXPECT_FALSE(daemon.wrote("Green8sea")) << daemon.output();
        EXPECT_TRUE(daemon.wrote("cannot use the registry file " + file + ": " + complaint))
            << daemon.output();
    }
}

// ----------------------------------------------------------------------------------------- service

TEST(DaemonService, WritesThePortToAFileAndTakesItAwayAtTheEnd)
{
    const TemporaryDirectory directory;
    const std::string file = directory.file("port");
    Daemon daemon({"--port-file", file});
    const std::uint16_t port = daemon.port();
    EXPECT_EQ(std::to_string(port) + "\n", contentOf(file));
    EXPECT_TRUE(Client(port).shakeHands());
    EXPECT_EQ(0, daemon.stop());
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST(DaemonService, TellsTheServiceManagerWhenItServesAndItsProgramsNothingOfIt)
{
    const TemporaryDirectory directory;
    const std::string script = directory.file("answers.toml");
    std::ofstream(script) << "[[on]]\nprogram = \"VARIABLE\"\n"
                             "answer = { exec = [\"./program\"] }\n";
    std::ofstream(directory.file("program"))
        << "#!/bin/sh\nread call\necho \"{\\\"commarea\\\":\\\"${NOTIFY_SOCKET-none}\\\"}\"\n";
    std::filesystem::permissions(directory.file("program"), std::filesystem::perms::owner_all);
    const ServiceManager manager(directory.file("manager"));

    Daemon daemon({"--script", script}, "export NOTIFY_SOCKET=" + directory.file("manager"));
    Client client(daemon.port());
    EXPECT_EQ("READY=1", manager.told());
    ASSERT_TRUE(client.shakeHands());
    Call call;
    call.program = "VARIABLE";
    call.commarea = "????";
    EXPECT_EQ("none", client.call(1, call).commarea);
    EXPECT_EQ(0, daemon.stop());
}

TEST(DaemonService, ServesWhereTheServiceManagerCannotBeTold)
{
    const TemporaryDirectory directory;
    Daemon daemon({}, "export NOTIFY_SOCKET=" + directory.file("nobody"));
    EXPECT_TRUE(Client(daemon.port()).shakeHands());
    EXPECT_TRUE(daemon.wrote("the service manager cannot be told")) << daemon.output();
    EXPECT_EQ(0, daemon.stop());
}

TEST(DaemonService, LeavesThePortFileOfAnotherAlone)
{
    const TemporaryDirectory directory;
    const std::string file = directory.file("port");
    Daemon first({"--port-file", file});
    first.port();
    Daemon second({"--port-file", file});
    const std::string port = std::to_string(second.port()) + "\n";
    EXPECT_EQ(port, contentOf(file));
    EXPECT_EQ(0, first.stop());
    EXPECT_EQ(port, contentOf(file));
    EXPECT_EQ(0, second.stop());
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST(DaemonService, TakesAwayThePortFileOfOneThatWasKilledBeforeAnythingElse)
{
    const TemporaryDirectory directory;
    const std::string file = directory.file("port");
    Daemon killed({"--port-file", file});
    killed.port();
    killed.signal(SIGKILL);
    killed.end();
    ASSERT_TRUE(std::filesystem::exists(file));
    Daemon next({"--port-file", file, "--database", directory.file("missing/ledger.db")});
    EXPECT_EQ(4, next.end());
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST(DaemonService, LeavesThePortFileOfAnotherAloneWhenItCannotStart)
{
    const TemporaryDirectory directory;
    const std::string file = directory.file("port");
    Daemon first({"--port-file", file});
    const std::string port = std::to_string(first.port());
    Daemon second({"--port-file", file, "--port", port});
    EXPECT_EQ(3, second.end());
    EXPECT_EQ(port + "\n", contentOf(file));
}

TEST(DaemonService, EndsInOrderWhenNobodyReadsItsLogAnyMore)
{
    const TemporaryDirectory directory;
    Daemon daemon({"--port-file", directory.file("port")});
    Client client(daemon.port());
    daemon.closeOutput();
    EXPECT_TRUE(client.shakeHands());
    daemon.signal(SIGTERM);
    EXPECT_EQ(0, daemon.endUnread());
    EXPECT_FALSE(std::filesystem::exists(directory.file("port")));
}

TEST(DaemonService, ServesWhileNobodyReadsItsLog)
{
    Daemon daemon({});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    for (int i = 1; i <= 1000; ++i) ASSERT_EQ(0, client.call(i, {}).vornRc) << i;
    daemon.signal(SIGTERM);
    EXPECT_EQ(0, daemon.endUnread());
}

TEST(DaemonService, SaysGoodbyeWithACloseFlowWhenItIsStopped)
{
    Daemon daemon({});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    client.send(standin_test::eciRequest(1, {}));
    ASSERT_TRUE(daemon.awaitOutput("connection 1: answer 1"));
    daemon.signal(SIGTERM);
    EXPECT_EQ(3, client.read().value().flowType);
    const standin_test::Received goodbye = client.read().value();
    EXPECT_EQ(10, goodbye.flowType);
    EXPECT_EQ(-1, goodbye.messageId);
    EXPECT_TRUE(client.endsInOrder());
    EXPECT_EQ(0, daemon.end());
}

TEST(DaemonService, DoesNotWaitAtItsEndForAClientThatTakesNothing)
{
    Daemon daemon({});
    Client client(daemon.port(), standin_test::Room::Little);
    ASSERT_TRUE(client.shakeHands());
    Call call;
    call.commarea = std::string(32767, 'x');
    const std::size_t enough = standin_test::moreThanIsUnderWay() / call.commarea.size();
    std::thread sender([&] { // until the daemon reads no more
        for (std::size_t id = 1; id <= enough; ++id) {
            if (!client.send(standin_test::eciRequest(static_cast<int>(id), call))) break;
        }
    });
    EXPECT_TRUE(daemon.awaitOutput("nothing more is read until they are"));
    EXPECT_EQ(0, daemon.stop());
    sender.join();
}

TEST(DaemonService, EndsCleanlyBySigintToo)
{
    Daemon daemon({});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    daemon.signal(SIGINT);
    EXPECT_EQ(0, daemon.end());
    EXPECT_TRUE(client.endsInOrder());
    EXPECT_TRUE(daemon.wrote("ending by signal 2")) << daemon.output();
    EXPECT_TRUE(daemon.wrote("stopped")) << daemon.output();
}

TEST(DaemonService, RunsEchoAndAbend)
{
    Daemon daemon({});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    Call echo;
    echo.commarea = "hello";
    EXPECT_EQ("hello", client.call(1, echo).commarea);
    Call abend;
    abend.program = "ABEND";
    EXPECT_EQ("AZZZ", client.call(1, abend).abendCode);
    Call ledgerCall;
    ledgerCall.program = "LEDGER";
    EXPECT_EQ("AEI0", client.call(1, ledgerCall).abendCode);
    EXPECT_TRUE(daemon.wrote(
        "programs: ECHO, ABEND, CHANECHO, CHANEDIT; no LEDGER and ORDERS without --database"));
}

TEST(DaemonService, KeepsTheLedgerFromOneRunToTheNext)
{
    const TemporaryDirectory directory;
    const std::vector<std::string> arguments = {"--database", directory.file("ledger.db")};
    Call credit;
    credit.program = "LEDGER";
    credit.commarea = "C  ACC00005000000000001" + std::string(57, ' ');
    for (const char* const expected : {"+000000050001", "+000000050002"}) {
        Daemon daemon(arguments);
        Client client(daemon.port());
        ASSERT_TRUE(client.shakeHands());
        EXPECT_EQ(expected, client.call(1, credit).commarea.substr(23, 13));
        EXPECT_EQ(0, daemon.stop());
    }
}

TEST(DaemonService, BacksOutOpenUnitsOfWorkWhenItIsStopped)
{
    const TemporaryDirectory directory;
    const std::vector<std::string> arguments = {"--database", directory.file("ledger.db")};
    Call credit;
    credit.program = "LEDGER";
    credit.commarea = "C  ACC00005000000000001" + std::string(57, ' ');
    credit.mode = 1;
    for (int run = 0; run < 2; ++run) {
        Daemon daemon(arguments);
        Client client(daemon.port());
        ASSERT_TRUE(client.shakeHands());
        EXPECT_EQ("+000000050001", client.call(1, credit).commarea.substr(23, 13));
        EXPECT_EQ(0, daemon.stop());
    }
}

TEST(DaemonService, KeepsDescriptorsForOthersWhateverUnitsAreOpen)
{
    const TemporaryDirectory directory;
    Daemon daemon({"--database", directory.file("ledger.db")}, "ulimit -n 256");
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    Call query;
    query.program = "LEDGER";
    query.commarea = "Q  ACC00005" + std::string(69, ' ');
    query.mode = 1;
    for (int i = 1; i <= 48; ++i) ASSERT_EQ(0, client.call(i, query).vornRc) << i;
    for (int i = 1; i <= 100; ++i) ASSERT_EQ(-16, client.call(i, query).vornRc) << i;
    Client other(daemon.port());
    ASSERT_TRUE(other.shakeHands());
    EXPECT_EQ(0, other.call(1, {}).vornRc);
    EXPECT_EQ(0, daemon.stop());
    EXPECT_TRUE(daemon.wrote("48 units of work are open; connection 1 gets no other"));
}

TEST(DaemonService, MisbehavesAsTold)
{
    Daemon daemon({"--misbehave", "drop@program:ECHO,nth:2"});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    EXPECT_EQ(0, client.call(1, {}).vornRc);
    client.send(standin_test::eciRequest(2, {}));
    EXPECT_TRUE(client.endsInOrder());
}

TEST(DaemonService, ReleasesHeldAnswersBySigusr1)
{
    Daemon daemon({"--misbehave", "hold"});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    client.send(standin_test::eciRequest(2, {}));
    ASSERT_TRUE(daemon.awaitOutput("connection 1: answer 2 "));
    daemon.signal(SIGUSR1);
    EXPECT_EQ(2, client.read().value().messageId);
}

TEST(DaemonService, ListsItsSystems)
{
    Daemon daemon({"--system", "ONE=The first", "--system", "TWO=The second"});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    client.send(standin_test::flow(
        1, 1, "ECI", standin_test::Raw().int32(9).int32(5).int16(0).byte(0).int32(-1).int32(7)));
    const std::string list = standin_test::textOf(client.read().value().body);
    EXPECT_EQ(16U + 140U, list.size());
    EXPECT_NE(std::string::npos, list.find("The second"));
}

TEST(DaemonService, LogsRequestsWithTheUserButWithoutThePassword)
{
    Daemon daemon({});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    Call call;
    call.user = "FRED";
    standin::Bytes body = standin_test::eciBody(call);
    const standin::Bytes masked = {0xAC, 0x16, 0x06, 0x11}; // "SECR", scrambled
    body[48] = 4;
    body.insert(body.begin() + 49, masked.begin(), masked.end());
    client.send(standin_test::flow(1, 3, "ECI", body));
    ASSERT_TRUE(client.read());
    EXPECT_EQ(0, daemon.stop());
    EXPECT_TRUE(daemon.wrote(
        "connection 1: request 3 ECI program=\"ECHO\" mode=0 token=0 user=\"FRED\" commarea=0/0"))
        << daemon.output();
    EXPECT_FALSE(daemon.wrote("SECR"));
}

// ---------------------------------------------------------------------------------------- registry

namespace {

const standin::Bytes kBlue7sky = {0xBD, 0x2E, 0x19, 0x10, 0x52, 0x44, 0x18, 0x12};
const standin::Bytes kGreen8sea = {0xB8, 0x35, 0x17, 0x00, 0x0B, 0x56, 0x4B, 0x16, 0x04};

standin::Bytes verification(const std::string& user, const standin::Bytes& masked)
{
    return standin_test::flow(1, 3, "ESI",
                              standin_test::Raw()
                                  .int32(0)
                                  .padded(user, 10)
                                  .int32(static_cast<int>(masked.size()))
                                  .bytes(masked)
                                  .padded("", 8));
}

standin::Bytes changeTo(const std::string& user, const standin::Bytes& masked,
                        const standin::Bytes& newMasked)
{
    return standin_test::flow(1, 4, "ESI",
                              standin_test::Raw()
                                  .int32(1)
                                  .padded(user, 10)
                                  .int32(static_cast<int>(masked.size()))
                                  .bytes(masked)
                                  .padded("VORNA", 8, ' ')
                                  .int32(static_cast<int>(newMasked.size()))
                                  .bytes(newMasked));
}

standin::Bytes listQuery(int room)
{
    return standin_test::flow(
        1, 1, "ECI", standin_test::Raw().int32(9).int32(room).int16(0).byte(0).int32(-1).int32(7));
}

class DaemonRegistry : public testing::Test {
protected:
    DaemonRegistry()
    {
        std::ofstream(directory.file("registry.toml"))
            << "[[system]]\nname = \"VORNA\"\ndescription = \"Accounts\"\n"
               "[[user]]\nid = \"FRED\"\npassword = \"Blue7sky\"\n"
               "verified = 2026-03-02T10:11:12.34\n";
    }

    const TemporaryDirectory directory;
    const std::vector<std::string> arguments = {"--database", directory.file("ledger.db"),
                                                "--registry", directory.file("registry.toml")};
};

} // namespace

TEST_F(DaemonRegistry, AnswersAVerificationWithTheUsersTimes)
{
    Daemon daemon(arguments);
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    client.send(verification("FRED", kBlue7sky));
    const standin_test::Received answer = client.read().value();
    EXPECT_EQ(3, answer.flowType);
    EXPECT_EQ(3, answer.messageId);
    EXPECT_EQ("ESI", answer.requestType);
    ASSERT_EQ(92U, answer.body.size());
    const standin::Bytes verified = standin_test::Raw()
                                        .int32(0)
                                        .int32(2026)
                                        .int32(2)
                                        .int32(2)
                                        .int32(10)
                                        .int32(11)
                                        .int32(12)
                                        .int32(34);
    EXPECT_EQ(verified, standin::Bytes(answer.body.begin(), answer.body.begin() + 32));
    client.send(verification("FRED", kGreen8sea));
    EXPECT_EQ(static_cast<standin::Bytes>(standin_test::Raw().int32(-106)),
              client.read().value().body);
}

TEST_F(DaemonRegistry, TakesASecondDaemonWhileTheFirstHasAPostingOpen)
{
    Daemon first(arguments);
    Client client(first.port());
    ASSERT_TRUE(client.shakeHands());
    Call credit;
    credit.program = "LEDGER";
    credit.commarea = "C  ACC00005000000000001" + std::string(57, ' ');
    credit.mode = 1;
    ASSERT_EQ(0, client.call(1, credit).vornRc);

    Daemon second(arguments);
    ASSERT_TRUE(second.awaitOutput("ready\n")) << second.output();
    Client other(second.port());
    ASSERT_TRUE(other.shakeHands());
    Call query;
    query.program = "LEDGER";
    query.commarea = "Q  ACC00005" + std::string(69, ' ');
    EXPECT_EQ("+000000050000", other.call(1, query).commarea.substr(23, 13));
    other.send(verification("FRED", kBlue7sky));
    EXPECT_EQ(static_cast<standin::Bytes>(standin_test::Raw().int32(-16)),
              other.read().value().body);
}

TEST_F(DaemonRegistry, ServesOthersWhilePasswordsAreLookedAt)
{
    std::ofstream(directory.file("registry.toml"), std::ios::app) << "rules = { attempts = 0 }\n";
    Daemon daemon(arguments);
    Client guessing(daemon.port());
    ASSERT_TRUE(guessing.shakeHands());
    Client other(daemon.port());
    ASSERT_TRUE(other.shakeHands());
    standin_test::Raw guesses;
    for (int i = 0; i < 200; ++i) guesses.bytes(verification("FRED", kGreen8sea));
    guessing.send(guesses);
    ASSERT_TRUE(daemon.awaitOutput("connection 1: request 3 ESI verify"));
    EXPECT_EQ(0, other.call(1, {}).vornRc);
    EXPECT_EQ(0, daemon.stop());
    EXPECT_FALSE(daemon.wrote("number 200")) << "all of them were looked at first";
}

TEST_F(DaemonRegistry, KeepsAChangeThatWasAnsweredWhenItIsKilled)
{
    {
        Daemon daemon(arguments);
        Client client(daemon.port());
        ASSERT_TRUE(client.shakeHands());
        client.send(changeTo("FRED", kBlue7sky, kGreen8sea));
        ASSERT_EQ(92U, client.read().value().body.size());
        daemon.signal(SIGKILL);
        EXPECT_EQ(-1, daemon.end());
    }
    Daemon daemon(arguments);
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    client.send(verification("FRED", kGreen8sea));
    EXPECT_EQ(92U, client.read().value().body.size());
    client.send(verification("FRED", kBlue7sky));
    EXPECT_EQ(static_cast<standin::Bytes>(standin_test::Raw().int32(-106)),
              client.read().value().body);
}

TEST_F(DaemonRegistry, LogsRequestsWithoutPasswords)
{
    std::vector<std::string> loud = arguments;
    loud.insert(loud.end(), {"--log-level", "debug"});
    Daemon daemon(loud);
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    client.send(verification("FRED", kGreen8sea));
    ASSERT_TRUE(client.read());
    client.send(changeTo("FRED", kBlue7sky, kGreen8sea));
    ASSERT_TRUE(client.read());
    standin::Bytes cutShort = verification("FRED", kBlue7sky);
    cutShort[49] = 100; // of the 4 bytes that are the password's length the last but one
    client.send(cutShort);
    ASSERT_EQ(6, client.read().value().flowType);
    EXPECT_EQ(0, daemon.stop());
    for (const char* const line :
         {"connection 1: request 3 ESI verify user=\"FRED\" server=\"\"\n",
          "registry: FRED's password is wrong, number 1\n",
          "connection 1: answer 3 ESI vornRc=-106\n",
          "connection 1: request 4 ESI change user=\"FRED\" server=\"VORNA\"\n",
          "registry: FRED's password is changed\n", "connection 1: answer 4 ESI vornRc=0\n",
          "malformed flow: current password needs"}) {
        EXPECT_TRUE(daemon.wrote(line)) << line << daemon.output();
    }
    EXPECT_FALSE(daemon.wrote("Blue7sky")) << daemon.output();
    EXPECT_FALSE(daemon.wrote("Green8sea")) << daemon.output();
}

TEST_F(DaemonRegistry, KeepsNoPasswordInItsMemory)
{
    const std::string inFile = "Registered-0-in-the-file";
    const std::vector<std::string> used = {"Wrong7pw", "Changed-1-by-a-long-request",
                                           "Called-2-with-a-long-password", "Call7pw"};
    std::ofstream(directory.file("registry.toml"), std::ios::app)
        << "[[user]]\nid = \"ANNA\"\npassword = \"" << inFile << "\"\n";
    Daemon daemon(arguments);
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    client.send(verification("FRED", standin_test::scrambled(used[0])));
    ASSERT_EQ(4U, client.read().value().body.size());
    client.send(
        changeTo("ANNA", standin_test::scrambled(inFile), standin_test::scrambled(used[1])));
    ASSERT_EQ(92U, client.read().value().body.size());
    for (const std::string& password : {used[2], used[3]}) {
        standin::Bytes body = standin_test::eciBody({});
        const standin::Bytes masked = standin_test::scrambled(password);
        body[48] = static_cast<std::uint8_t>(masked.size());
        body.insert(body.begin() + 49, masked.begin(), masked.end());
        client.send(standin_test::flow(1, 5, "ECI", body));
        ASSERT_EQ(3, client.read().value().flowType);
    }
    Client other(daemon.port());
    ASSERT_TRUE(other.shakeHands()); // what came before is over
    EXPECT_TRUE(daemon.hasInMemory("ECHO"));
    for (const std::string& password : {inFile, used[0], used[1], used[2], used[3]}) {
        EXPECT_FALSE(daemon.hasInMemory(password)) << password;
        EXPECT_FALSE(daemon.hasInMemory(standin_test::textOf(standin_test::scrambled(password))))
            << password;
    }
}

TEST_F(DaemonRegistry, ListsItsSystemsAndBehindThemThoseOfTheOptions)
{
    std::vector<std::string> more = arguments;
    more.insert(more.end(), {"--system", "VORNB=Branches", "--system", "VORNA=Head office"});
    Daemon daemon(more);
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    client.send(listQuery(5));
    EXPECT_EQ(static_cast<standin::Bytes>(standin_test::Raw()
                                              .int32(9)
                                              .int32(2)
                                              .int32(0)
                                              .int32(140)
                                              .padded("VORNA", 9)
                                              .padded("Head office", 61)
                                              .padded("VORNB", 9)
                                              .padded("Branches", 61)),
              client.read().value().body);
}

TEST_F(DaemonRegistry, KeepsItsSystemsUntilOthersAreGiven)
{
    EXPECT_EQ(0, [&] {
        Daemon daemon(arguments);
        daemon.port();
        return daemon.stop();
    }());
    Daemon daemon({"--database", directory.file("ledger.db")});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    client.send(listQuery(5));
    EXPECT_EQ(static_cast<standin::Bytes>(standin_test::Raw()
                                              .int32(9)
                                              .int32(1)
                                              .int32(0)
                                              .int32(70)
                                              .padded("VORNA", 9)
                                              .padded("Accounts", 61)),
              client.read().value().body);
}

TEST(DaemonWithoutADatabase, RefusesPasswordRequests)
{
    Daemon daemon({});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    client.send(verification("FRED", kBlue7sky));
    const standin_test::Received answer = client.read().value();
    EXPECT_EQ(4, answer.flowType);
    EXPECT_EQ(61451, answer.gatewayRc);
}
