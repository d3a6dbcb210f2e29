// Which locks the calls on channels take, and in which order: what keeps two threads apart for a
// few instructions does not show unless they meet there.
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/forked.h"
#include "unit/channel_fixture.h"

using namespace fixture;
using namespace support;

namespace {

using Mutex = std::uintptr_t;

// The locks that have a name, as they are taken (+) and given up (-).
class LockLog {
public:
    explicit LockLog(Threads threads = Threads::Calling)
        : taking_(afterCall(
              Call::MutexLock, 0, [this](const CallInfo& info) { note('+', info.first); },
              threads)),
          givingUp_(beforeCall(
              Call::MutexUnlock, 0, [this](const CallInfo& info) { note('-', info.first); },
              threads))
    {
    }

    void name(Mutex mutex, const std::string& text) { names_.emplace_back(mutex, text); }
    std::string text() const { return text_; }
    const std::vector<Mutex>& others() const { return others_; }

private:
    void note(char sign, Mutex mutex)
    {
        for (const auto& known : names_) {
            if (known.first != mutex) continue;
            text_ += (text_.empty() ? "" : " ") + (sign + known.second);
            return;
        }
        if (sign == '+') others_.push_back(mutex);
    }

    std::vector<std::pair<Mutex, std::string>> names_;
    std::vector<Mutex> others_;
    std::string text_;
    Fault taking_;
    Fault givingUp_;
};

Mutex asMutex(pthread_mutex_t& mutex)
{
    return reinterpret_cast<Mutex>(&mutex);
}

class ChannelGuards : public ::testing::Test {
protected:
    ChannelGuards()
    {
        settleCodePage();
        channel.addBit("FIRST", "1");
        findContainersGuard();
        findWaitersGuard();
    }

    // The names are those of a channel's locks and of the process's.
    LockLog& watch(LockLog& log, ECI_Channel_t* record) const
    {
        log.name(asMutex(chanListLock.lock), "list");
        log.name(asMutex(record->serLock.lock), "channel");
        log.name(asMutex(record->unlockEvent.mutex), "event");
        log.name(containers_, "containers");
        log.name(waiters_, "waiters");
        return log;
    }

    template <typename Function>
    std::string locksOf(ECI_Channel_t* record, Function function) const
    {
        LockLog log;
        watch(log, record);
        function();
        return log.text();
    }
    template <typename Function>
    std::string locksOf(Function function) const
    {
        return locksOf(channel.token, function);
    }

    static void deleteAll() { EXPECT_RC(0, ECI_deleteAllChannels()); }

    // A channel that a call has, which has been deleted with all others.
    ECI_ChannelToken_t deletedWhileHeld()
    {
        ECI_ChannelToken_t token = std::exchange(channel.token, nullptr);
        EXPECT_RC(0, lockChannel(token));
        deleteAll();
        return token;
    }

    Channel channel;

private:
    // What the new name of a channel is written under, and nothing else.
    void findContainersGuard()
    {
        static const char name[CHANNEL_NAME_SIZE + 1] = "ORDER           ";
        LockLog log;
        clapiRenameChannel(channel.token, name);
        ASSERT_EQ(1U, log.others().size());
        containers_ = log.others()[0];
    }

    // What is left of the locks of a deletion.
    void findWaitersGuard()
    {
        Channel other;
        LockLog log;
        watch(log, other.token);
        ASSERT_RC(0, ECI_deleteChannel(&other.token));
        ASSERT_EQ(1U, log.others().size());
        waiters_ = log.others()[0];
    }

    Mutex containers_ = 0;
    Mutex waiters_ = 0;
};

const std::string hold = "+list +channel -list +event -event -channel";
const std::string letGo = "+channel +event -event -channel";
const std::string change = "+containers -containers";

} // namespace

// ---- Containers ----

TEST_F(ChannelGuards, KeepDumpsOffAContainerThatIsAdded)
{
    // The list's lock guards the local code page, too.
    EXPECT_EQ("+list -list " + hold + " " + change + " " + letGo,
              locksOf([&] { channel.addBit("SECOND", "2"); }));
}

TEST_F(ChannelGuards, KeepDumpsOffAContainerThatIsDeleted)
{
    EXPECT_EQ(hold + " " + change + " " + letGo,
              locksOf([&] { EXPECT_RC(0, ECI_deleteContainer(channel.token, "FIRST")); }));
}

TEST_F(ChannelGuards, KeepDumpsOffDataThatIsReplaced)
{
    EXPECT_EQ(hold + " " + change + " " + letGo,
              locksOf([&] { EXPECT_RC(0, ECI_setContainerData(channel.token, "FIRST", "9", 1)); }));
}

TEST_F(ChannelGuards, KeepDumpsOffAContainerThatAReplyReplaces)
{
    ECI_Container_t replacement = *channel.token->firstCont;

    EXPECT_EQ(change,
              locksOf([&] { clapiReplaceContainer(channel.token->firstCont, &replacement); }));
}

TEST_F(ChannelGuards, AreTakenByADumpInTheirOrder)
{
    TraceFile trace(0);

    EXPECT_EQ("+list +containers -containers -list",
              locksOf([] { EXPECT_RC(0, QPX_ECI_dumpChannels()); }));
}

// ---- Waiting ----

TEST_F(ChannelGuards, AreTakenByAThreadThatHasWaited)
{
    TraceFile trace(4);
    EXPECT_RC(0, lockChannel(channel.token));
    LockLog log(Threads::Others);
    watch(log, channel.token);
    auto waiting = waiterFor(trace, channel.token, [&] { return lockChannel(channel.token); });

    EXPECT_RC(0, unlockChannel(channel.token));

    EXPECT_RC(0, waiting.get());
    // Its two lines show the channel's name.
    EXPECT_EQ("+list +channel -list +containers -containers -channel +event -event +channel "
              "+waiters -waiters +event -event +containers -containers -channel",
              log.text());
    EXPECT_RC(0, unlockChannel(channel.token));
}

// ---- Deleting ----

TEST_F(ChannelGuards, AreTakenByADeletionInTheirOrder)
{
    ECI_Channel_t* record = channel.token;

    EXPECT_EQ(hold + " +list -list " + change +       // off the list, and without its container
                  " +list +channel -channel -list " + // unknown, and deleted for who waits
                  letGo + " +waiters -waiters +channel -channel",
              locksOf(record, [&] { EXPECT_RC(0, ECI_deleteChannel(&channel.token)); }));
}

TEST_F(ChannelGuards, AreTakenByADeletionOfAll)
{
    ECI_Channel_t* record = std::exchange(channel.token, nullptr);

    EXPECT_EQ("+list +channel -channel -list " // deleted
              "+channel -channel " +           // nobody waits
                  change,
              locksOf(record, deleteAll));
}

TEST_F(ChannelGuards, AreTakenByADeletionOfAllForAChannelThatACallHas)
{
    ECI_Channel_t* record = std::exchange(channel.token, nullptr);
    EXPECT_RC(0, lockChannel(record));

    EXPECT_EQ("+list +channel -channel -list +channel -channel "
              "+list +channel -channel -list", // left to the call
              locksOf(record, deleteAll));

    EXPECT_RC(ECI_ERR_INVALID_CHANNEL, unlockChannel(record));
}

TEST_F(ChannelGuards, AreTakenForTheLinesOfADeletionOfAll)
{
    ECI_Channel_t* record = std::exchange(channel.token, nullptr);
    EXPECT_RC(0, lockChannel(record));
    TraceFile trace(4);

    // The name, the container, none behind it, and the name again.
    EXPECT_EQ("+list +channel -channel -list +channel -channel " + change + " " + change + " " +
                  change + " " + change + " +list +channel -channel -list",
              locksOf(record, deleteAll));

    EXPECT_RC(ECI_ERR_INVALID_CHANNEL, unlockChannel(record));
}

TEST_F(ChannelGuards, AreTakenByTheCallThatHasADeletedChannel)
{
    ECI_Channel_t* record = deletedWhileHeld();

    EXPECT_EQ("+list +channel -channel -list " + change,
              locksOf(record, [&] { EXPECT_RC(ECI_ERR_INVALID_CHANNEL, unlockChannel(record)); }));
}

// ---- Forks ----

TEST_F(ChannelGuards, AreTakenByAForkInTheirOrder)
{
    EXPECT_EQ("+list +containers +waiters -waiters -containers -list",
              locksOf([] { EXPECT_EQ(0, inChild([] { return 0; })); }));
}
