// The thread that the library adds to the application's for each connection.
#include <dirent.h>
#include <pthread.h>
#include <signal.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <set>
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
std::set<std::string> threadsNamed(const std::string& name)
{
    std::set<std::string> found;
    DIR* tasks = opendir("/proc/self/task");
    while (const dirent* entry = readdir(tasks)) {
        std::string folder = std::string("/proc/self/task/") + entry->d_name;
        if (firstLineOf(folder + "/comm", "") == name) found.insert(folder);
    }
    closedir(tasks);
    return found;
}

// Those of the receivers that have come since. One whose connection is closed may be leaving yet.
std::vector<std::string> receiversSince(const std::set<std::string>& before)
{
    std::vector<std::string> found;
    for (const std::string& folder : threadsNamed("qpx-recv"))
        if (before.count(folder) == 0) found.push_back(folder);
    return found;
}

bool isBlocked(std::uint64_t mask, int signal)
{
    return (mask >> (signal - 1) & 1) != 0;
}

TEST(ReceiverThread, HasANameThatToolsShow)
{
    std::set<std::string> before = threadsNamed("qpx-recv");
    ScriptedConnection first;
    EXPECT_EQ(1U, receiversSince(before).size());
    {
        ScriptedConnection second;
        EXPECT_EQ(2U, receiversSince(before).size());
        second.closeInOrder();
    }
    first.closeInOrder();
}

TEST(ReceiverThread, BlocksEverySignalThatCanBeBlocked)
{
    std::set<std::string> before = threadsNamed("qpx-recv");
    ScriptedConnection connection;
    std::vector<std::string> receivers = receiversSince(before);
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
