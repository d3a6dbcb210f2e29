// What a program of one's own is given for a call, and what it says.
//
// Thread: any.
#ifndef EXEC_JSON_H
#define EXEC_JSON_H

#include <stdexcept>
#include <string>

#include "exec/pool.h"
#include "standin/messages.h"

namespace exec {

// An answer that is none; what() says what is wrong with it.
class BadAnswer : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One line, with its end.
std::string lineFor(const Call& call);

// Throws BadAnswer.
standin::EciReply replyFrom(const std::string& line, const standin::EciRequest& request);

} // namespace exec

#endif
