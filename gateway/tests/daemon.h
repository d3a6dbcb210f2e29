// qpxgatewayd as a process that a test starts, and ends at the latest with itself.
#ifndef STANDIN_TESTS_DAEMON_H
#define STANDIN_TESTS_DAEMON_H

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "child_process.h"

namespace standin_test {

class Daemon : public ChildProcess {
public:
    // With `limits` these are commands of the shell that starts it.
    explicit Daemon(std::vector<std::string> arguments, const std::string& limits = "true")
        : ChildProcess(commandOf(std::move(arguments), limits))
    {
    }

    std::uint16_t port()
    {
        awaitOutput("ready\n");
        const std::string mark = "listening on 127.0.0.1:";
        const std::size_t at = output().find(mark);
        if (at == std::string::npos)
            throw std::runtime_error("the daemon does not listen: " + output());
        return static_cast<std::uint16_t>(std::stoi(output().substr(at + mark.size())));
    }

    // Whether the bytes stand anywhere in the memory that the daemon can write to. The tables that
    // a sanitizer keeps of it are far larger than all else, and have no bytes of it.
    bool hasInMemory(const std::string& bytes) const
    {
        constexpr unsigned long most = 1UL << 30;
        const std::string folder = "/proc/" + std::to_string(id());
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
        const std::string folder = "/proc/" + std::to_string(id()) + "/task";
        for (const auto& thread : std::filesystem::directory_iterator(folder)) {
            std::string line;
            std::getline(std::ifstream(thread.path() / "stat"), line);
            const std::size_t behindTheName = line.rfind(')');
            if (behindTheName == std::string::npos || line.compare(behindTheName, 3, ") S") != 0)
                return false;
        }
        return true;
    }

    int stop()
    {
        signal(SIGTERM);
        return end();
    }

private:
    static std::vector<std::string> commandOf(std::vector<std::string> arguments,
                                              const std::string& limits)
    {
        arguments.insert(arguments.begin(),
                         {"/bin/sh", "-c", limits + " && exec \"$0\" \"$@\"", GATEWAY_DAEMON});
        return arguments;
    }
};

} // namespace standin_test

#endif
