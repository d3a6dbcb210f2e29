// Figures of a row: how long its calls took, and what they cost the process.
#pragma once

#include "options.h"

#include <cstdint>
#include <vector>

namespace bench {

// Nanoseconds of the monotonic clock.
std::int64_t now();

// What the process has used so far, all its threads together.
struct Usage {
    double cpuMicroseconds = 0;
    double switches = 0;
};
Usage usageNow();

// Kilobytes that are in memory, and the most that ever were.
long residentKilobytes();
long peakKilobytes();

struct Figures {
    std::vector<std::uint32_t> nanoseconds; // of one call each
    double seconds = 0;
    double calls = 0;
    Usage used;
    double kilobytesPerConnection = -1; // where it is measured
    double gigabytesPerSecond = -1;
    double peakKilobytesOverBefore = -1;
    double linesPerCall = -1;
};

// Writes the row as one line of JSON to standard output.
void print(const Options& options, const Figures& figures);

} // namespace bench
