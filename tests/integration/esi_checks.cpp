// What password calls check before they send anything, and in which order.
#include <gtest/gtest.h>

#include <string>

#include "support/esi_script.h"

using namespace script;
using support::syncCall;
using support::TraceFile;
using support::TraceRecord;

namespace {

class EsiChecks : public EsiConnection {
protected:
    // The lines of failures, each as its number and text.
    std::vector<std::string> failures() const
    {
        std::vector<std::string> all;
        for (const TraceRecord& record : trace.records())
            if (record.type == "*EXC*")
                all.push_back(std::to_string(record.point) + " " + record.message);
        return all;
    }

    // Exactly this line of a failure, and no other.
    void expectFailure(const std::string& line)
    {
        EXPECT_EQ((std::vector<std::string>{line}), failures());
        trace.forget();
    }

    int verify(const char* userid, const char* password)
    {
        return QPX_ESI_verifyPassword(connection.token, userid, password, "PROD", details.get());
    }
    int change(const char* userid, const char* oldPassword, const char* newPassword)
    {
        return QPX_ESI_changePassword(connection.token, userid, oldPassword, newPassword, "PROD",
                                      details.get());
    }

    // Nothing has been sent, nothing written, and nothing keeps the connection from closing.
    void expectNoEffect()
    {
        EXPECT_TRUE(connection.peer.isQuiet());
        EXPECT_TRUE(details.areUntouched());
        connection.closeInOrder();
    }

    TraceFile trace{1};
    Details details;
    const char* empty = "";
};

// A token that is none: memory of the application's own.
class NoToken {
public:
    QPX_ConnToken_t get() { return reinterpret_cast<QPX_ConnToken_t>(memory_); }
    std::string line()
    {
        return "*EXC*  clapi_gwytok.clapiRegisterRequest() Gateway token=" + shown(memory_) +
               " not found, findRc=<int>\n";
    }

private:
    alignas(16) char memory_[8192] = {};
};

// ---- The token ----

TEST_F(EsiChecks, RefuseANullTokenForAVerification)
{
    EXPECT_RC(-100, QPX_ESI_verifyPassword(nullptr, "USER", "SECRET", "PROD", details.get()));

    expectFailure("1801 API.QPX_ESI_verifyPassword() NULL gateway token, gwTok=(nil)");
    expectNoEffect();
}

TEST_F(EsiChecks, RefuseANullTokenForAChange)
{
    EXPECT_RC(-100,
              QPX_ESI_changePassword(nullptr, "USER", "SECRET", "TERCES", "PROD", details.get()));

    expectFailure("1807 API.QPX_ESI_changePassword() NULL gateway token, gwTok=(nil)");
    expectNoEffect();
}

TEST_F(EsiChecks, RefuseANullTokenBeforeAnythingElse)
{
    EXPECT_RC(-100, QPX_ESI_verifyPassword(nullptr, nullptr, nullptr, nullptr, nullptr));
    expectFailure("1801 API.QPX_ESI_verifyPassword() NULL gateway token, gwTok=(nil)");

    EXPECT_RC(-100, QPX_ESI_changePassword(nullptr, "", "", "", nullptr, nullptr));
    expectFailure("1807 API.QPX_ESI_changePassword() NULL gateway token, gwTok=(nil)");
}

TEST_F(EsiChecks, RefuseAnUnknownTokenForAVerification)
{
    NoToken noToken;

    EXPECT_RC(-101, QPX_ESI_verifyPassword(noToken.get(), "USER", "SECRET", "PROD", nullptr));

    EXPECT_EQ(1U, failures().size());
    EXPECT_TRUE(trace.wroteText(noToken.line())) << trace.text();
}

TEST_F(EsiChecks, RefuseAnUnknownTokenForAChange)
{
    NoToken noToken;

    EXPECT_RC(-101,
              QPX_ESI_changePassword(noToken.get(), "USER", "SECRET", "TERCES", "PROD", nullptr));

    EXPECT_EQ(1U, failures().size());
    EXPECT_TRUE(trace.wroteText(noToken.line())) << trace.text();
}

TEST_F(EsiChecks, RefuseAnUnknownTokenBeforeTheUserId)
{
    NoToken noToken;

    EXPECT_RC(-101, QPX_ESI_verifyPassword(noToken.get(), nullptr, nullptr, nullptr, nullptr));
    EXPECT_RC(-101, QPX_ESI_changePassword(noToken.get(), "", nullptr, nullptr, nullptr, nullptr));

    EXPECT_EQ(2U, failures().size());
}

// ---- User id and passwords of a verification ----

TEST_F(EsiChecks, RefuseANullUserIdForAVerification)
{
    EXPECT_RC(-301, verify(nullptr, "SECRET"));

    expectFailure("1802 API.QPX_ESI_verifyPassword() NULL user id, userid=(nil)");
    expectNoEffect();
}

TEST_F(EsiChecks, RefuseAnEmptyUserIdForAVerification)
{
    EXPECT_RC(-301, verify(empty, "SECRET"));

    expectFailure("1802 API.QPX_ESI_verifyPassword() NULL user id, userid=" + shown(empty));
    expectNoEffect();
}

TEST_F(EsiChecks, RefuseANullPasswordForAVerification)
{
    EXPECT_RC(-303, verify("USER", nullptr));

    expectFailure("1803 API.QPX_ESI_verifyPassword() NULL password, password=(nil)");
    expectNoEffect();
}

TEST_F(EsiChecks, RefuseAnEmptyPasswordForAVerification)
{
    EXPECT_RC(-303, verify("USER", empty));

    expectFailure("1803 API.QPX_ESI_verifyPassword() NULL password, password=" + shown(empty));
    expectNoEffect();
}

TEST_F(EsiChecks, LookAtTheUserIdBeforeThePassword)
{
    EXPECT_RC(-301, verify("", ""));
    EXPECT_RC(-301, verify(nullptr, nullptr));
    EXPECT_RC(-301, verify("", nullptr));

    EXPECT_EQ(3, trace.timesWrote(1802));
    EXPECT_EQ(3U, failures().size());
    expectNoEffect();
}

// ---- User id and passwords of a change ----

TEST_F(EsiChecks, RefuseANullUserIdForAChange)
{
    EXPECT_RC(-301, change(nullptr, "SECRET", "TERCES"));

    expectFailure("1808 API.QPX_ESI_changePassword() NULL user id, userid=(nil)");
    expectNoEffect();
}

TEST_F(EsiChecks, RefuseAnEmptyUserIdForAChange)
{
    EXPECT_RC(-301, change(empty, "SECRET", "TERCES"));

    expectFailure("1808 API.QPX_ESI_changePassword() NULL user id, userid=" + shown(empty));
    expectNoEffect();
}

TEST_F(EsiChecks, RefuseANullOldPassword)
{
    EXPECT_RC(-303, change("USER", nullptr, "TERCES"));

    expectFailure("1809 API.QPX_ESI_changePassword() NULL old password, oldPassword=(nil)");
    expectNoEffect();
}

TEST_F(EsiChecks, RefuseAnEmptyOldPassword)
{
    EXPECT_RC(-303, change("USER", empty, "TERCES"));

    expectFailure("1809 API.QPX_ESI_changePassword() NULL old password, oldPassword=" +
                  shown(empty));
    expectNoEffect();
}

TEST_F(EsiChecks, RefuseANullNewPassword)
{
    EXPECT_RC(-314, change("USER", "SECRET", nullptr));

    expectFailure("1810 API.QPX_ESI_changePassword() NULL new password, newPassword=(nil)");
    expectNoEffect();
}

TEST_F(EsiChecks, RefuseAnEmptyNewPassword)
{
    EXPECT_RC(-314, change("USER", "SECRET", empty));

    expectFailure("1810 API.QPX_ESI_changePassword() NULL new password, newPassword=" +
                  shown(empty));
    expectNoEffect();
}

TEST_F(EsiChecks, LookAtTheUserIdBeforeThePasswordsOfAChange)
{
    EXPECT_RC(-301, change("", "", ""));
    EXPECT_RC(-301, change(nullptr, nullptr, nullptr));
    EXPECT_RC(-301, change("", "SECRET", ""));

    EXPECT_EQ(3, trace.timesWrote(1808));
    EXPECT_EQ(3U, failures().size());
    expectNoEffect();
}

TEST_F(EsiChecks, LookAtTheOldPasswordBeforeTheNewOne)
{
    EXPECT_RC(-303, change("USER", "", ""));
    EXPECT_RC(-303, change("USER", nullptr, nullptr));

    EXPECT_EQ(2, trace.timesWrote(1809));
    EXPECT_EQ(2U, failures().size());
    expectNoEffect();
}

TEST_F(EsiChecks, WriteNoLineAtLevelZero)
{
    TraceFile quiet(0);

    EXPECT_RC(-301, verify("", "SECRET"));
    EXPECT_RC(-314, change("USER", "SECRET", ""));
    EXPECT_RC(-100, QPX_ESI_verifyPassword(nullptr, "USER", "SECRET", nullptr, nullptr));

    EXPECT_EQ("", quiet.text());
}

// ---- A connection that is being closed ----

class EsiOfClosingConnection : public EsiConnection {
protected:
    // A call of this thread's is under way, and a close waits for it.
    void SetUp() override
    {
        TraceFile events(2);
        parms = syncCall("PROG", text("question"));
        auto waiting = connection.start(parms);
        waitingRequest = connection.awaitRequest();
        auto closing = connection.startClose();
        ASSERT_TRUE(events.awaitText("quiesceConnection() Waiting for 1 API calls"));
        calls.push_back(std::move(waiting));
        calls.push_back(std::move(closing));
    }

    // The call is answered, and the close goes on to its end.
    void TearDown() override
    {
        EXPECT_TRUE(connection.peer.isQuiet());
        connection.peer.send(ProgramReply().to(waitingRequest.messageId()));
        connection.answerClose();
        for (auto& call : calls) EXPECT_RC(0, call.get());
        connection.forget();
    }

    support::EciParms parms;
    Request waitingRequest;
    std::vector<support::RunningCall<int>> calls;
    Details details;
};

TEST_F(EsiOfClosingConnection, IsRefusedForAVerification)
{
    TraceFile trace(1);

    EXPECT_RC(-140,
              QPX_ESI_verifyPassword(connection.token, "USER", "SECRET", "PROD", details.get()));

    EXPECT_EQ("", trace.text());
    EXPECT_TRUE(details.areUntouched());
}

TEST_F(EsiOfClosingConnection, IsRefusedForAChange)
{
    TraceFile trace(1);

    EXPECT_RC(-140, QPX_ESI_changePassword(connection.token, "USER", "SECRET", "TERCES", "PROD",
                                           details.get()));

    EXPECT_EQ("", trace.text());
    EXPECT_TRUE(details.areUntouched());
}

TEST_F(EsiOfClosingConnection, IsRefusedBeforeTheTextsAreLookedAt)
{
    TraceFile trace(1);

    EXPECT_RC(-140, QPX_ESI_verifyPassword(connection.token, nullptr, nullptr, nullptr, nullptr));
    EXPECT_RC(-140, QPX_ESI_verifyPassword(connection.token, "USER", "", nullptr, nullptr));
    EXPECT_RC(-140, QPX_ESI_changePassword(connection.token, "", "", "", nullptr, nullptr));
    EXPECT_RC(-140,
              QPX_ESI_changePassword(connection.token, "USER", "SECRET", "", nullptr, nullptr));

    EXPECT_EQ("", trace.text());
}

TEST_F(EsiOfClosingConnection, IsToldByTheCodeOfTheExit)
{
    TraceFile trace(3);

    EXPECT_RC(-140, QPX_ESI_verifyPassword(connection.token, "USER", "SECRET", "PROD", nullptr));

    EXPECT_TRUE(
        trace.wrote(1805, "EXIT", "API.QPX_ESI_verifyPassword() rc=-140 (QPX_ERR_GWTOK_CLOSED)"));
    EXPECT_EQ(0, trace.timesWrote(1804));
    EXPECT_EQ(0, trace.timesWrote(1816));
    EXPECT_EQ(1, trace.timesWroteText("clapiUnregisterRequest() Outstanding API calls=1 on "));
}

TEST_F(EsiOfClosingConnection, IsRefusedForTheListOfSystems)
{
    TraceFile trace(1);
    SystemArray systems(2);

    EXPECT_RC(-140, QPX_listSystems(connection.token, &systems.count, systems.get()));

    EXPECT_EQ("", trace.text());
    EXPECT_EQ(2, systems.count);
    EXPECT_TRUE(systems.isUntouched());
}

TEST_F(EsiOfClosingConnection, IsRefusedBeforeThePointersOfTheListAreLookedAt)
{
    TraceFile trace(1);
    SystemArray systems(2);

    EXPECT_RC(-140, QPX_listSystems(connection.token, nullptr, systems.get()));
    EXPECT_RC(-140, QPX_listSystems(connection.token, &systems.count, nullptr));

    EXPECT_EQ("", trace.text());
}

} // namespace
