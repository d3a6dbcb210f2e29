// The file that fills the registry: rules, systems and users, as TOML.
#ifndef REGISTRY_FILE_H
#define REGISTRY_FILE_H

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "registry/registry_store.h"

namespace registry {

struct NewUser {
    User user;
    std::string password;       // in clear
    std::optional<Time> expiry; // nothing: as the rules have it
    GivenRules rules;

    NewUser() = default;
    NewUser(const NewUser&) = default;
    NewUser& operator=(const NewUser&) = default;
    ~NewUser() { standin::wipe(password); }
};

struct Content {
    GivenRules rules;
    std::vector<System> systems;
    std::vector<NewUser> users;
};

// What is wrong with a file, and in which line. No password is ever part of it.
class BadContent : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A key that no file has; it comes with the keys that are there.
class UnknownKey : public BadContent {
public:
    using BadContent::BadContent;
};

// Throws BadContent, and UnknownKey where it is that.
Content readContent(const std::string& file);

} // namespace registry

#endif
