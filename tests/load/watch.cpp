#include "load/watch.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace load {

namespace {

// No call waits for longer: peers answer within milliseconds, and connections are closed all the
// time. It leaves room for a busy machine and for sanitizers.
constexpr std::chrono::seconds longestCall{90};

// What tellOfCrash prints, made beforehand.
thread_local int ownThread = -1;
thread_local std::atomic<const char*>* ownOperation = nullptr;
char seedText[32];

void writeOut(const char* text)
{
    ssize_t written = write(STDERR_FILENO, text, std::strlen(text));
    static_cast<void>(written);
}

bool crashesAreToldOf()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return false; // the sanitizer tells of them
#else
    return true;
#endif
}

} // namespace

Watch::Watch(unsigned seed, int threads) : seed_(seed), doings_(static_cast<std::size_t>(threads))
{
    std::snprintf(seedText, sizeof seedText, "; seed %u\n", seed);
    if (crashesAreToldOf())
        for (int number : {SIGSEGV, SIGABRT, SIGBUS}) std::signal(number, tellOfCrash);
    looking_ = std::thread([this] { look(); });
}

Watch::~Watch()
{
    {
        std::lock_guard<std::mutex> guard(mutex_);
        over_ = true;
        changed_.notify_all();
    }
    looking_.join();
    if (crashesAreToldOf())
        for (int number : {SIGSEGV, SIGABRT, SIGBUS}) std::signal(number, SIG_DFL);
}

void Watch::problem(int thread, const std::string& text)
{
    problem(nameOf(thread) + " " + text);
}

void Watch::problem(const std::string& text)
{
    std::lock_guard<std::mutex> guard(mutex_);
    problems_.push_back(text + " (seed " + std::to_string(seed_) + ")");
    problemCount_ += 1;
    std::fprintf(stderr, "%s\n", problems_.back().c_str());
}

std::vector<std::string> Watch::problems() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return problems_;
}

std::string Watch::nameOf(int thread) const
{
    const Doings& doings = doings_[static_cast<std::size_t>(thread)];
    const char* operation = doings.operation;
    const char* last = doings.last;
    std::string name = "thread " + std::to_string(thread) + ", ";
    if (operation != nullptr)
        name += operation;
    else
        name += last != nullptr ? std::string("after ") + last : "before its first call";
    return name + ", connection " + std::to_string(doings.connection) + ":";
}

void Watch::look()
{
    std::unique_lock<std::mutex> lock(mutex_);
    while (!changed_.wait_for(lock, std::chrono::seconds(1), [this] { return over_; })) {
        Clock::rep oldest = (Clock::now() - longestCall).time_since_epoch().count();
        for (std::size_t thread = 0; thread < doings_.size(); ++thread)
            if (doings_[thread].operation != nullptr && doings_[thread].since < oldest)
                tellOfHang(static_cast<int>(thread));
    }
}

void Watch::tellOfHang(int hanging) const
{
    std::fprintf(stderr, "%s does not return (seed %u)\n", nameOf(hanging).c_str(), seed_);
    for (std::size_t thread = 0; thread < doings_.size(); ++thread)
        std::fprintf(stderr, "  %s\n", nameOf(static_cast<int>(thread)).c_str());
    std::fflush(nullptr);
    std::signal(SIGABRT, SIG_DFL);
    std::abort();
}

// Calls nothing that a crashed process must not call.
void Watch::tellOfCrash(int signal)
{
    const char* operation = ownOperation != nullptr ? ownOperation->load() : nullptr;
    char digit[2] = {static_cast<char>('0' + ownThread % 10), '\0'};
    writeOut("Crash: ");
    writeOut(ownThread >= 0 ? "thread " : "a thread of the library's or of a peer's");
    if (ownThread >= 0) writeOut(digit);
    writeOut(", ");
    writeOut(operation != nullptr ? operation : "in no call");
    writeOut(seedText);
    std::signal(signal, SIG_DFL);
    raise(signal);
}

Doing::Doing(Watch& watch, int thread, const char* operation, int connection)
    : doings_(watch.doings_[static_cast<std::size_t>(thread)]), before_(doings_.operation)
{
    doings_.since = Watch::Clock::now().time_since_epoch().count();
    doings_.connection = connection;
    doings_.operation = operation;
    doings_.last = operation;
    ownThread = thread;
    ownOperation = &doings_.operation;
}

Doing::~Doing()
{
    doings_.operation = before_;
}

} // namespace load
