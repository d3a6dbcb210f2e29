// One password of a request, and what has been found out about it. Hashing takes long, so nothing
// is hashed when it is asked for: who asks gets nothing at first, has the work done aside, and asks
// again.
//
// Thread: one at a time.
#ifndef REGISTRY_PASSWORD_CHECK_H
#define REGISTRY_PASSWORD_CHECK_H

#include <map>
#include <optional>
#include <string>

namespace registry {

class PasswordCheck {
public:
    // The password must outlive this.
    explicit PasswordCheck(const std::string& password) : password_(password) {}

    // Whether the password has this hash; nothing when that is not known before findOut().
    std::optional<bool> has(const std::string& hash);

    // A new hash of the password, with the same one at every call.
    std::optional<std::string> newHash();

    // Does all the work that has been asked for. A new hash is not made for a password that has one
    // of the hashes asked about.
    void findOut();

private:
    const std::string& password_;
    std::map<std::string, std::optional<bool>> compared_; // by hash
    bool wantsHash_ = false;
    std::string newHash_; // empty: not made
};

} // namespace registry

#endif
