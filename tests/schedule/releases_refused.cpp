// The point by which other tests here see that a lock is given up by who does not hold it.
#include <gtest/gtest.h>

#include "clapi_lock.h"
#include "schedule/scheduler.h"
#include "support/mutex.h"

// The thread sanitizer tells of such a release by itself, and takes it for a mistake.
#ifndef __SANITIZE_THREAD__

namespace {

TEST(RefusedRelease, IsSeenAtItsPoint)
{
    Clapilock lock = {};
    ASSERT_EQ(0, clapiInitializeLock(&lock));
    ASSERT_TRUE(support::makeStrict(lock.lock));
    schedule::Counter refused(SchedulePoint::releaseRefused, &lock);

    EXPECT_EQ(0, clapiRequestLock(&lock));
    EXPECT_EQ(0, clapiReleaseLock(&lock));
    EXPECT_EQ(0, refused.times());

    EXPECT_EQ(-1, clapiReleaseLock(&lock));
    EXPECT_EQ(1, refused.times());
    EXPECT_EQ(0, clapiDestroyLock(&lock));
}

} // namespace

#endif
