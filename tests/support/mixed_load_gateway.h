// The gateway's side of the mixed load.
#ifndef SUPPORT_MIXED_LOAD_GATEWAY_H
#define SUPPORT_MIXED_LOAD_GATEWAY_H

#include <string>
#include <vector>

#include "standin/gateway.h"

namespace support {

// Gives the gateway the programs and misbehaviours of a load with so many connections.
void prepareForLoad(standin::Gateway& gateway, int connections);

// What the gateway has to say against a load that has ended and has had so many connections, and
// so many more that were opened in the place of dropped ones.
std::vector<std::string> problemsOf(standin::Gateway& gateway, int connections, int reopened);

} // namespace support

#endif
