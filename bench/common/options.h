// The options that all programs of the bench share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace bench {

struct Options {
    std::string row;
    std::size_t size = 100;
    int threads = 1;
    int connections = 1;
    int window = 16;
    int containers = 1;
    int outstanding = 1;
    int megabytes = 1;
    int calls = 10000;
    int warmUp = 500;
    int trace = 0;
    std::string traceFile = "/dev/null";
    std::string program = "ECHO";
    std::uint16_t port = 0;
    bool serve = false;
};

constexpr const char* usageOfOptions =
    "  --row NAME          what to measure\n"
    "  --port N            port of the server, on the loopback\n"
    "  --size N            bytes of a COMMAREA, a container, a message (100)\n"
    "  --threads N         threads that call (1)\n"
    "  --connections N     connections that they share (1)\n"
    "  --window N          requests on their way at once (16)\n"
    "  --containers N      containers of the channel (1)\n"
    "  --outstanding N     asynchronous requests that get no answer meanwhile (1)\n"
    "  --megabytes N       size of the container of a bulk call (1)\n"
    "  --program NAME      program that is called: ECHO, MODIFY, ADD100 (ECHO)\n"
    "  --trace LEVEL       trace level meanwhile (0)\n"
    "  --trace-file FILE   where the trace goes (/dev/null)\n"
    "  --calls N           calls that count, of all threads together (10000)\n"
    "  --warm-up N         calls of each thread before them (500)\n"
    "  --help              this text\n";

// Reads the command line. --help prints the text and ends the program, as an option that there is
// not does with a message.
Options readOptions(int argc, char** argv, const std::string& usage);

} // namespace bench
