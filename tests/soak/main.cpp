// A soak: threads that make calls of every kind while the daemon behind them is killed and started
// again, and then a look at what is left of it, and at the books. See tools/soak --help.
#include <dirent.h>
#include <malloc.h>
#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "books.h"
#include "caller.h"
#include "keeper.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int threads = 8;
constexpr std::chrono::seconds timeBetweenLines(10);
constexpr std::chrono::seconds longestCall(120);
constexpr long memoryThatMayDiffer = 64 * 1024; // of threads' stacks that the C library keeps
constexpr int opensOfTheWarmUp = 70; // the library keeps the records of the last 64 connections
constexpr long callsOfTheWarmUp = 300;

struct Options {
    long seconds = 0; // of the whole run; 0 if it goes by kills
    long life = 60;   // seconds of one life of the daemon
    long kills = 2;
    long calls = 0; // in one life of the daemon, where it goes by calls
    unsigned seed = std::random_device()() % 1000000;
    std::string folder;
};

void explain()
{
    std::fputs(
        "usage: soak [--seconds N] [--life SECONDS] [--kills N --calls N] [--seed N] "
        "[--folder FOLDER]\n"
        "  --seconds N    so long, with a life of the daemon of --life seconds (60)\n"
        "  --kills N      without --seconds: until the daemon has been killed so often, each\n"
        "  --calls N      time after so many calls\n"
        "  --seed N       what the threads choose; the run's own unless set\n"
        "  --folder NAME  where ledger, books and log stay; a temporary one unless set\n",
        stderr);
}

bool read(int argc, char** argv, Options* options)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string name = argv[i];
        long number = std::atol(argv[i + 1]);
        if (name == "--seconds")
            options->seconds = number;
        else if (name == "--life")
            options->life = number;
        else if (name == "--kills")
            options->kills = number;
        else if (name == "--calls")
            options->calls = number;
        else if (name == "--seed")
            options->seed = static_cast<unsigned>(number);
        else if (name == "--folder")
            options->folder = argv[i + 1];
        else
            return false;
    }
    return argc % 2 == 1 && (options->seconds > 0 || options->calls > 0) && options->life > 0;
}

int entriesOf(const char* folder)
{
    DIR* directory = opendir(folder);
    int entries = 0;
    while (readdir(directory) != nullptr) entries += 1;
    closedir(directory);
    return entries - 2;
}

// What a process has.
struct Held {
    int threads;
    int descriptors;
    long memory; // bytes
};

long memoryInUse()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return static_cast<long>(__sanitizer_get_current_allocated_bytes());
#else
    struct mallinfo2 all = mallinfo2();
    return static_cast<long>(all.uordblks + all.hblkhd);
#endif
}

// A receiver's thread leaves the process a moment after its connection has gone.
Held holds(int threadsExpected)
{
    auto limit = Clock::now() + std::chrono::seconds(20);
    Held held = {};
    do {
        sched_yield();
        held.threads = entriesOf("/proc/self/task");
    } while (held.threads != threadsExpected && Clock::now() < limit);
    held.descriptors = entriesOf("/proc/self/fd");
    held.memory = memoryInUse();
    return held;
}

class Soak {
public:
    Soak(const Options& options, const std::string& folder)
        : options_(options), keeper_(SOAK_DAEMON, SOAK_REGISTRY, folder),
          booksFile_(folder + "/books"), books_(booksFile_.c_str()), shared_(keeper_, books_)
    {
        for (int number = 0; number < threads; ++number)
            callers_.push_back(std::make_unique<soak::Caller>(
                shared_, number, options.seed * threads + static_cast<unsigned>(number)));
    }

    int run()
    {
        std::thread([] {}).join(); // a sanitizer's own thread comes with the first one
        int threadsBefore = entriesOf("/proc/self/task");
        begin_ = Clock::now();
        phase([&] { warmUp(); });
        Held before = holds(threadsBefore);
        phase([&] { options_.seconds > 0 ? byTheClock() : byCalls(); });
        Held after = holds(threadsBefore);
        say("the end");
        std::printf("%d threads, %d descriptors, %ld bytes; %d, %d, %ld before\n", after.threads,
                    after.descriptors, after.memory, before.threads, before.descriptors,
                    before.memory);
        if (after.threads != before.threads) shared_.problem(-1, "threads are left");
        if (after.descriptors != before.descriptors) shared_.problem(-1, "descriptors are left");
        if (after.memory > before.memory + memoryThatMayDiffer)
            shared_.problem(-1, "memory is left");
        keeper_.stop();
        return shared_.problems;
    }

    // The outcome of the audit: 0 if the books agree.
    int audit()
    {
        books_.shorten();
        std::string ledger = keeper_.ledger();
        std::string program = SOAK_AUDIT;
        char* argv[] = {program.data(), ledger.data(), const_cast<char*>(booksFile_.c_str()),
                        nullptr};
        pid_t process;
        int status = 0;
        std::fflush(stdout);
        if (posix_spawn(&process, SOAK_AUDIT, nullptr, nullptr, argv, environ) != 0) return 1;
        while (waitpid(process, &status, 0) < 0 && errno == EINTR) continue;
        return status;
    }

private:
    // The threads work while the action goes on, and have left nothing open when this returns.
    template <typename Action>
    void phase(Action action)
    {
        shared_.stopping = false;
        std::vector<std::thread> working;
        for (auto& caller : callers_) working.emplace_back([&] { caller->run(); });
        action();
        shared_.stopping = true;
        keeper_.wake();
        for (std::thread& thread : working) thread.join();
        QPX_purgeGatewayConnection(&shared_.shared.token, 0);
        shared_.shared.token = nullptr;
        QPX_closeAllGatewayConnections();
        ECI_deleteAllChannels();
    }

    // Everything that the library makes once and keeps is there afterwards.
    void warmUp()
    {
        char host[] = "127.0.0.1";
        for (int i = 0; i < opensOfTheWarmUp; ++i) {
            QPX_ConnToken_t token = nullptr;
            if (QPX_openRemoteGatewayConnection(host, keeper_.port(), &token, 60) == QPX_OK)
                QPX_closeGatewayConnection(&token);
        }
        do {
            awaitCalls(shared_.calls + callsOfTheWarmUp, Clock::time_point::max());
            keeper_.restart();
        } while (!shared_.hasDoneEverything() && !hasSeenEnough());
        say("warmed up");
    }

    void byCalls()
    {
        for (long kill = 0; kill < options_.kills && !hasSeenEnough(); ++kill) {
            awaitCalls(shared_.calls + options_.calls, Clock::time_point::max());
            keeper_.restart();
        }
        awaitCalls(shared_.calls + options_.calls, Clock::time_point::max());
    }

    void byTheClock()
    {
        Clock::time_point end = Clock::now() + std::chrono::seconds(options_.seconds);
        while (Clock::now() < end && !hasSeenEnough()) {
            Clock::time_point lifeEnd = Clock::now() + std::chrono::seconds(options_.life);
            constexpr long never = 0x7FFFFFFF;
            awaitCalls(never, std::min(end, lifeEnd));
            if (Clock::now() < end) keeper_.restart();
        }
    }

    // Shows a line now and then; when nothing is done for too long, the process ends.
    void awaitCalls(long number, Clock::time_point limit)
    {
        while (shared_.calls < number && Clock::now() < limit && !hasSeenEnough()) {
            shared_.awaitCalls(number, std::min(limit, shown_ + timeBetweenLines));
            if (Clock::now() < shown_ + timeBetweenLines) continue;
            say("");
            if (shared_.calls != lastCalls_) lastProgress_ = Clock::now();
            lastCalls_ = shared_.calls;
            if (Clock::now() > lastProgress_ + longestCall) {
                std::printf("nothing has been done for %ld s\n",
                            static_cast<long>(longestCall.count()));
                std::fflush(stdout);
                std::abort();
            }
        }
    }

    bool hasSeenEnough() const { return shared_.problems >= 50; }

    void say(const char* what)
    {
        shown_ = Clock::now();
        auto passed = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin_);
        std::printf("%5ld s: %d lives of the daemon, %d problems; %s%s%s\n",
                    static_cast<long>(passed.count()), keeper_.life(), shared_.problems.load(),
                    shared_.text().c_str(), *what != '\0' ? "; " : "", what);
        std::fflush(stdout);
    }

    const Options& options_;
    soak::Keeper keeper_;
    const std::string booksFile_;
    soak::Books books_;
    soak::Shared shared_;
    std::vector<std::unique_ptr<soak::Caller>> callers_;
    Clock::time_point begin_;
    Clock::time_point shown_ = Clock::now();
    Clock::time_point lastProgress_ = Clock::now();
    long lastCalls_ = 0;
};

std::string makeFolder()
{
    std::string folder = (std::filesystem::temp_directory_path() / "soak.XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) {
        std::perror("soak: mkdtemp");
        std::exit(2);
    }
    return folder;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!read(argc, argv, &options)) {
        explain();
        return 2;
    }
    bool isTemporary = options.folder.empty();
    std::string folder = isTemporary ? makeFolder() : options.folder;
    if (!isTemporary) std::filesystem::create_directories(folder);
    std::printf("soak with seed %u in %s\n", options.seed, folder.c_str());
    std::fflush(stdout);
    int problems = 0;
    {
        Soak soak(options, folder);
        problems = soak.run();
        if (soak.audit() != 0) problems += 1;
    }
    if (problems == 0 && isTemporary) std::filesystem::remove_all(folder);
    if (problems != 0) std::printf("%d problems, seed %u\n", problems, options.seed);
    return problems == 0 ? 0 : 1;
}
