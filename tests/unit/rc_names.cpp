// Return codes: their values, their names in each family's lookup, and the mapping of the Gateway's
// security codes.

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "clapi_eci.h"
#include "clapi_esi.h"
#include "clapi_impl.h"
#include "clapi_rc.h"
#include "eci_channel.h"
#include "qpxclient_eci.h"
#include "qpxclient_esi.h"
#include "support/expect_rc.h"
#include "support/trace_file.h"

using namespace support;

namespace {

using Names = std::map<int, std::string>;

// Everything from below the lowest code to above the highest.
constexpr int lowest = -1000;
constexpr int highest = 70000;

const Names libraryNames = {
    {0, "QPX_OK"},
    {-9, "QPX_ERR_SYSTEM_ERROR"},
    {-25, "QPX_ERR_MORE_SYSTEMS"},
    {-26, "QPX_ERR_NO_SYSTEMS"},
    {-100, "QPX_ERR_NULLGWTOK"},
    {-101, "QPX_ERR_BADGWTOK"},
    {-102, "QPX_ERR_LOSTGWCON"},
    {-103, "QPX_ERR_NULLPARM"},
    {-104, "QPX_ERR_TRACELEVEL"},
    {-107, "QPX_ERR_BADPORT"},
    {-108, "QPX_ERR_NULLGWTOKPTR"},
    {-109, "QPX_ERR_NULLPTR"},
    {-111, "QPX_ERR_MALLOCFAIL"},
    {-118, "QPX_ERR_CONNECTFAILED"},
    {-130, "QPX_ERR_TRACEFILE"},
    {-132, "QPX_ERR_BADHOST"},
    {-133, "QPX_ERR_NULLADDRESS"},
    {-134, "QPX_ERR_CONNECTTIMEOUT"},
    {-137, "QPX_ERR_NULLECIPOINTER"},
    {-138, "QPX_ERR_INVALIDTIMEOUTPARM"},
    {-139, "QPX_ERR_APPLIDTOOLONG"},
    {-140, "QPX_ERR_GWTOK_CLOSED"},
    {61444, "QPX_ERR_GATEWAY_CLOSED"},
    {61445, "QPX_ERR_WORK_WAS_REFUSED"},
    {61446, "QPX_ERR_GATEWAY_EXCEPTION"},
    {61450, "QPX_ERR_GATEWAY_BACK_LEVEL"},
    {61451, "QPX_ERR_INVALID_REQUEST_TYPE"},
};

const Names eciNames = {
    {-1, "ECI_ERR_INVALID_DATA_LENGTH"},
    {-2, "ECI_ERR_INVALID_EXTEND_MODE"},
    {-3, "ECI_ERR_NO_VORN"},
    {-4, "ECI_ERR_VORN_DIED"},
    {-5, "ECI_ERR_REQUEST_TIMEOUT"},
    {-6, "ECI_ERR_RESPONSE_TIMEOUT"},
    {-7, "ECI_ERR_TRANSACTION_ABEND"},
    {-8, "ECI_ERR_LUW_TOKEN"},
    {-9, "ECI_ERR_SYSTEM_ERROR"},
    {-14, "ECI_ERR_INVALID_CALL_TYPE"},
    {-15, "ECI_ERR_ALREADY_ACTIVE"},
    {-16, "ECI_ERR_RESOURCE_SHORTAGE"},
    {-17, "ECI_ERR_NO_SESSIONS"},
    {-19, "ECI_ERR_INVALID_DATA_AREA"},
    {-21, "ECI_ERR_INVALID_VERSION"},
    {-22, "ECI_ERR_UNKNOWN_SERVER"},
    {-27, "ECI_ERR_SECURITY_ERROR"},
    {-28, "ECI_ERR_MAX_SYSTEMS"},
    {-29, "ECI_ERR_MAX_SESSIONS"},
    {-30, "ECI_ERR_ROLLEDBACK"},
    {-32, "ECI_ERR_NO_REPLY"},
    {-33, "ECI_ERR_INVALID_MSG_QUAL"},
};

const Names channelNames = {
    {0, "ECI_NO_ERROR"},
    {-1, "ECI_ERR_INVALID_DATA_LENGTH"},
    {-9, "ECI_ERR_SYSTEM_ERROR"},
    {-50, "ECI_ERR_INVALID_CHANNEL"},
    {-51, "ECI_ERR_INVALID_NAME"},
    {-52, "ECI_ERR_NULLCHANNELPTR"},
    {-53, "ECI_ERR_CHANNELLOCKFAIL"},
    {-54, "ECI_ERR_ENDOFCONTAINERS"},
    {-55, "ECI_ERR_NULLINFOPTR"},
    {-56, "ECI_ERR_INVALID_TYPE"},
    {-58, "ECI_ERR_CONTAINER_NOTFOUND"},
    {-59, "ECI_ERR_CONTAINER_EXISTS"},
    {-60, "ECI_ERR_COMMAREA_AND_CHANNEL"},
    {-109, "ECI_ERR_NULLPTR"},
    {-111, "ECI_ERR_MEMORY_SHORTAGE"},
    {-121, "ECI_ERR_LOCKFAIL"},
};

// The ESI family by its own values. -316 and -317 have no name on purpose.
const Names esiNames = {
    {-300, "ESI_ERR_USERID_INVALID"},    {-301, "ESI_ERR_NULL_USERID"},
    {-302, "ESI_ERR_PASSWORD_INVALID"},  {-303, "ESI_ERR_NULL_PASSWORD"},
    {-304, "ESI_ERR_PEM_NOT_SUPPORTED"}, {-305, "ESI_ERR_PEM_NOT_ACTIVE"},
    {-306, "ESI_ERR_PASSWORD_EXPIRED"},  {-307, "ESI_ERR_SECURITY_ERROR"},
    {-308, "ESI_ERR_RESOURCE_SHORTAGE"}, {-309, "ESI_ERR_NO_SESSIONS"},
    {-310, "ESI_ERR_NO_VORN"},           {-311, "ESI_ERR_VORN_DIED"},
    {-312, "ESI_ERR_UNKNOWN_SERVER"},    {-313, "ESI_ERR_SYSTEM_ERROR"},
    {-314, "ESI_ERR_NULL_NEW_PASSWORD"}, {-315, "ESI_ERR_PASSWORD_REJECTED"},
};

// The same names by the Gateway's values.
const Names esiGatewayNames = {
    {-108, "ESI_ERR_USERID_INVALID"},
    {-100, "ESI_ERR_NULL_USERID"},
    {-106, "ESI_ERR_PASSWORD_INVALID"},
    {-101, "ESI_ERR_NULL_PASSWORD"},
    {-103, "ESI_ERR_PEM_NOT_SUPPORTED"},
    {-104, "ESI_ERR_PEM_NOT_ACTIVE"},
    {-105, "ESI_ERR_PASSWORD_EXPIRED"},
    {-27, "ESI_ERR_SECURITY_ERROR"},
    {-16, "ESI_ERR_RESOURCE_SHORTAGE"},
    {-17, "ESI_ERR_NO_SESSIONS"},
    {-3, "ESI_ERR_NO_VORN"},
    {-4, "ESI_ERR_VORN_DIED"},
    {-22, "ESI_ERR_UNKNOWN_SERVER"},
    {-9, "ESI_ERR_SYSTEM_ERROR"},
    {-102, "ESI_ERR_NULL_NEW_PASSWORD"},
    {-107, "ESI_ERR_PASSWORD_REJECTED"},
    {-28, "ESI_ERR_MAX_SYSTEMS"},
    {-29, "ESI_ERR_MAX_SESSIONS"},
};

const std::map<int, int> gatewayToEsi = {
    {-108, -300}, {-100, -301}, {-106, -302}, {-101, -303}, {-103, -304}, {-104, -305},
    {-105, -306}, {-27, -307},  {-16, -308},  {-17, -309},  {-3, -310},   {-4, -311},
    {-22, -312},  {-9, -313},   {-102, -314}, {-107, -315}, {-28, -316},  {-29, -317},
};

template <typename Lookup>
void expectNames(const Names& expected, Lookup lookup)
{
    for (const auto& row : expected) EXPECT_EQ(row.second, lookup(row.first)) << row.first;
}

// Every code that the table does not have is "UNKNOWN".
template <typename Lookup>
void expectUnknownOutside(const Names& known, Lookup lookup)
{
    for (int rc = lowest; rc <= highest; ++rc) {
        if (known.count(rc) != 0) continue;
        ASSERT_STREQ("UNKNOWN", lookup(rc)) << rc;
    }
}

// What the lookup through all families gives, written out where families share a value.
Names allNames()
{
    Names all = {
        {-50, "ECI_ERR_INVALID_CHANNEL"},   {-51, "ECI_ERR_INVALID_NAME"},
        {-52, "ECI_ERR_NULLCHANNELPTR"},    {-53, "ECI_ERR_CHANNELLOCKFAIL"},
        {-54, "ECI_ERR_ENDOFCONTAINERS"},   {-55, "ECI_ERR_NULLINFOPTR"},
        {-56, "ECI_ERR_INVALID_TYPE"},      {-58, "ECI_ERR_CONTAINER_NOTFOUND"},
        {-59, "ECI_ERR_CONTAINER_EXISTS"},  {-60, "ECI_ERR_COMMAREA_AND_CHANNEL"},
        {-105, "ESI_ERR_PASSWORD_EXPIRED"}, {-106, "ESI_ERR_PASSWORD_INVALID"},
        {-121, "ECI_ERR_LOCKFAIL"},
    };
    all.insert(libraryNames.begin(), libraryNames.end());
    all.insert(eciNames.begin(), eciNames.end());
    all.insert(esiNames.begin(), esiNames.end());
    return all;
}

} // namespace

// ---- Values ------------------------------------------------------------------------------------

TEST(RcValues, AreThoseOfTheLibraryFamily)
{
    EXPECT_EQ(0, QPX_OK);
    EXPECT_EQ(-9, QPX_ERR_SYSTEM_ERROR);
    EXPECT_EQ(-25, QPX_ERR_MORE_SYSTEMS);
    EXPECT_EQ(-26, QPX_ERR_NO_SYSTEMS);
    EXPECT_EQ(-100, QPX_ERR_NULLGWTOK);
    EXPECT_EQ(-101, QPX_ERR_BADGWTOK);
    EXPECT_EQ(-102, QPX_ERR_LOSTGWCON);
    EXPECT_EQ(-103, QPX_ERR_NULLPARM);
    EXPECT_EQ(-104, QPX_ERR_TRACELEVEL);
    EXPECT_EQ(-107, QPX_ERR_BADPORT);
    EXPECT_EQ(-108, QPX_ERR_NULLGWTOKPTR);
    EXPECT_EQ(-109, QPX_ERR_NULLPTR);
    EXPECT_EQ(-111, QPX_ERR_MALLOCFAIL);
    EXPECT_EQ(-118, QPX_ERR_CONNECTFAILED);
    EXPECT_EQ(-130, QPX_ERR_TRACEFILE);
    EXPECT_EQ(-132, QPX_ERR_BADHOST);
    EXPECT_EQ(-133, QPX_ERR_NULLADDRESS);
    EXPECT_EQ(-134, QPX_ERR_CONNECTTIMEOUT);
    EXPECT_EQ(-137, QPX_ERR_NULLECIPOINTER);
    EXPECT_EQ(-138, QPX_ERR_INVALIDTIMEOUTPARM);
    EXPECT_EQ(-139, QPX_ERR_APPLIDTOOLONG);
    EXPECT_EQ(-140, QPX_ERR_GWTOK_CLOSED);
    EXPECT_EQ(0xF004, QPX_ERR_GATEWAY_CLOSED);
    EXPECT_EQ(0xF005, QPX_ERR_WORK_WAS_REFUSED);
    EXPECT_EQ(0xF006, QPX_ERR_GATEWAY_EXCEPTION);
    EXPECT_EQ(0xF00A, QPX_ERR_GATEWAY_BACK_LEVEL);
    EXPECT_EQ(0xF00B, QPX_ERR_INVALID_REQUEST_TYPE);
}

TEST(RcValues, AreThoseOfTheEciFamily)
{
    EXPECT_EQ(0, ECI_NO_ERROR);
    EXPECT_EQ(-1, ECI_ERR_INVALID_DATA_LENGTH);
    EXPECT_EQ(-2, ECI_ERR_INVALID_EXTEND_MODE);
    EXPECT_EQ(-3, ECI_ERR_NO_VORN);
    EXPECT_EQ(-4, ECI_ERR_VORN_DIED);
    EXPECT_EQ(-5, ECI_ERR_REQUEST_TIMEOUT);
    EXPECT_EQ(-6, ECI_ERR_RESPONSE_TIMEOUT);
    EXPECT_EQ(-7, ECI_ERR_TRANSACTION_ABEND);
    EXPECT_EQ(-8, ECI_ERR_LUW_TOKEN);
    EXPECT_EQ(-9, ECI_ERR_SYSTEM_ERROR);
    EXPECT_EQ(-14, ECI_ERR_INVALID_CALL_TYPE);
    EXPECT_EQ(-15, ECI_ERR_ALREADY_ACTIVE);
    EXPECT_EQ(-16, ECI_ERR_RESOURCE_SHORTAGE);
    EXPECT_EQ(-17, ECI_ERR_NO_SESSIONS);
    EXPECT_EQ(-19, ECI_ERR_INVALID_DATA_AREA);
    EXPECT_EQ(-21, ECI_ERR_INVALID_VERSION);
    EXPECT_EQ(-22, ECI_ERR_UNKNOWN_SERVER);
    EXPECT_EQ(-27, ECI_ERR_SECURITY_ERROR);
    EXPECT_EQ(-28, ECI_ERR_MAX_SYSTEMS);
    EXPECT_EQ(-29, ECI_ERR_MAX_SESSIONS);
    EXPECT_EQ(-30, ECI_ERR_ROLLEDBACK);
    EXPECT_EQ(-32, ECI_ERR_NO_REPLY);
    EXPECT_EQ(-33, ECI_ERR_INVALID_MSG_QUAL);
}

TEST(RcValues, AreThoseOfTheChannelFamily)
{
    EXPECT_EQ(-50, ECI_ERR_INVALID_CHANNEL);
    EXPECT_EQ(-51, ECI_ERR_INVALID_NAME);
    EXPECT_EQ(-52, ECI_ERR_NULLCHANNELPTR);
    EXPECT_EQ(-53, ECI_ERR_CHANNELLOCKFAIL);
    EXPECT_EQ(-54, ECI_ERR_ENDOFCONTAINERS);
    EXPECT_EQ(-55, ECI_ERR_NULLINFOPTR);
    EXPECT_EQ(-56, ECI_ERR_INVALID_TYPE);
    EXPECT_EQ(-58, ECI_ERR_CONTAINER_NOTFOUND);
    EXPECT_EQ(-59, ECI_ERR_CONTAINER_EXISTS);
    EXPECT_EQ(-60, ECI_ERR_COMMAREA_AND_CHANNEL);
    EXPECT_EQ(-109, ECI_ERR_NULLPTR);
    EXPECT_EQ(-111, ECI_ERR_MEMORY_SHORTAGE);
    EXPECT_EQ(-121, ECI_ERR_LOCKFAIL);
}

TEST(RcValues, AreThoseOfTheEsiFamily)
{
    EXPECT_EQ(-300, ESI_ERR_USERID_INVALID);
    EXPECT_EQ(-301, ESI_ERR_NULL_USERID);
    EXPECT_EQ(-302, ESI_ERR_PASSWORD_INVALID);
    EXPECT_EQ(-303, ESI_ERR_NULL_PASSWORD);
    EXPECT_EQ(-304, ESI_ERR_PEM_NOT_SUPPORTED);
    EXPECT_EQ(-305, ESI_ERR_PEM_NOT_ACTIVE);
    EXPECT_EQ(-306, ESI_ERR_PASSWORD_EXPIRED);
    EXPECT_EQ(-307, ESI_ERR_SECURITY_ERROR);
    EXPECT_EQ(-308, ESI_ERR_RESOURCE_SHORTAGE);
    EXPECT_EQ(-309, ESI_ERR_NO_SESSIONS);
    EXPECT_EQ(-310, ESI_ERR_NO_VORN);
    EXPECT_EQ(-311, ESI_ERR_VORN_DIED);
    EXPECT_EQ(-312, ESI_ERR_UNKNOWN_SERVER);
    EXPECT_EQ(-313, ESI_ERR_SYSTEM_ERROR);
    EXPECT_EQ(-314, ESI_ERR_NULL_NEW_PASSWORD);
    EXPECT_EQ(-315, ESI_ERR_PASSWORD_REJECTED);
    EXPECT_EQ(-316, ESI_ERR_MAX_SYSTEMS);
    EXPECT_EQ(-317, ESI_ERR_MAX_SESSIONS);
}

TEST(RcValues, OfCallTypesAreOneToSix)
{
    EXPECT_EQ(1, ECI_SYNC);
    EXPECT_EQ(2, ECI_ASYNC);
    EXPECT_EQ(3, ECI_GET_REPLY);
    EXPECT_EQ(4, ECI_GET_REPLY_WAIT);
    EXPECT_EQ(5, ECI_GET_SPECIFIC_REPLY);
    EXPECT_EQ(6, ECI_GET_SPECIFIC_REPLY_WAIT);
}

// ---- clapiGetRcString --------------------------------------------------------------------------

TEST(RcString, NamesEveryCodeOfTheLibraryFamily)
{
    expectNames(libraryNames, clapiGetRcString);
}

TEST(RcString, NamesTheEciCodesThatTheLibraryFamilyDoesNotHave)
{
    Names expected = eciNames;
    expected[-9] = "QPX_ERR_SYSTEM_ERROR";
    expectNames(expected, clapiGetRcString);
}

TEST(RcString, NamesTheChannelCodesThatNoEarlierFamilyHas)
{
    Names expected = channelNames;
    expected[0] = "QPX_OK";
    expected[-9] = "QPX_ERR_SYSTEM_ERROR";
    expected[-109] = "QPX_ERR_NULLPTR";
    expected[-111] = "QPX_ERR_MALLOCFAIL";
    expectNames(expected, clapiGetRcString);
}

TEST(RcString, NamesTheEsiCodes)
{
    expectNames(esiNames, clapiGetRcString);
}

TEST(RcString, NamesTheGatewaysSecurityCodesOnlyWhereNoEarlierFamilyHasThem)
{
    EXPECT_STREQ("ESI_ERR_PASSWORD_EXPIRED", clapiGetRcString(-105));
    EXPECT_STREQ("ESI_ERR_PASSWORD_INVALID", clapiGetRcString(-106));
    EXPECT_STREQ("QPX_ERR_BADPORT", clapiGetRcString(-107));
    EXPECT_STREQ("ECI_ERR_MAX_SYSTEMS", clapiGetRcString(-28));
}

TEST(RcString, HasNoNameForTheTwoLastEsiCodes)
{
    EXPECT_STREQ("UNKNOWN", clapiGetRcString(-316));
    EXPECT_STREQ("UNKNOWN", clapiGetRcString(-317));
}

TEST(RcString, HasNoNameForTheNeighboursOfKnownCodes)
{
    EXPECT_STREQ("UNKNOWN", clapiGetRcString(-135));
    EXPECT_STREQ("UNKNOWN", clapiGetRcString(-136));
    EXPECT_STREQ("UNKNOWN", clapiGetRcString(61443));
    EXPECT_STREQ("UNKNOWN", clapiGetRcString(61447));
    EXPECT_STREQ("UNKNOWN", clapiGetRcString(61449));
    EXPECT_STREQ("UNKNOWN", clapiGetRcString(61452));
    EXPECT_STREQ("UNKNOWN", clapiGetRcString(1));
    EXPECT_STREQ("UNKNOWN", clapiGetRcString(-299));
}

TEST(RcString, IsUnknownForEveryOtherCode)
{
    expectUnknownOutside(allNames(), clapiGetRcString);
    EXPECT_STREQ("UNKNOWN", clapiGetRcString(2147483647));
    EXPECT_STREQ("UNKNOWN", clapiGetRcString(-2147483647 - 1));
}

// ---- The lookups of the families ---------------------------------------------------------------

TEST(RcStringEci, NamesEveryEciCode)
{
    expectNames(eciNames, clapiGetRcStringECI);
}

TEST(RcStringEci, PassesOtherCodesOnToTheChannelFamily)
{
    expectNames(channelNames, clapiGetRcStringECI);
}

TEST(RcStringEci, IsUnknownForEveryOtherCode)
{
    Names known = eciNames;
    known.insert(channelNames.begin(), channelNames.end());
    expectUnknownOutside(known, clapiGetRcStringECI);
}

TEST(RcStringChannel, NamesEveryChannelCode)
{
    expectNames(channelNames, clapiGetRcStringChannel);
}

TEST(RcStringChannel, IsUnknownForEveryOtherCode)
{
    expectUnknownOutside(channelNames, clapiGetRcStringChannel);
}

TEST(RcStringEsi, NamesEveryEsiCode)
{
    expectNames(esiNames, clapiGetRcStringESI);
}

TEST(RcStringEsi, NamesEveryCodeOfTheGateway)
{
    expectNames(esiGatewayNames, clapiGetRcStringESI);
}

TEST(RcStringEsi, HasNoNameForTheTwoLastEsiCodes)
{
    EXPECT_STREQ("UNKNOWN", clapiGetRcStringESI(-316));
    EXPECT_STREQ("UNKNOWN", clapiGetRcStringESI(-317));
}

TEST(RcStringEsi, IsUnknownForEveryOtherCode)
{
    Names known = esiNames;
    known.insert(esiGatewayNames.begin(), esiGatewayNames.end());
    expectUnknownOutside(known, clapiGetRcStringESI);
}

TEST(RcUnknown, IsTheTextUnknown)
{
    EXPECT_STREQ("UNKNOWN", UNKNOWN_RC_STR);
}

// ---- Call types --------------------------------------------------------------------------------

TEST(CallTypeString, NamesTheSixCallTypes)
{
    EXPECT_STREQ("ECI_SYNC", getCallTypeString(1));
    EXPECT_STREQ("ECI_ASYNC", getCallTypeString(2));
    EXPECT_STREQ("ECI_GET_REPLY", getCallTypeString(3));
    EXPECT_STREQ("ECI_GET_REPLY_WAIT", getCallTypeString(4));
    EXPECT_STREQ("ECI_GET_SPECIFIC_REPLY", getCallTypeString(5));
    EXPECT_STREQ("ECI_GET_SPECIFIC_REPLY_WAIT", getCallTypeString(6));
}

TEST(CallTypeString, IsUnknownForEveryOtherNumber)
{
    EXPECT_STREQ("UNKNOWN", getCallTypeString(0));
    EXPECT_STREQ("UNKNOWN", getCallTypeString(7));
    EXPECT_STREQ("UNKNOWN", getCallTypeString(-1));
    EXPECT_STREQ("UNKNOWN", getCallTypeString(32767));
}

// ---- mapGwyRc ----------------------------------------------------------------------------------

TEST(MapGatewayRc, GivesTheEsiCodeForEachCodeOfTheGateway)
{
    for (const auto& row : gatewayToEsi) EXPECT_EQ(row.second, mapGwyRc(row.first)) << row.first;
}

TEST(MapGatewayRc, LeavesEveryOtherCodeUnchanged)
{
    for (int rc = lowest; rc <= highest; ++rc) {
        if (gatewayToEsi.count(rc) != 0) continue;
        ASSERT_EQ(rc, mapGwyRc(rc));
    }
}

TEST(MapGatewayRc, LeavesSuccessUnchanged)
{
    EXPECT_EQ(0, mapGwyRc(0));
}

TEST(MapGatewayRc, TracesTheMappingAtLevel4)
{
    TraceFile trace(4);
    mapGwyRc(-29);
    EXPECT_TRUE(trace.wrote(1825, "DEBUG", "clapi_esi.mapGwyRc() Mapped rc=-29 to newRc=-317"));
}

TEST(MapGatewayRc, TracesAnUnchangedCodeAsWell)
{
    TraceFile trace(4);
    mapGwyRc(0);
    EXPECT_TRUE(trace.wrote(1825, "DEBUG", "clapi_esi.mapGwyRc() Mapped rc=0 to newRc=0"));
}

TEST(MapGatewayRc, TracesNothingAtLevel3)
{
    TraceFile trace(3);
    mapGwyRc(-29);
    EXPECT_EQ("", trace.text());
}

// ---- QPX_getRcString, seen from inside ---------------------------------------------------------

TEST(GetRcString, DoesNotInitialiseTheLibrary)
{
    char name[40];
    EXPECT_STREQ("QPX_ERR_BADPORT", QPX_getRcString(-107, name));
    EXPECT_EQ(0, clapiState);
}
