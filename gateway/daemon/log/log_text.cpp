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

std::string listed(const std::vector<std::string>& names)
{
    std::string text;
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (i > 0) text += i + 1 == names.size() ? " and " : ", ";
        text += names[i];
    }
    return text;
}

} // namespace log_text
