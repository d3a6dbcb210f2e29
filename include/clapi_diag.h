/*
 * clapi_diag.h - the trace: one line per event, written to one destination per process.
 *
 * A module's trace points stand in its catalogue, src/trace_points/<module>.h. In the code a
 * trace line is one statement:
 *
 *     TRACE(at::notFound, gwTokPtr, findRc);
 *     TRACE_DATA(at::sending, dumpOf(area, length), area, length, STOPWORD);
 *
 * The level is tested before any lock, the arguments are evaluated before the trace lock is
 * taken, the compiler holds them against the text, and errno is left as it was.
 *
 * Locks: TRACE and TRACE_DATA take traceLock, the innermost lock, and nothing that traces may be
 * called while it is held. TRACE_UNLOCKED takes none of the library's locks; it is for the lock
 * module and the one-time initialisation only. Below all of them a leaf of the trace's own keeps a
 * line with its dump whole, and every line off a destination that is being changed.
 */
#ifndef CLAPI_DIAG_H
#define CLAPI_DIAG_H

#include <sys/types.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "clapi_lock.h"

typedef pid_t ProcessId;
typedef pthread_t ThreadId;

/* ---- Trace points ---- */

/* The levels at which lines begin to be written. */
constexpr int TRACE_OFF = 0;
constexpr int TRACE_EXCEPTIONS = 1;
constexpr int TRACE_EVENTS = 2;
constexpr int TRACE_CALLS = 3;
constexpr int TRACE_VALUES = 4;
constexpr int TRACE_MAX = 5;

/* One place in the code that writes a trace line. */
struct TracePoint {
    int number;
    const char* type;
    int level;
    const char* text;

    constexpr TracePoint fromLevel(int newLevel) const
    {
        return TracePoint{number, type, newLevel, text};
    }
};

constexpr TracePoint tpEntry(int number, const char* text)
{
    return TracePoint{number, "ENTRY", TRACE_CALLS, text};
}
constexpr TracePoint tpExit(int number, const char* text)
{
    return TracePoint{number, "EXIT", TRACE_CALLS, text};
}
constexpr TracePoint tpExc(int number, const char* text)
{
    return TracePoint{number, "*EXC*", TRACE_EXCEPTIONS, text};
}
constexpr TracePoint tpEvent(int number, const char* text)
{
    return TracePoint{number, "EVENT", TRACE_EVENTS, text};
}
constexpr TracePoint tpDebug(int number, const char* text)
{
    return TracePoint{number, "DEBUG", TRACE_VALUES, text};
}
constexpr TracePoint tpData(int number, const char* text)
{
    return TracePoint{number, "DATA", TRACE_VALUES, text};
}

/* ---- Settings and scratch ---- */

/* Room for the destination's name and its terminator. */
constexpr size_t TRACE_FILENAME_SIZE = 1024;

/* What leaves at once: a line with its dump, or so much of it. */
constexpr size_t TRACE_PIECE_SIZE = 65536;

/* Adjacent character arrays that together read as the format of one trace line. */
typedef struct _formatString {
    char timeStamp[3]; // "%s ", no terminator
    char pidTid[18];   // "[0x%8.8X,0x%8.8X] "
    char tpid[8];      // "[%4.4d] "
    char traceType[7]; // "%-6.6s "
    char msg[256];     // the message format of the line being written
} formatStringType;

extern Clapilock traceLock;
// The trace level; changed under traceLock. Looked at everywhere, and so without a detour.
__attribute__((visibility("hidden"))) extern std::atomic<int> clientAPITrace;
extern FILE* clientAPITraceHandle;   // changed under traceLock, as all that follow
extern char* clientAPITraceFilename; // TraceDestination gives a copy
extern const char* const defaultTraceFilename;
extern int traceHeaderWrite;
extern std::atomic<size_t> clientAPIDataTrunc;
extern std::atomic<size_t> clientAPIDataOffset;
extern formatStringType traceFmtStr GUARDED_BY(traceLock);
extern char timeStamp[24] GUARDED_BY(traceLock);
extern char dateBuf[10] GUARDED_BY(traceLock);
extern ProcessId tracePid;
extern ThreadId traceTid;
extern int iTid;

/* The versions and the build level that the banner shows. */
#define QPX_API_VERSION_TEXT "2.3.0.0"
#define QPX_DLL_VERSION_TEXT "10.1.0.0"
#define QPX_BUILD_LEVEL_TEXT "d1010-20240618-1931"

/* Sets the trace to standard error and makes its lock: 0, QPX_ERR_SYSTEM_ERROR or
 * QPX_ERR_MALLOCFAIL. */
int clapiInitTrace(void);

void clapiGetTimestamp(char* MsgBuf);               // local time with milliseconds, 22 bytes
void clapiGetDate(char* msgBuf);                    // local date, 9 bytes
void clapiGetPidTid(ProcessId* Pid, ThreadId* Tid); // a NULL pointer is skipped
int clapiCompareTids(ThreadId tid1, ThreadId tid2); // 1 if equal

/* Writes the two banner lines. Locks: traceLock held. */
void clapiWriteTraceBanner(void) NEEDS_LOCK(traceLock);

/* What came of a change of the destination. */
struct TraceSwitch {
    int openErrno; // 0 unless a file was named that cannot be opened; the destination is as before
    bool switched;
};

/* Makes a named file the destination, or standard error for a null name, closes a file that was it,
 * and writes the banner if that is due. Locks: traceLock held. */
TraceSwitch clapiSwitchTrace(const char* name) NEEDS_LOCK(traceLock);

/* The destination's name at the moment, for a trace line. */
class TraceDestination {
public:
    TraceDestination();
    const char* name() const { return text; }

private:
    char text[TRACE_FILENAME_SIZE];
};

/* How the child of a fork knows the local time: by asking the C library for it, or by the offset
 * from UTC that it had at the fork. */
struct ForkClock {
    bool asks;
    int64_t offset; // in seconds
};

/*
 * The clock for a child, if the trace has that level at the fork. One of a process with a trace and
 * several threads does not ask: the lock behind local time may be one that another thread holds at
 * the fork. Where it is looked up, that may wait for other threads and for a file. Locks: none
 * taken, and none held.
 */
ForkClock clapiClockForFork(int level);

/*
 * For a fork: between the first and one of the others no other thread is inside a line or changes
 * the trace, and both processes find the locks of the trace free afterwards. Locks: the first takes
 * traceLock, so everything else that is held over a fork is taken before. It returns false, with
 * the locks held, if the clock was made for a trace that was off and is on by now: the child may
 * wait for ever then.
 */
bool clapiTraceForkPrepare(const ForkClock& clock);
void clapiTraceForkParent(void);
void clapiTraceForkChild(void);

/* The rule that frames a dump of the library's records. */
#define TRACE_RULE_OF_40 "----------------------------------------"
#define TRACE_DUMP_RULE  TRACE_RULE_OF_40 TRACE_RULE_OF_40 "\n"

/* ---- Data dumps ---- */

/* Every dump of the library: no stop word, 16 bytes a line, characters shown. */
constexpr unsigned int STOPWORD = 0;
constexpr int DUMP_WIDTH = 16;
constexpr int DUMP_TRANSLATE = 1;

/*
 * Writes a block as lines of hexadecimal digits and characters and returns the bytes dumped: none
 * of a block that is not longer than the data offset. With a dataLen of 0 the dump ends at the
 * first aligned word that equals stopWord. Locks: traceLock held.
 */
size_t clapiTraceOutStorage(void* startAddr, size_t dataLen, unsigned int stopWord, int width,
                            int translate);

/* Each writes one line, or part of one, of at most width bytes and returns how many it wrote. */
size_t clapiWriteStorageLineDual(void* startAddr, int width, size_t dataLen, unsigned int stopWord,
                                 int translate);
size_t clapiWriteStorageLineHex(void* startAddr, int width, size_t dataLen, unsigned int stopWord);
size_t clapiWriteStorageLineChar(void* startAddr, int width, size_t dataLen, unsigned int stopWord,
                                 int translate);

/* What a DATA line dumps: the bytes, and the address that the dump shows for them. */
struct DumpBlock {
    const void* bytes;
    size_t length;
    const void* shownAt;
};

constexpr DumpBlock dumpOf(const void* bytes, size_t length)
{
    return DumpBlock{bytes, length, bytes};
}

/* The dump of a copy, shown under the address of its original. */
constexpr DumpBlock dumpOfCopy(const void* copy, size_t length, const void* original)
{
    return DumpBlock{copy, length, original};
}

/* ---- Arguments of trace lines ---- */

/* A text to trace; a null one shows as "NULL". */
inline const char* traceText(const char* text)
{
    return text != nullptr ? text : "NULL";
}

/* A size or a descriptor for %lu. */
inline unsigned long traceSize(size_t size)
{
    return static_cast<unsigned long>(size);
}
inline unsigned long traceSocket(int socketDescriptor)
{
    return static_cast<unsigned long>(socketDescriptor);
}

/* Room for the text of an errno value, and the text. */
typedef char ErrorText[128];
inline const char* traceError(int error, ErrorText& text)
{
    return strerror_r(error, text, sizeof text);
}

inline int traceInt(size_t size)
{
    return static_cast<int>(size);
}

/* ---- Writing lines ---- */

/* The trace lock for a scope; errno comes out as it went in. */
class HOLDS_A_LOCK TraceHold {
public:
    TraceHold() ACQUIRES(traceLock) : errnoBefore(errno), isHeld(clapiRequestLock(&traceLock) == 0)
    {
    }
    ~TraceHold() RELEASES()
    {
        if (isHeld) clapiReleaseLock(&traceLock);
        errno = errnoBefore;
    }
    TraceHold(const TraceHold&) = delete;
    TraceHold& operator=(const TraceHold&) = delete;

    bool held() const { return isHeld; }

private:
    int errnoBefore;
    bool isHeld;
};

inline bool clapiTraces(const TracePoint& point)
{
    return __builtin_expect(clientAPITrace.load(std::memory_order_relaxed) >= point.level, 0) != 0;
}

/* Only seen by the compiler, which checks the arguments against the text. */
__attribute__((format(printf, 1, 2))) inline void clapiCheckFormat(const char*, ...) {}

/* Writes to the destination without the line prefix. Locks: traceLock held. */
__attribute__((format(printf, 1, 2))) void clapiTracePrint(const char* format, ...)
    NEEDS_LOCK(traceLock);

/* The same of a text as it stands, of whatever length, for which no memory is needed. */
void clapiTraceText(const char* text) NEEDS_LOCK(traceLock);

/* What stands in front of a line's message. */
struct LinePrefix {
    const char* stamp;
    unsigned int pid;
    unsigned int tid;
    int number;
    const char* type;
};

/* Writes a line, and behind it the dump of a block, unless that is null or empty, as a whole. */
__attribute__((format(printf, 3, 4))) void
clapiWriteLine(const DumpBlock* block, const LinePrefix& prefix, const char* message, ...);

/* Fills the shared scratch for a line and returns its prefix, whose stamp stands there. Locks:
 * traceLock held. */
LinePrefix clapiPrepareLine(const TracePoint& point) NEEDS_LOCK(traceLock);

/* The scratch of a line that is written without traceLock. */
struct UnlockedLine {
    explicit UnlockedLine(const TracePoint& point);

    formatStringType format;
    char stamp[sizeof timeStamp];
    LinePrefix prefix;
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

/* The functions of lines are kept away from the code that would write them: nearly always it
 * does not. */

template <typename... Args>
[[gnu::cold, gnu::noinline]] void clapiTraceUnlocked(const TracePoint& point, Args... args)
{
    int errnoBefore = errno;
    UnlockedLine line(point);
    clapiWriteLine(nullptr, line.prefix, line.format.msg, args...);
    errno = errnoBefore;
}

/* The line, and behind it the dump of a block, if there is one. */
template <typename... Args>
[[gnu::cold]] void clapiTraceWithDump(const TracePoint& point, const DumpBlock* block, Args... args)
{
    TraceHold hold;
    if (!hold.held()) {
        clapiTraceUnlocked(point, args...);
        return;
    }
    LinePrefix prefix = clapiPrepareLine(point);
    clapiWriteLine(block, prefix, traceFmtStr.msg, args...);
}

template <typename... Args>
[[gnu::cold, gnu::noinline]] void clapiTraceLine(const TracePoint& point, Args... args)
{
    clapiTraceWithDump(point, nullptr, args...);
}

template <typename... Args>
[[gnu::cold, gnu::noinline]] void clapiTraceData(const TracePoint& point, const DumpBlock& block,
                                                 Args... args)
{
    clapiTraceWithDump(point, &block, args...);
}

#pragma GCC diagnostic pop

#define TRACE_IF_WANTED(write, point, ...)                        \
    do {                                                          \
        if (clapiTraces(point)) write;                            \
        if (false) clapiCheckFormat((point).text, ##__VA_ARGS__); \
    } while (false)

#define TRACE(point, ...) \
    TRACE_IF_WANTED(clapiTraceLine(point, ##__VA_ARGS__), point, ##__VA_ARGS__)

#define TRACE_UNLOCKED(point, ...) \
    TRACE_IF_WANTED(clapiTraceUnlocked(point, ##__VA_ARGS__), point, ##__VA_ARGS__)

#define TRACE_DATA(point, block, ...) \
    TRACE_IF_WANTED(clapiTraceData(point, block, ##__VA_ARGS__), point, ##__VA_ARGS__)

#endif
