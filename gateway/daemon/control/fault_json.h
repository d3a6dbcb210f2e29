// Misbehaviours and their selectors as JSON, and back.
//
// Thread: any; pure functions.
#ifndef CONTROL_FAULT_JSON_H
#define CONTROL_FAULT_JSON_H

#include <stdexcept>
#include <string>

#include "standin/gateway.h"
#include "json/call_json.h"

namespace control {

// What is wrong with a request, and what to do.
class BadRequest : public std::runtime_error {
public:
    explicit BadRequest(const std::string& problem, int status = 400)
        : std::runtime_error(problem), status_(status)
    {
    }

    int status() const { return status_; }

private:
    int status_;
};

// Every misbehaviour that there is.
call_json::Json knownFaults();

call_json::Json faultJson(const standin::MisbehaviourInForce& fault);

// From {"fault": "drop@program:ECHO"}, or with the parts of the selector as members of their own.
// Throws BadRequest.
standin::SelectedMisbehaviour faultFrom(const call_json::Json& json);

// The selector alone; `json` may have `others`, too. Throws BadRequest.
standin::Selector selectorFrom(const call_json::Json& json, const std::vector<std::string>& others);

// Throws BadRequest for a member that none of `known` is.
void checkMembers(const call_json::Json& json, const std::vector<std::string>& known);

// A number of at least `least`, or `otherwise`. Throws BadRequest.
std::int64_t numberIn(const call_json::Json& json, const std::string& name, std::int64_t least,
                      std::int64_t otherwise);

} // namespace control

#endif
