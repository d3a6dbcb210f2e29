// The end of a connection, as the receiver thread makes it known.
#include "schedule/race_fixture.h"

using namespace race;

namespace {

class EndingConnection : public RaceTest {};

// Nobody sees its final state before the requests that wait have their outcomes.
TEST_F(EndingConnection, IsMadeKnownWithTheTableLocked)
{
    Hold ended(SchedulePoint::connectionEnded);
    connection.peer.shutdownWriting();

    ended.awaitArrival();

    EXPECT_EQ(CONN_LOST, token()->connStatus.load());
    EXPECT_FALSE(support::isFree(token()->tableLock.lock));
    ended.release();
    passTable();
    expectClosable();
}

} // namespace
