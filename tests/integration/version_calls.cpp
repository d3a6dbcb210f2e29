// QPX_getAPIVersion and QPX_getDLLVersion.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qpxclient.h"
#include "support/expect_rc.h"
#include "support/trace_file.h"
#include "support/trace_reads.h"

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
    EXPECT_TRUE(traceReads(
        trace, {"1030 *EXC* API.QPX_getAPIVersion() Supplied pointer is NULL, apiVersPtr=(nil)"}));
}

TEST(DllVersion, NeedsSomewhereToGo)
{
    TraceFile trace(1);
    EXPECT_RC(-109, QPX_getDLLVersion(nullptr));
    EXPECT_TRUE(traceReads(
        trace, {"1033 *EXC* API.QPX_getDLLVersion() Supplied pointer is NULL, dllVersPtr=(nil)"}));
}

TEST(ApiVersion, IsTracedWithEntryAndExit)
{
    TraceFile trace(3);
    char* version = nullptr;
    EXPECT_RC(0, QPX_getAPIVersion(&version));
    EXPECT_TRUE(traceReads(trace, {"1029 ENTRY API.QPX_getAPIVersion(apiVersPtr=<ptr>)",
                                   "1031 EXIT API.QPX_getAPIVersion() rc=0 (QPX_OK)"}));
}

TEST(DllVersion, IsTracedWithEntryAndExit)
{
    TraceFile trace(3);
    char* version = nullptr;
    EXPECT_RC(0, QPX_getDLLVersion(&version));
    EXPECT_TRUE(traceReads(trace, {"1032 ENTRY API.QPX_getDLLVersion(dllVersPtr=<ptr>)",
                                   "1034 EXIT API.QPX_getDLLVersion() rc=0 (QPX_OK)"}));
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
