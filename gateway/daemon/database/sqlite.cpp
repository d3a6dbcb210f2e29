// A file of SQLite.

#include <filesystem>
#include <system_error>

#include <sqlite3.h>

#include "database/backend.h"
#include "database/database.h"

namespace ledger {

namespace {

constexpr std::uintmax_t kLongestLog = 5 * 1024 * 1024; // SQLite puts it back at some 4 MB

DatabaseError errorFrom(int code, const std::string& text)
{
    const int primary = code & 0xFF;
    const bool isConflict = primary == SQLITE_BUSY || primary == SQLITE_LOCKED;
    return DatabaseError(text,
                         isConflict ? DatabaseError::Kind::Conflict : DatabaseError::Kind::Failure);
}

[[noreturn]] void fail(sqlite3* handle, int code)
{
    throw errorFrom(code, sqlite3_errmsg(handle));
}

class SqliteStatement final : public BackendStatement {
public:
    SqliteStatement(sqlite3* database, const char* sql) : database_(database)
    {
        check(sqlite3_prepare_v2(database_, sql, -1, &handle_, nullptr));
    }

    ~SqliteStatement() override { sqlite3_finalize(handle_); }

    SqliteStatement(const SqliteStatement&) = delete;
    SqliteStatement& operator=(const SqliteStatement&) = delete;

    void bind(int parameter, const std::string& text) override
    {
        check(sqlite3_bind_text(handle_, parameter, text.data(), static_cast<int>(text.size()),
                                SQLITE_TRANSIENT));
    }

    void bind(int parameter, std::int64_t number) override
    {
        check(sqlite3_bind_int64(handle_, parameter, number));
    }

    void bindNull(int parameter) override { check(sqlite3_bind_null(handle_, parameter)); }

    bool step() override
    {
        const int code = sqlite3_step(handle_);
        if (code == SQLITE_ROW) return true;
        if (code == SQLITE_DONE) return false;
        fail(database_, code);
    }

    bool isNull(int column) const override
    {
        return sqlite3_column_type(handle_, column) == SQLITE_NULL;
    }

    std::int64_t number(int column) const override { return sqlite3_column_int64(handle_, column); }

    std::string text(int column) const override
    {
        const auto* const bytes = reinterpret_cast<const char*>(
            sqlite3_column_text(handle_, column));
        return bytes == nullptr ? std::string() : std::string(bytes);
    }

private:
    void check(int code) const
    {
        if (code != SQLITE_OK) fail(database_, code);
    }

    sqlite3* const database_;
    sqlite3_stmt* handle_ = nullptr;
};

class Sqlite final : public Backend {
public:
    explicit Sqlite(const std::string& file) : log_(file + "-wal")
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
        throw errorFrom(code, reason);
    }

    ~Sqlite() override { sqlite3_close(handle_); }

    Sqlite(const Sqlite&) = delete;
    Sqlite& operator=(const Sqlite&) = delete;

    void setPatience(int milliseconds) override { sqlite3_busy_timeout(handle_, milliseconds); }

    void begin(bool writesFromTheBeginning) override
    {
        run(writesFromTheBeginning ? "BEGIN IMMEDIATE" : "BEGIN");
    }

    void commit() override { run("COMMIT"); }

    // Closing the connection undoes what this may leave of the transaction.
    void rollback() override { sqlite3_exec(handle_, "ROLLBACK", nullptr, nullptr, nullptr); }

    // SQLite may have ended it by itself.
    bool inTransaction() const override { return sqlite3_get_autocommit(handle_) == 0; }

    void run(const char* sql) override
    {
        const int code = sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr);
        if (code != SQLITE_OK) fail(handle_, code);
    }

    std::unique_ptr<BackendStatement> prepare(const char* sql) override
    {
        return std::make_unique<SqliteStatement>(handle_, sql);
    }

    std::int64_t version() override { return oneNumber("PRAGMA user_version"); }

    bool hasTable(const std::string& name) override
    {
        SqliteStatement statement(handle_, "SELECT 1 FROM sqlite_master WHERE name = ?1");
        statement.bind(1, name);
        return statement.step();
    }

    bool isEmpty() override { return oneNumber("SELECT count(*) FROM sqlite_master") == 0; }

    // The file remembers it.
    void letReadersIn() override { run("PRAGMA journal_mode = WAL"); }

    void shortenLog() override
    {
        std::error_code none;
        const std::uintmax_t size = std::filesystem::file_size(log_, none);
        if (none || size <= kLongestLog) return;
        sqlite3_wal_checkpoint_v2(handle_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    }

    bool isSlowToOpen() const override { return false; }

private:
    std::int64_t oneNumber(const char* sql)
    {
        SqliteStatement statement(handle_, sql);
        return statement.step() ? statement.number(0) : 0;
    }

    const std::string log_; // the file of the log
    sqlite3* handle_ = nullptr;
};

} // namespace

std::unique_ptr<Backend> openSqlite(const std::string& file)
{
    return std::make_unique<Sqlite>(file);
}

} // namespace ledger
