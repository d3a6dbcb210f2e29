#include "load/load.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "load/calls.h"
#include "load/shared.h"
#include "qpxclient.h"
#include "qpxclient_eci.h"
#include "support/eci_parms.h"
#include "support/expect_rc.h"

namespace load {

namespace {

using support::EciParms;
using support::rcName;
using support::text;

// Connections that are opened and closed before anything is counted, more than any number of
// records that the library may keep for later.
constexpr int warmUps = 300;

constexpr int limitOfOpen = 30;

constexpr std::chrono::seconds timeBetweenLines{10};
constexpr std::chrono::seconds mostExtraTime{60};

char* localHost()
{
    static char host[] = "127.0.0.1";
    return host;
}

// ---- One thread --------------------------------------------------------------------------------

// Opens connections, calls on them and closes them, as chance has it.
class Thread : private Calls {
public:
    Thread(Shared& shared, int number) : Calls(shared, number) {}

    void warmUp()
    {
        for (int time = 0; time < warmUps; ++time) {
            if (!open(ConnectionPlan())) shared_.watch.problem(number_, "does not warm up");
            Use use(*this, false);
            ConnectionPtr connection = use.connection();
            if (connection == nullptr) continue;
            callWithChannel(connection, Program::Plain);
            callAsync(connection, Program::Plain, true);
            if (!connection->pending.empty())
                collect(connection, ECI_GET_REPLY_WAIT, 0, enoughRoom);
            closeByName(connection, Ways::Purge);
        }
        shared_.closeAll(number_);
        dump();
    }

    void run()
    {
        while (!shared_.stopping && !shared_.watch.hasSeenEnough()) step();
    }

private:
    enum class Ways { Close, Purge, PurgeWithLimit };

    // A connection of the list as long as it lives; none when there is none.
    class Use {
    public:
        Use(Thread& thread, bool mine) : thread_(thread)
        {
            connection_ = thread.shared_.connections.beginUse(thread.number_, thread.choose(1000),
                                                              mine);
        }
        ~Use()
        {
            if (connection_ != nullptr) thread_.shared_.connections.endUse(thread_.number_);
        }
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;

        const ConnectionPtr& connection() const { return connection_; }

    private:
        Thread& thread_;
        ConnectionPtr connection_;
    };

    // ---- What to do next ----

    void step()
    {
        unsigned choice = choose(1000);
        if (choice < 4) return shared_.closeAll(number_);
        if (choice < 6) return dump();
        if (choice < 8) return traceForAMoment();
        if (choice < 16) return useStrayToken();
        if (choice < 40) return workOnOwnChannel();
        if (choice < 140) return openOne();
        if (choice < 200) return closeOne();

        Use use(*this, false);
        const ConnectionPtr& connection = use.connection();
        if (connection == nullptr) return;
        if (connection->endAsked && oneIn(4)) return closeByName(connection, Ways::Purge);
        if (choice < 400) return callWithCommarea(connection, anyProgram());
        if (choice < 480) return callWithChannel(connection, anyProgram());
        if (choice < 530) return callWithSharedChannel(connection);
        if (choice < 570) return workOnSharedChannel(connection);
        if (choice < 720) return callAsync(connection, anyProgram(), oneIn(2));
        if (choice < 860) return collectOne(connection);
        if (choice < 910) return runUnitOfWork(connection);
        if (choice < 950) return askForPassword(connection);
        if (choice < 970) return askForSystems(connection);
        readApplid(connection);
    }

    Program anyProgram()
    {
        unsigned choice = choose(100);
        if (choice < 77) return Program::Plain;
        if (choice < 80) return Program::Large;
        if (choice < 87) return Program::Abends;
        if (choice < 93) return Program::Refused;
        if (choice < 97) return Program::Throws;
        return static_cast<Program>(static_cast<int>(Program::Drops) + static_cast<int>(choose(3)));
    }

    // ---- Opening ----

    ConnectionPlan anyPlan()
    {
        ConnectionPlan plan;
        unsigned greeting = choose(2000);
        if (greeting < 300)
            plan.greeting = Greeting::Late;
        else if (greeting < 360)
            plan.greeting = Greeting::Refusal;
        else if (greeting < 400)
            plan.greeting = Greeting::Drop;
        else if (greeting < 440)
            plan.greeting = Greeting::Reset;
        else if (greeting < 500)
            plan.greeting = Greeting::Goodbye;
        else if (greeting < 501)
            plan.greeting = Greeting::Never;
        unsigned farewell = choose(20);
        if (farewell < 3)
            plan.farewell = Farewell::Late;
        else if (farewell < 4)
            plan.farewell = Farewell::Drop;
        else if (farewell < 5)
            plan.farewell = Farewell::Reset;
        return plan;
    }

    void openOne()
    {
        if (oneIn(30))
            openAtRefusingPort();
        else
            open(anyPlan());
    }

    bool open(ConnectionPlan plan)
    {
        auto connection = std::make_shared<Connection>();
        connection->owner = number_;
        connection->plan = plan;
        connection->endAsked = plan.greeting == Greeting::Goodbye;
        if (!shared_.connections.mayOpen(connection.get())) return false;
        if (ECI_createChannel("SHARED", &connection->shared) != ECI_NO_ERROR)
            problem("gets no channel");

        std::string applid = eightDigits(connection->number);
        std::string qualifier = plan.text();
        int limit = plan.greeting == Greeting::Never ? 1 : (oneIn(2) ? 0 : limitOfOpen);
        Doing doing(shared_.watch, number_, "QPX_openRemoteGatewayConnectionApplid",
                    connection->number);
        int rc = QPX_openRemoteGatewayConnectionApplid(
            localHost(), shared_.port, &connection->token, limit, &applid[0], &qualifier[0]);
        checkOpen(*connection, rc);
        if (rc != QPX_OK) {
            shared_.did(Did::OpenThatFails);
            shared_.deleteChannel(number_, connection->number, connection->shared);
            return false;
        }
        shared_.did(Did::Open);
        shared_.connections.add(connection);
        return true;
    }

    void checkOpen(const Connection& connection, int rc)
    {
        bool due = false;
        switch (connection.plan.greeting) {
        case Greeting::AtOnce:
        case Greeting::Late: due = rc == QPX_OK; break;
        case Greeting::Goodbye: due = rc == QPX_OK || rc == QPX_ERR_GATEWAY_CLOSED; break;
        case Greeting::Refusal: due = rc == refusalOfGreeting; break;
        case Greeting::Drop:
        case Greeting::Reset: due = rc == QPX_ERR_LOSTGWCON; break;
        case Greeting::Never: due = rc == QPX_ERR_CONNECTTIMEOUT; break;
        }
        if (!due) problem("returned " + rcName(rc) + " with greeting " + connection.plan.text());
        if (rc != QPX_OK && connection.token != nullptr) problem("failed and gave a token");
    }

    void openAtRefusingPort()
    {
        Doing doing(shared_.watch, number_, "QPX_openRemoteGatewayConnection", 0);
        QPX_ConnToken_t token = nullptr;
        int rc = QPX_openRemoteGatewayConnection(localHost(), shared_.refusingPort.port(), &token,
                                                 limitOfOpen);
        if (rc != QPX_ERR_CONNECTFAILED) problem("returned " + rcName(rc) + " at a closed port");
        shared_.did(Did::OpenThatFails);
    }

    // ---- Closing ----

    void closeOne()
    {
        Use use(*this, !oneIn(4));
        if (use.connection() == nullptr) return;
        unsigned choice = choose(40);
        if (choice < 16 && beginLongWait()) {
            closeByName(use.connection(), Ways::Close);
            endLongWait();
            return;
        }
        closeByName(use.connection(), choice < 39 ? Ways::Purge : Ways::PurgeWithLimit);
    }

    void closeByName(const ConnectionPtr& connection, Ways way)
    {
        const char* name = way == Ways::Close ? "QPX_closeGatewayConnection"
                                              : "QPX_purgeGatewayConnection";
        Doing doing(shared_.watch, number_, name, connection->number);
        if (oneIn(20)) purgeWithBadLimit(connection);
        Knowledge before = shared_.connections.know(connection);
        bool first = !before.closing;
        shared_.connections.noteClose(connection);
        QPX_ConnToken_t token = connection->token;
        int rc = way == Ways::Close
                     ? QPX_closeGatewayConnection(&token)
                     : QPX_purgeGatewayConnection(&token, way == Ways::Purge ? 0 : 1);
        checkClose(connection, rc, first, before);
        shared_.did(saysClosed(rc)       ? Did::StaleClose
                    : way == Ways::Close ? Did::Close
                                         : Did::Purge);
        // Of two closes the last frees the token, which may be the other one.
        if (rc == QPX_OK && !shared_.connections.know(connection).closingTwice)
            connection->gone = true;
        connection->closeReturned = true;
        if (rc == QPX_OK || oneIn(2)) shared_.connections.remove(connection);
    }

    void purgeWithBadLimit(const ConnectionPtr& connection)
    {
        QPX_ConnToken_t token = connection->token;
        int rc = QPX_purgeGatewayConnection(&token, 3601);
        if (rc != QPX_ERR_INVALIDTIMEOUTPARM && !saysClosed(rc))
            problem("returned " + rcName(rc) + " with a limit of 3601 s");
    }

    void checkClose(const ConnectionPtr& connection, int rc, bool first, const Knowledge& before)
    {
        if (saysClosed(rc)) {
            // Between the look and the call another may have begun.
            if (first && !shared_.connections.know(connection).closing)
                problem("returned " + rcName(rc) + ", but nobody has closed it");
        } else if (before.refuses) {
            problem("returned " + rcName(rc) + " after a close has returned");
        } else if (rc == QPX_ERR_LOSTGWCON) {
            if (!mayBreakInClose(*connection, shared_.connections.know(connection)))
                problem("returned " + rcName(rc) + ", but nobody has ended it");
        } else if (rc != QPX_OK) {
            problem("returned " + rcName(rc));
        }
    }

    // Its peer ends it instead of an answer, or answers another close while this one says goodbye.
    static bool mayBreakInClose(const Connection& connection, const Knowledge& after)
    {
        return after.ending || after.closingTwice || connection.plan.farewell == Farewell::Drop ||
               connection.plan.farewell == Farewell::Reset;
    }

    // Tokens that never were any.
    void useStrayToken()
    {
        static char elsewhere[4096];
        auto stray = reinterpret_cast<QPX_ConnToken_t>(elsewhere + 8 * (choose(500)));
        if (oneIn(2)) stray = reinterpret_cast<QPX_ConnToken_t>(8 * (1 + choose(500)));
        Doing doing(shared_.watch, number_, "a token that never was", 0);
        int rc = QPX_OK;
        switch (choose(4)) {
        case 0: rc = QPX_closeGatewayConnection(&stray); break;
        case 1: rc = QPX_purgeGatewayConnection(&stray, 0); break;
        case 2: {
            char* applid = nullptr;
            rc = QPX_getApplid(stray, &applid);
            break;
        }
        default: {
            EciParms parms = support::syncCall("PLAIN", text("stray"));
            rc = QPX_ECI_Execute(stray, &parms.record);
        }
        }
        if (rc != QPX_ERR_BADGWTOK) problem("returned " + rcName(rc));
        shared_.did(Did::Stray);
    }

    // Everything that happens meanwhile is traced, at a level of every kind.
    void traceForAMoment()
    {
        {
            Doing doing(shared_.watch, number_, "QPX_setAPITraceLevel", 0);
            char nowhere[] = "/dev/null";
            int rc = QPX_setAPITraceLevel(1 + static_cast<int>(choose(5)));
            if (rc == QPX_OK && oneIn(2)) rc = QPX_setAPITraceFile(nowhere);
            if (rc != QPX_OK) problem("returned " + rcName(rc));
        }
        for (int more = 0; more < 5; ++more) openOne();
        QPX_setAPITraceLevel(0);
        shared_.did(Did::Trace);
    }

    void dump()
    {
        Doing doing(shared_.watch, number_, "QPX_dumpState", 0);
        int rc = oneIn(2) ? QPX_dumpState() : QPX_ECI_dumpChannels();
        if (rc != QPX_OK) problem("returned " + rcName(rc));
        shared_.did(Did::Dump);
    }
};

} // namespace

// ---- All of them -------------------------------------------------------------------------------

class Load::Impl {
public:
    Impl(unsigned seed, int threads, int port, Watch& watch)
        : threadCount_(threads), shared_(seed, threads, port, watch)
    {
    }

    void warmUp() { Thread(shared_, 0).warmUp(); }

    void run(std::chrono::seconds length, const Progress& progress)
    {
        std::vector<std::thread> threads;
        running_ = threadCount_;
        for (int number = 0; number < threadCount_; ++number)
            threads.emplace_back([this, number] {
                Thread(shared_, number).run();
                std::lock_guard<std::mutex> guard(mutex_);
                running_ -= 1;
                changed_.notify_all();
            });
        awaitEnd(length, progress);
        shared_.stopping = true;
        while (!awaitThreads(std::chrono::milliseconds(50))) shared_.closeAll(threadCount_);
        for (std::thread& thread : threads) thread.join();
    }

    void settle()
    {
        shared_.connections.removeAll();
        shared_.closeAll(threadCount_);
        shared_.closeAll(threadCount_);
    }

    std::string counts() const
    {
        std::string all;
        for (std::size_t what = 0; what < didCount; ++what)
            all += (what == 0 ? "" : ", ") + std::to_string(shared_.counts[what]) + " " +
                   didNames[what];
        return all;
    }

    bool hasDoneEverything() const
    {
        return std::all_of(shared_.counts.begin(), shared_.counts.end(),
                           [](const std::atomic<long>& count) { return count > 0; });
    }

private:
    // A slow machine gets some more time to come to the rare things.
    void awaitEnd(std::chrono::seconds length, const Progress& progress)
    {
        using Clock = std::chrono::steady_clock;
        Clock::time_point begin = Clock::now();
        auto isOver = [&](Clock::time_point now) {
            if (shared_.watch.hasSeenEnough() || now >= begin + length + mostExtraTime) return true;
            return now >= begin + length && hasDoneEverything();
        };
        std::unique_lock<std::mutex> lock(mutex_);
        for (auto shown = begin; !isOver(Clock::now());) {
            changed_.wait_for(lock, std::chrono::seconds(1));
            if (Clock::now() < shown + timeBetweenLines) continue;
            shown = Clock::now();
            progress(std::chrono::duration_cast<std::chrono::seconds>(shown - begin), counts());
        }
    }

    bool awaitThreads(std::chrono::milliseconds limit)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, limit, [this] { return running_ == 0; });
    }

    const int threadCount_;
    Shared shared_;
    std::mutex mutex_;
    std::condition_variable changed_;
    int running_ = 0; // guarded by mutex_
};

Load::Load(unsigned seed, int threads, int port, Watch& watch)
    : impl_(std::make_unique<Impl>(seed, threads, port, watch))
{
}

Load::~Load() = default;

void Load::warmUp()
{
    impl_->warmUp();
}

void Load::run(std::chrono::seconds length, const Progress& progress)
{
    impl_->run(length, progress);
}

void Load::settle()
{
    impl_->settle();
}

std::string Load::counts() const
{
    return impl_->counts();
}

bool Load::hasDoneEverything() const
{
    return impl_->hasDoneEverything();
}

} // namespace load
