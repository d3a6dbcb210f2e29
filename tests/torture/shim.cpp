// The preloaded shim: makes the k-th call of a function that libqpxclient.so makes fail, or cuts up
// what the library reads and writes, and keeps account of what it holds. 32 bits, with the names
// that the C library gives its functions there where times have 64 bits. Only the return address
// tells who has called: what the C library calls itself on behalf of the library, and what the rest
// of the program does, pass by.
//
// A failure is one that the system has: what fails has not taken place, but for close and shutdown,
// behind which the descriptor or the stream is at its end whatever they return. A connection that
// send or recv finds lost is lost, but where send only has no room for the moment (send-nobufs).
#include "shim.h"

#include <dlfcn.h>
#include <link.h>
#include <netdb.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#define SHIM_EXPORT extern "C" __attribute__((visibility("default")))
#define CALLER      reinterpret_cast<std::uintptr_t>(__builtin_return_address(0))

namespace {

enum Fault {
    MALLOC,
    CALLOC,
    REALLOC,
    MMAP,
    MREMAP,
    MADVISE,
    MUTEX_INIT,
    COND_INIT,
    THREAD_CREATE,
    GETADDRINFO,
    SOCKET,
    FCNTL,
    SETSOCKOPT,
    GETSOCKOPT,
    IOCTL,
    CONNECT,
    SELECT,
    POLL,
    PPOLL,
    SEND,
    SEND_NOBUFS,
    SEND_HALF,
    SEND_PART,
    RECV,
    RECV_END,
    SHUTDOWN,
    CLOSE,
    FOPEN,
    FDOPEN,
    WRITE,
    CLOCK,
    LOCALTIME,
    SETLOCALE,
    SYSCONF,
    FAULTS
};

const char* const faultNames[FAULTS] = {
    "malloc",    "calloc",    "realloc",     "mmap",      "mremap",    "madvise",    "mutex_init",
    "cond_init", "thread",    "getaddrinfo", "socket",    "fcntl",     "setsockopt", "getsockopt",
    "ioctl",     "connect",   "select",      "poll",      "ppoll",     "send",       "send-nobufs",
    "send-half", "send-part", "recv",        "recv-end",  "shutdown",  "close",      "fopen",
    "fdopen",    "write",     "clock",       "localtime", "setlocale", "sysconf",
};

// ---- Who calls ----------------------------------------------------------------------------------

std::uintptr_t libraryBase = 0;
std::uintptr_t codeBegin = 0;
std::uintptr_t codeEnd = 0; // 0 as long as nobody has looked

int noteLibrary(dl_phdr_info* object, std::size_t, void*)
{
    if (std::strstr(object->dlpi_name, "libqpxclient.so") == nullptr) return 0;
    for (int i = 0; i < object->dlpi_phnum; i += 1) {
        const ElfW(Phdr)& part = object->dlpi_phdr[i];
        if (part.p_type != PT_LOAD || (part.p_flags & PF_X) == 0) continue;
        libraryBase = object->dlpi_addr;
        codeBegin = object->dlpi_addr + part.p_vaddr;
        codeEnd = codeBegin + part.p_memsz;
    }
    return 1;
}

__attribute__((constructor)) void findLibrary()
{
    dl_iterate_phdr(noteLibrary, nullptr);
}

bool isLibrary(std::uintptr_t caller)
{
    return caller >= codeBegin && caller < codeEnd;
}

// The next definition behind this one.
template <class Function>
Function* real(const char* name, const char* version = nullptr)
{
    void* symbol = version == nullptr ? dlsym(RTLD_NEXT, name) : dlvsym(RTLD_NEXT, name, version);
    if (symbol == nullptr) symbol = dlsym(RTLD_NEXT, name);
    if (symbol == nullptr) _exit(97);
    return reinterpret_cast<Function*>(symbol);
}

#define REAL(type, ...) static auto* const next = real<type>(__VA_ARGS__)

// ---- What fails ---------------------------------------------------------------------------------

std::atomic<bool> armed{false};
std::atomic<int> chosen{0};
std::atomic<int> chosenNumber{0};
std::atomic<bool> chosenFromThenOn{false};
std::atomic<int> callCounts[FAULTS];
std::atomic<int> hitCount{0};
std::atomic<std::uintptr_t> firstPlace{0};
std::atomic<void (*)()> hitHook{nullptr};

void noteHit(std::uintptr_t caller)
{
    std::uintptr_t none = 0;
    firstPlace.compare_exchange_strong(none, caller - libraryBase);
    hitCount += 1;
    void (*hook)() = hitHook.load();
    if (hook != nullptr) hook();
}

// Counts a call, and tells whether it is to fail.
bool fails(Fault fault, std::uintptr_t caller)
{
    if (!armed || !isLibrary(caller)) return false;
    int number = callCounts[fault].fetch_add(1) + 1;
    if (chosen != fault || chosenNumber == 0) return false;
    if (chosenFromThenOn ? number < chosenNumber : number != chosenNumber) return false;
    noteHit(caller);
    return true;
}

// The same for the call behind the one that is to fail: a second half.
bool failsBehind(Fault fault)
{
    return armed && chosen == fault && chosenNumber != 0 && callCounts[fault] == chosenNumber + 1 &&
           !chosenFromThenOn;
}

template <class Result>
Result failed(int error, Result result)
{
    errno = error;
    return result;
}

// ---- What is cut up -----------------------------------------------------------------------------

using torture::Shredding;

std::atomic<Shredding> shredding{Shredding::None};
std::atomic<unsigned> randomState{1};
std::atomic<int> shredCount{0};
std::atomic<int> interruptibleCount{0};
std::atomic<int> interruptedConnectCount{0};

unsigned randomNumber()
{
    unsigned old = randomState.load();
    unsigned next;
    do {
        next = old;
        next ^= next << 13U;
        next ^= next >> 17U;
        next ^= next << 5U;
    } while (!randomState.compare_exchange_weak(old, next));
    return next;
}

bool isShredded(Shredding way, std::uintptr_t caller)
{
    return shredding == way && isLibrary(caller);
}

// How many bytes a recv gets at most.
std::size_t receivable(std::size_t length, std::uintptr_t caller)
{
    std::size_t most = length;
    if (length > 1 && isShredded(Shredding::ReceivedOneByOne, caller)) most = 1;
    // Small numbers as often as large ones.
    if (length > 1 && isShredded(Shredding::ReceivedAtRandom, caller))
        most = std::min<std::size_t>(length,
                                     1 + randomNumber() % (length >> (randomNumber() % 16U) | 1U));
    if (most < length) shredCount += 1;
    return most;
}

std::size_t sendable(std::size_t length, std::uintptr_t caller)
{
    if (length < 2 || !isShredded(Shredding::SentByHalves, caller)) return length;
    shredCount += 1;
    return length / 2;
}

// Whether a call is to end as one does that a signal has interrupted.
bool isInterrupted(std::uintptr_t caller)
{
    if (!isShredded(Shredding::Interrupted, caller)) return false;
    if ((interruptibleCount.fetch_add(1) + 1) % 3 != 0) return false;
    shredCount += 1;
    errno = EINTR;
    return true;
}

// ---- What is held -------------------------------------------------------------------------------

// Addresses stand here inverted, so that who looks for memory that nothing points to does not take
// this table for somebody who still has it.
struct Entry {
    std::uintptr_t inverted; // 0: free
    std::size_t site;
    std::size_t size;
};
constexpr std::size_t ENTRIES = 8192;
Entry entries[ENTRIES];
std::atomic_flag entriesLock = ATOMIC_FLAG_INIT;

struct EntriesHold {
    EntriesHold()
    {
        while (entriesLock.test_and_set(std::memory_order_acquire)) {}
    }
    ~EntriesHold() { entriesLock.clear(std::memory_order_release); }
};

void noteHeld(const void* address, std::size_t size, std::uintptr_t caller)
{
    if (address == nullptr || !isLibrary(caller)) return;
    EntriesHold hold;
    for (Entry& entry : entries) {
        if (entry.inverted != 0) continue;
        entry = {~reinterpret_cast<std::uintptr_t>(address), caller - libraryBase, size};
        return;
    }
    _exit(98);
}

void noteGiven(const void* address)
{
    EntriesHold hold;
    for (Entry& entry : entries)
        if (entry.inverted == ~reinterpret_cast<std::uintptr_t>(address)) entry.inverted = 0;
}

void noteGivenBy(const void* address, std::uintptr_t caller)
{
    if (address != nullptr && isLibrary(caller)) noteGiven(address);
}

} // namespace

// ---- Memory -------------------------------------------------------------------------------------

SHIM_EXPORT void* malloc(std::size_t size)
{
    REAL(void*(std::size_t), "malloc");
    if (fails(MALLOC, CALLER)) return failed<void*>(ENOMEM, nullptr);
    void* block = next(size);
    noteHeld(block, size, CALLER);
    return block;
}

SHIM_EXPORT void* calloc(std::size_t count, std::size_t size)
{
    REAL(void*(std::size_t, std::size_t), "calloc");
    if (fails(CALLOC, CALLER)) return failed<void*>(ENOMEM, nullptr);
    void* block = next(count, size);
    noteHeld(block, count * size, CALLER);
    return block;
}

SHIM_EXPORT void* realloc(void* block, std::size_t size)
{
    REAL(void*(void*, std::size_t), "realloc");
    if (fails(REALLOC, CALLER)) return failed<void*>(ENOMEM, nullptr);
    noteGivenBy(block, CALLER);
    void* moved = next(block, size);
    noteHeld(moved != nullptr ? moved : block, size, CALLER);
    return moved;
}

SHIM_EXPORT void free(void* block)
{
    // The look-up frees what an earlier one has left, which is not worth a second look-up.
    static void (*next)(void*) = nullptr;
    static bool looking = false;
    if (next == nullptr) {
        if (looking) return;
        looking = true;
        next = real<void(void*)>("free");
    }
    noteGivenBy(block, CALLER);
    next(block);
}

SHIM_EXPORT void* mmap64(void* address, std::size_t length, int protection, int flags, int file,
                         off64_t offset)
{
    REAL(void*(void*, std::size_t, int, int, int, off64_t), "mmap64");
    if (fails(MMAP, CALLER)) return failed(ENOMEM, MAP_FAILED);
    void* pages = next(address, length, protection, flags, file, offset);
    if (pages != MAP_FAILED) noteHeld(pages, length, CALLER);
    return pages;
}

SHIM_EXPORT void* mremap(void* old, std::size_t length, std::size_t newLength, int flags, ...)
{
    REAL(void*(void*, std::size_t, std::size_t, int, ...), "mremap");
    va_list arguments;
    va_start(arguments, flags);
    void* wanted = (flags & MREMAP_FIXED) != 0 ? va_arg(arguments, void*) : nullptr;
    va_end(arguments);
    if (fails(MREMAP, CALLER)) return failed(ENOMEM, MAP_FAILED);
    noteGivenBy(old, CALLER);
    void* pages = next(old, length, newLength, flags, wanted);
    noteHeld(pages == MAP_FAILED ? old : pages, newLength, CALLER);
    return pages;
}

SHIM_EXPORT int munmap(void* pages, std::size_t length)
{
    REAL(int(void*, std::size_t), "munmap");
    noteGivenBy(pages, CALLER);
    return next(pages, length);
}

SHIM_EXPORT int madvise(void* pages, std::size_t length, int advice)
{
    REAL(int(void*, std::size_t, int), "madvise");
    if (fails(MADVISE, CALLER)) return failed(EINVAL, -1);
    return next(pages, length, advice);
}

// ---- Threads ------------------------------------------------------------------------------------

SHIM_EXPORT int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
{
    REAL(int(pthread_mutex_t*, const pthread_mutexattr_t*), "pthread_mutex_init");
    if (fails(MUTEX_INIT, CALLER)) return ENOMEM;
    return next(mutex, attributes);
}

SHIM_EXPORT int pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes)
{
    REAL(int(pthread_cond_t*, const pthread_condattr_t*), "pthread_cond_init", "GLIBC_2.3.2");
    if (fails(COND_INIT, CALLER)) return ENOMEM;
    return next(condition, attributes);
}

SHIM_EXPORT int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                               void* (*start)(void*), void* argument)
{
    REAL(int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*), "pthread_create");
    if (fails(THREAD_CREATE, CALLER)) return EAGAIN;
    return next(thread, attributes, start, argument);
}

// ---- Sockets ------------------------------------------------------------------------------------

SHIM_EXPORT int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                            addrinfo** found)
{
    REAL(int(const char*, const char*, const addrinfo*, addrinfo**), "getaddrinfo");
    if (fails(GETADDRINFO, CALLER)) return EAI_MEMORY;
    int rc = next(node, service, hints, found);
    if (rc == 0) noteHeld(*found, 0, CALLER);
    return rc;
}

SHIM_EXPORT void freeaddrinfo(addrinfo* list)
{
    REAL(void(addrinfo*), "freeaddrinfo");
    noteGivenBy(list, CALLER);
    next(list);
}

SHIM_EXPORT int socket(int family, int type, int protocol)
{
    REAL(int(int, int, int), "socket");
    if (fails(SOCKET, CALLER)) return failed(EMFILE, -1);
    return next(family, type, protocol);
}

SHIM_EXPORT int __fcntl_time64(int descriptor, int command, ...)
{
    REAL(int(int, int, ...), "__fcntl_time64");
    va_list arguments;
    va_start(arguments, command);
    long argument = va_arg(arguments, long);
    va_end(arguments);
    if (fails(FCNTL, CALLER)) return failed(EMFILE, -1);
    return next(descriptor, command, argument);
}

SHIM_EXPORT int __ioctl_time64(int descriptor, unsigned long request, ...)
{
    REAL(int(int, unsigned long, ...), "__ioctl_time64");
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (fails(IOCTL, CALLER)) return failed(ENOMEM, -1);
    return next(descriptor, request, argument);
}

SHIM_EXPORT int __setsockopt64(int descriptor, int level, int name, const void* value,
                               socklen_t length)
{
    REAL(int(int, int, int, const void*, socklen_t), "__setsockopt64");
    if (fails(SETSOCKOPT, CALLER)) return failed(ENOBUFS, -1);
    return next(descriptor, level, name, value, length);
}

SHIM_EXPORT int __getsockopt64(int descriptor, int level, int name, void* value, socklen_t* length)
{
    REAL(int(int, int, int, void*, socklen_t*), "__getsockopt64");
    if (fails(GETSOCKOPT, CALLER)) return failed(ENOBUFS, -1);
    return next(descriptor, level, name, value, length);
}

SHIM_EXPORT int connect(int descriptor, const sockaddr* address, socklen_t length)
{
    REAL(int(int, const sockaddr*, socklen_t), "connect");
    if (fails(CONNECT, CALLER)) return failed(ENETUNREACH, -1);
    int rc = next(descriptor, address, length);
    if (rc < 0 && errno == EINTR && isLibrary(CALLER)) interruptedConnectCount += 1;
    return rc;
}

SHIM_EXPORT int __select64(int count, void* reading, void* writing, void* failing, void* limit)
{
    REAL(int(int, void*, void*, void*, void*), "__select64");
    if (fails(SELECT, CALLER)) return failed(ENOMEM, -1);
    if (isInterrupted(CALLER)) return -1;
    return next(count, reading, writing, failing, limit);
}

SHIM_EXPORT int poll(struct pollfd* polled, unsigned long count, int limit)
{
    REAL(int(struct pollfd*, unsigned long, int), "poll");
    if (fails(POLL, CALLER)) return failed(ENOMEM, -1);
    if (isInterrupted(CALLER)) return -1;
    return next(polled, count, limit);
}

SHIM_EXPORT int ppoll(struct pollfd* polled, unsigned long count, const void* limit,
                      const void* mask)
{
    REAL(int(struct pollfd*, unsigned long, const void*, const void*), "ppoll");
    if (fails(PPOLL, CALLER)) return failed(ENOMEM, -1);
    if (isInterrupted(CALLER)) return -1;
    return next(polled, count, limit, mask);
}

// A connection that is lost for one end is lost for the other, and for whoever else uses it.
static ssize_t endStream(int descriptor, int error)
{
    REAL(int(int, int), "shutdown");
    next(descriptor, SHUT_RDWR);
    return failed<ssize_t>(error, -1);
}

SHIM_EXPORT int __ppoll64(struct pollfd* polled, unsigned long count, const void* limit,
                          const void* mask)
{
    REAL(int(struct pollfd*, unsigned long, const void*, const void*), "__ppoll64");
    if (fails(PPOLL, CALLER)) return failed(ENOMEM, -1);
    if (isInterrupted(CALLER)) return -1;
    return next(polled, count, limit, mask);
}

SHIM_EXPORT ssize_t send(int descriptor, const void* bytes, std::size_t length, int flags)
{
    REAL(ssize_t(int, const void*, std::size_t, int), "send");
    if (fails(SEND, CALLER)) return endStream(descriptor, ECONNRESET);
    if (fails(SEND_NOBUFS, CALLER)) return failed<ssize_t>(ENOBUFS, -1);
    bool half = fails(SEND_HALF, CALLER);
    bool part = fails(SEND_PART, CALLER);
    if (isLibrary(CALLER) && failsBehind(SEND_PART)) return endStream(descriptor, EPIPE);
    if (isInterrupted(CALLER)) return -1;
    std::size_t most = sendable(length, CALLER);
    return next(descriptor, bytes, half || part ? (length + 1) / 2 : most, flags);
}

SHIM_EXPORT ssize_t recv(int descriptor, void* bytes, std::size_t length, int flags)
{
    REAL(ssize_t(int, void*, std::size_t, int), "recv");
    if (fails(RECV, CALLER)) return endStream(descriptor, ECONNRESET);
    if (fails(RECV_END, CALLER)) {
        endStream(descriptor, 0);
        return 0;
    }
    if (isInterrupted(CALLER)) return -1;
    return next(descriptor, bytes, receivable(length, CALLER), flags);
}

SHIM_EXPORT int shutdown(int descriptor, int how)
{
    REAL(int(int, int), "shutdown");
    int rc = next(descriptor, how);
    if (fails(SHUTDOWN, CALLER)) return failed(ENOTCONN, -1);
    return rc;
}

SHIM_EXPORT int close(int descriptor)
{
    REAL(int(int), "close");
    int rc = next(descriptor);
    if (fails(CLOSE, CALLER)) return failed(EIO, -1);
    return rc;
}

// ---- Streams ------------------------------------------------------------------------------------

SHIM_EXPORT FILE* fopen64(const char* name, const char* mode)
{
    REAL(FILE * (const char*, const char*), "fopen64", "GLIBC_2.1");
    if (fails(FOPEN, CALLER)) return failed<FILE*>(EACCES, nullptr);
    FILE* file = next(name, mode);
    noteHeld(file, 0, CALLER);
    return file;
}

SHIM_EXPORT FILE* fdopen(int descriptor, const char* mode)
{
    REAL(FILE * (int, const char*), "fdopen", "GLIBC_2.1");
    if (fails(FDOPEN, CALLER)) return failed<FILE*>(ENOMEM, nullptr);
    FILE* file = next(descriptor, mode);
    noteHeld(file, 0, CALLER);
    return file;
}

SHIM_EXPORT int fclose(FILE* file)
{
    REAL(int(FILE*), "fclose", "GLIBC_2.1");
    noteGivenBy(file, CALLER);
    return next(file);
}

// What is written to a stream and fails leaves the stream's mark of errors set.
static bool writeFails(FILE* file, std::uintptr_t caller)
{
    constexpr int ERROR_SEEN = 0x20;
    if (!fails(WRITE, caller)) return false;
    file->_flags |= ERROR_SEEN;
    errno = ENOSPC;
    return true;
}

SHIM_EXPORT ssize_t write(int descriptor, const void* bytes, std::size_t length)
{
    REAL(ssize_t(int, const void*, std::size_t), "write");
    if (fails(WRITE, CALLER)) return failed<ssize_t>(ENOSPC, -1);
    return next(descriptor, bytes, length);
}

SHIM_EXPORT std::size_t fwrite(const void* bytes, std::size_t size, std::size_t count, FILE* file)
{
    REAL(std::size_t(const void*, std::size_t, std::size_t, FILE*), "fwrite");
    if (writeFails(file, CALLER)) return 0;
    return next(bytes, size, count, file);
}

SHIM_EXPORT std::size_t fwrite_unlocked(const void* bytes, std::size_t size, std::size_t count,
                                        FILE* file)
{
    REAL(std::size_t(const void*, std::size_t, std::size_t, FILE*), "fwrite_unlocked");
    if (writeFails(file, CALLER)) return 0;
    return next(bytes, size, count, file);
}

SHIM_EXPORT int fflush_unlocked(FILE* file)
{
    REAL(int(FILE*), "fflush_unlocked");
    if (writeFails(file, CALLER)) return EOF;
    return next(file);
}

SHIM_EXPORT int __vfprintf_chk(FILE* file, int flag, const char* format, va_list arguments)
{
    REAL(int(FILE*, int, const char*, va_list), "__vfprintf_chk");
    if (writeFails(file, CALLER)) return -1;
    return next(file, flag, format, arguments);
}

SHIM_EXPORT int __fprintf_chk(FILE* file, int flag, const char* format, ...)
{
    REAL(int(FILE*, int, const char*, va_list), "__vfprintf_chk");
    if (writeFails(file, CALLER)) return -1;
    va_list arguments;
    va_start(arguments, format);
    int length = next(file, flag, format, arguments);
    va_end(arguments);
    return length;
}

SHIM_EXPORT int vfprintf(FILE* file, const char* format, va_list arguments)
{
    REAL(int(FILE*, const char*, va_list), "vfprintf");
    if (writeFails(file, CALLER)) return -1;
    return next(file, format, arguments);
}

SHIM_EXPORT int fprintf(FILE* file, const char* format, ...)
{
    REAL(int(FILE*, const char*, va_list), "vfprintf");
    if (writeFails(file, CALLER)) return -1;
    va_list arguments;
    va_start(arguments, format);
    int length = next(file, format, arguments);
    va_end(arguments);
    return length;
}

// ---- Time and place -----------------------------------------------------------------------------

SHIM_EXPORT int __clock_gettime64(int clock, void* time)
{
    REAL(int(int, void*), "__clock_gettime64");
    if (fails(CLOCK, CALLER)) return failed(EINVAL, -1);
    return next(clock, time);
}

SHIM_EXPORT int __gettimeofday64(void* time, void* zone)
{
    REAL(int(void*, void*), "__gettimeofday64");
    if (fails(CLOCK, CALLER)) return failed(EINVAL, -1);
    return next(time, zone);
}

SHIM_EXPORT void* __localtime64_r(const void* time, void* local)
{
    REAL(void*(const void*, void*), "__localtime64_r");
    if (fails(LOCALTIME, CALLER)) return failed<void*>(EOVERFLOW, nullptr);
    return next(time, local);
}

SHIM_EXPORT char* setlocale(int category, const char* locale)
{
    REAL(char*(int, const char*), "setlocale");
    if (fails(SETLOCALE, CALLER)) return nullptr;
    return next(category, locale);
}

SHIM_EXPORT long sysconf(int name)
{
    REAL(long(int), "sysconf");
    if (fails(SYSCONF, CALLER)) return failed(EINVAL, -1L);
    return next(name);
}

// ---- What the program asks for ------------------------------------------------------------------

namespace {

int faultCount()
{
    return FAULTS;
}

const char* faultName(int fault)
{
    return faultNames[fault];
}

void arm(int fault, int k, bool fromThenOn)
{
    for (std::atomic<int>& count : callCounts) count = 0;
    hitCount = 0;
    firstPlace = 0;
    chosen = fault;
    chosenNumber = k;
    chosenFromThenOn = fromThenOn;
    armed = true;
}

void disarm()
{
    armed = false;
}

int countOf(int fault)
{
    return callCounts[fault];
}

int hits()
{
    return hitCount;
}

std::size_t place()
{
    return firstPlace;
}

void onHit(void (*hook)())
{
    hitHook = hook;
}

void shred(Shredding way, unsigned seed)
{
    shredCount = 0;
    interruptibleCount = 0;
    randomState = seed * 2654435761U | 1U;
    shredding = way;
}

int shreds()
{
    return shredCount;
}

int interruptedConnects()
{
    return interruptedConnectCount;
}

int held(torture::Held* room, int count)
{
    EntriesHold hold;
    int found = 0;
    for (const Entry& entry : entries) {
        if (entry.inverted == 0) continue;
        if (found < count) room[found] = {entry.site, entry.size};
        found += 1;
    }
    return found;
}

} // namespace

SHIM_EXPORT const torture::Shim* qpxTortureShim()
{
    static const torture::Shim shim = {
        faultCount, faultName,           arm, disarm, countOf, hits, place, onHit, shred,
        shreds,     interruptedConnects, held};
    return &shim;
}
