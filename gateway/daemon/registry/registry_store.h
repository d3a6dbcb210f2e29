// The registry's tables: rules, users with their passwords, and systems. Nothing here begins or
// ends a transaction, except prepareRegistry.
#ifndef REGISTRY_STORE_H
#define REGISTRY_STORE_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "database/database.h"
#include "standin/messages.h"

namespace registry {

using ledger::Database;
using ledger::DatabaseError;
using ledger::Statement;
using ledger::Transaction;

// The tables, as in gateway/data/registry.sql.
extern const char* const kRegistrySql;

using Time = std::chrono::time_point<std::chrono::system_clock, std::chrono::milliseconds>;

// What a new password must be like, and when a user is revoked; as in the table "rules".
struct Rules {
    std::int64_t shortest = 0; // characters
    std::int64_t longest = 0;
    bool digit = false;        // one is needed
    std::int64_t history = 0;  // so many last ones are refused
    std::int64_t lifetime = 0; // days; 0: for ever
    std::int64_t attempts = 0; // wrong ones that revoke; 0: none do
};

// The same as far as they are given.
struct GivenRules {
    std::optional<std::int64_t> shortest;
    std::optional<std::int64_t> longest;
    std::optional<std::int64_t> digit; // 0 or 1
    std::optional<std::int64_t> history;
    std::optional<std::int64_t> lifetime;
    std::optional<std::int64_t> attempts;
};

// A time that is not there: never.
struct User {
    std::string id;
    std::optional<Time> expiry;
    std::optional<Time> verified;
    std::optional<Time> accessed;
    std::int64_t invalidCount = 0;
    bool revoked = false;
};

struct SystemState {
    std::string name;
    std::int32_t code = 0; // what the system answers; 0: it works
};

struct System {
    std::string name;
    std::string description;
    std::string state;

    bool operator==(const System& other) const
    {
        return name == other.name && description == other.description && state == other.state;
    }
    bool operator!=(const System& other) const { return !(*this == other); }
};

// Makes the tables that are not there. The file must be a ledger already, or new.
void prepareRegistry(Database& database);

// Waits up to some seconds for another writer, as long as it lives.
class Patience {
public:
    explicit Patience(Database& database);
    ~Patience();

    Patience(const Patience&) = delete;
    Patience& operator=(const Patience&) = delete;

private:
    Database& database_;
};

// ------------------------------------------------------------------------------------------- users

std::optional<User> findUser(Database& database, const std::string& id);

// Adds a user without a password, or changes all that is kept of him but his own rules.
void addUser(Database& database, const User& user, const GivenRules& ownRules);
void updateUser(Database& database, const User& user);

// Those of the user, and for the rest those of all.
Rules rulesOf(Database& database, const std::string& id);
void setRules(Database& database, const GivenRules& rules);

// Whether setRules() would change nothing.
bool hasRules(Database& database, const GivenRules& rules);

// The hashes of so many last passwords of the user, the one in force first.
std::vector<std::string> lastHashes(Database& database, const std::string& id, std::int64_t count);
void addHash(Database& database, const std::string& id, const std::string& hash);

// ----------------------------------------------------------------------------------------- systems

// The state of a system, or with an empty name that of the default one; nothing when there is no
// such system.
std::optional<SystemState> stateOf(Database& database, const std::string& system);

bool isState(Database& database, const std::string& name);
std::vector<standin::SystemEntry> systems(Database& database);

// The systems with their states, in their order.
std::vector<System> fullSystems(Database& database);
void removeSystems(Database& database);
void addSystem(Database& database, const System& system);

} // namespace registry

#endif
