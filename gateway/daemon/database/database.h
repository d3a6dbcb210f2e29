// SQLite as this daemon uses it: one connection to a database file, statements with bound
// parameters, failures as exceptions.
//
// Thread: a connection and its statements are used by one thread at a time.
#ifndef LEDGER_DATABASE_H
#define LEDGER_DATABASE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace ledger {

class DatabaseError : public std::runtime_error {
public:
    DatabaseError(int code, const std::string& text) : std::runtime_error(text), code_(code) {}

    // Somebody else is writing, or has written what this transaction has read.
    bool isConflict() const;

private:
    int code_; // SQLite's primary result code
};

class Database {
public:
    // Opens the file for reading and writing, and creates it when it is not there.
    explicit Database(const std::string& file);
    ~Database();

    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // How long a statement waits for other writers before it ends as a conflict; 0 at first.
    void setPatience(int milliseconds);

    // Runs statements that have no parameters and no results of interest.
    void run(const char* sql);

    // Puts a log that has grown large, behind somebody who has read for long, back into the file.
    // Left out when somebody is in the way.
    void shortenLog();

    // True between BEGIN and the end of the transaction; SQLite may have ended it by itself.
    bool inTransaction() const;

    [[noreturn]] void fail(int code) const;

private:
    friend class Statement;
    const std::string log_; // the file of the log
    sqlite3* handle_ = nullptr;
};

class Statement {
public:
    Statement(Database& database, const char* sql);
    ~Statement();

    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    // Parameters are numbered from 1, columns from 0.
    Statement& bind(int parameter, const std::string& text);
    Statement& bind(int parameter, std::int64_t number);
    Statement& bind(int parameter, std::optional<std::int64_t> number); // nothing: NULL

    // Goes to the next row; false when there is none.
    bool step();

    std::int64_t number(int column) const;
    std::optional<std::int64_t> numberIfAny(int column) const; // NULL: nothing
    std::string text(int column) const;

private:
    Database& database_;
    sqlite3_stmt* handle_ = nullptr;
};

// A transaction that is undone unless it is committed.
class Transaction {
public:
    enum class Kind { Deferred, Immediate };

    Transaction(Database& database, Kind kind);
    ~Transaction();

    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    void commit();

private:
    Database& database_;
};

} // namespace ledger

#endif
