#include "record/misbehaving.h"

#include <optional>
#include <utility>

#include "standin/wipe.h"
#include "standin/wire.h"

namespace record {

using standin::Answer;
using standin::Bytes;
using standin::Fault;
using standin::FlowType;
using standin::MalformedFlow;
using standin::Moment;
using standin::SplitFlow;
using standin::Strike;

namespace {

constexpr std::size_t kMostAsked = 65536; // requests of a connection that wait for an answer

// A flow of a Gateway that would be larger is passed on as it comes.
constexpr std::size_t kLargestFlow = 68 * 1024 * 1024;

FlowType typeOf(const SplitFlow& split)
{
    return static_cast<FlowType>(split.flow.header.flowType);
}

// Empty for a request of a password, and for one that is not well-formed.
std::string programOf(const SplitFlow& split)
{
    if (split.flow.header.requestType != "ECI") return "";
    try {
        standin::EciRequest request = standin::decodeEciRequest(split.flow.body, split.headerSize);
        standin::wipe(request.password);
        return request.program;
    } catch (const MalformedFlow&) {
        return "";
    }
}

} // namespace

// ------------------------------------------------------------------------------------- Misbehaving

Misbehaving::Misbehaving(const std::vector<standin::SelectedMisbehaviour>& misbehaviours, Give give)
    : give_(std::move(give)), isAny_(!misbehaviours.empty())
{
    for (const standin::SelectedMisbehaviour& one : misbehaviours)
        plan_.add(one.misbehaviour, one.selector);
}

void Misbehaving::give(int connection, std::int32_t messageId, const std::vector<Strike>& strikes,
                       Answer answer)
{
    if (findStrike(strikes, Fault::Hold) != nullptr)
        return held_.hold({connection, messageId, std::move(answer)});
    const Strike* const reverse = findStrike(strikes, Fault::Reverse);
    if (reverse == nullptr) return give_(connection, answer);
    const auto wanted = static_cast<std::size_t>(reverse->misbehaviour.number);
    for (const standin::HeldAnswer& one :
         held_.collect(reverse->entry, wanted, {connection, messageId, std::move(answer)})) {
        give_(one.connection, one.answer);
    }
}

std::size_t Misbehaving::release()
{
    plan_.clear(Fault::Hold);
    const std::vector<standin::HeldAnswer> held = held_.takeAll();
    for (const standin::HeldAnswer& one : held) give_(one.connection, one.answer);
    return held.size();
}

// ------------------------------------------------------------------------------------------ Victim

Victim::Victim(Misbehaving& misbehaving, int connection, Log log)
    : misbehaving_(misbehaving), connection_(connection), log_(std::move(log))
{
}

void Victim::log(const std::string& what, const Strike& strike) const
{
    log_(what + "misbehaving: " + std::string(standin::nameOf(strike.misbehaviour.fault)));
}

Answer::Then Victim::accepted()
{
    const std::vector<Strike> strikes = misbehaving_.strike({Moment::Connect, connection_, 0, {}});
    for (const Strike& strike : strikes) log("", strike);
    return endingAtConnect(strikes);
}

void Victim::asked(const std::uint8_t* bytes, std::size_t count)
{
    if (!fromApplication_.isReadable()) return;
    fromApplication_.add(bytes, count);
    try {
        while (std::optional<SplitFlow> split = fromApplication_.next()) {
            onFlowOfTheApplication(*split);
            wipe(split->flow.body);
        }
    } catch (const MalformedFlow&) {
        fromApplication_.giveUp();
    }
}

void Victim::onFlowOfTheApplication(const SplitFlow& split)
{
    if (typeOf(split) == FlowType::Request) onRequest(split);
    if (typeOf(split) == FlowType::Close) isClosing_ = true;
}

void Victim::onRequest(const SplitFlow& split)
{
    if (waiting_ >= kMostAsked) return;
    const std::int32_t messageId = split.flow.header.messageId;
    const std::vector<Strike> strikes = misbehaving_.strike(
        {Moment::Request, connection_, messageId, programOf(split)});
    for (const Strike& strike : strikes) log("request " + std::to_string(messageId) + " ", strike);
    asked_[messageId].push_back({split.flow.header, strikes});
    ++waiting_;
}

void Victim::answered(const std::uint8_t* bytes, std::size_t count)
{
    if (!fromGateway_.isReadable()) return pass(Bytes(bytes, bytes + count));
    fromGateway_.add(bytes, count);
    try {
        while (const std::optional<SplitFlow> split = fromGateway_.next())
            onFlowOfTheGateway(*split);
        if (fromGateway_.unread().size() < kLargestFlow) return;
    } catch (const MalformedFlow&) {
        // Passed on as it is, like all that comes behind it.
    }
    answeredAll();
    fromGateway_.giveUp();
}

void Victim::answeredAll()
{
    const Bytes rest = fromGateway_.unread();
    fromGateway_.clear();
    if (!rest.empty()) pass(rest);
}

void Victim::onFlowOfTheGateway(const SplitFlow& split)
{
    if (!std::exchange(isGreeted_, true) && replaces(Moment::Handshake)) return;
    if (isClosing_ && typeOf(split) == FlowType::Close && replaces(Moment::CloseFlow)) return;
    Bytes bytes = standin::encodeFlow(split.flow);
    const std::int32_t messageId = split.flow.header.messageId;
    const auto found = asked_.find(messageId);
    if (found == asked_.end()) return pass(std::move(bytes));
    const Asked asked = std::move(found->second.front());
    found->second.pop_front();
    if (found->second.empty()) asked_.erase(found);
    --waiting_;
    std::optional<Answer> replaced = replacedAnswer(asked.strikes, asked.header);
    misbehaving_.give(connection_, messageId, asked.strikes,
                      replaced ? std::move(*replaced)
                               : spoiledFlow(asked.strikes, std::move(bytes)));
}

// Whether something takes the place of the answer to a handshake or a close flow; it is given then.
bool Victim::replaces(Moment moment)
{
    const std::vector<Strike> strikes = misbehaving_.strike({moment, connection_, 0, {}});
    if (strikes.empty()) return false;
    log("", strikes.front());
    misbehaving_.give(connection_, 0, {}, replacedAnswer(strikes, {}).value_or(Answer()));
    return true;
}

void Victim::pass(Bytes bytes)
{
    misbehaving_.give(connection_, 0, {}, {{std::move(bytes)}, Answer::Then::GoOn, {}});
}

std::size_t Victim::pieceSize()
{
    const std::vector<Strike> strikes = misbehaving_.strike({Moment::Sending, connection_, 0, {}});
    const Strike* const pieces = findStrike(strikes, Fault::Pieces);
    return pieces == nullptr ? 0 : static_cast<std::size_t>(pieces->misbehaviour.number);
}

} // namespace record
