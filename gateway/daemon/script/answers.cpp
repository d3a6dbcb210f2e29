#include "script/answers.h"

#include <algorithm>
#include <exception>

#include "log/log_text.h"
#include "registry/password_hash.h"
#include "standin/channel_changes.h"

namespace script {

using standin::Bytes;
using standin::EciReply;
using standin::LogLevel;
using standin::PendingReply;

namespace {

bool fits(const std::vector<Condition>& conditions, const State& state)
{
    return std::all_of(conditions.begin(), conditions.end(), [&](const Condition& condition) {
        const auto found = state.find(condition.name);
        const std::string value = found == state.end() ? "" : found->second;
        return std::find(condition.values.begin(), condition.values.end(), value) !=
               condition.values.end();
    });
}

void set(State& state, const std::vector<Setting>& settings, const Situation& situation)
{
    std::vector<std::string> values;
    for (const Setting& setting : settings) {
        const Bytes bytes = setting.value.fill(situation);
        values.emplace_back(bytes.begin(), bytes.end());
    }
    for (std::size_t i = 0; i < values.size(); ++i) state[settings[i].name] = std::move(values[i]);
}

Bytes withPieces(Bytes commarea, const std::vector<Piece>& pieces, const Situation& situation)
{
    for (const Piece& piece : pieces) {
        const Bytes bytes = piece.content.fill(situation);
        if (piece.at >= commarea.size()) continue;
        const std::size_t count = std::min(bytes.size(), commarea.size() - piece.at);
        std::copy_n(bytes.begin(), count, commarea.begin() + static_cast<std::ptrdiff_t>(piece.at));
    }
    return commarea;
}

const State& stateIn(const std::map<std::int32_t, State>& states, std::int32_t unit)
{
    static const State none;
    const auto found = states.find(unit);
    return found == states.end() ? none : found->second;
}

} // namespace

// A password on its way to where it is looked at.
struct Answers::Secret {
    explicit Secret(std::string text) : password(std::move(text)) {}
    ~Secret() { standin::wipe(password); }

    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;

    std::string password;
    bool isRight = false;
};

Answers::Answers(std::shared_ptr<const Script> script, standin::LogSink log)
    : script_(std::move(script)), log_(std::move(log)), chance_(script_->seed)
{
}

std::shared_ptr<const Script> Answers::replace(std::shared_ptr<const Script> script)
{
    positions_.clear();
    matches_.clear();
    counters_.clear();
    chance_.seed(script->seed);
    return std::exchange(script_, std::move(script));
}

std::vector<Answers::RuleState> Answers::state() const
{
    std::vector<RuleState> state;
    for (const Rule& rule : script_->rules) {
        const auto found = matches_.find(&rule);
        state.push_back(
            {rule.line, rule.match.describe(), found == matches_.end() ? 0 : found->second});
    }
    return state;
}

// ---------------------------------------------------------------------------------- which answer

bool Answers::takes(const standin::ProgramCall& call)
{
    for (const Rule& rule : script_->rules) {
        if (!rule.match.fits(call.request)) continue;
        Turn turn;
        turn.connection = call.connection;
        turn.unit = call.unitOfWork ? call.unitOfWork->token : 0;
        if (isMet(rule, turn)) return true;
    }
    return false;
}

const Rule* Answers::ruleFor(const Turn& turn) const
{
    for (const Rule& rule : script_->rules) {
        if (rule.match.fits(turn.request) && isMet(rule, turn)) return &rule;
    }
    return nullptr;
}

// A unit of work that ends with its call has kept nothing.
bool Answers::isMet(const Rule& rule, const Turn& turn) const
{
    static const Kept nothing;
    const auto found = kept_.find(turn.connection);
    const Kept& kept = found == kept_.end() ? nothing : found->second;
    if (!fits(rule.ifConnection, kept.ofConnection)) return false;
    if (!fits(rule.ifUnit, stateIn(kept.ofUnits, turn.unit))) return false;
    if (!rule.times) return true;
    const auto position = positions_.find(keyOf(rule, turn));
    return position == positions_.end() || position->second.calls < *rule.times;
}

Answers::PositionKey Answers::keyOf(const Rule& rule, const Turn& turn) const
{
    switch (rule.per) {
    case Per::Script: break;
    case Per::Connection: return {&rule, turn.connection};
    case Per::Unit: return {&rule, turn.unit};
    }
    return {&rule, 0};
}

const Answer& Answers::nextAnswer(const Rule& rule, Position& position) const
{
    ++position.calls;
    if (position.inARow == rule.answers[position.answer].times) {
        const bool isLast = position.answer + 1 == rule.answers.size();
        if (!isLast) {
            ++position.answer;
            position.inARow = 0;
        } else if (rule.again) {
            position.answer = 0;
            position.inARow = 0;
        } else {
            --position.inARow;
        }
    }
    ++position.inARow;
    return rule.answers[position.answer];
}

// --------------------------------------------------------------------------------------- answers

std::optional<EciReply> Answers::call(const standin::ProgramCall& call)
{
    Turn turn{call.request, call.connection, call.messageId,
              call.unitOfWork ? call.unitOfWork->token : 0};
    const auto secret = std::make_shared<Secret>(turn.request.password);
    standin::wipe(turn.request.password);
    const Rule* const rule = ruleFor(turn);
    if (rule == nullptr) return EciReply::serverError(call.request, standin::kServerSystemError);
    const auto user = script_->users.find(turn.request.userId);
    if (user == script_->users.end()) return answer(*rule, turn, call.answerLater);
    checkPassword(std::move(turn), secret, user->second, call.answerLater());
    return std::nullopt;
}

void Answers::checkPassword(Turn turn, const std::shared_ptr<Secret>& secret,
                            const std::string& hash, const PendingReply& pending)
{
    kept_[turn.connection]; // as long as it is there, so is the connection
    const auto held = std::make_shared<const Turn>(std::move(turn));
    const auto work = [secret, hash] {
        secret->isRight = registry::matches(secret->password, hash);
        standin::wipe(secret->password);
    };
    const auto then = [this, secret, held, pending] {
        answerBehindPassword(*held, secret->isRight, pending);
    };
    if (aside_ == nullptr) {
        work();
        then();
    } else if (!aside_(work, then)) {
        log(LogLevel::Error, *held, "too many passwords wait to be looked at");
        pending.complete(EciReply::serverError(held->request, standin::kServerResourceShortage));
    }
}

void Answers::answerBehindPassword(const Turn& turn, bool isRight, const PendingReply& pending)
{
    if (kept_.count(turn.connection) == 0) return; // it has ended meanwhile
    if (!isRight) {
        log(LogLevel::Warning, turn, "the password of " + turn.request.userId + " is wrong");
        return pending.complete(EciReply::serverError(turn.request, kSecurityError));
    }
    const Rule* const rule = ruleFor(turn); // another call may have come in between
    if (rule == nullptr)
        return pending.complete(EciReply::serverError(turn.request, standin::kServerSystemError));
    try {
        std::optional<EciReply> reply = answer(*rule, turn, [&pending] { return pending; });
        if (reply) pending.complete(std::move(*reply));
    } catch (const std::exception& failure) {
        log(LogLevel::Error, turn, failure.what());
        pending.complete(EciReply::serverError(turn.request, standin::kServerSystemError));
    }
}

std::optional<EciReply> Answers::answer(const Rule& rule, const Turn& turn,
                                        const std::function<PendingReply()>& later)
{
    ++matches_[&rule];
    // Without a unit of work there is no place to keep anything for one.
    Position ofNoUnit;
    const bool isKept = rule.per != Per::Unit || turn.unit != 0;
    Position& position = isKept ? positions_[keyOf(rule, turn)] : ofNoUnit;
    const Answer& given = nextAnswer(rule, position);

    Kept& kept = kept_[turn.connection];
    const State& ofUnit = stateIn(kept.ofUnits, turn.unit);
    const Situation situation{turn.request,   turn.connection, turn.message,      turn.unit,
                              position.calls, counters_,       kept.ofConnection, ofUnit};
    log(LogLevel::Info, turn, "is answered by line " + std::to_string(rule.line));
    State changedConnection = kept.ofConnection;
    State changedUnit = ofUnit;
    set(changedConnection, rule.setConnection, situation);
    set(changedUnit, rule.setUnit, situation);
    std::optional<EciReply> reply = carryOut(given, situation, turn, later);
    kept.ofConnection = std::move(changedConnection);
    if (turn.unit != 0 && !changedUnit.empty()) kept.ofUnits[turn.unit] = std::move(changedUnit);
    return reply;
}

std::optional<EciReply> Answers::carryOut(const Answer& answer, const Situation& situation,
                                          const Turn& turn,
                                          const std::function<PendingReply()>& later)
{
    const std::chrono::microseconds delay = answer.delay ? answer.delay->next(chance_)
                                                         : std::chrono::microseconds(0);
    if (answer.exec != nullptr) {
        const PendingReply pending = later();
        const bool isTaken = answer.exec->give(
            {turn.request, turn.connection, turn.message, turn.unit},
            [pending, delay, faults = answer.faults](EciReply reply) {
                reply.delay = delay;
                reply.faults.insert(reply.faults.begin(), faults.begin(), faults.end());
                pending.complete(std::move(reply));
            });
        if (!isTaken)
            pending.complete(EciReply::serverError(turn.request, standin::kServerResourceShortage));
        return std::nullopt;
    }

    const standin::EciRequest& request = turn.request;
    EciReply reply = EciReply::to(request);
    if (answer.commarea) {
        reply = EciReply::withCommarea(request, answer.commarea->fill(situation));
    } else if (!answer.pieces.empty()) {
        reply = EciReply::withCommarea(
            request, withPieces(request.commareaAsSeenByProgram(), answer.pieces, situation));
    }
    reply.vornRc = answer.code;
    reply.gatewayRc = answer.gateway;
    reply.delay = delay;
    reply.faults = answer.faults;
    if (answer.abend)
        std::copy(answer.abend->begin(), answer.abend->end(), reply.abendCode.begin());
    if (!changeContainers(reply, answer, situation)) {
        reply = EciReply::abend(request, standin::kNoChannel);
        reply.delay = delay;
    }
    return reply;
}

// False when there are containers to answer with, and no channel.
bool Answers::changeContainers(EciReply& reply, const Answer& answer,
                               const Situation& situation) const
{
    const auto& called = situation.request.channel;
    if (!called) return answer.containers.empty();
    if (reply.vornRc != standin::kServerOk && answer.containers.empty()) return true;
    standin::ChannelChanges changes(*called);
    for (const ContainerAnswer& one : answer.containers) {
        if (!one.content) {
            changes.remove(one.name);
            continue;
        }
        const bool isText = one.content->isText();
        changes.put({one.name, standin::Change::Added,
                     isText ? standin::kContainerChar : standin::kContainerBit,
                     isText ? one.content->ccsid() : 0, one.content->fill(situation),
                     std::nullopt});
    }
    reply.channel = changes.records();
    return true;
}

// -------------------------------------------------------------------------------------- endings

std::int32_t Answers::commit(const standin::UnitOfWork& unit)
{
    forget(unit);
    return standin::kServerOk;
}

void Answers::backout(const standin::UnitOfWork& unit)
{
    forget(unit);
}

void Answers::forget(const standin::UnitOfWork& unit)
{
    const auto found = kept_.find(unit.connection);
    if (found != kept_.end()) found->second.ofUnits.erase(unit.token);
    for (const Rule& rule : script_->rules) {
        if (rule.per == Per::Unit) positions_.erase({&rule, unit.token});
    }
}

void Answers::connectionEnded(int connection)
{
    kept_.erase(connection);
    for (const Rule& rule : script_->rules) {
        if (rule.per == Per::Connection) positions_.erase({&rule, connection});
    }
}

void Answers::log(LogLevel level, const Turn& turn, const std::string& text) const
{
    if (!log_) return;
    log_(level, "script: connection " + std::to_string(turn.connection) + ", request " +
                    std::to_string(turn.message) + " " + log_text::printable(text));
}

} // namespace script
