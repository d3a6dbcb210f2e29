// A recording as it is read again: connections, the requests on them, and their answers.
//
// Everything here is a plain value.
#ifndef GATEWAY_RECORDED_H
#define GATEWAY_RECORDED_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "standin/messages.h"

namespace replay {

struct Answer {
    standin::Bytes flow;
    std::chrono::microseconds delay{0}; // behind the request
};

// A request without its passwords, and what has come back.
struct Exchange {
    standin::FlowHeader header;
    standin::Bytes body;
    std::size_t bodyOffset = 0;
    std::vector<Answer> answers;
};

struct Connection {
    std::string file;
    std::vector<Exchange> exchanges;
    std::size_t missing = 0; // lines that could not be written
};

// A line that is none of a recording, or a file that cannot be read to its end; what() names the
// file, and the line.
class BadRecording : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// All recordings in the folder, by their numbers. Throws BadRecording, also for a folder that has
// none, and std::system_error.
std::vector<Connection> readFolder(const std::string& folder);

// A text that is the same for the same call: program or kind, mode and data; with `whole` all else
// that an application decides on, too. It has no password.
std::string keyOf(const Exchange& exchange, bool whole);

} // namespace replay

#endif
