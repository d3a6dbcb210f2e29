// A mixed load of asynchronous calls: many threads, several connections to one stand-in gateway,
// COMMAREAs and channels, all ways of collecting, answers out of order, and connections that the
// gateway drops and the load opens again.
//
//     standin::Gateway gateway;
//     prepareForLoad(gateway, plan.connections);       // of mixed_load_gateway.h
//     MixedLoad load(plan, gateway.port(), [&] { gateway.release(); });
//     load.run();
//     for (const std::string& problem : load.problems()) ...
//
// Every call has a number. It travels in the call's record, which a collecting call gets back
// whatever became of the call, and in its data. So each reply, whoever collects it, is held
// against the one call that it belongs to: collected once, with the result and the contents that
// are due to this call.
//
// Uses the library's exported calls only.
#ifndef SUPPORT_MIXED_LOAD_H
#define SUPPORT_MIXED_LOAD_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace support {

struct LoadPlan {
    int calls = 0;       // in all, a multiple of the connections
    int connections = 0; // each with threads of its own
    int senders = 0;     // threads of a connection that send, and collect in one way or another
    int collectors = 0;  // threads of a connection that only collect
    int drops = 0;       // calls that the gateway answers by dropping their connection
    unsigned seed = 0;   // chooses these calls
};

// What has been collected, by its result, and what happened on the way.
struct LoadCounts {
    int answered = 0;  // 0
    int abended = 0;   // the server's code
    int refused = 0;   // the Gateway's code
    int lost = 0;      // QPX_ERR_LOSTGWCON
    int channels = 0;  // of the answered ones, those with a channel
    int outOfTurn = 0; // collected behind a younger call of the same connection
    int byOthers = 0;  // of the specific replies, those that another thread had taken
    int tooSmall = 0;  // collected in two steps, since the first COMMAREA was too small
    int reopened = 0;  // connections opened again
};

class MixedLoad {
public:
    // The gateway is at that port of 127.0.0.1; release() makes it send what it keeps.
    MixedLoad(const LoadPlan& plan, int port, std::function<void()> release);
    ~MixedLoad();
    MixedLoad(const MixedLoad&) = delete;
    MixedLoad& operator=(const MixedLoad&) = delete;

    // Opens the connections, makes all calls, closes the connections and deletes the channels.
    void run();

    LoadCounts counts() const;

    // Everything that was not as it should be; at most a few dozen lines.
    std::vector<std::string> problems() const;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace support

#endif
