// What a recording has of a flow: the flow without its passwords, and its fields for people.
//
// A flow from an application that is not well-formed may have a password anywhere, so nothing of
// its body is written, and neither is it of one that only an application sends.
//
// Thread: one at a time for each Fields.
#ifndef GATEWAY_WRITTEN_FLOW_H
#define GATEWAY_WRITTEN_FLOW_H

#include <cstdint>
#include <map>
#include <optional>

#include "standin/wire.h"
#include "json/call_json.h"

namespace record {

enum class Side { Application, Gateway };

const char* nameOf(Side side);

// The flow with empty passwords, their lengths and its own included; nothing for one that may have
// a password where it cannot be seen.
std::optional<standin::Flow> withoutPasswords(const standin::SplitFlow& split, Side from);

// The fields of the flows on one connection; a reply is read as its request wants it.
class Fields {
public:
    // Puts type, message id, codes, the call or its answer, and the payload.
    void put(call_json::Json& json, const standin::SplitFlow& split, Side from);

private:
    struct Asked {
        std::int32_t callType;
        std::int32_t extendMode;
    };

    void putRequest(call_json::Json& json, const standin::SplitFlow& split);
    void putEciRequest(call_json::Json& json, const standin::SplitFlow& split);
    void putReply(call_json::Json& json, const standin::SplitFlow& split);
    void putEciReply(call_json::Json& json, const standin::SplitFlow& split);

    std::map<std::int32_t, Asked> asked_; // by message id
};

} // namespace record

#endif
