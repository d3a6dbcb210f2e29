// Runs one scenario once, with one call of the library failing, in a process that ends with it.
//
//     torture_scenarios                             the names of the scenarios and of the faults
//     torture_scenarios SCENARIO FAULT K WHEN PORTS HELD
//
// WHEN is "once" or "on": the K-th call of FAULT, or that and all behind it. A K of 0 only counts,
// and prints how many calls there are of each kind, which calls of the library have worked, and
// what the library goes on holding. HELD is that, as a later run is told it: pairs of a site and
// a number, and no run may hold more. Exit code 0 if all was well, 3 if nothing has failed because
// there was no K-th call, 1 with lines "bad ..." otherwise. A run that takes too long ends with 4.
//
// Two waits without limit are known. A close whose flow cannot be made waits until the peer ends the
// connection: a byte on descriptor 3 asks the driver to let it. An open whose receiver finds no
// memory for its read buffer waits for good: such a run ends there, with exit code 5.
#include <dirent.h>
#include <dlfcn.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

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
constexpr int CONTROL = 3;

void endHungRun(int)
{
    tellWhere();
    _exit(4);
}

bool failsForMemory = false;

void noteHit()
{
    if (isClosing() && ::write(CONTROL, "d", 1) < 0) _exit(96);
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
    return 0;
}

int runScenario(const Scenario& scenario, int fault, int k, bool fromThenOn, const char* held)
{
    if (scenario.cold)
        expectColdStart();
    else
        cleanUp();
    int descriptors = entriesOf("/proc/self/fd");
    failsForMemory = std::strcmp(shim->faultName(fault), "malloc") == 0;
    if (failsForMemory || std::strcmp(shim->faultName(fault), "send-nobufs") == 0)
        shim->onHit(noteHit);

    shim->arm(fault, k, fromThenOn);
    scenario.run();
    shim->disarm();
    shim->onHit(nullptr);
    int failures = shim->hits();
    std::size_t place = shim->place();
    if (k == 0) printCounts();

    bool works = expectAllToWork(scenario);
    awaitOneThread();
    // Of a library that has not come to life nobody can take the trace file away.
    if (works && entriesOf("/proc/self/fd") > descriptors) complain("a descriptor is left");
    if (k == 0)
        printWhatRemains(exportedCalls);
    else if (works)
        compareHeld(readHeld(held));
    if (hasComplained() && failures > 0)
        std::printf("bad the first failure was at %s of the library\n", hex(place).c_str());
    std::fflush(stdout);
    if (hasComplained()) return 1;
    return k == 0 || failures > 0 ? 0 : 3;
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
    const Scenario* scenario = argc == 7 ? scenarioOf(argv[1]) : nullptr;
    int fault = argc == 7 ? faultOf(argv[2]) : -1;
    if (scenario == nullptr || fault < 0) return 2;
    if (std::sscanf(argv[5], "%d,%d,%d,%d", &ports.gateway, &ports.refusing, &ports.dropping,
                    &ports.silent) != 4)
        return 2;

    signal(SIGALRM, endHungRun);
    alarm(LONGEST_RUN);
    return runScenario(*scenario, fault, std::atoi(argv[3]), std::strcmp(argv[4], "on") == 0,
                       argv[6]);
}
