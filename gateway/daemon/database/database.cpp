#include "database/database.h"

#include "database/backend.h"
#include "database/name.h"
#include "database/postgresql.h"

namespace ledger {

// ---------------------------------------------------------------------------------------- Database

Database::Database(const std::string& name)
    : backend_(isUrl(name) ? openPostgresql(name) : openSqlite(name))
{
}

Database::~Database() = default;

void Database::setPatience(int milliseconds)
{
    backend_->setPatience(milliseconds);
}

void Database::run(const char* sql)
{
    backend_->run(sql);
}

std::int64_t Database::version()
{
    return backend_->version();
}

bool Database::hasTable(const std::string& name)
{
    return backend_->hasTable(name);
}

bool Database::isEmpty()
{
    return backend_->isEmpty();
}

void Database::letReadersIn()
{
    backend_->letReadersIn();
}

void Database::shortenLog()
{
    backend_->shortenLog();
}

bool Database::isSlowToOpen() const
{
    return backend_->isSlowToOpen();
}

// --------------------------------------------------------------------------------------- Statement

Statement::Statement(Database& database, const char* sql)
    : statement_(database.backend_->prepare(sql))
{
}

Statement::~Statement() = default;

Statement& Statement::bind(int parameter, const std::string& text)
{
    statement_->bind(parameter, text);
    return *this;
}

Statement& Statement::bind(int parameter, std::int64_t number)
{
    statement_->bind(parameter, number);
    return *this;
}

Statement& Statement::bind(int parameter, std::optional<std::int64_t> number)
{
    if (number) return bind(parameter, *number);
    statement_->bindNull(parameter);
    return *this;
}

bool Statement::step()
{
    return statement_->step();
}

std::int64_t Statement::number(int column) const
{
    return statement_->number(column);
}

std::optional<std::int64_t> Statement::numberIfAny(int column) const
{
    if (statement_->isNull(column)) return std::nullopt;
    return number(column);
}

std::string Statement::text(int column) const
{
    return statement_->text(column);
}

// ------------------------------------------------------------------------------------- Transaction

Transaction::Transaction(Database& database, Kind kind) : backend_(*database.backend_)
{
    backend_.begin(kind == Kind::Immediate);
}

Transaction::~Transaction()
{
    if (backend_.inTransaction()) backend_.rollback();
}

void Transaction::commit()
{
    backend_.commit();
}

} // namespace ledger
