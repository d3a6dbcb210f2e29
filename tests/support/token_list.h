// The list of tokens as a dump shows it.
#ifndef SUPPORT_TOKEN_LIST_H
#define SUPPORT_TOKEN_LIST_H

#include <string>

#include "clapi_types.h"
#include "support/trace_file.h"

namespace support {

// What the dump of the token list writes while there is no trace.
inline std::string dumpedTokens()
{
    TraceFile trace(0);
    clapiDumpGatewayTokens();
    return trace.text();
}

} // namespace support

#endif
