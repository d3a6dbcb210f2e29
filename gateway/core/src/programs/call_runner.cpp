#include "programs/call_runner.h"

#include <algorithm>
#include <exception>
#include <functional>
#include <limits>
#include <utility>

#include "codec/printable.h"

namespace standin {

namespace {

const char* const kProgramNotFound = "AEI0";

std::string unitText(std::int32_t token)
{
    return "unit of work " + std::to_string(token);
}

} // namespace

CallRunner::CallRunner(LogSink log, std::size_t mostUnits)
    : log_(std::move(log)), mostUnits_(mostUnits)
{
    programs_["ECHO"] = makeEcho();
    programs_["ABEND"] = makeAbend();
    programs_["CHANECHO"] = makeChannelEcho();
    programs_["CHANEDIT"] = makeChannelEdit();
}

void CallRunner::setProgram(const std::string& name, std::shared_ptr<Program> program)
{
    programs_[name] = std::move(program);
}

void CallRunner::setListReply(ReplyFunction reply)
{
    listReply_ = std::move(reply);
}

// ------------------------------------------------------------------------------------------- calls

void CallRunner::run(const EciRequest& request, std::int32_t messageId, int connection, bool failed,
                     const Deliver& deliver, const std::function<Later()>& later)
{
    if (request.callType == kCallListSystems) {
        deliver(listReply_(request));
    } else if (request.endsUnitOfWork()) {
        deliver(endUnit(request, connection));
    } else if (request.extendMode == kModeSingle) {
        runProgram(request, messageId, connection, failed, nullptr, deliver, later);
    } else if (request.luwToken == 0 && units_.size() >= mostUnits_) {
        log(LogLevel::Error, std::to_string(mostUnits_) + " units of work are open; connection " +
                                 std::to_string(connection) + " gets no other");
        deliver(EciReply::serverError(request, kServerResourceShortage));
    } else if (request.luwToken == 0) {
        runInUnit(request, messageId, connection, failed, openUnit(connection), deliver, later);
    } else if (findUnit(request.luwToken, connection) != nullptr) {
        runInUnit(request, messageId, connection, failed, request.luwToken, deliver, later);
    } else {
        log(LogLevel::Warning, unitText(request.luwToken) + " is not open on connection " +
                                   std::to_string(connection));
        deliver(EciReply::serverError(request, kServerUnknownToken));
    }
}

void CallRunner::runInUnit(const EciRequest& request, std::int32_t messageId, int connection,
                           bool failed, std::int32_t token, const Deliver& deliver,
                           const std::function<Later()>& later)
{
    try {
        runProgram(request, messageId, connection, failed, findUnit(token, connection), deliver,
                   later);
    } catch (...) {
        // The call's outcome is unknown, so its unit of work cannot stand.
        backOut(token);
        throw;
    }
}

void CallRunner::giveUp(std::int32_t token, int connection)
{
    if (findUnit(token, connection) != nullptr) backOut(token);
}

void CallRunner::runProgram(const EciRequest& request, std::int32_t messageId, int connection,
                            bool failed, OpenUnit* unit, const Deliver& deliver,
                            const std::function<Later()>& later)
{
    const std::int32_t unitToken = unit != nullptr ? unit->id.token : 0;
    const auto finish = [&](EciReply reply) {
        deliver(settle(std::move(reply), failed, request.luwToken, unitToken));
    };

    ProgramCall call{request, messageId, connection, std::nullopt, nullptr};
    if (unit != nullptr) call.unitOfWork = unit->id;
    const std::shared_ptr<Program> program = findProgram(call);
    if (program == nullptr) {
        log(LogLevel::Warning, "program \"" + printable(request.program) + "\" is not there");
        return finish(EciReply::abend(request, kProgramNotFound));
    }

    if (unit != nullptr) {
        const std::int32_t refused = enlist(*unit, request.program, program);
        if (refused != kServerOk) return finish(EciReply::serverError(request, refused));
    }
    const auto answerLater = [&] {
        const auto finishLater = [this, deliver, failed, unitToken,
                                  requestToken = request.luwToken](EciReply reply) {
            deliver(settle(std::move(reply), failed, requestToken, unitToken));
        };
        return PendingReply([finishLater, way = later()](EciReply reply) {
            way([finishLater, answer = std::move(reply)] { finishLater(answer); });
        });
    };
    call.answerLater = std::cref(answerLater);

    std::optional<EciReply> reply = program->call(call);
    if (reply) finish(std::move(*reply));
}

EciReply CallRunner::settle(EciReply reply, bool failed, std::int32_t requestToken,
                            std::int32_t unitToken)
{
    if (unitToken == 0) return reply;
    failed = failed || reply.vornRc != kServerOk || reply.gatewayRc != kGatewayOk;
    if (failed) backOut(unitToken);
    if (reply.luwToken == requestToken)
        reply.luwToken = units_.count(unitToken) != 0 ? unitToken : 0;
    return reply;
}

EciReply CallRunner::endUnit(const EciRequest& request, int connection)
{
    OpenUnit* unit = findUnit(request.luwToken, connection);
    if (unit == nullptr) {
        log(LogLevel::Warning, unitText(request.luwToken) + " is not open on connection " +
                                   std::to_string(connection));
        return EciReply::serverError(request, kServerUnknownToken);
    }

    EciReply reply = EciReply::to(request);
    reply.luwToken = 0;
    if (request.extendMode == kModeBackout) {
        backOut(request.luwToken);
        return reply;
    }
    try {
        reply.vornRc = commitMembers(*unit);
    } catch (...) {
        backOut(request.luwToken);
        throw;
    }
    const bool isCommitted = reply.vornRc == kServerOk;
    if (isCommitted) log(LogLevel::Info, unitText(request.luwToken) + " is committed");
    tell(*unit, isCommitted ? UnitState::Stage::Committed : UnitState::Stage::BackedOut);
    forgetUnit(request.luwToken);
    return reply;
}

std::shared_ptr<Program> CallRunner::findProgram(const ProgramCall& call) const
{
    if (first_ != nullptr && first_->takes(call)) return first_;
    const auto found = programs_.find(call.request.program);
    return found == programs_.end() ? nullptr : found->second;
}

// ----------------------------------------------------------------------------------- units of work

CallRunner::OpenUnit* CallRunner::findUnit(std::int32_t token, int connection)
{
    const auto found = units_.find(token);
    if (found == units_.end() || found->second.id.connection != connection) return nullptr;
    return &found->second;
}

std::int32_t CallRunner::openUnit(int connection)
{
    do {
        lastToken_ = lastToken_ == std::numeric_limits<std::int32_t>::max() ? 1 : lastToken_ + 1;
    } while (units_.count(lastToken_) != 0);

    OpenUnit& unit = units_[lastToken_];
    unit.id = UnitOfWork{lastToken_, connection};
    openCount_ = units_.size();
    log(LogLevel::Info,
        unitText(lastToken_) + " is opened by connection " + std::to_string(connection));
    tell(unit, UnitState::Stage::Open);
    return lastToken_;
}

std::int32_t CallRunner::enlist(OpenUnit& unit, const std::string& name,
                                const std::shared_ptr<Program>& program)
{
    for (const auto& [memberName, member] : unit.members) {
        if (memberName == name && member == program) return program->resume(unit.id);
    }
    const std::int32_t rc = program->begin(unit.id);
    if (rc != kServerOk) return rc;
    unit.members.emplace_back(name, program);
    tell(unit, UnitState::Stage::Open);
    return rc;
}

// The first program that cannot commit decides: what has not been committed by then is backed out.
std::int32_t CallRunner::commitMembers(OpenUnit& unit)
{
    std::int32_t rc = kServerOk;
    for (const auto& [name, program] : unit.members) {
        if (rc == kServerOk) {
            rc = program->commit(unit.id);
            if (rc == kServerOk) continue;
            log(LogLevel::Error, unitText(unit.id.token) + ": program " + name +
                                     " cannot commit, vornRc=" + std::to_string(rc));
        }
        program->backout(unit.id);
    }
    return rc;
}

// The unit is gone whatever its programs do about it.
void CallRunner::backOut(std::int32_t token)
{
    const auto found = units_.find(token);
    if (found == units_.end()) return;
    const OpenUnit unit = std::move(found->second);
    forgetUnit(token);
    tell(unit, UnitState::Stage::BackedOut);
    for (const auto& [name, program] : unit.members) {
        try {
            program->backout(unit.id);
        } catch (const std::exception& failure) {
            log(LogLevel::Error, unitText(token) + ": program " + name +
                                     " cannot back out: " + printable(failure.what()));
        }
    }
    log(LogLevel::Info, unitText(token) + " is backed out");
}

void CallRunner::forgetUnit(std::int32_t token)
{
    units_.erase(token);
    openCount_ = units_.size();
}

void CallRunner::connectionLost(int connection)
{
    std::vector<std::int32_t> tokens;
    for (const auto& [token, unit] : units_) {
        if (unit.id.connection == connection) tokens.push_back(token);
    }
    for (const std::int32_t token : tokens) backOut(token);
}

void CallRunner::connectionEnded(int connection)
{
    if (first_ != nullptr) first_->connectionEnded(connection);
}

void CallRunner::tell(const OpenUnit& unit, UnitState::Stage stage) const
{
    if (watcher_ == nullptr) return;
    UnitState state{unit.id.token, unit.id.connection, {}, stage};
    for (const auto& [name, program] : unit.members) state.programs.push_back(name);
    watcher_->unitChanged(state);
}

void CallRunner::log(LogLevel level, const std::string& line) const
{
    if (log_) log_(level, line);
}

} // namespace standin
