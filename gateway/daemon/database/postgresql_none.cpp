#include "database/database.h"
#include "database/postgresql.h"

namespace ledger {

std::string complaintAboutUrl(const std::string&)
{
    return "this qpxgatewayd was built without PostgreSQL; build it where libpq-dev is installed, "
           "or give a file of SQLite";
}

std::unique_ptr<Backend> openPostgresql(const std::string& url)
{
    throw DatabaseError(complaintAboutUrl(url));
}

} // namespace ledger
