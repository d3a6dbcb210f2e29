// A whole trace held against what it should be.
#ifndef SUPPORT_TRACE_READS_H
#define SUPPORT_TRACE_READS_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/trace_file.h"

namespace support {

// The trace lines as "1300 ENTRY API.ECI_createChannel(...)", held one by one against patterns of
// the same form; <int> stands for a number that does not matter.
inline ::testing::AssertionResult traceReads(const TraceFile& trace,
                                             const std::vector<std::string>& expected)
{
    std::vector<std::string> lines;
    for (const TraceRecord& record : trace.records())
        lines.push_back(std::to_string(record.point) + " " + record.type + " " + record.message);
    bool same = lines.size() == expected.size();
    for (std::size_t line = 0; same && line < lines.size(); ++line)
        same = matches(expected[line], lines[line]);
    if (same) return ::testing::AssertionSuccess();
    ::testing::AssertionResult failure = ::testing::AssertionFailure();
    failure << "the trace reads\n";
    for (const std::string& line : lines) failure << "    " << line << "\n";
    failure << "  expected\n";
    for (const std::string& line : expected) failure << "    " << line << "\n";
    return failure;
}

} // namespace support

#endif
