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

bool isPlain(std::uint8_t byte)
{
    return (byte >= ' ' && byte <= '~') || byte == '\n' || byte == '\r' || byte == '\t';
}

// Without the 0x00 at the end.
Bytes withoutFill(const Bytes& data)
{
    const auto last = std::find_if(data.rbegin(), data.rend(),
                                   [](std::uint8_t byte) { return byte != 0; });
    return Bytes(data.begin(), last.base());
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
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
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

Json areaOf(const Bytes& data, Form form)
{
    Json json;
    json["length"] = data.size();
    const Bytes filled = withoutFill(data);
    if (form == Form::Both) {
        json["text"] = code_page::toUtf8(filled, kLatin1);
        json["hex"] = hexOf(data);
    } else if (std::all_of(filled.begin(), filled.end(), isPlain)) {
        json["text"] = std::string(filled.begin(), filled.end());
    } else {
        json["hex"] = hexOf(data);
    }
    return json;
}

Json channelOf(const Channel& channel, Form form)
{
    Json containers = Json::array();
    for (const Container& container : channel.containers) {
        Json json;
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
    return {{"name", validText(channel.name)},
            {"ccsid", channel.ccsid},
            {"containers", std::move(containers)}};
}

void putRequest(Json& json, const EciRequest& request, Form form)
{
    json["program"] = nameText(request.program);
    json["transaction"] = nameText(request.transid);
    json["server"] = nameText(request.server);
    json["user"] = nameText(request.userId);
    json["mode"] = nameOfMode(request.extendMode);
    json["unit"] = request.luwToken;
    json["commarea"] = areaOf(request.commareaAsSeenByProgram(), form);
    if (request.channel) json["channel"] = channelOf(*request.channel, form);
}

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
