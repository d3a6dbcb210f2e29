// A program that a test starts, and ends at the latest with its object. What it writes to both of
// its outputs comes through one pipe.
#ifndef STANDIN_TESTS_CHILD_PROCESS_H
#define STANDIN_TESTS_CHILD_PROCESS_H

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

extern char** environ;

namespace standin_test {

class ChildProcess {
public:
    // The command's first word is looked for as a shell does. An object that goes while its program
    // still runs ends it by the signal.
    explicit ChildProcess(std::vector<std::string> command, int lastSignal = SIGKILL)
        : lastSignal_(lastSignal)
    {
        std::vector<char*> argv;
        for (std::string& word : command) argv.push_back(word.data());
        argv.push_back(nullptr);

        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
        const int error = ::posix_spawnp(&process_, argv[0], &actions, nullptr, argv.data(),
                                         environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(ends[1]);
        output_ = ends[0];
        if (error == 0) return;
        closeOutput();
        throw std::system_error(error, std::generic_category(), command.front());
    }

    ~ChildProcess()
    {
        if (process_ > 0) {
            signal(lastSignal_);
            end();
        }
        if (output_ != -1) closeOutput();
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Reads until the text has come; false when the output ends first.
    bool awaitOutput(const std::string& part)
    {
        while (!wrote(part)) {
            if (!awaitMore()) return false;
        }
        return true;
    }

    // Reads what comes next; false when the output has ended.
    bool awaitMore()
    {
        char buffer[4096];
        ssize_t count = 0;
        while ((count = ::read(output_, buffer, sizeof buffer)) == -1 && errno == EINTR) {}
        if (count < 1) return false;
        text_.append(buffer, static_cast<std::size_t>(count));
        return true;
    }

    const std::string& output() const { return text_; }
    bool wrote(const std::string& part) const { return text_.find(part) != std::string::npos; }

    pid_t id() const { return process_; }
    void signal(int number) const
    {
        if (process_ > 0) ::kill(process_, number);
    }

    // Waits for the end; the exit code, or -1 when a signal has ended it.
    int end()
    {
        while (awaitMore()) {}
        return endUnread();
    }

    // As end(), but what has not been read of the output is not read now either.
    int endUnread()
    {
        if (process_ <= 0) return -1;
        int status = 0;
        ::waitpid(process_, &status, 0);
        process_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // Nobody reads the output any more.
    void closeOutput() { ::close(std::exchange(output_, -1)); }

private:
    int lastSignal_;
    pid_t process_ = -1;
    int output_ = -1;
    std::string text_;
};

} // namespace standin_test

#endif
