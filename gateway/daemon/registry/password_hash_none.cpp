// In the place of password_hash.cpp where there is no libcrypt of the word size: nothing can be
// hashed, and no password is right.

#include <cerrno>
#include <system_error>

#include "registry/password_hash.h"

namespace registry {

std::string hashOf(const std::string&)
{
    throw std::system_error(ENOTSUP, std::generic_category(),
                            "this build has no users with passwords, since there was no libcrypt "
                            "of its word size");
}

bool matches(const std::string&, const std::string&)
{
    return false;
}

} // namespace registry
