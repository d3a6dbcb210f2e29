// What becomes of the answers to password calls.
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "support/esi_script.h"

using namespace script;
using support::EciParms;
using support::slice;
using support::syncCall;
using support::TraceFile;

namespace {

class EsiReply : public EsiConnection {
protected:
    // Both calls, answered alike, have this result.
    void expectCode(int rc, const Bytes& answer)
    {
        EXPECT_RC(rc, verifyAnswered(answer));
        EXPECT_RC(rc, changeAnswered(answer));
    }

    // The same, and they leave the details alone.
    void expectRefused(int rc, const Bytes& answer)
    {
        EXPECT_RC(rc, verifyAnswered(answer, details.get()));
        EXPECT_TRUE(details.areUntouched());
        EXPECT_RC(rc, changeAnswered(answer, details.get()));
        EXPECT_TRUE(details.areUntouched());
    }

    Details details;
};

// ---- Details ----

TEST_F(EsiReply, PutsTheTimesOfAVerificationInTheirFields)
{
    EXPECT_RC(0, verifyAnswered(acceptance(1), details.get()));

    EXPECT_EQ((std::vector<int>{2026, 1, 16, 3, 4, 5, 6}), valuesOf(details->lastVerifiedTime));
    EXPECT_EQ((std::vector<int>{2025, 2, 22, 17, 18, 19, 20}), valuesOf(details->lastAccessedTime));
    EXPECT_EQ((std::vector<int>{2027, 8, 18, 10, 11, 12, 13}), valuesOf(details->expiryTime));
    EXPECT_EQ(7, details->invalidCount);
    EXPECT_TRUE(details.haveNothingAround());
}

TEST_F(EsiReply, PutsTheTimesOfAChangeInTheirFields)
{
    EXPECT_RC(0, changeAnswered(acceptance(1), details.get()));

    EXPECT_EQ(acceptedValues(), details.values());
    EXPECT_TRUE(details.haveNothingAround());
}

TEST_F(EsiReply, PassesAnyValueOn)
{
    Bytes body = be32(0);
    for (int value : {INT_MIN, INT_MAX, -1, 0, 1, 99999, -99999}) body += be32(value);
    body += support::filled(56, 0xFF) + be32(INT_MIN);

    EXPECT_RC(0, verifyAnswered(esiReply(1, body), details.get()));

    EXPECT_EQ((std::vector<int>{INT_MIN, INT_MAX, -1, 0, 1, 99999, -99999}),
              valuesOf(details->lastVerifiedTime));
    EXPECT_EQ(std::vector<int>(7, -1), valuesOf(details->expiryTime));
    EXPECT_EQ(std::vector<int>(7, -1), valuesOf(details->lastAccessedTime));
    EXPECT_EQ(INT_MIN, details->invalidCount);
}

TEST_F(EsiReply, IsTakenWithoutARecordForDetails)
{
    EXPECT_RC(0, verifyAnswered(acceptance(1), nullptr));
    EXPECT_RC(0, changeAnswered(acceptance(1), nullptr));
    EXPECT_RC(-302, verifyAnswered(refusal(1, -106), nullptr));
    expectServing();
}

TEST_F(EsiReply, DoesNotReachTheDetailsOfAnEarlierCall)
{
    EXPECT_RC(0, verifyAnswered(refusal(1, 0), details.get()));
    Details earlier;
    EXPECT_RC(-302, verifyAnswered(refusal(1, -106), earlier.get()));

    EXPECT_RC(0, verifyAnswered(acceptance(1), nullptr));

    EXPECT_TRUE(earlier.areUntouched());
    EXPECT_EQ(std::vector<int>(22, 0), details.values());
}

// ---- Codes of the server ----

struct Mapping {
    int serverCode;
    int callCode;
    const char* name;     // in the line of the receiver
    const char* exitName; // in the line of the call
};

class EsiReplyCode : public EsiReply, public ::testing::WithParamInterface<Mapping> {};

TEST_P(EsiReplyCode, IsMappedAndNamed)
{
    TraceFile trace(3);
    const Mapping& mapping = GetParam();

    expectRefused(mapping.callCode, refusal(1, mapping.serverCode));

    std::string server = "rc=" + std::to_string(mapping.serverCode);
    std::string call = "rc=" + std::to_string(mapping.callCode) + " (" + mapping.exitName + ")";
    EXPECT_EQ(2, trace.timesWroteText("*EXC*  clapi_gwycon.receiverThread() Gateway returned ESI "
                                      "error, " +
                                      server + " (" + mapping.name + ")\n"));
    EXPECT_EQ(2, trace.timesWroteText("[1824] EXIT   clapi_esi.performEsiFlow() " + call + "\n"));
    EXPECT_TRUE(trace.wrote(1805, "EXIT", "API.QPX_ESI_verifyPassword() " + call));
    EXPECT_TRUE(trace.wrote(1812, "EXIT", "API.QPX_ESI_changePassword() " + call));
    expectServing();
}

INSTANTIATE_TEST_SUITE_P(
    OfServer, EsiReplyCode,
    ::testing::Values(Mapping{-108, -300, "ESI_ERR_USERID_INVALID", "ESI_ERR_USERID_INVALID"},
                      Mapping{-100, -301, "ESI_ERR_NULL_USERID", "ESI_ERR_NULL_USERID"},
                      Mapping{-106, -302, "ESI_ERR_PASSWORD_INVALID", "ESI_ERR_PASSWORD_INVALID"},
                      Mapping{-101, -303, "ESI_ERR_NULL_PASSWORD", "ESI_ERR_NULL_PASSWORD"},
                      Mapping{-103, -304, "ESI_ERR_PEM_NOT_SUPPORTED", "ESI_ERR_PEM_NOT_SUPPORTED"},
                      Mapping{-104, -305, "ESI_ERR_PEM_NOT_ACTIVE", "ESI_ERR_PEM_NOT_ACTIVE"},
                      Mapping{-105, -306, "ESI_ERR_PASSWORD_EXPIRED", "ESI_ERR_PASSWORD_EXPIRED"},
                      Mapping{-27, -307, "ESI_ERR_SECURITY_ERROR", "ESI_ERR_SECURITY_ERROR"},
                      Mapping{-16, -308, "ESI_ERR_RESOURCE_SHORTAGE", "ESI_ERR_RESOURCE_SHORTAGE"},
                      Mapping{-17, -309, "ESI_ERR_NO_SESSIONS", "ESI_ERR_NO_SESSIONS"},
                      Mapping{-3, -310, "ESI_ERR_NO_VORN", "ESI_ERR_NO_VORN"},
                      Mapping{-4, -311, "ESI_ERR_VORN_DIED", "ESI_ERR_VORN_DIED"},
                      Mapping{-22, -312, "ESI_ERR_UNKNOWN_SERVER", "ESI_ERR_UNKNOWN_SERVER"},
                      Mapping{-9, -313, "ESI_ERR_SYSTEM_ERROR", "ESI_ERR_SYSTEM_ERROR"},
                      Mapping{-102, -314, "ESI_ERR_NULL_NEW_PASSWORD", "ESI_ERR_NULL_NEW_PASSWORD"},
                      Mapping{-107, -315, "ESI_ERR_PASSWORD_REJECTED", "ESI_ERR_PASSWORD_REJECTED"},
                      Mapping{-28, -316, "ESI_ERR_MAX_SYSTEMS", "UNKNOWN"},
                      Mapping{-29, -317, "ESI_ERR_MAX_SESSIONS", "UNKNOWN"}),
    [](const ::testing::TestParamInfo<Mapping>& row) {
        return std::to_string(-row.param.serverCode);
    });

TEST_F(EsiReply, PassesUnknownCodesOfTheServerOn)
{
    for (int code : {-1,   -2,   -5,   -7,   -10,  -26, -30, -99, -109, -110,  -140,    -200,
                     -299, -300, -302, -317, -318, 1,   2,   100, 302,  61444, INT_MIN, INT_MAX}) {
        SCOPED_TRACE(code);
        expectRefused(code, refusal(1, code));
    }
    expectServing();
}

TEST_F(EsiReply, DoesNotReadWhatFollowsARefusal)
{
    Bytes refused = hex(acceptedBody);
    for (std::size_t at = 0; at < 4; ++at) refused[at] = be32(-105)[at];

    expectRefused(-306, esiReply(1, refused));
    expectServing();
}

// ---- Codes of the Gateway ----

TEST_F(EsiReply, PassesTheGatewaysCodeOnUnmapped)
{
    for (int code : {-106, -108, -100, -3, -29, -313, 61444, 61445, 61450, 61451, 7, INT_MIN}) {
        SCOPED_TRACE(code);
        expectCode(code, esiReply(1, Bytes(), code));
    }
    expectServing();
}

TEST_F(EsiReply, LeavesTheDetailsAloneWhenTheGatewayReportsAnError)
{
    expectRefused(61445, esiReply(1, Bytes(), 61445));
}

TEST_F(EsiReply, PrefersTheGatewaysCodeToTheServers)
{
    expectRefused(61445, esiReply(1, be32(-106), 61445));
    expectRefused(-106, esiReply(1, be32(-105), -106));
    expectServing();
}

TEST_F(EsiReply, GivesTheGatewaysCodeThoughTheBodyIsTooShort)
{
    for (std::size_t length = 0; length < 4; ++length) {
        SCOPED_TRACE(length);
        expectCode(61445, esiReply(1, filled(length, 0), 61445));
    }
    expectServing();
}

TEST_F(EsiReply, PassesTheCodeOfAnErrorFlowOn)
{
    TraceFile trace(1);

    expectRefused(61451, flow(errorType, 1, 61451, "ESI", Bytes()));
    expectRefused(-106, flow(errorType, 1, -106, "ESI", Bytes()));
    expectRefused(-9, flow(errorType, 1, -9, "ECI", filled(100, 1)));

    EXPECT_EQ(2, trace.timesWroteText("clapi_gwycon.receiverThread() Gateway returned a flow type "
                                      "of FLOW_ERROR, rc=61451 (QPX_ERR_INVALID_REQUEST_TYPE)\n"));
    expectServing();
}

TEST_F(EsiReply, TakesAnErrorFlowWithoutACodeForSuccessWithoutDetails)
{
    expectRefused(0, flow(errorType, 1, 0, "ESI", Bytes()));
    expectServing();
}

TEST_F(EsiReply, ForgetsTheServersCodeOfTheCallBefore)
{
    EXPECT_RC(-302, verifyAnswered(refusal(1, -106)));

    EXPECT_RC(0, verifyAnswered(flow(errorType, 1, 0, "ESI", Bytes())));
}

TEST_F(EsiReply, FailsByAnExceptionOfTheGateway)
{
    TraceFile trace(1);

    expectRefused(61446, flow(exceptionType, 1, 0, "ESI", hex("00 0005") + text("sorry")));

    EXPECT_EQ(2, trace.timesWroteText("Exception message: sorry\n"));
    expectServing();
}

// ---- Answers of any length ----

TEST_F(EsiReply, IsAnErrorWithoutAWholeServerCode)
{
    for (std::size_t length = 0; length < 4; ++length) {
        SCOPED_TRACE(length);
        expectCode(-9, esiReply(1, filled(length, 0)));
    }
    expectServing();
}

TEST_F(EsiReply, LeavesTheDetailsAloneWithoutAWholeServerCode)
{
    for (std::size_t length = 0; length < 4; ++length) {
        SCOPED_TRACE(length);
        expectRefused(-9, esiReply(1, filled(length, 0)));
    }
}

TEST_F(EsiReply, GivesZeroForDetailsThatAreNotThere)
{
    Bytes whole = hex(acceptedBody);
    // The numbers of the record in the order of the wire: verified, expiry, accessed, attempts.
    const std::vector<std::size_t> places = {0,  1,  2,  3, 4, 5, 6,  14, 15, 16, 17,
                                             18, 19, 20, 7, 8, 9, 10, 11, 12, 13, 21};
    for (std::size_t length = 4; length <= whole.size(); ++length) {
        SCOPED_TRACE(length);
        std::vector<int> expected(22, 0);
        for (std::size_t number = 0; number < (length - 4) / 4; ++number)
            expected[places[number]] = acceptedValues()[places[number]];
        Details answered;

        ASSERT_RC(0, verifyAnswered(esiReply(1, slice(whole, 0, length)), answered.get()));

        ASSERT_EQ(expected, answered.values());
    }
    expectServing();
}

TEST_F(EsiReply, DropsWhatFollowsTheDetails)
{
    for (std::size_t more : {1U, 3U, 4U, 100U, 32909U, 40000U, 200000U}) {
        SCOPED_TRACE(more);
        Details answered;
        EXPECT_RC(
            0, verifyAnswered(esiReply(1, hex(acceptedBody) + filled(more, 0xEE)), answered.get()));
        EXPECT_EQ(acceptedValues(), answered.values());
        EXPECT_TRUE(answered.haveNothingAround());
    }
    expectServing();
}

TEST_F(EsiReply, DropsWhatFollowsARefusal)
{
    expectRefused(-302, esiReply(1, be32(-106) + filled(100000, 0xEE)));
    expectServing();
}

TEST_F(EsiReply, IsReadFromPiecesOfEverySize)
{
    Bytes answer = acceptance(1);
    for (std::size_t piece = 1; piece <= answer.size(); ++piece) {
        SCOPED_TRACE(piece);
        Details answered;
        auto call = startVerify("USER", "SECRET", nullptr, answered.get());
        connection.awaitRequest();
        connection.peer.sendInPieces(answer, piece);
        ASSERT_RC(0, call.get());
        ASSERT_EQ(acceptedValues(), answered.values());
    }
}

// ---- Answers of another kind ----

TEST_F(EsiReply, IsRefusedWhenItsTypeIsUnknown)
{
    for (const char* type : {"XYZ", "BASE", "ESIX", "esi"}) {
        SCOPED_TRACE(type);
        TraceFile trace(1);

        expectRefused(-9, flow(replyType, 1, 0, type, hex(acceptedBody)));

        EXPECT_EQ(2, trace.timesWroteText("*EXC*  clapi_gwycon.receiverThread() Gateway returned "
                                          "unexpected request type " +
                                          std::string(type) + "\n"));
    }
    expectServing();
}

TEST_F(EsiReply, LeavesTheDetailsAloneWhenItIsThatOfAProgramCall)
{
    expectRefused(-7, ProgramReply().serverCode(-7).abend("ABCD").to(1));
    expectServing();
}

TEST_F(EsiReply, DropsTheDataOfAProgramCall)
{
    verifyAnswered(ProgramReply().commarea(filled(1000, 0xEE)).to(1), details.get());

    EXPECT_TRUE(details.areUntouched());
    EXPECT_TRUE(details.haveNothingAround());
    expectServing();
}

TEST_F(EsiReply, ToAProgramCallGivesTheServersCodeAndNoData)
{
    EciParms parms = syncCall("PROG", text("question"));
    auto call = connection.start(parms);
    connection.peer.send(refusal(connection.awaitRequest().messageId(), -106));

    EXPECT_RC(-106, call.get());
    EXPECT_EQ(text("question"), parms.commarea());
    expectServing();
}

TEST_F(EsiReply, ToAProgramCallReachesNoDetailsOfAnEarlierCall)
{
    EXPECT_RC(-302, verifyAnswered(refusal(1, -106), details.get()));
    EciParms parms = syncCall("PROG", text("question"));
    auto call = connection.start(parms);
    EXPECT_EQ(1, connection.awaitRequest().messageId());

    connection.peer.send(acceptance(1));

    call.get();
    EXPECT_TRUE(details.areUntouched());
    EXPECT_EQ(text("question"), parms.commarea());
    expectServing();
}

// A ping behind the answers tells when the receiver has passed them.
TEST_F(EsiReply, ThatNobodyWaitsForIsDropped)
{
    TraceFile trace(4);
    EXPECT_RC(-302, verifyAnswered(refusal(1, -106), details.get()));

    connection.peer.send(acceptance(1) + refusal(16, -107) + pingFlow());
    ASSERT_TRUE(trace.awaitText("Flow type is FLOW_PING"));

    EXPECT_TRUE(details.areUntouched());
    expectServing();
}

TEST_F(EsiReply, ThatComesTwiceIsTakenOnce)
{
    TraceFile trace(4);

    EXPECT_RC(-302, verifyAnswered(refusal(1, -106) + acceptance(1) + pingFlow(), details.get()));
    ASSERT_TRUE(trace.awaitText("Flow type is FLOW_PING"));

    EXPECT_TRUE(details.areUntouched());
    expectServing();
}

TEST_F(EsiReply, ReachesTheCallThatAskedForIt)
{
    Details one;
    Details two;
    auto first = startVerify("ONE", "SECRET", nullptr, one.get());
    int firstId = connection.awaitRequest().messageId();
    auto second = startChange("TWO", "SECRET", "TERCES", nullptr, two.get());
    int secondId = connection.awaitRequest().messageId();

    connection.peer.send(acceptance(secondId) + refusal(firstId, -105));

    EXPECT_RC(-306, first.get());
    EXPECT_RC(0, second.get());
    EXPECT_TRUE(one.areUntouched());
    EXPECT_EQ(acceptedValues(), two.values());
}

} // namespace
