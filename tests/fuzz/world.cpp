#include "world.h"

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <ucontext.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "held_locks.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FUZZ_ADDRESS_SANITIZER
#endif
#endif
#ifdef __SANITIZE_ADDRESS__
#define FUZZ_ADDRESS_SANITIZER
#endif
#ifdef FUZZ_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#endif

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* block, std::size_t size);
void __real_free(void* block);
void* __real_mmap64(void* at, std::size_t size, int protection, int flags, int fd, long long off);
int __real_munmap(void* at, std::size_t size);
void* __real_mremap(void* at, std::size_t size, std::size_t newSize, int flags, ...);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __real_pthread_detach(pthread_t thread);
int __real_close(int descriptor);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace world {

Rules rules;

void fail(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::fputs("FUZZ: ", stderr);
    std::vfprintf(stderr, format, arguments);
    std::fputs("\n", stderr);
    va_end(arguments);
    std::abort();
}

// ---- The heap ----

namespace {

std::unordered_map<const void*, std::size_t>& blocks()
{
    static auto* all = new std::unordered_map<const void*, std::size_t>;
    return *all;
}

std::size_t bytesNow = 0;
std::size_t bytesPeak = 0;

void countIn(const void* block, std::size_t size)
{
    if (block == nullptr) return;
    blocks()[block] = size;
    bytesNow += size;
    bytesPeak = std::max(bytesPeak, bytesNow);
}

// The size of a block that is counted no more; 0 for one that the library has not made.
std::size_t countOut(const void* block)
{
    auto found = blocks().find(block);
    if (found == blocks().end()) return 0;
    std::size_t size = found->second;
    blocks().erase(found);
    bytesNow -= size;
    return size;
}

// Blocks that have been freed and come back with the next request for as many bytes. Where the
// address sanitizer looks on, nobody may touch them meanwhile.
std::unordered_multimap<std::size_t, void*>& freedBlocks()
{
    static auto* all = new std::unordered_multimap<std::size_t, void*>;
    return *all;
}

constexpr std::size_t MOST_FREED = 200;

void forbid(void* block, std::size_t size)
{
#ifdef FUZZ_ADDRESS_SANITIZER
    ASAN_POISON_MEMORY_REGION(block, size);
#else
    static_cast<void>(block);
    static_cast<void>(size);
#endif
}

void allow(void* block, std::size_t size)
{
#ifdef FUZZ_ADDRESS_SANITIZER
    ASAN_UNPOISON_MEMORY_REGION(block, size);
#else
    static_cast<void>(block);
    static_cast<void>(size);
#endif
}

bool keepFreed(void* block, std::size_t size)
{
    if (!rules.reusesBlocks || size == 0 || freedBlocks().size() >= MOST_FREED) return false;
    forbid(block, size);
    freedBlocks().emplace(size, block);
    return true;
}

void* takeFreed(std::size_t size)
{
    auto found = freedBlocks().find(size);
    if (!rules.reusesBlocks || found == freedBlocks().end()) return nullptr;
    void* block = found->second;
    freedBlocks().erase(found);
    allow(block, size);
    return block;
}

} // namespace

void showBlocks(std::size_t notBelow)
{
    for (const auto& [block, size] : blocks())
        if (size >= notBelow) std::fprintf(stderr, "block of %zu bytes at %p\n", size, block);
}

long liveBlocks()
{
    return static_cast<long>(blocks().size());
}

std::size_t liveBytes()
{
    return bytesNow;
}

std::size_t peakBytes()
{
    return bytesPeak;
}

// ---- Sockets ----

namespace {

constexpr int FIRST_DESCRIPTOR = 900; // numbers below and above FD_SETSIZE occur
constexpr int DESCRIPTORS = 700;

Socket sockets[DESCRIPTORS];

} // namespace

Socket* socketOf(int descriptor)
{
    int number = descriptor - FIRST_DESCRIPTOR;
    if (number < 0 || number >= DESCRIPTORS || !sockets[number].isOpen) return nullptr;
    return &sockets[number];
}

int openSockets()
{
    int count = 0;
    for (const Socket& socket : sockets) count += socket.isOpen ? 1 : 0;
    return count;
}

namespace {

bool isReadable(int descriptor)
{
    const Socket* socket = socketOf(descriptor);
    return socket == nullptr || socket->taken < socket->incoming.size() || socket->ended ||
           socket->isShutDown;
}

// ---- Threads ----

enum class Wait { None, Data, DataWithLimit, Condition };

struct Fiber {
    ucontext_t context;
    std::vector<char> stack;
    void* (*function)(void*);
    void* argument;
    Wait wait;
    int descriptor;
    const void* condition;
    bool isWoken; // the condition has been broadcast
    bool timeOver;
    bool hasEnded;
    void* fakeStack;
    HeldLocks held; // by the one that does not run
};

constexpr std::size_t STACK_SIZE = 192 * 1024;

// Never destroyed, so that what they name is no leak.
std::vector<Fiber*>& fibers = *new std::vector<Fiber*>;
std::vector<Fiber*>& idleFibers = *new std::vector<Fiber*>; // ended, and kept for their stacks
Fiber* running = nullptr;
ucontext_t mainContext;

#ifdef FUZZ_ADDRESS_SANITIZER
void* mainFakeStack = nullptr;
const void* mainStack = nullptr;
std::size_t mainStackSize = 0;
#endif

void resume(Fiber* fiber)
{
    running = fiber;
#ifdef FUZZ_ADDRESS_SANITIZER
    __sanitizer_start_switch_fiber(&mainFakeStack, fiber->stack.data(), fiber->stack.size());
#endif
    clapiExchangeHeldLocks(&fiber->held);
    swapcontext(&mainContext, &fiber->context);
    clapiExchangeHeldLocks(&fiber->held);
#ifdef FUZZ_ADDRESS_SANITIZER
    __sanitizer_finish_switch_fiber(mainFakeStack, nullptr, nullptr);
#endif
    running = nullptr;
}

// Back to the application; a fiber that has ended never comes from here.
void leave(Fiber* fiber)
{
#ifdef FUZZ_ADDRESS_SANITIZER
    __sanitizer_start_switch_fiber(fiber->hasEnded ? nullptr : &fiber->fakeStack, mainStack,
                                   mainStackSize);
#endif
    swapcontext(&fiber->context, &mainContext);
#ifdef FUZZ_ADDRESS_SANITIZER
    __sanitizer_finish_switch_fiber(fiber->fakeStack, &mainStack, &mainStackSize);
#endif
}

void fiberMain()
{
#ifdef FUZZ_ADDRESS_SANITIZER
    __sanitizer_finish_switch_fiber(nullptr, &mainStack, &mainStackSize);
#endif
    Fiber* fiber = running;
    fiber->function(fiber->argument);
    fiber->hasEnded = true;
    leave(fiber);
}

bool canRun(const Fiber* fiber)
{
    switch (fiber->wait) {
    case Wait::None: return true;
    case Wait::Data:
    case Wait::DataWithLimit: return isReadable(fiber->descriptor);
    case Wait::Condition: return fiber->isWoken;
    }
    return false;
}

void run(Fiber* fiber)
{
    resume(fiber);
    if (!fiber->hasEnded) return;
    fibers.erase(std::find(fibers.begin(), fibers.end(), fiber));
    idleFibers.push_back(fiber);
}

// Lets the time go by for one who waits with a limit.
bool letTimePass()
{
    for (Fiber* fiber : fibers) {
        if (fiber->wait != Wait::DataWithLimit) continue;
        fiber->timeOver = true;
        run(fiber);
        return true;
    }
    return false;
}

// Those of the application's waits that have not ended, the innermost last.
struct MainWait {
    const void* condition;
    bool isWoken;
};
std::vector<MainWait> mainWaits;

int locks = 0;

void wait(Fiber* fiber, Wait kind)
{
    fiber->wait = kind;
    leave(fiber);
    fiber->wait = Wait::None;
}

} // namespace

bool runThreads()
{
    if (running != nullptr) return false;
    bool any = false;
    for (std::size_t i = 0; i < fibers.size();) {
        Fiber* fiber = fibers[i];
        if (!canRun(fiber)) {
            ++i;
            continue;
        }
        run(fiber);
        any = true;
        i = 0;
    }
    return any;
}

int livingThreads()
{
    return static_cast<int>(fibers.size());
}

const void* awaited()
{
    return mainWaits.empty() ? nullptr : mainWaits.back().condition;
}

int heldLocks()
{
    return locks;
}

void begin()
{
    FUZZ_CHECK(fibers.empty(), "threads are left over");
    for (const auto& [size, block] : freedBlocks()) {
        allow(block, size);
        __real_free(block);
    }
    freedBlocks().clear();
    for (Socket& socket : sockets) socket = Socket{};
    rules = Rules{};
    bytesPeak = bytesNow;
    locks = 0;
}

} // namespace world

using namespace world;

// ---- What stands between the library and the system ----

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" {

void* __wrap_malloc(std::size_t size)
{
    void* block = takeFreed(size);
    if (block == nullptr) block = __real_malloc(size);
    countIn(block, size);
    return block;
}

void* __wrap_calloc(std::size_t count, std::size_t size)
{
    if (rules.noTables && size == sizeof(void*)) return nullptr;
    void* block = takeFreed(count * size);
    if (block != nullptr)
        std::memset(block, 0, count * size);
    else
        block = __real_calloc(count, size);
    countIn(block, count * size);
    return block;
}

void* __wrap_realloc(void* block, std::size_t size)
{
    countOut(block);
    void* moved = __real_realloc(block, size);
    countIn(moved, size);
    return moved;
}

void __wrap_free(void* block)
{
    std::size_t size = countOut(block);
    if (size != 0 && rules.onFree) rules.onFree(static_cast<const char*>(block), size);
    if (!keepFreed(block, size)) __real_free(block);
}

void* __wrap_mmap64(void* at, std::size_t size, int protection, int flags, int fd, long long offset)
{
    void* pages = __real_mmap64(at, size, protection, flags, fd, offset);
    if (pages != MAP_FAILED) countIn(pages, size);
    return pages;
}

int __wrap_munmap(void* at, std::size_t size)
{
    std::size_t counted = countOut(at);
    FUZZ_CHECK(counted == size, "munmap of %zu bytes at %p, which has %zu", size, at, counted);
    return __real_munmap(at, size);
}

void* __wrap_mremap(void* at, std::size_t size, std::size_t newSize, int flags, ...)
{
    std::size_t counted = countOut(at);
    FUZZ_CHECK(counted == size, "mremap of %zu bytes at %p, which has %zu", size, at, counted);
    void* pages = __real_mremap(at, size, newSize, flags);
    if (pages != MAP_FAILED)
        countIn(pages, newSize);
    else
        countIn(at, size);
    return pages;
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*function)(void*), void* argument)
{
    static_cast<void>(attributes);
    Fiber* fiber = nullptr;
    if (idleFibers.empty()) {
        fiber = new Fiber{};
        fiber->stack.resize(STACK_SIZE);
    } else {
        fiber = idleFibers.back();
        idleFibers.pop_back();
    }
    fiber->function = function;
    fiber->argument = argument;
    fiber->wait = Wait::None;
    fiber->isWoken = false;
    fiber->timeOver = false;
    fiber->hasEnded = false;
    fiber->fakeStack = nullptr;
    fiber->held = HeldLocks{};
    getcontext(&fiber->context);
    fiber->context.uc_stack.ss_sp = fiber->stack.data();
    fiber->context.uc_stack.ss_size = fiber->stack.size();
    fiber->context.uc_link = nullptr;
    makecontext(&fiber->context, fiberMain, 0);
    fibers.push_back(fiber);
    *thread = pthread_self();
    return 0;
}

int __wrap_pthread_detach(pthread_t thread)
{
    return running != nullptr ? 0 : __real_pthread_detach(thread);
}

int __wrap_pthread_setname_np(pthread_t thread, const char* name)
{
    static_cast<void>(thread);
    static_cast<void>(name);
    return 0;
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex)
{
    int rc = pthread_mutex_trylock(mutex);
    FUZZ_CHECK(rc != EBUSY, "a lock is wanted that its own thread or one that waits has");
    if (rc == 0) locks += 1;
    return rc;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    locks -= 1;
    return __real_pthread_mutex_unlock(mutex);
}

int __wrap_pthread_cond_broadcast(pthread_cond_t* condition)
{
    for (MainWait& waiting : mainWaits)
        if (waiting.condition == condition) waiting.isWoken = true;
    for (Fiber* fiber : fibers)
        if (fiber->wait == Wait::Condition && fiber->condition == condition) fiber->isWoken = true;
    return 0;
}

// What comes next where everybody waits: another of the application's threads, say, which has none
// of the locks of the one that waits.
static bool letOthersAct()
{
    if (!rules.onIdle) return false;
    HeldLocks held = {};
    clapiExchangeHeldLocks(&held);
    bool any = rules.onIdle();
    clapiExchangeHeldLocks(&held);
    return any;
}

static int sleepOn(const pthread_cond_t* condition, pthread_mutex_t* mutex, bool limited)
{
    int rc = 0;
    __wrap_pthread_mutex_unlock(mutex);
    if (running != nullptr) {
        Fiber* fiber = running;
        fiber->condition = condition;
        fiber->isWoken = false;
        wait(fiber, Wait::Condition);
    } else {
        std::size_t place = mainWaits.size();
        mainWaits.push_back(MainWait{condition, false});
        while (!mainWaits[place].isWoken && rc == 0) {
            if (runThreads() || letOthersAct()) continue;
            if (limited)
                rc = ETIMEDOUT;
            else
                FUZZ_CHECK(letTimePass(), "everybody waits, and nothing can happen");
        }
        mainWaits.pop_back();
    }
    __wrap_pthread_mutex_lock(mutex);
    return rc;
}

int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    return sleepOn(condition, mutex, false);
}

int __wrap___pthread_cond_timedwait64(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                      const timespec* deadline)
{
    static_cast<void>(deadline);
    return sleepOn(condition, mutex, true);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  const timespec* deadline)
{
    static_cast<void>(deadline);
    return sleepOn(condition, mutex, true);
}

int __wrap_getaddrinfo(const char* host, const char* service, const addrinfo* hints,
                       addrinfo** result)
{
    static sockaddr_in address = {};
    static addrinfo found = {};
    static_cast<void>(host);
    static_cast<void>(service);
    static_cast<void>(hints);
    address.sin_family = AF_INET;
    found.ai_family = AF_INET;
    found.ai_socktype = SOCK_STREAM;
    found.ai_addr = reinterpret_cast<sockaddr*>(&address);
    found.ai_addrlen = sizeof address;
    *result = &found;
    return 0;
}

void __wrap_freeaddrinfo(addrinfo* found)
{
    static_cast<void>(found);
}

int __wrap_socket(int family, int type, int protocol)
{
    static_cast<void>(family);
    static_cast<void>(type);
    static_cast<void>(protocol);
    for (int number = 0; number < DESCRIPTORS; ++number) {
        if (sockets[number].isOpen) continue;
        sockets[number] = Socket{};
        sockets[number].isOpen = true;
        return FIRST_DESCRIPTOR + number;
    }
    errno = EMFILE;
    return -1;
}

int __wrap_connect(int descriptor, const sockaddr* address, socklen_t length)
{
    static_cast<void>(address);
    static_cast<void>(length);
    Socket* socket = socketOf(descriptor);
    FUZZ_CHECK(socket != nullptr, "connect of descriptor %d, which is not open", descriptor);
    int error = rules.onConnect ? rules.onConnect(*socket) : 0;
    errno = error;
    return error == 0 ? 0 : -1;
}

int __wrap_setsockopt(int descriptor, int level, int name, const void* value, socklen_t length)
{
    static_cast<void>(level);
    static_cast<void>(name);
    static_cast<void>(value);
    static_cast<void>(length);
    FUZZ_CHECK(socketOf(descriptor) != nullptr, "setsockopt of descriptor %d", descriptor);
    return 0;
}

int __wrap___setsockopt64(int descriptor, int level, int name, const void* value, socklen_t length)
{
    return __wrap_setsockopt(descriptor, level, name, value, length);
}

int __wrap_ioctl(int descriptor, unsigned long request, ...)
{
    static_cast<void>(request);
    FUZZ_CHECK(socketOf(descriptor) != nullptr, "ioctl of descriptor %d", descriptor);
    return 0;
}

int __wrap___ioctl_time64(int descriptor, unsigned long request, ...)
{
    static_cast<void>(request);
    FUZZ_CHECK(socketOf(descriptor) != nullptr, "ioctl of descriptor %d", descriptor);
    return 0;
}

int __wrap_close(int descriptor)
{
    if (descriptor < FIRST_DESCRIPTOR) return __real_close(descriptor);
    Socket* socket = socketOf(descriptor);
    FUZZ_CHECK(socket != nullptr, "close of descriptor %d, which is not open", descriptor);
    socket->isOpen = false;
    return 0;
}

int __wrap_shutdown(int descriptor, int how)
{
    static_cast<void>(how);
    Socket* socket = socketOf(descriptor);
    FUZZ_CHECK(socket != nullptr, "shutdown of descriptor %d, which is not open", descriptor);
    socket->isShutDown = true;
    return 0;
}

/* 1, 0 once the time is over, or -1. */
static int awaitReadable(int descriptor, bool limited)
{
    FUZZ_CHECK(socketOf(descriptor) != nullptr, "a wait for descriptor %d", descriptor);
    if (rules.pace == Pace::Pieces && rules.chance.oneIn(8)) {
        errno = EINTR;
        return -1;
    }
    if (isReadable(descriptor)) return 1;
    Fiber* fiber = running;
    FUZZ_CHECK(fiber != nullptr, "the application waits for a reply by itself");
    fiber->descriptor = descriptor;
    fiber->timeOver = false;
    while (!isReadable(descriptor) && !fiber->timeOver)
        wait(fiber, limited ? Wait::DataWithLimit : Wait::Data);
    return fiber->timeOver ? 0 : 1;
}

int __wrap___select64(int count, fd_set* readable, fd_set* writable, fd_set* failing, void* limit)
{
    static_cast<void>(failing);
    if (writable != nullptr) return 1;
    FUZZ_CHECK(FD_ISSET(count - 1, readable), "select of no descriptor");
    int ready = awaitReadable(count - 1, limit != nullptr);
    if (ready == 0) FD_ZERO(readable);
    return ready;
}

int __wrap_select(int count, fd_set* readable, fd_set* writable, fd_set* failing, timeval* limit)
{
    return __wrap___select64(count, readable, writable, failing, limit);
}

int __wrap_poll(pollfd* polled, nfds_t count, int milliseconds)
{
    FUZZ_CHECK(count == 1, "poll of several");
    if ((polled->events & POLLIN) == 0) {
        polled->revents = POLLOUT;
        return 1;
    }
    int ready = awaitReadable(polled->fd, milliseconds >= 0);
    polled->revents = ready == 1 ? POLLIN : 0;
    return ready;
}

static ssize_t failWith(int error)
{
    errno = error;
    return -1;
}

/* How much of what is there comes with one call. */
static std::size_t piece(std::size_t wanted, std::size_t there)
{
    std::size_t most = std::min(wanted, there);
    if (rules.pace == Pace::Bytes) return std::min<std::size_t>(most, 1);
    if (rules.pace == Pace::Whole || most == 0) return most;
    std::size_t limit = rules.chance.oneIn(2) ? std::min<std::size_t>(most, 9) : most;
    return 1 + rules.chance.below(static_cast<std::uint32_t>(limit));
}

ssize_t __wrap_recv(int descriptor, void* data, std::size_t wanted, int flags)
{
    Socket* socket = socketOf(descriptor);
    FUZZ_CHECK(socket != nullptr, "recv of descriptor %d, which is not open", descriptor);
    FUZZ_CHECK(wanted != 0, "recv of nothing");
    if (rules.pace == Pace::Pieces && rules.chance.oneIn(4)) return failWith(EINTR);

    std::size_t there = socket->incoming.size() - socket->taken;
    bool isImpatient = (flags & MSG_DONTWAIT) != 0;
    // What has been sent need not have come yet.
    bool comesLater = isImpatient && rules.pace != Pace::Whole && rules.chance.oneIn(2);
    if (isImpatient && (comesLater || !isReadable(descriptor))) return failWith(EAGAIN);
    if (!isReadable(descriptor) && awaitReadable(descriptor, false) < 0) return -1;
    there = socket->incoming.size() - socket->taken;
    if (there == 0) {
        if (socket->isShutDown || socket->endError == 0) return 0;
        return failWith(socket->endError);
    }
    std::size_t count = piece(wanted, there);
    std::memcpy(data, socket->incoming.data() + socket->taken, count);
    socket->taken += count;
    return static_cast<ssize_t>(count);
}

ssize_t __wrap_send(int descriptor, const void* data, std::size_t length, int flags)
{
    FUZZ_CHECK((flags & MSG_NOSIGNAL) != 0, "send that may kill the process");
    Socket* socket = socketOf(descriptor);
    if (descriptor == -1) return failWith(EBADF);
    FUZZ_CHECK(socket != nullptr, "send to descriptor %d, which is not open", descriptor);
    if (rules.pace == Pace::Pieces && rules.chance.oneIn(4)) return failWith(EINTR);
    std::size_t count = rules.pace == Pace::Pieces ? piece(length, length) : length;
    if (rules.onSend) {
        long allowed = rules.onSend(*socket, static_cast<const char*>(data), count);
        if (allowed < 0) return failWith(static_cast<int>(-allowed));
        count = std::min(count, static_cast<std::size_t>(allowed));
    }
    socket->outgoing.append(static_cast<const char*>(data), count);
    return static_cast<ssize_t>(count);
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
