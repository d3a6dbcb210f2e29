// What has happened on a Gateway so far: totals to wait for, and copies of what went over the wire.
//
// Thread: any; one mutex guards everything.
#ifndef STANDIN_RECORDER_H
#define STANDIN_RECORDER_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "standin/records.h"

namespace standin {

struct Totals {
    std::size_t connections = 0;
    std::size_t handshakes = 0;
    std::size_t requests = 0;
    std::size_t answers = 0;
    std::size_t closeFlows = 0;
    std::size_t closed = 0;
    std::size_t findings = 0;
    std::size_t bytes = 0;
    std::size_t held = 0; // at this moment
};

class Recorder {
public:
    using Counter = std::size_t Totals::*;

    // Without keeping, only the totals are counted.
    explicit Recorder(bool keeping) : keeping_(keeping) {}

    void connected(int connection, const std::string& peer);
    void receivedBytes(int connection, const std::uint8_t* bytes, std::size_t count);
    void sentBytes(int connection, const std::uint8_t* bytes, std::size_t count);
    void receivedHandshake(int connection, const Handshake& handshake);
    void acceptedHandshake(int connection);
    void receivedRequest(const ReceivedRequest& request);
    void answered();
    void receivedCloseFlow(int connection);
    void found(Finding finding);
    void ended(int connection, Ending ending);
    void setHeld(std::size_t held);
    void forget();

    bool await(Counter counter, std::size_t count, std::chrono::milliseconds limit) const;
    std::size_t total(Counter counter) const;

    std::vector<ConnectionRecord> connections() const;
    std::vector<ReceivedRequest> requests() const;
    std::vector<Finding> findings() const;

private:
    // Changes something under the lock and wakes whoever waits.
    template <typename Change>
    void update(Change change);

    // The record of a connection, or null when nothing is kept. Needs the lock.
    ConnectionRecord* recordOf(int connection);

    const bool keeping_;
    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    Totals totals_;
    std::vector<ConnectionRecord> connections_; // number n is element n - 1
    std::vector<ReceivedRequest> requests_;
    std::vector<Finding> findings_;
};

} // namespace standin

#endif
