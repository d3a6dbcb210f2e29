// Browsing the containers of a channel: their order, and where browsing goes on after a change.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qpxclient_eci.h"
#include "support/channels.h"
#include "support/expect_rc.h"
#include "support/trace_file.h"

using namespace support;

namespace {

using Names = std::vector<std::string>;

// A channel with P, Q and R, which are browsed as R, Q, P.
class ChannelBrowse : public ::testing::Test {
protected:
    ChannelBrowse()
    {
        channel.addBit("P");
        channel.addBit("Q");
        channel.addBit("R");
    }

    void remove(const char* name) const { EXPECT_RC(0, ECI_deleteContainer(channel.token, name)); }

    Channel channel;
};

class ChannelBrowseEmpty : public ::testing::Test {
protected:
    Channel channel;
};

} // namespace

// ---- Order -------------------------------------------------------------------------------------

TEST_F(ChannelBrowse, BeginsWithTheNewest)
{
    EXPECT_EQ("R", channel.first());
    EXPECT_EQ("Q", channel.next());
    EXPECT_EQ("P", channel.next());
}

TEST_F(ChannelBrowse, TellsTheEndOnceAndBeginsAnew)
{
    EXPECT_EQ("R", channel.first());
    EXPECT_EQ("Q", channel.next());
    EXPECT_EQ("P", channel.next());
    EXPECT_EQ("-54", channel.next());
    EXPECT_EQ("R", channel.next());
    EXPECT_EQ("Q", channel.next());
    EXPECT_EQ("P", channel.next());
    EXPECT_EQ("-54", channel.next());
}

TEST_F(ChannelBrowse, MayBeginWithTheNext)
{
    EXPECT_EQ("R", channel.next());
    EXPECT_EQ("Q", channel.next());
}

TEST_F(ChannelBrowse, BeginsAnewWithEveryFirst)
{
    EXPECT_EQ("R", channel.first());
    EXPECT_EQ("Q", channel.next());
    EXPECT_EQ("R", channel.first());
    EXPECT_EQ("R", channel.first());
    EXPECT_EQ("Q", channel.next());
}

TEST_F(ChannelBrowse, HasOnePositionForEachChannel)
{
    Channel other;
    other.addBit("X");
    other.addBit("Y");
    EXPECT_EQ("R", channel.first());
    EXPECT_EQ("Y", other.first());
    EXPECT_EQ("Q", channel.next());
    EXPECT_EQ("X", other.next());
    EXPECT_EQ("P", channel.next());
    EXPECT_EQ("-54", other.next());
}

TEST_F(ChannelBrowse, IsNotMovedByOtherCalls)
{
    EXPECT_EQ("R", channel.first());
    channel.info("P");
    channel.data("P");
    EXPECT_RC(0, ECI_setContainerData(channel.token, "P", "data", 4));
    EXPECT_RC(-58, ECI_deleteContainer(channel.token, "NONE"));
    EXPECT_EQ("Q", channel.next());
}

TEST_F(ChannelBrowseEmpty, HasNoFirst)
{
    EXPECT_EQ("-54", channel.first());
    EXPECT_EQ("-54", channel.first());
}

TEST_F(ChannelBrowseEmpty, HasNoNext)
{
    EXPECT_EQ("-54", channel.next());
    EXPECT_EQ("-54", channel.next());
}

TEST_F(ChannelBrowseEmpty, WithOneContainerAlternatesWithTheEnd)
{
    channel.addBit("ONLY");
    EXPECT_EQ("ONLY", channel.next());
    EXPECT_EQ("-54", channel.next());
    EXPECT_EQ("ONLY", channel.next());
    EXPECT_EQ("-54", channel.next());
}

TEST_F(ChannelBrowseEmpty, GoesThroughManyContainers)
{
    Names expected;
    for (int number = 0; number < 500; ++number) {
        std::string name = "C" + std::to_string(number);
        channel.addBit(name.c_str());
        expected.insert(expected.begin(), name);
    }
    EXPECT_EQ(expected, channel.names());
}

// ---- Creation ----------------------------------------------------------------------------------

TEST_F(ChannelBrowse, DoesNotMeetAContainerCreatedOnTheWay)
{
    EXPECT_EQ("R", channel.first());
    channel.addBit("S");
    EXPECT_EQ("Q", channel.next());
    EXPECT_EQ("P", channel.next());
    EXPECT_EQ("-54", channel.next());
    EXPECT_EQ("S", channel.next());
}

TEST_F(ChannelBrowse, MeetsAContainerCreatedBehindTheEnd)
{
    channel.names();
    channel.addBit("S");
    EXPECT_EQ("S", channel.next());
    EXPECT_EQ("R", channel.next());
}

TEST_F(ChannelBrowseEmpty, MeetsAContainerCreatedAfterTheEnd)
{
    EXPECT_EQ("-54", channel.next());
    channel.addBit("LATE");
    EXPECT_EQ("LATE", channel.next());
}

// ---- Deletion ----------------------------------------------------------------------------------

TEST_F(ChannelBrowse, IsInOrderWithoutTheFirst)
{
    remove("R");
    EXPECT_EQ((Names{"Q", "P"}), channel.names());
}

TEST_F(ChannelBrowse, IsInOrderWithoutTheMiddle)
{
    remove("Q");
    EXPECT_EQ((Names{"R", "P"}), channel.names());
}

TEST_F(ChannelBrowse, IsInOrderWithoutTheLast)
{
    remove("P");
    EXPECT_EQ((Names{"R", "Q"}), channel.names());
}

TEST_F(ChannelBrowse, EndsWhenAllAreDeleted)
{
    remove("Q");
    remove("R");
    remove("P");
    EXPECT_EQ("-54", channel.first());
    EXPECT_EQ("-54", channel.next());
}

TEST_F(ChannelBrowse, GoesOnAfterTheDeletedFirst)
{
    EXPECT_EQ("R", channel.first());
    remove("R");
    EXPECT_EQ("Q", channel.next());
    EXPECT_EQ("P", channel.next());
    EXPECT_EQ("-54", channel.next());
}

TEST_F(ChannelBrowse, GoesOnAfterTheDeletedMiddle)
{
    EXPECT_EQ("R", channel.first());
    EXPECT_EQ("Q", channel.next());
    remove("Q");
    EXPECT_EQ("P", channel.next());
    EXPECT_EQ("-54", channel.next());
}

TEST_F(ChannelBrowse, EndsAfterTheDeletedLast)
{
    EXPECT_EQ("R", channel.first());
    EXPECT_EQ("Q", channel.next());
    EXPECT_EQ("P", channel.next());
    remove("P");
    EXPECT_EQ("-54", channel.next());
    EXPECT_EQ("R", channel.next());
}

TEST_F(ChannelBrowse, GoesOnWhenAnEarlierOneIsDeleted)
{
    EXPECT_EQ("R", channel.first());
    EXPECT_EQ("Q", channel.next());
    remove("R");
    EXPECT_EQ("P", channel.next());
    EXPECT_EQ("-54", channel.next());
    EXPECT_EQ("Q", channel.next());
}

TEST_F(ChannelBrowse, LeavesOutALaterOneThatIsDeleted)
{
    EXPECT_EQ("R", channel.first());
    remove("Q");
    EXPECT_EQ("P", channel.next());
}

TEST_F(ChannelBrowse, EndsWhenAllLaterOnesAreDeleted)
{
    EXPECT_EQ("R", channel.first());
    remove("Q");
    remove("P");
    EXPECT_EQ("-54", channel.next());
    EXPECT_EQ("R", channel.next());
}

TEST_F(ChannelBrowse, DeletesEachOnItsWay)
{
    Names met;
    for (std::string name = channel.first(); name != "-54"; name = channel.next()) {
        met.push_back(name);
        remove(name.c_str());
    }
    EXPECT_EQ((Names{"R", "Q", "P"}), met);
    EXPECT_EQ("-54", channel.first());
}

TEST_F(ChannelBrowse, GoesOnAfterTwoDeletionsAtItsPosition)
{
    EXPECT_EQ("R", channel.first());
    EXPECT_EQ("Q", channel.next());
    remove("Q");
    remove("R");
    EXPECT_EQ("P", channel.next());
}

TEST_F(ChannelBrowse, MeetsANewContainerWhenTheFirstWasDeletedAtItsPosition)
{
    EXPECT_EQ("R", channel.first());
    remove("R");
    channel.addBit("S");
    EXPECT_EQ("S", channel.next());
    EXPECT_EQ("Q", channel.next());
}

TEST_F(ChannelBrowse, MeetsAContainerAgainThatWasDeletedAndCreated)
{
    EXPECT_EQ("R", channel.first());
    remove("P");
    channel.addBit("P");
    EXPECT_EQ("Q", channel.next());
    EXPECT_EQ("-54", channel.next());
    EXPECT_EQ((Names{"P", "R", "Q"}), channel.names());
}

TEST_F(ChannelBrowseEmpty, EndsWhenItsOnlyContainerIsDeleted)
{
    channel.addBit("ONLY");
    EXPECT_EQ("ONLY", channel.first());
    EXPECT_RC(0, ECI_deleteContainer(channel.token, "ONLY"));
    EXPECT_EQ("-54", channel.next());
    EXPECT_EQ("-54", channel.first());
}

// ---- What the trace says -----------------------------------------------------------------------

TEST_F(ChannelBrowse, TellsThePositionAfterADeletionAtIt)
{
    EXPECT_EQ("R", channel.first());
    EXPECT_EQ("Q", channel.next());
    TraceFile trace(4);
    remove("Q");
    EXPECT_TRUE(
        trace.wroteText("DEBUG  API.ECI_deleteContainer() Current container is now \"R\"\n"));
}

TEST_F(ChannelBrowse, TellsThatThereIsNoPositionAfterADeletionOfTheFirst)
{
    EXPECT_EQ("R", channel.first());
    TraceFile trace(4);
    remove("R");
    EXPECT_TRUE(
        trace.wroteText("DEBUG  API.ECI_deleteContainer() Current container is now NULL\n"));
}

TEST_F(ChannelBrowse, SaysNothingOfThePositionAfterADeletionElsewhere)
{
    EXPECT_EQ("R", channel.first());
    TraceFile trace(4);
    remove("Q");
    EXPECT_FALSE(trace.wroteText("Current container is now"));
}

TEST_F(ChannelBrowse, TellsThatItBeginsAnew)
{
    TraceFile trace(4);
    EXPECT_EQ("R", channel.next());
    EXPECT_TRUE(trace.wroteText("DEBUG  API.ECI_getNextContainer() Current container is NULL, "
                                "retrieving first container\n"));
    EXPECT_TRUE(trace.wroteText("DEBUG  API.ECI_getNextContainer() Current container is \"R\"\n"));
}

TEST_F(ChannelBrowse, DoesNotTellThatItBeginsAnewOnItsWay)
{
    EXPECT_EQ("R", channel.first());
    TraceFile trace(4);
    EXPECT_EQ("Q", channel.next());
    EXPECT_FALSE(trace.wroteText("retrieving first container"));
    EXPECT_TRUE(trace.wroteText("DEBUG  API.ECI_getNextContainer() Current container is \"Q\"\n"));
}
