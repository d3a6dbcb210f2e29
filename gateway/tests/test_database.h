// The database of one test, gone at its end: a file of SQLite, or a schema of a PostgreSQL server
// that the tests start for themselves, as the program is linked. What a test asks and changes there
// does not go through what it tests.
#ifndef STANDIN_TESTS_TEST_DATABASE_H
#define STANDIN_TESTS_TEST_DATABASE_H

#include <cstdint>
#include <memory>
#include <string>

namespace standin_test {

class TestDatabase {
public:
    TestDatabase();
    ~TestDatabase();

    TestDatabase(const TestDatabase&) = delete;
    TestDatabase& operator=(const TestDatabase&) = delete;

    // As --database takes it.
    const std::string& name() const;

    // The first number of the answer; -1 when there is none.
    std::int64_t ask(const std::string& sql) const;

    void change(const std::string& sql) const;

    // Has the right to write, as long as it lives.
    class Writer {
    public:
        explicit Writer(const TestDatabase& database);
        ~Writer();

        Writer(const Writer&) = delete;
        Writer& operator=(const Writer&) = delete;

    private:
        struct Inside;
        const std::unique_ptr<Inside> inside_;
    };

private:
    struct Inside;
    const std::unique_ptr<Inside> inside_;
};

} // namespace standin_test

#endif
