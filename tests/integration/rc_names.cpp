// QPX_getRcString, as applications call it.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "qpxclient.h"
#include "support/expect_rc.h"
#include "support/trace_file.h"

using namespace support;

namespace {

std::string nameOf(int rc)
{
    char name[QPX_RC_STRING_SIZE];
    std::memset(name, '#', sizeof name);
    EXPECT_EQ(name, QPX_getRcString(rc, name));
    EXPECT_NE(nullptr, std::memchr(name, '\0', sizeof name)) << rc;
    return std::string(name, strnlen(name, sizeof name));
}

} // namespace

TEST(GetRcString, NamesACodeOfEachFamily)
{
    EXPECT_EQ("QPX_ERR_NULLADDRESS", nameOf(-133));
    EXPECT_EQ("ECI_ERR_TRANSACTION_ABEND", nameOf(-7));
    EXPECT_EQ("ECI_ERR_CONTAINER_NOTFOUND", nameOf(-58));
    EXPECT_EQ("ESI_ERR_PASSWORD_REJECTED", nameOf(-315));
    EXPECT_EQ("QPX_ERR_GATEWAY_EXCEPTION", nameOf(61446));
}

TEST(GetRcString, GivesTheEarlierFamilysNameToASharedValue)
{
    EXPECT_EQ("QPX_OK", nameOf(0));
    EXPECT_EQ("QPX_ERR_SYSTEM_ERROR", nameOf(-9));
    EXPECT_EQ("QPX_ERR_NULLPTR", nameOf(-109));
    EXPECT_EQ("QPX_ERR_MALLOCFAIL", nameOf(-111));
}

TEST(GetRcString, GivesUnknownToCodesWithoutAName)
{
    EXPECT_EQ("UNKNOWN", nameOf(-135));
    EXPECT_EQ("UNKNOWN", nameOf(-136));
    EXPECT_EQ("UNKNOWN", nameOf(-317));
    EXPECT_EQ("UNKNOWN", nameOf(61447));
    EXPECT_EQ("UNKNOWN", nameOf(1));
}

TEST(GetRcString, WritesFortyBytes)
{
    char buffer[41];
    std::memset(buffer, '#', sizeof buffer);
    QPX_getRcString(0, buffer);
    EXPECT_EQ(std::string("QPX_OK") + std::string(34, '\0'), std::string(buffer, 40));
    EXPECT_EQ('#', buffer[40]);
}

TEST(GetRcString, GivesNullForNull)
{
    EXPECT_EQ(nullptr, QPX_getRcString(-9, nullptr));
}

TEST(GetRcString, IsTracedAtLevel3)
{
    TraceFile trace(3);
    char buffer[QPX_RC_STRING_SIZE];
    QPX_getRcString(-107, buffer);
    std::vector<TraceRecord> records = trace.records();
    ASSERT_EQ(2u, records.size());
    char entry[80];
    std::snprintf(entry, sizeof entry, "API.QPX_getRcString(rc=-107, rcString=%p)",
                  static_cast<void*>(buffer));
    EXPECT_EQ(1062, records[0].point);
    EXPECT_EQ("ENTRY", records[0].type);
    EXPECT_EQ(entry, records[0].message);
    EXPECT_EQ(1063, records[1].point);
    EXPECT_EQ("EXIT", records[1].type);
    EXPECT_EQ("API.QPX_getRcString() rcString=QPX_ERR_BADPORT", records[1].message);
}

TEST(GetRcString, IsTracedWithNullForNull)
{
    TraceFile trace(3);
    QPX_getRcString(-107, nullptr);
    EXPECT_TRUE(trace.wrote(1062, "ENTRY", "API.QPX_getRcString(rc=-107, rcString=(nil))"));
    EXPECT_TRUE(trace.wrote(1063, "EXIT", "API.QPX_getRcString() rcString=NULL"));
}

TEST(GetRcString, IsNotTracedAtLevel2)
{
    TraceFile trace(2);
    char buffer[QPX_RC_STRING_SIZE];
    QPX_getRcString(-107, buffer);
    EXPECT_EQ("", trace.text());
}

// A first call of any other kind would take the settings from the environment.
TEST(GetRcString, WorksBeforeTheLibraryIsInitialised)
{
    CapturedStderr output;
    setenv("QPX_CLIENT_TRACE_LEVEL", "4", 1);
    EXPECT_EQ("QPX_ERR_BADPORT", nameOf(-107));
    EXPECT_EQ("", output.text());
}
