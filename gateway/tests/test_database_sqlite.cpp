#include <gtest/gtest.h>

#include <sqlite3.h>

#include "temporary_directory.h"
#include "test_database.h"

namespace standin_test {

struct TestDatabase::Inside {
    TemporaryDirectory directory;
    const std::string file = directory.file("ledger.db");
};

TestDatabase::TestDatabase() : inside_(std::make_unique<Inside>()) {}

TestDatabase::~TestDatabase() = default;

const std::string& TestDatabase::name() const
{
    return inside_->file;
}

std::int64_t TestDatabase::ask(const std::string& sql) const
{
    sqlite3* database = nullptr;
    sqlite3_stmt* statement = nullptr;
    std::int64_t number = -1;
    if (sqlite3_open_v2(name().c_str(), &database, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(database, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW) {
        number = sqlite3_column_int64(statement, 0);
    }
    sqlite3_finalize(statement);
    sqlite3_close(database);
    return number;
}

void TestDatabase::change(const std::string& sql) const
{
    sqlite3* database = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(name().c_str(), &database));
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr));
    sqlite3_close(database);
}

struct TestDatabase::Writer::Inside {
    sqlite3* database = nullptr;
};

TestDatabase::Writer::Writer(const TestDatabase& database) : inside_(std::make_unique<Inside>())
{
    EXPECT_EQ(SQLITE_OK, sqlite3_open(database.name().c_str(), &inside_->database));
    EXPECT_EQ(SQLITE_OK,
              sqlite3_exec(inside_->database, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr));
}

TestDatabase::Writer::~Writer()
{
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(inside_->database, "ROLLBACK", nullptr, nullptr, nullptr));
    sqlite3_close(inside_->database);
}

} // namespace standin_test
