// Units of work as values: what is not committed is backed out.
#include <stdexcept>

#include "fixture.h"

using namespace hpp;

namespace {

class Units : public WithConnection {
protected:
    // The extend mode of the request that came last.
    int lastMode() { return lastRequest().extendMode; }
};

} // namespace

TEST_F(Units, RunTheirCallsInOneUnitAndCommitIt)
{
    qpx::UnitOfWork unit(connection);
    EXPECT_FALSE(unit.isOpen());
    EXPECT_EQ("one", unit.call(echo, "one").value());
    const int token = unit.native();
    EXPECT_NE(0, token);
    EXPECT_EQ("two", unit.call(echo, "two").value());
    EXPECT_EQ(token, lastRequest().luwToken);
    EXPECT_FAILURE(QPX_OK, unit.commit());
    EXPECT_EQ(standin::kModeCommit, lastMode());
    EXPECT_EQ(0u, gateway.openUnitsOfWork());
}

TEST_F(Units, AreBackedOutWhenTheirValueGoes)
{
    {
        qpx::UnitOfWork unit(connection);
        ASSERT_TRUE(unit.call(echo, "one"));
        EXPECT_EQ(1u, gateway.openUnitsOfWork());
    }
    EXPECT_EQ(standin::kModeBackout, lastMode());
    EXPECT_EQ(0u, gateway.openUnitsOfWork());
}

TEST_F(Units, AreBackedOutWhenAnExceptionLeaves)
{
    try {
        qpx::UnitOfWork unit(connection);
        unit.call(echo, "one").value();
        throw std::runtime_error("the application's own");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(standin::kModeBackout, lastMode());
}

TEST_F(Units, ThatWereNeverOpenedSayNothing)
{
    {
        qpx::UnitOfWork unit(connection);
        EXPECT_FAILURE(QPX_OK, unit.backOut());
        EXPECT_FAILURE(ECI_ERR_LUW_TOKEN, unit.commit());
    }
    EXPECT_EQ(0u, gateway.requestCount());
}

TEST_F(Units, MoveWithoutEnding)
{
    qpx::UnitOfWork first(connection);
    ASSERT_TRUE(first.call(echo, "one"));
    qpx::UnitOfWork second = std::move(first);
    EXPECT_FALSE(first.isOpen());
    EXPECT_EQ(1u, gateway.openUnitsOfWork());
    EXPECT_FAILURE(QPX_OK, second.commit());
    EXPECT_EQ(2u, gateway.requestCount());
}

TEST_F(Units, ThatAFailureHasEndedBeginNoOtherUnseen)
{
    qpx::UnitOfWork unit(connection);
    ASSERT_TRUE(unit.call(echo, "one"));
    EXPECT_FAILURE(ECI_ERR_TRANSACTION_ABEND, unit.call(qpx::Call("ABEND"), "ASRA"));
    EXPECT_FALSE(unit.isOpen());
    EXPECT_FAILURE(ECI_ERR_LUW_TOKEN, unit.call(echo, "two"));
    EXPECT_FAILURE(ECI_ERR_LUW_TOKEN, unit.commit());
    EXPECT_EQ(2u, gateway.requestCount());
}

TEST_F(Units, StayOpenAfterACallThatIsRefusedUnsent)
{
    qpx::UnitOfWork unit(connection);
    ASSERT_TRUE(unit.call(echo, "one"));
    EXPECT_FAILURE(ECI_ERR_INVALID_DATA_LENGTH, unit.call(qpx::Call("PROGRAM12"), "two"));
    EXPECT_TRUE(unit.isOpen());
    EXPECT_FAILURE(QPX_OK, unit.commit());
}

TEST_F(Units, TakeChannelsAndDataAlike)
{
    qpx::Channel channel = qpx::Channel::create("CHANNEL").value();
    channel.addBytes("DATA", "12").value();
    qpx::UnitOfWork unit(connection);
    ASSERT_TRUE(unit.call(qpx::Call("CHANECHO"), channel));
    ASSERT_TRUE(unit.call(qpx::Call("CHANECHO"), channel));
    EXPECT_EQ(unit.native(), lastRequest().luwToken);
    EXPECT_FAILURE(QPX_OK, unit.commit());
}

TEST_F(Units, HaveAnEndWithTheServerAndTheUserOfTheirCalls)
{
    qpx::UnitOfWork unit(connection);
    ASSERT_TRUE(unit.call(echo.on("PROD").as("FRED", "secret"), "one"));
    EXPECT_FAILURE(QPX_OK, unit.commit());
    EXPECT_EQ("PROD", lastRequest().server);
    EXPECT_EQ("FRED", lastRequest().userId);
}

TEST_F(Units, ThatOutliveTheirConnectionSayNothing)
{
    qpx::UnitOfWork unit(connection);
    ASSERT_TRUE(unit.call(echo, "one"));
    ASSERT_TRUE(connection.close());
    EXPECT_FAILURE(QPX_ERR_NULLGWTOK, unit.commit());
}
