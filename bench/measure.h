// Times of one thing and of what it is compared with, and the table of them.
#ifndef BENCH_MEASURE_H
#define BENCH_MEASURE_H

#include <functional>
#include <string>
#include <vector>

namespace bench {

// Something that is done a number of times.
struct Subject {
    std::string name;
    int operations;
    std::function<void()> run; // all of them
};

struct Row {
    std::string subject;
    std::string peer;
    double subjectMicroseconds; // for one operation
    double peerMicroseconds;
    double ratio;
};

// Runs both in turn, so often, and takes the medians, that of the ratio from the ratios of the
// rounds: what else the machine does falls on both.
Row compare(const Subject& subject, const Subject& peer, int rounds);

void printTable(const std::vector<Row>& rows);

// Processor, number of processors, system, word size.
std::string machine();

} // namespace bench

#endif
