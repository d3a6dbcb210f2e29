// Results: the value or the failure, by type or by exception.
#include <type_traits>

#include "fixture.h"

using namespace hpp;

static_assert(!std::is_copy_constructible_v<qpx::Connection>);
static_assert(!std::is_copy_constructible_v<qpx::Channel>);
static_assert(!std::is_copy_constructible_v<qpx::UnitOfWork>);
static_assert(!std::is_copy_constructible_v<qpx::Pending<std::string>>);
static_assert(std::is_nothrow_move_constructible_v<qpx::Connection>);
static_assert(std::is_nothrow_move_assignable_v<qpx::Channel>);
static_assert(std::is_nothrow_move_constructible_v<qpx::UnitOfWork>);
static_assert(std::is_nothrow_move_constructible_v<qpx::Pending<qpx::Channel>>);
static_assert(std::is_nothrow_move_constructible_v<qpx::Collector>);
static_assert(std::is_copy_constructible_v<qpx::Call>);

TEST(Results, HoldTheFailureForWhoLooks)
{
    auto opened = qpx::Connection::open("127.0.0.1", 0);
    EXPECT_FALSE(opened);
    EXPECT_RC(QPX_ERR_BADPORT, opened.code());
    EXPECT_EQ("QPX_openRemoteGatewayConnectionApplid: QPX_ERR_BADPORT (-107)",
              opened.failure().text());
}

TEST(Results, ThrowTheFailureForWhoTakesTheValue)
{
    try {
        qpx::Connection::open("127.0.0.1", 70000).value();
        FAIL() << "nothing was thrown";
    } catch (const qpx::Error& error) {
        EXPECT_RC(QPX_ERR_BADPORT, error.code());
        EXPECT_STREQ("QPX_openRemoteGatewayConnectionApplid: QPX_ERR_BADPORT (-107)", error.what());
    }
}

TEST(Results, ThrowForACallThatBringsNothing)
{
    EXPECT_NO_THROW(qpx::setTraceLevel(0).value());
    EXPECT_THROW(qpx::setTraceLevel(6).value(), qpx::Error);
}

TEST(Results, GiveAnotherValueInPlaceOfAFailure)
{
    qpx::Channel channel = qpx::Channel::create("CHANNEL").value();
    EXPECT_EQ("none", channel.data("MISSING").valueOr("none"));
    channel.addBytes("THERE", "data").value();
    EXPECT_EQ("data", channel.data("THERE").valueOr("none"));
}

TEST(Results, TellAnEndedConnectionFromOtherFailures)
{
    for (int code : {QPX_ERR_LOSTGWCON, QPX_ERR_GATEWAY_CLOSED, QPX_ERR_GWTOK_CLOSED,
                     QPX_ERR_BADGWTOK, QPX_ERR_NULLGWTOK})
        EXPECT_TRUE(qpx::Failure(code, "call").connectionEnded()) << code;
    for (int code : {ECI_ERR_TRANSACTION_ABEND, ECI_ERR_NO_VORN, QPX_ERR_WORK_WAS_REFUSED})
        EXPECT_FALSE(qpx::Failure(code, "call").connectionEnded()) << code;
}

TEST(Library, TellsItsVersion)
{
    EXPECT_EQ("10.1.0.0", qpx::libraryVersion());
}
