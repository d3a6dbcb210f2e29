// Texts that the daemon's programs have in common.
#ifndef GATEWAY_LOG_TEXT_H
#define GATEWAY_LOG_TEXT_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace log_text {

// An amount in cents as "1234.56"; not negative.
std::string inUnits(std::int64_t cents);

// Fit for one line of a log: '?' for every character that is not printable ASCII.
std::string printable(std::string text);

// The local time with its zone, as 2026-03-02T10:11:15.020117+0100.
std::string timeText(std::chrono::system_clock::time_point time);

// "one, two and three".
std::string listed(const std::vector<std::string>& names);

} // namespace log_text

#endif
