// The books of a soak: for each number that a call has carried, what the application has been told
// of it. A file of one byte a number, which stays readable when the process does not end well, and
// which the audit holds against the ledger.
#ifndef SOAK_BOOKS_H
#define SOAK_BOOKS_H

#include <sys/types.h>

#include <cstddef>

namespace soak {

enum Entry : char {
    Unused = 0,
    // Postings of the ledger: the number is the amount.
    TransferBegun = 't',
    TransferDone = 'T',
    TransferRefused = 'r',
    TransferInDoubt = '?',
    DepositBegun = 'd',
    DepositDone = 'D',
    DepositRefused = 'e',
    DepositInDoubt = '!',
    // Everything else: the number is in the data.
    Asked = 'a',
    Answered = 'A', // with data, or with the end of the connection
};

// As many numbers as a soak may use; the file has holes where none has been used.
constexpr std::size_t mostNumbers = std::size_t{1} << 26;

class Books {
public:
    explicit Books(const char* file);
    ~Books();
    Books(const Books&) = delete;
    Books& operator=(const Books&) = delete;

    // A number that no other call has, with its first entry.
    int next(Entry first);

    // Changes an entry; false if it was not the one that is expected: then something has come
    // twice, or has never been asked for.
    bool change(int number, Entry from, Entry to);

    int used() const;

    // Ends the file behind the last entry. No number is to be used afterwards.
    void shorten();

private:
    const char* const file_;
    char* entries_; // mapped
    int last_ = 0;  // atomic
};

} // namespace soak

#endif
