// A line of the trace, and the same text printed and flushed. The call that is traced does nothing
// else worth a mention: what it takes untraced is subtracted.

#include "../common/measure.h"
#include "../common/sockets.h"
#include "library.h"
#include "rows.h"

#include <cstdio>
#include <fstream>

namespace bench {

namespace {

constexpr int entriesAndExits = 3;

void callThatTracesLines()
{
    int level = 0;
    check(QPX_getAPITraceLevel(&level), "trace level");
}

// The lines that the calls of a level write to the file.
std::vector<std::string> linesOf(const Options& options, int calls)
{
    std::string file = options.traceFile;
    std::FILE* const emptied = std::fopen(file.c_str(), "we");
    if (emptied == nullptr) fail("cannot write " + file);
    std::fclose(emptied);
    check(QPX_setAPITraceFile(file.data()), "trace file");
    check(QPX_setAPITraceLevel(entriesAndExits), "trace level");
    for (int call = 0; call < calls; ++call) callThatTracesLines();
    check(QPX_setAPITraceLevel(0), "trace level");

    std::vector<std::string> lines;
    std::ifstream trace(file);
    for (std::string line; std::getline(trace, line);)
        if (line.find("QPX_getAPITraceLevel") != std::string::npos) lines.push_back(line + "\n");
    if (lines.empty()) fail("the trace in " + file + " has no lines; --trace-file names a file");
    return lines;
}

Figures measureTraced(const Options& options, int level)
{
    check(QPX_setAPITraceLevel(level), "trace level");
    Figures figures = measureCalls(options, [](int) { return callThatTracesLines; });
    check(QPX_setAPITraceLevel(0), "trace level");
    return figures;
}

// Makes figures of calls figures of lines, without what a call takes besides.
void divideOverLines(double lines, double without, Figures* figures)
{
    for (std::uint32_t& taken : figures->nanoseconds)
        taken = static_cast<std::uint32_t>(std::max(0.0, taken - without) / lines);
    figures->calls *= lines;
    figures->linesPerCall = lines;
}

} // namespace

Figures traceLineRow(const Options& options)
{
    constexpr int sample = 10;
    const double lines = static_cast<double>(linesOf(options, sample).size()) / sample;
    const Figures untraced = measureTraced(options, 0);
    Figures figures = measureTraced(options, entriesAndExits);
    divideOverLines(lines, untraced.seconds * 1e9 / untraced.calls, &figures);
    return figures;
}

Figures printLineRow(const Options& options)
{
    const std::vector<std::string> lines = linesOf(options, 1);
    std::FILE* const file = std::fopen(options.traceFile.c_str(), "ae");
    if (file == nullptr) fail("cannot write " + options.traceFile);
    Figures figures = measureCalls(options, [&](int) {
        return [&] {
            for (const std::string& line : lines) {
                std::fprintf(file, "%s", line.c_str());
                std::fflush(file);
            }
        };
    });
    std::fclose(file);
    divideOverLines(static_cast<double>(lines.size()), 0, &figures);
    return figures;
}

} // namespace bench
