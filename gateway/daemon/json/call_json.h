// Calls and their data as JSON, for programs that are run and for the journal; docs/gateway.md
// describes both. No password is ever part of it.
//
// Thread: any.
#ifndef GATEWAY_CALL_JSON_H
#define GATEWAY_CALL_JSON_H

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "standin/messages.h"
#include "json/json_line.h"

namespace call_json {

using Json = nlohmann::ordered_json;

// Data as text where they are nothing but text, and as hexadecimal digits where they are not.
enum class Form {
    Either, // one of them
    Both    // the digits always, and the text beside them
};

// One line without its end. Whatever a client has sent, this is valid.
std::string lineOf(const Json& json);

// A text that came from a client, as JSON takes it.
std::string validText(const std::string& text);

// These three come for Json, and for Line, which is written faster.
template <typename Object = Json>
Object areaOf(const standin::Bytes& data, Form form);
template <typename Object = Json>
Object channelOf(const standin::Channel& channel, Form form);

// "single", "extended", "commit", "backout", or the number of another one.
std::string nameOfMode(std::int32_t mode);

// A name as it travels, without its padding, as JSON takes it.
std::string nameText(const std::string& padded);

// The call of a program: program, transaction, server, user, mode, unit, commarea and channel.
template <typename Object>
void putRequest(Object& json, const standin::EciRequest& request, Form form);

// Back from what these have written; std::exception for what they have not.
standin::Bytes areaFrom(const Json& json);
standin::Channel channelFrom(const Json& json);
standin::EciRequest requestFrom(const Json& json);

} // namespace call_json

#endif
