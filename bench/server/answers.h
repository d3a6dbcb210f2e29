// The answers of the server: what a reply is made of, without a copy of the data that comes back.
#pragma once

#include "read_ahead.h"

#include <sys/uio.h>

#include <string>
#include <vector>

namespace bench {

// The pieces of one reply, in order. They point into the request and into `made`, and so live until
// the next flow is read.
struct Reply {
    iovec pieces[3];
    std::size_t count = 0;
    Bytes made;
};

// What one connection remembers between its flows.
struct Conversation {
    std::vector<Bytes> held; // replies of the program HOLD
};

// Makes the reply to a handshake or a close: the same flow without a body.
void answerConnectionFlow(const Flow& flow, Reply* reply);

// Makes the reply to a request. An empty reply is one that is held back.
void answerRequest(const Flow& flow, Conversation* conversation, Reply* reply);

} // namespace bench
