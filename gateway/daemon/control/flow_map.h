// The names of what stands in a flow, byte for byte, for people who look at it. A flow that is
// malformed is named as far as it goes.
//
// Thread: any; pure functions.
#ifndef CONTROL_FLOW_MAP_H
#define CONTROL_FLOW_MAP_H

#include <cstddef>
#include <string>
#include <vector>

#include "standin/messages.h"

namespace control {

struct Field {
    std::size_t at = 0;
    std::size_t length = 0;
    std::string name;
    std::string value; // a number or a text; empty for data
};

enum class Direction { FromClient, FromGateway };

// Every byte belongs to one field, in their order.
std::vector<Field> fieldsOf(const standin::Bytes& flow, Direction direction);

} // namespace control

#endif
