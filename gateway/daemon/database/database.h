// A database as this daemon uses it: one connection, statements with bound parameters, failures as
// exceptions. It is a file of SQLite, or is at a server of PostgreSQL, as its name says.
//
// Thread: a connection and its statements are used by one thread at a time.
#ifndef LEDGER_DATABASE_H
#define LEDGER_DATABASE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace ledger {

class Backend;
class BackendStatement;

class DatabaseError : public std::runtime_error {
public:
    enum class Kind {
        Failure,
        Conflict, // somebody else is writing, or has written what this transaction has read
    };

    explicit DatabaseError(const std::string& text, Kind kind = Kind::Failure)
        : std::runtime_error(text), kind_(kind)
    {
    }

    bool isConflict() const { return kind_ == Kind::Conflict; }

private:
    Kind kind_;
};

class Database {
public:
    // Opens the file for reading and writing, and creates it when it is not there; or connects to
    // the server of the URL.
    explicit Database(const std::string& name);
    ~Database();

    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // How long a statement waits for other writers before it ends as a conflict; 0 at first.
    void setPatience(int milliseconds);

    // Runs statements that have no parameters and no results of interest.
    void run(const char* sql);

    // What gateway/data/ledger.sql sets; 0 when nobody has.
    std::int64_t version();

    bool hasTable(const std::string& name);

    // Whether it has no table at all.
    bool isEmpty();

    // Lets everybody read beside one who writes, from now on.
    void letReadersIn();

    // Puts a log that has grown large, behind somebody who has read for long, back into the file.
    // Left out when somebody is in the way.
    void shortenLog();

    // Whether a connection is worth keeping for the next one who needs one.
    bool isSlowToOpen() const;

private:
    friend class Statement;
    friend class Transaction;
    const std::unique_ptr<Backend> backend_;
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
    const std::unique_ptr<BackendStatement> statement_;
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
    Backend& backend_;
};

} // namespace ledger

#endif
