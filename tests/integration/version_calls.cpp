// QPX_getAPIVersion and QPX_getDLLVersion.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qpxclient.h"
#include "support/expect_rc.h"
#include "support/trace_file.h"

using namespace support;

TEST(ApiVersion, Is2300)
{
    char* version = nullptr;
    EXPECT_RC(0, QPX_getAPIVersion(&version));
    EXPECT_STREQ("2.3.0.0", version);
}

TEST(DllVersion, Is10100)
{
    char* version = nullptr;
    EXPECT_RC(0, QPX_getDLLVersion(&version));
    EXPECT_STREQ("10.1.0.0", version);
}

TEST(ApiVersion, StaysWhereItIs)
{
    char* first = nullptr;
    char* later = nullptr;
    EXPECT_RC(0, QPX_getAPIVersion(&first));
    EXPECT_RC(0, QPX_setAPITraceLevel(0));
    EXPECT_RC(0, QPX_getAPIVersion(&later));
    EXPECT_EQ(first, later);
    EXPECT_STREQ("2.3.0.0", first);
}

TEST(DllVersion, StaysWhereItIs)
{
    char* first = nullptr;
    char* later = nullptr;
    EXPECT_RC(0, QPX_getDLLVersion(&first));
    EXPECT_RC(0, QPX_setAPITraceLevel(0));
    EXPECT_RC(0, QPX_getDLLVersion(&later));
    EXPECT_EQ(first, later);
    EXPECT_STREQ("10.1.0.0", first);
}

TEST(ApiVersion, NeedsSomewhereToGo)
{
    TraceFile trace(1);
    EXPECT_RC(-109, QPX_getAPIVersion(nullptr));
    std::vector<TraceRecord> records = trace.records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(1030, records[0].point);
    EXPECT_EQ("*EXC*", records[0].type);
    EXPECT_EQ("API.QPX_getAPIVersion() Supplied pointer is NULL, apiVersPtr=(nil)",
              records[0].message);
}

TEST(DllVersion, NeedsSomewhereToGo)
{
    TraceFile trace(1);
    EXPECT_RC(-109, QPX_getDLLVersion(nullptr));
    std::vector<TraceRecord> records = trace.records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(1033, records[0].point);
    EXPECT_EQ("*EXC*", records[0].type);
    EXPECT_EQ("API.QPX_getDLLVersion() Supplied pointer is NULL, dllVersPtr=(nil)",
              records[0].message);
}

TEST(ApiVersion, IsTracedWithEntryAndExit)
{
    TraceFile trace(3);
    char* version = nullptr;
    EXPECT_RC(0, QPX_getAPIVersion(&version));
    std::vector<TraceRecord> records = trace.records();
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ(1029, records[0].point);
    EXPECT_EQ("ENTRY", records[0].type);
    EXPECT_TRUE(matches("API.QPX_getAPIVersion(apiVersPtr=<ptr>)", records[0].message));
    EXPECT_EQ(1031, records[1].point);
    EXPECT_EQ("EXIT", records[1].type);
    EXPECT_EQ("API.QPX_getAPIVersion() rc=0 (QPX_OK)", records[1].message);
}

TEST(DllVersion, IsTracedWithEntryAndExit)
{
    TraceFile trace(3);
    char* version = nullptr;
    EXPECT_RC(0, QPX_getDLLVersion(&version));
    std::vector<TraceRecord> records = trace.records();
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ(1032, records[0].point);
    EXPECT_EQ("ENTRY", records[0].type);
    EXPECT_TRUE(matches("API.QPX_getDLLVersion(dllVersPtr=<ptr>)", records[0].message));
    EXPECT_EQ(1034, records[1].point);
    EXPECT_EQ("EXIT", records[1].type);
    EXPECT_EQ("API.QPX_getDLLVersion() rc=0 (QPX_OK)", records[1].message);
}

TEST(ApiVersion, IsTracedWithItsFailureBetweenEntryAndExit)
{
    TraceFile trace(3);
    EXPECT_RC(-109, QPX_getAPIVersion(nullptr));
    EXPECT_EQ((std::vector<std::string>{
                  "API.QPX_getAPIVersion(apiVersPtr=(nil))",
                  "API.QPX_getAPIVersion() Supplied pointer is NULL, apiVersPtr=(nil)",
                  "API.QPX_getAPIVersion() rc=-109 (QPX_ERR_NULLPTR)"}),
              trace.messages());
}

TEST(DllVersion, IsTracedWithItsFailureBetweenEntryAndExit)
{
    TraceFile trace(3);
    EXPECT_RC(-109, QPX_getDLLVersion(nullptr));
    EXPECT_EQ((std::vector<std::string>{
                  "API.QPX_getDLLVersion(dllVersPtr=(nil))",
                  "API.QPX_getDLLVersion() Supplied pointer is NULL, dllVersPtr=(nil)",
                  "API.QPX_getDLLVersion() rc=-109 (QPX_ERR_NULLPTR)"}),
              trace.messages());
}
