// Makes text from clients fit for one line of a log.
#ifndef STANDIN_PRINTABLE_H
#define STANDIN_PRINTABLE_H

#include <string>
#include <string_view>

namespace standin {

// The text with every character that is not printable ASCII replaced by '?'.
inline std::string printable(std::string_view text)
{
    std::string shown;
    for (const char c : text) shown += (c >= ' ' && c <= '~') ? c : '?';
    return shown;
}

} // namespace standin

#endif
