// One call from its request to its answer, as whoever watches a Gateway is told of it.
#ifndef STANDIN_CALL_RECORD_H
#define STANDIN_CALL_RECORD_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "standin/messages.h"

namespace standin {

// Longer flows are not kept for a watcher.
constexpr std::size_t kLongestKeptFlow = 256 * 1024;

struct CallRecord {
    std::uint64_t number = 0; // of the call on its Gateway, from 1
    int connection = 0;

    // What came: exactly one of eci and esi, neither when the body was malformed. Their passwords
    // are empty.
    std::chrono::system_clock::time_point came;
    FlowHeader header;
    std::optional<EciRequest> eci;
    std::optional<EsiRequest> esi;
    std::string problem; // what was malformed, and where; empty: nothing

    // What was answered, before any misbehaviour: one of these at most.
    std::optional<EciReply> eciReply;
    std::optional<EsiReply> esiReply;
    std::string exception; // why the program has failed

    // What went: the last flow as it stood on the wire, and the bytes of all. None when the call
    // got no answer.
    std::vector<std::string> faults; // the misbehaviours that struck, by name
    std::optional<std::int32_t> flowType;
    std::int32_t gatewayRc = kGatewayOk;
    std::size_t bytes = 0;

    // The flows themselves, for a watcher only: the request's with its passwords overwritten by
    // 0x00, and the last one that went. Nothing when they are longer than kLongestKeptFlow.
    Bytes requestFlow;
    Bytes answerFlow;
    std::chrono::microseconds took{0}; // until it went, or until it was clear that nothing would
};

// Is told of each call right before its answer goes out, or when nothing can be sent any more;
// told of arrivals it sees what came, and nothing of an answer. Runs on the Gateway's own thread,
// and must not call back into the Gateway.
using CallObserver = std::function<void(const CallRecord& call)>;

} // namespace standin

#endif
