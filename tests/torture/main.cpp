// Runs one scenario once, with one call of the library failing or with all that it reads and writes
// cut up, in a process that ends with it.
//
//     torture_scenarios                 the names of the scenarios, of the faults and of the ways
//     torture_scenarios SCENARIO FAULT K WHEN PORTS HELD
//     torture_scenarios SCENARIO WAY SEED shredded PORTS HELD
//
// A shredded run is one in which nothing fails, and prints the same; with how many calls have been
// cut or interrupted. One whose connect a real signal has ended, as it may, ends with 6.
//
// WHEN is "once" or "on": the K-th call of FAULT, or that and all behind it. A K of 0 only counts,
// and prints how many calls there are of each kind, which calls of the library have worked, and
// what the library goes on holding. HELD is that, as a later run is told it: pairs of a site and
// a number, and no run may hold more. Exit code 0 if all was well, 3 if nothing has failed because
// there was no K-th call, 1 with lines "bad ..." otherwise. A run that takes too long ends with 4.
//
// One wait without limit is known: an open whose receiver finds no memory for its read buffer waits
// for good. Such a run ends there, with exit code 5.
#include <dirent.h>
#include <dlfcn.h>
#include <sched.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "application.h"

namespace torture {

namespace {

constexpr unsigned LONGEST_RUN = 40; // seconds, many times what one takes on a busy machine

void endHungRun(int)
{
    tellWhere();
    _exit(4);
}

bool failsForMemory = false;

void noteHit()
{
    if (failsForMemory && isReceiverOfAnOpen()) _exit(5);
}

int entriesOf(const char* folder)
{
    DIR* listing = opendir(folder);
    int count = 0;
    while (readdir(listing) != nullptr) count += 1;
    closedir(listing);
    return count;
}

// A receiver has left its connection before its thread has ended.
void awaitOneThread()
{
    enter("the end of all threads");
    while (entriesOf("/proc/self/task") != 3) sched_yield();
    leave("the end of all threads", 0, {0});
}

// ---- Shredding ----------------------------------------------------------------------------------

struct Way {
    const char* name;
    Shredding shredding;
    bool signals;
    int handlerFlags;
};

const Way ways[] = {
    {"received-one-by-one", Shredding::ReceivedOneByOne, false, 0},
    {"received-at-random", Shredding::ReceivedAtRandom, false, 0},
    {"sent-by-halves", Shredding::SentByHalves, false, 0},
    {"interrupted", Shredding::Interrupted, false, 0},
    {"signals", Shredding::None, true, 0},
    {"signals-that-restart", Shredding::None, true, SA_RESTART},
};

const Way* wayOf(const char* name)
{
    for (const Way& way : ways)
        if (std::strcmp(way.name, name) == 0) return &way;
    return nullptr;
}

std::atomic<int> signalCount{0};

void countSignal(int)
{
    signalCount += 1;
}

// A signal to the process in each millisecond, as long as this lives.
class Signals {
public:
    explicit Signals(int handlerFlags)
    {
        struct sigaction action = {};
        action.sa_handler = countSignal;
        action.sa_flags = handlerFlags;
        sigaction(SIGUSR1, &action, nullptr);
        sigevent event = {};
        event.sigev_notify = SIGEV_SIGNAL;
        event.sigev_signo = SIGUSR1;
        if (timer_create(CLOCK_MONOTONIC, &event, &timer_) != 0) _exit(95);
        constexpr timespec millisecond = {0, 1000000};
        itimerspec times = {millisecond, millisecond};
        timer_settime(timer_, 0, &times, nullptr);
    }
    ~Signals() { timer_delete(timer_); }
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

private:
    timer_t timer_ = {};
};

void runShredded(const Scenario& scenario, const Way& way, unsigned seed)
{
    shim->shred(way.shredding, seed);
    if (way.signals) {
        Signals signals(way.handlerFlags);
        scenario.run();
    } else {
        scenario.run();
    }
    std::printf("shreds %s %d\n", way.name, shim->shreds() + signalCount);
    shim->shred(Shredding::None, 0);
}

// ---- What is left -------------------------------------------------------------------------------

// What is held, as a number for each site.
std::map<std::size_t, int> heldBySite()
{
    std::vector<Held> room(8192);
    int count = shim->held(room.data(), static_cast<int>(room.size()));
    std::map<std::size_t, int> sites;
    for (int i = 0; i < count; i += 1) sites[room[static_cast<std::size_t>(i)].site] += 1;
    return sites;
}

std::map<std::size_t, int> readHeld(const char* text)
{
    std::map<std::size_t, int> sites;
    std::istringstream words(text);
    std::size_t site;
    int count;
    while (words >> site >> count) sites[site] = count;
    return sites;
}

std::string hex(std::size_t number)
{
    char text[20];
    std::snprintf(text, sizeof text, "0x%zx", number);
    return text;
}

void compareHeld(const std::map<std::size_t, int>& usual)
{
    for (const auto& [site, count] : heldBySite()) {
        auto row = usual.find(site);
        int limit = row == usual.end() ? 0 : row->second;
        if (count > limit)
            complain("leak: " + std::to_string(count - limit) + " made at " + hex(site) +
                     " of the library");
    }
}

// What every scenario ends with, when nothing fails any more.
void cleanUp()
{
    CALL(QPX_OK, QPX_closeAllGatewayConnections);
    CALL(ECI_NO_ERROR, ECI_deleteAllChannels);
    CALL(QPX_OK, QPX_setAPITraceLevel, 0);
    CALL(QPX_OK, QPX_setAPITraceFile, nullptr);
}

void callOnFreshConnection()
{
    char host[] = "127.0.0.1";
    QPX_ConnToken_t token = nullptr;
    if (CALL(QPX_OK, QPX_openRemoteGatewayConnection, host, ports.gateway, &token, 0) != QPX_OK)
        return;

    char area[] = "after all";
    QPX_ECI_PARMS parms = {};
    parms.eci_call_type = ECI_SYNC;
    std::memcpy(parms.eci_program_name, "ECHO    ", 8);
    parms.eci_version = ECI_VERSION_6;
    parms.eci_commarea = area;
    parms.eci_commarea_length = sizeof area;
    CALL(ECI_NO_ERROR, QPX_ECI_Execute, token, &parms);
    expect(std::strcmp(area, "after all") == 0, "the COMMAREA of the next call");
    CALL(QPX_OK, QPX_closeGatewayConnection, &token);
}

// From here on every result has to be that of a system in which nothing fails. False if the first
// call of all has failed, and every other with it.
bool expectAllToWork(const Scenario& scenario)
{
    char* version = nullptr;
    if (scenario.cold && shim->hits() > 0 && QPX_getAPIVersion(&version) != QPX_OK) {
        expect(QPX_closeAllGatewayConnections() == QPX_getAPIVersion(&version),
               "what calls return that come behind a first one that has failed");
        return false;
    }
    shim->arm(0, 0, false); // no failure is counted any more, so no code of one will do
    cleanUp();
    callOnFreshConnection();
    cleanUp();
    shim->disarm();
    return true;
}

void printCounts()
{
    for (int fault = 0; fault < shim->faults(); fault += 1)
        std::printf("count %s %d\n", shim->faultName(fault), shim->calls(fault));
}

void printResults()
{
    for (const std::string& text : toldResults()) std::printf("told %s\n", text.c_str());
}

void printWhatRemains(const char* const* calls)
{
    for (const auto& [site, count] : heldBySite()) std::printf("held %zu %d\n", site, count);
    for (; *calls != nullptr; calls += 1)
        if (hasWorked(*calls)) std::printf("did %s\n", *calls);
}

const char* const exportedCalls[] = {"ECI_createChannel",
                                     "ECI_createContainer",
                                     "ECI_deleteAllChannels",
                                     "ECI_deleteChannel",
                                     "ECI_deleteContainer",
                                     "ECI_getChannelName",
                                     "ECI_getContainerData",
                                     "ECI_getContainerInfo",
                                     "ECI_getFirstContainer",
                                     "ECI_getNextContainer",
                                     "ECI_setContainerData",
                                     "QPX_ECI_dumpChannels",
                                     "QPX_ECI_Execute",
                                     "QPX_ECI_Execute_Channel",
                                     "QPX_ESI_changePassword",
                                     "QPX_ESI_convertTime",
                                     "QPX_ESI_verifyPassword",
                                     "QPX_closeAllGatewayConnections",
                                     "QPX_closeGatewayConnection",
                                     "QPX_dumpState",
                                     "QPX_getAPITraceLevel",
                                     "QPX_getAPIVersion",
                                     "QPX_getApplid",
                                     "QPX_getApplidQualifier",
                                     "QPX_getDLLVersion",
                                     "QPX_getRcString",
                                     "QPX_listSystems",
                                     "QPX_openRemoteGatewayConnection",
                                     "QPX_openRemoteGatewayConnectionApplid",
                                     "QPX_purgeGatewayConnection",
                                     "QPX_setAPITraceDataLength",
                                     "QPX_setAPITraceDataOffset",
                                     "QPX_setAPITraceFile",
                                     "QPX_setAPITraceLevel",
                                     nullptr};

int faultOf(const char* name)
{
    for (int fault = 0; fault < shim->faults(); fault += 1)
        if (std::strcmp(shim->faultName(fault), name) == 0) return fault;
    return -1;
}

const Scenario* scenarioOf(const char* name)
{
    for (std::size_t i = 0; i < scenarioCount; i += 1)
        if (std::strcmp(scenarios[i].name, name) == 0) return &scenarios[i];
    return nullptr;
}

int printNames()
{
    for (std::size_t i = 0; i < scenarioCount; i += 1)
        std::printf("scenario %s\n", scenarios[i].name);
    for (int fault = 0; fault < shim->faults(); fault += 1)
        std::printf("fault %s\n", shim->faultName(fault));
    for (const Way& way : ways) std::printf("way %s\n", way.name);
    return 0;
}

// One run: with a call that fails, or none if k is 0, or shredded.
struct Plan {
    const Scenario* scenario = nullptr;
    int fault = 0;
    int k = 0;
    bool fromThenOn = false;
    const Way* way = nullptr;
    unsigned seed = 0;
    const char* held = "";
};

int runScenario(const Plan& plan)
{
    const Scenario& scenario = *plan.scenario;
    if (scenario.cold)
        expectColdStart();
    else
        cleanUp();
    int descriptors = entriesOf("/proc/self/fd");
    failsForMemory = std::strcmp(shim->faultName(plan.fault), "malloc") == 0;
    if (failsForMemory || std::strcmp(shim->faultName(plan.fault), "send-nobufs") == 0)
        shim->onHit(noteHit);

    shim->arm(plan.fault, plan.k, plan.fromThenOn);
    if (plan.way == nullptr)
        scenario.run();
    else
        runShredded(scenario, *plan.way, plan.seed);
    if (shim->interruptedConnects() > 0) return 6;
    shim->disarm();
    shim->onHit(nullptr);
    int failures = shim->hits();
    std::size_t place = shim->place();
    if (plan.k == 0) printCounts();
    if (plan.k == 0) printResults();

    bool works = expectAllToWork(scenario);
    awaitOneThread();
    // Of a library that has not come to life nobody can take the trace file away.
    if (works && entriesOf("/proc/self/fd") > descriptors) complain("a descriptor is left");
    if (plan.k == 0) printWhatRemains(exportedCalls);
    if (works && (plan.k != 0 || plan.way != nullptr)) compareHeld(readHeld(plan.held));
    if (hasComplained() && failures > 0)
        std::printf("bad the first failure was at %s of the library\n", hex(place).c_str());
    std::fflush(stdout);
    if (hasComplained()) return 1;
    return plan.k == 0 || failures > 0 ? 0 : 3;
}

} // namespace

} // namespace torture

int main(int argc, char** argv)
{
    using namespace torture;

    auto entry = reinterpret_cast<const Shim* (*)()>(dlsym(RTLD_DEFAULT, shimEntry));
    if (entry == nullptr) {
        std::fprintf(stderr, "torture_scenarios: the shim is not preloaded; use torture\n");
        return 2;
    }
    shim = entry();
    if (argc == 1) return printNames();
    if (argc != 7) return 2;
    Plan plan;
    plan.scenario = scenarioOf(argv[1]);
    plan.held = argv[6];
    plan.way = wayOf(argv[2]);
    if (plan.way != nullptr) {
        plan.seed = static_cast<unsigned>(std::atoi(argv[3]));
    } else {
        plan.fault = faultOf(argv[2]);
        plan.k = std::atoi(argv[3]);
        plan.fromThenOn = std::strcmp(argv[4], "on") == 0;
    }
    if (plan.scenario == nullptr || plan.fault < 0) return 2;
    if (std::sscanf(argv[5], "%d,%d,%d,%d", &ports.gateway, &ports.refusing, &ports.dropping,
                    &ports.silent) != 4)
        return 2;

    signal(SIGALRM, endHungRun);
    alarm(LONGEST_RUN);
    return runScenario(plan);
}
