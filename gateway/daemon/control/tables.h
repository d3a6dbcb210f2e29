// What the database holds, for people to look at: the ledger, the price list, users and systems.
// Passwords, hashed or not, are never read here.
//
// Thread: any; each call opens the database for itself, and waits for nobody who writes.
#ifndef CONTROL_TABLES_H
#define CONTROL_TABLES_H

#include <string>

#include "json/call_json.h"

namespace control {

// Each throws ledger::DatabaseError.
call_json::Json ledgerIn(const std::string& database);
call_json::Json pricesIn(const std::string& database);
call_json::Json usersIn(const std::string& database);
call_json::Json systemsIn(const std::string& database);

} // namespace control

#endif
