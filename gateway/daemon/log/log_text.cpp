#include "log/log_text.h"

#include <cstdio>

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

} // namespace log_text
