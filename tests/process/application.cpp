// A program that uses the library in a process of its own, for tests that look at what becomes of
// that process. It writes one line about it.
//
//     application story PORT               makes calls of every kind: "ok", or what has failed
//     application small PORT KIB           the same in a thread with so small a stack
//     application stack PORT               the stack of a receiver thread, in KiB
//     application stack PORT KIB           the same with another default for new threads
//     application space PORT CONNECTIONS   the address space that each takes, in KiB
//     application filtered PORT FILTER     calls of every kind under a filter of system calls
#include <dlfcn.h>
#include <errno.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "process/system_calls.h"
#include "qpxclient_eci.h"
#include "qpxclient_esi.h"

namespace {

// ---- The receiver's stack ----

std::atomic<std::size_t> receiversStack{0};

std::size_t stackOfThisThread()
{
    pthread_attr_t attributes;
    std::size_t size = 0;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, &size);
    pthread_attr_destroy(&attributes);
    return size;
}

} // namespace

// The receiver is the only thread that reads from the socket.
extern "C" ssize_t recv(int descriptor, void* bytes, size_t length, int flags)
{
    static auto* const real = reinterpret_cast<ssize_t (*)(int, void*, size_t, int)>(
        dlsym(RTLD_NEXT, "recv"));
    if (receiversStack == 0) receiversStack = stackOfThisThread();
    return real(descriptor, bytes, length, flags);
}

// ---- Clocks ----

// Each look at a clock is a call of the system, as it is on a machine with a clock source that
// programs cannot read by themselves; in 32 bits of either kind that there is.
extern "C" int clock_gettime(clockid_t clock, timespec* now)
{
#ifdef __i386__
    static_assert(sizeof *now == 16, "of 64-bit time");
    long narrow[2];
    syscall(SYS_clock_gettime, clock, narrow);
    return static_cast<int>(syscall(SYS_clock_gettime64, clock, now));
#else
    return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
#endif
}

extern "C" int gettimeofday(timeval* now, void* zone) noexcept
{
    long seen[2] = {};
    auto rc = static_cast<int>(syscall(SYS_gettimeofday, seen, zone));
    now->tv_sec = seen[0];
    now->tv_usec = seen[1];
    return rc;
}

namespace {

// ---- Calls of every kind ----

char localHost[] = "127.0.0.1";

struct Failure {
    const char* what = nullptr;
    int rc = 0;
};

bool expect(Failure* failure, const char* what, int rc)
{
    if (rc == 0) return true;
    *failure = {what, rc};
    return false;
}

QPX_ECI_PARMS record(int callType, char* commarea, short length)
{
    QPX_ECI_PARMS parms = {};
    parms.eci_version = ECI_VERSION_6;
    parms.eci_call_type = static_cast<short>(callType);
    std::memcpy(parms.eci_program_name, "ECHO    ", 8);
    parms.eci_commarea = commarea;
    parms.eci_commarea_length = length;
    return parms;
}

bool callPrograms(QPX_ConnToken_t token, Failure* failure)
{
    static char area[32500];
    QPX_ECI_PARMS sync = record(ECI_SYNC, area, sizeof area);
    if (!expect(failure, "call", QPX_ECI_Execute(token, &sync))) return false;
    QPX_ECI_PARMS async = record(ECI_ASYNC, area, sizeof area);
    if (!expect(failure, "asynchronous call", QPX_ECI_Execute(token, &async))) return false;
    QPX_ECI_PARMS collect = record(ECI_GET_REPLY_WAIT, area, sizeof area);
    return expect(failure, "collection", QPX_ECI_Execute(token, &collect));
}

bool callWithChannel(QPX_ConnToken_t token, Failure* failure)
{
    std::vector<char> data(2000000, 'x');
    ECI_ChannelToken_t channel = nullptr;
    if (!expect(failure, "channel", ECI_createChannel("CHANNEL", &channel))) return false;
    if (!expect(failure, "container",
                ECI_createContainer(channel, "DATA", ECI_CHAR, 0, data.data(), data.size())))
        return false;
    QPX_ECI_PARMS call = record(ECI_SYNC, nullptr, 0);
    std::memcpy(call.eci_program_name, "CHANECHO", 8);
    call.channel = channel;
    if (!expect(failure, "channel call", QPX_ECI_Execute_Channel(token, &call))) return false;
    QPX_ECI_dumpChannels();
    return expect(failure, "deletion", ECI_deleteChannel(&channel));
}

bool askForPasswordsAndSystems(QPX_ConnToken_t token, Failure* failure)
{
    ESI_DETAILS details;
    if (!expect(failure, "password",
                QPX_ESI_verifyPassword(token, "USER", "PASSWORD", nullptr, &details)))
        return false;
    tm expiry = {};
    QPX_ESI_convertTime(&details.expiryTime, &expiry);
    unsigned short count = 10;
    QPX_listSystem_t systems[10];
    return expect(failure, "systems", QPX_listSystems(token, &count, systems));
}

bool makeCalls(int port, Failure* failure)
{
    char nowhere[] = "/dev/null";
    QPX_ConnToken_t token = nullptr;
    if (!expect(failure, "trace file", QPX_setAPITraceFile(nowhere))) return false;
    QPX_setAPITraceLevel(5);
    if (!expect(failure, "open", QPX_openRemoteGatewayConnection(localHost, port, &token, 30)) ||
        !callPrograms(token, failure) || !callWithChannel(token, failure) ||
        !askForPasswordsAndSystems(token, failure))
        return false;
    QPX_dumpState();
    return expect(failure, "close", QPX_closeGatewayConnection(&token)) &&
           expect(failure, "second open",
                  QPX_openRemoteGatewayConnection(localHost, port, &token, 0)) &&
           expect(failure, "purge", QPX_purgeGatewayConnection(&token, 1)) &&
           expect(failure, "close of all", QPX_closeAllGatewayConnections());
}

int tell(const Failure& failure)
{
    if (failure.what == nullptr)
        std::puts("ok");
    else
        std::printf("%s: %d\n", failure.what, failure.rc);
    return 0;
}

int story(int port)
{
    Failure failure;
    makeCalls(port, &failure);
    return tell(failure);
}

// ---- Stack and address space ----

struct SmallThread {
    int port;
    Failure failure;
};

void* callInSmallThread(void* argument)
{
    auto* thread = static_cast<SmallThread*>(argument);
    makeCalls(thread->port, &thread->failure);
    return nullptr;
}

int small(int port, const std::string& kib)
{
    SmallThread made = {port, {}};
    pthread_attr_t attributes;
    pthread_t thread;
    pthread_attr_init(&attributes);
    if (pthread_attr_setstacksize(&attributes, std::stoul(kib) * 1024) != 0) return 1;
    if (pthread_create(&thread, &attributes, callInSmallThread, &made) != 0) return 1;
    pthread_join(thread, nullptr);
    return tell(made.failure);
}

int stack(int port, const std::string& kib)
{
    if (!kib.empty()) {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, std::stoul(kib) * 1024);
        if (pthread_setattr_default_np(&attributes) != 0) return 1;
    }
    QPX_ConnToken_t token = nullptr;
    if (QPX_openRemoteGatewayConnection(localHost, port, &token, 30) != 0) return 1;
    std::printf("%zu\n", receiversStack / 1024);
    return QPX_closeGatewayConnection(&token);
}

// The address space that the process has taken, in KiB.
long addressSpace()
{
    long pages = 0;
    FILE* file = std::fopen("/proc/self/statm", "re");
    if (file == nullptr || std::fscanf(file, "%ld", &pages) != 1) std::abort();
    std::fclose(file);
    return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

int space(int port, const std::string& connections)
{
    constexpr int settled = 4; // what comes with the first ones is not theirs
    int count = std::stoi(connections);
    long before = 0;
    for (int opened = -settled; opened < count; ++opened) {
        if (opened == 0) before = addressSpace();
        QPX_ConnToken_t token = nullptr;
        if (QPX_openRemoteGatewayConnection(localHost, port, &token, 30) != 0) return 1;
    }
    std::printf("%ld\n", (addressSpace() - before) / count);
    return QPX_closeAllGatewayConnections();
}

// ---- Filters of system calls ----

sock_filter load(std::size_t offset)
{
    return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
}

sock_filter answer(std::uint32_t action)
{
    return BPF_STMT(BPF_RET | BPF_K, action);
}

void allowWhereEqual(std::vector<sock_filter>* filter, std::uint32_t value)
{
    filter->push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, 1));
    filter->push_back(answer(SECCOMP_RET_ALLOW));
}

// The calls that the library needs, and what this program ends with; some of them may be answered
// as by a kernel that does not have them.
std::vector<sock_filter> filterOfCalls(const std::vector<std::uint32_t>& unknown = {})
{
    std::vector<sock_filter> filter = {load(offsetof(seccomp_data, nr))};
    for (std::uint32_t number : unknown) {
        filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1));
        filter.push_back(answer(SECCOMP_RET_ERRNO | ENOSYS));
    }
    for (const process::SystemCall& call : process::systemCalls)
        allowWhereEqual(&filter, call.number);
    filter.push_back(answer(SECCOMP_RET_KILL_PROCESS));
    return filter;
}

std::vector<sock_filter> filterOfArchitectures(const std::vector<std::uint32_t>& architectures)
{
    std::vector<sock_filter> filter = {load(offsetof(seccomp_data, arch))};
    for (std::uint32_t architecture : architectures) allowWhereEqual(&filter, architecture);
    filter.push_back(answer(SECCOMP_RET_KILL_PROCESS));
    return filter;
}

bool install(std::vector<sock_filter> filter)
{
    sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// As services have them: "native" is the architecture of the kernel.
int filtered(int port, const std::string& name)
{
    std::vector<sock_filter> filter;
    if (name == "calls") filter = filterOfCalls();
    if (name == "calls-without-clone3") filter = filterOfCalls({SYS_clone3});
    if (name == "native") filter = filterOfArchitectures({AUDIT_ARCH_X86_64});
    if (name == "native-and-x86")
        filter = filterOfArchitectures({AUDIT_ARCH_X86_64, AUDIT_ARCH_I386});
    if (filter.empty() || !install(filter)) return 1;
    return story(port);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) return 2;
    std::string command = argv[1];
    std::string value = argc > 3 ? argv[3] : "";
    int port = std::atoi(argv[2]);
    if (command == "story") return story(port);
    if (command == "small") return small(port, value);
    if (command == "stack") return stack(port, value);
    if (command == "space") return space(port, value);
    if (command == "filtered") return filtered(port, value);
    return 2;
}
