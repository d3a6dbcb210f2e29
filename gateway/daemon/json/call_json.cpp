#include "json/call_json.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "standin/wire.h"
#include "text/code_page.h"

namespace call_json {

using standin::Bytes;
using standin::Channel;
using standin::Container;
using standin::EciRequest;

namespace {

constexpr std::int32_t kLatin1 = 819;

// Names of change codes; the first one is 1.
constexpr std::array<const char*, 4> kChanges = {"added", "deleted", "modified", "unchanged"};

std::string hexOf(const Bytes& data)
{
    static const char* const digits = "0123456789abcdef";
    std::string hex;
    hex.reserve(2 * data.size());
    for (const std::uint8_t byte : data) {
        hex += digits[byte >> 4U];
        hex += digits[byte & 15U];
    }
    return hex;
}

// The bytes that are no text.
constexpr std::array<bool, 256> strangeBytes()
{
    std::array<bool, 256> strange{};
    for (std::size_t byte = 0; byte < strange.size(); ++byte)
        strange[byte] = byte < ' ' || byte > '~';
    for (const char plain : {'\n', '\r', '\t'}) strange[static_cast<std::size_t>(plain)] = false;
    return strange;
}

constexpr std::array<bool, 256> kStrange = strangeBytes();

// All are looked at, without a branch for each.
bool isPlain(Bytes::const_iterator begin, Bytes::const_iterator end)
{
    unsigned strange = 0;
    for (auto byte = begin; byte != end; ++byte) strange |= kStrange[*byte];
    return strange == 0;
}

// Where the 0x00 at the end begin.
Bytes::const_iterator endOfFilled(const Bytes& data)
{
    return std::find_if(data.rbegin(), data.rend(), [](std::uint8_t byte) { return byte != 0; })
        .base();
}

// As the library would write the value, which does so for all that is not looked at here.
void append(std::string& line, const Json& value);

void appendObject(std::string& line, const Json& object)
{
    char before = '{';
    for (const auto& [key, value] : object.get_ref<const Json::object_t&>()) {
        line += before;
        appendText(line, key);
        line += ':';
        append(line, value);
        before = ',';
    }
    line += before == '{' ? "{}" : "}";
}

void appendArray(std::string& line, const Json& array)
{
    char before = '[';
    for (const Json& value : array) {
        line += before;
        append(line, value);
        before = ',';
    }
    line += before == '[' ? "[]" : "]";
}

void append(std::string& line, const Json& value)
{
    switch (value.type()) {
    case Json::value_t::object: return appendObject(line, value);
    case Json::value_t::array: return appendArray(line, value);
    case Json::value_t::string: return appendText(line, value.get_ref<const std::string&>());
    case Json::value_t::number_integer: line += std::to_string(value.get<std::int64_t>()); return;
    case Json::value_t::number_unsigned: line += std::to_string(value.get<std::uint64_t>()); return;
    default: line += value.dump(); return;
    }
}

// The characters, when they come to the same bytes again.
std::optional<std::string> charactersOf(const Container& container)
{
    if (container.type != standin::kContainerChar || !code_page::isKnownCcsid(container.ccsid))
        return std::nullopt;
    try {
        std::string text = code_page::toUtf8(container.data, container.ccsid);
        if (code_page::fromUtf8(text, container.ccsid) == container.data) return text;
    } catch (const code_page::ConversionError&) {
    }
    return std::nullopt;
}

std::string withoutPadding(const std::string& text)
{
    const std::size_t end = text.find_last_not_of(std::string(" \0", 2));
    return end == std::string::npos ? "" : text.substr(0, end + 1);
}

const char* const kModes[] = {"single", "extended", "commit", nullptr, "backout"};

std::string textAt(const Json& json, const char* key)
{
    return json.value(key, std::string());
}

} // namespace

std::string lineOf(const Json& json)
{
    constexpr std::size_t kUsualLength = 1024;
    std::string line;
    line.reserve(kUsualLength);
    append(line, json);
    return line;
}

std::string validText(const std::string& text)
{
    const bool isAscii = std::all_of(text.begin(), text.end(),
                                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (isAscii) return text;
    return code_page::toUtf8(Bytes(text.begin(), text.end()), kLatin1);
}

std::string nameOfMode(std::int32_t mode)
{
    const bool isKnown = mode >= 0 && mode <= standin::kModeBackout && kModes[mode] != nullptr;
    return isKnown ? kModes[mode] : std::to_string(mode);
}

std::string nameText(const std::string& padded)
{
    return validText(withoutPadding(padded));
}

template <typename Object>
Object areaOf(const Bytes& data, Form form)
{
    Object json;
    json["length"] = data.size();
    const auto end = endOfFilled(data);
    if (form == Form::Both) {
        json["text"] = code_page::toUtf8(Bytes(data.begin(), end), kLatin1);
        json["hex"] = hexOf(data);
    } else if (isPlain(data.begin(), end)) {
        const auto size = static_cast<std::size_t>(end - data.begin());
        json["text"] = std::string(reinterpret_cast<const char*>(data.data()), size);
    } else {
        json["hex"] = hexOf(data);
    }
    return json;
}

template <typename Object>
Object channelOf(const Channel& channel, Form form)
{
    Object containers = Object::array();
    for (const Container& container : channel.containers) {
        Object json;
        json["name"] = validText(container.name);
        if (form == Form::Either) {
            const auto index = static_cast<std::size_t>(container.change) - 1;
            json["change"] = kChanges.at(std::min(index, kChanges.size() - 1));
        }
        json["type"] = container.type == standin::kContainerChar ? "char" : "bit";
        json["ccsid"] = container.ccsid;
        json["length"] = container.data.size();
        const std::optional<std::string> text = charactersOf(container);
        if (text) json["text"] = *text;
        if (!text || form == Form::Both) json["hex"] = hexOf(container.data);
        containers.push_back(std::move(json));
    }
    Object json;
    json["name"] = validText(channel.name);
    json["ccsid"] = channel.ccsid;
    json["containers"] = std::move(containers);
    return json;
}

template <typename Object>
void putRequest(Object& json, const EciRequest& request, Form form)
{
    json["program"] = nameText(request.program);
    json["transaction"] = nameText(request.transid);
    json["server"] = nameText(request.server);
    json["user"] = nameText(request.userId);
    json["mode"] = nameOfMode(request.extendMode);
    json["unit"] = request.luwToken;
    json["commarea"] = areaOf<Object>(request.commareaAsSeenByProgram(), form);
    if (request.channel) json["channel"] = channelOf<Object>(*request.channel, form);
}

template Json areaOf<Json>(const Bytes& data, Form form);
template Line areaOf<Line>(const Bytes& data, Form form);
template Json channelOf<Json>(const Channel& channel, Form form);
template Line channelOf<Line>(const Channel& channel, Form form);
template void putRequest<Json>(Json& json, const EciRequest& request, Form form);
template void putRequest<Line>(Line& json, const EciRequest& request, Form form);

Bytes areaFrom(const Json& json)
{
    if (json.contains("hex")) return standin::fromHex(json.at("hex").get<std::string>());
    const auto text = json.at("text").get<std::string>();
    const auto length = json.at("length").get<std::size_t>();
    if (length < text.size() || length > static_cast<std::size_t>(standin::kLargestBody))
        throw std::invalid_argument("a length does not fit its text");
    Bytes data(text.begin(), text.end());
    data.resize(length);
    return data;
}

Channel channelFrom(const Json& json)
{
    Channel channel;
    channel.name = json.at("name").get<std::string>();
    channel.ccsid = json.at("ccsid").get<std::int32_t>();
    for (const Json& one : json.at("containers")) {
        Container container;
        container.name = one.at("name").get<std::string>();
        container.ccsid = one.at("ccsid").get<std::int32_t>();
        const bool isChar = one.at("type").get<std::string>() == "char";
        container.type = isChar ? standin::kContainerChar : standin::kContainerBit;
        const std::string change = textAt(one, "change");
        for (std::size_t i = 0; i < kChanges.size(); ++i) {
            if (change == kChanges[i]) container.change = static_cast<standin::Change>(i + 1);
        }
        if (one.contains("hex")) {
            container.data = standin::fromHex(one.at("hex").get<std::string>());
        } else if (!code_page::isKnownCcsid(container.ccsid)) {
            throw std::invalid_argument("a container's CCSID is not known");
        } else {
            container.data = code_page::fromUtf8(one.at("text").get<std::string>(),
                                                 container.ccsid);
        }
        channel.containers.push_back(std::move(container));
    }
    return channel;
}

EciRequest requestFrom(const Json& json)
{
    EciRequest request;
    request.callType = standin::kCallProgram;
    request.program = textAt(json, "program");
    request.transid = textAt(json, "transaction");
    request.server = textAt(json, "server");
    request.userId = textAt(json, "user");
    request.luwToken = json.value("unit", 0);
    const std::string mode = textAt(json, "mode");
    for (std::int32_t one = 0; one <= standin::kModeBackout; ++one) {
        if (mode == nameOfMode(one)) request.extendMode = one;
    }
    request.commarea = areaFrom(json.at("commarea"));
    request.commareaLength = static_cast<std::int32_t>(request.commarea.size());
    if (json.contains("channel")) request.channel = channelFrom(json.at("channel"));
    return request;
}

} // namespace call_json
