// The functions that the linker puts in place of system calls. Each asks first whether the library
// called it; what others call goes straight through.

#include "support/faults.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>
#include <vector>

#include "support/call_in_thread.h"

extern "C" {
extern const char qpx_library_text_start[] __attribute__((visibility("hidden")));
extern const char qpx_library_text_end[] __attribute__((visibility("hidden")));
}

namespace support {

// ---- Rules -----------------------------------------------------------------------------------

struct FaultRule {
    enum class Kind { Fail, Fake, Limit, Before, After };

    Kind kind;
    Call call;
    int firstNumber = 1; // 0: every call
    bool onlyOne = true; // the one with this number, or all from it on
    int errnoValue = 0;
    bool resultGiven = false;
    long result = 0;
    std::size_t length = 0;
    Hook hook;
    Threads threads = Threads::Any;
    pthread_t maker{};
    bool firstGiven = false;
    std::uintptr_t first = 0; // where it is given, other calls do not count

    int calls = 0; // guarded by the book's mutex
    int hits = 0;
    bool askedAbout = false;

    bool isFor(pthread_t thread) const
    {
        switch (threads) {
        case Threads::Calling: return pthread_equal(thread, maker) != 0;
        case Threads::Others: return pthread_equal(thread, maker) == 0;
        case Threads::Any: break;
        }
        return true;
    }

    bool isOf(std::uintptr_t firstArgument) const { return !firstGiven || first == firstArgument; }

    // Whether it should have taken effect by its end, and nobody knows that it has not.
    bool isWasted() const
    {
        bool isHook = kind == Kind::Before || kind == Kind::After;
        return hits == 0 && !askedAbout && !(isHook && firstNumber == 0);
    }

    bool isDue(int number) const
    {
        if (firstNumber == 0) return true;
        return onlyOne ? number == firstNumber : number >= firstNumber;
    }
};

namespace {

constexpr auto callKinds = static_cast<std::size_t>(Call::Count_);

struct Book {
    std::mutex mutex;
    std::condition_variable changed; // a count has risen
    std::vector<std::shared_ptr<FaultRule>> rules;
    std::atomic<int> rulesInForce{0};
    std::atomic<int> waiters{0};
    std::array<std::atomic<int>, callKinds> counts{};
};

// Never destroyed: the library's threads may outlive the statics.
Book& book()
{
    static Book* const only = new Book;
    return *only;
}

thread_local bool insideHook = false;

// Volatile, lest the compiler takes the two arrays for different ones.
const char* const volatile libraryTextStart = qpx_library_text_start;
const char* const volatile libraryTextEnd = qpx_library_text_end;

bool isLibrary(const void* caller)
{
    const char* address = static_cast<const char*>(caller);
    return address >= qpx_library_text_start && address <= qpx_library_text_end;
}

// How a function tells failure.
enum class Style {
    MinusOne,    // -1 and errno
    NullPointer, // a null pointer and errno
    Number       // the error number itself
};

struct DueHook {
    std::shared_ptr<FaultRule> rule;
    int number;
};

// One call of the library on its way.
class Passage {
public:
    Passage(Call call, Style style, const void* caller, std::uintptr_t first, std::uintptr_t second,
            std::uintptr_t output = 0, std::uintptr_t hints = 0)
        : info_{call, first, second, 0, 0, output, hints}
    {
        if (!isLibrary(caller) || insideHook) return;
        Book& all = book();
        all.counts[static_cast<std::size_t>(call)].fetch_add(1);
        if (all.waiters.load() > 0) {
            std::lock_guard<std::mutex> hold(all.mutex);
            all.changed.notify_all();
        }
        if (all.rulesInForce.load() == 0) return;
        errno_ = errno;
        decide(style);
        run(before_);
        errno = errno_;
    }

    bool isReplaced() const { return replaced_; }

    template <typename Result>
    Result replacement() const
    {
        errno = errnoAfter_;
        return (Result)(result_); // NOLINT: numbers and pointers alike
    }

    std::size_t limited(std::size_t length) const { return length < limit_ ? length : limit_; }

    template <typename Result>
    Result done(Result result)
    {
        if (!after_.empty()) {
            errno_ = errno;
            info_.result = (long)(result); // NOLINT
            run(after_);
            errno = errno_;
        }
        return result;
    }

private:
    void decide(Style style)
    {
        Book& all = book();
        std::lock_guard<std::mutex> hold(all.mutex);
        bool noted = false;
        for (const std::shared_ptr<FaultRule>& rule : all.rules) {
            if (rule->call != info_.call || !rule->isFor(pthread_self())) continue;
            if (!rule->isOf(info_.first)) continue;
            rule->calls += 1;
            if (!rule->isDue(rule->calls)) continue;
            if (!apply(rule, style)) continue;
            rule->hits += 1;
            noted = true;
        }
        if (noted) all.changed.notify_all();
    }

    bool apply(const std::shared_ptr<FaultRule>& rule, Style style)
    {
        switch (rule->kind) {
        case FaultRule::Kind::Before: before_.push_back(DueHook{rule, rule->calls}); return true;
        case FaultRule::Kind::After: after_.push_back(DueHook{rule, rule->calls}); return true;
        case FaultRule::Kind::Limit: limit_ = limited(rule->length); return limit_ < info_.second;
        case FaultRule::Kind::Fail:
        case FaultRule::Kind::Fake: break;
        }
        if (replaced_) return false;
        replaced_ = true;
        bool fails = rule->kind == FaultRule::Kind::Fail;
        errnoAfter_ = fails ? rule->errnoValue : errno_;
        if (rule->resultGiven)
            result_ = rule->result;
        else if (style == Style::MinusOne)
            result_ = -1;
        else
            result_ = style == Style::NullPointer ? 0 : rule->errnoValue;
        return true;
    }

    void run(const std::vector<DueHook>& hooks)
    {
        for (const DueHook& due : hooks) {
            insideHook = true;
            info_.number = due.number;
            due.rule->hook(info_);
            insideHook = false;
        }
    }

    CallInfo info_;
    int errno_ = 0;
    int errnoAfter_ = 0;
    bool replaced_ = false;
    long result_ = 0;
    std::size_t limit_ = static_cast<std::size_t>(-1);
    std::vector<DueHook> before_;
    std::vector<DueHook> after_;
};

template <typename Value>
std::uintptr_t asNumber(Value value)
{
    return (std::uintptr_t)(value); // NOLINT: numbers and pointers alike
}

std::shared_ptr<FaultRule> newRule(FaultRule::Kind kind, Call call, int nth, Threads threads)
{
    auto rule = std::make_shared<FaultRule>();
    rule->kind = kind;
    rule->call = call;
    rule->firstNumber = nth;
    rule->threads = threads;
    rule->maker = pthread_self();
    return rule;
}

} // namespace

// ---- Faults ----------------------------------------------------------------------------------

Fault::Fault(std::shared_ptr<FaultRule> rule) : rule_(std::move(rule))
{
    if (libraryTextStart == libraryTextEnd) {
        std::fprintf(stderr, "The library's code is not found in this program: no fault can be "
                             "injected. Link with QPX_WRAP_OPTIONS.\n");
        std::abort();
    }
    Book& all = book();
    std::lock_guard<std::mutex> hold(all.mutex);
    all.rules.push_back(rule_);
    all.rulesInForce.store(static_cast<int>(all.rules.size()));
}

Fault::Fault(Fault&& other) noexcept = default;

Fault& Fault::operator=(Fault&& other) noexcept
{
    if (this != &other) {
        end();
        rule_ = std::move(other.rule_);
    }
    return *this;
}

Fault::~Fault()
{
    end();
}

void Fault::end()
{
    if (!rule_) return;
    Book& all = book();
    std::lock_guard<std::mutex> hold(all.mutex);
    if (rule_->isWasted())
        ADD_FAILURE() << "A fault for call " << rule_->firstNumber << " of kind "
                      << static_cast<int>(rule_->call) << ", counted from 0, has never taken effect"
                      << " (" << rule_->calls << " calls).";
    rule_->askedAbout = true; // told once
    for (auto at = all.rules.begin(); at != all.rules.end(); ++at) {
        if (*at != rule_) continue;
        all.rules.erase(at);
        break;
    }
    all.rulesInForce.store(static_cast<int>(all.rules.size()));
}

int Fault::calls() const
{
    std::lock_guard<std::mutex> hold(book().mutex);
    rule_->askedAbout = true;
    return rule_->calls;
}

int Fault::hits() const
{
    std::lock_guard<std::mutex> hold(book().mutex);
    rule_->askedAbout = true;
    return rule_->hits;
}

bool Fault::awaitHits(int count) const
{
    Book& all = book();
    std::unique_lock<std::mutex> hold(all.mutex);
    rule_->askedAbout = true;
    return all.changed.wait_for(hold, generousLimit, [&] { return rule_->hits >= count; });
}

Fault failCall(Call call, int nth, int errnoValue, Threads threads)
{
    auto rule = newRule(FaultRule::Kind::Fail, call, nth, threads);
    rule->errnoValue = errnoValue;
    return Fault(rule);
}

Fault failCallWith(Call call, int nth, int errnoValue, long result, Threads threads)
{
    auto rule = newRule(FaultRule::Kind::Fail, call, nth, threads);
    rule->errnoValue = errnoValue;
    rule->resultGiven = true;
    rule->result = result;
    return Fault(rule);
}

Fault failCallOn(Call call, const volatile void* first, int nth, int errnoValue, Threads threads)
{
    auto rule = newRule(FaultRule::Kind::Fail, call, nth, threads);
    rule->errnoValue = errnoValue;
    rule->firstGiven = true;
    rule->first = asNumber(first);
    return Fault(rule);
}

Fault failCallOnWith(Call call, const volatile void* first, int nth, int errnoValue, long result,
                     Threads threads)
{
    auto rule = newRule(FaultRule::Kind::Fail, call, nth, threads);
    rule->errnoValue = errnoValue;
    rule->firstGiven = true;
    rule->first = asNumber(first);
    rule->resultGiven = true;
    rule->result = result;
    return Fault(rule);
}

Fault failEveryCall(Call call, int errnoValue, Threads threads)
{
    return failCall(call, 0, errnoValue, threads);
}

Fault failCallsFrom(Call call, int nth, int errnoValue, Threads threads)
{
    auto rule = newRule(FaultRule::Kind::Fail, call, nth, threads);
    rule->errnoValue = errnoValue;
    rule->onlyOne = false;
    return Fault(rule);
}

Fault fakeCall(Call call, int nth, long result, Threads threads)
{
    auto rule = newRule(FaultRule::Kind::Fake, call, nth, threads);
    rule->resultGiven = true;
    rule->result = result;
    return Fault(rule);
}

Fault limitLength(Call call, std::size_t bytes, int nth, Threads threads)
{
    auto rule = newRule(FaultRule::Kind::Limit, call, nth, threads);
    rule->length = bytes;
    return Fault(rule);
}

Fault beforeCall(Call call, int nth, Hook hook, Threads threads)
{
    auto rule = newRule(FaultRule::Kind::Before, call, nth, threads);
    rule->hook = std::move(hook);
    return Fault(rule);
}

Fault afterCall(Call call, int nth, Hook hook, Threads threads)
{
    auto rule = newRule(FaultRule::Kind::After, call, nth, threads);
    rule->hook = std::move(hook);
    return Fault(rule);
}

int callCount(Call call)
{
    return book().counts[static_cast<std::size_t>(call)].load();
}

bool awaitCallCount(Call call, int count)
{
    Book& all = book();
    std::unique_lock<std::mutex> hold(all.mutex);
    all.waiters.fetch_add(1);
    bool reached = all.changed.wait_for(hold, generousLimit,
                                        [&] { return callCount(call) >= count; });
    all.waiters.fetch_sub(1);
    return reached;
}

// ---- Gates -----------------------------------------------------------------------------------

struct Gate::State {
    std::mutex mutex;
    std::condition_variable changed;
    int arrived = 0;
    bool isOpen = false;
};

Gate::Gate() : state_(std::make_shared<State>()) {}

void Gate::pass()
{
    std::shared_ptr<State> state = state_;
    std::unique_lock<std::mutex> hold(state->mutex);
    state->arrived += 1;
    state->changed.notify_all();
    if (state->changed.wait_for(hold, generousLimit, [&] { return state->isOpen; })) return;
    std::fprintf(stderr, "A gate was never opened. The test fails.\n");
    std::fflush(nullptr);
    std::_Exit(1);
}

bool Gate::awaitArrival(int count)
{
    std::unique_lock<std::mutex> hold(state_->mutex);
    return state_->changed.wait_for(hold, generousLimit, [&] { return state_->arrived >= count; });
}

void Gate::open()
{
    std::lock_guard<std::mutex> hold(state_->mutex);
    state_->isOpen = true;
    state_->changed.notify_all();
}

} // namespace support

// ---- The functions in place of system calls ----------------------------------------------------

using support::asNumber;
using support::Call;
using support::Passage;
using support::Style;

// Defines the wrapped form of one function. SECOND is what hooks are told of the second argument.
#define WRAP(NAME, CALL, STYLE, RESULT, PARAMETERS, ARGUMENTS, FIRST, SECOND)                   \
    extern "C" RESULT real_##NAME PARAMETERS __asm__("__real_" #NAME);                          \
    extern "C" RESULT wrap_##NAME PARAMETERS __asm__("__wrap_" #NAME);                          \
    extern "C" RESULT wrap_##NAME PARAMETERS                                                    \
    {                                                                                           \
        Passage passage(Call::CALL, Style::STYLE, __builtin_return_address(0), asNumber(FIRST), \
                        asNumber(SECOND));                                                      \
        if (passage.isReplaced()) return passage.replacement<RESULT>();                         \
        return passage.done(real_##NAME ARGUMENTS);                                             \
    }

WRAP(malloc, Malloc, NullPointer, void*, (std::size_t size), (size), size, 0)
WRAP(calloc, Malloc, NullPointer, void*, (std::size_t count, std::size_t size), (count, size),
     count, size)
WRAP(realloc, Malloc, NullPointer, void*, (void* block, std::size_t size), (block, size), block,
     size)
WRAP(strdup, Malloc, NullPointer, char*, (const char* string), (string), string, 0)

extern "C" void real_free(void* block) __asm__("__real_free");
extern "C" void wrap_free(void* block) __asm__("__wrap_free");
extern "C" void wrap_free(void* block)
{
    Passage passage(Call::Free, Style::Number, __builtin_return_address(0), asNumber(block), 0);
    if (passage.isReplaced()) return;
    real_free(block);
    passage.done(0);
}

extern "C" void real_explicit_bzero(void* bytes,
                                    std::size_t length) __asm__("__real_explicit_bzero");
extern "C" void wrap_explicit_bzero(void* bytes,
                                    std::size_t length) __asm__("__wrap_explicit_bzero");
extern "C" void wrap_explicit_bzero(void* bytes, std::size_t length)
{
    Passage passage(Call::Overwrite, Style::Number, __builtin_return_address(0), asNumber(bytes),
                    asNumber(length));
    if (passage.isReplaced()) return;
    real_explicit_bzero(bytes, length);
    passage.done(0);
}

extern "C" void real_explicit_bzero_chk(void* bytes, std::size_t length,
                                        std::size_t room) __asm__("__real___explicit_bzero_chk");
extern "C" void wrap_explicit_bzero_chk(void* bytes, std::size_t length,
                                        std::size_t room) __asm__("__wrap___explicit_bzero_chk");
extern "C" void wrap_explicit_bzero_chk(void* bytes, std::size_t length, std::size_t room)
{
    Passage passage(Call::Overwrite, Style::Number, __builtin_return_address(0), asNumber(bytes),
                    asNumber(length));
    if (passage.isReplaced()) return;
    real_explicit_bzero_chk(bytes, length, room);
    passage.done(0);
}

WRAP(munmap, Unmap, MinusOne, int, (void* pages, std::size_t length), (pages, length), pages,
     length)
WRAP(madvise, Advise, MinusOne, int, (void* pages, std::size_t length, int advice),
     (pages, length, advice), pages, length)

WRAP(pthread_mutex_init, MutexInit, Number, int, (void* mutex, const void* attributes),
     (mutex, attributes), mutex, attributes)
WRAP(pthread_mutex_lock, MutexLock, Number, int, (void* mutex), (mutex), mutex, 0)
WRAP(pthread_mutex_unlock, MutexUnlock, Number, int, (void* mutex), (mutex), mutex, 0)
WRAP(pthread_mutex_destroy, MutexDestroy, Number, int, (void* mutex), (mutex), mutex, 0)

WRAP(pthread_cond_init, CondInit, Number, int, (void* condition, const void* attributes),
     (condition, attributes), condition, attributes)
WRAP(pthread_cond_destroy, CondDestroy, Number, int, (void* condition), (condition), condition, 0)
WRAP(pthread_cond_wait, CondWait, Number, int, (void* condition, void* mutex), (condition, mutex),
     condition, mutex)
WRAP(pthread_cond_broadcast, CondBroadcast, Number, int, (void* condition), (condition), condition,
     0)
WRAP(pthread_cond_timedwait, CondTimedWait, Number, int,
     (void* condition, void* mutex, const void* deadline), (condition, mutex, deadline), condition,
     deadline)
WRAP(pthread_cond_clockwait, CondTimedWait, Number, int,
     (void* condition, void* mutex, int clock, const void* deadline),
     (condition, mutex, clock, deadline), condition, deadline)

WRAP(pthread_create, ThreadCreate, Number, int,
     (void* thread, const void* attributes, void* (*start)(void*), void* argument),
     (thread, attributes, start, argument), thread, argument)
WRAP(pthread_detach, ThreadDetach, Number, int, (pthread_t thread), (thread), thread, 0)
WRAP(pthread_once, Once, Number, int, (void* once, void (*routine)()), (once, routine), once, 0)

WRAP(socket, Socket, MinusOne, int, (int domain, int type, int protocol), (domain, type, protocol),
     domain, type)
WRAP(connect, Connect, MinusOne, int, (int descriptor, const void* address, unsigned int length),
     (descriptor, address, length), descriptor, address)
WRAP(shutdown, Shutdown, MinusOne, int, (int descriptor, int how), (descriptor, how), descriptor,
     how)
WRAP(close, Close, MinusOne, int, (int descriptor), (descriptor), descriptor, 0)
WRAP(setsockopt, SetSockOpt, MinusOne, int,
     (int descriptor, int level, int name, const void* value, unsigned int length),
     (descriptor, level, name, value, length), descriptor, name)
WRAP(getsockopt, GetSockOpt, MinusOne, int,
     (int descriptor, int level, int name, void* value, void* length),
     (descriptor, level, name, value, length), descriptor, name)
WRAP(ioctl, Ioctl, MinusOne, int, (int descriptor, unsigned long request, void* argument),
     (descriptor, request, argument), descriptor, request)

WRAP(select, Select, MinusOne, int,
     (int count, void* readable, void* writable, void* exceptional, void* limit),
     (count, readable, writable, exceptional, limit), count, limit)
WRAP(pselect, Select, MinusOne, int,
     (int count, void* readable, void* writable, void* exceptional, const void* limit,
      const void* signals),
     (count, readable, writable, exceptional, limit, signals), count, limit)
WRAP(poll, Poll, MinusOne, int, (void* descriptors, nfds_t count, int limit),
     (descriptors, count, limit), descriptors, limit)
WRAP(__poll_chk, Poll, MinusOne, int,
     (void* descriptors, nfds_t count, int limit, std::size_t room),
     (descriptors, count, limit, room), descriptors, limit)
WRAP(ppoll, Poll, MinusOne, int,
     (void* descriptors, nfds_t count, const void* limit, const void* signals),
     (descriptors, count, limit, signals), descriptors, limit)
WRAP(__ppoll_chk, Poll, MinusOne, int,
     (void* descriptors, nfds_t count, const void* limit, const void* signals, std::size_t room),
     (descriptors, count, limit, signals, room), descriptors, limit)

WRAP(send, Send, MinusOne, ssize_t,
     (int descriptor, const void* data, std::size_t length, int flags),
     (descriptor, data, passage.limited(length), flags), descriptor, length)
WRAP(recv, Recv, MinusOne, ssize_t, (int descriptor, void* data, std::size_t length, int flags),
     (descriptor, data, passage.limited(length), flags), descriptor, length)
WRAP(__recv_chk, Recv, MinusOne, ssize_t,
     (int descriptor, void* data, std::size_t length, std::size_t room, int flags),
     (descriptor, data, passage.limited(length), room, flags), descriptor, length)

extern "C" int real_getaddrinfo(const char* node, const char* service, const void* hints,
                                void* found) __asm__("__real_getaddrinfo");
extern "C" int wrap_getaddrinfo(const char* node, const char* service, const void* hints,
                                void* found) __asm__("__wrap_getaddrinfo");
extern "C" int wrap_getaddrinfo(const char* node, const char* service, const void* hints,
                                void* found)
{
    Passage passage(Call::GetAddrInfo, Style::Number, __builtin_return_address(0), asNumber(node),
                    asNumber(service), asNumber(found), asNumber(hints));
    if (passage.isReplaced()) return passage.replacement<int>();
    return passage.done(real_getaddrinfo(node, service, hints, found));
}

extern "C" void real_freeaddrinfo(void* found) __asm__("__real_freeaddrinfo");
extern "C" void wrap_freeaddrinfo(void* found) __asm__("__wrap_freeaddrinfo");
extern "C" void wrap_freeaddrinfo(void* found)
{
    Passage passage(Call::FreeAddrInfo, Style::Number, __builtin_return_address(0), asNumber(found),
                    0);
    if (passage.isReplaced()) return;
    real_freeaddrinfo(found);
    passage.done(0);
}

WRAP(gettimeofday, Clock, MinusOne, int, (void* now, void* zone), (now, zone), now, 0)
WRAP(clock_gettime, Clock, MinusOne, int, (int clock, void* now), (clock, now), clock, now)
WRAP(time, Time, MinusOne, long, (void* now), (now), now, 0)

WRAP(fopen, Fopen, NullPointer, void*, (const char* path, const char* mode), (path, mode), path,
     mode)
WRAP(fopen64, Fopen, NullPointer, void*, (const char* path, const char* mode), (path, mode), path,
     mode)
WRAP(fclose, Fclose, MinusOne, int, (void* stream), (stream), stream, 0)

WRAP(write, Write, MinusOne, ssize_t, (int descriptor, const void* data, std::size_t length),
     (descriptor, data, passage.limited(length)), descriptor, length)

WRAP(secure_getenv, Environment, NullPointer, char*, (const char* name), (name), name, 0)

#if __SIZEOF_POINTER__ == 4
// The names of these functions with 64-bit time.
WRAP(__pthread_cond_timedwait64, CondTimedWait, Number, int,
     (void* condition, void* mutex, const void* deadline), (condition, mutex, deadline), condition,
     deadline)
WRAP(__pthread_cond_clockwait64, CondTimedWait, Number, int,
     (void* condition, void* mutex, int clock, const void* deadline),
     (condition, mutex, clock, deadline), condition, deadline)
WRAP(__setsockopt64, SetSockOpt, MinusOne, int,
     (int descriptor, int level, int name, const void* value, unsigned int length),
     (descriptor, level, name, value, length), descriptor, name)
WRAP(__getsockopt64, GetSockOpt, MinusOne, int,
     (int descriptor, int level, int name, void* value, void* length),
     (descriptor, level, name, value, length), descriptor, name)
WRAP(__ioctl_time64, Ioctl, MinusOne, int, (int descriptor, unsigned long request, void* argument),
     (descriptor, request, argument), descriptor, request)
WRAP(__select64, Select, MinusOne, int,
     (int count, void* readable, void* writable, void* exceptional, void* limit),
     (count, readable, writable, exceptional, limit), count, limit)
WRAP(__pselect64, Select, MinusOne, int,
     (int count, void* readable, void* writable, void* exceptional, const void* limit,
      const void* signals),
     (count, readable, writable, exceptional, limit, signals), count, limit)
WRAP(__ppoll64, Poll, MinusOne, int,
     (void* descriptors, nfds_t count, const void* limit, const void* signals),
     (descriptors, count, limit, signals), descriptors, limit)
WRAP(__gettimeofday64, Clock, MinusOne, int, (void* now, void* zone), (now, zone), now, 0)
WRAP(__clock_gettime64, Clock, MinusOne, int, (int clock, void* now), (clock, now), clock, now)
WRAP(__time64, Time, MinusOne, long long, (void* now), (now), now, 0)
#endif
