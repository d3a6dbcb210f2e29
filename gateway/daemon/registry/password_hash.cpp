#include "registry/password_hash.h"

#include <crypt.h>
#include <string.h>

#include <cerrno>
#include <memory>
#include <system_error>

namespace registry {

namespace {

const char* const kYescrypt = "$y$";

static_assert(kLongestPassword < CRYPT_MAX_PASSPHRASE_SIZE, "libcrypt hashes them whole");

// What libcrypt works in, wiped at the end.
class Workspace {
public:
    Workspace() : data_(std::make_unique<crypt_data>()) {}
    ~Workspace() { ::explicit_bzero(data_.get(), sizeof *data_); }

    Workspace(const Workspace&) = delete;
    Workspace& operator=(const Workspace&) = delete;

    // The setting is the kind of hash, its cost and its salt; a hash begins with its own. Nothing
    // comes of one that cannot be used.
    std::string hash(const std::string& password, const std::string& setting)
    {
        const char* const result = ::crypt_rn(password.c_str(), setting.c_str(), data_.get(),
                                              static_cast<int>(sizeof *data_));
        return result == nullptr ? std::string() : std::string(result);
    }

private:
    const std::unique_ptr<crypt_data> data_;
};

} // namespace

std::string hashOf(const std::string& password)
{
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    if (::crypt_gensalt_rn(kYescrypt, 0, nullptr, 0, setting, sizeof setting) == nullptr)
        throw std::system_error(errno, std::generic_category(), "no salt for a password");
    const std::string hash = Workspace().hash(password, setting);
    if (hash.empty())
        throw std::system_error(errno, std::generic_category(), "cannot hash a password");
    return hash;
}

bool matches(const std::string& password, const std::string& hash)
{
    return isHashable(password) && !hash.empty() && Workspace().hash(password, hash) == hash;
}

} // namespace registry
