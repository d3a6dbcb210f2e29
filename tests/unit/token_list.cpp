// The list of gateway tokens: chaining, finding, unlinking and the dump.
#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "unit/connect_fixture.h"

using namespace fixture;
using namespace script;
using support::TraceFile;

namespace {

class TokenList : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_RC(QPX_OK, clapiInit()); }
};

// One line of the dump.
std::string entry(const std::string& number, const ScriptedConnection& connection, const void* next)
{
    return "Gateway Token List entry -" + number + "- : GatwayToken(" + shown(connection.token) +
           ") eyecatcher(QPXGWTOK) port(" + std::to_string(connection.gateway.port()) +
           ") connStatus(1) socket(" + std::to_string(connection.token->socketDescriptor) +
           ") applid() applidQual() nextGwyTokPtr(" + shown(next) + ")\n";
}

std::string total(int entries)
{
    return "Total number of Gateway Token List entries=" + std::to_string(entries) + "\n";
}

const std::string opening = "Gateway Token List dump\n";

TEST_F(TokenList, DumpsAsEmptyBeforeTheFirstOpen)
{
    EXPECT_EQ("Gateway Token List dump\n"
              "--------------------------------------------------------------------------------\n"
              "The Gateway Token List is EMPTY\n"
              "--------------------------------------------------------------------------------\n",
              dumpedTokens());
}

TEST_F(TokenList, DumpsOneTokenAsEntryOne)
{
    ScriptedConnection only;

    EXPECT_EQ(opening + rule + entry("0001", only, nullptr) + total(1) + rule, dumpedTokens());
}

TEST_F(TokenList, ChainsNewTokensAtTheTail)
{
    ScriptedConnection first;
    ScriptedConnection second;
    ScriptedConnection third;

    EXPECT_EQ(opening + rule + entry("0001", first, second.token) +
                  entry("0002", second, third.token) + entry("0003", third, nullptr) + total(3) +
                  rule,
              dumpedTokens());
}

TEST_F(TokenList, KeepsTheOthersWhenTheHeadIsClosed)
{
    ScriptedConnection first;
    ScriptedConnection second;
    ScriptedConnection third;

    first.closeInOrder();

    EXPECT_EQ(opening + rule + entry("0001", second, third.token) + entry("0002", third, nullptr) +
                  total(2) + rule,
              dumpedTokens());
}

TEST_F(TokenList, KeepsTheOthersWhenTheMiddleIsClosed)
{
    ScriptedConnection first;
    ScriptedConnection second;
    ScriptedConnection third;

    second.closeInOrder();

    EXPECT_EQ(opening + rule + entry("0001", first, third.token) + entry("0002", third, nullptr) +
                  total(2) + rule,
              dumpedTokens());
}

TEST_F(TokenList, ChainsBehindTheNewTailWhenTheTailWasClosed)
{
    ScriptedConnection first;
    ScriptedConnection second;
    ScriptedConnection third;

    third.closeInOrder();
    ScriptedConnection fourth;

    EXPECT_EQ(opening + rule + entry("0001", first, second.token) +
                  entry("0002", second, fourth.token) + entry("0003", fourth, nullptr) + total(3) +
                  rule,
              dumpedTokens());
}

TEST_F(TokenList, StartsAnewWhenAllHaveBeenClosed)
{
    ScriptedConnection first;
    ScriptedConnection second;
    first.closeInOrder();
    second.closeInOrder();
    EXPECT_EQ(emptyList(), dumpedTokens());

    ScriptedConnection third;
    ScriptedConnection fourth;

    EXPECT_EQ(opening + rule + entry("0001", third, fourth.token) + entry("0002", fourth, nullptr) +
                  total(2) + rule,
              dumpedTokens());
}

TEST_F(TokenList, TracesTheLengthOfADumpedList)
{
    ScriptedConnection first;
    ScriptedConnection second;
    TraceFile trace(3);

    clapiDumpGatewayTokens();

    EXPECT_EQ(1, trace.timesWrote(2038));
    EXPECT_TRUE(trace.wrote(2039, "EXIT", "clapi_gwytok.clapiDumpGatewayTokens() List length=2"));
}

TEST_F(TokenList, TracesTheLengthOfAnEmptyDumpWithoutALineEnd)
{
    TraceFile trace(3);

    clapiDumpGatewayTokens();
    clapiRegisterRequest(nullptr);

    EXPECT_TRUE(trace.wrote(2039, "EXIT", "clapi_gwytok.clapiDumpGatewayTokens() List length=0"));
    EXPECT_FALSE(trace.wroteText("List length=0\n"));
    EXPECT_TRUE(trace.wroteText("List length=0<any>[2020]"));
}

TEST_F(TokenList, IsDumpedWithTheStateOfTheLibrary)
{
    ScriptedConnection only;
    TraceFile trace(0);

    EXPECT_RC(QPX_OK, QPX_dumpState());

    EXPECT_TRUE(trace.wroteText(opening + rule + entry("0001", only, nullptr) + total(1) + rule));
}

TEST_F(TokenList, IsDumpedAsOfNoLengthWhenItCannotBeLocked)
{
    ScriptedConnection only;
    BrokenLock noList(gtlLock);
    TraceFile trace(3);

    clapiDumpGatewayTokens();

    EXPECT_FALSE(trace.wroteText(opening));
    EXPECT_TRUE(trace.wrote(2039, "EXIT", "clapi_gwytok.clapiDumpGatewayTokens() List length=0"));
}

TEST_F(TokenList, FindsItsHeadAtEntryZero)
{
    ScriptedConnection first;
    TraceFile trace(4);

    EXPECT_RC(QPX_OK, clapiRegisterRequest(first.token));
    EXPECT_RC(QPX_OK, clapiUnregisterRequest(first.token));

    EXPECT_TRUE(trace.wroteText("DEBUG  clapi_gwytok.findGatewayToken() Token found at GTL "
                                "Entry(0)"));
}

TEST_F(TokenList, FindsALaterTokenAtItsPosition)
{
    ScriptedConnection first;
    ScriptedConnection second;
    ScriptedConnection third;
    TraceFile trace(4);

    EXPECT_RC(QPX_OK, clapiRegisterRequest(second.token));
    EXPECT_RC(QPX_OK, clapiUnregisterRequest(second.token));
    EXPECT_TRUE(trace.wroteText("clapi_gwytok.findGatewayToken() Token found at GTL Entry(1)"));

    trace.forget();
    EXPECT_RC(QPX_OK, clapiRegisterRequest(third.token));
    EXPECT_RC(QPX_OK, clapiUnregisterRequest(third.token));
    EXPECT_TRUE(trace.wroteText("clapi_gwytok.findGatewayToken() Token found at GTL Entry(2)"));
}

TEST_F(TokenList, FindsNothingWhenItIsEmpty)
{
    std::unique_ptr<char[]> foreign(new char[sizeof(_QPX_ConnToken_t)]());
    TraceFile trace(4);

    EXPECT_RC(QPX_ERR_BADGWTOK,
              clapiRegisterRequest(reinterpret_cast<QPX_ConnToken_t>(foreign.get())));

    EXPECT_TRUE(trace.wroteText("DEBUG  clapi_gwytok.findGatewayToken() GTL is EMPTY"));
    EXPECT_FALSE(trace.wroteText("GTL is EMPTY\n"));
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.clapiRegisterRequest() Gateway token=" +
                                shown(foreign.get()) + " not found, findRc=1003\n"));
}

TEST_F(TokenList, DoesNotFindAForeignPointer)
{
    ScriptedConnection first;
    ScriptedConnection second;
    ScriptedConnection third;
    std::unique_ptr<char[]> foreign(new char[sizeof(_QPX_ConnToken_t)]());
    TraceFile trace(4);

    EXPECT_RC(QPX_ERR_BADGWTOK,
              clapiRegisterRequest(reinterpret_cast<QPX_ConnToken_t>(foreign.get())));

    EXPECT_TRUE(trace.wroteText("DEBUG  clapi_gwytok.findGatewayToken() Token not found. GTL "
                                "entries(2) head(" +
                                shown(first.token) + ") last(" + shown(third.token) + ")\n"));
    EXPECT_TRUE(trace.wroteText("clapiRegisterRequest() Gateway token=" + shown(foreign.get()) +
                                " not found, findRc=1003\n"));
}

TEST_F(TokenList, DoesNotFindANullToken)
{
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_BADGWTOK, clapiRegisterRequest(nullptr));

    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.findGatewayToken() Token null\n"));
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.clapiRegisterRequest() Gateway token=(nil) "
                                "not found, findRc=1002\n"));
}

TEST_F(TokenList, DoesNotFollowAPointerThatIsNotOnIt)
{
    ScriptedConnection connection;
    void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, page);

    EXPECT_RC(QPX_ERR_BADGWTOK, clapiRegisterRequest(static_cast<QPX_ConnToken_t>(page)));

    munmap(page, 4096);
}

TEST_F(TokenList, DoesNotFindATokenThatHasBeenFreed)
{
    ScriptedConnection connection;
    ScriptedConnection other;
    QPX_ConnToken_t stale = connection.token;
    connection.closeInOrder();

    EXPECT_RC(QPX_ERR_BADGWTOK, clapiRegisterRequest(stale));
}

} // namespace
