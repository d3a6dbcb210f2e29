#include "control/book.h"

#include <algorithm>
#include <utility>

#include "journal/journal_line.h"
#include "json/call_json.h"

namespace control {

using standin::CallRecord;
using standin::Channel;
using standin::UnitState;

namespace {

constexpr std::size_t kLargestWhole = 1024 * 1024; // calls that cost more are cut
constexpr std::size_t kLongestData = 16 * 1024;    // of a container in such a call
constexpr std::size_t kMostContainers = 256;
constexpr std::size_t kForEach = 1024; // what a call costs besides its data

std::size_t costOf(const std::optional<Channel>& channel)
{
    std::size_t cost = 0;
    if (!channel) return cost;
    for (const standin::Container& container : channel->containers)
        cost += container.data.size() + sizeof container;
    return cost;
}

std::size_t costOf(const CallRecord& call)
{
    std::size_t cost = kForEach + call.requestFlow.size() + call.answerFlow.size();
    cost += call.problem.size() + call.exception.size();
    for (const std::string& fault : call.faults) cost += fault.size() + sizeof fault;
    if (call.eci) cost += call.eci->commarea.size() + costOf(call.eci->channel);
    if (call.eciReply) cost += call.eciReply->commarea.size() + costOf(call.eciReply->channel);
    return cost;
}

void cut(std::optional<Channel>& channel)
{
    if (!channel) return;
    std::vector<standin::Container>& containers = channel->containers;
    if (containers.size() > kMostContainers) containers.resize(kMostContainers);
    containers.shrink_to_fit();
    for (standin::Container& container : containers) {
        if (container.data.size() <= kLongestData) continue;
        container.data.resize(kLongestData);
        container.data.shrink_to_fit();
    }
}

} // namespace

Summary summaryOf(const CallRecord& call, bool isUnderWay)
{
    Summary summary;
    summary.number = call.number;
    summary.came = call.came;
    summary.connection = call.connection;
    summary.message = call.header.messageId;
    summary.type = journal::typeOf(call);
    summary.length = call.requestFlow.size();
    summary.isUnderWay = isUnderWay;
    summary.faults = call.faults;
    summary.took = call.took;
    if (call.eci) {
        summary.program = call_json::nameText(call.eci->program);
        summary.user = call_json::nameText(call.eci->userId);
        summary.unit = call.eci->luwToken;
        if (summary.type == "program") summary.mode = call_json::nameOfMode(call.eci->extendMode);
    } else if (call.esi) {
        summary.user = call_json::nameText(call.esi->userId);
    }
    summary.isAnswered = call.flowType.has_value() || call.bytes > 0;
    if (!summary.isAnswered) return summary;
    summary.flow = call.flowType ? journal::nameOfFlow(*call.flowType) : "none";
    summary.gateway = call.gatewayRc;
    if (summary.flow != "reply") return summary;
    if (call.esiReply) summary.code = call.esiReply->vornRc;
    if (call.eciReply) {
        const standin::EciReply& reply = *call.eciReply;
        summary.code = reply.vornRc;
        if (reply.luwToken != 0) summary.unit = reply.luwToken;
        if (reply.vornRc == standin::kServerAbend) {
            summary.abend = call_json::validText(
                std::string(reply.abendCode.data(), reply.abendCode.size()));
        }
    }
    return summary;
}

Book::Book(Limits limits) : limits_(limits) {}

void Book::change(std::uint64_t Version::*part)
{
    ++(version_.*part);
    ++version_.all;
    if (waiting_ > 0) changed_.notify_all();
}

// ----------------------------------------------------------------------------------- the Gateway's

void Book::connectionBegan(int number, const std::string& peer)
{
    Connection connection;
    connection.number = number;
    connection.peer = peer;
    connection.since = Clock::now();
    const std::lock_guard<std::mutex> guard(lock_);
    open_[number] = std::move(connection);
    ++totals_.connectionsEver;
    change(&Version::connections);
}

void Book::handshakeCame(int number, const standin::Handshake& handshake)
{
    const std::lock_guard<std::mutex> guard(lock_);
    const auto found = open_.find(number);
    if (found == open_.end()) return;
    found->second.handshake = handshake;
    change(&Version::connections);
}

void Book::connectionEnded(int number, standin::Ending ending)
{
    const std::lock_guard<std::mutex> guard(lock_);
    const auto found = open_.find(number);
    if (found == open_.end()) return;
    found->second.until = Clock::now();
    found->second.ending = ending;
    ended_.push_back(std::move(found->second));
    open_.erase(found);
    if (ended_.size() > limits_.endedConnections) ended_.pop_front();
    change(&Version::connections);
}

void Book::unitChanged(const UnitState& unit)
{
    const std::lock_guard<std::mutex> guard(lock_);
    const auto connection = open_.find(unit.connection);
    const bool isNew = units_.count(unit.token) == 0;
    if (unit.stage == UnitState::Stage::Open) {
        Unit& kept = units_[unit.token];
        if (isNew) kept.since = Clock::now();
        kept.state = unit;
        if (isNew && connection != open_.end()) ++connection->second.units;
    } else if (!isNew) {
        units_.erase(unit.token);
        if (connection != open_.end()) --connection->second.units;
        ++(unit.stage == UnitState::Stage::Committed ? totals_.committed : totals_.backedOut);
    }
    change(&Version::units);
}

void Book::callBegan(const CallRecord& call)
{
    Summary summary = summaryOf(call, true);
    const std::lock_guard<std::mutex> guard(lock_);
    const auto connection = open_.find(call.connection);
    if (connection != open_.end()) ++connection->second.calls;
    underWay_[call.number] = std::move(summary);
    change(&Version::begun);
}

void Book::callEnded(CallRecord call)
{
    Call kept{std::move(call), false};
    if (costOf(kept.record) > kLargestWhole) {
        if (kept.record.eci) cut(kept.record.eci->channel);
        if (kept.record.eciReply) cut(kept.record.eciReply->channel);
        kept.isCut = true;
    }
    const std::size_t cost = costOf(kept.record);
    const std::uint64_t number = kept.record.number;
    CallPointer pointer = std::make_shared<const Call>(std::move(kept));

    const std::lock_guard<std::mutex> guard(lock_);
    underWay_.erase(number);
    ++totals_.calls;
    change(&Version::ended);
    calls_.push_back({version_.ended, pointer, cost});
    byNumber_[number] = std::move(pointer);
    bytes_ += cost;
    while (calls_.size() > limits_.calls || bytes_ > limits_.bytes) dropOldest();
}

void Book::dropOldest()
{
    bytes_ -= calls_.front().cost;
    byNumber_.erase(calls_.front().call->record.number);
    calls_.pop_front();
}

// --------------------------------------------------------------------------------------- questions

Book::Totals Book::totals() const
{
    const std::lock_guard<std::mutex> guard(lock_);
    Totals totals = totals_;
    totals.connections = open_.size();
    totals.units = units_.size();
    totals.underWay = underWay_.size();
    totals.kept = calls_.size();
    return totals;
}

std::vector<Connection> Book::connections() const
{
    const std::lock_guard<std::mutex> guard(lock_);
    std::vector<Connection> connections;
    for (const auto& [number, connection] : open_) connections.push_back(connection);
    connections.insert(connections.end(), ended_.begin(), ended_.end());
    return connections;
}

std::vector<Unit> Book::units() const
{
    const std::lock_guard<std::mutex> guard(lock_);
    std::vector<Unit> units;
    for (const auto& [token, unit] : units_) units.push_back(unit);
    return units;
}

std::vector<Summary> Book::calls(std::size_t most, std::optional<std::uint64_t> before) const
{
    std::vector<Summary> summaries;
    std::vector<CallPointer> ended;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        const auto end = before ? byNumber_.lower_bound(*before) : byNumber_.end();
        for (auto at = end; at != byNumber_.begin() && ended.size() < most;)
            ended.push_back((--at)->second);
        auto waiting = before ? underWay_.lower_bound(*before) : underWay_.end();
        while (waiting != underWay_.begin() && summaries.size() < most)
            summaries.push_back((--waiting)->second);
    }
    for (const CallPointer& call : ended) summaries.push_back(summaryOf(call->record, false));
    std::sort(summaries.begin(), summaries.end(),
              [](const Summary& one, const Summary& other) { return one.number > other.number; });
    if (summaries.size() > most) summaries.resize(most);
    return summaries;
}

CallPointer Book::call(std::uint64_t number) const
{
    const std::lock_guard<std::mutex> guard(lock_);
    const auto found = byNumber_.find(number);
    return found == byNumber_.end() ? nullptr : found->second;
}

void Book::forgetCalls()
{
    std::deque<Kept> forgotten; // freed without the lock
    std::map<std::uint64_t, CallPointer> numbers;
    const std::lock_guard<std::mutex> guard(lock_);
    calls_.swap(forgotten);
    byNumber_.swap(numbers);
    bytes_ = 0;
    change(&Version::forgotten);
}

// ----------------------------------------------------------------------------------------- changes

Book::Version Book::version() const
{
    const std::lock_guard<std::mutex> guard(lock_);
    return version_;
}

bool Book::awaitChange(const Version& since, std::chrono::milliseconds limit) const
{
    std::unique_lock<std::mutex> guard(lock_);
    ++waiting_;
    changed_.wait_for(guard, limit, [&] { return closed_ || version_.all != since.all; });
    --waiting_;
    return !closed_ && version_.all != since.all;
}

bool Book::pause(std::chrono::milliseconds limit) const
{
    std::unique_lock<std::mutex> guard(lock_);
    return !end_.wait_for(guard, limit, [&] { return closed_; });
}

std::vector<Summary> Book::endedSince(std::uint64_t ended, std::size_t most) const
{
    std::vector<CallPointer> calls;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        for (auto at = calls_.rbegin(); at != calls_.rend() && calls.size() < most; ++at) {
            if (at->position <= ended) break;
            calls.push_back(at->call);
        }
    }
    std::vector<Summary> summaries;
    for (auto at = calls.rbegin(); at != calls.rend(); ++at)
        summaries.push_back(summaryOf((*at)->record, false));
    return summaries;
}

std::vector<Summary> Book::underWay(std::size_t most) const
{
    std::vector<Summary> summaries;
    const std::lock_guard<std::mutex> guard(lock_);
    for (auto at = underWay_.rbegin(); at != underWay_.rend() && summaries.size() < most; ++at)
        summaries.push_back(at->second);
    return summaries;
}

void Book::settingsChanged()
{
    const std::lock_guard<std::mutex> guard(lock_);
    change(&Version::settings);
}

void Book::close()
{
    const std::lock_guard<std::mutex> guard(lock_);
    closed_ = true;
    changed_.notify_all();
    end_.notify_all();
}

} // namespace control
