#include "faults/fault_plan.h"

#include <algorithm>
#include <utility>

#include "standin/wire.h"

namespace standin {

namespace {

bool isFlow(Moment moment)
{
    return moment == Moment::Handshake || moment == Moment::CloseFlow || moment == Moment::Request;
}

bool strikesAt(Moment ofFault, Moment ofEvent)
{
    return ofFault == ofEvent || (ofFault == Moment::Flow && isFlow(ofEvent));
}

bool matches(Moment moment, const Selector& selector, const Event& event)
{
    if (selector.connection != 0 && selector.connection != event.connection) return false;
    if (event.moment != Moment::Request) {
        return moment != Moment::Flow || (selector.messageId == 0 && selector.program.empty());
    }
    if (selector.messageId != 0 && selector.messageId != event.messageId) return false;
    return selector.program.empty() || selector.program == event.program;
}

// Of several strikes with the same fault the first one.
bool isFirstOfItsFault(const Strike& strike, const std::vector<Strike>& strikes)
{
    return &strike == findStrike(strikes, strike.misbehaviour.fault);
}

template <typename Kind>
const Kind* effectOf(const Strike& strike)
{
    return std::get_if<Kind>(&rowOf(strike.misbehaviour.fault).effect);
}

} // namespace

// --------------------------------------------------------------------------------------- FaultPlan

std::uint64_t FaultPlan::add(Misbehaviour misbehaviour, Selector selector)
{
    entries_.push_back({++lastNumber_, std::move(misbehaviour), std::move(selector), 0, {}});
    return lastNumber_;
}

bool FaultPlan::remove(std::uint64_t number)
{
    const auto isMeant = [number](const Entry& entry) { return entry.number == number; };
    const auto found = std::find_if(entries_.begin(), entries_.end(), isMeant);
    if (found == entries_.end()) return false;
    entries_.erase(found);
    return true;
}

std::vector<MisbehaviourInForce> FaultPlan::inForce() const
{
    std::vector<MisbehaviourInForce> inForce;
    for (const Entry& entry : entries_) {
        inForce.push_back({entry.number,
                           {entry.misbehaviour, entry.selector},
                           entry.seen,
                           std::max(0, entry.seen - entry.selector.skip)});
    }
    return inForce;
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
        const Moment moment = rowOf(entry.misbehaviour.fault).moment;
        if (!strikesAt(moment, event.moment) || !matches(moment, entry.selector, event)) continue;
        const int position = entry.seen - entry.selector.skip;
        const bool over = entry.selector.times != 0 && position >= entry.selector.times;
        if (over) continue;
        ++entry.seen;
        if (position >= 0) strikes.push_back({entry.misbehaviour, entry.number});
    }
    return strikes;
}

std::int32_t FaultPlan::standing(Fault fault, int connection)
{
    std::int32_t number = 0;
    for (Entry& entry : entries_) {
        const Selector& selector = entry.selector;
        if (entry.misbehaviour.fault != fault ||
            (selector.connection != 0 && selector.connection != connection))
            continue;
        const auto [place, isNew] = entry.places.try_emplace(connection, entry.seen);
        const int position = place->second - selector.skip;
        if (isNew && (selector.times == 0 || position < selector.times)) ++entry.seen;
        const bool strikes = position >= 0 && (selector.times == 0 || position < selector.times);
        if (strikes && number == 0) number = entry.misbehaviour.number;
    }
    return number;
}

void FaultPlan::forget(int connection)
{
    for (Entry& entry : entries_) entry.places.erase(connection);
}

Manner FaultPlan::mannerFor(const std::vector<Strike>& strikes)
{
    Manner manner;
    for (const Strike& strike : strikes) {
        const Misbehaviour& misbehaviour = strike.misbehaviour;
        if (misbehaviour.fault == Fault::Stall && !manner.stallAt)
            manner.stallAt = static_cast<std::size_t>(misbehaviour.number);
        if (misbehaviour.fault != Fault::Latency) continue;
        const std::int64_t spread = std::int64_t{misbehaviour.spread} * 1000;
        const auto room = static_cast<std::uint64_t>(2 * spread + 1);
        const std::int64_t more = spread == 0
                                      ? 0
                                      : static_cast<std::int64_t>(chance_() % room) - spread;
        const std::chrono::microseconds latency(std::int64_t{misbehaviour.number} * 1000 + more);
        manner.latency += std::max(latency, std::chrono::microseconds(0));
    }
    return manner;
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
    for (const Strike& strike : strikes) {
        if (const Instead* const instead = effectOf<Instead>(strike))
            return instead->answer(strike.misbehaviour, request);
    }
    return std::nullopt;
}

bool isReplacedByAnError(const std::vector<Strike>& strikes)
{
    for (const Strike& strike : strikes) {
        if (effectOf<Instead>(strike) == nullptr) continue;
        const Fault fault = strike.misbehaviour.fault;
        return fault == Fault::FlowError || fault == Fault::FlowException ||
               fault == Fault::ConnectionError;
    }
    return false;
}

bool hasGatewayRc(const std::vector<Strike>& strikes)
{
    FlowHeader header;
    for (const Strike& strike : strikes) {
        if (const InHeader* const inHeader = effectOf<InHeader>(strike))
            inHeader->change(strike.misbehaviour, header);
    }
    return header.gatewayRc != kGatewayOk;
}

Answer::Then endingAtConnect(const std::vector<Strike>& strikes)
{
    Answer::Then then = Answer::Then::GoOn;
    for (const Strike& strike : strikes) {
        const std::optional<Answer> answer = replacedAnswer({strike}, {});
        if (answer) then = std::max(then, answer->then);
    }
    return then;
}

Answer spoiledAnswer(const std::vector<Strike>& strikes, Flow answer)
{
    for (const Strike& strike : strikes) {
        if (const InHeader* const inHeader = effectOf<InHeader>(strike))
            inHeader->change(strike.misbehaviour, answer.header);
    }
    return spoiledAnswer(strikes, encodeFlow(answer));
}

Answer spoiledAnswer(const std::vector<Strike>& strikes, Bytes bytes)
{
    Answer answer;
    AnswerBytes changed{std::move(bytes)};
    for (const Strike& strike : strikes) {
        const Misbehaviour& misbehaviour = strike.misbehaviour;
        if (const Before* const before = effectOf<Before>(strike))
            answer.flows.push_back(encodeFlow(before->flow(misbehaviour)));
        const InBytes* const inBytes = effectOf<InBytes>(strike);
        if (inBytes != nullptr && isFirstOfItsFault(strike, strikes))
            inBytes->change(misbehaviour, changed);
    }
    for (int copy = 1; copy < changed.copies; ++copy) answer.flows.push_back(changed.bytes);
    answer.flows.push_back(std::move(changed.bytes));
    answer.then = changed.then;
    return answer;
}

Answer spoiledFlow(const std::vector<Strike>& strikes, Bytes bytes)
{
    std::optional<SplitFlow> split;
    try {
        split = splitFlow(bytes);
    } catch (const MalformedFlow&) {
        split.reset(); // just bytes, then
    }
    if (!split || split->size != bytes.size()) return spoiledAnswer(strikes, std::move(bytes));
    split->flow.header.requestTypeLength.reset(); // that of another type
    return spoiledAnswer(strikes, std::move(split->flow));
}

} // namespace standin
