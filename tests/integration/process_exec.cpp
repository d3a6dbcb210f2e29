// The descriptors of connections: not for programs that the application executes, and never those
// of the standard streams.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "support/connected_descriptor.h"
#include "support/connection_script.h"

using namespace script;
using support::descriptorTo;
using support::highestLookedAt;

namespace {

std::string nameOf(int descriptor)
{
    char name[64] = {};
    std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    return readlink(link.c_str(), name, sizeof name - 1) > 0 ? name : "";
}

// What a program that the test executes says of its descriptors.
std::string descriptorsOfAProgram()
{
    std::string all;
    FILE* output = popen("ls -l /proc/self/fd", "re");
    if (output == nullptr) return all;
    char line[256];
    while (std::fgets(line, sizeof line, output) != nullptr) all += line;
    pclose(output);
    return all;
}

// The standard streams are closed while this lives.
class NoStandardStreams {
public:
    NoStandardStreams()
    {
        std::fflush(nullptr);
        for (int stream = 0; stream <= STDERR_FILENO; ++stream) {
            kept_[stream] = fcntl(stream, F_DUPFD_CLOEXEC, highestLookedAt + 1);
            close(stream);
        }
    }
    ~NoStandardStreams()
    {
        for (int stream = 0; stream <= STDERR_FILENO; ++stream) {
            if (kept_[stream] < 0) continue;
            dup2(kept_[stream], stream);
            close(kept_[stream]);
        }
    }
    NoStandardStreams(const NoStandardStreams&) = delete;
    NoStandardStreams& operator=(const NoStandardStreams&) = delete;

private:
    int kept_[3];
};

TEST(ConnectionSocket, IsNotInheritedByAProgramThatIsExecuted)
{
    ScriptedConnection connection;
    std::string socket = nameOf(descriptorTo(connection.gateway.port()));
    ASSERT_EQ(0U, socket.find("socket:["));

    std::string inherited = descriptorsOfAProgram();

    EXPECT_NE(std::string::npos, inherited.find(" -> ")) << inherited;
    EXPECT_EQ(std::string::npos, inherited.find(socket)) << inherited;
    connection.closeInOrder();
}

TEST(ConnectionSocket, IsNoStandardStreamOfAnApplicationThatHasClosedThem)
{
    int descriptor = -1;
    {
        NoStandardStreams none;
        ScriptedConnection connection;
        descriptor = descriptorTo(connection.gateway.port());
        connection.closeInOrder();
    }

    EXPECT_LT(STDERR_FILENO, descriptor);
}

TEST(ConnectionSocket, IsNotInheritedWhereTheStandardStreamsHaveBeenClosed)
{
    int flags = 0;
    {
        NoStandardStreams none;
        ScriptedConnection connection;
        flags = fcntl(descriptorTo(connection.gateway.port()), F_GETFD);
        connection.closeInOrder();
    }

    EXPECT_EQ(FD_CLOEXEC, flags);
}

} // namespace
