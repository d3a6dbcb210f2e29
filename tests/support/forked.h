// A part of a test that runs in a forked child, and how it ended.
//
//     EXPECT_EQ(0, inChild([&] { return QPX_closeAllGatewayConnections(); }));
//
// A child that hangs is ended after a limit and gives no exit code. None is left behind.
#ifndef SUPPORT_FORKED_H
#define SUPPORT_FORKED_H

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "support/call_in_thread.h"

#ifdef QPX_COVERAGE
extern "C" {
#include <gcov.h>
}
#endif

namespace support {

// Seconds that a child may take.
constexpr auto childLimit = static_cast<unsigned int>(generousLimit.count());

// What inChild gives for a child that did not exit by itself.
constexpr int childDied = -1;

// Ends a child at once. Where coverage is recorded, what has run in it counts.
[[noreturn]] inline void endChild(int code)
{
#ifdef QPX_COVERAGE
    __gcov_dump();
#endif
    _exit(code);
}

// The exit code of a child that runs the function, whose result, below 256, it is.
template <typename Function>
int inChild(Function function)
{
    std::fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        alarm(childLimit);
        endChild(function());
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) return childDied;
    return WIFEXITED(status) ? WEXITSTATUS(status) : childDied;
}

} // namespace support

#endif
