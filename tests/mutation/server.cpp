/*
 * The main function of a test program with mutants: with QPX_MUTANT_SERVER it runs one test after
 * the other, each in a process of its own that is a fork of this one, as whoever writes to its
 * standard input says:
 *
 *   <milliseconds> <test>     ->  <passed | failed | signal | hung> <milliseconds>
 */
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "gtest/gtest.h"

static long now()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<long>(time.tv_sec) % 1000000 * 1000 + time.tv_nsec / 1000000;
}

static void runTest(const char* test)
{
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int number = 0; number <= 2; ++number) dup2(null, number);
    close(null);
    unsetenv("QPX_MUTANT_SERVER");
    testing::GTEST_FLAG(filter) = test;
    exit(RUN_ALL_TESTS());
}

static const char* outcome(pid_t child, int limit)
{
    int descriptor = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    pollfd ended = {descriptor, POLLIN, 0};
    bool hung = poll(&ended, 1, limit) == 0;
    close(descriptor);
    kill(-child, SIGKILL);
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    kill(-child, SIGKILL); // what it has left behind
    if (hung) return "hung";
    if (WIFSIGNALED(status)) return "signal";
    return WEXITSTATUS(status) == 0 ? "passed" : "failed";
}

static void serve()
{
    int limit;
    char test[4096];
    while (scanf("%d %4095[^\n]", &limit, test) == 2) {
        long begin = now();
        pid_t child = fork();
        if (child == 0) runTest(test);
        const char* result = outcome(child, limit);
        printf("%s %ld\n", result, now() - begin);
        fflush(stdout);
    }
}

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (getenv("QPX_MUTANT_SERVER") == nullptr) return RUN_ALL_TESTS();
    serve();
    return 0;
}
