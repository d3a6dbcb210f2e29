// What is in the slots of a table, and what becomes of the memory and the events of all of them.
#include <cstdlib>
#include <cstring>

#include "data_storage.h"
#include "support/live_blocks.h"
#include "unit/connect_fixture.h"

using namespace fixture;
using support::Call;
using support::callCount;
using support::failCall;
using support::Fault;
using support::LiveBlocks;
using support::Threads;
using support::TraceFile;

namespace {

class SlotContents : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_RC(QPX_OK, clapiInit());
        table = static_cast<RequestTable*>(std::calloc(1, sizeof(RequestTable)));
        ASSERT_NE(nullptr, table);
        clapiInitializeTable(table, 1);
    }
    void TearDown() override { freeTables(); }

    // As the end of a token does, whatever is still in use.
    void freeTables()
    {
        if (table != nullptr) clapiFreeTables(table);
        std::free(table);
        table = nullptr;
    }

    RequestSlot* take(int luwToken = 0) const
    {
        RequestSlot* slot = nullptr;
        EXPECT_RC(QPX_OK, slotFind(table, luwToken, &slot));
        return slot;
    }
    void takeMany(int count) const
    {
        for (int at = 0; at < count; ++at) take();
    }
    void giveBack(int messageId) const { slotFree(table, clapiSlotById(table, messageId)); }

    RequestTable* table = nullptr;
};

using SlotTableBlocks = SlotContents;
using SlotTableEvents = SlotContents;

// As a request leaves it that has been overtaken by its reply.
void fill(RequestSlot* slot)
{
    slot->gatewayRc = 61446;
    slot->vornRc = -7;
    slot->nextReply = slot;
    slot->replyBefore = slot;
    slot->asyncBuffer = nullptr;
    slot->replyCapacity = 77;
    slot->channelHeld = 1;
    slot->beingSent = 1;
    slot->outcomePending = 1;
    slot->purpose = PASSWORD_REQUEST;
}

void expectClear(const RequestSlot* slot)
{
    EXPECT_EQ(0, slot->gatewayRc);
    EXPECT_EQ(0, slot->vornRc);
    EXPECT_EQ(nullptr, slot->nextReply);
    EXPECT_EQ(nullptr, slot->replyBefore);
    EXPECT_EQ(0U, slot->replyCapacity);
    EXPECT_EQ(0, slot->channelHeld);
    EXPECT_EQ(0, slot->beingSent.load());
    EXPECT_EQ(0, slot->outcomePending);
    EXPECT_EQ(PROGRAM_CALL, slot->purpose);
}

} // namespace

// ---- Slots ----

TEST_F(SlotContents, AreClearOnceTheSlotIsGivenBack)
{
    RequestSlot* slot = take();
    fill(slot);

    slotFree(table, slot);

    expectClear(slot);
}

TEST_F(SlotContents, AreClearWhenTheNextCallOfAUnitOfWorkTakesTheSlot)
{
    RequestSlot* slot = take();
    fill(slot);
    slot->state = SLOT_LUW_IDLE;
    slot->purpose = PROGRAM_CALL; // or it is no unit's
    slot->eciParms.eci_luw_token = 42;

    ASSERT_EQ(slot, take(42));

    expectClear(slot);
}

TEST_F(SlotContents, NameEachUseOfTheSlotByANumberOfItsOwn)
{
    RequestSlot* slot = take();
    uint32_t first = slot->allocNumber;
    slotFree(table, slot);

    ASSERT_EQ(slot, take());

    EXPECT_NE(0U, first);
    EXPECT_EQ(first + 1, slot->allocNumber);
}

TEST_F(SlotContents, NameNoUseOfASlotThatIsFree)
{
    RequestSlot* slot = take();

    slotFree(table, slot);

    EXPECT_EQ(0U, slot->allocNumber);
}

TEST_F(SlotContents, HaveNoMessageIdOnceTheTableHasLeftTheChain)
{
    takeMany(17);
    RequestSlot* added = clapiSlotById(table, 17);

    giveBack(17);

    for (int at = 0; at < 16; ++at) EXPECT_EQ(0, added[at].messageId.load()) << at;
}

TEST_F(SlotContents, EndTheChainOnceTheTableHasLeftIt)
{
    takeMany(17);
    RequestSlot* added = clapiSlotById(table, 17);

    giveBack(17);

    for (int at = 0; at < 16; ++at) EXPECT_EQ(nullptr, added[at].nextSlot.load()) << at;
}

// Its first slot could not be taken, so that no slot of it is ever given back.
TEST_F(SlotContents, StayInAnEmptyTableWhenASlotOfAnotherIsGivenBack)
{
    takeMany(16);
    {
        Fault fault = failCall(Call::MutexInit, 1, ENOMEM, Threads::Calling);
        RequestSlot* slot = nullptr;
        ASSERT_RC(QPX_ERR_SYSTEM_ERROR, slotFind(table, 0, &slot));
    }
    RequestSlot* added = clapiSlotById(table, 17);
    TraceFile trace(4);

    giveBack(3);

    EXPECT_EQ(added, clapiSlotById(table, 17));
    EXPECT_EQ(0, trace.timesWrote(2058));
}

TEST_F(SlotContents, AreLookedForInTheTrace)
{
    take();
    TraceFile trace(4);

    take();

    EXPECT_TRUE(
        trace.wrote(2059, "DEBUG", "clapi_gwytok.slotFind() Creating request event for slot 2"));
}

TEST_F(SlotContents, OfAnUnknownUnitOfWorkAreToldInTheTrace)
{
    take();
    TraceFile trace(1);
    RequestSlot* slot = nullptr;

    EXPECT_RC(ECI_ERR_LUW_TOKEN, slotFind(table, 4711, &slot));

    EXPECT_TRUE(trace.wrote(2082, "*EXC*", "clapi_gwytok.slotFind() LUW token=4711 not found"));
}

// ---- Memory ----

TEST_F(SlotTableBlocks, OfAPendingReplyGoWithItsSlot)
{
    RequestSlot* slot = take();
    LiveBlocks blocks;
    slot->replyData = ArrivingBytes{};
    ASSERT_TRUE(clapiProvideRoom(&slot->replyData, 100));
    ASSERT_EQ(1, blocks.count());
    slot->outcomePending = 1;

    slotFree(table, slot);

    EXPECT_EQ(0, blocks.count());
}

TEST_F(SlotTableBlocks, AreGivenBackWithTheChain)
{
    LiveBlocks blocks;
    takeMany(16 * 4);
    ASSERT_LT(3, blocks.count()); // three tables, and the index

    freeTables();

    EXPECT_EQ(0, blocks.count());
}

TEST_F(SlotTableBlocks, AreGivenBackWithTheTablesThatWereKept)
{
    LiveBlocks blocks;
    takeMany(16 * 4);
    for (int messageId = 16 * 4; messageId > 0; --messageId) giveBack(messageId);
    ASSERT_LT(3, blocks.count());

    freeTables();

    EXPECT_EQ(0, blocks.count());
}

TEST_F(SlotTableBlocks, DoNotGrowInNumberWhenATableServesAgain)
{
    takeMany(16 * 3);
    for (int messageId = 16 * 3; messageId > 16; --messageId) giveBack(messageId);
    LiveBlocks blocks;

    takeMany(16 * 2);

    EXPECT_EQ(0, blocks.count());
}

// ---- Events ----

TEST_F(SlotTableEvents, AreDestroyedWithTheChainAsOftenAsTheyWereMade)
{
    int made = callCount(Call::CondInit);
    int destroyed = callCount(Call::CondDestroy);
    takeMany(16 * 2 + 3);

    freeTables();

    EXPECT_EQ(35, callCount(Call::CondInit) - made);
    EXPECT_EQ(35, callCount(Call::CondDestroy) - destroyed);
}

TEST_F(SlotTableEvents, AreDestroyedWithTheTablesThatWereKept)
{
    int made = callCount(Call::CondInit);
    int destroyed = callCount(Call::CondDestroy);
    takeMany(16 * 2 + 3);
    for (int messageId = 16 * 2 + 3; messageId > 0; --messageId) giveBack(messageId);

    freeTables();

    EXPECT_EQ(35, callCount(Call::CondInit) - made);
    EXPECT_EQ(35, callCount(Call::CondDestroy) - destroyed);
}
