#include "measure.h"

#include <sys/utsname.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <thread>

namespace bench {

namespace {

double microsecondsOfOne(const Subject& subject)
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point begin = Clock::now();
    subject.run();
    const std::chrono::duration<double, std::micro> passed = Clock::now() - begin;
    return passed.count() / subject.operations;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

std::string processor()
{
    std::ifstream info("/proc/cpuinfo");
    std::string line;
    while (std::getline(info, line)) {
        if (line.rfind("model name", 0) == 0) return line.substr(line.find(':') + 2);
    }
    return "unknown processor";
}

} // namespace

Row compare(const Subject& subject, const Subject& peer, int rounds)
{
    subject.run(); // what only the first run pays for
    peer.run();
    std::vector<double> subjects;
    std::vector<double> peers;
    std::vector<double> ratios;
    for (int round = 0; round < rounds; ++round) {
        subjects.push_back(microsecondsOfOne(subject));
        peers.push_back(microsecondsOfOne(peer));
        ratios.push_back(subjects.back() / peers.back());
    }
    return {subject.name, peer.name, median(subjects), median(peers), median(ratios)};
}

void printTable(const std::vector<Row>& rows)
{
    std::printf("%-36s %10s   %-36s %10s %8s\n", "", "us", "compared with", "us", "ratio");
    for (const Row& row : rows)
        std::printf("%-36s %10.2f   %-36s %10.2f %8.2f\n", row.subject.c_str(),
                    row.subjectMicroseconds, row.peer.c_str(), row.peerMicroseconds, row.ratio);
}

std::string machine()
{
    utsname system = {};
    uname(&system);
    return processor() + ", " + std::to_string(std::thread::hardware_concurrency()) +
           " processors, " + system.sysname + " " + system.release + ", " +
           std::to_string(sizeof(void*) * 8) + "-bit program";
}

} // namespace bench
