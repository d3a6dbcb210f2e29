// The calls of the system that a program makes whose work is the library's, once it has begun:
// those of the library, and those that the C library makes for it. docs/process.md has them too.
#ifndef PROCESS_SYSTEM_CALLS_H
#define PROCESS_SYSTEM_CALLS_H

#include <sys/syscall.h>

#include <cstdint>

namespace process {

struct SystemCall {
    const char* name;
    std::uint32_t number;
};

#define SYSTEM_CALL(name)  \
    {                      \
#name, __NR_##name \
    }

constexpr SystemCall systemCalls[] = {
    // connections
    SYSTEM_CALL(socket),
    SYSTEM_CALL(connect),
    SYSTEM_CALL(setsockopt),
    SYSTEM_CALL(getsockopt),
    SYSTEM_CALL(ioctl),
    SYSTEM_CALL(sendto),
    SYSTEM_CALL(recvfrom),
    SYSTEM_CALL(shutdown),
    SYSTEM_CALL(poll),
    SYSTEM_CALL(close),
    SYSTEM_CALL(getsockname),
    // the addresses of a host
    SYSTEM_CALL(bind),
    SYSTEM_CALL(recvmsg),
    // threads and waits
    SYSTEM_CALL(clone3),
    SYSTEM_CALL(clone),
    SYSTEM_CALL(set_robust_list),
    SYSTEM_CALL(rseq),
    SYSTEM_CALL(prctl),
    SYSTEM_CALL(sched_getaffinity),
    SYSTEM_CALL(futex),
    SYSTEM_CALL(exit),
    // memory
    SYSTEM_CALL(brk),
    SYSTEM_CALL(munmap),
    SYSTEM_CALL(mprotect),
    SYSTEM_CALL(madvise),
    SYSTEM_CALL(mremap),
    SYSTEM_CALL(getrandom),
    // signals
    SYSTEM_CALL(rt_sigaction),
    SYSTEM_CALL(rt_sigprocmask),
    // the trace
    SYSTEM_CALL(openat),
    SYSTEM_CALL(read),
    SYSTEM_CALL(write),
    SYSTEM_CALL(ppoll),
    SYSTEM_CALL(getpid),
    SYSTEM_CALL(gettid),
    // clocks
    SYSTEM_CALL(clock_gettime),
    SYSTEM_CALL(gettimeofday),
    // the end of the program
    SYSTEM_CALL(exit_group),
#ifdef __i386__
    SYSTEM_CALL(socketcall),
    SYSTEM_CALL(pselect6_time64),
    SYSTEM_CALL(pselect6),
    SYSTEM_CALL(ppoll_time64),
    SYSTEM_CALL(futex_time64),
    SYSTEM_CALL(clock_gettime64),
    SYSTEM_CALL(mmap2),
    SYSTEM_CALL(_llseek),
    SYSTEM_CALL(fcntl64),
    SYSTEM_CALL(statx),
#else
    SYSTEM_CALL(pselect6),
    SYSTEM_CALL(select),
    SYSTEM_CALL(mmap),
    SYSTEM_CALL(lseek),
    SYSTEM_CALL(fcntl),
    SYSTEM_CALL(newfstatat),
#endif
};

#undef SYSTEM_CALL

} // namespace process

#endif
