#include "load/load.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <initializer_list>
#include <random>
#include <utility>

#include "load/connections.h"
#include "qpxclient.h"
#include "qpxclient_eci.h"
#include "qpxclient_esi.h"
#include "support/bytes.h"
#include "support/eci_parms.h"
#include "support/expect_rc.h"
#include "support/scripted_gateway.h"

namespace load {

namespace {

using support::EciParms;
using support::rcName;
using support::text;

// Room for every answer, and room for none.
constexpr std::size_t enoughRoom = 256;
constexpr std::size_t littleRoom = 4;

// Threads that may be in a call that others must end: a close that waits for what nobody has
// collected, a wait for a reply when nothing is outstanding.
constexpr int mostLongWaits = 3;

// Connections that are opened and closed before anything is counted, more than any number of
// records that the library may keep for later.
constexpr int warmUps = 300;

constexpr int limitOfOpen = 30;

constexpr std::chrono::seconds timeBetweenLines{10};
constexpr std::chrono::seconds mostExtraTime{60};

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
                                            "closes",
                                            "purges",
                                            "closes of what was closed",
                                            "closes of all",
                                            "dumps",
                                            "changes of the trace",
                                            "tokens that never were"};

int codeOf(Program program)
{
    switch (program) {
    case Program::Plain: return 0;
    case Program::Abends: return ECI_ERR_TRANSACTION_ABEND;
    case Program::Refused: return QPX_ERR_WORK_WAS_REFUSED;
    case Program::Throws: return QPX_ERR_GATEWAY_EXCEPTION;
    default: return QPX_ERR_LOSTGWCON;
    }
}

bool isIn(int rc, std::initializer_list<int> codes)
{
    return std::find(codes.begin(), codes.end(), rc) != codes.end();
}

bool saysClosed(int rc)
{
    return rc == QPX_ERR_GWTOK_CLOSED || rc == QPX_ERR_BADGWTOK;
}

bool saysEnded(int rc)
{
    return rc == QPX_ERR_LOSTGWCON || rc == QPX_ERR_GATEWAY_CLOSED;
}

char* localHost()
{
    static char host[] = "127.0.0.1";
    return host;
}

} // namespace

class Load::Impl {
public:
    Impl(unsigned seed, int threads, int port, Watch& watch)
        : seed_(seed), threadCount_(threads), port_(port), watch_(watch), connections_(threads)
    {
    }

    void warmUp();

    void run(std::chrono::seconds length, const Progress& progress)
    {
        std::vector<std::thread> threads;
        running_ = threadCount_;
        for (int number = 0; number < threadCount_; ++number)
            threads.emplace_back([this, number] {
                runThread(number);
                std::lock_guard<std::mutex> guard(mutex_);
                running_ -= 1;
                changed_.notify_all();
            });
        awaitEnd(length, progress);
        stopping_ = true;
        while (!awaitThreads(std::chrono::milliseconds(50))) closeAll(threadCount_);
        for (std::thread& thread : threads) thread.join();
    }

    void settle()
    {
        connections_.removeAll();
        closeAll(threadCount_);
        closeAll(threadCount_);
    }

    std::string counts() const
    {
        std::string all;
        for (std::size_t what = 0; what < didCount; ++what)
            all += (what == 0 ? "" : ", ") + std::to_string(counts_[what]) + " " + didNames[what];
        return all;
    }

    bool hasDoneEverything() const
    {
        return std::all_of(counts_.begin(), counts_.end(),
                           [](const std::atomic<long>& count) { return count > 0; });
    }

private:
    class Thread;

    void runThread(int number);

    void did(Did what) { counts_[static_cast<std::size_t>(what)] += 1; }

    // A slow machine gets some more time to come to the rare things.
    void awaitEnd(std::chrono::seconds length, const Progress& progress)
    {
        using Clock = std::chrono::steady_clock;
        Clock::time_point begin = Clock::now();
        auto isOver = [&](Clock::time_point now) {
            if (watch_.hasSeenEnough() || now >= begin + length + mostExtraTime) return true;
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

    void closeAll(int thread)
    {
        long begun = connections_.beginCloseAll();
        {
            Doing doing(watch_, thread, "QPX_closeAllGatewayConnections", 0);
            int rc = QPX_closeAllGatewayConnections();
            if (rc != QPX_OK) watch_.problem(thread, "returned " + rcName(rc));
        }
        did(Did::CloseAll);
        for (ConnectionPtr& connection : connections_.endCloseAll(begun))
            deleteChannels(thread, *connection);
    }

    // Of a connection that is gone: nobody holds them any more.
    void deleteChannels(int thread, Connection& connection)
    {
        std::vector<ECI_ChannelToken_t> channels{connection.shared};
        for (auto& call : connection.pending)
            if (call.second.channel != nullptr) channels.push_back(call.second.channel);
        for (ECI_ChannelToken_t& channel : channels)
            deleteChannel(thread, connection.number, channel);
    }

    void deleteChannel(int thread, int connection, ECI_ChannelToken_t& channel)
    {
        Doing doing(watch_, thread, "ECI_deleteChannel", connection);
        int rc = ECI_deleteChannel(&channel);
        if (rc != ECI_NO_ERROR) watch_.problem(thread, "returned " + rcName(rc));
    }

    const unsigned seed_;
    const int threadCount_;
    const int port_;
    Watch& watch_;
    Connections connections_;
    support::RefusingPort refusingPort_;
    std::atomic<bool> stopping_{false};
    std::atomic<int> nextCall_{1};
    std::atomic<int> longWaits_{0};
    std::array<std::atomic<long>, didCount> counts_{};
    std::mutex mutex_;
    std::condition_variable changed_;
    int running_ = 0; // guarded by mutex_
};

// ---- One thread --------------------------------------------------------------------------------

class Load::Impl::Thread {
public:
    Thread(Impl& load, int number)
        : load_(load), number_(number), random_(load.seed_ + static_cast<unsigned>(number))
    {
    }

    void warmUp()
    {
        for (int time = 0; time < warmUps; ++time) {
            if (!open(ConnectionPlan())) load_.watch_.problem(number_, "does not warm up");
            Use use(*this, false);
            ConnectionPtr connection = use.connection();
            if (connection == nullptr) continue;
            callWithChannel(connection, Program::Plain);
            callAsync(connection, Program::Plain, true);
            if (!connection->pending.empty())
                collect(connection, ECI_GET_REPLY_WAIT, 0, enoughRoom);
            closeByName(connection, Ways::Purge);
        }
        load_.closeAll(number_);
        dump();
    }

    void run()
    {
        while (!load_.stopping_ && !load_.watch_.hasSeenEnough()) step();
    }

private:
    enum class Ways { Close, Purge, PurgeWithLimit };

    // A connection of the list as long as it lives; none when there is none.
    class Use {
    public:
        Use(Thread& thread, bool mine) : thread_(thread)
        {
            connection_ = thread.load_.connections_.beginUse(thread.number_, thread.choose(1000),
                                                             mine);
        }
        ~Use()
        {
            if (connection_ != nullptr) thread_.load_.connections_.endUse(thread_.number_);
        }
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;

        const ConnectionPtr& connection() const { return connection_; }

    private:
        Thread& thread_;
        ConnectionPtr connection_;
    };

    // ---- What to do next ----

    unsigned choose(unsigned choices) { return static_cast<unsigned>(random_() % choices); }

    bool oneIn(unsigned times) { return choose(times) == 0; }

    void step()
    {
        unsigned choice = choose(1000);
        if (choice < 4) return load_.closeAll(number_);
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
        if (choice < 80) return Program::Plain;
        if (choice < 87) return Program::Abends;
        if (choice < 93) return Program::Refused;
        if (choice < 97) return Program::Throws;
        return static_cast<Program>(static_cast<int>(Program::Drops) + static_cast<int>(choose(3)));
    }

    // ---- Problems ----

    void problem(const std::string& what) { load_.watch_.problem(number_, what); }

    // Makes a call on a connection, and holds its return code against the one that is due and what
    // is known about the connection. The code.
    template <typename Call>
    int call(const char* name, const ConnectionPtr& connection, std::initializer_list<int> due,
             Call makeCall)
    {
        Doing doing(load_.watch_, number_, name, connection->number);
        Knowledge before = load_.connections_.know(connection);
        int rc = makeCall();
        Knowledge after = load_.connections_.know(connection);
        load_.did(saysClosed(rc) ? Did::CallOnClosed : Did::Call);
        if (saysClosed(rc)) {
            if (!after.closing) problem("returned " + rcName(rc) + ", but nobody has closed it");
        } else if (before.refuses) {
            problem("returned " + rcName(rc) + " after a close has returned");
        } else if (saysEnded(rc)) {
            if (!mayHaveEnded(after) && !isIn(rc, due))
                problem("returned " + rcName(rc) + ", but nobody has ended it");
        } else if (!isIn(rc, due)) {
            problem("returned " + rcName(rc) + ", which was not due");
        }
        return rc;
    }

    // Its peer has been asked to end it, or answers a goodbye by that.
    static bool mayHaveEnded(const Knowledge& after) { return after.ending || after.closing; }

    void expectText(const std::string& expected, const std::string& got)
    {
        if (got != expected) problem("brought \"" + got + "\" instead of \"" + expected + "\"");
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
        if (!load_.connections_.mayOpen(connection.get())) return false;
        if (ECI_createChannel("SHARED", &connection->shared) != ECI_NO_ERROR)
            problem("gets no channel");

        std::string applid = eightDigits(connection->number);
        std::string qualifier = plan.text();
        int limit = plan.greeting == Greeting::Never ? 1 : (oneIn(2) ? 0 : limitOfOpen);
        Doing doing(load_.watch_, number_, "QPX_openRemoteGatewayConnectionApplid",
                    connection->number);
        int rc = QPX_openRemoteGatewayConnectionApplid(localHost(), load_.port_, &connection->token,
                                                       limit, &applid[0], &qualifier[0]);
        checkOpen(*connection, rc);
        if (rc != QPX_OK) {
            load_.did(Did::OpenThatFails);
            load_.deleteChannel(number_, connection->number, connection->shared);
            return false;
        }
        load_.did(Did::Open);
        load_.connections_.add(connection);
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
        Doing doing(load_.watch_, number_, "QPX_openRemoteGatewayConnection", 0);
        QPX_ConnToken_t token = nullptr;
        int rc = QPX_openRemoteGatewayConnection(localHost(), load_.refusingPort_.port(), &token,
                                                 limitOfOpen);
        if (rc != QPX_ERR_CONNECTFAILED) problem("returned " + rcName(rc) + " at a closed port");
        load_.did(Did::OpenThatFails);
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

    bool beginLongWait()
    {
        if (load_.longWaits_.fetch_add(1) < mostLongWaits) return true;
        endLongWait();
        return false;
    }

    void endLongWait() { load_.longWaits_ -= 1; }

    void closeByName(const ConnectionPtr& connection, Ways way)
    {
        const char* name = way == Ways::Close ? "QPX_closeGatewayConnection"
                                              : "QPX_purgeGatewayConnection";
        Doing doing(load_.watch_, number_, name, connection->number);
        if (oneIn(20)) purgeWithBadLimit(connection);
        Knowledge before = load_.connections_.know(connection);
        bool first = !before.closing;
        load_.connections_.noteClose(connection);
        QPX_ConnToken_t token = connection->token;
        int rc = way == Ways::Close
                     ? QPX_closeGatewayConnection(&token)
                     : QPX_purgeGatewayConnection(&token, way == Ways::Purge ? 0 : 1);
        checkClose(connection, rc, first, before);
        load_.did(saysClosed(rc) ? Did::StaleClose : way == Ways::Close ? Did::Close : Did::Purge);
        // Of two closes the last frees the token, which may be the other one.
        if (rc == QPX_OK && !load_.connections_.know(connection).closingTwice)
            connection->gone = true;
        connection->closeReturned = true;
        if (rc == QPX_OK || oneIn(2)) load_.connections_.remove(connection);
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
            if (first && !load_.connections_.know(connection).closing)
                problem("returned " + rcName(rc) + ", but nobody has closed it");
        } else if (before.refuses) {
            problem("returned " + rcName(rc) + " after a close has returned");
        } else if (rc == QPX_ERR_LOSTGWCON) {
            if (!mayBreakInClose(*connection, load_.connections_.know(connection)))
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
        Doing doing(load_.watch_, number_, "a token that never was", 0);
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
        load_.did(Did::Stray);
    }

    // ---- Calls ----

    void askForTheEnd(const ConnectionPtr& connection, Program program)
    {
        if (endsConnection(program)) connection->endAsked = true;
    }

    // A record with room for the answer, of which the question travels.
    EciParms withQuestion(int callType, Program program, int number)
    {
        std::string question = questionOf(number);
        EciParms parms = support::eciCall(callType, nameOf(program), text(question));
        parms.area.resize(enoughRoom);
        parms.record.eci_commarea = parms.area.data();
        parms.record.eci_commarea_length = static_cast<short>(parms.area.size());
        parms.record.commarea_outbound_length = static_cast<short>(question.size());
        parms.withSystem(eightDigits(number));
        return parms;
    }

    std::string expectedAnswer(const ConnectionPtr& connection, int number)
    {
        return answerTo(questionOf(number), connection->number);
    }

    // What is in a COMMAREA before the zeros behind it.
    static std::string contentsOf(const EciParms& parms)
    {
        return std::string(parms.area.data(), strnlen(parms.area.data(), parms.area.size()));
    }

    int execute(const ConnectionPtr& connection, EciParms& parms, std::initializer_list<int> due)
    {
        return call("QPX_ECI_Execute", connection, due,
                    [&] { return QPX_ECI_Execute(connection->token, &parms.record); });
    }

    int executeChannel(const ConnectionPtr& connection, EciParms& parms,
                       std::initializer_list<int> due)
    {
        return call("QPX_ECI_Execute_Channel", connection, due,
                    [&] { return QPX_ECI_Execute_Channel(connection->token, &parms.record); });
    }

    void callWithCommarea(const ConnectionPtr& connection, Program program)
    {
        int number = load_.nextCall_++;
        askForTheEnd(connection, program);
        EciParms parms = withQuestion(ECI_SYNC, program, number);
        int rc = execute(connection, parms, {codeOf(program)});
        if (rc == 0) expectText(expectedAnswer(connection, number), contentsOf(parms));
        if (rc == ECI_ERR_TRANSACTION_ABEND)
            expectText(abendCode, std::string(parms.record.eci_abend_code, 4));
    }

    // ---- Channels ----

    ECI_ChannelToken_t channelWith(const std::string& question)
    {
        ECI_ChannelToken_t channel = nullptr;
        int rc = ECI_createChannel("LOAD", &channel);
        if (rc == ECI_NO_ERROR)
            rc = ECI_createContainer(channel, "IN", ECI_BIT, 0, question.data(), question.size());
        if (rc != ECI_NO_ERROR) problem("makes no channel: " + rcName(rc));
        return channel;
    }

    std::string contentsOf(ECI_ChannelToken_t channel, const char* container)
    {
        char data[enoughRoom];
        std::size_t length = 0;
        int rc = ECI_getContainerData(channel, container, data, sizeof data, 0, &length);
        if (rc != ECI_NO_ERROR) return "(" + rcName(rc) + ")";
        return std::string(data, length);
    }

    void callWithChannel(const ConnectionPtr& connection, Program program)
    {
        int number = load_.nextCall_++;
        askForTheEnd(connection, program);
        EciParms parms = support::syncCall(nameOf(program));
        parms.record.channel = channelWith(questionOf(number));
        int rc = executeChannel(connection, parms, {codeOf(program)});
        if (rc == 0)
            expectText(expectedAnswer(connection, number), contentsOf(parms.record.channel, "OUT"));
        expectText(questionOf(number), contentsOf(parms.record.channel, "IN"));
        ECI_ChannelToken_t channel = parms.record.channel;
        load_.deleteChannel(number_, connection->number, channel);
    }

    void callWithSharedChannel(const ConnectionPtr& connection)
    {
        EciParms parms = support::syncCall(nameOf(Program::Plain));
        parms.record.channel = connection->shared;
        int rc = executeChannel(connection, parms, {0});
        if (rc != 0) return;
        std::string expected = answerTo("", connection->number);
        expectText(expected, contentsOf(connection->shared, "OUT").substr(0, expected.size()));
    }

    void workOnSharedChannel(const ConnectionPtr& connection)
    {
        Doing doing(load_.watch_, number_, "a container of a shared channel", connection->number);
        ECI_ChannelToken_t channel = connection->shared;
        std::string data = questionOf(load_.nextCall_++);
        ECI_CONTAINER_INFO info;
        switch (choose(5)) {
        case 0: {
            int rc = ECI_createContainer(channel, "IN", ECI_BIT, 0, data.data(), data.size());
            if (!isIn(rc, {0, ECI_ERR_CONTAINER_EXISTS})) problem("creating: " + rcName(rc));
            break;
        }
        case 1: {
            int rc = ECI_setContainerData(channel, "IN", data.data(), data.size());
            if (!isIn(rc, {0, ECI_ERR_CONTAINER_NOTFOUND})) problem("setting: " + rcName(rc));
            break;
        }
        case 2: {
            int rc = ECI_deleteContainer(channel, "IN");
            if (!isIn(rc, {0, ECI_ERR_CONTAINER_NOTFOUND})) problem("deleting: " + rcName(rc));
            break;
        }
        case 3: {
            int rc = ECI_getContainerInfo(channel, "OUT", &info);
            if (!isIn(rc, {0, ECI_ERR_CONTAINER_NOTFOUND})) problem("asking: " + rcName(rc));
            break;
        }
        default: {
            int rc = oneIn(2) ? ECI_getFirstContainer(channel, &info)
                              : ECI_getNextContainer(channel, &info);
            if (!isIn(rc, {0, ECI_ERR_ENDOFCONTAINERS})) problem("browsing: " + rcName(rc));
        }
        }
        load_.did(Did::Container);
    }

    void workOnOwnChannel()
    {
        Doing doing(load_.watch_, number_, "a channel of its own", 0);
        std::string data = questionOf(load_.nextCall_++);
        ECI_ChannelToken_t channel = channelWith(data);
        int rc = ECI_setContainerData(channel, "IN", data.data(), data.size());
        if (rc == ECI_NO_ERROR)
            rc = ECI_createContainer(channel, "MORE", ECI_CHAR, 1208, data.data(), 8);
        if (rc != ECI_NO_ERROR) problem("returned " + rcName(rc));
        expectText(data, contentsOf(channel, "IN"));
        ECI_CONTAINER_INFO info;
        rc = ECI_getFirstContainer(channel, &info);
        expectText("MORE", rc == ECI_NO_ERROR ? info.name : rcName(rc));
        rc = ECI_getNextContainer(channel, &info);
        expectText("IN", rc == ECI_NO_ERROR ? info.name : rcName(rc));
        load_.deleteChannel(number_, 0, channel);
        load_.did(Did::Container);
    }

    // ---- Asynchronous calls ----

    void callAsync(const ConnectionPtr& connection, Program program, bool withChannel)
    {
        int number = load_.nextCall_++;
        askForTheEnd(connection, program);
        EciParms parms = withQuestion(ECI_ASYNC, program, number);
        if (withChannel) {
            parms.withCommarea(text(""));
            parms.record.commarea_outbound_length = 0;
            parms.record.channel = channelWith(questionOf(number));
        }
        ECI_ChannelToken_t channel = parms.record.channel;
        remember(connection, number, {program, channel});
        int rc = withChannel ? executeChannel(connection, parms, {0})
                             : execute(connection, parms, {0});
        load_.did(Did::Async);
        if (rc != 0) {
            if (!forget(connection, number, nullptr)) problem("was collected, and has failed");
            if (withChannel) load_.deleteChannel(number_, connection->number, channel);
            return;
        }
        if (oneIn(3))
            collect(connection, ECI_GET_SPECIFIC_REPLY_WAIT, parms.record.eci_message_qualifier,
                    oneIn(4) ? littleRoom : enoughRoom);
    }

    static void remember(const ConnectionPtr& connection, int number, const Pending& pending)
    {
        std::lock_guard<std::mutex> guard(connection->mutex);
        connection->pending[number] = pending;
    }

    static bool forget(const ConnectionPtr& connection, int number, Pending* pending)
    {
        std::lock_guard<std::mutex> guard(connection->mutex);
        auto found = connection->pending.find(number);
        if (found == connection->pending.end()) return false;
        if (pending != nullptr) *pending = found->second;
        connection->pending.erase(found);
        return true;
    }

    void collectOne(const ConnectionPtr& connection)
    {
        std::size_t room = oneIn(8) ? littleRoom : enoughRoom;
        int qualifier = 1 + static_cast<int>(choose(20));
        switch (choose(4)) {
        case 0: return collect(connection, ECI_GET_REPLY, 0, room);
        case 1: return collect(connection, ECI_GET_SPECIFIC_REPLY, qualifier, room);
        case 2: return collect(connection, ECI_GET_SPECIFIC_REPLY_WAIT, qualifier, room);
        default:
            if (!beginLongWait()) return;
            collect(connection, ECI_GET_REPLY_WAIT, 0, room);
            endLongWait();
        }
    }

    static const char* nameOfCollecting(int callType)
    {
        switch (callType) {
        case ECI_GET_REPLY: return "ECI_GET_REPLY";
        case ECI_GET_REPLY_WAIT: return "ECI_GET_REPLY_WAIT";
        case ECI_GET_SPECIFIC_REPLY: return "ECI_GET_SPECIFIC_REPLY";
        default: return "ECI_GET_SPECIFIC_REPLY_WAIT";
        }
    }

    void collect(const ConnectionPtr& connection, int callType, int qualifier, std::size_t room)
    {
        Doing doing(load_.watch_, number_, nameOfCollecting(callType), connection->number);
        EciParms parms = support::eciCall(callType, "", support::filled(room));
        parms.record.eci_message_qualifier = qualifier;
        Knowledge before = load_.connections_.know(connection);
        int rc = oneIn(2) ? QPX_ECI_Execute(connection->token, &parms.record)
                          : QPX_ECI_Execute_Channel(connection->token, &parms.record);
        if (parms.record.eci_call_type != ECI_ASYNC)
            return checkNothingCollected(connection, callType, rc, before);
        if (before.gone) problem("brought a reply of a connection that is gone");
        if (rc == ECI_ERR_INVALID_DATA_LENGTH)
            return collect(connection, ECI_GET_SPECIFIC_REPLY, parms.record.eci_message_qualifier,
                           enoughRoom);
        checkReply(connection, parms, rc);
        load_.did(Did::Collect);
    }

    void checkNothingCollected(const ConnectionPtr& connection, int callType, int rc,
                               const Knowledge& before)
    {
        Knowledge after = load_.connections_.know(connection);
        bool specific = callType == ECI_GET_SPECIFIC_REPLY ||
                        callType == ECI_GET_SPECIFIC_REPLY_WAIT;
        bool waits = callType == ECI_GET_REPLY_WAIT || callType == ECI_GET_SPECIFIC_REPLY_WAIT;
        bool due = false;
        if (saysClosed(rc))
            due = after.closing;
        else if (before.gone)
            due = false;
        else if (rc == ECI_ERR_NO_REPLY)
            due = specific || !waits;
        else if (rc == ECI_ERR_INVALID_MSG_QUAL)
            due = specific;
        else if (saysEnded(rc))
            due = waits && mayHaveEnded(after);
        if (!due) problem("returned " + rcName(rc) + " and no reply");
    }

    // Holds a reply against the call that it belongs to.
    void checkReply(const ConnectionPtr& connection, EciParms& parms, int rc)
    {
        int number = std::atoi(std::string(parms.record.eci_system_name, 8).c_str());
        Pending pending;
        if (!forget(connection, number, &pending)) {
            problem("brought the reply of call " + std::to_string(number) + ", which was not due");
            return;
        }
        Knowledge after = load_.connections_.know(connection);
        bool due = rc == codeOf(pending.program) || (saysEnded(rc) && mayHaveEnded(after)) ||
                   (rc == QPX_ERR_GWTOK_CLOSED && after.closing);
        if (!due)
            problem("brought " + rcName(rc) + " for call " + std::to_string(number) + " of " +
                    nameOf(pending.program));
        if (pending.channel == nullptr) {
            if (rc == 0) expectText(expectedAnswer(connection, number), contentsOf(parms));
            return;
        }
        if (parms.record.channel != pending.channel) problem("brought another call's channel");
        if (rc == 0)
            expectText(expectedAnswer(connection, number), contentsOf(pending.channel, "OUT"));
        load_.deleteChannel(number_, connection->number, pending.channel);
    }

    // ---- Units of work ----

    void runUnitOfWork(const ConnectionPtr& connection)
    {
        int luwToken = 0;
        if (!callInUnit(connection, Program::Plain, &luwToken)) return;
        if (connectionOfUnit(luwToken) != connection->number)
            problem("opened a unit of work " + std::to_string(luwToken));
        unsigned more = choose(3);
        for (unsigned time = 0; time < more; ++time) {
            Program program = oneIn(5) ? Program::Abends : Program::Plain;
            if (!callInUnit(connection, program, &luwToken)) return;
        }
        if (oneIn(3) && !continueLater(connection, luwToken)) return;
        if (oneIn(6)) return; // the unit stays open
        endUnit(connection, luwToken);
        load_.did(Did::Unit);
    }

    // False when there is nothing to go on with.
    bool callInUnit(const ConnectionPtr& connection, Program program, int* luwToken)
    {
        int number = load_.nextCall_++;
        EciParms parms = withQuestion(ECI_SYNC, program, number);
        parms.withExtendMode(ECI_EXTENDED, *luwToken);
        int rc = execute(connection, parms, {codeOf(program)});
        if (rc == 0) {
            expectText(expectedAnswer(connection, number), contentsOf(parms));
            *luwToken = parms.record.eci_luw_token;
            return true;
        }
        // The call has ended the unit.
        if (rc == ECI_ERR_TRANSACTION_ABEND) {
            EciParms again = withQuestion(ECI_SYNC, Program::Plain, number);
            again.withExtendMode(ECI_EXTENDED, *luwToken);
            execute(connection, again, {ECI_ERR_LUW_TOKEN});
        }
        return false;
    }

    // An asynchronous call of the unit, which is over when its reply has been collected, by whom
    // ever. False when it could not be sent, and has ended the unit.
    bool continueLater(const ConnectionPtr& connection, int luwToken)
    {
        int number = load_.nextCall_++;
        EciParms parms = withQuestion(ECI_ASYNC, Program::Plain, number);
        parms.withExtendMode(ECI_EXTENDED, luwToken);
        remember(connection, number, {Program::Plain, nullptr});
        load_.did(Did::Async);
        if (execute(connection, parms, {0}) != 0) {
            if (!forget(connection, number, nullptr)) problem("was collected, and has failed");
            return false;
        }
        collect(connection, ECI_GET_SPECIFIC_REPLY_WAIT, parms.record.eci_message_qualifier,
                enoughRoom);
        return true;
    }

    void endUnit(const ConnectionPtr& connection, int luwToken)
    {
        EciParms parms = support::syncCall(nameOf(Program::Plain));
        parms.withExtendMode(oneIn(2) ? ECI_COMMIT : ECI_BACKOUT, luwToken);
        int rc = execute(connection, parms, {0});
        if (rc == 0 && parms.record.eci_luw_token != 0)
            problem("ended a unit of work and gave " + std::to_string(parms.record.eci_luw_token));
    }

    // ---- Passwords, systems, applids ----

    void askForPassword(const ConnectionPtr& connection)
    {
        ESI_DETAILS details{};
        bool isWrong = oneIn(4);
        const char* password = isWrong ? wrongPassword : "SECRET";
        int due = isWrong ? ESI_ERR_PASSWORD_INVALID : QPX_OK;
        int rc = 0;
        if (oneIn(2))
            rc = call("QPX_ESI_verifyPassword", connection, {due}, [&] {
                return QPX_ESI_verifyPassword(connection->token, "USER", password, nullptr,
                                              &details);
            });
        else
            rc = call("QPX_ESI_changePassword", connection, {due}, [&] {
                return QPX_ESI_changePassword(connection->token, "USER", password, "NEWER", nullptr,
                                              &details);
            });
        if (rc == QPX_OK)
            expectText(eightDigits(connection->number), eightDigits(details.invalidCount));
        load_.did(Did::Password);
    }

    void askForSystems(const ConnectionPtr& connection)
    {
        QPX_listSystem_t list[3] = {};
        auto room = static_cast<unsigned short>(1 + choose(3));
        int due = room < 2 ? QPX_ERR_MORE_SYSTEMS : QPX_OK;
        int rc = call("QPX_listSystems", connection, {due},
                      [&] { return QPX_listSystems(connection->token, &room, list); });
        if (rc == due) expectText(eightDigits(connection->number), list[0].SystemName);
        load_.did(Did::Query);
    }

    // The text lives until the connection is closed, which may be at any moment: it is not read.
    void readApplid(const ConnectionPtr& connection)
    {
        Doing doing(load_.watch_, number_, "QPX_getApplid", connection->number);
        char* applid = nullptr;
        Knowledge before = load_.connections_.know(connection);
        int rc = oneIn(2) ? QPX_getApplid(connection->token, &applid)
                          : QPX_getApplidQualifier(connection->token, &applid);
        Knowledge after = load_.connections_.know(connection);
        bool due = saysClosed(rc) ? after.closing : rc == QPX_OK && !before.gone;
        if (!due) problem("returned " + rcName(rc));
    }

    // Everything that happens meanwhile is traced, at a level of every kind.
    void traceForAMoment()
    {
        {
            Doing doing(load_.watch_, number_, "QPX_setAPITraceLevel", 0);
            char nowhere[] = "/dev/null";
            int rc = QPX_setAPITraceLevel(1 + static_cast<int>(choose(5)));
            if (rc == QPX_OK && oneIn(2)) rc = QPX_setAPITraceFile(nowhere);
            if (rc != QPX_OK) problem("returned " + rcName(rc));
        }
        for (int more = 0; more < 5; ++more) openOne();
        QPX_setAPITraceLevel(0);
        load_.did(Did::Trace);
    }

    void dump()
    {
        Doing doing(load_.watch_, number_, "QPX_dumpState", 0);
        int rc = oneIn(2) ? QPX_dumpState() : QPX_ECI_dumpChannels();
        if (rc != QPX_OK) problem("returned " + rcName(rc));
        load_.did(Did::Dump);
    }

    Impl& load_;
    const int number_;
    std::mt19937 random_;
};

void Load::Impl::warmUp()
{
    Thread(*this, 0).warmUp();
}

void Load::Impl::runThread(int number)
{
    Thread(*this, number).run();
}

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
