// What the library makes of the signals of its process.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/connection_script.h"
#include "support/forked.h"

using namespace script;

namespace {

void firstCall()
{
    char* version = nullptr;
    EXPECT_RC(QPX_OK, QPX_getAPIVersion(&version));
}

// A connection with a call, and a Gateway that has gone when another is made.
void useConnections()
{
    ScriptedConnection connection(30);
    support::EciParms parms = support::syncCall("PROG", text("question"));
    auto call = connection.start(parms);
    int messageId = connection.awaitRequest().messageId();
    connection.peer.send(eciReply(messageId, text("answered")));
    EXPECT_RC(QPX_OK, call.get());
    connection.peer.reset();
    EXPECT_NE(QPX_OK, QPX_ECI_Execute(connection.token, &parms.record));
}

using Handler = void (*)(int);

Handler handlerOf(int signalNumber)
{
    struct sigaction action = {};
    sigaction(signalNumber, nullptr, &action);
    return action.sa_handler;
}

std::vector<struct sigaction> everyAction()
{
    std::vector<struct sigaction> all;
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction action = {};
        sigaction(number, nullptr, &action);
        all.push_back(action);
    }
    return all;
}

volatile sig_atomic_t handled = 0;

void countSignal(int)
{
    handled = handled + 1;
}

// Whether a program that is executed now finds the signal ignored.
bool isIgnoredByAProgram(int signalNumber)
{
    FILE* output = popen("exec grep SigIgn: /proc/self/status", "re");
    char line[80] = "";
    EXPECT_NE(nullptr, output);
    EXPECT_NE(nullptr, std::fgets(line, sizeof line, output));
    pclose(output);
    std::uint64_t ignored = std::stoull(line + std::strlen("SigIgn:"), nullptr, 16);
    return (ignored >> (signalNumber - 1) & 1) != 0;
}

TEST(SignalHandlers, StayAsTheyWereButForThatOfSigpipe)
{
    signal(SIGPIPE, SIG_DFL);
    signal(SIGUSR1, countSignal);
    std::vector<struct sigaction> before = everyAction();

    useConnections();

    std::vector<struct sigaction> after = everyAction();
    for (int number = 1; number < NSIG; ++number) {
        auto at = static_cast<std::size_t>(number - 1);
        EXPECT_EQ(number != SIGPIPE, before[at].sa_handler == after[at].sa_handler)
            << "signal " << number;
        EXPECT_TRUE(number == SIGPIPE || before[at].sa_flags == after[at].sa_flags)
            << "signal " << number;
    }
}

TEST(Sigpipe, IsIgnoredInThePlaceOfAHandlerFromTheFirstCallOn)
{
    signal(SIGPIPE, countSignal);
    EXPECT_EQ(countSignal, handlerOf(SIGPIPE));
    firstCall();

    EXPECT_EQ(SIG_IGN, handlerOf(SIGPIPE));
    raise(SIGPIPE);
    EXPECT_EQ(0, handled);
}

TEST(Sigpipe, StaysAsTheProgramSetsItBehindTheFirstCall)
{
    firstCall();
    signal(SIGPIPE, countSignal);

    useConnections();

    EXPECT_EQ(countSignal, handlerOf(SIGPIPE));
    EXPECT_EQ(0, handled);
}

TEST(Sigpipe, IsIgnoredByAProgramThatIsExecutedBehindTheFirstCall)
{
    signal(SIGPIPE, SIG_DFL);
    EXPECT_FALSE(isIgnoredByAProgram(SIGPIPE));
    firstCall();
    EXPECT_TRUE(isIgnoredByAProgram(SIGPIPE));
}

TEST(Sigpipe, IsNotIgnoredByAProgramForWhichItHasBeenSetBack)
{
    firstCall();
    signal(SIGPIPE, SIG_DFL);
    EXPECT_EQ(0, support::inChild([] { return isIgnoredByAProgram(SIGPIPE) ? 1 : 0; }));
}

// ---- A trace into a pipe that nobody reads -----------------------------------------------------

// How a process ends that traces into such a pipe with this disposition of the signal.
int statusOfTracing(Handler disposition)
{
    std::fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        alarm(support::childLimit);
        int ends[2];
        firstCall();
        signal(SIGPIPE, disposition);
        if (pipe(ends) != 0 || dup2(ends[1], STDERR_FILENO) < 0) support::endChild(1);
        close(ends[0]);
        close(ends[1]);
        QPX_setAPITraceLevel(4);
        firstCall();
        support::endChild(7);
    }
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    return status;
}

TEST(Sigpipe, IsNotRaisedByATraceIntoAPipe)
{
    int status = statusOfTracing(SIG_IGN);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(7, WEXITSTATUS(status));
}

TEST(Sigpipe, IsRaisedByATraceIntoAPipeWhereTheProgramHasSetItBack)
{
    int status = statusOfTracing(SIG_DFL);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(SIGPIPE, WTERMSIG(status));
}

} // namespace
