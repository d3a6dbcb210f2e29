/*
 * The order of locks, for builds that look at it; empty in all others. The order itself is told in
 * clapi_lock.h.
 */
#include "lock_order.h"

#ifdef QPX_CHECK_LOCKS

#include <cstdio>
#include <cstdlib>

namespace {

/* No thread holds more. */
constexpr int MOST_HELD = 16;

struct HeldLock {
    const Clapilock* lock;
    int rank;
};

struct HeldLocks {
    HeldLock locks[MOST_HELD];
    int count;
};

} // namespace

static thread_local HeldLocks held;

static const char* nameOf(int rank)
{
    static const char* const names[] = {"a lock without a rank", "gtlLock",   "a tableLock",
                                        "chanListLock",          "a serLock", "a sendLock",
                                        "correlatorLock",        "traceLock"};
    return names[rank];
}

[[noreturn]] static void refuse(const char* what, int wanted, int holding)
{
    fprintf(stderr, "lock order: %s%s with %s held\n", what, wanted < 0 ? "" : nameOf(wanted),
            nameOf(holding));
    abort();
}

/* Whether a thread that holds the one may ask for the other. */
static bool mayFollow(int holding, int wanted)
{
    if (holding == RANK_NONE || wanted == RANK_NONE) return true;
    if (wanted == RANK_TRACE) return holding != RANK_TRACE;
    bool inOneOrder = holding <= RANK_CHANNEL && wanted <= RANK_CHANNEL;
    return inOneOrder && holding < wanted;
}

void clapiRankLock(Clapilock* lockPtr, LockRank rank)
{
    lockPtr->rank = rank;
}

void clapiCheckRequest(const Clapilock* lockPtr)
{
    for (int i = 0; i < held.count; ++i)
        if (!mayFollow(held.locks[i].rank, lockPtr->rank))
            refuse("asked for ", lockPtr->rank, held.locks[i].rank);
}

void clapiNoteTaken(const Clapilock* lockPtr)
{
    if (held.count == MOST_HELD) refuse("more locks than there may be", -1, lockPtr->rank);
    held.locks[held.count] = HeldLock{lockPtr, lockPtr->rank};
    held.count += 1;
}

void clapiNoteGivenUp(const Clapilock* lockPtr)
{
    for (int i = held.count - 1; i >= 0; --i) {
        if (held.locks[i].lock != lockPtr) continue;
        held.count -= 1;
        held.locks[i] = held.locks[held.count];
        return;
    }
}

void clapiCheckWait(const Clapilock* heldMeanwhile)
{
    for (int i = 0; i < held.count; ++i)
        if (held.locks[i].rank != RANK_NONE && held.locks[i].lock != heldMeanwhile)
            refuse("waited", -1, held.locks[i].rank);
}

#endif
