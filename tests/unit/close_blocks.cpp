// What is left of a connection's memory when it is closed, whatever was in progress on it.
#include "support/close_matrix.h"
#include "support/live_blocks.h"

using namespace matrix;
using support::LiveBlocks;

namespace {

class CloseBlocks : public ::testing::TestWithParam<Case> {
protected:
    // A first connection, so that what the library keeps for the process is there.
    static void openAndClose()
    {
        BusyConnection connection;
        EXPECT_RC(QPX_OK, connection.start(Closing::Close).get());
        connection.deleteChannel();
    }
};

} // namespace

TEST_P(CloseBlocks, AreAllFreedButTheRecord)
{
    openAndClose();
    LiveBlocks blocks;
    BusyConnection connection;
    EXPECT_LT(0, blocks.count()); // the token and the channel

    connection.begin(std::get<1>(GetParam()));
    RunningCall<int> closing = connection.start(std::get<0>(GetParam()));
    if (isPatient(std::get<0>(GetParam()))) connection.finish();
    EXPECT_RC(QPX_OK, closing.get());
    connection.awaitCalls();
    connection.deleteChannel();

    EXPECT_EQ(1, blocks.count()); // the token's record, which rests
}

INSTANTIATE_TEST_SUITE_P(, CloseBlocks,
                         ::testing::Combine(::testing::Values(Closing::Close, Closing::PurgeLong,
                                                              Closing::PurgeNow, Closing::CloseAll),
                                            everyWork()),
                         nameOf);

TEST(CloseOfALostConnection, LeavesNoBlockButTheRecord)
{
    BusyConnection first;
    EXPECT_RC(QPX_OK, first.start(Closing::Close).get());
    first.deleteChannel();
    LiveBlocks blocks;
    BusyConnection connection;
    connection.begin(Work::AsyncChannel);
    RunningCall<int> closing = connection.start(Closing::Close);
    connection.gateway->dropConnection();
    connection.finish(); // collects the loss
    EXPECT_RC(QPX_OK, closing.get());
    connection.deleteChannel();
    EXPECT_EQ(std::vector<int>{-102}, connection.results);
    EXPECT_EQ(1, blocks.count()); // the token's record, which rests
}
