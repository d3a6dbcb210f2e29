#include "application.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <vector>

namespace torture {

Ports ports;
const Shim* shim = nullptr;

namespace {

std::mutex guard;
std::set<std::string> worked;       // guarded by guard
std::map<int, std::string> results; // by thread; guarded by guard
std::atomic<bool> complained{false};
bool coldStart = false;

constexpr int THREADS = 8;
std::atomic<const char*> callOf[THREADS]; // null: the thread is in none
std::atomic<int> threads{0};
thread_local int self = -1;

// An open whose last event cannot be made returns what the event does.
constexpr int NO_EVENT = -1;

const std::vector<int> ofOpens = {
    QPX_ERR_SYSTEM_ERROR,   QPX_ERR_MALLOCFAIL, QPX_ERR_BADHOST, QPX_ERR_CONNECTFAILED,
    QPX_ERR_CONNECTTIMEOUT, QPX_ERR_LOSTGWCON,  NO_EVENT};
const std::vector<int> ofCloses = {QPX_ERR_LOSTGWCON, QPX_ERR_MALLOCFAIL, QPX_ERR_SYSTEM_ERROR};
const std::vector<int> ofCalls = {QPX_ERR_LOSTGWCON, QPX_ERR_GATEWAY_CLOSED, QPX_ERR_MALLOCFAIL,
                                  ECI_ERR_SYSTEM_ERROR, ECI_ERR_RESOURCE_SHORTAGE};
const std::vector<int> ofPasswords = {QPX_ERR_LOSTGWCON, QPX_ERR_GATEWAY_CLOSED, QPX_ERR_MALLOCFAIL,
                                      QPX_ERR_SYSTEM_ERROR, ESI_ERR_SYSTEM_ERROR};
const std::vector<int> ofLists = {QPX_ERR_LOSTGWCON, QPX_ERR_GATEWAY_CLOSED, QPX_ERR_MALLOCFAIL,
                                  QPX_ERR_SYSTEM_ERROR};
const std::vector<int> ofLocks = {ECI_ERR_SYSTEM_ERROR};
const std::vector<int> ofMemory = {ECI_ERR_MEMORY_SHORTAGE, ECI_ERR_SYSTEM_ERROR};
const std::vector<int> ofChannels = {ECI_ERR_MEMORY_SHORTAGE, ECI_ERR_CHANNELLOCKFAIL,
                                     ECI_ERR_SYSTEM_ERROR};
const std::vector<int> ofTraceFiles = {QPX_ERR_TRACEFILE};
const std::vector<int> none = {};
// What a lock that cannot be made returns is what every call then does.
constexpr int NO_LOCK = -1;
const std::vector<int> ofFirstCalls = {QPX_ERR_MALLOCFAIL, QPX_ERR_SYSTEM_ERROR, NO_LOCK};

// The codes with which each call may tell that the system, or the connection, has failed.
const std::map<std::string, const std::vector<int>*> documented = {
    {"ECI_createChannel", &ofChannels},
    {"ECI_createContainer", &ofMemory},
    {"ECI_deleteAllChannels", &ofLocks},
    {"ECI_deleteChannel", &ofLocks},
    {"ECI_deleteContainer", &ofLocks},
    {"ECI_getChannelName", &ofLocks},
    {"ECI_getContainerData", &ofLocks},
    {"ECI_getContainerInfo", &ofLocks},
    {"ECI_getFirstContainer", &ofLocks},
    {"ECI_getNextContainer", &ofLocks},
    {"ECI_setContainerData", &ofMemory},
    {"QPX_ECI_dumpChannels", &ofMemory},
    {"QPX_ECI_Execute", &ofCalls},
    {"QPX_ECI_Execute_Channel", &ofCalls},
    {"QPX_ESI_changePassword", &ofPasswords},
    {"QPX_ESI_convertTime", &none},
    {"QPX_ESI_verifyPassword", &ofPasswords},
    {"QPX_closeAllGatewayConnections", &none},
    {"QPX_closeGatewayConnection", &ofCloses},
    {"QPX_dumpState", &none},
    {"QPX_getAPITraceLevel", &none},
    {"QPX_getAPIVersion", &none},
    {"QPX_getApplid", &ofLocks},
    {"QPX_getApplidQualifier", &ofLocks},
    {"QPX_getDLLVersion", &none},
    {"QPX_getRcString", &none},
    {"QPX_listSystems", &ofLists},
    {"QPX_openRemoteGatewayConnection", &ofOpens},
    {"QPX_openRemoteGatewayConnectionApplid", &ofOpens},
    {"QPX_purgeGatewayConnection", &ofCloses},
    {"QPX_setAPITraceDataLength", &none},
    {"QPX_setAPITraceDataOffset", &none},
    {"QPX_setAPITraceFile", &ofTraceFiles},
    {"QPX_setAPITraceLevel", &none},
};

template <class Codes>
bool contains(const Codes& codes, int rc)
{
    return std::find(codes.begin(), codes.end(), rc) != codes.end();
}

bool isDocumented(const char* call, int rc)
{
    auto row = documented.find(call);
    if (row == documented.end()) return false;
    return contains(*row->second, rc) || (coldStart && contains(ofFirstCalls, rc));
}

} // namespace

void complain(const std::string& problem)
{
    std::lock_guard<std::mutex> hold(guard);
    complained = true;
    std::string line = "bad " + problem + "\n";
    if (::write(STDOUT_FILENO, line.data(), line.size()) < 0) _exit(96);
}

bool hasComplained()
{
    return complained;
}

void enter(const char* call)
{
    if (self < 0) self = threads.fetch_add(1) % THREADS;
    callOf[self] = call;
}

static void noteResult(const char* call, int rc, bool isCertain)
{
    std::lock_guard<std::mutex> hold(guard);
    results[self] += std::string(call) + "=" + (isCertain ? std::to_string(rc) : "any") + ";";
}

int leave(const char* call, int rc, std::initializer_list<int> expected)
{
    callOf[self] = nullptr;
    noteResult(call, rc, expected.size() == 1);
    if (contains(expected, rc)) {
        std::lock_guard<std::mutex> hold(guard);
        worked.insert(call);
        return rc;
    }
    if (shim->hits() > 0 && isDocumented(call, rc)) return rc;

    char name[QPX_RC_STRING_SIZE];
    complain(std::string(call) + " returned " + std::to_string(rc) + " (" +
             QPX_getRcString(rc, name) + "), which is not documented for it" +
             (shim->hits() == 0 ? ", and nothing has failed" : ""));
    return rc;
}

void tellWhere()
{
    for (std::atomic<const char*>& slot : callOf) {
        const char* call = slot;
        if (call == nullptr) continue;
        if (::write(STDOUT_FILENO, "bad no end of ", 14) < 0 ||
            ::write(STDOUT_FILENO, call, std::strlen(call)) < 0 ||
            ::write(STDOUT_FILENO, "\n", 1) < 0)
            _exit(96);
    }
}

bool isReceiverOfAnOpen()
{
    if (self >= 0) return false;
    for (std::atomic<const char*>& slot : callOf) {
        const char* call = slot;
        if (call != nullptr && std::strstr(call, "QPX_open") != nullptr) return true;
    }
    return false;
}

void expectColdStart()
{
    coldStart = true;
}

std::vector<std::string> toldResults()
{
    std::lock_guard<std::mutex> hold(guard);
    std::vector<std::string> all;
    for (const auto& [thread, text] : results) all.push_back(text);
    return all;
}

bool hasWorked(const char* call)
{
    std::lock_guard<std::mutex> hold(guard);
    return worked.count(call) != 0;
}

void expect(bool right, const char* what)
{
    if (!right) complain(std::string("not as it has to be: ") + what);
}

} // namespace torture
