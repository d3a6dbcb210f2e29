// The thread that the library adds to the application's for each connection.
#include <dirent.h>
#include <pthread.h>
#include <signal.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "support/connection_script.h"

using namespace script;

namespace {

std::string firstLineOf(const std::string& path, const std::string& beginning)
{
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
        if (line.compare(0, beginning.size(), beginning) == 0) return line;
    return "";
}

// The folders of the process's threads with that name.
std::vector<std::string> threadsNamed(const std::string& name)
{
    std::vector<std::string> found;
    DIR* tasks = opendir("/proc/self/task");
    while (const dirent* entry = readdir(tasks)) {
        std::string folder = std::string("/proc/self/task/") + entry->d_name;
        if (firstLineOf(folder + "/comm", "") == name) found.push_back(folder);
    }
    closedir(tasks);
    return found;
}

bool isBlocked(std::uint64_t mask, int signal)
{
    return (mask >> (signal - 1) & 1) != 0;
}

TEST(ReceiverThread, HasANameThatToolsShow)
{
    EXPECT_EQ(0U, threadsNamed("qpx-recv").size());
    ScriptedConnection first;
    EXPECT_EQ(1U, threadsNamed("qpx-recv").size());
    {
        ScriptedConnection second;
        EXPECT_EQ(2U, threadsNamed("qpx-recv").size());
        second.closeInOrder();
    }
    first.closeInOrder();
}

TEST(ReceiverThread, BlocksEverySignalThatCanBeBlocked)
{
    ScriptedConnection connection;
    std::vector<std::string> receivers = threadsNamed("qpx-recv");
    ASSERT_EQ(1U, receivers.size());

    std::string line = firstLineOf(receivers[0] + "/status", "SigBlk:");
    ASSERT_NE("", line);
    std::uint64_t mask = std::stoull(line.substr(std::strlen("SigBlk:")), nullptr, 16);

    for (int signal = 1; signal < SIGRTMAX; ++signal) {
        bool isTheSystems = signal == SIGKILL || signal == SIGSTOP ||
                            (signal > SIGSYS && signal < SIGRTMIN);
        EXPECT_TRUE(isTheSystems || isBlocked(mask, signal)) << "signal " << signal;
    }
    connection.closeInOrder();
}

TEST(ReceiverThread, LeavesTheSignalsOfTheOpeningThreadAsTheyWere)
{
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    ScriptedGateway gateway;
    QPX_ConnToken_t token = nullptr;
    auto opening = callInThread([&] {
        pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
        int rc = QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 0);
        sigset_t after;
        pthread_sigmask(SIG_SETMASK, nullptr, &after);
        for (int signal = 1; signal < SIGRTMIN; ++signal)
            EXPECT_EQ(signal == SIGUSR2 ? 1 : 0, sigismember(&after, signal) == 1 ? 1 : 0)
                << "signal " << signal;
        return rc;
    });
    Peer peer = gateway.accept();
    peer.read(handshakeSize);
    peer.send(handshakeAnswer());
    EXPECT_RC(QPX_OK, opening.get());
    peer.close();
    QPX_purgeGatewayConnection(&token, 0);
}

} // namespace
