// Password calls, queries of systems and program calls mixed, against the stand-in gateway: every
// answer is that of its own question.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "standin/gateway.h"
#include "support/esi_script.h"

using namespace script;
using support::EciParms;
using support::syncCall;

namespace {

const std::vector<standin::SystemEntry> knownSystems = {
    {"PROD    ", "Production"}, {"TEST    ", "Test"}, {"EIGHTCHR", "A name of eight letters"}};

// Users are called U and a number; their password is derived from it.
std::string userName(int number)
{
    return "U" + std::to_string(number);
}
std::string passwordOf(const std::string& user)
{
    std::string password;
    for (char letter : user) password += {static_cast<char>(letter ^ 0x80), '\xFF', '\x01'};
    return password + user;
}

// Accepts a user's password only, and answers with numbers of that user.
standin::EsiReply checkPassword(const standin::EsiRequest& request)
{
    standin::EsiReply reply;
    if (request.currentPassword != passwordOf(request.userId)) {
        reply.vornRc = -106;
        return reply;
    }
    if (request.callType == 1 && request.newPassword != "new " + passwordOf(request.userId)) {
        reply.vornRc = -107;
        return reply;
    }
    int number = std::stoi(request.userId.substr(1));
    reply.lastVerified = {2000 + request.callType, 1, 1, 0, 0, 0, number};
    reply.expiry = {2010, 1, 1, 0, 0, 0, number + 1};
    reply.lastAccessed = {2020, 1, 1, 0, 0, 0, number + 2};
    reply.invalidCount = number + 3;
    return reply;
}

class EsiStory : public ::testing::Test {
protected:
    EsiStory() : gateway(options()) { gateway.setEsiReply(checkPassword); }
    void SetUp() override
    {
        ASSERT_RC(0, QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 30));
    }
    void TearDown() override
    {
        EXPECT_RC(0, QPX_closeGatewayConnection(&token));
        EXPECT_EQ(0U, gateway.findingCount());
        for (const standin::Finding& finding : gateway.findings()) ADD_FAILURE() << finding.problem;
    }

    static standin::GatewayOptions options()
    {
        standin::GatewayOptions options;
        options.systems = knownSystems;
        return options;
    }

    void expectDetails(const Details& details, int callType, int number)
    {
        EXPECT_EQ((std::vector<int>{2000 + callType, 1, 1, 0, 0, 0, number}),
                  valuesOf(details->lastVerifiedTime));
        EXPECT_EQ((std::vector<int>{2010, 1, 1, 0, 0, 0, number + 1}),
                  valuesOf(details->expiryTime));
        EXPECT_EQ((std::vector<int>{2020, 1, 1, 0, 0, 0, number + 2}),
                  valuesOf(details->lastAccessedTime));
        EXPECT_EQ(number + 3, details->invalidCount);
    }

    void verify(int number)
    {
        std::string user = userName(number);
        Details details;
        EXPECT_RC(0, QPX_ESI_verifyPassword(token, user.c_str(), passwordOf(user).c_str(), "PROD",
                                            details.get()));
        expectDetails(details, 0, number);
    }
    void change(int number)
    {
        std::string user = userName(number);
        Details details;
        EXPECT_RC(0, QPX_ESI_changePassword(token, user.c_str(), passwordOf(user).c_str(),
                                            ("new " + passwordOf(user)).c_str(), nullptr,
                                            details.get()));
        expectDetails(details, 1, number);
    }
    void refuse(int number)
    {
        std::string user = userName(number);
        Details details;
        EXPECT_RC(-302,
                  QPX_ESI_verifyPassword(token, user.c_str(), "wrong", nullptr, details.get()));
        EXPECT_RC(-315, QPX_ESI_changePassword(token, user.c_str(), passwordOf(user).c_str(),
                                               "rejected", nullptr, details.get()));
        EXPECT_TRUE(details.areUntouched());
    }
    void echo(int number)
    {
        Bytes question = filled(static_cast<std::size_t>(number % 2000 + 1),
                                static_cast<unsigned char>(number));
        EciParms parms = syncCall("ECHO", question);
        EXPECT_RC(0, QPX_ECI_Execute(token, &parms.record));
        EXPECT_EQ(question, parms.commarea());
    }
    void list(int number)
    {
        SystemArray systems(static_cast<std::size_t>(number % 3) + 1);
        bool allFit = systems.count == 3;
        std::size_t there = systems.count;
        EXPECT_RC(allFit ? 0 : -25, QPX_listSystems(token, &systems.count, systems.get()));
        const char* const names[] = {"PROD", "TEST", "EIGHTCHR"};
        for (std::size_t at = 0; at < there; ++at) {
            EXPECT_STREQ(names[at], systems.get()[at].SystemName);
            EXPECT_STREQ(knownSystems[at].description.c_str(), systems.get()[at].Description);
        }
        EXPECT_TRUE(systems.hasNothingBehind());
    }

    standin::Gateway gateway;
    QPX_ConnToken_t token = nullptr;
};

TEST_F(EsiStory, OfOneUser)
{
    verify(7);
    change(7);
    refuse(7);
    verify(8);
    list(2);
    list(1);
    echo(100);
}

TEST_F(EsiStory, OfEightThreadsOnOneConnection)
{
    std::vector<support::RunningCall<bool>> threads;
    std::atomic<int> next{1};
    for (int thread = 0; thread < 8; ++thread)
        threads.push_back(callInThread([&] {
            for (int round = 0; round < 40; ++round) {
                int number = next++;
                verify(number);
                echo(number);
                change(number);
                list(number);
                refuse(number);
            }
            return true;
        }));
    for (auto& thread : threads) EXPECT_TRUE(thread.get());

    EXPECT_EQ(321, next.load());
    EXPECT_EQ(320U * 6U, gateway.requestCount());
    EXPECT_EQ(1U, gateway.connectionCount());
}

TEST_F(EsiStory, OfAnswersInTheOppositeOrder)
{
    gateway.hold();
    std::vector<support::RunningCall<bool>> threads;
    for (int number = 1; number <= 20; ++number)
        threads.push_back(callInThread([=] {
            if (number % 4 == 0)
                list(2);
            else if (number % 4 == 1)
                echo(number);
            else if (number % 4 == 2)
                verify(number);
            else
                change(number);
            return true;
        }));
    ASSERT_TRUE(gateway.awaitHeld(20));

    EXPECT_EQ(20U, gateway.releaseReversed());

    for (auto& thread : threads) EXPECT_TRUE(thread.get());
    gateway.release();
}

TEST_F(EsiStory, OfAnswersInPieces)
{
    gateway.misbehave({standin::Fault::Pieces, 1});

    verify(1);
    change(2);
    list(2);
    refuse(3);
    echo(4);
}

TEST_F(EsiStory, OfPingsAmongTheAnswers)
{
    gateway.misbehave({standin::Fault::Ping});

    verify(1);
    change(2);
    list(0);
    refuse(3);
}

TEST_F(EsiStory, OfAGatewayWithoutSystems)
{
    standin::Gateway bare;
    QPX_ConnToken_t other = nullptr;
    ASSERT_RC(0, QPX_openRemoteGatewayConnection(localHost(), bare.port(), &other, 30));
    SystemArray systems(2);

    EXPECT_RC(-26, QPX_listSystems(other, &systems.count, systems.get()));
    EXPECT_EQ(0, systems.count);
    EXPECT_TRUE(systems.isUntouched());
    EXPECT_RC(61451, QPX_ESI_verifyPassword(other, "USER", "SECRET", nullptr, nullptr));

    EXPECT_RC(0, QPX_closeGatewayConnection(&other));
    EXPECT_EQ(0U, bare.findingCount());
}

} // namespace
