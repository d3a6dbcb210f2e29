// Scenarios: what they may be, what happens when, and that it happens again for the same seed.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>

#include "client.h"
#include "conf/value.h"
#include "daemon.h"
#include "scenario/player.h"
#include "scenario/scenario.h"
#include "standin/gateway.h"
#include "temporary_directory.h"

using namespace std::chrono_literals;
using standin_test::Call;
using standin_test::Client;
using standin_test::Daemon;
using standin_test::TemporaryDirectory;

namespace {

std::string complaint(const std::string& text)
{
    try {
        scenario::readScenario(conf::readText(text));
    } catch (const conf::Wrong& problem) {
        return problem.what();
    }
    return "none";
}

// About a [[step]] with these lines, the first of which is line 2.
std::string complaintAbout(const std::string& lines)
{
    return complaint("[[step]]\n" + lines + "\n");
}

// A scenario that plays on a Gateway whose time passes when the test says so.
class PlayedScenario : public testing::Test {
protected:
    void play(const std::string& text)
    {
        const scenario::Scenario read = scenario::readScenario(conf::readText(text));
        player = std::make_unique<scenario::Player>(
            read, [this](standin::LogLevel, const std::string& line) {
                const std::lock_guard<std::mutex> guard(lock);
                told += line + "\n";
            });
        gateway = std::make_unique<standin::Gateway>(options());
        player->start(*gateway);
        client = std::make_unique<Client>(gateway->port());
        ASSERT_TRUE(client->shakeHands());
    }

    void TearDown() override
    {
        if (gateway != nullptr) gateway->stop();
    }

    standin::GatewayOptions options() const
    {
        standin::GatewayOptions options;
        options.clock = clock;
        return options;
    }

    // Time passes, and what it brings has happened.
    void pass(standin::Clock::Duration time)
    {
        const standin::Clock::Duration end = clock->now() + time;
        // A step that has been done has named its next one, behind which this comes.
        while (clock->tasks() > 0 && clock->now() < end) {
            clock->advance(1ms);
            gateway->sendPing(99);
        }
        if (clock->now() < end) clock->advance(end - clock->now());
    }

    // The code of the Gateway in the answer to a call of now.
    int code()
    {
        client->send(standin_test::eciRequest(++messageId, Call()));
        return client->read().value().gatewayRc;
    }

    std::string log() const
    {
        const std::lock_guard<std::mutex> guard(lock);
        return told;
    }

    const std::shared_ptr<standin::ManualClock> clock = std::make_shared<standin::ManualClock>();
    mutable std::mutex lock;
    std::string told; // guarded by lock
    std::unique_ptr<scenario::Player> player;
    std::unique_ptr<standin::Gateway> gateway;
    std::unique_ptr<Client> client;
    int messageId = 0;
};

} // namespace

// ---------------------------------------------------------------------------------------- the file

TEST(ScenarioFile, IsRefusedWithLineAndColumn)
{
    EXPECT_EQ("none", complaintAbout("at = \"2s\"\nmisbehave = \"hold\""));
    EXPECT_EQ("line 1, column 1: there is no such key here; there are seed, every, times and step",
              complaint("steps = 3\n"));
    EXPECT_EQ("line 1, column 1: there is no [[step]]", complaint("seed = 3\n"));
    EXPECT_EQ("line 3, column 1: there is no such key here; there are at, spread, end, misbehave, "
              "for, do and connection",
              complaintAbout("at = \"2s\"\nmisbehavior = \"hold\""));
    EXPECT_EQ("line 1, column 1: at is missing", complaintAbout("misbehave = \"hold\""));
    EXPECT_EQ("line 2, column 6: at is no time such as \"250us\", \"50ms\", \"2s\" or \"1min\", up "
              "to an hour",
              complaintAbout("at = 2\nmisbehave = \"hold\""));
    EXPECT_EQ("line 3, column 22: \"holt\" is no misbehaviour; --list-misbehaviours shows them all",
              complaintAbout("at = \"2s\"\nmisbehave = [\"ping\", \"holt\"]"));
    EXPECT_EQ("line 3, column 7: this is neither \"all\" nor the name of a misbehaviour; "
              "--list-misbehaviours shows them all",
              complaintAbout("at = \"2s\"\nend = \"holt\""));
    EXPECT_EQ("line 3, column 6: this is none of drop, reset, half-close, close, ping and release",
              complaintAbout("at = \"2s\"\ndo = \"dorp\""));
    EXPECT_EQ("line 3, column 7: for belongs to a misbehave, and there is none",
              complaintAbout("at = \"2s\"\nfor = \"1s\"\ndo = \"drop\""));
    EXPECT_EQ("line 4, column 14: connection belongs to a do; a misbehaviour has selectors of its "
              "own",
              complaintAbout("at = \"2s\"\nmisbehave = \"hold\"\nconnection = 3"));
    EXPECT_EQ("line 1, column 1: nothing happens here: there is no end, misbehave or do",
              complaintAbout("at = \"2s\""));
    EXPECT_EQ("line 1, column 9: times belongs to every, and there is none",
              complaint("times = 3\n[[step]]\nat = \"2s\"\ndo = \"drop\"\n"));
    EXPECT_EQ("line 1, column 9: every is no time at all",
              complaint("every = \"0s\"\n[[step]]\nat = \"2s\"\ndo = \"drop\"\n"));
}

TEST(ScenarioFile, OfTheManualIsOne)
{
    std::ostringstream content;
    content << std::ifstream(GATEWAY_DOCUMENT).rdbuf();
    std::string manual = content.str();
    manual = manual.substr(manual.find("\n### Scenarios"));
    manual = manual.substr(manual.find("```toml\n") + 8);
    manual = manual.substr(0, manual.find("```"));
    EXPECT_EQ(4U, scenario::readScenario(conf::readText(manual)).steps.size());
}

TEST(ScenarioFile, HasTheSameTimesForTheSameSeed)
{
    const auto timesFor = [](const std::string& seed) {
        std::string text = "seed = " + seed + "\n";
        for (int i = 0; i < 50; ++i)
            text += "[[step]]\nat = \"2s\"\nspread = \"500ms\"\ndo = \"ping\"\n";
        const scenario::Scenario read = scenario::readScenario(conf::readText(text));
        std::mt19937_64 chance(read.seed);
        return scenario::timesOf(read, chance);
    };
    const std::vector<scenario::Time> times = timesFor("7");
    EXPECT_EQ(times, timesFor("7"));
    EXPECT_NE(times, timesFor("8"));
    EXPECT_GE(*std::min_element(times.begin(), times.end()), 2s);
    EXPECT_LE(*std::max_element(times.begin(), times.end()), 2500ms);
    EXPECT_NE(times.front(), times.back());
}

// ------------------------------------------------------------------------------------------ played

TEST_F(PlayedScenario, MisbehavesFromItsTimeForItsTime)
{
    play("[[step]]\nat = \"20ms\"\nmisbehave = \"gateway-rc=61446\"\nfor = \"30ms\"\n"
         "[[step]]\nat = \"0s\"\nmisbehave = \"gateway-rc=61447@once\"\n");
    EXPECT_EQ(61447, code());
    EXPECT_EQ(0, code());
    pass(19ms);
    EXPECT_EQ(0, code());
    pass(1ms);
    EXPECT_EQ(61446, code());
    pass(29ms);
    EXPECT_EQ(61446, code());
    pass(1ms);
    EXPECT_EQ(0, code());
    EXPECT_EQ("scenario: 0.000 s: gateway-rc=61447@once\n"
              "scenario: 0.020 s: gateway-rc=61446 for 0.030 s\n"
              "scenario: 0.050 s: gateway-rc=61446 ends\n"
              "scenario: is over\n",
              log());
}

TEST_F(PlayedScenario, EndsMisbehavioursByNameAndAll)
{
    play("[[step]]\nat = \"0s\"\nmisbehave = [\"gateway-rc=61446\", \"ping\"]\n"
         "[[step]]\nat = \"10ms\"\nend = \"ping\"\n"
         "[[step]]\nat = \"20ms\"\nend = \"all\"\n");
    client->send(standin_test::eciRequest(1, Call()));
    EXPECT_EQ(7, client->read().value().flowType);
    EXPECT_EQ(61446, client->read().value().gatewayRc);
    pass(10ms);
    EXPECT_EQ(61446, code());
    pass(10ms);
    EXPECT_EQ(0, code());
}

TEST_F(PlayedScenario, DoesThingsToConnections)
{
    play("[[step]]\nat = \"10ms\"\ndo = [\"ping\", \"close\"]\n"
         "[[step]]\nat = \"20ms\"\ndo = \"half-close\"\nconnection = 1\n"
         "[[step]]\nat = \"30ms\"\ndo = \"drop\"\nconnection = 1\n"
         "[[step]]\nat = \"30ms\"\ndo = \"reset\"\n");
    Client other(gateway->port());
    ASSERT_TRUE(other.shakeHands());
    pass(10ms);
    EXPECT_EQ(7, client->read().value().flowType);
    EXPECT_EQ(10, client->read().value().flowType);
    pass(10ms);
    EXPECT_TRUE(client->readBytes(1).empty());
    EXPECT_EQ(0U, gateway->closedCount());
    pass(10ms);
    EXPECT_TRUE(gateway->awaitClosed(2));
    EXPECT_FALSE(other.endsInOrder());
}

TEST_F(PlayedScenario, ReleasesWhatIsHeld)
{
    play("[[step]]\nat = \"0s\"\nmisbehave = \"hold\"\n"
         "[[step]]\nat = \"10ms\"\ndo = \"release\"\n");
    client->send(standin_test::eciRequest(1, Call()));
    ASSERT_TRUE(gateway->awaitHeld());
    pass(10ms);
    EXPECT_EQ(1, client->read().value().messageId);
    client->send(standin_test::eciRequest(2, Call())); // holding has ended
    EXPECT_EQ(2, client->read().value().messageId);
}

TEST_F(PlayedScenario, BeginsAnewSoManyTimes)
{
    play("every = \"10ms\"\ntimes = 3\n"
         "[[step]]\nat = \"4ms\"\nmisbehave = \"gateway-rc=61446@once\"\n");
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(0, code());
        pass(5ms);
        EXPECT_EQ(61446, code());
        EXPECT_EQ(0, code());
        pass(5ms);
    }
    pass(20ms);
    EXPECT_EQ(0, code());
    EXPECT_NE(std::string::npos, log().find("0.024 s: gateway-rc=61446@once\nscenario: is over\n"));
}

// -------------------------------------------------------------------------------------- the daemon

TEST(DaemonScenario, IsPlayedFromTheStart)
{
    const TemporaryDirectory directory;
    const std::string file = directory.file("storm.toml");
    std::ofstream(file) << "[[step]]\nat = \"0s\"\nmisbehave = \"gateway-rc=61446\"\n"
                           "[[step]]\nat = \"1ms\"\nend = \"all\"\n";
    Daemon daemon({"--scenario", file});
    ASSERT_TRUE(daemon.awaitOutput("info    scenario: 0.000 s: gateway-rc=61446\n"));
    ASSERT_TRUE(daemon.awaitOutput("info    scenario: 0.001 s: all misbehaviours end\n"));
    ASSERT_TRUE(daemon.awaitOutput("info    scenario: is over\n"));
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    ASSERT_TRUE(client.send(standin_test::eciRequest(1, Call())));
    EXPECT_EQ(0, client.read().value().gatewayRc);
    EXPECT_EQ(0, daemon.stop());
}

TEST(DaemonScenario, ThatIsWrongEndsWithCode11AndNamesThePlace)
{
    const TemporaryDirectory directory;
    const std::string file = directory.file("storm.toml");
    std::ofstream(file) << "[[step]]\nat = \"0s\"\nmisbehave = \"holt\"\n";
    Daemon daemon({"--scenario", file});
    EXPECT_EQ(11, daemon.end());
    EXPECT_TRUE(daemon.wrote("error   cannot use the scenario " + file +
                             ": line 3, column 13: \"holt\" is no misbehaviour; "
                             "--list-misbehaviours shows them all. docs/gateway.md describes "
                             "scenarios.\n"))
        << daemon.output();
    Daemon missing({"--scenario", directory.file("none.toml")});
    EXPECT_EQ(11, missing.end());
}

TEST(DaemonScenario, AndFaultsOfTheConnectionCannotLieOnTopOfARecording)
{
    const TemporaryDirectory directory;
    Daemon daemon({"--record", "here:5770", directory.file("monday"), "--scenario", "x.toml"});
    EXPECT_EQ(2, daemon.end());
    for (const char* const fault :
         {"latency=5", "send-rate=5", "silence", "half-close", "stall=3"}) {
        Daemon other({"--record", "here:5770", directory.file("monday"), "--misbehave", fault});
        EXPECT_EQ(2, other.end()) << fault;
        EXPECT_TRUE(other.wrote(" cannot lie on top of --record")) << other.output();
    }
}
