/*
 * The order of locks, for builds that look at it; empty in all others.
 *
 * Locks: none; what a thread holds is known to that thread alone.
 */
#include "lock_order.h"

#include "held_locks.h"

#ifdef QPX_CHECK_LOCKS

#include <cstdio>

namespace {

constexpr int RANKS = RANK_DESTINATION + 1;

constexpr unsigned int only(LockRank rank)
{
    return 1u << rank;
}

constexpr unsigned int CHANNELS = only(RANK_TOKEN_LIST) | only(RANK_TABLE) |
                                  only(RANK_CHANNEL_LIST) | only(RANK_CHANNEL);
constexpr unsigned int ANY_BUT_LEAVES = only(RANK_INIT) | CHANNELS | only(RANK_SEND) |
                                        only(RANK_CORRELATOR);

/* Which locks may be held by a thread that asks for one of each rank. No row has two of a kind, and
 * a lock that no row has is a leaf. */
constexpr unsigned int HELD_BEFORE[RANKS] = {
    0,                                                    // RANK_NONE is not looked at
    0,                                                    // RANK_INIT
    0,                                                    // RANK_TOKEN_LIST
    only(RANK_TOKEN_LIST),                                // RANK_TABLE
    only(RANK_TOKEN_LIST) | only(RANK_TABLE),             // RANK_CHANNEL_LIST
    CHANNELS & ~only(RANK_CHANNEL),                       // RANK_CHANNEL
    0,                                                    // RANK_SEND
    CHANNELS,                                             // RANK_CONTAINERS
    CHANNELS,                                             // RANK_WAITERS
    0,                                                    // RANK_SOCKETS
    0,                                                    // RANK_CORRELATOR
    ANY_BUT_LEAVES,                                       // RANK_EVENT
    ANY_BUT_LEAVES | only(RANK_EVENT),                    // RANK_TRACE
    ANY_BUT_LEAVES | only(RANK_EVENT) | only(RANK_TRACE), // RANK_DESTINATION
};

/* A fork takes locks by their ranks alone, and fits in with the rest only if that does, too. */
constexpr bool risesEverywhere()
{
    for (int rank = 0; rank < RANKS; ++rank)
        if (HELD_BEFORE[rank] >> rank != 0) return false;
    return true;
}
static_assert(risesEverywhere(), "a lock is taken before one of a lower rank");

} // namespace

static thread_local HeldLocks held;

static const char* nameOf(LockRank rank)
{
    static const char* const names[RANKS] = {"a lock without a rank",
                                             "initGuard",
                                             "gtlLock",
                                             "a tableLock",
                                             "chanListLock",
                                             "a serLock",
                                             "a sendLock",
                                             "containerListGuard",
                                             "waitersGuard",
                                             "openSocketsGuard",
                                             "correlatorLock",
                                             "the mutex of an event",
                                             "traceLock",
                                             "destinationLock"};
    return names[rank];
}

[[noreturn]] static void refuse(const char* what, const char* which, LockRank holding)
{
    fprintf(stderr, "lock order: %s%s with %s held\n", what, which, nameOf(holding));
    __builtin_trap();
}

void clapiCheckRequest(LockRank wanted)
{
    if (wanted == RANK_NONE) return;
    for (int i = 0; i < held.count; ++i) {
        LockRank holding = held.locks[i].rank;
        if (holding != RANK_NONE && (HELD_BEFORE[wanted] & only(holding)) == 0)
            refuse("asked for ", nameOf(wanted), holding);
    }
}

void clapiCheckForkRequest(LockRank wanted)
{
    for (int i = 0; i < held.count; ++i)
        if (held.locks[i].rank >= wanted)
            refuse("a fork asked for ", nameOf(wanted), held.locks[i].rank);
}

void clapiNoteTaken(const void* lock, LockRank rank)
{
    if (held.count == MOST_HELD) refuse("took one lock more than there is room for", "", rank);
    held.locks[held.count] = HeldLock{lock, rank};
    held.count += 1;
}

void clapiNoteGivenUp(const void* lock)
{
    int place = held.count - 1;
    while (place >= 0 && held.locks[place].lock != lock) place -= 1;
    if (place < 0) return;
    held.count -= 1;
    for (; place < held.count; ++place) held.locks[place] = held.locks[place + 1];
}

void clapiExchangeHeldLocks(HeldLocks* others)
{
    HeldLocks mine = held;
    held = *others;
    *others = mine;
}

void clapiCheckWait(const void* givenUpMeanwhile)
{
    for (int i = 0; i < held.count; ++i)
        if (held.locks[i].rank != RANK_NONE && held.locks[i].lock != givenUpMeanwhile)
            refuse("waited", "", held.locks[i].rank);
}

void clapiCheckPeerWait()
{
    for (int i = 0; i < held.count; ++i)
        if (held.locks[i].rank != RANK_NONE && held.locks[i].rank != RANK_SEND)
            refuse("waited for a peer", "", held.locks[i].rank);
}

#endif
