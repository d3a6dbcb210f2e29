#include "figures.h"

#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace bench {

namespace {

double microsecondsOf(const timeval& time)
{
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
}

// The number behind a name in the status of the process.
long statusNumber(const char* name)
{
    long number = 0;
    char line[256];
    std::FILE* const status = std::fopen("/proc/self/status", "re");
    while (status != nullptr && std::fgets(line, sizeof line, status) != nullptr)
        if (std::strncmp(line, name, std::strlen(name)) == 0)
            std::sscanf(line + std::strlen(name), ": %ld", &number);
    if (status != nullptr) std::fclose(status);
    return number;
}

std::uint32_t percentile(const std::vector<std::uint32_t>& sorted, std::size_t percent)
{
    if (sorted.empty()) return 0;
    return sorted[std::min(sorted.size() - 1, sorted.size() * percent / 100)];
}

void printIfMeasured(const char* name, double value)
{
    if (value >= 0) std::printf(", \"%s\": %.4f", name, value);
}

} // namespace

std::int64_t now()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

Usage usageNow()
{
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return {microsecondsOf(usage.ru_utime) + microsecondsOf(usage.ru_stime),
            static_cast<double>(usage.ru_nvcsw) + static_cast<double>(usage.ru_nivcsw)};
}

long residentKilobytes()
{
    return statusNumber("VmRSS");
}

long peakKilobytes()
{
    return statusNumber("VmHWM");
}

void print(const Options& options, const Figures& figures)
{
    std::vector<std::uint32_t> sorted = figures.nanoseconds;
    std::sort(sorted.begin(), sorted.end());
    std::printf("{\"row\": \"%s\", \"size\": %zu, \"threads\": %d, \"connections\": %d, "
                "\"calls\": %.0f, \"p50_ns\": %u, \"p99_ns\": %u, \"calls_per_second\": %.1f, "
                "\"cpu_us_per_call\": %.4f, \"switches_per_call\": %.4f, \"resident_kb\": %ld",
                options.row.c_str(), options.size, options.threads, options.connections,
                figures.calls, percentile(sorted, 50), percentile(sorted, 99),
                figures.calls / figures.seconds, figures.used.cpuMicroseconds / figures.calls,
                figures.used.switches / figures.calls, residentKilobytes());
    printIfMeasured("kb_per_connection", figures.kilobytesPerConnection);
    printIfMeasured("gb_per_second", figures.gigabytesPerSecond);
    printIfMeasured("peak_kb", figures.peakKilobytesOverBefore);
    printIfMeasured("lines_per_call", figures.linesPerCall);
    std::printf("}\n");
}

} // namespace bench
