// How a database is named: by the file of SQLite, or by a URL of PostgreSQL, which may have a
// password that nobody sees.
#ifndef LEDGER_DATABASE_NAME_H
#define LEDGER_DATABASE_NAME_H

#include <string>

namespace ledger {

// Whether it begins with postgresql:// or postgres://.
bool isUrl(const std::string& name);

// As people may see it: without the password of a URL and all that stands behind its database, or
// with dots for all of it when the password cannot be told from the rest.
std::string shownName(const std::string& name);

// The text with every URL in it as people may see it.
std::string withoutPasswords(const std::string& text);

// "" when a database may have this name, else what is wrong with it, and without the password.
std::string complaintAbout(const std::string& name);

// What somebody may do about a database that cannot be used; a sentence.
std::string adviceFor(const std::string& name);

} // namespace ledger

#endif
