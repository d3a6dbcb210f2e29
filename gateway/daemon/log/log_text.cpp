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

std::string timeText(std::chrono::system_clock::time_point time)
{
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    const auto rest = std::chrono::duration_cast<std::chrono::microseconds>(time - seconds);
    const std::time_t clock = std::chrono::system_clock::to_time_t(seconds);
    std::tm local{};
    ::localtime_r(&clock, &local);
    char text[64];
    const std::size_t size = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
    char zone[16];
    const std::size_t zoneSize = std::strftime(zone, sizeof zone, "%z", &local);
    std::string digits = std::to_string(rest.count());
    digits.insert(0, 6 - digits.size(), '0');
    return std::string(text, size) + "." + digits + std::string(zone, zoneSize);
}

} // namespace log_text
