#include "registry/password_check.h"

#include "registry/password_hash.h"

namespace registry {

std::optional<bool> PasswordCheck::has(const std::string& hash)
{
    if (hash.empty() || !isHashable(password_)) return false;
    return compared_[hash];
}

std::optional<std::string> PasswordCheck::newHash()
{
    wantsHash_ = true;
    if (newHash_.empty()) return std::nullopt;
    return newHash_;
}

void PasswordCheck::findOut()
{
    bool isOneOfThem = false;
    for (auto& [hash, known] : compared_) {
        if (!known) known = matches(password_, hash);
        isOneOfThem = isOneOfThem || *known;
    }
    if (wantsHash_ && newHash_.empty() && !isOneOfThem) newHash_ = hashOf(password_);
}

} // namespace registry
