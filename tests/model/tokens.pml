/*
 * tokens.pml - the list of tokens, as a model for Spin: records at a few addresses, whose memory
 * serves again, and threads that open, close, call and close all through variables that may be
 * stale. What happens inside one connection is connection.pml's.
 * run.sh holds the configurations, which say by -D who takes part:
 *
 *   ADDRESSES        how many records there is memory for
 *   OPEN             so many connections are open at the beginning, each named by a variable
 *   OWNERS           threads that close variable 1, 2, ... and open it again; ROUNDS times
 *   OPENERS          threads that open one more connection, into a variable of their own
 *   NAMERS           threads that close the last variable that was open, the last but one, ...
 *   CALLERS          threads that make a call on the first variable
 *   ALL              threads that close all connections
 *   SAME             namers and owners all use the first variable
 *   RESTING          how many freed records rest before their memory serves again
 *   CLOSE_FAILS      one close flow may fail to be sent, for the connection is lost just then
 *   OPEN_FAILS       an open may fail
 *   BREAK_...        undoes one precaution of the code; the model must then find what it is for
 *
 * A connection is known to the model by its token's serial number, whatever address it is at. All
 * that the code does under one hold of gtlLock is one step.
 */

#ifndef ADDRESSES
#define ADDRESSES 3
#endif
#ifndef OPEN
#define OPEN 0
#endif
#ifndef OWNERS
#define OWNERS 0
#endif
#ifndef ROUNDS
#define ROUNDS 1
#endif
#ifndef OPENERS
#define OPENERS 0
#endif
#ifndef NAMERS
#define NAMERS 0
#endif
#ifndef CALLERS
#define CALLERS 0
#endif
#ifndef ALL
#define ALL 0
#endif
#ifndef RESTING
#define RESTING 1
#endif
#ifdef BREAK_NO_REST
#define QUEUED 0
#else
#define QUEUED RESTING
#endif

#define THREADS (OWNERS + OPENERS + NAMERS + CALLERS + ALL)
#define VARIABLES (OPEN + OPENERS)
#define CONNECTIONS (OPEN + OWNERS * ROUNDS + OPENERS)

#define NOWHERE 255
#define NONE 0

/* Results: -140 is CLOSED, -101 UNKNOWN. */
mtype = { OK, CLOSED, UNKNOWN, FAILED };

/* What the memory at an address is. */
mtype = { FREE, TOKEN, REST };

/* The receiver of a token. */
mtype = { NOT_STARTED, RUNNING, ENDED };

typedef Record {
    mtype memory;
    byte serial;
    bool opening;
    bool listed;
    bool closedown;
    bool quiesced;
    byte deleters;
    byte requestCount;
    mtype receiver;
    bool mayEnd;       /* the Gateway has answered the close flow, or the connection is lost */
}

Record record[ADDRESSES];
byte lastSerial;
chan resting = [RESTING + 1] of { byte };

/* The application's variables: an address, and which connection its owner means by it. */
typedef Variable {
    byte address;
    byte meant;
}

Variable variable[VARIABLES];

/* ---- What is known of the whole, and by no thread ---- */

byte frees;                        /* how many tokens have been freed */
byte freedAt[CONNECTIONS + 1];     /* by serial number: which of them it was; 0 if it lives */
bool closeMayFail;
byte threadsOut;

/* The promise to a stale variable: as long as fewer than RESTING tokens have been freed after the
 * one that it names, it meets a refusal, and no stranger. */
#define restIsOver(meant) (freedAt[meant] != 0 && frees - freedAt[meant] >= RESTING)

/* No field of a token is touched but while the token is there. */
#define TOUCH assert(record[token].memory == TOKEN && record[token].serial == serial)

/* ---- The list ---- */

/* findGatewayToken for a caller that names a token. */
#ifdef BREAK_OPENING_VISIBLE
#define isFound(a) (a != NOWHERE && record[a].memory == TOKEN && record[a].listed)
#else
#define isFound(a) \
    (a != NOWHERE && record[a].memory == TOKEN && record[a].listed && !record[a].opening)
#endif

/* clapiHasLeft: a token that is on the list of those that are leaving, which is where it is from
 * clapiBeginLeaving to clapiEndLeaving, or at rest. */
#ifdef BREAK_KNOWN_AT_REST_ONLY
#define hasLeft(a) (a != NOWHERE && record[a].memory == REST)
#else
#define hasLeft(a) \
    (a != NOWHERE && (record[a].memory == REST || (record[a].memory == TOKEN && !record[a].listed)))
#endif

/* What is done to a token by its name is done to the one that was meant. */
#define JUDGE_FOUND assert(record[token].serial == meant || restIsOver(meant))
#define JUDGE_UNKNOWN assert(token == NOWHERE || restIsOver(meant))

inline freeRecord()
{
    record[token].memory = FREE;
    record[token].serial = NONE;
    record[token].opening = false;
    record[token].closedown = false;
    record[token].quiesced = false;
    record[token].receiver = 0;
    record[token].mayEnd = false
}

/* freeToken, clapiPutToRest: the record rests, and the one that has rested longest may serve again.
 * That of a token which was never given out may do so at once. */
inline freeToken()
{
    assert(!record[token].listed);
    assert(record[token].deleters == 0 && record[token].requestCount == 0);
    assert(record[token].receiver != RUNNING);
    assert(freedAt[serial] == 0);
    if
    :: record[token].opening -> freeRecord()
    :: else ->
       frees++;
       freedAt[serial] = frees;
       record[token].memory = REST;
       resting!token;
       if
       :: len(resting) > QUEUED ->
          resting?token;
          freeRecord()
       :: else
       fi
    fi
}

/* ---- Calls ---- */

/* clapiRegisterRequest, the call, clapiUnregisterRequest */
inline call(v)
{
    atomic { token = variable[v].address; meant = variable[v].meant };
    atomic {
        if
        :: isFound(token) ->
           JUDGE_FOUND;
           serial = record[token].serial;
           record[token].requestCount++;
           rc = OK
        :: else -> rc = UNKNOWN
        fi
    };
    if
    :: rc == OK ->
       atomic { TOUCH; record[token].requestCount-- }
    :: else
    fi
}

/* ---- Closing ---- */

/* clapiCloseGatewayToken: markAsClosing, and counting the closer. */
inline closeGatewayToken()
{
    atomic {
        if
        :: isFound(token) && record[token].closedown -> JUDGE_FOUND; rc = CLOSED
        :: isFound(token) && !record[token].closedown ->
           JUDGE_FOUND;
           serial = record[token].serial;
           record[token].closedown = true;
#ifndef BREAK_MARK_AND_COUNT_APART
           record[token].deleters++;
#endif
           rc = OK
        :: !isFound(token) && hasLeft(token) -> rc = CLOSED
        :: !isFound(token) && !hasLeft(token) -> JUDGE_UNKNOWN; rc = UNKNOWN
        fi
    };
#ifdef BREAK_MARK_AND_COUNT_APART
    atomic {
        if
        :: rc == OK && isFound(token) -> TOUCH; record[token].deleters++
        :: rc == OK && !isFound(token) -> rc = UNKNOWN
        :: else
        fi
    }
#endif
}

/* quiesceConnection: the close flow, waitForReceiver, seeCallsOut. */
inline quiesceConnection()
{
    atomic {
        TOUCH;
        if
        :: record[token].receiver == RUNNING && !record[token].mayEnd ->
           record[token].mayEnd = true
        :: record[token].receiver == RUNNING && closeMayFail ->
           record[token].mayEnd = true;
           closeMayFail = false;
           rc = FAILED
        :: record[token].receiver != RUNNING || record[token].mayEnd
        fi
    };
    /* one that has not begun is no obstacle */
    atomic { record[token].receiver != RUNNING -> TOUCH };
    if
    :: rc == OK -> atomic { record[token].requestCount == 0 -> TOUCH }
    :: else
    fi
}

/* endDelete: unlinkForGood with clapiBeginLeaving and clapiEndLeaving, freeToken. */
inline endDelete()
{
    atomic {
        TOUCH;
        assert(record[token].deleters > 0);
        record[token].deleters--;
        if
        :: rc == OK -> record[token].quiesced = true
        :: else
        fi;
        if
        :: record[token].deleters == 0 && record[token].quiesced && record[token].listed ->
           record[token].listed = false;
           lastOne = true
        :: else
        fi
    };
    if
    :: lastOne ->
       atomic {
           record[token].requestCount == 0 ->
           TOUCH;
           freeToken();
           lastOne = false
       }
    :: else
    fi
}

/* clapiDeleteGatewayToken of a token whose closer is counted. */
inline deleteToken()
{
    quiesceConnection();
    endDelete();
    serial = NONE
}

/* QPX_closeGatewayConnection, QPX_purgeGatewayConnection */
inline closeConnection(v)
{
    atomic { token = variable[v].address; meant = variable[v].meant };
    closeGatewayToken();
    if
    :: rc == OK ->
#ifdef BREAK_VARIABLE_READ_TWICE
       token = variable[v].address;
#endif
       deleteToken()
    :: else
    fi
}

/* ---- Opening ---- */

/* connectAndShakeHands, as far as it matters here. */
inline connect()
{
    atomic {
        TOUCH;
        assert(record[token].receiver == NOT_STARTED);
        record[token].receiver = RUNNING
    };
    if
    :: atomic { TOUCH; rc = OK }
#ifdef OPEN_FAILS
    :: atomic { TOUCH; record[token].mayEnd = true; rc = FAILED }
#endif
    fi
}

/* chainGatewayToken: at any address whose memory is free, if there is one. */
inline buildToken()
{
    atomic {
        token = 0;
        do
        :: token < ADDRESSES && record[token].memory == FREE -> break
        :: token < ADDRESSES -> token++
        :: token == ADDRESSES -> token = NOWHERE; break
        od;
        if
        :: token != NOWHERE ->
           lastSerial++;
           serial = lastSerial;
           record[token].memory = TOKEN;
           record[token].serial = serial;
           record[token].receiver = NOT_STARTED;
           record[token].opening = true;
           record[token].listed = true
        :: else
        fi
    }
}

/* clapiCreateGatewayToken: createAndConnect. */
inline openConnection(v)
{
    buildToken();
    if
    :: token != NOWHERE ->
       connect();
       if
       :: rc == OK ->
          atomic { TOUCH; record[token].opening = false }; /* endOpening */
          /* *gwTokPtr */
          atomic { variable[v].address = token; variable[v].meant = serial; serial = NONE }
       :: else ->
          rc = OK;
          atomic { TOUCH; record[token].deleters++ };
          deleteToken()
       fi
    :: else
    fi
}

/* ---- Closing all ---- */

/* nextToDelete: the token to go on with, or NOWHERE. */
#ifndef BREAK_WALK_BY_ADDRESS
#define isNext(a) \
    (record[a].memory == TOKEN && record[a].listed && !record[a].opening && \
     record[a].serial > visited && record[a].serial <= lastToVisit)
#else
/* The remembered successor, if something is listed there; or the first that nobody closes. */
#define successorIsListed \
    (successor != NOWHERE && record[successor].memory == TOKEN && record[successor].listed)
#define isNext(a) \
    (record[a].memory == TOKEN && record[a].listed && !record[a].opening && \
     (visited == NONE || \
      (successorIsListed && record[a].serial >= record[successor].serial) || \
      (!successorIsListed && successor != NOWHERE && !record[a].closedown)))
#endif

/* The list is in the order of the serial numbers: its first is the smallest. */
#define isBefore(a, b) (b == NOWHERE || record[a].serial < record[b].serial)

inline nextToDelete()
{
    token = NOWHERE;
    i = 0;
    do
    :: i < ADDRESSES ->
       if
       :: isNext(i) && isBefore(i, token) -> token = i
       :: else
       fi;
       i++
    :: else -> i = 0; break
    od
}

#ifdef BREAK_WALK_BY_ADDRESS
inline rememberSuccessor()
{
    successor = NOWHERE;
    do
    :: i < ADDRESSES ->
       if
       :: record[i].memory == TOKEN && record[i].listed && record[i].serial > visited &&
          isBefore(i, successor) -> successor = i
       :: else
       fi;
       i++
    :: else -> i = 0; break
    od
}
#endif

/* visit: the walk comes to what is behind a token that it has set out for, as of now; behind others
 * it looks for no more. */
#ifdef BREAK_WALK_WITHOUT_END
#define looksOn true
#elif defined(BREAK_WALK_ENDS_EARLY)
#define looksOn false
#else
#define looksOn (serial <= lastAtStart)
#endif
inline visit()
{
    visited = serial;
    if
    :: looksOn -> lastToVisit = lastSerial
    :: else
    fi;
    if
    :: serial <= lastAtStart -> lastMeant = lastSerial; noteOpen()
    :: else
    fi
}

/* One hold of gtlLock: the look for the next token, the visit, its marking, and the counting. */
inline visitNext()
{
    nextToDelete();
    if
    :: token != NOWHERE ->
       serial = record[token].serial;
       assert(serial <= lastMeant); /* what is opened later is not this walk's to close */
       visit();
#ifdef BREAK_WALK_BY_ADDRESS
       rememberSuccessor();
#endif
       record[token].closedown = true; /* the result of the close is not looked at */
       record[token].deleters++
    :: else
    fi;
    rc = OK
}

/* What was open when the walk began or came to the last of those is freed now, or somebody
 * else is about to free it, or could not be closed by this walk. */
inline judgeWalk()
{
    i = 0;
    do
    :: i < ADDRESSES ->
       assert(record[i].memory != TOKEN || !record[i].listed || record[i].deleters > 0 ||
              !wasOpen[record[i].serial]);
       i++
    :: else -> i = 0; break
    od
}

/* What is open now and not closed by a walk that could not. */
inline noteOpen()
{
    i = 0;
    do
    :: i < ADDRESSES ->
       if
       :: record[i].memory == TOKEN && record[i].listed && !record[i].opening &&
          record[i].serial > visited -> wasOpen[record[i].serial] = true
       :: else
       fi;
       i++
    :: else -> i = 0; break
    od
}

/* QPX_closeAllGatewayConnections: deleteEveryToken. */
proctype AllCloser()
{
    byte token, serial, visited, lastAtStart, lastToVisit, lastMeant, i;
#ifdef BREAK_WALK_BY_ADDRESS
    byte successor = NOWHERE;
#endif
    bool lastOne;
    bool wasOpen[CONNECTIONS + 1];
    mtype rc;

    atomic {
        lastAtStart = lastSerial;
        lastToVisit = lastSerial;
        lastMeant = lastSerial;
        noteOpen();
        visitNext()
    };
    do
    :: token != NOWHERE ->
       quiesceConnection();
       if
       :: rc != OK -> wasOpen[serial] = false
       :: else
       fi;
       endDelete();
       atomic { serial = NONE; visitNext() }
    :: else -> break
    od;
    atomic { judgeWalk(); threadsOut++ }
}

/* ---- The other threads ---- */

#if OWNERS > 0
proctype Owner(byte v)
{
    byte token, serial, meant, rounds;
    bool lastOne;
    mtype rc;

    do
    :: rounds < ROUNDS ->
       closeConnection(v);
       openConnection(v);
       rounds++
    :: else -> break
    od;
    threadsOut++
}
#endif

#if OPENERS > 0
proctype Opener(byte v)
{
    byte token, serial;
    bool lastOne;
    mtype rc;

    openConnection(v);
    threadsOut++
}
#endif

#if NAMERS > 0
proctype Namer(byte v)
{
    byte token, serial, meant;
    bool lastOne;
    mtype rc;

    closeConnection(v);
    threadsOut++
}
#endif

#if CALLERS > 0
proctype Caller(byte v)
{
    byte token, serial, meant;
    mtype rc;

    call(v);
    threadsOut++
}
#endif

/* ---- The receivers: whatever token is at an address has one that works on it ---- */

proctype Receiver(byte token)
{
    byte serial;

end_waiting:
    do
    :: atomic {
           record[token].memory == TOKEN && record[token].receiver == RUNNING ->
           serial = record[token].serial
       };
end_connected:
       atomic { record[token].mayEnd -> TOUCH };
       atomic { TOUCH; record[token].receiver = ENDED; serial = NONE }
    od
}

/* ---- The whole ---- */

init
{
    byte i;

    atomic {
        for (i : 0 .. ADDRESSES - 1) {
            record[i].memory = FREE;
            run Receiver(i)
        }
        for (i : 0 .. VARIABLES - 1) { variable[i].address = NOWHERE }
#if OPEN > 0
        for (i : 0 .. OPEN - 1) {
            lastSerial++;
            record[i].memory = TOKEN;
            record[i].serial = lastSerial;
            record[i].receiver = RUNNING;
            record[i].listed = true;
            variable[i].address = i;
            variable[i].meant = lastSerial
        }
#endif
#ifdef CLOSE_FAILS
        closeMayFail = true;
#endif
#ifdef SAME
#define ownersVariable(n) 0
#define namersVariable(n) 0
#else
#define ownersVariable(n) n
#define namersVariable(n) (OPEN - 1 - n)
#endif
#if OWNERS > 0
        for (i : 0 .. OWNERS - 1) { run Owner(ownersVariable(i)) }
#endif
#if OPENERS > 0
        for (i : OPEN .. OPEN + OPENERS - 1) { run Opener(i) }
#endif
#if NAMERS > 0
        for (i : 0 .. NAMERS - 1) { run Namer(namersVariable(i)) }
#endif
#if CALLERS > 0
        for (i : 1 .. CALLERS) { run Caller(0) }
#endif
#if ALL > 0
        for (i : 1 .. ALL) { run AllCloser() }
#endif
        i = 0
    };
    /* Every thread of the application gets out of the library. */
    threadsOut == THREADS
}
