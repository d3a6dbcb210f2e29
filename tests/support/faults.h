// System calls of the library that fail, are counted, or stop on their way.
//
//     Fault fault = failCall(Call::MutexInit, 2, ENOMEM);      // the second from now on
//     EXPECT_EQ(-1, clapiCreateEvent(&event));
//     EXPECT_EQ(1, fault.hits());
//
// Only calls made by the library's own objects count; those of tests, of the stand-in gateway and
// of the C library itself pass by. A fault is in force from its making to the end of its object.
// Where several are in force for one call, hooks run first, in the order of their making, then the
// oldest failure that is due decides. Calls made from within a hook pass by as well.
//
// A fault that has never taken effect fails the test as it ends, unless the test has asked about
// it: nothing has been shown then. A hook for every call is no fault: it may be there to see none.
//
// Belongs to unit_tests only; see support/wrapped_calls.cmake.
#ifndef SUPPORT_FAULTS_H
#define SUPPORT_FAULTS_H

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace support {

enum class Call {
    Malloc,    // malloc, calloc, realloc, strdup
    Free,      // hooks before it see the block; a failed or faked one keeps it
    Overwrite, // explicit_bzero; hooks before it see what goes
    Unmap,     // munmap
    Advise,    // madvise
    MutexInit,
    MutexLock,
    MutexUnlock,
    MutexDestroy,
    CondInit,
    CondDestroy,
    CondWait,
    CondTimedWait, // pthread_cond_timedwait and pthread_cond_clockwait
    CondBroadcast,
    ThreadCreate,
    ThreadDetach,
    Once,
    Socket,
    SetSockOpt,
    GetSockOpt,
    Ioctl,
    Connect,
    Select, // select and pselect
    Poll,   // poll and ppoll
    Send,
    Recv,
    Shutdown,
    Close,
    GetAddrInfo,
    FreeAddrInfo,
    Clock, // gettimeofday and clock_gettime
    Time,  // time
    Fopen,
    Fclose,
    Write,
    Environment, // secure_getenv
    Count_       // how many there are
};

// Whose calls a fault is for.
enum class Threads {
    Any,
    Calling, // the thread that makes the fault
    Others   // every thread but that one
};

// What a hook is told of the call.
struct CallInfo {
    Call call;
    std::uintptr_t first;  // the call's first argument: descriptor, address or size
    std::uintptr_t second; // the second, 0 if there is none
    int number;            // 1 for the first call since the fault was made
    long result;           // after the call; pointers as numbers
    std::uintptr_t output; // where GetAddrInfo leaves what it has found
    std::uintptr_t hints;  // what GetAddrInfo is asked for
};

using Hook = std::function<void(const CallInfo&)>;

struct FaultRule;

// A fault in force; ends with the object. One that is not kept ends at once, hence nodiscard.
class [[nodiscard]] Fault {
public:
    explicit Fault(std::shared_ptr<FaultRule> rule);
    ~Fault();
    Fault(Fault&& other) noexcept;
    Fault& operator=(Fault&& other) noexcept;
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

    int calls() const;                   // calls that counted for this fault so far
    int hits() const;                    // how often it took effect
    bool awaitHits(int count = 1) const; // waits for so many, with a generous limit
    void end();

private:
    std::shared_ptr<FaultRule> rule_;
};

// The nth call from now on (1 = the next) fails with the error: functions that report by errno
// set it and return -1 or a null pointer; pthread functions and getaddrinfo return the error
// itself, and errno is set to it too. failCallWith also names the result that is returned.
Fault failCall(Call call, int nth = 1, int errnoValue = EIO, Threads threads = Threads::Any);
Fault failCallWith(Call call, int nth, int errnoValue, long result, Threads threads = Threads::Any);

// The same, but only calls with this first argument count: one lock, condition or block of many.
Fault failCallOn(Call call, const volatile void* first, int nth = 1, int errnoValue = EIO,
                 Threads threads = Threads::Any);
Fault failCallOnWith(Call call, const volatile void* first, int nth, int errnoValue, long result,
                     Threads threads = Threads::Any);

// The same for every call, or for every call from the nth on.
Fault failEveryCall(Call call, int errnoValue = EIO, Threads threads = Threads::Any);
Fault failCallsFrom(Call call, int nth, int errnoValue = EIO, Threads threads = Threads::Any);

// The nth call, or every one for nth 0, does not take place and is said to have gone well with the
// result; output arguments stay as they are.
Fault fakeCall(Call call, int nth, long result, Threads threads = Threads::Any);

// The nth Send, Recv or Write, or every one for nth 0, is made with at most so many bytes. It takes
// effect where the library asks for more.
Fault limitLength(Call call, std::size_t bytes, int nth = 0, Threads threads = Threads::Any);

// How many of the sends of so many bytes, each with what is left, are cut to a piece.
inline int cutsOf(std::size_t bytes, std::size_t piece)
{
    return static_cast<int>((bytes - 1) / piece);
}

// Runs a function before or after the nth call, or every one for nth 0, on the calling thread,
// while that holds whatever locks it holds at this point. It may wait for other threads.
Fault beforeCall(Call call, int nth, Hook hook, Threads threads = Threads::Any);
Fault afterCall(Call call, int nth, Hook hook, Threads threads = Threads::Any);

// Calls of the library so far in this process, failed ones included.
int callCount(Call call);

// Waits, with a generous limit, until the library has begun so many calls in this process. A
// thread counted in CondWait holds the mutex until it sleeps, so whoever takes that mutex
// afterwards finds it asleep.
bool awaitCallCount(Call call, int count);

// A gate for hooks: the hook's thread stops in pass() until the test calls open().
class Gate {
public:
    Gate();
    void pass();                      // tells that somebody is here, and waits
    bool awaitArrival(int count = 1); // generous limit
    void open();

private:
    struct State;
    std::shared_ptr<State> state_;
};

} // namespace support

#endif
