#include "conversation/recorder.h"

#include <utility>

namespace standin {

template <typename Change>
void Recorder::update(Change change)
{
    {
        const std::lock_guard<std::mutex> guard(lock_);
        change();
    }
    changed_.notify_all();
}

ConnectionRecord* Recorder::recordOf(int connection)
{
    const auto index = static_cast<std::size_t>(connection) - 1;
    return index < connections_.size() ? &connections_[index] : nullptr;
}

void Recorder::connected(int connection, const std::string& peer)
{
    update([&] {
        ++totals_.connections;
        if (!keeping_) return;
        ConnectionRecord record;
        record.number = connection;
        record.peer = peer;
        connections_.push_back(std::move(record));
    });
}

void Recorder::receivedBytes(int connection, const std::uint8_t* bytes, std::size_t count)
{
    update([&] {
        totals_.bytes += count;
        if (ConnectionRecord* record = recordOf(connection)) {
            record->received.insert(record->received.end(), bytes, bytes + count);
        }
    });
}

void Recorder::sentBytes(int connection, const std::uint8_t* bytes, std::size_t count)
{
    update([&] {
        if (ConnectionRecord* record = recordOf(connection)) {
            record->sent.insert(record->sent.end(), bytes, bytes + count);
        }
    });
}

void Recorder::receivedHandshake(int connection, const Handshake& handshake)
{
    update([&] {
        ++totals_.handshakes;
        if (ConnectionRecord* record = recordOf(connection)) record->handshake = handshake;
    });
}

void Recorder::acceptedHandshake(int connection)
{
    update([&] {
        if (ConnectionRecord* record = recordOf(connection)) record->handshakeAccepted = true;
    });
}

void Recorder::receivedRequest(const ReceivedRequest& request)
{
    update([&] {
        ++totals_.requests;
        if (keeping_) requests_.push_back(request);
    });
}

void Recorder::answered()
{
    update([&] { ++totals_.answers; });
}

void Recorder::receivedCloseFlow(int connection)
{
    update([&] {
        ++totals_.closeFlows;
        if (ConnectionRecord* record = recordOf(connection)) record->closeFlowReceived = true;
    });
}

void Recorder::found(Finding finding)
{
    update([&] {
        ++totals_.findings;
        if (keeping_) findings_.push_back(std::move(finding));
    });
}

void Recorder::ended(int connection, Ending ending)
{
    update([&] {
        ++totals_.closed;
        if (ConnectionRecord* record = recordOf(connection)) record->ending = ending;
    });
}

void Recorder::setHeld(std::size_t held)
{
    update([&] { totals_.held = held; });
}

void Recorder::forget()
{
    update([&] {
        totals_.requests = 0;
        totals_.answers = 0;
        totals_.findings = 0;
        totals_.bytes = 0;
        requests_.clear();
        findings_.clear();
        for (ConnectionRecord& record : connections_) {
            record.received.clear();
            record.sent.clear();
        }
    });
}

bool Recorder::await(Counter counter, std::size_t count, std::chrono::milliseconds limit) const
{
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, limit, [&] { return totals_.*counter >= count; });
}

std::size_t Recorder::total(Counter counter) const
{
    const std::lock_guard<std::mutex> guard(lock_);
    return totals_.*counter;
}

std::vector<ConnectionRecord> Recorder::connections() const
{
    const std::lock_guard<std::mutex> guard(lock_);
    return connections_;
}

std::vector<ReceivedRequest> Recorder::requests() const
{
    const std::lock_guard<std::mutex> guard(lock_);
    return requests_;
}

std::vector<Finding> Recorder::findings() const
{
    const std::lock_guard<std::mutex> guard(lock_);
    return findings_;
}

} // namespace standin
