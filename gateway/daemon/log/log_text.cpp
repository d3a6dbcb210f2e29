#include "log/log_text.h"

#include <cstdio>
#include <ctime>

namespace log_text {

std::string inUnits(std::int64_t cents)
{
    char text[32];
    std::snprintf(text, sizeof text, "%lld.%02lld", static_cast<long long>(cents / 100),
                  static_cast<long long>(cents % 100));
    return text;
}

std::string printable(std::string text)
{
    for (char& c : text) {
        if (c < ' ' || c > '~') c = '?';
    }
    return text;
}

std::string listed(const std::vector<std::string>& names)
{
    std::string text;
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (i > 0) text += i + 1 == names.size() ? " and " : ", ";
        text += names[i];
    }
    return text;
}

namespace {

// What the times of one second have in common. Finding it takes longer than all else of a line.
struct Second {
    std::time_t clock = -1;
    std::string beginning; // up to the fraction
    std::string zone;
};

Second secondOf(std::time_t clock)
{
    std::tm local{};
    ::localtime_r(&clock, &local);
    char text[64];
    const std::size_t size = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.", &local);
    char zone[16];
    const std::size_t zoneSize = std::strftime(zone, sizeof zone, "%z", &local);
    return {clock, std::string(text, size), std::string(zone, zoneSize)};
}

} // namespace

std::string timeText(std::chrono::system_clock::time_point time)
{
    thread_local Second last;
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    const auto rest = std::chrono::duration_cast<std::chrono::microseconds>(time - seconds);
    const std::time_t clock = std::chrono::system_clock::to_time_t(seconds);
    if (clock != last.clock || last.zone.empty()) last = secondOf(clock);
    std::string digits = std::to_string(rest.count());
    digits.insert(0, 6 - digits.size(), '0');
    return last.beginning + digits + last.zone;
}

} // namespace log_text
