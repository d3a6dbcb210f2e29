// The one-line description of a gateway token.
#include <cstring>
#include <memory>

#include "unit/connect_fixture.h"

using fixture::shown;

namespace {

// A token that is no connection's, for what only reads the record.
struct HandMadeToken {
    HandMadeToken() : storage(new char[sizeof(_QPX_ConnToken_t)]())
    {
        token = reinterpret_cast<_QPX_ConnToken_t*>(storage.get());
        std::memcpy(token->eyecatcher, "QPXGWTOK", 8);
    }

    std::unique_ptr<char[]> storage;
    _QPX_ConnToken_t* token;
};

TEST(TokenFormat, ShowsEveryField)
{
    HandMadeToken made;
    HandMadeToken next;
    made.token->nextGwyTokPtr = next.token;
    made.token->portNumber = 65535;
    made.token->connStatus = 3;
    made.token->socketDescriptor = -1;
    std::strcpy(made.token->applid, "MYAPPLID");
    std::strcpy(made.token->applidQualifier, "MYQUALIF");
    char line[512];

    EXPECT_RC(QPX_OK, clapiFormatGatewayToken(made.token, line));

    EXPECT_EQ("GatwayToken(" + shown(made.token) +
                  ") eyecatcher(QPXGWTOK) port(65535) connStatus(3) socket(-1) applid(MYAPPLID) "
                  "applidQual(MYQUALIF) nextGwyTokPtr(" +
                  shown(next.token) + ")",
              std::string(line));
}

TEST(TokenFormat, ShowsEightCharactersOfTheEyecatcher)
{
    HandMadeToken made;
    std::memcpy(made.token->eyecatcher, "ABCDEFGH", 8);
    made.token->nextGwyTokPtr = made.token;
    char line[512];

    EXPECT_RC(QPX_OK, clapiFormatGatewayToken(made.token, line));

    EXPECT_NE(std::string::npos, std::string(line).find(" eyecatcher(ABCDEFGH) port(0) "));
}

TEST(TokenFormat, ShowsANullTokenAsSuch)
{
    char line[512];

    EXPECT_RC(QPX_OK, clapiFormatGatewayToken(nullptr, line));

    EXPECT_STREQ("GatwayToken(NULL)", line);
}

TEST(TokenFormat, RefusesANullBuffer)
{
    HandMadeToken made;

    EXPECT_RC(QPX_ERR_NULLPARM, clapiFormatGatewayToken(made.token, nullptr));
}

TEST(TokenFormat, RefusesANullBufferForANullTokenToo)
{
    EXPECT_RC(QPX_ERR_NULLPARM, clapiFormatGatewayToken(nullptr, nullptr));
}

} // namespace
