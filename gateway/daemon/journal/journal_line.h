// A call as a line of a journal, and back. No password is ever part of it.
//
// Thread: any.
#ifndef JOURNAL_LINE_H
#define JOURNAL_LINE_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "standin/call_record.h"
#include "json/call_json.h"

namespace journal {

// For Json, and for Line, which is written faster.
template <typename Object = call_json::Json>
Object jsonOf(const standin::CallRecord& call);

// The time of a call as it stands there, and its type: "program", "list", ...
std::string typeOf(const standin::CallRecord& call);
std::string nameOfFlow(std::int32_t type);

// The same as a line, with its end.
std::string lineFor(const standin::CallRecord& call);

// The line that stands for so many that could not be written.
std::string noteOfMissing(std::size_t count);

// What a line says, as far as anything can be expected of it.
struct Entry {
    std::size_t missing = 0; // lines that this one stands for; if any, nothing else is set
    int connection = 0;
    std::int32_t message = 0;
    std::string type;            // "program", "list", "verify", "change" or "malformed"
    standin::EciRequest request; // of a program; of a password the user and the server
    std::vector<std::string> faults;
    std::int64_t took = 0; // microseconds

    bool isAnswered = false;
    std::string flow; // "reply", "error", "exception", ...
    std::int32_t gateway = 0;
    std::optional<std::int32_t> code;
    std::string abend;
    std::optional<standin::Bytes> commarea;
    std::optional<standin::Channel> channel;
};

// Throws std::exception for a line that lineFor() has not written.
Entry entryFrom(const std::string& line);

// The call in few words, for people.
std::string describe(const Entry& entry);

} // namespace journal

#endif
