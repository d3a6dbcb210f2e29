#include "registry/registry_store.h"

#include <algorithm>

namespace registry {

namespace {

constexpr int kPreparationPatience = 5000; // milliseconds; another daemon may be at the same file

std::optional<std::int64_t> toColumn(const std::optional<Time>& time)
{
    if (!time) return std::nullopt;
    return time->time_since_epoch().count();
}

std::optional<Time> toTime(const std::optional<std::int64_t>& column)
{
    if (!column) return std::nullopt;
    return Time(std::chrono::milliseconds(*column));
}

// Six parameters from the given one on.
void bindRules(Statement& statement, int first, const GivenRules& rules)
{
    statement.bind(first, rules.shortest).bind(first + 1, rules.longest);
    statement.bind(first + 2, rules.digit).bind(first + 3, rules.history);
    statement.bind(first + 4, rules.lifetime).bind(first + 5, rules.attempts);
}

} // namespace

Patience::Patience(Database& database) : database_(database)
{
    database_.setPatience(kPreparationPatience);
}

Patience::~Patience()
{
    database_.setPatience(0);
}

namespace {

void makeTables(Database& database)
{
    Transaction transaction(database, Transaction::Kind::Immediate);
    database.run(kRegistrySql);
    transaction.commit();
}

bool hasAllTables(Database& database)
{
    const auto tables = {"rules", "user", "password", "state", "system"};
    return std::all_of(tables.begin(), tables.end(),
                       [&database](const char* name) { return database.hasTable(name); });
}

} // namespace

void prepareRegistry(Database& database)
{
    try {
        makeTables(database);
    } catch (const DatabaseError& error) {
        // Who is writing need not be waited for where nothing is missing.
        if (!error.isConflict()) throw;
        if (hasAllTables(database)) return;
        const Patience patience(database);
        makeTables(database);
    }
}

// ------------------------------------------------------------------------------------------- users

std::optional<User> findUser(Database& database, const std::string& id)
{
    Statement statement(database, "SELECT expiry, verified, accessed, invalid, revoked "
                                  "FROM \"user\" WHERE id = ?1");
    statement.bind(1, id);
    if (!statement.step()) return std::nullopt;
    User user;
    user.id = id;
    user.expiry = toTime(statement.numberIfAny(0));
    user.verified = toTime(statement.numberIfAny(1));
    user.accessed = toTime(statement.numberIfAny(2));
    user.invalidCount = statement.number(3);
    user.revoked = statement.number(4) != 0;
    return user;
}

void addUser(Database& database, const User& user, const GivenRules& ownRules)
{
    Statement statement(database, "INSERT INTO \"user\" (id, shortest, longest, digit, history, "
                                  "lifetime, attempts) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)");
    statement.bind(1, user.id);
    bindRules(statement, 2, ownRules);
    statement.step();
    updateUser(database, user);
}

void updateUser(Database& database, const User& user)
{
    Statement statement(database, "UPDATE \"user\" SET expiry = ?2, verified = ?3, accessed = ?4, "
                                  "invalid = ?5, revoked = ?6 WHERE id = ?1");
    statement.bind(1, user.id).bind(2, toColumn(user.expiry)).bind(3, toColumn(user.verified));
    statement.bind(4, toColumn(user.accessed)).bind(5, user.invalidCount);
    statement.bind(6, std::int64_t{user.revoked});
    statement.step();
}

Rules rulesOf(Database& database, const std::string& id)
{
    Statement statement(database,
                        "SELECT coalesce(own.shortest, rules.shortest), "
                        "coalesce(own.longest, rules.longest), coalesce(own.digit, rules.digit), "
                        "coalesce(own.history, rules.history), "
                        "coalesce(own.lifetime, rules.lifetime), "
                        "coalesce(own.attempts, rules.attempts) "
                        "FROM rules LEFT JOIN \"user\" AS own ON own.id = ?1");
    statement.bind(1, id);
    Rules rules;
    if (!statement.step()) throw DatabaseError("the table \"rules\" is empty");
    rules.shortest = statement.number(0);
    rules.longest = statement.number(1);
    rules.digit = statement.number(2) != 0;
    rules.history = statement.number(3);
    rules.lifetime = statement.number(4);
    rules.attempts = statement.number(5);
    return rules;
}

void setRules(Database& database, const GivenRules& rules)
{
    Statement statement(database,
                        "UPDATE rules SET shortest = coalesce(?1, shortest), "
                        "longest = coalesce(?2, longest), digit = coalesce(?3, digit), "
                        "history = coalesce(?4, history), lifetime = coalesce(?5, lifetime), "
                        "attempts = coalesce(?6, attempts)");
    bindRules(statement, 1, rules);
    statement.step();
}

bool hasRules(Database& database, const GivenRules& rules)
{
    Statement statement(database,
                        "SELECT 1 FROM rules WHERE shortest = coalesce(?1, shortest) "
                        "AND longest = coalesce(?2, longest) AND digit = coalesce(?3, digit) "
                        "AND history = coalesce(?4, history) "
                        "AND lifetime = coalesce(?5, lifetime) "
                        "AND attempts = coalesce(?6, attempts)");
    bindRules(statement, 1, rules);
    return statement.step();
}

std::vector<std::string> lastHashes(Database& database, const std::string& id, std::int64_t count)
{
    Statement statement(database, "SELECT hash FROM password WHERE \"user\" = ?1 "
                                  "ORDER BY number DESC LIMIT ?2");
    statement.bind(1, id).bind(2, count);
    std::vector<std::string> hashes;
    while (statement.step()) hashes.push_back(statement.text(0));
    return hashes;
}

void addHash(Database& database, const std::string& id, const std::string& hash)
{
    Statement statement(database,
                        "INSERT INTO password (\"user\", number, hash) SELECT ?1, "
                        "coalesce(max(number), 0) + 1, ?2 FROM password WHERE \"user\" = ?1");
    statement.bind(1, id).bind(2, hash);
    statement.step();
}

// ----------------------------------------------------------------------------------------- systems

std::optional<SystemState> stateOf(Database& database, const std::string& system)
{
    Statement statement(database,
                        "SELECT system.state, state.code FROM system "
                        "LEFT JOIN state ON state.name = system.state "
                        "WHERE system.name = ?1 OR ?1 = '' ORDER BY system.position LIMIT 1");
    statement.bind(1, system);
    if (!statement.step()) return std::nullopt;
    const std::optional<std::int64_t> code = statement.numberIfAny(1);
    if (!code) throw DatabaseError("there is no state \"" + statement.text(0) + "\"");
    return SystemState{statement.text(0), static_cast<std::int32_t>(*code)};
}

bool isState(Database& database, const std::string& name)
{
    Statement statement(database, "SELECT 1 FROM state WHERE name = ?1");
    statement.bind(1, name);
    return statement.step();
}

std::vector<standin::SystemEntry> systems(Database& database)
{
    Statement statement(database, "SELECT name, description FROM system ORDER BY position");
    std::vector<standin::SystemEntry> entries;
    while (statement.step()) entries.push_back({statement.text(0), statement.text(1)});
    return entries;
}

std::vector<System> fullSystems(Database& database)
{
    Statement statement(database, "SELECT name, description, state FROM system ORDER BY position");
    std::vector<System> found;
    while (statement.step())
        found.push_back({statement.text(0), statement.text(1), statement.text(2)});
    return found;
}

void removeSystems(Database& database)
{
    database.run("DELETE FROM system");
}

void addSystem(Database& database, const System& system)
{
    Statement statement(database,
                        "INSERT INTO system (name, description, state) VALUES (?1, ?2, ?3)");
    statement.bind(1, system.name).bind(2, system.description).bind(3, system.state);
    statement.step();
}

} // namespace registry
