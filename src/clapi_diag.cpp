/*
 * The trace facility: time stamps, lines, banner and data dumps. The trace's exported calls and
 * its environment variables are clapi_impl's.
 *
 * Everything here that writes is called with traceLock held, but for UnlockedLine.
 */
#include "clapi_diag.h"

#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

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

int clapiInitTrace(void)
{
    clientAPITraceHandle = stderr;

    int lockRc = clapiInitializeLock(&traceLock);
    // Deliberate: a lock that exists already is a trace that exists already, name and all.
    if (lockRc == 1) return QPX_OK;
    if (lockRc != 0) return QPX_ERR_SYSTEM_ERROR;

    clientAPITraceFilename = static_cast<char*>(malloc(TRACE_FILENAME_SIZE));
    if (clientAPITraceFilename == nullptr) return QPX_ERR_MALLOCFAIL;
    clapiSetTraceFilename(defaultTraceFilename);
    return QPX_OK;
}

void clapiSetTraceFilename(const char* name)
{
    // Without a buffer for it the initialisation has failed, and only failures are traced.
    if (clientAPITraceFilename == nullptr) return;
    size_t length = strnlen(name, TRACE_FILENAME_SIZE - 1);
    memcpy(clientAPITraceFilename, name, length);
    clientAPITraceFilename[length] = '\0';
}

/* ---- Time, process and thread ---- */

// The year of two digits is the trace's form.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-y2k"

void clapiGetTimestamp(char* MsgBuf)
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    size_t length = strftime(MsgBuf, sizeof timeStamp, "%d/%m/%y %H:%M:%S:", &local);
    snprintf(MsgBuf + length, sizeof timeStamp - length, "%.3d",
             static_cast<int>(now.tv_nsec / 1000000));
}

void clapiGetDate(char* msgBuf)
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    strftime(msgBuf, sizeof dateBuf, "%d/%m/%y", &local);
}

#pragma GCC diagnostic pop

void clapiGetPidTid(ProcessId* Pid, ThreadId* Tid)
{
    if (Pid != nullptr) *Pid = getpid();
    if (Tid != nullptr) *Tid = pthread_self();
}

int clapiCompareTids(ThreadId tid1, ThreadId tid2)
{
    return pthread_equal(tid1, tid2) != 0 ? 1 : 0;
}

/* ---- Lines ---- */

static void fillFormat(formatStringType* format, const TracePoint& point)
{
    memcpy(static_cast<void*>(format), LINE_PREFIX, sizeof LINE_PREFIX - 1);
    size_t length = strnlen(point.text, sizeof format->msg - 1);
    memcpy(format->msg, point.text, length);
    format->msg[length] = '\0';
}

const char* clapiPrepareLine(const TracePoint& point)
{
    fillFormat(&traceFmtStr, point);
    clapiGetTimestamp(timeStamp);
    clapiGetPidTid(&tracePid, &traceTid);
    iTid = static_cast<int>(traceTid);
    return reinterpret_cast<const char*>(&traceFmtStr);
}

UnlockedLine::UnlockedLine(const TracePoint& point)
{
    fillFormat(&formatString, point);
    clapiGetTimestamp(stamp);
    ProcessId process;
    ThreadId thread;
    clapiGetPidTid(&process, &thread);
    pid = static_cast<unsigned int>(process);
    tid = static_cast<unsigned int>(thread);
}

void clapiTracePrint(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vfprintf(clientAPITraceHandle, format, args);
    va_end(args);
    fflush(clientAPITraceHandle);
}

void clapiWriteTraceBanner(void)
{
    clapiGetDate(dateBuf);
    clapiTracePrint(
        "*** %s ZAVO Quorvex QPXClient DLL trace V%s API Version %s Build Level %s ***\n", dateBuf,
        QPX_DLL_VERSION_TEXT, QPX_API_VERSION_TEXT, QPX_BUILD_LEVEL_TEXT);
    clapiTracePrint("*** Trace Level = %d, Trace File = %s, %d-bit ***\n", clientAPITrace.load(),
                    traceText(clientAPITraceFilename), static_cast<int>(8 * sizeof(void*)));
}

/* ---- Data dumps ---- */

/* Blanks stand behind every fourth byte of a line, and one more behind every sixteenth. */
constexpr size_t BYTES_PER_GROUP = 4;
constexpr size_t BYTES_PER_COLUMN = 16;

/* Whether the block ends before this byte: by its length, or, for one of unknown length, by an
 * aligned word that equals the stop word. */
static bool endsBefore(const unsigned char* byte, size_t position, size_t dataLen,
                       unsigned int stopWord)
{
    if (dataLen != 0) return position >= dataLen;
    if (reinterpret_cast<uintptr_t>(byte) % sizeof stopWord != 0) return false;
    unsigned int word;
    memcpy(&word, byte, sizeof word);
    return word == stopWord;
}

static void writeHexGap(size_t position, size_t width)
{
    if (position == width) return;
    if (position % BYTES_PER_GROUP == 0) fputc(' ', clientAPITraceHandle);
    if (position % BYTES_PER_COLUMN == 0) fputc(' ', clientAPITraceHandle);
}

size_t clapiWriteStorageLineHex(void* startAddr, int width, size_t dataLen, unsigned int stopWord)
{
    static const char DIGITS[] = "0123456789ABCDEF";
    const unsigned char* bytes = static_cast<const unsigned char*>(startAddr);
    const size_t columns = static_cast<size_t>(width);

    size_t written = 0;
    while (written < columns && !endsBefore(bytes + written, written, dataLen, stopWord)) {
        fputc(DIGITS[bytes[written] >> 4], clientAPITraceHandle);
        fputc(DIGITS[bytes[written] & 0x0F], clientAPITraceHandle);
        written += 1;
        writeHexGap(written, columns);
    }
    for (size_t position = written; position < columns; ++position) {
        fputs("  ", clientAPITraceHandle);
        writeHexGap(position + 1, columns);
    }
    return written;
}

size_t clapiWriteStorageLineChar(void* startAddr, int width, size_t dataLen, unsigned int stopWord,
                                 int translate)
{
    const unsigned char* bytes = static_cast<const unsigned char*>(startAddr);

    size_t written = 0;
    while (written < static_cast<size_t>(width) &&
           !endsBefore(bytes + written, written, dataLen, stopWord)) {
        bool shown = translate == 0 || isprint(bytes[written]);
        fputc(shown ? bytes[written] : '.', clientAPITraceHandle);
        written += 1;
        if (written % BYTES_PER_COLUMN == 0) fputc(' ', clientAPITraceHandle);
    }
    return written;
}

size_t clapiWriteStorageLineDual(void* startAddr, int width, size_t dataLen, unsigned int stopWord,
                                 int translate)
{
    size_t written = clapiWriteStorageLineHex(startAddr, width, dataLen, stopWord);
    fputs(" : ", clientAPITraceHandle);
    clapiWriteStorageLineChar(startAddr, width, dataLen, stopWord, translate);
    fputc('\n', clientAPITraceHandle);
    return written;
}

/* How many bytes of a block a dump shows. Deliberate: an offset beyond the block is the
 * caller's mistake and is not caught. */
static size_t shownLength(size_t dataLen)
{
    size_t length = dataLen - clientAPIDataOffset;
    size_t limit = clientAPIDataTrunc;
    return limit != 0 && length > limit ? limit : length;
}

static void writeDumpHead()
{
    fprintf(clientAPITraceHandle, "Data truncation size=%lu, offset=%lu\n",
            traceSize(clientAPIDataTrunc), traceSize(clientAPIDataOffset));
}

/* Dumps length bytes, each line under the address that shownAt gives it. */
static size_t dumpLines(char* bytes, size_t length, const char* shownAt, unsigned int stopWord,
                        int width, int translate)
{
    size_t dumped = 0;
    while (dumped < length) {
        fprintf(clientAPITraceHandle, "%p: ", static_cast<const void*>(shownAt + dumped));
        dumped += clapiWriteStorageLineDual(bytes + dumped, width, length - dumped, stopWord,
                                            translate);
    }
    fflush(clientAPITraceHandle);
    return dumped;
}

/* Dumps up to the stop word. */
static size_t dumpLinesToStopWord(char* bytes, unsigned int stopWord, int width, int translate)
{
    size_t dumped = 0;
    size_t written = 0;
    do {
        if (endsBefore(reinterpret_cast<unsigned char*>(bytes) + dumped, dumped, 0, stopWord))
            break;
        fprintf(clientAPITraceHandle, "%p: ", static_cast<void*>(bytes + dumped));
        written = clapiWriteStorageLineDual(bytes + dumped, width, 0, stopWord, translate);
        dumped += written;
    } while (written == static_cast<size_t>(width));
    fflush(clientAPITraceHandle);
    return dumped;
}

size_t clapiTraceOutStorage(void* startAddr, size_t dataLen, unsigned int stopWord, int width,
                            int translate)
{
    char* bytes = static_cast<char*>(startAddr) + clientAPIDataOffset;
    writeDumpHead();
    if (dataLen == 0) return dumpLinesToStopWord(bytes, stopWord, width, translate);
    return dumpLines(bytes, shownLength(dataLen), bytes, stopWord, width, translate);
}

void clapiTraceOutBlock(const DumpBlock& block)
{
    if (block.length == 0) return;
    writeDumpHead();
    char* bytes = static_cast<char*>(const_cast<void*>(block.bytes)) + clientAPIDataOffset;
    const char* shownAt = static_cast<const char*>(block.shownAt) + clientAPIDataOffset;
    dumpLines(bytes, shownLength(block.length), shownAt, STOPWORD, DUMP_WIDTH, DUMP_TRANSLATE);
}
