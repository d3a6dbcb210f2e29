#include "json/base64.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

namespace base64 {

namespace {

constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                     "abcdefghijklmnopqrstuvwxyz0123456789+/";

[[noreturn]] void refuse()
{
    throw std::invalid_argument("a payload is not Base64");
}

std::uint32_t valueOf(char digit)
{
    const std::size_t value = kDigits.find(digit);
    if (value == std::string_view::npos) refuse();
    return static_cast<std::uint32_t>(value);
}

} // namespace

std::string encode(const standin::Bytes& bytes)
{
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - at);
        std::uint32_t group = 0;
        for (std::size_t i = 0; i < 3; ++i) group = group << 8U | (i < count ? bytes[at + i] : 0U);
        for (std::size_t i = 0; i < 4; ++i)
            text += i <= count ? kDigits[group >> (18U - 6U * i) & 63U] : '=';
    }
    return text;
}

standin::Bytes decode(std::string_view text)
{
    if (text.size() % 4 != 0) refuse();
    standin::Bytes bytes;
    bytes.reserve(text.size() / 4 * 3);
    for (std::size_t at = 0; at < text.size(); at += 4) {
        std::string_view digits = text.substr(at, 4);
        if (at + 4 == text.size()) {
            digits = digits.substr(0, digits.find_last_not_of('=') + 1);
            if (digits.size() < 2) refuse();
        }
        std::uint32_t group = 0;
        for (std::size_t i = 0; i < 4; ++i)
            group = group << 6U | (i < digits.size() ? valueOf(digits[i]) : 0U);
        for (std::size_t i = 1; i < digits.size(); ++i)
            bytes.push_back(static_cast<std::uint8_t>(group >> (24U - 8U * i) & 0xFFU));
    }
    return bytes;
}

} // namespace base64
