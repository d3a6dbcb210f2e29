#include "conversation/call_book.h"

#include <algorithm>
#include <utility>

#include "standin/wire.h"

namespace standin {

namespace {

constexpr std::size_t kTypeOffset = 8;
constexpr std::size_t kCodeOffset = 16;

std::int32_t int32At(const Bytes& bytes, std::size_t at)
{
    std::uint32_t value = 0;
    for (std::size_t i = at; i < at + 4; ++i) value = value << 8U | bytes[i];
    return static_cast<std::int32_t>(value);
}

void wipePasswords(CallRecord& record)
{
    if (record.eci) wipe(record.eci->password);
    if (!record.esi) return;
    wipe(record.esi->currentPassword);
    wipe(record.esi->newPassword);
}

} // namespace

void CallBook::begin(const ReceivedRequest& request, const std::string& problem)
{
    if (!observer_ && !arrivals_ && watcher_ == nullptr) return;
    Entry entry;
    entry.came = std::chrono::steady_clock::now();
    CallRecord& record = entry.record;
    record.number = ++lastNumber_;
    record.connection = request.connection;
    record.came = std::chrono::system_clock::now();
    record.header = request.header;
    record.eci = request.eci;
    record.esi = request.esi;
    record.problem = problem;
    wipePasswords(record);
    if (arrivals_) arrivals_(record);
    if (watcher_ != nullptr && request.raw.size() <= kLongestKeptFlow) {
        record.requestFlow = request.raw;
        hidePasswords(record.requestFlow);
    }
    if (watcher_ != nullptr) watcher_->callBegan(record);
    if (observer_ || watcher_ != nullptr) entries_[request.connection].push_back(std::move(entry));
}

CallBook::Entry* CallBook::find(int connection, std::int32_t messageId)
{
    const auto found = entries_.find(connection);
    if (found == entries_.end()) return nullptr;
    for (Entry& entry : found->second) {
        if (entry.record.header.messageId == messageId && !entry.isDecided) return &entry;
    }
    return nullptr;
}

void CallBook::struckBy(int connection, std::int32_t messageId, const std::string& fault)
{
    if (Entry* const entry = find(connection, messageId)) entry->record.faults.push_back(fault);
}

void CallBook::reply(int connection, std::int32_t messageId, const EciReply& reply)
{
    Entry* const entry = find(connection, messageId);
    if (entry == nullptr) return;
    entry->record.eciReply = reply;
    entry->isDecided = true;
}

void CallBook::reply(int connection, std::int32_t messageId, const EsiReply& reply)
{
    Entry* const entry = find(connection, messageId);
    if (entry == nullptr) return;
    entry->record.esiReply = reply;
    entry->isDecided = true;
}

void CallBook::exception(int connection, std::int32_t messageId, const std::string& text)
{
    Entry* const entry = find(connection, messageId);
    if (entry == nullptr) return;
    entry->record.exception = text;
    entry->isDecided = true;
}

void CallBook::answer(int connection, std::int32_t messageId, const std::vector<Bytes>& flows)
{
    const auto found = entries_.find(connection);
    if (found == entries_.end()) return;
    std::list<Entry>& entries = found->second;
    const auto entry = std::find_if(entries.begin(), entries.end(), [&](const Entry& one) {
        return one.record.header.messageId == messageId;
    });
    if (entry == entries.end()) return;
    Entry done = std::move(*entry);
    entries.erase(entry);
    for (const Bytes& flow : flows) done.record.bytes += flow.size();
    if (!flows.empty() && flows.back().size() >= kCodeOffset + 4) {
        done.record.flowType = int32At(flows.back(), kTypeOffset);
        done.record.gatewayRc = int32At(flows.back(), kCodeOffset);
    }
    const bool isKept = watcher_ != nullptr && !flows.empty() &&
                        flows.back().size() <= kLongestKeptFlow;
    if (isKept) done.record.answerFlow = flows.back();
    tell(done);
}

void CallBook::refuse(int connection)
{
    const auto found = entries_.find(connection);
    if (found == entries_.end() || found->second.empty()) return;
    Entry refused = std::move(found->second.back());
    found->second.pop_back();
    tell(refused);
}

void CallBook::endConnection(int connection)
{
    const auto found = entries_.find(connection);
    if (found == entries_.end()) return;
    std::list<Entry> lost = std::move(found->second);
    entries_.erase(found);
    for (Entry& entry : lost) tell(entry);
}

void CallBook::tell(Entry& entry) const
{
    entry.record.took = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - entry.came);
    if (observer_) observer_(entry.record);
    if (watcher_ != nullptr) watcher_->callEnded(std::move(entry.record));
}

} // namespace standin
