/*
 * The trace facility: time stamps, lines, banner and data dumps. The trace's exported calls and
 * its environment variables are clapi_impl's.
 *
 * A line is made as a whole and leaves as a whole, under destinationLock, a leaf: whoever writes
 * without traceLock meets neither a destination that is being changed nor another line. The lines
 * that are written under traceLock find the shared scratch, and nothing else, guarded by it.
 */
#include "clapi_diag.h"

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/single_threaded.h>
#include <unistd.h>

#include "qpxclient.h"

Clapilock traceLock;
std::atomic<int> clientAPITrace{TRACE_OFF};
FILE* clientAPITraceHandle = nullptr;
char* clientAPITraceFilename = nullptr;
const char* const defaultTraceFilename = "stderr";
int traceHeaderWrite = 0;
std::atomic<size_t> clientAPIDataTrunc{128};
std::atomic<size_t> clientAPIDataOffset{0};
formatStringType traceFmtStr;
char timeStamp[24];
char dateBuf[10];
ProcessId tracePid;
ThreadId traceTid;
int iTid;

/* The constant fields of a line's format, as they follow one another in formatStringType. */
static const char LINE_PREFIX[] = "%s [0x%8.8X,0x%8.8X] [%4.4d] %-6.6s ";
static_assert(sizeof LINE_PREFIX - 1 == offsetof(formatStringType, msg),
              "the line format's fields must be adjacent");

/* The same as it reads in a line, but for the message. */
struct PrefixText {
    char stamp[21];
    char beforePid[4] = {' ', '[', '0', 'x'};
    char pid[8];
    char beforeTid[3] = {',', '0', 'x'};
    char tid[8];
    char beforeNumber[3] = {']', ' ', '['};
    char number[4]; // no trace point has more digits
    char beforeType[2] = {']', ' '};
    char type[7] = {' ', ' ', ' ', ' ', ' ', ' ', ' '};
};

/* ---- Time, process and thread ---- */

/* The part of a time stamp in front of its milliseconds, "dd/mm/yy hh:mm:ss:", and its date. */
constexpr size_t DATE_LENGTH = 8;
constexpr size_t SECONDS_LENGTH = 18;
constexpr size_t MILLISECOND_DIGITS = 3;

constexpr int64_t SECONDS_PER_DAY = 86400;
constexpr int64_t DAYS_PER_YEAR = 365;
constexpr int64_t DAYS_PER_CENTURY = 100 * DAYS_PER_YEAR + 24;
constexpr int64_t DAYS_PER_ERA = 4 * DAYS_PER_CENTURY + 1; // in which the calendar repeats itself

/* The clock of this process. Written in the child of a fork, before it has a second thread. */
static ForkClock ownClock = {true, 0};

namespace {

struct CivilDate {
    int64_t year;
    int64_t month; // from 1 on
    int64_t day;
};

} // namespace

static int64_t dividedDown(int64_t number, int64_t divisor)
{
    return number / divisor - (number % divisor < 0 ? 1 : 0);
}

/* The date of a day of the Gregorian calendar, counted from 1 January 1970. Years begin in March
 * here, so that a leap day is the last of its year, and eras with the year 0 of their 400. */
static CivilDate dateOfDay(int64_t day)
{
    constexpr int64_t FIRST_OF_ERA = -719468; // 1 March of the year 0
    int64_t era = dividedDown(day - FIRST_OF_ERA, DAYS_PER_ERA);
    int64_t dayOfEra = day - FIRST_OF_ERA - era * DAYS_PER_ERA;
    // Without the leap days, of which the last of a century and of four years ends its year.
    int64_t yearOfEra = (dayOfEra - dayOfEra / (4 * DAYS_PER_YEAR) + dayOfEra / DAYS_PER_CENTURY -
                         dayOfEra / (DAYS_PER_ERA - 1)) /
                        DAYS_PER_YEAR;
    int64_t dayOfYear = dayOfEra - (DAYS_PER_YEAR * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    // Five months in a row have 153 days, wherever in the year.
    int64_t monthOfYear = (5 * dayOfYear + 2) / 153;
    int64_t dayOfMonth = dayOfYear - (153 * monthOfYear + 2) / 5 + 1;
    bool isNextYear = monthOfYear >= 10; // January and February
    return CivilDate{400 * era + yearOfEra + (isNextYear ? 1 : 0),
                     monthOfYear + (isNextYear ? -9 : 3), dayOfMonth};
}

/* The fields of a time stamp, as localtime_r gives them, of a time that is offset from UTC. */
static tm brokenDown(int64_t seconds, int64_t offset)
{
    int64_t day = dividedDown(seconds, SECONDS_PER_DAY);
    int64_t secondOfDay = seconds - day * SECONDS_PER_DAY + offset;
    int64_t shift = dividedDown(secondOfDay, SECONDS_PER_DAY);
    secondOfDay -= shift * SECONDS_PER_DAY;
    CivilDate date = dateOfDay(day + shift);
    tm local = {};
    local.tm_year = static_cast<int>(date.year - 1900);
    local.tm_mon = static_cast<int>(date.month - 1);
    local.tm_mday = static_cast<int>(date.day);
    local.tm_hour = static_cast<int>(secondOfDay / 3600);
    local.tm_min = static_cast<int>(secondOfDay / 60 % 60);
    local.tm_sec = static_cast<int>(secondOfDay % 60);
    return local;
}

static tm localTime(const timespec& now)
{
    if (!ownClock.asks) return brokenDown(now.tv_sec, ownClock.offset);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    return local;
}

static int64_t secondOfDay(const tm& time)
{
    return (time.tm_hour * 60 + time.tm_min) * 60 + time.tm_sec;
}

/* Zones that count leap seconds have them in the fields, and not in the offset. */
static int64_t offsetOf(const timespec& now)
{
    constexpr int64_t HALF_DAY = SECONDS_PER_DAY / 2;
    tm local = localTime(now);
    int64_t rest = secondOfDay(local) - secondOfDay(brokenDown(now.tv_sec, local.tm_gmtoff));
    if (rest > HALF_DAY) rest -= SECONDS_PER_DAY;
    if (rest < -HALF_DAY) rest += SECONDS_PER_DAY;
    return local.tm_gmtoff + rest;
}

/* Where nothing is traced nothing is looked up, and a thread that is alone has nobody inside the C
 * library. */
static bool childMayAsk(int level)
{
    return level == TRACE_OFF || __libc_single_threaded != 0;
}

ForkClock clapiClockForFork(int level)
{
    if (!ownClock.asks) return ownClock; // a child itself
    if (childMayAsk(level)) return ForkClock{true, 0};
    int before = errno;
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    ForkClock clock = {false, offsetOf(now)};
    errno = before;
    return clock;
}

/* Writes the last digits of a number, as many as there is room for, in front of end. */
static void putDigits(char* begin, char* end, unsigned int number, unsigned int base)
{
    while (end != begin) {
        end -= 1;
        *end = "0123456789ABCDEF"[number % base];
        number /= base;
    }
}

static void putTwoDigits(char* begin, int number)
{
    putDigits(begin, begin + 2, static_cast<unsigned int>(number), 10);
}

/* Three numbers of two digits with something in between, as strftime writes them in any locale,
 * which may ask for the time zone, too. */
static void putTriple(char* begin, char between, int first, int second, int third)
{
    putTwoDigits(begin, first);
    begin[2] = between;
    putTwoDigits(begin + 3, second);
    begin[5] = between;
    putTwoDigits(begin + 6, third);
}

static void putDate(char* begin, const tm& local)
{
    int year = static_cast<int>(local.tm_year % 100);
    putTriple(begin, '/', local.tm_mday, local.tm_mon + 1, year < 0 ? year + 100 : year);
}

static void putSeconds(char* stamp, const timespec& now)
{
    tm local = localTime(now);
    putDate(stamp, local);
    stamp[DATE_LENGTH] = ' ';
    putTriple(stamp + DATE_LENGTH + 1, ':', local.tm_hour, local.tm_min, local.tm_sec);
    stamp[SECONDS_LENGTH - 1] = ':';
}

static void putMilliseconds(char* stamp, const timespec& now)
{
    char* begin = stamp + SECONDS_LENGTH;
    char* end = begin + MILLISECOND_DIGITS;
    putDigits(begin, end, static_cast<unsigned int>(now.tv_nsec / 1000000), 10);
    *end = '\0';
}

void clapiGetTimestamp(char* MsgBuf)
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    putSeconds(MsgBuf, now);
    putMilliseconds(MsgBuf, now);
}

/* As clapiGetTimestamp for the line's own stamp, whose seconds are made anew only once they have
 * passed, or the time zone is another. Locks: traceLock held. */
static void stampLine() NEEDS_LOCK(traceLock)
{
    static time_t stampedSecond = -1;
    static long stampedZone;

    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != stampedSecond || timezone != stampedZone) {
        putSeconds(timeStamp, now);
        stampedSecond = now.tv_sec;
        stampedZone = timezone;
    }
    putMilliseconds(timeStamp, now);
}

void clapiGetDate(char* msgBuf)
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    putDate(msgBuf, localTime(now));
    msgBuf[DATE_LENGTH] = '\0';
}

/*
 * The id of this process, on a page that a fork of any kind empties in the child: to ask for it
 * costs as much as all else in a line of the trace. Null where there is no such page.
 */
static std::atomic<ProcessId>* keptPid = nullptr;

static void providePid()
{
    if (keptPid != nullptr) return;
    size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    // cppcheck-suppress invalidFunctionArg ; -1 stands for no file
    void* page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) return;
    if (madvise(page, size, MADV_WIPEONFORK) == 0)
        keptPid = static_cast<std::atomic<ProcessId>*>(page);
    else
        munmap(page, size);
}

static ProcessId processId()
{
    if (keptPid == nullptr) return getpid();
    ProcessId pid = keptPid->load(std::memory_order_relaxed);
    if (pid == 0) {
        pid = getpid();
        keptPid->store(pid, std::memory_order_relaxed);
    }
    return pid;
}

void clapiGetPidTid(ProcessId* Pid, ThreadId* Tid)
{
    if (Pid != nullptr) *Pid = processId();
    if (Tid != nullptr) *Tid = pthread_self();
}

int clapiCompareTids(ThreadId tid1, ThreadId tid2)
{
    return pthread_equal(tid1, tid2) != 0 ? 1 : 0;
}

/* ---- The way out ---- */

/*
 * Held around each complete line with its dump, and around each change of the destination, its
 * name and traceHeaderWrite. Nothing is traced, and no Clapilock taken, while it is held.
 */
static ProcessLock destinationLock(RANK_DESTINATION);

/* What is on its way out. A line with its dump leaves as one piece unless it is longer than
 * this. */
static char pending[TRACE_PIECE_SIZE] GUARDED_BY(destinationLock);
static size_t pendingSize GUARDED_BY(destinationLock) = 0;

/* What the destination has not taken and has not been told of yet; more than fits into memory, if
 * nobody reads for long. */
static uint64_t lostBytes GUARDED_BY(destinationLock) = 0;
/* Whether what it took last was no line end. */
static bool lineIsOpen GUARDED_BY(destinationLock) = false;

/* How long a destination that is full is waited for, once until it takes something again. */
constexpr timespec FULL_LIMIT = {1, 0};

// In 32 bits the C library's header may turn ppoll into the one with 32-bit time, fortified as it
// is; both read the same here: the seconds, and nothing behind them.
static_assert(FULL_LIMIT.tv_nsec == 0 && FULL_LIMIT.tv_sec <= INT32_MAX,
              "a limit of whole seconds that 32 bits hold");

/* How often a line looks at a stream that another thread has, a millisecond each. The application
 * may have it for lines of its own, or in a call that wants a lock of who writes here. */
constexpr int MOST_MOMENTS = 100;

/* How often it is waited for in a row, if others fill it as soon as there is room. */
constexpr int MOST_WAITS = 100;

/* Room for any line of a dump of the library. */
constexpr size_t DUMP_LINE_ROOM = 512;

/* Takes the stream's own lock, unless another thread keeps it. */
static bool takeStream(FILE* file) NEEDS_LOCK(destinationLock)
{
    if (fileno_unlocked(file) < 0) { // nothing can be written past it
        flockfile(file);
        return true;
    }
    bool isTaken = ftrylockfile(file) == 0;
    for (int moments = 0; !isTaken && moments < MOST_MOMENTS; ++moments) {
        poll(nullptr, 0, 1);
        isTaken = ftrylockfile(file) == 0;
    }
    return isTaken;
}

namespace {

class HOLDS_A_LOCK DestinationHold {
public:
    DestinationHold() ACQUIRES(destinationLock) { clapiTake(&destinationLock); }
    ~DestinationHold() RELEASES() { clapiGiveUp(&destinationLock); }
    DestinationHold(const DestinationHold&) = delete;
    DestinationHold& operator=(const DestinationHold&) = delete;
};

/*
 * What is written to the destination without anything else in between, neither of the library nor
 * of others in this process that write to the same stream, unless one of them keeps it: then it
 * goes past the stream. Locks: destinationLock held.
 */
class Output {
public:
    Output() NEEDS_LOCK(destinationLock)
        : file(clientAPITraceHandle != nullptr ? clientAPITraceHandle : stderr),
          hasStream(takeStream(file))
    {
    }
    ~Output() NEEDS_LOCK(destinationLock)
    {
        putOut();
        if (hasStream) funlockfile(file);
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    __attribute__((format(printf, 2, 3))) void print(const char* format, ...)
        NEEDS_LOCK(destinationLock);
    void printArgs(const char* format, va_list args) NEEDS_LOCK(destinationLock);
    void put(char character) NEEDS_LOCK(destinationLock);
    void putText(const char* text) NEEDS_LOCK(destinationLock);
    void putPrefix(const LinePrefix& prefix) NEEDS_LOCK(destinationLock);
    /* So that so many characters leave as one piece. */
    void makeRoom(size_t room) NEEDS_LOCK(destinationLock);

private:
    void putOut() NEEDS_LOCK(destinationLock);
    void printLong(const char* format, va_list args, size_t length) NEEDS_LOCK(destinationLock);
    void printInPieces(const char* format, va_list args, size_t length) NEEDS_LOCK(destinationLock);
    void write(const char* bytes, size_t length) NEEDS_LOCK(destinationLock);

    FILE* file;
    bool hasStream;
};

} // namespace

/* Whether a destination that cannot be written to without waiting may be tried again. Signals stay
 * out, lest they make the wait a longer one. */
static bool awaitRoom(int descriptor)
{
    pollfd room = {descriptor, POLLOUT, 0};
    sigset_t all;
    sigfillset(&all);
    return ppoll(&room, 1, &FULL_LIMIT, &all) > 0;
}

/* Returns how many of the bytes the destination has taken. */
static size_t writeAll(int descriptor, const char* bytes, size_t length) NEEDS_LOCK(destinationLock)
{
    size_t taken = 0;
    int waits = 0;
    while (taken < length) {
        ssize_t written = write(descriptor, bytes + taken, length - taken);
        if (written > 0) {
            taken += static_cast<size_t>(written);
            waits = 0;
            continue;
        }
        if (written < 0 && errno == EINTR) continue;
        bool isFull = written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
        // One that has been waited for in vain is tried once a line only.
        if (!isFull || lostBytes != 0 || waits == MOST_WAITS || !awaitRoom(descriptor)) break;
        waits += 1;
    }
    if (taken != 0) lineIsOpen = bytes[taken - 1] != '\n';
    return taken;
}

/* Tells a destination that takes bytes again how many are missing; false if it takes none. */
static bool tellOfLoss(int descriptor) NEEDS_LOCK(destinationLock)
{
    char text[80];
    int length = snprintf(text, sizeof text, "%s*** %" PRIu64 " bytes of trace lost ***\n",
                          lineIsOpen ? "\n" : "", lostBytes);
    size_t size = static_cast<size_t>(length);
    if (writeAll(descriptor, text, size) != size) return false;
    lostBytes = 0;
    return true;
}

void Output::write(const char* bytes, size_t length)
{
    // What others have left in the stream's buffer comes first.
    if (hasStream) fflush_unlocked(file);
    int descriptor = fileno_unlocked(file);
    if (descriptor < 0 && hasStream) {
        // A stream of the application's making, with nothing but memory behind it.
        fwrite_unlocked(bytes, 1, length, file);
        fflush_unlocked(file);
        return;
    }
    if (lostBytes != 0 && !tellOfLoss(descriptor)) {
        lostBytes += length;
        return;
    }
    lostBytes = length - writeAll(descriptor, bytes, length);
}

void Output::putOut()
{
    if (pendingSize != 0) write(pending, pendingSize);
    pendingSize = 0;
}

void Output::makeRoom(size_t room)
{
    if (sizeof pending - pendingSize < room) putOut();
}

void Output::put(char character)
{
    if (pendingSize == sizeof pending) putOut();
    pending[pendingSize] = character;
    pendingSize += 1;
}

void Output::putText(const char* text)
{
    putOut();
    write(text, strlen(text));
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

/* Without memory it leaves in the C library's own pieces. If one of them does not, nobody knows how
 * many have, and all of it counts as lost. */
void Output::printInPieces(const char* format, va_list args, size_t length)
{
    if (lostBytes == 0) {
        bool hasLeft = hasStream ? vfprintf(file, format, args) >= 0 && fflush_unlocked(file) == 0
                                 : vdprintf(fileno_unlocked(file), format, args) >= 0;
        lineIsOpen = !hasLeft || format[strlen(format) - 1] != '\n';
        if (hasLeft) return;
    }
    lostBytes += length;
}

/* Prints what is too long to wait for the rest. */
void Output::printLong(const char* format, va_list args, size_t length)
{
    putOut();
    char* text = static_cast<char*>(malloc(length + 1));
    if (text == nullptr) {
        printInPieces(format, args, length);
        return;
    }
    static_cast<void>(vsnprintf(text, length + 1, format, args));
    write(text, length);
    free(text);
}

void Output::printArgs(const char* format, va_list args)
{
    va_list again;
    va_copy(again, args);
    size_t room = sizeof pending - pendingSize;
    int printed = vsnprintf(pending + pendingSize, room, format, args);
    size_t length = static_cast<size_t>(std::max(printed, 0));
    if (length < room)
        pendingSize += length;
    else
        printLong(format, again, length);
    va_end(again);
}

#pragma GCC diagnostic pop

void Output::print(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    printArgs(format, args);
    va_end(args);
}

/* ---- The destination ---- */

/* Stores the destination's name, cut to the room there is. Locks: destinationLock held. */
static void setFilename(const char* name) NEEDS_LOCK(destinationLock)
{
    // Without a buffer for it the initialisation has failed, and only failures are traced.
    if (clientAPITraceFilename == nullptr) return;
    size_t length = strnlen(name, TRACE_FILENAME_SIZE - 1);
    memcpy(clientAPITraceFilename, name, length);
    clientAPITraceFilename[length] = '\0';
}

int clapiInitTrace(void)
{
    {
        DestinationHold hold;
        clientAPITraceHandle = stderr;
        providePid();
    }
    int lockRc = clapiInitializeLock(&traceLock);
    // Deliberate: no name is made here, for a lock that exists already is a trace that exists
    // already, name and all; a second one would lose the first.
    if (lockRc == 1) return QPX_OK;
    if (lockRc != 0) return QPX_ERR_SYSTEM_ERROR;
    clapiRankLock(&traceLock, RANK_TRACE);

    DestinationHold hold;
    clientAPITraceFilename = static_cast<char*>(malloc(TRACE_FILENAME_SIZE));
    if (clientAPITraceFilename == nullptr) return QPX_ERR_MALLOCFAIL;
    setFilename(defaultTraceFilename);
    return QPX_OK;
}

TraceDestination::TraceDestination()
{
    DestinationHold hold;
    const char* name = traceText(clientAPITraceFilename);
    memcpy(text, name, strlen(name) + 1);
}

/* The two lines of the banner. Locks: traceLock and destinationLock held. */
static void writeBanner() NEEDS_LOCK(traceLock, destinationLock)
{
    clapiGetDate(dateBuf);
    Output output;
    output.print("*** %s ZAVO Quorvex QPXClient DLL trace V%s API Version %s Build Level %s ***\n",
                 dateBuf, QPX_DLL_VERSION_TEXT, QPX_API_VERSION_TEXT, QPX_BUILD_LEVEL_TEXT);
    output.print("*** Trace Level = %d, Trace File = %s, %d-bit ***\n", clientAPITrace.load(),
                 traceText(clientAPITraceFilename), static_cast<int>(8 * sizeof(void*)));
}

void clapiWriteTraceBanner(void)
{
    DestinationHold hold;
    writeBanner();
}

/* Gives a stream that took the number of a standard one, which was closed, another number. What is
 * written to standard error then does not land in the trace, nor the trace in what is opened as
 * standard output next. Returns null and errno if there is none. */
static FILE* awayFromStandardNumbers(FILE* file)
{
    if (fileno(file) > STDERR_FILENO) return file;

    int descriptor = fcntl(fileno(file), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    FILE* moved = descriptor < 0 ? nullptr : fdopen(descriptor, "ae");
    int error = errno;
    fclose(file); // NOLINT(cert-err33-c): nothing has been written to it
    if (moved == nullptr && descriptor >= 0) close(descriptor);
    errno = error;
    return moved;
}

static FILE* openTraceFile(const char* name)
{
    FILE* file = fopen(name, "ae");
    return file == nullptr ? nullptr : awayFromStandardNumbers(file);
}

/* Makes a stream the destination and returns what the caller has to close of the one before, or
 * null. Locks: traceLock and destinationLock held. */
static FILE* replaceDestination(FILE* file, const char* name) NEEDS_LOCK(traceLock, destinationLock)
{
    FILE* before = clientAPITraceHandle;
    clientAPITraceHandle = file;
    setFilename(name);
    traceHeaderWrite = 0;
    lostBytes = 0;
    lineIsOpen = false;
    return before != stderr ? before : nullptr;
}

/* Locks: destinationLock held. */
static bool traceGoesToFile() NEEDS_LOCK(destinationLock)
{
    return clientAPITraceHandle != nullptr && clientAPITraceHandle != stderr;
}

TraceSwitch clapiSwitchTrace(const char* name)
{
    TraceSwitch result = {0, false};
    FILE* file = nullptr;
    if (name != nullptr) {
        file = openTraceFile(name);
        if (file == nullptr) result.openErrno = errno;
    }
    FILE* before = nullptr;
    {
        DestinationHold hold;
        result.switched = file != nullptr || (name == nullptr && traceGoesToFile());
        if (file != nullptr)
            before = replaceDestination(file, name);
        else if (result.switched)
            before = replaceDestination(stderr, defaultTraceFilename);
        if (clientAPITrace != TRACE_OFF && traceHeaderWrite == 0) {
            writeBanner();
            traceHeaderWrite = 1;
        }
    }
    // Nobody can be writing to it any more.
    // NOLINTNEXTLINE(cert-err33-c): its buffer is empty, and nobody is left to tell
    if (before != nullptr) fclose(before);
    return result;
}

/* ---- Fork ---- */

/* Whether traceLock exists and is held over a fork. */
static bool forkHoldsTraceLock GUARDED_BY(destinationLock) = false;
static ForkClock clockOfChild GUARDED_BY(destinationLock) = {true, 0};

bool clapiTraceForkPrepare(const ForkClock& clock)
    NOT_ANALYSED("whether there is a traceLock is known at run time")
{
    bool holdsTraceLock = clapiIsLockInitialized(&traceLock) == LOCK_INITIALIZED &&
                          clapiTakeForFork(&traceLock) == 0;
    clapiTakeForFork(&destinationLock);
    forkHoldsTraceLock = holdsTraceLock;
    // The level that it is by now counts: the clock may have been made in the middle of the first
    // call, which has a level of its own.
    bool isOff = clientAPITrace == TRACE_OFF;
    clockOfChild = isOff && ownClock.asks ? ForkClock{true, 0} : clock;
    return !clockOfChild.asks || childMayAsk(clientAPITrace);
}

void clapiTraceForkParent(void) NOT_ANALYSED("whether there is a traceLock is known at run time")
{
    bool holdsTraceLock = forkHoldsTraceLock;
    clapiGiveUp(&destinationLock);
    if (holdsTraceLock) clapiGiveUpAfterFork(&traceLock);
}

void clapiTraceForkChild(void) NOT_ANALYSED("whether there is a traceLock is known at run time")
{
    ownClock = clockOfChild;
    clapiTraceForkParent();
}

/* ---- Data dumps ---- */

/* Blanks stand behind every fourth byte of a line, and one more behind every sixteenth. */
constexpr size_t BYTES_PER_GROUP = 4;
constexpr size_t BYTES_PER_COLUMN = 16;

namespace {

/* What a line of a dump shows: the bytes, and how they end. */
struct DumpedBytes {
    const unsigned char* bytes;
    size_t dataLen; // 0: up to the stop word
    unsigned int stopWord;
};

/* How much of its block a dump shows, read once for the whole of it. */
struct DumpLimits {
    DumpLimits() : truncation(clientAPIDataTrunc), offset(clientAPIDataOffset) {}

    size_t truncation;
    size_t offset;
};

} // namespace

/* Whether the block ends before this byte: by its length, or, for one of unknown length, by an
 * aligned word that equals the stop word. */
static bool endsBefore(const DumpedBytes& dumped, size_t position)
{
    if (dumped.dataLen != 0) return position >= dumped.dataLen;
    const unsigned char* byte = dumped.bytes + position;
    if (reinterpret_cast<uintptr_t>(byte) % sizeof dumped.stopWord != 0) return false;
    unsigned int word;
    memcpy(&word, byte, sizeof word);
    return word == dumped.stopWord;
}

static void putHexGap(Output& output, size_t position, size_t width) NEEDS_LOCK(destinationLock)
{
    if (position == width) return;
    if (position % BYTES_PER_GROUP == 0) output.put(' ');
    if (position % BYTES_PER_COLUMN == 0) output.put(' ');
}

static size_t putHexPart(Output& output, const DumpedBytes& dumped, size_t width)
    NEEDS_LOCK(destinationLock)
{
    static const char DIGITS[] = "0123456789ABCDEF";

    size_t written = 0;
    while (written < width && !endsBefore(dumped, written)) {
        output.put(DIGITS[dumped.bytes[written] >> 4]);
        output.put(DIGITS[dumped.bytes[written] & 0x0F]);
        written += 1;
        putHexGap(output, written, width);
    }
    for (size_t position = written; position < width; ++position) {
        output.put(' ');
        output.put(' ');
        putHexGap(output, position + 1, width);
    }
    return written;
}

static size_t putCharPart(Output& output, const DumpedBytes& dumped, size_t width, int translate)
    NEEDS_LOCK(destinationLock)
{
    size_t written = 0;
    while (written < width && !endsBefore(dumped, written)) {
        unsigned char byte = dumped.bytes[written];
        bool shown = translate == 0 || isprint(byte);
        output.put(shown ? static_cast<char>(byte) : '.');
        written += 1;
        if (written % BYTES_PER_COLUMN == 0) output.put(' ');
    }
    return written;
}

static size_t putDualLine(Output& output, const DumpedBytes& dumped, size_t width, int translate)
    NEEDS_LOCK(destinationLock)
{
    size_t written = putHexPart(output, dumped, width);
    output.put(' ');
    output.put(':');
    output.put(' ');
    putCharPart(output, dumped, width, translate);
    output.put('\n');
    return written;
}

size_t clapiWriteStorageLineHex(void* startAddr, int width, size_t dataLen, unsigned int stopWord)
{
    DumpedBytes dumped = {static_cast<const unsigned char*>(startAddr), dataLen, stopWord};
    DestinationHold hold;
    Output output;
    return putHexPart(output, dumped, static_cast<size_t>(width));
}

size_t clapiWriteStorageLineChar(void* startAddr, int width, size_t dataLen, unsigned int stopWord,
                                 int translate)
{
    DumpedBytes dumped = {static_cast<const unsigned char*>(startAddr), dataLen, stopWord};
    DestinationHold hold;
    Output output;
    return putCharPart(output, dumped, static_cast<size_t>(width), translate);
}

size_t clapiWriteStorageLineDual(void* startAddr, int width, size_t dataLen, unsigned int stopWord,
                                 int translate)
{
    DumpedBytes dumped = {static_cast<const unsigned char*>(startAddr), dataLen, stopWord};
    DestinationHold hold;
    Output output;
    return putDualLine(output, dumped, static_cast<size_t>(width), translate);
}

/* How many bytes of a block a dump shows: none of one that is not longer than the offset. */
static size_t shownLength(size_t dataLen, const DumpLimits& limits)
{
    if (dataLen <= limits.offset) return 0;
    size_t length = dataLen - limits.offset;
    return limits.truncation != 0 ? std::min(length, limits.truncation) : length;
}

static void putDumpHead(Output& output, const DumpLimits& limits) NEEDS_LOCK(destinationLock)
{
    output.print("Data truncation size=%lu, offset=%lu\n", traceSize(limits.truncation),
                 traceSize(limits.offset));
}

static void putAddress(Output& output, const void* address) NEEDS_LOCK(destinationLock)
{
    output.makeRoom(DUMP_LINE_ROOM);
    output.print("%p: ", address);
}

/* Dumps what is shown of a block, each line under the address that shownAt gives it. */
static size_t putDump(Output& output, const DumpBlock& block, unsigned int stopWord, size_t width,
                      int translate) NEEDS_LOCK(destinationLock)
{
    DumpLimits limits;
    putDumpHead(output, limits);
    size_t length = shownLength(block.length, limits);
    if (length == 0) return 0;

    const unsigned char* bytes = static_cast<const unsigned char*>(block.bytes) + limits.offset;
    const char* shownAt = static_cast<const char*>(block.shownAt) + limits.offset;
    size_t dumped = 0;
    while (dumped < length) {
        putAddress(output, shownAt + dumped);
        DumpedBytes rest = {bytes + dumped, length - dumped, stopWord};
        dumped += putDualLine(output, rest, width, translate);
    }
    return dumped;
}

/* Dumps up to the stop word. */
static size_t putDumpToStopWord(Output& output, const void* startAddr, unsigned int stopWord,
                                size_t width, int translate) NEEDS_LOCK(destinationLock)
{
    DumpLimits limits;
    putDumpHead(output, limits);
    const unsigned char* bytes = static_cast<const unsigned char*>(startAddr) + limits.offset;
    size_t dumped = 0;
    size_t written = 0;
    do {
        DumpedBytes rest = {bytes + dumped, 0, stopWord};
        if (endsBefore(rest, 0)) break;
        putAddress(output, rest.bytes);
        written = putDualLine(output, rest, width, translate);
        dumped += written;
    } while (written == width);
    return dumped;
}

size_t clapiTraceOutStorage(void* startAddr, size_t dataLen, unsigned int stopWord, int width,
                            int translate)
{
    const size_t columns = static_cast<size_t>(width);
    DestinationHold hold;
    Output output;
    if (dataLen == 0) return putDumpToStopWord(output, startAddr, stopWord, columns, translate);
    return putDump(output, dumpOf(startAddr, dataLen), stopWord, columns, translate);
}

/* ---- Lines ---- */

static void fillFormat(formatStringType* format, const TracePoint& point)
{
    memcpy(static_cast<void*>(format), LINE_PREFIX, sizeof LINE_PREFIX - 1);
    size_t length = strnlen(point.text, sizeof format->msg - 1);
    memcpy(format->msg, point.text, length);
    format->msg[length] = '\0';
}

LinePrefix clapiPrepareLine(const TracePoint& point)
{
    fillFormat(&traceFmtStr, point);
    stampLine();
    clapiGetPidTid(&tracePid, &traceTid);
    iTid = static_cast<int>(traceTid);
    return LinePrefix{timeStamp, static_cast<unsigned int>(tracePid),
                      static_cast<unsigned int>(iTid), point.number, point.type};
}

UnlockedLine::UnlockedLine(const TracePoint& point)
{
    fillFormat(&format, point);
    clapiGetTimestamp(stamp);
    ProcessId process;
    ThreadId thread;
    clapiGetPidTid(&process, &thread);
    prefix = LinePrefix{stamp, static_cast<unsigned int>(process),
                        static_cast<unsigned int>(thread), point.number, point.type};
}

/* What LINE_PREFIX says, put together without the time that reading a format takes. */
void Output::putPrefix(const LinePrefix& prefix)
{
    PrefixText text;
    memcpy(text.stamp, prefix.stamp, sizeof text.stamp);
    putDigits(text.pid, std::end(text.pid), prefix.pid, 16);
    putDigits(text.tid, std::end(text.tid), prefix.tid, 16);
    putDigits(text.number, std::end(text.number), static_cast<unsigned int>(prefix.number), 10);
    memcpy(text.type, prefix.type, strnlen(prefix.type, sizeof text.type - 1)); // and a blank

    makeRoom(sizeof text);
    memcpy(pending + pendingSize, &text, sizeof text);
    pendingSize += sizeof text;
}

void clapiWriteLine(const DumpBlock* block, const LinePrefix& prefix, const char* message, ...)
{
    va_list args;
    va_start(args, message);
    DestinationHold hold;
    Output output;
    output.putPrefix(prefix);
    output.printArgs(message, args);
    if (block != nullptr && block->length != 0)
        putDump(output, *block, STOPWORD, DUMP_WIDTH, DUMP_TRANSLATE);
    va_end(args);
}

void clapiTracePrint(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    DestinationHold hold;
    Output().printArgs(format, args);
    va_end(args);
}

void clapiTraceText(const char* text)
{
    DestinationHold hold;
    Output().putText(text);
}
