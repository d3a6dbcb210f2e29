// Holds a soak's books against the ledger:  soak_audit LEDGER BOOKS
//
// A transfer that the application was told to be done stands in the journal twice, as a debit and
// as a credit; a deposit once; what was refused or backed out not at all. What is in doubt stands
// there whole or not at all, and is counted apart. Every amount of the journal is a number of the
// books, and every balance the sum of its account's postings.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "books.h"
#include "database/database.h"

namespace {

using ledger::Database;
using ledger::Statement;

struct Postings {
    int debits = 0;
    int credits = 0;
};

class Audit {
public:
    Audit(const std::string& ledgerFile, const std::string& booksFile)
        : database_(ledgerFile), books_(readAll(booksFile))
    {
    }

    int run()
    {
        readJournal();
        for (std::size_t number = 1; number < books_.size(); ++number)
            if (books_[number] != soak::Unused) check(static_cast<std::int64_t>(number));
        for (const auto& [amount, postings] : journal_)
            if (!isInBooks(amount)) problem(amount, postings, "is in the journal alone");
        checkBalances();
        std::printf("%ld transfers done, %ld refused, %ld in doubt of which %ld were done; "
                    "%ld deposits done, %ld refused, %ld in doubt of which %ld were done; "
                    "%zu amounts in the journal\n",
                    done_, refused_, inDoubt_, inDoubtDone_, deposits_, depositsRefused_,
                    depositsInDoubt_, depositsInDoubtDone_, journal_.size());
        if (problems_ == 0) std::printf("The books agree.\n");
        return problems_ == 0 ? 0 : 1;
    }

private:
    static std::vector<char> readAll(const std::string& name)
    {
        std::ifstream file(name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    void readJournal()
    {
        Statement all(database_, "SELECT amount, kind FROM journal");
        while (all.step()) {
            Postings& postings = journal_[all.number(0)];
            (all.text(1) == "D" ? postings.debits : postings.credits) += 1;
        }
    }

    bool isInBooks(std::int64_t amount) const
    {
        if (amount < 1 || amount >= static_cast<std::int64_t>(books_.size())) return false;
        char entry = books_[static_cast<std::size_t>(amount)];
        return entry != soak::Unused && entry != soak::Asked && entry != soak::Answered;
    }

    void problem(std::int64_t number, const Postings& postings, const char* what)
    {
        if (++problems_ <= 20)
            std::printf("%lld, which the journal has as %d debits and %d credits, %s\n",
                        static_cast<long long>(number), postings.debits, postings.credits, what);
    }

    // Counts an entry, which must have been posted as often as told; if it is in doubt, or not at
    // all.
    void count(std::int64_t number, Postings whole, bool mayBeNone, long* counter,
               long* doneCounter)
    {
        auto found = journal_.find(number);
        Postings postings = found != journal_.end() ? found->second : Postings{};
        bool isWhole = postings.debits == whole.debits && postings.credits == whole.credits;
        bool isNone = postings.debits == 0 && postings.credits == 0;
        *counter += 1;
        if (isWhole && doneCounter != nullptr) *doneCounter += 1;
        if (!isWhole && !(mayBeNone && isNone))
            problem(number, postings, "does not agree with what was told");
    }

    void check(std::int64_t number)
    {
        constexpr Postings transfer{1, 1};
        constexpr Postings deposit{0, 1};
        constexpr Postings none{0, 0};

        switch (books_[static_cast<std::size_t>(number)]) {
        case soak::TransferDone: return count(number, transfer, false, &done_, nullptr);
        case soak::TransferRefused: return count(number, none, false, &refused_, nullptr);
        case soak::TransferInDoubt: return count(number, transfer, true, &inDoubt_, &inDoubtDone_);
        case soak::DepositDone: return count(number, deposit, false, &deposits_, nullptr);
        case soak::DepositRefused: return count(number, none, false, &depositsRefused_, nullptr);
        case soak::DepositInDoubt:
            return count(number, deposit, true, &depositsInDoubt_, &depositsInDoubtDone_);
        case soak::Answered: return;
        case soak::Asked: return problem(number, none, "has never been answered");
        default: return problem(number, none, "has no outcome in the books");
        }
    }

    // The opening balance of an account stands before its first posting.
    void checkBalances()
    {
        Statement wrong(
            database_, "SELECT number, balance FROM account a WHERE balance != "
                       "  (SELECT j.balance - CASE j.kind WHEN 'C' THEN j.amount ELSE -j.amount END"
                       "   FROM journal j WHERE j.account = a.number ORDER BY posting LIMIT 1)"
                       "  + (SELECT sum(CASE kind WHEN 'C' THEN amount ELSE -amount END)"
                       "     FROM journal WHERE account = a.number)");
        while (wrong.step()) {
            std::printf("account %s has %lld, which is not what has been posted\n",
                        wrong.text(0).c_str(), static_cast<long long>(wrong.number(1)));
            problems_ += 1;
        }
    }

    Database database_;
    const std::vector<char> books_;
    std::map<std::int64_t, Postings> journal_; // by amount
    long done_ = 0, refused_ = 0, inDoubt_ = 0, inDoubtDone_ = 0;
    long deposits_ = 0, depositsRefused_ = 0, depositsInDoubt_ = 0, depositsInDoubtDone_ = 0;
    long problems_ = 0;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: soak_audit LEDGER BOOKS\n");
        return 2;
    }
    try {
        return Audit(argv[1], argv[2]).run();
    } catch (const ledger::DatabaseError& error) {
        std::fprintf(stderr, "soak_audit: %s\n", error.what());
        return 2;
    }
}
