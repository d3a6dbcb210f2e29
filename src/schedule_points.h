/*
 * schedule_points.h - places in the code at which a test may hold a thread, to force an order of
 * events that chance would hardly bring.
 *
 * Only a library built with QPX_SCHEDULE_POINTS has them; in any other a point is nothing. The
 * name of a point says what has just happened, or what comes next.
 */
#ifndef SCHEDULE_POINTS_H
#define SCHEDULE_POINTS_H

#ifdef QPX_SCHEDULE_POINTS

enum class SchedulePoint {
    lockReleased,       // the lock; behind its release, before its destruction
    releaseRefused,     // the lock; it is held by another thread, or by none
    callRegistered,     // the token; the call has not looked at its state yet
    requestArmed,       // the slot
    requestWaiting,     // the slot; tableLock held
    beforeRequestWrite, // the slot; it waits, and its sender counts as one
    requestWritten,     // the slot; its sender still counts as one
    beforeReplyWait,    // the slot; its synchronous caller goes to sleep
    beforeQueueWait,    // the token; a collector goes to sleep
    beforeReadingWait,  // the slot; the receiver still reads into it; tableLock held
    beforeHandshake,    // the token; its receiver thread runs
    handshakeAnswered,  // the token; the open has not looked at its state yet
    receiverStarted,    // the token; nothing has been done yet
    replyFound,         // the slot; its reply is about to be read
    replyRead,          // the slot; its reply is about to be delivered
    tableFound,         // the table in which a look-up for a slot looks next
    slotMissed,         // the first table; a look-up has found no slot
    failureFound,       // the slot; a failure is about to be delivered
    slotDelivered,      // the slot; tableLock held
    beforeWake,         // the event of a slot; its gate is open, and tableLock given up
    outcomePutAside,    // the slot, whose data is still being sent; tableLock held
    asideApplied,       // the slot; the sender has made the changes of the reply
    flowHandled,        // the token; the receiver goes on to the next flow
    connectionEnding,   // the token; its state is not final yet
    connectionEnded,    // the token; all waiting slots are delivered; tableLock held
    beforeSendersWait,  // the token; the receiver waits for senders; tableLock held
    beforeSocketClose,  // the token; no sender is inside any more
    receiverEnding,     // the token; recvThreadEndedEvent is posted next
    receiverEnded,      // the token, which a closer may have freed
    tokenMarked,        // the token; it is closing now; gtlLock held
    beforeWorkWait,     // the token; a close waits for work in progress
    beforeCloseFlow,    // the token
    beforeCloseWrite,   // the token; the closer counts as a sender
    beforeReceiverWait, // the token; a close waits for the receiver
    tokenQuiesced,      // the token
    tokenUnlisted,      // the token; gtlLock held
    beforeChannelWait,  // the channel
    channelWaitEnded,   // the channel; who has waited for it looks at it next
    beforeWaitersWait,  // the channel; its deletion waits for those who wait for it
    channelsUnlisted,   // the first of all channels; they are off the list, and destroyed next
    containerLinked,    // the channel; a container has been added
    beforeListChange,   // the guard of all container lists; it is wanted next
    channelDumped,      // the channel; its containers come next; containerListGuard held
};

/* Called by the library at each point, with what the point is about; defined by the tests. */
void clapiReached(SchedulePoint point, const void* subject);

#define SCHEDULE_POINT(point, subject) clapiReached(SchedulePoint::point, subject)

#else

#define SCHEDULE_POINT(point, subject) static_cast<void>(0)

#endif

#endif
