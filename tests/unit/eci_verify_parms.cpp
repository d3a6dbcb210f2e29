// The check of a caller's record before anything is sent: every rule on both sides of its limit,
// its exact line, and the order of the rules.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "clapi_eci.h"
#include "support/eci_parms.h"
#include "support/expect_rc.h"
#include "support/trace_file.h"

using support::asyncCall;
using support::eciCall;
using support::EciParms;
using support::filled;
using support::shown;
using support::syncCall;
using support::TraceFile;

namespace {

constexpr int executeMinimum = 3; // the smallest version that COMMAREA calls take
constexpr int channelMinimum = 4; // and that channel calls take

class VerifyEciParms : public ::testing::Test {
protected:
    VerifyEciParms() : parms(syncCall("PROG", filled(8, 'x'))) {}

    QPX_ECI_PARMS& record() { return parms.record; }

    int verify(int minVersion = executeMinimum)
    {
        return verifyEciParms(&parms.record, minVersion);
    }

    // The rule's line, and no other failure.
    void expectOnlyLine(int point, const std::string& function)
    {
        std::string message = "clapi_eci.verifyEciParms() " + function;
        EXPECT_TRUE(trace.wrote(point, "*EXC*", message)) << trace.text();
        EXPECT_EQ(1, trace.timesWroteText("*EXC*")) << trace.text();
    }

    std::string at() { return "EciParms=" + shown(&parms.record); }

    TraceFile trace{1};
    EciParms parms;
};

} // namespace

// ---- Rule 1: the range of versions ----

TEST_F(VerifyEciParms, RefusesAVersionBelowTheMinimumOfCommareaCalls)
{
    record().eci_version = 2;
    EXPECT_RC(ECI_ERR_INVALID_VERSION, verify());
    expectOnlyLine(1549, "Invalid ECI Version, " + at() + ", eci_version=2");
}

TEST_F(VerifyEciParms, AcceptsTheMinimumVersionOfCommareaCalls)
{
    record().eci_version = 3;
    EXPECT_RC(ECI_NO_ERROR, verify());
    EXPECT_EQ("", trace.text());
}

TEST_F(VerifyEciParms, RefusesAVersionBelowTheMinimumOfChannelCalls)
{
    record().eci_version = 3;
    EXPECT_RC(ECI_ERR_INVALID_VERSION, verify(channelMinimum));
    expectOnlyLine(1549, "Invalid ECI Version, " + at() + ", eci_version=3");
}

TEST_F(VerifyEciParms, AcceptsTheMinimumVersionOfChannelCalls)
{
    record().eci_version = 4;
    EXPECT_RC(ECI_NO_ERROR, verify(channelMinimum));
}

TEST_F(VerifyEciParms, AcceptsTheNewestVersion)
{
    record().eci_version = 6;
    EXPECT_RC(ECI_NO_ERROR, verify());
    EXPECT_RC(ECI_NO_ERROR, verify(channelMinimum));
}

TEST_F(VerifyEciParms, RefusesAVersionAboveTheNewest)
{
    record().eci_version = 7;
    EXPECT_RC(ECI_ERR_INVALID_VERSION, verify());
    expectOnlyLine(1549, "Invalid ECI Version, " + at() + ", eci_version=7");
    EXPECT_RC(ECI_ERR_INVALID_VERSION, verify(channelMinimum));
}

TEST_F(VerifyEciParms, RefusesTheLargestVersion)
{
    record().eci_version = std::numeric_limits<short>::max();
    EXPECT_RC(ECI_ERR_INVALID_VERSION, verify());
    expectOnlyLine(1549, "Invalid ECI Version, " + at() + ", eci_version=32767");
}

TEST_F(VerifyEciParms, RefusesVersionZero)
{
    record().eci_version = 0;
    EXPECT_RC(ECI_ERR_INVALID_VERSION, verify());
    expectOnlyLine(1549, "Invalid ECI Version, " + at() + ", eci_version=0");
}

TEST_F(VerifyEciParms, AcceptsANegativeVersionForASynchronousCall)
{
    record().eci_version = -1;
    EXPECT_RC(ECI_NO_ERROR, verify());
    record().eci_version = std::numeric_limits<short>::min();
    EXPECT_RC(ECI_NO_ERROR, verify());
    EXPECT_RC(ECI_NO_ERROR, verify(channelMinimum));
}

// ---- Rule 2: the call type ----

TEST_F(VerifyEciParms, RefusesCallTypeZero)
{
    record().eci_call_type = 0;
    EXPECT_RC(ECI_ERR_INVALID_CALL_TYPE, verify());
    expectOnlyLine(1550, "Invalid Call Type, " + at() + ", eci_call_type=0");
}

TEST_F(VerifyEciParms, RefusesCallTypeSeven)
{
    record().eci_call_type = 7;
    EXPECT_RC(ECI_ERR_INVALID_CALL_TYPE, verify());
    expectOnlyLine(1550, "Invalid Call Type, " + at() + ", eci_call_type=7");
}

TEST_F(VerifyEciParms, RefusesANegativeCallType)
{
    record().eci_call_type = -1;
    EXPECT_RC(ECI_ERR_INVALID_CALL_TYPE, verify());
    expectOnlyLine(1550, "Invalid Call Type, " + at() + ", eci_call_type=-1");
}

TEST_F(VerifyEciParms, RefusesTheSmallestCallType)
{
    record().eci_call_type = std::numeric_limits<short>::min();
    EXPECT_RC(ECI_ERR_INVALID_CALL_TYPE, verify());
    expectOnlyLine(1550, "Invalid Call Type, " + at() + ", eci_call_type=-32768");
}

TEST_F(VerifyEciParms, AcceptsEveryCallTypeFromOneToSix)
{
    for (short callType = 1; callType <= 6; ++callType) {
        record().eci_call_type = callType;
        EXPECT_RC(ECI_NO_ERROR, verify()) << callType;
    }
}

TEST_F(VerifyEciParms, ChecksNoExtendModeAfterAnInvalidCallType)
{
    record().eci_call_type = 7;
    record().eci_extend_mode = 3;
    EXPECT_RC(ECI_ERR_INVALID_CALL_TYPE, verify());
    expectOnlyLine(1550, "Invalid Call Type, " + at() + ", eci_call_type=7");
}

// ---- Step 3: the name of the call type ----

TEST_F(VerifyEciParms, NamesEachCallTypeAtLevelFour)
{
    const std::vector<std::string> names = {"ECI_SYNC",
                                            "ECI_ASYNC",
                                            "ECI_GET_REPLY",
                                            "ECI_GET_REPLY_WAIT",
                                            "ECI_GET_SPECIFIC_REPLY",
                                            "ECI_GET_SPECIFIC_REPLY_WAIT"};
    QPX_setAPITraceLevel(4);
    for (std::size_t index = 0; index < names.size(); ++index) {
        record().eci_call_type = static_cast<short>(index + 1);
        trace.forget();
        verify();
        EXPECT_TRUE(
            trace.wrote(1551, "DEBUG", "clapi_eci.verifyEciParms() Call type is " + names[index]))
            << trace.text();
    }
}

TEST_F(VerifyEciParms, NamesNoCallTypeAtLevelThree)
{
    QPX_setAPITraceLevel(3);
    trace.forget();
    verify();
    EXPECT_EQ(0, trace.timesWrote(1551));
}

TEST_F(VerifyEciParms, NamesTheCallTypeBeforeItsVersionIsChecked)
{
    QPX_setAPITraceLevel(4);
    trace.forget();
    record().eci_call_type = ECI_ASYNC;
    record().eci_version = 5;
    EXPECT_RC(ECI_ERR_INVALID_VERSION, verify());
    EXPECT_EQ(1, trace.timesWrote(1551));
}

TEST_F(VerifyEciParms, NamesNoCallTypeThatIsInvalid)
{
    QPX_setAPITraceLevel(4);
    trace.forget();
    record().eci_call_type = 7;
    verify();
    EXPECT_EQ(0, trace.timesWrote(1551));
}

// ---- Rule 4: the version for the call type ----

TEST_F(VerifyEciParms, RefusesVersionFiveForEveryCallTypeButSynchronous)
{
    for (short callType = 2; callType <= 6; ++callType) {
        record().eci_call_type = callType;
        record().eci_version = 5;
        trace.forget();
        EXPECT_RC(ECI_ERR_INVALID_VERSION, verify()) << callType;
        expectOnlyLine(1552, "Invalid ECI Version, " + at() + ", eci_version=5");
    }
}

TEST_F(VerifyEciParms, RefusesANegativeVersionForAnAsynchronousCall)
{
    record().eci_call_type = ECI_ASYNC;
    record().eci_version = -1;
    EXPECT_RC(ECI_ERR_INVALID_VERSION, verify());
    expectOnlyLine(1552, "Invalid ECI Version, " + at() + ", eci_version=-1");
}

TEST_F(VerifyEciParms, AcceptsOlderVersionsForASynchronousCall)
{
    for (short version = 3; version <= 6; ++version) {
        record().eci_version = version;
        EXPECT_RC(ECI_NO_ERROR, verify()) << version;
    }
}

// ---- Rule 5: the extend mode ----

TEST_F(VerifyEciParms, AcceptsTheFourExtendModes)
{
    for (short callType : {short(ECI_SYNC), short(ECI_ASYNC)})
        for (short mode : {short(0), short(1), short(2), short(4)}) {
            record().eci_call_type = callType;
            record().eci_extend_mode = mode;
            EXPECT_RC(ECI_NO_ERROR, verify()) << callType << " " << mode;
        }
}

TEST_F(VerifyEciParms, RefusesEveryOtherExtendMode)
{
    for (short callType : {short(ECI_SYNC), short(ECI_ASYNC)})
        for (short mode : {short(3), short(5), short(-1), std::numeric_limits<short>::max()}) {
            record().eci_call_type = callType;
            record().eci_extend_mode = mode;
            trace.forget();
            EXPECT_RC(ECI_ERR_INVALID_EXTEND_MODE, verify()) << callType << " " << mode;
            expectOnlyLine(1553, "Invalid Extend Mode, " + at() +
                                     ", eci_extend_mode=" + std::to_string(mode));
        }
}

TEST_F(VerifyEciParms, IgnoresTheExtendModeOfCollectingCalls)
{
    for (short callType = 3; callType <= 6; ++callType) {
        record().eci_call_type = callType;
        record().eci_extend_mode = 3;
        EXPECT_RC(ECI_NO_ERROR, verify()) << callType;
    }
}

// ---- Rules 6 to 8: lengths ----

TEST_F(VerifyEciParms, RefusesANegativeCommareaLength)
{
    record().eci_commarea_length = -1;
    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, verify());
    expectOnlyLine(1554, "Invalid Data Length, " + at() + ", eci_commarea_length=-1");
}

TEST_F(VerifyEciParms, AcceptsTheLargestCommareaLength)
{
    record().eci_commarea_length = std::numeric_limits<short>::max();
    EXPECT_RC(ECI_NO_ERROR, verify());
}

TEST_F(VerifyEciParms, RefusesANegativeInboundLength)
{
    record().commarea_inbound_length = -1;
    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, verify());
    expectOnlyLine(1555, "Invalid Data Length, " + at() + ", commarea_inbound_length=-1");
}

TEST_F(VerifyEciParms, AcceptsAnInboundLengthBeyondTheCommarea)
{
    record().commarea_inbound_length = std::numeric_limits<short>::max();
    EXPECT_RC(ECI_NO_ERROR, verify());
}

TEST_F(VerifyEciParms, RefusesANegativeOutboundLength)
{
    record().commarea_outbound_length = -1;
    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, verify());
    expectOnlyLine(1556, "Invalid Data Length, " + at() + ", commarea_outbound_length=-1");
}

TEST_F(VerifyEciParms, AcceptsAnOutboundLengthBeyondTheCommarea)
{
    record().commarea_outbound_length = std::numeric_limits<short>::max();
    EXPECT_RC(ECI_NO_ERROR, verify());
}

// ---- Rules 9 and 10: COMMAREA and length go together ----

TEST_F(VerifyEciParms, RefusesALengthWithoutACommarea)
{
    record().eci_commarea = nullptr;
    record().eci_commarea_length = 1;
    EXPECT_RC(ECI_ERR_INVALID_DATA_AREA, verify());
    expectOnlyLine(1557,
                   "Invalid Data Area, " + at() + ", Commarea NULL but eci_commarea_length=1 ");
}

TEST_F(VerifyEciParms, RefusesACommareaWithoutALength)
{
    record().eci_commarea_length = 0;
    EXPECT_RC(ECI_ERR_INVALID_DATA_AREA, verify());
    expectOnlyLine(1558,
                   "Invalid Data Area, " + at() + ", Commarea not NULL but eci_commarea_length=0");
}

TEST_F(VerifyEciParms, AcceptsNoCommareaOfNoLength)
{
    record().eci_commarea = nullptr;
    record().eci_commarea_length = 0;
    EXPECT_RC(ECI_NO_ERROR, verify());
}

TEST_F(VerifyEciParms, AcceptsACommareaOfOneByte)
{
    record().eci_commarea_length = 1;
    EXPECT_RC(ECI_NO_ERROR, verify());
}

// ---- Rule 11: the time-out ----

TEST_F(VerifyEciParms, RefusesANegativeTimeout)
{
    record().eci_timeout = -1;
    EXPECT_RC(ECI_ERR_REQUEST_TIMEOUT, verify());
    expectOnlyLine(1559, "Invalid Timeout, " + at() + ", eci_timeout=-1");
}

TEST_F(VerifyEciParms, AcceptsTimeoutsFromZeroOn)
{
    record().eci_timeout = 0;
    EXPECT_RC(ECI_NO_ERROR, verify());
    record().eci_timeout = std::numeric_limits<short>::max();
    EXPECT_RC(ECI_NO_ERROR, verify());
}

TEST_F(VerifyEciParms, AppliesLengthAndTimeoutRulesToCollectingCalls)
{
    for (short callType = 3; callType <= 6; ++callType) {
        parms = eciCall(callType, "", filled(8));
        record().eci_commarea_length = -1;
        EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, verify()) << callType;
        parms = eciCall(callType, "", filled(8));
        record().commarea_inbound_length = -1;
        EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, verify()) << callType;
        parms = eciCall(callType, "", filled(8));
        record().commarea_outbound_length = -1;
        EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, verify()) << callType;
        parms = eciCall(callType, "", filled(8));
        record().eci_commarea_length = 0;
        EXPECT_RC(ECI_ERR_INVALID_DATA_AREA, verify()) << callType;
        parms = eciCall(callType, "", filled(8));
        record().eci_commarea = nullptr;
        EXPECT_RC(ECI_ERR_INVALID_DATA_AREA, verify()) << callType;
        parms = eciCall(callType, "", filled(8));
        record().eci_timeout = -1;
        EXPECT_RC(ECI_ERR_REQUEST_TIMEOUT, verify()) << callType;
    }
}

// ---- The order of the rules ----

namespace {

// One rule: how a record breaks it, and what it answers then.
struct Rule {
    int rc;
    int point;
    std::function<void(QPX_ECI_PARMS&)> breakIt;
};

} // namespace

TEST_F(VerifyEciParms, ReportsTheFirstRuleThatIsBrokenAndNoOther)
{
    const std::vector<Rule> rules = {
        {ECI_ERR_INVALID_VERSION, 1549, [](QPX_ECI_PARMS& broken) { broken.eci_version = 2; }},
        {ECI_ERR_INVALID_CALL_TYPE, 1550, [](QPX_ECI_PARMS& broken) { broken.eci_call_type = 0; }},
        {ECI_ERR_INVALID_VERSION, 1552,
         [](QPX_ECI_PARMS& broken) {
             broken.eci_call_type = ECI_ASYNC;
             broken.eci_version = 5;
         }},
        {ECI_ERR_INVALID_EXTEND_MODE, 1553,
         [](QPX_ECI_PARMS& broken) { broken.eci_extend_mode = 3; }},
        {ECI_ERR_INVALID_DATA_LENGTH, 1554,
         [](QPX_ECI_PARMS& broken) { broken.eci_commarea_length = -1; }},
        {ECI_ERR_INVALID_DATA_LENGTH, 1555,
         [](QPX_ECI_PARMS& broken) { broken.commarea_inbound_length = -1; }},
        {ECI_ERR_INVALID_DATA_LENGTH, 1556,
         [](QPX_ECI_PARMS& broken) { broken.commarea_outbound_length = -1; }},
        {ECI_ERR_INVALID_DATA_AREA, 1557,
         [](QPX_ECI_PARMS& broken) {
             broken.eci_commarea = nullptr;
             if (broken.eci_commarea_length == 0) broken.eci_commarea_length = 8;
         }},
        {ECI_ERR_REQUEST_TIMEOUT, 1559, [](QPX_ECI_PARMS& broken) { broken.eci_timeout = -1; }},
    };
    for (std::size_t first = 0; first < rules.size(); ++first) {
        parms = syncCall("PROG", filled(8, 'x'));
        // The last rules are broken first: an earlier one may need the fields of a later one.
        for (std::size_t rule = rules.size(); rule > first; --rule)
            rules[rule - 1].breakIt(parms.record);
        trace.forget();
        EXPECT_RC(rules[first].rc, verify()) << "rule " << first;
        EXPECT_EQ(1, trace.timesWrote(rules[first].point)) << trace.text();
        EXPECT_EQ(1, trace.timesWroteText("*EXC*")) << trace.text();
    }
}

TEST_F(VerifyEciParms, ReportsACommareaWithoutLengthBeforeTheTimeout)
{
    record().eci_commarea_length = 0;
    record().eci_timeout = -1;
    EXPECT_RC(ECI_ERR_INVALID_DATA_AREA, verify());
    expectOnlyLine(1558,
                   "Invalid Data Area, " + at() + ", Commarea not NULL but eci_commarea_length=0");
}

// ---- Frame ----

TEST_F(VerifyEciParms, TracesEntryAndExitFromLevelThree)
{
    QPX_setAPITraceLevel(3);
    trace.forget();
    record().eci_timeout = -1;
    verify();
    EXPECT_EQ((std::vector<std::string>{
                  "clapi_eci.verifyEciParms(EciParms=" + shown(&parms.record) + ", minVersion=3)",
                  "clapi_eci.verifyEciParms() Invalid Timeout, " + at() + ", eci_timeout=-1",
                  "clapi_eci.verifyEciParms() rc=-5 (ECI_ERR_REQUEST_TIMEOUT)"}),
              trace.messages());
    EXPECT_TRUE(trace.wrote(1548, "ENTRY", "<any>"));
    EXPECT_TRUE(trace.wrote(1560, "EXIT", "<any>"));
}

TEST_F(VerifyEciParms, NamesSuccessInItsExitLine)
{
    QPX_setAPITraceLevel(3);
    trace.forget();
    verify(channelMinimum);
    EXPECT_EQ((std::vector<std::string>{
                  "clapi_eci.verifyEciParms(EciParms=" + shown(&parms.record) + ", minVersion=4)",
                  "clapi_eci.verifyEciParms() rc=0 (QPX_OK)"}),
              trace.messages());
}

TEST_F(VerifyEciParms, TracesOnlyFailuresBelowLevelThree)
{
    QPX_setAPITraceLevel(2);
    trace.forget();
    verify();
    EXPECT_EQ("", trace.text());
    record().eci_timeout = -1;
    verify();
    EXPECT_EQ(1u, trace.records().size());
}

TEST_F(VerifyEciParms, TracesNothingAtLevelZero)
{
    QPX_setAPITraceLevel(0);
    trace.forget();
    record().eci_timeout = -1;
    EXPECT_RC(ECI_ERR_REQUEST_TIMEOUT, verify());
    EXPECT_EQ("", trace.text());
}

TEST_F(VerifyEciParms, ChangesNothingInTheRecord)
{
    std::memset(parms.record.eci_abend_code, 'a', sizeof parms.record.eci_abend_code);
    QPX_setAPITraceLevel(4);
    const QPX_ECI_PARMS before = parms.record;
    verify();
    EXPECT_EQ(0, std::memcmp(&before, &parms.record, sizeof before));

    record().eci_timeout = -1;
    const QPX_ECI_PARMS refused = parms.record;
    verify();
    EXPECT_EQ(0, std::memcmp(&refused, &parms.record, sizeof refused));
}
