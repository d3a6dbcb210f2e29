// Passwords as they travel.
#ifndef STANDIN_TESTS_SCRAMBLED_H
#define STANDIN_TESTS_SCRAMBLED_H

#include <cstdint>
#include <string>

#include "standin/wire.h"

namespace standin_test {

inline standin::Bytes scrambled(const std::string& password)
{
    standin::Bytes masked;
    unsigned before = 0xFF;
    for (const char c : password) {
        const auto clear = static_cast<unsigned char>(c);
        masked.push_back(static_cast<std::uint8_t>(clear ^ before));
        before = clear;
    }
    return masked;
}

} // namespace standin_test

#endif
