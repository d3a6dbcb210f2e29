// The program ORDERS: prices an order that arrives in a channel (see order.h), and posts nothing.
//
// A good order is answered with the containers INVOICE and STATUS, a wrong one with ERROR and
// STATUS; all are of characters, in the code page of ORDER.HEADER. They take the place of those
// that an earlier call may have left in the channel, and what no longer holds is deleted.
//
// A call without a channel abends with "ACHN". A failure of the database gives vornRc -9, or -16
// when somebody else is writing.
//
// Thread: the Gateway's, as with every Program.
#ifndef ORDERS_H
#define ORDERS_H

#include <string>

#include "database/database.h"
#include "standin/log.h"
#include "standin/program.h"

namespace orders {

class Orders final : public standin::Program {
public:
    // Opens the file of the ledger, makes it when it is new, and puts a price list into it when it
    // has none. Throws DatabaseError.
    Orders(const std::string& file, standin::LogSink log);

    std::optional<standin::EciReply> call(const standin::ProgramCall& call) override;

private:
    standin::Channel answer(const standin::Channel& called);
    void log(standin::LogLevel level, const std::string& line) const;

    ledger::Database database_;
    standin::LogSink log_;
};

} // namespace orders

#endif
