// Answers the requests to a Gateway from a recording.
//
// Thread: the Gateway's own, except for the constructor, and report(), which comes behind the
// Gateway's end.
#ifndef GATEWAY_REPLAY_H
#define GATEWAY_REPLAY_H

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "replay/recorded.h"
#include "standin/gateway.h"
#include "standin/log.h"

namespace replay {

struct Manner {
    bool inOrder = false; // as recorded: each connection's requests one behind the other
    bool atRecordedSpeed = false;
};

class Replay {
public:
    // Throws as readFolder() does.
    Replay(const std::string& folder, Manner manner, standin::LogSink log);

    Replay(const Replay&) = delete;
    Replay& operator=(const Replay&) = delete;

    // From now on the Gateway answers from the recording; it ends before this does.
    void serve(standin::Gateway& gateway);

    // How many requests had an answer, and how many had none, into the log.
    void report() const;

private:
    // The exchanges that answer one kind of request, in their order.
    struct Line {
        std::vector<const Exchange*> exchanges;
        std::size_t next = 0;
    };

    using Flows = std::vector<standin::RawFlow>;

    Flows answer(const standin::ReceivedRequest& request);
    const Exchange* findInOrder(int connection, const std::string& key);
    const Exchange* findAnywhere(const std::string& key);
    Flows refuse(const standin::ReceivedRequest& request);

    const std::vector<Connection> connections_;
    const Manner manner_;
    const standin::LogSink log_;
    std::map<std::string, Line> byKey_;
    std::map<int, std::size_t> places_; // in each connection
    std::size_t recorded_ = 0;
    std::size_t asked_ = 0;
    std::size_t unanswered_ = 0;
    std::size_t again_ = 0; // answered by what had answered before
};

} // namespace replay

#endif
