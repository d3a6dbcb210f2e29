// Password requests as they leave the public calls: every byte, written out by hand.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/esi_script.h"

using namespace script;
using support::EciParms;
using support::int32At;
using support::slice;
using support::syncCall;
using support::toHex;

namespace {

class EsiRequestOfCall : public EsiConnection {
protected:
    // Makes the call, accepts it, and gives the body of its request.
    Bytes verifyBody(const char* userid, const char* password, const char* server = nullptr)
    {
        auto call = startVerify(userid, password, server);
        answerWith(acceptance(1));
        EXPECT_RC(0, call.get());
        return request.body;
    }
    Bytes changeBody(const char* userid, const char* oldPassword, const char* newPassword,
                     const char* server = nullptr)
    {
        auto call = startChange(userid, oldPassword, newPassword, server);
        answerWith(acceptance(1));
        EXPECT_RC(0, call.get());
        return request.body;
    }

    static std::string serverIn(const Bytes& body)
    {
        return toHex(slice(body, 18 + static_cast<std::size_t>(int32At(body, 14)), 8));
    }
    static Bytes passwordIn(const Bytes& body)
    {
        return unscrambled(slice(body, 18, static_cast<std::size_t>(int32At(body, 14))));
    }
    static Bytes newPasswordIn(const Bytes& body)
    {
        std::size_t at = 26 + static_cast<std::size_t>(int32At(body, 14));
        return unscrambled(slice(body, at + 4, static_cast<std::size_t>(int32At(body, at))));
    }
};

// Bytes 1 to 255, again and again.
std::string counted(std::size_t length)
{
    std::string bytes;
    for (std::size_t at = 0; at < length; ++at) bytes.push_back(static_cast<char>(at % 255 + 1));
    return bytes;
}

TEST_F(EsiRequestOfCall, VerifiesAPassword)
{
    Bytes body = verifyBody("CLERK", "SECRET", "PROD");

    EXPECT_EQ(toHex(hex("47617465"    // "Gate"
                        "10A01000"    // version
                        "00000001"    // a request
                        "00000001"    // message id: the first slot
                        "00000000"    // return code
                        "00000003"    // length of the request type
                        "455349"      // "ESI"
                        "00"          // security
                        "00000020")), // 32 bytes follow
              toHex(request.header));
    EXPECT_EQ(toHex(hex("00000000"              // verify
                        "434C45524B 0000000000" // user id
                        "00000006"              // length of the password
                        "AC1606111711"          // "SECRET"
                        "50524F4400000000")),   // server
              toHex(body));
    EXPECT_TRUE(connection.peer.isQuiet());
}

TEST_F(EsiRequestOfCall, ChangesAPassword)
{
    Bytes body = changeBody("CLERK", "SECRET", "NEWPASS8", "PROD");

    EXPECT_EQ(toHex(hex("47617465 10A01000 00000001 00000001 00000000 00000003 455349 00 "
                        "0000002C")),
              toHex(request.header));
    EXPECT_EQ(toHex(hex("00000001"              // change
                        "434C45524B 0000000000" // user id
                        "00000006"              // length of the old password
                        "AC1606111711"          // "SECRET"
                        "50524F4400000000"      // server
                        "00000008"              // length of the new password
                        "B10B12071112006B")),   // "NEWPASS8"
              toHex(body));
    EXPECT_TRUE(connection.peer.isQuiet());
}

// ---- The server ----

TEST_F(EsiRequestOfCall, NamesNoServerForNull)
{
    EXPECT_EQ("00000000 00000000", serverIn(verifyBody("U", "SECRET", nullptr)));
    EXPECT_EQ("00000000 00000000", serverIn(changeBody("U", "SECRET", "NEW", nullptr)));
}

TEST_F(EsiRequestOfCall, NamesNoServerForAnEmptyName)
{
    EXPECT_EQ("00000000 00000000", serverIn(verifyBody("U", "SECRET", "")));
    EXPECT_EQ("00000000 00000000", serverIn(changeBody("U", "SECRET", "NEW", "")));
}

TEST_F(EsiRequestOfCall, FillsAShortServerNameWithZeros)
{
    EXPECT_EQ("41000000 00000000", serverIn(verifyBody("U", "SECRET", "A")));
    EXPECT_EQ("41424344 45464700", serverIn(changeBody("U", "SECRET", "NEW", "ABCDEFG")));
}

TEST_F(EsiRequestOfCall, KeepsAServerNameOfEightCharacters)
{
    EXPECT_EQ("41424344 45464748", serverIn(verifyBody("U", "SECRET", "ABCDEFGH")));
    EXPECT_EQ("41424344 45464748", serverIn(changeBody("U", "SECRET", "NEW", "ABCDEFGH")));
}

TEST_F(EsiRequestOfCall, CutsAServerNameOfNineCharacters)
{
    EXPECT_EQ("41424344 45464748", serverIn(verifyBody("U", "SECRET", "ABCDEFGHI")));
    EXPECT_EQ("41424344 45464748", serverIn(changeBody("U", "SECRET", "NEW", "ABCDEFGHI")));
}

TEST_F(EsiRequestOfCall, CutsAVeryLongServerName)
{
    std::string server = "ABCDEFGH" + std::string(1000, 'X');

    Bytes body = changeBody("U", "SECRET", "NEW", server.c_str());

    EXPECT_EQ("41424344 45464748", serverIn(body));
    EXPECT_EQ("NEW", support::toText(newPasswordIn(body)));
}

// ---- The user id ----

TEST_F(EsiRequestOfCall, SendsUserIdsOfEveryLength)
{
    EXPECT_EQ(toHex(hex("31 000000000000000000")), toHex(slice(verifyBody("1", "P"), 4, 10)));
    EXPECT_EQ(toHex(text("1234567890")), toHex(slice(verifyBody("1234567890", "P"), 4, 10)));
    EXPECT_EQ(toHex(text("1234567890")), toHex(slice(verifyBody("1234567890X", "P"), 4, 10)));
    std::string longest = "1234567890" + std::string(290, 'X');
    EXPECT_EQ(toHex(text("1234567890")), toHex(slice(verifyBody(longest.c_str(), "P"), 4, 10)));
    EXPECT_EQ(27U, request.body.size());
}

TEST_F(EsiRequestOfCall, SendsUserIdsOfEveryLengthWithAChange)
{
    EXPECT_EQ(toHex(hex("31 000000000000000000")), toHex(slice(changeBody("1", "P", "N"), 4, 10)));
    EXPECT_EQ(toHex(text("1234567890")), toHex(slice(changeBody("1234567890", "P", "N"), 4, 10)));
    EXPECT_EQ(toHex(text("1234567890")), toHex(slice(changeBody("1234567890X", "P", "N"), 4, 10)));
    std::string longest = "1234567890" + std::string(290, 'X');
    EXPECT_EQ(toHex(text("1234567890")),
              toHex(slice(changeBody(longest.c_str(), "P", "N"), 4, 10)));
    EXPECT_EQ(32U, request.body.size());
}

// ---- Passwords ----

TEST_F(EsiRequestOfCall, SendsPasswordsOfEveryLength)
{
    for (std::size_t length = 1; length <= 300; ++length) {
        SCOPED_TRACE(length);
        std::string password = counted(length);

        Bytes body = verifyBody("U", password.c_str());

        ASSERT_EQ(26 + length, body.size());
        ASSERT_EQ(toHex(text(password)), toHex(passwordIn(body)));
    }
}

TEST_F(EsiRequestOfCall, SendsNewPasswordsOfEveryLength)
{
    for (std::size_t length = 1; length <= 300; ++length) {
        SCOPED_TRACE(length);
        std::string old = counted(301 - length);
        std::string next = counted(length);

        Bytes body = changeBody("U", old.c_str(), next.c_str());

        ASSERT_EQ(30U + 301U, body.size());
        ASSERT_EQ(toHex(text(old)), toHex(passwordIn(body)));
        ASSERT_EQ(toHex(text(next)), toHex(newPasswordIn(body)));
    }
}

TEST_F(EsiRequestOfCall, SendsPasswordsLongerThanItsBuffer)
{
    std::string old = counted(33001);
    std::string next = counted(100003);

    Bytes body = changeBody("U", old.c_str(), next.c_str(), "PROD");

    ASSERT_EQ(30U + 33001U + 100003U, body.size());
    EXPECT_TRUE(text(old) == passwordIn(body));
    EXPECT_TRUE(text(next) == newPasswordIn(body));
    EXPECT_EQ("50524F44 00000000", serverIn(body));
}

TEST_F(EsiRequestOfCall, LeavesTheCallersTextsAsTheyAre)
{
    support::TraceFile trace(5);
    char user[] = "CLERK";
    char old[] = "SECRET";
    char next[] = "NEWPASS8";
    char server[] = "PROD";

    changeBody(user, old, next, server);

    EXPECT_STREQ("CLERK", user);
    EXPECT_STREQ("SECRET", old);
    EXPECT_STREQ("NEWPASS8", next);
    EXPECT_STREQ("PROD", server);
}

// ---- Message ids ----

TEST_F(EsiRequestOfCall, UsesAFreedMessageIdAgain)
{
    verifyBody("U", "SECRET");
    changeBody("U", "SECRET", "NEW");
    EciParms parms = syncCall("PROG");
    auto call = connection.start(parms);
    Request last = connection.awaitRequest();
    connection.peer.send(ProgramReply().to(last.messageId()));
    EXPECT_RC(0, call.get());

    EXPECT_EQ(1, last.messageId());
}

TEST_F(EsiRequestOfCall, GivesTheSeventeenthRequestTheIdSeventeen)
{
    std::vector<support::RunningCall<int>> calls;
    std::vector<int> ids;
    for (int at = 0; at < 17; ++at) {
        calls.push_back(startVerify("U", "SECRET"));
        ids.push_back(connection.awaitRequest().messageId());
    }

    EXPECT_EQ((std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17}), ids);
    for (int id = 17; id >= 1; --id) connection.peer.send(refusal(id, -200 - id));
    for (int at = 0; at < 17; ++at) EXPECT_RC(-201 - at, calls[static_cast<std::size_t>(at)].get());
    expectServing();
}

} // namespace
