// Reading the applid of a connection and its qualifier.
#include <memory>

#include "support/connection_script.h"
#include "support/trace_file.h"

using namespace script;
using support::shown;
using support::TraceFile;

namespace {

class ConnectionApplid : public ::testing::Test {
protected:
    void SetUp() override
    {
        char applid[] = "MYAPPL";
        char qualifier[] = "MYQUAL";
        auto opening = callInThread([&] {
            return QPX_openRemoteGatewayConnectionApplid(localHost(), gateway.port(), &token, 0,
                                                         applid, qualifier);
        });
        peer = gateway.accept();
        peer.read(handshakeSize + 12);
        peer.send(handshakeAnswer());
        ASSERT_RC(QPX_OK, opening.get());
    }
    void TearDown() override
    {
        peer.close();
        QPX_purgeGatewayConnection(&token, 0);
    }

    ScriptedGateway gateway;
    Peer peer;
    QPX_ConnToken_t token = nullptr;
};

TEST_F(ConnectionApplid, CanBeRead)
{
    char* applid = nullptr;
    char* qualifier = nullptr;

    EXPECT_RC(QPX_OK, QPX_getApplid(token, &applid));
    EXPECT_RC(QPX_OK, QPX_getApplidQualifier(token, &qualifier));

    EXPECT_STREQ("MYAPPL", applid);
    EXPECT_STREQ("MYQUAL", qualifier);
}

TEST_F(ConnectionApplid, IsTheConnectionsOwnText)
{
    char* first = nullptr;
    char* second = nullptr;

    QPX_getApplid(token, &first);
    QPX_getApplid(token, &second);

    EXPECT_EQ(first, second);
}

TEST_F(ConnectionApplid, NeedsAToken)
{
    char* applid = nullptr;
    TraceFile trace(3);

    EXPECT_RC(QPX_ERR_NULLGWTOK, QPX_getApplid(nullptr, &applid));

    EXPECT_TRUE(trace.wrote(1054, "ENTRY",
                            "API.QPX_getApplid(gwTok=(nil), applid=" + shown(&applid) + ")"));
    EXPECT_TRUE(trace.wrote(1055, "*EXC*", "API.QPX_getApplid() NULL gateway token, gwTok=(nil)"));
    EXPECT_TRUE(trace.wrote(1057, "EXIT", "API.QPX_getApplid() rc=-100 (QPX_ERR_NULLGWTOK)"));
    EXPECT_EQ(3U, trace.ownRecords().size());
    EXPECT_EQ(nullptr, applid);
}

TEST_F(ConnectionApplid, NeedsAPlaceToStoreIt)
{
    TraceFile trace(3);

    EXPECT_RC(QPX_ERR_NULLPTR, QPX_getApplid(token, nullptr));

    EXPECT_TRUE(
        trace.wrote(1056, "*EXC*", "API.QPX_getApplid() Supplied pointer is NULL, applid=(nil)"));
    EXPECT_TRUE(trace.wrote(1057, "EXIT", "API.QPX_getApplid() rc=-109 (QPX_ERR_NULLPTR)"));
    EXPECT_EQ(3U, trace.ownRecords().size());
}

TEST_F(ConnectionApplid, NeedsATokenBeforeAPlaceToStoreIt)
{
    EXPECT_RC(QPX_ERR_NULLGWTOK, QPX_getApplid(nullptr, nullptr));
    EXPECT_RC(QPX_ERR_NULLGWTOK, QPX_getApplidQualifier(nullptr, nullptr));
}

TEST_F(ConnectionApplid, NeedsATokenOfAnOpenConnection)
{
    std::unique_ptr<char[]> zeros(new char[8192]());
    auto foreign = reinterpret_cast<QPX_ConnToken_t>(zeros.get());
    char* applid = nullptr;
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_BADGWTOK, QPX_getApplid(foreign, &applid));
    EXPECT_RC(QPX_ERR_BADGWTOK, QPX_getApplidQualifier(foreign, &applid));

    EXPECT_EQ(nullptr, applid);
    EXPECT_EQ(2, trace.timesWroteText("clapi_gwytok.clapiRegisterRequest() Gateway token=" +
                                      shown(zeros.get()) + " not found, findRc=1003\n"));
}

TEST_F(ConnectionApplid, CannotBeReadAfterTheClose)
{
    QPX_ConnToken_t stale = token;
    auto closing = callInThread([this] { return QPX_closeGatewayConnection(&token); });
    peer.read(33);
    peer.send(closeFlow());
    ASSERT_RC(QPX_OK, closing.get());
    char* applid = nullptr;

    EXPECT_RC(QPX_ERR_BADGWTOK, QPX_getApplid(stale, &applid));
    EXPECT_RC(QPX_ERR_BADGWTOK, QPX_getApplidQualifier(stale, &applid));
}

TEST_F(ConnectionApplid, CanBeReadWhileTheConnectionCloses)
{
    auto closing = callInThread([this] { return QPX_closeGatewayConnection(&token); });
    EXPECT_EQ(closeFlow(), peer.read(33));
    char* applid = nullptr;

    EXPECT_RC(QPX_OK, QPX_getApplid(token, &applid));
    EXPECT_STREQ("MYAPPL", applid);

    peer.send(closeFlow());
    EXPECT_RC(QPX_OK, closing.get());
}

TEST_F(ConnectionApplid, CanBeReadAfterTheConnectionIsLost)
{
    peer.close();
    support::EciParms parms = support::syncCall("PROG", text("question"));
    EXPECT_RC(QPX_ERR_LOSTGWCON, QPX_ECI_Execute(token, &parms.record));
    char* applid = nullptr;

    EXPECT_RC(QPX_OK, QPX_getApplid(token, &applid));

    EXPECT_STREQ("MYAPPL", applid);
}

TEST_F(ConnectionApplid, CountsAsACallWhileItIsRead)
{
    TraceFile trace(3);
    char* applid = nullptr;

    QPX_getApplid(token, &applid);

    std::string at = shown(token);
    EXPECT_TRUE(trace.wroteText("EVENT  clapi_gwytok.clapiRegisterRequest() Outstanding API "
                                "calls=1 on gwTokPtr=" +
                                at + "\n"));
    EXPECT_TRUE(trace.wroteText("EVENT  clapi_gwytok.clapiUnregisterRequest() Outstanding API "
                                "calls=0 on gwTokPtr=" +
                                at + "\n"));
    EXPECT_TRUE(trace.wrote(1057, "EXIT", "API.QPX_getApplid() rc=0 (QPX_OK)"));
}

TEST_F(ConnectionApplid, HasAQualifierThatNeedsAToken)
{
    char* qualifier = nullptr;
    TraceFile trace(3);

    EXPECT_RC(QPX_ERR_NULLGWTOK, QPX_getApplidQualifier(nullptr, &qualifier));

    EXPECT_TRUE(trace.wrote(
        1058, "ENTRY",
        "API.QPX_getApplidQualifier(gwTok=(nil), applidQualifier=" + shown(&qualifier) + ")"));
    EXPECT_TRUE(
        trace.wrote(1059, "*EXC*", "API.QPX_getApplidQualifier() NULL gateway token, gwTok=(nil)"));
    EXPECT_TRUE(
        trace.wrote(1061, "EXIT", "API.QPX_getApplidQualifier() rc=-100 (QPX_ERR_NULLGWTOK)"));
    EXPECT_EQ(3U, trace.ownRecords().size());
}

TEST_F(ConnectionApplid, HasAQualifierThatNeedsAPlaceToStoreIt)
{
    TraceFile trace(3);

    EXPECT_RC(QPX_ERR_NULLPTR, QPX_getApplidQualifier(token, nullptr));

    EXPECT_TRUE(trace.wrote(1060, "*EXC*",
                            "API.QPX_getApplidQualifier() Supplied pointer is NULL, "
                            "applidQualifier=(nil)"));
    EXPECT_TRUE(
        trace.wrote(1061, "EXIT", "API.QPX_getApplidQualifier() rc=-109 (QPX_ERR_NULLPTR)"));
    EXPECT_EQ(3U, trace.ownRecords().size());
}

} // namespace
