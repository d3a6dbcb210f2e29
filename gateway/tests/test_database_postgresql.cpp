#include <gtest/gtest.h>

#include <stdexcept>

#include "postgresql_server.h"
#include "test_database.h"

namespace standin_test {

// A schema is made in no time, and a database is not.
struct TestDatabase::Inside {
    Inside()
    {
        static int count = 0;
        const std::string schema = "test" + std::to_string(++count);
        Session(urlAt("postgres")).run("CREATE SCHEMA " + schema);
        name = urlAt("postgres", "&options=-csearch_path%3D" + schema);
    }

    std::string name;
};

TestDatabase::TestDatabase() : inside_(std::make_unique<Inside>()) {}

TestDatabase::~TestDatabase() = default;

const std::string& TestDatabase::name() const
{
    return inside_->name;
}

std::int64_t TestDatabase::ask(const std::string& sql) const
{
    return Session(name()).run(sql);
}

void TestDatabase::change(const std::string& sql) const
{
    EXPECT_NO_THROW(Session(name()).run(sql));
}

struct TestDatabase::Writer::Inside {
    explicit Inside(const std::string& name) : session(name)
    {
        session.run("BEGIN; UPDATE gateway_state SET writes = writes + 1");
    }

    ~Inside() { session.run("ROLLBACK"); }

    Session session;
};

TestDatabase::Writer::Writer(const TestDatabase& database)
    : inside_(std::make_unique<Inside>(database.name()))
{
}

TestDatabase::Writer::~Writer() = default;

} // namespace standin_test
