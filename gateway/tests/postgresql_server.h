// A server of PostgreSQL for one program of tests, with all that it keeps in a temporary folder. It
// is reached through a socket there, so that no port is taken. It ends with the program, however
// that ends; root, whom it would refuse, has it run as somebody else.
#ifndef STANDIN_TESTS_POSTGRESQL_SERVER_H
#define STANDIN_TESTS_POSTGRESQL_SERVER_H

#include <cstdint>
#include <string>

#include <libpq-fe.h>

namespace standin_test {

// The URL of a database there, and what else stands behind its question mark: "&name=value".
// Starts the server when it is the first.
std::string urlAt(const std::string& database, const std::string& more = "");

// A connection of a test's own.
class Session {
public:
    explicit Session(const std::string& url);
    ~Session();

    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Runs the statements; the first number of the last answer, -1 when there is none. Throws when
    // they fail.
    std::int64_t run(const std::string& sql) const;

private:
    PGconn* const handle_;
};

} // namespace standin_test

#endif
