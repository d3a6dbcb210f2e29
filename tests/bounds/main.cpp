// Runs the matrix, compares it with results that have been kept, and makes the page of them.
//
//     bounds run [--long] [--jobs NUMBER]            prints the results
//     bounds compare RESULTS [--long] [--jobs NUMBER]
//     bounds page RESULTS TEXT                       prints the page, whose text has places for it
//     bounds cell CALL STATE FAULT                   one cell, in this process and network
//     bounds alone CALL STATE FAULT                  the same in a network of its own
//     bounds list                                    the cells
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include "bounds/matrix.h"
#include "bounds/network.h"

extern char** environ;

namespace {

using bounds::Cell;
using bounds::Result;

constexpr unsigned LONGEST_CELL = 300; // seconds, many times what one takes on a busy machine

struct Options {
    bool longForm = false;
    int jobs = 8; // most cells wait
};

bool isNamed(const char* name, const char* other)
{
    return std::strcmp(name, other) == 0;
}

// The short form has the cut link for one call only, and of calls that share their ways one.
bool isWanted(const Cell& cell, const Options& options)
{
    if (options.longForm) return true;
    if (cell.fault->isOfTheHost) return isNamed(cell.call->name, "call");
    for (const char* name :
         {"openApplid", "openApplidLimited", "change", "channelCollect", "channelCollectOne",
          "createContainer", "setContainerData", "getContainerInfo", "getFirstContainer",
          "getNextContainer", "deleteContainer", "getChannelName"})
        if (isNamed(cell.call->name, name)) return false;
    return true;
}

bool needsOwnNetwork(const Cell& cell)
{
    return cell.fault->isOfTheHost || isNamed(cell.fault->name, "halfOpen") ||
           isNamed(cell.fault->name, "unanswered") || isNamed(cell.fault->name, "several");
}

// ---- One cell -----------------------------------------------------------------------------------

std::string outputOf(const Cell& cell)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
    std::string words[] = {"bounds", "cell", cell.call->name, nameOf(cell.state), cell.fault->name};
    char* arguments[] = {words[0].data(), words[1].data(), words[2].data(),
                         words[3].data(), words[4].data(), nullptr};
    pid_t process = -1;
    if (posix_spawn(&process, "/proc/self/exe", &actions, nullptr, arguments, environ) != 0)
        std::abort();
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    std::string output;
    char bytes[1024];
    for (ssize_t count; (count = read(ends[0], bytes, sizeof bytes)) > 0;)
        output.append(bytes, static_cast<std::size_t>(count));
    close(ends[0]);
    int status = 0;
    waitpid(process, &status, 0);
    if (output.empty()) output = cell.key() + " ended with status " + std::to_string(status);
    return output.substr(0, output.find('\n'));
}

// ---- All of them --------------------------------------------------------------------------------

// The line of each cell that this machine lets run, in order.
std::vector<std::string> runCells(const Options& options)
{
    bool own = bounds::enterOwnNetwork();
    if (own)
        bounds::lowerTimes();
    else
        std::fprintf(stderr, "This machine lets no network be made: cells that need one do not "
                             "run.\n");
    std::vector<Cell> cells;
    for (const Cell& cell : bounds::allCells())
        if (isWanted(cell, options) && (own || !needsOwnNetwork(cell))) cells.push_back(cell);

    std::vector<std::string> lines(cells.size());
    std::atomic<std::size_t> next{0};
    std::atomic<std::size_t> done{0};
    std::vector<std::thread> workers;
    for (int i = 0; i < options.jobs; i += 1)
        workers.emplace_back([&] {
            for (std::size_t index; (index = next.fetch_add(1)) < cells.size();) {
                lines[index] = outputOf(cells[index]);
                std::size_t count = done.fetch_add(1) + 1;
                if (isatty(STDERR_FILENO) != 0 || count % 100 == 0 || count == cells.size())
                    std::fprintf(stderr, "\r%zu of %zu cells  ", count, cells.size());
            }
        });
    for (std::thread& worker : workers) worker.join();
    std::fprintf(stderr, "\n");
    return lines;
}

std::string keyOf(const std::string& line)
{
    std::istringstream words(line);
    std::string call, state, fault;
    words >> call >> state >> fault;
    return call + " " + state + " " + fault;
}

std::vector<std::string> linesOf(const char* file)
{
    std::ifstream stream(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        if (!line.empty() && line[0] != '#') lines.push_back(line);
    return lines;
}

int compare(const char* file, const Options& options)
{
    std::map<std::string, std::string> kept;
    for (const std::string& line : linesOf(file)) kept[keyOf(line)] = line;
    int different = 0;
    for (const Cell& cell : bounds::allCells())
        if (kept.count(cell.key()) == 0) {
            std::printf("no result is kept of: %s\n", cell.key().c_str());
            different += 1;
        }
    if (kept.size() > bounds::allCells().size()) {
        std::printf("results are kept of cells that there are not\n");
        different += 1;
    }
    std::vector<std::string> lines = runCells(options);
    for (const std::string& line : lines) {
        if (kept[keyOf(line)] == line) continue;
        std::printf("kept: %s\n now: %s\n", kept[keyOf(line)].c_str(), line.c_str());
        different += 1;
    }
    std::printf("%zu cells of %zu, %d differ\n", lines.size(), kept.size(), different);
    return different == 0 && !lines.empty() ? 0 : 1;
}

int printPage(const char* file, const char* textFile)
{
    std::vector<Result> results;
    for (const std::string& line : linesOf(file)) {
        std::istringstream words(line);
        Result result;
        if (!(words >> result.call >> result.state >> result.fault >> result.rc >> result.bound >>
              result.next)) {
            std::fprintf(stderr, "bounds: no result: %s\n", line.c_str());
            return 1;
        }
        results.push_back(result);
    }
    std::ifstream stream(textFile);
    std::string text((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    if (text.empty()) return 1;
    std::fputs(bounds::pageOf(results, text).c_str(), stdout);
    return 0;
}

int cell(char** words)
{
    alarm(LONGEST_CELL);
    for (const Cell& each : bounds::allCells())
        if (each.key() == std::string(words[0]) + " " + words[1] + " " + words[2])
            return bounds::runCell(each);
    std::fprintf(stderr, "bounds: no such cell\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    std::string what = argc > 1 ? argv[1] : "";
    int first = what == "compare" || what == "page" ? 3 : 2;
    Options options;
    for (int i = first; what != "cell" && what != "alone" && i < argc; i += 1) {
        if (isNamed(argv[i], "--long")) options.longForm = true;
        if (isNamed(argv[i], "--jobs") && i + 1 < argc)
            options.jobs = std::max(1, std::atoi(argv[i + 1]));
    }
    if (what == "run") {
        for (const std::string& line : runCells(options)) std::printf("%s\n", line.c_str());
        return 0;
    }
    if (what == "compare" && argc > 2) return compare(argv[2], options);
    if (what == "page" && argc == 4) return printPage(argv[2], argv[3]);
    if (what == "alone" && bounds::enterOwnNetwork()) {
        bounds::lowerTimes();
        what = "cell";
    }
    if (what == "cell" && argc == 5) return cell(argv + 2);
    if (what == "list") {
        for (const Cell& each : bounds::allCells()) std::printf("%s\n", each.key().c_str());
        return 0;
    }
    std::fprintf(stderr,
                 "usage: bounds run|compare|page|cell|alone|list ...; tools/bounds --help\n");
    return 2;
}
