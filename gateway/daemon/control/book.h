// What has happened on the Gateway, for whoever asks the control port: the connections, the units
// of work, and the last calls with their data. It is kept here, beside the Gateway, so that no
// question of an HTTP client ever waits for the Gateway's thread, nor that for a client.
//
// Thread: any; one mutex guards everything, and is never held while anything waits.
#ifndef CONTROL_BOOK_H
#define CONTROL_BOOK_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "standin/watcher.h"

namespace control {

using Clock = std::chrono::system_clock;

struct Connection {
    int number = 0;
    std::string peer;
    Clock::time_point since;
    std::optional<standin::Handshake> handshake;
    std::optional<Clock::time_point> until; // nothing: it is open
    standin::Ending ending = standin::Ending::Open;
    std::uint64_t calls = 0;
    std::size_t units = 0; // that are open
};

struct Unit {
    standin::UnitState state;
    Clock::time_point since;
};

// A call in a few words. One that is under way has no answer yet.
struct Summary {
    std::uint64_t number = 0;
    Clock::time_point came;
    int connection = 0;
    std::int32_t message = 0;
    std::string type; // as in the journal
    std::string program;
    std::string user;
    std::string mode;
    std::int32_t unit = 0;
    std::size_t length = 0; // of the request's flow, as far as it is kept
    bool isUnderWay = true;
    bool isAnswered = false;
    std::string flow;
    std::int32_t gateway = 0;
    std::optional<std::int32_t> code;
    std::string abend;
    std::vector<std::string> faults;
    std::chrono::microseconds took{0};
};
Summary summaryOf(const standin::CallRecord& call, bool isUnderWay);

// A call that has ended. `isCut`: its containers were so large that only their beginnings are kept.
struct Call {
    standin::CallRecord record;
    bool isCut = false;
};
using CallPointer = std::shared_ptr<const Call>;

class Book final : public standin::Watcher {
public:
    struct Limits {
        std::size_t calls = 10000;
        std::size_t bytes = 64 * 1024 * 1024; // of all of them
        std::size_t endedConnections = 200;
    };

    explicit Book(Limits limits);

    // ------------------------------------------------------------------------------- the Gateway's

    void connectionBegan(int number, const std::string& peer) override;
    void handshakeCame(int number, const standin::Handshake& handshake) override;
    void connectionEnded(int number, standin::Ending ending) override;
    void unitChanged(const standin::UnitState& unit) override;
    void callBegan(const standin::CallRecord& call) override;
    void callEnded(standin::CallRecord call) override;

    // ----------------------------------------------------------------------------------- questions

    struct Totals {
        std::size_t connections = 0; // that are open
        std::uint64_t connectionsEver = 0;
        std::size_t units = 0; // that are open
        std::uint64_t committed = 0;
        std::uint64_t backedOut = 0;
        std::uint64_t calls = 0; // that have ended
        std::size_t underWay = 0;
        std::size_t kept = 0;
    };
    Totals totals() const;

    // The open ones, and behind them those that ended last, each in the order of their numbers.
    std::vector<Connection> connections() const;
    std::vector<Unit> units() const;

    // Those under way, and the last that have ended, the newest first: at most `most`, and with
    // `before` only older ones.
    std::vector<Summary> calls(std::size_t most, std::optional<std::uint64_t> before) const;

    // Null: it is not known, or not any more, or still under way.
    CallPointer call(std::uint64_t number) const;

    // Forgets all calls that have ended.
    void forgetCalls();

    // ------------------------------------------------------------------------------------- changes

    // How often each part has changed. Calls are counted as they end.
    struct Version {
        std::uint64_t all = 0;
        std::uint64_t connections = 0;
        std::uint64_t units = 0;
        std::uint64_t begun = 0;
        std::uint64_t ended = 0;
        std::uint64_t settings = 0; // faults, scripts, what is held
        std::uint64_t forgotten = 0;
    };
    Version version() const;

    // Waits until something has changed since; false when the limit has passed first or the book
    // has been closed.
    bool awaitChange(const Version& since, std::chrono::milliseconds limit) const;

    // Waits for the limit, or until the book is closed. False when it is.
    bool pause(std::chrono::milliseconds limit) const;

    // The calls that have ended since that version, the oldest first: the last `most` of them.
    std::vector<Summary> endedSince(std::uint64_t ended, std::size_t most) const;

    // Those under way.
    std::vector<Summary> underWay(std::size_t most) const;

    // Somebody has changed a setting.
    void settingsChanged();

    // Nobody waits any more.
    void close();

private:
    struct Kept {
        std::uint64_t position = 0; // how many had ended with it
        CallPointer call;
        std::size_t cost = 0;
    };

    void change(std::uint64_t Version::*part);
    void dropOldest();

    const Limits limits_;
    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    mutable std::condition_variable end_; // by itself, so that no change wakes whoever pauses
    mutable std::size_t waiting_ = 0;     // for a change
    bool closed_ = false;
    Version version_;
    Totals totals_;
    std::map<int, Connection> open_;
    std::deque<Connection> ended_;
    std::map<std::int32_t, Unit> units_; // by token
    std::map<std::uint64_t, Summary> underWay_;
    std::deque<Kept> calls_; // in the order of their ends
    std::map<std::uint64_t, CallPointer> byNumber_;
    std::size_t bytes_ = 0;
};

} // namespace control

#endif
