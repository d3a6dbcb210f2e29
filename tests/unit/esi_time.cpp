// Converting a time needs no library that is initialised.
#include <gtest/gtest.h>

#include "clapi_impl.h"
#include "qpxclient_esi.h"

namespace {

TEST(EsiTimeAlone, DoesNotInitialiseTheLibrary)
{
    ESI_DATETIME time{2024, 2, 1, 13, 14, 15, 16};
    tm result;

    EXPECT_EQ(&result, QPX_ESI_convertTime(&time, &result));

    EXPECT_EQ(61, result.tm_yday);
    EXPECT_EQ(0, clapiState);
}

} // namespace
