#include "keeper.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

extern char** environ;

namespace soak {

static void giveUp(const char* what)
{
    std::perror(what);
    std::_Exit(2);
}

// A port that is free, and none of those that connections get which name none: while the daemon
// does not run, one of them could get its port.
static int freePort()
{
    constexpr int first = 20000;
    constexpr int ports = 12000;

    for (int i = 0; i < ports; ++i) {
        int port = first + (getpid() + i) % ports;
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        bool isFree = bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        close(probe);
        if (isFree) return port;
    }
    errno = EADDRINUSE;
    giveUp("soak: no port");
    return 0;
}

Keeper::Keeper(std::string daemon, std::string registry, std::string folder)
    : daemon_(std::move(daemon)), registry_(std::move(registry)), folder_(std::move(folder)),
      port_(freePort())
{
    start();
}

Keeper::~Keeper()
{
    if (process_ > 0) end(SIGKILL);
}

// The daemon's log is kept from one life to the next.
void Keeper::start()
{
    int watch = inotify_init1(IN_CLOEXEC);
    if (watch < 0 || inotify_add_watch(watch, folder_.c_str(), IN_MOVED_TO) < 0) giveUp("inotify");

    std::vector<std::string> arguments = {daemon_,       "--port",          std::to_string(port_),
                                          "--port-file", folder_ + "/port", "--database",
                                          ledger(),      "--registry",      registry_,
                                          "--log-level", "warning"};
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    std::string log = folder_ + "/gateway.log";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0666);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    errno = posix_spawn(&process_, daemon_.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (errno != 0) giveUp(daemon_.c_str());

    awaitPort(watch);
    close(watch);
    std::lock_guard<std::mutex> guard(mutex_);
    life_ += 1;
    changed_.notify_all();
}

// The daemon moves the file with its port into the folder when it listens.
void Keeper::awaitPort(int watch)
{
    int process = static_cast<int>(syscall(SYS_pidfd_open, process_, 0));
    if (process < 0) giveUp("pidfd_open");
    pollfd either[2] = {{watch, POLLIN, 0}, {process, POLLIN, 0}};
    while (poll(either, 2, -1) < 0 && errno == EINTR) continue;
    close(process);
    if ((either[0].revents & POLLIN) == 0) {
        std::fprintf(stderr, "soak: the daemon has ended; its log is %s/gateway.log\n",
                     folder_.c_str());
        std::_Exit(2);
    }
}

void Keeper::end(int signal)
{
    int status = 0;

    kill(process_, signal);
    while (waitpid(process_, &status, 0) < 0 && errno == EINTR) continue;
    process_ = -1;
    bool asItShould = signal == SIGKILL ? WIFSIGNALED(status) != 0
                                        : WIFEXITED(status) != 0 && WEXITSTATUS(status) == 0;
    if (asItShould) return;
    std::fprintf(stderr, "soak: the daemon has ended with status %#x after signal %d\n",
                 static_cast<unsigned>(status), signal);
    std::_Exit(1);
}

void Keeper::restart()
{
    end(kills_++ % 2 == 0 ? SIGKILL : SIGTERM);
    start();
}

void Keeper::stop()
{
    end(SIGTERM);
}

int Keeper::life()
{
    std::lock_guard<std::mutex> guard(mutex_);
    return life_;
}

void Keeper::awaitLifeBehind(int life, const std::atomic<bool>& stopping)
{
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return stopping || life_ != life; });
}

void Keeper::wake()
{
    std::lock_guard<std::mutex> guard(mutex_);
    changed_.notify_all();
}

} // namespace soak
