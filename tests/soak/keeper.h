// Keeps the daemon running on one port, and ends it when told: by a signal that it takes as the end
// of its work, and by one that it cannot take, in turn.
#ifndef SOAK_KEEPER_H
#define SOAK_KEEPER_H

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

namespace soak {

class Keeper {
public:
    // The folder receives ledger, port and log. The daemon runs when this returns.
    Keeper(std::string daemon, std::string registry, std::string folder);
    ~Keeper();
    Keeper(const Keeper&) = delete;
    Keeper& operator=(const Keeper&) = delete;

    // Ends the daemon and starts it again. Thread: one at a time.
    void restart();

    // Ends the daemon for good, as its work's end.
    void stop();

    int port() const { return port_; }
    int kills() const { return kills_; }

    // Which of its lives the daemon has, counted from 1.
    int life();

    // Returns when the daemon has another life than the one told, or when there is no need for one.
    void awaitLifeBehind(int life, const std::atomic<bool>& stopping);

    // Those who wait look at their flags again.
    void wake();

    std::string ledger() const { return folder_ + "/ledger.db"; }

private:
    void start();
    void end(int signal);
    void awaitPort(int watch);

    const std::string daemon_;
    const std::string registry_;
    const std::string folder_;
    const int port_;
    int kills_ = 0;
    pid_t process_ = -1;
    std::mutex mutex_;
    std::condition_variable changed_;
    int life_ = 0; // guarded by mutex_
};

} // namespace soak

#endif
