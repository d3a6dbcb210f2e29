// Return codes compared and, when they differ, named.
#ifndef SUPPORT_EXPECT_RC_H
#define SUPPORT_EXPECT_RC_H

#include <gtest/gtest.h>

#include <string>

#include "qpxclient.h"

namespace support {

inline std::string rcName(int rc)
{
    char name[QPX_RC_STRING_SIZE] = "";
    QPX_getRcString(rc, name);
    return std::to_string(rc) + " (" + name + ")";
}

inline ::testing::AssertionResult sameRc(const char*, const char* actualText, int expected,
                                         int actual)
{
    if (expected == actual) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << actualText << "\n  returned: " << rcName(actual)
                                         << "\n  expected: " << rcName(expected);
}

} // namespace support

#define EXPECT_RC(expected, expression) \
    EXPECT_PRED_FORMAT2(::support::sameRc, (expected), (expression))
#define ASSERT_RC(expected, expression) \
    ASSERT_PRED_FORMAT2(::support::sameRc, (expected), (expression))

#endif
