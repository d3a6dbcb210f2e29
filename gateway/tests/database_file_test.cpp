// What is so of a database because it is a file of SQLite.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include <sqlite3.h>

#include "client.h"
#include "ledger/ledger.h"
#include "registry/registry.h"
#include "standin/gateway.h"
#include "temporary_directory.h"

using standin_test::Call;
using standin_test::Client;
using standin_test::Reply;
using standin_test::TemporaryDirectory;

namespace {

class DatabaseFile : public testing::Test {
protected:
    void change(const char* sql) const
    {
        sqlite3* database = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_open(file.c_str(), &database));
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(database, sql, nullptr, nullptr, nullptr));
        sqlite3_close(database);
    }

    std::uintmax_t logSize() const { return std::filesystem::file_size(file + "-wal"); }

    const TemporaryDirectory directory;
    const std::string file = directory.file("ledger.db");
};

Call totals(int mode)
{
    Call call;
    call.program = "LEDGER";
    call.commarea = "T" + std::string(79, ' ');
    call.mode = mode;
    return call;
}

} // namespace

TEST_F(DatabaseFile, IsRefusedWhenItHoldsSomethingElse)
{
    change("CREATE TABLE other (x)");
    EXPECT_THROW(ledger::Ledger(file, nullptr), ledger::DatabaseError);
    change("DROP TABLE other; PRAGMA user_version = 2");
    EXPECT_THROW(ledger::Ledger(file, nullptr), ledger::DatabaseError);
}

TEST_F(DatabaseFile, IsRefusedWhenItCannotBeMade)
{
    EXPECT_THROW(ledger::Ledger(directory.file("missing/ledger.db"), nullptr),
                 ledger::DatabaseError);
}

TEST_F(DatabaseFile, HasNoLongLogBehindAnIdleUnitOfWork)
{
    standin::Gateway gateway;
    gateway.setProgram("LEDGER", std::make_shared<ledger::Ledger>(file, nullptr));
    Client client{gateway.port()};
    Client second{gateway.port()};
    ASSERT_TRUE(client.shakeHands());
    ASSERT_TRUE(second.shakeHands());

    second.call(1, totals(0)); // whose connection to the file stays
    const Reply reading = client.call(1, totals(1));
    ASSERT_EQ(0, reading.vornRc);
    change("CREATE TABLE much (bytes BLOB); INSERT INTO much VALUES (zeroblob(8000000))");
    EXPECT_LT(8000000U, logSize());
    Call backout = totals(4);
    backout.token = reading.luwToken;
    EXPECT_EQ(0, client.call(1, backout).vornRc);
    EXPECT_GT(5000000U, logSize());
}

TEST_F(DatabaseFile, HasNoPasswordInIt)
{
    const ledger::Ledger accounts(file, nullptr);
    registry::Registry registry(file, nullptr);
    const std::string content = directory.file("registry.toml");
    std::ofstream(content) << "[[system]]\nname = \"MAIN\"\n"
                              "[[user]]\nid = \"FRED\"\npassword = \"Blue7sky\"\n"
                              "[[user]]\nid = \"OLGA\"\npassword = \"Winter5\"\n";
    registry.load(registry::readContent(content));
    standin::EsiRequest request;
    request.callType = 1;
    request.userId = "FRED";
    request.currentPassword = "Blue7sky";
    request.newPassword = "Green8sea";
    int code = -1;
    registry.answer(request, [&code](const standin::EsiReply& reply) { code = reply.vornRc; });
    ASSERT_EQ(0, code);

    std::string bytes;
    for (const char* const ending : {"", "-wal"}) {
        std::ifstream stream(file + ending, std::ios::binary);
        bytes.append(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    }
    EXPECT_NE(std::string::npos, bytes.find("$y$"));
    for (const char* const password : {"Blue7sky", "Green8sea", "Winter5"})
        EXPECT_EQ(std::string::npos, bytes.find(password)) << password;
}
