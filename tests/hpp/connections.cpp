// Connections as values: open, called on, moved, closed and cleaned up after.
#include <cstring>

#include "fixture.h"
#include "support/call_in_thread.h"

using namespace hpp;
using support::callInThread;
using namespace std::chrono_literals;

namespace {

class Open : public WithGateway {};
class Connections : public WithConnection {};
class Calls : public WithConnection {};

} // namespace

TEST_F(Open, GivesTheConnectionItsIdentity)
{
    auto connection =
        qpx::Connection::open("127.0.0.1", gateway.port(), 10s, {"BRANCH", "NORTH"}).value();
    EXPECT_EQ("BRANCH", connection.applid().value());
    EXPECT_EQ("NORTH", connection.applidQualifier().value());
}

TEST_F(Open, RefusesALimitThatIsOutOfRange)
{
    for (auto limit : {-1s, 3601s, std::chrono::seconds::max(), std::chrono::seconds::min()})
        EXPECT_FAILURE(QPX_ERR_INVALIDTIMEOUTPARM,
                       qpx::Connection::open("127.0.0.1", gateway.port(), limit));
}

TEST_F(Connections, AreClosedWhenTheirValueGoes)
{
    {
        qpx::Connection other = connect();
        ASSERT_TRUE(other.isOpen());
    }
    EXPECT_TRUE(gateway.awaitCloseFlows(1));
}

TEST_F(Connections, AreNotClosedByBeingMoved)
{
    qpx::Connection moved = std::move(connection);
    EXPECT_EQ(0u, gateway.closeFlowCount());
    EXPECT_EQ("hello", moved.call(echo, "hello").value());
}

TEST_F(Connections, AreClosedWhenAnotherTakesTheirPlace)
{
    connection = connect();
    EXPECT_TRUE(gateway.awaitCloseFlows(1));
    EXPECT_EQ("hello", connection.call(echo, "hello").value());
}

TEST_F(Connections, ThatWereMovedFromRefuseEveryCall)
{
    qpx::Connection moved = std::move(connection);
    qpx::Channel channel = qpx::Channel::create("CHANNEL").value();
    EXPECT_FAILURE(QPX_ERR_NULLGWTOK, connection.call(echo, "hello"));
    EXPECT_FAILURE(QPX_ERR_NULLGWTOK, connection.call(echo, channel));
    EXPECT_FAILURE(QPX_ERR_NULLGWTOK, connection.start(echo, "hello"));
    EXPECT_FAILURE(QPX_ERR_NULLGWTOK, connection.systems());
    EXPECT_FAILURE(QPX_ERR_NULLGWTOK, connection.applid());
    EXPECT_FAILURE(QPX_ERR_NULLGWTOK, connection.verifyPassword("FRED", "secret"));
    EXPECT_FAILURE(QPX_ERR_NULLGWTOK, qpx::UnitOfWork(connection).call(echo, "hello"));
    EXPECT_FAILURE(QPX_ERR_NULLGWTOK, qpx::Collector::over(connection));
    EXPECT_FAILURE(QPX_ERR_NULLGWTOK, connection.close());
    EXPECT_FAILURE(QPX_ERR_NULLGWTOK, connection.purge());
}

TEST_F(Connections, CloseInOrderAndOnlyOnce)
{
    EXPECT_FAILURE(QPX_OK, connection.close());
    EXPECT_FALSE(connection.isOpen());
    EXPECT_FAILURE(QPX_ERR_NULLGWTOK, connection.close());
    EXPECT_EQ(1u, gateway.closeFlowCount());
}

TEST_F(Connections, StayOpenAfterAPurgeWithALimitThatIsRefused)
{
    EXPECT_FAILURE(QPX_ERR_INVALIDTIMEOUTPARM, connection.purge(3601s));
    EXPECT_EQ("hello", connection.call(echo, "hello").value());
}

TEST_F(Connections, EndACallThatWaitsWhenAnotherThreadPurges)
{
    gateway.hold();
    auto call = callInThread([&] { return connection.call(echo, "hello").code(); });
    ASSERT_TRUE(gateway.awaitRequests(1));
    EXPECT_FAILURE(QPX_OK, connection.purge());
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, call.get());
}

TEST_F(Calls, BringTheDataOfTheReply)
{
    EXPECT_EQ("hello", connection.call(echo, "hello").value());
    EXPECT_EQ(0, lastRequest().outboundLength.value_or(0));
}

TEST_F(Calls, SendTheDataAloneAndHaveRoomForALongerReply)
{
    gateway.setReply("LONG", [](const standin::EciRequest& request) {
        return standin::EciReply::withCommarea(request, bytes("a longer reply"));
    });
    EXPECT_EQ("a longer reply", connection.call(qpx::Call("LONG"), "ask", 14).value());
    EXPECT_EQ("ask", text(lastRequest().commarea));
    EXPECT_EQ(14, lastRequest().commareaLength);
}

TEST_F(Calls, TakeDataWithNulsAndNoneAtAll)
{
    const std::string data("a\0b", 3);
    EXPECT_EQ(data, connection.call(echo, data).value());
    EXPECT_EQ("", connection.call(echo, "").value());
}

TEST_F(Calls, CarryWhatTheCallSays)
{
    const auto call =
        qpx::Call("ECHO").on("PROD").as("FRED", "secret").transaction("TRN1").within(42s);
    ASSERT_TRUE(connection.call(call, "x"));
    const standin::EciRequest request = lastRequest();
    EXPECT_EQ("ECHO", request.program);
    EXPECT_EQ("PROD", request.server);
    EXPECT_EQ("FRED", request.userId);
    EXPECT_EQ("secret", request.password);
    EXPECT_EQ("TRN1", request.transid);
    EXPECT_EQ(42, request.timeout);
}

TEST_F(Calls, LeaveTheCallTheyAreMadeFromAsItWas)
{
    const qpx::Call plain("ECHO");
    static_cast<void>(plain.on("PROD").as("FRED", "secret"));
    ASSERT_TRUE(connection.call(plain, "x"));
    EXPECT_EQ("", lastRequest().server);
    EXPECT_EQ("", lastRequest().userId);
}

TEST_F(Calls, TakeARecordAndGiveOneBack)
{
    struct Order {
        char number[4];
        char rest[6];
    };
    Order order;
    std::memcpy(&order, "0815widget", sizeof order);
    const Order reply = connection.call(echo, order).value();
    EXPECT_EQ(0, std::memcmp(&order, &reply, sizeof order));
}

TEST_F(Calls, RefuseANameThatDoesNotFitAndSendNothing)
{
    const qpx::Call calls[] = {qpx::Call("PROGRAM12"), echo.on("SERVER123"),
                               echo.transaction("TRANS"), echo.transactionProgram("TRANS")};
    for (const qpx::Call& each : calls)
        EXPECT_FAILURE(ECI_ERR_INVALID_DATA_LENGTH, connection.call(each, "x"));
    EXPECT_FAILURE(ECI_ERR_REQUEST_TIMEOUT, connection.call(echo.within(-1s), "x"));
    EXPECT_FAILURE(ECI_ERR_REQUEST_TIMEOUT, connection.call(echo.within(32768s), "x"));
    EXPECT_EQ(0u, gateway.requestCount());
    EXPECT_TRUE(connection.call(echo.within(32767s).transaction("TRAN").on("SERVER12"), "x"));
}

TEST_F(Calls, TakeAsMuchDataAsACommareaHolds)
{
    EXPECT_EQ(32767u, connection.call(echo, std::string(32767, 'x')).value().size());
    EXPECT_FAILURE(ECI_ERR_INVALID_DATA_LENGTH, connection.call(echo, std::string(32768, 'x')));
    EXPECT_FAILURE(ECI_ERR_INVALID_DATA_LENGTH, connection.call(echo, "x", 65537));
    EXPECT_EQ(1u, gateway.requestCount());
}

TEST_F(Calls, TellTheAbendCode)
{
    auto reply = connection.call(qpx::Call("ABEND"), "ASRA");
    ASSERT_FALSE(reply);
    EXPECT_EQ("ASRA", reply.failure().abendCode());
    EXPECT_EQ("QPX_ECI_Execute: ECI_ERR_TRANSACTION_ABEND (-7), abend code ASRA",
              reply.failure().text());
}

TEST_F(Calls, ListEverySystemHoweverManyThereAre)
{
    std::vector<standin::SystemEntry> known;
    for (int i = 0; i < 100; ++i) known.push_back({"SYS" + std::to_string(i), "system"});
    gateway.setListReply([known](const standin::EciRequest& request) {
        return standin::EciReply::systemList(request, known);
    });
    const auto systems = connection.systems().value();
    ASSERT_EQ(100u, systems.size());
    EXPECT_EQ("SYS0", systems.front().name);
    EXPECT_EQ("SYS99", systems.back().name);
    EXPECT_EQ("system", systems.back().description.substr(0, 6));
}

TEST_F(Calls, ListNoSystemWithoutAFailure)
{
    EXPECT_TRUE(connection.systems().value().empty());
}

TEST_F(Calls, TellWhatTheServerKnowsOfAPassword)
{
    gateway.setEsiReply([](const standin::EsiRequest& request) {
        standin::EsiReply reply;
        if (request.currentPassword != "Blue7sky") reply.vornRc = ESI_ERR_PASSWORD_INVALID;
        reply.invalidCount = 2;
        return reply;
    });
    auto details = connection.verifyPassword("FRED", "Blue7sky");
    ASSERT_TRUE(details) << details.failure().text();
    EXPECT_EQ(2, details->wrongAttempts);
    EXPECT_FALSE(details->expires.has_value());
    EXPECT_FALSE(connection.verifyPassword("FRED", "wrong"));
}
