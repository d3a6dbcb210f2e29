// An application that opens a connection, closes it and unloads the library while the receiver
// thread has told that it ends, but has not returned yet.
//
// The program puts its own functions before those of the C library: the receiver is held in the
// last of them that it calls, until the library has been unloaded.
#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "qpxclient.h"
#include "support/bytes.h"
#include "support/call_in_thread.h"
#include "support/scripted_gateway.h"

using support::callInThread;
using support::hex;
using support::Peer;
using support::ScriptedGateway;

namespace {

constexpr int rounds = 1000;

// Bytes of the handshake of a connection without applid and qualifier, and of a close flow.
constexpr std::size_t handshakeSize = 55;
constexpr std::size_t closeFlowSize = 33;

// ---- The delayed receiver ----

enum class Step { Working, SocketClosed, Telling, Told };

thread_local Step step = Step::Working;

std::mutex guard;
std::condition_variable changed;
int held = 0;     // receivers that have been held so far; by guard, as those that follow
int released = 0; // how many of them may go on
int ended = 0;    // and how many have returned

// Runs once a receiver thread has returned.
void countEnd(void*)
{
    std::lock_guard<std::mutex> lock(guard);
    ended += 1;
    changed.notify_all();
}

pthread_key_t endOfThread()
{
    static const pthread_key_t key = [] {
        pthread_key_t made = {};
        pthread_key_create(&made, countEnd);
        return made;
    }();
    return key;
}

void hold()
{
    pthread_setspecific(endOfThread(), &step);
    std::unique_lock<std::mutex> lock(guard);
    held += 1;
    int number = held;
    changed.notify_all();
    changed.wait(lock, [&] { return released >= number; });
}

bool isTheLibrarys(void* address)
{
    Dl_info info = {};
    return dladdr(address, &info) != 0 && std::strstr(info.dli_fname, "libqpxclient") != nullptr;
}

template <typename Function>
Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// The version that a program is linked with; there is an older one, of another kind.
template <typename Function>
Function* nextCondition(const char* name)
{
    return reinterpret_cast<Function*>(dlvsym(RTLD_NEXT, name, "GLIBC_2.3.2"));
}

// Looked up once, before there are threads.
auto* const realClose = next<int(int)>("close");
auto* const realUnlock = next<int(pthread_mutex_t*)>("pthread_mutex_unlock");
auto* const realBroadcast = nextCondition<int(pthread_cond_t*)>("pthread_cond_broadcast");

} // namespace

extern "C" int close(int descriptor)
{
    if (isTheLibrarys(__builtin_return_address(0))) step = Step::SocketClosed;
    return realClose(descriptor);
}

extern "C" int pthread_cond_broadcast(pthread_cond_t* condition) noexcept
{
    if (step == Step::SocketClosed) step = Step::Telling;
    return realBroadcast(condition);
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept
{
    // The constructors of other files may lock something before this one's have run.
    if (realUnlock == nullptr) return next<int(pthread_mutex_t*)>("pthread_mutex_unlock")(mutex);
    int rc = realUnlock(mutex);
    if (step != Step::Telling) return rc;
    step = Step::Told;
    hold();
    return rc;
}

namespace {

// ---- The application ----

template <typename Function>
Function* find(void* library, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(library, name));
}

// One round: loads, opens, closes, unloads.
void useAndUnload(int port)
{
    void* library = dlopen(QPX_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, library) << dlerror();
    auto* open = find<decltype(QPX_openRemoteGatewayConnection)>(library,
                                                                 "QPX_openRemoteGatewayConnection");
    auto* closeConnection = find<decltype(QPX_closeGatewayConnection)>(
        library, "QPX_closeGatewayConnection");
    QPX_ConnToken_t token = nullptr;
    char localHost[] = "127.0.0.1";
    ASSERT_EQ(0, open(localHost, port, &token, 0));
    ASSERT_EQ(0, closeConnection(&token));
    ASSERT_EQ(0, dlclose(library));
}

void awaitReceivers(const int& count, int wanted)
{
    std::unique_lock<std::mutex> lock(guard);
    ASSERT_TRUE(changed.wait_for(lock, support::generousLimit, [&] { return count >= wanted; }));
}

void releaseReceivers(int count)
{
    std::lock_guard<std::mutex> lock(guard);
    released = count;
    changed.notify_all();
}

void answerOpenAndClose(ScriptedGateway& gateway)
{
    Peer peer = gateway.accept();
    peer.read(handshakeSize);
    peer.send(hex("47617465 10A01000 00000005 FFFFFFFE 00000000 00000004 42415345 00 00000000"));
    peer.read(closeFlowSize);
    peer.send(hex("47617465 10A01000 0000000A FFFFFFFF 00000000 00000004 42415345 00 00000000"));
}

int openAndUnload(void* library, int port, QPX_ConnToken_t* token)
{
    auto* open = find<decltype(QPX_openRemoteGatewayConnection)>(library,
                                                                 "QPX_openRemoteGatewayConnection");
    char localHost[] = "127.0.0.1";
    int rc = open(localHost, port, token, 0);
    return dlclose(library) == 0 ? rc : 1;
}

TEST(UnloadedLibrary, LetsItsReceiverThreadReturn)
{
    ScriptedGateway gateway;
    auto answering = callInThread([&] {
        for (int round = 1; round <= rounds; ++round) answerOpenAndClose(gateway);
        return 0;
    });
    for (int round = 1; round <= rounds; ++round) {
        useAndUnload(gateway.port());
        awaitReceivers(held, round);
        releaseReceivers(round);
        awaitReceivers(ended, round);
        if (HasFatalFailure()) break;
    }
    EXPECT_EQ(0, answering.get());
    EXPECT_EQ(rounds, ended);
}

// The application unloads the library under its connection, and closes that when it has loaded the
// library again.
TEST(UnloadedLibrary, KeepsItsConnections)
{
    ScriptedGateway gateway;
    auto answering = callInThread([&] {
        answerOpenAndClose(gateway);
        return 0;
    });
    void* library = dlopen(QPX_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, library) << dlerror();
    QPX_ConnToken_t token = nullptr;
    ASSERT_EQ(0, openAndUnload(library, gateway.port(), &token));

    library = dlopen(QPX_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, library) << dlerror();
    releaseReceivers(1);
    EXPECT_EQ(0, find<decltype(QPX_closeGatewayConnection)>(library,
                                                            "QPX_closeGatewayConnection")(&token));
    EXPECT_EQ(0, answering.get());
    awaitReceivers(ended, 1);
    ASSERT_EQ(0, dlclose(library));
}

} // namespace
