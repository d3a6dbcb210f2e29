#include "exec/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

extern char** environ;

namespace exec {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLook(50); // how often it is looked whether all is abandoned
constexpr milliseconds kMoment(500);
constexpr std::size_t kLongestAnswer = 32 * 1024 * 1024;
constexpr std::size_t kLongestComplaint = 500;

struct Pipe {
    int ends[2] = {-1, -1}; // for reading, for writing

    Pipe()
    {
        if (::pipe2(ends, O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "no pipe");
    }

    ~Pipe()
    {
        for (const int end : ends) {
            if (end != -1) ::close(end);
        }
    }

    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int take(int which)
    {
        const int end = std::exchange(ends[which], -1);
        ::fcntl(end, F_SETFL, O_NONBLOCK);
        return end;
    }
};

// How a program is started: with the three pipes and nothing else that is open here, in a group of
// its own, and with signals as they are at the beginning of a program.
class Start {
public:
    Start(const std::string& folder, const Pipe& input, const Pipe& output, const Pipe& complaints)
    {
        ::posix_spawn_file_actions_init(&actions_);
        ::posix_spawn_file_actions_adddup2(&actions_, input.ends[0], STDIN_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions_, output.ends[1], STDOUT_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions_, complaints.ends[1], STDERR_FILENO);
        ::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
        ::posix_spawn_file_actions_addchdir_np(&actions_, folder.c_str());

        sigset_t none;
        sigset_t all;
        ::sigemptyset(&none);
        ::sigfillset(&all);
        ::posix_spawnattr_init(&attributes_);
        ::posix_spawnattr_setsigmask(&attributes_, &none);
        ::posix_spawnattr_setsigdefault(&attributes_, &all);
        ::posix_spawnattr_setpgroup(&attributes_, 0);
        ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                                     POSIX_SPAWN_SETPGROUP);
    }

    ~Start()
    {
        ::posix_spawn_file_actions_destroy(&actions_);
        ::posix_spawnattr_destroy(&attributes_);
    }

    Start(const Start&) = delete;
    Start& operator=(const Start&) = delete;

    // 0, or what went wrong.
    int run(std::vector<std::string> words, pid_t& process) const
    {
        std::vector<char*> argv;
        for (std::string& word : words) argv.push_back(word.data());
        argv.push_back(nullptr);
        return ::posix_spawnp(&process, argv.front(), &actions_, &attributes_, argv.data(),
                              environ);
    }

private:
    posix_spawn_file_actions_t actions_{};
    posix_spawnattr_t attributes_{};
};

// Reads what there is; false at the end.
bool readInto(std::string& text, int descriptor)
{
    char piece[65536];
    for (;;) {
        const ssize_t count = ::read(descriptor, piece, sizeof piece);
        if (count > 0) {
            text.append(piece, static_cast<std::size_t>(count));
            if (static_cast<std::size_t>(count) < sizeof piece) return true;
        } else if (count == 0) {
            return false;
        } else if (errno != EINTR) {
            return errno == EAGAIN;
        }
        if (text.size() > kLongestAnswer) return true;
    }
}

int waitTime(std::chrono::steady_clock::time_point until)
{
    const auto left = std::chrono::ceil<milliseconds>(until - std::chrono::steady_clock::now());
    return static_cast<int>(std::clamp(left, milliseconds(0), kLook).count());
}

} // namespace

Process::Process(std::vector<std::string> words, std::string folder,
                 std::shared_ptr<const std::atomic<bool>> abandoned, Complain told)
    : words_(std::move(words)), folder_(std::move(folder)), abandoned_(std::move(abandoned)),
      told_(std::move(told))
{
}

Process::~Process()
{
    end();
}

// A program may well end behind an answer, in order, and be asked something in that very moment;
// a new one gets the line then.
Outcome Process::ask(const std::string& line, std::chrono::microseconds limit, std::string& answer)
{
    const Clock::time_point until = Clock::now() + limit;
    if (process_ != -1 && !isUsable()) end();
    const bool hadAnswered = process_ != -1 && hasAnswered_;
    Outcome outcome = askOnce(line, until, answer);
    if (outcome == Outcome::Ended && hadAnswered && endedInOrder_)
        outcome = askOnce(line, until, answer);
    return outcome;
}

Outcome Process::askOnce(const std::string& line, Clock::time_point until, std::string& answer)
{
    endedInOrder_ = false;
    if (process_ == -1 && !start(answer)) return Outcome::CannotStart;
    std::size_t sent = 0;
    for (;;) {
        const std::size_t end = received_.find('\n');
        if (end != std::string::npos) {
            answer = received_.substr(0, end);
            received_.erase(0, end + 1);
            hasAnswered_ = true;
            takeComplaints();
            return Outcome::Answered;
        }
        if (received_.size() > kLongestAnswer) {
            answer = "its answer is larger than 32 MB";
            reap(milliseconds(0));
            return Outcome::TooLong;
        }
        if (Clock::now() >= until || *abandoned_) {
            answer = *abandoned_ ? "the gateway has stopped" : "its time is over";
            takeComplaints();
            reap(milliseconds(0));
            return Outcome::TooLate;
        }
        pollfd places[3] = {{output_, POLLIN, 0}, {complaints_, POLLIN, 0}, {input_, POLLOUT, 0}};
        if (sent == line.size() || input_ == -1) places[2].fd = -1;
        ::poll(places, 3, waitTime(until));
        if (places[2].revents != 0) {
            const ssize_t count = ::write(input_, line.data() + sent, line.size() - sent);
            if (count > 0) sent += static_cast<std::size_t>(count);
            // It need not read the line to answer it.
            if (count < 0 && errno != EAGAIN && errno != EINTR) sent = line.size();
        }
        if (places[1].revents != 0) takeComplaints();
        if (places[0].revents != 0 && !takeOutput()) {
            takeComplaints();
            answer = reap(kMoment);
            return Outcome::Ended;
        }
    }
}

bool Process::start(std::string& problem)
{
    Pipe input;
    Pipe output;
    Pipe complaints;
    const Start start(folder_, input, output, complaints);
    const int error = start.run(words_, process_);
    if (error != 0) {
        process_ = -1;
        problem = "it cannot be started: " + std::generic_category().message(error);
        return false;
    }
    input_ = input.take(1);
    output_ = output.take(0);
    complaints_ = complaints.take(0);
    received_.clear();
    complained_.clear();
    hasAnswered_ = false;
    return true;
}

// A program that has ended since its last answer, or that has said more than was asked for, is none
// to go on with.
bool Process::isUsable()
{
    takeComplaints();
    if (!takeOutput()) return false;
    if (received_.empty()) return true;
    told_("it has written more than one line for a call; it is ended");
    return false;
}

bool Process::takeOutput()
{
    // Its last line counts also when it ends right behind it.
    const bool isThere = readInto(received_, output_);
    return isThere || received_.find('\n') != std::string::npos;
}

void Process::takeComplaints()
{
    if (complaints_ == -1) return;
    if (!readInto(complained_, complaints_)) ::close(std::exchange(complaints_, -1));
    tellComplaints(complaints_ == -1);
}

void Process::tellComplaints(bool all)
{
    for (;;) {
        std::size_t end = complained_.find('\n');
        if (end == std::string::npos && (all || complained_.size() > kLongestComplaint))
            end = complained_.size();
        if (end == std::string::npos || complained_.empty()) return;
        told_(complained_.substr(0, std::min(end, kLongestComplaint)));
        complained_.erase(0, end + 1);
    }
}

void Process::end()
{
    if (process_ == -1) return;
    if (input_ != -1) ::close(std::exchange(input_, -1));
    reap(kMoment);
}

// Waits a moment for its end, and ends it and all that it has started. Returns how it has ended.
std::string Process::reap(milliseconds patience)
{
    if (process_ == -1) return "";
    const int watch = static_cast<int>(::syscall(SYS_pidfd_open, process_, 0));
    if (watch != -1) {
        pollfd place{watch, POLLIN, 0};
        ::poll(&place, 1, static_cast<int>(patience.count()));
        ::close(watch);
    }
    // Until it is waited for, nobody else can have its number, nor that of its group.
    siginfo_t info{};
    ::waitid(P_PID, static_cast<id_t>(process_), &info, WEXITED | WNOHANG | WNOWAIT);
    const bool hasEnded = info.si_pid == process_;
    ::kill(-process_, SIGKILL);
    int status = 0;
    ::waitpid(process_, &status, 0);
    process_ = -1;
    closePipes();
    if (!hasEnded) return "it has closed its output";
    endedInOrder_ = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return WIFSIGNALED(status) ? "it was ended by signal " + std::to_string(WTERMSIG(status))
                               : "it has ended with code " + std::to_string(WEXITSTATUS(status));
}

void Process::closePipes()
{
    takeComplaints();
    tellComplaints(true);
    for (int* const end : {&input_, &output_, &complaints_}) {
        if (*end != -1) ::close(std::exchange(*end, -1));
    }
    received_.clear();
    complained_.clear();
}

} // namespace exec
