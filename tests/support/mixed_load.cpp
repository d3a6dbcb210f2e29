#include "support/mixed_load.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <utility>

#include "qpxclient.h"
#include "qpxclient_eci.h"
#include "support/bytes.h"
#include "support/eci_parms.h"
#include "support/mixed_load_calls.h"

namespace support {

namespace {

// Calls of one connection that are under way at once; more than the gateway keeps for reversing.
constexpr int mostUnderWay = 40;

constexpr std::size_t mostProblems = 30;

// Room for every answer, and room for none.
constexpr std::size_t enoughRoom = 256;
constexpr std::size_t littleRoom = 8;

bool usesChannel(int number)
{
    return number % 2 == 1;
}

// Ways in which a sender collects.
enum class Way { SpecificWait, SpecificPoll, AnyWait, AnyPoll, NotAtAll };
constexpr int numberOfWays = 5;

// ---- What all connections share ----

class Record {
public:
    explicit Record(int calls) : collected_(static_cast<std::size_t>(calls) + 1) {}

    void problem(const std::string& text)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (problems_.size() < mostProblems) problems_.push_back(text);
    }

    void problem(int number, const std::string& text)
    {
        problem("call " + std::to_string(number) + ": " + text);
    }

    // True when the call is one of the load's and has not been collected before.
    bool collect(int number)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (number < 1 || static_cast<std::size_t>(number) >= collected_.size()) return false;
        collected_[static_cast<std::size_t>(number)] += 1;
        return collected_[static_cast<std::size_t>(number)] == 1;
    }

    void count(int LoadCounts::*what)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        counts_.*what += 1;
    }

    LoadCounts counts() const
    {
        std::lock_guard<std::mutex> guard(mutex_);
        return counts_;
    }

    std::vector<std::string> problems() const
    {
        std::lock_guard<std::mutex> guard(mutex_);
        return problems_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<int> collected_; // how often, by number
    LoadCounts counts_;
    std::vector<std::string> problems_;
};

std::string codeName(int rc)
{
    char name[QPX_RC_STRING_SIZE] = "";
    QPX_getRcString(rc, name);
    return std::to_string(rc) + " (" + name + ")";
}

} // namespace

// ---- One connection and its threads ----

namespace {

class Lane {
public:
    Lane(int firstNumber, int calls, const std::set<int>& drops, int port, Record& record)
        : drops_(drops), port_(port), record_(record), next_(firstNumber),
          end_(firstNumber + calls), unsettled_(calls), unsent_(calls)
    {
        for (int count = 0; count < mostUnderWay; ++count) {
            ECI_ChannelToken_t channel = nullptr;
            if (ECI_createChannel("LOAD", &channel) != ECI_NO_ERROR)
                record_.problem("a channel cannot be created");
            channels_.push_back(channel);
        }
        open();
    }

    // ---- Threads ----

    void sendAndCollect(Way way)
    {
        int number = 0;
        while ((number = takeNumber()) != 0) {
            int qualifier = sendUntilSent(number);
            if (!collectIn(way, qualifier)) return;
        }
    }

    void collectWhateverComes()
    {
        while (collectAny(enoughRoom)) {}
    }

    // ---- The end ----

    void awaitSent()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return unsent_ == 0; });
    }

    // Returns when the gateway has seen all that was sent on the connection that stands now.
    void awaitSeen()
    {
        int rc = QPX_ERR_LOSTGWCON;
        while (rc == QPX_ERR_LOSTGWCON) {
            EciParms parms = syncCall("ECHO", text("seen?"));
            rc = execute(parms);
        }
        if (rc != 0) record_.problem("the last call of a connection returned " + codeName(rc));
    }

    void awaitSettled()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return unsettled_ == 0 && !broken_; });
        closing_ = true;
    }

    void close()
    {
        int rc = QPX_closeGatewayConnection(&token_);
        if (rc != QPX_OK) record_.problem("a close returned " + codeName(rc));
    }

    // Every channel must have come back and take a container.
    void deleteChannels()
    {
        if (channels_.size() != mostUnderWay)
            record_.problem(std::to_string(channels_.size()) + " channels have come back");
        for (ECI_ChannelToken_t channel : channels_) {
            if (ECI_createContainer(channel, "LAST", ECI_BIT, 0, "x", 1) != ECI_NO_ERROR ||
                ECI_deleteChannel(&channel) != ECI_NO_ERROR)
                record_.problem("a channel is not usable at the end");
        }
    }

private:
    // ---- The connection ----

    // Keeps the connection as it is while a thread is in a call on it. Without a token once the
    // lane is closing.
    class Use {
    public:
        explicit Use(Lane& lane) : lane_(lane)
        {
            std::unique_lock<std::mutex> lock(lane_.mutex_);
            lane_.changed_.wait(lock, [this] { return !lane_.broken_; });
            if (lane_.closing_) return;
            lane_.users_ += 1;
            token_ = lane_.token_;
        }
        ~Use()
        {
            if (token_ == nullptr) return;
            std::lock_guard<std::mutex> guard(lane_.mutex_);
            lane_.users_ -= 1;
            if (lane_.users_ == 0) lane_.changed_.notify_all();
        }
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;

        QPX_ConnToken_t token() const { return token_; }

    private:
        Lane& lane_;
        QPX_ConnToken_t token_ = nullptr;
    };

    void open()
    {
        char host[] = "127.0.0.1";
        int rc = QPX_openRemoteGatewayConnection(host, port_, &token_, 0);
        if (rc == QPX_OK) return;
        // Nothing can go on without it.
        std::fprintf(stderr, "An open returned %s. The test fails.\n", codeName(rc).c_str());
        std::_Exit(1);
    }

    using Call = int (*)(QPX_ConnToken_t, QPX_ECI_PARMS*);

    // One call of the library on the connection, whichever that is; a loss is mended before the
    // next. QPX_ERR_GWTOK_CLOSED when the lane is closing.
    int execute(EciParms& parms, Call call = QPX_ECI_Execute)
    {
        int rc = QPX_ERR_GWTOK_CLOSED;
        {
            Use use(*this);
            if (use.token() == nullptr) return rc;
            rc = call(use.token(), &parms.record);
            if (rc == QPX_ERR_LOSTGWCON) markAsLost();
        }
        mendIfLost();
        return rc;
    }

    // Only while the connection is in use: no other can have taken its place.
    void markAsLost()
    {
        std::lock_guard<std::mutex> guard(mutex_);
        lost_ = true;
    }

    // The first thread that comes here with a connection lost opens another.
    void mendIfLost()
    {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            if (!lost_ || broken_) return;
            broken_ = true;
            changed_.wait(lock, [this] { return users_ == 0; });
        }
        collectTheLost();
        close();
        open();
        record_.count(&LoadCounts::reopened);
        std::lock_guard<std::mutex> guard(mutex_);
        lost_ = false;
        broken_ = false;
        changed_.notify_all();
    }

    // Once the connection has ended, nothing comes any more and everything sent is in the queue.
    void collectTheLost()
    {
        bool taken = true;
        while (taken) {
            EciParms parms = getReplyWait(enoughRoom);
            int rc = QPX_ECI_Execute(token_, &parms.record);
            taken = isReply(parms);
            if (taken)
                settle(parms, rc);
            else if (rc != QPX_ERR_LOSTGWCON)
                record_.problem("a lost connection gave " + codeName(rc));
        }
    }

    // ---- Sending ----

    // The next call to make, 0 when all are made.
    int takeNumber()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return underWay_ < mostUnderWay || next_ == end_; });
        if (next_ == end_) return 0;
        underWay_ += 1;
        return next_++;
    }

    Kind kindOf(int number) const
    {
        if (drops_.count(number) != 0) return Kind::Drops;
        if (number % 10 == 3 || number % 20 == 8) return Kind::Abends;
        if (number % 10 == 7 || number % 20 == 18) return Kind::Refused;
        return number % 3 == 0 ? Kind::Reversed : Kind::Plain;
    }

    // A call that finds the connection lost is made again on the next one. Its qualifier.
    int sendUntilSent(int number)
    {
        EciParms parms = callOf(number);
        Call call = usesChannel(number) ? QPX_ECI_Execute_Channel : QPX_ECI_Execute;
        int rc = QPX_ERR_LOSTGWCON;
        while (rc == QPX_ERR_LOSTGWCON) rc = execute(parms, call);
        if (rc != 0) record_.problem(number, "sending returned " + codeName(rc));

        std::lock_guard<std::mutex> guard(mutex_);
        unsent_ -= 1;
        changed_.notify_all();
        return parms.record.eci_message_qualifier;
    }

    EciParms callOf(int number)
    {
        std::string question = questionOf(number);
        EciParms parms = asyncCall(programOf(kindOf(number)));
        parms.withSystem(numberText(number));
        if (!usesChannel(number)) {
            parms.withCommarea(text(question));
            return parms;
        }
        parms.record.channel = takeChannel();
        int rc = ECI_createContainer(parms.record.channel, "IN", ECI_BIT, 0, question.data(),
                                     question.size());
        if (rc != ECI_NO_ERROR) record_.problem(number, "no container: " + codeName(rc));
        return parms;
    }

    // There are as many as calls under way.
    ECI_ChannelToken_t takeChannel()
    {
        std::lock_guard<std::mutex> guard(mutex_);
        ECI_ChannelToken_t channel = channels_.back();
        channels_.pop_back();
        return channel;
    }

    void giveBack(ECI_ChannelToken_t channel)
    {
        ECI_deleteContainer(channel, "IN");
        ECI_deleteContainer(channel, "OUT");
        std::lock_guard<std::mutex> guard(mutex_);
        channels_.push_back(channel);
    }

    // ---- Collecting ----

    // Either call collects replies, whichever has sent the request.

    // Whether a collecting call has given its record away for that of an asynchronous call.
    static bool isReply(const EciParms& parms) { return parms.record.eci_call_type == ECI_ASYNC; }

    // False when the connection is being closed for good.
    bool collectIn(Way way, int qualifier)
    {
        switch (way) {
        case Way::SpecificWait: return collectSpecific(qualifier);
        case Way::SpecificPoll: return pollSpecific(qualifier);
        case Way::AnyWait: return collectAny(littleRoom);
        case Way::AnyPoll: return pollAny();
        default: return true;
        }
    }

    bool collectAny(std::size_t room)
    {
        EciParms parms = getReplyWait(room);
        int rc = execute(parms);
        if (isReply(parms)) return take(parms, rc);
        return goesOn(rc, {QPX_ERR_LOSTGWCON});
    }

    bool collectSpecific(int qualifier)
    {
        EciParms parms = getSpecificReplyWait(qualifier, enoughRoom);
        int rc = execute(parms);
        if (isReply(parms)) return take(parms, rc);
        // Another thread has taken it; the second code tells that the slot has a new request, which
        // is not sent yet.
        if (rc == ECI_ERR_INVALID_MSG_QUAL || rc == ECI_ERR_NO_REPLY)
            record_.count(&LoadCounts::byOthers);
        return goesOn(rc, {QPX_ERR_LOSTGWCON, ECI_ERR_INVALID_MSG_QUAL, ECI_ERR_NO_REPLY});
    }

    // Looks a few times, then waits.
    bool pollSpecific(int qualifier)
    {
        for (int look = 0; look < 20; ++look) {
            EciParms parms = getSpecificReply(qualifier, enoughRoom);
            int rc = execute(parms, QPX_ECI_Execute_Channel);
            if (isReply(parms)) return take(parms, rc);
            if (rc != ECI_ERR_NO_REPLY) {
                if (rc == ECI_ERR_INVALID_MSG_QUAL) record_.count(&LoadCounts::byOthers);
                return goesOn(rc, {ECI_ERR_INVALID_MSG_QUAL});
            }
            std::this_thread::yield();
        }
        return collectSpecific(qualifier);
    }

    // Takes what is there.
    bool pollAny()
    {
        while (true) {
            EciParms parms = getReply(enoughRoom);
            int rc = execute(parms, QPX_ECI_Execute_Channel);
            if (!isReply(parms)) return goesOn(rc, {ECI_ERR_NO_REPLY});
            take(parms, rc);
        }
    }

    // With a reply: settles it, or gets it with the room that it needs.
    bool take(EciParms& parms, int rc)
    {
        if (rc != ECI_ERR_INVALID_DATA_LENGTH) {
            settle(parms, rc);
            return true;
        }
        record_.count(&LoadCounts::tooSmall);
        auto needed = static_cast<std::size_t>(parms.record.eci_commarea_length);
        EciParms again = getSpecificReply(parms.record.eci_message_qualifier, needed);
        rc = execute(again);
        // Another thread may have taken it, and another request its place meanwhile.
        if (!isReply(again)) return goesOn(rc, {ECI_ERR_INVALID_MSG_QUAL, ECI_ERR_NO_REPLY});
        if (rc != ECI_ERR_INVALID_DATA_LENGTH) settle(again, rc);
        return true;
    }

    // A collecting call that has got nothing: why may be one of the codes given.
    bool goesOn(int rc, const std::set<int>& codes)
    {
        if (rc == QPX_ERR_GWTOK_CLOSED || rc == QPX_ERR_BADGWTOK) {
            std::lock_guard<std::mutex> guard(mutex_);
            if (closing_) return false;
        }
        if (codes.count(rc) == 0) record_.problem("collecting returned " + codeName(rc));
        return true;
    }

    // ---- Replies ----

    // Holds a reply against the call that it belongs to.
    void settle(EciParms& parms, int rc)
    {
        int number = std::atoi(std::string(parms.record.eci_system_name, 8).c_str());
        if (!record_.collect(number)) record_.problem(number, "collected when it was not due");
        check(number, parms, rc);
        if (usesChannel(number)) giveBack(parms.record.channel);

        std::lock_guard<std::mutex> guard(mutex_);
        if (number < youngest_) record_.count(&LoadCounts::outOfTurn);
        youngest_ = std::max(youngest_, number);
        underWay_ -= 1;
        unsettled_ -= 1;
        changed_.notify_all();
    }

    void check(int number, EciParms& parms, int rc)
    {
        Kind kind = kindOf(number);
        if (rc == QPX_ERR_LOSTGWCON) {
            record_.count(&LoadCounts::lost);
            return;
        }
        switch (kind) {
        case Kind::Abends:
            record_.count(&LoadCounts::abended);
            expect(number, rc, ECI_ERR_TRANSACTION_ABEND);
            if (std::string(parms.record.eci_abend_code, 4) != abendCodeOf(number))
                record_.problem(number, "another's abend code");
            return;
        case Kind::Refused:
            record_.count(&LoadCounts::refused);
            expect(number, rc, QPX_ERR_WORK_WAS_REFUSED);
            return;
        case Kind::Drops: expect(number, rc, QPX_ERR_LOSTGWCON); return;
        default:
            record_.count(&LoadCounts::answered);
            expect(number, rc, 0);
            checkAnswer(number, parms);
        }
    }

    void expect(int number, int rc, int expected)
    {
        if (rc != expected)
            record_.problem(number, "got " + codeName(rc) + " instead of " + codeName(expected));
    }

    void checkAnswer(int number, EciParms& parms)
    {
        std::string expected = answerOf(number);
        std::string got;
        if (usesChannel(number)) {
            record_.count(&LoadCounts::channels);
            got = dataOfOut(number, parms.record.channel);
        } else {
            got.assign(parms.area.begin(), parms.area.end());
            got.resize(static_cast<std::size_t>(parms.record.commarea_inbound_length));
        }
        if (got != expected) record_.problem(number, "got the answer " + got);
    }

    std::string dataOfOut(int number, ECI_ChannelToken_t channel)
    {
        char data[enoughRoom];
        std::size_t length = 0;
        ECI_CONTAINER_INFO info;
        if (ECI_getContainerInfo(channel, "IN", &info) != ECI_ERR_CONTAINER_NOTFOUND)
            record_.problem(number, "the question is still there");
        int rc = ECI_getContainerData(channel, "OUT", data, sizeof data, 0, &length);
        if (rc != ECI_NO_ERROR) record_.problem(number, "no answer: " + codeName(rc));
        return std::string(data, length);
    }

    const std::set<int>& drops_;
    const int port_;
    Record& record_;

    std::mutex mutex_; // of everything below
    std::condition_variable changed_;
    QPX_ConnToken_t token_ = nullptr;
    bool lost_ = false;   // somebody has found the connection lost
    bool broken_ = false; // it is being opened again
    bool closing_ = false;
    int users_ = 0;
    int next_;
    int end_;
    int unsettled_; // calls that nobody has collected yet
    int unsent_;
    int underWay_ = 0;
    int youngest_ = 0; // the highest number collected
    std::vector<ECI_ChannelToken_t> channels_;
};

} // namespace

// ---- The whole ----

class MixedLoad::Impl {
public:
    Impl(const LoadPlan& plan, int port, std::function<void()> release)
        : plan_(plan), port_(port), release_(std::move(release)), record_(plan.calls)
    {
        std::mt19937 random(plan.seed);
        while (drops_.size() < static_cast<std::size_t>(plan.drops))
            drops_.insert(1 + static_cast<int>(random() % static_cast<unsigned>(plan.calls)));
    }

    void run()
    {
        openLanes();
        startThreads();
        for (auto& lane : lanes_) lane->awaitSent();
        for (auto& lane : lanes_) lane->awaitSeen();
        release_(); // what waits for others to be reversed with
        for (auto& lane : lanes_) {
            lane->awaitSettled();
            lane->close();
        }
        for (std::thread& thread : threads_) thread.join();
        for (auto& lane : lanes_) lane->deleteChannels();
    }

    const Record& record() const { return record_; }

private:
    void openLanes()
    {
        int calls = plan_.calls / plan_.connections;
        for (int lane = 0; lane < plan_.connections; ++lane)
            lanes_.push_back(
                std::make_unique<Lane>(1 + lane * calls, calls, drops_, port_, record_));
    }

    void startThreads()
    {
        for (auto& lane : lanes_) {
            for (int sender = 0; sender < plan_.senders; ++sender) {
                auto way = static_cast<Way>((sender + 4) % numberOfWays);
                threads_.emplace_back([&lane = *lane, way] { lane.sendAndCollect(way); });
            }
            for (int collector = 0; collector < plan_.collectors; ++collector)
                threads_.emplace_back([&lane = *lane] { lane.collectWhateverComes(); });
        }
    }

    const LoadPlan plan_;
    const int port_;
    const std::function<void()> release_;
    Record record_;
    std::set<int> drops_;
    std::vector<std::unique_ptr<Lane>> lanes_;
    std::vector<std::thread> threads_;
};

MixedLoad::MixedLoad(const LoadPlan& plan, int port, std::function<void()> release)
    : impl_(std::make_unique<Impl>(plan, port, std::move(release)))
{
}

MixedLoad::~MixedLoad() = default;

void MixedLoad::run()
{
    impl_->run();
}

LoadCounts MixedLoad::counts() const
{
    return impl_->record().counts();
}

std::vector<std::string> MixedLoad::problems() const
{
    return impl_->record().problems();
}

} // namespace support
