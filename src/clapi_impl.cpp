/*
 * The library's frame: its one-time initialisation, versions and state dump, the trace calls and
 * their environment variables, the call for names of return codes, the connection calls, which
 * check their arguments and leave the work on tokens to clapi_gwytok, and the query for the list
 * of systems.
 *
 * Locks: takes traceLock to change trace settings, correlatorLock for the correlator, tableLock
 * and sendLock, never together, for a query.
 */
#include "clapi_impl.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "api_call.h"
#include "clapi_channel.h"
#include "clapi_diag.h"
#include "clapi_gwycon.h"
#include "clapi_gwytok.h"
#include "clapi_rc.h"
#include "clapi_socketcomms.h"
#include "request_steps.h"
#include "trace_points/clapi_impl.h"

int clapiState = 0;
static int clapiInitRc = QPX_OK;
static pthread_once_t initState = PTHREAD_ONCE_INIT;

/* Held by the initialisation and across a fork: a child that is forked meanwhile inherits either
 * nothing of it or the whole. */
static ProcessLock initGuard(RANK_INIT);
static bool initHasRun GUARDED_BY(initGuard) = false;

static char clapiVersion[sizeof QPX_API_VERSION_TEXT];
static char cldllVersion[sizeof QPX_DLL_VERSION_TEXT];

int nextCorrelator = 0;
Clapilock correlatorLock;

/* Longest time-out that a connection call takes, in seconds. */
constexpr int MAX_TIMEOUT = 3600;

/* ---- Trace settings from the environment ---- */

static const char TRACE_LEVEL_VARIABLE[] = "QPX_CLIENT_TRACE_LEVEL";
static const char TRACE_FILE_VARIABLE[] = "QPX_CLIENT_TRACE_FILE";
static const char DATA_LENGTH_VARIABLE[] = "QPX_CLIENT_DATA_LENGTH";
static const char DATA_OFFSET_VARIABLE[] = "QPX_CLIENT_DATA_OFFSET";

static void setTraceLevel(int level)
{
    TraceHold hold;
    clientAPITrace = level;
}

static void clapiSetAPITraceLevelFromEnv()
{
    namespace at = tp::clapiSetAPITraceLevelFromEnv;

    const char* value = secure_getenv(TRACE_LEVEL_VARIABLE);
    if (value == nullptr) return;

    bool isLevel = value[0] >= '0' && value[0] <= '0' + TRACE_MAX && value[1] == '\0';
    if (isLevel) {
        setTraceLevel(value[0] - '0');
        return;
    }
    setTraceLevel(TRACE_EXCEPTIONS);
    TRACE(at::badLevel, value);
    setTraceLevel(TRACE_OFF);
}

static TraceSwitch switchTrace(const char* name)
{
    TraceHold hold;
    return clapiSwitchTrace(name);
}

static void clapiSetAPITraceFileFromEnv()
{
    namespace at = tp::clapiSetAPITraceFileFromEnv;

    const char* name = secure_getenv(TRACE_FILE_VARIABLE);
    // Deliberate: a variable that is set and empty names no destination, so that nothing is
    // switched: not even the banner is written, which tells of a destination.
    if (name != nullptr && name[0] == '\0') return;

    TraceSwitch change = switchTrace(name);
    if (name == nullptr) return;
    if (change.openErrno != 0)
        TRACE(at::failed, name, change.openErrno, TraceDestination().name());
    else
        TRACE(at::switched, TraceDestination().name());
}

/* Whether a variable's value begins with a digit; if so, its number. */
static bool numberFromText(const char* value, size_t* number)
{
    if (value[0] < '0' || value[0] > '9') return false;
    *number = static_cast<size_t>(strtol(value, nullptr, 10));
    return true;
}

static void setDataLength(size_t length)
{
    TraceHold hold;
    clientAPIDataTrunc = length;
}

static void setDataOffset(size_t offset)
{
    TraceHold hold;
    clientAPIDataOffset = offset;
}

static void clapiSetAPITraceParamsFromEnv()
{
    namespace at = tp::clapiSetAPITraceParamsFromEnv;

    TRACE(at::entry);
    size_t number;
    const char* length = secure_getenv(DATA_LENGTH_VARIABLE);
    if (length != nullptr) {
        TRACE(at::length, DATA_LENGTH_VARIABLE, length);
        if (numberFromText(length, &number)) {
            setDataLength(number);
            TRACE(at::lengthSet, traceInt(number));
        }
    }
    const char* offset = secure_getenv(DATA_OFFSET_VARIABLE);
    if (offset != nullptr) {
        TRACE(at::offset, DATA_OFFSET_VARIABLE, offset);
        if (numberFromText(offset, &number)) {
            setDataOffset(number);
            TRACE(at::offsetSet, traceInt(number));
        }
    }
    TRACE(at::exit);
}

/* ---- Initialisation ---- */

/* Makes the locks that the whole process shares, or none of them. */
static int initializeGlobalLocks()
{
    namespace at = tp::clapiInitFunc;

    int rc = clapiInitializeLock(&gtlLock);
    if (rc != 0) {
        TRACE_UNLOCKED(at::noTokenListLock, rc);
        clapiDestroyLock(&traceLock);
        return rc;
    }
    rc = clapiInitializeLock(&chanListLock);
    if (rc != 0) {
        TRACE_UNLOCKED(at::noChannelListLock, rc);
        clapiDestroyLock(&gtlLock);
        clapiDestroyLock(&traceLock);
        return rc;
    }
    rc = clapiInitializeLock(&correlatorLock);
    if (rc != 0) {
        TRACE_UNLOCKED(at::noCorrelatorLock, rc);
        clapiDestroyLock(&chanListLock);
        clapiDestroyLock(&gtlLock);
        clapiDestroyLock(&traceLock);
        return rc;
    }
    clapiRankLock(&gtlLock, RANK_TOKEN_LIST);
    clapiRankLock(&chanListLock, RANK_CHANNEL_LIST);
    clapiRankLock(&correlatorLock, RANK_CORRELATOR);
    return QPX_OK;
}

static int initializeLibrary()
{
    clientAPITrace = TRACE_EXCEPTIONS;
    int rc = clapiInitTrace();
    if (rc != QPX_OK) {
        static_cast<void>(fprintf(
            stderr, "clapi_impl.clapiInitFunc() Init of qpxclient API trace failed rc=%d\n", rc));
        return rc;
    }
    rc = initializeGlobalLocks();
    // Deliberate: after a failure the trace level stays where it shows failures, for every call
    // fails from here on, and its EXIT line would not tell why.
    if (rc != QPX_OK) return rc;

    memcpy(clapiVersion, QPX_API_VERSION_TEXT, sizeof clapiVersion);
    memcpy(cldllVersion, QPX_DLL_VERSION_TEXT, sizeof cldllVersion);
    static_cast<void>(signal(SIGPIPE, SIG_IGN));
    clapiState = 1;
    clientAPITrace = TRACE_OFF;
    return QPX_OK;
}

static void initializeOnce()
{
    clapiInitRc = initializeLibrary();
    // The level comes first, so that the banner goes to the file only when tracing is on.
    clapiSetAPITraceLevelFromEnv();
    clapiSetAPITraceFileFromEnv();
    clapiSetAPITraceParamsFromEnv();
}

/* Where a fork has come between the end of this and the note that pthread_once makes of it, the
 * child's first call comes here again. */
static void clapiInitFunc(void)
{
    clapiTake(&initGuard);
    if (!initHasRun) initializeOnce();
    initHasRun = true;
    clapiGiveUp(&initGuard);
}

int clapiInit(void)
{
    clapiCheckWait(nullptr);
    if (pthread_once(&initState, clapiInitFunc) != 0) return QPX_ERR_SYSTEM_ERROR;
    return clapiInitRc;
}

/* ---- Forks ---- */

/*
 * Every lock that the whole process shares is held across a fork, in the order in which they are
 * taken anywhere, so that the child finds none of them taken by a thread that it does not have, and
 * nothing half changed that they guard. None of these writes a line or needs memory.
 */
static bool takeLocksForFork(const ForkClock& clock)
    NOT_ANALYSED("which locks there are is known at run time")
{
    clapiTakeForFork(&initGuard);
    if (clapiState != 0) { // the locks exist
        clapiTakeForFork(&gtlLock);
        clapiChannelsForkPrepare();
        clapiConnectionsForkPrepare();
        clapiTakeForFork(&correlatorLock);
    }
    return clapiTraceForkPrepare(clock);
}

static void endForkInParent(void) NOT_ANALYSED("which locks there are is known at run time")
{
    clapiTraceForkParent();
    if (clapiState != 0) {
        clapiGiveUpAfterFork(&correlatorLock);
        clapiConnectionsForkParent();
        clapiChannelsForkParent();
        clapiGiveUpAfterFork(&gtlLock);
    }
    clapiGiveUp(&initGuard);
}

/* The C library may wait for the time zone, so that it is asked before the locks are taken. Where
 * that was too early to see that there will be a trace, it is asked once more, trace or not. */
static void prepareFork(void)
{
    if (takeLocksForFork(clapiClockForFork(clientAPITrace))) return;
    endForkInParent();
    takeLocksForFork(clapiClockForFork(TRACE_MAX));
}

/* The connections are the parent's: the child has none of their threads, and forgets them. */
static void endForkInChild(void) NOT_ANALYSED("which locks there are is known at run time")
{
    clapiTraceForkChild();
    if (clapiState != 0) {
        clapiGiveUpAfterFork(&correlatorLock);
        clapiConnectionsForkChild();
        clapiForgetTokens();
        clapiChannelsForkChild();
        clapiGiveUpAfterFork(&gtlLock);
    }
    clapiGiveUp(&initGuard);
}

/* Before any call: the first one may be made by another thread than the one that forks. */
__attribute__((constructor)) static void registerForkHandlers()
{
    pthread_atfork(prepareFork, endForkInParent, endForkInChild);
}

/* ---- Versions, state and correlator ---- */

static int lendAPIVersion(char** apiVersPtr)
{
    namespace at = tp::QPX_getAPIVersion;

    if (apiVersPtr == nullptr) {
        TRACE(at::nullPtr, apiVersPtr);
        return QPX_ERR_NULLPTR;
    }
    *apiVersPtr = clapiVersion;
    return QPX_OK;
}

int QPX_getAPIVersion(char** apiVersPtr)
{
    namespace at = tp::QPX_getAPIVersion;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, apiVersPtr);
    if (rc == QPX_OK) rc = lendAPIVersion(apiVersPtr);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

static int lendDLLVersion(char** dllVersPtr)
{
    namespace at = tp::QPX_getDLLVersion;

    if (dllVersPtr == nullptr) {
        TRACE(at::nullPtr, dllVersPtr);
        return QPX_ERR_NULLPTR;
    }
    *dllVersPtr = cldllVersion;
    return QPX_OK;
}

int QPX_getDLLVersion(char** dllVersPtr)
{
    namespace at = tp::QPX_getDLLVersion;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, dllVersPtr);
    if (rc == QPX_OK) rc = lendDLLVersion(dllVersPtr);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

static void dumpState()
{
    {
        TraceHold hold;
        clapiTracePrint(
            "qpxclient state dump: DLL Version=%s Trace Level=%d clientAPITraceFile=%s\n",
            QPX_DLL_VERSION_TEXT, clientAPITrace.load(), TraceDestination().name());
    }
    clapiDumpGatewayTokens();
    QPX_ECI_dumpChannels();
}

int QPX_dumpState(void)
{
    namespace at = tp::QPX_dumpState;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry);
    if (rc == QPX_OK) dumpState();
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

int getNextCorrelator(void)
{
    namespace at = tp::getNextCorrelator;

    TRACE(at::entry);
    int correlator;
    {
        LockGuard guard(correlatorLock);
        do {
            correlator = nextCorrelator;
            nextCorrelator = static_cast<int>(static_cast<unsigned int>(correlator) + 1u);
        } while (correlator == 0);
    }
    TRACE(at::exit, correlator);
    return correlator;
}

/* ---- Trace calls ---- */

static int tellTraceLevel(int* traceStatePtr)
{
    namespace at = tp::QPX_getAPITraceLevel;

    if (traceStatePtr == nullptr) {
        TRACE(at::nullPtr, traceStatePtr);
        return QPX_ERR_NULLPTR;
    }
    *traceStatePtr = clientAPITrace;
    return QPX_OK;
}

int QPX_getAPITraceLevel(int* traceStatePtr)
{
    namespace at = tp::QPX_getAPITraceLevel;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, traceStatePtr);
    if (rc == QPX_OK) rc = tellTraceLevel(traceStatePtr);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

static int changeTraceLevel(int traceState)
{
    namespace at = tp::QPX_setAPITraceLevel;

    if (traceState < TRACE_OFF || traceState > TRACE_MAX) {
        TRACE(at::badLevel, traceState);
        return QPX_ERR_TRACELEVEL;
    }
    TraceHold hold;
    // Deliberate: traceHeaderWrite stays 0, so that every switch from 0 brings the banner again:
    // until a file has been set, each stretch of lines on standard error says who writes it.
    if (traceHeaderWrite == 0 && clientAPITrace == TRACE_OFF && traceState > TRACE_OFF)
        clapiWriteTraceBanner();
    clientAPITrace = traceState;
    return QPX_OK;
}

int QPX_setAPITraceLevel(int traceState)
{
    namespace at = tp::QPX_setAPITraceLevel;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, traceState, clientAPITrace.load());
    if (rc == QPX_OK) rc = changeTraceLevel(traceState);
    TRACE(at::exit, rc, clapiGetRcString(rc), clientAPITrace.load());
    return rc;
}

static int changeTraceFile(const char* traceFile)
{
    namespace at = tp::QPX_setAPITraceFile;

    TraceSwitch change = switchTrace(traceFile);
    if (change.openErrno != 0) {
        TRACE(at::failed, traceText(traceFile), change.openErrno, TraceDestination().name());
        return QPX_ERR_TRACEFILE;
    }
    if (change.switched)
        TRACE(at::switched, TraceDestination().name());
    else
        TRACE(at::unchanged, TraceDestination().name());
    return QPX_OK;
}

int QPX_setAPITraceFile(char* traceFile)
{
    namespace at = tp::QPX_setAPITraceFile;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, traceText(traceFile), TraceDestination().name());
    if (rc == QPX_OK) rc = changeTraceFile(traceFile);
    TRACE(at::exit, rc, clapiGetRcString(rc), TraceDestination().name());
    return rc;
}

void QPX_setAPITraceDataLength(size_t dataLength)
{
    namespace at = tp::QPX_setAPITraceDataLength;

    ApiCall apiCall;
    clapiInit();
    TRACE(at::entry, traceSize(dataLength));
    size_t before = clientAPIDataTrunc;
    setDataLength(dataLength);
    TRACE(at::changed, traceSize(before), traceSize(dataLength));
    TRACE(at::exit);
}

void QPX_setAPITraceDataOffset(size_t dataOffset)
{
    namespace at = tp::QPX_setAPITraceDataOffset;

    ApiCall apiCall;
    clapiInit();
    TRACE(at::entry, traceSize(dataOffset));
    size_t before = clientAPIDataOffset;
    setDataOffset(dataOffset);
    TRACE(at::changed, traceSize(before), traceSize(dataOffset));
    TRACE(at::exit);
}

/* ---- Names of return codes ---- */

char* QPX_getRcString(int rc, char* rcString)
{
    namespace at = tp::QPX_getRcString;

    ApiCall apiCall;
    TRACE(at::entry, rc, rcString);
    if (rcString != nullptr) strncpy(rcString, clapiGetRcString(rc), QPX_RC_STRING_SIZE);
    TRACE(at::exit, traceText(rcString));
    return rcString;
}

/* ---- Opening connections ---- */

/* An applid that an environment variable may give, with room to see that it is too long. */
struct ApplidFromEnv {
    explicit ApplidFromEnv(const char* variable) : isSet(false), text()
    {
        const char* value = secure_getenv(variable);
        if (value == nullptr) return;
        isSet = true;
        memcpy(text, value, strnlen(value, sizeof text - 1));
    }

    char* orElse(char* argument) { return isSet ? text : argument; }

    bool isSet;
    char text[17];
};

static int checkOpenArguments(char* hostname, int port, QPX_ConnToken_t* gwTokPtr, int connTimeout,
                              char* applid, char* applidQualifier)
{
    namespace at = tp::QPX_openRemoteGatewayConnectionApplid;

    if (port < 1 || port > 65535) {
        TRACE(at::badPort, port);
        return QPX_ERR_BADPORT;
    }
    if (gwTokPtr == nullptr) {
        TRACE(at::nullTokPtr, gwTokPtr);
        return QPX_ERR_NULLGWTOKPTR;
    }
    if (connTimeout < 0 || connTimeout > MAX_TIMEOUT) {
        TRACE(at::badTimeout, connTimeout);
        return QPX_ERR_INVALIDTIMEOUTPARM;
    }
    if (hostname == nullptr) {
        TRACE(at::nullHost, hostname);
        return QPX_ERR_NULLADDRESS;
    }
    if (applid == nullptr) {
        TRACE(at::nullApplid, applid);
        return QPX_ERR_NULLPARM;
    }
    if (applidQualifier == nullptr) {
        TRACE(at::nullQualifier, applidQualifier);
        return QPX_ERR_NULLPARM;
    }
    return QPX_OK;
}

static int openConnection(char* hostname, int port, QPX_ConnToken_t* gwTokPtr, int connTimeout,
                          char* applid, char* applidQualifier)
{
    namespace at = tp::QPX_openRemoteGatewayConnectionApplid;

    int rc = checkOpenArguments(hostname, port, gwTokPtr, connTimeout, applid, applidQualifier);
    if (rc != QPX_OK) return rc;

    ApplidFromEnv applidEnv("QPX_APPLID");
    ApplidFromEnv qualifierEnv("QPX_APPLIDQUALIFIER");
    TRACE(at::environment, applidEnv.text, qualifierEnv.text);
    char* usedApplid = applidEnv.orElse(applid);
    char* usedQualifier = qualifierEnv.orElse(applidQualifier);

    // Deliberate: this failure shows in the EXIT line only, whose code has no other cause.
    if (strlen(usedApplid) > APPLID_SIZE || strlen(usedQualifier) > APPLID_SIZE)
        return QPX_ERR_APPLIDTOOLONG;

    return clapiCreateGatewayToken(gwTokPtr, hostname, port, connTimeout, usedApplid,
                                   usedQualifier);
}

int QPX_openRemoteGatewayConnectionApplid(char* hostname, int port, QPX_ConnToken_t* gwTokPtr,
                                          int connTimeout, char* applid, char* applidQualifier)
{
    namespace at = tp::QPX_openRemoteGatewayConnectionApplid;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, traceText(hostname), port, gwTokPtr, connTimeout, traceText(applid),
          traceText(applidQualifier));
    if (rc == QPX_OK)
        rc = openConnection(hostname, port, gwTokPtr, connTimeout, applid, applidQualifier);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

int QPX_openRemoteGatewayConnection(char* hostname, int port, QPX_ConnToken_t* gwTokPtr,
                                    int connTimeout)
{
    ApiCall apiCall;
    char none[] = "";
    return QPX_openRemoteGatewayConnectionApplid(hostname, port, gwTokPtr, connTimeout, none, none);
}

/* ---- Closing connections ---- */

static int closeConnection(QPX_ConnToken_t* gwTokPtr)
{
    namespace at = tp::QPX_closeGatewayConnection;

    if (gwTokPtr == nullptr) {
        TRACE(at::nullTokPtr, gwTokPtr);
        return QPX_ERR_NULLGWTOKPTR;
    }
    _QPX_ConnToken_t* token = clapiReadToken(gwTokPtr);
    if (token == nullptr) {
        TRACE(at::nullToken, token);
        return QPX_ERR_NULLGWTOK;
    }

    int rc = clapiCloseGatewayToken(token, LOCK_REQUIRED);
    if (rc != QPX_OK) return rc;
    rc = clapiDeleteClosingToken(gwTokPtr, token, WAIT_WITHOUT_LIMIT);
    TRACE(at::closed, gwTokPtr);
    return rc;
}

int QPX_closeGatewayConnection(QPX_ConnToken_t* gwTokPtr)
{
    namespace at = tp::QPX_closeGatewayConnection;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, gwTokPtr);
    if (rc == QPX_OK) rc = closeConnection(gwTokPtr);
    TRACE(at::exit, gwTokPtr, rc, clapiGetRcString(rc));
    return rc;
}

static int purgeConnection(QPX_ConnToken_t* gwTokPtr, int closeTimeout)
{
    namespace at = tp::QPX_purgeGatewayConnection;

    if (gwTokPtr == nullptr) {
        TRACE(at::nullTokPtr, gwTokPtr);
        return QPX_ERR_NULLGWTOKPTR;
    }
    _QPX_ConnToken_t* token = clapiReadToken(gwTokPtr);
    if (token == nullptr) {
        TRACE(at::nullToken, token);
        return QPX_ERR_NULLGWTOK;
    }
    if (closeTimeout < 0 || closeTimeout > MAX_TIMEOUT) {
        TRACE(at::badTimeout, closeTimeout);
        return QPX_ERR_INVALIDTIMEOUTPARM;
    }

    int rc = clapiCloseGatewayToken(token, LOCK_REQUIRED);
    if (rc != QPX_OK) return rc;
    rc = clapiDeleteClosingToken(gwTokPtr, token, closeTimeout);
    TRACE(at::closed, gwTokPtr);
    return rc;
}

int QPX_purgeGatewayConnection(QPX_ConnToken_t* gwTokPtr, int closeTimeout)
{
    namespace at = tp::QPX_purgeGatewayConnection;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, gwTokPtr, closeTimeout);
    if (rc == QPX_OK) rc = purgeConnection(gwTokPtr, closeTimeout);
    TRACE(at::exit, gwTokPtr, rc, clapiGetRcString(rc));
    return rc;
}

int QPX_closeAllGatewayConnections(void)
{
    namespace at = tp::QPX_closeAllGatewayConnections;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry);
    if (rc == QPX_OK) {
        rc = clapiDeleteGatewayTokens();
        TRACE(at::closed);
    }
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- Reading a connection's applid ---- */

static int lendApplid(QPX_ConnToken_t gwTok, char** applid)
{
    namespace at = tp::QPX_getApplid;

    if (gwTok == nullptr) {
        TRACE(at::nullToken, gwTok);
        return QPX_ERR_NULLGWTOK;
    }
    if (applid == nullptr) {
        TRACE(at::nullPtr, applid);
        return QPX_ERR_NULLPTR;
    }

    int rc = clapiRegisterRequest(gwTok);
    if (rc != QPX_OK) return rc;

    *applid = gwTok->applid;
    return clapiUnregisterRequest(gwTok);
}

int QPX_getApplid(QPX_ConnToken_t gwTok, char** applid)
{
    namespace at = tp::QPX_getApplid;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, gwTok, applid);
    if (rc == QPX_OK) rc = lendApplid(gwTok, applid);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

static int lendApplidQualifier(QPX_ConnToken_t gwTok, char** applidQualifier)
{
    namespace at = tp::QPX_getApplidQualifier;

    if (gwTok == nullptr) {
        TRACE(at::nullToken, gwTok);
        return QPX_ERR_NULLGWTOK;
    }
    if (applidQualifier == nullptr) {
        TRACE(at::nullPtr, applidQualifier);
        return QPX_ERR_NULLPTR;
    }

    int rc = clapiRegisterRequest(gwTok);
    if (rc != QPX_OK) return rc;

    *applidQualifier = gwTok->applidQualifier;
    return clapiUnregisterRequest(gwTok);
}

int QPX_getApplidQualifier(QPX_ConnToken_t gwTok, char** applidQualifier)
{
    namespace at = tp::QPX_getApplidQualifier;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, gwTok, applidQualifier);
    if (rc == QPX_OK) rc = lendApplidQualifier(gwTok, applidQualifier);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- The list of systems ---- */

namespace {

/* A query on its way, and what the application gave for it. */
struct ListQuery : OutgoingRequest {
    struct Lines {
        static constexpr const TracePoint& noLock = tp::QPX_listSystems::noLock;
        static constexpr const TracePoint& notUnlocked = tp::QPX_listSystems::notUnlocked;
        static constexpr const TracePoint& notArmed = tp::QPX_listSystems::notArmed;
        static constexpr const TracePoint& noLockToBegin = noLock;
        static constexpr const TracePoint& notUnlockedToBegin = notUnlocked;
        static constexpr const TracePoint& noSendLock = tp::QPX_listSystems::noSendLock;
        static constexpr const TracePoint& sendLockStays = tp::QPX_listSystems::sendLockStays;
        static constexpr const TracePoint& noLockToFree = tp::QPX_listSystems::noLockToFree;
        static constexpr const TracePoint& notUnlockedAfterFree =
            tp::QPX_listSystems::notUnlockedAfterFree;
    };

    unsigned short* Systems;
    QPX_listSystem_t* List;
    unsigned short capacity; // entries that List has room for
    ECIRequest body;

    void prepareSlot();
    int build();
    int write(Socket socketDescriptor)
    {
        return clapiFlowECIRequest(socketDescriptor, &header, &body);
    }
    int conclude();
};

} // namespace

/* Tells the receiver where the reply goes. */
void ListQuery::prepareSlot()
{
    slotP->purpose = SYSTEM_LIST_QUERY;
    slotP->eciParms.eci_commarea = reinterpret_cast<char*>(List);
    slotP->replyCapacity = capacity * sizeof(QPX_listSystem_t);
}

int ListQuery::build()
{
    clapiBuildRequestHeader(&header, messageId, ECI_REQUEST_NAME);
    body.callType = WIRE_CALL_LIST_SYSTEMS;
    body.commarea = reinterpret_cast<char*>(List);
    body.server_num = capacity;
    body.xid.format = NO_XID;
    body.qpxCorrelator = getNextCorrelator();
    return QPX_OK;
}

/* Turns blanks behind a name into NULs. Deliberate: a first character that is one stays, so that a
 * name of blanks alone still is one, and not an empty entry. */
static void trimSystemName(QPX_listSystem_t* system)
{
    size_t last = sizeof system->SystemName - 1;
    while (last > 0 && (system->SystemName[last] == ' ' || system->SystemName[last] == '\0')) {
        system->SystemName[last] = '\0';
        last -= 1;
    }
}

/* The outcome of a query that has been waited for; the reply is in the application's list. */
static int listResult(const ListQuery& query)
{
    const RequestSlot* slotP = query.slotP;
    if (slotP->gatewayRc != QPX_OK) return slotP->gatewayRc;

    unsigned short reported = static_cast<unsigned short>(slotP->eciParms.eci_luw_token);
    *query.Systems = reported;
    // The Gateway may report more than there is room for.
    unsigned short listed = std::min(reported, query.capacity);
    for (unsigned short i = 0; i < listed; ++i) trimSystemName(&query.List[i]);
    return slotP->vornRc;
}

int ListQuery::conclude()
{
    int rc = listResult(*this);
    // Deliberate: a failure here takes the place of whatever the Gateway said. Codes of the Gateway
    // say that there are more systems, or none; a table that fails is worse news than both.
    return firstFailure(releaseRequestSlot(this), rc);
}

static int checkListQuery(const ListQuery& query)
{
    namespace at = tp::QPX_listSystems;

    if (query.gwTok->closedown != 0) return QPX_ERR_GWTOK_CLOSED;
    if (query.Systems == nullptr) {
        TRACE(at::nullSystems, query.Systems);
        return QPX_ERR_NULLPTR;
    }
    if (query.List == nullptr) {
        TRACE(at::nullList, query.List);
        return QPX_ERR_NULLPTR;
    }
    return QPX_OK;
}

static int listSystems(ListQuery* query)
{
    namespace at = tp::QPX_listSystems;

    if (query->gwTok == nullptr) {
        TRACE(at::nullToken, query->gwTok);
        return QPX_ERR_NULLGWTOK;
    }
    int rc = clapiRegisterRequest(query->gwTok);
    if (rc != QPX_OK) return rc;

    rc = checkListQuery(*query);
    if (rc == QPX_OK) {
        query->capacity = *query->Systems;
        rc = performRequest(query);
    }
    if (clapiUnregisterRequest(query->gwTok) != QPX_OK) {
        TRACE(at::notUnregistered);
        rc = firstFailure(rc, QPX_ERR_SYSTEM_ERROR);
    }
    return rc;
}

int QPX_listSystems(QPX_ConnToken_t gwTok, unsigned short* Systems, QPX_listSystem_t* List)
{
    namespace at = tp::QPX_listSystems;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, gwTok, Systems, List);
    ListQuery query = {};
    query.gwTok = gwTok;
    query.Systems = Systems;
    query.List = List;
    if (rc == QPX_OK) rc = listSystems(&query);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}
