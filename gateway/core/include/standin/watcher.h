// Whoever wants to know of everything that happens on a Gateway, as it happens.
//
// Thread: all functions run on the Gateway's own thread; they must not call back into the Gateway,
// and must not wait.
#ifndef STANDIN_WATCHER_H
#define STANDIN_WATCHER_H

#include <cstdint>
#include <string>
#include <vector>

#include "standin/call_record.h"
#include "standin/records.h"

namespace standin {

// A unit of work behind a change.
struct UnitState {
    enum class Stage { Open, Committed, BackedOut };

    std::int32_t token = 0;
    int connection = 0;
    std::vector<std::string> programs; // that take part, in the order of their first call
    Stage stage = Stage::Open;
};

class Watcher {
public:
    virtual ~Watcher() = default;

    virtual void connectionBegan(int number, const std::string& peer) = 0;
    virtual void handshakeCame(int number, const Handshake& handshake) = 0;
    virtual void connectionEnded(int number, Ending ending) = 0;

    virtual void unitChanged(const UnitState& unit) = 0;

    // A call has come; what has been answered is not known yet. Behind it follows callEnded(), as a
    // CallObserver is told.
    virtual void callBegan(const CallRecord& call) = 0;
    virtual void callEnded(CallRecord call) = 0;
};

} // namespace standin

#endif
