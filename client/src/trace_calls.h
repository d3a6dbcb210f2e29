// What the lines of a trace tell: calls of the application, their connections, and where time went.
#ifndef QPX_TRACE_CALLS_H
#define QPX_TRACE_CALLS_H

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "trace_line.h"

namespace qpx {

constexpr std::int64_t kUnknownTime = -1;

// A line of a time line.
struct TracedEvent {
    std::int64_t time = 0;
    unsigned long thread = 0;
    std::string what;
    std::vector<std::string> dump;
};

struct TracedCall {
    unsigned number = 0;
    unsigned long process = 0;
    unsigned long thread = 0;
    unsigned connection = 0; // its number, 0 if it is not known
    std::string
        function;     // "QPX_ECI_Execute"; "" where the level tells no more than that there is one
    std::string what; // "call ECHO"
    bool talks = false; // it is of a connection, not of the library alone
    bool ended = false; // its EXIT is there
    bool asynchronous = false;
    bool collects = false;             // the reply of another
    bool told = false;                 // that nothing more comes of it
    std::int64_t begin = kUnknownTime; // not known if its ENTRY is missing
    std::int64_t end = kUnknownTime;
    std::int64_t sent = kUnknownTime;
    std::int64_t answered = kUnknownTime;
    std::optional<int> rc; // some calls have none
    std::string rcName;
    std::string abendCode;
    int messageId = 0;                 // of the request, 0 if it is not known
    std::vector<std::string> failures; // *EXC* lines

    bool failed() const { return rc && *rc != 0; }
    std::int64_t total() const { return ended && begin >= 0 ? end - begin : kUnknownTime; }
    std::int64_t atGateway() const
    {
        return sent >= 0 && answered >= 0 ? answered - sent : kUnknownTime;
    }
    // An asynchronous call does not wait for the Gateway, and one that collects waits for nothing
    // else.
    std::int64_t inLibrary() const
    {
        if (collects || function.empty() || total() < 0) return kUnknownTime;
        if (asynchronous || sent < 0) return total();
        return atGateway() < 0 ? kUnknownTime : total() - atGateway();
    }
};

struct TracedConnection {
    unsigned number = 0;
    unsigned long process = 0;
    std::string token;
    std::string place; // "127.0.0.1:5770", "" if it is not known
    std::string socket;
    unsigned long receiver = 0; // thread, 0 if it is not known
    std::int64_t opened = kUnknownTime;
    std::int64_t closed = kUnknownTime;
    std::string closing; // "by API, QPX_ERR_GWTOK_CLOSED"
    unsigned calls = 0;
    unsigned failed = 0;
    std::vector<TracedEvent> events; // of the one that is looked at

    std::vector<unsigned> waiting;  // calls whose reply has not come
    std::size_t unknownReplies = 0; // that may be of any of these
};

class TraceCalls {
public:
    // Which time lines to keep, 0 for none.
    void watchCall(unsigned number) { watchedCall_ = number; }
    void watchConnection(unsigned number) { watchedConnection_ = number; }

    // Called for each call when nothing of it is to come any more.
    void onEnd(std::function<void(const TracedCall&)> tell) { tell_ = std::move(tell); }

    void add(const TraceLine& line);

    // No more lines come.
    void finish();

    const std::deque<TracedCall>& calls() const { return calls_; }
    const std::deque<TracedConnection>& connections() const { return connections_; }

    // *EXC* lines that are of no call.
    const std::vector<TracedEvent>& strays() const { return strays_; }
    const std::vector<TracedEvent>& timeLine() const { return timeLine_; }

private:
    using Thread = std::pair<unsigned long, unsigned long>; // process and thread

    struct ThreadState {
        std::vector<unsigned> open; // calls, the innermost last
        unsigned receives = 0;      // the connection whose receiver it is
        std::int64_t arrived = kUnknownTime;
        unsigned answered = 0;          // the call whose reply is being read
        std::vector<TracedEvent> block; // lines about the reply so far
        std::string place, socket;      // of what is being connected
    };

    TracedCall& call(unsigned number) { return calls_[number - 1]; }
    TracedConnection& connection(unsigned number) { return connections_[number - 1]; }

    void beginCall(const TraceLine& line, ThreadState& thread);
    void beginUnnamedCall(const TraceLine& line, ThreadState& thread);
    void endCall(const TraceLine& line, ThreadState& thread);
    void closeCall(TracedCall& ended, const TraceLine& line, ThreadState& thread);
    void lookAtCall(const TraceLine& line, TracedCall& current);
    void lookAtRecord(const TraceLine& line, TracedCall& current);
    void lookAtConnecting(const TraceLine& line, ThreadState& thread);
    void lookAtReceiver(const TraceLine& line, ThreadState& thread);
    void noteFailure(const TraceLine& line, ThreadState& thread);
    void keepForWatchedCall(const TraceLine& line, ThreadState& thread);

    void keepDump(const TraceLine& line, const ThreadState& thread);

    unsigned newConnection(const TraceLine& line, const std::string& token);
    unsigned connectionOf(const TraceLine& line, const std::string& token);
    void giveConnection(const TraceLine& line, TracedCall& current, const std::string& token);
    void send(TracedCall& current, std::int64_t time);
    void answer(TracedConnection& at, ThreadState& receiver, TracedCall& answered);
    void match(const TraceLine& line, ThreadState& receiver, int messageId);
    void forget(TracedConnection& at);
    void tell(TracedCall& ended);
    void event(unsigned connection, std::int64_t time, unsigned long thread,
               const std::string& what);

    unsigned watchedCall_ = 0;
    unsigned watchedConnection_ = 0;
    std::function<void(const TracedCall&)> tell_;
    std::deque<TracedCall> calls_;
    std::deque<TracedConnection> connections_;
    std::map<Thread, ThreadState> threads_;
    std::map<std::pair<unsigned long, std::string>, unsigned> tokens_; // the latest of each
    std::map<std::pair<unsigned long, std::string>, unsigned> tables_; // of requests, the same
    std::vector<TracedEvent> strays_;
    std::vector<TracedEvent> timeLine_;
};

// "*EXC*  [1506] text"
std::string shortLine(const TraceLine& line);

} // namespace qpx

#endif
