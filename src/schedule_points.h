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
    requestArmed,       // the slot
    requestWaiting,     // the slot; tableLock held
    requestWritten,     // the slot; its sender still counts as one
    beforeReplyWait,    // the slot; its synchronous caller goes to sleep
    beforeQueueWait,    // the token; a collector goes to sleep
    replyFound,         // the slot; its reply is about to be read
    replyRead,          // the slot; its reply is about to be delivered
    slotDelivered,      // the slot; tableLock held
    connectionEnding,   // the token; its state is not final yet
    connectionEnded,    // the token; all waiting slots are delivered
    beforeSocketClose,  // the token; no sender is inside any more
    receiverEnding,     // the token; recvThreadEndedEvent is posted next
    tokenMarked,        // the token; it is closing now; gtlLock held
    beforeWorkWait,     // the token; a close waits for work in progress
    beforeCloseFlow,    // the token
    beforeReceiverWait, // the token; a close waits for the receiver
    tokenQuiesced,      // the token
    tokenUnlisted,      // the token; gtlLock held
    beforeChannelWait,  // the channel
};

/* Called by the library at each point, with what the point is about; defined by the tests. */
void clapiReached(SchedulePoint point, const void* subject);

#define SCHEDULE_POINT(point, subject) clapiReached(SchedulePoint::point, subject)

#else

#define SCHEDULE_POINT(point, subject) static_cast<void>(0)

#endif

#endif
