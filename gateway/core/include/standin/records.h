// What a Gateway has seen, for tests to look at: its connections, the requests on them, and what
// was wrong with them. They are handed out as copies.
#ifndef STANDIN_RECORDS_H
#define STANDIN_RECORDS_H

#include <cstddef>
#include <optional>
#include <string>

#include "standin/messages.h"

namespace standin {

// One request as it arrived. Exactly one of eci and esi is set, neither when its body was
// malformed.
struct ReceivedRequest {
    int connection = 0; // number of its connection
    FlowHeader header;  // with the lengths as they stood on the wire
    Bytes raw;          // the whole flow, header and body
    std::optional<EciRequest> eci;
    std::optional<EsiRequest> esi;
};

// One thing that a client did wrong.
struct Finding {
    int connection = 0;
    std::size_t offset = 0; // byte within the flow
    std::string problem;
    Bytes raw; // what had arrived of the flow
};

enum class Ending {
    Open,            // still there
    ClosedByClient,  // the client closed its side
    ClosedByGateway, // dropped, or closed after a malformed flow
    Reset,           // reset by either side
};

// What is known about one connection; connections are numbered from 1 as they are accepted.
struct ConnectionRecord {
    int number = 0;
    std::string peer; // "127.0.0.1:40312"
    std::optional<Handshake> handshake;
    bool handshakeAccepted = false; // the good answer has been sent
    bool closeFlowReceived = false;
    Ending ending = Ending::Open;
    Bytes received; // every byte from the client, in order
    Bytes sent;     // every byte given to the socket for the client, in order
};

} // namespace standin

#endif
