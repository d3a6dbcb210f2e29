// What the threads of the load have in common.
#ifndef LOAD_SHARED_H
#define LOAD_SHARED_H

#include <array>
#include <atomic>
#include <cstddef>
#include <string>

#include "load/connections.h"
#include "load/watch.h"
#include "support/scripted_gateway.h"

namespace load {

// What is counted.
enum class Did {
    Open,
    OpenThatFails,
    Call,
    CallOnClosed,
    Async,
    Collect,
    Unit,
    Password,
    Query,
    Container,
    Bulk,
    Close,
    Purge,
    StaleClose,
    CloseAll,
    Dump,
    Trace,
    Stray,
    Count
};
constexpr std::size_t didCount = static_cast<std::size_t>(Did::Count);
constexpr const char* didNames[didCount] = {"opens",
                                            "opens that failed",
                                            "calls",
                                            "calls refused",
                                            "asynchronous calls",
                                            "collected",
                                            "units of work",
                                            "password calls",
                                            "queries",
                                            "container calls",
                                            "large containers",
                                            "closes",
                                            "purges",
                                            "closes of what was closed",
                                            "closes of all",
                                            "dumps",
                                            "changes of the trace",
                                            "tokens that never were"};

struct Shared {
    Shared(unsigned theSeed, int threads, int thePort, Watch& theWatch)
        : seed(theSeed), port(thePort), watch(theWatch), connections(threads)
    {
    }

    void did(Did what) { counts[static_cast<std::size_t>(what)] += 1; }

    // Closes all connections, in the name of a thread.
    void closeAll(int thread);

    void deleteChannel(int thread, int connection, ECI_ChannelToken_t& channel);

    const unsigned seed;
    const int port; // of the peers
    Watch& watch;
    Connections connections;
    support::RefusingPort refusingPort;
    std::atomic<bool> stopping{false};
    std::atomic<int> nextCall{1}; // a number that no other call has
    std::atomic<int> longWaits{0};
    std::array<std::atomic<long>, didCount> counts{};

private:
    void deleteChannels(int thread, Connection& connection);
};

} // namespace load

#endif
