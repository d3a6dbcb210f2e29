// Tokens that are off the list while calls are still inside them.
#include <gtest/gtest.h>

#include "clapi_departed.h"
#include "clapi_gwytok.h"
#include "clapi_impl.h"
#include "support/expect_rc.h"

namespace {

class LeavingToken : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_RC(QPX_OK, clapiInit()); }

    _QPX_ConnToken_t first = {};
    _QPX_ConnToken_t second = {};
    _QPX_ConnToken_t third = {};
};

} // namespace

TEST_F(LeavingToken, IsKnownAmongOthersUntilItsLastCallHasLeft)
{
    LockGuard list(gtlLock);
    clapiBeginLeaving(&first);
    clapiBeginLeaving(&second);
    EXPECT_TRUE(clapiHasLeft(&first));
    EXPECT_TRUE(clapiHasLeft(&second));
    EXPECT_FALSE(clapiHasLeft(&third));

    clapiEndLeaving(&first); // not the one that began last
    EXPECT_FALSE(clapiHasLeft(&first));
    EXPECT_TRUE(clapiHasLeft(&second));

    clapiEndLeaving(&second);
    EXPECT_FALSE(clapiHasLeft(&second));
}
