// Passwords as they are kept: hashed with yescrypt by libcrypt, each with a salt of its own.
#ifndef REGISTRY_PASSWORD_HASH_H
#define REGISTRY_PASSWORD_HASH_H

#include <cstddef>
#include <string>

namespace registry {

// The longest password that can be hashed, in bytes.
constexpr std::size_t kLongestPassword = 511;

// True for 1 to kLongestPassword bytes without a NUL among them.
inline bool isHashable(const std::string& password)
{
    return !password.empty() && password.size() <= kLongestPassword &&
           password.find('\0') == std::string::npos;
}

// A hash of a hashable password, with a new salt. Throws std::system_error.
std::string hashOf(const std::string& password);

bool matches(const std::string& password, const std::string& hash);

} // namespace registry

#endif
