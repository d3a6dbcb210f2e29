#include "faults/fault_plan.h"

#include <algorithm>
#include <utility>

#include "standin/wire.h"

namespace standin {

namespace {

constexpr std::int32_t kWrongEyecatcher = 0x45746167; // "Etag"
constexpr std::int32_t kDefaultUnknownFlow = 99;
constexpr std::int32_t kDefaultUnknownMessage = 999999;
const char* const kDefaultRequestType = "XYZ";

Moment momentOf(Fault fault)
{
    switch (fault) {
    case Fault::DropAtConnect:
    case Fault::ResetAtConnect: return Moment::Connect;
    case Fault::NoHandshakeAnswer:
    case Fault::RefuseHandshake:
    case Fault::CloseAtHandshake:
    case Fault::DropAtHandshake:
    case Fault::ResetAtHandshake: return Moment::Handshake;
    case Fault::NoCloseAnswer: return Moment::CloseFlow;
    case Fault::Pieces: return Moment::Sending;
    default: return Moment::Request;
    }
}

bool matches(const Selector& selector, const Event& event)
{
    if (selector.connection != 0 && selector.connection != event.connection) return false;
    if (event.moment != Moment::Request) return true;
    if (selector.messageId != 0 && selector.messageId != event.messageId) return false;
    return selector.program.empty() || selector.program == event.program;
}

std::int32_t numberOr(const Strike& strike, std::int32_t fallback)
{
    return strike.misbehaviour.number != 0 ? strike.misbehaviour.number : fallback;
}

Answer only(const Flow& flow)
{
    return {{encodeFlow(flow)}, Answer::Then::GoOn};
}

void spoilHeader(const Strike& strike, FlowHeader& header)
{
    const Misbehaviour& misbehaviour = strike.misbehaviour;
    switch (misbehaviour.fault) {
    case Fault::BadEyecatcher: header.eyecatcher = kWrongEyecatcher; break;
    case Fault::UnknownMessageId:
        header.messageId = numberOr(strike, kDefaultUnknownMessage);
        break;
    case Fault::EsiType: header.requestType = "ESI"; break;
    case Fault::RequestType:
        header.requestType = misbehaviour.text.empty() ? kDefaultRequestType : misbehaviour.text;
        break;
    case Fault::GatewayRc: header.gatewayRc = misbehaviour.number; break;
    default: break;
    }
}

Flow unknownFlow(const Strike& strike)
{
    Flow flow = makePing();
    flow.header.flowType = numberOr(strike, kDefaultUnknownFlow);
    return flow;
}

} // namespace

// --------------------------------------------------------------------------------------- FaultPlan

void FaultPlan::add(Misbehaviour misbehaviour, Selector selector)
{
    entries_.push_back({++lastNumber_, std::move(misbehaviour), std::move(selector), 0});
}

void FaultPlan::clear(Fault fault)
{
    const auto isMeant = [fault](const Entry& entry) { return entry.misbehaviour.fault == fault; };
    entries_.erase(std::remove_if(entries_.begin(), entries_.end(), isMeant), entries_.end());
}

std::vector<Strike> FaultPlan::strike(const Event& event)
{
    std::vector<Strike> strikes;
    for (Entry& entry : entries_) {
        if (momentOf(entry.misbehaviour.fault) != event.moment || !matches(entry.selector, event))
            continue;
        const int position = entry.seen - entry.selector.skip;
        const bool over = entry.selector.times != 0 && position >= entry.selector.times;
        if (over) continue;
        ++entry.seen;
        if (position >= 0) strikes.push_back({entry.misbehaviour, entry.number});
    }
    return strikes;
}

// ----------------------------------------------------------------------------------------- answers

const Strike* findStrike(const std::vector<Strike>& strikes, Fault fault)
{
    for (const Strike& strike : strikes) {
        if (strike.misbehaviour.fault == fault) return &strike;
    }
    return nullptr;
}

std::optional<Answer> replacedAnswer(const std::vector<Strike>& strikes, const FlowHeader& request)
{
    const std::int32_t id = request.messageId;
    for (const Strike& strike : strikes) {
        const Misbehaviour& misbehaviour = strike.misbehaviour;
        switch (misbehaviour.fault) {
        case Fault::NoAnswer: return Answer{};
        case Fault::FlowError:
            return only(makeErrorFlow(id, misbehaviour.number, request.requestType));
        case Fault::FlowException:
            return only(makeExceptionFlow(id, misbehaviour.text, request.requestType));
        case Fault::ConnectionError:
            return only(makeErrorFlow(kHandshakeMessageId, misbehaviour.number, "BASE"));
        case Fault::Close: return only(makeCloseFlow());
        case Fault::Drop: return Answer{{}, Answer::Then::Drop};
        case Fault::Reset: return Answer{{}, Answer::Then::Reset};
        case Fault::Raw: return Answer{{misbehaviour.bytes}, Answer::Then::GoOn};
        default: break;
        }
    }
    return std::nullopt;
}

Answer spoiledAnswer(const std::vector<Strike>& strikes, Flow answer)
{
    for (const Strike& strike : strikes) spoilHeader(strike, answer.header);
    return spoiledAnswer(strikes, encodeFlow(answer));
}

Answer spoiledAnswer(const std::vector<Strike>& strikes, Bytes bytes)
{
    Answer answer;
    for (const Strike& strike : strikes) {
        if (strike.misbehaviour.fault == Fault::Ping) answer.flows.push_back(encodePing());
        if (strike.misbehaviour.fault == Fault::UnknownFlow)
            answer.flows.push_back(encodeFlow(unknownFlow(strike)));
    }
    if (const Strike* truncate = findStrike(strikes, Fault::Truncate)) {
        bytes.resize(
            std::min(bytes.size(), static_cast<std::size_t>(truncate->misbehaviour.number)));
        answer.then = Answer::Then::Drop;
    }
    if (findStrike(strikes, Fault::Duplicate) != nullptr) answer.flows.push_back(bytes);
    answer.flows.push_back(std::move(bytes));
    return answer;
}

} // namespace standin
