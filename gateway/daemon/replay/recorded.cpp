#include "replay/recorded.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <system_error>
#include <utility>

#include "standin/wire.h"
#include "json/base64.h"
#include "json/call_json.h"

namespace replay {

using call_json::Json;
using standin::FlowType;
using standin::SplitFlow;
using std::chrono::microseconds;

namespace {

// Reads the lines of one connection.
class Reader {
public:
    explicit Reader(std::string file) { connection_.file = std::move(file); }

    void take(const std::string& line)
    {
        const Json json = Json::parse(line);
        if (json.contains("missing")) connection_.missing += json.at("missing").get<std::size_t>();
        if (!json.contains("payload")) return;
        const microseconds when(json.at("microseconds").get<std::int64_t>());
        const standin::Bytes bytes = base64::decode(json.at("payload").get<std::string>());
        std::optional<SplitFlow> split = standin::splitFlow(bytes);
        if (!split || split->size != bytes.size())
            throw std::invalid_argument("the payload is not one flow");
        if (json.at("from").get<std::string>() == "gateway") {
            takeAnswer(split->flow.header, bytes, when);
        } else if (split->flow.header.flowType == static_cast<std::int32_t>(FlowType::Request)) {
            takeRequest(std::move(*split), when);
        }
    }

    Connection end() { return std::move(connection_); }

private:
    struct Asked {
        std::size_t index;
        microseconds when;
    };

    void takeRequest(SplitFlow split, microseconds when)
    {
        asked_[split.flow.header.messageId] = {connection_.exchanges.size(), when};
        connection_.exchanges.push_back(
            {std::move(split.flow.header), std::move(split.flow.body), split.headerSize, {}});
        keyOf(connection_.exchanges.back(), true); // it is a request
    }

    void takeAnswer(const standin::FlowHeader& header, const standin::Bytes& bytes,
                    microseconds when)
    {
        const auto asked = asked_.find(header.messageId);
        if (asked == asked_.end()) return;
        connection_.exchanges[asked->second.index].answers.push_back(
            {bytes, when - asked->second.when});
    }

    Connection connection_;
    std::map<std::int32_t, Asked> asked_; // by message id
};

Connection readFile(const std::filesystem::path& file)
{
    std::ifstream in(file);
    if (!in)
        throw BadRecording(file.filename().string() +
                           " cannot be read: " + std::generic_category().message(errno));
    Reader reader(file.string());
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        try {
            reader.take(line);
        } catch (const std::exception&) {
            // What stands there is not shown: it may be anything.
            throw BadRecording(file.filename().string() + ", line " + std::to_string(number) +
                               " is not one of a recording");
        }
    }
    if (in.bad()) throw BadRecording(file.filename().string() + " cannot be read to its end");
    return reader.end();
}

bool isRecording(const std::filesystem::path& file)
{
    const std::string name = file.filename().string();
    return name.rfind("connection-", 0) == 0 && file.extension() == ".jsonl";
}

Json callOf(const standin::EciRequest& request, bool whole)
{
    Json json;
    if (request.callType == standin::kCallListSystems) return {{"room", request.serverNum}};
    call_json::putRequest(json, request, call_json::Form::Either);
    json["call"] = request.callType;
    json["wanted"] = request.wantedLength();
    if (!whole) {
        for (const char* const key : {"transaction", "server", "user", "unit"}) json.erase(key);
    }
    return json;
}

} // namespace

std::vector<Connection> readFolder(const std::string& folder)
{
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (isRecording(entry.path())) files.push_back(entry.path());
    }
    if (files.empty()) throw BadRecording("there is no recording in it");
    std::sort(files.begin(), files.end());
    std::vector<Connection> connections;
    for (const std::filesystem::path& file : files) connections.push_back(readFile(file));
    return connections;
}

std::string keyOf(const Exchange& exchange, bool whole)
{
    Json json;
    if (exchange.header.requestType == "ECI") {
        json = callOf(standin::decodeEciRequest(exchange.body, exchange.bodyOffset), whole);
    } else {
        const standin::EsiRequest request = standin::decodeEsiRequest(exchange.body,
                                                                      exchange.bodyOffset);
        json["esi"] = request.callType;
        json["user"] = call_json::validText(request.userId);
        json["server"] = call_json::validText(request.server);
    }
    return call_json::lineOf(json);
}

} // namespace replay
