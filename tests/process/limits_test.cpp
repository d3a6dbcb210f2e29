// What a connection takes of the process: stack, address space, descriptors; and under which
// limits and filters the library works.
#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "process/system_calls.h"
#include "standin/gateway.h"
#include "support/connection_script.h"
#include "support/descriptors.h"

using namespace script;

namespace {

// How a program has ended, and the line that it has written.
struct Outcome {
    std::string line;
    int status = -1;
};

class Application : public ::testing::Test {
protected:
    Application()
    {
        gateway.setEsiReply([](const standin::EsiRequest&) { return standin::EsiReply(); });
    }

    // The program, in a shell that has run the preparation before it.
    Outcome run(const std::string& command, const std::string& value = "",
                const std::string& preparation = "true")
    {
        Outcome outcome;
        std::string line = preparation + "; exec " QPX_APPLICATION " " + command + " " +
                           std::to_string(gateway.port()) + " " + value;
        FILE* output = popen(line.c_str(), "re");
        if (output == nullptr) return outcome;
        char text[256] = "";
        while (std::fgets(text, sizeof text, output) != nullptr) outcome.line += text;
        outcome.status = pclose(output);
        return outcome;
    }

    // The number that the program has written.
    long number(const std::string& command, const std::string& value,
                const std::string& preparation)
    {
        Outcome outcome = run(command, value, preparation);
        EXPECT_EQ(0, outcome.status);
        return std::atol(outcome.line.c_str());
    }

    void expectStory(const Outcome& outcome)
    {
        EXPECT_EQ("ok\n", outcome.line);
        EXPECT_EQ(0, outcome.status);
    }

    static standin::GatewayOptions options()
    {
        standin::GatewayOptions options;
        options.systems = {{"PROD    ", "Production"}};
        return options;
    }

    standin::Gateway gateway{options()};
};

// ---- Stack and address space -------------------------------------------------------------------

TEST_F(Application, HasReceiversWithTheStackThatUlimitGaveWhenItWasStarted)
{
    EXPECT_EQ(256, number("stack", "", "ulimit -s 256"));
    EXPECT_EQ(5120, number("stack", "", "ulimit -s 5120"));
}

TEST_F(Application, HasReceiversWithStacksOf2MiBWhereTheirSizeIsUnlimited)
{
    EXPECT_EQ(2048, number("stack", "", "ulimit -s unlimited"));
}

TEST_F(Application, HasReceiversWithTheStackThatItHasMadeTheDefault)
{
    EXPECT_EQ(320, number("stack", "320", "ulimit -s 5120"));
}

// Stack, guard page and what the connection has of the heap; the arenas of the C library apart.
TEST_F(Application, TakesTheStackAndLittleMoreOfTheAddressSpaceForEachConnection)
{
    long small = number("space", "100", "ulimit -s 256; export MALLOC_ARENA_MAX=1");
    EXPECT_LE(256, small);
    EXPECT_GE(256 + 64, small);

    long large = number("space", "100", "ulimit -s 5120; export MALLOC_ARENA_MAX=1");
    EXPECT_LE(5120, large);
    EXPECT_GE(5120 + 64, large);
}

TEST_F(Application, MakesCallsOfEveryKindFromAThreadWithAStackOf64KiB)
{
    expectStory(run("small", "64"));
}

TEST_F(Application, MakesCallsOfEveryKindWithReceiversThatHaveStacksOf64KiB)
{
    expectStory(run("story", "", "ulimit -s 64"));
}

// ---- Descriptors -------------------------------------------------------------------------------

TEST(Connection, TakesOneDescriptorUntilItIsClosed)
{
    ScriptedConnection before;
    int open = support::openDescriptors();
    {
        ScriptedConnection connection;
        // The connection has two ends here, and the gateway that the test plays listens.
        EXPECT_EQ(open + 3, support::openDescriptors());
        connection.closeInOrder();
        connection.peer.close();
        EXPECT_EQ(open + 1, support::openDescriptors());
    }
    before.closeInOrder();
}

TEST(Connection, ServesWithADescriptorNumberedAbove1024)
{
    support::DescriptorsFrom high(1500);
    ScriptedConnection connection(30);
    support::EciParms parms = support::syncCall("PROG", text("question"));
    auto call = connection.start(parms);
    int messageId = connection.awaitRequest().messageId();
    connection.peer.send(eciReply(messageId, text("answered")));

    EXPECT_RC(QPX_OK, call.get());
    EXPECT_EQ(text("answered"), parms.commarea());
    connection.closeInOrder();
}

// ---- Filters of system calls -------------------------------------------------------------------

TEST_F(Application, NeedsNoSystemCallThatIsNotListed)
{
    expectStory(run("filtered", "calls"));
}

TEST_F(Application, NeedsNoSystemCallThatIsNotListedWhereAnotherFilterHidesClone3)
{
    expectStory(run("filtered", "calls-without-clone3"));
}

TEST(SystemCalls, AreAllOfSystemService)
{
    std::set<std::string> allowed;
    std::ifstream file(QPX_SYSTEM_SERVICE);
    for (std::string name; std::getline(file, name);) allowed.insert(name);
    ASSERT_EQ(1U, allowed.count("execve"));
    ASSERT_EQ(0U, allowed.count("ptrace"));

    for (const process::SystemCall& call : process::systemCalls)
        EXPECT_EQ(1U, allowed.count(call.name)) << call.name;
}

TEST(SystemCalls, LockNoMemory)
{
    for (const process::SystemCall& call : process::systemCalls)
        EXPECT_EQ(nullptr, std::strstr(call.name, "mlock")) << call.name;
}

TEST_F(Application, IsKilledWhereOnlyTheKernelsArchitectureIsAllowedAndItHasAnother)
{
    Outcome outcome = run("filtered", "native");
#ifdef __i386__
    EXPECT_TRUE(WIFSIGNALED(outcome.status));
    EXPECT_EQ(SIGSYS, WTERMSIG(outcome.status));
    EXPECT_EQ("", outcome.line);
#else
    expectStory(outcome);
#endif
}

TEST_F(Application, MakesCallsOfEveryKindWhereItsArchitectureIsAllowedToo)
{
    expectStory(run("filtered", "native-and-x86"));
}

} // namespace
