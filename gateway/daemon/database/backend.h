// What a kind of database offers to database.h, which is what everybody else uses: a connection,
// and statements on it. Statements are written as SQLite reads them, with parameters ?1, ?2 and so
// on, in words that the other kind knows as well; what it says otherwise stands in one table there.
//
// Thread: a connection and its statements are used by one thread at a time.
#ifndef LEDGER_DATABASE_BACKEND_H
#define LEDGER_DATABASE_BACKEND_H

#include <cstdint>
#include <memory>
#include <string>

namespace ledger {

// All throw DatabaseError.
class BackendStatement {
public:
    virtual ~BackendStatement() = default;

    // Parameters are numbered from 1, columns from 0.
    virtual void bind(int parameter, const std::string& text) = 0;
    virtual void bind(int parameter, std::int64_t number) = 0;
    virtual void bindNull(int parameter) = 0;
    virtual bool step() = 0;
    virtual bool isNull(int column) const = 0;
    virtual std::int64_t number(int column) const = 0;
    virtual std::string text(int column) const = 0;
};

// All throw DatabaseError, but for setPatience() and rollback().
class Backend {
public:
    virtual ~Backend() = default;

    // How long a statement waits for other writers before it ends as a conflict; 0 at first.
    virtual void setPatience(int milliseconds) = 0;

    // A transaction sees the database as it was when it first read. One that writes has the right
    // to write from then on, or from its beginning, and is alone with it; it is refused, as a
    // conflict, when somebody has written since the transaction first read.
    virtual void begin(bool writesFromTheBeginning) = 0;
    virtual void commit() = 0;
    virtual void rollback() = 0;
    virtual bool inTransaction() const = 0;

    virtual void run(const char* sql) = 0;
    virtual std::unique_ptr<BackendStatement> prepare(const char* sql) = 0;

    // What gateway/data/ledger.sql sets; 0 when nobody has.
    virtual std::int64_t version() = 0;
    virtual bool hasTable(const std::string& name) = 0;
    virtual bool isEmpty() = 0;

    // Lets everybody read beside one who writes, from now on.
    virtual void letReadersIn() = 0;

    // See Database.
    virtual void shortenLog() = 0;
    virtual bool isSlowToOpen() const = 0;
};

// Throws DatabaseError; postgresql.h has the other one.
std::unique_ptr<Backend> openSqlite(const std::string& file);

} // namespace ledger

#endif
