// The program LEDGER: accounts that are asked and posted to through an 80-byte COMMAREA.
//
// Every unit of work has a connection of its own to the database, with one transaction that begins,
// commits and rolls back with it. A call in mode 0 is a transaction of its own. Who meets another
// writer is not kept waiting: the call is answered with vornRc -16, and its unit of work is backed
// out.
//
// A COMMAREA of another length abends with "ALEN". A failure of the database gives vornRc -9.
//
// Thread: the Gateway's, as with every Program.
#ifndef LEDGER_H
#define LEDGER_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "database/database.h"
#include "ledger/ledger_record.h"
#include "standin/log.h"
#include "standin/program.h"

namespace ledger {

class Ledger final : public standin::Program {
public:
    // Opens the database, and makes the ledger in it when it is new. Throws DatabaseError.
    Ledger(std::string database, standin::LogSink log);

    std::optional<standin::EciReply> call(const standin::ProgramCall& call) override;
    std::int32_t begin(const standin::UnitOfWork& unitOfWork) override;
    std::int32_t commit(const standin::UnitOfWork& unitOfWork) override;
    void backout(const standin::UnitOfWork& unitOfWork) override;

private:
    // A unit of work: undone with its transaction when it is dropped. The order of the members
    // matters.
    struct Unit {
        explicit Unit(std::unique_ptr<Database> theDatabase);

        std::unique_ptr<Database> database;
        Transaction transaction;
    };

    std::unique_ptr<Database> connection();
    void endUnit(std::int32_t token);
    standin::EciReply answer(const standin::ProgramCall& call, const standin::Bytes& record);
    std::int32_t vornRcFor(const DatabaseError& error, const std::string& what) const;
    void log(standin::LogLevel level, const std::string& line) const;

    const std::string name_; // of the database
    standin::LogSink log_;
    Database own_;                                        // for calls in mode 0
    std::vector<std::unique_ptr<Database>> idle_;         // for units of work to come
    std::map<std::int32_t, std::unique_ptr<Unit>> units_; // by token
};

// What the ledger answers to one record; changes the database within the caller's transaction.
Outcome carryOut(Database& database, const Question& question);

} // namespace ledger

#endif
