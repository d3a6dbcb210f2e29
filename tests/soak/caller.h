// One thread of a soak: opens connections, makes calls of every kind, and enters into the books
// what it is told of each.
#ifndef SOAK_CALLER_H
#define SOAK_CALLER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <initializer_list>
#include <map>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string>

#include "books.h"
#include "keeper.h"
#include "qpxclient.h"
#include "qpxclient_eci.h"

namespace soak {

// What is counted.
enum class Did {
    Open,
    OpenThatFails,
    Call,
    SharedCall,
    Abend,
    Async,
    Collect,
    Channel,
    AsyncChannel,
    Unit,
    Backout,
    Deposit,
    Verify,
    Change,
    List,
    Close,
    Purge,
    Lost,
    Count
};
constexpr std::size_t didCount = static_cast<std::size_t>(Did::Count);
extern const char* const didNames[didCount];

// A connection on which all threads call.
struct SharedConnection {
    std::shared_mutex mutex; // shared by calls; whoever opens it anew has it alone
    QPX_ConnToken_t token = nullptr;
    int life = 0; // of the daemon that it was opened to
};

// What all threads have in common.
struct Shared {
    Shared(Keeper& theKeeper, Books& theBooks) : keeper(theKeeper), books(theBooks) {}

    void did(Did what);
    std::string text() const;
    bool hasDoneEverything() const;

    // Waits until so much has been done, or the time has come: false. Thread: one at a time.
    bool awaitCalls(long number, std::chrono::steady_clock::time_point limit);

    // Prints what is not as it should be.
    void problem(int thread, const std::string& what);

    Keeper& keeper;
    Books& books;
    SharedConnection shared;
    std::atomic<bool> stopping{false};
    std::atomic<int> problems{0};
    std::atomic<long> counts[didCount] = {};
    std::atomic<long> calls{0};
    std::atomic<long> wanted{0};
    std::mutex mutex;
    std::condition_variable reached;
};

class Caller {
public:
    Caller(Shared& shared, int number, unsigned seed);
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    // Works until told to stop, and leaves nothing open.
    void run();

private:
    int chance(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }
    void problem(const std::string& what) { shared_.problem(number_, what); }
    bool mayGoOn(int rc, const char* what);
    bool isIn(int rc, std::initializer_list<int> codes) const;

    bool open();
    void work();
    void oneThing();
    void leave();

    void call(QPX_ConnToken_t token);
    void callShared();
    void openShared(int life);
    void callThatAbends();
    void beginAsync();
    void noteOutstanding(int qualifier, int number);
    void collect(bool waits);
    bool collectOne(int callType, int qualifier);
    void collectTheRest();
    void callChannel(bool isAsync);
    void checkChannel(ECI_ChannelToken_t channel, int number);
    void transfer();
    void deposit();
    int post(char function, const std::string& account, int amount, int mode, int* luwToken,
             std::string* result);
    int endUnit(int mode, int luwToken);
    void verifyPassword();
    void changePassword();
    void list();

    Shared& shared_;
    const int number_;
    std::mt19937 random_;
    QPX_ConnToken_t token_ = nullptr;
    bool lost_ = false; // the connection has ended
    int life_ = 0;
    std::map<int, int> outstanding_;             // numbers of asynchronous calls, by qualifier
    std::map<int, ECI_ChannelToken_t> channels_; // of asynchronous calls, by number
    std::string user_;
    std::string password_;
    std::string otherPassword_; // in force, perhaps, when it is in doubt
};

} // namespace soak

#endif
