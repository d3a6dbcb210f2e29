// The connections of the load, as its threads share them.
//
// What is known about a connection bounds what a call on it may return. Knowledge is taken before a
// call and after it: a connection that was certainly gone before must be refused, one that nobody
// had begun to close afterwards must not. Everything between is left to the library.
//
// Variables with the tokens of closed connections go on being used, as applications use them: the
// thread that has opened a connection closes it after another has closed all. That is safe as long
// as few connections have been opened since; the load keeps to that (beginUse, mayOpen).
#ifndef LOAD_CONNECTIONS_H
#define LOAD_CONNECTIONS_H

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <vector>

#include "load/connection_plan.h"
#include "qpxclient.h"
#include "qpxclient_eci.h"

namespace load {

// An asynchronous call that nobody has collected yet.
struct Pending {
    Program program = Program::Plain;
    ECI_ChannelToken_t channel = nullptr;
};

struct Connection {
    int number = 0;
    int owner = 0; // the thread that has opened it
    ConnectionPlan plan;
    QPX_ConnToken_t token = nullptr;
    ECI_ChannelToken_t shared = nullptr; // for calls that several threads make with one channel

    std::atomic<bool> endAsked{false};      // a peer has been asked to end it
    std::atomic<int> closesBegun{0};        // by name
    std::atomic<bool> closeReturned{false}; // by name: it is being closed, or gone
    std::atomic<bool> gone{false};          // a close by name has succeeded, and was alone

    std::mutex mutex;
    std::map<int, Pending> pending; // by number of the call; guarded by mutex

    // Of the Connections object, guarded by its mutex.
    long opened = 0;    // when its open returned, in closes of all that have begun
    long openBegan = 0; // when its open began, in closes of all that have ended
    bool maybeFree = false;
    long freeFrom = 0; // with maybeFree: when, in opens, its token may have been freed at first
    long buried = 0;   // when it left the list, in closes of all that have begun
};

using ConnectionPtr = std::shared_ptr<Connection>;

// What is known about a connection at one moment.
struct Knowledge {
    bool closing = false;      // somebody may have begun to close it
    bool closingTwice = false; // more than one may have
    bool refuses = false;      // a close has certainly marked it: it takes no new calls
    bool gone = false;         // it has certainly been freed
    bool ending = false;       // its peer may have ended it
};

class Connections {
public:
    // No more are used at once, so that few tokens are freed at once.
    static constexpr std::size_t most = 12;

    explicit Connections(int threads);

    // ---- Using one ----

    // One of the list, or null; with mine, one that the thread has opened. The use is noted until
    // endUse.
    ConnectionPtr beginUse(int thread, unsigned choice, bool mine);
    void endUse(int thread);

    Knowledge know(const ConnectionPtr& connection) const;

    // ---- Opening and closing ----

    // False while it would be one too many. Otherwise the number of the connection to be.
    bool mayOpen(Connection* connection);
    void add(const ConnectionPtr& connection);
    void noteClose(const ConnectionPtr& connection);
    void remove(const ConnectionPtr& connection);

    // Around a close of all connections. The connections that are certainly gone and that nobody
    // uses any more are handed out at its end.
    long beginCloseAll();
    std::vector<ConnectionPtr> endCloseAll(long begun);

    std::size_t count() const;
    long opens() const;

    // Takes every connection off the list.
    void removeAll();

private:
    struct Use {
        bool under_way = false;
        long since = 0; // when, in opens, the token may have been freed at first
    };

    void removeLocked(std::size_t position);

    mutable std::mutex mutex_;
    std::vector<ConnectionPtr> list_;
    std::vector<ConnectionPtr> buried_;
    std::vector<Use> uses_; // by thread
    long opens_ = 0;
    long allBegun_ = 0;
    long allEnded_ = 0;
    long lastBegunOfEnded_ = 0; // the latest begin of a close of all that has ended
};

} // namespace load

#endif
