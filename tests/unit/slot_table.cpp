// The table of request slots: taking, giving back, looking up, and the tables added to it.
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "unit/connect_fixture.h"

using namespace fixture;
using support::beforeCall;
using support::Call;
using support::failCall;
using support::Fault;
using support::Threads;
using support::TraceFile;

namespace {

class SlotTable : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_RC(QPX_OK, clapiInit());
        table = static_cast<RequestTable*>(std::calloc(1, sizeof(RequestTable)));
        ASSERT_NE(nullptr, table);
        clapiInitializeTable(table, 1);
    }
    void TearDown() override
    {
        while (RequestSlot* last = lastInUse()) slotFree(table, last);
        clapiFreeTables(table);
        std::free(table);
    }

    RequestSlot* lastInUse() const
    {
        RequestSlot* last = nullptr;
        for (RequestSlot* slot = table->slot; slot != nullptr; slot = slot->nextSlot)
            if (slot->state != 0) last = slot;
        return last;
    }

    RequestSlot* take(int luwToken = 0)
    {
        RequestSlot* slot = nullptr;
        EXPECT_RC(QPX_OK, slotFind(table, luwToken, &slot));
        return slot;
    }

    void takeMany(int count)
    {
        for (int at = 0; at < count; ++at) take();
    }

    RequestSlot* withId(int messageId)
    {
        RequestSlot* slot = nullptr;
        EXPECT_RC(QPX_OK, slotLookup(table, messageId, &slot));
        return slot;
    }

    void giveBack(int messageId) { slotFree(table, withId(messageId)); }

    int lengthOfChain() const
    {
        int slots = 0;
        for (RequestSlot* slot = table->slot; slot != nullptr; slot = slot->nextSlot) slots += 1;
        return slots;
    }

    RequestTable* table = nullptr;
};

TEST_F(SlotTable, GivesTheFirstFreeSlot)
{
    RequestSlot* first = take();
    RequestSlot* second = take();

    EXPECT_EQ(&table->slot[0], first);
    EXPECT_EQ(&table->slot[1], second);
    EXPECT_EQ(1, first->messageId.load());
    EXPECT_EQ(2, second->messageId.load());
}

TEST_F(SlotTable, MarksATakenSlotAsAllocated)
{
    EXPECT_EQ(1, take()->state);
}

TEST_F(SlotTable, CreatesTheEventOfATakenSlot)
{
    TraceFile trace(4);

    RequestSlot* slot = take();

    EXPECT_TRUE(trace.wrote(3115, "clapi_lock.clapiCreateEvent() Creating event, eventPtr=" +
                                      shown(&slot->requestEvent)));
    EXPECT_EQ(0, slot->requestEvent.eflag);
}

TEST_F(SlotTable, TracesEntryAndExitOfATakenSlot)
{
    TraceFile trace(3);

    take();

    EXPECT_EQ(1, trace.timesWrote(2052));
    EXPECT_EQ(1, trace.timesWrote(2056));
}

TEST_F(SlotTable, GivesTheLowestSlotThatHasBeenGivenBack)
{
    takeMany(5);
    giveBack(4);
    giveBack(2);

    EXPECT_EQ(2, take()->messageId.load());
    EXPECT_EQ(4, take()->messageId.load());
    EXPECT_EQ(6, take()->messageId.load());
}

TEST_F(SlotTable, ClearsWhatTheLastRequestLeftInASlot)
{
    ESI_DETAILS details;
    RequestSlot* slot = take();
    slot->gatewayRc = 61446;
    slot->vornRc = -7;
    slot->nextReply = slot;
    slot->esiDetails = &details;
    slotFree(table, slot);

    ASSERT_EQ(slot, take());

    EXPECT_EQ(0, slot->gatewayRc);
    EXPECT_EQ(0, slot->vornRc);
    EXPECT_EQ(nullptr, slot->nextReply);
    EXPECT_EQ(nullptr, slot->esiDetails);
}

TEST_F(SlotTable, GivesTheSixteenthSlotWithoutGrowing)
{
    takeMany(15);

    EXPECT_EQ(16, take()->messageId.load());

    EXPECT_EQ(16, lengthOfChain());
}

TEST_F(SlotTable, GrowsByATableForTheSeventeenthRequest)
{
    takeMany(16);
    TraceFile trace(4);

    RequestSlot* slot = take();

    EXPECT_EQ(17, slot->messageId.load());
    EXPECT_EQ(32, lengthOfChain());
    EXPECT_EQ(slot, table->slot[15].nextSlot.load());
    EXPECT_TRUE(trace.wroteText("DEBUG  clapi_gwytok.slotFind() Created new slot table at slotP=" +
                                shown(slot) + ", first=17, last=32\n"));
}

TEST_F(SlotTable, GivesTheSlotsOfAnAddedTableDefinedContents)
{
    takeMany(16);

    RequestSlot* added = take();

    for (int at = 0; at < 16; ++at) {
        EXPECT_EQ(0, std::memcmp(added[at].eyecatcher, "QPXRSLOT", 8)) << at;
        EXPECT_EQ(17 + at, added[at].messageId.load());
        EXPECT_EQ(at == 0 ? 1 : 0, added[at].state) << at;
        EXPECT_EQ(at < 15 ? &added[at + 1] : nullptr, added[at].nextSlot.load()) << at;
        EXPECT_EQ(0, added[at].gatewayRc) << at;
        EXPECT_EQ(nullptr, added[at].nextReply) << at;
        QPX_ECI_PARMS zeros;
        std::memset(&zeros, 0, sizeof zeros);
        EXPECT_EQ(0, std::memcmp(&zeros, &added[at].eciParms, sizeof zeros)) << at;
    }
}

TEST_F(SlotTable, GrowsWithoutALimitAndKeepsEverySlotAtItsPlaceInItsTable)
{
    takeMany(16 * 40);

    EXPECT_EQ(640, lastInUse()->messageId.load());
    RequestSlot* firstOfTable = nullptr;
    int expectedId = 1;
    for (RequestSlot* slot = table->slot; slot != nullptr; slot = slot->nextSlot) {
        EXPECT_EQ(expectedId++, slot->messageId.load());
        int place = (slot->messageId - 1) % 16;
        if (place == 0) firstOfTable = slot;
        EXPECT_EQ(firstOfTable + place, slot);
    }
}

TEST_F(SlotTable, FailsWithMallocFailWhenItCannotGrow)
{
    takeMany(16);
    TraceFile trace(1);
    Fault fault = failCall(Call::Malloc, 1, ENOMEM, Threads::Calling);
    RequestSlot* slot = nullptr;

    EXPECT_RC(QPX_ERR_MALLOCFAIL, slotFind(table, 0, &slot));

    EXPECT_EQ(1, fault.hits());
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.slotFind() <any>\n"));
    EXPECT_EQ(16, lengthOfChain());
}

TEST_F(SlotTable, LeavesASlotFreeWhoseEventCannotBeCreated)
{
    TraceFile trace(1);
    Fault fault = failCall(Call::MutexInit, 1, ENOMEM, Threads::Calling);
    RequestSlot* slot = nullptr;

    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, slotFind(table, 0, &slot));

    EXPECT_EQ(1, fault.hits());
    EXPECT_TRUE(trace.wroteText("*EXC*  clapi_gwytok.slotFind() <any>\n"));
    EXPECT_EQ(&table->slot[0], slot);
    EXPECT_EQ(0, slot->state);
}

TEST_F(SlotTable, LeavesASlotFreeWhoseEventHasNoCondition)
{
    Fault fault = failCall(Call::CondInit, 1, ENOMEM, Threads::Calling);
    RequestSlot* slot = nullptr;

    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, slotFind(table, 0, &slot));

    EXPECT_EQ(0, table->slot[0].state);
}

TEST_F(SlotTable, DoesNotKnowAUnitOfWorkThatNoSlotHas)
{
    takeMany(2);
    table->slot[0].eciParms.eci_luw_token = 41;
    RequestSlot* slot = nullptr;

    EXPECT_RC(ECI_ERR_LUW_TOKEN, slotFind(table, 42, &slot));
}

TEST_F(SlotTable, DoesNotKnowAUnitOfWorkWhoseSlotIsFree)
{
    table->slot[3].eciParms.eci_luw_token = 42;
    RequestSlot* slot = nullptr;

    EXPECT_RC(ECI_ERR_LUW_TOKEN, slotFind(table, 42, &slot));

    table->slot[3].eciParms.eci_luw_token = 0;
}

TEST_F(SlotTable, GivesTheIdleSlotOfAUnitOfWork)
{
    takeMany(3);
    RequestSlot* slot = &table->slot[1];
    slot->state = 4;
    slot->eciParms.eci_luw_token = 42;
    TraceFile trace(4);

    EXPECT_EQ(slot, take(42));

    EXPECT_EQ(1, slot->state);
    EXPECT_TRUE(trace.wroteText("DEBUG  clapi_gwytok.slotFind() Found existing slot 2 for "
                                "request\n"));
}

TEST_F(SlotTable, KeepsTheEventOfAnIdleSlot)
{
    RequestSlot* slot = take();
    slot->state = 4;
    slot->eciParms.eci_luw_token = 42;
    TraceFile trace(4);

    take(42);

    EXPECT_EQ(0, trace.timesWrote(3115));
}

TEST_F(SlotTable, FindsAUnitOfWorkWithANegativeToken)
{
    RequestSlot* slot = take();
    slot->state = 4;
    slot->eciParms.eci_luw_token = -5;

    EXPECT_EQ(slot, take(-5));
}

TEST_F(SlotTable, DoesNotGiveAnIdleSlotToANewRequest)
{
    RequestSlot* idle = take();
    idle->state = 4;
    idle->eciParms.eci_luw_token = 42;

    EXPECT_EQ(2, take()->messageId.load());
}

TEST_F(SlotTable, RefusesAUnitOfWorkWithARequestBeingBuilt)
{
    RequestSlot* busy = take();
    busy->eciParms.eci_luw_token = 42;
    RequestSlot* slot = nullptr;

    EXPECT_RC(ECI_ERR_ALREADY_ACTIVE, slotFind(table, 42, &slot));
    EXPECT_EQ(busy, slot);
    EXPECT_EQ(1, busy->state);
}

TEST_F(SlotTable, RefusesAUnitOfWorkWithARequestOnItsWay)
{
    RequestSlot* busy = take();
    busy->state = 2;
    busy->eciParms.eci_luw_token = 42;
    RequestSlot* slot = nullptr;

    EXPECT_RC(ECI_ERR_ALREADY_ACTIVE, slotFind(table, 42, &slot));
    EXPECT_EQ(2, busy->state);
}

TEST_F(SlotTable, RefusesAUnitOfWorkWithAReplyThatNobodyHasTaken)
{
    RequestSlot* busy = take();
    busy->state = 3;
    busy->eciParms.eci_luw_token = 42;
    RequestSlot* slot = nullptr;

    EXPECT_RC(ECI_ERR_ALREADY_ACTIVE, slotFind(table, 42, &slot));
    EXPECT_EQ(3, busy->state);
}

TEST_F(SlotTable, TellsWhichSlotOfAUnitOfWorkIsInUse)
{
    takeMany(2);
    table->slot[1].eciParms.eci_luw_token = 42;
    TraceFile trace(1);
    RequestSlot* slot = nullptr;

    EXPECT_RC(ECI_ERR_ALREADY_ACTIVE, slotFind(table, 42, &slot));
    EXPECT_TRUE(trace.wrote(2064, "*EXC*",
                            "clapi_gwytok.slotFind() LUW token=42 has a call in progress in slot "
                            "2"));
}

TEST_F(SlotTable, LooksAtTheFirstSlotOfAUnitOfWorkOnly)
{
    takeMany(2);
    table->slot[0].state = 2;
    table->slot[0].eciParms.eci_luw_token = 42;
    table->slot[1].state = 4;
    table->slot[1].eciParms.eci_luw_token = 42;
    RequestSlot* slot = nullptr;

    EXPECT_RC(ECI_ERR_ALREADY_ACTIVE, slotFind(table, 42, &slot));
    EXPECT_EQ(&table->slot[0], slot);
}

TEST_F(SlotTable, FreesASlotWithItsEventAndItsRecord)
{
    RequestSlot* slot = take();
    std::memset(&slot->eciParms, 0x5A, sizeof slot->eciParms);
    TraceFile trace(4);

    slotFree(table, slot);

    EXPECT_EQ(0, slot->state);
    EXPECT_TRUE(trace.wrote(3118, "clapi_lock.clapiDeleteEvent() Deleting event, eventPtr=" +
                                      shown(&slot->requestEvent)));
    QPX_ECI_PARMS zeros;
    std::memset(&zeros, 0, sizeof zeros);
    EXPECT_EQ(0, std::memcmp(&zeros, &slot->eciParms, sizeof zeros));
    EXPECT_EQ(1, trace.timesWrote(2060));
}

// The reply to a query for systems leaves their number where other slots have their unit's token.
TEST_F(SlotTable, TakesNoQueryForSystemsForAUnitOfWork)
{
    RequestSlot* query = take();
    query->purpose = SYSTEM_LIST_QUERY;
    query->state = 3;
    query->eciParms.eci_luw_token = 42;
    RequestSlot* idle = take();
    idle->state = 4;
    idle->eciParms.eci_luw_token = 42;

    EXPECT_EQ(idle, take(42));

    EXPECT_EQ(3, query->state);
}

TEST_F(SlotTable, KnowsNoUnitOfWorkByAQueryForSystemsAlone)
{
    RequestSlot* query = take();
    query->purpose = SYSTEM_LIST_QUERY;
    query->state = 3;
    query->eciParms.eci_luw_token = 42;
    RequestSlot* slot = nullptr;

    EXPECT_RC(ECI_ERR_LUW_TOKEN, slotFind(table, 42, &slot));
}

TEST_F(SlotTable, ForgetsAUnitOfWorkWhenItsSlotIsFreed)
{
    RequestSlot* slot = take();
    slot->state = 4;
    slot->eciParms.eci_luw_token = 42;
    slotFree(table, slot);
    RequestSlot* found = nullptr;

    EXPECT_RC(ECI_ERR_LUW_TOKEN, slotFind(table, 42, &found));
}

TEST_F(SlotTable, DeletesNoEventOfASlotThatIsFree)
{
    TraceFile trace(4);

    slotFree(table, &table->slot[0]);

    EXPECT_EQ(0, trace.timesWrote(3118));
    EXPECT_EQ(0, table->slot[0].state);
}

TEST_F(SlotTable, GivesTheAddedTableBackWhenItsLastSlotIsFreed)
{
    takeMany(17);
    RequestSlot* added = withId(17);
    TraceFile trace(4);

    slotFree(table, added);

    EXPECT_EQ(16, lengthOfChain());
    EXPECT_TRUE(trace.wroteText("clapi_gwytok.slotFree() Freeing slot table at slotP=" +
                                shown(added) + ", first=17, last=32\n"));
}

TEST_F(SlotTable, KeepsAnAddedTableWhileOneOfItsSlotsIsInUse)
{
    takeMany(18);
    TraceFile trace(4);

    giveBack(17);

    EXPECT_EQ(32, lengthOfChain());
    EXPECT_FALSE(trace.wroteText("Freeing slot table"));
}

TEST_F(SlotTable, KeepsAnEmptyTableInTheMiddle)
{
    takeMany(33);
    TraceFile trace(4);

    for (int messageId = 17; messageId <= 32; ++messageId) giveBack(messageId);

    EXPECT_EQ(48, lengthOfChain());
    EXPECT_FALSE(trace.wroteText("Freeing slot table"));
}

TEST_F(SlotTable, GivesTrailingEmptyTablesBackFromTheEnd)
{
    takeMany(33);
    RequestSlot* second = withId(17);
    RequestSlot* third = withId(33);
    for (int messageId = 17; messageId <= 32; ++messageId) giveBack(messageId);
    TraceFile trace(4);

    slotFree(table, third);

    EXPECT_EQ(16, lengthOfChain());
    std::string freed = "clapi_gwytok.slotFree() Freeing slot table at slotP=";
    EXPECT_TRUE(trace.wroteText(freed + shown(third) + ", first=33, last=48\n"));
    EXPECT_TRUE(trace.wroteText(freed + shown(second) + ", first=17, last=32\n"));
    std::string all = trace.text();
    EXPECT_LT(all.find("first=33"), all.find("first=17"));
}

TEST_F(SlotTable, StopsGivingBackAtATableThatIsInUse)
{
    takeMany(33);
    for (int messageId = 17; messageId <= 31; ++messageId) giveBack(messageId);

    giveBack(33);

    EXPECT_EQ(32, lengthOfChain());
    EXPECT_EQ(1, withId(32)->state);
}

TEST_F(SlotTable, NeverGivesTheFirstTableBack)
{
    takeMany(16);
    TraceFile trace(4);

    for (int messageId = 1; messageId <= 16; ++messageId) giveBack(messageId);

    EXPECT_EQ(16, lengthOfChain());
    EXPECT_FALSE(trace.wroteText("Freeing slot table"));
}

TEST_F(SlotTable, KeepsTheFirstTableWhenThatIsEmptyAndTheSecondOneGoes)
{
    takeMany(17);
    for (int messageId = 1; messageId <= 16; ++messageId) giveBack(messageId);

    giveBack(17);

    EXPECT_EQ(16, lengthOfChain());
}

TEST_F(SlotTable, NumbersATableAddedAgainFromSeventeenAgain)
{
    takeMany(17);
    giveBack(17);
    TraceFile trace(4);

    RequestSlot* slot = take();

    EXPECT_EQ(17, slot->messageId.load());
    EXPECT_EQ(32, lengthOfChain());
    EXPECT_TRUE(trace.wroteText("Created new slot table at slotP=" + shown(slot) +
                                ", first=17, last=32\n"));
}

TEST_F(SlotTable, LooksUpASlotByItsMessageId)
{
    takeMany(17);
    RequestSlot* slot = nullptr;

    EXPECT_RC(QPX_OK, slotLookup(table, 1, &slot));
    EXPECT_EQ(&table->slot[0], slot);
    EXPECT_RC(QPX_OK, slotLookup(table, 16, &slot));
    EXPECT_EQ(&table->slot[15], slot);
    EXPECT_RC(QPX_OK, slotLookup(table, 17, &slot));
    EXPECT_EQ(table->slot[15].nextSlot.load(), slot);
    EXPECT_RC(QPX_OK, slotLookup(table, 32, &slot));
    EXPECT_EQ(table->slot[15].nextSlot.load() + 15, slot);
}

TEST_F(SlotTable, LooksUpAFreeSlotToo)
{
    RequestSlot* slot = nullptr;

    EXPECT_RC(QPX_OK, slotLookup(table, 9, &slot));

    EXPECT_EQ(&table->slot[8], slot);
    EXPECT_EQ(0, slot->state);
}

TEST_F(SlotTable, FailsToLookUpAnIdThatNoSlotHas)
{
    RequestSlot untouched;
    TraceFile trace(3);

    for (int messageId : {0, 17, 33, -1, -2, 2147483647, -2147483647 - 1}) {
        RequestSlot* slot = &untouched;
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, slotLookup(table, messageId, &slot)) << messageId;
        EXPECT_EQ(&untouched, slot) << messageId;
    }

    EXPECT_EQ(7, trace.timesWroteText("*EXC*  clapi_gwytok.slotLookup() <any>\n"));
    EXPECT_EQ(7, trace.timesWrote(2061));
}

TEST_F(SlotTable, FailsToLookUpAnIdOfATableThatWasGivenBack)
{
    takeMany(17);
    giveBack(17);
    RequestSlot* slot = nullptr;

    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, slotLookup(table, 17, &slot));
    EXPECT_RC(QPX_ERR_SYSTEM_ERROR, slotLookup(table, 32, &slot));
}

// ---- Finding slots

TEST_F(SlotTable, GivesTheFreeSlotWithTheLowestMessageId)
{
    takeMany(40);
    for (int messageId : {33, 7, 21, 12}) giveBack(messageId);

    std::vector<int> taken;
    for (int at = 0; at < 5; ++at) taken.push_back(take()->messageId);

    EXPECT_EQ((std::vector<int>{7, 12, 21, 33, 41}), taken);
}

TEST_F(SlotTable, GivesTheLowestMessageIdOnceItsLastTablesHaveGone)
{
    takeMany(40);
    for (int messageId = 40; messageId > 10; --messageId) giveBack(messageId);
    EXPECT_EQ(16, lengthOfChain());

    EXPECT_EQ(11, take()->messageId.load());
    takeMany(5);
    EXPECT_EQ(17, take()->messageId.load());
}

TEST_F(SlotTable, FindsEverySlotOfManyTables)
{
    takeMany(16 * 70);

    for (int messageId = 1; messageId <= 16 * 70; ++messageId) {
        RequestSlot* slot = withId(messageId);
        ASSERT_NE(nullptr, slot);
        EXPECT_EQ(messageId, slot->messageId.load());
    }
}

TEST_F(SlotTable, FindsNoSlotThatThereIsNot)
{
    takeMany(20);

    for (int messageId : {0, -1, -17, INT_MIN, 33, 48, 49, 1000000, INT_MAX}) {
        RequestSlot* slot = nullptr;
        EXPECT_RC(QPX_ERR_SYSTEM_ERROR, slotLookup(table, messageId, &slot)) << messageId;
        EXPECT_EQ(nullptr, slot);
    }
}

// The table is a token's, whose fields behind the index are in use.
TEST_F(SlotTable, FindsNoSlotOfTheHighestIdsThatThereAre)
{
    table->lookUp = slotLookup;

    for (int messageId : {INT_MAX - 15, INT_MAX - 14, INT_MAX - 1, INT_MAX})
        EXPECT_EQ(nullptr, clapiSlotById(table, messageId)) << messageId;
}

TEST_F(SlotTable, FindsNoSlotOfATableThatHasGone)
{
    takeMany(33);
    giveBack(33);

    EXPECT_EQ(nullptr, clapiSlotById(table, 33));
    EXPECT_NE(nullptr, clapiSlotById(table, 32));
}

TEST_F(SlotTable, FindsTheSlotsOfATableThatServesAgain)
{
    takeMany(33);
    giveBack(33);
    RequestSlot* again = take();

    EXPECT_EQ(33, again->messageId.load());
    EXPECT_EQ(again, clapiSlotById(table, 33));
    EXPECT_EQ(again + 15, clapiSlotById(table, 48));
}

TEST_F(SlotTable, KeepsTheEventOfASlotForItsNextUse)
{
    RequestSlot* slot = take();
    Fault made = beforeCall(Call::MutexInit, 0, [](const support::CallInfo&) {});
    Fault destroyed = beforeCall(Call::CondDestroy, 0, [](const support::CallInfo&) {});
    clapiOpenEvent(&slot->requestEvent);
    slotFree(table, slot);

    ASSERT_EQ(slot, take());

    EXPECT_EQ(0, slot->requestEvent.eflag);
    EXPECT_EQ(0, made.hits());
    EXPECT_EQ(0, destroyed.hits());
}

} // namespace
