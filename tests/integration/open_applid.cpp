// The applid and its qualifier of a connection: from the arguments, or from the environment.
#include <cstdlib>

#include "support/connection_script.h"
#include "support/trace_file.h"

using namespace script;
using support::TraceFile;

namespace {

class OpenApplid : public ::testing::Test {
protected:
    OpenApplid()
    {
        unsetenv("QPX_APPLID");
        unsetenv("QPX_APPLIDQUALIFIER");
    }
    ~OpenApplid() override
    {
        if (token == nullptr) return;
        peer.close();
        QPX_purgeGatewayConnection(&token, 0);
    }

    // Opens a connection and gives what its handshake carries behind the fixed block.
    Bytes opened(const std::string& applid, const std::string& qualifier)
    {
        std::string id = applid;
        std::string part = qualifier;
        auto opening = callInThread([&] {
            return QPX_openRemoteGatewayConnectionApplid(localHost(), gateway.port(), &token, 0,
                                                         id.data(), part.data());
        });
        peer = gateway.accept();
        Bytes header = peer.read(33);
        Bytes body = peer.read(static_cast<std::size_t>(support::int32At(header, 29)));
        peer.send(handshakeAnswer());
        EXPECT_RC(QPX_OK, opening.get());
        return support::slice(body, 18, body.size() - 18);
    }

    // The result of an open that does not come to connect.
    int refused(const std::string& applid, const std::string& qualifier)
    {
        std::string id = applid;
        std::string part = qualifier;
        return QPX_openRemoteGatewayConnectionApplid(localHost(), refusing.port(), &token, 0,
                                                     id.data(), part.data());
    }

    ScriptedGateway gateway;
    support::RefusingPort refusing;
    Peer peer;
    QPX_ConnToken_t token = nullptr;
};

TEST_F(OpenApplid, ComesFromTheArguments)
{
    EXPECT_EQ(hex("0006") + text("MYAPPL") + hex("0004") + text("MYQU"), opened("MYAPPL", "MYQU"));
}

TEST_F(OpenApplid, MayBeEmpty)
{
    EXPECT_EQ(hex("0000 0000"), opened("", ""));
}

TEST_F(OpenApplid, IsEmptyInTheShortForm)
{
    ScriptedConnection connection;
    char* applid = nullptr;
    char* qualifier = nullptr;

    EXPECT_RC(QPX_OK, QPX_getApplid(connection.token, &applid));
    EXPECT_RC(QPX_OK, QPX_getApplidQualifier(connection.token, &qualifier));

    EXPECT_STREQ("", applid);
    EXPECT_STREQ("", qualifier);
}

TEST_F(OpenApplid, MayHaveEightCharacters)
{
    EXPECT_EQ(hex("0008") + text("12345678") + hex("0008") + text("ABCDEFGH"),
              opened("12345678", "ABCDEFGH"));
}

TEST_F(OpenApplid, IsSentInUtf8)
{
    EXPECT_EQ(hex("0009 58 C3A9 59 5A313233 34") + hex("0002 C2A0"), opened("X\xE9YZ1234", "\xA0"));
}

TEST_F(OpenApplid, MayHaveEightCharactersBeyondAscii)
{
    EXPECT_EQ(hex("0010 C3BFC3BFC3BFC3BFC3BFC3BFC3BFC3BF 0000"),
              opened("\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", ""));
}

TEST_F(OpenApplid, IsRefusedWithNineCharacters)
{
    TraceFile trace(3);

    EXPECT_RC(QPX_ERR_APPLIDTOOLONG, refused("123456789", ""));

    EXPECT_EQ(0, trace.timesWroteText("*EXC*"));
    EXPECT_EQ(2U, trace.records().size()) << trace.text();
    EXPECT_TRUE(trace.wrote(1008, "EXIT",
                            "API.QPX_openRemoteGatewayConnectionApplid() rc=-139 "
                            "(QPX_ERR_APPLIDTOOLONG)"));
    EXPECT_EQ(nullptr, token);
}

TEST_F(OpenApplid, IsRefusedWithAQualifierOfNineCharacters)
{
    TraceFile trace(3);

    EXPECT_RC(QPX_ERR_APPLIDTOOLONG, refused("", "123456789"));

    EXPECT_EQ(0, trace.timesWroteText("*EXC*"));
}

TEST_F(OpenApplid, IsRefusedWithAVeryLongText)
{
    EXPECT_RC(QPX_ERR_APPLIDTOOLONG, refused(std::string(5000, 'x'), ""));
    EXPECT_RC(QPX_ERR_APPLIDTOOLONG, refused("", std::string(5000, 'x')));
}

TEST_F(OpenApplid, OfTheEnvironmentWinsOverTheArgument)
{
    setenv("QPX_APPLID", "ENVAPPLI", 1);
    setenv("QPX_APPLIDQUALIFIER", "ENVQUALI", 1);

    EXPECT_EQ(hex("0008") + text("ENVAPPLI") + hex("0008") + text("ENVQUALI"),
              opened("MYAPPL", "MYQU"));

    char* applid = nullptr;
    char* qualifier = nullptr;
    EXPECT_RC(QPX_OK, QPX_getApplid(token, &applid));
    EXPECT_RC(QPX_OK, QPX_getApplidQualifier(token, &qualifier));
    EXPECT_STREQ("ENVAPPLI", applid);
    EXPECT_STREQ("ENVQUALI", qualifier);
}

TEST_F(OpenApplid, OfTheEnvironmentLeavesTheQualifierToTheArgument)
{
    setenv("QPX_APPLID", "ENVAPPLI", 1);

    EXPECT_EQ(hex("0008") + text("ENVAPPLI") + hex("0004") + text("MYQU"),
              opened("MYAPPL", "MYQU"));
}

TEST_F(OpenApplid, IsLeftToTheArgumentByAQualifierOfTheEnvironment)
{
    setenv("QPX_APPLIDQUALIFIER", "ENVQUALI", 1);

    EXPECT_EQ(hex("0006") + text("MYAPPL") + hex("0008") + text("ENVQUALI"),
              opened("MYAPPL", "MYQU"));
}

TEST_F(OpenApplid, IsEmptyWithAnEmptyValueInTheEnvironment)
{
    setenv("QPX_APPLID", "", 1);
    setenv("QPX_APPLIDQUALIFIER", "", 1);

    EXPECT_EQ(hex("0000 0000"), opened("MYAPPL", "MYQU"));
}

TEST_F(OpenApplid, OfTheEnvironmentIsReadAtEveryOpen)
{
    setenv("QPX_APPLID", "FIRST", 1);
    EXPECT_EQ(hex("0005") + text("FIRST") + hex("0000"), opened("MYAPPL", ""));
    peer.close();
    QPX_purgeGatewayConnection(&token, 0);

    setenv("QPX_APPLID", "SECOND", 1);
    EXPECT_EQ(hex("0006") + text("SECOND") + hex("0000"), opened("MYAPPL", ""));
    peer.close();
    QPX_purgeGatewayConnection(&token, 0);

    unsetenv("QPX_APPLID");
    EXPECT_EQ(hex("0006") + text("MYAPPL") + hex("0000"), opened("MYAPPL", ""));
}

TEST_F(OpenApplid, OfTheEnvironmentCountsInTheShortFormToo)
{
    setenv("QPX_APPLID", "ENVAPPLI", 1);
    auto opening = callInThread(
        [&] { return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 0); });
    peer = gateway.accept();
    peer.read(33 + 18);
    EXPECT_EQ(hex("0008") + text("ENVAPPLI") + hex("0000"), peer.read(12));
    peer.send(handshakeAnswer());
    EXPECT_RC(QPX_OK, opening.get());
}

TEST_F(OpenApplid, OfTheEnvironmentReplacesAnArgumentThatIsTooLong)
{
    setenv("QPX_APPLID", "SHORT", 1);

    EXPECT_EQ(hex("0005") + text("SHORT") + hex("0000"), opened("MUCHTOOLONG", ""));
}

TEST_F(OpenApplid, OfTheEnvironmentIsRefusedWithNineCharacters)
{
    setenv("QPX_APPLID", "123456789", 1);
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_APPLIDTOOLONG, refused("MYAPPL", ""));

    EXPECT_EQ("", trace.text());
}

TEST_F(OpenApplid, OfTheEnvironmentIsRefusedWithAQualifierOfNineCharacters)
{
    setenv("QPX_APPLIDQUALIFIER", "123456789", 1);

    EXPECT_RC(QPX_ERR_APPLIDTOOLONG, refused("MYAPPL", ""));
}

TEST_F(OpenApplid, OfTheEnvironmentDoesNotHideANullArgument)
{
    setenv("QPX_APPLID", "ENVAPPLI", 1);
    char nothing[] = "";

    EXPECT_RC(QPX_ERR_NULLPARM, QPX_openRemoteGatewayConnectionApplid(localHost(), refusing.port(),
                                                                      &token, 0, nullptr, nothing));
}

TEST_F(OpenApplid, OfTheEnvironmentIsTraced)
{
    setenv("QPX_APPLID", "ENVAPPLI", 1);
    setenv("QPX_APPLIDQUALIFIER", "ENVQUALI", 1);
    TraceFile trace(4);

    refused("MYAPPL", "MYQU");

    EXPECT_TRUE(trace.wrote(1007, "DEBUG",
                            "API.QPX_openRemoteGatewayConnectionApplid() Environment variables: "
                            "applidEnv=ENVAPPLI and applidQualifierEnv=ENVQUALI"));
}

TEST_F(OpenApplid, OfTheEnvironmentIsTracedAsEmptyWhenItIsNotSet)
{
    TraceFile trace(4);

    refused("MYAPPL", "MYQU");

    EXPECT_TRUE(trace.wrote(1007, "DEBUG",
                            "API.QPX_openRemoteGatewayConnectionApplid() Environment variables: "
                            "applidEnv= and applidQualifierEnv="));
}

TEST_F(OpenApplid, OfTheEnvironmentIsCutToSixteenCharacters)
{
    setenv("QPX_APPLID", "1234567890123456789", 1);
    setenv("QPX_APPLIDQUALIFIER", "ABCDEFGHIJKLMNOP", 1);
    TraceFile trace(4);

    EXPECT_RC(QPX_ERR_APPLIDTOOLONG, refused("MYAPPL", "MYQU"));

    EXPECT_TRUE(trace.wrote(1007, "DEBUG",
                            "API.QPX_openRemoteGatewayConnectionApplid() Environment variables: "
                            "applidEnv=1234567890123456 and applidQualifierEnv="
                            "ABCDEFGHIJKLMNOP"));
}

TEST_F(OpenApplid, OfTheEnvironmentMayBeOfAnyLengthWithoutHarm)
{
    std::string large(100000, 'x');
    setenv("QPX_APPLID", large.c_str(), 1);
    setenv("QPX_APPLIDQUALIFIER", large.c_str(), 1);

    EXPECT_RC(QPX_ERR_APPLIDTOOLONG, refused("MYAPPL", "MYQU"));
}

} // namespace
