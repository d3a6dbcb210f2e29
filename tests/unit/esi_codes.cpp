// The Gateway's security codes, turned into those of the ESI family.
#include <gtest/gtest.h>

#include <climits>

#include "clapi_esi.h"
#include "qpxclient_esi.h"
#include "support/trace_file.h"

using support::TraceFile;

namespace {

struct Mapping {
    int gatewayCode;
    int esiCode;
};

const Mapping mappings[] = {
    {-108, -300}, // user id invalid
    {-100, -301}, // no user id
    {-106, -302}, // password invalid
    {-101, -303}, // no password
    {-103, -304}, // password management not supported
    {-104, -305}, // password management not active
    {-105, -306}, // password expired
    {-27, -307},  // security error
    {-16, -308},  // resource shortage
    {-17, -309},  // no sessions
    {-3, -310},   // no server
    {-4, -311},   // server died
    {-22, -312},  // unknown server
    {-9, -313},   // system error
    {-102, -314}, // no new password
    {-107, -315}, // password rejected
    {-28, -316},  // too many systems
    {-29, -317},  // too many sessions
};

bool isMapped(int code)
{
    for (const Mapping& mapping : mappings)
        if (mapping.gatewayCode == code) return true;
    return false;
}

TEST(EsiCodes, MapsEveryCodeOfTheGateway)
{
    for (const Mapping& mapping : mappings)
        EXPECT_EQ(mapping.esiCode, mapGwyRc(mapping.gatewayCode)) << mapping.gatewayCode;
}

TEST(EsiCodes, KeepsEveryOtherCode)
{
    for (int code = -400; code <= 400; ++code) {
        if (isMapped(code)) continue;
        EXPECT_EQ(code, mapGwyRc(code));
    }
    for (int code : {INT_MIN, INT_MAX, 61444, 61445, 61446, 61450, 61451})
        EXPECT_EQ(code, mapGwyRc(code));
}

TEST(EsiCodes, KeepsSuccess)
{
    EXPECT_EQ(0, mapGwyRc(0));
}

TEST(EsiCodes, DoesNotMapWhatIsMappedAlready)
{
    for (const Mapping& mapping : mappings) EXPECT_EQ(mapping.esiCode, mapGwyRc(mapping.esiCode));
}

TEST(EsiCodes, TracesBothCodesAtLevelFour)
{
    TraceFile trace(4);

    mapGwyRc(-107);
    mapGwyRc(0);
    mapGwyRc(-5);

    ASSERT_EQ(3U, trace.records().size());
    EXPECT_TRUE(trace.wrote(1825, "DEBUG", "clapi_esi.mapGwyRc() Mapped rc=-107 to newRc=-315"));
    EXPECT_TRUE(trace.wrote(1825, "DEBUG", "clapi_esi.mapGwyRc() Mapped rc=0 to newRc=0"));
    EXPECT_TRUE(trace.wrote(1825, "DEBUG", "clapi_esi.mapGwyRc() Mapped rc=-5 to newRc=-5"));
}

TEST(EsiCodes, TracesNothingAtLevelThree)
{
    TraceFile trace(3);

    mapGwyRc(-107);

    EXPECT_EQ("", trace.text());
}

} // namespace
