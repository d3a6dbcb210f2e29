#include "database/database.h"

#include <filesystem>
#include <system_error>

#include <sqlite3.h>

namespace ledger {

namespace {

constexpr std::uintmax_t kLongestLog = 5 * 1024 * 1024; // SQLite puts it back at some 4 MB

} // namespace

bool DatabaseError::isConflict() const
{
    return code_ == SQLITE_BUSY || code_ == SQLITE_LOCKED;
}

// ---------------------------------------------------------------------------------------- Database

Database::Database(const std::string& file) : log_(file + "-wal")
{
    const int code = sqlite3_open_v2(file.c_str(), &handle_,
                                     SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (code == SQLITE_OK && sqlite3_db_readonly(handle_, "main") == 0) {
        sqlite3_extended_result_codes(handle_, 0);
        const std::string limit = "PRAGMA journal_size_limit = " + std::to_string(kLongestLog);
        sqlite3_exec(handle_, limit.c_str(), nullptr, nullptr, nullptr);
        return;
    }
    const std::string reason = code == SQLITE_OK ? "it may not be written to"
                                                 : sqlite3_errmsg(handle_);
    sqlite3_close(handle_);
    throw DatabaseError(code, reason);
}

Database::~Database()
{
    sqlite3_close(handle_);
}

void Database::setPatience(int milliseconds)
{
    sqlite3_busy_timeout(handle_, milliseconds);
}

void Database::run(const char* sql)
{
    const int code = sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) fail(code);
}

void Database::shortenLog()
{
    std::error_code none;
    const std::uintmax_t size = std::filesystem::file_size(log_, none);
    if (none || size <= kLongestLog) return;
    sqlite3_wal_checkpoint_v2(handle_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
}

bool Database::inTransaction() const
{
    return sqlite3_get_autocommit(handle_) == 0;
}

void Database::fail(int code) const
{
    throw DatabaseError(code & 0xFF, sqlite3_errmsg(handle_));
}

// --------------------------------------------------------------------------------------- Statement

Statement::Statement(Database& database, const char* sql) : database_(database)
{
    const int code = sqlite3_prepare_v2(database_.handle_, sql, -1, &handle_, nullptr);
    if (code != SQLITE_OK) database_.fail(code);
}

Statement::~Statement()
{
    sqlite3_finalize(handle_);
}

Statement& Statement::bind(int parameter, const std::string& text)
{
    const int code = sqlite3_bind_text(handle_, parameter, text.data(),
                                       static_cast<int>(text.size()), SQLITE_TRANSIENT);
    if (code != SQLITE_OK) database_.fail(code);
    return *this;
}

Statement& Statement::bind(int parameter, std::int64_t number)
{
    const int code = sqlite3_bind_int64(handle_, parameter, number);
    if (code != SQLITE_OK) database_.fail(code);
    return *this;
}

Statement& Statement::bind(int parameter, std::optional<std::int64_t> number)
{
    if (number) return bind(parameter, *number);
    const int code = sqlite3_bind_null(handle_, parameter);
    if (code != SQLITE_OK) database_.fail(code);
    return *this;
}

bool Statement::step()
{
    const int code = sqlite3_step(handle_);
    if (code == SQLITE_ROW) return true;
    if (code == SQLITE_DONE) return false;
    database_.fail(code);
}

std::int64_t Statement::number(int column) const
{
    return sqlite3_column_int64(handle_, column);
}

std::optional<std::int64_t> Statement::numberIfAny(int column) const
{
    if (sqlite3_column_type(handle_, column) == SQLITE_NULL) return std::nullopt;
    return number(column);
}

std::string Statement::text(int column) const
{
    const auto* const bytes = reinterpret_cast<const char*>(sqlite3_column_text(handle_, column));
    return bytes == nullptr ? std::string() : std::string(bytes);
}

// ------------------------------------------------------------------------------------- Transaction

Transaction::Transaction(Database& database, Kind kind) : database_(database)
{
    database_.run(kind == Kind::Immediate ? "BEGIN IMMEDIATE" : "BEGIN");
}

Transaction::~Transaction()
{
    if (!database_.inTransaction()) return;
    try {
        database_.run("ROLLBACK");
    } catch (const DatabaseError&) {
        // Closing the connection undoes what is left of the transaction.
    }
}

void Transaction::commit()
{
    database_.run("COMMIT");
}

} // namespace ledger
