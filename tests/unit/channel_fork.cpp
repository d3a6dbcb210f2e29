// A fork while another thread waits in a deletion: the child's own deletions wait, and go on.
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <string>

#include "support/forked.h"
#include "unit/channel_fixture.h"

using namespace fixture;
using namespace support;

namespace {

// Whether a thread of this process sleeps in the system.
bool sleeps(pid_t thread)
{
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string line;
    std::getline(file, line);
    std::size_t behindTheName = line.rfind(')');
    return behindTheName != std::string::npos && line.compare(behindTheName, 3, ") S") == 0;
}

// A channel whose deletion waits for somebody who is in a wait for it, and sleeps: only then the
// condition has it among those who wait.
class SleepingDeletion {
public:
    SleepingDeletion()
    {
        EXPECT_RC(0, ECI_createChannel("DELETED", &channel_));
        record_ = channel_;
        record_->waiters = 1; // in the place of a thread that has not left its wait yet
        int waits = callCount(Call::CondWait);
        call_ = std::make_unique<RunningCall<int>>(callInThread([this] {
            thread_ = gettid();
            return ECI_deleteChannel(&channel_);
        }));
        EXPECT_TRUE(awaitCallCount(Call::CondWait, waits + 1));
        while (!sleeps(thread_)) sched_yield();
    }

    // The last who waited leaves; the deletion is woken by whoever leaves a wait for any channel.
    int end()
    {
        record_->waiters = 0;
        leaveAnyWait();
        return call_->get();
    }

private:
    static void leaveAnyWait()
    {
        ECI_ChannelToken_t other = nullptr;
        EXPECT_RC(0, ECI_createChannel("OTHER", &other));
        EXPECT_EQ(0, lockChannel(other));
        int waits = callCount(Call::CondWait);
        auto waiting = callInThread([other] { return lockChannel(other); });
        EXPECT_TRUE(awaitCallCount(Call::CondWait, waits + 1));
        EXPECT_EQ(0, unlockChannel(other));
        EXPECT_EQ(0, waiting.get());
        EXPECT_EQ(0, unlockChannel(other));
        EXPECT_RC(0, ECI_deleteChannel(&other));
    }

    ECI_ChannelToken_t channel_ = nullptr;
    ECI_Channel_t* record_ = nullptr;
    std::atomic<pid_t> thread_{0};
    std::unique_ptr<RunningCall<int>> call_;
};

} // namespace

// A failed expectation of the child is told by its exit code alone.
TEST(ForkedDuringADeletion, GivesAChildWhoseDeletionsWaitOneAfterTheOther)
{
    SleepingDeletion ofTheParent;

    EXPECT_EQ(0, inChild([] {
                  for (int i = 1; i <= 4; ++i)
                      if (SleepingDeletion().end() != 0) return i;
                  return ::testing::Test::HasFailure() ? 99 : 0;
              }));

    EXPECT_RC(0, ofTheParent.end());
}
