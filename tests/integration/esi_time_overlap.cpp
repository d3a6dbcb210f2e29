// A time and its conversion in one storage.
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>

#include "qpxclient_esi.h"

namespace {

union TimeAndResult {
    ESI_DATETIME time;
    tm result;
};

TEST(EsiTime, IsConvertedInItsOwnStorage)
{
    TimeAndResult shared;
    std::memset(&shared, 0, sizeof shared);
    shared.time = ESI_DATETIME{2024, 2, 1, 13, 14, 15, 16};

    EXPECT_EQ(&shared.result, QPX_ESI_convertTime(&shared.time, &shared.result));

    EXPECT_EQ(124, shared.result.tm_year);
    EXPECT_EQ(2, shared.result.tm_mon);
    EXPECT_EQ(1, shared.result.tm_mday);
    EXPECT_EQ(13, shared.result.tm_hour);
    EXPECT_EQ(14, shared.result.tm_min);
    EXPECT_EQ(15, shared.result.tm_sec);
    EXPECT_EQ(61, shared.result.tm_yday);
    EXPECT_EQ(-1, shared.result.tm_isdst);
}

} // namespace
