#include "replay/replay.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "log/log_text.h"
#include "record/written_flow.h"
#include "standin/wire.h"

namespace replay {

using standin::Bytes;
using standin::LogLevel;
using standin::ReceivedRequest;

namespace {

// Where the numbers stand that a client gives a request and looks for in the answer.
constexpr std::size_t kMessageId = 12;
constexpr std::size_t kQualifierInRequest = 12;
constexpr std::size_t kQualifierInReply = 8;

void putInt(Bytes& bytes, std::size_t at, std::int32_t value)
{
    const auto bits = static_cast<std::uint32_t>(value);
    for (std::size_t i = 0; i < 4; ++i)
        bytes.at(at + i) = static_cast<std::uint8_t>(bits >> (24U - 8U * i));
}

bool isProgramCall(const ReceivedRequest& request)
{
    return request.eci && request.eci->callType != standin::kCallListSystems;
}

// The recorded flow as the answer to this request.
Bytes madeFor(const ReceivedRequest& request, const Exchange& exchange, Bytes flow)
{
    const std::optional<standin::SplitFlow> split = standin::splitFlow(flow);
    putInt(flow, kMessageId, request.header.messageId);
    const bool isReply = split && split->flow.header.flowType ==
                                      static_cast<std::int32_t>(standin::FlowType::Reply);
    const std::size_t at = split ? split->headerSize + kQualifierInReply : 0;
    if (!isReply || !isProgramCall(request) || flow.size() < at + 4) return flow;
    const auto asked = exchange.body.begin() + static_cast<std::ptrdiff_t>(kQualifierInRequest);
    if (std::equal(asked, asked + 4, flow.begin() + static_cast<std::ptrdiff_t>(at)))
        putInt(flow, at, request.eci->messageQualifier);
    return flow;
}

// What the log calls it.
std::string nameOf(const ReceivedRequest& request)
{
    if (isProgramCall(request)) {
        std::string name = "program \"" + log_text::printable(request.eci->program) + "\" with " +
                           std::to_string(request.eci->commarea.size()) + " bytes";
        if (request.eci->channel) name += " and a channel";
        return name;
    }
    if (request.eci) return "the list of systems";
    return request.esi->callType == standin::kEsiVerify ? "verify a password" : "change a password";
}

std::string countOf(std::size_t count, const char* what)
{
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

} // namespace

Replay::Replay(const std::string& folder, Manner manner, standin::LogSink log)
    : connections_(readFolder(folder)), manner_(manner), log_(std::move(log))
{
    for (const Connection& connection : connections_) {
        for (const Exchange& exchange : connection.exchanges)
            byKey_[keyOf(exchange, false)].exchanges.push_back(&exchange);
        recorded_ += connection.exchanges.size();
        if (connection.missing > 0) {
            log_(LogLevel::Warning, countOf(connection.missing, "flow") +
                                        " could not be written to " + connection.file);
        }
    }
    log_(LogLevel::Info, "replaying " + countOf(recorded_, "request") + " of " +
                             countOf(connections_.size(), "connection") + " in " + folder);
}

void Replay::serve(standin::Gateway& gateway)
{
    gateway.setFlowsReply([this](const ReceivedRequest& request) { return answer(request); });
}

Replay::Flows Replay::answer(const ReceivedRequest& request)
{
    ++asked_;
    standin::SplitFlow split = standin::splitFlow(request.raw).value();
    const std::optional<standin::Flow> known = record::withoutPasswords(split,
                                                                        record::Side::Application);
    if (!known) return refuse(request);
    const Exchange asked{known->header, known->body, split.headerSize, {}};
    const Exchange* const found = manner_.inOrder
                                      ? findInOrder(request.connection, keyOf(asked, true))
                                      : findAnywhere(keyOf(asked, false));
    if (found == nullptr) return refuse(request);
    Flows flows;
    for (const Answer& one : found->answers) {
        flows.push_back({madeFor(request, *found, one.flow),
                         manner_.atRecordedSpeed ? one.delay : std::chrono::microseconds(0)});
    }
    return flows;
}

// One that is not the next of its connection leaves that to be the next.
const Exchange* Replay::findInOrder(int connection, const std::string& key)
{
    const auto index = static_cast<std::size_t>(connection) - 1;
    if (index >= connections_.size()) return nullptr;
    const std::vector<Exchange>& exchanges = connections_[index].exchanges;
    std::size_t& place = places_[connection];
    if (place >= exchanges.size() || keyOf(exchanges[place], true) != key) return nullptr;
    return &exchanges[place++];
}

const Exchange* Replay::findAnywhere(const std::string& key)
{
    const auto found = byKey_.find(key);
    if (found == byKey_.end()) return nullptr;
    Line& line = found->second;
    if (line.next < line.exchanges.size()) return line.exchanges[line.next++];
    ++again_;
    return line.exchanges.back();
}

Replay::Flows Replay::refuse(const ReceivedRequest& request)
{
    ++unanswered_;
    const std::string text = "no answer is recorded for " + nameOf(request);
    log_(LogLevel::Warning, "connection " + std::to_string(request.connection) + ": request " +
                                std::to_string(request.header.messageId) + ": " + text);
    return {
        {standin::encodeExceptionFlow(request.header.messageId, text, request.header.requestType)}};
}

void Replay::report() const
{
    const std::size_t first = asked_ - unanswered_ - again_;
    log_(unanswered_ == 0 ? LogLevel::Info : LogLevel::Warning,
         "replayed: " + countOf(asked_, "request") + ", " + std::to_string(unanswered_) +
             " without an answer, " + std::to_string(again_) + " answered again; " +
             std::to_string(recorded_ - first) + " of " + std::to_string(recorded_) +
             " recorded ones did not come");
}

} // namespace replay
