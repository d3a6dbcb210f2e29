// qpxgatewayd as a process that a test starts, and ends at the latest with itself.
#ifndef STANDIN_TESTS_DAEMON_H
#define STANDIN_TESTS_DAEMON_H

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

extern char** environ;

namespace standin_test {

// A running daemon. What it writes to both of its outputs comes through one pipe.
class Daemon {
public:
    // With `limits` these are commands of the shell that starts it.
    explicit Daemon(std::vector<std::string> arguments, const std::string& limits = "true")
    {
        arguments.insert(arguments.begin(),
                         {"/bin/sh", "-c", limits + " && exec \"$0\" \"$@\"", GATEWAY_DAEMON});
        std::vector<char*> argv;
        for (std::string& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);

        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
        const int error = ::posix_spawn(&process_, "/bin/sh", &actions, nullptr, argv.data(),
                                        environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(ends[1]);
        output_ = ends[0];
        if (error != 0) throw std::system_error(error, std::generic_category(), GATEWAY_DAEMON);
    }

    ~Daemon()
    {
        if (process_ > 0) {
            signal(SIGKILL);
            end();
        }
        if (output_ != -1) ::close(output_);
    }

    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Reads until the text has come; false when the output ends first.
    bool awaitOutput(const std::string& part)
    {
        while (text_.find(part) == std::string::npos) {
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

    std::uint16_t port()
    {
        awaitOutput("ready\n");
        const std::string mark = "listening on 127.0.0.1:";
        const std::size_t at = text_.find(mark);
        if (at == std::string::npos)
            throw std::runtime_error("the daemon does not listen: " + text_);
        return static_cast<std::uint16_t>(std::stoi(text_.substr(at + mark.size())));
    }

    void signal(int number) { ::kill(process_, number); }

    // Whether the bytes stand anywhere in the memory that the daemon can write to. The tables that
    // a sanitizer keeps of it are far larger than all else, and have no bytes of it.
    bool hasInMemory(const std::string& bytes) const
    {
        constexpr unsigned long most = 1UL << 30;
        const std::string folder = "/proc/" + std::to_string(process_);
        std::ifstream maps(folder + "/maps");
        std::ifstream memory(folder + "/mem", std::ios::binary);
        if (!maps || !memory) throw std::runtime_error("the daemon's memory cannot be read");
        std::string line;
        while (std::getline(maps, line)) {
            unsigned long first = 0;
            unsigned long end = 0;
            char mayRead = 0;
            char mayWrite = 0;
            if (std::sscanf(line.c_str(), "%lx-%lx %c%c", &first, &end, &mayRead, &mayWrite) != 4 ||
                mayRead != 'r' || mayWrite != 'w' || end - first > most) {
                continue;
            }
            std::string region(end - first, '\0');
            memory.clear();
            memory.seekg(static_cast<std::streamoff>(first));
            memory.read(region.data(), static_cast<std::streamsize>(region.size()));
            if (region.find(bytes) != std::string::npos) return true;
        }
        return false;
    }

    // Whether every thread of it waits for something at this moment.
    bool sleeps() const
    {
        const std::string folder = "/proc/" + std::to_string(process_) + "/task";
        for (const auto& thread : std::filesystem::directory_iterator(folder)) {
            std::string line;
            std::getline(std::ifstream(thread.path() / "stat"), line);
            const std::size_t behindTheName = line.rfind(')');
            if (behindTheName == std::string::npos || line.compare(behindTheName, 3, ") S") != 0)
                return false;
        }
        return true;
    }

    // Waits for the end; the exit code, or -1 when a signal has killed the daemon.
    int end()
    {
        char buffer[512];
        ssize_t count = 0;
        while ((count = ::read(output_, buffer, sizeof buffer)) > 0)
            text_.append(buffer, static_cast<std::size_t>(count));
        int status = 0;
        ::waitpid(process_, &status, 0);
        process_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    int stop()
    {
        signal(SIGTERM);
        return end();
    }

    // Nobody reads the output any more.
    void closeOutput() { ::close(std::exchange(output_, -1)); }

    // As end(), but what has not been read of the output is not read now either.
    int endUnread()
    {
        int status = 0;
        ::waitpid(process_, &status, 0);
        process_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t process_ = -1;
    int output_ = -1;
    std::string text_;
};

} // namespace standin_test

#endif
