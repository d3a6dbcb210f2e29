/*
 * connection.pml - one connection of the library, as a model for Spin: the token with its slots,
 * events, counts and locks, the receiver thread, the threads of the application, and a Gateway.
 * run.sh holds the configurations, which say by -D who takes part:
 *
 *   SYNC, ASYNC      threads that make a synchronous call, or an asynchronous one
 *   UNITS            the synchronous callers make two calls, in one unit of work; that of an
 *                    asynchronous caller is continued by whoever collects its first reply
 *   CHANNEL          all callers use one channel, each holding it for its call
 *   PLAIN            so many of the synchronous callers do not use it after all
 *   COMMAREA         synchronous calls without a channel have a COMMAREA, to which the reply goes;
 *                    without this switch they carry no data, as the end of a unit of work
 *   ANY, POLL        threads that collect any reply: waiting, until they are refused; once, at once
 *   SPECIFIC         threads that wait for the reply of one asynchronous call
 *   SMALL            threads that wait for any reply and have no room for its data
 *   GUESSING         threads that wait for the reply with message id 0, whoever has asked for it
 *   GRACEFUL, TIMED, PURGE, ALL
 *                    threads that close: without limit, with a limit, at once, all connections
 *   CLOSE_AFTER_CALLS
 *                    they do not begin before the asynchronous calls have returned
 *   OPENING          the connection is not open yet: a thread opens it, makes a call and closes it
 *   NO_THREAD        it may get no thread for the receiver
 *   NO_BUFFER        the receiver gets no buffer
 *   DIES, CLOSES     the Gateway may break the connection at any time, or say goodbye
 *   SILENT, DEAF     it may leave requests without an answer; it does not answer the close flow
 *   FULL             it does not read: a writer is stuck until the library shuts the socket down
 *   HALF_READ        it reads of a request with a channel, or a COMMAREA for the reply, just enough
 *                    to answer it; the writer is stuck before it has staged the last of that, or
 *                    behind it
 *   HALF_REPLY       it may stop within a reply, and is deaf and silent from there on
 *   REFUSES          it may refuse a request
 *   UNASKED          so many replies or errors come from it that nobody has asked for
 *   PINGS            it sends pings for ever
 *   LAST             it ends the connection when nothing else happens any more
 *   WRITE_FAILS      a request may fail to be written although the connection stands, also when a
 *                    part of it that is enough to answer it has left
 *   CHANGE_FAILS     what a reply changes may fail to be applied to the channel
 *   ENDS_ITSELF      the receiver may end at any time: a flow contradicts itself, there is no
 *                    memory for one, or the answer to the handshake takes too long
 *   NOTHING_WRITTEN  every request, and the handshake, fails to be written
 *   QUIET            nobody closes, and some wait for ever; but not for what is there
 *   WAKES            who waits sleeps until it is woken, which is a step of its own; without this
 *                    switch it goes on once it has been let through, whoever wakes it
 *   SPURIOUS         so many sleepers wake without having been woken; with WAKES only
 *   BREAK_...        undoes one precaution of the code; the model must then find what it is for
 *
 * What the code does under one hold of a lock is one step here where nobody can see a difference:
 * where at most one access of the hold is to something that others touch without the lock.
 * A break undoes one thing in one place, and takes no assertion with it.
 */

#ifndef SYNC
#define SYNC 0
#endif
#ifndef ASYNC
#define ASYNC 0
#endif
#ifndef ANY
#define ANY 0
#endif
#ifndef POLL
#define POLL 0
#endif
#ifndef SPECIFIC
#define SPECIFIC 0
#endif
#ifndef SMALL
#define SMALL 0
#endif
#ifndef GUESSING
#define GUESSING 0
#endif
#ifndef GRACEFUL
#define GRACEFUL 0
#endif
#ifndef TIMED
#define TIMED 0
#endif
#ifndef PURGE
#define PURGE 0
#endif
#ifndef ALL
#define ALL 0
#endif
#ifndef UNASKED
#define UNASKED 0
#endif
#ifndef PLAIN
#define PLAIN 0
#endif
#ifndef SPURIOUS
#define SPURIOUS 0
#endif
#ifdef CHANNEL
#define sendsChannel(c) (c >= PLAIN)
#else
#define sendsChannel(c) false
#endif
#ifdef OPENING
#define OPENERS 1
#define isSynchronous(c) (c < SYNC || c == CALLERS - 1)
#else
#define OPENERS 0
#define isSynchronous(c) (c < SYNC)
#endif
/* repliesInPlace */
#ifdef COMMAREA
#define repliesInPlace(c) (sendsChannel(c) || isSynchronous(c))
#else
#define repliesInPlace(c) sendsChannel(c)
#endif
#if defined(CHANNEL) || defined(COMMAREA)
#define IN_PLACE
#endif
#if defined(WRITE_FAILS) || defined(NOTHING_WRITTEN)
#define writeMayFail true
#else
#define writeMayFail (gatewayGone || shutDown)
#endif

#define CALLERS (SYNC + ASYNC + OPENERS)
#define CLOSERS (GRACEFUL + TIMED + PURGE + ALL)
#define THREADS (CALLERS + ANY + POLL + SPECIFIC + SMALL + GUESSING + CLOSERS)
#define SLOTS CALLERS

/* Calls are numbered: those of the callers, then the second ones of asynchronous units of work. */
#ifdef UNITS
#define CALLS (CALLERS + ASYNC)
#define keepsUnit(s) (slot[s].call < CALLERS && slot[s].result == OK)
#else
#define CALLS CALLERS
#define keepsUnit(s) false
#endif

#define NOBODY 255
#define NO_SLOT 255
#define NO_CALL 255

/* Results of calls, as far as they matter here. */
mtype = { OK, REFUSED, CLOSING, FAILED, NO_REPLY, INVALID_QUALIFIER, NO_ROOM };

/* Flows from the Gateway. */
mtype = { REPLY, ERROR, HANDSHAKE, CLOSE_FLOW };

/* connStatus. */
mtype = { CONNECTING, CONNECTED, NEVER_CONNECTED, LOST, CLOSED };

/* States of a slot: 0 to 4. */
#define FREE 0
#define ALLOCATED 1
#define WAITING 2
#define DELIVERED 3
#define UNIT_IDLE 4

/* ClapiEvent. clapiSetEvent arms, clapiClearEvent posts; each is one hold of the event's mutex. */
typedef Event {
    bool open;
    byte posts;
#ifdef WAKES
    byte sleepers;     /* in its condition: one bit for each thread */
#endif
}

typedef Slot {
    byte state;
    byte call;         /* allocNumber: each call uses one slot once; NO_CALL while free */
    bool isAsync;
#ifdef CHANNEL
    bool channelHeld;  /* by an asynchronous call, until its reply is collected */
#endif
#ifdef IN_PLACE
    bool beingSent;    /* the one field that its sender changes without a lock */
    mtype outcomePending; /* put aside until the data has been sent; 0 if there is none */
#endif
    mtype result;
#ifdef WAKES
    bool hasEvent;     /* from the slot's first use to the end of the token */
#endif
    Event requestEvent;
}

/* ---- The token (_QPX_ConnToken_t) and the list that it is on ---- */

Slot slot[SLOTS];
chan replies = [SLOTS] of { byte }; /* the reply queue, firstReply to lastReply */
#define isQueued(s) (replies??[eval(s)])
mtype connStatus = CONNECTED;
bool closedown;
byte requestCount;
byte asyncCount;
byte senders;
bool brokenOff;
byte slotBeingRead = NO_SLOT;
#ifdef WAKES
byte transferSleepers; /* in the condition transferEnded */
#endif
byte deleters;
bool quiesced;
bool opening;
bool listed = true;
Event asyncReplyEvent;
Event requestsEnded;
Event recvThreadEnded;
#ifdef OPENING
Event connEvent;
#endif

#ifdef CHANNEL
byte channelHolder = NO_CALL; /* isLocked of the channel, under its serLock, and for which call */
#endif
#ifdef IN_PLACE
byte dataBeingRead = NO_CALL; /* whose channel or COMMAREA its sender reads, under sendLock only */
bool changed[CALLS];          /* by call: its reply's changes have been applied */
#endif

byte gtlLock = NOBODY;
byte tableLock = NOBODY;
byte sendLock = NOBODY;

/* ---- The socket and the wire ---- */

bool descriptorOpen = true;
bool shutDown;                     /* by the library */
bool gatewayGone;                  /* the Gateway has closed its end */
bool reset;                        /* ... and what it had sent before may be lost with it */
#ifdef HALF_REPLY
bool halfReply;                    /* the end of the last reply that it has sent does not come */
#endif
byte asked[SLOTS] = NO_CALL;       /* requests on their way to the Gateway, by message id */
bool closeAsked;                   /* a close flow is on its way to the Gateway */
chan fromGateway = [SLOTS + 2] of { mtype, byte, byte }; /* flow, message id, call */
#ifdef PINGS
bool ping;
#endif

/* ---- What is known of the whole, and by no thread ---- */

byte receiver;                     /* its thread */
bool tokenFreed;
bool deleteFailed;
bool lost;                         /* the connection ends otherwise than by a close of ours */
bool streamEnded;                  /* ... for the library has ended its stream */
byte threadsOut;
#if SPURIOUS > 0
byte spurious = SPURIOUS;          /* how many sleepers may yet wake for no reason */
#endif
byte qualifier[CALLS] = NO_SLOT;   /* by call: where its reply is to be asked for */
bool sendingOver[CALLS];           /* by call: its asynchronous call has returned */
#ifdef CLOSE_AFTER_CALLS
byte callsSent;                    /* ... and how many have */
#endif
bool ended[CALLS];                 /* by call: its outcome has been told */
#if GUESSING > 0
byte guessersOut;
#endif

/* No field of a token is touched once it is freed. */
#define TOUCH assert(!tokenFreed)

/* Each call has one outcome. */
inline tellOutcome(whose)
{
    assert(!ended[whose]);
    ended[whose] = true
}

/* ---- Locks and events: clapi_lock ---- */

inline lock(l)
{
    atomic { l == NOBODY -> TOUCH; l = _pid }
}

inline unlock(l)
{
    atomic { assert(l == _pid); l = NOBODY }
}

/* clapiSetEvent */
inline arm(e)
{
    e.open = false
}

/* clapiOpenEvent */
inline openGate(e)
{
    e.open = true;
    e.posts++
}

#ifndef WAKES
/* clapiClearEvent */
inline post(e)
{
    openGate(e)
}

/* clapiWaitEvent; generation is a variable of the thread. */
inline waitEvent(e)
{
    if
    :: atomic { e.open -> TOUCH }
    :: atomic { !e.open -> TOUCH; generation = e.posts };
       atomic { e.posts != generation -> TOUCH; generation = 0 }
    fi
}

/* clapiWaitEventSince */
inline waitEventSince(e)
{
    if
    :: atomic { e.open || e.posts != generation -> TOUCH; generation = 0 }
    fi
}

/* clapiTimedWaitEvent, with a time that may run out at any moment. */
inline waitEventForTime(e)
{
    if
    :: true /* the time has run out */
    :: atomic { e.open -> TOUCH }
    fi
}

#define LATER_WAKE
#define SENDERS_LATER_WAKE
#define expectWake(s, queue) skip
#define sleepInTransfers() skip
#define wakeTransfers() skip
#else

/* ---- Sleep: the conditions of events, and transferEnded ---- */

/* pthread_cond_wait gives the mutex up and sleeps in one step. A broadcast wakes those who sleep by
 * then; who is woken takes the mutex and looks again. Without WAKES who waits may go on at any time
 * from the opening of the gate on: in every order that there is here, but nobody touches the event
 * to wake it, and no wake can be missing. */
#define MY_BIT (1 << _pid)
#define isDormant(set) ((set & MY_BIT) != 0)
#define isWokenInTransfers (tableLock == NOBODY && !isDormant(transferSleepers))

inline becomeDormant(set)
{
    set = set | MY_BIT
}

inline wakeUp(set)
{
    set = set & ~MY_BIT
}

#if SPURIOUS > 0
#define mayWakeUp(set) (isDormant(set) && spurious > 0)
#endif

#ifdef BREAK_WAKES_ONE
#define broadcast(set) set = set & (set - 1)
#else
#define broadcast(set) set = 0
#endif

/* clapiWakeWaiters */
inline wakeWaiters(e)
{
    broadcast(e.sleepers)
}

/* clapiClearEvent: both under the event's mutex. */
inline post(e)
{
    openGate(e);
    wakeWaiters(e)
}

#ifdef BREAK_NOT_LOOKED_AT_AGAIN
#define isLetThrough(e) true
#elif defined(BREAK_GATE_LOOKED_AT_AGAIN)
#define isLetThrough(e) (e.open)
#else
#define isLetThrough(e) (e.posts != generation)
#endif

/* sleepWhileGeneration, behind its first look and falling asleep. */
inline sleepWhileGeneration(e)
{
    do
    :: atomic { !isDormant(e.sleepers) && !isLetThrough(e) -> TOUCH; becomeDormant(e.sleepers) }
    :: atomic { !isDormant(e.sleepers) && isLetThrough(e) -> TOUCH; generation = 0; break }
#if SPURIOUS > 0
    :: atomic { mayWakeUp(e.sleepers) -> TOUCH; spurious--; wakeUp(e.sleepers) }
#endif
    od
}

/* clapiWaitEvent; generation is a variable of the thread. */
inline waitEvent(e)
{
    if
    :: atomic { e.open -> TOUCH }
#ifdef BREAK_LOOK_AND_SLEEP_APART
    :: atomic { !e.open -> TOUCH; generation = e.posts };
       atomic { TOUCH; becomeDormant(e.sleepers) };
#else
    :: atomic { !e.open -> TOUCH; generation = e.posts; becomeDormant(e.sleepers) };
#endif
       sleepWhileGeneration(e)
    fi
}

/* clapiWaitEventSince */
inline waitEventSince(e)
{
    if
    :: atomic { e.open || e.posts != generation -> TOUCH; generation = 0 }
    :: atomic { !e.open && e.posts == generation -> TOUCH; becomeDormant(e.sleepers) };
       sleepWhileGeneration(e)
    fi
}

/* clapiTimedWaitEvent, with a time that may run out at any moment. */
inline waitEventForTime(e)
{
    if
    :: atomic { e.open -> TOUCH }
    :: atomic { !e.open -> TOUCH; becomeDormant(e.sleepers) };
       atomic { TOUCH; wakeUp(e.sleepers) }
    fi
}

/* awaitTransfer; tableLock is given up in the same step. */
inline sleepInTransfers()
{
    becomeDormant(transferSleepers)
}

inline wakeTransfers()
{
    broadcast(transferSleepers)
}

/* LaterWake: whom a thread wakes when it has given tableLock up. By then the slot may be another
 * request's, and the token closing; the event must be there still. */
#define LATER_WAKE byte toWake = NO_SLOT; bool wakesQueue;
#ifdef IN_PLACE
#define SENDERS_LATER_WAKE LATER_WAKE
#else
#define SENDERS_LATER_WAKE
#endif

inline expectWake(s, queue)
{
    assert(toWake == NO_SLOT);
    toWake = s;
    wakesQueue = queue
}

/* ~LaterWake */
inline wakeExpected()
{
    do
    :: atomic {
           wakesQueue -> TOUCH;
           wakesQueue = false;
#ifndef BREAK_QUEUE_NOT_WOKEN
           wakeWaiters(asyncReplyEvent)
#endif
       }
    :: atomic {
           !wakesQueue && toWake != NO_SLOT -> TOUCH;
           assert(slot[toWake].hasEvent);
#ifndef BREAK_WOKEN_BEFORE_OPENED
           wakeWaiters(slot[toWake].requestEvent);
#endif
           toWake = NO_SLOT
       }
    :: !wakesQueue && toWake == NO_SLOT -> break
    od
}
#endif

/* ---- Slots and sending: clapi_gwytok and clapi_delivery ---- */

/* lockChannel, unlockChannel */
inline lockChannel(whose)
{
#ifdef CHANNEL
    if
    :: atomic { sendsChannel(whose) && channelHolder == NO_CALL -> channelHolder = whose }
    :: !sendsChannel(whose)
    fi
#else
    skip
#endif
}

inline unlockChannel(whose)
{
#ifdef CHANNEL
    if
    :: sendsChannel(whose) ->
       assert(channelHolder == whose && dataBeingRead != whose);
       channelHolder = NO_CALL
    :: else
    fi
#else
    skip
#endif
}

#ifdef IN_PLACE
#ifdef CHANNEL
#define isLockedFor(c) (!sendsChannel(c) || channelHolder == c)
#else
#define isLockedFor(c) true
#endif

/* What nobody reads to send it is changed, and once, and a channel by the request that holds it. */
inline checkPlace(whose)
{
    assert(isLockedFor(whose));
    assert(dataBeingRead != whose);
    assert(!changed[whose])
}

#ifdef BREAK_GUARDED_ONLY_WHILE_READ
#define isAccessible(c) (dataBeingRead != c)
#else
#define isAccessible(c) true
#endif

/* applyReplyData, or reading the data to where it belongs at once: without a lock, once. */
inline applyReplyData(whose)
{
    if
    :: atomic { isAccessible(whose) -> TOUCH; checkPlace(whose); changed[whose] = true }
#ifdef CHANGE_FAILS
    :: atomic { sendsChannel(whose) -> TOUCH; checkPlace(whose); changeFailed = true }
#endif
    fi
}
#endif

/* unlockChannels: not those of calls that are still being made. Under tableLock. */
inline unlockChannels()
{
#ifdef CHANNEL
    calls = 0;
    do
    :: calls < SLOTS ->
       atomic {
           TOUCH;
           if
           :: slot[calls].channelHeld && slot[calls].state != ALLOCATED ->
              assert(!slot[calls].beingSent && slot[calls].outcomePending == 0);
              slot[calls].channelHeld = false;
              unlockChannel(slot[calls].call)
           :: else
           fi;
           calls++
       }
    :: else -> break
    od
#else
    skip
#endif
}

/* Nobody sleeps in an event that is deleted. */
inline deleteSlotEvent(s)
{
    assert(slot[s].requestEvent.sleepers == 0);
    slot[s].hasEvent = false
}

/* slotFree. What the slot's first use has made stays, also when the table goes: keepTable. */
inline slotFree(s)
{
    assert(slot[s].state != FREE);
    assert(!isQueued(s));
#ifdef IN_PLACE
    /* clapiDropOutcome: of what is dropped nothing has been applied. */
    assert(slot[s].outcomePending == 0 || !changed[slot[s].call]);
#endif
    slot[s].state = FREE;
    slot[s].call = NO_CALL;
    slot[s].isAsync = false;
#ifdef CHANNEL
    slot[s].channelHeld = false;
#endif
#ifdef IN_PLACE
    slot[s].beingSent = false;
    slot[s].outcomePending = 0;
#endif
    slot[s].result = 0;
#ifndef WAKES
    slot[s].requestEvent.open = false;
    slot[s].requestEvent.posts = 0
#elif defined(BREAK_EVENT_GOES_WITH_ITS_REQUEST)
    deleteSlotEvent(s)
#elif defined(BREAK_TABLE_GOES_WITH_ITS_REQUESTS)
    if
    :: s > 0 -> deleteSlotEvent(s) /* the one slot of an added table */
    :: else
    fi
#endif
}

/* clapiDeliverSlot but for its last step, queueReply. Under tableLock. */
inline setOutcome(s, what)
{
    assert(slot[s].state == WAITING);
#ifdef IN_PLACE
    assert(!slot[s].beingSent);
    assert(what != OK || !repliesInPlace(slot[s].call) || changed[slot[s].call]);
#endif
    slot[s].result = what;
    slot[s].state = DELIVERED;
    if
    :: slot[s].isAsync ->
       assert(!isQueued(s));
       replies!s;
       openGate(asyncReplyEvent)
    :: else
    fi;
    expectWake(s, slot[s].isAsync)
}

/* clapiDeliverSlot as the receiver calls it, in two steps under tableLock: the waiter looks at the
 * outcome without the lock, as soon as its event is posted. */
#ifndef BREAK_POSTED_BEFORE_THE_OUTCOME
inline deliverFirst(s, what)
{
#ifdef BREAK_WOKEN_BEFORE_OPENED
    wakeWaiters(slot[s].requestEvent);
#endif
    setOutcome(s, what)
}

inline deliverLast(s, what)
{
    openGate(slot[s].requestEvent)
}
#else
inline deliverFirst(s, what)
{
    openGate(slot[s].requestEvent)
}

inline deliverLast(s, what)
{
    setOutcome(s, what)
}
#endif

#ifdef BREAK_ANY_STATE_TAKES_AN_OUTCOME
#define isWaiting(s) true
#else
#define isWaiting(s) (slot[s].state == WAITING)
#endif
#ifdef IN_PLACE
#define isBeingSent(s) (slot[s].beingSent)
/* clapiAwaitsOutcome. Under tableLock. */
#ifdef BREAK_PENDING_TAKES_ANOTHER
#define awaitsOutcome(s) isWaiting(s)
#else
#define awaitsOutcome(s) (isWaiting(s) && slot[s].outcomePending == 0)
#endif

/* clapiPutAside. Under tableLock. */
inline putAside(s, what)
{
    assert(slot[s].state == WAITING && slot[s].outcomePending == 0);
    assert(repliesInPlace(slot[s].call));
    slot[s].outcomePending = what
}
#else
#define isBeingSent(s) false
#define awaitsOutcome(s) isWaiting(s)
#define putAside(s, what) skip
#endif

/* clapiSettleSlot, which looks at the mark once. */
#ifdef BREAK_SETTLED_WHILE_BEING_SENT
#define isPutAside(s) false
#else
#define isPutAside(s) isBeingSent(s)
#endif

/* clapiRegisterRequest */
inline registerRequest()
{
    atomic {
        gtlLock == NOBODY ->
        if
        :: listed -> TOUCH; requestCount++; rc = OK
        :: else -> rc = REFUSED
        fi
    }
}

/* clapiUnregisterRequest */
inline unregisterRequest()
{
    atomic { gtlLock == NOBODY -> TOUCH; gtlLock = _pid; requestCount-- };
    if
    :: atomic { requestCount == 0 && asyncCount == 0 -> TOUCH };
       atomic { TOUCH; post(requestsEnded); gtlLock = NOBODY }
    :: atomic { requestCount != 0 || asyncCount != 0 -> TOUCH; gtlLock = NOBODY }
    fi
}

/* clapiLeaveSenders. Under tableLock. */
inline leaveSenders()
{
    senders--;
#ifndef BREAK_SENDERS_LEAVE_SILENTLY
    wakeTransfers()
#endif
}

/* clapiEndSending */
inline endSending()
{
    atomic { tableLock == NOBODY -> TOUCH; leaveSenders() }
}

/* clapiNoteBrokenFlow. Under tableLock. */
inline noteBrokenFlow()
{
    if
    :: flowBroke -> brokenOff = true
    :: else
    fi
}

/* clapiEndStream: the mark comes first, so that it is seen wherever the end is. */
inline endStream()
{
    assert(descriptorOpen);
#ifndef BREAK_ENDED_STREAM_NOT_MARKED
    brokenOff = true;
#endif
    shutDown = true;
    streamEnded = true;
    lost = true
}

/* The beginning of clapiAwaitEndOfReading, as a part of the step that takes tableLock, which is
 * given up only if there is something to wait for. */
inline wakeReader(s)
{
    if
    :: slotBeingRead == s ->
#ifndef BREAK_READER_NOT_WOKEN
       endStream();
#endif
       sleepInTransfers()
    :: else -> tableLock = _pid
    fi
}

/* ... and its end, with tableLock held. */
inline lockWhenNotRead(s)
{
#ifdef BREAK_STORAGE_GIVEN_UP_WHILE_READ
    atomic { tableLock == NOBODY || tableLock == _pid -> TOUCH; tableLock = _pid }
#elif defined(WAKES)
    do
    :: atomic { tableLock == _pid -> break }
    :: atomic { isWokenInTransfers && slotBeingRead != s -> TOUCH; tableLock = _pid; break }
    :: atomic { isWokenInTransfers && slotBeingRead == s -> TOUCH; sleepInTransfers() }
#if SPURIOUS > 0
    :: atomic { mayWakeUp(transferSleepers) -> TOUCH; spurious--; wakeUp(transferSleepers) }
#endif
    od
#else
    atomic {
        tableLock == _pid || (tableLock == NOBODY && slotBeingRead != s) -> TOUCH;
        tableLock = _pid
    }
#endif
}

/* clapiEndFailedSending */
inline endFailedSending(s)
{
    atomic {
        tableLock == NOBODY -> TOUCH;
#ifndef BREAK_BROKEN_FLOW_NOT_NOTED
        noteBrokenFlow();
#endif
        flowBroke = false;
        leaveSenders();
        wakeReader(s)
    };
    lockWhenNotRead(s);
    unlock(tableLock)
}

/* ---- Calls of server programs: clapi_eci ---- */

/* prepareEvent: clapiCreateEvent, and from the second time on clapiRenewEvent. */
inline prepareEvent(s)
{
#ifndef WAKES
    slot[s].requestEvent.posts = 0
#else
    slot[s].requestEvent.open = false;
    slot[s].hasEvent = true
#endif
}

/* obtainRequestSlot: takeRequestSlot, slotFind, prepareSlot. The slot of a unit of work is found
 * again. */
inline obtainSlot(me, async, unit)
{
    atomic {
        tableLock == NOBODY -> TOUCH;
        if
        :: connStatus != CONNECTED -> rc = REFUSED
        :: else ->
           if
           :: unit -> assert(slot[s].state == UNIT_IDLE)
           :: else ->
              s = 0;
              do
              :: slot[s].state != FREE -> s++
              :: else -> break
              od;
              prepareEvent(s)
           fi;
           slot[s].state = ALLOCATED;
           slot[s].call = me;
           slot[s].isAsync = async;
#ifdef CHANNEL
           slot[s].channelHeld = async && sendsChannel(me);
#endif
#ifdef IN_PLACE
#ifdef BREAK_MARKED_WITHOUT_NEED
           slot[s].beingSent = true;
#elif !defined(BREAK_MARKED_WHEN_READ) && !defined(BREAK_GUARDED_ONLY_WHILE_READ)
           slot[s].beingSent = repliesInPlace(me);
#endif
           changed[me] = false;
#endif
           slot[s].result = 0
        fi
    }
}

/* armRequestEvent */
inline armRequestEvent()
{
    atomic { TOUCH; arm(slot[s].requestEvent) }
}

/* beginRequest: clapiBeginSending under tableLock. */
inline beginSending(me, async)
{
    atomic {
        tableLock == NOBODY -> TOUCH;
        tableLock = _pid;
#ifdef BREAK_SENT_WHILE_CLOSING
        begun = (connStatus == CONNECTED && !brokenOff)
#else
        begun = (connStatus == CONNECTED && !brokenOff && !(async && closedown))
#endif
    };
#ifdef BREAK_STATUS_AND_STATE_APART
    unlock(tableLock);
    lock(tableLock);
#endif
    atomic {
        TOUCH;
        if
        :: begun ->
           if
           :: async -> asyncCount++
           :: else
           fi;
#ifndef BREAK_STATE_AFTER_SEND
           slot[s].state = WAITING;
#endif
           senders++
        :: else -> rc = REFUSED
        fi;
        tableLock = NOBODY
    }
}

/* writeRequest, clapiFlowECIRequest. The descriptor must be open for as long as the writing takes.
 * A part of the request that has left may be enough for the Gateway to answer it; what fails behind
 * it ends the connection. */
inline writeRequest(me)
{
    atomic { sendLock == NOBODY -> TOUCH; assert(tableLock != _pid); sendLock = _pid;
             assert(descriptorOpen) };
#ifdef IN_PLACE
    if
    :: repliesInPlace(me) -> stageData(me)
    :: else
    fi;
#endif
    if
    :: rc == OK -> sendLast(me)
    :: else -> unlock(sendLock)
    fi;
    partSent = false
}

inline putOnTheWire(me)
{
    assert(asked[s] == NO_CALL || UNASKED > 0);
    asked[s] = me;
    partSent = true
}

/* keepSendError, noteBreak */
inline sendFails()
{
    rc = FAILED;
    flowBroke = partSent;
    shutDown = shutDown || partSent;
    lost = lost || partSent
}

#ifdef IN_PLACE
/* writeECIBody, which sends what does not fit into its buffer. The mark goes when the last of the
 * channel or COMMAREA has been staged, unless a send has failed by then: of a request that has
 * failed it stays until its slot goes, and with it what was put aside. What is sent is what the
 * application has put there. */
inline stageData(me)
{
    atomic {
        TOUCH;
        assert(descriptorOpen && isLockedFor(me));
        assert(!changed[me]);
        dataBeingRead = me;
#ifdef BREAK_MARKED_WHEN_READ
        slot[s].beingSent = true;
#endif
        if
#ifndef NOTHING_WRITTEN
        :: !shutDown && !gatewayGone -> putOnTheWire(me)
#endif
        :: true
        fi
    };
    if
    :: atomic { true -> TOUCH; assert(descriptorOpen); dataBeingRead = NO_CALL;
#ifndef BREAK_MARK_STAYS
                slot[s].beingSent = false
#endif
       }
#ifdef HALF_READ
    :: true ->
       atomic { shutDown -> TOUCH; assert(descriptorOpen); dataBeingRead = NO_CALL; sendFails() }
#else
    :: atomic {
           writeMayFail -> TOUCH;
           assert(descriptorOpen);
           dataBeingRead = NO_CALL;
           sendFails()
       }
#endif
    fi
}
#endif

/* The last send of a request. */
inline sendLast(me)
{
    atomic {
#ifdef FULL
        shutDown ->
#endif
#ifdef HALF_READ
        shutDown || !repliesInPlace(me) ->
#endif
        TOUCH;
        assert(descriptorOpen);
        if
#ifndef NOTHING_WRITTEN
        :: !shutDown ->
           if
           :: !gatewayGone && !partSent -> putOnTheWire(me)
           :: else /* a first write to an end that is closed succeeds */
           fi
#endif
#ifdef WRITE_FAILS
        :: !shutDown && !gatewayGone && !partSent -> putOnTheWire(me); sendFails()
#endif
        :: writeMayFail -> sendFails()
        fi;
        sendLock = NOBODY
    }
}

#ifdef BREAK_PENDING_OF_ANY_USE
#define isPendingFor(me) (slot[s].outcomePending != 0)
#else
#define isPendingFor(me) (slot[s].call == me && slot[s].outcomePending != 0)
#endif

/* clapiEndSendingRequest, of a request that has been written: deliverPendingOutcome, with tableLock
 * free while the reply's data is applied, and clapiLeaveSenders. */
inline endSendingRequest(me)
{
#ifdef IN_PLACE
    lock(tableLock);
    if
    :: atomic { isPendingFor(me) && slot[s].outcomePending == OK -> TOUCH; tableLock = NOBODY };
#ifdef BREAK_LEAVES_BEFORE_DELIVERING
       endSending();
#endif
       applyReplyData(me);
       if
       :: atomic { changeFailed -> TOUCH; endStream() }
       :: !changeFailed
       fi;
       lock(tableLock)
    :: atomic { !(isPendingFor(me) && slot[s].outcomePending == OK) -> TOUCH }
#ifdef BREAK_LEAVES_BEFORE_DELIVERING
       ; leaveSenders()
#endif
    fi;
    atomic {
        TOUCH;
        if
#ifndef BREAK_ASIDE_DROPPED
        :: isPendingFor(me) ->
           setOutcome(s, (changeFailed -> REFUSED : slot[s].outcomePending));
           openGate(slot[s].requestEvent); /* which nobody waits for but this thread */
           slot[s].outcomePending = 0;
           changeFailed = false
#endif
        :: else
        fi;
#ifndef BREAK_LEAVES_BEFORE_DELIVERING
        leaveSenders();
#endif
        tableLock = NOBODY
    }
#if defined(WAKES) && !defined(BREAK_WOKEN_WHEN_LEFT)
    ; wakeExpected()
#endif
#else
    endSending()
#endif
}

/* sendRequest; takeBack ends the sending of an asynchronous call that has failed. */
inline sendRequest(me, async)
{
    beginSending(me, async);
    if
    :: begun ->
       writeRequest(me);
#ifdef BREAK_STATE_AFTER_SEND
       atomic { tableLock == NOBODY -> slot[s].state = WAITING };
#endif
       if
       :: rc == OK -> endSendingRequest(me)
       :: rc != OK && !async ->
#ifdef BREAK_DROPPED_IS_APPLIED
          if
          :: slot[s].outcomePending == OK -> applyReplyData(me)
          :: else
          fi;
#endif
          endFailedSending(s)
#ifdef BREAK_FAILED_SENDER_LEAVES_EARLY
       :: rc != OK && async -> endSending()
#else
       :: rc != OK && async
#endif
       fi
    :: else
    fi
}

/* clapiDropSlot */
inline dropSlot()
{
    atomic { tableLock == NOBODY -> TOUCH; wakeReader(s) };
    lockWhenNotRead(s);
    atomic { TOUCH; slotFree(s); tableLock = NOBODY }
}

/* performRequest of a synchronous call: armRequestEvent, sendRequest, awaitReply, conclude. */
inline performSyncCall(me, keepsUnit)
{
#ifndef BREAK_ARMED_AFTER_WAITING
    armRequestEvent();
#endif
    sendRequest(me, false);
#ifdef BREAK_ARMED_AFTER_WAITING
    armRequestEvent();
#endif
    if
    :: rc == OK ->
       waitEvent(slot[s].requestEvent);
       atomic { TOUCH; assert(slot[s].call == me && slot[s].state == DELIVERED);
                rc = slot[s].result }
    :: else
    fi;
    if
    :: rc == OK ->
       atomic {
           tableLock == NOBODY -> TOUCH;
           if
           :: keepsUnit -> slot[s].state = UNIT_IDLE
           :: else -> slotFree(s)
           fi
       }
    :: else -> dropSlot()
    fi
}

/* countOut. Under tableLock. */
inline countOut()
{
    if
    :: asyncCount > 0 -> asyncCount--
    :: else
    fi
}

/* clapiLeaveSenders, at the end of takeBack */
inline leaveFailed()
{
#ifndef BREAK_FAILED_SENDER_LEAVES_EARLY
    leaveSenders();
#endif
    tableLock = NOBODY
}

/* Who waits is told of every withdrawal. */
#ifdef BREAK_WITHDRAWAL_NOT_TOLD
#define isWithdrawnSilently true
#elif defined(BREAK_WITHDRAWAL_BEHIND_THE_END_NOT_TOLD)
#define isWithdrawnSilently (connStatus != CONNECTED)
#elif defined(BREAK_WITHDRAWAL_TOLD_AT_THE_END_ONLY)
#define isWithdrawnSilently (connStatus == CONNECTED && !(closedown && asyncCount == 0))
#endif

#ifdef BREAK_WITHDRAWS_WHAT_IS_NOT_OURS
#define isStillOurs(me) true
#elif defined(BREAK_WITHDRAWS_IN_ANY_STATE)
#define isStillOurs(me) (slot[s].call == me)
#else
#define isStillOurs(me) \
    (slot[s].call == me && (slot[s].state == WAITING || slot[s].state == DELIVERED))
#endif

/* takeBack: isStillOurs, withdraw. */
inline failAsyncCall(me)
{
    atomic {
        tableLock == NOBODY -> TOUCH;
#ifndef BREAK_BROKEN_FLOW_OF_ASYNC_NOT_NOTED
        noteBrokenFlow();
#endif
        flowBroke = false;
        wakeReader(s)
    };
    lockWhenNotRead(s);
    if
    :: isStillOurs(me) ->
       atomic {
           TOUCH;
           if
           :: isQueued(s) -> replies??eval(s) /* clapiUnlinkReply */
           :: !isQueued(s)
           fi;
           countOut();
           tellOutcome(me)
       };
       atomic {
           TOUCH;
#ifdef isWithdrawnSilently
           if
           :: isWithdrawnSilently
           :: else -> post(asyncReplyEvent)
           fi
#else
           post(asyncReplyEvent)
#endif
       };
       atomic { TOUCH; slotFree(s); leaveFailed() }
    :: else ->
       atomic { TOUCH; rc = OK; leaveFailed() }
    fi
}

/* performRequest of an asynchronous call: armRequestEvent, sendRequest, what follows a failure. */
inline performAsyncCall(me)
{
    armRequestEvent();
    sendRequest(me, true);
    if
    :: rc != OK && begun -> failAsyncCall(me)
    :: rc != OK && !begun -> dropSlot()
    :: else
    fi
}

/* QPX_ECI_Execute, executeRegistered, checkExecuteCall: what every call does before its work. */
inline enter()
{
    registerRequest();
    if
    :: rc == OK -> registered = true
    :: else
    fi
}

inline checkClosing()
{
    if
    :: rc == OK ->
       if
       :: atomic { closedown -> TOUCH; rc = CLOSING }
       :: atomic { !closedown -> TOUCH }
       fi
    :: else
    fi
}

/* unregisterCall */
inline leave()
{
    if
    :: registered -> unregisterRequest(); registered = false
    :: else
    fi
}

inline leaveCall()
{
    leave()
#ifdef BREAK_WOKEN_WHEN_LEFT
    ; wakeExpected()
#endif
}

/* With a channel performHoldingChannel, which holds it from here to the end of the call. */
inline syncCall(me, unit, keepsUnit)
{
    enter();
    checkClosing();
    if
    :: rc == OK ->
       lockChannel(me);
       obtainSlot(me, false, unit);
       if
       :: rc == OK -> performSyncCall(me, keepsUnit)
       :: else
       fi;
       unlockChannel(me)
    :: else
    fi;
    leaveCall()
}

#if SYNC > PLAIN
proctype SyncCaller(byte me)
{
    byte s, generation;
    bool begun, registered, partSent, flowBroke;
    SENDERS_LATER_WAKE
#ifdef IN_PLACE
    bool changeFailed;
#endif
    mtype rc;

#ifdef UNITS
    syncCall(me, false, true);
    if
    :: rc == OK -> syncCall(me, true, false)
    :: else
    fi;
#else
    syncCall(me, false, false);
#endif
    atomic { tellOutcome(me); threadsOut++ }
}
#endif

#if PLAIN > 0
/* A call without a channel where the others use it. */
proctype PlainCaller(byte me)
{
    byte s, generation;
    bool begun, registered, partSent, flowBroke;
    SENDERS_LATER_WAKE
#ifdef IN_PLACE
    bool changeFailed;
#endif
    mtype rc;

    syncCall(me, false, false);
    atomic { tellOutcome(me); threadsOut++ }
}
#endif

/* An asynchronous request that has been sent keeps the channel. */
inline asyncCall(me, unit)
{
    enter();
    checkClosing();
    if
    :: rc == OK ->
       lockChannel(me);
       obtainSlot(me, true, unit);
       if
       :: rc == OK -> performAsyncCall(me)
       :: else
       fi;
       if
       :: rc == OK
       :: else -> unlockChannel(me)
       fi
    :: else
    fi;
    leaveCall()
}

#if ASYNC > 0
proctype AsyncCaller(byte me)
{
    byte s;
    bool begun, registered, partSent, flowBroke;
    SENDERS_LATER_WAKE
#ifdef IN_PLACE
    bool changeFailed;
#endif
    mtype rc;

    asyncCall(me, false);
    atomic {
        if
        :: rc == OK -> qualifier[me] = s
        :: else
        fi;
        sendingOver[me] = true;
#ifdef CLOSE_AFTER_CALLS
        callsSent++;
#endif
        threadsOut++
    }
}
#endif

/* ---- Collecting: clapi_eci ---- */

/* checkQualifier. Under tableLock. */
inline checkQualifier(wanted)
{
    if
    :: slot[wanted].state == FREE || !slot[wanted].isAsync -> rc = INVALID_QUALIFIER
    :: else ->
       if
       :: slot[wanted].state != WAITING && slot[wanted].state != DELIVERED -> rc = NO_REPLY
       :: else
       fi
    fi
}

/* chooseReply. Under tableLock. */
inline chooseReply(specific, wanted)
{
    if
    :: specific && isQueued(wanted) -> s = wanted
    :: specific && !isQueued(wanted)
    :: !specific && nempty(replies) -> replies?<s>
    :: !specific && empty(replies)
    fi
}

/* sleepUntilReply */
inline sleepUntilReply()
{
    atomic {
        TOUCH;
        arm(asyncReplyEvent);
        generation = asyncReplyEvent.posts;
        tableLock = NOBODY
    };
#ifdef BREAK_GENERATION_READ_LATE
    waitEvent(asyncReplyEvent);
#else
    waitEventSince(asyncReplyEvent);
#endif
    lock(tableLock)
}

/* outcomeIsPending. Under tableLock. */
#if defined(IN_PLACE) && !defined(BREAK_PENDING_NOT_AWAITED)
#ifdef BREAK_PENDING_OF_ANY_KIND
#define isPending(s) (slot[s].outcomePending != 0)
#else
#define isPending(s) (slot[s].outcomePending != 0 && slot[s].isAsync)
#endif
#if SLOTS > 2
#define anyIsPending (isPending(0) || isPending(1) || isPending(2))
#elif SLOTS > 1
#define anyIsPending (isPending(0) || isPending(1))
#else
#define anyIsPending isPending(0)
#endif
#define outcomeIsPending(specific, wanted) (specific -> isPending(wanted) : anyIsPending)
#else
#define outcomeIsPending(specific, wanted) false
#endif
#define mayStillCome(specific, wanted) \
    (connStatus == CONNECTED || outcomeIsPending(specific, wanted))

/* awaitAsyncReply */
inline awaitAsyncReply(specific, waits, wanted)
{
    if
    :: !waits -> rc = NO_REPLY
    :: atomic { waits && !mayStillCome(specific, wanted) -> TOUCH; rc = REFUSED }
    :: atomic {
           waits && mayStillCome(specific, wanted) -> TOUCH;
           if
#ifdef BREAK_SPECIFIC_NOT_CHECKED_AGAIN
           :: false
#else
           :: specific -> checkQualifier(wanted)
#endif
           :: else
           fi
       };
       if
       :: rc == OK -> sleepUntilReply()
       :: else
       fi
    fi
}

/* keepForUnitOfWork, and what consumeSlot and takeHeldChannel do before it. */
inline keepForUnit(s)
{
    slot[s].state = UNIT_IDLE;
#ifdef CHANNEL
    slot[s].channelHeld = false
#endif
}

/* takeReply: countOut, clapiUnlinkReply, consumeSlot, armForNextReply; in consumeSlot
 * takeHeldChannel and giveChannelBack. */
inline takeReply()
{
    atomic {
        TOUCH;
        assert(slot[s].state == DELIVERED && slot[s].isAsync);
        countOut();
        tellOutcome(slot[s].call);
        replies??eval(s);
#ifdef CHANNEL
        if
        :: slot[s].channelHeld -> heldFor = slot[s].call
        :: else
        fi;
#endif
        if
        :: keepsUnit(s) -> keptFor = slot[s].call; keepForUnit(s)
        :: else -> slotFree(s)
        fi
    };
#ifdef CHANNEL
    if
    :: heldFor != NO_CALL -> atomic { unlockChannel(heldFor); heldFor = NO_CALL }
    :: else
    fi;
#endif
    if
    :: atomic { nempty(replies) || (closedown && asyncCount == 0) -> TOUCH; tableLock = NOBODY }
    :: atomic { empty(replies) && !(closedown && asyncCount == 0) -> TOUCH };
       atomic { TOUCH; arm(asyncReplyEvent); tableLock = NOBODY }
    fi
}

/* getAsyncReply: collectReply, findReply. */
inline collectReply(specific, waits, wanted, hasRoom)
{
    atomic {
        tableLock == NOBODY -> TOUCH;
        tableLock = _pid;
        s = NO_SLOT;
        if
        :: specific -> checkQualifier(wanted)
        :: else
        fi
    };
    do
    :: rc != OK || s != NO_SLOT -> break
    :: atomic { rc == OK && s == NO_SLOT && closedown && asyncCount == 0 -> TOUCH; rc = CLOSING }
    :: atomic {
           rc == OK && s == NO_SLOT && !(closedown && asyncCount == 0) -> TOUCH;
           chooseReply(specific, wanted)
       };
       if
       :: s == NO_SLOT -> awaitAsyncReply(specific, waits, wanted)
       :: else
       fi
    od;
    if
    :: atomic {
           rc == OK && !hasRoom && slot[s].result == OK -> TOUCH;
#ifdef BREAK_UNLINKED_WITHOUT_ROOM
           replies??eval(s);
#endif
           rc = NO_ROOM;
           tableLock = NOBODY /* the reply stays queued */
       }
    :: rc == OK && (hasRoom || slot[s].result != OK) -> takeReply()
    :: rc != OK -> unlock(tableLock)
    fi
}

/* ECI_GET_REPLY_WAIT, ECI_GET_REPLY or ECI_GET_SPECIFIC_REPLY_WAIT through QPX_ECI_Execute. */
inline collect(specific, waits, wanted, hasRoom)
{
    enter();
    if
    :: rc == OK -> collectReply(specific, waits, wanted, hasRoom)
    :: else
    fi;
    leave()
}

#if ANY > 0
/* An application that goes on until nothing can come any more, and on with units of work. */
proctype AnyCollector()
{
    byte s, generation;
    byte heldFor = NO_CALL, keptFor = NO_CALL;
    bool registered;
#ifdef UNITS
    bool begun, partSent, flowBroke;
    SENDERS_LATER_WAKE
#ifdef IN_PLACE
    bool changeFailed;
#endif
#endif
    mtype rc = OK;

    do
    :: rc == OK ->
       collect(false, true, NO_SLOT, true);
#ifdef UNITS
       if
       :: keptFor != NO_CALL ->
          asyncCall(CALLERS + keptFor - SYNC, true);
          keptFor = NO_CALL;
          rc = OK
       :: else
       fi
#endif
    :: else -> break
    od;
    assert(rc == REFUSED || rc == CLOSING);
    threadsOut++
}
#endif

#if SMALL > 0
proctype SmallCollector()
{
    byte s, generation;
    byte heldFor = NO_CALL, keptFor = NO_CALL;
    bool registered;
    mtype rc;

    collect(false, true, NO_SLOT, false);
    assert(rc == OK || rc == REFUSED || rc == CLOSING || rc == NO_ROOM);
    threadsOut++
}
#endif

#if POLL > 0
proctype Poller()
{
    byte s, generation;
    byte heldFor = NO_CALL, keptFor = NO_CALL;
    bool registered;
    mtype rc;

    collect(false, false, NO_SLOT, true);
    assert(rc == OK || rc == REFUSED || rc == CLOSING || rc == NO_REPLY);
    threadsOut++
}
#endif

#if SPECIFIC > 0
proctype SpecificCollector(byte call)
{
    byte s, generation;
    byte heldFor = NO_CALL, keptFor = NO_CALL;
    bool registered;
    mtype rc;

    if
    :: atomic { sendingOver[call] && qualifier[call] == NO_SLOT -> rc = FAILED }
    :: atomic { sendingOver[call] && qualifier[call] != NO_SLOT -> rc = OK };
       collect(true, true, qualifier[call], true)
    fi;
    threadsOut++
}
#endif

#if GUESSING > 0
/* An application that cannot know yet, or any more, what it asks for. */
proctype Guesser()
{
    byte s, generation;
    byte heldFor = NO_CALL, keptFor = NO_CALL;
    bool registered;
    mtype rc;

    collect(true, true, 0, true);
    atomic { guessersOut++; threadsOut++ }
}
#endif

/* ---- The receiver thread: clapi_gwycon ---- */

#ifdef BREAK_ASIDE_DECIDED_WHEN_FOUND
#define overtakes aside
#else
#define overtakes isBeingSent(s)
#endif

#define stillWaits (s != NO_SLOT && awaitsOutcome(s) && slot[s].call == call)

/* What an answer is for is what it answers, but for those that nobody has asked for. Nobody gives
 * up or settles what is being read. */
#define JUDGE_ANSWER assert(stillWaits); assert(UNASKED > 0 || answered == call)

/* clapiEndReading */
inline endReading()
{
    slotBeingRead = NO_SLOT;
#ifndef BREAK_READING_ENDS_SILENTLY
    wakeTransfers();
#endif
    s = NO_SLOT;
    aside = false
}

/* deliverReply: settleReply, clapiEndReading. Whether the reply has overtaken its request is looked
 * at once: if it has, the sender will deliver it, whatever becomes of the mark meanwhile. */
inline deliverReply()
{
    if
#ifdef IN_PLACE
    :: atomic {
           tableLock == NOBODY && overtakes -> TOUCH;
           JUDGE_ANSWER;
           putAside(s, OK);
           endReading()
       }
    :: atomic { tableLock == NOBODY && !overtakes && aside -> TOUCH; JUDGE_ANSWER };
       applyReplyData(call);
       if
       :: atomic {
              tableLock == NOBODY && changeFailed -> TOUCH;
              changeFailed = false;
              endReading();
              over = true;
              lost = true
          }
       :: atomic {
              tableLock == NOBODY && !changeFailed -> TOUCH;
              assert(stillWaits);
              tableLock = _pid;
              deliverFirst(s, OK)
          };
          atomic { TOUCH; deliverLast(s, OK); endReading(); tableLock = NOBODY }
       fi
#endif
    :: atomic {
           tableLock == NOBODY && !overtakes && !aside -> TOUCH;
           JUDGE_ANSWER;
           tableLock = _pid;
           deliverFirst(s, OK)
       };
       atomic { TOUCH; deliverLast(s, OK); endReading(); tableLock = NOBODY }
    fi
#ifdef WAKES
    ; wakeExpected()
#endif
}

#ifdef BREAK_CHANGED_TWICE
#define isReadAside (aside && isBeingSent(s))
#else
#define isReadAside aside
#endif

/* receiveECIReply: clapiReadECIResponse into the caller's storage and the channel, deliverReply; or
 * into storage of its own (readAside), if they were being sent when the slot was found. */
inline receiveBody()
{
#ifdef IN_PLACE
    if
    :: repliesInPlace(call) && !isReadAside -> applyReplyData(call)
    :: else
    fi;
    if
    :: changeFailed -> atomic { changeFailed = false; s = NO_SLOT; over = true; lost = true }
    :: else -> deliverReply()
    fi
#else
    deliverReply()
#endif
}

#ifdef HALF_REPLY
#define bodyIsThere (!halfReply || len(fromGateway) > 0)
#define bodyBreaksOff (reset || shutDown || (!bodyIsThere && gatewayGone))
#else
#define bodyIsThere true
#define bodyBreaksOff (reset || shutDown)
#endif

/* receiveReply: findReplySlot, loadReplyRecord, receiveECIReply. */
inline receiveReply()
{
    atomic {
        tableLock == NOBODY -> TOUCH;
        if
        :: awaitsOutcome(id) ->
           s = id;
           call = slot[id].call;
#ifndef BREAK_CHANGED_WHILE_BEING_SENT
           aside = isBeingSent(id);
#endif
           slotBeingRead = id
        :: else
        fi
    };
#ifdef BREAK_RECEIVER_WAITS_FOR_SENDER
    atomic { s == NO_SLOT || !slot[s].beingSent -> aside = false };
#endif
    if
    :: atomic { s != NO_SLOT -> TOUCH; assert(slot[s].call == call) };
end_reading:
       if
       :: atomic { bodyIsThere -> TOUCH; assert(slot[s].call == call) };
          receiveBody()
       :: atomic { bodyBreaksOff -> TOUCH; s = NO_SLOT; aside = false; over = true }
#ifdef ENDS_ITSELF
       :: atomic { true -> TOUCH; s = NO_SLOT; aside = false; over = true; lost = true }
#endif
       fi
    :: s == NO_SLOT ->
#ifdef HALF_REPLY
end_dropping:
       if
       :: bodyIsThere
       :: atomic { !bodyIsThere && bodyBreaksOff -> TOUCH; over = true }
       fi
#else
       skip /* nobody waits; the body is dropped */
#endif
    fi
}

/* receiveError: lookUpWithoutLock, deliverFailure */
inline receiveError()
{
    if
    :: atomic { tableLock == NOBODY && !awaitsOutcome(id) -> TOUCH }
#ifdef IN_PLACE
    :: atomic {
           tableLock == NOBODY && awaitsOutcome(id) && isPutAside(id) -> TOUCH;
           putAside(id, FAILED)
       }
#endif
    :: atomic {
           tableLock == NOBODY && awaitsOutcome(id) && !isPutAside(id) -> TOUCH;
           tableLock = _pid;
           deliverFirst(id, FAILED)
       };
       atomic { TOUCH; deliverLast(id, FAILED); tableLock = NOBODY }
#ifdef WAKES
       ; wakeExpected()
#endif
    fi
}

/* receiveFlows, readFlow, dispatchFlow */
inline receiveFlows()
{
    do
    :: !over ->
end_waiting:
       if
       :: atomic { fromGateway?REPLY, id, answered -> TOUCH };
          receiveReply()
       :: atomic { fromGateway?ERROR, id, answered -> TOUCH };
          receiveError()
       :: atomic { fromGateway?HANDSHAKE, id, answered -> TOUCH; connStatus = CONNECTED };
#ifdef OPENING
          atomic { TOUCH; post(connEvent) } /* receiveHandshake */
#endif
       :: atomic { fromGateway?CLOSE_FLOW, id, answered -> TOUCH };
          /* noteClosed; the code for the requests that wait depends on closedown */
#ifdef BREAK_CLOSED_BEFORE_SWEEP
          atomic { TOUCH; connStatus = CLOSED };
#endif
          saidGoodbye = true;
          over = true
       :: atomic { empty(fromGateway) && gatewayGone -> TOUCH; over = true }
       :: atomic { reset || shutDown -> TOUCH; over = true }
#ifdef ENDS_ITSELF
       :: atomic { true -> TOUCH; over = true; lost = true }
#endif
#ifdef PINGS
       :: atomic { empty(fromGateway) && ping -> TOUCH; ping = false }
#endif
       fi;
       id = 0;
       answered = 0;
       call = 0
    :: else -> break
    od
}

/* clapiEndReading of what may not have been begun. */
inline breakOffReading()
{
    if
    :: slotBeingRead != NO_SLOT -> endReading()
    :: else
    fi
}

/* endConnection: clapiEndReading, noteEnd, completeWaitingRequests, under one hold of tableLock. */
inline endConnection()
{
    atomic { tableLock == NOBODY -> TOUCH; tableLock = _pid; breakOffReading() };
    if
    :: atomic { saidGoodbye -> TOUCH; connStatus = CLOSED }
    :: atomic { !saidGoodbye && connStatus == CONNECTED -> TOUCH; connStatus = LOST };
#ifdef OPENING
       atomic { TOUCH; post(connEvent) }
    :: atomic { !saidGoodbye && connStatus == CONNECTING -> TOUCH; connStatus = NEVER_CONNECTED };
       atomic { TOUCH; post(connEvent) }
#endif
    fi;
    sweep();
    unlock(tableLock)
}

#define isSwept (connStatus != NEVER_CONNECTED && s < SLOTS)

/* completeWaitingRequests */
inline sweep()
{
    s = 0;
    do
    :: atomic { isSwept && !awaitsOutcome(s) -> TOUCH; s++ }
#ifdef IN_PLACE
    :: atomic { isSwept && awaitsOutcome(s) && isPutAside(s) -> TOUCH; putAside(s, REFUSED); s++ }
#endif
    :: atomic { isSwept && awaitsOutcome(s) && !isPutAside(s) -> TOUCH; deliverFirst(s, REFUSED) };
       atomic { TOUCH; deliverLast(s, REFUSED); s++ }
#if defined(WAKES) && !defined(BREAK_WOKEN_BEHIND_THE_END)
       ; wakeExpected() /* with tableLock held */
#endif
    :: !isSwept -> break
    od;
#ifndef BREAK_END_NOT_TOLD_TO_COLLECTORS
    atomic { TOUCH; post(asyncReplyEvent) };
#endif
    s = NO_SLOT
}

/* clapiWaitForSenders */
inline waitForSenders()
{
#ifndef WAKES
    atomic { tableLock == NOBODY && senders == 0 -> TOUCH }
#else
    do
    :: atomic { isWokenInTransfers && senders == 0 -> TOUCH; break }
    :: atomic { isWokenInTransfers && senders > 0 -> TOUCH; sleepInTransfers() }
#if SPURIOUS > 0
    :: atomic { mayWakeUp(transferSleepers) -> TOUCH; spurious--; wakeUp(transferSleepers) }
#endif
    od
#endif
}

/* closeConnectionSocket: shutdown, clapiWaitForSenders, close. */
inline closeConnectionSocket()
{
    atomic {
        TOUCH;
        if
#ifndef BREAK_SOCKET_NOT_SHUT_DOWN
        :: connStatus != NEVER_CONNECTED -> shutDown = true
#endif
        :: else
        fi
    };
#ifndef BREAK_CLOSES_UNDER_SENDERS
    waitForSenders();
#endif
    atomic { TOUCH; assert(descriptorOpen); descriptorOpen = false }
}

/* receiverThread: startReceiving and what follows. */
proctype Receiver()
{
    byte id, answered, call;
    byte s = NO_SLOT;
    bool over, saidGoodbye, aside;
    LATER_WAKE
#ifdef IN_PLACE
    bool changeFailed;
#endif

#ifdef OPENING
    atomic { TOUCH; arm(recvThreadEnded) };
#endif
#ifdef NO_BUFFER
    atomic { TOUCH; connStatus = NEVER_CONNECTED };
#else
    receiveFlows();
    endConnection();
#endif
    closeConnectionSocket();
    atomic { TOUCH; post(recvThreadEnded) };
#ifdef BREAK_WOKEN_BEHIND_THE_END
    wakeExpected()
#endif
}

/* ---- Closing: clapi_gwytok ---- */

/* markAsClosing. Under gtlLock. */
inline markAsClosing()
{
    if
    :: !listed -> rc = REFUSED
    :: listed && closedown -> rc = CLOSING
    :: listed && !closedown ->
       atomic { TOUCH; closedown = true };
       if
       :: atomic { requestCount > 0 || asyncCount > 0 -> TOUCH; arm(requestsEnded) }
       :: atomic { requestCount == 0 && asyncCount == 0 -> TOUCH }
       fi
    fi
}

/* waitForWork. limit: GRACEFUL_CLOSE waits, TIMED_CLOSE may run out of time, AT_ONCE does not. */
#define GRACEFUL_CLOSE 0
#define TIMED_CLOSE 1
#define AT_ONCE 2
inline waitForWork(limit)
{
    atomic { TOUCH; calls = requestCount };
    if
    :: limit != AT_ONCE ->
       if
       :: atomic { calls > 0 || asyncCount > 0 -> TOUCH };
          if
          :: limit == TIMED_CLOSE -> waitEventForTime(requestsEnded)
          :: limit == GRACEFUL_CLOSE -> waitEvent(requestsEnded)
          fi
       :: atomic { calls == 0 && asyncCount == 0 -> TOUCH }
       fi
    :: else
    fi;
    calls = 0
}

/* clapiCloseConnection: sendCloseFlowSafely, clapiBeginSendingFlow, sendCloseFlow. */
inline sendCloseFlow()
{
    atomic {
        tableLock == NOBODY -> TOUCH;
        begun = (connStatus == CONNECTED);
        if
        :: begun -> senders++
        :: else -> rc = FAILED
        fi
    };
    if
    :: begun ->
       atomic { sendLock == NOBODY -> TOUCH; sendLock = _pid; assert(descriptorOpen) };
       atomic {
           TOUCH;
           assert(descriptorOpen);
           if
           :: !shutDown ->
              if
              :: !gatewayGone -> closeAsked = true
              :: else
              fi
           :: gatewayGone || shutDown -> rc = FAILED
           fi;
           sendLock = NOBODY
       };
       endSending();
       begun = false
    :: else
    fi
}

/* endWork: giveUpReplies, unlockChannels, seeCallsOut. */
inline endWork()
{
    atomic { tableLock == NOBODY -> TOUCH; tableLock = _pid; calls = asyncCount; asyncCount = 0 };
    if
#ifndef BREAK_GIVES_UP_SILENTLY
    :: atomic { calls > 0 && requestCount == 0 -> TOUCH };
       atomic { TOUCH; post(requestsEnded) }
#endif
    :: atomic { calls == 0 || requestCount != 0 -> TOUCH }
#ifdef BREAK_GIVES_UP_SILENTLY
    :: atomic { calls > 0 && requestCount == 0 -> TOUCH }
#endif
    fi;
#ifndef BREAK_CHANNELS_GIVEN_BACK_LATE
    unlockChannels();
#endif
    atomic { TOUCH; calls = requestCount; tableLock = NOBODY };
    if
    :: calls > 0 -> waitEvent(requestsEnded) /* seeCallsOut */
    :: else
    fi;
#ifdef BREAK_CHANNELS_GIVEN_BACK_LATE
    lock(tableLock);
    unlockChannels();
    unlock(tableLock);
#endif
    calls = 0
}

/* giveChannelsBack */
inline giveChannelsBack()
{
#ifndef BREAK_FAILED_CLOSE_KEEPS_CHANNELS
    lock(tableLock);
    unlockChannels();
    unlock(tableLock);
    calls = 0
#else
    skip
#endif
}

#ifdef BREAK_CLOSE_FLOW_IN_ANY_STATE
#define looksOpen true
#else
#define looksOpen (connStatus == CONNECTED)
#endif

/* quiesceConnection */
inline quiesceConnection(limit)
{
    /* releaseReplyWaiters */
    atomic {
        tableLock == NOBODY -> TOUCH;
        if
#ifdef BREAK_COLLECTORS_NOT_RELEASED
        :: false
#else
        :: asyncCount == 0 -> post(asyncReplyEvent)
#endif
        :: else
        fi
    };
    waitForWork(limit);
    /* takesCloseFlow */
    if
    :: atomic { looksOpen -> TOUCH };
       if
       :: atomic { !brokenOff -> TOUCH; assert(!streamEnded) };
          sendCloseFlow()
       :: atomic { brokenOff -> TOUCH }
       fi
    :: atomic { !looksOpen -> TOUCH }
    fi;
#ifndef BREAK_RECEIVER_NOT_AWAITED
    waitEvent(recvThreadEnded); /* waitForReceiver */
#endif
    if
    :: rc == OK -> endWork()
    :: else -> giveChannelsBack()
    fi
}

/* Nobody sleeps in what goes with the token. */
inline checkSleepers()
{
#ifdef WAKES
    assert(asyncReplyEvent.sleepers == 0 && requestsEnded.sleepers == 0);
    assert(recvThreadEnded.sleepers == 0 && transferSleepers == 0);
#ifdef OPENING
    assert(connEvent.sleepers == 0);
#endif
    for (calls : 0 .. SLOTS - 1) { assert(slot[calls].requestEvent.sleepers == 0) }
    calls = 0
#else
    skip
#endif
}

/* freeToken, after which no field may be touched. Under gtlLock. */
inline freeToken()
{
    atomic {
        TOUCH;
        assert(requestCount == 0 && senders == 0 && deleters == 0);
        assert(!descriptorOpen && recvThreadEnded.open);
        assert(tableLock == NOBODY && sendLock == NOBODY);
        checkSleepers();
        tokenFreed = true
    }
}

/* unlinkForGood. Under gtlLock. */
inline unlinkForGood()
{
    if
#ifdef BREAK_DELETERS_NOT_COUNTED
    :: listed && quiesced ->
#else
    :: deleters == 0 && quiesced && listed ->
#endif
       listed = false;
#ifndef BREAK_LATE_CALLS_NOT_AWAITED
       do
       :: requestCount > 0 ->
#ifdef BREAK_CALLS_ENDED_NOT_ARMED_AGAIN
          unlock(gtlLock);
#else
          atomic { TOUCH; arm(requestsEnded); gtlLock = NOBODY };
#endif
          waitEvent(requestsEnded);
          lock(gtlLock)
       :: requestCount == 0 -> break
       od;
#endif
       freeToken()
    :: else
    fi
}

/* endDelete. */
inline endDelete()
{
    lock(gtlLock);
    deleters--;
    if
    :: rc == OK -> quiesced = true
    :: else -> deleteFailed = true
    fi;
    unlinkForGood();
    unlock(gtlLock)
}

/* Counts a closer and gives up gtlLock, under which the token was found. */
inline countCloser()
{
    atomic { TOUCH; deleters++; gtlLock = NOBODY }
}

/* clapiDeleteGatewayToken: quiesceConnection, endDelete. The closer is counted. */
inline deleteToken(limit)
{
    quiesceConnection(limit);
    endDelete()
}

/* QPX_closeGatewayConnection, QPX_purgeGatewayConnection: clapiCloseGatewayToken, which marks the
 * token and counts the closer in one hold of gtlLock, then clapiDeleteGatewayToken. */
inline closeConnection(limit)
{
    rc = OK;
    atomic { gtlLock == NOBODY -> gtlLock = _pid };
    markAsClosing();
    if
    :: rc == OK -> countCloser(); deleteToken(limit)
    :: else -> unlock(gtlLock)
    fi
}

#if GRACEFUL + TIMED + PURGE > 0
proctype Closer(byte limit)
{
    byte calls, generation;
    bool begun;
    mtype rc;

#ifdef CLOSE_AFTER_CALLS
    callsSent == ASYNC;
#endif
    closeConnection(limit);
    threadsOut++
}
#endif

#if ALL > 0
/* QPX_closeAllGatewayConnections: deleteEveryToken, of which this one is the only. */
proctype AllCloser()
{
    byte calls, generation;
    bool begun;
    mtype rc = OK;

    atomic { gtlLock == NOBODY -> gtlLock = _pid };
    if
    :: listed && !opening ->
       markAsClosing();
       rc = OK; /* the result of the close is not looked at */
       countCloser();
       deleteToken(AT_ONCE)
    :: else -> unlock(gtlLock)
    fi;
    threadsOut++
}
#endif

/* ---- Opening: clapi_gwycon and clapi_gwytok ---- */

#ifdef OPENING
bool handshakeAsked;

/* sendHandshake, awaitHandshakeAnswer */
inline shakeHands()
{
    atomic {
        TOUCH;
        assert(descriptorOpen);
        if
        :: writeMayFail -> rc = FAILED
#ifndef NOTHING_WRITTEN
        :: !shutDown ->
           if
           :: !gatewayGone -> handshakeAsked = true
           :: else
           fi
#endif
        fi
    };
    if
    :: rc == OK ->
       endSending();
       waitEvent(connEvent);
       if
       :: atomic { connStatus == CONNECTED -> TOUCH }
       :: atomic { connStatus != CONNECTED -> TOUCH; rc = FAILED }
       fi
    :: else ->
       atomic { TOUCH; shutDown = true };
       endSending();
       waitEvent(recvThreadEnded)
    fi
}

/* connectAndShakeHands: startReceiverThread, shakeHands. */
inline connect()
{
#ifndef BREAK_END_ARMED_BY_THE_RECEIVER_ALONE
    arm(recvThreadEnded);
#endif
    senders = 1;
    if
    :: atomic { true -> receiver = run Receiver() }
#ifdef NO_THREAD
    :: atomic { true -> senders = 0; hasReceiver = false };
#ifndef BREAK_NO_END_WITHOUT_A_THREAD
       atomic { TOUCH; post(recvThreadEnded) };
#endif
       descriptorOpen = false /* openSocket */
#endif
    fi;
    if
    :: hasReceiver -> shakeHands()
    :: !hasReceiver -> rc = FAILED
    fi
}

/* clapiCreateGatewayToken: createAndConnect; then a call and a close, as any application. */
proctype Opener(byte me)
{
    byte s, generation, calls;
    bool begun, registered, partSent, flowBroke;
    bool hasReceiver = true;
    SENDERS_LATER_WAKE
#ifdef IN_PLACE
    bool changeFailed;
#endif
    mtype rc = OK;

    connect();
    if
    :: rc == OK ->
       atomic { gtlLock == NOBODY -> TOUCH; opening = false }; /* endOpening */
       syncCall(me, false, false);
       closeConnection(GRACEFUL_CLOSE)
    :: else ->
       rc = OK;
       atomic { gtlLock == NOBODY -> gtlLock = _pid };
       assert(listed);
       countCloser();
       deleteToken(AT_ONCE)
    fi;
    atomic { tellOutcome(me); threadsOut++ }
}
#endif

/* ---- The Gateway ---- */

proctype Gateway()
{
    byte i;
    byte unasked = UNASKED;

end_waiting:
    do
#ifdef OPENING
    :: atomic { handshakeAsked -> handshakeAsked = false; fromGateway!HANDSHAKE, 0, 0 }
#endif
    :: atomic {
           asked[0] != NO_CALL -> fromGateway!REPLY, 0, asked[0]; asked[0] = NO_CALL
       }
#if SLOTS > 1
    :: atomic {
           asked[1] != NO_CALL -> fromGateway!REPLY, 1, asked[1]; asked[1] = NO_CALL
       }
#endif
#if SLOTS > 2
    :: atomic {
           asked[2] != NO_CALL -> fromGateway!REPLY, 2, asked[2]; asked[2] = NO_CALL
       }
#endif
#ifdef REFUSES
    :: atomic { asked[0] != NO_CALL -> fromGateway!ERROR, 0, asked[0]; asked[0] = NO_CALL }
#if SLOTS > 1
    :: atomic { asked[1] != NO_CALL -> fromGateway!ERROR, 1, asked[1]; asked[1] = NO_CALL }
#endif
#endif
#ifdef HALF_REPLY
    :: atomic {
           asked[0] != NO_CALL -> fromGateway!REPLY, 0, asked[0]; asked[0] = NO_CALL;
           halfReply = true;
           break
       }
#if UNASKED > 0
    :: atomic {
           unasked > 0 && nfull(fromGateway) ->
           unasked--;
           fromGateway!REPLY, 0, NO_CALL;
           halfReply = true;
           break
       }
#endif
#endif
#ifdef SILENT
    :: atomic { asked[0] != NO_CALL -> asked[0] = NO_CALL }
#if SLOTS > 1
    :: atomic { asked[1] != NO_CALL -> asked[1] = NO_CALL }
#endif
#endif
#if UNASKED > 0
    :: atomic {
           unasked > 0 && nfull(fromGateway) ->
           unasked--;
           select(i : 0 .. SLOTS - 1);
           if
           :: fromGateway!REPLY, i, NO_CALL
           :: fromGateway!ERROR, i, NO_CALL
           fi;
           i = 0
       }
#endif
#ifndef DEAF
    :: atomic { closeAsked -> fromGateway!CLOSE_FLOW, 0, 0; gatewayGone = true; break }
#endif
#ifdef CLOSES
    :: atomic {
           nfull(fromGateway) -> fromGateway!CLOSE_FLOW, 0, 0;
           gatewayGone = true;
           lost = true;
           break
       }
#endif
#ifdef LAST
    :: atomic { timeout -> gatewayGone = true; lost = true; break }
#endif
#ifdef DIES
    :: atomic { gatewayGone = true; lost = true; break }
    :: atomic { gatewayGone = true; lost = true; reset = true; break }
#endif
    od
#if defined(HALF_REPLY) && defined(LAST)
    ;
    if
    :: halfReply ->
end_stopped:
       atomic { timeout -> gatewayGone = true; lost = true }
    :: else
    fi
#endif
}

#ifdef PINGS
ltl everyThreadGetsOut { <> (threadsOut == THREADS) }

proctype Pinger()
{
    do
    :: atomic { !ping -> ping = true }
    od
}
#endif

/* ---- The whole ---- */

init
{
    byte i;

    atomic {
        for (i : 0 .. SLOTS - 1) { slot[i].call = NO_CALL }
#ifdef OPENING
        connStatus = CONNECTING;
        opening = true;
        recvThreadEnded.open = true; /* buildToken */
        run Opener(SLOTS - 1);
#else
        receiver = run Receiver();
#endif
        run Gateway();
#ifdef PINGS
        run Pinger();
#endif
#if SYNC > 0
#if PLAIN > 0
        for (i : 0 .. PLAIN - 1) { run PlainCaller(i) }
#endif
#if SYNC > PLAIN
        for (i : PLAIN .. SYNC - 1) { run SyncCaller(i) }
#endif
#endif
#if ASYNC > 0
        for (i : SYNC .. SYNC + ASYNC - 1) { run AsyncCaller(i) }
#endif
#if SPECIFIC > 0
        for (i : SYNC .. SYNC + SPECIFIC - 1) { run SpecificCollector(i) }
#endif
#if GUESSING > 0
        for (i : 1 .. GUESSING) { run Guesser() }
#endif
#if ANY > 0
        for (i : 1 .. ANY) { run AnyCollector() }
#endif
#if SMALL > 0
        for (i : 1 .. SMALL) { run SmallCollector() }
#endif
#if POLL > 0
        for (i : 1 .. POLL) { run Poller() }
#endif
#if GRACEFUL > 0
        for (i : 1 .. GRACEFUL) { run Closer(GRACEFUL_CLOSE) }
#endif
#if TIMED > 0
        for (i : 1 .. TIMED) { run Closer(TIMED_CLOSE) }
#endif
#if PURGE > 0
        for (i : 1 .. PURGE) { run Closer(AT_ONCE) }
#endif
#if ALL > 0
        for (i : 1 .. ALL) { run AllCloser() }
#endif
#ifdef WAKES
        assert(_nr_pr < 8); /* MY_BIT; the receiver of an opening comes later */
#endif
        i = 0
    };
#ifdef QUIET
    /* Whoever still waits, waits for a reply that is not there; for one reply, only while that may
     * come. What is left of a stream that the library has ended is for nobody. */
    timeout;
    assert(empty(replies) && (empty(fromGateway) || shutDown));
#if GUESSING > 0
    assert(guessersOut == GUESSING || slot[0].state == WAITING);
#endif
    assert(gtlLock == NOBODY && tableLock == NOBODY)
#else
    /* Every thread of the application gets out of the library, with the locks and channels that it
     * has taken. Only the receiver may still be inside tableLock, but not for ever. */
    threadsOut == THREADS;
    assert(gtlLock == NOBODY && sendLock == NOBODY);
    assert(tableLock == NOBODY || tableLock == receiver);
    tableLock == NOBODY;
#ifdef CHANNEL
    /* A request that nobody has collected keeps its channel until the token goes. */
    assert(channelHolder == NO_CALL || (!tokenFreed && !ended[channelHolder]));
#if CLOSERS > 0
    /* Whoever closes gives it back, also where the close fails. */
    assert(channelHolder == NO_CALL);
#endif
#endif
#if ANY > 0 && CLOSERS == 0
    assert(empty(replies)); /* whoever is refused leaves nothing behind */
#endif
#if CLOSERS + OPENERS > 0
    /* No delete fails but for a connection that ends under it. */
    assert(!descriptorOpen);
    assert(tokenFreed || (deleteFailed && lost))
#endif
#endif
}
