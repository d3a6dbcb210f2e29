// A database at a server of PostgreSQL, by way of libpq; in a daemon that was built without it, the
// sentence that says so.
#ifndef LEDGER_DATABASE_POSTGRESQL_H
#define LEDGER_DATABASE_POSTGRESQL_H

#include <memory>
#include <string>

#include "database/backend.h"

namespace ledger {

// "" when the URL is good, else what is wrong with it, without anything of what stands in it.
std::string complaintAboutUrl(const std::string& url);

// Throws DatabaseError.
std::unique_ptr<Backend> openPostgresql(const std::string& url);

} // namespace ledger

#endif
